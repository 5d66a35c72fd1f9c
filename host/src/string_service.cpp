// Host strings (characters, held as UTF-32) and byte strings, with the process-wide caches of
// constant strings.
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "services_impl.h"

namespace quorv {

struct StringObject {
    std::u32string chars;
    bool constant = false;  // interned: never changed, never freed
};

struct CStringObject {
    std::string bytes;
    bool constant = false;
};

}  // namespace quorv

namespace quorv::host {

namespace {

// ---- text conversion --------------------------------------------------------------------

// Decodes strict UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF). Returns the
// offset of the first bad byte, or -1 when all of `text` is valid.
Int DecodeUtf8(std::string_view text, std::u32string& out) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    out.clear();
    out.reserve(n);
    size_t i = 0;
    while (i < n) {
        UInt32 c = p[i];
        size_t extra = 0;
        UInt32 minimum = 0;
        if (c < 0x80) {
            out.push_back(c);
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            extra = 1, minimum = 0x80, c &= 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2, minimum = 0x800, c &= 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3, minimum = 0x10000, c &= 0x07;
        } else {
            return static_cast<Int>(i);
        }
        if (i + extra >= n) return static_cast<Int>(i);
        for (size_t k = 1; k <= extra; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return static_cast<Int>(i);
            c = (c << 6) | (p[i + k] & 0x3F);
        }
        if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
            return static_cast<Int>(i);
        }
        out.push_back(c);
        i += extra + 1;
    }
    return -1;
}

// Writes the UTF-8 form of `c` to `out` (room for 4 bytes); returns its length.
Int EncodeUtf8(char32_t c, char* out) {
    if (c < 0x80) {
        out[0] = static_cast<char>(c);
        return 1;
    }
    if (c < 0x800) {
        out[0] = static_cast<char>(0xC0 | (c >> 6));
        out[1] = static_cast<char>(0x80 | (c & 0x3F));
        return 2;
    }
    if (c < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (c >> 12));
        out[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (c & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (c >> 18));
    out[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (c & 0x3F));
    return 4;
}

Int Utf8Length(char32_t c) { return c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4; }

// Turns (text, length) into a view; a length of -1 means NUL-terminated.
Result<std::string_view> TextArgument(const char* text, Int length) {
    if (length == -1) return std::string_view(text ? text : "");
    if (length < 0) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Negative text length @", {std::to_string(length)}));
    }
    if (!text && length > 0) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Null text of length @", {std::to_string(length)}));
    }
    return std::string_view(text ? text : "", static_cast<size_t>(length));
}

Result<std::u32string> Decode(std::string_view text, Int32 encoding) {
    std::u32string chars;
    if (encoding == STRINGENCODING_8BIT) {
        chars.reserve(text.size());
        for (char b : text) chars.push_back(static_cast<unsigned char>(b));
        return chars;
    }
    if (encoding != STRINGENCODING_DEFAULT) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Unknown string encoding @", {std::to_string(encoding)}));
    }
    Int bad = DecodeUtf8(text, chars);
    if (bad >= 0) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Invalid UTF-8 at byte @", {std::to_string(bad)}));
    }
    return chars;
}

Error NullString(const char* operation) {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     FormatMessage("@ on a null string", {operation}));
}

Error ConstantString(const char* operation) {
    return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                     FormatMessage("@ on a constant string", {operation}));
}

// Unicode White_Space.
bool IsWhiteSpace(char32_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F ||
           c == 0x205F || c == 0x3000;
}

const std::u32string& CharsOf(const StringObject* s) {
    static const std::u32string empty;
    return s ? s->chars : empty;
}

// ---- strings ----------------------------------------------------------------------------

// The caches of constants. Never destroyed: constants outlive every static destructor.
struct Constants {
    std::mutex mutex;
    std::unordered_map<std::u32string, StringObject*> strings;
    std::unordered_map<std::string, CStringObject*> cstrings;
};

Constants& C() {
    static Constants* constants = new Constants();
    return *constants;
}

const StringObject* GetAndCacheConstString(const char* text, Int length, Int32 encoding) {
    try {
        Result<std::string_view> view = TextArgument(text, length);
        if (view.IsError()) return nullptr;
        Result<std::u32string> chars = Decode(view.GetValue(), encoding);
        if (chars.IsError()) return nullptr;
        Constants& c = C();
        std::lock_guard lock(c.mutex);
        auto it = c.strings.find(chars.GetValue());
        if (it != c.strings.end()) return it->second;
        StringObject* s = NewImmortalObject<StringObject>();
        if (!s) return nullptr;
        s->chars = chars.GetValue();
        s->constant = true;
        c.strings.emplace(s->chars, s);
        return s;
    } catch (...) {
        return nullptr;
    }
}

StringObject* StringAlloc(const SourceLocation& loc) {
    return NewCountedObject<StringObject>(&DeleteCountedObject<StringObject>, loc);
}

// The object goes at once, whatever its count; constants stay.
void StringFree(StringObject* s) {
    if (s && !s->constant) DeleteCountedObject<StringObject>(s);
}

Result<void> StringAppend(StringObject* s, const StringObject* other) {
    return GuardAllocation([&]() -> Result<void> {
        if (!s) return NullString("Append");
        if (s->constant) return ConstantString("Append");
        s->chars.append(CharsOf(other));
        return OK;
    });
}

Result<void> StringSetCString(StringObject* s, const char* text, Int length, Int32 encoding) {
    return GuardAllocation([&]() -> Result<void> {
        if (!s) return NullString("SetCString");
        if (s->constant) return ConstantString("SetCString");
        Result<std::string_view> view = TextArgument(text, length);
        if (view.IsError()) return view.GetError();
        Result<std::u32string> chars = Decode(view.GetValue(), encoding);
        if (chars.IsError()) return chars.GetError();
        s->chars = std::move(chars.GetValue());
        return OK;
    });
}

Int StringGetLength(const StringObject* s) { return static_cast<Int>(CharsOf(s).size()); }

Result<void> StringInsert(StringObject* s, Int position, const StringObject* other) {
    return GuardAllocation([&]() -> Result<void> {
        if (!s) return NullString("Insert");
        if (s->constant) return ConstantString("Insert");
        Int length = static_cast<Int>(s->chars.size());
        if (position < 0 || position > length) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Insert position @ is outside the string of length @",
                                           {std::to_string(position), std::to_string(length)}));
        }
        // A copy first: `other` may be `s` itself.
        std::u32string part = CharsOf(other);
        s->chars.insert(static_cast<size_t>(position), part);
        return OK;
    });
}

// Clamped to the string: a range that reaches past either end loses that part.
void StringErase(StringObject* s, Int position, Int count) {
    if (!s || s->constant || count <= 0) return;
    Int length = static_cast<Int>(s->chars.size());
    Int end = position > length - count ? length : position + count;
    if (position < 0) position = 0;
    if (end <= position) return;
    s->chars.erase(static_cast<size_t>(position), static_cast<size_t>(end - position));
}

void StringTrimLeft(StringObject* s) {
    if (!s || s->constant) return;
    size_t i = 0;
    while (i < s->chars.size() && IsWhiteSpace(s->chars[i])) ++i;
    s->chars.erase(0, i);
}

// `count` characters of a from `position` against the first `count` of b, by code point; a part
// cut short by the end of its string sorts first. Null strings are empty; a position outside
// `a` gives an empty part.
Int StringComparePart(const StringObject* a, const StringObject* b, Int position, Int count) {
    const std::u32string& x = CharsOf(a);
    const std::u32string& y = CharsOf(b);
    if (count <= 0) return 0;
    Int xLength = static_cast<Int>(x.size());
    Int xStart = position < 0 || position > xLength ? xLength : position;
    Int xn = xLength - xStart < count ? xLength - xStart : count;
    Int yn = static_cast<Int>(y.size()) < count ? static_cast<Int>(y.size()) : count;
    Int n = xn < yn ? xn : yn;
    for (Int i = 0; i < n; ++i) {
        char32_t cx = x[static_cast<size_t>(xStart + i)];
        char32_t cy = y[static_cast<size_t>(i)];
        if (cx != cy) return cx < cy ? -1 : 1;
    }
    return xn == yn ? 0 : (xn < yn ? -1 : 1);
}

// FNV-1a over the code points, four little-endian bytes each: the same on every platform.
UInt StringGetHashCode(const StringObject* s) {
    UInt h = 0xcbf29ce484222325ull;
    for (char32_t c : CharsOf(s)) {
        for (int shift = 0; shift < 32; shift += 8) {
            h = (h ^ ((static_cast<UInt32>(c) >> shift) & 0xFF)) * 0x100000001b3ull;
        }
    }
    return h;
}

