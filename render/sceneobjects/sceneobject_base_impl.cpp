// "net.quorv.render.sceneobject.base": a data dictionary object and a data description object
// with a change stamp. SetData is overridden to count successful writes; GetData is overridden
// and only passes the call on.
#include "render/sceneobjects/sceneobject_impl.h"

namespace quorv {

InterfaceRecord g_sceneObjectInterfaceRecord;

namespace {

struct SceneObjectBaseImpl {
    Int GetTimeStamp() const { return timeStamp.load(std::memory_order_acquire); }

    SceneObjectBaseImpl() = default;
    // A copied object starts with the source's stamp.
    SceneObjectBaseImpl& operator=(const SceneObjectBaseImpl& o) {
        timeStamp.store(o.timeStamp.load());
        return *this;
    }
    std::atomic<Int> timeStamp{0};
};

Result<void> SetData(void* instance, const ComponentInfo* info, const DataDictionaryKey& key,
                     const Data& value) {
    MethodEntry super;
    Result<void> r = CallSuper<Result<void>(const DataDictionaryKey&, const Data&)>(
        instance, info, DataDictionaryObjectInterface::Record(),
        DataDictionaryObjectInterface::IDX_SetData, super)(key, value);
    if (r.IsOk())
        classes_detail::StateOf<SceneObjectBaseImpl>(instance, info)->timeStamp.fetch_add(1);
    return r;
}

Result<Data> GetData(void* instance, const ComponentInfo* info, const DataDictionaryKey& key) {
    MethodEntry super;
    return CallSuper<Result<Data>(const DataDictionaryKey&)>(
        instance, info, DataDictionaryObjectInterface::Record(),
        DataDictionaryObjectInterface::IDX_GetData, super)(key);
}

// EraseData and Reset stay the host's: they don't move the stamp.
bool FillOverrides(ClassObject* cls, const ComponentInfo* info) {
    MethodEntry* table =
        ClassInterface::GetOrCreateMTable(cls, &DataDictionaryObjectInterface::Record());
    if (!table) return false;
    table[DataDictionaryObjectInterface::IDX_SetData] =
        MethodEntry{reinterpret_cast<void*>(&SetData), info};
    table[DataDictionaryObjectInterface::IDX_GetData] =
        MethodEntry{reinterpret_cast<void*>(&GetData), info};
    return true;
}

ModuleUnit g_unit(__FILE__);
const bool g_published =
    (PublishVirtualInterface<SceneObjectInterface>(g_sceneObjectInterfaceRecord, g_unit), true);
ComposedClass<SceneObjectBaseImpl, SceneObjectInterface> g_class(
    g_unit, sceneobjectclass::BASE, SCENEOBJECT_CLASS_REGISTRY_ID,
    {{HOST_CLASS_REGISTRY_ID, DATADICTIONARYOBJECT_CLASS_ID},
     {HOST_CLASS_REGISTRY_ID, DATADESCRIPTIONOBJECT_CLASS_ID}},
    __FILE__, &FillOverrides);

}  // namespace

}  // namespace quorv
