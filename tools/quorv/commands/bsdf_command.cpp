// quorv bsdf: lists the legacy BSDF classes, evaluates one class line by line, or draws its lobe.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>

#include "cloth_json.h"
#include "commands.h"
#include "jsonio.h"
#include "values.h"
#include "quorv/host/batch.h"
#include "quorv/host/host.h"
#include "quorv/host/image_writer.h"
#include "quorv/parallel.h"
#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/microfacetdistributioncaches.h"

namespace quorv::cli {

namespace {

const char* const BSDF_EVAL_HELP =
    R"(Reads JSON lines on stdin, one operation each, and writes one JSON line per input.
Numbers round-trip exactly; non-finite numbers are the strings "inf", "-inf", "nan". A bad line
gives {"error": "..."} on its line and the run goes on. Vectors are [x, y, z] in the local
frame (+z the normal). Colours are [r, g, b].

  {"op":"SampleF","wo":V,"sample":S,"wi":V?}   -> {"value":C,"pdf":p,"wi":V,"sample":RECORD}
  {"op":"ComputeBSDF","wo":V,"wi":V,"wiSide":V?}
                                               -> {"value":C,"pdf":p}   (wiSide defaults to wi)
  {"op":"PdfIndirect","wo":V,"wi":V}           -> {"pdf":p}
  {"op":"ComputeAngle","sample":S}             -> {"angle":a}
  {"op":"ComputeMIPAngle","angle":a}           -> {"angle":a}
  {"op":"ComputeBSDFFrame","n":V,"u":V?,"v":V?,"position":V?,"fast":b?,"world":b?,
   "useGivenFrame":b?}                         -> {"n":V,"u":V,"v":V}
  {"op":"Init","params":{KEY:VALUE,...},"cloth":{...}?}   -> {"ok":true}
  {"op":"Update","scratch":{...}|null,"type":n?}          -> {"ok":true}  (type 2048)
  {"op":"ComputeF_UVW","wo":V,"wi":V,"uvw":V?,"delta":V?}  -> {"value":C}
  {"op":"Reset"}                               -> {"ok":true}

S is either an index 0..65535 into the table of sample records generated from the seed 100,
or an object {"u0":x,"u1":y,"u2":z} whose other fields (power, sinPhi, cosPhi, cosTheta,
sinTheta, count) are derived from u0..u2 unless given. RECORD is the full nine-field record
used. "wi" of SampleF is the value wi holds before the call (default [0,0,0]); a rejection
that leaves it untouched shows it unchanged.
KEY is an integer key or its name: 1001 BSDF_PARAM_ROUGHNESS, 1002 BSDF_PARAM_ANISOTROPY,
1003 BSDF_PARAM_ANISOTROPY_ANGLE, 1004 BSDF_PARAM_ORENNAYAR_ROUGHNESS,
1005 BSDF_PARAM_ORENNAYAR_SIMPLE (bool), 1017 BSDF_PARAM_BLURRY_REFLECTED_LOBE (bool),
1018 BSDF_PARAM_BLURRY_ROUGHNESS, 1019 BSDF_PARAM_BLURRY_FALLOFF_SHIFT,
1020 BSDF_PARAM_BLURRY_FALLOFF_POWER. With --cache, every Init also passes the run's one
SamplerCache under 1000 (BSDF_PARAM_DISTRIBUTION_CACHE).
"cloth" is the cloth class's Init record: "warpDiffuse", "warpSpecular", "weftDiffuse",
"weftSpecular" ([r,g,b]), "uvw", "uvwDelta" ([x,y,z]), "rotation", "scaleU", "scaleV", "blur",
"preset" (0-5, default 1) and "setupCloth" {"quality","alpha","beta","smoothing",
"intensityVariation","intensityFineness","warpVariation","weftVariation","variationScale"};
fields left out take the command line's defaults. Without "cloth" the record is null. The
cloth class starts from --cloth (or the defaults). "scratch" is the anisotropic classes'
scratch record (see `quorv bsdf scratch --help`); null passes no record.)";

constexpr Int SAMPLE_TABLE_SIZE = host::BSDF_SAMPLE_TABLE_SIZE;

struct BSDFOptions {
    std::string classId;
    std::vector<std::string> params;
    bool cache = false;
    std::string wo = "0,0,1";
    std::string output;
    Int size = 256;
    std::string cloth;
    std::string scratch;
    Float64 extent = 4.0;
    bool fast = false;
};

// The class, its dictionary inputs and the one cache of the run.
struct Session {
    BSDFLegacyRef bsdf;
    std::unique_ptr<SamplerCache> cache;
    IrawanInitData cloth;  ///< the cloth class's record; keeps its pattern alive
};

Json ColorToJson(const Color64& c) {
    return Json::array({NumberToJson(c.r), NumberToJson(c.g), NumberToJson(c.b)});
}

Json SampleToJson(const BSDFCachedSample& s) {
    return Json{{"count", s.count},
                {"u0", NumberToJson(s.u0)},
                {"u1", NumberToJson(s.u1)},
                {"u2", NumberToJson(s.u2)},
                {"power", NumberToJson(s.power)},
                {"sinPhi", NumberToJson(s.sinPhi)},
                {"cosPhi", NumberToJson(s.cosPhi)},
                {"cosTheta", NumberToJson(s.cosTheta)},
                {"sinTheta", NumberToJson(s.sinTheta)}};
}

bool SampleFromJson(const Json& j, BSDFCachedSample* out) {
    if (j.is_number()) {
        Int i;
        if (!JsonToInteger(j, &i) || i < 0 || i >= SAMPLE_TABLE_SIZE) return false;
        *out = host::BSDFSampleTable()[static_cast<size_t>(i)];
        return true;
    }
    if (!j.is_object()) return false;
    Float64 u[3] = {0.0, 0.0, 0.0};
    const char* names[3] = {"u0", "u1", "u2"};
    for (int i = 0; i < 3; ++i) {
        if (j.contains(names[i]) && !JsonToNumber(j[names[i]], &u[i])) return false;
    }
    *out = MakeBSDFCachedSample(static_cast<Float32>(u[0]), static_cast<Float32>(u[1]),
                                static_cast<Float32>(u[2]));
    std::pair<const char*, Float32*> derived[] = {{"power", &out->power},
                                                  {"sinPhi", &out->sinPhi},
                                                  {"cosPhi", &out->cosPhi},
                                                  {"cosTheta", &out->cosTheta},
                                                  {"sinTheta", &out->sinTheta}};
    for (auto& [name, field] : derived) {
        if (!j.contains(name)) continue;
        Float64 v;
        if (!JsonToNumber(j[name], &v)) return false;
        *field = static_cast<Float32>(v);
    }
    if (j.contains("count") && !JsonToInteger(j["count"], &out->count)) return false;
    for (auto& [k, v] : j.items()) {
        static const char* const known[] = {"u0",     "u1",       "u2",       "power", "sinPhi",
                                            "cosPhi", "cosTheta", "sinTheta", "count"};
        if (std::none_of(std::begin(known), std::end(known), [&](const char* n) { return k == n; }))
            return false;
    }
    return true;
}

Json Evaluate(Session& session, const Json& line) {
    if (!line.is_object() || !line.contains("op") || !line["op"].is_string()) {
        return ErrorJson("each line must be an object with a string \"op\"");
    }
    const BSDFLegacyRef& b = session.bsdf;
    const std::string op = line["op"].get<std::string>();
    auto vec = [&](const char* name, Vector64* v, bool required) {
        if (!line.contains(name)) return !required;
        return FromJson(line[name], v);
    };
    if (op == "SampleF") {
        Vector64 wo, wi{};
        BSDFCachedSample s;
        if (!vec("wo", &wo, true)) return ErrorJson("bad \"wo\"");
        if (!vec("wi", &wi, false)) return ErrorJson("bad \"wi\"");
        if (!line.contains("sample") || !SampleFromJson(line["sample"], &s))
            return ErrorJson("bad \"sample\"");
        Float64 pdf = 0.0;
        Color64 f;
        host::BSDFSampleBatch(b, &wo, 0, &s, &wi, &f, &pdf, 1);
        return Json{{"value", ColorToJson(f)},
                    {"pdf", NumberToJson(pdf)},
                    {"wi", ToJson(wi)},
                    {"sample", SampleToJson(s)}};
    }
    if (op == "ComputeBSDF") {
        Vector64 wo, wi;
        if (!vec("wo", &wo, true)) return ErrorJson("bad \"wo\"");
        if (!vec("wi", &wi, true)) return ErrorJson("bad \"wi\"");
        Vector64 wiSide = wi;
        if (!vec("wiSide", &wiSide, false)) return ErrorJson("bad \"wiSide\"");
        Float64 pdf = 0.0;
        Color64 f;
        host::BSDFEvaluateBatch(b, &wo, 0, &wi, &wiSide, &f, &pdf, 1);
        return Json{{"value", ColorToJson(f)}, {"pdf", NumberToJson(pdf)}};
    }
    if (op == "PdfIndirect") {
        Vector64 wo, wi;
        if (!vec("wo", &wo, true)) return ErrorJson("bad \"wo\"");
        if (!vec("wi", &wi, true)) return ErrorJson("bad \"wi\"");
        return Json{{"pdf", NumberToJson(b.PdfIndirect(wo, wi))}};
    }
    if (op == "ComputeAngle") {
        BSDFCachedSample s;
        if (!line.contains("sample") || !SampleFromJson(line["sample"], &s))
            return ErrorJson("bad \"sample\"");
        return Json{{"angle", NumberToJson(b.ComputeAngle(s))}};
    }
    if (op == "ComputeMIPAngle") {
        Float64 angle;
        if (!line.contains("angle") || !JsonToNumber(line["angle"], &angle))
            return ErrorJson("bad \"angle\"");
        return Json{{"angle", NumberToJson(b.ComputeMIPAngle(angle))}};
    }
    if (op == "ComputeBSDFFrame") {
        Vector64 n, u{}, v{}, position{};
        if (!vec("n", &n, true)) return ErrorJson("bad \"n\"");
        if (!vec("u", &u, false)) return ErrorJson("bad \"u\"");
        if (!vec("v", &v, false)) return ErrorJson("bad \"v\"");
        if (!vec("position", &position, false)) return ErrorJson("bad \"position\"");
        bool flags[3] = {false, false, false};
        const char* names[3] = {"fast", "world", "useGivenFrame"};
        for (int i = 0; i < 3; ++i) {
            if (!line.contains(names[i])) continue;
            if (!line[names[i]].is_boolean())
                return ErrorJson(std::string("bad \"") + names[i] + "\"");
            flags[i] = line[names[i]].get<bool>();
        }
        const BSDFFrame f = b.ComputeBSDFFrame(n, u, v, position, flags[0], flags[1], flags[2]);
        return Json{{"n", ToJson(f.n)}, {"u", ToJson(f.u)}, {"v", ToJson(f.v)}};
    }
    if (op == "ComputeF_UVW") {
        const Vector64 wo = NeedVectorField(line, "wo");
        const Vector64 wi = NeedVectorField(line, "wi");
        const Vector64 uvw = GetVectorField(line, "uvw", Vector64{});
        const Vector64 delta = GetVectorField(line, "delta", Vector64{});
        return Json{{"value", ColorToJson(b.ComputeF_UVW(wo, wi, uvw, delta))}};
    }
    if (op == "Update") {
        const UInt32 type = GetIntegerField<UInt32>(line, "type", BSDF_UPDATE_SCRATCH);
        const Json* given = FindField(line, "scratch");
        AnisotropicScratchData scratch;
        if (given && !given->is_null()) scratch = ReadScratchRecord(*given);
        Result<void> r = b.Update(given && !given->is_null() ? &scratch : nullptr, type);
        if (r.IsError()) return ErrorJson(ErrorToString(r.GetErrorPointer()));
        return Json{{"ok", true}};
    }
    if (op == "Reset") {
        Result<void> r = b.Reset();
        if (r.IsError()) return ErrorJson(ErrorToString(r.GetErrorPointer()));
        return Json{{"ok", true}};
    }
    if (op == "Init") {
        std::vector<std::pair<std::string, Json>> params;
        if (line.contains("params")) {
            const Json& given = line["params"];
            if (!given.is_object()) return ErrorJson("\"params\" must be an object");
            for (auto it = given.begin(); it != given.end(); ++it)
                params.emplace_back(it.key(), it.value());
        }
        Result<DataDictionary> dict = BuildBSDFParameters(params, session.cache.get());
        if (dict.IsError()) return ErrorJson(ErrorToString(dict.GetErrorPointer()));
        // "cloth" carries the cloth class's record; without it `data` is null.
        const void* data = nullptr;
        if (const Json* cloth = FindField(line, "cloth")) {
            IrawanInitData record = DefaultClothRecord();
            ReadClothRecord(*cloth, &record);
            session.cloth = record;
            data = &session.cloth;
        }
        Result<void> r = b.Init(dict.GetValue(), data);
        if (r.IsError()) return ErrorJson(ErrorToString(r.GetErrorPointer()));
        return Json{{"ok", true}};
    }
    return ErrorJson("unknown op \"" + Quote(op) + "\"");
}

void PrintError(const ErrorObject* e) {
    std::fprintf(stderr, "quorv: %s\n", ErrorToString(e).c_str());
}

// Creates the class, and Inits it with the --param values (and a fresh cache with --cache).
bool OpenSession(const BSDFOptions& o, Session& session) {
    Result<ObjectRef> object =
        CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID), LiteralId(o.classId.c_str()));
    if (object.IsError()) {
        PrintError(object.GetErrorPointer());
        return false;
    }
    Result<BSDFLegacyRef> bsdf = BSDFLegacyRef::Cast(object.GetValue());
    if (bsdf.IsError()) {
        PrintError(bsdf.GetErrorPointer());
        return false;
    }
    session.bsdf = bsdf.GetValue();
    if (o.cache) session.cache = std::make_unique<SamplerCache>();
    std::vector<std::pair<std::string, Json>> params;
    if (!ParseParamOptions(o.params, &params)) return false;
    Result<DataDictionary> dict = BuildBSDFParameters(params, session.cache.get());
    if (dict.IsError()) {
        PrintError(dict.GetErrorPointer());
        return false;
    }
    // The cloth class reads its record: the --cloth JSON over the defaults.
    const void* data = nullptr;
    if (o.classId == IRAWAN_BRDF_CLASS_ID) {
        session.cloth = DefaultClothRecord();
        Json cloth = Json::object();
        std::string error;
        if (!o.cloth.empty() && !ParseJson(o.cloth, &cloth, &error)) {
            std::fprintf(stderr, "quorv: --cloth: %s\n", error.c_str());
            return false;
        }
        try {
            ReadClothRecord(cloth, &session.cloth);
        } catch (const LineError& e) {
            std::fprintf(stderr, "quorv: --cloth: %s\n", e.what());
            return false;
        }
        data = &session.cloth;
    }
    Result<void> init = session.bsdf.Init(dict.GetValue(), data);
    if (init.IsError()) {
        PrintError(init.GetErrorPointer());
        return false;
    }
    return true;
}

int RunList(const GlobalOptions& options) {
    if (!StartHost(options)) return 1;
    for (const auto& r : host::Host::Get().ListRegistries()) {
        if (r.id != BSDF_LEGACY_CLASS_REGISTRY_ID) continue;
        for (const auto& e : r.entries) std::printf("%s\n", e.c_str());
    }
    return 0;
}

int RunEval(const GlobalOptions& options, const BSDFOptions& o) {
    if (!StartHost(options)) return 1;
    Session session;
    if (!OpenSession(o, session)) return 1;
    return RunJsonLines(std::cin, [&session](const Json& line) { return Evaluate(session, line); });
}

// An orthographic view of the hemisphere from outside: the centre is the normal (or, for a
// class that transmits, the direction straight through), the rim grazing. Grey levels are the
// value of ComputeBSDF over its largest value, with gamma 1 / 2.2.
int RunPlot(const GlobalOptions& options, const BSDFOptions& o) {
    if (!StartHost(options)) return 1;
    Vector64 wo;
    if (!ParseVectorText(o.wo, &wo)) {
        std::fprintf(stderr, "quorv: --wo %s is not X,Y,Z\n", Quote(o.wo).c_str());
        return 1;
    }
    if (o.size < 8 || o.size > 4096) {
        std::fprintf(stderr, "quorv: --size must lie in 8..4096\n");
        return 1;
    }
    Session session;
    if (!OpenSession(o, session)) return 1;
    const bool transmits = o.classId.find("btdf") != std::string::npos;
    const Int n = o.size;
    std::vector<Float64> values(static_cast<size_t>(n * n), 0.0);
    Float64 peak = 0.0;
    for (Int py = 0; py < n; ++py) {
        for (Int px = 0; px < n; ++px) {
            const Float64 x = (px + 0.5) / n * 2.0 - 1.0;
            const Float64 y = 1.0 - (py + 0.5) / n * 2.0;
            const Float64 r2 = x * x + y * y;
            if (r2 >= 1.0) continue;
            const Float64 z = std::sqrt(1.0 - r2);
            const Vector64 wi{x, y, transmits == (wo.z > 0.0) ? -z : z};
            Float64 pdf;
            const Float64 v = std::fabs(session.bsdf.ComputeBSDF(wo, wi, wi, pdf).r);
            if (!std::isfinite(v)) continue;
            values[static_cast<size_t>(py * n + px)] = v;
            peak = std::max(peak, v);
        }
    }
    std::vector<Float32> pixels(values.size(), 0.0f);
    for (size_t i = 0; i < values.size(); ++i) {
        if (peak > 0.0) pixels[i] = static_cast<Float32>(std::pow(values[i] / peak, 1.0 / 2.2));
    }
    Result<void> written = host::WriteImage(o.output, n, n, 1, pixels.data());
    if (written.IsError()) {
        PrintError(written.GetErrorPointer());
        return 1;
    }
    std::printf("%s: %lldx%lld, peak value %s\n", o.output.c_str(), static_cast<long long>(n),
                static_cast<long long>(n), Line(NumberToJson(peak)).c_str());
    return 0;
}

