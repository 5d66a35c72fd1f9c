// Host urls: scheme, authority and path.
//
// Text forms. "scheme://authority/path" splits at the first "://": the scheme (lower-cased,
// a letter then letters, digits, '+', '-', '.'), the authority up to the next '/', and the
// path as written from that '/' on ("relative:///tex" is scheme "relative", no authority, path
// "/tex"). Text without "://", or whose part before "://" holds a '/', is a file path: scheme
// "file", no authority, the path as written. `GetText` writes "scheme://authority" and the
// path (with a '/' between when the path does not start with one); a "file" url without
// authority is written as its plain path, so both text forms of a file read back the same.
// Schemes are literal ids whose text is interned for the life of the process.
#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <string>
#include <unordered_set>

#include "services_impl.h"

namespace quorv {

struct UrlObject {
    LiteralId scheme;  // interned text
    std::string authority;
    std::string path;
};

}  // namespace quorv

namespace quorv::host {

namespace {

constexpr std::string_view FILE_SCHEME = "file";

// Interned scheme texts: set nodes stay put, so their texts do too. Never destroyed, so ids
// stay valid through every static destructor.
struct Schemes {
    std::mutex mutex;
    std::unordered_set<std::string> texts;
};

Schemes& S() {
    static Schemes* schemes = new Schemes();
    return *schemes;
}

bool IsSchemeText(std::string_view s) {
    if (s.empty()) return false;
    auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (!letter(s[0])) return false;
    for (char c : s) {
        if (!letter(c) && !(c >= '0' && c <= '9') && c != '+' && c != '-' && c != '.') {
            return false;
        }
    }
    return true;
}

char LowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// The interned literal id of a scheme (lower-cased); empty for an empty text.
Result<LiteralId> InternScheme(std::string_view text) {
    if (text.empty()) return LiteralId();
    if (!IsSchemeText(text)) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Bad url scheme @", {text}));
    }
    std::string lower(text);
    for (char& c : lower) c = LowerAscii(c);
    Schemes& schemes = S();
    std::lock_guard lock(schemes.mutex);
    const std::string& kept = *schemes.texts.insert(std::move(lower)).first;
    return LiteralId(kept.c_str(), LiteralIdWord(kept));
}

// Turns (text, length) into a view; a length of -1 means NUL-terminated. NUL bytes inside a
// url part are refused: no file system would take them.
Result<std::string_view> UrlTextArgument(const char* text, Int length, const char* what) {
    std::string_view view;
    if (length == -1) {
        view = text ? std::string_view(text) : std::string_view();
    } else if (length < 0 || (!text && length > 0)) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Bad url @ length @", {what, std::to_string(length)}));
    } else {
        view = std::string_view(text ? text : "", static_cast<size_t>(length));
    }
    if (view.find('\0') != std::string_view::npos) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Url @ contains a NUL byte", {what}));
    }
    return view;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "%XX" escapes to their bytes; a broken escape or an escaped NUL is refused, naming `url`.
Result<std::string> PercentDecode(std::string_view text, std::string_view url) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        const int high = i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
        if (low < 0 || (high == 0 && low == 0)) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Url @ has a bad percent escape", {url}));
        }
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return out;
}

Error NullUrl(const char* operation) {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     FormatMessage("@ on a null url", {operation}));
}

bool IsFileUrl(const UrlObject* u) {
    return u->scheme.View() == FILE_SCHEME || (u->scheme.IsEmpty() && !u->path.empty());
}

// The last path part; separators at the end are passed over ("/a/b/" names "b").
std::string_view NameOf(std::string_view path) {
    size_t end = path.size();
    while (end > 0 && path[end - 1] == '/') --end;
    size_t start = path.rfind('/', end == 0 ? 0 : end - 1);
    start = start == std::string_view::npos ? 0 : start + 1;
    return start >= end ? std::string_view() : path.substr(start, end - start);
}

std::string TextOf(const UrlObject* u) {
    if (!u) return {};
    std::string_view scheme = u->scheme.View();
    if ((scheme.empty() || scheme == FILE_SCHEME) && u->authority.empty()) return u->path;
    std::string text(scheme);
    text += scheme.empty() ? "//" : "://";
    text += u->authority;
    if (!u->path.empty() && u->path[0] != '/') text += '/';
    text += u->path;
    return text;
}

// Joins `part` to the path with exactly one '/'. An empty path takes the part as it is; a
// part of separators only changes nothing.
void AppendPath(std::string& path, std::string_view part) {
    if (path.empty()) {
        path.assign(part);
        return;
    }
    while (!part.empty() && part[0] == '/') part.remove_prefix(1);
    if (part.empty()) return;
    while (path.size() > 1 && path.back() == '/' && path[path.size() - 2] == '/') path.pop_back();
    if (path.back() != '/') path += '/';
    path.append(part);
}

