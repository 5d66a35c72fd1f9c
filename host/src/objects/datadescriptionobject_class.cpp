// The host's class "net.quorv.class.datadescriptionobject". Until description databases hold
// object descriptions, the one operation reports which class asked, so that a caller sees
// whose description is missing.
#include "host_internal.h"
#include "quorv/datadescriptionobject.h"
#include "quorv/datadictionaryobject.h"

namespace quorv::host {

namespace {

struct DataDescriptionObjectImpl {
    int unused = 0;
};

// Called through the method table with the instance: the class id is the instance's.
Result<DataDictionary> GetObjectDescription(void* instance, const ComponentInfo*) {
    const std::string_view id = GetClassIdOf(static_cast<const ObjectInstance*>(instance)).View();
    return MakeError(ERRORKIND::FUNCTIONNOTIMPLEMENTED, QUORV_SOURCE_LOCATION,
                     FormatMessage("No description of class @ is available", {id}));
}

bool Fill(ClassObject* cls, const ComponentInfo* info) {
    if (!ClassInterface::GetOrCreateMTable(cls, &ObjectInterfaceRecord())) return false;
    MethodEntry* table =
        ClassInterface::GetOrCreateMTable(cls, &DataDescriptionObjectInterface::Record());
    if (!table) return false;
    table[DataDescriptionObjectInterface::IDX_GetObjectDescription] =
        MethodEntry{reinterpret_cast<void*>(&GetObjectDescription), info};
    return true;
}

}  // namespace

void RegisterDataDescriptionObjectClass() {
    static ComponentRecord component;
    static bool done = false;
    if (done) return;
    done = true;
    FillComponentState<DataDescriptionObjectImpl>(component);
    component.fillMTable = &Fill;
    component.interface = &DataDescriptionObjectInterface::Record();
    component.mtableSize = DataDescriptionObjectInterface::COUNT * 2 * sizeof(void*);
    component.type = static_cast<UInt32>(EntityBase::TYPE::COMPONENT);
    component.id = LiteralId(DATADESCRIPTIONOBJECT_CLASS_ID);
    ClassObject* cls = ClassInterface::Alloc(component.id, 1, QUORV_SOURCE_LOCATION);
    if (!cls) {
        HostCriticalOutput(
            "The host's data description object class could not be made: out of memory");
        return;
    }
    Ref<ClassObject> holder(cls);
    Result<void> made = ClassInterface::AddComponent(cls, &component);
    if (made.IsOk()) made = ClassInterface::Finalize(cls);
    const DataType* classType = DataTypeLibInterface::GetRuntimeDataType(CLASS_DATATYPE_ID);
    Data value = classType ? Data::Make(classType, &cls) : Data();
    if (made.IsOk()) {
        made = value.IsEmpty() ? Result<void>(OutOfMemoryError())
                               : RegistryInterface::InsertEntry(LiteralId(HOST_CLASS_REGISTRY_ID),
                                                                component.id, value);
    }
    if (made.IsError()) {
        HostCriticalOutput("The host's data description object class could not be made: " +
                           ErrorToString(made.GetErrorPointer()));
    }
}

}  // namespace quorv::host
