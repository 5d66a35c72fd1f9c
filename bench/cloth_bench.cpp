// Cost of the cloth class (ComputeBSDF per preset and quality, and per yarn evaluation), of the
// cloth noise, and of the anisotropic class (SampleF, ComputeBSDF, the scratch frame). The
// module's sources are linked in as in the white-box tests, so the noise and the yarns can be
// called directly; the classes are still made by id and called through their interface.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/bsdfdata.h"
#include "render/legacy_renderers/clothnoise.h"
#include "render/legacy_renderers/clothweavepattern.h"

namespace quorv {
namespace {

constexpr size_t TABLE = 4096;  // a power of two

[[noreturn]] void Fail(const char* what, const ErrorObject* error) {
    std::fprintf(stderr, "bench_cloth: %s: %s\n", what, ErrorToString(error).c_str());
    std::exit(1);
}

struct Inputs {
    std::vector<BSDFCachedSample> samples;
    std::vector<Vector64> wo;
    std::vector<Vector64> wi;
    std::vector<Vector64> uvw;
    std::vector<Vector64> points;
};

Vector64 RandomDirection(BSDFRandom& r) {
    const Float64 z = r.Next();
    const Float64 phi = r.Next() * 6.283185307179586;
    const Float64 s = std::sqrt(1.0 - z * z);
    return {s * std::cos(phi), s * std::sin(phi), z};
}

const Inputs& GetInputs() {
    static const Inputs inputs = [] {
        host::Host::Start(host::HostOptions{});
        Inputs in;
        BSDFRandom random;
        random.Seed(BSDF_RANDOM_SEED);
        for (size_t i = 0; i < TABLE; ++i) {
            in.samples.push_back(random.NextSample());
            in.wo.push_back(RandomDirection(random));
            in.wi.push_back(RandomDirection(random));
            in.uvw.push_back({random.Next(), random.Next(), 0.0});
            in.points.push_back(
                {random.Next() * 100.0, random.Next() * 100.0, random.Next() * 100.0});
        }
        return in;
    }();
    return inputs;
}

BSDFLegacyRef Create(const char* id) {
    Result<ObjectRef> object =
        CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID), LiteralId(id));
    if (object.IsError()) Fail(id, object.GetErrorPointer());
    Result<BSDFLegacyRef> bsdf = BSDFLegacyRef::Cast(object.GetValue());
    if (bsdf.IsError()) Fail(id, bsdf.GetErrorPointer());
    return bsdf.GetValue();
}

ClothWeavePatternRef MakePattern(UInt32 preset, Int32 quality) {
    Result<ClothWeavePatternRef> p = ClothWeavePatternRef::Create();
    if (p.IsError()) Fail("pattern", p.GetErrorPointer());
    Result<void> r = ClothWeavePatternInterface::SetupPattern(p.GetValue().Get(), preset);
    if (r.IsError()) Fail("preset", r.GetErrorPointer());
    ClothWeavePatternInterface::SetupCloth(p.GetValue().Get(), quality, 0.01, 4.0, 0.0, 0.0, 1.0,
                                           0.0, 0.0, 1.0);
    return p.GetValue();
}

// ComputeBSDF of the cloth class at footprint 0 (w = 1: n / 4.25 + 1 yarn evaluations), random
// pairs above the surface and random positions.
void BM_ClothComputeBSDF(benchmark::State& state, UInt32 preset, Int32 quality) {
    const Inputs& in = GetInputs();
    IrawanInitData data;
    data.warpDiffuse = data.weftDiffuse = {0.1, 0.1, 0.1};
    data.warpSpecular = data.weftSpecular = {1.0, 1.0, 1.0};
    data.scaleU = data.scaleV = 1.0;
    data.blur = 1.0;
    data.pattern = MakePattern(preset, quality);
    const BSDFLegacyRef b = Create(IRAWAN_BRDF_CLASS_ID);
    Result<void> init = b.Init(DataDictionary(), &data);
    if (init.IsError()) Fail("cloth", init.GetErrorPointer());
    const Int n = ClothWeavePatternInterface::GetSampleCount(data.pattern.Get());
    const Int evaluations = static_cast<Int>(static_cast<Float64>(n) / 4.25) + 1;
    size_t i = 0;
    for (auto _ : state) {
        const Color64 f = b.ComputeF_UVW(in.wo[i], in.wi[i], in.uvw[i], {});
        benchmark::DoNotOptimize(f);
        i = (i + 1) & (TABLE - 1);
    }
    state.counters["evaluations"] = static_cast<Float64>(evaluations);
    state.counters["ns_per_evaluation"] =
        benchmark::Counter(static_cast<Float64>(state.iterations() * evaluations),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// One yarn's Evaluate, every yarn of the preset in turn, at coordinates inside the lobe.
void BM_YarnEvaluate(benchmark::State& state, UInt32 preset) {
    const Inputs& in = GetInputs();
    ClothWeavePatternRef p = MakePattern(preset, 2);
    std::vector<const ClothYarn*> yarns;
    std::vector<Vector2d64> uvs;
    std::vector<Float64> umaxes;
    for (size_t k = 0; k < TABLE; ++k) {
        Vector2d64 uv;
        Float64 umax = 0.0, weight = 1.0, s = 1.0;
        const ClothYarn* y = ClothWeavePatternInterface::GetYarn(
            p.Get(), in.uvw[k].x, in.uvw[k].y, &uv, &umax, &weight, &s, true, 1.0);
        yarns.push_back(y);
        uvs.push_back(uv);
        umaxes.push_back(umax);
    }
    const Vector2d64 scattering{0.01, 4.0};
    const Vector2d64 areas = ClothWeavePatternInterface::GetWarpWeftArea(p.Get());
    size_t i = 0;
    for (auto _ : state) {
        const Float64 f =
            yarns[i]->Evaluate(in.wi[i], in.wo[i], uvs[i], scattering, areas, umaxes[i], 1.0, 0.0);
        benchmark::DoNotOptimize(f);
        i = (i + 1) & (TABLE - 1);
    }
}

void BM_ClothNoise(benchmark::State& state, int dimensions) {
    const Inputs& in = GetInputs();
    size_t i = 0;
    for (auto _ : state) {
        const Vector64& q = in.points[i];
        const Vector64 p{q.x, dimensions > 1 ? q.y : 0.0, dimensions > 2 ? q.z : 0.0};
        benchmark::DoNotOptimize(ClothNoise(p));
        i = (i + 1) & (TABLE - 1);
    }
}

void BM_ClothTurbulence4(benchmark::State& state) {
    const Inputs& in = GetInputs();
    size_t i = 0;
    for (auto _ : state) {
        const Vector64& q = in.points[i];
        benchmark::DoNotOptimize(ClothTurbulence({q.x, q.y, 0.0}, 4.0, true));
        i = (i + 1) & (TABLE - 1);
    }
}

BSDFLegacyRef Anisotropic(const char* id) {
    const BSDFLegacyRef b = Create(id);
    Result<DataDictionary> created = DataDictionary::Create();
    if (created.IsError()) Fail("dictionary", created.GetErrorPointer());
    DataDictionary d = created.GetValue();
    Result<void> set = d.SetData(DataDictionaryKey(BSDF_PARAM_ROUGHNESS), Data::Of(0.4));
    if (set.IsOk()) set = d.SetData(DataDictionaryKey(BSDF_PARAM_ANISOTROPY), Data::Of(0.5));
    if (set.IsError()) Fail("parameters", set.GetErrorPointer());
    Result<void> init = b.Init(d, nullptr);
    if (init.IsError()) Fail(id, init.GetErrorPointer());
    return b;
}

void BM_AnisotropicSampleF(benchmark::State& state, const char* id) {
    const Inputs& in = GetInputs();
    const BSDFLegacyRef b = Anisotropic(id);
    size_t i = 0;
    for (auto _ : state) {
        Vector64 wi;
        Float64 pdf;
        const Color64 f = b.SampleF(in.wo[i], {0, 0, 1}, in.samples[i], wi, pdf);
        benchmark::DoNotOptimize(f);
        benchmark::DoNotOptimize(pdf);
        i = (i + 1) & (TABLE - 1);
    }
}

void BM_AnisotropicComputeBSDF(benchmark::State& state, const char* id) {
    const Inputs& in = GetInputs();
    const BSDFLegacyRef b = Anisotropic(id);
    const bool transmits = std::string_view(id).ends_with("btdf");
    size_t i = 0;
    for (auto _ : state) {
        const Vector64 wi = transmits ? Vector64{in.wi[i].x, in.wi[i].y, -in.wi[i].z} : in.wi[i];
        Float64 pdf;
        const Color64 f = b.ComputeBSDF(in.wo[i], wi, wi, pdf);
        benchmark::DoNotOptimize(f);
        benchmark::DoNotOptimize(pdf);
        i = (i + 1) & (TABLE - 1);
    }
}

// The scratch frame: both channels on, planar, pattern 4, at random positions.
void BM_ScratchFrame(benchmark::State& state, Float64 blur, bool fast) {
    const Inputs& in = GetInputs();
    const BSDFLegacyRef b = Anisotropic(ANISOTROPIC_BRDF_CLASS_ID);
    AnisotropicScratchData s;
    s.pattern = 4;
    s.channels = 3;
    s.amplitudeU = 0.3;
    s.amplitudeV = 0.2;
    s.blurU = s.blurV = blur;
    Result<void> r = b.Update(&s, BSDF_UPDATE_SCRATCH);
    if (r.IsError()) Fail("scratch", r.GetErrorPointer());
    size_t i = 0;
    for (auto _ : state) {
        const BSDFFrame f =
            b.ComputeBSDFFrame({0, 0, 1}, {1, 0, 0}, {0, 1, 0}, in.uvw[i], fast, true, true);
        benchmark::DoNotOptimize(f);
        i = (i + 1) & (TABLE - 1);
    }
}

const bool g_registered = [] {
    for (UInt32 preset = 0; preset < CLOTH_PRESET_COUNT; ++preset) {
        const std::string p = std::to_string(preset);
        for (Int32 quality : {2, 1, -1}) {
            const std::string q = std::to_string(quality == 2 ? 64 : (quality == 1 ? 16 : 1));
            benchmark::RegisterBenchmark(("ClothComputeBSDF/preset" + p + "/quality" + q).c_str(),
                                         BM_ClothComputeBSDF, preset, quality);
        }
        benchmark::RegisterBenchmark(("YarnEvaluate/preset" + p).c_str(), BM_YarnEvaluate, preset);
    }
    benchmark::RegisterBenchmark("ClothNoise/3d", BM_ClothNoise, 3);
    benchmark::RegisterBenchmark("ClothNoise/2d", BM_ClothNoise, 2);
    benchmark::RegisterBenchmark("ClothNoise/1d", BM_ClothNoise, 1);
    benchmark::RegisterBenchmark("ClothTurbulence/4octaves", BM_ClothTurbulence4);
    for (const char* id : {ANISOTROPIC_BRDF_CLASS_ID, ANISOTROPIC_BTDF_CLASS_ID}) {
        const std::string name = std::string_view(id).ends_with("btdf") ? "btdf" : "brdf";
        benchmark::RegisterBenchmark(("AnisotropicSampleF/" + name).c_str(), BM_AnisotropicSampleF,
                                     id);
        benchmark::RegisterBenchmark(("AnisotropicComputeBSDF/" + name).c_str(),
                                     BM_AnisotropicComputeBSDF, id);
    }
    benchmark::RegisterBenchmark("ScratchFrame/blur0", BM_ScratchFrame, 0.0, false);
    benchmark::RegisterBenchmark("ScratchFrame/blur1", BM_ScratchFrame, 1.0, false);
    benchmark::RegisterBenchmark("ScratchFrame/blur1/fast", BM_ScratchFrame, 1.0, true);
    return true;
}();

}  // namespace
}  // namespace quorv

BENCHMARK_MAIN();
