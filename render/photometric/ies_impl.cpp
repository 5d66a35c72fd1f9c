// Photometric webs: the object, its registration, checksum and serialisation, the reader of
// IES LM-63 text and the writer.
#include "render/photometric/ies_impl.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "quorv/entity.h"
#include "quorv/lexer.h"
#include "quorv/stringconversion.h"
#include "quorv/url.h"

namespace quorv::ies {

namespace {

// ---- object -----------------------------------------------------------------------------------

void DestroyIes(void* object) {
    ObjectHeader* header = HeaderOf(object);
    static_cast<IesImpl*>(object)->~IesImpl();
    header->~ObjectHeader();
    SystemInterface::Free(header);
}

IesImpl* NewIes(const SourceLocation& loc) {
    void* block = SystemInterface::Alloc(static_cast<Int>(sizeof(ObjectHeader) + sizeof(IesImpl)), loc);
    if (!block) return nullptr;
    auto* header = new (block) ObjectHeader{nullptr, &DestroyIes, 0, 0};
    auto* ies = new (header + 1) IesImpl();
    AddReference(ies);
    return ies;
}

IesImpl* g_defaultIes = nullptr;

// ---- checksum ---------------------------------------------------------------------------------

using CrcTables = std::array<std::array<UInt32, 256>, 8>;

constexpr CrcTables MakeCrcTables() {
    CrcTables t{};
    for (UInt32 i = 0; i < 256; ++i) {
        UInt32 c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
        t[0][i] = c;
    }
    for (UInt32 i = 0; i < 256; ++i) {
        for (int s = 1; s < 8; ++s) t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xFF];
    }
    return t;
}

constexpr CrcTables CRC_TABLES = MakeCrcTables();

template <typename T>
UInt32 CrcValue(UInt32 crc, const T& value) {
    return Crc32c(crc, &value, static_cast<Int>(sizeof(T)));
}

// ---- text helpers -----------------------------------------------------------------------------

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

std::string_view TrimLeft(std::string_view s) {
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    return s;
}

std::string_view Trim(std::string_view s) {
    s = TrimLeft(s);
    while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
    return s;
}

// A format error of the reader names the file it read.
Error FileError(std::string_view message, std::string_view url) {
    return MakeErrorWithId("net.quorv.error.fileformat", QUORV_SOURCE_LOCATION, message, url);
}

template <typename T>
Result<void> SetProperty(IesImpl& ies, Int32 key, const T& value) {
    Data d = Data::Of(value);
    if (d.IsEmpty()) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
    return ies._properties.SetData(key, d);
}

// ---- reader -----------------------------------------------------------------------------------

// Frees the lexer on every way out of the reader.
struct LexerHolder {
    LexerObject* lexer = nullptr;
    ~LexerHolder() {
        if (lexer) LexerInterface::Free(lexer);
    }
};

struct Keyword {
    std::string_view text;
    Int32 key;
};

// The order in which a header line is tried.
constexpr Keyword KEYWORDS[] = {
    {"[MANUFAC]", IesPropertyManufacturer}, {"[LUMINAIRE]", IesPropertyLuminaire},
    {"[LAMP]", IesPropertyLamp},            {"[LUMCAT]", IesPropertyLuminaireCatalog},
    {"[LAMPCAT]", IesPropertyLampCatalog},
};

struct ShapeAndSize {
    AREALIGHTSHAPE shape;
    Vector64 size;
};

int Sign(Float64 v) { return v > 0 ? 1 : v < 0 ? -1 : v == 0 ? 0 : 2; }

ShapeAndSize DeriveShape(Float64 w, Float64 l, Float64 h) {
    using S = AREALIGHTSHAPE;
    const int sw = Sign(w), sl = Sign(l), sh = Sign(h);
    auto is = [&](int a, int b, int c) { return sw == a && sl == b && sh == c; };
    if (is(0, 0, 0)) return {S::NONE, {0, 0, 0}};
    if (is(1, 1, 0)) return {S::RECTANGLE, {w, l, 0}};
    if (is(1, 0, 1)) return {S::RECTANGLE, {w, h, 0}};
    if (is(0, 1, 1)) return {S::RECTANGLE, {h, l, 0}};
    if (is(1, 1, 1)) return {S::CUBE, {w, l, h}};
    // This DISC takes the diameter in z too, unlike the other two DISC rows; kept as files
    // read so far have it.
    if (is(-1, 0, 0)) return {S::DISC, {-w, -w, -w}};
    if (is(-1, 0, -1)) return {S::SPHERE, {-w, -w, -w}};
    if (is(-1, 0, 1)) return {S::CYLINDER, {-w, -w, h}};
    if (is(0, 1, -1)) return {S::PCYLINDER, {l, -h, -h}};
    if (is(1, 0, -1)) return {S::PCYLINDER, {w, -h, -h}};
    if (is(-1, 1, 1)) return {S::DISC, {-w, l, 0}};
    if (is(1, -1, 1)) return {S::DISC, {w, -l, 0}};
    if (is(-1, 1, -1)) return {S::SPHERE, {-w, l, -h}};
    if (is(1, -1, -1)) return {S::SPHERE, {w, -l, -h}};
    return {S::NONE, {0, 0, 0}};
}

class Reader {
public:
    Reader(IesImpl& ies, LexerObject* lexer, std::string url)
        : _ies(ies), _lexer(lexer), _url(std::move(url)) {}

