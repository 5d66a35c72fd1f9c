#pragma once
/// A standard-library allocator on the host's memory service, so that containers of a module
/// take their memory where the host counts (and can fail) it. A refused allocation throws
/// std::bad_alloc, which the module turns into its out-of-memory error at the container call.

#include <cstddef>
#include <new>

#include "quorv/services.h"

namespace quorv {

template <typename T>
struct SystemAllocator {
    using value_type = T;
    SystemAllocator() = default;
    template <typename U>
    SystemAllocator(const SystemAllocator<U>&) {}
    T* allocate(std::size_t n) {
        void* p = SystemInterface::Alloc(static_cast<Int>(n * sizeof(T)), QUORV_SOURCE_LOCATION);
        if (!p) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, std::size_t) { SystemInterface::Free(p); }
    template <typename U>
    bool operator==(const SystemAllocator<U>&) const {
        return true;
    }
};

}  // namespace quorv
