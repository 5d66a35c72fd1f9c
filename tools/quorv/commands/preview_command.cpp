// quorv preview: preview requests of the render module with the providers of
// libquorv_previewproviders.so. `providers` lists the provider classes; `render` runs one
// request to its end with a progress bar, a JSON line per delivery and the pictures; `run` reads
// JSON lines that submit, cancel and drop requests and prints their deliveries as they come.
//
// The completion delegate runs on a job thread: it only copies the delivery (metadata as JSON,
// the image records sharing their buffers) into a queue. Pictures are encoded and written by the
// command's own thread, atomically, never on a job thread.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "jsonio.h"
#include "previewproviders/previewproviders.h"
#include "quorv/host/image_writer.h"
#include "quorv/progress.h"
#include "render/preview/previewimage.h"
#include "values.h"

namespace quorv::cli {

namespace {

using Clock = std::chrono::steady_clock;
using nodes::PreviewImageProviderOutputImage;

const char* const RUN_HELP =
    R"(Reads JSON lines on stdin, one operation each, and answers each with one line; deliveries
are printed as they come, as {"event":"delivered","name":N,"index":i,"count":c,"width":w,
"height":h,"ms":t,"metadata":{...}} or {"event":"error","name":N,"message":M}.
  {"op":"submit","name":N,"provider":ID,"size":[w,h],"params":{KEY:VALUE},"bsdf":ID,
   "bsdfParams":{KEY:VALUE},"purpose":p,"intent":ID,"upscale":b,"flip":b,"wait":seconds,
   "gate":G,"output":PATH}   a new request under N (replacing one of that name); with only
                             "name" the request of that name is submitted again
  {"op":"cancel","name":N}  Cancel of the request (it keeps its settings)
  {"op":"drop","name":N}    lets go of the request: the last reference cancels its task
  {"op":"wait","name":N?,"timeout":seconds?}  until N (or every request) has ended
  {"op":"cancelall","wait":b}  stops the whole scheduler (no task starts again)
  {"op":"progress"}         the background progress entries
  {"op":"queues"}           job system width, preview settings, every job queue (threads,
                            jobs queued and running) and every request's state
  {"op":"open","gate":G}    opens gate G; a scripted request given "gate":G waits for it
Provider ids may be shortened to "materialball" or "scripted". Numbers read back to the same
bits. A bad line gives {"error": "..."} and the run goes on.)";

struct PreviewOptions {
    std::string providersModule;
    std::string provider;
    std::string size = "128x128";
    std::string output;
    std::string strip;
    std::vector<std::string> params;
    std::string bsdf;
    std::vector<std::string> bsdfParams;
    Int purpose = 0;
    std::string intent;
    bool upscale = false;
    bool flip = false;
    std::string wait;
    bool json = false;
    bool timeline = false;
    bool noProgress = false;
};

// ---- loading and requests ----------------------------------------------------------------------

bool LoadProvidersModule(const GlobalOptions& global, const PreviewOptions& o) {
    std::string path = o.providersModule;
    if (path.empty()) {
        const char* env = std::getenv("QUORV_PREVIEWPROVIDERS_MODULE");
        if (env && *env) path = env;
    }
    if (path.empty()) {
        const std::string& render = host::Host::Get().GetModules().empty()
                                        ? global.modulePath
                                        : host::Host::Get().GetModules().back()->path;
        path =
            (std::filesystem::path(render).parent_path() / "libquorv_previewproviders.so").string();
    }
    Result<host::LoadedModule*> r = host::Host::Get().LoadModule(path);
    if (r.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(r.GetErrorPointer()).c_str());
        return false;
    }
    return true;
}

std::string FullProviderId(const std::string& id) {
    return id.find('.') == std::string::npos ? std::string(previewproviders::MODULE_ID) + "." + id
                                             : id;
}

bool ParseSizeText(const std::string& text, Vector2i64* out) {
    long long w = 0, h = 0;
    int used = 0;
    if (std::sscanf(text.c_str(), "%lldx%lld%n", &w, &h, &used) != 2 || used != int(text.size()) ||
        w < 1 || h < 1 || w > 16384 || h > 16384) {
        return false;
    }
    *out = {w, h};
    return true;
}

// What one submission is made of, from options or from a line.
struct RequestSettings {
    std::string provider;
    Vector2i64 size{0, 0};
    std::vector<std::pair<std::string, Json>> params;
    std::string bsdf;
    std::vector<std::pair<std::string, Json>> bsdfParams;
    Int purpose = 0;
    std::string intent;
    bool upscale = false;
    bool flip = false;
    Float64 wait = 0.0;
    ConditionVariableObject* gate = nullptr;
};

// One delivery as the command's thread sees it.
struct Event {
    std::string name;
    bool ok = true;
    std::string message;
    Int index = -1, count = -1;
    Json metadata;
    std::vector<std::pair<std::string, PreviewImageProviderOutputImage>> images;
    Clock::time_point time;
};

class EventQueue {
public:
    void Push(Event e) {
        std::lock_guard<std::mutex> l(_m);
        _events.push_back(std::move(e));
        _cv.notify_all();
    }
    // The next event, or false after `timeout`.
    bool Pop(Event* e, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> l(_m);
        if (!_cv.wait_for(l, timeout, [&] { return !_events.empty(); })) return false;
        *e = std::move(_events.front());
        _events.pop_front();
        return true;
    }

private:
    std::mutex _m;
    std::condition_variable _cv;
    std::deque<Event> _events;
};

// A request of the command with what the timeline shows of it.
struct TrackedRequest {
    std::string name;
    ObjectRef object;
    DataDictionaryObjectInterface::Ref dict;
    nodes::PreviewImageRequestInterface::Ref request;
    std::string output;
    // Written by the command's thread only.
    Clock::time_point submitted;
    std::vector<Clock::time_point> deliveries;
    std::vector<Clock::time_point> cancels;
    std::vector<std::pair<Int, Int>> computations;  // steady-clock ns, begin and end
    std::vector<Int> cancelledComputationEnds;
    bool ended = false;
    Clock::time_point endTime;
    Int delivered = 0;
};

// Steady-clock nanoseconds, the scripted provider's log unit.
Int ToNs(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
}

Result<void> SetValue(const DataDictionaryObjectInterface::Ref& d, const DataDictionaryKey& key,
                      const Data& v) {
    if (v.IsEmpty()) return OutOfMemoryError();
    return d.SetData(key, v);
}

// The request: its dictionary from the settings, and a delegate that queues each delivery.
Result<std::shared_ptr<TrackedRequest>> MakeRequest(const std::string& name,
                                                    const RequestSettings& s, EventQueue& queue) {
    auto tracked = std::make_shared<TrackedRequest>();
    tracked->name = name;
    Result<ObjectRef> o = CreateObjectById(LiteralId(nodes::NODES_CLASS_REGISTRY_ID),
                                           LiteralId(nodes::PREVIEWIMAGEREQUEST_CLASS_ID));
    if (o.IsError()) return o.GetError();
    tracked->object = o.GetValue();
    Result<DataDictionaryObjectInterface::Ref> dict =
        DataDictionaryObjectInterface::Ref::Cast(tracked->object);
    if (dict.IsError()) return dict.GetError();
    tracked->dict = dict.GetValue();
    Result<nodes::PreviewImageRequestInterface::Ref> request =
        nodes::PreviewImageRequestInterface::Ref::Cast(tracked->object);
    if (request.IsError()) return request.GetError();
    tracked->request = request.GetValue();
    const DataDictionaryObjectInterface::Ref& d = tracked->dict;

    const std::string providerId = FullProviderId(s.provider);
    Result<const ClassObject*> cls = FindClass(LiteralId(nodes::PREVIEWIMAGEPROVIDER_REGISTRY_ID),
                                               LiteralId(providerId.c_str()));
    if (cls.IsError()) return cls.GetError();
    QUORV_RETURN_IF_ERROR(
        SetObjectValue(d, nodes::PREVIEW_PROVIDER, const_cast<ClassObject*>(cls.GetValue())));
    QUORV_RETURN_IF_ERROR(SetObjectValue(d, nodes::PREVIEW_TEXTURESIZE, s.size));
    if (s.purpose != 0) {
        QUORV_RETURN_IF_ERROR(
            SetObjectValue(d, nodes::PREVIEW_PURPOSE, static_cast<UInt32>(s.purpose)));
    }
    if (!s.intent.empty())
        QUORV_RETURN_IF_ERROR(SetObjectValue(d, nodes::PREVIEW_INTENT, Id::Intern(s.intent)));
    if (s.upscale)
        QUORV_RETURN_IF_ERROR(SetObjectValue(d, nodes::PREVIEW_UPSCALEPROGRESSION, Bool(true)));
    if (s.flip) QUORV_RETURN_IF_ERROR(SetObjectValue(d, nodes::PREVIEW_FLIPVERTICALLY, Bool(true)));
    if (s.wait != 0.0)
        QUORV_RETURN_IF_ERROR(
            SetObjectValue(d, nodes::PREVIEW_RESULTCOMPLETEWAIT, TimeValue{s.wait}));
    if (s.gate) {
        QUORV_RETURN_IF_ERROR(
            SetObjectValue(d, previewproviders::SCRIPTED_GATE,
                           static_cast<Int>(reinterpret_cast<std::uintptr_t>(s.gate))));
    }
    if (!s.bsdf.empty())
        QUORV_RETURN_IF_ERROR(SetObjectValue(d, previewproviders::BALL_BSDF, Id::Intern(s.bsdf)));
    // BSDF parameters go under their integer keys, where the ball looks for them.
    Result<DataDictionary> bsdfParams = BuildBSDFParameters(s.bsdfParams, nullptr);
    if (bsdfParams.IsError()) return bsdfParams.GetError();
    for (Int32 key = 1001; key <= 1020; ++key) {
        Data v = bsdfParams.GetValue().GetData(DataDictionaryKey(key));
        if (!v.IsEmpty()) QUORV_RETURN_IF_ERROR(SetValue(d, DataDictionaryKey(key), v));
    }
    // Other keys by their declared type (any key a loaded binary declares).
    Result<DataDictionary> params = BuildCameraParameters(s.params);
    if (params.IsError()) return params.GetError();
    for (const auto& [key, value] : s.params) {
        Data v = params.GetValue().GetData(LiteralId(key.c_str()));
        QUORV_RETURN_IF_ERROR(SetValue(d, LiteralId(key.c_str()), v));
    }

    EventQueue* q = &queue;
    const std::string requestName = name;
    Result<nodes::ResultCompleteFunc> func = nodes::ResultCompleteFunc::Create(
        [q, requestName](Result<void> r, DataDictionary metadata, DataDictionary images) {
            Event e;
            e.name = requestName;
            e.time = Clock::now();
            e.ok = r.IsOk();
            if (r.IsError()) e.message = ErrorToString(r.GetErrorPointer());
            e.index = metadata.Get(nodes::PREVIEW_ITERATIONINDEX, Int(-1));
            e.count = metadata.Get(nodes::PREVIEW_ITERATIONCOUNT, Int(-1));
            try {
                e.metadata = DictionaryToJson(metadata);
                if (images.GetCount() > 0) {
                    DataDictionaryIteratorState it;
                    DataDictionaryInterface::InitIterator(images.GetReadable(), &it);
                    while (DataDictionaryInterface::IteratorHasValue(&it)) {
                        DataDictionaryKey key;
                        Data value;
                        if (DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value)) {
                            if (const auto* image = value.Get<PreviewImageProviderOutputImage>()) {
                                e.images.emplace_back(key.ToString(), *image);
                            }
                        }
                        DataDictionaryInterface::IteratorMoveToNext(&it);
                    }
                    DataDictionaryInterface::IteratorDestruct(&it);
                }
            } catch (const std::exception&) {
                e.ok = false;
                e.message = "out of memory in the command's delegate";
            }
            q->Push(std::move(e));
        });
    if (func.IsError()) return func.GetError();
    QUORV_RETURN_IF_ERROR(SetObjectValue(d, nodes::PREVIEW_RESULTCOMPLETEFUNC, func.GetValue()));
    return tracked;
}

// ---- pictures --------------------------------------------------------------------------------

// Linear to the sRGB curve, for 8-bit pictures; alpha stays linear.
Float32 EncodeSrgb(Float32 v) {
    if (!(v > 0.0f)) return 0.0f;
    if (v <= 0.0031308f) return 12.92f * v;
    return static_cast<Float32>(1.055 * std::pow(static_cast<Float64>(v), 1.0 / 2.4) - 0.055);
}

bool IsPng(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return ext == ".png";
}

// Samples are linear RGBA; a PNG gets them on the sRGB curve, an EXR as they are.
Result<void> WritePicture(const std::string& path, Int w, Int h, const ColorA32* samples) {
    std::vector<Float32> pixels(static_cast<size_t>(w) * static_cast<size_t>(h) * 4);
    const bool png = IsPng(path);
    for (size_t i = 0; i < pixels.size() / 4; ++i) {
        const ColorA32& c = samples[i];
        pixels[4 * i] = png ? EncodeSrgb(c.r) : c.r;
        pixels[4 * i + 1] = png ? EncodeSrgb(c.g) : c.g;
        pixels[4 * i + 2] = png ? EncodeSrgb(c.b) : c.b;
        pixels[4 * i + 3] = c.a;
    }
    return host::WriteImage(path, w, h, 4, pixels.data());
}

// Iterations side by side, each scaled to the tallest by nearest samples.
Result<void> WriteStrip(const std::string& path,
                        const std::vector<PreviewImageProviderOutputImage>& images) {
    if (images.empty()) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "No iteration was delivered");
    }
    Int tw = 0, th = 0;
    for (const auto& i : images) {
        tw = std::max(tw, i.width);
        th = std::max(th, i.height);
    }
    const Int stripWidth = tw * static_cast<Int>(images.size());
    std::vector<ColorA32> strip(static_cast<size_t>(stripWidth) * static_cast<size_t>(th));
    for (size_t k = 0; k < images.size(); ++k) {
        const auto& image = images[k];
        if (!image.buffer || image.buffer->GetCount() != image.width * image.height) continue;
        for (Int y = 0; y < th; ++y) {
            for (Int x = 0; x < tw; ++x) {
                const Int sx = x * image.width / tw, sy = y * image.height / th;
                strip[static_cast<size_t>(y * stripWidth + Int(k) * tw + x)] =
                    image.buffer->GetData()[sy * image.width + sx];
            }
        }
    }
    return WritePicture(path, stripWidth, th, strip.data());
}

// The output path of image `key` when a delivery has more than one image: OUT.KEYTAIL.ext.
std::string OutputFor(const std::string& output, const std::string& key, size_t imageCount) {
    if (imageCount <= 1) return output;
    const std::filesystem::path p(output);
    const std::string tail = key.substr(key.rfind('.') + 1);
    return (p.parent_path() / (p.stem().string() + "." + tail + p.extension().string())).string();
}

Json EventJson(const Event& e, Clock::time_point since, bool withName) {
    Json j;
    if (withName) {
        j["event"] = e.ok ? "delivered" : "error";
        j["name"] = e.name;
    }
    if (!e.ok) {
        j["error"] = e.message;
        return j;
    }
    j["index"] = e.index;
    j["count"] = e.count;
    Json sizes = Json::array();
    for (const auto& [key, image] : e.images)
        sizes.push_back({{"key", key}, {"width", image.width}, {"height", image.height}});
    j["images"] = sizes;
    j["ms"] = NumberToJson(std::chrono::duration<Float64, std::milli>(e.time - since).count());
    j["metadata"] = e.metadata;
    return j;
}

// Writes the pictures of a delivery; a failure is printed and counted.
bool WriteEventPictures(const Event& e, const std::string& output) {
    if (output.empty()) return true;
    bool ok = true;
    for (const auto& [key, image] : e.images) {
        if (!image.buffer || image.buffer->GetCount() != image.width * image.height) continue;
        Result<void> w = WritePicture(OutputFor(output, key, e.images.size()), image.width,
                                      image.height, image.buffer->GetData());
        if (w.IsError()) {
            std::fprintf(stderr, "quorv: %s\n", ErrorToString(w.GetErrorPointer()).c_str());
            ok = false;
        }
    }
    return ok;
}

void DrawProgress(Int done, Int count, Float64 seconds) {
    const int width = 30;
    const Float64 f = count > 0 ? std::clamp(Float64(done) / Float64(count), 0.0, 1.0) : 0.0;
    const int filled = static_cast<int>(f * width + 0.5);
    std::fprintf(stderr, "\r[%s%s] %lld/%lld %.1fs", std::string(size_t(filled), '#').c_str(),
                 std::string(size_t(width - filled), '.').c_str(), static_cast<long long>(done),
                 static_cast<long long>(count), seconds);
    std::fflush(stderr);
}

// At the end the scheduler is stopped and its running iterations waited for, so that no
// provider code runs while the process exits.
void StopPreviews() {
    Result<ObjectRef> o = CreateObjectById(LiteralId(nodes::NODES_CLASS_REGISTRY_ID),
                                           LiteralId(nodes::PREVIEWIMAGEREQUEST_CLASS_ID));
    if (o.IsError()) return;
    Result<nodes::PreviewImageRequestInterface::Ref> r =
        nodes::PreviewImageRequestInterface::Ref::Cast(o.GetValue());
    if (r.IsOk()) r.GetValue().CancelAllRequests(true);
}

bool ParseWait(const std::string& text, Float64* out) {
    if (text.empty()) {
        *out = 0.0;
        return true;
    }
    if (text == "inf") {
        *out = std::numeric_limits<Float64>::infinity();
        return true;
    }
    Json j;
    std::string error;
    return ParseJson(text, &j, &error) && JsonToNumber(j, out) && !std::isnan(*out);
}

bool SplitBsdfParams(const std::vector<std::string>& options,
                     std::vector<std::pair<std::string, Json>>* out) {
    for (const std::string& p : options) {
        const auto eq = p.find('=');
        Json value;
        std::string error;
        if (eq == std::string::npos ||
            !ParseJson(std::string_view(p).substr(eq + 1), &value, &error)) {
            std::fprintf(stderr, "quorv: --bsdf-param %s is not KEY=VALUE%s%s\n", Quote(p).c_str(),
                         error.empty() ? "" : ": ", error.c_str());
            return false;
        }
        out->emplace_back(p.substr(0, eq), std::move(value));
    }
    return true;
}

// ---- providers -------------------------------------------------------------------------------

int RunProviders(const GlobalOptions& global, const PreviewOptions& o) {
    if (!StartHost(global) || !LoadProvidersModule(global, o)) return 1;
    std::vector<std::string> entries;
    for (const auto& r : host::Host::Get().ListRegistries())
        if (r.id == nodes::PREVIEWIMAGEPROVIDER_REGISTRY_ID) entries = r.entries;
    if (o.json)
        return WriteOutputLine(Line(Json{{"registry", nodes::PREVIEWIMAGEPROVIDER_REGISTRY_ID},
                                         {"providers", entries}}))
                   ? 0
                   : 1;
    std::printf("%s\n", nodes::PREVIEWIMAGEPROVIDER_REGISTRY_ID);
    for (const std::string& e : entries) std::printf("  %s\n", e.c_str());
    return 0;
}

// ---- render ----------------------------------------------------------------------------------

