#pragma once
// The preview scheduler: which preview tasks run, in which order and how many at once. One
// object per process, made by the module's initialisation and dropped by its free step, reached
// through a lock-bit reference word so a caller's reference stays valid across its call.

#include <deque>
#include <unordered_map>

#include "quorv/lockedref.h"
#include "quorv/progress.h"
#include "quorv/spinwait.h"
#include "quorv/systemallocator.h"
#include "render/preview/previewimage_worker.h"

namespace quorv::nodes {

/// A ticket for a submitted task: releasing its last reference cancels the task.
class PreviewImageSubmission {
public:
    explicit PreviewImageSubmission(Int id) : _id(id) {}
    PreviewImageSubmission(const PreviewImageSubmission&) = delete;
    PreviewImageSubmission& operator=(const PreviewImageSubmission&) = delete;
    ~PreviewImageSubmission();
    Int GetId() const { return _id; }

private:
    Int _id;
};

/// A FIFO of task ids on a ring buffer of host memory: four slots at first, doubling.
class TaskIdQueue {
public:
    TaskIdQueue() = default;
    TaskIdQueue(const TaskIdQueue&) = delete;
    TaskIdQueue& operator=(const TaskIdQueue&) = delete;
    ~TaskIdQueue() { SystemInterface::Free(_slots); }
    /// False when memory is short; the queue is then unchanged.
    bool Push(Int id);
    /// The front id, or -1 when empty.
    Int Pop();
    Int GetCount() const { return _count; }
    void Clear() { _head = _count = 0; }

private:
    Int* _slots = nullptr;
    Int _capacity = 0;
    Int _head = 0;
    Int _count = 0;
};

/// The ids of the iterations running on one level. There are at most eight (the largest
/// parallel limit), kept in place: starting and ending an iteration allocates nothing here.
class RunningIdSet {
public:
    static constexpr Int CAPACITY = 8;
    /// False when the set is full and `id` is not in it.
    bool Insert(Int id) {
        if (Contains(id)) return true;
        if (_count == CAPACITY) return false;
        _ids[_count++] = id;
        return true;
    }
    /// True when `id` was in the set.
    bool Erase(Int id) {
        for (Int i = 0; i < _count; ++i) {
            if (_ids[i] == id) {
                _ids[i] = _ids[--_count];
                return true;
            }
        }
        return false;
    }
    bool Contains(Int id) const {
        for (Int i = 0; i < _count; ++i) {
            if (_ids[i] == id) return true;
        }
        return false;
    }
    Int GetCount() const { return _count; }
    bool IsEmpty() const { return _count == 0; }
    const Int* begin() const { return _ids; }
    const Int* end() const { return _ids + _count; }

private:
    Int _ids[CAPACITY] = {};
    Int _count = 0;
};

class PreviewImageScheduler {
public:
    using TaskMap =
        std::unordered_map<Int, Ref<PreviewImageTask>, std::hash<Int>, std::equal_to<Int>,
                           SystemAllocator<std::pair<const Int, Ref<PreviewImageTask>>>>;

    /// The process's scheduler, with a new reference, or null.
    static Ref<PreviewImageScheduler> Get();
    /// Makes the scheduler (module start); a failure leaves the module without one.
    static Result<void> StartProcessScheduler();
    /// Drops the process's scheduler (module free); its destruction waits for running jobs.
    static void FreeProcessScheduler();

    explicit PreviewImageScheduler(JobQueueRef queue, Int maxParallelTasks)
        : _jobQueue(std::move(queue)), _maxParallelTasks(maxParallelTasks) {}
    PreviewImageScheduler(const PreviewImageScheduler&) = delete;
    PreviewImageScheduler& operator=(const PreviewImageScheduler&) = delete;
    ~PreviewImageScheduler();

    Result<Ref<PreviewImageSubmission>> Submit(const DataDictionaryObjectInterface::Ref& request,
                                               Bool highPriority);
    void CancelTask(Int id);
    void OnIterationFinished(Int id, Bool hasMore, Bool paused, Float64 progress);
    void CancelAll(Bool wait);

    Int GetMaxParallelTasks() const { return _maxParallelTasks; }
    Int GetQueueThreadCount() const { return _jobQueue.GetThreadCount(); }

    /// A snapshot of the state, for tests and the command line.
    struct Snapshot {
        Int tasks = 0, retained = 0, queuedNormal = 0, queuedHigh = 0;
        Int runningNormal = 0, runningHigh = 0, activeJobCount = 0;
        bool activeEntry = false, stopped = false;
    };
    Snapshot GetSnapshot() const;

private:
    Int PopQueue(TaskIdQueue& queue);
    void StartPass();
    void StartFrom(TaskIdQueue& queue, RunningIdSet& running);
    // Progress calls: `_progressLock` must be held.
    Result<void> SetProgress(Int job, Float64 value);
    void CloseProgressJob(Int job);

    JobQueueRef _jobQueue;
    std::atomic<Int> _nextTaskId{0};
    mutable SpinLock _queueLock;
    SpinLock _progressLock;
    RunningIdSet _runningNormal;
    RunningIdSet _runningHigh;
    TaskMap _tasks;
    TaskMap _retained;
    TaskIdQueue _queueNormal;
    TaskIdQueue _queueHigh;
    BackgroundEntryObject* _activeEntry = nullptr;  // one reference
    Int _activeJobCount = 0;
    Int _maxParallelTasks = 1;
    Bool _stopped = false;
};

/// The thread budget and the parallel limit for a job system of `threads` threads.
struct PreviewBudget {
    Int threads;
    Int maxParallelTasks;
};
PreviewBudget ComputePreviewBudget(Int threads, Bool oneThread);

/// The finished observer's call into the process's scheduler (nothing without one).
void SchedulerOnIterationFinished(Int id, Bool hasMore, Bool paused, Float64 progress);

/// The configuration variable "g_useonethreadtorenderpreview".
extern Bool g_useonethreadtorenderpreview;

}  // namespace quorv::nodes
