#pragma once
// The records of a concrete scene object class: the base class's components, then an empty
// component of its own, which fills no method: the tables copied from the base stand.
#include "render/sceneobjects/sceneobject.h"

namespace quorv {

/// The interface record the base unit publishes; concrete units depend on it, so that the base
/// class is registered before the classes composed of it.
extern InterfaceRecord g_sceneObjectInterfaceRecord;

class SceneObjectClass {
public:
    SceneObjectClass(TranslationUnitRecord& unit, const char* id, const char* sourceName) {
        _components[0] = &_component;
        DefineSimpleClass(_component, _class, _components, LiteralId(id),
                          LiteralId(SCENEOBJECT_CLASS_REGISTRY_ID), unit, sourceName);
        FillComponentState<Empty>(_component);
        _component.fillMTable = [](ClassObject*, const ComponentInfo*) { return true; };
        _component.interface = &SceneObjectInterface::Record();
        _class.create = &CreateComposedClassFromRecord;
        _class.bases[0] = {SCENEOBJECT_CLASS_REGISTRY_ID, sceneobjectclass::BASE};
        _class.baseCount = 1;
    }
    SceneObjectClass(const SceneObjectClass&) = delete;
    SceneObjectClass& operator=(const SceneObjectClass&) = delete;

private:
    struct Empty {
        char unused = 0;
    };
    ComponentRecord _component;
    ComposedClassRecord _class;
    const ComponentRecord* _components[1] = {nullptr};
};

}  // namespace quorv
