// Jobs on the host's job system and the once-only guard word.
#include "quorv/jobs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "quorv/onceguard.h"

namespace quorv {
namespace {

Result<JobRef> MakeJob(std::function<Result<void>()> f, JobObject* parent = nullptr) {
    return ClosureJob::Create(std::move(f), parent);
}

TEST(Jobs, ResultCurrentJobAndObserversOfAFinishedJob) {
    std::atomic<JobObject*> seen{nullptr};
    Result<JobRef> job = MakeJob([&]() -> Result<void> {
        seen = ThreadServicesInterface::GetCurrentJob();
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "job failed on purpose");
    });
    ASSERT_TRUE(job.IsOk());
    const JobRef& j = job.GetValue();
    EXPECT_TRUE(j.GetResult().IsError()) << "no result before the job has run";
    std::atomic<int> finished{0};
    ASSERT_TRUE(ThreadServicesInterface::AddFinishedObserver(
                    j.Get(),
                    [](void* user, JobObject*) { ++*static_cast<std::atomic<int>*>(user); },
                    &finished)
                    .IsOk());
    ASSERT_TRUE(j.Enqueue().IsOk());
    EXPECT_TRUE(j.Enqueue().IsError()) << "a job runs once";
    EXPECT_TRUE(j.Wait());
    EXPECT_EQ(seen.load(), j.Get());
    EXPECT_EQ(ThreadServicesInterface::GetCurrentJob(), nullptr);
    Result<void> r = j.GetResult();
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message, "job failed on purpose");
    EXPECT_EQ(finished.load(), 1);
    // An observer added after the end runs at once.
    ASSERT_TRUE(ThreadServicesInterface::AddFinishedObserver(
                    j.Get(),
                    [](void* user, JobObject*) { ++*static_cast<std::atomic<int>*>(user); },
                    &finished)
                    .IsOk());
    EXPECT_EQ(finished.load(), 2);
}

TEST(Jobs, CancelledBeforeStartDoesNotRunAndTellsItsObserversOnce) {
    std::atomic<bool> ran{false};
    Result<JobRef> job = MakeJob([&]() -> Result<void> {
        ran = true;
        return OK;
    });
    ASSERT_TRUE(job.IsOk());
    const JobRef& j = job.GetValue();
    std::atomic<int> cancelled{0};
    ASSERT_TRUE(ThreadServicesInterface::AddCancelledObserver(
                    j.Get(),
                    [](void* user, JobObject*) { ++*static_cast<std::atomic<int>*>(user); },
                    &cancelled)
                    .IsOk());
    j.Cancel();
    j.Cancel();
    EXPECT_EQ(cancelled.load(), 1);
    EXPECT_TRUE(j.IsCancelled());
    ASSERT_TRUE(j.Enqueue().IsOk());
    EXPECT_TRUE(j.Wait());
    EXPECT_FALSE(ran.load());
    Result<void> r = j.GetResult();
    EXPECT_TRUE(IsOperationCancelled(r.GetErrorPointer())) << ErrorToString(r.GetErrorPointer());
}

TEST(Jobs, ACancelledParentCancelsItsChildren) {
    std::atomic<bool> release{false};
    std::atomic<bool> sawCancel{false};
    Result<JobRef> parent = MakeJob([&]() -> Result<void> {
        Result<JobRef> child = MakeJob(
            [&]() -> Result<void> {
                while (!release.load()) std::this_thread::yield();
                sawCancel = ThreadServicesInterface::IsCurrentJobCancelled();
                return OK;
            },
            ThreadServicesInterface::GetCurrentJob());
        if (child.IsError()) return child.GetError();
        QUORV_RETURN_IF_ERROR(child.GetValue().Enqueue());
        child.GetValue().Wait();
        return child.GetValue().GetResult();
    });
    ASSERT_TRUE(parent.IsOk());
    ASSERT_TRUE(parent.GetValue().Enqueue().IsOk());
    // Give the parent a chance to start, so that the child sees the cancel while it runs.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    parent.GetValue().Cancel();
    release = true;
    EXPECT_TRUE(parent.GetValue().Wait());
    // Whichever of parent and child ran saw the cancel; one that had not started never ran.
    Result<void> r = parent.GetValue().GetResult();
    if (r.IsOk()) {
        EXPECT_TRUE(sawCancel.load());
    } else {
        EXPECT_TRUE(IsOperationCancelled(r.GetErrorPointer()));
    }
}

