// Jobs and job queues on oneTBB. Each queue is a task arena plus a queue of pending jobs: an
// arena task pops one pending job and runs it. A thread that waits for a job that has not
// started claims it and runs it inline; while the job it waits for runs elsewhere, it pops and
// runs other pending jobs of that queue, so a waiting worker keeps working instead of starving
// the pool (and a chain of waits cannot deadlock on a pool that is all waiters).
#include <tbb/concurrent_queue.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_set>
#include <vector>

#include "host_internal.h"
#include "quorv/jobs.h"

namespace quorv {

// ENQUEUING is held while `Enqueue` attaches the job to its queue; nobody claims it then.
enum class JOBSTATE : int { NEW = 0, QUEUED = 1, RUNNING = 2, FINISHED = 3, ENQUEUING = 4 };

struct alignas(16) JobObject {
    std::atomic<Int> references{1};
    JobFunction function = nullptr;
    void* user = nullptr;
    JobUserFree freeUser = nullptr;
    JobObject* parent = nullptr;
    std::atomic<JobQueueObject*> queue{nullptr};
    std::atomic<JOBSTATE> state{JOBSTATE::NEW};
    std::atomic<bool> cancelled{false};
    std::mutex mutex;
    std::condition_variable finished;
    Result<void> result = OK;  // written before the state becomes FINISHED
    std::vector<std::pair<JobObserver, void*>> cancelledObservers;
    std::vector<std::pair<JobObserver, void*>> finishedObservers;
};

struct JobQueueObject {
    // The arena asks for no more workers than the machine grants (one fewer than its cores),
    // so that oneTBB does not warn about ignored requests; the queue still reports the count
    // it was made with.
    explicit JobQueueObject(int threads)
        : arena(std::clamp(threads, 1,
                           std::max(1, static_cast<int>(std::thread::hardware_concurrency()) - 1)),
                0),
          threadCount(threads) {}
    tbb::task_arena arena;
    Int threadCount;
    std::atomic<Int> arenaTasks{0};  // enqueued arena tasks that have not returned
    tbb::concurrent_queue<JobObject*> pending;
    std::mutex mutex;
    std::condition_variable idle;
    std::unordered_set<JobObject*> live;  // queued or running, each holding a reference
};

}  // namespace quorv

namespace quorv::host {

namespace {

thread_local JobObject* t_currentJob = nullptr;
std::atomic<Int> g_exclusiveWaiters{0};

void DrainDefaultQueueAtExit();

JobQueueObject& DefaultQueue() {
    // Lives to the end of the process: jobs may still end while statics are destroyed.
    static JobQueueObject* queue = [] {
        int threads = std::max(1, static_cast<int>(tbb::this_task_arena::max_concurrency()));
        auto* q = new JobQueueObject(threads);
        std::atexit(&DrainDefaultQueueAtExit);
        return q;
    }();
    return *queue;
}

void AddJobReference(JobObject* job) {
    if (job) job->references.fetch_add(1, std::memory_order_relaxed);
}

void RemoveJobReference(JobObject* job) {
    while (job) {
        if (job->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
        JobObject* parent = job->parent;
        if (job->freeUser) job->freeUser(job->user);
        delete job;
        job = parent;
    }
}

JobObject* AllocJob(JobFunction function, void* user, JobUserFree freeUser, JobObject* parent,
                    const SourceLocation&) {
    if (!function) return nullptr;
    JobObject* job = new (std::nothrow) JobObject();
    if (!job) return nullptr;
    job->function = function;
    job->user = user;
    job->freeUser = freeUser;
    job->parent = parent;
    AddJobReference(parent);
    return job;
}

Bool IsCancelled(const JobObject* job) {
    for (; job; job = job->parent) {
        if (job->cancelled.load(std::memory_order_acquire)) return true;
    }
    return false;
}

JobObject* GetCurrentJob() { return t_currentJob; }

Bool IsCurrentJobCancelled() { return IsCancelled(t_currentJob); }

void RunObservers(const std::vector<std::pair<JobObserver, void*>>& observers, JobObject* job) {
    for (const auto& [observer, user] : observers) observer(user, job);
}

void Cancel(JobObject* job) {
    if (!job || job->cancelled.exchange(true, std::memory_order_acq_rel)) return;
    std::vector<std::pair<JobObserver, void*>> observers;
    {
        std::lock_guard<std::mutex> lock(job->mutex);
        observers.swap(job->cancelledObservers);
    }
    RunObservers(observers, job);
}

void Finish(JobObject* job, Result<void> result) {
    std::vector<std::pair<JobObserver, void*>> observers;
    {
        std::lock_guard<std::mutex> lock(job->mutex);
        job->result = std::move(result);
        job->state.store(JOBSTATE::FINISHED, std::memory_order_release);
        observers.swap(job->finishedObservers);
    }
    job->finished.notify_all();
    RunObservers(observers, job);
    if (JobQueueObject* queue = job->queue.load(std::memory_order_acquire)) {
        bool empty;
        {
            std::lock_guard<std::mutex> lock(queue->mutex);
            queue->live.erase(job);
            empty = queue->live.empty();
        }
        if (empty) queue->idle.notify_all();
        RemoveJobReference(job);  // the queue's
    }
}

// Claims a job that has not started and runs it on this thread. False when another thread
// has claimed it already.
bool TryRun(JobObject* job) {
    JOBSTATE s = job->state.load(std::memory_order_acquire);
    do {
        if (s != JOBSTATE::NEW && s != JOBSTATE::QUEUED) return false;
    } while (!job->state.compare_exchange_weak(s, JOBSTATE::RUNNING, std::memory_order_acq_rel));
    Result<void> result = OK;
    if (IsCancelled(job)) {
        result = OperationCancelledError(QUORV_SOURCE_LOCATION);
    } else {
        JobObject* outer = std::exchange(t_currentJob, job);
        try {
            result = job->function(job->user);
        } catch (...) {
            // A job function that throws is a defect of its module; it must not take the
            // worker with it.
            result = MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                               "A job function threw an exception");
        }
        t_currentJob = outer;
    }
    Finish(job, std::move(result));
    return true;
}

// Each pending entry holds a reference of its own, dropped by whoever pops it: a job that a
// waiter ran inline may have ended long before its entry comes up.
bool RunOnePending(JobQueueObject& queue) {
    JobObject* job = nullptr;
    while (queue.pending.try_pop(job)) {
        const bool ran = TryRun(job);
        RemoveJobReference(job);
        if (ran) return true;
    }
    return false;
}

// At exit, the pending entries of jobs that waiters ran inline may still wait for their arena
// task. Their references are dropped here, so the process ends with no job object left behind;
// an entry of a job not yet run is left to its arena task.
void DrainDefaultQueueAtExit() {
    JobQueueObject& q = DefaultQueue();
    std::vector<JobObject*> unfinished;
    JobObject* job = nullptr;
    while (q.pending.try_pop(job)) {
        if (job->state.load(std::memory_order_acquire) == JOBSTATE::FINISHED) {
            RemoveJobReference(job);
        } else {
            unfinished.push_back(job);
        }
    }
    for (JobObject* j : unfinished) q.pending.push(j);
}

Result<void> Enqueue(JobObject* job, JobQueueObject* queue) {
    if (!job) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Job missing");
    JOBSTATE expected = JOBSTATE::NEW;
    if (!job->state.compare_exchange_strong(expected, JOBSTATE::ENQUEUING,
                                            std::memory_order_acq_rel)) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "Job enqueued twice or already run");
    }
    JobQueueObject& q = queue ? *queue : DefaultQueue();
    try {
        std::lock_guard<std::mutex> lock(q.mutex);
        q.live.insert(job);
    } catch (...) {
        job->state.store(JOBSTATE::NEW, std::memory_order_release);
        return OutOfMemoryError();
    }
    AddJobReference(job);  // the queue's, dropped when the job ends
    job->queue.store(&q, std::memory_order_relaxed);
    job->state.store(JOBSTATE::QUEUED, std::memory_order_release);
    try {
        AddJobReference(job);  // the pending entry's
        q.pending.push(job);
        q.arenaTasks.fetch_add(1, std::memory_order_relaxed);
        q.arena.enqueue([&q] {
            RunOnePending(q);
            q.arenaTasks.fetch_sub(1, std::memory_order_release);
        });
    } catch (...) {
        // The job stays queued; a waiter runs it inline.
        return OutOfMemoryError();
    }
    return OK;
}

Bool IsFinished(const JobObject* job) {
    return job && job->state.load(std::memory_order_acquire) == JOBSTATE::FINISHED;
}

Bool Wait(JobObject* job, Float64 timeoutSeconds) {
    if (!job) return true;
    if (IsFinished(job)) return true;
    if (TryRun(job)) return true;
    using Clock = std::chrono::steady_clock;
    const bool unbounded = !(timeoutSeconds < 1e9);
    const Clock::time_point deadline =
        unbounded
            ? Clock::time_point::max()
            : Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(std::max(0.0, timeoutSeconds)));
    while (!IsFinished(job)) {
        if (Clock::now() >= deadline) return false;
        JobQueueObject* queue = job->queue.load(std::memory_order_acquire);
        if (queue && RunOnePending(*queue)) continue;
        std::unique_lock<std::mutex> lock(job->mutex);
        Clock::time_point until = std::min(deadline, Clock::now() + std::chrono::milliseconds(2));
        job->finished.wait_until(lock, until, [job] { return IsFinished(job); });
    }
    return true;
}

