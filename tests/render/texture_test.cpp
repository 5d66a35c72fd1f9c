// Textures and the sampler against direct computations on the small pictures of
// tests/data/textures, whose pixel values the test knows (the generator's pattern).
#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>
#include <lcms2.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "render/textures/texture_impl.h"

namespace quorv {
namespace {

const std::string DATA = std::string(QUORV_TEST_DATA_DIR) + "/textures/";

int Pattern8(int x, int y, int c) { return (37 * x + 71 * y + 113 * c + 11 * x * y) % 256; }

using Rgba = std::array<double, 4>;
using M = TEXTUREMODE;
using I = TEXTUREINTERPOLATION;

// A picture the test knows: w x h texels of `channels` 8-bit values.
struct Known {
    int w, h, channels;
    std::vector<int> v;  // row major
    int At(int x, int y, int c) const { return v[static_cast<size_t>((y * w + x) * channels + c)]; }
    Rgba Unit(int x, int y) const {
        Rgba r{At(x, y, 0) / 255.0, At(x, y, 1) / 255.0, At(x, y, 2) / 255.0, 1.0};
        if (channels == 4) r[3] = At(x, y, 3) / 255.0;
        return r;
    }
    static Known OfPattern(int w, int h, int channels) {
        Known k{w, h, channels, {}};
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < channels; ++c) k.v.push_back(Pattern8(x, y, c));
        return k;
    }
    // One halving along x and/or y, integer, truncating, the last column or row repeated.
    Known Halve(bool alongX, bool alongY) const {
        Known k{alongX ? std::max((w + 1) / 2, 1) : w,
                alongY ? std::max((h + 1) / 2, 1) : h,
                channels,
                {}};
        for (int y = 0; y < k.h; ++y) {
            for (int x = 0; x < k.w; ++x) {
                const int x0 = alongX ? 2 * x : x, x1 = alongX ? std::min(2 * x + 1, w - 1) : x0;
                const int y0 = alongY ? 2 * y : y, y1 = alongY ? std::min(2 * y + 1, h - 1) : y0;
                for (int c = 0; c < channels; ++c) {
                    if (alongX && alongY)
                        k.v.push_back(
                            (At(x0, y0, c) + At(x1, y0, c) + At(x0, y1, c) + At(x1, y1, c)) >> 2);
                    else
                        k.v.push_back((At(x0, y0, c) + At(x1, y1, c)) >> 1);
                }
            }
        }
        return k;
    }
};

int MapIndex(int c, int size, M mode) {
    if (c >= 0 && c < size) return c;
    if (mode == M::CLAMP)
        c = c < 0 ? 0 : size - 1;
    else if (mode == M::MIRROR)
        c = c < 0 ? -1 - c : 2 * size - 1 - c;
    else
        c = c < 0 ? c + size : c - size;
    return c >= 0 && c < size ? c : 0;
}

Rgba Mix(const Rgba& a, const Rgba& b, double t) {
    Rgba r;
    for (int k = 0; k < 4; ++k) r[k] = a[k] + t * (b[k] - a[k]);
    return r;
}

// Bilinear at (u, v') (v' already flipped) on a known picture.
Rgba RefBilinear(const Known& k, double u, double v, M mu, M mv) {
    const double fx = u * k.w - 0.5, fy = v * k.h - 0.5;
    const int x0 = static_cast<int>(std::floor(fx)), y0 = static_cast<int>(std::floor(fy));
    const double tx = fx - std::floor(fx), ty = fy - std::floor(fy);
    const int ax = MapIndex(x0, k.w, mu), bx = MapIndex(x0 + 1, k.w, mu);
    const int ay = MapIndex(y0, k.h, mv), by = MapIndex(y0 + 1, k.h, mv);
    return Mix(Mix(k.Unit(ax, ay), k.Unit(ax, by), ty), Mix(k.Unit(bx, ay), k.Unit(bx, by), ty),
               tx);
}

Rgba RefBicubic(const Known& k, double u, double v, M mu, M mv) {
    auto weights = [](double t) {
        // The uniform cubic B-spline.
        return std::array<double, 4>{std::pow(1 - t, 3) / 6, (3 * t * t * t - 6 * t * t + 4) / 6,
                                     (-3 * t * t * t + 3 * t * t + 3 * t + 1) / 6, t * t * t / 6};
    };
    const double fx = u * k.w - 0.5, fy = v * k.h - 0.5;
    const auto wx = weights(fx - std::floor(fx)), wy = weights(fy - std::floor(fy));
    const int x0 = static_cast<int>(std::floor(fx)), y0 = static_cast<int>(std::floor(fy));
    Rgba sum{0, 0, 0, 0};
    for (int j = 0; j < 4; ++j)
        for (int i = 0; i < 4; ++i) {
            const Rgba p = k.Unit(MapIndex(x0 - 1 + i, k.w, mu), MapIndex(y0 - 1 + j, k.h, mv));
            for (int c = 0; c < 4; ++c)
                sum[c] += wx[static_cast<size_t>(i)] * wy[static_cast<size_t>(j)] * p[c];
        }
    return sum;
}

Rgba RefBoxMean(const Known& k, int xFrom, int xTo, int yFrom,
                int yTo) {  // inclusive, indices wrap
    Rgba sum{0, 0, 0, 0};
    int n = 0;
    for (int y = yFrom; y <= yTo; ++y)
        for (int x = xFrom; x <= xTo; ++x, ++n) {
            const Rgba p = k.Unit(((x % k.w) + k.w) % k.w, ((y % k.h) + k.h) % k.h);
            for (int c = 0; c < 4; ++c) sum[c] += p[c];
        }
    for (int c = 0; c < 4; ++c) sum[c] /= n;
    if (k.channels == 3) sum[3] = 1.0;
    return sum;
}

TextureRef Load(const std::string& path, UInt32 flags = 0, const LayerSetObject* layers = nullptr) {
    Result<Url> url = Url::FromText(path);
    EXPECT_TRUE(url.IsOk());
    Result<TextureRef> t = TextureRef::Load(url.GetValue(), flags, layers);
    EXPECT_TRUE(t.IsOk()) << path << ": " << ErrorToString(t.GetErrorPointer());
    return t.IsOk() ? t.GetValue() : TextureRef();
}

ThreadedTextureRef Sampler(const TextureRef& t) {
    Result<ThreadedTextureRef> s = ThreadedTextureRef::Create(t);
    EXPECT_TRUE(s.IsOk()) << ErrorToString(s.GetErrorPointer());
    return s.IsOk() ? std::move(s.GetValue()) : ThreadedTextureRef();
}

std::string Id(const PixelFormatObject* f) {
    return std::string(PixelFormatInterface::GetId(f).View());
}

void ExpectNear(const ColorA64& got, const Rgba& want, double tolerance, const std::string& what) {
    EXPECT_NEAR(got.r, want[0], tolerance) << what;
    EXPECT_NEAR(got.g, want[1], tolerance) << what;
    EXPECT_NEAR(got.b, want[2], tolerance) << what;
    EXPECT_NEAR(got.a, want[3], tolerance) << what;
}

// Writes a picture of 8-bit values to a temporary file; channels 1 to 4.
std::string WriteTemporary(const std::string& name, int w, int h, int channels,
                           const std::vector<unsigned char>& v) {
    const std::string path =
        (std::filesystem::temp_directory_path() / ("quorv_texture_test_" + name)).string();
    auto out = OIIO::ImageOutput::create(path);
    OIIO::ImageSpec layout(w, h, channels, OIIO::TypeDesc::UINT8);
    layout.attribute("oiio:UnassociatedAlpha", 1);
    EXPECT_TRUE(out && out->open(path, layout) && out->write_image(OIIO::TypeDesc::UINT8, v.data()) &&
                out->close());
    return path;
}

// ---- Init ------------------------------------------------------------------------------------

TEST(TextureInit, FlagsFormatsAndColourOfEachKindOfPicture) {
    TextureRef rgb = Load(DATA + "rgb8_4x4.png");
    ASSERT_TRUE(rgb);
    EXPECT_EQ(rgb->width, 4);
    EXPECT_EQ(rgb->inverseHeight, 0.25);
    EXPECT_FALSE(rgb->hasAlpha || rgb->is16Bit || rgb->isFloat || rgb->isGrey || rgb->wasConverted);
    EXPECT_TRUE(rgb->isSRGB);
    EXPECT_FALSE(rgb->colorConversion);
    EXPECT_EQ(Id(rgb->storageFormat), "net.quorv.image.pixelformat.rgb.u8");
    EXPECT_EQ(Id(rgb->readFormat), "net.quorv.image.pixelformat.rgb.f64");
    EXPECT_EQ(Id(rgb->convertFormat), "net.quorv.image.pixelformat.rgb.f64");
    EXPECT_EQ(rgb->frameRate, 30.0);
    EXPECT_EQ(rgb->pyramidState.load(), TEXTURE_STATE_NOT_BUILT) << "nothing is built at load";

    TextureRef rgba = Load(DATA + "rgba8_5x3.png");
    ASSERT_TRUE(rgba);
    EXPECT_TRUE(rgba->hasAlpha);
    EXPECT_EQ(Id(rgba->storageFormat), "net.quorv.image.pixelformat.rgba.u8");
    EXPECT_EQ(Id(rgba->readFormat), "net.quorv.image.pixelformat.rgba.f64");

    TextureRef deep = Load(DATA + "rgb16_5x3.png");
    ASSERT_TRUE(deep);
    EXPECT_TRUE(deep->is16Bit);
    EXPECT_FALSE(deep->isFloat);
    EXPECT_EQ(Id(deep->storageFormat), "net.quorv.image.pixelformat.rgb.u16");

    TextureRef hdr = Load(DATA + "rgbaf_4x3.exr");
    ASSERT_TRUE(hdr);
    EXPECT_TRUE(hdr->isFloat);
    EXPECT_FALSE(hdr->isSRGB);
    EXPECT_FALSE(hdr->colorConversion) << "a linear picture needs no conversion";
    EXPECT_EQ(Id(hdr->storageFormat), "net.quorv.image.pixelformat.rgba.f32");
    EXPECT_TRUE(texture::IsRegularFloatingPointFormat(hdr.Get()));
    EXPECT_FALSE(texture::IsRegularFloatingPointFormat(rgba.Get()));

    TextureRef grey = Load(DATA + "grey8_3x1.png");
    ASSERT_TRUE(grey);
    EXPECT_TRUE(grey->isGrey);
    EXPECT_EQ(Id(grey->convertFormat), "net.quorv.image.pixelformat.grey.f64");

    TextureRef plain = Load(DATA + "noprofile_rgb8_3x2.tif");
    ASSERT_TRUE(plain);
    EXPECT_TRUE(plain->isSRGB) << "a picture without profile counts as sRGB";
    TextureRef tagged = Load(DATA + "icc_rgb8_3x2.tif");
    ASSERT_TRUE(tagged);
    EXPECT_FALSE(tagged->isSRGB);
    EXPECT_TRUE(tagged->colorConversion);
}

TEST(TextureInit, ConversionLayerSetsAndErrors) {
    TextureRef converted = Load(DATA + "rgba8_5x3.png", TEXTURE_FLAG_CONVERT_TO_FLOAT);
    ASSERT_TRUE(converted);
    EXPECT_TRUE(converted->wasConverted);
    EXPECT_TRUE(converted->isFloat);
    EXPECT_FALSE(converted->isSRGB);
    const ImageObject* image = ImageTextureInterface::GetFirstImage(converted->image.Get());
    EXPECT_EQ(Id(ImageInterface::GetPixelFormat(image)), "net.quorv.image.pixelformat.rgba.f32");
    EXPECT_EQ(ImageTextureInterface::GetColorProfile(converted->image.Get()),
              ColorProfileInterface::GetStandard(imageids::PROFILE_LINEAR_RGB));
    // The copy keeps the values; only their type changes.
    ThreadedTextureRef s = Sampler(converted);
    const ColorA64 c = s.Sample({2.5 / 5, 1 - 1.5 / 3}, {0, 0}, M::CLAMP, M::CLAMP, I::NONE);
    EXPECT_EQ(c.r, static_cast<double>(static_cast<float>(Pattern8(2, 1, 0) / 255.0)));
    EXPECT_EQ(c.a, static_cast<double>(static_cast<float>(Pattern8(2, 1, 3) / 255.0)));
    TextureRef already = Load(DATA + "rgbaf_4x3.exr", TEXTURE_FLAG_CONVERT_TO_FLOAT);
    ASSERT_TRUE(already);
    EXPECT_FALSE(already->wasConverted);

    Ref<LayerSetObject> alphas =
        Ref<LayerSetObject>::Adopt(LayerSetInterface::Alloc(QUORV_SOURCE_LOCATION));
    LayerSetInterface::SetMode(alphas.Get(), LAYERSETMODE::ALPHAS);
    TextureRef masked = Load(DATA + "rgb8_4x4.png", 0, alphas.Get());
    ASSERT_TRUE(masked);
    EXPECT_TRUE(masked->isGrey);
    EXPECT_FALSE(masked->hasAlpha);
    EXPECT_FALSE(masked->isSRGB) << "the linear grey profile";
    EXPECT_FALSE(masked->colorConversion);
    Ref<LayerSetObject> layers =
        Ref<LayerSetObject>::Adopt(LayerSetInterface::Alloc(QUORV_SOURCE_LOCATION));
    TextureRef noAlpha = Load(DATA + "rgba8_5x3.png", 0, layers.Get());
    ASSERT_TRUE(noAlpha);
    EXPECT_FALSE(noAlpha->hasAlpha) << "LAYERS without a calculated alpha";

    Result<Url> url = Url::FromText(DATA + "missing.png");
    Result<TextureRef> missing = TextureRef::Load(url.GetValue());
    ASSERT_TRUE(missing.IsError());
    const std::string message = missing.GetErrorPointer()->message;
    EXPECT_EQ(message.rfind("TextureImpl::Init Error: ", 0), 0u) << message;
    EXPECT_NE(message.find("missing.png"), std::string::npos) << message;

    Result<ThreadedTextureRef> empty = ThreadedTextureRef::Create(TextureRef());
    ASSERT_TRUE(empty.IsError());
    EXPECT_STREQ(empty.GetErrorPointer()->message,
                 "Illegal argument: Condition _impl != nullptr not fulfilled. ");
}

// ---- nearest, bilinear, bicubic, borders ------------------------------------------------------

TEST(TextureSample, NearestBilinearAndBicubicMatchDirectComputations) {
    TextureRef t = Load(DATA + "rgb8_7x5.png");
    ASSERT_TRUE(t);
    ThreadedTextureRef s = Sampler(t);
    const Known k = Known::OfPattern(7, 5, 3);
    for (double u : {0.0, 0.03, 0.31, 0.5, 0.77, 0.999, 1.0}) {
        for (double v : {0.0, 0.12, 0.5, 0.61, 0.95, 1.0}) {
            const double vf = 1.0 - v;
            for (M mode : {M::CLAMP, M::REPEAT, M::MIRROR, M::EXTEND}) {
                const std::string at = "uv " + std::to_string(u) + ", " + std::to_string(v) +
                                       " mode " + std::to_string(static_cast<int>(mode));
                // u and v' lie in the unit square here, so the reduction leaves them alone except
                // that EXTEND and CLAMP take 1 to 0.
                const bool wraps = mode == M::CLAMP || mode == M::EXTEND;
                const double ru = wraps ? u - std::floor(u) : u,
                             rv = wraps ? vf - std::floor(vf) : vf;
                const int nx = std::clamp(static_cast<int>(ru * 7), 0, 6),
                          ny = std::clamp(static_cast<int>(rv * 5), 0, 4);
                ExpectNear(s.Sample({u, v}, {0, 0}, mode, mode, I::NONE), k.Unit(nx, ny), 0,
                           "nearest " + at);
                ExpectNear(s.Sample({u, v}, {0, 0}, mode, mode, I::LINEAR),
                           RefBilinear(k, ru, rv, mode, mode), 1e-14, "bilinear " + at);
                ExpectNear(s.Sample({u, v}, {0, 0}, mode, mode, I::BICUBIC),
                           RefBicubic(k, ru, rv, mode, mode), 1e-13, "bicubic " + at);
                ExpectNear(s.Sample({u, v}, {0, 0}, mode, mode, I::MIP),
                           RefBilinear(k, ru, rv, mode, mode), 1e-14,
                           "a zero footprint makes MIP bilinear " + at);
            }
        }
    }
}

TEST(TextureSample, BorderBehaviourIsTheReverseOfTheModeNames) {
    TextureRef t = Load(DATA + "rgb8_4x4.png");
    ASSERT_TRUE(t);
    ThreadedTextureRef s = Sampler(t);
    const Known k = Known::OfPattern(4, 4, 3);
    // CLAMP wraps 1.25 to 0.25, then the filter clamps at the edges.
    ExpectNear(s.Sample({1.25, 0.25}, {0, 0}, M::CLAMP, M::CLAMP, I::LINEAR),
               RefBilinear(k, 0.25, 0.75, M::CLAMP, M::CLAMP), 1e-15, "clamp");
    ExpectNear(s.Sample({-0.75, 0.25}, {0, 0}, M::EXTEND, M::EXTEND, I::LINEAR),
               RefBilinear(k, 0.25, 0.75, M::EXTEND, M::EXTEND), 1e-15, "extend");
    // REPEAT sticks at 1; the right neighbour wraps to column 0 with weight 1/2.
    const Rgba repeat =
        Mix(Mix(k.Unit(3, 2), k.Unit(3, 3), 0.5), Mix(k.Unit(0, 2), k.Unit(0, 3), 0.5), 0.5);
    ExpectNear(s.Sample({1.25, 0.25}, {0, 0}, M::REPEAT, M::REPEAT, I::LINEAR), repeat, 1e-15,
               "repeat");
    // MIRROR sticks at 1 as well, and the neighbour mirrors back onto column 3.
    const Rgba mirror = Mix(k.Unit(3, 2), k.Unit(3, 3), 0.5);
    ExpectNear(s.Sample({1.25, 0.25}, {0, 0}, M::MIRROR, M::MIRROR, I::LINEAR), mirror, 1e-15,
               "mirror");
    // Without tiling the filter clamps whatever the modes.
    ExpectNear(s.Sample({1.25, 0.25}, {0, 0}, M::REPEAT, M::REPEAT, I::LINEAR,
                        DESTINATIONCOLORSPACE::RAW, ALPHAPROCESSING::NONE, false),
               mirror, 1e-15, "repeat without tile");
}

// ---- pyramid ------------------------------------------------------------------------------------

TEST(TexturePyramid, LevelsOfOddSizesAndTheirTexels) {
    TextureRef t = Load(DATA + "rgb8_7x5.png");
    ASSERT_TRUE(t);
    texture::EnsurePyramid(t.Get());
    ASSERT_EQ(t->pyramidState.load(), TEXTURE_STATE_READY);
    const TexturePyramid& p = *t->pyramid;
    ASSERT_EQ(p.mipCount, 4);
    const int widths[] = {7, 4, 2, 1}, heights[] = {5, 3, 2, 1};
    Known level = Known::OfPattern(7, 5, 3);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(p.mipLevels[i].width, widths[i]);
        EXPECT_EQ(p.mipLevels[i].height, heights[i]);
        EXPECT_EQ(p.mipLevels[i].scaleX, 1 << i);
        EXPECT_EQ(p.mipLevels[i].HasTexels(), i > 0);
        if (i > 0) {
            level = level.Halve(true, true);
            for (size_t n = 0; n < level.v.size(); ++n)
                EXPECT_EQ(p.mipLevels[i].texels[static_cast<Int>(n)], level.v[n]) << i;
        }
    }
    EXPECT_EQ(p.levelsX, 4);
    EXPECT_EQ(p.levelsY, 4);
    // Entry (i, j): i halvings along x, then j along y.
    for (int j = 0; j < 4; ++j) {
        for (int i = 0; i < 4; ++i) {
            Known expected = Known::OfPattern(7, 5, 3);
            for (int a = 0; a < i; ++a) expected = expected.Halve(true, false);
            for (int b = 0; b < j; ++b) expected = expected.Halve(false, true);
            const TextureLevel& l = p.Rip(i, j);
            EXPECT_EQ(l.width, expected.w);
            EXPECT_EQ(l.height, expected.h);
            const bool sourceOnly = (i == 0 && j == 0) || (i == 1 && j == 0) ||
                                    (i == 0 && j == 1) || (i == 1 && j == 1);
            EXPECT_EQ(l.HasTexels(), !sourceOnly) << i << "," << j;
            if (!l.HasTexels()) continue;
            for (size_t n = 0; n < expected.v.size(); ++n)
                EXPECT_EQ(l.texels[static_cast<Int>(n)], expected.v[n]) << i << "," << j;
        }
    }
}

TEST(TexturePyramid, OneByOneAndThreeByOne) {
    TextureRef one = Load(DATA + "rgb8_1x1.png");
    ASSERT_TRUE(one);
    texture::EnsurePyramid(one.Get());
    ASSERT_EQ(one->pyramidState.load(), TEXTURE_STATE_READY);
    EXPECT_EQ(one->pyramid->mipCount, 1);
    EXPECT_EQ(one->pyramid->levelsX, 1);
    EXPECT_EQ(one->pyramid->levelsY, 1);
    ThreadedTextureRef s = Sampler(one);
    const Rgba only = Known::OfPattern(1, 1, 3).Unit(0, 0);
    for (I f : {I::MIP, I::RIP, I::SUMMEDAREA, I::BICUBIC}) {
        ExpectNear(s.Sample({0.3, 0.6}, {0.5, 1.5}, M::REPEAT, M::REPEAT, f), only, 1e-15, "1x1");
    }

    TextureRef line = Load(DATA + "grey8_3x1.png");
    ASSERT_TRUE(line);
    texture::EnsurePyramid(line.Get());
    ASSERT_EQ(line->pyramid->mipCount, 3);
    EXPECT_EQ(line->pyramid->mipLevels[1].width, 2);
    EXPECT_EQ(line->pyramid->mipLevels[2].width, 1);
    EXPECT_EQ(line->pyramid->mipLevels[1].height, 1);
    // The last column repeats in the reduction of the odd width.
    const int g0 = Pattern8(0, 0, 0), g1 = Pattern8(1, 0, 0), g2 = Pattern8(2, 0, 0);
    EXPECT_EQ(line->pyramid->mipLevels[1].texels[0], (2 * g0 + 2 * g1) >> 2);
    EXPECT_EQ(line->pyramid->mipLevels[1].texels[3], (4 * g2) >> 2);
}

