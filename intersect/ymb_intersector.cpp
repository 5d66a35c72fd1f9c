// "net.quorv.render.intersectionclass.ymb": two levels of binned-SAH trees (one per object, one
// over the placed objects) and a watertight ray/triangle test in Float64: a ray through an edge
// or a vertex shared by triangles hits at least one of them, so no ray leaks out of a closed
// mesh. Everything stays in Float64 from the ray to the hit.
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

#include "intersect/intersector_class.h"
#include "intersect/intersector_common.h"
#include "intersect/ymb_bvh.h"

namespace quorv::intersect {

namespace {

struct Triangle {
    Int32 v[3];
    Int32 polygon;
    Int32 half;
};

/// A ray prepared for the watertight test: the axis of the largest direction component
/// becomes z, and the shear that maps the direction onto +z.
struct ShearedRay {
    int kx, ky, kz;
    Float64 sx, sy, sz;
};

ShearedRay Shear(const Float64 dir[3]) {
    ShearedRay s;
    const Float64 ax = std::fabs(dir[0]), ay = std::fabs(dir[1]), az = std::fabs(dir[2]);
    s.kz = ax > ay ? (ax > az ? 0 : 2) : (ay > az ? 1 : 2);
    s.kx = s.kz == 2 ? 0 : s.kz + 1;
    s.ky = s.kx == 2 ? 0 : s.kx + 1;
    if (dir[s.kz] < 0.0) std::swap(s.kx, s.ky);  // keeps the winding
    s.sx = dir[s.kx] / dir[s.kz];
    s.sy = dir[s.ky] / dir[s.kz];
    s.sz = 1.0 / dir[s.kz];
    return s;
}

struct TriangleHit {
    Float64 t, u, v;
};

// Edge functions with a wider type when one of them is exactly zero, so that the sign of an
// edge shared by two triangles is decided the same way for both.
inline bool Watertight(const Float64 org[3], const ShearedRay& s, const Vector64& p0,
                       const Vector64& p1, const Vector64& p2, Float64 tMin, Float64 tMax,
                       TriangleHit& hit) {
    const Float64 a[3] = {p0.x - org[0], p0.y - org[1], p0.z - org[2]};
    const Float64 b[3] = {p1.x - org[0], p1.y - org[1], p1.z - org[2]};
    const Float64 c[3] = {p2.x - org[0], p2.y - org[1], p2.z - org[2]};
    const Float64 ax = a[s.kx] - s.sx * a[s.kz], ay = a[s.ky] - s.sy * a[s.kz];
    const Float64 bx = b[s.kx] - s.sx * b[s.kz], by = b[s.ky] - s.sy * b[s.kz];
    const Float64 cx = c[s.kx] - s.sx * c[s.kz], cy = c[s.ky] - s.sy * c[s.kz];
    Float64 u = cx * by - cy * bx;
    Float64 v = ax * cy - ay * cx;
    Float64 w = bx * ay - by * ax;
    if (u == 0.0 || v == 0.0 || w == 0.0) {
        using L = long double;
        u = static_cast<Float64>(L(cx) * L(by) - L(cy) * L(bx));
        v = static_cast<Float64>(L(ax) * L(cy) - L(ay) * L(cx));
        w = static_cast<Float64>(L(bx) * L(ay) - L(by) * L(ax));
    }
    if ((u < 0.0 || v < 0.0 || w < 0.0) && (u > 0.0 || v > 0.0 || w > 0.0)) return false;
    const Float64 det = u + v + w;
    if (det == 0.0) return false;
    const Float64 az = s.sz * a[s.kz], bz = s.sz * b[s.kz], cz = s.sz * c[s.kz];
    const Float64 t = (u * az + v * bz + w * cz) / det;
    if (!(t >= tMin && t <= tMax)) return false;
    hit.t = t;
    hit.u = v / det;
    hit.v = w / det;
    return true;
}

struct YmbObject : MeshObject {
    std::vector<Triangle> triangles;  ///< in leaf order of the tree
    YmbTree tree;
    bool built = false;
};

constexpr int STACK_SIZE = 128;

struct YmbIntersectorImpl {
    std::vector<std::shared_ptr<YmbObject>> objects;
    YmbTree top;
    std::vector<YmbObject*> placed;  ///< objects in the top tree's leaf order
    YmbBuildOptions options;
    IntersectionFilterFunc filter = nullptr;
    void* filterUser = nullptr;
    bool finalized = false;

    Result<void> Init(const DataDictionary& parameters) {
        const Int leaf = parameters.Get(intersectionparameters::LEAFSIZE, Int(4));
        const Int bins = parameters.Get(intersectionparameters::BINCOUNT, Int(16));
        if (leaf < 1 || leaf > 16)
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Leaf size @ outside 1 to 16", {std::to_string(leaf)}));
        if (bins < 2 || bins > 256)
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Bin count @ outside 2 to 256", {std::to_string(bins)}));
        options.leafSize = leaf;
        options.binCount = bins;
        objects.clear();
        placed.clear();
        top = {};
        finalized = false;
        return OK;
    }

