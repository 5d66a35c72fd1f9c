#pragma once
/// The comparison class "net.quorv.unittest.bsdftest" and the timing class
/// "net.quorv.speedtestclass.speedtestbsdftest": the registered BSDF classes ("Horizona")
/// against the older set of legacybsdf.h ("Legacy"). The pieces are declared here so that
/// white-box tests can feed the comparison a wrapped class and step the clock.
///
/// Thread safety: a run belongs to one thread; each case makes its own objects.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quorv/unittest.h"
#include "render/legacy_renderers/legacybsdf.h"

namespace quorv {

constexpr const char* BSDF_UNITTEST_CLASS_ID = "net.quorv.unittest.bsdftest";
constexpr const char* BSDF_SPEEDTEST_CLASS_ID = "net.quorv.speedtestclass.speedtestbsdftest";

/// "g_runUnitTestRenderStatistics": the timing class stores and prints statistics.
extern Bool g_runUnitTestRenderStatistics;

namespace bsdftest {

/// Entries of the table of sample records.
constexpr Int SAMPLE_TABLE_SIZE = 65536;
/// Passes of the comparison loop per case.
constexpr Int COMPARE_LOOPS = 1000;
/// Largest difference the comparison accepts; a NaN on one side only is always a difference.
constexpr Float64 COMPARE_TOLERANCE = 1e-10;

/// The number of cases of the standard list (the labels the comparison is known by), which the
/// timing class runs too.
constexpr Int STANDARD_CASE_COUNT = 18;

/// The labels of all cases in run order: the standard 18, then those that `--all` adds.
const std::vector<std::string>& CaseLabels();

/// The records of the table: the generator seeded with 100, three steps a record, in order.
/// Out of memory gives the kind 0 error.
Result<std::vector<BSDFCachedSample>> MakeSampleTable();

/// A registered class seen through the older set's shape, so the loop treats both alike.
class RegisteredBxDF final : public legacy::BxDF {
public:
    explicit RegisteredBxDF(BSDFLegacyRef bsdf) : _bsdf(std::move(bsdf)) {}
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) override {
        return _bsdf.SampleF(wo, normal, sample, wi, pdf);
    }
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) override {
        return _bsdf.ComputeBSDF(wo, wiSide, wi, pdf);
    }
    Float64 ComputeAngle(const BSDFCachedSample& sample) override {
        return _bsdf.ComputeAngle(sample);
    }
    const BSDFLegacyRef& Get() const { return _bsdf; }

private:
    BSDFLegacyRef _bsdf;
};

/// What a case compares: the sampled direction and its value, or (the simple blurry lobe's own
/// case) the value of a cosine-drawn direction and the lobe angle.
enum class COMPAREMODE : Int32 { SAMPLE = 0, COSINE_AND_ANGLE = 1 };

/// The objects of one case, with what they need kept alive.
struct CaseObjects {
    std::string label;
    COMPAREMODE mode = COMPAREMODE::SAMPLE;
    std::unique_ptr<legacy::BxDF> older;
    std::unique_ptr<legacy::BxDF> current;
    std::unique_ptr<legacy::ClothPatternLegacy> olderPattern;
};

/// The tables one run shares between its cases: one for the registered class, a block of four
/// for the older side (0 Beckmann, 1 GGX, 2 Ward) and one more for the simple blurry lobe on
/// each side.
struct RunCaches {
    std::unique_ptr<SamplerCache> current;
    std::unique_ptr<SamplerCache[]> olderBlock;
    std::unique_ptr<SamplerCache> blurryCurrent;
    std::unique_ptr<SamplerCache> blurryOlder;
    /// Allocates all of them, unset; out of memory gives the kind 0 error.
    static Result<RunCaches> Create();
};

/// Builds case `index` of CaseLabels(); the caches are set to unset first where the case uses
/// them. An error when a class cannot be made or memory runs out.
Result<CaseObjects> BuildCase(Int index, RunCaches& caches);

/// The comparison loop of one case; an empty text when it passes, else the failure message.
std::string CompareCase(COMPAREMODE mode, legacy::BxDF& older, legacy::BxDF& current,
                        const std::vector<BSDFCachedSample>& table);

/// The string form of a direction in failure messages: "(x, y, z)" with digits that read back.
std::string VectorToString(const Vector64& v);

/// Lets a test replace the registered class of case `index` (by a wrapper around it).
using CurrentWrapper =
    std::function<std::unique_ptr<legacy::BxDF>(Int index, std::unique_ptr<legacy::BxDF> current)>;

/// The comparison run: the cases selected by `settings` in order, a report each; the first
/// failure ends the run with its message as an illegal-state error.
Result<void> RunComparison(const DataDictionary& settings, const UnitTestSink& sink,
                           const CurrentWrapper& wrap = {});

/// Mean, variance over n - 1 (0 for fewer than two) and standard deviation of `samples`.
struct Statistics {
    Float64 mean = 0.0, variance = 0.0, stddev = 0.0;
};
Statistics ComputeStatistics(const Float64* samples, Int count);

/// The three numbers as printed: "mean, variance, stddev", digits that read back.
std::string FormatStatistics(const Statistics& s);

/// The timing class's own run size; the runner may override either number alone.
struct RunSizes {
    Int sampleSize = 0;           ///< timed samples per run
    Int iterationsPerSample = 0;  ///< calls per timed sample
};
/// With statistics: 500 samples of 65,536 calls (one pass over the sample table each), so the
/// spread means something; without: one sample of 50,000,000 calls, a single long figure.
RunSizes DefaultRunSizes(Bool statistics);

/// The timing run: the 18 standard cases in order, four timed runs each, a report per run;
/// with `statistics` the header and a line per run go through the framework's text output.
Result<void> RunTiming(const DataDictionary& settings, const UnitTestSink& sink, Bool statistics);

}  // namespace bsdftest

}  // namespace quorv
