// The per-thread sampler: position reduction, the six filter families (one template by texel
// type and channel count, so inner loops carry no format test), the colour and alpha steps,
// and the registration of "net.quorv.render.interface.threadedtexture".
#include <algorithm>
#include <cmath>
#include <new>

#include "quorv/entity.h"
#include "render/textures/texture_impl.h"

namespace quorv {

ThreadedTextureImpl::~ThreadedTextureImpl() { RemoveReference(getPixel); }

namespace texturesample {

namespace {

// A level as the filters see it: the full picture is a level without texels at scale 1.
struct LevelView {
    const UInt8* texels;
    Int width;
    Int height;
    Int scaleX;
    Int scaleY;
};

LevelView ViewOf(const TextureLevel& l) {
    return {l.HasTexels() ? l.texels.GetFirst() : nullptr, l.width, l.height, l.scaleX, l.scaleY};
}

struct Pixel4 {
    Float64 v[4];
};

inline Pixel4 Lerp(const Pixel4& a, const Pixel4& b, Float64 t) {
    return {{a.v[0] + t * (b.v[0] - a.v[0]), a.v[1] + t * (b.v[1] - a.v[1]),
             a.v[2] + t * (b.v[2] - a.v[2]), a.v[3] + t * (b.v[3] - a.v[3])}};
}

// Maps a neighbour index into the picture by the mode of its axis. An index that the mapping
// leaves outside (pictures narrower than the filter) reads as index 0.
inline Int MapCoordinate(Int c, Int size, TEXTUREMODE mode) {
    if (c >= 0 && c < size) return c;
    switch (mode) {
        case TEXTUREMODE::CLAMP:
            c = c < 0 ? 0 : size - 1;
            break;
        case TEXTUREMODE::MIRROR:
            c = c < 0 ? -1 - c : 2 * size - 1 - c;
            break;
        default:
            c = c < 0 ? c + size : c - size;
            break;
    }
    return c >= 0 && c < size ? c : 0;
}

template <typename T, int CH>
struct Family {
    static constexpr Float64 SCALE = std::is_same_v<T, UInt8>    ? 1.0 / 255.0
                                     : std::is_same_v<T, UInt16> ? 1.0 / 65535.0
                                                                 : 1.0;
    static constexpr Float64 MAXIMUM = std::is_same_v<T, UInt8> ? 255.0 : 65535.0;

    const ThreadedTextureImpl* s;
    const TextureImpl* t;
    TEXTUREMODE modeU;
    TEXTUREMODE modeV;

    // One pixel of the full picture in the read format.
    Pixel4 Picture(Int x, Int y) const {
        Pixel4 p{{0.0, 0.0, 0.0, 1.0}};
        s->getPixel->read(s->getPixel, x, y, 1, p.v);
        if constexpr (CH == 3) p.v[3] = 1.0;
        return p;
    }

    // `n` (at most 4) neighbouring pixels of one row in one call of the handler.
    void PictureRun(Int x, Int y, Int n, Pixel4* out) const {
        Float64 run[16];
        s->getPixel->read(s->getPixel, x, y, n, run);
        for (Int i = 0; i < n; ++i) {
            const Float64* p = run + i * CH;
            out[i] = {{p[0], p[1], p[2], CH == 4 ? p[CH == 4 ? 3 : 0] : 1.0}};
        }
    }

    // A picture value in the storage type, for the reduction of levels without texels.
    static T ToStorage(Float64 v) {
        if constexpr (std::is_floating_point_v<T>)
            return static_cast<T>(v);
        else
            return static_cast<T>(std::lround(v * MAXIMUM));
    }

