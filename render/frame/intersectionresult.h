#pragma once
/// Hit records that intersectors of other modules fill. This module only constructs and
/// copies them; the meaning of the members is the intersectors'. Layouts are a contract
/// between modules.

#include <cstddef>
#include <type_traits>

#include "quorv/datatype.h"

namespace quorv {

/// The head that `IntersectionResult64`, `IntersectionResult32`, `ShadingPoint` and
/// `ShadingContext` start a hit with: two words and a flag, zero by default.
struct IntersectionHead {
    UInt headWordA = 0;
    UInt headWordB = 0;
    UInt8 headFlag = 0;
};

/// A hit in 64-bit precision. All members default to zero.
struct IntersectionResult64 {
    UInt headWordA = 0;
    UInt headWordB = 0;
    UInt8 headFlag = 0;
    Vector64 hitVectorA;
    Vector64 hitVectorB;
    Int32 hitValue = 0;  ///< a 32-bit value of the intersector's; kept as a signed integer
};

/// A hit in 32-bit precision: the same members as `IntersectionResult64` with `Vector32`.
struct IntersectionResult32 {
    UInt headWordA = 0;
    UInt headWordB = 0;
    UInt8 headFlag = 0;
    alignas(8) Vector32 hitVectorA;  ///< after the whole 24-byte head, as in every head carrier
    Vector32 hitVectorB;
    Int32 hitValue = 0;  ///< a 32-bit value of the intersector's; kept as a signed integer
};

static_assert(sizeof(IntersectionHead) == 24 && alignof(IntersectionHead) == 8);
static_assert(offsetof(IntersectionResult64, headFlag) == offsetof(IntersectionHead, headFlag));
static_assert(offsetof(IntersectionResult64, hitVectorA) == 24);
static_assert(offsetof(IntersectionResult64, hitVectorB) == 48);
static_assert(offsetof(IntersectionResult64, hitValue) == 72);
static_assert(sizeof(IntersectionResult64) == 80);
static_assert(offsetof(IntersectionResult32, hitVectorA) == 24);
static_assert(offsetof(IntersectionResult32, hitVectorB) == 36);
static_assert(offsetof(IntersectionResult32, hitValue) == 48);
static_assert(sizeof(IntersectionResult32) == 56);
static_assert(std::is_trivially_copyable_v<IntersectionResult64> &&
              std::is_trivially_copyable_v<IntersectionResult32>);

QUORV_DATATYPE_ID(IntersectionResult64, "net.quorv.render.intersectionresult64");
QUORV_DATATYPE_ID(IntersectionResult32, "net.quorv.render.intersectionresult32");

}  // namespace quorv
