// A caller's table of the preview placeholder interface; bound when the render module loads.
#include "render/preview/previewimageplaceholder.h"

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(PreviewImagePlaceholderInterface)
}  // namespace quorv
