// Data dictionaries through the C++ face and the host's slots: typed values, copy on write,
// value lifetimes, the shared empty instance and iterators.
#include "quorv/datadictionary.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "host/src/services_impl.h"
#include "quorv/host/host.h"

namespace quorv {
namespace {

const DictionaryKey<Float64> SCALE("net.quorv.test.dictionary.scale");
const DictionaryKey<Int32> COUNT("net.quorv.test.dictionary.count");
const DictionaryKey<std::string> NAME("net.quorv.test.dictionary.name");
const DictionaryKey<Vector64> POSITION("net.quorv.test.dictionary.position");
const DictionaryKey<Matrix64> MATRIX("net.quorv.test.dictionary.matrix");

template <typename R>
std::string MessageOf(const R& r) {
    ErrorObject* e = r.GetErrorPointer();
    return e && e->message ? e->message : "";
}

DataDictionary NewDictionary() {
    Result<DataDictionary> r = DataDictionary::Create();
    EXPECT_TRUE(r.IsOk());
    return r.GetValue();
}

DataDictionaryObject* Mutable(const DataDictionary& d) {
    return const_cast<DataDictionaryObject*>(d.GetObject());
}

// A counted stand-in for a class object, held by values of the class data type.
struct Counted {
    ObjectHeader header{nullptr, &Counted::Destroy, 0, REFERENCE_STEP};
    int payload = 0;
    static void Destroy(void*) {}
    ClassObject* Object() { return reinterpret_cast<ClassObject*>(&payload); }
    UInt References() const { return header.count.load() / REFERENCE_STEP; }
};

Data ClassValue(Counted& c) {
    ClassObject* p = c.Object();
    return Data::Make(DataTypeLibInterface::GetRuntimeDataType(CLASS_DATATYPE_ID), &p);
}

// Keys and values of a dictionary, in iteration order.
std::vector<std::pair<std::string, Int32>> Walk(const DataDictionaryObject* d) {
    std::vector<std::pair<std::string, Int32>> out;
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(d, &it);
    while (DataDictionaryInterface::IteratorHasValue(&it)) {
        DataDictionaryKey key;
        Data value;
        EXPECT_TRUE(DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value));
        const Int32* v = value.Get<Int32>();
        out.emplace_back(key.ToString(), v ? *v : -1);
        DataDictionaryInterface::IteratorMoveToNext(&it);
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    return out;
}

TEST(HostDictionary, TypedValuesReadBackExactly) {
    DataDictionary d = NewDictionary();
    Matrix64 m;
    m.offset = {1.5, -2.25, 1e300};
    m.axisY = {0.1, 0.2, 0.3};
    ASSERT_TRUE(d.Set(SCALE, 0.1).IsOk());
    ASSERT_TRUE(d.Set(COUNT, Int32{-7}).IsOk());
    ASSERT_TRUE(d.Set(NAME, std::string("gr\xC3\xBCn")).IsOk());
    ASSERT_TRUE(d.Set(POSITION, Vector64{1, 2, 3}).IsOk());
    ASSERT_TRUE(d.Set(MATRIX, m).IsOk());
    EXPECT_EQ(d.GetCount(), 5);
    EXPECT_EQ(d.Get(SCALE, 0.0), 0.1);
    EXPECT_EQ(d.Get(COUNT, Int32{0}), -7);
    EXPECT_EQ(d.Get(NAME, std::string()), "gr\xC3\xBCn");
    EXPECT_EQ(d.Get(POSITION, Vector64{}), (Vector64{1, 2, 3}));
    EXPECT_EQ(d.Get(MATRIX, Matrix64{}), m);

    // Overwriting keeps the count; a value of another type reads as the default.
    ASSERT_TRUE(d.Set(SCALE, 2.5).IsOk());
    EXPECT_EQ(d.GetCount(), 5);
    EXPECT_EQ(d.Get(SCALE, 0.0), 2.5);
    EXPECT_EQ(d.Get<Int32>(SCALE.GetId(), 42), 42);
    EXPECT_EQ(d.Get<Float64>(LiteralId("net.quorv.test.dictionary.absent"), -1.0), -1.0);

    // Keys match by text, not by pointer.
    std::string key = "net.quorv.test.dictionary.scale";
    EXPECT_EQ(d.Get<Float64>(LiteralId(key.c_str()), 0.0), 2.5);
    EXPECT_TRUE(d.GetData(LiteralId("net.quorv.test.dictionary.scal")).IsEmpty());

    // What GetData hands out is a copy.
    Data name = d.GetData(NAME.GetId());
    *static_cast<std::string*>(name.GetPointer()) = "changed";
    EXPECT_EQ(d.Get(NAME, std::string()), "gr\xC3\xBCn");

    EXPECT_TRUE(DataDictionaryInterface::EraseData(Mutable(d), COUNT.GetId()));
    EXPECT_FALSE(DataDictionaryInterface::EraseData(Mutable(d), COUNT.GetId()));
    EXPECT_EQ(d.GetCount(), 4);
    EXPECT_EQ(d.Get(COUNT, Int32{9}), 9);
    EXPECT_TRUE(DataDictionaryInterface::GetData(d.GetObject(), SCALE.GetId(), nullptr));
    EXPECT_FALSE(DataDictionaryInterface::GetData(nullptr, SCALE.GetId(), nullptr));
}

TEST(HostDictionary, SetOnASharedDictionaryCopiesFirst) {
    DataDictionary a = NewDictionary();
    ASSERT_TRUE(a.Set(SCALE, 1.0).IsOk());
    ASSERT_TRUE(a.Set(COUNT, Int32{3}).IsOk());
    const DataDictionaryObject* unshared = a.GetObject();
    ASSERT_TRUE(a.Set(SCALE, 1.5).IsOk());  // sole holder: written in place
    EXPECT_EQ(a.GetObject(), unshared);

    DataDictionary b = a;
    EXPECT_EQ(a.GetObject(), b.GetObject());
    EXPECT_EQ(GetCountWord(a.GetObject()), 2 * REFERENCE_STEP);
    ASSERT_TRUE(b.Set(SCALE, 2.0).IsOk());
    EXPECT_NE(a.GetObject(), b.GetObject());
    EXPECT_EQ(GetCountWord(a.GetObject()), REFERENCE_STEP);
    EXPECT_EQ(GetCountWord(b.GetObject()), REFERENCE_STEP);
    EXPECT_EQ(a.Get(SCALE, 0.0), 1.5);
    EXPECT_EQ(b.Get(SCALE, 0.0), 2.0);
    EXPECT_EQ(b.Get(COUNT, Int32{0}), 3);  // the copy took every entry
    EXPECT_EQ(Walk(b.GetObject()), Walk(a.GetObject()));
}

TEST(HostDictionary, ValuesHoldTheirReferencesAcrossCopies) {
    Counted c;
    {
        DataDictionary a = NewDictionary();
        {
            Data value = ClassValue(c);
            ASSERT_FALSE(value.IsEmpty());
            ASSERT_TRUE(a.SetData(LiteralId("net.quorv.test.dictionary.class"), value).IsOk());
            EXPECT_EQ(c.References(), 3u);  // ours, `value`, the dictionary's
        }
        EXPECT_EQ(c.References(), 2u);
        DataDictionary b = a;
        ASSERT_TRUE(b.Set(SCALE, 1.0).IsOk());  // the copy clones the class value too
        EXPECT_EQ(c.References(), 3u);
        ASSERT_TRUE(b.SetData(LiteralId("net.quorv.test.dictionary.class"), Data::Of(0.5)).IsOk());
        EXPECT_EQ(c.References(), 2u);  // the replaced value is gone
        EXPECT_TRUE(DataDictionaryInterface::EraseData(
            Mutable(a), LiteralId("net.quorv.test.dictionary.class")));
        EXPECT_EQ(c.References(), 1u);
        ASSERT_TRUE(a.SetData(LiteralId("net.quorv.test.dictionary.class"), ClassValue(c)).IsOk());
        EXPECT_EQ(c.References(), 2u);
    }
    EXPECT_EQ(c.References(), 1u);  // the dictionary's destruction dropped its value
}

TEST(HostDictionary, TheSharedEmptyDictionaryNeverChanges) {
    const DataDictionaryObject* empty = DataDictionaryInterface::GetEmpty();
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(DataDictionaryInterface::GetEmpty(), empty);
    EXPECT_GE(GetCountWord(empty), host::IMMORTAL_COUNT);
    Result<void> set = DataDictionaryInterface::SetData(const_cast<DataDictionaryObject*>(empty),
                                                        SCALE.GetId(), Data::Of(1.0));
    ASSERT_TRUE(set.IsError());
    EXPECT_EQ(set.GetErrorPointer()->kind, ERRORKIND::ILLEGALSTATE);
    EXPECT_EQ(MessageOf(set),
              "SetData of net.quorv.test.dictionary.scale on the shared empty "
              "dictionary");
    DataDictionaryInterface::Free(const_cast<DataDictionaryObject*>(empty));
    EXPECT_EQ(DataDictionaryInterface::GetCount(empty), 0);

    // A null dictionary reads as the empty one, and becomes a dictionary of its own on a set.
    DataDictionary none;
    EXPECT_EQ(none.GetReadable(), empty);
    EXPECT_EQ(none.Get(SCALE, 4.0), 4.0);
    ASSERT_TRUE(none.Set(SCALE, 1.0).IsOk());
    EXPECT_NE(none.GetObject(), empty);

    // A handle on the empty one is shared by nature: a set copies.
    DataDictionary onEmpty(empty);
    ASSERT_TRUE(onEmpty.Set(SCALE, 1.0).IsOk());
    EXPECT_NE(onEmpty.GetObject(), empty);
    EXPECT_EQ(DataDictionaryInterface::GetCount(empty), 0);
}

TEST(HostDictionary, BadArgumentsAreErrors) {
    DataDictionary d = NewDictionary();
    Result<void> null = DataDictionaryInterface::SetData(nullptr, SCALE.GetId(), Data::Of(1.0));
    EXPECT_EQ(null.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
    EXPECT_EQ(MessageOf(null), "SetData on a null dictionary");
    EXPECT_EQ(MessageOf(DataDictionaryInterface::SetData(Mutable(d), LiteralId(), Data::Of(1.0))),
              "SetData with an empty key");
    EXPECT_EQ(MessageOf(DataDictionaryInterface::SetData(Mutable(d), SCALE.GetId(), Data())),
              "SetData of net.quorv.test.dictionary.scale with an empty value");
    EXPECT_EQ(d.GetCount(), 0);
    EXPECT_FALSE(DataDictionaryInterface::EraseData(nullptr, SCALE.GetId()));
    EXPECT_EQ(DataDictionaryInterface::GetCount(nullptr), 0);
}

TEST(HostDictionary, OutOfMemoryWhileCopyingLeavesBothSidesAlone) {
    DataDictionary a = NewDictionary();
    ASSERT_TRUE(a.Set(NAME, std::string("first")).IsOk());
    ASSERT_TRUE(a.Set(SCALE, 1.0).IsOk());
    DataDictionary b = a;
    // Allocations of the set: the new value, the copy's block, the copy's entry storage.
    host::Host::Get().FailAllocationAfter(3);
    Result<void> r = b.Set(SCALE, 2.0);
    host::Host::Get().FailAllocationAfter(0);
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY);
    EXPECT_EQ(a.GetObject(), b.GetObject());
    EXPECT_EQ(b.Get(SCALE, 0.0), 1.0);
    EXPECT_EQ(a.GetCount(), 2);
}

TEST(HostDictionary, IteratorsWalkInInsertionOrderAndHoldTheDictionary) {
    DataDictionary d = NewDictionary();
    const char* keys[] = {"net.quorv.test.c", "net.quorv.test.a", "net.quorv.test.b"};
    for (Int32 i = 0; i < 3; ++i) ASSERT_TRUE(d.SetData(LiteralId(keys[i]), Data::Of(i)).IsOk());
    using Entries = std::vector<std::pair<std::string, Int32>>;
    EXPECT_EQ(Walk(d.GetObject()),
              (Entries{{"net.quorv.test.c", 0}, {"net.quorv.test.a", 1}, {"net.quorv.test.b", 2}}));
    // Overwriting keeps the place; erasing and setting again moves to the end.
    ASSERT_TRUE(d.SetData(LiteralId(keys[0]), Data::Of(Int32{10})).IsOk());
    EXPECT_TRUE(DataDictionaryInterface::EraseData(Mutable(d), LiteralId(keys[1])));
    ASSERT_TRUE(d.SetData(LiteralId(keys[1]), Data::Of(Int32{11})).IsOk());
    EXPECT_EQ(
        Walk(d.GetObject()),
        (Entries{{"net.quorv.test.c", 10}, {"net.quorv.test.b", 2}, {"net.quorv.test.a", 11}}));

    // An iterator is a holder: a set through the face meanwhile goes to a copy.
    const DataDictionaryObject* walked = d.GetObject();
    DataDictionaryIteratorState it, end;
    DataDictionaryInterface::InitIterator(walked, &it);
    EXPECT_EQ(GetCountWord(walked), 2 * REFERENCE_STEP);
    ASSERT_TRUE(d.SetData(LiteralId("net.quorv.test.d"), Data::Of(Int32{4})).IsOk());
    EXPECT_NE(d.GetObject(), walked);
    EXPECT_EQ(GetCountWord(walked), REFERENCE_STEP);  // now held by the iterator alone
    DataDictionaryKey key;
    Data value;
    ASSERT_TRUE(DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value));
    EXPECT_EQ(key.ToString(), "net.quorv.test.c");
    EXPECT_EQ(*value.Get<Int32>(), 10);

