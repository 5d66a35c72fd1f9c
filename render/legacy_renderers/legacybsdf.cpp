// The older BSDF set that the comparison class holds the registered classes against. It is
// written apart from them on purpose: a shared helper would make both sides agree by
// construction. Every formula keeps the order of operations of its description, so that the
// two sides meet at 1e-10.
#include "render/legacy_renderers/legacybsdf.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <new>

namespace quorv::legacy {

namespace {

constexpr Float64 PI = 3.141592653589793;
constexpr Float64 TWO_PI = 6.283185307179586;
constexpr Float64 INV_4PI = 0.07957747154594767;
constexpr Float64 DEGREES = 0.017453292519943295;

inline Float64 Dot(const Vector64& a, const Vector64& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline Vector64 Add(const Vector64& a, const Vector64& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vector64 Scale(const Vector64& a, Float64 s) { return {a.x * s, a.y * s, a.z * s}; }
inline Vector64 Negate(const Vector64& a) { return {-a.x, -a.y, -a.z}; }
inline Float64 Length(const Vector64& a) { return std::sqrt(Dot(a, a)); }
// Divides by the length; a zero length gives the zero vector.
inline Vector64 Normalized(const Vector64& a) {
    const Float64 l = Length(a);
    if (!(l > 0.0)) return {0.0, 0.0, 0.0};
    return {a.x / l, a.y / l, a.z / l};
}
inline Float64 Clamp(Float64 x, Float64 lo, Float64 hi) { return x < lo ? lo : (x > hi ? hi : x); }
inline Color64 Grey(Float64 v) { return {v, v, v}; }
inline Color64 Black() { return {0.0, 0.0, 0.0}; }

// The cosine-weighted direction of a record: products in Float32, then widened.
inline Vector64 CosineDirection(const BSDFCachedSample& s) {
    const Float32 x = s.sinPhi * s.sinTheta;
    const Float32 y = s.cosPhi * s.sinTheta;
    return {static_cast<Float64>(x), static_cast<Float64>(y), static_cast<Float64>(s.cosTheta)};
}

inline Float64 CosinePdf(Float64 z) {
    const Float64 a = std::fabs(z);
    return a < 1e-10 ? 0.0 : a / PI;
}

// clamp(truncation of x, 0, 999).
inline Int TableIndex(Float64 x) {
    if (!(x >= 0.0)) return 0;
    const Int k = static_cast<Int>(x);
    return k > 999 ? 999 : k;
}

inline Int RowOf(Float64 roughness) { return static_cast<Int>(Clamp(roughness, 0.0, 1.0) * 400.0); }

// An entry of a table: the stored one, or computed and stored when unset.
template <typename F>
Float32 Entry(const SamplerCache& cache, Int index, Float32 read, F&& compute) {
    if (read < -0.5f) {
        read = static_cast<Float32>(compute());
        cache.Store(index, read);
    }
    return read;
}

// The two grid entries around cosine c in a value row and the fraction between them.
struct Bracket {
    Int i, j;
    Float64 f, c0, c1;
};

Bracket ValueBracket(Float64 c) {
    Bracket b;
    if (c >= 0.9) {
        const Float64 x = (c - 0.9) * 10000.0;
        const Int k = TableIndex(x);
        b.i = k;
        b.j = std::min<Int>(k, 998) + 1;
        b.f = x - static_cast<Float64>(k);
        b.c0 = static_cast<Float64>(k) * 0.0001 + 0.9;
        b.c1 = static_cast<Float64>(b.j) * 0.0001 + 0.9;
    } else {
        const Float64 x = c * 1000.0;
        const Int k = TableIndex(x);
        b.i = k + 1000;
        b.j = std::min<Int>(k, 998) + 1001;
        b.f = x - static_cast<Float64>(k);
        b.c0 = static_cast<Float64>(k) * 0.001;
        b.c1 = static_cast<Float64>(std::min<Int>(k, 998) + 1) * 0.001;
    }
    return b;
}

// Value table of the Torrance distributions: e0 (1 - f) + e1 f in Float32, the second product
// and the sum fused.
template <typename F>
Float64 TorranceTable(const SamplerCache& cache, Int rowD, Float64 c, F&& analytic) {
    if (c < 1e-16) return 0.0;
    const Bracket b = ValueBracket(c);
    Float32 e0 = cache.Load(rowD + b.i);
    Float32 e1 = cache.Load(rowD + b.j);
    e0 = Entry(cache, rowD + b.i, e0, [&] { return b.c0 < 1e-16 ? 0.0 : analytic(b.c0); });
    e1 = Entry(cache, rowD + b.j, e1, [&] { return b.c1 < 1e-16 ? 0.0 : analytic(b.c1); });
    const Float32 f = static_cast<Float32>(b.f);
    return static_cast<Float64>(std::fma(e1, f, e0 * (1.0f - f)));
}

// Inverse table of the Torrance distributions: the drawn cosine for u.
template <typename F>
Float64 TorranceInverse(const SamplerCache& cache, Int rowInverse, Float64 u, F&& cosine) {
    const Float64 x = u * 1000.0;
    const Int k = TableIndex(x);
    const Int j = std::min<Int>(k, 998) + 1;
    const Int base = SamplerCache::INVERSE_OFFSET + rowInverse;
    Float32 e0 = cache.Load(base + k);
    Float32 e1 = cache.Load(base + j);
    e0 = Entry(cache, base + k, e0,
               [&] { return cosine(std::min(static_cast<Float64>(k) * 0.001, 0.99999)); });
    const Float32 f = static_cast<Float32>(x - static_cast<Float64>(k));
    e1 = Entry(cache, base + j, e1,
               [&] { return cosine(std::min(static_cast<Float64>(j) * 0.001, 0.99999)); });
    return static_cast<Float64>(std::fma(e1, f, e0 * (1.0f - f)));
}

// The rational fit of the Beckmann-style masking term for a > 0.
inline Float64 RationalMasking(Float64 a) {
    return a * (3.535 + 2.181 * a) / (1.0 + a * (2.276 + 2.577 * a));
}

// |tan| of the polar angle of v, 0 where 1 - z^2 is not positive.
inline Float64 AbsTangent(const Vector64& v) {
    const Float64 s = 1.0 - v.z * v.z;
    if (!(s > 0.0)) return 0.0;
    return std::fabs(std::sqrt(s) / v.z);
}

inline Float64 Tangent(Float64 c) {
    const Float64 s = 1.0 - c * c;
    return s > 0.0 ? std::sqrt(s) / c : 0.0;
}

// Masking of the V-cavity kind: Ward and anisotropic.
Float64 VCavityMasking(const Vector64& wo, const Vector64& wi, const Vector64& h) {
    const Float64 a = Dot(wo, h);
    const Float64 b = Dot(wi, h);
    if (a == 0.0 || b == 0.0) return 1.0;
    const Float64 p = 2.0 * std::fabs(h.z);
    const Float64 g1 = p * std::fabs(wi.z) / std::fabs(b);
    const Float64 g2 = std::fabs(wo.z) * p / std::fabs(a);
    return std::min(1.0, std::min(g2, g1));
}

// Product of two one-sided terms, wi first: a failed side test of wi starts the product at 0,
// one of wo multiplies it by 0.
template <typename G1>
Float64 SidedMasking(const Vector64& wo, const Vector64& wi, const Vector64& h, G1&& g1) {
    Float64 g = 0.0;
    if (wi.z * h.z > 0.0) g = g1(wi);
    if (!(wo.z * h.z > 0.0)) return g * 0.0;
    return g * g1(wo);
}

// ---- distributions ---------------------------------------------------------------------------

// Width, rows and cache of the distributions that share Init: Beckmann, GGX, Ward.
struct WidthState {
    SamplerCache* cache = nullptr;
    Float64 m = 0.0, m2 = 0.0;
    Int rowD = 0, rowInverse = 0;

    WidthState(Float64 roughness, SamplerCache* c) : cache(c) {
        const Float64 r = Clamp(roughness, 0.001, 1.0);
        const Float64 cube = r * r * r;
        const Float64 t = (1.0 - cube) / cube * 4.0;
        m = Clamp(std::sqrt(2.0 / (t + 2.0)), 1e-7, 1.0);
        m2 = m * m;
        const Int row = RowOf(roughness);
        rowD = row * SamplerCache::VALUE_ROW;
        rowInverse = row * SamplerCache::INVERSE_ROW;
    }
};

// A distribution whose half-vector density is D itself, with tables when a cache is given.
template <typename Derived>
class TabulatedDistribution : public MicrofacetDistribution {
public:
    TabulatedDistribution(Float64 roughness, SamplerCache* cache) : _w(roughness, cache) {}

    Float64 Evaluate(const Vector64& h, Bool useCache, Float64& pdf) const override {
        const Float64 c = h.z;
        Float64 d;
        if (useCache && _w.cache && c < 0.999) {
            d = TorranceTable(*_w.cache, _w.rowD, c, [&](Float64 cg) { return D(cg); });
        } else {
            d = D(c);
        }
        pdf = d;
        return d;
    }

    void Sample(const BSDFCachedSample& s, Vector64& h, Float64& d, Float64& pdf) const override {
        Float64 c;
        if (_w.cache) {
            c = TorranceInverse(*_w.cache, _w.rowInverse, static_cast<Float64>(s.u1),
                                [&](Float64 u) { return DrawCosine(u); });
        } else {
            c = DrawCosine(std::min(static_cast<Float64>(s.u1), 0.99999));
        }
        const Float64 sn = std::sqrt(std::max(0.0, 1.0 - c * c));
        h = {static_cast<Float64>(s.cosPhi) * sn, static_cast<Float64>(s.sinPhi) * sn, c};
        d = Evaluate(h, true, pdf);
    }

protected:
    Float64 D(Float64 c) const {
        if (c < 1e-16) return 0.0;
        return static_cast<const Derived*>(this)->Analytic(c);
    }
    Float64 DrawCosine(Float64 u) const { return static_cast<const Derived*>(this)->Draw(u); }
    WidthState _w;
};

class BeckmannDistribution final : public TabulatedDistribution<BeckmannDistribution> {
public:
    using TabulatedDistribution::TabulatedDistribution;
    Float64 Analytic(Float64 c) const {
        const Float64 t = Tangent(c) / _w.m;
        const Float64 c2 = c * c;
        return std::exp(-(t * t)) / (PI * _w.m2 * (c2 * c2));
    }
    Float64 Draw(Float64 u) const {
        return std::cos(std::atan(std::sqrt(-_w.m2 * std::log(1.0 - u))));
    }
    Float64 Masking(const Vector64& wo, const Vector64& wi, const Vector64& h) const override {
        return SidedMasking(wo, wi, h, [&](const Vector64& v) {
            const Float64 t = AbsTangent(v);
            if (t < 1e-16) return 1.0;
            const Float64 a = 1.0 / (t * _w.m);
            return a > 1.6 ? 1.0 : RationalMasking(a);
        });
    }
};

class GGXDistribution final : public TabulatedDistribution<GGXDistribution> {
public:
    using TabulatedDistribution::TabulatedDistribution;
    Float64 Analytic(Float64 c) const {
        const Float64 t = Tangent(c);
        const Float64 q = _w.m / (c * c * (t * t + _w.m2));
        return q * q / PI;
    }
    Float64 Draw(Float64 u) const { return 1.0 / std::sqrt(_w.m2 * u / (1.0 - u) + 1.0); }
    Float64 Masking(const Vector64& wo, const Vector64& wi, const Vector64& h) const override {
        return SidedMasking(wo, wi, h, [&](const Vector64& v) {
            const Float64 t = AbsTangent(v);
            if (t < 1e-16) return 1.0;
            const Float64 tm = t * _w.m;
            return 2.0 / (1.0 + std::sqrt(1.0 + tm * tm));
        });
    }
};

class WardDistribution final : public TabulatedDistribution<WardDistribution> {
public:
    using TabulatedDistribution::TabulatedDistribution;
    Float64 Analytic(Float64 c) const {
        const Float64 t = Tangent(c) / _w.m;
        return std::exp(-(t * t)) / (PI * _w.m2 * (c * c * c));
    }
    Float64 Draw(Float64 u) const {
        return std::cos(std::atan(_w.m * std::sqrt(-std::log(1.0 - u))));
    }
    Float64 Masking(const Vector64& wo, const Vector64& wi, const Vector64& h) const override {
        return VCavityMasking(wo, wi, h);
    }
};

class PhongDistribution final : public MicrofacetDistribution {
public:
    explicit PhongDistribution(Float64 roughness) {
        const Float64 r = Clamp(roughness, 0.001, 1.0);
        const Float64 cube = r * r * r;
        _e = Clamp((1.0 - cube) / cube * 4.0, 1e-6, 100000.0);
    }
    Float64 Evaluate(const Vector64& h, Bool, Float64& pdf) const override {
        const Float64 c = std::fabs(h.z);
        if (c < 1e-16) {
            pdf = 0.0;
            return 0.0;
        }
        const Float64 p = std::pow(c, _e);
        pdf = p * (_e + 1.0) / TWO_PI;
        return p * (_e + 2.0) / TWO_PI;
    }
    void Sample(const BSDFCachedSample& s, Vector64& h, Float64& d, Float64& pdf) const override {
        const Float64 c = std::pow(static_cast<Float64>(s.u0), 1.0 / (_e + 1.0));
        const Float64 phi = static_cast<Float64>(s.u1) * TWO_PI;
        const Float64 sn = std::sqrt(std::max(0.0, 1.0 - c * c));
        h = {std::cos(phi) * sn, std::sin(phi) * sn, c};
        d = Evaluate(h, true, pdf);
    }
    Float64 Masking(const Vector64& wo, const Vector64& wi, const Vector64& h) const override {
        return SidedMasking(wo, wi, h, [&](const Vector64& v) {
            const Float64 t = AbsTangent(v);
            if (t < 1e-16) return 1.0;
            const Float64 a = std::sqrt(1.0 + 0.5 * _e) / t;
            // >= here against > in Beckmann: the two fits were tuned apart.
            return a >= 1.6 ? 1.0 : RationalMasking(a);
        });
    }

private:
    Float64 _e;
};

class AnisotropicDistribution final : public MicrofacetDistribution {
public:
    // The roughness goes into the u exponent unclamped: the 0.001 clamp belongs to the
    // isotropic kinds (the two agree at the compared 0.7).
    AnisotropicDistribution(Float64 r, Float64 anisotropy) {
        const Float64 q = Clamp(r * (1.0 - anisotropy), 0.001, 1.0);
        const Float64 r3 = r * r * r;
        const Float64 q3 = q * q * q;
        _eU = Clamp((1.0 - r3) / r3 * 4.0, 1e-6, 100000.0);
        _eV = Clamp((1.0 - q3) / q3 * 4.0, 1e-6, 100000.0);
        _anisotropic = _eU != _eV;
        _ratio = _anisotropic ? std::sqrt((_eU + 1.0) / (_eV + 1.0)) : 1.0;
        _normPlus1 = std::sqrt((_eU + 1.0) * (_eV + 1.0));
        _normPlus2 = std::sqrt((_eU + 2.0) * (_eV + 2.0));
    }
    Float64 Evaluate(const Vector64& h, Bool, Float64& pdf) const override {
        if (h.z < 1e-16) {
            pdf = 0.0;
            return 0.0;
        }
        const Float64 c = std::fabs(h.z);
        const Float64 p = c >= 0.9999999999999999 ? 0.0
                                                  : (_eU * (h.x * h.x) + _eV * (h.y * h.y)) /
                                                        std::max(0.0, 1.0 - c * c);
        const Float64 b = std::pow(c, p) / TWO_PI;
        pdf = _normPlus1 * b;
        return b * _normPlus2;
    }
    void Sample(const BSDFCachedSample& s, Vector64& h, Float64& d, Float64& pdf) const override {
        const Float64 u0 = static_cast<Float64>(s.u0);
        Float64 x;
        Int quadrant;
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
        Float64 phi = _anisotropic ? std::atan(_ratio * std::tan(x * PI / 2.0)) : x * PI / 2.0;
        const Float64 cp = std::cos(phi);
        const Float64 sp = std::sin(phi);
        const Float64 n = _eU * (cp * cp) + _eV * (sp * sp) + 1.0;
        const Float64 c = std::pow(static_cast<Float64>(s.u1), 1.0 / n);
        if (quadrant == 1) phi = PI - phi;
        if (quadrant == 2) phi = PI + phi;
        if (quadrant == 3) phi = TWO_PI - phi;
        const Float64 sn = std::sqrt(std::max(0.0, 1.0 - c * c));
        h = {sn * std::cos(phi), sn * std::sin(phi), c};
        const Float64 s2 = sn * sn;
        const Float64 p = s2 > 1e-16 ? (_eU * (h.x * h.x) + _eV * (h.y * h.y)) / s2 : 0.0;
        const Float64 b = std::pow(c, p) / TWO_PI;
        d = _normPlus2 * b;
        pdf = b * _normPlus1;
    }
    Float64 Masking(const Vector64& wo, const Vector64& wi, const Vector64& h) const override {
        return VCavityMasking(wo, wi, h);
    }

private:
    Float64 _eU, _eV, _ratio, _normPlus1, _normPlus2;
    Bool _anisotropic;
};

}  // namespace

std::unique_ptr<MicrofacetDistribution> MakeDistribution(DISTRIBUTIONKIND kind, Float64 roughness,
                                                         Float64 anisotropy, SamplerCache* cache) {
    switch (kind) {
        case DISTRIBUTIONKIND::BECKMANN:
            return std::unique_ptr<MicrofacetDistribution>(
                new (std::nothrow) BeckmannDistribution(roughness, cache));
        case DISTRIBUTIONKIND::GGX:
            return std::unique_ptr<MicrofacetDistribution>(new (std::nothrow)
                                                               GGXDistribution(roughness, cache));
        case DISTRIBUTIONKIND::PHONG:
            return std::unique_ptr<MicrofacetDistribution>(new (std::nothrow)
                                                               PhongDistribution(roughness));
        case DISTRIBUTIONKIND::WARD:
            return std::unique_ptr<MicrofacetDistribution>(new (std::nothrow)
                                                               WardDistribution(roughness, cache));
        case DISTRIBUTIONKIND::ANISOTROPIC:
            return std::unique_ptr<MicrofacetDistribution>(
                new (std::nothrow) AnisotropicDistribution(roughness, anisotropy));
    }
    return nullptr;
}

// ---- diffuse ---------------------------------------------------------------------------------

Color64 LambertBxDF::SampleF(const Vector64&, const Vector64&, const BSDFCachedSample& sample,
                             Vector64& wi, Float64& pdf) {
    wi = CosineDirection(sample);
    pdf = CosinePdf(wi.z);
    return std::fabs(wi.z) < 1e-10 ? Black() : Grey(1.0);
}

Color64 LambertBxDF::ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64&,
                                 Float64& pdf) {
    if (wo.z * wiSide.z > 0.0 && std::fabs(wiSide.z) >= 1e-10) {
        pdf = std::fabs(wiSide.z) / PI;
        return Grey(1.0);
    }
    pdf = 0.0;
    return Black();
}

OrenNayarBxDF::OrenNayarBxDF(Float64 sigma, Bool simple) : _simple(simple) {
    const Float64 s2 = sigma * sigma;
    _sigma2 = s2;
    _a = 1.0 - s2 / (2.0 * (s2 + 0.33));
    _b = 0.45 * s2 / (s2 + 0.09);
    _c2Scale = s2 / (s2 + 0.09);
    // The same number as _a by another expression; the two may differ in the last bit.
    _c1 = 1.0 + (-0.5 * s2) / (s2 + 0.33);
    _interreflection = 0.17 * s2 / (s2 + 0.13);
}

Float64 OrenNayarBxDF::Value(const Vector64& o, const Vector64& i) const {
    if (_sigma2 == 0.0) return 1.0;
    const Float64 qi = 1.0 - i.z * i.z;
    const Float64 qo = 1.0 - o.z * o.z;
    const Float64 sinI = qi > 0.0 ? std::sqrt(qi) : 0.0;
    const Float64 sinO = qo > 0.0 ? std::sqrt(qo) : 0.0;
    Float64 cosDelta = 0.0;
    if (sinI > 0.0001 && sinO > 0.0001) {
        const Float64 cosPhiI = Clamp(i.x / sinI, -1.0, 1.0);
        const Float64 sinPhiI = Clamp(i.y / sinI, -1.0, 1.0);
        const Float64 cosPhiO = Clamp(o.x / sinO, -1.0, 1.0);
        const Float64 sinPhiO = Clamp(o.y / sinO, -1.0, 1.0);
        cosDelta = cosPhiI * cosPhiO + sinPhiI * sinPhiO;
    }
    const bool incomingSteeper = std::fabs(i.z) > std::fabs(o.z);
    const Float64 zRef = incomingSteeper ? i.z : o.z;
    const bool usable = std::fabs(zRef) > 1e-16;
    if (_simple) {
        Float64 tanBeta = 0.0, sinAlpha = 0.0;
        if (usable) {
            tanBeta = incomingSteeper ? sinI / i.z : sinO / o.z;
            sinAlpha = incomingSteeper ? sinO : sinI;
        }
        return _a + _b * std::max(cosDelta, 0.0) * sinAlpha * tanBeta;
    }
    const Float64 thetaI = i.z >= 1.0 ? 0.0 : (i.z <= -1.0 ? PI : std::acos(i.z));
    const Float64 thetaO = o.z >= 1.0 ? 0.0 : (o.z <= -1.0 ? PI : std::acos(o.z));
    Float64 sA = 0.0, sB = 0.0, tanBeta = 0.0;
    if (usable) {
        sA = incomingSteeper ? sinO : sinI;
        sB = incomingSteeper ? sinI : sinO;
        tanBeta = incomingSteeper ? sinI / i.z : sinO / o.z;
    }
    const Float64 beta = thetaI < thetaO ? thetaI : thetaO;
    const Float64 alpha = thetaI < thetaO ? thetaO : thetaI;
    const Float64 x = 2.0 * beta / PI;
    const Float64 x2 = x * x;
    const Float64 ab = alpha * beta * 0.40528473456935116;
    const Float64 cosA = std::sqrt(std::max(0.0, 1.0 - sA * sA));
    const Float64 cosB = std::sqrt(std::max(0.0, 1.0 - sB * sB));
    const Float64 c2 = cosDelta > 0.0 ? _b * sA : _b * (sA - x2 * x);
    const Float64 c3 = ab * ab * (_c2Scale * 0.125);
    const Float64 tanHalf = (sB + sA) / std::max(cosA + cosB, 1e-16);
    Float64 v = cosDelta * c2 * tanBeta + _c1;
    v = (1.0 - std::fabs(cosDelta)) * c3 * tanHalf + v;
    return v + (1.0 - cosDelta * x2) * _interreflection;
}

Color64 OrenNayarBxDF::SampleF(const Vector64& wo, const Vector64&, const BSDFCachedSample& sample,
                               Vector64& wi, Float64& pdf) {
    wi = CosineDirection(sample);
    pdf = CosinePdf(wi.z);
    if (std::fabs(wi.z) < 1e-10) return Black();
    return Grey(Value(wo, wi));
}

Color64 OrenNayarBxDF::ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64&,
                                   Float64& pdf) {
    if (wo.z * wiSide.z > 0.0 && std::fabs(wiSide.z) >= 1e-10) {
        pdf = std::fabs(wiSide.z) / PI;
        return Grey(Value(wo, wiSide));
    }
    pdf = 0.0;
    return Black();
}

// ---- blurry ----------------------------------------------------------------------------------

BlurrySimpleBxDF::BlurrySimpleBxDF(Float64 roughness, SamplerCache* cache) : _cache(cache) {
    const Float64 c = Clamp(roughness, 0.001, 1.0);
    _cube = c * c * c;
    const Int row = RowOf(roughness);
    _rowD = row * SamplerCache::VALUE_ROW;
    _rowInverse = row * SamplerCache::INVERSE_ROW;
    _exponent = _cube != 0.0 ? (1.0 - _cube) / _cube : 1.0;
}

Float64 BlurrySimpleBxDF::LobeValue(Float64 c) const {
    return std::pow(c, _exponent) * (_exponent + 1.0) / TWO_PI;
}

Color64 BlurrySimpleBxDF::SampleF(const Vector64&, const Vector64&, const BSDFCachedSample&,
                                  Vector64& wi, Float64& pdf) {
    // Not sampled this way: a caller draws the lobe with ComputeAngle.
    wi = {0.0, 0.0, 0.0};
    pdf = 0.0;
    return Black();
}

Color64 BlurrySimpleBxDF::ComputeBSDF(const Vector64& wo, const Vector64& wiSide,
                                      const Vector64& wi, Float64& pdf) {
    pdf = 0.0;
    const Float64 a = std::fabs(wiSide.z);
    if (a < 1e-10) return Black();
    Float64 c = Dot(wo, wi);
    if (c <= 0.0) return Black();
    c = std::min(c, 1.0);
    Float64 p;
    if (!_cache || c > 0.999) {
        // The factor 4 sits inside p, so both value and density carry it.
        p = LobeValue(c) * 4.0;
    } else {
        const Bracket b = ValueBracket(c);
        Float32 e0 = _cache->Load(_rowD + b.i);
        Float32 e1 = _cache->Load(_rowD + b.j);
        e0 = Entry(*_cache, _rowD + b.i, e0, [&] { return b.c0 < 1e-16 ? 0.0 : LobeValue(b.c0); });
        e1 = Entry(*_cache, _rowD + b.j, e1, [&] { return b.c1 < 1e-16 ? 0.0 : LobeValue(b.c1); });
        const Float32 f = static_cast<Float32>(b.f);
        const Float32 lerp = (e1 - e0) * f + e0;
        p = static_cast<Float64>(lerp) * 4.0;
    }
    pdf = p / PI;
    return Grey(p / a);
}

Float64 BlurrySimpleBxDF::ComputeAngle(const BSDFCachedSample& sample) {
    const Float64 u1 = static_cast<Float64>(sample.u1);
    if (!_cache) return std::pow(1.0 - u1, _cube);
    const Float64 x = u1 * 1000.0;
    const Int k = TableIndex(x);
    const Int j = std::min<Int>(k, 998) + 1;
    const Int base = SamplerCache::INVERSE_OFFSET + _rowInverse;
    Float32 e0 = _cache->Load(base + k);
    Float32 e1 = _cache->Load(base + j);
    e0 = Entry(*_cache, base + k, e0,
               [&] { return std::pow(1.0 - static_cast<Float64>(k) * 0.001, _cube); });
    e1 = Entry(*_cache, base + j, e1,
               [&] { return std::pow(1.0 - static_cast<Float64>(j) * 0.001, _cube); });
    const Float32 f = static_cast<Float32>(x - static_cast<Float64>(k));
    return static_cast<Float64>((e1 - e0) * f + e0);
}

BlurrySpecularBxDF::BlurrySpecularBxDF(Bool reflectedLobe, Float64 roughness, Float64 falloffShift,
                                       Float64 falloffPower)
    : _reflectedLobe(reflectedLobe) {
    const Float64 t = roughness * roughness * roughness + 0.0001;
    _exponent = 2.0 / t;
    const Float64 s = std::pow(t, 0.3333333333333333);
    _shaped = std::fabs(falloffPower) > 1e-5 || std::fabs(falloffShift) > 0.0001;
    // ln 100, ln 100 / 8 and ln(2 / pi).
    _shapePower = std::exp(falloffPower * 4.605170185988092 + 0.5756462732485116);
    _shapeGain = std::exp(_shapePower * -0.4515827052894549);
    _invScale = 1.0 / s;
    _shapedExponent = 2.0 / s;
    _shiftAngle = falloffShift * s * 1.5707963267948966;
    _shiftScale = 1.0 / (1.0 - s * falloffShift + 0.0001);
    // The cosine where the lobe has fallen to 1/10000 (k = -ln 10000).
    const Float64 k = -9.210340371976182;
    if (_shaped) {
        const Float64 x =
            std::exp(std::log((1.0 - std::exp(k / _shapedExponent)) / _shapeGain) / _shapePower) /
            _invScale;
        _cut = std::cos(x / _shiftScale + _shiftAngle);
    } else {
        _cut = std::exp(k / _exponent);
    }
}

Color64 BlurrySpecularBxDF::SampleF(const Vector64& wo, const Vector64&,
                                    const BSDFCachedSample& sample, Vector64& wi, Float64& pdf) {
    const Float64 e = _exponent;
    const Float64 c = std::pow(static_cast<Float64>(sample.u0), 1.0 / (e + 1.0));
    const Float64 s = std::sqrt(std::max(0.0, 1.0 - c * c));
    const Float64 phi = static_cast<Float64>(sample.u1) * TWO_PI;
    const Float64 d = (e + 2.0) * std::pow(c, e) / TWO_PI;
    pdf = 0.0;
    if (d < 1e-16) return Black();
    Vector64 h{s * std::cos(phi), s * std::sin(phi), c};
    if (c < 0.0) h = Negate(h);
    const Float64 t = 2.0 * Dot(wo, h);
    wi = {t * h.x - wo.x, t * h.y - wo.y, t * h.z - wo.z};
    const Float64 q = wo.z * wi.z;
    if (!(q > 0.0) || std::fabs(q) < 1e-16) return Black();
    const Float64 dh = Dot(wo, h);
    if (dh < 1e-16) return Black();
    // No factor pi in the value and a further 1/pi in the density, unlike the Torrance frame:
    // their ratio agrees, the two numbers do not, and callers of this class expect that.
    pdf = d / (std::fabs(dh) * 4.0 * PI);
    auto g1 = [&](const Vector64& v) {
        if (!(h.z * v.z > 0.0)) return 0.0;
        const Float64 r = 1.0 - v.z * v.z;
        const Float64 tn = r > 0.0 ? std::sqrt(r) / v.z : 0.0;
        if (std::fabs(tn) < 1e-16) return 1.0;
        const Float64 a = std::sqrt(1.0 + 0.5 * e) / std::fabs(tn);
        return a > 1.6 ? 1.0 : RationalMasking(a);
    };
    const Float64 gi = g1(wi);
    const Float64 go = g1(wo);
    return Grey(d * gi * go / (std::fabs(wo.z) * 4.0 * std::fabs(wi.z)));
}

Color64 BlurrySpecularBxDF::ComputeBSDF(const Vector64& wo, const Vector64& wiSide,
                                        const Vector64& wi, Float64& pdf) {
    pdf = 0.0;
    const Float64 q = wo.z * wiSide.z;
    if (!(q > 0.0) || wo.z < 1e-10 || wiSide.z < 1e-10 || q < 1e-16) return Black();
    Float64 f = 0.0;
    if (_exponent > 0.0) {
        Float64 c = 0.0;
        bool inLobe;
        if (_reflectedLobe) {
            const Vector64 m{wi.x, wi.y, -wi.z};
            c = -Dot(wo, m);
            inLobe = c > _cut;
        } else {
            const Vector64 sum = Add(wo, wi);
            const Float64 len = Length(sum);
            if (len > 0.0) c = std::fabs(wo.z + wi.z) / len;
            inLobe = len > 0.0 && c > _cut;
        }
        const Float64 z = wi.z * wo.z;
        if (inLobe && z > 0.0) {
            Float64 power = _exponent;
            if (_shaped) {
                Float64 a = c >= 1.0 ? 0.0 : (c <= -1.0 ? PI : std::acos(c));
                a = Clamp((a - _shiftAngle) * _shiftScale, 0.0, PI / 2.0);
                a = std::pow(a * _invScale, _shapePower);
                c = Clamp(1.0 - _shapeGain * a, 0.0, 1.0);
                power = _shapedExponent;
            }
            // The factor 100 is part of this lobe's scale.
            f = std::min(z * 10.0, 1.0) * std::pow(c, power) * PI * 100.0;
        }
    }
    pdf = f / PI;
    return Grey(f / wiSide.z);
}

// ---- Torrance frame --------------------------------------------------------------------------

namespace {
constexpr Float64 IOR_OUTSIDE = 1.0;
constexpr Float64 IOR_INSIDE = 1.5;
}  // namespace

BlurryTorranceBxDF::BlurryTorranceBxDF(std::unique_ptr<MicrofacetDistribution> distribution,
                                       Bool transmit)
    : _distribution(std::move(distribution)), _transmit(transmit) {}

Color64 BlurryTorranceBxDF::SampleF(const Vector64& wo, const Vector64&,
                                    const BSDFCachedSample& sample, Vector64& wi, Float64& pdf) {
    Vector64 h;
    Float64 d = 0.0, pdfH = 0.0;
    _distribution->Sample(sample, h, d, pdfH);
    pdf = 0.0;
    if (d < 1e-16) return Black();
    if (h.z < 0.0) h = Negate(h);
    const Float64 q = Dot(wo, h);
    if (!_transmit) {
        const Float64 t = 2.0 * q;
        wi = {t * h.x - wo.x, t * h.y - wo.y, t * h.z - wo.z};
        const Float64 c = wo.z * wi.z;
        if (!(c > 0.0) || std::fabs(c) < 1e-16) return Black();
        if (q < 1e-16) return Black();
        pdf = pdfH / (std::fabs(q) * 4.0);
        const Float64 g = _distribution->Masking(wo, wi, h);
        return Grey(g * (d * PI) / (std::fabs(c) * 4.0));
    }
    const Float64 eta = wo.z > 0.0 ? IOR_OUTSIDE / IOR_INSIDE : IOR_INSIDE / IOR_OUTSIDE;
    const Float64 s2 = std::max(0.0, 1.0 - q * q);
    if (eta * eta * s2 >= 1.0) return Black();  // total internal reflection: wi untouched
    const Float64 t = eta * q - std::sqrt(1.0 - eta * eta * s2);
    wi = {t * h.x - eta * wo.x, t * h.y - eta * wo.y, t * h.z - eta * wo.z};
    const Float64 c = wi.z * wo.z;
    if (c > 0.0 || std::fabs(c) < 1e-16) return Black();
    if (std::fabs(q) < 1e-16) return Black();
    const Float64 k = Dot(wi, h);
    const Float64 etaT = wo.z > 0.0 ? IOR_INSIDE / IOR_OUTSIDE : IOR_OUTSIDE / IOR_INSIDE;
    const Float64 denom = etaT * k + q;
    // Multiplied by denom where the textbook divides once more: the two cancel up to rounding.
    const Float64 jacobian = std::fabs(denom * ((k * (etaT * etaT)) / denom));
    pdf = pdfH * jacobian;
    const Float64 g = _distribution->Masking(wo, Negate(wi), h);
    const Float64 etaP = 1.0 / etaT;
    // c is signed: a transmitted value is negative by design.
    return Grey(etaP * (etaP * (std::fabs(q) * (jacobian * (g * (d * PI))))) / c);
}

Color64 BlurryTorranceBxDF::ComputeBSDF(const Vector64& wo, const Vector64& wiSide,
                                        const Vector64& wi, Float64& pdf) {
    pdf = 0.0;
    const Float64 c = wo.z * wiSide.z;
    if (!_transmit) {
        if (std::fabs(c) < 1e-16 || !(c > 0.0)) return Black();
        const Vector64 sum = Add(wo, wi);
        if (sum.x == 0.0 && sum.y == 0.0 && sum.z == 0.0) return Black();
        Vector64 h = Normalized(sum);
        if (h.z < 0.0) h = Negate(h);
        const Float64 q = std::fabs(Dot(wo, h));
        if (q < 1e-16) return Black();
        Float64 pdfH = 0.0;
        const Float64 d = _distribution->Evaluate(h, true, pdfH);
        if (d < 1e-16) return Black();
        pdf = pdfH / (q * 4.0);
        return Grey(d * PI * _distribution->Masking(wo, wi, h) / (std::fabs(c) * 4.0));
    }
    if (c > 0.0 || std::fabs(c) < 1e-16) return Black();
    const Float64 etaT = wo.z > 0.0 ? IOR_INSIDE / IOR_OUTSIDE : IOR_OUTSIDE / IOR_INSIDE;
    const Vector64 sum = Add(wo, Scale(wi, etaT));
    if (sum.x == 0.0 && sum.y == 0.0 && sum.z == 0.0) return Black();
    Vector64 h = Normalized(sum);
    if (h.z < 0.0) h = Negate(h);
    const Float64 woh = Dot(wo, h);
    const Float64 q = std::fabs(woh);
    if (q < 1e-16) return Black();
    Float64 pdfH = 0.0;
    const Float64 d = _distribution->Evaluate(h, true, pdfH);
    if (d < 1e-16) return Black();
    const Float64 k = Dot(wiSide, h);
    const Float64 denom = etaT * k + woh;
    const Float64 jacobian = std::fabs(denom * ((k * (etaT * etaT)) / denom));
    const Float64 g = _distribution->Masking(wo, Negate(wi), h);
    pdf = jacobian * pdfH;
    const Float64 etaP = 1.0 / etaT;
    return Grey(etaP * (etaP * (q * (jacobian * (g * (d * PI))))) / c);
}

// ---- cloth noise -----------------------------------------------------------------------------

namespace {

constexpr Int NOISE_SIZE = 1024;
constexpr Int NOISE_MASK = 1023;

struct NoiseTables {
    Int32 permutation[NOISE_SIZE + NOISE_SIZE + 2];
    Float64 gradient[NOISE_SIZE + NOISE_SIZE + 2][4];
};

const NoiseTables& Noise() {
    static const NoiseTables tables = [] {
        NoiseTables t{};
        UInt32 state = 100;  // raw, no seeding step
        auto next = [&] {
            state = (state * 69069u + 69069u) & 0x7fffffffu;
            return static_cast<Float64>(state) / 2147483649.0;
        };
        for (Int i = 0; i < NOISE_SIZE; ++i) {
            t.permutation[i] = static_cast<Int32>(i);
            Float64 g[4];
            for (Float64& c : g) c = 1.0 - 2.0 * next();
            const Float64 len = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2] + g[3] * g[3]);
            if (len > 0.0) {
                for (Float64& c : g) c = c / len * 1.5;
            }
            for (int c = 0; c < 4; ++c) t.gradient[i][c] = g[c];
        }
        for (Int i = NOISE_SIZE - 1; i >= 1; --i) {
            const Int j = static_cast<Int>(next() * 1024.0);
            std::swap(t.permutation[i], t.permutation[j]);
        }
        for (Int i = 0; i < NOISE_SIZE + 2; ++i) {
            t.permutation[NOISE_SIZE + i] = t.permutation[i];
            for (int c = 0; c < 4; ++c) t.gradient[NOISE_SIZE + i][c] = t.gradient[i][c];
        }
        return t;
    }();
    return tables;
}

