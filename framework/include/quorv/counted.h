#pragma once
/// Counted C++ objects of a module: memory of the system allocator with the header of
/// quorv/ref.h ahead of the object, freed by the object's own destructor when the last
/// reference is dropped (on whichever thread drops it). Polymorphic types destroy through
/// their virtual destructor.

#include <new>
#include <utility>

#include "quorv/ref.h"
#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

/// Destructs and frees an object made by `NewCounted`.
template <typename T>
void DestroyCounted(void* object) noexcept {
    ObjectHeader* header = HeaderOf(object);
    static_cast<T*>(object)->~T();
    header->~ObjectHeader();
    SystemInterface::Free(header);
}

/// A new T with one reference; out of memory (or a constructor that throws it) gives the
/// kind 0 error.
template <typename T, typename... A>
Result<Ref<T>> NewCounted(A&&... args) noexcept {
    static_assert(alignof(T) <= 16, "the header keeps objects 16-aligned, no more");
    void* block = SystemInterface::Alloc(static_cast<Int>(sizeof(ObjectHeader) + sizeof(T)),
                                         QUORV_SOURCE_LOCATION);
    if (!block) return OutOfMemoryError();
    auto* header = new (block) ObjectHeader{nullptr, &DestroyCounted<T>, 0, 0};
    T* object;
    try {
        object = new (header + 1) T(std::forward<A>(args)...);
    } catch (...) {
        header->~ObjectHeader();
        SystemInterface::Free(block);
        return OutOfMemoryError();
    }
    return Ref<T>(object);
}

}  // namespace quorv
