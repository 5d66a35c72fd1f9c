#include "quorv/string.h"

#include "readtext.h"

namespace quorv {


Result<String> String::FromText(std::string_view text, Int32 encoding) {
    StringObject* s = StringInterface::Alloc(QUORV_SOURCE_LOCATION);
    if (!s) return OutOfMemoryError();
    String r(s);
    QUORV_RETURN_IF_ERROR(StringInterface::SetCString(s, text.data(), static_cast<Int>(text.size()), encoding));
    return r;
}

String String::Constant(std::string_view text) {
    return String(StringInterface::GetAndCacheConstString(text.data(), static_cast<Int>(text.size()),
                                                         STRINGENCODING_DEFAULT));
}

Int String::GetLength() const { return _s ? StringInterface::GetLength(_s) : 0; }

std::string String::ToUtf8() const {
    if (!_s) return {};
    return ReadHostText([this](char* b, Int c) { return StringInterface::GetUtf8(_s, b, c); });
}

Result<void> String::MakeWritable() {
    if (_s && !IsShared(_s)) return OK;
    StringObject* s = StringInterface::Alloc(QUORV_SOURCE_LOCATION);
    if (!s) return OutOfMemoryError();
    String copy(s);
    if (_s) QUORV_RETURN_IF_ERROR(StringInterface::CopyFrom(s, _s));
    *this = copy;
    return OK;
}

Result<void> String::Append(const String& other) {
    QUORV_RETURN_IF_ERROR(MakeWritable());
    return StringInterface::Append(_s, other._s);
}

Result<void> String::Insert(Int position, const String& other) {
    QUORV_RETURN_IF_ERROR(MakeWritable());
    return StringInterface::Insert(_s, position, other._s);
}

Result<void> String::Erase(Int position, Int count) {
    QUORV_RETURN_IF_ERROR(MakeWritable());
    StringInterface::Erase(_s, position, count);
    return OK;
}

Result<void> String::TrimLeft() {
    QUORV_RETURN_IF_ERROR(MakeWritable());
    StringInterface::TrimLeft(_s);
    return OK;
}

Int String::ComparePart(const String& other, Int position, Int count) const {
    return StringInterface::ComparePart(_s, other._s, position, count);
}

UInt String::GetHashCode() const { return _s ? StringInterface::GetHashCode(_s) : 0; }

Result<CString> CString::FromBytes(std::string_view bytes) {
    CStringObject* s = CStringInterface::Alloc(QUORV_SOURCE_LOCATION);
    if (!s) return OutOfMemoryError();
    CString r(s);
    QUORV_RETURN_IF_ERROR(CStringInterface::SetCString(s, bytes.data(), static_cast<Int>(bytes.size())));
    return r;
}

std::string_view CString::View() const {
    if (!_s) return {};
    const char* d = CStringInterface::GetData(_s);
    return d ? std::string_view(d, static_cast<size_t>(CStringInterface::GetLength(_s))) : std::string_view();
}

}  // namespace quorv
