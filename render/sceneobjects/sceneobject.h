#pragma once
/// Scene objects: attribute containers with a change stamp. Each class is composed of the host's
/// "net.quorv.class.datadictionaryobject" and "net.quorv.class.datadescriptionobject" and a
/// component of the scene object base, so an instance offers `DataDictionaryObjectInterface`,
/// `DataDescriptionObjectInterface` and `SceneObjectInterface`.
///
/// Only a successful `SetData` moves the stamp, by exactly 1: a failed `SetData`, `EraseData`
/// and `Reset` change the content or not, but never the stamp. Callers that cache what they
/// derived from an object compare stamps. Thread safety: the stamp is atomic; the content is
/// guarded by the host's data dictionary object.

#include "quorv/classes.h"
#include "quorv/datadescriptionobject.h"
#include "quorv/datadictionaryobject.h"

namespace quorv {

/// Registry of the scene object classes.
constexpr const char* SCENEOBJECT_CLASS_REGISTRY_ID = "net.quorv.render.sceneobjectclasses";

/// The seven classes: the base and six that add nothing to it.
namespace sceneobjectclass {
constexpr const char* BASE = "net.quorv.render.sceneobject.base";
constexpr const char* CAMERA = "net.quorv.render.sceneobject.camera";
constexpr const char* COMPOSITINGTAG = "net.quorv.render.sceneobject.compositingtag";
constexpr const char* LIGHT = "net.quorv.render.sceneobject.light";
constexpr const char* LIGHTBLOCKER = "net.quorv.render.sceneobject.lightblocker";
constexpr const char* OBJECTLIGHT = "net.quorv.render.sceneobject.objectlight";
constexpr const char* PHYSICALSKY = "net.quorv.render.sceneobject.physicalsky";
}  // namespace sceneobjectclass

/// A second family of ids, one per concrete class, for callers outside this module. Only
/// constants: nothing here registers or looks them up.
namespace sceneobjectid {
constexpr const char* COMPOSITINGTAG = "net.quorv.sceneobject.compositingtag";
constexpr const char* LIGHT = "net.quorv.sceneobject.light";
constexpr const char* OBJECTLIGHT = "net.quorv.sceneobject.objectlight";
constexpr const char* CAMERA = "net.quorv.sceneobject.camera";
constexpr const char* LIGHTBLOCKER = "net.quorv.sceneobject.lightblocker";
constexpr const char* PHYSICALSKY = "net.quorv.sceneobject.physicalsky";
}  // namespace sceneobjectid

// clang-format off
#define QUORV_SCENEOBJECT_METHODS(M) \
    M(Int, GetTimeStamp, (), ())
// clang-format on

/// `GetTimeStamp()`: the number of successful `SetData` calls so far (0 for a new object).
QUORV_VIRTUAL_INTERFACE(SceneObjectInterface, "net.quorv.render.interface.sceneobject",
                        QUORV_SCENEOBJECT_METHODS);

}  // namespace quorv
