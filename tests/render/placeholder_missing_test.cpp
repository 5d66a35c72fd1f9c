// Preview placeholders when the picture is missing at the first call: the failure is kept per
// slot, so a picture that turns up later is not loaded by that slot, but by a slot that had not
// tried yet. White-box: the module's sources are linked in, and the host's resource folder is set
// before the host starts them.
#include <unistd.h>

#include <filesystem>

#include "common/test_support.h"
#include "render/preview/previewimageplaceholder.h"

namespace quorv {
namespace {

namespace fs = std::filesystem;


ImageTextureObject* Get(const char* id) {
    return PreviewImagePlaceholderInterface::GetImage(LiteralId(id));
}

TEST(PlaceholdersMissing, AFailedLoadIsKeptPerSlot) {
    const fs::path g_resources = host::GetResourceDirectory();
    fs::remove_all(g_resources);
    EXPECT_EQ(Get(previewimageplaceholder::NOSPACE), nullptr);
    EXPECT_EQ(Get(previewimageplaceholder::NOSPACE), nullptr);
    // The picture appears: the failed slot stays failed, an untried slot loads it.
    fs::create_directories(g_resources / "modules/browser/icons");
    fs::copy_file(QUORV_WRONG_TIF, g_resources / previewimageplaceholder::FILE);
    EXPECT_EQ(Get(previewimageplaceholder::NOSPACE), nullptr);
    ImageTextureObject* other = Get(previewimageplaceholder::ERROR);
    EXPECT_NE(other, nullptr);
    if (other) ImageTextureInterface::Free(other);
    fs::remove_all(g_resources);
}

}  // namespace
}  // namespace quorv
