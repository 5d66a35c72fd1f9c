#pragma once
// What both intersector classes share: the objects as given (Float64 points and polygons),
// their placement, the checks of AddScene and the small vector helpers.
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "render/frame/intersection.h"

namespace quorv::intersect {

inline Vector64 Sub(const Vector64& a, const Vector64& b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vector64 Cross(const Vector64& a, const Vector64& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline Float64 Dot(const Vector64& a, const Vector64& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline Float64 Component(const Vector64& v, int axis) {
    return axis == 0 ? v.x : axis == 1 ? v.y : v.z;
}

/// The linear part of a placement and its inverse, for rays into object space and normals out.
struct Placement {
    Matrix64 matrix;       ///< object to world
    Matrix64 inverse;      ///< world to object
    Vector64 cofactor[3];  ///< columns of det * inverse transpose: object normals to world
    bool identity = true;

    /// Fails (false) for a singular or non-finite matrix.
    bool Set(const Matrix64& m);
    Vector64 PointToObject(const Vector64& p) const;
    Vector64 VectorToObject(const Vector64& v) const;
    Vector64 PointToWorld(const Vector64& p) const;
    /// The unit world normal of an object-space normal (zero stays zero).
    Vector64 NormalToWorld(const Vector64& n) const;
};

/// An object as added: its own copies of the points and polygons.
struct MeshObject {
    std::vector<Vector64> points;
    std::vector<IntersectionPolygon> polygons;
    Placement placement;
    Vector64 objectMin, objectMax;  ///< bounds of the points used by polygons, object space
    bool hasQuads = false;
    bool hasTriangles = false;
};

/// Checks and copies an object (the common part of AddScene). Errors name the polygon or point.
Result<void> CopyObject(MeshObject& object, const Vector64* points, Int pointCount,
                        const IntersectionPolygon* polygons, Int polygonCount,
                        const Matrix64& matrix);

/// World bounds of an object: its object bounds' eight corners through the placement.
void WorldBounds(const MeshObject& object, Vector64& minimum, Vector64& maximum);

/// Writes the enumeration records (shared by both classes).
Int EnumerateObjects(const std::vector<MeshObject*>& objects, EnumeratedObject* out, Int capacity);

/// The ray's range as this system reads it: [max(minDistance, 0), maxDistance]; false when the
/// ray can hit nothing (empty range, zero or non-finite direction, non-finite origin).
bool UsableRay(const Ray& ray, Float64& tMin, Float64& tMax);

/// Runs `f`, turning bad_alloc and length_error into the out-of-memory error.
template <typename F>
auto GuardMemory(F&& f) -> decltype(f()) {
    try {
        return f();
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
    } catch (const std::length_error&) {
        return OutOfMemoryError();
    }
}

}  // namespace quorv::intersect