struct Axis {
    Int b0, b1;
    Float64 r0, r1, s;
};

Axis MakeAxis(Float64 v) {
    const Float64 cell = std::floor(v);
    Axis a;
    a.b0 = static_cast<Int>(cell) & NOISE_MASK;
    a.b1 = (a.b0 + 1) & NOISE_MASK;
    a.r0 = Clamp(v - cell, 0.0, 1.0);
    a.r1 = a.r0 - 1.0;
    a.s = a.r0 * a.r0 * (3.0 - 2.0 * a.r0);
    return a;
}

inline Float64 Lerp(Float64 t, Float64 a, Float64 b) { return a + t * (b - a); }

}  // namespace

Float64 ClothNoiseLegacy(Float64 x, Float64 y, Float64 z) {
    const NoiseTables& t = Noise();
    const Axis ax = MakeAxis(x + 0.3718413);
    const Axis ay = MakeAxis(y);
    const Axis az = MakeAxis(z);
    const Int i = t.permutation[ax.b0];
    const Int j = t.permutation[ax.b1];
    const Int b00 = t.permutation[i + ay.b0];
    const Int b10 = t.permutation[j + ay.b0];
    const Int b01 = t.permutation[i + ay.b1];
    const Int b11 = t.permutation[j + ay.b1];
    auto at = [&](Int index, Float64 rx, Float64 ry, Float64 rz) {
        const Float64* q = t.gradient[index];
        return rx * q[0] + ry * q[1] + rz * q[2];
    };
    Float64 u = at(b00 + az.b0, ax.r0, ay.r0, az.r0);
    Float64 v = at(b10 + az.b0, ax.r1, ay.r0, az.r0);
    Float64 a = Lerp(ax.s, u, v);
    u = at(b01 + az.b0, ax.r0, ay.r1, az.r0);
    v = at(b11 + az.b0, ax.r1, ay.r1, az.r0);
    Float64 b = Lerp(ax.s, u, v);
    const Float64 c = Lerp(ay.s, a, b);
    u = at(b00 + az.b1, ax.r0, ay.r0, az.r1);
    v = at(b10 + az.b1, ax.r1, ay.r0, az.r1);
    a = Lerp(ax.s, u, v);
    u = at(b01 + az.b1, ax.r0, ay.r1, az.r1);
    v = at(b11 + az.b1, ax.r1, ay.r1, az.r1);
    b = Lerp(ax.s, u, v);
    const Float64 d = Lerp(ay.s, a, b);
    return Clamp(Lerp(az.s, c, d), -1.0, 1.0);
}

