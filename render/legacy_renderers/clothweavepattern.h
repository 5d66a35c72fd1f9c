#pragma once
/// Woven cloth as a small tile of yarn segments: which yarn lies at a texture position, and the
/// specular reflection of one yarn segment. Reached through the static interface
/// "net.quorv.render.interface.clothweavepattern" (`ClothWeavePatternInterface`), whose table
/// the module supplies; callers hold patterns through `ClothWeavePatternRef`.
///
///     ClothWeavePatternRef p = ClothWeavePatternRef::Create().GetValue();
///     ClothWeavePatternInterface::SetupPattern(p.Get(), 1);
///     ClothWeavePatternInterface::SetupCloth(p.Get(), 2, 0.01, 4.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0);
///     const ClothYarn* yarn = ClothWeavePatternInterface::GetYarn(p.Get(), u, v, &uv, &umax,
///                                                                &weight, &state, true, 1.0);
///
/// Thread safety: set-up (`Init`, `SetupPattern`, `SetupCloth`, `ComputeSpecularRatio`) must run
/// alone; afterwards the getters and `GetYarn` only read and may run on any number of threads.

#include "quorv/ref.h"
#include "quorv/result.h"
#include "quorv/slots.h"

namespace quorv {

struct ClothWeavePatternImpl;

/// One yarn segment of a tile. The constructor takes the angles in degrees; the virtual
/// operations are, in order, the destructor, `GetUV` and `Evaluate`. This base class works
/// as the abstract yarn: `GetUV` leaves its outputs alone and `Evaluate` gives 0.0.
class ClothYarn {
public:
    ClothYarn(UInt32 type, Float64 psiDegrees, Float64 umaxDegrees, Float64 kappa, Float64 width,
              Float64 length, Float64 centerU, Float64 centerV);
    virtual ~ClothYarn() = default;

    /// The yarn coordinates of a position: `centre` is the yarn's centre in tile cells, `local`
    /// the offset from it. `umaxOut` receives the (varied) half angle of the segment;
    /// `variationState` keeps the variation of the first sample (`useVariation` set) for the
    /// others of one footprint.
    virtual void GetUV(const ClothWeavePatternImpl& pattern, const Vector2d64& centre,
                       const Vector2d64& local, Vector2d64* uvOut, Float64* umaxOut,
                       Float64* variationState, Bool useVariation, Float64 amount) const;
    /// The specular reflection of the segment at `uv` for the pair (wo, wi), normalised by the
    /// visible area of its kind; `scattering` is (alpha, beta), `areas` (warp, weft).
    virtual Float64 Evaluate(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                             const Vector2d64& scattering, const Vector2d64& areas, Float64 umax,
                             Float64 blur, Float64 smoothing) const;

    /// Von Mises lobe exp(b min(x, 0.5)) / (2 pi I0(|b|)) of x = -(wo . wi).
    static Float64 VonMises(Float64 x, Float64 b);
    /// The polynomial approximation of the modified Bessel function I0.
    static Float64 BesselI0(Float64 x);
    /// The radius of curvature of the segment at u for the half angle `umax`.
    Float64 RadiusOfCurvature(Float64 u, Float64 umax) const;
    /// The specular term of a yarn with psi 0 (warp orientation, no swap).
    Float64 EvaluateFilament(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                             const Vector2d64& scattering, Float64 umax, Float64 blur,
                             Float64 smoothing) const;
    /// The specular term of a yarn with psi not 0.
    Float64 EvaluateStaple(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                           const Vector2d64& scattering, Float64 umax, Float64 blur) const;

    Float64 psi;  ///< radians
    Float64 tanPsi;
    Float64 sinPsi;
    Float64 umax;  ///< radians
    Float64 kappa;
    Float64 width;
    Float64 length;
    Float64 halfWidth;
    Float64 halfLength;
    Float64 piOverWidth;
    Float64 twoOverLength;
    Float64 centerU;
    Float64 centerV;
    UInt32 type;  ///< 0 warp (first colour pair), else weft

    // Terms of the yarn's own umax, by the same expressions as RadiusOfCurvature, so a call
    // with that umax takes them bit for bit; and 2 pi I0(|beta|) for the pattern's beta, which
    // the pattern keeps current.
    Float64 _ownTanUmax;
    Float64 _ownSinUmax;
    Float64 _ownC;
    Float64 _ownA;
    Float64 _ownB;
    Float64 _ownVonMisesNorm;  ///< 2 pi I0(|beta|) for `_ownBeta`
    Float64 _ownBeta;
};

/// The cloth weave pattern, a counted object. Fields as the set-up operations leave them.
struct ClothWeavePatternImpl {
    static constexpr Int MAX_CELLS = 64;
    static constexpr Int MAX_YARNS = 16;

