#pragma once
/// Jobs on the host's job system: counted jobs with a `Result`, queues (null is the default
/// queue), the job of the calling thread, cancellation with observers, and waits that do not
/// starve the worker pool. `ClosureJob` wraps a C++ callable into a job.
///
/// Thread safety: every function may be called from any thread. A job's function runs once,
/// on a worker of its queue or inline in a thread that waits for it before it started.

#include <cfloat>
#include <new>
#include <type_traits>
#include <utility>

#include "quorv/basictypes.h"
#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

/// A host job. Opaque; counted through `AddJobReference` / `RemoveJobReference`.
struct JobObject;
/// A host job queue. Opaque.
struct JobQueueObject;
/// A host condition variable. Opaque.
struct ConditionVariableObject;

/// Scheduling class of a private queue's workers.
enum class JOBQUEUETYPE : Int32 {
    NORMAL = 0,
    LOWESTPRIORITY = 1,  ///< runs when nothing of normal priority waits for a core
};
/// How a queue hands jobs to its workers.
enum class JOBQUEUEMODE : Int32 {
    DEFAULT = 0,
};

/// The work of a job. Its error (or success) becomes the job's result.
using JobFunction = Result<void> (*)(void* user);
/// Frees the user word of a job once the job is gone; may be null.
using JobUserFree = void (*)(void* user);
/// Called when a job is cancelled or has finished, with the job.
using JobObserver = void (*)(void* user, JobObject* job);

/// Id of the error a cancelled job or operation answers with.
inline constexpr const char* OPERATION_CANCELLED_ERROR_ID = "net.quorv.error.operationcancelled";

/// A wait that never times out: the largest finite Float64 (seconds).
inline constexpr Float64 JOB_WAIT_INFINITE = DBL_MAX;

// clang-format off
#define QUORV_THREADSERVICES_METHODS(M) \
    M(JobObject*, AllocJob, (JobFunction function, void* user, JobUserFree freeUser, JobObject* parent, const SourceLocation& loc), (function, user, freeUser, parent, loc)) \
    M(void, AddJobReference, (JobObject* job), (job)) \
    M(void, RemoveJobReference, (JobObject* job), (job)) \
    M(Result<void>, Enqueue, (JobObject* job, JobQueueObject* queue), (job, queue)) \
    M(JobObject*, GetCurrentJob, (), ()) \
    M(Bool, IsCancelled, (const JobObject* job), (job)) \
    M(Bool, IsCurrentJobCancelled, (), ()) \
    M(void, Cancel, (JobObject* job), (job)) \
    M(Bool, Wait, (JobObject* job, Float64 timeoutSeconds), (job, timeoutSeconds)) \
    M(Bool, IsFinished, (const JobObject* job), (job)) \
    M(Result<void>, GetResult, (const JobObject* job), (job)) \
    M(Result<void>, AddCancelledObserver, (JobObject* job, JobObserver observer, void* user), (job, observer, user)) \
    M(Result<void>, AddFinishedObserver, (JobObject* job, JobObserver observer, void* user), (job, observer, user)) \
    M(void, ThreadedExclusiveResource, (Bool enter), (enter)) \
    M(Int, GetExclusiveWaiterCount, (), ()) \
    M(JobQueueObject*, GetCurrentQueue, (), ())
#define QUORV_JOBQUEUE_METHODS(M) \
    M(JobQueueObject*, Alloc, (JOBQUEUETYPE type, Int threadCount, JOBQUEUEMODE mode, const char* name, const SourceLocation& loc), (type, threadCount, mode, name, loc)) \
    M(void, Free, (JobQueueObject* queue), (queue)) \
    M(Int, GetThreadCount, (const JobQueueObject* queue), (queue)) \
    M(void, Cancel, (JobQueueObject* queue), (queue)) \
    M(void, CancelAndWait, (JobQueueObject* queue), (queue))
#define QUORV_CONDITIONVARIABLE_METHODS(M) \
    M(ConditionVariableObject*, Alloc, (const SourceLocation& loc), (loc)) \
    M(void, Free, (ConditionVariableObject* condition), (condition)) \
    M(void, Set, (ConditionVariableObject* condition), (condition)) \
    M(Bool, Wait, (ConditionVariableObject* condition, TimeValue timeout), (condition, timeout)) \
    M(Bool, IsSet, (const ConditionVariableObject* condition), (condition))
// clang-format on

