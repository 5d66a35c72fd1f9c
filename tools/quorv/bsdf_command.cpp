// quorv bsdf: lists the legacy BSDF classes, evaluates one class line by line, or draws its lobe.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>

#include "commands.h"
#include "jsonio.h"
#include "values.h"
#include "quorv/host/batch.h"
#include "quorv/host/host.h"
#include "quorv/host/image_writer.h"
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
  {"op":"Init","params":{KEY:VALUE,...}}       -> {"ok":true}
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
SamplerCache under 1000 (BSDF_PARAM_DISTRIBUTION_CACHE).)";

constexpr Int SAMPLE_TABLE_SIZE = host::BSDF_SAMPLE_TABLE_SIZE;

struct BSDFOptions {
    std::string classId;
    std::vector<std::string> params;
    bool cache = false;
    std::string wo = "0,0,1";
    std::string output;
    Int size = 256;
};

// The class, its dictionary inputs and the one cache of the run.
struct Session {
    BSDFLegacyRef bsdf;
    std::unique_ptr<SamplerCache> cache;
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
        Result<void> r = b.Init(dict.GetValue(), nullptr);
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
    Result<void> init = session.bsdf.Init(dict.GetValue(), nullptr);
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
    plot->callback([&options, &run] { run = [&options] { return RunPlot(options, o); }; });
}

}  // namespace quorv::cli
