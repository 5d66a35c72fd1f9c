// The data type library: one table of every type by id and in registration order.
#include "datatype_service.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <type_traits>
#include <unordered_map>

#include "quorv/classes.h"
#include "quorv/datadescription.h"
#include "services_impl.h"

namespace quorv::host {

namespace {

// A type object of this library. `type` comes first, so a `DataType*` handed out is one of
// these; the texts it points to live here.
struct HostDataType {
    DataType type{};
    std::string idText;
    std::string typeNameText;
    std::vector<std::string> enumNames;
    std::vector<EnumValue> enumValues;
    const DataTypeRecord* record = nullptr;  // the module record that defined it
    std::vector<const DataType*> madeOver;   // generic and delegate types: their parts
};
static_assert(std::is_standard_layout_v<HostDataType>);

void DestroyType(void* object) {
    ObjectHeader* header = HeaderOf(object);
    static_cast<HostDataType*>(object)->~HostDataType();
    header->~ObjectHeader();
    ::operator delete(header);
}

// A type object behind a header; immortal ones are flagged and never freed, others start with
// the one reference of the table.
HostDataType* NewType(bool immortal) noexcept {
    if (immortal) {
        HostDataType* t = NewImmortalObject<HostDataType>();
        if (t) t->type.flags = DataType::FLAG_IMMORTAL;
        return t;
    }
    void* block = ::operator new(sizeof(ObjectHeader) + sizeof(HostDataType), std::nothrow);
    if (!block) return nullptr;
    auto* header = new (block) ObjectHeader{nullptr, &DestroyType, 0, REFERENCE_STEP};
    return new (header + 1) HostDataType();  // nothing in it allocates
}

void DropType(HostDataType* t) {
    if (t && !(t->type.flags & DataType::FLAG_IMMORTAL)) RemoveReference(t);
}

// Frees a type that never reached the tables, immortal or not.
struct FreeUnpublished {
    void operator()(HostDataType* t) const { DestroyType(t); }
};
using TypeHolder = std::unique_ptr<HostDataType, FreeUnpublished>;

// Fills id and type name from texts the type keeps.
void SetNames(HostDataType& t, std::string_view id, std::string_view typeName) {
    t.idText.assign(id);
    t.typeNameText.assign(typeName);
    t.type.id = LiteralId(t.idText.c_str(), LiteralIdWord(t.idText));
    t.type.typeName = t.typeNameText.c_str();
}

void SetEnumValues(HostDataType& t, const EnumValue* values, Int count) {
    t.enumNames.reserve(static_cast<size_t>(count));
    for (Int i = 0; i < count; ++i) t.enumNames.emplace_back(values[i].name);
    t.enumValues.reserve(static_cast<size_t>(count));
    for (Int i = 0; i < count; ++i) {
        t.enumValues.push_back({t.enumNames[i].c_str(), values[i].value});
    }
    t.type.enumValues = t.enumValues.data();
    t.type.enumCount = count;
}

std::string_view NameForIds(const DataType* t) {
    if (!t) return "void";
    if (!t->id.IsEmpty()) return t->id.View();
    return t->typeName ? std::string_view(t->typeName) : std::string_view("?");
}

// ---- the value type of class objects: a counted `ClassObject*` -------------------------------

using ClassPtr = ClassObject*;

ClassPtr& ClassAt(void* base, Int stride, Int i) {
    return *reinterpret_cast<ClassPtr*>(static_cast<char*>(base) + stride * i);
}
ClassPtr ClassAt(const void* base, Int stride, Int i) {
    return *reinterpret_cast<const ClassPtr*>(static_cast<const char*>(base) + stride * i);
}

void AssignClass(ClassPtr& dst, ClassPtr value) {
    AddReference(value);  // before the drop: `value` may be what `dst` holds
    ClassPtr old = dst;
    dst = value;
    RemoveReference(old);
}

void ClassConstruct(void* d, Int s, Int n) {
    for (Int i = 0; i < n; ++i) new (&ClassAt(d, s, i)) ClassPtr(nullptr);
}
void ClassDestruct(void* d, Int s, Int n) {
    for (Int i = 0; i < n; ++i) RemoveReference(std::exchange(ClassAt(d, s, i), nullptr));
}
void ClassCopy(void* d, const void* src, Int s, Int n) {
    for (Int i = 0; i < n; ++i) AssignClass(ClassAt(d, s, i), ClassAt(src, s, i));
}
void ClassMoveOne(ClassPtr& dst, ClassPtr& src) {
    ClassPtr value = std::exchange(src, nullptr);
    ClassPtr old = std::exchange(dst, value);
    RemoveReference(old);
}
// Walks backwards when the destination lies above the source, so overlapping runs survive.
void ClassMove(void* d, void* src, Int s, Int n) {
    if (n < 1) return;
    if (d > src) {
        for (Int i = n - 1; i >= 0; --i) ClassMoveOne(ClassAt(d, s, i), ClassAt(src, s, i));
    } else {
        for (Int i = 0; i < n; ++i) ClassMoveOne(ClassAt(d, s, i), ClassAt(src, s, i));
    }
}
void ClassSwap(void* a, void* b, Int s, Int n) {
    for (Int i = 0; i < n; ++i) std::swap(ClassAt(a, s, i), ClassAt(b, s, i));
}
void ClassFill(void* d, const void* v, Int s, Int n) {
    for (Int i = 0; i < n; ++i) AssignClass(ClassAt(d, s, i), *static_cast<const ClassPtr*>(v));
}
void ClassCopyConstruct(void* d, const void* src, Int s, Int n) {
    for (Int i = 0; i < n; ++i) {
        ClassPtr value = ClassAt(src, s, i);
        AddReference(value);
        new (&ClassAt(d, s, i)) ClassPtr(value);
    }
}
void ClassMoveConstruct(void* d, void* src, Int s, Int n) {
    for (Int i = 0; i < n; ++i) {
        new (&ClassAt(d, s, i)) ClassPtr(std::exchange(ClassAt(src, s, i), nullptr));
    }
}
Bool ClassIsEqual(const DataType*, const void* a, const void* b) {
    return *static_cast<const ClassPtr*>(a) == *static_cast<const ClassPtr*>(b);
}
Int ClassCompare(const DataType*, const void* a, const void* b) {
    ClassPtr x = *static_cast<const ClassPtr*>(a);
    ClassPtr y = *static_cast<const ClassPtr*>(b);
    return std::less<ClassPtr>()(x, y) ? -1 : (std::less<ClassPtr>()(y, x) ? 1 : 0);
}
UInt ClassHash(const DataType*, const void* a) {
    return std::hash<ClassPtr>()(*static_cast<const ClassPtr*>(a));
}
void* ClassHeapNew(const DataType*) {
    void* p = SystemInterface::Alloc(sizeof(ClassPtr), QUORV_SOURCE_LOCATION);
    return p ? new (p) ClassPtr(nullptr) : nullptr;
}
void* ClassHeapClone(const DataType*, const void* src) {
    void* p = SystemInterface::Alloc(sizeof(ClassPtr), QUORV_SOURCE_LOCATION);
    if (!p) return nullptr;
    ClassPtr value = *static_cast<const ClassPtr*>(src);
    AddReference(value);
    return new (p) ClassPtr(value);
}
void ClassHeapDelete(const DataType*, void* p) {
    if (!p) return;
    RemoveReference(*static_cast<ClassPtr*>(p));
    SystemInterface::Free(p);
}
void ClassHeapAssign(const DataType*, void* d, const void* src) {
    AssignClass(*static_cast<ClassPtr*>(d), *static_cast<const ClassPtr*>(src));
}
void ClassHeapReset(const DataType*, void* p) {
    RemoveReference(std::exchange(*static_cast<ClassPtr*>(p), nullptr));
}
Int ClassGetSize(const DataType*) { return sizeof(ClassPtr); }
Int ClassGetAlignment(const DataType*) { return alignof(ClassPtr); }

// clang-format off
constexpr DataTypeOperations CLASS_OPERATIONS{
    ClassConstruct, ClassDestruct,  ClassCopy,          ClassMove,
    ClassSwap,      ClassFill,      ClassCopyConstruct, ClassMoveConstruct,
    ClassIsEqual,   ClassCompare,   ClassHash,          ClassHash,
    ClassHeapNew,   ClassHeapClone, ClassHeapDelete,    ClassHeapAssign,
    ClassIsEqual,   ClassCompare,   ClassHash,          ClassHeapReset,
    ClassGetSize,   ClassGetAlignment};
// clang-format on

// ---- the tables -------------------------------------------------------------------------

struct Tables {
    std::shared_mutex mutex;
    std::vector<HostDataType*> order;                          // registration order
    std::unordered_map<std::string_view, HostDataType*> byId;  // views of the types' id texts
    std::map<std::vector<const DataType*>, HostDataType*> generics, delegates;
    std::vector<HostDataType*> retired;  // made types over removed types: unlisted, kept
    const DataType* invalid = nullptr;
    const DataType* voidType = nullptr;
    const DataType* dataTypeType = nullptr;
};

Tables& G() {
    static Tables* tables = new Tables();  // outlives every module's static destructors
    return *tables;
}

// Adds a finished type to the tables; the caller holds the write lock and has checked the id.
void AddLocked(Tables& g, HostDataType* t) {
    g.order.push_back(t);
    if (!t->idText.empty()) g.byId.emplace(std::string_view(t->idText), t);
}

void RemoveLocked(Tables& g, HostDataType* t) {
    std::erase(g.order, t);
    auto it = g.byId.find(t->idText);
    if (it != g.byId.end() && it->second == t) g.byId.erase(it);
}

HostDataType* FindLocked(Tables& g, std::string_view id) {
    auto it = g.byId.find(id);
    return it == g.byId.end() ? nullptr : it->second;
}

// Builds and adds a built-in type; a type that cannot be made is left out (the host then
// lacks it, which lookups answer with null).
const DataType* AddBuiltIn(Tables& g, std::string_view id, std::string_view typeName,
                           DATATYPEKIND kind, Int size, Int alignment,
                           const DataTypeOperations* operations) {
    try {
        HostDataType* t = NewType(true);
        if (!t) return nullptr;
        SetNames(*t, id, typeName);
        t->type.kind = kind;
        t->type.size = size;
        t->type.alignment = alignment;
        t->type.operations = operations;
        std::unique_lock lock(g.mutex);
        if (HostDataType* existing = FindLocked(g, id)) return &existing->type;
        AddLocked(g, t);
        return &t->type;
    } catch (...) {
        return nullptr;
    }
}

template <typename T, COMPARISON MODE>
void AddBuiltIn(Tables& g, std::string_view typeName, DATATYPEKIND kind) {
    AddBuiltIn(g, DataTypeIdOf<T>::id, typeName, kind, sizeof(T), alignof(T),
               &DataTypeOperationsOf<T, MODE>());
}

void CreateBuiltIns() {
    Tables& g = G();
    using K = DATATYPEKIND;
    constexpr auto OPS = COMPARISON::OPERATORS;
    constexpr auto BYTES = COMPARISON::BYTES;
    g.invalid = AddBuiltIn(g, "net.quorv.datatype.invalid", "invalid", K::INVALID, 0, 1, nullptr);
    g.voidType = AddBuiltIn(g, "void", "void", K::VOID, 0, 1, nullptr);
    g.dataTypeType =
        AddBuiltIn(g, "net.quorv.datatype", "const DataType*", K::DATATYPE, sizeof(const DataType*),
                   alignof(const DataType*), &DataTypeOperationsOf<const DataType*, OPS>());
    AddBuiltIn<Bool, OPS>(g, "Bool", K::PRIMITIVE);
    AddBuiltIn<Int32, OPS>(g, "Int32", K::PRIMITIVE);
    AddBuiltIn<Int, OPS>(g, "Int", K::PRIMITIVE);
    AddBuiltIn<Float32, OPS>(g, "Float32", K::PRIMITIVE);
    AddBuiltIn<Float64, OPS>(g, "Float64", K::PRIMITIVE);
    AddBuiltIn<Vector2d64, BYTES>(g, "Vector2d64", K::TUPLE);
    AddBuiltIn<Vector64, BYTES>(g, "Vector64", K::TUPLE);
    AddBuiltIn<Vector32, BYTES>(g, "Vector32", K::TUPLE);
    AddBuiltIn<Matrix64, BYTES>(g, "Matrix64", K::TUPLE);
    AddBuiltIn<Color64, BYTES>(g, "Color64", K::TUPLE);
    AddBuiltIn<ColorA64, BYTES>(g, "ColorA64", K::TUPLE);
    AddBuiltIn<ColorA32, BYTES>(g, "ColorA32", K::TUPLE);
    AddBuiltIn<std::string, OPS>(g, "std::string", K::PRIMITIVE);
    AddBuiltIn<UInt32, OPS>(g, "UInt32", K::PRIMITIVE);
    AddBuiltIn<Id, OPS>(g, "Id", K::PRIMITIVE);
    AddBuiltIn<IdArray, OPS>(g, "BaseArray<Id>", K::TUPLE);
    AddBuiltIn<Vector2i64, BYTES>(g, "Vector2i64", K::TUPLE);
    AddBuiltIn<TimeValue, OPS>(g, "TimeValue", K::TUPLE);
    AddBuiltIn<DataDictionary, OPS>(g, "DataDictionary", K::PRIMITIVE);
    AddBuiltIn<IdStringTuple, OPS>(g, "Tuple<Id,String>", K::TUPLE);
    AddBuiltIn<ObjectRef, BYTES>(g, "ObjectRef", K::PRIMITIVE);
    AddBuiltIn(g, CLASS_DATATYPE_ID, "ClassObject*", K::PRIMITIVE, sizeof(ClassPtr),
               alignof(ClassPtr), &CLASS_OPERATIONS);
}

// ---- slots ------------------------------------------------------------------------------

const DataType* GetRuntimeDataType(const char* id) {
    if (!id) return nullptr;
    Tables& g = G();
    std::shared_lock lock(g.mutex);
    HostDataType* t = FindLocked(g, id);
    return t ? &t->type : nullptr;
}

const DataType* GetInvalidType() { return G().invalid; }
const DataType* GetVoidType() { return G().voidType; }
const DataType* GetDataTypeType() { return G().dataTypeType; }

// Finds or makes the immortal type of `key` in `cache`; `fill` names and lays out a new one.
template <typename F>
Result<const DataType*> MadeType(std::map<std::vector<const DataType*>, HostDataType*>& cache,
                                 const std::vector<const DataType*>& key, F fill) {
    Tables& g = G();
    {
        std::shared_lock lock(g.mutex);
        auto it = cache.find(key);
        if (it != cache.end()) return &it->second->type;
    }
    TypeHolder t(NewType(true));
    if (!t) return OutOfMemoryError();
    fill(*t);
    t->madeOver = key;
    std::unique_lock lock(g.mutex);
    auto [it, inserted] = cache.emplace(key, t.get());
    if (!inserted) return &it->second->type;  // another thread was first
    AddLocked(g, t.get());  // the id stays with an earlier type that has the same id text
    return &t.release()->type;
}

Result<const DataType*> GetGenericType(const DataType* element) {
    return GuardAllocation([&]() -> Result<const DataType*> {
        if (!element) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "GetGenericType of a null element type");
        }
        return MadeType(G().generics, {element}, [&](HostDataType& t) {
            std::string id = "generic<" + std::string(NameForIds(element)) + ">";
            SetNames(t, id, id);
            t.type.kind = DATATYPEKIND::GENERIC;
            t.type.size = element->size;
            t.type.alignment = element->alignment;
            t.type.operations = element->operations;
            t.type.elementType = element;
        });
    });
}

