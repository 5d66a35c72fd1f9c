// Colour profiles and their conversion on LittleCMS 2, layer sets, and the registration of the
// image services. The linear profiles share the sRGB primaries and D65 white with a tone curve
// of gamma 1. Conversions use the relative colorimetric intent on doubles without the one-pixel
// cache, so one conversion object can serve many threads at once.
#include <algorithm>
#include <cstring>
#include <mutex>

#include "images/image_internal.h"

namespace quorv {

struct ColorProfileConvertObject {
    cmsHTRANSFORM transform = nullptr;
    ~ColorProfileConvertObject() {
        if (transform) cmsDeleteTransform(transform);
    }
};

}  // namespace quorv

namespace quorv::host {

namespace {

struct StandardProfiles {
    ColorProfileObject* srgb = nullptr;
    ColorProfileObject* linearRgb = nullptr;
    ColorProfileObject* linearGrey = nullptr;
    StandardProfiles() {
        cmsCIExyY d65;
        cmsWhitePointFromTemp(&d65, 6504);
        // The sRGB primaries.
        const cmsCIExyYTRIPLE primaries = {
            {0.6400, 0.3300, 1.0}, {0.3000, 0.6000, 1.0}, {0.1500, 0.0600, 1.0}};
        cmsToneCurve* linear = cmsBuildGamma(nullptr, 1.0);
        cmsToneCurve* curves[3] = {linear, linear, linear};
        srgb =
            Make(imageids::PROFILE_SRGB, imageids::COLORSPACE_RGB, cmsCreate_sRGBProfile(), "sRGB");
        linearRgb =
            Make(imageids::PROFILE_LINEAR_RGB, imageids::COLORSPACE_RGB,
                 cmsCreateRGBProfile(&d65, &primaries, curves), "Linear RGB (sRGB primaries, D65)");
        linearGrey = Make(imageids::PROFILE_LINEAR_GREY, imageids::COLORSPACE_GREY,
                          cmsCreateGrayProfile(&d65, linear), "Linear grey (D65)");
        cmsFreeToneCurve(linear);
    }
    static ColorProfileObject* Make(const char* id, const char* space, cmsHPROFILE handle,
                                    const char* description) {
        ColorProfileObject* p = NewImmortalObject<ColorProfileObject>();
        if (!p) return nullptr;
        p->id = LiteralId(id);
        p->colorSpace = LiteralId(space);
        p->handle = handle;
        p->description = description;
        return p;
    }
};

const StandardProfiles& Standard() {
    static const StandardProfiles profiles;
    return profiles;
}

const ColorProfileObject* GetStandard(const char* id) {
    return id ? GetStandardProfile(id) : nullptr;
}

const ColorProfileObject* GetDefaultLinear(const char* colorSpace) {
    if (colorSpace && std::string_view(colorSpace) == imageids::COLORSPACE_GREY)
        return Standard().linearGrey;
    return Standard().linearRgb;
}

Result<ColorProfileObject*> FromIcc(const void* data, Int size) {
    if (!data || size <= 0 || size > (Int(1) << 30)) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, "Empty ICC profile");
    }
    return GuardAllocation([&]() -> Result<ColorProfileObject*> {
        cmsHPROFILE handle = cmsOpenProfileFromMem(data, static_cast<cmsUInt32Number>(size));
        if (!handle) {
            return MakeErrorWithId("net.quorv.error.fileformat", QUORV_SOURCE_LOCATION,
                                   "The ICC profile cannot be read");
        }
        const cmsColorSpaceSignature space = cmsGetColorSpace(handle);
        if (space != cmsSigRgbData && space != cmsSigGrayData) {
            cmsCloseProfile(handle);
            return MakeErrorWithId("net.quorv.error.fileformat", QUORV_SOURCE_LOCATION,
                                   "Only RGB and grey ICC profiles are supported");
        }
        auto* p = NewCountedObject<ColorProfileObject>(&DeleteCountedObject<ColorProfileObject>,
                                                       QUORV_SOURCE_LOCATION);
        if (!p) {
            cmsCloseProfile(handle);
            return OutOfMemoryError();
        }
        AddReference(p);
        p->handle = handle;
        p->id = LiteralId(imageids::PROFILE_ICC);
        p->colorSpace = LiteralId(space == cmsSigGrayData ? imageids::COLORSPACE_GREY
                                                          : imageids::COLORSPACE_RGB);
        const auto* bytes = static_cast<const unsigned char*>(data);
        p->icc.assign(bytes, bytes + size);
        char text[256] = {0};
        cmsGetProfileInfoASCII(handle, cmsInfoDescription, "en", "US", text, sizeof(text));
        p->description = text;
        return p;
    });
}

