// Job queues, cancellation with observers and latched condition variables. Events are ordered
// by gates the test opens, never by sleeps; a bounded wait only turns a hang into a failure.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/jobs.h"

namespace quorv {
namespace {

using namespace std::chrono_literals;

// A gate: threads wait until the test opens it.
class Gate {
public:
    void Open() {
        {
            std::lock_guard<std::mutex> lock(_m);
            _open = true;
        }
        _cv.notify_all();
    }
    void Pass() {
        std::unique_lock<std::mutex> lock(_m);
        _cv.wait(lock, [this] { return _open; });
    }

private:
    std::mutex _m;
    std::condition_variable _cv;
    bool _open = false;
};

// Counts arrivals; the test waits for a number of them (a failure, not a hang, if they never
// come).
class Arrivals {
public:
    // Notifies under the lock: a waiter that returns may destroy this at once, and must not do
    // so while an arrival still wakes it (an observer's arrival is the last thing it does).
    void Arrive() {
        std::lock_guard<std::mutex> lock(_m);
        ++_count;
        _cv.notify_all();
    }
    bool WaitFor(int n) {
        std::unique_lock<std::mutex> lock(_m);
        return _cv.wait_for(lock, 60s, [&] { return _count >= n; });
    }
    int Count() {
        std::lock_guard<std::mutex> lock(_m);
        return _count;
    }

private:
    std::mutex _m;
    std::condition_variable _cv;
    int _count = 0;
};

JobQueueRef MakeQueue(Int threads, JOBQUEUETYPE type = JOBQUEUETYPE::NORMAL) {
    Result<JobQueueRef> q = JobQueueRef::Create(type, threads, JOBQUEUEMODE::DEFAULT, "test");
    EXPECT_TRUE(q.IsOk());
    return q.IsOk() ? std::move(q.GetValue()) : JobQueueRef();
}

template <typename F>
JobRef MakeJob(F&& f) {
    Result<JobRef> j = ClosureJob::Create(std::forward<F>(f), nullptr);
    EXPECT_TRUE(j.IsOk());
    return j.IsOk() ? j.GetValue() : JobRef();
}

void Count(void* user, JobObject*) { static_cast<std::atomic<int>*>(user)->fetch_add(1); }

TEST(JobQueue, AQueueOfNThreadsRunsNGatedJobsAtOnce) {
    EXPECT_GE(JobQueueInterface::GetThreadCount(nullptr), 1);
    for (JOBQUEUETYPE type : {JOBQUEUETYPE::NORMAL, JOBQUEUETYPE::LOWESTPRIORITY}) {
        // Three threads on any machine, two cores included: all three jobs must be inside at
        // once before the gate opens, or the test fails.
        JobQueueRef queue = MakeQueue(3, type);
        ASSERT_TRUE(queue);
        EXPECT_EQ(queue.GetThreadCount(), 3);
        Gate gate;
        Arrivals inside;
        std::vector<JobRef> jobs;
        for (int i = 0; i < 3; ++i) {
            jobs.push_back(MakeJob([&]() -> Result<void> {
                inside.Arrive();
                gate.Pass();
                return OK;
            }));
            ASSERT_TRUE(jobs.back().Enqueue(queue.Get()).IsOk());
        }
        EXPECT_TRUE(inside.WaitFor(3)) << "only " << inside.Count() << " of 3 jobs ran at once";
        gate.Open();
        for (const JobRef& j : jobs) {
            EXPECT_TRUE(j.Wait());
            EXPECT_TRUE(j.GetResult().IsOk());
        }
    }
}

TEST(JobQueue, CancelRunsTheCancelledObserversOnceInsideTheFirstCall) {
    // Many threads cancel at once: the observers run exactly once, on one of them, and have
    // ended when that thread's `Cancel` returns.
    for (int round = 0; round < 20; ++round) {
        JobRef job = MakeJob([]() -> Result<void> { return OK; });
        std::atomic<int> calls{0};
        std::atomic<std::thread::id> observerThread{};
        struct Seen {
            std::atomic<int>* calls;
            std::atomic<std::thread::id>* thread;
        } seen{&calls, &observerThread};
        ASSERT_TRUE(ThreadServicesInterface::AddCancelledObserver(
                        job.Get(),
                        [](void* user, JobObject*) {
                            auto* s = static_cast<Seen*>(user);
                            s->thread->store(std::this_thread::get_id());
                            s->calls->fetch_add(1);
                        },
                        &seen)
                        .IsOk());
        Gate start;
        std::vector<std::thread> threads;
        std::vector<int> countAfterOwnCancel(4, -1);
        std::vector<std::thread::id> ids(4);
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                ids[t] = std::this_thread::get_id();
                start.Pass();
                job.Cancel();
                if (observerThread.load() == std::this_thread::get_id())
                    countAfterOwnCancel[t] = calls.load();
            });
        }
        start.Open();
        for (auto& t : threads) t.join();
        EXPECT_EQ(calls.load(), 1);
        int firsts = 0;
        for (int t = 0; t < 4; ++t) {
            if (ids[t] == observerThread.load()) {
                ++firsts;
                EXPECT_EQ(countAfterOwnCancel[t], 1) << "observer still running after Cancel";
            }
        }
        EXPECT_EQ(firsts, 1) << "the observer ran on a thread that did not cancel";
        // An observer added after the cancel runs at once, on the adding thread.
        ASSERT_TRUE(
            ThreadServicesInterface::AddCancelledObserver(job.Get(), &Count, &calls).IsOk());
        EXPECT_EQ(calls.load(), 2);
        job.Cancel();
        EXPECT_EQ(calls.load(), 2);
    }
}

