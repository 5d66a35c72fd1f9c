#pragma once
// The records of an intersector class: one component that implements the intersection
// interface and the batched one derived from it, registered in the intersector registry.
#include "render/frame/intersection.h"

namespace quorv::intersect {

template <typename IMPL>
class IntersectorClass {
public:
    IntersectorClass(TranslationUnitRecord& unit, const char* id, const char* sourceName) {
        _components[0] = &_component;
        DefineSimpleClass(_component, _class, _components, LiteralId(id),
                          LiteralId(INTERSECTION_CLASS_REGISTRY_ID), unit, sourceName);
        static_assert(alignof(IMPL) <= 16);
        _component.construct = [](void* s) { new (s) IMPL(); };
        _component.destruct = [](void* s) { static_cast<IMPL*>(s)->~IMPL(); };
        _component.kind = 1;
        _component.stateSize = sizeof(IMPL);
        _component.alignment = 8;
        _component.interface = &BatchedIntersectionInterface::Record();
        _component.mtableSize = BatchedIntersectionInterface::COUNT * 2 * sizeof(void*);
        _component.fillMTable = &Fill;
        // An intersector owns its acceleration structures (and device handles): no copies.
        _component.copy = [](void*, const void*) -> Result<void> {
            return MakeError(ERRORKIND::FUNCTIONNOTIMPLEMENTED, QUORV_SOURCE_LOCATION,
                             "Intersectors cannot be copied");
        };
    }
    IntersectorClass(const IntersectorClass&) = delete;
    IntersectorClass& operator=(const IntersectorClass&) = delete;

private:
    static bool Fill(ClassObject* cls, const ComponentInfo* info) {
        return IntersectionInterface::template FillMTable<IMPL>(cls, info) &&
               BatchedIntersectionInterface::template FillMTable<IMPL>(cls, info);
    }

    ComponentRecord _component;
    ClassRecord _class;
    const ComponentRecord* _components[1] = {nullptr};
};

}  // namespace quorv::intersect
