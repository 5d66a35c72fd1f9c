// The host's class "net.quorv.class.datadictionaryobject": a copy-on-write dictionary behind a
// mutex. Reads copy a value (or the dictionary, which only adds a reference) under the lock, so
// a value never changes under a reader; a write while a snapshot is out copies the dictionary. A
// value of another type than its key was declared with is refused.
#include <mutex>

#include "host_internal.h"
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
        // A key declared with a value type holds only values of that type: its readers take
        // anything else for absent.
        QUORV_RETURN_IF_ERROR(CheckDeclaredKeyType(key, value.GetType()));
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

}  // namespace

// Made when the host binds its own binary, before that binary's definitions run: a binary
// that links module sources (a white-box test) defines classes composed of this one, and
// their definitions must find it whatever order they run in.
void RegisterHostClasses() {
    static ComponentRecord component;
    static bool done = false;
    if (done) return;
    done = true;
    CreateRegistry(LiteralId(HOST_CLASS_REGISTRY_ID));
    FillComponentRecord<DataDictionaryObjectImpl, DataDictionaryObjectInterface>(component);
    component.type = static_cast<UInt32>(EntityBase::TYPE::COMPONENT);
    component.id = LiteralId(DATADICTIONARYOBJECT_CLASS_ID);
    ClassObject* cls = ClassInterface::Alloc(component.id, 1, QUORV_SOURCE_LOCATION);
    if (!cls) {
        HostCriticalOutput(
            "The host's data dictionary object class could not be made: out of memory");
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
        HostCriticalOutput("The host's data dictionary object class could not be made: " +
                           ErrorToString(made.GetErrorPointer()));
    }
}

}  // namespace quorv::host
