// A caller's table of the asset management interface; bound when the render module loads.
#include "render/frame/asset.h"

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(AssetManagementInterface)
}  // namespace quorv
