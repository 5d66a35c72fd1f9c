#pragma once
/// The older BSDF set ("Legacy" in the comparison labels): plain C++ classes with virtual
/// operations that compute the same mathematics as the registered classes of the module, in a
/// code shape of their own. The comparison and timing classes (unittestbsdf.cpp) hold the
/// registered classes against them; nothing else calls them.
///
/// They share with the registered classes only the records: `BSDFCachedSample`, `BSDFRandom`,
/// `SamplerCache` and the constants of bsdf_legacy.h. Directions are local (+z the normal);
/// values are pi times the BSDF without the incoming cosine, as for the registered classes.
///
/// Thread safety: an object belongs to one thread. The cloth classes step their own random
/// state in `SampleF` and `ComputeBSDF`; tables of a `SamplerCache` fill on first use.

#include <memory>

#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/microfacetdistributioncaches.h"

namespace quorv::legacy {

/// Base of the older classes, operations in this order.
class BxDF {
public:
    virtual ~BxDF() = default;
    /// Draws `wi` from `sample`; returns the value and sets `pdf`. A rejection gives zero value
    /// and zero density; `wi` keeps what it held where no direction was formed.
    virtual Color64 SampleF(const Vector64& wo, const Vector64& normal,
                            const BSDFCachedSample& sample, Vector64& wi, Float64& pdf) = 0;
    /// Value and density of a pair; `wiSide` serves the side test and the cosine, `wi` the lobe.
    virtual Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                                Float64& pdf) = 0;
    /// A lobe quantity for a sample; only the simple blurry lobe has one.
    virtual Float64 ComputeAngle(const BSDFCachedSample&) { return 0.0; }
};

/// Cosine-weighted diffuse reflection.
class LambertBxDF final : public BxDF {
public:
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) override;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) override;
};

/// Rough diffuse reflection of standard deviation `sigma`, in its simple or full form.
class OrenNayarBxDF final : public BxDF {
public:
    OrenNayarBxDF(Float64 sigma, Bool simple);
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) override;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) override;
    /// The scalar value for outgoing `o` and incoming `i`.
    Float64 Value(const Vector64& o, const Vector64& i) const;

private:
    Float64 _sigma2, _a, _b, _c2Scale, _c1, _interreflection;
    Bool _simple;
};

/// Glossy lobe around the direction of `wo`, drawn by `ComputeAngle`; `cache` may be null.
class BlurrySimpleBxDF final : public BxDF {
public:
    BlurrySimpleBxDF(Float64 roughness, SamplerCache* cache);
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) override;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) override;
    Float64 ComputeAngle(const BSDFCachedSample& sample) override;

private:
    Float64 LobeValue(Float64 c) const;
    SamplerCache* _cache;
    Float64 _cube, _exponent;
    Int _rowD, _rowInverse;
};

/// Glossy lobe with an optional shaped falloff; its own scale (see the .cpp).
class BlurrySpecularBxDF final : public BxDF {
public:
    BlurrySpecularBxDF(Bool reflectedLobe, Float64 roughness, Float64 falloffShift,
                       Float64 falloffPower);
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) override;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) override;

private:
    Bool _reflectedLobe, _shaped;
    Float64 _exponent, _shapePower, _invScale, _shapedExponent, _shapeGain, _shiftScale,
        _shiftAngle, _cut;
};

/// The half-vector distributions of the Torrance frame.
class MicrofacetDistribution {
public:
    virtual ~MicrofacetDistribution() = default;
    /// D(h); `pdf` receives the half-vector density. `useCache` allows the table.
    virtual Float64 Evaluate(const Vector64& h, Bool useCache, Float64& pdf) const = 0;
    /// Draws a half vector with its D and density.
    virtual void Sample(const BSDFCachedSample& sample, Vector64& h, Float64& d,
                        Float64& pdf) const = 0;
    /// Shadowing and masking of the pair.
    virtual Float64 Masking(const Vector64& wo, const Vector64& wi, const Vector64& h) const = 0;
};

/// The five kinds, numbered as the comparison numbers its cases.
enum class DISTRIBUTIONKIND : Int32 { BECKMANN = 2, GGX = 3, PHONG = 4, WARD = 5, ANISOTROPIC = 6 };

/// A distribution of `kind` for `roughness` (and `anisotropy` for the anisotropic kind); `cache`
/// is read by Beckmann, GGX and Ward only. Null when out of memory.
std::unique_ptr<MicrofacetDistribution> MakeDistribution(DISTRIBUTIONKIND kind, Float64 roughness,
                                                         Float64 anisotropy, SamplerCache* cache);

/// Torrance-style reflection (`transmit` false) or refraction between indices 1.0 and 1.5.
class BlurryTorranceBxDF final : public BxDF {
public:
    BlurryTorranceBxDF(std::unique_ptr<MicrofacetDistribution> distribution, Bool transmit);
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) override;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) override;

private:
    std::unique_ptr<MicrofacetDistribution> _distribution;
    Bool _transmit;
};

class ClothYarnLegacy;

/// The older weave pattern: presets, yarns and the variation noise.
class ClothPatternLegacy {
public:
    ClothPatternLegacy();
    ~ClothPatternLegacy();
    ClothPatternLegacy(const ClothPatternLegacy&) = delete;
    ClothPatternLegacy& operator=(const ClothPatternLegacy&) = delete;

    /// Builds preset 0 to 5; a larger number only drops the yarns. Out of memory is an error
    /// "XRClothWeavePattern::SetupPattern error: @".
    Result<void> SetupPattern(UInt32 preset);
    void SetupCloth(Int32 quality, Float64 alpha, Float64 beta, Float64 smoothing,
                    Float64 intensityVariation, Float64 intensityFineness, Float64 warpVariation,
                    Float64 weftVariation, Float64 variationScale);
    /// The yarn at (u, v) with its coordinates, or null in a gap.
    const ClothYarnLegacy* GetYarn(Float64 u, Float64 v, Vector2d64& uvOut, Float64& umaxOut,
                                   Float64& weightOut, Float64& variationState, Bool useVariation,
                                   Float64 amount) const;

    Float64 specularRatio = 0.0;
    Float64 repeatU = 0.0, repeatV = 0.0;
    Float64 alpha = 0.01, beta = 4.0, smoothing = 0.0;
    Float64 warpArea = 6.0, weftArea = 2.0;
    Int tileWidth = 4, tileHeight = 8;
    Float64 intensityVariation = 0.0, intensityFineness = 0.0;
    Float64 warpVariation = 0.0, weftVariation = 0.0, variationScale = 0.0;
    Int sampleCount = 0;

private:
    friend class ClothYarnLegacy;
    void DropYarns();
    Int32 _table[64] = {};
    ClothYarnLegacy* _yarns[16] = {};
    Int _yarnCount = 0;
};

/// What the cloth class is given.
struct IrawanSetupLegacy {
    Color64 warpDiffuse, warpSpecular, weftDiffuse, weftSpecular;
    Vector64 uvw, uvwDelta;
    Float64 rotation = 0.0, scaleU = 1.0, scaleV = 1.0, blur = 1.0;
    const ClothPatternLegacy* pattern = nullptr;  ///< not owned; outlives the class
};

/// Woven cloth: cosine-sampled, evaluated over the texture footprint with coloured values.
class IrawanBxDF final : public BxDF {
public:
    explicit IrawanBxDF(const IrawanSetupLegacy& setup);
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) override;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) override;
    /// The value at a texture position with footprint `delta`.
    Color64 ComputeF_UVW(const Vector64& wo, const Vector64& wi, const Vector64& uvw,
                         const Vector64& delta);

private:
    IrawanSetupLegacy _setup;
    Float64 _sinRotation, _cosRotation, _invScaleU, _invScaleV, _blur;
    UInt32 _state = 100;  ///< raw, no seeding step
};

/// Gradient noise of the cloth variation (exposed for tests): the value at (x, y, z) in
/// [-1, 1], and the octave sum (absolute terms when `absolute`).
Float64 ClothNoiseLegacy(Float64 x, Float64 y, Float64 z);
Float64 ClothTurbulenceLegacy(Float64 x, Float64 y, Float64 z, Float64 octaves, Bool absolute);

}  // namespace quorv::legacy
