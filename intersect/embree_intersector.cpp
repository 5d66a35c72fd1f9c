// "net.quorv.render.intersectionclass.embree": Embree 3 scenes, one per object, placed as
// instances in a top scene. One Embree device serves the whole process. Rays are traced in
// Float32; the range is rounded inwards so that no hit outside the caller's range comes back.
// The processor's FTZ/DAZ modes are left as the caller has them.
#include <embree3/rtcore.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <memory>
#include <mutex>

#include "intersect/intersector_class.h"
#include "intersect/intersector_common.h"

namespace quorv::intersect {

namespace {

std::mutex g_deviceMutex;
RTCDevice g_device = nullptr;

// The process's device, made on first use; released when the module is unloaded (scenes still
// alive keep their own reference to it).
RTCDevice Device() {
    std::lock_guard<std::mutex> lock(g_deviceMutex);
    if (!g_device) g_device = rtcNewDevice(nullptr);
    return g_device;
}

void ReleaseDevice() {
    std::lock_guard<std::mutex> lock(g_deviceMutex);
    if (g_device) rtcReleaseDevice(g_device);
    g_device = nullptr;
}

Error EmbreeError(RTCDevice device, const char* what) {
    const RTCError e = device ? rtcGetDeviceError(device) : RTC_ERROR_UNKNOWN;
    if (e == RTC_ERROR_OUT_OF_MEMORY) return OutOfMemoryError();
    return MakeError(ERRORKIND::OTHER, QUORV_SOURCE_LOCATION,
                     FormatMessage("Embree failed to @ (error @)", {what, std::to_string(int(e))}));
}

// One Float32 step up or down from a value that isn't a NaN: std::nextafter, inline. Every ray
// with an open far end (DBL_MAX) takes a step, and the library call was 2% of the instructions
// of a ray. A step from an infinity towards zero gives the largest finite value of its sign.
Float32 Step(Float32 f, bool up) {
    if (f == 0.0f)
        return up ? std::numeric_limits<Float32>::denorm_min()
                  : -std::numeric_limits<Float32>::denorm_min();
    const UInt32 bits = std::bit_cast<UInt32>(f);
    // Away from zero is one more in the magnitude bits, towards zero one less.
    return std::bit_cast<Float32>((f > 0.0f) == up ? bits + 1 : bits - 1);
}

Float32 RoundUp(Float64 v) {
    const Float32 f = static_cast<Float32>(v);
    return static_cast<Float64>(f) < v ? Step(f, true) : f;
}

Float32 RoundDown(Float64 v) {
    const Float32 f = static_cast<Float32>(v);
    return static_cast<Float64>(f) > v ? Step(f, false) : f;
}

enum GEOMETRY : unsigned { TRIANGLES = 0, QUADS = 1 };

struct EmbreeIntersectorImpl;

/// What a filter callback needs of a geometry.
struct GeometryUser {
    const EmbreeIntersectorImpl* owner = nullptr;
    GEOMETRY kind = TRIANGLES;
    const std::vector<Int32>* polygonOf = nullptr;  ///< empty: the primitive is the polygon
};

struct EmbreeObject : MeshObject {
    RTCScene scene = nullptr;
    std::vector<Int32> polygonOf[2];  ///< per geometry, filled when an object mixes both kinds
    GeometryUser user[2];

    EmbreeObject() = default;
    EmbreeObject(const EmbreeObject&) = delete;
    ~EmbreeObject() {
        if (scene) rtcReleaseScene(scene);
    }
};

// Turns Embree's primitive, barycentrics and geometry into our polygon, half and (u, v).
// Quads are given to Embree as (b, c, d, a): its split (v0, v1, v3), (v2, v3, v1) then equals
// our (a, b, c), (a, c, d), in the same winding.
void DecodeHit(const EmbreeObject& o, unsigned geomID, unsigned primID, Float32 eu, Float32 ev,
               IntersectionResult64& r) {
    const std::vector<Int32>& map = o.polygonOf[geomID];
    r.headWordB = static_cast<UInt>(map.empty() ? primID : static_cast<unsigned>(map[primID]));
    const Float64 u = eu, v = ev;
    if (geomID == TRIANGLES) {
        r.hitValue = 0;
        r.hitVectorA.y = u;
        r.hitVectorA.z = v;
    } else if (u + v <= 1.0) {
        r.hitValue = 0;
        r.hitVectorA.y = 1.0 - u - v;
        r.hitVectorA.z = u;
    } else {
        r.hitValue = 1;
        r.hitVectorA.y = 1.0 - v;
        r.hitVectorA.z = u + v - 1.0;
    }
}

void FilterCallback(const RTCFilterFunctionNArguments* args);

struct EmbreeIntersectorImpl {
    std::vector<std::shared_ptr<EmbreeObject>> objects;
    RTCScene top = nullptr;
    RTCScene trace = nullptr;  ///< what queries trace: `top`, or the only object's scene
    RTCBuildQuality quality = RTC_BUILD_QUALITY_MEDIUM;
    IntersectionFilterFunc filter = nullptr;
    void* filterUser = nullptr;
    bool finalized = false;
    bool everFinalized = false;

    EmbreeIntersectorImpl() = default;
    EmbreeIntersectorImpl& operator=(const EmbreeIntersectorImpl&) = delete;
    ~EmbreeIntersectorImpl() { Clear(); }

    void Clear() {
        if (top) rtcReleaseScene(top);
        top = nullptr;
        trace = nullptr;
        objects.clear();
        finalized = everFinalized = false;
    }

    Result<void> Init(const DataDictionary& parameters) {
        const Int q = parameters.Get(intersectionparameters::BUILDQUALITY, Int(1));
        if (q < 0 || q > 2)
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Build quality @ outside 0 to 2", {std::to_string(q)}));
        quality = q == 0   ? RTC_BUILD_QUALITY_LOW
                  : q == 1 ? RTC_BUILD_QUALITY_MEDIUM
                           : RTC_BUILD_QUALITY_HIGH;
        if (!Device()) return EmbreeError(nullptr, "create a device");
        Clear();
        return OK;
    }

    Result<void> RegisterFilter(IntersectionFilterFunc f, void* user) {
        // Filters are part of the Embree geometries, which the first Finalize commits.
        if (everFinalized)
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
            auto object = std::make_shared<EmbreeObject>();
            Result<void> r =
                CopyObject(*object, points, pointCount, polygons, polygonCount, matrix);
            if (r.IsError()) return r.GetError();
            objects.push_back(std::move(object));
            finalized = false;
            return static_cast<Int>(objects.size() - 1);
        });
    }