/// The job services.
///
/// * `AllocJob`: a new job with one reference, not queued; null when memory is short. With a
///   `parent`, the job counts as cancelled whenever the parent is (the parent is kept alive by
///   the job). `freeUser(user)` runs when the job is destroyed.
/// * `Enqueue`: hands the job to a queue; a job runs at most once, so a second `Enqueue` is an
///   illegal-state error. The queue holds a reference until the job has ended.
/// * `GetCurrentJob`: the job whose function runs on the calling thread, or null.
/// * `Cancel`: marks the job cancelled and runs its cancelled observers once. A job cancelled
///   before it started does not run and answers the operation-cancelled error.
/// * `Wait`: true once the job has finished, false on timeout. A job that has not started runs
///   inline in the waiting thread; while a started job runs elsewhere, the waiter runs other
///   waiting jobs of that queue, so waits never starve the pool.
/// * `GetResult`: the job's result; the illegal-state error while it has not finished.
/// * Observers run once: cancelled observers on the cancelling thread, finished observers on the
///   thread that ends the job; an observer added after the event runs at once.
/// * `ThreadedExclusiveResource(true/false)`: brackets a wait for a resource held elsewhere
///   (a lazy build in flight); `GetExclusiveWaiterCount` says how many threads are inside.
/// * `GetCurrentQueue`: the private queue of the job that runs on the calling thread, for work
///   the job hands on to run beside it (`Enqueue` of the answer); null for a plain thread, a
///   job of the default queue, or a queue that is being freed. A job that was never queued
///   (run by a waiter) counts as a job of the waiter's queue. It is the last slot: a host that
///   predates it leaves it unbound, which answers null, the default queue.
QUORV_NONVIRTUAL_INTERFACE(ThreadServicesInterface, "net.quorv.interface.threadservices",
                           QUORV_THREADSERVICES_METHODS);

/// Private job queues: `Alloc` makes a queue named `name` with its own `threadCount` workers
/// (at least 1), of low priority for `LOWESTPRIORITY`; null when memory is short.
/// `GetThreadCount` of null answers the worker count of the job system (the default queue);
/// `Cancel` cancels every job queued or running on it, `CancelAndWait` also waits until they
/// and their observers have ended, except a job of the queue that calls it (it never waits
/// for its caller). `Free` cancels and waits, then frees.
QUORV_NONVIRTUAL_INTERFACE(JobQueueInterface, "net.quorv.interface.jobqueue",
                           QUORV_JOBQUEUE_METHODS);

/// Latched condition variables: `Set` frees every waiter, present and future, for good.
/// `Wait` answers true once set, false when `timeout` ran out first (a negative timeout does
/// not wait, an infinite one waits until `Set`). `Free` must not race with a waiter.
QUORV_NONVIRTUAL_INTERFACE(ConditionVariableInterface, "net.quorv.interface.conditionvariable",
                           QUORV_CONDITIONVARIABLE_METHODS);

/// Owning handle of a host condition variable.
class ConditionVariableRef {
public:
    ConditionVariableRef() = default;
    ConditionVariableRef(const ConditionVariableRef&) = delete;
    ConditionVariableRef& operator=(const ConditionVariableRef&) = delete;
    ConditionVariableRef(ConditionVariableRef&& o) noexcept : _c(std::exchange(o._c, nullptr)) {}
    ConditionVariableRef& operator=(ConditionVariableRef&& o) noexcept {
        std::swap(_c, o._c);
        return *this;
    }
    ~ConditionVariableRef() {
        if (_c) ConditionVariableInterface::Free(_c);
    }
    /// A new, unset condition variable; out of memory gives the kind 0 error.
    static Result<ConditionVariableRef> Create() {
        ConditionVariableRef r;
        r._c = ConditionVariableInterface::Alloc(QUORV_SOURCE_LOCATION);
        if (!r._c) return OutOfMemoryError();
        return r;
    }
    void Set() const {
        if (_c) ConditionVariableInterface::Set(_c);
    }
    Bool Wait(TimeValue timeout) const {
        return _c ? ConditionVariableInterface::Wait(_c, timeout) : true;
    }
    Bool IsSet() const { return _c ? ConditionVariableInterface::IsSet(_c) : true; }
    explicit operator bool() const { return _c != nullptr; }

private:
    ConditionVariableObject* _c = nullptr;
};

