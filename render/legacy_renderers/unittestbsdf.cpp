// The comparison and timing classes of the legacy BSDFs: every registered class held against
// the older set of legacybsdf.cpp on the same inputs, and timed beside it.
#include "render/legacy_renderers/unittestbsdf.h"

#include <charconv>
#include <cmath>
#include <new>

#include "quorv/entity.h"
#include "render/legacy_renderers/bsdfdata.h"

namespace quorv {

Bool g_runUnitTestRenderStatistics = false;

namespace bsdftest {

namespace {

constexpr Float64 ROUGHNESS = 0.7;
constexpr Float64 ANISOTROPY = 0.3;

// The cloth cases: a swatch position with a small footprint, and settings that switch on the
// yarn variation and the intensity noise, so that those paths are compared too.
constexpr Vector64 CLOTH_UVW{0.5, 0.5, 0.0};
constexpr Vector64 CLOTH_DELTA{0.0002, 0.0002, 0.0};
constexpr Int32 CLOTH_QUALITY = 2;
constexpr Float64 CLOTH_ALPHA = 0.01;
constexpr Float64 CLOTH_BETA = 4.0;
constexpr Float64 CLOTH_SMOOTHING = 0.3;
constexpr Float64 CLOTH_VARIATION = 0.5;
constexpr Float64 CLOTH_FINENESS = 1.0;
constexpr Float64 CLOTH_VARIATION_SCALE = 1.0;
constexpr Color64 WARP_DIFFUSE{0.05, 0.08, 0.3};
constexpr Color64 WARP_SPECULAR{0.2, 0.3, 0.8};
constexpr Color64 WEFT_DIFFUSE{0.3, 0.12, 0.02};
constexpr Color64 WEFT_SPECULAR{0.9, 0.5, 0.2};

// The fixed pair of the timing runs.
constexpr Vector64 TIMING_WO{0.5773502691896258, 0.5773502691896258, 0.5773502691896258};
constexpr Vector64 TIMING_WI{-0.556021856893694, -0.556021856893694, 0.6178020632152155};

constexpr const char* VALUE_MISMATCH = "Sampled BSDF's don't match ";
constexpr const char* DIRECTION_MISMATCH = "Sample incident angles don't match ";
constexpr const char* PDF_MISMATCH = "Sample PDF's don't match ";

enum class FAMILY : Int32 {
    LAMBERT,
    ORENNAYAR,
    IRAWAN,
    BLURRYSIMPLE,
    BLURRYSPECULAR,
    TORRANCE,
};

struct CaseDefinition {
    const char* label;
    FAMILY family;
    Int32 number;  // cloth preset, distribution kind, or blurryspecular variant
    Bool cache;
    Bool transmit;
    COMPAREMODE mode;
};

using K = legacy::DISTRIBUTIONKIND;
constexpr Int32 BECKMANN = static_cast<Int32>(K::BECKMANN);
constexpr Int32 GGX = static_cast<Int32>(K::GGX);
constexpr Int32 PHONG = static_cast<Int32>(K::PHONG);
constexpr Int32 WARD = static_cast<Int32>(K::WARD);
constexpr Int32 ANISOTROPIC = static_cast<Int32>(K::ANISOTROPIC);
constexpr COMPAREMODE S = COMPAREMODE::SAMPLE;

// The standard list first, in its fixed order; `number` of a cloth case is the SetupPattern
// preset, so "preset 1" to "preset 6" are SetupPattern(0) to SetupPattern(5).
const CaseDefinition CASES[] = {
    {"Lambert BSDF", FAMILY::LAMBERT, 0, false, false, S},
    {"OrenNayar BSDF", FAMILY::ORENNAYAR, 0, false, false, S},
    {"Irawan BSDF cloth preset 1", FAMILY::IRAWAN, 0, false, false, S},
    {"Irawan BSDF cloth preset 2", FAMILY::IRAWAN, 1, false, false, S},
    {"Irawan BSDF cloth preset 3", FAMILY::IRAWAN, 2, false, false, S},
    {"Irawan BSDF cloth preset 4", FAMILY::IRAWAN, 3, false, false, S},
    {"Irawan BSDF cloth preset 5", FAMILY::IRAWAN, 4, false, false, S},
    {"Irawan BSDF cloth preset 6", FAMILY::IRAWAN, 5, false, false, S},
    {"BlurrySimple BSDF without cache", FAMILY::BLURRYSIMPLE, 0, false, false, S},
    {"BlurrySimple BSDF with cache", FAMILY::BLURRYSIMPLE, 0, true, false, S},
    {"BlurryTorrance BSDF without cache: Beckmann distribution", FAMILY::TORRANCE, BECKMANN, false,
     false, S},
    {"BlurryTorrance BSDF with cache: Beckmann distribution", FAMILY::TORRANCE, BECKMANN, true,
     false, S},
    {"BlurryTorrance BSDF without cache: GGX distribution", FAMILY::TORRANCE, GGX, false, false, S},
    {"BlurryTorrance BSDF with cache: GGX distribution", FAMILY::TORRANCE, GGX, true, false, S},
    {"BlurryTorrance BSDF: Phong distribution", FAMILY::TORRANCE, PHONG, false, false, S},
    {"BlurryTorrance BSDF without cache: Ward distribution", FAMILY::TORRANCE, WARD, false, false,
     S},
    {"BlurryTorrance BSDF with cache: Ward distribution", FAMILY::TORRANCE, WARD, true, false, S},
    {"BlurryTorrance BSDF: Anisotropic distribution", FAMILY::TORRANCE, ANISOTROPIC, false, false,
     S},
    // Beyond the standard list: the classes it leaves out, so every registered id meets the
    // older set.
    {"BlurrySpecular BSDF", FAMILY::BLURRYSPECULAR, 0, false, false, S},
    {"BlurrySpecular BSDF: reflected lobe with shaped falloff", FAMILY::BLURRYSPECULAR, 1, false,
     false, S},
    {"BlurryTorrance BTDF without cache: Beckmann distribution", FAMILY::TORRANCE, BECKMANN, false,
     true, S},
    {"BlurryTorrance BTDF with cache: Beckmann distribution", FAMILY::TORRANCE, BECKMANN, true,
     true, S},
    {"BlurryTorrance BTDF without cache: GGX distribution", FAMILY::TORRANCE, GGX, false, true, S},
    {"BlurryTorrance BTDF with cache: GGX distribution", FAMILY::TORRANCE, GGX, true, true, S},
    {"BlurryTorrance BTDF: Phong distribution", FAMILY::TORRANCE, PHONG, false, true, S},
    {"BlurryTorrance BTDF without cache: Ward distribution", FAMILY::TORRANCE, WARD, false, true,
     S},
    {"BlurryTorrance BTDF with cache: Ward distribution", FAMILY::TORRANCE, WARD, true, true, S},
    {"BlurryTorrance BTDF: Anisotropic distribution", FAMILY::TORRANCE, ANISOTROPIC, false, true,
     S},
    // The standard BlurrySimple cases compare the zeros its SampleF writes; these compare its
    // lobe on a cosine-drawn direction and its angle.
    {"BlurrySimple BSDF without cache: ComputeBSDF of a cosine-drawn wi and ComputeAngle",
     FAMILY::BLURRYSIMPLE, 0, false, false, COMPAREMODE::COSINE_AND_ANGLE},
    {"BlurrySimple BSDF with cache: ComputeBSDF of a cosine-drawn wi and ComputeAngle",
     FAMILY::BLURRYSIMPLE, 0, true, false, COMPAREMODE::COSINE_AND_ANGLE},
};
constexpr Int CASE_COUNT = static_cast<Int>(sizeof(CASES) / sizeof(CASES[0]));
static_assert(CASE_COUNT > STANDARD_CASE_COUNT);

const char* TorranceClassId(Int32 kind, Bool transmit) {
    switch (kind) {
        case BECKMANN:
            return transmit ? BECKMANN_BTDF_CLASS_ID : BECKMANN_BRDF_CLASS_ID;
        case GGX:
            return transmit ? GGX_BTDF_CLASS_ID : GGX_BRDF_CLASS_ID;
        case PHONG:
            return transmit ? PHONG_BTDF_CLASS_ID : PHONG_BRDF_CLASS_ID;
        case WARD:
            return transmit ? WARD_BTDF_CLASS_ID : WARD_BRDF_CLASS_ID;
        default:
            return transmit ? ANISOTROPIC_BTDF_CLASS_ID : ANISOTROPIC_BRDF_CLASS_ID;
    }
}

// The older block's record of a cached kind.
Int OlderRecord(Int32 kind) { return kind == BECKMANN ? 0 : (kind == GGX ? 1 : 2); }

Error OutOfMemory() { return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION); }

template <typename T>
Result<void> SetKey(DataDictionary& d, Int32 key, const T& value) {
    Data data = Data::Of(value);
    if (data.IsEmpty()) return OutOfMemory();
    return d.SetData(DataDictionaryKey(key), data);
}

Result<std::unique_ptr<legacy::BxDF>> MakeRegistered(const char* id, const DataDictionary& params,
                                                     const void* data) {
    Result<ObjectRef> o = CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID), LiteralId(id));
    if (o.IsError()) return o.GetError();
    Result<BSDFLegacyRef> ref = BSDFLegacyRef::Cast(o.GetValue());
    if (ref.IsError()) return ref.GetError();
    QUORV_RETURN_IF_ERROR(ref.GetValue().Init(params, data));
    std::unique_ptr<legacy::BxDF> b(new (std::nothrow) RegisteredBxDF(ref.GetValue()));
    if (!b) return OutOfMemory();
    return b;
}

// A NaN on one side only is a difference: |a - b| is NaN there and would compare as within
// the tolerance. NaN on both sides is the two readings agreeing on an undefined result.
bool Differs(Float64 a, Float64 b) {
    return std::isnan(a) != std::isnan(b) || std::fabs(a - b) > COMPARE_TOLERANCE;
}

bool Differs(const Color64& a, const Color64& b) {
    return Differs(a.r, b.r) || Differs(a.g, b.g) || Differs(a.b, b.b);
}

bool Differs(const Vector64& a, const Vector64& b) {
    return Differs(a.x, b.x) || Differs(a.y, b.y) || Differs(a.z, b.z);
}

std::string Failure(const char* text, const Vector64& wo, Int loop) {
    return std::string(text) + VectorToString(wo) + " / Index " + std::to_string(loop);
}

std::string NumberToString(Float64 v) {
    char buffer[64];
    const std::to_chars_result r = std::to_chars(buffer, buffer + sizeof(buffer), v);
    return std::string(buffer, r.ptr);
}

// Keeps results where the compiler must assume they are read.
volatile Float64 g_timingSink = 0.0;

}  // namespace

const std::vector<std::string>& CaseLabels() {
    static const std::vector<std::string> labels = [] {
        std::vector<std::string> l;
        for (const CaseDefinition& c : CASES) l.emplace_back(c.label);
        return l;
    }();
    return labels;
}

