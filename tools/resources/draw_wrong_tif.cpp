// Draws modules/browser/icons/wrong.tif, the picture the preview placeholders show: 64 x 64
// RGBA, transparent, with a red cross. Run by the build; the picture is ours, drawn here.
#include <OpenImageIO/imageio.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: draw_wrong_tif OUT.tif\n");
        return 2;
    }
    constexpr int SIZE = 64;
    constexpr float HALF_WIDTH = 4.0f;  // pixels either side of each diagonal
    std::vector<unsigned char> pixels(SIZE * SIZE * 4, 0);
    for (int y = 0; y < SIZE; ++y) {
        for (int x = 0; x < SIZE; ++x) {
            const float cx = x + 0.5f, cy = y + 0.5f;
            // Distance to the diagonals y = x and y = SIZE - x, inside a margin of 8 pixels.
            const float d1 = std::fabs(cx - cy) / std::sqrt(2.0f);
            const float d2 = std::fabs(cx + cy - SIZE) / std::sqrt(2.0f);
            const bool inside = cx > 8 && cx < SIZE - 8 && cy > 8 && cy < SIZE - 8;
            if (inside && (d1 < HALF_WIDTH || d2 < HALF_WIDTH)) {
                unsigned char* p = &pixels[(y * SIZE + x) * 4];
                p[0] = 220, p[1] = 20, p[2] = 20, p[3] = 255;
            }
        }
    }
    const std::filesystem::path out(argv[1]);
    std::filesystem::create_directories(out.parent_path());
    // Written beside the target and renamed: the picture appears whole or not at all.
    const std::filesystem::path temp = out.string() + ".part.tif";
    auto file = OIIO::ImageOutput::create(temp.string());
    OIIO::ImageSpec spec(SIZE, SIZE, 4, OIIO::TypeDesc::UINT8);
    spec.alpha_channel = 3;
    if (!file || !file->open(temp.string(), spec) ||
        !file->write_image(OIIO::TypeDesc::UINT8, pixels.data()) || !file->close()) {
        std::fprintf(stderr, "draw_wrong_tif: cannot write %s\n", temp.string().c_str());
        std::filesystem::remove(temp);
        return 1;
    }
    std::error_code ec;
    std::filesystem::rename(temp, out, ec);
    if (ec) {
        std::fprintf(stderr, "draw_wrong_tif: cannot write %s: %s\n", out.string().c_str(),
                     ec.message().c_str());
        std::filesystem::remove(temp);
        return 1;
    }
    return 0;
}
