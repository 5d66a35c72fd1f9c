#pragma once
// Private to the legacy BSDF classes (and their white-box tests): the state of each class and
// the pieces the classes share. The public face is bsdf_legacy.h.

#include <algorithm>
#include <atomic>
#include <limits>
#include <type_traits>

#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/bsdfdata.h"
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
enum class MICROFACET : Int32 { BECKMANN = 0, GGX = 1, PHONG = 2, WARD = 3, ANISOTROPIC = 4 };

/// A random state of the BSDF generator that evaluation steps without a lock: one relaxed
/// atomic load and one relaxed store per step. Threads that step together may draw the same
/// number or skip one; the values stay those of the generator, and the order between threads
/// is not defined (the jitter it feeds only needs noise).
struct UnlockedRandom {
    UInt32 state = 0;

    /// Steps and returns the new state.
    UInt32 Step() const {
        std::atomic_ref<UInt32> word(const_cast<UInt32&>(state));
        const UInt32 next = (word.load(std::memory_order_relaxed) * 69069u + 69069u) & 0x7fffffffu;
        word.store(next, std::memory_order_relaxed);
        return next;
    }
};

/// The state only the anisotropic classes have: the lobe beyond the distribution record, the
/// random state of the scratch jitter and the kept scratch record.
struct AnisotropicState {
    // NaN, so that a first Init with every key absent (all zero) still computes.
    Float64 anisotropy = std::numeric_limits<Float64>::quiet_NaN();
    Float64 angle = std::numeric_limits<Float64>::quiet_NaN();  ///< stored, never applied
    Float64 sinAngle = 0.0;
    Float64 cosAngle = 0.0;
    Float64 exponentU = 0.0;
    Float64 exponentV = 0.0;
    Float64 exponentRatio = 0.0;
    Float64 normPlus1 = 0.0;
    Float64 normPlus2 = 0.0;
    Bool isAnisotropic = false;
    UnlockedRandom random;           ///< seeded with 100 by the constructor
    AnisotropicScratchData scratch;  ///< as `Update` keeps it (reciprocals where stated)
    Float64 sinTilt = 0.0;
    Float64 cosTilt = 1.0;
    Bool scratchU = false;
    Bool scratchV = false;
    Bool active = false;  ///< false until the first Update: the frame is the plain one
};

/// What the other microfacet classes have in its place.
struct NoAnisotropicState {};

/// A microfacet class: distribution D, reflecting (BRDF) or refracting.
template <MICROFACET D, bool TRANSMIT>
struct MicrofacetBSDFImpl
    : BSDFLegacyDefaults,
      std::conditional_t<D == MICROFACET::ANISOTROPIC, AnisotropicState, NoAnisotropicState> {
    static constexpr bool ANISOTROPIC = D == MICROFACET::ANISOTROPIC;

    MicrofacetDistribution distribution;
    Float64 iorOutside = 1.0;
    Float64 iorInside = 1.5;

    MicrofacetBSDFImpl();
    Result<void> Init(const DataDictionary& params, const void* data);
    /// The scratch record (type 2048) for the anisotropic classes; the others succeed.
    Result<void> Update(const void* data, UInt32 type);
    /// The shared rule, and for the anisotropic classes the scratch frame.
    BSDFFrame ComputeBSDFFrame(const Vector64& n, const Vector64& u, const Vector64& v,
                               const Vector64& position, Bool fast, Bool world,
                               Bool useGivenFrame) const;
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) const;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) const;
    /// The reflection density for both kinds, so 0.0 for a transmitted pair.
    Float64 PdfIndirect(const Vector64& wo, const Vector64& wi) const;
    Float64 ComputeMIPAngle(Float64 angle) const {
        if constexpr (ANISOTROPIC) {
            if (distribution.roughness < 0.01) return angle;
            return std::min(distribution.mipLimit, angle);
        }
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
using AnisotropicBRDFImpl = MicrofacetBSDFImpl<MICROFACET::ANISOTROPIC, false>;
using AnisotropicBTDFImpl = MicrofacetBSDFImpl<MICROFACET::ANISOTROPIC, true>;

/// The scratch frame of the anisotropic classes: the tangent frame (n, u, v) turned and the
/// normal bent by the scratch pattern at `position`. `state` supplies the kept record and the
/// random state; at most 128 jitter samples per side of a channel, 4 when `fast`.
BSDFFrame ComputeScratchFrame(const AnisotropicState& state, const Vector64& n, const Vector64& u,
                              const Vector64& v, const Vector64& position, Bool fast, Bool world);

/// "net.quorv.render.bsdflegacyclass.irawanbrdf": woven cloth from a weave pattern, sampled
/// like Lambert and evaluated by Monte Carlo over the texture footprint.
struct IrawanBRDFImpl : BSDFLegacyDefaults {
    UnlockedRandom random{100};  ///< raw state 100, no seeding step
    Color64 warpDiffuse;
    Color64 warpSpecular;
    Color64 weftDiffuse;
    Color64 weftSpecular;
    Vector64 uvw;
    Vector64 uvwDelta;
    Float64 rotation = 0.0;
    Float64 sinRotation = 0.0;
    Float64 cosRotation = 0.0;
    Float64 invScaleU = 0.0;
    Float64 invScaleV = 0.0;
    Float64 blur = 0.0;
    ClothWeavePatternRef pattern;

    Result<void> Init(const DataDictionary& params, const void* data);
    Result<void> Reset();
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) const;
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) const;
    Color64 ComputeF_UVW(const Vector64& wo, const Vector64& wi, const Vector64& uvw,
                         const Vector64& delta) const;
    Float64 PdfIndirect(const Vector64& wo, const Vector64& wi) const;
    Result<void> GeneratePreviewImage(ImageObject* image, Float64 gain);
};

/// The V-cavity masking of Ward (and of the anisotropic classes): 1.0 if wo.h or wi.h is
/// exactly 0, else min(1, min(|wo.z| 2|h.z| / |wo.h|, 2|h.z| |wi.z| / |wi.h|)).
Float64 VCavityMasking(const Vector64& wo, const Vector64& wi, const Vector64& h);

}  // namespace quorv
