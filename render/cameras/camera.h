#pragma once
/// The camera interface "net.quorv.render.interface.camera": a camera turns a screen position
/// into a ray and converts points and vectors between world, camera and screen space.
///
/// Camera classes are registered in "net.quorv.render.registry.cameraclasses". A caller
/// creates one by id, calls `Init` with a parameter dictionary and then the conversions:
///
///     Result<ObjectRef> o = CreateObjectById(LiteralId(CAMERA_CLASS_REGISTRY_ID),
///                                            LiteralId(PERSPECTIVE_CAMERA_CLASS_ID));
///     CameraRef camera = CameraRef::Cast(o.GetValue()).GetValue();
///     camera.Init(parameters, 0);
///     camera.CreateScreenRay({320.0, 240.0}, ray);
///
/// Thread safety: every operation except `Init` and `SetMatrix` only reads the camera and
/// may run on several threads at once; `Init` and `SetMatrix` must run alone. No operation
/// reports an error: singular matrices and zero scales give defined values.

#include "quorv/classes.h"
#include "quorv/datadictionary.h"
#include "render/cameras/renderray.h"
#include "render/cameras/shadingpoint.h"

namespace quorv {

/// Registry of the camera classes.
constexpr const char* CAMERA_CLASS_REGISTRY_ID = "net.quorv.render.registry.cameraclasses";
/// The orthographic camera class.
constexpr const char* PARALLEL_CAMERA_CLASS_ID = "net.quorv.render.cameraclass.parallel";
/// The pinhole camera class.
constexpr const char* PERSPECTIVE_CAMERA_CLASS_ID = "net.quorv.render.cameraclass.perspective";

/// What a camera can do (bit set).
enum class CAMERAFEATUREFLAGS : Int32 {
    NONE = 0,
    STRAIGHT_LINES = 2,  ///< screen lines are straight lines in the world
    FORCE_RAYS = 4,      ///< the renderer must trace primary rays (no camera here sets it)
    RIGHT_HANDED = 8,    ///< `Init` was given flags bit 0
};

constexpr CAMERAFEATUREFLAGS operator|(CAMERAFEATUREFLAGS a, CAMERAFEATUREFLAGS b) {
    return static_cast<CAMERAFEATUREFLAGS>(static_cast<Int32>(a) | static_cast<Int32>(b));
}
constexpr CAMERAFEATUREFLAGS operator&(CAMERAFEATUREFLAGS a, CAMERAFEATUREFLAGS b) {
    return static_cast<CAMERAFEATUREFLAGS>(static_cast<Int32>(a) & static_cast<Int32>(b));
}

/// Flags bit of `Init`: the camera looks along -axisZ (perspective) and reports RIGHT_HANDED.
constexpr Int CAMERA_INIT_RIGHT_HANDED = 1;

/// Keys of the parameter dictionary of `Init`. A missing key, or a value of another type,
/// gives the default; with neither a dictionary nor the host's shared empty one, every read
/// gives zero and the matrix the identity.
namespace cameraparameters {
/// Camera to world; default the identity.
extern const DictionaryKey<Matrix64> MATRIX;
/// Width and height in pixels; default (0, 0).
extern const DictionaryKey<Vector2d64> SCREENRESOLUTION;
/// Moves the screen centre, in pixels; default (0, 0).
extern const DictionaryKey<Vector2d64> SCREENOFFSET;
/// Zoom per axis; default (1, 1).
extern const DictionaryKey<Vector2d64> SCREENSCALE;
/// Window corner; default (0, 0). Its id is spelled "...windowform", as callers write it.
extern const DictionaryKey<Vector2d64> WINDOWFROM;
/// Opposite window corner; default the resolution.
extern const DictionaryKey<Vector2d64> WINDOWTO;
/// Perspective only: linear factor on the screen plane (not an angle); default 0.5.
extern const DictionaryKey<Float64> FIELDOFVIEW;
}  // namespace cameraparameters

// clang-format off
/// The operations of the camera interface, in slot order.
#define QUORV_CAMERA_METHODS(M) \
    M(Result<void>, Init, (const DataDictionary& parameters, Int flags), (parameters, flags)) \
    M(void, SetMatrix, (const Matrix64& m), (m)) \
    M(DataDictionary, GetParameters, (), ()) \
    M(void, CreateScreenRay, (const Vector2d64& screen, Ray& ray), (screen, ray)) \
    M(void, CalculateMIPComponents, (const Vector2d64& screen, Ray& ray, ShadingPoint& point), \
      (screen, ray, point)) \
    M(CAMERAFEATUREFLAGS, GetFeatures, (), ()) \
    M(Bool, VisibilityTest, (const Vector64& point), (point)) \
    M(Vector64, WorldToCamera, (const Vector64& point), (point)) \
    M(Vector64, CameraToWorld, (const Vector64& point), (point)) \
    M(Vector64, VectorWorldToCamera, (const Vector64& direction), (direction)) \
    M(Vector64, VectorCameraToWorld, (const Vector64& direction), (direction)) \
    M(Vector64, WorldToScreen, (const Vector64& point), (point)) \
    M(Vector64, ScreenToWorld, (const Vector64& screen), (screen)) \
    M(Vector64, CameraToScreen, (const Vector64& point), (point)) \
    M(Vector64, ScreenToCamera, (const Vector64& screen), (screen)) \
    M(const Matrix64&, GetCameraToWorldMatrix, (), ()) \
    M(const Matrix64&, GetWorldToCameraMatrix, (), ())
// clang-format on

/// The camera interface. Through `CameraRef`:
/// - `Init(parameters, flags)`: reads the keys above, derives the screen mapping and keeps a
///   reference on the dictionary (shared, not copied). Never fails; may be called again.
/// - `SetMatrix(m)`: moves the camera; stores m in a private copy of the dictionary (a failed
///   store is ignored).
/// - `GetParameters()`: the dictionary, with a reference added.
/// - `CreateScreenRay(screen, ray)`: writes origin, direction and the four differentials.
/// - `CalculateMIPComponents(screen, ray, point)`: the pixel footprint on the surface.
/// - `GetFeatures()`, `VisibilityTest(point)` (always true here).
/// - point and vector conversions; screen points are (x, y in pixels, z camera depth).
/// - `GetCameraToWorldMatrix()`, `GetWorldToCameraMatrix()`: references into the camera.
QUORV_VIRTUAL_INTERFACE(CameraInterface, "net.quorv.render.interface.camera", QUORV_CAMERA_METHODS);

/// A counted handle of a camera instance.
using CameraRef = CameraInterface::Ref;

}  // namespace quorv
