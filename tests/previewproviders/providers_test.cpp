// The providers of libquorv_previewproviders.so, white-box: the render module's and the
// providers' sources linked into this test, requests run through the real scheduler.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "previewproviders/previewproviders.h"
#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/preview/previewimage_scheduler.h"
#include "tests/common/test_support.h"

namespace quorv::previewproviders {
namespace {

using nodes::PreviewImageProviderOutputImage;

Int NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct Delivery {
    bool ok = true;
    std::string message;
    Int index = -100, count = -100;
    DataDictionary metadata;
    PreviewImageProviderOutputImage image;
    Int at = 0;  // steady-clock ns of the call
};

// The delegate's view of one submission.
struct Recorder {
    std::mutex m;
    std::condition_variable cv;
    std::vector<Delivery> calls;
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::atomic<Int> delivered{0};  // calls so far, counted before the call returns

    nodes::ResultCompleteFunc Func() {
        return nodes::ResultCompleteFunc::Create([this](Result<void> r, DataDictionary meta,
                                                        DataDictionary images) {
                   if (inside.fetch_add(1) != 0) ++overlaps;
                   Delivery d;
                   d.at = NowNs();
                   d.ok = r.IsOk();
                   if (r.IsError() && r.GetErrorPointer()->message)
                       d.message = r.GetErrorPointer()->message;
                   d.index = meta.Get(nodes::PREVIEW_ITERATIONINDEX, Int(-100));
                   d.count = meta.Get(nodes::PREVIEW_ITERATIONCOUNT, Int(-100));
                   d.metadata = meta;
                   d.image = images.Get(
                       BALL_IMAGE, images.Get(SCRIPTED_IMAGE, PreviewImageProviderOutputImage{}));
                   inside.fetch_sub(1);
                   std::lock_guard<std::mutex> l(m);
                   calls.push_back(std::move(d));
                   delivered.fetch_add(1);
                   cv.notify_all();
               })
            .GetValue();
    }
    std::vector<Delivery> WaitFor(size_t n) {
        std::unique_lock<std::mutex> l(m);
        cv.wait_for(l, std::chrono::seconds(60), [&] { return calls.size() >= n; });
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
    nodes::PreviewImageRequestInterface::Ref request;
};

Request NewRequest(const char* provider, Recorder& rec, Vector2i64 size) {
    Request r;
    Result<ObjectRef> o = CreateObjectById(LiteralId(nodes::NODES_CLASS_REGISTRY_ID),
                                           LiteralId(nodes::PREVIEWIMAGEREQUEST_CLASS_ID));
    EXPECT_TRUE(o.IsOk());
    r.object = o.GetValue();
    r.dict = DataDictionaryObjectInterface::Ref::Cast(r.object).GetValue();
    r.request = nodes::PreviewImageRequestInterface::Ref::Cast(r.object).GetValue();
    const ClassObject* cls =
        FindClass(LiteralId(nodes::PREVIEWIMAGEPROVIDER_REGISTRY_ID), LiteralId(provider))
            .GetValue();
    EXPECT_TRUE(
        SetObjectValue(r.dict, nodes::PREVIEW_PROVIDER, const_cast<ClassObject*>(cls)).IsOk());
    EXPECT_TRUE(SetObjectValue(r.dict, nodes::PREVIEW_RESULTCOMPLETEFUNC, rec.Func()).IsOk());
    EXPECT_TRUE(SetObjectValue(r.dict, nodes::PREVIEW_TEXTURESIZE, size).IsOk());
    return r;
}

template <typename T>
void Set(const Request& r, const DictionaryKey<T>& key, const T& value) {
    ASSERT_TRUE(SetObjectValue(r.dict, key, value).IsOk());
}

void WaitIdle() {
    for (int i = 0; i < 200000; ++i) {
        auto s = nodes::PreviewImageScheduler::Get()->GetSnapshot();
        if (s.tasks == 0 && s.runningNormal == 0 && s.runningHigh == 0) return;
        std::this_thread::yield();
    }
    ADD_FAILURE() << "the scheduler did not come to rest";
}

std::vector<ColorA32> Samples(const PreviewImageProviderOutputImage& image) {
    if (!image.buffer) return {};
    return std::vector<ColorA32>(image.buffer->GetData(),
                                 image.buffer->GetData() + image.buffer->GetCount());
}

// ---- a BSDF that holds the ball inside an iteration -------------------------------------------

// Holds every `SampleF` call once a submission has had a given number of deliveries, until the
// test moves the threshold on: an iteration of the ball is then surely in progress.
class SampleGate {
public:
    /// From now on, calls hold once `deliveries` reaches `threshold` (-1: never); calls held
    /// under the former threshold go on.
    void HoldFrom(const std::atomic<Int>* deliveries, Int threshold) {
        std::lock_guard<std::mutex> l(_m);
        _deliveries = deliveries;
        _holding = false;
        _threshold.store(threshold);
        _cv.notify_all();
    }
    /// Returns once a call holds.
    void AwaitHolding() {
        std::unique_lock<std::mutex> l(_m);
        _cv.wait(l, [&] { return _holding; });
    }
    void Pass() {
        if (_threshold.load(std::memory_order_relaxed) < 0) return;
        std::unique_lock<std::mutex> l(_m);
        const Int mine = _threshold.load();
        if (mine < 0 || _deliveries->load() < mine) return;
        _holding = true;
        _cv.notify_all();
        _cv.wait(l, [&] { return _threshold.load() != mine; });
    }

private:
    std::mutex _m;
    std::condition_variable _cv;
    const std::atomic<Int>* _deliveries = nullptr;
    std::atomic<Int> _threshold{-1};
    bool _holding = false;
};

SampleGate g_sampleGate;
constexpr const char* GATED_BSDF_ID = "net.quorv.test.gatedggxbrdf";

// The GGX class, called through its interface, with `SampleF` passing the gate first: the same
// values to the bit.
struct GatedGgxBRDF {
    Result<void> Init(const DataDictionary& params, const void* data) {
        Result<ObjectRef> o = CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID),
                                               LiteralId(GGX_BRDF_CLASS_ID));
        if (o.IsError()) return o.GetError();
        Result<BSDFLegacyRef> ggx = BSDFLegacyRef::Cast(o.GetValue());
        if (ggx.IsError()) return ggx.GetError();
        inner = ggx.GetValue();
        return inner.Init(params, data);
    }
    Result<void> Update(const void* data, UInt32 type) { return inner.Update(data, type); }
    Result<void> Reset() { return inner.Reset(); }
    Color64 SampleF(const Vector64& wo, const Vector64& normal, const BSDFCachedSample& sample,
                    Vector64& wi, Float64& pdf) {
        g_sampleGate.Pass();
        return inner.SampleF(wo, normal, sample, wi, pdf);
    }
    Color64 ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64& wi,
                        Float64& pdf) {
        return inner.ComputeBSDF(wo, wiSide, wi, pdf);
    }
    Color64 ComputeF_UVW(const Vector64& wo, const Vector64& wi, const Vector64& uvw,
                         const Vector64& delta) {
        return inner.ComputeF_UVW(wo, wi, uvw, delta);
    }
    Float64 ComputeAngle(const BSDFCachedSample& sample) { return inner.ComputeAngle(sample); }
    Float64 PdfIndirect(const Vector64& wo, const Vector64& wi) {
        return inner.PdfIndirect(wo, wi);
    }
    Float64 ComputeMIPAngle(Float64 angle) { return inner.ComputeMIPAngle(angle); }
    BSDFFrame ComputeBSDFFrame(const Vector64& n, const Vector64& u, const Vector64& v,
                               const Vector64& position, Bool fast, Bool world,
                               Bool useGivenFrame) {
        return inner.ComputeBSDFFrame(n, u, v, position, fast, world, useGivenFrame);
    }
    Result<void> GeneratePreviewImage(ImageObject* image, Float64 gain) {
        return inner.GeneratePreviewImage(image, gain);
    }
    BSDFLegacyRef inner;
};

