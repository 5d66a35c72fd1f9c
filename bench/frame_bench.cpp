// Cost of the camera operations a renderer calls per pixel, through the real load path of the
// built module, beside the cost of a bare slot call and of a plain indirect call.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>

#include "quorv/host/host.h"
#include "render/cameras/camera.h"

namespace quorv {
namespace {

constexpr Float64 WIDTH = 1920.0;
constexpr Float64 HEIGHT = 1080.0;

struct Cameras {
    CameraRef parallel;
    CameraRef perspective;
};

[[noreturn]] void Fail(const char* what, const ErrorObject* error) {
    std::fprintf(stderr, "bench_frame: %s: %s\n", what, ErrorToString(error).c_str());
    std::exit(1);
}

CameraRef Create(const char* id, const DataDictionary& parameters) {
    Result<ObjectRef> object = CreateObjectById(LiteralId(CAMERA_CLASS_REGISTRY_ID), LiteralId(id));
    if (object.IsError()) Fail(id, object.GetErrorPointer());
    Result<CameraRef> camera = CameraRef::Cast(object.GetValue());
    if (camera.IsError()) Fail(id, camera.GetErrorPointer());
    Result<void> init = camera.GetValue().Init(parameters, 0);
    if (init.IsError()) Fail(id, init.GetErrorPointer());
    return camera.GetValue();
}

// Starts the host, loads the module once and makes both cameras, 1920x1080 and moved.
const Cameras& GetCameras() {
    static const Cameras cameras = [] {
        host::Host::Start(host::HostOptions{});
        Result<host::LoadedModule*> module = host::Host::Get().LoadModule(QUORV_MODULE_PATH);
        if (module.IsError()) Fail(QUORV_MODULE_PATH, module.GetErrorPointer());
        Result<DataDictionary> created = DataDictionary::Create();
        if (created.IsError()) Fail("dictionary", created.GetErrorPointer());
        DataDictionary parameters = created.GetValue();
        Matrix64 m;
        m.offset = {1.5, -2.25, 3.125};
        m.axisX = {0.8, 0.36, -0.48};
        m.axisY = {-0.6, 0.48, -0.64};
        m.axisZ = {0.0, 0.8, 0.6};
        Result<void> set = parameters.SetData(
            LiteralId("net.quorv.render.camera.cameraparameters.screenresolution"),
            Data::Of(Vector2d64{WIDTH, HEIGHT}));
        if (set.IsOk()) {
            set = parameters.SetData(LiteralId("net.quorv.render.camera.cameraparameters.matrix"),
                                     Data::Of(m));
        }
        if (set.IsError()) Fail("parameters", set.GetErrorPointer());
        return Cameras{Create(PARALLEL_CAMERA_CLASS_ID, parameters),
                       Create(PERSPECTIVE_CAMERA_CLASS_ID, parameters)};
    }();
    return cameras;
}

// Walks the pixels of the screen so that no two calls see the same input.
void CreateScreenRay(benchmark::State& state, const CameraRef& camera) {
    Ray ray;
    Vector2d64 s{0.0, 0.0};
    for (auto _ : state) {
        camera.CreateScreenRay(s, ray);
        benchmark::DoNotOptimize(ray);
        s.x += 1.0;
        if (s.x >= WIDTH) {
            s.x = 0.0;
            s.y = s.y + 1.0 >= HEIGHT ? 0.0 : s.y + 1.0;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void WorldToScreen(benchmark::State& state, const CameraRef& camera) {
    Vector64 p{0.25, -0.5, 8.0};
    for (auto _ : state) {
        Vector64 s = camera.WorldToScreen(p);
        benchmark::DoNotOptimize(s);
        p.x += 1e-3;
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_ParallelCreateScreenRay(benchmark::State& state) {
    CreateScreenRay(state, GetCameras().parallel);
}
void BM_PerspectiveCreateScreenRay(benchmark::State& state) {
    CreateScreenRay(state, GetCameras().perspective);
}
void BM_ParallelWorldToScreen(benchmark::State& state) {
    WorldToScreen(state, GetCameras().parallel);
}
void BM_PerspectiveWorldToScreen(benchmark::State& state) {
    WorldToScreen(state, GetCameras().perspective);
}

// One call through a slot of the host binary's own framework copy.
void BM_SlotCall(benchmark::State& state) {
    GetCameras();
    UInt h = SystemInterface::PrivateHasherInitialize();
    UInt i = 0;
    for (auto _ : state) {
        h = SystemInterface::PrivateHasherCombine(h, ++i);
        benchmark::DoNotOptimize(h);
    }
}

UInt LocalCombine(UInt state, UInt value) { return (state ^ value) * 0x100000001b3ull; }

// The same shape of call through a volatile function pointer, for comparison.
void BM_LocalIndirectCall(benchmark::State& state) {
    UInt (*volatile combine)(UInt, UInt) = &LocalCombine;
    UInt h = 0;
    UInt i = 0;
    for (auto _ : state) {
        h = combine(h, ++i);
        benchmark::DoNotOptimize(h);
    }
}

BENCHMARK(BM_ParallelCreateScreenRay);
BENCHMARK(BM_PerspectiveCreateScreenRay);
BENCHMARK(BM_ParallelWorldToScreen);
BENCHMARK(BM_PerspectiveWorldToScreen);
BENCHMARK(BM_SlotCall);
BENCHMARK(BM_LocalIndirectCall);

}  // namespace
}  // namespace quorv

BENCHMARK_MAIN();
