// The worker of a preview request. The job and its observers hold only weak references to the
// task, so dropping a task never waits for its job; the job holds the provider itself, so a
// task freed mid-iteration cannot free the provider under a running `ComputeIteration`.
#include "render/preview/previewimage_worker.h"

#include <algorithm>
#include <cmath>

#include "quorv/parallel.h"
#include "render/preview/previewimage_scheduler.h"

namespace quorv::nodes {

namespace {

const DataDictionary& EmptyDictionary() {
    static const DataDictionary* empty = new DataDictionary();
    return *empty;
}

}  // namespace

// The user word of an iteration job: freed with the job, after every observer has run.
struct PreviewIterationJob {
    WeakRef<PreviewImageTask> task;
    PreviewImageProviderInterface::Ref provider;
    Int id = 0;

    static Result<void> Run(void* user) {
        auto* self = static_cast<PreviewIterationJob*>(user);
        JobRef running = JobRef::Share(ThreadServicesInterface::GetCurrentJob());
        Result<void> r = self->provider.ComputeIteration(running.Get());
        if (r.IsError()) {
            Error e = r.GetError();
            SystemInterface::CriticalOutput(
                e.Get() && e.Get()->message ? e.Get()->message : "Preview iteration failed",
                QUORV_SOURCE_LOCATION);
        }
        return r;
    }
    static void Free(void* user) { delete static_cast<PreviewIterationJob*>(user); }

    // Every path that cancels a job holds the task, except a cancel of the whole queue
    // (`CancelAll` stops jobs with no task at hand): so the upgrade is tested here.
    static void OnCancelled(void* user, JobObject*) {
        auto* self = static_cast<PreviewIterationJob*>(user);
        Ref<PreviewImageTask> task = self->task.Lock();
        if (!task) return;
        if (!task->_paused.load(std::memory_order_acquire)) {
            task->_cancelled.store(true, std::memory_order_release);
        }
    }

    static void OnFinished(void* user, JobObject*) {
        auto* self = static_cast<PreviewIterationJob*>(user);
        Ref<PreviewImageTask> task = self->task.Lock();
        if (!task) {
            SchedulerOnIterationFinished(self->id, false, false, 0.0);
            return;
        }
        PreviewImageTask::JobEnd end = task->OnJobEnded();
        SchedulerOnIterationFinished(self->id, end.hasMore, end.paused, end.progress);
    }
};

Result<Ref<PreviewImageTask>> PreviewImageTask::Create(
    Int id, Int threadCount, const DataDictionaryObjectInterface::Ref& request,
    Int backgroundJobId) {
    // A copy, not a move out of the request: the request keeps its delegate, so submitting the
    // same request again works.
    ResultCompleteFunc func =
        GetObjectValue(request, PREVIEW_RESULTCOMPLETEFUNC, ResultCompleteFunc());
    if (func.IsEmpty()) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "Illegal argument: Invalid ResultCompleteFunc()");
    }
    const Vector2i64 size = GetObjectValue(request, PREVIEW_TEXTURESIZE, Vector2i64{0, 0});
    if (!(size.x >= 1 && size.y >= 1)) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "Illegal argument: Invalid Image Size");
    }
    const Bool upscale = GetObjectValue(request, PREVIEW_UPSCALEPROGRESSION, false);
    const Bool flip = GetObjectValue(request, PREVIEW_FLIPVERTICALLY, false);

    Result<Data> providerValue = request.GetData(PREVIEW_PROVIDER.GetId());
    if (providerValue.IsError()) return providerValue.GetError();
    ClassObject* const* cls = providerValue.GetValue().Get<ClassObject*>();
    if (!cls || !*cls) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION);
    Result<void*> instance = ClassInterface::Create(*cls, QUORV_SOURCE_LOCATION);
    if (instance.IsError()) return instance.GetError();
    Result<PreviewImageProviderInterface::Ref> provider = PreviewImageProviderInterface::Ref::Cast(
        ObjectRef::Adopt(static_cast<ObjectInstance*>(instance.GetValue())));
    if (provider.IsError()) return provider.GetError();
    QUORV_RETURN_IF_ERROR(provider.GetValue().Initialize(request, threadCount));

    Result<Ref<PreviewImageTask>> made = NewCounted<PreviewImageTask>(id, backgroundJobId);
    if (made.IsError()) return made;
    PreviewImageTask& task = *made.GetValue();
    task._provider = std::move(provider.GetValue());
    task._completeFunc = std::move(func);
    task._upscaleProgression = upscale;
    task._flipVertically = flip;
    task._targetSize = size;
    Result<ConditionVariableRef> condition = ConditionVariableRef::Create();
    if (condition.IsError()) return condition.GetError();
    task._condition = std::move(condition.GetValue());
    return made;
}

PreviewImageTask::~PreviewImageTask() {
    if (!_finished.load(std::memory_order_acquire) && !_cancelled.load(std::memory_order_acquire)) {
        _paused.store(false, std::memory_order_release);
        CancelJob();
    }
    _condition.Set();
    _completeFunc = ResultCompleteFunc();
    _provider = PreviewImageProviderInterface::Ref();
    ClearJob();
}

JobRef PreviewImageTask::TakeJobReference() const {
    std::uintptr_t w = _job.Acquire();
    JobRef job = JobRef::Share(reinterpret_cast<JobObject*>(w));
    _job.Release(w);
    return job;
}

void PreviewImageTask::ClearJob() {
    std::uintptr_t w = _job.Acquire();
    _job.Release(0);
    if (w) ThreadServicesInterface::RemoveJobReference(reinterpret_cast<JobObject*>(w));
}

void PreviewImageTask::CancelJob() {
    JobRef job = TakeJobReference();  // the lock bit is released before the job system call
    if (job) job.Cancel();
}

Result<void> PreviewImageTask::Start(JobQueueObject* queue) {
    {
        std::uintptr_t w = _job.Acquire();
        _job.Release(w);
        if (w) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "Illegal state: The task has already started");
        }
    }
    WeakRef<PreviewImageTask> weak(Ref<PreviewImageTask>(this));
    if (!weak.IsValid()) return OutOfMemoryError();
    _paused.store(false, std::memory_order_release);
    _finished.store(false, std::memory_order_release);
    _cancelled.store(false, std::memory_order_release);
    if (!_provider) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "Illegal argument: Invalid user task");
    }
    auto* user = new (std::nothrow) PreviewIterationJob{std::move(weak), _provider, _id};
    if (!user) return OutOfMemoryError();
    // No parent: a start from an observer must not tie the iteration to the job that ended.
    JobObject* raw = ThreadServicesInterface::AllocJob(&PreviewIterationJob::Run, user,
                                                       &PreviewIterationJob::Free, nullptr,
                                                       QUORV_SOURCE_LOCATION);
    if (!raw) {
        PreviewIterationJob::Free(user);
        return OutOfMemoryError();
    }
    JobRef job = JobRef::Adopt(raw);
    QUORV_RETURN_IF_ERROR(ThreadServicesInterface::AddCancelledObserver(
        raw, &PreviewIterationJob::OnCancelled, user));
    QUORV_RETURN_IF_ERROR(
        ThreadServicesInterface::AddFinishedObserver(raw, &PreviewIterationJob::OnFinished, user));
    // The job goes into its slot before it is queued: a job that ends at once must find
    // itself there when its finished observer runs.
    ThreadServicesInterface::AddJobReference(raw);
    {
        std::uintptr_t w = _job.Acquire();
        (void)w;
        _job.Release(reinterpret_cast<std::uintptr_t>(raw));
    }
    Result<void> queued = job.Enqueue(queue);
    if (queued.IsError()) {
        ClearJob();
        return queued;
    }
    return OK;
}

void PreviewImageTask::Pause() {
    _paused.store(true, std::memory_order_release);
    CancelJob();
}

