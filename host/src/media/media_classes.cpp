// Base classes of the media session: "net.quorv.mediasession.class.mediainput" keeps an input's
// output streams and its session and answers the converter operations with the defaults;
// "net.quorv.mediasession.class.mediastreamimagedataimport" is an image stream that writes its
// rows into an image and hands it to the picture the session gave it. Stream formats and
// properties are data dictionary objects under class ids of their own.
#include <mutex>
#include <vector>

#include "host_internal.h"
#include "media/media_internal.h"
#include "quorv/datadictionaryobject.h"
#include "services_impl.h"

namespace quorv::host {

namespace {

struct MediaInputImpl {
    Result<void> AddOutputStream(ObjectInstance* stream) {
        if (!stream) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Stream missing");
        return GuardAllocation([&]() -> Result<void> {
            streams.push_back(ObjectRef(stream));
            return OK;
        });
    }
    Int GetOutputStreamCount() const { return static_cast<Int>(streams.size()); }
    ObjectInstance* GetOutputStream(Int index) const {
        return index >= 0 && index < GetOutputStreamCount() ? streams[size_t(index)].Get()
                                                            : nullptr;
    }
    void SetSession(MediaSessionObject* s) { session = s; }
    MediaSessionObject* GetSession() const { return session; }

    Int SupportImportStrategy() const { return MEDIA_IMPORTSTRATEGY_DEFAULT; }
    Result<void> Analyze(MediaTargets) { return NotImplemented("Analyze"); }
    Result<void> PrepareExecute(MediaTargets) { return NotImplemented("PrepareExecute"); }
    Result<void> Execute(MediaTargets) { return NotImplemented("Execute"); }
    Result<void> Close() { return OK; }

    static Error NotImplemented(const char* what) {
        return MakeError(ERRORKIND::FUNCTIONNOTIMPLEMENTED, QUORV_SOURCE_LOCATION,
                         FormatMessage("The media input has no @", {what}));
    }

    std::vector<ObjectRef> streams;
    MediaSessionObject* session = nullptr;  // the session outlives its input's use
};

struct MediaStreamImageDataImportImpl {
    MediaStreamImageDataImportImpl() = default;
    MediaStreamImageDataImportImpl& operator=(const MediaStreamImageDataImportImpl& o) {
        enabled = o.enabled;
        formats = o.formats;
        target = o.target;
        return *this;
    }

    Bool IsEnabled() const { return enabled; }
    void SetEnabled(Bool e) { enabled = e; }
    Result<void> AddFormat(ObjectInstance* format) {
        if (!format) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Format missing");
        return GuardAllocation([&]() -> Result<void> {
            formats.push_back(ObjectRef(format));
            return OK;
        });
    }
    Int GetFormatCount() const { return static_cast<Int>(formats.size()); }
    ObjectInstance* GetFormat(Int index) const {
        return index >= 0 && index < GetFormatCount() ? formats[size_t(index)].Get() : nullptr;
    }
    void SetTarget(ImageTextureObject* texture) { target = Ref<ImageTextureObject>(texture); }

    Result<void> InitStream(ObjectInstance* properties) {
        Result<DataDictionaryObjectInterface::Ref> p =
            DataDictionaryObjectInterface::Ref::Cast(ObjectRef(properties));
        if (p.IsError()) return p.GetError();
        const Int width = GetInt(p.GetValue(), mediaids::FORMAT_WIDTH);
        const Int height = GetInt(p.GetValue(), mediaids::FORMAT_HEIGHT);
        Result<Data> formatData = p.GetValue().GetData(mediaids::FORMAT_PIXELFORMAT);
        const std::string* formatId =
            formatData.IsOk() ? formatData.GetValue().Get<std::string>() : nullptr;
        const PixelFormatObject* pixelFormat =
            formatId ? PixelFormatInterface::Find(formatId->c_str()) : nullptr;
        if (width < 1 || height < 1 || !pixelFormat) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "Stream properties without size or pixel format");
        }
        Result<ImageObject*> made = ImageInterface::Create(
            imageids::IMAGECLASS_IMAGE, imageids::STORAGE_NORMAL, width, height, pixelFormat);
        if (made.IsError()) return made.GetError();
        Ref<ImageObject> made_ = Ref<ImageObject>::Adopt(made.GetValue());
        Result<PixelWriteHandler*> h = ImageInterface::SetPixelHandler(made_.Get(), pixelFormat);
        if (h.IsError()) return h.GetError();
        image = made_;
        writer = Ref<PixelWriteHandler>::Adopt(h.GetValue());
        writerFormat = pixelFormat;
        this->height = height;
        this->width = width;
        return OK;
    }

    // Rows arrive from worker threads: the handler only reads its own fixed tables, and each
    // call writes a row of its own.
    Result<void> SetPixelStream(Int y, Int count, const void* pixels,
                                const PixelFormatObject* format) const {
        if (!image) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "The stream was not initialised");
        }
        if (y < 0 || y >= height || count < 0 || count > width || (!pixels && count > 0)) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Row @ of @ pixels is outside the stream's image",
                                           {std::to_string(y), std::to_string(count)}));
        }
        if (!format || PixelFormatInterface::IsEqual(format, writerFormat)) {
            writer->write(writer.Get(), 0, y, count, pixels);
            return OK;
        }
        // Another format than announced: converted through a handler of its own.
        Result<PixelWriteHandler*> h = ImageInterface::SetPixelHandler(image.Get(), format);
        if (h.IsError()) return h.GetError();
        Ref<PixelWriteHandler> other = Ref<PixelWriteHandler>::Adopt(h.GetValue());
        other->write(other.Get(), 0, y, count, pixels);
        return OK;
    }

    Result<void> FinishStream() {
        if (!image) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "The stream was not initialised");
        }
        Result<void> added =
            target ? ImageTextureInterface::AddImage(target.Get(), image.Get()) : Result<void>(OK);
        writer = Ref<PixelWriteHandler>();
        image = Ref<ImageObject>();
        return added;
    }

    static Int GetInt(const DataDictionaryObjectInterface::Ref& o, const char* key) {
        Result<Data> d = o.GetData(key);
        const Int* v = d.IsOk() ? d.GetValue().Get<Int>() : nullptr;
        return v ? *v : 0;
    }

    Bool enabled = false;
    std::vector<ObjectRef> formats;
    Ref<ImageTextureObject> target;
    Ref<ImageObject> image;
    Ref<PixelWriteHandler> writer;
    const PixelFormatObject* writerFormat = nullptr;
    Int width = 0;
    Int height = 0;
};

bool FillInput(ClassObject* cls, const ComponentInfo* info) {
    return MediaInputInterface::FillMTable<MediaInputImpl>(cls, info) &&
           MediaConverterInterface::FillMTable<MediaInputImpl>(cls, info);
}

// Finalizes a host class made of `add`'s components and registers it; failures go to the
// critical log, as for the host's other classes.
template <typename Add>
void MakeClass(const char* id, Add&& add) {
    ClassObject* cls = ClassInterface::Alloc(LiteralId(id), 1, QUORV_SOURCE_LOCATION);
    if (!cls) {
        HostCriticalOutput(std::string("The host's class ") + id +
                           " could not be made: out of memory");
        return;
    }
    Ref<ClassObject> holder(cls);
    Result<void> made = add(cls);
    if (made.IsOk()) made = ClassInterface::Finalize(cls);
    const DataType* classType = DataTypeLibInterface::GetRuntimeDataType(CLASS_DATATYPE_ID);
    Data value = classType ? Data::Make(classType, &cls) : Data();
    if (made.IsOk()) {
        made = value.IsEmpty() ? Result<void>(OutOfMemoryError())
                               : RegistryInterface::InsertEntry(LiteralId(HOST_CLASS_REGISTRY_ID),
                                                                LiteralId(id), value);
    }
    if (made.IsError()) {
        HostCriticalOutput(std::string("The host's class ") + id +
                           " could not be made: " + ErrorToString(made.GetErrorPointer()));
    }
}

void MakeComponentClass(ComponentRecord& component, const char* id) {
    component.type = static_cast<UInt32>(EntityBase::TYPE::COMPONENT);
    component.id = LiteralId(id);
    MakeClass(id, [&](ClassObject* cls) { return ClassInterface::AddComponent(cls, &component); });
}

}  // namespace

void CreateMediaRegistries() {
    CreateRegistry(LiteralId(mediaids::REGISTRY_FILEFORMATS));
    CreateRegistry(LiteralId(mediaids::REGISTRY_FILEFORMATHANDLERS));
    CreateRegistry(LiteralId(mediaids::REGISTRY_MEDIACLASSES));
}

void RegisterMediaClasses() {
    static ComponentRecord input, stream;
    static bool done = false;
    if (done) return;
    done = true;
    FillComponentState<MediaInputImpl>(input);
    input.fillMTable = &FillInput;
    input.interface = &MediaInputInterface::Record();
    input.mtableSize = MediaInputInterface::COUNT * 2 * sizeof(void*);
    MakeComponentClass(input, mediaids::MEDIAINPUT_CLASS_ID);
    FillComponentRecord<MediaStreamImageDataImportImpl, MediaStreamImageDataImportInterface>(
        stream);
    MakeComponentClass(stream, mediaids::MEDIASTREAMIMAGEDATAIMPORT_CLASS_ID);
    // Formats and properties are plain data dictionary objects under ids of their own.
    const ClassObject* dictionary = FindRegisteredClass(LiteralId(DATADICTIONARYOBJECT_CLASS_ID));
    for (const char* id :
         {mediaids::MEDIASTREAMFORMAT_CLASS_ID, mediaids::MEDIASTREAMPROPERTIES_CLASS_ID}) {
        MakeClass(id, [&](ClassObject* cls) -> Result<void> {
            if (!dictionary)
                return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                                 "no data dictionary object class");
            return ClassInterface::AddComponents(cls, dictionary);
        });
    }
}

}  // namespace quorv::host
