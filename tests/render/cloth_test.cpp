// The cloth noise, the weave patterns and their yarns, and the cloth class. Expected values are
// computed here from the recipes written out again, not through the module's helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "quorv/image.h"
#include "render/legacy_renderers/bsdf_impl.h"
#include "render/legacy_renderers/bsdfdata.h"
#include "render/legacy_renderers/clothnoise.h"
#include "render/legacy_renderers/clothweavepattern.h"
#include "render/legacy_renderers/clothweavepattern_impl.h"

namespace quorv {
namespace {

constexpr Float64 PI = 3.141592653589793;

Vector64 Normalize(const Vector64& v) {
    const Float64 l = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    return l > 0.0 ? Vector64{v.x / l, v.y / l, v.z / l} : v;
}

// The generator from a raw state, read as state / (2^31 + 1), written out again.
struct Raw {
    UInt32 state;
    Float64 Next() {
        state = (state * 69069u + 69069u) & 0x7fffffffu;
        return static_cast<Float64>(state) / 2147483649.0;
    }
};

// ---- noise --------------------------------------------------------------------------------

// Must be the first use of the noise in the process to test the one-time build; the build is
// also where tsan would see two writers.
TEST(ClothNoise, FirstUseFromManyThreadsBuildsOnce) {
    if (IsClothNoiseBuilt()) GTEST_SKIP() << "another test used the noise first";
    ClothNoiseTables expected;
    BuildClothNoiseTables(expected);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    std::vector<Float64> values(8, 0.0);
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < 8) {
            }
            values[static_cast<size_t>(t)] = ClothNoise({0.25, 0.5, 0.75});
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_TRUE(IsClothNoiseBuilt());
    for (Float64 v : values) EXPECT_EQ(v, values[0]);
    const ClothNoiseTables& built = GetClothNoiseTables();
    EXPECT_EQ(std::memcmp(&built, &expected, sizeof(expected)), 0);
}

TEST(ClothNoise, TablesFollowTheRecipe) {
    const ClothNoiseTables& t = GetClothNoiseTables();
    // Gradient 0: the first four draws from the raw state 100, each 1 - 2r, scaled to 1.5.
    Raw raw{100};
    Float64 g[4], length2 = 0.0;
    for (Float64& c : g) {
        c = 1.0 - 2.0 * raw.Next();
        length2 += c * c;
    }
    for (int k = 0; k < 4; ++k) EXPECT_EQ(t.gradient[0][k], g[k] * (1.5 / std::sqrt(length2)));
    for (Int i = 0; i < ClothNoiseTables::SIZE; ++i) {
        const Float64* q = t.gradient[i];
        EXPECT_NEAR(std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]), 1.5, 1e-14);
    }
    // The shuffle, replayed: draws 4097 on, i from 1023 down to 1, j = truncation of r * 1024.
    Raw shuffle{100};
    for (int k = 0; k < 4096; ++k) shuffle.Next();
    std::vector<Int32> permutation(1024);
    for (Int32 i = 0; i < 1024; ++i) permutation[static_cast<size_t>(i)] = i;
    for (Int i = 1023; i >= 1; --i) {
        const Int j = static_cast<Int>(shuffle.Next() * 1024.0);
        std::swap(permutation[static_cast<size_t>(i)], permutation[static_cast<size_t>(j)]);
    }
    EXPECT_TRUE(std::equal(permutation.begin(), permutation.end(), t.permutation));
    for (Int i = 0; i < 1026; ++i) {
        EXPECT_EQ(t.permutation[1024 + i], t.permutation[i]);
        EXPECT_EQ(t.gradient[1024 + i][3], t.gradient[i][3]);
    }
}

TEST(ClothNoise, ZeroAtLatticePointsContinuousAcrossFacesAndBounded) {
    // The lattice in x is shifted by the offset 0.3718413.
    for (Int k = -3; k < 4; ++k) {
        const Float64 x = static_cast<Float64>(k) - 0.3718413;
        EXPECT_NEAR(ClothNoise({x, 0.0, 0.0}), 0.0, 1e-6);
        EXPECT_NEAR(ClothNoise({x, 2.0, 0.0}), 0.0, 1e-6);
        EXPECT_NEAR(ClothNoise({x, -5.0, 7.0}), 0.0, 1e-6);
        // Across a face in x, y and z.
        for (Float64 y : {0.3, 1.7}) {
            EXPECT_NEAR(ClothNoise({x - 1e-9, y, 0.4}), ClothNoise({x + 1e-9, y, 0.4}), 1e-7);
            EXPECT_NEAR(ClothNoise({0.2, k - 1e-9, y}), ClothNoise({0.2, k + 1e-9, y}), 1e-7);
            EXPECT_NEAR(ClothNoise({0.2, y, k - 1e-9}), ClothNoise({0.2, y, k + 1e-9}), 1e-7);
        }
    }
    BSDFRandom r;
    r.Seed(7);
    Float64 low = 0.0, high = 0.0;
    for (int i = 0; i < 20000; ++i) {
        const Vector64 p{(r.Next() - 0.5) * 200.0, (r.Next() - 0.5) * 200.0,
                         (r.Next() - 0.5) * 200.0};
        const Float64 n = ClothNoise(p);
        ASSERT_TRUE(n >= -1.0 && n <= 1.0) << n;
        low = std::min(low, n);
        high = std::max(high, n);
    }
    // It does use its range.
    EXPECT_LT(low, -0.5);
    EXPECT_GT(high, 0.5);
    // Hostile coordinates fall into cell 0 instead of overflowing.
    EXPECT_TRUE(std::isfinite(ClothNoise({1e300, -1e300, 1e20})));
    EXPECT_TRUE(std::isfinite(ClothNoise({NAN, 0.5, 0.5})));
}

TEST(ClothNoise, PlanarAndLinePathsEqualTheFullPath) {
    // z = 1e-300 takes the full path with a blend of exactly 0 and terms below rounding.
    for (Float64 x = -3.0; x < 3.0; x += 0.173) {
        for (Float64 y = -2.0; y < 2.0; y += 0.219) {
            EXPECT_NEAR(ClothNoise({x, y, 0.0}), ClothNoise({x, y, 1e-300}), 1e-15);
        }
        EXPECT_NEAR(ClothNoise({x, 0.0, 0.0}), ClothNoise({x, 1e-300, 0.0}), 1e-15);
        EXPECT_NEAR(ClothNoise({x, 0.0, 0.0}), ClothNoise({x, 1e-300, 1e-300}), 1e-15);
    }
}

