#pragma once
// Hand-offs that pass through oneTBB's scheduler happen inside libtbb, which is not built with
// the thread sanitizer: a job enqueued on one thread and run on a worker, or a loop's partitions
// forked and joined, look unordered to it. These marks state the order the scheduler gives; in
// builds without the sanitizer they are nothing.

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace quorv::host {

/// Everything this thread did so far happens before what follows a later `TsanAcquire` of the
/// same address on any thread.
inline void TsanRelease(const void* address) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(const_cast<void*>(address));
#else
    (void)address;
#endif
}

/// See `TsanRelease`.
inline void TsanAcquire(const void* address) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(const_cast<void*>(address));
#else
    (void)address;
#endif
}

}  // namespace quorv::host
