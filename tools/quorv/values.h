#pragma once
// Values the command line and the Python module share, so that a parameter or a description
// means the same through both.

#include <string>
#include <utility>
#include <vector>

#include "jsonio.h"
#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/microfacetdistributioncaches.h"
#include "render/photometric/ies.h"
#include "render/textures/texture.h"

namespace quorv::cli {

/// A camera `Init` dictionary from {key id: JSON value}: each key must be a declared key of a
/// loaded module ("Unknown parameter key K" otherwise); each value is read as the key's type.
Result<DataDictionary> BuildCameraParameters(const std::vector<std::pair<std::string, Json>>& params);

/// A dictionary's entries as {key id: JSON value}; entries of types without a JSON form are null.
Json DictionaryToJson(const DataDictionary& d);

/// A legacy BSDF `Init` dictionary: keys are integers or their names (1001 or
/// "BSDF_PARAM_ROUGHNESS"); the two switches take true or false, the others numbers. `cache`,
/// when given, goes under key 1000 as the module's sampler cache pointer type.
Result<DataDictionary> BuildBSDFParameters(const std::vector<std::pair<std::string, Json>>& params,
                                           SamplerCache* cache);

/// What `quorv ies info` shows of a web, in its order: version, tilt, the keyword texts the file
/// has, shape, size, nV, nH, maxIntensity, lightPowerRatio, checksum.
std::vector<std::pair<std::string, Json>> DescribeIes(const IesRef& ies);

/// What `quorv texture info` shows of a texture: size, formats, flags, profile, fps, duration,
/// frames.
Json TextureInfoJson(const TextureImpl& t);

/// UTF-8 text as a photometric file holds it: one byte per character.
std::string ToBit8(const std::string& utf8);

}  // namespace quorv::cli