TEST(ClothNoise, PeriodicFormRepeatsAndPeriodZeroIsPlain) {
    for (Int32 period : {3, 7, 100}) {
        const Float64 P = period;
        for (Float64 x = 0.1; x < 4.0; x += 0.37) {
            const Vector64 p{x, 0.6 * x + 0.2, 1.3 - x};
            const Float64 n = ClothPeriodicNoise(p, period);
            EXPECT_NEAR(ClothPeriodicNoise({p.x + P, p.y, p.z}, period), n, 1e-9);
            EXPECT_NEAR(ClothPeriodicNoise({p.x, p.y - P, p.z}, period), n, 1e-9);
            EXPECT_NEAR(ClothPeriodicNoise({p.x, p.y, p.z + 2 * P}, period), n, 1e-9);
        }
    }
    // Periodic over two periods of the first octave, which doubles with the coordinates.
    const Vector64 p{0.3, 0.45, 0.0};
    EXPECT_NEAR(ClothPeriodicTurbulence({p.x + 5.0, p.y, 0.0}, 3.0, false, 5),
                ClothPeriodicTurbulence(p, 3.0, false, 5), 1e-9);
    for (Float64 x = -2.0; x < 2.0; x += 0.31) {
        const Vector64 q{x, 1.0 - x, 0.5 * x};
        EXPECT_EQ(ClothPeriodicNoise(q, 0), ClothNoise(q));
        // The period is masked with 1023: 1024 is the plain noise again.
        EXPECT_EQ(ClothPeriodicNoise(q, 1024), ClothNoise(q));
        EXPECT_EQ(ClothPeriodicTurbulence(q, 2.5, true, 0), ClothTurbulence(q, 2.5, true));
    }
}

TEST(ClothNoise, TurbulenceSumsOctavesAndIsContinuousInTheirNumber) {
    const Vector64 p{0.37, 1.91, 0.0};
    auto at = [](const Vector64& q, Float64 s) { return Vector64{q.x * s, q.y * s, q.z * s}; };
    const Float64 n0 = ClothNoise(p), n1 = ClothNoise(at(p, 2.0)), n2 = ClothNoise(at(p, 4.0));
    EXPECT_EQ(ClothTurbulence(p, 2.0, false), n0 + n1 * 0.5);
    EXPECT_EQ(ClothTurbulence(p, 3.0, true),
              std::fabs(n0) + std::fabs(n1) * 0.5 + std::fabs(n2) * 0.25);
    // A quarter octave adds a quarter of the next term.
    EXPECT_EQ(ClothTurbulence(p, 2.25, false), n0 + n1 * 0.5 + 0.25 * n2 * 0.25);
    for (Float64 k : {1.0, 2.0, 3.0, 4.0}) {
        EXPECT_NEAR(ClothTurbulence(p, k - 1e-9, true), ClothTurbulence(p, k, true), 1e-8);
        EXPECT_NEAR(ClothTurbulence(p, k + 1e-9, false), ClothTurbulence(p, k, false), 1e-8);
    }
    EXPECT_EQ(ClothTurbulence(p, 0.0, false), 0.0);
}

// ---- patterns -----------------------------------------------------------------------------

ClothWeavePatternRef MakePattern(UInt32 preset, Int32 quality = 2) {
    Result<ClothWeavePatternRef> p = ClothWeavePatternRef::Create();
    EXPECT_TRUE(p.IsOk()) << ErrorToString(p.GetErrorPointer());
    EXPECT_TRUE(ClothWeavePatternInterface::SetupPattern(p.GetValue().Get(), preset).IsOk());
    ClothWeavePatternInterface::SetupCloth(p.GetValue().Get(), quality, 0.01, 4.0, 0.0, 0.0, 0.0,
                                           0.0, 0.0, 0.0);
    return p.GetValue();
}

// The preset tables as the weave drawings give them, top row first, and the tile sizes.
struct PresetTable {
    Int width, height, repeat;
    const char* rows;
};
const PresetTable TABLES[] = {
    {3, 6, 30, "1 3 8 / 1 3 5 / 1 7 5 / 1 4 5 / 6 4 5 / 2 4 5"},
    {4, 8, 30, "7 2 4 6 / 7 2 4 6 / 1 8 4 6 / 1 8 4 6 / 1 3 9 6 / 1 3 9 6 / 1 3 5 10 / 1 3 5 10"},
    {2, 2, 80, "3 2 / 1 4"},
    {5, 10, 40,
     "10 2 4 6 8 / 1 2 4 6 8 / 1 2 4 13 8 / 1 2 4 7 8 / 1 11 4 7 8 / 1 3 4 7 8 / 1 3 4 7 14 / "
     "1 3 4 7 9 / 1 3 12 7 9 / 1 3 5 7 9"},
    {6, 8, 60,
     "3 3 3 3 2 2 / 3 3 3 3 2 2 / 3 3 3 3 2 2 / 3 3 3 3 2 2 / 4 1 1 5 5 5 / 4 1 1 5 5 5 / "
     "4 1 1 5 5 5 / 4 1 1 5 5 5"},
    {6, 9, 40,
     "1 1 2 2 7 7 / 1 1 2 2 7 7 / 1 1 2 2 7 7 / 1 1 6 6 4 4 / 1 1 6 6 4 4 / 1 1 6 6 4 4 / "
     "5 5 3 3 4 4 / 5 5 3 3 4 4 / 5 5 3 3 4 4"},
};

std::vector<std::vector<Int>> Rows(const char* text) {
    std::vector<std::vector<Int>> rows(1);
    std::istringstream in(text);
    std::string word;
    while (in >> word) {
        if (word == "/")
            rows.emplace_back();
        else
            rows.back().push_back(std::stoi(word));
    }
    return rows;
}

TEST(ClothWeavePattern, EveryCellCentreGivesTheYarnOfTheTableTopRowFirst) {
    for (UInt32 preset = 0; preset < CLOTH_PRESET_COUNT; ++preset) {
        const PresetTable& t = TABLES[preset];
        ClothWeavePatternRef p = MakePattern(preset);
        const std::vector<std::vector<Int>> rows = Rows(t.rows);
        ASSERT_EQ(static_cast<Int>(rows.size()), t.height) << preset;
        for (Int y = 0; y < t.height; ++y) {
            for (Int x = 0; x < t.width; ++x) {
                // v grows upward: row y from the bottom is table row height - 1 - y.
                const Int expected = rows[static_cast<size_t>(t.height - 1 - y)][x];
                const Float64 u = (x + 0.5) / t.width / t.repeat;
                const Float64 v = (y + 0.5) / t.height / t.repeat;
                Vector2d64 uv;
                Float64 umax = 0.0, weight = 1.0, state = 1.0;
                const ClothYarn* yarn = ClothWeavePatternInterface::GetYarn(
                    p.Get(), u, v, &uv, &umax, &weight, &state, true, 1.0);
                ASSERT_NE(yarn, nullptr) << preset << " " << x << " " << y;
                EXPECT_EQ(yarn, p->yarns[expected - 1]) << preset << " " << x << " " << y;
                // Without variation the half angle is the yarn's own.
                EXPECT_EQ(umax, yarn->umax);
                EXPECT_EQ(weight, 1.0);
            }
        }
        // u = 1.0 lies in the first column of the next tile: the same yarn and coordinates.
        Vector2d64 uv0, uv1;
        Float64 m0 = 0, m1 = 0, w = 1, s = 1;
        const Float64 v = 0.5 / t.height / t.repeat;
        const ClothYarn* y0 =
            ClothWeavePatternInterface::GetYarn(p.Get(), 0.0, v, &uv0, &m0, &w, &s, true, 1.0);
        const ClothYarn* y1 =
            ClothWeavePatternInterface::GetYarn(p.Get(), 1.0, v, &uv1, &m1, &w, &s, true, 1.0);
        EXPECT_EQ(y0, y1) << preset;
        EXPECT_NEAR(uv0.x, uv1.x, 1e-12);
        EXPECT_NEAR(uv0.y, uv1.y, 1e-12);
    }
}

TEST(ClothWeavePattern, PresetNumbersAndYarns) {
    struct Expect {
        Float64 ratio, warpArea, weftArea;
        Int yarns;
        Float64 warpUmax, weftUmax, warpPsi;
    };
    const Expect E[] = {{373, 5, 1, 8, 12, 38, -30}, {267, 6, 2, 10, 24, 36, -30},
                        {160, 1, 1, 4, 22, 16, 0},   {30, 9, 1, 14, 40, 60, 0},
                        {5, 8, 16, 5, 50, 23, 0},    {120, 12, 6, 7, 30, 30, 30}};
    for (UInt32 preset = 0; preset < CLOTH_PRESET_COUNT; ++preset) {
        ClothWeavePatternRef p = MakePattern(preset);
        const Expect& e = E[preset];
        EXPECT_EQ(ClothWeavePatternInterface::GetSpecularRatio(p.Get()), e.ratio);
        EXPECT_EQ(ClothWeavePatternInterface::GetWarpWeftArea(p.Get()),
                  (Vector2d64{e.warpArea, e.weftArea}));
        EXPECT_EQ(p->yarnCount, e.yarns);
        EXPECT_EQ(p->repeatU, static_cast<Float64>(TABLES[preset].repeat));
        EXPECT_EQ(p->yarns[0]->type, 0u);
        EXPECT_EQ(p->yarns[0]->umax, e.warpUmax * 0.017453292519943295);
        EXPECT_EQ(p->yarns[0]->psi, e.warpPsi * 0.017453292519943295);
        EXPECT_EQ(p->yarns[e.yarns - 1]->type, 1u);
        EXPECT_EQ(p->yarns[e.yarns - 1]->umax, e.weftUmax * 0.017453292519943295);
    }
    // Preset 0 yarn 2 wraps below the tile; preset 4 writes thirds with four digits.
    ClothWeavePatternRef p0 = MakePattern(0);
    EXPECT_EQ(p0->yarns[1]->centerV, -0.25);
    EXPECT_EQ(MakePattern(4)->yarns[3]->centerU, -0.1667);
    EXPECT_EQ(MakePattern(5)->yarns[0]->centerV, 0.667);
    const ClothWeavePatternRef p1 = MakePattern(1);
    const ClothYarn& y = *p1->yarns[6];  // weft: width 2, length 1
    EXPECT_EQ(y.halfWidth, 1.0);
    EXPECT_EQ(y.piOverWidth, PI / 2.0);
    EXPECT_EQ(y.twoOverLength, 2.0);
}

