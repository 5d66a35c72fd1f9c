#pragma once
/// Photometric webs: the candela distribution of a luminaire read from an IES LM-63 file, with
/// its header properties, the light intensity per direction and a preview picture. Reached
/// through the static interface "net.quorv.render.interface.ies" (`IesInterface`), whose
/// table the module supplies; callers hold webs through `IesRef`.

#include "quorv/basearray.h"
#include "quorv/datadictionary.h"
#include "quorv/dataserialize.h"
#include "quorv/string.h"
#include "quorv/url.h"

namespace quorv {

/// Version of the file format a web was read from.
enum class IESVERSION : Int32 { V1986 = 0, V1991 = 1, V1995 = 2, V2002 = 3 };
/// Tilt kind of the file. `FILE` is never produced by the reader.
enum class IESTILT : Int32 { UNKNOWN = 0, NONE = 1, INCLUDE = 2, FILE = 3 };
/// Luminous shape of the luminaire.
enum class AREALIGHTSHAPE : Int32 {
    NONE = 0,
    DISC = 1,
    RECTANGLE = 2,
    SPHERE = 3,
    CYLINDER = 4,
    CUBE = 5,
    HEMISPHERE = 6,
    OBJECT = 7,
    LINE = 8,
    PCYLINDER = 9,
};

QUORV_DATATYPE_ID(IESVERSION, "net.quorv.render.datatype.iesversion");
QUORV_DATATYPE_ID(IESTILT, "net.quorv.render.datatype.iestilt");
QUORV_DATATYPE_ID(AREALIGHTSHAPE, "net.quorv.render.datatype.arealightshape");

/// Integer keys of the property dictionary, with their value types.
inline constexpr Int32 IesPropertyVersion = 1000;           ///< IESVERSION
inline constexpr Int32 IesPropertyTilt = 1001;              ///< IESTILT
inline constexpr Int32 IesPropertyManufacturer = 1002;      ///< std::string
inline constexpr Int32 IesPropertyLuminaireCatalog = 1003;  ///< std::string
inline constexpr Int32 IesPropertyLuminaire = 1004;         ///< std::string
inline constexpr Int32 IesPropertyLampCatalog = 1005;       ///< std::string
inline constexpr Int32 IesPropertyLamp = 1006;              ///< std::string
inline constexpr Int32 IesPropertyShape = 1007;             ///< AREALIGHTSHAPE
inline constexpr Int32 IesPropertySize = 1008;              ///< Vector64, metres
inline constexpr Int32 IesPropertyMaxIntensity = 1009;      ///< Float64

/// Solid angle of the whole sphere: the power ratio of a web that is everywhere at its maximum.
inline constexpr Float64 IES_FULL_SPHERE = 12.566370614359172;

/// One photometric web. A counted object (header of quorv/ref.h ahead of it).
struct IesImpl {
    DataDictionary _properties;
    BaseArray<Float64> _anglesVertical;    ///< degrees, count nV
    BaseArray<Float64> _anglesHorizontal;  ///< degrees, count nH
    BaseArray<Float64> _data;              ///< scaled candela, h * nV + v
    Float64 _dataMax = 0.0;
    Float64 _dataPower = IES_FULL_SPHERE;
    UInt32 _checksum = 0;
};

struct PixelFormatObject;
struct ImageObject;

/// Receives one finished row of a preview: `count` values in the pixel format `format` (grey
/// Float32, "net.quorv.image.pixelformat.grey.f32"; null when the host has no pixel formats).
/// Called from worker threads, one row at a time per call, rows in any order.
struct PreviewSetLine {
    Result<void> (*call)(void* user, Int row, const Float32* values, Int count,
                         const PixelFormatObject* format) = nullptr;
    void* user = nullptr;
};

/// Receives the share of rows done, 0 to 1, after each row. Called from worker threads.
struct PreviewProgress {
    Result<void> (*call)(void* user, Float64 done) = nullptr;
    void* user = nullptr;
};

/// A caller's picture of grey Float32 values, `stride` values from one row to the next.
struct GreyImage32 {
    Int width = 0;
    Int height = 0;
    Int stride = 0;
    Float32* pixels = nullptr;
};

/// A `setLine` that copies each row into a caller's plain array, for callers that render with
/// `GeneratePreviewImageRows` into memory of their own rather than into a host image. Rows come
/// from several threads; each writes its own row only.
inline PreviewSetLine ArraySetLine(const GreyImage32* image) {
    PreviewSetLine setLine;
    setLine.user = const_cast<GreyImage32*>(image);
    setLine.call = [](void* user, Int row, const Float32* values, Int count,
                      const PixelFormatObject*) -> Result<void> {
        auto* target = static_cast<GreyImage32*>(user);
        Float32* out = target->pixels + row * target->stride;
        for (Int i = 0; i < count; ++i) out[i] = values[i];
        return OK;
    };
    return setLine;
}

// clang-format off
#define QUORV_IES_METHODS(M) \
    M(void, Free, (IesImpl* ies), (ies)) \
    M(IesImpl*, Alloc, (const SourceLocation& loc), (loc)) \
    M(IesImpl*, AllocCopy, (const IesImpl* source, const SourceLocation& loc), (source, loc)) \
    M(Result<void>, Init, (IesImpl* ies, const UrlObject* url), (ies, url)) \
    M(Int, Compare, (const IesImpl* a, const IesImpl* b), (a, b)) \
    M(UInt, GetHashCode, (const IesImpl* ies), (ies)) \
    M(Result<void>, DescribeIO, (DescribeStreamObject* stream), (stream)) \
    M(Float64, ComputeLightIntensity, (const IesImpl* ies, const Vector64& direction), (ies, direction)) \
    M(Float64, GetLightPowerRatio, (const IesImpl* ies), (ies)) \
    M(UInt32, GetChecksum, (const IesImpl* ies), (ies)) \
    M(const DataDictionary*, GetProperties, (const IesImpl* ies), (ies)) \
    M(Result<void>, GeneratePreviewImage, (const IesImpl* ies, ImageObject* image), (ies, image)) \
    M(Result<String>, ConvertToText, (const IesImpl* ies), (ies)) \
    M(Result<void>, GeneratePreviewImageRows, (const IesImpl* ies, Int width, Int height, const PreviewSetLine& setLine, const PreviewProgress* progress), (ies, width, height, setLine, progress)) \
    M(void, GetRawAccess, (IesImpl* ies, DataDictionary** properties, BaseArray<Float64>** anglesVertical, BaseArray<Float64>** anglesHorizontal, BaseArray<Float64>** data, Float64* dataMax, Float64* dataPower), (ies, properties, anglesVertical, anglesHorizontal, data, dataMax, dataPower)) \
    M(void, SetRawAccess, (IesImpl* ies, DataDictionary* properties, BaseArray<Float64>* anglesVertical, BaseArray<Float64>* anglesHorizontal, BaseArray<Float64>* data, Float64 dataMax, Float64 dataPower), (ies, properties, anglesVertical, anglesHorizontal, data, dataMax, dataPower))
// clang-format on
/// `Alloc` and `AllocCopy` answer a web with one reference, or null when memory is short;
/// `Free` drops a reference. `GeneratePreviewImageRows` is the second `GeneratePreviewImage`:
/// it renders by rows through the delegates.
QUORV_NONVIRTUAL_INTERFACE(IesInterface, "net.quorv.render.interface.ies", QUORV_IES_METHODS);

/// Owning handle of a web.
class IesRef {
public:
    IesRef() = default;
    IesRef(const IesRef& o) : _p(o._p) { AddReference(_p); }
    IesRef(IesRef&& o) noexcept : _p(std::exchange(o._p, nullptr)) {}
    IesRef& operator=(IesRef o) noexcept {
        std::swap(_p, o._p);
        return *this;
    }
    ~IesRef() {
        if (_p) IesInterface::Free(_p);
    }
    /// A new empty web; out of memory gives the kind 0 error.
    static Result<IesRef> Create() {
        IesRef r;
        r._p = IesInterface::Alloc(QUORV_SOURCE_LOCATION);
        if (!r._p) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
        return r;
    }
    /// A new web read from `url`.
    static Result<IesRef> Load(const Url& url) {
        Result<IesRef> r = Create();
        if (r.IsError()) return r;
        QUORV_RETURN_IF_ERROR(IesInterface::Init(r.GetValue().Get(), url.GetObject()));
        return r;
    }

    IesImpl* Get() const { return _p; }
    IesImpl* operator->() const { return _p; }
    explicit operator bool() const { return _p != nullptr; }

private:
    IesImpl* _p = nullptr;
};

}  // namespace quorv
