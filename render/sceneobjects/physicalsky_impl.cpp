// The scene object class "net.quorv.render.sceneobject.physicalsky": the base and nothing more.
#include "render/sceneobjects/sceneobject_impl.h"

namespace quorv {
namespace {
ModuleUnit g_unit(__FILE__, {{&g_sceneObjectInterfaceRecord, "render/sceneobjects/sceneobject.h"}});
SceneObjectClass g_class(g_unit, sceneobjectclass::PHYSICALSKY, __FILE__);
}  // namespace
}  // namespace quorv
