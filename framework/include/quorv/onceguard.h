#pragma once
/// The once-only guard word: one pointer-sized atomic value that makes a lazy build run once,
/// as a job, while every other thread that needs it waits for that same job.
///
/// The low four bits hold the state, the bits above the job (jobs are 16-aligned):
/// 0 free, 1 done with failure (the failed job stays attached so that later callers get its
/// error), 2 claimed while the job is being made, 3 job running, 8 done; bit 2 (value 4) marks
/// a reader that is taking a reference to the running job, which the owner waits out before it
/// detaches the job.
///
/// No lock is held while a build runs or is waited for: a waiter lends its thread to other
/// jobs of the build's queue, and one of those may need the same guard on the same thread.
/// Whoever first sees the build's end (its owner or any waiter) moves the word on.
///
/// Thread safety: any number of threads may call `Run` at once; exactly one of them makes the
/// job. The word uses acquire and release ordering; the done state is the only thing the
/// common path reads.

#include <atomic>

#include "quorv/jobs.h"
#include "quorv/spinwait.h"

namespace quorv {

class OnceGuard {
public:
    enum : UInt {
        FREE = 0,
        FAILED = 1,
        CLAIMED = 2,
        RUNNING = 3,
        READER = 4,
        DONE = 8,
        STATE_MASK = 15,
    };

    /// What a failed build leaves behind.
    enum class FAILURE {
        /// The guard keeps the failed job (state 1): later callers get its error until `Reset`.
        KEEP_ERROR,
        /// The guard is done (state 8) whatever the result; the builder records the failure
        /// in its own state.
        MARK_DONE,
    };

    /// Runs `build(user)` once as a job whose parent is the caller's current job, on the
    /// caller's queue (`ThreadServicesInterface::GetCurrentQueue`), and waits for it.
    /// Answers OK once done; the kept error after a failure (KEEP_ERROR); the
    /// operation-cancelled error when the build was cancelled, in which case the guard is free
    /// again and a later call retries; the out-of-memory error when no job could be made.
    Result<void> Run(JobFunction build, void* user, FAILURE failure);

    /// As `Run` with a callable `Result<void>()`.
    template <typename F>
    Result<void> Run(F&& build, FAILURE failure) {
        auto call = [](void* user) -> Result<void> {
            return (*static_cast<std::remove_reference_t<F>*>(user))();
        };
        return Run(call, const_cast<void*>(static_cast<const void*>(&build)), failure);
    }

    /// True once a build has succeeded (or, with MARK_DONE, ended).
    bool IsDone() const { return _word.load(std::memory_order_acquire) == DONE; }
    /// The state bits, for tests and walks.
    UInt GetState() const { return _word.load(std::memory_order_acquire) & STATE_MASK; }

    /// Returns once no build is in flight; with `cancel`, cancels a running build first (which
    /// then leaves the guard free, unless it ended anyway). `failure` as the builders' `Run`.
    void WaitForBuild(FAILURE failure, bool cancel);

    /// Moves a failed guard (state 1) back to free, dropping the failed job. True when it did.
    bool ResetFailed();
    /// Moves a done guard (state 8) to claimed, for a caller that then clears what the build
    /// made and calls `Release`. True when it did.
    bool ClaimDone();
    /// Sets a guard the caller has claimed (with `ClaimDone`) back to free.
    void Release() { _word.store(FREE, std::memory_order_release); }

    OnceGuard() = default;
    ~OnceGuard();
    OnceGuard(const OnceGuard&) = delete;
    OnceGuard& operator=(const OnceGuard&) = delete;

private:
    Result<void> RunAsOwner(JobFunction build, void* user, FAILURE failure);
    /// Moves the word from `running` to what the build's result `r` makes it, unless that
    /// happened already.
    void Settle(UInt running, const Result<void>& r, FAILURE failure);

    std::atomic<UInt> _word{FREE};
};

}  // namespace quorv
