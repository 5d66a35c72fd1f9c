// Translated texts from JSON files of the resource folder: strings/LANGUAGE/RESOURCEID.json,
// an object of key and text. A language without the file falls back to "en". The current
// language, as an object that data description loads take. The service's loads keep each table
// they parsed, per folder, language and resource id, until the options change: an application's
// resources don't change while it runs, and a preview submitted after the last one ended asks
// for its progress entry's name again.
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
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

// A parsed table and the file it came from (named in messages).
struct ResourceTable {
    std::string path;
    nlohmann::json json;
};
using TableRef = std::shared_ptr<const ResourceTable>;

Result<std::string> Fail(std::string_view resourceId, std::string_view key,
                         const std::string& why) {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     "Cannot load resource string " + std::string(key) + " of " +
                         std::string(resourceId) + ": " + why);
}

// The table of `resourceId` in `language`, or in "en" where the language has no file. The key
// only names the failure. Throws on a short memory, as GuardAllocation expects.
Result<TableRef> LoadResourceTable(const std::string& directory, const std::string& language,
                                   std::string_view resourceId, std::string_view key) {
    auto fail = [&](const std::string& why) -> Result<TableRef> {
        return Fail(resourceId, key, why).GetError();
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
    auto table = std::make_shared<ResourceTable>();
    table->path = path.string();
    table->json = nlohmann::json::parse(bytes.GetValue(), nullptr, false);
    if (!table->json.is_object()) return fail(table->path + " is not a JSON object");
    return TableRef(std::move(table));
}

Result<std::string> LookUpResourceString(const ResourceTable& table, std::string_view resourceId,
                                         std::string_view key) {
    auto it = table.json.find(std::string(key));
    if (it == table.json.end()) return Fail(resourceId, key, "no such key in " + table.path);
    if (!it->is_string())
        return Fail(resourceId, key, "the value in " + table.path + " is not a text");
    return it->get<std::string>();
}

// Tables the service loaded, by folder, language and resource id; cleared when the options
// change. Under g_resourceMutex. Failed loads are not kept: a file may still appear.
std::map<std::string, TableRef> g_tables;

Result<std::string> LoadResourceString(const char* resourceId, const char* key) {
    if (!resourceId || !key) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Resource id or key missing");
    }
    return GuardAllocation([&]() -> Result<std::string> {
        std::string directory, language;
        TableRef table;
        std::string cacheKey;
        {
            std::lock_guard<std::mutex> lock(g_resourceMutex);
            directory = g_resourceDirectory;
            language = g_language;
            cacheKey = directory + '\0' + language + '\0' + resourceId;
            auto it = g_tables.find(cacheKey);
            if (it != g_tables.end()) table = it->second;
        }
        if (!table) {
            Result<TableRef> loaded = LoadResourceTable(directory, language, resourceId, key);
            if (loaded.IsError()) return loaded.GetError();
            table = loaded.GetValue();
            std::lock_guard<std::mutex> lock(g_resourceMutex);
            // Options changed meanwhile: the table is of the old folder or language.
            if (directory == g_resourceDirectory && language == g_language)
                g_tables.emplace(cacheKey, table);
        }
        return LookUpResourceString(*table, resourceId, key);
    });
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
        Result<TableRef> table = LoadResourceTable(directory, language, resourceId, key);
        if (table.IsError()) return table.GetError();
        return LookUpResourceString(*table.GetValue(), resourceId, key);
    });
}

void SetResourceOptions(const std::string& directory, const std::string& language) {
    std::lock_guard<std::mutex> lock(g_resourceMutex);
    g_resourceDirectory = directory.empty() ? DefaultResourceDirectory() : directory;
    g_language = language.empty() ? "en" : language;
    g_tables.clear();
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
