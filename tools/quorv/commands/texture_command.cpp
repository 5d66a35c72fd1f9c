// quorv texture: loads a picture through the module's texture cache and shows what the texture
// made of it, samples it by JSON lines, or renders it through the sampler into a new picture.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "jsonio.h"
#include "values.h"
#include "quorv/host/batch.h"
#include "quorv/host/image_writer.h"
#include "quorv/parallel.h"
#include "render/textures/texture.h"

namespace quorv::cli {

namespace {

const char* const SAMPLE_HELP =
    R"(Reads JSON lines on stdin and writes one line per input, {"rgba":[r,g,b,a]}, numbers that
read back to the same bits. Fields, all optional but "uv":
  "uv": [u,v]              position (v = 0 is the bottom row)
  "footprint": [fu,fv]     area to cover, in uv units (default [0,0])
  "mode": M                both border modes; "modeU", "modeV" set one each (default CLAMP)
                           EXTEND, CLAMP, REPEAT, MIRROR or their numbers 0..3
  "interpolation": I       NONE, LINEAR, MIP, RIP, SUMMEDAREA, BICUBIC or 0, 2..6 (default LINEAR)
  "colorSpace": C          RAW, LINEAR, SRGB or 0..2 (default RAW)
  "alpha": A               NONE, NOALPHA, PROFILE_PREMULTIPLIED_TO_LINEAR_STRAIGHT,
                           LINEAR_PREMULTIPLIED_TO_LINEAR_STRAIGHT, STRAIGHT_FROM_RGB or 0..4
  "tile": true|false       (default true)
A bad line gives {"error": "..."} on its line and the run goes on.)";

struct TextureOptions {
    std::string file;
    bool json = false;
    UInt32 flags = 0;
    Float64 time = 0.0;
    std::string output;
    std::string size = "512x512";
    std::string interpolation = "MIP";
    std::string footprint = "auto";
    std::string mode = "REPEAT";
    std::string colorSpace = "RAW";
};

struct Name {
    const char* text;
    Int32 value;
};

constexpr Name MODES[] = {{"EXTEND", 0}, {"CLAMP", 1}, {"REPEAT", 2}, {"MIRROR", 3}};
constexpr Name INTERPOLATIONS[] = {{"NONE", 0}, {"LINEAR", 2},     {"MIP", 3},
                                   {"RIP", 4},  {"SUMMEDAREA", 5}, {"BICUBIC", 6}};
constexpr Name COLORSPACES[] = {{"RAW", 0}, {"LINEAR", 1}, {"SRGB", 2}};
constexpr Name ALPHAS[] = {{"NONE", 0},
                           {"NOALPHA", 1},
                           {"PROFILE_PREMULTIPLIED_TO_LINEAR_STRAIGHT", 2},
                           {"LINEAR_PREMULTIPLIED_TO_LINEAR_STRAIGHT", 3},
                           {"STRAIGHT_FROM_RGB", 4}};

template <size_t N>
bool LookUp(const Name (&names)[N], const std::string& text, Int32* out) {
    for (const Name& n : names) {
        if (text == n.text || text == std::to_string(n.value)) {
            *out = n.value;
            return true;
        }
    }
    return false;
}

template <size_t N>
std::string NameList(const Name (&names)[N]) {
    std::string s;
    for (const Name& n : names) s += (s.empty() ? "" : ", ") + std::string(n.text);
    return s;
}

// A field given as a name or its number.
template <size_t N>
Int32 EnumField(const Json& line, const char* field, const Name (&names)[N], Int32 fallback) {
    auto it = line.find(field);
    if (it == line.end()) return fallback;
    std::string text;
    if (it->is_string())
        text = it->get<std::string>();
    else if (it->is_number_integer())
        text = std::to_string(it->get<Int>());
    Int32 v;
    if (text.empty() || !LookUp(names, text, &v)) {
        throw LineError("\"" + std::string(field) + "\" must be one of " + NameList(names));
    }
    return v;
}

Vector2d64 PairField(const Json& line, const char* field, Vector2d64 fallback, bool required) {
    auto it = line.find(field);
    if (it == line.end()) {
        if (required) throw LineError("\"" + std::string(field) + "\" is missing");
        return fallback;
    }
    Vector2d64 v;
    if (!FromJson(*it, &v)) throw LineError("\"" + std::string(field) + "\" must be [x,y]");
    return v;
}

void PrintError(const std::string& file, const ErrorObject* e) {
    std::fprintf(stderr, "quorv: %s: %s\n", file.c_str(),
                 e->message ? e->message : ErrorToString(e).c_str());
}

// Loads the module and the texture; prints the error and answers null on failure.
TextureRef Load(const GlobalOptions& options, const TextureOptions& o) {
    if (!StartHost(options)) return {};
    Result<Url> url = Url::FromText(o.file);
    if (url.IsError()) {
        PrintError(o.file, url.GetErrorPointer());
        return {};
    }
    Result<TextureImpl*> t = TextureManagementInterface::LoadTexture(
        url.GetValue().GetObject(), nullptr, 0, o.flags, nullptr, o.time, nullptr);
    if (t.IsError()) {
        PrintError(o.file, t.GetErrorPointer());
        return {};
    }
    return TextureRef::Adopt(t.GetValue());
}


}  // namespace

