#pragma once
/// The records that callers hand to the legacy BSDF classes: the cloth class's `Init` data and
/// the anisotropic classes' scratch record for `Update`.

#include "render/legacy_renderers/clothweavepattern.h"

namespace quorv {

/// `data` of `Init` of "net.quorv.render.bsdflegacyclass.irawanbrdf".
struct IrawanInitData {
    Color64 warpDiffuse;
    Color64 warpSpecular;
    Color64 weftDiffuse;
    Color64 weftSpecular;
    Vector64 uvw;            ///< texture position for `SampleF` and `ComputeBSDF`
    Vector64 uvwDelta;       ///< footprint for the same
    Float64 rotation = 0.0;  ///< radians
    Float64 scaleU = 1.0;
    Float64 scaleV = 1.0;
    Float64 blur = 0.0;
    ClothWeavePatternRef pattern;
};

/// The `type` of `Update` that carries an `AnisotropicScratchData`.
constexpr UInt32 BSDF_UPDATE_SCRATCH = 2048;

/// Scratch mappings and patterns of the anisotropic classes.
enum class SCRATCHMAPPING : UInt8 { PLANAR = 0, RADIAL = 1, NONE = 2 };

/// `data` of `Update` with type 2048: procedural scratches that turn the tangent frame.
struct AnisotropicScratchData {
    Float64 centerX = 0.0;
    Float64 centerY = 0.0;
    Int sectors = 0;         ///< radial mode only
    Float64 scale = 1.0;     ///< cells per unit; kept as 1 / max(value, 0.0001)
    Float64 rotation = 0.0;  ///< radians
    Float64 tilt = 0.0;      ///< radians
    Float64 amplitudeU = 0.0;
    Float64 frequencyU = 1.0;  ///< kept as 1 / max(value, 0.0001)
    Float64 stretchU = 1.0;    ///< kept as 1 / max(value, 0.0001)
    Float64 blurU = 0.0;
    Float64 amplitudeV = 0.0;
    Float64 frequencyV = 1.0;
    Float64 stretchV = 1.0;
    Float64 blurV = 0.0;
    UInt8 mapping = 0;   ///< SCRATCHMAPPING
    UInt8 pattern = 0;   ///< 0 to 4
    UInt8 mirror = 0;    ///< bit 0 mirrors u, bit 1 mirrors v
    UInt8 channels = 3;  ///< 1 or 3: u scratches; 2 or 3: v scratches
};

}  // namespace quorv