Int CompareText(std::string_view a, std::string_view b) {
    int c = a.compare(b);
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

// ---- slots ------------------------------------------------------------------------------

UrlObject* UrlAlloc(const SourceLocation& loc) {
    return NewCountedObject<UrlObject>(&DeleteCountedObject<UrlObject>, loc);
}

// A copy of `source`; a null source gives an empty url.
UrlObject* UrlAllocCopy(const UrlObject* source, const SourceLocation& loc) {
    if (!source) return UrlAlloc(loc);
    return NewCountedObject<UrlObject>(&DeleteCountedObject<UrlObject>, loc, *source);
}

void UrlFree(UrlObject* u) { DeleteCountedObject<UrlObject>(u); }

Result<void> UrlSetUrl(UrlObject* u, const char* text, Int length) {
    return GuardAllocation([&]() -> Result<void> {
        if (!u) return NullUrl("SetUrl");
        Result<std::string_view> view = UrlTextArgument(text, length, "text");
        if (view.IsError()) return view.GetError();
        std::string_view t = view.GetValue();
        size_t mark = t.find("://");
        if (mark == std::string_view::npos ||
            t.substr(0, mark).find('/') != std::string_view::npos) {
            Result<LiteralId> file = InternScheme(t.empty() ? std::string_view() : FILE_SCHEME);
            if (file.IsError()) return file.GetError();
            std::string path(t);
            u->scheme = file.GetValue();
            u->authority.clear();
            u->path = std::move(path);
            return OK;
        }
        if (mark == 0) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Url @ has no scheme before ://", {t}));
        }
        Result<LiteralId> scheme = InternScheme(t.substr(0, mark));
        if (scheme.IsError()) return scheme.GetError();
        std::string_view rest = t.substr(mark + 3);
        size_t slash = rest.find('/');
        std::string authority(rest.substr(0, slash));
        std::string path(slash == std::string_view::npos ? std::string_view() : rest.substr(slash));
        if (scheme.GetValue().View() == FILE_SCHEME) {
            // A "file://" url is the escaped form of a path: "%20" is a blank in the file name.
            Result<std::string> decoded = PercentDecode(path, t);
            if (decoded.IsError()) return decoded.GetError();
            path = std::move(decoded.GetValue());
        }
        u->scheme = scheme.GetValue();
        u->authority = std::move(authority);
        u->path = std::move(path);
        return OK;
    });
}

LiteralId UrlGetScheme(const UrlObject* u) { return u ? u->scheme : LiteralId(); }

Result<void> UrlSetScheme(UrlObject* u, LiteralId scheme) {
    return GuardAllocation([&]() -> Result<void> {
        if (!u) return NullUrl("SetScheme");
        Result<LiteralId> interned = InternScheme(scheme.View());
        if (interned.IsError()) return interned.GetError();
        u->scheme = interned.GetValue();
        return OK;
    });
}

Result<void> UrlSetAuthority(UrlObject* u, const char* text, Int length) {
    return GuardAllocation([&]() -> Result<void> {
        if (!u) return NullUrl("SetAuthority");
        Result<std::string_view> view = UrlTextArgument(text, length, "authority");
        if (view.IsError()) return view.GetError();
        if (view.GetValue().find('/') != std::string_view::npos) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Url authority @ contains a '/'", {view.GetValue()}));
        }
        u->authority.assign(view.GetValue());
        return OK;
    });
}

Result<void> UrlSetPath(UrlObject* u, const char* text, Int length) {
    return GuardAllocation([&]() -> Result<void> {
        if (!u) return NullUrl("SetPath");
        Result<std::string_view> view = UrlTextArgument(text, length, "path");
        if (view.IsError()) return view.GetError();
        u->path.assign(view.GetValue());
        return OK;
    });
}

Int UrlGetPath(const UrlObject* u, char* buffer, Int capacity) {
    return WriteTextToBuffer(u ? std::string_view(u->path) : std::string_view(), buffer, capacity);
}

Int UrlGetAuthority(const UrlObject* u, char* buffer, Int capacity) {
    return WriteTextToBuffer(u ? std::string_view(u->authority) : std::string_view(), buffer,
                             capacity);
}

Int UrlGetName(const UrlObject* u, char* buffer, Int capacity) {
    return WriteTextToBuffer(u ? NameOf(u->path) : std::string_view(), buffer, capacity);
}

