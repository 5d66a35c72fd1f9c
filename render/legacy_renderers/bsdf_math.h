#pragma once
// Private vector arithmetic of the legacy BSDF classes, written out so that every operation
// happens in the order the formulas give (the build does not contract multiply-adds).

#include <cmath>

#include "render/legacy_renderers/bsdf_legacy.h"

namespace quorv {

inline constexpr Color64 ZERO_COLOR{0.0, 0.0, 0.0};

inline Float64 Dot(const Vector64& a, const Vector64& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline Vector64 Add(const Vector64& a, const Vector64& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vector64 Negate(const Vector64& a) { return {-a.x, -a.y, -a.z}; }

/// 2 (wo.h) h - wo.
inline Vector64 Reflect(const Vector64& wo, const Vector64& h) {
    const Float64 d = 2.0 * Dot(wo, h);
    return {d * h.x - wo.x, d * h.y - wo.y, d * h.z - wo.z};
}

/// v scaled by 1 / |v|; a zero length gives a zero scale.
inline Vector64 Normalize(const Vector64& v) {
    const Float64 length = std::sqrt(Dot(v, v));
    const Float64 scale = length > 0.0 ? 1.0 / length : 0.0;
    return {v.x * scale, v.y * scale, v.z * scale};
}

/// The cosine-weighted direction of a sample: products in Float32, then widened.
inline Vector64 CosineSample(const BSDFCachedSample& s) {
    return {static_cast<Float64>(s.sinPhi * s.sinTheta),
            static_cast<Float64>(s.cosPhi * s.sinTheta), static_cast<Float64>(s.cosTheta)};
}

/// a (3.535 + 2.181 a) / (1 + a (2.276 + 2.577 a)): the rational masking fit.
inline Float64 RationalG1(Float64 a) {
    return a * (3.535 + 2.181 * a) / (1.0 + a * (2.276 + 2.577 * a));
}

}  // namespace quorv
