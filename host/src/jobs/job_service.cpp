// Jobs and job queues on oneTBB. Each queue is a task arena plus a queue of pending jobs: an
// arena task pops one pending job and runs it. A thread that waits for a job that has not
// started claims it and runs it inline; while the job it waits for runs elsewhere, it pops and
// runs other pending jobs of that queue, so a waiting worker keeps working instead of starving
// the pool (and a chain of waits cannot deadlock on a pool that is all waiters).
//
// A job passes between threads through libtbb, which the thread sanitizer cannot see into: the
// marks at enqueue, start, finish and wait state the order the job system gives (nothing in
// other builds), so races inside job bodies are reported like races anywhere else.
#include <tbb/concurrent_queue.h>
#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "host_internal.h"
#include "quorv/jobs.h"
#include "tsan_marks.h"

namespace quorv {

// ENQUEUING is held while `Enqueue` attaches the job to its queue; nobody claims it then.
enum class JOBSTATE : int { NEW = 0, QUEUED = 1, RUNNING = 2, FINISHED = 3, ENQUEUING = 4 };

// Observers of one kind, in the order they were added: the first in place (a job mostly has one
// of each kind, which then costs no allocation), the others in a vector.
class ObserverList {
public:
    /// Throws `std::bad_alloc` when a second or later observer finds no memory.
    void Add(JobObserver observer, void* user) {
        if (!_first.first) {
            _first = {observer, user};
        } else {
            _more.emplace_back(observer, user);
        }
    }
    bool IsEmpty() const { return !_first.first; }
    void Run(JobObject* job) const {
        if (!_first.first) return;
        _first.first(_first.second, job);
        for (const auto& [observer, user] : _more) observer(user, job);
    }
    /// The observers, leaving this list empty.
    ObserverList Take() {
        ObserverList taken;
        std::swap(taken._first, _first);
        taken._more.swap(_more);
        return taken;
    }

private:
    std::pair<JobObserver, void*> _first{nullptr, nullptr};
    std::vector<std::pair<JobObserver, void*>> _more;
};

struct alignas(16) JobObject {
    std::atomic<Int> references{1};
    JobFunction function = nullptr;
    void* user = nullptr;
    JobUserFree freeUser = nullptr;
    JobObject* parent = nullptr;
    std::atomic<JobQueueObject*> queue{nullptr};
    std::atomic<JOBSTATE> state{JOBSTATE::NEW};
    std::atomic<bool> cancelled{false};
    // Set once the cancelled observers of the first `Cancel` have returned.
    std::atomic<bool> cancelObserversDone{false};
    // The job this thread was running when it started this one inline (a waiter), so a queue
    // wait can leave out every job of its own thread.
    JobObject* outerOnThread = nullptr;
    std::mutex mutex;
    std::condition_variable finished;
    Result<void> result = OK;  // written before the state becomes FINISHED
    ObserverList cancelledObservers;
    ObserverList finishedObservers;
    // Neighbours in its queue's list of live jobs (under the queue's mutex).
    JobObject* livePrevious = nullptr;
    JobObject* liveNext = nullptr;
};

struct JobQueueObject {
    // The arena has exactly `threads` slots for workers (none kept for a calling thread: jobs
    // reach it by `enqueue` only); the job system makes sure the process has workers enough
    // (`ReserveWorkers`).
    JobQueueObject(int threads, tbb::task_arena::priority priority, std::string queueName)
        : arena(threads, 0, priority), threadCount(threads), name(std::move(queueName)) {}
    tbb::task_arena arena;
    Int threadCount;
    std::string name;
    std::atomic<Int> arenaTasks{0};  // enqueued arena tasks that have not returned
    tbb::concurrent_queue<JobObject*> pending;
    std::mutex mutex;
    std::condition_variable idle;
    // Set when `Free` begins: jobs of the queue no longer name it as their current queue, so
    // work they hand on goes to the default queue instead of one that is going away.
    std::atomic<bool> freeing{false};
    // The queue's own hold, dropped when its free ends, and one per job queued on it, dropped
    // when the job object goes: a thread waiting for a job reads the job's queue up to the
    // moment it sees the job end, and that may be after the free.
    std::atomic<Int> holders{1};
    // Queued or running jobs, each holding a reference: a list through the jobs themselves, so
    // that a job joins and leaves it without an allocation.
    JobObject* live = nullptr;