// The scratch frame over a square of positions: the hue is the angle of the tangent t'' (as
// an orientation, 0 to pi), the brightness |n' - n| over its largest value (full brightness
// where nothing bends). Bands of 16 rows, one object each, so the jitter does not depend on
// the threads.
int RunScratch(const GlobalOptions& options, const BSDFOptions& o) {
    if (o.size < 8 || o.size > 4096) {
        std::fprintf(stderr, "quorv: --size must lie in 8..4096\n");
        return 1;
    }
    if (!(std::isfinite(o.extent) && o.extent > 0.0)) {
        std::fprintf(stderr, "quorv: --extent must be a positive number\n");
        return 1;
    }
    if (!StartHost(options)) return 1;
    Json given;
    std::string error;
    if (!ParseJson(o.scratch, &given, &error)) {
        std::fprintf(stderr, "quorv: --scratch: %s\n", error.c_str());
        return 1;
    }
    AnisotropicScratchData scratch;
    try {
        scratch = ReadScratchRecord(given);
    } catch (const LineError& e) {
        std::fprintf(stderr, "quorv: --scratch: %s\n", e.what());
        return 1;
    }
    BSDFOptions classOptions = o;
    if (classOptions.classId.empty()) classOptions.classId = ANISOTROPIC_BRDF_CLASS_ID;
    // The frame is turned only where the roughness is positive.
    if (std::none_of(o.params.begin(), o.params.end(), [](const std::string& p) {
            return p.rfind("BSDF_PARAM_ROUGHNESS=", 0) == 0 || p.rfind("1001=", 0) == 0;
        })) {
        classOptions.params.push_back("BSDF_PARAM_ROUGHNESS=0.5");
    }
    const Int n = o.size;
    const Int bands = (n + 15) / 16;
    std::vector<Float64> angle(static_cast<size_t>(n * n), 0.0), bend(angle.size(), 0.0);
    std::atomic<bool> failed{false};
    Result<void> done = ParallelFor(0, bands, 1, [&](Int from, Int to, Int) -> Result<void> {
        for (Int band = from; band < to; ++band) {
            Session session;
            if (!OpenSession(classOptions, session)) {
                failed = true;
                return OK;
            }
            QUORV_RETURN_IF_ERROR(session.bsdf.Update(&scratch, BSDF_UPDATE_SCRATCH));
            for (Int y = band * 16; y < std::min(n, (band + 1) * 16); ++y) {
                for (Int x = 0; x < n; ++x) {
                    const Vector64 position{((x + 0.5) / n - 0.5) * o.extent,
                                            (0.5 - (y + 0.5) / n) * o.extent, 0.0};
                    const BSDFFrame f = session.bsdf.ComputeBSDFFrame(
                        {0, 0, 1}, {1, 0, 0}, {0, 1, 0}, position, o.fast, true, true);
                    Float64 a = std::atan2(f.u.y, f.u.x);
                    if (a < 0.0) a += 3.141592653589793;
                    if (a >= 3.141592653589793) a -= 3.141592653589793;
                    const size_t at = static_cast<size_t>(y * n + x);
                    angle[at] = a / 3.141592653589793;
                    const Float64 dx = f.n.x, dy = f.n.y, dz = f.n.z - 1.0;
                    bend[at] = std::sqrt(dx * dx + dy * dy + dz * dz);
                }
            }
        }
        return OK;
    });
    if (failed) return 1;
    if (done.IsError()) {
        PrintError(done.GetErrorPointer());
        return 1;
    }
    Float64 peak = 0.0;
    for (Float64 b : bend) peak = std::isfinite(b) ? std::max(peak, b) : peak;
    std::vector<Float32> pixels(angle.size() * 3, 0.0f);
    for (size_t i = 0; i < angle.size(); ++i) {
        // Hue on the colour circle: red, green, blue a third of a turn apart.
        const Float64 h = angle[i] * 6.0;
        const Float64 v = peak > 0.0 ? (std::isfinite(bend[i]) ? bend[i] / peak : 0.0) : 1.0;
        Float64 rgb[3];
        for (int c = 0; c < 3; ++c) {
            const Float64 k = std::fmod(h + 4.0 - 2.0 * c + 6.0, 6.0);
            rgb[c] = 1.0 - std::clamp(std::min(k, 4.0 - k), 0.0, 1.0);
        }
        for (int c = 0; c < 3; ++c) pixels[i * 3 + c] = static_cast<Float32>(rgb[c] * v);
    }
    Result<void> written = host::WriteImage(o.output, n, n, 3, pixels.data());
    if (written.IsError()) {
        PrintError(written.GetErrorPointer());
        return 1;
    }
    std::printf("%s: %lldx%lld, largest |n' - n| %s\n", o.output.c_str(), static_cast<long long>(n),
                static_cast<long long>(n), Line(NumberToJson(peak)).c_str());
    return 0;
}

}  // namespace

void AddBSDFCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static BSDFOptions o;
    auto* cmd = app.add_subcommand("bsdf", "List, evaluate or draw the legacy BSDF classes");
    cmd->require_subcommand(1);
    auto* list = cmd->add_subcommand("list", "Print the registered legacy BSDF class ids");
    list->callback([&options, &run] { run = [&options] { return RunList(options); }; });

    auto addCommon = [](CLI::App* c) {
        c->add_option("--class", o.classId,
                      "Class id, e.g. net.quorv.render.bsdflegacyclass.ggxbrdf")
            ->required();
        c->add_option("--param", o.params,
                      "Init parameter KEY=VALUE, KEY an integer key or its name (repeatable)");
    };
    auto* eval = cmd->add_subcommand("eval", "Create a class by id and evaluate JSON lines");
    addCommon(eval);
    eval->add_flag("--cache", o.cache, "Init with a fresh SamplerCache under key 1000");
    eval->add_option("--cloth", o.cloth,
                     "The cloth class's Init record as JSON (see \"cloth\" below)");
    eval->footer(BSDF_EVAL_HELP);
    eval->callback([&options, &run] { run = [&options] { return RunEval(options, o); }; });

    auto* plot = cmd->add_subcommand("plot", "Draw the lobe of ComputeBSDF over the hemisphere");
    addCommon(plot);
    plot->add_flag("--cache", o.cache, "Init with a fresh SamplerCache under key 1000");
    plot->add_option("--wo", o.wo, "Outgoing direction X,Y,Z (default 0,0,1)");
    plot->add_option("-o,--output", o.output, "Picture to write (.png or .exr)")->required();
    plot->add_option("--size", o.size, "Width and height in pixels (default 256)");
    plot->footer(
        "An orthographic view of the hemisphere of incoming directions (the one below the\n"
        "surface for a BTDF): the centre is the normal, the rim grazing, +x right, +y up.\n"
        "Grey is |value| / peak with gamma 1/2.2.");
    plot->add_option("--cloth", o.cloth, "The cloth class's Init record as JSON");
    plot->callback([&options, &run] { run = [&options] { return RunPlot(options, o); }; });

    auto* scratch =
        cmd->add_subcommand("scratch", "Draw the scratch frame of the anisotropic BRDF");
    scratch->add_option("--class", o.classId,
                        "Class id (default net.quorv.render.bsdflegacyclass.anisotropicbrdf)");
    scratch->add_option("--param", o.params,
                        "Init parameter KEY=VALUE (repeatable); roughness defaults to 0.5");
    scratch->add_option("--scratch", o.scratch, "The scratch record as JSON")->required();
    scratch->add_option("--extent", o.extent, "Width of the square of positions (default 4)");
    scratch->add_option("--size", o.size, "Width and height in pixels (default 256)");
    scratch->add_flag("--fast", o.fast, "Pass the fast flag (at most 9 jitter samples)");
    scratch->add_option("-o,--output", o.output, "Picture to write (.png or .exr)")->required();
    scratch->footer(
        "Positions span the square of --extent centred on 0, +x right, +y up. Hue: the angle\n"
        "of the turned tangent, 0 to pi around the colour circle; brightness: |n' - n| over its\n"
        "largest value in the picture (full brightness where nothing bends). Scratch fields:\n"
        "centerX, centerY, sectors, scale, rotation, tilt, amplitudeU, frequencyU, stretchU,\n"
        "blurU, amplitudeV, frequencyV, stretchV, blurV, mapping (0 planar, 1 radial, 2 none),\n"
        "pattern (0-4), mirror (bits), channels (1 u, 2 v, 3 both).");
    scratch->callback([&options, &run] { run = [&options] { return RunScratch(options, o); }; });
}

}  // namespace quorv::cli
