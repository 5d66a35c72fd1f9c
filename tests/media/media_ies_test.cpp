// IES webs through the host's media sessions, with the module's sources linked in: detection
// over the first 1024 bytes, the input's call order and its errors, and the imported picture
// against the web's own preview.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "common/test_support.h"
#include "quorv/host/media.h"
#include "quorv/jobs.h"
#include "quorv/ref.h"
#include "render/photometric/ies_impl.h"
#include "render/photometric/media_io_ies.h"

namespace quorv {
namespace {

namespace fs = std::filesystem;

// A folder of this process's own, removed at the end.
struct TempDir {
    fs::path path = fs::temp_directory_path() / ("quorv_media_" + std::to_string(::getpid()));
    TempDir() { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path); }
    fs::path Write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path / name, std::ios::binary) << bytes;
        return path / name;
    }
};

Url UrlOf(const fs::path& p) { return Url::FromText(p.string()).GetValue(); }

std::string FormatOf(const fs::path& p) {
    Result<host::MediaDetection> d = host::DetectMediaFormat(UrlOf(p));
    EXPECT_TRUE(d.IsOk()) << p;
    return d.IsOk() ? d.GetValue().format : "error";
}

std::string MessageOf(const ErrorObject* e) { return e && e->message ? e->message : ""; }

const std::string IES_WEB =
    "IESNA:LM-63-2002\n[MANUFAC] test\nTILT=NONE\n1 1000 1 3 1 1 2 0 0 0\n1 1 10\n"
    "0 45 90\n0\n100 80 20\n";

// A text of `length` bytes of filler with `word` starting at byte `at`.
std::string WithWordAt(const char* word, size_t at, size_t length) {
    std::string s(length, 'x');
    std::memcpy(s.data() + at, word, std::strlen(word));
    return s;
}

TEST(MediaIesDetect, WordsSuffixAndTheFirst1024Bytes) {
    TempDir dir;
    EXPECT_EQ(FormatOf(dir.Write("a.ies", IES_WEB)), mediaioies::FORMAT_ID);
    EXPECT_EQ(FormatOf(dir.Write("b.ies", "garbage\nTILT=NONE\n")), mediaioies::FORMAT_ID);
    // The suffix is compared without case; another suffix isn't IES whatever the content.
    EXPECT_EQ(FormatOf(dir.Write("c.IES", IES_WEB)), mediaioies::FORMAT_ID);
    EXPECT_EQ(FormatOf(dir.Write("d.txt", IES_WEB)), "");
    EXPECT_EQ(FormatOf(dir.Write("e.iesx", IES_WEB)), "");
    // Case-sensitive words: a lower-case "tilt" alone, or "iesna", is not IES.
    EXPECT_EQ(FormatOf(dir.Write("f.ies", "iesna:lm-63\ntilt=none\n")), "");
    // Bytes after a NUL are still searched.
    EXPECT_EQ(FormatOf(dir.Write("g.ies", std::string("head\0er\nTILT=NONE", 17))),
              mediaioies::FORMAT_ID);
    // Short and empty files are read as a whole, with no error at their end.
    EXPECT_EQ(FormatOf(dir.Write("h.ies", "TILT")), mediaioies::FORMAT_ID);
    EXPECT_EQ(FormatOf(dir.Write("i.ies", "")), "");
    // Straddling byte 1024: a word whose last byte is byte 1023 counts, one byte later it does
    // not, and a word wholly past the window does not either.
    for (const char* word : {"IESN", "TILT"}) {
        EXPECT_EQ(FormatOf(dir.Write("in.ies", WithWordAt(word, 1020, 4096))),
                  mediaioies::FORMAT_ID)
            << word;
        EXPECT_EQ(FormatOf(dir.Write("out.ies", WithWordAt(word, 1021, 4096))), "") << word;
        EXPECT_EQ(FormatOf(dir.Write("far.ies", WithWordAt(word, 3000, 4096))), "") << word;
    }
    // "IESN" wins before "TILT", but either alone is enough; both at once too.
    std::string both = WithWordAt("TILT", 10, 2000);
    std::memcpy(both.data() + 500, "IESN", 4);
    EXPECT_EQ(FormatOf(dir.Write("both.ies", both)), mediaioies::FORMAT_ID);
}

