#pragma once
/// The host's image services: pictures loaded by url (`ImageTexture`, a sequence of frames
/// with properties), single images with a pixel format, line handlers that read or write
/// pixels in any of the pixel formats, colour profiles with conversion of pixel runs, and
/// layer sets that select what of a picture is read.
///
/// All objects are counted (header of quorv/ref.h): hold them in `Ref<...>` and let the last
/// reference free them. Pixel formats and the standard colour profiles live as long as the
/// process. Every function is safe on any thread; a handler belongs to one thread at a time.

#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

struct ImageTextureObject;
struct ImageObject;
struct PixelFormatObject;
struct ColorProfileObject;
struct ColorProfileConvertObject;
struct LayerSetObject;

/// What a layer set selects of a picture.
enum class LAYERSETMODE : Int32 {
    LAYERS = 0,      ///< the named layers, composited; alpha may be calculated
    LAYERMASKS = 1,  ///< the masks of the layers, as grey
    ALPHAS = 2,      ///< the alpha channel, as grey
    LAYERALPHA = 3,  ///< the alpha of the layers, as grey
    DISABLED = 4,    ///< the picture as it is, without alpha
};

/// Reads `count` pixels of row `y` from column `x` on, converted into the handler's target
/// format, into `destination`. Positions must lie inside the image. Made once per image and
/// target; a call is one indirect call and a loop without format tests.
struct PixelReadHandler {
    using Function = void (*)(const PixelReadHandler* handler, Int x, Int y, Int count,
                              void* destination);
    Function read;
};

/// Writes `count` pixels given in the handler's source format into row `y` from column `x` on.
struct PixelWriteHandler {
    void (*write)(const PixelWriteHandler* handler, Int x, Int y, Int count, const void* source);
};

/// Ids of the image family.
namespace imageids {
inline constexpr const char* COLORSPACE_RGB = "net.quorv.image.colorspace.rgb";
inline constexpr const char* COLORSPACE_GREY = "net.quorv.image.colorspace.grey";
inline constexpr const char* PROFILE_SRGB = "net.quorv.image.colorprofile.srgb";
inline constexpr const char* PROFILE_LINEAR_RGB = "net.quorv.image.colorprofile.linear_rgb";
inline constexpr const char* PROFILE_LINEAR_GREY = "net.quorv.image.colorprofile.linear_grey";
/// Id of a profile read from ICC data (embedded in a file).
inline constexpr const char* PROFILE_ICC = "net.quorv.image.colorprofile.icc";
inline constexpr const char* PROPERTY_FPS = "net.quorv.image.fps";
inline constexpr const char* PROPERTY_DURATION = "net.quorv.image.duration";
inline constexpr const char* PROPERTY_COLORPROFILE = "net.quorv.image.colorprofile";
inline constexpr const char* STORAGE_VOXEL = "net.quorv.image.imagepixelstorageclass.voxel";
inline constexpr const char* STORAGE_NORMAL = "net.quorv.image.imagepixelstorageclass.normal";
inline constexpr const char* IMAGECLASS_IMAGE = "net.quorv.image.imageclass.image";
/// Pixel format ids are "net.quorv.image.pixelformat." + layout + "." + type, layouts rgb, rgba,
/// grey, greya, agrey, bgr; types u8, u16, f32, f64.
inline constexpr const char* PIXELFORMAT_PREFIX = "net.quorv.image.pixelformat.";
}  // namespace imageids

// clang-format off
#define QUORV_PIXELFORMAT_METHODS(M) \
    M(const PixelFormatObject*, Find, (const char* id), (id)) \
    M(LiteralId, GetId, (const PixelFormatObject* format), (format)) \
    M(Int, GetBits, (const PixelFormatObject* format), (format)) \
    M(Int, GetChannelCount, (const PixelFormatObject* format), (format)) \
    M(Int, GetBytesPerPixel, (const PixelFormatObject* format), (format)) \
    M(Bool, HasAlpha, (const PixelFormatObject* format), (format)) \
    M(Bool, IsFloat, (const PixelFormatObject* format), (format)) \
    M(LiteralId, GetColorSpace, (const PixelFormatObject* format), (format)) \
    M(Bool, IsEqual, (const PixelFormatObject* a, const PixelFormatObject* b), (a, b))
#define QUORV_IMAGE_METHODS(M) \
    M(Result<ImageObject*>, Create, (const char* imageClass, const char* storageClass, Int width, Int height, const PixelFormatObject* format), (imageClass, storageClass, width, height, format)) \
    M(void, Free, (ImageObject* image), (image)) \
    M(Int, GetWidth, (const ImageObject* image), (image)) \
    M(Int, GetHeight, (const ImageObject* image), (image)) \
    M(const PixelFormatObject*, GetPixelFormat, (const ImageObject* image), (image)) \
    M(Result<PixelReadHandler*>, GetPixelHandler, (const ImageObject* image, const PixelFormatObject* target, const LayerSetObject* layerSet), (image, target, layerSet)) \
    M(Result<PixelWriteHandler*>, SetPixelHandler, (ImageObject* image, const PixelFormatObject* source), (image, source))
#define QUORV_IMAGETEXTURE_METHODS(M) \
    M(Result<ImageTextureObject*>, Load, (const UrlObject* url, Float64 time, const char* storageClass, const LayerSetObject* layerSet), (url, time, storageClass, layerSet)) \
    M(ImageTextureObject*, Alloc, (const SourceLocation& loc), (loc)) \
    M(void, Free, (ImageTextureObject* texture), (texture)) \
    M(ImageObject*, GetFirstImage, (const ImageTextureObject* texture), (texture)) \
    M(Result<void>, AddImage, (ImageTextureObject* texture, ImageObject* image), (texture, image)) \
    M(Float64, GetFloatProperty, (const ImageTextureObject* texture, const char* id, Float64 fallback), (texture, id, fallback)) \
    M(const ColorProfileObject*, GetColorProfile, (const ImageTextureObject* texture), (texture)) \
    M(void, SetColorProfile, (ImageTextureObject* texture, const ColorProfileObject* profile), (texture, profile)) \
    M(Int, GetFrameCount, (const ImageTextureObject* texture), (texture)) \
    M(Int, GetFrameIndex, (const ImageTextureObject* texture), (texture))