    Result<void> Run() {
        QUORV_RETURN_IF_ERROR(ReadHeader());
        QUORV_RETURN_IF_ERROR(ReadNumbers());
        return OK;
    }

private:
    Result<void> ReadHeader() {
        QUORV_RETURN_IF_ERROR(LexerInterface::ReadNextSymbol(_lexer, LEXERSYMBOLFLAGS::NO_NUMBER));
        for (;;) {
            LEXERSYMBOL symbol = LexerInterface::GetSymbol(_lexer);
            if (symbol != LEXERSYMBOL::IDENTIFIER && symbol != LEXERSYMBOL::SQUAREBRACKET_OPEN) {
                if (symbol == LEXERSYMBOL::ENDOFFILE) return FileError("IES Header incomplete", _url);
                QUORV_RETURN_IF_ERROR(
                    LexerInterface::ReadNextSymbol(_lexer, LEXERSYMBOLFLAGS::NO_NUMBER));
                continue;
            }
            std::string word(Ident());
            LexerInterface::SkipLineToEnd(_lexer);
            if (word == "TILT") return ReadTilt();
            std::string joined = word;
            joined += Ident();
            QUORV_RETURN_IF_ERROR(HeaderLine(Trim(joined)));
            QUORV_RETURN_IF_ERROR(LexerInterface::ReadNextSymbol(_lexer, LEXERSYMBOLFLAGS::NO_NUMBER));
        }
    }

    Result<void> HeaderLine(std::string_view line) {
        if (line == "IESNA91") {
            QUORV_RETURN_IF_ERROR(SetProperty(_ies, IesPropertyVersion, IESVERSION::V1991));
        } else if (line == "IESNA:LM-63-1995") {
            QUORV_RETURN_IF_ERROR(SetProperty(_ies, IesPropertyVersion, IESVERSION::V1995));
        } else if (line == "IESNA:LM-63-2002") {
            QUORV_RETURN_IF_ERROR(SetProperty(_ies, IesPropertyVersion, IESVERSION::V2002));
        }
        for (const Keyword& k : KEYWORDS) {
            if (line.empty() || line.substr(0, k.text.size()) != k.text) continue;
            std::string_view rest = TrimLeft(line.substr(k.text.size()));
            std::string value = _ies._properties.Get<std::string>(k.key, std::string());
            if (!value.empty() && !rest.empty()) value += "; ";
            value += rest;
            QUORV_RETURN_IF_ERROR(SetProperty(_ies, k.key, value));
            line = {};
        }
        return OK;
    }

