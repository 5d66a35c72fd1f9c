// Gives the module's data description database "net.quorv.render.module" the url of the
// module's resource folder once the host has bound the module.
#include "quorv/url.h"

namespace quorv {

namespace {

TranslationUnitRecord g_unit;
DependencyRecord g_applicationDependency;
DependencyRecord g_databaseDependency;
InitializationRecord g_initialization;

// An error of either call is the result, so the host refuses the module.
Result<void> Init() {
    Result<UrlObject*> got = ApplicationInterface::PrivateGetUrl(
        APPLICATION_URLTYPE_CURRENT_MODULE_RESOURCE_DIR, LiteralId("net.quorv.render"), &g_quorv);
    if (got.IsError()) return got.GetError();
    const Url url = Url::Adopt(got.GetValue());
    return DataDescriptionDefinitionDatabaseInterface::RegisterDatabaseWithUrl(
        LiteralId("net.quorv.render.module"), url.GetObject());
}

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    AddDependency(g_applicationDependency, &ApplicationInterface::record, g_unit,
                  "quorv/services.h", DEPENDENCYKIND::STRONG);
    AddDependency(g_databaseDependency, &DataDescriptionDefinitionDatabaseInterface::record, g_unit,
                  "quorv/services.h", DEPENDENCYKIND::STRONG);
    DefineInitialization(g_initialization, __FILE__, &Init, nullptr, g_unit);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv
