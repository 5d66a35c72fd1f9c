// RenderGeneralImpl: picks the intersector class. The module holds no intersector; the classes
// come from other modules through the registry, looked up on every call.
#include "render/frame/rendergeneral.h"

#include <cstring>

#include "render/frame/intersection.h"

namespace quorv {

namespace {

// Set from the configuration at start, before any caller runs, and read without a lock: a
// value changed while intersectors are being created is a misuse of the variable. A fixed
// buffer owned by the unit, so there is nothing to release at exit.
char g_polygonIntersection[CONFIG_STRING_CAPACITY] = {};

const bool g_configured =
    (AddConfigurationVariable(POLYGON_INTERSECTION_VARIABLE, g_polygonIntersection, "",
                              CONFIGTYPE::STRING, ""),
     true);

// The class under `id`, or null when the registry has nothing of the class type there. An
// entry is taken only when it is of the class data type itself: the host's data types define
// no conversion into it, so no other type is convertible, and an entry of another type counts
// as not found (for an explicit choice, the error that names it).
Result<ClassObject*> FindClass(const LiteralId& id) {
    Data value;
    if (!RegistryInterface::FindEntryValue(LiteralId(INTERSECTION_CLASS_REGISTRY_ID), id, &value))
        return static_cast<ClassObject*>(nullptr);
    if (value.IsEmpty()) return OutOfMemoryError();
    const DataType* classType = DataTypeLibInterface::GetRuntimeDataType(CLASS_DATATYPE_ID);
    if (!classType || value.GetType() != classType) return static_cast<ClassObject*>(nullptr);
    return *static_cast<ClassObject* const*>(value.GetPointer());
}

Result<ObjectRef> Create(ClassObject* cls) {
    // The registry's copy of the entry keeps the class alive while it creates.
    Result<void*> instance = ClassInterface::Create(cls, QUORV_SOURCE_LOCATION);
    if (instance.IsError()) return instance.GetError();
    return ObjectRef::Adopt(static_cast<ObjectInstance*>(instance.GetValue()));
}

Result<ObjectRef> GetDefaultIntersector() {
    const size_t length = strnlen(g_polygonIntersection, sizeof(g_polygonIntersection));
    if (length > 0) {
        const std::string_view name(g_polygonIntersection, length);
        LiteralId id;
        if (!id.SetOwned(name)) return OutOfMemoryError();
        Result<ClassObject*> cls = FindClass(id);
        id.Clear();
        if (cls.IsError()) return cls.GetError();
        if (!cls.GetValue())
            return MakeErrorWithId("net.quorv.error.unknown", QUORV_SOURCE_LOCATION,
                                   FormatMessage("Intersection class @ not found.", {name}));
        return Create(cls.GetValue());
    }
    for (const char* id : {EMBREE_INTERSECTION_CLASS_ID, YMB_INTERSECTION_CLASS_ID}) {
        Result<ClassObject*> cls = FindClass(LiteralId(id));
        if (cls.IsError()) return cls.GetError();
        if (cls.GetValue()) return Create(cls.GetValue());
    }
    return MakeErrorWithId("net.quorv.error.unknown", QUORV_SOURCE_LOCATION,
                           "No default intersector found.");
}

void* const g_functions[] = {reinterpret_cast<void*>(&GetDefaultIntersector)};
static_assert(sizeof(g_functions) / sizeof(g_functions[0]) == RenderGeneralInterface::COUNT);
static_assert(std::is_same_v<decltype(&GetDefaultIntersector),
                             decltype(RenderGeneralInterface::Slots::GetDefaultIntersector)>);

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_interfaceNames;
NonVirtualInterfaceRecord g_implementation;
char g_nameRun[RenderGeneralInterface::NAME_RUN_SIZE];

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    g_interfaceNames.id = LiteralId(RenderGeneralInterface::INTERFACE_ID);
    g_interfaceNames.methodNames = BuildSlotNameRun(RenderGeneralInterface::Describe(), g_nameRun);
    g_interfaceNames.returnKinds = RenderGeneralInterface::Describe().returnKinds;
    g_interfaceNames.count = RenderGeneralInterface::COUNT;
    DefineInterfaceImplementation(g_implementation, g_interfaceNames, g_unit, __FILE__, 0);
    g_implementation.implementation = g_functions;
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv
