// The host's class "net.quorv.class.datadictionaryobject": a copy-on-write dictionary behind a
// mutex. Reads copy a value (or the dictionary, which only adds a reference) under the lock, so
// a value never changes under a reader; a write while a snapshot is out copies the dictionary.
#include <mutex>

#include "quorv/datadictionaryobject.h"

namespace quorv::host {

namespace {

struct DataDictionaryObjectImpl {
    DataDictionaryObjectImpl() = default;
    // Copying an object (a class copy of an instance) takes a snapshot of the source.
    DataDictionaryObjectImpl& operator=(const DataDictionaryObjectImpl& o) {
        if (this == &o) return *this;
        DataDictionary snapshot;
        {
            std::lock_guard<std::mutex> lock(o.mutex);
            snapshot = o.content;
        }
        std::lock_guard<std::mutex> lock(mutex);
        std::swap(content, snapshot);
        return *this;  // the old content goes with `snapshot`, outside the lock
    }

    Result<void> SetData(const DataDictionaryKey& key, const Data& value) {
        if (value.IsEmpty()) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "An empty value cannot be stored in a data dictionary object");
        }
        std::lock_guard<std::mutex> lock(mutex);
        return content.SetData(key, value);
    }

    Result<Data> GetData(const DataDictionaryKey& key) const {
        std::lock_guard<std::mutex> lock(mutex);
        return content.GetData(key);
    }

    Bool EraseData(const DataDictionaryKey& key) {
        std::lock_guard<std::mutex> lock(mutex);
        if (content.GetData(key).IsEmpty()) return false;
        if (content.MakeWritable().IsError()) return false;
        return DataDictionaryInterface::EraseData(
            const_cast<DataDictionaryObject*>(content.GetObject()), key);
    }

    void Reset() {
        DataDictionary old;
        std::lock_guard<std::mutex> lock(mutex);
        std::swap(old, content);
    }

    Bool IsEmpty() const {
        std::lock_guard<std::mutex> lock(mutex);
        return content.GetCount() == 0;
    }

    Result<DataDictionary> InitIterator() const {
        std::lock_guard<std::mutex> lock(mutex);
        return content;
    }

    mutable std::mutex mutex;
    DataDictionary content;
};

RegistryRecord g_hostClasses;
ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
const bool g_registry =
    (DefineRegistry(g_hostClasses, LiteralId(HOST_CLASS_REGISTRY_ID), g_unit, __FILE__, 0), true);
SimpleClass<DataDictionaryObjectImpl, DataDictionaryObjectInterface> g_class(
    g_unit, DATADICTIONARYOBJECT_CLASS_ID, HOST_CLASS_REGISTRY_ID, __FILE__);

}  // namespace

}  // namespace quorv::host
