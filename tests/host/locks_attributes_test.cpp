// The host's reader-writer locks, graph attributes and the serialisation of class instances
// through their components' describe functions.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "quorv/classes.h"
#include "quorv/dataserialize.h"
#include "quorv/graphlib.h"
#include "quorv/host/host.h"
#include "quorv/rwlock.h"
#include "quorv/string.h"

namespace quorv {
namespace {

std::string Message(const ErrorObject* e) { return e && e->message ? e->message : ""; }

TEST(RWLock, WritersExcludeEachOtherReadersShare) {
    Result<RWLock> made = RWLock::Create(QUORV_SOURCE_LOCATION);
    ASSERT_TRUE(made.IsOk());
    const RWLock& lock = made.GetValue();
    // Unsynchronised increments under the write lock: any overlap loses some.
    Int counter = 0;
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                ScopedWriteLock w(lock);
                counter = counter + 1;
            }
        });
    }
    for (std::thread& t : writers) t.join();
    EXPECT_EQ(counter, 80000);
    // A reader holds the lock until a second reader got it too: with an exclusive read lock
    // the second would wait for ever.
    std::atomic<bool> firstHolds{false}, secondGotIt{false};
    std::thread first([&] {
        ScopedReadLock r(lock);
        firstHolds = true;
        while (!secondGotIt) std::this_thread::yield();
    });
    while (!firstHolds) std::this_thread::yield();
    {
        ScopedReadLock r(lock);
        secondGotIt = true;
    }
    first.join();
}

TEST(RWLock, NoMemoryNoLock) {
    host::Host::Get().FailAllocationAfter(1);
    Result<RWLock> made = RWLock::Create(QUORV_SOURCE_LOCATION);
    const bool failed = !host::Host::Get().IsAllocationFailurePending();
    host::Host::Get().FailAllocationAfter(0);
    ASSERT_TRUE(failed);
    ASSERT_TRUE(made.IsError());
    EXPECT_EQ(made.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY);
}

