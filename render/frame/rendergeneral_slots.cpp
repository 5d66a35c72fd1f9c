// A caller's table of the rendergeneral interface; bound when the render module loads.
#include "render/frame/rendergeneral.h"

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(RenderGeneralInterface)
}  // namespace quorv
