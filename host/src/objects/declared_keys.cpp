// The dictionary keys that the bound binaries declare, with their value types: what the data
// dictionary object class checks a value against before it stores it. Filled when a binary is
// bound, emptied of its keys when it is unloaded; read from any thread.
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "host_internal.h"

namespace quorv::host {

namespace {

// Key id -> (declaring binary, value type id). Two binaries may declare one key (a white-box
// test and the module it links); a value of any of their types is taken.
using Declarations = std::vector<std::pair<const QuorvModuleInfo*, std::string>>;

struct DeclaredKeys {
    std::shared_mutex mutex;
    std::map<std::string, Declarations, std::less<>> keys;
};

DeclaredKeys& Keys() {
    // Lives to the end of the process: dictionary objects may be written while statics go.
    static DeclaredKeys* keys = new DeclaredKeys();
    return *keys;
}

}  // namespace

void AddDeclaredKeys(const QuorvModuleInfo& info) {
    DeclaredKeys& k = Keys();
    std::unique_lock lock(k.mutex);
    for (const DictionaryKeyRecord* r = info.idList; r; r = r->next) {
        if (r->id.IsEmpty() || !r->typeId) continue;
        try {
            k.keys[std::string(r->id.View())].emplace_back(&info, r->typeId);
        } catch (...) {
            // Short of memory the key goes unchecked: a check left out refuses nothing.
        }
    }
}

void RemoveDeclaredKeys(const QuorvModuleInfo& info) {
    DeclaredKeys& k = Keys();
    std::unique_lock lock(k.mutex);
    for (auto it = k.keys.begin(); it != k.keys.end();) {
        std::erase_if(it->second, [&](const auto& d) { return d.first == &info; });
        it = it->second.empty() ? k.keys.erase(it) : std::next(it);
    }
}

Result<void> CheckDeclaredKeyType(const DataDictionaryKey& key, const DataType* type) {
    if (key.IsNumber() || !type) return OK;
    DeclaredKeys& k = Keys();
    std::shared_lock lock(k.mutex);
    auto it = k.keys.find(key.id.View());
    if (it == k.keys.end()) return OK;
    for (const auto& d : it->second) {
        if (type->id == d.second.c_str()) return OK;
    }
    return MakeError(
        ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
        FormatMessage("Key @ holds values of type @, not @",
                      {key.ToString(), it->second.front().second, std::string(type->id.View())}));
}

}  // namespace quorv::host