TEST(ClothWeavePattern, InitSetupClothAndGaps) {
    Result<ClothWeavePatternRef> made = ClothWeavePatternRef::Create();
    ASSERT_TRUE(made.IsOk());
    ClothWeavePatternImpl* p = made.GetValue().Get();
    // Constructor defaults.
    EXPECT_EQ(p->alpha, 0.01);
    EXPECT_EQ(p->beta, 4.0);
    EXPECT_EQ(p->tileWidth, 4);
    EXPECT_EQ(p->tileHeight, 8);
    EXPECT_EQ(p->yarnCount, 0);
    ASSERT_TRUE(ClothWeavePatternInterface::Init(p).IsOk());
    EXPECT_EQ(p->yarnCount, 10);
    EXPECT_EQ(p->specularRatio, 0.0);
    // With the repeats at zero every position falls on cell (0, 0): table row 7, yarn 1.
    Vector2d64 uv;
    Float64 m = 0, w = 1, s = 1;
    for (Float64 u : {0.1, 0.77, 5.0}) {
        EXPECT_EQ(ClothWeavePatternInterface::GetYarn(p, u, 0.4, &uv, &m, &w, &s, true, 1.0),
                  p->yarns[0]);
    }
    ClothWeavePatternInterface::SetupCloth(p, 3, 0.2, 5.0, 2.0, 0.5, 0.001, 0.3, 0.4, 5000.0);
    EXPECT_EQ(p->sampleCount, 0);  // quality 3 leaves the count
    EXPECT_EQ(p->smoothing, 0.99);
    EXPECT_EQ(p->intensityFineness, 0.1 / 0.01);
    EXPECT_EQ(p->variationScale, 0.01 / 1000.0);
    EXPECT_EQ(ClothWeavePatternInterface::GetScatteringCoefficients(p), (Vector2d64{0.2, 5.0}));
    const Int counts[] = {1, 4, 16, 64};
    for (Int32 q = -1; q <= 2; ++q) {
        ClothWeavePatternInterface::SetupCloth(p, q, 0.2, 5.0, 0.0, 0.0, 1.0, 0.0, 0.0, 1.0);
        EXPECT_EQ(ClothWeavePatternInterface::GetSampleCount(p), counts[q + 1]);
    }
    // Preset 6 does not exist: the yarns go, the table stays, every cell is a gap.
    EXPECT_TRUE(ClothWeavePatternInterface::SetupPattern(p, 6).IsOk());
    EXPECT_EQ(ClothWeavePatternInterface::GetYarn(p, 0.1, 0.1, &uv, &m, &w, &s, true, 1.0),
              nullptr);
    // An entry 0 and an entry beyond the yarns are gaps too.
    ASSERT_TRUE(ClothWeavePatternInterface::SetupPattern(p, 2).IsOk());
    p->pattern[0] = 0;  // top left: (x 0, y 1)
    p->pattern[1] = 9;  // top right
    const Float64 r = 1.0 / 80.0;
    EXPECT_EQ(ClothWeavePatternInterface::GetYarn(p, 0.25 * r, 0.75 * r, &uv, &m, &w, &s, true, 1),
              nullptr);
    EXPECT_EQ(ClothWeavePatternInterface::GetYarn(p, 0.75 * r, 0.75 * r, &uv, &m, &w, &s, true, 1),
              nullptr);
    EXPECT_NE(ClothWeavePatternInterface::GetYarn(p, 0.25 * r, 0.25 * r, &uv, &m, &w, &s, true, 1),
              nullptr);
    EXPECT_EQ(ClothWeavePatternInterface::GetYarn(p, NAN, 0.1, &uv, &m, &w, &s, true, 1), nullptr);
    // Null patterns answer zero.
    EXPECT_TRUE(ClothWeavePatternInterface::Init(nullptr).IsError());
    EXPECT_EQ(ClothWeavePatternInterface::GetSampleCount(nullptr), 0);
}

TEST(ClothWeavePattern, VariationAndWeightFollowTheNoiseAndTheFirstSampleIsKept) {
    ClothWeavePatternRef p = MakePattern(1);
    // warp variation 0.5, intensity variation 0.3, fineness 1 (kept as 0.1), scale 1 (0.01).
    ClothWeavePatternInterface::SetupCloth(p.Get(), 2, 0.01, 4.0, 0.0, 0.3, 1.0, 0.5, 0.0, 1.0);
    const Float64 u = 0.5 / 4 / 30, v = 0.5 / 8 / 30;  // cell (0, 0): table row 7, yarn 1 (warp)
    const ClothYarn* yarn = p->yarns[0];
    Vector2d64 uv;
    Float64 umax = 0, weight = 1.0, state = 1.0;
    const Float64 amount = 0.6;
    ASSERT_EQ(ClothWeavePatternInterface::GetYarn(p.Get(), u, v, &uv, &umax, &weight, &state, true,
                                                  amount),
              yarn);
    // Centre in cells: ((0 + 0.125) * 4, (0 + 0.375) * 8) = (0.5, 3); local (0, -2.5).
    const Float64 n = ClothTurbulence({0.5 * 0.01, 3.0 * 0.01, 0.0}, 4.0, false);
    const Float64 s = std::clamp(2.0 * n * 0.5, -0.9, 1.0) * amount;
    EXPECT_EQ(state, s);
    EXPECT_EQ(umax, yarn->umax * s + yarn->umax);
    EXPECT_EQ(uv.x, -2.5 * umax * (2.0 / 6.0));
    EXPECT_EQ(uv.y, 0.0 * PI);
    const Float64 t = ClothTurbulence({0.5 * 0.1, 0.5 * 0.1, 0.0}, 4.0, true);
    const Float64 q = std::clamp(t * 1.2, 0.01, 1.0);
    EXPECT_EQ(weight, std::min(-std::log(q), 8.0) * (0.3 * amount) + (1.0 - 0.3 * amount));
    // A later sample reads the kept variation and leaves the weight.
    Float64 umax2 = 0, weight2 = 7.0, kept = 0.25;
    ClothWeavePatternInterface::GetYarn(p.Get(), u, v, &uv, &umax2, &weight2, &kept, false, amount);
    EXPECT_EQ(umax2, yarn->umax * 0.25 + yarn->umax);
    EXPECT_EQ(weight2, 7.0);
}

TEST(ClothYarn, BesselI0MatchesTheIntegralOverTheCircle) {
    for (Float64 b : {0.0, 0.5, 2.0, 3.75, 3.7500001, 6.0, 20.0, 80.0}) {
        // I0(b) = 1/(2 pi) * integral of exp(b cos t) over the circle (midpoint rule, exact to
        // rounding for a periodic integrand).
        constexpr int N = 4000;
        Float64 sum = 0.0;
        for (int k = 0; k < N; ++k) sum += std::exp(b * std::cos((k + 0.5) * 2.0 * PI / N));
        const Float64 i0 = sum / N;
        // The fit is good to 1.6e-7 relative below 3.75 and 1.9e-7 of exp(b) / sqrt(b) above.
        EXPECT_NEAR(ClothYarn::BesselI0(b) / i0, 1.0, b <= 3.75 ? 2e-7 : 5e-7) << b;
        EXPECT_EQ(ClothYarn::BesselI0(-b), ClothYarn::BesselI0(b));
    }
    // The lobe flattens above x = 0.5.
    EXPECT_EQ(ClothYarn::VonMises(0.9, 4.0), ClothYarn::VonMises(0.5, 4.0));
    EXPECT_NEAR(ClothYarn::VonMises(-1.0, 4.0), std::exp(-4.0) / (2 * PI * 11.301921952136330),
                1e-9);
}

TEST(ClothYarn, RadiusOfCurvatureOnEachBranch) {
    // c = 1 + kappa (1 + 1 / tan umax); r = width / 2, L = length / 2.
    // kappa 0: c = 1, the radius L / sin(umax) - r at every u.
    const ClothYarn flat(0, 0, 30, 0.0, 2, 6, 0, 0);
    EXPECT_NEAR(flat.RadiusOfCurvature(0.3, flat.umax), 3.0 / 0.5 - 1.0, 1e-12);
    // kappa 2, umax 40 degrees: c > 0. At u = 0, w = 0 and the radius is A^3 / (A B) = A c,
    // with A = (L - r sin umax) / sin(atan(c tan umax)).
    const ClothYarn stiff(0, 0, 40, 2.0, 1, 9, 0, 0);
    const Float64 um = 40.0 * PI / 180.0;
    const Float64 c1 = 1.0 + 2.0 * (1.0 + 1.0 / std::tan(um));
    const Float64 a1 = (4.5 - 0.5 * std::sin(um)) /
                       (c1 * std::tan(um) / std::sqrt(1.0 + c1 * c1 * std::tan(um) * std::tan(um)));
    EXPECT_NEAR(stiff.RadiusOfCurvature(0.0, stiff.umax) / (a1 * c1), 1.0, 1e-12);
    // kappa -0.7, umax 22 degrees: c < 0 and y = c tan umax lies in (-1, 1), z = atanh(y).
    // At u = 0, w = 0: the radius is -A^3 / (A B) = -A c, A = (L - r sin umax) / sinh(-z).
    const ClothYarn soft(0, 0, 22, -0.7, 1, 1, 0, 0);
    const Float64 u2 = 22.0 * PI / 180.0;
    const Float64 c2 = 1.0 - 0.7 * (1.0 + 1.0 / std::tan(u2));
    const Float64 y2 = c2 * std::tan(u2);
    ASSERT_GT(y2, -1.0);
    const Float64 a2 = (0.5 - 0.5 * std::sin(u2)) / std::sinh(-std::atanh(y2));
    EXPECT_NEAR(soft.RadiusOfCurvature(0.0, soft.umax) / (-a2 * c2), 1.0, 1e-12);
    // Off u = 0 the c < 0 radius grows with cosh and sinh of w = -atan(c tan u).
    const Float64 w = -std::atan(c2 * std::tan(0.2));
    const Float64 b2 = a2 / c2;
    const Float64 expected =
        -std::pow(a2 * a2 * std::cosh(w) * std::cosh(w) + b2 * b2 * std::sinh(w) * std::sinh(w),
                  1.5) /
        (a2 * b2);
    EXPECT_NEAR(soft.RadiusOfCurvature(0.2, soft.umax) / expected, 1.0, 1e-12);
    // c = 0: tan umax = 0.25 and kappa = -0.2 make 1 + kappa (1 + 4) exactly 0. The radius is
    // (1 + tan^2 u)^1.5 * 2 D with D = (L - r sin umax) / (2 - tan umax).
    const Float64 u3 = std::atan(0.25);
    ASSERT_EQ(std::tan(u3), 0.25);
    ASSERT_EQ(1.0 + -0.2 * (1.0 + 1.0 / 0.25), 0.0);
    const ClothYarn zero(0, 0, 10, -0.2, 1, 4, 0, 0);
    const Float64 d3 = (2.0 - 0.5 * std::sin(u3)) / 1.75;
    EXPECT_NEAR(zero.RadiusOfCurvature(0.0, u3), 2.0 * d3, 1e-12);
    EXPECT_NEAR(zero.RadiusOfCurvature(0.5, u3),
                std::pow(1.0 + std::tan(0.5) * std::tan(0.5), 1.5) * 2.0 * d3, 1e-12);
    // The cached terms of the yarn's own umax give the same bits as a fresh computation.
    const ClothWeavePatternRef p3 = MakePattern(3);
    const ClothYarn& warp = *p3->yarns[0];
    // A yarn with another own umax takes the general path for this one.
    const ClothYarn other(0, 0, 41, 2.0, 1, 9, 0, 0);
    for (Float64 u : {0.0, 0.1, 0.3, 0.6}) {
        EXPECT_EQ(warp.RadiusOfCurvature(u, warp.umax), other.RadiusOfCurvature(u, warp.umax));
    }
}

TEST(ClothYarn, FilamentAndStapleAtNormalIncidenceByHand) {
    // wo = wi = n: h = (0, 0, 1), |wo + wi| = 2, uh = 0; at uv = (0, 0) the yarn normal and m
    // are (0, 0, 1) and d = 1. With kappa 0 the radius is L / sin(umax) - r = 3 / 0.5 - 1 = 5
    // (width 2, length 6, umax 30 degrees).
    // Filament: G = r (r cos v + R) / (len |d|) = 1 (1 + 5) / 2 = 3; Seeliger with both cosines
    // 1: 1 / (4 pi) / 2 = 1 / (8 pi); the lobe exp(-b) / (2 pi I0(b)) at x = -1. The value is
    // S G (a + lobe) pi / blur = 3 (a + lobe) / (8 blur).
    const Vector64 n{0, 0, 1};
    const Float64 a = 0.01, b = 4.0, blur = 0.5;
    const Float64 lobe = std::exp(-b) / (2.0 * PI * ClothYarn::BesselI0(b));
    const ClothYarn filament(0, 0, 30, 0.0, 2, 6, 0, 0);
    EXPECT_NEAR(filament.EvaluateFilament(n, n, {0, 0}, {a, b}, filament.umax, blur, 0.0),
                3.0 * (a + lobe) / (8.0 * blur), 1e-14);
    // Staple, psi 30 degrees, u = 0: A = 1, B = 0, E = 0, vh = atan2(-1, 0) + acos(0) = 0, the
    // normal (0, 0, 1). num = r (r cos vh + R) = 6, den = |sin psi| len max(n.h, 0.1) = 1.
    // value = 6 (a + lobe) / (8 pi), and the result 2 value umax / blur.
    const ClothYarn staple(0, 30, 30, 0.0, 2, 6, 0, 0);
    const Float64 umax = 30.0 * PI / 180.0;
    EXPECT_NEAR(staple.EvaluateStaple(n, n, {0, 0}, {a, b}, staple.umax, blur),
                2.0 * (6.0 * (a + lobe) / (8.0 * PI)) * umax / blur, 1e-14);
    // Outside the lobe of the yarn (|uh - u| >= umax blur) the filament gives 0.
    EXPECT_EQ(filament.EvaluateFilament(n, n, {0.3, 0}, {a, b}, filament.umax, blur, 0.0), 0.0);
    // kappa below -1 gives 0 on both.
    const ClothYarn broken(0, 30, 30, -1.5, 2, 6, 0, 0);
    EXPECT_EQ(broken.EvaluateStaple(n, n, {0, 0}, {a, b}, broken.umax, blur), 0.0);
    EXPECT_EQ(broken.EvaluateFilament(n, n, {0, 0}, {a, b}, broken.umax, blur, 0.0), 0.0);
}

TEST(ClothYarn, WeftIsWarpOnDirectionsTurnedAboutZTimesTheAreaRatio) {
    for (UInt32 preset : {2u, 5u}) {  // filament and staple yarns
        ClothWeavePatternRef p = MakePattern(preset);
        const ClothYarn& weft = *p->yarns[p->yarnCount - 1];
        ASSERT_EQ(weft.type, 1u);
        const Vector2d64 areas = ClothWeavePatternInterface::GetWarpWeftArea(p.Get());
        BSDFRandom r;
        r.Seed(3);
        Int nonZero = 0;
        for (int i = 0; i < 2000; ++i) {
            const Float64 t1 = r.Next() * 1.4, p1 = r.Next() * 2 * PI;
            const Float64 t2 = r.Next() * 1.4, p2 = r.Next() * 2 * PI;
            const Vector64 wo{std::sin(t1) * std::cos(p1), std::sin(t1) * std::sin(p1),
                              std::cos(t1)};
            const Vector64 wi{std::sin(t2) * std::cos(p2), std::sin(t2) * std::sin(p2),
                              std::cos(t2)};
            const Vector2d64 uv{(r.Next() - 0.5) * weft.umax, (r.Next() - 0.5) * 2.0};
            const Vector64 o{-wo.y, wo.x, wo.z}, in{-wi.y, wi.x, wi.z};
            const Float64 plain =
                weft.psi == 0.0 ? weft.EvaluateFilament(o, in, uv, {0.01, 4.0}, weft.umax, 0.5, 0.0)
                                : weft.EvaluateStaple(o, in, uv, {0.01, 4.0}, weft.umax, 0.5);
            const Float64 v = weft.Evaluate(wo, wi, uv, {0.01, 4.0}, areas, weft.umax, 0.5, 0.0);
            EXPECT_EQ(v, plain * (areas.x + areas.y) / areas.y);
            nonZero += v > 0.0;
        }
        EXPECT_GT(nonZero, 20) << preset;
    }
}

TEST(ClothWeavePattern, SpecularRatioOfZeroDirectionsIsZero) {
    for (UInt32 preset = 0; preset < CLOTH_PRESET_COUNT; ++preset) {
        ClothWeavePatternRef p = MakePattern(preset);
        ClothWeavePatternInterface::ComputeSpecularRatio(p.Get());
        // Every term is 0 * inf or 0: the sum is NaN or 0, not positive.
        EXPECT_EQ(ClothWeavePatternInterface::GetSpecularRatio(p.Get()), 0.0) << preset;
    }
}

// ---- the cloth class ----------------------------------------------------------------------

struct Cloth {
    IrawanBRDFImpl bsdf;
    IrawanInitData data;
};

void InitCloth(Cloth& c, UInt32 preset, Int32 quality, Color64 specular, Vector64 delta = {}) {
    c.data.warpDiffuse = {0.2, 0.3, 0.4};
    c.data.weftDiffuse = {0.5, 0.1, 0.05};
    c.data.warpSpecular = specular;
    c.data.weftSpecular = {specular.b, specular.g, specular.r};
    c.data.uvw = {0.013, 0.021, 0.0};
    c.data.uvwDelta = delta;
    c.data.rotation = 0.3;
    c.data.scaleU = 1.0;
    c.data.scaleV = 2.0;
    c.data.blur = 0.5;
    c.data.pattern = MakePattern(preset, quality);
    ASSERT_TRUE(c.bsdf.Init(DataDictionary(), &c.data).IsOk());
}

TEST(IrawanBRDF, InitClampsAndReportsItsErrors) {
    IrawanBRDFImpl b;
    EXPECT_EQ(b.random.state, 100u);
    Result<void> r = b.Init(DataDictionary(), nullptr);
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message,
                 "Illegal argument: Illegal state in IrawanBSDF::Init. data is nullptr");
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
    IrawanInitData d;
    d.rotation = 0.5;
    d.scaleU = 1e6;
    d.scaleV = 0.0;
    d.blur = 5.0;
    r = b.Init(DataDictionary(), &d);
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message,
                 "Illegal argument: Illegal state in IrawanBSDF::Init. _clothPattern is nullptr");
    // The state changed before the pattern was checked.
    EXPECT_EQ(b.rotation, 0.5);
    EXPECT_EQ(b.invScaleU, 1.0 / 1000.0);
    EXPECT_EQ(b.invScaleV, 1.0 / 0.001);
    EXPECT_EQ(b.blur, 1.0);
    d.pattern = MakePattern(1);
    EXPECT_TRUE(b.Init(DataDictionary(), &d).IsOk());
    EXPECT_TRUE(b.pattern);
    EXPECT_TRUE(b.Reset().IsOk());
    EXPECT_FALSE(b.pattern);
    EXPECT_EQ(b.invScaleU, 0.0);
    EXPECT_EQ(b.invScaleV, 1.0 / 0.001);  // Reset leaves it
    // Without a pattern the value is zero.
    Float64 pdf;
    EXPECT_EQ(b.ComputeBSDF({0, 0, 1}, {0, 0.6, 0.8}, {0, 0.6, 0.8}, pdf), (Color64{0, 0, 0}));
}

