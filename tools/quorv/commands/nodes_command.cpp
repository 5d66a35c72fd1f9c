// quorv nodes: the default material exchange and the node world, through the loaded module.
//
//   exchange [--descriptions DIR] [--json]   the exchange's parameters of the viewport material
//   world [--descriptions DIR]               JSON lines on stdin, one result line each:
//     {"send": MSG, "data": D}   a message (short names get the node world prefix)
//     {"observe": "renderers|preferences|nodespace", "name": N, "callNow": b,
//      "watch": {"preferences": [[group, key], ...], "renderdata": [...]}}
//     {"drop": N}   {"state": true}   {"parameters": true}
// Observer calls print {"event": KIND, "observer": N, ...} as they run. The session starts with
// a callNow observer of each kind, named after the kind.
#include <cstdio>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "quorv/host/warnings.h"
#include "render/nodes/node_spaces.h"
#include "render/nodes/node_world.h"

namespace quorv::cli {

namespace {

using nlohmann::json;
using namespace quorv::nodes;

json ToJson(const Data& d);

json DictionaryToJson(const DataDictionary& d) {
    json out = json::object();
    const DataDictionaryObject* o = d.GetReadable();
    if (!o) return out;
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(o, &it);
    for (; DataDictionaryInterface::IteratorHasValue(&it);
         DataDictionaryInterface::IteratorMoveToNext(&it)) {
        DataDictionaryKey key;
        Data value;
        DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value);
        out[key.ToString()] = ToJson(value);
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    return out;
}

json ToJson(const Data& d) {
    if (d.IsEmpty()) return nullptr;
    if (auto v = d.Get<Bool>()) return *v;
    if (auto v = d.Get<Int>()) return *v;
    if (auto v = d.Get<Int32>()) return *v;
    if (auto v = d.Get<Float64>()) return *v;
    if (auto v = d.Get<Float32>()) return *v;
    if (auto v = d.Get<std::string>()) return *v;
    if (auto v = d.Get<Id>()) return std::string(v->View());
    if (auto v = d.Get<Color64>()) return json::array({v->r, v->g, v->b});
    if (auto v = d.Get<Vector64>()) return json::array({v->x, v->y, v->z});
    if (auto v = d.Get<DataDictionary>()) return DictionaryToJson(*v);
    if (auto v = d.Get<PackedMaterialParameter>()) return ToJson(v->value);
    return std::string("<") + std::string(d.GetType()->id.View()) + ">";
}

std::string TypeName(const Data& d) {
    if (auto v = d.Get<PackedMaterialParameter>()) return TypeName(v->value);
    return d.IsEmpty() ? "none" : std::string(d.GetType()->id.View());
}

// A JSON value as message data: objects become dictionaries with integer keys where the key
// is a number, text keys otherwise.
Result<Data> FromJson(const json& v) {
    if (v.is_boolean()) return Data::Of<Bool>(v.get<bool>());
    if (v.is_number_integer()) return Data::Of<Int>(v.get<Int>());
    if (v.is_number()) return Data::Of<Float64>(v.get<double>());
    if (v.is_string()) return Data::Of<std::string>(v.get<std::string>());
    if (v.is_object()) {
        Result<DataDictionary> d = DataDictionary::Create();
        if (d.IsError()) return d.GetError();
        DataDictionary dict = d.GetValue();
        for (auto it = v.begin(); it != v.end(); ++it) {
            Result<Data> value = FromJson(*it);
            if (value.IsError()) return value.GetError();
            const std::string& k = it.key();
            const bool number =
                !k.empty() && k.find_first_not_of("-0123456789") == std::string::npos;
            Result<void> r =
                number ? dict.SetData(DataDictionaryKey(Int(std::stoll(k))), value.GetValue())
                       : dict.SetData(LiteralId(k.c_str()), value.GetValue());
            if (r.IsError()) return r.GetError();
        }
        return Data::Of(dict);
    }
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, "no data for " + v.dump());
}

Result<Data> MessageData(const std::string& message, const json& data) {
    if (data.is_null()) return Data();
    if (message == nodeworldmessage::RENDERERINSERTED && data.is_array() && data.size() == 2 &&
        data[0].is_string() && data[1].is_string()) {
        return Data::Of(
            IdStringTuple{Id::Intern(data[0].get<std::string>()), data[1].get<std::string>()});
    }
    if ((message == nodeworldmessage::RENDERERERASED ||
         message == nodeworldmessage::NODESPACECHANGED) &&
        data.is_string()) {
        return Data::Of(Id::Intern(data.get<std::string>()));
    }
    return FromJson(data);
}

void Print(const json& j) { std::cout << j.dump() << std::endl; }

bool RegisterDescriptions(const std::string& dir) {
    if (dir.empty()) return true;
    Result<void> r = host::RegisterDescriptionFolder("net.quorv.cli.descriptions", dir);
    if (r.IsError())
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(r.GetErrorPointer()).c_str());
    return r.IsOk();
}

