// quorv placeholder: the preview placeholder pictures by reason id.
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "quorv/ref.h"
#include "render/preview/previewimageplaceholder.h"

namespace quorv::cli {

namespace {

int RunPlaceholder(const GlobalOptions& global, const std::vector<std::string>& ids) {
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
        held.push_back(image);
    }
    return rc;
}

}  // namespace

void AddPlaceholderCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static std::vector<std::string> ids;
    CLI::App* cmd = app.add_subcommand(
        "placeholder",
        "Preview placeholder pictures by reason id: id, object identity, size (exit 1 if one is none)");
    cmd->add_option("ids", ids, "Reason ids, e.g. net.quorv.nodes.previewimageplaceholder.error")
        ->required();
    cmd->callback([&] { run = [&] { return RunPlaceholder(options, ids); }; });
}

}  // namespace quorv::cli
