#include "quorv/onceguard.h"

namespace quorv {

namespace {

JobObject* JobOf(UInt word) {
    return reinterpret_cast<JobObject*>(word & ~UInt(OnceGuard::STATE_MASK));
}

bool IsCancelledResult(const Result<void>& r) {
    return r.IsError() && IsOperationCancelled(r.GetErrorPointer());
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
            return RunAsOwner(build, user, failure);
        }
        if ((w & READER) != 0 || (state != RUNNING && state != FAILED)) {
            SpinWaitStep(record);
            continue;
        }
        // Announce the reader so that the job stays attached while we take our reference.
        if (!_word.compare_exchange_weak(w, w | READER, std::memory_order_acq_rel)) continue;
        JobRef job = JobRef::Share(JobOf(w));
        _word.fetch_and(~UInt(READER), std::memory_order_release);
        SpinWaitEnd(record);
        {
            // A failed job has ended already: the wait only hands its error on.
            ScopedExclusiveResourceWait bracket;
            job.Wait(JOB_WAIT_INFINITE);
        }
        const Result<void> r = job.GetResult();
        if (state == FAILED) return r;
        // This waiter may be the first to see the end: the owner may wait further down this
        // very thread, running other jobs of the queue meanwhile, one of which is this call.
        // So it settles the word itself instead of waiting for the owner to.
        Settle(w, r, failure);
        if (!IsCancelledResult(r)) return failure == FAILURE::MARK_DONE ? Result<void>(OK) : r;
        // A cancelled build leaves the guard free; a waiter that isn't cancelled builds.
        if (ThreadServicesInterface::IsCurrentJobCancelled()) return r;
    }
}

Result<void> OnceGuard::RunAsOwner(JobFunction build, void* user, FAILURE failure) {
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
    // The build goes to the caller's own queue (the default queue for a plain thread): that
    // queue's threads, and its waiters, are the ones meant to do the caller's work. On a queue
    // of one thread the wait below runs the build itself, as it does any job it finds
    // unstarted; a job that could not be queued runs there too.
    Result<void> queued = job.Enqueue(ThreadServicesInterface::GetCurrentQueue());
    (void)queued;
    job.Wait(JOB_WAIT_INFINITE);
    const Result<void> r = job.GetResult();
    Settle(running, r, failure);
    return r;
}

void OnceGuard::Settle(UInt running, const Result<void>& r, FAILURE failure) {
    const bool cancelled = IsCancelledResult(r);
    UInt next;
    if (r.IsOk() || (failure == FAILURE::MARK_DONE && !cancelled))
        next = DONE;
    else if (cancelled)
        next = FREE;
    else
        next = (running & ~UInt(STATE_MASK)) | FAILED;
    SpinWaitRecord record;
    record.waitAddress = &_word;
    for (;;) {
        UInt w = _word.load(std::memory_order_acquire);
        if (w == (running | READER)) {
            SpinWaitStep(record);
            continue;
        }
        // Moved on already, by the owner or another waiter. The caller holds a reference to
        // the job, so no later build can have the same word.
        if (w != running) break;
        if (_word.compare_exchange_weak(w, next, std::memory_order_acq_rel)) {
            if ((next & STATE_MASK) != FAILED)
                ThreadServicesInterface::RemoveJobReference(JobOf(w));
            break;
        }
    }
    SpinWaitEnd(record);
}

void OnceGuard::WaitForBuild(FAILURE failure, bool cancel) {
    SpinWaitRecord record;
    record.waitAddress = &_word;
    for (;;) {
        UInt w = _word.load(std::memory_order_acquire);
        const UInt state = w & STATE_MASK;
        if ((w & READER) != 0 || state == CLAIMED) {
            SpinWaitStep(record);
            continue;
        }
        if (state != RUNNING) break;
        if (!_word.compare_exchange_weak(w, w | READER, std::memory_order_acq_rel)) continue;
        JobRef job = JobRef::Share(JobOf(w));
        _word.fetch_and(~UInt(READER), std::memory_order_release);
        if (cancel) job.Cancel();
        job.Wait(JOB_WAIT_INFINITE);
        Settle(w, job.GetResult(), failure);
    }
    SpinWaitEnd(record);
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