TEST(JobQueue, AJobCancelledUnstartedSkipsItsBodyButNotItsFinishedObservers) {
    JobQueueRef queue = MakeQueue(1);
    std::atomic<int> bodies{0}, cancelled{0}, finished{0};
    JobRef job = MakeJob([&]() -> Result<void> {
        bodies.fetch_add(1);
        return OK;
    });
    ASSERT_TRUE(
        ThreadServicesInterface::AddCancelledObserver(job.Get(), &Count, &cancelled).IsOk());
    ASSERT_TRUE(ThreadServicesInterface::AddFinishedObserver(job.Get(), &Count, &finished).IsOk());
    job.Cancel();
    EXPECT_EQ(cancelled.load(), 1);
    EXPECT_EQ(finished.load(), 0) << "cancelling is not finishing";
    ASSERT_TRUE(job.Enqueue(queue.Get()).IsOk());
    queue.CancelAndWait();
    EXPECT_TRUE(ThreadServicesInterface::IsFinished(job.Get()));
    EXPECT_EQ(bodies.load(), 0);
    EXPECT_EQ(finished.load(), 1);
    EXPECT_EQ(cancelled.load(), 1) << "the queue's cancel must not call the observers again";
    EXPECT_TRUE(IsOperationCancelled(job.GetResult().GetErrorPointer()));
    // Cancelling the queue again, or an empty queue, is harmless.
    queue.Cancel();
    queue.CancelAndWait();
    EXPECT_EQ(cancelled.load(), 1);
}

