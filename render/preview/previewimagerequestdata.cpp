// What travels with a preview request: its two registered record types and the completion
// delegate's type, the registry of provider classes, and the scheduler's place in the
// module's start and free steps.
#include "quorv/services.h"  // the definition of DataTypeOperationsOf
#include "render/preview/previewimage_scheduler.h"

namespace quorv::nodes {

namespace {

TranslationUnitRecord g_unit;
DataTypeRecord g_outputImage;
DataTypeRecord g_callbacks;
DataTypeRecord g_completeFunc;
RegistryRecord g_providers;
InitializationRecord g_scheduler;

Result<void> StartScheduler() { return PreviewImageScheduler::StartProcessScheduler(); }
// The scheduler's destruction cancels its tasks and drains "Preview Image Queue": after this
// step no provider code runs, so a provider module is unloaded after this one, never before
// (its `ComputeIteration` may still be on a worker's stack until then).
void FreeScheduler() { PreviewImageScheduler::FreeProcessScheduler(); }

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    DefineRecordDataType<PreviewImageProviderOutputImage, COMPARISON::NONE>(
        g_outputImage, "quorv::nodes::PreviewImageProviderOutputImage", g_unit, __FILE__);
    DefineRecordDataType<CustomSubjectHandlerCallbacks, COMPARISON::NONE>(
        g_callbacks, "quorv::nodes::CustomSubjectHandlerCallbacks", g_unit, __FILE__);
    DefineRecordDataType<ResultCompleteFunc, COMPARISON::OPERATORS>(
        g_completeFunc, "quorv::nodes::ResultCompleteFunc", g_unit, __FILE__);
    DefineRegistry(g_providers, LiteralId(PREVIEWIMAGEPROVIDER_REGISTRY_ID), g_unit, __FILE__, 0);
    DefineInitialization(g_scheduler, "previewimage_scheduler", &StartScheduler, &FreeScheduler,
                         g_unit);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv::nodes
