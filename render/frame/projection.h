#pragma once
/// The projection record of a shading context. The renderer fills and reads it; this module
/// only constructs and copies it, so its inner structure is the renderer's.

#include <type_traits>

#include "quorv/datatype.h"

namespace quorv {

/// Twenty zeroed words, a zeroed word and a 32-bit value of 1. Trivially copyable.
struct Projection {
    UInt words[20] = {};
    UInt tailWord = 0;
    Int32 tailValue = 1;
};

static_assert(sizeof(Projection) == 176 && alignof(Projection) == 8);
static_assert(std::is_trivially_copyable_v<Projection>);

QUORV_DATATYPE_ID(Projection, "net.quorv.render.projection");

}  // namespace quorv
