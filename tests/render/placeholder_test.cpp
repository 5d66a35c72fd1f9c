// Preview placeholders of the built module: the picture drawn into the build's resource folder.
#include <atomic>
#include <thread>

#include "common/test_support.h"
#include "quorv/jobs.h"
#include "quorv/ref.h"
#include "render/preview/previewimageplaceholder.h"

namespace quorv {
namespace {

Ref<ImageTextureObject> Get(const char* id) {
    EXPECT_NE(test::LoadModuleOnce(QUORV_MODULE_PATH), nullptr);
    return Ref<ImageTextureObject>::Adopt(PreviewImagePlaceholderInterface::GetImage(LiteralId(id)));
}

TEST(Placeholders, OnePictureLoadedOncePerSlot) {
    EXPECT_FALSE(Get(""));
    EXPECT_FALSE(Get("net.quorv.nodes.previewimageplaceholder.unknown"));
    Ref<ImageTextureObject> a = Get(previewimageplaceholder::NOSPACE);
    ASSERT_TRUE(a) << "the build draws resources/modules/browser/icons/wrong.tif";
    // The drawn picture: 64 x 64, RGBA.
    ImageObject* first = ImageTextureInterface::GetFirstImage(a.Get());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(ImageInterface::GetWidth(first), 64);
    EXPECT_EQ(ImageInterface::GetHeight(first), 64);
    // The same slot gives the same object; another slot loads its own.
    EXPECT_EQ(Get(previewimageplaceholder::NOSPACE).Get(), a.Get());
    Ref<ImageTextureObject> b = Get(previewimageplaceholder::ERROR);
    ASSERT_TRUE(b);
    EXPECT_NE(b.Get(), a.Get());
}

// Every worker of a two-thread queue asks for one slot at once: all finish, with one picture.
TEST(Placeholders, WorkersOfOnePoolOnOneSlotAllFinish) {
    ASSERT_NE(test::LoadModuleOnce(QUORV_MODULE_PATH), nullptr);
    JobQueueRef queue = JobQueueRef::Create(JOBQUEUETYPE::NORMAL, 2, JOBQUEUEMODE::DEFAULT, "placeholder test").GetValue();
    std::atomic<ImageTextureObject*> seen{nullptr};
    std::atomic<int> finished{0}, different{0};
    std::vector<JobRef> jobs;
    for (int i = 0; i < 8; ++i) {
        JobRef job = ClosureJob::Create([&]() -> Result<void> {
                         Ref<ImageTextureObject> r = Ref<ImageTextureObject>::Adopt(
                             PreviewImagePlaceholderInterface::GetImage(
                                 LiteralId(previewimageplaceholder::NOMATERIALENDNODE)));
                         ImageTextureObject* expected = nullptr;
                         if (!seen.compare_exchange_strong(expected, r.Get()) && expected != r.Get()) ++different;
                         ++finished;
                         return OK;
                     }).GetValue();
        ASSERT_TRUE(job.Enqueue(queue.Get()).IsOk());
        jobs.push_back(job);
    }
    for (JobRef& j : jobs) EXPECT_TRUE(j.Wait());
    EXPECT_EQ(finished.load(), 8);
    EXPECT_EQ(different.load(), 0);
    EXPECT_NE(seen.load(), nullptr);
}

}  // namespace
}  // namespace quorv
