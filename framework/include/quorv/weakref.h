#pragma once
/// Weak references to counted objects (quorv/ref.h). The host attaches one weak block to an
/// object on the first `AddWeakReference`; the block outlives the object as long as weak
/// references hold it. Upgrading takes the block's lock and adds a reference only while the
/// object still has one, so an object whose last reference is being dropped is never revived;
/// the drop clears the block under the same lock before the object is destroyed.
///
/// The block's layout is shared by every binary of the process; the host allocates it.

#include <atomic>

#include "quorv/ref.h"
#include "quorv/services.h"
#include "quorv/spinwait.h"

namespace quorv {

/// The weak block of an object; its address is kept in the object's header (`reserved`).
struct WeakBlock {
    std::atomic<Int> weakCount{1};  ///< weak references, plus one held by a living object
    SpinLock lock;
    void* object = nullptr;  ///< null once the object is being destroyed
};

// clang-format off
#define QUORV_WEAKREFSERVICES_METHODS(M) \
    M(WeakBlock*, AddWeakReference, (const void* object), (object)) \
    M(void, RemoveWeakReference, (WeakBlock* block), (block))
// clang-format on
/// `AddWeakReference`: the object's weak block with one more weak reference (made on first
/// use); null for a null object or when memory is short. `RemoveWeakReference` drops one and
/// frees the block after the last.
QUORV_NONVIRTUAL_INTERFACE(WeakRefServicesInterface, "net.quorv.interface.weakrefservices",
                           QUORV_WEAKREFSERVICES_METHODS);

/// A strong reference from a weak block, or null when its object is gone or going.
void* LockWeakBlock(WeakBlock* block);

/// A weak reference to a counted T.
template <typename T>
class WeakRef {
public:
    WeakRef() = default;
    /// Null when `object` is null or memory is short (`IsValid` tells the two apart from a
    /// lost object only by the caller's knowledge of `object`).
    explicit WeakRef(const Ref<T>& object)
        : _block(object ? WeakRefServicesInterface::AddWeakReference(object.Get()) : nullptr) {}
    WeakRef(const WeakRef& o) : _block(o._block) {
        if (_block) _block->weakCount.fetch_add(1, std::memory_order_relaxed);
    }
    WeakRef(WeakRef&& o) noexcept : _block(std::exchange(o._block, nullptr)) {}
    WeakRef& operator=(WeakRef o) noexcept {
        std::swap(_block, o._block);
        return *this;
    }
    ~WeakRef() {
        if (_block) WeakRefServicesInterface::RemoveWeakReference(_block);
    }
    /// A strong reference, or null when the object is gone.
    Ref<T> Lock() const {
        return _block ? Ref<T>::Adopt(static_cast<T*>(LockWeakBlock(_block))) : Ref<T>();
    }
    bool IsValid() const { return _block != nullptr; }

private:
    WeakBlock* _block = nullptr;
};

}  // namespace quorv
