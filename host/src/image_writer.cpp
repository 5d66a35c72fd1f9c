#include "quorv/host/image_writer.h"

#include "quorv/host/file_writer.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace quorv::host {

namespace {

bool EndsWith(const std::string& s, const char* suffix) {
    std::string lower(s);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    std::string t(suffix);
    return lower.size() >= t.size() && lower.compare(lower.size() - t.size(), t.size(), t) == 0;
}

}  // namespace

UInt8 ToByte(Float32 v) {
    if (!(v > 0.0f)) return 0;  // also NaN
    if (v >= 1.0f) return 255;
    return static_cast<UInt8>(v * 255.0f + 0.5f);
}

Result<void> WriteImage(const std::string& path, Int width, Int height, Int channels,
                        const Float32* pixels) {
    if (width < 1 || height < 1 || channels < 1 || channels > 4 || !pixels) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Cannot write @: bad picture size @ x @ x @",
                                       {path, std::to_string(width), std::to_string(height),
                                        std::to_string(channels)}));
    }
    bool png = EndsWith(path, ".png");
    if (!png && !EndsWith(path, ".exr")) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Cannot write @: the name must end in .png or .exr", {path}));
    }
    std::vector<unsigned char> encoded;
    try {
        auto out = OIIO::ImageOutput::create(path);
        if (!out) {
            return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                                   FormatMessage("Cannot write @: @", {path, OIIO::geterror()}));
        }
        // The picture is encoded into memory first; only complete bytes reach the file.
        OIIO::Filesystem::IOVecOutput memory(encoded);
        OIIO::ImageSpec layout(static_cast<int>(width), static_cast<int>(height),
                               static_cast<int>(channels),
                               png ? OIIO::TypeDesc::UINT8 : OIIO::TypeDesc::FLOAT);
        void* proxy = &memory;
        layout.attribute("oiio:ioproxy", OIIO::TypeDesc::PTR, &proxy);
        bool ok = out->open(path, layout);
        if (ok) {
            const size_t count = static_cast<size_t>(width * height * channels);
            if (png) {
                std::vector<UInt8> bytes(count);
                for (size_t i = 0; i < count; ++i) bytes[i] = ToByte(pixels[i]);
                ok = out->write_image(OIIO::TypeDesc::UINT8, bytes.data());
            } else {
                ok = out->write_image(OIIO::TypeDesc::FLOAT, pixels);
            }
        }
        if (!out->close()) ok = false;
        if (!ok || out->has_error() || encoded.empty()) {
            std::string why = out->geterror();
            return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                                   FormatMessage("Cannot write @: @",
                                                 {path, why.empty() ? "the encoder failed" : why}));
        }
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
    }
    return WriteFileAtomically(
        path, std::string_view(reinterpret_cast<const char*>(encoded.data()), encoded.size()));
}

}  // namespace quorv::host
