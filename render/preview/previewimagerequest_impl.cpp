// The preview request: the host's data dictionary object plus `Submit` and `Cancel`. The
// request holds only a submission ticket; the scheduler keeps what a task needs, so later
// changes of the dictionary do not reach a running task.
#include "render/preview/previewimage_scheduler.h"

namespace quorv::nodes {

namespace {

struct PreviewImageRequestImpl {
    Result<void> Submit() {
        // The earlier task goes first: a request never has two, and a failed submit none.
        _submission = Ref<PreviewImageSubmission>();
        Ref<PreviewImageScheduler> scheduler = PreviewImageScheduler::Get();
        if (!scheduler) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "Illegal state: Invalid Preview Image Scheduler");
        }
        Result<DataDictionaryObjectInterface::Ref> self =
            DataDictionaryObjectInterface::Ref::Cast(ObjectRef(InstanceOfState(this)));
        if (self.IsError()) return self.GetError();
        const UInt32 purpose = GetObjectValue(self.GetValue(), PREVIEW_PURPOSE, UInt32(0));
        Result<Ref<PreviewImageSubmission>> submitted = scheduler->Submit(self.GetValue(), purpose == 1);
        if (submitted.IsError()) return submitted.GetError();
        _submission = std::move(submitted.GetValue());
        return OK;
    }

    void Cancel() { _submission = Ref<PreviewImageSubmission>(); }

    void CancelAllRequests(Bool wait) {
        if (Ref<PreviewImageScheduler> scheduler = PreviewImageScheduler::Get()) scheduler->CancelAll(wait);
    }

    // A copy shares the submission with its source until both let go of it.
    Ref<PreviewImageSubmission> _submission;
};

ModuleUnit g_unit(__FILE__, {{&ClassInterface::record, "quorv/services.h"}});
RegistryRecord g_nodesClasses;
const bool g_registry =
    (DefineRegistry(g_nodesClasses, LiteralId(NODES_CLASS_REGISTRY_ID), g_unit, __FILE__, 0), true);
ComposedClass<PreviewImageRequestImpl, PreviewImageRequestInterface> g_class(
    g_unit, PREVIEWIMAGEREQUEST_CLASS_ID, NODES_CLASS_REGISTRY_ID,
    {{HOST_CLASS_REGISTRY_ID, DATADICTIONARYOBJECT_CLASS_ID}}, __FILE__);

}  // namespace

}  // namespace quorv::nodes