Float64 ClothTurbulenceLegacy(Float64 x, Float64 y, Float64 z, Float64 octaves, Bool absolute) {
    Float64 sum = 0.0, amplitude = 1.0;
    Int whole = static_cast<Int>(octaves);
    for (Int o = 0; o < whole; ++o) {
        const Float64 n = ClothNoiseLegacy(x, y, z);
        sum += (absolute ? std::fabs(n) : n) * amplitude;
        amplitude *= 0.5;
        x *= 2.0;
        y *= 2.0;
        z *= 2.0;
    }
    const Float64 rest = octaves - static_cast<Float64>(whole);
    if (rest > 0.0) {
        const Float64 n = ClothNoiseLegacy(x, y, z);
        sum += rest * (absolute ? std::fabs(n) : n) * amplitude;
    }
    return sum;
}

// ---- cloth yarns and pattern -----------------------------------------------------------------

class ClothYarnLegacy {
public:
    ClothYarnLegacy(UInt32 type, Float64 psiDegrees, Float64 umaxDegrees, Float64 kappa,
                    Float64 width, Float64 length, Float64 centerU, Float64 centerV)
        : psi(psiDegrees * DEGREES),
          tanPsi(std::tan(psi)),
          sinPsi(std::sin(psi)),
          umax(umaxDegrees * DEGREES),
          kappa(kappa),
          width(width),
          length(length),
          halfWidth(width * 0.5),
          halfLength(length * 0.5),
          piOverWidth(PI / width),
          twoOverLength(2.0 / length),
          centerU(centerU),
          centerV(centerV),
          type(type) {}

    void GetUV(const ClothPatternLegacy& p, const Vector2d64& centre, const Vector2d64& local,
               Vector2d64& uvOut, Float64& umaxOut, Float64& variationState, Bool useVariation,
               Float64 amount) const {
        Float64 m = umax;
        umaxOut = m;
        const Float64 variation = type == 0 ? p.warpVariation : p.weftVariation;
        if (p.variationScale > 0.0 && amount > 0.0 && variation > 0.0) {
            Float64 s;
            if (useVariation) {
                const Float64 n =
                    ClothTurbulenceLegacy(centre.x * p.variationScale, centre.y * p.variationScale,
                                          0.0 * p.variationScale, 4.0, false);
                s = Clamp(2.0 * n * variation, -0.9, 1.0) * amount;
                variationState = s;
            } else {
                s = variationState;
            }
            m = umax * s + m;
            umaxOut = m;
        }
        if (type == 0) {
            uvOut = {local.y * m * twoOverLength, local.x * piOverWidth};
        } else {
            uvOut = {local.x * m * twoOverLength, piOverWidth * -local.y};
        }
    }

    Float64 Evaluate(Vector64 wo, Vector64 wi, const Vector2d64& uv, const Vector2d64& scattering,
                     const Vector2d64& areas, Float64 um, Float64 blur, Float64 smoothing) const {
        if (type != 0) {
            // The weft lies across the warp: a quarter turn of both directions.
            wo = {-wo.y, wo.x, wo.z};
            wi = {-wi.y, wi.x, wi.z};
        }
        const Float64 r = psi == 0.0 ? Filament(wo, wi, uv, scattering, um, blur, smoothing)
                                     : Staple(wo, wi, uv, scattering, um, blur);
        return type == 0 ? r * (areas.x + areas.y) / areas.x : r * (areas.x + areas.y) / areas.y;
    }

