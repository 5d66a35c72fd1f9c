// The scripted provider: iterations as the request's keys describe them, for tests and the
// command line to drive the worker and the scheduler through every path. A computation that
// finds its job cancelled adds nothing: the next one computes the same step again.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "previewproviders/previewproviders.h"
#include "quorv/classes.h"
#include "quorv/jobs.h"

namespace quorv::previewproviders {

extern std::atomic<Int> g_liveProviders;

namespace {

Int NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// "a,b,c" split at commas; false when a piece is not what `parse` accepts.
template <typename T, typename F>
bool ParseList(const std::string& text, std::vector<T>& out, F parse) {
    size_t start = 0;
    while (start <= text.size() && !text.empty()) {
        const size_t comma = text.find(',', start);
        const std::string piece =
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        T value;
        if (!parse(piece, value)) return false;
        out.push_back(value);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return true;
}

bool ParseInt(const std::string& s, Int& v) {
    long long x = 0;
    int used = 0;
    if (std::sscanf(s.c_str(), "%lld%n", &x, &used) != 1 || used != static_cast<int>(s.size()))
        return false;
    v = x;
    return true;
}

bool ParseSize(const std::string& s, Vector2i64& v) {
    long long w = 0, h = 0;
    int used = 0;
    if (std::sscanf(s.c_str(), "%lldx%lld%n", &w, &h, &used) != 2 ||
        used != static_cast<int>(s.size()))
        return false;
    if (w < 1 || h < 1 || w > 16384 || h > 16384) return false;
    v = {w, h};
    return true;
}

Error ScriptError(const char* message) {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, message);
}

struct ScriptedProvider {
    ScriptedProvider() { g_liveProviders.fetch_add(1); }
    ScriptedProvider(const ScriptedProvider& o) : ScriptedProvider() { *this = o; }
    ScriptedProvider& operator=(const ScriptedProvider&) = default;
    ~ScriptedProvider() { g_liveProviders.fetch_sub(1); }

    Result<void> Initialize(const DataDictionaryObjectInterface::Ref& request, Int) {
        try {
            count = GetObjectValue(request, SCRIPTED_COUNT, Int(3));
            const Vector2i64 target =
                GetObjectValue(request, nodes::PREVIEW_TEXTURESIZE, Vector2i64{1, 1});
            if (!ParseList(GetObjectValue(request, SCRIPTED_INDICES, std::string()), indices,
                           ParseInt)) {
                return ScriptError(
                    "Illegal argument: Scripted indices must be integers separated by commas");
            }
            if (!ParseList(GetObjectValue(request, SCRIPTED_SIZES, std::string()), sizes,
                           ParseSize)) {
                return ScriptError(
                    "Illegal argument: Scripted sizes must be WxH separated by commas");
            }
            if (sizes.empty())
                sizes.push_back({std::max<Int>(target.x, 1), std::max<Int>(target.y, 1)});
            const std::string fail = GetObjectValue(request, SCRIPTED_FAIL, std::string());
            if (fail == "initialize") return ScriptError("Scripted failure in Initialize");
            if (!fail.empty()) {
                const size_t colon = fail.find(':');
                const std::string where = fail.substr(0, colon);
                if (colon == std::string::npos || (where != "compute" && where != "take") ||
                    !ParseInt(fail.substr(colon + 1), failStep)) {
                    return ScriptError(
                        "Illegal argument: Scripted failure must be initialize, compute:N or "
                        "take:N");
                }
                failInTake = where == "take";
            }
        } catch (const std::bad_alloc&) {
            return OutOfMemoryError();
        }
        workSeconds = GetObjectValue(request, SCRIPTED_WORKTIME, 0.0);
        gate = reinterpret_cast<ConditionVariableObject*>(
            GetObjectValue(request, SCRIPTED_GATE, Int(0)));
        return OK;
    }

    Result<void> ComputeIteration(JobObject* job) {
        // A step whose job was cancelled after the step was counted got no `TakeOutput`: this
        // job hands it over instead of computing the next.
        if (untaken) return OK;
        const Int begin = NowNs();
        auto cancelled = [job] { return job && ThreadServicesInterface::IsCancelled(job); };
        if (gate) {
            while (!ConditionVariableInterface::IsSet(gate) && !cancelled()) {
                ConditionVariableInterface::Wait(gate, TimeValue{0.0005});
            }
        }
        if (workSeconds > 0.0) {
            const Int until = begin + static_cast<Int>(workSeconds * 1e9);
            while (NowNs() < until && !cancelled()) std::this_thread::yield();
        }
        const bool wasCancelled = cancelled();
        const Int step = wasCancelled ? computedSteps : computedSteps++;
        try {
            log += "compute " + std::to_string(step) + " thread " +
                   std::to_string(std::hash<std::thread::id>()(std::this_thread::get_id()) &
                                  0xffffff) +
                   " begin " + std::to_string(begin) + " end " + std::to_string(NowNs()) +
                   " cancelled " + (wasCancelled ? "1" : "0") + "\n";
        } catch (const std::bad_alloc&) {
            return OutOfMemoryError();
        }
        ++computations;
        if (wasCancelled) return OK;
        lastBegin = begin;
        untaken = true;
        if (!failInTake && step == failStep) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "Scripted failure in ComputeIteration");
        }
        return OK;
    }

    Result<nodes::PreviewImageProviderOutput> TakeOutput() {
        untaken = false;
        const Int step = computedSteps - 1;
        if (failInTake && step == failStep) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "Scripted failure in TakeOutput");
        }
        nodes::PreviewImageProviderOutput out;
        out.iterationIndex = step >= 0 && step < static_cast<Int>(indices.size())
                                 ? indices[static_cast<size_t>(step)]
                                 : step;
        out.iterationCount = count;
        out.flag = false;
        const Vector2i64 s = sizes[static_cast<size_t>(
            std::min<Int>(std::max<Int>(step, 0), Int(sizes.size()) - 1))];
        Result<Ref<nodes::SampleBuffer>> buffer = nodes::SampleBuffer::Create(s.x * s.y);
        if (buffer.IsError()) return buffer.GetError();
        // Each sample tells where it came from: (index, x, y, step).
        for (Int y = 0; y < s.y; ++y) {
            for (Int x = 0; x < s.x; ++x) {
                buffer.GetValue()->GetData()[y * s.x + x] =
                    ColorA32{Float32(out.iterationIndex), Float32(x), Float32(y), Float32(step)};
            }
        }
        QUORV_RETURN_IF_ERROR(out.images.Set(
            SCRIPTED_IMAGE,
            nodes::PreviewImageProviderOutputImage{s.x, s.y, buffer.GetValue(), false}));
        QUORV_RETURN_IF_ERROR(out.metadata.Set(SCRIPTED_META_LOG, log));
        QUORV_RETURN_IF_ERROR(out.metadata.Set(SCRIPTED_META_STEP, step));
        QUORV_RETURN_IF_ERROR(out.metadata.Set(SCRIPTED_META_COMPUTATIONS, computations));
        QUORV_RETURN_IF_ERROR(out.metadata.Set(SCRIPTED_META_BEGIN, lastBegin));
        return out;
    }

    Int count = 3;
    std::vector<Int> indices;
    std::vector<Vector2i64> sizes;
    Int failStep = -1;
    bool failInTake = false;
    Float64 workSeconds = 0.0;
    ConditionVariableObject* gate = nullptr;
    Int computedSteps = 0;
    Int computations = 0;
    Int lastBegin = 0;
    bool untaken = false;  // a step counted and not yet taken
    std::string log;
};

ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
SimpleClass<ScriptedProvider, nodes::PreviewImageProviderInterface> g_class(
    g_unit, SCRIPTED_PROVIDER_ID, nodes::PREVIEWIMAGEPROVIDER_REGISTRY_ID, __FILE__);

}  // namespace

}  // namespace quorv::previewproviders
