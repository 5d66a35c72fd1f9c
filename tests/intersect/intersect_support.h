#pragma once
// The built render and intersector modules loaded once per process, intersectors by id, and a
// brute-force Float64 reference that shares no code with the classes.
#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <vector>

#include "intersect/mesh.h"
#include "quorv/host/host.h"
#include "render/frame/intersection.h"

namespace quorv::test {

/// Loads libquorv_render.so, then libquorv_intersect.so (once).
inline bool LoadIntersectModules() {
    static const bool loaded = [] {
        for (const char* path : {QUORV_MODULE_PATH, QUORV_INTERSECT_MODULE_PATH}) {
            Result<host::LoadedModule*> r = host::Host::Get().LoadModule(path);
            EXPECT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
            if (r.IsError()) return false;
        }
        return true;
    }();
    return loaded;
}

inline BatchedIntersectionRef MakeIntersector(const char* id,
                                              const DataDictionary& parameters = {}) {
    if (!LoadIntersectModules()) return {};
    Result<ObjectRef> o =
        CreateObjectById(LiteralId(INTERSECTION_CLASS_REGISTRY_ID), LiteralId(id));
    EXPECT_TRUE(o.IsOk()) << ErrorToString(o.GetErrorPointer());
    if (o.IsError()) return {};
    Result<BatchedIntersectionRef> r = BatchedIntersectionRef::Cast(o.GetValue());
    EXPECT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
    if (r.IsError()) return {};
    Result<void> init = r.GetValue().Init(parameters);
    EXPECT_TRUE(init.IsOk()) << ErrorToString(init.GetErrorPointer());
    return r.GetValue();
}

/// A hit of the reference.
struct ReferenceHit {
    Int object = -1;
    Int polygon = -1;
    Int half = 0;
    Float64 t = 0.0;
    Vector64 normal;
    Float64 edge = 0.0;  ///< smallest barycentric weight: near 0 the polygon is ambiguous
};

/// One placed object of the reference: points already in world space.
struct ReferenceObject {
    std::vector<Vector64> points;
    std::vector<IntersectionPolygon> polygons;
};

inline Vector64 Place(const Matrix64& m, const Vector64& p) {
    return {m.offset.x + m.axisX.x * p.x + m.axisY.x * p.y + m.axisZ.x * p.z,
            m.offset.y + m.axisX.y * p.x + m.axisY.y * p.y + m.axisZ.y * p.z,
            m.offset.z + m.axisX.z * p.x + m.axisY.z * p.y + m.axisZ.z * p.z};
}

inline ReferenceObject PlaceMesh(const mesh::Mesh& m, const Matrix64& matrix) {
    ReferenceObject r;
    for (const Vector64& p : m.points) r.points.push_back(Place(matrix, p));
    r.polygons = m.polygons;
    return r;
}

/// Möller-Trumbore in Float64 over every triangle of every polygon; the nearest hit with
/// tMin <= t <= tMax (tMin cut at 0), or none.
inline std::optional<ReferenceHit> BruteForce(const std::vector<ReferenceObject>& scene,
                                              const Ray& ray) {
    auto sub = [](const Vector64& a, const Vector64& b) {
        return Vector64{a.x - b.x, a.y - b.y, a.z - b.z};
    };
    auto cross = [](const Vector64& a, const Vector64& b) {
        return Vector64{a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
    };
    auto dot = [](const Vector64& a, const Vector64& b) {
        return a.x * b.x + a.y * b.y + a.z * b.z;
    };
    const Float64 tMin = std::max(ray.minDistance, 0.0);
    std::optional<ReferenceHit> best;
    for (size_t o = 0; o < scene.size(); ++o) {
        const ReferenceObject& obj = scene[o];
        for (size_t p = 0; p < obj.polygons.size(); ++p) {
            const IntersectionPolygon& q = obj.polygons[p];
            const Int32 tris[2][3] = {{q.a, q.b, q.c}, {q.a, q.c, q.d}};
            for (int h = 0; h < (q.c == q.d ? 1 : 2); ++h) {
                const Vector64& p0 = obj.points[tris[h][0]];
                const Vector64 e1 = sub(obj.points[tris[h][1]], p0);
                const Vector64 e2 = sub(obj.points[tris[h][2]], p0);
                const Vector64 pv = cross(ray.direction, e2);
                const Float64 det = dot(e1, pv);
                if (det == 0.0) continue;
                const Vector64 tv = sub(ray.origin, p0);
                const Float64 u = dot(tv, pv) / det;
                const Vector64 qv = cross(tv, e1);
                const Float64 v = dot(ray.direction, qv) / det;
                const Float64 t = dot(e2, qv) / det;
                if (u < 0 || v < 0 || u + v > 1 || t < tMin || t > ray.maxDistance) continue;
                if (best && best->t <= t) continue;
                ReferenceHit hit;
                hit.object = Int(o);
                hit.polygon = Int(p);
                hit.half = h;
                hit.t = t;
                const Vector64 n = cross(e1, e2);
                const Float64 l = std::sqrt(dot(n, n));
                hit.normal = {n.x / l, n.y / l, n.z / l};
                hit.edge = std::min({u, v, 1.0 - u - v});
                best = hit;
            }
        }
    }
    return best;
}

}  // namespace quorv::test