std::string VectorToString(const Vector64& v) {
    return "(" + NumberToString(v.x) + ", " + NumberToString(v.y) + ", " + NumberToString(v.z) +
           ")";
}

Result<std::vector<BSDFCachedSample>> MakeSampleTable() {
    try {
        std::vector<BSDFCachedSample> table(static_cast<size_t>(SAMPLE_TABLE_SIZE));
        BSDFRandom random;
        random.Seed(BSDF_RANDOM_SEED);
        for (BSDFCachedSample& s : table) s = random.NextSample();
        return table;
    } catch (const std::bad_alloc&) {
        return OutOfMemory();
    }
}

Result<RunCaches> RunCaches::Create() {
    RunCaches c;
    c.current.reset(new (std::nothrow) SamplerCache());
    c.olderBlock.reset(new (std::nothrow) SamplerCache[4]);
    c.blurryCurrent.reset(new (std::nothrow) SamplerCache());
    c.blurryOlder.reset(new (std::nothrow) SamplerCache());
    if (!c.current || !c.olderBlock || !c.blurryCurrent || !c.blurryOlder) return OutOfMemory();
    return c;
}

Result<CaseObjects> BuildCase(Int index, RunCaches& caches) {
    if (index < 0 || index >= CASE_COUNT) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("No BSDF comparison case @", {std::to_string(index)}));
    }
    const CaseDefinition& definition = CASES[index];
    CaseObjects objects;
    objects.label = definition.label;
    objects.mode = definition.mode;
    Result<DataDictionary> created = DataDictionary::Create();
    if (created.IsError()) return created.GetError();
    DataDictionary params = created.GetValue();
    const char* id = nullptr;
    const void* data = nullptr;
    IrawanInitData cloth;
    switch (definition.family) {
        case FAMILY::LAMBERT:
            id = LAMBERT_BRDF_CLASS_ID;
            objects.older.reset(new (std::nothrow) legacy::LambertBxDF());
            break;
        case FAMILY::ORENNAYAR:
            id = ORENNAYAR_BRDF_CLASS_ID;
            QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_ORENNAYAR_ROUGHNESS, ROUGHNESS));
            objects.older.reset(new (std::nothrow) legacy::OrenNayarBxDF(ROUGHNESS, false));
            break;
        case FAMILY::IRAWAN: {
            id = IRAWAN_BRDF_CLASS_ID;
            const UInt32 preset = static_cast<UInt32>(definition.number);
            Result<ClothWeavePatternRef> pattern = ClothWeavePatternRef::Create();
            if (pattern.IsError()) return pattern.GetError();
            cloth.pattern = pattern.GetValue();
            QUORV_RETURN_IF_ERROR(
                ClothWeavePatternInterface::SetupPattern(cloth.pattern.Get(), preset));
            ClothWeavePatternInterface::SetupCloth(cloth.pattern.Get(), CLOTH_QUALITY, CLOTH_ALPHA,
                                                   CLOTH_BETA, CLOTH_SMOOTHING, CLOTH_VARIATION,
                                                   CLOTH_FINENESS, CLOTH_VARIATION, CLOTH_VARIATION,
                                                   CLOTH_VARIATION_SCALE);
            cloth.warpDiffuse = WARP_DIFFUSE;
            cloth.warpSpecular = WARP_SPECULAR;
            cloth.weftDiffuse = WEFT_DIFFUSE;
            cloth.weftSpecular = WEFT_SPECULAR;
            cloth.uvw = CLOTH_UVW;
            cloth.uvwDelta = CLOTH_DELTA;
            data = &cloth;

            objects.olderPattern.reset(new (std::nothrow) legacy::ClothPatternLegacy());
            if (!objects.olderPattern) return OutOfMemory();
            QUORV_RETURN_IF_ERROR(objects.olderPattern->SetupPattern(preset));
            objects.olderPattern->SetupCloth(
                CLOTH_QUALITY, CLOTH_ALPHA, CLOTH_BETA, CLOTH_SMOOTHING, CLOTH_VARIATION,
                CLOTH_FINENESS, CLOTH_VARIATION, CLOTH_VARIATION, CLOTH_VARIATION_SCALE);
            legacy::IrawanSetupLegacy setup;
            setup.warpDiffuse = WARP_DIFFUSE;
            setup.warpSpecular = WARP_SPECULAR;
            setup.weftDiffuse = WEFT_DIFFUSE;
            setup.weftSpecular = WEFT_SPECULAR;
            setup.uvw = CLOTH_UVW;
            setup.uvwDelta = CLOTH_DELTA;
            setup.rotation = cloth.rotation;
            setup.scaleU = cloth.scaleU;
            setup.scaleV = cloth.scaleV;
            setup.blur = 1.0;
            cloth.blur = 1.0;
            setup.pattern = objects.olderPattern.get();
            objects.older.reset(new (std::nothrow) legacy::IrawanBxDF(setup));
            break;
        }
        case FAMILY::BLURRYSIMPLE: {
            id = BLURRYSIMPLE_BRDF_CLASS_ID;
            QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_ROUGHNESS, ROUGHNESS));
            SamplerCache* older = nullptr;
            if (definition.cache) {
                caches.blurryCurrent->Clear();
                caches.blurryOlder->Clear();
                older = caches.blurryOlder.get();
                QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_DISTRIBUTION_CACHE,
                                             SamplerCachePointer{caches.blurryCurrent.get()}));
            }
            objects.older.reset(new (std::nothrow) legacy::BlurrySimpleBxDF(ROUGHNESS, older));
            break;
        }
        case FAMILY::BLURRYSPECULAR: {
            id = BLURRYSPECULAR_BRDF_CLASS_ID;
            const Bool reflected = definition.number == 1;
            const Float64 shift = definition.number == 1 ? 0.2 : 0.0;
            const Float64 power = definition.number == 1 ? 0.3 : 0.0;
            QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_BLURRY_REFLECTED_LOBE, reflected));
            QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_BLURRY_ROUGHNESS, ROUGHNESS));
            QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_BLURRY_FALLOFF_SHIFT, shift));
            QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_BLURRY_FALLOFF_POWER, power));
            objects.older.reset(new (std::nothrow)
                                    legacy::BlurrySpecularBxDF(reflected, ROUGHNESS, shift, power));
            break;
        }
        case FAMILY::TORRANCE: {
            id = TorranceClassId(definition.number, definition.transmit);
            QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_ROUGHNESS, ROUGHNESS));
            if (definition.number == ANISOTROPIC) {
                QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_ANISOTROPY, ANISOTROPY));
            }
            SamplerCache* older = nullptr;
            if (definition.cache) {
                older = &caches.olderBlock[OlderRecord(definition.number)];
                caches.current->Clear();
                older->Clear();
                QUORV_RETURN_IF_ERROR(SetKey(params, BSDF_PARAM_DISTRIBUTION_CACHE,
                                             SamplerCachePointer{caches.current.get()}));
            }
            std::unique_ptr<legacy::MicrofacetDistribution> distribution =
                legacy::MakeDistribution(static_cast<legacy::DISTRIBUTIONKIND>(definition.number),
                                         ROUGHNESS, ANISOTROPY, older);
            if (!distribution) return OutOfMemory();
            objects.older.reset(new (std::nothrow) legacy::BlurryTorranceBxDF(
                std::move(distribution), definition.transmit));
            break;
        }
    }
    if (!objects.older) return OutOfMemory();
    Result<std::unique_ptr<legacy::BxDF>> current = MakeRegistered(id, params, data);
    if (current.IsError()) return current.GetError();
    objects.current = std::move(current.GetValue());
    return objects;
}

