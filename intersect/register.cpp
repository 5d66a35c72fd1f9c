// The intersector module's registration unit: its module record and the registry its classes go
// into. The render module defines the same registry; whichever loads first creates it.
#include "quorv/entity.h"
#include "render/frame/intersection.h"

namespace quorv::intersect {

namespace {

TranslationUnitRecord g_unit;
RegistryRecord g_intersectionClasses;

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, EntityBase::FLAGS::REGISTRATION_UNIT);
    DefineModule(g_moduleRecord, "net.quorv.intersect", g_unit, 0);
    DefineRegistry(g_intersectionClasses, LiteralId(INTERSECTION_CLASS_REGISTRY_ID), g_unit,
                   __FILE__, 0);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv::intersect
