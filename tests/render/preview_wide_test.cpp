// The preview scheduler on a job system of five threads, wider than the machine: a preview
// budget of four threads and two tasks per level. The resource folder lacks the application's
// texts. Its own main starts the host with both, before anything sizes the job system.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "quorv/resource.h"
#include "tests/render/preview_test_support.h"

namespace quorv::nodes {
namespace {

using namespace previewtest;

ModuleUnit g_unit(__FILE__);
SimpleClass<TestProvider, PreviewImageProviderInterface> g_provider(
    g_unit, TEST_PROVIDER_ID, PREVIEWIMAGEPROVIDER_REGISTRY_ID, __FILE__);

constexpr Int JOB_SYSTEM_THREADS = 5;

class PreviewWideTest : public ::testing::Test {
protected:
    void SetUp() override { ClearLog(); }
    void TearDown() override { WaitIdle(); }
};

// Threads of the host's queue listing under the preview queue's name; -1 without one, -2 with
// more than one. A scheduler let go of may still be held by a finished observer for a moment:
// its queue then goes a little later, so a second one is waited for.
Int ListedPreviewQueueThreads() {
    Int threads = -2;
    for (int i = 0; i < 100000 && threads == -2; ++i) {
        if (i > 0) std::this_thread::yield();
        threads = -1;
        for (const host::JobQueueListing& q : host::Host::Get().ListJobQueues()) {
            if (q.name == PREVIEW_JOB_QUEUE_NAME) threads = threads == -1 ? q.threads : -2;
        }
    }
    return threads;
}

// Submits a one-iteration request named `name`, waits for its end and gives the thread count
// its provider was told.
std::string RunOnce(const std::string& name) {
    Recorder rec;
    Script s;
    s.name = name;
    s.steps = {Step{0, 1}};
    Request r = ScriptedRequest(rec, s);
    EXPECT_TRUE(SetObjectValue(r.dict, PREVIEW_RESULTCOMPLETEWAIT, TimeValue::Infinite()).IsOk());
    EXPECT_TRUE(r.request.Submit().IsOk());
    EXPECT_EQ(rec.Copy().size(), 1u);
    const std::vector<std::string> log = LogOf(name);
    return log.empty() ? "" : log.front();
}

void RestartScheduler() {
    PreviewImageScheduler::FreeProcessScheduler();
    ASSERT_TRUE(PreviewImageScheduler::StartProcessScheduler().IsOk());
}

TEST_F(PreviewWideTest, QueueLimitAndProviderFollowTheJobSystem) {
    host::Host& host = host::Host::Get();
    ASSERT_EQ(JobQueueInterface::GetThreadCount(nullptr), JOB_SYSTEM_THREADS);
    // One thread is left to the application; half of the rest per level.
    EXPECT_EQ(PreviewImageScheduler::Get()->GetQueueThreadCount(), 4);
    EXPECT_EQ(PreviewImageScheduler::Get()->GetMaxParallelTasks(), 2);
    EXPECT_EQ(ListedPreviewQueueThreads(), 4);
    EXPECT_EQ(RunOnce("wide"), "wide:init:4");

    // The one-thread setting is read at each task creation: the provider is told 1 at once,
    // while the queue and the limit, fixed at the scheduler's start, stay.
    ASSERT_TRUE(host.SetConfiguration("g_useonethreadtorenderpreview=true").IsOk());
    EXPECT_EQ(RunOnce("told"), "told:init:1");
    EXPECT_EQ(PreviewImageScheduler::Get()->GetQueueThreadCount(), 4);
    EXPECT_EQ(PreviewImageScheduler::Get()->GetMaxParallelTasks(), 2);
    RestartScheduler();
    EXPECT_EQ(PreviewImageScheduler::Get()->GetQueueThreadCount(), 1);
    EXPECT_EQ(PreviewImageScheduler::Get()->GetMaxParallelTasks(), 1);
    EXPECT_EQ(ListedPreviewQueueThreads(), 1) << "the old queue is freed with its scheduler";
    EXPECT_EQ(RunOnce("one"), "one:init:1");

    ASSERT_TRUE(host.SetConfiguration("g_useonethreadtorenderpreview=false").IsOk());
    RestartScheduler();
    EXPECT_EQ(PreviewImageScheduler::Get()->GetQueueThreadCount(), 4);
    EXPECT_EQ(PreviewImageScheduler::Get()->GetMaxParallelTasks(), 2);
}

// Two normal tasks run, a third waits; a high task pauses both running ones. A paused job
// ends without `TakeOutput` and drops its progress to 0; each goes back to the queue when its
// job ends (here N2 before N1), behind the waiting N3. When the high task has ended, the pass
// starts N3 and N2 and leaves N1 queued.
TEST_F(PreviewWideTest, HighTaskPausesTwoNormalOnesRequeuedInJobEndOrder) {
    ASSERT_EQ(PreviewImageScheduler::Get()->GetMaxParallelTasks(), 2);
    BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
    const Int entryIndex = BackgroundProgressInterface::GetEntryCount(master);
    Recorder rec1, rec2, rec3, recH;
    // Iteration 1 of N1 and N2 holds until the test lets it go, cancelled or not.
    Gate g1(true), g2(true), g1again, g2again, g3, gH;
    Script n1 = MakeScript("N1", {Step{0, 3}, Step{1, 3}, Step{2, 3}}, {{1, &g1}, {2, &g1again}});
    Script n2 = n1;
    n2.name = "N2";
    n2.callGates = {{1, &g2}, {2, &g2again}};
    Script n3 = MakeScript("N3", {Step{0, 1}}, {{0, &g3}});
    Script h = MakeScript("H", {Step{0, 1}}, {{0, &gH}});
    Request r1 = ScriptedRequest(rec1, n1), r2 = ScriptedRequest(rec2, n2),
            r3 = ScriptedRequest(rec3, n3), rh = ScriptedRequest(recH, h);
    ASSERT_TRUE(SetObjectValue(rh.dict, PREVIEW_PURPOSE, UInt32(1)).IsOk());

    ASSERT_TRUE(r1.request.Submit().IsOk());
    ASSERT_TRUE(r2.request.Submit().IsOk());
    g1.AwaitWaiter();
    g2.AwaitWaiter();
    BackgroundEntryObject* entry = BackgroundProgressInterface::GetEntry(master, entryIndex);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 0), 1.0 / 3.0);
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 1), 1.0 / 3.0);
    ASSERT_TRUE(r3.request.Submit().IsOk());
    PreviewImageScheduler::Snapshot s = Snap();
    EXPECT_EQ(s.runningNormal, 2) << "two tasks of one level at once";
    EXPECT_EQ(s.queuedNormal, 1);

    ASSERT_TRUE(rh.request.Submit().IsOk());  // pauses N1 and N2
    gH.AwaitWaiter();
    s = Snap();
    EXPECT_EQ(s.runningHigh, 1);
    EXPECT_EQ(s.runningNormal, 2) << "paused jobs wind down on their own";

    g2.Open();
    AwaitSnapshot(
        [](const PreviewImageScheduler::Snapshot& snap) { return snap.queuedNormal == 2; },
        "N2 requeued");
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 1), 0.0) << "a pause drops the progress";
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 0), 1.0 / 3.0);
    g1.Open();
    AwaitSnapshot(
        [](const PreviewImageScheduler::Snapshot& snap) { return snap.queuedNormal == 3; },
        "N1 requeued");
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 0), 0.0);
    EXPECT_EQ(Snap().runningNormal, 0);
    EXPECT_EQ(LogOf("N3").size(), 1u) << "nothing normal starts while the high task runs";

    gH.Open();
    g3.AwaitWaiter();
    g2again.AwaitWaiter();
    s = Snap();
    EXPECT_EQ(s.runningNormal, 2);
    EXPECT_EQ(s.queuedNormal, 1);
    EXPECT_EQ(LogOf("N1").size(), 4u) << "N1, whose job ended last, waits";

    g3.Open();
    g2again.Open();
    g1again.Open();
    rec1.WaitFor(3);
    rec2.WaitFor(3);
    WaitIdle();
    const std::vector<std::string> n1Log = {
        "N1:init:4",    "N1:compute:0", "N1:take:0",    "N1:compute:1:cancelled",
        "N1:compute:1", "N1:take:1",    "N1:compute:2", "N1:take:2"};
    EXPECT_EQ(LogOf("N1"), n1Log) << "no TakeOutput after a pause";
    std::vector<std::string> n2Log = n1Log;
    for (std::string& l : n2Log) l[1] = '2';
    EXPECT_EQ(LogOf("N2"), n2Log);
    EXPECT_LT(LogPosition("H:take:0"), LogPosition("N2:compute:1"));
    EXPECT_LT(LogPosition("H:take:0"), LogPosition("N1:compute:1"));
    for (Recorder* r : {&rec1, &rec2}) {
        ASSERT_EQ(r->Copy().size(), 3u);
        for (Int i = 0; i < 3; ++i) EXPECT_EQ(r->Copy()[static_cast<size_t>(i)].index, i);
    }
    RemoveReference(entry);
}

