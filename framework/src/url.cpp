#include "quorv/url.h"

#include "readtext.h"

namespace quorv {


Result<Url> Url::FromText(std::string_view text) {
    UrlObject* u = UrlInterface::Alloc(QUORV_SOURCE_LOCATION);
    if (!u) return OutOfMemoryError();
    Url r(u);
    QUORV_RETURN_IF_ERROR(UrlInterface::SetUrl(u, text.data(), static_cast<Int>(text.size())));
    return r;
}

Result<void> Url::MakeWritable() {
    if (_u && !IsShared(_u)) return OK;
    UrlObject* u = _u ? UrlInterface::AllocCopy(_u, QUORV_SOURCE_LOCATION)
                      : UrlInterface::Alloc(QUORV_SOURCE_LOCATION);
    if (!u) return OutOfMemoryError();
    *this = Url(u);
    return OK;
}

LiteralId Url::GetScheme() const { return _u ? UrlInterface::GetScheme(_u) : LiteralId(); }

std::string Url::GetPath() const {
    if (!_u) return {};
    return ReadHostText([this](char* b, Int c) { return UrlInterface::GetPath(_u, b, c); });
}

std::string Url::GetAuthority() const {
    if (!_u) return {};
    return ReadHostText([this](char* b, Int c) { return UrlInterface::GetAuthority(_u, b, c); });
}

std::string Url::GetName() const {
    if (!_u) return {};
    return ReadHostText([this](char* b, Int c) { return UrlInterface::GetName(_u, b, c); });
}

std::string Url::ToText() const {
    if (!_u) return {};
    return ReadHostText([this](char* b, Int c) { return UrlInterface::GetText(_u, b, c); });
}

Result<void> Url::Append(std::string_view part) {
    QUORV_RETURN_IF_ERROR(MakeWritable());
    return UrlInterface::Append(_u, part.data(), static_cast<Int>(part.size()));
}

Result<void> Url::Append(const Url& other) {
    QUORV_RETURN_IF_ERROR(MakeWritable());
    return UrlInterface::AppendUrl(_u, other._u);
}

Result<void> Url::SetPath(std::string_view path) {
    QUORV_RETURN_IF_ERROR(MakeWritable());
    return UrlInterface::SetPath(_u, path.data(), static_cast<Int>(path.size()));
}

bool Url::CheckSuffix(const char* suffix) const { return _u && UrlInterface::CheckSuffix(_u, suffix); }
bool Url::IsEmpty() const { return !_u || UrlInterface::IsEmpty(_u); }
Int Url::Compare(const Url& other) const { return UrlInterface::Compare(_u, other._u); }
IODETECT Url::IoDetect() const { return _u ? UrlInterface::IoDetect(_u) : IODETECT::ERRORSTATE; }

}  // namespace quorv
