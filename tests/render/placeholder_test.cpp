// Preview placeholders of the built module: the picture drawn into the build's resource folder.
#include <array>
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
    return Ref<ImageTextureObject>::Adopt(
        PreviewImagePlaceholderInterface::GetImage(LiteralId(id)));
}

// Pixel (x, y) of `image` as 8-bit RGBA.
std::array<int, 4> Pixel(const ImageObject* image, Int x, Int y) {
    const PixelFormatObject* rgba = FindPixelFormat("rgba.u8");
    Ref<PixelReadHandler> read = Ref<PixelReadHandler>::Adopt(
        ImageInterface::GetPixelHandler(image, rgba, nullptr).GetValue());
    unsigned char p[4] = {};
    read->read(read.Get(), x, y, 1, p);
    return {p[0], p[1], p[2], p[3]};
}

TEST(Placeholders, OnePictureLoadedOncePerSlot) {
    // The empty id and an unknown one give null (and, with no error channel, nothing else).
    EXPECT_FALSE(Get(""));
    EXPECT_FALSE(Get("net.quorv.nodes.previewimageplaceholder.unknown"));
    Ref<ImageTextureObject> a = Get(previewimageplaceholder::NOSPACE);
    ASSERT_TRUE(a) << "the build draws resources/modules/browser/icons/wrong.tif";
    // The drawn picture: 64 x 64, four 8-bit channels with alpha, a red cross on transparent
    // from corner to corner, 8 pixels clear of the edges.
    ImageObject* first = ImageTextureInterface::GetFirstImage(a.Get());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(ImageInterface::GetWidth(first), 64);
    EXPECT_EQ(ImageInterface::GetHeight(first), 64);
    const PixelFormatObject* format = ImageInterface::GetPixelFormat(first);
    EXPECT_EQ(PixelFormatInterface::GetChannelCount(format), 4);
    EXPECT_TRUE(PixelFormatInterface::HasAlpha(format));
    const std::array<int, 4> red{220, 20, 20, 255}, clear{0, 0, 0, 0};
    EXPECT_EQ(Pixel(first, 32, 32), red);    // where the bars cross
    EXPECT_EQ(Pixel(first, 10, 10), red);    // on the falling bar, near its top end
    EXPECT_EQ(Pixel(first, 53, 10), red);    // on the rising bar
    EXPECT_EQ(Pixel(first, 12, 14), red);    // off the diagonal, inside the bar's width
    EXPECT_EQ(Pixel(first, 5, 5), clear);    // on the diagonal, but in the margin
    EXPECT_EQ(Pixel(first, 32, 10), clear);  // between the bars' ends
    EXPECT_EQ(Pixel(first, 32, 60), clear);
    EXPECT_EQ(Pixel(first, 20, 32), clear);  // between the bars' middles
    EXPECT_EQ(Pixel(first, 0, 63), clear);
    // The same slot gives the same object; another slot loads its own.
    EXPECT_EQ(Get(previewimageplaceholder::NOSPACE).Get(), a.Get());
    Ref<ImageTextureObject> b = Get(previewimageplaceholder::ERROR);
    ASSERT_TRUE(b);
    EXPECT_NE(b.Get(), a.Get());
}

// Every worker of a two-thread queue asks for one slot at once: all finish, with one picture.
TEST(Placeholders, WorkersOfOnePoolOnOneSlotAllFinish) {
    ASSERT_NE(test::LoadModuleOnce(QUORV_MODULE_PATH), nullptr);
    JobQueueRef queue =
        JobQueueRef::Create(JOBQUEUETYPE::NORMAL, 2, JOBQUEUEMODE::DEFAULT, "placeholder test")
            .GetValue();
    std::atomic<ImageTextureObject*> seen{nullptr};
    std::atomic<int> finished{0}, different{0};
    std::vector<JobRef> jobs;
    for (int i = 0; i < 8; ++i) {
        JobRef job =
            ClosureJob::Create([&]() -> Result<void> {
                Ref<ImageTextureObject> r =
                    Ref<ImageTextureObject>::Adopt(PreviewImagePlaceholderInterface::GetImage(
                        LiteralId(previewimageplaceholder::NOMATERIALENDNODE)));
                ImageTextureObject* expected = nullptr;
                if (!seen.compare_exchange_strong(expected, r.Get()) && expected != r.Get())
                    ++different;
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