// Observers run with no lock of the job or its queue held: they may enqueue further jobs, on
// the same queue too, even while the queue is being cancelled.
TEST(JobQueue, ObserversMayEnqueueJobs) {
    JobQueueRef queue = MakeQueue(2);
    struct Chain {
        JobQueueObject* queue;
        JobRef next;
        std::atomic<int> enqueued{0};
    };
    std::atomic<int> followUps{0};
    auto followUp = [&]() -> Result<void> {
        followUps.fetch_add(1);
        return OK;
    };
    auto enqueueNext = [](void* user, JobObject*) {
        auto* c = static_cast<Chain*>(user);
        if (c->next.Enqueue(c->queue).IsOk()) c->enqueued.fetch_add(1);
    };

    Chain onFinish{queue.Get(), MakeJob(followUp)};
    JobRef first = MakeJob([]() -> Result<void> { return OK; });
    ASSERT_TRUE(
        ThreadServicesInterface::AddFinishedObserver(first.Get(), enqueueNext, &onFinish).IsOk());
    ASSERT_TRUE(first.Enqueue(queue.Get()).IsOk());
    EXPECT_TRUE(first.Wait());
    EXPECT_TRUE(onFinish.next.Wait());
    EXPECT_EQ(onFinish.enqueued.load(), 1);
    EXPECT_EQ(followUps.load(), 1);

    Gate gate;
    Arrivals started;
    Chain onCancel{queue.Get(), MakeJob(followUp)};
    JobRef running = MakeJob([&]() -> Result<void> {
        started.Arrive();
        gate.Pass();
        return OK;
    });
    ASSERT_TRUE(ThreadServicesInterface::AddCancelledObserver(running.Get(), enqueueNext, &onCancel)
                    .IsOk());
    ASSERT_TRUE(running.Enqueue(queue.Get()).IsOk());
    ASSERT_TRUE(started.WaitFor(1));
    queue.Cancel();  // the observer enqueues while the queue walks its jobs
    EXPECT_EQ(onCancel.enqueued.load(), 1);
    gate.Open();
    queue.CancelAndWait();
    EXPECT_TRUE(ThreadServicesInterface::IsFinished(onCancel.next.Get()));
    EXPECT_TRUE(running.GetResult().IsOk()) << "a started job ends as its body says";
}

TEST(JobQueue, CancelAndWaitFromAJobOfTheQueueWaitsForTheOthersOnly) {
    JobQueueRef queue = MakeQueue(2);
    Arrivals started;
    std::atomic<bool> peerEnded{false};
    std::atomic<bool> peerEndedBeforeReturn{false};
    JobRef peer = MakeJob([&]() -> Result<void> {
        started.Arrive();
        while (!ThreadServicesInterface::IsCurrentJobCancelled()) std::this_thread::yield();
        peerEnded = true;
        return OK;
    });
    ASSERT_TRUE(peer.Enqueue(queue.Get()).IsOk());
    ASSERT_TRUE(started.WaitFor(1));
    JobQueueObject* q = queue.Get();
    JobRef canceller = MakeJob([&]() -> Result<void> {
        JobQueueInterface::CancelAndWait(q);
        peerEndedBeforeReturn = peerEnded.load();
        return OK;
    });
    ASSERT_TRUE(canceller.Enqueue(queue.Get()).IsOk());
    EXPECT_TRUE(canceller.Wait());
    EXPECT_TRUE(peerEndedBeforeReturn.load()) << "returned before the other job ended";
    EXPECT_TRUE(canceller.GetResult().IsOk()) << "the caller's own job ran to its end";
}

// A cancelled observer of a job of the queue may cancel and wait for that queue: the wait must
// leave out the observers it is running itself.
TEST(JobQueue, CancelAndWaitFromACancelledObserver) {
    JobQueueRef queue = MakeQueue(1);
    Arrivals started;
    JobRef job = MakeJob([&]() -> Result<void> {
        started.Arrive();
        while (!ThreadServicesInterface::IsCurrentJobCancelled()) std::this_thread::yield();
        return OperationCancelledError(QUORV_SOURCE_LOCATION);
    });
    JobQueueObject* q = queue.Get();
    ASSERT_TRUE(ThreadServicesInterface::AddCancelledObserver(
                    job.Get(),
                    [](void* user, JobObject*) {
                        JobQueueInterface::CancelAndWait(static_cast<JobQueueObject*>(user));
                    },
                    q)
                    .IsOk());
    ASSERT_TRUE(job.Enqueue(q).IsOk());
    ASSERT_TRUE(started.WaitFor(1));
    job.Cancel();
    EXPECT_TRUE(ThreadServicesInterface::IsFinished(job.Get()));
}

