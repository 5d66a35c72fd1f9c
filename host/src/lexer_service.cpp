// The text lexer: the whole input is decoded to UTF-8 once, then read symbol by symbol.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host_internal.h"
#include "quorv/lexer.h"
#include "quorv/url.h"
#include "services_impl.h"

namespace quorv {

struct LexerObject {
    std::string text;        // UTF-8
    std::string identChars;  // extra word characters (ASCII)
    size_t position = 0;     // next character to read
    Int line = 1;            // line of `position`
    Int symbolLine = 1;      // line of the current symbol
    LEXERSYMBOL symbol = LEXERSYMBOL::NONE;
    std::string ident;       // text of the current symbol, or the skipped rest of a line
    Float64 number = 0.0;
};

}  // namespace quorv

namespace quorv::host {

namespace {

void AppendUtf8(std::string& out, UInt32 c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

// Length of a valid UTF-8 sequence at p (1 to 4), or 0.
size_t Utf8Length(const unsigned char* p, size_t left) {
    unsigned char c = p[0];
    size_t n = c >= 0xF0 && c < 0xF5 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
    if (n == 0 || n > left) return 0;
    for (size_t i = 1; i < n; ++i) {
        if ((p[i] & 0xC0) != 0x80) return 0;
    }
    return n;
}

Result<void> Decode(LexerObject& lexer, std::string_view bytes, const char* decoding) {
    std::string_view d = decoding ? decoding : STRINGDECODING_UTF8;
    bool bit8 = d == STRINGDECODING_BIT8;
    if (!bit8 && d != STRINGDECODING_UTF8) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Unknown string decoding @", {d}));
    }
    lexer.text.clear();
    lexer.text.reserve(bytes.size());
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    for (size_t i = 0; i < bytes.size();) {
        if (p[i] < 0x80) {
            lexer.text.push_back(static_cast<char>(p[i++]));
            continue;
        }
        size_t n = bit8 ? 0 : Utf8Length(p + i, bytes.size() - i);
        if (n == 0) {
            AppendUtf8(lexer.text, p[i++]);
        } else {
            lexer.text.append(bytes.substr(i, n));
            i += n;
        }
    }
    return OK;
}

void Reset(LexerObject& lexer, LEXERINITFLAGS, const char* identChars) {
    lexer.identChars.clear();
    if (identChars) {
        for (const char* c = identChars; *c; ++c) {
            if (static_cast<unsigned char>(*c) < 0x80) lexer.identChars.push_back(*c);
        }
    }
    lexer.position = 0;
    lexer.line = 1;
    lexer.symbolLine = 1;
    lexer.symbol = LEXERSYMBOL::NONE;
    lexer.ident.clear();
    lexer.number = 0.0;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsWordStart(const LexerObject& lexer, char c) {
    auto u = static_cast<unsigned char>(c);
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || u >= 0x80 ||
           (u != 0 && lexer.identChars.find(c) != std::string::npos);
}

bool IsWordPart(const LexerObject& lexer, char c) { return IsWordStart(lexer, c) || IsDigit(c); }

// Length of a number at `p`: [sign] digits [. digits] [e [sign] digits], with at least one
// digit in the mantissa; 0 when there is none.
size_t NumberLength(std::string_view s, size_t p) {
    size_t i = p;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    size_t digits = 0;
    while (i < s.size() && IsDigit(s[i])) ++i, ++digits;
    if (i < s.size() && s[i] == '.') {
        ++i;
        while (i < s.size() && IsDigit(s[i])) ++i, ++digits;
    }
    if (digits == 0) return 0;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        size_t j = i + 1;
        if (j < s.size() && (s[j] == '+' || s[j] == '-')) ++j;
        if (j < s.size() && IsDigit(s[j])) {
            while (j < s.size() && IsDigit(s[j])) ++j;
            i = j;
        }
    }
    return i - p;
}

// ---- slots ----------------------------------------------------------------------------------

LexerObject* Alloc(const SourceLocation& loc) {
    LexerObject* l = NewCountedObject<LexerObject>(&DeleteCountedObject<LexerObject>, loc);
    if (l) AddReference(l);
    return l;
}

void Free(LexerObject* lexer) { RemoveReference(lexer); }

Result<void> InitText(LexerObject* lexer, const char* text, Int length, LEXERINITFLAGS flags,
                      const char* identChars, const char* decoding) {
    if (!lexer || (!text && length > 0) || length < 0) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Lexer or text missing");
    }
    return GuardAllocation([&]() -> Result<void> {
        Reset(*lexer, flags, identChars);
        return Decode(*lexer, std::string_view(text ? text : "", static_cast<size_t>(length)),
                      decoding);
    });
}

Result<void> Init(LexerObject* lexer, const UrlObject* url, LEXERINITFLAGS flags,
                  const char* identChars, const char* decoding) {
    if (!lexer || !url) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Lexer or url missing");
    return GuardAllocation([&]() -> Result<void> {
        Url u{url};
        LiteralId scheme = u.GetScheme();
        if (!scheme.IsEmpty() && scheme.View() != "file") {
            return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                                   FormatMessage("Cannot read @: not a file", {u.ToText()}));
        }
        Result<std::string> bytes = ReadWholeFile(u.GetPath());
        if (bytes.IsError()) return bytes.GetError();
        Reset(*lexer, flags, identChars);
        return Decode(*lexer, bytes.GetValue(), decoding);
    });
}

