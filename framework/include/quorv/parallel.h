#pragma once
/// Parallel loops on the host's job system: an index range cut into dynamic partitions of at
/// least a minimum size, each handed to a worker with its index, so that a loop can keep one
/// context per worker.

#include <new>
#include <vector>

#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

/// Body of a loop: one partition [from, to) on the worker `worker` (0 <= worker < the
/// `GetWorkerCount` answer). An error stops the partitions that have not started.
using ParallelForBody = Result<void> (*)(void* user, Int from, Int to, Int worker);

// clang-format off
#define QUORV_PARALLEL_METHODS(M) \
    M(Int, GetWorkerCount, (), ()) \
    M(Int, GetCurrentWorkerThreadIndex, (), ()) \
    M(Result<void>, For, (Int from, Int to, Int granularity, ParallelForBody body, void* user), (from, to, granularity, body, user))
// clang-format on
/// `For` returns when every partition has ended, with the first error of a body, or the
/// out-of-memory error. A `granularity` below 1 counts as 1.
QUORV_NONVIRTUAL_INTERFACE(ParallelInterface, "net.quorv.interface.parallel", QUORV_PARALLEL_METHODS);

/// Runs `body(from, to, worker)` over [from, to) in partitions of at least `granularity`.
template <typename F>
Result<void> ParallelFor(Int from, Int to, Int granularity, F&& body) {
    using Body = std::remove_reference_t<F>;
    auto call = [](void* user, Int a, Int b, Int worker) -> Result<void> {
        return (*static_cast<Body*>(user))(a, b, worker);
    };
    return ParallelInterface::For(from, to, granularity, call, const_cast<void*>(
                                      static_cast<const void*>(&body)));
}

/// As `ParallelFor`, with one value of `Context` per worker: `body(from, to, context)`. The
/// contexts are made by `makeContext()` before the loop and handed to `finish(contexts)` after
/// it, in worker order, when the loop succeeded.
template <typename Context, typename Make, typename F, typename Finish>
Result<void> ParallelForWithContext(Int from, Int to, Int granularity, Make&& makeContext,
                                    F&& body, Finish&& finish) {
    Int workers = ParallelInterface::GetWorkerCount();
    if (workers < 1) workers = 1;
    std::vector<Context> contexts;
    try {
        contexts.reserve(static_cast<size_t>(workers));
        for (Int i = 0; i < workers; ++i) contexts.push_back(makeContext());
    } catch (...) {
        return OutOfMemoryError();
    }
    Result<void> r = ParallelFor(from, to, granularity, [&](Int a, Int b, Int worker) {
        if (worker < 0 || worker >= workers) worker = 0;
        return body(a, b, contexts[static_cast<size_t>(worker)]);
    });
    if (r.IsError()) return r;
    return finish(contexts);
}

}  // namespace quorv
