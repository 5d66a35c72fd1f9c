// Translated texts from JSON files of the resource folder: strings/LANGUAGE/RESOURCEID.json,
// an object of key and text. A language without the file falls back to "en". The current
// language, as an object that data description loads take.
#include <cstring>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "host_internal.h"
#include "quorv/resource.h"
#include "services_impl.h"

namespace quorv::host {

namespace {

std::mutex g_resourceMutex;
std::string g_resourceDirectory;  // set by Host::Start
std::string g_language = "en";

// The folder `resources` beside the folder of the running program (`<exe dir>/../resources`):
// build/<preset>/resources in the build tree, PREFIX/resources when installed.
std::string DefaultResourceDirectory() {
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return "resources";
    return (self.parent_path().parent_path() / "resources").string();
}

// A resource id names a file: no folder separators, no parent references, no empty name.
bool IsPlainName(std::string_view id) {
    return !id.empty() && id.find('/') == std::string_view::npos && id != "." && id != ".." &&
           id.find('\0') == std::string_view::npos;
}

Result<std::string> LoadResourceString(const char* resourceId, const char* key) {
    if (!resourceId || !key) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Resource id or key missing");
    }
    std::string directory, language;
    {
        std::lock_guard<std::mutex> lock(g_resourceMutex);
        directory = g_resourceDirectory;
        language = g_language;
    }
    return LoadResourceStringFrom(directory, language, resourceId, key);
}

Result<LanguageObject*> GetCurrentLanguage() {
    return GuardAllocation([&]() -> Result<LanguageObject*> {
        LanguageObject* l = NewCountedObject<LanguageObject>(&DeleteCountedObject<LanguageObject>,
                                                             QUORV_SOURCE_LOCATION);
        if (!l) return OutOfMemoryError();
        Ref<LanguageObject> held(l);
        l->name = GetCurrentLanguageName();
        return held.Disconnect();
    });
}

Int GetLanguageName(const LanguageObject* l, char* buffer, Int capacity) {
    if (!l) return 0;
    const Int n = static_cast<Int>(l->name.size());
    if (buffer && capacity > 0) {
        const Int m = n < capacity - 1 ? n : capacity - 1;
        std::memcpy(buffer, l->name.data(), static_cast<size_t>(m));
        buffer[m] = 0;
    }
    return n;
}

void FreeLanguage(LanguageObject* l) { RemoveReference(l); }

const ResourceInterface::Slots g_slots{
    .LoadResourceString = &LoadResourceString,
    .GetCurrentLanguage = &GetCurrentLanguage,
};
const LanguageInterface::Slots g_languageSlots{.GetName = &GetLanguageName, .Free = &FreeLanguage};

}  // namespace

Result<std::string> LoadResourceStringFrom(const std::string& directory,
                                           const std::string& language, std::string_view resourceId,
                                           std::string_view key) {
    return GuardAllocation([&]() -> Result<std::string> {
        const std::string what =
            "Cannot load resource string " + std::string(key) + " of " + std::string(resourceId);
        auto fail = [&](const std::string& why) -> Result<std::string> {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, what + ": " + why);
        };
        if (!IsPlainName(resourceId)) return fail("the resource id is not a file name");
        const std::filesystem::path strings = std::filesystem::path(directory) / "strings";
        const std::string file = std::string(resourceId) + ".json";
        std::filesystem::path path = strings / (language.empty() ? "en" : language) / file;
        std::error_code ec;
        if (!std::filesystem::is_regular_file(path, ec)) {
            const std::filesystem::path fallback = strings / "en" / file;
            if (!std::filesystem::is_regular_file(fallback, ec)) {
                return fail("no file " + fallback.string());
            }
            path = fallback;
        }
        Result<std::string> bytes = ReadWholeFile(path.string());
        if (bytes.IsError()) return fail(ErrorToString(bytes.GetErrorPointer()));
        nlohmann::json table = nlohmann::json::parse(bytes.GetValue(), nullptr, false);
        if (!table.is_object()) return fail(path.string() + " is not a JSON object");
        auto it = table.find(std::string(key));
        if (it == table.end()) return fail("no such key in " + path.string());
        if (!it->is_string()) return fail("the value in " + path.string() + " is not a text");
        return it->get<std::string>();
    });
}

void SetResourceOptions(const std::string& directory, const std::string& language) {
    std::lock_guard<std::mutex> lock(g_resourceMutex);
    g_resourceDirectory = directory.empty() ? DefaultResourceDirectory() : directory;
    g_language = language.empty() ? "en" : language;
}

std::string GetCurrentLanguageName() {
    std::lock_guard<std::mutex> lock(g_resourceMutex);
    return g_language;
}

std::string GetResourceDirectory() {
    std::lock_guard<std::mutex> lock(g_resourceMutex);
    return g_resourceDirectory.empty() ? DefaultResourceDirectory() : g_resourceDirectory;
}

void RegisterResourceService(Host& host) {
    host.RegisterService<ResourceInterface>(g_slots);
    host.RegisterService<LanguageInterface>(g_languageSlots);
}

}  // namespace quorv::host
