// Parallel loops on oneTBB: dynamic partitions (auto partitioner over a blocked range with the
// caller's grain size), the worker index from the task arena.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <atomic>
#include <mutex>
#include <new>
#include <stdexcept>

#include "host_internal.h"
#include "quorv/parallel.h"
#include "services_impl.h"

namespace quorv::host {

namespace {

// Loops run in an arena of their own: a loop started inside a job of a narrow job queue
// (whose arena may have a single slot) still gets the job system's width.
tbb::task_arena& LoopArena() {
    static tbb::task_arena* arena =
        new tbb::task_arena(static_cast<int>(JobSystemThreadCount()), 1);
    return *arena;
}

Int GetWorkerCount() { return LoopArena().max_concurrency(); }

Int GetCurrentWorkerThreadIndex() {
    int i = tbb::this_task_arena::current_thread_index();
    return i == tbb::task_arena::not_initialized ? 0 : i;
}

Result<void> For(Int from, Int to, Int granularity, ParallelForBody body, void* user) {
    if (!body) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Loop body missing");
    if (to <= from) return OK;
    if (granularity < 1) granularity = 1;
    std::mutex errorMutex;
    Result<void> first = OK;
    std::atomic<bool> failed{false};
    // The loop's fork and join happen inside libtbb, where the thread sanitizer cannot see
    // them: the caller's release on this counter and each partition's acquire make the caller's
    // writes visible to the workers, each partition's release and the acquire after the loop the
    // hand-back of the workers' writes (and reads). One atomic add per partition.
    std::atomic<Int> partitionsDone{0};
    partitionsDone.store(0, std::memory_order_release);
    try {
        tbb::task_group_context context;
        const Int workers = GetWorkerCount();
        LoopArena().execute([&] {
            // The arena may hand this to a worker when its caller slot is taken.
            (void)partitionsDone.load(std::memory_order_acquire);
            tbb::parallel_for(
                tbb::blocked_range<Int>(from, to, static_cast<size_t>(granularity)),
                [&](const tbb::blocked_range<Int>& r) {
                    (void)partitionsDone.load(std::memory_order_acquire);
                    if (failed.load(std::memory_order_relaxed)) return;
                    Int worker = GetCurrentWorkerThreadIndex();
                    if (worker < 0 || worker >= workers) worker = 0;
                    Result<void> result = body(user, r.begin(), r.end(), worker);
                    if (result.IsError()) {
                        std::lock_guard<std::mutex> lock(errorMutex);
                        if (!failed.exchange(true)) {
                            first = result;
                            context.cancel_group_execution();
                        }
                    }
                    partitionsDone.fetch_add(1, std::memory_order_release);
                },
                tbb::auto_partitioner(), context);
        });
        (void)partitionsDone.load(std::memory_order_acquire);
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
    } catch (const std::exception& e) {
        return MakeError(ERRORKIND::OTHER, QUORV_SOURCE_LOCATION, e.what());
    } catch (...) {
        return MakeError(ERRORKIND::OTHER, QUORV_SOURCE_LOCATION,
                         "Unexpected failure in a parallel loop");
    }
    return first;
}

const ParallelInterface::Slots g_slots{
    .GetWorkerCount = &GetWorkerCount,
    .GetCurrentWorkerThreadIndex = &GetCurrentWorkerThreadIndex,
    .For = &For,
};

}  // namespace

void RegisterParallelService(Host& host) { host.RegisterService<ParallelInterface>(g_slots); }

}  // namespace quorv::host
