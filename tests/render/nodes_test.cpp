// Node spaces, the default material exchange and the node world, white-box: the module's
// sources are linked into this binary. The tests also pass as one process: each test of the
// description cache starts it as a fresh load does and forgets the folders it registered. The
// one-way "unload" message and fresh states after a reload need a real unload of the built
// library: tests/integration/nodes_reload_test.cpp.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "quorv/dataserialize.h"
#include "quorv/host/warnings.h"
#include "render/nodes/node_spaces.h"
#include "render/nodes/node_world.h"

namespace quorv::nodes {
namespace {

constexpr const char* PLAIN = "net.quorv.test.nodespace.plain";
constexpr const char* WARNING_PLAIN =
    "Warning for net.quorv.test.nodespace.plain: overwriting specified "
    "NODESPACE::MATERIALEXCHANGEBUNDLEIDS because fallback NODESPACE::MATERIALEXCHANGECLASS is "
    "defined";

// A space class of the base's components and an empty one of its own, as other modules bring.
class TestSpaceClass {
public:
    TestSpaceClass(TranslationUnitRecord& unit, const char* id) {
        _components[0] = &_component;
        DefineSimpleClass(_component, _class, _components, LiteralId(id),
                          LiteralId(NODESPACE_CLASS_REGISTRY_ID), unit, __FILE__);
        FillComponentState<Empty>(_component);
        _component.fillMTable = [](ClassObject*, const ComponentInfo*) { return true; };
        _component.interface = &NodeSpaceInterface::Record();
        _class.create = &CreateComposedClassFromRecord;
        _class.bases[0] = {NODESPACE_CLASS_REGISTRY_ID, NODESPACE_BASE_CLASS_ID};
        _class.baseCount = 1;
    }

private:
    struct Empty {
        char unused = 0;
    };
    ComponentRecord _component;
    ComposedClassRecord _class;
    const ComponentRecord* _components[1] = {nullptr};
};

ModuleUnit g_unit(__FILE__, {{&g_nodeSpaceInterfaceRecord, "render/nodes/node_spaces.h"}});
TestSpaceClass g_plain(g_unit, PLAIN);
TestSpaceClass g_builtin(g_unit, BUILTIN_SPACE_ID);

std::string Text(const ErrorObject* e) { return e && e->message ? e->message : ""; }

NodeSpaceInterface::Ref MakeSpace(const char* id) {
    Result<ObjectRef> o = CreateObjectById(LiteralId(NODESPACE_CLASS_REGISTRY_ID), LiteralId(id));
    EXPECT_TRUE(o.IsOk()) << ErrorToString(o.GetErrorPointer());
    if (o.IsError()) return {};
    return NodeSpaceInterface::Ref::Cast(o.GetValue()).GetValue();
}

ClassObject* ClassOf(const char* registry, const char* id) {
    Result<const ClassObject*> c = FindClass(LiteralId(registry), LiteralId(id));
    EXPECT_TRUE(c.IsOk());
    return c.IsOk() ? const_cast<ClassObject*>(c.GetValue()) : nullptr;
}

IdArray Ids(std::initializer_list<const char*> texts) {
    IdArray a;
    for (const char* t : texts) a.push_back(Id::Intern(t));
    return a;
}

DataDictionary Dict() { return DataDictionary::Create().GetValue(); }

template <typename T>
DataDictionary With(DataDictionary d, const DataDictionaryKey& key, const T& value) {
    EXPECT_TRUE(d.SetData(key, Data::Of(value)).IsOk());
    return d;
}

TEST(NodeSpaceInit, ClassesRegisterWithoutCriticalMessages) {
    for (const std::string& m : host::Host::Get().GetCriticalLog()) ADD_FAILURE() << m;
}

// ---- Init ---------------------------------------------------------------------------------

struct InitCase {
    const char* name;
    const char* classId;
    std::function<DataDictionary()> input;
    std::string expectedName;
    const char* expectedExchange;  // class id
    bool bundlesPresent;
    IdArray expectedBundles;
    const char* warning;  // null: none
};

TEST(NodeSpaceInit, FillsWhatTheSpaceLeavesOut) {
    ClassObject* base = ClassOf(NODESPACE_CLASS_REGISTRY_ID, NODESPACE_BASE_CLASS_ID);
    const IdArray viewport = Ids({VIEWPORTMATERIAL_ID});
    const std::vector<InitCase> cases = {
        {"empty dictionary", PLAIN, [] { return Dict(); }, PLAIN, MATERIALEXCHANGE_DEFAULT_CLASS_ID,
         true, viewport, nullptr},
        {"bundles without exchange class warn and are replaced", PLAIN,
         [] {
             return With(Dict(), nodespacekey::MATERIALEXCHANGEBUNDLEIDS, Ids({"a.b", "c.d"}));
         },
         PLAIN, MATERIALEXCHANGE_DEFAULT_CLASS_ID, true, viewport, WARNING_PLAIN},
        {"an empty bundle array gives no warning", PLAIN,
         [] { return With(Dict(), nodespacekey::MATERIALEXCHANGEBUNDLEIDS, IdArray()); }, PLAIN,
         MATERIALEXCHANGE_DEFAULT_CLASS_ID, true, viewport, nullptr},
        {"an exchange class and no bundles: neither touched",
         PLAIN,
         [base] { return With(Dict(), nodespacekey::MATERIALEXCHANGECLASS, base); },
         PLAIN,
         NODESPACE_BASE_CLASS_ID,
         false,
         {},
         nullptr},
        {"the built-in space gets its two bundles", BUILTIN_SPACE_ID,
         [base] { return With(Dict(), nodespacekey::MATERIALEXCHANGECLASS, base); },
         BUILTIN_SPACE_ID, NODESPACE_BASE_CLASS_ID, true,
         Ids({VIEWPORTMATERIAL_ID, BUILTIN_SPACE_BUNDLE_ID}), nullptr},
        {"the built-in space overrides given bundles without warning", BUILTIN_SPACE_ID,
         [base] {
             return With(With(Dict(), nodespacekey::MATERIALEXCHANGECLASS, base),
                         nodespacekey::MATERIALEXCHANGEBUNDLEIDS, Ids({"x.y"}));
         },
         BUILTIN_SPACE_ID, NODESPACE_BASE_CLASS_ID, true,
         Ids({VIEWPORTMATERIAL_ID, BUILTIN_SPACE_BUNDLE_ID}), nullptr},
        {"an empty name counts as missing", PLAIN,
         [] { return With(Dict(), nodespacekey::SPACENAME, std::string()); }, PLAIN,
         MATERIALEXCHANGE_DEFAULT_CLASS_ID, true, viewport, nullptr},
        {"a given name is kept, a given space id overwritten", PLAIN,
         [] {
             return With(With(Dict(), nodespacekey::SPACENAME, std::string("Mine")),
                         nodespacekey::SPACEID, Id::Intern("net.quorv.other"));
         },
         "Mine", MATERIALEXCHANGE_DEFAULT_CLASS_ID, true, viewport, nullptr},
    };
    for (const InitCase& c : cases) {
        SCOPED_TRACE(c.name);
        host::ClearWarningLog();
        NodeSpaceInterface::Ref space = MakeSpace(c.classId);
        const DataDictionary given = c.input();
        const DataDictionary before = given;
        ASSERT_TRUE(space.Init(given).IsOk());
        const DataDictionary d = space.GetData();
        EXPECT_EQ(d.Get<Id>(nodespacekey::SPACEID, Id()), Id::Intern(c.classId));
        EXPECT_EQ(d.Get<std::string>(nodespacekey::SPACENAME, "?"), c.expectedName);
        ClassObject* exchange = d.Get<ClassObject*>(nodespacekey::MATERIALEXCHANGECLASS, nullptr);
        ASSERT_NE(exchange, nullptr);
        EXPECT_EQ(ClassInterface::GetId(exchange).View(), c.expectedExchange);
        EXPECT_EQ(!d.GetData(nodespacekey::MATERIALEXCHANGEBUNDLEIDS).IsEmpty(), c.bundlesPresent);
        if (c.bundlesPresent) {
            EXPECT_EQ(d.Get<IdArray>(nodespacekey::MATERIALEXCHANGEBUNDLEIDS, IdArray()),
                      c.expectedBundles);
        }
        const std::vector<std::string> warnings = host::GetWarningLog();
        if (c.warning) {
            ASSERT_EQ(warnings.size(), 1u);
            EXPECT_EQ(warnings[0], c.warning);
        } else {
            EXPECT_TRUE(warnings.empty());
        }
        // The caller's dictionary was shared, so Init wrote to a private copy.
        EXPECT_EQ(given.GetObject(), before.GetObject());
        EXPECT_TRUE(given.GetData(nodespacekey::SPACEID).IsEmpty() ||
                    std::string(c.name).find("space id") != std::string::npos);
    }
}

// Init writes its steps in order; a failed allocation ends it with out of memory and leaves
// exactly the steps before the failing one written. Every allocation is made to fail in turn.
TEST(NodeSpaceInit, FailedAllocationAtEachStepLeavesTheEarlierStepsWritten) {
    ClassObject* base = ClassOf(NODESPACE_CLASS_REGISTRY_ID, NODESPACE_BASE_CLASS_ID);
    const Id viewport = Id::Intern(VIEWPORTMATERIAL_ID);
    struct Step {
        const char* name;
        std::function<bool(const DataDictionary&)> written;
    };
    struct Case {
        const char* classId;
        std::function<DataDictionary()> input;
        std::vector<Step> steps;  // in Init's order; the observer list is the last
    };
    auto id = [](const char* classId) {
        return [classId](const DataDictionary& d) {
            return d.Get<Id>(nodespacekey::SPACEID, Id()) == Id::Intern(classId);
        };
    };
    auto name = [](const char* classId) {
        return [classId](const DataDictionary& d) {
            return d.Get<std::string>(nodespacekey::SPACENAME, "") == classId;
        };
    };
    auto bundles = [](IdArray expected) {
        return [expected](const DataDictionary& d) {
            return d.Get<IdArray>(nodespacekey::MATERIALEXCHANGEBUNDLEIDS, IdArray()) == expected;
        };
    };
    const std::vector<Case> cases = {
        {PLAIN,
         [] { return Dict(); },
         {{"space id", id(PLAIN)},
          {"name", name(PLAIN)},
          {"bundle ids", bundles({viewport})},
          {"exchange class",
           [](const DataDictionary& d) {
               ClassObject* c = d.Get<ClassObject*>(nodespacekey::MATERIALEXCHANGECLASS, nullptr);
               return c && ClassInterface::GetId(c) == MATERIALEXCHANGE_DEFAULT_CLASS_ID;
           }}}},
        {BUILTIN_SPACE_ID,
         [base] { return With(Dict(), nodespacekey::MATERIALEXCHANGECLASS, base); },
         {{"space id", id(BUILTIN_SPACE_ID)},
          {"name", name(BUILTIN_SPACE_ID)},
          {"built-in bundle ids", bundles({viewport, Id::Intern(BUILTIN_SPACE_BUNDLE_ID)})}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.classId);
        // How many steps stood written when an allocation failed; the observer list is step
        // steps.size().
        std::set<size_t> failedAfter;
        bool completed = false;
        for (Int n = 1; n < 400 && !completed; ++n) {
            NodeSpaceInterface::Ref space = MakeSpace(c.classId);
            const DataDictionary given = c.input();
            const Int givenCount = given.GetCount();
            host::Host::Get().FailAllocationAfter(n);
            Result<void> r = space.Init(given);
            const bool failed = !host::Host::Get().IsAllocationFailurePending();
            host::Host::Get().FailAllocationAfter(0);
            EXPECT_EQ(given.GetCount(), givenCount) << "the caller's dictionary is never written";
            const DataDictionary d = space.GetData();
            size_t written = 0;
            while (written < c.steps.size() && c.steps[written].written(d)) ++written;
            for (size_t later = written + 1; later < c.steps.size(); ++later) {
                EXPECT_FALSE(c.steps[later].written(d))
                    << c.steps[later].name << " written before " << c.steps[written].name;
            }
            auto none = DataChangedObserver::Create([](const DataDictionary&) {});
            ASSERT_TRUE(none.IsOk());
            Result<ObserverHandleRef> h = space.AddDataChangedObserver(none.GetValue(), false);
            if (!failed) {
                ASSERT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
                EXPECT_EQ(written, c.steps.size());
                EXPECT_TRUE(h.IsOk()) << "the observer list exists";
                completed = true;
                continue;
            }
            ASSERT_TRUE(r.IsError()) << "allocation " << n << " failed unnoticed";
            EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY)
                << ErrorToString(r.GetErrorPointer());
            // A failed Init made no observer list: adding is refused, not a crash.
            ASSERT_TRUE(h.IsError());
            EXPECT_EQ(h.GetErrorPointer()->kind, ERRORKIND::ILLEGALSTATE);
            failedAfter.insert(written);
        }
        EXPECT_TRUE(completed);
        // Each step, the observer list included, was reached by some failure.
        for (size_t step = 0; step <= c.steps.size(); ++step) {
            EXPECT_TRUE(failedAfter.count(step))
                << "no failure at "
                << (step < c.steps.size() ? c.steps[step].name : "the observer list");
        }
    }
}

// ---- observers ----------------------------------------------------------------------------

TEST(NodeSpaceObservers, CallNowOnceAndFirstThenEveryChange) {
    NodeSpaceInterface::Ref space = MakeSpace(PLAIN);
    ASSERT_TRUE(space.Init(Dict()).IsOk());
    std::vector<std::string> seen;
    auto observer = DataChangedObserver::Create([&seen](const DataDictionary& d) {
        seen.push_back(d.Get<std::string>(nodespacekey::SPACENAME, "?"));
    });
    ObserverHandleRef handle = space.AddDataChangedObserver(observer.GetValue(), true).GetValue();
    ASSERT_EQ(seen, std::vector<std::string>{PLAIN});
    space.SetData(With(Dict(), nodespacekey::SPACENAME, std::string("Second")));
    ASSERT_EQ(seen, (std::vector<std::string>{PLAIN, "Second"}));
    handle = {};  // the dropped handle ends the subscription
    space.SetData(With(Dict(), nodespacekey::SPACENAME, std::string("Third")));
    EXPECT_EQ(seen.size(), 2u);
}

TEST(NodeSpaceObservers, CopyNotifiesTheSourcesObservers) {
    NodeSpaceInterface::Ref space = MakeSpace(PLAIN);
    ASSERT_TRUE(space.Init(Dict()).IsOk());
    int calls = 0;
    auto observer = DataChangedObserver::Create([&calls](const DataDictionary&) { ++calls; });
    ObserverHandleRef handle = space.AddDataChangedObserver(observer.GetValue(), false).GetValue();
    Result<void*> copy = ClassInterface::CreateCopy(space.GetObject().Get(), QUORV_SOURCE_LOCATION);
    ASSERT_TRUE(copy.IsOk()) << ErrorToString(copy.GetErrorPointer());
    ObjectRef copyObject = ObjectRef::Adopt(static_cast<ObjectInstance*>(copy.GetValue()));
    NodeSpaceInterface::Ref copied = NodeSpaceInterface::Ref::Cast(copyObject).GetValue();
    EXPECT_EQ(copied.GetData().GetObject(), space.GetData().GetObject());
    copied.SetData(Dict());
    EXPECT_EQ(calls, 1);
}

// The handle holds its observable weakly: the space takes its observers with it, and the handle
// dropped later finds nothing to remove.
TEST(NodeSpaceObservers, HandleOutlivingItsSpaceHoldsNothingOfIt) {
    const auto token = std::make_shared<int>(0);
    ObserverHandleRef handle;
    {
        NodeSpaceInterface::Ref space = MakeSpace(PLAIN);
        ASSERT_TRUE(space.Init(Dict()).IsOk());
        {
            auto observer = DataChangedObserver::Create([token](const DataDictionary&) {});
            handle = space.AddDataChangedObserver(observer.GetValue(), false).GetValue();
        }
        EXPECT_EQ(token.use_count(), 2) << "the space's observer list holds the delegate";
    }
    EXPECT_EQ(token.use_count(), 1) << "the delegate went with the space, not with the handle";
    handle = {};
    EXPECT_EQ(token.use_count(), 1);
}

TEST(NodeSpaceObservers, AddsAndDropsInsideADelegateChangeOnlyLaterWalks) {
    auto observable = RaiiObservable<int>::Create().GetValue();
    std::vector<std::string> log;
    ObserverHandleRef first, second, added;
    auto addOne = Delegate<void(int)>::Create([&](int v) {
        log.push_back("first " + std::to_string(v));
        if (v == 1) {
            second = {};  // dropped while the walk of its snapshot goes on
            auto late = Delegate<void(int)>::Create(
                [&](int w) { log.push_back("added " + std::to_string(w)); });
            added = observable->Add(late.GetValue()).GetValue();
        }
    });
    auto other =
        Delegate<void(int)>::Create([&](int v) { log.push_back("second " + std::to_string(v)); });
    first = observable->Add(addOne.GetValue()).GetValue();
    second = observable->Add(other.GetValue()).GetValue();
    observable->Notify(1);
    observable->Notify(2);
    // The walk of 1 saw the old map, but the dropped record was silenced at once.
    EXPECT_EQ(log, (std::vector<std::string>{"first 1", "first 2", "added 2"}));
    EXPECT_EQ(observable->GetCount(), 2);
}

TEST(NodeSpaceObservers, OutOfMemoryAddsNone) {
    auto observable = RaiiObservable<int>::Create().GetValue();
    int calls = 0;
    auto d = Delegate<void(int)>::Create([&](int) { ++calls; }).GetValue();
    ObserverHandleRef present = observable->Add(d).GetValue();
    int failures = 0;
    for (Int n = 1;; ++n) {
        ASSERT_LT(n, 100);
        host::Host::Get().FailAllocationAfter(n);
        Result<ObserverHandleRef> h = observable->Add(d);
        const bool failed = !host::Host::Get().IsAllocationFailurePending();
        host::Host::Get().FailAllocationAfter(0);
        if (!failed) {
            ASSERT_TRUE(h.IsOk());
            EXPECT_EQ(observable->GetCount(), 2);
            break;
        }
        ++failures;
        ASSERT_TRUE(h.IsError()) << "allocation " << n << " failed unnoticed";
        EXPECT_EQ(h.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY);
        EXPECT_EQ(observable->GetCount(), 1) << "allocation " << n;
        calls = 0;
        observable->Notify(0);
        EXPECT_EQ(calls, 1) << "only the observer added before is called";
    }
    // The record, the handle and the map's node at least (the weak block came with the first).
    EXPECT_GE(failures, 3);
}

// ---- registry, helpers, serialisation, attribute ------------------------------------------

// Registers folders of tests/data for one test and forgets them at its end, so that tests in
// one process see only their own.
class DescriptionFolders {
public:
    ~DescriptionFolders() {
        for (const std::string& id : _ids) host::UnregisterDescriptionFolder(id);
    }
    void Add(const char* folder) {
        const std::string id = std::string("net.quorv.test.") + folder;
        ASSERT_TRUE(
            host::RegisterDescriptionFolder(id, std::string(QUORV_TEST_DATA_DIR) + "/" + folder)
                .IsOk());
        _ids.push_back(id);
    }

private:
    std::vector<std::string> _ids;
};

TEST(NodeSpaceRegistry, SpacesAreObjectsOfTheHostRegistryBySpaceId) {
    const Id plain = Id::Intern(PLAIN);
    EXPECT_TRUE(
        NodeSpaceHelpersInterface::GetNodeSpaceData(Id::Intern("net.quorv.unknown")).IsNull());
    NodeSpaceInterface::Ref space = MakeSpace(PLAIN);
    ASSERT_TRUE(space.Init(Dict()).IsOk());
    // Registered as any module does: an object reference in the registry, by space id.
    ASSERT_TRUE(RegistryInterface::InsertEntry(LiteralId(NODESPACE_REGISTRY_ID), LiteralId(PLAIN),
                                               Data::Of(space.GetObject()))
                    .IsOk());
    EXPECT_EQ(NodeSpaceHelpersInterface::GetNodeSpaceData(plain).GetObject(),
              space.GetData().GetObject());
    Data entry;
    ASSERT_TRUE(RegistryInterface::FindEntryValue(LiteralId(NODESPACE_REGISTRY_ID),
                                                  LiteralId(PLAIN), &entry));
    ASSERT_NE(entry.Get<ObjectRef>(), nullptr);
    EXPECT_EQ(entry.Get<ObjectRef>()->Get(), space.GetObject().Get());
    // A second space under one id is the registry's error; the first stays.
    NodeSpaceInterface::Ref other = MakeSpace(PLAIN);
    ASSERT_TRUE(other.Init(With(Dict(), nodespacekey::SPACENAME, std::string("Other"))).IsOk());
    Result<void> twice = RegisterNodeSpace(plain, other);
    ASSERT_TRUE(twice.IsError());
    EXPECT_EQ(Text(twice.GetErrorPointer()),
              std::string("Entry ") + PLAIN + " already in registry " + NODESPACE_REGISTRY_ID);
    EXPECT_EQ(NodeSpaceHelpersInterface::GetNodeSpaceData(plain).GetObject(),
              space.GetData().GetObject());
    EXPECT_TRUE(UnregisterNodeSpace(plain));
    EXPECT_FALSE(UnregisterNodeSpace(plain));
    EXPECT_TRUE(NodeSpaceHelpersInterface::GetNodeSpaceData(plain).IsNull());
    // An entry that holds no node space gives an empty dictionary too.
    ASSERT_TRUE(RegistryInterface::InsertEntry(LiteralId(NODESPACE_REGISTRY_ID), LiteralId(PLAIN),
                                               Data::Of(Int(3)))
                    .IsOk());
    EXPECT_TRUE(NodeSpaceHelpersInterface::GetNodeSpaceData(plain).IsNull());
    EXPECT_TRUE(UnregisterNodeSpace(plain));
    ASSERT_TRUE(RegisterNodeSpace(plain, other).IsOk());
    EXPECT_EQ(NodeSpaceHelpersInterface::GetNodeSpaceData(plain).Get<std::string>(
                  nodespacekey::SPACENAME, ""),
              "Other");
    EXPECT_TRUE(UnregisterNodeSpace(plain));
}

TEST(NodeSpaceHelpers, TranslatedNamesOfDescriptions) {
    EXPECT_TRUE(NodeSpaceHelpersInterface::LoadDescription(Id()).GetValue().IsNull());
    DescriptionFolders folders;
    folders.Add("nodes");
    Result<DataDictionary> named =
        NodeSpaceHelpersInterface::LoadDescription(Id::Intern("net.quorv.test.spacedescription"));
    ASSERT_TRUE(named.IsOk()) << ErrorToString(named.GetErrorPointer());
    EXPECT_EQ(named.GetValue().Get<std::string>(nodespacekey::SPACENAME, "?"), "Test Space");
    EXPECT_EQ(named.GetValue().GetCount(), 1);
    Result<DataDictionary> nameless = NodeSpaceHelpersInterface::LoadDescription(
        Id::Intern("net.quorv.test.namelessdescription"));
    ASSERT_TRUE(nameless.IsOk());
    EXPECT_EQ(nameless.GetValue().Get<std::string>(nodespacekey::SPACENAME, "?"), "");
    Result<DataDictionary> missing =
        NodeSpaceHelpersInterface::LoadDescription(Id::Intern("net.quorv.test.absent"));
    ASSERT_TRUE(missing.IsError());
    const std::string text = Text(missing.GetErrorPointer());
    EXPECT_NE(text.find("net.quorv.test.absent"), std::string::npos) << text;
    EXPECT_NE(text.find("category string"), std::string::npos) << text;
    EXPECT_NE(text.find("string/en/net.quorv.test.absent.json"), std::string::npos) << text;
}

TEST(NodeSpaceSerialisation, NodeSpacesRefuseToBeStored) {
    NodeSpaceInterface::Ref space = MakeSpace(PLAIN);
    ASSERT_TRUE(space.Init(Dict()).IsOk());
    Result<CStringObject*> written =
        DataSerializeInterface::WriteObjectJson(space.GetObject().Get());
    ASSERT_TRUE(written.IsError());
    EXPECT_EQ(written.GetErrorPointer()->id, LiteralId("net.quorv.error.unsupportedoperation"));
    EXPECT_EQ(Text(written.GetErrorPointer()), "Can't serialize node spaces.");
    Result<void> read = DataSerializeInterface::ReadObjectJson(space.GetObject().Get(), "{}", 2);
    ASSERT_TRUE(read.IsError());
    EXPECT_EQ(Text(read.GetErrorPointer()), "Can't serialize node spaces.");
}

TEST(NodeSpaceAttribute, TheContextAttributeIsDeclaredWithDictionaryValues) {
    int found = 0;
    for (const host::AttributeListing& a : host::Host::Get().ListAttributes()) {
        if (a.id != nodespacekey::NODESPACECONTEXT) continue;
        ++found;
        EXPECT_EQ(a.typeId, "net.quorv.datadictionary");
    }
    EXPECT_EQ(found, 1);
}

// ---- the default exchange --------------------------------------------------------------------

MaterialExchangeInterface::Ref MakeExchange() {
    Result<ObjectRef> o = CreateObjectById(LiteralId(MATERIALEXCHANGE_REGISTRY_ID),
                                           LiteralId(MATERIALEXCHANGE_DEFAULT_CLASS_ID));
    EXPECT_TRUE(o.IsOk());
    return MaterialExchangeInterface::Ref::Cast(o.GetValue()).GetValue();
}

const PackedMaterialParameter* Parameter(const DataDictionary& d, const char* key) {
    static thread_local Data held;
    held = d.GetData(key);
    return held.Get<PackedMaterialParameter>();
}

// Each test starts the description cache as a fresh load of the module does.
class MaterialExchangeDefault : public ::testing::Test {
protected:
    void SetUp() override { StartMaterialParameterCache(); }
    DescriptionFolders folders;
};

TEST_F(MaterialExchangeDefault, ParametersOfTheViewportDescription) {
    MaterialExchangeInterface::Ref exchange = MakeExchange();
    Result<void> other = exchange.Initialize(ObjectRef(), Id::Intern("net.quorv.other.bundle"));
    ASSERT_TRUE(other.IsError());
    EXPECT_EQ(Text(other.GetErrorPointer()),
              "Illegal argument: Condition materialType == viewportMaterialId not fulfilled. ");
    EXPECT_TRUE(exchange.Initialize(ObjectRef(), Id::Intern(VIEWPORTMATERIAL_ID)).IsOk());

    // Without a database holding the description, the load fails and nothing is cached.
    Result<DataDictionary> failed = exchange.GetMaterialParameters();
    ASSERT_TRUE(failed.IsError());
    EXPECT_NE(Text(failed.GetErrorPointer()).find(VIEWPORTMATERIAL_ID), std::string::npos);
    folders.Add("nodes");

    Result<DataDictionary> got = exchange.GetMaterialParameters();
    ASSERT_TRUE(got.IsOk()) << ErrorToString(got.GetErrorPointer());
    const DataDictionary p = got.GetValue();
    // Inputs only: the output and the unclassified entry are left out; the duplicate id once.
    EXPECT_EQ(p.GetCount(), 5);
    const PackedMaterialParameter* color = Parameter(p, "net.quorv.viewport.color");
    ASSERT_NE(color, nullptr);
    ASSERT_NE(color->value.Get<Color64>(), nullptr);
    EXPECT_EQ(color->value.Get<Color64>()->r, 0.8);
    EXPECT_EQ(color->value.Get<Color64>()->b, 0.125);
    EXPECT_TRUE(color->flag);
    EXPECT_EQ(color->reference, nullptr);
    // Type defaults where the entry gives none.
    const PackedMaterialParameter* roughness = Parameter(p, "net.quorv.viewport.roughness");
    ASSERT_NE(roughness, nullptr);
    ASSERT_NE(roughness->value.Get<Float64>(), nullptr);
    EXPECT_EQ(*roughness->value.Get<Float64>(), 0.0);
    const PackedMaterialParameter* visible = Parameter(p, "net.quorv.viewport.visible");
    ASSERT_NE(visible, nullptr);
    ASSERT_NE(visible->value.Get<Bool>(), nullptr);
    EXPECT_FALSE(*visible->value.Get<Bool>());
    // A default beside an unknown type id is kept, its type not looked at.
    const PackedMaterialParameter* tag = Parameter(p, "net.quorv.viewport.tag");
    ASSERT_NE(tag, nullptr);
    ASSERT_NE(tag->value.Get<std::string>(), nullptr);
    EXPECT_EQ(*tag->value.Get<std::string>(), "keep");
    // Of two entries with one identifier the later wins.
    const PackedMaterialParameter* layers = Parameter(p, "net.quorv.viewport.layers");
    ASSERT_NE(layers, nullptr);
    ASSERT_NE(layers->value.Get<Int32>(), nullptr);
    EXPECT_EQ(*layers->value.Get<Int32>(), 3);
    EXPECT_EQ(Parameter(p, "net.quorv.viewport.result"), nullptr);
    EXPECT_EQ(Parameter(p, "net.quorv.viewport.note"), nullptr);

    // One shared dictionary for every call and every exchange object.
    EXPECT_EQ(MakeExchange().GetMaterialParameters().GetValue().GetObject(), p.GetObject());
    // The request is left as it is.
    EXPECT_TRUE(
        exchange.ConfigureTextureProviderRequest(PreviewImageRequestInterface::Ref()).IsOk());
}

TEST_F(MaterialExchangeDefault, NoDefaultAndAnUnknownTypeNameBothAndNothingIsCached) {
    folders.Add("nodes_badtype");
    Result<DataDictionary> got = MakeExchange().GetMaterialParameters();
    ASSERT_TRUE(got.IsError());
    EXPECT_EQ(got.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
    EXPECT_EQ(Text(got.GetErrorPointer()),
              "Illegal argument: Unknown data type net.quorv.no.such.type of parameter "
              "net.quorv.viewport.mystery");
    // The failed build left nothing: a good description found later is loaded.
    host::UnregisterDescriptionFolder("net.quorv.test.nodes_badtype");
    folders.Add("nodes");
    Result<DataDictionary> good = MakeExchange().GetMaterialParameters();
    ASSERT_TRUE(good.IsOk()) << ErrorToString(good.GetErrorPointer());
    EXPECT_EQ(good.GetValue().GetCount(), 5);
}

TEST_F(MaterialExchangeDefault, DeactivationIsFinalEvenForACachedDictionary) {
    folders.Add("nodes");
    ASSERT_TRUE(MakeExchange().GetMaterialParameters().IsOk());
    DeactivateMaterialParameterCache();
    Result<DataDictionary> after = MakeExchange().GetMaterialParameters();
    ASSERT_TRUE(after.IsError());
    EXPECT_EQ(after.GetErrorPointer()->kind, ERRORKIND::ILLEGALSTATE);
    EXPECT_EQ(Text(after.GetErrorPointer()),
              "Illegal state: Condition _isActive == true not fulfilled. ");
}

TEST_F(MaterialExchangeDefault, ManyThreadsFirstUseBuildsOnce) {
    folders.Add("nodes");
    std::vector<const DataDictionaryObject*> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] {
            Result<DataDictionary> r = MakeExchange().GetMaterialParameters();
            if (r.IsOk()) seen[i] = r.GetValue().GetObject();
        });
    }
    for (std::thread& t : threads) t.join();
    for (const DataDictionaryObject* d : seen) EXPECT_EQ(d, seen[0]);
    EXPECT_NE(seen[0], nullptr);
}

