// quorv nodes: node spaces, the material exchange of a space and the node world, through the
// loaded module.
//
//   spaces --spaces FILE [--json]      the spaces of FILE, made, Init-ed and registered
//   exchange [--spaces FILE --space ID] [--descriptions DIR] [--json]
//                                      the space's exchange: parameters, a request's keys
//   world [--spaces FILE] [--descriptions DIR]   JSON lines on stdin, one result line each:
//     {"send": MSG, "data": D}   a message (short names get the node world prefix)
//     {"observe": "renderers|preferences|nodespace|spacedata", "name": N, "callNow": b,
//      "watch": {"preferences": [[group, key], ...], "renderdata": [...]}, "space": ID}
//     {"drop": N}   {"state": true}   {"parameters": true}
//     {"space": ID, "set": {...}}   {"spacename": ID}
// Observer calls print {"event": KIND, "observer": N, ...} as they run. The session starts with
// a callNow observer of each kind, named after the kind ("spacedata:ID" for each space).
//
// A spaces file is a JSON array of {"class": ID, "data": {...}}: each entry becomes a class of
// the components of "net.quorv.class.nodespace.base", made here at run time as another module
// would declare it, and one instance of it, Init-ed with the data and registered in
// "net.quorv.nodes.registry.materialnodespaces" under its space id.
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "jsonio.h"
#include "quorv/datadictionaryobject.h"
#include "quorv/host/warnings.h"
#include "render/nodes/node_spaces.h"
#include "render/nodes/node_world.h"

namespace quorv::cli {

namespace {

using namespace quorv::nodes;

std::string ErrorText(const ErrorObject* e) { return ErrorToString(e); }
// The message alone, for an error told inside another.
std::string MessageOf(const ErrorObject* e) {
    return e && e->message ? e->message : ErrorToString(e);
}

// ---- values ---------------------------------------------------------------------------------

Json ValueToJson(const Data& d);

Json DictionaryToJson(const DataDictionary& d) {
    Json out = Json::object();
    const DataDictionaryObject* o = d.GetReadable();
    if (!o) return out;
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(o, &it);
    for (; DataDictionaryInterface::IteratorHasValue(&it);
         DataDictionaryInterface::IteratorMoveToNext(&it)) {
        DataDictionaryKey key;
        Data value;
        DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value);
        out[key.ToString()] = ValueToJson(value);
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    return out;
}

std::vector<std::string> DictionaryKeys(const DataDictionary& d) {
    std::vector<std::string> keys;
    const Json all = DictionaryToJson(d);
    for (const auto& [key, value] : all.items()) keys.push_back(key);
    return keys;
}

Json ValueToJson(const Data& d) {
    if (d.IsEmpty()) return nullptr;
    Json plain = DataToJson(d);
    if (!plain.is_null()) return plain;
    if (auto v = d.Get<DataDictionary>()) return DictionaryToJson(*v);
    if (auto v = d.Get<PackedMaterialParameter>()) return ValueToJson(v->value);
    if (auto v = d.Get<ClassObject*>()) return std::string(ClassInterface::GetId(*v).View());
    if (auto v = d.Get<IdArray>()) {
        Json ids = Json::array();
        for (const Id& id : *v) ids.push_back(std::string(id.View()));
        return ids;
    }
    return "<" + std::string(d.GetType()->id.View()) + ">";
}

std::string TypeName(const Data& d) {
    if (auto v = d.Get<PackedMaterialParameter>()) return TypeName(v->value);
    return d.IsEmpty() ? "none" : std::string(d.GetType()->id.View());
}

Error Illegal(const std::string& message) {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, message);
}

// A dictionary key from a JSON object key: an integer where the key is one, a text otherwise.
DataDictionaryKey KeyOf(const std::string& k) {
    Int n = 0;
    const char* end = k.data() + k.size();
    const auto [p, ec] = std::from_chars(k.data(), end, n);
    if (!k.empty() && ec == std::errc() && p == end) return DataDictionaryKey(n);
    return DataDictionaryKey(LiteralId(k.c_str()));
}

Result<Data> FromJson(const Json& v);

// A JSON object as a dictionary; `typed` gives the value of a key it knows, or null.
template <typename F>
Result<DataDictionary> DictionaryFromJson(const Json& v, DataDictionary into, F typed) {
    if (!v.is_object()) return Illegal("not an object: " + QuoteJson(v));
    if (into.IsNull()) {
        Result<DataDictionary> d = DataDictionary::Create();
        if (d.IsError()) return d.GetError();
        into = d.GetValue();
    }
    for (auto it = v.begin(); it != v.end(); ++it) {
        Result<Data> value = typed(it.key(), *it);
        if (value.IsOk() && value.GetValue().IsEmpty()) value = FromJson(*it);
        if (value.IsError()) return value.GetError();
        QUORV_RETURN_IF_ERROR(into.SetData(KeyOf(it.key()), value.GetValue()));
    }
    return into;
}

// A JSON value as message data: objects become dictionaries (integer keys where the key is a
// number), texts strings, numbers Int or Float64.
Result<Data> FromJson(const Json& v) {
    if (v.is_boolean()) return Data::Of<Bool>(v.get<bool>());
    if (v.is_number_integer()) {
        Int n;
        if (!JsonToInteger(v, &n)) return Illegal("integer out of range: " + QuoteJson(v));
        return Data::Of<Int>(n);
    }
    if (v.is_number()) return Data::Of<Float64>(v.get<double>());
    if (v.is_string()) return Data::Of<std::string>(v.get<std::string>());
    if (v.is_object()) {
        Result<DataDictionary> d = DictionaryFromJson(
            v, DataDictionary(),
            [](const std::string&, const Json&) { return Result<Data>(Data()); });
        if (d.IsError()) return d.GetError();
        return Data::Of(d.GetValue());
    }
    return Illegal("no data for " + QuoteJson(v));
}

// The value of a node space key from JSON: the four keys of a space have their types (the
// exchange class is named by its id in the exchange classes' registry); other keys: empty.
Result<Data> SpaceValue(const std::string& key, const Json& v) {
    auto text = [&]() -> Result<std::string> {
        if (!v.is_string()) return Illegal(key + " must be a text: " + QuoteJson(v));
        return v.get<std::string>();
    };
    if (key == nodespacekey::SPACEID) {
        Result<std::string> t = text();
        if (t.IsError()) return t.GetError();
        return Data::Of(Id::Intern(t.GetValue()));
    }
    if (key == nodespacekey::SPACENAME) {
        Result<std::string> t = text();
        if (t.IsError()) return t.GetError();
        return Data::Of(t.GetValue());
    }
    if (key == nodespacekey::MATERIALEXCHANGECLASS) {
        Result<std::string> t = text();
        if (t.IsError()) return t.GetError();
        Result<const ClassObject*> cls =
            FindClass(LiteralId(MATERIALEXCHANGE_REGISTRY_ID), LiteralId(t.GetValue().c_str()));
        if (cls.IsError()) return cls.GetError();
        return Data::Of(const_cast<ClassObject*>(cls.GetValue()));
    }
    if (key == nodespacekey::MATERIALEXCHANGEBUNDLEIDS) {
        if (!v.is_array()) return Illegal(key + " must be an array of ids: " + QuoteJson(v));
        IdArray ids;
        for (const Json& e : v) {
            if (!e.is_string()) return Illegal(key + " must be an array of ids: " + QuoteJson(v));
            ids.push_back(Id::Intern(e.get<std::string>()));
        }
        return Data::Of(ids);
    }
    return Data();
}

Result<DataDictionary> SpaceDataFromJson(const Json& v, const DataDictionary& into) {
    return DictionaryFromJson(v, into, &SpaceValue);
}

void Print(const Json& j) { WriteOutputLine(Line(j)); }

void PrintError(const ErrorObject* e) { std::fprintf(stderr, "quorv: %s\n", ErrorText(e).c_str()); }

bool RegisterDescriptions(const std::string& dir) {
    if (dir.empty()) return true;
    Result<void> r = host::RegisterDescriptionFolder("net.quorv.cli.descriptions", dir);
    if (r.IsError()) PrintError(r.GetErrorPointer());
    return r.IsOk();
}

// ---- spaces ---------------------------------------------------------------------------------

// The spaces of a spaces file, made and registered; everything undone by `Clear` (before the
// module goes: the registry holds objects whose code is the module's).
class LoadedSpaces {
public:
    LoadedSpaces() = default;
    LoadedSpaces(const LoadedSpaces&) = delete;
    LoadedSpaces& operator=(const LoadedSpaces&) = delete;
    ~LoadedSpaces() { Clear(); }

    Result<void> Load(const std::string& file) {
        if (file.empty()) return OK;
        std::ifstream in(file, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        if (!in) return Illegal("Cannot read spaces file " + file);
        Json spaces;
        std::string error;
        if (!ParseJson(text.str(), &spaces, &error)) return Illegal(file + ": " + error);
        if (!spaces.is_array()) return Illegal(file + ": not a JSON array of spaces");
        Result<const ClassObject*> base =
            FindClass(LiteralId(NODESPACE_CLASS_REGISTRY_ID), LiteralId(NODESPACE_BASE_CLASS_ID));
        if (base.IsError()) return base.GetError();
        for (size_t i = 0; i < spaces.size(); ++i) {
            const std::string where = file + ": space " + std::to_string(i);
            const Json& s = spaces[i];
            if (!s.is_object() || !s.contains("class") || !s["class"].is_string() ||
                s["class"].get<std::string>().empty()) {
                return Illegal(where + ": \"class\" must be a non-empty id");
            }
            const std::string classId = s["class"].get<std::string>();
            Result<void> made = Add(base.GetValue(), classId, s.value("data", Json::object()));
            if (made.IsError()) {
                return Illegal(where + " (" + classId + "): " + MessageOf(made.GetErrorPointer()));
            }
        }
        return OK;
    }

    void Clear() {
        for (const Space& s : _spaces) UnregisterNodeSpace(Id::Intern(s.id));
        _spaces.clear();
    }

    std::vector<std::string> Ids() const {
        std::vector<std::string> ids;
        for (const Space& s : _spaces) ids.push_back(s.id);
        return ids;
    }

    NodeSpaceInterface::Ref Find(const std::string& id) const {
        for (const Space& s : _spaces) {
            if (s.id == id) return s.space;
        }
        return {};
    }

private:
    struct Space {
        std::string id;
        Ref<ClassObject> cls;
        NodeSpaceInterface::Ref space;
    };

    Result<void> Add(const ClassObject* base, const std::string& classId, const Json& data) {
        // A class of the base's components and nothing of its own, as a module that brings a
        // space declares it.
        ClassObject* c =
            ClassInterface::Alloc(LiteralId(classId.c_str()), 1, QUORV_SOURCE_LOCATION);
        if (!c) return OutOfMemoryError();
        Space s{"", Ref<ClassObject>(c), {}};
        QUORV_RETURN_IF_ERROR(ClassInterface::AddComponents(c, base));
        QUORV_RETURN_IF_ERROR(ClassInterface::Finalize(c));
        Result<void*> instance = ClassInterface::Create(c, QUORV_SOURCE_LOCATION);
        if (instance.IsError()) return instance.GetError();
        const ObjectRef object =
            ObjectRef::Adopt(static_cast<ObjectInstance*>(instance.GetValue()));
        Result<NodeSpaceInterface::Ref> space = NodeSpaceInterface::Ref::Cast(object);
        if (space.IsError()) return space.GetError();
        Result<DataDictionary> given = SpaceDataFromJson(data, DataDictionary());
        if (given.IsError()) return given.GetError();
        QUORV_RETURN_IF_ERROR(space.GetValue().Init(given.GetValue()));
        const Id spaceId = space.GetValue().GetData().Get<Id>(nodespacekey::SPACEID, Id());
        QUORV_RETURN_IF_ERROR(RegisterNodeSpace(spaceId, space.GetValue()));
        s.id = std::string(spaceId.View());
        s.space = space.GetValue();
        _spaces.push_back(std::move(s));
        return OK;
    }

    std::vector<Space> _spaces;
};

Json SpaceRow(const std::string& id) {
    // Through the registry, as any module finds a space.
    const DataDictionary d = NodeSpaceHelpersInterface::GetNodeSpaceData(Id::Intern(id));
    return {{"space", id},
            {"name", ValueToJson(d.GetData(nodespacekey::SPACENAME))},
            {"exchangeclass", ValueToJson(d.GetData(nodespacekey::MATERIALEXCHANGECLASS))},
            {"bundleids", ValueToJson(d.GetData(nodespacekey::MATERIALEXCHANGEBUNDLEIDS))}};
}

std::string Cell(const Json& j) {
    if (j.is_null()) return "-";
    if (j.is_string()) return j.get<std::string>();
    if (j.is_array()) {
        std::string out;
        for (const Json& e : j) out += (out.empty() ? "" : ", ") + Cell(e);
        return out.empty() ? "-" : out;
    }
    return j.dump();
}

// Starts the host, registers the description folder and makes the spaces of `file`; false
// (with the message on stderr) on failure.
bool Start(const GlobalOptions& global, const std::string& descriptions, const std::string& file,
           LoadedSpaces& spaces) {
    if (!StartHost(global) || !RegisterDescriptions(descriptions)) return false;
    Result<void> loaded = spaces.Load(file);
    if (loaded.IsError()) PrintError(loaded.GetErrorPointer());
    return loaded.IsOk();
}

int RunSpaces(const GlobalOptions& global, const std::string& file, bool asJson) {
    LoadedSpaces spaces;
    if (!Start(global, "", file, spaces)) return 1;
    Json rows = Json::array();
    for (const std::string& id : spaces.Ids()) rows.push_back(SpaceRow(id));
    if (asJson) return WriteOutputLine(Line(rows)) ? 0 : 1;
    std::printf("space id | name | exchange class | bundle ids\n");
    for (const Json& r : rows) {
        std::printf("%s | %s | %s | %s\n", Cell(r["space"]).c_str(), Cell(r["name"]).c_str(),
                    Cell(r["exchangeclass"]).c_str(), Cell(r["bundleids"]).c_str());
    }
    return 0;
}

// ---- exchange -------------------------------------------------------------------------------

// The exchange of a space (its class from the space's data), or the default exchange without
// one, made and initialised for the viewport material.
Result<MaterialExchangeInterface::Ref> MakeExchange(const NodeSpaceInterface::Ref& space) {
    const ClassObject* cls = nullptr;
    if (space) {
        cls = space.GetData().Get<ClassObject*>(nodespacekey::MATERIALEXCHANGECLASS, nullptr);
        if (!cls) return Illegal("The space names no exchange class");
    } else {
        Result<const ClassObject*> found = FindClass(LiteralId(MATERIALEXCHANGE_REGISTRY_ID),
                                                     LiteralId(MATERIALEXCHANGE_DEFAULT_CLASS_ID));
        if (found.IsError()) return found.GetError();
        cls = found.GetValue();
    }
    Result<void*> instance = ClassInterface::Create(cls, QUORV_SOURCE_LOCATION);
    if (instance.IsError()) return instance.GetError();
    const ObjectRef object = ObjectRef::Adopt(static_cast<ObjectInstance*>(instance.GetValue()));
    Result<MaterialExchangeInterface::Ref> exchange = MaterialExchangeInterface::Ref::Cast(object);
    if (exchange.IsError()) return exchange.GetError();
    QUORV_RETURN_IF_ERROR(exchange.GetValue().Initialize(space ? space.GetObject() : ObjectRef(),
                                                         Id::Intern(VIEWPORTMATERIAL_ID)));
    return exchange;
}

Result<std::vector<std::string>> RequestKeys(const DataDictionaryObjectInterface::Ref& request) {
    Result<DataDictionary> content = request.InitIterator();
    if (content.IsError()) return content.GetError();
    return DictionaryKeys(content.GetValue());
}

Result<Json> ExchangeReport(const NodeSpaceInterface::Ref& space) {
    Result<MaterialExchangeInterface::Ref> exchange = MakeExchange(space);
    if (exchange.IsError()) return exchange.GetError();
    Result<DataDictionary> parameters = exchange.GetValue().GetMaterialParameters();
    if (parameters.IsError()) return parameters.GetError();
    Json rows = Json::array();
    const DataDictionaryObject* o = parameters.GetValue().GetReadable();
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(o, &it);
    for (; DataDictionaryInterface::IteratorHasValue(&it);
         DataDictionaryInterface::IteratorMoveToNext(&it)) {
        DataDictionaryKey key;
        Data value;
        DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value);
        rows.push_back(
            {{"key", key.ToString()}, {"type", TypeName(value)}, {"value", ValueToJson(value)}});
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    // A request of the module's own class, before and after the exchange configured it.
    Result<ObjectRef> made = CreateObjectById(LiteralId(NODES_CLASS_REGISTRY_ID),
                                              LiteralId(PREVIEWIMAGEREQUEST_CLASS_ID));
    if (made.IsError()) return made.GetError();
    Result<DataDictionaryObjectInterface::Ref> request =
        DataDictionaryObjectInterface::Ref::Cast(made.GetValue());
    if (request.IsError()) return request.GetError();
    Result<PreviewImageRequestInterface::Ref> asRequest =
        PreviewImageRequestInterface::Ref::Cast(made.GetValue());
    if (asRequest.IsError()) return asRequest.GetError();
    Result<std::vector<std::string>> before = RequestKeys(request.GetValue());
    if (before.IsError()) return before.GetError();
    QUORV_RETURN_IF_ERROR(
        exchange.GetValue().ConfigureTextureProviderRequest(asRequest.GetValue()));
    Result<std::vector<std::string>> after = RequestKeys(request.GetValue());
    if (after.IsError()) return after.GetError();
    Json spaceId = nullptr, exchangeClass = MATERIALEXCHANGE_DEFAULT_CLASS_ID;
    if (space) {
        const DataDictionary d = space.GetData();
        spaceId = ValueToJson(d.GetData(nodespacekey::SPACEID));
        exchangeClass = ValueToJson(d.GetData(nodespacekey::MATERIALEXCHANGECLASS));
    }
    return Json{{"space", spaceId},
                {"exchangeclass", exchangeClass},
                {"parameters", rows},
                {"request", {{"before", before.GetValue()}, {"after", after.GetValue()}}}};
}

int RunExchange(const GlobalOptions& global, const std::string& file, const std::string& spaceId,
                const std::string& descriptions, bool asJson) {
    LoadedSpaces spaces;
    if (!Start(global, descriptions, file, spaces)) return 1;
    NodeSpaceInterface::Ref space;
    if (!spaceId.empty()) {
        space = spaces.Find(spaceId);
        if (!space) {
            std::fprintf(stderr, "quorv: No node space %s in %s\n", spaceId.c_str(), file.c_str());
            return 1;
        }
    }
    Result<Json> report = ExchangeReport(space);
    if (report.IsError()) {
        PrintError(report.GetErrorPointer());
        return 1;
    }
    const Json& r = report.GetValue();
    if (asJson) return WriteOutputLine(Line(r)) ? 0 : 1;
    std::printf("exchange class %s%s\n", r["exchangeclass"].get<std::string>().c_str(),
                space ? (" of space " + spaceId).c_str() : "");
    std::printf("key | type | value\n");
    for (const Json& row : r["parameters"]) {
        std::printf("%s | %s | %s\n", row["key"].get<std::string>().c_str(),
                    row["type"].get<std::string>().c_str(), row["value"].dump().c_str());
    }
    std::printf("request keys before ConfigureTextureProviderRequest: %s\n",
                Cell(r["request"]["before"]).c_str());
    std::printf("request keys after ConfigureTextureProviderRequest: %s\n",
                Cell(r["request"]["after"]).c_str());
    return 0;
}

// ---- world ----------------------------------------------------------------------------------

Result<Data> MessageData(const std::string& message, const Json& data) {
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

WatchList Watched(const Json& watch, const char* name) {
    WatchList out;
    const Json* list = watch.is_object() ? FindField(watch, name) : nullptr;
    if (!list) return out;
    if (!list->is_array()) throw LineError(std::string("\"") + name + "\" must be a list of pairs");
    for (const Json& e : *list) {
        Int group, key;
        if (!e.is_array() || e.size() != 2 || !JsonToInteger(e[0], &group) ||
            !JsonToInteger(e[1], &key)) {
            throw LineError(std::string("\"") + name + "\" must be a list of integer pairs");
        }
        out.push_back({group, key});
    }
    return out;
}

class WorldSession {
public:
    explicit WorldSession(const LoadedSpaces& spaces) : _spaces(spaces) {}

    Result<void> Observe(const std::string& kind, const std::string& name, bool callNow,
                         const Json& line) {
        Result<ObserverHandleRef> h = Result<ObserverHandleRef>(ObserverHandleRef());
        if (kind == "renderers") {
            auto d =
                RendererObserver::Create([name](const RendererRegistryObserverValue* v, Int n) {
                    Json list = Json::array();
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
            const Json watch = line.value("watch", Json());
            h = NodeWorldInterface::AddActivePreferencesObserver(
                d.GetValue(), callNow, Watched(watch, "preferences"), Watched(watch, "renderdata"));
        } else if (kind == "nodespace") {
            auto d = NodeSpaceObserver::Create([name](const Id& id) {
                Print({{"event", "nodespace"},
                       {"observer", name},
                       {"space", std::string(id.View())}});
            });
            if (d.IsError()) return d.GetError();
            h = NodeWorldInterface::AddActiveNodeSpaceObserver(d.GetValue(), callNow);
        } else if (kind == "spacedata") {
            const std::string id = line.value("space", std::string());
            NodeSpaceInterface::Ref space = _spaces.Find(id);
            if (!space) return Illegal("No node space " + id);
            auto d = DataChangedObserver::Create([name, id](const DataDictionary& data) {
                Print({{"event", "spacedata"},
                       {"observer", name},
                       {"space", id},
                       {"data", DictionaryToJson(data)}});
            });
            if (d.IsError()) return d.GetError();
            h = space.AddDataChangedObserver(d.GetValue(), callNow);
        } else {
            return Illegal("Unknown observer kind " + kind);
        }
        if (h.IsError()) return h.GetError();
        _handles[name] = h.GetValue();
        return OK;
    }

    Json Answer(const Json& in) {
        if (in.contains("send")) {
            std::string message = in["send"].get<std::string>();
            if (message.find('.') == std::string::npos)
                message = nodeworldmessage::PREFIX + message;
            Result<Data> data = MessageData(message, in.value("data", Json()));
            if (data.IsError()) return Error(data.GetErrorPointer());
            Result<void> r = NodeWorldInterface::QuorvMessage(Id::Intern(message), data.GetValue());
            if (r.IsError()) return Error(r.GetErrorPointer());
            return {{"ok", true}};
        }
        if (in.contains("observe")) {
            Result<void> r =
                Observe(in["observe"].get<std::string>(), in.value("name", std::string()),
                        GetBoolField(in, "callNow", false), in);
            if (r.IsError()) return Error(r.GetErrorPointer());
            return {{"ok", true}};
        }
        if (in.contains("drop")) {
            const bool known = _handles.erase(in["drop"].get<std::string>()) > 0;
            return {{"ok", known}};
        }
        if (in.contains("state")) return State();
        if (in.contains("parameters")) {
            Result<MaterialExchangeInterface::Ref> e = MakeExchange({});
            if (e.IsError()) return Error(e.GetErrorPointer());
            Result<DataDictionary> p = e.GetValue().GetMaterialParameters();
            if (p.IsError()) return Error(p.GetErrorPointer());
            return {{"parameters", DictionaryToJson(p.GetValue())}};
        }
        if (in.contains("space")) {
            const std::string id = in["space"].get<std::string>();
            NodeSpaceInterface::Ref space = _spaces.Find(id);
            if (!space) return ErrorJson("No node space " + id);
            if (in.contains("set")) {
                // The given entries written over a copy of the present data, which then
                // replaces it (observers hear of it).
                Result<DataDictionary> data = SpaceDataFromJson(in["set"], space.GetData());
                if (data.IsError()) return Error(data.GetErrorPointer());
                space.SetData(data.GetValue());
            }
            return {{"space", id},
                    {"data", DictionaryToJson(
                                 NodeSpaceHelpersInterface::GetNodeSpaceData(Id::Intern(id)))}};
        }
        if (in.contains("spacename")) {
            const std::string id = in["spacename"].get<std::string>();
            Result<DataDictionary> d = NodeSpaceHelpersInterface::LoadDescription(Id::Intern(id));
            if (d.IsError()) return Error(d.GetErrorPointer());
            return {{"spacename", id},
                    {"name", ValueToJson(d.GetValue().GetData(nodespacekey::SPACENAME))}};
        }
        return ErrorJson("unknown request");
    }

    void DropAll() { _handles.clear(); }

private:
    static Json Error(const ErrorObject* e) { return ErrorJson(ErrorText(e)); }

    static Json State() {
        Json renderers = Json::array();
        auto d =
            RendererObserver::Create([&renderers](const RendererRegistryObserverValue* v, Int n) {
                for (Int i = 0; i < n; ++i) {
                    Result<std::string> name = NodeWorldInterface::GetRendererName(v[i].renderer);
                    renderers.push_back({{"renderer", std::string(v[i].renderer.View())},
                                         {"name", name.IsOk() ? name.GetValue() : ""}});
                }
            });
        Json prefs, render;
        auto p = PreferencesObserver::Create([&](const DataDictionary& a, const DataDictionary& b) {
            prefs = DictionaryToJson(a);
            render = DictionaryToJson(b);
        });
        if (d.IsError() || p.IsError()) return ErrorJson("out of memory");
        {
            // callNow observers that go again at once: the present state, read as observers get it.
            auto h1 = NodeWorldInterface::AddRendererRegistryObserver(d.GetValue(), true);
            auto h2 = NodeWorldInterface::AddActivePreferencesObserver(p.GetValue(), true, {}, {});
            if (h1.IsError()) return Error(h1.GetErrorPointer());
            if (h2.IsError()) return Error(h2.GetErrorPointer());
        }
        return {{"renderers", renderers},
                {"preferences", prefs},
                {"renderdata", render},
                {"activespace", std::string(NodeWorldInterface::GetActiveNodeSpace().View())}};
    }

    const LoadedSpaces& _spaces;
    std::map<std::string, ObserverHandleRef> _handles;
};

int RunWorld(const GlobalOptions& global, const std::string& file,
             const std::string& descriptions) {
    LoadedSpaces spaces;
    if (!Start(global, descriptions, file, spaces)) return 1;
    WorldSession session(spaces);
    for (const char* kind : {"renderers", "preferences", "nodespace"}) {
        Result<void> r = session.Observe(kind, kind, true, Json::object());
        if (r.IsError()) {
            PrintError(r.GetErrorPointer());
            return 1;
        }
    }
    for (const std::string& id : spaces.Ids()) {
        Result<void> r = session.Observe("spacedata", "spacedata:" + id, true, {{"space", id}});
        if (r.IsError()) {
            PrintError(r.GetErrorPointer());
            return 1;
        }
    }
    const int status =
        RunJsonLines(std::cin, [&session](const Json& in) { return session.Answer(in); });
    // Handles run module code when dropped: drop them, then the spaces, while the module is
    // loaded.
    session.DropAll();
    spaces.Clear();
    return status;
}

}  // namespace

void AddNodesCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static std::string descriptions, spacesFile, spaceId;
    static bool asJson = false;
    CLI::App* cmd = app.add_subcommand(
        "nodes", "Node spaces, the material exchange of a space and the node world");
    cmd->require_subcommand(1);
    cmd->footer(
        "A spaces file is a JSON array of {\"class\": ID, \"data\": {...}}; each entry becomes a\n"
        "class of the node space base class's components and one instance of it, Init-ed\n"
        "with the data and registered under its space id. Data keys are the node space keys\n"
        "(net.quorv.nodes.nodespace.spaceid, .spacename, .materialexchangeclass (a class id),\n"
        ".materialexchangebundleids (an array of ids)) or others (JSON values).");

    CLI::App* spaces = cmd->add_subcommand(
        "spaces",
        "Makes the spaces of a file; table: space id | name | exchange class | bundle "
        "ids (Init's warnings on stderr)");
    spaces->add_option("--spaces", spacesFile, "Spaces file")->required();
    spaces->add_flag("--json", asJson, "One JSON array instead of the table");
    spaces->callback([&] { run = [&] { return RunSpaces(options, spacesFile, asJson); }; });

    CLI::App* exchange = cmd->add_subcommand(
        "exchange",
        "The exchange of a space (default: the default exchange), initialised for the viewport "
        "material: its parameters (key | type | value) and a preview request's keys before and "
        "after ConfigureTextureProviderRequest");
    CLI::Option* file = exchange->add_option("--spaces", spacesFile, "Spaces file");
    CLI::Option* space = exchange->add_option("--space", spaceId, "Space id of the file");
    file->needs(space);
    space->needs(file);
    exchange->add_option("--descriptions", descriptions, "Folder of data descriptions to register");
    exchange->add_flag("--json", asJson, "One JSON object instead of the table");
    exchange->callback([&] {
        run = [&] { return RunExchange(options, spacesFile, spaceId, descriptions, asJson); };
    });

    CLI::App* world = cmd->add_subcommand(
        "world", "Replays a node world session: JSON lines on stdin, events and results on stdout");
    world->add_option("--spaces", spacesFile, "Spaces file (for \"space\", \"spacedata\")");
    world->add_option("--descriptions", descriptions, "Folder of data descriptions to register");
    world->callback([&] { run = [&] { return RunWorld(options, spacesFile, descriptions); }; });
}

}  // namespace quorv::cli
