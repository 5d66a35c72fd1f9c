#pragma once
// What the white-box tests of the preview worker and scheduler share: a provider whose
// iterations follow a script (outputs, failures, gates the test opens), the delegate's record
// of its calls, requests, and the values the background progress takes. A binary that includes
// this registers the provider class once (`PREVIEW_TEST_PROVIDER`).

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/progress.h"
#include "render/preview/previewimage_scheduler.h"

namespace quorv::nodes::previewtest {

inline constexpr const char* TEST_PROVIDER_ID = "net.quorv.test.previewprovider";

// ---- a scripted provider ---------------------------------------------------------------------

struct Step {
    Int index = 0;
    Int count = 1;
    Int width = 2;
    Int height = 2;
    bool failCompute = false;
    bool failTake = false;
    // A second image, "z", whose buffer holds one sample too few for its size.
    bool badSecondImage = false;
};

/// A gate a test opens. A waiter also leaves when its job is cancelled, unless the gate holds
/// through cancellation (so that the test decides when a cancelled job ends).
class Gate {
public:
    explicit Gate(bool holdsThroughCancel = false) : _holdsThroughCancel(holdsThroughCancel) {}
    void Open() {
        std::lock_guard<std::mutex> l(_m);
        _open = true;
        _cv.notify_all();
    }
    void Wait(JobObject* job) {
        std::unique_lock<std::mutex> l(_m);
        ++_waiting;
        ++_arrivals;
        _cv.notify_all();
        while (!_open &&
               !(!_holdsThroughCancel && job && ThreadServicesInterface::IsCancelled(job))) {
            _cv.wait_for(l, std::chrono::milliseconds(1));
        }
        --_waiting;
    }
    /// Returns once a waiter has arrived (it may have left again since).
    void AwaitWaiter() {
        std::unique_lock<std::mutex> l(_m);
        _cv.wait(l, [&] { return _arrivals > 0; });
    }

private:
    std::mutex _m;
    std::condition_variable _cv;
    bool _open = false;
    bool _holdsThroughCancel;
    int _waiting = 0;
    int _arrivals = 0;
};

struct Script {
    std::vector<Step> steps;
    bool failInitialize = false;
    Gate* gate = nullptr;            // every computation waits here
    std::map<Int, Gate*> callGates;  // by call of ComputeIteration, 0 the first
    std::string name;
};

inline Script MakeScript(std::string name, std::vector<Step> steps,
                         std::map<Int, Gate*> callGates = {}) {
    Script s;
    s.name = std::move(name);
    s.steps = std::move(steps);
    s.callGates = std::move(callGates);
    return s;
}

/// The provider's log: "name:init:THREADS", "name:compute:N" (":cancelled" when its job was),
/// "name:take:INDEX". N counts the computations whose job was not cancelled.
inline std::mutex g_logMutex;
inline std::vector<std::string> g_log;
inline std::map<Int, Script> g_scripts;
inline Int g_nextScript = 1;

inline void Log(const std::string& s) {
    std::lock_guard<std::mutex> l(g_logMutex);
    g_log.push_back(s);
}

inline std::vector<std::string> LogCopy() {
    std::lock_guard<std::mutex> l(g_logMutex);
    return g_log;
}

inline void ClearLog() {
    std::lock_guard<std::mutex> l(g_logMutex);
    g_log.clear();
}

/// The lines of the log that start with "NAME:".
inline std::vector<std::string> LogOf(const std::string& name) {
    std::vector<std::string> out;
    for (const std::string& s : LogCopy()) {
        if (s.rfind(name + ":", 0) == 0) out.push_back(s);
    }
    return out;
}

/// Position of `line` in the log, or -1.
inline Int LogPosition(const std::string& line) {
    const std::vector<std::string> log = LogCopy();
    for (size_t i = 0; i < log.size(); ++i) {
        if (log[i] == line) return static_cast<Int>(i);
    }
    return -1;
}

// Keys chain themselves into the binary's key list when made: at namespace scope only, never
// on a job thread.
inline const DictionaryKey<Int> SCRIPT_KEY("net.quorv.test.preview.script");
inline const DictionaryKey<PreviewImageProviderOutputImage> BEAUTY_IMAGE("beauty");
inline const DictionaryKey<PreviewImageProviderOutputImage> SECOND_IMAGE("z");
inline const DictionaryKey<Int> STEP_KEY("net.quorv.test.preview.step");

inline Result<Ref<SampleBuffer>> NumberedBuffer(Int count, Int index) {
    Result<Ref<SampleBuffer>> b = SampleBuffer::Create(count);
    if (b.IsError()) return b;
    for (Int i = 0; i < count; ++i) {
        b.GetValue()->GetData()[i] = ColorA32{Float32(i), Float32(index), 0.f, 1.f};
    }
    return b;
}

struct TestProvider {
    Result<void> Initialize(const DataDictionaryObjectInterface::Ref& request, Int threadCount) {
        const Int key = GetObjectValue(request, SCRIPT_KEY, Int(0));
        {
            std::lock_guard<std::mutex> l(g_logMutex);
            auto it = g_scripts.find(key);
            // Under a failing allocator the key's copy may come back empty.
            if (it == g_scripts.end()) {
                return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, "no script");
            }
            script = &it->second;
        }
        Log(script->name + ":init:" + std::to_string(threadCount));
        if (script->failInitialize) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "scripted init failure");
        }
        return OK;
    }
    Result<void> ComputeIteration(JobObject* job) {
        const Int call = calls++;
        if (auto g = script->callGates.find(call); g != script->callGates.end()) {
            g->second->Wait(job);
        }
        if (script->gate) script->gate->Wait(job);
        const Step& s = StepAt(computed);
        const bool cancelled = ThreadServicesInterface::IsCancelled(job);
        Log(script->name + ":compute:" + std::to_string(computed) +
            (cancelled ? ":cancelled" : ""));
        if (cancelled) return OK;  // adds nothing
        ++computed;
        if (s.failCompute) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "scripted compute failure");
        }
        return OK;
    }
    Result<PreviewImageProviderOutput> TakeOutput() {
        const Step& s = StepAt(computed - 1);
        Log(script->name + ":take:" + std::to_string(s.index));
        if (s.failTake) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "scripted take failure");
        }
        PreviewImageProviderOutput out;
        out.iterationIndex = s.index;
        out.iterationCount = s.count;
        Result<Ref<SampleBuffer>> b = NumberedBuffer(s.width * s.height, s.index);
        if (b.IsError()) return b.GetError();
        QUORV_RETURN_IF_ERROR(out.images.Set(
            BEAUTY_IMAGE, PreviewImageProviderOutputImage{s.width, s.height, b.GetValue(), true}));
        if (s.badSecondImage) {
            Result<Ref<SampleBuffer>> bad = NumberedBuffer(s.width * s.height - 1, s.index);
            if (bad.IsError()) return bad.GetError();
            QUORV_RETURN_IF_ERROR(out.images.Set(
                SECOND_IMAGE,
                PreviewImageProviderOutputImage{s.width, s.height, bad.GetValue(), true}));
        }
        QUORV_RETURN_IF_ERROR(out.metadata.Set(STEP_KEY, computed));
        return out;
    }
    const Step& StepAt(Int i) const {
        return script->steps[static_cast<size_t>(
            std::clamp<Int>(i, 0, static_cast<Int>(script->steps.size()) - 1))];
    }
    TestProvider& operator=(const TestProvider&) = default;
    Script* script = nullptr;
    Int computed = 0;
    Int calls = 0;
};

// ---- deliveries as the delegate sees them ----------------------------------------------------

struct Delivery {
    bool ok = true;
    std::optional<ERRORKIND> kind;  // of an error call
    std::string message;
    Int index = -100;
    Int count = -100;
    Int images = 0;
    Int width = 0, height = 0;
    Ref<SampleBuffer> buffer;
    std::thread::id thread;
};

struct Recorder {
    std::mutex m;
    std::condition_variable cv;
    std::vector<Delivery> calls;
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    /// Called inside the delegate, before the call is recorded.
    std::function<void(const Delivery&)> onCall;

    ResultCompleteFunc Func() {
        return ResultCompleteFunc::Create(
                   [this](Result<void> r, DataDictionary meta, DataDictionary images) {
                       if (inside.fetch_add(1) != 0) ++overlaps;
                       Delivery d;
                       d.ok = r.IsOk();
                       if (r.IsError()) {
                           d.kind = r.GetErrorPointer()->kind;
                           if (r.GetErrorPointer()->message)
                               d.message = r.GetErrorPointer()->message;
                       }
                       d.index = meta.Get(PREVIEW_ITERATIONINDEX, Int(-100));
                       d.count = meta.Get(PREVIEW_ITERATIONCOUNT, Int(-100));
                       d.images = images.GetCount();
                       auto image = images.Get(BEAUTY_IMAGE, PreviewImageProviderOutputImage{});
                       d.width = image.width;
                       d.height = image.height;
                       d.buffer = image.buffer;
                       d.thread = std::this_thread::get_id();
                       inside.fetch_sub(1);
                       // Before the call is recorded: a waiter that sees it may end the recorder.
                       if (onCall) onCall(d);
                       std::lock_guard<std::mutex> l(m);
                       calls.push_back(d);
                       cv.notify_all();
                   })
            .GetValue();
    }
    std::vector<Delivery> WaitFor(size_t n) {
        std::unique_lock<std::mutex> l(m);
        cv.wait_for(l, std::chrono::seconds(30), [&] { return calls.size() >= n; });
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

inline Request NewRequest() {
    Request r;
    Result<ObjectRef> o = CreateObjectById(LiteralId(NODES_CLASS_REGISTRY_ID),
                                           LiteralId(PREVIEWIMAGEREQUEST_CLASS_ID));
    EXPECT_TRUE(o.IsOk()) << (o.IsError() ? o.GetErrorPointer()->message : "");
    r.object = o.GetValue();
    r.dict = DataDictionaryObjectInterface::Ref::Cast(r.object).GetValue();
    r.request = PreviewImageRequestInterface::Ref::Cast(r.object).GetValue();
    return r;
}

inline ClassObject* ProviderClass() {
    Result<const ClassObject*> c =
        FindClass(LiteralId(PREVIEWIMAGEPROVIDER_REGISTRY_ID), LiteralId(TEST_PROVIDER_ID));
    EXPECT_TRUE(c.IsOk());
    return const_cast<ClassObject*>(c.GetValue());
}

/// A request with a delegate, a provider and a script.
inline Request ScriptedRequest(Recorder& rec, Script script, Vector2i64 size = {4, 4}) {
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

inline PreviewImageScheduler::Snapshot Snap() {
    return PreviewImageScheduler::Get()->GetSnapshot();
}

/// Until `done` holds for the scheduler's snapshot (a test failure after many tries).
template <typename F>
void AwaitSnapshot(F done, const char* what) {
    for (int i = 0; i < 200000; ++i) {
        if (done(Snap())) return;
        std::this_thread::yield();
    }
    ADD_FAILURE() << "the scheduler never reached: " << what;
}

inline void WaitIdle() {
    AwaitSnapshot(
        [](const PreviewImageScheduler::Snapshot& s) {
            return s.tasks == 0 && s.runningNormal == 0 && s.runningHigh == 0;
        },
        "rest");
}

template <typename R>
std::string MessageOf(const R& r) {
    return r.IsError() && r.GetErrorPointer()->message ? r.GetErrorPointer()->message : "";
}

// ---- background progress ---------------------------------------------------------------------

/// The values that job `job` of the progress entry at `index` of the master list takes, each
/// change in order (the list's observers run on the changing thread, under the scheduler's
/// progress lock, so no change is missed).
class ProgressRecorder {
public:
    ProgressRecorder(Int index, Int job) : _index(index), _job(job) {
        Result<ObserverHandleObject*> h = BackgroundProgressInterface::AddObserver(
            BackgroundProgressInterface::GetMaster(), &ProgressRecorder::OnChange, this);
        EXPECT_TRUE(h.IsOk());
        _handle = h.IsOk() ? h.GetValue() : nullptr;
    }
    ~ProgressRecorder() {
        if (_handle) RemoveReference(_handle);
    }
    ProgressRecorder(const ProgressRecorder&) = delete;
    ProgressRecorder& operator=(const ProgressRecorder&) = delete;
    std::vector<Float64> Values() {
        std::lock_guard<std::mutex> l(_m);
        return _values;
    }
    void Clear() {
        std::lock_guard<std::mutex> l(_m);
        _values.clear();
    }

private:
    static void OnChange(void* user, Bool) {
        auto* self = static_cast<ProgressRecorder*>(user);
        BackgroundEntryObject* e = BackgroundProgressInterface::GetEntry(
            BackgroundProgressInterface::GetMaster(), self->_index);
        if (!e) return;
        if (ProgressInterface::GetJobCount(e) > self->_job) {
            const Float64 v = ProgressInterface::GetJobProgress(e, self->_job);
            std::lock_guard<std::mutex> l(self->_m);
            if (self->_values.empty() || self->_values.back() != v) self->_values.push_back(v);
        }
        RemoveReference(e);
    }
    Int _index;
    Int _job;
    ObserverHandleObject* _handle = nullptr;
    std::mutex _m;
    std::vector<Float64> _values;
};

}  // namespace quorv::nodes::previewtest
