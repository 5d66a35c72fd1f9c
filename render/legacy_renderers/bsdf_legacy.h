#pragma once
/// The legacy BSDF interface "net.quorv.render.interface.bsdflegacy" and what its classes
/// share: the Init keys, the precomputed sample record, the pseudo-random generator and the
/// frame rule.
///
/// A renderer creates a class by id from "net.quorv.render.registry.bsdflegacyclasses", calls
/// `Init` once per material and then the evaluation operations per shading sample:
///
///     Result<ObjectRef> o = CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID),
///                                            LiteralId(GGX_BRDF_CLASS_ID));
///     BSDFLegacyRef bsdf = BSDFLegacyRef::Cast(o.GetValue()).GetValue();
///     bsdf.Init(parameters, nullptr);
///     Color64 f = bsdf.ComputeBSDF(wo, wi, wi, pdf);
///
/// Directions are in the local frame of the shading point, +z the normal. `SampleF` and
/// `ComputeBSDF` return pi times the BSDF without the cosine of the incoming direction (a
/// Lambert surface gives 1.0 with density |z| / pi); the value is never divided by the
/// density. A rejected direction gives value (0, 0, 0) and density 0.0, and is no error.
///
/// Thread safety: after `Init` the evaluation operations only read the object (cache entries
/// apart, see microfacetdistributioncaches.h) and take no lock; `Init` must run alone.

#include <cmath>

#include "quorv/classes.h"
#include "quorv/datadictionary.h"

namespace quorv {

struct ImageObject;  ///< a host image; only the cloth class draws into one

/// Registry of the legacy BSDF classes.
constexpr const char* BSDF_LEGACY_CLASS_REGISTRY_ID = "net.quorv.render.registry.bsdflegacyclasses";
constexpr const char* LAMBERT_BRDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.lambertbrdf";
constexpr const char* ORENNAYAR_BRDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.orennayarbrdf";
constexpr const char* BLURRYSIMPLE_BRDF_CLASS_ID =
    "net.quorv.render.bsdflegacyclass.blurrysimplebrdf";
constexpr const char* BLURRYSPECULAR_BRDF_CLASS_ID =
    "net.quorv.render.bsdflegacyclass.blurryspecularbrdf";
constexpr const char* BECKMANN_BRDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.beckmannbrdf";
constexpr const char* BECKMANN_BTDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.beckmannbtdf";
constexpr const char* GGX_BRDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.ggxbrdf";
constexpr const char* GGX_BTDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.ggxbtdf";
constexpr const char* PHONG_BRDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.phongbrdf";
constexpr const char* PHONG_BTDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.phongbtdf";
constexpr const char* WARD_BRDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.wardbrdf";
constexpr const char* WARD_BTDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.wardbtdf";
constexpr const char* IRAWAN_BRDF_CLASS_ID = "net.quorv.render.bsdflegacyclass.irawanbrdf";
constexpr const char* ANISOTROPIC_BRDF_CLASS_ID =
    "net.quorv.render.bsdflegacyclass.anisotropicbrdf";
constexpr const char* ANISOTROPIC_BTDF_CLASS_ID =
    "net.quorv.render.bsdflegacyclass.anisotropicbtdf";

/// The registered classes, in registration order.
constexpr const char* const BSDF_LEGACY_CLASS_IDS[] = {
    LAMBERT_BRDF_CLASS_ID,      ORENNAYAR_BRDF_CLASS_ID,
    BLURRYSIMPLE_BRDF_CLASS_ID, BLURRYSPECULAR_BRDF_CLASS_ID,
    BECKMANN_BRDF_CLASS_ID,     BECKMANN_BTDF_CLASS_ID,
    GGX_BRDF_CLASS_ID,          GGX_BTDF_CLASS_ID,
    PHONG_BRDF_CLASS_ID,        PHONG_BTDF_CLASS_ID,
    WARD_BRDF_CLASS_ID,         WARD_BTDF_CLASS_ID,
    IRAWAN_BRDF_CLASS_ID,       ANISOTROPIC_BRDF_CLASS_ID,
    ANISOTROPIC_BTDF_CLASS_ID};

/// Integer keys of `Init`'s dictionary. A missing key gives the default and no error.
/// `SamplerCachePointer` (microfacetdistributioncaches.h); default null: the analytic path.
constexpr Int32 BSDF_PARAM_DISTRIBUTION_CACHE = 1000;
constexpr Int32 BSDF_PARAM_ROUGHNESS = 1001;              ///< Float64, default 0.0
constexpr Int32 BSDF_PARAM_ANISOTROPY = 1002;             ///< Float64, default 0.0
constexpr Int32 BSDF_PARAM_ANISOTROPY_ANGLE = 1003;       ///< Float64, default 0.0
constexpr Int32 BSDF_PARAM_ORENNAYAR_ROUGHNESS = 1004;    ///< Float64, default 0.0
constexpr Int32 BSDF_PARAM_ORENNAYAR_SIMPLE = 1005;       ///< Bool, default false
constexpr Int32 BSDF_PARAM_BLURRY_REFLECTED_LOBE = 1017;  ///< Bool, default false
constexpr Int32 BSDF_PARAM_BLURRY_ROUGHNESS = 1018;       ///< Float64, default -1.0
constexpr Int32 BSDF_PARAM_BLURRY_FALLOFF_SHIFT = 1019;   ///< Float64, default 0.0
constexpr Int32 BSDF_PARAM_BLURRY_FALLOFF_POWER = 1020;   ///< Float64, default 0.0

/// Shared constants.
constexpr Float64 BSDF_PI = 3.141592653589793;
constexpr Float64 BSDF_INV_PI = 0.3183098861837907;
constexpr Float64 BSDF_INV_2PI = 0.15915494309189535;
constexpr Float64 BSDF_INV_4PI = 0.07957747154594767;
constexpr Float64 BSDF_2PI = 6.283185307179586;

/// One precomputed random sample ("net.quorv.render.bsdfcachedsample"), so that the per-sample
/// path needs no sine, cosine or root of its own.
struct BSDFCachedSample {
    UInt32 count = 4;         ///< never read by a BSDF
    Float32 u0 = 0.0f;        ///< first random number in [0, 1)
    Float32 u1 = 0.0f;        ///< second
    Float32 u2 = 0.0f;        ///< third
    Float32 power = 0.0f;     ///< pow(1 - 0.999 * u1, 0.841), in double
    Float32 sinPhi = 0.0f;    ///< sin(u0 * 6.2831855) in single precision
    Float32 cosPhi = 0.0f;    ///< cos(u0 * 6.2831855) in single precision
    Float32 cosTheta = 0.0f;  ///< sqrt(u1): cosine-weighted hemisphere
    Float32 sinTheta = 0.0f;  ///< sqrt(1 - u1)
};
static_assert(sizeof(BSDFCachedSample) == 36);
QUORV_DATATYPE_ID(BSDFCachedSample, "net.quorv.render.bsdfcachedsample");

/// The derived fields of a sample from its three random numbers. Roots, sine and cosine are
/// taken in Float32, `power` in Float64 from the Float32 `u1`. Inline: callers on the host side
/// build records the same way.
inline BSDFCachedSample MakeBSDFCachedSample(Float32 u0, Float32 u1, Float32 u2) {
    BSDFCachedSample s;
    s.u0 = u0;
    s.u1 = u1;
    s.u2 = u2;
    s.power = static_cast<Float32>(std::pow(1.0 - 0.999 * static_cast<Float64>(u1), 0.841));
    s.sinPhi = std::sin(u0 * 6.2831855f);
    s.cosPhi = std::cos(u0 * 6.2831855f);
    s.cosTheta = std::sqrt(u1);
    s.sinTheta = std::sqrt(1.0f - u1);
    return s;
}

/// The pseudo-random generator of the BSDFs: next = (state * 69069 + 69069) AND 0x7fffffff.
struct BSDFRandom {
    UInt32 state = 0;

    /// Seeds with `s`: the state is one generator step from `s`.
    void Seed(UInt32 s) { state = (s * 69069u + 69069u) & 0x7fffffffu; }
    /// Steps and returns state * 4.656612870908988e-10.
    Float64 Next() {
        state = (state * 69069u + 69069u) & 0x7fffffffu;
        return static_cast<Float64>(state) * 4.656612870908988e-10;
    }
    /// A sample from three steps: u0, u1, u2 in this order.
    BSDFCachedSample NextSample() {
        const Float32 u0 = static_cast<Float32>(Next());
        const Float32 u1 = static_cast<Float32>(Next());
        const Float32 u2 = static_cast<Float32>(Next());
        return MakeBSDFCachedSample(u0, u1, u2);
    }
};

/// The seed in use throughout.
constexpr UInt32 BSDF_RANDOM_SEED = 100;

/// A local frame: normal and two tangents.
struct BSDFFrame {
    Vector64 n;
    Vector64 u;
    Vector64 v;
};
static_assert(sizeof(BSDFFrame) == 72);

/// The frame rule every class but the anisotropic ones uses: (n, u, v) as passed when
/// `useGivenFrame` and both tangents have squared length at least 0.9999999; else w =
/// (-n.z, 0, n.x) / sqrt(n.x^2 + n.z^2) if |n.x| > |n.y|, otherwise (0, -n.z, n.y) /
/// sqrt(n.y^2 + n.z^2), and the frame (n, n x w, w).
BSDFFrame ComputeSharedBSDFFrame(const Vector64& n, const Vector64& u, const Vector64& v,
                                 Bool useGivenFrame);

// clang-format off
/// The operations of the legacy BSDF interface, in slot order (the order is part of the
/// interface).
#define QUORV_BSDFLEGACY_METHODS(M) \
    M(Result<void>, Init, (const DataDictionary& params, const void* data), (params, data)) \
    M(Result<void>, Update, (const void* data, UInt32 type), (data, type)) \
    M(Result<void>, Reset, (), ()) \
    M(Color64, SampleF, (const Vector64& wo, const Vector64& normal, \
                         const BSDFCachedSample& sample, Vector64& wi, Float64& pdf), \
      (wo, normal, sample, wi, pdf)) \
    M(Color64, ComputeBSDF, (const Vector64& wo, const Vector64& wiSide, const Vector64& wi, \
                             Float64& pdf), (wo, wiSide, wi, pdf)) \
    M(Color64, ComputeF_UVW, (const Vector64& wo, const Vector64& wi, const Vector64& uvw, \
                              const Vector64& delta), (wo, wi, uvw, delta)) \
    M(Float64, ComputeAngle, (const BSDFCachedSample& sample), (sample)) \
    M(Float64, PdfIndirect, (const Vector64& wo, const Vector64& wi), (wo, wi)) \
    M(Float64, ComputeMIPAngle, (Float64 angle), (angle)) \
    M(BSDFFrame, ComputeBSDFFrame, (const Vector64& n, const Vector64& u, const Vector64& v, \
                                     const Vector64& position, Bool fast, Bool world, \
                                     Bool useGivenFrame), \
      (n, u, v, position, fast, world, useGivenFrame)) \
    M(Result<void>, GeneratePreviewImage, (ImageObject* image, Float64 gain), (image, gain))
// clang-format on

/// The legacy BSDF interface. Through `BSDFLegacyRef`:
/// - `Init(params, data)`: per-material state from the keys above; `data` is read by the
///   cloth class only. A null dictionary gives the defaults.
/// - `Update(data, type)`: per-object data (anisotropic classes); others succeed.
/// - `Reset()`: back to the constructed state where a class owns state.
/// - `SampleF(wo, normal, sample, wi, pdf)`: draws `wi` from `sample` and returns its value;
///   `normal` is (0, 0, 1) and not read.
/// - `ComputeBSDF(wo, wiSide, wi, pdf)`: `wiSide` serves the hemisphere test and the cosine,
///   `wi` the half vector and masking; a caller with one direction passes it twice.
/// - `ComputeF_UVW(...)`: (1, 1, 1) except for cloth.
/// - `ComputeAngle(sample)`: the blurrysimple lobe cosine; 0.0 for the others.
/// - `PdfIndirect(wo, wi)`: the density alone.
/// - `ComputeMIPAngle(angle)`: the texture cone angle narrowed to what the lobe allows.
/// - `ComputeBSDFFrame(n, u, v, position, fast, world, useGivenFrame)`: the local frame;
///   `position`, `fast` and `world` are read by the anisotropic classes only.
/// - `GeneratePreviewImage(image, gain)`: the cloth class draws; the others do nothing.
QUORV_VIRTUAL_INTERFACE(BSDFLegacyInterface, "net.quorv.render.interface.bsdflegacy",
                        QUORV_BSDFLEGACY_METHODS);

/// A counted handle of a legacy BSDF instance.
using BSDFLegacyRef = BSDFLegacyInterface::Ref;

}  // namespace quorv
