#pragma once
// JSON forms of the cloth class's Init record (with the weave pattern it names) and of the
// anisotropic classes' scratch record, shared by `quorv cloth` and `quorv bsdf`.

#include "jsonio.h"
#include "render/legacy_renderers/bsdfdata.h"

namespace quorv::cli {

/// The SetupCloth arguments, with the defaults the command line uses.
struct ClothSetupArguments {
    Int32 quality = 2;
    Float64 alpha = 0.01;
    Float64 beta = 4.0;
    Float64 smoothing = 0.0;
    Float64 intensityVariation = 0.0;
    Float64 intensityFineness = 1.0;
    Float64 warpVariation = 0.0;
    Float64 weftVariation = 0.0;
    Float64 variationScale = 1.0;
};

/// Reads "quality", "alpha", ... of `j` over `args`; a bad field throws a LineError.
void ReadClothSetup(const Json& j, ClothSetupArguments* args);

/// Reads the record fields of `j` over `data` ("warpDiffuse", "warpSpecular", "weftDiffuse",
/// "weftSpecular" as [r,g,b], "uvw", "uvwDelta" as [x,y,z], "rotation", "scaleU", "scaleV",
/// "blur") and makes its pattern: "preset" (default 1) through SetupPattern, then SetupCloth
/// with the "setupCloth" object over the defaults. Unknown fields and bad values throw a
/// LineError; a failure of the pattern's interface too.
void ReadClothRecord(const Json& j, IrawanInitData* data);

/// The record with the command line's defaults: colours, scale 1, blur 1, preset 1, quality 2.
IrawanInitData DefaultClothRecord();

/// Reads a scratch record: the Float64 fields by name, "sectors" an integer, "mapping",
/// "pattern", "mirror" and "channels" integers 0 to 255. Unknown fields throw a LineError.
AnisotropicScratchData ReadScratchRecord(const Json& j);

}  // namespace quorv::cli