// A null result means a delegate that returns nothing: the void type.
Result<const DataType*> GetDelegateType(const DataType* result, const DataType* const* arguments,
                                        Int count) {
    return GuardAllocation([&]() -> Result<const DataType*> {
        if (count < 0 || (count > 0 && !arguments)) {
            return MakeError(
                ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                FormatMessage("Bad argument list of a delegate type: count @@",
                              {std::to_string(count), arguments ? "" : " and no list"}));
        }
        if (!result) result = G().voidType;
        std::vector<const DataType*> key{result};
        for (Int i = 0; i < count; ++i) {
            if (!arguments[i]) {
                return MakeError(
                    ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                    FormatMessage("Argument @ of a delegate type is null", {std::to_string(i)}));
            }
            key.push_back(arguments[i]);
        }
        return MadeType(G().delegates, key, [&](HostDataType& t) {
            std::string id = "delegate<" + std::string(NameForIds(result)) + "(";
            for (Int i = 0; i < count; ++i) {
                if (i > 0) id += ',';
                id += NameForIds(arguments[i]);
            }
            id += ")>";
            SetNames(t, id, id);
            t.type.kind = DATATYPEKIND::DELEGATE;
            t.type.size = sizeof(DelegateValue);
            t.type.alignment = alignof(DelegateValue);
            t.type.operations = &DataTypeOperationsOf<DelegateValue, COMPARISON::BYTES>();
            t.type.elementType = result;
        });
    });
}

