// The lexer, number formatting and parallel loops through the host's slots.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/lexer.h"
#include "quorv/parallel.h"
#include "quorv/string.h"
#include "quorv/stringconversion.h"

namespace quorv {
namespace {

struct Lexer {
    LexerObject* p = LexerInterface::Alloc(QUORV_SOURCE_LOCATION);
    ~Lexer() { LexerInterface::Free(p); }
    explicit Lexer(std::string_view text, const char* decoding = STRINGDECODING_BIT8,
                   const char* identChars = nullptr) {
        Result<void> r = LexerInterface::InitText(p, text.data(), static_cast<Int>(text.size()),
                                                  LEXERINITFLAGS::NONE, identChars, decoding);
        EXPECT_TRUE(r.IsOk());
    }
    LEXERSYMBOL Next(LEXERSYMBOLFLAGS f = LEXERSYMBOLFLAGS::NONE) {
        EXPECT_TRUE(LexerInterface::ReadNextSymbol(p, f).IsOk());
        return LexerInterface::GetSymbol(p);
    }
    std::string Ident() const {
        Int n = 0;
        const char* t = LexerInterface::GetIdent(p, &n);
        return std::string(t, static_cast<size_t>(n));
    }
};

TEST(Lexer, SymbolsNumbersAndLines) {
    Lexer l("word_1 -2.5e3, +7 [x] .5\n\n 3E-2 1e 9. 4.5e+1");
    using S = LEXERSYMBOL;
    EXPECT_EQ(l.Next(), S::IDENTIFIER);
    EXPECT_EQ(l.Ident(), "word_1");
    EXPECT_EQ(l.Next(), S::NUMBER);
    EXPECT_EQ(LexerInterface::GetFloat(l.p).GetValue(), -2500.0);
    EXPECT_EQ(LexerInterface::GetInt(l.p).GetValue(), -2500);
    EXPECT_EQ(l.Next(), S::COMMA);
    EXPECT_EQ(l.Next(), S::NUMBER);
    EXPECT_EQ(LexerInterface::GetInt(l.p).GetValue(), 7);
    EXPECT_EQ(l.Next(), S::SQUAREBRACKET_OPEN);
    EXPECT_EQ(l.Ident(), "[");
    EXPECT_EQ(l.Next(), S::IDENTIFIER);
    EXPECT_EQ(l.Next(), S::SQUAREBRACKET_CLOSE);
    EXPECT_EQ(l.Next(), S::NUMBER);
    EXPECT_EQ(LexerInterface::GetFloat(l.p).GetValue(), 0.5);
    Result<Int> notInt = LexerInterface::GetInt(l.p);
    EXPECT_STREQ(notInt.GetErrorPointer()->message, "Integer expected in line 1");
    EXPECT_EQ(LexerInterface::GetLine(l.p), 1);
    EXPECT_EQ(l.Next(), S::NUMBER);
    EXPECT_EQ(LexerInterface::GetFloat(l.p).GetValue(), 0.03);
    EXPECT_EQ(LexerInterface::GetLine(l.p), 3);
    // "1e" is the number 1 and the word "e"; "9." is 9.
    EXPECT_EQ(l.Next(), S::NUMBER);
    EXPECT_EQ(LexerInterface::GetFloat(l.p).GetValue(), 1.0);
    EXPECT_EQ(l.Next(), S::IDENTIFIER);
    EXPECT_EQ(l.Next(), S::NUMBER);
    EXPECT_EQ(LexerInterface::GetFloat(l.p).GetValue(), 9.0);
    // An exponent with its sign written out, as writers of photometric files often do.
    EXPECT_EQ(l.Next(), S::NUMBER);
    EXPECT_EQ(LexerInterface::GetFloat(l.p).GetValue(), 45.0);
    EXPECT_EQ(LexerInterface::GetInt(l.p).GetValue(), 45);
    EXPECT_EQ(l.Next(), S::ENDOFFILE);
    EXPECT_EQ(l.Next(), S::ENDOFFILE);
    EXPECT_STREQ(LexerInterface::GetFloat(l.p).GetErrorPointer()->message,
                 "Unexpected end of file in line 3");
}

TEST(Lexer, NoNumberSkipLineAndDecoding) {
    Lexer l("12.5-x TILT = NONE \r\n\xB0next");
    using S = LEXERSYMBOL;
    const auto NO = LEXERSYMBOLFLAGS::NO_NUMBER;
    EXPECT_EQ(l.Next(NO), S::OTHER);
    EXPECT_EQ(l.Ident(), "12.5");
    EXPECT_EQ(l.Next(NO), S::OTHER);
    EXPECT_EQ(l.Ident(), "-");
    EXPECT_EQ(l.Next(NO), S::IDENTIFIER);
    EXPECT_EQ(l.Next(NO), S::IDENTIFIER);
    EXPECT_EQ(l.Ident(), "TILT");
    LexerInterface::SkipLineToEnd(l.p);
    EXPECT_EQ(l.Ident(), " = NONE ");
    EXPECT_EQ(LexerInterface::GetLine(l.p), 1);
    // 8-bit: the byte 0xB0 is the character U+00B0, a word character.
    EXPECT_EQ(l.Next(NO), S::IDENTIFIER);
    EXPECT_EQ(l.Ident(), "\xC2\xB0next");
    EXPECT_EQ(LexerInterface::GetLine(l.p), 2);

    Lexer utf8("\xC2\xB0 \xFF", STRINGDECODING_UTF8);
    EXPECT_EQ(utf8.Next(), S::IDENTIFIER);
    EXPECT_EQ(utf8.Ident(), "\xC2\xB0");
    EXPECT_EQ(utf8.Next(), S::IDENTIFIER);
    EXPECT_EQ(utf8.Ident(), "\xC3\xBF") << "invalid UTF-8 is taken as 8-bit";

    Lexer extra("a-b:c", STRINGDECODING_BIT8, "-:");
    EXPECT_EQ(extra.Next(), S::IDENTIFIER);
    EXPECT_EQ(extra.Ident(), "a-b:c");

    LexerObject* p = LexerInterface::Alloc(QUORV_SOURCE_LOCATION);
    Result<void> bad = LexerInterface::InitText(p, "x", 1, LEXERINITFLAGS::NONE, nullptr, "latin9");
    EXPECT_STREQ(bad.GetErrorPointer()->message, "Unknown string decoding latin9");
    LexerInterface::Free(p);
}

std::string Float(Float64 v, Int32 afterComma = -3, Int32 width = -1, Bool exponent = false) {
    char buffer[FLOATTOSTRING_BUFFER];
    Int n = StringConversionInterface::FloatToString(v, width, afterComma, exponent, ' ', buffer,
                                                     sizeof(buffer));
    return std::string(buffer, static_cast<size_t>(n));
}

TEST(StringConversion, FloatToString) {
    EXPECT_EQ(Float(1.5), "1.5");
    EXPECT_EQ(Float(2.0), "2");
    EXPECT_EQ(Float(0.12345), "0.123");
    EXPECT_EQ(Float(1234.5678), "1234.568");
    EXPECT_EQ(Float(-0.0001), "0");
    EXPECT_EQ(Float(-0.0), "0");
    EXPECT_EQ(Float(-2.25), "-2.25");
    EXPECT_EQ(Float(0.0005), "0.001") << "rounds half away from the stored value";
    EXPECT_EQ(Float(1e20), "100000000000000000000");
    EXPECT_EQ(Float(1.5, 3), "1.500");
    EXPECT_EQ(Float(1.5, -3, 6), "   1.5");
    EXPECT_EQ(Float(1500, -3, -1, true), "1.5e+03");
    EXPECT_EQ(Float(1.0 / 0.0), "inf");
    EXPECT_EQ(Float(-1.0 / 0.0), "-inf");
    EXPECT_EQ(Float(1e308).size(), 309u);

    char small[4];
    EXPECT_EQ(StringConversionInterface::FloatToString(123.25, -1, -3, false, ' ', small, 4), 6);
    EXPECT_STREQ(small, "123");

    char digits[32];
    Int n = StringConversionInterface::IntToString(-9007199254740993, digits, sizeof(digits));
    EXPECT_EQ(std::string(digits, static_cast<size_t>(n)), "-9007199254740993");

    Result<String> s = String::FromText("n=");
    ASSERT_TRUE(s.IsOk());
    StringObject* so = const_cast<StringObject*>(s.GetValue().GetObject());
    ASSERT_TRUE(StringConversionInterface::AppendInt(so, 42).IsOk());
    ASSERT_TRUE(StringConversionInterface::AppendFloat(so, 0.5, -1, -3, false, ' ').IsOk());
    EXPECT_EQ(s.GetValue().ToUtf8(), "n=420.5");
}

TEST(Parallel, CoversRangeOncePerWorkerContexts) {
    const Int n = 100000;
    std::vector<std::atomic<int>> hits(n);
    Int workers = ParallelInterface::GetWorkerCount();
    ASSERT_GE(workers, 1);
    std::atomic<Int> minChunk{n};
    Result<void> r = ParallelFor(0, n, 1000, [&](Int a, Int b, Int worker) -> Result<void> {
        EXPECT_TRUE(worker >= 0 && worker < workers);
        Int len = b - a, seen = minChunk.load();
        while (len < seen && !minChunk.compare_exchange_weak(seen, len)) {}
        for (Int i = a; i < b; ++i) hits[i]++;
        return OK;
    });
    ASSERT_TRUE(r.IsOk());
    for (Int i = 0; i < n; ++i) ASSERT_EQ(hits[i].load(), 1) << i;
    EXPECT_GE(minChunk.load(), 500) << "partitions keep near the granularity";

    // Per-worker sums added at the end equal the serial sum.
    Int total = -1;
    Result<void> s = ParallelForWithContext<Int>(
        0, n, 64, [] { return Int(0); },
        [](Int a, Int b, Int& sum) -> Result<void> {
            for (Int i = a; i < b; ++i) sum += i;
            return OK;
        },
        [&](std::vector<Int>& sums) -> Result<void> {
            total = 0;
            for (Int v : sums) total += v;
            return OK;
        });
    ASSERT_TRUE(s.IsOk());
    EXPECT_EQ(total, n * (n - 1) / 2);

    Result<void> e = ParallelFor(0, n, 10, [](Int a, Int, Int) -> Result<void> {
        if (a >= 5000) return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "stop here");
        return OK;
    });
    EXPECT_STREQ(e.GetErrorPointer()->message, "stop here");
    EXPECT_TRUE(ParallelFor(5, 5, 1, [](Int, Int, Int) -> Result<void> { return OK; }).IsOk());
}

}  // namespace
}  // namespace quorv
