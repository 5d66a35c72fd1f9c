// The preview worker and scheduler, white-box: the module's sources are linked into this test,
// with a provider class of the test's own whose iterations follow a script (outputs, failures,
// gates the test opens). Everything observable goes through the completion delegate, the
// scheduler's snapshot and the host's background progress.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/progress.h"
#include "render/preview/previewimage_scheduler.h"
#include "tests/common/test_support.h"

namespace quorv::nodes {
namespace {

constexpr const char* TEST_PROVIDER_ID = "net.quorv.test.previewprovider";

// ---- a scripted provider ---------------------------------------------------------------------

struct Step {
    Int index = 0;
    Int count = 1;
    Int width = 2;
    Int height = 2;
    bool failCompute = false;
    bool failTake = false;
};

// A gate a test opens; a waiter also leaves when its job is cancelled.
class Gate {
public:
    void Open() {
        std::lock_guard<std::mutex> l(_m);
        _open = true;
        _cv.notify_all();
    }
    void Wait(JobObject* job) {
        std::unique_lock<std::mutex> l(_m);
        ++_waiting;
        _cv.notify_all();
        while (!_open && !(job && ThreadServicesInterface::IsCancelled(job))) {
            _cv.wait_for(l, std::chrono::milliseconds(1));
        }
        --_waiting;
    }
    // Returns once a waiter is inside.
    void AwaitWaiter() {
        std::unique_lock<std::mutex> l(_m);
        _cv.wait(l, [&] { return _waiting > 0; });
    }

private:
    std::mutex _m;
    std::condition_variable _cv;
    bool _open = false;
    int _waiting = 0;
};

struct Script {
    std::vector<Step> steps;
    bool failInitialize = false;
    Gate* gate = nullptr;       // every ComputeIteration waits here
    Gate* firstGate = nullptr;  // only the first one
    std::string name;
};

std::mutex g_logMutex;
std::vector<std::string> g_log;  // "name:compute:N", "name:take:N", "name:init:T"
std::map<Int, Script> g_scripts;
Int g_nextScript = 1;

void Log(const std::string& s) {
    std::lock_guard<std::mutex> l(g_logMutex);
    g_log.push_back(s);
}

std::vector<std::string> LogCopy() {
    std::lock_guard<std::mutex> l(g_logMutex);
    return g_log;
}

const DictionaryKey<Int> SCRIPT_KEY("net.quorv.test.preview.script");

struct TestProvider {
    Result<void> Initialize(const DataDictionaryObjectInterface::Ref& request, Int threadCount) {
        const Int key = GetObjectValue(request, SCRIPT_KEY, Int(0));
        {
            std::lock_guard<std::mutex> l(g_logMutex);
            auto it = g_scripts.find(key);
            // Under a failing allocator the key's copy may come back empty.
            if (it == g_scripts.end()) return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, "no script");
            script = &it->second;
        }
        Log(script->name + ":init:" + std::to_string(threadCount));
        if (script->failInitialize) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, "scripted init failure");
        }
        return OK;
    }
    Result<void> ComputeIteration(JobObject* job) {
        if (script->firstGate && computed == 0) script->firstGate->Wait(job);
        if (script->gate) script->gate->Wait(job);
        const Step& s = script->steps[static_cast<size_t>(std::min<Int>(computed, Int(script->steps.size()) - 1))];
        Log(script->name + ":compute:" + std::to_string(computed) +
            (ThreadServicesInterface::IsCancelled(job) ? ":cancelled" : ""));
        if (ThreadServicesInterface::IsCancelled(job)) return OK;  // adds nothing
        ++computed;
        if (s.failCompute) return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "scripted compute failure");
        return OK;
    }
    Result<PreviewImageProviderOutput> TakeOutput() {
        const Step& s = script->steps[static_cast<size_t>(std::min<Int>(computed - 1, Int(script->steps.size()) - 1))];
        Log(script->name + ":take:" + std::to_string(s.index));
        if (s.failTake) return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "scripted take failure");
        PreviewImageProviderOutput out;
        out.iterationIndex = s.index;
        out.iterationCount = s.count;
        Result<Ref<SampleBuffer>> b = SampleBuffer::Create(s.width * s.height);
        if (b.IsError()) return b.GetError();
        for (Int i = 0; i < s.width * s.height; ++i) {
            b.GetValue()->GetData()[i] = ColorA32{Float32(i), Float32(s.index), 0.f, 1.f};
        }
        PreviewImageProviderOutputImage image{s.width, s.height, b.GetValue(), true};
        QUORV_RETURN_IF_ERROR(out.images.Set(DictionaryKey<PreviewImageProviderOutputImage>("beauty"), image));
        QUORV_RETURN_IF_ERROR(out.metadata.Set(DictionaryKey<Int>("net.quorv.test.preview.step"), computed));
        return out;
    }
    TestProvider& operator=(const TestProvider&) = default;
    Script* script = nullptr;
    Int computed = 0;
};