bool SameEnumValues(const DataType& t, const EnumValue* values, Int count) {
    if (t.enumCount != count) return false;
    for (Int i = 0; i < count; ++i) {
        if (t.enumValues[i].value != values[i].value) return false;
        if (std::string_view(t.enumValues[i].name) != values[i].name) return false;
    }
    return true;
}

Result<void> CheckEnumValues(std::string_view id, const EnumValue* values, Int count) {
    if (count < 0 || (count > 0 && !values)) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Bad value list of enum type @: count @@",
                                       {id, std::to_string(count), values ? "" : " and no list"}));
    }
    for (Int i = 0; i < count; ++i) {
        if (!values[i].name) {
            return MakeError(
                ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                FormatMessage("Value @ of enum type @ has no name", {std::to_string(i), id}));
        }
    }
    return OK;
}

Result<const DataType*> RegisterEnumType(const char* id, const char* typeName,
                                         const EnumValue* values, Int count) {
    return GuardAllocation([&]() -> Result<const DataType*> {
        if (!id || !*id) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "RegisterEnumType without an id");
        }
        QUORV_RETURN_IF_ERROR(CheckEnumValues(id, values, count));
        Tables& g = G();
        // Built outside the lock; dropped (never freed: immortal) when the id is found taken.
        TypeHolder t(NewType(true));
        if (!t) return OutOfMemoryError();
        SetNames(*t, id, typeName ? typeName : id);
        t->type.kind = DATATYPEKIND::ENUM;
        t->type.size = sizeof(Int32);
        t->type.alignment = alignof(Int32);
        t->type.operations = &DataTypeOperationsOf<Int32, COMPARISON::OPERATORS>();
        SetEnumValues(*t, values, count);
        std::unique_lock lock(g.mutex);
        if (HostDataType* existing = FindLocked(g, id)) {
            if (existing->type.kind == DATATYPEKIND::ENUM &&
                SameEnumValues(existing->type, values, count)) {
                return &existing->type;
            }
            return MakeError(
                ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                FormatMessage("Data type @ is already registered with other values", {id}));
        }
        AddLocked(g, t.get());
        return &t.release()->type;
    });
}

// Registered types are held by the table, immortal ones by nobody: nothing to do.
void HandleUnreferencedType(const DataType*) {}

const DataTypeLibInterface::Slots g_dataTypeSlots{
    .GetRuntimeDataType = &GetRuntimeDataType,
    .GetInvalidType = &GetInvalidType,
    .GetVoidType = &GetVoidType,
    .GetDataTypeType = &GetDataTypeType,
    .GetGenericType = &GetGenericType,
    .GetDelegateType = &GetDelegateType,
    .RegisterEnumType = &RegisterEnumType,
    .PrivateHandleUnreferencedType = &HandleUnreferencedType,
};

}  // namespace

void RegisterDataTypeService(Host& host) {
    static const bool created = (CreateBuiltIns(), true);
    (void)created;
    host.RegisterService<DataTypeLibInterface>(g_dataTypeSlots);
}

Result<const DataType*> DefineDataTypeFromRecord(DataTypeRecord& record) {
    return GuardAllocation([&]() -> Result<const DataType*> {
        std::string_view id = record.id.View();
        std::string_view name = id;
        if (name.empty()) name = record.typeName ? record.typeName : "(unnamed)";
        if (record.kind != DATATYPEKIND::TUPLE && record.kind != DATATYPEKIND::ENUM) {
            return MakeError(
                ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                FormatMessage("Data type @ has kind @; a module defines TUPLE and "
                              "ENUM types only",
                              {name, std::to_string(static_cast<Int32>(record.kind))}));
        }
        const DataTypeOperations* ops = record.operations;
        if (!ops && record.kind == DATATYPEKIND::ENUM) {
            ops = &DataTypeOperationsOf<Int32, COMPARISON::OPERATORS>();
        }
        if (!ops) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Data type @ has no operations", {name}));
        }
        if (record.kind == DATATYPEKIND::ENUM) {
            QUORV_RETURN_IF_ERROR(CheckEnumValues(name, record.enumValues, record.enumCount));
        }
        TypeHolder t(NewType(false));
        if (!t) return OutOfMemoryError();
        SetNames(*t, id, record.typeName ? std::string_view(record.typeName) : id);
        t->type.kind = record.kind;
        t->type.operations = ops;
        t->type.flags |= record.typeFlags & DataType::FLAG_NOCOMPARISON;
        // The operations know the layout; a record that says otherwise is wrong.
        Int size = ops->GetSize ? ops->GetSize(&t->type) : record.size;
        Int alignment = ops->GetAlignment ? ops->GetAlignment(&t->type) : record.alignment;
        if ((record.size != 0 && record.size != size) ||
            (record.alignment != 0 && record.alignment != alignment)) {
            return MakeError(
                ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                FormatMessage("Data type @ says size @ and alignment @, its operations @ and @",
                              {name, std::to_string(record.size), std::to_string(record.alignment),
                               std::to_string(size), std::to_string(alignment)}));
        }
        t->type.size = size;
        t->type.alignment = alignment;
        if (record.kind == DATATYPEKIND::ENUM) {
            SetEnumValues(*t, record.enumValues, record.enumCount);
        }
        t->record = &record;
        Tables& g = G();
        std::unique_lock lock(g.mutex);
        if (!id.empty() && FindLocked(g, id)) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             FormatMessage("Data type @ is defined twice", {id}));
        }
        AddLocked(g, t.get());
        record.value = &t->type;
        return &t.release()->type;
    });
}

namespace {

// Made types over `gone`, and over those in turn, are no longer found or listed. They are not
// freed: they are immortal and someone may hold one. Short of memory they are only leaked.
void RetireMadeTypesLocked(Tables& g, const DataType* gone) noexcept {
    try {
        std::vector<const DataType*> pending{gone};
        while (!pending.empty()) {
            const DataType* part = pending.back();
            pending.pop_back();
            for (auto* cache : {&g.generics, &g.delegates}) {
                for (auto it = cache->begin(); it != cache->end();) {
                    if (std::find(it->first.begin(), it->first.end(), part) == it->first.end()) {
                        ++it;
                        continue;
                    }
                    HostDataType* made = it->second;
                    it = cache->erase(it);
                    RemoveLocked(g, made);
                    g.retired.push_back(made);
                    pending.push_back(&made->type);
                }
            }
        }
    } catch (...) {
    }
}

}  // namespace

void RemoveDataTypeOfRecord(DataTypeRecord& record) {
    Tables& g = G();
    HostDataType* removed = nullptr;
    {
        std::unique_lock lock(g.mutex);
        for (HostDataType* t : g.order) {
            if (t->record == &record) {
                removed = t;
                break;
            }
        }
        if (!removed) return;
        RemoveLocked(g, removed);
        RetireMadeTypesLocked(g, &removed->type);
    }
    if (record.value == &removed->type) record.value = nullptr;
    DropType(removed);
}

std::vector<const DataType*> ListDataTypes() {
    Tables& g = G();
    std::shared_lock lock(g.mutex);
    std::vector<const DataType*> out;
    out.reserve(g.order.size());
    for (HostDataType* t : g.order) out.push_back(&t->type);
    return out;
}

}  // namespace quorv::host