int RunRender(const GlobalOptions& global, const PreviewOptions& o) {
    RequestSettings s;
    s.provider = o.provider;
    if (!ParseSizeText(o.size, &s.size)) {
        std::fprintf(stderr, "quorv: --size must be WxH, each from 1 to 16384\n");
        return 1;
    }
    if (!ParseParamOptions(o.params, &s.params) || !SplitBsdfParams(o.bsdfParams, &s.bsdfParams))
        return 1;
    if (!ParseWait(o.wait, &s.wait)) {
        std::fprintf(stderr, "quorv: --wait takes seconds (a number, \"inf\" or -1)\n");
        return 1;
    }
    s.bsdf = o.bsdf;
    s.purpose = o.purpose;
    s.intent = o.intent;
    s.upscale = o.upscale;
    s.flip = o.flip;
    if (!StartHost(global) || !LoadProvidersModule(global, o)) return 1;
    EventQueue queue;
    int rc = 0;
    {
        Result<std::shared_ptr<TrackedRequest>> made = MakeRequest("render", s, queue);
        if (made.IsError()) {
            std::fprintf(stderr, "quorv: %s\n", ErrorToString(made.GetErrorPointer()).c_str());
            return 1;
        }
        std::shared_ptr<TrackedRequest> t = made.GetValue();
        const Clock::time_point start = Clock::now();
        Result<void> submitted = t->request.Submit();
        if (submitted.IsError()) {
            std::fprintf(stderr, "quorv: %s\n", ErrorToString(submitted.GetErrorPointer()).c_str());
            return 1;
        }
        std::vector<PreviewImageProviderOutputImage> iterations;
        Int count = 0, done = 0;
        bool finished = false;
        while (!finished) {
            Event e;
            if (!queue.Pop(&e, std::chrono::milliseconds(100))) {
                if (!o.noProgress)
                    DrawProgress(done, count,
                                 std::chrono::duration<Float64>(Clock::now() - start).count());
                continue;
            }
            if (!o.noProgress) std::fprintf(stderr, "\r\033[K");
            if (!WriteOutputLine(Line(EventJson(e, start, false)))) rc = 1;
            if (!e.ok) {
                rc = 1;
                finished = true;
                break;
            }
            count = e.count;
            done = e.index + 1;
            if (!e.images.empty()) iterations.push_back(e.images.front().second);
            if (!WriteEventPictures(e, o.output)) {
                rc = 1;
                break;
            }
            if (!o.noProgress)
                DrawProgress(done, count,
                             std::chrono::duration<Float64>(Clock::now() - start).count());
            finished = e.index + 1 >= e.count;
        }
        if (!o.noProgress) std::fprintf(stderr, "\n");
        if (rc == 0 && !o.strip.empty()) {
            Result<void> w = WriteStrip(o.strip, iterations);
            if (w.IsError()) {
                std::fprintf(stderr, "quorv: %s\n", ErrorToString(w.GetErrorPointer()).c_str());
                rc = 1;
            }
        }
    }
    StopPreviews();
    return rc;
}

// ---- run -------------------------------------------------------------------------------------

class RunSession {
public:
    explicit RunSession(bool timeline) : _timeline(timeline) {}

    int Run() {
        _start = Clock::now();
        _printer = std::thread([this] { PrintEvents(); });
        const int rc = RunJsonLines(std::cin, [this](const Json& line) { return Handle(line); });
        {
            std::lock_guard<std::mutex> l(_m);
            _finishedRequests.swap(_requests);
        }
        // Every task is cancelled with its request; the timeline keeps what it saw of them.
        for (auto& [name, t] : _finishedRequests) {
            if (!t) continue;
            t->request = {};
            t->dict = {};
            t->object = {};
        }
        StopPreviews();
        _stop = true;
        _printer.join();
        if (_timeline) PrintTimeline();
        for (auto& [name, gate] : _gates) ConditionVariableInterface::Free(gate);
        return rc;
    }

private:
    Json Handle(const Json& line) {
        if (!line.is_object()) throw LineError("a line must be an object with \"op\"");
        const Json* op = FindField(line, "op");
        if (!op || !op->is_string()) throw LineError("\"op\" must be a string");
        const std::string o = op->get<std::string>();
        if (o == "submit") return Submit(line);
        if (o == "cancel" || o == "drop") return CancelOrDrop(line, o == "drop");
        if (o == "wait") return Wait(line);
        if (o == "cancelall") {
            StopScheduler(GetBoolField(line, "wait", false));
            return Json{{"cancelledAll", true}};
        }
        if (o == "progress") return Progress();
        if (o == "queues") return Queues();
        if (o == "open") {
            ConditionVariableObject* gate = Gate(NeedString(line, "gate"));
            ConditionVariableInterface::Set(gate);
            return Json{{"opened", NeedString(line, "gate")}};
        }
        throw LineError("unknown op " + QuoteJson(*op) +
                        "; use submit, cancel, drop, wait, cancelall, progress, queues or open");
    }

    static std::string NeedString(const Json& line, const char* name) {
        const Json* j = FindField(line, name);
        if (!j || !j->is_string())
            throw LineError("\"" + std::string(name) + "\" must be a string");
        return j->get<std::string>();
    }
    static std::string GetString(const Json& line, const char* name) {
        const Json* j = FindField(line, name);
        if (!j) return "";
        if (!j->is_string()) throw LineError("\"" + std::string(name) + "\" must be a string");
        return j->get<std::string>();
    }
    static std::vector<std::pair<std::string, Json>> GetObject(const Json& line, const char* name) {
        std::vector<std::pair<std::string, Json>> out;
        const Json* j = FindField(line, name);
        if (!j) return out;
        if (!j->is_object()) throw LineError("\"" + std::string(name) + "\" must be an object");
        for (auto it = j->begin(); it != j->end(); ++it) out.emplace_back(it.key(), it.value());
        return out;
    }

