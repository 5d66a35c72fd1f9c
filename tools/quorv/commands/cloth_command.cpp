// quorv cloth: the weave pattern presets, a map of their yarns, swatches of the cloth class and
// line-by-line evaluation of a pattern.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "cloth_json.h"
#include "commands.h"
#include "jsonio.h"
#include "quorv/host/host.h"
#include "quorv/host/image_writer.h"
#include "quorv/image.h"
#include "quorv/parallel.h"
#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/bsdfdata.h"
#include "render/legacy_renderers/clothweavepattern.h"

namespace quorv::cli {

namespace {

constexpr Float64 RADIANS_TO_DEGREES = 57.29577951308232;
// Rows per band of a picture: each band has its own cloth object, so the jitter of a pixel
// depends on its band alone and never on which thread ran it.
constexpr Int BAND_ROWS = 16;

const char* const CLOTH_EVAL_HELP =
    R"(Reads JSON lines on stdin, one operation each, on one weave pattern (--preset, --quality,
--set for the SetupCloth values), and writes one JSON line per input. Numbers round-trip
exactly. Yarns are numbered from 1 as in the preset tables.

  {"op":"GetYarn","u":x,"v":y,"useVariation":b?,"amount":a?,"weight":w?,"variationState":s?}
      -> {"yarn":k,"type":t,"uv":[u,v],"umax":m,"weight":w,"variationState":s}
         or {"yarn":null,...} in a gap (useVariation defaults to true, amount to 1.0, the
         weight and the variation state to 1.0)
  {"op":"Evaluate","yarn":k,"wo":V,"wi":V,"uv":[u,v],"umax":m?,"blur":b?,"smoothing":s?}
      -> {"value":x}  (umax defaults to the yarn's, blur to 1.0, smoothing to the pattern's;
         the scattering coefficients and areas are the pattern's)
  {"op":"ComputeSpecularRatio"}   -> {"specularRatio":x}
  {"op":"GetSpecularRatio"}       -> {"specularRatio":x}
  {"op":"GetScatteringCoefficients"} -> {"scattering":[alpha,beta]}
  {"op":"GetSmoothing"}           -> {"smoothing":x}
  {"op":"GetWarpWeftArea"}        -> {"areas":[warp,weft]}
  {"op":"GetSampleCount"}         -> {"sampleCount":n}
  {"op":"SetupPattern","preset":n} -> {"ok":true}
  {"op":"SetupCloth","quality":q,"alpha":a,...} -> {"ok":true} (fields default as for --set))";

const char* const CLOTH_SET_HELP =
    "Record or SetupCloth value KEY=JSON (repeatable): warpDiffuse, warpSpecular, weftDiffuse,\n"
    "weftSpecular ([r,g,b]), uvw, uvwDelta ([x,y,z]), rotation, scaleU, scaleV, blur; alpha,\n"
    "beta, smoothing, intensityVariation, intensityFineness, warpVariation, weftVariation,\n"
    "variationScale";

struct ClothOptions {
    UInt32 preset = 1;
    bool json = false;
    Int tiles = 2;
    std::string output;
    Int32 quality = 2;
    std::vector<std::string> sets;
    std::string wo = "0.5773502691896258,0.5773502691896258,0.5773502691896258";
    std::string wi = "0,0,1";
    Float64 extent = 0.1;
    Float64 footprint = 0.0002;
    Int size = 256;
    bool preview = false;
    Float64 gain = 1.0;
};

void PrintError(const ErrorObject* e) {
    std::fprintf(stderr, "quorv: %s\n", ErrorToString(e).c_str());
}

bool IsSetupKey(const std::string& key) {
    static const char* const keys[] = {"alpha",
                                       "beta",
                                       "smoothing",
                                       "intensityVariation",
                                       "intensityFineness",
                                       "warpVariation",
                                       "weftVariation",
                                       "variationScale"};
    return std::any_of(std::begin(keys), std::end(keys), [&](const char* k) { return key == k; });
}

// The cloth record as JSON from --preset, --quality and the --set values.
bool BuildClothJson(const ClothOptions& o, Json* out) {
    std::vector<std::pair<std::string, Json>> sets;
    if (!ParseParamOptions(o.sets, &sets)) return false;
    Json record = Json::object();
    Json setup = Json::object();
    for (auto& [key, value] : sets) {
        if (key == "preset" || key == "setupCloth" || key == "quality") {
            std::fprintf(stderr, "quorv: --set %s: use --preset or --quality\n",
                         Quote(key).c_str());
            return false;
        }
        (IsSetupKey(key) ? setup : record)[key] = value;
    }
    setup["quality"] = o.quality;
    record["preset"] = o.preset;
    record["setupCloth"] = setup;
    *out = record;
    return true;
}

bool ReadRecord(const Json& j, IrawanInitData* data) {
    try {
        ReadClothRecord(j, data);
    } catch (const LineError& e) {
        std::fprintf(stderr, "quorv: %s\n", e.what());
        return false;
    }
    return true;
}

Result<ClothWeavePatternRef> MakePattern(UInt32 preset) {
    Result<ClothWeavePatternRef> p = ClothWeavePatternRef::Create();
    if (p.IsError()) return p;
    QUORV_RETURN_IF_ERROR(ClothWeavePatternInterface::SetupPattern(p.GetValue().Get(), preset));
    return p;
}

bool CheckPreset(UInt32 preset) {
    if (preset < CLOTH_PRESET_COUNT) return true;
    std::fprintf(stderr, "quorv: --preset must lie in 0..%u\n", CLOTH_PRESET_COUNT - 1);
    return false;
}

Int YarnNumber(const ClothWeavePatternImpl* p, const ClothYarn* yarn) {
    for (Int k = 0; k < p->yarnCount; ++k) {
        if (p->yarns[k] == yarn) return k + 1;
    }
    return 0;
}

// ---- list -------------------------------------------------------------------------------------

int RunList(const GlobalOptions& options, const ClothOptions& o) {
    if (!StartHost(options)) return 1;
    Json presets = Json::array();
    std::string text;
    for (UInt32 preset = 0; preset < CLOTH_PRESET_COUNT; ++preset) {
        Result<ClothWeavePatternRef> made = MakePattern(preset);
        if (made.IsError()) {
            PrintError(made.GetErrorPointer());
            return 1;
        }
        const ClothWeavePatternImpl* p = made.GetValue().Get();
        Json table = Json::array();
        std::string rows;
        for (Int y = 0; y < p->tileHeight; ++y) {
            Json row = Json::array();
            for (Int x = 0; x < p->tileWidth; ++x) {
                const Int32 e = p->pattern[x + y * p->tileWidth];
                row.push_back(e);
                rows += (x ? " " : (y ? " / " : "")) + std::to_string(e);
            }
            table.push_back(row);
        }
        Json yarns = Json::array();
        char line[512];
        std::snprintf(line, sizeof(line),
                      "preset %u: specular ratio %g, repeat %g x %g, areas warp %g weft %g, tile "
                      "%lld x %lld, %lld yarns\n  table (top row first): %s\n",
                      preset, p->specularRatio, p->repeatU, p->repeatV, p->warpArea, p->weftArea,
                      static_cast<long long>(p->tileWidth), static_cast<long long>(p->tileHeight),
                      static_cast<long long>(p->yarnCount), rows.c_str());
        text += line;
        for (Int k = 0; k < p->yarnCount; ++k) {
            const ClothYarn* y = p->yarns[k];
            if (!y) continue;
            yarns.push_back(Json{{"yarn", k + 1},
                                 {"type", y->type},
                                 {"psi", NumberToJson(y->psi)},
                                 {"umax", NumberToJson(y->umax)},
                                 {"kappa", NumberToJson(y->kappa)},
                                 {"width", NumberToJson(y->width)},
                                 {"length", NumberToJson(y->length)},
                                 {"center", ToJson(Vector2d64{y->centerU, y->centerV})}});
            std::snprintf(line, sizeof(line),
                          "  yarn %2lld %s psi %g umax %g kappa %g width %g length %g centre "
                          "(%g, %g)\n",
                          static_cast<long long>(k + 1), y->type == 0 ? "warp" : "weft",
                          y->psi * RADIANS_TO_DEGREES, y->umax * RADIANS_TO_DEGREES, y->kappa,
                          y->width, y->length, y->centerU, y->centerV);
            text += line;
        }
        presets.push_back(Json{{"preset", preset},
                               {"specularRatio", NumberToJson(p->specularRatio)},
                               {"repeatU", NumberToJson(p->repeatU)},
                               {"repeatV", NumberToJson(p->repeatV)},
                               {"warpArea", NumberToJson(p->warpArea)},
                               {"weftArea", NumberToJson(p->weftArea)},
                               {"tileWidth", p->tileWidth},
                               {"tileHeight", p->tileHeight},
                               {"table", table},
                               {"yarns", yarns}});
    }
    if (o.json) return WriteOutputLine(Line(Json{{"presets", presets}})) ? 0 : 1;
    std::fputs(text.c_str(), stdout);
    return 0;
}

// ---- layout -----------------------------------------------------------------------------------

int RunLayout(const GlobalOptions& options, const ClothOptions& o) {
    if (!CheckPreset(o.preset)) return 1;
    if (o.tiles < 1 || o.tiles > 16) {
        std::fprintf(stderr, "quorv: --tiles must lie in 1..16\n");
        return 1;
    }
    if (!StartHost(options)) return 1;
    Result<ClothWeavePatternRef> made = MakePattern(o.preset);
    if (made.IsError()) {
        PrintError(made.GetErrorPointer());
        return 1;
    }
    const ClothWeavePatternImpl* p = made.GetValue().Get();
    constexpr Int CELL = 24;
    const Int width = o.tiles * p->tileWidth * CELL;
    const Int height = o.tiles * p->tileHeight * CELL;
    const Float64 tiles = static_cast<Float64>(o.tiles);
    std::vector<Float32> pixels(static_cast<size_t>(width * height * 3), 0.0f);
    for (Int py = 0; py < height; ++py) {
        for (Int px = 0; px < width; ++px) {
            // v grows upward: the top row of the picture is the top row of the table.
            const Float64 u = (px + 0.5) / static_cast<Float64>(width) * tiles / p->repeatU;
            const Float64 v =
                (1.0 - (py + 0.5) / static_cast<Float64>(height)) * tiles / p->repeatV;
            Vector2d64 uv;
            Float64 umax = 0.0, weight = 1.0, state = 1.0;
            const ClothYarn* yarn = ClothWeavePatternInterface::GetYarn(
                p, u, v, &uv, &umax, &weight, &state, false, 0.0);
            if (!yarn) continue;  // a gap stays black
            // Warp blue, weft orange; the yarn number picks one of four shades.
            const Float64 warpHue[3] = {0.25, 0.5, 1.0}, weftHue[3] = {1.0, 0.55, 0.15};
            const Float64* hue = yarn->type == 0 ? warpHue : weftHue;
            const Float64 shade = 0.55 + 0.15 * static_cast<Float64>((YarnNumber(p, yarn) - 1) % 4);
            // Bright on the crown of the yarn (v = 0) and the middle of the segment (u = 0).
            const Float64 across = std::max(0.0, std::cos(uv.y));
            const Float64 along =
                umax > 0.0
                    ? 0.7 + 0.3 * std::cos(std::clamp(uv.x / umax, -1.0, 1.0) * 1.5707963267948966)
                    : 1.0;
            const Float64 b = shade * (0.2 + 0.8 * across) * along;
            for (int c = 0; c < 3; ++c) {
                pixels[static_cast<size_t>((py * width + px) * 3 + c)] =
                    static_cast<Float32>(hue[c] * b);
            }
        }
    }
    Result<void> written = host::WriteImage(o.output, width, height, 3, pixels.data());
    if (written.IsError()) {
        PrintError(written.GetErrorPointer());
        return 1;
    }
    std::printf("%s: %lldx%lld, preset %u, %lld x %lld tiles\n", o.output.c_str(),
                static_cast<long long>(width), static_cast<long long>(height), o.preset,
                static_cast<long long>(o.tiles), static_cast<long long>(o.tiles));
    return 0;
}

// ---- swatch -----------------------------------------------------------------------------------

Result<BSDFLegacyRef> MakeCloth(const IrawanInitData& data) {
    Result<ObjectRef> object =
        CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID), LiteralId(IRAWAN_BRDF_CLASS_ID));
    if (object.IsError()) return object.GetError();
    Result<BSDFLegacyRef> bsdf = BSDFLegacyRef::Cast(object.GetValue());
    if (bsdf.IsError()) return bsdf;
    QUORV_RETURN_IF_ERROR(bsdf.GetValue().Init(DataDictionary(), &data));
    return bsdf;
}