// ---- the node world ----------------------------------------------------------------------

Data Renderer(const char* id, const char* name) {
    return Data::Of(IdStringTuple{Id::Intern(id), name});
}

Result<void> Send(const char* message, const Data& data) {
    return NodeWorldInterface::QuorvMessage(Id::Intern(message), data);
}

TEST(NodeWorld, RenderersInsertedRenamedErased) {
    FreeNodeWorld();
    std::vector<std::string> events;
    auto observer = RendererObserver::Create([&](const RendererRegistryObserverValue* v, Int n) {
        std::string line = "[";
        for (Int i = 0; i < n; ++i)
            line += std::string(v[i].renderer.View()) + (v[i].inserted ? "+" : "-");
        events.push_back(line + "]");
    });
    ObserverHandleRef h =
        NodeWorldInterface::AddRendererRegistryObserver(observer.GetValue(), true).GetValue();
    ASSERT_TRUE(Send(nodeworldmessage::RENDERERINSERTED, Renderer("r.one", "One")).IsOk());
    ASSERT_TRUE(Send(nodeworldmessage::RENDERERINSERTED, Renderer("r.one", "Uno")).IsOk());
    EXPECT_EQ(NodeWorldInterface::GetRendererName(Id::Intern("r.one")).GetValue(), "Uno");
    ASSERT_TRUE(Send(nodeworldmessage::RENDERERERASED, Data::Of(Id::Intern("r.one"))).IsOk());
    ASSERT_TRUE(Send(nodeworldmessage::RENDERERERASED, Data::Of(Id::Intern("r.never"))).IsOk());
    EXPECT_EQ(NodeWorldInterface::GetRendererName(Id::Intern("r.one")).GetValue(), "");
    EXPECT_EQ(events,
              (std::vector<std::string>{"[]", "[r.one+]", "[r.one+]", "[r.one-]", "[r.never-]"}));
    // Wrong data: the host's type check, nothing changed, nobody told.
    Result<void> wrong = Send(nodeworldmessage::RENDERERINSERTED, Data::Of(Id::Intern("r.two")));
    ASSERT_TRUE(wrong.IsError());
    EXPECT_EQ(wrong.GetErrorPointer()->kind, ERRORKIND::ILLEGALSTATE);
    EXPECT_EQ(events.size(), 5u);
    ASSERT_TRUE(Send(nodeworldmessage::RENDERERINSERTED, Renderer("r.two", "Two")).IsOk());
    std::vector<std::string> late;
    auto second = RendererObserver::Create([&](const RendererRegistryObserverValue* v, Int n) {
        for (Int i = 0; i < n; ++i) late.push_back(std::string(v[i].renderer.View()));
    });
    ObserverHandleRef h2 =
        NodeWorldInterface::AddRendererRegistryObserver(second.GetValue(), true).GetValue();
    EXPECT_EQ(late, std::vector<std::string>{"r.two"});  // the erased one is not listed
    ASSERT_TRUE(Send("net.quorv.nodeworld.quorvmessage.somethingelse", Data()).IsOk());
}