TEST(Jobs, WaitTimesOutOnARunningJobAndReturnsOnceItEnds) {
    std::atomic<bool> started{false}, release{false};
    Result<JobRef> job = MakeJob([&]() -> Result<void> {
        started = true;
        while (!release.load()) std::this_thread::yield();
        return OK;
    });
    ASSERT_TRUE(job.IsOk());
    ASSERT_TRUE(job.GetValue().Enqueue().IsOk());
    while (!started.load()) std::this_thread::yield();
    EXPECT_FALSE(job.GetValue().Wait(0.01));
    release = true;
    EXPECT_TRUE(job.GetValue().Wait());
    EXPECT_TRUE(job.GetValue().GetResult().IsOk());
}

// On a private queue of one thread, a job that waits for another job of the same queue would
// block forever if the waiter did not run it.
TEST(Jobs, WaitingInsideAOneThreadQueueRunsTheAwaitedJob) {
    JobQueueObject* queue = JobQueueInterface::Alloc(JOBQUEUETYPE::NORMAL, 1, JOBQUEUEMODE::DEFAULT, "test", QUORV_SOURCE_LOCATION);
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(JobQueueInterface::GetThreadCount(queue), 1);
    std::atomic<int> depth{0};
    Result<JobRef> outer = MakeJob([&]() -> Result<void> {
        std::vector<JobRef> inner;
        for (int i = 0; i < 4; ++i) {
            Result<JobRef> j = MakeJob([&]() -> Result<void> {
                ++depth;
                return OK;
            });
            if (j.IsError()) return j.GetError();
            QUORV_RETURN_IF_ERROR(j.GetValue().Enqueue(queue));
            inner.push_back(j.GetValue());
        }
        ScopedExclusiveResourceWait bracket;
        EXPECT_EQ(ThreadServicesInterface::GetExclusiveWaiterCount(), 1);
        for (const JobRef& j : inner) j.Wait();
        return OK;
    });
    ASSERT_TRUE(outer.IsOk());
    ASSERT_TRUE(outer.GetValue().Enqueue(queue).IsOk());
    EXPECT_TRUE(outer.GetValue().Wait(60.0));
    EXPECT_EQ(depth.load(), 4);
    EXPECT_EQ(ThreadServicesInterface::GetExclusiveWaiterCount(), 0);
    JobQueueInterface::Free(queue);
}

TEST(Jobs, CancelAndWaitOfAQueueEndsEveryJob) {
    JobQueueObject* queue = JobQueueInterface::Alloc(JOBQUEUETYPE::NORMAL, 2, JOBQUEUEMODE::DEFAULT, "test", QUORV_SOURCE_LOCATION);
    ASSERT_NE(queue, nullptr);
    std::vector<JobRef> jobs;
    for (int i = 0; i < 16; ++i) {
        Result<JobRef> j = MakeJob([]() -> Result<void> {
            while (!ThreadServicesInterface::IsCurrentJobCancelled()) std::this_thread::yield();
            return OperationCancelledError(QUORV_SOURCE_LOCATION);
        });
        ASSERT_TRUE(j.IsOk());
        ASSERT_TRUE(j.GetValue().Enqueue(queue).IsOk());
        jobs.push_back(j.GetValue());
    }
    JobQueueInterface::CancelAndWait(queue);
    for (const JobRef& j : jobs) {
        EXPECT_TRUE(ThreadServicesInterface::IsFinished(j.Get()));
        EXPECT_TRUE(IsOperationCancelled(j.GetResult().GetErrorPointer()));
    }
    JobQueueInterface::Free(queue);
}

TEST(OnceGuard, ManyThreadsRunTheBuildOnceAndAllSeeItDone) {
    OnceGuard guard;
    std::atomic<int> builds{0};
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            Result<void> r = guard.Run(
                [&]() -> Result<void> {
                    ++builds;
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                    return OK;
                },
                OnceGuard::FAILURE::KEEP_ERROR);
            if (r.IsOk()) ++ok;
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(builds.load(), 1);
    EXPECT_EQ(ok.load(), 8);
    EXPECT_TRUE(guard.IsDone());
    EXPECT_EQ(guard.GetState(), UInt(OnceGuard::DONE));
}

TEST(OnceGuard, AKeptFailureReachesLaterCallersUntilReset) {
    OnceGuard guard;
    int builds = 0;
    auto failing = [&]() -> Result<void> {
        ++builds;
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "cannot build");
    };
    Result<void> first = guard.Run(failing, OnceGuard::FAILURE::KEEP_ERROR);
    Result<void> second = guard.Run(failing, OnceGuard::FAILURE::KEEP_ERROR);
    ASSERT_TRUE(first.IsError());
    ASSERT_TRUE(second.IsError());
    EXPECT_STREQ(second.GetErrorPointer()->message, "cannot build");
    EXPECT_EQ(builds, 1);
    EXPECT_EQ(guard.GetState(), UInt(OnceGuard::FAILED));
    EXPECT_TRUE(guard.ResetFailed());
    EXPECT_FALSE(guard.ResetFailed());
    EXPECT_TRUE(
        guard.Run([&]() -> Result<void> { return OK; }, OnceGuard::FAILURE::KEEP_ERROR).IsOk());
    // MARK_DONE ends in the done state whatever the build answers.
    OnceGuard marked;
    EXPECT_TRUE(marked.Run(failing, OnceGuard::FAILURE::MARK_DONE).IsError());
    EXPECT_TRUE(marked.IsDone());
}

TEST(OnceGuard, ACancelledBuildFreesTheGuardForARetry) {
    OnceGuard guard;
    int builds = 0;
    auto build = [&]() -> Result<void> {
        ++builds;
        if (ThreadServicesInterface::IsCurrentJobCancelled())
            return OperationCancelledError(QUORV_SOURCE_LOCATION);
        return OK;
    };
    Result<JobRef> parent = MakeJob([]() -> Result<void> { return OK; });
    ASSERT_TRUE(parent.IsOk());
    parent.GetValue().Cancel();
    Result<JobRef> child =
        MakeJob([&]() -> Result<void> { return guard.Run(build, OnceGuard::FAILURE::MARK_DONE); },
                parent.GetValue().Get());
    ASSERT_TRUE(child.IsOk());
    // A cancelled job does not start, so the child never reaches the guard: the guard stays free.
    ASSERT_TRUE(child.GetValue().Enqueue().IsOk());
    child.GetValue().Wait();
    EXPECT_EQ(guard.GetState(), UInt(OnceGuard::FREE));
    // A build that is cancelled while it runs also frees the guard.
    Result<JobRef> runner = MakeJob([&]() -> Result<void> {
        return guard.Run(
            [&]() -> Result<void> {
                ++builds;
                while (!ThreadServicesInterface::IsCurrentJobCancelled()) std::this_thread::yield();
                return OperationCancelledError(QUORV_SOURCE_LOCATION);
            },
            OnceGuard::FAILURE::MARK_DONE);
    });
    ASSERT_TRUE(runner.IsOk());
    ASSERT_TRUE(runner.GetValue().Enqueue().IsOk());
    while (guard.GetState() != UInt(OnceGuard::RUNNING)) std::this_thread::yield();
    runner.GetValue().Cancel();
    runner.GetValue().Wait();
    EXPECT_TRUE(IsOperationCancelled(runner.GetValue().GetResult().GetErrorPointer()));
    EXPECT_EQ(guard.GetState(), UInt(OnceGuard::FREE));
    const int before = builds;
    EXPECT_TRUE(guard.Run(build, OnceGuard::FAILURE::MARK_DONE).IsOk());
    EXPECT_EQ(builds, before + 1);
    EXPECT_TRUE(guard.IsDone());
}

}  // namespace
}  // namespace quorv
