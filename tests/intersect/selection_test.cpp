// GetDefaultIntersector of the built render module, with the registry changed under it.
#include <atomic>
#include <thread>

#include "intersect/intersect_support.h"
#include "render/frame/rendergeneral.h"

namespace quorv {
namespace {

const LiteralId REGISTRY(INTERSECTION_CLASS_REGISTRY_ID);
const LiteralId EMBREE(EMBREE_INTERSECTION_CLASS_ID);
const LiteralId YMB(YMB_INTERSECTION_CLASS_ID);

// A class whose creation fails, to stand under the embree id.
constexpr const char* FAILING_REGISTRY = "net.quorv.test.registry.failingintersectors";
struct FailingImpl {
    int unused = 0;
};
Result<void> RefuseInit(void*) {
    return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "intersector refused");
}
ModuleUnit g_unit(__FILE__);
RegistryRecord g_failingRegistry;
ComponentRecord g_failingComponent;
ClassRecord g_failingClass;
const ComponentRecord* const g_failingList[] = {&g_failingComponent};
const bool g_defined = [] {
    DefineRegistry(g_failingRegistry, LiteralId(FAILING_REGISTRY), g_unit, __FILE__, 0);
    DefineSimpleClass(g_failingComponent, g_failingClass, g_failingList,
                      LiteralId("net.quorv.test.class.failingintersector"),
                      LiteralId(FAILING_REGISTRY), g_unit, __FILE__);
    FillComponentState<FailingImpl>(g_failingComponent);
    g_failingComponent.init = &RefuseInit;
    return true;
}();

Data Entry(const LiteralId& registry, const LiteralId& id) {
    Data d;
    EXPECT_TRUE(RegistryInterface::FindEntryValue(registry, id, &d)) << id.View();
    return d;
}

// Takes the two real entries out for the test and puts them back afterwards.
class Selection : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(test::LoadIntersectModules());
        embree = Entry(REGISTRY, EMBREE);
        ymb = Entry(REGISTRY, YMB);
        ASSERT_TRUE(host::Host::Get().SetConfiguration("g_polygonIntersection=").IsOk());
    }
    void TearDown() override {
        RegistryInterface::EraseEntry(REGISTRY, EMBREE);
        RegistryInterface::EraseEntry(REGISTRY, YMB);
        EXPECT_TRUE(RegistryInterface::InsertEntry(REGISTRY, EMBREE, embree).IsOk());
        EXPECT_TRUE(RegistryInterface::InsertEntry(REGISTRY, YMB, ymb).IsOk());
        host::Host::Get().FailAllocationAfter(0);
        EXPECT_TRUE(host::Host::Get().SetConfiguration("g_polygonIntersection=").IsOk());
    }
    static std::string Picked() {
        Result<ObjectRef> o = RenderGeneralInterface::GetDefaultIntersector();
        if (o.IsError()) return "error: " + std::string(o.GetErrorPointer()->message);
        return std::string(GetClassIdOf(o.GetValue().Get()).View());
    }
    Data embree, ymb;
};

TEST_F(Selection, EmbreeFirstThenYmbThenTheError) {
    EXPECT_EQ(Picked(), EMBREE_INTERSECTION_CLASS_ID);  // both registered
    ASSERT_TRUE(RegistryInterface::EraseEntry(REGISTRY, EMBREE));
    EXPECT_EQ(Picked(), YMB_INTERSECTION_CLASS_ID);
    ASSERT_TRUE(RegistryInterface::EraseEntry(REGISTRY, YMB));
    Result<ObjectRef> none = RenderGeneralInterface::GetDefaultIntersector();
    ASSERT_TRUE(none.IsError());
    EXPECT_STREQ(none.GetErrorPointer()->message, "No default intersector found.");
    EXPECT_TRUE(none.GetErrorPointer()->id == "net.quorv.error.unknown");
    // A class registered later is seen by the next call: nothing is cached.
    ASSERT_TRUE(RegistryInterface::InsertEntry(REGISTRY, EMBREE, embree).IsOk());
    EXPECT_EQ(Picked(), EMBREE_INTERSECTION_CLASS_ID);
    // Each call gives a new object.
    Result<ObjectRef> a = RenderGeneralInterface::GetDefaultIntersector();
    Result<ObjectRef> b = RenderGeneralInterface::GetDefaultIntersector();
    EXPECT_NE(a.GetValue().Get(), b.GetValue().Get());
}