Result<DataDictionary> Parameters() {
    Result<ObjectRef> o = CreateObjectById(LiteralId(MATERIALEXCHANGE_REGISTRY_ID),
                                           LiteralId(MATERIALEXCHANGE_DEFAULT_CLASS_ID));
    if (o.IsError()) return o.GetError();
    Result<MaterialExchangeInterface::Ref> e = MaterialExchangeInterface::Ref::Cast(o.GetValue());
    if (e.IsError()) return e.GetError();
    QUORV_RETURN_IF_ERROR(e.GetValue().Initialize(ObjectRef(), Id::Intern(VIEWPORTMATERIAL_ID)));
    return e.GetValue().GetMaterialParameters();
}

int RunExchange(const GlobalOptions& global, const std::string& descriptions, bool asJson) {
    if (!StartHost(global) || !RegisterDescriptions(descriptions)) return 1;
    Result<DataDictionary> p = Parameters();
    if (p.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(p.GetErrorPointer()).c_str());
        return 1;
    }
    json rows = json::array();
    const DataDictionaryObject* o = p.GetValue().GetReadable();
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(o, &it);
    for (; DataDictionaryInterface::IteratorHasValue(&it);
         DataDictionaryInterface::IteratorMoveToNext(&it)) {
        DataDictionaryKey key;
        Data value;
        DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value);
        rows.push_back(
            {{"key", key.ToString()}, {"type", TypeName(value)}, {"value", ToJson(value)}});
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    if (asJson) {
        Print(rows);
    } else {
        std::printf("key | type | value\n");
        for (const json& r : rows)
            std::printf("%s | %s | %s\n", r["key"].get<std::string>().c_str(),
                        r["type"].get<std::string>().c_str(), r["value"].dump().c_str());
    }
    return 0;
}

