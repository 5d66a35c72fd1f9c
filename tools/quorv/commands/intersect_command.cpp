// quorv intersect: the intersector classes of libquorv_intersect.so. Lists them with the default
// choice, renders a depth (and normal) picture of a mesh through the perspective camera, and
// answers ray queries by JSON lines.
#include <atomic>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "host/src/services_impl.h"
#include "intersect/mesh.h"
#include "jsonio.h"
#include "quorv/host/image_writer.h"
#include "quorv/parallel.h"
#include "quorv/rendermessage.h"
#include "render/cameras/camera.h"
#include "render/frame/intersection.h"
#include "render/frame/rendergeneral.h"
#include "values.h"

namespace quorv::cli {

namespace {

const char* const RAYS_HELP =
    R"(Reads JSON lines on stdin, one ray each, and writes one line per input:
  {"origin":[x,y,z],"direction":[x,y,z],"min":m,"max":M,"op":"hit"|"shadow"}
"min" defaults to 0, "max" to the largest Float64, "op" to "hit". Answers:
  {"hit":true,"object":i,"polygon":p,"half":h,"t":t,"uv":[u,v],"normal":[x,y,z]} or {"hit":false}
  {"blocked":true|false} for "shadow"
Numbers read back to the same bits. A bad line gives {"error": "..."} and the run goes on.)";

struct IntersectOptions {
    std::string intersectModule;
    std::string mesh;
    Int sphere = 0;
    bool box = false;
    bool quads = false;
    std::string classId;
    std::vector<std::string> params;
    std::string size = "512x512";
    std::string output;
    std::string normals;
    bool json = false;
};

// libquorv_intersect.so beside the render module (lib/ of this program), unless given.
bool LoadIntersectModule(const GlobalOptions& global, const IntersectOptions& o) {
    std::string path = o.intersectModule;
    if (path.empty()) {
        const char* env = std::getenv("QUORV_INTERSECT_MODULE");
        if (env && *env) path = env;
    }
    if (path.empty()) {
        const std::string& render = host::Host::Get().GetModules().empty()
                                        ? global.modulePath
                                        : host::Host::Get().GetModules().back()->path;
        path = (std::filesystem::path(render).parent_path() / "libquorv_intersect.so").string();
    }
    Result<host::LoadedModule*> r = host::Host::Get().LoadModule(path);
    if (r.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(r.GetErrorPointer()).c_str());
        return false;
    }
    return true;
}

// The class chosen by --class, or the default choice of the render module.
Result<BatchedIntersectionRef> MakeIntersector(const IntersectOptions& o,
                                               const DataDictionary& parameters) {
    Result<ObjectRef> object = o.classId.empty()
                                   ? RenderGeneralInterface::GetDefaultIntersector()
                                   : CreateObjectById(LiteralId(INTERSECTION_CLASS_REGISTRY_ID),
                                                      LiteralId(o.classId.c_str()));
    if (object.IsError()) return object.GetError();
    Result<BatchedIntersectionRef> r = BatchedIntersectionRef::Cast(object.GetValue());
    if (r.IsError()) return r;
    QUORV_RETURN_IF_ERROR(r.GetValue().Init(parameters));
    return r;
}

bool LoadMesh(const IntersectOptions& o, mesh::Mesh& m) {
    const int sources = int(!o.mesh.empty()) + int(o.sphere > 0) + int(o.box);
    if (sources != 1) {
        std::fprintf(stderr, "quorv: give exactly one of --mesh, --sphere, --box\n");
        return false;
    }
    if (o.box) {
        m = mesh::MakeBox();
    } else if (o.sphere > 0) {
        if (o.sphere > 4096) {
            std::fprintf(stderr, "quorv: --sphere must be from 2 to 4096\n");
            return false;
        }
        m = mesh::MakeSphere(o.sphere, o.quads);
    } else {
        Result<std::string> text = host::ReadWholeFile(o.mesh);
        if (text.IsError()) {
            std::fprintf(stderr, "quorv: %s: %s\n", o.mesh.c_str(),
                         text.GetErrorPointer()->message ? text.GetErrorPointer()->message : "");
            return false;
        }
        std::string error;
        if (!mesh::ReadObj(text.GetValue(), m, error)) {
            std::fprintf(stderr, "quorv: %s: %s\n", o.mesh.c_str(), error.c_str());
            return false;
        }
    }
    return true;
}

std::string ClassOf(const BatchedIntersectionRef& r) {
    return std::string(GetClassIdOf(r.GetObject().Get()).View());
}

// Messages of this run: written into the host's render message log, shown on stderr at the end.
struct MessageLog {
    RenderMessageLog* log = RenderMessageInterface::Alloc(QUORV_SOURCE_LOCATION);
    MessageLog() { (void)RenderMessageInterface::Init(log, 256); }
    ~MessageLog() { RenderMessageInterface::Free(log); }
    void Add(MESSAGESEVERITY s, const std::string& text) {
        (void)RenderMessageInterface::AddMessage(log, s, text.c_str());
    }
    Json Drain() {
        Json out = Json::array();
        RenderMessageInterface::QueryMessages(
            log, 0,
            [](void* user, Int, MESSAGESEVERITY s, const char* text) {
                static_cast<Json*>(user)->push_back(
                    {{"severity", s == MESSAGESEVERITY::ERROR     ? "error"
                                  : s == MESSAGESEVERITY::WARNING ? "warning"
                                                                  : "info"},
                     {"text", text}});
            },
            &out);
        return out;
    }
};

Result<DataDictionary> Parameters(const IntersectOptions& o) {
    std::vector<std::pair<std::string, Json>> params;
    if (!ParseParamOptions(o.params, &params))
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, "bad --param");
    return BuildCameraParameters(params);
}

int RunClasses(const GlobalOptions& global, const IntersectOptions& o) {
    if (!StartHost(global) || !LoadIntersectModule(global, o)) return 1;
    std::vector<std::string> entries;
    for (const auto& r : host::Host::Get().ListRegistries())
        if (r.id == INTERSECTION_CLASS_REGISTRY_ID) entries = r.entries;
    std::string configured;
    for (const auto& c : host::Host::Get().ListConfiguration())
        if (c.name == POLYGON_INTERSECTION_VARIABLE) configured = c.value;
    Result<ObjectRef> picked = RenderGeneralInterface::GetDefaultIntersector();
    std::string pick, why;
    if (picked.IsError()) {
        why = picked.GetErrorPointer()->message ? picked.GetErrorPointer()->message : "error";
    } else {
        pick = std::string(GetClassIdOf(picked.GetValue().Get()).View());
        if (!configured.empty())
            why = "named by g_polygonIntersection";
        else if (pick == EMBREE_INTERSECTION_CLASS_ID)
            why = "the first default class, registered";
        else
            why = "the embree class is not registered; the second default class is";
    }
    if (o.json) {
        Json j{{"registry", INTERSECTION_CLASS_REGISTRY_ID},
               {"classes", entries},
               {"default", pick.empty() ? Json(nullptr) : Json(pick)},
               {"why", why},
               {"g_polygonIntersection", configured}};
        return WriteOutputLine(Line(j)) ? 0 : 1;
    }
    std::printf("%s\n", INTERSECTION_CLASS_REGISTRY_ID);
    for (const std::string& e : entries) std::printf("  %s\n", e.c_str());
    std::printf("default: %s (%s)\n", pick.empty() ? "none" : pick.c_str(), why.c_str());
    return 0;
}

Result<Int> AddMesh(const BatchedIntersectionRef& isect, const mesh::Mesh& m) {
    return isect.AddScene(m.points.data(), Int(m.points.size()), m.polygons.data(),
                          Int(m.polygons.size()), Matrix64{});
}

int RunRender(const GlobalOptions& global, const IntersectOptions& o) {
    Int w = 0, h = 0;
    if (std::sscanf(o.size.c_str(), "%lldx%lld", reinterpret_cast<long long*>(&w),
                    reinterpret_cast<long long*>(&h)) != 2 ||
        w < 1 || h < 1 || w > 16384 || h > 16384) {
        std::fprintf(stderr, "quorv: --size must be WxH, each from 1 to 16384\n");
        return 1;
    }
    // The host first: reading the file reports errors through it.
    if (!StartHost(global) || !LoadIntersectModule(global, o)) return 1;
    mesh::Mesh m;
    if (!LoadMesh(o, m)) return 1;
    MessageLog messages;
    Result<DataDictionary> parameters = Parameters(o);
    if (parameters.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(parameters.GetErrorPointer()).c_str());
        return 1;
    }
    Result<BatchedIntersectionRef> made = MakeIntersector(o, parameters.GetValue());
    if (made.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(made.GetErrorPointer()).c_str());
        return 1;
    }
    BatchedIntersectionRef isect = made.GetValue();
    messages.Add(MESSAGESEVERITY::INFO,
                 "class " + ClassOf(isect) + (o.classId.empty() ? " (the default choice)" : ""));
    const auto t0 = std::chrono::steady_clock::now();
    Result<Int> added = AddMesh(isect, m);
    Result<void> built = added.IsError() ? Result<void>(added.GetError()) : isect.Finalize();
    const auto t1 = std::chrono::steady_clock::now();
    if (built.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(built.GetErrorPointer()).c_str());
        return 1;
    }
    Vector64 lo, hi;
    if (!isect.GetSceneBounds(lo, hi)) {
        std::fprintf(stderr, "quorv: the mesh has no polygons\n");
        return 1;
    }
    // The camera: perspective, looking along +z at the middle of the bounds, far enough back
    // that the bounding sphere fills the narrower side of the picture.
    Result<ObjectRef> camObject = CreateObjectById(LiteralId(CAMERA_CLASS_REGISTRY_ID),
                                                   LiteralId(PERSPECTIVE_CAMERA_CLASS_ID));
    if (camObject.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(camObject.GetErrorPointer()).c_str());
        return 1;
    }
    CameraRef camera = CameraRef::Cast(camObject.GetValue()).GetValue();
    DataDictionary camParams = DataDictionary::Create().GetValue();
    (void)camParams.SetData(LiteralId("net.quorv.render.camera.cameraparameters.screenresolution"),
                            Data::Of(Vector2d64{Float64(w), Float64(h)}));
    (void)camera.Init(camParams, 0);
    Ray edge;
    camera.CreateScreenRay({0.0, Float64(h) / 2}, edge);
    Ray top;
    camera.CreateScreenRay({Float64(w) / 2, 0.0}, top);
    const Float64 tanX = std::fabs(edge.direction.x / edge.direction.z);
    const Float64 tanY = std::fabs(top.direction.y / top.direction.z);
    const Float64 halfAngle = std::atan(std::min(tanX, tanY));
    const Vector64 centre{(lo.x + hi.x) / 2, (lo.y + hi.y) / 2, (lo.z + hi.z) / 2};
    const Float64 radius =
        0.5 * std::sqrt((hi.x - lo.x) * (hi.x - lo.x) + (hi.y - lo.y) * (hi.y - lo.y) +
                        (hi.z - lo.z) * (hi.z - lo.z));
    Matrix64 placement;
    placement.offset = {centre.x, centre.y, centre.z - radius / std::sin(halfAngle) * 1.05};
    camera.SetMatrix(placement);

    std::vector<Float32> depth(size_t(w) * size_t(h), 0.0f);
    std::vector<Float32> normals(o.normals.empty() ? 0 : size_t(w) * size_t(h) * 3, 0.0f);
    std::atomic<Int> hits{0};
    const auto t2 = std::chrono::steady_clock::now();
    Result<void> traced = ParallelFor(0, h, 4, [&](Int from, Int to, Int) -> Result<void> {
        Int local = 0;
        for (Int y = from; y < to; ++y) {
            for (Int x = 0; x < w; ++x) {
                Ray ray;
                camera.CreateScreenRay({Float64(x) + 0.5, Float64(y) + 0.5}, ray);
                IntersectionResult64 r;
                if (!isect.CalculateIntersection(ray, r)) continue;
                ++local;
                const size_t i = size_t(y) * size_t(w) + size_t(x);
                // Rays are unit length: t is the distance from the camera.
                depth[i] = Float32(r.hitVectorA.x);
                if (!normals.empty()) {
                    normals[3 * i] = Float32(r.hitVectorB.x * 0.5 + 0.5);
                    normals[3 * i + 1] = Float32(r.hitVectorB.y * 0.5 + 0.5);
                    normals[3 * i + 2] = Float32(r.hitVectorB.z * 0.5 + 0.5);
                }
            }
        }
        hits += local;
        return OK;
    });
    const auto t3 = std::chrono::steady_clock::now();
    if (traced.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(traced.GetErrorPointer()).c_str());
        return 1;
    }
    if (!o.output.empty()) {
        Result<void> wr = host::WriteImage(o.output, w, h, 1, depth.data());
        if (wr.IsError()) {
            std::fprintf(stderr, "quorv: %s\n", ErrorToString(wr.GetErrorPointer()).c_str());
            return 1;
        }
    }
    if (!o.normals.empty()) {
        Result<void> wr = host::WriteImage(o.normals, w, h, 3, normals.data());
        if (wr.IsError()) {
            std::fprintf(stderr, "quorv: %s\n", ErrorToString(wr.GetErrorPointer()).c_str());
            return 1;
        }
    }
    const Float64 buildMs = std::chrono::duration<Float64, std::milli>(t1 - t0).count();
    const Float64 seconds = std::chrono::duration<Float64>(t3 - t2).count();
    const Float64 rays = Float64(w) * Float64(h);
    if (hits == 0) messages.Add(MESSAGESEVERITY::WARNING, "no ray hit the mesh");
    Json summary{{"class", ClassOf(isect)},
                 {"polygons", m.polygons.size()},
                 {"buildMs", buildMs},
                 {"rays", Int(rays)},
                 {"hits", hits.load()},
                 {"threads", ParallelInterface::GetWorkerCount()},
                 {"mraysPerSecond", seconds > 0 ? rays / seconds / 1e6 : 0.0},
                 {"messages", messages.Drain()}};
    return WriteOutputLine(Line(summary)) ? 0 : 1;
}

