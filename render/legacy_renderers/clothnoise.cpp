// The cloth noise: tables from the BSDF generator, a guard word for the one-time build, and
// three paths of one gradient noise.
#include "render/legacy_renderers/clothnoise.h"

#include <algorithm>
#include <atomic>
#include <cmath>

#include "quorv/spinwait.h"

namespace quorv {

namespace {

// Bit 0 locks the build, bit 1 says the tables are complete.
constexpr UInt32 GUARD_LOCK = 1;
constexpr UInt32 GUARD_BUILT = 2;
std::atomic<UInt32> g_guard{0};
ClothNoiseTables g_tables;

// The generator of the BSDFs, from a raw state (no seeding step), read as state / (2^31 + 1).
struct RawRandom {
    UInt32 state;
    Float64 Next() {
        state = (state * 69069u + 69069u) & 0x7fffffffu;
        return static_cast<Float64>(state) / 2147483649.0;
    }
};

// Cell index (masked by the caller) and fraction of one coordinate. A coordinate that is not
// finite or too large for an integer cell falls into cell 0 with fraction 0.
struct Cell {
    Int index;
    Float64 fraction;
};

inline Cell CellOf(Float64 v) {
    const Float64 f = std::floor(v);
    if (!(f >= -9.0e15 && f <= 9.0e15)) return {0, 0.0};
    return {static_cast<Int>(f), std::clamp(v - f, 0.0, 1.0)};
}

inline Float64 SCurve(Float64 t) { return t * t * (3.0 - 2.0 * t); }
inline Float64 Lerp(Float64 t, Float64 a, Float64 b) { return a + t * (b - a); }

// The masked corner cells of a coordinate, wrapped every `period` cells when it is positive.
inline void Corners(Int cell, Int period, Int& b0, Int& b1) {
    if (period > 0) {
        Int c = cell % period;
        if (c < 0) c += period;
        b0 = c & ClothNoiseTables::MASK;
        b1 = ((c + 1) % period) & ClothNoiseTables::MASK;
    } else {
        b0 = cell & ClothNoiseTables::MASK;
        b1 = (cell + 1) & ClothNoiseTables::MASK;
    }
}

Float64 Noise(const Vector64& p, Int period) {
    const ClothNoiseTables& t = GetClothNoiseTables();
    const Cell cx = CellOf(p.x + 0.3718413);
    Int bx0, bx1;
    Corners(cx.index, period, bx0, bx1);
    const Float64 rx0 = cx.fraction, rx1 = rx0 - 1.0;
    const Float64 sx = SCurve(rx0);
    const Int i = t.permutation[bx0];
    const Int j = t.permutation[bx1];
    Float64 result;
    if (p.z != 0.0) {
        const Cell cy = CellOf(p.y);
        const Cell cz = CellOf(p.z);
        Int by0, by1, bz0, bz1;
        Corners(cy.index, period, by0, by1);
        Corners(cz.index, period, bz0, bz1);
        const Float64 ry0 = cy.fraction, ry1 = ry0 - 1.0;
        const Float64 rz0 = cz.fraction, rz1 = rz0 - 1.0;
        const Int b00 = t.permutation[i + by0], b10 = t.permutation[j + by0];
        const Int b01 = t.permutation[i + by1], b11 = t.permutation[j + by1];
        auto at = [&](Int k, Float64 x, Float64 y, Float64 z) {
            const Float64* g = t.gradient[k];
            return x * g[0] + y * g[1] + z * g[2];
        };
        const Float64 sy = SCurve(ry0), sz = SCurve(rz0);
        const Float64 c =
            Lerp(sy, Lerp(sx, at(b00 + bz0, rx0, ry0, rz0), at(b10 + bz0, rx1, ry0, rz0)),
                 Lerp(sx, at(b01 + bz0, rx0, ry1, rz0), at(b11 + bz0, rx1, ry1, rz0)));
        const Float64 d =
            Lerp(sy, Lerp(sx, at(b00 + bz1, rx0, ry0, rz1), at(b10 + bz1, rx1, ry0, rz1)),
                 Lerp(sx, at(b01 + bz1, rx0, ry1, rz1), at(b11 + bz1, rx1, ry1, rz1)));
        result = Lerp(sz, c, d);
    } else if (p.y != 0.0) {
        // The full path at z = 0: cell 0, fraction 0, blend 0.
        const Cell cy = CellOf(p.y);
        Int by0, by1;
        Corners(cy.index, period, by0, by1);
        const Float64 ry0 = cy.fraction, ry1 = ry0 - 1.0;
        const Int b00 = t.permutation[i + by0], b10 = t.permutation[j + by0];
        const Int b01 = t.permutation[i + by1], b11 = t.permutation[j + by1];
        auto at = [&](Int k, Float64 x, Float64 y) {
            const Float64* g = t.gradient[k];
            return x * g[0] + y * g[1];
        };
        const Float64 sy = SCurve(ry0);
        result = Lerp(sy, Lerp(sx, at(b00, rx0, ry0), at(b10, rx1, ry0)),
                      Lerp(sx, at(b01, rx0, ry1), at(b11, rx1, ry1)));
    } else {
        // y = z = 0 as well.
        const Float64 u = rx0 * t.gradient[t.permutation[i]][0];
        const Float64 v = rx1 * t.gradient[t.permutation[j]][0];
        result = Lerp(sx, u, v);
    }
    return std::clamp(result, -1.0, 1.0);
}

Float64 Turbulence(const Vector64& p, Float64 octaves, Bool absolute, Int period) {
    if (!(octaves > 0.0)) return 0.0;
    const Int whole = static_cast<Int>(std::min(octaves, 64.0));
    const Float64 fraction = std::min(octaves, 64.0) - static_cast<Float64>(whole);
    Float64 amplitude = 1.0;
    Vector64 q = p;
    Float64 sum = 0.0;
    for (Int k = 0; k < whole; ++k) {
        const Float64 n = Noise(q, period);
        sum += (absolute ? std::fabs(n) : n) * amplitude;
        amplitude *= 0.5;
        q = {q.x * 2.0, q.y * 2.0, q.z * 2.0};
        if (period > 0) period = (period * 2) & ClothNoiseTables::MASK;
    }
    if (fraction > 0.0) {
        const Float64 n = Noise(q, period);
        sum += fraction * (absolute ? std::fabs(n) : n) * amplitude;
    }
    return sum;
}

}  // namespace

void BuildClothNoiseTables(ClothNoiseTables& tables) {
    RawRandom random{100};
    constexpr Int N = ClothNoiseTables::SIZE;
    for (Int i = 0; i < N; ++i) {
        tables.permutation[i] = static_cast<Int32>(i);
        Float64 g[4];
        for (Float64& c : g) c = 1.0 - 2.0 * random.Next();
        const Float64 length = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2] + g[3] * g[3]);
        const Float64 scale = length > 0.0 ? 1.5 / length : 1.0;
        for (Int k = 0; k < 4; ++k) tables.gradient[i][k] = g[k] * scale;
    }
    for (Int i = N - 1; i >= 1; --i) {
        const Int j = static_cast<Int>(random.Next() * 1024.0);
        std::swap(tables.permutation[i], tables.permutation[j]);
    }
    for (Int i = 0; i < N + 2; ++i) {
        tables.permutation[N + i] = tables.permutation[i];
        for (Int k = 0; k < 4; ++k) tables.gradient[N + i][k] = tables.gradient[i][k];
    }
}

const ClothNoiseTables& GetClothNoiseTables() {
    if (g_guard.load(std::memory_order_acquire) & GUARD_BUILT) return g_tables;
    SpinWaitRecord record;
    record.waitAddress = &g_guard;
    for (;;) {
        const UInt32 seen = g_guard.load(std::memory_order_acquire);
        if (seen & GUARD_BUILT) break;
        UInt32 expected = 0;
        if (g_guard.compare_exchange_weak(expected, GUARD_LOCK, std::memory_order_acquire)) {
            BuildClothNoiseTables(g_tables);
            g_guard.store(GUARD_BUILT, std::memory_order_release);
            break;
        }
        SpinWaitStep(record);
    }
    SpinWaitEnd(record);
    return g_tables;
}

Bool IsClothNoiseBuilt() { return (g_guard.load(std::memory_order_acquire) & GUARD_BUILT) != 0; }

Float64 ClothNoise(const Vector64& p) { return Noise(p, 0); }

Float64 ClothPeriodicNoise(const Vector64& p, Int32 period) {
    return Noise(p, period & ClothNoiseTables::MASK);
}

Float64 ClothTurbulence(const Vector64& p, Float64 octaves, Bool absolute) {
    return Turbulence(p, octaves, absolute, 0);
}

Float64 ClothPeriodicTurbulence(const Vector64& p, Float64 octaves, Bool absolute, Int32 period) {
    return Turbulence(p, std::min(octaves, 12.0), absolute, period & ClothNoiseTables::MASK);
}

}  // namespace quorv
