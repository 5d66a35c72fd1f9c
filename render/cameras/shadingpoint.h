#pragma once
/// The surface point a renderer hands to a camera for the pixel footprint. Its layout is a
/// contract between modules.

#include <cstddef>
#include <type_traits>

#include "quorv/datatype.h"

namespace quorv {

/// A shading point: the head of an `IntersectionResult64`, the surface point, the footprint
/// of one pixel on the surface and the plane normal of that footprint. All zero by default.
/// Trivially copyable; owned by the thread that holds it.
struct ShadingPoint {
    UInt headWordA = 0;          ///< head of IntersectionResult64
    UInt headWordB = 0;          ///< head of IntersectionResult64
    UInt8 headFlag = 0;          ///< head of IntersectionResult64
    Vector64 position;           ///< the surface point, read by CalculateMIPComponents
    Vector64 footprintX;         ///< surface point of the ray one pixel along x
    Vector64 footprintY;         ///< surface point of the ray one pixel along y
    Vector64 pointVectorA;       ///< carried for the renderer
    Vector64 pointVectorB;       ///< carried for the renderer
    Vector64 normal;             ///< the plane normal used for the footprint
    Vector64 pointVectorC;       ///< carried for the renderer
    Vector64 pointVectorD;       ///< carried for the renderer
    UInt tailWords[2] = {0, 0};  ///< carried for the renderer

    /// Member-wise equality (padding aside).
    friend bool operator==(const ShadingPoint&, const ShadingPoint&) = default;
};

static_assert(std::is_trivially_copyable_v<ShadingPoint>);
static_assert(offsetof(ShadingPoint, headFlag) == 16);
static_assert(offsetof(ShadingPoint, position) == 24);
static_assert(offsetof(ShadingPoint, normal) == 144);
static_assert(offsetof(ShadingPoint, tailWords) == 216);
static_assert(sizeof(ShadingPoint) == 232 && alignof(ShadingPoint) == 8);

QUORV_DATATYPE_ID(ShadingPoint, "net.quorv.render.shadingpoint");

}  // namespace quorv
