// quorv ies: reads a photometric web through the module and shows what it holds, writes it
// back as text, answers intensities and renders the preview picture.
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "jsonio.h"
#include "quorv/host/batch.h"
#include "quorv/host/image_writer.h"
#include "render/photometric/ies.h"
#include "values.h"

namespace quorv::cli {

namespace {

const char* const INTENSITY_HELP =
    R"(Reads JSON lines on stdin, each a direction [x,y,z] or {"direction":[x,y,z]} in the
light's own space (the web's vertical axis is z, vertical angle 0 looks along -z), and writes
one line per input: the intensity relative to the maximum, a number that reads back to the
same bits. A bad line gives {"error": "..."} on its line and the run goes on.)";

struct IesOptions {
    std::string file;
    bool json = false;
    std::string output;
    Int size = 512;
};

void PrintFileError(const std::string& file, const ErrorObject* e) {
    std::fprintf(stderr, "quorv: %s: %s\n", file.c_str(),
                 e->message ? e->message : ErrorToString(e).c_str());
}

// Loads the module and the web; prints the error and answers null on failure.
IesRef Load(const GlobalOptions& options, const std::string& file) {
    if (!StartHost(options)) return {};
    // Messages name the file; the reader's own text (e.g. "IES Header incomplete") stays exact.
    Result<Url> url = Url::FromText(file);
    if (url.IsError()) {
        PrintFileError(file, url.GetErrorPointer());
        return {};
    }
    Result<IesRef> ies = IesRef::Load(url.GetValue());
    if (ies.IsError()) {
        PrintFileError(file, ies.GetErrorPointer());
        return {};
    }
    return ies.GetValue();
}

int RunInfo(const GlobalOptions& options, const IesOptions& o) {
    IesRef ies = Load(options, o.file);
    if (!ies) return 1;
    const std::vector<std::pair<std::string, Json>> fields = DescribeIes(ies);
    if (o.json) {
        Json j = Json::object();
        for (const auto& [key, value] : fields) j[key] = value;
        std::cout << Line(j) << "\n";
        return 0;
    }
    for (const auto& [key, value] : fields) {
        std::cout << key << ": " << (value.is_string() ? value.get<std::string>() : value.dump())
                  << "\n";
    }
    return 0;
}

int RunText(const GlobalOptions& options, const IesOptions& o) {
    IesRef ies = Load(options, o.file);
    if (!ies) return 1;
    Result<String> text = IesInterface::ConvertToText(ies.Get());
    if (text.IsError()) {
        PrintFileError(o.file, text.GetErrorPointer());
        return 1;
    }
    std::cout << ToBit8(text.GetValue().ToUtf8());
    return 0;
}

int RunIntensity(const GlobalOptions& options, const IesOptions& o) {
    IesRef ies = Load(options, o.file);
    if (!ies) return 1;
    const IesImpl* web = ies.Get();
    return RunJsonLines(std::cin, [web](const Json& line) {
        const Json& in = line.is_object() && line.contains("direction") ? line["direction"] : line;
        Vector64 d;
        if (!FromJson(in, &d)) return ErrorJson("expected [x,y,z] or {\"direction\":[x,y,z]}");
        Float64 intensity;
        host::IesIntensityBatch(web, &d, &intensity, 1);
        return NumberToJson(intensity);
    });
}

int RunPreview(const GlobalOptions& options, const IesOptions& o) {
    if (o.size < 1 || o.size > 8192) {
        std::fprintf(stderr, "quorv: --size must be between 1 and 8192\n");
        return 1;
    }
    IesRef ies = Load(options, o.file);
    if (!ies) return 1;
    std::vector<Float32> pixels(static_cast<size_t>(o.size * o.size));
    GreyImage32 image{o.size, o.size, o.size, pixels.data()};
    Result<void> r = IesInterface::GeneratePreviewImageRows(ies.Get(), image.width, image.height,
                                                            ArraySetLine(&image), nullptr);
    if (r.IsOk()) r = host::WriteImage(o.output, o.size, o.size, 1, pixels.data());
    if (r.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(r.GetErrorPointer()).c_str());
        return 1;
    }
    return 0;
}

}  // namespace

void AddIesCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static IesOptions io;
    auto* cmd = app.add_subcommand("ies", "Read a photometric web (IES LM-63) through the module");
    cmd->require_subcommand(1);

    auto* info = cmd->add_subcommand(
        "info", "Version, tilt, texts, shape, counts, maximum, power, checksum");
    info->add_option("FILE", io.file, "IES file")->required();
    info->add_flag("--json", io.json, "One JSON line instead of text");
    info->callback([&options, &run] { run = [&options] { return RunInfo(options, io); }; });

    auto* text = cmd->add_subcommand("text", "The web written back as IES text");
    text->add_option("FILE", io.file, "IES file")->required();
    text->callback([&options, &run] { run = [&options] { return RunText(options, io); }; });

    auto* intensity =
        cmd->add_subcommand("intensity", "Relative intensity per direction (JSON lines)");
    intensity->footer(INTENSITY_HELP);
    intensity->add_option("FILE", io.file, "IES file")->required();
    intensity->callback(
        [&options, &run] { run = [&options] { return RunIntensity(options, io); }; });

    auto* preview = cmd->add_subcommand("preview", "Render the preview of a room lit by the web");
    preview->add_option("FILE", io.file, "IES file")->required();
    preview->add_option("-o,--output", io.output, "Picture to write, .png (8 bit) or .exr")
        ->required();
    preview->add_option("--size", io.size, "Width and height in pixels (default 512)");
    preview->callback([&options, &run] { run = [&options] { return RunPreview(options, io); }; });
}

}  // namespace quorv::cli