TEST(NodeWorld, ActiveNodeSpaceNotifiesOnlyWhenItDiffers) {
    FreeNodeWorld();
    std::vector<std::string> seen;
    auto observer = NodeSpaceObserver::Create([&](const Id& id) { seen.emplace_back(id.View()); });
    ObserverHandleRef h =
        NodeWorldInterface::AddActiveNodeSpaceObserver(observer.GetValue(), true).GetValue();
    ASSERT_TRUE(Send(nodeworldmessage::NODESPACECHANGED, Data::Of(Id::Intern("s.a"))).IsOk());
    ASSERT_TRUE(Send(nodeworldmessage::NODESPACECHANGED, Data::Of(Id::Intern("s.a"))).IsOk());
    ASSERT_TRUE(Send(nodeworldmessage::NODESPACECHANGED, Data::Of(Id::Intern("s.b"))).IsOk());
    EXPECT_EQ(seen, (std::vector<std::string>{"", "s.a", "s.b"}));
    EXPECT_TRUE(Send(nodeworldmessage::NODESPACECHANGED, Data::Of(std::string("s.c"))).IsError());
    EXPECT_EQ(NodeWorldInterface::GetActiveNodeSpace(), Id::Intern("s.b"));
    // After the free step the state is made anew, empty.
    h = {};
    FreeNodeWorld();
    EXPECT_TRUE(NodeWorldInterface::GetActiveNodeSpace().IsEmpty());
}

