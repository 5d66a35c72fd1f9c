#pragma once
/// Reader-writer locks of the host ("net.quorv.interface.lockservices"): readers run side by
/// side, a writer alone. A lock is a host object in a slot of its own; a thread that takes a
/// lock releases it itself (a read lock is held by the thread that took it, not handed on).
/// Neither form is recursive.

#include <utility>

#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

/// A reader-writer lock of the host (opaque).
struct RWLockSlot;

// clang-format off
#define QUORV_LOCKSERVICES_METHODS(M) \
    M(RWLockSlot*, AllocRWLockSlot, (const SourceLocation& loc), (loc)) \
    M(void, FreeRWLockSlot, (RWLockSlot* slot), (slot)) \
    M(void, ARWReadLock, (RWLockSlot* slot), (slot)) \
    M(void, ARWReadUnlock, (RWLockSlot* slot), (slot)) \
    M(void, ARWWriteLock, (RWLockSlot* slot), (slot)) \
    M(void, ARWWriteUnlock, (RWLockSlot* slot), (slot))
// clang-format on
/// `AllocRWLockSlot`: a new unlocked lock, or null when memory is short. `FreeRWLockSlot`:
/// frees an unlocked lock; accepts null. The lock and unlock calls block as a reader-writer
/// lock does; on any thread.
QUORV_NONVIRTUAL_INTERFACE(LockServicesInterface, "net.quorv.interface.lockservices",
                           QUORV_LOCKSERVICES_METHODS);

/// Owns one lock slot of the host. Empty until `Create`; the lock operations of an empty lock
/// are not allowed.
class RWLock {
public:
    RWLock() = default;
    RWLock(RWLock&& o) noexcept : _slot(std::exchange(o._slot, nullptr)) {}
    RWLock& operator=(RWLock&& o) noexcept {
        std::swap(_slot, o._slot);
        return *this;
    }
    RWLock(const RWLock&) = delete;
    RWLock& operator=(const RWLock&) = delete;
    ~RWLock() { LockServicesInterface::FreeRWLockSlot(_slot); }

    /// A lock with its slot; out of memory is the kind 0 error.
    static Result<RWLock> Create(const SourceLocation& loc) {
        RWLock lock;
        lock._slot = LockServicesInterface::AllocRWLockSlot(loc);
        if (!lock._slot) return OutOfMemoryError();
        return lock;
    }

    bool IsValid() const { return _slot != nullptr; }
    void ReadLock() const { LockServicesInterface::ARWReadLock(_slot); }
    void ReadUnlock() const { LockServicesInterface::ARWReadUnlock(_slot); }
    void WriteLock() const { LockServicesInterface::ARWWriteLock(_slot); }
    void WriteUnlock() const { LockServicesInterface::ARWWriteUnlock(_slot); }

private:
    RWLockSlot* _slot = nullptr;
};

/// Holds the read lock of `lock` for its scope.
class ScopedReadLock {
public:
    explicit ScopedReadLock(const RWLock& lock) : _lock(lock) { _lock.ReadLock(); }
    ~ScopedReadLock() { _lock.ReadUnlock(); }
    ScopedReadLock(const ScopedReadLock&) = delete;
    ScopedReadLock& operator=(const ScopedReadLock&) = delete;

private:
    const RWLock& _lock;
};

/// Holds the write lock of `lock` for its scope, or until `Unlock`.
class ScopedWriteLock {
public:
    explicit ScopedWriteLock(const RWLock& lock) : _lock(&lock) { _lock->WriteLock(); }
    ~ScopedWriteLock() { Unlock(); }
    ScopedWriteLock(const ScopedWriteLock&) = delete;
    ScopedWriteLock& operator=(const ScopedWriteLock&) = delete;
    void Unlock() {
        if (_lock) std::exchange(_lock, nullptr)->WriteUnlock();
    }

private:
    const RWLock* _lock;
};

}  // namespace quorv
