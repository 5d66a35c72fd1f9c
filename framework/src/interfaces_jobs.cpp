// Slot tables of the job and observable services, and the operation-cancelled error.
#include "quorv/jobs.h"
#include "quorv/observable.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(ThreadServicesInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(JobQueueInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ObservableInterface)

Error OperationCancelledError(const SourceLocation& loc) {
    return MakeErrorWithId(OPERATION_CANCELLED_ERROR_ID, loc, "Operation cancelled");
}

bool IsOperationCancelled(const ErrorObject* e) {
    return e && e->id == LiteralId(OPERATION_CANCELLED_ERROR_ID);
}

}  // namespace quorv
