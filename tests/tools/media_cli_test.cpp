// quorv media and quorv placeholder -o through the built library and command line.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "common/test_support.h"
#include "quorv/image.h"
#include "quorv/ref.h"
#include "render/photometric/ies.h"

namespace quorv {
namespace {

namespace fs = std::filesystem;

struct TempDir {
    fs::path path = fs::temp_directory_path() / ("quorv_media_cli_" + std::to_string(::getpid()));
    TempDir() { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path); }
};

std::string Cli(const std::string& args, int* status) {
    return test::RunCommand(
        std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH + " " + args, status);
}

std::string Data(const char* name) {
    return std::string(QUORV_SOURCE_DIR) + "/tests/data/ies/" + name;
}

TEST(MediaCli, FormatsAndDetectTable) {
    int status = -1;
    std::string out = Cli("media formats", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(
        out.find("net.quorv.fileformat.imageies\tnet.quorv.fileformathandler.imageloaderies\n"),
        std::string::npos)
        << out;

    TempDir dir;
    const fs::path txt = dir.path / "web.txt";
    fs::copy_file(Data("v2002.ies"), txt);
    out =
        Cli("media detect " + Data("v2002.ies") + " " + txt.string() + " " + Data("tilt_lower.ies"),
            &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out,
              "file\tformat\thandler\n" + Data("v2002.ies") +
                  "\tnet.quorv.fileformat.imageies\tnet.quorv.fileformathandler.imageloaderies\n" +
                  txt.string() + "\t-\t-\n" +
                  // "IESNA" on its first line: taken, though its tilt line isn't one.
                  Data("tilt_lower.ies") +
                  "\tnet.quorv.fileformat.imageies\tnet.quorv.fileformathandler.imageloaderies\n");
    out = Cli("media detect " + (dir.path / "missing.ies").string() + " 2>&1", &status);
    EXPECT_NE(status, 0);
    EXPECT_NE(out.find("missing.ies: Cannot read"), std::string::npos) << out;
}

// The EXR holds the floats as imported: they are the web's own preview to the last bit.
TEST(MediaCli, ImportWritesThePreviewWithProgress) {
    ASSERT_NE(test::LoadModuleOnce(QUORV_MODULE_PATH), nullptr);
    TempDir dir;
    const std::string exr = (dir.path / "web.exr").string();
    int status = -1;
    std::string out =
        Cli("media import " + Data("sym_quadrant.ies") + " -o " + exr + " 2>&1", &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("progress 0%\n"), std::string::npos) << out;
    EXPECT_NE(out.find("progress 100%\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\t512x512\n"), std::string::npos) << out;

    Result<ImageTextureObject*> loaded = ImageTextureInterface::Load(
        Url::FromText(exr).GetValue().GetObject(), 0.0, nullptr, nullptr);
    ASSERT_TRUE(loaded.IsOk());
    Ref<ImageTextureObject> picture = Ref<ImageTextureObject>::Adopt(loaded.GetValue());
    const ImageObject* image = ImageTextureInterface::GetFirstImage(picture.Get());
    ASSERT_EQ(ImageInterface::GetWidth(image), 512);
    Ref<PixelReadHandler> read = Ref<PixelReadHandler>::Adopt(
        ImageInterface::GetPixelHandler(image, FindPixelFormat("grey.f32"), nullptr).GetValue());
    std::vector<Float32> written(512 * 512);
    for (Int y = 0; y < 512; ++y) read->read(read.Get(), 0, y, 512, written.data() + y * 512);

    Result<IesRef> web = IesRef::Load(Url::FromText(Data("sym_quadrant.ies")).GetValue());
    ASSERT_TRUE(web.IsOk());
    std::vector<Float32> preview(512 * 512);
    GreyImage32 target{512, 512, 512, preview.data()};
    ASSERT_TRUE(IesInterface::GeneratePreviewImageRows(web.GetValue().Get(), target.width,
                                                       target.height, ArraySetLine(&target),
                                                       nullptr)
                    .IsOk());
    EXPECT_EQ(std::memcmp(written.data(), preview.data(), preview.size() * sizeof(Float32)), 0);
}

TEST(MediaCli, ImportFailsWithTheReadersMessageAndWritesNothing) {
    TempDir dir;
    const fs::path png = dir.path / "bad.png";
    int status = -1;
    std::string out = Cli(
        "media import --quiet " + Data("header_incomplete.ies") + " -o " + png.string() + " 2>&1",
        &status);
    EXPECT_NE(status, 0);
    EXPECT_EQ(out, "quorv: " + Data("header_incomplete.ies") + ": IES Header incomplete\n");
    EXPECT_FALSE(fs::exists(png));
}

TEST(PlaceholderCli, WritesEachPictureIntoTheFolder) {
    TempDir dir;
    int status = -1;
    const std::string id = "net.quorv.nodes.previewimageplaceholder.error";
    std::string out = Cli("placeholder " + id + " -o " + dir.path.string(), &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find(id + "\t"), std::string::npos) << out;
    EXPECT_NE(out.find("\t64x64\n"), std::string::npos) << out;
    EXPECT_GT(fs::file_size(dir.path / (id + ".png")), 0u);
    // A folder that isn't there yet is made.
    out = Cli("placeholder " + id + " -o " + (dir.path / "new" / "sub").string(), &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_GT(fs::file_size(dir.path / "new" / "sub" / (id + ".png")), 0u);
    // One that can't be made (a file stands in its way): the error names it, nothing is loaded
    // or written.
    std::ofstream(dir.path / "file") << "x";
    out =
        Cli("placeholder " + id + " -o " + (dir.path / "file" / "sub").string() + " 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(
        out.rfind("quorv: cannot create the folder " + (dir.path / "file" / "sub").string(), 0), 0u)
        << out;
    EXPECT_EQ(out.find(id + "\t"), std::string::npos) << out;
}

}  // namespace
}  // namespace quorv