    void AddLive(JobObject* job) {
        job->livePrevious = nullptr;
        job->liveNext = live;
        if (live) live->livePrevious = job;
        live = job;
    }
    void RemoveLive(JobObject* job) {
        if (job->livePrevious) {
            job->livePrevious->liveNext = job->liveNext;
        } else if (live == job) {
            live = job->liveNext;
        }
        if (job->liveNext) job->liveNext->livePrevious = job->livePrevious;
        job->livePrevious = job->liveNext = nullptr;
    }
};

}  // namespace quorv

namespace quorv::host {

namespace {

thread_local JobObject* t_currentJob = nullptr;
// Jobs whose cancelled observers, and jobs whose finished observers, run on this thread right
// now, innermost first: an observer may cancel and wait for the queue of its own job, which is
// still live then.
struct ObserverFrame {
    const JobObject* job;
    const ObserverFrame* outer;
};
thread_local const ObserverFrame* t_cancelFrames = nullptr;
thread_local const ObserverFrame* t_finishFrames = nullptr;
// The queue whose arena task runs on this thread, if any.
thread_local const JobQueueObject* t_arenaQueue = nullptr;
std::atomic<Int> g_exclusiveWaiters{0};

// ---- worker threads ---------------------------------------------------------------------------

std::atomic<Int> g_jobSystemThreads{0};  // 0: the machine's

// oneTBB gives the process one worker fewer than the machine's cores unless told otherwise.
// Every private queue must really run as many jobs at once as it has threads (a preview queue of
// four threads on a two-core machine too), and the job system may be sized by the host options:
// the allowed parallelism is raised to the default queue's width plus every private queue's
// threads plus the calling thread. It is never lowered again: workers that are not needed sleep.
std::mutex g_workersMutex;
Int g_reservedThreads = 0;  // threads of private queues alive
Int g_allowedParallelism = 0;
tbb::global_control* g_parallelismControl = nullptr;  // lives to the end of the process

void ReserveWorkers(Int privateThreads) {
    std::lock_guard<std::mutex> lock(g_workersMutex);
    g_reservedThreads += privateThreads;
    const Int machine = std::max<Int>(1, std::thread::hardware_concurrency());
    const Int need = std::max(machine, JobSystemThreadCount() + g_reservedThreads + 1);
    if (need <= g_allowedParallelism) return;
    try {
        // Of several controls the smallest value wins: the new one replaces the old.
        auto* control = new tbb::global_control(tbb::global_control::max_allowed_parallelism,
                                                static_cast<size_t>(need));
        delete g_parallelismControl;
        g_parallelismControl = control;
        g_allowedParallelism = need;
    } catch (...) {
        // Short of memory the queue keeps fewer workers than asked for; it still runs its jobs.
    }
}

void ReleaseWorkers(Int privateThreads) {
    std::lock_guard<std::mutex> lock(g_workersMutex);
    g_reservedThreads -= privateThreads;
}

void DrainDefaultQueueAtExit();

JobQueueObject& DefaultQueue() {
    // Lives to the end of the process: jobs may still end while statics are destroyed.
    static JobQueueObject* queue = [] {
        const int threads = static_cast<int>(JobSystemThreadCount());
        ReserveWorkers(0);
        auto* q = new JobQueueObject(threads, tbb::task_arena::priority::normal, "default");
        std::atexit(&DrainDefaultQueueAtExit);
        return q;
    }();
    return *queue;
}

void ReleaseQueue(JobQueueObject* queue) {
    if (queue->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete queue;
}

void AddJobReference(JobObject* job) {
    if (job) job->references.fetch_add(1, std::memory_order_relaxed);
}

void RemoveJobReference(JobObject* job) {
    while (job) {
        if (job->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
        JobObject* parent = job->parent;
        JobQueueObject* queue = job->queue.load(std::memory_order_relaxed);
        if (job->freeUser) job->freeUser(job->user);
        delete job;
        if (queue) ReleaseQueue(queue);
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

// The queue of the innermost job on this thread that went through a queue: a job a waiter ran
// without it ever being queued does its work on the waiter's thread, so the waiter's queue.
JobQueueObject* GetCurrentQueue() {
    for (const JobObject* j = t_currentJob; j; j = j->outerOnThread) {
        JobQueueObject* queue = j->queue.load(std::memory_order_acquire);
        if (!queue) continue;
        if (queue == &DefaultQueue() || queue->freeing.load(std::memory_order_acquire))
            return nullptr;
        return queue;
    }
    return nullptr;
}

void Cancel(JobObject* job) {
    if (!job || job->cancelled.exchange(true, std::memory_order_acq_rel)) return;
    ObserverList observers;
    {
        std::lock_guard<std::mutex> lock(job->mutex);
        observers = job->cancelledObservers.Take();
    }
    if (!observers.IsEmpty()) {
        const ObserverFrame frame{job, t_cancelFrames};
        t_cancelFrames = &frame;
        observers.Run(job);
        t_cancelFrames = frame.outer;
    }
    {
        std::lock_guard<std::mutex> lock(job->mutex);
        job->cancelObserversDone.store(true, std::memory_order_release);
    }
    job->finished.notify_all();
}

void Finish(JobObject* job, Result<void> result) {
    // What the body did happens before the waiters and the finished observers.
    TsanRelease(job);
    ObserverList observers;
    {
        std::lock_guard<std::mutex> lock(job->mutex);
        job->result = std::move(result);
        job->state.store(JOBSTATE::FINISHED, std::memory_order_release);
        observers = job->finishedObservers.Take();
    }
    job->finished.notify_all();
    if (!observers.IsEmpty()) {
        const ObserverFrame frame{job, t_finishFrames};
        t_finishFrames = &frame;
        observers.Run(job);
        t_finishFrames = frame.outer;
    }
    if (JobQueueObject* queue = job->queue.load(std::memory_order_acquire)) {
        {
            std::lock_guard<std::mutex> lock(queue->mutex);
            queue->RemoveLive(job);
        }
        // A waiter may wait for all jobs but those of its own thread: every end may be the last.
        queue->idle.notify_all();
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
    TsanAcquire(job);  // what the enqueuer did before `Enqueue`
    Result<void> result = OK;
    if (IsCancelled(job)) {
        result = OperationCancelledError(QUORV_SOURCE_LOCATION);
    } else {
        JobObject* outer = std::exchange(t_currentJob, job);
        job->outerOnThread = outer;
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

// What the arena runs for each pending entry. oneTBB copies it into a task of its own and hands
// that to a worker inside libtbb; the queue pointer is written and read atomically (release,
// acquire), so the thread sanitizer sees the enqueuer's work happen before the worker's.
class ArenaTask {
public:
    explicit ArenaTask(JobQueueObject* queue) { Set(queue); }
    ArenaTask(const ArenaTask& other) { Set(other.Get()); }
    ArenaTask& operator=(const ArenaTask&) = delete;
    void operator()() const {
        JobQueueObject& q = *Get();
        const JobQueueObject* outer = std::exchange(t_arenaQueue, &q);
        RunOnePending(q);
        t_arenaQueue = outer;
        q.arenaTasks.fetch_sub(1, std::memory_order_release);
    }

private:
    JobQueueObject* Get() const {
        return std::atomic_ref<JobQueueObject*>(_queue).load(std::memory_order_acquire);
    }
    void Set(JobQueueObject* queue) {
        std::atomic_ref<JobQueueObject*>(_queue).store(queue, std::memory_order_release);
    }
    mutable JobQueueObject* _queue;  // only through `Get` and `Set`
};

Result<void> Enqueue(JobObject* job, JobQueueObject* queue) {
    if (!job) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Job missing");
    JOBSTATE expected = JOBSTATE::NEW;
    if (!job->state.compare_exchange_strong(expected, JOBSTATE::ENQUEUING,
                                            std::memory_order_acq_rel)) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "Job enqueued twice or already run");
    }
    JobQueueObject& q = queue ? *queue : DefaultQueue();
    {
        std::lock_guard<std::mutex> lock(q.mutex);
        q.AddLive(job);
    }
    AddJobReference(job);                               // the queue's, dropped when the job ends
    q.holders.fetch_add(1, std::memory_order_relaxed);  // the job's, dropped when it goes
    job->queue.store(&q, std::memory_order_relaxed);
    TsanRelease(job);
    job->state.store(JOBSTATE::QUEUED, std::memory_order_release);
    try {
        AddJobReference(job);  // the pending entry's
        q.pending.push(job);
        q.arenaTasks.fetch_add(1, std::memory_order_relaxed);
        q.arena.enqueue(ArenaTask(&q));
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
    if (IsFinished(job) || TryRun(job)) {
        TsanAcquire(job);  // what the body did, on whichever thread
        return true;
    }
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
    TsanAcquire(job);
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
                (onCancel ? job->cancelledObservers : job->finishedObservers).Add(observer, user);
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

// The private queues alive, for listing. Never destroyed: a job thread may free its queue (and
// leave this list) while the process runs its exit destructors.
struct QueueList {
    std::mutex mutex;
    std::vector<JobQueueObject*> queues;
};

QueueList& LiveQueues() {
    static auto* list = new QueueList;
    return *list;
}

JobQueueObject* AllocQueue(JOBQUEUETYPE type, Int threadCount, JOBQUEUEMODE, const char* name,
                           const SourceLocation&) {
    const int threads = static_cast<int>(std::clamp<Int>(threadCount, 1, 256));
    // Low priority: the arena gets workers only when arenas of normal priority leave some idle.
    const auto priority = type == JOBQUEUETYPE::LOWESTPRIORITY ? tbb::task_arena::priority::low
                                                               : tbb::task_arena::priority::normal;
    JobQueueObject* queue = nullptr;
    try {
        queue = new JobQueueObject(threads, priority, name ? name : "");
        QueueList& list = LiveQueues();
        std::lock_guard<std::mutex> lock(list.mutex);
        list.queues.push_back(queue);
    } catch (...) {
        delete queue;
        return nullptr;
    }
    ReserveWorkers(threads);
    return queue;
}

// The jobs of the queue, each with a reference the caller drops. False when memory is short.
bool SnapshotLive(JobQueueObject& q, std::vector<JobObject*>& jobs) {
    std::lock_guard<std::mutex> lock(q.mutex);
    try {
        for (JobObject* j = q.live; j; j = j->liveNext) jobs.push_back(j);
    } catch (...) {
        return false;
    }
    for (JobObject* j : jobs) AddJobReference(j);
    return true;
}

void CancelQueue(JobQueueObject* queue) {
    JobQueueObject& q = queue ? *queue : DefaultQueue();
    std::vector<JobObject*> jobs;
    if (SnapshotLive(q, jobs)) {
        for (JobObject* j : jobs) {
            Cancel(j);
            RemoveJobReference(j);
        }
        return;
    }
    // Short of memory: one job at a time, with no list (observers never run under the lock).
    for (;;) {
        JobObject* next = nullptr;
        {
            std::lock_guard<std::mutex> lock(q.mutex);
            for (JobObject* j = q.live; j; j = j->liveNext) {
                if (!j->cancelled.load(std::memory_order_acquire)) {
                    next = j;
                    AddJobReference(j);
                    break;
                }
            }
        }
        if (!next) return;
        Cancel(next);
        RemoveJobReference(next);
    }
}

// True when `job` runs on the calling thread: its own job, one a waiter of it ran inline, or a
// job whose finished observers this thread runs.
bool RunsOnThisThread(const JobObject* job) {
    for (const JobObject* j = t_currentJob; j; j = j->outerOnThread) {
        if (j == job) return true;
    }
    for (const ObserverFrame* f = t_finishFrames; f; f = f->outer) {
        if (f->job == job) return true;
    }
    return false;
}

bool CancelObserversRunHere(const JobObject* job) {
    for (const ObserverFrame* f = t_cancelFrames; f; f = f->outer) {
        if (f->job == job) return true;
    }
    return false;
}

void CancelAndWaitQueue(JobQueueObject* queue) {
    JobQueueObject& q = queue ? *queue : DefaultQueue();
    // A job whose first `Cancel` came from another thread may still be running its cancelled
    // observers there: wait for them too (short of memory, for the jobs' ends only).
    std::vector<JobObject*> jobs;
    if (!SnapshotLive(q, jobs)) CancelQueue(&q);
    for (JobObject* j : jobs) {
        Cancel(j);
        if (!CancelObserversRunHere(j)) {
            std::unique_lock<std::mutex> lock(j->mutex);
            j->finished.wait(
                lock, [j] { return j->cancelObserversDone.load(std::memory_order_acquire); });
        }
        RemoveJobReference(j);
    }
    // Every job ends, its finished observers included, except the jobs of the calling thread:
    // a job of this queue that cancels its own queue must not wait for itself. Jobs cancelled
    // before they started still pass through the arena (or this thread) to end.
    auto othersEnded = [&q] {
        for (const JobObject* j = q.live; j; j = j->liveNext) {
            if (!RunsOnThisThread(j)) return false;
        }
        return true;
    };
    for (;;) {
        while (RunOnePending(q)) {
        }
        std::unique_lock<std::mutex> lock(q.mutex);
        if (q.idle.wait_for(lock, std::chrono::milliseconds(2), othersEnded)) return;
    }
}

// The end of a free: once every arena task of the queue has returned, the arena goes; the queue
// object goes with the last of its own hold and its jobs' holds.
void FinishFreeingQueue(JobQueueObject* queue) {
    // Arena tasks whose job a waiter ran still hold the queue; let them return first.
    while (queue->arenaTasks.load(std::memory_order_acquire) != 0) std::this_thread::yield();
    queue->arena.terminate();
    ReleaseWorkers(queue->threadCount);
    ReleaseQueue(queue);
}

Result<void> FinishFreeingQueueJob(void* queue) {
    FinishFreeingQueue(static_cast<JobQueueObject*>(queue));
    return OK;
}

void FreeQueue(JobQueueObject* queue) {
    if (!queue || queue == &DefaultQueue()) return;
    queue->freeing.store(true, std::memory_order_release);
    {
        QueueList& list = LiveQueues();
        std::lock_guard<std::mutex> lock(list.mutex);
        list.queues.erase(std::remove(list.queues.begin(), list.queues.end(), queue),
                          list.queues.end());
    }
    CancelAndWaitQueue(queue);
    if (t_arenaQueue != queue) {
        FinishFreeingQueue(queue);
        return;
    }
    // Freed from inside one of its own jobs (its last holder let go of it there, in a finished
    // observer say): the arena task running on this thread cannot be waited for here. A job of
    // the job system's own queue waits for it and ends the free.
    JobObject* job =
        AllocJob(&FinishFreeingQueueJob, queue, nullptr, nullptr, QUORV_SOURCE_LOCATION);
    if (!job || Enqueue(job, nullptr).IsError()) {
        HostCriticalOutput("A job queue freed from its own job is left behind: out of memory");
    }
    RemoveJobReference(job);
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
    .GetCurrentQueue = &GetCurrentQueue,
};

const JobQueueInterface::Slots g_queueSlots{
    .Alloc = &AllocQueue,
    .Free = &FreeQueue,
    .GetThreadCount = &GetThreadCount,
    .Cancel = &CancelQueue,
    .CancelAndWait = &CancelAndWaitQueue,
};

}  // namespace

std::vector<JobQueueListing> ListJobQueueEntries() {
    std::vector<JobQueueListing> out;
    auto add = [&out](JobQueueObject& q) {
        JobQueueListing l{q.name, q.threadCount, 0, 0};
        std::lock_guard<std::mutex> lock(q.mutex);
        // A finished job stays live while its finished observers run: it counts as running.
        for (const JobObject* j = q.live; j; j = j->liveNext) {
            const JOBSTATE s = j->state.load(std::memory_order_acquire);
            ++(s == JOBSTATE::RUNNING || s == JOBSTATE::FINISHED ? l.running : l.queued);
        }
        out.push_back(std::move(l));
    };
    add(DefaultQueue());
    QueueList& list = LiveQueues();
    std::lock_guard<std::mutex> lock(list.mutex);
    for (JobQueueObject* q : list.queues) add(*q);
    return out;
}

Int JobSystemThreadCount() {
    const Int n = g_jobSystemThreads.load(std::memory_order_acquire);
    return n > 0 ? n : std::max(1, tbb::info::default_concurrency());
}

void SetJobSystemThreadCount(Int threadCount) {
    g_jobSystemThreads.store(std::clamp<Int>(threadCount, 0, 1024), std::memory_order_release);
    ReserveWorkers(0);
}

void RegisterJobService(Host& host) {
    host.RegisterService<ThreadServicesInterface>(g_threadSlots);
    host.RegisterService<JobQueueInterface>(g_queueSlots);
}

}  // namespace quorv::host
