#pragma once
/// Background progress: the process's list of visible background activities (the master), each
/// an entry made of weighted progress jobs. An entry's progress is the weighted mean of its
/// jobs' values; values are clamped to [0, 1], NaN counting as 0. A change of the list or of
/// a value notifies the master's observers (quorv/observable.h).
///
/// Thread safety: every function may be called from any thread.

#include "quorv/observable.h"
#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

/// The master list. Opaque; lives as long as the host.
struct BackgroundMasterObject;
/// An entry of the list. Opaque; counted (quorv/ref.h).
struct BackgroundEntryObject;

// clang-format off
#define QUORV_BACKGROUNDPROGRESS_METHODS(M) \
    M(BackgroundMasterObject*, GetMaster, (), ()) \
    M(Result<BackgroundEntryObject*>, AddActiveEntry, (BackgroundMasterObject* master, const char* name, Int flags), (master, name, flags)) \
    M(void, RemoveActiveEntry, (BackgroundMasterObject* master, BackgroundEntryObject* entry), (master, entry)) \
    M(Int, GetEntryCount, (const BackgroundMasterObject* master), (master)) \
    M(BackgroundEntryObject*, GetEntry, (const BackgroundMasterObject* master, Int index), (master, index)) \
    M(Result<ObserverHandleObject*>, AddObserver, (BackgroundMasterObject* master, ObserverFunction function, void* user), (master, function, user))
#define QUORV_PROGRESS_METHODS(M) \
    M(Result<Int>, AddProgressJob, (BackgroundEntryObject* entry, Float64 weight, const char* name), (entry, weight, name)) \
    M(Result<void>, SetProgressAndCheckBreak, (BackgroundEntryObject* entry, Int job, Float64 value), (entry, job, value)) \
    M(Float64, GetProgress, (const BackgroundEntryObject* entry), (entry)) \
    M(Float64, GetJobProgress, (const BackgroundEntryObject* entry, Int job), (entry, job)) \
    M(Int, GetJobCount, (const BackgroundEntryObject* entry), (entry)) \
    M(Int, GetName, (const BackgroundEntryObject* entry, char* buffer, Int capacity), (entry, buffer, capacity)) \
    M(void, Break, (BackgroundEntryObject* entry), (entry))
// clang-format on

/// * `AddActiveEntry`: a new entry at the end of the list, with one reference for the caller
///   (the list holds its own until `RemoveActiveEntry`).
/// * `GetEntry`: the entry at `index` with a new reference, or null past the end.
/// * `AddObserver`: the observer is called (with true) after every change.
QUORV_NONVIRTUAL_INTERFACE(BackgroundProgressInterface, "net.quorv.interface.backgroundprogress",
                           QUORV_BACKGROUNDPROGRESS_METHODS);

/// * `AddProgressJob`: a job of `weight` (a negative or NaN weight counts as 0) at value 0;
///   its index, counting from 0.
/// * `SetProgressAndCheckBreak`: sets the job's value, clamped to [0, 1] with NaN as 0; an
///   unknown job is an illegal-argument error, and after `Break` every call answers the
///   operation-cancelled error (the value is still taken).
/// * `GetProgress`: the weighted mean of the values (0 with no weight at all).
/// * `GetName`: the length of the name; copies at most `capacity` bytes.
QUORV_NONVIRTUAL_INTERFACE(ProgressInterface, "net.quorv.interface.progress",
                           QUORV_PROGRESS_METHODS);

}  // namespace quorv