ModuleUnit g_unit(__FILE__);
SimpleClass<GatedGgxBRDF, BSDFLegacyInterface> g_gatedBsdf(g_unit, GATED_BSDF_ID,
                                                           BSDF_LEGACY_CLASS_REGISTRY_ID, __FILE__);

// ---- the material ball -----------------------------------------------------------------------

// Runs a ball to its end and gives every delivery.
std::vector<Delivery> RunBall(Vector2i64 size, Int iterations, Int samples, Int seed,
                              const char* bsdf) {
    Recorder rec;
    Request r = NewRequest(MATERIALBALL_PROVIDER_ID, rec, size);
    Set(r, BALL_ITERATIONS, iterations);
    Set(r, BALL_SAMPLES, samples);
    Set(r, BALL_SEED, seed);
    Set(r, BALL_BSDF, Id::Intern(bsdf));
    Set(r, nodes::PREVIEW_RESULTCOMPLETEWAIT, TimeValue::Infinite());
    EXPECT_TRUE(r.request.Submit().IsOk());
    WaitIdle();
    return rec.Copy();
}

TEST(MaterialBall, SizesSamplesAndMetadataOfEachIteration) {
    const std::vector<Delivery> calls = RunBall({40, 20}, 6, 2, 0, LAMBERT_BRDF_CLASS_ID);
    ASSERT_EQ(calls.size(), 6u);
    // Written out: 1/8, 1/4, 1/2 of each side, then full size; samples so far double.
    const Int widths[] = {5, 10, 20, 40, 40, 40}, heights[] = {2, 5, 10, 20, 20, 20};
    const Int spp[] = {2, 4, 8, 16, 32, 64};
    for (size_t i = 0; i < calls.size(); ++i) {
        ASSERT_TRUE(calls[i].ok) << calls[i].message;
        EXPECT_EQ(calls[i].index, Int(i));
        EXPECT_EQ(calls[i].count, 6);
        EXPECT_EQ(calls[i].image.width, widths[i]);
        EXPECT_EQ(calls[i].image.height, heights[i]);
        EXPECT_EQ(calls[i].metadata.Get(BALL_META_SAMPLES, Int(0)), spp[i]);
        for (const ColorA32& c : Samples(calls[i].image)) {
            ASSERT_TRUE(std::isfinite(c.r) && std::isfinite(c.g) && std::isfinite(c.b));
            ASSERT_GE(std::min({c.r, c.g, c.b}), 0.0f);
            ASSERT_EQ(c.a, 1.0f);
        }
    }
    // The top row sees only sky, brighter towards the horizon than the zenith is: never black.
    const ColorA32 corner = calls.back().image.buffer->GetData()[0];
    EXPECT_GT(corner.b, 0.2f);
    // Bad settings are refused by Initialize, before the task exists.
    Recorder rec;
    Request bad = NewRequest(MATERIALBALL_PROVIDER_ID, rec, {8, 8});
    Set(bad, BALL_ITERATIONS, Int(17));
    EXPECT_TRUE(bad.request.Submit().IsError());
    Set(bad, BALL_ITERATIONS, Int(2));
    Set(bad, BALL_BSDF, Id::Intern("net.quorv.render.bsdflegacyclass.none"));
    EXPECT_TRUE(bad.request.Submit().IsError());
    Set(bad, BALL_BSDF, Id::Intern(ANISOTROPIC_BRDF_CLASS_ID));
    EXPECT_TRUE(bad.request.Submit().IsError());
    EXPECT_TRUE(rec.Copy().empty());
}