TEST(IrawanBRDF, ZeroSpecularGivesTheDiffuseColourOnYarnsAndGapsDivide) {
    Cloth c;
    InitCloth(c, 2, -1, {0, 0, 0});
    // One sample (n = 1: truncation of 1 / 4.25 is 0), at the stored position: the colour of
    // the yarn there.
    const Vector64 wo{0.3, 0.1, 0.9}, wi{-0.2, 0.4, 0.8};
    Vector2d64 uv;
    Float64 m, w = 1, s = 1;
    const Float64 a = 0.013, b = 0.021, cr = std::cos(0.3), sr = std::sin(0.3);
    const ClothYarn* yarn = ClothWeavePatternInterface::GetYarn(
        c.data.pattern.Get(), cr * a - sr * b, (cr * b + sr * a) * 0.5, &uv, &m, &w, &s, true, 1.0);
    ASSERT_NE(yarn, nullptr);
    const Color64 f = c.bsdf.ComputeF_UVW(wo, wi, c.data.uvw, {});
    EXPECT_EQ(f, yarn->type == 0 ? c.data.warpDiffuse : c.data.weftDiffuse);

    // Half the tile a gap (column x = 1), a footprint of many tiles and 64 samples: the value
    // is the diffuse colour times the share of samples on a yarn. The samples are replayed
    // here from the raw state 100 of a fresh object.
    Cloth g;
    InitCloth(g, 2, 2, {0, 0, 0});
    g.data.warpDiffuse = g.data.weftDiffuse = {1.0, 0.5, 0.25};
    g.data.rotation = 0.0;
    g.data.scaleV = 1.0;
    ASSERT_TRUE(g.bsdf.Init(DataDictionary(), &g.data).IsOk());
    ClothWeavePatternImpl* p = g.data.pattern.Get();
    p->pattern[1] = 0;
    p->pattern[3] = 0;
    const Vector64 at{0.3, 0.7, 0}, delta{0.05, 0.05, 0};
    // w = min(5e-5 / (2 * 0.0025 + 1e-10), 1) = 0.01; count = truncation of 64 / 0.29 = 220.
    const Float64 wv = std::min(5e-05 / (0.05 * 0.05 + 0.05 * 0.05 + 1e-10), 1.0);
    const Int count = static_cast<Int>(64.0 / (wv * 4.0 + 0.25));
    EXPECT_EQ(count, 220);
    Raw raw{100};
    Int onYarn = 0;
    for (Int k = 0; k <= count; ++k) {
        Float64 r1 = 2.0 * raw.Next() - 1.0, r2 = 2.0 * raw.Next() - 1.0;
        // (2 state / (2^31 + 1) - 1: the same number as 2 r - 1 up to rounding; the cell test
        // below is far from any border for these footprints.)
        if (k == 0) r1 = r2 = 0.0;
        const Float64 u = (at.x + r1 * 0.05 * 0.75) * 80.0;
        const Int x = static_cast<Int>(std::floor((u - std::floor(u)) * 2.0));
        onYarn += x == 0;
    }
    const Color64 v = g.bsdf.ComputeF_UVW(wo, wi, at, delta);
    EXPECT_NEAR(v.r, static_cast<Float64>(onYarn) / (count + 1), 1e-12);
    EXPECT_NEAR(v.b, 0.25 * onYarn / (count + 1), 1e-12);
    EXPECT_GT(onYarn, 50);
    EXPECT_LT(onYarn, 170);
    // All gaps: black, not even a diffuse part.
    ASSERT_TRUE(ClothWeavePatternInterface::SetupPattern(p, 6).IsOk());
    EXPECT_EQ(g.bsdf.ComputeF_UVW(wo, wi, at, delta), (Color64{0, 0, 0}));
}

TEST(IrawanBRDF, OneSampleValueIsReciprocalBitForBit) {
    for (UInt32 preset = 0; preset < CLOTH_PRESET_COUNT; ++preset) {
        Cloth c;
        InitCloth(c, preset, -1, {1.0, 0.8, 0.6});
        ClothWeavePatternInterface::SetupCloth(c.data.pattern.Get(), -1, 0.01, 4.0, 0.2, 0.4, 2.0,
                                               0.5, 0.5, 2.0);
        BSDFRandom r;
        r.Seed(11 + preset);
        Int positive = 0;
        for (int i = 0; i < 500; ++i) {
            const Vector64 wo = Normalize({r.Next() - 0.5, r.Next() - 0.5, r.Next()});
            const Vector64 wi = Normalize({r.Next() - 0.5, r.Next() - 0.5, r.Next()});
            const Vector64 at{r.Next(), r.Next(), 0.0};
            const Color64 a = c.bsdf.ComputeF_UVW(wo, wi, at, {});
            const Color64 b = c.bsdf.ComputeF_UVW(wi, wo, at, {});
            EXPECT_EQ(std::memcmp(&a, &b, sizeof(a)), 0) << preset << " " << i;
            positive += a.r > 0.3;  // more than the diffuse part
        }
        EXPECT_GT(positive, 10) << preset;
    }
}

TEST(IrawanBRDF, TwoObjectsInOneStateSampleWhatTheOtherEvaluates) {
    Cloth a, b;
    InitCloth(a, 1, 1, {1.0, 1.0, 1.0}, {0.002, 0.001, 0.0});
    InitCloth(b, 1, 1, {1.0, 1.0, 1.0}, {0.002, 0.001, 0.0});
    b.data.pattern = a.data.pattern;
    ASSERT_TRUE(b.bsdf.Init(DataDictionary(), &b.data).IsOk());
    BSDFRandom r;
    r.Seed(BSDF_RANDOM_SEED);
    for (int i = 0; i < 300; ++i) {
        const Vector64 wo = Normalize({0.3, -0.2, 0.5 + 0.001 * i});
        Vector64 wi;
        Float64 pa, pb;
        const Color64 fa = a.bsdf.SampleF(wo, {0, 0, 1}, r.NextSample(), wi, pa);
        const Color64 fb = b.bsdf.ComputeBSDF(wo, wi, wi, pb);
        EXPECT_EQ(fa, fb) << i;
        EXPECT_EQ(pa, pb) << i;
        EXPECT_EQ(a.bsdf.random.state, b.bsdf.random.state);
    }
}