std::string CompareCase(COMPAREMODE mode, legacy::BxDF& older, legacy::BxDF& current,
                        const std::vector<BSDFCachedSample>& table) {
    const Vector64 normal{0.0, 0.0, 1.0};
    BSDFRandom random;
    random.Seed(BSDF_RANDOM_SEED);
    for (Int loop = 0; loop < COMPARE_LOOPS; ++loop) {
        // wo before r: three numbers, then the index.
        Vector64 wo;
        wo.x = random.Next();
        wo.y = random.Next();
        wo.z = random.Next();
        const Float64 len = std::sqrt(wo.x * wo.x + wo.y * wo.y + wo.z * wo.z);
        wo = len > 0.0 ? Vector64{wo.x / len, wo.y / len, wo.z / len} : Vector64{};
        const Float64 r = random.Next();
        Int index = static_cast<Int>(r * 65535.0);
        index = index < 0 ? 0 : (index > SAMPLE_TABLE_SIZE - 1 ? SAMPLE_TABLE_SIZE - 1 : index);
        const BSDFCachedSample& sample = table[static_cast<size_t>(index)];

        Vector64 wiA{}, wiB{};
        Float64 pA = 0.0, pB = 0.0;
        if (mode == COMPAREMODE::SAMPLE) {
            const Color64 a = older.SampleF(wo, normal, sample, wiA, pA);
            const Color64 b = current.SampleF(wo, normal, sample, wiB, pB);
            if (Differs(a, b)) return Failure(VALUE_MISMATCH, wo, loop);
            if (Differs(wiA, wiB)) return Failure(DIRECTION_MISMATCH, wo, loop);
            if (Differs(pA, pB)) return Failure(PDF_MISMATCH, wo, loop);
        } else {
            // The cosine-weighted direction of the record, formed as the diffuse classes do.
            wiA = {static_cast<Float64>(sample.sinPhi * sample.sinTheta),
                   static_cast<Float64>(sample.cosPhi * sample.sinTheta),
                   static_cast<Float64>(sample.cosTheta)};
            const Float64 angleA = older.ComputeAngle(sample);
            const Float64 angleB = current.ComputeAngle(sample);
            if (Differs(angleA, angleB)) return Failure(DIRECTION_MISMATCH, wo, loop);
        }
        const Color64 a = older.ComputeBSDF(wo, wiA, wiA, pA);
        const Color64 b = current.ComputeBSDF(wo, wiA, wiA, pB);
        if (Differs(a, b)) return Failure(VALUE_MISMATCH, wo, loop);
        if (Differs(pA, pB)) return Failure(PDF_MISMATCH, wo, loop);
    }
    return {};
}

namespace {

// The case positions a run takes: one case, the standard list, or all.
std::vector<Int> SelectCases(const DataDictionary& settings, Int available) {
    const Int only = settings.Get<Int>(DataDictionaryKey(UNITTEST_SETTING_CASE), -1);
    const Bool all = settings.Get<Bool>(DataDictionaryKey(UNITTEST_SETTING_ALL), false);
    std::vector<Int> cases;
    if (only >= 0) {
        if (only < available) cases.push_back(only);
        return cases;
    }
    const Int count = all ? available : STANDARD_CASE_COUNT;
    for (Int i = 0; i < count; ++i) cases.push_back(i);
    return cases;
}

}  // namespace

Result<void> RunComparison(const DataDictionary& settings, const UnitTestSink& sink,
                           const CurrentWrapper& wrap) {
    try {
        const Int only = settings.Get<Int>(DataDictionaryKey(UNITTEST_SETTING_CASE), -1);
        if (only >= CASE_COUNT) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("No BSDF comparison case @", {std::to_string(only)}));
        }
        Result<std::vector<BSDFCachedSample>> table = MakeSampleTable();
        if (table.IsError()) return table.GetError();
        Result<RunCaches> caches = RunCaches::Create();
        if (caches.IsError()) return caches.GetError();
        for (Int index : SelectCases(settings, CASE_COUNT)) {
            Result<CaseObjects> objects = BuildCase(index, caches.GetValue());
            if (objects.IsError()) return objects.GetError();
            CaseObjects& o = objects.GetValue();
            if (wrap) o.current = wrap(index, std::move(o.current));
            const std::string message = CompareCase(o.mode, *o.older, *o.current, table.GetValue());
            UnitTestReport report;
            report.label = o.label.c_str();
            report.passed = message.empty();
            report.message = message.c_str();
            sink(report);
            if (!message.empty()) {
                return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                                 o.label + ": " + message);
            }
        }
        return OK;
    } catch (const std::bad_alloc&) {
        return OutOfMemory();
    }
}

Statistics ComputeStatistics(const Float64* samples, Int count) {
    Statistics s;
    if (count <= 0) return s;
    Float64 sum = 0.0;
    for (Int i = 0; i < count; ++i) sum += samples[i];
    s.mean = sum / static_cast<Float64>(count);
    if (count > 1) {
        Float64 squares = 0.0;
        for (Int i = 0; i < count; ++i) {
            const Float64 d = samples[i] - s.mean;
            squares += d * d;
        }
        s.variance = squares / static_cast<Float64>(count - 1);
    }
    s.stddev = std::sqrt(s.variance);
    return s;
}

std::string FormatStatistics(const Statistics& s) {
    return NumberToString(s.mean) + ", " + NumberToString(s.variance) + ", " +
           NumberToString(s.stddev);
}

namespace {

enum class TIMEDOP { SAMPLEF, COMPUTEBSDF };

// One timed run: `sampleSize` samples of `iterations` calls each, kept in ms (all of them with
// statistics, else none); `last` gets the last one. B is the older class or the registered
// class's handle, called as the timing loop of each side would call it.
template <typename B>
void TimeRun(B& bsdf, TIMEDOP op, const std::vector<BSDFCachedSample>& table, Int sampleSize,
             Int iterations, Bool statistics, std::vector<Float64>& samples, Float64& last) {
    const Vector64 normal{0.0, 0.0, 1.0};
    Float64 keep = 0.0;
    samples.clear();
    for (Int s = 0; s < sampleSize; ++s) {
        const Int start = SystemInterface::GetTimer();
        if (op == TIMEDOP::SAMPLEF) {
            for (Int i = 0; i < iterations; ++i) {
                Vector64 wi{};
                Float64 pdf = 0.0;
                const BSDFCachedSample& sample =
                    table[static_cast<size_t>(i & (SAMPLE_TABLE_SIZE - 1))];
                const Color64 v = bsdf.SampleF(TIMING_WO, normal, sample, wi, pdf);
                keep += v.r + pdf;
            }
        } else {
            for (Int i = 0; i < iterations; ++i) {
                Float64 pdf = 0.0;
                const Color64 v = bsdf.ComputeBSDF(TIMING_WO, TIMING_WI, TIMING_WI, pdf);
                keep += v.r + pdf;
            }
        }
        const Int end = SystemInterface::GetTimer();
        last = static_cast<Float64>(end - start) * 1e-6;
        if (statistics) samples.push_back(last);
    }
    // A sink the compiler cannot drop: every result feeds it.
    g_timingSink = g_timingSink + keep;
}

}  // namespace

