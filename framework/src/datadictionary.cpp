#include "quorv/datadictionary.h"

#include "quorv/datadictionaryobject.h"

namespace quorv {

Result<DataDictionary> DataDictionary::Create() {
    DataDictionaryObject* d = DataDictionaryInterface::Alloc(QUORV_SOURCE_LOCATION);
    if (!d) return OutOfMemoryError();
    DataDictionary r(d);
    return r;
}

Data DataDictionary::GetData(const DataDictionaryKey& key) const {
    Data value;
    const DataDictionaryObject* d = GetReadable();
    if (d) DataDictionaryInterface::GetData(d, key, &value);
    return value;
}

const Data* DataDictionary::FindCopy(const DataDictionaryKey& key, Data* spare) const {
    // A host without the lending slot leaves this module's stub in it: only then is the null
    // answer no answer.
    const auto slot = reinterpret_cast<void*>(DataDictionaryInterface::slots.FindData);
    const void* stub =
        DataDictionaryInterface::Describe().stubs[DataDictionaryInterface::IDX_FindData];
    if (slot != stub) return nullptr;
    *spare = GetData(key);
    return spare->IsEmpty() ? nullptr : spare;
}

Result<void> DataDictionary::MakeWritable() {
    if (!_d) {
        Result<DataDictionary> r = Create();
        if (r.IsError()) return r.GetError();
        *this = r.GetValue();
        return OK;
    }
    if (!IsShared(_d)) return OK;
    DataDictionaryObject* copy = DataDictionaryInterface::AllocCopy(_d, QUORV_SOURCE_LOCATION);
    if (!copy) return OutOfMemoryError();
    *this = DataDictionary(copy);
    return OK;
}

Result<void> DataDictionary::SetData(const DataDictionaryKey& key, const Data& value) {
    QUORV_RETURN_IF_ERROR(MakeWritable());
    return DataDictionaryInterface::SetData(_d, key, value);
}

Int DataDictionary::GetCount() const {
    const DataDictionaryObject* d = GetReadable();
    return d ? DataDictionaryInterface::GetCount(d) : 0;
}

Result<DataDictionaryObjectInterface::Ref> CreateDataDictionaryObject() {
    Result<ObjectRef> object = CreateObjectById(LiteralId(HOST_CLASS_REGISTRY_ID),
                                                LiteralId(DATADICTIONARYOBJECT_CLASS_ID));
    if (object.IsError()) return object.GetError();
    return DataDictionaryObjectInterface::Ref::Cast(object.GetValue());
}

}  // namespace quorv
