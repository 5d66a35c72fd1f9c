// Classes (components, method tables, instances), registries, the application's urls and the
// data description databases.
#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>

#include "host_internal.h"
#include "quorv/host/host.h"
#include "quorv/services.h"
#include "quorv/url.h"

namespace quorv::host {

}  // namespace quorv::host

// The class object is the host's; modules see it as opaque.
struct quorv::ClassObject {
    struct MTable {
        const InterfaceRecord* interface;
        LiteralId interfaceId;
        std::unique_ptr<MethodEntry[]> entries;
        Int count;
    };
    struct Component {
        const ComponentRecord* record;
        std::unique_ptr<ComponentInfo> info;
        // The tables as they stood before this component filled them: where its overriding
        // methods find the implementation they replace.
        std::vector<std::pair<LiteralId, std::vector<MethodEntry>>> superTables;
    };

    LiteralId id;  // owned text
    Int kind = 0;
    bool finalized = false;
    Int instanceSize = 0;
    std::vector<Component> components;
    std::vector<MTable> mtables;

    MTable* FindTable(const LiteralId& interfaceId) {
        for (MTable& t : mtables) {
            if (t.interfaceId == interfaceId) return &t;
        }
        return nullptr;
    }
};

namespace quorv::host {

namespace {

constexpr Int INSTANCE_ALIGNMENT = 16;

Int AlignUp(Int v, Int a) { return (v + a - 1) / a * a; }

void DestroyClass(void* object) {
    auto* cls = static_cast<ClassObject*>(object);
    cls->id.Clear();
    cls->~ClassObject();
    SystemInterface::Free(HeaderOf(cls));
}

ClassObject* ClassAlloc(const LiteralId& id, Int kind, const SourceLocation& loc) {
    void* block = SystemInterface::Alloc(sizeof(ObjectHeader) + sizeof(ClassObject), loc);
    if (!block) return nullptr;
    auto* header = new (block) ObjectHeader{nullptr, &DestroyClass, 0, 0};
    auto* cls = new (header + 1) ClassObject();
    if (!cls->id.SetOwned(id.View())) {
        cls->~ClassObject();
        SystemInterface::Free(block);
        return nullptr;
    }
    cls->kind = kind;
    return cls;
}

void ClassFree(ClassObject* c) {
    if (c) DestroyClass(c);
}

Result<void> ClassAddComponent(ClassObject* c, const ComponentRecord* component) {
    if (!c || !component) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION);
    if (c->finalized) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         FormatMessage("Class @ is finalized", {c->id.View()}));
    }
    try {
        ClassObject::Component entry{component, std::make_unique<ComponentInfo>(), {}};
        entry.info->cls = c;
        entry.info->index = static_cast<Int>(c->components.size());
        c->components.push_back(std::move(entry));
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
    }
    return OK;
}

Result<void> ClassAddComponents(ClassObject* c, const ClassObject* other) {
    if (!other) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION);
    for (const auto& comp : other->components) {
        QUORV_RETURN_IF_ERROR(ClassAddComponent(c, comp.record));
    }
    return OK;
}

MethodEntry* ClassGetOrCreateMTable(ClassObject* c, const InterfaceRecord* interface) {
    if (!c || !interface) return nullptr;
    if (ClassObject::MTable* t = c->FindTable(interface->id)) return t->entries.get();
    if (c->finalized) return nullptr;
    try {
        ClassObject::MTable t{interface, interface->id,
                              std::make_unique<MethodEntry[]>(static_cast<size_t>(
                                  std::max<Int>(interface->methodCount, 1))),
                              interface->methodCount};
        for (Int i = 0; i < t.count; ++i) t.entries[i] = MethodEntry{nullptr, nullptr};
        c->mtables.push_back(std::move(t));
        return c->mtables.back().entries.get();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

Result<void> ClassFinalize(ClassObject* c) {
    if (!c) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION);
    if (c->finalized) return OK;
    Int offset = 0;
    try {
        for (auto& comp : c->components) {
            Int align = std::min<Int>(INSTANCE_ALIGNMENT,
                                      std::max<Int>(1, static_cast<Int>(comp.record->alignment)));
            offset = AlignUp(offset, align);
            comp.info->offset = offset;
            offset += static_cast<Int>(comp.record->stateSize);
            for (const auto& t : c->mtables) {
                comp.superTables.emplace_back(
                    t.interfaceId, std::vector<MethodEntry>(t.entries.get(), t.entries.get() + t.count));
            }
            if (comp.record->fillMTable && !comp.record->fillMTable(c, comp.info.get())) {
                return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                                 FormatMessage("Component @ could not fill the method tables of @",
                                               {comp.record->id.View(), c->id.View()}));
            }
        }
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
    }
    for (const auto& t : c->mtables) {
        for (Int i = 0; i < t.count; ++i) {
            if (!t.entries[i].function) {
                return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                                 FormatMessage("Class @ leaves method @ of @ unimplemented",
                                               {c->id.View(), std::to_string(i), t.interfaceId.View()}));
            }
        }
    }
    c->instanceSize = AlignUp(std::max<Int>(offset, 1), INSTANCE_ALIGNMENT);
    c->finalized = true;
    return OK;
}

struct InstanceParts {
    ClassObject* cls;
    char* state;
};

InstanceParts PartsOf(const void* instance) {
    ObjectHeader* h = HeaderOf(instance);
    return {static_cast<ClassObject*>(h->owner),
            static_cast<char*>(const_cast<void*>(instance))};
}

void DestructComponents(ClassObject* cls, char* state, Int count, bool initialized) {
    for (Int i = count - 1; i >= 0; --i) {
        const auto& comp = cls->components[static_cast<size_t>(i)];
        void* s = state + comp.info->offset;
        if (initialized && comp.record->free) comp.record->free(s);
        comp.record->destruct(s);
    }
}

void DestroyInstance(void* instance) {
    InstanceParts p = PartsOf(instance);
    DestructComponents(p.cls, p.state, static_cast<Int>(p.cls->components.size()), true);
    SystemInterface::Free(HeaderOf(instance));
    RemoveReference(p.cls);
}

// Allocates an instance block of the class with every component constructed (count word 0).
Result<char*> NewInstance(const ClassObject* c, const SourceLocation& loc) {
    if (!c) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION);
    if (!c->finalized) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         FormatMessage("Class @ is not finalized", {c->id.View()}));
    }
    void* block = SystemInterface::Alloc(static_cast<Int>(sizeof(ObjectHeader)) + c->instanceSize, loc);
    if (!block) return OutOfMemoryError();
    auto* cls = const_cast<ClassObject*>(c);
    new (block) ObjectHeader{cls, &DestroyInstance, 0, 0};
    char* state = static_cast<char*>(block) + sizeof(ObjectHeader);
    std::memset(state, 0, static_cast<size_t>(c->instanceSize));
    for (const auto& comp : c->components) comp.record->construct(state + comp.info->offset);
    AddReference(cls);
    return state;
}

void DiscardInstance(const ClassObject* c, char* state, Int initializedCount) {
    auto* cls = const_cast<ClassObject*>(c);
    for (Int i = static_cast<Int>(cls->components.size()) - 1; i >= 0; --i) {
        const auto& comp = cls->components[static_cast<size_t>(i)];
        void* s = state + comp.info->offset;
        if (i < initializedCount && comp.record->free) comp.record->free(s);
        comp.record->destruct(s);
    }
    SystemInterface::Free(HeaderOf(state));
    RemoveReference(cls);
}

Result<void*> ClassCreate(const ClassObject* c, const SourceLocation& loc) {
    Result<char*> r = NewInstance(c, loc);
    if (r.IsError()) return r.GetError();
    char* state = r.GetValue();
    for (size_t i = 0; i < c->components.size(); ++i) {
        const auto& comp = c->components[i];
        if (!comp.record->init) continue;
        Result<void> init = comp.record->init(state + comp.info->offset);
        if (init.IsError()) {
            DiscardInstance(c, state, static_cast<Int>(i));
            return init.GetError();
        }
    }
    AddReference(state);
    return static_cast<void*>(state);
}

Result<void*> ClassCreateCopy(const void* instance, const SourceLocation& loc) {
    if (!instance) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION);
    InstanceParts src = PartsOf(instance);
    Result<char*> r = NewInstance(src.cls, loc);
    if (r.IsError()) return r.GetError();
    char* state = r.GetValue();
    for (const auto& comp : src.cls->components) {
        if (!comp.record->copy) continue;
        Result<void> copied =
            comp.record->copy(state + comp.info->offset, src.state + comp.info->offset);
        if (copied.IsError()) {
            DiscardInstance(src.cls, state, static_cast<Int>(src.cls->components.size()));
            return copied.GetError();
        }
    }
    AddReference(state);
    return static_cast<void*>(state);
}

const MethodEntry* ClassGetMTable(const void* instance, const InterfaceRecord* interface) {
    if (!instance || !interface) return nullptr;
    ClassObject::MTable* t = PartsOf(instance).cls->FindTable(interface->id);
    return t ? t->entries.get() : nullptr;
}

MethodEntry ClassGetSuperMethod(const ComponentInfo* info, const InterfaceRecord* interface,
                                Int method) {
    if (!info || !interface || !info->cls) return MethodEntry{nullptr, nullptr};
    const auto& comp = info->cls->components[static_cast<size_t>(info->index)];
    for (const auto& [id, entries] : comp.superTables) {
        if (id == interface->id && method >= 0 && method < static_cast<Int>(entries.size())) {
            return entries[static_cast<size_t>(method)];
        }
    }
    return MethodEntry{nullptr, nullptr};
}

LiteralId ClassGetId(const ClassObject* c) { return c ? c->id : LiteralId(); }

const ClassObject* ClassGetClass(const void* instance) {
    return instance ? PartsOf(instance).cls : nullptr;
}

void* ClassGetComponentState(const void* instance, const ComponentRecord* component) {
    if (!instance) return nullptr;
    InstanceParts p = PartsOf(instance);
    for (const auto& comp : p.cls->components) {
        if (comp.record == component || (component && comp.record->id == component->id)) {
            return p.state + comp.info->offset;
        }
    }
    return nullptr;
}

}  // namespace

Result<void> ForEachComponentOf(
    const void* instance, const std::function<Result<void>(const ComponentRecord&, Int)>& visit) {
    if (!instance) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Object missing");
    const ClassObject* cls = PartsOf(instance).cls;
    for (const auto& comp : cls->components) {
        QUORV_RETURN_IF_ERROR(visit(*comp.record, comp.info->offset));
    }
    return OK;
}

namespace {

const ClassInterface::Slots g_classSlots{
    .Alloc = &ClassAlloc,
    .Free = &ClassFree,
    .AddComponent = &ClassAddComponent,
    .AddComponents = &ClassAddComponents,
    .Finalize = &ClassFinalize,
    .Create = &ClassCreate,
    .CreateCopy = &ClassCreateCopy,
    .GetOrCreateMTable = &ClassGetOrCreateMTable,
    .GetMTable = &ClassGetMTable,
    .GetSuperMethod = &ClassGetSuperMethod,
    .GetId = &ClassGetId,
    .GetClass = &ClassGetClass,
    .GetComponentState = &ClassGetComponentState,
};

// ---- registries -----------------------------------------------------------------------------

struct Registry {
    std::string id;
    std::vector<std::pair<std::string, Data>> entries;  // insertion order
};

std::shared_mutex g_registryMutex;
std::vector<std::unique_ptr<Registry>> g_registries;

Registry* FindRegistryLocked(const LiteralId& id) {
    for (auto& r : g_registries) {
        if (id == std::string_view(r->id)) return r.get();
    }
    return nullptr;
}

Result<void> RegistryInsert(const LiteralId& registry, const LiteralId& id, const Data& value) {
    if (id.IsEmpty()) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Empty id for registry @", {registry.View()}));
    }
    std::unique_lock lock(g_registryMutex);
    Registry* r = FindRegistryLocked(registry);
    if (!r) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Unknown registry @", {registry.View()}));
    }
    for (auto& [key, v] : r->entries) {
        if (id == std::string_view(key)) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             FormatMessage("Entry @ already in registry @",
                                           {id.View(), registry.View()}));
        }
    }
    try {
        r->entries.emplace_back(std::string(id.View()), value);
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
    }
    return OK;
}

Bool RegistryErase(const LiteralId& registry, const LiteralId& id) {
    Data removed;  // destroyed after the lock is released
    std::unique_lock lock(g_registryMutex);
    Registry* r = FindRegistryLocked(registry);
    if (!r) return false;
    for (auto it = r->entries.begin(); it != r->entries.end(); ++it) {
        if (id == std::string_view(it->first)) {
            removed = std::move(it->second);
            r->entries.erase(it);
            return true;
        }
    }
    return false;
}

Bool RegistryFind(const LiteralId& registry, const LiteralId& id, Data* out) {
    std::shared_lock lock(g_registryMutex);
    Registry* r = FindRegistryLocked(registry);
    if (!r) return false;
    for (auto& [key, v] : r->entries) {
        if (id == std::string_view(key)) {
            if (out) *out = v;
            return true;
        }
    }
    return false;
}

