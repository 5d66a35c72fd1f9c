// The comparison and timing classes of the legacy BSDFs: that the comparison fails where a
// class moves by more than its tolerance (and says where), that cached and uncached sides do
// not pass for one another, that a case alone behaves as in the full run, and the timing
// statistics on a clock the test steps. White-box: the module's sources are linked in.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/test_support.h"
#include "quorv/host/host.h"
#include "quorv/host/unittest_runner.h"
#include "render/legacy_renderers/unittestbsdf.h"

namespace quorv {
namespace {

using bsdftest::CaseLabels;

// The standard list, written out here so that a changed or reordered label fails.
const char* const STANDARD_LABELS[] = {
    "Lambert BSDF",
    "OrenNayar BSDF",
    "Irawan BSDF cloth preset 1",
    "Irawan BSDF cloth preset 2",
    "Irawan BSDF cloth preset 3",
    "Irawan BSDF cloth preset 4",
    "Irawan BSDF cloth preset 5",
    "Irawan BSDF cloth preset 6",
    "BlurrySimple BSDF without cache",
    "BlurrySimple BSDF with cache",
    "BlurryTorrance BSDF without cache: Beckmann distribution",
    "BlurryTorrance BSDF with cache: Beckmann distribution",
    "BlurryTorrance BSDF without cache: GGX distribution",
    "BlurryTorrance BSDF with cache: GGX distribution",
    "BlurryTorrance BSDF: Phong distribution",
    "BlurryTorrance BSDF without cache: Ward distribution",
    "BlurryTorrance BSDF with cache: Ward distribution",
    "BlurryTorrance BSDF: Anisotropic distribution",
};
constexpr Int STANDARD_COUNT = sizeof(STANDARD_LABELS) / sizeof(STANDARD_LABELS[0]);

DataDictionary Settings(std::initializer_list<std::pair<Int32, Int>> ints, bool all = false) {
    DataDictionary d = DataDictionary::Create().GetValue();
    for (const auto& [key, value] : ints) {
        EXPECT_TRUE(d.SetData(DataDictionaryKey(key), Data::Of<Int>(value)).IsOk());
    }
    if (all) {
        EXPECT_TRUE(
            d.SetData(DataDictionaryKey(UNITTEST_SETTING_ALL), Data::Of<Bool>(true)).IsOk());
    }
    return d;
}

struct Collected {
    std::vector<std::string> labels;
    std::vector<bool> passed;
    std::vector<std::string> messages;
    std::vector<std::vector<Float64>> samples;
    std::vector<UnitTestReport> raw;  // texts and samples not kept
};

UnitTestSink SinkOf(Collected& c) {
    return UnitTestSink{[](void* user, const UnitTestReport& r) {
                            auto& c = *static_cast<Collected*>(user);
                            c.labels.emplace_back(r.label);
                            c.passed.push_back(r.passed);
                            c.messages.emplace_back(r.message);
                            c.samples.emplace_back(r.samples, r.samples + r.sampleCount);
                            UnitTestReport copy = r;
                            copy.label = copy.message = "";
                            copy.samples = nullptr;
                            c.raw.push_back(copy);
                        },
                        &c};
}

// The loop's wo of pass `loop`, from a generator written out here: seed 100, four numbers a
// pass (three for wo, one for the index).
Vector64 ExpectedWo(Int loop) {
    UInt32 state = (100u * 69069u + 69069u) & 0x7fffffffu;
    auto next = [&] {
        state = (state * 69069u + 69069u) & 0x7fffffffu;
        return static_cast<Float64>(state) * 4.656612870908988e-10;
    };
    Vector64 wo;
    for (Int i = 0; i <= loop; ++i) {
        wo = {next(), next(), next()};
        next();
    }
    const Float64 l = std::sqrt(wo.x * wo.x + wo.y * wo.y + wo.z * wo.z);
    return {wo.x / l, wo.y / l, wo.z / l};
}

// A registered class with one output moved at one pass of the loop.
enum class MOVE { VALUE, DIRECTION, PDF, EVALUATED_VALUE, EVALUATED_PDF };

class MovedBxDF final : public legacy::BxDF {
public:
    MovedBxDF(std::unique_ptr<legacy::BxDF> inner, MOVE what, Int loop, Float64 amount)
        : _inner(std::move(inner)), _what(what), _loop(loop), _amount(amount) {}
    Color64 SampleF(const Vector64& wo, const Vector64& n, const BSDFCachedSample& s, Vector64& wi,
                    Float64& pdf) override {
        Color64 c = _inner->SampleF(wo, n, s, wi, pdf);
        if (_samples++ == _loop) {
            if (_what == MOVE::VALUE) c.g += _amount;
            if (_what == MOVE::DIRECTION) wi.y += _amount;
            if (_what == MOVE::PDF) pdf += _amount;
        }
        return c;
    }
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) override {
        Color64 c = _inner->ComputeBSDF(wo, wiSide, wi, pdf);
        if (_evaluations++ == _loop) {
            if (_what == MOVE::EVALUATED_VALUE) c.b += _amount;
            if (_what == MOVE::EVALUATED_PDF) pdf += _amount;
        }
        return c;
    }

private:
    std::unique_ptr<legacy::BxDF> _inner;
    MOVE _what;
    Int _loop;
    Float64 _amount;
    Int _samples = 0;
    Int _evaluations = 0;
};

TEST(BSDFComparison, LabelsAreTheStandardListInOrderAndAllPass) {
    ASSERT_GE(static_cast<Int>(CaseLabels().size()), STANDARD_COUNT);
    for (Int i = 0; i < STANDARD_COUNT; ++i) EXPECT_EQ(CaseLabels()[i], STANDARD_LABELS[i]);
    EXPECT_EQ(bsdftest::STANDARD_CASE_COUNT, STANDARD_COUNT);

    Collected c;
    ASSERT_TRUE(bsdftest::RunComparison(Settings({}), SinkOf(c)).IsOk());
    ASSERT_EQ(static_cast<Int>(c.labels.size()), STANDARD_COUNT);
    for (Int i = 0; i < STANDARD_COUNT; ++i) {
        EXPECT_EQ(c.labels[i], STANDARD_LABELS[i]);
        EXPECT_TRUE(c.passed[i]) << c.messages[i];
    }
}

TEST(BSDFComparison, AllCasesMeetEveryRegisteredClass) {
    Collected c;
    ASSERT_TRUE(bsdftest::RunComparison(Settings({}, true), SinkOf(c)).IsOk());
    EXPECT_EQ(c.labels, CaseLabels());
    for (size_t i = 0; i < c.labels.size(); ++i) EXPECT_TRUE(c.passed[i]) << c.labels[i];
    // Every id of the registry is made by some case: build each and note its class.
    Result<bsdftest::RunCaches> caches = bsdftest::RunCaches::Create();
    ASSERT_TRUE(caches.IsOk());
    std::vector<std::string> seen;
    for (Int i = 0; i < static_cast<Int>(CaseLabels().size()); ++i) {
        Result<bsdftest::CaseObjects> o = bsdftest::BuildCase(i, caches.GetValue());
        ASSERT_TRUE(o.IsOk()) << ErrorToString(o.GetErrorPointer());
        auto* registered = static_cast<bsdftest::RegisteredBxDF*>(o.GetValue().current.get());
        seen.emplace_back(GetClassIdOf(registered->Get().GetObject().Get()).View());
    }
    for (const char* id : BSDF_LEGACY_CLASS_IDS) {
        EXPECT_NE(std::find(seen.begin(), seen.end(), id), seen.end()) << id;
    }
}

struct ToothCase {
    MOVE what;
    const char* text;
};

void PrintTo(const ToothCase& t, std::ostream* os) { *os << '"' << t.text << '"'; }

class BSDFComparisonTeeth : public ::testing::TestWithParam<ToothCase> {};

// A class moved by 1e-9 at one pass fails at exactly that case and pass, with the text, wo's
// string form and the pass; later cases do not run. So does a NaN in the class's output, which
// |a - b| > tolerance alone would let through. 1e-11 is inside the tolerance.
TEST_P(BSDFComparisonTeeth, FailsAtTheMovedCaseWithItsMessage) {
    const Int caseIndex = 12;  // GGX without cache: every output non-trivial
    const Int loop = 377;
    for (Float64 amount : {1e-9, std::numeric_limits<Float64>::quiet_NaN(), 1e-11}) {
        Collected c;
        Result<void> r = bsdftest::RunComparison(
            Settings({}), SinkOf(c), [&](Int index, std::unique_ptr<legacy::BxDF> current) {
                if (index != caseIndex) return current;
                return std::unique_ptr<legacy::BxDF>(
                    new MovedBxDF(std::move(current), GetParam().what, loop, amount));
            });
        if (amount < 1e-10) {
            EXPECT_TRUE(r.IsOk());
            EXPECT_EQ(static_cast<Int>(c.labels.size()), STANDARD_COUNT);
            continue;
        }
        ASSERT_TRUE(r.IsError());
        ASSERT_EQ(static_cast<Int>(c.labels.size()), caseIndex + 1);
        for (Int i = 0; i < caseIndex; ++i) EXPECT_TRUE(c.passed[i]);
        EXPECT_FALSE(c.passed[caseIndex]);
        const Vector64 wo = ExpectedWo(loop);
        char expected[256];
        std::snprintf(expected, sizeof(expected), "%s(%.17g, %.17g, %.17g) / Index %lld",
                      GetParam().text, wo.x, wo.y, wo.z, static_cast<long long>(loop));
        // The string form reads back to the same direction.
        const std::string& m = c.messages[caseIndex];
        EXPECT_EQ(m.rfind(GetParam().text, 0), 0u) << m;
        EXPECT_EQ(m, std::string(GetParam().text) + bsdftest::VectorToString(wo) + " / Index " +
                         std::to_string(loop));
        Vector64 parsed;
        ASSERT_EQ(std::sscanf(m.c_str() + std::strlen(GetParam().text), "(%lf, %lf, %lf)",
                              &parsed.x, &parsed.y, &parsed.z),
                  3)
            << expected;
        EXPECT_EQ(parsed, wo);
        EXPECT_NE(ErrorToString(r.GetErrorPointer()).find(m), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Outputs, BSDFComparisonTeeth,
    ::testing::Values(ToothCase{MOVE::VALUE, "Sampled BSDF's don't match "},
                      ToothCase{MOVE::DIRECTION, "Sample incident angles don't match "},
                      ToothCase{MOVE::PDF, "Sample PDF's don't match "},
                      ToothCase{MOVE::EVALUATED_VALUE, "Sampled BSDF's don't match "},
                      ToothCase{MOVE::EVALUATED_PDF, "Sample PDF's don't match "}));

// The same NaN on both sides is the two readings agreeing: the case passes.
TEST(BSDFComparison, ANaNOnBothSidesIsAgreement) {
    const Result<std::vector<BSDFCachedSample>> table = bsdftest::MakeSampleTable();
    ASSERT_TRUE(table.IsOk());
    Result<bsdftest::RunCaches> caches = bsdftest::RunCaches::Create();
    ASSERT_TRUE(caches.IsOk());
    const Float64 nan = std::numeric_limits<Float64>::quiet_NaN();
    for (MOVE what : {MOVE::VALUE, MOVE::PDF, MOVE::EVALUATED_PDF}) {
        Result<bsdftest::CaseObjects> o = bsdftest::BuildCase(12, caches.GetValue());
        ASSERT_TRUE(o.IsOk());
        MovedBxDF older(std::move(o.GetValue().older), what, 377, nan);
        MovedBxDF current(std::move(o.GetValue().current), what, 377, nan);
        EXPECT_EQ(
            bsdftest::CompareCase(bsdftest::COMPAREMODE::SAMPLE, older, current, table.GetValue()),
            "");
    }
}

DataDictionary RoughnessWithCache(SamplerCache* cache) {
    DataDictionary d = DataDictionary::Create().GetValue();
    EXPECT_TRUE(d.SetData(DataDictionaryKey(BSDF_PARAM_ROUGHNESS), Data::Of(0.7)).IsOk());
    if (cache) {
        EXPECT_TRUE(d.SetData(DataDictionaryKey(BSDF_PARAM_DISTRIBUTION_CACHE),
                              Data::Of(SamplerCachePointer{cache}))
                        .IsOk());
    }
    return d;
}

// The cached and the analytic paths differ by the interpolation error, which is far above the
// tolerance: each side is held to the older one in the same mode only.
TEST(BSDFComparison, ModesDoNotPassForOneAnother) {
    const Result<std::vector<BSDFCachedSample>> table = bsdftest::MakeSampleTable();
    ASSERT_TRUE(table.IsOk());
    struct Kind {
        const char* id;
        legacy::DISTRIBUTIONKIND kind;
    };
    for (const Kind& k : {Kind{GGX_BRDF_CLASS_ID, legacy::DISTRIBUTIONKIND::GGX},
                          Kind{BECKMANN_BRDF_CLASS_ID, legacy::DISTRIBUTIONKIND::BECKMANN},
                          Kind{WARD_BTDF_CLASS_ID, legacy::DISTRIBUTIONKIND::WARD}}) {
        for (bool currentCached : {false, true}) {
            for (bool olderCached : {false, true}) {
                auto currentCache = std::make_unique<SamplerCache>();
                auto olderCache = std::make_unique<SamplerCache>();
                BSDFLegacyRef b =
                    test::MakeInstance<BSDFLegacyInterface>(BSDF_LEGACY_CLASS_REGISTRY_ID, k.id);
                ASSERT_TRUE(b.Init(RoughnessWithCache(currentCached ? currentCache.get() : nullptr),
                                   nullptr)
                                .IsOk());
                bsdftest::RegisteredBxDF current(b);
                const bool transmit = std::string_view(k.id).ends_with("btdf");
                legacy::BlurryTorranceBxDF older(
                    legacy::MakeDistribution(k.kind, 0.7, 0.3,
                                             olderCached ? olderCache.get() : nullptr),
                    transmit);
                const std::string m = bsdftest::CompareCase(bsdftest::COMPAREMODE::SAMPLE, older,
                                                            current, table.GetValue());
                if (currentCached == olderCached) {
                    EXPECT_EQ(m, "") << k.id << " cached " << currentCached;
                } else {
                    EXPECT_EQ(m.rfind("Sampled BSDF's don't match (", 0), 0u)
                        << k.id << " cached " << currentCached << ": " << m;
                }
            }
        }
    }
    // The simple blurry lobe: its table of drawn cosines against pow(1 - u1, r^3), compared
    // where its values are not zero (a cosine-drawn wi and the lobe angle).
    for (bool currentCached : {false, true}) {
        for (bool olderCached : {false, true}) {
            auto currentCache = std::make_unique<SamplerCache>();
            auto olderCache = std::make_unique<SamplerCache>();
            BSDFLegacyRef b = test::MakeInstance<BSDFLegacyInterface>(BSDF_LEGACY_CLASS_REGISTRY_ID,
                                                                      BLURRYSIMPLE_BRDF_CLASS_ID);
            ASSERT_TRUE(
                b.Init(RoughnessWithCache(currentCached ? currentCache.get() : nullptr), nullptr)
                    .IsOk());
            bsdftest::RegisteredBxDF current(b);
            legacy::BlurrySimpleBxDF older(0.7, olderCached ? olderCache.get() : nullptr);
            const std::string m = bsdftest::CompareCase(bsdftest::COMPAREMODE::COSINE_AND_ANGLE,
                                                        older, current, table.GetValue());
            if (currentCached == olderCached) {
                EXPECT_EQ(m, "") << "blurrysimple cached " << currentCached;
            } else {
                EXPECT_EQ(m.rfind("Sample incident angles don't match (", 0), 0u)
                    << "blurrysimple cached " << currentCached << ": " << m;
            }
        }
    }
}

// Everything the registered class of a case answers, in order.
class RecordingBxDF final : public legacy::BxDF {
public:
    RecordingBxDF(std::unique_ptr<legacy::BxDF> inner, std::vector<Float64>& out)
        : _inner(std::move(inner)), _out(out) {}
    Color64 SampleF(const Vector64& wo, const Vector64& n, const BSDFCachedSample& s, Vector64& wi,
                    Float64& pdf) override {
        const Color64 c = _inner->SampleF(wo, n, s, wi, pdf);
        _out.insert(_out.end(), {c.r, c.g, c.b, wi.x, wi.y, wi.z, pdf});
        return c;
    }
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) override {
        const Color64 c = _inner->ComputeBSDF(wo, wiSide, wi, pdf);
        _out.insert(_out.end(), {c.r, c.g, c.b, pdf});
        return c;
    }
    Float64 ComputeAngle(const BSDFCachedSample& s) override {
        const Float64 a = _inner->ComputeAngle(s);
        _out.push_back(a);
        return a;
    }

private:
    std::unique_ptr<legacy::BxDF> _inner;
    std::vector<Float64>& _out;
};

// A case run alone sees the same generator, table and cache state as in its place in the run:
// the cached cases after the uncached ones, the cloth class with its own jitter state.
TEST(BSDFComparison, ACaseAloneEqualsItsPlaceInTheFullRun) {
    std::vector<std::vector<Float64>> inRun(CaseLabels().size());
    Collected all;
    ASSERT_TRUE(bsdftest::RunComparison(Settings({}, true), SinkOf(all),
                                        [&](Int index, std::unique_ptr<legacy::BxDF> current) {
                                            return std::unique_ptr<legacy::BxDF>(new RecordingBxDF(
                                                std::move(current), inRun[index]));
                                        })
                    .IsOk());
    for (Int index : {Int{4}, Int{9}, Int{13}, Int{16}, Int{23}, Int{29}}) {
        std::vector<Float64> alone;
        Collected one;
        ASSERT_TRUE(bsdftest::RunComparison(Settings({{UNITTEST_SETTING_CASE, index}}), SinkOf(one),
                                            [&](Int, std::unique_ptr<legacy::BxDF> current) {
                                                return std::unique_ptr<legacy::BxDF>(
                                                    new RecordingBxDF(std::move(current), alone));
                                            })
                        .IsOk());
        ASSERT_EQ(one.labels.size(), 1u);
        EXPECT_EQ(one.labels[0], CaseLabels()[index]);
        ASSERT_EQ(alone.size(), inRun[index].size()) << CaseLabels()[index];
        EXPECT_EQ(std::memcmp(alone.data(), inRun[index].data(), alone.size() * sizeof(Float64)), 0)
            << CaseLabels()[index];
    }
    Collected none;
    EXPECT_TRUE(
        bsdftest::RunComparison(Settings({{UNITTEST_SETTING_CASE, 1000}}), SinkOf(none)).IsError());
}

// ---- timing -------------------------------------------------------------------------------

// The test's clock: a fixed step per read, or a programmed series of readings.
Int g_step = 0;
Int g_now = 0;
std::vector<Int> g_series;
size_t g_read = 0;
Int SteppingClock() { return g_now += g_step; }
// Installs the stepping clock, at 0, `step` ns per read.
void StepClock(Int step) {
    g_step = step;
    g_now = 0;
    host::SetTimerSource(&SteppingClock);
}
Int SeriesClock() { return g_read < g_series.size() ? g_series[g_read++] : g_series.back(); }

struct CapturedText {
    std::vector<std::string> lines;
    CapturedText() {
        host::SetTextOutputSink([this](std::string_view l) { lines.emplace_back(l); });
    }
    ~CapturedText() {
        host::SetTextOutputSink({});
        host::SetTimerSource(nullptr);
    }
};

const char* const RUN_SUFFIXES[] = {" Legacy SampleF", " Horizona SampleF", " Legacy ComputeBSDF",
                                    " Horizona ComputeBSDF"};

TEST(BSDFTiming, StatisticsOfAFixedStepAndTheHeader) {
    CapturedText text;
    StepClock(1234567);
    Collected c;
    ASSERT_TRUE(bsdftest::RunTiming(
                    Settings({{UNITTEST_SETTING_SAMPLE_SIZE, 3}, {UNITTEST_SETTING_ITERATIONS, 2}}),
                    SinkOf(c), true)
                    .IsOk());
    ASSERT_EQ(static_cast<Int>(c.labels.size()), STANDARD_COUNT * 4);
    ASSERT_EQ(static_cast<Int>(text.lines.size()), 5 + STANDARD_COUNT * 4);
    EXPECT_EQ(text.lines[0], "|------------------------------------------------------------------");
    EXPECT_EQ(text.lines[1], "| Sample size: 3");
    EXPECT_EQ(text.lines[2], "| Number of iteration per timed sample: 2");
    EXPECT_EQ(text.lines[3], "| Statistics are in milliseconds (ms)");
    EXPECT_EQ(text.lines[4], "| Statistics from left to right: mean, variance, standard deviation");
    for (Int i = 0; i < STANDARD_COUNT * 4; ++i) {
        const std::string label = std::string(STANDARD_LABELS[i / 4]) + RUN_SUFFIXES[i % 4];
        EXPECT_EQ(c.labels[i], label);
        // Two reads a sample: every sample lasts one step, 1.234567 ms.
        ASSERT_EQ(c.samples[i].size(), 3u);
        for (Float64 s : c.samples[i]) EXPECT_DOUBLE_EQ(s, 1.234567);
        EXPECT_DOUBLE_EQ(c.raw[i].mean, 1.234567);
        EXPECT_EQ(c.raw[i].variance, 0.0);
        EXPECT_EQ(c.raw[i].stddev, 0.0);
        EXPECT_EQ(c.raw[i].iterations, 2);
        EXPECT_EQ(text.lines[5 + i],
                  label + ": " + bsdftest::FormatStatistics({c.raw[i].mean, 0.0, 0.0}));
    }
}

TEST(BSDFTiming, AKnownSeriesGivesTheSampleVariance) {
    CapturedText text;
    // Readings in ns: samples of 1, 2 and 4 ms.
    g_series = {0, 1000000, 1000000, 3000000, 3000000, 7000000};
    g_read = 0;
    host::SetTimerSource(&SeriesClock);
    Collected c;
    ASSERT_TRUE(bsdftest::RunTiming(Settings({{UNITTEST_SETTING_SAMPLE_SIZE, 3},
                                              {UNITTEST_SETTING_ITERATIONS, 1},
                                              {UNITTEST_SETTING_CASE, 0}}),
                                    SinkOf(c), true)
                    .IsOk());
    ASSERT_GE(c.raw.size(), 1u);
    // Mean 7/3; squared deviations 16/9, 1/9, 25/9 over n - 1 = 2: 7/3.
    EXPECT_NEAR(c.raw[0].mean, 7.0 / 3.0, 1e-12);
    EXPECT_NEAR(c.raw[0].variance, 7.0 / 3.0, 1e-12);
    EXPECT_NEAR(c.raw[0].stddev, std::sqrt(7.0 / 3.0), 1e-12);
    EXPECT_DOUBLE_EQ(c.raw[0].time, 4.0);
    // The printed numbers read back to the reported ones.
    const std::string& line = text.lines.at(5);
    const std::string prefix = std::string("Lambert BSDF Legacy SampleF: ");
    ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
    char* end = nullptr;
    const char* p = line.c_str() + prefix.size();
    EXPECT_EQ(std::strtod(p, &end), c.raw[0].mean);
    ASSERT_EQ(std::string(end, 2), ", ");
    EXPECT_EQ(std::strtod(end + 2, &end), c.raw[0].variance);
    ASSERT_EQ(std::string(end, 2), ", ");
    EXPECT_EQ(std::strtod(end + 2, &end), c.raw[0].stddev);
    EXPECT_EQ(*end, '\0');

    const bsdftest::Statistics one =
        bsdftest::ComputeStatistics(std::vector<Float64>{5.0}.data(), 1);
    EXPECT_EQ(one.mean, 5.0);
    EXPECT_EQ(one.variance, 0.0);
}

// The class's own run sizes: with statistics 500 samples of 65,536 calls, without one sample of
// 50,000,000; and a run that overrides only one number takes the other from them.
TEST(BSDFTiming, DefaultRunSizes) {
    EXPECT_EQ(bsdftest::DefaultRunSizes(true).sampleSize, 500);
    EXPECT_EQ(bsdftest::DefaultRunSizes(true).iterationsPerSample, 65536);
    EXPECT_EQ(bsdftest::DefaultRunSizes(false).sampleSize, 1);
    EXPECT_EQ(bsdftest::DefaultRunSizes(false).iterationsPerSample, 50000000);

    CapturedText text;
    StepClock(1000);
    Collected c;
    ASSERT_TRUE(bsdftest::RunTiming(
                    Settings({{UNITTEST_SETTING_ITERATIONS, 1}, {UNITTEST_SETTING_CASE, 0}}),
                    SinkOf(c), true)
                    .IsOk());
    ASSERT_EQ(c.raw.size(), 4u);
    EXPECT_EQ(c.samples[0].size(), 500u);
    EXPECT_EQ(text.lines.at(1), "| Sample size: 500");
    c = {};
    ASSERT_TRUE(bsdftest::RunTiming(
                    Settings({{UNITTEST_SETTING_SAMPLE_SIZE, 1}, {UNITTEST_SETTING_CASE, 0}}),
                    SinkOf(c), true)
                    .IsOk());
    ASSERT_EQ(c.raw.size(), 4u);
    EXPECT_EQ(c.raw[0].iterations, 65536);
    // Statistics off: two clock reads a sample, so one sample reads twice per run.
    c = {};
    StepClock(1000);
    ASSERT_TRUE(bsdftest::RunTiming(
                    Settings({{UNITTEST_SETTING_ITERATIONS, 1}, {UNITTEST_SETTING_CASE, 0}}),
                    SinkOf(c), false)
                    .IsOk());
    ASSERT_EQ(c.raw.size(), 4u);
    EXPECT_EQ(g_now, 4 * 2 * g_step);
    EXPECT_TRUE(c.samples[0].empty());
    // (The 50,000,000 calls of a run without statistics are not run here: a second or more.)
}

TEST(BSDFTiming, StatisticsOffStoresNoSamplesAndPrintsNothing) {
    CapturedText text;
    g_series = {0, 1000000, 1000000, 3000000, 3000000, 7500000};
    g_read = 0;
    host::SetTimerSource(&SeriesClock);
    Collected c;
    ASSERT_TRUE(bsdftest::RunTiming(Settings({{UNITTEST_SETTING_SAMPLE_SIZE, 3},
                                              {UNITTEST_SETTING_ITERATIONS, 1},
                                              {UNITTEST_SETTING_CASE, 14}}),
                                    SinkOf(c), false)
                    .IsOk());
    EXPECT_TRUE(text.lines.empty());
    ASSERT_EQ(c.labels.size(), 4u);
    EXPECT_EQ(c.labels[0], "BlurryTorrance BSDF: Phong distribution Legacy SampleF");
    EXPECT_TRUE(c.samples[0].empty());
    EXPECT_EQ(c.raw[0].mean, 0.0);
    // The last of the three samples, in ms.
    EXPECT_DOUBLE_EQ(c.raw[0].time, 4.5);
}

// ---- the host's runner and the configuration ------------------------------------------------

TEST(TestClassRunner, FindsTheClassesByIdAndRefusesUnknownOnes) {
    const std::vector<std::string> unit = host::ListTestClasses(UNITTEST_CLASS_REGISTRY_ID);
    const std::vector<std::string> speed = host::ListTestClasses(SPEEDTEST_CLASS_REGISTRY_ID);
    EXPECT_NE(std::find(unit.begin(), unit.end(), BSDF_UNITTEST_CLASS_ID), unit.end());
    EXPECT_NE(std::find(speed.begin(), speed.end(), BSDF_SPEEDTEST_CLASS_ID), speed.end());

    std::vector<host::TestReport> reports;
    Result<void> r = host::RunTestClass(UNITTEST_CLASS_REGISTRY_ID, "net.quorv.unittest.none",
                                        Settings({}), reports);
    ASSERT_TRUE(r.IsError());
    EXPECT_NE(ErrorToString(r.GetErrorPointer()).find("net.quorv.unittest.none"),
              std::string::npos);

    // One case through the runner: the report is copied out whole.
    r = host::RunTestClass(UNITTEST_CLASS_REGISTRY_ID, BSDF_UNITTEST_CLASS_ID,
                           Settings({{UNITTEST_SETTING_CASE, 1}}), reports);
    ASSERT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].label, "OrenNayar BSDF");
    EXPECT_TRUE(reports[0].passed);
}

TEST(TestClassRunner, StatisticsVariableIsDeclaredAndSetByConfiguration) {
    bool found = false;
    for (const host::ConfigurationListing& row : host::Host::Get().ListConfiguration()) {
        if (row.name != "g_runUnitTestRenderStatistics") continue;
        found = true;
        EXPECT_EQ(row.help, "Run render unittest statistics");
        EXPECT_EQ(row.type, CONFIGTYPE::BOOL);
    }
    EXPECT_TRUE(found);
    EXPECT_FALSE(g_runUnitTestRenderStatistics);
    ASSERT_TRUE(host::Host::Get().SetConfiguration("g_runUnitTestRenderStatistics=true").IsOk());
    EXPECT_TRUE(g_runUnitTestRenderStatistics);
    ASSERT_TRUE(host::Host::Get().SetConfiguration("g_runUnitTestRenderStatistics=false").IsOk());
    EXPECT_FALSE(g_runUnitTestRenderStatistics);
}

TEST(TestClassRunner, TimerIsMonotonicNanoseconds) {
    const Int a = SystemInterface::GetTimer();
    const Int b = SystemInterface::GetTimer();
    EXPECT_GT(a, 0);
    EXPECT_GE(b, a);
}

}  // namespace
}  // namespace quorv
