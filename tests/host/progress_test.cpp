// Background progress: clamps, the weighted mean, breaks and the notifications of the list.
#include "quorv/progress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <thread>
#include <vector>

#include "quorv/jobs.h"
#include "quorv/ref.h"

namespace quorv {
namespace {

constexpr Float64 NaN = std::numeric_limits<Float64>::quiet_NaN();
constexpr Float64 INF = std::numeric_limits<Float64>::infinity();

// An entry of the master list with the test's reference; removed and dropped at the end.
class ScopedEntry {
public:
    explicit ScopedEntry(const char* name) {
        master = BackgroundProgressInterface::GetMaster();
        Result<BackgroundEntryObject*> e =
            BackgroundProgressInterface::AddActiveEntry(master, name, 0);
        EXPECT_TRUE(e.IsOk()) << ErrorToString(e.GetErrorPointer());
        if (e.IsOk()) entry = e.GetValue();
    }
    ~ScopedEntry() {
        BackgroundProgressInterface::RemoveActiveEntry(master, entry);
        RemoveReference(entry);
    }
    Int AddJob(Float64 weight) {
        Result<Int> j = ProgressInterface::AddProgressJob(entry, weight, "job");
        EXPECT_TRUE(j.IsOk());
        return j.IsOk() ? j.GetValue() : -1;
    }
    BackgroundMasterObject* master = nullptr;
    BackgroundEntryObject* entry = nullptr;
};

TEST(Progress, ValuesAreClampedToTheUnitRangeWithNaNAsNothingDone) {
    ScopedEntry e("clamps");
    const Int job = e.AddJob(1.0);
    EXPECT_EQ(job, 0);
    EXPECT_EQ(e.AddJob(1.0), 1) << "indices count from 0";
    const struct {
        Float64 in, out;
    } cases[] = {{0.25, 0.25}, {-0.5, 0.0}, {1.5, 1.0},  {NaN, 0.0},          {INF, 1.0},
                 {-INF, 0.0},  {1.0, 1.0},  {-0.0, 0.0}, {0.999999, 0.999999}};
    for (const auto& c : cases) {
        EXPECT_TRUE(ProgressInterface::SetProgressAndCheckBreak(e.entry, job, c.in).IsOk());
        EXPECT_EQ(ProgressInterface::GetJobProgress(e.entry, job), c.out) << "value " << c.in;
        // The entry's progress is the mean of this value and the other job's 0.
        EXPECT_EQ(ProgressInterface::GetProgress(e.entry), c.out / 2) << "value " << c.in;
    }
    // Unknown jobs (-1 is what a caller keeps when adding the job failed).
    for (Int bad : {Int{-1}, Int{2}, Int{1000}}) {
        Result<void> r = ProgressInterface::SetProgressAndCheckBreak(e.entry, bad, 0.5);
        ASSERT_TRUE(r.IsError());
        EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
        EXPECT_STREQ(r.GetErrorPointer()->message, "Invalid background job id");
    }
}

TEST(Progress, TheEntryIsTheWeightedMeanOfItsJobs) {
    ScopedEntry e("mean");
    EXPECT_EQ(ProgressInterface::GetProgress(e.entry), 0.0) << "no jobs";
    // Weights 1, 3, 0.5 count; negative, NaN and infinite weights count as 0.
    const Float64 weights[] = {1.0, 3.0, 0.5, -2.0, NaN, INF};
    const Float64 values[] = {0.2, 0.6, 1.0, 1.0, 1.0, 1.0};
    for (int i = 0; i < 6; ++i) {
        const Int j = e.AddJob(weights[i]);
        ASSERT_TRUE(ProgressInterface::SetProgressAndCheckBreak(e.entry, j, values[i]).IsOk());
    }
    EXPECT_EQ(ProgressInterface::GetJobCount(e.entry), 6);
    // (1 * 0.2 + 3 * 0.6 + 0.5 * 1) / (1 + 3 + 0.5) = 2.5 / 4.5
    EXPECT_NEAR(ProgressInterface::GetProgress(e.entry), 0.5555555555555556, 1e-15);

    // Only weightless jobs: nothing to weigh.
    ScopedEntry none("weightless");
    ASSERT_TRUE(
        ProgressInterface::SetProgressAndCheckBreak(none.entry, none.AddJob(0.0), 1.0).IsOk());
    EXPECT_EQ(ProgressInterface::GetProgress(none.entry), 0.0);

    // Weights near the top of the range do not overflow the sum: (0.25 + 0.75) / 2.
    ScopedEntry huge("huge");
    const Int a = huge.AddJob(1e308), b = huge.AddJob(1e308);
    ASSERT_TRUE(ProgressInterface::SetProgressAndCheckBreak(huge.entry, a, 0.25).IsOk());
    ASSERT_TRUE(ProgressInterface::SetProgressAndCheckBreak(huge.entry, b, 0.75).IsOk());
    EXPECT_EQ(ProgressInterface::GetProgress(huge.entry), 0.5);
}

TEST(Progress, BreakAnswersCancelledButTakesTheValue) {
    ScopedEntry e("break");
    const Int job = e.AddJob(2.0);
    EXPECT_TRUE(ProgressInterface::SetProgressAndCheckBreak(e.entry, job, 0.1).IsOk());
    ProgressInterface::Break(e.entry);
    Result<void> r = ProgressInterface::SetProgressAndCheckBreak(e.entry, job, 0.7);
    EXPECT_TRUE(IsOperationCancelled(r.GetErrorPointer())) << ErrorToString(r.GetErrorPointer());
    EXPECT_EQ(ProgressInterface::GetJobProgress(e.entry, job), 0.7);
    EXPECT_TRUE(IsOperationCancelled(
        ProgressInterface::SetProgressAndCheckBreak(e.entry, job, 0.7).GetErrorPointer()));
}

TEST(Progress, TheListNotifiesItsObserversOfEveryChange) {
    BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
    ASSERT_NE(master, nullptr);
    EXPECT_EQ(master, BackgroundProgressInterface::GetMaster()) << "one list per process";
    std::atomic<int> calls{0};
    Result<ObserverHandleObject*> h = BackgroundProgressInterface::AddObserver(
        master,
        [](void* user, Bool v) { static_cast<std::atomic<int>*>(user)->fetch_add(v ? 1 : 100); },
        &calls);
    ASSERT_TRUE(h.IsOk());
    const Int before = BackgroundProgressInterface::GetEntryCount(master);

    Result<BackgroundEntryObject*> added =
        BackgroundProgressInterface::AddActiveEntry(master, "Baking previews", 0);
    ASSERT_TRUE(added.IsOk());
    BackgroundEntryObject* entry = added.GetValue();
    EXPECT_EQ(calls.load(), 1) << "adding an entry";
    EXPECT_EQ(BackgroundProgressInterface::GetEntryCount(master), before + 1);
    BackgroundEntryObject* last = BackgroundProgressInterface::GetEntry(master, before);
    EXPECT_EQ(last, entry);
    RemoveReference(last);
    EXPECT_EQ(BackgroundProgressInterface::GetEntry(master, before + 1), nullptr);
    EXPECT_EQ(BackgroundProgressInterface::GetEntry(master, -1), nullptr);

    Result<Int> job = ProgressInterface::AddProgressJob(entry, 1.0, "Render Preview");
    ASSERT_TRUE(job.IsOk());
    EXPECT_EQ(calls.load(), 2) << "adding a job";
    EXPECT_TRUE(ProgressInterface::SetProgressAndCheckBreak(entry, job.GetValue(), 0.5).IsOk());
    EXPECT_EQ(calls.load(), 3) << "a new value";
    EXPECT_TRUE(ProgressInterface::SetProgressAndCheckBreak(entry, job.GetValue(), 0.5).IsOk());
    EXPECT_TRUE(ProgressInterface::SetProgressAndCheckBreak(entry, job.GetValue(), 0.5).IsOk());
    EXPECT_EQ(calls.load(), 3) << "the same value is no change";

    char name[8];
    EXPECT_EQ(ProgressInterface::GetName(entry, name, sizeof name), 15);
    EXPECT_STREQ(name, "Baking ");

    BackgroundProgressInterface::RemoveActiveEntry(master, entry);
    EXPECT_EQ(calls.load(), 4) << "removing an entry";
    EXPECT_EQ(BackgroundProgressInterface::GetEntryCount(master), before);
    BackgroundProgressInterface::RemoveActiveEntry(master, entry);
    EXPECT_EQ(calls.load(), 4) << "an entry not in the list is not removed twice";
    // The caller's reference keeps the removed entry usable.
    EXPECT_EQ(ProgressInterface::GetProgress(entry), 0.5);
    RemoveReference(entry);

    RemoveReference(h.GetValue());
    Result<BackgroundEntryObject*> again =
        BackgroundProgressInterface::AddActiveEntry(master, "after", 0);
    ASSERT_TRUE(again.IsOk());
    BackgroundProgressInterface::RemoveActiveEntry(master, again.GetValue());
    RemoveReference(again.GetValue());
    EXPECT_EQ(calls.load(), 4) << "a dropped observer hears nothing";
}

// Threads set values, read the mean and add and remove entries at once (for the thread
// sanitizer); every job ends at 1, so the mean ends at 1.
TEST(Progress, ConcurrentUpdates) {
    ScopedEntry e("threads");
    std::vector<Int> jobs;
    for (int i = 0; i < 4; ++i) jobs.push_back(e.AddJob(i + 1.0));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int k = 0; k <= 200; ++k) {
                EXPECT_TRUE(ProgressInterface::SetProgressAndCheckBreak(e.entry, jobs[t], k / 200.0)
                                .IsOk());
                const Float64 p = ProgressInterface::GetProgress(e.entry);
                EXPECT_TRUE(p >= 0.0 && p <= 1.0);
            }
        });
    }
    threads.emplace_back([] {
        for (int k = 0; k < 50; ++k) {
            ScopedEntry other("other");
            (void)other.AddJob(1.0);
        }
    });
    for (auto& t : threads) t.join();
    EXPECT_EQ(ProgressInterface::GetProgress(e.entry), 1.0);
}

}  // namespace
}  // namespace quorv
