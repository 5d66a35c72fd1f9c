// Pictures loaded through OpenImageIO. A file with several subimages is a sequence of frames:
// `Load` keeps the one at the requested time. The frame rate is the file's "FramesPerSecond"
// (0 when absent); frames are spaced by it, or by 30 per second when the file names none, and
// the duration is frames / rate (0 for a still picture). Channel types map to u8, u16, f64, and
// f32 for everything else (half, 32-bit integers); 1 to 4 channels to grey, greya, rgb, rgba
// (channels beyond the fourth are not read). A layer set in mode LAYERS that names a layer picks
// the subimage of that name instead of a frame. The colour profile is the embedded ICC profile;
// without one, the file's colour space "sRGB" gives the sRGB profile and "Linear" (or float
// data) the linear profile of the colour space; anything else leaves the picture without a
// profile. Before all that, the media session asks the formats that modules registered (an IES
// web opens as its preview picture). The pixel storage class asked for is accepted and does not change the storage.
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "images/image_internal.h"
#include "quorv/host/media.h"
#include "quorv/url.h"

namespace quorv::host {

namespace {

Error IoError(const std::string& path, const std::string& why) {
    return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                           FormatMessage("Cannot read picture @: @", {path, why}), path);
}

// The header (size, channels, metadata) of the current frame: the image library's only accessor.
const OIIO::ImageSpec& HeaderOf(const OIIO::ImageInput& in) { return in.spec(); }

Float64 FramesPerSecond(const OIIO::ImageSpec& header) {
    const OIIO::ParamValue* p = header.find_attribute("FramesPerSecond");
    if (!p) return 0.0;
    if (p->type() == OIIO::TypeRational) {
        const int* v = static_cast<const int*>(p->data());
        return v[1] != 0 ? static_cast<Float64>(v[0]) / v[1] : 0.0;
    }
    return p->get_float(0.0f);
}

Result<ImageTextureObject*> Load(const UrlObject* urlObject, Float64 time, const char*,
                                 const LayerSetObject* layerSet) {
    if (!urlObject) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Url missing");
    Url url(urlObject);
    const std::string path = url.GetPath();
    const std::string text = url.ToText();
    return GuardAllocation([&]() -> Result<ImageTextureObject*> {
        if (url.GetScheme() != LiteralId("file")) {
            return IoError(text, "only file urls can be read");
        }
        // The formats that modules register are asked first, the image library last: a file a
        // format takes is that format's, and its reader's error is the answer. A file no format
        // takes, or one the session cannot even open, goes on to the image library.
        bool detected = false;
        Result<ImageTextureObject*> imported = ImportMedia(url, {}, &detected);
        if (detected) {
            if (imported.IsOk()) imported.GetValue()->url = text;
            return imported;
        }
        // Pixels as the file stores them: straight alpha stays straight (a texture's alpha
        // processing is the sampler's business).
        OIIO::ImageSpec config;
        config.attribute("oiio:UnassociatedAlpha", 1);
        auto in = OIIO::ImageInput::open(path, &config);
        if (!in) return IoError(text, OIIO::geterror());
        Int frames = 0;
        Int named = -1;
        const std::string* wanted =
            layerSet && layerSet->mode == LAYERSETMODE::LAYERS && !layerSet->layers.empty()
                ? &layerSet->layers.front()
                : nullptr;
        while (in->seek_subimage(static_cast<int>(frames), 0)) {
            if (wanted && HeaderOf(*in).get_string_attribute("oiio:subimagename") == *wanted)
                named = frames;
            ++frames;
            if (frames > 100000) break;
        }
        if (frames == 0) return IoError(text, in->geterror());
        in->seek_subimage(0, 0);
        const Float64 fps = FramesPerSecond(HeaderOf(*in));
        const Float64 rate = fps > 0.0 ? fps : 30.0;
        Int frame = 0;
        if (named >= 0) {
            frame = named;
        } else if (frames > 1 && time > 0.0) {
            // A small tolerance keeps a time computed as frame / rate on its frame.
            frame = static_cast<Int>(std::floor(time * rate + 1e-9));
            frame = std::clamp<Int>(frame, 0, frames - 1);
        }
        if (!in->seek_subimage(static_cast<int>(frame), 0)) return IoError(text, in->geterror());
        const OIIO::ImageSpec header = HeaderOf(*in);
        if (header.width < 1 || header.height < 1 || header.nchannels < 1 || header.depth > 1) {
            return IoError(text, "no two-dimensional pixels");
        }
        const int channels = std::min(header.nchannels, 4);
        PIXELLAYOUT layout = channels == 1   ? PIXELLAYOUT::GREY
                             : channels == 2 ? PIXELLAYOUT::GREYA
                             : channels == 3 ? PIXELLAYOUT::RGB
                                             : PIXELLAYOUT::RGBA;
        CHANNELTYPE type;
        OIIO::TypeDesc readType;
        switch (header.format.basetype) {
            case OIIO::TypeDesc::UINT8:
                type = CHANNELTYPE::U8;
                readType = OIIO::TypeDesc::UINT8;
                break;
            case OIIO::TypeDesc::UINT16:
                type = CHANNELTYPE::U16;
                readType = OIIO::TypeDesc::UINT16;
                break;
            case OIIO::TypeDesc::DOUBLE:
                type = CHANNELTYPE::F64;
                readType = OIIO::TypeDesc::DOUBLE;
                break;
            default:
                type = CHANNELTYPE::F32;
                readType = OIIO::TypeDesc::FLOAT;
                break;
        }
        const PixelFormatObject* format = GetPixelFormat(layout, type);
        ImageObject* image = NewImage(header.width, header.height, format);
        if (!image) return OutOfMemoryError();
        Ref<ImageObject> imageRef = Ref<ImageObject>::Adopt(image);
        if (!in->read_image(static_cast<int>(frame), 0, 0, channels, readType,
                            image->pixels.data())) {
            return IoError(text, in->geterror());
        }
        auto* texture = NewCountedObject<ImageTextureObject>(
            &DeleteCountedObject<ImageTextureObject>, QUORV_SOURCE_LOCATION);
        if (!texture) return OutOfMemoryError();
        AddReference(texture);
        Ref<ImageTextureObject> textureRef = Ref<ImageTextureObject>::Adopt(texture);
        texture->images.push_back(imageRef.Disconnect());
        texture->fps = fps;
        texture->frameCount = frames;
        texture->frameIndex = frame;
        texture->duration = frames > 1 ? static_cast<Float64>(frames) / rate : 0.0;
        texture->url = text;

        const bool grey = format->grey;
        if (const OIIO::ParamValue* icc = header.find_attribute("ICCProfile")) {
            Result<ColorProfileObject*> p = ColorProfileInterface::FromIcc(
                icc->data(),
                static_cast<Int>(icc->type().size() * static_cast<size_t>(icc->nvalues())));
            // An unreadable embedded profile leaves the picture without one.
            if (p.IsOk()) texture->profile = Ref<ColorProfileObject>::Adopt(p.GetValue());
        }
        if (!texture->profile) {
            std::string space = header.get_string_attribute("oiio:ColorSpace");
            std::transform(space.begin(), space.end(), space.begin(),
                           [](unsigned char c) { return std::tolower(c); });
            const char* id = nullptr;
            if (space == "srgb")
                id = imageids::PROFILE_SRGB;
            else if (space == "linear" || type == CHANNELTYPE::F32 || type == CHANNELTYPE::F64)
                id = grey ? imageids::PROFILE_LINEAR_GREY : imageids::PROFILE_LINEAR_RGB;
            if (id)
                texture->profile = Ref<ColorProfileObject>(
                    const_cast<ColorProfileObject*>(GetStandardProfile(id)));
        }
        return textureRef.Disconnect();
    });
}

ImageTextureObject* AllocTexture(const SourceLocation& loc) {
    auto* texture =
        NewCountedObject<ImageTextureObject>(&DeleteCountedObject<ImageTextureObject>, loc);
    if (texture) AddReference(texture);
    return texture;
}

void FreeTexture(ImageTextureObject* texture) { RemoveReference(texture); }

ImageObject* GetFirstImage(const ImageTextureObject* texture) {
    return texture && !texture->images.empty() ? texture->images.front() : nullptr;
}

Result<void> AddImage(ImageTextureObject* texture, ImageObject* image) {
    if (!texture || !image)
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Picture or image missing");
    return GuardAllocation([&]() -> Result<void> {
        texture->images.push_back(image);
        AddReference(image);
        return OK;
    });
}

Float64 GetFloatProperty(const ImageTextureObject* texture, const char* id, Float64 fallback) {
    if (!texture || !id) return fallback;
    std::string_view v(id);
    if (v == imageids::PROPERTY_FPS) return texture->fps;
    if (v == imageids::PROPERTY_DURATION) return texture->duration;
    return fallback;
}

const ColorProfileObject* GetColorProfile(const ImageTextureObject* texture) {
    return texture ? texture->profile.Get() : nullptr;
}

void SetColorProfile(ImageTextureObject* texture, const ColorProfileObject* profile) {
    if (texture)
        texture->profile = Ref<ColorProfileObject>(const_cast<ColorProfileObject*>(profile));
}

Int GetFrameCount(const ImageTextureObject* texture) { return texture ? texture->frameCount : 0; }
Int GetFrameIndex(const ImageTextureObject* texture) { return texture ? texture->frameIndex : 0; }

const ImageTextureInterface::Slots g_slots{
    .Load = &Load,
    .Alloc = &AllocTexture,
    .Free = &FreeTexture,
    .GetFirstImage = &GetFirstImage,
    .AddImage = &AddImage,
    .GetFloatProperty = &GetFloatProperty,
    .GetColorProfile = &GetColorProfile,
    .SetColorProfile = &SetColorProfile,
    .GetFrameCount = &GetFrameCount,
    .GetFrameIndex = &GetFrameIndex,
};

}  // namespace

void RegisterImageTextureService(Host& host) {
    host.RegisterService<ImageTextureInterface>(g_slots);
}

}  // namespace quorv::host
