// The timing class's runs under Google Benchmark: the same objects (built by the comparison's
// case builder), the same fixed pair and sample table, so the speed class's ns per call can be
// checked against an independent harness. The module's sources are linked in; the registered
// classes are still made by id and called through their interface's method table.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "render/legacy_renderers/unittestbsdf.h"

namespace quorv {
namespace {

const Vector64 WO{0.5773502691896258, 0.5773502691896258, 0.5773502691896258};
const Vector64 WI{-0.556021856893694, -0.556021856893694, 0.6178020632152155};
const Vector64 NORMAL{0.0, 0.0, 1.0};

struct Shared {
    std::vector<BSDFCachedSample> table;
    std::unique_ptr<bsdftest::RunCaches> caches;
};

Shared& GetShared() {
    static Shared shared = [] {
        host::HostOptions options;
        options.echoCriticalOutput = false;
        host::Host::Start(options);
        Shared s;
        s.table = bsdftest::MakeSampleTable().GetValue();
        s.caches = std::make_unique<bsdftest::RunCaches>(bsdftest::RunCaches::Create().GetValue());
        return s;
    }();
    return shared;
}

template <typename B>
void Loop(benchmark::State& state, B& bsdf, bool sample) {
    const std::vector<BSDFCachedSample>& table = GetShared().table;
    size_t i = 0;
    for (auto _ : state) {
        Float64 pdf = 0.0;
        Color64 v;
        if (sample) {
            Vector64 wi{};
            v = bsdf.SampleF(WO, NORMAL, table[i & (bsdftest::SAMPLE_TABLE_SIZE - 1)], wi, pdf);
        } else {
            v = bsdf.ComputeBSDF(WO, WI, WI, pdf);
        }
        benchmark::DoNotOptimize(v);
        benchmark::DoNotOptimize(pdf);
        ++i;
    }
}

void BM_Run(benchmark::State& state, Int index, bool older, bool sample) {
    Result<bsdftest::CaseObjects> built = bsdftest::BuildCase(index, *GetShared().caches);
    if (built.IsError()) {
        state.SkipWithError(ErrorToString(built.GetErrorPointer()).c_str());
        return;
    }
    bsdftest::CaseObjects& o = built.GetValue();
    if (older) {
        Loop(state, *o.older, sample);
    } else {
        BSDFLegacyRef handle = static_cast<bsdftest::RegisteredBxDF*>(o.current.get())->Get();
        Loop(state, handle, sample);
    }
}

// Named "<case index>/<Legacy|Horizona>/<SampleF|ComputeBSDF>", in the timing class's order.
const bool g_registered = [] {
    for (Int c = 0; c < bsdftest::STANDARD_CASE_COUNT; ++c) {
        for (bool sample : {true, false}) {
            for (bool older : {true, false}) {
                const std::string name = std::to_string(c) + (older ? "/Legacy/" : "/Horizona/") +
                                         (sample ? "SampleF" : "ComputeBSDF");
                benchmark::RegisterBenchmark(name.c_str(), BM_Run, c, older, sample);
            }
        }
    }
    return true;
}();

}  // namespace
}  // namespace quorv

BENCHMARK_MAIN();
