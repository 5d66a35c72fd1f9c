// Values the command line and the Python module share: parameter dictionaries from JSON and
// the description of a web.
#include "values.h"

#include <cstdio>
#include <map>

#include "quorv/host/host.h"
#include "quorv/image.h"

namespace quorv::cli {

namespace {

struct KeyInfo {
    const char* name;
    Int32 key;
    bool isBool;
};

const KeyInfo KEYS[] = {
    {"BSDF_PARAM_ROUGHNESS", BSDF_PARAM_ROUGHNESS, false},
    {"BSDF_PARAM_ANISOTROPY", BSDF_PARAM_ANISOTROPY, false},
    {"BSDF_PARAM_ANISOTROPY_ANGLE", BSDF_PARAM_ANISOTROPY_ANGLE, false},
    {"BSDF_PARAM_ORENNAYAR_ROUGHNESS", BSDF_PARAM_ORENNAYAR_ROUGHNESS, false},
    {"BSDF_PARAM_ORENNAYAR_SIMPLE", BSDF_PARAM_ORENNAYAR_SIMPLE, true},
    {"BSDF_PARAM_BLURRY_REFLECTED_LOBE", BSDF_PARAM_BLURRY_REFLECTED_LOBE, true},
    {"BSDF_PARAM_BLURRY_ROUGHNESS", BSDF_PARAM_BLURRY_ROUGHNESS, false},
    {"BSDF_PARAM_BLURRY_FALLOFF_SHIFT", BSDF_PARAM_BLURRY_FALLOFF_SHIFT, false},
    {"BSDF_PARAM_BLURRY_FALLOFF_POWER", BSDF_PARAM_BLURRY_FALLOFF_POWER, false},
};

const KeyInfo* FindKey(const std::string& text) {
    for (const KeyInfo& k : KEYS) {
        if (text == k.name || text == std::to_string(k.key)) return &k;
    }
    return nullptr;
}

const char* VersionName(IESVERSION v) {
    switch (v) {
        case IESVERSION::V1986: return "V1986";
        case IESVERSION::V1991: return "V1991";
        case IESVERSION::V1995: return "V1995";
        case IESVERSION::V2002: return "V2002";
    }
    return "?";
}

const char* TiltName(IESTILT t) {
    switch (t) {
        case IESTILT::UNKNOWN: return "UNKNOWN";
        case IESTILT::NONE: return "NONE";
        case IESTILT::INCLUDE: return "INCLUDE";
        case IESTILT::FILE: return "FILE";
    }
    return "?";
}

const char* ShapeName(AREALIGHTSHAPE s) {
    static const char* const NAMES[] = {"NONE", "DISC",       "RECTANGLE", "SPHERE", "CYLINDER",
                                        "CUBE", "HEMISPHERE", "OBJECT",    "LINE",   "PCYLINDER"};
    auto i = static_cast<Int32>(s);
    return i >= 0 && i < 10 ? NAMES[i] : "?";
}

// A pixel format's id without the common prefix: "rgba.u8".
std::string FormatName(const PixelFormatObject* f) {
    std::string id(PixelFormatInterface::GetId(f).View());
    const std::string prefix = imageids::PIXELFORMAT_PREFIX;
    return id.rfind(prefix, 0) == 0 ? id.substr(prefix.size()) : id;
}

}  // namespace

// A dictionary from {key id: JSON value}; each key must be a declared key of a loaded module.
Result<DataDictionary> BuildCameraParameters(const std::vector<std::pair<std::string, Json>>& params) {
    std::map<std::string, std::string> keyTypes;
    for (auto& [key, type] : host::Host::Get().ListDictionaryKeys()) keyTypes[key] = type;
    Result<DataDictionary> created = DataDictionary::Create();
    if (created.IsError()) return created;
    DataDictionary dict = created.GetValue();
    for (const auto& [key, value] : params) {
        auto it = keyTypes.find(key);
        if (it == keyTypes.end()) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Unknown parameter key @", {key}));
        }
        Result<Data> data = JsonToData(value, it->second);
        if (data.IsError()) return data.GetError();
        QUORV_RETURN_IF_ERROR(dict.SetData(LiteralId(it->first.c_str()), data.GetValue()));
    }
    return dict;
}

Json DictionaryToJson(const DataDictionary& d) {
    Json out = Json::object();
    const DataDictionaryObject* obj = d.GetReadable();
    if (!obj) return out;
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(obj, &it);
    while (DataDictionaryInterface::IteratorHasValue(&it)) {
        DataDictionaryKey key;
        Data value;
        if (DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value)) {
            out[key.ToString()] = DataToJson(value);
        }
        DataDictionaryInterface::IteratorMoveToNext(&it);
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    return out;
}

