#pragma once
/// Translated texts of the application: a resource id names a table of texts, a key one text.
/// The host reads them from JSON files of its resource folder,
/// `strings/LANGUAGE/RESOURCEID.json`, an object of key and text; a language without the file
/// falls back to "en". Also the current language, which data descriptions are loaded in.

#include <string>

#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

/// A language of translated texts (a counted host object).
struct LanguageObject;

// clang-format off
#define QUORV_RESOURCE_METHODS(M) \
    M(Result<std::string>, LoadResourceString, (const char* resourceId, const char* key), (resourceId, key)) \
    M(Result<LanguageObject*>, GetCurrentLanguage, (), ())
#define QUORV_LANGUAGE_METHODS(M) \
    M(Int, GetName, (const LanguageObject* language, char* buffer, Int capacity), (language, buffer, capacity)) \
    M(void, Free, (LanguageObject* language), (language))
// clang-format on
/// `LoadResourceString`: the text; a missing file or key is an illegal-argument error that
/// names the resource id and the key. `GetCurrentLanguage`: the language texts are shown in
/// (the host's `--language`, "en" by default), one reference for the caller, who releases it
/// with `LanguageInterface::Free`; out of memory is the kind 0 error.
QUORV_NONVIRTUAL_INTERFACE(ResourceInterface, "net.quorv.interface.resource", QUORV_RESOURCE_METHODS);
/// `GetName`: the language's name ("en", "de", ...) into `buffer` (NUL-terminated, cut to
/// `capacity`), answering its full length. `Free`: drops the caller's reference; accepts null.
QUORV_NONVIRTUAL_INTERFACE(LanguageInterface, "net.quorv.interface.language",
                           QUORV_LANGUAGE_METHODS);

}  // namespace quorv
