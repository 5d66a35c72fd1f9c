// The two camera classes through their interface, created by id as any caller does; a few
// white-box checks of state that no operation reads use the implementation directly.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <sstream>
#include <string>

#include "common/test_support.h"
#include "quorv/host/host.h"
#include "render/cameras/camera.h"
#include "render/cameras/camera_impl.h"

namespace quorv {

// Internal linkage: other tests of this binary may print vectors their own way.
static std::ostream& operator<<(std::ostream& os, const Vector64& v) {
    return os << "(" << v.x << ", " << v.y << ", " << v.z << ")";
}

namespace {

namespace keys = cameraparameters;

const char* const BOTH_CLASSES[] = {PARALLEL_CAMERA_CLASS_ID, PERSPECTIVE_CAMERA_CLASS_ID};

CameraRef MakeCamera(const char* id) {
    return test::MakeInstance<CameraInterface>(CAMERA_CLASS_REGISTRY_ID, id);
}

DataDictionary Parameters(Vector2d64 resolution) {
    DataDictionary d = DataDictionary::Create().GetValue();
    EXPECT_TRUE(d.Set(keys::SCREENRESOLUTION, resolution).IsOk());
    return d;
}

CameraRef MakeInitialized(const char* id, const DataDictionary& d, Int flags = 0) {
    CameraRef cam = MakeCamera(id);
    EXPECT_TRUE(cam.Init(d, flags).IsOk());
    return cam;
}

// Equal bit patterns: tells -0.0 from 0.0 and compares NaNs.
::testing::AssertionResult SameBits(const Vector64& a, const Vector64& b) {
    auto bits = [](Float64 x) { return std::bit_cast<UInt>(x); };
    if (bits(a.x) == bits(b.x) && bits(a.y) == bits(b.y) && bits(a.z) == bits(b.z)) {
        return ::testing::AssertionSuccess();
    }
    std::ostringstream text;
    text << std::hexfloat << a << " vs " << b;
    return ::testing::AssertionFailure() << text.str();
}

void ExpectNear(const Vector64& a, const Vector64& b, Float64 tolerance = 1e-12) {
    EXPECT_NEAR(a.x, b.x, tolerance) << a << " vs " << b;
    EXPECT_NEAR(a.y, b.y, tolerance) << a << " vs " << b;
    EXPECT_NEAR(a.z, b.z, tolerance) << a << " vs " << b;
}

Vector64 Normalized(const Vector64& v) {
    Float64 l = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    return {v.x / l, v.y / l, v.z / l};
}

// A rotation about an oblique axis and a translation, with entries that are not dyadic.
Matrix64 TiltedMatrix() {
    Matrix64 m;
    m.offset = {1.5, -2.25, 3.125};
    m.axisX = {0.8, 0.36, -0.48};
    m.axisY = {-0.6, 0.48, -0.64};
    m.axisZ = {0.0, 0.8, 0.6};
    return m;
}

// ---- registration and interface -------------------------------------------------------------

TEST(CameraInterface, RecordListsSeventeenOperationsInSlotOrder) {
    const char* const names[] = {"Init",
                                 "SetMatrix",
                                 "GetParameters",
                                 "CreateScreenRay",
                                 "CalculateMIPComponents",
                                 "GetFeatures",
                                 "VisibilityTest",
                                 "WorldToCamera",
                                 "CameraToWorld",
                                 "VectorWorldToCamera",
                                 "VectorCameraToWorld",
                                 "WorldToScreen",
                                 "ScreenToWorld",
                                 "CameraToScreen",
                                 "ScreenToCamera",
                                 "GetCameraToWorldMatrix",
                                 "GetWorldToCameraMatrix"};
    // The record published in the unit of camera.cpp, as the host walks it.
    const InterfaceRecord* record = nullptr;
    for (TranslationUnitRecord* u = g_moduleRecord.firstUnit; u; u = u->nextUnit) {
        if (!(u->id == "camera.cpp")) continue;
        for (EntityBase* r = u->first; r; r = r->next) {
            if (r->GetType() == EntityBase::TYPE::INTERFACE)
                record = static_cast<InterfaceRecord*>(r);
        }
    }
    ASSERT_NE(record, nullptr);
    EXPECT_TRUE(record->id == "net.quorv.render.interface.camera");
    ASSERT_EQ(record->methodCount, 17);
    const char* p = record->methodNames;
    for (const char* name : names) {
        EXPECT_STREQ(p, name);
        p += std::strlen(p) + 1;
    }
    EXPECT_EQ(record->base, &ObjectInterfaceRecord());
}

TEST(CameraInterface, UnknownClassIdIsAnErrorNamingIt) {
    Result<ObjectRef> o = CreateObjectById(LiteralId(CAMERA_CLASS_REGISTRY_ID),
                                           LiteralId("net.quorv.render.cameraclass.fisheye"));
    ASSERT_TRUE(o.IsError());
    EXPECT_NE(std::string(o.GetErrorPointer()->message).find("fisheye"), std::string::npos);
}

TEST(CameraInterface, FeaturesAreStraightLinesPlusRightHanded) {
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef cam = MakeCamera(id);
        EXPECT_EQ(cam.GetFeatures(), CAMERAFEATUREFLAGS::STRAIGHT_LINES);
        ASSERT_TRUE(cam.Init(Parameters({640, 480}), CAMERA_INIT_RIGHT_HANDED).IsOk());
        EXPECT_EQ(static_cast<Int32>(cam.GetFeatures()), 10);
        ASSERT_TRUE(cam.Init(Parameters({640, 480}), 0).IsOk());
        EXPECT_EQ(static_cast<Int32>(cam.GetFeatures()), 2);
        EXPECT_TRUE(cam.VisibilityTest({0.0, 0.0, -1e300}));
        EXPECT_TRUE(cam.VisibilityTest({NAN, INFINITY, 0.0}));
    }
}

// ---- the screen mapping ----------------------------------------------------------------------

TEST(ScreenMapping, Resolution640x480GivesSquarePixelsAndTheCentre) {
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef cam = MakeInitialized(id, Parameters({640, 480}));
        // At camera depth 1 both classes map x, y by screenScale * c + screenCenter.
        EXPECT_TRUE(SameBits(cam.CameraToScreen({0.0, 0.0, 1.0}), {320.0, 240.0, 1.0}));
        EXPECT_TRUE(SameBits(cam.CameraToScreen({1.0, 1.0, 1.0}), {960.0, -400.0, 1.0}));
        EXPECT_TRUE(SameBits(cam.CameraToScreen({0.5, -0.25, 1.0}), {640.0, 400.0, 1.0}));
    }
}

TEST(ScreenMapping, OffsetAndScaleKeysMoveAndZoom) {
    DataDictionary d = Parameters({640, 480});
    ASSERT_TRUE(d.Set(keys::SCREENOFFSET, Vector2d64{10.0, -20.0}).IsOk());
    ASSERT_TRUE(d.Set(keys::SCREENSCALE, Vector2d64{2.0, 0.5}).IsOk());
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef cam = MakeInitialized(id, d);
        // scale (2*640, -0.5*640), centre (320+10, 240-20)
        EXPECT_TRUE(SameBits(cam.CameraToScreen({1.0, 1.0, 1.0}), {1610.0, -100.0, 1.0}));
    }
}

TEST(ScreenMapping, ZeroResolutionSendsEveryPixelToTheCameraOrigin) {
    DataDictionary d = Parameters({0, 0});
    Matrix64 m = TiltedMatrix();
    ASSERT_TRUE(d.Set(keys::MATRIX, m).IsOk());
    CameraRef parallel = MakeInitialized(PARALLEL_CAMERA_CLASS_ID, d);
    CameraRef perspective = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, d);
    const Vector64 forward = perspective.VectorCameraToWorld({0.0, 0.0, 1.0});
    for (Vector2d64 s : {Vector2d64{0, 0}, Vector2d64{123.5, -7.0}, Vector2d64{1e9, 1e9}}) {
        Ray a, b;
        parallel.CreateScreenRay(s, a);
        perspective.CreateScreenRay(s, b);
        EXPECT_TRUE(SameBits(a.origin, parallel.CameraToWorld({0.0, 0.0, 0.0})));
        EXPECT_EQ(b.origin, m.offset);
        ExpectNear(b.direction, Normalized(forward));
        EXPECT_EQ(parallel.ScreenToCamera({s.x, s.y, 2.0}), (Vector64{0.0, 0.0, 2.0}));
        EXPECT_EQ(perspective.ScreenToCamera({s.x, s.y, 2.0}), (Vector64{0.0, 0.0, 2.0}));
    }
}

TEST(ScreenMapping, ScreenToCameraUndoesCameraToScreen) {
    // Powers of two make every step exact.
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef cam = MakeInitialized(id, Parameters({512, 256}));
        for (Vector64 c :
             {Vector64{0.25, -0.125, 2.0}, Vector64{-3.0, 1.5, 0.5}, Vector64{0.0, 0.0, 1.0}}) {
            EXPECT_EQ(cam.ScreenToCamera(cam.CameraToScreen(c)), c);
        }
    }
    // Elsewhere within rounding.
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef cam = MakeInitialized(id, Parameters({640, 480}));
        for (Vector64 c : {Vector64{0.3, -0.7, 1.9}, Vector64{-12.1, 5.3, 1000.0}}) {
            ExpectNear(cam.ScreenToCamera(cam.CameraToScreen(c)), c, 1e-12 * c.z);
        }
    }
}

TEST(ScreenMapping, WorldAndScreenRoundTripThroughAMovedCamera) {
    DataDictionary d = Parameters({640, 480});
    ASSERT_TRUE(d.Set(keys::MATRIX, TiltedMatrix()).IsOk());
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef cam = MakeInitialized(id, d);
        // Points in front of the camera, so the perspective class divides by their own depth.
        for (Vector64 inFront : {Vector64{0.1, 0.2, 9.0}, Vector64{-4.0, 3.0, 7.5}}) {
            const Vector64 p = cam.CameraToWorld(inFront);
            const Vector64 c = cam.WorldToCamera(p);
            ExpectNear(c, inFront);
            EXPECT_TRUE(SameBits(cam.WorldToScreen(p), cam.CameraToScreen(c)));
            ExpectNear(cam.ScreenToWorld(cam.WorldToScreen(p)), p, 1e-9);
            const Vector64 v{0.25, -1.0, 2.0};
            ExpectNear(cam.VectorCameraToWorld(cam.VectorWorldToCamera(v)), v);
        }
    }
}

// ---- matrices --------------------------------------------------------------------------------

TEST(CameraMatrix, InverseIsExactWhereArithmeticAllows) {
    Matrix64 m;
    m.offset = {1.0, 2.0, 3.0};
    m.axisX = {0.0, 2.0, 0.0};
    m.axisY = {0.0, 0.0, 4.0};
    m.axisZ = {8.0, 0.0, 0.0};
    Matrix64 expected;
    expected.axisX = {0.0, 0.0, 0.125};
    expected.axisY = {0.5, 0.0, 0.0};
    expected.axisZ = {0.0, 0.25, 0.0};
    expected.offset = {-1.0, -0.75, -0.125};
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef cam = MakeInitialized(id, Parameters({640, 480}));
        cam.SetMatrix(m);
        EXPECT_EQ(cam.GetCameraToWorldMatrix(), m);
        EXPECT_EQ(cam.GetWorldToCameraMatrix(), expected);
        EXPECT_TRUE(SameBits(cam.WorldToCamera(m.offset), {0.0, 0.0, 0.0}));
        EXPECT_TRUE(SameBits(cam.VectorWorldToCamera({8.0, 0.0, 0.0}), {0.0, 0.0, 1.0}));
    }
}

TEST(CameraMatrix, SingularMatrixGivesIdentityInverse) {
    Matrix64 m = TiltedMatrix();
    m.axisX = {1.0, 2.0, 3.0};
    m.axisY = {2.0, 4.0, 6.0};  // integer arithmetic: the determinant is exactly 0
    m.axisZ = {0.0, 1.0, 5.0};
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef cam = MakeInitialized(id, Parameters({640, 480}));
        cam.SetMatrix(m);
        EXPECT_EQ(cam.GetCameraToWorldMatrix(), m);
        EXPECT_EQ(cam.GetWorldToCameraMatrix(), Matrix64());
        EXPECT_EQ(cam.WorldToCamera({1.0, 2.0, 3.0}), (Vector64{1.0, 2.0, 3.0}));
        // Through Init too.
        DataDictionary d = Parameters({640, 480});
        ASSERT_TRUE(d.Set(keys::MATRIX, m).IsOk());
        ASSERT_TRUE(cam.Init(d, 0).IsOk());
        EXPECT_EQ(cam.GetWorldToCameraMatrix(), Matrix64());
    }
}

TEST(CameraMatrix, SetMatrixAgreesWithInitAndKeepsTheScreenMapping) {
    const Matrix64 m = TiltedMatrix();
    DataDictionary withMatrix = Parameters({640, 480});
    ASSERT_TRUE(withMatrix.Set(keys::FIELDOFVIEW, 0.75).IsOk());
    DataDictionary plain = Parameters({640, 480});
    ASSERT_TRUE(plain.Set(keys::FIELDOFVIEW, 0.75).IsOk());
    ASSERT_TRUE(withMatrix.Set(keys::MATRIX, m).IsOk());
    for (const char* id : BOTH_CLASSES) {
        for (Int flags : {Int(0), CAMERA_INIT_RIGHT_HANDED}) {
            SCOPED_TRACE(std::string(id) + (flags ? " right handed" : ""));
            CameraRef moved = MakeInitialized(id, plain, flags);
            const Vector64 before = moved.CameraToScreen({0.3, -0.2, flags ? -2.0 : 2.0});
            moved.SetMatrix(m);
            CameraRef direct = MakeInitialized(id, withMatrix, flags);
            for (Vector2d64 s :
                 {Vector2d64{320, 240}, Vector2d64{0, 0}, Vector2d64{611.5, 17.25}}) {
                Ray a, b;
                moved.CreateScreenRay(s, a);
                direct.CreateScreenRay(s, b);
                EXPECT_TRUE(SameBits(a.origin, b.origin));
                EXPECT_TRUE(SameBits(a.direction, b.direction));
                ShadingPoint pa, pb;
                pa.position = pb.position = {2.0, 5.0, 9.0};
                pa.normal = pb.normal = {0.0, 0.6, -0.8};
                moved.CalculateMIPComponents(s, a, pa);
                direct.CalculateMIPComponents(s, b, pb);
                EXPECT_TRUE(SameBits(a.directionDx, b.directionDx));
                EXPECT_TRUE(SameBits(pa.footprintY, pb.footprintY));
            }
            EXPECT_TRUE(SameBits(moved.CameraToScreen({0.3, -0.2, flags ? -2.0 : 2.0}), before));
        }
    }
}

// ---- rays --------------------------------------------------------------------------------------

TEST(ParallelCamera, RayTouchesOnlyOriginDirectionAndDifferentials) {
    DataDictionary d = Parameters({640, 480});
    ASSERT_TRUE(d.Set(keys::MATRIX, TiltedMatrix()).IsOk());
    CameraRef cam = MakeInitialized(PARALLEL_CAMERA_CLASS_ID, d);
    Ray ray;
    ray.minDistance = 0.5;
    ray.maxDistance = 7.0;
    ray.rayWord = 42;
    ray.rayIndex = 3;
    ray.rayWeight = {0.1, 0.2, 0.3};
    ray.rayValueA = 4.0;
    ray.rayFlagsB = 9;
    Ray expected = ray;
    cam.CreateScreenRay({100.0, 50.0}, ray);
    expected.origin = ray.origin;
    expected.direction = ray.direction;
    expected.originDx = expected.originDy = ray.origin;
    expected.directionDx = expected.directionDy = ray.direction;
    EXPECT_EQ(ray, expected);
    EXPECT_EQ(ray.direction, TiltedMatrix().axisZ);
    // The origin is the screen position at depth 0, bit for bit.
    EXPECT_TRUE(SameBits(ray.origin, cam.ScreenToWorld({100.0, 50.0, 0.0})));
}

TEST(ParallelCamera, CornerPixelOfA640x480Screen) {
    CameraRef cam = MakeInitialized(PARALLEL_CAMERA_CLASS_ID, Parameters({640, 480}));
    Ray ray;
    cam.CreateScreenRay({0.0, 0.0}, ray);
    // Screen y runs against camera y.
    EXPECT_TRUE(SameBits(ray.origin, {-0.5, 0.375, 0.0}));
    EXPECT_TRUE(SameBits(ray.direction, {0.0, 0.0, 1.0}));
}

TEST(ParallelCamera, NonFiniteAxisZSpoilsTheOrigin) {
    Matrix64 m;
    m.axisZ = {INFINITY, 0.0, 0.0};
    CameraRef cam = MakeInitialized(PARALLEL_CAMERA_CLASS_ID, Parameters({640, 480}));
    cam.SetMatrix(m);
    Ray ray;
    cam.CreateScreenRay({320.0, 240.0}, ray);
    EXPECT_TRUE(std::isnan(ray.origin.x));  // inf * 0.0 stays in the sum
    EXPECT_EQ(ray.origin.y, 0.0);
}

TEST(ParallelCamera, CalculateMIPComponentsChangesNothing) {
    CameraRef cam = MakeInitialized(PARALLEL_CAMERA_CLASS_ID, Parameters({640, 480}));
    Ray ray;
    cam.CreateScreenRay({10.0, 20.0}, ray);
    ShadingPoint point;
    point.position = {1.0, 2.0, 3.0};
    point.normal = {0.0, 0.0, -1.0};
    point.footprintX = {7.0, 7.0, 7.0};
    const Ray rayBefore = ray;
    const ShadingPoint pointBefore = point;
    cam.CalculateMIPComponents({10.0, 20.0}, ray, point);
    EXPECT_EQ(ray, rayBefore);
    EXPECT_EQ(point, pointBefore);
}

TEST(ParallelCamera, BeforeInitEveryPixelMapsToTheOrigin) {
    CameraRef cam = MakeCamera(PARALLEL_CAMERA_CLASS_ID);
    Ray ray;
    cam.CreateScreenRay({100.0, -50.0}, ray);
    EXPECT_EQ(ray.origin, Vector64{});
    EXPECT_EQ(ray.direction, (Vector64{0.0, 0.0, 1.0}));
    EXPECT_EQ(cam.GetCameraToWorldMatrix(), Matrix64());
    EXPECT_TRUE(cam.GetParameters().IsNull());
}

// offset + axisX*p.x + axisY*p.y + axisZ*p.z, fused in this order.
Vector64 Apply(const Matrix64& m, const Vector64& p) {
    auto row = [&](Float64 o, Float64 x, Float64 y, Float64 z) {
        return std::fma(z, p.z, std::fma(y, p.y, std::fma(x, p.x, o)));
    };
    return {row(m.offset.x, m.axisX.x, m.axisY.x, m.axisZ.x),
            row(m.offset.y, m.axisX.y, m.axisY.y, m.axisZ.y),
            row(m.offset.z, m.axisX.z, m.axisY.z, m.axisZ.z)};
}

// Recomputes rays from the Init inputs alone, by the documented formulas, and compares bits.
TEST(CameraRays, MatchAnIndependentComputationBitForBit) {
    const Matrix64 m = TiltedMatrix();
    const Vector2d64 resolution{800, 600}, offset{3.0, -1.5}, scale{1.25, 0.8};
    const Float64 fov = 0.6;
    DataDictionary d = Parameters(resolution);
    ASSERT_TRUE(d.Set(keys::MATRIX, m).IsOk());
    ASSERT_TRUE(d.Set(keys::SCREENOFFSET, offset).IsOk());
    ASSERT_TRUE(d.Set(keys::SCREENSCALE, scale).IsOk());
    ASSERT_TRUE(d.Set(keys::FIELDOFVIEW, fov).IsOk());
    CameraRef parallel = MakeInitialized(PARALLEL_CAMERA_CLASS_ID, d);
    CameraRef perspective = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, d);

    const Float64 sx = scale.x * resolution.x, sy = -scale.y * resolution.x;
    const Float64 cx = resolution.x * 0.5 + offset.x, cy = resolution.y * 0.5 + offset.y;
    const Float64 ix = 1.0 / sx, iy = 1.0 / sy;
    for (Vector2d64 s : {Vector2d64{0, 0}, Vector2d64{403.0, 298.5}, Vector2d64{799.75, 13.0},
                         Vector2d64{-20.0, 650.0}}) {
        SCOPED_TRACE(::testing::Message() << s.x << ", " << s.y);
        const Float64 u = (s.x - cx) * ix, v = (s.y - cy) * iy;
        const Vector64 origin = Apply(m, {u, v, 0.0});
        Ray ray;
        parallel.CreateScreenRay(s, ray);
        EXPECT_TRUE(SameBits(ray.origin, origin));
        EXPECT_TRUE(SameBits(ray.direction, m.axisZ));

        const Float64 a = u * fov, b = v * fov;
        const Vector64 dir{m.axisZ.x + m.axisX.x * a + m.axisY.x * b,
                           m.axisZ.y + m.axisX.y * a + m.axisY.y * b,
                           m.axisZ.z + m.axisX.z * a + m.axisY.z * b};
        const Float64 f = 1.0 / std::sqrt(dir.x * dir.x + dir.y * dir.y + dir.z * dir.z);
        perspective.CreateScreenRay(s, ray);
        EXPECT_TRUE(SameBits(ray.origin, m.offset));
        EXPECT_TRUE(SameBits(ray.direction, {dir.x * f, dir.y * f, dir.z * f}));
        EXPECT_TRUE(SameBits(ray.directionDy, ray.direction));
        EXPECT_TRUE(SameBits(ray.originDx, m.offset));

        // The same screen position at depth 2.5, back into the world.
        const Float64 z = 2.5;
        EXPECT_TRUE(SameBits(parallel.ScreenToWorld({s.x, s.y, z}), Apply(m, {u, v, z})));
        EXPECT_TRUE(
            SameBits(perspective.ScreenToWorld({s.x, s.y, z}), Apply(m, {z * u, z * v, z})));
    }

    // World to screen, from the inverse the cameras report.
    const Matrix64 inverse = parallel.GetWorldToCameraMatrix();
    ASSERT_EQ(perspective.GetWorldToCameraMatrix(), inverse);
    for (Vector64 p :
         {Vector64{0.3, 4.0, 7.0}, Vector64{-2.0, 1.0, 0.5}, Vector64{1.5, -2.25, 3.125}}) {
        SCOPED_TRACE(::testing::Message() << p);
        const Vector64 c = Apply(inverse, p);
        EXPECT_TRUE(SameBits(parallel.WorldToScreen(p),
                             {std::fma(sx, c.x, cx), std::fma(sy, c.y, cy), c.z}));
        const Float64 w = std::max(c.z, 0.001);
        EXPECT_TRUE(SameBits(perspective.WorldToScreen(p),
                             {std::fma(sx, c.x / w, cx), std::fma(sy, c.y / w, cy), c.z}));
    }
}

// ---- the perspective camera ---------------------------------------------------------------------

TEST(PerspectiveCamera, CentrePixelLooksAlongTheForwardAxisForEveryFieldOfView) {
    Matrix64 m;
    m.axisZ = {0.0, 0.0, 2.0};  // not normalised
    for (Float64 fov : {0.0, 0.5, 1.0, 3.0}) {
        DataDictionary d = Parameters({640, 480});
        ASSERT_TRUE(d.Set(keys::FIELDOFVIEW, fov).IsOk());
        ASSERT_TRUE(d.Set(keys::MATRIX, m).IsOk());
        for (Int flags : {Int(0), CAMERA_INIT_RIGHT_HANDED}) {
            CameraRef cam = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, d, flags);
            Ray ray;
            cam.CreateScreenRay({320.0, 240.0}, ray);
            EXPECT_TRUE(SameBits(ray.direction, {0.0, 0.0, flags ? -1.0 : 1.0})) << fov;
        }
    }
}

TEST(PerspectiveCamera, DefaultFieldOfViewIsHalfAndZeroMakesAllRaysParallel) {
    CameraRef cam = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, Parameters({640, 480}));
    Ray ray;
    cam.CreateScreenRay({640.0, 240.0}, ray);
    // a = 320 * (1/640) * 0.5
    const Float64 a = 320.0 * (1.0 / 640.0) * 0.5;
    const Float64 f = 1.0 / std::sqrt(a * a + 1.0);
    EXPECT_TRUE(SameBits(ray.direction, {a * f, 0.0, f}));

    DataDictionary d = Parameters({640, 480});
    ASSERT_TRUE(d.Set(keys::FIELDOFVIEW, 0.0).IsOk());
    ASSERT_TRUE(cam.Init(d, 0).IsOk());
    for (Vector2d64 s : {Vector2d64{0, 0}, Vector2d64{640, 480}, Vector2d64{-1e6, 3.0}}) {
        cam.CreateScreenRay(s, ray);
        EXPECT_TRUE(SameBits(ray.direction, {0.0, 0.0, 1.0}));
    }
}

TEST(PerspectiveCamera, RightHandedCameraSeesNegativeDepth) {
    CameraRef cam = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, Parameters({640, 480}),
                                    CAMERA_INIT_RIGHT_HANDED);
    Ray ray;
    cam.CreateScreenRay({320.0, 240.0}, ray);
    EXPECT_TRUE(SameBits(ray.direction, {0.0, 0.0, -1.0}));
    // In front: depth -2 divides by 2.
    EXPECT_TRUE(SameBits(cam.CameraToScreen({1.0, 0.5, -2.0}), {640.0, 80.0, -2.0}));
    EXPECT_TRUE(SameBits(cam.ScreenToCamera({640.0, 80.0, -2.0}), {1.0, 0.5, -2.0}));
    // Behind: projected at depth 0.001, signs kept.
    const Vector64 behind = cam.CameraToScreen({1.0, 0.5, 2.0});
    EXPECT_GT(behind.x, 320.0);
    EXPECT_TRUE(std::isfinite(behind.x));
    const Vector64 atMinDepth = cam.CameraToScreen({1.0, 0.5, -0.001});
    EXPECT_TRUE(SameBits({behind.x, behind.y, 0.0}, {atMinDepth.x, atMinDepth.y, 0.0}));
}

TEST(PerspectiveCamera, DepthZeroProjectsAtMinDepth) {
    CameraRef cam = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, Parameters({640, 480}));
    const Float64 minDepth = std::bit_cast<Float64>(UInt(0x3F50624DD2F1A9FC));
    const Vector64 s = cam.CameraToScreen({1.0, 1.0, 0.0});
    EXPECT_TRUE(SameBits(
        s, {std::fma(640.0, 1.0 / minDepth, 320.0), std::fma(-640.0, 1.0 / minDepth, 240.0), 0.0}));
    const Vector64 behind = cam.CameraToScreen({1.0, 1.0, -5.0});
    EXPECT_TRUE(SameBits({behind.x, behind.y, 0.0}, s));
    EXPECT_EQ(cam.ScreenToCamera({960.0, 240.0, 0.0}),
              (Vector64{640.0 * (1.0 / 640.0) * minDepth, 0.0, 0.0}));
    // WorldToScreen of a point at the camera's origin.
    EXPECT_TRUE(SameBits(cam.WorldToScreen({0.0, 0.0, 0.0}), {320.0, 240.0, 0.0}));
}

TEST(PerspectiveCamera, FieldOfViewEntersRaysButNotProjections) {
    DataDictionary narrow = Parameters({640, 480});
    ASSERT_TRUE(narrow.Set(keys::FIELDOFVIEW, 0.25).IsOk());
    DataDictionary unit = Parameters({640, 480});
    ASSERT_TRUE(unit.Set(keys::FIELDOFVIEW, 1.0).IsOk());
    CameraRef a = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, narrow);
    CameraRef b = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, unit);
    const Vector64 s{100.0, 400.0, 3.0};
    EXPECT_TRUE(SameBits(a.ScreenToWorld(s), b.ScreenToWorld(s)));
    EXPECT_TRUE(SameBits(a.WorldToScreen({1.0, 2.0, 3.0}), b.WorldToScreen({1.0, 2.0, 3.0})));
    // At a field of view of 1 the ray through a pixel meets that pixel's ScreenToWorld line.
    Ray ray;
    b.CreateScreenRay({s.x, s.y}, ray);
    ExpectNear(ray.direction, Normalized(b.ScreenToWorld(s)));
    a.CreateScreenRay({s.x, s.y}, ray);
    EXPECT_GT(std::abs(ray.direction.x - Normalized(a.ScreenToWorld(s)).x), 0.1);
}

TEST(PerspectiveCamera, FootprintLiesOnTheSurfacePlane) {
    DataDictionary d = Parameters({640, 480});
    ASSERT_TRUE(d.Set(keys::MATRIX, TiltedMatrix()).IsOk());
    CameraRef cam = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, d);
    const Vector2d64 s{200.0, 100.0};
    Ray ray;
    cam.CreateScreenRay(s, ray);
    ShadingPoint point;
    point.position = cam.CameraToWorld({-0.5, 0.3, 6.0});
    point.normal = Normalized({0.2, -0.3, 0.9});
    point.pointVectorA = {5.0, 5.0, 5.0};
    cam.CalculateMIPComponents(s, ray, point);
    for (const Vector64* f : {&point.footprintX, &point.footprintY}) {
        const Vector64 rel{f->x - point.position.x, f->y - point.position.y,
                           f->z - point.position.z};
        EXPECT_NEAR(rel.x * point.normal.x + rel.y * point.normal.y + rel.z * point.normal.z, 0.0,
                    1e-12);
    }
    // The differentials lean one pixel further than the pixel's own ray would at unit field of
    // view; both are unit vectors.
    for (const Vector64* v : {&ray.directionDx, &ray.directionDy}) {
        EXPECT_NEAR(v->x * v->x + v->y * v->y + v->z * v->z, 1.0, 1e-15);
    }
    EXPECT_EQ(point.pointVectorA, (Vector64{5.0, 5.0, 5.0}));
    EXPECT_TRUE(SameBits(ray.originDx, TiltedMatrix().offset));
}

TEST(PerspectiveCamera, NormalPerpendicularToTheDifferentialKeepsTheFootprintAtTheOrigin) {
    DataDictionary d = Parameters({640, 480});
    Matrix64 m;
    m.offset = {1.0, 2.0, 3.0};
    ASSERT_TRUE(d.Set(keys::MATRIX, m).IsOk());
    CameraRef cam = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, d);
    Ray ray;
    cam.CreateScreenRay({320.0, 240.0}, ray);
    ShadingPoint point;
    point.position = {1.0, 2.0, 10.0};
    // dx runs along (1/640, 0, 1): this normal is exactly perpendicular to it.
    point.normal = {1.0, 0.0, -(1.0 / 640.0)};
    cam.CalculateMIPComponents({320.0, 240.0}, ray, point);
    EXPECT_TRUE(SameBits(point.footprintX, m.offset));
    EXPECT_FALSE(SameBits(point.footprintY, m.offset));
}

// ---- the dictionary
// ------------------------------------------------------------------------------

TEST(CameraParameters, InitSharesTheDictionaryAndAnotherInitReplacesIt) {
    DataDictionary first = Parameters({640, 480});
    DataDictionary second = Parameters({320, 240});
    CameraRef cam = MakeInitialized(PERSPECTIVE_CAMERA_CLASS_ID, first);
    EXPECT_EQ(cam.GetParameters().GetObject(), first.GetObject());
    EXPECT_EQ(GetCountWord(first.GetObject()), 32u);
    ASSERT_TRUE(cam.Init(second, 0).IsOk());
    EXPECT_EQ(GetCountWord(first.GetObject()), 16u);
    EXPECT_EQ(cam.GetParameters().GetObject(), second.GetObject());
    ASSERT_TRUE(cam.Init(second, 0).IsOk());  // the same object again
    EXPECT_EQ(GetCountWord(second.GetObject()), 32u);
}

TEST(CameraParameters, SetMatrixCopiesASharedDictionaryFirst) {
    const Matrix64 m = TiltedMatrix();
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        DataDictionary caller = Parameters({640, 480});
        CameraRef cam = MakeInitialized(id, caller);
        cam.SetMatrix(m);
        EXPECT_EQ(caller.Get(keys::MATRIX, Matrix64()), Matrix64());
        DataDictionary own = cam.GetParameters();
        EXPECT_NE(own.GetObject(), caller.GetObject());
        EXPECT_EQ(own.Get(keys::MATRIX, Matrix64()), m);
        EXPECT_EQ(own.Get(keys::SCREENRESOLUTION, Vector2d64{}), (Vector2d64{640, 480}));
        // Now private to the camera (once `own` is gone): written in place.
        const DataDictionaryObject* object = own.GetObject();
        own = DataDictionary();
        Matrix64 n = m;
        n.offset = {0.0, 0.0, -1.0};
        cam.SetMatrix(n);
        EXPECT_EQ(cam.GetParameters().GetObject(), object);
        EXPECT_EQ(cam.GetParameters().Get(keys::MATRIX, Matrix64()), n);
    }
}

