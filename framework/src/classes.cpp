#include "quorv/classes.h"

namespace quorv {

const InterfaceRecord& ObjectInterfaceRecord() {
    static const InterfaceRecord r = [] {
        InterfaceRecord x;
        x.type = static_cast<UInt32>(EntityBase::TYPE::INTERFACE);
        x.id = LiteralId("net.quorv.interface.object");
        x.methodNames = "";
        x.methodCount = 0;
        return x;
    }();
    return r;
}

Result<ClassObject*> CreateClassFromRecord(ClassRecord* record, const SourceLocation& loc) {
    ClassObject* cls = ClassInterface::Alloc(record->id, 1, loc);
    if (!cls) return OutOfMemoryError();
    Ref<ClassObject> holder(cls);
    for (Int i = 0; i < record->componentCount; ++i) {
        QUORV_RETURN_IF_ERROR(ClassInterface::AddComponent(cls, record->components[i]));
    }
    QUORV_RETURN_IF_ERROR(ClassInterface::Finalize(cls));
    return holder.Disconnect();
}

Result<void> RegisterClassRecord(ClassRecord* record) {
    record->classId = record->id;
    Result<ClassObject*> cls = record->create(record, QUORV_SOURCE_LOCATION);
    if (cls.IsError()) return cls.GetError();
    record->value = cls.GetValue();
    const DataType* classType = DataTypeLibInterface::GetRuntimeDataType(CLASS_DATATYPE_ID);
    if (!classType) {
        return MakeError(ERRORKIND::UNRESOLVED, QUORV_SOURCE_LOCATION,
                         FormatMessage("No data type @ for class @",
                                       {CLASS_DATATYPE_ID, record->id.View()}));
    }
    ClassObject* value = record->value;
    Data data = Data::Make(classType, &value);
    if (data.IsEmpty()) return OutOfMemoryError();
    return RegistryInterface::InsertEntry(record->registry, record->classId, data);
}

void UnregisterClassRecord(ClassRecord* record) {
    ClassObject* cls = std::exchange(record->value, nullptr);
    if (!record->classId.IsEmpty()) RegistryInterface::EraseEntry(record->registry, record->classId);
    RemoveReference(cls);
    record->classId.Clear();
}

Result<const ClassObject*> FindClass(const LiteralId& registry, const LiteralId& id) {
    Data value;
    bool found = RegistryInterface::FindEntryValue(registry, id, &value);
    // A found entry whose copy came back empty means memory ran short.
    if (found && value.IsEmpty()) return OutOfMemoryError();
    if (!found) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("No class @ in registry @", {id.View(), registry.View()}));
    }
    const DataType* classType = DataTypeLibInterface::GetRuntimeDataType(CLASS_DATATYPE_ID);
    if (!classType || value.GetType() != classType) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Entry @ of registry @ is not a class",
                                       {id.View(), registry.View()}));
    }
    return static_cast<const ClassObject*>(*static_cast<ClassObject* const*>(value.GetPointer()));
}

Result<ObjectRef> CreateObjectById(const LiteralId& registry, const LiteralId& id) {
    Result<const ClassObject*> cls = FindClass(registry, id);
    if (cls.IsError()) return cls.GetError();
    Result<void*> instance = ClassInterface::Create(cls.GetValue(), QUORV_SOURCE_LOCATION);
    if (instance.IsError()) return instance.GetError();
    return ObjectRef::Adopt(static_cast<ObjectInstance*>(instance.GetValue()));
}

Result<ClassObject*> CreateComposedClassFromRecord(ClassRecord* record, const SourceLocation& loc) {
    auto* composed = static_cast<ComposedClassRecord*>(record);
    ClassObject* cls = ClassInterface::Alloc(record->id, 1, loc);
    if (!cls) return OutOfMemoryError();
    Ref<ClassObject> holder(cls);
    for (Int i = 0; i < composed->baseCount; ++i) {
        const ClassLocation& b = composed->bases[i];
        Result<const ClassObject*> base = FindClass(LiteralId(b.registry), LiteralId(b.id));
        if (base.IsError()) return base.GetError();
        QUORV_RETURN_IF_ERROR(ClassInterface::AddComponents(cls, base.GetValue()));
    }
    for (Int i = 0; i < record->componentCount; ++i) {
        QUORV_RETURN_IF_ERROR(ClassInterface::AddComponent(cls, record->components[i]));
    }
    QUORV_RETURN_IF_ERROR(ClassInterface::Finalize(cls));
    return holder.Disconnect();
}

LiteralId GetClassIdOf(const ObjectInstance* instance) {
    const ClassObject* cls = instance ? ClassInterface::GetClass(instance) : nullptr;
    return cls ? ClassInterface::GetId(cls) : LiteralId();
}

void DefineSimpleClass(ComponentRecord& component, ClassRecord& cls,
                       const ComponentRecord* const* componentList, LiteralId id,
                       LiteralId registry, TranslationUnitRecord& unit, const char* sourceName) {
    DefineComponent(component, id, unit, sourceName, 0);
    DefineClass(cls, id, unit, sourceName, 0);
    cls.create = &CreateClassFromRecord;
    cls.registerFunc = &RegisterClassRecord;
    cls.unregisterFunc = &UnregisterClassRecord;
    cls.registry = registry;
    cls.components = componentList;
    cls.componentCount = 1;
}

}  // namespace quorv
