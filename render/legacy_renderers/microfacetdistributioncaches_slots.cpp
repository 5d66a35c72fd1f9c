// The slot table of "net.quorv.render.interface.microfacetdistributioncaches" in a binary that
// calls it: the module itself, and any host-side binary that compiles this file.
#include "render/legacy_renderers/microfacetdistributioncaches.h"

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(MicrofacetDistributionCachesInterface)
}  // namespace quorv
