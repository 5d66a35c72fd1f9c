// The legacy BSDF interface record, its two data types, the shared sample and frame rules,
// and the diffuse and blurry classes.
#include "render/legacy_renderers/bsdf_impl.h"

#include <algorithm>
#include <cmath>

#include "quorv/services.h"  // the definition of DataTypeOperationsOf
#include "render/legacy_renderers/bsdf_math.h"

namespace quorv {

BSDFFrame ComputeSharedBSDFFrame(const Vector64& n, const Vector64& u, const Vector64& v,
                                 Bool useGivenFrame) {
    if (useGivenFrame && Dot(u, u) >= 0.9999999 && Dot(v, v) >= 0.9999999) return {n, u, v};
    Vector64 w;
    if (std::fabs(n.x) > std::fabs(n.y)) {
        const Float64 l = std::sqrt(n.x * n.x + n.z * n.z);
        w = {-n.z / l, 0.0 / l, n.x / l};
    } else {
        const Float64 l = std::sqrt(n.y * n.y + n.z * n.z);
        w = {0.0 / l, -n.z / l, n.y / l};
    }
    const Vector64 t{n.y * w.z - n.z * w.y, n.z * w.x - n.x * w.z, n.x * w.y - n.y * w.x};
    return {n, t, w};
}

SamplerCache* ReadDistributionCache(const DataDictionary& params) {
    return params.Get<SamplerCachePointer>(DataDictionaryKey(BSDF_PARAM_DISTRIBUTION_CACHE), {})
        .cache;
}

namespace {

// The diffuse classes' draw: a cosine-weighted direction and its density |z|/pi. A direction
// within 1e-10 of the surface is rejected with pdf 0.
bool DrawDiffuse(const BSDFCachedSample& sample, Vector64& wi, Float64& pdf) {
    wi = CosineSample(sample);
    const Float64 z = std::fabs(wi.z);
    if (z < 1e-10) {
        pdf = 0.0;
        return false;
    }
    pdf = z / BSDF_PI;
    return true;
}

}  // namespace

// ---- Lambert ------------------------------------------------------------------------------

Color64 LambertBRDFImpl::SampleF(const Vector64&, const Vector64&, const BSDFCachedSample& sample,
                                 Vector64& wi, Float64& pdf) const {
    if (!DrawDiffuse(sample, wi, pdf)) return ZERO_COLOR;
    return {1.0, 1.0, 1.0};
}

Color64 LambertBRDFImpl::ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64&,
                                     Float64& pdf) const {
    const Float64 z = std::fabs(wiSide.z);
    if (wo.z * wiSide.z > 0.0 && z >= 1e-10) {
        pdf = z / BSDF_PI;
        return {1.0, 1.0, 1.0};
    }
    pdf = 0.0;
    return ZERO_COLOR;
}

Float64 LambertBRDFImpl::PdfIndirect(const Vector64&, const Vector64& wi) const {
    return std::fabs(wi.z) / BSDF_PI;
}

// ---- Oren-Nayar ---------------------------------------------------------------------------

Result<void> OrenNayarBRDFImpl::Init(const DataDictionary& params, const void*) {
    const Float64 s = params.Get<Float64>(DataDictionaryKey(BSDF_PARAM_ORENNAYAR_ROUGHNESS), 0.0);
    simple = params.Get<Bool>(DataDictionaryKey(BSDF_PARAM_ORENNAYAR_SIMPLE), false);
    sigma2 = s * s;
    a = 1.0 - sigma2 / (2.0 * (sigma2 + 0.33));
    b = 0.45 * sigma2 / (sigma2 + 0.09);
    c2Scale = sigma2 / (sigma2 + 0.09);
    // Algebraically `a`; kept as its own expression, which may differ in the last bit.
    c1 = 1.0 + (-0.5 * sigma2) / (sigma2 + 0.33);
    interreflection = 0.17 * sigma2 / (sigma2 + 0.13);
    return OK;
}

Result<void> OrenNayarBRDFImpl::Reset() {
    *this = OrenNayarBRDFImpl();
    return OK;
}

Float64 OrenNayarBRDFImpl::Value(const Vector64& o, const Vector64& i) const {
    if (sigma2 == 0.0) return 1.0;
    const Float64 qi = 1.0 - i.z * i.z;
    const Float64 qo = 1.0 - o.z * o.z;
    const Float64 sinI = qi > 0.0 ? std::sqrt(qi) : 0.0;
    const Float64 sinO = qo > 0.0 ? std::sqrt(qo) : 0.0;
    Float64 cosDelta = 0.0;
    if (sinI > 0.0001 && sinO > 0.0001) {
        const Float64 cosPhiI = std::clamp(i.x / sinI, -1.0, 1.0);
        const Float64 sinPhiI = std::clamp(i.y / sinI, -1.0, 1.0);
        const Float64 cosPhiO = std::clamp(o.x / sinO, -1.0, 1.0);
        const Float64 sinPhiO = std::clamp(o.y / sinO, -1.0, 1.0);
        cosDelta = cosPhiI * cosPhiO + sinPhiI * sinPhiO;
    }
    const bool incomingSteeper = std::fabs(i.z) > std::fabs(o.z);
    if (simple) {
        Float64 tanBeta = 0.0;
        Float64 sinAlpha = 0.0;
        if (incomingSteeper) {
            if (std::fabs(i.z) > 1e-16) {
                tanBeta = sinI / i.z;
                sinAlpha = sinO;
            }
        } else if (std::fabs(o.z) > 1e-16) {
            tanBeta = sinO / o.z;
            sinAlpha = sinI;
        }
        return a + b * std::max(cosDelta, 0.0) * sinAlpha * tanBeta;
    }
    const Float64 thetaI = i.z >= 1.0 ? 0.0 : (i.z <= -1.0 ? BSDF_PI : std::acos(i.z));
    const Float64 thetaO = o.z >= 1.0 ? 0.0 : (o.z <= -1.0 ? BSDF_PI : std::acos(o.z));
    Float64 sA = 0.0, sB = 0.0, tanBeta = 0.0;
    if (incomingSteeper) {
        if (std::fabs(i.z) > 1e-16) {
            sA = sinO;
            sB = sinI;
            tanBeta = sinI / i.z;
        }
    } else if (std::fabs(o.z) > 1e-16) {
        sA = sinI;
        sB = sinO;
        tanBeta = sinO / o.z;
    }
    const Float64 beta = thetaI < thetaO ? thetaI : thetaO;
    const Float64 alpha = thetaI < thetaO ? thetaO : thetaI;
    const Float64 x = 2.0 * beta / BSDF_PI;
    const Float64 x2 = x * x;
    const Float64 ab = alpha * beta * 0.40528473456935116;
    const Float64 cosA = std::sqrt(std::max(0.0, 1.0 - sA * sA));
    const Float64 cosB = std::sqrt(std::max(0.0, 1.0 - sB * sB));
    const Float64 c2 = cosDelta > 0.0 ? b * sA : b * (sA - x2 * x);
    const Float64 c3 = ab * ab * (c2Scale * 0.125);
    const Float64 tanHalf = (sB + sA) / std::max(cosA + cosB, 1e-16);
    // The association of the sums is fixed: the values are compared to the last bit.
    const Float64 inner = cosDelta * c2 * tanBeta + c1;
    return (inner + (1.0 - std::fabs(cosDelta)) * c3 * tanHalf) +
           (1.0 - cosDelta * x2) * interreflection;
}

Color64 OrenNayarBRDFImpl::SampleF(const Vector64& wo, const Vector64&,
                                   const BSDFCachedSample& sample, Vector64& wi,
                                   Float64& pdf) const {
    if (!DrawDiffuse(sample, wi, pdf)) return ZERO_COLOR;
    const Float64 v = Value(wo, wi);
    return {v, v, v};
}

Color64 OrenNayarBRDFImpl::ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64&,
                                       Float64& pdf) const {
    const Float64 z = std::fabs(wiSide.z);
    if (wo.z * wiSide.z > 0.0 && z >= 1e-10) {
        pdf = z / BSDF_PI;
        const Float64 v = Value(wo, wiSide);
        return {v, v, v};
    }
    pdf = 0.0;
    return ZERO_COLOR;
}

Float64 OrenNayarBRDFImpl::PdfIndirect(const Vector64&, const Vector64& wi) const {
    return std::fabs(wi.z) / BSDF_PI;
}

