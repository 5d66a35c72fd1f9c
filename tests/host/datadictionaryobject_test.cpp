// The host's data dictionary object class, and classes composed of it: a component that
// overrides `SetData` and reaches the host's implementation through `CallSuper`, and that finds
// its own instance from its state.
#include "quorv/datadictionaryobject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "quorv/host/host.h"

namespace quorv {
namespace {

const DictionaryKey<Int> COUNT("net.quorv.test.ddo.count");
const DictionaryKey<std::string> NAME("net.quorv.test.ddo.name");

DataDictionaryObjectInterface::Ref NewObject() {
    Result<DataDictionaryObjectInterface::Ref> r = CreateDataDictionaryObject();
    EXPECT_TRUE(r.IsOk());
    return r.GetValue();
}

TEST(DataDictionaryObject, StoresErasesAndResets) {
    auto o = NewObject();
    EXPECT_TRUE(o.IsEmpty());
    EXPECT_EQ(GetObjectValue(o, COUNT, Int(-1)), -1);
    ASSERT_TRUE(SetObjectValue(o, COUNT, Int(7)).IsOk());
    ASSERT_TRUE(SetObjectValue(o, NAME, std::string("ball")).IsOk());
    EXPECT_EQ(GetObjectValue(o, COUNT, Int(-1)), 7);
    EXPECT_EQ(GetObjectValue(o, NAME, std::string()), "ball");
    // A read under a key of another type gives the default.
    EXPECT_EQ(GetObjectValue(o, DictionaryKey<Int>("net.quorv.test.ddo.name"), Int(3)), 3);
    EXPECT_FALSE(o.IsEmpty());
    EXPECT_TRUE(o.EraseData(COUNT.GetId()));
    EXPECT_FALSE(o.EraseData(COUNT.GetId()));
    EXPECT_TRUE(o.GetData(COUNT.GetId()).GetValue().IsEmpty());
    EXPECT_TRUE(o.SetData(COUNT.GetId(), Data()).IsError());
    o.Reset();
    EXPECT_TRUE(o.IsEmpty());
}

// A declared key holds only values of its declared type; undeclared and number keys take any.
TEST(DataDictionaryObject, ADeclaredKeyRefusesAValueOfAnotherType) {
    auto o = NewObject();
    ASSERT_TRUE(SetObjectValue(o, COUNT, Int(7)).IsOk());
    Result<void> r = o.SetData(COUNT.GetId(), Data::Of(std::string("seven")));
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
    const std::string intType(DataTypeIdOf<Int>::id), textType(DataTypeIdOf<std::string>::id);
    EXPECT_EQ(std::string(r.GetErrorPointer()->message),
              "Key net.quorv.test.ddo.count holds values of type " + intType + ", not " + textType);
    EXPECT_EQ(GetObjectValue(o, COUNT, Int(-1)), 7);  // the old value stays
    EXPECT_TRUE(
        o.SetData(LiteralId("net.quorv.test.ddo.undeclared"), Data::Of(std::string("x"))).IsOk());
    EXPECT_TRUE(o.SetData(LiteralId("net.quorv.test.ddo.undeclared"), Data::Of(Int(1))).IsOk());
    EXPECT_TRUE(o.SetData(DataDictionaryKey(Int(4)), Data::Of(Float64(0.5))).IsOk());
}

TEST(DataDictionaryObject, SnapshotsAndCopiesKeepTheirContent) {
    auto o = NewObject();
    ASSERT_TRUE(SetObjectValue(o, COUNT, Int(1)).IsOk());
    Result<DataDictionary> snapshot = o.InitIterator();
    ASSERT_TRUE(snapshot.IsOk());
    ASSERT_TRUE(SetObjectValue(o, COUNT, Int(2)).IsOk());
    o.EraseData(NAME.GetId());
    EXPECT_EQ(snapshot.GetValue().Get(COUNT, Int(0)), 1);
    EXPECT_EQ(GetObjectValue(o, COUNT, Int(0)), 2);

    Result<void*> copy = ClassInterface::CreateCopy(o.GetObject().Get(), QUORV_SOURCE_LOCATION);
    ASSERT_TRUE(copy.IsOk());
    auto copied = DataDictionaryObjectInterface::Ref::Cast(
                      ObjectRef::Adopt(static_cast<ObjectInstance*>(copy.GetValue())))
                      .GetValue();
    ASSERT_TRUE(SetObjectValue(o, COUNT, Int(3)).IsOk());
    EXPECT_EQ(GetObjectValue(copied, COUNT, Int(0)), 2);
}

TEST(DataDictionaryObject, ConcurrentWritersAndReadersSeeWholeValues) {
    auto o = NewObject();
    std::vector<std::thread> threads;
    std::atomic<int> bad{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                if (t % 2 == 0) {
                    (void)SetObjectValue(o, NAME, std::string(1 + i % 40, char('a' + t)));
                } else {
                    std::string s = GetObjectValue(o, NAME, std::string("x"));
                    for (char c : s) {
                        if (c != s[0]) ++bad;
                    }
                    Result<DataDictionary> snap = o.InitIterator();
                    if (snap.IsError()) ++bad;
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(bad.load(), 0);
}

// ---- a class composed of the host's class -----------------------------------------------------

#define STAMPED_METHODS(M)   \
    M(Int, GetStamp, (), ()) \
    M(ObjectInstance*, GetSelf, (), ())
QUORV_VIRTUAL_INTERFACE(StampedInterface, "net.quorv.test.interface.stamped", STAMPED_METHODS);

struct StampedImpl {
    Int GetStamp() const { return stamp.load(); }
    ObjectInstance* GetSelf() const { return InstanceOfState(this); }

    Result<void> SetData(const DataDictionaryKey& key, const Data& value);

    StampedImpl& operator=(const StampedImpl& o) {
        stamp = o.stamp.load();
        return *this;
    }
    std::atomic<Int> stamp{0};
};

Result<void> StampedSetData(void* instance, const ComponentInfo* info, const DataDictionaryKey& key,
                            const Data& value) {
    MethodEntry super;
    Result<void> r = CallSuper<Result<void>(const DataDictionaryKey&, const Data&)>(
        instance, info, DataDictionaryObjectInterface::Record(),
        DataDictionaryObjectInterface::IDX_SetData, super)(key, value);
    if (r.IsOk()) classes_detail::StateOf<StampedImpl>(instance, info)->stamp.fetch_add(1);
    return r;
}

bool FillStampedOverrides(ClassObject* cls, const ComponentInfo* info) {
    MethodEntry* table =
        ClassInterface::GetOrCreateMTable(cls, &DataDictionaryObjectInterface::Record());
    if (!table) return false;
    table[DataDictionaryObjectInterface::IDX_SetData] =
        MethodEntry{reinterpret_cast<void*>(&StampedSetData), info};
    return true;
}

ModuleUnit g_unit(__FILE__);
ComposedClass<StampedImpl, StampedInterface> g_stamped(
    g_unit, "net.quorv.test.class.stamped", HOST_CLASS_REGISTRY_ID,
    {{HOST_CLASS_REGISTRY_ID, DATADICTIONARYOBJECT_CLASS_ID}}, __FILE__, &FillStampedOverrides);

TEST(ComposedClass, OverrideReachesTheBaseAndFindsItsInstance) {
    Result<ObjectRef> made = CreateObjectById(LiteralId(HOST_CLASS_REGISTRY_ID),
                                              LiteralId("net.quorv.test.class.stamped"));
    ASSERT_TRUE(made.IsOk()) << made.GetErrorPointer()->message;
    auto dict = DataDictionaryObjectInterface::Ref::Cast(made.GetValue()).GetValue();
    auto stamped = StampedInterface::Ref::Cast(made.GetValue()).GetValue();
    EXPECT_EQ(stamped.GetSelf(), made.GetValue().Get());
    EXPECT_EQ(stamped.GetStamp(), 0);
    ASSERT_TRUE(SetObjectValue(dict, COUNT, Int(5)).IsOk());
    EXPECT_EQ(GetObjectValue(dict, COUNT, Int(0)), 5);  // stored by the base
    EXPECT_EQ(stamped.GetStamp(), 1);
    EXPECT_TRUE(dict.SetData(COUNT.GetId(), Data()).IsError());
    EXPECT_EQ(stamped.GetStamp(), 1);  // a failed write does not count
    dict.EraseData(COUNT.GetId());
    dict.Reset();
    EXPECT_EQ(stamped.GetStamp(), 1);
}

TEST(ComposedClass, UnknownBaseIsAnErrorNamingIt) {
    Result<const ClassObject*> r =
        FindClass(LiteralId(HOST_CLASS_REGISTRY_ID), LiteralId("net.quorv.test.nosuchclass"));
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(std::string(r.GetErrorPointer()->message),
              "No class net.quorv.test.nosuchclass in registry net.quorv.registry.hostclasses");
}

}  // namespace
}  // namespace quorv