TEST_F(Selection, TheVariableChoosesWithoutFallBack) {
    ASSERT_TRUE(
        host::Host::Get()
            .SetConfiguration("g_polygonIntersection=" + std::string(YMB_INTERSECTION_CLASS_ID))
            .IsOk());
    EXPECT_EQ(Picked(), YMB_INTERSECTION_CLASS_ID);
    ASSERT_TRUE(host::Host::Get().SetConfiguration("g_polygonIntersection=net.quorv.nope").IsOk());
    Result<ObjectRef> r = RenderGeneralInterface::GetDefaultIntersector();
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message, "Intersection class net.quorv.nope not found.");
    EXPECT_TRUE(r.GetErrorPointer()->id == "net.quorv.error.unknown");
    // Empty means unset.
    ASSERT_TRUE(host::Host::Get().SetConfiguration("g_polygonIntersection=").IsOk());
    EXPECT_EQ(Picked(), EMBREE_INTERSECTION_CLASS_ID);
}

TEST_F(Selection, AnEntryOfAnotherTypeIsNotFound) {
    ASSERT_TRUE(RegistryInterface::EraseEntry(REGISTRY, EMBREE));
    ASSERT_TRUE(RegistryInterface::InsertEntry(REGISTRY, EMBREE, Data::Of(Int(42))).IsOk());
    EXPECT_EQ(Picked(), YMB_INTERSECTION_CLASS_ID);
    ASSERT_TRUE(
        host::Host::Get()
            .SetConfiguration("g_polygonIntersection=" + std::string(EMBREE_INTERSECTION_CLASS_ID))
            .IsOk());
    EXPECT_EQ(Picked(),
              "error: Intersection class net.quorv.render.intersectionclass.embree not found.");
}

TEST_F(Selection, AFailingCreationIsReturnedAndYmbIsNotTried) {
    ASSERT_TRUE(RegistryInterface::EraseEntry(REGISTRY, EMBREE));
    ASSERT_TRUE(
        RegistryInterface::InsertEntry(REGISTRY, EMBREE,
                                       Entry(LiteralId(FAILING_REGISTRY),
                                             LiteralId("net.quorv.test.class.failingintersector")))
            .IsOk());
    EXPECT_EQ(Picked(), "error: intersector refused");
}

TEST_F(Selection, OutOfMemoryWhileNamingTheClass) {
    ASSERT_TRUE(
        host::Host::Get()
            .SetConfiguration("g_polygonIntersection=" + std::string(YMB_INTERSECTION_CLASS_ID))
            .IsOk());
    host::Host::Get().FailAllocationAfter(1);
    Result<ObjectRef> r = RenderGeneralInterface::GetDefaultIntersector();
    host::Host::Get().FailAllocationAfter(0);
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY);
}

// Callers select while another thread takes the ymb class out and puts it back: every answer
// is the class or the documented error, never anything else.
TEST_F(Selection, SelectingBesideRegistering) {
    ASSERT_TRUE(RegistryInterface::EraseEntry(REGISTRY, EMBREE));
    std::atomic<int> running{3}, started{0};
    std::atomic<int> bad{0}, found{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 3; ++t) {
        callers.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                const std::string p = Picked();
                if (p == YMB_INTERSECTION_CLASS_ID)
                    ++found;
                else if (p != "error: No default intersector found.")
                    ++bad;
                if (i == 0) ++started;
            }
            --running;
        });
    }
    while (started < 3) std::this_thread::yield();  // each caller has seen the class once
    while (running > 0) {
        RegistryInterface::EraseEntry(REGISTRY, YMB);
        std::this_thread::yield();
        EXPECT_TRUE(RegistryInterface::InsertEntry(REGISTRY, YMB, ymb).IsOk());
        std::this_thread::yield();
    }
    for (auto& t : callers) t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(found.load(), 0);
}

}  // namespace
}  // namespace quorv