ModuleUnit g_unit(__FILE__);
SimpleClass<TestProvider, PreviewImageProviderInterface> g_provider(g_unit, TEST_PROVIDER_ID,
                                                                    PREVIEWIMAGEPROVIDER_REGISTRY_ID, __FILE__);

// ---- deliveries as the delegate sees them ----------------------------------------------------

struct Delivery {
    bool ok = true;
    std::string message;
    Int index = -100;
    Int count = -100;
    Int images = 0;
    Int width = 0, height = 0;
    Ref<SampleBuffer> buffer;
};

struct Recorder {
    std::mutex m;
    std::condition_variable cv;
    std::vector<Delivery> calls;
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};

    ResultCompleteFunc Func() {
        return ResultCompleteFunc::Create([this](Result<void> r, DataDictionary meta, DataDictionary images) {
                   if (inside.fetch_add(1) != 0) ++overlaps;
                   Delivery d;
                   d.ok = r.IsOk();
                   if (r.IsError() && r.GetErrorPointer()->message) d.message = r.GetErrorPointer()->message;
                   d.index = meta.Get(PREVIEW_ITERATIONINDEX, Int(-100));
                   d.count = meta.Get(PREVIEW_ITERATIONCOUNT, Int(-100));
                   d.images = images.GetCount();
                   auto image = images.Get(DictionaryKey<PreviewImageProviderOutputImage>("beauty"),
                                           PreviewImageProviderOutputImage{});
                   d.width = image.width;
                   d.height = image.height;
                   d.buffer = image.buffer;
                   inside.fetch_sub(1);
                   std::lock_guard<std::mutex> l(m);
                   calls.push_back(std::move(d));
                   cv.notify_all();
               })
            .GetValue();
    }
    std::vector<Delivery> WaitFor(size_t n) {
        std::unique_lock<std::mutex> l(m);
        cv.wait_for(l, std::chrono::seconds(20), [&] { return calls.size() >= n; });
        return calls;
    }
    std::vector<Delivery> Copy() {
        std::lock_guard<std::mutex> l(m);
        return calls;
    }
};

struct Request {
    ObjectRef object;
    DataDictionaryObjectInterface::Ref dict;
    PreviewImageRequestInterface::Ref request;
};

Request NewRequest() {
    Request r;
    Result<ObjectRef> o = CreateObjectById(LiteralId(NODES_CLASS_REGISTRY_ID), LiteralId(PREVIEWIMAGEREQUEST_CLASS_ID));
    EXPECT_TRUE(o.IsOk()) << (o.IsError() ? o.GetErrorPointer()->message : "");
    r.object = o.GetValue();
    r.dict = DataDictionaryObjectInterface::Ref::Cast(r.object).GetValue();
    r.request = PreviewImageRequestInterface::Ref::Cast(r.object).GetValue();
    return r;
}

ClassObject* ProviderClass() {
    Result<const ClassObject*> c = FindClass(LiteralId(PREVIEWIMAGEPROVIDER_REGISTRY_ID), LiteralId(TEST_PROVIDER_ID));
    EXPECT_TRUE(c.IsOk());
    return const_cast<ClassObject*>(c.GetValue());
}

// A request with a delegate, a provider and a script.
Request ScriptedRequest(Recorder& rec, Script script, Vector2i64 size = {4, 4}) {
    Int key;
    {
        std::lock_guard<std::mutex> l(g_logMutex);
        key = g_nextScript++;
        g_scripts[key] = std::move(script);
    }
    Request r = NewRequest();
    EXPECT_TRUE(SetObjectValue(r.dict, PREVIEW_RESULTCOMPLETEFUNC, rec.Func()).IsOk());
    EXPECT_TRUE(SetObjectValue(r.dict, PREVIEW_TEXTURESIZE, size).IsOk());
    EXPECT_TRUE(SetObjectValue(r.dict, PREVIEW_PROVIDER, ProviderClass()).IsOk());
    EXPECT_TRUE(SetObjectValue(r.dict, SCRIPT_KEY, key).IsOk());
    return r;
}

void WaitIdle() {
    for (int i = 0; i < 20000; ++i) {
        auto s = PreviewImageScheduler::Get()->GetSnapshot();
        if (s.tasks == 0 && s.runningNormal == 0 && s.runningHigh == 0) return;
        std::this_thread::yield();
    }
    ADD_FAILURE() << "the scheduler did not come to rest";
}

template <typename R>
std::string MessageOf(const R& r) {
    return r.IsError() && r.GetErrorPointer()->message ? r.GetErrorPointer()->message : "";
}

class PreviewTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::lock_guard<std::mutex> l(g_logMutex);
        g_log.clear();
    }
    void TearDown() override { WaitIdle(); }
};

// ---- conversion ------------------------------------------------------------------------------

