// Dictionary lookups through the host's index, checked against a model kept beside: random
// runs of sets, erases, copies and writes to copies over keys whose id words collide; out of
// memory at every allocation of a set or a copy; lent values while a copy is written; callers
// on a host that cannot lend.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quorv/datadictionary.h"
#include "quorv/host/host.h"

namespace quorv {
namespace {

// A key of the model: an integer, or an id text. Lookups build ids on texts of their own.
struct ModelKey {
    bool isNumber = false;
    Int number = 0;
    std::string text;

    DataDictionaryKey Key() const {
        return isNumber ? DataDictionaryKey(number) : DataDictionaryKey(LiteralId(text.c_str()));
    }
    std::string Name() const { return isNumber ? "#" + std::to_string(number) : text; }
    bool operator==(const ModelKey& o) const {
        return isNumber == o.isNumber && (isNumber ? number == o.number : text == o.text);
    }
};

ModelKey Number(Int n) { return {true, n, {}}; }
ModelKey Text(std::string t) { return {false, 0, std::move(t)}; }

// Texts of one length built from the blocks "Aa" and "BB", which have the same h*31+c hash:
// every such text has the same id word, so they all share one run of the index.
std::vector<std::string> CollidingTexts(int blocks) {
    std::vector<std::string> out;
    for (int bits = 0; bits < (1 << blocks); ++bits) {
        std::string t = "net.quorv.test.index.";
        for (int b = 0; b < blocks; ++b) t += (bits >> b) & 1 ? "BB" : "Aa";
        out.push_back(t);
    }
    return out;
}

// Independent of the host: the insertion-ordered entries a dictionary must show.
using Model = std::vector<std::pair<ModelKey, Int>>;

const Int* ModelFind(const Model& m, const ModelKey& k) {
    for (const auto& [key, value] : m)
        if (key == k) return &value;
    return nullptr;
}

// A set: a present key keeps its place, a new one goes last.
void ModelSet(Model& m, const ModelKey& k, Int value) {
    for (auto& [key, v] : m) {
        if (key == k) {
            v = value;
            return;
        }
    }
    m.emplace_back(k, value);
}

std::vector<std::pair<std::string, Int>> Entries(const Model& m) {
    std::vector<std::pair<std::string, Int>> out;
    for (const auto& [key, value] : m) out.emplace_back(key.Name(), value);
    return out;
}

// The dictionary's entries in iteration order, with keys named as `ModelKey::Name` does.
std::vector<std::pair<std::string, Int>> Walk(const DataDictionaryObject* d) {
    std::vector<std::pair<std::string, Int>> out;
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(d, &it);
    for (; DataDictionaryInterface::IteratorHasValue(&it);
         DataDictionaryInterface::IteratorMoveToNext(&it)) {
        DataDictionaryKey key;
        Data value;
        EXPECT_TRUE(DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value));
        const Int* v = value.Get<Int>();
        out.emplace_back((key.IsNumber() ? "#" : "") + key.ToString(), v ? *v : -999);
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    return out;
}

// Every way of looking a key up agrees with the model: the lent value, the typed pointer, the
// copy, the host's copying slot, and a lookup through an id whose text is owned.
void ExpectMatches(const DataDictionary& d, const Model& m, const std::vector<ModelKey>& pool,
                   const std::string& where) {
    ASSERT_EQ(d.GetCount(), static_cast<Int>(m.size())) << where;
    ASSERT_EQ(Walk(d.GetReadable()), Entries(m)) << where;
    for (const ModelKey& k : pool) {
        const Int* expected = ModelFind(m, k);
        const DataDictionaryKey key = k.Key();
        const Data* lent = d.Find(key);
        ASSERT_EQ(lent != nullptr, expected != nullptr) << where << ": " << k.Name();
        const Int* typed = d.GetPointer<Int>(key);
        EXPECT_EQ(typed, lent ? lent->Get<Int>() : nullptr) << where << ": " << k.Name();
        EXPECT_EQ(d.Get<Int>(key, -1), expected ? *expected : -1) << where << ": " << k.Name();
        Data copy;
        EXPECT_EQ(DataDictionaryInterface::GetData(d.GetReadable(), key, &copy),
                  expected != nullptr);
        if (expected) {
            EXPECT_EQ(*copy.Get<Int>(), *expected) << where << ": " << k.Name();
        }
        if (!k.isNumber) {
            LiteralId owned;
            ASSERT_TRUE(owned.SetOwned(k.text));
            EXPECT_EQ(d.Find(owned), lent) << where << ": owned " << k.Name();
            owned.Clear();
        }
    }
}

std::vector<ModelKey> KeyPool() {
    std::vector<ModelKey> pool;
    const std::vector<std::string> colliding = CollidingTexts(4);
    for (const std::string& t : colliding) pool.push_back(Text(t));
    for (int i = 0; i < 90; ++i)
        pool.push_back(Text("net.quorv.test.index.key" + std::to_string(i)));
    for (Int i = -5; i < 60; ++i) pool.push_back(Number(i));
    for (Int i = 1; i < 8; ++i) pool.push_back(Number(i << 40));
    // An integer key equal to the colliding ids' word shares their hash: it must still never
    // match an id entry, nor they it.
    pool.push_back(Number(static_cast<Int>(LiteralIdWord(colliding[0]))));
    return pool;
}

TEST(HostDictionaryIndex, CollidingTextsShareOneWord) {
    const std::vector<std::string> texts = CollidingTexts(4);
    ASSERT_EQ(texts.size(), 16u);
    for (const std::string& t : texts) {
        EXPECT_EQ(LiteralIdWord(t), LiteralIdWord(texts[0])) << t;
        EXPECT_EQ(t.size(), texts[0].size());
    }
}

// Random runs: sets of new and present keys, erases of present and absent ones, and copies
// written while the original stays. The runs grow past a hundred entries and shrink again, so
// the index grows several times and is refilled after erases.
TEST(HostDictionaryIndex, RandomRunsMatchAModel) {
    const std::vector<ModelKey> pool = KeyPool();
    for (unsigned seed : {1u, 2u, 3u}) {
        std::mt19937 random(seed);
        DataDictionary d = DataDictionary::Create().GetValue();
        Model m;
        Int nextValue = 0;
        for (int step = 0; step < 1200; ++step) {
            const std::string where =
                "seed " + std::to_string(seed) + " step " + std::to_string(step);
            const ModelKey& k = pool[random() % pool.size()];
            const bool growing = step % 600 < 400;
            const unsigned op = random() % 100;
            if (op < (growing ? 65u : 30u)) {
                const Int value = nextValue++;
                ASSERT_TRUE(d.SetData(k.Key(), Data::Of(value)).IsOk()) << where;
                ModelSet(m, k, value);
            } else if (op < 92) {
                ASSERT_TRUE(d.MakeWritable().IsOk());
                const bool present = ModelFind(m, k) != nullptr;
                EXPECT_EQ(DataDictionaryInterface::EraseData(
                              const_cast<DataDictionaryObject*>(d.GetObject()), k.Key()),
                          present)
                    << where << ": " << k.Name();
                std::erase_if(m, [&](const auto& e) { return e.first == k; });
            } else {
                // A copy written: the original keeps its entries; one of the two goes on.
                DataDictionary copy = d;
                Model copyModel = m;
                const Int value = nextValue++;
                ASSERT_TRUE(copy.SetData(k.Key(), Data::Of(value)).IsOk());
                EXPECT_NE(copy.GetObject(), d.GetObject());
                ModelSet(copyModel, k, value);
                ExpectMatches(d, m, pool, where + " original");
                if (random() % 2) {
                    d = copy;
                    m = copyModel;
                }
            }
            ExpectMatches(d, m, pool, where);
            if (HasFailure()) return;
        }
    }
}

// Out of memory at the n-th allocation of a set, for every n the set makes, at sizes around
// each growth of the entries and the index: the set answers the out-of-memory error and the
// dictionary is as it was; then the set goes through.
TEST(HostDictionaryIndex, OutOfMemoryAtEachAllocationOfASetLeavesTheDictionaryAsItWas) {
    std::vector<ModelKey> pool;
    for (Int i = 0; i < 40; ++i) {
        pool.push_back(i % 2 ? Number(i * 1000)
                             : Text("net.quorv.test.index.oom" + std::to_string(i)));
    }
    DataDictionary d = DataDictionary::Create().GetValue();
    DataDictionaryObject* object = const_cast<DataDictionaryObject*>(d.GetObject());
    Model m;
    int failures = 0;
    for (Int i = 0; i < static_cast<Int>(pool.size()); ++i) {
        // A new key, then the same key written again (only the value is copied).
        for (const Int value : {-1 - i, i}) {
            const Data data = Data::Of(value);
            const bool isNew = value < 0;
            for (Int n = 1;; ++n) {
                host::Host::Get().FailAllocationAfter(n);
                Result<void> r = DataDictionaryInterface::SetData(object, pool[i].Key(), data);
                host::Host::Get().FailAllocationAfter(0);
                if (r.IsOk()) break;
                ++failures;
                const std::string where = pool[i].Name() + " at allocation " + std::to_string(n);
                ASSERT_EQ(r.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY) << where;
                ASSERT_EQ(d.GetObject(), object);
                ASSERT_EQ(Walk(object), Entries(m)) << where;
                EXPECT_EQ(d.Get<Int>(pool[i].Key(), 0), isNew ? 0 : -1 - i) << where;
                for (Int j = 0; j < i; ++j) EXPECT_EQ(d.Get<Int>(pool[j].Key(), 0), m[j].second);
            }
            ModelSet(m, pool[i], value);
        }
        ExpectMatches(d, m, pool, "after " + pool[i].Name());
    }
    // At least the value copy fails for every set, and the key text for every new id key.
    EXPECT_GE(failures, 100);
}

// A copy made for writing runs out of memory at each of its allocations: no copy, and the
// source keeps its entries and its index.
TEST(HostDictionaryIndex, OutOfMemoryAtEachAllocationOfACopy) {
    const std::vector<ModelKey> pool = KeyPool();
    DataDictionary d = DataDictionary::Create().GetValue();
    Model m;
    for (size_t i = 0; i < 30; ++i) {
        ASSERT_TRUE(d.SetData(pool[i * 5].Key(), Data::Of(static_cast<Int>(i))).IsOk());
        m.emplace_back(pool[i * 5], static_cast<Int>(i));
    }
    int failures = 0;
    for (Int n = 1;; ++n) {
        host::Host::Get().FailAllocationAfter(n);
        DataDictionaryObject* copy =
            DataDictionaryInterface::AllocCopy(d.GetObject(), QUORV_SOURCE_LOCATION);
        host::Host::Get().FailAllocationAfter(0);
        if (copy) {
            const DataDictionary held(copy);
            ExpectMatches(held, m, pool, "copy");
            break;
        }
        ++failures;
        ExpectMatches(d, m, pool, "source after failure " + std::to_string(n));
    }
    EXPECT_GT(failures, 30);  // the block, the entries, each key text and value, the index
}

// A value lent by a dictionary stays where it is, unchanged, while another holder writes:
// the write goes to a copy, however much the copy grows.
TEST(HostDictionaryIndex, ALentValueOutlivesWritesToACopy) {
    const DataDictionaryKey name(LiteralId("net.quorv.test.index.name"));
    DataDictionary a = DataDictionary::Create().GetValue();
    for (Int i = 0; i < 20; ++i) ASSERT_TRUE(a.SetData(i, Data::Of(i * 10)).IsOk());
    ASSERT_TRUE(a.SetData(name, Data::Of(std::string("original"))).IsOk());
    const Data* lent = a.Find(name);
    const std::string* text = a.GetPointer<std::string>(name);
    const Int* number = a.GetPointer<Int>(7);
    ASSERT_NE(lent, nullptr);
    ASSERT_NE(text, nullptr);
    ASSERT_NE(number, nullptr);

    DataDictionary b = a;
    ASSERT_TRUE(b.SetData(name, Data::Of(std::string("replaced"))).IsOk());
    ASSERT_TRUE(b.MakeWritable().IsOk());
    EXPECT_TRUE(DataDictionaryInterface::EraseData(const_cast<DataDictionaryObject*>(b.GetObject()),
                                                   DataDictionaryKey(Int{7})));
    for (Int i = 100; i < 400; ++i) ASSERT_TRUE(b.SetData(i, Data::Of(i)).IsOk());

    EXPECT_EQ(a.Find(name), lent);
    EXPECT_EQ(*text, "original");
    EXPECT_EQ(*number, 70);
    EXPECT_EQ(a.GetPointer<Int>(7), number);
    EXPECT_EQ(a.GetCount(), 21);
    EXPECT_EQ(b.Get<std::string>(name, ""), "replaced");
    EXPECT_EQ(b.GetPointer<Int>(7), nullptr);
    EXPECT_EQ(b.GetCount(), 320);
}

// Readers look values up where they are stored while another thread writes copies of the same
// dictionary: the writes go to copies, so what the readers were lent never moves (for tsan).
TEST(HostDictionaryIndex, LookupsWhileCopiesAreWritten) {
    DataDictionary shared = DataDictionary::Create().GetValue();
    for (Int i = 0; i < 64; ++i) ASSERT_TRUE(shared.SetData(i, Data::Of(i * 2)).IsOk());
    std::vector<int> mismatches(3, 0);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < mismatches.size(); ++t) {
        threads.emplace_back([&, t] {
            const DataDictionary mine = shared;
            const Int* first = mine.GetPointer<Int>(0);
            for (int round = 0; round < 300; ++round) {
                for (Int i = 0; i < 64; ++i) {
                    const Int* v = mine.GetPointer<Int>(i);
                    if (!v || *v != i * 2) ++mismatches[t];
                }
                if (mine.GetPointer<Int>(0) != first) ++mismatches[t];
            }
        });
    }
    threads.emplace_back([&] {
        for (int round = 0; round < 300; ++round) {
            DataDictionary copy = shared;
            for (Int i = 0; i < 8; ++i) (void)copy.SetData(i, Data::Of(-i));
            (void)copy.SetData(1000 + round, Data::Of(Int{round}));
        }
    });
    for (auto& t : threads) t.join();
    for (int m : mismatches) EXPECT_EQ(m, 0);
    EXPECT_EQ(shared.Get<Int>(5, -1), 10);
    EXPECT_EQ(shared.GetCount(), 64);
}

// On a host that lacks the lending slot (this module's stub in its place), lookups still
// answer: `Find` with a spare and the typed reads copy through `GetData`.
TEST(HostDictionaryIndex, WithoutTheLendingSlotCallersCopy) {
    using Slot = decltype(DataDictionaryInterface::slots.FindData);
    struct Restore {
        Slot saved = DataDictionaryInterface::slots.FindData;
        ~Restore() { DataDictionaryInterface::slots.FindData = saved; }
    } restore;
    const DataDictionaryKey name(LiteralId("net.quorv.test.index.name"));
    DataDictionary d = DataDictionary::Create().GetValue();
    ASSERT_TRUE(d.SetData(name, Data::Of(std::string("text"))).IsOk());
    ASSERT_TRUE(d.SetData(5, Data::Of(Int{50})).IsOk());
    const Data* stored = d.Find(name);
    ASSERT_NE(stored, nullptr);

    DataDictionaryInterface::slots.FindData = reinterpret_cast<Slot>(
        DataDictionaryInterface::Describe().stubs[DataDictionaryInterface::IDX_FindData]);
    EXPECT_EQ(d.Find(name), nullptr);  // nothing to lend, and no spare to copy into
    Data spare;
    const Data* copied = d.Find(name, &spare);
    EXPECT_EQ(copied, &spare);
    EXPECT_NE(spare.GetPointer(), stored->GetPointer());
    EXPECT_EQ(*spare.Get<std::string>(), "text");
    Data other;
    EXPECT_EQ(d.Find(6, &other), nullptr);
    const Int* five = d.GetPointer<Int>(5, &other);
    EXPECT_EQ(five, other.Get<Int>());
    EXPECT_EQ(d.Get<Int>(5, -1), 50);
    EXPECT_EQ(d.Get<std::string>(name, ""), "text");
    EXPECT_EQ(d.Get<Int>(name, -1), -1);  // of another type
}

}  // namespace
}  // namespace quorv
