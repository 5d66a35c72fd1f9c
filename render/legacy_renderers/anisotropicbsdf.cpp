// The scratch frame of the anisotropic classes: a cell pattern of scratch directions over the
// surface, with noise along each scratch that bends the normal.
//
// Choices where the scratch design leaves room (also in README):
// - Inside a cell a scratch runs along the pattern direction; "across" is the coordinate at
//   right angles to it, "along" the coordinate on it, both in cells of the mapping, so that
//   scratches continue from one cell into the next.
// - Planar and unmapped: the noise point is (across * 100 * frequency + offset, along * 0.001 *
//   stretch, 0), the plain noise, 3 octaves: long thin scratches, 100 per cell at frequency 1.
// - Radial: along runs once round the centre over the sectors, and the periodic noise with
//   period truncation(frequency * sectors * 20) AND 1023 takes along scaled to that period,
//   so the scratches close seamlessly; across is the distance from the centre.
// - Jitter: each of the 2k+1 samples moves across by (r - 0.5) * blur * 0.05 cells, r from the
//   class's random state; blur 0 is one sample without jitter.
// - The footprint is scaled with the mapping but no pattern reads it.
#include <algorithm>
#include <cmath>

#include "render/legacy_renderers/bsdf_impl.h"
#include "render/legacy_renderers/bsdf_math.h"
#include "render/legacy_renderers/clothnoise.h"

