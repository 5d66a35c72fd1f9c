#pragma once
/// `LazyInitThreaded`: a value made once, by a job, on first use. The first caller moves the
/// state from UNINITIALIZED to PENDING, runs the work as a closure job on the default queue and
/// waits for it without a time limit (a wait that lends the thread to the pool). Success makes
/// the state INITIALIZED and drops the job; a failure makes it FAILED and keeps the finished job,
/// so every later caller gets the same error at once, inside `ThreadedExclusiveResource` marks,
/// and the work is never tried again. `Reset` goes back to UNINITIALIZED (dropping a finished
/// job); `CancelAndReset` first cancels a pending job, then waits for it and resets.
///
/// When the caller is itself a job, its cancellation cancels the work (the work's job is a
/// child of the caller's). A cancelled run is no failure of the work: it leaves the state
/// UNINITIALIZED, so the next caller runs the work again.
///
/// Thread safety: every operation takes the object's own lock; `Run` holds it while the work
/// runs, so callers of one object queue up behind the first.

#include <atomic>
#include <mutex>

#include "quorv/jobs.h"

namespace quorv {

class LazyInitThreaded {
public:
    enum class STATE { UNINITIALIZED, PENDING, INITIALIZED, FAILED };

    LazyInitThreaded() = default;
    LazyInitThreaded(const LazyInitThreaded&) = delete;
    LazyInitThreaded& operator=(const LazyInitThreaded&) = delete;

    /// Makes the value with `work()` (a callable returning `Result<void>`) unless that happened
    /// already; the result of the one run, or the kept failure.
    template <typename F>
    Result<void> Run(F&& work) {
        // The common call, once the value exists: one load, no lock.
        if (_initialized.load(std::memory_order_acquire)) return OK;
        std::lock_guard<std::mutex> lock(_mutex);
        if (_state == STATE::INITIALIZED) return OK;
        if (_state == STATE::FAILED) {
            // The failure is kept with its job: report it again without running anything.
            ThreadServicesInterface::ThreadedExclusiveResource(true);
            JobRef job = _job;
            job.Wait();
            Result<void> r = job.GetResult();
            ThreadServicesInterface::ThreadedExclusiveResource(false);
            return r.IsError() ? r : Result<void>(MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                                                            "The lazy initialisation failed"));
        }
        Result<JobRef> made = ClosureJob::Create(std::forward<F>(work));
        if (made.IsError()) return made.GetError();
        _job = made.GetValue();
        _state = STATE::PENDING;
        {
            std::lock_guard<std::mutex> pending(_pendingMutex);
            _pending = _job;
        }
        Result<void> queued = _job.Enqueue(nullptr);
        if (queued.IsOk()) _job.Wait();
        Result<void> r = queued.IsError() ? queued : _job.GetResult();
        {
            std::lock_guard<std::mutex> pending(_pendingMutex);
            _pending = JobRef();
        }
        if (r.IsOk()) {
            _state = STATE::INITIALIZED;
            _job = JobRef();
            _initialized.store(true, std::memory_order_release);
        } else if (queued.IsError() || IsOperationCancelled(r.GetErrorPointer()) ||
                   ThreadServicesInterface::IsCancelled(_job.Get())) {
            // Nothing ran, or the run was called off: the next call tries again.
            _state = STATE::UNINITIALIZED;
            _job = JobRef();
        } else {
            _state = STATE::FAILED;
        }
        return r;
    }

    STATE GetState() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _state;
    }

    /// Back to UNINITIALIZED, dropping a finished job. A pending run is waited for first.
    void Reset() {
        std::lock_guard<std::mutex> lock(_mutex);
        _initialized.store(false, std::memory_order_release);
        _state = STATE::UNINITIALIZED;
        _job = JobRef();
    }

    /// Cancels a pending run, waits for it, then resets.
    void CancelAndReset() {
        {
            std::lock_guard<std::mutex> pending(_pendingMutex);
            if (_pending) ThreadServicesInterface::Cancel(_pending.Get());
        }
        Reset();
    }

private:
    std::atomic<bool> _initialized{false};  ///< INITIALIZED, readable without the lock
    mutable std::mutex _mutex;
    std::mutex _pendingMutex;  ///< guards `_pending` apart, so a canceller needn't wait for `_mutex`
    JobRef _pending;
    STATE _state = STATE::UNINITIALIZED;
    JobRef _job;
};

}  // namespace quorv
