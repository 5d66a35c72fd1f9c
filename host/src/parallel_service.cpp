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
#include "tsan_marks.h"

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

// What the partitions of one loop share; on the stack of the thread that runs the loop.
struct LoopState {
    LoopState(ParallelForBody b, void* u, Int w, tbb::task_group_context* c)
        : body(b), user(u), workers(w), context(c) {}

    ParallelForBody body;
    void* user;
    Int workers;
    tbb::task_group_context* context;
    std::mutex errorMutex;
    Result<void> first = OK;
    std::atomic<bool> failed{false};
    // Each partition's release (a skipped one's too) and the acquire after the loop hand the
    // workers' writes and reads back to the caller. One atomic add per partition.
    std::atomic<Int> partitionsDone{0};
};

// The loop body oneTBB copies into its tasks: once when the loop starts, again each time a range
// is split off for another worker. Copying a task, running it on another thread and reusing its
// block from oneTBB's pool for the next task are all ordered inside libtbb, where the thread
// sanitizer cannot see them; so the body states those hand-offs on its own address: a copy
// acquires what the block's last user released and releases what its thread did before (the
// caller's writes included); a run acquires that and releases when it ends.
class Partition {
public:
    explicit Partition(LoopState* state) : state_(state) {}
    Partition(const Partition& other) : state_((TsanAcquire(this), Source(other))) {
        TsanRelease(this);
    }
    Partition& operator=(const Partition&) = delete;

    void operator()(const tbb::blocked_range<Int>& r) const {
        TsanAcquire(this);
        LoopState& s = *state_;
        if (!s.failed.load(std::memory_order_relaxed)) {
            Int worker = GetCurrentWorkerThreadIndex();
            if (worker < 0 || worker >= s.workers) worker = 0;
            Result<void> result = s.body(s.user, r.begin(), r.end(), worker);
            if (result.IsError()) {
                std::lock_guard<std::mutex> lock(s.errorMutex);
                if (!s.failed.exchange(true)) {
                    s.first = result;
                    s.context->cancel_group_execution();
                }
            }
        }
        s.partitionsDone.fetch_add(1, std::memory_order_release);
        TsanRelease(this);
    }

private:
    // A task stolen by a worker may be split there before it runs.
    static LoopState* Source(const Partition& other) {
        TsanAcquire(&other);
        return other.state_;
    }

    LoopState* state_;
};

Result<void> For(Int from, Int to, Int granularity, ParallelForBody body, void* user) {
    if (!body) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Loop body missing");
    if (to <= from) return OK;
    if (granularity < 1) granularity = 1;
    try {
        tbb::task_group_context context;
        LoopState state(body, user, GetWorkerCount(), &context);
        // The arena may hand the loop to a worker when its caller slot is taken: the same
        // hand-off as a partition's copy, stated on the runner itself.
        struct Runner {
            LoopState* state;
            tbb::blocked_range<Int> range;
            void operator()() const {
                TsanAcquire(this);
                tbb::parallel_for(range, Partition(state), tbb::auto_partitioner(),
                                  *state->context);
            }
        };
        const Runner run{&state,
                         tbb::blocked_range<Int>(from, to, static_cast<size_t>(granularity))};
        TsanRelease(&run);
        LoopArena().execute(run);
        (void)state.partitionsDone.load(std::memory_order_acquire);
        return state.first;
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
    } catch (const std::exception& e) {
        return MakeError(ERRORKIND::OTHER, QUORV_SOURCE_LOCATION, e.what());
    } catch (...) {
        return MakeError(ERRORKIND::OTHER, QUORV_SOURCE_LOCATION,
                         "Unexpected failure in a parallel loop");
    }
}

const ParallelInterface::Slots g_slots{
    .GetWorkerCount = &GetWorkerCount,
    .GetCurrentWorkerThreadIndex = &GetCurrentWorkerThreadIndex,
    .For = &For,
};

}  // namespace

void RegisterParallelService(Host& host) { host.RegisterService<ParallelInterface>(g_slots); }

}  // namespace quorv::host
