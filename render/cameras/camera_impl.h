#pragma once
// Private to the camera classes: the state of the parallel camera, which the perspective
// camera extends, and the arithmetic both share. See camera.cpp for where fused
// multiply-adds are used.

#include <bit>
#include <cfloat>
#include <cmath>

#include "render/cameras/camera.h"

namespace quorv {

/// 0.001, the least depth a point is projected with.
constexpr Float64 CAMERA_MIN_DEPTH = 0.001;
static_assert(std::bit_cast<UInt>(CAMERA_MIN_DEPTH) == 0x3F50624DD2F1A9FCull);
static_assert(std::bit_cast<UInt>(DBL_MAX) == 0x7FEFFFFFFFFFFFFFull);

/// The values `Init` reads, in the order it reads them.
struct CameraSettings {
    Matrix64 matrix;
    Vector2d64 resolution;
    Vector2d64 offset;
    Vector2d64 scale;
    Vector2d64 windowFrom;
    Vector2d64 windowTo;
};

/// Reads matrix, screenresolution, screenoffset, screenscale, windowform and windowto, in this
/// order, each with its default.
CameraSettings ReadCameraSettings(const DataDictionary& parameters);
/// Reads fieldofview: 0.5 by default, 0.0 when no dictionary exists at all.
Float64 ReadFieldOfView(const DataDictionary& parameters);

/// Inverse of an affine matrix by cofactors, the offset mapped through the inverse 3x3 part.
/// A determinant of exactly 0.0 gives the identity.
Matrix64 InvertMatrix(const Matrix64& m);

/// offset + axisX*p.x + axisY*p.y + axisZ*p.z, fused multiply-adds in this order.
inline Vector64 TransformPoint(const Matrix64& m, const Vector64& p) {
    return {
        std::fma(m.axisZ.x, p.z, std::fma(m.axisY.x, p.y, std::fma(m.axisX.x, p.x, m.offset.x))),
        std::fma(m.axisZ.y, p.z, std::fma(m.axisY.y, p.y, std::fma(m.axisX.y, p.x, m.offset.y))),
        std::fma(m.axisZ.z, p.z, std::fma(m.axisY.z, p.y, std::fma(m.axisX.z, p.x, m.offset.z)))};
}

/// axisX*v.x + axisY*v.y + axisZ*v.z, the last two terms fused in this order.
inline Vector64 TransformVector(const Matrix64& m, const Vector64& v) {
    return {std::fma(m.axisZ.x, v.z, std::fma(m.axisY.x, v.y, m.axisX.x * v.x)),
            std::fma(m.axisZ.y, v.z, std::fma(m.axisY.y, v.y, m.axisX.y * v.x)),
            std::fma(m.axisZ.z, v.z, std::fma(m.axisY.z, v.y, m.axisX.z * v.x))};
}

/// State and operations of "net.quorv.render.cameraclass.parallel". Constructed with both
/// matrices the identity and every other field zero.
struct ParallelCameraImpl {
    Matrix64 cameraToWorld;
    Matrix64 worldToCamera;  ///< always recomputed with cameraToWorld
    Vector2d64 screenResolution;
    Vector2d64 screenScale;  ///< pixels per camera unit; y negative
    Vector2d64 screenCenter;
    Vector2d64 invScreenScale;  ///< 1/screenScale per axis, 0 where that is 0
    Float64 minDepth = 0.0;
    Float64 maxDepth = 0.0;  ///< no operation reads it
    Vector2d64 windowFrom;   ///< no operation reads it
    Vector2d64 windowTo;     ///< no operation reads it
    Bool rightHanded = false;
    DataDictionary parameters;  ///< shared with the caller of Init, not copied

    Result<void> Init(const DataDictionary& dictionary, Int flags);
    void SetMatrix(const Matrix64& m);
    DataDictionary GetParameters() const;
    void CreateScreenRay(const Vector2d64& screen, Ray& ray) const;
    void CalculateMIPComponents(const Vector2d64& screen, Ray& ray, ShadingPoint& point) const;
    CAMERAFEATUREFLAGS GetFeatures() const;
    Bool VisibilityTest(const Vector64& point) const;
    Vector64 WorldToCamera(const Vector64& point) const;
    Vector64 CameraToWorld(const Vector64& point) const;
    Vector64 VectorWorldToCamera(const Vector64& direction) const;
    Vector64 VectorCameraToWorld(const Vector64& direction) const;
    Vector64 WorldToScreen(const Vector64& point) const;
    Vector64 ScreenToWorld(const Vector64& screen) const;
    Vector64 CameraToScreen(const Vector64& point) const;
    Vector64 ScreenToCamera(const Vector64& screen) const;
    const Matrix64& GetCameraToWorldMatrix() const;
    const Matrix64& GetWorldToCameraMatrix() const;

protected:
    /// Steps of Init after the reads: inverse, handedness, screen mapping, depths, dictionary.
    void ApplySettings(const CameraSettings& settings, const DataDictionary& dictionary, Int flags);
    /// SetMatrix without the derived state of a subclass.
    void StoreMatrix(const Matrix64& m);
};

}  // namespace quorv
