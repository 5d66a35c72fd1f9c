// Textures: the object and its registration, `Init` with its format and colour decisions, and
// the lazy builds of the MIP chain, the RIP table and the summed area table.
#include "render/textures/texture_impl.h"

#include <algorithm>
#include <new>
#include <string>

#include "quorv/entity.h"
#include "quorv/parallel.h"

namespace quorv {

TexturePyramid::~TexturePyramid() {
    auto destroy = [](TextureLevel* levels, Int count) {
        if (!levels) return;
        for (Int i = 0; i < count; ++i) levels[i].~TextureLevel();
        SystemInterface::Free(levels);
    };
    destroy(ripLevels, levelsX * levelsY);
    destroy(mipLevels, mipCount);
}

TextureImpl::~TextureImpl() {
    if (pyramid) {
        pyramid->~TexturePyramid();
        SystemInterface::Free(pyramid);
    }
    if (summedAreaTable) {
        summedAreaTable->~TextureSummedAreaTable();
        SystemInterface::Free(summedAreaTable);
    }
}

namespace texture {

namespace {

// ---- object -----------------------------------------------------------------------------------

void DestroyTexture(void* object) {
    ObjectHeader* header = HeaderOf(object);
    static_cast<TextureImpl*>(object)->~TextureImpl();
    header->~ObjectHeader();
    SystemInterface::Free(header);
}

template <typename T>
T* NewPlain(Int count = 1) {
    void* block =
        SystemInterface::Alloc(static_cast<Int>(sizeof(T)) * count, QUORV_SOURCE_LOCATION);
    if (!block) return nullptr;
    T* p = static_cast<T*>(block);
    for (Int i = 0; i < count; ++i) new (p + i) T();
    return p;
}

void FreePyramid(TexturePyramid*& p) {
    if (!p) return;
    p->~TexturePyramid();
    SystemInterface::Free(p);
    p = nullptr;
}

void FreeSummedAreaTable(TextureSummedAreaTable*& t) {
    if (!t) return;
    t->~TextureSummedAreaTable();
    SystemInterface::Free(t);
    t = nullptr;
}

const PixelFormatObject* Format(const char* name) { return FindPixelFormat(name); }

Error WrapInitError(const Error& inner) {
    const ErrorObject* e = inner.Get();
    std::string text =
        e && e->message ? std::string(e->message) : std::string(e ? e->id.View() : "");
    std::string id =
        e ? std::string(e->id.View()) : std::string(ErrorKindId(ERRORKIND::ILLEGALSTATE));
    if (e && e->kind != ERRORKIND::OTHER) {
        return MakeError(e->kind, QUORV_SOURCE_LOCATION,
                         FormatMessage("TextureImpl::Init Error: @", {text}));
    }
    return MakeErrorWithId(e ? e->id.text : "net.quorv.error.unknown", QUORV_SOURCE_LOCATION,
                           FormatMessage("TextureImpl::Init Error: @", {text}),
                           e && e->subject ? std::string_view(e->subject) : std::string_view());
}

// Replaces the picture by a regular floating-point copy, line by line in this thread.
Result<void> ConvertToFloat(TextureImpl* t, const ImageObject* source,
                            const LayerSetObject* layerSet) {
    const PixelFormatObject* sourceFormat = ImageInterface::GetPixelFormat(source);
    const bool grey =
        PixelFormatInterface::GetColorSpace(sourceFormat) == LiteralId(imageids::COLORSPACE_GREY);
    const bool alpha = PixelFormatInterface::HasAlpha(sourceFormat) ||
                       (layerSet && LayerSetInterface::GetCalculateAlpha(layerSet));
    const PixelFormatObject* target =
        Format(grey ? (alpha ? "greya.f32" : "grey.f32") : (alpha ? "rgba.f32" : "rgb.f32"));
    const ColorProfileObject* profile = ColorProfileInterface::GetStandard(
        grey ? imageids::PROFILE_LINEAR_GREY : imageids::PROFILE_LINEAR_RGB);
    const Int w = ImageInterface::GetWidth(source);
    const Int h = ImageInterface::GetHeight(source);
    Result<ImageObject*> created =
        ImageInterface::Create(imageids::IMAGECLASS_IMAGE, imageids::STORAGE_NORMAL, w, h, target);
    if (created.IsError()) return created.GetError();
    Ref<ImageObject> image = Ref<ImageObject>::Adopt(created.GetValue());
    Ref<ImageTextureObject> picture =
        Ref<ImageTextureObject>::Adopt(ImageTextureInterface::Alloc(QUORV_SOURCE_LOCATION));
    if (!picture) return OutOfMemoryError();
    QUORV_RETURN_IF_ERROR(ImageTextureInterface::AddImage(picture.Get(), image.Get()));
    ImageTextureInterface::SetColorProfile(picture.Get(), profile);

    Result<PixelReadHandler*> reader = ImageInterface::GetPixelHandler(source, target, layerSet);
    if (reader.IsError()) return reader.GetError();
    Ref<PixelReadHandler> read = Ref<PixelReadHandler>::Adopt(reader.GetValue());
    Result<PixelWriteHandler*> writer = ImageInterface::SetPixelHandler(image.Get(), target);
    if (writer.IsError()) return writer.GetError();
    Ref<PixelWriteHandler> write = Ref<PixelWriteHandler>::Adopt(writer.GetValue());
    BaseArray<UInt8> line;
    QUORV_RETURN_IF_ERROR(line.Resize(w * PixelFormatInterface::GetBytesPerPixel(target)));
    for (Int y = 0; y < h; ++y) {
        if (ThreadServicesInterface::IsCurrentJobCancelled())
            return OperationCancelledError(QUORV_SOURCE_LOCATION);
        read->read(read.Get(), 0, y, w, line.GetFirst());
        write->write(write.Get(), 0, y, w, line.GetFirst());
    }
    t->image = picture;
    return OK;
}

Result<void> InitSteps(TextureImpl* t, const UrlObject* url, UInt32 flags,
                       const LayerSetObject* layerSet, Float64 time) {
    // 1. A second Init starts clean.
    FreePyramid(t->pyramid);
    FreeSummedAreaTable(t->summedAreaTable);
    t->pyramidState.store(TEXTURE_STATE_NOT_BUILT, std::memory_order_release);
    t->summedAreaState.store(TEXTURE_STATE_NOT_BUILT, std::memory_order_release);
    t->pyramidGuard.ClaimDone() ? t->pyramidGuard.Release() : (void)t->pyramidGuard.ResetFailed();
    t->summedAreaGuard.ClaimDone() ? t->summedAreaGuard.Release()
                                   : (void)t->summedAreaGuard.ResetFailed();
    t->noSummedAreaTable = false;

    // 2. Load.
    Result<ImageTextureObject*> loaded =
        ImageTextureInterface::Load(url, time, imageids::STORAGE_VOXEL, layerSet);
    if (loaded.IsError()) return loaded.GetError();
    t->image = Ref<ImageTextureObject>::Adopt(loaded.GetValue());

    // 3. Layer set, frame rate, duration.
    t->layerSet = Ref<LayerSetObject>(const_cast<LayerSetObject*>(layerSet));
    Float64 fps =
        ImageTextureInterface::GetFloatProperty(t->image.Get(), imageids::PROPERTY_FPS, 0.0);
    t->frameRate = fps == 0.0 ? 30.0 : fps;
    t->duration =
        ImageTextureInterface::GetFloatProperty(t->image.Get(), imageids::PROPERTY_DURATION, 0.0);

    // 4. The first image; without one the error is kept and the flow goes on.
    Result<void> result = OK;
    const ImageObject* first = ImageTextureInterface::GetFirstImage(t->image.Get());
    if (!first)
        result = MakeErrorWithId("net.quorv.error.unknown", QUORV_SOURCE_LOCATION,
                                 "Picture without image");

    // 5. Conversion to a regular floating-point copy.
    if ((flags & TEXTURE_FLAG_CONVERT_TO_FLOAT) != 0 && first && !IsRegularFloatingPointFormat(t)) {
        t->wasConverted = true;
        QUORV_RETURN_IF_ERROR(ConvertToFloat(t, first, layerSet));
    }

    // 6. - 8. Profile, grey, alpha.
    const ColorProfileObject* profile = ImageTextureInterface::GetColorProfile(t->image.Get());
    first = ImageTextureInterface::GetFirstImage(t->image.Get());
    const PixelFormatObject* format = ImageInterface::GetPixelFormat(first);
    const LiteralId colorSpace = PixelFormatInterface::GetColorSpace(format);
    t->isGrey = colorSpace == LiteralId(imageids::COLORSPACE_GREY);
    t->hasAlpha = PixelFormatInterface::HasAlpha(format);

    // 9. The layer set decides.
    if (layerSet) {
        const LAYERSETMODE mode = LayerSetInterface::GetMode(layerSet);
        if (mode == LAYERSETMODE::LAYERMASKS || mode == LAYERSETMODE::ALPHAS ||
            mode == LAYERSETMODE::LAYERALPHA) {
            t->isGrey = true;
            profile = ColorProfileInterface::GetStandard(imageids::PROFILE_LINEAR_GREY);
            t->hasAlpha = false;
        } else if (mode == LAYERSETMODE::LAYERS) {
            t->hasAlpha = LayerSetInterface::GetCalculateAlpha(layerSet);
        } else if (mode == LAYERSETMODE::DISABLED) {
            t->hasAlpha = false;
        }
    }

    // 10. - 12. Depth flags, size, formats.
    const Int bits = BitsPerChannel(format);
    t->is16Bit = bits == 16;
    t->isFloat = bits > 16;
    t->url = Url(url);
    t->width = ImageInterface::GetWidth(first);
    t->height = ImageInterface::GetHeight(first);
    t->inverseWidth = t->width != 0 ? 1.0 / static_cast<Float64>(t->width) : 0.0;
    t->inverseHeight = t->height != 0 ? 1.0 / static_cast<Float64>(t->height) : 0.0;
    t->readFormat = Format(t->hasAlpha ? "rgba.f64" : "rgb.f64");
    t->convertFormat = Format(t->isGrey ? "grey.f64" : "rgb.f64");
    if (t->isFloat)
        t->storageFormat = Format(t->hasAlpha ? "rgba.f32" : "rgb.f32");
    else if (t->is16Bit)
        t->storageFormat = Format(t->hasAlpha ? "rgba.u16" : "rgb.u16");
    else
        t->storageFormat = Format(t->hasAlpha ? "rgba.u8" : "rgb.u8");

    // 13. Colour decision.
    t->colorConversion = Ref<ColorProfileConvertObject>();
    const ColorProfileObject* srgb = ColorProfileInterface::GetStandard(imageids::PROFILE_SRGB);
    const ColorProfileObject* linearRgb =
        ColorProfileInterface::GetStandard(imageids::PROFILE_LINEAR_RGB);
    const ColorProfileObject* linearGrey =
        ColorProfileInterface::GetStandard(imageids::PROFILE_LINEAR_GREY);
    if (!profile || profile == srgb || ColorProfileInterface::IsEqual(profile, srgb)) {
        t->isSRGB = true;
    } else if (profile == linearRgb || profile == linearGrey ||
               ColorProfileInterface::IsEqual(profile, linearRgb) ||
               ColorProfileInterface::IsEqual(profile, linearGrey)) {
        t->isSRGB = false;
    } else {
        t->isSRGB = false;
        const ColorProfileObject* target = ColorProfileInterface::GetDefaultLinear(
            t->isGrey ? imageids::COLORSPACE_GREY : imageids::COLORSPACE_RGB);
        Result<ColorProfileConvertObject*> c = ColorProfileConvertInterface::Alloc(
            profile, t->convertFormat, target, t->convertFormat);
        if (c.IsError()) return c.GetError();
        t->colorConversion = Ref<ColorProfileConvertObject>::Adopt(c.GetValue());
    }
    (void)colorSpace;
    return result;
}

// ---- builds -----------------------------------------------------------------------------------

// One level from its source: the picture (read through a get-pixel handler in the storage
// format) when `source` has no texels, else the source's texels. A parallel loop over rows.
template <typename T>
Result<void> ReduceLevel(const TextureImpl* t, const TextureLevel& source, TextureLevel& dst,
                         bool halveX, bool halveY, Int channels) {
    const Int texelBytes = channels * static_cast<Int>(sizeof(T));
    const Int sw = source.width;
    const Int sh = source.height;
    const Int dw = dst.width;
    QUORV_RETURN_IF_ERROR(dst.texels.Resize(dw * dst.height * texelBytes));
    const ImageObject* picture = ImageTextureInterface::GetFirstImage(t->image.Get());
    const bool fromPicture = !source.HasTexels();
    // At least 32 source rows a job.
    const Int granularity = halveY ? 16 : 32;
    return ParallelFor(0, dst.height, granularity, [&](Int from, Int to, Int) -> Result<void> {
        Ref<PixelReadHandler> handler;
        BaseArray<UInt8> rows;
        if (fromPicture) {
            Result<PixelReadHandler*> h =
                ImageInterface::GetPixelHandler(picture, t->storageFormat, nullptr);
            if (h.IsError()) return h.GetError();
            handler = Ref<PixelReadHandler>::Adopt(h.GetValue());
            QUORV_RETURN_IF_ERROR(rows.Resize(2 * sw * texelBytes));
        }
        for (Int y = from; y < to; ++y) {
            const Int sy0 = halveY ? 2 * y : y;
            const Int sy1 = halveY ? std::min(2 * y + 1, sh - 1) : sy0;
            const T* r0;
            const T* r1;
            if (fromPicture) {
                handler->read(handler.Get(), 0, sy0, sw, rows.GetFirst());
                if (sy1 != sy0)
                    handler->read(handler.Get(), 0, sy1, sw, rows.GetFirst() + sw * texelBytes);
                r0 = reinterpret_cast<const T*>(rows.GetFirst());
                r1 =
                    sy1 != sy0 ? reinterpret_cast<const T*>(rows.GetFirst() + sw * texelBytes) : r0;
            } else {
                r0 = reinterpret_cast<const T*>(source.texels.GetFirst() + sy0 * sw * texelBytes);
                r1 = reinterpret_cast<const T*>(source.texels.GetFirst() + sy1 * sw * texelBytes);
            }
            T* out = reinterpret_cast<T*>(dst.texels.GetFirst() + y * dw * texelBytes);
            for (Int x = 0; x < dw; ++x, out += channels) {
                const Int sx0 = halveX ? 2 * x : x;
                const Int sx1 = halveX ? std::min(2 * x + 1, sw - 1) : sx0;
                if (halveX && halveY) {
                    Reduce4(r0 + sx0 * channels, r0 + sx1 * channels, r1 + sx0 * channels,
                            r1 + sx1 * channels, out, channels);
                } else if (halveX) {
                    Reduce2(r0 + sx0 * channels, r0 + sx1 * channels, out, channels);
                } else {
                    Reduce2(r0 + sx0 * channels, r1 + sx0 * channels, out, channels);
                }
            }
        }
        return OK;
    });
}

Int Halvings(Int size) {
    Int n = 0;
    while (size > 1) {
        size = std::max<Int>((size + 1) / 2, 1);
        ++n;
    }
    return n;
}

Int Half(Int size) { return std::max<Int>((size + 1) / 2, 1); }

template <typename T>
Result<void> FillPyramid(const TextureImpl* t, TexturePyramid& p, Int channels) {
    // MIP chain.
    const Int mipCount = 1 + std::max(Halvings(t->width), Halvings(t->height));
    p.mipLevels = NewPlain<TextureLevel>(mipCount);
    if (!p.mipLevels) return OutOfMemoryError();
    p.mipCount = mipCount;
    p.mipLevels[0].width = t->width;
    p.mipLevels[0].height = t->height;
    for (Int k = 1; k < mipCount; ++k) {
        const TextureLevel& src = p.mipLevels[k - 1];
        TextureLevel& dst = p.mipLevels[k];
        dst.width = Half(src.width);
        dst.height = Half(src.height);
        dst.scaleX = dst.scaleY = src.scaleX * 2;
        QUORV_RETURN_IF_ERROR(ReduceLevel<T>(t, src, dst, true, true, channels));
    }
    // RIP table.
    p.levelsX = 1 + Halvings(t->width);
    p.levelsY = 1 + Halvings(t->height);
    p.ripLevels = NewPlain<TextureLevel>(p.levelsX * p.levelsY);
    if (!p.ripLevels) return OutOfMemoryError();
    for (Int j = 0; j < p.levelsY; ++j) {
        for (Int i = 0; i < p.levelsX; ++i) {
            TextureLevel& dst = p.ripLevels[j * p.levelsX + i];
            if (i == 0 && j == 0) {
                dst.width = t->width;
                dst.height = t->height;
                continue;
            }
            const bool alongX = j == 0;
            const TextureLevel& src =
                alongX ? p.ripLevels[i - 1] : p.ripLevels[(j - 1) * p.levelsX + i];
            dst.width = alongX ? Half(src.width) : src.width;
            dst.height = alongX ? src.height : Half(src.height);
            dst.scaleX = alongX ? src.scaleX * 2 : src.scaleX;
            dst.scaleY = alongX ? src.scaleY : src.scaleY * 2;
            QUORV_RETURN_IF_ERROR(ReduceLevel<T>(t, src, dst, alongX, !alongX, channels));
        }
    }
    // The entries next to the full picture served only as sources: the sampler computes them
    // from the picture.
    if (p.levelsY > 1) {
        if (p.levelsX > 1) p.ripLevels[1].texels.Reset();
        p.ripLevels[p.levelsX].texels.Reset();
        if (p.levelsX > 1) p.ripLevels[p.levelsX + 1].texels.Reset();
    }
    return OK;
}

}  // namespace

Int BitsPerChannel(const PixelFormatObject* format) {
    const Int channels = PixelFormatInterface::GetChannelCount(format);
    return channels > 0 ? PixelFormatInterface::GetBits(format) / channels : 0;
}

Result<void> BuildPyramid(TextureImpl* t) {
    if (ThreadServicesInterface::IsCurrentJobCancelled())
        return OperationCancelledError(QUORV_SOURCE_LOCATION);
    TexturePyramid* p = NewPlain<TexturePyramid>();
    if (!p) {
        t->pyramidState.store(TEXTURE_STATE_FAILED, std::memory_order_release);
        return OutOfMemoryError();
    }
    if (ThreadServicesInterface::IsCurrentJobCancelled()) {
        FreePyramid(p);
        return OperationCancelledError(QUORV_SOURCE_LOCATION);
    }
    const Int channels = t->hasAlpha ? 4 : 3;
    Result<void> r = t->isFloat   ? FillPyramid<Float32>(t, *p, channels)
                     : t->is16Bit ? FillPyramid<UInt16>(t, *p, channels)
                                  : FillPyramid<UInt8>(t, *p, channels);
    if (r.IsError()) {
        FreePyramid(p);
        const bool cancelled = IsOperationCancelled(r.GetErrorPointer());
        t->pyramidState.store(cancelled ? TEXTURE_STATE_NOT_BUILT : TEXTURE_STATE_FAILED,
                              std::memory_order_release);
        return r;
    }
    t->pyramid = p;
    t->pyramidState.store(TEXTURE_STATE_READY, std::memory_order_release);
    return OK;
}

Result<void> BuildSummedAreaTable(TextureImpl* t) {
    const ImageObject* picture = ImageTextureInterface::GetFirstImage(t->image.Get());
    const Int bits = BitsPerChannel(ImageInterface::GetPixelFormat(picture));
    // 32-bit sums of 8-bit values overflow from 2^24 texels on.
    if (bits > 8 || t->width * t->height >= (Int(1) << 24)) {
        t->noSummedAreaTable = true;
        t->summedAreaState.store(TEXTURE_STATE_READY, std::memory_order_release);
        return OK;
    }
    auto fail = [t](TextureSummedAreaTable* table, Result<void> r) {
        FreeSummedAreaTable(table);
        const bool cancelled = IsOperationCancelled(r.GetErrorPointer());
        t->summedAreaState.store(cancelled ? TEXTURE_STATE_NOT_BUILT : TEXTURE_STATE_FAILED,
                                 std::memory_order_release);
        return r;
    };
    TextureSummedAreaTable* table = NewPlain<TextureSummedAreaTable>();
    if (!table) return fail(nullptr, OutOfMemoryError());
    const Int channels = t->hasAlpha ? 4 : 3;
    const Int w = t->width;
    table->channels = channels;
    Result<void> sized = table->sums.Resize(w * t->height * channels);
    if (sized.IsError()) return fail(table, sized);
    Result<PixelReadHandler*> h = ImageInterface::GetPixelHandler(
        picture, Format(channels == 4 ? "rgba.u8" : "rgb.u8"), nullptr);
    if (h.IsError()) return fail(table, h.GetError());
    Ref<PixelReadHandler> handler = Ref<PixelReadHandler>::Adopt(h.GetValue());
    BaseArray<UInt8> row;
    Result<void> rowSized = row.Resize(w * channels);
    if (rowSized.IsError()) return fail(table, rowSized);
    for (Int y = 0; y < t->height; ++y) {
        if (ThreadServicesInterface::IsCurrentJobCancelled())
            return fail(table, OperationCancelledError(QUORV_SOURCE_LOCATION));
        handler->read(handler.Get(), 0, y, w, row.GetFirst());
        UInt32 running[4] = {0, 0, 0, 0};
        UInt32* out = table->sums.GetFirst() + y * w * channels;
        const UInt32* above = y > 0 ? out - w * channels : nullptr;
        for (Int x = 0; x < w; ++x) {
            for (Int c = 0; c < channels; ++c) {
                running[c] += row[x * channels + c];
                out[x * channels + c] = running[c] + (above ? above[x * channels + c] : 0);
            }
        }
    }
    t->summedAreaTable = table;
    t->summedAreaState.store(TEXTURE_STATE_READY, std::memory_order_release);
    return OK;
}

void EnsurePyramid(TextureImpl* t) {
    if (t->pyramidState.load(std::memory_order_acquire) == TEXTURE_STATE_READY) return;
    Result<void> r =
        t->pyramidGuard.Run([t] { return BuildPyramid(t); }, OnceGuard::FAILURE::MARK_DONE);
    (void)r;
}

void EnsureSummedAreaTable(TextureImpl* t) {
    if (t->summedAreaState.load(std::memory_order_acquire) == TEXTURE_STATE_READY) return;
    Result<void> r = t->summedAreaGuard.Run([t] { return BuildSummedAreaTable(t); },
                                            OnceGuard::FAILURE::MARK_DONE);
    (void)r;
}

// ---- slots ------------------------------------------------------------------------------------

void Free(TextureImpl* texture) { RemoveReference(texture); }

TextureImpl* Alloc(const SourceLocation& loc) {
    void* block =
        SystemInterface::Alloc(static_cast<Int>(sizeof(ObjectHeader) + sizeof(TextureImpl)), loc);
    if (!block) return nullptr;
    auto* header = new (block) ObjectHeader{nullptr, &DestroyTexture, 0, 0};
    auto* t = new (header + 1) TextureImpl();
    AddReference(t);
    return t;
}

Result<void> Init(TextureImpl* texture, const UrlObject* url, UInt32 flags,
                  const LayerSetObject* layerSet, Float64 time) {
    if (!texture) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "TextureImpl::Init Error: texture missing");
    }
    Result<void> r = InitSteps(texture, url, flags, layerSet, time);
    if (r.IsError()) return WrapInitError(r.GetError());
    return OK;
}

