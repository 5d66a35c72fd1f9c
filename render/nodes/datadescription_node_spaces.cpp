// Gives the data description database "net.quorv.nodespaces.module" the url of the module's
// resource folder once the host has bound the module. No free step: the host keeps databases.
#include "quorv/url.h"

namespace quorv {

namespace {

ModuleUnit g_unit(__FILE__,
                  {{&ApplicationInterface::record, "quorv/services.h"},
                   {&DataDescriptionDefinitionDatabaseInterface::record, "quorv/services.h"}});
InitializationRecord g_initialization;

// An error of either call fails the module's start.
Result<void> Init() {
    Result<UrlObject*> got = ApplicationInterface::PrivateGetUrl(
        APPLICATION_URLTYPE_CURRENT_MODULE_RESOURCE_DIR, LiteralId("net.quorv.render"), &g_quorv);
    if (got.IsError()) return got.GetError();
    const Url url = Url::Adopt(got.GetValue());
    return DataDescriptionDefinitionDatabaseInterface::RegisterDatabaseWithUrl(
        LiteralId("net.quorv.nodespaces.module"), url.GetObject());
}

const bool g_registered =
    (DefineInitialization(g_initialization, __FILE__, &Init, nullptr, g_unit), true);

}  // namespace

}  // namespace quorv
