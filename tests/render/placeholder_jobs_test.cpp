// Preview placeholders asked for from jobs of the pool that runs their load. White-box: the
// module's sources are linked in, so the test can stand between the module and two host
// services (the job queue's Enqueue, the picture load) through this binary's slot tables.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "common/test_support.h"
#include "quorv/jobs.h"
#include "quorv/ref.h"
#include "render/preview/previewimageplaceholder.h"

namespace quorv {
namespace {

using Clock = std::chrono::steady_clock;

// ---- the two services, watched -------------------------------------------------------------

std::atomic<int> g_loads{0};
decltype(ImageTextureInterface::slots.Load) g_hostLoad = nullptr;
decltype(ThreadServicesInterface::slots.Enqueue) g_hostEnqueue = nullptr;

// The order of events the wait test forces, all set once.
std::atomic<bool> g_armed{false};  // callers are about to run: hand the load to another thread
std::atomic<bool> g_handedOff{false};
std::atomic<bool> g_allQueued{false};  // every caller job is queued
std::atomic<bool> g_loadStarted{false};
std::atomic<int> g_callersStarted{0};
std::atomic<int> g_nestedCallers{0};  // callers that started inside another caller's wait
std::atomic<int> g_callerCount{0};
std::thread g_loadThread;

thread_local int t_callerDepth = 0;  // callers running on this thread, one inside another

bool WaitFor(const std::atomic<bool>& flag, double seconds) {
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(seconds));
    while (!flag.load()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// The picture load: counted; while the wait test runs, it holds until a caller has started
// inside another caller's wait (or all callers have started), so the load is still running
// when the first caller's wait looks for other work of the pool.
Result<ImageTextureObject*> WatchedLoad(const UrlObject* url, Float64 time, const char* storage,
                                        const LayerSetObject* layers) {
    ++g_loads;
    if (g_armed.load()) {
        g_loadStarted = true;
        const Clock::time_point end = Clock::now() + std::chrono::seconds(20);
        while (g_nestedCallers.load() == 0 && g_callersStarted.load() < g_callerCount.load() &&
               Clock::now() < end)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return g_hostLoad(url, time, storage, layers);
}

// Enqueue: the first job a caller queues (the load) is started at once by a thread of the
// test's own, before the caller gets to wait for it. That is the case the job system meets
// when another worker takes the job first: the waiter then runs other jobs of the queue.
Result<void> EnqueueStartedElsewhere(JobObject* job, JobQueueObject* queue) {
    Result<void> queued = g_hostEnqueue(job, queue);
    if (t_callerDepth == 0 || queued.IsError() || !g_armed.load() || g_handedOff.exchange(true))
        return queued;
    ThreadServicesInterface::AddJobReference(job);
    g_loadThread = std::thread([job] {
        ThreadServicesInterface::Wait(job, JOB_WAIT_INFINITE);  // claims the job and runs it
        ThreadServicesInterface::RemoveJobReference(job);
    });
    WaitFor(g_allQueued, 20.0);
    WaitFor(g_loadStarted, 20.0);
    return queued;
}

void Watch() {
    if (!g_hostLoad) {
        g_hostLoad = ImageTextureInterface::slots.Load;
        ImageTextureInterface::slots.Load = &WatchedLoad;
    }
}

Ref<ImageTextureObject> Get(const char* id) {
    return Ref<ImageTextureObject>::Adopt(
        PreviewImagePlaceholderInterface::GetImage(LiteralId(id)));
}

// ---- tests -----------------------------------------------------------------------------------

// Many jobs of one pool ask for one slot; the slot's load job goes to that pool too and is
// started by another thread, so the first caller's wait runs further callers on its own thread.
// None of them may wait for a lock that this thread holds. A hang fails the test by the
// watchdog below instead of stopping the run.
TEST(PlaceholderJobs, CallersOnTheLoadsOwnPoolAllFinish) {
    Watch();
    const int loadsBefore = g_loads.load();
    // More callers than the pool has workers: some can only run inside another's wait.
    const int CALLERS = static_cast<int>(JobQueueInterface::GetThreadCount(nullptr)) + 8;
    g_callerCount = CALLERS;
    g_hostEnqueue = ThreadServicesInterface::slots.Enqueue;
    ThreadServicesInterface::slots.Enqueue = &EnqueueStartedElsewhere;
    g_armed = true;
    std::atomic<ImageTextureObject*> seen{nullptr};
    std::atomic<int> finished{0}, empty{0}, different{0};
    std::vector<JobRef> jobs;
    for (int i = 0; i < CALLERS; ++i) {
        JobRef job =
            ClosureJob::Create([&]() -> Result<void> {
                if (t_callerDepth++ > 0) ++g_nestedCallers;
                ++g_callersStarted;
                Ref<ImageTextureObject> r = Get(previewimageplaceholder::ERROR);
                --t_callerDepth;
                ImageTextureObject* expected = nullptr;
                if (!r)
                    ++empty;
                else if (!seen.compare_exchange_strong(expected, r.Get()) && expected != r.Get())
                    ++different;
                ++finished;
                return OK;
            }).GetValue();
        ASSERT_TRUE(job.Enqueue(nullptr).IsOk());  // the default pool, where the load goes
        jobs.push_back(job);
    }
    g_allQueued = true;
    // The watchdog: callers that have not all finished long after the picture could have been
    // loaded wait for each other; the process can't end normally with its workers stuck.
    const Clock::time_point end = Clock::now() + std::chrono::seconds(60);
    while (finished.load() < CALLERS) {
        if (Clock::now() > end) {
            std::fprintf(stderr,
                         "[  FAILED  ] PlaceholderJobs.CallersOnTheLoadsOwnPoolAllFinish: %d of %d "
                         "callers still blocked after 60 s (a caller waits for a lock its own "
                         "thread holds)\n",
                         CALLERS - finished.load(), CALLERS);
            std::fflush(stderr);
            std::_Exit(EXIT_FAILURE);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    g_armed = false;
    ThreadServicesInterface::slots.Enqueue = g_hostEnqueue;
    if (g_loadThread.joinable()) g_loadThread.join();
    for (JobRef& j : jobs) EXPECT_TRUE(j.Wait());
    EXPECT_TRUE(g_loadStarted.load()) << "the load never went through the queue";
    EXPECT_GT(g_nestedCallers.load(), 0) << "no caller ran inside another caller's wait";
    EXPECT_EQ(g_loads.load() - loadsBefore, 1);
    EXPECT_EQ(empty.load(), 0);
    EXPECT_EQ(different.load(), 0);
    EXPECT_NE(seen.load(), nullptr);
}

// The empty id and unknown ids load nothing; one slot loads once and keeps its picture, another
// slot loads its own.
TEST(PlaceholderJobs, EachSlotLoadsOnceAndUnknownIdsLoadNothing) {
    Watch();
    const int before = g_loads.load();
    EXPECT_FALSE(Get(""));
    EXPECT_FALSE(Get("net.quorv.nodes.previewimageplaceholder"));
    EXPECT_EQ(g_loads.load() - before, 0);
    Ref<ImageTextureObject> a = Get(previewimageplaceholder::NOSPACE);
    ASSERT_TRUE(a);
    EXPECT_EQ(g_loads.load() - before, 1);
    EXPECT_EQ(Get(previewimageplaceholder::NOSPACE).Get(), a.Get());
    EXPECT_EQ(g_loads.load() - before, 1);
    Ref<ImageTextureObject> b = Get(previewimageplaceholder::NOMATERIALENDNODE);
    ASSERT_TRUE(b);
    EXPECT_NE(b.Get(), a.Get());
    EXPECT_EQ(g_loads.load() - before, 2);
    EXPECT_EQ(Get(previewimageplaceholder::NOMATERIALENDNODE).Get(), b.Get());
    EXPECT_EQ(g_loads.load() - before, 2);
}

}  // namespace
}  // namespace quorv