Bool IsRegularFloatingPointFormat(const TextureImpl* t) {
    if (!t || !t->image) return false;
    const PixelFormatObject* f =
        ImageInterface::GetPixelFormat(ImageTextureInterface::GetFirstImage(t->image.Get()));
    if (!f) return false;
    static constexpr const char* REGULAR[] = {"rgba.f32",  "rgba.f64",  "rgb.f32",  "rgb.f64",
                                              "bgr.f32",   "grey.f32",  "grey.f64", "agrey.f32",
                                              "agrey.f64", "greya.f32", "greya.f64"};
    for (const char* name : REGULAR) {
        if (PixelFormatInterface::IsEqual(f, Format(name))) return true;
    }
    return false;
}

ImageTextureObject* GetImage(const TextureImpl* t) { return t ? t->image.Get() : nullptr; }

namespace {

void* const g_functions[] = {
    reinterpret_cast<void*>(&Free),     reinterpret_cast<void*>(&Alloc),
    reinterpret_cast<void*>(&Init),     reinterpret_cast<void*>(&IsRegularFloatingPointFormat),
    reinterpret_cast<void*>(&GetImage),
};
static_assert(sizeof(g_functions) / sizeof(g_functions[0]) == TextureInterface::COUNT);
static_assert(std::is_same_v<decltype(&Init), decltype(TextureInterface::Slots::Init)>);
static_assert(std::is_same_v<decltype(&GetImage), decltype(TextureInterface::Slots::GetImage)>);

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_interfaceNames;
NonVirtualInterfaceRecord g_implementation;
char g_nameRun[TextureInterface::NAME_RUN_SIZE];

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    g_interfaceNames.id = LiteralId(TextureInterface::INTERFACE_ID);
    g_interfaceNames.methodNames = BuildSlotNameRun(TextureInterface::Describe(), g_nameRun);
    g_interfaceNames.returnKinds = TextureInterface::Describe().returnKinds;
    g_interfaceNames.count = TextureInterface::COUNT;
    DefineInterfaceImplementation(g_implementation, g_interfaceNames, g_unit, __FILE__, 0);
    g_implementation.implementation = g_functions;
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace texture

}  // namespace quorv