// The class's own preview: GeneratePreviewImage into a host image of n x n Float32 grey
// pixels, read back for the picture writer. One object draws it all, row by row.
bool DrawPreview(const IrawanInitData& data, Int n, Float64 gain, Float32* pixels) {
    Result<BSDFLegacyRef> cloth = MakeCloth(data);
    if (cloth.IsError()) {
        PrintError(cloth.GetErrorPointer());
        return false;
    }
    const PixelFormatObject* grey = FindPixelFormat("grey.f32");
    Result<ImageObject*> created =
        grey ? ImageInterface::Create(imageids::IMAGECLASS_IMAGE, imageids::STORAGE_NORMAL, n, n, grey)
             : Result<ImageObject*>(MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                                              "The host has no grey.f32 pixel format"));
    if (created.IsError()) {
        PrintError(created.GetErrorPointer());
        return false;
    }
    Ref<ImageObject> image = Ref<ImageObject>::Adopt(created.GetValue());
    Result<void> drawn = cloth.GetValue().GeneratePreviewImage(image.Get(), gain);
    Result<PixelReadHandler*> reader =
        drawn.IsOk() ? ImageInterface::GetPixelHandler(image.Get(), grey, nullptr)
                     : Result<PixelReadHandler*>(drawn.GetError());
    if (reader.IsError()) {
        PrintError(reader.GetErrorPointer());
        return false;
    }
    Ref<PixelReadHandler> read = Ref<PixelReadHandler>::Adopt(reader.GetValue());
    for (Int y = 0; y < n; ++y) read->read(read.Get(), 0, y, n, pixels + y * n);
    return true;
}