// A dictionary from integer keys (or their names) to numbers or booleans, with the run's cache.
Result<DataDictionary> BuildBSDFParameters(const std::vector<std::pair<std::string, Json>>& params,
                                           SamplerCache* cache) {
    Result<DataDictionary> created = DataDictionary::Create();
    if (created.IsError()) return created;
    DataDictionary dict = created.GetValue();
    for (const auto& [key, value] : params) {
        const KeyInfo* k = FindKey(key);
        if (!k) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Unknown BSDF parameter key @", {key}));
        }
        Data data;
        if (k->isBool) {
            if (!value.is_boolean()) {
                return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                                 FormatMessage("Parameter @ needs true or false", {key}));
            }
            data = Data::Of<Bool>(value.get<bool>());
        } else {
            Float64 v;
            if (!JsonToNumber(value, &v)) {
                return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                                 FormatMessage("Parameter @ needs a number", {key}));
            }
            data = Data::Of<Float64>(v);
        }
        if (data.IsEmpty()) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
        QUORV_RETURN_IF_ERROR(dict.SetData(DataDictionaryKey(k->key), data));
    }
    if (cache) {
        Data handle = Data::Of(SamplerCachePointer{cache});
        if (handle.IsEmpty()) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "The module does not register the sampler cache pointer type");
        }
        QUORV_RETURN_IF_ERROR(
            dict.SetData(DataDictionaryKey(BSDF_PARAM_DISTRIBUTION_CACHE), handle));
    }
    return dict;
}

std::vector<std::pair<std::string, Json>> DescribeIes(const IesRef& ies) {
    const DataDictionary& p = *IesInterface::GetProperties(ies.Get());
    const Vector64 size = p.Get<Vector64>(IesPropertySize, Vector64{});
    char checksum[16];
    std::snprintf(checksum, sizeof(checksum), "%08x", IesInterface::GetChecksum(ies.Get()));
    struct Text {
        const char* name;
        Int32 key;
    } texts[] = {{"manufacturer", IesPropertyManufacturer},
                 {"luminaireCatalog", IesPropertyLuminaireCatalog},
                 {"luminaire", IesPropertyLuminaire},
                 {"lampCatalog", IesPropertyLampCatalog},
                 {"lamp", IesPropertyLamp}};
    // In this order on the text form; the JSON form is an object.
    std::vector<std::pair<std::string, Json>> fields{
        {"version", VersionName(p.Get<IESVERSION>(IesPropertyVersion, IESVERSION::V1986))},
        {"tilt", TiltName(p.Get<IESTILT>(IesPropertyTilt, IESTILT::UNKNOWN))}};
    for (const Text& t : texts) {
        Data d = p.GetData(t.key);
        if (const auto* s = d.Get<std::string>()) fields.emplace_back(t.name, *s);
    }
    fields.emplace_back("shape", ShapeName(p.Get<AREALIGHTSHAPE>(IesPropertyShape, AREALIGHTSHAPE::NONE)));
    fields.emplace_back("size", ToJson(size));
    fields.emplace_back("nV", ies->_anglesVertical.GetCount());
    fields.emplace_back("nH", ies->_anglesHorizontal.GetCount());
    fields.emplace_back("maxIntensity", NumberToJson(p.Get<Float64>(IesPropertyMaxIntensity, 0.0)));
    fields.emplace_back("lightPowerRatio", NumberToJson(IesInterface::GetLightPowerRatio(ies.Get())));
    fields.emplace_back("checksum", std::string("0x") + checksum);
    return fields;
}

// The text as a file holds it: one byte per character.
std::string ToBit8(const std::string& utf8) {
    std::string out;
    for (size_t i = 0; i < utf8.size(); ++i) {
        auto c = static_cast<unsigned char>(utf8[i]);
        if ((c & 0xE0) == 0xC0 && i + 1 < utf8.size()) {
            out.push_back(static_cast<char>(((c & 0x1F) << 6) | (utf8[++i] & 0x3F)));
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

Json TextureInfoJson(const TextureImpl& t) {
    const ImageObject* image = ImageTextureInterface::GetFirstImage(t.image.Get());
    const ColorProfileObject* profile = ImageTextureInterface::GetColorProfile(t.image.Get());
    char description[256] = {0};
    ColorProfileInterface::GetDescription(profile, description, sizeof(description));
    return Json{
        {"width", t.width},
        {"height", t.height},
        {"pixelFormat", FormatName(ImageInterface::GetPixelFormat(image))},
        {"readFormat", FormatName(t.readFormat)},
        {"storageFormat", FormatName(t.storageFormat)},
        {"convertFormat", FormatName(t.convertFormat)},
        {"alpha", t.hasAlpha},
        {"16bit", t.is16Bit},
        {"float", t.isFloat},
        {"grey", t.isGrey},
        {"sRGB", t.isSRGB},
        {"converted", t.wasConverted},
        {"colorConversion", static_cast<bool>(t.colorConversion)},
        {"profile",
         profile ? std::string(ColorProfileInterface::GetId(profile).View()) : std::string("none")},
        {"profileDescription", description},
        {"fps", NumberToJson(t.frameRate)},
        {"duration", NumberToJson(t.duration)},
        {"frames", ImageTextureInterface::GetFrameCount(t.image.Get())},
        {"frame", ImageTextureInterface::GetFrameIndex(t.image.Get())},
    };
}

}  // namespace quorv::cli