    Result<void> BuildObject(EmbreeObject& o) {
        RTCDevice device = Device();
        o.scene = rtcNewScene(device);
        if (!o.scene) return EmbreeError(device, "create a scene");
        rtcSetSceneBuildQuality(o.scene, quality);
        // Robust traversal and the watertight triangle test: a ray through a shared edge or
        // vertex must not slip between the polygons of a closed mesh.
        rtcSetSceneFlags(o.scene, RTC_SCENE_FLAG_ROBUST);
        const bool mixed = o.hasQuads && o.hasTriangles;
        size_t counts[2] = {0, 0};
        for (const IntersectionPolygon& p : o.polygons) ++counts[p.c == p.d ? TRIANGLES : QUADS];
        for (unsigned kind : {TRIANGLES, QUADS}) {
            if (counts[kind] == 0) continue;
            RTCGeometry g = rtcNewGeometry(
                device, kind == TRIANGLES ? RTC_GEOMETRY_TYPE_TRIANGLE : RTC_GEOMETRY_TYPE_QUAD);
            if (!g) return EmbreeError(device, "create a geometry");
            auto* vertices = static_cast<Float32*>(
                rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                        3 * sizeof(Float32), o.points.size()));
            const unsigned width = kind == TRIANGLES ? 3 : 4;
            auto* indices = static_cast<unsigned*>(
                rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_INDEX, 0,
                                        kind == TRIANGLES ? RTC_FORMAT_UINT3 : RTC_FORMAT_UINT4,
                                        width * sizeof(unsigned), counts[kind]));
            if (!vertices || !indices) {
                rtcReleaseGeometry(g);
                return EmbreeError(device, "allocate a buffer");
            }
            for (size_t i = 0; i < o.points.size(); ++i) {
                vertices[3 * i] = static_cast<Float32>(o.points[i].x);
                vertices[3 * i + 1] = static_cast<Float32>(o.points[i].y);
                vertices[3 * i + 2] = static_cast<Float32>(o.points[i].z);
            }
            std::vector<Int32>& map = o.polygonOf[kind];
            if (mixed) map.reserve(counts[kind]);
            size_t k = 0;
            for (size_t i = 0; i < o.polygons.size(); ++i) {
                const IntersectionPolygon& p = o.polygons[i];
                if ((p.c == p.d) != (kind == TRIANGLES)) continue;
                unsigned* idx = indices + width * k++;
                if (kind == TRIANGLES) {
                    idx[0] = unsigned(p.a), idx[1] = unsigned(p.b), idx[2] = unsigned(p.c);
                } else {
                    idx[0] = unsigned(p.b), idx[1] = unsigned(p.c), idx[2] = unsigned(p.d);
                    idx[3] = unsigned(p.a);
                }
                if (mixed) map.push_back(static_cast<Int32>(i));
            }
            o.user[kind] = {this, static_cast<GEOMETRY>(kind), &map};
            if (filter) {
                rtcSetGeometryUserData(g, &o.user[kind]);
                rtcSetGeometryIntersectFilterFunction(g, &FilterCallback);
                rtcSetGeometryOccludedFilterFunction(g, &FilterCallback);
            }
            rtcSetGeometryBuildQuality(g, quality);
            rtcCommitGeometry(g);
            rtcAttachGeometryByID(o.scene, g, kind);
            rtcReleaseGeometry(g);
        }
        rtcCommitScene(o.scene);
        if (rtcGetDeviceError(device) != RTC_ERROR_NONE)
            return EmbreeError(device, "build a scene");
        return OK;
    }

    Result<void> Finalize() {
        return GuardMemory([&]() -> Result<void> {
            RTCDevice device = Device();
            if (!device) return EmbreeError(nullptr, "create a device");
            for (auto& o : objects) {
                if (o->scene) continue;
                Result<void> r = BuildObject(*o);
                if (r.IsError()) return r;
            }
            // One object in its own place is traced directly: the instance level would only
            // add a box test and a ray transform per ray.
            if (top) rtcReleaseScene(top);
            top = nullptr;
            trace = nullptr;
            if (objects.size() == 1 && objects[0]->placement.identity) {
                trace = objects[0]->scene;
                finalized = everFinalized = true;
                return OK;
            }
            // The top scene is rebuilt whole: placements may have moved.
            top = rtcNewScene(device);
            if (!top) return EmbreeError(device, "create a scene");
            rtcSetSceneFlags(top, RTC_SCENE_FLAG_ROBUST);
            for (size_t i = 0; i < objects.size(); ++i) {
                RTCGeometry inst = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_INSTANCE);
                if (!inst) return EmbreeError(device, "create an instance");
                rtcSetGeometryInstancedScene(inst, objects[i]->scene);
                const Matrix64& m = objects[i]->placement.matrix;
                const Float32 xfm[12] = {
                    Float32(m.axisX.x),  Float32(m.axisX.y),  Float32(m.axisX.z),
                    Float32(m.axisY.x),  Float32(m.axisY.y),  Float32(m.axisY.z),
                    Float32(m.axisZ.x),  Float32(m.axisZ.y),  Float32(m.axisZ.z),
                    Float32(m.offset.x), Float32(m.offset.y), Float32(m.offset.z)};
                rtcSetGeometryTransform(inst, 0, RTC_FORMAT_FLOAT3X4_COLUMN_MAJOR, xfm);
                rtcCommitGeometry(inst);
                rtcAttachGeometryByID(top, inst, static_cast<unsigned>(i));
                rtcReleaseGeometry(inst);
            }
            rtcCommitScene(top);
            if (rtcGetDeviceError(device) != RTC_ERROR_NONE)
                return EmbreeError(device, "build the scene");
            trace = top;
            finalized = everFinalized = true;
            return OK;
        });
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

    static bool FillRay(const Ray& ray, RTCRay& r) {
        Float64 tMin, tMax;
        if (!UsableRay(ray, tMin, tMax)) return false;
        r.org_x = Float32(ray.origin.x), r.org_y = Float32(ray.origin.y),
        r.org_z = Float32(ray.origin.z);
        r.dir_x = Float32(ray.direction.x), r.dir_y = Float32(ray.direction.y),
        r.dir_z = Float32(ray.direction.z);
        // Robust scenes take tnear <= t <= tfar: with the range rounded inwards it stays closed
        // at both ends, and no t outside it gets through.
        r.tnear = RoundUp(tMin);
        r.tfar = RoundDown(tMax);
        r.time = 0.0f;
        r.mask = ~0u;
        r.id = 0;
        r.flags = 0;
        return r.tnear <= r.tfar;
    }

    void MakeResult(unsigned instID, unsigned geomID, unsigned primID, Float32 t, Float32 u,
                    Float32 v, IntersectionResult64& result) const {
        if (instID == RTC_INVALID_GEOMETRY_ID) instID = 0;  // traced without the instance level
        const EmbreeObject& o = *objects[instID];
        result = {};
        result.headWordA = instID;
        result.headFlag = IntersectionHit::HIT;
        result.hitVectorA.x = t;
        DecodeHit(o, geomID, primID, u, v, result);
        // The normal from the Float64 points of the triangle hit, not Embree's Float32 one: both
        // classes then give the same normal for the same triangle, to the last bit.
        const IntersectionPolygon& p = o.polygons[result.headWordB];
        const Vector64& p0 = o.points[p.a];
        const Vector64& p1 = o.points[result.hitValue == 0 ? p.b : p.c];
        const Vector64& p2 = o.points[result.hitValue == 0 ? p.c : p.d];
        result.hitVectorB = o.placement.NormalToWorld(Cross(Sub(p1, p0), Sub(p2, p0)));
    }

    Bool CalculateIntersection(const Ray& ray, IntersectionResult64& result) const {
        RTCRayHit rh;
        if (!trace || !FillRay(ray, rh.ray)) {
            result = {};
            return false;
        }
        rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
        rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        rtcIntersect1(trace, &context, &rh);
        if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID) {
            result = {};
            return false;
        }
        MakeResult(rh.hit.instID[0], rh.hit.geomID, rh.hit.primID, rh.ray.tfar, rh.hit.u, rh.hit.v,
                   result);
        return true;
    }

    Bool CalculateShadow(const Ray& ray) const {
        RTCRay r;
        if (!trace || !FillRay(ray, r)) return false;
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        rtcOccluded1(trace, &context, &r);
        return r.tfar == -std::numeric_limits<Float32>::infinity();
    }

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

    Int32 CalculateIntersection4(const Ray* const* rays, IntersectionResult64* results) const {
        alignas(16) int valid[4];
        alignas(16) RTCRayHit4 rh;
        bool anyValid = false;
        for (int i = 0; i < 4; ++i) {
            RTCRay r;
            valid[i] = rays[i] && trace && FillRay(*rays[i], r) ? -1 : 0;
            if (valid[i]) {
                anyValid = true;
                rh.ray.org_x[i] = r.org_x, rh.ray.org_y[i] = r.org_y, rh.ray.org_z[i] = r.org_z;
                rh.ray.dir_x[i] = r.dir_x, rh.ray.dir_y[i] = r.dir_y, rh.ray.dir_z[i] = r.dir_z;
                rh.ray.tnear[i] = r.tnear, rh.ray.tfar[i] = r.tfar;
                rh.ray.time[i] = 0.0f, rh.ray.mask[i] = ~0u, rh.ray.id[i] = 0, rh.ray.flags[i] = 0;
            }
            rh.hit.geomID[i] = RTC_INVALID_GEOMETRY_ID;
            rh.hit.instID[0][i] = RTC_INVALID_GEOMETRY_ID;
        }
        if (anyValid) {
            RTCIntersectContext context;
            rtcInitIntersectContext(&context);
            rtcIntersect4(valid, trace, &context, &rh);
        }
        Int32 mask = 0;
        for (int i = 0; i < 4; ++i) {
            if (!rays[i]) continue;
            if (!valid[i] || rh.hit.geomID[i] == RTC_INVALID_GEOMETRY_ID) {
                results[i] = {};
                continue;
            }
            MakeResult(rh.hit.instID[0][i], rh.hit.geomID[i], rh.hit.primID[i], rh.ray.tfar[i],
                       rh.hit.u[i], rh.hit.v[i], results[i]);
            mask |= 1 << i;
        }
        return mask;
    }

    Int32 CalculateShadow4(const Ray* const* rays) const {
        alignas(16) int valid[4];
        alignas(16) RTCRay4 r4;
        bool anyValid = false;
        for (int i = 0; i < 4; ++i) {
            RTCRay r;
            valid[i] = rays[i] && trace && FillRay(*rays[i], r) ? -1 : 0;
            if (valid[i]) {
                anyValid = true;
                r4.org_x[i] = r.org_x, r4.org_y[i] = r.org_y, r4.org_z[i] = r.org_z;
                r4.dir_x[i] = r.dir_x, r4.dir_y[i] = r.dir_y, r4.dir_z[i] = r.dir_z;
                r4.tnear[i] = r.tnear, r4.tfar[i] = r.tfar;
                r4.time[i] = 0.0f, r4.mask[i] = ~0u, r4.id[i] = 0, r4.flags[i] = 0;
            }
        }
        if (!anyValid) return 0;
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        rtcOccluded4(valid, trace, &context, &r4);
        Int32 mask = 0;
        for (int i = 0; i < 4; ++i)
            if (valid[i] && r4.tfar[i] == -std::numeric_limits<Float32>::infinity()) mask |= 1 << i;
        return mask;
    }
};

void FilterCallback(const RTCFilterFunctionNArguments* args) {
    const auto* g = static_cast<const GeometryUser*>(args->geometryUserPtr);
    const EmbreeIntersectorImpl& owner = *g->owner;
    if (!owner.filter) return;
    for (unsigned i = 0; i < args->N; ++i) {
        if (args->valid[i] != -1) continue;
        unsigned inst = RTCHitN_instID(args->hit, args->N, i, 0);
        if (inst == RTC_INVALID_GEOMETRY_ID) inst = 0;  // traced without the instance level
        IntersectionResult64 candidate;
        candidate.headWordA = inst;
        candidate.headFlag = IntersectionHit::HIT;
        candidate.hitVectorA.x = RTCRayN_tfar(args->ray, args->N, i);
        DecodeHit(*owner.objects[inst], g->kind, RTCHitN_primID(args->hit, args->N, i),
                  RTCHitN_u(args->hit, args->N, i), RTCHitN_v(args->hit, args->N, i), candidate);
        if (!owner.filter(owner.filterUser, candidate)) args->valid[i] = 0;
    }
}

ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
IntersectorClass<EmbreeIntersectorImpl> g_class(g_unit, EMBREE_INTERSECTION_CLASS_ID, __FILE__);
InitializationRecord g_deviceRelease;

const bool g_defined =
    (DefineInitialization(g_deviceRelease, __FILE__, nullptr, &ReleaseDevice, g_unit), true);

}  // namespace

}  // namespace quorv::intersect
