#include "quorv/datadictionary.h"

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

}  // namespace quorv
