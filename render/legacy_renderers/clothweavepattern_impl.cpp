// ClothWeavePatternImpl: the six presets as one table read by one builder, the warp and weft
// yarns and their specular term, and the static interface
// "net.quorv.render.interface.clothweavepattern".
#include "render/legacy_renderers/clothweavepattern_impl.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "quorv/services.h"
#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/bsdf_math.h"
#include "render/legacy_renderers/clothnoise.h"

namespace quorv {

namespace {

constexpr Float64 DEGREES = 0.017453292519943295;

// ---- curvature -------------------------------------------------------------------------------

// The terms of RadiusOfCurvature that depend on umax alone. One function computes them for a
// call and for a yarn's own umax, so the cached path is the same arithmetic.
struct CurvatureTerms {
    Float64 c;
    Float64 a;  // A; the whole result for c = 1; D for c = 0
    Float64 b;  // B
};

CurvatureTerms TermsOf(Float64 kappa, Float64 halfWidth, Float64 halfLength, Float64 umax) {
    const Float64 tanUmax = std::tan(umax);
    const Float64 c = 1.0 + kappa * (1.0 + 1.0 / tanUmax);
    const Float64 r = halfWidth;
    const Float64 l = halfLength;
    if (c == 1.0) return {c, l / std::sin(umax) - r, 0.0};
    if (c > 0.0) {
        const Float64 a = (l - r * std::sin(umax)) / std::sin(std::atan(tanUmax * c));
        return {c, a, a / c};
    }
    if (c < 0.0) {
        const Float64 y = tanUmax * c;
        const Float64 z =
            y <= -1.0 ? -4.0 : (y > 1.0 ? 4.0 : 0.5 * std::log((y + 1.0) / (1.0 - y)));
        const Float64 a = (l - r * std::sin(umax)) / std::sinh(-z);
        return {c, a, a / c};
    }
    return {c, (l - r * std::sin(umax)) / (2.0 - tanUmax), 0.0};
}

Float64 CurvatureAt(const CurvatureTerms& t, Float64 u) {
    const Float64 c = t.c;
    if (c == 1.0) return t.a;
    if (c > 0.0) {
        const Float64 w = std::atan(c * std::tan(u));
        const Float64 cw = std::cos(w), sw = std::sin(w);
        return std::pow(t.a * t.a * (cw * cw) + t.b * t.b * (sw * sw), 1.5) / (t.a * t.b);
    }
    if (c < 0.0) {
        const Float64 w = -std::atan(c * std::tan(u));
        const Float64 cw = std::cosh(w), sw = std::sinh(w);
        return -std::pow(t.a * t.a * (cw * cw) + t.b * t.b * (sw * sw), 1.5) / (t.a * t.b);
    }
    const Float64 tu = std::tan(u);
    return std::pow(1.0 + tu * tu, 1.5) * 2.0 * t.a;
}

Float64 Seeliger(const Vector64& n, const Vector64& wo, const Vector64& wi) {
    const Float64 p = std::max(Dot(n, wi), 0.0);
    const Float64 q = std::max(Dot(n, wo), 0.0);
    if (p == 0.0 || q == 0.0) return 0.0;
    return p * q * BSDF_INV_4PI / (p + q);
}

// ---- the two kinds of yarn -------------------------------------------------------------------

class WarpYarn final : public ClothYarn {
public:
    using ClothYarn::ClothYarn;
    void GetUV(const ClothWeavePatternImpl& pattern, const Vector2d64& centre,
               const Vector2d64& local, Vector2d64* uvOut, Float64* umaxOut,
               Float64* variationState, Bool useVariation, Float64 amount) const override;
    Float64 Evaluate(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                     const Vector2d64& scattering, const Vector2d64& areas, Float64 umaxIn,
                     Float64 blur, Float64 smoothing) const override;
};

class WeftYarn final : public ClothYarn {
public:
    using ClothYarn::ClothYarn;
    void GetUV(const ClothWeavePatternImpl& pattern, const Vector2d64& centre,
               const Vector2d64& local, Vector2d64* uvOut, Float64* umaxOut,
               Float64* variationState, Bool useVariation, Float64 amount) const override;
    Float64 Evaluate(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                     const Vector2d64& scattering, const Vector2d64& areas, Float64 umaxIn,
                     Float64 blur, Float64 smoothing) const override;
};

// The varied half angle: the first sample of a footprint draws it from the noise at the yarn's
// centre, the others reuse it.
Float64 VariedUmax(Float64 umax, Float64 variation, const ClothWeavePatternImpl& pattern,
                   const Vector2d64& centre, Float64* variationState, Bool useVariation,
                   Float64 amount) {
    Float64 m = umax;
    if (pattern.variationScale > 0.0 && amount > 0.0 && variation > 0.0) {
        Float64 s;
        if (useVariation) {
            const Vector64 p{centre.x * pattern.variationScale, centre.y * pattern.variationScale,
                             0.0 * pattern.variationScale};
            const Float64 n = ClothTurbulence(p, 4.0, false);
            s = std::clamp(2.0 * n * variation, -0.9, 1.0) * amount;
            *variationState = s;
        } else {
            s = *variationState;
        }
        m = umax * s + m;
    }
    return m;
}

void WarpYarn::GetUV(const ClothWeavePatternImpl& pattern, const Vector2d64& centre,
                     const Vector2d64& local, Vector2d64* uvOut, Float64* umaxOut,
                     Float64* variationState, Bool useVariation, Float64 amount) const {
    const Float64 m = VariedUmax(umax, pattern.warpVariation, pattern, centre, variationState,
                                 useVariation, amount);
    *umaxOut = m;
    *uvOut = {local.y * m * twoOverLength, local.x * piOverWidth};
}

void WeftYarn::GetUV(const ClothWeavePatternImpl& pattern, const Vector2d64& centre,
                     const Vector2d64& local, Vector2d64* uvOut, Float64* umaxOut,
                     Float64* variationState, Bool useVariation, Float64 amount) const {
    const Float64 m = VariedUmax(umax, pattern.weftVariation, pattern, centre, variationState,
                                 useVariation, amount);
    *umaxOut = m;
    *uvOut = {local.x * m * twoOverLength, piOverWidth * -local.y};
}

Float64 WarpYarn::Evaluate(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                           const Vector2d64& scattering, const Vector2d64& areas, Float64 umaxIn,
                           Float64 blur, Float64 smoothing) const {
    const Float64 r = psi == 0.0 ? EvaluateFilament(wo, wi, uv, scattering, umaxIn, blur, smoothing)
                                 : EvaluateStaple(wo, wi, uv, scattering, umaxIn, blur);
    return r * (areas.x + areas.y) / areas.x;
}

Float64 WeftYarn::Evaluate(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                           const Vector2d64& scattering, const Vector2d64& areas, Float64 umaxIn,
                           Float64 blur, Float64 smoothing) const {
    // x and y swapped, then the new x negated: the weft runs across the warp. The caller's
    // vectors stay as they are.
    const Vector64 o{-wo.y, wo.x, wo.z};
    const Vector64 i{-wi.y, wi.x, wi.z};
    const Float64 r = psi == 0.0 ? EvaluateFilament(o, i, uv, scattering, umaxIn, blur, smoothing)
                                 : EvaluateStaple(o, i, uv, scattering, umaxIn, blur);
    return r * (areas.x + areas.y) / areas.y;
}

// ---- presets ---------------------------------------------------------------------------------

struct YarnGroup {
    Int first;  // 1-based, inclusive
    Int last;
    UInt32 type;
    Float64 psi;
    Float64 umax;
    Float64 kappa;
    Float64 width;
    Float64 length;
};

struct Preset {
    Float64 specularRatio;
    Float64 repeat;
    Float64 warpArea;
    Float64 weftArea;
    Int width;
    Int height;
    Int yarnCount;
    Int32 table[60];
    YarnGroup groups[2];
    Float64 centres[14][2];
};

// Tables top row first. Centres outside 0..1 are yarns that wrap round the tile; presets 0
// and 4 write thirds with four digits where preset 5 has three, and so do we.
const Preset PRESETS[CLOTH_PRESET_COUNT] = {
    {373,
     30,
     5,
     1,
     3,
     6,
     8,
     {1, 3, 8, 1, 3, 5, 1, 7, 5, 1, 4, 5, 6, 4, 5, 2, 4, 5},
     {{1, 5, 0, -30, 12, 0, 1, 5}, {6, 8, 1, -30, 38, 0, 1, 1}},
     {{0.1667, 0.75},
      {0.1667, -0.25},
      {0.5, 1.0833},
      {0.5, 0.0833},
      {0.8333, 0.4167},
      {0.1667, 0.25},
      {0.5, 0.5833},
      {0.8333, 0.9167}}},
    {267,
     30,
     6,
     2,
     4,
     8,
     10,
     {7, 2, 4, 6, 7, 2, 4, 6, 1, 8, 4, 6,  1, 8, 4, 6,
      1, 3, 9, 6, 1, 3, 9, 6, 1, 3, 5, 10, 1, 3, 5, 10},
     {{1, 6, 0, -30, 24, 0, 1, 6}, {7, 10, 1, -30, 36, 0, 2, 1}},
     {{0.125, 0.375},
      {0.375, 1.125},
      {0.375, 0.125},
      {0.625, 0.875},
      {0.625, -0.125},
      {0.875, 0.625},
      {0.125, 0.875},
      {0.375, 0.625},
      {0.625, 0.375},
      {0.875, 0.125}}},
    {160,
     80,
     1,
     1,
     2,
     2,
     4,
     {3, 2, 1, 4},
     {{1, 2, 0, 0, 22, -0.7, 1, 1}, {3, 4, 1, 0, 16, -0.7, 1, 1}},
     {{0.25, 0.25}, {0.75, 0.75}, {0.25, 0.75}, {0.75, 0.25}}},
    {30,
     40,
     9,
     1,
     5,
     10,
     14,
     {10, 2, 4, 6, 8, 1, 2, 4, 6, 8,  1, 2, 4, 13, 8, 1, 2, 4,  7, 8, 1, 11, 4, 7, 8,
      1,  3, 4, 7, 8, 1, 3, 4, 7, 14, 1, 3, 4, 7,  9, 1, 3, 12, 7, 9, 1, 3,  5, 7, 9},
     {{1, 9, 0, 0, 40, 2, 1, 9}, {10, 14, 1, 0, 60, 0, 1, 1}},
     {{0.1, 0.45},
      {0.3, 1.05},
      {0.3, 0.05},
      {0.5, 0.65},
      {0.5, -0.35},
      {0.7, 1.25},
      {0.7, 0.25},
      {0.9, 0.85},
      {0.9, -0.15},
      {0.1, 0.95},
      {0.3, 0.55},
      {0.5, 0.15},
      {0.7, 0.75},
      {0.9, 0.35}}},
    {5,
     60,
     8,
     16,
     6,
     8,
     5,
     {3, 3, 3, 3, 2, 2, 3, 3, 3, 3, 2, 2, 3, 3, 3, 3, 2, 2, 3, 3, 3, 3, 2, 2,
      4, 1, 1, 5, 5, 5, 4, 1, 1, 5, 5, 5, 4, 1, 1, 5, 5, 5, 4, 1, 1, 5, 5, 5},
     {{1, 2, 0, 0, 50, -0.5, 2, 4}, {3, 5, 1, 0, 23, -0.3, 4, 4}},
     {{0.3333, 0.25}, {0.8333, 0.75}, {0.3333, 0.75}, {-0.1667, 0.25}, {0.8333, 0.25}}},
    {120,
     40,
     12,
     6,
     6,
     9,
     7,
     {1, 1, 2, 2, 7, 7, 1, 1, 2, 2, 7, 7, 1, 1, 2, 2, 7, 7, 1, 1, 6, 6, 4, 4, 1, 1, 6,
      6, 4, 4, 1, 1, 6, 6, 4, 4, 5, 5, 3, 3, 4, 4, 5, 5, 3, 3, 4, 4, 5, 5, 3, 3, 4, 4},
     {{1, 4, 0, 30, 30, 0, 2, 6}, {5, 7, 1, 30, 30, 0, 3, 2}},
     {{0.167, 0.667},
      {0.5, 1},
      {0.5, 0},
      {0.833, 0.333},
      {0.167, 0.167},
      {0.5, 0.5},
      {0.833, 0.833}}},
};

void DestroyYarns(ClothWeavePatternImpl* p) {
    for (ClothYarn*& y : p->yarns) {
        if (!y) continue;
        y->~ClothYarn();
        SystemInterface::Free(y);
        y = nullptr;
    }
    p->yarnCount = 0;
}

// The yarns' cached von Mises normalisation follows the pattern's beta.
void CacheBeta(ClothWeavePatternImpl* p) {
    for (ClothYarn* y : p->yarns) {
        if (!y) continue;
        y->_ownBeta = p->beta;
        y->_ownVonMisesNorm = BSDF_2PI * ClothYarn::BesselI0(std::fabs(p->beta));
    }
}

// The one builder of all presets. `keepScalars` leaves the ratio and repeats alone (Init).
Result<void> BuildPreset(ClothWeavePatternImpl* p, const Preset& preset, bool keepScalars) {
    DestroyYarns(p);
    if (!keepScalars) {
        p->specularRatio = preset.specularRatio;
        p->repeatU = preset.repeat;
        p->repeatV = preset.repeat;
    }
    p->warpArea = preset.warpArea;
    p->weftArea = preset.weftArea;
    p->tileWidth = preset.width;
    p->tileHeight = preset.height;
    std::fill(std::begin(p->pattern), std::end(p->pattern), 0);
    std::copy_n(preset.table, preset.width * preset.height, p->pattern);
    p->yarnCount = preset.yarnCount;
    Result<void> result = OK;
    for (const YarnGroup& g : preset.groups) {
        for (Int k = g.first; k <= g.last; ++k) {
            const Float64* c = preset.centres[k - 1];
            void* block = SystemInterface::Alloc(sizeof(WarpYarn), QUORV_SOURCE_LOCATION);
            if (!block) {
                // The yarn stays null, a gap; the first failure is the answer.
                if (result.IsOk())
                    result = MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
                continue;
            }
            static_assert(sizeof(WarpYarn) == sizeof(WeftYarn));
            if (g.type == 0) {
                p->yarns[k - 1] = new (block)
                    WarpYarn(g.type, g.psi, g.umax, g.kappa, g.width, g.length, c[0], c[1]);
            } else {
                p->yarns[k - 1] = new (block)
                    WeftYarn(g.type, g.psi, g.umax, g.kappa, g.width, g.length, c[0], c[1]);
            }
        }
    }
    CacheBeta(p);
    return result;
}

void DestroyPattern(void* object) {
    auto* p = static_cast<ClothWeavePatternImpl*>(object);
    DestroyYarns(p);
    p->~ClothWeavePatternImpl();
    SystemInterface::Free(HeaderOf(p));
}

}  // namespace

// ---- ClothYarn -------------------------------------------------------------------------------

ClothYarn::ClothYarn(UInt32 type_, Float64 psiDegrees, Float64 umaxDegrees, Float64 kappa_,
                     Float64 width_, Float64 length_, Float64 centerU_, Float64 centerV_)
    : psi(psiDegrees * DEGREES),
      tanPsi(std::tan(psi)),
      sinPsi(std::sin(psi)),
      umax(umaxDegrees * DEGREES),
      kappa(kappa_),
      width(width_),
      length(length_),
      halfWidth(width_ * 0.5),
      halfLength(length_ * 0.5),
      piOverWidth(BSDF_PI / width_),
      twoOverLength(2.0 / length_),
      centerU(centerU_),
      centerV(centerV_),
      type(type_) {
    const CurvatureTerms t = TermsOf(kappa, halfWidth, halfLength, umax);
    _ownTanUmax = std::tan(umax);
    _ownSinUmax = std::sin(umax);
    _ownC = t.c;
    _ownA = t.a;
    _ownB = t.b;
    _ownBeta = 4.0;
    _ownVonMisesNorm = BSDF_2PI * BesselI0(4.0);
}

void ClothYarn::GetUV(const ClothWeavePatternImpl&, const Vector2d64&, const Vector2d64&,
                      Vector2d64*, Float64*, Float64*, Bool, Float64) const {}

Float64 ClothYarn::Evaluate(const Vector64&, const Vector64&, const Vector2d64&, const Vector2d64&,
                            const Vector2d64&, Float64, Float64, Float64) const {
    return 0.0;
}

Float64 ClothYarn::BesselI0(Float64 x) {
    const Float64 a = std::fabs(x);
    if (a <= 3.75) {
        const Float64 s = (a / 3.75) * (a / 3.75);
        return 1.0 +
               s * (3.5156229 +
                    s * (3.0899424 +
                         s * (1.2067492 + s * (0.2659732 + s * (0.0360768 + s * 0.0045813)))));
    }
    const Float64 t = 3.75 / a;
    return (0.39894228 +
            t * (0.01328592 +
                 t * (0.00225319 +
                      t * (-0.00157565 +
                           t * (0.00916281 +
                                t * (-0.02057706 +
                                     t * (0.02635537 + t * (-0.01647633 + t * 0.00392377)))))))) *
           std::exp(a) / std::sqrt(a);
}

Float64 ClothYarn::VonMises(Float64 x, Float64 b) {
    // The argument clamps at 0.5 on purpose: the lobe's peak is flattened there.
    return std::exp(b * std::min(x, 0.5)) / (BSDF_2PI * BesselI0(std::fabs(b)));
}

Float64 ClothYarn::RadiusOfCurvature(Float64 u, Float64 umaxIn) const {
    if (umaxIn == umax) return CurvatureAt({_ownC, _ownA, _ownB}, u);
    return CurvatureAt(TermsOf(kappa, halfWidth, halfLength, umaxIn), u);
}

Float64 ClothYarn::EvaluateFilament(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                                    const Vector2d64& scattering, Float64 umaxIn, Float64 blur,
                                    Float64 smoothing) const {
    if (kappa < -1.0) return 0.0;
    const Vector64 sum = Add(wo, wi);
    const Float64 len = std::sqrt(Dot(sum, sum));
    const Vector64 h = Normalize(sum);
    const Float64 u = uv.x, v = uv.y;
    const Float64 uh = std::atan2(h.y, h.z);
    if (!(std::fabs(uh - u) < umaxIn * blur)) return 0.0;
    const Float64 sv = std::sin(v), cv = std::cos(v);
    const Float64 su = std::sin(uh), cu = std::cos(uh);
    const Vector64 n = Normalize({sv, cv * su, cv * cu});
    const Vector64 m = Normalize({0.0, su, cu});
    const Float64 cap = (1.0 - smoothing) * umaxIn;
    const Float64 r = RadiusOfCurvature(std::min(std::fabs(uh), cap), cap);
    Float64 d = Dot(m, h);
    if (std::fabs(d) < 1e-7) d = 1e-7;
    const Float64 g = halfWidth * (halfWidth * cv + r) / (len * std::fabs(d));
    Float64 s = Seeliger(n, wo, wi);
    if (smoothing > 0.0) {
        const Float64 x = (umaxIn - std::fabs(uh)) / (umaxIn * smoothing);
        s *= x <= 0.0 ? 0.0 : (x >= 1.0 ? 1.0 : x * x * (3.0 - 2.0 * x));
    }
    const Float64 b = scattering.y;
    const Float64 norm = b == _ownBeta ? _ownVonMisesNorm : BSDF_2PI * BesselI0(std::fabs(b));
    const Float64 vonMises = std::exp(b * std::min(-Dot(wo, wi), 0.5)) / norm;
    return s * (g * (scattering.x + vonMises)) * BSDF_PI / blur;
}

Float64 ClothYarn::EvaluateStaple(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                                  const Vector2d64& scattering, Float64 umaxIn,
                                  Float64 blur) const {
    if (kappa < -1.0) return 0.0;
    const Vector64 sum = Add(wo, wi);
    const Float64 len = std::sqrt(Dot(sum, sum));
    const Vector64 h = Normalize(sum);
    const Float64 u = uv.x, v = uv.y;
    const Float64 cu = std::cos(u), su = std::sin(u);
    const Float64 a = h.y * su + h.z * cu;
    const Float64 b = h.y * cu - h.z * su;
    const Float64 d = std::sqrt(h.x * h.x + a * a) * tanPsi;
    const Float64 e = b / d;
    // 0/0 (a zero half vector) is rejected with the out-of-range values.
    if (!(std::fabs(e) < 1.0)) return 0.0;
    const Float64 vh = std::atan2(-h.y * su - h.z * cu, h.x) + std::acos(e);
    if (!(std::fabs(vh - v) < blur * BSDF_PI / 2.0)) return 0.0;
    const Float64 cvh = std::cos(vh);
    const Vector64 n = Normalize({std::sin(vh), su * cvh, cu * cvh});
    const Float64 r = RadiusOfCurvature(std::fabs(u), umaxIn);
    const Float64 num = halfWidth * (halfWidth * cvh + r);
    const Float64 den = std::fabs(sinPsi) * len * std::max(Dot(n, h), 0.1);
    const Float64 beta = scattering.y;
    const Float64 norm = beta == _ownBeta ? _ownVonMisesNorm : BSDF_2PI * BesselI0(std::fabs(beta));
    const Float64 vonMises = std::exp(beta * std::min(-Dot(wo, wi), 0.5)) / norm;
    const Float64 value = (num / den) * (scattering.x + vonMises) * Seeliger(n, wo, wi);
    return (value + value) * umaxIn / blur;
}

// ---- the pattern's operations ----------------------------------------------------------------

namespace cloth {

void Free(ClothWeavePatternImpl* pattern) { RemoveReference(pattern); }

Result<ClothWeavePatternImpl*> Alloc() {
    constexpr Int size = sizeof(ObjectHeader) + sizeof(ClothWeavePatternImpl);
    void* block = SystemInterface::Alloc(size, QUORV_SOURCE_LOCATION);
    if (!block) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
    auto* header = new (block) ObjectHeader{nullptr, &DestroyPattern, 0, {REFERENCE_STEP}};
    return new (header + 1) ClothWeavePatternImpl();
}

Result<void> Init(ClothWeavePatternImpl* pattern) {
    if (!pattern) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION,
                         "ClothWeavePattern::Init: pattern is nullptr");
    }
    pattern->specularRatio = 0.0;
    pattern->repeatU = 0.0;
    pattern->repeatV = 0.0;
    Result<void> r = BuildPreset(pattern, PRESETS[1], true);
    if (r.IsError()) {
        CriticalOutput(FormatMessage("XRClothWeavePattern::XRClothWeavePattern error: @",
                                     {ErrorToString(r.GetErrorPointer())}),
                       QUORV_SOURCE_LOCATION);
    }
    return r;
}

