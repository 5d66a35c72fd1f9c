#pragma once
/// The intersector interfaces "net.quorv.render.interface.intersection" and
/// "net.quorv.render.interface.batchedintersection", and what they exchange.
///
/// Intersector classes live in other modules (libquorv_intersect.so registers
/// "net.quorv.render.intersectionclass.embree" and "net.quorv.render.intersectionclass.ymb") and
/// are found by id in "net.quorv.render.registry.intersectionclasses"; the render module's
/// `GetDefaultIntersector` (render/frame/rendergeneral.h) picks one. The operations and their
/// order are fixed; their arguments are this system's own choice, set down here:
///
/// - A scene is a list of objects. Each object is a mesh of points (`Vector64`) and polygons of
///   four point indices, placed in the world by a `Matrix64` (object to world).
/// - A polygon (a, b, c, d) is the triangle (a, b, c) when c == d, else the quad split into the
///   triangles (a, b, c) and (a, c, d). A triangle of zero area is never hit.
/// - Ranges are closed: a hit counts when minDistance <= t <= maxDistance, t measured along the
///   ray's direction as given (not normalised); a range reaching behind the origin is cut at
///   t = 0. Classes that trace in Float32 round the range inwards, so they never report a t
///   outside it.
/// - Hits are `IntersectionResult64` records, see `IntersectionHit` for the members' meaning.
///
/// Life of an intersector: create by id, `Init`, `RegisterFilter` (optional), `AddScene` for each
/// object, `Finalize`, then queries from any number of threads. `UpdateMatrix` moves an object;
/// it takes effect at the next `Finalize`, and no query may run between the two. Errors are
/// `Result` values; out of memory is the out-of-memory error, never an exception.

#include "quorv/classes.h"
#include "quorv/datadictionary.h"
#include "render/cameras/renderray.h"
#include "render/frame/intersectionresult.h"

namespace quorv {

/// Registry of the intersector classes.
constexpr const char* INTERSECTION_CLASS_REGISTRY_ID =
    "net.quorv.render.registry.intersectionclasses";
/// The intersector on Embree 3 (Float32 traversal).
constexpr const char* EMBREE_INTERSECTION_CLASS_ID = "net.quorv.render.intersectionclass.embree";
/// Our own binned-SAH BVH with a watertight Float64 triangle test.
constexpr const char* YMB_INTERSECTION_CLASS_ID = "net.quorv.render.intersectionclass.ymb";

/// Four point indices; a triangle when c == d.
struct IntersectionPolygon {
    Int32 a = 0, b = 0, c = 0, d = 0;
};

/// What the members of an `IntersectionResult64` mean for the intersectors of this system.
namespace IntersectionHit {
/// headWordA: the object index (the value `AddScene` returned).
/// headWordB: the polygon index within that object.
/// headFlag: 1 for a hit, 0 for a miss (then every other member is zero).
/// hitVectorA: (t, u, v): t the ray parameter, u and v the barycentric weights of the second
///   and third point of the triangle hit.
/// hitVectorB: the unit geometric normal in world space, cross(p1 - p0, p2 - p0) of the triangle
///   hit, not turned towards the ray. Computed in Float64 from the object's points.
/// hitValue: which triangle of the polygon was hit: 0 (a, b, c), 1 (a, c, d).
constexpr UInt8 HIT = 1;
}  // namespace IntersectionHit

/// A filter: called for every candidate hit inside the ray's range, before it is taken. The
/// candidate has headWordA, headWordB, hitVectorA and hitValue filled (no normal). Answer false
/// to reject the candidate; the ray then goes on. Called on the querying thread, possibly for
/// candidates that a nearer hit later replaces; must be thread-safe.
using IntersectionFilterFunc = Bool (*)(void* user, const IntersectionResult64& candidate);

/// One object as the intersector keeps it.
struct EnumeratedObject {
    Int objectIndex = 0;
    Int pointCount = 0;
    Int polygonCount = 0;
    Matrix64 matrix;  ///< object to world, as last given to AddScene or UpdateMatrix
};

/// Keys of the `Init` dictionary. Unknown keys are ignored.
namespace intersectionparameters {
/// ymb: at most this many triangles in a leaf, 1 to 16; default 4.
extern const DictionaryKey<Int> LEAFSIZE;
/// ymb: number of SAH bins per axis, 2 to 256; default 16.
extern const DictionaryKey<Int> BINCOUNT;
/// embree: build quality 0 (low), 1 (medium), 2 (high); default 1.
extern const DictionaryKey<Int> BUILDQUALITY;
}  // namespace intersectionparameters

// clang-format off
/// The operations of the intersection interface, in slot order.
#define QUORV_INTERSECTION_METHODS(M) \
    M(Result<void>, Init, (const DataDictionary& parameters), (parameters)) \
    M(Result<void>, RegisterFilter, (IntersectionFilterFunc filter, void* user), (filter, user)) \
    M(Result<Int>, AddScene, (const Vector64* points, Int pointCount, \
                              const IntersectionPolygon* polygons, Int polygonCount, \
                              const Matrix64& matrix), \
      (points, pointCount, polygons, polygonCount, matrix)) \
    M(Result<void>, Finalize, (), ()) \
    M(Bool, GetSceneBounds, (Vector64& minimum, Vector64& maximum), (minimum, maximum)) \
    M(Bool, CalculateIntersection, (const Ray& ray, IntersectionResult64& result), (ray, result)) \
    M(Bool, CalculateShadow, (const Ray& ray), (ray)) \
    M(Result<void>, UpdateMatrix, (Int objectIndex, const Matrix64& matrix), \
      (objectIndex, matrix)) \
    M(Int, GetEnumeratedObjects, (EnumeratedObject* objects, Int capacity), (objects, capacity))

/// The batched interface: the operations above, then its own two.
#define QUORV_BATCHEDINTERSECTION_METHODS(M) \
    QUORV_INTERSECTION_METHODS(M) \
    M(Int32, CalculateIntersection4, (const Ray* const* rays, IntersectionResult64* results), \
      (rays, results)) \
    M(Int32, CalculateShadow4, (const Ray* const* rays), (rays))
// clang-format on

/// The intersection interface. Through `IntersectionRef`:
/// - `Init(parameters)`: settles the build options and empties the scene. Error: illegal
///   argument naming a key outside its range.
/// - `RegisterFilter(filter, user)`: one filter for all objects (null removes it); before
///   `Finalize`, else an illegal-state error.
/// - `AddScene(points, pointCount, polygons, polygonCount, matrix)`: copies an object and gives
///   its index (0, 1, ...). Errors: null arrays with non-zero counts, a polygon index outside the
///   points ("Polygon @ refers to point @ of @"), non-finite points or matrix.
/// - `Finalize()`: builds; queries may start after it.
/// - `GetSceneBounds(min, max)`: the world bounds of all objects; false for an empty scene.
/// - `CalculateIntersection(ray, result)`: the nearest hit in the ray's range; true on a hit.
///   A miss clears `result`.
/// - `CalculateShadow(ray)`: true when any polygon is hit in the range.
/// - `UpdateMatrix(object, matrix)`: moves an object (see above). Error: an unknown index.
/// - `GetEnumeratedObjects(objects, capacity)`: writes up to `capacity` records and gives the
///   number of objects (`objects` may be null to ask for the count).
/// Thread safety: queries and `GetSceneBounds` run on any number of threads after `Finalize`;
/// everything else alone.
QUORV_VIRTUAL_INTERFACE(IntersectionInterface, "net.quorv.render.interface.intersection",
                        QUORV_INTERSECTION_METHODS);

/// The batched interface, derived from the one above:
/// - `CalculateIntersection4(rays, results)`: four rays at once (a null entry is an idle lane);
///   bit i of the answer is set when ray i hit. Each lane's result equals that of
///   `CalculateIntersection` for the same ray.
/// - `CalculateShadow4(rays)`: bit i set when ray i is blocked.
QUORV_VIRTUAL_INTERFACE_WITH_BASE(BatchedIntersectionInterface,
                                  "net.quorv.render.interface.batchedintersection",
                                  IntersectionInterface::Record(),
                                  QUORV_BATCHEDINTERSECTION_METHODS);

/// A counted handle of an intersector.
using IntersectionRef = IntersectionInterface::Ref;
/// A counted handle of a batched intersector.
using BatchedIntersectionRef = BatchedIntersectionInterface::Ref;

}  // namespace quorv