    Result<void> ReadTilt() {
        std::string_view rest = Trim(Ident());
        if (rest.empty() || rest.front() != '=') return LineError();
        rest = TrimLeft(rest.substr(1));
        if (rest == "NONE") {
            QUORV_RETURN_IF_ERROR(SetProperty(_ies, IesPropertyTilt, IESTILT::NONE));
        } else if (rest == "INCLUDE") {
            QUORV_RETURN_IF_ERROR(SetProperty(_ies, IesPropertyTilt, IESTILT::INCLUDE));
            _tiltInclude = true;
        } else {
            return LineError();
        }
        return OK;
    }

    Result<void> ReadNumbers() {
        if (_tiltInclude) {
            QUORV_RETURN_IF_ERROR(ReadInt());  // lamp-to-luminaire geometry
            Result<Int> pairs = ReadInt();
            if (pairs.IsError()) return pairs.GetError();
            // Tilt multipliers have no effect on this model: angles and factors are dropped.
            for (Int i = 0; i < 2 * pairs.GetValue(); ++i) QUORV_RETURN_IF_ERROR(ReadFloat());
        }
        Result<Int> lamps = ReadInt();
        if (lamps.IsError()) return lamps.GetError();
        Float64 lumens, multiplier, width, length, height, ballast, ballastLamp, watts;
        Int nV, nH, photometricType, units;
        QUORV_RETURN_IF_ERROR(ReadFloat(&lumens));
        QUORV_RETURN_IF_ERROR(ReadFloat(&multiplier));
        QUORV_RETURN_IF_ERROR(ReadInt(&nV));
        QUORV_RETURN_IF_ERROR(ReadInt(&nH));
        QUORV_RETURN_IF_ERROR(ReadInt(&photometricType));
        QUORV_RETURN_IF_ERROR(ReadInt(&units));
        QUORV_RETURN_IF_ERROR(ReadFloat(&width));
        QUORV_RETURN_IF_ERROR(ReadFloat(&length));
        QUORV_RETURN_IF_ERROR(ReadFloat(&height));

        ShapeAndSize shape = DeriveShape(width, length, height);
        if (units == 1) {
            shape.size.x *= 0.3048;
            shape.size.y *= 0.3048;
            shape.size.z *= 0.3048;
        }
        QUORV_RETURN_IF_ERROR(SetProperty(_ies, IesPropertyShape, shape.shape));
        QUORV_RETURN_IF_ERROR(SetProperty(_ies, IesPropertySize, shape.size));

        QUORV_RETURN_IF_ERROR(ReadFloat(&ballast));
        QUORV_RETURN_IF_ERROR(ReadFloat(&ballastLamp));
        QUORV_RETURN_IF_ERROR(ReadFloat(&watts));
        if (ballastLamp < 0.0001) ballastLamp = 1.0;

        if (nV > 1024 || nH > 1024 || nV < 0 || nH < 0) {
            return FileError("IES: Incorrect number or angles", _url);
        }
        QUORV_RETURN_IF_ERROR(_ies._anglesVertical.Resize(nV));
        QUORV_RETURN_IF_ERROR(_ies._anglesHorizontal.Resize(nH));
        QUORV_RETURN_IF_ERROR(_ies._data.Resize(nH * nV));

        for (Int i = 0; i < nV; ++i) {
            Result<void> r = ReadFloat(&_ies._anglesVertical[i]);
            if (r.IsError()) {
                _ies._anglesVertical[i] = 0.0;
                return r;
            }
        }
        for (Int i = 0; i < nH; ++i) {
            Result<void> r = ReadFloat(&_ies._anglesHorizontal[i]);
            if (r.IsError()) {
                _ies._anglesHorizontal[i] = 0.0;
                return r;
            }
        }
        const Float64 scale = multiplier * ballast * ballastLamp;
        for (Int h = 0; h < nH; ++h) {
            for (Int v = 0; v < nV; ++v) {
                Float64 value;
                QUORV_RETURN_IF_ERROR(ReadFloat(&value));
                const Float64 scaled = value * scale;
                _ies._data[h * nV + v] = scaled;
                if (scaled > _ies._dataMax) _ies._dataMax = scaled;
            }
        }
        QUORV_RETURN_IF_ERROR(SetProperty(_ies, IesPropertyMaxIntensity, _ies._dataMax));
        _ies._dataPower = ComputeDataPower(&_ies);
        _ies._checksum = ComputeChecksum(&_ies);
        return OK;
    }

