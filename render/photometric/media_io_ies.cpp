// IES webs through the host's media sessions: the format "net.quorv.fileformat.imageies" and its
// handler, the session input "net.quorv.mediasession.ies.import" and the image stream
// "net.quorv.render.class.mediastreamimagelayeriesimport". The input reads the web in `Analyze`
// and renders its preview picture into the stream in `Execute`, line by line from the preview's
// workers.
#include "render/photometric/media_io_ies.h"

#include <string_view>

#include "quorv/classes.h"
#include "quorv/datadictionaryobject.h"
#include "quorv/ref.h"
#include "quorv/url.h"
#include "render/photometric/ies_impl.h"

namespace quorv {

namespace {

using namespace mediaioies;

Error IllegalState(const char* message) {
    return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, message);
}

// ---- the image stream ------------------------------------------------------------------------

struct IesStreamImpl : IesStreamData {
    IesStreamData* GetStreamData() { return this; }
};

// ---- the file format -------------------------------------------------------------------------

struct IesFileFormatImpl {
    // The whole of what was read is searched, NUL bytes included: a NUL early in a header does
    // not hide the words behind it. The words are matched as written, so a lower-case "tilt"
    // alone doesn't make a file IES (the reader would not take it either). A read error ends the
    // detection with that error.
    Result<Bool> Detect(const UrlObject* url, FileByteStreamObject* stream) const {
        if (!url || !Url(url).CheckSuffix("ies")) return false;
        char bytes[DETECT_BYTES];
        Int filled = 0;
        while (filled < DETECT_BYTES) {
            Result<Int> n =
                FileByteStreamInterface::Read(stream, bytes + filled, DETECT_BYTES - filled);
            if (n.IsError()) return n.GetError();
            if (n.GetValue() <= 0) break;  // a short file is read as a whole, no error at its end
            filled += n.GetValue();
        }
        const std::string_view text(bytes, static_cast<size_t>(filled));
        if (text.find("IESN") != std::string_view::npos) return true;
        return text.find("TILT") != std::string_view::npos;
    }
};

// ---- the handler -----------------------------------------------------------------------------

struct IesFileFormatHandlerImpl {
    LiteralId GetFileFormat() const { return LiteralId(FORMAT_ID); }
    Result<ObjectInstance*> CreateHandler(const LiteralId& kind, const UrlObject*) const {
        if (kind != LiteralId(mediaids::HANDLER_MEDIAINPUT))
            return static_cast<ObjectInstance*>(nullptr);
        Result<ObjectRef> made =
            CreateObjectById(LiteralId(mediaids::REGISTRY_MEDIACLASSES), LiteralId(INPUT_CLASS_ID));
        if (made.IsError()) return made.GetError();
        return made.GetValue().Disconnect();
    }
};

// ---- the session's input ---------------------------------------------------------------------

struct LineTarget {
    MediaStreamImageDataImportInterface::Ref stream;
    const PixelFormatObject* expected;
    BackgroundEntryObject* progress;
    Int progressIndex;
};

struct IesImportImpl {
    IesImportImpl() = default;
    // A copy of an input shares the web; the next write makes it unique.
    IesImportImpl& operator=(const IesImportImpl& o) {
        ies = o.ies;
        done = o.done;
        return *this;
    }

    // Answered by the base class (see `FillOverrides`); this one only completes the table.
    Int SupportImportStrategy() const { return MEDIA_IMPORTSTRATEGY_DEFAULT; }

    Result<void> Analyze(MediaTargets targets) {
        if (targets.count != 0) return IllegalState("An IES import has no targets");
        done = false;
        QUORV_RETURN_IF_ERROR(MakeWebUnique());
        Result<MediaInputInterface::Ref> self = Self();
        if (self.IsError()) return self.GetError();
        QUORV_RETURN_IF_ERROR(
            ies::Init(ies.Get(), MediaSessionInterface::GetUrl(self.GetValue().GetSession())));

        Result<ObjectRef> made = CreateObjectById(LiteralId(mediaids::REGISTRY_MEDIACLASSES),
                                                  LiteralId(STREAM_CLASS_ID));
        if (made.IsError()) return made.GetError();
        Result<IesStreamInterface::Ref> stream = IesStreamInterface::Ref::Cast(made.GetValue());
        if (stream.IsError()) return stream.GetError();
        IesStreamData* data = stream.GetValue().GetStreamData();
        data->pixelFormat = PIXELFORMAT;
        data->width = SIZE;
        data->height = SIZE;

        Result<ObjectRef> formatObject = CreateObjectById(
            LiteralId(HOST_CLASS_REGISTRY_ID), LiteralId(mediaids::MEDIASTREAMFORMAT_CLASS_ID));
        if (formatObject.IsError()) return formatObject.GetError();
        Result<DataDictionaryObjectInterface::Ref> format =
            DataDictionaryObjectInterface::Ref::Cast(formatObject.GetValue());
        if (format.IsError()) return format.GetError();
        QUORV_RETURN_IF_ERROR(SetStreamKeys(format.GetValue(), *data, data->pixelFormat));

        Result<MediaStreamImageDataImportInterface::Ref> image =
            MediaStreamImageDataImportInterface::Ref::Cast(made.GetValue());
        if (image.IsError()) return image.GetError();
        QUORV_RETURN_IF_ERROR(image.GetValue().AddFormat(formatObject.GetValue().Get()));
        return self.GetValue().AddOutputStream(made.GetValue().Get());
    }

    Result<void> PrepareExecute(MediaTargets targets) {
        Result<MediaInputInterface::Ref> self = CheckedSelf(targets);
        if (self.IsError()) return self.GetError();
        BackgroundEntryObject* progress =
            MediaSessionInterface::GetProgress(self.GetValue().GetSession());
        for (Int i = 0; i < self.GetValue().GetOutputStreamCount(); ++i) {
            Result<Stream> s = StreamAt(self.GetValue(), i);
            if (s.IsError()) return s.GetError();
            if (!s.GetValue().image.IsEnabled()) continue;
            IesStreamData* data = s.GetValue().data;
            Result<Int> part = ProgressInterface::AddProgressJob(
                progress, static_cast<Float64>(data->width * data->height), "IES");
            if (part.IsError()) return part.GetError();
            data->progressIndex = part.GetValue();
        }
        return OK;
    }

    Result<void> Execute(MediaTargets targets) {
        Result<MediaInputInterface::Ref> self = CheckedSelf(targets);
        if (self.IsError()) return self.GetError();
        BackgroundEntryObject* progress =
            MediaSessionInterface::GetProgress(self.GetValue().GetSession());
        for (Int i = 0; i < self.GetValue().GetOutputStreamCount(); ++i) {
            Result<Stream> s = StreamAt(self.GetValue(), i);
            if (s.IsError()) return s.GetError();
            const MediaStreamImageDataImportInterface::Ref& image = s.GetValue().image;
            if (!image.IsEnabled()) continue;
            IesStreamData* data = s.GetValue().data;

            // Properties start from the stream's announced format; the lines are grey Float32.
            Result<ObjectRef> propertiesObject =
                CreateObjectById(LiteralId(HOST_CLASS_REGISTRY_ID),
                                 LiteralId(mediaids::MEDIASTREAMPROPERTIES_CLASS_ID));
            if (propertiesObject.IsError()) return propertiesObject.GetError();
            Result<DataDictionaryObjectInterface::Ref> properties =
                DataDictionaryObjectInterface::Ref::Cast(propertiesObject.GetValue());
            if (properties.IsError()) return properties.GetError();
            QUORV_RETURN_IF_ERROR(SetStreamKeys(properties.GetValue(), *data, PIXELFORMAT));
            QUORV_RETURN_IF_ERROR(image.InitStream(propertiesObject.GetValue().Get()));

            LineTarget target{image, PixelFormatInterface::Find(data->pixelFormat.c_str()),
                              progress, data->progressIndex};
            PreviewSetLine setLine;
            setLine.user = &target;
            // A line of another pixel format than the stream's ends Execute, not only that
            // line: the rows stop at the first error of a delegate and Execute returns it, with
            // the stream unfinished. A picture with a missing line is no picture.
            setLine.call = [](void* user, Int row, const Float32* values, Int count,
                              const PixelFormatObject* format) -> Result<void> {
                auto* t = static_cast<LineTarget*>(user);
                if (!format || !t->expected ||
                    !PixelFormatInterface::IsEqual(format, t->expected)) {
                    CriticalOutput("Stop: IES preview line of another pixel format than its stream",
                                   QUORV_SOURCE_LOCATION);
                    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                                     "Wrong pixel format");
                }
                return t->stream.SetPixelStream(row, count, values, format);
            };
            PreviewProgress share;
            share.user = &target;
            share.call = [](void* user, Float64 done) -> Result<void> {
                auto* t = static_cast<LineTarget*>(user);
                return ProgressInterface::SetProgressAndCheckBreak(t->progress, t->progressIndex,
                                                                   done);
            };
            QUORV_RETURN_IF_ERROR(MakeWebUnique());
            QUORV_RETURN_IF_ERROR(ies::GeneratePreviewImageRows(ies.Get(), data->width,
                                                                data->height, setLine, &share));
            QUORV_RETURN_IF_ERROR(image.FinishStream());
        }
        done = true;
        return OK;
    }

    Result<void> Close() {
        ies = Ref<IesImpl>();
        return OK;
    }

    struct Stream {
        MediaStreamImageDataImportInterface::Ref image;
        IesStreamData* data;
    };

    // The stream at `index`, which must be an image stream of this format's class.
    static Result<Stream> StreamAt(const MediaInputInterface::Ref& self, Int index) {
        ObjectRef object(self.GetOutputStream(index));
        if (!object || GetClassIdOf(object.Get()) != LiteralId(STREAM_CLASS_ID))
            return IllegalState("An IES import has a stream of another class");
        Result<MediaStreamImageDataImportInterface::Ref> image =
            MediaStreamImageDataImportInterface::Ref::Cast(object);
        Result<IesStreamInterface::Ref> own = IesStreamInterface::Ref::Cast(object);
        if (image.IsError() || own.IsError())
            return IllegalState("An IES import has a stream of another class");
        return Stream{image.GetValue(), own.GetValue().GetStreamData()};
    }

    // The tests that open `PrepareExecute` and `Execute`.
    Result<MediaInputInterface::Ref> CheckedSelf(MediaTargets targets) {
        if (targets.count != 0) return IllegalState("An IES import has no targets");
        if (done) return MediaStreamEOFError(QUORV_SOURCE_LOCATION);
        Result<MediaInputInterface::Ref> self = Self();
        if (self.IsError()) return self;
        if (self.GetValue().GetOutputStreamCount() == 0)
            return IllegalState("An IES import without streams");
        return self;
    }

    Result<MediaInputInterface::Ref> Self() {
        return MediaInputInterface::Ref::Cast(ObjectRef(InstanceOfState(this)));
    }

    // A web the input has not made yet is made here; a web shared with a copy is copied first.
    Result<void> MakeWebUnique() {
        if (!ies) {
            IesImpl* made = ies::Alloc(QUORV_SOURCE_LOCATION);
            if (!made) return OutOfMemoryError();
            ies = Ref<IesImpl>::Adopt(made);
        } else if (IsShared(ies.Get())) {
            IesImpl* copy = ies::AllocCopy(ies.Get(), QUORV_SOURCE_LOCATION);
            if (!copy) return OutOfMemoryError();
            ies = Ref<IesImpl>::Adopt(copy);
        }
        return OK;
    }

    // The keys of a stream format or properties object: an image, the first and only subimage
    // (a web has one picture), its size and the pixel format given.
    static Result<void> SetStreamKeys(const DataDictionaryObjectInterface::Ref& o,
                                      const IesStreamData& data, const std::string& pixelFormat) {
        QUORV_RETURN_IF_ERROR(SetInt(o, mediaids::FORMAT_TYPE, mediaids::FORMAT_TYPE_IMAGE));
        QUORV_RETURN_IF_ERROR(SetInt(o, mediaids::FORMAT_SUBIMAGEINDEX, 0));
        QUORV_RETURN_IF_ERROR(SetText(o, mediaids::FORMAT_PIXELFORMAT, pixelFormat));
        QUORV_RETURN_IF_ERROR(SetInt(o, mediaids::FORMAT_WIDTH, data.width));
        return SetInt(o, mediaids::FORMAT_HEIGHT, data.height);
    }

    static Result<void> SetInt(const DataDictionaryObjectInterface::Ref& o, const char* key,
                               Int value) {
        Data d = Data::Of(value);
        if (d.IsEmpty()) return OutOfMemoryError();
        return o.SetData(key, d);
    }
    static Result<void> SetText(const DataDictionaryObjectInterface::Ref& o, const char* key,
                                const std::string& value) {
        Data d = Data::Of(value);
        if (d.IsEmpty()) return OutOfMemoryError();
        return o.SetData(key, d);
    }

    Ref<IesImpl> ies;
    Bool done = false;
};

// `SupportImportStrategy` is the base class's answer.
Int SupportImportStrategy(void* instance, const ComponentInfo* info) {
    MethodEntry super;
    return CallSuper<Int()>(instance, info, MediaConverterInterface::Record(),
                            MediaConverterInterface::IDX_SupportImportStrategy, super)();
}

bool FillOverrides(ClassObject* cls, const ComponentInfo* info) {
    MethodEntry* table = ClassInterface::GetOrCreateMTable(cls, &MediaConverterInterface::Record());
    if (!table) return false;
    table[MediaConverterInterface::IDX_SupportImportStrategy] =
        MethodEntry{reinterpret_cast<void*>(&SupportImportStrategy), info};
    return true;
}

ModuleUnit g_unit(__FILE__);
InterfaceRecord g_streamInterfaceRecord;
const bool g_published =
    (PublishVirtualInterface<IesStreamInterface>(g_streamInterfaceRecord, g_unit), true);
ComposedClass<IesStreamImpl, IesStreamInterface> g_streamClass(
    g_unit, STREAM_CLASS_ID, mediaids::REGISTRY_MEDIACLASSES,
    {{HOST_CLASS_REGISTRY_ID, mediaids::MEDIASTREAMIMAGEDATAIMPORT_CLASS_ID}}, __FILE__);
ComposedClass<IesImportImpl, MediaConverterInterface> g_inputClass(
    g_unit, INPUT_CLASS_ID, mediaids::REGISTRY_MEDIACLASSES,
    {{HOST_CLASS_REGISTRY_ID, mediaids::MEDIAINPUT_CLASS_ID}}, __FILE__, &FillOverrides);
SimpleClass<IesFileFormatImpl, FileFormatInterface> g_formatClass(g_unit, FORMAT_ID,
                                                                  mediaids::REGISTRY_FILEFORMATS,
                                                                  __FILE__);
SimpleClass<IesFileFormatHandlerImpl, FileFormatHandlerInterface> g_handlerClass(
    g_unit, HANDLER_ID, mediaids::REGISTRY_FILEFORMATHANDLERS, __FILE__);

}  // namespace

}  // namespace quorv
