// Writes the small pictures of tests/data/textures. Run after changing a pattern:
//   cmake --build --preset default --target generate_texture_data
//   build/default/bin/generate_texture_data tests/data/textures
// Every channel value is a function of (x, y, channel) given below; the tests recompute it.
#include <OpenImageIO/imageio.h>
#include <lcms2.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

// The value pattern of the 8-bit pictures; the 16-bit and float ones scale it.
int Pattern8(int x, int y, int c) { return (37 * x + 71 * y + 113 * c + 11 * x * y) % 256; }

bool Write(const std::string& path, int w, int h, int channels, OIIO::TypeDesc type,
           const void* data, const std::vector<std::pair<std::string, std::string>>& text = {},
           const std::vector<unsigned char>* icc = nullptr) {
    auto out = OIIO::ImageOutput::create(path);
    if (!out) return false;
    OIIO::ImageSpec layout(w, h, channels, type);
    if (channels == 2 || channels == 4) layout.alpha_channel = channels - 1;
    // The values are written as they are, not as colour premultiplied by alpha.
    layout.attribute("oiio:UnassociatedAlpha", 1);
    for (const auto& [k, v] : text) layout.attribute(k, v);
    if (icc)
        layout.attribute("ICCProfile", OIIO::TypeDesc(OIIO::TypeDesc::UINT8, icc->size()),
                       icc->data());
    bool ok = out->open(path, layout) && out->write_image(type, data) && out->close();
    if (!ok) std::fprintf(stderr, "%s: %s\n", path.c_str(), out->geterror().c_str());
    return ok;
}

std::vector<unsigned char> Bytes(int w, int h, int channels) {
    std::vector<unsigned char> v(static_cast<size_t>(w * h * channels));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < channels; ++c)
                v[static_cast<size_t>((y * w + x) * channels + c)] =
                    static_cast<unsigned char>(Pattern8(x, y, c));
    return v;
}

// An RGB profile with gamma 2.2 tone curves and wide primaries: neither sRGB nor linear.
std::vector<unsigned char> WideGammaProfile() {
    cmsCIExyY d65;
    cmsWhitePointFromTemp(&d65, 6504);
    const cmsCIExyYTRIPLE primaries = {{0.64, 0.33, 1.0}, {0.21, 0.71, 1.0}, {0.15, 0.06, 1.0}};
    cmsToneCurve* g = cmsBuildGamma(nullptr, 2.2);
    cmsToneCurve* curves[3] = {g, g, g};
    cmsHPROFILE p = cmsCreateRGBProfile(&d65, &primaries, curves);
    cmsUInt32Number size = 0;
    cmsSaveProfileToMem(p, nullptr, &size);
    std::vector<unsigned char> bytes(size);
    cmsSaveProfileToMem(p, bytes.data(), &size);
    cmsCloseProfile(p);
    cmsFreeToneCurve(g);
    return bytes;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: generate_texture_data FOLDER\n");
        return 2;
    }
    const std::string dir = std::string(argv[1]) + "/";
    bool ok = true;
    const std::vector<std::pair<std::string, std::string>> srgb = {{"oiio:ColorSpace", "sRGB"}};
    ok &= Write(dir + "rgb8_4x4.png", 4, 4, 3, OIIO::TypeDesc::UINT8, Bytes(4, 4, 3).data(), srgb);
    ok &= Write(dir + "rgba8_5x3.png", 5, 3, 4, OIIO::TypeDesc::UINT8, Bytes(5, 3, 4).data(), srgb);
    ok &= Write(dir + "grey8_3x1.png", 3, 1, 1, OIIO::TypeDesc::UINT8, Bytes(3, 1, 1).data(), srgb);
    ok &=
        Write(dir + "greya8_2x2.png", 2, 2, 2, OIIO::TypeDesc::UINT8, Bytes(2, 2, 2).data(), srgb);
    ok &= Write(dir + "rgb8_1x1.png", 1, 1, 3, OIIO::TypeDesc::UINT8, Bytes(1, 1, 3).data(), srgb);
    ok &= Write(dir + "rgb8_7x5.png", 7, 5, 3, OIIO::TypeDesc::UINT8, Bytes(7, 5, 3).data(), srgb);
    {
        // 16 bits: the 8-bit pattern times 257 plus x, so that the low byte matters.
        std::vector<unsigned short> v(5 * 3 * 3);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                for (int c = 0; c < 3; ++c)
                    v[static_cast<size_t>((y * 5 + x) * 3 + c)] =
                        static_cast<unsigned short>(Pattern8(x, y, c) * 257 - x);
        ok &= Write(dir + "rgb16_5x3.png", 5, 3, 3, OIIO::TypeDesc::UINT16, v.data(), srgb);
    }
    {
        // Float: the 8-bit pattern / 64, so values run above 1.
        std::vector<float> v(4 * 3 * 4);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x)
                for (int c = 0; c < 4; ++c)
                    v[static_cast<size_t>((y * 4 + x) * 4 + c)] =
                        static_cast<float>(Pattern8(x, y, c)) / 64.0f;
        ok &= Write(dir + "rgbaf_4x3.exr", 4, 3, 4, OIIO::TypeDesc::FLOAT, v.data());
    }
    {
        const std::vector<unsigned char> icc = WideGammaProfile();
        ok &= Write(dir + "icc_rgb8_3x2.tif", 3, 2, 3, OIIO::TypeDesc::UINT8, Bytes(3, 2, 3).data(),
                    {}, &icc);
        ok &= Write(dir + "noprofile_rgb8_3x2.tif", 3, 2, 3, OIIO::TypeDesc::UINT8,
                    Bytes(3, 2, 3).data());
    }
    {
        // Three frames of 2 x 2 grey: frame k is everywhere 40 * (k + 1).
        auto out = OIIO::ImageOutput::create(dir + "frames_2x2.tif");
        std::vector<OIIO::ImageSpec> specs(3, OIIO::ImageSpec(2, 2, 1, OIIO::TypeDesc::UINT8));
        bool good = out && out->open(dir + "frames_2x2.tif", 3, specs.data());
        for (int k = 0; good && k < 3; ++k) {
            if (k > 0)
                good = out->open(dir + "frames_2x2.tif", specs[static_cast<size_t>(k)],
                                 OIIO::ImageOutput::AppendSubimage);
            std::vector<unsigned char> v(4, static_cast<unsigned char>(40 * (k + 1)));
            good = good && out->write_image(OIIO::TypeDesc::UINT8, v.data());
        }
        good = good && out->close();
        if (!good)
            std::fprintf(stderr, "frames: %s\n", out ? out->geterror().c_str() : "no writer");
        ok &= good;
    }
    return ok ? 0 : 1;
}
