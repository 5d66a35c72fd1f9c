#include "quorv/weakref.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(WeakRefServicesInterface)

void* LockWeakBlock(WeakBlock* block) {
    if (!block) return nullptr;
    ScopedSpinLock lock(block->lock);
    void* object = block->object;
    if (!object) return nullptr;
    // Only an object that still has a reference gets another: one whose last reference is
    // being dropped stays dropped (its drop clears `object` under this lock next).
    std::atomic<UInt>& count = HeaderOf(object)->count;
    UInt c = count.load(std::memory_order_acquire);
    do {
        if (c < REFERENCE_STEP) return nullptr;
    } while (!count.compare_exchange_weak(c, c + REFERENCE_STEP, std::memory_order_acq_rel,
                                          std::memory_order_acquire));
    return object;
}

void ClearWeakBlock(void* object) {
    auto* block = reinterpret_cast<WeakBlock*>(HeaderOf(object)->reserved);
    {
        ScopedSpinLock lock(block->lock);
        block->object = nullptr;
    }
    HeaderOf(object)->reserved = 0;
    WeakRefServicesInterface::RemoveWeakReference(block);
}

}  // namespace quorv