// ---- blurrysimple -------------------------------------------------------------------------

namespace {

// pow(c, e) * (e + 1) / (2 pi): the lobe without the factor 4.
Float64 BlurryLobe(Float64 c, Float64 e) { return std::pow(c, e) * (e + 1.0) / BSDF_2PI; }

}  // namespace

Result<void> BlurrySimpleBRDFImpl::Init(const DataDictionary& params, const void*) {
    cache = ReadDistributionCache(params);
    roughness = params.Get<Float64>(DataDictionaryKey(BSDF_PARAM_ROUGHNESS), 0.0);
    const Float64 c = std::clamp(roughness, 0.001, 1.0);
    cube = c * c * c;
    const Int row = SamplerCacheRow(roughness);
    rowD = static_cast<Int32>(row * SamplerCache::VALUE_ROW);
    rowInverse = static_cast<Int32>(row * SamplerCache::INVERSE_ROW);
    if (cube != 0.0) exponent = (1.0 - cube) / cube;
    return OK;
}

Result<void> BlurrySimpleBRDFImpl::Reset() {
    *this = BlurrySimpleBRDFImpl();
    return OK;
}

Color64 BlurrySimpleBRDFImpl::SampleF(const Vector64&, const Vector64&, const BSDFCachedSample&,
                                      Vector64& wi, Float64& pdf) const {
    wi = {0.0, 0.0, 0.0};
    pdf = 0.0;
    return ZERO_COLOR;
}

Color64 BlurrySimpleBRDFImpl::ComputeBSDF(const Vector64& wo, const Vector64&, const Vector64& wi,
                                          Float64& pdf) const {
    pdf = 0.0;
    const Float64 a = std::fabs(wi.z);
    if (a < 1e-10) return ZERO_COLOR;
    Float64 c = Dot(wo, wi);
    if (c <= 0.0) return ZERO_COLOR;
    c = std::min(c, 1.0);
    Float64 p;
    if (!cache || c > 0.999) {
        p = BlurryLobe(c, exponent) * 4.0;
    } else {
        const Float64 e = exponent;
        p = SamplerCacheLookup(
                *cache, rowD, c, [e](Float64 c0) { return BlurryLobe(c0, e); },
                [](Float32 e0, Float32 e1, Float32 f) { return (e1 - e0) * f + e0; }) *
            4.0;
    }
    pdf = p / BSDF_PI;
    const Float64 v = p / a;
    return {v, v, v};
}

Float64 BlurrySimpleBRDFImpl::ComputeAngle(const BSDFCachedSample& sample) const {
    const Float64 u1 = sample.u1;
    if (!cache) return std::pow(1.0 - u1, cube);
    const Float64 x = u1 * 1000.0;
    const Int k = SamplerCacheIndex(x);
    const Int j = std::min<Int>(k, 998) + 1;
    const Int base = SamplerCache::INVERSE_OFFSET + rowInverse;
    const Float64 cb = cube;
    auto value = [cb](Float64 g) { return std::pow(1.0 - g, cb); };
    Float32 e0 = cache->Load(base + k);
    Float32 e1 = cache->Load(base + j);
    e0 = SamplerCacheEntry(*cache, base + k, e0, static_cast<Float64>(k) * 0.001, value);
    e1 = SamplerCacheEntry(*cache, base + j, e1, static_cast<Float64>(j) * 0.001, value);
    const Float32 f = static_cast<Float32>(x - static_cast<Float64>(k));
    return static_cast<Float64>((e1 - e0) * f + e0);
}

Float64 BlurrySimpleBRDFImpl::PdfIndirect(const Vector64& wo, const Vector64& wi) const {
    if (std::fabs(wi.z) < 1e-10) return 0.0;
    const Float64 c = std::clamp(Dot(wo, wi), 0.0, 1.0);
    if (c <= 0.0) return 0.0;
    return BlurryLobe(c, exponent) * 4.0 / BSDF_PI;
}

Float64 BlurrySimpleBRDFImpl::ComputeMIPAngle(Float64 angle) const {
    if (cube < 1e-10) return angle;
    return std::min(std::exp2(-cube), angle);
}

// ---- blurryspecular -----------------------------------------------------------------------

