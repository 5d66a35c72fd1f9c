// The node world and the description cache across a real unload and load of the built library.
// "unload" is final for one load, and a load after an unload starts fresh: both need the module
// loaded and unloaded for real, so this binary holds this one test.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/host/warnings.h"
#include "render/nodes/node_spaces.h"
#include "render/nodes/node_world.h"

namespace quorv::nodes {
namespace {

std::string Text(const ErrorObject* e) { return e && e->message ? e->message : ""; }

Result<void> Send(const char* message, const Data& data) {
    return NodeWorldInterface::QuorvMessage(Id::Intern(message), data);
}

Result<DataDictionary> Parameters() {
    Result<ObjectRef> o = CreateObjectById(LiteralId(MATERIALEXCHANGE_REGISTRY_ID),
                                           LiteralId(MATERIALEXCHANGE_DEFAULT_CLASS_ID));
    if (o.IsError()) return o.GetError();
    Result<MaterialExchangeInterface::Ref> e = MaterialExchangeInterface::Ref::Cast(o.GetValue());
    if (e.IsError()) return e.GetError();
    return e.GetValue().GetMaterialParameters();
}

// What the node world holds, as callNow observers see it.
struct Seen {
    std::vector<std::string> renderers;
    Int preferenceCount = -1;
    std::string space = "?";
};

Seen Look() {
    Seen seen;
    auto r = RendererObserver::Create([&](const RendererRegistryObserverValue* v, Int n) {
        for (Int i = 0; i < n; ++i) seen.renderers.emplace_back(v[i].renderer.View());
    });
    auto p = PreferencesObserver::Create([&](const DataDictionary& d, const DataDictionary&) {
        seen.preferenceCount = d.GetCount();
    });
    auto s = NodeSpaceObserver::Create([&](const Id& id) { seen.space = std::string(id.View()); });
    {
        // The handles go before this returns: dropping one runs module code.
        Result<ObserverHandleRef> h1 =
            NodeWorldInterface::AddRendererRegistryObserver(r.GetValue(), true);
        Result<ObserverHandleRef> h2 =
            NodeWorldInterface::AddActivePreferencesObserver(p.GetValue(), true, {}, {});
        Result<ObserverHandleRef> h3 =
            NodeWorldInterface::AddActiveNodeSpaceObserver(s.GetValue(), true);
        EXPECT_TRUE(h1.IsOk() && h2.IsOk() && h3.IsOk());
    }
    return seen;
}

TEST(NodesReload, UnloadIsFinalForOneLoadAndAReloadStartsFresh) {
    host::Host& h = host::Host::Get();
    ASSERT_TRUE(host::RegisterDescriptionFolder("net.quorv.test.nodes",
                                                std::string(QUORV_TEST_DATA_DIR) + "/nodes")
                    .IsOk());
    Result<host::LoadedModule*> first = h.LoadModule(QUORV_MODULE_PATH);
    ASSERT_TRUE(first.IsOk()) << ErrorToString(first.GetErrorPointer());

    ASSERT_TRUE(Send(nodeworldmessage::RENDERERINSERTED,
                     Data::Of(IdStringTuple{Id::Intern("r.kept"), "Kept"}))
                    .IsOk());
    DataDictionary prefs = DataDictionary::Create().GetValue();
    ASSERT_TRUE(prefs.SetData(Int(1), Data::Of(Int(5))).IsOk());
    DataDictionary message = DataDictionary::Create().GetValue();
    ASSERT_TRUE(message.SetData(preferenceskey::PREFERENCES_CHANGED, Data::Of(Bool(true))).IsOk());
    ASSERT_TRUE(message.SetData(preferenceskey::PREFERENCES, Data::Of(prefs)).IsOk());
    ASSERT_TRUE(Send(nodeworldmessage::PREFERENCESCHANGED, Data::Of(message)).IsOk());
    ASSERT_TRUE(Send(nodeworldmessage::NODESPACECHANGED, Data::Of(Id::Intern("s.active"))).IsOk());
    Result<DataDictionary> cached = Parameters();
    ASSERT_TRUE(cached.IsOk()) << ErrorToString(cached.GetErrorPointer());
    EXPECT_EQ(cached.GetValue().GetCount(), 5);
    cached = Result<DataDictionary>(DataDictionary());  // its values are of the module's type

    // "unload" closes the cache for good, even though the dictionary was cached, and leaves
    // the node world's states as they were.
    ASSERT_TRUE(Send(nodeworldmessage::UNLOAD, Data()).IsOk());
    Result<DataDictionary> closed = Parameters();
    ASSERT_TRUE(closed.IsError());
    EXPECT_EQ(Text(closed.GetErrorPointer()),
              "Illegal state: Condition _isActive == true not fulfilled. ");
    const Seen before = Look();
    EXPECT_EQ(before.renderers, std::vector<std::string>{"r.kept"});
    EXPECT_EQ(before.preferenceCount, 1);
    EXPECT_EQ(before.space, "s.active");

    h.UnloadModule(first.GetValue());
    // Unloaded, the node world's slots answer with their zero forms.
    EXPECT_TRUE(Send(nodeworldmessage::NODESPACECHANGED, Data::Of(Id::Intern("s.x"))).IsError());

    Result<host::LoadedModule*> second = h.LoadModule(QUORV_MODULE_PATH);
    ASSERT_TRUE(second.IsOk()) << ErrorToString(second.GetErrorPointer());
    const Seen after = Look();
    EXPECT_TRUE(after.renderers.empty());
    EXPECT_EQ(after.preferenceCount, 0);
    EXPECT_EQ(after.space, "");
    EXPECT_EQ(NodeWorldInterface::GetRendererName(Id::Intern("r.kept")).GetValue(), "");
    Result<DataDictionary> again = Parameters();
    ASSERT_TRUE(again.IsOk()) << ErrorToString(again.GetErrorPointer());
    EXPECT_EQ(again.GetValue().GetCount(), 5);
    again = Result<DataDictionary>(DataDictionary());
    for (const std::string& line : h.GetCriticalLog()) ADD_FAILURE() << line;
    h.UnloadModule(second.GetValue());
}

}  // namespace
}  // namespace quorv::nodes
