#pragma once
/// `LazyInitThreaded`: a value made once, by a job, on first use. The first caller moves the
/// state from UNINITIALIZED to PENDING, runs the work as a job (its parent the caller's job, on
/// the caller's queue: `ThreadServicesInterface::GetCurrentQueue`, the default queue for a
/// plain thread) and waits for it without a time limit, a wait that runs the job itself if no
/// thread has started it yet and otherwise lends the thread to other jobs of that queue.
/// Callers that come while it is PENDING wait for the same job.
/// Success makes the state INITIALIZED and drops the job; a failure makes it FAILED and keeps
/// the finished job, so every later caller gets the same error at once, inside
/// `ThreadedExclusiveResource` marks, and the work is never tried again. `Reset` goes back to
/// UNINITIALIZED (dropping a finished job); `CancelAndReset` first cancels a pending job, then
/// waits for it and resets.
///
/// When the caller is itself a job, its cancellation cancels the work (the work's job is a
/// child of the caller's). A cancelled run is no failure of the work: it leaves the state
/// UNINITIALIZED, so the next caller runs the work again.
///
/// Thread safety: any thread. No lock is held while the work runs or is waited for (see
/// `OnceGuard`, which holds the state): one of the jobs that a waiting thread runs meanwhile may
/// ask for the same value on that thread, and it then waits for the job too instead of for a
/// lock its own thread holds.

#include "quorv/onceguard.h"

namespace quorv {

class LazyInitThreaded {
public:
    enum class STATE { UNINITIALIZED, PENDING, INITIALIZED, FAILED };

    LazyInitThreaded() = default;
    LazyInitThreaded(const LazyInitThreaded&) = delete;
    LazyInitThreaded& operator=(const LazyInitThreaded&) = delete;

    /// Makes the value with `work()` (a callable returning `Result<void>`) unless that happened
    /// already; the result of the one run, or the kept failure. `work` is called on some thread
    /// while this call waits, so it may refer to the caller's locals.
    template <typename F>
    Result<void> Run(F&& work) {
        // The common call, once the value exists: one load.
        if (_guard.IsDone()) return OK;
        return _guard.Run(work, OnceGuard::FAILURE::KEEP_ERROR);
    }

    STATE GetState() const {
        switch (_guard.GetState()) {
            case OnceGuard::DONE:
                return STATE::INITIALIZED;
            case OnceGuard::FAILED:
            case OnceGuard::FAILED | OnceGuard::READER:
                return STATE::FAILED;
            case OnceGuard::FREE:
                return STATE::UNINITIALIZED;
            default:
                return STATE::PENDING;
        }
    }

    /// Back to UNINITIALIZED, dropping a finished job. A pending run is waited for first.
    void Reset() { ResetAfter(false); }

    /// Cancels a pending run, waits for it, then resets.
    void CancelAndReset() { ResetAfter(true); }

private:
    void ResetAfter(bool cancel) {
        _guard.WaitForBuild(OnceGuard::FAILURE::KEEP_ERROR, cancel);
        if (!_guard.ResetFailed() && _guard.ClaimDone()) _guard.Release();
    }

    OnceGuard _guard;
};

}  // namespace quorv
