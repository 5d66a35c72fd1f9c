#include <gtest/gtest.h>

#include <string>

#include "quorv/literalid.h"

namespace quorv {
namespace {

TEST(LiteralId, WordsOfKnownTexts) {
    EXPECT_EQ(LiteralIdWord("relative"), 0x82EFDEF3FACCull);
    EXPECT_EQ(LiteralIdWord("??.cpp"), 0x60006F0F8295ull);
    EXPECT_EQ(LiteralIdWord(""), 0ull);
    EXPECT_EQ(LiteralId("relative").Length(), 8);
    // The hash keeps 43 bits and the length starts at bit 44, so bit 43 stays free.
    EXPECT_EQ(LiteralIdWord("net.quorv.render.cameraclass.perspective") & LiteralId::OWNED_BIT, 0u);
    static_assert(LiteralIdWord("relative") == 0x82EFDEF3FACCull, "computed at compile time");
}

TEST(LiteralId, EqualityNeedsWordAndText) {
    std::string copy = "relative";
    LiteralId a("relative");
    LiteralId b(copy.c_str());
    EXPECT_NE(a.text, b.text);
    EXPECT_TRUE(a == b);                       // other pointer, same bytes
    EXPECT_FALSE(a == LiteralId("relativE"));  // same length, other text
    // Same word, other text: a forged word must not make two texts equal.
    LiteralId forged("rel4tive", LiteralIdWord("relative"));
    EXPECT_FALSE(a == forged);
    // The owned-text bit does not take part.
    LiteralId owned(a.text, a.word | LiteralId::OWNED_BIT);
    EXPECT_TRUE(a == owned);
}

TEST(LiteralId, EmptyEqualsOnlyEmpty) {
    LiteralId empty;
    LiteralId emptyText("");
    EXPECT_TRUE(empty.IsEmpty());
    EXPECT_TRUE(empty == emptyText);
    EXPECT_FALSE(empty == LiteralId("a"));
    EXPECT_FALSE(LiteralId("a") == empty);
}

TEST(LiteralId, OwnedTextIsReleasedOnClear) {
    LiteralId id;
    ASSERT_TRUE(id.SetOwned("net.quorv.render"));
    EXPECT_TRUE(id.IsOwned());
    EXPECT_TRUE(id == "net.quorv.render");
    EXPECT_EQ(id.word & ~LiteralId::OWNED_BIT, LiteralIdWord("net.quorv.render"));
    id.Clear();
    EXPECT_TRUE(id.IsEmpty());
    EXPECT_EQ(id.text, nullptr);
}

}  // namespace
}  // namespace quorv