Result<void> SetupPattern(ClothWeavePatternImpl* pattern, UInt32 preset) {
    if (!pattern) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION,
                         "ClothWeavePattern::SetupPattern: pattern is nullptr");
    }
    DestroyYarns(pattern);
    // A larger number leaves the table and the scalars: every cell is then a gap.
    if (preset >= CLOTH_PRESET_COUNT) return OK;
    Result<void> r = BuildPreset(pattern, PRESETS[preset], false);
    if (r.IsError()) {
        CriticalOutput(
            FormatMessage("ClothImpl::SetupPattern error: @", {ErrorToString(r.GetErrorPointer())}),
            QUORV_SOURCE_LOCATION);
    }
    return r;
}

void SetupCloth(ClothWeavePatternImpl* p, Int32 quality, Float64 alpha, Float64 beta,
                Float64 smoothing, Float64 intensityVariation, Float64 intensityFineness,
                Float64 warpVariation, Float64 weftVariation, Float64 variationScale) {
    if (!p) return;
    p->alpha = alpha;
    p->beta = beta;
    p->warpVariation = warpVariation;
    p->weftVariation = weftVariation;
    p->intensityVariation = intensityVariation;
    p->smoothing = std::clamp(smoothing, 0.0, 0.99);
    p->intensityFineness = 0.1 / std::clamp(intensityFineness, 0.01, 1000.0);
    p->variationScale = 0.01 / std::clamp(variationScale, 0.01, 1000.0);
    constexpr Int COUNTS[] = {1, 4, 16, 64};
    if (quality >= -1 && quality <= 2) p->sampleCount = COUNTS[quality + 1];
    CacheBeta(p);
}

void ComputeSpecularRatio(ClothWeavePatternImpl* p) {
    if (!p) return;
    UInt32 state = 100;
    auto next = [&state] {
        state = (state * 69069u + 69069u) & 0x7fffffffu;
        return static_cast<Float64>(state) / 2147483649.0;
    };
    const Vector2d64 scattering{p->alpha, p->beta};
    const Vector2d64 areas{p->warpArea, p->weftArea};
    const Vector64 zero{0.0, 0.0, 0.0};
    Float64 sum = 0.0;
    for (Int i = 0; i < 100000; ++i) {
        const Float64 r1 = next();
        const Float64 r2 = next();
        Vector2d64 uv;
        Float64 umax = 0.0, weight = 1.0, state2 = 1.0;
        const ClothYarn* yarn = GetYarn(p, r2, r1, &uv, &umax, &weight, &state2, true, 0.0);
        // A gap adds nothing here (a pattern with gaps has no meaningful ratio anyway).
        if (!yarn) continue;
        sum += weight * yarn->Evaluate(zero, zero, uv, scattering, areas, umax, 0.5, p->smoothing);
    }
    // With the directions at zero every term is 0 * inf: NaN is not positive, the ratio 0.0.
    p->specularRatio = sum > 0.0 ? 100000.0 / sum * 0.5 : 0.0;
}

Float64 GetSpecularRatio(const ClothWeavePatternImpl* p) { return p ? p->specularRatio : 0.0; }

Vector2d64 GetScatteringCoefficients(const ClothWeavePatternImpl* p) {
    return p ? Vector2d64{p->alpha, p->beta} : Vector2d64{};
}

Float64 GetSmoothing(const ClothWeavePatternImpl* p) { return p ? p->smoothing : 0.0; }

Vector2d64 GetWarpWeftArea(const ClothWeavePatternImpl* p) {
    return p ? Vector2d64{p->warpArea, p->weftArea} : Vector2d64{};
}

Int GetSampleCount(const ClothWeavePatternImpl* p) { return p ? p->sampleCount : 0; }

const ClothYarn* GetYarn(const ClothWeavePatternImpl* p, Float64 u, Float64 v, Vector2d64* uvOut,
                         Float64* umaxOut, Float64* weightOut, Float64* variationState,
                         Bool useVariation, Float64 amount) {
    if (!p) return nullptr;
    const Float64 a = p->repeatU * u;
    const Float64 b = p->repeatV * v;
    // A position that is not finite lies in no cell: a gap.
    if (!std::isfinite(a) || !std::isfinite(b)) return nullptr;
    const Float64 fa = std::floor(a), fb = std::floor(b);
    const Int w = p->tileWidth, h = p->tileHeight;
    const Float64 fw = static_cast<Float64>(w), fh = static_cast<Float64>(h);
    const Int x = std::clamp(static_cast<Int>(std::floor((a - fa) * fw)), Int(0), w - 1);
    const Int y = std::clamp(static_cast<Int>(std::floor((b - fb) * fh)), Int(0), h - 1);
    // The table stands with its top row first, while v grows upward.
    const Int e = p->pattern[x + (h - 1 - y) * w];
    if (e < 1 || e - 1 >= p->yarnCount) return nullptr;
    const ClothYarn* yarn = p->yarns[e - 1];
    if (!yarn) return nullptr;
    const Vector2d64 centre{(fa + yarn->centerU) * fw, (fb + yarn->centerV) * fh};
    const Vector2d64 local{(a - fa - yarn->centerU) * fw, (b - fb - yarn->centerV) * fh};
    yarn->GetUV(*p, centre, local, uvOut, umaxOut, variationState, useVariation, amount);
    if (p->intensityFineness > 0.0 && amount > 0.0 && p->intensityVariation > 0.0 && useVariation) {
        const Float64 f = p->intensityFineness;
        const Vector64 q{(centre.x + local.x) * f, (centre.y + local.y) * f, f * 0.0};
        const Float64 t = ClothTurbulence(q, 4.0, true);
        const Float64 c = std::clamp(t * 1.2, 0.01, 1.0);
        const Float64 k = p->intensityVariation * amount;
        *weightOut = std::min(-std::log(c), 8.0) * k + (1.0 - k);
    }
    return yarn;
}

}  // namespace cloth

namespace {

const ClothWeavePatternInterface::Slots g_functions{
    .Free = &cloth::Free,
    .Alloc = &cloth::Alloc,
    .Init = &cloth::Init,
    .SetupPattern = &cloth::SetupPattern,
    .SetupCloth = &cloth::SetupCloth,
    .ComputeSpecularRatio = &cloth::ComputeSpecularRatio,
    .GetSpecularRatio = &cloth::GetSpecularRatio,
    .GetScatteringCoefficients = &cloth::GetScatteringCoefficients,
    .GetSmoothing = &cloth::GetSmoothing,
    .GetWarpWeftArea = &cloth::GetWarpWeftArea,
    .GetSampleCount = &cloth::GetSampleCount,
    .GetYarn = &cloth::GetYarn,
};

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_interfaceNames;
NonVirtualInterfaceRecord g_implementation;
char g_nameRun[ClothWeavePatternInterface::NAME_RUN_SIZE];

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    g_interfaceNames.id = LiteralId(ClothWeavePatternInterface::INTERFACE_ID);
    g_interfaceNames.methodNames =
        BuildSlotNameRun(ClothWeavePatternInterface::Describe(), g_nameRun);
    g_interfaceNames.returnKinds = ClothWeavePatternInterface::Describe().returnKinds;
    g_interfaceNames.count = ClothWeavePatternInterface::COUNT;
    DefineInterfaceImplementation(g_implementation, g_interfaceNames, g_unit, __FILE__, 0);
    g_implementation.implementation = reinterpret_cast<void* const*>(&g_functions);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv
