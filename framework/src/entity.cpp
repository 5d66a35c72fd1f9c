#include "quorv/entity.h"

#include <cstdio>
#include <cstring>

#include "quorv/services.h"

extern "C" {
QUORV_EXPORT quorv::QuorvModuleInfo g_quorv;
}

namespace quorv {

ModuleRecord g_moduleRecord;

namespace {

ConfigurationTable g_configurationTable;
bool g_frameworkStarted = false;
alignas(32) unsigned char g_nullBlock[256];

constexpr UInt UNNAMED_UNIT_WORD = 0x60006F0F8295;
const char* const UNNAMED_UNIT = "??.cpp";

// Clears the module name when the library is unloaded or the process ends.
struct NameExitAction {
    ~NameExitAction() { g_quorv.name = LiteralId(); }
};
NameExitAction g_nameExitAction;

[[noreturn]] void Trap() { __builtin_trap(); }

const char* LastPathPart(const char* path) {
    if (!path) return nullptr;
    const char* last = path;
    for (const char* p = path; *p; ++p) {
        if (*p == '/' || *p == '\\') last = p + 1;
    }
    return last;
}

// The first registration of the framework support sets the version words and the chain head.
void StartFramework() {
    if (g_frameworkStarted) return;
    g_frameworkStarted = true;
    g_quorv.version0 = QUORV_VERSION_0;
    g_quorv.version1 = QUORV_VERSION_1;
    g_quorv.name = LiteralId();
    g_quorv.idList = nullptr;
    g_quorv.nullValue = g_nullBlock;
    if (!g_moduleRecord.chained) {
        g_moduleRecord.chained = true;
        g_moduleRecord.nextModule = g_quorv.modules;
        g_quorv.modules = &g_moduleRecord;
    }
}

void AppendToUnit(EntityBase& record, TranslationUnitRecord& unit) {
    record.next = nullptr;
    if (unit.last) unit.last->next = &record;
    else unit.first = &record;
    unit.last = &record;
}

}  // namespace

ConfigurationTable& GetConfigurationTable() { return g_configurationTable; }

void OpenTranslationUnit(TranslationUnitRecord& record, ModuleRecord& module,
                         const char* sourceName, UInt32 flags) {
    StartFramework();
    record.type = static_cast<UInt32>(EntityBase::TYPE::TRANSLATION_UNIT);
    record.flags = flags | EntityBase::FLAGS::CONSTRUCTED;
    record.id = LiteralId(LastPathPart(sourceName ? sourceName : UNNAMED_UNIT));
    record.module = &module;
    record.number0 = -1;
    record.number1 = -2;
    record.number2 = -1;
    record.nextUnit = nullptr;
    if (module.lastUnit) module.lastUnit->nextUnit = &record;
    else module.firstUnit = &record;
    module.lastUnit = &record;
}

void AddDependency(DependencyRecord& record, EntityBase* target, TranslationUnitRecord& unit,
                   const char* header, DEPENDENCYKIND kind) {
    record.type = static_cast<UInt32>(EntityBase::TYPE::DEPENDENCY);
    record.flags = EntityBase::FLAGS::CONSTRUCTED;
    record.id = target ? target->id : LiteralId();
    record.unit = &unit;
    record.target = target;
    record.header = header;
    record.kind = kind;
    record.nextDependency = unit.dependencies;
    unit.dependencies = &record;
}

void AddDependencyById(DependencyRecord& record, const char* id, TranslationUnitRecord& unit,
                       void* payload) {
    AddDependency(record, nullptr, unit, nullptr, DEPENDENCYKIND::STRONG);
    record.id = LiteralId(id);
    record.flags |= EntityBase::FLAGS::HIDDEN;
    record.payload = payload;
}

void DefineEntity(EntityBase& record, EntityBase::TYPE type, LiteralId id,
                  TranslationUnitRecord* unit, const char* sourceName, UInt32 flags) {
    StartFramework();
    using F = EntityBase::FLAGS;
    if (record.flags & F::CONSTRUCTED) Trap();
    if (unit && id.IsEmpty() && !(flags & F::UNNAMED_ALLOWED_MASK)) Trap();
    if (!(flags & F::CLASS_PROXY) && (flags & F::HOST_STATE_MASK)) Trap();
    record.type = static_cast<UInt32>(type);
    record.flags = flags | F::CONSTRUCTED | F::DEFINITION;
    record.id = id;
    record.unit = unit;
    if (!unit) return;
    AppendToUnit(record, *unit);
    if (sourceName && unit->id.word == UNNAMED_UNIT_WORD && unit->id == UNNAMED_UNIT) {
        unit->id = LiteralId(LastPathPart(sourceName));
    }
}

void DefineInterfaceImplementation(NonVirtualInterfaceRecord& record,
                                   const NonVirtualInterfaceRecord& interface,
                                   TranslationUnitRecord& unit, const char* sourceName,
                                   UInt32 flags) {
    DefineEntity(record, EntityBase::TYPE::NONVIRTUAL_INTERFACE, interface.id, &unit, sourceName,
                 flags);
    record.methodNames = interface.methodNames;
    record.returnKinds = interface.returnKinds;
    record.count = interface.count;
}

void DefineInitialization(InitializationRecord& record, const char* sourceName,
                          InitializationRecord::InitFunc init, InitializationRecord::FreeFunc free,
                          TranslationUnitRecord& unit) {
    DefineEntity(record, EntityBase::TYPE::INITIALIZATION, LiteralId(), &unit, sourceName,
                 EntityBase::FLAGS::HIDDEN);
    record.init = init;
    record.free = free;
    record.sourceName = sourceName;
}

void DefineGlobal(GlobalRecord& record, const char* name, const void* value0, const void* value1,
                  TranslationUnitRecord& unit) {
    DefineEntity(record, EntityBase::TYPE::GLOBAL, LiteralId(name), &unit, nullptr,
                 EntityBase::FLAGS::HIDDEN);
    record.value0 = value0;
    record.value1 = value1;
}

void DefineComponent(ComponentRecord& record, LiteralId id, TranslationUnitRecord& unit,
                     const char* sourceName, UInt32 flags) {
    DefineEntity(record, EntityBase::TYPE::COMPONENT, id, &unit, sourceName, flags);
}

void DefineClass(ClassRecord& record, LiteralId id, TranslationUnitRecord& unit,
                 const char* sourceName, UInt32 flags) {
    DefineEntity(record, EntityBase::TYPE::CLASS, id, &unit, sourceName, flags);
}

void DefineRegistry(RegistryRecord& record, LiteralId id, TranslationUnitRecord& unit,
                    const char* sourceName, UInt32 flags) {
    DefineEntity(record, EntityBase::TYPE::REGISTRY, id, &unit, sourceName, flags);
}

void DefineDataType(DataTypeRecord& record, LiteralId id, TranslationUnitRecord& unit,
                    const char* sourceName, UInt32 flags) {
    DefineEntity(record, EntityBase::TYPE::DATATYPE, id, &unit, sourceName, flags);
}

void DeclareEntity(DeclarationRecord& record, EntityBase::TYPE type, LiteralId id, UInt resolver,
                   ModuleRecord& module) {
    DefineEntity(record, type, id, nullptr, nullptr, 0);
    record.flags &= ~EntityBase::FLAGS::DEFINITION;
    record.resolver = resolver;
    record.module = &module;
}

void DefineModule(ModuleRecord& record, LiteralId id, TranslationUnitRecord& unit, UInt32 flags) {
    DefineEntity(record, EntityBase::TYPE::MODULE, id, &unit, nullptr, flags);
    if (!record.chained) {
        record.chained = true;
        record.nextModule = g_quorv.modules;
        g_quorv.modules = &record;
    }
}

void AddTypeCache(TypeCacheEntry& cache, TypeCacheEntry::Builder builder, ModuleRecord& module) {
    cache.builder = builder;
    cache.next = module.typeCaches;
    module.typeCaches = &cache;
}

void AddConfigurationVariable(const char* name, void* variable, const char* help, CONFIGTYPE type,
                              const char* defaultText) {
    ConfigurationTable& t = g_configurationTable;
    if (t.count >= CONFIG_TABLE_CAPACITY) return;  // dropped without a message
    t.rows[t.count++] =
        ConfigurationRow{name, help ? help : "", defaultText ? defaultText : "", type, variable, 3};
}

void DefineNonVirtualInterface(NonVirtualInterfaceRecord& record, LiteralId id, void** slots,
                               const UInt8* returnKinds, const char* names, Int count,
                               StubFiller stubFiller, TranslationUnitRecord& unit, UInt32 flags) {
    DefineEntity(record, EntityBase::TYPE::NONVIRTUAL_INTERFACE, id, &unit, nullptr, flags);
    record.slots = slots;
    record.returnKinds = returnKinds;
    record.methodNames = names;
    record.count = count;
    record.stubFiller = stubFiller;
}

void DefineVirtualInterface(InterfaceRecord& record, LiteralId id, const InterfaceRecord* base,
                            const UInt8* returnKinds, const char* names, Int count,
                            TranslationUnitRecord& unit, UInt32 flags) {
    DefineEntity(record, EntityBase::TYPE::INTERFACE, id, &unit, nullptr,
                 flags | (base ? EntityBase::FLAGS::SINGLE_BASE : 0));
    record.base = base;
    record.returnKinds = returnKinds;
    record.methodNames = names;
    record.methodCount = count;
}

ModuleUnit::ModuleUnit(const char* sourceName, std::initializer_list<Use> uses, UInt32 flags) {
    if (static_cast<Int>(uses.size()) > MAX_USES) Trap();
    OpenTranslationUnit(_unit, g_moduleRecord, sourceName, flags);
    Int i = 0;
    for (const Use& use : uses) {
        AddDependency(_dependencies[i++], use.target, _unit, use.header, DEPENDENCYKIND::STRONG);
    }
}

void AddDictionaryKey(DictionaryKeyRecord& key) {
    StartFramework();
    key.next = g_quorv.idList;
    g_quorv.idList = &key;
}

namespace {

void** ValueSlotOf(EntityBase& record) {
    switch (record.GetType()) {
        case EntityBase::TYPE::DECLARATION:
            return &static_cast<DeclarationRecord&>(record).value;
        case EntityBase::TYPE::CLASS:
            return reinterpret_cast<void**>(&static_cast<ClassRecord&>(record).value);
        case EntityBase::TYPE::DATATYPE:
            return reinterpret_cast<void**>(
                const_cast<DataType**>(&static_cast<DataTypeRecord&>(record).value));
        case EntityBase::TYPE::REGISTRY:
            return &static_cast<RegistryRecord&>(record).value;
        default:
            return nullptr;
    }
}

UInt ResolverOf(const EntityBase& record) {
    switch (record.GetType()) {
        case EntityBase::TYPE::DECLARATION:
            return static_cast<const DeclarationRecord&>(record).resolver;
        case EntityBase::TYPE::NONVIRTUAL_INTERFACE:
            return static_cast<const NonVirtualInterfaceRecord&>(record).resolver;
        default:
            return 0;
    }
}

}  // namespace

void* GetOrResolve(EntityBase& record, void* defaultValue) {
    InitializerFunc init = g_quorv.GetInitializer();
    if (!init) {
        CriticalOutput("Assertion failed: g_quorv.GetInitializer()", {"object.cpp", 0});
        return defaultValue;
    }
    ErrorObject* error = nullptr;
    init(&record, ResolverOf(record), &record.id, &error);
    RemoveReference(error);
    void** slot = ValueSlotOf(record);
    if (slot && *slot) return *slot;
    if (record.GetType() == EntityBase::TYPE::DATATYPE) {
        return const_cast<DataType*>(DataTypeLibInterface::GetInvalidType());
    }
    return defaultValue;
}

bool ResolveInterface(EntityBase& record, bool fatal) {
    using F = EntityBase::FLAGS;
    constexpr UInt32 keepStub = F::INITIALIZED | F::ALLOW_MISSING_METHODS;
    if ((record.flags & keepStub) == keepStub) return false;
    if (ResolverOf(record) != 0) {
        InitializerFunc init = g_quorv.GetInitializer();
        if (init) {
            ErrorObject* error = nullptr;
            init(&record, ResolverOf(record), &record.id, &error);
            bool ok = error == nullptr;
            RemoveReference(error);
            if (ok) return true;
        }
    }
    if (record.GetType() == EntityBase::TYPE::NONVIRTUAL_INTERFACE) {
        auto& nv = static_cast<NonVirtualInterfaceRecord&>(record);
        if (nv.init) {
            Result<void> r = nv.init();
            (void)r;
            return true;
        }
    }
    if (fatal) CriticalOutput(record.id.View(), QUORV_SOURCE_LOCATION);
    return false;
}

void CriticalOutput(std::string_view message, const SourceLocation& loc) {
    std::string text(message);
    if (SystemInterface::slots.CriticalOutput) {
        SystemInterface::CriticalOutput(text.c_str(), loc);
    } else {
        std::fprintf(stderr, "%s\n", text.c_str());
    }
}

const DataType* TypeCacheEntry::Get() {
    const DataType* t = __atomic_load_n(&cached, __ATOMIC_ACQUIRE);
    if (t) return t;
    Result<const DataType*> r = builder ? builder() : Result<const DataType*>(nullptr);
    if (r.IsError() || !r.GetValue()) {
        CriticalOutput(FormatMessage("Error while initializing data type: @",
                                     {ErrorToString(r.GetErrorPointer())}),
                       {"datatype.cpp", 0});
        return DataTypeLibInterface::GetInvalidType();
    }
    __atomic_store_n(&cached, r.GetValue(), __ATOMIC_RELEASE);
    return r.GetValue();
}

}  // namespace quorv