TEST(MediaIesDetect, AMissingFileIsAnErrorOfTheByteStream) {
    Result<host::MediaDetection> d = host::DetectMediaFormat(UrlOf("/nonexistent/quorv/x.ies"));
    ASSERT_TRUE(d.IsError());
    EXPECT_NE(MessageOf(d.GetErrorPointer()).find("/nonexistent/quorv/x.ies"), std::string::npos);
}

TEST(MediaFileByteStream, ReadShortAtTheEndAndExactlyGivesEOF) {
    TempDir dir;
    const fs::path p = dir.Write("bytes.bin", "abcdef");
    Result<FileByteStreamObject*> s = FileByteStreamInterface::Open(UrlOf(p).GetObject());
    ASSERT_TRUE(s.IsOk());
    char buffer[16] = {};
    EXPECT_EQ(FileByteStreamInterface::Read(s.GetValue(), buffer, 4).GetValue(), 4);
    EXPECT_EQ(FileByteStreamInterface::Read(s.GetValue(), buffer, 16).GetValue(), 2);
    EXPECT_EQ(FileByteStreamInterface::Read(s.GetValue(), buffer, 16).GetValue(), 0);
    ASSERT_TRUE(FileByteStreamInterface::Seek(s.GetValue(), 1).IsOk());
    Result<void> exact = FileByteStreamInterface::ReadExactly(s.GetValue(), buffer, 6);
    ASSERT_TRUE(exact.IsError());
    EXPECT_TRUE(IsMediaStreamEOF(exact.GetErrorPointer()));
    EXPECT_EQ(exact.GetErrorPointer()->id, LiteralId("net.quorv.image.error.mediastreameof"));
    ASSERT_TRUE(FileByteStreamInterface::Seek(s.GetValue(), 0).IsOk());
    ASSERT_TRUE(FileByteStreamInterface::ReadExactly(s.GetValue(), buffer, 6).IsOk());
    EXPECT_EQ(std::string(buffer, 6), "abcdef");
    FileByteStreamInterface::Free(s.GetValue());
}

// The preview the web itself renders, 512 x 512.
std::vector<Float32> Preview(const fs::path& file) {
    IesImpl* web = ies::Alloc(QUORV_SOURCE_LOCATION);
    Ref<IesImpl> hold = Ref<IesImpl>::Adopt(web);
    EXPECT_TRUE(ies::Init(web, UrlOf(file).GetObject()).IsOk());
    std::vector<Float32> pixels(512 * 512);
    GreyImage32 image{512, 512, 512, pixels.data()};
    EXPECT_TRUE(
        ies::GeneratePreviewImageRows(web, image.width, image.height, ArraySetLine(&image), nullptr)
            .IsOk());
    return pixels;
}

std::vector<Float32> Pixels(const ImageObject* image) {
    const Int w = ImageInterface::GetWidth(image), h = ImageInterface::GetHeight(image);
    Ref<PixelReadHandler> read = Ref<PixelReadHandler>::Adopt(
        ImageInterface::GetPixelHandler(image, FindPixelFormat("grey.f32"), nullptr).GetValue());
    std::vector<Float32> out(static_cast<size_t>(w * h));
    for (Int y = 0; y < h; ++y) read->read(read.Get(), 0, y, w, out.data() + y * w);
    return out;
}

