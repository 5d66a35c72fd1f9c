#pragma once
/// Small records and enumerations that renderers, intersectors and BSDFs of several modules
/// pass to one another. Layouts are a contract between modules.

#include <type_traits>

#include "quorv/datatype.h"

namespace quorv {

/// Which kind of render asks: a final render, a material preview or the viewport.
enum class RENDER_MODE : Int32 { NORMAL = 0, PREVIEW = 1, VIEWPORT = 2 };

/// Outcome of a lazy set-up.
enum class SETUP_STATE : Int32 { UNINITIALIZED = 0, FAILED = 1, SUCCEEDED = 2 };

/// A quarter of a rectangle.
enum class QUADRANT : Int32 { TOP_LEFT = 0, TOP_RIGHT = 1, BOTTOM_LEFT = 2, BOTTOM_RIGHT = 3 };

/// One layer of a layered BSDF: an empty record, neither member nor construction.
struct BSDFLayer {};

/// Texture coordinates in 32 bits, one per polygon corner; zero by default.
struct UVWData32 {
    Vector32 a, b, c, d;
};

/// Texture coordinates in 64 bits, one per polygon corner; zero by default.
struct UVWData64 {
    Vector64 a, b, c, d;
};

/// Vertex colours with alpha in 32 bits, one per polygon corner; (0, 0, 0, 1) by default.
struct VertexColorData32 {
    ColorA32 a{0.0f, 0.0f, 0.0f, 1.0f};
    ColorA32 b{0.0f, 0.0f, 0.0f, 1.0f};
    ColorA32 c{0.0f, 0.0f, 0.0f, 1.0f};
    ColorA32 d{0.0f, 0.0f, 0.0f, 1.0f};
};

/// Vertex colours with alpha in 64 bits, one per polygon corner; (0, 0, 0, 1) by default.
struct VertexColorData64 {
    ColorA64 a{0.0, 0.0, 0.0, 1.0};
    ColorA64 b{0.0, 0.0, 0.0, 1.0};
    ColorA64 c{0.0, 0.0, 0.0, 1.0};
    ColorA64 d{0.0, 0.0, 0.0, 1.0};
};

static_assert(std::is_empty_v<BSDFLayer> && std::is_trivial_v<BSDFLayer>);
static_assert(sizeof(UVWData32) == 48 && sizeof(UVWData64) == 96);
static_assert(sizeof(VertexColorData32) == 64 && sizeof(VertexColorData64) == 128);
static_assert(std::is_trivially_copyable_v<UVWData32> && std::is_trivially_copyable_v<UVWData64>);
static_assert(std::is_trivially_copyable_v<VertexColorData32> &&
              std::is_trivially_copyable_v<VertexColorData64>);

QUORV_DATATYPE_ID(RENDER_MODE, "net.quorv.render.datatype.rendermode");
QUORV_DATATYPE_ID(BSDFLayer, "net.quorv.render.datatype.bsdflayer");
QUORV_DATATYPE_ID(UVWData32, "net.quorv.datatype.rendercommon.uvwdata32");
QUORV_DATATYPE_ID(UVWData64, "net.quorv.datatype.rendercommon.uvwdata64");
QUORV_DATATYPE_ID(VertexColorData32, "net.quorv.datatype.rendercommonvertex.colordata32");
QUORV_DATATYPE_ID(VertexColorData64, "net.quorv.datatype.rendercommonvertex.colordata64");

}  // namespace quorv
