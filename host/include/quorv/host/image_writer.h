#pragma once
/// Writing pictures to files through OpenImageIO: PNG as 8 bits per channel, EXR as 32-bit
/// float. Host side only: the command line and tests use it; modules reach pictures through
/// the host's image services.

#include <string>

#include "quorv/host/host.h"
#include "quorv/result.h"

namespace quorv::host {

/// Writes `width` x `height` pixels of `channels` Float32 values each (1 grey, 3 RGB, 4 RGBA),
/// rows top to bottom, to `path`. The suffix picks the format: ".png" stores each value clamped
/// to [0, 1] and rounded to 8 bits (NaN as 0), ".exr" stores the floats as they are. Another
/// suffix or bad sizes give an illegal-argument error naming the file; a failure to write gives
/// "net.quorv.error.io" with the library's or the system's reason. The file appears whole or
/// not at all (`WriteFileAtomically`): on failure an existing file of that name is untouched.
/// Thread safe.
QUORV_HOST_API Result<void> WriteImage(const std::string& path, Int width, Int height, Int channels,
                        const Float32* pixels);

/// The 8-bit value a PNG stores for `v`.
QUORV_HOST_API UInt8 ToByte(Float32 v);

}  // namespace quorv::host