DataDictionary Prefs(Bool prefsChanged, DataDictionary prefs, Bool renderChanged,
                     DataDictionary render) {
    DataDictionary m = Dict();
    m = With(m, preferenceskey::PREFERENCES_CHANGED, prefsChanged);
    m = With(m, preferenceskey::RENDERDATA_CHANGED, renderChanged);
    if (!prefs.IsNull()) m = With(m, preferenceskey::PREFERENCES, prefs);
    if (!render.IsNull()) m = With(m, preferenceskey::RENDERDATA, render);
    return m;
}

// The watch test reads values where they are stored; on a host that cannot lend them (the
// dictionary slot left to its stub) it copies, and must decide alike.
TEST(NodeWorld, WatchTest) {
    host::Host::Get().ClearCriticalLog();
    const DataDictionary empty;
    const DataDictionary a1 = With(Dict(), Int(1), Int(10));
    const DataDictionary a2 = With(Dict(), Int(1), Int(11));
    const DataDictionary a1b = With(With(Dict(), Int(1), Int(10)), Int(2), Int(5));
    const DataDictionary sub1 = With(Dict(), Int(7), With(Dict(), Int(3), 1.5));
    const DataDictionary sub2 = With(Dict(), Int(7), With(Dict(), Int(3), 2.5));
    const DataDictionary sub1b =
        With(With(Dict(), Int(7), With(Dict(), Int(3), 1.5)), Int(1), Int(0));
    const DataDictionary notSub = With(Dict(), Int(7), Int(3));
    // A value of a type without comparison (equal or not, it can't tell).
    const DataDictionary packed =
        With(Dict(), Int(1), PackedMaterialParameter{Data::Of(1.0), true, nullptr});
    struct Case {
        const char* name;
        WatchList p, r;
        Bool pc, rc;
        DataDictionary oldP, newP, oldR, newR;
        bool called;
    };
    const WatchList w1 = {{-1, 1}};
    const WatchList w2 = {{-1, 2}};
    const WatchList wsub = {{7, 3}};
    const std::vector<Case> cases = {
        {"two empty lists always", {}, {}, false, false, a1, a1, a1, a1, true},
        {"watched value changed", w1, {}, true, false, a1, a2, empty, empty, true},
        {"watched value equal", w1, {}, true, false, a1, a1b, empty, empty, false},
        {"flag off hides the change", w1, {}, false, true, a1, a2, empty, empty, false},
        {"absent before counts as changed", w2, {}, true, false, a1, a1b, empty, empty, true},
        {"absent now counts as unchanged", w2, {}, true, false, a1b, a1, empty, empty, false},
        {"sub-dictionary entry changed", wsub, {}, true, false, sub1, sub2, empty, empty, true},
        {"render data list with its flag", {}, w1, false, true, empty, empty, a1, a2, true},
        {"sub-dictionary entry equal", wsub, {}, true, false, sub1, sub1b, empty, empty, false},
        {"sub-dictionary absent before", wsub, {}, true, false, a1, sub1, empty, empty, true},
        {"sub-dictionary absent now", wsub, {}, true, false, sub1, a1, empty, empty, false},
        {"not a sub-dictionary now", wsub, {}, true, false, sub1, notSub, empty, empty, false},
        {"not a sub-dictionary before", wsub, {}, true, false, notSub, sub1, empty, empty, true},
        {"no comparison: changed", w1, {}, true, false, packed, packed, empty, empty, true},
        {"empty preferences list, render data unchanged",
         {},
         w1,
         true,
         true,
         a1,
         a2,
         a1,
         a1,
         false},
    };
    using Slot = decltype(DataDictionaryInterface::slots.FindData);
    const Slot lending = DataDictionaryInterface::slots.FindData;
    const auto stub = reinterpret_cast<Slot>(
        DataDictionaryInterface::Describe().stubs[DataDictionaryInterface::IDX_FindData]);
    host::Host::Get().ClearCriticalLog();
    for (const Slot slot : {lending, stub}) {
        DataDictionaryInterface::slots.FindData = slot;
        for (const Case& c : cases) {
            EXPECT_EQ(IsWatchedChange(c.p, c.r, c.pc, c.rc, c.oldP, c.newP, c.oldR, c.newR),
                      c.called)
                << c.name << (slot == stub ? " (copying)" : "");
        }
    }
    DataDictionaryInterface::slots.FindData = lending;
    // A watched value that can't compare is a change, not a stop of its type's comparison.
    for (const std::string& m : host::Host::Get().GetCriticalLog()) ADD_FAILURE() << m;
}

