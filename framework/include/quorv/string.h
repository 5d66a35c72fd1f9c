#pragma once
/// The C++ faces of host strings (`String`, characters) and byte strings (`CString`). Both are
/// counted and copy on write: an edit first replaces a shared object by a private copy.

#include <string>
#include <string_view>

#include "quorv/services.h"

namespace quorv {

/// A host string of characters.
class String {
public:
    String() = default;
    /// Takes a new reference on `s`.
    explicit String(const StringObject* s) : _s(const_cast<StringObject*>(s)) { AddReference(_s); }
    String(const String& o) : _s(o._s) { AddReference(_s); }
    String(String&& o) noexcept : _s(std::exchange(o._s, nullptr)) {}
    String& operator=(String o) noexcept {
        std::swap(_s, o._s);
        return *this;
    }
    ~String() { RemoveReference(_s); }

    /// A string holding `text` (UTF-8, or 8-bit with STRINGENCODING_8BIT).
    static Result<String> FromText(std::string_view text, Int32 encoding = STRINGENCODING_DEFAULT);
    /// The host's shared constant string for `text`; lives to the end of the process.
    static String Constant(std::string_view text);

    Int GetLength() const;
    std::string ToUtf8() const;
    Result<void> Append(const String& other);
    Result<void> Insert(Int position, const String& other);
    Result<void> Erase(Int position, Int count);
    Result<void> TrimLeft();
    /// Compares `count` characters of this string from `position` with `other`.
    Int ComparePart(const String& other, Int position, Int count) const;
    UInt GetHashCode() const;
    const StringObject* GetObject() const { return _s; }

private:
    Result<void> MakeWritable();
    StringObject* _s = nullptr;
};

/// A host byte string.
class CString {
public:
    CString() = default;
    explicit CString(const CStringObject* s) : _s(const_cast<CStringObject*>(s)) { AddReference(_s); }
    CString(const CString& o) : _s(o._s) { AddReference(_s); }
    CString(CString&& o) noexcept : _s(std::exchange(o._s, nullptr)) {}
    CString& operator=(CString o) noexcept {
        std::swap(_s, o._s);
        return *this;
    }
    ~CString() { RemoveReference(_s); }

    static Result<CString> FromBytes(std::string_view bytes);
    std::string_view View() const;
    const CStringObject* GetObject() const { return _s; }

private:
    CStringObject* _s = nullptr;
};

}  // namespace quorv