/// The answer to one line of `quorv texture sample`.
Json SampleTextureLine(const ThreadedTextureRef& sampler, const Json& line) {
    if (!line.is_object()) throw LineError("expected an object with \"uv\"");
    const Vector2d64 uv = PairField(line, "uv", {}, true);
    const Vector2d64 footprint = PairField(line, "footprint", {0, 0}, false);
    const Int32 both = EnumField(line, "mode", MODES, 1);
    const auto modeU = static_cast<TEXTUREMODE>(EnumField(line, "modeU", MODES, both));
    const auto modeV = static_cast<TEXTUREMODE>(EnumField(line, "modeV", MODES, both));
    const auto interpolation =
        static_cast<TEXTUREINTERPOLATION>(EnumField(line, "interpolation", INTERPOLATIONS, 2));
    const auto colorSpace =
        static_cast<DESTINATIONCOLORSPACE>(EnumField(line, "colorSpace", COLORSPACES, 0));
    const auto alpha = static_cast<ALPHAPROCESSING>(EnumField(line, "alpha", ALPHAS, 0));
    bool tile = true;
    if (auto it = line.find("tile"); it != line.end()) {
        if (!it->is_boolean()) throw LineError("\"tile\" must be true or false");
        tile = it->get<bool>();
    }
    const host::TextureSampleSettings settings{modeU, modeV, interpolation, colorSpace, alpha, tile};
    ColorA64 c;
    host::TextureSampleBatch(sampler, &uv, &footprint, settings, &c, 1);
    return Json{{"rgba", Json::array({NumberToJson(c.r), NumberToJson(c.g), NumberToJson(c.b),
                                      NumberToJson(c.a)})}};
}