TEST(NodeWorld, PreferencesStoredAndWatched) {
    FreeNodeWorld();
    int watching = 0, all = 0, first = 0;
    DataDictionary lastPrefs, lastRender;
    auto w = PreferencesObserver::Create([&](const DataDictionary& p, const DataDictionary& r) {
        ++watching;
        lastPrefs = p;
        lastRender = r;
    });
    auto a = PreferencesObserver::Create([&](const DataDictionary& p, const DataDictionary&) {
        if (all++ == 0) first = static_cast<int>(p.GetCount());
    });
    ObserverHandleRef hw = NodeWorldInterface::AddActivePreferencesObserver(
                               w.GetValue(), false, WatchList{{-1, 1}}, WatchList{})
                               .GetValue();
    ObserverHandleRef ha =
        NodeWorldInterface::AddActivePreferencesObserver(a.GetValue(), true, {}, {}).GetValue();
    EXPECT_EQ(all, 1);  // callNow with the empty dictionaries
    EXPECT_EQ(first, 0);
    const DataDictionary p1 = With(Dict(), Int(1), Int(10));
    const DataDictionary r1 = With(Dict(), Int(4), Int(40));
    // Only render data flagged: the preferences are stored all the same.
    ASSERT_TRUE(
        Send(nodeworldmessage::PREFERENCESCHANGED, Data::Of(Prefs(false, p1, true, r1))).IsOk());
    EXPECT_EQ(watching, 0);
    EXPECT_EQ(all, 2);
    // Both flags false: nothing happens.
    ASSERT_TRUE(Send(nodeworldmessage::PREFERENCESCHANGED,
                     Data::Of(Prefs(false, With(Dict(), Int(1), Int(99)), false, r1)))
                    .IsOk());
    EXPECT_EQ(all, 2);
    // The stored preferences were p1: the same value again does not call the watcher.
    ASSERT_TRUE(Send(nodeworldmessage::PREFERENCESCHANGED,
                     Data::Of(Prefs(true, With(Dict(), Int(1), Int(10)), false, r1)))
                    .IsOk());
    EXPECT_EQ(watching, 0);
    ASSERT_TRUE(Send(nodeworldmessage::PREFERENCESCHANGED,
                     Data::Of(Prefs(true, With(Dict(), Int(1), Int(12)), false, DataDictionary())))
                    .IsOk());
    EXPECT_EQ(watching, 1);
    EXPECT_EQ(lastPrefs.Get<Int>(Int(1), 0), 12);
    EXPECT_EQ(lastRender.GetCount(), 0);  // a missing dictionary stores the empty one
    Result<void> wrong = Send(nodeworldmessage::PREFERENCESCHANGED, Data::Of(Int(3)));
    ASSERT_TRUE(wrong.IsError());
    EXPECT_EQ(wrong.GetErrorPointer()->kind, ERRORKIND::ILLEGALSTATE);
    EXPECT_EQ(all, 4);
}

