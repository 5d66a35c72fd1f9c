#pragma once
// The host's image objects, shared by the image, picture, colour and layer set services.

#include <lcms2.h>

#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/image.h"
#include "services_impl.h"

namespace quorv {

/// Channel layouts of the pixel formats.
enum class PIXELLAYOUT : int { RGB, RGBA, GREY, GREYA, AGREY, BGR };
/// Channel types of the pixel formats.
enum class CHANNELTYPE : int { U8, U16, F32, F64 };

struct PixelFormatObject {
    std::string idText;
    LiteralId id;
    PIXELLAYOUT layout;
    CHANNELTYPE type;
    Int channels;
    Int bytesPerChannel;
    Bool alpha;
    Bool grey;
    /// Position of red, green, blue and alpha in a pixel (grey formats: the grey channel for
    /// all three); -1 for alpha when there is none.
    int index[4];
};

struct ImageObject {
    Int width = 0;
    Int height = 0;
    const PixelFormatObject* format = nullptr;
    Int rowBytes = 0;
    std::vector<unsigned char> pixels;
};

struct ColorProfileObject {
    LiteralId id;
    LiteralId colorSpace;
    cmsHPROFILE handle = nullptr;
    std::vector<unsigned char> icc;  // the bytes of an ICC profile; empty for the standard ones
    std::string description;
    ~ColorProfileObject() {
        if (handle) cmsCloseProfile(handle);
    }
};

struct LayerSetObject {
    LAYERSETMODE mode = LAYERSETMODE::LAYERS;
    Bool calculateAlpha = false;
    std::vector<std::string> layers;
};

struct ImageTextureObject {
    std::vector<ImageObject*> images;  // each holds a reference
    Ref<ColorProfileObject> profile;
    Float64 fps = 0.0;
    Float64 duration = 0.0;
    Int frameCount = 1;
    Int frameIndex = 0;
    std::string url;
    ~ImageTextureObject() {
        for (ImageObject* i : images) RemoveReference(i);
    }
};

}  // namespace quorv

namespace quorv::host {

/// The pixel format of a layout and a channel type.
const PixelFormatObject* GetPixelFormat(PIXELLAYOUT layout, CHANNELTYPE type);
/// A new image (one reference) of the given size and format, pixels zero; null when memory is
/// short.
ImageObject* NewImage(Int width, Int height, const PixelFormatObject* format);
/// The standard colour profile of an id, or null.
const ColorProfileObject* GetStandardProfile(std::string_view id);

void RegisterPixelFormatService(Host& host);
void RegisterImageTextureService(Host& host);
void RegisterColorProfileService(Host& host);
void RegisterLayerSetService(Host& host);

}  // namespace quorv::host