Result<void> ReadNextSymbol(LexerObject* lexer, LEXERSYMBOLFLAGS flags) {
    if (!lexer) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Lexer missing");
    return GuardAllocation([&]() -> Result<void> {
        LexerObject& l = *lexer;
        const std::string& s = l.text;
        size_t& p = l.position;
        // Blanks and control characters separate symbols; each line feed counts a line.
        while (p < s.size() && static_cast<unsigned char>(s[p]) <= ' ') {
            if (s[p] == '\n') ++l.line;
            ++p;
        }
        l.symbolLine = l.line;
        l.ident.clear();
        if (p >= s.size()) {
            l.symbol = LEXERSYMBOL::ENDOFFILE;
            return OK;
        }
        char c = s[p];
        size_t start = p;
        if (IsWordStart(l, c)) {
            while (p < s.size() && IsWordPart(l, s[p])) ++p;
            l.symbol = LEXERSYMBOL::IDENTIFIER;
        } else if (flags != LEXERSYMBOLFLAGS::NO_NUMBER && NumberLength(s, p) > 0) {
            p += NumberLength(s, p);
            l.symbol = LEXERSYMBOL::NUMBER;
            std::string text = s.substr(start, p - start);
            l.number = std::strtod(text.c_str(), nullptr);
        } else if (flags == LEXERSYMBOLFLAGS::NO_NUMBER && (IsDigit(c) || c == '.')) {
            while (p < s.size() && (IsDigit(s[p]) || s[p] == '.')) ++p;
            l.symbol = LEXERSYMBOL::OTHER;
        } else {
            // One character, which may take several bytes of UTF-8.
            ++p;
            while (p < s.size() && (static_cast<unsigned char>(s[p]) & 0xC0) == 0x80) ++p;
            l.symbol = c == '['   ? LEXERSYMBOL::SQUAREBRACKET_OPEN
                       : c == ']' ? LEXERSYMBOL::SQUAREBRACKET_CLOSE
                       : c == ',' ? LEXERSYMBOL::COMMA
                                  : LEXERSYMBOL::OTHER;
        }
        l.ident.assign(s, start, p - start);
        return OK;
    });
}

LEXERSYMBOL GetSymbol(const LexerObject* lexer) {
    return lexer ? lexer->symbol : LEXERSYMBOL::ENDOFFILE;
}

const char* GetIdent(const LexerObject* lexer, Int* length) {
    if (!lexer) {
        if (length) *length = 0;
        return "";
    }
    if (length) *length = static_cast<Int>(lexer->ident.size());
    return lexer->ident.c_str();
}

Error NumberExpected(const LexerObject* lexer) {
    if (lexer && lexer->symbol == LEXERSYMBOL::ENDOFFILE) {
        return MakeErrorWithId("net.quorv.error.fileformat", QUORV_SOURCE_LOCATION,
                               FormatMessage("Unexpected end of file in line @",
                                             {std::to_string(lexer->symbolLine)}));
    }
    return MakeErrorWithId("net.quorv.error.fileformat", QUORV_SOURCE_LOCATION,
                           FormatMessage("Number expected in line @",
                                         {std::to_string(lexer ? lexer->symbolLine : 0)}));
}

Result<Float64> GetFloat(const LexerObject* lexer) {
    if (!lexer || lexer->symbol != LEXERSYMBOL::NUMBER) return NumberExpected(lexer);
    return lexer->number;
}

// Integers may be written with a fraction of zero ("2.0"); anything else is not an integer.
Result<Int> GetInt(const LexerObject* lexer) {
    if (!lexer || lexer->symbol != LEXERSYMBOL::NUMBER) return NumberExpected(lexer);
    Float64 v = lexer->number;
    if (!(std::abs(v) < 9.2e18) || v != std::trunc(v)) {
        return MakeErrorWithId("net.quorv.error.fileformat", QUORV_SOURCE_LOCATION,
                               FormatMessage("Integer expected in line @",
                                             {std::to_string(lexer->symbolLine)}));
    }
    return static_cast<Int>(v);
}

Int GetLine(const LexerObject* lexer) { return lexer ? lexer->symbolLine : 0; }

// The rest of the line behind the current symbol becomes the text of `GetIdent`; the line
// end itself is left for the next `ReadNextSymbol`, so the line count stays right.
void SkipLineToEnd(LexerObject* lexer) {
    if (!lexer) return;
    try {
        const std::string& s = lexer->text;
        size_t end = s.find('\n', lexer->position);
        if (end == std::string::npos) end = s.size();
        size_t stop = end > lexer->position && s[end - 1] == '\r' ? end - 1 : end;
        lexer->ident.assign(s, lexer->position, stop - lexer->position);
        lexer->position = end;
    } catch (...) {
        lexer->ident.clear();
    }
}

const LexerInterface::Slots g_slots{
    .Alloc = &Alloc,
    .Free = &Free,
    .Init = &Init,
    .InitText = &InitText,
    .ReadNextSymbol = &ReadNextSymbol,
    .GetSymbol = &GetSymbol,
    .GetIdent = &GetIdent,
    .GetInt = &GetInt,
    .GetFloat = &GetFloat,
    .GetLine = &GetLine,
    .SkipLineToEnd = &SkipLineToEnd,
};

}  // namespace

void RegisterLexerService(Host& host) { host.RegisterService<LexerInterface>(g_slots); }

}  // namespace quorv::host