int RunSwatch(const GlobalOptions& options, const ClothOptions& o) {
    if (!CheckPreset(o.preset)) return 1;
    if (o.size < 8 || o.size > 4096) {
        std::fprintf(stderr, "quorv: --size must lie in 8..4096\n");
        return 1;
    }
    Vector64 wo, wi;
    if (!ParseVectorText(o.wo, &wo) || !ParseVectorText(o.wi, &wi)) {
        std::fprintf(stderr, "quorv: --wo and --wi must be X,Y,Z\n");
        return 1;
    }
    if (!std::isfinite(o.extent) || !std::isfinite(o.footprint) || !std::isfinite(o.gain)) {
        std::fprintf(stderr, "quorv: --extent, --footprint and --gain must be finite\n");
        return 1;
    }
    if (!StartHost(options)) return 1;
    Json record;
    if (!BuildClothJson(o, &record)) return 1;
    IrawanInitData data = DefaultClothRecord();
    if (!ReadRecord(record, &data)) return 1;
    const Int n = o.size;
    const Int channels = o.preview ? 1 : 3;
    std::vector<Float32> pixels(static_cast<size_t>(n * n * channels), 0.0f);
    if (o.preview) {
        if (!DrawPreview(data, n, o.gain, pixels.data())) return 1;
    }
    const Int bands = (n + BAND_ROWS - 1) / BAND_ROWS;
    Result<void> done = ParallelFor(0, o.preview ? 0 : bands, 1, [&](Int from, Int to, Int) -> Result<void> {
        for (Int band = from; band < to; ++band) {
            Result<BSDFLegacyRef> cloth = MakeCloth(data);
            if (cloth.IsError()) return cloth.GetError();
            const BSDFLegacyRef& b = cloth.GetValue();
            for (Int y = band * BAND_ROWS; y < std::min(n, (band + 1) * BAND_ROWS); ++y) {
                for (Int x = 0; x < n; ++x) {
                    const size_t at = static_cast<size_t>((y * n + x) * channels);
                    // v grows upward in the picture.
                    const Vector64 uvw{(x + 0.5) / n * o.extent, (n - y - 0.5) / n * o.extent, 0};
                    const Color64 c = b.ComputeF_UVW(wo, wi, uvw, {o.footprint, o.footprint, 0.0});
                    pixels[at] = static_cast<Float32>(c.r * o.gain);
                    pixels[at + 1] = static_cast<Float32>(c.g * o.gain);
                    pixels[at + 2] = static_cast<Float32>(c.b * o.gain);
                }
            }
        }
        return OK;
    });
    if (done.IsError()) {
        PrintError(done.GetErrorPointer());
        return 1;
    }
    Result<void> written = host::WriteImage(o.output, n, n, channels, pixels.data());
    if (written.IsError()) {
        PrintError(written.GetErrorPointer());
        return 1;
    }
    std::printf("%s: %lldx%lld, preset %u%s\n", o.output.c_str(), static_cast<long long>(n),
                static_cast<long long>(n), o.preset, o.preview ? ", preview" : "");
    return 0;
}

// ---- eval -------------------------------------------------------------------------------------

struct Session {
    ClothWeavePatternRef pattern;
};

Json Evaluate(Session& s, const Json& line) {
    if (!line.is_object()) throw LineError("each line must be an object with a string \"op\"");
    const Json* opField = FindField(line, "op");
    if (!opField || !opField->is_string()) {
        throw LineError("each line must be an object with a string \"op\"");
    }
    const std::string op = opField->get<std::string>();
    ClothWeavePatternImpl* p = s.pattern.Get();
    if (op == "GetYarn") {
        const Float64 u = NeedNumberField(line, "u");
        const Float64 v = NeedNumberField(line, "v");
        const bool useVariation = GetBoolField(line, "useVariation", true);
        const Float64 amount = GetNumberField(line, "amount", 1.0);
        Float64 weight = GetNumberField(line, "weight", 1.0);
        Float64 state = GetNumberField(line, "variationState", 1.0);
        Vector2d64 uv;
        Float64 umax = 0.0;
        const ClothYarn* yarn = ClothWeavePatternInterface::GetYarn(p, u, v, &uv, &umax, &weight,
                                                                    &state, useVariation, amount);
        if (!yarn) return Json{{"yarn", nullptr}, {"weight", NumberToJson(weight)}};
        return Json{{"yarn", YarnNumber(p, yarn)},
                    {"type", yarn->type},
                    {"uv", ToJson(uv)},
                    {"umax", NumberToJson(umax)},
                    {"weight", NumberToJson(weight)},
                    {"variationState", NumberToJson(state)}};
    }
    if (op == "Evaluate") {
        const Int k = GetIntegerField<Int>(line, "yarn", 0);
        if (k < 1 || k > p->yarnCount || !p->yarns[k - 1]) {
            throw LineError("\"yarn\" must name a yarn of the pattern, 1 to " +
                            std::to_string(p->yarnCount));
        }
        const ClothYarn* yarn = p->yarns[k - 1];
        const Vector64 wo = NeedVectorField(line, "wo");
        const Vector64 wi = NeedVectorField(line, "wi");
        const Json* uvField = FindField(line, "uv");
        Vector2d64 uv;
        if (!uvField || !FromJson(*uvField, &uv)) throw LineError("\"uv\" must be [u,v]");
        const Float64 umax = GetNumberField(line, "umax", yarn->umax);
        const Float64 blur = GetNumberField(line, "blur", 1.0);
        const Float64 smoothing =
            GetNumberField(line, "smoothing", ClothWeavePatternInterface::GetSmoothing(p));
        const Float64 value =
            yarn->Evaluate(wo, wi, uv, ClothWeavePatternInterface::GetScatteringCoefficients(p),
                           ClothWeavePatternInterface::GetWarpWeftArea(p), umax, blur, smoothing);
        return Json{{"value", NumberToJson(value)}};
    }
    if (op == "ComputeSpecularRatio") {
        ClothWeavePatternInterface::ComputeSpecularRatio(p);
        return Json{
            {"specularRatio", NumberToJson(ClothWeavePatternInterface::GetSpecularRatio(p))}};
    }
    if (op == "GetSpecularRatio") {
        return Json{
            {"specularRatio", NumberToJson(ClothWeavePatternInterface::GetSpecularRatio(p))}};
    }
    if (op == "GetScatteringCoefficients") {
        return Json{
            {"scattering", ToJson(ClothWeavePatternInterface::GetScatteringCoefficients(p))}};
    }
    if (op == "GetSmoothing") {
        return Json{{"smoothing", NumberToJson(ClothWeavePatternInterface::GetSmoothing(p))}};
    }
    if (op == "GetWarpWeftArea") {
        return Json{{"areas", ToJson(ClothWeavePatternInterface::GetWarpWeftArea(p))}};
    }
    if (op == "GetSampleCount") {
        return Json{{"sampleCount", ClothWeavePatternInterface::GetSampleCount(p)}};
    }
    if (op == "SetupPattern") {
        const UInt32 preset = GetIntegerField<UInt32>(line, "preset", 0);
        Result<void> r = ClothWeavePatternInterface::SetupPattern(p, preset);
        if (r.IsError()) return ErrorJson(ErrorToString(r.GetErrorPointer()));
        return Json{{"ok", true}};
    }
    if (op == "SetupCloth") {
        Json fields = line;
        fields.erase("op");
        ClothSetupArguments a;
        ReadClothSetup(fields, &a);
        ClothWeavePatternInterface::SetupCloth(p, a.quality, a.alpha, a.beta, a.smoothing,
                                               a.intensityVariation, a.intensityFineness,
                                               a.warpVariation, a.weftVariation, a.variationScale);
        return Json{{"ok", true}};
    }
    return ErrorJson("unknown op \"" + Quote(op) + "\"");
}

