// Weak references: the weak block of an object is made on the first weak reference, from the
// system allocator, and installed in the object's header by compare-and-swap (two threads that
// race keep the first block and free the other). Its weak count holds one for the living
// object, which the last strong drop gives back (quorv/weakref.h).
#include <atomic>
#include <new>

#include "host_internal.h"
#include "quorv/weakref.h"

namespace quorv::host {

namespace {

void RemoveWeakReference(WeakBlock* block) {
    if (!block) return;
    if (block->weakCount.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    block->~WeakBlock();
    SystemInterface::Free(block);
}

WeakBlock* AddWeakReference(const void* object) {
    if (!object) return nullptr;
    // The caller holds a strong reference, so the object lives and its block stays installed.
    std::atomic_ref<UInt> reserved(HeaderOf(object)->reserved);
    UInt word = reserved.load(std::memory_order_acquire);
    if (word == 0) {
        void* memory =
            SystemInterface::Alloc(static_cast<Int>(sizeof(WeakBlock)), QUORV_SOURCE_LOCATION);
        if (!memory) return nullptr;
        auto* made = new (memory) WeakBlock();  // weak count 1: the living object's
        made->object = const_cast<void*>(object);
        if (reserved.compare_exchange_strong(word, reinterpret_cast<UInt>(made),
                                             std::memory_order_acq_rel,
                                             std::memory_order_acquire)) {
            word = reinterpret_cast<UInt>(made);
        } else {
            made->~WeakBlock();
            SystemInterface::Free(memory);
        }
    }
    auto* block = reinterpret_cast<WeakBlock*>(word);
    block->weakCount.fetch_add(1, std::memory_order_relaxed);
    return block;
}

const WeakRefServicesInterface::Slots g_slots{
    .AddWeakReference = &AddWeakReference,
    .RemoveWeakReference = &RemoveWeakReference,
};

}  // namespace

void RegisterWeakRefService(Host& host) { host.RegisterService<WeakRefServicesInterface>(g_slots); }

}  // namespace quorv::host