namespace {

int RunInfo(const GlobalOptions& options, const TextureOptions& o) {
    TextureRef t = Load(options, o);
    if (!t) return 1;
    const Json info = TextureInfoJson(*t.Get());
    if (o.json) return WriteOutputLine(Line(info)) ? 0 : 1;
    std::string text;
    for (const auto& [key, value] : info.items()) {
        text += key + ": " + (value.is_string() ? value.get<std::string>() : value.dump()) + "\n";
    }
    // The last line's feed is written by WriteOutputLine, checked.
    text.pop_back();
    return WriteOutputLine(text) ? 0 : 1;
}

int RunSample(const GlobalOptions& options, const TextureOptions& o) {
    TextureRef t = Load(options, o);
    if (!t) return 1;
    Result<ThreadedTextureRef> sampler = ThreadedTextureRef::Create(t);
    if (sampler.IsError()) {
        PrintError(o.file, sampler.GetErrorPointer());
        return 1;
    }
    const ThreadedTextureRef& s = sampler.GetValue();
    return RunJsonLines(std::cin, [&s](const Json& line) { return SampleTextureLine(s, line); });
}

int RunResample(const GlobalOptions& options, const TextureOptions& o) {
    Int w = 0, h = 0;
    if (std::sscanf(o.size.c_str(), "%lldx%lld", reinterpret_cast<long long*>(&w),
                    reinterpret_cast<long long*>(&h)) != 2 ||
        w < 1 || h < 1 || w > 16384 || h > 16384) {
        std::fprintf(stderr, "quorv: --size must be WxH, each from 1 to 16384\n");
        return 1;
    }
    Int32 interpolation, mode, colorSpace;
    if (!LookUp(INTERPOLATIONS, o.interpolation, &interpolation)) {
        std::fprintf(stderr, "quorv: --interpolation must be one of %s\n",
                     NameList(INTERPOLATIONS).c_str());
        return 1;
    }
    if (!LookUp(MODES, o.mode, &mode)) {
        std::fprintf(stderr, "quorv: --mode must be one of %s\n", NameList(MODES).c_str());
        return 1;
    }
    if (!LookUp(COLORSPACES, o.colorSpace, &colorSpace)) {
        std::fprintf(stderr, "quorv: --color-space must be one of %s\n",
                     NameList(COLORSPACES).c_str());
        return 1;
    }
    // The footprint of one output pixel, unless one is given.
    Vector2d64 footprint{1.0 / static_cast<Float64>(w), 1.0 / static_cast<Float64>(h)};
    if (o.footprint != "auto") {
        Vector64 v;
        if (std::sscanf(o.footprint.c_str(), "%lf,%lf", &v.x, &v.y) != 2) {
            std::fprintf(stderr, "quorv: --footprint must be auto or FU,FV\n");
            return 1;
        }
        footprint = {v.x, v.y};
    }
    TextureRef t = Load(options, o);
    if (!t) return 1;
    std::vector<Float32> pixels(static_cast<size_t>(w * h * 4));
    Result<void> r = ParallelFor(0, h, 8, [&](Int from, Int to, Int) -> Result<void> {
        Result<ThreadedTextureRef> sampler = ThreadedTextureRef::Create(t);
        if (sampler.IsError()) return sampler.GetError();
        for (Int y = from; y < to; ++y) {
            for (Int x = 0; x < w; ++x) {
                // Pixel centres, top row first: v = 1 at the top.
                const Vector2d64 uv{
                    (static_cast<Float64>(x) + 0.5) / static_cast<Float64>(w),
                    1.0 - (static_cast<Float64>(y) + 0.5) / static_cast<Float64>(h)};
                const ColorA64 c = sampler.GetValue().Sample(
                    uv, footprint, static_cast<TEXTUREMODE>(mode), static_cast<TEXTUREMODE>(mode),
                    static_cast<TEXTUREINTERPOLATION>(interpolation),
                    static_cast<DESTINATIONCOLORSPACE>(colorSpace), ALPHAPROCESSING::NONE, true);
                Float32* p = &pixels[static_cast<size_t>((y * w + x) * 4)];
                p[0] = static_cast<Float32>(c.r);
                p[1] = static_cast<Float32>(c.g);
                p[2] = static_cast<Float32>(c.b);
                p[3] = static_cast<Float32>(c.a);
            }
        }
        return OK;
    });
    if (r.IsOk()) r = host::WriteImage(o.output, w, h, 4, pixels.data());
    if (r.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(r.GetErrorPointer()).c_str());
        return 1;
    }
    return 0;
}

}  // namespace

void AddTextureCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static TextureOptions to;
    auto* cmd = app.add_subcommand(
        "texture", "Load a picture as a texture, sample it, render it through the sampler");
    cmd->require_subcommand(1);
    auto common = [](CLI::App* sub) {
        sub->add_option("IMAGE", to.file, "Picture file (PNG, JPEG, TIFF, EXR, HDR, ...)")
            ->required();
        sub->add_option("--flags", to.flags,
                        "Texture flags; bit 0 converts to a regular float format");
        sub->add_option("--time", to.time, "Time in seconds of a picture with several frames");
    };

    auto* info = cmd->add_subcommand(
        "info", "Size, formats, flags, colour profile, frame rate and duration");
    common(info);
    info->add_flag("--json", to.json, "One JSON line instead of text");
    info->callback([&options, &run] { run = [&options] { return RunInfo(options, to); }; });

    auto* sample = cmd->add_subcommand("sample", "Sample the texture by JSON lines");
    sample->footer(SAMPLE_HELP);
    common(sample);
    sample->callback([&options, &run] { run = [&options] { return RunSample(options, to); }; });

    auto* resample = cmd->add_subcommand(
        "resample", "Render the texture through the sampler into a new picture");
    common(resample);
    resample->add_option("-o,--output", to.output, "Picture to write, .png (8 bit) or .exr")
        ->required();
    resample->add_option("--size", to.size, "WxH of the new picture (default 512x512)");
    resample->add_option("--interpolation", to.interpolation,
                         "NONE, LINEAR, MIP, RIP, SUMMEDAREA, BICUBIC (default MIP)");
    resample->add_option("--footprint", to.footprint,
                         "auto (one output pixel) or FU,FV in uv units");
    resample->add_option("--mode", to.mode, "EXTEND, CLAMP, REPEAT, MIRROR (default REPEAT)");
    resample->add_option("--color-space", to.colorSpace, "RAW, LINEAR, SRGB (default RAW)");
    resample->callback([&options, &run] { run = [&options] { return RunResample(options, to); }; });
}

}  // namespace quorv::cli
