// Reader-writer locks on std::shared_mutex, each in a block of the system allocator (so a lock
// that cannot be made is an out-of-memory answer the caller sees, like any other allocation).
#include <new>
#include <shared_mutex>

#include "host_internal.h"
#include "quorv/rwlock.h"

namespace quorv {

struct RWLockSlot {
    std::shared_mutex mutex;
};

}  // namespace quorv

namespace quorv::host {

namespace {

RWLockSlot* AllocRWLockSlot(const SourceLocation& loc) {
    void* block = SystemInterface::Alloc(static_cast<Int>(sizeof(RWLockSlot)), loc);
    return block ? new (block) RWLockSlot() : nullptr;
}

void FreeRWLockSlot(RWLockSlot* slot) {
    if (!slot) return;
    slot->~RWLockSlot();
    SystemInterface::Free(slot);
}

void ReadLock(RWLockSlot* slot) { slot->mutex.lock_shared(); }
void ReadUnlock(RWLockSlot* slot) { slot->mutex.unlock_shared(); }
void WriteLock(RWLockSlot* slot) { slot->mutex.lock(); }
void WriteUnlock(RWLockSlot* slot) { slot->mutex.unlock(); }

const LockServicesInterface::Slots g_slots{
    .AllocRWLockSlot = &AllocRWLockSlot,
    .FreeRWLockSlot = &FreeRWLockSlot,
    .ARWReadLock = &ReadLock,
    .ARWReadUnlock = &ReadUnlock,
    .ARWWriteLock = &WriteLock,
    .ARWWriteUnlock = &WriteUnlock,
};

}  // namespace

void RegisterLockService(Host& host) { host.RegisterService<LockServicesInterface>(g_slots); }

}  // namespace quorv::host
