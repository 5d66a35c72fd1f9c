// Slot tables of the image services.
#include "quorv/image.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(PixelFormatInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ImageInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ImageTextureInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ColorProfileInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ColorProfileConvertInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(LayerSetInterface)

}  // namespace quorv