TEST(GraphAttributes, DeclaredOnceByIdAndType) {
    const LiteralId ID("net.quorv.test.attribute.weight");
    ASSERT_TRUE(GraphLibInterface::CreateAttribute(ID, "float64").IsOk());
    EXPECT_TRUE(GraphLibInterface::CreateAttribute(ID, "float64").IsOk()) << "again, same type";
    Result<void> other = GraphLibInterface::CreateAttribute(ID, "int32");
    ASSERT_TRUE(other.IsError());
    EXPECT_EQ(other.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
    EXPECT_EQ(Message(other.GetErrorPointer()),
              "Attribute net.quorv.test.attribute.weight is declared with type float64, not int32");
    Result<void> unknown =
        GraphLibInterface::CreateAttribute(LiteralId("net.quorv.test.attribute.x"), "no.type");
    ASSERT_TRUE(unknown.IsError());
    EXPECT_EQ(Message(unknown.GetErrorPointer()),
              "Unknown data type no.type of attribute net.quorv.test.attribute.x");
    EXPECT_TRUE(GraphLibInterface::CreateAttribute(LiteralId(), "float64").IsError());
    int listed = 0;
    for (const host::AttributeListing& a : host::Host::Get().ListAttributes()) {
        if (a.id != "net.quorv.test.attribute.weight") continue;
        ++listed;
        EXPECT_EQ(a.typeId, "float64");
    }
    EXPECT_EQ(listed, 1);
    for (const host::AttributeListing& a : host::Host::Get().ListAttributes())
        EXPECT_NE(a.id, "net.quorv.test.attribute.x");
}

// ---- instances described by their components --------------------------------------------------

struct Weight {
    Float64 weight = 0.5;
    static Result<void> DescribeIO(DescribeStreamObject* stream) {
        return DataSerializeInterface::DescribeMember(stream, "weight", "float64",
                                                      offsetof(Weight, weight), nullptr, 0);
    }
};
struct Count {
    Int count = 7;
    static Result<void> DescribeIO(DescribeStreamObject* stream) {
        return DataSerializeInterface::DescribeMember(stream, "count", "int64",
                                                      offsetof(Count, count), nullptr, 0);
    }
};
struct Silent {
    Int unused = 0;
};
struct Refusing {
    static Result<void> DescribeIO(DescribeStreamObject*) {
        return MakeErrorWithId("net.quorv.error.unsupportedoperation", QUORV_SOURCE_LOCATION,
                               "not stored");
    }
};

template <typename T>
ComponentRecord* Component() {
    static ComponentRecord record = [] {
        ComponentRecord r;
        FillComponentState<T>(r);
        return r;
    }();
    return &record;
}

// An instance of a class made here of the given components (what a module declares).
ObjectRef Make(const char* id, std::initializer_list<ComponentRecord*> components) {
    ClassObject* c = ClassInterface::Alloc(LiteralId(id), 1, QUORV_SOURCE_LOCATION);
    Ref<ClassObject> held(c);
    for (ComponentRecord* r : components) EXPECT_TRUE(ClassInterface::AddComponent(c, r).IsOk());
    EXPECT_TRUE(ClassInterface::Finalize(c).IsOk());
    Result<void*> made = ClassInterface::Create(c, QUORV_SOURCE_LOCATION);
    EXPECT_TRUE(made.IsOk());
    return ObjectRef::Adopt(static_cast<ObjectInstance*>(made.GetValue()));
}

std::string Json(const ObjectRef& o, std::string* error = nullptr) {
    Result<CStringObject*> text = DataSerializeInterface::WriteObjectJson(o.Get());
    if (text.IsError()) {
        if (error) *error = ErrorToString(text.GetErrorPointer());
        return "";
    }
    std::string out(CStringInterface::GetData(text.GetValue()),
                    static_cast<size_t>(CStringInterface::GetLength(text.GetValue())));
    RemoveReference(text.GetValue());
    return out;
}

TEST(ObjectSerialisation, MembersOfEachDescribingComponentAtItsPlace) {
    // The silent component ahead shifts the others: their members are found at their offsets.
    const ObjectRef o = Make("net.quorv.test.class.described",
                             {Component<Silent>(), Component<Weight>(), Component<Count>()});
    EXPECT_EQ(Json(o), R"({"count":7,"weight":0.5})");  // the writer orders members by name
    const std::string text = R"({"count":-3,"weight":2.25})";
    ASSERT_TRUE(
        DataSerializeInterface::ReadObjectJson(o.Get(), text.data(), static_cast<Int>(text.size()))
            .IsOk());
    EXPECT_EQ(Json(o), text);
}

TEST(ObjectSerialisation, AComponentsRefusalAndAClassWithoutMembers) {
    const ObjectRef refused =
        Make("net.quorv.test.class.refused", {Component<Weight>(), Component<Refusing>()});
    Result<CStringObject*> r = DataSerializeInterface::WriteObjectJson(refused.Get());
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(r.GetErrorPointer()->id, LiteralId("net.quorv.error.unsupportedoperation"));
    EXPECT_EQ(Message(r.GetErrorPointer()), "not stored");
    EXPECT_TRUE(DataSerializeInterface::ReadObjectJson(refused.Get(), "{}", 2).IsError());
    const ObjectRef silent = Make("net.quorv.test.class.silent", {Component<Silent>()});
    Result<CStringObject*> none = DataSerializeInterface::WriteObjectJson(silent.Get());
    ASSERT_TRUE(none.IsError());
    EXPECT_EQ(none.GetErrorPointer()->kind, ERRORKIND::FUNCTIONNOTIMPLEMENTED);
    EXPECT_EQ(Message(none.GetErrorPointer()),
              "Objects of class net.quorv.test.class.silent describe no members");
}

}  // namespace
}  // namespace quorv