Ref<SampleBuffer> Numbered(Int w, Int h) {
    Ref<SampleBuffer> b = SampleBuffer::Create(w * h).GetValue();
    for (Int i = 0; i < w * h; ++i) b->GetData()[i] = ColorA32{Float32(i % w), Float32(i / w), 7.f, 1.f};
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
    EXPECT_EQ(MessageOf(ConvertSampleBuffer(wrong, 5, 5, 5, 5, true)), "Illegal argument: Invalid sample buffer.");
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
    for (Row r : {Row{1, false, 1, 1}, Row{2, false, 1, 1}, Row{4, false, 3, 1}, Row{6, false, 5, 2},
                  Row{40, false, 39, 8}, Row{40, true, 1, 1}, Row{17, false, 16, 8}, Row{18, false, 17, 8}}) {
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

struct OutputCase {
    const char* label;
    std::vector<Step> steps;
    std::vector<Int> deliveredIndices;  // in order; -1 marks an error call
    std::vector<std::string> messages;  // of error calls, in order
};

TEST_F(PreviewTest, OutputCases) {
    Step fail;
    fail.failCompute = true;
    Step failTake;
    failTake.failTake = true;
    const std::vector<OutputCase> cases = {
        {"count 1", {Step{0, 1}}, {0}, {}},
        {"index 2 of 3 after 0", {Step{0, 3}, Step{2, 3}}, {0, 2}, {}},
        {"index equal to count", {Step{1, 1}}, {}, {}},
        {"same index twice", {Step{0, 3}, Step{0, 3}, Step{1, 3}, Step{2, 3}}, {0, 1, 2}, {}},
        {"negative index", {Step{-1, 3}}, {}, {}},
        {"compute fails", {Step{0, 3}, Step{1, 3, 2, 2, true}}, {0, -1}, {"scripted compute failure"}},
        {"take fails", {Step{0, 2, 2, 2, false, true}}, {-1, -1}, {"scripted take failure", ""}},
    };
    for (const OutputCase& c : cases) {
        Recorder rec;
        Script s;
        s.name = c.label;
        s.steps = c.steps;
        Request r = ScriptedRequest(rec, s);
        ASSERT_TRUE(SetObjectValue(r.dict, PREVIEW_RESULTCOMPLETEWAIT, TimeValue::Infinite()).IsOk());
        ASSERT_TRUE(r.request.Submit().IsOk()) << c.label;
        WaitIdle();
        std::vector<Delivery> calls = rec.Copy();
        ASSERT_EQ(calls.size(), c.deliveredIndices.size()) << c.label;
        size_t m = 0;
        for (size_t i = 0; i < calls.size(); ++i) {
            if (c.deliveredIndices[i] < 0) {
                EXPECT_FALSE(calls[i].ok) << c.label;
                EXPECT_EQ(calls[i].images, 0) << c.label;
                if (m < c.messages.size()) {
                    EXPECT_EQ(calls[i].message, c.messages[m]) << c.label;
                }
                ++m;
            } else {
                EXPECT_TRUE(calls[i].ok) << c.label << ": " << calls[i].message;
                EXPECT_EQ(calls[i].index, c.deliveredIndices[i]) << c.label;
                EXPECT_EQ(calls[i].count, c.steps.back().count) << c.label;
                EXPECT_EQ(calls[i].images, 1) << c.label;
            }
        }
    }
}

TEST_F(PreviewTest, UpscaleAndFlipReachTheDelegate) {
    Recorder rec;
    Script s;
    s.name = "upscale";
    s.steps = {Step{0, 2, 2, 2}, Step{1, 2, 4, 4}};
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
    a.firstGate = &first;
    a.steps = {Step{0, 3}, Step{1, 3}, Step{2, 3}};
    Script b = a;
    b.name = "B";
    b.firstGate = nullptr;
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
    n.firstGate = &gate;
    n.steps = {Step{0, 2}, Step{1, 2}};
    Script h;
    h.name = "H";
    h.steps = {Step{0, 1}};
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
    std::vector<std::string> expected = {"N:init:1", "H:init:1", "N:compute:0:cancelled", "H:compute:0",
                                         "H:take:0", "N:compute:0", "N:take:0", "N:compute:1", "N:take:1"};
    EXPECT_EQ(log, expected) << "no TakeOutput after a pause; the normal task restarts after the high one";
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
    Script p2;
    p2.name = "p2";
    p2.steps = {Step{0, 1}};
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
    Script queued;
    queued.name = "queued";
    queued.steps = {Step{0, 1}};
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

TEST_F(PreviewTest, BackgroundEntryLivesWithVisibleTasks) {
    BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
    ASSERT_NE(master, nullptr);
    const Int before = BackgroundProgressInterface::GetEntryCount(master);
    Recorder rec;
    Gate gate;
    Script s;
    s.name = "visible";
    s.gate = &gate;
    s.steps = {Step{0, 2}, Step{1, 2}};
    Script node;
    node.name = "node2d";
    node.steps = {Step{0, 1}};
    Request visible = ScriptedRequest(rec, s, {8, 4});
    ASSERT_TRUE(SetObjectValue(visible.dict, PREVIEW_TEXTUREIDS, IdArray{Id::Intern("a"), Id::Intern("b")}).IsOk());
    ASSERT_TRUE(visible.request.Submit().IsOk());
    gate.AwaitWaiter();
    auto snap = PreviewImageScheduler::Get()->GetSnapshot();
    ASSERT_TRUE(snap.activeEntry) << "is the resource string shipped?";
    EXPECT_EQ(snap.activeJobCount, 1);
    EXPECT_EQ(BackgroundProgressInterface::GetEntryCount(master), before + 1);
    BackgroundEntryObject* entry = BackgroundProgressInterface::GetEntry(master, before);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(ProgressInterface::GetJobCount(entry), 1);

    Request n2d = ScriptedRequest(rec, node);
    ASSERT_TRUE(SetObjectValue(n2d.dict, PREVIEW_INTENT, Id::Intern(PREVIEW_INTENT_NODE2D)).IsOk());
    ASSERT_TRUE(n2d.request.Submit().IsOk());
    EXPECT_EQ(ProgressInterface::GetJobCount(entry), 1) << "node2d adds no progress job";
    gate.Open();
    rec.WaitFor(3);
    WaitIdle();
    EXPECT_FALSE(PreviewImageScheduler::Get()->GetSnapshot().activeEntry);
    EXPECT_EQ(BackgroundProgressInterface::GetEntryCount(master), before);
    RemoveReference(entry);
}

TEST_F(PreviewTest, OutOfMemoryAtEachAllocationOfASubmit) {
    host::Host& host = host::Host::Get();
    int oks = 0, refused = 0, stuck = 0;
    for (Int n = 1; n <= 80; ++n) {
        Recorder rec;
        Script s;
        s.name = "oom";
        s.steps = {Step{0, 1}};
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