    std::string_view Ident() const {
        Int length = 0;
        const char* text = LexerInterface::GetIdent(_lexer, &length);
        return text ? std::string_view(text, static_cast<size_t>(length)) : std::string_view();
    }

    Error LineError() const {
        return FileError(FormatMessage("IES file error in line @",
                                       {std::to_string(LexerInterface::GetLine(_lexer))}),
                         _url);
    }

    Result<void> NextNumber() {
        do {
            QUORV_RETURN_IF_ERROR(LexerInterface::ReadNextSymbol(_lexer, LEXERSYMBOLFLAGS::NONE));
        } while (LexerInterface::GetSymbol(_lexer) == LEXERSYMBOL::COMMA);
        return OK;
    }

    Result<Int> ReadInt() {
        QUORV_RETURN_IF_ERROR(NextNumber());
        return LexerInterface::GetInt(_lexer);
    }
    Result<void> ReadInt(Int* out) {
        Result<Int> r = ReadInt();
        if (r.IsError()) return r.GetError();
        *out = r.GetValue();
        return OK;
    }
    Result<void> ReadFloat(Float64* out = nullptr) {
        QUORV_RETURN_IF_ERROR(NextNumber());
        Result<Float64> r = LexerInterface::GetFloat(_lexer);
        if (r.IsError()) return r.GetError();
        if (out) *out = r.GetValue();
        return OK;
    }

    IesImpl& _ies;
    LexerObject* _lexer;
    std::string _url;
    bool _tiltInclude = false;
};

template <typename InitLexer>
Result<void> Read(IesImpl* ies, std::string url, InitLexer&& initLexer) {
    if (!ies) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No IES object");
    QUORV_RETURN_IF_ERROR(SetProperty(*ies, IesPropertyVersion, IESVERSION::V1986));
    QUORV_RETURN_IF_ERROR(SetProperty(*ies, IesPropertyTilt, IESTILT::UNKNOWN));
    LexerHolder holder;
    holder.lexer = LexerInterface::Alloc(QUORV_SOURCE_LOCATION);
    if (!holder.lexer) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
    QUORV_RETURN_IF_ERROR(initLexer(holder.lexer));
    return Reader(*ies, holder.lexer, std::move(url)).Run();
}

// ---- writer -----------------------------------------------------------------------------------

void AppendFloat(std::string& out, Float64 v) {
    char buffer[FLOATTOSTRING_BUFFER];
    Int n = StringConversionInterface::FloatToString(v, -1, -3, false, ' ', buffer, sizeof(buffer));
    out.append(buffer, static_cast<size_t>(n < Int(sizeof(buffer)) ? n : Int(sizeof(buffer)) - 1));
}

void AppendInt(std::string& out, Int v) {
    char buffer[32];
    Int n = StringConversionInterface::IntToString(v, buffer, sizeof(buffer));
    out.append(buffer, static_cast<size_t>(n < Int(sizeof(buffer)) ? n : Int(sizeof(buffer)) - 1));
}

// Ten values to a line; each line opens with "\n" and each value is followed by a blank.
void AppendValues(std::string& out, const Float64* values, Int count) {
    for (Int i = 0; i < count; ++i) {
        if (i % 10 == 0) out += '\n';
        AppendFloat(out, values[i]);
        out += ' ';
    }
}

Result<std::string> WriteText(const IesImpl& ies) {
    const DataDictionary& p = ies._properties;
    std::string out;
    switch (p.Get<IESVERSION>(IesPropertyVersion, IESVERSION::V1986)) {
        case IESVERSION::V2002: out += "IESNA:LM-63-2002\n"; break;
        case IESVERSION::V1995: out += "IESNA:LM-63-1995\n"; break;
        case IESVERSION::V1991: out += "IESNA91\n"; break;
        default: break;
    }
    constexpr Keyword WRITTEN[] = {
        {"[MANUFAC]", IesPropertyManufacturer}, {"[LUMCAT]", IesPropertyLuminaireCatalog},
        {"[LUMINAIRE]", IesPropertyLuminaire},  {"[LAMPCAT]", IesPropertyLampCatalog},
        {"[LAMP]", IesPropertyLamp},
    };
    for (const Keyword& k : WRITTEN) {
        std::string value = p.Get<std::string>(k.key, std::string());
        if (value.empty()) continue;
        out += k.text;
        out += value;
        out += '\n';
    }
    // Tilt data are not kept, so an INCLUDE web is written as NONE.
    IESTILT tilt = p.Get<IESTILT>(IesPropertyTilt, IESTILT::UNKNOWN);
    if (tilt == IESTILT::NONE || tilt == IESTILT::INCLUDE) out += "TILT=NONE\n";

    const Int nV = ies._anglesVertical.GetCount();
    const Int nH = ies._anglesHorizontal.GetCount();
    out += "1 1 1 ";
    AppendInt(out, nV);
    out += ' ';
    AppendInt(out, nH);
    out += " 1 2 ";
    Vector64 size = p.Get<Vector64>(IesPropertySize, Vector64{});
    AppendFloat(out, size.x);
    out += ' ';
    AppendFloat(out, size.y);
    out += ' ';
    AppendFloat(out, size.z);
    out += "\n1 1 1";
    AppendValues(out, ies._anglesVertical.GetFirst(), nV);
    AppendValues(out, ies._anglesHorizontal.GetFirst(), nH);
    for (Int h = 0; h < nH; ++h) {
        if (nV == 0) out += '\n';
        AppendValues(out, ies._data.GetFirst() + h * nV, nV);
    }
    return out;
}

// ---- serialisation ----------------------------------------------------------------------------

const BaseArray<Float64>& ArrayAt(const void* member) {
    return *static_cast<const BaseArray<Float64>*>(member);
}
BaseArray<Float64>& ArrayAt(void* member) { return *static_cast<BaseArray<Float64>*>(member); }

const DescribeArrayAccessor FLOAT64_ARRAY{
    [](const void* m) { return ArrayAt(m).GetCount(); },
    [](const void* m) { return static_cast<const void*>(ArrayAt(m).GetFirst()); },
    [](void* m, Int count) { return ArrayAt(m).Resize(count); },
    [](void* m) { return static_cast<void*>(ArrayAt(m).GetFirst()); },
};

// ---- registration -----------------------------------------------------------------------------

Result<void> InitModuleData() {
    g_defaultIes = NewIes(QUORV_SOURCE_LOCATION);
    if (!g_defaultIes) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
    return OK;
}

void FreeModuleData() {
    IesImpl* ies = std::exchange(g_defaultIes, nullptr);
    RemoveReference(ies);
}

void* const g_functions[] = {
    reinterpret_cast<void*>(&Free),
    reinterpret_cast<void*>(&Alloc),
    reinterpret_cast<void*>(&AllocCopy),
    reinterpret_cast<void*>(&Init),
    reinterpret_cast<void*>(&Compare),
    reinterpret_cast<void*>(&GetHashCode),
    reinterpret_cast<void*>(&DescribeIO),
    reinterpret_cast<void*>(&ComputeLightIntensity),
    reinterpret_cast<void*>(&GetLightPowerRatio),
    reinterpret_cast<void*>(&GetChecksum),
    reinterpret_cast<void*>(&GetProperties),
    reinterpret_cast<void*>(&GeneratePreviewImage),
    reinterpret_cast<void*>(&ConvertToText),
    reinterpret_cast<void*>(&GeneratePreviewImageRows),
    reinterpret_cast<void*>(&GetRawAccess),
    reinterpret_cast<void*>(&SetRawAccess),
};
static_assert(sizeof(g_functions) / sizeof(g_functions[0]) == IesInterface::COUNT);

// Each function above has exactly the type of its slot.
static_assert(std::is_same_v<decltype(&ComputeLightIntensity),
                             decltype(IesInterface::Slots::ComputeLightIntensity)>);
static_assert(std::is_same_v<decltype(&GeneratePreviewImageRows),
                             decltype(IesInterface::Slots::GeneratePreviewImageRows)>);
static_assert(std::is_same_v<decltype(&SetRawAccess), decltype(IesInterface::Slots::SetRawAccess)>);

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_interfaceNames;
NonVirtualInterfaceRecord g_implementation;
InitializationRecord g_initialization;
DataTypeRecord g_versionType;
DataTypeRecord g_tiltType;
DataTypeRecord g_shapeType;
char g_nameRun[IesInterface::NAME_RUN_SIZE];

constexpr EnumValue VERSION_VALUES[] = {{"V1986", 0}, {"V1991", 1}, {"V1995", 2}, {"V2002", 3}};
constexpr EnumValue TILT_VALUES[] = {{"UNKNOWN", 0}, {"NONE", 1}, {"INCLUDE", 2}, {"FILE", 3}};
constexpr EnumValue SHAPE_VALUES[] = {
    {"NONE", 0}, {"DISC", 1},       {"RECTANGLE", 2}, {"SPHERE", 3}, {"CYLINDER", 4},
    {"CUBE", 5}, {"HEMISPHERE", 6}, {"OBJECT", 7},    {"LINE", 8},   {"PCYLINDER", 9}};

template <typename E, size_t N>
void DefineEnumType(DataTypeRecord& record, const char* typeName, const EnumValue (&values)[N]) {
    DefineEnumDataType<E>(record, LiteralId(DataTypeIdOf<E>::id), typeName, values, g_unit,
                          __FILE__);
}

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    DefineEnumType<IESVERSION>(g_versionType, "quorv::IESVERSION", VERSION_VALUES);
    DefineEnumType<IESTILT>(g_tiltType, "quorv::IESTILT", TILT_VALUES);
    DefineEnumType<AREALIGHTSHAPE>(g_shapeType, "quorv::AREALIGHTSHAPE", SHAPE_VALUES);
    // The supplied table is named like the interface's own table of a caller.
    g_interfaceNames.id = LiteralId(IesInterface::INTERFACE_ID);
    g_interfaceNames.methodNames = BuildSlotNameRun(IesInterface::Describe(), g_nameRun);
    g_interfaceNames.returnKinds = IesInterface::Describe().returnKinds;
    g_interfaceNames.count = IesInterface::COUNT;
    DefineInterfaceImplementation(g_implementation, g_interfaceNames, g_unit, __FILE__, 0);
    g_implementation.implementation = g_functions;
    DefineInitialization(g_initialization, __FILE__, &InitModuleData, &FreeModuleData, g_unit);
}

