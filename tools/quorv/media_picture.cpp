#include "media_picture.h"

#include <vector>

#include "quorv/host/image_writer.h"
#include "quorv/ref.h"

namespace quorv::cli {

Result<void> WritePicture(const std::string& path, const ImageObject* image) {
    if (!image) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No image");
    const Int width = ImageInterface::GetWidth(image);
    const Int height = ImageInterface::GetHeight(image);
    const PixelFormatObject* source = ImageInterface::GetPixelFormat(image);
    const bool grey =
        source && !PixelFormatInterface::HasAlpha(source) &&
        PixelFormatInterface::GetColorSpace(source) == std::string_view(imageids::COLORSPACE_GREY);
    const Int channels = grey ? 1 : 4;
    const PixelFormatObject* target = FindPixelFormat(grey ? "grey.f32" : "rgba.f32");
    Result<PixelReadHandler*> h = ImageInterface::GetPixelHandler(image, target, nullptr);
    if (h.IsError()) return h.GetError();
    Ref<PixelReadHandler> read = Ref<PixelReadHandler>::Adopt(h.GetValue());
    std::vector<Float32> pixels(static_cast<size_t>(width * height * channels));
    for (Int y = 0; y < height; ++y)
        read->read(read.Get(), 0, y, width, pixels.data() + y * width * channels);
    return host::WriteImage(path, width, height, channels, pixels.data());
}

}  // namespace quorv::cli