    Pixel4 Texel(const LevelView& l, Int x, Int y) const {
        if (l.texels) {
            const T* p = reinterpret_cast<const T*>(l.texels) + (y * l.width + x) * CH;
            Pixel4 r{{p[0] * SCALE, p[1] * SCALE, p[2] * SCALE, 1.0}};
            if constexpr (CH == 4) r.v[3] = p[3] * SCALE;
            return r;
        }
        if (l.scaleX == 1 && l.scaleY == 1) return Picture(x, y);
        // A level that served only as a source: reduce the pixels under its texel as the
        // build did.
        const Int x0 = x * l.scaleX, y0 = y * l.scaleY;
        const Int x1 = l.scaleX > 1 ? std::min(x0 + 1, t->width - 1) : x0;
        const Int y1 = l.scaleY > 1 ? std::min(y0 + 1, t->height - 1) : y0;
        T a[CH], b[CH], c[CH], d[CH], out[CH];
        auto fetch = [&](Int px, Int py, T* dst) {
            Pixel4 p = Picture(px, py);
            for (int k = 0; k < CH; ++k) dst[k] = ToStorage(p.v[k]);
        };
        fetch(x0, y0, a);
        if (l.scaleX > 1 && l.scaleY > 1) {
            fetch(x1, y0, b);
            fetch(x0, y1, c);
            fetch(x1, y1, d);
            texture::Reduce4(a, b, c, d, out, CH);
        } else {
            fetch(x1, y1, b);
            texture::Reduce2(a, b, out, CH);
        }
        Pixel4 r{{out[0] * SCALE, out[1] * SCALE, out[2] * SCALE, 1.0}};
        if constexpr (CH == 4) r.v[3] = out[3] * SCALE;
        return r;
    }

    LevelView Full() const { return {nullptr, t->width, t->height, 1, 1}; }

    Pixel4 Nearest(Float64 u, Float64 v) const {
        Int x = static_cast<Int>(u * static_cast<Float64>(t->width));
        Int y = static_cast<Int>(v * static_cast<Float64>(t->height));
        x = std::clamp<Int>(x, 0, t->width - 1);
        y = std::clamp<Int>(y, 0, t->height - 1);
        return Picture(x, y);
    }

    Pixel4 Bilinear(const LevelView& l, Float64 u, Float64 v) const {
        const Float64 fx = u * static_cast<Float64>(l.width) - 0.5;
        const Float64 fy = v * static_cast<Float64>(l.height) - 0.5;
        const Float64 floorX = std::floor(fx), floorY = std::floor(fy);
        const Float64 tx = fx - floorX, ty = fy - floorY;
        const Int x0 = static_cast<Int>(floorX), y0 = static_cast<Int>(floorY);
        const Int mx0 = MapCoordinate(x0, l.width, modeU),
                  mx1 = MapCoordinate(x0 + 1, l.width, modeU);
        const Int my0 = MapCoordinate(y0, l.height, modeV),
                  my1 = MapCoordinate(y0 + 1, l.height, modeV);
        if (!l.texels && l.scaleX == 1 && l.scaleY == 1 && mx1 == mx0 + 1) {
            // Two pixels of each row in one call.
            Pixel4 top[2], bottom[2];
            PictureRun(mx0, my0, 2, top);
            PictureRun(mx0, my1, 2, bottom);
            return Lerp(Lerp(top[0], bottom[0], ty), Lerp(top[1], bottom[1], ty), tx);
        }
        const Pixel4 left = Lerp(Texel(l, mx0, my0), Texel(l, mx0, my1), ty);
        const Pixel4 right = Lerp(Texel(l, mx1, my0), Texel(l, mx1, my1), ty);
        return Lerp(left, right, tx);
    }

    static void CubicWeights(Float64 t, Float64 w[4]) {
        const Float64 s = 1.0 - t;
        w[0] = s * s * s / 6.0;
        w[1] = 2.0 / 3.0 - (t * t / 2.0) * (2.0 - t);
        w[2] = 2.0 / 3.0 - (s * s / 2.0) * (2.0 - s);
        w[3] = t * t * t / 6.0;
    }

    Pixel4 Bicubic(Float64 u, Float64 v) const {
        const Float64 fx = u * static_cast<Float64>(t->width) - 0.5;
        const Float64 fy = v * static_cast<Float64>(t->height) - 0.5;
        const Float64 floorX = std::floor(fx), floorY = std::floor(fy);
        Float64 wx[4], wy[4];
        CubicWeights(fx - floorX, wx);
        CubicWeights(fy - floorY, wy);
        const Int x0 = static_cast<Int>(floorX), y0 = static_cast<Int>(floorY);
        Int xs[4];
        for (int i = 0; i < 4; ++i) xs[i] = MapCoordinate(x0 - 1 + i, t->width, modeU);
        Pixel4 sum{{0.0, 0.0, 0.0, 0.0}};
        for (int j = 0; j < 4; ++j) {
            const Int y = MapCoordinate(y0 - 1 + j, t->height, modeV);
            Pixel4 row{{0.0, 0.0, 0.0, 0.0}};
            Pixel4 p[4];
            if (xs[3] == xs[0] + 3) {
                PictureRun(xs[0], y, 4, p);
            } else {
                for (int i = 0; i < 4; ++i) p[i] = Picture(xs[i], y);
            }
            for (int i = 0; i < 4; ++i) {
                for (int k = 0; k < 4; ++k) row.v[k] += wx[i] * p[i].v[k];
            }
            for (int k = 0; k < 4; ++k) sum.v[k] += wy[j] * row.v[k];
        }
        return sum;
    }

    static Pixel4 Black() { return {{0.0, 0.0, 0.0, 1.0}}; }

    Pixel4 Mip(Float64 u, Float64 v, Vector2d64 footprint) const {
        texture::EnsurePyramid(const_cast<TextureImpl*>(t));
        if (t->pyramidState.load(std::memory_order_acquire) != TEXTURE_STATE_READY) return Black();
        const TexturePyramid& p = *t->pyramid;
        Float64 l = footprint.x * static_cast<Float64>(t->width) +
                    footprint.y * static_cast<Float64>(t->height);
        Int level = -1;
        do {
            l *= 0.5;
            ++level;
        } while (l >= 1.0 && level <= p.mipCount);
        if (level == 0) return Bicubic(u, v);
        Pixel4 a, b;
        if (level == 1) {
            a = Bicubic(u, v);
            b = Bilinear(ViewOf(p.mipLevels[std::min<Int>(p.mipCount, 2) - 1]), u, v);
        } else {
            a = Bilinear(ViewOf(p.mipLevels[std::min(p.mipCount - 1, level - 1)]), u, v);
            b = Bilinear(ViewOf(p.mipLevels[std::min(p.mipCount - 1, level)]), u, v);
        }
        // The square of the blend weight is deliberate.
        const Float64 w = (2.0 * l - 1.0) * (2.0 * l - 1.0);
        return Lerp(a, b, w);
    }

    Pixel4 RipEntry(const TexturePyramid& p, Int i, Int j, Float64 u, Float64 v) const {
        i = std::min(i, p.levelsX - 1);
        j = std::min(j, p.levelsY - 1);
        if (i == 0 && j == 0) return Bicubic(u, v);
        return Bilinear(ViewOf(p.Rip(i, j)), u, v);
    }

    Pixel4 Rip(Float64 u, Float64 v, Vector2d64 footprint) const {
        texture::EnsurePyramid(const_cast<TextureImpl*>(t));
        if (t->pyramidState.load(std::memory_order_acquire) != TEXTURE_STATE_READY) return Black();
        const TexturePyramid& p = *t->pyramid;
        Float64 lx = footprint.x * static_cast<Float64>(t->width);
        Float64 ly = footprint.y * static_cast<Float64>(t->height);
        Int ix = 0, iy = 0;
        while (lx >= 1.0 && ix < p.levelsX) {
            lx *= 0.5;
            ++ix;
        }
        while (ly >= 1.0 && iy < p.levelsY) {
            ly *= 0.5;
            ++iy;
        }
        if (ix == 0 && iy == 0) return Bicubic(u, v);
        // Index ix - 1 or iy - 1 below 0 is not fetched: the partner stands in.
        const Int fineX = ix > 0 ? ix - 1 : ix;
        const Int fineY = iy > 0 ? iy - 1 : iy;
        const Float64 tx = 2.0 * lx - 1.0;
        const Float64 ty = 2.0 * ly - 1.0;
        const Pixel4 f00 = RipEntry(p, fineX, fineY, u, v);
        const Pixel4 f10 = fineX == ix ? f00 : RipEntry(p, ix, fineY, u, v);
        const Pixel4 top = Lerp(f00, f10, tx);
        if (fineY == iy) return top;
        const Pixel4 f01 = RipEntry(p, fineX, iy, u, v);
        const Pixel4 f11 = fineX == ix ? f01 : RipEntry(p, ix, iy, u, v);
        return Lerp(top, Lerp(f01, f11, tx), ty);
    }

    // The table at a continuous position: bilinear between the entries around
    // (u * width - 1, v * height - 1); index -1 reads 0, and the end takes the last entry.
    void TableAt(const TextureSummedAreaTable& table, Float64 u, Float64 v, Float64 out[4]) const {
        const Float64 fx = u * static_cast<Float64>(t->width) - 1.0;
        const Float64 fy = v * static_cast<Float64>(t->height) - 1.0;
        const Float64 floorX = std::floor(fx), floorY = std::floor(fy);
        const Float64 tx = fx - floorX, ty = fy - floorY;
        const Int x0 = static_cast<Int>(floorX), y0 = static_cast<Int>(floorY);
        const Int w = t->width, h = t->height;
        auto entry = [&](Int x, Int y, int c) -> Float64 {
            if (x < 0 || y < 0) return 0.0;
            x = std::min(x, w - 1);
            y = std::min(y, h - 1);
            return static_cast<Float64>(table.sums[(y * w + x) * CH + c]);
        };
        for (int c = 0; c < CH; ++c) {
            const Float64 e00 = entry(x0, y0, c), e10 = entry(x0 + 1, y0, c);
            const Float64 e01 = entry(x0, y0 + 1, c), e11 = entry(x0 + 1, y0 + 1, c);
            const Float64 top = e00 + tx * (e10 - e00);
            const Float64 bottom = e01 + tx * (e11 - e01);
            out[c] = top + ty * (bottom - top);
        }
    }

    void Rect(const TextureSummedAreaTable& table, Float64 x0, Float64 x1, Float64 y0, Float64 y1,
              Float64 scale, Float64 sum[4]) const {
        Float64 a[4], b[4], c[4], d[4];
        TableAt(table, x1, y1, a);
        TableAt(table, x0, y1, b);
        TableAt(table, x1, y0, c);
        TableAt(table, x0, y0, d);
        for (int k = 0; k < CH; ++k) sum[k] += scale * (a[k] - b[k] - c[k] + d[k]);
    }

    Pixel4 SummedArea(Float64 u, Float64 v, Vector2d64 footprint) const {
        if constexpr (!std::is_same_v<T, UInt8>) {
            // Deeper texels have no table.
            return Rip(u, v, footprint);
        } else {
            texture::EnsureSummedAreaTable(const_cast<TextureImpl*>(t));
            if (t->summedAreaState.load(std::memory_order_acquire) != TEXTURE_STATE_READY)
                return Black();
            if (t->noSummedAreaTable) return Rip(u, v, footprint);
            const TextureSummedAreaTable& table = *t->summedAreaTable;
            Float64 uMin = u - footprint.x / 2.0, uMax = u + footprint.x / 2.0;
            Float64 vMin = v - footprint.y / 2.0, vMax = v + footprint.y / 2.0;
            if (uMax - uMin < t->inverseWidth) {
                uMin = u - t->inverseWidth / 2.0;
                uMax = u + t->inverseWidth / 2.0;
            }
            if (vMax - vMin < t->inverseHeight) {
                vMin = v - t->inverseHeight / 2.0;
                vMax = v + t->inverseHeight / 2.0;
            }
            Float64 sum[4] = {0.0, 0.0, 0.0, 0.0};
            if (modeU == TEXTUREMODE::CLAMP && modeV == TEXTUREMODE::CLAMP) {
                uMin = std::max(uMin, 0.0);
                vMin = std::max(vMin, 0.0);
                uMax = std::min(uMax, 1.0);
                vMax = std::min(vMax, 1.0);
                Rect(table, uMin, uMax, vMin, vMax, 1.0, sum);
            } else {
                // Periodic: the part within one period (wrapping round the ends when the upper
                // fraction lies below the lower), whole bands, and whole pictures. With an extent
                // of exactly whole periods the two fractions may round apart and add one more
                // period; the sum is kept as written, since results so far were made with it.
                const Float64 a = uMin - std::floor(uMin), b = uMax - std::floor(uMax);
                const Float64 c = vMin - std::floor(vMin), d = vMax - std::floor(vMax);
                const Float64 wholeX = std::floor(uMax - uMin), wholeY = std::floor(vMax - vMin);
                Float64 xs[2][2];
                Float64 ys[2][2];
                int nx = 0, ny = 0;
                if (b >= a) {
                    xs[nx][0] = a, xs[nx++][1] = b;
                } else {
                    xs[nx][0] = a, xs[nx++][1] = 1.0;
                    xs[nx][0] = 0.0, xs[nx++][1] = b;
                }
                if (d >= c) {
                    ys[ny][0] = c, ys[ny++][1] = d;
                } else {
                    ys[ny][0] = c, ys[ny++][1] = 1.0;
                    ys[ny][0] = 0.0, ys[ny++][1] = d;
                }
                for (int i = 0; i < nx; ++i) {
                    for (int j = 0; j < ny; ++j)
                        Rect(table, xs[i][0], xs[i][1], ys[j][0], ys[j][1], 1.0, sum);
                }
                if (wholeX >= 1.0) {
                    for (int j = 0; j < ny; ++j)
                        Rect(table, 0.0, 1.0, ys[j][0], ys[j][1], wholeX, sum);
                }
                if (wholeY >= 1.0) {
                    for (int i = 0; i < nx; ++i)
                        Rect(table, xs[i][0], xs[i][1], 0.0, 1.0, wholeY, sum);
                }
                if (wholeX >= 1.0 && wholeY >= 1.0) {
                    const UInt32* last = table.sums.GetFirst() + (t->width * t->height - 1) * CH;
                    for (int k = 0; k < CH; ++k)
                        sum[k] += wholeX * wholeY * static_cast<Float64>(last[k]);
                }
            }
            const Float64 area = (uMax - uMin) * (vMax - vMin) * 255.0 *
                                 static_cast<Float64>(t->width) * static_cast<Float64>(t->height);
            Pixel4 r{{0.0, 0.0, 0.0, 1.0}};
            for (int k = 0; k < CH; ++k) {
                const Float64 value = area != 0.0 ? sum[k] / area : 0.0;
                r.v[k] = value < 0.00001 ? 0.0 : value;
            }
            return r;
        }
    }

    Pixel4 Filter(Float64 u, Float64 v, Vector2d64 footprint,
                  TEXTUREINTERPOLATION interpolation) const {
        using I = TEXTUREINTERPOLATION;
        if (interpolation == I::NONE) return Nearest(u, v);
        if (interpolation == I::BICUBIC) return Bicubic(u, v);
        if (footprint.x == 0.0 && footprint.y == 0.0) return Bilinear(Full(), u, v);
        switch (interpolation) {
            case I::MIP:
                return Mip(u, v, footprint);
            case I::RIP:
                return Rip(u, v, footprint);
            case I::SUMMEDAREA:
                return SummedArea(u, v, footprint);
            default:
                return Bilinear(Full(), u, v);
        }
    }
};

// Positions outside the unit square wrap under EXTEND and CLAMP and stick to the edge under
// REPEAT and MIRROR: the reverse of what the names suggest, kept deliberately because it is
// the border behaviour renders made so far depend on.
inline Float64 ReducePosition(Float64 x, TEXTUREMODE mode) {
    if (mode != TEXTUREMODE::REPEAT && mode != TEXTUREMODE::MIRROR) x -= std::floor(x);
    return std::clamp(x, 0.0, 1.0);
}

inline Float64 DecodeSrgb(Float64 c) {
    if (c <= 0.0) return c;
    if (c <= 0.04045) return c * 0.07739938080495357;
    return std::pow((c + 0.055) * 0.9478672985781991, 2.4);
}

inline void Unpremultiply(Pixel4& p) {
    if (p.v[3] == 1.0) return;
    const Float64 f = p.v[3] == 0.0 ? 0.0 : 1.0 / p.v[3];
    p.v[0] *= f;
    p.v[1] *= f;
    p.v[2] *= f;
}

template <typename T, int CH>
Pixel4 RunFamily(const ThreadedTextureImpl* s, Float64 u, Float64 v, Vector2d64 footprint,
                 TEXTUREMODE mu, TEXTUREMODE mv, TEXTUREINTERPOLATION interpolation) {
    const Family<T, CH> family{s, s->_impl, mu, mv};
    return family.Filter(u, v, footprint, interpolation);
}

}  // namespace

void Free(ThreadedTextureImpl* sampler) {
    if (!sampler) return;
    sampler->~ThreadedTextureImpl();
    SystemInterface::Free(sampler);
}

ThreadedTextureImpl* Alloc(const SourceLocation& loc) {
    void* block = SystemInterface::Alloc(static_cast<Int>(sizeof(ThreadedTextureImpl)), loc);
    if (!block) return nullptr;
    return new (block) ThreadedTextureImpl();
}

Error NoTexture() {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     "Illegal argument: Condition _impl != nullptr not fulfilled. ");
}

Result<void> Init(ThreadedTextureImpl* sampler, TextureImpl* texture) {
    if (!sampler) return NoTexture();
    RemoveReference(std::exchange(sampler->getPixel, nullptr));
    sampler->_texture = Ref<TextureImpl>(texture);
    sampler->_impl = texture;
    if (!sampler->_impl) return NoTexture();
    const ImageObject* image = ImageTextureInterface::GetFirstImage(texture->image.Get());
    Result<PixelReadHandler*> h =
        ImageInterface::GetPixelHandler(image, texture->readFormat, nullptr);
    if (h.IsError()) return h.GetError();
    sampler->getPixel = h.GetValue();
    return OK;
}

Result<void> GetDetails(const ThreadedTextureImpl* sampler, Int* width, Int* height, Float64* fps,
                        Float64* duration) {
    if (!sampler || !sampler->_impl) return NoTexture();
    const TextureImpl* t = sampler->_impl;
    if (width) *width = t->width;
    if (height) *height = t->height;
    if (fps) *fps = t->frameRate;
    if (duration) *duration = t->duration;
    return OK;
}

ColorA64* Sample(ThreadedTextureImpl* sampler, ColorA64* result, const Vector2d64& uv,
                 const Vector2d64& footprint, TEXTUREMODE modeU, TEXTUREMODE modeV,
                 TEXTUREINTERPOLATION interpolation, DESTINATIONCOLORSPACE colorSpace,
                 ALPHAPROCESSING alphaProcessing, Bool tile) {
    const TextureImpl* t = sampler ? sampler->_impl : nullptr;
    if (!t || !sampler->getPixel || t->width <= 0 || t->height <= 0) {
        *result = ColorA64{0.0, 0.0, 0.0, 1.0};
        return result;
    }
    const Float64 u = ReducePosition(uv.x, modeU);
    const Float64 v = ReducePosition(1.0 - uv.y, modeV);
    const TEXTUREMODE mu = tile ? modeU : TEXTUREMODE::CLAMP;
    const TEXTUREMODE mv = tile ? modeV : TEXTUREMODE::CLAMP;
    Pixel4 p;
    if (t->isFloat) {
        p = t->hasAlpha ? RunFamily<Float32, 4>(sampler, u, v, footprint, mu, mv, interpolation)
                        : RunFamily<Float32, 3>(sampler, u, v, footprint, mu, mv, interpolation);
    } else if (t->is16Bit) {
        p = t->hasAlpha ? RunFamily<UInt16, 4>(sampler, u, v, footprint, mu, mv, interpolation)
                        : RunFamily<UInt16, 3>(sampler, u, v, footprint, mu, mv, interpolation);
    } else {
        p = t->hasAlpha ? RunFamily<UInt8, 4>(sampler, u, v, footprint, mu, mv, interpolation)
                        : RunFamily<UInt8, 3>(sampler, u, v, footprint, mu, mv, interpolation);
    }
    if (alphaProcessing == ALPHAPROCESSING::NOALPHA)
        p.v[3] = 1.0;
    else if (alphaProcessing == ALPHAPROCESSING::PROFILE_PREMULTIPLIED_TO_LINEAR_STRAIGHT)
        Unpremultiply(p);
    if (colorSpace != DESTINATIONCOLORSPACE::RAW) {
        if (t->isSRGB) {
            for (int k = 0; k < 3; ++k) p.v[k] = DecodeSrgb(p.v[k]);
        } else if (t->colorConversion) {
            Float64 rgb[3] = {p.v[0], p.v[1], p.v[2]};
            ColorProfileConvertInterface::Convert(t->colorConversion.Get(), rgb, rgb, 1);
            p.v[0] = rgb[0];
            if (t->isGrey) {
                p.v[1] = p.v[2] = rgb[0];
            } else {
                p.v[1] = rgb[1];
                p.v[2] = rgb[2];
            }
        }
    }
    if (alphaProcessing == ALPHAPROCESSING::LINEAR_PREMULTIPLIED_TO_LINEAR_STRAIGHT)
        Unpremultiply(p);
    *result = ColorA64{p.v[0], p.v[1], p.v[2], p.v[3]};
    return result;
}

ImageTextureObject* GetImage(const ThreadedTextureImpl* sampler) {
    return sampler && sampler->_impl ? sampler->_impl->image.Get() : nullptr;
}

namespace {

void* const g_functions[] = {
    reinterpret_cast<void*>(&Free),   reinterpret_cast<void*>(&Alloc),
    reinterpret_cast<void*>(&Init),   reinterpret_cast<void*>(&GetDetails),
    reinterpret_cast<void*>(&Sample), reinterpret_cast<void*>(&GetImage),
};
static_assert(sizeof(g_functions) / sizeof(g_functions[0]) == ThreadedTextureInterface::COUNT);
static_assert(std::is_same_v<decltype(&Sample), decltype(ThreadedTextureInterface::Slots::Sample)>);
static_assert(
    std::is_same_v<decltype(&GetDetails), decltype(ThreadedTextureInterface::Slots::GetDetails)>);

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_interfaceNames;
NonVirtualInterfaceRecord g_implementation;
char g_nameRun[ThreadedTextureInterface::NAME_RUN_SIZE];

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    g_interfaceNames.id = LiteralId(ThreadedTextureInterface::INTERFACE_ID);
    g_interfaceNames.methodNames =
        BuildSlotNameRun(ThreadedTextureInterface::Describe(), g_nameRun);
    g_interfaceNames.returnKinds = ThreadedTextureInterface::Describe().returnKinds;
    g_interfaceNames.count = ThreadedTextureInterface::COUNT;
    DefineInterfaceImplementation(g_implementation, g_interfaceNames, g_unit, __FILE__, 0);
    g_implementation.implementation = g_functions;
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace texturesample

}  // namespace quorv
