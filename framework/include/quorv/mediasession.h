#pragma once
/// Media sessions: how the host opens a file that a module knows how to read.
///
/// A module registers a file format (a class implementing `FileFormatInterface`) in
/// "net.quorv.registry.fileformats" and a handler (`FileFormatHandlerInterface`) in
/// "net.quorv.registry.fileformathandlers". To open a url the host's session reads the file's
/// first bytes through a `FileByteStream`, asks each format's `Detect`, lets the handler of the
/// first format that answers true create the session's input (a `MediaInput`), and drives that
/// input's `MediaConverterInterface` in this order: `SupportImportStrategy`, `Analyze`,
/// `PrepareExecute`, `Execute`, `Close`. The input adds its output streams in `Analyze`; the
/// host enables the image streams it wants and gives each the picture to fill; the input fills
/// them in `Execute` through `MediaStreamImageDataImportInterface`.
///
/// The base classes of inputs and image streams are the host's (`MEDIAINPUT_CLASS_ID`,
/// `MEDIASTREAMIMAGEDATAIMPORT_CLASS_ID` in `HOST_CLASS_REGISTRY_ID`); a module composes its
/// classes of them (`ComposedClass`) and overrides the converter operations. Stream formats and
/// stream properties are data dictionary objects of their own class ids, keyed by the ids below.
///
/// The argument lists are this system's own: streams and formats cross as borrowed instance
/// pointers, the list of output streams as a count and an index.

#include "quorv/classes.h"
#include "quorv/datadictionaryobject.h"
#include "quorv/image.h"
#include "quorv/progress.h"

namespace quorv {

/// An open file read from its start (host object, not counted: `Free` closes it).
struct FileByteStreamObject;
/// The host's session of one import (host object).
struct MediaSessionObject;

namespace mediaids {
inline constexpr const char* REGISTRY_FILEFORMATS = "net.quorv.registry.fileformats";
inline constexpr const char* REGISTRY_FILEFORMATHANDLERS = "net.quorv.registry.fileformathandlers";
/// Registry of the classes that handlers create (inputs, streams).
inline constexpr const char* REGISTRY_MEDIACLASSES = "net.quorv.registry.mediasessionclasses";
/// Host base classes, in `HOST_CLASS_REGISTRY_ID`.
inline constexpr const char* MEDIAINPUT_CLASS_ID = "net.quorv.mediasession.class.mediainput";
inline constexpr const char* MEDIASTREAMIMAGEDATAIMPORT_CLASS_ID =
    "net.quorv.mediasession.class.mediastreamimagedataimport";
inline constexpr const char* MEDIASTREAMFORMAT_CLASS_ID = "net.quorv.image.class.mediastreamformat";
inline constexpr const char* MEDIASTREAMPROPERTIES_CLASS_ID =
    "net.quorv.image.class.mediastreamproperties";
/// The kind of handler a session asks for.
inline constexpr const char* HANDLER_MEDIAINPUT = "net.quorv.mediasession.handler.mediainput";
/// Keys of stream formats and stream properties. Type, index, width, height: Int; pixel
/// format: the pixel format's id as text.
inline constexpr const char* FORMAT_TYPE = "net.quorv.mediaformat.type";
inline constexpr const char* FORMAT_SUBIMAGEINDEX = "net.quorv.mediaformat.subimageindex";
inline constexpr const char* FORMAT_PIXELFORMAT = "net.quorv.mediaformat.pixelformat";
inline constexpr const char* FORMAT_WIDTH = "net.quorv.mediaformat.width";
inline constexpr const char* FORMAT_HEIGHT = "net.quorv.mediaformat.height";
/// Format type of an image stream.
inline constexpr Int FORMAT_TYPE_IMAGE = 1;
/// Error of a stream read past its end.
inline constexpr const char* ERROR_MEDIASTREAMEOF = "net.quorv.image.error.mediastreameof";
}  // namespace mediaids

/// The error of a media stream that has nothing more to give (id `ERROR_MEDIASTREAMEOF`).
Error MediaStreamEOFError(const SourceLocation& loc);
/// True when `error` is a `MediaStreamEOFError`.
Bool IsMediaStreamEOF(const ErrorObject* error);

/// What `SupportImportStrategy` answers when an input has no preference.
inline constexpr Int MEDIA_IMPORTSTRATEGY_DEFAULT = 0;

/// The targets of a converter call: streams of another converter (none in an import).
struct MediaTargets {
    ObjectInstance* const* items = nullptr;
    Int count = 0;
};

// clang-format off
#define QUORV_FILEBYTESTREAM_METHODS(M) \
    M(Result<FileByteStreamObject*>, Open, (const UrlObject* url), (url)) \
    M(Result<Int>, Read, (FileByteStreamObject* stream, void* buffer, Int size), (stream, buffer, size)) \
    M(Result<void>, ReadExactly, (FileByteStreamObject* stream, void* buffer, Int size), (stream, buffer, size)) \
    M(Result<void>, Seek, (FileByteStreamObject* stream, Int position), (stream, position)) \
    M(Int, GetPosition, (const FileByteStreamObject* stream), (stream)) \
    M(void, Free, (FileByteStreamObject* stream), (stream))
#define QUORV_MEDIASESSION_METHODS(M) \
    M(BackgroundEntryObject*, GetProgress, (const MediaSessionObject* session), (session)) \
    M(const UrlObject*, GetUrl, (const MediaSessionObject* session), (session))
#define QUORV_FILEFORMAT_METHODS(M) \
    M(Result<Bool>, Detect, (const UrlObject* url, FileByteStreamObject* stream), (url, stream))
#define QUORV_FILEFORMATHANDLER_METHODS(M) \
    M(LiteralId, GetFileFormat, (), ()) \
    M(Result<ObjectInstance*>, CreateHandler, (const LiteralId& kind, const UrlObject* url), (kind, url))
#define QUORV_MEDIAINPUT_METHODS(M) \
    M(Result<void>, AddOutputStream, (ObjectInstance* stream), (stream)) \
    M(Int, GetOutputStreamCount, (), ()) \
    M(ObjectInstance*, GetOutputStream, (Int index), (index)) \
    M(void, SetSession, (MediaSessionObject* session), (session)) \
    M(MediaSessionObject*, GetSession, (), ())
#define QUORV_MEDIACONVERTER_METHODS(M) \
    M(Int, SupportImportStrategy, (), ()) \
    M(Result<void>, Analyze, (MediaTargets targets), (targets)) \
    M(Result<void>, PrepareExecute, (MediaTargets targets), (targets)) \
    M(Result<void>, Execute, (MediaTargets targets), (targets)) \
    M(Result<void>, Close, (), ())
#define QUORV_MEDIASTREAMIMAGEDATAIMPORT_METHODS(M) \
    M(Bool, IsEnabled, (), ()) \
    M(void, SetEnabled, (Bool enabled), (enabled)) \
    M(Result<void>, AddFormat, (ObjectInstance* format), (format)) \
    M(Int, GetFormatCount, (), ()) \
    M(ObjectInstance*, GetFormat, (Int index), (index)) \
    M(void, SetTarget, (ImageTextureObject* texture), (texture)) \
    M(Result<void>, InitStream, (ObjectInstance* properties), (properties)) \
    M(Result<void>, SetPixelStream, (Int y, Int count, const void* pixels, const PixelFormatObject* format), (y, count, pixels, format)) \
    M(Result<void>, FinishStream, (), ())
// clang-format on

/// File byte streams. `Open` takes a file url. `Read` copies up to `size` bytes and answers how
/// many; at the end of the file that is fewer, or 0, with no error. `ReadExactly` wants all
/// `size` bytes: a file that ends first gives `MediaStreamEOFError`. `Seek` sets the position
/// from the start.
QUORV_NONVIRTUAL_INTERFACE(FileByteStreamInterface, "net.quorv.interface.filebytestream",
                           QUORV_FILEBYTESTREAM_METHODS);
/// The session's side for its input: its progress entry (parts are the entry's progress jobs,
/// quorv/progress.h) and the url it opened. Both live as long as the session.
QUORV_NONVIRTUAL_INTERFACE(MediaSessionInterface, "net.quorv.interface.mediasession",
                           QUORV_MEDIASESSION_METHODS);

/// A file format: `Detect` answers whether the file is of this format. It may read the stream
/// from its start; the session sets the position back before the next format.
QUORV_VIRTUAL_INTERFACE(FileFormatInterface, "net.quorv.interface.fileformat",
                        QUORV_FILEFORMAT_METHODS);
/// Connects a format with the class that reads it. `CreateHandler` answers a new instance (one
/// reference) for a request of kind `HANDLER_MEDIAINPUT`, null for a kind it does not serve.
QUORV_VIRTUAL_INTERFACE(FileFormatHandlerInterface, "net.quorv.interface.fileformathandler",
                        QUORV_FILEFORMATHANDLER_METHODS);
/// The host's part of an input: the list of output streams (each held with a reference) and
/// the session it belongs to.
QUORV_VIRTUAL_INTERFACE(MediaInputInterface, "net.quorv.interface.mediainput",
                        QUORV_MEDIAINPUT_METHODS);
/// The operations a session calls on its input. The host's base answers
/// `MEDIA_IMPORTSTRATEGY_DEFAULT`, succeeds in `Close` and refuses the other three as not
/// implemented.
QUORV_VIRTUAL_INTERFACE(MediaConverterInterface, "net.quorv.interface.mediaconverter",
                        QUORV_MEDIACONVERTER_METHODS);
/// An image stream that an input fills: its formats (data dictionary objects), whether the host
/// wants it, and the picture it writes. `InitStream` reads width, height and pixel format from
/// a properties object and makes the image; `SetPixelStream` writes row `y` (any thread; rows
/// apart); `FinishStream` hands the image to the target picture.
QUORV_VIRTUAL_INTERFACE(MediaStreamImageDataImportInterface,
                        "net.quorv.interface.mediastreamimagedataimport",
                        QUORV_MEDIASTREAMIMAGEDATAIMPORT_METHODS);

}  // namespace quorv