    Result<void> RegisterFilter(IntersectionFilterFunc f, void* user) {
        if (finalized)
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "A filter must be registered before Finalize");
        filter = f;
        filterUser = user;
        return OK;
    }

    Result<Int> AddScene(const Vector64* points, Int pointCount,
                         const IntersectionPolygon* polygons, Int polygonCount,
                         const Matrix64& matrix) {
        return GuardMemory([&]() -> Result<Int> {
            auto object = std::make_shared<YmbObject>();
            Result<void> r =
                CopyObject(*object, points, pointCount, polygons, polygonCount, matrix);
            if (r.IsError()) return r.GetError();
            objects.push_back(std::move(object));
            finalized = false;
            return static_cast<Int>(objects.size() - 1);
        });
    }

    static void BuildObject(YmbObject& o, const YmbBuildOptions& options) {
        std::vector<Triangle> tris;
        tris.reserve(o.polygons.size() * (o.hasQuads ? 2 : 1));
        for (size_t i = 0; i < o.polygons.size(); ++i) {
            const IntersectionPolygon& p = o.polygons[i];
            tris.push_back({{p.a, p.b, p.c}, static_cast<Int32>(i), 0});
            if (p.c != p.d) tris.push_back({{p.a, p.c, p.d}, static_cast<Int32>(i), 1});
        }
        std::vector<YmbBox> boxes(tris.size());
        for (size_t i = 0; i < tris.size(); ++i) {
            YmbBox& b = boxes[i];
            for (int a = 0; a < 3; ++a) {
                b.lo[a] = std::numeric_limits<Float64>::infinity();
                b.hi[a] = -std::numeric_limits<Float64>::infinity();
            }
            for (Int32 k : tris[i].v) {
                const Vector64& v = o.points[k];
                const Float64 c[3] = {v.x, v.y, v.z};
                for (int a = 0; a < 3; ++a) {
                    b.lo[a] = std::min(b.lo[a], c[a]);
                    b.hi[a] = std::max(b.hi[a], c[a]);
                }
            }
        }
        o.tree.Build(boxes, options);
        o.triangles.resize(tris.size());
        for (size_t i = 0; i < tris.size(); ++i) o.triangles[i] = tris[o.tree.order[i]];
        o.built = true;
    }

    Result<void> Finalize() {
        return GuardMemory([&]() -> Result<void> {
            for (auto& o : objects)
                if (!o->built) BuildObject(*o, options);
            BuildTop();
            finalized = true;
            return OK;
        });
    }

    void BuildTop() {
        std::vector<YmbBox> boxes(objects.size());
        for (size_t i = 0; i < objects.size(); ++i) {
            Vector64 lo, hi;
            WorldBounds(*objects[i], lo, hi);
            boxes[i] = {{lo.x, lo.y, lo.z}, {hi.x, hi.y, hi.z}};
        }
        YmbBuildOptions topOptions;
        topOptions.leafSize = 1;
        top.Build(boxes, topOptions);
        placed.resize(objects.size());
        for (size_t i = 0; i < objects.size(); ++i) placed[i] = objects[top.order[i]].get();
    }

    Bool GetSceneBounds(Vector64& minimum, Vector64& maximum) const {
        constexpr Float64 INF = std::numeric_limits<Float64>::infinity();
        minimum = {INF, INF, INF};
        maximum = {-INF, -INF, -INF};
        bool any = false;
        for (const auto& o : objects) {
            if (o->polygons.empty()) continue;
            Vector64 lo, hi;
            WorldBounds(*o, lo, hi);
            minimum = {std::min(minimum.x, lo.x), std::min(minimum.y, lo.y),
                       std::min(minimum.z, lo.z)};
            maximum = {std::max(maximum.x, hi.x), std::max(maximum.y, hi.y),
                       std::max(maximum.z, hi.z)};
            any = true;
        }
        if (!any) minimum = maximum = {};
        return any;
    }

    // The nearest (or, with `any`, the first) accepted hit of the ray in one object.
    bool TraceObject(const YmbObject& o, Int objectIndex, const Ray& worldRay, Float64 tMin,
                     Float64& tMax, bool any, IntersectionResult64* result) const {
        const Vector64 org = o.placement.PointToObject(worldRay.origin);
        const Vector64 dir = o.placement.VectorToObject(worldRay.direction);
        YmbRay r;
        r.org[0] = org.x, r.org[1] = org.y, r.org[2] = org.z;
        r.dir[0] = dir.x, r.dir[1] = dir.y, r.dir[2] = dir.z;
        for (int a = 0; a < 3; ++a) {
            r.inv[a] = 1.0 / (r.dir[a] == 0.0 ? 1e-300 : r.dir[a]);
            r.negative[a] = r.inv[a] < 0.0;
        }
        const ShearedRay s = Shear(r.dir);
        const YmbNode* nodes = o.tree.nodes.data();
        if (o.tree.nodes.empty()) return false;
        Int32 stack[STACK_SIZE];
        int sp = 0;
        Int32 current = 0;
        bool found = false;
        for (;;) {
            const YmbNode& n = nodes[current];
            if (YmbHitBox(n, r, tMin, tMax)) {
                if (n.count == 0) {
                    const Int32 near = n.offset + r.negative[n.axis];
                    const Int32 far = n.offset + 1 - r.negative[n.axis];
                    if (sp < STACK_SIZE) stack[sp++] = far;
                    current = near;
                    continue;
                }
                for (Int32 i = n.offset; i < n.offset + n.count; ++i) {
                    const Triangle& tri = o.triangles[i];
                    TriangleHit h;
                    if (!Watertight(r.org, s, o.points[tri.v[0]], o.points[tri.v[1]],
                                    o.points[tri.v[2]], tMin, tMax, h))
                        continue;
                    if (filter) {
                        IntersectionResult64 candidate;
                        candidate.headWordA = static_cast<UInt>(objectIndex);
                        candidate.headWordB = static_cast<UInt>(tri.polygon);
                        candidate.headFlag = IntersectionHit::HIT;
                        candidate.hitVectorA = {h.t, h.u, h.v};
                        candidate.hitValue = tri.half;
                        if (!filter(filterUser, candidate)) continue;
                    }
                    found = true;
                    if (any) return true;
                    tMax = h.t;
                    result->headWordA = static_cast<UInt>(objectIndex);
                    result->headWordB = static_cast<UInt>(tri.polygon);
                    result->headFlag = IntersectionHit::HIT;
                    result->hitVectorA = {h.t, h.u, h.v};
                    const Vector64& p0 = o.points[tri.v[0]];
                    result->hitVectorB = o.placement.NormalToWorld(
                        Cross(Sub(o.points[tri.v[1]], p0), Sub(o.points[tri.v[2]], p0)));
                    result->hitValue = tri.half;
                }
            }
            if (sp == 0) break;
            current = stack[--sp];
        }
        return found;
    }

    bool Trace(const Ray& ray, bool any, IntersectionResult64* result) const {
        Float64 tMin, tMax;
        if (!UsableRay(ray, tMin, tMax) || top.nodes.empty()) return false;
        YmbRay r;
        r.org[0] = ray.origin.x, r.org[1] = ray.origin.y, r.org[2] = ray.origin.z;
        r.dir[0] = ray.direction.x, r.dir[1] = ray.direction.y, r.dir[2] = ray.direction.z;
        for (int a = 0; a < 3; ++a) {
            r.inv[a] = 1.0 / (r.dir[a] == 0.0 ? 1e-300 : r.dir[a]);
            r.negative[a] = r.inv[a] < 0.0;
        }
        Int32 stack[STACK_SIZE];
        int sp = 0;
        Int32 current = 0;
        bool found = false;
        for (;;) {
            const YmbNode& n = top.nodes[current];
            if (YmbHitBox(n, r, tMin, tMax)) {
                if (n.count == 0) {
                    if (sp < STACK_SIZE) stack[sp++] = n.offset + 1 - r.negative[n.axis];
                    current = n.offset + r.negative[n.axis];
                    continue;
                }
                for (Int32 i = n.offset; i < n.offset + n.count; ++i) {
                    const Int32 index = top.order[i];
                    if (TraceObject(*placed[i], index, ray, tMin, tMax, any, result)) {
                        found = true;
                        if (any) return true;
                    }
                }
            }
            if (sp == 0) break;
            current = stack[--sp];
        }
        return found;
    }

    Bool CalculateIntersection(const Ray& ray, IntersectionResult64& result) const {
        IntersectionResult64 hit;
        const bool found = Trace(ray, false, &hit);
        result = found ? hit : IntersectionResult64{};
        return found;
    }

    Bool CalculateShadow(const Ray& ray) const { return Trace(ray, true, nullptr); }

    Result<void> UpdateMatrix(Int objectIndex, const Matrix64& matrix) {
        if (objectIndex < 0 || objectIndex >= static_cast<Int>(objects.size()))
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("No object @", {std::to_string(objectIndex)}));
        if (!objects[objectIndex]->placement.Set(matrix))
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "Object matrix is singular or not finite");
        finalized = false;
        return OK;
    }

    Int GetEnumeratedObjects(EnumeratedObject* out, Int capacity) const {
        std::vector<MeshObject*> list;
        for (const auto& o : objects) list.push_back(o.get());
        return EnumerateObjects(list, out, capacity);
    }

    // Four single rays: the tree is traversed per ray, which is what a scalar Float64 test
    // does best.
    Int32 CalculateIntersection4(const Ray* const* rays, IntersectionResult64* results) const {
        Int32 mask = 0;
        for (int i = 0; i < 4; ++i) {
            if (!rays[i]) continue;
            if (CalculateIntersection(*rays[i], results[i])) mask |= 1 << i;
        }
        return mask;
    }

    Int32 CalculateShadow4(const Ray* const* rays) const {
        Int32 mask = 0;
        for (int i = 0; i < 4; ++i)
            if (rays[i] && CalculateShadow(*rays[i])) mask |= 1 << i;
        return mask;
    }
};

}  // namespace

namespace {
ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
IntersectorClass<YmbIntersectorImpl> g_class(g_unit, YMB_INTERSECTION_CLASS_ID, __FILE__);
}  // namespace

}  // namespace quorv::intersect