    void* noise = nullptr;             ///< an external noise; never set, evaluation uses ours
    Int32 pattern[MAX_CELLS] = {};     ///< tileWidth * tileHeight entries, top row first
    ClothYarn* yarns[MAX_YARNS] = {};  ///< owned; a null yarn reads as a gap
    Int yarnCount = 0;
    Float64 specularRatio = 0.0;
    Float64 repeatU = 0.0;
    Float64 repeatV = 0.0;
    Float64 alpha = 0.01;
    Float64 beta = 4.0;
    Float64 smoothing = 0.0;
    Float64 warpArea = 6.0;
    Float64 weftArea = 2.0;
    Int tileWidth = 4;
    Int tileHeight = 8;
    Float64 intensityVariation = 0.0;
    Float64 intensityFineness = 0.0;
    Float64 warpVariation = 0.0;
    Float64 weftVariation = 0.0;
    Float64 variationScale = 0.0;
    Int sampleCount = 0;
};

/// The number of presets; `SetupPattern` takes 0 to CLOTH_PRESET_COUNT - 1.
constexpr UInt32 CLOTH_PRESET_COUNT = 6;

// clang-format off
#define QUORV_CLOTHWEAVEPATTERN_METHODS(M) \
    M(void, Free, (ClothWeavePatternImpl* pattern), (pattern)) \
    M(Result<ClothWeavePatternImpl*>, Alloc, (), ()) \
    M(Result<void>, Init, (ClothWeavePatternImpl* pattern), (pattern)) \
    M(Result<void>, SetupPattern, (ClothWeavePatternImpl* pattern, UInt32 preset), (pattern, preset)) \
    M(void, SetupCloth, (ClothWeavePatternImpl* pattern, Int32 quality, Float64 alpha, Float64 beta, Float64 smoothing, Float64 intensityVariation, Float64 intensityFineness, Float64 warpVariation, Float64 weftVariation, Float64 variationScale), (pattern, quality, alpha, beta, smoothing, intensityVariation, intensityFineness, warpVariation, weftVariation, variationScale)) \
    M(void, ComputeSpecularRatio, (ClothWeavePatternImpl* pattern), (pattern)) \
    M(Float64, GetSpecularRatio, (const ClothWeavePatternImpl* pattern), (pattern)) \
    M(Vector2d64, GetScatteringCoefficients, (const ClothWeavePatternImpl* pattern), (pattern)) \
    M(Float64, GetSmoothing, (const ClothWeavePatternImpl* pattern), (pattern)) \
    M(Vector2d64, GetWarpWeftArea, (const ClothWeavePatternImpl* pattern), (pattern)) \
    M(Int, GetSampleCount, (const ClothWeavePatternImpl* pattern), (pattern)) \
    M(const ClothYarn*, GetYarn, (const ClothWeavePatternImpl* pattern, Float64 u, Float64 v, Vector2d64* uvOut, Float64* umaxOut, Float64* weightOut, Float64* variationState, Bool useVariation, Float64 amount), (pattern, u, v, uvOut, umaxOut, weightOut, variationState, useVariation, amount))
// clang-format on

/// The static interface of cloth weave patterns:
/// - `Free(pattern)`: drops a reference; the last one destroys the yarns and the pattern.
/// - `Alloc()`: a new pattern with one reference and the constructor defaults (tile 4 by 8,
///   no yarns, `alpha` 0.01, `beta` 4.0, areas 6.0 and 2.0); out of memory gives kind 0.
/// - `Init(pattern)`: the built-in default pattern (the table and yarns of preset 1) with
///   `specularRatio` and the repeats at 0.0, so every position falls on one cell.
/// - `SetupPattern(pattern, preset)`: replaces the yarns by preset 0 to 5; a larger number only
///   drops the yarns. Out of memory is logged as "ClothImpl::SetupPattern error: @" and
///   returned; the yarn that failed stays null, a gap.
/// - `SetupCloth(...)`: the scalars; `quality` -1 to 2 picks 1, 4, 16 or 64 samples, another
///   value keeps the count.
/// - `ComputeSpecularRatio(pattern)`: the normalisation from 100,000 evaluations (directions
///   zero; the presets carry their own ratio).
/// - getters: the stored values.
/// - `GetYarn(...)`: the yarn at (u, v) with its coordinates, or null in a gap.
/// A null pattern gives the zero answers (and the nullptr error where a Result is returned).
QUORV_NONVIRTUAL_INTERFACE(ClothWeavePatternInterface,
                           "net.quorv.render.interface.clothweavepattern",
                           QUORV_CLOTHWEAVEPATTERN_METHODS);

/// Counted handle of a pattern; copies share the object.
class ClothWeavePatternRef {
public:
    ClothWeavePatternRef() = default;
    /// Takes a new reference on `p`.
    explicit ClothWeavePatternRef(ClothWeavePatternImpl* p) : _p(p) { AddReference(_p); }
    ClothWeavePatternRef(const ClothWeavePatternRef& o) : _p(o._p) { AddReference(_p); }
    ClothWeavePatternRef(ClothWeavePatternRef&& o) noexcept : _p(o._p) { o._p = nullptr; }
    ClothWeavePatternRef& operator=(ClothWeavePatternRef o) noexcept {
        ClothWeavePatternImpl* t = _p;
        _p = o._p;
        o._p = t;
        return *this;
    }
    /// The drop runs the destroy function the module put in the object's header, so a handle
    /// works in any binary.
    ~ClothWeavePatternRef() { RemoveReference(_p); }

    /// A new pattern with the constructor defaults through the interface.
    static Result<ClothWeavePatternRef> Create() {
        Result<ClothWeavePatternImpl*> p = ClothWeavePatternInterface::Alloc();
        if (p.IsError()) return p.GetError();
        ClothWeavePatternRef r;
        r._p = p.GetValue();
        return r;
    }

    ClothWeavePatternImpl* Get() const { return _p; }
    ClothWeavePatternImpl* operator->() const { return _p; }
    explicit operator bool() const { return _p != nullptr; }

private:
    ClothWeavePatternImpl* _p = nullptr;
};

}  // namespace quorv
