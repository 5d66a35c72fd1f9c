// The synchronised hash map: concurrent inserts give one entry per key, entries stay put while
// the table grows, and a walk sees every entry.
#include "quorv/synchronizedhashmap.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace quorv {
namespace {

struct IntHash {
    UInt operator()(const Int& k) const { return static_cast<UInt>(k) * 0x9e3779b97f4a7c15ull; }
};
struct IntEqual {
    bool operator()(const Int& a, const Int& b) const { return a == b; }
};

TEST(SynchronizedHashMap, ConcurrentInsertsGiveOneStableEntryPerKey) {
    SynchronizedHashMap<Int, Int, IntHash, IntEqual> map(16);
    constexpr int THREADS = 4;
    constexpr Int KEYS = 3000;
    std::vector<std::vector<Int*>> seen(THREADS, std::vector<Int*>(KEYS, nullptr));
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            // Each thread walks the keys from another starting point.
            for (Int n = 0; n < KEYS; ++n) {
                const Int k = (n + t * 751) % KEYS;
                Result<Int*> v = map.FindOrCreate(k);
                ASSERT_TRUE(v.IsOk());
                seen[static_cast<size_t>(t)][static_cast<size_t>(k)] = v.GetValue();
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(map.GetCount(), KEYS);
    for (Int k = 0; k < KEYS; ++k) {
        for (int t = 1; t < THREADS; ++t)
            EXPECT_EQ(seen[static_cast<size_t>(t)][static_cast<size_t>(k)],
                      seen[0][static_cast<size_t>(k)]);
        EXPECT_EQ(map.Find(k), seen[0][static_cast<size_t>(k)])
            << "entries stay put while the table grows";
    }
    Int walked = 0, sum = 0;
    map.ForEach([&](const Int& k, Int&) {
        ++walked;
        sum += k;
    });
    EXPECT_EQ(walked, KEYS);
    EXPECT_EQ(sum, KEYS * (KEYS - 1) / 2);
    EXPECT_EQ(map.Find(KEYS), nullptr);
    bool created = true;
    ASSERT_TRUE(map.FindOrCreate(5, &created).IsOk());
    EXPECT_FALSE(created);
}

}  // namespace
}  // namespace quorv
