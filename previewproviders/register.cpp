// The provider module's registration unit: its module record and the registry its classes go
// into. The render module defines the same registry; whichever loads first creates it.
//
// Load this module after the render module (its classes make the camera and BSDFs by id) and
// unload it after: the render module's free step drains the preview queue, whose jobs run this
// module's code. Unloaded first, a running iteration would lose its code under it.
#include "previewproviders/previewproviders.h"
#include "quorv/entity.h"

namespace quorv::previewproviders {

namespace {

TranslationUnitRecord g_unit;
RegistryRecord g_providers;

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, EntityBase::FLAGS::REGISTRATION_UNIT);
    DefineModule(g_moduleRecord, MODULE_ID, g_unit, 0);
    DefineRegistry(g_providers, LiteralId(nodes::PREVIEWIMAGEPROVIDER_REGISTRY_ID), g_unit,
                   __FILE__, 0);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv::previewproviders
