#pragma once
// Private to the legacy BSDF classes (and their white-box tests): the state of each class and
// the pieces the classes share. The public face is bsdf_legacy.h.

#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/microfacetdistributioncaches.h"

namespace quorv {

/// The cache a dictionary holds under key 1000, or null.
SamplerCache* ReadDistributionCache(const DataDictionary& params);

/// The operations every class implements the same way unless it says otherwise.
struct BSDFLegacyDefaults {
    Result<void> Init(const DataDictionary&, const void*) { return OK; }
    Result<void> Update(const void*, UInt32) { return OK; }
    Result<void> Reset() { return OK; }
    Color64 ComputeF_UVW(const Vector64&, const Vector64&, const Vector64&, const Vector64&) const {
        return {1.0, 1.0, 1.0};
    }
    Float64 ComputeAngle(const BSDFCachedSample&) const { return 0.0; }
    Float64 ComputeMIPAngle(Float64 angle) const { return angle; }
    BSDFFrame ComputeBSDFFrame(const Vector64& n, const Vector64& u, const Vector64& v,
                               const Vector64&, Bool, Bool, Bool useGivenFrame) const {
        return ComputeSharedBSDFFrame(n, u, v, useGivenFrame);
    }
    Result<void> GeneratePreviewImage(ImageObject*, Float64) { return OK; }
};

/// "net.quorv.render.bsdflegacyclass.lambertbrdf": no state.
struct LambertBRDFImpl : BSDFLegacyDefaults {
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) const;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) const;
    Float64 PdfIndirect(const Vector64& wo, const Vector64& wi) const;
};

/// "net.quorv.render.bsdflegacyclass.orennayarbrdf".
struct OrenNayarBRDFImpl : BSDFLegacyDefaults {
    Float64 sigma2 = 0.0;
    Float64 a = 0.0;
    Float64 b = 0.0;
    Float64 c2Scale = 0.0;
    Float64 c1 = 0.0;
    Float64 interreflection = 0.0;
    Bool simple = false;

    Result<void> Init(const DataDictionary& params, const void* data);
    Result<void> Reset();
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) const;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) const;
    Float64 PdfIndirect(const Vector64& wo, const Vector64& wi) const;
    /// The value for outgoing `o` and incoming `i`.
    Float64 Value(const Vector64& o, const Vector64& i) const;
};

/// "net.quorv.render.bsdflegacyclass.blurrysimplebrdf": a Phong lobe around wo, not sampled
/// by `SampleF`; callers draw the lobe cosine with `ComputeAngle`.
struct BlurrySimpleBRDFImpl : BSDFLegacyDefaults {
    SamplerCache* cache = nullptr;
    Float64 cube = 0.0;
    Float64 roughness = 0.0;
    Float64 exponent = 1.0;
    Int32 rowD = 0;
    Int32 rowInverse = 0;

    Result<void> Init(const DataDictionary& params, const void* data);
    Result<void> Reset();
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) const;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) const;
    Float64 ComputeAngle(const BSDFCachedSample& sample) const;
    Float64 PdfIndirect(const Vector64& wo, const Vector64& wi) const;
    Float64 ComputeMIPAngle(Float64 angle) const;
};

/// "net.quorv.render.bsdflegacyclass.blurryspecularbrdf": a lobe with an optional shaped
/// falloff, on its own scale (see ComputeBSDF).
struct BlurrySpecularBRDFImpl : BSDFLegacyDefaults {
    Bool reflectedLobe = false;
    Float64 roughness = -1.0;
    Float64 falloffShift = 0.0;
    Float64 falloffPower = 0.0;
    Bool shaped = false;
    Float64 exponent = 0.0;
    Float64 shapePower = 0.0;
    Float64 invScale = 0.0;
    Float64 shapedExponent = 0.0;
    Float64 shapeGain = 0.0;
    Float64 shiftScale = 0.0;
    Float64 shiftAngle = 0.0;
    Float64 cut = 0.0;
    /// Set by the first `Init`: until then the change test must not stop it, since the state
    /// of a new object already holds the default inputs (roughness -1.0) but none of the
    /// values derived from them.
    Bool computed = false;

    Result<void> Init(const DataDictionary& params, const void* data);
    Result<void> Reset();
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) const;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) const;
    Float64 PdfIndirect(const Vector64&, const Vector64&) const { return 1.0; }
    Float64 ComputeMIPAngle(Float64 angle) const;
};

/// The distribution record every microfacet class holds.
struct MicrofacetDistribution {
    SamplerCache* cache = nullptr;
    Float64 roughness = 0.0;
    Float64 mipLimit = 0.0;
    Int rowD = 0;
    Int rowInverse = 0;
    Float64 roughnessCube = -1.0;  ///< -1.0 so that the first Init always computes
    Float64 alpha = 0.0;           ///< lobe width m, or the exponent e for Phong
    Float64 alpha2 = 0.0;          ///< m^2; not set for Phong
};

/// Which distribution a microfacet class wraps.
enum class MICROFACET : Int32 { BECKMANN = 0, GGX = 1, PHONG = 2, WARD = 3 };

/// A microfacet class: distribution D, reflecting (BRDF) or refracting.
template <MICROFACET D, bool TRANSMIT>
struct MicrofacetBSDFImpl : BSDFLegacyDefaults {
    MicrofacetDistribution distribution;
    Float64 iorOutside = 1.0;
    Float64 iorInside = 1.5;

    Result<void> Init(const DataDictionary& params, const void* data);
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) const;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) const;
    /// The reflection density for both kinds, so 0.0 for a transmitted pair.
    Float64 PdfIndirect(const Vector64& wo, const Vector64& wi) const;
    Float64 ComputeMIPAngle(Float64 angle) const {
        return distribution.mipLimit < angle ? distribution.mipLimit : angle;
    }

    /// D(h) and the half-vector density; the tables serve when `useCache` and c < 0.999.
    Float64 Evaluate(const Vector64& h, Bool useCache, Float64& pdfH) const;
    /// A half vector from the sample with its D and density.
    void Sample(const BSDFCachedSample& sample, Vector64& h, Float64& d, Float64& pdfH) const;
    /// The masking term G(wo, wi, h).
    Float64 Masking(const Vector64& wo, const Vector64& wi, const Vector64& h) const;
    /// The analytic D and half density for the half-vector cosine c.
    Float64 AnalyticD(Float64 c, Float64& pdfH) const;
    /// The analytic drawn cosine for the uniform number u.
    Float64 AnalyticCosine(Float64 u) const;
};

using BeckmannBRDFImpl = MicrofacetBSDFImpl<MICROFACET::BECKMANN, false>;
using BeckmannBTDFImpl = MicrofacetBSDFImpl<MICROFACET::BECKMANN, true>;
using GGXBRDFImpl = MicrofacetBSDFImpl<MICROFACET::GGX, false>;
using GGXBTDFImpl = MicrofacetBSDFImpl<MICROFACET::GGX, true>;
using PhongBRDFImpl = MicrofacetBSDFImpl<MICROFACET::PHONG, false>;
using PhongBTDFImpl = MicrofacetBSDFImpl<MICROFACET::PHONG, true>;
using WardBRDFImpl = MicrofacetBSDFImpl<MICROFACET::WARD, false>;
using WardBTDFImpl = MicrofacetBSDFImpl<MICROFACET::WARD, true>;

/// The V-cavity masking of Ward (and of the anisotropic classes): 1.0 if wo.h or wi.h is
/// exactly 0, else min(1, min(|wo.z| 2|h.z| / |wo.h|, 2|h.z| |wi.z| / |wi.h|)).
Float64 VCavityMasking(const Vector64& wo, const Vector64& wi, const Vector64& h);

}  // namespace quorv
