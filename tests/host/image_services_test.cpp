// The host's image services: pictures read from the files of tests/data/textures, pixel
// formats, line handlers between formats, colour profiles and layer sets.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "quorv/image.h"
#include "quorv/url.h"

namespace quorv {
namespace {

const std::string DATA = std::string(QUORV_TEST_DATA_DIR) + "/textures/";

// The value pattern the generator writes (tests/data/textures/generate_textures.cpp).
int Pattern8(int x, int y, int c) { return (37 * x + 71 * y + 113 * c + 11 * x * y) % 256; }

Ref<ImageTextureObject> LoadPicture(const std::string& name, Float64 time = 0.0,
                                    const LayerSetObject* layers = nullptr) {
    Result<Url> url = Url::FromText(DATA + name);
    EXPECT_TRUE(url.IsOk());
    Result<ImageTextureObject*> r = ImageTextureInterface::Load(url.GetValue().GetObject(), time,
                                                                imageids::STORAGE_VOXEL, layers);
    EXPECT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
    return Ref<ImageTextureObject>::Adopt(r.IsOk() ? r.GetValue() : nullptr);
}

template <typename T>
std::vector<T> ReadRow(const ImageObject* image, const char* format, Int y,
                       const LayerSetObject* layers = nullptr) {
    const PixelFormatObject* f = FindPixelFormat(format);
    EXPECT_NE(f, nullptr) << format;
    Result<PixelReadHandler*> h = ImageInterface::GetPixelHandler(image, f, layers);
    EXPECT_TRUE(h.IsOk());
    Ref<PixelReadHandler> handler = Ref<PixelReadHandler>::Adopt(h.GetValue());
    const Int w = ImageInterface::GetWidth(image);
    std::vector<T> row(static_cast<size_t>(w * PixelFormatInterface::GetChannelCount(f)));
    handler->read(handler.Get(), 0, y, w, row.data());
    return row;
}

std::string FormatId(const ImageObject* image) {
    return std::string(PixelFormatInterface::GetId(ImageInterface::GetPixelFormat(image)).View());
}

TEST(PixelFormats, PropertiesOfTheFormatsTheTexturesUse) {
    struct Row {
        const char* name;
        Int bits, channels;
        bool alpha, grey;
    };
    for (const Row& r : {Row{"rgb.u8", 24, 3, false, false}, Row{"rgba.u16", 64, 4, true, false},
                         Row{"grey.f32", 32, 1, false, true}, Row{"agrey.f64", 128, 2, true, true},
                         Row{"greya.u8", 16, 2, true, true}, Row{"bgr.f32", 96, 3, false, false}}) {
        const PixelFormatObject* f = FindPixelFormat(r.name);
        ASSERT_NE(f, nullptr) << r.name;
        EXPECT_EQ(PixelFormatInterface::GetBits(f), r.bits) << r.name;
        EXPECT_EQ(PixelFormatInterface::GetChannelCount(f), r.channels) << r.name;
        EXPECT_EQ(PixelFormatInterface::HasAlpha(f), r.alpha) << r.name;
        EXPECT_EQ(PixelFormatInterface::GetColorSpace(f) == LiteralId(imageids::COLORSPACE_GREY),
                  r.grey)
            << r.name;
        EXPECT_EQ(std::string(PixelFormatInterface::GetId(f).View()),
                  std::string("net.quorv.image.pixelformat.") + r.name);
    }
    EXPECT_EQ(FindPixelFormat("rgb.u12"), nullptr);
    EXPECT_TRUE(
        PixelFormatInterface::IsEqual(FindPixelFormat("rgb.u8"), FindPixelFormat("rgb.u8")));
    EXPECT_FALSE(
        PixelFormatInterface::IsEqual(FindPixelFormat("rgb.u8"), FindPixelFormat("bgr.u8")));
}

TEST(Pictures, EightBitRgbReadsIntoEveryFormat) {
    Ref<ImageTextureObject> p = LoadPicture("rgb8_4x4.png");
    ASSERT_TRUE(p);
    const ImageObject* image = ImageTextureInterface::GetFirstImage(p.Get());
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(ImageInterface::GetWidth(image), 4);
    EXPECT_EQ(ImageInterface::GetHeight(image), 4);
    EXPECT_EQ(FormatId(image), "net.quorv.image.pixelformat.rgb.u8");
    EXPECT_EQ(ImageTextureInterface::GetColorProfile(p.Get()),
              ColorProfileInterface::GetStandard(imageids::PROFILE_SRGB));
    EXPECT_EQ(ImageTextureInterface::GetFloatProperty(p.Get(), imageids::PROPERTY_DURATION, -1.0),
              0.0);
    for (Int y = 0; y < 4; ++y) {
        std::vector<UInt8> bytes = ReadRow<UInt8>(image, "rgb.u8", y);
        std::vector<Float64> rgba = ReadRow<Float64>(image, "rgba.f64", y);
        std::vector<UInt8> bgr = ReadRow<UInt8>(image, "bgr.u8", y);
        std::vector<UInt16> wide = ReadRow<UInt16>(image, "rgb.u16", y);
        std::vector<Float64> grey = ReadRow<Float64>(image, "grey.f64", y);
        for (int x = 0; x < 4; ++x) {
            for (int c = 0; c < 3; ++c) {
                const int v = Pattern8(x, static_cast<int>(y), c);
                EXPECT_EQ(bytes[static_cast<size_t>(x * 3 + c)], v);
                EXPECT_EQ(rgba[static_cast<size_t>(x * 4 + c)], v / 255.0);
                EXPECT_EQ(bgr[static_cast<size_t>(x * 3 + 2 - c)], v);
                EXPECT_EQ(wide[static_cast<size_t>(x * 3 + c)], v * 257);
            }
            EXPECT_EQ(rgba[static_cast<size_t>(x * 4 + 3)], 1.0) << "a missing alpha reads as 1";
            const double luminance = 0.2126 * Pattern8(x, static_cast<int>(y), 0) / 255.0 +
                                     0.7152 * Pattern8(x, static_cast<int>(y), 1) / 255.0 +
                                     0.0722 * Pattern8(x, static_cast<int>(y), 2) / 255.0;
            EXPECT_NEAR(grey[static_cast<size_t>(x)], luminance, 1e-15);
        }
    }
}

TEST(Pictures, SixteenBitFloatGreyAndGreyAlpha) {
    Ref<ImageTextureObject> deep = LoadPicture("rgb16_5x3.png");
    ASSERT_TRUE(deep);
    const ImageObject* deepImage = ImageTextureInterface::GetFirstImage(deep.Get());
    EXPECT_EQ(FormatId(deepImage), "net.quorv.image.pixelformat.rgb.u16");
    std::vector<Float64> deepRow = ReadRow<Float64>(deepImage, "rgb.f64", 2);
    EXPECT_EQ(deepRow[3 * 4 + 1], (Pattern8(4, 2, 1) * 257 - 4) / 65535.0);
    std::vector<UInt8> narrowed = ReadRow<UInt8>(deepImage, "rgb.u8", 2);
    EXPECT_EQ(narrowed[3 * 4 + 1],
              static_cast<UInt8>((Pattern8(4, 2, 1) * 257 - 4) / 65535.0 * 255.0 + 0.5));

    Ref<ImageTextureObject> hdr = LoadPicture("rgbaf_4x3.exr");
    ASSERT_TRUE(hdr);
    const ImageObject* hdrImage = ImageTextureInterface::GetFirstImage(hdr.Get());
    EXPECT_EQ(FormatId(hdrImage), "net.quorv.image.pixelformat.rgba.f32");
    EXPECT_EQ(ImageTextureInterface::GetColorProfile(hdr.Get()),
              ColorProfileInterface::GetStandard(imageids::PROFILE_LINEAR_RGB));
    std::vector<Float32> hdrRow = ReadRow<Float32>(hdrImage, "rgba.f32", 1);
    for (int x = 0; x < 4; ++x) {
        for (int c = 0; c < 4; ++c)
            EXPECT_EQ(hdrRow[static_cast<size_t>(x * 4 + c)], Pattern8(x, 1, c) / 64.0f);
    }
    std::vector<UInt8> clamped = ReadRow<UInt8>(hdrImage, "rgba.u8", 1);
    for (int x = 0; x < 4; ++x) {
        const double v = Pattern8(x, 1, 0) / 64.0;
        EXPECT_EQ(clamped[static_cast<size_t>(x * 4)],
                  v >= 1.0 ? 255 : static_cast<int>(v * 255.0 + 0.5));
    }

    Ref<ImageTextureObject> grey = LoadPicture("grey8_3x1.png");
    ASSERT_TRUE(grey);
    const ImageObject* greyImage = ImageTextureInterface::GetFirstImage(grey.Get());
    EXPECT_EQ(FormatId(greyImage), "net.quorv.image.pixelformat.grey.u8");
    std::vector<Float64> spread = ReadRow<Float64>(greyImage, "rgba.f64", 0);
    for (int x = 0; x < 3; ++x) {
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(spread[static_cast<size_t>(x * 4 + c)], Pattern8(x, 0, 0) / 255.0);
    }

    Ref<ImageTextureObject> greyAlpha = LoadPicture("greya8_2x2.png");
    ASSERT_TRUE(greyAlpha);
    const ImageObject* gaImage = ImageTextureInterface::GetFirstImage(greyAlpha.Get());
    EXPECT_EQ(FormatId(gaImage), "net.quorv.image.pixelformat.greya.u8");
    std::vector<UInt8> agrey = ReadRow<UInt8>(gaImage, "agrey.u8", 1);
    EXPECT_EQ(agrey[0], Pattern8(0, 1, 1));
    EXPECT_EQ(agrey[1], Pattern8(0, 1, 0));
    // A layer set of alphas reads the alpha as grey, with alpha 1.
    Ref<LayerSetObject> alphas =
        Ref<LayerSetObject>::Adopt(LayerSetInterface::Alloc(QUORV_SOURCE_LOCATION));
    LayerSetInterface::SetMode(alphas.Get(), LAYERSETMODE::ALPHAS);
    std::vector<UInt8> alphaRow = ReadRow<UInt8>(gaImage, "rgba.u8", 1, alphas.Get());
    EXPECT_EQ(alphaRow[4 + 0], Pattern8(1, 1, 1));
    EXPECT_EQ(alphaRow[4 + 2], Pattern8(1, 1, 1));
    EXPECT_EQ(alphaRow[4 + 3], 255);
}

TEST(Pictures, WritingThroughASetPixelHandlerRoundsIntoTheImageFormat) {
    Result<ImageObject*> created = ImageInterface::Create(
        imageids::IMAGECLASS_IMAGE, imageids::STORAGE_NORMAL, 3, 2, FindPixelFormat("rgba.u16"));
    ASSERT_TRUE(created.IsOk());
    Ref<ImageObject> image = Ref<ImageObject>::Adopt(created.GetValue());
    Result<PixelWriteHandler*> w =
        ImageInterface::SetPixelHandler(image.Get(), FindPixelFormat("rgba.f64"));
    ASSERT_TRUE(w.IsOk());
    Ref<PixelWriteHandler> writer = Ref<PixelWriteHandler>::Adopt(w.GetValue());
    const Float64 values[8] = {0.5, -1.0, 2.0, 1.0 / 65535.0, 0.25, 0.75, 0.1, 1.0};
    writer->write(writer.Get(), 1, 1, 2, values);
    std::vector<UInt16> row = ReadRow<UInt16>(image.Get(), "rgba.u16", 1);
    const UInt16 expected[12] = {0, 0, 0, 0, 32768, 0, 65535, 1, 16384, 49151, 6554, 65535};
    for (int i = 0; i < 12; ++i) EXPECT_EQ(row[static_cast<size_t>(i)], expected[i]) << i;
    EXPECT_TRUE(ImageInterface::Create("net.quorv.image.imageclass.unknown",
                                       imageids::STORAGE_NORMAL, 1, 1, FindPixelFormat("rgb.u8"))
                    .IsError());
}

TEST(Pictures, FramesByTimeAndAnUnreadableFile) {
    Ref<ImageTextureObject> first = LoadPicture("frames_2x2.tif", 0.0);
    Ref<ImageTextureObject> second = LoadPicture("frames_2x2.tif", 1.0 / 30.0);
    Ref<ImageTextureObject> beyond = LoadPicture("frames_2x2.tif", 10.0);
    ASSERT_TRUE(first && second && beyond);
    EXPECT_EQ(ImageTextureInterface::GetFrameCount(first.Get()), 3);
    // The file names no frame rate: frames are a thirtieth of a second apart.
    EXPECT_EQ(ImageTextureInterface::GetFloatProperty(first.Get(), imageids::PROPERTY_FPS, -1.0),
              0.0);
    EXPECT_DOUBLE_EQ(
        ImageTextureInterface::GetFloatProperty(first.Get(), imageids::PROPERTY_DURATION, -1.0),
        0.1);
    EXPECT_EQ(ReadRow<UInt8>(ImageTextureInterface::GetFirstImage(first.Get()), "grey.u8", 0)[0],
              40);
    EXPECT_EQ(ReadRow<UInt8>(ImageTextureInterface::GetFirstImage(second.Get()), "grey.u8", 0)[0],
              80);
    EXPECT_EQ(ReadRow<UInt8>(ImageTextureInterface::GetFirstImage(beyond.Get()), "grey.u8", 0)[0],
              120);

    Result<Url> missing = Url::FromText(DATA + "missing.png");
    ASSERT_TRUE(missing.IsOk());
    Result<ImageTextureObject*> r = ImageTextureInterface::Load(missing.GetValue().GetObject(), 0.0,
                                                                imageids::STORAGE_VOXEL, nullptr);
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(r.GetErrorPointer()->id, LiteralId("net.quorv.error.io"));
    EXPECT_NE(std::string(r.GetErrorPointer()->message).find("missing.png"), std::string::npos);
}

TEST(ColorProfiles, EmbeddedIccNoProfileAndConversion) {
    Ref<ImageTextureObject> tagged = LoadPicture("icc_rgb8_3x2.tif");
    Ref<ImageTextureObject> plain = LoadPicture("noprofile_rgb8_3x2.tif");
    ASSERT_TRUE(tagged && plain);
    EXPECT_EQ(ImageTextureInterface::GetColorProfile(plain.Get()), nullptr);
    const ColorProfileObject* icc = ImageTextureInterface::GetColorProfile(tagged.Get());
    ASSERT_NE(icc, nullptr);
    EXPECT_EQ(ColorProfileInterface::GetId(icc), LiteralId(imageids::PROFILE_ICC));
    const ColorProfileObject* srgb = ColorProfileInterface::GetStandard(imageids::PROFILE_SRGB);
    const ColorProfileObject* linear =
        ColorProfileInterface::GetStandard(imageids::PROFILE_LINEAR_RGB);
    EXPECT_FALSE(ColorProfileInterface::IsEqual(icc, srgb));
    EXPECT_TRUE(ColorProfileInterface::IsEqual(srgb, srgb));
    Ref<ImageTextureObject> again = LoadPicture("icc_rgb8_3x2.tif");
    EXPECT_TRUE(
        ColorProfileInterface::IsEqual(icc, ImageTextureInterface::GetColorProfile(again.Get())));
    EXPECT_EQ(ColorProfileInterface::GetDefaultLinear(imageids::COLORSPACE_GREY),
              ColorProfileInterface::GetStandard(imageids::PROFILE_LINEAR_GREY));

    const PixelFormatObject* rgb = FindPixelFormat("rgb.f64");
    // The embedded profile has gamma 2.2 curves and the same white as the linear profile:
    // a neutral grey x maps to x^2.2 on all three channels.
    Result<ColorProfileConvertObject*> c =
        ColorProfileConvertInterface::Alloc(icc, rgb, linear, rgb);
    ASSERT_TRUE(c.IsOk()) << ErrorToString(c.GetErrorPointer());
    Ref<ColorProfileConvertObject> convert = Ref<ColorProfileConvertObject>::Adopt(c.GetValue());
    Float64 px[6] = {0.5, 0.5, 0.5, 0.2, 0.2, 0.2};
    ColorProfileConvertInterface::Convert(convert.Get(), px, px, 2);
    for (int k = 0; k < 3; ++k) {
        EXPECT_NEAR(px[k], std::pow(0.5, 2.2), 2e-4);
        EXPECT_NEAR(px[3 + k], std::pow(0.2, 2.2), 2e-4);
    }
    // sRGB to linear follows the sRGB curve.
    Result<ColorProfileConvertObject*> s =
        ColorProfileConvertInterface::Alloc(srgb, rgb, linear, rgb);
    ASSERT_TRUE(s.IsOk());
    Ref<ColorProfileConvertObject> decode = Ref<ColorProfileConvertObject>::Adopt(s.GetValue());
    Float64 q[3] = {0.5, 0.02, 0.9};
    ColorProfileConvertInterface::Convert(decode.Get(), q, q, 1);
    EXPECT_NEAR(q[0], std::pow((0.5 + 0.055) / 1.055, 2.4), 2e-4);
    EXPECT_NEAR(q[1], 0.02 / 12.92, 2e-4);
    EXPECT_NEAR(q[2], std::pow((0.9 + 0.055) / 1.055, 2.4), 2e-4);
    // A grey format against an RGB profile is refused.
    EXPECT_TRUE(ColorProfileConvertInterface::Alloc(icc, FindPixelFormat("grey.f64"), linear, rgb)
                    .IsError());
}

TEST(LayerSets, EqualityAndHashFollowModeFlagAndNames) {
    auto make = [](LAYERSETMODE mode, bool alpha, std::vector<std::string> names) {
        Ref<LayerSetObject> l =
            Ref<LayerSetObject>::Adopt(LayerSetInterface::Alloc(QUORV_SOURCE_LOCATION));
        LayerSetInterface::SetMode(l.Get(), mode);
        LayerSetInterface::SetCalculateAlpha(l.Get(), alpha);
        for (const auto& n : names)
            EXPECT_TRUE(
                LayerSetInterface::AddLayer(l.Get(), n.data(), static_cast<Int>(n.size())).IsOk());
        return l;
    };
    auto a = make(LAYERSETMODE::LAYERS, true, {"base", "top"});
    auto b = make(LAYERSETMODE::LAYERS, true, {"base", "top"});
    EXPECT_TRUE(LayerSetInterface::IsEqual(a.Get(), b.Get()));
    EXPECT_EQ(LayerSetInterface::GetHashCode(a.Get()), LayerSetInterface::GetHashCode(b.Get()));
    for (auto other : {make(LAYERSETMODE::ALPHAS, true, {"base", "top"}),
                       make(LAYERSETMODE::LAYERS, false, {"base", "top"}),
                       make(LAYERSETMODE::LAYERS, true, {"top", "base"}),
                       make(LAYERSETMODE::LAYERS, true, {"basetop"})}) {
        EXPECT_FALSE(LayerSetInterface::IsEqual(a.Get(), other.Get()));
        EXPECT_NE(LayerSetInterface::GetHashCode(a.Get()),
                  LayerSetInterface::GetHashCode(other.Get()));
    }
    EXPECT_EQ(LayerSetInterface::GetMode(a.Get()), LAYERSETMODE::LAYERS);
    EXPECT_TRUE(LayerSetInterface::GetCalculateAlpha(a.Get()));
    EXPECT_EQ(LayerSetInterface::GetLayerCount(a.Get()), 2);
}

}  // namespace
}  // namespace quorv
