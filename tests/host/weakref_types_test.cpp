// Weak references, lock-bit reference words, interned ids, the new value types in dictionaries
// and delegates that own their context.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "quorv/basictypes.h"
#include "quorv/counted.h"
#include "quorv/datadictionary.h"
#include "quorv/delegate.h"
#include "quorv/host/host.h"
#include "quorv/lockedref.h"
#include "quorv/weakref.h"

namespace quorv {
namespace {

std::atomic<int> g_alive{0};

struct Tracked {
    explicit Tracked(int v) : value(v) { g_alive.fetch_add(1); }
    ~Tracked() { g_alive.fetch_sub(1); }
    int value;
};

Ref<Tracked> MakeTracked(int v) {
    Result<Ref<Tracked>> r = NewCounted<Tracked>(v);
    EXPECT_TRUE(r.IsOk());
    return r.IsOk() ? r.GetValue() : Ref<Tracked>();
}

TEST(WeakRef, UpgradesWhileAliveAndFailsAfterTheLastDrop) {
    const int before = g_alive.load();
    WeakRef<Tracked> weak;
    WeakRef<Tracked> copy;
    {
        Ref<Tracked> strong = MakeTracked(7);
        weak = WeakRef<Tracked>(strong);
        ASSERT_TRUE(weak.IsValid());
        WeakRef<Tracked> second(strong);  // the same block, one more weak reference
        copy = second;
        Ref<Tracked> up = copy.Lock();
        ASSERT_TRUE(up);
        EXPECT_EQ(up.Get(), strong.Get());
        EXPECT_EQ(up->value, 7);
    }
    EXPECT_EQ(g_alive.load(), before) << "weak references keep nothing alive";
    EXPECT_FALSE(weak.Lock());
    EXPECT_FALSE(copy.Lock());
    WeakRef<Tracked> moved(std::move(copy));
    EXPECT_FALSE(moved.Lock());
    EXPECT_FALSE(WeakRef<Tracked>().Lock());
    EXPECT_FALSE(WeakRef<Tracked>(Ref<Tracked>()).IsValid());
}

TEST(WeakRef, OutOfMemoryGivesAnEmptyWeakReference) {
    Ref<Tracked> strong = MakeTracked(1);
    host::Host::Get().FailAllocationAfter(1);
    WeakRef<Tracked> weak(strong);
    host::Host::Get().FailAllocationAfter(0);
    EXPECT_FALSE(weak.IsValid());
    WeakRef<Tracked> later(strong);  // the next try makes the block
    EXPECT_TRUE(later.IsValid());
    EXPECT_EQ(later.Lock().Get(), strong.Get());
}

// Threads upgrade while another drops the last strong reference: an upgrade gets the living
// object or nothing, never a destroyed one, and the object is destroyed exactly once.
TEST(WeakRef, UpgradesRaceTheLastDrop) {
    for (int round = 0; round < 50; ++round) {
        const int before = g_alive.load();
        Ref<Tracked> strong = MakeTracked(round);
        WeakRef<Tracked> weak(strong);
        std::atomic<bool> go{false};
        std::atomic<int> bad{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&, weak] {  // each thread its own copy of the weak reference
                while (!go.load()) std::this_thread::yield();
                for (int k = 0; k < 200; ++k) {
                    Ref<Tracked> up = weak.Lock();
                    if (up && up->value != round) bad.fetch_add(1);
                }
            });
        }
        go = true;
        strong = Ref<Tracked>();
        for (auto& t : threads) t.join();
        EXPECT_EQ(bad.load(), 0);
        EXPECT_FALSE(weak.Lock());
        EXPECT_EQ(g_alive.load(), before);
    }
}

TEST(LockedRefWord, ReadersKeepWhatTheyGotWhileWritersExchange) {
    const int before = g_alive.load();
    {
        LockedRefWord<Tracked> word;
        EXPECT_FALSE(word.IsSet());
        EXPECT_FALSE(word.Get());
        EXPECT_FALSE(word.Exchange(MakeTracked(0)));
        EXPECT_TRUE(word.IsSet());
        std::atomic<bool> stop{false};
        std::atomic<int> bad{0};
        std::vector<std::thread> readers;
        for (int t = 0; t < 2; ++t) {
            readers.emplace_back([&] {
                while (!stop.load()) {
                    Ref<Tracked> r = word.Get();
                    // The value was set before the object was published and never changes.
                    if (!r || r->value < 0) bad.fetch_add(1);
                }
            });
        }
        for (int k = 1; k <= 2000; ++k) {
            Ref<Tracked> old = word.Exchange(MakeTracked(k));
            if (!old || old->value != k - 1) bad.fetch_add(1);
        }
        stop = true;
        for (auto& t : readers) t.join();
        EXPECT_EQ(bad.load(), 0);
        EXPECT_EQ(word.Get()->value, 2000);
        EXPECT_EQ(g_alive.load(), before + 1) << "exchanged objects were dropped";
    }
    EXPECT_EQ(g_alive.load(), before) << "the word drops what it holds";
}

TEST(BasicTypes, InternedIdsCompareByPointer) {
    std::string a = "net.quorv.test.id";
    std::string b = std::string("net.quorv.test.") + "id";  // equal text, other memory
    const Id x = Id::Intern(a), y = Id::Intern(b);
    EXPECT_EQ(x, y);
    EXPECT_EQ(x.View().data(), y.View().data()) << "one copy of the text";
    EXPECT_NE(x.View().data(), a.data());
    EXPECT_EQ(x.View(), "net.quorv.test.id");
    EXPECT_FALSE(x == Id::Intern("net.quorv.test.other"));
    EXPECT_TRUE(Id::Intern("").IsEmpty());
    EXPECT_EQ(Id(), Id::Intern(""));
    EXPECT_TRUE(Id::Intern("a") < Id::Intern("b"));
    EXPECT_EQ(std::hash<Id>()(x), std::hash<Id>()(y));
}

TEST(BasicTypes, NewValueTypesRoundTripThroughADictionary) {
    Result<DataDictionary> made = DataDictionary::Create();
    ASSERT_TRUE(made.IsOk());
    DataDictionary d = made.GetValue();
    const DictionaryKey<UInt32> kU(Int{1});
    const DictionaryKey<Id> kId(Int{2});
    const DictionaryKey<IdArray> kIds(Int{3});
    const DictionaryKey<Vector2i64> kSize(Int{4});
    const DictionaryKey<TimeValue> kTime(Int{5});
    const IdArray ids{Id::Intern("net.quorv.a"), Id::Intern("net.quorv.b")};
    ASSERT_TRUE(d.Set(kU, UInt32{0xFFFFFFFFu}).IsOk());
    ASSERT_TRUE(d.Set(kId, Id::Intern("net.quorv.test.key")).IsOk());
    ASSERT_TRUE(d.Set(kIds, ids).IsOk());
    ASSERT_TRUE(d.Set(kSize, Vector2i64{Int{1} << 40, -3}).IsOk());
    ASSERT_TRUE(d.Set(kTime, TimeValue::Infinite()).IsOk());
    DataDictionary copy = d;  // shared, read through the copy
    EXPECT_EQ(copy.Get(kU, UInt32{0}), 0xFFFFFFFFu);
    EXPECT_EQ(copy.Get(kId, Id()), Id::Intern("net.quorv.test.key"));
    EXPECT_EQ(copy.Get(kIds, IdArray{}), ids);
    EXPECT_EQ(copy.Get(kSize, Vector2i64{}), (Vector2i64{Int{1} << 40, -3}));
    EXPECT_TRUE(copy.Get(kTime, TimeValue{}).IsInfinite());
    // A value of another type under the key is the default.
    const DictionaryKey<TimeValue> kWrong(Int{1});
    EXPECT_EQ(copy.Get(kWrong, TimeValue{-1.0}).seconds, -1.0);
}

std::atomic<int> g_contexts{0};

struct Context {
    Context() { g_contexts.fetch_add(1); }
    Context(const Context&) { g_contexts.fetch_add(1); }
    ~Context() { g_contexts.fetch_sub(1); }
    int add = 5;
};

TEST(Delegate, CopiesShareOneContextAliveUntilTheLastIsGone) {
    const int before = g_contexts.load();
    Delegate<int(int)> last;
    {
        Context c;
        Result<Delegate<int(int)>> made =
            Delegate<int(int)>::Create([c](int x) { return x + c.add; });
        ASSERT_TRUE(made.IsOk());
        Delegate<int(int)> d = made.GetValue();
        EXPECT_EQ(d(1), 6);
        std::vector<Delegate<int(int)>> copies(8, d);
        EXPECT_TRUE(copies[3] == d) << "copies are the same delegate";
        last = copies.back();
        EXPECT_EQ(g_contexts.load(), before + 2) << "the local and the one owned context";
    }
    EXPECT_EQ(g_contexts.load(), before + 1) << "the last copy keeps its context";
    std::thread([last] { EXPECT_EQ(last(10), 15); }).join();
    last = Delegate<int(int)>();
    EXPECT_EQ(g_contexts.load(), before);
    EXPECT_EQ(last(1), 0) << "an empty delegate answers the zero form";

    host::Host::Get().FailAllocationAfter(1);
    Result<Delegate<int(int)>> failed = Delegate<int(int)>::Create([](int x) { return x; });
    host::Host::Get().FailAllocationAfter(0);
    ASSERT_TRUE(failed.IsError());
    EXPECT_EQ(failed.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY);
}

}  // namespace
}  // namespace quorv
