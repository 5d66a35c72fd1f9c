#pragma once
/// Spin waits. Every spin lock and guard word of a module waits through one small record on
/// the waiter's stack and the step below; `g_CpuYieldDelegate` is the host's hook for tracking
/// and long waits, not the pause itself.

#include <atomic>

#include "quorv/entity.h"

namespace quorv {

/// The wait record, on the waiter's stack.
struct SpinWaitRecord {
    Int32 spinCount = 0;
    Int32 spinStep = 16;
    const void* waitAddress = nullptr;
};

/// The delegate's first argument is a wait record or a small code (1: lock taken, 3: lock
/// released by the code that tracks it).
using CpuYieldDelegate = void (*)(SpinWaitRecord* recordOrCode, const void* waitAddress);

/// Codes passed in place of a record.
inline SpinWaitRecord* const SPIN_CODE_LOCKED = reinterpret_cast<SpinWaitRecord*>(1);
inline SpinWaitRecord* const SPIN_CODE_RELEASED = reinterpret_cast<SpinWaitRecord*>(3);

/// Track waits: the delegate sees the first step of a wait and its end.
extern Bool g_trackCpuYield;
/// Track locks: the spin lock calls the delegate with code 1 once held.
extern Bool g_trackSpinlocks;

/// One wait step, taken each time a waiter finds the word still held.
void SpinWaitStep(SpinWaitRecord& record);
/// Called once the waiter has the word: with tracking on and a wait behind it, the count
/// becomes 0x7fffffff and the delegate is called a last time.
void SpinWaitEnd(SpinWaitRecord& record);

/// A spin lock on the lowest bit of a word.
class SpinLock {
public:
    /// Takes the lock; waits through `SpinWaitStep`.
    void Lock();
    /// True when the lock was free and is now held.
    bool TryLock() {
        return (_word.fetch_or(1, std::memory_order_acquire) & 1) == 0;
    }
    void Unlock() { _word.fetch_and(~UInt(1), std::memory_order_release); }
    bool IsLocked() const { return (_word.load(std::memory_order_relaxed) & 1) != 0; }

private:
    std::atomic<UInt> _word{0};
};

/// Holds a SpinLock for a scope.
class ScopedSpinLock {
public:
    explicit ScopedSpinLock(SpinLock& l) : _l(l) { _l.Lock(); }
    ~ScopedSpinLock() { _l.Unlock(); }
    ScopedSpinLock(const ScopedSpinLock&) = delete;
    ScopedSpinLock& operator=(const ScopedSpinLock&) = delete;

private:
    SpinLock& _l;
};

}  // namespace quorv

extern "C" {
/// The hook of spin waits; starts as a function that does nothing.
extern QUORV_EXPORT quorv::CpuYieldDelegate g_CpuYieldDelegate;
}
