// quorv sceneobject: scene objects created by id and driven by JSON lines, to watch the change
// stamp follow the dictionary operations.
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "commands.h"
#include "jsonio.h"
#include "render/sceneobjects/sceneobject.h"
#include "values.h"

namespace quorv::cli {

namespace {

const char* const SCENEOBJECT_HELP =
    R"(Reads JSON lines on stdin, one operation each, and writes one line per input:
  {"op":"create","class":ID}                 {"object":n,"class":ID,"stamp":0}
  {"op":"set","object":n,"key":K,"value":V}  {"ok":true,"stamp":s}   (V: integer, number,
                                             string, true/false or [x,y,z]; "type" may name the
                                             data type id instead, e.g. "float64")
  {"op":"get","object":n,"key":K}            {"value":V} (null when absent)
  {"op":"erase","object":n,"key":K}          {"erased":b,"stamp":s}
  {"op":"reset","object":n}                  {"empty":true,"stamp":s}
  {"op":"stamp","object":n}                  {"stamp":s}
  {"op":"describe","object":n}               the description, or the error naming the class
Objects are numbered from 0 in the order created. Only a successful "set" moves the stamp.
A bad line gives {"error": "..."} and the run goes on.)";

struct SceneObjectHandle {
    std::string cls;
    DataDictionaryObjectInterface::Ref dict;
    SceneObjectInterface::Ref stamp;
    DataDescriptionObjectInterface::Ref description;
};

std::string TypeOf(const Json& value) {
    if (value.is_boolean()) return DataTypeIdOf<Bool>::id;
    if (value.is_number_integer()) return DataTypeIdOf<Int>::id;
    if (value.is_number()) return DataTypeIdOf<Float64>::id;
    if (value.is_string()) return DataTypeIdOf<std::string>::id;
    if (value.is_array() && value.size() == 3) return DataTypeIdOf<Vector64>::id;
    throw LineError("\"value\" must be an integer, a number, a string, true/false or [x,y,z]");
}

int RunSceneObjects(const GlobalOptions& global) {
    if (!StartHost(global)) return 1;
    std::vector<SceneObjectHandle> objects;
    std::set<std::string> keys;  // key texts live for the run: ids point at them
    return RunJsonLines(std::cin, [&](const Json& line) -> Json {
        const Json* op = FindField(line, "op");
        if (!op || !op->is_string()) throw LineError("\"op\" must be a string");
        const std::string name = op->get<std::string>();
        if (name == "create") {
            const Json* cls = FindField(line, "class");
            if (!cls || !cls->is_string()) throw LineError("\"class\" must be a string");
            const std::string id = cls->get<std::string>();
            Result<ObjectRef> o =
                CreateObjectById(LiteralId(SCENEOBJECT_CLASS_REGISTRY_ID), LiteralId(id.c_str()));
            if (o.IsError()) return ErrorJson(ErrorToString(o.GetErrorPointer()));
            SceneObjectHandle h;
            h.cls = id;
            Result<DataDictionaryObjectInterface::Ref> d =
                DataDictionaryObjectInterface::Ref::Cast(o.GetValue());
            Result<SceneObjectInterface::Ref> s = SceneObjectInterface::Ref::Cast(o.GetValue());
            Result<DataDescriptionObjectInterface::Ref> e =
                DataDescriptionObjectInterface::Ref::Cast(o.GetValue());
            if (d.IsError() || s.IsError() || e.IsError())
                return ErrorJson("Class " + id + " is not a scene object class");
            h.dict = d.GetValue();
            h.stamp = s.GetValue();
            h.description = e.GetValue();
            objects.push_back(h);
            return Json{
                {"object", objects.size() - 1}, {"class", id}, {"stamp", h.stamp.GetTimeStamp()}};
        }
        const size_t index = GetIntegerField<size_t>(line, "object", objects.size());
        if (index >= objects.size()) throw LineError("\"object\" must name a created object");
        SceneObjectHandle& h = objects[index];
        auto key = [&]() {
            const Json* k = FindField(line, "key");
            if (!k || !k->is_string() || k->get<std::string>().empty())
                throw LineError("\"key\" must be a non-empty string");
            return LiteralId(keys.insert(k->get<std::string>()).first->c_str());
        };
        if (name == "set") {
            const LiteralId k = key();
            const Json* value = FindField(line, "value");
            if (!value) throw LineError("\"value\" is missing");
            const Json* type = FindField(line, "type");
            const std::string typeId =
                type && type->is_string() ? type->get<std::string>() : TypeOf(*value);
            Result<Data> data = JsonToData(*value, typeId);
            if (data.IsError()) return ErrorJson(ErrorToString(data.GetErrorPointer()));
            Result<void> r = h.dict.SetData(k, data.GetValue());
            if (r.IsError()) return ErrorJson(ErrorToString(r.GetErrorPointer()));
            return Json{{"ok", true}, {"stamp", h.stamp.GetTimeStamp()}};
        }
        if (name == "get") {
            Result<Data> r = h.dict.GetData(key());
            if (r.IsError()) return ErrorJson(ErrorToString(r.GetErrorPointer()));
            return Json{
                {"value", r.GetValue().IsEmpty() ? Json(nullptr) : DataToJson(r.GetValue())}};
        }
        if (name == "erase") {
            const bool erased = h.dict.EraseData(key());
            return Json{{"erased", erased}, {"stamp", h.stamp.GetTimeStamp()}};
        }
        if (name == "reset") {
            h.dict.Reset();
            return Json{{"empty", h.dict.IsEmpty()}, {"stamp", h.stamp.GetTimeStamp()}};
        }
        if (name == "stamp") return Json{{"stamp", h.stamp.GetTimeStamp()}};
        if (name == "describe") {
            Result<DataDictionary> d = h.description.GetObjectDescription();
            if (d.IsError())
                return ErrorJson(d.GetErrorPointer()->message ? d.GetErrorPointer()->message
                                                              : "error");
            return Json{{"description", DictionaryToJson(d.GetValue())}};
        }
        throw LineError("unknown \"op\" " + Quote(name));
    });
}

}  // namespace

void AddSceneObjectCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    CLI::App* cmd = app.add_subcommand(
        "sceneobject",
        "Scene objects by id: dictionary operations and the change stamp, by JSON lines");
    cmd->footer(SCENEOBJECT_HELP);
    cmd->callback([&] { run = [&] { return RunSceneObjects(options); }; });
}

}  // namespace quorv::cli
