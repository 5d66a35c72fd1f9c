#pragma once
/// Translated texts of the application: a resource id names a table of texts, a key one text.
/// The host reads them from JSON files of its resource folder,
/// `strings/LANGUAGE/RESOURCEID.json`, an object of key and text; a language without the file
/// falls back to "en".

#include <string>

#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

// clang-format off
#define QUORV_RESOURCE_METHODS(M) \
    M(Result<std::string>, LoadResourceString, (const char* resourceId, const char* key), (resourceId, key))
// clang-format on
/// `LoadResourceString`: the text; a missing file or key is an illegal-argument error that
/// names the resource id and the key.
QUORV_NONVIRTUAL_INTERFACE(ResourceInterface, "net.quorv.interface.resource", QUORV_RESOURCE_METHODS);

}  // namespace quorv
