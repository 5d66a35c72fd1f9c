// Rays per second through CalculateIntersection of the intersector classes (loaded from
// libquorv_intersect.so, created by id, called through the interface's method table) against
// direct Embree calls on a flat scene in the same run: 1024 x 1024 camera rays at a sphere of
// 998000 triangles, one and two threads, single and four-ray calls. Also the builds, at each
// embree build quality, in wall and in CPU time.
#include <benchmark/benchmark.h>
#include <embree3/rtcore.h>
#include <time.h>

#include <cfloat>
#include <chrono>
#include <cmath>

#include "intersect/mesh.h"
#include "quorv/host/host.h"
#include "render/frame/intersection.h"

namespace quorv {
namespace {

constexpr Int SIZE = 1024;
constexpr Int RINGS = 500;  // 4 * 500 * 499 = 998000 triangles

const mesh::Mesh& Sphere() {
    static const mesh::Mesh m = mesh::MakeSphere(RINGS, false);
    return m;
}

bool LoadModules() {
    static const bool loaded = [] {
        host::HostOptions options;
        options.echoCriticalOutput = false;
        host::Host& h = host::Host::Start(options);
        return h.LoadModule(QUORV_MODULE_PATH).IsOk() &&
               h.LoadModule(QUORV_INTERSECT_MODULE_PATH).IsOk();
    }();
    return loaded;
}

// A new intersector of class `id` with the sphere added, not yet finalized. `quality` is the
// embree build quality (0 low, 1 medium, 2 high); -1 leaves the class's default.
BatchedIntersectionRef Prepare(const char* id, Int quality) {
    LoadModules();
    Result<ObjectRef> o =
        CreateObjectById(LiteralId(INTERSECTION_CLASS_REGISTRY_ID), LiteralId(id));
    BatchedIntersectionRef r = BatchedIntersectionRef::Cast(o.GetValue()).GetValue();
    DataDictionary parameters = DataDictionary::Create().GetValue();
    if (quality >= 0)
        (void)parameters.SetData(intersectionparameters::BUILDQUALITY.GetId(), Data::Of(quality));
    (void)r.Init(parameters);
    const mesh::Mesh& m = Sphere();
    (void)r.AddScene(m.points.data(), Int(m.points.size()), m.polygons.data(),
                     Int(m.polygons.size()), Matrix64{});
    return r;
}

BatchedIntersectionRef Build(const char* id, Int quality = -1) {
    BatchedIntersectionRef r = Prepare(id, quality);
    (void)r.Finalize();
    return r;
}

BatchedIntersectionRef& Embree() {
    static BatchedIntersectionRef r = Build(EMBREE_INTERSECTION_CLASS_ID);
    return r;
}
BatchedIntersectionRef& EmbreeLow() {
    static BatchedIntersectionRef r = Build(EMBREE_INTERSECTION_CLASS_ID, 0);
    return r;
}
BatchedIntersectionRef& Ymb() {
    static BatchedIntersectionRef r = Build(YMB_INTERSECTION_CLASS_ID);
    return r;
}

// The camera: origin on -z, the sphere filling the picture's width.
inline void CameraRay(Int x, Int y, Ray& ray) {
    const Float64 sx = (Float64(x) + 0.5) / SIZE * 2.2 - 1.1;
    const Float64 sy = (Float64(y) + 0.5) / SIZE * 2.2 - 1.1;
    const Float64 dz = 3.0;
    const Float64 l = std::sqrt(sx * sx + sy * sy + dz * dz);
    ray.origin = {0.0, 0.0, -3.0};
    ray.direction = {sx / l, sy / l, dz / l};
    ray.minDistance = 0.0;
    ray.maxDistance = DBL_MAX;
}

// Each thread traces every row with index = thread (mod threads).
void TraceFrame(benchmark::State& state, const BatchedIntersectionRef& isect) {
    Int hits = 0;
    for (auto _ : state) {
        for (Int y = state.thread_index(); y < SIZE; y += state.threads()) {
            for (Int x = 0; x < SIZE; ++x) {
                Ray ray;
                CameraRay(x, y, ray);
                IntersectionResult64 r;
                hits += isect.CalculateIntersection(ray, r);
            }
        }
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(state.iterations() * SIZE * SIZE / state.threads());
}

void TraceFrame4(benchmark::State& state, const BatchedIntersectionRef& isect) {
    Int hits = 0;
    for (auto _ : state) {
        for (Int y = state.thread_index() * 2; y < SIZE; y += 2 * state.threads()) {
            for (Int x = 0; x < SIZE; x += 2) {
                Ray rays[4];
                CameraRay(x, y, rays[0]);
                CameraRay(x + 1, y, rays[1]);
                CameraRay(x, y + 1, rays[2]);
                CameraRay(x + 1, y + 1, rays[3]);
                const Ray* group[4] = {&rays[0], &rays[1], &rays[2], &rays[3]};
                IntersectionResult64 r[4];
                hits += isect.CalculateIntersection4(group, r);
            }
        }
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(state.iterations() * SIZE * SIZE / state.threads());
}

void BM_EmbreeClass(benchmark::State& state) { TraceFrame(state, Embree()); }
void BM_EmbreeClassLowQuality(benchmark::State& state) { TraceFrame(state, EmbreeLow()); }
void BM_EmbreeClass4(benchmark::State& state) { TraceFrame4(state, Embree()); }
void BM_YmbClass(benchmark::State& state) { TraceFrame(state, Ymb()); }

// Direct Embree: one flat scene of the same triangles, rtcIntersect1 with the same rays made
// Float32, and nothing done with the hit beyond counting it.
struct DirectScene {
    RTCDevice device = rtcNewDevice(nullptr);
    RTCScene scene = nullptr;
    explicit DirectScene(RTCSceneFlags flags) {
        scene = rtcNewScene(device);
        const mesh::Mesh& m = Sphere();
        RTCGeometry g = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        auto* v = static_cast<float*>(rtcSetNewGeometryBuffer(
            g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 12, m.points.size()));
        for (size_t i = 0; i < m.points.size(); ++i) {
            v[3 * i] = float(m.points[i].x), v[3 * i + 1] = float(m.points[i].y),
                  v[3 * i + 2] = float(m.points[i].z);
        }
        auto* idx = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
            g, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, m.polygons.size()));
        for (size_t i = 0; i < m.polygons.size(); ++i) {
            idx[3 * i] = unsigned(m.polygons[i].a), idx[3 * i + 1] = unsigned(m.polygons[i].b);
            idx[3 * i + 2] = unsigned(m.polygons[i].c);
        }
        rtcCommitGeometry(g);
        rtcAttachGeometry(scene, g);
        rtcReleaseGeometry(g);
        rtcSetSceneFlags(scene, flags);
        rtcCommitScene(scene);
    }
};

// range(0): 0 the default scene flags, 1 robust (as the class uses).
RTCScene Direct(int robust) {
    static DirectScene plain(RTC_SCENE_FLAG_NONE);
    static DirectScene withRobust(RTC_SCENE_FLAG_ROBUST);
    return robust ? withRobust.scene : plain.scene;
}

void BM_EmbreeDirect(benchmark::State& state) {
    RTCScene scene = Direct(int(state.range(0)));
    Int hits = 0;
    for (auto _ : state) {
        for (Int y = state.thread_index(); y < SIZE; y += state.threads()) {
            for (Int x = 0; x < SIZE; ++x) {
                Ray ray;
                CameraRay(x, y, ray);
                RTCRayHit rh;
                rh.ray.org_x = float(ray.origin.x), rh.ray.org_y = float(ray.origin.y),
                rh.ray.org_z = float(ray.origin.z);
                rh.ray.dir_x = float(ray.direction.x), rh.ray.dir_y = float(ray.direction.y),
                rh.ray.dir_z = float(ray.direction.z);
                rh.ray.tnear = 0.0f, rh.ray.tfar = INFINITY, rh.ray.time = 0.0f, rh.ray.mask = ~0u;
                rh.ray.id = 0, rh.ray.flags = 0;
                rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
                RTCIntersectContext context;
                rtcInitIntersectContext(&context);
                rtcIntersect1(scene, &context, &rh);
                hits += rh.hit.geomID != RTC_INVALID_GEOMETRY_ID;
            }
        }
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(state.iterations() * SIZE * SIZE / state.threads());
}

// CPU time of the whole process, all threads: the build runs in parallel, and on a loaded
// machine its wall time says more about the load than about the build.
double ProcessSeconds() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// Finalize alone, wall time, with the CPU time of all threads as "cpu_ms". range(0): the embree
// build quality, -1 the class's default.
void BM_BuildClass(benchmark::State& state, const char* id) {
    double cpu = 0.0;
    for (auto _ : state) {
        BatchedIntersectionRef r = Prepare(id, state.range(0));
        const double c0 = ProcessSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        (void)r.Finalize();
        const auto t1 = std::chrono::steady_clock::now();
        cpu += ProcessSeconds() - c0;
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
    }
    state.counters["cpu_ms"] = benchmark::Counter(cpu * 1e3 / double(state.iterations()));
}

void BM_BuildEmbreeDirect(benchmark::State& state) {
    for (auto _ : state) {
        DirectScene d(RTC_SCENE_FLAG_ROBUST);
        benchmark::DoNotOptimize(d.scene);
        rtcReleaseScene(d.scene);
        rtcReleaseDevice(d.device);
    }
}

BENCHMARK(BM_EmbreeDirect)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Threads(1)
    ->Threads(2)
    ->MinTime(2.0);
BENCHMARK(BM_EmbreeClass)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Threads(1)
    ->Threads(2)
    ->MinTime(2.0);
BENCHMARK(BM_EmbreeClass4)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Threads(1)
    ->Threads(2)
    ->MinTime(2.0);
BENCHMARK(BM_EmbreeClassLowQuality)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Threads(1)
    ->MinTime(2.0);
BENCHMARK(BM_YmbClass)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Threads(1)
    ->Threads(2)
    ->MinTime(2.0);
BENCHMARK_CAPTURE(BM_BuildClass, embree, EMBREE_INTERSECTION_CLASS_ID)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(5);
BENCHMARK_CAPTURE(BM_BuildClass, ymb, YMB_INTERSECTION_CLASS_ID)
    ->Arg(-1)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(3);
BENCHMARK(BM_BuildEmbreeDirect)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace
}  // namespace quorv

BENCHMARK_MAIN();