void PreviewImageTask::Cancel() {
    if (_cancelled.load(std::memory_order_acquire)) return;
    // No longer paused: the job's end then reports no more work.
    _paused.store(false, std::memory_order_release);
    CancelJob();
}

void PreviewImageTask::Fail(const Error& error) {
    _completeFunc(Result<void>(error), EmptyDictionary(), EmptyDictionary());
}

void PreviewImageTask::WaitForCompletion(TimeValue timeout) const {
    (void)_condition.Wait(timeout);  // a timeout is no error
}

PreviewImageTask::JobEnd PreviewImageTask::OnJobEnded() {
    JobEnd end;
    JobRef job = TakeJobReference();
    if (!job) {
        _completeFunc(Result<void>(OutOfMemoryError()), EmptyDictionary(), EmptyDictionary());
        end.paused = _paused.load(std::memory_order_acquire);
    } else {
        const Bool wasCancelled = job.IsCancelled();
        end.paused = _paused.load(std::memory_order_acquire);
        if (wasCancelled) {
            // A paused task has more to do, a cancelled one has not; its progress drops to 0.
            end.hasMore = end.paused;
        } else {
            Result<PreviewImageProviderOutput> taken =
                _provider ? _provider.TakeOutput()
                          : Result<PreviewImageProviderOutput>(
                                MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION));
            PreviewImageProviderOutput output;
            bool resultFailed = false;
            if (taken.IsError()) {
                // Two calls: the error, then out of memory. Count -1 below then gives a
                // negative progress, which the scheduler passes on as it is.
                Fail(taken.GetError());
                _completeFunc(Result<void>(OutOfMemoryError()), EmptyDictionary(),
                              EmptyDictionary());
            } else {
                output = std::move(taken.GetValue());
                Result<void> jobResult = job.GetResult();
                if (jobResult.IsError()) {
                    _completeFunc(jobResult, EmptyDictionary(), EmptyDictionary());
                    resultFailed = true;
                }
            }
            const Int index = output.iterationIndex;
            const Int count = output.iterationCount;
            if (!resultFailed && !taken.IsError() && index < count && index >= 0) {
                if (index != _lastDeliveredIndex) {
                    Deliver(output);
                    _lastDeliveredIndex = index;
                }
                end.hasMore = index + 1 < count;
            }
            end.progress =
                static_cast<Float64>(_lastDeliveredIndex + 1) / static_cast<Float64>(count);
        }
        job = JobRef();
    }
    if (!end.hasMore) {
        _condition.Set();
        _finished.store(true, std::memory_order_release);
    }
    ClearJob();
    return end;
}

namespace {

// Sets the first `count` entries of `source` into `target`, as they are.
Result<void> CopyLeadingEntries(const DataDictionary& source, Int count, DataDictionary& target) {
    Result<void> outcome = OK;
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(source.GetReadable(), &it);
    for (Int i = 0; i < count && outcome.IsOk() && DataDictionaryInterface::IteratorHasValue(&it);
         ++i) {
        DataDictionaryKey key;
        Data value;
        outcome = DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value)
                      ? target.SetData(key, value)
                      : Result<void>(OutOfMemoryError());
        DataDictionaryInterface::IteratorMoveToNext(&it);
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    return outcome;
}

}  // namespace

