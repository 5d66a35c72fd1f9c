// File byte streams: a file url opened for reading from its start, for the formats' `Detect`
// and for inputs that read bytes themselves.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host_internal.h"
#include "media/media_internal.h"
#include "quorv/url.h"
#include "services_impl.h"

namespace quorv {

struct FileByteStreamObject {
    std::FILE* file = nullptr;
    std::string path;
};

namespace host {

namespace {

Error ReadError(const std::string& path, const char* why) {
    return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                           FormatMessage("Cannot read @: @", {path, why}), path);
}

Result<FileByteStreamObject*> Open(const UrlObject* urlObject) {
    if (!urlObject) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Url missing");
    Url url(urlObject);
    const std::string path = url.GetPath();
    if (url.GetScheme() != LiteralId("file"))
        return ReadError(url.ToText(), "only file urls can be read");
    return GuardAllocation([&]() -> Result<FileByteStreamObject*> {
        std::FILE* f = std::fopen(path.c_str(), "rb");
        if (!f) return ReadError(path, std::strerror(errno));
        auto* stream = new (std::nothrow) FileByteStreamObject{f, path};
        if (!stream) {
            std::fclose(f);
            return OutOfMemoryError();
        }
        return stream;
    });
}

Result<Int> Read(FileByteStreamObject* stream, void* buffer, Int size) {
    if (!stream || (!buffer && size > 0))
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Stream or buffer missing");
    if (size <= 0) return Int(0);
    const size_t n = std::fread(buffer, 1, static_cast<size_t>(size), stream->file);
    if (n < static_cast<size_t>(size) && std::ferror(stream->file)) {
        return ReadError(stream->path, std::strerror(errno));
    }
    return static_cast<Int>(n);
}

Result<void> ReadExactly(FileByteStreamObject* stream, void* buffer, Int size) {
    Result<Int> n = Read(stream, buffer, size);
    if (n.IsError()) return n.GetError();
    if (n.GetValue() < size) return MediaStreamEOFError(QUORV_SOURCE_LOCATION);
    return OK;
}

Result<void> Seek(FileByteStreamObject* stream, Int position) {
    if (!stream) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Stream missing");
    if (position < 0 || std::fseek(stream->file, static_cast<long>(position), SEEK_SET) != 0) {
        return MakeError(
            ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
            FormatMessage("Cannot seek to @ in @", {std::to_string(position), stream->path}));
    }
    std::clearerr(stream->file);
    return OK;
}

Int GetPosition(const FileByteStreamObject* stream) {
    return stream ? static_cast<Int>(std::ftell(stream->file)) : 0;
}

void Free(FileByteStreamObject* stream) {
    if (!stream) return;
    std::fclose(stream->file);
    delete stream;
}

const FileByteStreamInterface::Slots g_slots{
    .Open = &Open,
    .Read = &Read,
    .ReadExactly = &ReadExactly,
    .Seek = &Seek,
    .GetPosition = &GetPosition,
    .Free = &Free,
};

}  // namespace

void RegisterFileByteStreamService(Host& host) {
    host.RegisterService<FileByteStreamInterface>(g_slots);
}

}  // namespace host
}  // namespace quorv
