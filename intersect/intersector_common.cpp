// Checks and copies of AddScene, placements and ray ranges shared by both intersector classes.
#include "intersect/intersector_common.h"

#include <algorithm>
#include <limits>
#include <string>

namespace quorv::intersect {

namespace {

bool Finite(const Vector64& v) {
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

Vector64 Apply3(const Vector64& x, const Vector64& y, const Vector64& z, const Vector64& v) {
    return {x.x * v.x + y.x * v.y + z.x * v.z, x.y * v.x + y.y * v.y + z.y * v.z,
            x.z * v.x + y.z * v.y + z.z * v.z};
}

}  // namespace

bool Placement::Set(const Matrix64& m) {
    if (!Finite(m.offset) || !Finite(m.axisX) || !Finite(m.axisY) || !Finite(m.axisZ)) return false;
    // Columns X, Y, Z; the cofactor rows are the cross products of pairs of columns.
    const Vector64 c0 = Cross(m.axisY, m.axisZ);
    const Vector64 c1 = Cross(m.axisZ, m.axisX);
    const Vector64 c2 = Cross(m.axisX, m.axisY);
    const Float64 det = Dot(m.axisX, c0);
    if (!(det != 0.0) || !std::isfinite(det)) return false;
    matrix = m;
    cofactor[0] = c0;
    cofactor[1] = c1;
    cofactor[2] = c2;
    // The inverse's rows are the cofactor rows over det.
    const Float64 f = 1.0 / det;
    Matrix64 inv;
    inv.axisX = {c0.x * f, c1.x * f, c2.x * f};
    inv.axisY = {c0.y * f, c1.y * f, c2.y * f};
    inv.axisZ = {c0.z * f, c1.z * f, c2.z * f};
    const Vector64 o = Apply3(inv.axisX, inv.axisY, inv.axisZ, m.offset);
    inv.offset = {-o.x, -o.y, -o.z};
    inverse = inv;
    identity = m == Matrix64{};
    return true;
}

Vector64 Placement::PointToObject(const Vector64& p) const {
    if (identity) return p;
    // Offset first, then the linear part: exact for pure translations.
    const Vector64 d = Sub(p, matrix.offset);
    return Apply3(inverse.axisX, inverse.axisY, inverse.axisZ, d);
}

Vector64 Placement::VectorToObject(const Vector64& v) const {
    if (identity) return v;
    return Apply3(inverse.axisX, inverse.axisY, inverse.axisZ, v);
}

Vector64 Placement::PointToWorld(const Vector64& p) const {
    const Vector64 l = Apply3(matrix.axisX, matrix.axisY, matrix.axisZ, p);
    return {l.x + matrix.offset.x, l.y + matrix.offset.y, l.z + matrix.offset.z};
}

Vector64 Placement::NormalToWorld(const Vector64& n) const {
    // det * inverse transpose has the cofactor vectors as its columns.
    const Vector64 w = identity ? n : Apply3(cofactor[0], cofactor[1], cofactor[2], n);
    const Float64 l = std::sqrt(Dot(w, w));
    if (!(l > 0.0)) return {};
    return {w.x / l, w.y / l, w.z / l};
}

Result<void> CopyObject(MeshObject& object, const Vector64* points, Int pointCount,
                        const IntersectionPolygon* polygons, Int polygonCount,
                        const Matrix64& matrix) {
    const SourceLocation loc = QUORV_SOURCE_LOCATION;
    if (pointCount < 0 || polygonCount < 0 || (pointCount > 0 && !points) ||
        (polygonCount > 0 && !polygons))
        return MakeError(ERRORKIND::ILLEGALARGUMENT, loc,
                         "Object arrays missing or counts negative");
    if (pointCount > std::numeric_limits<Int32>::max() ||
        polygonCount > std::numeric_limits<Int32>::max() / 2)
        return MakeError(ERRORKIND::ILLEGALARGUMENT, loc, "Object too large");
    if (!object.placement.Set(matrix))
        return MakeError(ERRORKIND::ILLEGALARGUMENT, loc,
                         "Object matrix is singular or not finite");
    return GuardMemory([&]() -> Result<void> {
        object.points.assign(points, points + pointCount);
        object.polygons.assign(polygons, polygons + polygonCount);
        constexpr Float64 INF = std::numeric_limits<Float64>::infinity();
        Vector64 lo{INF, INF, INF}, hi{-INF, -INF, -INF};
        for (Int i = 0; i < polygonCount; ++i) {
            const IntersectionPolygon& p = polygons[i];
            const Int32 idx[4] = {p.a, p.b, p.c, p.d};
            for (Int32 k : idx) {
                if (k < 0 || k >= pointCount)
                    return MakeError(ERRORKIND::ILLEGALARGUMENT, loc,
                                     FormatMessage("Polygon @ refers to point @ of @",
                                                   {std::to_string(i), std::to_string(k),
                                                    std::to_string(pointCount)}));
                const Vector64& v = points[k];
                if (!Finite(v))
                    return MakeError(ERRORKIND::ILLEGALARGUMENT, loc,
                                     FormatMessage("Point @ is not finite", {std::to_string(k)}));
                lo = {std::min(lo.x, v.x), std::min(lo.y, v.y), std::min(lo.z, v.z)};
                hi = {std::max(hi.x, v.x), std::max(hi.y, v.y), std::max(hi.z, v.z)};
            }
            if (p.c == p.d)
                object.hasTriangles = true;
            else
                object.hasQuads = true;
        }
        object.objectMin = lo;
        object.objectMax = hi;
        return OK;
    });
}

void WorldBounds(const MeshObject& object, Vector64& minimum, Vector64& maximum) {
    constexpr Float64 INF = std::numeric_limits<Float64>::infinity();
    minimum = {INF, INF, INF};
    maximum = {-INF, -INF, -INF};
    if (object.polygons.empty()) return;
    for (int c = 0; c < 8; ++c) {
        const Vector64 corner{(c & 1) ? object.objectMax.x : object.objectMin.x,
                              (c & 2) ? object.objectMax.y : object.objectMin.y,
                              (c & 4) ? object.objectMax.z : object.objectMin.z};
        const Vector64 w = object.placement.PointToWorld(corner);
        minimum = {std::min(minimum.x, w.x), std::min(minimum.y, w.y), std::min(minimum.z, w.z)};
        maximum = {std::max(maximum.x, w.x), std::max(maximum.y, w.y), std::max(maximum.z, w.z)};
    }
}

Int EnumerateObjects(const std::vector<MeshObject*>& objects, EnumeratedObject* out, Int capacity) {
    const Int n = static_cast<Int>(objects.size());
    for (Int i = 0; out && i < n && i < capacity; ++i) {
        out[i].objectIndex = i;
        out[i].pointCount = static_cast<Int>(objects[i]->points.size());
        out[i].polygonCount = static_cast<Int>(objects[i]->polygons.size());
        out[i].matrix = objects[i]->placement.matrix;
    }
    return n;
}

bool UsableRay(const Ray& ray, Float64& tMin, Float64& tMax) {
    const Vector64& d = ray.direction;
    if (!Finite(ray.origin) || !Finite(d) || (d.x == 0.0 && d.y == 0.0 && d.z == 0.0)) return false;
    // Rays start at their origin: a range reaching behind it is cut there.
    tMin = ray.minDistance > 0.0 ? ray.minDistance : 0.0;
    tMax = ray.maxDistance;
    return tMin <= tMax;  // also false for NaN ends
}

}  // namespace quorv::intersect