// The last holder of a queue may let go of it in a finished observer of one of the queue's
// jobs (the preview scheduler's last reference can go there): the cancel-and-wait inside waits
// for the other jobs only, and the queue goes once that job's arena task has returned.
TEST(JobQueue, AFinishedObserverMayCancelAndFreeItsOwnQueue) {
    const char* name = "freed by a finished observer of its own";
    JobQueueObject* q = JobQueueInterface::Alloc(
        JOBQUEUETYPE::LOWESTPRIORITY, 1, JOBQUEUEMODE::DEFAULT, name, QUORV_SOURCE_LOCATION);
    ASSERT_NE(q, nullptr);
    struct Context {
        JobQueueObject* queue;
        Arrivals freed;
    } context{q, {}};
    JobRef job = MakeJob([]() -> Result<void> { return OK; });
    ASSERT_TRUE(ThreadServicesInterface::AddFinishedObserver(
                    job.Get(),
                    [](void* user, JobObject*) {
                        auto* c = static_cast<Context*>(user);
                        JobQueueInterface::CancelAndWait(c->queue);
                        JobQueueInterface::Free(c->queue);
                        c->freed.Arrive();
                    },
                    &context)
                    .IsOk());
    ASSERT_TRUE(job.Enqueue(q).IsOk());
    ASSERT_TRUE(context.freed.WaitFor(1)) << "the observer waited for its own job";
    auto listed = [name] {
        for (const host::JobQueueListing& l : host::Host::Get().ListJobQueues()) {
            if (l.name == name) return true;
        }
        return false;
    };
    for (int i = 0; i < 100000 && listed(); ++i) std::this_thread::yield();
    EXPECT_FALSE(listed()) << "the queue was never freed";
}

// The current queue is the private queue of the job on the calling thread: null on a plain
// thread and in a job of the default queue, the private queue in its jobs wherever they run (on
// its worker, or inline in a plain thread's wait), the waiter's queue in a job that was never
// queued, and null again once the queue's free has begun.
TEST(JobQueue, TheCurrentQueueIsThePrivateQueueOfTheJobOnTheThread) {
    auto current = [] { return ThreadServicesInterface::GetCurrentQueue(); };
    EXPECT_EQ(current(), nullptr);
    JobQueueRef queue = MakeQueue(1);
    ASSERT_TRUE(queue);
    JobQueueObject* const q = queue.Get();
    const std::thread::id tester = std::this_thread::get_id();

    // On the queue's worker, and in the jobs its wait runs: one never queued, one of the
    // default queue.
    std::atomic<JobQueueObject*> own{nullptr}, unqueued{nullptr}, afterwards{q};
    std::atomic<JobQueueObject*> ofDefault{q};
    std::atomic<bool> onWorker{false};
    Arrivals started;
    JobRef job = MakeJob([&]() -> Result<void> {
        started.Arrive();
        onWorker = std::this_thread::get_id() != tester;
        own = current();
        JobRef inner = MakeJob([&]() -> Result<void> {
            unqueued = current();
            return OK;
        });
        inner.Wait();  // never queued: runs here
        JobRef other = MakeJob([&]() -> Result<void> {
            ofDefault = current();
            return OK;
        });
        EXPECT_TRUE(other.Enqueue(nullptr).IsOk());
        other.Wait();
        afterwards = current();
        return OK;
    });
    ASSERT_TRUE(job.Enqueue(q).IsOk());
    // Waiting only once it runs keeps it on the worker.
    ASSERT_TRUE(started.WaitFor(1));
    EXPECT_TRUE(job.Wait());
    EXPECT_TRUE(onWorker.load());
    EXPECT_EQ(own.load(), q);
    EXPECT_EQ(unqueued.load(), q);
    EXPECT_EQ(ofDefault.load(), nullptr);
    EXPECT_EQ(afterwards.load(), q);
    EXPECT_EQ(current(), nullptr);

    // A job of the queue that this plain thread's wait runs, while the worker is held.
    Gate gate;
    Arrivals holding;
    JobRef holder = MakeJob([&]() -> Result<void> {
        holding.Arrive();
        gate.Pass();
        return OK;
    });
    ASSERT_TRUE(holder.Enqueue(q).IsOk());
    ASSERT_TRUE(holding.WaitFor(1));
    std::atomic<JobQueueObject*> ranInline{nullptr};
    std::atomic<bool> onTester{false};
    JobRef waited = MakeJob([&]() -> Result<void> {
        onTester = std::this_thread::get_id() == tester;
        ranInline = current();
        return OK;
    });
    ASSERT_TRUE(waited.Enqueue(q).IsOk());
    EXPECT_TRUE(waited.Wait());
    gate.Open();
    EXPECT_TRUE(holder.Wait());
    EXPECT_TRUE(onTester.load());
    EXPECT_EQ(ranInline.load(), q);
    EXPECT_EQ(current(), nullptr);

    // A job of the default queue.
    std::atomic<JobQueueObject*> defaultJob{q};
    JobRef plain = MakeJob([&]() -> Result<void> {
        defaultJob = current();
        return OK;
    });
    ASSERT_TRUE(plain.Enqueue(nullptr).IsOk());
    EXPECT_TRUE(plain.Wait());
    EXPECT_EQ(defaultJob.load(), nullptr);

    // A job that frees its own queue names it up to the free, and no more after.
    JobQueueObject* freed = JobQueueInterface::Alloc(JOBQUEUETYPE::NORMAL, 1, JOBQUEUEMODE::DEFAULT,
                                                     "freed by its own job", QUORV_SOURCE_LOCATION);
    ASSERT_NE(freed, nullptr);
    std::atomic<JobQueueObject*> beforeFree{nullptr}, afterFree{freed};
    Arrivals freeing;
    JobRef freer = MakeJob([&]() -> Result<void> {
        freeing.Arrive();
        beforeFree = current();
        JobQueueInterface::Free(freed);
        afterFree = current();
        return OK;
    });
    ASSERT_TRUE(freer.Enqueue(freed).IsOk());
    ASSERT_TRUE(freeing.WaitFor(1));
    EXPECT_TRUE(freer.Wait());
    EXPECT_EQ(beforeFree.load(), freed);
    EXPECT_EQ(afterFree.load(), nullptr);
}