/// Owning handle of a private job queue.
class JobQueueRef {
public:
    JobQueueRef() = default;
    JobQueueRef(const JobQueueRef&) = delete;
    JobQueueRef& operator=(const JobQueueRef&) = delete;
    JobQueueRef(JobQueueRef&& o) noexcept : _q(std::exchange(o._q, nullptr)) {}
    JobQueueRef& operator=(JobQueueRef&& o) noexcept {
        std::swap(_q, o._q);
        return *this;
    }
    ~JobQueueRef() {
        if (_q) JobQueueInterface::Free(_q);
    }
    static Result<JobQueueRef> Create(JOBQUEUETYPE type, Int threadCount, JOBQUEUEMODE mode,
                                      const char* name) {
        JobQueueRef r;
        r._q = JobQueueInterface::Alloc(type, threadCount, mode, name, QUORV_SOURCE_LOCATION);
        if (!r._q) return OutOfMemoryError();
        return r;
    }
    JobQueueObject* Get() const { return _q; }
    Int GetThreadCount() const { return JobQueueInterface::GetThreadCount(_q); }
    void Cancel() const { JobQueueInterface::Cancel(_q); }
    void CancelAndWait() const { JobQueueInterface::CancelAndWait(_q); }
    explicit operator bool() const { return _q != nullptr; }

private:
    JobQueueObject* _q = nullptr;
};

/// The operation-cancelled error.
Error OperationCancelledError(const SourceLocation& loc);
/// True when `e` is the operation-cancelled error.
bool IsOperationCancelled(const ErrorObject* e);

/// Owning handle of a host job.
class JobRef {
public:
    JobRef() = default;
    JobRef(const JobRef& o) : _j(o._j) {
        if (_j) ThreadServicesInterface::AddJobReference(_j);
    }
    JobRef(JobRef&& o) noexcept : _j(std::exchange(o._j, nullptr)) {}
    JobRef& operator=(JobRef o) noexcept {
        std::swap(_j, o._j);
        return *this;
    }
    ~JobRef() {
        if (_j) ThreadServicesInterface::RemoveJobReference(_j);
    }
    /// Takes over a reference the caller holds.
    static JobRef Adopt(JobObject* j) {
        JobRef r;
        r._j = j;
        return r;
    }
    /// Takes a new reference.
    static JobRef Share(JobObject* j) {
        if (j) ThreadServicesInterface::AddJobReference(j);
        return Adopt(j);
    }
    JobObject* Get() const { return _j; }
    explicit operator bool() const { return _j != nullptr; }

    Result<void> Enqueue(JobQueueObject* queue = nullptr) const {
        return ThreadServicesInterface::Enqueue(_j, queue);
    }
    Bool Wait(Float64 timeout = JOB_WAIT_INFINITE) const {
        return ThreadServicesInterface::Wait(_j, timeout);
    }
    void Cancel() const { ThreadServicesInterface::Cancel(_j); }
    Bool IsCancelled() const { return ThreadServicesInterface::IsCancelled(_j); }
    Result<void> GetResult() const { return ThreadServicesInterface::GetResult(_j); }

private:
    JobObject* _j = nullptr;
};

/// A job that runs a C++ callable returning `Result<void>`. The callable is moved into memory
/// of the system allocator and destroyed with the job.
class ClosureJob {
public:
    /// A new job (one reference, not queued) with `parent` as its parent; out of memory gives
    /// the kind 0 error.
    template <typename F>
    static Result<JobRef> Create(F&& f,
                                 JobObject* parent = ThreadServicesInterface::GetCurrentJob()) {
        using Closure = std::decay_t<F>;
        void* block =
            SystemInterface::Alloc(static_cast<Int>(sizeof(Closure)), QUORV_SOURCE_LOCATION);
        if (!block) return OutOfMemoryError();
        Closure* closure;
        try {
            closure = new (block) Closure(std::forward<F>(f));
        } catch (...) {
            SystemInterface::Free(block);
            return OutOfMemoryError();
        }
        auto run = [](void* user) -> Result<void> { return (*static_cast<Closure*>(user))(); };
        auto destroy = [](void* user) {
            static_cast<Closure*>(user)->~Closure();
            SystemInterface::Free(user);
        };
        JobObject* job =
            ThreadServicesInterface::AllocJob(run, closure, destroy, parent, QUORV_SOURCE_LOCATION);
        if (!job) {
            destroy(closure);
            return OutOfMemoryError();
        }
        return JobRef::Adopt(job);
    }
};

/// Brackets a wait for a resource that another thread is building.
class ScopedExclusiveResourceWait {
public:
    ScopedExclusiveResourceWait() { ThreadServicesInterface::ThreadedExclusiveResource(true); }
    ~ScopedExclusiveResourceWait() { ThreadServicesInterface::ThreadedExclusiveResource(false); }
    ScopedExclusiveResourceWait(const ScopedExclusiveResourceWait&) = delete;
    ScopedExclusiveResourceWait& operator=(const ScopedExclusiveResourceWait&) = delete;
};

}  // namespace quorv
