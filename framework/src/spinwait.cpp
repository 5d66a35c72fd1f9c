#include "quorv/spinwait.h"

namespace {

void DoNothing(quorv::SpinWaitRecord*, const void*) {}

inline void CpuYieldHint() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

}  // namespace

extern "C" {
QUORV_EXPORT quorv::CpuYieldDelegate g_CpuYieldDelegate = &DoNothing;
}

namespace quorv {

Bool g_trackCpuYield = false;
Bool g_trackSpinlocks = false;

namespace {
const char* const TRACK_HELP =
    "Track usage of Spinlocks (either for performance checks or deadlock detection)";
const bool g_configured = (AddConfigurationVariable("g_trackCpuYield", &g_trackCpuYield,
                                                    TRACK_HELP, CONFIGTYPE::BOOL, "false"),
                           AddConfigurationVariable("g_trackSpinlocks", &g_trackSpinlocks,
                                                    TRACK_HELP, CONFIGTYPE::BOOL, "false"),
                           true);
}  // namespace

void SpinWaitStep(SpinWaitRecord& record) {
    // A very long wait hands every further step to the delegate and does not pause: with the
    // default delegate such a waiter spins flat out.
    if (record.spinCount > 262144) {
        g_CpuYieldDelegate(&record, record.waitAddress);
        return;
    }
    if (record.spinCount == 0 && g_trackCpuYield) g_CpuYieldDelegate(&record, record.waitAddress);
    record.spinCount += record.spinStep;
    for (Int32 round = record.spinStep >> 3; round >= 1; --round) {
        for (int i = 0; i < 128; ++i) CpuYieldHint();
    }
    if (record.spinStep > 1024) record.spinStep = 16;
    else record.spinStep *= 2;
}

void SpinWaitEnd(SpinWaitRecord& record) {
    if (record.spinCount != 0 && g_trackCpuYield) {
        record.spinCount = 0x7fffffff;
        g_CpuYieldDelegate(&record, record.waitAddress);
    }
}

void SpinLock::Lock() {
    if (!TryLock()) {
        SpinWaitRecord record;
        record.waitAddress = &_word;
        do {
            SpinWaitStep(record);
        } while ((_word.load(std::memory_order_relaxed) & 1) || !TryLock());
        SpinWaitEnd(record);
    }
    if (g_trackSpinlocks) g_CpuYieldDelegate(SPIN_CODE_LOCKED, &_word);
}

}  // namespace quorv
