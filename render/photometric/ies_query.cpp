// What callers get from a web: the relative intensity in a direction, its integral over the
// sphere, and the preview picture of a room lit by the luminaire.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <vector>

#include "quorv/image.h"
#include "quorv/parallel.h"
#include "render/photometric/ies_impl.h"

namespace quorv::ies {

namespace {

constexpr Float64 PI = 3.141592653589793;
constexpr Float64 RAD_TO_DEG = 57.29577951308232;

// Horizontal angle of (x, y), measured from +y towards +x, in radians.
Float64 Azimuth(Float64 x, Float64 y) {
    if (x < 0) return -Azimuth(-x, y);
    if (y < 0) return PI - std::atan(-x / y);
    if (y > 0) return std::atan(x / y);
    return PI / 2;
}

// Cubic Hermite on [i0, i1] of one row, with non-uniform Catmull-Rom tangents.
Float64 Spline(const Float64* V, const Float64* D, Int im, Int i0, Int i1, Int ip, Float64 t) {
    const Float64 dv = V[i1] - V[i0];
    const Float64 p0 = D[i0];
    const Float64 p1 = D[i1];
    const Float64 span0 = V[i1] - V[im];
    const Float64 span1 = V[ip] - V[i0];
    const Float64 T0 = span0 > 0 ? dv / span0 * (D[i1] - D[im]) : 0.0;
    const Float64 T1 = span1 > 0 ? dv / span1 * (D[ip] - D[i0]) : 0.0;
    const Float64 t2 = t * t;
    const Float64 t3 = t2 * t;
    return p0 + T0 * t + (3 * (p1 - p0) - 2 * T0 - T1) * t2 + (T0 + T1 - 2 * (p1 - p0)) * t3;
}

struct Vec {
    Float64 x, y, z;
};
Vec operator+(Vec a, Vec b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
Vec operator-(Vec a, Vec b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vec operator*(Vec a, Float64 s) { return {a.x * s, a.y * s, a.z * s}; }
Vec operator/(Vec a, Float64 s) { return {a.x / s, a.y / s, a.z / s}; }
Float64 Dot(Vec a, Vec b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

struct Wall {
    Vec origin, a, b, normal;
};

constexpr Wall WALLS[6] = {
    {{1, -1, -1}, {0, 1, 0}, {0, 0, 1}, {-1, 0, 0}},
    {{-1, -1, -1}, {0, 1, 0}, {0, 0, 1}, {1, 0, 0}},
    {{-1, 1, -1}, {1, 0, 0}, {0, 0, 1}, {0, -1, 0}},
    {{-1, -1, -1}, {1, 0, 0}, {0, 0, 1}, {0, 1, 0}},
    {{-1, -1, 1}, {1, 0, 0}, {0, 1, 0}, {0, 0, -1}},
    {{-1, -1, -1}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}},
};

constexpr Int GRID = 32;                     // vertices per wall side
constexpr Int CELLS = GRID - 1;              // cells per wall side
constexpr Int WALL_VERTICES = GRID * GRID;   // 1024
constexpr Int VERTICES = 6 * WALL_VERTICES;  // 6144
constexpr Vec LIGHT{0, 0, 0.9};

Int VertexIndex(Int wall, Int x, Int y) { return wall * WALL_VERTICES + y * GRID + x; }

// Light arriving at a point of a wall straight from the luminaire.
Float64 DirectLight(const IesImpl* ies, Vec point, Vec normal) {
    const Vec d = point - LIGHT;
    const Float64 r = std::sqrt(Dot(d, d));
    if (r == 0) return 0.0;
    const Vec w = d / r;
    // The luminaire's frame: the web's z axis points along world -y.
    const Float64 intensity = ComputeLightIntensity(ies, Vector64{w.x, -w.z, -w.y});
    const Float64 cosine = std::abs(Dot(normal, d) / r);
    return r > 0 ? intensity * cosine / (r * r) : intensity * cosine * 1000 * 1000;
}

struct Scene {
    std::vector<Float32> direct;    // E per vertex
    std::vector<Float32> indirect;  // bounced light per vertex
};

Result<void> Bounce(const IesImpl* ies, Scene& scene) {
    scene.direct.assign(VERTICES, 0.0f);
    for (Int w = 0; w < 6; ++w) {
        const Wall& wall = WALLS[w];
        for (Int j = 0; j < GRID; ++j) {
            for (Int i = 0; i < GRID; ++i) {
                const Vec p = wall.origin + wall.a * 2 * static_cast<Float64>(i) / 31 +
                              wall.b * 2 * static_cast<Float64>(j) / 31;
                scene.direct[VertexIndex(w, i, j)] =
                    static_cast<Float32>(DirectLight(ies, p, wall.normal));
            }
        }
    }
    UInt32 counts[WALL_VERTICES];
    for (Int y = 0; y < GRID; ++y) {
        for (Int x = 0; x < GRID; ++x) {
            const UInt32 cx = (x == 0 || x == CELLS) ? 1 : 2;
            const UInt32 cy = (y == 0 || y == CELLS) ? 1 : 2;
            counts[y * GRID + x] = cx * cy;
        }
    }
    // The senders are cut into fixed blocks, each summing into an array of its own, and the
    // arrays are added up in block order: the same web gives the same picture to the last bit
    // whatever the number of workers and however the loop hands out the blocks (one array per
    // worker would add in an order that changes from run to run).
    using Sums = std::vector<Float32>;
    constexpr Int BLOCK = 64;
    constexpr Int BLOCKS = (VERTICES + BLOCK - 1) / BLOCK;
    std::vector<Sums> blocks;
    try {
        blocks.assign(static_cast<size_t>(BLOCKS), Sums());
    } catch (...) {
        return OutOfMemoryError();
    }
    auto body = [&](Int from, Int to, Sums& sums) -> Result<void> {
        for (Int v = from; v < to; ++v) {
            const Float32 e = scene.direct[v];
            if (!(static_cast<Float64>(e) > 0.001)) continue;
            const Int sw = v / WALL_VERTICES;
            const Int sx = v % GRID;
            const Int sy = (v % WALL_VERTICES) / GRID;
            const Wall& sender = WALLS[sw];
            // The sender steps by 1/32 where the vertices step by 1/31; deliberate, the
            // picture's brightness was tuned with it.
            const Vec sp = sender.origin + (sender.a * static_cast<Float64>(sx) +
                                            sender.b * static_cast<Float64>(sy)) *
                                               2 / 32;
            const Float64 factor = static_cast<Float64>(e) / 256;
            for (Int rw = 0; rw < 6; ++rw) {
                if (rw == sw) continue;
                const Wall& receiver = WALLS[rw];
                Float32* out = sums.data() + rw * WALL_VERTICES;
                for (Int y = 0; y < CELLS; ++y) {
                    for (Int x = 0; x < CELLS; ++x) {
                        const Vec c =
                            receiver.origin + (receiver.a * (static_cast<Float64>(x) + 0.5) +
                                               receiver.b * (static_cast<Float64>(y) + 0.5)) *
                                                  2 / 32;
                        const Vec d = c - sp;
                        const Float64 q = Dot(d, d);
                        if (!(q > 0)) continue;
                        const Float64 ff =
                            Dot(d, receiver.normal) * -Dot(d, sender.normal) / (q * q);
                        const Float32 add = static_cast<Float32>(ff * factor);
                        out[y * GRID + x] += add;
                        out[y * GRID + x + 1] += add;
                        out[(y + 1) * GRID + x] += add;
                        out[(y + 1) * GRID + x + 1] += add;
                    }
                }
            }
        }
        return OK;
    };
    Result<void> r = ParallelFor(0, BLOCKS, 1, [&](Int a, Int b, Int) -> Result<void> {
        for (Int k = a; k < b; ++k) {
            Sums& sums = blocks[static_cast<size_t>(k)];
            try {
                sums.assign(VERTICES, 0.0f);
            } catch (...) {
                return OutOfMemoryError();
            }
            QUORV_RETURN_IF_ERROR(body(k * BLOCK, std::min<Int>((k + 1) * BLOCK, VERTICES), sums));
        }
        return OK;
    });
    if (r.IsError()) return r;
    scene.indirect.assign(VERTICES, 0.0f);
    for (const Sums& s : blocks) {
        if (s.empty()) continue;
        for (Int v = 0; v < VERTICES; ++v) scene.indirect[v] += s[v];
    }
    for (Int v = 0; v < VERTICES; ++v) {
        scene.indirect[v] *= 1.0f / static_cast<Float32>(counts[v % WALL_VERTICES]);
    }
    return OK;
}

// The grey value of one subsample ray from the camera at (0, 0, -3); false when it hits nothing.
bool Shade(const IesImpl* ies, const Scene& scene, Float64 dx, Float64 dy, Float64* value) {
    const Float64 len = std::sqrt(dx * dx + dy * dy + 1.0);
    const Vec dir{dx / len, dy / len, 1.0 / len};
    Float64 best = 32;
    Int wall = -1;
    auto consider = [&](Float64 distance, Int w) {
        if (distance > 0.0001 && distance < best) {
            best = distance;
            wall = w;
        }
    };
    if (dir.x != 0) consider(1 / std::abs(dir.x), dir.x > 0 ? 0 : 1);
    if (dir.y != 0) consider(1 / std::abs(dir.y), dir.y > 0 ? 2 : 3);
    if (dir.z != 0) consider(4 / dir.z, 4);
    if (wall < 0) return false;
    const Vec hit = Vec{0, 0, -3} + dir * best;
    const Wall& w = WALLS[wall];
    const Float64 direct = DirectLight(ies, hit, w.normal);
    const Float64 ca = (Dot(hit, w.a) + 1) * 0.4999 * 31;
    const Float64 cb = (Dot(hit, w.b) + 1) * 0.4999 * 31;
    // A hit's coordinates are at most 1, so the index is at most 30: the clamp only keeps the
    // far neighbour inside the grid.
    const Int ia = std::clamp<Int>(static_cast<Int>(std::floor(ca)), 0, CELLS - 1);
    const Int ib = std::clamp<Int>(static_cast<Int>(std::floor(cb)), 0, CELLS - 1);
    const auto fa = static_cast<Float32>(ca - static_cast<Float64>(ia));
    const auto fb = static_cast<Float32>(cb - static_cast<Float64>(ib));
    const Float32* g = scene.indirect.data() + wall * WALL_VERTICES;
    const Float32 v00 = g[ib * GRID + ia], v10 = g[ib * GRID + ia + 1];
    const Float32 v01 = g[(ib + 1) * GRID + ia], v11 = g[(ib + 1) * GRID + ia + 1];
    const Float32 low = std::fma(v10 - v00, fa, v00);
    const Float32 high = std::fma(v11 - v01, fa, v01);
    const Float32 indirect = std::fma(high - low, fb, low);
    *value = direct + 0.2 * static_cast<Float64>(indirect);
    return true;
}

}  // namespace

Float64 ComputeLightIntensity(const IesImpl* ies, const Vector64& direction) {
    if (!ies) return 0.0;
    // The factor mirrors the axis (vertical angle 0 is -z) and keeps the poles just off the
    // ends of the table: -z reads at about 0.081 degrees. Deliberate; webs are tuned to it.
    const Float64 c = -0.999999 * direction.z;
    const Float64 theta = c >= 1 ? 0.0 : c <= -1 ? PI : std::acos(c);
    Float64 phiDeg = Azimuth(direction.x, direction.y) * RAD_TO_DEG;
    if (phiDeg < 0) phiDeg += 360;

    const Int nV = ies->_anglesVertical.GetCount();
    const Int nH = ies->_anglesHorizontal.GetCount();
    if (nV == 0 || nH == 0 || ies->_data.GetCount() < nV * nH) return 0.0;
    const Float64* V = ies->_anglesVertical.GetFirst();
    const Float64* H = ies->_anglesHorizontal.GetFirst();
    const Float64 v = theta * RAD_TO_DEG;
    if (v < V[0] || v > V[nV - 1]) return 0.0;

    Int i0 = 0, i1 = 0;
    if (nV >= 2) {
        i1 = nV - 1;
        i0 = nV - 2;
        for (Int i = 1; i < nV; ++i) {
            if (v < V[i]) {
                i0 = i - 1;
                i1 = i;
                break;
            }
        }
    }
    const Int im = std::min<Int>(std::max<Int>(i0, 1) - 1, nV - 1);
    const Int ip = std::min<Int>(i1 + 1, nV - 1);
    const Float64 vSpan = V[i1] - V[i0];
    const Float64 t = vSpan > 0 ? (v - V[i0]) / vSpan : 1.0;

    const Float64 h0 = H[0];
    const Float64 range = H[nH - 1] - h0;
    Float64 f;
    if (range < 90) {
        f = 0;
    } else if (range < 135) {
        f = phiDeg <= 90    ? phiDeg
            : phiDeg <= 180 ? 180 - phiDeg
            : phiDeg <= 270 ? phiDeg - 180
                            : 360 - phiDeg;
    } else if (range < 225) {
        const Float64 d = std::abs(h0 - phiDeg);
        f = d > 180 ? 360 - d : d;
    } else {
        f = phiDeg;
    }

    Int j0 = 0, j1 = 0;
    if (nH >= 2) {
        j1 = nH - 1;
        j0 = nH - 2;
        for (Int j = 1; j < nH; ++j) {
            if (f < H[j] - h0) {
                j0 = j - 1;
                j1 = j;
                break;
            }
        }
    }
    const Float64 hSpan = H[j1] - H[j0];
    const Float64 s = hSpan > 0 ? (f - (H[j0] - h0)) / hSpan : 1.0;

    const Float64* D = ies->_data.GetFirst();
    const Float64 r0 = Spline(V, D + j0 * nV, im, i0, i1, ip, t);
    const Float64 r1 = Spline(V, D + j1 * nV, im, i0, i1, ip, t);
    const Float64 blended = s * r1 + (1 - s) * r0;
    const Float64 inverse = ies->_dataMax != 0 ? 1 / ies->_dataMax : 0.0;
    const Float64 result = blended * inverse;
    return result < 0 ? 0.0 : result;
}

Float64 ComputeDataPower(const IesImpl* ies) {
    UInt32 state = 6906901;
    auto next = [&] {
        state = 1 + state * 69069u;
        return static_cast<Float64>(state) * 2.3283064365386963e-10 * 2 - 1;
    };
    Float64 sum = 0.0;
    for (Int accepted = 0; accepted < 65536;) {
        const Float64 a = next();
        const Float64 b = next();
        const Float64 c = next();
        const Float64 l2 = a * a + b * b + c * c;
        if (l2 > 1) continue;
        const Float64 length = std::sqrt(l2);
        const Float64 inverse = length != 0 ? 1 / length : 0.0;
        sum += ComputeLightIntensity(ies, Vector64{c * inverse, b * inverse, a * inverse});
        ++accepted;
    }
    const Float64 power = sum * 0.00019174759848570515;
    return power < 1e-7 ? IES_FULL_SPHERE : power;
}

Result<void> GeneratePreviewImageRows(const IesImpl* ies, Int width, Int height,
                                      const PreviewSetLine& setLine,
                                      const PreviewProgress* progress) {
    if (width != height) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "Width and height of image must match.");
    }
    if (!ies || !setLine.call) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION,
                         "No IES object or line delegate");
    }
    if (width <= 0) return OK;
    const Int N = width;
    Scene scene;
    try {
        QUORV_RETURN_IF_ERROR(Bounce(ies, scene));
    } catch (...) {
        return OutOfMemoryError();
    }
    const PixelFormatObject* lineFormat = FindPixelFormat("grey.f32");
    std::atomic<Int> rowsDone{0};
    using Row = std::vector<Float32>;
    auto make = [&] { return Row(static_cast<size_t>(N)); };
    auto body = [&](Int from, Int to, Row& row) -> Result<void> {
        const Float64 step = 1.001 / static_cast<Float64>(N);
        const Int half = N / 2;
        for (Int py = from; py < to; ++py) {
            for (Int px = 0; px < N; ++px) {
                Float64 sum = 0.0;
                for (Int l = 0; l < 4; ++l) {
                    const Float64 dy =
                        step * (static_cast<Float64>(py) + l / 4.0 - static_cast<Float64>(half));
                    for (Int k = 0; k < 4; ++k) {
                        const Float64 dx = step * (static_cast<Float64>(px) + k / 4.0 -
                                                   static_cast<Float64>(half));
                        Float64 value;
                        if (Shade(ies, scene, dx, dy, &value)) sum += value;
                    }
                }
                row[static_cast<size_t>(px)] = static_cast<Float32>(sum * 0.0625);
            }
            QUORV_RETURN_IF_ERROR(setLine.call(setLine.user, py, row.data(), N, lineFormat));
            const Int done = rowsDone.fetch_add(1) + 1;
            if (progress && progress->call) {
                QUORV_RETURN_IF_ERROR(progress->call(
                    progress->user, static_cast<Float64>(done) / static_cast<Float64>(N)));
            }
        }
        return OK;
    };
    auto finish = [](std::vector<Row>&) -> Result<void> { return OK; };
    try {
        return ParallelForWithContext<Row>(0, N, 1, make, body, finish);
    } catch (...) {
        return OutOfMemoryError();
    }
}

Result<void> GeneratePreviewImage(const IesImpl* ies, ImageObject* image) {
    if (!image) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No image");
    // The rows arrive as grey Float32; the image's set-pixel handler converts them into the
    // image's own format. The size goes on unchanged, so a non-square image gets the rows
    // operation's error.
    const PixelFormatObject* grey = FindPixelFormat("grey.f32");
    if (!grey) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "No grey.f32 pixel format");
    }
    Result<PixelWriteHandler*> handler = ImageInterface::SetPixelHandler(image, grey);
    if (handler.IsError()) return handler.GetError();
    Ref<PixelWriteHandler> write = Ref<PixelWriteHandler>::Adopt(handler.GetValue());
    PreviewSetLine setLine;
    setLine.user = write.Get();
    // The handler keeps no state between calls, so rows may be written from several threads.
    setLine.call = [](void* user, Int row, const Float32* values, Int count,
                      const PixelFormatObject*) -> Result<void> {
        auto* target = static_cast<PixelWriteHandler*>(user);
        target->write(target, 0, row, count, values);
        return OK;
    };
    return GeneratePreviewImageRows(ies, ImageInterface::GetWidth(image),
                                    ImageInterface::GetHeight(image), setLine, nullptr);
}

}  // namespace quorv::ies
