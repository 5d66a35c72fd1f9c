#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "quorv/spinwait.h"

namespace quorv {
namespace {

struct DelegateCall {
    bool isCode;
    UInt code;
    Int32 spinCount;
    const void* address;
};

std::vector<DelegateCall> g_calls;

void Recorder(SpinWaitRecord* r, const void* address) {
    UInt raw = reinterpret_cast<UInt>(r);
    if (raw < 16) g_calls.push_back({true, raw, 0, address});
    else g_calls.push_back({false, 0, r->spinCount, address});
}

class SpinWait : public ::testing::Test {
protected:
    void SetUp() override {
        g_calls.clear();
        _saved = g_CpuYieldDelegate;
        g_CpuYieldDelegate = &Recorder;
    }
    void TearDown() override {
        g_CpuYieldDelegate = _saved;
        g_trackCpuYield = false;
        g_trackSpinlocks = false;
    }
    CpuYieldDelegate _saved;
};

TEST_F(SpinWait, StepsDoubleUpTo2048ThenRestartAt16) {
    SpinWaitRecord r;
    std::vector<Int32> steps;
    for (int i = 0; i < 10; ++i) {
        steps.push_back(r.spinStep);
        SpinWaitStep(r);
    }
    EXPECT_EQ(steps, (std::vector<Int32>{16, 32, 64, 128, 256, 512, 1024, 2048, 16, 32}));
    EXPECT_EQ(r.spinCount, 16 + 32 + 64 + 128 + 256 + 512 + 1024 + 2048 + 16 + 32);
}

TEST_F(SpinWait, TrackingOffCallsOnlyPastTheLongWaitMark) {
    g_trackCpuYield = false;
    SpinWaitRecord r;
    r.waitAddress = &r;
    while (r.spinCount <= 262144) SpinWaitStep(r);
    EXPECT_TRUE(g_calls.empty());
    // Past the mark every step calls the delegate and changes nothing.
    SpinWaitRecord before = r;
    SpinWaitStep(r);
    SpinWaitStep(r);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(r.spinCount, before.spinCount);
    EXPECT_EQ(r.spinStep, before.spinStep);
    EXPECT_EQ(g_calls[0].address, &r);
    SpinWaitEnd(r);
    EXPECT_EQ(g_calls.size(), 2u);  // no end call without tracking
}

TEST_F(SpinWait, TrackingOnSeesFirstStepAndEnd) {
    g_trackCpuYield = true;
    SpinWaitRecord r;
    SpinWaitStep(r);
    SpinWaitStep(r);
    SpinWaitStep(r);
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].spinCount, 0);
    SpinWaitEnd(r);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(g_calls[1].spinCount, 0x7fffffff);
    EXPECT_EQ(r.spinCount, 0x7fffffff);
}

TEST_F(SpinWait, UncontendedLockMakesNoDelegateCall) {
    for (bool tracking : {false, true}) {
        g_trackCpuYield = tracking;
        SpinLock lock;
        lock.Lock();
        lock.Unlock();
        SpinWaitRecord r;  // a wait that never stepped
        SpinWaitEnd(r);
        EXPECT_TRUE(g_calls.empty()) << "tracking " << tracking;
    }
}

TEST_F(SpinWait, TrackedLockReportsCodeOne) {
    g_trackSpinlocks = true;
    SpinLock lock;
    lock.Lock();
    lock.Unlock();
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_TRUE(g_calls[0].isCode);
    EXPECT_EQ(g_calls[0].code, 1u);
}

TEST(SpinLockThreads, CountsStayExactUnderContention) {
    SpinLock lock;
    Int counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                ScopedSpinLock hold(lock);
                ++counter;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 80000);
}

}  // namespace
}  // namespace quorv
