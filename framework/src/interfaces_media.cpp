// Slot tables of the media session services, and the end-of-stream error.
#include "quorv/mediasession.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(FileByteStreamInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(MediaSessionInterface)

Error MediaStreamEOFError(const SourceLocation& loc) {
    return MakeErrorWithId(mediaids::ERROR_MEDIASTREAMEOF, loc, "End of media stream");
}

Bool IsMediaStreamEOF(const ErrorObject* error) {
    return error && error->id == LiteralId(mediaids::ERROR_MEDIASTREAMEOF);
}

}  // namespace quorv
