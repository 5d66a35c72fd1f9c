// The texture cache: resolving relative urls, loading each variant once, errors to every
// waiter, the flush rules and the flush observable.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "render/textures/texture_impl.h"

namespace quorv {
namespace {

namespace fs = std::filesystem;
const std::string DATA = std::string(QUORV_TEST_DATA_DIR) + "/textures/";

Url MakeUrl(const std::string& text) {
    Result<Url> u = Url::FromText(text);
    EXPECT_TRUE(u.IsOk()) << text;
    return u.GetValue();
}

Result<TextureRef> Load(const Url& url, UInt32 flags = 0, Float64 time = 0.0,
                        const std::vector<Url>& paths = {}) {
    std::vector<const UrlObject*> raw;
    for (const Url& p : paths) raw.push_back(p.GetObject());
    Result<TextureImpl*> r = TextureManagementInterface::LoadTexture(
        url.GetObject(), raw.data(), static_cast<Int>(raw.size()), flags, nullptr, time, nullptr);
    if (r.IsError()) return r.GetError();
    return TextureRef::Adopt(r.GetValue());
}

// A folder of its own under the temporary directory, removed at the end.
struct TempFolder {
    fs::path path;
    explicit TempFolder(const std::string& name)
        : path(fs::temp_directory_path() / ("quorv_texcache_" + name)) {
        fs::remove_all(path);
        fs::create_directories(path);
    }
    ~TempFolder() { fs::remove_all(path); }
};

TEST(TextureCache, RelativeUrlsResolveOncePerFirstSearchPath) {
    TextureManagementInterface::FlushAll();
    TempFolder a("a"), b("b");
    fs::copy_file(DATA + "rgb8_4x4.png", b.path / "tile.png");
    const Url relative = MakeUrl("relative:///tile.png");
    // Without search paths: the error at once.
    Result<UrlObject*> none =
        TextureManagementInterface::ResolveUrl(relative.GetObject(), nullptr, 0);
    ASSERT_TRUE(none.IsError());
    EXPECT_STREQ(none.GetErrorPointer()->message, "Could not load relative path");
    EXPECT_NE(std::string(none.GetErrorPointer()->subject).find("tile.png"), std::string::npos);

    const Url pa = MakeUrl(a.path.string()), pb = MakeUrl(b.path.string());
    const UrlObject* ab[] = {pa.GetObject(), pb.GetObject()};
    Result<UrlObject*> found = TextureManagementInterface::ResolveUrl(relative.GetObject(), ab, 2);
    ASSERT_TRUE(found.IsOk()) << ErrorToString(found.GetErrorPointer());
    const Url answer = Url::Adopt(found.GetValue());
    EXPECT_EQ(answer.GetPath(), (b.path / "tile.png").string());
    // The file goes; the same first search path still finds the cached answer.
    fs::remove(b.path / "tile.png");
    Result<UrlObject*> cached = TextureManagementInterface::ResolveUrl(relative.GetObject(), ab, 2);
    ASSERT_TRUE(cached.IsOk());
    EXPECT_EQ(Url::Adopt(cached.GetValue()).Compare(answer), 0);
    // Another first search path searches again.
    const UrlObject* ba[] = {pb.GetObject(), pa.GetObject()};
    EXPECT_TRUE(TextureManagementInterface::ResolveUrl(relative.GetObject(), ba, 2).IsError());
    fs::copy_file(DATA + "rgb8_4x4.png", a.path / "tile.png");
    Result<UrlObject*> again = TextureManagementInterface::ResolveUrl(relative.GetObject(), ba, 2);
    ASSERT_TRUE(again.IsOk());
    EXPECT_EQ(Url::Adopt(again.GetValue()).GetPath(), (a.path / "tile.png").string());
    // A url of another scheme comes back as it is.
    const Url plain = MakeUrl(DATA + "rgb8_4x4.png");
    Result<UrlObject*> same = TextureManagementInterface::ResolveUrl(plain.GetObject(), nullptr, 0);
    ASSERT_TRUE(same.IsOk());
    EXPECT_EQ(Url::Adopt(same.GetValue()).Compare(plain), 0);
    TextureManagementInterface::FlushAll();
}

TEST(TextureCache, ConcurrentLoadsOfOneUrlLoadOnceAndShareTheTexture) {
    TextureManagementInterface::FlushAll();
    const Url url = MakeUrl(DATA + "rgb8_7x5.png");
    constexpr int THREADS = 8;
    std::vector<TextureImpl*> got(THREADS, nullptr);
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            ++ready;
            while (ready.load() < THREADS) std::this_thread::yield();
            Result<TextureRef> t = Load(url);
            EXPECT_TRUE(t.IsOk()) << ErrorToString(t.GetErrorPointer());
            if (t.IsOk()) {
                got[static_cast<size_t>(i)] = t.GetValue().Get();
                AddReference(got[static_cast<size_t>(i)]);
            }
        });
    }
    for (auto& t : threads) t.join();
    for (TextureImpl* t : got) EXPECT_EQ(t, got[0]);
    // The map's reference and one per thread.
    EXPECT_EQ(GetCountWord(got[0]), (THREADS + 1) * REFERENCE_STEP);
    for (TextureImpl* t : got) RemoveReference(t);
    TextureManagementInterface::FlushAll();
}

TEST(TextureCache, KeysConversionOfFloatPicturesAndClampedTimes) {
    TextureManagementInterface::FlushAll();
    const Url hdr = MakeUrl(DATA + "rgbaf_4x3.exr");
    Result<TextureRef> plain = Load(hdr), converted = Load(hdr, TEXTURE_FLAG_CONVERT_TO_FLOAT);
    ASSERT_TRUE(plain.IsOk() && converted.IsOk());
    EXPECT_EQ(plain.GetValue().Get(), converted.GetValue().Get());
    const Url bytes = MakeUrl(DATA + "rgba8_5x3.png");
    Result<TextureRef> b8 = Load(bytes), b32 = Load(bytes, TEXTURE_FLAG_CONVERT_TO_FLOAT);
    ASSERT_TRUE(b8.IsOk() && b32.IsOk());
    EXPECT_NE(b8.GetValue().Get(), b32.GetValue().Get());
    EXPECT_TRUE(b32.GetValue()->wasConverted);

    // Three frames, a thirtieth of a second each: 10 s clamps to the duration, 0.1 s.
    const Url frames = MakeUrl(DATA + "frames_2x2.tif");
    Result<TextureRef> late = Load(frames, 0, 10.0), end = Load(frames, 0, 0.1),
                       first = Load(frames, 0, -3.0), start = Load(frames, 0, 0.0);
    ASSERT_TRUE(late.IsOk() && end.IsOk() && first.IsOk() && start.IsOk());
    EXPECT_EQ(late.GetValue().Get(), end.GetValue().Get());
    EXPECT_EQ(first.GetValue().Get(), start.GetValue().Get());
    EXPECT_NE(late.GetValue().Get(), start.GetValue().Get());
    EXPECT_EQ(ImageTextureInterface::GetFrameIndex(late.GetValue()->image.Get()), 2);
    // A time mapper sees the duration and may move the time.
    TextureTimeMapper mapper;
    mapper.call = [](void* user, Float64 duration, Float64* time) -> Result<void> {
        *static_cast<Float64*>(user) = duration;
        *time = 0.0;
        return OK;
    };
    Float64 seen = -1;
    mapper.user = &seen;
    Result<TextureImpl*> mapped = TextureManagementInterface::LoadTexture(
        frames.GetObject(), nullptr, 0, 0, nullptr, 0.07, &mapper);
    ASSERT_TRUE(mapped.IsOk());
    TextureRef mappedRef = TextureRef::Adopt(mapped.GetValue());
    EXPECT_DOUBLE_EQ(seen, 0.1);
    EXPECT_EQ(mappedRef.Get(), start.GetValue().Get());
    Result<TextureImpl*> empty =
        TextureManagementInterface::LoadTexture(nullptr, nullptr, 0, 0, nullptr, 0, nullptr);
    ASSERT_TRUE(empty.IsError());
    EXPECT_EQ(empty.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
    TextureManagementInterface::FlushAll();
}

TEST(TextureCache, AFailedLoadReachesEveryCallerUntilReinitialisation) {
    TextureManagementInterface::FlushAll();
    TempFolder folder("late");
    const fs::path file = folder.path / "late.png";
    const Url url = MakeUrl(file.string());
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([&] {
            if (Load(url).IsError()) ++failures;
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 6);
    fs::copy_file(DATA + "rgb8_4x4.png", file);
    Result<TextureRef> still = Load(url);
    ASSERT_TRUE(still.IsError()) << "the failure is kept";
    EXPECT_NE(std::string(still.GetErrorPointer()->message).find("late.png"), std::string::npos);
    TextureManagementInterface::AllowReinitialization();
    Result<TextureRef> now = Load(url);
    EXPECT_TRUE(now.IsOk()) << ErrorToString(now.GetErrorPointer());
    TextureManagementInterface::FlushAll();
}

TEST(TextureCache, FlushesKeepWhatCallersHoldAndNotify) {
    TextureManagementInterface::FlushAll();
    ObservableObject* observable = TextureManagementInterface::ObservableFlushed(true);
    ASSERT_NE(observable, nullptr);
    EXPECT_EQ(TextureManagementInterface::ObservableFlushed(false), observable);
    std::atomic<int> notified{0};
    Result<ObserverHandleObject*> handle = ObservableInterface::AddObserver(
        observable,
        [](void* user, Bool value) { *static_cast<std::atomic<int>*>(user) += value ? 1 : 100; },
        &notified);
    ASSERT_TRUE(handle.IsOk());
    Ref<ObserverHandleObject> subscription = Ref<ObserverHandleObject>::Adopt(handle.GetValue());

    const Url heldUrl = MakeUrl(DATA + "rgb8_7x5.png"), droppedUrl = MakeUrl(DATA + "rgb8_4x4.png");
    Result<TextureRef> held = Load(heldUrl);
    ASSERT_TRUE(held.IsOk());
    {
        Result<TextureRef> dropped = Load(droppedUrl);
        ASSERT_TRUE(dropped.IsOk());
        texture::EnsurePyramid(dropped.GetValue().Get());  // marks the object
    }
    TextureManagementInterface::FlushUnused();
    EXPECT_EQ(notified.load(), 1);
    Result<TextureRef> heldAgain = Load(heldUrl);
    EXPECT_EQ(heldAgain.GetValue().Get(), held.GetValue().Get());
    Result<TextureRef> reloaded = Load(droppedUrl);
    ASSERT_TRUE(reloaded.IsOk());
    EXPECT_EQ(reloaded.GetValue()->pyramidState.load(), TEXTURE_STATE_NOT_BUILT) << "a new object";

    // After FlushAll a held texture samples on, and the next load gives a new object.
    TextureManagementInterface::FlushAll();
    EXPECT_EQ(notified.load(), 2);
    Result<ThreadedTextureRef> sampler = ThreadedTextureRef::Create(held.GetValue());
    ASSERT_TRUE(sampler.IsOk());
    const ColorA64 c = sampler.GetValue().Sample({0.5, 0.5}, {0.3, 0.3}, TEXTUREMODE::CLAMP,
                                                 TEXTUREMODE::CLAMP, TEXTUREINTERPOLATION::MIP);
    EXPECT_GT(c.r + c.g + c.b, 0.0);
    Result<TextureRef> fresh = Load(heldUrl);
    ASSERT_TRUE(fresh.IsOk());
    EXPECT_NE(fresh.GetValue().Get(), held.GetValue().Get());
    // Dropping the handle ends the subscription.
    subscription = Ref<ObserverHandleObject>();
    TextureManagementInterface::FlushUnused();
    EXPECT_EQ(notified.load(), 2);
    TextureManagementInterface::FlushAll();
}

}  // namespace
}  // namespace quorv
