// The orthographic camera "net.quorv.render.cameraclass.parallel": rays start on the screen
// plane and all run along axisZ of the camera.
#include "render/cameras/camera_impl.h"

namespace quorv {

namespace {

Float64 ReciprocalOrZero(Float64 x) { return x == 0.0 ? 0.0 : 1.0 / x; }

}  // namespace

void ParallelCameraImpl::ApplySettings(const CameraSettings& settings,
                                       const DataDictionary& dictionary, Int flags) {
    cameraToWorld = settings.matrix;
    screenResolution = settings.resolution;
    screenScale = settings.scale;
    screenCenter = settings.offset;
    windowFrom = settings.windowFrom;
    windowTo = settings.windowTo;
    worldToCamera = InvertMatrix(cameraToWorld);
    rightHanded = (flags & CAMERA_INIT_RIGHT_HANDED) != 0;
    // Both axes scale with the width on purpose: pixels stay square whatever the aspect ratio.
    // Screen y runs against camera y.
    screenScale = {screenScale.x * screenResolution.x, -screenScale.y * screenResolution.x};
    screenCenter = {screenResolution.x * 0.5 + screenCenter.x,
                    screenResolution.y * 0.5 + screenCenter.y};
    minDepth = CAMERA_MIN_DEPTH;
    maxDepth = DBL_MAX;
    invScreenScale = {ReciprocalOrZero(screenScale.x), ReciprocalOrZero(screenScale.y)};
    parameters = dictionary;
}

Result<void> ParallelCameraImpl::Init(const DataDictionary& dictionary, Int flags) {
    ApplySettings(ReadCameraSettings(dictionary), dictionary, flags);
    return OK;
}

void ParallelCameraImpl::StoreMatrix(const Matrix64& m) {
    // Set copies a shared dictionary first. A failed copy or store is ignored on purpose: the
    // camera still moves, only the dictionary keeps the old matrix.
    Result<void> stored = parameters.Set(cameraparameters::MATRIX, m);
    (void)stored;
    cameraToWorld = m;
    worldToCamera = InvertMatrix(m);
}

void ParallelCameraImpl::SetMatrix(const Matrix64& m) { StoreMatrix(m); }

DataDictionary ParallelCameraImpl::GetParameters() const { return parameters; }

void ParallelCameraImpl::CreateScreenRay(const Vector2d64& screen, Ray& ray) const {
    const Float64 u = (screen.x - screenCenter.x) * invScreenScale.x;
    const Float64 v = (screen.y - screenCenter.y) * invScreenScale.y;
    // The axisZ term stays although its factor is 0.0: a non-finite axisZ spoils the origin,
    // and the origin equals ScreenToWorld at depth 0.0 bit for bit.
    const Vector64 origin = TransformPoint(cameraToWorld, {u, v, 0.0});
    const Vector64 direction = cameraToWorld.axisZ;
    ray.origin = origin;
    ray.direction = direction;
    ray.originDx = origin;
    ray.originDy = origin;
    ray.directionDx = direction;
    ray.directionDy = direction;
}

void ParallelCameraImpl::CalculateMIPComponents(const Vector2d64&, Ray&, ShadingPoint&) const {}

CAMERAFEATUREFLAGS ParallelCameraImpl::GetFeatures() const {
    return rightHanded ? CAMERAFEATUREFLAGS::STRAIGHT_LINES | CAMERAFEATUREFLAGS::RIGHT_HANDED
                       : CAMERAFEATUREFLAGS::STRAIGHT_LINES;
}

Bool ParallelCameraImpl::VisibilityTest(const Vector64&) const { return true; }

Vector64 ParallelCameraImpl::WorldToCamera(const Vector64& point) const {
    return TransformPoint(worldToCamera, point);
}

Vector64 ParallelCameraImpl::CameraToWorld(const Vector64& point) const {
    return TransformPoint(cameraToWorld, point);
}

Vector64 ParallelCameraImpl::VectorWorldToCamera(const Vector64& direction) const {
    return TransformVector(worldToCamera, direction);
}

Vector64 ParallelCameraImpl::VectorCameraToWorld(const Vector64& direction) const {
    return TransformVector(cameraToWorld, direction);
}

Vector64 ParallelCameraImpl::WorldToScreen(const Vector64& point) const {
    return CameraToScreen(WorldToCamera(point));
}

Vector64 ParallelCameraImpl::ScreenToWorld(const Vector64& screen) const {
    const Float64 u = (screen.x - screenCenter.x) * invScreenScale.x;
    const Float64 v = (screen.y - screenCenter.y) * invScreenScale.y;
    return TransformPoint(cameraToWorld, {u, v, screen.z});
}

Vector64 ParallelCameraImpl::CameraToScreen(const Vector64& point) const {
    return {std::fma(screenScale.x, point.x, screenCenter.x),
            std::fma(screenScale.y, point.y, screenCenter.y), point.z};
}

Vector64 ParallelCameraImpl::ScreenToCamera(const Vector64& screen) const {
    return {(screen.x - screenCenter.x) * invScreenScale.x,
            (screen.y - screenCenter.y) * invScreenScale.y, screen.z};
}

const Matrix64& ParallelCameraImpl::GetCameraToWorldMatrix() const { return cameraToWorld; }

const Matrix64& ParallelCameraImpl::GetWorldToCameraMatrix() const { return worldToCamera; }

namespace {

ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
SimpleClass<ParallelCameraImpl, CameraInterface> g_class(g_unit, PARALLEL_CAMERA_CLASS_ID,
                                                         CAMERA_CLASS_REGISTRY_ID, __FILE__);

}  // namespace

}  // namespace quorv
