// quorv placeholder: the preview placeholder pictures by reason id.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "commands.h"
#include "media_picture.h"
#include "quorv/ref.h"
#include "render/preview/previewimageplaceholder.h"

namespace quorv::cli {

namespace {

// The file a placeholder is written to: the id with ".png", in `directory`.
std::string PictureFile(const std::string& directory, const std::string& id) {
    return (std::filesystem::path(directory) / (id + ".png")).string();
}

int RunPlaceholder(const GlobalOptions& global, const std::vector<std::string>& ids,
                   const std::string& directory) {
    if (!directory.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(directory, ec);
        if (ec) {
            std::fprintf(stderr, "quorv: cannot create the folder %s: %s\n", directory.c_str(),
                         ec.message().c_str());
            return 1;
        }
    }
    if (!StartHost(global)) return 1;
    // Held until the end, so the same object shows the same identity.
    std::vector<Ref<ImageTextureObject>> held;
    int rc = 0;
    for (const std::string& id : ids) {
        Ref<ImageTextureObject> image = Ref<ImageTextureObject>::Adopt(
            PreviewImagePlaceholderInterface::GetImage(LiteralId(id.c_str())));
        if (!image) {
            std::printf("%s\tnone\n", id.c_str());
            rc = 1;
            continue;
        }
        const ImageObject* first = ImageTextureInterface::GetFirstImage(image.Get());
        std::printf("%s\t%p\t%lldx%lld\n", id.c_str(), static_cast<const void*>(image.Get()),
                    static_cast<long long>(first ? ImageInterface::GetWidth(first) : 0),
                    static_cast<long long>(first ? ImageInterface::GetHeight(first) : 0));
        if (!directory.empty()) {
            Result<void> written = WritePicture(PictureFile(directory, id), first);
            if (written.IsError()) {
                const ErrorObject* e = written.GetErrorPointer();
                std::fprintf(stderr, "quorv: %s\n", e && e->message ? e->message : "cannot write");
                rc = 1;
            }
        }
        held.push_back(image);
    }
    return rc;
}

}  // namespace

void AddPlaceholderCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static std::vector<std::string> ids;
    static std::string directory;
    CLI::App* cmd = app.add_subcommand("placeholder",
                                       "Preview placeholder pictures by reason id: id, object "
                                       "identity, size (exit 1 if one is none)");
    cmd->add_option("ids", ids, "Reason ids, e.g. net.quorv.nodes.previewimageplaceholder.error")
        ->required();
    cmd->add_option("-o,--output", directory,
                    "Folder to write each picture to, as ID.png (whole or not at all); made if "
                    "missing");
    cmd->callback([&] { run = [&] { return RunPlaceholder(options, ids, directory); }; });
}

}  // namespace quorv::cli