int RunRays(const GlobalOptions& global, const IntersectOptions& o) {
    // The host first: reading the file reports errors through it.
    if (!StartHost(global) || !LoadIntersectModule(global, o)) return 1;
    mesh::Mesh m;
    if (!LoadMesh(o, m)) return 1;
    Result<DataDictionary> parameters = Parameters(o);
    Result<BatchedIntersectionRef> made =
        parameters.IsError() ? Result<BatchedIntersectionRef>(parameters.GetError())
                             : MakeIntersector(o, parameters.GetValue());
    if (made.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(made.GetErrorPointer()).c_str());
        return 1;
    }
    BatchedIntersectionRef isect = made.GetValue();
    Result<Int> added = AddMesh(isect, m);
    Result<void> built = added.IsError() ? Result<void>(added.GetError()) : isect.Finalize();
    if (built.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(built.GetErrorPointer()).c_str());
        return 1;
    }
    return RunJsonLines(std::cin, [&](const Json& line) -> Json {
        Ray ray;
        ray.origin = NeedVectorField(line, "origin");
        ray.direction = NeedVectorField(line, "direction");
        ray.minDistance = GetNumberField(line, "min", 0.0);
        ray.maxDistance = GetNumberField(line, "max", DBL_MAX);
        std::string op = "hit";
        if (const Json* j = FindField(line, "op")) {
            if (!j->is_string()) throw LineError("\"op\" must be \"hit\" or \"shadow\"");
            op = j->get<std::string>();
        }
        if (op == "shadow") return Json{{"blocked", isect.CalculateShadow(ray)}};
        if (op != "hit") throw LineError("\"op\" must be \"hit\" or \"shadow\"");
        IntersectionResult64 r;
        if (!isect.CalculateIntersection(ray, r)) return Json{{"hit", false}};
        return Json{{"hit", true},
                    {"object", r.headWordA},
                    {"polygon", r.headWordB},
                    {"half", r.hitValue},
                    {"t", NumberToJson(r.hitVectorA.x)},
                    {"uv", {NumberToJson(r.hitVectorA.y), NumberToJson(r.hitVectorA.z)}},
                    {"normal", ToJson(r.hitVectorB)}};
    });
}

void AddMeshOptions(CLI::App* c, IntersectOptions& o) {
    c->add_option("--mesh", o.mesh, "OBJ file to trace");
    c->add_option("--sphere", o.sphere, "A generated unit sphere of N rings (4N(N-1) triangles)");
    c->add_flag("--box", o.box, "The cube [-1,1]^3 of six quads");
    c->add_flag("--quads", o.quads, "Keep the sphere's quads (default: two triangles each)");
    c->add_option("--class", o.classId,
                  "Intersector class id (default: the render module's choice)");
    c->add_option("--param", o.params, "Init parameter KEY=JSON (repeatable)");
}

}  // namespace

void AddIntersectCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static IntersectOptions o;
    CLI::App* cmd = app.add_subcommand(
        "intersect", "Intersector classes (libquorv_intersect.so): list, render, trace rays");
    cmd->require_subcommand(1);
    cmd->add_option("--intersect-module", o.intersectModule,
                    "Path of libquorv_intersect.so (default: beside the render module, or "
                    "QUORV_INTERSECT_MODULE)");
    CLI::App* classes = cmd->add_subcommand(
        "classes", "The registered intersector classes, the default choice and why");
    classes->add_flag("--json", o.json, "One JSON object");
    classes->callback([&] { run = [&] { return RunClasses(options, o); }; });
    CLI::App* render = cmd->add_subcommand(
        "render", "Trace one camera ray per pixel; write depth (EXR) and normals (PNG)");
    AddMeshOptions(render, o);
    render->add_option("--size", o.size, "WxH (default 512x512)");
    render->add_option("-o,--output", o.output, "Depth picture (.exr: distance, 0 for a miss)")
        ->required();
    render->add_option("--normals", o.normals, "Normal picture (normal * 0.5 + 0.5)");
    render->callback([&] { run = [&] { return RunRender(options, o); }; });
    CLI::App* rays = cmd->add_subcommand("rays", "Trace rays read as JSON lines");
    AddMeshOptions(rays, o);
    rays->footer(RAYS_HELP);
    rays->callback([&] { run = [&] { return RunRays(options, o); }; });
}

}  // namespace quorv::cli
