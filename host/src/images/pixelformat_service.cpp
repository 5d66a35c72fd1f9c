// Pixel formats, images and the line handlers that convert between any two formats. A handler
// is made once for an image and a target: it fixes the channel map and picks a loop
// specialised for the two channel types, so a call does no format test.
//
// Conversions: integers map to 0..1 by dividing by their maximum (u8 through a table, exact);
// into integers values are clamped to 0..1 and rounded to nearest. Colour to grey takes the
// Rec. 709 luminance 0.2126 r + 0.7152 g + 0.0722 b; grey to colour repeats the grey. A missing
// alpha reads as 1. Layer sets: ALPHAS, LAYERALPHA and LAYERMASKS read the alpha channel (the
// luminance when there is none) as grey with alpha 1; DISABLED reads alpha as 1; LAYERS reads
// the picture, and with a calculated alpha it keeps the picture's alpha (1 without one).
#include <array>
#include <cmath>
#include <cstring>
#include <mutex>
#include <string_view>

#include "images/image_internal.h"

namespace quorv::host {

namespace {

constexpr std::array<std::string_view, 6> LAYOUT_NAMES = {"rgb",   "rgba",  "grey",
                                                          "greya", "agrey", "bgr"};
constexpr std::array<std::string_view, 4> TYPE_NAMES = {"u8", "u16", "f32", "f64"};

struct FormatTable {
    std::array<PixelFormatObject, 24> formats;
    FormatTable() {
        for (int l = 0; l < 6; ++l) {
            for (int t = 0; t < 4; ++t) {
                PixelFormatObject& f = formats[static_cast<size_t>(l * 4 + t)];
                f.idText = std::string(imageids::PIXELFORMAT_PREFIX) +
                           std::string(LAYOUT_NAMES[l]) + "." + std::string(TYPE_NAMES[t]);
                f.id = LiteralId(f.idText.c_str());
                f.layout = static_cast<PIXELLAYOUT>(l);
                f.type = static_cast<CHANNELTYPE>(t);
                f.bytesPerChannel = t == 0 ? 1 : t == 1 ? 2 : t == 2 ? 4 : 8;
                switch (f.layout) {
                    case PIXELLAYOUT::RGB:
                        f.channels = 3;
                        f.alpha = false;
                        f.grey = false;
                        f.index[0] = 0;
                        f.index[1] = 1;
                        f.index[2] = 2;
                        f.index[3] = -1;
                        break;
                    case PIXELLAYOUT::RGBA:
                        f.channels = 4;
                        f.alpha = true;
                        f.grey = false;
                        f.index[0] = 0;
                        f.index[1] = 1;
                        f.index[2] = 2;
                        f.index[3] = 3;
                        break;
                    case PIXELLAYOUT::GREY:
                        f.channels = 1;
                        f.alpha = false;
                        f.grey = true;
                        f.index[0] = f.index[1] = f.index[2] = 0;
                        f.index[3] = -1;
                        break;
                    case PIXELLAYOUT::GREYA:
                        f.channels = 2;
                        f.alpha = true;
                        f.grey = true;
                        f.index[0] = f.index[1] = f.index[2] = 0;
                        f.index[3] = 1;
                        break;
                    case PIXELLAYOUT::AGREY:
                        f.channels = 2;
                        f.alpha = true;
                        f.grey = true;
                        f.index[0] = f.index[1] = f.index[2] = 1;
                        f.index[3] = 0;
                        break;
                    case PIXELLAYOUT::BGR:
                        f.channels = 3;
                        f.alpha = false;
                        f.grey = false;
                        f.index[0] = 2;
                        f.index[1] = 1;
                        f.index[2] = 0;
                        f.index[3] = -1;
                        break;
                }
            }
        }
    }
};

const FormatTable& Formats() {
    static const FormatTable table;
    return table;
}

// ---- channel conversion -----------------------------------------------------------------------

struct ByteTable {
    Float64 v[256];
    ByteTable() {
        for (int i = 0; i < 256; ++i) v[i] = i / 255.0;
    }
};
const ByteTable g_byteToUnit;

template <typename T>
inline Float64 ToUnit(T v) {
    if constexpr (std::is_same_v<T, UInt8>)
        return g_byteToUnit.v[v];
    else if constexpr (std::is_same_v<T, UInt16>)
        return v / 65535.0;
    else
        return static_cast<Float64>(v);
}

template <typename T>
inline T FromUnit(Float64 v) {
    if constexpr (std::is_same_v<T, UInt8>) {
        if (!(v > 0.0)) return 0;
        if (v >= 1.0) return 255;
        return static_cast<UInt8>(v * 255.0 + 0.5);
    } else if constexpr (std::is_same_v<T, UInt16>) {
        if (!(v > 0.0)) return 0;
        if (v >= 1.0) return 65535;
        return static_cast<UInt16>(v * 65535.0 + 0.5);
    } else {
        return static_cast<T>(v);
    }
}

// What a target channel takes: a source channel, the constant 1, or the source's luminance.
constexpr int TAKE_ONE = -1;
constexpr int TAKE_LUMINANCE = -2;

struct ChannelMap {
    Int sourceChannels = 0;
    Int targetChannels = 0;
    int take[4] = {0, 0, 0, 0};    // per target channel
    int luminance[3] = {0, 1, 2};  // source positions of red, green, blue
    bool identical = false;        // same format, a plain copy
    Int bytesPerTargetPixel = 0;
};

template <typename S, typename D>
void ConvertRun(const ChannelMap& m, const void* source, void* destination, Int count) {
    const S* s = static_cast<const S*>(source);
    D* d = static_cast<D*>(destination);
    const Int sc = m.sourceChannels;
    const Int tc = m.targetChannels;
    for (Int i = 0; i < count; ++i, s += sc, d += tc) {
        for (Int c = 0; c < tc; ++c) {
            const int k = m.take[c];
            Float64 v;
            if (k >= 0) {
                if constexpr (std::is_same_v<S, D>) {
                    d[c] = s[k];
                    continue;
                }
                v = ToUnit(s[k]);
            } else if (k == TAKE_ONE) {
                v = 1.0;
            } else {
                v = 0.2126 * ToUnit(s[m.luminance[0]]) + 0.7152 * ToUnit(s[m.luminance[1]]) +
                    0.0722 * ToUnit(s[m.luminance[2]]);
            }
            d[c] = FromUnit<D>(v);
        }
    }
}

using RunFunction = void (*)(const ChannelMap& m, const void* source, void* destination, Int count);

template <typename S>
RunFunction PickTarget(CHANNELTYPE t) {
    switch (t) {
        case CHANNELTYPE::U8:
            return &ConvertRun<S, UInt8>;
        case CHANNELTYPE::U16:
            return &ConvertRun<S, UInt16>;
        case CHANNELTYPE::F32:
            return &ConvertRun<S, Float32>;
        case CHANNELTYPE::F64:
            return &ConvertRun<S, Float64>;
    }
    return nullptr;
}

RunFunction PickRun(CHANNELTYPE s, CHANNELTYPE t) {
    switch (s) {
        case CHANNELTYPE::U8:
            return PickTarget<UInt8>(t);
        case CHANNELTYPE::U16:
            return PickTarget<UInt16>(t);
        case CHANNELTYPE::F32:
            return PickTarget<Float32>(t);
        case CHANNELTYPE::F64:
            return PickTarget<Float64>(t);
    }
    return nullptr;
}

ChannelMap MakeMap(const PixelFormatObject* source, const PixelFormatObject* target,
                   const LayerSetObject* layerSet) {
    ChannelMap m;
    m.sourceChannels = source->channels;
    m.targetChannels = target->channels;
    m.bytesPerTargetPixel = target->channels * target->bytesPerChannel;
    for (int c = 0; c < 3; ++c) m.luminance[c] = source->index[c];
    // Per logical channel r, g, b, a of the target: what it takes from the source.
    int logical[4];
    const bool colourToGrey = target->grey && !source->grey;
    for (int c = 0; c < 3; ++c) logical[c] = colourToGrey ? TAKE_LUMINANCE : source->index[c];
    logical[3] = source->alpha ? source->index[3] : TAKE_ONE;
    const LAYERSETMODE mode = layerSet ? layerSet->mode : LAYERSETMODE::LAYERS;
    if (mode == LAYERSETMODE::ALPHAS || mode == LAYERSETMODE::LAYERALPHA ||
        mode == LAYERSETMODE::LAYERMASKS) {
        const int g =
            source->alpha ? source->index[3] : (source->grey ? source->index[0] : TAKE_LUMINANCE);
        logical[0] = logical[1] = logical[2] = g;
        logical[3] = TAKE_ONE;
    } else if (mode == LAYERSETMODE::DISABLED) {
        logical[3] = TAKE_ONE;
    }
    for (int c = 0; c < 4; ++c) {
        if (target->index[c] >= 0) m.take[target->index[c]] = logical[c];
    }
    m.identical = source == target && (!layerSet || mode == LAYERSETMODE::LAYERS);
    return m;
}

// ---- handlers ----------------------------------------------------------------------------------

struct ReadHandler {
    PixelReadHandler face;  // first: the caller sees this
    ImageObject* image;     // holds a reference
    ChannelMap map;
    RunFunction run;
    Int sourcePixelBytes;
    ~ReadHandler() { RemoveReference(image); }
};

struct WriteHandler {
    PixelWriteHandler face;
    ImageObject* image;
    ChannelMap map;
    RunFunction run;
    Int targetPixelBytes;
    ~WriteHandler() { RemoveReference(image); }
};

// The common case of the samplers: an rgb or rgba picture read into rgb.f64 or rgba.f64 with
// nothing remapped, unrolled by channel counts.
template <typename S, int SC, int TC>
void ReadDirectToF64(const PixelReadHandler* h, Int x, Int y, Int count, void* destination) {
    const auto* self = reinterpret_cast<const ReadHandler*>(h);
    const S* s =
        reinterpret_cast<const S*>(self->image->pixels.data() + y * self->image->rowBytes) + x * SC;
    Float64* d = static_cast<Float64*>(destination);
    for (Int i = 0; i < count; ++i, s += SC, d += TC) {
        d[0] = ToUnit(s[0]);
        d[1] = ToUnit(s[1]);
        d[2] = ToUnit(s[2]);
        if constexpr (TC == 4) d[3] = SC == 4 ? ToUnit(s[SC == 4 ? 3 : 0]) : 1.0;
    }
}

template <typename S>
PixelReadHandler::Function PickDirect(Int sc, Int tc) {
    if (sc == 3) return tc == 3 ? &ReadDirectToF64<S, 3, 3> : &ReadDirectToF64<S, 3, 4>;
    return tc == 3 ? &ReadDirectToF64<S, 4, 3> : &ReadDirectToF64<S, 4, 4>;
}

void ReadLine(const PixelReadHandler* h, Int x, Int y, Int count, void* destination) {
    const auto* self = reinterpret_cast<const ReadHandler*>(h);
    const unsigned char* row =
        self->image->pixels.data() + y * self->image->rowBytes + x * self->sourcePixelBytes;
    if (self->map.identical) {
        std::memcpy(destination, row, static_cast<size_t>(count * self->sourcePixelBytes));
        return;
    }
    self->run(self->map, row, destination, count);
}

void WriteLine(const PixelWriteHandler* h, Int x, Int y, Int count, const void* source) {
    const auto* self = reinterpret_cast<const WriteHandler*>(h);
    unsigned char* row =
        self->image->pixels.data() + y * self->image->rowBytes + x * self->targetPixelBytes;
    if (self->map.identical) {
        std::memcpy(row, source, static_cast<size_t>(count * self->targetPixelBytes));
        return;
    }
    self->run(self->map, source, row, count);
}

// ---- slots -------------------------------------------------------------------------------------

const PixelFormatObject* Find(const char* id) {
    if (!id) return nullptr;
    std::string_view v(id);
    if (v.substr(0, std::strlen(imageids::PIXELFORMAT_PREFIX)) != imageids::PIXELFORMAT_PREFIX)
        return nullptr;
    for (const PixelFormatObject& f : Formats().formats) {
        if (f.idText == v) return &f;
    }
    return nullptr;
}

LiteralId GetId(const PixelFormatObject* f) { return f ? f->id : LiteralId(); }
Int GetBits(const PixelFormatObject* f) { return f ? f->channels * f->bytesPerChannel * 8 : 0; }
Int GetChannelCount(const PixelFormatObject* f) { return f ? f->channels : 0; }
Int GetBytesPerPixel(const PixelFormatObject* f) {
    return f ? f->channels * f->bytesPerChannel : 0;
}
Bool HasAlpha(const PixelFormatObject* f) { return f && f->alpha; }
Bool IsFloat(const PixelFormatObject* f) {
    return f && (f->type == CHANNELTYPE::F32 || f->type == CHANNELTYPE::F64);
}
LiteralId GetColorSpace(const PixelFormatObject* f) {
    if (!f) return LiteralId();
    return LiteralId(f->grey ? imageids::COLORSPACE_GREY : imageids::COLORSPACE_RGB);
}
Bool IsEqualFormat(const PixelFormatObject* a, const PixelFormatObject* b) {
    return a && b && a->id == b->id;
}

Result<ImageObject*> CreateImage(const char* imageClass, const char*, Int width, Int height,
                                 const PixelFormatObject* format) {
    if (!imageClass || std::string_view(imageClass) != imageids::IMAGECLASS_IMAGE) {
        return MakeError(
            ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
            FormatMessage("Unknown image class @", {imageClass ? imageClass : "(null)"}));
    }
    if (!format || width < 0 || height < 0 || width > (Int(1) << 20) || height > (Int(1) << 20)) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Bad image size @ x @ or format",
                                       {std::to_string(width), std::to_string(height)}));
    }
    ImageObject* image = NewImage(width, height, format);
    if (!image) return OutOfMemoryError();
    return image;
}

