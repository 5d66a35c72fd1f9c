// The pinhole camera "net.quorv.render.cameraclass.perspective": rays start at the camera's
// origin and pass through the screen plane; fieldofview is a linear factor on that plane.
#include "render/cameras/camera_impl.h"

namespace quorv {

namespace {

Vector64 NormalizedOrZero(const Vector64& d) {
    const Float64 l = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
    const Float64 f = l == 0.0 ? 0.0 : 1.0 / l;
    return {d.x * f, d.y * f, d.z * f};
}

Float64 Dot(const Vector64& a, const Vector64& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

}  // namespace

/// The parallel camera's state plus the vectors derived for rays from one point.
struct PerspectiveCameraImpl : ParallelCameraImpl {
    Vector64 rayOrigin;       ///< offset of cameraToWorld
    Vector64 rayForward;      ///< axisZ of cameraToWorld times depthSign
    Vector64 pixelStepX;      ///< axisX of cameraToWorld times invScreenScale.x
    Vector64 pixelStepY;      ///< axisY of cameraToWorld times invScreenScale.y
    Float64 depthSign = 0.0;  ///< -1 for a right-handed camera, else 1
    Float64 fieldOfView = 0.0;

    Result<void> Init(const DataDictionary& dictionary, Int flags) {
        const CameraSettings settings = ReadCameraSettings(dictionary);
        fieldOfView = ReadFieldOfView(dictionary);
        ApplySettings(settings, dictionary, flags);
        depthSign = (flags & CAMERA_INIT_RIGHT_HANDED) != 0 ? -1.0 : 1.0;
        UpdateRayVectors();
        return OK;
    }

    void SetMatrix(const Matrix64& m) {
        StoreMatrix(m);
        UpdateRayVectors();
    }

    void CreateScreenRay(const Vector2d64& screen, Ray& ray) const {
        const Vector64 d = NormalizedOrZero(ScreenPlaneDirection(screen));
        ray.origin = rayOrigin;
        ray.direction = d;
        ray.originDx = rayOrigin;
        ray.originDy = rayOrigin;
        ray.directionDx = d;
        ray.directionDy = d;
    }

    void CalculateMIPComponents(const Vector2d64& screen, Ray& ray, ShadingPoint& point) const {
        const Vector64 base = ScreenPlaneDirection(screen);
        // The steps are not scaled by fieldOfView, deliberately: the footprint is one pixel of
        // the plane at unit fieldOfView, whatever the key says.
        const Vector64 dx =
            NormalizedOrZero({base.x + pixelStepX.x, base.y + pixelStepX.y, base.z + pixelStepX.z});
        const Vector64 dy =
            NormalizedOrZero({base.x + pixelStepY.x, base.y + pixelStepY.y, base.z + pixelStepY.z});
        ray.directionDx = dx;
        ray.directionDy = dy;
        const Vector64& o = ray.origin;
        const Vector64& n = point.normal;
        const Float64 h =
            Dot({point.position.x - o.x, point.position.y - o.y, point.position.z - o.z}, n);
        const Float64 nx = Dot(dx, n);
        const Float64 ny = Dot(dy, n);
        const Float64 tx = nx == 0.0 ? 0.0 : h / nx;
        const Float64 ty = ny == 0.0 ? 0.0 : h / ny;
        point.footprintX = {o.x + dx.x * tx, o.y + dx.y * tx, o.z + dx.z * tx};
        point.footprintY = {o.x + dy.x * ty, o.y + dy.y * ty, o.z + dy.z * ty};
    }

    // The four projections ignore fieldOfView on purpose: a pixel's ray and its ScreenToWorld
    // line agree only at a fieldOfView of 1.
    Vector64 WorldToScreen(const Vector64& point) const {
        return CameraToScreen(WorldToCamera(point));
    }

    Vector64 CameraToScreen(const Vector64& c) const {
        // Behind the camera or at depth 0 the point is projected at minDepth, without flipping.
        Float64 w = c.z * depthSign;
        if (w < minDepth) w = minDepth;
        return {std::fma(screenScale.x, c.x / w, screenCenter.x),
                std::fma(screenScale.y, c.y / w, screenCenter.y), c.z};
    }

    Vector64 ScreenToCamera(const Vector64& screen) const {
        const Float64 w = ScreenDepth(screen.z);
        return {(screen.x - screenCenter.x) * invScreenScale.x * w,
                (screen.y - screenCenter.y) * invScreenScale.y * w, screen.z};
    }

    Vector64 ScreenToWorld(const Vector64& screen) const {
        const Float64 w = ScreenDepth(screen.z);
        const Float64 u = w * ((screen.x - screenCenter.x) * invScreenScale.x);
        const Float64 v = w * ((screen.y - screenCenter.y) * invScreenScale.y);
        return TransformPoint(cameraToWorld, {u, v, screen.z});
    }

private:
    void UpdateRayVectors() {
        const Matrix64& m = cameraToWorld;
        rayOrigin = m.offset;
        rayForward = {m.axisZ.x * depthSign, m.axisZ.y * depthSign, m.axisZ.z * depthSign};
        pixelStepX = {m.axisX.x * invScreenScale.x, m.axisX.y * invScreenScale.x,
                      m.axisX.z * invScreenScale.x};
        pixelStepY = {m.axisY.x * invScreenScale.y, m.axisY.y * invScreenScale.y,
                      m.axisY.z * invScreenScale.y};
    }

    // rayForward + axisX*a + axisY*b for the screen position, not normalised.
    Vector64 ScreenPlaneDirection(const Vector2d64& screen) const {
        const Float64 a = (screen.x - screenCenter.x) * invScreenScale.x * fieldOfView;
        const Float64 b = (screen.y - screenCenter.y) * invScreenScale.y * fieldOfView;
        const Vector64& ax = cameraToWorld.axisX;
        const Vector64& ay = cameraToWorld.axisY;
        return {rayForward.x + ax.x * a + ay.x * b, rayForward.y + ax.y * a + ay.y * b,
                rayForward.z + ax.z * a + ay.z * b};
    }

    Float64 ScreenDepth(Float64 z) const {
        const Float64 w = z * depthSign;
        return w < minDepth ? minDepth : w;
    }
};

namespace {

ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
SimpleClass<PerspectiveCameraImpl, CameraInterface> g_class(g_unit, PERSPECTIVE_CAMERA_CLASS_ID,
                                                            CAMERA_CLASS_REGISTRY_ID, __FILE__);

}  // namespace

}  // namespace quorv