TEST(ConditionVariable, SetFreesEveryWaiterForGood) {
    Result<ConditionVariableRef> made = ConditionVariableRef::Create();
    ASSERT_TRUE(made.IsOk());
    const ConditionVariableRef& c = made.GetValue();
    EXPECT_FALSE(c.IsSet());
    // Unset: a negative, zero or NaN timeout only looks; a short one runs out.
    EXPECT_FALSE(c.Wait(TimeValue{-1.0}));
    EXPECT_FALSE(c.Wait(TimeValue{0.0}));
    EXPECT_FALSE(c.Wait(TimeValue{std::numeric_limits<Float64>::quiet_NaN()}));
    EXPECT_FALSE(c.Wait(TimeValue{0.001}));

    Arrivals waiting;
    std::atomic<int> freed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] {
            waiting.Arrive();
            if (c.Wait(TimeValue::Infinite())) freed.fetch_add(1);
        });
    }
    // A very long finite wait is a wait without end too (no overflow of the deadline).
    waiters.emplace_back([&] {
        waiting.Arrive();
        if (c.Wait(TimeValue{1e300})) freed.fetch_add(1);
    });
    ASSERT_TRUE(waiting.WaitFor(5));
    c.Set();
    for (auto& t : waiters) t.join();
    EXPECT_EQ(freed.load(), 5);
    // Latched: later waits of any timeout answer true at once.
    EXPECT_TRUE(c.IsSet());
    EXPECT_TRUE(c.Wait(TimeValue{-1.0}));
    EXPECT_TRUE(c.Wait(TimeValue::Infinite()));
    c.Set();
    EXPECT_TRUE(c.IsSet());
}

}  // namespace
}  // namespace quorv
