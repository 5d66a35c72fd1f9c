// Media sessions: detection over the registered formats, the handler's input, and the input's
// converter calls in their fixed order into a picture. The session's progress is an entry of the
// background list; the input adds its parts to it.
#include <algorithm>
#include <mutex>

#include "host_internal.h"
#include "media/media_internal.h"
#include "quorv/host/media.h"
#include "services_impl.h"

namespace quorv {

struct MediaSessionObject {
    Url url;
    Ref<BackgroundEntryObject> progress;
    Ref<ObserverHandleObject> observer;
    host::MediaImportOptions options;
    std::mutex reportMutex;
    Float64 reported = -1.0;
    bool broken = false;
};

namespace host {

namespace {

BackgroundEntryObject* GetProgress(const MediaSessionObject* session) {
    return session ? session->progress.Get() : nullptr;
}

const UrlObject* GetUrl(const MediaSessionObject* session) {
    return session ? session->url.GetObject() : nullptr;
}

const MediaSessionInterface::Slots g_slots{
    .GetProgress = &GetProgress,
    .GetUrl = &GetUrl,
};

// The background list tells of every change; the session forwards its own entry's value when it
// rose, and breaks the entry when the caller says stop.
void OnProgress(void* user, Bool) {
    auto* session = static_cast<MediaSessionObject*>(user);
    {
        std::lock_guard<std::mutex> lock(session->reportMutex);
        if (session->broken || !session->options.progress) return;
        const Float64 value = ProgressInterface::GetProgress(session->progress.Get());
        if (value <= session->reported) return;
        session->reported = value;
        if (session->options.progress(value)) return;
        session->broken = true;
    }
    // Outside the lock: the break is a change too, and its notification comes back here.
    ProgressInterface::Break(session->progress.Get());
}

std::vector<std::string> EntriesOf(const char* registry) {
    for (RegistryListing& l : ListRegistryEntries())
        if (l.id == registry) return l.entries;
    return {};
}

// The handler classes that name `format`.
std::vector<std::string> HandlersOf(const std::string& format) {
    std::vector<std::string> out;
    for (const std::string& id : EntriesOf(mediaids::REGISTRY_FILEFORMATHANDLERS)) {
        Result<ObjectRef> h = CreateObjectById(LiteralId(mediaids::REGISTRY_FILEFORMATHANDLERS),
                                               LiteralId(id.c_str()));
        if (h.IsError()) continue;
        Result<FileFormatHandlerInterface::Ref> handler =
            FileFormatHandlerInterface::Ref::Cast(h.GetValue());
        if (handler.IsOk() && handler.GetValue().GetFileFormat() == std::string_view(format))
            out.push_back(id);
    }
    return out;
}

}  // namespace

void RegisterMediaSessionService(Host& host) {
    host.RegisterService<MediaSessionInterface>(g_slots);
}

std::vector<MediaFormatListing> ListMediaFormats() {
    std::vector<MediaFormatListing> out;
    for (const std::string& id : EntriesOf(mediaids::REGISTRY_FILEFORMATS))
        out.push_back({id, HandlersOf(id)});
    return out;
}

Result<std::unique_ptr<MediaSession>> MediaSession::Open(const Url& url,
                                                         MediaImportOptions options) {
    return GuardAllocation([&]() -> Result<std::unique_ptr<MediaSession>> {
        std::unique_ptr<MediaSession> s(new MediaSession());
        s->_session = new MediaSessionObject();
        s->_session->url = url;
        s->_session->options = std::move(options);
        BackgroundMasterObject* master = BackgroundProgressInterface::GetMaster();
        Result<BackgroundEntryObject*> entry = BackgroundProgressInterface::AddActiveEntry(
            master, ("Import " + url.ToText()).c_str(), 0);
        if (entry.IsError()) return entry.GetError();
        s->_session->progress = Ref<BackgroundEntryObject>::Adopt(entry.GetValue());
        if (s->_session->options.progress) {
            Result<ObserverHandleObject*> o =
                BackgroundProgressInterface::AddObserver(master, &OnProgress, s->_session);
            if (o.IsError()) return o.GetError();
            s->_session->observer = Ref<ObserverHandleObject>::Adopt(o.GetValue());
        }
        return s;
    });
}

MediaSession::~MediaSession() {
    if (!_session) return;
    _session->observer = Ref<ObserverHandleObject>();  // ends the subscription
    if (_session->progress)
        BackgroundProgressInterface::RemoveActiveEntry(BackgroundProgressInterface::GetMaster(),
                                                       _session->progress.Get());
    delete _session;
}

Result<MediaDetection> MediaSession::Detect() { return DetectMediaFormat(_session->url); }

Result<MediaDetection> DetectMediaFormat(const Url& url) {
    // Most pictures are no module's format: with no format registered the file isn't opened.
    std::vector<std::string> formats = EntriesOf(mediaids::REGISTRY_FILEFORMATS);
    if (formats.empty()) return MediaDetection{};
    Result<FileByteStreamObject*> opened = FileByteStreamInterface::Open(url.GetObject());
    if (opened.IsError()) return opened.GetError();
    std::unique_ptr<FileByteStreamObject, void (*)(FileByteStreamObject*)> stream(
        opened.GetValue(), [](FileByteStreamObject* s) { FileByteStreamInterface::Free(s); });
    for (const std::string& id : formats) {
        Result<ObjectRef> made =
            CreateObjectById(LiteralId(mediaids::REGISTRY_FILEFORMATS), LiteralId(id.c_str()));
        if (made.IsError()) return made.GetError();
        Result<FileFormatInterface::Ref> format = FileFormatInterface::Ref::Cast(made.GetValue());
        if (format.IsError()) continue;  // an entry that is no format is not asked
        QUORV_RETURN_IF_ERROR(FileByteStreamInterface::Seek(stream.get(), 0));
        Result<Bool> taken = format.GetValue().Detect(url.GetObject(), stream.get());
        if (taken.IsError()) return taken.GetError();
        if (!taken.GetValue()) continue;
        std::vector<std::string> handlers = HandlersOf(id);
        if (handlers.empty()) continue;
        return MediaDetection{id, handlers.front()};
    }
    return MediaDetection{};
}

Result<ObjectRef> MediaSession::CreateInput(const MediaDetection& detection) {
    Result<ObjectRef> h = CreateObjectById(LiteralId(mediaids::REGISTRY_FILEFORMATHANDLERS),
                                           LiteralId(detection.handler.c_str()));
    if (h.IsError()) return h.GetError();
    Result<FileFormatHandlerInterface::Ref> handler =
        FileFormatHandlerInterface::Ref::Cast(h.GetValue());
    if (handler.IsError()) return handler.GetError();
    Result<ObjectInstance*> made = handler.GetValue().CreateHandler(
        LiteralId(mediaids::HANDLER_MEDIAINPUT), _session->url.GetObject());
    if (made.IsError()) return made.GetError();
    if (!made.GetValue()) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         FormatMessage("The handler @ makes no media input", {detection.handler}));
    }
    ObjectRef input = ObjectRef::Adopt(made.GetValue());
    Result<MediaInputInterface::Ref> base = MediaInputInterface::Ref::Cast(input);
    if (base.IsError()) return base.GetError();
    base.GetValue().SetSession(_session);
    return input;
}

