// Slot tables of the job, lock, observable and resource services, and the operation-cancelled
// error.
#include "quorv/jobs.h"
#include "quorv/observable.h"
#include "quorv/progress.h"
#include "quorv/resource.h"
#include "quorv/rwlock.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(ThreadServicesInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(JobQueueInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ConditionVariableInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ObservableInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(BackgroundProgressInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ProgressInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ResourceInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(LanguageInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(LockServicesInterface)

Error OperationCancelledError(const SourceLocation& loc) {
    return MakeErrorWithId(OPERATION_CANCELLED_ERROR_ID, loc, "Operation cancelled");
}

bool IsOperationCancelled(const ErrorObject* e) {
    return e && e->id == LiteralId(OPERATION_CANCELLED_ERROR_ID);
}

}  // namespace quorv
