// The preview worker and scheduler, white-box: the module's sources are linked into this test,
// with a provider class of the test's own whose iterations follow a script (outputs, failures,
// gates the test opens). Everything observable goes through the completion delegate, the
// scheduler's snapshot and the host's background progress. The job system has the machine's
// two threads: a preview budget of one thread and one task per level.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/common/test_support.h"
#include "tests/render/preview_test_support.h"

namespace quorv::nodes {
namespace {

using namespace previewtest;

ModuleUnit g_unit(__FILE__);
SimpleClass<TestProvider, PreviewImageProviderInterface> g_provider(
    g_unit, TEST_PROVIDER_ID, PREVIEWIMAGEPROVIDER_REGISTRY_ID, __FILE__);

class PreviewTest : public ::testing::Test {
protected:
    void SetUp() override { ClearLog(); }
    void TearDown() override { WaitIdle(); }
};

// ---- conversion ------------------------------------------------------------------------------

Ref<SampleBuffer> Numbered(Int w, Int h) {
    Ref<SampleBuffer> b = SampleBuffer::Create(w * h).GetValue();
    for (Int i = 0; i < w * h; ++i)
        b->GetData()[i] = ColorA32{Float32(i % w), Float32(i / w), 7.f, 1.f};
    return b;
}

TEST(PreviewConversion, NearestSamplesAgainstBruteForce) {
    struct Case {
        Int sw, sh, tw, th;
        bool flip;
    };
    for (Case c : {Case{2, 2, 4, 4, false}, Case{3, 5, 7, 4, false}, Case{5, 3, 11, 13, true},
                   Case{7, 1, 7, 1, true}, Case{4, 4, 4, 4, true}, Case{9, 6, 3, 2, false}}) {
        Ref<SampleBuffer> src = Numbered(c.sw, c.sh);
        Result<Ref<SampleBuffer>> r = ConvertSampleBuffer(src, c.sw, c.sh, c.tw, c.th, c.flip);
        ASSERT_TRUE(r.IsOk());
        ASSERT_NE(r.GetValue().Get(), src.Get()) << "a conversion gives a new buffer";
        ASSERT_EQ(r.GetValue()->GetCount(), c.tw * c.th);
        for (Int y = 0; y < c.th; ++y) {
            for (Int x = 0; x < c.tw; ++x) {
                // Independent: integer floor of x*sw/tw equals the truncated double quotient.
                const Int sx = x * c.sw / c.tw, sy = y * c.sh / c.th;
                const Int ty = c.flip ? c.th - 1 - y : y;
                const ColorA32 got = r.GetValue()->GetData()[ty * c.tw + x];
                EXPECT_EQ(got.r, Float32(sx)) << c.sw << "x" << c.sh << "->" << c.tw << "x" << c.th;
                EXPECT_EQ(got.g, Float32(sy));
            }
        }
    }
    // 2x2 to 4x4: each source sample fills a 2x2 block.
    Ref<SampleBuffer> up = ConvertSampleBuffer(Numbered(2, 2), 2, 2, 4, 4, false).GetValue();
    EXPECT_EQ(up->GetData()[5].r, 0.f);
    EXPECT_EQ(up->GetData()[6].r, 1.f);
    EXPECT_EQ(up->GetData()[10].g, 1.f);
}

TEST(PreviewConversion, PassThroughAndBadBuffers) {
    Ref<SampleBuffer> wrong = Numbered(3, 3);
    // Equal sizes without a flip: the buffer as it stands, not even its count checked.
    Result<Ref<SampleBuffer>> same = ConvertSampleBuffer(wrong, 5, 5, 5, 5, false);
    ASSERT_TRUE(same.IsOk());
    EXPECT_EQ(same.GetValue().Get(), wrong.Get());
    EXPECT_EQ(MessageOf(ConvertSampleBuffer(wrong, 5, 5, 5, 5, true)),
              "Illegal argument: Invalid sample buffer.");
    EXPECT_EQ(MessageOf(ConvertSampleBuffer(Ref<SampleBuffer>(), 2, 2, 4, 4, false)),
              "Illegal argument: Invalid Sample Buffer");
    EXPECT_EQ(ConversionGranularity(1000, 8), 16);
    EXPECT_EQ(ConversionGranularity(10, 8), 1);
    EXPECT_EQ(ConversionGranularity(64, 2), 16);
    EXPECT_EQ(ConversionGranularity(40, 2), 10);
}

// ---- budget ----------------------------------------------------------------------------------

TEST(PreviewBudget, ThreadsAndLimits) {
    struct Row {
        Int threads;
        bool one;
        Int budget, limit;
    };
    for (Row r : {Row{1, false, 1, 1}, Row{2, false, 1, 1}, Row{4, false, 3, 1},
                  Row{6, false, 5, 2}, Row{40, false, 39, 8}, Row{40, true, 1, 1},
                  Row{17, false, 16, 8}, Row{18, false, 17, 8}}) {
        PreviewBudget b = ComputePreviewBudget(r.threads, r.one);
        EXPECT_EQ(b.threads, r.budget) << r.threads;
        EXPECT_EQ(b.maxParallelTasks, r.limit) << r.threads;
    }
}

// ---- submit checks and deliveries -----------------------------------------------------------

TEST_F(PreviewTest, SubmitChecksInOrder) {
    Request r = NewRequest();
    EXPECT_EQ(MessageOf(r.request.Submit()), "Illegal argument: Invalid ResultCompleteFunc()");
    Recorder rec;
    ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_RESULTCOMPLETEFUNC, rec.Func()).IsOk());
    EXPECT_EQ(MessageOf(r.request.Submit()), "Illegal argument: Invalid Image Size");
    ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_TEXTURESIZE, Vector2i64{0, 100}).IsOk());
    EXPECT_EQ(MessageOf(r.request.Submit()), "Illegal argument: Invalid Image Size");
    ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_TEXTURESIZE, Vector2i64{10, 1}).IsOk());
    Result<void> noProvider = r.request.Submit();
    ASSERT_TRUE(noProvider.IsError());
    EXPECT_EQ(noProvider.GetErrorPointer()->kind, ERRORKIND::NULLPTR);
    r.request.Cancel();  // never submitted: nothing happens

    Script failing;
    failing.name = "initfail";
    failing.failInitialize = true;
    failing.steps = {Step{}};
    Request f = ScriptedRequest(rec, failing);
    EXPECT_EQ(MessageOf(f.request.Submit()), "scripted init failure");
    EXPECT_TRUE(rec.Copy().empty()) << "a failed creation never calls the delegate";
    EXPECT_EQ(PreviewImageScheduler::Get()->GetSnapshot().tasks, 0);
}

// One call of the delegate: the index of a delivery (-100 for an error call with empty
// dictionaries), the number of images, and the error kind and message of an error call.
struct Call {
    Int index;
    Int images;
    std::optional<ERRORKIND> kind = std::nullopt;
    std::string message = "";
};

struct OutputCase {
    const char* label;
    std::vector<Step> steps;
    bool flip;
    std::vector<Call> calls;
    // Every value the task's progress job takes, in order: 0 when it is added, what each
    // iteration's end reports (clamped to [0, 1] by the host), 1 when it is closed.
    std::vector<Float64> progress;
};

TEST_F(PreviewTest, OutputCases) {
    Step computeFails{1, 3};
    computeFails.failCompute = true;
    Step takeFails{0, 2};
    takeFails.failTake = true;
    Step takeFailsLater{1, 3};
    takeFailsLater.failTake = true;
    Step badImage{0, 2};
    badImage.badSecondImage = true;
    const ERRORKIND STATE = ERRORKIND::ILLEGALSTATE, OOM = ERRORKIND::OUTOFMEMORY;
    const std::vector<OutputCase> cases = {
        {"count 1", {Step{0, 1}}, false, {{0, 1}}, {0.0, 1.0}},
        {"index 2 of 3 after 0",
         {Step{0, 3}, Step{2, 3}},
         false,
         {{0, 1}, {2, 1}},
         {0.0, 1.0 / 3.0, 1.0}},
        {"index equal to count: nothing delivered", {Step{1, 1}}, false, {}, {0.0, 1.0}},
        {"same index twice: delivered once",
         {Step{0, 3}, Step{0, 3}, Step{1, 3}, Step{2, 3}},
         false,
         {{0, 1}, {1, 1}, {2, 1}},
         {0.0, 1.0 / 3.0, 2.0 / 3.0, 1.0}},
        {"negative index", {Step{-1, 3}}, false, {}, {0.0, 1.0}},
        {"compute fails: the job's error",
         {Step{0, 3}, computeFails},
         false,
         {{0, 1}, {-100, 0, STATE, "scripted compute failure"}},
         {0.0, 1.0 / 3.0, 1.0}},
        {"take fails: the error, then out of memory",
         {takeFails},
         false,
         {{-100, 0, STATE, "scripted take failure"}, {-100, 0, OOM, ""}},
         {0.0, 1.0}},
        // Count -1 after one delivery: (0 + 1) / -1, a negative progress the host clamps to 0.
        {"take fails after a delivery",
         {Step{0, 3}, takeFailsLater},
         false,
         {{0, 1}, {-100, 0, STATE, "scripted take failure"}, {-100, 0, OOM, ""}},
         {0.0, 1.0 / 3.0, 0.0, 1.0}},
        // The first image converts, the second fails: one call with the error and what was
        // built; the index counts as delivered, so the same index again is not delivered.
        {"a conversion fails",
         {badImage, Step{0, 2}, Step{1, 2}},
         true,
         {{0, 1, ERRORKIND::ILLEGALARGUMENT, "Illegal argument: Invalid sample buffer."}, {1, 1}},
         {0.0, 0.5, 1.0}},
    };
    BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
    for (const OutputCase& c : cases) {
        const Int entryIndex = BackgroundProgressInterface::GetEntryCount(master);
        ProgressRecorder progress(entryIndex, 0);
        Recorder rec;
        Script s;
        s.name = c.label;
        s.steps = c.steps;
        Request r = ScriptedRequest(rec, s, {2, 2});
        ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_FLIPVERTICALLY, c.flip).IsOk());
        ASSERT_TRUE(
            SetObjectValue(r.dict, PREVIEW_RESULTCOMPLETEWAIT, TimeValue::Infinite()).IsOk());
        ASSERT_TRUE(r.request.Submit().IsOk()) << c.label;
        WaitIdle();
        AwaitSnapshot([](const PreviewImageScheduler::Snapshot& snap) { return !snap.activeEntry; },
                      "the entry closed");
        const std::vector<Delivery> calls = rec.Copy();
        ASSERT_EQ(calls.size(), c.calls.size()) << c.label;
        for (size_t i = 0; i < calls.size(); ++i) {
            const Call& want = c.calls[i];
            EXPECT_EQ(calls[i].ok, !want.kind.has_value()) << c.label << " " << i;
            EXPECT_EQ(calls[i].kind, want.kind) << c.label << " " << i;
            EXPECT_EQ(calls[i].message, want.message) << c.label << " " << i;
            EXPECT_EQ(calls[i].index, want.index) << c.label << " " << i;
            EXPECT_EQ(calls[i].images, want.images) << c.label << " " << i;
            if (want.index >= 0) {
                EXPECT_EQ(calls[i].count, c.steps.back().count) << c.label;
                // Flipped 2x2: the first target row is the last source row.
                EXPECT_EQ(calls[i].buffer->GetData()[0].r, c.flip ? 2.f : 0.f) << c.label;
            }
        }
        EXPECT_EQ(progress.Values(), c.progress) << c.label;
    }
}