// ---- threads -------------------------------------------------------------------------------

TEST(NodeWorldThreads, RendererChurnAgainstReadersAndCallNowObservers) {
    FreeNodeWorld();
    std::atomic<bool> stop{false};
    std::atomic<Int> calls{0};
    const char* names[] = {"Alpha", "Beta", "Gamma"};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (int i = 0; i < 2000; ++i) {
            const std::string id = "r." + std::to_string(i % 7);
            if (i % 3 == 2) {
                (void)Send(nodeworldmessage::RENDERERERASED, Data::Of(Id::Intern(id)));
            } else {
                (void)Send(nodeworldmessage::RENDERERINSERTED, Renderer(id.c_str(), names[i % 3]));
            }
        }
        stop = true;
    });
    threads.emplace_back([&] {
        while (!stop) {
            Result<std::string> n = NodeWorldInterface::GetRendererName(Id::Intern("r.1"));
            const std::string s = n.IsOk() ? n.GetValue() : "error";
            EXPECT_TRUE(s.empty() || s == "Alpha" || s == "Beta" || s == "Gamma") << s;
        }
    });
    threads.emplace_back([&] {
        auto d = RendererObserver::Create(
            [&](const RendererRegistryObserverValue*, Int n) { calls += n > 0 ? 1 : 0; });
        while (!stop) {
            ObserverHandleRef h =
                NodeWorldInterface::AddRendererRegistryObserver(d.GetValue(), true).GetValue();
        }
    });
    for (std::thread& t : threads) t.join();
    SUCCEED() << calls.load();
}