Result<void> GetResult(const JobObject* job) {
    if (!job) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Job missing");
    if (!IsFinished(job)) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "Job has not finished");
    }
    return job->result;
}

Result<void> AddObserver(JobObject* job, JobObserver observer, void* user, bool onCancel) {
    if (!job || !observer) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Job or observer missing");
    }
    {
        std::lock_guard<std::mutex> lock(job->mutex);
        const bool happened =
            onCancel ? job->cancelled.load(std::memory_order_acquire)
                     : job->state.load(std::memory_order_acquire) == JOBSTATE::FINISHED;
        if (!happened) {
            try {
                (onCancel ? job->cancelledObservers : job->finishedObservers)
                    .emplace_back(observer, user);
            } catch (...) {
                return OutOfMemoryError();
            }
            return OK;
        }
    }
    observer(user, job);
    return OK;
}

Result<void> AddCancelledObserver(JobObject* job, JobObserver observer, void* user) {
    return AddObserver(job, observer, user, true);
}

Result<void> AddFinishedObserver(JobObject* job, JobObserver observer, void* user) {
    return AddObserver(job, observer, user, false);
}

void ThreadedExclusiveResource(Bool enter) {
    g_exclusiveWaiters.fetch_add(enter ? 1 : -1, std::memory_order_relaxed);
}

Int GetExclusiveWaiterCount() { return g_exclusiveWaiters.load(std::memory_order_relaxed); }

// ---- queues ---------------------------------------------------------------------------------

JobQueueObject* AllocQueue(JOBQUEUETYPE, Int threadCount, JOBQUEUEMODE, const char*,
                           const SourceLocation&) {
    int threads = static_cast<int>(std::clamp<Int>(threadCount, 1, 256));
    try {
        return new JobQueueObject(threads);
    } catch (...) {
        return nullptr;
    }
}

void CancelQueue(JobQueueObject* queue) {
    JobQueueObject& q = queue ? *queue : DefaultQueue();
    std::vector<JobObject*> jobs;
    {
        std::lock_guard<std::mutex> lock(q.mutex);
        for (JobObject* j : q.live) {
            AddJobReference(j);
            jobs.push_back(j);
        }
    }
    for (JobObject* j : jobs) {
        Cancel(j);
        RemoveJobReference(j);
    }
}

void CancelAndWaitQueue(JobQueueObject* queue) {
    CancelQueue(queue);
    JobQueueObject& q = queue ? *queue : DefaultQueue();
    // Jobs cancelled before they started still pass through the arena (or a waiter) to end.
    for (;;) {
        while (RunOnePending(q)) {
        }
        std::unique_lock<std::mutex> lock(q.mutex);
        if (q.idle.wait_for(lock, std::chrono::milliseconds(2), [&] { return q.live.empty(); }))
            return;
    }
}

void FreeQueue(JobQueueObject* queue) {
    if (!queue || queue == &DefaultQueue()) return;
    CancelAndWaitQueue(queue);
    // Arena tasks whose job a waiter ran still hold the queue; let them return first.
    while (queue->arenaTasks.load(std::memory_order_acquire) != 0) std::this_thread::yield();
    queue->arena.terminate();
    delete queue;
}

Int GetThreadCount(const JobQueueObject* queue) {
    return queue ? queue->threadCount : DefaultQueue().threadCount;
}

const ThreadServicesInterface::Slots g_threadSlots{
    .AllocJob = &AllocJob,
    .AddJobReference = &AddJobReference,
    .RemoveJobReference = &RemoveJobReference,
    .Enqueue = &Enqueue,
    .GetCurrentJob = &GetCurrentJob,
    .IsCancelled = &IsCancelled,
    .IsCurrentJobCancelled = &IsCurrentJobCancelled,
    .Cancel = &Cancel,
    .Wait = &Wait,
    .IsFinished = &IsFinished,
    .GetResult = &GetResult,
    .AddCancelledObserver = &AddCancelledObserver,
    .AddFinishedObserver = &AddFinishedObserver,
    .ThreadedExclusiveResource = &ThreadedExclusiveResource,
    .GetExclusiveWaiterCount = &GetExclusiveWaiterCount,
};

const JobQueueInterface::Slots g_queueSlots{
    .Alloc = &AllocQueue,
    .Free = &FreeQueue,
    .GetThreadCount = &GetThreadCount,
    .Cancel = &CancelQueue,
    .CancelAndWait = &CancelAndWaitQueue,
};

}  // namespace

void RegisterJobService(Host& host) {
    host.RegisterService<ThreadServicesInterface>(g_threadSlots);
    host.RegisterService<JobQueueInterface>(g_queueSlots);
}

}  // namespace quorv::host