Result<void> BlurrySpecularBRDFImpl::Init(const DataDictionary& params, const void*) {
    const Bool lobe = params.Get<Bool>(DataDictionaryKey(BSDF_PARAM_BLURRY_REFLECTED_LOBE), false);
    const Float64 r = params.Get<Float64>(DataDictionaryKey(BSDF_PARAM_BLURRY_ROUGHNESS), -1.0);
    const Float64 shift =
        params.Get<Float64>(DataDictionaryKey(BSDF_PARAM_BLURRY_FALLOFF_SHIFT), 0.0);
    const Float64 power =
        params.Get<Float64>(DataDictionaryKey(BSDF_PARAM_BLURRY_FALLOFF_POWER), 0.0);
    // A new object computes at its first Init even with the default inputs, so that roughness
    // -1.0 gives its negative exponent (t = -0.9999) and a lobe that is zero everywhere. After a
    // Reset the object is no longer new: a default Init then stops here, keeping exponent 0.
    if (computed && lobe == reflectedLobe && r == roughness && shift == falloffShift &&
        power == falloffPower) {
        return OK;
    }
    computed = true;
    reflectedLobe = lobe;
    roughness = r;
    falloffShift = shift;
    falloffPower = power;
    const Float64 t = r * r * r + 0.0001;
    exponent = 2.0 / t;
    const Float64 s = std::pow(t, 0.3333333333333333);
    shaped = std::fabs(falloffPower) > 1e-5 || std::fabs(falloffShift) > 0.0001;
    // ln 100, ln 100 / 8 and ln(2 / pi).
    shapePower = std::exp(falloffPower * 4.605170185988092 + 0.5756462732485116);
    shapeGain = std::exp(shapePower * -0.4515827052894549);
    invScale = 1.0 / s;
    shapedExponent = 2.0 / s;
    shiftAngle = falloffShift * s * 1.5707963267948966;
    shiftScale = 1.0 / (1.0 - s * falloffShift + 0.0001);
    // The cosine below which the lobe has fallen to 1/10000; k = -ln 10000.
    const Float64 k = -9.210340371976182;
    if (shaped) {
        const Float64 x =
            std::exp(std::log((1.0 - std::exp(k / shapedExponent)) / shapeGain) / shapePower) /
            invScale;
        cut = std::cos(x / shiftScale + shiftAngle);
    } else {
        cut = std::exp(k / exponent);
    }
    return OK;
}

Result<void> BlurrySpecularBRDFImpl::Reset() {
    *this = BlurrySpecularBRDFImpl();
    computed = true;
    return OK;
}

namespace {

// The rational masking of the blurryspecular sample for one direction.
Float64 BlurryG1(const Vector64& v, const Vector64& h, Float64 e) {
    if (!(h.z * v.z > 0.0)) return 0.0;
    const Float64 q = 1.0 - v.z * v.z;
    const Float64 t = q > 0.0 ? std::sqrt(q) / v.z : 0.0;
    if (std::fabs(t) < 1e-16) return 1.0;
    const Float64 a = std::sqrt(1.0 + 0.5 * e) / std::fabs(t);
    if (a > 1.6) return 1.0;
    return RationalG1(a);
}

}  // namespace

Color64 BlurrySpecularBRDFImpl::SampleF(const Vector64& wo, const Vector64&,
                                        const BSDFCachedSample& sample, Vector64& wi,
                                        Float64& pdf) const {
    const Float64 e = exponent;
    const Float64 c = std::pow(static_cast<Float64>(sample.u0), 1.0 / (e + 1.0));
    const Float64 s = std::sqrt(std::max(0.0, 1.0 - c * c));
    const Float64 phi = static_cast<Float64>(sample.u1) * BSDF_2PI;
    const Float64 d = (e + 2.0) * std::pow(c, e) / BSDF_2PI;
    pdf = 0.0;
    if (d < 1e-16) return ZERO_COLOR;
    Vector64 h{s * std::cos(phi), s * std::sin(phi), c};
    if (c < 0.0) h = Negate(h);
    wi = Reflect(wo, h);
    const Float64 q = wo.z * wi.z;
    if (!(q > 0.0) || std::fabs(q) < 1e-16) return ZERO_COLOR;
    const Float64 dh = Dot(wo, h);
    if (dh < 1e-16) return ZERO_COLOR;
    pdf = d / (std::fabs(dh) * 4.0 * BSDF_PI);
    const Float64 v =
        d * BlurryG1(wi, h, e) * BlurryG1(wo, h, e) / (std::fabs(wo.z) * 4.0 * std::fabs(wi.z));
    return {v, v, v};
}

