// The module's registration unit: the module record "net.quorv.render", the framework parts
// it is built with, the reflection unit and the registries of camera and legacy BSDF classes.
#include "quorv/entity.h"
#include "render/cameras/camera.h"
#include "render/frame/intersection.h"
#include "render/sceneobjects/sceneobject.h"
#include "render/legacy_renderers/bsdf_legacy.h"

namespace quorv {

namespace {

using F = EntityBase::FLAGS;
constexpr UInt32 FRAMEWORK_PART = F::FRAMEWORK;
constexpr UInt32 PUBLIC_FRAMEWORK_PART = F::FRAMEWORK | F::PUBLIC;
static_assert(PUBLIC_FRAMEWORK_PART == 0x8001000);

TranslationUnitRecord g_unit;
ModuleRecord g_coreFramework;
ModuleRecord g_privateRenderFramework;
ModuleRecord g_renderFramework;
ModuleRecord g_imageOcioFramework;
ModuleRecord g_imageFramework;
ModuleRecord g_mathFramework;
ModuleRecord g_nodespaceFramework;
ModuleRecord g_graphFramework;
ModuleRecord g_nodesFramework;
ModuleRecord g_assetFramework;
ModuleRecord g_miscFramework;
TranslationUnitRecord g_reflectionUnit;
DependencyRecord g_reflectionDependency;
RegistryRecord g_cameraClasses;
RegistryRecord g_bsdfLegacyClasses;
RegistryRecord g_intersectionClasses;
RegistryRecord g_sceneObjectClasses;

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, F::REGISTRATION_UNIT);
    DefineModule(g_moduleRecord, "net.quorv.render", g_unit, 0);
    DefineModule(g_coreFramework, "net.quorv.core.framework", g_unit, PUBLIC_FRAMEWORK_PART);
    DefineModule(g_privateRenderFramework, "net.quorv.private_render.framework", g_unit,
                 FRAMEWORK_PART);
    DefineModule(g_renderFramework, "net.quorv.render.framework", g_unit, FRAMEWORK_PART);
    DefineModule(g_imageOcioFramework, "net.quorv.image_ocio.framework", g_unit, FRAMEWORK_PART);
    DefineModule(g_imageFramework, "net.quorv.image.framework", g_unit, PUBLIC_FRAMEWORK_PART);
    DefineModule(g_mathFramework, "net.quorv.math.framework", g_unit, PUBLIC_FRAMEWORK_PART);
    DefineModule(g_nodespaceFramework, "net.quorv.nodespace.framework", g_unit,
                 PUBLIC_FRAMEWORK_PART);
    DefineModule(g_graphFramework, "net.quorv.graph.framework", g_unit, PUBLIC_FRAMEWORK_PART);
    DefineModule(g_nodesFramework, "net.quorv.nodes.framework", g_unit, PUBLIC_FRAMEWORK_PART);
    DefineModule(g_assetFramework, "net.quorv.asset.framework", g_unit, PUBLIC_FRAMEWORK_PART);
    DefineModule(g_miscFramework, "net.quorv.misc.framework", g_unit, PUBLIC_FRAMEWORK_PART);

    OpenTranslationUnit(g_reflectionUnit, g_moduleRecord, "[reflection registration]",
                        F::REFLECTION_REGISTRATION | F::SYNTHETIC);
    AddDependencyById(g_reflectionDependency, ".reflection", g_reflectionUnit, nullptr);

    DefineRegistry(g_cameraClasses, LiteralId(CAMERA_CLASS_REGISTRY_ID), g_unit, __FILE__, 0);
    DefineRegistry(g_bsdfLegacyClasses, LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID), g_unit,
                   __FILE__, 0);
    // Filled by other modules (the intersector module); read by GetDefaultIntersector.
    DefineRegistry(g_intersectionClasses, LiteralId(INTERSECTION_CLASS_REGISTRY_ID), g_unit,
                   __FILE__, 0);
    DefineRegistry(g_sceneObjectClasses, LiteralId(SCENEOBJECT_CLASS_REGISTRY_ID), g_unit,
                   __FILE__, 0);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv
