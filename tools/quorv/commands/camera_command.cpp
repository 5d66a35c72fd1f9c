// quorv camera: creates a camera by id and answers one JSON line per operation.
#include <cstdio>
#include <iostream>
#include <map>

#include "commands.h"
#include "jsonio.h"
#include "values.h"
#include "quorv/host/batch.h"
#include "quorv/host/host.h"
#include "render/cameras/camera.h"

namespace quorv::cli {

namespace {

constexpr const char* CAMERA_REGISTRY = "net.quorv.render.registry.cameraclasses";

const char* const CAMERA_HELP = R"(Reads JSON lines on stdin, one camera operation each, and writes one JSON line per
input. Numbers round-trip exactly; non-finite numbers are the strings "inf", "-inf", "nan".
A bad line gives {"error": "..."} on its line and the run goes on.

  {"op":"Init","params":{KEY:VALUE,...},"flags":0}        -> {"ok":true}
  {"op":"SetMatrix","matrix":{"offset":[x,y,z],"axisX":[..],"axisY":[..],"axisZ":[..]}}
                                                          -> {"ok":true}
  {"op":"GetParameters"}                                  -> {"parameters":{KEY:VALUE,...}}
  {"op":"CreateScreenRay","screen":[x,y],"ray":RAY?}      -> {"ray":RAY}
  {"op":"CalculateMIPComponents","screen":[x,y],"ray":RAY,"point":POINT}
                                                          -> {"ray":RAY,"point":POINT}
  {"op":"GetFeatures"}                                    -> {"features":N}
  {"op":"VisibilityTest","point":[x,y,z]}                 -> {"visible":true}
  {"op":"WorldToCamera"|"CameraToWorld"|"VectorWorldToCamera"|"VectorCameraToWorld"|
        "WorldToScreen"|"ScreenToWorld"|"CameraToScreen"|"ScreenToCamera","point":[x,y,z]}
                                                          -> {"result":[x,y,z]}
  {"op":"GetCameraToWorldMatrix"|"GetWorldToCameraMatrix"} -> {"matrix":MATRIX}

RAY is an object with any of origin, direction, minDistance, maxDistance, rayWord, rayIndex,
originDx, originDy, directionDx, directionDy, rayWeight, rayValueA, rayValueB, rayFlagsA,
rayFlagsB (missing members keep their defaults). POINT is an object with any of position,
footprintX, footprintY, pointVectorA, pointVectorB, normal, pointVectorC, pointVectorD.
Parameters use full key ids, e.g.
  --param net.quorv.render.camera.cameraparameters.screenresolution=[640,480])";

struct CameraOptions {
    std::string classId;
    std::vector<std::string> params;
    bool rightHanded = false;
    bool noInit = false;
};

Json RayToJson(const Ray& r) {
    return Json{{"origin", ToJson(r.origin)},
                {"direction", ToJson(r.direction)},
                {"minDistance", NumberToJson(r.minDistance)},
                {"maxDistance", NumberToJson(r.maxDistance)},
                {"rayWord", r.rayWord},
                {"rayIndex", r.rayIndex},
                {"originDx", ToJson(r.originDx)},
                {"originDy", ToJson(r.originDy)},
                {"directionDx", ToJson(r.directionDx)},
                {"directionDy", ToJson(r.directionDy)},
                {"rayWeight", ToJson(r.rayWeight)},
                {"rayValueA", NumberToJson(r.rayValueA)},
                {"rayValueB", NumberToJson(r.rayValueB)},
                {"rayFlagsA", r.rayFlagsA},
                {"rayFlagsB", r.rayFlagsB}};
}

bool RayFromJson(const Json& j, Ray* r) {
    if (j.is_null()) return true;
    if (!j.is_object()) return false;
    for (auto& [k, v] : j.items()) {
        bool ok = true;
        if (k == "origin") ok = FromJson(v, &r->origin);
        else if (k == "direction") ok = FromJson(v, &r->direction);
        else if (k == "minDistance") ok = JsonToNumber(v, &r->minDistance);
        else if (k == "maxDistance") ok = JsonToNumber(v, &r->maxDistance);
        else if (k == "rayWord") ok = JsonToInteger(v, &r->rayWord);
        else if (k == "rayIndex") ok = JsonToInteger(v, &r->rayIndex);
        else if (k == "originDx") ok = FromJson(v, &r->originDx);
        else if (k == "originDy") ok = FromJson(v, &r->originDy);
        else if (k == "directionDx") ok = FromJson(v, &r->directionDx);
        else if (k == "directionDy") ok = FromJson(v, &r->directionDy);
        else if (k == "rayWeight") ok = FromJson(v, &r->rayWeight);
        else if (k == "rayValueA") ok = JsonToNumber(v, &r->rayValueA);
        else if (k == "rayValueB") ok = JsonToNumber(v, &r->rayValueB);
        else if (k == "rayFlagsA") ok = JsonToInteger(v, &r->rayFlagsA);
        else if (k == "rayFlagsB") ok = JsonToInteger(v, &r->rayFlagsB);
        else ok = false;
        if (!ok) return false;
    }
    return true;
}

Json PointToJson(const ShadingPoint& p) {
    return Json{{"position", ToJson(p.position)},       {"footprintX", ToJson(p.footprintX)},
                {"footprintY", ToJson(p.footprintY)},   {"pointVectorA", ToJson(p.pointVectorA)},
                {"pointVectorB", ToJson(p.pointVectorB)}, {"normal", ToJson(p.normal)},
                {"pointVectorC", ToJson(p.pointVectorC)}, {"pointVectorD", ToJson(p.pointVectorD)}};
}

bool PointFromJson(const Json& j, ShadingPoint* p) {
    if (j.is_null()) return true;
    if (!j.is_object()) return false;
    for (auto& [k, v] : j.items()) {
        Vector64* t = k == "position"       ? &p->position
                      : k == "footprintX"   ? &p->footprintX
                      : k == "footprintY"   ? &p->footprintY
                      : k == "pointVectorA" ? &p->pointVectorA
                      : k == "pointVectorB" ? &p->pointVectorB
                      : k == "normal"       ? &p->normal
                      : k == "pointVectorC" ? &p->pointVectorC
                      : k == "pointVectorD" ? &p->pointVectorD
                                            : nullptr;
        if (!t || !FromJson(v, t)) return false;
    }
    return true;
}

// One operation line; throws nothing, answers an error object on bad input.
Json Evaluate(const CameraRef& cam, const Json& line) {
    if (!line.is_object() || !line.contains("op") || !line["op"].is_string()) {
        return ErrorJson("each line must be an object with a string \"op\"");
    }
    const std::string op = line["op"].get<std::string>();
    auto needPoint = [&](Vector64* p) { return FromJson(line.value("point", Json()), p); };
    if (op == "Init") {
        std::vector<std::pair<std::string, Json>> params;
        if (line.contains("params")) {
            const Json& given = line["params"];
            if (!given.is_object()) return ErrorJson("\"params\" must be an object");
            for (auto it = given.begin(); it != given.end(); ++it) params.emplace_back(it.key(), it.value());
        }
        Result<DataDictionary> dict = BuildCameraParameters(params);
        if (dict.IsError()) return ErrorJson(ErrorToString(dict.GetErrorPointer()));
        const Int flags = GetIntegerField<Int>(line, "flags", 0);
        // Bit 0 (right handed) is the only flag a camera knows; other bits are a caller's mistake.
        if (flags & ~Int{CAMERA_INIT_RIGHT_HANDED}) throw LineError("\"flags\" must be 0 or 1");
        Result<void> r = cam.Init(dict.GetValue(), flags);
        if (r.IsError()) return ErrorJson(ErrorToString(r.GetErrorPointer()));
        return Json{{"ok", true}};
    }
    if (op == "SetMatrix") {
        Matrix64 m;
        if (!FromJson(line.value("matrix", Json()), &m)) return ErrorJson("bad \"matrix\"");
        cam.SetMatrix(m);
        return Json{{"ok", true}};
    }
    if (op == "GetParameters") return Json{{"parameters", DictionaryToJson(cam.GetParameters())}};
    if (op == "CreateScreenRay" || op == "CalculateMIPComponents") {
        Vector2d64 s;
        Ray ray;
        ShadingPoint point;
        if (!FromJson(line.value("screen", Json()), &s)) return ErrorJson("bad \"screen\"");
        if (!RayFromJson(line.value("ray", Json()), &ray)) return ErrorJson("bad \"ray\"");
        if (op == "CreateScreenRay") {
            host::CameraRayBatch(cam, &s, &ray, 1);
            return Json{{"ray", RayToJson(ray)}};
        }
        if (!PointFromJson(line.value("point", Json()), &point)) return ErrorJson("bad \"point\"");
        cam.CalculateMIPComponents(s, ray, point);
        return Json{{"ray", RayToJson(ray)}, {"point", PointToJson(point)}};
    }
    if (op == "GetFeatures") return Json{{"features", static_cast<Int>(cam.GetFeatures())}};
    if (op == "VisibilityTest") {
        Vector64 p;
        if (!needPoint(&p)) return ErrorJson("bad \"point\"");
        return Json{{"visible", static_cast<bool>(cam.VisibilityTest(p))}};
    }
    if (op == "GetCameraToWorldMatrix") return Json{{"matrix", ToJson(cam.GetCameraToWorldMatrix())}};
    if (op == "GetWorldToCameraMatrix") return Json{{"matrix", ToJson(cam.GetWorldToCameraMatrix())}};
    Vector64 p;
    using Conversion = Vector64 (CameraRef::*)(const Vector64&) const;
    static const std::map<std::string, Conversion> conversions{
        {"WorldToCamera", &CameraRef::WorldToCamera},
        {"CameraToWorld", &CameraRef::CameraToWorld},
        {"VectorWorldToCamera", &CameraRef::VectorWorldToCamera},
        {"VectorCameraToWorld", &CameraRef::VectorCameraToWorld},
        {"WorldToScreen", &CameraRef::WorldToScreen},
        {"ScreenToWorld", &CameraRef::ScreenToWorld},
        {"CameraToScreen", &CameraRef::CameraToScreen},
        {"ScreenToCamera", &CameraRef::ScreenToCamera},
    };
    auto it = conversions.find(op);
    if (it == conversions.end()) return ErrorJson("unknown op \"" + Quote(op) + "\"");
    if (!needPoint(&p)) return ErrorJson("bad \"point\"");
    return Json{{"result", ToJson((cam.*(it->second))(p))}};
}

int RunCamera(const GlobalOptions& options, const CameraOptions& co) {
    if (!StartHost(options)) return 1;
    Result<ObjectRef> object = CreateObjectById(LiteralId(CAMERA_REGISTRY), LiteralId(co.classId.c_str()));
    if (object.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(object.GetErrorPointer()).c_str());
        return 1;
    }
    Result<CameraRef> cam = CameraRef::Cast(object.GetValue());
    if (cam.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(cam.GetErrorPointer()).c_str());
        return 1;
    }
    if (!co.noInit) {
        std::vector<std::pair<std::string, Json>> params;
        if (!ParseParamOptions(co.params, &params)) return 1;
        Result<DataDictionary> dict = BuildCameraParameters(params);
        if (dict.IsError()) {
            std::fprintf(stderr, "quorv: %s\n", ErrorToString(dict.GetErrorPointer()).c_str());
            return 1;
        }
        Result<void> init = cam.GetValue().Init(dict.GetValue(), co.rightHanded ? 1 : 0);
        if (init.IsError()) {
            std::fprintf(stderr, "quorv: %s\n", ErrorToString(init.GetErrorPointer()).c_str());
            return 1;
        }
    }
    const CameraRef& camera = cam.GetValue();
    return RunJsonLines(std::cin, [&camera](const Json& line) { return Evaluate(camera, line); });
}

}  // namespace

void AddCameraCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static CameraOptions co;
    auto* cmd = app.add_subcommand("camera", "Create a camera by class id and evaluate operations");
    cmd->footer(CAMERA_HELP);
    cmd->add_option("--class", co.classId, "Camera class id, e.g. net.quorv.render.cameraclass.perspective")
        ->required();
    auto* param = cmd->add_option("--param", co.params,
                                  "Init parameter KEY=JSON with the full key id (repeatable)");
    auto* rightHanded =
        cmd->add_flag("--right-handed", co.rightHanded, "Pass flags bit 0 (right handed) to Init");
    cmd->add_flag("--no-init", co.noInit,
                  "Skip the first Init: operations run on the camera as constructed")
        ->excludes(param)
        ->excludes(rightHanded);
    cmd->callback([&options, &run] { run = [&options] { return RunCamera(options, co); }; });
}

}  // namespace quorv::cli