Color64 BlurrySpecularBRDFImpl::ComputeBSDF(const Vector64& wo, const Vector64& wiSide,
                                            const Vector64& wi, Float64& pdf) const {
    pdf = 0.0;
    const Float64 q = wo.z * wiSide.z;
    if (!(q > 0.0) || wo.z < 1e-10 || wiSide.z < 1e-10 || q < 1e-16) return ZERO_COLOR;
    Float64 f = 0.0;
    if (exponent > 0.0) {
        Float64 c = 0.0;
        bool reached = true;
        bool positiveLength = false;
        if (reflectedLobe) {
            c = -(wo.x * wi.x + wo.y * wi.y + wo.z * -wi.z);
        } else {
            const Vector64 sum = Add(wo, wi);
            const Float64 length = std::sqrt(Dot(sum, sum));
            if (length > 0.0) {
                positiveLength = true;
                c = std::fabs(wo.z + wi.z) / length;
                if (!(c > cut)) reached = false;
            }
        }
        const Float64 z = wi.z * wo.z;
        if (reached && (c > cut || (!reflectedLobe && positiveLength)) && z > 0.0) {
            Float64 power = exponent;
            if (shaped) {
                Float64 a = c >= 1.0 ? 0.0 : (c <= -1.0 ? BSDF_PI : std::acos(c));
                a = std::clamp((a - shiftAngle) * shiftScale, 0.0, BSDF_PI / 2.0);
                a = std::pow(a * invScale, shapePower);
                c = std::clamp(1.0 - shapeGain * a, 0.0, 1.0);
                power = shapedExponent;
            }
            // The factor 100.0 is part of this class's scale on purpose; callers rely on it.
            f = std::min(z * 10.0, 1.0) * std::pow(c, power) * BSDF_PI * 100.0;
        }
    }
    pdf = f / BSDF_PI;
    const Float64 v = f / wiSide.z;
    return {v, v, v};
}

Float64 BlurrySpecularBRDFImpl::ComputeMIPAngle(Float64 angle) const {
    return std::min(std::exp2(-exponent), angle);
}

// ---- records ------------------------------------------------------------------------------

namespace {

ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
InterfaceRecord g_interfaceRecord;
DataTypeRecord g_cachedSampleType;
DataTypeRecord g_cachePointerType;

template <typename T>
void DefineBytesType(DataTypeRecord& record, const char* typeName) {
    DefineRecordDataType<T, COMPARISON::BYTES>(record, typeName, g_unit, __FILE__);
}

void Register() {
    PublishVirtualInterface<BSDFLegacyInterface>(g_interfaceRecord, g_unit);
    DefineBytesType<BSDFCachedSample>(g_cachedSampleType, "quorv::BSDFCachedSample");
    DefineBytesType<SamplerCachePointer>(g_cachePointerType, "quorv::SamplerCachePointer");
}

const bool g_registered = (Register(), true);

using I = BSDFLegacyInterface;
SimpleClass<LambertBRDFImpl, I> g_lambert(g_unit, LAMBERT_BRDF_CLASS_ID,
                                          BSDF_LEGACY_CLASS_REGISTRY_ID, __FILE__);
SimpleClass<OrenNayarBRDFImpl, I> g_orenNayar(g_unit, ORENNAYAR_BRDF_CLASS_ID,
                                              BSDF_LEGACY_CLASS_REGISTRY_ID, __FILE__);
SimpleClass<BlurrySimpleBRDFImpl, I> g_blurrySimple(g_unit, BLURRYSIMPLE_BRDF_CLASS_ID,
                                                    BSDF_LEGACY_CLASS_REGISTRY_ID, __FILE__);
SimpleClass<BlurrySpecularBRDFImpl, I> g_blurrySpecular(g_unit, BLURRYSPECULAR_BRDF_CLASS_ID,
                                                        BSDF_LEGACY_CLASS_REGISTRY_ID, __FILE__);

}  // namespace

}  // namespace quorv