const bool g_registered = (Register(), true);

}  // namespace

// ---- slots ------------------------------------------------------------------------------------

void Free(IesImpl* ies) { RemoveReference(ies); }

IesImpl* Alloc(const SourceLocation& loc) { return NewIes(loc); }

IesImpl* AllocCopy(const IesImpl* source, const SourceLocation& loc) {
    IesImpl* ies = NewIes(loc);
    if (!ies || !source) return ies;
    ies->_properties = source->_properties;
    if (ies->_anglesVertical.CopyFrom(source->_anglesVertical).IsError() ||
        ies->_anglesHorizontal.CopyFrom(source->_anglesHorizontal).IsError() ||
        ies->_data.CopyFrom(source->_data).IsError()) {
        RemoveReference(ies);
        return nullptr;
    }
    ies->_dataMax = source->_dataMax;
    ies->_dataPower = source->_dataPower;
    ies->_checksum = source->_checksum;
    return ies;
}

Result<void> Init(IesImpl* ies, const UrlObject* url) {
    if (!url) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No url");
    return Read(ies, Url(url).ToText(), [&](LexerObject* lexer) {
        return LexerInterface::Init(lexer, url, LEXERINITFLAGS::NONE, nullptr, STRINGDECODING_BIT8);
    });
}

Result<void> InitFromText(IesImpl* ies, const char* text, Int length) {
    return Read(ies, "text in memory", [&](LexerObject* lexer) {
        return LexerInterface::InitText(lexer, text, length, LEXERINITFLAGS::NONE, nullptr,
                                        STRINGDECODING_BIT8);
    });
}

// Identity, not content: an object equals itself alone.
Int Compare(const IesImpl* a, const IesImpl* b) {
    const auto x = static_cast<Int>(reinterpret_cast<UInt>(a));
    const auto y = static_cast<Int>(reinterpret_cast<UInt>(b));
    return x < y ? -1 : x > y ? 1 : 0;
}

// Deliberately not a working hash: callers that tell webs apart use GetChecksum.
UInt GetHashCode(const IesImpl*) {
    CriticalOutput("Stop: GetHashCode not defined.", SourceLocation{"ies_impl", __LINE__});
    return 0;
}

Result<void> DescribeIO(DescribeStreamObject* stream) {
    using S = DataSerializeInterface;
    QUORV_RETURN_IF_ERROR(S::DescribeMember(stream, "_properties", DATADICTIONARY_TYPE_ID,
                                            offsetof(IesImpl, _properties), nullptr, 0));
    QUORV_RETURN_IF_ERROR(S::DescribeMember(stream, "_anglesVertical", "float64",
                                            offsetof(IesImpl, _anglesVertical), &FLOAT64_ARRAY,
                                            DESCRIBEFLAGS_ARRAY));
    QUORV_RETURN_IF_ERROR(S::DescribeMember(stream, "_anglesHorizontal", "float64",
                                            offsetof(IesImpl, _anglesHorizontal), &FLOAT64_ARRAY,
                                            DESCRIBEFLAGS_ARRAY));
    QUORV_RETURN_IF_ERROR(S::DescribeMember(stream, "_data", "float64", offsetof(IesImpl, _data),
                                            &FLOAT64_ARRAY, DESCRIBEFLAGS_ARRAY));
    QUORV_RETURN_IF_ERROR(S::DescribeMember(stream, "_dataMax", "float64",
                                            offsetof(IesImpl, _dataMax), nullptr, 0));
    QUORV_RETURN_IF_ERROR(S::DescribeMember(stream, "_dataPower", "float64",
                                            offsetof(IesImpl, _dataPower), nullptr, 0));
    return S::DescribeMember(stream, "_checksum", "uint32", offsetof(IesImpl, _checksum), nullptr, 0);
}

Float64 GetLightPowerRatio(const IesImpl* ies) { return ies ? ies->_dataPower : IES_FULL_SPHERE; }

UInt32 GetChecksum(const IesImpl* ies) { return ies ? ies->_checksum : 0; }

const DataDictionary* GetProperties(const IesImpl* ies) { return ies ? &ies->_properties : nullptr; }

