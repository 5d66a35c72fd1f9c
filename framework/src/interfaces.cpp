// The framework unit of a module: the slot tables of the host services this module calls, and
// the configuration table's dependency. Every module links its own copy.
#include <cstring>

#include "quorv/services.h"

namespace quorv {

namespace slots_detail {

Int WriteSlotName(char* out, const char* name, const char* signature) {
    static const char HEX[] = "0123456789abcdef";
    Int n = static_cast<Int>(std::strlen(name));
    std::memcpy(out, name, static_cast<size_t>(n));
    out[n++] = '@';
    UInt h = LiteralIdHash(signature);
    for (int shift = 60; shift >= 0; shift -= 4) out[n++] = HEX[(h >> shift) & 0xF];
    out[n++] = 0;
    return n;
}

}  // namespace slots_detail

const char* BuildSlotNameRun(const SlotDescription& d, char* buffer) {
    char* p = buffer;
    for (Int i = 0; i < d.count; ++i) p += slots_detail::WriteSlotName(p, d.names[i], d.signatures[i]);
    *p = 0;
    return buffer;
}

namespace {

TranslationUnitRecord& FrameworkUnit() {
    static TranslationUnitRecord unit;
    static DependencyRecord configuration;
    static const bool opened = [] {
        OpenTranslationUnit(unit, g_moduleRecord, "??.cpp", EntityBase::FLAGS::FRAMEWORK);
        AddDependencyById(configuration, ".configuration", unit, &GetConfigurationTable());
        return true;
    }();
    (void)opened;
    return unit;
}

void* StubFromDescription(const NonVirtualInterfaceRecord* record, Int index) {
    auto* d = static_cast<const SlotDescription*>(record->description);
    if (!d || index < 0 || index >= d->count) return nullptr;
    return d->stubs[index];
}

}  // namespace

void DefineFrameworkInterface(NonVirtualInterfaceRecord& record, const SlotDescription& d,
                              void** slots, char* nameBuffer) {
    DefineNonVirtualInterface(record, LiteralId(d.interfaceId), slots, d.returnKinds,
                              BuildSlotNameRun(d, nameBuffer), d.count, &StubFromDescription,
                              FrameworkUnit(), 0);
    record.description = &d;
    // Renames the unit from "??.cpp" on its first definition.
    if (FrameworkUnit().id == "??.cpp") FrameworkUnit().id = LiteralId("interfaces.cpp");
}

}  // namespace quorv

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(SystemInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(StringInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(CStringInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(UrlInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(DataDictionaryInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(DataTypeLibInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ClassInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(RegistryInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ApplicationInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(DataDescriptionDefinitionDatabaseInterface)
}  // namespace quorv
