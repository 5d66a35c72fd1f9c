#pragma once
/// The ray record a camera fills for a renderer of another module. Its layout is a contract
/// between modules: members stand in this order, with these widths.

#include <cfloat>
#include <cstddef>
#include <type_traits>

#include "quorv/datatype.h"

namespace quorv {

/// A ray with its range, its pixel differentials and what the renderer carries along.
/// Cameras write `origin`, `direction` and the four differentials and nothing else.
/// Trivially copyable; owned by the thread that holds it.
struct Ray {
    Vector64 origin;                    ///< written by CreateScreenRay
    Vector64 direction;                 ///< written by CreateScreenRay; not always normalised
    Float64 minDistance = 0.0;          ///< start of the ray's range
    Float64 maxDistance = DBL_MAX;      ///< end of the ray's range
    UInt rayWord = 0;                   ///< carried for the renderer
    Int32 rayIndex = -1;                ///< carried for the renderer
    Vector64 originDx;                  ///< ray differential, one pixel in x
    Vector64 originDy;                  ///< ray differential, one pixel in y
    Vector64 directionDx;               ///< written by CalculateMIPComponents
    Vector64 directionDy;               ///< written by CalculateMIPComponents
    Vector64 rayWeight{1.0, 1.0, 1.0};  ///< carried for the renderer
    Float64 rayValueA = 1.0;            ///< carried for the renderer
    Float64 rayValueB = 1.0;            ///< carried for the renderer
    UInt16 rayFlagsA = 1;               ///< carried for the renderer
    UInt8 rayFlagsB = 1;                ///< carried for the renderer

    /// Member-wise equality (padding aside); for tests and callers that cache rays.
    friend bool operator==(const Ray&, const Ray&) = default;
};

static_assert(std::is_trivially_copyable_v<Ray>);
static_assert(offsetof(Ray, minDistance) == 48);
static_assert(offsetof(Ray, rayWord) == 64);
static_assert(offsetof(Ray, rayIndex) == 72);
static_assert(offsetof(Ray, originDx) == 80);
static_assert(offsetof(Ray, directionDx) == 128);
static_assert(offsetof(Ray, rayWeight) == 176);
static_assert(offsetof(Ray, rayValueA) == 200);
static_assert(offsetof(Ray, rayFlagsA) == 216);
static_assert(offsetof(Ray, rayFlagsB) == 218);
static_assert(sizeof(Ray) == 224 && alignof(Ray) == 8);

QUORV_DATATYPE_ID(Ray, "net.quorv.render.ray");

}  // namespace quorv
