#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <cmath>
#include <filesystem>
#include <vector>

#include "quorv/host/image_writer.h"

namespace quorv {
namespace {

std::string TempPath(const char* name) {
    return (std::filesystem::temp_directory_path() / (std::to_string(getpid()) + name)).string();
}

std::vector<float> ReadBack(const std::string& path, OIIO::ImageSpec* layout) {
    auto in = OIIO::ImageInput::open(path);
    EXPECT_TRUE(in) << OIIO::geterror();
    if (!in) return {};
    *layout = in->spec_dimensions(0);  // sizes, channels and pixel type
    std::vector<float> pixels(
        static_cast<size_t>(layout->width * layout->height * layout->nchannels));
    EXPECT_TRUE(in->read_image(0, 0, 0, layout->nchannels, OIIO::TypeDesc::FLOAT, pixels.data()));
    return pixels;
}

TEST(ImageWriter, PngClampsAndRoundsTo8Bits) {
    const float grey[] = {-1.0f, 0.0f, 0.5f, 1.0f, 2.0f, NAN};
    std::string path = TempPath("grey.png");
    ASSERT_TRUE(host::WriteImage(path, 3, 2, 1, grey).IsOk());
    OIIO::ImageSpec layout;
    std::vector<float> back = ReadBack(path, &layout);
    EXPECT_EQ(layout.width, 3);
    EXPECT_EQ(layout.height, 2);
    EXPECT_EQ(layout.format, OIIO::TypeDesc::UINT8);
    std::vector<float> expected{0.0f, 0.0f, 128.0f / 255.0f, 1.0f, 1.0f, 0.0f};
    ASSERT_EQ(back.size(), expected.size());
    for (size_t i = 0; i < back.size(); ++i) EXPECT_FLOAT_EQ(back[i], expected[i]) << i;
    std::filesystem::remove(path);
}

TEST(ImageWriter, ExrKeepsFloatsExactly) {
    const float rgb[] = {0.1f, 2.5f, -3.0f, 1e-8f, 1234.5f, 0.0f};
    std::string path = TempPath("rgb.exr");
    ASSERT_TRUE(host::WriteImage(path, 2, 1, 3, rgb).IsOk());
    OIIO::ImageSpec layout;
    std::vector<float> back = ReadBack(path, &layout);
    EXPECT_EQ(layout.nchannels, 3);
    ASSERT_EQ(back.size(), 6u);
    for (size_t i = 0; i < 6; ++i) EXPECT_EQ(back[i], rgb[i]);
    std::filesystem::remove(path);
}

TEST(ImageWriter, BadRequestsAreErrorsNamingTheFile) {
    const float one = 0.0f;
    Result<void> suffix = host::WriteImage("picture.jpg", 1, 1, 1, &one);
    ASSERT_TRUE(suffix.IsError());
    EXPECT_STREQ(suffix.GetErrorPointer()->message,
                 "Cannot write picture.jpg: the name must end in .png or .exr");
    Result<void> size = host::WriteImage("p.png", 0, 1, 1, &one);
    ASSERT_TRUE(size.IsError());
    EXPECT_STREQ(size.GetErrorPointer()->message, "Cannot write p.png: bad picture size 0 x 1 x 1");
    Result<void> dir = host::WriteImage("/nonexistent-dir/p.png", 1, 1, 1, &one);
    ASSERT_TRUE(dir.IsError());
    EXPECT_TRUE(dir.GetErrorPointer()->id == "net.quorv.error.io");
}

}  // namespace
}  // namespace quorv