Result<ImageTextureObject*> MediaSession::Import(const ObjectRef& input) {
    Result<MediaInputInterface::Ref> base = MediaInputInterface::Ref::Cast(input);
    if (base.IsError()) return base.GetError();
    Result<MediaConverterInterface::Ref> converter = MediaConverterInterface::Ref::Cast(input);
    if (converter.IsError()) return converter.GetError();
    const MediaConverterInterface::Ref& c = converter.GetValue();
    ImageTextureObject* texture = ImageTextureInterface::Alloc(QUORV_SOURCE_LOCATION);
    if (!texture) return OutOfMemoryError();
    Ref<ImageTextureObject> picture = Ref<ImageTextureObject>::Adopt(texture);
    (void)c.SupportImportStrategy();  // an import has one strategy
    Result<void> r = c.Analyze(MediaTargets{});
    Int images = 0;
    for (Int i = 0; r.IsOk() && i < base.GetValue().GetOutputStreamCount(); ++i) {
        Result<MediaStreamImageDataImportInterface::Ref> stream =
            MediaStreamImageDataImportInterface::Ref::Cast(
                ObjectRef(base.GetValue().GetOutputStream(i)));
        if (stream.IsError()) continue;  // streams of other kinds stay disabled
        stream.GetValue().SetEnabled(true);
        stream.GetValue().SetTarget(picture.Get());
        ++images;
    }
    if (r.IsOk() && images == 0) {
        r = MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                      "The media input has no image stream");
    }
    if (r.IsOk()) r = c.PrepareExecute(MediaTargets{});
    if (r.IsOk()) r = c.Execute(MediaTargets{});
    Result<void> closed = c.Close();
    if (r.IsOk()) r = closed;
    if (r.IsError()) return r.GetError();
    if (!ImageTextureInterface::GetFirstImage(picture.Get())) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "The media input delivered no image");
    }
    // The picture's pixels are linear values of the stream's colour space.
    const PixelFormatObject* format =
        ImageInterface::GetPixelFormat(ImageTextureInterface::GetFirstImage(picture.Get()));
    const bool grey = format && PixelFormatInterface::GetColorSpace(format) ==
                                    std::string_view(imageids::COLORSPACE_GREY);
    ImageTextureInterface::SetColorProfile(
        picture.Get(), ColorProfileInterface::GetStandard(grey ? imageids::PROFILE_LINEAR_GREY
                                                               : imageids::PROFILE_LINEAR_RGB));
    return picture.Disconnect();
}

Result<ImageTextureObject*> ImportMedia(const Url& url, const MediaImportOptions& options,
                                        bool* detected) {
    if (detected) *detected = false;
    Result<MediaDetection> found = DetectMediaFormat(url);
    if (found.IsError()) return found.GetError();
    if (found.GetValue().format.empty()) return static_cast<ImageTextureObject*>(nullptr);
    if (detected) *detected = true;
    Result<std::unique_ptr<MediaSession>> session = MediaSession::Open(url, options);
    if (session.IsError()) return session.GetError();
    Result<ObjectRef> input = session.GetValue()->CreateInput(found.GetValue());
    if (input.IsError()) return input.GetError();
    return session.GetValue()->Import(input.GetValue());
}

}  // namespace host
}  // namespace quorv
