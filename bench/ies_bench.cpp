// Photometric webs: intensity queries on a real web and on a single plane, reading a large
// web, and the 512 x 512 preview on one and on two threads.
#include <benchmark/benchmark.h>
#include <tbb/global_control.h>

#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "render/photometric/ies_impl.h"

namespace quorv {
namespace {

const std::string SHARED = std::string(QUORV_SHARED_TESTDATA_DIR) + "/ies/";

void StartHost() {
    static bool started = [] {
        host::HostOptions options;
        options.echoCriticalOutput = false;
        host::Host::Start(options);
        return true;
    }();
    (void)started;
}

// A real web of the shared folder; null, with the benchmark skipped, when it cannot be read
// (a clone without the shared folder beside it).
IesImpl* LoadShared(benchmark::State& state, const std::string& name) {
    StartHost();
    IesImpl* ies = ies::Alloc(QUORV_SOURCE_LOCATION);
    Result<Url> url = Url::FromText(SHARED + name);
    if (url.IsError() || ies::Init(ies, url.GetValue().GetObject()).IsError()) {
        ies::Free(ies);
        state.SkipWithError(("cannot read the real web " + SHARED + name).c_str());
        return nullptr;
    }
    return ies;
}

std::vector<Vector64> Directions() {
    std::mt19937 rng(42);
    std::normal_distribution<Float64> n;
    std::vector<Vector64> d(4096);
    for (auto& v : d) {
        Vector64 r{n(rng), n(rng), n(rng)};
        const Float64 l = std::sqrt(r.x * r.x + r.y * r.y + r.z * r.z);
        v = {r.x / l, r.y / l, r.z / l};
    }
    return d;
}

void Query(benchmark::State& state, const char* file) {
    IesImpl* ies = LoadShared(state, file);
    if (!ies) return;
    const std::vector<Vector64> dirs = Directions();
    size_t i = 0;
    Float64 sum = 0;
    for (auto _ : state) {
        sum += ies::ComputeLightIntensity(ies, dirs[i++ & 4095]);
    }
    benchmark::DoNotOptimize(sum);
    state.counters["web"] = static_cast<double>(ies->_anglesVertical.GetCount() * 1000 +
                                                ies->_anglesHorizontal.GetCount());
    ies::Free(ies);
}

// A real web of 37 vertical by 73 horizontal angles ("web" = nV * 1000 + nH).
void BM_ComputeLightIntensity_37x73(benchmark::State& state) {
    Query(state, "rp_medium_scatter.ies");
}
// A single plane of 19 vertical angles.
void BM_ComputeLightIntensity_SinglePlane(benchmark::State& state) { Query(state, "rp_vee.ies"); }

// 181 vertical by 361 horizontal angles, about 0.5 MB of text. Reading includes the power
// integral, as every read does.
void BM_ReadLargeWeb(benchmark::State& state) {
    StartHost();
    std::ostringstream t;
    t << "IESNA:LM-63-2002\n[MANUFAC] bench\nTILT=NONE\n1 1000 1 181 361 1 2 0 0 0\n1 1 100\n";
    for (int v = 0; v < 181; ++v) t << v << (v % 10 == 9 ? '\n' : ' ');
    t << '\n';
    for (int h = 0; h < 361; ++h) t << h << (h % 10 == 9 ? '\n' : ' ');
    t << '\n';
    for (int h = 0; h < 361; ++h) {
        for (int v = 0; v < 181; ++v) t << 1000.0 * std::exp(-v / 40.0) + h * 0.125 << ' ';
        t << '\n';
    }
    const std::string text = t.str();
    for (auto _ : state) {
        IesImpl* ies = ies::Alloc(QUORV_SOURCE_LOCATION);
        if (ies::InitFromText(ies, text.data(), static_cast<Int>(text.size())).IsError())
            std::abort();
        ies::Free(ies);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(text.size()));
}

void BM_GeneratePreviewImage512(benchmark::State& state) {
    IesImpl* ies = LoadShared(state, "rp_medium_scatter.ies");
    if (!ies) return;
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism,
                              static_cast<size_t>(state.range(0)));
    std::vector<Float32> pixels(512 * 512);
    GreyImage32 image{512, 512, 512, pixels.data()};
    for (auto _ : state) {
        if (ies::GeneratePreviewImageRows(ies, image.width, image.height, ArraySetLine(&image),
                                          nullptr)
                .IsError())
            std::abort();
    }
    benchmark::DoNotOptimize(pixels.data());
    ies::Free(ies);
}

BENCHMARK(BM_ComputeLightIntensity_37x73);
BENCHMARK(BM_ComputeLightIntensity_SinglePlane);
BENCHMARK(BM_ReadLargeWeb)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GeneratePreviewImage512)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace quorv

BENCHMARK_MAIN();
