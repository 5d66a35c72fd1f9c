#pragma once
// One submitted preview request as the scheduler moves it around: it owns the provider, runs
// one job per iteration, takes the provider's output when a job has ended, converts the images
// to what the request asked for and calls the request's completion delegate.

#include <atomic>

#include "quorv/lockedref.h"
#include "quorv/weakref.h"
#include "render/preview/previewimage.h"

namespace quorv::nodes {

class PreviewImageTask {
public:
    /// Checks the delegate and the size, makes the provider and initialises it on this thread.
    static Result<Ref<PreviewImageTask>> Create(Int id, Int threadCount,
                                                const DataDictionaryObjectInterface::Ref& request,
                                                Int backgroundJobId);
    PreviewImageTask(const PreviewImageTask&) = delete;
    PreviewImageTask& operator=(const PreviewImageTask&) = delete;
    virtual ~PreviewImageTask();

    /// Starts the next iteration as a job on `queue`.
    Result<void> Start(JobQueueObject* queue);
    /// Marks the task paused and cancels its job; it goes on after the job has ended.
    void Pause();
    /// Cancels the task for good; its delegate hears no more.
    void Cancel();
    /// Tells the delegate of `error`; changes no state.
    void Fail(const Error& error);
    void WaitForCompletion(TimeValue timeout) const;
    Int GetId() const { return _id; }
    Int GetBackgroundJobId() const { return _backgroundJobId; }

    /// What the end of a job gives the scheduler.
    struct JobEnd {
        Bool hasMore = false;
        Bool paused = false;
        Float64 progress = 0.0;
    };

    /// Made by `Create` only; public for `NewCounted`.
    PreviewImageTask(Int id, Int backgroundJobId) : _backgroundJobId(backgroundJobId), _id(id) {}

private:
    friend struct PreviewIterationJob;

    JobEnd OnJobEnded();
    void Deliver(const PreviewImageProviderOutput& output);
    void CancelJob();
    JobRef TakeJobReference() const;
    void ClearJob();

    std::atomic<Bool> _paused{false};
    std::atomic<Bool> _finished{false};
    std::atomic<Bool> _cancelled{false};
    ConditionVariableRef _condition;
    Int _lastDeliveredIndex = -1;
    Int _backgroundJobId = -1;
    LockBitWord _job;  // JobObject* with one job reference, or 0
    Int _id = 0;
    PreviewImageProviderInterface::Ref _provider;
    ResultCompleteFunc _completeFunc;
    Bool _upscaleProgression = false;
    Bool _flipVertically = false;
    Vector2i64 _targetSize;
};

/// Converts a sample buffer of (sw, sh) to (tw, th) by nearest samples, flipping rows when
/// asked. Equal sizes without a flip hand the buffer on as it stands, unchecked.
Result<Ref<SampleBuffer>> ConvertSampleBuffer(const Ref<SampleBuffer>& source, Int sw, Int sh,
                                              Int tw, Int th, Bool flip);
/// Rows per partition of the conversion for a target height and a job system of `threads`.
Int ConversionGranularity(Int targetHeight, Int threads);

}  // namespace quorv::nodes
