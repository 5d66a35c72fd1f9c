#pragma once
/// Files that appear whole or not at all. Every file the host and the command line write goes
/// through here: the bytes go to a temporary file in the target's folder, every write, the
/// `fsync` and the close are checked, and only then is the temporary renamed over the target.
/// On any failure the temporary is removed and an existing target is left untouched, so a
/// killed writer, a full disk or a concurrent writer of the same name never leaves a cut-off
/// or mixed file: the name holds one writer's complete bytes.

#include <string>
#include <string_view>

#include "quorv/host/host.h"
#include "quorv/result.h"

namespace quorv::host {

/// Writes `bytes` to `path` as described above. Errors are "net.quorv.error.io" with the
/// message "Cannot write PATH: reason" (reason from the system, e.g. "No space left on
/// device"). A symbolic link at `path` is replaced, not followed. Thread safe; concurrent
/// writers of one path each publish a whole file and the last rename wins.
QUORV_HOST_API Result<void> WriteFileAtomically(const std::string& path, std::string_view bytes);

}  // namespace quorv::host
