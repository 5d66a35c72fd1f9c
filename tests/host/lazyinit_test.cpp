// LazyInitThreaded on the host's job system: a failure is kept, a cancelled run is not, and a
// caller that runs inside another caller's wait waits for the same run.
#include "quorv/lazyinit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace quorv {
namespace {

using STATE = LazyInitThreaded::STATE;

TEST(LazyInitThreaded, AFailureIsKeptAndNotRunAgain) {
    LazyInitThreaded lazy;
    int runs = 0;
    auto fail = [&]() -> Result<void> {
        ++runs;
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "file missing");
    };
    EXPECT_STREQ(lazy.Run(fail).GetErrorPointer()->message, "file missing");
    EXPECT_EQ(lazy.GetState(), STATE::FAILED);
    EXPECT_STREQ(lazy.Run(fail).GetErrorPointer()->message, "file missing");
    EXPECT_EQ(runs, 1);
}

// A run whose job is cancelled leaves the state as it was before: the next caller runs the
// work again, and a success then sticks.
TEST(LazyInitThreaded, ACancelledRunResetsAndTheNextCallRunsAgain) {
    LazyInitThreaded lazy;
    int runs = 0;
    auto cancelledOnce = [&]() -> Result<void> {
        if (++runs == 1) {
            ThreadServicesInterface::Cancel(ThreadServicesInterface::GetCurrentJob());
            return OperationCancelledError(QUORV_SOURCE_LOCATION);
        }
        return OK;
    };
    Result<void> first = lazy.Run(cancelledOnce);
    ASSERT_TRUE(first.IsError());
    EXPECT_TRUE(IsOperationCancelled(first.GetErrorPointer()));
    EXPECT_EQ(lazy.GetState(), STATE::UNINITIALIZED);
    EXPECT_TRUE(lazy.Run(cancelledOnce).IsOk());
    EXPECT_EQ(lazy.GetState(), STATE::INITIALIZED);
    EXPECT_TRUE(lazy.Run(cancelledOnce).IsOk());
    EXPECT_EQ(runs, 2);
}

// The free step of a slot: a pending run is cancelled and waited for; afterwards the state is
// reset, and the caller that waited got the cancellation.
TEST(LazyInitThreaded, CancelAndResetCancelsAPendingRunAndWaits) {
    LazyInitThreaded lazy;
    std::atomic<bool> started{false}, ended{false};
    Result<void> seen = OK;
    std::thread caller([&] {
        seen = lazy.Run([&]() -> Result<void> {
            started = true;
            while (!ThreadServicesInterface::IsCurrentJobCancelled())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ended = true;
            return OperationCancelledError(QUORV_SOURCE_LOCATION);
        });
    });
    while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    lazy.CancelAndReset();
    EXPECT_TRUE(ended.load()) << "CancelAndReset returned before the run ended";
    caller.join();
    EXPECT_TRUE(IsOperationCancelled(seen.GetErrorPointer()));
    EXPECT_EQ(lazy.GetState(), STATE::UNINITIALIZED);
}

// The work runs as a job of its caller's queue: the default queue (null) for a plain thread,
// the private queue for a job of one. With one thread, the queue's only worker is the caller,
// blocked in its wait: the work runs only because that wait runs it itself. A host without
// the current-queue slot (its zero answer) sends the work to the default queue, and the caller
// still gets it done.
TEST(LazyInitThreaded, TheWorkRunsOnTheQueueOfItsCaller) {
    using Slot = decltype(ThreadServicesInterface::slots.GetCurrentQueue);
    const Slot bound = ThreadServicesInterface::slots.GetCurrentQueue;
    const Slot unbound = reinterpret_cast<Slot>(
        ThreadServicesInterface::Describe().stubs[ThreadServicesInterface::IDX_GetCurrentQueue]);
    struct Seen {
        std::atomic<int> runs{0};
        std::atomic<JobQueueObject*> queue{nullptr};
        std::atomic<bool> onCallersThread{false};
    };
    // Runs `lazy` with work that records where it runs (the host's own answer, whatever the
    // slot table says); `caller` is the thread that asks.
    auto ask = [bound](LazyInitThreaded& lazy, Seen& seen, std::thread::id caller) {
        return lazy.Run([&seen, caller, bound]() -> Result<void> {
            ++seen.runs;
            seen.queue = bound();
            seen.onCallersThread = std::this_thread::get_id() == caller;
            return OK;
        });
    };

    LazyInitThreaded fromThread;
    Seen plain;
    plain.queue = reinterpret_cast<JobQueueObject*>(&plain);  // anything but null
    EXPECT_TRUE(ask(fromThread, plain, std::this_thread::get_id()).IsOk());
    EXPECT_EQ(plain.runs.load(), 1);
    EXPECT_EQ(plain.queue.load(), nullptr);

    for (const Slot slot : {bound, unbound}) {
        SCOPED_TRACE(slot == bound ? "current-queue slot bound" : "current-queue slot unbound");
        JobQueueObject* queue = JobQueueInterface::Alloc(
            JOBQUEUETYPE::LOWESTPRIORITY, 1, JOBQUEUEMODE::DEFAULT, "lazy", QUORV_SOURCE_LOCATION);
        ASSERT_NE(queue, nullptr);
        LazyInitThreaded lazy;
        Seen seen;
        std::atomic<bool> done{false};
        Result<void> result = MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "not run");
        JobRef caller = ClosureJob::Create([&]() -> Result<void> {
                            result = ask(lazy, seen, std::this_thread::get_id());
                            done = true;
                            return OK;
                        }).GetValue();
        ThreadServicesInterface::slots.GetCurrentQueue = slot;
        ASSERT_TRUE(caller.Enqueue(queue).IsOk());
        // Waiting for the caller only once it has ended keeps it on the queue's worker; a
        // caller that waits for a worker it is itself fails here instead of stopping the run.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        if (!done) {
            std::fprintf(stderr,
                         "[  FAILED  ] a caller on a queue of one thread still waits "
                         "for its work after 60 s\n");
            std::fflush(stderr);
            std::_Exit(EXIT_FAILURE);
        }
        EXPECT_TRUE(caller.Wait());
        ThreadServicesInterface::slots.GetCurrentQueue = bound;
        EXPECT_TRUE(result.IsOk()) << ErrorToString(result.GetErrorPointer());
        EXPECT_EQ(seen.runs.load(), 1);
        EXPECT_EQ(seen.queue.load(), slot == bound ? queue : nullptr);
        if (slot == bound) {
            EXPECT_TRUE(seen.onCallersThread.load());
        }
        EXPECT_EQ(lazy.GetState(), STATE::INITIALIZED);
        JobQueueInterface::Free(queue);
    }
}

// ---- a caller inside the owner's wait, on the owner's thread --------------------------------

decltype(ThreadServicesInterface::slots.Enqueue) g_hostEnqueue = nullptr;
std::atomic<bool> g_handOff{false};
std::atomic<bool> g_runStarted{false};
std::thread g_runThread;
JobObject* g_enqueueAfterStart = nullptr;

// The run's job is started by a thread of the test before its caller gets to wait for it (as
// when another worker takes it first); then `g_enqueueAfterStart` is queued, for the caller's
// wait to find.
Result<void> EnqueueStartedElsewhere(JobObject* job, JobQueueObject* queue) {
    Result<void> queued = g_hostEnqueue(job, queue);
    if (queued.IsError() || !g_handOff.exchange(false)) return queued;
    ThreadServicesInterface::AddJobReference(job);
    g_runThread = std::thread([job] {
        ThreadServicesInterface::Wait(job, JOB_WAIT_INFINITE);
        ThreadServicesInterface::RemoveJobReference(job);
    });
    while (!g_runStarted) std::this_thread::sleep_for(std::chrono::microseconds(200));
    EXPECT_TRUE(g_hostEnqueue(g_enqueueAfterStart, nullptr).IsOk());
    return queued;
}

TEST(LazyInitThreaded, ACallerInsideTheOwnersWaitOnItsThreadWaitsForTheSameRun) {
    // Every worker of the default queue is held, so only a waiting thread runs its jobs.
    const Int workers = JobQueueInterface::GetThreadCount(nullptr);
    std::atomic<bool> go{false};
    std::atomic<Int> holding{0};
    std::vector<JobRef> held;
    for (Int i = 0; i < workers; ++i) {
        held.push_back(ClosureJob::Create([&]() -> Result<void> {
                           ++holding;
                           while (!go) std::this_thread::sleep_for(std::chrono::microseconds(200));
                           return OK;
                       }).GetValue());
        ASSERT_TRUE(held.back().Enqueue(nullptr).IsOk());
    }
    while (holding.load() < workers) std::this_thread::sleep_for(std::chrono::microseconds(200));

    LazyInitThreaded lazy;
    std::atomic<int> runs{0};
    std::atomic<bool> innerStarted{false}, done{false};
    auto work = [&]() -> Result<void> {
        ++runs;
        g_runStarted = true;
        // Still running when the inner caller comes.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!innerStarted && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        return OK;
    };
    const std::thread::id owner = std::this_thread::get_id();
    std::atomic<bool> innerOnOwner{false};
    Result<void> inner = MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "not run");
    JobRef innerJob = ClosureJob::Create([&]() -> Result<void> {
                          innerOnOwner = std::this_thread::get_id() == owner;
                          innerStarted = true;
                          inner = lazy.Run(work);
                          return OK;
                      }).GetValue();
    g_enqueueAfterStart = innerJob.Get();
    // A hang fails the test here instead of stopping the run.
    std::thread watchdog([&] {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done) {
            if (std::chrono::steady_clock::now() > end) {
                std::fprintf(stderr, "[  FAILED  ] the inner caller still waits after 60 s\n");
                std::fflush(stderr);
                std::_Exit(EXIT_FAILURE);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    g_hostEnqueue = ThreadServicesInterface::slots.Enqueue;
    ThreadServicesInterface::slots.Enqueue = &EnqueueStartedElsewhere;
    g_handOff = true;
    const Result<void> outer = lazy.Run(work);
    ThreadServicesInterface::slots.Enqueue = g_hostEnqueue;
    done = true;
    watchdog.join();
    go = true;
    if (g_runThread.joinable()) g_runThread.join();
    for (JobRef& j : held) j.Wait();
    EXPECT_TRUE(innerJob.Wait());
    EXPECT_TRUE(outer.IsOk());
    EXPECT_TRUE(innerOnOwner.load()) << "the inner caller ran elsewhere: nothing was shown";
    EXPECT_TRUE(inner.IsOk()) << ErrorToString(inner.GetErrorPointer());
    EXPECT_EQ(runs.load(), 1);
    EXPECT_EQ(lazy.GetState(), STATE::INITIALIZED);
}

}  // namespace
}  // namespace quorv
