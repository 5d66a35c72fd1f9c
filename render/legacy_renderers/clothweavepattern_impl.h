#pragma once
// Private to the legacy BSDFs (and their white-box tests): the functions behind the slots of
// "net.quorv.render.interface.clothweavepattern", called directly by the cloth class.

#include "render/legacy_renderers/clothweavepattern.h"

namespace quorv::cloth {

void Free(ClothWeavePatternImpl* pattern);
Result<ClothWeavePatternImpl*> Alloc();
Result<void> Init(ClothWeavePatternImpl* pattern);
Result<void> SetupPattern(ClothWeavePatternImpl* pattern, UInt32 preset);
void SetupCloth(ClothWeavePatternImpl* pattern, Int32 quality, Float64 alpha, Float64 beta,
                Float64 smoothing, Float64 intensityVariation, Float64 intensityFineness,
                Float64 warpVariation, Float64 weftVariation, Float64 variationScale);
void ComputeSpecularRatio(ClothWeavePatternImpl* pattern);
Float64 GetSpecularRatio(const ClothWeavePatternImpl* pattern);
Vector2d64 GetScatteringCoefficients(const ClothWeavePatternImpl* pattern);
Float64 GetSmoothing(const ClothWeavePatternImpl* pattern);
Vector2d64 GetWarpWeftArea(const ClothWeavePatternImpl* pattern);
Int GetSampleCount(const ClothWeavePatternImpl* pattern);
const ClothYarn* GetYarn(const ClothWeavePatternImpl* pattern, Float64 u, Float64 v,
                         Vector2d64* uvOut, Float64* umaxOut, Float64* weightOut,
                         Float64* variationState, Bool useVariation, Float64 amount);

}  // namespace quorv::cloth
