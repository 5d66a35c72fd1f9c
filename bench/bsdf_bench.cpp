// Cost of SampleF and ComputeBSDF of every legacy BSDF class, with and without a distribution
// cache, through the real load path of the built module: on one fixed pair of directions and
// on a table of random pairs and sample records.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "quorv/host/host.h"
#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/microfacetdistributioncaches.h"

namespace quorv {
namespace {

const Vector64 FIXED_WO{0.5773502691896258, 0.5773502691896258, 0.5773502691896258};
const Vector64 FIXED_WI{-0.556021856893694, -0.556021856893694, 0.6178020632152155};
constexpr Float64 ROUGHNESS = 0.4;
constexpr size_t TABLE = 4096;  // a power of two

[[noreturn]] void Fail(const char* what, const ErrorObject* error) {
    std::fprintf(stderr, "bench_bsdf: %s: %s\n", what, ErrorToString(error).c_str());
    std::exit(1);
}

struct Inputs {
    std::vector<BSDFCachedSample> samples;
    std::vector<Vector64> wo;
    std::vector<Vector64> wiAbove;
    std::vector<Vector64> wiBelow;
    std::unique_ptr<SamplerCache> cache;
};

Vector64 RandomDirection(BSDFRandom& r, bool above) {
    const Float64 z = r.Next();
    const Float64 phi = r.Next() * 6.283185307179586;
    const Float64 s = std::sqrt(1.0 - z * z);
    return {s * std::cos(phi), s * std::sin(phi), above ? z : -z};
}

const Inputs& GetInputs() {
    static const Inputs inputs = [] {
        host::Host::Start(host::HostOptions{});
        Result<host::LoadedModule*> module = host::Host::Get().LoadModule(QUORV_MODULE_PATH);
        if (module.IsError()) Fail(QUORV_MODULE_PATH, module.GetErrorPointer());
        Inputs in;
        BSDFRandom random;
        random.Seed(BSDF_RANDOM_SEED);
        for (size_t i = 0; i < TABLE; ++i) {
            in.samples.push_back(random.NextSample());
            in.wo.push_back(RandomDirection(random, true));
            in.wiAbove.push_back(RandomDirection(random, true));
            in.wiBelow.push_back(RandomDirection(random, false));
        }
        in.cache = std::make_unique<SamplerCache>();
        return in;
    }();
    return inputs;
}

BSDFLegacyRef Create(const char* id, bool withCache) {
    const Inputs& in = GetInputs();
    Result<ObjectRef> object =
        CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID), LiteralId(id));
    if (object.IsError()) Fail(id, object.GetErrorPointer());
    Result<BSDFLegacyRef> bsdf = BSDFLegacyRef::Cast(object.GetValue());
    if (bsdf.IsError()) Fail(id, bsdf.GetErrorPointer());
    Result<DataDictionary> created = DataDictionary::Create();
    if (created.IsError()) Fail("dictionary", created.GetErrorPointer());
    DataDictionary d = created.GetValue();
    Result<void> set = OK;
    for (Int32 key :
         {BSDF_PARAM_ROUGHNESS, BSDF_PARAM_ORENNAYAR_ROUGHNESS, BSDF_PARAM_BLURRY_ROUGHNESS}) {
        if (set.IsOk()) set = d.SetData(DataDictionaryKey(key), Data::Of(ROUGHNESS));
    }
    if (set.IsOk() && withCache) {
        set = d.SetData(DataDictionaryKey(BSDF_PARAM_DISTRIBUTION_CACHE),
                        Data::Of(SamplerCachePointer{in.cache.get()}));
    }
    if (set.IsError()) Fail("parameters", set.GetErrorPointer());
    Result<void> init = bsdf.GetValue().Init(d, nullptr);
    if (init.IsError()) Fail(id, init.GetErrorPointer());
    return bsdf.GetValue();
}

bool Transmits(const char* id) { return std::string_view(id).ends_with("btdf"); }

void BM_SampleF(benchmark::State& state, const char* id, bool withCache, bool fixed) {
    const Inputs& in = GetInputs();
    const BSDFLegacyRef b = Create(id, withCache);
    const Vector64 normal{0.0, 0.0, 1.0};
    size_t i = 0;
    for (auto _ : state) {
        const Vector64& wo = fixed ? FIXED_WO : in.wo[i];
        Vector64 wi;
        Float64 pdf;
        Color64 f = b.SampleF(wo, normal, in.samples[i], wi, pdf);
        benchmark::DoNotOptimize(f);
        benchmark::DoNotOptimize(pdf);
        i = (i + 1) & (TABLE - 1);
    }
}

void BM_ComputeBSDF(benchmark::State& state, const char* id, bool withCache, bool fixed) {
    const Inputs& in = GetInputs();
    const BSDFLegacyRef b = Create(id, withCache);
    const std::vector<Vector64>& wis = Transmits(id) ? in.wiBelow : in.wiAbove;
    const Vector64 fixedWi =
        Transmits(id) ? Vector64{FIXED_WI.x, FIXED_WI.y, -FIXED_WI.z} : FIXED_WI;
    size_t i = 0;
    for (auto _ : state) {
        const Vector64& wo = fixed ? FIXED_WO : in.wo[i];
        const Vector64& wi = fixed ? fixedWi : wis[i];
        Float64 pdf;
        Color64 f = b.ComputeBSDF(wo, wi, wi, pdf);
        benchmark::DoNotOptimize(f);
        benchmark::DoNotOptimize(pdf);
        i = (i + 1) & (TABLE - 1);
    }
}

const char* const CACHED[] = {
    BLURRYSIMPLE_BRDF_CLASS_ID, BECKMANN_BRDF_CLASS_ID, BECKMANN_BTDF_CLASS_ID, GGX_BRDF_CLASS_ID,
    GGX_BTDF_CLASS_ID,          WARD_BRDF_CLASS_ID,     WARD_BTDF_CLASS_ID};

// One benchmark per class, operation, cache and input, named e.g. "SampleF/ggxbrdf/cache/random".
const bool g_registered = [] {
    for (const char* id : BSDF_LEGACY_CLASS_IDS) {
        // The cloth class needs its record and a pattern: bench_cloth measures it.
        if (std::string_view(id) == IRAWAN_BRDF_CLASS_ID) continue;
        const std::string name = std::string(id).substr(std::string_view(id).rfind('.') + 1);
        bool cacheable = false;
        for (const char* c : CACHED) cacheable = cacheable || std::string_view(c) == id;
        for (bool withCache : {false, true}) {
            if (withCache && !cacheable) continue;
            for (bool fixed : {true, false}) {
                const std::string suffix =
                    name + (withCache ? "/cache" : "/nocache") + (fixed ? "/fixed" : "/random");
                benchmark::RegisterBenchmark(("SampleF/" + suffix).c_str(), BM_SampleF, id,
                                             withCache, fixed);
                benchmark::RegisterBenchmark(("ComputeBSDF/" + suffix).c_str(), BM_ComputeBSDF, id,
                                             withCache, fixed);
            }
        }
    }
    return true;
}();

}  // namespace
}  // namespace quorv

BENCHMARK_MAIN();