// The entry's name is a text of the application's resources. Without it the entry is made all
// the same, under an empty name, and the preview runs with its progress.
TEST_F(PreviewWideTest, WithoutTheResourceStringTheEntryIsMadeUnnamed) {
    ASSERT_TRUE(ResourceInterface::LoadResourceString("net.quorv.exchange.globalstrings",
                                                      "net.quorv.exchange.globalstrings.baking")
                    .IsError())
        << "this binary's resource folder has no texts";
    BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
    const Int entryIndex = BackgroundProgressInterface::GetEntryCount(master);
    Recorder rec;
    Gate gate;
    Script s = MakeScript("unnamed", {Step{0, 2}, Step{1, 2}}, {{1, &gate}});
    Request r = ScriptedRequest(rec, s);
    ASSERT_TRUE(r.request.Submit().IsOk());
    gate.AwaitWaiter();
    ASSERT_TRUE(Snap().activeEntry);
    BackgroundEntryObject* entry = BackgroundProgressInterface::GetEntry(master, entryIndex);
    ASSERT_NE(entry, nullptr);
    char name[8] = {'x'};
    EXPECT_EQ(ProgressInterface::GetName(entry, name, sizeof name), 0);
    EXPECT_EQ(ProgressInterface::GetJobCount(entry), 1);
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 0), 0.5);
    gate.Open();
    rec.WaitFor(2);
    WaitIdle();
    AwaitSnapshot([](const PreviewImageScheduler::Snapshot& snap) { return !snap.activeEntry; },
                  "the entry closed");
    EXPECT_EQ(rec.Copy().size(), 2u);
    EXPECT_EQ(BackgroundProgressInterface::GetEntryCount(master), entryIndex);
    RemoveReference(entry);
}

}  // namespace
}  // namespace quorv::nodes

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    quorv::host::HostOptions options;
    options.echoCriticalOutput = false;
    options.threadCount = quorv::nodes::JOB_SYSTEM_THREADS;
    options.resourceDirectory = QUORV_EMPTY_RESOURCE_DIR;
    quorv::host::Host::Start(options);
    return RUN_ALL_TESTS();
}
