// The slot table of "net.quorv.render.interface.clothweavepattern" in a binary that calls it:
// the module itself, and any host-side binary that compiles this file.
#include "render/legacy_renderers/clothweavepattern.h"

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ClothWeavePatternInterface)
}  // namespace quorv