#define QUORV_COLORPROFILE_METHODS(M) \
    M(const ColorProfileObject*, GetStandard, (const char* id), (id)) \
    M(const ColorProfileObject*, GetDefaultLinear, (const char* colorSpace), (colorSpace)) \
    M(Result<ColorProfileObject*>, FromIcc, (const void* data, Int size), (data, size)) \
    M(void, Free, (const ColorProfileObject* profile), (profile)) \
    M(Bool, IsEqual, (const ColorProfileObject* a, const ColorProfileObject* b), (a, b)) \
    M(LiteralId, GetId, (const ColorProfileObject* profile), (profile)) \
    M(LiteralId, GetColorSpace, (const ColorProfileObject* profile), (profile)) \
    M(Int, GetDescription, (const ColorProfileObject* profile, char* buffer, Int capacity), (profile, buffer, capacity))
#define QUORV_COLORPROFILECONVERT_METHODS(M) \
    M(Result<ColorProfileConvertObject*>, Alloc, (const ColorProfileObject* from, const PixelFormatObject* fromFormat, const ColorProfileObject* to, const PixelFormatObject* toFormat), (from, fromFormat, to, toFormat)) \
    M(void, Free, (ColorProfileConvertObject* convert), (convert)) \
    M(void, Convert, (const ColorProfileConvertObject* convert, const void* source, void* destination, Int count), (convert, source, destination, count))
#define QUORV_LAYERSET_METHODS(M) \
    M(LayerSetObject*, Alloc, (const SourceLocation& loc), (loc)) \
    M(void, Free, (LayerSetObject* layerSet), (layerSet)) \
    M(LAYERSETMODE, GetMode, (const LayerSetObject* layerSet), (layerSet)) \
    M(void, SetMode, (LayerSetObject* layerSet, LAYERSETMODE mode), (layerSet, mode)) \
    M(Bool, GetCalculateAlpha, (const LayerSetObject* layerSet), (layerSet)) \
    M(void, SetCalculateAlpha, (LayerSetObject* layerSet, Bool calculate), (layerSet, calculate)) \
    M(Result<void>, AddLayer, (LayerSetObject* layerSet, const char* name, Int length), (layerSet, name, length)) \
    M(Int, GetLayerCount, (const LayerSetObject* layerSet), (layerSet)) \
    M(Bool, IsEqual, (const LayerSetObject* a, const LayerSetObject* b), (a, b)) \
    M(UInt, GetHashCode, (const LayerSetObject* layerSet), (layerSet))
// clang-format on

/// Pixel formats by id (`Find` answers null for an unknown id). Bits are those of a whole
/// pixel; `IsEqual` compares ids.
QUORV_NONVIRTUAL_INTERFACE(PixelFormatInterface, "net.quorv.image.interface.pixelformat",
                           QUORV_PIXELFORMAT_METHODS);
/// Images. `Create` gives an image of zero pixels with one reference; `GetPixelHandler` reads
/// into `target` (with a layer set, what the layer set selects), `SetPixelHandler` writes from
/// `source`; both give the handler with one reference, or an error naming the formats.
QUORV_NONVIRTUAL_INTERFACE(ImageInterface, "net.quorv.image.interface.image", QUORV_IMAGE_METHODS);
/// Pictures. `Load` opens a file url (PNG, JPEG, TIFF, EXR, HDR and what else the image library
/// reads) and takes the frame at `time` (seconds, at the picture's frame rate) of a picture
/// with several; an unreadable file gives "net.quorv.error.io" naming it. `GetFirstImage`
/// answers a pointer the picture keeps alive. Properties: "net.quorv.image.fps" (0 when the
/// file has none), "net.quorv.image.duration" (seconds; 0 for a still picture).
QUORV_NONVIRTUAL_INTERFACE(ImageTextureInterface, "net.quorv.image.interface.imagetexture",
                           QUORV_IMAGETEXTURE_METHODS);
/// Colour profiles: the standard ones by id (sRGB, linear RGB, linear grey; they live to the end
/// of the process), ICC data, equality (same standard profile, or the same ICC bytes).
QUORV_NONVIRTUAL_INTERFACE(ColorProfileInterface, "net.quorv.image.interface.colorprofile",
                           QUORV_COLORPROFILE_METHODS);
/// Conversion of pixel runs between two profiles, in rgb.f64 or grey.f64 on each side.
QUORV_NONVIRTUAL_INTERFACE(ColorProfileConvertInterface,
                           "net.quorv.image.interface.colorprofileconvert",
                           QUORV_COLORPROFILECONVERT_METHODS);
/// Layer sets. Equal sets have the same mode, the same calculated-alpha flag and the same layer
/// names in order; the hash follows that equality.
QUORV_NONVIRTUAL_INTERFACE(LayerSetInterface, "net.quorv.graph.interface.layerset",
                           QUORV_LAYERSET_METHODS);

/// The pixel format of id `PIXELFORMAT_PREFIX` + `name` ("rgba.u8"); null when unknown.
inline const PixelFormatObject* FindPixelFormat(const char* name) {
    std::string id(imageids::PIXELFORMAT_PREFIX);
    id += name;
    return PixelFormatInterface::Find(id.c_str());
}

}  // namespace quorv
