// Slot tables of the job services, and the operation-cancelled error.
#include "quorv/jobs.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(ThreadServicesInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(JobQueueInterface)

Error OperationCancelledError(const SourceLocation& loc) {
    return MakeErrorWithId(OPERATION_CANCELLED_ERROR_ID, loc, "Operation cancelled");
}

bool IsOperationCancelled(const ErrorObject* e) {
    return e && e->id == LiteralId(OPERATION_CANCELLED_ERROR_ID);
}

}  // namespace quorv