// Threads that bring one new name at once: the name is made once and published whole. The
// thread sanitizer sees a text written while another thread reads or writes it; nothing between
// the threads' sends orders them (the ids are made beforehand, the names read afterwards).
TEST(NodeWorldThreads, ANewNameBroughtByManyThreadsAtOnce) {
    FreeNodeWorld();
    static std::atomic<int> runs{0};
    const std::string prefix = "Name " + std::to_string(runs++) + " of round ";
    constexpr int THREADS = 4, ROUNDS = 300;
    std::vector<Data> messages;  // [round * THREADS + thread]
    for (int round = 0; round < ROUNDS; ++round) {
        const std::string name = prefix + std::to_string(round);
        for (int t = 0; t < THREADS; ++t) {
            messages.push_back(Renderer(("r.same." + std::to_string(t)).c_str(), name.c_str()));
        }
    }
    const Id inserted = Id::Intern(nodeworldmessage::RENDERERINSERTED);
    std::barrier start(THREADS);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < ROUNDS; ++round) {
                start.arrive_and_wait();
                EXPECT_TRUE(
                    NodeWorldInterface::QuorvMessage(inserted, messages[round * THREADS + t])
                        .IsOk());
            }
        });
    }
    for (std::thread& t : threads) t.join();
    for (int t = 0; t < THREADS; ++t) {
        EXPECT_EQ(NodeWorldInterface::GetRendererName(Id::Intern("r.same." + std::to_string(t)))
                      .GetValue(),
                  prefix + std::to_string(ROUNDS - 1));
    }
}