int RunEval(const GlobalOptions& options, const ClothOptions& o) {
    if (!CheckPreset(o.preset)) return 1;
    if (!StartHost(options)) return 1;
    Json record;
    if (!BuildClothJson(o, &record)) return 1;
    IrawanInitData data = DefaultClothRecord();
    if (!ReadRecord(record, &data)) return 1;
    Session session{data.pattern};
    return RunJsonLines(std::cin, [&session](const Json& line) { return Evaluate(session, line); });
}

}  // namespace

void AddClothCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static ClothOptions o;
    auto* cmd = app.add_subcommand("cloth", "Weave pattern presets, yarn maps and cloth swatches");
    cmd->require_subcommand(1);
    auto addPreset = [](CLI::App* c) {
        c->add_option("--preset", o.preset, "Weave pattern preset 0..5 (default 1)");
    };

    auto* list = cmd->add_subcommand("list", "Print the weave pattern presets");
    list->add_flag("--json", o.json, "One JSON object instead of text");
    list->callback([&options, &run] { run = [&options] { return RunList(options, o); }; });

    auto* layout = cmd->add_subcommand("layout", "Draw the yarn map of a preset");
    addPreset(layout);
    layout->add_option("--tiles", o.tiles, "Tiles across and down (default 2)");
    layout->add_option("-o,--output", o.output, "Picture to write (.png or .exr)")->required();
    layout->footer(
        "Warp yarns blue, weft yarns orange, one of four shades per yarn number; brightness\n"
        "from the yarn coordinates GetYarn returns (bright on the crown of a yarn and in the\n"
        "middle of its segment); gaps black. 24 pixels per cell, the top row of the picture\n"
        "the top row of the table.");
    layout->callback([&options, &run] { run = [&options] { return RunLayout(options, o); }; });

    auto* swatch = cmd->add_subcommand("swatch", "Draw the cloth class's ComputeF_UVW in colour");
    addPreset(swatch);
    swatch->add_option("--quality", o.quality, "SetupCloth quality -1..2: 1, 4, 16, 64 samples");
    swatch->add_option("--set", o.sets, CLOTH_SET_HELP);
    swatch->add_option("--wo", o.wo, "Outgoing direction X,Y,Z (default the diagonal)");
    swatch->add_option("--wi", o.wi, "Incoming direction X,Y,Z (default 0,0,1)");
    swatch->add_option("--extent", o.extent, "Texture space the picture spans (default 0.1)");
    swatch->add_option("--footprint", o.footprint, "Footprint delta per pixel (default 0.0002)");
    swatch->add_option("--size", o.size, "Width and height in pixels (default 256)");
    swatch->add_option("--gain", o.gain, "Factor on every value (default 1)");
    swatch->add_flag("--preview", o.preview,
                     "Draw the class's grey preview (red channel of fixed directions) instead");
    swatch->add_option("-o,--output", o.output, "Picture to write (.png or .exr)")->required();
    swatch->footer(
        "Each pixel is ComputeF_UVW(wo, wi, (x, y, 0), (footprint, footprint, 0)) of a cloth\n"
        "object made from the preset and the --set values; PNG clamps to [0, 1], EXR keeps\n"
        "the floats. The picture is drawn in bands of 16 rows, one object each, so that it\n"
        "does not depend on the number of threads.");
    swatch->callback([&options, &run] { run = [&options] { return RunSwatch(options, o); }; });

    auto* eval = cmd->add_subcommand("eval", "Evaluate a weave pattern line by line");
    addPreset(eval);
    eval->add_option("--quality", o.quality, "SetupCloth quality -1..2 (default 2)");
    eval->add_option("--set", o.sets, "SetupCloth value KEY=JSON (repeatable)");
    eval->footer(CLOTH_EVAL_HELP);
    eval->callback([&options, &run] { run = [&options] { return RunEval(options, o); }; });
}

}  // namespace quorv::cli