const RegistryInterface::Slots g_registrySlots{
    .InsertEntry = &RegistryInsert,
    .EraseEntry = &RegistryErase,
    .FindEntryValue = &RegistryFind,
};

// ---- application and description databases ---------------------------------------------------

std::string (*g_modulePathResolver)(const QuorvModuleInfo*) = nullptr;
std::mutex g_databaseMutex;
std::vector<std::pair<std::string, std::string>> g_databases;

Result<UrlObject*> ApplicationGetUrl(Int kind, const LiteralId& id, const QuorvModuleInfo* module) {
    if (kind == APPLICATION_URLTYPE_RESOURCE_DIR) {
        // The host's folder (HostOptions::resourceDirectory or resources/ beside bin/).
        Result<Url> url = Url::FromText(GetResourceDirectory());
        if (url.IsError()) return url.GetError();
        UrlObject* u = const_cast<UrlObject*>(url.GetValue().GetObject());
        AddReference(u);
        return u;
    }
    if (kind != APPLICATION_URLTYPE_CURRENT_MODULE_RESOURCE_DIR) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Unknown url kind @ for @", {std::to_string(kind), id.View()}));
    }
    std::string path = g_modulePathResolver ? g_modulePathResolver(module) : std::string();
    // A module's resources lie in the folder "res" beside its library.
    auto slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? std::string(".") : path.substr(0, slash);
    Result<Url> url = Url::FromText(dir + "/res");
    if (url.IsError()) return url.GetError();
    UrlObject* u = const_cast<UrlObject*>(url.GetValue().GetObject());
    AddReference(u);
    return u;
}

Result<void> RegisterDatabase(const LiteralId& id, const UrlObject* url) {
    if (!url) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "no url");
    std::string text = Url(url).ToText();
    std::lock_guard lock(g_databaseMutex);
    g_databases.emplace_back(std::string(id.View()), text);
    return OK;
}

const ApplicationInterface::Slots g_applicationSlots{.PrivateGetUrl = &ApplicationGetUrl};
const DataDescriptionDefinitionDatabaseInterface::Slots g_databaseSlots{
    .RegisterDatabaseWithUrl = &RegisterDatabase};

}  // namespace

void RegisterClassService(Host& host) {
    host.RegisterService<ClassInterface>(g_classSlots);
    host.RegisterService<RegistryInterface>(g_registrySlots);
    host.RegisterService<ApplicationInterface>(g_applicationSlots);
    host.RegisterService<DataDescriptionDefinitionDatabaseInterface>(g_databaseSlots);
}

bool CreateRegistry(const LiteralId& id) {
    std::unique_lock lock(g_registryMutex);
    if (FindRegistryLocked(id)) return false;
    auto r = std::make_unique<Registry>();
    r->id = std::string(id.View());
    g_registries.push_back(std::move(r));
    return true;
}

void RemoveRegistryIfEmpty(const LiteralId& id) {
    std::unique_lock lock(g_registryMutex);
    for (auto it = g_registries.begin(); it != g_registries.end(); ++it) {
        if (id == std::string_view((*it)->id) && (*it)->entries.empty()) {
            g_registries.erase(it);
            return;
        }
    }
}

std::vector<RegistryListing> ListRegistryEntries() {
    std::shared_lock lock(g_registryMutex);
    std::vector<RegistryListing> out;
    for (auto& r : g_registries) {
        RegistryListing l{r->id, {}};
        for (auto& [key, v] : r->entries) l.entries.push_back(key);
        out.push_back(std::move(l));
    }
    return out;
}

ClassObject* FindRegisteredClass(const LiteralId& id) {
    const DataType* classType = DataTypeLibInterface::GetRuntimeDataType(CLASS_DATATYPE_ID);
    std::shared_lock lock(g_registryMutex);
    for (auto& r : g_registries) {
        for (auto& [key, v] : r->entries) {
            if (id == std::string_view(key) && v.GetType() == classType) {
                return *static_cast<ClassObject* const*>(v.GetPointer());
            }
        }
    }
    return nullptr;
}

std::vector<std::pair<std::string, std::string>> ListDatabases() {
    std::lock_guard lock(g_databaseMutex);
    return g_databases;
}

bool UnregisterDatabase(const std::string& id) {
    std::lock_guard lock(g_databaseMutex);
    return std::erase_if(g_databases, [&](const auto& d) { return d.first == id; }) > 0;
}

void SetModulePathResolver(std::string (*resolver)(const QuorvModuleInfo* info)) {
    g_modulePathResolver = resolver;
}

}  // namespace quorv::host