// Observers come and go while SetData walks them. They are added without callNow: a space's
// data is not read while it is replaced elsewhere (GetData and SetData take no lock).
TEST(NodeSpaceThreads, SetDataAgainstObserverChurn) {
    NodeSpaceInterface::Ref space = MakeSpace(PLAIN);
    ASSERT_TRUE(space.Init(Dict()).IsOk());
    std::atomic<Int> last{-1};
    auto steady = DataChangedObserver::Create([&](const DataDictionary& dd) {
        const Int v = dd.Get<Int>(Int(1), -2);
        EXPECT_EQ(v, last.load() + 1) << "each value once, in order";
        last = v;
    });
    ObserverHandleRef kept = space.AddDataChangedObserver(steady.GetValue(), false).GetValue();
    std::atomic<bool> stop{false};
    std::atomic<Int> churnCalls{0};
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i) space.SetData(With(Dict(), Int(1), Int(i)));
        stop = true;
    });
    std::thread churn([&] {
        auto d = DataChangedObserver::Create([&](const DataDictionary&) { ++churnCalls; });
        while (!stop) {
            ObserverHandleRef h = space.AddDataChangedObserver(d.GetValue(), false).GetValue();
        }
    });
    writer.join();
    churn.join();
    EXPECT_EQ(last.load(), 1999);
    kept = {};
    space.SetData(Dict());
    EXPECT_EQ(last.load(), 1999) << "a dropped handle ends the subscription";
}

TEST(NodeWorldThreads, FirstUseOfAStateFromManyThreadsMakesOne) {
    FreeNodeWorld();
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([i] {
            (void)Send(nodeworldmessage::RENDERERINSERTED,
                       Renderer(("r.t" + std::to_string(i)).c_str(), "T"));
        });
    }
    for (std::thread& t : threads) t.join();
    // Had two threads made a state each, one of them would hold fewer than six renderers.
    std::vector<std::string> listed;
    auto d = RendererObserver::Create([&](const RendererRegistryObserverValue* v, Int n) {
        for (Int k = 0; k < n; ++k) listed.emplace_back(v[k].renderer.View());
    });
    ObserverHandleRef h =
        NodeWorldInterface::AddRendererRegistryObserver(d.GetValue(), true).GetValue();
    EXPECT_EQ(listed.size(), 6u);
}

}  // namespace
}  // namespace quorv::nodes