// Out of memory while the text is built answers 0 with an empty buffer.
Int UrlGetText(const UrlObject* u, char* buffer, Int capacity) {
    try {
        return WriteTextToBuffer(TextOf(u), buffer, capacity);
    } catch (...) {
        return WriteTextToBuffer({}, buffer, capacity);
    }
}

Result<void> UrlAppend(UrlObject* u, const char* part, Int length) {
    return GuardAllocation([&]() -> Result<void> {
        if (!u) return NullUrl("Append");
        Result<std::string_view> view = UrlTextArgument(part, length, "part");
        if (view.IsError()) return view.GetError();
        std::string path = u->path;
        AppendPath(path, view.GetValue());
        u->path = std::move(path);
        return OK;
    });
}

// Appends the path of `other`; its scheme and authority are not looked at.
Result<void> UrlAppendUrl(UrlObject* u, const UrlObject* other) {
    return GuardAllocation([&]() -> Result<void> {
        if (!u) return NullUrl("AppendUrl");
        if (!other) return OK;
        std::string path = u->path;
        AppendPath(path, other->path);
        u->path = std::move(path);
        return OK;
    });
}

// True when the name ends in "." + suffix (ASCII case-insensitive) with something before the
// dot: "a.PNG" has the suffix "png", ".png" has none. A leading dot of `suffix` is ignored, so
// "png" and ".png" ask the same; several parts ("tar.gz") work too.
Bool UrlCheckSuffix(const UrlObject* u, const char* suffix) {
    if (!u || !suffix) return false;
    std::string_view want(suffix);
    if (!want.empty() && want[0] == '.') want.remove_prefix(1);
    if (want.empty()) return false;
    std::string_view name = NameOf(u->path);
    if (name.size() < want.size() + 2) return false;
    std::string_view tail = name.substr(name.size() - want.size());
    if (name[name.size() - want.size() - 1] != '.') return false;
    for (size_t i = 0; i < want.size(); ++i) {
        if (LowerAscii(tail[i]) != LowerAscii(want[i])) return false;
    }
    return true;
}

Bool UrlIsEmpty(const UrlObject* u) {
    return !u || (u->scheme.IsEmpty() && u->authority.empty() && u->path.empty());
}

// Scheme, then authority, then path, each by bytes; null sorts first.
Int UrlCompare(const UrlObject* a, const UrlObject* b) {
    if (a == b) return 0;
    if (!a) return -1;
    if (!b) return 1;
    if (Int c = CompareText(a->scheme.View(), b->scheme.View())) return c;
    if (Int c = CompareText(a->authority, b->authority)) return c;
    return CompareText(a->path, b->path);
}

// Asks the file system about file urls (no authority, or "localhost"); a link is reported as
// such, not followed. Other schemes are UNKNOWN.
IODETECT UrlIoDetect(const UrlObject* u) {
    if (!u) return IODETECT::ERRORSTATE;
    if (!IsFileUrl(u) || (!u->authority.empty() && u->authority != "localhost")) {
        return IODETECT::UNKNOWN;
    }
    struct stat st {};
    if (::lstat(u->path.c_str(), &st) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? IODETECT::NONEXISTENT : IODETECT::ERRORSTATE;
    }
    if (S_ISREG(st.st_mode)) return IODETECT::FILE;
    if (S_ISDIR(st.st_mode)) return IODETECT::DIRECTORY;
    if (S_ISLNK(st.st_mode)) return IODETECT::LINK;
    return IODETECT::UNKNOWN;
}

const UrlInterface::Slots g_urlSlots{
    .Alloc = &UrlAlloc,
    .AllocCopy = &UrlAllocCopy,
    .Free = &UrlFree,
    .SetUrl = &UrlSetUrl,
    .GetScheme = &UrlGetScheme,
    .SetScheme = &UrlSetScheme,
    .SetAuthority = &UrlSetAuthority,
    .SetPath = &UrlSetPath,
    .GetPath = &UrlGetPath,
    .GetAuthority = &UrlGetAuthority,
    .GetName = &UrlGetName,
    .GetText = &UrlGetText,
    .Append = &UrlAppend,
    .AppendUrl = &UrlAppendUrl,
    .CheckSuffix = &UrlCheckSuffix,
    .IsEmpty = &UrlIsEmpty,
    .Compare = &UrlCompare,
    .IoDetect = &UrlIoDetect,
};

}  // namespace

void RegisterUrlService(Host& host) { host.RegisterService<UrlInterface>(g_urlSlots); }

}  // namespace quorv::host
