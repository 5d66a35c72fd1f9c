#pragma once
/// The C++ face of host urls: "scheme://authority/path". The scheme is a literal id.

#include <string>
#include <string_view>

#include "quorv/services.h"

namespace quorv {

/// A counted host url, copy on write.
class Url {
public:
    Url() = default;
    explicit Url(const UrlObject* u) : _u(const_cast<UrlObject*>(u)) { AddReference(_u); }
    Url(const Url& o) : _u(o._u) { AddReference(_u); }
    Url(Url&& o) noexcept : _u(std::exchange(o._u, nullptr)) {}
    Url& operator=(Url o) noexcept {
        std::swap(_u, o._u);
        return *this;
    }
    ~Url() { RemoveReference(_u); }
    /// Wraps a url whose reference the caller already holds.
    static Url Adopt(UrlObject* u) {
        Url r;
        r._u = u;
        return r;
    }

    /// Parses text such as "relative:///tex" or a plain file path ("file" scheme).
    static Result<Url> FromText(std::string_view text);

    LiteralId GetScheme() const;
    std::string GetPath() const;
    std::string GetAuthority() const;
    /// The last path part, "tex.png".
    std::string GetName() const;
    /// The whole url as text.
    std::string ToText() const;
    /// Appends a path part, with one separator.
    Result<void> Append(std::string_view part);
    Result<void> Append(const Url& other);
    Result<void> SetPath(std::string_view path);
    /// True when the file suffix equals `suffix` (without dot, case-insensitive).
    bool CheckSuffix(const char* suffix) const;
    bool IsEmpty() const;
    Int Compare(const Url& other) const;
    /// Asks the file system what the url names.
    IODETECT IoDetect() const;
    const UrlObject* GetObject() const { return _u; }

private:
    Result<void> MakeWritable();
    UrlObject* _u = nullptr;
};

}  // namespace quorv