void PreviewImageTask::Deliver(const PreviewImageProviderOutput& output) {
    DataDictionary metadata = output.metadata;
    // The provider's own dictionary is never written: a shared or null one is copied first.
    Result<void> outcome = metadata.MakeWritable();
    if (outcome.IsOk()) outcome = metadata.Set(PREVIEW_ITERATIONINDEX, output.iterationIndex);
    if (outcome.IsOk()) outcome = metadata.Set(PREVIEW_ITERATIONCOUNT, output.iterationCount);
    // An image that passes through (its own size, no flip) keeps the very record the provider
    // made. While every image does, no new dictionary is built: the provider's is handed on,
    // shared. The first image that needs a new record starts the new dictionary with the ones
    // before it; a failure delivers the images done before it, as always.
    DataDictionary images;
    Int passed = 0;
    bool building = false;
    if (outcome.IsOk() && output.images.GetCount() > 0) {
        DataDictionaryIteratorState it;
        DataDictionaryInterface::InitIterator(output.images.GetReadable(), &it);
        while (outcome.IsOk() && DataDictionaryInterface::IteratorHasValue(&it)) {
            DataDictionaryKey key;
            Data value;
            if (!DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value)) {
                outcome = OutOfMemoryError();
                break;
            }
            const PreviewImageProviderOutputImage* image =
                value.Get<PreviewImageProviderOutputImage>();
            if (!image) {
                outcome = MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                                    "Illegal argument: Invalid Sample Buffer");
                break;
            }
            const Int tw = _upscaleProgression ? _targetSize.x : image->width;
            const Int th = _upscaleProgression ? _targetSize.y : image->height;
            if (!building && tw == image->width && th == image->height && !_flipVertically) {
                ++passed;
                DataDictionaryInterface::IteratorMoveToNext(&it);
                continue;
            }
            if (!building) {
                building = true;
                outcome = CopyLeadingEntries(output.images, passed, images);
                if (outcome.IsError()) break;
            }
            Result<Ref<SampleBuffer>> converted = ConvertSampleBuffer(
                image->buffer, image->width, image->height, tw, th, _flipVertically);
            if (converted.IsError()) {
                outcome = converted.GetError();
                break;
            }
            PreviewImageProviderOutputImage record{tw, th, std::move(converted.GetValue()),
                                                   image->flag};
            Data entry = Data::Of(record);
            outcome =
                entry.IsEmpty() ? Result<void>(OutOfMemoryError()) : images.SetData(key, entry);
            DataDictionaryInterface::IteratorMoveToNext(&it);
        }
        DataDictionaryInterface::IteratorDestruct(&it);
        if (!building) {
            if (outcome.IsOk()) {
                images = output.images;
            } else if (passed > 0) {
                (void)CopyLeadingEntries(output.images, passed, images);
            }
        }
    }
    _completeFunc(outcome, metadata, images);
}

Int ConversionGranularity(Int targetHeight, Int threads) {
    return std::clamp<Int>(targetHeight / (2 * std::max<Int>(threads, 1)), 1, 16);
}

Result<Ref<SampleBuffer>> ConvertSampleBuffer(const Ref<SampleBuffer>& source, Int sw, Int sh,
                                              Int tw, Int th, Bool flip) {
    if (sw == tw && sh == th && !flip) return source;
    if (!source) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "Illegal argument: Invalid Sample Buffer");
    }
    if (source->GetCount() != sw * sh) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "Illegal argument: Invalid sample buffer.");
    }
    Result<Ref<SampleBuffer>> target = SampleBuffer::Create(tw * th);
    if (target.IsError()) return target;
    const PreviewSample* src = source->GetData();
    PreviewSample* dst = target.GetValue()->GetData();
    const Int granularity = ConversionGranularity(th, JobQueueInterface::GetThreadCount(nullptr));
    QUORV_RETURN_IF_ERROR(
        ParallelFor(0, th, granularity, [&](Int from, Int to, Int) -> Result<void> {
            for (Int y = from; y < to; ++y) {
                const Int sy = static_cast<Int>(std::trunc(
                    static_cast<Float64>(y) * static_cast<Float64>(sh) / static_cast<Float64>(th)));
                const Int ty = flip ? th - 1 - y : y;
                PreviewSample* row = dst + ty * tw;
                const PreviewSample* srow = src + sy * sw;
                for (Int x = 0; x < tw; ++x) {
                    const Int sx = static_cast<Int>(
                        std::trunc(static_cast<Float64>(x) * static_cast<Float64>(sw) /
                                   static_cast<Float64>(tw)));
                    row[x] = srow[sx];
                }
            }
            return OK;
        }));
    return target;
}

}  // namespace quorv::nodes
