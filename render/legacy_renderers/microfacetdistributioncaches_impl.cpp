// MicrofacetDistributionCachesImpl: four SamplerCache records in one counted block, supplied
// to every binary as the static interface
// "net.quorv.render.interface.microfacetdistributioncaches".
#include <cstring>
#include <new>

#include "quorv/services.h"
#include "render/legacy_renderers/microfacetdistributioncaches.h"

namespace quorv {

namespace {

/// The block behind a `MicrofacetDistributionCaches` handle.
struct MicrofacetDistributionCachesImpl {
    static constexpr UInt32 COUNT = 4;
    SamplerCache caches[COUNT];
};

MicrofacetDistributionCachesImpl* ImplOf(MicrofacetDistributionCaches* caches) {
    return reinterpret_cast<MicrofacetDistributionCachesImpl*>(caches);
}

void FreeCaches(MicrofacetDistributionCaches* caches) {
    if (!caches) return;
    SystemInterface::Free(HeaderOf(caches));
}

void DestroyCaches(void* object) { FreeCaches(static_cast<MicrofacetDistributionCaches*>(object)); }

Result<MicrofacetDistributionCaches*> AllocCaches() {
    constexpr Int size = sizeof(ObjectHeader) + sizeof(MicrofacetDistributionCachesImpl);
    void* block = SystemInterface::Alloc(size, QUORV_SOURCE_LOCATION);
    if (!block) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
    // Empty: zero entries, which read as set; Init writes the unset value.
    std::memset(block, 0, size);
    auto* header = new (block) ObjectHeader{nullptr, &DestroyCaches, 0, {REFERENCE_STEP}};
    return reinterpret_cast<MicrofacetDistributionCaches*>(header + 1);
}

Result<void> InitCaches(MicrofacetDistributionCaches* caches) {
    if (!caches) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION,
                         "MicrofacetDistributionCaches::Init: caches is nullptr");
    }
    for (SamplerCache& c : ImplOf(caches)->caches) c.Clear();
    return OK;
}

SamplerCache* GetCache(MicrofacetDistributionCaches* caches, UInt32 type) {
    if (!caches || type >= MicrofacetDistributionCachesImpl::COUNT) return nullptr;
    return &ImplOf(caches)->caches[type];
}

const MicrofacetDistributionCachesInterface::Slots g_functions{
    .Free = &FreeCaches,
    .Alloc = &AllocCaches,
    .Init = &InitCaches,
    .GetCache = &GetCache,
};

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_implementation;
char g_names[MicrofacetDistributionCachesInterface::NAME_RUN_SIZE];

// The names come from the interface's description, not from its slot record, whose unit may
// not have run its initialiser yet.
void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    const SlotDescription& d = MicrofacetDistributionCachesInterface::Describe();
    NonVirtualInterfaceRecord shape;
    shape.id = LiteralId(d.interfaceId);
    shape.methodNames = BuildSlotNameRun(d, g_names);
    shape.returnKinds = d.returnKinds;
    shape.count = d.count;
    DefineInterfaceImplementation(g_implementation, shape, g_unit, __FILE__, 0);
    g_implementation.implementation = reinterpret_cast<void* const*>(&g_functions);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv
