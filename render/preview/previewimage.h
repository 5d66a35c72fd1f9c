#pragma once
/// Preview images: a request (a data dictionary object with `Submit` and `Cancel`) names a
/// provider class that renders the preview iteration by iteration; each finished iteration
/// reaches the request's completion delegate, on a job thread, as a dictionary of metadata and
/// a dictionary of images. The module's scheduler runs the iterations of all requests on the
/// queue "Preview Image Queue", high-priority requests before normal ones.
///
/// A provider module registers its classes in `PREVIEWIMAGEPROVIDER_REGISTRY_ID`; they
/// implement `PreviewImageProviderInterface` and are made by class, never linked.

#include <cstring>

#include "quorv/basictypes.h"
#include "quorv/classes.h"
#include "quorv/counted.h"
#include "quorv/datadictionary.h"
#include "quorv/datadictionaryobject.h"
#include "quorv/delegate.h"
#include "quorv/jobs.h"

namespace quorv::nodes {

inline constexpr const char* PREVIEWIMAGEREQUEST_CLASS_ID = "net.quorv.nodes.class.previewimagerequest";
/// The registry of the request class.
inline constexpr const char* NODES_CLASS_REGISTRY_ID = "net.quorv.nodes.registry.classes";
inline constexpr const char* PREVIEWIMAGEPROVIDER_REGISTRY_ID =
    "net.quorv.nodes.registry.previewimageproviders";
inline constexpr const char* PREVIEW_INTENT_NODE2D = "net.quorv.nodes.previewimagerequest.intent_node2d";
inline constexpr const char* PREVIEW_JOB_QUEUE_NAME = "Preview Image Queue";
inline constexpr const char* PREVIEW_ITERATION_JOB_NAME = "PreviewImageTaskIteration";

/// A sample: linear RGBA, 16 bytes, copied as a unit.
using PreviewSample = ColorA32;
static_assert(sizeof(PreviewSample) == 16);

/// A counted array of samples, row after row.
class SampleBuffer {
public:
    explicit SampleBuffer(Int count) : _count(count) {}
    SampleBuffer(const SampleBuffer&) = delete;
    SampleBuffer& operator=(const SampleBuffer&) = delete;
    ~SampleBuffer() { SystemInterface::Free(_samples); }

    /// A buffer of `count` samples, zero-filled; out of memory gives the kind 0 error.
    static Result<Ref<SampleBuffer>> Create(Int count) {
        if (count < 0) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "Illegal argument: Invalid sample count");
        }
        Result<Ref<SampleBuffer>> b = NewCounted<SampleBuffer>(count);
        if (b.IsError()) return b;
        if (count > 0) {
            void* p = SystemInterface::Alloc(count * static_cast<Int>(sizeof(PreviewSample)),
                                             QUORV_SOURCE_LOCATION);
            if (!p) return OutOfMemoryError();
            std::memset(p, 0, static_cast<size_t>(count) * sizeof(PreviewSample));
            b.GetValue()->_samples = static_cast<PreviewSample*>(p);
        }
        return b;
    }
    Int GetCount() const { return _count; }
    PreviewSample* GetData() { return _samples; }
    const PreviewSample* GetData() const { return _samples; }

private:
    Int _count;
    PreviewSample* _samples = nullptr;
};

/// One image of a provider's output: its size, its samples and a flag that travels unread.
/// A copy shares the buffer; a move leaves the source without one.
struct PreviewImageProviderOutputImage {
    Int width = 0;
    Int height = 0;
    Ref<SampleBuffer> buffer;
    Bool flag = false;
    bool operator==(const PreviewImageProviderOutputImage& o) const {
        return width == o.width && height == o.height && buffer == o.buffer && flag == o.flag;
    }
};

/// Carried with a request for callers outside this module; nothing here reads it.
struct CustomSubjectHandlerCallbacks {
    DataDictionary dictionary;
    void* words[2] = {nullptr, nullptr};
};

/// The completion delegate: the outcome of a delivery, the metadata, the images.
using ResultCompleteFunc = Delegate<void(Result<void>, DataDictionary, DataDictionary)>;

/// What `TakeOutput` hands over. The default stands where no provider could be asked.
struct PreviewImageProviderOutput {
    Int iterationIndex = -1;
    Int iterationCount = -1;
    Bool flag = true;
    DataDictionary metadata;
    DataDictionary images;
};

// ---- keys of a request ---------------------------------------------------------------------
inline const DictionaryKey<Id> PREVIEW_INTENT("net.quorv.nodes.previewimagerequest.intent");
inline const DictionaryKey<Vector2i64> PREVIEW_TEXTURESIZE("net.quorv.nodes.previewimagerequest.texturesize");
inline const DictionaryKey<IdArray> PREVIEW_TEXTUREIDS("net.quorv.nodes.previewimagerequest.textureids");
inline const DictionaryKey<TimeValue> PREVIEW_RESULTCOMPLETEWAIT(
    "net.quorv.nodes.previewimagerequest.resultcompletewait");
inline const DictionaryKey<ResultCompleteFunc> PREVIEW_RESULTCOMPLETEFUNC(
    "net.quorv.nodes.previewimagerequest.resultcompletefunc");
inline const DictionaryKey<Bool> PREVIEW_UPSCALEPROGRESSION(
    "net.quorv.nodes.previewimagerequest.upscaleprogression");
inline const DictionaryKey<Bool> PREVIEW_FLIPVERTICALLY("net.quorv.nodes.previewimagerequest.flipvertically");
inline const DictionaryKey<ClassObject*> PREVIEW_PROVIDER("net.quorv.nodes.previewimagerequest.provider");
inline const DictionaryKey<UInt32> PREVIEW_PURPOSE("net.quorv.nodes.previewimagerequest.purpose");
inline const DictionaryKey<Int> PREVIEW_ITERATIONINDEX("net.quorv.nodes.previewimagerequest.iterationindex");
inline const DictionaryKey<Int> PREVIEW_ITERATIONCOUNT("net.quorv.nodes.previewimagerequest.iterationcount");

// ---- interfaces ------------------------------------------------------------------------------

// clang-format off
#define QUORV_PREVIEWIMAGEREQUEST_METHODS(M) \
    M(Result<void>, Submit, (), ()) \
    M(void, Cancel, (), ()) \
    M(void, CancelAllRequests, (Bool wait), (wait))
#define QUORV_PREVIEWIMAGEPROVIDER_METHODS(M) \
    M(Result<void>, Initialize, (const DataDictionaryObjectInterface::Ref& request, Int threadCount), (request, threadCount)) \
    M(Result<void>, ComputeIteration, (JobObject* job), (job)) \
    M(Result<PreviewImageProviderOutput>, TakeOutput, (), ())
// clang-format on

/// A preview request; its dictionary is reached through `DataDictionaryObjectInterface`.
///
/// * `Submit`: cancels the request's present task, then starts one from the dictionary as it
///   now stands. Errors: "Illegal state: Invalid Preview Image Scheduler",
///   "Illegal argument: Invalid ResultCompleteFunc()", "Illegal argument: Invalid Image Size",
///   a null-pointer error without a provider class, the provider's own errors, out of memory.
/// * `Cancel`: lets go of the task; the last holder of it cancels it. Never waits.
/// * `CancelAllRequests`: stops the module's whole scheduler (a shutdown: no task starts
///   again), waiting for running iterations when `wait` is true. It acts on the scheduler,
///   not on this request: any request object reaches it.
QUORV_VIRTUAL_INTERFACE(PreviewImageRequestInterface, "net.quorv.nodes.interface.previewimagerequest",
                        QUORV_PREVIEWIMAGEREQUEST_METHODS);

/// A provider: `Initialize` once on the submitting thread, then `ComputeIteration` once per
/// job on a thread of "Preview Image Queue" (poll `job` for cancellation), and `TakeOutput`
/// after each job that was not cancelled. The two alternate strictly.
QUORV_VIRTUAL_INTERFACE(PreviewImageProviderInterface, "net.quorv.nodes.interface.previewimageprovider",
                        QUORV_PREVIEWIMAGEPROVIDER_METHODS);

}  // namespace quorv::nodes

namespace quorv {
QUORV_DATATYPE_ID(nodes::PreviewImageProviderOutputImage,
                  "net.quorv.nodes.datatype.previewimageprovideroutputimage");
QUORV_DATATYPE_ID(nodes::CustomSubjectHandlerCallbacks,
                  "net.quorv.nodes.previewimagerequest.datatype.customrequestcallbacks");
QUORV_DATATYPE_ID(nodes::ResultCompleteFunc, "net.quorv.nodes.previewimagerequest.datatype.resultcompletefunc");
}  // namespace quorv
