#pragma once
/// The host's warning log: messages modules write through `WarningInterface::WarningOutput`,
/// kept like the critical log (and echoed to stderr when critical messages are).

#include <string>
#include <vector>

#include "quorv/host/host.h"

namespace quorv::host {

/// Warnings so far, oldest first.
QUORV_HOST_API std::vector<std::string> GetWarningLog();
QUORV_HOST_API void ClearWarningLog();
/// Registers a folder of data descriptions under `id`, as `RegisterDatabaseWithUrl` does.
QUORV_HOST_API Result<void> RegisterDescriptionFolder(const std::string& id,
                                                      const std::string& folder);
/// Forgets the folders registered under `id` (later loads no longer search them); true when
/// there was one. Descriptions loaded before stay as they are.
QUORV_HOST_API bool UnregisterDescriptionFolder(const std::string& id);

}  // namespace quorv::host
