// quorv media: the host's media sessions. `formats` lists the registered formats and their
// handlers, `detect` tells which format takes each file, `import` reads a file into a picture
// through its format (the image library when none takes it) and writes it out.
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "commands.h"
#include "media_picture.h"
#include "quorv/host/image_writer.h"
#include "quorv/host/media.h"
#include "quorv/ref.h"
#include "quorv/url.h"

namespace quorv::cli {

namespace {

struct MediaOptions {
    std::vector<std::string> files;
    std::string file;
    std::string output;
    bool quiet = false;
};

void PrintError(const std::string& file, const Result<void>& r) {
    const ErrorObject* e = r.GetErrorPointer();
    std::fprintf(stderr, "quorv: %s: %s\n", file.c_str(), e && e->message ? e->message : "error");
}

int RunFormats(const GlobalOptions& global) {
    if (!StartHost(global)) return 1;
    for (const host::MediaFormatListing& f : host::ListMediaFormats()) {
        std::string handlers;
        for (const std::string& h : f.handlers) handlers += (handlers.empty() ? "" : ",") + h;
        std::printf("%s\t%s\n", f.format.c_str(), handlers.empty() ? "-" : handlers.c_str());
    }
    return 0;
}

int RunDetect(const GlobalOptions& global, const MediaOptions& o) {
    if (!StartHost(global)) return 1;
    int rc = 0;
    std::printf("file\tformat\thandler\n");
    for (const std::string& file : o.files) {
        Result<Url> url = Url::FromText(file);
        if (url.IsError()) {
            PrintError(file, url.GetError());
            rc = 1;
            continue;
        }
        Result<std::unique_ptr<host::MediaSession>> session =
            host::MediaSession::Open(url.GetValue());
        Result<host::MediaDetection> found = session.IsOk()
                                                 ? session.GetValue()->Detect()
                                                 : Result<host::MediaDetection>(session.GetError());
        if (found.IsError()) {
            PrintError(file, found.GetError());
            rc = 1;
            continue;
        }
        const host::MediaDetection& d = found.GetValue();
        std::printf("%s\t%s\t%s\n", file.c_str(), d.format.empty() ? "-" : d.format.c_str(),
                    d.handler.empty() ? "-" : d.handler.c_str());
    }
    return rc;
}

int RunImport(const GlobalOptions& global, const MediaOptions& o) {
    if (!StartHost(global)) return 1;
    Result<Url> url = Url::FromText(o.file);
    if (url.IsError()) {
        PrintError(o.file, url.GetError());
        return 1;
    }
    // Progress in tenths on stderr; the session calls from its workers one at a time.
    int lastTenth = -1;
    host::MediaImportOptions options;
    if (!o.quiet) {
        options.progress = [&lastTenth](Float64 done) {
            const int tenth = static_cast<int>(done * 10.0);
            if (tenth > lastTenth) {
                lastTenth = tenth;
                std::fprintf(stderr, "progress %d%%\n", tenth * 10);
            }
            return true;
        };
    }
    bool detected = false;
    Result<ImageTextureObject*> imported = host::ImportMedia(url.GetValue(), options, &detected);
    if (imported.IsOk() && !detected) {
        // No registered format: the picture as the host loads any other.
        imported = ImageTextureInterface::Load(url.GetValue().GetObject(), 0.0, nullptr, nullptr);
    }
    if (imported.IsError()) {
        PrintError(o.file, imported.GetError());
        return 1;
    }
    Ref<ImageTextureObject> picture = Ref<ImageTextureObject>::Adopt(imported.GetValue());
    const ImageObject* image = ImageTextureInterface::GetFirstImage(picture.Get());
    Result<void> written = WritePicture(o.output, image);
    if (written.IsError()) {
        PrintError(o.output, written);
        return 1;
    }
    std::printf("%s\t%s\t%lldx%lld\n", o.file.c_str(), o.output.c_str(),
                static_cast<long long>(ImageInterface::GetWidth(image)),
                static_cast<long long>(ImageInterface::GetHeight(image)));
    return 0;
}

}  // namespace

void AddMediaCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static MediaOptions mo;
    auto* cmd =
        app.add_subcommand("media", "Media sessions: registered file formats, detection, import");
    cmd->require_subcommand(1);
    auto* formats = cmd->add_subcommand("formats", "Registered file formats with their handlers");
    formats->callback([&options, &run] { run = [&options] { return RunFormats(options); }; });
    auto* detect =
        cmd->add_subcommand("detect", "Table of file, format and handler ('-': none takes it)");
    detect->add_option("FILE", mo.files, "Files")->required();
    detect->callback([&options, &run] { run = [&options] { return RunDetect(options, mo); }; });
    auto* import = cmd->add_subcommand("import",
                                       "Read FILE through its format (the image library when none "
                                       "takes it), write OUT (.png or .exr)");
    import->add_option("FILE", mo.file, "File")->required();
    import->add_option("-o,--output", mo.output, "Picture to write (.png or .exr)")->required();
    import->add_flag("--quiet", mo.quiet, "No progress lines on stderr");
    import->callback([&options, &run] { run = [&options] { return RunImport(options, mo);
};
}  // namespace quorv::cli
);
}

}  // namespace quorv::cli