void FreeProfile(const ColorProfileObject* profile) { RemoveReference(profile); }

Bool IsEqualProfile(const ColorProfileObject* a, const ColorProfileObject* b) {
    if (a == b) return true;
    if (!a || !b) return false;
    // Standard profiles are single objects; two ICC profiles are equal by their bytes.
    return !a->icc.empty() && a->icc == b->icc;
}

LiteralId GetProfileId(const ColorProfileObject* p) { return p ? p->id : LiteralId(); }
LiteralId GetProfileColorSpace(const ColorProfileObject* p) {
    return p ? p->colorSpace : LiteralId();
}
Int GetDescription(const ColorProfileObject* p, char* buffer, Int capacity) {
    return WriteTextToBuffer(p ? std::string_view(p->description) : std::string_view(), buffer,
                             capacity);
}

Result<cmsUInt32Number> LcmsFormat(const PixelFormatObject* f) {
    if (f && f->type == CHANNELTYPE::F64 && f->layout == PIXELLAYOUT::RGB)
        return cmsUInt32Number(TYPE_RGB_DBL);
    if (f && f->type == CHANNELTYPE::F64 && f->layout == PIXELLAYOUT::GREY)
        return cmsUInt32Number(TYPE_GRAY_DBL);
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     FormatMessage("Colour conversion supports rgb.f64 and grey.f64, not @",
                                   {f ? f->idText : std::string("(null)")}));
}

Result<ColorProfileConvertObject*> AllocConvert(const ColorProfileObject* from,
                                                const PixelFormatObject* fromFormat,
                                                const ColorProfileObject* to,
                                                const PixelFormatObject* toFormat) {
    if (!from || !to || !from->handle || !to->handle) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Colour profile missing");
    }
    Result<cmsUInt32Number> in = LcmsFormat(fromFormat);
    if (in.IsError()) return in.GetError();
    Result<cmsUInt32Number> out = LcmsFormat(toFormat);
    if (out.IsError()) return out.GetError();
    // A format whose colour space differs from its profile's cannot be converted.
    if ((fromFormat->grey != (from->colorSpace == LiteralId(imageids::COLORSPACE_GREY))) ||
        (toFormat->grey != (to->colorSpace == LiteralId(imageids::COLORSPACE_GREY)))) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "The pixel format does not match the colour space of its profile");
    }
    cmsHTRANSFORM t = cmsCreateTransform(from->handle, in.GetValue(), to->handle, out.GetValue(),
                                         INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOCACHE);
    if (!t) {
        return MakeErrorWithId("net.quorv.error.fileformat", QUORV_SOURCE_LOCATION,
                               FormatMessage("No conversion from profile @ to @",
                                             {from->description, to->description}));
    }
    auto* c = NewCountedObject<ColorProfileConvertObject>(
        &DeleteCountedObject<ColorProfileConvertObject>, QUORV_SOURCE_LOCATION);
    if (!c) {
        cmsDeleteTransform(t);
        return OutOfMemoryError();
    }
    AddReference(c);
    c->transform = t;
    return c;
}

void FreeConvert(ColorProfileConvertObject* c) { RemoveReference(c); }

void Convert(const ColorProfileConvertObject* c, const void* source, void* destination, Int count) {
    if (!c || count <= 0) return;
    cmsDoTransform(c->transform, source, destination, static_cast<cmsUInt32Number>(count));
}

// ---- layer sets --------------------------------------------------------------------------------