RunSizes DefaultRunSizes(Bool statistics) {
    return statistics ? RunSizes{500, 65536} : RunSizes{1, 50000000};
}

Result<void> RunTiming(const DataDictionary& settings, const UnitTestSink& sink, Bool statistics) {
    try {
        const RunSizes defaults = DefaultRunSizes(statistics);
        const Int sampleSize =
            settings.Get<Int>(DataDictionaryKey(UNITTEST_SETTING_SAMPLE_SIZE), defaults.sampleSize);
        const Int iterations = settings.Get<Int>(DataDictionaryKey(UNITTEST_SETTING_ITERATIONS),
                                                 defaults.iterationsPerSample);
        if (sampleSize < 1 || iterations < 1) {
            return MakeError(
                ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                FormatMessage("Sample size @ and iterations @ must be positive",
                              {std::to_string(sampleSize), std::to_string(iterations)}));
        }
        const Int only = settings.Get<Int>(DataDictionaryKey(UNITTEST_SETTING_CASE), -1);
        if (only >= STANDARD_CASE_COUNT) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("No BSDF timing case @", {std::to_string(only)}));
        }
        Result<std::vector<BSDFCachedSample>> table = MakeSampleTable();
        if (table.IsError()) return table.GetError();
        Result<RunCaches> caches = RunCaches::Create();
        if (caches.IsError()) return caches.GetError();
        if (statistics) {
            SystemInterface::TextOutput(
                "|------------------------------------------------------------------");
            SystemInterface::TextOutput(("| Sample size: " + std::to_string(sampleSize)).c_str());
            SystemInterface::TextOutput(
                ("| Number of iteration per timed sample: " + std::to_string(iterations)).c_str());
            SystemInterface::TextOutput("| Statistics are in milliseconds (ms)");
            SystemInterface::TextOutput(
                "| Statistics from left to right: mean, variance, standard deviation");
        }
        std::vector<Float64> samples;
        samples.reserve(static_cast<size_t>(statistics ? sampleSize : 0));
        std::vector<Int> selected;
        if (only >= 0) {
            selected.push_back(only);
        } else {
            for (Int i = 0; i < STANDARD_CASE_COUNT; ++i) selected.push_back(i);
        }
        for (Int index : selected) {
            Result<CaseObjects> objects = BuildCase(index, caches.GetValue());
            if (objects.IsError()) return objects.GetError();
            CaseObjects& o = objects.GetValue();
            // The registered class is timed through its handle, as a renderer calls it: one
            // method-table call per operation; the older class through its virtual table.
            auto* registered = static_cast<RegisteredBxDF*>(o.current.get());
            BSDFLegacyRef handle = registered->Get();
            struct Run {
                const char* suffix;
                bool older;
                TIMEDOP op;
            };
            const Run runs[4] = {{" Legacy SampleF", true, TIMEDOP::SAMPLEF},
                                 {" Horizona SampleF", false, TIMEDOP::SAMPLEF},
                                 {" Legacy ComputeBSDF", true, TIMEDOP::COMPUTEBSDF},
                                 {" Horizona ComputeBSDF", false, TIMEDOP::COMPUTEBSDF}};
            for (const Run& run : runs) {
                Float64 last = 0.0;
                if (run.older) {
                    TimeRun(*o.older, run.op, table.GetValue(), sampleSize, iterations, statistics,
                            samples, last);
                } else {
                    TimeRun(handle, run.op, table.GetValue(), sampleSize, iterations, statistics,
                            samples, last);
                }
                const std::string label = o.label + run.suffix;
                UnitTestReport report;
                report.label = label.c_str();
                report.iterations = iterations;
                report.time = last;
                if (statistics) {
                    const Statistics s =
                        ComputeStatistics(samples.data(), static_cast<Int>(samples.size()));
                    report.sampleCount = static_cast<Int>(samples.size());
                    report.samples = samples.data();
                    report.mean = s.mean;
                    report.variance = s.variance;
                    report.stddev = s.stddev;
                    SystemInterface::TextOutput((label + ": " + FormatStatistics(s)).c_str());
                }
                sink(report);
            }
        }
        return OK;
    } catch (const std::bad_alloc&) {
        return OutOfMemory();
    }
}

}  // namespace bsdftest

namespace {

struct BSDFUnitTestImpl {
    Result<void> Run(const DataDictionary& settings, const UnitTestSink& sink) {
        return bsdftest::RunComparison(settings, sink);
    }
};

struct BSDFSpeedTestImpl {
    Result<void> Run(const DataDictionary& settings, const UnitTestSink& sink) {
        return bsdftest::RunTiming(settings, sink, g_runUnitTestRenderStatistics);
    }
};

ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
SimpleClass<BSDFUnitTestImpl, UnitTestInterface> g_unitTestClass(g_unit, BSDF_UNITTEST_CLASS_ID,
                                                                 UNITTEST_CLASS_REGISTRY_ID,
                                                                 __FILE__);
SimpleClass<BSDFSpeedTestImpl, UnitTestInterface> g_speedTestClass(g_unit, BSDF_SPEEDTEST_CLASS_ID,
                                                                   SPEEDTEST_CLASS_REGISTRY_ID,
                                                                   __FILE__);
const bool g_configured =
    (AddConfigurationVariable("g_runUnitTestRenderStatistics", &g_runUnitTestRenderStatistics,
                              "Run render unittest statistics", CONFIGTYPE::BOOL, "false"),
     true);

}  // namespace

}  // namespace quorv