TEST_F(PreviewTest, UpscaleAndFlipReachTheDelegate) {
    Recorder rec;
    Script s = MakeScript("upscale", {Step{0, 2, 2, 2}, Step{1, 2, 4, 4}});
    Request r = ScriptedRequest(rec, s, {4, 4});
    ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_UPSCALEPROGRESSION, true).IsOk());
    ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_FLIPVERTICALLY, true).IsOk());
    ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_RESULTCOMPLETEWAIT, TimeValue::Infinite()).IsOk());
    ASSERT_TRUE(r.request.Submit().IsOk());
    std::vector<Delivery> calls = rec.WaitFor(2);
    ASSERT_EQ(calls.size(), 2u);
    for (const Delivery& d : calls) {
        EXPECT_EQ(d.width, 4);
        EXPECT_EQ(d.height, 4);
    }
    // First iteration 2x2 up to 4x4 and flipped: target row 0 comes from source row 1.
    EXPECT_EQ(calls[0].buffer->GetData()[0].r, 2.f);
    EXPECT_EQ(calls[0].buffer->GetData()[15].r, 1.f);
    // Second: same size, flipped only: row 3 of the target is row 0 of the source.
    EXPECT_EQ(calls[1].buffer->GetData()[12].r, 0.f);
}

// ---- the scheduler ---------------------------------------------------------------------------

TEST_F(PreviewTest, TwoRequestsOfOneLevelAlternateAtLimitOne) {
    ASSERT_EQ(PreviewImageScheduler::Get()->GetMaxParallelTasks(), 1) << "a 2-core job system";
    Recorder rec;
    Gate first;
    Script a;
    a.name = "A";
    a.callGates = {{0, &first}};
    a.steps = {Step{0, 3}, Step{1, 3}, Step{2, 3}};
    Script b = a;
    b.name = "B";
    b.callGates.clear();
    Request ra = ScriptedRequest(rec, a), rb = ScriptedRequest(rec, b);
    ASSERT_TRUE(ra.request.Submit().IsOk());
    first.AwaitWaiter();
    ASSERT_TRUE(rb.request.Submit().IsOk());
    EXPECT_EQ(PreviewImageScheduler::Get()->GetSnapshot().queuedNormal, 1);
    first.Open();
    rec.WaitFor(6);
    WaitIdle();
    std::vector<std::string> order;
    for (const std::string& s : LogCopy()) {
        if (s.find(":compute:") != std::string::npos) order.push_back(s.substr(0, s.find(':')));
    }
    EXPECT_EQ(order, (std::vector<std::string>{"A", "B", "A", "B", "A", "B"}));
    EXPECT_EQ(rec.overlaps.load(), 0);
}

TEST_F(PreviewTest, HighTaskPausesANormalOneWhichRestartsAfter) {
    Recorder recN, recH;
    Script n;
    n.name = "N";
    Gate gate;
    n.callGates = {{0, &gate}};
    n.steps = {Step{0, 2}, Step{1, 2}};
    Script h = MakeScript("H", {Step{0, 1}});
    Request rn = ScriptedRequest(recN, n), rh = ScriptedRequest(recH, h);
    ASSERT_TRUE(rn.request.Submit().IsOk());
    gate.AwaitWaiter();
    ASSERT_TRUE(SetObjectValue(rh.dict, PREVIEW_PURPOSE, UInt32(1)).IsOk());
    ASSERT_TRUE(rh.request.Submit().IsOk());  // pauses N: its job is cancelled, the gate lets go
    gate.Open();  // the pause has cancelled N's job already, inside H's submit
    recH.WaitFor(1);
    recN.WaitFor(2);
    WaitIdle();
    std::vector<std::string> log = LogCopy();
    std::vector<std::string> expected = {"N:init:1",    "H:init:1",    "N:compute:0:cancelled",
                                         "H:compute:0", "H:take:0",    "N:compute:0",
                                         "N:take:0",    "N:compute:1", "N:take:1"};
    EXPECT_EQ(log, expected)
        << "no TakeOutput after a pause; the normal task restarts after the high one";
    ASSERT_EQ(recN.Copy().size(), 2u);
    EXPECT_EQ(recN.Copy()[0].index, 0);
}

TEST_F(PreviewTest, PurposeTwoIsNormal) {
    Recorder rec;
    Gate gate;
    Script blocker;
    blocker.name = "blocker";
    blocker.gate = &gate;
    blocker.steps = {Step{0, 1}};
    Script p2 = MakeScript("p2", {Step{0, 1}});
    Request b = ScriptedRequest(rec, blocker), r = ScriptedRequest(rec, p2);
    ASSERT_TRUE(b.request.Submit().IsOk());
    gate.AwaitWaiter();
    ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_PURPOSE, UInt32(2)).IsOk());
    ASSERT_TRUE(r.request.Submit().IsOk());
    auto s = PreviewImageScheduler::Get()->GetSnapshot();
    EXPECT_EQ(s.queuedNormal, 1);
    EXPECT_EQ(s.queuedHigh, 0);
    gate.Open();
    rec.WaitFor(2);
}

