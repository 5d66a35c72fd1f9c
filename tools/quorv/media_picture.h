#pragma once
// Writing a host image to a file: grey images as one channel, all others as RGBA, read through
// the host's line handlers as Float32.
#include <string>

#include "quorv/image.h"

namespace quorv::cli {

/// Writes `image` to `path` (.png or .exr) whole or not at all.
Result<void> WritePicture(const std::string& path, const ImageObject* image);

}  // namespace quorv::cli
