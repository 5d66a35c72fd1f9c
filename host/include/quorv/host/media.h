#pragma once
/// The host's media sessions (quorv/mediasession.h): which registered format takes a file, and
/// the import of a file into a picture through the format's handler and input.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/image.h"
#include "quorv/mediasession.h"
#include "quorv/url.h"

namespace quorv::host {

/// A registered format and the handlers that name it.
struct MediaFormatListing {
    std::string format;
    std::vector<std::string> handlers;
};
/// Every class of "net.quorv.registry.fileformats", in registry order, with its handlers.
QUORV_HOST_API std::vector<MediaFormatListing> ListMediaFormats();

/// The format that took a file and the handler that reads it; both empty when no format did.
struct MediaDetection {
    std::string format;
    std::string handler;
};

/// What an import reports: `progress` gets the session's progress (0 to 1) whenever it rises,
/// from any thread, one call at a time; answering false breaks the session's progress, which
/// ends the import with the operation-cancelled error.
struct MediaImportOptions {
    std::function<bool(Float64)> progress;
};

/// Asks the registered formats in registry order (see `MediaSession::Detect`).
QUORV_HOST_API Result<MediaDetection> DetectMediaFormat(const Url& url);

/// One session: a url, its progress entry (made at `Open`, removed at the end) and the input
/// once a handler made it.
class QUORV_HOST_API MediaSession {
public:
    /// A session of `url`; the file is opened by `Detect`.
    static Result<std::unique_ptr<MediaSession>> Open(const Url& url,
                                                      MediaImportOptions options = {});
    ~MediaSession();
    MediaSession(const MediaSession&) = delete;
    MediaSession& operator=(const MediaSession&) = delete;

    /// Asks the registered formats in registry order; the first whose `Detect` answers true wins
    /// if a handler names it. A `Detect` error ends the search with that error.
    Result<MediaDetection> Detect();
    /// The handler's input for `detection`, tied to this session
    /// (`MediaInputInterface::SetSession`).
    Result<ObjectRef> CreateInput(const MediaDetection& detection);
    /// Runs the input: `SupportImportStrategy`, `Analyze`, enables every image stream and gives it
    /// the picture, `PrepareExecute`, `Execute`, `Close` (also after a failure). The picture (one
    /// reference) holds one image per image stream.
    Result<ImageTextureObject*> Import(const ObjectRef& input);

    MediaSessionObject* Get() const { return _session; }

private:
    MediaSession() = default;
    MediaSessionObject* _session = nullptr;
};

/// Detect, create the input and import, in one call. `detected` tells whether a format took the
/// file: when none did the answer is null with no error, and the caller reads the file otherwise.
QUORV_HOST_API Result<ImageTextureObject*> ImportMedia(const Url& url,
                                                       const MediaImportOptions& options,
                                                       bool* detected);

}  // namespace quorv::host
