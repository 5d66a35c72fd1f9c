#pragma once
/// The host's text lexer: reads a file (or a block of memory) as a stream of symbols, with a
/// line counter. Numbers have an optional sign, fraction and exponent; words start with a
/// letter, an underscore, a character above 127 or one of the extra characters given to
/// `Init`, and go on with those and digits. "[" and "," are symbols of their own; every other
/// character is a one-character `OTHER` symbol.

#include "quorv/services.h"

namespace quorv {

struct LexerObject;

/// What the current symbol of a lexer is.
enum class LEXERSYMBOL : Int32 {
    NONE = 0,  ///< before the first `ReadNextSymbol`
    ENDOFFILE = 1,
    IDENTIFIER = 2,
    NUMBER = 3,
    SQUAREBRACKET_OPEN = 4,
    SQUAREBRACKET_CLOSE = 5,
    COMMA = 6,
    OTHER = 7,
};

/// Options of `ReadNextSymbol`.
enum class LEXERSYMBOLFLAGS : Int32 {
    NONE = 0,
    /// Digits and signs are not read as numbers: a run of digits and dots is one `OTHER`
    /// symbol, a sign is an `OTHER` symbol of its own.
    NO_NUMBER = 1,
};

/// Options of `Init`; none are defined yet.
enum class LEXERINITFLAGS : Int32 {
    NONE = 0,
};

/// Each byte is one character (code points 0 to 255).
constexpr const char* STRINGDECODING_BIT8 = "net.quorv.stringdecoding.bit8";
/// UTF-8; bytes that are not valid UTF-8 are taken as 8-bit characters.
constexpr const char* STRINGDECODING_UTF8 = "net.quorv.stringdecoding.utf8";

// clang-format off
#define QUORV_LEXER_METHODS(M) \
    M(LexerObject*, Alloc, (const SourceLocation& loc), (loc)) \
    M(void, Free, (LexerObject* lexer), (lexer)) \
    M(Result<void>, Init, (LexerObject* lexer, const UrlObject* url, LEXERINITFLAGS flags, const char* identChars, const char* decoding), (lexer, url, flags, identChars, decoding)) \
    M(Result<void>, InitText, (LexerObject* lexer, const char* text, Int length, LEXERINITFLAGS flags, const char* identChars, const char* decoding), (lexer, text, length, flags, identChars, decoding)) \
    M(Result<void>, ReadNextSymbol, (LexerObject* lexer, LEXERSYMBOLFLAGS flags), (lexer, flags)) \
    M(LEXERSYMBOL, GetSymbol, (const LexerObject* lexer), (lexer)) \
    M(const char*, GetIdent, (const LexerObject* lexer, Int* length), (lexer, length)) \
    M(Result<Int>, GetInt, (const LexerObject* lexer), (lexer)) \
    M(Result<Float64>, GetFloat, (const LexerObject* lexer), (lexer)) \
    M(Int, GetLine, (const LexerObject* lexer), (lexer)) \
    M(void, SkipLineToEnd, (LexerObject* lexer), (lexer))
// clang-format on
/// `GetIdent` answers the UTF-8 text of the current symbol (after `SkipLineToEnd`: the rest
/// of the line behind the symbol, line end excluded), valid until the lexer moves on.
/// `GetInt` and `GetFloat` answer the current `NUMBER`, or an error naming the line.
QUORV_NONVIRTUAL_INTERFACE(LexerInterface, "net.quorv.interface.lexer", QUORV_LEXER_METHODS);

}  // namespace quorv