TEST_F(PreviewTest, CancelQueuedRunningAndResubmit) {
    Recorder rec;
    Gate gate;
    Script running;
    running.name = "running";
    running.gate = &gate;
    running.steps = {Step{0, 3}, Step{1, 3}, Step{2, 3}};
    Script queued = MakeScript("queued", {Step{0, 1}});
    Request r1 = ScriptedRequest(rec, running), r2 = ScriptedRequest(rec, queued);
    ASSERT_TRUE(r1.request.Submit().IsOk());
    gate.AwaitWaiter();
    ASSERT_TRUE(r2.request.Submit().IsOk());
    r2.request.Cancel();  // queued: its id stays in the queue until a pop drops it
    auto s = PreviewImageScheduler::Get()->GetSnapshot();
    EXPECT_EQ(s.queuedNormal, 1);
    EXPECT_EQ(s.tasks, 1);
    EXPECT_EQ(s.retained, 2) << "a never-run cancelled task is kept in retained";
    r1.request.Cancel();  // running, first iteration: the job is cancelled, nothing delivered
    WaitIdle();
    EXPECT_TRUE(rec.Copy().empty());
    for (const std::string& l : LogCopy()) EXPECT_EQ(l.find("queued:compute"), std::string::npos);

    // Resubmitting the same request works: the task copied the delegate.
    gate.Open();
    ASSERT_TRUE(SetObjectValue(r1.dict, PREVIEW_RESULTCOMPLETEWAIT, TimeValue::Infinite()).IsOk());
    ASSERT_TRUE(r1.request.Submit().IsOk());
    EXPECT_EQ(rec.Copy().size(), 3u);
}

TEST_F(PreviewTest, CancelARunningTaskAtALaterIteration) {
    Recorder rec;
    Gate second;
    Script s = MakeScript("later", {Step{0, 3}, Step{1, 3}, Step{2, 3}}, {{1, &second}});
    Request r = ScriptedRequest(rec, s);
    const Int retained = Snap().retained;
    ASSERT_TRUE(r.request.Submit().IsOk());
    second.AwaitWaiter();  // iteration 0 is delivered, iteration 1 computes
    ASSERT_EQ(rec.Copy().size(), 1u);
    r.request.Cancel();
    WaitIdle();
    ASSERT_EQ(rec.Copy().size(), 1u) << "a cancelled iteration is not delivered, nor any later";
    EXPECT_EQ(rec.Copy()[0].index, 0);
    EXPECT_EQ(LogOf("later"),
              (std::vector<std::string>{"later:init:1", "later:compute:0", "later:take:0",
                                        "later:compute:1:cancelled"}))
        << "no TakeOutput after the cancelled job";
    EXPECT_EQ(Snap().retained, retained) << "a task that has run an iteration is not retained";
}

TEST_F(PreviewTest, SecondSubmitCancelsTheFirstEvenWhenItFails) {
    Recorder rec;
    Gate gate;
    Script s;
    s.name = "first";
    s.gate = &gate;
    s.steps = {Step{0, 2}, Step{1, 2}};
    Request r = ScriptedRequest(rec, s);
    ASSERT_TRUE(r.request.Submit().IsOk());
    gate.AwaitWaiter();
    ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_TEXTURESIZE, Vector2i64{0, 0}).IsOk());
    EXPECT_EQ(MessageOf(r.request.Submit()), "Illegal argument: Invalid Image Size");
    WaitIdle();
    EXPECT_TRUE(rec.Copy().empty());
    gate.Open();
}

TEST_F(PreviewTest, DroppingTheLastReferenceCancels) {
    Recorder rec;
    Gate gate;
    Script s;
    s.name = "dropped";
    s.gate = &gate;
    s.steps = {Step{0, 2}, Step{1, 2}};
    {
        Request r = ScriptedRequest(rec, s);
        ASSERT_TRUE(r.request.Submit().IsOk());
        gate.AwaitWaiter();
    }
    WaitIdle();
    EXPECT_TRUE(rec.Copy().empty());
}

