// The camera interface's record, its parameter keys and the arithmetic the camera classes
// share.
//
// Where the cameras fuse (std::fma) and where they don't:
// - Fused: every multiply-add of the eight conversions (WorldToCamera, CameraToWorld, the two
//   vector conversions, WorldToScreen, ScreenToWorld, CameraToScreen, ScreenToCamera) of both
//   classes, and the origin of the parallel CreateScreenRay, which is ScreenToWorld at depth
//   0.0. A point goes through a matrix as fma(axisZ, z, fma(axisY, y, fma(axisX, x, offset))),
//   a direction as fma(axisZ, z, fma(axisY, y, axisX * x)), a camera point onto the screen as
//   fma(screenScale, x, screenCenter) (x divided by the depth first in the perspective class).
// - Plain: a difference times a scale, (s - screenCenter) * invScreenScale [* depth], which
//   has no add to fuse; everything Init and SetMatrix compute (inverse, screen mapping,
//   derived vectors); and the perspective CreateScreenRay and CalculateMIPComponents
//   (direction sums, dot products, normalisation, footprint points), which are given as
//   plain formulas and are not conversions.
#include "render/cameras/camera_impl.h"

namespace quorv {

namespace cameraparameters {
const DictionaryKey<Matrix64> MATRIX("net.quorv.render.camera.cameraparameters.matrix");
const DictionaryKey<Vector2d64> SCREENRESOLUTION(
    "net.quorv.render.camera.cameraparameters.screenresolution");
const DictionaryKey<Vector2d64> SCREENOFFSET(
    "net.quorv.render.camera.cameraparameters.screenoffset");
const DictionaryKey<Vector2d64> SCREENSCALE("net.quorv.render.camera.cameraparameters.screenscale");
// "windowform" is the published id; callers write it so.
const DictionaryKey<Vector2d64> WINDOWFROM("net.quorv.render.camera.cameraparameters.windowform");
const DictionaryKey<Vector2d64> WINDOWTO("net.quorv.render.camera.cameraparameters.windowto");
const DictionaryKey<Float64> FIELDOFVIEW("net.quorv.render.camera.cameraparameters.fieldofview");
}  // namespace cameraparameters

CameraSettings ReadCameraSettings(const DataDictionary& parameters) {
    namespace keys = cameraparameters;
    // Without any dictionary, not even the shared empty one, every read is zero; the matrix
    // alone keeps the identity.
    const bool exists = parameters.GetReadable() != nullptr;
    CameraSettings s;
    s.matrix = parameters.Get(keys::MATRIX, Matrix64());
    s.resolution = parameters.Get(keys::SCREENRESOLUTION, Vector2d64{0.0, 0.0});
    s.offset = parameters.Get(keys::SCREENOFFSET, Vector2d64{0.0, 0.0});
    s.scale = parameters.Get(keys::SCREENSCALE, exists ? Vector2d64{1.0, 1.0} : Vector2d64{});
    s.windowFrom = parameters.Get(keys::WINDOWFROM, Vector2d64{0.0, 0.0});
    s.windowTo = parameters.Get(keys::WINDOWTO, exists ? s.resolution : Vector2d64{});
    return s;
}

Float64 ReadFieldOfView(const DataDictionary& parameters) {
    const bool exists = parameters.GetReadable() != nullptr;
    return parameters.Get(cameraparameters::FIELDOFVIEW, exists ? 0.5 : 0.0);
}

Matrix64 InvertMatrix(const Matrix64& m) {
    const Vector64& a = m.axisX;
    const Vector64& b = m.axisY;
    const Vector64& c = m.axisZ;
    // Rows of the inverse are the cross products of the columns over the determinant.
    const Vector64 bc{b.y * c.z - b.z * c.y, b.z * c.x - b.x * c.z, b.x * c.y - b.y * c.x};
    const Vector64 ca{c.y * a.z - c.z * a.y, c.z * a.x - c.x * a.z, c.x * a.y - c.y * a.x};
    const Vector64 ab{a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
    const Float64 det = a.x * bc.x + a.y * bc.y + a.z * bc.z;
    if (det == 0.0) return Matrix64();
    const Float64 inv = 1.0 / det;
    const Vector64 r0{bc.x * inv, bc.y * inv, bc.z * inv};
    const Vector64 r1{ca.x * inv, ca.y * inv, ca.z * inv};
    const Vector64 r2{ab.x * inv, ab.y * inv, ab.z * inv};
    const Vector64& o = m.offset;
    Matrix64 r;
    r.axisX = {r0.x, r1.x, r2.x};
    r.axisY = {r0.y, r1.y, r2.y};
    r.axisZ = {r0.z, r1.z, r2.z};
    r.offset = {-(r0.x * o.x + r0.y * o.y + r0.z * o.z), -(r1.x * o.x + r1.y * o.y + r1.z * o.z),
                -(r2.x * o.x + r2.y * o.y + r2.z * o.z)};
    return r;
}

namespace {

ModuleUnit g_unit(__FILE__);
InterfaceRecord g_interfaceRecord;
const bool g_registered =
    (PublishVirtualInterface<CameraInterface>(g_interfaceRecord, g_unit), true);

}  // namespace

}  // namespace quorv