TEST(TextureSample, MipLevelChoiceAndTheSquaredBlend) {
    TextureRef t = Load(DATA + "rgb8_7x5.png");
    ASSERT_TRUE(t);
    ThreadedTextureRef s = Sampler(t);
    const Known k = Known::OfPattern(7, 5, 3);
    const Known l1 = k.Halve(true, true), l2 = l1.Halve(true, true);
    const double u = 0.43, v = 0.37, vf = 1 - v;
    // L = 3: halved to 1.5 (level 0), to 0.75 (level 1): bicubic against level 1, t = 0.25.
    ExpectNear(s.Sample({u, v}, {1.0 / 7, 2.0 / 5}, M::CLAMP, M::CLAMP, I::MIP),
               Mix(RefBicubic(k, u, vf, M::CLAMP, M::CLAMP),
                   RefBilinear(l1, u, vf, M::CLAMP, M::CLAMP), 0.25),
               1e-14, "level 1");
    // L = 6: level 2, levels 1 and 2, t = 0.25. L = 7: t = (2 * 0.875 - 1)^2.
    ExpectNear(s.Sample({u, v}, {3.0 / 7, 3.0 / 5}, M::CLAMP, M::CLAMP, I::MIP),
               Mix(RefBilinear(l1, u, vf, M::CLAMP, M::CLAMP),
                   RefBilinear(l2, u, vf, M::CLAMP, M::CLAMP), 0.25),
               1e-14, "level 2");
    ExpectNear(s.Sample({u, v}, {4.0 / 7, 3.0 / 5}, M::CLAMP, M::CLAMP, I::MIP),
               Mix(RefBilinear(l1, u, vf, M::CLAMP, M::CLAMP),
                   RefBilinear(l2, u, vf, M::CLAMP, M::CLAMP), 0.5625),
               1e-14, "level 2 at 7");
    // L below 2: bicubic.
    ExpectNear(s.Sample({u, v}, {0.1 / 7, 1.8 / 5}, M::CLAMP, M::CLAMP, I::MIP),
               RefBicubic(k, u, vf, M::CLAMP, M::CLAMP), 1e-14, "below 2");
}

