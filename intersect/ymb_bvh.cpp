// Binned SAH build of the ymb tree. Boxes are rounded outwards to Float32 once; centroids pick
// bins; a range whose centroids all coincide is split in halves so every build ends.
#include "intersect/ymb_bvh.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace quorv::intersect {

namespace {

Float32 Down(Float64 v) {
    Float32 f = static_cast<Float32>(v);
    if (static_cast<Float64>(f) > v)
        f = std::nextafter(f, -std::numeric_limits<Float32>::infinity());
    return f;
}

Float32 Up(Float64 v) {
    Float32 f = static_cast<Float32>(v);
    if (static_cast<Float64>(f) < v)
        f = std::nextafter(f, std::numeric_limits<Float32>::infinity());
    return f;
}

struct Box32 {
    Float32 lo[3] = {std::numeric_limits<Float32>::infinity(),
                     std::numeric_limits<Float32>::infinity(),
                     std::numeric_limits<Float32>::infinity()};
    Float32 hi[3] = {-std::numeric_limits<Float32>::infinity(),
                     -std::numeric_limits<Float32>::infinity(),
                     -std::numeric_limits<Float32>::infinity()};
    void Grow(const Box32& b) {
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], b.lo[a]);
            hi[a] = std::max(hi[a], b.hi[a]);
        }
    }
    Float64 HalfArea() const {
        if (lo[0] > hi[0]) return 0.0;
        const Float64 dx = Float64(hi[0]) - lo[0], dy = Float64(hi[1]) - lo[1],
                      dz = Float64(hi[2]) - lo[2];
        return dx * dy + dy * dz + dz * dx;
    }
};

struct Task {
    Int32 node, begin, end;
};

}  // namespace

void YmbTree::Build(const std::vector<YmbBox>& boxes, const YmbBuildOptions& options) {
    const Int32 n = static_cast<Int32>(boxes.size());
    nodes.clear();
    order.resize(n);
    for (Int32 i = 0; i < n; ++i) order[i] = i;
    std::vector<Box32> prim(n);
    std::vector<Float32> centre(static_cast<size_t>(n) * 3);
    for (Int32 i = 0; i < n; ++i) {
        for (int a = 0; a < 3; ++a) {
            prim[i].lo[a] = Down(boxes[i].lo[a]);
            prim[i].hi[a] = Up(boxes[i].hi[a]);
            centre[size_t(i) * 3 + a] = 0.5f * prim[i].lo[a] + 0.5f * prim[i].hi[a];
        }
    }
    nodes.reserve(n > 0 ? 2 * size_t(n) / std::max<Int>(1, options.leafSize) + 1 : 1);
    nodes.push_back({});
    const int bins = static_cast<int>(std::clamp<Int>(options.binCount, 2, 256));
    const Int32 leafSize = static_cast<Int32>(std::clamp<Int>(options.leafSize, 1, 16));
    std::vector<Task> stack{{0, 0, n}};
    struct Bin {
        Box32 box;
        Int32 count = 0;
    };
    std::vector<Bin> bin(bins);
    std::vector<Float64> rightArea(bins);
    std::vector<Int32> rightCount(bins);
    while (!stack.empty()) {
        const Task t = stack.back();
        stack.pop_back();
        Box32 bounds, cbounds;
        for (Int32 i = t.begin; i < t.end; ++i) {
            const Int32 p = order[i];
            bounds.Grow(prim[p]);
            Box32 c;
            for (int a = 0; a < 3; ++a) c.lo[a] = c.hi[a] = centre[size_t(p) * 3 + a];
            cbounds.Grow(c);
        }
        YmbNode& node = nodes[t.node];
        for (int a = 0; a < 3; ++a) {
            node.lo[a] = t.begin < t.end ? bounds.lo[a] : 0.0f;
            node.hi[a] = t.begin < t.end ? bounds.hi[a] : -1.0f;  // empty tree: never entered
        }
        const Int32 count = t.end - t.begin;
        auto makeLeaf = [&] {
            nodes[t.node].offset = t.begin;
            nodes[t.node].count = static_cast<UInt16>(std::max<Int32>(count, 0));
            nodes[t.node].axis = 0;
        };
        if (count <= leafSize) {
            makeLeaf();
            if (count == 0) nodes[t.node].count = 0, nodes[t.node].offset = 0;
            continue;
        }
        // Best binned split over the three axes.
        Float64 bestCost = std::numeric_limits<Float64>::infinity();
        int bestAxis = -1, bestBin = 0;
        for (int a = 0; a < 3; ++a) {
            const Float64 extent = Float64(cbounds.hi[a]) - cbounds.lo[a];
            if (!(extent > 0.0)) continue;
            const Float64 scale = bins / extent;
            for (Bin& b : bin) b = Bin{};
            for (Int32 i = t.begin; i < t.end; ++i) {
                const Int32 p = order[i];
                int k = static_cast<int>((centre[size_t(p) * 3 + a] - cbounds.lo[a]) * scale);
                k = std::clamp(k, 0, bins - 1);
                bin[k].box.Grow(prim[p]);
                ++bin[k].count;
            }
            Box32 acc;
            Int32 c = 0;
            for (int k = bins - 1; k > 0; --k) {
                acc.Grow(bin[k].box);
                c += bin[k].count;
                rightArea[k] = acc.HalfArea();
                rightCount[k] = c;
            }
            Box32 left;
            Int32 lc = 0;
            for (int k = 0; k < bins - 1; ++k) {
                left.Grow(bin[k].box);
                lc += bin[k].count;
                const Int32 rc = rightCount[k + 1];
                if (lc == 0 || rc == 0) continue;
                const Float64 cost = left.HalfArea() * lc + rightArea[k + 1] * rc;
                if (cost < bestCost) {
                    bestCost = cost;
                    bestAxis = a;
                    bestBin = k;
                }
            }
        }
        Int32 mid;
        int axis;
        if (bestAxis < 0) {
            // All centroids coincide: halves, so the leaves stay small.
            if (count <= 16) {
                makeLeaf();
                continue;
            }
            mid = t.begin + count / 2;
            axis = 0;
        } else {
            // A leaf is cheaper when splitting saves less than one box test per primitive.
            const Float64 leafCost = bounds.HalfArea() * count;
            if (count <= 16 && leafCost <= bestCost + bounds.HalfArea()) {
                makeLeaf();
                continue;
            }
            axis = bestAxis;
            const Float64 scale = bins / (Float64(cbounds.hi[axis]) - cbounds.lo[axis]);
            const Float32 lo = cbounds.lo[axis];
            Int32* m = std::partition(order.data() + t.begin, order.data() + t.end, [&](Int32 p) {
                int k = static_cast<int>((centre[size_t(p) * 3 + axis] - lo) * scale);
                return std::clamp(k, 0, bins - 1) <= bestBin;
            });
            mid = static_cast<Int32>(m - order.data());
        }
        const Int32 left = static_cast<Int32>(nodes.size());
        nodes.push_back({});
        const Int32 right = static_cast<Int32>(nodes.size());
        nodes.push_back({});
        // The two children are neighbours: offset and offset + 1.
        nodes[t.node].offset = left;
        nodes[t.node].count = 0;
        nodes[t.node].axis = static_cast<UInt16>(axis);
        stack.push_back({right, mid, t.end});
        stack.push_back({left, t.begin, mid});
    }
}

}  // namespace quorv::intersect
