// Unloading the modules while previews run, through the built libraries. Unloading is final
// for a process, so this binary holds this one test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "previewproviders/previewproviders.h"
#include "quorv/host/host.h"

namespace quorv::previewproviders {
namespace {

TEST(PreviewUnload, RenderThenProvidersWhileRequestsRun) {
    host::Host& h = host::Host::Get();
    Result<host::LoadedModule*> render = h.LoadModule(QUORV_MODULE_PATH);
    ASSERT_TRUE(render.IsOk()) << ErrorToString(render.GetErrorPointer());
    Result<host::LoadedModule*> providers = h.LoadModule(QUORV_PREVIEWPROVIDERS_MODULE_PATH);
    ASSERT_TRUE(providers.IsOk()) << ErrorToString(providers.GetErrorPointer());

    std::atomic<int> calls{0};
    std::atomic<bool> unloaded{false};
    std::atomic<int> callsAfterUnload{0};
    std::vector<ObjectRef> requests;
    for (const char* provider :
         {MATERIALBALL_PROVIDER_ID, SCRIPTED_PROVIDER_ID, SCRIPTED_PROVIDER_ID}) {
        Result<ObjectRef> o = CreateObjectById(LiteralId(nodes::NODES_CLASS_REGISTRY_ID),
                                               LiteralId(nodes::PREVIEWIMAGEREQUEST_CLASS_ID));
        ASSERT_TRUE(o.IsOk());
        auto dict = DataDictionaryObjectInterface::Ref::Cast(o.GetValue()).GetValue();
        const ClassObject* cls =
            FindClass(LiteralId(nodes::PREVIEWIMAGEPROVIDER_REGISTRY_ID), LiteralId(provider))
                .GetValue();
        ASSERT_TRUE(
            SetObjectValue(dict, nodes::PREVIEW_PROVIDER, const_cast<ClassObject*>(cls)).IsOk());
        ASSERT_TRUE(SetObjectValue(dict, nodes::PREVIEW_TEXTURESIZE, Vector2i64{64, 64}).IsOk());
        ASSERT_TRUE(SetObjectValue(dict, BALL_ITERATIONS, Int(16)).IsOk());
        ASSERT_TRUE(SetObjectValue(dict, BALL_SAMPLES, Int(64)).IsOk());
        ASSERT_TRUE(SetObjectValue(dict, SCRIPTED_COUNT, Int(1000000)).IsOk());
        ASSERT_TRUE(SetObjectValue(dict, SCRIPTED_WORKTIME, 0.001).IsOk());
        auto func =
            nodes::ResultCompleteFunc::Create([&](Result<void>, DataDictionary, DataDictionary) {
                ++calls;
                if (unloaded.load()) ++callsAfterUnload;
            });
        ASSERT_TRUE(
            SetObjectValue(dict, nodes::PREVIEW_RESULTCOMPLETEFUNC, func.GetValue()).IsOk());
        ASSERT_TRUE(nodes::PreviewImageRequestInterface::Ref::Cast(o.GetValue())
                        .GetValue()
                        .Submit()
                        .IsOk());
        requests.push_back(o.GetValue());
    }
    while (calls.load() < 3) std::this_thread::yield();
    // The requests go (a request is an object of the render module); their jobs are still in
    // their computations when the render module's free step drains the queue.
    requests.clear();
    h.UnloadModule(render.GetValue());
    unloaded = true;
    h.UnloadModule(providers.GetValue());
    EXPECT_EQ(callsAfterUnload.load(), 0);
    for (const std::string& line : h.GetCriticalLog())
        EXPECT_EQ(line.find("Unknown task"), std::string::npos) << line;
}

}  // namespace
}  // namespace quorv::previewproviders