TEST(TextureSample, RipBlendsLinearlyOverSourceOnlyLevels) {
    TextureRef t = Load(DATA + "rgb8_7x5.png");
    ASSERT_TRUE(t);
    ThreadedTextureRef s = Sampler(t);
    const Known k = Known::OfPattern(7, 5, 3);
    const Known x1 = k.Halve(true, false), x2 = x1.Halve(true, false);
    const Known x1y1 = k.Halve(true, true), x2y1 = x2.Halve(false, true);
    const double u = 0.61, v = 0.29, vf = 1 - v;
    // Lx = 3: ix = 2, tx = 0.5; Ly = 0.5: iy = 0. Entry (1, 0) is computed from the picture.
    ExpectNear(s.Sample({u, v}, {3.0 / 7, 0.5 / 5}, M::CLAMP, M::CLAMP, I::RIP),
               Mix(RefBilinear(x1, u, vf, M::CLAMP, M::CLAMP),
                   RefBilinear(x2, u, vf, M::CLAMP, M::CLAMP), 0.5),
               1e-14, "along x");
    // Lx = 3, Ly = 1.5: iy = 1, ty = 0.5: rows j = 0 and j = 1; (1, 1) reduces four pixels.
    const Rgba top = Mix(RefBilinear(x1, u, vf, M::CLAMP, M::CLAMP),
                         RefBilinear(x2, u, vf, M::CLAMP, M::CLAMP), 0.5);
    const Rgba bottom = Mix(RefBilinear(x1y1, u, vf, M::CLAMP, M::CLAMP),
                            RefBilinear(x2y1, u, vf, M::CLAMP, M::CLAMP), 0.5);
    ExpectNear(s.Sample({u, v}, {3.0 / 7, 1.5 / 5}, M::CLAMP, M::CLAMP, I::RIP),
               Mix(top, bottom, 0.5), 1e-14, "both");
    // Both below 1: bicubic.
    ExpectNear(s.Sample({u, v}, {0.5 / 7, 0.5 / 5}, M::CLAMP, M::CLAMP, I::RIP),
               RefBicubic(k, u, vf, M::CLAMP, M::CLAMP), 1e-14, "bicubic");
}