void FreeImage(ImageObject* image) { RemoveReference(image); }
Int GetWidth(const ImageObject* image) { return image ? image->width : 0; }
Int GetHeight(const ImageObject* image) { return image ? image->height : 0; }
const PixelFormatObject* GetImageFormat(const ImageObject* image) {
    return image ? image->format : nullptr;
}

Error BadHandler(const char* what) {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     FormatMessage("Cannot make a @ handler without image and format", {what}));
}

Result<PixelReadHandler*> GetPixelHandler(const ImageObject* image, const PixelFormatObject* target,
                                          const LayerSetObject* layerSet) {
    if (!image || !target) return BadHandler("get-pixel");
    auto* h =
        NewCountedObject<ReadHandler>(&DeleteCountedObject<ReadHandler>, QUORV_SOURCE_LOCATION);
    if (!h) return OutOfMemoryError();
    AddReference(h);
    h->face.read = &ReadLine;
    const PixelFormatObject* source = image->format;
    const bool plainSource =
        source->layout == PIXELLAYOUT::RGB || source->layout == PIXELLAYOUT::RGBA;
    const bool plainTarget =
        target->type == CHANNELTYPE::F64 &&
        (target->layout == PIXELLAYOUT::RGB || target->layout == PIXELLAYOUT::RGBA);
    if (plainSource && plainTarget && (!layerSet || layerSet->mode == LAYERSETMODE::LAYERS)) {
        switch (source->type) {
            case CHANNELTYPE::U8:
                h->face.read = PickDirect<UInt8>(source->channels, target->channels);
                break;
            case CHANNELTYPE::U16:
                h->face.read = PickDirect<UInt16>(source->channels, target->channels);
                break;
            case CHANNELTYPE::F32:
                h->face.read = PickDirect<Float32>(source->channels, target->channels);
                break;
            case CHANNELTYPE::F64:
                h->face.read = PickDirect<Float64>(source->channels, target->channels);
                break;
        }
    }
    h->image = const_cast<ImageObject*>(image);
    AddReference(image);
    h->map = MakeMap(image->format, target, layerSet);
    h->run = PickRun(image->format->type, target->type);
    h->sourcePixelBytes = image->format->channels * image->format->bytesPerChannel;
    return &h->face;
}