namespace quorv {

namespace {

constexpr Float64 HALF_PI = 1.5707963267948966;

struct Channel {
    Float64 amplitude;
    Float64 frequency;
    Float64 stretch;
    Float64 blur;
};

// The cell number and fraction of one coordinate: a negative coordinate takes the fraction
// plus 1.0 and the cell 1 minus its truncation. Coordinates too large for a cell count fall into
// cell 0.
void ReduceToCell(Float64 x, Int& cell, Float64& fraction) {
    if (!(std::fabs(x) < 9.0e15)) {
        cell = 0;
        fraction = 0.0;
        return;
    }
    const Float64 t = std::trunc(x);
    fraction = x - t;
    cell = static_cast<Int>(t);
    if (x < 0.0) {
        fraction += 1.0;
        cell = 1 - cell;
    }
}

Int HalfCount(Float64 blur, Float64 scale, Int limit) {
    const Float64 x = blur * scale;
    if (!(x > 0.0)) return 0;
    return x >= static_cast<Float64>(limit) ? limit : std::min<Int>(static_cast<Int>(x), limit);
}

// The mean of the noise over the jittered samples of one channel, times its amplitude.
Float64 ChannelOffset(const AnisotropicState& state, const Channel& ch, Float64 across,
                      Float64 along, Float64 offset, bool radial, Int count) {
    const AnisotropicScratchData& s = state.scratch;
    Int32 period = 0;
    Float64 alongScale = 0.001 * ch.stretch;
    if (radial) {
        const Float64 sectors = static_cast<Float64>(s.sectors);
        const Float64 p = ch.frequency * sectors * 20.0;
        period = p >= 1.0 && p < 1.0e9 ? static_cast<Int32>(static_cast<Int>(p) & 1023) : 0;
        alongScale = sectors != 0.0 ? static_cast<Float64>(period) / sectors : 0.0;
    }
    Float64 sum = 0.0;
    for (Int k = 0; k < count; ++k) {
        const Float64 r = static_cast<Float64>(state.random.Step()) * 4.656612870908988e-10;
        const Float64 a = across + (r - 0.5) * ch.blur * 0.05;
        const Vector64 p{a * 100.0 * ch.frequency + offset, along * alongScale, 0.0};
        sum += radial ? ClothPeriodicTurbulence(p, 3.0, false, period)
                      : ClothTurbulence(p, 3.0, false);
    }
    return sum / static_cast<Float64>(count) * ch.amplitude;
}

}  // namespace

BSDFFrame ComputeScratchFrame(const AnisotropicState& state, const Vector64& n, const Vector64& u,
                              const Vector64& v, const Vector64& position, Bool fast, Bool world) {
    const AnisotropicScratchData& s = state.scratch;
    const Int limit = fast ? 4 : 128;
    Vector64 t{1.0, 0.0, 0.0};
    Float64 du = 0.0, dv = 0.0;
    if (state.active) {
        Float64 x = position.x, y = position.y;
        Float64 radialAngle = 0.0;
        const bool radial = s.mapping == 1;
        if (s.mapping != 2) {
            x -= s.centerX;
            y -= s.centerY;
            const Float64 cr = std::cos(s.rotation), sr = std::sin(s.rotation);
            const Float64 xr = (x * cr - y * sr) * s.scale;
            const Float64 yr = (x * sr + y * cr) * s.scale;
            x = xr;
            y = yr;
            if (radial) {
                radialAngle = std::atan2(2.0 * xr, 2.0 * yr);
                y = std::sqrt((2.0 * xr) * (2.0 * xr) + (2.0 * yr) * (2.0 * yr));
                x = radialAngle / BSDF_2PI * static_cast<Float64>(s.sectors);
            }
        }
        Int cellX, cellY;
        Float64 fx, fy;
        ReduceToCell(x, cellX, fx);
        ReduceToCell(y, cellY, fy);
        if ((s.mirror & 1) && (cellX & 1)) fx = 1.0 - fx;
        if ((s.mirror & 2) && (cellY & 1)) fy = 1.0 - fy;

        const Channel cu{s.amplitudeU, s.frequencyU, s.stretchU, s.blurU};
        const Channel cv{s.amplitudeV, s.frequencyV, s.stretchV, s.blurV};
        // Whole coordinates (cell + fraction) keep scratches running on across cell borders.
        const Float64 gx = static_cast<Float64>(cellX) + fx;
        const Float64 gy = static_cast<Float64>(cellY) + fy;
        if (s.pattern == 1) {
            // Circles round the nearer of the corner lattice and the centre lattice.
            Float64 dx = fx - (fx < 0.5 ? 0.0 : 1.0);
            Float64 dy = fy - (fy < 0.5 ? 0.0 : 1.0);
            if (!(std::sqrt(dx * dx + dy * dy) <= 0.5)) {
                dx = fx - 0.5;
                dy = fy - 0.5;
            }
            const Float64 d = std::sqrt(dx * dx + dy * dy);
            const Float64 around = std::atan2(dy, dx) / BSDF_2PI;
            const Int circleLimit = std::min<Int>(32, limit);
            if (state.scratchU) {
                const Channel c5{cu.amplitude, cu.frequency * 5.0, cu.stretch * 5.0, cu.blur};
                du = ChannelOffset(state, c5, d, around, 0.0, false,
                                   HalfCount(cu.blur, 16.0, circleLimit) * 2 + 1);
            }
            if (state.scratchV) {
                const Channel c5{cv.amplitude, cv.frequency * 5.0, cv.stretch * 5.0, cv.blur};
                dv = ChannelOffset(state, c5, d, around, 0.0, false,
                                   HalfCount(cv.blur, 16.0, circleLimit) * 2 + 1);
            }
            t = Normalize({dx, dy, 0.0});
        } else if (s.pattern <= 4) {
            Float64 angle = 0.0;
            Float64 offset = 0.0;
            if (s.pattern == 2) {
                const Float64 w = 0.5 - std::fabs(0.5 - fy);
                if (!(fx > w && fx < 1.0 - w)) {
                    angle = HALF_PI;
                    offset = 12345.0;
                }
            } else if (s.pattern == 3) {
                if (!(fx < 1.0 - fy)) angle = HALF_PI;
            } else if (s.pattern == 4) {
                if (!((fx < 0.5 && fy < 0.5) || (fx >= 0.5 && fy >= 0.5))) angle = HALF_PI;
            }
            const Float64 across = angle == 0.0 ? gy : gx;
            const Float64 along = angle == 0.0 ? gx : gy;
            if (state.scratchU) {
                du = ChannelOffset(state, cu, across, along, offset, radial,
                                   HalfCount(cu.blur, 32.0, limit) * 2 + 1);
            }
            if (state.scratchV) {
                dv = ChannelOffset(state, cv, across, along, offset + 777.0, radial,
                                   HalfCount(cv.blur, 32.0, limit) * 2 + 1);
            }
            const Float64 a = radial ? angle + radialAngle - HALF_PI : angle + s.rotation;
            t = {std::cos(a), -std::sin(a), 0.0};
        } else {
            // No such pattern: no direction and no bend.
            t = {0.0, 0.0, 0.0};
        }
        du *= 0.5;
        dv *= 0.5;
    }
    Vector64 tw = t;
    Vector64 vw{0.0, 0.0, 0.0};
    if (world) {
        const Vector64 w{u.y * v.z - u.z * v.y, u.z * v.x - u.x * v.z, u.x * v.y - u.y * v.x};
        tw = {u.x * t.x + v.x * t.y + w.x * t.z, u.y * t.x + v.y * t.y + w.y * t.z,
              u.z * t.x + v.z * t.y + w.z * t.z};
        vw = Normalize({n.y * tw.z - n.z * tw.y, n.z * tw.x - n.x * tw.z, n.x * tw.y - n.y * tw.x});
    }
    const Float64 c = state.cosTilt, sn = state.sinTilt;
    const Vector64 v2{tw.x * sn + vw.x * c, tw.y * sn + vw.y * c, tw.z * sn + vw.z * c};
    const Vector64 t2{tw.x * c - vw.x * sn, tw.y * c - vw.y * sn, tw.z * c - vw.z * sn};
    Vector64 n2 = n;
    if (du != 0.0 || dv != 0.0) {
        n2 = Normalize({n.x + t2.x * du + v2.x * dv, n.y + t2.y * du + v2.y * dv,
                        n.z + t2.z * du + v2.z * dv});
    }
    return {n2, t2, v2};
}

}  // namespace quorv