LayerSetObject* AllocLayerSet(const SourceLocation& loc) {
    auto* l = NewCountedObject<LayerSetObject>(&DeleteCountedObject<LayerSetObject>, loc);
    if (l) AddReference(l);
    return l;
}
void FreeLayerSet(LayerSetObject* l) { RemoveReference(l); }
LAYERSETMODE GetMode(const LayerSetObject* l) { return l ? l->mode : LAYERSETMODE::LAYERS; }
void SetMode(LayerSetObject* l, LAYERSETMODE mode) {
    if (l) l->mode = mode;
}
Bool GetCalculateAlpha(const LayerSetObject* l) { return l && l->calculateAlpha; }
void SetCalculateAlpha(LayerSetObject* l, Bool calculate) {
    if (l) l->calculateAlpha = calculate;
}
Result<void> AddLayer(LayerSetObject* l, const char* name, Int length) {
    if (!l || !name || length < 0)
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Layer name missing");
    return GuardAllocation([&]() -> Result<void> {
        l->layers.emplace_back(name, static_cast<size_t>(length));
        return OK;
    });
}
Int GetLayerCount(const LayerSetObject* l) { return l ? static_cast<Int>(l->layers.size()) : 0; }
Bool IsEqualLayerSet(const LayerSetObject* a, const LayerSetObject* b) {
    if (a == b) return true;
    if (!a || !b) return false;
    return a->mode == b->mode && a->calculateAlpha == b->calculateAlpha && a->layers == b->layers;
}
UInt GetLayerSetHash(const LayerSetObject* l) {
    if (!l) return 0;
    // FNV-1a over the mode, the flag and the names with their lengths.
    UInt h = 0xcbf29ce484222325ull;
    auto mix = [&h](UInt v) {
        for (int i = 0; i < 8; ++i) {
            h ^= (v >> (8 * i)) & 0xff;
            h *= 0x100000001b3ull;
        }
    };
    mix(static_cast<UInt>(l->mode));
    mix(l->calculateAlpha ? 1 : 0);
    for (const std::string& s : l->layers) {
        mix(s.size());
        for (unsigned char c : s) {
            h ^= c;
            h *= 0x100000001b3ull;
        }
    }
    return h;
}

const ColorProfileInterface::Slots g_profileSlots{
    .GetStandard = &GetStandard,
    .GetDefaultLinear = &GetDefaultLinear,
    .FromIcc = &FromIcc,
    .Free = &FreeProfile,
    .IsEqual = &IsEqualProfile,
    .GetId = &GetProfileId,
    .GetColorSpace = &GetProfileColorSpace,
    .GetDescription = &GetDescription,
};

const ColorProfileConvertInterface::Slots g_convertSlots{
    .Alloc = &AllocConvert,
    .Free = &FreeConvert,
    .Convert = &Convert,
};

const LayerSetInterface::Slots g_layerSetSlots{
    .Alloc = &AllocLayerSet,
    .Free = &FreeLayerSet,
    .GetMode = &GetMode,
    .SetMode = &SetMode,
    .GetCalculateAlpha = &GetCalculateAlpha,
    .SetCalculateAlpha = &SetCalculateAlpha,
    .AddLayer = &AddLayer,
    .GetLayerCount = &GetLayerCount,
    .IsEqual = &IsEqualLayerSet,
    .GetHashCode = &GetLayerSetHash,
};

void RegisterImageServices(Host& host) {
    RegisterPixelFormatService(host);
    RegisterImageTextureService(host);
    host.RegisterService<ColorProfileInterface>(g_profileSlots);
    host.RegisterService<ColorProfileConvertInterface>(g_convertSlots);
    host.RegisterService<LayerSetInterface>(g_layerSetSlots);
}

// Binaries that link the image services get them at `Host::Start`.
const bool g_provided = AddServiceProvider(&RegisterImageServices);

}  // namespace

const ColorProfileObject* GetStandardProfile(std::string_view id) {
    const StandardProfiles& s = Standard();
    if (id == imageids::PROFILE_SRGB) return s.srgb;
    if (id == imageids::PROFILE_LINEAR_RGB) return s.linearRgb;
    if (id == imageids::PROFILE_LINEAR_GREY) return s.linearGrey;
    return nullptr;
}

}  // namespace quorv::host