// The preview rendered into a host image goes through the image's set-pixel handler: a grey
// Float32 image holds the array preview to the bit, a Float64 one the same values widened; a
// non-square image gets the rows operation's message and is left untouched.
TEST(MediaIesImport, ThePreviewIntoAHostImage) {
    const fs::path file = fs::path(QUORV_TEST_DATA_DIR) / "ies" / "sym_quadrant.ies";
    IesImpl* web = ies::Alloc(QUORV_SOURCE_LOCATION);
    Ref<IesImpl> hold = Ref<IesImpl>::Adopt(web);
    ASSERT_TRUE(ies::Init(web, UrlOf(file).GetObject()).IsOk());
    std::vector<Float32> expected(48 * 48);
    GreyImage32 array{48, 48, 48, expected.data()};
    ASSERT_TRUE(ies::GeneratePreviewImageRows(web, 48, 48, ArraySetLine(&array), nullptr).IsOk());
    for (const char* format : {"grey.f32", "grey.f64"}) {
        Ref<ImageObject> image = Ref<ImageObject>::Adopt(
            ImageInterface::Create(imageids::IMAGECLASS_IMAGE, imageids::STORAGE_NORMAL, 48, 48,
                                   FindPixelFormat(format))
                .GetValue());
        ASSERT_TRUE(ies::GeneratePreviewImage(web, image.Get()).IsOk()) << format;
        EXPECT_EQ(Pixels(image.Get()), expected) << format;
    }
    Ref<ImageObject> wide = Ref<ImageObject>::Adopt(
        ImageInterface::Create(imageids::IMAGECLASS_IMAGE, imageids::STORAGE_NORMAL, 8, 4,
                               FindPixelFormat("grey.f32"))
            .GetValue());
    Result<void> r = ies::GeneratePreviewImage(web, wide.Get());
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(MessageOf(r.GetErrorPointer()), "Width and height of image must match.");
    EXPECT_EQ(Pixels(wide.Get()), std::vector<Float32>(32, 0.0f));
    EXPECT_TRUE(ies::GeneratePreviewImage(web, nullptr).IsError());
}

TEST(MediaIesImport, APictureLoadIsThePreviewBitForBit) {
    for (const char* name : {"sym_quadrant.ies", "v2002.ies"}) {
        const fs::path file = fs::path(QUORV_TEST_DATA_DIR) / "ies" / name;
        Result<ImageTextureObject*> loaded =
            ImageTextureInterface::Load(UrlOf(file).GetObject(), 0.0, nullptr, nullptr);
        ASSERT_TRUE(loaded.IsOk()) << name << ": " << MessageOf(loaded.GetErrorPointer());
        Ref<ImageTextureObject> picture = Ref<ImageTextureObject>::Adopt(loaded.GetValue());
        const ImageObject* image = ImageTextureInterface::GetFirstImage(picture.Get());
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(ImageInterface::GetWidth(image), 512);
        EXPECT_EQ(ImageInterface::GetHeight(image), 512);
        EXPECT_EQ(PixelFormatInterface::GetId(ImageInterface::GetPixelFormat(image)),
                  LiteralId("net.quorv.image.pixelformat.grey.f32"));
        const std::vector<Float32> imported = Pixels(image);
        const std::vector<Float32> preview = Preview(file);
        ASSERT_EQ(imported.size(), preview.size());
        size_t first = 0;
        while (first < preview.size() &&
               std::memcmp(&imported[first], &preview[first], sizeof(Float32)) == 0)
            ++first;
        EXPECT_EQ(first, preview.size())
            << name << ": first difference at pixel " << first << ", "
            << (first < preview.size() ? imported[first] : 0.0f) << " against "
            << (first < preview.size() ? preview[first] : 0.0f);
        EXPECT_GT(*std::max_element(preview.begin(), preview.end()), 0.0f) << name;
    }
}

