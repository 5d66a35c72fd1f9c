// Classes made of components, method tables with overriding and super calls, registries and
// creation by id, all through the host's class and registry services.
#include <gtest/gtest.h>

#include "quorv/classes.h"
#include "quorv/host/host.h"
#include "quorv/spinwait.h"

namespace quorv {
namespace {

#define QUORV_COUNTER_METHODS(M) \
    M(Int, Value, (), ())        \
    M(Int, Scale, (Int x), (x))  \
    M(void, Add, (Int amount), (amount))
QUORV_VIRTUAL_INTERFACE(CounterInterface, "net.quorv.test.interface.counter", QUORV_COUNTER_METHODS);
using CounterRef = CounterInterface::Ref;

#define QUORV_OTHER_METHODS(M) M(Int, Other, (), ())
QUORV_VIRTUAL_INTERFACE(OtherInterface, "net.quorv.test.interface.other", QUORV_OTHER_METHODS);

int g_destructed = 0;

struct BaseCounterImpl {
    Int value = 1;
    ~BaseCounterImpl() { ++g_destructed; }
    Int Value() const { return value; }
    Int Scale(Int x) const { return x * value; }
    void Add(Int amount) { value += amount; }
};

// A second component that overrides Value and calls the implementation it replaces.
struct BonusImpl {
    Int bonus = 10;
};

Int BonusValue(void* instance, const ComponentInfo* info) {
    MethodEntry super;
    Int base = CallSuper<Int()>(instance, info, CounterInterface::Record(),
                                CounterInterface::IDX_Value, super)();
    return base + classes_detail::StateOf<BonusImpl>(instance, info)->bonus;
}

bool FillBonus(ClassObject* cls, const ComponentInfo* info) {
    MethodEntry* table = ClassInterface::GetOrCreateMTable(cls, &CounterInterface::Record());
    if (!table) return false;
    table[CounterInterface::IDX_Value] = MethodEntry{reinterpret_cast<void*>(&BonusValue), info};
    return true;
}

Result<void> FailingInit(void*) {
    return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "init refused");
}

constexpr const char* REGISTRY = "net.quorv.test.registry.counters";

TranslationUnitRecord g_unit;
RegistryRecord g_registry;
ComponentRecord g_baseComponent, g_bonusComponent, g_failingComponent;
ClassRecord g_plainClass, g_composedClass, g_failingClass;
const ComponentRecord* const g_plainList[] = {&g_baseComponent};
const ComponentRecord* const g_composedList[] = {&g_baseComponent, &g_bonusComponent};
const ComponentRecord* const g_failingList[] = {&g_failingComponent};

void DefineClassRecord(ClassRecord& cls, const char* id, const ComponentRecord* const* list,
                       Int count) {
    DefineClass(cls, id, g_unit, __FILE__, 0);
    cls.create = &CreateClassFromRecord;
    cls.registerFunc = &RegisterClassRecord;
    cls.unregisterFunc = &UnregisterClassRecord;
    cls.registry = LiteralId(REGISTRY);
    cls.components = list;
    cls.componentCount = count;
}

const bool g_registered = [] {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    DefineRegistry(g_registry, REGISTRY, g_unit, __FILE__, 0);
    DefineComponent(g_baseComponent, "net.quorv.test.component.base", g_unit, __FILE__, 0);
    FillComponentRecord<BaseCounterImpl, CounterInterface>(g_baseComponent);
    DefineComponent(g_bonusComponent, "net.quorv.test.component.bonus", g_unit, __FILE__, 0);
    FillComponentState<BonusImpl>(g_bonusComponent);
    g_bonusComponent.interface = &CounterInterface::Record();
    g_bonusComponent.fillMTable = &FillBonus;
    DefineComponent(g_failingComponent, "net.quorv.test.component.failing", g_unit, __FILE__, 0);
    FillComponentRecord<BaseCounterImpl, CounterInterface>(g_failingComponent);
    g_failingComponent.init = &FailingInit;
    DefineClassRecord(g_plainClass, "net.quorv.test.class.plain", g_plainList, 1);
    DefineClassRecord(g_composedClass, "net.quorv.test.class.composed", g_composedList, 2);
    DefineClassRecord(g_failingClass, "net.quorv.test.class.failing", g_failingList, 1);
    return true;
}();

Result<CounterRef> Make(const char* id) {
    Result<ObjectRef> o = CreateObjectById(LiteralId(REGISTRY), LiteralId(id));
    if (o.IsError()) return o.GetError();
    return CounterRef::Cast(o.GetValue());
}

TEST(Classes, CreatedByIdAndCalledThroughTheInterface) {
    Result<CounterRef> c = Make("net.quorv.test.class.plain");
    ASSERT_TRUE(c.IsOk()) << ErrorToString(c.GetErrorPointer());
    CounterRef counter = c.GetValue();
    EXPECT_EQ(counter.Value(), 1);
    counter.Add(4);
    EXPECT_EQ(counter.Value(), 5);
    EXPECT_EQ(counter.Scale(3), 15);
    EXPECT_TRUE(GetClassIdOf(counter.GetObject().Get()) == "net.quorv.test.class.plain");
}

TEST(Classes, LaterComponentOverridesAndCallsTheNextImplementation) {
    Result<CounterRef> c = Make("net.quorv.test.class.composed");
    ASSERT_TRUE(c.IsOk()) << ErrorToString(c.GetErrorPointer());
    CounterRef counter = c.GetValue();
    EXPECT_EQ(counter.Value(), 11);  // base 1 + bonus 10
    counter.Add(2);                  // not overridden: the base component's method
    EXPECT_EQ(counter.Value(), 13);
    EXPECT_EQ(counter.Scale(2), 6);
}

TEST(Classes, InstancesAreCountedAndDestructedOnce) {
    g_destructed = 0;
    {
        Result<CounterRef> c = Make("net.quorv.test.class.plain");
        ASSERT_TRUE(c.IsOk());
        CounterRef second = c.GetValue();
        EXPECT_TRUE(IsShared(second.GetObject().Get()));
    }
    EXPECT_EQ(g_destructed, 1);
}

TEST(Classes, CopyIsIndependent) {
    CounterRef a = Make("net.quorv.test.class.plain").GetValue();
    a.Add(1);
    Result<void*> copy = ClassInterface::CreateCopy(a.GetObject().Get(), QUORV_SOURCE_LOCATION);
    ASSERT_TRUE(copy.IsOk());
    CounterRef b = CounterRef::Cast(ObjectRef::Adopt(static_cast<ObjectInstance*>(copy.GetValue()))).GetValue();
    EXPECT_EQ(b.Value(), 2);
    b.Add(5);
    EXPECT_EQ(a.Value(), 2);
    EXPECT_EQ(b.Value(), 7);
}

TEST(Classes, ErrorsNameWhatIsWrong) {
    Result<CounterRef> missing = Make("net.quorv.test.class.nosuch");
    ASSERT_TRUE(missing.IsError());
    EXPECT_STREQ(missing.GetErrorPointer()->message,
                 "No class net.quorv.test.class.nosuch in registry net.quorv.test.registry.counters");
    EXPECT_EQ(missing.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);

    Result<ObjectRef> plain = CreateObjectById(LiteralId(REGISTRY), LiteralId("net.quorv.test.class.plain"));
    Result<OtherInterface::Ref> other = OtherInterface::Ref::Cast(plain.GetValue());
    ASSERT_TRUE(other.IsError());
    EXPECT_STREQ(other.GetErrorPointer()->message,
                 "Class net.quorv.test.class.plain does not implement net.quorv.test.interface.other");

    Result<CounterRef> failing = Make("net.quorv.test.class.failing");
    ASSERT_TRUE(failing.IsError());
    EXPECT_STREQ(failing.GetErrorPointer()->message, "init refused");
}

TEST(Classes, OutOfMemoryOnCreateIsAnError) {
    host::Host::Get().FailAllocationAfter(1);
    Result<ObjectRef> o = CreateObjectById(LiteralId(REGISTRY), LiteralId("net.quorv.test.class.plain"));
    host::Host::Get().FailAllocationAfter(0);
    ASSERT_TRUE(o.IsError());
    EXPECT_EQ(o.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY);
}

TEST(Registries, InsertEraseAndFind) {
    const DataType* classType = DataTypeLibInterface::GetRuntimeDataType(CLASS_DATATYPE_ID);
    ASSERT_NE(classType, nullptr);
    Data value;
    ASSERT_TRUE(RegistryInterface::FindEntryValue(LiteralId(REGISTRY),
                                                  LiteralId("net.quorv.test.class.plain"), &value));
    EXPECT_EQ(value.GetType(), classType);
    Result<void> twice = RegistryInterface::InsertEntry(LiteralId(REGISTRY),
                                                        LiteralId("net.quorv.test.class.plain"), value);
    ASSERT_TRUE(twice.IsError());
    EXPECT_STREQ(twice.GetErrorPointer()->message,
                 "Entry net.quorv.test.class.plain already in registry net.quorv.test.registry.counters");
    Result<void> unknown = RegistryInterface::InsertEntry(LiteralId("net.quorv.test.registry.none"),
                                                          LiteralId("x"), value);
    ASSERT_TRUE(unknown.IsError());
    EXPECT_STREQ(unknown.GetErrorPointer()->message, "Unknown registry net.quorv.test.registry.none");

    ASSERT_TRUE(RegistryInterface::InsertEntry(LiteralId(REGISTRY), LiteralId("alias"), value).IsOk());
    EXPECT_TRUE(RegistryInterface::EraseEntry(LiteralId(REGISTRY), LiteralId("alias")));
    EXPECT_FALSE(RegistryInterface::EraseEntry(LiteralId(REGISTRY), LiteralId("alias")));
    EXPECT_FALSE(RegistryInterface::FindEntryValue(LiteralId(REGISTRY), LiteralId("alias"), &value));
}

TEST(Registries, ListedByTheHost) {
    bool found = false;
    for (const auto& r : host::Host::Get().ListRegistries()) {
        if (r.id != REGISTRY) continue;
        found = true;
        EXPECT_EQ(r.entries, (std::vector<std::string>{"net.quorv.test.class.plain",
                                                       "net.quorv.test.class.composed",
                                                       "net.quorv.test.class.failing"}));
    }
    EXPECT_TRUE(found);
}

TEST(Configuration, SetByNameWithCheckedValues) {
    host::Host& h = host::Host::Get();
    ASSERT_TRUE(h.SetConfiguration("g_trackSpinlocks=true").IsOk());
    EXPECT_TRUE(g_trackSpinlocks);
    ASSERT_TRUE(h.SetConfiguration("g_trackSpinlocks=false").IsOk());
    EXPECT_FALSE(g_trackSpinlocks);
    Result<void> bad = h.SetConfiguration("g_trackSpinlocks=maybe");
    ASSERT_TRUE(bad.IsError());
    EXPECT_STREQ(bad.GetErrorPointer()->message,
                 "Bad value maybe for configuration variable g_trackSpinlocks");
    Result<void> unknown = h.SetConfiguration("g_nothing=1");
    ASSERT_TRUE(unknown.IsError());
    EXPECT_STREQ(unknown.GetErrorPointer()->message, "Unknown configuration variable g_nothing");
}

}  // namespace
}  // namespace quorv
