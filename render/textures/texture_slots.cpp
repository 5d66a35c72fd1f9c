// The slot tables of "net.quorv.render.interface.texture" and "...threadedtexture",
// "...texturemanagement" in a binary
// that calls them: the module itself, and any host-side binary that compiles this file.
#include "render/textures/texture.h"

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(TextureInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ThreadedTextureInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(TextureManagementInterface)
}  // namespace quorv
