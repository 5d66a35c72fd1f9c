#pragma once
/// The host services a module calls, each a non-virtual interface bound at load. Objects of
/// the host (strings, urls, dictionaries, classes) are opaque here and counted through the
/// header of quorv/ref.h. Most code uses the C++ faces of quorv/string.h, quorv/url.h,
/// quorv/datadictionary.h and quorv/classes.h instead of these tables.

#include <string>

#include "quorv/datatype.h"
#include "quorv/slots.h"

namespace quorv {

struct StringObject;
struct CStringObject;
struct UrlObject;
struct DataDictionaryObject;
struct ClassObject;

/// A dictionary key: a literal id, or a plain integer. Objects such as photometric webs and
/// BSDF parameter sets key their entries by number.
struct DataDictionaryKey {
    LiteralId id;
    Int number = 0;
    Bool isNumber = false;

    DataDictionaryKey() = default;
    DataDictionaryKey(const LiteralId& i) : id(i) {}
    DataDictionaryKey(const char* text) : id(text) {}
    DataDictionaryKey(Int n) : number(n), isNumber(true) {}
    DataDictionaryKey(Int32 n) : number(n), isNumber(true) {}

    bool IsNumber() const { return isNumber; }
    bool operator==(const DataDictionaryKey& o) const {
        return IsNumber() ? (o.IsNumber() && number == o.number) : id == o.id;
    }
    /// The id text, or the number in decimal.
    std::string ToString() const {
        return IsNumber() ? std::to_string(number) : std::string(id.View());
    }
};

/// State of a dictionary iterator; its meaning is the host's.
struct DataDictionaryIteratorState {
    const DataDictionaryObject* dictionary = nullptr;
    Int position = 0;
    UInt reserved[2] = {0, 0};
};

/// Answer of the file-system io test of a url.
enum class IODETECT : Int32 {
    ERRORSTATE = 0,
    NONEXISTENT = 1,
    UNKNOWN = 2,
    FILE = 3,
    LINK = 4,
    DIRECTORY = 5,
};

/// Default text encoding argument: UTF-8.
constexpr Int32 STRINGENCODING_DEFAULT = -1;
/// 8-bit text, each byte one character.
constexpr Int32 STRINGENCODING_8BIT = 0;

// clang-format off
#define QUORV_SYSTEM_METHODS(M) \
    M(void*, Alloc, (Int size, const SourceLocation& loc), (size, loc)) \
    M(void, Free, (void* p), (p)) \
    M(void*, Realloc, (void* p, Int size, const SourceLocation& loc), (p, size, loc)) \
    M(void, PrivateFreeWithDestructor, (void* p, void (*destructor)(void*)), (p, destructor)) \
    M(ErrorObject*, SetCurrentError, (ErrorObject* error), (error)) \
    M(ErrorObject*, GetCurrentError, (), ()) \
    M(UInt, PrivateHasherInitialize, (), ()) \
    M(UInt, PrivateHasherCombine, (UInt state, UInt value), (state, value)) \
    M(UInt, PrivateHasherFinalize, (UInt state), (state)) \
    M(void, PrivateShowSynchronizedHashMapDiagnostics, (const char* name), (name)) \
    M(void, CriticalOutput, (const char* message, const SourceLocation& loc), (message, loc)) \
    M(void, FreeObjectBlock, (void* object), (object)) \
    M(Int, GetTimer, (), ()) \
    M(void, TextOutput, (const char* text), (text))
QUORV_NONVIRTUAL_INTERFACE(SystemInterface, "net.quorv.interface.system", QUORV_SYSTEM_METHODS);

#define QUORV_STRING_METHODS(M) \
    M(const StringObject*, GetAndCacheConstString, (const char* text, Int length, Int32 encoding), (text, length, encoding)) \
    M(StringObject*, Alloc, (const SourceLocation& loc), (loc)) \
    M(void, Free, (StringObject* s), (s)) \
    M(Result<void>, Append, (StringObject* s, const StringObject* other), (s, other)) \
    M(Result<void>, SetCString, (StringObject* s, const char* text, Int length, Int32 encoding), (s, text, length, encoding)) \
    M(Int, GetLength, (const StringObject* s), (s)) \
    M(Result<void>, Insert, (StringObject* s, Int position, const StringObject* other), (s, position, other)) \
    M(void, Erase, (StringObject* s, Int position, Int count), (s, position, count)) \
    M(void, TrimLeft, (StringObject* s), (s)) \
    M(Int, ComparePart, (const StringObject* a, const StringObject* b, Int position, Int count), (a, b, position, count)) \
    M(UInt, GetHashCode, (const StringObject* s), (s)) \
    M(Result<void>, CopyFrom, (StringObject* s, const StringObject* source), (s, source)) \
    M(Int, GetUtf8, (const StringObject* s, char* buffer, Int capacity), (s, buffer, capacity)) \
    M(Int32, GetChar, (const StringObject* s, Int position), (s, position))
QUORV_NONVIRTUAL_INTERFACE(StringInterface, "net.quorv.interface.string", QUORV_STRING_METHODS);

#define QUORV_CSTRING_METHODS(M) \
    M(const CStringObject*, GetAndCacheConstString, (const char* text, Int length), (text, length)) \
    M(CStringObject*, Alloc, (const SourceLocation& loc), (loc)) \
    M(void, Free, (CStringObject* s), (s)) \
    M(Result<void>, SetCString, (CStringObject* s, const char* text, Int length), (s, text, length)) \
    M(Int, GetLength, (const CStringObject* s), (s)) \
    M(const char*, GetData, (const CStringObject* s), (s))
QUORV_NONVIRTUAL_INTERFACE(CStringInterface, "net.quorv.interface.cstring", QUORV_CSTRING_METHODS);

#define QUORV_URL_METHODS(M) \
    M(UrlObject*, Alloc, (const SourceLocation& loc), (loc)) \
    M(UrlObject*, AllocCopy, (const UrlObject* source, const SourceLocation& loc), (source, loc)) \
    M(void, Free, (UrlObject* u), (u)) \
    M(Result<void>, SetUrl, (UrlObject* u, const char* text, Int length), (u, text, length)) \
    M(LiteralId, GetScheme, (const UrlObject* u), (u)) \
    M(Result<void>, SetScheme, (UrlObject* u, LiteralId scheme), (u, scheme)) \
    M(Result<void>, SetAuthority, (UrlObject* u, const char* text, Int length), (u, text, length)) \
    M(Result<void>, SetPath, (UrlObject* u, const char* text, Int length), (u, text, length)) \
    M(Int, GetPath, (const UrlObject* u, char* buffer, Int capacity), (u, buffer, capacity)) \
    M(Int, GetAuthority, (const UrlObject* u, char* buffer, Int capacity), (u, buffer, capacity)) \
    M(Int, GetName, (const UrlObject* u, char* buffer, Int capacity), (u, buffer, capacity)) \
    M(Int, GetText, (const UrlObject* u, char* buffer, Int capacity), (u, buffer, capacity)) \
    M(Result<void>, Append, (UrlObject* u, const char* part, Int length), (u, part, length)) \
    M(Result<void>, AppendUrl, (UrlObject* u, const UrlObject* other), (u, other)) \
    M(Bool, CheckSuffix, (const UrlObject* u, const char* suffix), (u, suffix)) \
    M(Bool, IsEmpty, (const UrlObject* u), (u)) \
    M(Int, Compare, (const UrlObject* a, const UrlObject* b), (a, b)) \
    M(IODETECT, IoDetect, (const UrlObject* u), (u))
QUORV_NONVIRTUAL_INTERFACE(UrlInterface, "net.quorv.interface.url", QUORV_URL_METHODS);

/// `FindData` (appended last, so that the slot order of modules built before it still holds):
/// the value stored under the key, lent rather than copied; null when absent, and from a host
/// that lacks the slot. The value is valid while the caller holds a reference to the
/// dictionary and nobody writes it; since writers copy a shared dictionary first, a holder's
/// lent value stays put whatever other holders write. Any number of threads may look up one
/// dictionary at once; none may write it meanwhile.
#define QUORV_DATADICTIONARY_METHODS(M) \
    M(DataDictionaryObject*, Alloc, (const SourceLocation& loc), (loc)) \
    M(DataDictionaryObject*, AllocCopy, (const DataDictionaryObject* source, const SourceLocation& loc), (source, loc)) \
    M(void, Free, (DataDictionaryObject* d), (d)) \
    M(const DataDictionaryObject*, GetEmpty, (), ()) \
    M(Bool, GetData, (const DataDictionaryObject* d, const DataDictionaryKey& key, Data* out), (d, key, out)) \
    M(Result<void>, SetData, (DataDictionaryObject* d, const DataDictionaryKey& key, const Data& value), (d, key, value)) \
    M(Bool, EraseData, (DataDictionaryObject* d, const DataDictionaryKey& key), (d, key)) \
    M(Int, GetCount, (const DataDictionaryObject* d), (d)) \
    M(void, InitIterator, (const DataDictionaryObject* d, DataDictionaryIteratorState* it), (d, it)) \
    M(Bool, IteratorHasValue, (const DataDictionaryIteratorState* it), (it)) \
    M(Bool, IteratorGetKeyAndData, (const DataDictionaryIteratorState* it, DataDictionaryKey* key, Data* out), (it, key, out)) \
    M(void, IteratorMoveToNext, (DataDictionaryIteratorState* it), (it)) \
    M(Bool, IteratorIsEqual, (const DataDictionaryIteratorState* a, const DataDictionaryIteratorState* b), (a, b)) \
    M(void, IteratorDestruct, (DataDictionaryIteratorState* it), (it)) \
    M(const Data*, FindData, (const DataDictionaryObject* d, const DataDictionaryKey& key), (d, key))
QUORV_NONVIRTUAL_INTERFACE(DataDictionaryInterface, "net.quorv.interface.datadictionary", QUORV_DATADICTIONARY_METHODS);

#define QUORV_DATATYPELIB_METHODS(M) \
    M(const DataType*, GetRuntimeDataType, (const char* id), (id)) \
    M(const DataType*, GetInvalidType, (), ()) \
    M(const DataType*, GetVoidType, (), ()) \
    M(const DataType*, GetDataTypeType, (), ()) \
    M(Result<const DataType*>, GetGenericType, (const DataType* element), (element)) \
    M(Result<const DataType*>, GetDelegateType, (const DataType* result, const DataType* const* arguments, Int count), (result, arguments, count)) \
    M(Result<const DataType*>, RegisterEnumType, (const char* id, const char* typeName, const EnumValue* values, Int count), (id, typeName, values, count)) \
    M(void, PrivateHandleUnreferencedType, (const DataType* type), (type))
QUORV_NONVIRTUAL_INTERFACE(DataTypeLibInterface, "net.quorv.interface.datatypelib", QUORV_DATATYPELIB_METHODS);

#define QUORV_CLASS_METHODS(M) \
    M(ClassObject*, Alloc, (const LiteralId& id, Int kind, const SourceLocation& loc), (id, kind, loc)) \
    M(void, Free, (ClassObject* c), (c)) \
    M(Result<void>, AddComponent, (ClassObject* c, const ComponentRecord* component), (c, component)) \
    M(Result<void>, AddComponents, (ClassObject* c, const ClassObject* other), (c, other)) \
    M(Result<void>, Finalize, (ClassObject* c), (c)) \
    M(Result<void*>, Create, (const ClassObject* c, const SourceLocation& loc), (c, loc)) \
    M(Result<void*>, CreateCopy, (const void* instance, const SourceLocation& loc), (instance, loc)) \
    M(MethodEntry*, GetOrCreateMTable, (ClassObject* c, const InterfaceRecord* interface), (c, interface)) \
    M(const MethodEntry*, GetMTable, (const void* instance, const InterfaceRecord* interface), (instance, interface)) \
    M(MethodEntry, GetSuperMethod, (const ComponentInfo* info, const InterfaceRecord* interface, Int method), (info, interface, method)) \
    M(LiteralId, GetId, (const ClassObject* c), (c)) \
    M(const ClassObject*, GetClass, (const void* instance), (instance)) \
    M(void*, GetComponentState, (const void* instance, const ComponentRecord* component), (instance, component))
QUORV_NONVIRTUAL_INTERFACE(ClassInterface, "net.quorv.interface.class", QUORV_CLASS_METHODS);

#define QUORV_REGISTRY_METHODS(M) \
    M(Result<void>, InsertEntry, (const LiteralId& registry, const LiteralId& id, const Data& value), (registry, id, value)) \
    M(Bool, EraseEntry, (const LiteralId& registry, const LiteralId& id), (registry, id)) \
    M(Bool, FindEntryValue, (const LiteralId& registry, const LiteralId& id, Data* out), (registry, id, out))
QUORV_NONVIRTUAL_INTERFACE(RegistryInterface, "net.quorv.interface.registry", QUORV_REGISTRY_METHODS);

#define QUORV_APPLICATION_METHODS(M) \
    M(Result<UrlObject*>, PrivateGetUrl, (Int kind, const LiteralId& id, const QuorvModuleInfo* module), (kind, id, module))
QUORV_NONVIRTUAL_INTERFACE(ApplicationInterface, "net.quorv.interface.application", QUORV_APPLICATION_METHODS);

#define QUORV_DATADESCRIPTIONDEFINITIONDATABASE_METHODS(M) \
    M(Result<void>, RegisterDatabaseWithUrl, (const LiteralId& id, const UrlObject* url), (id, url))
QUORV_NONVIRTUAL_INTERFACE(DataDescriptionDefinitionDatabaseInterface, "net.quorv.interface.datadescriptiondefinitiondatabase", QUORV_DATADESCRIPTIONDEFINITIONDATABASE_METHODS);
// clang-format on

/// Url kind of `application::PrivateGetUrl` that names a module's own resource folder.
constexpr Int APPLICATION_URLTYPE_CURRENT_MODULE_RESOURCE_DIR = 14;
/// Url kind of `application::PrivateGetUrl` that names the host application's resource folder
/// (`resources/` beside the program's `bin/`), whatever module asks.
constexpr Int APPLICATION_URLTYPE_RESOURCE_DIR = 2;

/// Data type id of class values held in registries.
constexpr const char* CLASS_DATATYPE_ID = "net.quorv.class";

}  // namespace quorv

#include "quorv/datatype_impl.h"
