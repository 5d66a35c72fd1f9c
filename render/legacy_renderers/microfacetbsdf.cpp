// The microfacet classes: one Torrance-style frame (reflection or refraction) around five
// distributions, Beckmann, GGX, Phong, Ward and the anisotropic half-vector lobe.
#include <algorithm>
#include <cmath>
#include <limits>

#include "render/legacy_renderers/bsdf_impl.h"
#include "render/legacy_renderers/bsdf_math.h"

namespace quorv {

Float64 VCavityMasking(const Vector64& wo, const Vector64& wi, const Vector64& h) {
    const Float64 a = Dot(wo, h);
    const Float64 b = Dot(wi, h);
    if (a == 0.0 || b == 0.0) return 1.0;
    const Float64 p = 2.0 * std::fabs(h.z);
    const Float64 g1 = p * std::fabs(wi.z) / std::fabs(b);
    const Float64 g2 = std::fabs(wo.z) * p / std::fabs(a);
    return std::min(1.0, std::min(g2, g1));
}

template <MICROFACET D, bool TRANSMIT>
MicrofacetBSDFImpl<D, TRANSMIT>::MicrofacetBSDFImpl() {
    if constexpr (ANISOTROPIC) {
        // NaN like the lobe keys: the first Init always computes, even with no keys at all.
        distribution.roughness = std::numeric_limits<Float64>::quiet_NaN();
        BSDFRandom seeded;
        seeded.Seed(BSDF_RANDOM_SEED);
        this->random.state = seeded.state;
    }
}

namespace {

// clamp((1 - r^3) / r^3 * 4, 1e-6, 100000): the exponent of a roughness; r = 0 gives the top.
Float64 AnisotropicExponent(Float64 r) {
    const Float64 r3 = r * r * r;
    return std::clamp((1.0 - r3) / r3 * 4.0, 1e-6, 100000.0);
}

}  // namespace

template <MICROFACET D, bool TRANSMIT>
Result<void> MicrofacetBSDFImpl<D, TRANSMIT>::Init(const DataDictionary& params, const void*) {
    MicrofacetDistribution& m = distribution;
    if constexpr (ANISOTROPIC) {
        const Float64 r = params.Get<Float64>(DataDictionaryKey(BSDF_PARAM_ROUGHNESS), 0.0);
        const Float64 a = params.Get<Float64>(DataDictionaryKey(BSDF_PARAM_ANISOTROPY), 0.0);
        const Float64 angle =
            params.Get<Float64>(DataDictionaryKey(BSDF_PARAM_ANISOTROPY_ANGLE), 0.0);
        if (r == m.roughness && a == this->anisotropy && angle == this->angle) return OK;
        m.roughness = r;
        this->anisotropy = a;
        const Float64 q = std::clamp(r * (1.0 - a), 0.001, 1.0);
        // From r itself, not from a clamped r: roughness 0 takes the upper clamp.
        const Float64 eu = AnisotropicExponent(r);
        const Float64 ev = AnisotropicExponent(q);
        this->exponentU = eu;
        this->exponentV = ev;
        this->isAnisotropic = eu != ev;
        this->exponentRatio = this->isAnisotropic ? std::sqrt((eu + 1.0) / (ev + 1.0)) : 1.0;
        this->normPlus1 = std::sqrt((eu + 1.0) * (ev + 1.0));
        this->normPlus2 = std::sqrt((eu + 2.0) * (ev + 2.0));
        m.mipLimit = std::exp2(-1.0 / (std::max(eu, ev) + 1.0));
        // The angle is kept with its sine and cosine but turns nothing: the frame's tangent
        // comes from ComputeBSDFFrame alone, and existing materials look as they always did.
        this->angle = angle;
        this->sinAngle = std::sin(angle);
        this->cosAngle = std::cos(angle);
        return OK;
    }
    // Phong has no table and takes no cache.
    if constexpr (D != MICROFACET::PHONG) m.cache = ReadDistributionCache(params);
    m.roughness = params.Get<Float64>(DataDictionaryKey(BSDF_PARAM_ROUGHNESS), 0.0);
    const Float64 c = std::clamp(m.roughness, 0.001, 1.0);
    const Float64 cube = c * c * c;
    // Deliberate: the rows follow the roughness that last changed the cube, not this one.
    if (cube == m.roughnessCube) return OK;
    m.roughnessCube = cube;
    if constexpr (D == MICROFACET::PHONG) {
        const Float64 e = std::clamp((1.0 - cube) / cube * 4.0, 1e-6, 100000.0);
        m.alpha = e;
        m.mipLimit = std::exp2(-1.0 / (e + 1.0));
    } else {
        const Float64 t = (1.0 - cube) / cube * 4.0;
        const Float64 w = std::clamp(std::sqrt(2.0 / (t + 2.0)), 1e-7, 1.0);
        m.alpha = w;
        m.alpha2 = w * w;
        if constexpr (D == MICROFACET::BECKMANN) {
            // A difference under the root where the others have a sum: deliberate, the
            // texture level choice of existing scenes depends on it.
            m.mipLimit = 1.0 / std::sqrt(1.0 - 0.6931471805599453 * m.alpha2);
        } else if constexpr (D == MICROFACET::GGX) {
            m.mipLimit = 1.0 / std::sqrt(m.alpha2 + 1.0);
        } else {
            const Float64 q = w * 0.8325546111576978;
            m.mipLimit = 1.0 / std::sqrt(1.0 + q * q);
        }
    }
    const Int row = SamplerCacheRow(m.roughness);
    m.rowD = row * SamplerCache::VALUE_ROW;
    m.rowInverse = row * SamplerCache::INVERSE_ROW;
    return OK;
}

template <MICROFACET D, bool TRANSMIT>
Float64 MicrofacetBSDFImpl<D, TRANSMIT>::AnalyticD(Float64 c, Float64& pdfH) const {
    const Float64 m = distribution.alpha;
    if (c < 1e-16) {
        pdfH = 0.0;
        return 0.0;
    }
    if constexpr (D == MICROFACET::PHONG) {
        const Float64 p = std::pow(c, m);
        pdfH = p * (m + 1.0) / BSDF_2PI;
        return p * (m + 2.0) / BSDF_2PI;
    } else {
        const Float64 c2 = c * c;
        const Float64 q = 1.0 - c2;
        const Float64 t = q > 0.0 ? std::sqrt(q) / c : 0.0;
        const Float64 m2 = distribution.alpha2;
        Float64 d;
        if constexpr (D == MICROFACET::BECKMANN) {
            const Float64 r = t / m;
            d = std::exp(-(r * r)) / (BSDF_PI * m2 * (c2 * c2));
        } else if constexpr (D == MICROFACET::GGX) {
            const Float64 r = m / (c2 * (t * t + m2));
            d = r * r / BSDF_PI;
        } else {
            const Float64 r = t / m;
            d = std::exp(-(r * r)) / (BSDF_PI * m2 * (c2 * c));
        }
        pdfH = d;
        return d;
    }
}

template <MICROFACET D, bool TRANSMIT>
Float64 MicrofacetBSDFImpl<D, TRANSMIT>::AnalyticCosine(Float64 u) const {
    const Float64 m = distribution.alpha;
    if constexpr (D == MICROFACET::BECKMANN) {
        return std::cos(std::atan(std::sqrt(-distribution.alpha2 * std::log(1.0 - u))));
    } else if constexpr (D == MICROFACET::GGX) {
        return 1.0 / std::sqrt(distribution.alpha2 * u / (1.0 - u) + 1.0);
    } else {
        return std::cos(std::atan(m * std::sqrt(-std::log(1.0 - u))));
    }
}

template <MICROFACET D, bool TRANSMIT>
Float64 MicrofacetBSDFImpl<D, TRANSMIT>::Evaluate(const Vector64& h, Bool useCache,
                                                  Float64& pdfH) const {
    if constexpr (ANISOTROPIC) {
        if (h.z < 1e-16) {
            pdfH = 0.0;
            return 0.0;
        }
        const Float64 c = std::fabs(h.z);
        const Float64 p = c >= 0.9999999999999999
                              ? 0.0
                              : (this->exponentU * (h.x * h.x) + this->exponentV * (h.y * h.y)) /
                                    std::max(0.0, 1.0 - c * c);
        const Float64 b = std::pow(c, p) / BSDF_2PI;
        pdfH = this->normPlus1 * b;
        return b * this->normPlus2;
    } else if constexpr (D == MICROFACET::PHONG) {
        return AnalyticD(std::fabs(h.z), pdfH);
    } else {
        const Float64 c = h.z;
        const SamplerCache* cache = distribution.cache;
        // The peak of a narrow lobe (c >= 0.999) is always analytic.
        if (!useCache || !cache || c >= 0.999) return AnalyticD(c, pdfH);
        // The interpolation goes in as a lambda, not as the function itself: given the function,
        // the lookup holds a pointer and calls through it on every evaluation; a lambda's type
        // names the call, so it is inlined (same operations, same bits).
        const Float64 d = SamplerCacheLookup(
            *cache, distribution.rowD, c,
            [this](Float64 c0) {
                Float64 unused;
                return AnalyticD(c0, unused);
            },
            [](Float32 e0, Float32 e1, Float32 f) { return SamplerCacheLerp(e0, e1, f); });
        pdfH = d;
        return d;
    }
}

template <MICROFACET D, bool TRANSMIT>
void MicrofacetBSDFImpl<D, TRANSMIT>::Sample(const BSDFCachedSample& sample, Vector64& h,
                                             Float64& d, Float64& pdfH) const {
    if constexpr (ANISOTROPIC) {
        // u0 picks a quadrant and the position inside it.
        const Float64 u0 = sample.u0;
        Float64 x;
        int quadrant;
        if (u0 < 0.25) {
            x = 4.0 * u0;
            quadrant = 0;
        } else if (u0 < 0.5) {
            x = 4.0 * (0.5 - u0);
            quadrant = 1;
        } else if (u0 < 0.75) {
            x = 4.0 * (u0 - 0.5);
            quadrant = 2;
        } else {
            x = 4.0 * (1.0 - u0);
            quadrant = 3;
        }
        const Float64 eu = this->exponentU, ev = this->exponentV;
        Float64 phi = this->isAnisotropic
                          ? std::atan(this->exponentRatio * std::tan(x * BSDF_PI / 2.0))
                          : x * BSDF_PI / 2.0;
        const Float64 cp = std::cos(phi), sp = std::sin(phi);
        const Float64 n = eu * (cp * cp) + ev * (sp * sp) + 1.0;
        const Float64 c = std::pow(static_cast<Float64>(sample.u1), 1.0 / n);
        if (quadrant == 1)
            phi = BSDF_PI - phi;
        else if (quadrant == 2)
            phi = BSDF_PI + phi;
        else if (quadrant == 3)
            phi = BSDF_2PI - phi;
        const Float64 s2 = std::max(0.0, 1.0 - c * c);
        const Float64 s = std::sqrt(s2);
        h = {s * std::cos(phi), s * std::sin(phi), c};
        const Float64 sq = s * s;
        const Float64 p = sq > 1e-16 ? (eu * (h.x * h.x) + ev * (h.y * h.y)) / sq : 0.0;
        const Float64 b = std::pow(c, p) / BSDF_2PI;
        d = this->normPlus2 * b;
        pdfH = b * this->normPlus1;
    } else if constexpr (D == MICROFACET::PHONG) {
        const Float64 e = distribution.alpha;
        const Float64 c = std::pow(static_cast<Float64>(sample.u0), 1.0 / (e + 1.0));
        const Float64 s = std::sqrt(std::max(0.0, 1.0 - c * c));
        const Float64 phi = static_cast<Float64>(sample.u1) * BSDF_2PI;
        h = {std::cos(phi) * s, std::sin(phi) * s, c};
        d = AnalyticD(c, pdfH);
    } else {
        Float64 c;
        if (distribution.cache) {
            c = SamplerCacheInverse(*distribution.cache, distribution.rowInverse,
                                    static_cast<Float64>(sample.u1),
                                    [this](Float64 u) { return AnalyticCosine(u); });
        } else {
            // Clamped so that the draw never takes the logarithm of 0.
            c = AnalyticCosine(std::min(static_cast<Float64>(sample.u1), 0.99999));
        }
        const Float64 s = std::sqrt(std::max(0.0, 1.0 - c * c));
        h = {static_cast<Float64>(sample.cosPhi) * s, static_cast<Float64>(sample.sinPhi) * s, c};
        d = Evaluate(h, true, pdfH);
    }
}

template <MICROFACET D, bool TRANSMIT>
Float64 MicrofacetBSDFImpl<D, TRANSMIT>::Masking(const Vector64& wo, const Vector64& wi,
                                                 const Vector64& h) const {
    if constexpr (D == MICROFACET::WARD || ANISOTROPIC) {
        return VCavityMasking(wo, wi, h);
    } else {
        const Float64 m = distribution.alpha;
        auto g1 = [&](const Vector64& v) -> Float64 {
            if (!(v.z * h.z > 0.0)) return 0.0;
            const Float64 q = 1.0 - v.z * v.z;
            const Float64 t = q > 0.0 ? std::fabs(std::sqrt(q) / v.z) : 0.0;
            if (t < 1e-16) return 1.0;
            if constexpr (D == MICROFACET::BECKMANN) {
                const Float64 a = 1.0 / (t * m);
                return a > 1.6 ? 1.0 : RationalG1(a);
            } else if constexpr (D == MICROFACET::PHONG) {
                // >= here against > for Beckmann: deliberate, kept for identical values.
                const Float64 a = std::sqrt(1.0 + 0.5 * m) / t;
                return a >= 1.6 ? 1.0 : RationalG1(a);
            } else {
                const Float64 r = t * m;
                return 2.0 / (1.0 + std::sqrt(1.0 + r * r));
            }
        };
        const Float64 first = g1(wi);
        return first * g1(wo);
    }
}

template <MICROFACET D, bool TRANSMIT>
Color64 MicrofacetBSDFImpl<D, TRANSMIT>::SampleF(const Vector64& wo, const Vector64&,
                                                 const BSDFCachedSample& sample, Vector64& wi,
                                                 Float64& pdf) const {
    Vector64 h;
    Float64 d, pdfH;
    Sample(sample, h, d, pdfH);
    pdf = 0.0;
    if (d < 1e-16) return ZERO_COLOR;
    if (h.z < 0.0) h = Negate(h);
    if constexpr (!TRANSMIT) {
        wi = Reflect(wo, h);
        const Float64 c = wo.z * wi.z;
        if (!(c > 0.0) || std::fabs(c) < 1e-16) return ZERO_COLOR;
        const Float64 q = Dot(wo, h);
        if (q < 1e-16) return ZERO_COLOR;
        pdf = pdfH / (std::fabs(q) * 4.0);
        const Float64 v = Masking(wo, wi, h) * (d * BSDF_PI) / (std::fabs(c) * 4.0);
        return {v, v, v};
    } else {
        const bool above = wo.z > 0.0;
        const Float64 eta = above ? iorOutside / iorInside : iorInside / iorOutside;
        const Float64 q = Dot(wo, h);
        const Float64 s2 = std::max(0.0, 1.0 - q * q);
        const Float64 e2s2 = eta * eta * s2;
        // Total internal reflection: wi stays as the caller left it.
        if (e2s2 >= 1.0) return ZERO_COLOR;
        const Float64 t = eta * q - std::sqrt(1.0 - e2s2);
        wi = {t * h.x - eta * wo.x, t * h.y - eta * wo.y, t * h.z - eta * wo.z};
        const Float64 c = wi.z * wo.z;
        if (c > 0.0 || std::fabs(c) < 1e-16) return ZERO_COLOR;
        if (std::fabs(q) < 1e-16) return ZERO_COLOR;
        const Float64 k = Dot(wi, h);
        const Float64 etaT = above ? iorInside / iorOutside : iorOutside / iorInside;
        const Float64 denom = etaT * k + q;
        // Multiplied by denom where a textbook divides once more: deliberate, the jacobian is
        // |k etaT^2| up to rounding and the densities of existing renders depend on it.
        const Float64 jacobian = std::fabs(denom * ((k * (etaT * etaT)) / denom));
        pdf = pdfH * jacobian;
        const Float64 g = Masking(wo, Negate(wi), h);
        const Float64 etaP = 1.0 / etaT;
        // c is signed, so a transmitted value is negative; callers expect the sign.
        const Float64 v = etaP * (etaP * (std::fabs(q) * (jacobian * (g * (d * BSDF_PI))))) / c;
        return {v, v, v};
    }
}

template <MICROFACET D, bool TRANSMIT>
Color64 MicrofacetBSDFImpl<D, TRANSMIT>::ComputeBSDF(const Vector64& wo, const Vector64& wiSide,
                                                     const Vector64& wi, Float64& pdf) const {
    pdf = 0.0;
    const Float64 c = wo.z * wiSide.z;
    if constexpr (!TRANSMIT) {
        if (std::fabs(c) < 1e-16 || !(c > 0.0)) return ZERO_COLOR;
        const Vector64 sum = Add(wo, wi);
        if (sum.x == 0.0 && sum.y == 0.0 && sum.z == 0.0) return ZERO_COLOR;
        Vector64 h = Normalize(sum);
        if (h.z < 0.0) h = Negate(h);
        const Float64 q = std::fabs(Dot(wo, h));
        if (q < 1e-16) return ZERO_COLOR;
        Float64 pdfH;
        const Float64 d = Evaluate(h, true, pdfH);
        if (d < 1e-16) return ZERO_COLOR;
        pdf = pdfH / (q * 4.0);
        const Float64 v = d * BSDF_PI * Masking(wo, wi, h) / (std::fabs(c) * 4.0);
        return {v, v, v};
    } else {
        if (c > 0.0 || std::fabs(c) < 1e-16) return ZERO_COLOR;
        const Float64 etaT = wo.z > 0.0 ? iorInside / iorOutside : iorOutside / iorInside;
        const Vector64 sum{wo.x + etaT * wi.x, wo.y + etaT * wi.y, wo.z + etaT * wi.z};
        if (sum.x == 0.0 && sum.y == 0.0 && sum.z == 0.0) return ZERO_COLOR;
        Vector64 h = Normalize(sum);
        if (h.z < 0.0) h = Negate(h);
        const Float64 woh = Dot(wo, h);
        const Float64 q = std::fabs(woh);
        if (q < 1e-16) return ZERO_COLOR;
        Float64 pdfH;
        const Float64 d = Evaluate(h, true, pdfH);
        if (d < 1e-16) return ZERO_COLOR;
        const Float64 k = Dot(wiSide, h);
        const Float64 denom = etaT * k + woh;
        const Float64 jacobian = std::fabs(denom * ((k * (etaT * etaT)) / denom));
        const Float64 g = Masking(wo, Negate(wi), h);
        pdf = jacobian * pdfH;
        const Float64 etaP = 1.0 / etaT;
        const Float64 v = etaP * (etaP * (q * (jacobian * (g * (d * BSDF_PI))))) / c;
        return {v, v, v};
    }
}

template <MICROFACET D, bool TRANSMIT>
Float64 MicrofacetBSDFImpl<D, TRANSMIT>::PdfIndirect(const Vector64& wo, const Vector64& wi) const {
    const Float64 c = wo.z * wi.z;
    if (std::fabs(c) < 1e-16 || !(c > 0.0)) return 0.0;
    const Vector64 sum = Add(wo, wi);
    if (sum.x == 0.0 && sum.y == 0.0 && sum.z == 0.0) return 0.0;
    Vector64 h = Normalize(sum);
    if (h.z < 0.0) h = Negate(h);
    const Float64 q = std::fabs(Dot(wo, h));
    if (q < 1e-16) return 0.0;
    Float64 pdfH;
    const Float64 d = Evaluate(h, true, pdfH);
    if (d < 1e-16) return 0.0;
    return pdfH / (q * 4.0);
}

template <MICROFACET D, bool TRANSMIT>
Result<void> MicrofacetBSDFImpl<D, TRANSMIT>::Update(const void* data, UInt32 type) {
    if constexpr (ANISOTROPIC) {
        if (!data) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "Illegal argument: Illegal state in AnisotropicBxDF::Update. data is "
                             "nullptr");
        }
        if (type != BSDF_UPDATE_SCRATCH) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "Illegal argument: Illegal state in AnisotropicBxDF::Update. type is "
                             "wrong ");
        }
        AnisotropicScratchData s = *static_cast<const AnisotropicScratchData*>(data);
        auto inverse = [](Float64 x) { return 1.0 / std::max(x, 0.0001); };
        s.scale = inverse(s.scale);
        s.frequencyU = inverse(s.frequencyU);
        s.stretchU = inverse(s.stretchU);
        s.frequencyV = inverse(s.frequencyV);
        s.stretchV = inverse(s.stretchV);
        this->scratch = s;
        this->sinTilt = std::sin(s.tilt);
        this->cosTilt = std::cos(s.tilt);
        this->scratchU = (s.channels | 2) == 3 && s.amplitudeU > 0.0;
        this->scratchV = (s.channels & 254) == 2 && s.amplitudeV > 0.0;
        this->active = true;
        return OK;
    } else {
        return BSDFLegacyDefaults::Update(data, type);
    }
}

template <MICROFACET D, bool TRANSMIT>
BSDFFrame MicrofacetBSDFImpl<D, TRANSMIT>::ComputeBSDFFrame(const Vector64& n, const Vector64& u,
                                                            const Vector64& v,
                                                            const Vector64& position, Bool fast,
                                                            Bool world, Bool useGivenFrame) const {
    if constexpr (ANISOTROPIC) {
        // A short tangent or no given frame: build (u, v) by the shared rule and go on.
        BSDFFrame f{n, u, v};
        if (Dot(u, u) < 0.9999999 || Dot(v, v) < 0.9999999 || !useGivenFrame) {
            f = ComputeSharedBSDFFrame(n, u, v, false);
        }
        if (!(distribution.roughness > 0.0) || !this->active) return f;
        return ComputeScratchFrame(*this, f.n, f.u, f.v, position, fast, world);
    } else {
        return ComputeSharedBSDFFrame(n, u, v, useGivenFrame);
    }
}

template struct MicrofacetBSDFImpl<MICROFACET::BECKMANN, false>;
template struct MicrofacetBSDFImpl<MICROFACET::BECKMANN, true>;
template struct MicrofacetBSDFImpl<MICROFACET::GGX, false>;
template struct MicrofacetBSDFImpl<MICROFACET::GGX, true>;
template struct MicrofacetBSDFImpl<MICROFACET::PHONG, false>;
template struct MicrofacetBSDFImpl<MICROFACET::PHONG, true>;
template struct MicrofacetBSDFImpl<MICROFACET::WARD, false>;
template struct MicrofacetBSDFImpl<MICROFACET::WARD, true>;
template struct MicrofacetBSDFImpl<MICROFACET::ANISOTROPIC, false>;
template struct MicrofacetBSDFImpl<MICROFACET::ANISOTROPIC, true>;

namespace {

ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});

using I = BSDFLegacyInterface;
constexpr const char* R = BSDF_LEGACY_CLASS_REGISTRY_ID;
SimpleClass<BeckmannBRDFImpl, I> g_beckmannBrdf(g_unit, BECKMANN_BRDF_CLASS_ID, R, __FILE__);
SimpleClass<BeckmannBTDFImpl, I> g_beckmannBtdf(g_unit, BECKMANN_BTDF_CLASS_ID, R, __FILE__);
SimpleClass<GGXBRDFImpl, I> g_ggxBrdf(g_unit, GGX_BRDF_CLASS_ID, R, __FILE__);
SimpleClass<GGXBTDFImpl, I> g_ggxBtdf(g_unit, GGX_BTDF_CLASS_ID, R, __FILE__);
SimpleClass<PhongBRDFImpl, I> g_phongBrdf(g_unit, PHONG_BRDF_CLASS_ID, R, __FILE__);
SimpleClass<PhongBTDFImpl, I> g_phongBtdf(g_unit, PHONG_BTDF_CLASS_ID, R, __FILE__);
SimpleClass<WardBRDFImpl, I> g_wardBrdf(g_unit, WARD_BRDF_CLASS_ID, R, __FILE__);
SimpleClass<WardBTDFImpl, I> g_wardBtdf(g_unit, WARD_BTDF_CLASS_ID, R, __FILE__);
SimpleClass<AnisotropicBRDFImpl, I> g_anisotropicBrdf(g_unit, ANISOTROPIC_BRDF_CLASS_ID, R,
                                                      __FILE__);
SimpleClass<AnisotropicBTDFImpl, I> g_anisotropicBtdf(g_unit, ANISOTROPIC_BTDF_CLASS_ID, R,
                                                      __FILE__);

}  // namespace

}  // namespace quorv