    static Float64 BesselI0(Float64 x) {
        const Float64 ax = std::fabs(x);
        if (ax <= 3.75) {
            const Float64 q = ax / 3.75;
            const Float64 s = q * q;
            return 1.0 +
                   s * (3.5156229 +
                        s * (3.0899424 +
                             s * (1.2067492 + s * (0.2659732 + s * (0.0360768 + s * 0.0045813)))));
        }
        const Float64 t = 3.75 / ax;
        return (0.39894228 +
                t * (0.01328592 +
                     t * (0.00225319 +
                          t * (-0.00157565 +
                               t * (0.00916281 +
                                    t * (-0.02057706 +
                                         t * (0.02635537 +
                                              t * (-0.01647633 + t * 0.00392377)))))))) *
               std::exp(ax) / std::sqrt(ax);
    }

    static Float64 VonMises(Float64 x, Float64 b) {
        // The argument stops at 0.5 on purpose: the lobe flattens beyond it.
        return std::exp(b * std::min(x, 0.5)) / (TWO_PI * BesselI0(std::fabs(b)));
    }

    static Float64 Seeliger(const Vector64& n, const Vector64& wo, const Vector64& wi) {
        const Float64 p = std::max(Dot(n, wi), 0.0);
        const Float64 q = std::max(Dot(n, wo), 0.0);
        if (p == 0.0 || q == 0.0) return 0.0;
        return p * q * INV_4PI / (p + q);
    }

    Float64 RadiusOfCurvature(Float64 u, Float64 um) const {
        const Float64 tu = std::tan(um);
        const Float64 c = 1.0 + kappa * (1.0 + 1.0 / tu);
        const Float64 r = halfWidth;
        const Float64 l = halfLength;
        if (c == 1.0) return l / std::sin(um) - r;
        if (c > 0.0) {
            const Float64 a = (l - r * std::sin(um)) / std::sin(std::atan(tu * c));
            const Float64 b = a / c;
            const Float64 w = std::atan(c * std::tan(u));
            const Float64 cw = std::cos(w);
            const Float64 sw = std::sin(w);
            return std::pow(a * a * (cw * cw) + b * b * (sw * sw), 1.5) / (a * b);
        }
        if (c < 0.0) {
            const Float64 y = tu * c;
            const Float64 z =
                y <= -1.0 ? -4.0 : (y > 1.0 ? 4.0 : 0.5 * std::log((y + 1.0) / (1.0 - y)));
            const Float64 a = (l - r * std::sin(um)) / std::sinh(-z);
            const Float64 b = a / c;
            const Float64 w = -std::atan(c * std::tan(u));
            const Float64 cw = std::cosh(w);
            const Float64 sw = std::sinh(w);
            return -std::pow(a * a * (cw * cw) + b * b * (sw * sw), 1.5) / (a * b);
        }
        const Float64 d = (l - r * std::sin(um)) / (2.0 - tu);
        const Float64 tn = std::tan(u);
        return std::pow(1.0 + tn * tn, 1.5) * 2.0 * d;
    }

    Float64 Filament(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                     const Vector2d64& sc, Float64 um, Float64 blur, Float64 smoothing) const {
        if (kappa < -1.0) return 0.0;
        const Vector64 sum = Add(wo, wi);
        const Float64 len = Length(sum);
        const Vector64 h = Normalized(sum);
        const Float64 uh = std::atan2(h.y, h.z);
        if (std::fabs(uh - uv.x) >= um * blur) return 0.0;
        const Float64 v = uv.y;
        const Vector64 n =
            Normalized({std::sin(v), std::cos(v) * std::sin(uh), std::cos(v) * std::cos(uh)});
        const Vector64 m = Normalized({0.0, std::sin(uh), std::cos(uh)});
        const Float64 cap = (1.0 - smoothing) * um;
        const Float64 radius = RadiusOfCurvature(std::min(std::fabs(uh), cap), cap);
        Float64 d = Dot(m, h);
        if (std::fabs(d) < 1e-7) d = 1e-7;
        const Float64 g = halfWidth * (halfWidth * std::cos(v) + radius) / (len * std::fabs(d));
        Float64 s = Seeliger(n, wo, wi);
        if (smoothing > 0.0) {
            const Float64 x = (um - std::fabs(uh)) / (um * smoothing);
            s *= x <= 0.0 ? 0.0 : (x >= 1.0 ? 1.0 : x * x * (3.0 - 2.0 * x));
        }
        return s * (g * (sc.x + VonMises(-Dot(wo, wi), sc.y))) * PI / blur;
    }

    Float64 Staple(const Vector64& wo, const Vector64& wi, const Vector2d64& uv,
                   const Vector2d64& sc, Float64 um, Float64 blur) const {
        if (kappa < -1.0) return 0.0;
        const Vector64 sum = Add(wo, wi);
        const Float64 len = Length(sum);
        const Vector64 h = Normalized(sum);
        const Float64 cu = std::cos(uv.x);
        const Float64 su = std::sin(uv.x);
        const Float64 a = h.y * su + h.z * cu;
        const Float64 b = h.y * cu - h.z * su;
        const Float64 d = std::sqrt(h.x * h.x + a * a) * tanPsi;
        const Float64 e = b / d;
        if (std::fabs(e) >= 1.0) return 0.0;
        const Float64 vh = std::atan2(-h.y * su - h.z * cu, h.x) + std::acos(e);
        if (std::fabs(vh - uv.y) >= blur * PI / 2.0) return 0.0;
        const Float64 cv = std::cos(vh);
        const Vector64 n = Normalized({std::sin(vh), su * cv, cu * cv});
        const Float64 radius = RadiusOfCurvature(std::fabs(uv.x), um);
        const Float64 num = halfWidth * (halfWidth * cv + radius);
        const Float64 den = std::fabs(sinPsi) * len * std::max(Dot(n, h), 0.1);
        const Float64 value =
            (num / den) * (sc.x + VonMises(-Dot(wo, wi), sc.y)) * Seeliger(n, wo, wi);
        return (value + value) * um / blur;
    }

    Float64 psi, tanPsi, sinPsi, umax, kappa, width, length, halfWidth, halfLength, piOverWidth,
        twoOverLength, centerU, centerV;
    UInt32 type;
};

namespace {

struct YarnKind {
    UInt32 type;
    Float64 psi, umax, kappa, width, length;
};

struct PresetData {
    Float64 specularRatio, repeat, warpArea, weftArea;
    Int width, height;
    const Int32* table;
    Int yarnCount;
    YarnKind warp, weft;
    Int warpCount;  // yarns 1..warpCount are warp, the rest weft
    const Float64 (*centres)[2];
};

constexpr Int32 TABLE0[] = {1, 3, 8, 1, 3, 5, 1, 7, 5, 1, 4, 5, 6, 4, 5, 2, 4, 5};
constexpr Int32 TABLE1[] = {7, 2, 4, 6, 7, 2, 4, 6, 1, 8, 4, 6,  1, 8, 4, 6,
                            1, 3, 9, 6, 1, 3, 9, 6, 1, 3, 5, 10, 1, 3, 5, 10};
constexpr Int32 TABLE2[] = {3, 2, 1, 4};
constexpr Int32 TABLE3[] = {10, 2, 4, 6, 8,  1, 2, 4, 6,  8, 1, 2, 4, 13, 8, 1, 2,
                            4,  7, 8, 1, 11, 4, 7, 8, 1,  3, 4, 7, 8, 1,  3, 4, 7,
                            14, 1, 3, 4, 7,  9, 1, 3, 12, 7, 9, 1, 3, 5,  7, 9};
constexpr Int32 TABLE4[] = {3, 3, 3, 3, 2, 2, 3, 3, 3, 3, 2, 2, 3, 3, 3, 3, 2, 2, 3, 3, 3, 3, 2, 2,
                            4, 1, 1, 5, 5, 5, 4, 1, 1, 5, 5, 5, 4, 1, 1, 5, 5, 5, 4, 1, 1, 5, 5, 5};
constexpr Int32 TABLE5[] = {1, 1, 2, 2, 7, 7, 1, 1, 2, 2, 7, 7, 1, 1, 2, 2, 7, 7,
                            1, 1, 6, 6, 4, 4, 1, 1, 6, 6, 4, 4, 1, 1, 6, 6, 4, 4,
                            5, 5, 3, 3, 4, 4, 5, 5, 3, 3, 4, 4, 5, 5, 3, 3, 4, 4};

constexpr Float64 CENTRES0[][2] = {{0.1667, 0.75}, {0.1667, -0.25},  {0.5, 1.0833},
                                   {0.5, 0.0833},  {0.8333, 0.4167}, {0.1667, 0.25},
                                   {0.5, 0.5833},  {0.8333, 0.9167}};
constexpr Float64 CENTRES1[][2] = {{0.125, 0.375},  {0.375, 1.125}, {0.375, 0.125}, {0.625, 0.875},
                                   {0.625, -0.125}, {0.875, 0.625}, {0.125, 0.875}, {0.375, 0.625},
                                   {0.625, 0.375},  {0.875, 0.125}};
constexpr Float64 CENTRES2[][2] = {{0.25, 0.25}, {0.75, 0.75}, {0.25, 0.75}, {0.75, 0.25}};
constexpr Float64 CENTRES3[][2] = {
    {0.1, 0.45}, {0.3, 1.05},  {0.3, 0.05}, {0.5, 0.65}, {0.5, -0.35}, {0.7, 1.25}, {0.7, 0.25},
    {0.9, 0.85}, {0.9, -0.15}, {0.1, 0.95}, {0.3, 0.55}, {0.5, 0.15},  {0.7, 0.75}, {0.9, 0.35}};
constexpr Float64 CENTRES4[][2] = {
    {0.3333, 0.25}, {0.8333, 0.75}, {0.3333, 0.75}, {-0.1667, 0.25}, {0.8333, 0.25}};
constexpr Float64 CENTRES5[][2] = {{0.167, 0.667}, {0.5, 1},   {0.5, 0},      {0.833, 0.333},
                                   {0.167, 0.167}, {0.5, 0.5}, {0.833, 0.833}};

const PresetData PRESETS[6] = {
    {373, 30, 5, 1, 3, 6, TABLE0, 8, {0, -30, 12, 0, 1, 5}, {1, -30, 38, 0, 1, 1}, 5, CENTRES0},
    {267, 30, 6, 2, 4, 8, TABLE1, 10, {0, -30, 24, 0, 1, 6}, {1, -30, 36, 0, 2, 1}, 6, CENTRES1},
    {160, 80, 1, 1, 2, 2, TABLE2, 4, {0, 0, 22, -0.7, 1, 1}, {1, 0, 16, -0.7, 1, 1}, 2, CENTRES2},
    {30, 40, 9, 1, 5, 10, TABLE3, 14, {0, 0, 40, 2, 1, 9}, {1, 0, 60, 0, 1, 1}, 9, CENTRES3},
    {5, 60, 8, 16, 6, 8, TABLE4, 5, {0, 0, 50, -0.5, 2, 4}, {1, 0, 23, -0.3, 4, 4}, 2, CENTRES4},
    {120, 40, 12, 6, 6, 9, TABLE5, 7, {0, 30, 30, 0, 2, 6}, {1, 30, 30, 0, 3, 2}, 4, CENTRES5},
};

}  // namespace

ClothPatternLegacy::ClothPatternLegacy() = default;

ClothPatternLegacy::~ClothPatternLegacy() { DropYarns(); }

void ClothPatternLegacy::DropYarns() {
    for (ClothYarnLegacy*& y : _yarns) {
        delete y;
        y = nullptr;
    }
    _yarnCount = 0;
}

Result<void> ClothPatternLegacy::SetupPattern(UInt32 preset) {
    DropYarns();
    if (preset >= 6) return OK;
    const PresetData& p = PRESETS[preset];
    specularRatio = p.specularRatio;
    repeatU = p.repeat;
    repeatV = p.repeat;
    warpArea = p.warpArea;
    weftArea = p.weftArea;
    tileWidth = p.width;
    tileHeight = p.height;
    for (Int i = 0; i < p.width * p.height; ++i) _table[i] = p.table[i];
    Result<void> result = OK;
    for (Int i = 0; i < p.yarnCount; ++i) {
        const YarnKind& k = i < p.warpCount ? p.warp : p.weft;
        _yarns[i] = new (std::nothrow) ClothYarnLegacy(k.type, k.psi, k.umax, k.kappa, k.width,
                                                       k.length, p.centres[i][0], p.centres[i][1]);
        // A yarn that could not be made stays a gap.
        if (!_yarns[i] && result.IsOk()) {
            result = MakeError(
                ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION,
                FormatMessage("XRClothWeavePattern::SetupPattern error: @", {"out of memory"}));
        }
    }
    _yarnCount = p.yarnCount;
    return result;
}

void ClothPatternLegacy::SetupCloth(Int32 quality, Float64 a, Float64 b, Float64 s, Float64 iv,
                                    Float64 fineness, Float64 warpVar, Float64 weftVar,
                                    Float64 scale) {
    alpha = a;
    beta = b;
    smoothing = Clamp(s, 0.0, 0.99);
    intensityVariation = iv;
    intensityFineness = 0.1 / Clamp(fineness, 0.01, 1000.0);
    warpVariation = warpVar;
    weftVariation = weftVar;
    variationScale = 0.01 / Clamp(scale, 0.01, 1000.0);
    static constexpr Int COUNTS[4] = {1, 4, 16, 64};
    if (quality >= -1 && quality <= 2) sampleCount = COUNTS[quality + 1];
}

const ClothYarnLegacy* ClothPatternLegacy::GetYarn(Float64 u, Float64 v, Vector2d64& uvOut,
                                                   Float64& umaxOut, Float64& weightOut,
                                                   Float64& variationState, Bool useVariation,
                                                   Float64 amount) const {
    const Float64 a = repeatU * u;
    const Float64 b = repeatV * v;
    const Float64 fa = std::floor(a);
    const Float64 fb = std::floor(b);
    const Float64 w = static_cast<Float64>(tileWidth);
    const Float64 hh = static_cast<Float64>(tileHeight);
    const Int x = static_cast<Int>(Clamp(std::floor((a - fa) * w), 0.0, w - 1.0));
    const Int y = static_cast<Int>(Clamp(std::floor((b - fb) * hh), 0.0, hh - 1.0));
    // The table stands with its top row first, while v grows upward.
    const Int32 e = _table[x + (tileHeight - 1 - y) * tileWidth];
    if (e < 1 || e - 1 >= _yarnCount) return nullptr;
    const ClothYarnLegacy* yarn = _yarns[e - 1];
    if (!yarn) return nullptr;
    const Vector2d64 centre{(fa + yarn->centerU) * w, (fb + yarn->centerV) * hh};
    const Vector2d64 local{(a - fa - yarn->centerU) * w, (b - fb - yarn->centerV) * hh};
    yarn->GetUV(*this, centre, local, uvOut, umaxOut, variationState, useVariation, amount);
    if (intensityFineness > 0.0 && amount > 0.0 && intensityVariation > 0.0 && useVariation) {
        const Float64 px = (centre.x + local.x) * intensityFineness;
        const Float64 py = (centre.y + local.y) * intensityFineness;
        const Float64 pz = intensityFineness * 0.0;
        const Float64 t = ClothTurbulenceLegacy(px, py, pz, 4.0, true);
        const Float64 q = Clamp(t * 1.2, 0.01, 1.0);
        weightOut = std::min(-std::log(q), 8.0) * (intensityVariation * amount) +
                    (1.0 - intensityVariation * amount);
    }
    return yarn;
}

// ---- cloth class -----------------------------------------------------------------------------

IrawanBxDF::IrawanBxDF(const IrawanSetupLegacy& setup) : _setup(setup) {
    _sinRotation = std::sin(setup.rotation);
    _cosRotation = std::cos(setup.rotation);
    _invScaleU = 1.0 / Clamp(setup.scaleU, 0.001, 1000.0);
    _invScaleV = 1.0 / Clamp(setup.scaleV, 0.001, 1000.0);
    _blur = Clamp(setup.blur, 0.01, 1.0);
}

Color64 IrawanBxDF::ComputeF_UVW(const Vector64& wo, const Vector64& wi, const Vector64& uvw,
                                 const Vector64& delta) {
    const ClothPatternLegacy* pattern = _setup.pattern;
    const Float64 p = delta.y * _invScaleV;
    const Float64 q = delta.x * _invScaleU;
    // The smaller the footprint, the more the variation shows.
    const Float64 w = std::min(5e-05 / (p * p + q * q + 1e-10), 1.0);
    const Int n = pattern ? pattern->sampleCount : 0;
    const Int count = static_cast<Int>(static_cast<Float64>(n) / (w * 4.0 + 0.25));
    Color64 sum{0.0, 0.0, 0.0};
    if (count < 0) return sum;
    const Float64 ratio = pattern ? pattern->specularRatio : 0.0;
    const Float64 amount = w >= 0.01 ? w : 0.0;
    const Float64 s = _sinRotation;
    const Float64 c = _cosRotation;
    const Vector64 woR{c * wo.x - s * wo.y, s * wo.x + c * wo.y, wo.z};
    const Vector64 wiR{c * wi.x - s * wi.y, s * wi.x + c * wi.y, wi.z};
    Float64 weight = 1.0;
    Float64 variationState = 0.0;
    for (Int i = 0; i <= count && pattern; ++i) {
        // Both jitter numbers are drawn in every pass; the first pass sits on the position.
        _state = (_state * 69069u + 69069u) & 0x7fffffffu;
        Float64 r1 = 2.0 * static_cast<Float64>(_state) / 2147483649.0 - 1.0;
        _state = (_state * 69069u + 69069u) & 0x7fffffffu;
        Float64 r2 = 2.0 * static_cast<Float64>(_state) / 2147483649.0 - 1.0;
        if (i == 0) r1 = r2 = 0.0;
        const Float64 a = uvw.x + r1 * delta.x * 0.75;
        const Float64 b = uvw.y + r2 * delta.y * 0.75;
        const Float64 u = _invScaleU * (c * a - s * b);
        const Float64 v = (c * b + s * a) * _invScaleV;
        Vector2d64 uv;
        Float64 umax = 0.0;
        const ClothYarnLegacy* yarn =
            pattern->GetYarn(u, v, uv, umax, weight, variationState, i == 0, amount);
        if (!yarn) continue;  // a gap adds nothing but still counts
        const Vector64 wiS = wiR.z < 0.0 ? Negate(wiR) : wiR;
        const Vector64 woS = woR.z < 0.0 ? Negate(woR) : woR;
        const Vector2d64 area{pattern->warpArea, pattern->weftArea};
        const Vector2d64 scattering{pattern->alpha, pattern->beta};
        Float64 f = yarn->Evaluate(wiS, woS, uv, scattering, area, umax, _blur, pattern->smoothing);
        f = ratio * f * weight;
        f = f + f;
        const Color64& specular = yarn->type == 0 ? _setup.warpSpecular : _setup.weftSpecular;
        const Color64& diffuse = yarn->type == 0 ? _setup.warpDiffuse : _setup.weftDiffuse;
        sum.r += f * specular.r + diffuse.r;
        sum.g += f * specular.g + diffuse.g;
        sum.b += f * specular.b + diffuse.b;
    }
    const Float64 k = static_cast<Float64>(count + 1);
    return {sum.r / k, sum.g / k, sum.b / k};
}

Color64 IrawanBxDF::SampleF(const Vector64& wo, const Vector64&, const BSDFCachedSample& sample,
                            Vector64& wi, Float64& pdf) {
    wi = CosineDirection(sample);
    pdf = CosinePdf(wi.z);
    if (std::fabs(wi.z) < 1e-10) return Black();
    return ComputeF_UVW(wo, wi, _setup.uvw, _setup.uvwDelta);
}

Color64 IrawanBxDF::ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64&,
                                Float64& pdf) {
    if (wo.z * wiSide.z > 0.0 && std::fabs(wiSide.z) >= 1e-10) {
        pdf = std::fabs(wiSide.z) / PI;
        return ComputeF_UVW(wo, wiSide, _setup.uvw, _setup.uvwDelta);
    }
    pdf = 0.0;
    return Black();
}

}  // namespace quorv::legacy