// Each web imports, or fails with the message of the reader; a file that has neither word in
// its first 1024 bytes isn't taken by the format at all.
void CheckWebs(const fs::path& folder) {
    int count = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        std::string suffix = entry.path().extension().string();
        for (char& c : suffix) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (suffix != ".ies") continue;
        ++count;
        std::ifstream in(entry.path(), std::ios::binary);
        std::string head(1024, '\0');
        in.read(head.data(), 1024);
        head.resize(static_cast<size_t>(in.gcount()));
        const bool words =
            head.find("IESN") != std::string::npos || head.find("TILT") != std::string::npos;
        EXPECT_EQ(FormatOf(entry.path()), words ? mediaioies::FORMAT_ID : "") << entry.path();
        if (!words) continue;

        Ref<IesImpl> web = Ref<IesImpl>::Adopt(ies::Alloc(QUORV_SOURCE_LOCATION));
        Result<void> read = ies::Init(web.Get(), UrlOf(entry.path()).GetObject());
        Result<ImageTextureObject*> loaded =
            ImageTextureInterface::Load(UrlOf(entry.path()).GetObject(), 0.0, nullptr, nullptr);
        if (read.IsError()) {
            ASSERT_TRUE(loaded.IsError()) << entry.path();
            EXPECT_EQ(MessageOf(loaded.GetErrorPointer()), MessageOf(read.GetErrorPointer()))
                << entry.path();
            continue;
        }
        ASSERT_TRUE(loaded.IsOk()) << entry.path() << ": " << MessageOf(loaded.GetErrorPointer());
        Ref<ImageTextureObject> picture = Ref<ImageTextureObject>::Adopt(loaded.GetValue());
        const ImageObject* image = ImageTextureInterface::GetFirstImage(picture.Get());
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(ImageInterface::GetWidth(image), 512) << entry.path();
    }
    EXPECT_GT(count, 0) << folder;
}

TEST(MediaIesImport, EachTestWebImportsOrFailsWithTheReadersMessage) {
    CheckWebs(fs::path(QUORV_TEST_DATA_DIR) / "ies");
}

TEST(MediaIesImport, EachSharedWebImportsOrFailsWithTheReadersMessage) {
    QUORV_SKIP_WITHOUT_SHARED_TESTDATA();
    CheckWebs(fs::path(QUORV_SHARED_TESTDATA_DIR) / "ies");
}

// A session driven step by step, as the host does, with the input at hand.
struct Steps {
    std::unique_ptr<host::MediaSession> session;
    ObjectRef input;
    MediaConverterInterface::Ref converter;
    MediaInputInterface::Ref base;
    Ref<ImageTextureObject> picture =
        Ref<ImageTextureObject>::Adopt(ImageTextureInterface::Alloc(QUORV_SOURCE_LOCATION));

    explicit Steps(const fs::path& file, host::MediaImportOptions options = {}) {
        session = std::move(host::MediaSession::Open(UrlOf(file), std::move(options)).GetValue());
        Result<host::MediaDetection> d = session->Detect();
        EXPECT_EQ(d.GetValue().handler, mediaioies::HANDLER_ID);
        input = session->CreateInput(d.GetValue()).GetValue();
        EXPECT_EQ(GetClassIdOf(input.Get()), LiteralId(mediaioies::INPUT_CLASS_ID));
        converter = MediaConverterInterface::Ref::Cast(input).GetValue();
        base = MediaInputInterface::Ref::Cast(input).GetValue();
    }
    MediaStreamImageDataImportInterface::Ref Stream(Int i) const {
        return MediaStreamImageDataImportInterface::Ref::Cast(ObjectRef(base.GetOutputStream(i)))
            .GetValue();
    }
    void EnableAll() {
        for (Int i = 0; i < base.GetOutputStreamCount(); ++i) {
            Stream(i).SetEnabled(true);
            Stream(i).SetTarget(picture.Get());
        }
    }
};

Int GetIntKey(ObjectInstance* object, const char* key) {
    DataDictionaryObjectInterface::Ref o =
        DataDictionaryObjectInterface::Ref::Cast(ObjectRef(object)).GetValue();
    Result<Data> d = o.GetData(key);
    const Int* v = d.IsOk() ? d.GetValue().Get<Int>() : nullptr;
    return v ? *v : -1;
}

TEST(MediaIesSession, AnalyzeAnnouncesOneGreyStreamOf512) {
    Steps s(fs::path(QUORV_TEST_DATA_DIR) / "ies" / "sym_single.ies");
    EXPECT_EQ(s.converter.SupportImportStrategy(), MEDIA_IMPORTSTRATEGY_DEFAULT);
    ASSERT_TRUE(s.converter.Analyze(MediaTargets{}).IsOk());
    ASSERT_EQ(s.base.GetOutputStreamCount(), 1);
    ObjectInstance* stream = s.base.GetOutputStream(0);
    EXPECT_EQ(GetClassIdOf(stream), LiteralId(mediaioies::STREAM_CLASS_ID));
    ASSERT_EQ(s.Stream(0).GetFormatCount(), 1);
    ObjectInstance* format = s.Stream(0).GetFormat(0);
    EXPECT_EQ(GetClassIdOf(format), LiteralId("net.quorv.image.class.mediastreamformat"));
    EXPECT_EQ(GetIntKey(format, "net.quorv.mediaformat.type"), 1);
    EXPECT_EQ(GetIntKey(format, "net.quorv.mediaformat.subimageindex"), 0);
    EXPECT_EQ(GetIntKey(format, "net.quorv.mediaformat.width"), 512);
    EXPECT_EQ(GetIntKey(format, "net.quorv.mediaformat.height"), 512);
    DataDictionaryObjectInterface::Ref f =
        DataDictionaryObjectInterface::Ref::Cast(ObjectRef(format)).GetValue();
    Result<Data> pfData = f.GetData("net.quorv.mediaformat.pixelformat");
    const std::string* pf = pfData.IsOk() ? pfData.GetValue().Get<std::string>() : nullptr;
    ASSERT_NE(pf, nullptr);
    EXPECT_EQ(*pf, "net.quorv.image.pixelformat.grey.f32");
    EXPECT_TRUE(s.converter.Close().IsOk());
}

TEST(MediaIesSession, CallOrderTargetsAndEOF) {
    const fs::path file = fs::path(QUORV_TEST_DATA_DIR) / "ies" / "sym_single.ies";
    ObjectInstance* oneTarget[1] = {nullptr};
    {
        Steps s(file);
        // Targets are refused in all three steps; before Analyze there is no stream.
        EXPECT_EQ(s.converter.Analyze(MediaTargets{oneTarget, 1}).GetErrorPointer()->kind,
                  ERRORKIND::ILLEGALSTATE);
        EXPECT_EQ(s.converter.PrepareExecute(MediaTargets{}).GetErrorPointer()->kind,
                  ERRORKIND::ILLEGALSTATE);
        EXPECT_EQ(s.converter.Execute(MediaTargets{}).GetErrorPointer()->kind,
                  ERRORKIND::ILLEGALSTATE);
        ASSERT_TRUE(s.converter.Analyze(MediaTargets{}).IsOk());
        EXPECT_EQ(s.converter.PrepareExecute(MediaTargets{oneTarget, 1}).GetErrorPointer()->kind,
                  ERRORKIND::ILLEGALSTATE);
        EXPECT_EQ(s.converter.Execute(MediaTargets{oneTarget, 1}).GetErrorPointer()->kind,
                  ERRORKIND::ILLEGALSTATE);
        s.EnableAll();
        ASSERT_TRUE(s.converter.PrepareExecute(MediaTargets{}).IsOk());
        // The stream's part of the session's progress.
        BackgroundEntryObject* progress = MediaSessionInterface::GetProgress(s.session->Get());
        ASSERT_EQ(ProgressInterface::GetJobCount(progress), 1);
        ASSERT_TRUE(s.converter.Execute(MediaTargets{}).IsOk());
        EXPECT_EQ(ProgressInterface::GetJobProgress(progress, 0), 1.0);
        ASSERT_NE(ImageTextureInterface::GetFirstImage(s.picture.Get()), nullptr);
        // Done: both steps now answer the end of the stream, whatever comes after.
        Result<void> again = s.converter.Execute(MediaTargets{});
        ASSERT_TRUE(again.IsError());
        EXPECT_EQ(again.GetErrorPointer()->id, LiteralId("net.quorv.image.error.mediastreameof"));
        EXPECT_TRUE(IsMediaStreamEOF(s.converter.PrepareExecute(MediaTargets{}).GetErrorPointer()));
        EXPECT_TRUE(s.converter.Close().IsOk());
    }
}

TEST(MediaIesSession, AStreamOfAnotherClassIsRefused) {
    Steps s(fs::path(QUORV_TEST_DATA_DIR) / "ies" / "sym_single.ies");
    ASSERT_TRUE(s.converter.Analyze(MediaTargets{}).IsOk());
    Result<ObjectRef> other =
        CreateObjectById(LiteralId(HOST_CLASS_REGISTRY_ID),
                         LiteralId(mediaids::MEDIASTREAMIMAGEDATAIMPORT_CLASS_ID));
    ASSERT_TRUE(other.IsOk());
    ASSERT_TRUE(s.base.AddOutputStream(other.GetValue().Get()).IsOk());
    s.EnableAll();
    Result<void> r = s.converter.PrepareExecute(MediaTargets{});
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::ILLEGALSTATE);
}

TEST(MediaIesSession, AWrongPixelFormatEndsExecuteWithItsError) {
    Steps s(fs::path(QUORV_TEST_DATA_DIR) / "ies" / "sym_single.ies");
    ASSERT_TRUE(s.converter.Analyze(MediaTargets{}).IsOk());
    s.EnableAll();
    ASSERT_TRUE(s.converter.PrepareExecute(MediaTargets{}).IsOk());
    IesStreamInterface::Ref own =
        IesStreamInterface::Ref::Cast(ObjectRef(s.base.GetOutputStream(0))).GetValue();
    own.GetStreamData()->pixelFormat = "net.quorv.image.pixelformat.rgb.f32";
    const size_t logged = host::Host::Get().GetCriticalLog().size();
    Result<void> r = s.converter.Execute(MediaTargets{});
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
    EXPECT_EQ(MessageOf(r.GetErrorPointer()), "Wrong pixel format");
    EXPECT_GT(host::Host::Get().GetCriticalLog().size(), logged) << "the Stop diagnostic";
    // Not done: the failed Execute did not end the stream.
    own.GetStreamData()->pixelFormat = mediaioies::PIXELFORMAT;
    EXPECT_TRUE(s.converter.Execute(MediaTargets{}).IsOk());
}

TEST(MediaIesSession, AProgressBreakEndsTheImportCancelled) {
    const Url url = UrlOf(fs::path(QUORV_TEST_DATA_DIR) / "ies" / "sym_quadrant.ies");
    std::vector<Float64> seen;
    host::MediaImportOptions stopAtOnce;
    stopAtOnce.progress = [&seen](Float64 v) {
        seen.push_back(v);
        return false;
    };
    bool detected = false;
    Result<ImageTextureObject*> r = host::ImportMedia(url, stopAtOnce, &detected);
    EXPECT_TRUE(detected);
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(IsOperationCancelled(r.GetErrorPointer())) << MessageOf(r.GetErrorPointer());
    EXPECT_EQ(seen.size(), 1u) << "a broken session reports no more";

    // Carried through: the values rise to 1, one call at a time.
    seen.clear();
    host::MediaImportOptions follow;
    follow.progress = [&seen](Float64 v) {
        seen.push_back(v);
        return true;
    };
    r = host::ImportMedia(url, follow, &detected);
    ASSERT_TRUE(r.IsOk());
    ImageTextureInterface::Free(r.GetValue());
    ASSERT_FALSE(seen.empty());
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_EQ(seen.back(), 1.0);
}

TEST(MediaIesSession, FormatsAndHandlersAreListed) {
    bool found = false;
    for (const host::MediaFormatListing& f : host::ListMediaFormats()) {
        if (f.format != mediaioies::FORMAT_ID) continue;
        found = true;
        ASSERT_EQ(f.handlers.size(), 1u);
        EXPECT_EQ(f.handlers[0], mediaioies::HANDLER_ID);
    }
    EXPECT_TRUE(found);
    // The handler serves session inputs only.
    Result<ObjectRef> h = CreateObjectById(LiteralId(mediaids::REGISTRY_FILEFORMATHANDLERS),
                                           LiteralId(mediaioies::HANDLER_ID));
    ASSERT_TRUE(h.IsOk());
    FileFormatHandlerInterface::Ref handler =
        FileFormatHandlerInterface::Ref::Cast(h.GetValue()).GetValue();
    Result<ObjectInstance*> none =
        handler.CreateHandler(LiteralId("net.quorv.mediasession.handler.output"), nullptr);
    ASSERT_TRUE(none.IsOk());
    EXPECT_EQ(none.GetValue(), nullptr);
}

}  // namespace
}  // namespace quorv
