// The batch entry points over a million elements, the C++ side of the comparison with the
// Python module (bench/python_batch_bench.py runs the same batches from Python).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "quorv/host/batch.h"
#include "quorv/host/host.h"

namespace quorv {
namespace {

constexpr Int N = 1000000;

void Load() {
    static bool loaded = [] {
        host::HostOptions options;
        options.echoCriticalOutput = false;
        host::Host::Start(options);
        if (host::Host::Get().LoadModule(QUORV_MODULE_PATH).IsError()) std::abort();
        return true;
    }();
    (void)loaded;
}

// Unit directions from normal draws, as the Python benchmark makes them; `upper` folds them
// into the upper hemisphere.
std::vector<Vector64> Directions(bool upper) {
    std::mt19937_64 rng(7);
    std::normal_distribution<Float64> n;
    std::vector<Vector64> d(static_cast<size_t>(N));
    for (auto& v : d) {
        const Vector64 r{n(rng), n(rng), n(rng)};
        const Float64 l = std::sqrt(r.x * r.x + r.y * r.y + r.z * r.z);
        v = {r.x / l, r.y / l, upper ? std::fabs(r.z / l) : r.z / l};
    }
    return d;
}

void PerElement(benchmark::State& state) {
    state.counters["per_element"] = benchmark::Counter(
        static_cast<double>(N) * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_IesIntensityBatch(benchmark::State& state) {
    Load();
    Result<Url> url = Url::FromText(QUORV_EXAMPLE_IES);
    Result<IesRef> web = IesRef::Load(url.GetValue());
    if (web.IsError()) std::abort();
    const std::vector<Vector64> d = Directions(false);
    std::vector<Float64> out(d.size());
    for (auto _ : state) {
        host::IesIntensityBatch(web.GetValue().Get(), d.data(), out.data(), N);
        benchmark::DoNotOptimize(out.data());
    }
    PerElement(state);
}

void BM_BSDFEvaluateBatch(benchmark::State& state) {
    Load();
    Result<ObjectRef> o = CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID),
                                           LiteralId("net.quorv.render.bsdflegacyclass.ggxbrdf"));
    BSDFLegacyRef bsdf = BSDFLegacyRef::Cast(o.GetValue()).GetValue();
    DataDictionary params = DataDictionary::Create().GetValue();
    if (params.SetData(DataDictionaryKey(BSDF_PARAM_ROUGHNESS), Data::Of<Float64>(0.4)).IsError() ||
        bsdf.Init(params, nullptr).IsError()) {
        std::abort();
    }
    const std::vector<Vector64> wi = Directions(true);
    const Vector64 wo{0.3, -0.2, 0.9327379053088815};
    std::vector<Color64> values(wi.size());
    std::vector<Float64> pdfs(wi.size());
    for (auto _ : state) {
        host::BSDFEvaluateBatch(bsdf, &wo, 0, wi.data(), nullptr, values.data(), pdfs.data(), N);
        benchmark::DoNotOptimize(values.data());
    }
    PerElement(state);
}

BENCHMARK(BM_IesIntensityBatch)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BSDFEvaluateBatch)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quorv

BENCHMARK_MAIN();