// The entry's jobs are weighted by size times texture ids; node2d requests add no job, but
// like every task they take one off the entry's count when they end: a node2d task ending
// while a visible one runs closes the entry, and the visible one goes on unseen.
TEST_F(PreviewTest, BackgroundEntryJobsWeightsAndLife) {
    BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
    ASSERT_NE(master, nullptr);
    const Int before = BackgroundProgressInterface::GetEntryCount(master);
    Recorder rec;
    Gate gA0, gA1, gB, gN;
    Script a = MakeScript("A", {Step{0, 2}, Step{1, 2}}, {{0, &gA0}, {1, &gA1}});
    Script b = MakeScript("B", {Step{0, 1}}, {{0, &gB}});
    Script n = MakeScript("N", {Step{0, 1}}, {{0, &gN}});
    Request ra = ScriptedRequest(rec, a, {8, 4}), rb = ScriptedRequest(rec, b, {2, 2}),
            rn = ScriptedRequest(rec, n, {2, 2});
    ASSERT_TRUE(
        SetObjectValue(ra.dict, PREVIEW_TEXTUREIDS, IdArray{Id::Intern("a"), Id::Intern("b")})
            .IsOk());
    ASSERT_TRUE(SetObjectValue(rn.dict, PREVIEW_INTENT, Id::Intern(PREVIEW_INTENT_NODE2D)).IsOk());

    ASSERT_TRUE(ra.request.Submit().IsOk());
    gA0.AwaitWaiter();
    ASSERT_TRUE(Snap().activeEntry);
    EXPECT_EQ(Snap().activeJobCount, 1);
    ASSERT_EQ(BackgroundProgressInterface::GetEntryCount(master), before + 1);
    BackgroundEntryObject* entry = BackgroundProgressInterface::GetEntry(master, before);
    ASSERT_NE(entry, nullptr);
    char name[64] = {};
    ProgressInterface::GetName(entry, name, sizeof name - 1);
    EXPECT_STREQ(name, "Baking previews") << "the resource string of the build's resources";
    ASSERT_TRUE(rb.request.Submit().IsOk());
    ASSERT_TRUE(rn.request.Submit().IsOk());
    EXPECT_EQ(ProgressInterface::GetJobCount(entry), 2) << "node2d adds no progress job";
    EXPECT_EQ(Snap().activeJobCount, 2);

    gA0.Open();  // A delivers 0 of 2 and queues behind B and N; B starts
    gB.AwaitWaiter();
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 0), 0.5);
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 1), 0.0);
    // Weights 8 * 4 * 2 texture ids and 2 * 2 * 1: half of A done.
    EXPECT_DOUBLE_EQ(ProgressInterface::GetProgress(entry),
                     (64.0 * 0.5 + 4.0 * 0.0) / (64.0 + 4.0));

    gB.Open();  // B ends: its job is set to 1 and closed; N starts
    gN.AwaitWaiter();
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 1), 1.0);
    EXPECT_TRUE(Snap().activeEntry);
    EXPECT_EQ(Snap().activeJobCount, 1);

    gN.Open();  // N ends and takes the count to 0: the entry goes while A still has work
    gA1.AwaitWaiter();
    EXPECT_FALSE(Snap().activeEntry);
    EXPECT_EQ(Snap().activeJobCount, 0);
    EXPECT_EQ(BackgroundProgressInterface::GetEntryCount(master), before);
    gA1.Open();
    rec.WaitFor(4);
    WaitIdle();
    EXPECT_EQ(rec.Copy().size(), 4u);
    EXPECT_EQ(ProgressInterface::GetJobProgress(entry, 0), 0.5) << "A went on unseen";
    RemoveReference(entry);

    // The next visible task opens a new entry, which leaves with it.
    Script c = MakeScript("C", {Step{0, 1}});
    Request rc = ScriptedRequest(rec, c);
    ProgressRecorder progress(before, 0);
    ASSERT_TRUE(SetObjectValue(rc.dict, PREVIEW_RESULTCOMPLETEWAIT, TimeValue::Infinite()).IsOk());
    ASSERT_TRUE(rc.request.Submit().IsOk());
    AwaitSnapshot([](const PreviewImageScheduler::Snapshot& snap) { return !snap.activeEntry; },
                  "the entry closed");
    EXPECT_EQ(progress.Values(), (std::vector<Float64>{0.0, 1.0}));
    EXPECT_EQ(BackgroundProgressInterface::GetEntryCount(master), before);
}

// A shutdown: the running job is cancelled (no more deliveries), the entry goes, nothing is
// erased, and the start pass refuses every task from then on, even one submitted later.
TEST_F(PreviewTest, CancelAllStopsTheSchedulerForGood) {
    BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
    const Int entries = BackgroundProgressInterface::GetEntryCount(master);
    Recorder rec;
    Gate second;
    Script a = MakeScript("A", {Step{0, 3}, Step{1, 3}, Step{2, 3}}, {{1, &second}});
    Script b = MakeScript("B", {Step{0, 1}});
    Script c = b;
    c.name = "C";
    auto ra = std::make_unique<Request>(ScriptedRequest(rec, a));
    auto rb = std::make_unique<Request>(ScriptedRequest(rec, b));
    auto rc = std::make_unique<Request>(ScriptedRequest(rec, c));
    ASSERT_TRUE(ra->request.Submit().IsOk());
    second.AwaitWaiter();
    ASSERT_TRUE(rb->request.Submit().IsOk());  // queued behind A
    ASSERT_TRUE(Snap().activeEntry);

    ra->request.CancelAllRequests(true);
    EXPECT_EQ(LogOf("A").back(), "A:compute:1:cancelled");
    EXPECT_EQ(rec.Copy().size(), 1u) << "a cancelled job delivers nothing";
    PreviewImageScheduler::Snapshot s = Snap();
    EXPECT_TRUE(s.stopped);
    EXPECT_FALSE(s.activeEntry);
    EXPECT_EQ(BackgroundProgressInterface::GetEntryCount(master), entries);
    EXPECT_EQ(s.tasks, 1) << "B stays, A left at its job's end";
    EXPECT_EQ(s.queuedNormal, 1);
    EXPECT_EQ(s.runningNormal, 0);

    // Submit still works, but the task never starts and its wait runs out.
    ASSERT_TRUE(SetObjectValue(rc->dict, PREVIEW_RESULTCOMPLETEWAIT, TimeValue{0.02}).IsOk());
    ASSERT_TRUE(rc->request.Submit().IsOk());
    s = Snap();
    EXPECT_EQ(s.tasks, 2);
    EXPECT_EQ(s.queuedNormal, 2);
    EXPECT_EQ(s.runningNormal, 0);
    EXPECT_TRUE(LogOf("B").size() == 1 && LogOf("C").size() == 1) << "only Initialize ran";
    EXPECT_EQ(rec.Copy().size(), 1u);

    // Nothing restarts the stopped scheduler but making a new one. The requests go first: a
    // later ticket must not cancel a task of the next scheduler under a reused id.
    ra.reset();
    rb.reset();
    rc.reset();
    PreviewImageScheduler::FreeProcessScheduler();
    ASSERT_TRUE(PreviewImageScheduler::StartProcessScheduler().IsOk());
    EXPECT_EQ(BackgroundProgressInterface::GetEntryCount(master), entries);
}

// The scheduler's destruction drops its tasks before it drains the queue: the task's
// destructor cancels its running job, whose cancelled observer finds no task left to upgrade.
TEST_F(PreviewTest, FreeingTheSchedulerCancelsAJobWhoseTaskIsGone) {
    Recorder rec;
    Gate second;
    Script s = MakeScript("freed", {Step{0, 2}, Step{1, 2}}, {{1, &second}});
    auto r = std::make_unique<Request>(ScriptedRequest(rec, s));
    ASSERT_TRUE(r->request.Submit().IsOk());
    second.AwaitWaiter();
    PreviewImageScheduler::FreeProcessScheduler();
    EXPECT_EQ(LogOf("freed").back(), "freed:compute:1:cancelled");
    EXPECT_EQ(rec.Copy().size(), 1u);
    r.reset();  // its ticket finds no scheduler
    ASSERT_TRUE(PreviewImageScheduler::StartProcessScheduler().IsOk());
}

TEST_F(PreviewTest, OutOfMemoryAtEachAllocationOfASubmit) {
    host::Host& host = host::Host::Get();
    host.ClearCriticalLog();
    int oks = 0, refused = 0, stuck = 0;
    // The delegate of a failed start runs inside Submit, under the queue lock: a call back into
    // the scheduler from there is refused (and reported), not left to spin on its own lock.
    Recorder otherRec;
    Script other = MakeScript("other", {Step{0, 1}});
    Request reentry = ScriptedRequest(otherRec, other);
    std::vector<std::string> reentered;
    const std::thread::id self = std::this_thread::get_id();
    for (Int n = 1; n <= 80; ++n) {
        Recorder rec;
        rec.onCall = [&](const Delivery& d) {
            if (d.thread == self) reentered.push_back(MessageOf(reentry.request.Submit()));
        };
        Script s = MakeScript("oom", {Step{0, 1}});
        Request r = ScriptedRequest(rec, s);
        host.FailAllocationAfter(n);
        Result<void> submitted = r.request.Submit();
        host.FailAllocationAfter(0);
        if (submitted.IsOk()) {
            ++oks;
            // Submitted means heard of: a delivery, or an error at the delegate.
            EXPECT_FALSE(rec.WaitFor(1).empty()) << n;
        } else {
            // A value whose copy fails reads as absent, so a failed allocation can also show as
            // the check of a missing delegate, size or provider; never as anything else.
            ++refused;
            const ERRORKIND kind = submitted.GetErrorPointer()->kind;
            EXPECT_TRUE(kind == ERRORKIND::OUTOFMEMORY || kind == ERRORKIND::ILLEGALARGUMENT ||
                        kind == ERRORKIND::NULLPTR)
                << n << ": " << MessageOf(submitted);
        }
        r.request.Cancel();
        auto snap = PreviewImageScheduler::Get()->GetSnapshot();
        if (snap.runningNormal > 0 && !rec.Copy().empty() && !rec.Copy()[0].ok) {
            // A start that failed keeps its running slot: at a limit of one it blocks the level
            // until the scheduler is made again.
            ++stuck;
        }
        PreviewImageScheduler::FreeProcessScheduler();
        ASSERT_TRUE(PreviewImageScheduler::StartProcessScheduler().IsOk());
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(oks, 0);
    EXPECT_GT(stuck, 0) << "no failed start was seen; the loop reaches no job allocation";
    EXPECT_FALSE(reentered.empty()) << "no start failed inside Submit";
    for (const std::string& m : reentered)
        EXPECT_EQ(m, "Illegal state: Preview scheduler re-entered");
    bool reported = false;
    for (const std::string& line : host.GetCriticalLog()) {
        reported |= line.find("Preview scheduler re-entered under its queue lock in Submit") !=
                    std::string::npos;
    }
    EXPECT_TRUE(reported);
    EXPECT_TRUE(otherRec.Copy().empty());
}

// Many threads submit, cancel, drop and resubmit on the one-thread queue: the calls of one
// submission never overlap and their indices rise, and the scheduler comes to rest.
TEST_F(PreviewTest, ThreadsSubmitCancelDropResubmit) {
    constexpr int THREADS = 4, ROUNDS = 40;
    std::vector<std::thread> threads;
    std::atomic<int> bad{0};
    std::vector<std::unique_ptr<Recorder>> recorders;
    std::mutex recordersMutex;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            Request r;
            for (int i = 0; i < ROUNDS; ++i) {
                const int op = (t * 7 + i * 3) % 5;
                if (op == 0 || !r.object) {
                    auto rec = std::make_unique<Recorder>();
                    Script s;
                    s.name = "t" + std::to_string(t);
                    s.steps = {Step{0, 3}, Step{1, 3}, Step{2, 3}};
                    r = ScriptedRequest(*rec, s);
                    if (r.request.Submit().IsError()) ++bad;
                    std::lock_guard<std::mutex> l(recordersMutex);
                    recorders.push_back(std::move(rec));
                } else if (op == 1) {
                    r.request.Cancel();
                } else if (op == 2) {
                    r = Request();  // drop the last reference
                } else if (op == 3) {
                    if (r.request.Submit().IsError()) ++bad;  // resubmit: same delegate
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    WaitIdle();
    EXPECT_EQ(bad.load(), 0);
    for (auto& rec : recorders) {
        EXPECT_EQ(rec->overlaps.load(), 0);
        Int last = -1;
        for (const Delivery& d : rec->Copy()) {
            EXPECT_TRUE(d.ok) << d.message;
            // A resubmission starts again at 0; within one run the indices rise.
            if (d.index != 0) {
                EXPECT_GT(d.index, last);
            }
            last = d.index;
        }
    }
    auto snap = PreviewImageScheduler::Get()->GetSnapshot();
    EXPECT_EQ(snap.runningNormal + snap.runningHigh, 0);
}

}  // namespace
}  // namespace quorv::nodes