Result<void> StringCopyFrom(StringObject* s, const StringObject* source) {
    return GuardAllocation([&]() -> Result<void> {
        if (!s) return NullString("CopyFrom");
        if (s->constant) return ConstantString("CopyFrom");
        if (s != source) s->chars = CharsOf(source);
        return OK;
    });
}

// Writes whole characters only: a cut never splits a UTF-8 sequence.
Int StringGetUtf8(const StringObject* s, char* buffer, Int capacity) {
    Int needed = 0;
    for (char32_t c : CharsOf(s)) needed += Utf8Length(c);
    if (!buffer || capacity <= 0) return needed;
    Int written = 0;
    for (char32_t c : CharsOf(s)) {
        if (written + Utf8Length(c) > capacity - 1) break;
        written += EncodeUtf8(c, buffer + written);
    }
    buffer[written] = 0;
    return needed;
}

// The code point at `position`, or -1 outside the string.
Int32 StringGetChar(const StringObject* s, Int position) {
    const std::u32string& chars = CharsOf(s);
    if (position < 0 || position >= static_cast<Int>(chars.size())) return -1;
    return static_cast<Int32>(chars[static_cast<size_t>(position)]);
}

const StringInterface::Slots g_stringSlots{
    .GetAndCacheConstString = &GetAndCacheConstString,
    .Alloc = &StringAlloc,
    .Free = &StringFree,
    .Append = &StringAppend,
    .SetCString = &StringSetCString,
    .GetLength = &StringGetLength,
    .Insert = &StringInsert,
    .Erase = &StringErase,
    .TrimLeft = &StringTrimLeft,
    .ComparePart = &StringComparePart,
    .GetHashCode = &StringGetHashCode,
    .CopyFrom = &StringCopyFrom,
    .GetUtf8 = &StringGetUtf8,
    .GetChar = &StringGetChar,
};

// ---- byte strings -----------------------------------------------------------------------

const CStringObject* GetAndCacheConstCString(const char* text, Int length) {
    try {
        Result<std::string_view> view = TextArgument(text, length);
        if (view.IsError()) return nullptr;
        std::string bytes(view.GetValue());
        Constants& c = C();
        std::lock_guard lock(c.mutex);
        auto it = c.cstrings.find(bytes);
        if (it != c.cstrings.end()) return it->second;
        CStringObject* s = NewImmortalObject<CStringObject>();
        if (!s) return nullptr;
        s->bytes = bytes;
        s->constant = true;
        c.cstrings.emplace(std::move(bytes), s);
        return s;
    } catch (...) {
        return nullptr;
    }
}

CStringObject* CStringAlloc(const SourceLocation& loc) {
    return NewCountedObject<CStringObject>(&DeleteCountedObject<CStringObject>, loc);
}

void CStringFree(CStringObject* s) {
    if (s && !s->constant) DeleteCountedObject<CStringObject>(s);
}

Result<void> CStringSetCString(CStringObject* s, const char* text, Int length) {
    return GuardAllocation([&]() -> Result<void> {
        if (!s) return NullString("SetCString");
        if (s->constant) return ConstantString("SetCString");
        Result<std::string_view> view = TextArgument(text, length);
        if (view.IsError()) return view.GetError();
        s->bytes.assign(view.GetValue());
        return OK;
    });
}

Int CStringGetLength(const CStringObject* s) { return s ? static_cast<Int>(s->bytes.size()) : 0; }

const char* CStringGetData(const CStringObject* s) { return s ? s->bytes.c_str() : ""; }

const CStringInterface::Slots g_cstringSlots{
    .GetAndCacheConstString = &GetAndCacheConstCString,
    .Alloc = &CStringAlloc,
    .Free = &CStringFree,
    .SetCString = &CStringSetCString,
    .GetLength = &CStringGetLength,
    .GetData = &CStringGetData,
};

}  // namespace

void RegisterStringService(Host& host) {
    host.RegisterService<StringInterface>(g_stringSlots);
    host.RegisterService<CStringInterface>(g_cstringSlots);
}

}  // namespace quorv::host
