// The provider module's registration unit: its module record and the registry its classes go
// into. The render module defines the same registry; whichever loads first creates it.
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