Float64 RmsError(const std::vector<ColorA32>& a, const std::vector<ColorA32>& b) {
    Float64 sum = 0.0;
    for (size_t i = 0; i < a.size(); ++i) {
        const Float64 dr = Float64(a[i].r) - b[i].r, dg = Float64(a[i].g) - b[i].g,
                      db = Float64(a[i].b) - b[i].b;
        sum += dr * dr + dg * dg + db * db;
    }
    return std::sqrt(sum / Float64(3 * a.size()));
}

TEST(MaterialBall, ErrorToAReferenceFallsWithEveryFullSizeIteration) {
    // The reference has another seed: its samples are independent of the run's.
    const std::vector<Delivery> reference = RunBall({32, 24}, 10, 2, 99, GGX_BRDF_CLASS_ID);
    const std::vector<Delivery> run = RunBall({32, 24}, 7, 1, 0, GGX_BRDF_CLASS_ID);
    ASSERT_EQ(reference.size(), 10u);
    ASSERT_EQ(run.size(), 7u);
    const std::vector<ColorA32> ref = Samples(reference.back().image);
    Float64 last = 1e300;
    for (size_t i = 3; i < run.size(); ++i) {
        const Float64 e = RmsError(Samples(run[i].image), ref);
        EXPECT_LT(e, last) << "iteration " << i;
        last = e;
    }
    // Four doublings of the samples: the error of a mean falls by about 1/sqrt(2) each.
    EXPECT_LT(last, RmsError(Samples(run[3].image), ref) * 0.6);
}

// Five pauses, each surely inside an iteration (0 to 4): the high-priority request is submitted
// while a `SampleF` of the ball holds, so the ball's next poll finds its job cancelled.
TEST(MaterialBall, PausedFiveTimesEndsBitIdenticalToUnpaused) {
    const Vector2i64 size{48, 32};
    const std::vector<Delivery> unpaused = RunBall(size, 6, 4, 7, GGX_BRDF_CLASS_ID);
    ASSERT_EQ(unpaused.size(), 6u);

    Recorder rec;
    Request ball = NewRequest(MATERIALBALL_PROVIDER_ID, rec, size);
    Set(ball, BALL_ITERATIONS, Int(6));
    Set(ball, BALL_SAMPLES, Int(4));
    Set(ball, BALL_SEED, Int(7));
    Set(ball, BALL_BSDF, Id::Intern(GATED_BSDF_ID));
    g_sampleGate.HoldFrom(&rec.delivered, 0);
    ASSERT_TRUE(ball.request.Submit().IsOk());
    for (Int pause = 0; pause < 5; ++pause) {
        g_sampleGate.AwaitHolding();  // inside iteration `pause`
        EXPECT_EQ(rec.delivered.load(), pause);
        Recorder high;
        Request h = NewRequest(SCRIPTED_PROVIDER_ID, high, {2, 2});
        Set(h, SCRIPTED_COUNT, Int(1));
        Set(h, nodes::PREVIEW_PURPOSE, UInt32(1));
        ASSERT_TRUE(h.request.Submit().IsOk());  // its start pass cancels the ball's job
        // The held calls go on; the computation again of this iteration passes, the next holds.
        g_sampleGate.HoldFrom(&rec.delivered, pause < 4 ? pause + 1 : -1);
        ASSERT_EQ(high.WaitFor(1).size(), 1u);
    }
    const std::vector<Delivery> paused = rec.WaitFor(6);
    WaitIdle();
    ASSERT_EQ(paused.size(), 6u);
    EXPECT_EQ(paused.back().metadata.Get(BALL_META_CANCELLED, Int(0)), 5)
        << "every pause reached a computation";
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(paused[i].index, Int(i));
        const std::vector<ColorA32> a = Samples(unpaused[i].image), b = Samples(paused[i].image);
        ASSERT_EQ(a.size(), b.size());
        EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(ColorA32)), 0)
            << "iteration " << i;
    }
}

// ---- the scripted provider -------------------------------------------------------------------

