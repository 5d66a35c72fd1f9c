// The slot table of the render message interface. The module holds it (no implementation lies
// here: the host's log binds it); a caller that writes or reads messages compiles this too.
#include "quorv/rendermessage.h"

namespace quorv {
QUORV_DEFINE_NONVIRTUAL_INTERFACE(RenderMessageInterface)
}  // namespace quorv
