#include "quorv/onceguard.h"

namespace quorv {

namespace {

JobObject* JobOf(UInt word) {
    return reinterpret_cast<JobObject*>(word & ~UInt(OnceGuard::STATE_MASK));
}

}  // namespace

Result<void> OnceGuard::Run(JobFunction build, void* user, FAILURE failure) {
    SpinWaitRecord record;
    record.waitAddress = &_word;
    for (;;) {
        UInt w = _word.load(std::memory_order_acquire);
        if (w == DONE) {
            SpinWaitEnd(record);
            return OK;
        }
        const UInt state = w & STATE_MASK;
        if (state == FREE) {
            if (!_word.compare_exchange_weak(w, CLAIMED, std::memory_order_acq_rel)) continue;
            SpinWaitEnd(record);
            return RunAsOwner(build, user, failure, record);
        }
        if ((w & READER) != 0 || state == CLAIMED) {
            SpinWaitStep(record);
            continue;
        }
        if (state != RUNNING && state != FAILED) {
            SpinWaitStep(record);
            continue;
        }
        // Announce the reader so that the owner keeps the job attached while we take our
        // reference to it.
        if (!_word.compare_exchange_weak(w, w | READER, std::memory_order_acq_rel)) continue;
        JobRef job = JobRef::Share(JobOf(w));
        _word.fetch_and(~UInt(READER), std::memory_order_release);
        if (state == FAILED) {
            SpinWaitEnd(record);
            return job.GetResult();
        }
        {
            ScopedExclusiveResourceWait bracket;
            job.Wait(JOB_WAIT_INFINITE);
        }
        Result<void> r = job.GetResult();
        if (r.IsError() && IsOperationCancelled(r.GetErrorPointer()) &&
            ThreadServicesInterface::IsCurrentJobCancelled()) {
            // A cancelled waiter does not start the build again for itself.
            SpinWaitEnd(record);
            return r;
        }
        // The owner detaches the job right after the wait; look again.
        SpinWaitStep(record);
    }
}

Result<void> OnceGuard::RunAsOwner(JobFunction build, void* user, FAILURE failure,
                                   SpinWaitRecord& record) {
    JobObject* raw = ThreadServicesInterface::AllocJob(
        build, user, nullptr, ThreadServicesInterface::GetCurrentJob(), QUORV_SOURCE_LOCATION);
    if (!raw) {
        _word.store(FREE, std::memory_order_release);
        return OutOfMemoryError();
    }
    JobRef job = JobRef::Adopt(raw);
    // The word holds a reference of its own while the job is attached.
    ThreadServicesInterface::AddJobReference(raw);
    const UInt running = reinterpret_cast<UInt>(raw) | RUNNING;
    _word.store(running, std::memory_order_release);
    // A job that could not be queued runs inline in the wait below.
    Result<void> queued = job.Enqueue(nullptr);
    (void)queued;
    job.Wait(JOB_WAIT_INFINITE);
    Result<void> r = job.GetResult();
    const bool cancelled = r.IsError() && IsOperationCancelled(r.GetErrorPointer());
    UInt next;
    if (r.IsOk() || (failure == FAILURE::MARK_DONE && !cancelled))
        next = DONE;
    else if (cancelled)
        next = FREE;
    else
        next = reinterpret_cast<UInt>(raw) | FAILED;
    UInt expected = running;
    while (!_word.compare_exchange_weak(expected, next, std::memory_order_acq_rel)) {
        expected = running;
        SpinWaitStep(record);
    }
    SpinWaitEnd(record);
    if ((next & STATE_MASK) != FAILED) ThreadServicesInterface::RemoveJobReference(raw);
    return r;
}

bool OnceGuard::ResetFailed() {
    SpinWaitRecord record;
    record.waitAddress = &_word;
    for (;;) {
        UInt w = _word.load(std::memory_order_acquire);
        if ((w & STATE_MASK & ~UInt(READER)) != FAILED) return false;
        if ((w & READER) != 0) {
            SpinWaitStep(record);
            continue;
        }
        if (_word.compare_exchange_weak(w, FREE, std::memory_order_acq_rel)) {
            SpinWaitEnd(record);
            ThreadServicesInterface::RemoveJobReference(JobOf(w));
            return true;
        }
    }
}

bool OnceGuard::ClaimDone() {
    UInt expected = DONE;
    return _word.compare_exchange_strong(expected, CLAIMED, std::memory_order_acq_rel);
}

OnceGuard::~OnceGuard() {
    UInt w = _word.load(std::memory_order_acquire);
    if ((w & STATE_MASK) == FAILED) ThreadServicesInterface::RemoveJobReference(JobOf(w));
}

}  // namespace quorv