    ConditionVariableObject* Gate(const std::string& name) {
        auto it = _gates.find(name);
        if (it != _gates.end()) return it->second;
        ConditionVariableObject* gate = ConditionVariableInterface::Alloc(QUORV_SOURCE_LOCATION);
        if (!gate) throw std::bad_alloc();
        _gates[name] = gate;
        return gate;
    }

    Json Submit(const Json& line) {
        const std::string name = NeedString(line, "name");
        if (line.size() == 2) {
            // Only "op" and "name": the request of that name again.
            std::shared_ptr<TrackedRequest> t = Find(name);
            return SubmitTracked(t);
        }
        RequestSettings s;
        s.provider = NeedString(line, "provider");
        const Json* size = FindField(line, "size");
        if (!size) throw LineError("\"size\" is required: [w,h] or \"WxH\"");
        if (size->is_string()) {
            if (!ParseSizeText(size->get<std::string>(), &s.size))
                throw LineError("\"size\" must be WxH, each from 1 to 16384");
        } else if (!size->is_array() || size->size() != 2 ||
                   !JsonToInteger((*size)[0], &s.size.x) || !JsonToInteger((*size)[1], &s.size.y)) {
            throw LineError("\"size\" must be [w,h] or \"WxH\"");
        }
        s.params = GetObject(line, "params");
        s.bsdf = GetString(line, "bsdf");
        s.bsdfParams = GetObject(line, "bsdfParams");
        s.purpose = GetIntegerField<UInt32>(line, "purpose", 0);
        s.intent = GetString(line, "intent");
        s.upscale = GetBoolField(line, "upscale", false);
        s.flip = GetBoolField(line, "flip", false);
        s.wait = GetNumberField(line, "wait", 0.0);
        if (std::isnan(s.wait)) throw LineError("\"wait\" must be a number of seconds");
        const std::string gate = GetString(line, "gate");
        if (!gate.empty()) s.gate = Gate(gate);
        Result<std::shared_ptr<TrackedRequest>> made = MakeRequest(name, s, _events);
        if (made.IsError()) return ErrorJson(ErrorToString(made.GetErrorPointer()));
        made.GetValue()->output = GetString(line, "output");
        std::shared_ptr<TrackedRequest> old;
        {
            std::lock_guard<std::mutex> l(_m);
            old = _requests[name];
            _requests[name] = made.GetValue();
        }
        old.reset();  // the replaced request goes, and its task with it
        return SubmitTracked(made.GetValue());
    }

    Json SubmitTracked(const std::shared_ptr<TrackedRequest>& t) {
        {
            std::lock_guard<std::mutex> l(_m);
            t->submitted = Clock::now();
            t->ended = false;
        }
        Result<void> r = t->request.Submit();
        if (r.IsError()) {
            std::lock_guard<std::mutex> l(_m);
            t->ended = true;
            t->endTime = Clock::now();
            return ErrorJson(t->name + ": " + ErrorToString(r.GetErrorPointer()));
        }
        return Json{{"submitted", t->name}};
    }

    std::shared_ptr<TrackedRequest> Find(const std::string& name) {
        std::lock_guard<std::mutex> l(_m);
        auto it = _requests.find(name);
        if (it == _requests.end() || !it->second)
            throw LineError("no request named " + Quote(name));
        return it->second;
    }

    Json CancelOrDrop(const Json& line, bool drop) {
        const std::string name = NeedString(line, "name");
        std::shared_ptr<TrackedRequest> t = Find(name);
        {
            std::lock_guard<std::mutex> l(_m);
            t->cancels.push_back(Clock::now());
            if (!t->ended) {
                t->ended = true;
                t->endTime = Clock::now();
            }
        }
        if (drop) {
            std::lock_guard<std::mutex> l(_m);
            _dropped.push_back(t);  // its timeline stays; the request object goes below
            _requests.erase(name);
        } else {
            t->request.Cancel();
        }
        if (drop) {
            // The last reference of the request object: its submission, and so its task, go.
            t->request = {};
            t->dict = {};
            t->object = {};
        }
        return Json{{drop ? "dropped" : "cancelled", name}};
    }

    Json Wait(const Json& line) {
        const std::string name = GetString(line, "name");
        const Float64 timeout = GetNumberField(line, "timeout", 60.0);
        if (!name.empty()) Find(name);
        const Clock::time_point until =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<Float64>(std::min(timeout, 3600.0)));
        std::unique_lock<std::mutex> l(_m);
        auto allEnded = [&] {
            for (auto& [n, t] : _requests) {
                if (t && (name.empty() || n == name) && !t->ended) return false;
            }
            return true;
        };
        const bool ended = _changed.wait_until(l, until, allEnded);
        return Json{{"waited", name.empty() ? Json("all") : Json(name)}, {"ended", ended}};
    }

    void StopScheduler(bool wait) {
        Result<ObjectRef> o = CreateObjectById(LiteralId(nodes::NODES_CLASS_REGISTRY_ID),
                                               LiteralId(nodes::PREVIEWIMAGEREQUEST_CLASS_ID));
        if (o.IsError()) throw LineError(ErrorToString(o.GetErrorPointer()));
        nodes::PreviewImageRequestInterface::Ref::Cast(o.GetValue())
            .GetValue()
            .CancelAllRequests(wait);
    }

    Json Progress() {
        Json entries = Json::array();
        BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
        const Int n = master ? BackgroundProgressInterface::GetEntryCount(master) : 0;
        for (Int i = 0; i < n; ++i) {
            BackgroundEntryObject* e = BackgroundProgressInterface::GetEntry(master, i);
            if (!e) continue;
            char name[256] = {};
            const Int length = ProgressInterface::GetName(e, name, sizeof(name) - 1);
            Json jobs = Json::array();
            for (Int j = 0; j < ProgressInterface::GetJobCount(e); ++j) {
                jobs.push_back(NumberToJson(ProgressInterface::GetJobProgress(e, j)));
            }
            entries.push_back({{"name", std::string(name, size_t(std::min<Int>(length, 255)))},
                               {"progress", NumberToJson(ProgressInterface::GetProgress(e))},
                               {"jobs", jobs}});
            RemoveReference(e);
        }
        return Json{{"entries", entries}};
    }

    Json Queues() {
        std::string oneThread;
        for (const auto& c : host::Host::Get().ListConfiguration())
            if (c.name == "g_useonethreadtorenderpreview") oneThread = c.value;
        Json requests = Json::object();
        std::lock_guard<std::mutex> l(_m);
        for (auto& [name, t] : _requests) {
            if (!t) continue;
            requests[name] = {{"delivered", t->delivered}, {"ended", t->ended}};
        }
        // The job queues as the host sees them; the preview queue's running jobs are the
        // scheduler's running iterations (its per-level limit stays inside the render module).
        Json queues = Json::array();
        for (const host::JobQueueListing& q : host::Host::Get().ListJobQueues()) {
            queues.push_back({{"name", q.name},
                              {"threads", q.threads},
                              {"queued", q.queued},
                              {"running", q.running}});
        }
        return Json{{"jobSystemThreads", JobQueueInterface::GetThreadCount(nullptr)},
                    {"g_useonethreadtorenderpreview", oneThread},
                    {"queue", nodes::PREVIEW_JOB_QUEUE_NAME},
                    {"queues", queues},
                    {"requests", requests}};
    }

    void PrintEvents() {
        for (;;) {
            Event e;
            if (!_events.Pop(&e, std::chrono::milliseconds(20))) {
                if (_stop) return;
                continue;
            }
            std::shared_ptr<TrackedRequest> t;
            Clock::time_point submitted = _start;
            std::string output;
            {
                std::lock_guard<std::mutex> l(_m);
                auto it = _requests.find(e.name);
                if (it != _requests.end()) t = it->second;
                if (t) {
                    submitted = t->submitted;
                    output = t->output;
                }
            }
            // The line and the pictures first: a `wait` that hears of the end finds them there.
            WriteOutputLine(Line(EventJson(e, submitted, true)));
            if (t && e.ok) WriteEventPictures(e, output);
            if (t) {
                std::lock_guard<std::mutex> l(_m);
                t->deliveries.push_back(e.time);
                ++t->delivered;
                RecordComputations(*t, e);
                if (!e.ok || e.index + 1 >= e.count) {
                    t->ended = true;
                    t->endTime = e.time;
                }
            }
            _changed.notify_all();
        }
    }

    // The scripted provider's log gives each computation's span and whether it was cancelled;
    // the ball gives the length of the computation delivered.
    static void RecordComputations(TrackedRequest& t, const Event& e) {
        const Json* log =
            e.metadata.contains(previewproviders::SCRIPTED_META_LOG.GetId().ToString())
                ? &e.metadata[previewproviders::SCRIPTED_META_LOG.GetId().ToString()]
                : nullptr;
        if (log && log->is_string()) {
            t.computations.clear();
            t.cancelledComputationEnds.clear();
            const std::string text = log->get<std::string>();
            size_t start = 0;
            while (start < text.size()) {
                size_t nl = text.find('\n', start);
                if (nl == std::string::npos) nl = text.size();
                long long step = 0, thread = 0, begin = 0, end = 0;
                int cancelled = 0;
                if (std::sscanf(text.substr(start, nl - start).c_str(),
                                "compute %lld thread %lld begin %lld end %lld cancelled %d", &step,
                                &thread, &begin, &end, &cancelled) == 5) {
                    t.computations.emplace_back(begin, end);
                    if (cancelled) t.cancelledComputationEnds.push_back(end);
                }
                start = nl + 1;
            }
            return;
        }
        const std::string msKey = previewproviders::BALL_META_MS.GetId().ToString();
        if (e.metadata.contains(msKey)) {
            Float64 ms = 0.0;
            if (JsonToNumber(e.metadata[msKey], &ms)) {
                const Int end = ToNs(e.time);
                t.computations.emplace_back(end - static_cast<Int>(ms * 1e6), end);
            }
        }
    }

    // One row per request over the session, 72 columns: '.' queued, '#' computing,
    // 'x' paused or cancelled, '|' delivered.
    void PrintTimeline() {
        std::vector<std::shared_ptr<TrackedRequest>> all = _dropped;
        for (auto& [name, t] : _finishedRequests) all.push_back(t);
        const Int t0 = ToNs(_start);
        const Int t1 = std::max(ToNs(Clock::now()), t0 + 1);
        const int columns = 72;
        const Float64 step = Float64(t1 - t0) / columns;
        std::sort(all.begin(), all.end(),
                  [](const auto& a, const auto& b) { return a->submitted < b->submitted; });
        size_t nameWidth = 4;
        for (auto& t : all) nameWidth = std::max(nameWidth, t->name.size());
        std::printf("%-*s %s\n", int(nameWidth), "name",
                    ("one column = " + std::to_string(step / 1e6) + " ms").c_str());
        for (auto& t : all) {
            std::string row(columns, ' ');
            auto column = [&](Int ns) {
                return std::clamp<Int>(Int((ns - t0) / step), 0, columns - 1);
            };
            const Int from = column(ToNs(t->submitted));
            const Int to = t->ended ? column(ToNs(t->endTime)) : columns - 1;
            for (Int c = from; c <= to; ++c) row[size_t(c)] = '.';
            for (auto& [b, e] : t->computations) {
                for (Int c = column(b); c <= column(e); ++c) row[size_t(c)] = '#';
            }
            for (Int e : t->cancelledComputationEnds) row[size_t(column(e))] = 'x';
            for (auto& c : t->cancels) row[size_t(column(ToNs(c)))] = 'x';
            for (auto& d : t->deliveries) row[size_t(column(ToNs(d)))] = '|';
            std::printf("%-*s %s\n", int(nameWidth), t->name.c_str(), row.c_str());
        }
    }

    bool _timeline;
    Clock::time_point _start;
    EventQueue _events;
    std::thread _printer;
    std::atomic<bool> _stop{false};
    std::mutex _m;
    std::condition_variable _changed;
    std::map<std::string, std::shared_ptr<TrackedRequest>> _requests;
    std::map<std::string, std::shared_ptr<TrackedRequest>> _finishedRequests;
    std::vector<std::shared_ptr<TrackedRequest>> _dropped;
    std::map<std::string, ConditionVariableObject*> _gates;
};

int RunRun(const GlobalOptions& global, const PreviewOptions& o) {
    if (!StartHost(global) || !LoadProvidersModule(global, o)) return 1;
    RunSession session(o.timeline);
    return session.Run();
}

}  // namespace

void AddPreviewCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static PreviewOptions o;
    CLI::App* cmd = app.add_subcommand(
        "preview",
        "Preview requests with the providers of libquorv_previewproviders.so: list, render, run");
    cmd->require_subcommand(1);
    cmd->add_option("--providers-module", o.providersModule,
                    "Path of libquorv_previewproviders.so (default: beside the render module, or "
                    "QUORV_PREVIEWPROVIDERS_MODULE)");
    CLI::App* providers =
        cmd->add_subcommand("providers", "The registered preview provider classes");
    providers->add_flag("--json", o.json, "One JSON object");
    providers->callback([&] { run = [&] { return RunProviders(options, o); }; });

    CLI::App* render = cmd->add_subcommand(
        "render",
        "Run one request to its end: a JSON line per delivery, the picture, a strip of iterations");
    render->add_option("--provider", o.provider, "Provider class id (or materialball, scripted)")
        ->required();
    render->add_option("--size", o.size, "WxH (default 128x128)");
    render->add_option("-o,--output", o.output,
                       "Picture of each delivery, the last one stays (.png sRGB, .exr linear)");
    render->add_option("--strip", o.strip, "Picture of all iterations side by side");
    render->add_option("--param", o.params,
                       "Request entry KEY=JSON, by the key's declared type (repeatable)");
    render->add_option("--bsdf", o.bsdf, "Legacy BSDF class id of the ball");
    render->add_option("--bsdf-param", o.bsdfParams,
                       "BSDF Init entry KEY=VALUE, KEY a number or its name (repeatable)");
    render->add_option("--purpose", o.purpose, "Purpose (1: the high-priority queue)")
        ->check(CLI::Range(Int{0}, Int{4294967295LL}));
    render->add_option(
        "--intent", o.intent,
        "Intent id (net.quorv.nodes.previewimagerequest.intent_node2d: no progress entry)");
    render->add_flag("--upscale", o.upscale, "Every delivery at the full size");
    render->add_flag("--flip", o.flip, "Deliveries upside down");
    render->add_option("--wait", o.wait, "Seconds Submit waits for the end (inf: until it ends)");
    render->add_flag("--no-progress", o.noProgress, "No progress bar on stderr");
    render->callback([&] { run = [&] { return RunRender(options, o); }; });

    CLI::App* runCmd = cmd->add_subcommand("run", "Requests driven by JSON lines on stdin");
    runCmd->add_flag("--timeline", o.timeline,
                     "At the end, a text row per request: . queued, # computing, x paused or "
                     "cancelled, | delivered");
    runCmd->footer(RUN_HELP);
    runCmd->callback([&] { run = [&] { return RunRun(options, o); }; });
}

}  // namespace quorv::cli