    DataDictionaryInterface::InitIterator(walked, &end);
    EXPECT_TRUE(DataDictionaryInterface::IteratorIsEqual(&it, &end));
    DataDictionaryInterface::IteratorMoveToNext(&end);
    EXPECT_FALSE(DataDictionaryInterface::IteratorIsEqual(&it, &end));
    for (int i = 0; i < 5; ++i) DataDictionaryInterface::IteratorMoveToNext(&end);  // past the end
    for (int i = 0; i < 3; ++i) DataDictionaryInterface::IteratorMoveToNext(&it);
    EXPECT_TRUE(DataDictionaryInterface::IteratorIsEqual(&it, &end));
    EXPECT_FALSE(DataDictionaryInterface::IteratorHasValue(&it));
    EXPECT_FALSE(DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value));
    EXPECT_FALSE(key.IsNumber());
    EXPECT_TRUE(key.id.IsEmpty());
    EXPECT_TRUE(value.IsEmpty());
    DataDictionaryIteratorState other;
    DataDictionaryInterface::InitIterator(d.GetObject(), &other);
    EXPECT_FALSE(DataDictionaryInterface::IteratorIsEqual(&other, &end));  // another dictionary
    DataDictionaryInterface::IteratorDestruct(&other);
    DataDictionaryInterface::IteratorDestruct(&end);
    AddReference(walked);  // to look at the count word once the iterators are gone
    DataDictionaryInterface::IteratorDestruct(&it);
    EXPECT_EQ(GetCountWord(walked), REFERENCE_STEP);
    EXPECT_EQ(it.dictionary, nullptr);
    RemoveReference(walked);

    DataDictionaryIteratorState onEmpty;
    DataDictionaryInterface::InitIterator(DataDictionaryInterface::GetEmpty(), &onEmpty);
    EXPECT_FALSE(DataDictionaryInterface::IteratorHasValue(&onEmpty));
    DataDictionaryInterface::IteratorDestruct(&onEmpty);
}

TEST(HostDictionary, ConcurrentReadersOfOneDictionary) {
    DataDictionary d = NewDictionary();
    ASSERT_TRUE(d.Set(SCALE, 0.25).IsOk());
    ASSERT_TRUE(d.Set(NAME, std::string("shared")).IsOk());
    std::vector<int> mismatches(4, 0);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < mismatches.size(); ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                DataDictionary mine = d;  // counted from several threads at once
                if (mine.Get(SCALE, 0.0) != 0.25) ++mismatches[t];
                if (mine.Get(NAME, std::string()) != "shared") ++mismatches[t];
                if (Walk(mine.GetObject()).size() != 2) ++mismatches[t];
            }
        });
    }
    for (auto& t : threads) t.join();
    for (int m : mismatches) EXPECT_EQ(m, 0);
    EXPECT_EQ(GetCountWord(d.GetObject()), REFERENCE_STEP);
}

TEST(DataDictionaryKeys, IntegerKeysLiveBesideIdKeys) {
    DataDictionary d = DataDictionary::Create().GetValue();
    ASSERT_TRUE(d.SetData(1000, Data::Of(Int32{3})).IsOk());
    ASSERT_TRUE(d.SetData(LiteralId("1000"), Data::Of(Int32{4})).IsOk());  // text, not a number
    ASSERT_TRUE(d.SetData(Int{1009}, Data::Of(2.5)).IsOk());
    EXPECT_EQ(d.Get<Int32>(1000, -1), 3);
    EXPECT_EQ(d.Get<Int32>(LiteralId("1000"), -1), 4);
    EXPECT_EQ(d.Get<Float64>(1009, 0.0), 2.5);
    EXPECT_EQ(d.Get<Float64>(1008, -1.0), -1.0);
    EXPECT_EQ(d.GetCount(), 3);
    // A copy made for writing keeps the integer keys.
    DataDictionary shared = d;
    ASSERT_TRUE(shared.SetData(1001, Data::Of(Int32{7})).IsOk());
    EXPECT_EQ(shared.Get<Int32>(1000, -1), 3);
    EXPECT_EQ(d.Get<Int32>(1001, -1), -1);
    std::vector<std::string> keys;
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(shared.GetObject(), &it);
    for (; DataDictionaryInterface::IteratorHasValue(&it); DataDictionaryInterface::IteratorMoveToNext(&it)) {
        DataDictionaryKey key;
        ASSERT_TRUE(DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, nullptr));
        keys.push_back((key.IsNumber() ? "#" : "") + key.ToString());
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    EXPECT_EQ(keys, (std::vector<std::string>{"#1000", "1000", "#1009", "#1001"}));
}

}  // namespace
}  // namespace quorv
