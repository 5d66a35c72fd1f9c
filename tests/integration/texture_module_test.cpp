// Textures through the built library and the command line: the module's implementations of
// the texture, sampler and cache interfaces reach this binary's tables at load, and the host's
// image services reach the module.
#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "common/test_support.h"
#include "render/textures/texture.h"

namespace quorv {
namespace {

const std::string DATA = std::string(QUORV_TEST_DATA_DIR) + "/textures/";

int Pattern8(int x, int y, int c) { return (37 * x + 71 * y + 113 * c + 11 * x * y) % 256; }

TEST(TextureModule, LoadedSampledAndCachedThroughTheModule) {
    EXPECT_EQ(TextureInterface::Alloc(QUORV_SOURCE_LOCATION), nullptr) << "stubs before the load";
    ASSERT_NE(test::LoadModuleOnce(QUORV_MODULE_PATH), nullptr);
    Result<Url> url = Url::FromText(DATA + "rgb8_4x4.png");
    ASSERT_TRUE(url.IsOk());
    Result<TextureImpl*> a = TextureManagementInterface::LoadTexture(
        url.GetValue().GetObject(), nullptr, 0, 0, nullptr, 0.0, nullptr);
    ASSERT_TRUE(a.IsOk()) << ErrorToString(a.GetErrorPointer());
    TextureRef texture = TextureRef::Adopt(a.GetValue());
    Result<TextureImpl*> b = TextureManagementInterface::LoadTexture(
        url.GetValue().GetObject(), nullptr, 0, 0, nullptr, 0.0, nullptr);
    ASSERT_TRUE(b.IsOk());
    EXPECT_EQ(TextureRef::Adopt(b.GetValue()).Get(), texture.Get());
    EXPECT_EQ(texture->width, 4);
    Result<ThreadedTextureRef> sampler = ThreadedTextureRef::Create(texture);
    ASSERT_TRUE(sampler.IsOk());
    // Texel (1, 2) from the top: v = 1 - 2.5 / 4.
    const ColorA64 c = sampler.GetValue().Sample({1.5 / 4, 1 - 2.5 / 4}, {0, 0}, TEXTUREMODE::CLAMP,
                                                 TEXTUREMODE::CLAMP, TEXTUREINTERPOLATION::NONE);
    EXPECT_EQ(c.r, Pattern8(1, 2, 0) / 255.0);
    EXPECT_EQ(c.b, Pattern8(1, 2, 2) / 255.0);
    EXPECT_EQ(c.a, 1.0);
    Int w = 0, h = 0;
    Float64 fps = 0, duration = -1;
    ASSERT_TRUE(
        ThreadedTextureInterface::GetDetails(sampler.GetValue().Get(), &w, &h, &fps, &duration)
            .IsOk());
    EXPECT_EQ(w, 4);
    EXPECT_EQ(fps, 30.0);
    EXPECT_EQ(duration, 0.0);
    TextureManagementInterface::FlushAll();
}

TEST(TextureModule, CommandLineInfoSampleAndResample) {
    const std::string cli = std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH;
    int status = -1;
    const std::string info =
        test::RunCommand(cli + " texture info --json " + DATA + "rgb16_5x3.png", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(info.find("\"16bit\":true"), std::string::npos) << info;
    EXPECT_NE(info.find("\"storageFormat\":\"rgb.u16\""), std::string::npos) << info;
    const std::string sampled = test::RunCommand(
        "printf '{\"uv\":[0.1,0.9],\"interpolation\":\"NONE\"}\\n{\"uv\":1}\\n' | " + cli +
            " texture sample " + DATA + "rgb8_4x4.png",
        &status);
    EXPECT_EQ(status, 0);
    // Texel (0, 0) of the top row, its red read back to the same bits.
    const std::string first = sampled.substr(0, sampled.find('\n'));
    EXPECT_EQ(std::stod(first.substr(first.find('[') + 1)), Pattern8(0, 0, 0) / 255.0) << sampled;
    EXPECT_NE(sampled.find("\n{\"error\":"), std::string::npos) << sampled;
    const std::string out =
        (std::filesystem::temp_directory_path() / "quorv_resample_test.png").string();
    test::RunCommand(cli + " texture resample " + DATA + "rgb8_7x5.png -o " + out +
                         " --size 14x10 --interpolation NONE",
                     &status);
    EXPECT_EQ(status, 0);
    auto in = OIIO::ImageInput::open(out);
    ASSERT_TRUE(in);
    const OIIO::ImageSpec size = in->spec_dimensions(0, 0);
    EXPECT_EQ(size.width, 14);
    EXPECT_EQ(size.height, 10);
    std::vector<unsigned char> px(14 * 10 * 4);
    ASSERT_TRUE(in->read_image(0, 0, 0, 4, OIIO::TypeDesc::UINT8, px.data()));
    // Nearest at twice the size: output (3, 5) shows texel (1, 2).
    EXPECT_EQ(px[(5 * 14 + 3) * 4 + 1], Pattern8(1, 2, 1));
    in->close();
    std::remove(out.c_str());
    const std::string help =
        test::RunCommand(std::string(QUORV_CLI_PATH) + " texture --help", &status);
    EXPECT_NE(help.find("resample"), std::string::npos);
}

}  // namespace
}  // namespace quorv