TEST(CameraParameters, ClassCopySharesTheDictionaryAndTheState) {
    DataDictionary d = Parameters({640, 480});
    ASSERT_TRUE(d.Set(keys::FIELDOFVIEW, 0.9).IsOk());
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef original = MakeInitialized(id, d, CAMERA_INIT_RIGHT_HANDED);
        original.SetMatrix(TiltedMatrix());  // the camera's own copy of the dictionary now
        const DataDictionaryObject* dictionary = original.GetParameters().GetObject();
        EXPECT_EQ(GetCountWord(dictionary), 16u);
        Result<void*> copied =
            ClassInterface::CreateCopy(original.GetObject().Get(), QUORV_SOURCE_LOCATION);
        ASSERT_TRUE(copied.IsOk()) << ErrorToString(copied.GetErrorPointer());
        CameraRef copy =
            CameraRef::Cast(ObjectRef::Adopt(static_cast<ObjectInstance*>(copied.GetValue())))
                .GetValue();
        EXPECT_EQ(copy.GetParameters().GetObject(), dictionary);
        EXPECT_EQ(GetCountWord(dictionary), 32u);
        EXPECT_EQ(copy.GetFeatures(), original.GetFeatures());
        Ray a, b;
        original.CreateScreenRay({17.0, 400.0}, a);
        copy.CreateScreenRay({17.0, 400.0}, b);
        EXPECT_EQ(a, b);

        // Moving the original leaves the copy's dictionary and matrix alone.
        Matrix64 n;
        n.offset = {9.0, 9.0, 9.0};
        original.SetMatrix(n);
        EXPECT_EQ(copy.GetParameters().GetObject(), dictionary);
        EXPECT_EQ(copy.GetParameters().Get(keys::MATRIX, Matrix64()), TiltedMatrix());
        EXPECT_EQ(copy.GetCameraToWorldMatrix(), TiltedMatrix());
        EXPECT_EQ(original.GetParameters().Get(keys::MATRIX, Matrix64()), n);
    }
}

TEST(CameraParameters, NullDictionaryMeansTheSharedEmptyOne) {
    for (const char* id : BOTH_CLASSES) {
        SCOPED_TRACE(id);
        CameraRef cam = MakeInitialized(id, Parameters({640, 480}));
        ASSERT_TRUE(cam.Init(DataDictionary(), 0).IsOk());
        EXPECT_TRUE(cam.GetParameters().IsNull());
        EXPECT_EQ(cam.GetCameraToWorldMatrix(), Matrix64());
        EXPECT_EQ(cam.CameraToScreen({1.0, 1.0, 1.0}), (Vector64{0.0, 0.0, 1.0}));
        // SetMatrix then makes a dictionary of the camera's own.
        cam.SetMatrix(TiltedMatrix());
        EXPECT_EQ(cam.GetParameters().Get(keys::MATRIX, Matrix64()), TiltedMatrix());
    }
}

// White box: fields that no operation reads.
TEST(CameraParameters, WindowAndDepthFieldsAfterInit) {
    ParallelCameraImpl cam;
    EXPECT_EQ(cam.minDepth, 0.0);
    DataDictionary d = Parameters({640, 480});
    ASSERT_TRUE(cam.Init(d, 0).IsOk());
    EXPECT_EQ(cam.windowFrom, (Vector2d64{0.0, 0.0}));
    EXPECT_EQ(cam.windowTo, (Vector2d64{640.0, 480.0}));
    EXPECT_EQ(std::bit_cast<UInt>(cam.minDepth), 0x3F50624DD2F1A9FCull);
    EXPECT_EQ(std::bit_cast<UInt>(cam.maxDepth), 0x7FEFFFFFFFFFFFFFull);
    EXPECT_EQ(cam.screenScale, (Vector2d64{640.0, -640.0}));
    EXPECT_EQ(cam.invScreenScale, (Vector2d64{1.0 / 640.0, -1.0 / 640.0}));
    ASSERT_TRUE(d.Set(keys::WINDOWFROM, Vector2d64{1.0, 2.0}).IsOk());
    ASSERT_TRUE(d.Set(keys::WINDOWTO, Vector2d64{3.0, 4.0}).IsOk());
    ASSERT_TRUE(cam.Init(d, 0).IsOk());
    EXPECT_EQ(cam.windowFrom, (Vector2d64{1.0, 2.0}));
    EXPECT_EQ(cam.windowTo, (Vector2d64{3.0, 4.0}));
    // The key is published as "windowform".
    EXPECT_FALSE(
        d.GetData(LiteralId("net.quorv.render.camera.cameraparameters.windowform")).IsEmpty());

    ParallelCameraImpl zero;
    ASSERT_TRUE(zero.Init(Parameters({0.0, 0.0}), 0).IsOk());
    EXPECT_EQ(zero.invScreenScale, (Vector2d64{0.0, 0.0}));
    EXPECT_EQ(std::bit_cast<UInt>(zero.invScreenScale.y), 0u);  // exactly 0, not -0
}

}  // namespace
}  // namespace quorv
