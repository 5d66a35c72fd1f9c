#pragma once
/// The static records a module fills while it loads, and the registration primitives that
/// fill them. The host reads these tables through `g_quorv`, binds the slot tables and runs
/// the definitions. Records are plain data in the module's writable memory; nothing is
/// allocated while they are built.

#include <initializer_list>

#include "quorv/literalid.h"
#include "quorv/result.h"

#if defined(__GNUC__)
#define QUORV_EXPORT __attribute__((visibility("default")))
#else
#define QUORV_EXPORT
#endif

namespace quorv {

struct TranslationUnitRecord;
struct ModuleRecord;
struct DataType;
struct MethodEntry;
struct ClassObject;
struct ComponentInfo;
struct DescribeStreamObject;

/// Record types.
struct EntityBase {
    enum class TYPE : UInt32 {
        INVALID_0 = 0,
        INTERFACE = 1,
        INTERFACE_NVMTABLE = 2,
        NONVIRTUAL_INTERFACE = 3,
        DECLARATION = 4,
        COMPONENT = 5,
        CLASS = 6,
        DATATYPE = 7,
        TRANSLATION_UNIT = 8,
        MODULE = 9,
        INITIALIZATION = 10,
        DEPENDENCY = 11,
        REGISTRY = 12,
        UNUSED = 13,
        GLOBAL = 14,
        COUNT = 15,
    };

    /// Record flags. Equal values are deliberate: the meaning depends on the record's type.
    struct FLAGS {
        static constexpr UInt32 NONE = 0;
        static constexpr UInt32 CONSTRUCTED = 0x1;
        static constexpr UInt32 DISABLED = 0x2;
        static constexpr UInt32 INITIALIZED = 0x4;
        static constexpr UInt32 INITIALIZING = 0x8;
        static constexpr UInt32 INITIALIZATION_FAILED = 0x10;
        static constexpr UInt32 NULL_AS_DEFAULT = 0x20;
        static constexpr UInt32 USED = 0x40;
        static constexpr UInt32 HIDDEN = 0x80;
        static constexpr UInt32 REGISTRATION_UNIT = 0x100;
        static constexpr UInt32 DEFINITION = 0x200;
        static constexpr UInt32 SINGLE_BASE = 0x400;
        static constexpr UInt32 IGNORE_WARNINGS = 0x400;
        static constexpr UInt32 EXPLICIT = 0x800;
        static constexpr UInt32 FRAMEWORK = 0x1000;
        static constexpr UInt32 ALLOW_MISSING_METHODS = 0x1000;
        static constexpr UInt32 CORE = 0x2000;
        static constexpr UInt32 PROXY = 0x4000;
        static constexpr UInt32 CLASS_PROXY = 0x8000;
        static constexpr UInt32 FINAL = 0x10000;
        static constexpr UInt32 SINGLE_IMPLEMENTATION = 0x20000;
        static constexpr UInt32 MAIN_DEFINITION = 0x40000;
        static constexpr UInt32 CALLABLE = 0x80000;
        static constexpr UInt32 IMPLEMENTABLE = 0x100000;
        static constexpr UInt32 ADAPTER = 0x200000;
        static constexpr UInt32 SYNTHETIC = 0x400000;
        static constexpr UInt32 LIVE = 0x800000;
        static constexpr UInt32 EXPECT_FAILURE = 0x1000000;
        static constexpr UInt32 FRAMEWORK_REGISTRATION = 0x2000000;
        static constexpr UInt32 MARK = 0x4000000;
        static constexpr UInt32 PUBLIC = 0x8000000;
        static constexpr UInt32 REFLECTION_REGISTRATION = 0x8000000;
        static constexpr UInt32 REFERENCE_MASK = 0xF0000000;
        /// Flags that excuse a unit-bound definition from needing an id.
        static constexpr UInt32 UNNAMED_ALLOWED_MASK = HIDDEN | PROXY;
        /// States only the host sets; a definition may not carry them (except class proxies).
        static constexpr UInt32 HOST_STATE_MASK = 0x98005E;
    };

    UInt32 type = 0;
    UInt32 flags = 0;
    LiteralId id;
    TranslationUnitRecord* unit = nullptr;
    EntityBase* next = nullptr;  ///< next record of the same unit

