#pragma once
/// Textures: a loaded picture prepared for rendering (`TextureImpl`, static interface
/// "net.quorv.render.interface.texture"), the per-thread sampler that turns a uv position and a
/// footprint into a colour (`ThreadedTextureImpl`, "net.quorv.render.interface.threadedtexture")
/// and the module's cache of textures by url ("net.quorv.render.interface.texturemanagement").
///
/// A texture is read-only once `Init` has run, but for three acceleration structures built on
/// first use (a MIP chain, a RIP table and a summed area table), each once, as a job, behind a
/// once-only guard word. Any number of samplers on different threads may share one texture;
/// a sampler belongs to one thread at a time.

#include <atomic>

#include "quorv/basearray.h"
#include "quorv/image.h"
#include "quorv/jobs.h"
#include "quorv/observable.h"
#include "quorv/onceguard.h"
#include "quorv/url.h"

namespace quorv {

/// Filter of a sample.
enum class TEXTUREINTERPOLATION : Int32 {
    NONE = 0,
    LINEAR = 2,
    MIP = 3,
    RIP = 4,
    SUMMEDAREA = 5,
    BICUBIC = 6
};
/// Border mode of one axis. The reduction of a position into the unit square is the reverse
/// of what the names suggest (see `ThreadedTextureImpl`).
enum class TEXTUREMODE : Int32 { EXTEND = 0, CLAMP = 1, REPEAT = 2, MIRROR = 3 };
/// Colour space of a sample's result. LINEAR and SRGB give the same numbers.
enum class DESTINATIONCOLORSPACE : Int32 { RAW = 0, LINEAR = 1, SRGB = 2 };
/// Alpha handling of a sample.
enum class ALPHAPROCESSING : Int32 {
    NONE = 0,
    NOALPHA = 1,
    PROFILE_PREMULTIPLIED_TO_LINEAR_STRAIGHT = 2,
    LINEAR_PREMULTIPLIED_TO_LINEAR_STRAIGHT = 3,
    STRAIGHT_FROM_RGB = 4,
};

/// Flag bit of `Init` and `LoadTexture`: convert to a regular floating-point format.
inline constexpr UInt32 TEXTURE_FLAG_CONVERT_TO_FLOAT = 1;

/// One reduced level of a pyramid. Level 0 of each structure, and the RIP entries that served
/// only as sources, keep no texels: their values come from the picture.
struct TextureLevel {
    BaseArray<UInt8> texels;  ///< row major, stride = width, texels in the storage format
    Int width = 0;
    Int height = 0;
    Int scaleX = 1;  ///< reduction along x, a power of two
    Int scaleY = 1;
    bool HasTexels() const { return texels.GetCount() > 0; }
};

/// MIP chain and RIP table.
struct TexturePyramid {
    Int levelsX = 1;
    Int levelsY = 1;
    TextureLevel* ripLevels = nullptr;  ///< levelsX * levelsY, x fastest
    TextureLevel* mipLevels = nullptr;  ///< mipCount, entry 0 the full picture, the last 1 x 1
    Int mipCount = 0;
    ~TexturePyramid();
    const TextureLevel& Rip(Int i, Int j) const { return ripLevels[j * levelsX + i]; }
};

/// Sums of 8-bit channel values from (0, 0) to (x, y), both included: 3 or 4 per entry.
struct TextureSummedAreaTable {
    BaseArray<UInt32> sums;
    Int channels = 3;
};

/// States of a lazy structure.
inline constexpr Int32 TEXTURE_STATE_NOT_BUILT = 0;
inline constexpr Int32 TEXTURE_STATE_FAILED = 1;
inline constexpr Int32 TEXTURE_STATE_READY = 2;

/// One loaded picture. A counted object made by the module; callers hold it through
/// `TextureRef`.
struct TextureImpl {
    Ref<ImageTextureObject> image;
    Bool hasAlpha = false;
    Bool is16Bit = false;
    Bool isFloat = false;
    Bool wasConverted = false;
    Url url;
    Int width = 0;
    Int height = 0;
    Float64 inverseWidth = 1.0;
    Float64 inverseHeight = 1.0;
    const PixelFormatObject* readFormat = nullptr;
    const PixelFormatObject* convertFormat = nullptr;
    const PixelFormatObject* storageFormat = nullptr;
    Ref<ColorProfileConvertObject> colorConversion;
    Bool isSRGB = false;
    Bool isGrey = false;
    std::atomic<Int32> summedAreaState{TEXTURE_STATE_NOT_BUILT};
    std::atomic<Int32> pyramidState{TEXTURE_STATE_NOT_BUILT};
    TexturePyramid* pyramid = nullptr;
    TextureSummedAreaTable* summedAreaTable = nullptr;
    Bool noSummedAreaTable = false;
    OnceGuard pyramidGuard;
    OnceGuard summedAreaGuard;
    Float64 frameRate = 30.0;
    Float64 duration = 0.0;
    Ref<LayerSetObject> layerSet;

    TextureImpl() = default;
    ~TextureImpl();
    TextureImpl(const TextureImpl&) = delete;
    TextureImpl& operator=(const TextureImpl&) = delete;
};

/// Per-thread reader of a texture.
struct ThreadedTextureImpl {
    PixelReadHandler* getPixel = nullptr;  ///< the sampler's own, in the texture's read format
    Ref<TextureImpl> _texture;
    TextureImpl* _impl = nullptr;
    ~ThreadedTextureImpl();
};

// clang-format off
#define QUORV_TEXTURE_METHODS(M) \
    M(void, Free, (TextureImpl* texture), (texture)) \
    M(TextureImpl*, Alloc, (const SourceLocation& loc), (loc)) \
    M(Result<void>, Init, (TextureImpl* texture, const UrlObject* url, UInt32 flags, const LayerSetObject* layerSet, Float64 time), (texture, url, flags, layerSet, time)) \
    M(Bool, IsRegularFloatingPointFormat, (const TextureImpl* texture), (texture)) \
    M(ImageTextureObject*, GetImage, (const TextureImpl* texture), (texture))
#define QUORV_THREADEDTEXTURE_METHODS(M) \
    M(void, Free, (ThreadedTextureImpl* sampler), (sampler)) \
    M(ThreadedTextureImpl*, Alloc, (const SourceLocation& loc), (loc)) \
    M(Result<void>, Init, (ThreadedTextureImpl* sampler, TextureImpl* texture), (sampler, texture)) \
    M(Result<void>, GetDetails, (const ThreadedTextureImpl* sampler, Int* width, Int* height, Float64* fps, Float64* duration), (sampler, width, height, fps, duration)) \
    M(ColorA64*, Sample, (ThreadedTextureImpl* sampler, ColorA64* result, const Vector2d64& uv, const Vector2d64& footprint, TEXTUREMODE modeU, TEXTUREMODE modeV, TEXTUREINTERPOLATION interpolation, DESTINATIONCOLORSPACE colorSpace, ALPHAPROCESSING alphaProcessing, Bool tile), (sampler, result, uv, footprint, modeU, modeV, interpolation, colorSpace, alphaProcessing, tile)) \
    M(ImageTextureObject*, GetImage, (const ThreadedTextureImpl* sampler), (sampler))
/// Maps the time of a `LoadTexture` request once the picture's duration is known; may change
/// `time`. An error ends the request.
struct TextureTimeMapper {
    Result<void> (*call)(void* user, Float64 duration, Float64* time) = nullptr;
    void* user = nullptr;
};
#define QUORV_TEXTUREMANAGEMENT_METHODS(M) \
    M(Result<TextureImpl*>, LoadTexture, (const UrlObject* url, const UrlObject* const* searchPaths, Int searchPathCount, UInt32 flags, const LayerSetObject* layerSet, Float64 time, const TextureTimeMapper* timeMapper), (url, searchPaths, searchPathCount, flags, layerSet, time, timeMapper)) \
    M(Result<UrlObject*>, ResolveUrl, (const UrlObject* url, const UrlObject* const* searchPaths, Int searchPathCount), (url, searchPaths, searchPathCount)) \
    M(void, AllowReinitialization, (), ()) \
    M(void, FlushUnused, (), ()) \
    M(void, FlushAll, (), ()) \
    M(ObservableObject*, ObservableFlushed, (Bool create), (create))
// clang-format on

/// Textures. `Alloc` answers an empty texture with one reference (null when memory is short);
/// `Free` drops a reference. `Init(url, flags, layerSet, time)` loads the picture and fixes
/// formats and colour handling; every error comes back wrapped as "TextureImpl::Init Error: @".
/// `GetImage` answers the picture without adding a reference.
QUORV_NONVIRTUAL_INTERFACE(TextureInterface, "net.quorv.render.interface.texture",
                           QUORV_TEXTURE_METHODS);

/// Samplers. `Init` binds a texture (an illegal-argument error without one). `Sample` writes
/// red, green, blue, alpha into `result` and returns it; it never fails (a structure that could
/// not be built gives black with alpha 1) and takes no lock once the structures it needs exist.
QUORV_NONVIRTUAL_INTERFACE(ThreadedTextureInterface, "net.quorv.render.interface.threadedtexture",
                           QUORV_THREADEDTEXTURE_METHODS);

/// The module's cache of textures. `LoadTexture` resolves the url ("relative" urls against the
/// search paths, first path first), loads each picture variant (url, conversion flag, layer set,
/// time clamped into the picture's duration) once however many threads ask, and answers the
/// shared texture with a new reference; a failed load answers its error to every caller until
/// `AllowReinitialization` or a flush. `FlushUnused` empties entries nobody outside holds,
/// `FlushAll` every entry (held textures go on working, unshared), and both notify the
/// observable of `ObservableFlushed` (made at first use when `create` is set; not referenced
/// for the caller). Relative urls that cannot be resolved give "Could not load relative path".
QUORV_NONVIRTUAL_INTERFACE(TextureManagementInterface,
                           "net.quorv.render.interface.texturemanagement",
                           QUORV_TEXTUREMANAGEMENT_METHODS);

/// Owning handle of a texture.
class TextureRef {
public:
    TextureRef() = default;
    TextureRef(const TextureRef& o) : _p(o._p) { AddReference(_p); }
    TextureRef(TextureRef&& o) noexcept : _p(std::exchange(o._p, nullptr)) {}
    TextureRef& operator=(TextureRef o) noexcept {
        std::swap(_p, o._p);
        return *this;
    }
    ~TextureRef() {
        if (_p) TextureInterface::Free(_p);
    }
    static TextureRef Adopt(TextureImpl* p) {
        TextureRef r;
        r._p = p;
        return r;
    }
    /// A texture loaded from `url`.
    static Result<TextureRef> Load(const Url& url, UInt32 flags = 0,
                                   const LayerSetObject* layerSet = nullptr, Float64 time = 0.0) {
        TextureRef r = Adopt(TextureInterface::Alloc(QUORV_SOURCE_LOCATION));
        if (!r._p) return OutOfMemoryError();
        QUORV_RETURN_IF_ERROR(TextureInterface::Init(r._p, url.GetObject(), flags, layerSet, time));
        return r;
    }
    TextureImpl* Get() const { return _p; }
    TextureImpl* operator->() const { return _p; }
    explicit operator bool() const { return _p != nullptr; }

private:
    TextureImpl* _p = nullptr;
};

/// Owning handle of a sampler.
class ThreadedTextureRef {
public:
    ThreadedTextureRef() = default;
    ThreadedTextureRef(const ThreadedTextureRef&) = delete;
    ThreadedTextureRef& operator=(const ThreadedTextureRef&) = delete;
    ThreadedTextureRef(ThreadedTextureRef&& o) noexcept : _p(std::exchange(o._p, nullptr)) {}
    ThreadedTextureRef& operator=(ThreadedTextureRef&& o) noexcept {
        std::swap(_p, o._p);
        return *this;
    }
    ~ThreadedTextureRef() {
        if (_p) ThreadedTextureInterface::Free(_p);
    }
    /// A sampler of `texture`.
    static Result<ThreadedTextureRef> Create(const TextureRef& texture) {
        ThreadedTextureRef r;
        r._p = ThreadedTextureInterface::Alloc(QUORV_SOURCE_LOCATION);
        if (!r._p) return OutOfMemoryError();
        QUORV_RETURN_IF_ERROR(ThreadedTextureInterface::Init(r._p, texture.Get()));
        return r;
    }
    ColorA64 Sample(Vector2d64 uv, Vector2d64 footprint, TEXTUREMODE modeU, TEXTUREMODE modeV,
                    TEXTUREINTERPOLATION interpolation,
                    DESTINATIONCOLORSPACE colorSpace = DESTINATIONCOLORSPACE::RAW,
                    ALPHAPROCESSING alpha = ALPHAPROCESSING::NONE, Bool tile = true) const {
        ColorA64 c;
        ThreadedTextureInterface::Sample(_p, &c, uv, footprint, modeU, modeV, interpolation,
                                         colorSpace, alpha, tile);
        return c;
    }
    ThreadedTextureImpl* Get() const { return _p; }

private:
    ThreadedTextureImpl* _p = nullptr;
};

}  // namespace quorv