// ---- summed area ------------------------------------------------------------------------------

TEST(TextureSummedArea, BoxesAgainstBruteForceMeans) {
    TextureRef t = Load(DATA + "rgba8_5x3.png");
    ASSERT_TRUE(t);
    ThreadedTextureRef s = Sampler(t);
    const Known k = Known::OfPattern(5, 3, 4);
    // The whole picture gives its mean.
    ExpectNear(s.Sample({0.5, 0.5}, {1.0, 1.0}, M::CLAMP, M::CLAMP, I::SUMMEDAREA),
               RefBoxMean(k, 0, 4, 0, 2), 1e-14, "whole");
    // Texels 1..3 by rows 1..2 (v' from 1/3 to 1).
    ExpectNear(
        s.Sample({2.5 / 5, 1 - 2.0 / 3}, {3.0 / 5, 2.0 / 3}, M::CLAMP, M::CLAMP, I::SUMMEDAREA),
        RefBoxMean(k, 1, 3, 1, 2), 1e-14, "box");
    // The table itself against brute-force sums.
    ASSERT_EQ(t->summedAreaState.load(), TEXTURE_STATE_READY);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x)
            for (int c = 0; c < 4; ++c) {
                UInt32 sum = 0;
                for (int b = 0; b <= y; ++b)
                    for (int a = 0; a <= x; ++a) sum += static_cast<UInt32>(k.At(a, b, c));
                EXPECT_EQ(t->summedAreaTable->sums[(y * 5 + x) * 4 + c], sum);
            }
    // Periodic: a box across the left edge covers column 4 and column 0 (row 1).
    ExpectNear(s.Sample({0.0, 0.5}, {2.0 / 5, 1.0 / 3}, M::REPEAT, M::REPEAT, I::SUMMEDAREA),
               RefBoxMean(k, -1, 0, 1, 1), 1e-14, "across the edge");
    // Wider than the picture: columns -1 .. 5, rows 0 .. 1, whole period plus the two ends.
    ExpectNear(
        s.Sample({0.5, 1 - 1.0 / 3}, {7.0 / 5, 2.0 / 3}, M::REPEAT, M::REPEAT, I::SUMMEDAREA),
        RefBoxMean(k, -1, 5, 0, 1), 1e-14, "wider than a period");
    ExpectNear(s.Sample({0.6, 0.5}, {12.0 / 5, 7.0 / 3}, M::REPEAT, M::REPEAT, I::SUMMEDAREA),
               RefBoxMean(k, -3, 8, -2, 4), 1e-13, "periods both ways");
    // Narrower than a texel: widened to one texel about its centre, the texel itself.
    ExpectNear(s.Sample({2.5 / 5, 1 - 1.5 / 3}, {0.01, 0.01}, M::CLAMP, M::CLAMP, I::SUMMEDAREA),
               k.Unit(2, 1), 1e-14, "one texel");
}

