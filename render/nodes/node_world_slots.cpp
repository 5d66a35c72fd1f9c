// Callers' tables of the node world and the node space helpers; bound when the render module
// loads.
#include "render/nodes/node_spaces.h"
#include "render/nodes/node_world.h"

namespace quorv::nodes {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(NodeWorldInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(NodeSpaceHelpersInterface)
}  // namespace quorv::nodes
