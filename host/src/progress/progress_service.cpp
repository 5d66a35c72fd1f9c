// Background progress: the process's list of visible background activities (the master) and
// their entries of weighted progress jobs. Changes reach the master's observers through an
// observable of the host's observable service; observers run on the changing thread with no
// lock of the list or of an entry held.
#include <algorithm>
#include <cmath>
#include <mutex>
#include <string>
#include <vector>

#include "host_internal.h"
#include "quorv/jobs.h"
#include "quorv/progress.h"
#include "services_impl.h"

namespace quorv {

struct BackgroundMasterObject {
    std::mutex mutex;
    std::vector<BackgroundEntryObject*> entries;  // each holds a reference
    ObservableObject* observable = nullptr;       // made on first use, kept for good
};

struct BackgroundEntryObject {
    struct Job {
        Float64 weight;
        Float64 value;
        std::string name;
    };
    BackgroundMasterObject* master = nullptr;
    std::string name;
    mutable std::mutex mutex;
    std::vector<Job> jobs;
    bool broken = false;
};

}  // namespace quorv

namespace quorv::host {

namespace {

constexpr const char* INVALID_JOB_MESSAGE = "Invalid background job id";

// Values lie in [0, 1]; NaN (a progress of 0 of 0 steps) counts as nothing done.
Float64 ClampValue(Float64 v) {
    if (std::isnan(v)) return 0.0;
    return std::clamp(v, 0.0, 1.0);
}

// A weight that is negative, NaN or infinite counts as 0: it cannot be weighed against others.
Float64 ClampWeight(Float64 w) { return std::isfinite(w) && w > 0.0 ? w : 0.0; }

void NotifyChange(BackgroundMasterObject* master) {
    ObservableObject* observable;
    {
        std::lock_guard<std::mutex> lock(master->mutex);
        observable = master->observable;
    }
    if (observable) {
        Result<void> r = ObservableInterface::Notify(observable, true);
        (void)r;  // short of memory an observer misses a change, the progress stays right
    }
}

BackgroundMasterObject* GetMaster() {
    // Lives to the end of the process: entries may be dropped while statics are destroyed.
    static BackgroundMasterObject* master = NewImmortalObject<BackgroundMasterObject>();
    return master;
}

Result<BackgroundEntryObject*> AddActiveEntry(BackgroundMasterObject* master, const char* name,
                                              Int) {
    if (!master) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No progress list");
    auto* entry = NewCountedObject<BackgroundEntryObject>(
        &DeleteCountedObject<BackgroundEntryObject>, QUORV_SOURCE_LOCATION);
    if (!entry) return OutOfMemoryError();
    AddReference(entry);  // the caller's
    entry->master = master;
    Result<void> added = GuardAllocation([&]() -> Result<void> {
        entry->name = name ? name : "";
        std::lock_guard<std::mutex> lock(master->mutex);
        master->entries.push_back(entry);
        AddReference(entry);  // the list's
        return OK;
    });
    if (added.IsError()) {
        RemoveReference(entry);
        return added.GetError();
    }
    NotifyChange(master);
    return entry;
}

void RemoveActiveEntry(BackgroundMasterObject* master, BackgroundEntryObject* entry) {
    if (!master || !entry) return;
    bool removed = false;
    {
        std::lock_guard<std::mutex> lock(master->mutex);
        auto it = std::find(master->entries.begin(), master->entries.end(), entry);
        if (it != master->entries.end()) {
            master->entries.erase(it);
            removed = true;
        }
    }
    if (!removed) return;
    NotifyChange(master);
    RemoveReference(entry);  // the list's, after the observers: they may look at it
}

Int GetEntryCount(const BackgroundMasterObject* master) {
    if (!master) return 0;
    auto* m = const_cast<BackgroundMasterObject*>(master);
    std::lock_guard<std::mutex> lock(m->mutex);
    return static_cast<Int>(m->entries.size());
}

BackgroundEntryObject* GetEntry(const BackgroundMasterObject* master, Int index) {
    if (!master) return nullptr;
    auto* m = const_cast<BackgroundMasterObject*>(master);
    std::lock_guard<std::mutex> lock(m->mutex);
    if (index < 0 || index >= static_cast<Int>(m->entries.size())) return nullptr;
    BackgroundEntryObject* e = m->entries[static_cast<size_t>(index)];
    AddReference(e);
    return e;
}

Result<ObserverHandleObject*> AddMasterObserver(BackgroundMasterObject* master,
                                                ObserverFunction function, void* user) {
    if (!master) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No progress list");
    ObservableObject* observable;
    {
        std::lock_guard<std::mutex> lock(master->mutex);
        if (!master->observable) {
            Result<ObservableObject*> made = ObservableInterface::Create(
                OBSERVABLE_CLASS_ID, OBSERVABLE_COMBINER_RUNALL_ID, OBSERVER_CLASS_ID);
            if (made.IsError()) return made.GetError();
            master->observable = made.GetValue();
        }
        observable = master->observable;
    }
    return ObservableInterface::AddObserver(observable, function, user);
}

// ---- entries ------------------------------------------------------------------------------

Result<Int> AddProgressJob(BackgroundEntryObject* entry, Float64 weight, const char* name) {
    if (!entry) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No progress entry");
    Result<Int> index = GuardAllocation([&]() -> Result<Int> {
        std::lock_guard<std::mutex> lock(entry->mutex);
        entry->jobs.push_back({ClampWeight(weight), 0.0, name ? name : ""});
        return static_cast<Int>(entry->jobs.size()) - 1;
    });
    if (index.IsOk()) NotifyChange(entry->master);
    return index;
}

Result<void> SetProgressAndCheckBreak(BackgroundEntryObject* entry, Int job, Float64 value) {
    if (!entry) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No progress entry");
    bool changed = false;
    bool broken;
    {
        std::lock_guard<std::mutex> lock(entry->mutex);
        if (job < 0 || job >= static_cast<Int>(entry->jobs.size())) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             INVALID_JOB_MESSAGE);
        }
        Float64& v = entry->jobs[static_cast<size_t>(job)].value;
        const Float64 clamped = ClampValue(value);
        changed = v != clamped;
        v = clamped;
        broken = entry->broken;
    }
    if (changed) NotifyChange(entry->master);
    if (broken) return OperationCancelledError(QUORV_SOURCE_LOCATION);
    return OK;
}

Float64 GetProgress(const BackgroundEntryObject* entry) {
    if (!entry) return 0.0;
    std::lock_guard<std::mutex> lock(entry->mutex);
    // Weights are scaled by the largest first, so that huge weights cannot overflow the sum.
    Float64 largest = 0.0;
    for (const auto& j : entry->jobs) largest = std::max(largest, j.weight);
    if (largest <= 0.0) return 0.0;
    Float64 weights = 0.0;
    Float64 done = 0.0;
    for (const auto& j : entry->jobs) {
        const Float64 w = j.weight / largest;
        weights += w;
        done += w * j.value;
    }
    return ClampValue(done / weights);
}

Float64 GetJobProgress(const BackgroundEntryObject* entry, Int job) {
    if (!entry) return 0.0;
    std::lock_guard<std::mutex> lock(entry->mutex);
    if (job < 0 || job >= static_cast<Int>(entry->jobs.size())) return 0.0;
    return entry->jobs[static_cast<size_t>(job)].value;
}

Int GetJobCount(const BackgroundEntryObject* entry) {
    if (!entry) return 0;
    std::lock_guard<std::mutex> lock(entry->mutex);
    return static_cast<Int>(entry->jobs.size());
}

Int GetName(const BackgroundEntryObject* entry, char* buffer, Int capacity) {
    if (!entry) return WriteTextToBuffer("", buffer, capacity);
    return WriteTextToBuffer(entry->name, buffer, capacity);  // the name never changes
}

void Break(BackgroundEntryObject* entry) {
    if (!entry) return;
    bool changed;
    {
        std::lock_guard<std::mutex> lock(entry->mutex);
        changed = !entry->broken;
        entry->broken = true;
    }
    if (changed) NotifyChange(entry->master);
}

const BackgroundProgressInterface::Slots g_masterSlots{
    .GetMaster = &GetMaster,
    .AddActiveEntry = &AddActiveEntry,
    .RemoveActiveEntry = &RemoveActiveEntry,
    .GetEntryCount = &GetEntryCount,
    .GetEntry = &GetEntry,
    .AddObserver = &AddMasterObserver,
};

const ProgressInterface::Slots g_progressSlots{
    .AddProgressJob = &AddProgressJob,
    .SetProgressAndCheckBreak = &SetProgressAndCheckBreak,
    .GetProgress = &GetProgress,
    .GetJobProgress = &GetJobProgress,
    .GetJobCount = &GetJobCount,
    .GetName = &GetName,
    .Break = &Break,
};

}  // namespace

void RegisterProgressService(Host& host) {
    host.RegisterService<BackgroundProgressInterface>(g_masterSlots);
    host.RegisterService<ProgressInterface>(g_progressSlots);
}

}  // namespace quorv::host
