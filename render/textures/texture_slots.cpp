// The slot tables of "net.quorv.render.interface.texture" and "...threadedtexture" in a binary
// that calls them: the module itself, and any host-side binary that compiles this file.
#include "render/textures/texture.h"

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(TextureInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ThreadedTextureInterface)
}  // namespace quorv
