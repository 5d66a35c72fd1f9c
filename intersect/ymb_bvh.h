#pragma once
// The ymb bounding volume hierarchy: a binary tree built by binned surface area heuristic over
// primitive boxes, nodes of 32 bytes with Float32 boxes rounded outwards, so a Float64 ray that
// passes through a primitive always passes through every box above it.
#include <cstdint>
#include <vector>

#include "quorv/base.h"

namespace quorv::intersect {

/// One node. Interior: children at `offset` and `offset + 1`, `axis` the split axis. Leaf:
/// primitives [offset, offset + count) of the tree's order.
struct YmbNode {
    Float32 lo[3];
    Float32 hi[3];
    Int32 offset;
    UInt16 count;  ///< 0 for an interior node
    UInt16 axis;
};
static_assert(sizeof(YmbNode) == 32);

/// A box in Float64 given to the builder.
struct YmbBox {
    Float64 lo[3];
    Float64 hi[3];
};

struct YmbBuildOptions {
    Int leafSize = 4;   ///< at most this many primitives in a leaf (unless they can't be split)
    Int binCount = 16;  ///< SAH bins per axis
};

/// A built tree: nodes and the primitive indices in leaf order. Throws bad_alloc when memory is
/// short (the caller turns it into an error value).
struct YmbTree {
    std::vector<YmbNode> nodes;
    std::vector<Int32> order;

    void Build(const std::vector<YmbBox>& boxes, const YmbBuildOptions& options);
};

/// A ray prepared for box tests: origin, inverse direction (a zero component becomes a huge
/// finite value so that 0 * inverse stays 0) and the sign of each component.
struct YmbRay {
    Float64 org[3];
    Float64 dir[3];
    Float64 inv[3];
    int negative[3];
};

/// Entry distance of the ray into a node's box within [tMin, tMax], or false. The far side is
/// widened by a few units of the last place, so the test never misses a box the ray touches.
inline bool YmbHitBox(const YmbNode& n, const YmbRay& r, Float64 tMin, Float64 tMax) {
    Float64 t0 = tMin, t1 = tMax;
    for (int a = 0; a < 3; ++a) {
        Float64 tn = (static_cast<Float64>(n.lo[a]) - r.org[a]) * r.inv[a];
        Float64 tf = (static_cast<Float64>(n.hi[a]) - r.org[a]) * r.inv[a];
        if (r.negative[a]) {
            const Float64 s = tn;
            tn = tf;
            tf = s;
        }
        // Widen by 2 gamma(3) in Float64 on both sides, whatever their signs.
        tn -= (tn < 0 ? -tn : tn) * 7.0e-16;
        tf += (tf < 0 ? -tf : tf) * 7.0e-16;
        t0 = tn > t0 ? tn : t0;
        t1 = tf < t1 ? tf : t1;
    }
    return t0 <= t1;
}

}  // namespace quorv::intersect