TEST(ScriptedProvider, ScriptsReachTheDelegate) {
    struct Row {
        const char* label;
        Int count;
        const char* indices;
        const char* sizes;
        const char* fail;
        std::vector<Int> delivered;  // -1: an error call
        std::vector<Int> widths;
    };
    const std::vector<Row> rows = {
        {"three steps", 3, "", "", "", {0, 1, 2}, {6, 6, 6}},
        {"sizes by step", 3, "", "2x1,4x2", "", {0, 1, 2}, {2, 4, 4}},
        {"skipped and repeated indices", 4, "0,0,3", "", "", {0, 3}, {6, 6}},
        {"compute fails at step 1", 3, "", "", "compute:1", {0, -1}, {6, 0}},
        {"take fails at step 0: two calls", 3, "", "", "take:0", {-1, -1}, {0, 0}},
    };
    for (const Row& row : rows) {
        Recorder rec;
        Request r = NewRequest(SCRIPTED_PROVIDER_ID, rec, {6, 3});
        Set(r, SCRIPTED_COUNT, row.count);
        Set(r, SCRIPTED_INDICES, std::string(row.indices));
        Set(r, SCRIPTED_SIZES, std::string(row.sizes));
        Set(r, SCRIPTED_FAIL, std::string(row.fail));
        Set(r, nodes::PREVIEW_RESULTCOMPLETEWAIT, TimeValue::Infinite());
        ASSERT_TRUE(r.request.Submit().IsOk()) << row.label;
        WaitIdle();
        const std::vector<Delivery> calls = rec.Copy();
        ASSERT_EQ(calls.size(), row.delivered.size()) << row.label;
        for (size_t i = 0; i < calls.size(); ++i) {
            if (row.delivered[i] < 0) {
                EXPECT_FALSE(calls[i].ok) << row.label;
                continue;
            }
            EXPECT_TRUE(calls[i].ok) << row.label << ": " << calls[i].message;
            EXPECT_EQ(calls[i].index, row.delivered[i]) << row.label;
            EXPECT_EQ(calls[i].image.width, row.widths[i]) << row.label;
            // The sample at (x, y) tells its index and place.
            const ColorA32 last =
                calls[i].image.buffer->GetData()[calls[i].image.buffer->GetCount() - 1];
            EXPECT_EQ(last.r, Float32(row.delivered[i]));
            EXPECT_EQ(last.g, Float32(calls[i].image.width - 1));
        }
    }
    Recorder rec;
    Request r = NewRequest(SCRIPTED_PROVIDER_ID, rec, {2, 2});
    Set(r, SCRIPTED_FAIL, std::string("initialize"));
    EXPECT_TRUE(r.request.Submit().IsError());
    Set(r, SCRIPTED_FAIL, std::string("compute"));
    EXPECT_TRUE(r.request.Submit().IsError()) << "a failure needs its step";
    Set(r, SCRIPTED_FAIL, std::string());
    Set(r, SCRIPTED_SIZES, std::string("2x"));
    EXPECT_TRUE(r.request.Submit().IsError());
}

TEST(ScriptedProvider, GateHoldsAndAPauseIsLoggedAsACancelledComputation) {
    ConditionVariableObject* gate = ConditionVariableInterface::Alloc(QUORV_SOURCE_LOCATION);
    Recorder rec;
    Request r = NewRequest(SCRIPTED_PROVIDER_ID, rec, {2, 2});
    Set(r, SCRIPTED_COUNT, Int(2));
    Set(r, SCRIPTED_GATE, static_cast<Int>(reinterpret_cast<std::uintptr_t>(gate)));
    ASSERT_TRUE(r.request.Submit().IsOk());
    while (nodes::PreviewImageScheduler::Get()->GetSnapshot().runningNormal == 0)
        std::this_thread::yield();
    Recorder high;
    Request h = NewRequest(SCRIPTED_PROVIDER_ID, high, {2, 2});
    Set(h, SCRIPTED_COUNT, Int(1));
    Set(h, nodes::PREVIEW_PURPOSE, UInt32(1));
    Set(h, nodes::PREVIEW_RESULTCOMPLETEWAIT, TimeValue::Infinite());
    ASSERT_TRUE(h.request.Submit().IsOk());  // pauses the gated one, whose wait ends
    EXPECT_TRUE(rec.Copy().empty()) << "the gate is shut";
    ConditionVariableInterface::Set(gate);
    const std::vector<Delivery> calls = rec.WaitFor(2);
    WaitIdle();
    ASSERT_EQ(calls.size(), 2u);
    const std::string log = calls[1].metadata.Get(SCRIPTED_META_LOG, std::string());
    // At most one cancelled computation (the pause may land before the job began), then two.
    EXPECT_NE(log.find("compute 0 thread"), std::string::npos) << log;
    EXPECT_NE(log.find("compute 1 thread"), std::string::npos) << log;
    const Int computations = calls[1].metadata.Get(SCRIPTED_META_COMPUTATIONS, Int(0));
    EXPECT_GE(computations, 2);
    EXPECT_LE(computations, 3);
    EXPECT_EQ(log.find("cancelled 1") != std::string::npos, computations == 3) << log;
    ConditionVariableInterface::Free(gate);
}

// ---- many threads on a small queue ---------------------------------------------------------

// Threads submit, cancel, drop and resubmit: the calls of one submission never overlap and
// their indices rise, no iteration begun after Cancel returned is delivered, and at rest no
// task runs, no queue holds an id and only never-run cancelled tasks keep their provider.
TEST(PreviewStress, ThreadsSubmitCancelDropResubmit) {
    constexpr int THREADS = 4, ROUNDS = 60;
    struct Submission {
        std::unique_ptr<Recorder> recorder = std::make_unique<Recorder>();
        Int cancelledAt = 0;  // steady-clock ns when its cancellation had returned, or 0
    };
    std::mutex m;
    std::vector<std::shared_ptr<Submission>> all;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            Request r;
            std::shared_ptr<Submission> current;
            auto submit = [&](bool fresh) {
                auto s = std::make_shared<Submission>();
                if (fresh || !r.object) {
                    r = NewRequest(SCRIPTED_PROVIDER_ID, *s->recorder, {3, 2});
                    (void)SetObjectValue(r.dict, SCRIPTED_COUNT, Int(4));
                    (void)SetObjectValue(r.dict, SCRIPTED_WORKTIME, 0.0002);
                    if (t == 0) (void)SetObjectValue(r.dict, nodes::PREVIEW_PURPOSE, UInt32(1));
                } else {
                    // The same request again, with a delegate of its own for this submission.
                    (void)SetObjectValue(r.dict, nodes::PREVIEW_RESULTCOMPLETEFUNC,
                                         s->recorder->Func());
                }
                if (r.request.Submit().IsError()) ++failures;
                // Submit let go of the earlier task before it made this one.
                if (current) current->cancelledAt = NowNs();
                current = s;
                std::lock_guard<std::mutex> l(m);
                all.push_back(s);
            };
            std::minstd_rand ops(static_cast<unsigned>(t + 1));
            for (int i = 0; i < ROUNDS; ++i) {
                switch (ops() % 6) {
                    case 0:
                        submit(true);
                        break;
                    case 1:
                        if (r.object) {
                            r.request.Cancel();
                            if (current) current->cancelledAt = NowNs();
                        }
                        break;
                    case 2:
                        r = Request();  // the last reference
                        if (current) current->cancelledAt = NowNs();
                        current.reset();
                        break;
                    case 3:
                        submit(false);
                        break;
                    default:
                        // Lets the live submission get somewhere: its first delivery.
                        if (current && current->cancelledAt == 0) current->recorder->WaitFor(1);
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    WaitIdle();
    EXPECT_EQ(failures.load(), 0);
    int delivered = 0;
    for (const auto& s : all) {
        EXPECT_EQ(s->recorder->overlaps.load(), 0);
        Int last = -1;
        for (const Delivery& d : s->recorder->Copy()) {
            ASSERT_TRUE(d.ok) << d.message;
            ++delivered;
            EXPECT_GT(d.index, last);
            last = d.index;
            const Int begun = d.metadata.Get(SCRIPTED_META_BEGIN, Int(0));
            if (s->cancelledAt != 0) {
                EXPECT_LT(begun, s->cancelledAt) << "an iteration begun after Cancel was delivered";
            }
        }
    }
    EXPECT_GT(delivered, 0);
    const auto snap = nodes::PreviewImageScheduler::Get()->GetSnapshot();
    EXPECT_EQ(snap.tasks, 0);
    EXPECT_EQ(snap.runningNormal + snap.runningHigh, 0);
    EXPECT_EQ(snap.queuedNormal + snap.queuedHigh, 0);
    EXPECT_EQ(LiveProviderCount(), snap.retained)
        << "only never-run cancelled tasks keep a provider";
    nodes::PreviewImageScheduler::FreeProcessScheduler();
    EXPECT_EQ(LiveProviderCount(), 0);
    ASSERT_TRUE(nodes::PreviewImageScheduler::StartProcessScheduler().IsOk());
}

}  // namespace
}  // namespace quorv::previewproviders
