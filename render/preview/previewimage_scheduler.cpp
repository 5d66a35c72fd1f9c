// The preview scheduler. Tasks run as a series of one-iteration jobs and go back to their queue
// in between, so a high-priority request displaces normal ones within one iteration and tasks
// of one level take turns. `queueLock` guards the maps, sets, queues and `stopped`;
// `progressLock` the background entry and its job count; they nest only as queueLock, then
// progressLock (a failed submit closes its progress job under queueLock).
//
// Made by the module's initialisation, not on first use, so that the parallel limit is fixed
// from the job system as it stood at load and the free step can drain the queue.
#include "render/preview/previewimage_scheduler.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <string>
#include <thread>

#include "quorv/resource.h"

namespace quorv::nodes {

Bool g_useonethreadtorenderpreview = false;

namespace {

const bool g_configured =
    (AddConfigurationVariable(
         "g_useonethreadtorenderpreview", &g_useonethreadtorenderpreview,
         "Set to true if only 1 thread should be used for the preview rendering.", CONFIGTYPE::BOOL,
         "false"),
     true);

LockedRefWord<PreviewImageScheduler>& ProcessScheduler() {
    // Never destroyed: submissions may be dropped while statics are destroyed. Static storage
    // rather than the heap, so that a module unloaded before the process ends leaves no block
    // behind.
    alignas(LockedRefWord<PreviewImageScheduler>) static unsigned char
        storage[sizeof(LockedRefWord<PreviewImageScheduler>)];
    static auto* word = new (storage) LockedRefWord<PreviewImageScheduler>();
    return *word;
}

// The delegate of a failed start runs under `queueLock`; a delegate that calls back into the
// scheduler there would spin on its own lock. Such a call is refused and reported instead. The
// owner is kept beside the lock (no thread-local storage: the module needs no TLS runtime).
std::atomic<std::thread::id> g_queueLockOwner{};

class QueueLockHold {
public:
    explicit QueueLockHold(SpinLock& lock) : _lock(lock) {
        _lock.Lock();
        g_queueLockOwner.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }
    ~QueueLockHold() { Unlock(); }
    void Unlock() {
        if (!_held) return;
        _held = false;
        g_queueLockOwner.store(std::thread::id(), std::memory_order_relaxed);
        _lock.Unlock();
    }

private:
    SpinLock& _lock;
    bool _held = true;
};

bool RefuseReentry(const char* where) {
    if (g_queueLockOwner.load(std::memory_order_relaxed) != std::this_thread::get_id())
        return false;
    SystemInterface::CriticalOutput(
        FormatMessage("Preview scheduler re-entered under its queue lock in @", {where}).c_str(),
        QUORV_SOURCE_LOCATION);
    return true;
}

}  // namespace

// ---- submissions and the id queue ----------------------------------------------------------

PreviewImageSubmission::~PreviewImageSubmission() {
    if (Ref<PreviewImageScheduler> s = PreviewImageScheduler::Get()) s->CancelTask(_id);
}

bool TaskIdQueue::Push(Int id) {
    if (_count == _capacity) {
        const Int capacity = _capacity == 0 ? 4 : _capacity * 2;
        auto* slots = static_cast<Int*>(SystemInterface::Alloc(
            capacity * static_cast<Int>(sizeof(Int)), QUORV_SOURCE_LOCATION));
        if (!slots) return false;
        for (Int i = 0; i < _count; ++i) slots[i] = _slots[(_head + i) % _capacity];
        SystemInterface::Free(_slots);
        _slots = slots;
        _capacity = capacity;
        _head = 0;
    }
    _slots[(_head + _count) % _capacity] = id;
    ++_count;
    return true;
}

Int TaskIdQueue::Pop() {
    if (_count == 0) return -1;
    const Int id = _slots[_head];
    _head = (_head + 1) % _capacity;
    --_count;
    return id;
}

// ---- the process's scheduler -----------------------------------------------------------------

PreviewBudget ComputePreviewBudget(Int threads, Bool oneThread) {
    if (oneThread) return {1, 1};
    // One thread of the machine is left to the rest of the application; a single-threaded
    // machine still gets one preview thread.
    const Int budget = std::max<Int>(threads, 2) - 1;
    return {budget, std::min<Int>(std::max<Int>(budget / 2, 1), 8)};
}

Ref<PreviewImageScheduler> PreviewImageScheduler::Get() { return ProcessScheduler().Get(); }

Result<void> PreviewImageScheduler::StartProcessScheduler() {
    const PreviewBudget budget = ComputePreviewBudget(JobQueueInterface::GetThreadCount(nullptr),
                                                      g_useonethreadtorenderpreview);
    Result<JobQueueRef> queue = JobQueueRef::Create(JOBQUEUETYPE::LOWESTPRIORITY, budget.threads,
                                                    JOBQUEUEMODE::DEFAULT, PREVIEW_JOB_QUEUE_NAME);
    if (queue.IsError()) return queue.GetError();
    Result<Ref<PreviewImageScheduler>> made =
        NewCounted<PreviewImageScheduler>(std::move(queue.GetValue()), budget.maxParallelTasks);
    if (made.IsError()) return made.GetError();
    Ref<PreviewImageScheduler> old = ProcessScheduler().Exchange(std::move(made.GetValue()));
    return OK;
}

void PreviewImageScheduler::FreeProcessScheduler() {
    Ref<PreviewImageScheduler> old = ProcessScheduler().Exchange(Ref<PreviewImageScheduler>());
}

void SchedulerOnIterationFinished(Int id, Bool hasMore, Bool paused, Float64 progress) {
    if (Ref<PreviewImageScheduler> s = PreviewImageScheduler::Get()) {
        s->OnIterationFinished(id, hasMore, paused, progress);
    }
}

PreviewImageScheduler::~PreviewImageScheduler() {
    TaskMap tasks, retained;
    {
        QueueLockHold lock(_queueLock);
        std::swap(tasks, _tasks);
        std::swap(retained, _retained);
        _runningNormal = RunningIdSet();
        _runningHigh = RunningIdSet();
        _queueNormal.Clear();
        _queueHigh.Clear();
    }
    tasks.clear();  // each task cancels a job still running
    retained.clear();
    _jobQueue.CancelAndWait();
    // The entry would otherwise stay on the host's list after the module is gone.
    if (_activeEntry) {
        BackgroundProgressInterface::RemoveActiveEntry(BackgroundProgressInterface::GetMaster(),
                                                       _activeEntry);
        RemoveReference(std::exchange(_activeEntry, nullptr));
    }
}

// ---- progress (under progressLock) -----------------------------------------------------------

Result<void> PreviewImageScheduler::SetProgress(Int job, Float64 value) {
    if (!_progressLock.IsLocked()) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "Progress bar must be locked since we might modify progress ref!");
    }
    if (job < 0) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "Invalid background job id");
    }
    return ProgressInterface::SetProgressAndCheckBreak(_activeEntry, job, value);
}

void PreviewImageScheduler::CloseProgressJob(Int job) {
    if (!_progressLock.IsLocked()) {
        SystemInterface::CriticalOutput(
            "Progress bar must be locked since we might modify progress ref!",
            QUORV_SOURCE_LOCATION);
        return;
    }
    if (!_activeEntry) return;
    if (job >= 0) (void)SetProgress(job, 1.0);
    // Deliberately counted down for id -1 too: a task without a progress job (node2d intent, or
    // a job that could not be added) never counted up, and a visible task cancelled while its
    // job ran is closed by the cancel and again, as -1, when that job ends (it is no longer in
    // `tasks`). Either can close the entry under another visible task, which then runs on
    // unseen until the next visible submit opens a new entry. Below zero counts as reaching it.
    if (--_activeJobCount <= 0) {
        _activeJobCount = 0;
        BackgroundProgressInterface::RemoveActiveEntry(BackgroundProgressInterface::GetMaster(),
                                                       _activeEntry);
        RemoveReference(std::exchange(_activeEntry, nullptr));
    }
}

// ---- submit ----------------------------------------------------------------------------------

Result<Ref<PreviewImageSubmission>> PreviewImageScheduler::Submit(
    const DataDictionaryObjectInterface::Ref& request, Bool highPriority) {
    if (RefuseReentry("Submit")) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "Illegal state: Preview scheduler re-entered");
    }
    Int backgroundJob = -1;
    const Id intent = GetObjectValue(request, PREVIEW_INTENT, Id());
    if (!(intent == Id::Intern(PREVIEW_INTENT_NODE2D))) {
        ScopedSpinLock lock(_progressLock);
        if (!_activeEntry) {
            // The name is a text of the application's resources, not of this module: without
            // it the entry is made under an empty name. No entry when the entry itself cannot
            // be had: the preview then runs unseen.
            Result<std::string> name = ResourceInterface::LoadResourceString(
                "net.quorv.exchange.globalstrings", "net.quorv.exchange.globalstrings.baking");
            BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
            Result<BackgroundEntryObject*> entry =
                master ? BackgroundProgressInterface::AddActiveEntry(
                             master, name.IsOk() ? name.GetValue().c_str() : "", 0)
                       : Result<BackgroundEntryObject*>(
                             MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION));
            if (entry.IsOk() && entry.GetValue()) {
                _activeEntry = entry.GetValue();
                _activeJobCount = 0;
            }
        }
        if (_activeEntry) {
            const Vector2i64 size = GetObjectValue(request, PREVIEW_TEXTURESIZE, Vector2i64{1, 1});
            const IdArray textures = GetObjectValue(request, PREVIEW_TEXTUREIDS, IdArray());
            const Float64 weight =
                static_cast<Float64>(size.x) * static_cast<Float64>(size.y) *
                static_cast<Float64>(std::max<Int>(static_cast<Int>(textures.size()), 1));
            Result<Int> job =
                ProgressInterface::AddProgressJob(_activeEntry, weight, "Render Preview");
            if (job.IsOk()) {
                backgroundJob = job.GetValue();
                ++_activeJobCount;
                (void)SetProgress(backgroundJob, 0.0);
            }
        }
    }
    const TimeValue wait = GetObjectValue(request, PREVIEW_RESULTCOMPLETEWAIT, TimeValue{0.0});

    const Int id = _nextTaskId.fetch_add(1, std::memory_order_relaxed);
    const Int threadCount = g_useonethreadtorenderpreview ? 1 : _jobQueue.GetThreadCount();
    Result<Ref<PreviewImageTask>> made =
        PreviewImageTask::Create(id, threadCount, request, backgroundJob);
    if (made.IsError()) {
        ScopedSpinLock lock(_progressLock);
        CloseProgressJob(backgroundJob);
        return made.GetError();
    }
    Ref<PreviewImageTask> task = std::move(made.GetValue());
    {
        QueueLockHold lock(_queueLock);
        bool stored = false;
        try {
            _tasks.emplace(id, task);
            _retained.emplace(id, Ref<PreviewImageTask>());
            stored = highPriority ? _queueHigh.Push(id) : _queueNormal.Push(id);
        } catch (const std::bad_alloc&) {
        }
        if (!stored) {
            // Nothing of the task stays behind; the erased entries go after the lock.
            auto t = _tasks.find(id);
            Ref<PreviewImageTask> erased;
            if (t != _tasks.end()) {
                erased = std::move(t->second);
                _tasks.erase(t);
            }
            _retained.erase(id);
            {
                ScopedSpinLock progress(_progressLock);
                CloseProgressJob(backgroundJob);
            }
            lock.Unlock();
            return OutOfMemoryError();
        }
    }
    StartPass();
    task->WaitForCompletion(wait);
    // Failing here leaves the task queued and running, with no ticket to cancel it by.
    return NewCounted<PreviewImageSubmission>(id);
}

// ---- the start pass --------------------------------------------------------------------------

Int PreviewImageScheduler::PopQueue(TaskIdQueue& queue) {
    for (;;) {
        const Int id = queue.Pop();
        if (id == -1) return -1;
        if (_tasks.count(id)) return id;  // a cancelled task leaves its queue here, lazily
    }
}

void PreviewImageScheduler::StartFrom(TaskIdQueue& queue, RunningIdSet& running) {
    while (running.GetCount() < _maxParallelTasks) {
        const Int id = PopQueue(queue);
        if (id == -1) break;
        auto it = _tasks.find(id);
        PreviewImageTask* task = it == _tasks.end() ? nullptr : it->second.Get();
        Result<void> started =
            it == _tasks.end()
                ? Result<void>(MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                                         "Illegal state: Invalid task Id"))
            : !task ? Result<void>(MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                                             "Illegal state: Invalid task"))
                    : task->Start(_jobQueue.Get());
        // A failed start keeps its place in the running set: no job will end to free it.
        if (started.IsError() && task) task->Fail(started.GetError());
        // Full only with a limit above the set's room (the limit is at most eight).
        if (!running.Insert(id) && task) task->Fail(OutOfMemoryError());
    }
}

void PreviewImageScheduler::StartPass() {
    if (RefuseReentry("the start pass")) return;
    QueueLockHold lock(_queueLock);
    if (_stopped) return;
    StartFrom(_queueHigh, _runningHigh);
    if (!_runningHigh.IsEmpty()) {
        for (Int id : _runningNormal) {
            auto it = _tasks.find(id);
            if (it != _tasks.end() && it->second) it->second->Pause();
        }
        return;
    }
    StartFrom(_queueNormal, _runningNormal);
}

