// Preview placeholders asked for from jobs of the pool that runs their load. White-box: the
// module's sources are linked in, so the test can stand between the module and two host
// services (the job queue's Enqueue, the picture load) through this binary's slot tables.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
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
// Where the last load ran: the queue its job names as current, and its thread.
std::atomic<JobQueueObject*> g_loadQueue{nullptr};
std::thread::id g_loadThreadId;
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
    g_loadQueue = ThreadServicesInterface::GetCurrentQueue();
    g_loadThreadId = std::this_thread::get_id();
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

// The placeholders' free step, then their start step, as an unload and a new load of the module
// run them: every slot loads again on its next call.
void RestartSlots() {
    for (const auto& module : host::Host::Get().GetModules()) {
        for (EntityBase* r : module->definitionsRun) {
            if (r->GetType() != EntityBase::TYPE::INITIALIZATION) continue;
            auto* step = static_cast<InitializationRecord*>(r);
            if (!step->sourceName ||
                !std::string_view(step->sourceName).ends_with("previewimageplaceholder_impl.cpp"))
                continue;
            step->free();
            Result<void> started = step->init();
            ASSERT_TRUE(started.IsOk()) << ErrorToString(started.GetErrorPointer());
            return;
        }
    }
    FAIL() << "the placeholders' start step was not run";
}

// ---- tests -----------------------------------------------------------------------------------

// Many jobs of one pool ask for one slot; the slot's load job goes to that pool too and is
// started by another thread, so the first caller's wait runs further callers on its own thread.
// None of them may wait for a lock that this thread holds. A hang fails the test by the
// watchdog below instead of stopping the run.
TEST(PlaceholderJobs, CallersOnTheLoadsOwnPoolAllFinish) {
    Watch();
    RestartSlots();
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
        ASSERT_TRUE(job.Enqueue(nullptr).IsOk());  // the default pool, the load's too
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

// A load runs as a job of its caller's queue: the default queue for a plain thread, the private
// queue for a job of one. A preview queue of one thread whose job asks for a placeholder has no
// other worker for the load: the caller's wait must run it itself. A hang fails the test by the
// watchdog below instead of stopping the run.
TEST(PlaceholderJobs, ALoadRunsOnItsCallersQueueAndAOneThreadQueueRunsItInItsWait) {
    Watch();
    RestartSlots();
    const int before = g_loads.load();
    g_loadQueue = reinterpret_cast<JobQueueObject*>(&g_loads);  // anything but null
    EXPECT_TRUE(Get(previewimageplaceholder::NOSPACE));
    EXPECT_EQ(g_loads.load() - before, 1);
    EXPECT_EQ(g_loadQueue.load(), nullptr) << "a plain thread's load left the default queue";

    JobQueueRef queue =
        JobQueueRef::Create(JOBQUEUETYPE::LOWESTPRIORITY, 1, JOBQUEUEMODE::DEFAULT, "one thread")
            .GetValue();
    std::atomic<bool> done{false};
    std::atomic<bool> got{false};
    std::thread::id callerThread;
    JobRef caller = ClosureJob::Create([&]() -> Result<void> {
                        callerThread = std::this_thread::get_id();
                        got = static_cast<bool>(Get(previewimageplaceholder::ERROR));
                        done = true;
                        return OK;
                    }).GetValue();
    ASSERT_TRUE(caller.Enqueue(queue.Get()).IsOk());
    // Not `Wait` before it has ended: that would run the caller on this thread.
    const Clock::time_point end = Clock::now() + std::chrono::seconds(60);
    while (!done.load()) {
        if (Clock::now() > end) {
            std::fprintf(stderr,
                         "[  FAILED  ] PlaceholderJobs.ALoadRunsOnItsCallersQueueAndAOneThreadQueue"
                         "RunsItInItsWait: the caller still waits for its load after 60 s\n");
            std::fflush(stderr);
            std::_Exit(EXIT_FAILURE);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(caller.Wait());
    EXPECT_TRUE(got.load());
    EXPECT_EQ(g_loads.load() - before, 2);
    EXPECT_EQ(g_loadQueue.load(), queue.Get()) << "the load left its caller's queue";
    EXPECT_EQ(g_loadThreadId, callerThread) << "the load ran off the queue's only thread";
}

// The empty id and unknown ids load nothing; one slot loads once and keeps its picture, another
// slot loads its own.
TEST(PlaceholderJobs, EachSlotLoadsOnceAndUnknownIdsLoadNothing) {
    Watch();
    RestartSlots();
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