    TYPE GetType() const { return static_cast<TYPE>(type); }
};

/// Dependency kinds.
enum class DEPENDENCYKIND : UInt8 { STRONG = 0, WEAK = 1, OPTIONAL = 2 };

/// A unit's dependency on another record, or on a named thing such as ".configuration".
struct DependencyRecord : EntityBase {
    EntityBase* target = nullptr;
    const char* header = nullptr;  ///< header that declares the target, "quorv/system.h"
    DEPENDENCYKIND kind = DEPENDENCYKIND::STRONG;
    void* payload = nullptr;       ///< what a named dependency carries (the configuration table)
    DependencyRecord* nextDependency = nullptr;
};

/// A lazily built data type of a module.
struct TypeCacheEntry {
    using Builder = Result<const DataType*> (*)();
    const DataType* cached = nullptr;
    Builder builder = nullptr;
    TypeCacheEntry* next = nullptr;
    /// The type, built on first use. A failed build logs
    /// "Error while initializing data type: @" and gives the invalid type.
    const DataType* Get();
};

/// One source file.
struct TranslationUnitRecord : EntityBase {
    ModuleRecord* module = nullptr;
    EntityBase* first = nullptr;
    EntityBase* last = nullptr;
    DependencyRecord* dependencies = nullptr;
    TypeCacheEntry* typeCaches = nullptr;
    Int number0 = 0, number1 = 0, number2 = 0;  ///< -1, -2, -1 when opened
    TranslationUnitRecord* nextUnit = nullptr;
};

/// The module or a framework part of it.
struct ModuleRecord : EntityBase {
    ModuleRecord* nextModule = nullptr;
    TranslationUnitRecord* firstUnit = nullptr;
    TranslationUnitRecord* lastUnit = nullptr;
    TypeCacheEntry* typeCaches = nullptr;
    bool chained = false;
};

/// Init and free functions of a unit, run by the host dependencies first.
struct InitializationRecord : EntityBase {
    using InitFunc = Result<void> (*)();
    using FreeFunc = void (*)();
    InitFunc init = nullptr;
    FreeFunc free = nullptr;
    const char* sourceName = nullptr;
};

/// A hidden global value of a unit.
struct GlobalRecord : EntityBase {
    const void* value0 = nullptr;
    const void* value1 = nullptr;
};

/// A reference to something defined elsewhere, resolved on demand through the host.
struct DeclarationRecord : EntityBase {
    UInt resolver = 0;
    ModuleRecord* module = nullptr;
    void* value = nullptr;
};

/// Unbound-slot answer kinds, one byte per method.
enum class UNRESOLVED_RETURN_TYPE : UInt8 {
    VOID_ZERO = 0,
    VOID_ZERO_FREE_FUNCTION = 1,
    INTEGRAL_ZERO = 2,
    INTEGRAL2X_ZERO = 3,
    FLOAT_ZERO = 4,
    DOUBLE_ZERO = 5,
    STACK_ZERO = 6,
    POINTER_TO_ZERO = 7,
    RESULT_VOID = 8,
    RESULT_INTEGRAL_ZERO = 9,
    RESULT_STACK_ZERO = 10,
    OTHER = 11,
    MEMBER_FUNCTION_FLAG = 0x80,
    TYPE_MASK = 0x7F,
};

struct NonVirtualInterfaceRecord;
/// Gives the stub of slot `index`, the function an unbound slot answers with.
using StubFiller = void* (*)(const NonVirtualInterfaceRecord* record, Int index);

/// A non-virtual interface: a slot table the host binds by method name and signature, or
/// (with `implementation` set) a table of functions a module supplies for others.
struct NonVirtualInterfaceRecord : EntityBase {
    void** slots = nullptr;                   ///< writable, zero until bound
    const UInt8* returnKinds = nullptr;       ///< one byte per slot
    const char* methodNames = nullptr;        ///< "Name@hash\0Name@hash\0..."
    Int count = 0;
    StubFiller stubFiller = nullptr;
    void* const* implementation = nullptr;    ///< functions of an implementation record
    Result<void> (*init)() = nullptr;          ///< an interface's own resolver, if any
    UInt resolver = 0;
    const void* description = nullptr;         ///< the framework's SlotDescription
};

/// A virtual interface: id, base, method names and return kinds.
struct InterfaceRecord : EntityBase {
    const InterfaceRecord* base = nullptr;
    const char* methodNames = nullptr;
    const UInt8* returnKinds = nullptr;
    Int methodCount = 0;
};

/// One method of a method table: the function and the component info word it is called with.
struct MethodEntry {
    void* function;
    const ComponentInfo* info;
};

/// What the host tells a component about its place in a class.
struct ComponentInfo {
    ClassObject* cls;        ///< the class the component is part of
    Int offset;              ///< offset of the component's state in an instance
    Int index;               ///< position among the class's components
};

/// The implementation half of a class.
struct ComponentRecord : EntityBase {
    using ConstructFunc = void (*)(void* state);
    using DestructFunc = void (*)(void* state);
    using InitFunc = Result<void> (*)(void* state);
    using FreeFunc = void (*)(void* state);
    using CopyFunc = Result<void> (*)(void* dst, const void* src);
    /// Writes the component's methods into the class's tables; false on failure.
    using FillMTableFunc = bool (*)(ClassObject* cls, const ComponentInfo* info);
    using HookFunc = void (*)();
    /// Describes the component's members for serialisation (quorv/dataserialize.h), offsets
    /// counted from the component's state; an error refuses serialisation of the class.
    using DescribeIOFunc = Result<void> (*)(DescribeStreamObject* stream);

    ConstructFunc construct = nullptr;
    DestructFunc destruct = nullptr;
    InitFunc init = nullptr;
    FreeFunc free = nullptr;
    CopyFunc copy = nullptr;
    FillMTableFunc fillMTable = nullptr;
    HookFunc hook0 = nullptr;
    HookFunc hook1 = nullptr;
    HookFunc hook2 = nullptr;
    const InterfaceRecord* interface = nullptr;
    UInt kind = 1;
    UInt stateSize = 0;
    UInt alignment = 8;
    UInt mtableSize = 0;
    /// Null: the component has no members of its own to serialise.
    DescribeIOFunc describeIO = nullptr;
};

/// A published class and the registry that holds it.
struct ClassRecord : EntityBase {
    using CreateFunc = Result<ClassObject*> (*)(ClassRecord* record, const SourceLocation& loc);
    using RegisterFunc = Result<void> (*)(ClassRecord* record);
    using UnregisterFunc = void (*)(ClassRecord* record);
    CreateFunc create = nullptr;
    RegisterFunc registerFunc = nullptr;
    UnregisterFunc unregisterFunc = nullptr;
    LiteralId registry;
    const ComponentRecord* const* components = nullptr;
    Int componentCount = 0;
    LiteralId classId;           ///< copied from `id` by the register function
    ClassObject* value = nullptr;  ///< the class object once registered
};

/// A registry of values by id.
struct RegistryRecord : EntityBase {
    void* value = nullptr;
};

/// The 22 generic operations of a data type. Array operations take a base pointer, a byte
/// stride and a count; a count below 1 does nothing. Move walks in the direction that is safe
/// for overlapping ranges.
struct DataTypeOperations {
    void (*Construct)(void* dst, Int stride, Int count);
    void (*Destruct)(void* dst, Int stride, Int count);
    void (*Copy)(void* dst, const void* src, Int stride, Int count);
    void (*Move)(void* dst, void* src, Int stride, Int count);
    void (*Swap)(void* a, void* b, Int stride, Int count);
    void (*Fill)(void* dst, const void* value, Int stride, Int count);
    void (*CopyConstruct)(void* dst, const void* src, Int stride, Int count);
    void (*MoveConstruct)(void* dst, void* src, Int stride, Int count);
    Bool (*IsEqual)(const DataType* type, const void* a, const void* b);
    Int (*Compare)(const DataType* type, const void* a, const void* b);
    UInt (*GetHashCode)(const DataType* type, const void* a);
    UInt (*GetUniqueHashCode)(const DataType* type, const void* a);
    void* (*HeapNew)(const DataType* type);
    void* (*HeapClone)(const DataType* type, const void* src);
    void (*HeapDelete)(const DataType* type, void* p);
    void (*HeapAssign)(const DataType* type, void* dst, const void* src);
    Bool (*HeapIsEqual)(const DataType* type, const void* a, const void* b);
    Int (*HeapCompare)(const DataType* type, const void* a, const void* b);
    UInt (*HeapGetHashCode)(const DataType* type, const void* a);
    void (*HeapReset)(const DataType* type, void* p);
    Int (*GetSize)(const DataType* type);
    Int (*GetAlignment)(const DataType* type);
};
static_assert(sizeof(DataTypeOperations) == 22 * sizeof(void*));

/// Kinds of data type.
enum class DATATYPEKIND : Int32 {
    INVALID = 0,
    VOID = 1,
    PRIMITIVE = 2,
    TUPLE = 3,
    ENUM = 4,
    DELEGATE = 5,
    GENERIC = 6,
    DATATYPE = 7,
};

/// One value of an enumeration.
struct EnumValue {
    const char* name;
    Int value;
};

/// A registered data type (module record): id, C++ type name, layout and operations.
struct DataTypeRecord : EntityBase {
    const char* typeName = nullptr;
    Int size = 0;
    Int alignment = 0;
    const DataTypeOperations* operations = nullptr;
    DATATYPEKIND kind = DATATYPEKIND::TUPLE;
    const EnumValue* enumValues = nullptr;
    Int enumCount = 0;
    const DataType* value = nullptr;  ///< the host's data type object once defined
    UInt8 typeFlags = 0;              ///< flags the type object gets (DataType::FLAG_...)
};

/// A declared dictionary key: id and value type. Chained under `g_quorv.idList`.
struct DictionaryKeyRecord {
    LiteralId id;
    const DataType* (*getType)() = nullptr;
    const char* typeId = nullptr;  ///< id of the value type, for hosts that read the chain
    DictionaryKeyRecord* next = nullptr;
};

/// Host entry that resolves records on demand: fills the record's value slot.
using InitializerFunc = void (*)(EntityBase* record, UInt resolver, const LiteralId* id,
                                 ErrorObject** error);

/// The exported record through which the host finds everything of a module.
struct QuorvModuleInfo {
    Int version0;
    Int version1;
    ModuleRecord* modules;
    LiteralId name;
    UInt reserved0;
    InitializerFunc initializer;
    UInt reserved1;
    DictionaryKeyRecord* idList;
    void* nullValue;