Result<String> ConvertToText(const IesImpl* ies) {
    if (!ies) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No IES object");
    Result<std::string> text = [&]() -> Result<std::string> {
        try {
            return WriteText(*ies);
        } catch (...) {
            return OutOfMemoryError();
        }
    }();
    if (text.IsError()) return text.GetError();
    return String::FromText(text.GetValue());
}

void GetRawAccess(IesImpl* ies, DataDictionary** properties, BaseArray<Float64>** anglesVertical,
                  BaseArray<Float64>** anglesHorizontal, BaseArray<Float64>** data,
                  Float64* dataMax, Float64* dataPower) {
    if (!ies) return;
    if (properties) *properties = &ies->_properties;
    if (anglesVertical) *anglesVertical = &ies->_anglesVertical;
    if (anglesHorizontal) *anglesHorizontal = &ies->_anglesHorizontal;
    if (data) *data = &ies->_data;
    if (dataMax) *dataMax = ies->_dataMax;
    if (dataPower) *dataPower = ies->_dataPower;
}

void SetRawAccess(IesImpl* ies, DataDictionary* properties, BaseArray<Float64>* anglesVertical,
                  BaseArray<Float64>* anglesHorizontal, BaseArray<Float64>* data, Float64 dataMax,
                  Float64 dataPower) {
    if (!ies) return;
    // A member handed in as its own source stays as it is.
    if (properties && properties != &ies->_properties) {
        ies->_properties = DataDictionary();
        std::swap(ies->_properties, *properties);
    }
    auto take = [](BaseArray<Float64>& member, BaseArray<Float64>* source) {
        if (!source || source == &member) return;
        member.Reset();
        member.Swap(*source);
    };
    take(ies->_anglesVertical, anglesVertical);
    take(ies->_anglesHorizontal, anglesHorizontal);
    take(ies->_data, data);
    ies->_dataMax = dataMax;
    ies->_dataPower = dataPower;
    ies->_checksum = ComputeChecksum(ies);
}

UInt32 Crc32c(UInt32 crc, const void* bytes, Int length) {
    const auto* p = static_cast<const unsigned char*>(bytes);
    UInt32 c = ~crc;
    const auto& t = CRC_TABLES;
    while (length >= 8) {
        UInt32 lo, hi;
        std::memcpy(&lo, p, 4);
        std::memcpy(&hi, p + 4, 4);
        lo ^= c;
        c = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
            t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
        p += 8;
        length -= 8;
    }
    while (length-- > 0) c = (c >> 8) ^ t[0][(c ^ *p++) & 0xFF];
    return ~c;
}

UInt32 ComputeChecksum(const IesImpl* ies) {
    Int32 version = 0;
    Int32 tilt = 0;
    if (ies->_properties.GetReadable()) {
        version = static_cast<Int32>(ies->_properties.Get<IESVERSION>(IesPropertyVersion, IESVERSION::V1986));
        tilt = static_cast<Int32>(ies->_properties.Get<IESTILT>(IesPropertyTilt, IESTILT::NONE));
    }
    const Int nV = ies->_anglesVertical.GetCount();
    const Int nH = ies->_anglesHorizontal.GetCount();
    UInt32 crc = CrcValue(0, version);
    crc = CrcValue(crc, tilt);
    crc = CrcValue(crc, ies->_dataMax);
    crc = CrcValue(crc, nV);
    crc = CrcValue(crc, nH);
    crc = Crc32c(crc, ies->_anglesVertical.GetFirst(), 8 * nV);
    crc = Crc32c(crc, ies->_anglesHorizontal.GetFirst(), 8 * nH);
    // The data count follows the two angle counts, not the array's own.
    const Int n = nV * nH <= ies->_data.GetCount() ? nV * nH : ies->_data.GetCount();
    return Crc32c(crc, ies->_data.GetFirst(), 8 * n);
}

const IesImpl* GetDefaultIes() { return g_defaultIes; }

}  // namespace quorv::ies
