// Both intersector classes through the built modules, against a Float64 brute force.
#include <atomic>
#include <cfloat>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "intersect/intersect_support.h"

namespace quorv {
namespace {

using test::BruteForce;
using test::MakeIntersector;
using test::ReferenceObject;

struct ClassCase {
    const char* id;
    Float64 tTolerance;  ///< relative
    Float64 ambiguity;   ///< rays closer than this (barycentric) to an edge are not compared
    Int buildQuality;    ///< embree: 0 low, 1 medium, 2 high; -1 the class's default
    const char* name;
};

// Embree at its default and at the cheapest build: the faster build must trace the same.
const ClassCase CLASSES[] = {
    {EMBREE_INTERSECTION_CLASS_ID, 2e-5, 1e-4, -1, "embree"},
    {EMBREE_INTERSECTION_CLASS_ID, 2e-5, 1e-4, 0, "embree_lowquality"},
    {YMB_INTERSECTION_CLASS_ID, 1e-12, 1e-9, -1, "ymb"},
};

BatchedIntersectionRef Make(const ClassCase& c) {
    DataDictionary parameters = DataDictionary::Create().GetValue();
    if (c.buildQuality >= 0) {
        const Result<void> set = parameters.SetData(
            LiteralId("net.quorv.render.intersection.buildquality"), Data::Of(c.buildQuality));
        EXPECT_TRUE(set.IsOk());
    }
    return MakeIntersector(c.id, parameters);
}

// Both classes compute the normal in Float64 from the points of the triangle hit: it differs
// from the reference's (made from points placed first) only by rounding, whatever precision
// the class traces in.
constexpr Float64 NORMAL_TOLERANCE = 1e-12;

class Intersectors : public ::testing::TestWithParam<ClassCase> {};

mesh::Mesh ReadAuthored() {
    std::ifstream in(QUORV_TEST_DATA_DIR "/meshes/authored.obj");
    std::stringstream text;
    text << in.rdbuf();
    mesh::Mesh m;
    std::string error;
    EXPECT_TRUE(mesh::ReadObj(text.str(), m, error)) << error;
    return m;
}

Ray MakeRay(const Vector64& origin, const Vector64& direction, Float64 lo = 0.0,
            Float64 hi = DBL_MAX) {
    Ray r;
    r.origin = origin;
    r.direction = direction;
    r.minDistance = lo;
    r.maxDistance = hi;
    return r;
}

// Compares the class with the reference over `rays`; gives the number of hits compared.
int CompareWithReference(const ClassCase& c, const BatchedIntersectionRef& isect,
                         const std::vector<ReferenceObject>& scene, const std::vector<Ray>& rays) {
    int compared = 0;
    for (const Ray& ray : rays) {
        const auto expected = BruteForce(scene, ray);
        IntersectionResult64 got;
        const bool hit = isect.CalculateIntersection(ray, got);
        if (expected && expected->edge < c.ambiguity) continue;
        EXPECT_EQ(hit, expected.has_value())
            << c.id << " ray origin " << ray.origin.x << "," << ray.origin.y << "," << ray.origin.z;
        if (hit != expected.has_value()) continue;
        EXPECT_EQ(isect.CalculateShadow(ray), hit) << c.id;
        if (!hit) {
            EXPECT_EQ(got.headFlag, 0);
            EXPECT_EQ(got.headWordB, 0u);
            continue;
        }
        ++compared;
        EXPECT_EQ(got.headFlag, IntersectionHit::HIT);
        EXPECT_EQ(Int(got.headWordA), expected->object);
        EXPECT_EQ(Int(got.headWordB), expected->polygon) << c.id << " t " << expected->t;
        EXPECT_EQ(got.hitValue, expected->half);
        EXPECT_NEAR(got.hitVectorA.x, expected->t, c.tTolerance * std::max(1.0, expected->t));
        EXPECT_NEAR(got.hitVectorB.x, expected->normal.x, NORMAL_TOLERANCE) << c.id;
        EXPECT_NEAR(got.hitVectorB.y, expected->normal.y, NORMAL_TOLERANCE) << c.id;
        EXPECT_NEAR(got.hitVectorB.z, expected->normal.z, NORMAL_TOLERANCE) << c.id;
        // The barycentrics give back the hit point.
        const ReferenceObject& o = scene[expected->object];
        const IntersectionPolygon& q = o.polygons[expected->polygon];
        const Int32 idx[3] = {q.a, got.hitValue == 0 ? q.b : q.c, got.hitValue == 0 ? q.c : q.d};
        const Float64 u = got.hitVectorA.y, v = got.hitVectorA.z, t = got.hitVectorA.x;
        const Vector64 &p0 = o.points[idx[0]], &p1 = o.points[idx[1]], &p2 = o.points[idx[2]];
        const Vector64 point{ray.origin.x + t * ray.direction.x, ray.origin.y + t * ray.direction.y,
                             ray.origin.z + t * ray.direction.z};
        const Float64 tol = c.tTolerance * 100;
        EXPECT_NEAR((1 - u - v) * p0.x + u * p1.x + v * p2.x, point.x, tol);
        EXPECT_NEAR((1 - u - v) * p0.y + u * p1.y + v * p2.y, point.y, tol);
        EXPECT_NEAR((1 - u - v) * p0.z + u * p1.z + v * p2.z, point.z, tol);
    }
    return compared;
}

std::vector<Ray> RandomRays(std::mt19937_64& rng, const Vector64& lo, const Vector64& hi, int count,
                            Float64 margin) {
    std::uniform_real_distribution<Float64> unit(0.0, 1.0);
    auto inBox = [&](Float64 m) {
        return Vector64{lo.x - m + (hi.x - lo.x + 2 * m) * unit(rng),
                        lo.y - m + (hi.y - lo.y + 2 * m) * unit(rng),
                        lo.z - m + (hi.z - lo.z + 2 * m) * unit(rng)};
    };
    std::vector<Ray> rays;
    for (int i = 0; i < count; ++i) {
        const Vector64 o = inBox(margin);
        const Vector64 target = inBox(0.0);
        rays.push_back(MakeRay(o, {target.x - o.x, target.y - o.y, target.z - o.z}));
    }
    return rays;
}

TEST(Meshes, AuthoredObjReadsQuadsFansAndRelativeIndices) {
    const mesh::Mesh m = ReadAuthored();
    ASSERT_EQ(m.points.size(), 22u);
    const std::vector<std::array<Int32, 4>> expected = {
        {0, 1, 2, 3},     {4, 5, 6, 7},                                          // quads
        {8, 9, 10, 10},   {8, 8, 11, 11},   {8, 9, 11, 11},                      // degenerate
        {12, 13, 14, 14}, {12, 14, 15, 15}, {12, 15, 16, 16}, {12, 16, 17, 17},  // n-gon fan
        {18, 19, 20, 20}, {19, 21, 20, 20}};                                     // relative
    ASSERT_EQ(m.polygons.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const auto& p = m.polygons[i];
        EXPECT_EQ((std::array<Int32, 4>{p.a, p.b, p.c, p.d}), expected[i]) << "polygon " << i;
    }
    EXPECT_EQ(m.points[2].z, 0.5);
    mesh::Mesh bad;
    std::string error;
    EXPECT_FALSE(mesh::ReadObj("v 0 0 0\nv 1 0 0\nf 1 2 7\n", bad, error));
    EXPECT_NE(error.find("does not exist"), std::string::npos) << error;
}

TEST_P(Intersectors, AuthoredObjMatchesBruteForce) {
    const ClassCase c = GetParam();
    BatchedIntersectionRef isect = Make(c);
    ASSERT_TRUE(isect);
    const mesh::Mesh m = ReadAuthored();
    Matrix64 shifted;
    shifted.offset = {10.0, -3.0, 0.5};
    shifted.axisX = {0.0, 2.0, 0.0};  // rotated and scaled, with a mirror: normals must follow
    shifted.axisY = {1.0, 0.0, 0.0};
    shifted.axisZ = {0.0, 0.0, 1.5};
    ASSERT_EQ(isect
                  .AddScene(m.points.data(), Int(m.points.size()), m.polygons.data(),
                            Int(m.polygons.size()), Matrix64{})
                  .GetValue(),
              0);
    ASSERT_EQ(isect
                  .AddScene(m.points.data(), Int(m.points.size()), m.polygons.data(),
                            Int(m.polygons.size()), shifted)
                  .GetValue(),
              1);
    ASSERT_TRUE(isect.Finalize().IsOk());
    const std::vector<ReferenceObject> scene = {test::PlaceMesh(m, Matrix64{}),
                                                test::PlaceMesh(m, shifted)};
    Vector64 lo, hi;
    ASSERT_TRUE(isect.GetSceneBounds(lo, hi));
    EXPECT_EQ(lo.x, -2.0);
    EXPECT_EQ(hi.z, 3.2 * 1.5 + 0.5);
    std::mt19937_64 rng(7);
    const int compared = CompareWithReference(c, isect, scene, RandomRays(rng, lo, hi, 4000, 2.0));
    EXPECT_GT(compared, 500);
}

TEST_P(Intersectors, DegenerateFacesAreNeverHit) {
    const ClassCase c = GetParam();
    BatchedIntersectionRef isect = Make(c);
    const std::vector<Vector64> pts = {{0, 0, 0}, {1, 1, 0}, {2, 2, 0}, {0, 1, 0}};
    const std::vector<IntersectionPolygon> polys = {{0, 1, 2, 2}, {0, 0, 3, 3}, {1, 1, 1, 1}};
    ASSERT_TRUE(isect.AddScene(pts.data(), 4, polys.data(), 3, Matrix64{}).IsOk());
    ASSERT_TRUE(isect.Finalize().IsOk());
    for (Float64 s : {0.0, 0.5, 1.0, 1.5, 2.0}) {
        IntersectionResult64 r;
        EXPECT_FALSE(isect.CalculateIntersection(MakeRay({s, s, -1}, {0, 0, 1}), r));
        EXPECT_FALSE(isect.CalculateIntersection(MakeRay({0, s / 2, -1}, {0, 0, 1}), r));
    }
}

TEST_P(Intersectors, SpheresOfTrianglesAndQuadsMatchBruteForce) {
    const ClassCase c = GetParam();
    for (bool quads : {false, true}) {
        BatchedIntersectionRef isect = Make(c);
        const mesh::Mesh m = mesh::MakeSphere(12, quads);
        ASSERT_TRUE(isect
                        .AddScene(m.points.data(), Int(m.points.size()), m.polygons.data(),
                                  Int(m.polygons.size()), Matrix64{})
                        .IsOk());
        ASSERT_TRUE(isect.Finalize().IsOk());
        std::mt19937_64 rng(quads ? 11 : 12);
        const int compared =
            CompareWithReference(c, isect, {test::PlaceMesh(m, Matrix64{})},
                                 RandomRays(rng, {-1, -1, -1}, {1, 1, 1}, 3000, 1.5));
        EXPECT_GT(compared, 1500);
    }
}

// Rays from inside a closed mesh through its vertices, the middles of its edges and random
// directions: a watertight test finds a polygon for every one.
TEST_P(Intersectors, NoRayEscapesAClosedMesh) {
    const ClassCase c = GetParam();
    const mesh::Mesh m = mesh::MakeSphere(24, false);
    BatchedIntersectionRef isect = Make(c);
    ASSERT_TRUE(isect
                    .AddScene(m.points.data(), Int(m.points.size()), m.polygons.data(),
                              Int(m.polygons.size()), Matrix64{})
                    .IsOk());
    ASSERT_TRUE(isect.Finalize().IsOk());
    std::vector<Vector64> targets = m.points;
    for (const IntersectionPolygon& p : m.polygons) {
        const Vector64 &a = m.points[p.a], &b = m.points[p.b], &cc = m.points[p.c];
        targets.push_back({(a.x + b.x) / 2, (a.y + b.y) / 2, (a.z + b.z) / 2});
        targets.push_back({(a.x + cc.x) / 2, (a.y + cc.y) / 2, (a.z + cc.z) / 2});
    }
    std::mt19937_64 rng(3);
    std::normal_distribution<Float64> g;
    for (int i = 0; i < 2000; ++i) targets.push_back({g(rng), g(rng), g(rng)});
    int escaped = 0;
    for (const Vector64& origin : {Vector64{0, 0, 0}, Vector64{0.1, -0.2, 0.3}}) {
        for (const Vector64& t : targets) {
            const Ray ray = MakeRay(origin, {t.x - origin.x, t.y - origin.y, t.z - origin.z});
            IntersectionResult64 r;
            if (!isect.CalculateIntersection(ray, r)) ++escaped;
            if (!isect.CalculateShadow(ray)) ++escaped;
        }
    }
    EXPECT_EQ(escaped, 0) << c.id;
}

// A ray along +z meets the plane z = 0 at t = 2 exactly (in Float32 too): the ends of the range
// count, a value one step inside them does not.
TEST_P(Intersectors, RangeEndsAreClosed) {
    const ClassCase c = GetParam();
    BatchedIntersectionRef isect = Make(c);
    const std::vector<Vector64> pts = {{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0}};
    const IntersectionPolygon quad{0, 1, 2, 3};
    ASSERT_TRUE(isect.AddScene(pts.data(), 4, &quad, 1, Matrix64{}).IsOk());
    ASSERT_TRUE(isect.Finalize().IsOk());
    const Vector64 o{0.25, 0.125, -2.0}, d{0, 0, 1};
    IntersectionResult64 r;
    EXPECT_TRUE(isect.CalculateIntersection(MakeRay(o, d, 0.0, 2.0), r));
    EXPECT_EQ(r.hitVectorA.x, 2.0);
    EXPECT_EQ(r.hitVectorB.z, 1.0);
    EXPECT_TRUE(isect.CalculateIntersection(MakeRay(o, d, 2.0, 3.0), r));
    EXPECT_FALSE(isect.CalculateIntersection(MakeRay(o, d, 0.0, std::nextafter(2.0, 0.0)), r));
    EXPECT_FALSE(isect.CalculateIntersection(MakeRay(o, d, std::nextafter(2.0, 3.0), 3.0), r));
    EXPECT_FALSE(isect.CalculateShadow(MakeRay(o, d, 0.0, std::nextafter(2.0, 0.0))));
    EXPECT_TRUE(isect.CalculateShadow(MakeRay(o, d, 0.0, 2.0)));
    // Behind the origin nothing counts, whatever minDistance says.
    EXPECT_FALSE(isect.CalculateIntersection(MakeRay({0.25, 0.125, 2.0}, d, -10.0, 10.0), r));
    // Rays that can hit nothing.
    EXPECT_FALSE(isect.CalculateIntersection(MakeRay(o, {0, 0, 0}), r));
    EXPECT_FALSE(isect.CalculateIntersection(MakeRay({NAN, 0, 0}, d), r));
    EXPECT_FALSE(isect.CalculateIntersection(MakeRay(o, d, 3.0, 1.0), r));
    EXPECT_EQ(r.headFlag, 0);
}

struct FilterLog {
    std::atomic<int> calls{0};
    UInt rejectPolygon = 0;
};

Bool RejectOne(void* user, const IntersectionResult64& candidate) {
    auto* log = static_cast<FilterLog*>(user);
    ++log->calls;
    return candidate.headWordB != log->rejectPolygon;
}

// Two parallel quads; the filter turns the nearer one away, so rays go on to the farther.
TEST_P(Intersectors, FiltersRejectCandidates) {
    const ClassCase c = GetParam();
    BatchedIntersectionRef isect = Make(c);
    FilterLog log;
    ASSERT_TRUE(isect.RegisterFilter(&RejectOne, &log).IsOk());
    const std::vector<Vector64> pts = {{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0},
                                       {-1, -1, 1}, {1, -1, 1}, {1, 1, 1}, {-1, 1, 1}};
    const std::vector<IntersectionPolygon> polys = {{0, 1, 2, 3}, {4, 5, 6, 7}};
    ASSERT_TRUE(isect.AddScene(pts.data(), 8, polys.data(), 2, Matrix64{}).IsOk());
    ASSERT_TRUE(isect.Finalize().IsOk());
    EXPECT_TRUE(isect.RegisterFilter(nullptr, nullptr).IsError());  // after Finalize
    IntersectionResult64 r;
    ASSERT_TRUE(isect.CalculateIntersection(MakeRay({0.5, 0.25, -1}, {0, 0, 1}), r));
    EXPECT_EQ(r.headWordB, 1u);
    EXPECT_EQ(r.hitVectorA.x, 2.0);
    EXPECT_GE(log.calls.load(), 2);
    // Only the rejected quad lies in this range: no shadow.
    EXPECT_FALSE(isect.CalculateShadow(MakeRay({0.5, 0.25, -1}, {0, 0, 1}, 0.0, 1.5)));
    EXPECT_TRUE(isect.CalculateShadow(MakeRay({0.5, 0.25, -1}, {0, 0, 1}, 0.0, 2.5)));
    // From above, the first quad met is the accepted one.
    ASSERT_TRUE(isect.CalculateIntersection(MakeRay({0.5, 0.25, 3}, {0, 0, -1}), r));
    EXPECT_EQ(r.headWordB, 1u);
    EXPECT_EQ(r.hitVectorA.x, 2.0);
}

TEST_P(Intersectors, MovedObjectsAreHitWhereTheyAreNow) {
    const ClassCase c = GetParam();
    BatchedIntersectionRef isect = Make(c);
    const mesh::Mesh box = mesh::MakeBox();
    for (int i = 0; i < 2; ++i) {
        Matrix64 m;
        m.offset = {Float64(4 * i), 0, 0};
        ASSERT_EQ(isect.AddScene(box.points.data(), 8, box.polygons.data(), 6, m).GetValue(), i);
    }
    ASSERT_TRUE(isect.Finalize().IsOk());
    Matrix64 moved;
    moved.offset = {0, 0, 10};
    moved.axisX = {0, 1, 0};
    moved.axisY = {-1, 0, 0};
    ASSERT_TRUE(isect.UpdateMatrix(1, moved).IsOk());
    EXPECT_TRUE(isect.UpdateMatrix(2, moved).IsError());
    Matrix64 singular;
    singular.axisZ = {0, 0, 0};
    EXPECT_TRUE(isect.UpdateMatrix(0, singular).IsError());
    ASSERT_TRUE(isect.Finalize().IsOk());
    IntersectionResult64 r;
    EXPECT_FALSE(isect.CalculateIntersection(MakeRay({4, 0, -5}, {0, 0, 1}, 0.0, 20.0), r));
    ASSERT_TRUE(isect.CalculateIntersection(MakeRay({0.5, 0.5, 20}, {0, 0, -1}), r));
    EXPECT_EQ(r.headWordA, 1u);
    EXPECT_NEAR(r.hitVectorA.x, 9.0, 1e-6);
    EXPECT_EQ(r.hitVectorB.z, 1.0);  // the top face, turned about z: exact in Float64
    std::vector<EnumeratedObject> objects(3);
    EXPECT_EQ(isect.GetEnumeratedObjects(objects.data(), 3), 2);
    EXPECT_EQ(objects[1].matrix, moved);
    EXPECT_EQ(objects[1].polygonCount, 6);
    EXPECT_EQ(isect.GetEnumeratedObjects(nullptr, 0), 2);
    std::vector<ReferenceObject> scene = {test::PlaceMesh(box, Matrix64{}),
                                          test::PlaceMesh(box, moved)};
    std::mt19937_64 rng(5);
    CompareWithReference(c, isect, scene, RandomRays(rng, {-1, -1, -1}, {1, 1, 11}, 1000, 2.0));
}

TEST_P(Intersectors, FourRaysEqualFourSingleRays) {
    const ClassCase c = GetParam();
    BatchedIntersectionRef isect = Make(c);
    const mesh::Mesh m = mesh::MakeSphere(16, true);
    ASSERT_TRUE(isect
                    .AddScene(m.points.data(), Int(m.points.size()), m.polygons.data(),
                              Int(m.polygons.size()), Matrix64{})
                    .IsOk());
    ASSERT_TRUE(isect.Finalize().IsOk());
    std::mt19937_64 rng(9);
    const std::vector<Ray> rays = RandomRays(rng, {-1, -1, -1}, {1, 1, 1}, 400, 1.0);
    for (size_t i = 0; i + 4 <= rays.size(); i += 4) {
        const Ray* group[4] = {&rays[i], &rays[i + 1], i % 8 ? &rays[i + 2] : nullptr,
                               &rays[i + 3]};
        IntersectionResult64 results[4];
        const Int32 mask = isect.CalculateIntersection4(group, results);
        const Int32 shadow = isect.CalculateShadow4(group);
        for (int k = 0; k < 4; ++k) {
            if (!group[k]) {
                EXPECT_EQ((mask >> k) & 1, 0);
                EXPECT_EQ((shadow >> k) & 1, 0);
                continue;
            }
            IntersectionResult64 single;
            const bool hit = isect.CalculateIntersection(*group[k], single);
            ASSERT_EQ(((mask >> k) & 1) != 0, hit);
            EXPECT_EQ(((shadow >> k) & 1) != 0, hit);
            // The same ray gives the same triangle, and so the same normal to the last bit;
            // Embree's four-wide kernel may round t and (u, v) differently from its single-ray
            // kernel, ymb runs the same code.
            EXPECT_EQ(single.headWordB, results[k].headWordB);
            EXPECT_EQ(single.hitValue, results[k].hitValue);
            EXPECT_EQ(std::memcmp(&single.hitVectorB, &results[k].hitVectorB, sizeof(Vector64)), 0);
            if (c.id == std::string(YMB_INTERSECTION_CLASS_ID)) {
                EXPECT_EQ(std::memcmp(&single.hitVectorA, &results[k].hitVectorA, sizeof(Vector64)),
                          0);
            } else {
                EXPECT_NEAR(single.hitVectorA.x, results[k].hitVectorA.x, 1e-6);
            }
        }
    }
}

TEST_P(Intersectors, BadObjectsAreRefusedWithTheirReason) {
    const ClassCase c = GetParam();
    BatchedIntersectionRef isect = Make(c);
    const std::vector<Vector64> pts = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    const IntersectionPolygon outside{0, 1, 3, 3};
    Result<Int> r = isect.AddScene(pts.data(), 3, &outside, 1, Matrix64{});
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message, "Polygon 0 refers to point 3 of 3");
    EXPECT_TRUE(isect.AddScene(nullptr, 3, &outside, 1, Matrix64{}).IsError());
    const std::vector<Vector64> nan = {{0, 0, 0}, {NAN, 0, 0}, {0, 1, 0}};
    const IntersectionPolygon tri{0, 1, 2, 2};
    r = isect.AddScene(nan.data(), 3, &tri, 1, Matrix64{});
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message, "Point 1 is not finite");
    // Nothing was kept of the refused objects; an empty scene hits nothing.
    ASSERT_TRUE(isect.Finalize().IsOk());
    EXPECT_EQ(isect.GetEnumeratedObjects(nullptr, 0), 0);
    Vector64 lo, hi;
    EXPECT_FALSE(isect.GetSceneBounds(lo, hi));
    IntersectionResult64 hit;
    EXPECT_FALSE(isect.CalculateIntersection(MakeRay({0, 0, -1}, {0, 0, 1}), hit));
}

// Many threads trace one finalized scene at once (run under tsan too).
TEST_P(Intersectors, RaysFromManyThreadsAgree) {
    const ClassCase c = GetParam();
    BatchedIntersectionRef isect = Make(c);
    const mesh::Mesh m = mesh::MakeSphere(20, false);
    ASSERT_TRUE(isect
                    .AddScene(m.points.data(), Int(m.points.size()), m.polygons.data(),
                              Int(m.polygons.size()), Matrix64{})
                    .IsOk());
    ASSERT_TRUE(isect.Finalize().IsOk());
    std::mt19937_64 rng(21);
    const std::vector<Ray> rays = RandomRays(rng, {-1, -1, -1}, {1, 1, 1}, 500, 1.0);
    std::vector<IntersectionResult64> expected(rays.size());
    for (size_t i = 0; i < rays.size(); ++i) isect.CalculateIntersection(rays[i], expected[i]);
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (size_t i = 0; i < rays.size(); ++i) {
                IntersectionResult64 r;
                isect.CalculateIntersection(rays[i], r);
                if (std::memcmp(&r.hitVectorA, &expected[i].hitVectorA, 2 * sizeof(Vector64)) != 0)
                    ++mismatches;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST(Intersectors, InitRefusesParametersOutsideTheirRange) {
    ASSERT_TRUE(test::LoadIntersectModules());
    for (const auto& [id, key, value] :
         {std::tuple{YMB_INTERSECTION_CLASS_ID, "net.quorv.render.intersection.leafsize", Int(17)},
          std::tuple{YMB_INTERSECTION_CLASS_ID, "net.quorv.render.intersection.bincount", Int(1)},
          std::tuple{EMBREE_INTERSECTION_CLASS_ID, "net.quorv.render.intersection.buildquality",
                     Int(3)}}) {
        Result<ObjectRef> o =
            CreateObjectById(LiteralId(INTERSECTION_CLASS_REGISTRY_ID), LiteralId(id));
        ASSERT_TRUE(o.IsOk());
        IntersectionRef isect = IntersectionRef::Cast(o.GetValue()).GetValue();
        DataDictionary d = DataDictionary::Create().GetValue();
        ASSERT_TRUE(d.SetData(LiteralId(key), Data::Of(value)).IsOk());
        Result<void> r = isect.Init(d);
        EXPECT_TRUE(r.IsError()) << key;
    }
}

INSTANTIATE_TEST_SUITE_P(Classes, Intersectors, ::testing::ValuesIn(CLASSES),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorv
