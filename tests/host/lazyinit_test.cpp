// LazyInitThreaded on the host's job system: a failure is kept, a cancelled run is not.
#include "quorv/lazyinit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace quorv {
namespace {

using STATE = LazyInitThreaded::STATE;

TEST(LazyInitThreaded, AFailureIsKeptAndNotRunAgain) {
    LazyInitThreaded lazy;
    int runs = 0;
    auto fail = [&]() -> Result<void> {
        ++runs;
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "file missing");
    };
    EXPECT_STREQ(lazy.Run(fail).GetErrorPointer()->message, "file missing");
    EXPECT_EQ(lazy.GetState(), STATE::FAILED);
    EXPECT_STREQ(lazy.Run(fail).GetErrorPointer()->message, "file missing");
    EXPECT_EQ(runs, 1);
}

// A run whose job is cancelled leaves the state as it was before: the next caller runs the
// work again, and a success then sticks.
TEST(LazyInitThreaded, ACancelledRunResetsAndTheNextCallRunsAgain) {
    LazyInitThreaded lazy;
    int runs = 0;
    auto cancelledOnce = [&]() -> Result<void> {
        if (++runs == 1) {
            ThreadServicesInterface::Cancel(ThreadServicesInterface::GetCurrentJob());
            return OperationCancelledError(QUORV_SOURCE_LOCATION);
        }
        return OK;
    };
    Result<void> first = lazy.Run(cancelledOnce);
    ASSERT_TRUE(first.IsError());
    EXPECT_TRUE(IsOperationCancelled(first.GetErrorPointer()));
    EXPECT_EQ(lazy.GetState(), STATE::UNINITIALIZED);
    EXPECT_TRUE(lazy.Run(cancelledOnce).IsOk());
    EXPECT_EQ(lazy.GetState(), STATE::INITIALIZED);
    EXPECT_TRUE(lazy.Run(cancelledOnce).IsOk());
    EXPECT_EQ(runs, 2);
}

// The free step of a slot: a pending run is cancelled and waited for; afterwards the state is
// reset, and the caller that waited got the cancellation.
TEST(LazyInitThreaded, CancelAndResetCancelsAPendingRunAndWaits) {
    LazyInitThreaded lazy;
    std::atomic<bool> started{false}, ended{false};
    Result<void> seen = OK;
    std::thread caller([&] {
        seen = lazy.Run([&]() -> Result<void> {
            started = true;
            while (!ThreadServicesInterface::IsCurrentJobCancelled())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ended = true;
            return OperationCancelledError(QUORV_SOURCE_LOCATION);
        });
    });
    while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    lazy.CancelAndReset();
    EXPECT_TRUE(ended.load()) << "CancelAndReset returned before the run ended";
    caller.join();
    EXPECT_TRUE(IsOperationCancelled(seen.GetErrorPointer()));
    EXPECT_EQ(lazy.GetState(), STATE::UNINITIALIZED);
}

}  // namespace
}  // namespace quorv