// The preview: n = width, wo on the diagonal, wi the normal, footprint 0.0002, pixel (x, y) at
// (x / n * 0.1, y / n * 0.1), red times the gain, in rows; a twin object in the same state
// computes what each pixel must hold, and the host's handler converts grey into the image's
// format. A picture less high than wide fails at its first row past the height.
TEST(IrawanBRDF, PreviewDrawsThroughTheHostImage) {
    for (const char* format : {"grey.f32", "rgb.f32"}) {
        Cloth a, b;
        InitCloth(a, 2, 4, {0.8, 0.6, 0.4});
        InitCloth(b, 2, 4, {0.8, 0.6, 0.4});
        b.data.pattern = a.data.pattern;
        ASSERT_TRUE(b.bsdf.Init(DataDictionary(), &b.data).IsOk());
        const Int n = 9;
        const PixelFormatObject* f = FindPixelFormat(format);
        ASSERT_NE(f, nullptr);
        Result<ImageObject*> created =
            ImageInterface::Create(imageids::IMAGECLASS_IMAGE, imageids::STORAGE_NORMAL, n, n, f);
        ASSERT_TRUE(created.IsOk()) << ErrorToString(created.GetErrorPointer());
        Ref<ImageObject> image = Ref<ImageObject>::Adopt(created.GetValue());
        ASSERT_TRUE(a.bsdf.GeneratePreviewImage(image.Get(), 2.5).IsOk());
        Ref<PixelReadHandler> read =
            Ref<PixelReadHandler>::Adopt(ImageInterface::GetPixelHandler(image.Get(), f, nullptr).GetValue());
        const int channels = std::string(format) == "rgb.f32" ? 3 : 1;
        std::vector<Float32> row(static_cast<size_t>(n * channels));
        int lit = 0;
        for (Int y = 0; y < n; ++y) {
            read->read(read.Get(), 0, y, n, row.data());
            for (Int x = 0; x < n; ++x) {
                const Vector64 at{static_cast<Float64>(x) / 9.0 * 0.1, static_cast<Float64>(y) / 9.0 * 0.1, 0.0};
                const Float32 want = static_cast<Float32>(
                    b.bsdf.ComputeF_UVW({0.5773502691896258, 0.5773502691896258, 0.5773502691896258},
                                        {0, 0, 1}, at, {0.0002, 0.0002, 0.0}).r * 2.5);
                for (int c = 0; c < channels; ++c) EXPECT_EQ(row[static_cast<size_t>(x * channels + c)], want) << format << " " << x << "," << y;
                lit += want > 0.0f;
            }
        }
        EXPECT_GT(lit, n * n / 4) << "most of the swatch lies on yarns";
    }
    Cloth c;
    InitCloth(c, 2, 1, {0.8, 0.6, 0.4});
    Result<ImageObject*> wide = ImageInterface::Create(imageids::IMAGECLASS_IMAGE, imageids::STORAGE_NORMAL, 8,
                                                       5, FindPixelFormat("grey.f32"));
    ASSERT_TRUE(wide.IsOk());
    Ref<ImageObject> image = Ref<ImageObject>::Adopt(wide.GetValue());
    Result<void> r = c.bsdf.GeneratePreviewImage(image.Get(), 1.0);
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message,
                 "IrawanBSDF::GeneratePreviewImage: row 5 is outside the image of 5 rows");
    EXPECT_STREQ(c.bsdf.GeneratePreviewImage(nullptr, 1.0).GetErrorPointer()->message,
                 "IrawanBSDF::GeneratePreviewImage: image is nullptr");
}

// The staple term has the factor r (r cos vh + R), and vh may lie up to blur * pi / 2 beyond
// the yarn's v: preset 1's weft (width 2, length 1) has a negative radius, L / sin(umax) - r =
// 0.5 / sin(36 degrees) - 1, and preset 5's weft (r 1.5, R 0.5) goes below zero where cos vh <
// -1/3. Nothing in the model clamps that; the other presets stay at or above zero.
TEST(IrawanBRDF, FiniteAndNotNegativeOnRandomAndHostilePairs) {
    const ClothWeavePatternRef p1 = MakePattern(1);
    const ClothYarn& weft = *p1->yarns[6];
    EXPECT_LT(weft.RadiusOfCurvature(0.0, weft.umax), 0.0);
    std::vector<Vector64> dirs = {{0, 0, 1},      {0, 0, -1},     {1, 0, 0},     {0, 1, 0},
                                  {0, 0, 0},      {1e-300, 0, 1}, {0.6, 0.8, 0}, {0, 0, 1e-12},
                                  {-0.6, 0, 0.8}, {0.6, 0, 0.8}};
    BSDFRandom r;
    r.Seed(5);
    for (int i = 0; i < 60; ++i) {
        dirs.push_back(Normalize({r.Next() - 0.5, r.Next() - 0.5, r.Next() - 0.5}));
    }
    for (UInt32 preset = 0; preset < CLOTH_PRESET_COUNT; ++preset) {
        Cloth c;
        InitCloth(c, preset, 1, {1.0, 0.5, 0.2}, {0.001, 0.003, 0});
        ClothWeavePatternInterface::SetupCloth(c.data.pattern.Get(), 1, 0.01, 4.0, 0.5, 1.0, 0.5,
                                               1.0, 1.0, 0.5);
        for (const Vector64& wo : dirs) {
            for (const Vector64& wi : dirs) {
                Float64 pdf;
                const Color64 f = c.bsdf.ComputeBSDF(wo, wi, wi, pdf);
                // The yarn term of a zero half vector is 0 * inf by design (what makes the
                // specular ratio of zero directions 0.0); SampleF and ComputeBSDF never get there.
                const bool zeroSum =
                    wo.x + wi.x == 0.0 && wo.y + wi.y == 0.0 && std::fabs(wo.z) == std::fabs(wi.z);
                const Color64 g = zeroSum
                                      ? Color64{}
                                      : c.bsdf.ComputeF_UVW(wo, wi, {r.Next() * 3, -r.Next(), 0},
                                                            {r.Next() * 0.01, 0.0, 0});
                for (Float64 x : {f.r, f.g, f.b, g.r, g.g, g.b, pdf}) {
                    ASSERT_TRUE(std::isfinite(x) && (x >= 0.0 || preset == 1 || preset == 5))
                        << preset << " wo " << wo.x << "," << wo.y << "," << wo.z << " wi " << wi.x
                        << "," << wi.y << "," << wi.z << ": " << x;
                }
            }
        }
    }
}

TEST(IrawanBRDF, ManyThreadsOnOneObject) {
    Cloth c;
    InitCloth(c, 3, 2, {1, 1, 1}, {0.001, 0.001, 0});
    std::vector<std::thread> threads;
    std::atomic<int> bad{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            BSDFRandom r;
            r.Seed(static_cast<UInt32>(t));
            for (int i = 0; i < 200; ++i) {
                Vector64 wi;
                Float64 pdf;
                const Color64 f =
                    c.bsdf.SampleF({0.2, 0.1, 0.97}, {0, 0, 1}, r.NextSample(), wi, pdf);
                if (!std::isfinite(f.r) || f.r < 0.0) bad.fetch_add(1);
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
}  // namespace quorv