// ---- the end of an iteration, cancellation ---------------------------------------------------

void PreviewImageScheduler::OnIterationFinished(Int id, Bool hasMore, Bool paused,
                                                Float64 progress) {
    if (RefuseReentry("OnIterationFinished")) return;
    Int backgroundJob = -1;
    Ref<PreviewImageTask> releasedTask, releasedRetained;  // dropped after the lock
    {
        QueueLockHold lock(_queueLock);
        auto it = _tasks.find(id);
        if (it != _tasks.end() && it->second) backgroundJob = it->second->GetBackgroundJobId();
        if (auto r = _retained.find(id); r != _retained.end()) {
            releasedRetained = std::move(r->second);
            _retained.erase(r);
        }
        if (!hasMore && it != _tasks.end()) {
            releasedTask = std::move(it->second);
            _tasks.erase(it);
        }
        const bool wasNormal = _runningNormal.Erase(id);
        const bool wasHigh = _runningHigh.Erase(id);
        if (!wasNormal && !wasHigh && !paused) {
            SystemInterface::CriticalOutput(
                FormatMessage("Unknown task under Id @", {std::to_string(id)}).c_str(),
                QUORV_SOURCE_LOCATION);
        }
        if (hasMore) {
            // At most one queue: a paused high task (none is ever paused) would not go twice.
            bool pushed = true;
            if (wasNormal || paused) {
                pushed = _queueNormal.Push(id);
            } else if (wasHigh) {
                pushed = _queueHigh.Push(id);
            }
            if (!pushed) {
                auto t = _tasks.find(id);
                if (t != _tasks.end() && t->second) t->second->Fail(OutOfMemoryError());
                lock.Unlock();
                StartPass();
                return;
            }
        }
    }
    {
        ScopedSpinLock lock(_progressLock);
        if (_activeEntry) {
            if (backgroundJob >= 0) (void)SetProgress(backgroundJob, progress);
            if (!hasMore) CloseProgressJob(backgroundJob);
        }
    }
    StartPass();
}

void PreviewImageScheduler::CancelTask(Int id) {
    if (RefuseReentry("CancelTask")) return;
    Ref<PreviewImageTask> task;
    Int backgroundJob = -1;
    {
        QueueLockHold lock(_queueLock);
        auto it = _tasks.find(id);
        if (it != _tasks.end()) {
            task = std::move(it->second);
            _tasks.erase(it);
            if (task) backgroundJob = task->GetBackgroundJobId();
        }
        // A task that has not been through an iteration stays alive until its iteration ends
        // (or, never started, until the scheduler goes).
        if (auto r = _retained.find(id); r != _retained.end() && task) r->second = task;
    }
    if (backgroundJob >= 0) {
        ScopedSpinLock lock(_progressLock);
        CloseProgressJob(backgroundJob);
    }
    if (!task) return;
    task->Cancel();
    task = Ref<PreviewImageTask>();
    StartPass();
}

void PreviewImageScheduler::CancelAll(Bool wait) {
    if (RefuseReentry("CancelAll")) return;
    {
        QueueLockHold lock(_queueLock);
        _stopped = true;
    }
    {
        ScopedSpinLock lock(_progressLock);
        if (_activeEntry) {
            BackgroundProgressInterface::RemoveActiveEntry(BackgroundProgressInterface::GetMaster(),
                                                           _activeEntry);
            RemoveReference(std::exchange(_activeEntry, nullptr));
            _activeJobCount = 0;
        }
    }
    if (wait) {
        _jobQueue.CancelAndWait();
    } else {
        _jobQueue.Cancel();
    }
}

PreviewImageScheduler::Snapshot PreviewImageScheduler::GetSnapshot() const {
    Snapshot s;
    {
        QueueLockHold lock(const_cast<SpinLock&>(_queueLock));
        s.tasks = static_cast<Int>(_tasks.size());
        s.retained = static_cast<Int>(_retained.size());
        s.queuedNormal = _queueNormal.GetCount();
        s.queuedHigh = _queueHigh.GetCount();
        s.runningNormal = _runningNormal.GetCount();
        s.runningHigh = _runningHigh.GetCount();
        s.stopped = _stopped;
    }
    {
        ScopedSpinLock lock(const_cast<SpinLock&>(_progressLock));
        s.activeJobCount = _activeJobCount;
        s.activeEntry = _activeEntry != nullptr;
    }
    return s;
}

}  // namespace quorv::nodes
