// A caller's table of the photometric web interface: a binary that calls the module's webs
// compiles this once; the table is bound when the module loads.
#include "render/photometric/ies.h"

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(IesInterface)
}  // namespace quorv