Result<PixelWriteHandler*> SetPixelHandler(ImageObject* image, const PixelFormatObject* source) {
    if (!image || !source) return BadHandler("set-pixel");
    auto* h =
        NewCountedObject<WriteHandler>(&DeleteCountedObject<WriteHandler>, QUORV_SOURCE_LOCATION);
    if (!h) return OutOfMemoryError();
    AddReference(h);
    h->face.write = &WriteLine;
    h->image = image;
    AddReference(image);
    h->map = MakeMap(source, image->format, nullptr);
    h->run = PickRun(source->type, image->format->type);
    h->targetPixelBytes = image->format->channels * image->format->bytesPerChannel;
    return &h->face;
}

const PixelFormatInterface::Slots g_formatSlots{
    .Find = &Find,
    .GetId = &GetId,
    .GetBits = &GetBits,
    .GetChannelCount = &GetChannelCount,
    .GetBytesPerPixel = &GetBytesPerPixel,
    .HasAlpha = &HasAlpha,
    .IsFloat = &IsFloat,
    .GetColorSpace = &GetColorSpace,
    .IsEqual = &IsEqualFormat,
};

const ImageInterface::Slots g_imageSlots{
    .Create = &CreateImage,
    .Free = &FreeImage,
    .GetWidth = &GetWidth,
    .GetHeight = &GetHeight,
    .GetPixelFormat = &GetImageFormat,
    .GetPixelHandler = &GetPixelHandler,
    .SetPixelHandler = &SetPixelHandler,
};

}  // namespace

const PixelFormatObject* GetPixelFormat(PIXELLAYOUT layout, CHANNELTYPE type) {
    return &Formats().formats[static_cast<size_t>(static_cast<int>(layout) * 4 +
                                                  static_cast<int>(type))];
}

ImageObject* NewImage(Int width, Int height, const PixelFormatObject* format) {
    auto* image =
        NewCountedObject<ImageObject>(&DeleteCountedObject<ImageObject>, QUORV_SOURCE_LOCATION);
    if (!image) return nullptr;
    AddReference(image);
    image->width = width;
    image->height = height;
    image->format = format;
    image->rowBytes = width * format->channels * format->bytesPerChannel;
    try {
        image->pixels.assign(static_cast<size_t>(image->rowBytes * height), 0);
    } catch (...) {
        RemoveReference(image);
        return nullptr;
    }
    return image;
}

void RegisterPixelFormatService(Host& host) {
    host.RegisterService<PixelFormatInterface>(g_formatSlots);
    host.RegisterService<ImageInterface>(g_imageSlots);
}

}  // namespace quorv::host