    InitializerFunc GetInitializer() const { return initializer; }
};

constexpr Int QUORV_VERSION_0 = 2023904;
constexpr Int QUORV_VERSION_1 = 2024000;

/// Type of a configuration variable row.
enum class CONFIGTYPE : Int32 { BOOL = 0, STRING = 1, INT = 2, FLOAT = 3 };

/// One row of the configuration variable table.
struct ConfigurationRow {
    const char* name;
    const char* text0;
    const char* text1;
    CONFIGTYPE type;
    void* variable;  ///< Bool*, Int*, Float64* or a char* buffer of CONFIG_STRING_CAPACITY
    Int32 constant;  ///< always 3
};
constexpr Int CONFIG_TABLE_CAPACITY = 256;
constexpr Int CONFIG_STRING_CAPACITY = 256;

/// The table that hangs on the dependency ".configuration".
struct ConfigurationTable {
    ConfigurationRow rows[CONFIG_TABLE_CAPACITY];
    Int count;
};

// ---- The module's own globals -------------------------------------------------------------

/// The module's main record, chained first under `g_quorv.modules`; `DefineModule` names it.
extern ModuleRecord g_moduleRecord;
/// The configuration variable table of this module.
ConfigurationTable& GetConfigurationTable();

// ---- Registration primitives --------------------------------------------------------------

/// Opens a unit under `module`; the name is cut to its last path part.
void OpenTranslationUnit(TranslationUnitRecord& record, ModuleRecord& module,
                         const char* sourceName, UInt32 flags);
/// Pushes a dependency on `target` onto the unit's list.
void AddDependency(DependencyRecord& record, EntityBase* target, TranslationUnitRecord& unit,
                   const char* header, DEPENDENCYKIND kind);
/// Pushes a dependency on a named thing (".configuration", ".reflection").
void AddDependencyById(DependencyRecord& record, const char* id, TranslationUnitRecord& unit,
                       void* payload);
/// The common routine of all definitions. Traps on a second definition, on an unnamed record
/// that names a unit (unless HIDDEN or PROXY), and on flags that only the host sets.
void DefineEntity(EntityBase& record, EntityBase::TYPE type, LiteralId id,
                  TranslationUnitRecord* unit, const char* sourceName, UInt32 flags);
void DefineInterfaceImplementation(NonVirtualInterfaceRecord& record,
                                   const NonVirtualInterfaceRecord& interface,
                                   TranslationUnitRecord& unit, const char* sourceName,
                                   UInt32 flags);
void DefineInitialization(InitializationRecord& record, const char* sourceName,
                          InitializationRecord::InitFunc init, InitializationRecord::FreeFunc free,
                          TranslationUnitRecord& unit);
void DefineGlobal(GlobalRecord& record, const char* name, const void* value0, const void* value1,
                  TranslationUnitRecord& unit);
void DefineComponent(ComponentRecord& record, LiteralId id, TranslationUnitRecord& unit,
                     const char* sourceName, UInt32 flags);
void DefineClass(ClassRecord& record, LiteralId id, TranslationUnitRecord& unit,
                 const char* sourceName, UInt32 flags);
void DefineRegistry(RegistryRecord& record, LiteralId id, TranslationUnitRecord& unit,
                    const char* sourceName, UInt32 flags);
void DefineDataType(DataTypeRecord& record, LiteralId id, TranslationUnitRecord& unit,
                    const char* sourceName, UInt32 flags);
void DeclareEntity(DeclarationRecord& record, EntityBase::TYPE type, LiteralId id, UInt resolver,
                   ModuleRecord& module);
/// Defines a module record and pushes it onto the chain of `g_quorv`.
void DefineModule(ModuleRecord& record, LiteralId id, TranslationUnitRecord& unit, UInt32 flags);
/// Pushes a lazily built data type onto the module's list.
void AddTypeCache(TypeCacheEntry& cache, TypeCacheEntry::Builder builder, ModuleRecord& module);
/// Appends a row to the configuration table; beyond 256 rows the row is dropped silently.
void AddConfigurationVariable(const char* name, void* variable, const char* help, CONFIGTYPE type,
                              const char* defaultText);
void DefineNonVirtualInterface(NonVirtualInterfaceRecord& record, LiteralId id, void** slots,
                               const UInt8* returnKinds, const char* names, Int count,
                               StubFiller stubFiller, TranslationUnitRecord& unit, UInt32 flags);
void DefineVirtualInterface(InterfaceRecord& record, LiteralId id, const InterfaceRecord* base,
                            const UInt8* returnKinds, const char* names, Int count,
                            TranslationUnitRecord& unit, UInt32 flags);
/// Chains a key record under `g_quorv.idList`.
void AddDictionaryKey(DictionaryKeyRecord& key);

/// A unit of this module, opened under `g_moduleRecord` when constructed, with a dependency on
/// each interface record it calls. Defined at namespace scope ahead of the unit's definitions,
/// which take it where a unit record is asked for:
///
///     ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
class ModuleUnit {
public:
    /// An interface the unit calls and the header that declares it.
    struct Use {
        EntityBase* target;
        const char* header;
    };
    static constexpr Int MAX_USES = 8;

    /// Opens the unit; uses beyond MAX_USES trap, as a misuse of the records.
    explicit ModuleUnit(const char* sourceName, std::initializer_list<Use> uses = {},
                        UInt32 flags = 0);
    ModuleUnit(const ModuleUnit&) = delete;
    ModuleUnit& operator=(const ModuleUnit&) = delete;

    operator TranslationUnitRecord&() { return _unit; }
    TranslationUnitRecord& Record() { return _unit; }

private:
    TranslationUnitRecord _unit;
    DependencyRecord _dependencies[MAX_USES];
};

// ---- Resolving -----------------------------------------------------------------------------

/// The record's resolved value through the host's initializer, or `defaultValue`. A data type
/// record that stays unresolved gives the invalid type.
void* GetOrResolve(EntityBase& record, void* defaultValue);
/// Binds a record on a first call; false leaves the stub in place.
bool ResolveInterface(EntityBase& record, bool fatal);

/// Writes a critical message to the host's log (system::CriticalOutput), or stderr before load.
void CriticalOutput(std::string_view message, const SourceLocation& loc);

}  // namespace quorv

extern "C" {
/// The module record the host looks up by name.
extern QUORV_EXPORT quorv::QuorvModuleInfo g_quorv;
}