class WorldSession {
public:
    Result<void> Observe(const std::string& kind, const std::string& name, bool callNow,
                         const json& watch) {
        Result<ObserverHandleRef> h = Result<ObserverHandleRef>(ObserverHandleRef());
        if (kind == "renderers") {
            auto d =
                RendererObserver::Create([name](const RendererRegistryObserverValue* v, Int n) {
                    json list = json::array();
                    for (Int i = 0; i < n; ++i)
                        list.push_back({{"renderer", std::string(v[i].renderer.View())},
                                        {"inserted", v[i].inserted}});
                    Print({{"event", "renderers"}, {"observer", name}, {"renderers", list}});
                });
            if (d.IsError()) return d.GetError();
            h = NodeWorldInterface::AddRendererRegistryObserver(d.GetValue(), callNow);
        } else if (kind == "preferences") {
            auto d = PreferencesObserver::Create(
                [name](const DataDictionary& p, const DataDictionary& r) {
                    Print({{"event", "preferences"},
                           {"observer", name},
                           {"preferences", DictionaryToJson(p)},
                           {"renderdata", DictionaryToJson(r)}});
                });
            if (d.IsError()) return d.GetError();
            WatchList p, r;
            auto list = [](const json& j, WatchList& out) {
                if (!j.is_array()) return;
                for (const json& e : j)
                    if (e.is_array() && e.size() == 2)
                        out.push_back({e[0].get<Int>(), e[1].get<Int>()});
            };
            if (watch.is_object()) {
                if (watch.contains("preferences")) list(watch["preferences"], p);
                if (watch.contains("renderdata")) list(watch["renderdata"], r);
            }
            h = NodeWorldInterface::AddActivePreferencesObserver(d.GetValue(), callNow, p, r);
        } else if (kind == "nodespace") {
            auto d = NodeSpaceObserver::Create([name](const Id& id) {
                Print({{"event", "nodespace"},
                       {"observer", name},
                       {"space", std::string(id.View())}});
            });
            if (d.IsError()) return d.GetError();
            h = NodeWorldInterface::AddActiveNodeSpaceObserver(d.GetValue(), callNow);
        } else {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "Unknown observer kind " + kind);
        }
        if (h.IsError()) return h.GetError();
        _handles[name] = h.GetValue();
        return OK;
    }

    json Line(const json& in) {
        if (in.contains("send")) {
            std::string message = in["send"].get<std::string>();
            if (message.find('.') == std::string::npos)
                message = nodeworldmessage::PREFIX + message;
            Result<Data> data = MessageData(message, in.value("data", json()));
            if (data.IsError()) return Error(data.GetErrorPointer());
            Result<void> r = NodeWorldInterface::QuorvMessage(Id::Intern(message), data.GetValue());
            if (r.IsError()) return Error(r.GetErrorPointer());
            return {{"ok", true}};
        }
        if (in.contains("observe")) {
            Result<void> r =
                Observe(in["observe"].get<std::string>(), in.value("name", std::string()),
                        in.value("callNow", false), in.value("watch", json()));
            if (r.IsError()) return Error(r.GetErrorPointer());
            return {{"ok", true}};
        }
        if (in.contains("drop")) {
            const bool known = _handles.erase(in["drop"].get<std::string>()) > 0;
            return {{"ok", known}};
        }
        if (in.contains("state")) {
            json renderers = json::array();
            auto d = RendererObserver::Create([&renderers](const RendererRegistryObserverValue* v,
                                                           Int n) {
                for (Int i = 0; i < n; ++i) {
                    Result<std::string> name = NodeWorldInterface::GetRendererName(v[i].renderer);
                    renderers.push_back({{"renderer", std::string(v[i].renderer.View())},
                                         {"name", name.IsOk() ? name.GetValue() : ""}});
                }
            });
            json prefs, render;
            auto p =
                PreferencesObserver::Create([&](const DataDictionary& a, const DataDictionary& b) {
                    prefs = DictionaryToJson(a);
                    render = DictionaryToJson(b);
                });
            if (d.IsError() || p.IsError()) return {{"error", "out of memory"}};
            {
                auto h1 = NodeWorldInterface::AddRendererRegistryObserver(d.GetValue(), true);
                auto h2 =
                    NodeWorldInterface::AddActivePreferencesObserver(p.GetValue(), true, {}, {});
            }
            return {{"renderers", renderers},
                    {"preferences", prefs},
                    {"renderdata", render},
                    {"activespace", std::string(NodeWorldInterface::GetActiveNodeSpace().View())}};
        }
        if (in.contains("parameters")) {
            Result<DataDictionary> p = Parameters();
            if (p.IsError()) return Error(p.GetErrorPointer());
            return {{"parameters", DictionaryToJson(p.GetValue())}};
        }
        return {{"error", "unknown request"}};
    }

    void DropAll() { _handles.clear(); }

private:
    static json Error(const ErrorObject* e) { return {{"error", ErrorToString(e)}}; }
    std::map<std::string, ObserverHandleRef> _handles;
};

int RunWorld(const GlobalOptions& global, const std::string& descriptions) {
    if (!StartHost(global) || !RegisterDescriptions(descriptions)) return 1;
    WorldSession session;
    for (const char* kind : {"renderers", "preferences", "nodespace"}) {
        Result<void> r = session.Observe(kind, kind, true, json());
        if (r.IsError()) {
            std::fprintf(stderr, "quorv: %s\n", ErrorToString(r.GetErrorPointer()).c_str());
            return 1;
        }
    }
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line.empty()) continue;
        json in = json::parse(line, nullptr, false);
        if (!in.is_object()) {
            Print({{"error", "not a JSON object"}});
            continue;
        }
        Print(session.Line(in));
    }
    // Handles run module code when dropped: drop them while the module is loaded.
    session.DropAll();
    return 0;
}

}  // namespace

void AddNodesCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static std::string descriptions;
    static bool asJson = false;
    CLI::App* cmd =
        app.add_subcommand("nodes", "Node spaces' default material exchange and the node world");
    cmd->require_subcommand(1);
    CLI::App* exchange = cmd->add_subcommand(
        "exchange",
        "Parameters of the viewport material from the default exchange: key | type | value");
    exchange->add_option("--descriptions", descriptions, "Folder of data descriptions to register");
    exchange->add_flag("--json", asJson, "One JSON array instead of the table");
    exchange->callback([&] { run = [&] { return RunExchange(options, descriptions, asJson); }; });
    CLI::App* world = cmd->add_subcommand(
        "world", "Replays a node world session: JSON lines on stdin, events and results on stdout");
    world->add_option("--descriptions", descriptions, "Folder of data descriptions to register");
    world->callback([&] { run = [&] { return RunWorld(options, descriptions); }; });
}

}  // namespace quorv::cli