TEST(TextureSummedArea, DeepTexturesAndHugePicturesFallBackToRip) {
    TextureRef deep = Load(DATA + "rgb16_5x3.png");
    ASSERT_TRUE(deep);
    ThreadedTextureRef s = Sampler(deep);
    for (double f : {0.3, 0.7, 1.5}) {
        const ColorA64 a = s.Sample({0.4, 0.3}, {f, f / 2}, M::CLAMP, M::CLAMP, I::SUMMEDAREA);
        const ColorA64 b = s.Sample({0.4, 0.3}, {f, f / 2}, M::CLAMP, M::CLAMP, I::RIP);
        EXPECT_EQ(a, b);
    }
    EXPECT_EQ(deep->summedAreaState.load(), TEXTURE_STATE_NOT_BUILT)
        << "16-bit families never ask for a table";
    // 2^24 texels need more than 32-bit sums: no table; one row fewer gets one.
    for (int h : {4096, 4095}) {
        const std::string path =
            WriteTemporary("flat" + std::to_string(h) + ".png", 4096, h, 3,
                           std::vector<unsigned char>(static_cast<size_t>(4096 * h * 3), 200));
        TextureRef big = Load(path);
        ASSERT_TRUE(big);
        // Only the table is asked for: a sample without one would go on to build the pyramid.
        texture::EnsureSummedAreaTable(big.Get());
        EXPECT_EQ(big->summedAreaState.load(), TEXTURE_STATE_READY);
        EXPECT_EQ(big->noSummedAreaTable, h == 4096);
        if (h == 4095) {
            ThreadedTextureRef bs = Sampler(big);
            const ColorA64 c =
                bs.Sample({0.5, 0.5}, {0.25, 0.25}, M::CLAMP, M::CLAMP, I::SUMMEDAREA);
            EXPECT_NEAR(c.r, 200 / 255.0, 1e-12);
        }
        EXPECT_EQ(big->summedAreaTable != nullptr, h == 4095);
        std::remove(path.c_str());
    }
}

// ---- colour and alpha -------------------------------------------------------------------------

double DecodeSrgb(double c) {
    return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}

TEST(TextureColour, SrgbDecodingConversionAndAlphaSteps) {
    TextureRef t = Load(DATA + "rgba8_5x3.png");
    ASSERT_TRUE(t);
    ThreadedTextureRef s = Sampler(t);
    const Known k = Known::OfPattern(5, 3, 4);
    const Vector2d64 at{3.5 / 5, 1 - 0.5 / 3};
    const Rgba raw = k.Unit(3, 0);
    const ColorA64 linear =
        s.Sample(at, {0, 0}, M::CLAMP, M::CLAMP, I::NONE, DESTINATIONCOLORSPACE::LINEAR);
    ExpectNear(linear, {DecodeSrgb(raw[0]), DecodeSrgb(raw[1]), DecodeSrgb(raw[2]), raw[3]}, 1e-15,
               "decoded");
    EXPECT_EQ(linear,
              s.Sample(at, {0, 0}, M::CLAMP, M::CLAMP, I::NONE, DESTINATIONCOLORSPACE::SRGB));
    const double inv = 1.0 / raw[3];
    ExpectNear(s.Sample(at, {0, 0}, M::CLAMP, M::CLAMP, I::NONE, DESTINATIONCOLORSPACE::RAW,
                        ALPHAPROCESSING::PROFILE_PREMULTIPLIED_TO_LINEAR_STRAIGHT),
               {raw[0] * inv, raw[1] * inv, raw[2] * inv, raw[3]}, 1e-15,
               "straight before decoding");
    ExpectNear(
        s.Sample(at, {0, 0}, M::CLAMP, M::CLAMP, I::NONE, DESTINATIONCOLORSPACE::LINEAR,
                 ALPHAPROCESSING::LINEAR_PREMULTIPLIED_TO_LINEAR_STRAIGHT),
        {DecodeSrgb(raw[0]) * inv, DecodeSrgb(raw[1]) * inv, DecodeSrgb(raw[2]) * inv, raw[3]},
        1e-15, "straight after decoding");
    ExpectNear(s.Sample(at, {0, 0}, M::CLAMP, M::CLAMP, I::NONE, DESTINATIONCOLORSPACE::RAW,
                        ALPHAPROCESSING::NOALPHA),
               {raw[0], raw[1], raw[2], 1.0}, 0, "no alpha");

    // Alpha 0 made straight gives black.
    const std::string path = WriteTemporary("alpha0.png", 1, 1, 4, {200, 100, 50, 0});
    TextureRef clear = Load(path);
    ASSERT_TRUE(clear);
    ThreadedTextureRef cs = Sampler(clear);
    ExpectNear(
        cs.Sample({0.5, 0.5}, {0, 0}, M::CLAMP, M::CLAMP, I::NONE, DESTINATIONCOLORSPACE::RAW,
                  ALPHAPROCESSING::PROFILE_PREMULTIPLIED_TO_LINEAR_STRAIGHT),
        {0, 0, 0, 0}, 0, "alpha 0");
    std::remove(path.c_str());

    // An ICC picture goes through the conversion of its profile.
    TextureRef tagged = Load(DATA + "icc_rgb8_3x2.tif");
    ASSERT_TRUE(tagged);
    ThreadedTextureRef ts = Sampler(tagged);
    const ColorA64 before = ts.Sample({0.5, 0.25}, {0, 0}, M::CLAMP, M::CLAMP, I::LINEAR);
    const ColorA64 after = ts.Sample({0.5, 0.25}, {0, 0}, M::CLAMP, M::CLAMP, I::LINEAR,
                                     DESTINATIONCOLORSPACE::LINEAR);
    Float64 rgb[3] = {before.r, before.g, before.b};
    ColorProfileConvertInterface::Convert(tagged->colorConversion.Get(), rgb, rgb, 1);
    ExpectNear(after, {rgb[0], rgb[1], rgb[2], 1.0}, 0, "converted");
    EXPECT_GT(std::abs(after.r - before.r), 1e-3);
}

TEST(TextureColour, AGreyPictureWithAConversionCopiesRedIntoGreenAndBlue) {
    // A grey picture carrying a grey ICC profile of gamma 1.8.
    cmsCIExyY d65;
    cmsWhitePointFromTemp(&d65, 6504);
    cmsToneCurve* g = cmsBuildGamma(nullptr, 1.8);
    cmsHPROFILE profile = cmsCreateGrayProfile(&d65, g);
    cmsUInt32Number size = 0;
    cmsSaveProfileToMem(profile, nullptr, &size);
    std::vector<unsigned char> icc(size);
    cmsSaveProfileToMem(profile, icc.data(), &size);
    cmsCloseProfile(profile);
    cmsFreeToneCurve(g);
    const std::string path =
        (std::filesystem::temp_directory_path() / "quorv_texture_test_grey_icc.tif").string();
    auto out = OIIO::ImageOutput::create(path);
    OIIO::ImageSpec layout(2, 1, 1, OIIO::TypeDesc::UINT8);
    layout.attribute("ICCProfile", OIIO::TypeDesc(OIIO::TypeDesc::UINT8, icc.size()), icc.data());
    const unsigned char px[2] = {128, 30};
    ASSERT_TRUE(out && out->open(path, layout) && out->write_image(OIIO::TypeDesc::UINT8, px) &&
                out->close());
    TextureRef t = Load(path);
    ASSERT_TRUE(t);
    EXPECT_TRUE(t->isGrey);
    ASSERT_TRUE(t->colorConversion);
    ThreadedTextureRef s = Sampler(t);
    const ColorA64 c =
        s.Sample({0.25, 0.5}, {0, 0}, M::CLAMP, M::CLAMP, I::NONE, DESTINATIONCOLORSPACE::LINEAR);
    EXPECT_NEAR(c.r, std::pow(128 / 255.0, 1.8), 2e-4);
    EXPECT_EQ(c.g, c.r);
    EXPECT_EQ(c.b, c.r);
    std::remove(path.c_str());
}

// ---- concurrency --------------------------------------------------------------------------------

TEST(TextureConcurrency, ManyThreadsBuildEachStructureOnce) {
    TextureRef t = Load(DATA + "rgba8_5x3.png");
    ASSERT_TRUE(t);
    constexpr int THREADS = 8;
    std::vector<ColorA64> results(THREADS * 3);
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            ThreadedTextureRef s = Sampler(t);
            ++ready;
            while (ready.load() < THREADS) std::this_thread::yield();
            results[static_cast<size_t>(i * 3 + 0)] =
                s.Sample({0.3, 0.6}, {0.7, 0.4}, M::CLAMP, M::CLAMP, I::MIP);
            results[static_cast<size_t>(i * 3 + 1)] =
                s.Sample({0.3, 0.6}, {0.7, 0.4}, M::CLAMP, M::CLAMP, I::RIP);
            results[static_cast<size_t>(i * 3 + 2)] =
                s.Sample({0.3, 0.6}, {0.7, 0.4}, M::CLAMP, M::CLAMP, I::SUMMEDAREA);
        });
    }
    for (auto& th : threads) th.join();
    const TexturePyramid* pyramid = t->pyramid;
    ASSERT_NE(pyramid, nullptr);
    EXPECT_EQ(t->pyramidState.load(), TEXTURE_STATE_READY);
    EXPECT_EQ(t->summedAreaState.load(), TEXTURE_STATE_READY);
    EXPECT_TRUE(t->pyramidGuard.IsDone());
    for (int i = 1; i < THREADS; ++i) {
        for (int f = 0; f < 3; ++f)
            EXPECT_EQ(results[static_cast<size_t>(i * 3 + f)], results[static_cast<size_t>(f)]);
    }
    // A later sample keeps the structure it found.
    ThreadedTextureRef s = Sampler(t);
    s.Sample({0.1, 0.1}, {0.9, 0.9}, M::CLAMP, M::CLAMP, I::MIP);
    EXPECT_EQ(t->pyramid, pyramid);
}

TEST(TextureConcurrency, ABuildCancelledWithItsCallerIsRetriedLater) {
    TextureRef t = Load(DATA + "rgb8_7x5.png");
    ASSERT_TRUE(t);
    std::atomic<bool> started{false};
    ColorA64 inside;
    Result<JobRef> job = ClosureJob::Create([&]() -> Result<void> {
        started = true;
        while (!ThreadServicesInterface::IsCurrentJobCancelled()) std::this_thread::yield();
        ThreadedTextureRef s = Sampler(t);
        inside = s.Sample({0.5, 0.5}, {0.6, 0.6}, M::CLAMP, M::CLAMP, I::MIP);
        return OK;
    });
    ASSERT_TRUE(job.IsOk());
    ASSERT_TRUE(job.GetValue().Enqueue().IsOk());
    while (!started.load()) std::this_thread::yield();
    job.GetValue().Cancel();
    job.GetValue().Wait();
    EXPECT_EQ(inside, (ColorA64{0, 0, 0, 1})) << "a cancelled build gives black";
    EXPECT_EQ(t->pyramidState.load(), TEXTURE_STATE_NOT_BUILT);
    EXPECT_EQ(t->pyramidGuard.GetState(), UInt(OnceGuard::FREE));
    ThreadedTextureRef s = Sampler(t);
    const ColorA64 c = s.Sample({0.5, 0.5}, {0.6, 0.6}, M::CLAMP, M::CLAMP, I::MIP);
    EXPECT_EQ(t->pyramidState.load(), TEXTURE_STATE_READY);
    EXPECT_NE(c, (ColorA64{0, 0, 0, 1}));
}

}  // namespace
}  // namespace quorv
