#pragma once
/// Data dictionary objects: instances of the host's class "net.quorv.class.datadictionaryobject",
/// a dictionary of typed values whose content is guarded by the object (any thread may read and
/// write one object at once). Module classes that are dictionaries with a few operations of
/// their own (a preview request, a scene object) are composed of this class and a component of
/// their own, see `ComposedClass` in quorv/classes.h.

#include "quorv/classes.h"
#include "quorv/datadictionary.h"

namespace quorv {

/// The host's data dictionary object class, in `HOST_CLASS_REGISTRY_ID`.
inline constexpr const char* DATADICTIONARYOBJECT_CLASS_ID = "net.quorv.class.datadictionaryobject";
/// The registry of classes the host itself defines.
inline constexpr const char* HOST_CLASS_REGISTRY_ID = "net.quorv.registry.hostclasses";

// clang-format off
#define QUORV_DATADICTIONARYOBJECT_METHODS(M) \
    M(Result<void>, SetData, (const DataDictionaryKey& key, const Data& value), (key, value)) \
    M(Result<Data>, GetData, (const DataDictionaryKey& key), (key)) \
    M(Bool, EraseData, (const DataDictionaryKey& key), (key)) \
    M(void, Reset, (), ()) \
    M(Bool, IsEmpty, (), ()) \
    M(Result<DataDictionary>, InitIterator, (), ())
// clang-format on

/// The operations of a data dictionary object.
///
/// * `SetData`: stores a copy of the value (an empty value is an illegal argument); out of
///   memory leaves the content as it was.
/// * `GetData`: a copy of the value under the key, or an empty `Data` when there is none.
/// * `EraseData`: true when the key was there. `Reset` empties the object.
/// * `InitIterator`: the content as it stands, as a dictionary to walk: later changes of the
///   object do not reach it (the object copies on its next write while the snapshot lives).
QUORV_VIRTUAL_INTERFACE(DataDictionaryObjectInterface, "net.quorv.interface.datadictionaryobject",
                        QUORV_DATADICTIONARYOBJECT_METHODS);

/// Typed reads and writes of a data dictionary object.
template <typename T>
T GetObjectValue(const DataDictionaryObjectInterface::Ref& object, const DictionaryKey<T>& key,
                 const T& defaultValue) {
    Result<Data> d = object.GetData(key.GetId());
    if (d.IsError()) return defaultValue;
    const T* v = d.GetValue().template Get<T>();
    return v ? *v : defaultValue;
}

template <typename T>
Result<void> SetObjectValue(const DataDictionaryObjectInterface::Ref& object,
                            const DictionaryKey<T>& key, const T& value) {
    Data d = Data::Of(value);
    if (d.IsEmpty()) return OutOfMemoryError();
    return object.SetData(key.GetId(), d);
}

/// A new instance of the host's data dictionary object class.
Result<DataDictionaryObjectInterface::Ref> CreateDataDictionaryObject();

}  // namespace quorv
