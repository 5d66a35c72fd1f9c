#pragma once
/// Literal ids: a pointer to text plus one 64-bit word holding, from the bottom, 43 bits of
/// hash, the owned-text bit (bit 43) and the length from bit 44 up.

#include <cstring>
#include <string_view>

#include "quorv/base.h"

namespace quorv {

/// The 43-bit hash h = h*31 + c over the bytes of a text. Wrapping in 64 bits and masking at
/// the end gives the same value as reducing at every step, since 2^43 divides 2^64.
constexpr UInt LiteralIdHash(std::string_view text) {
    UInt h = 0;
    for (char c : text) h = h * 31 + static_cast<unsigned char>(c);
    return h & ((UInt(1) << 43) - 1);
}

/// The full id word of a text (owned-text bit clear). An empty text has the word 0.
constexpr UInt LiteralIdWord(std::string_view text) {
    return LiteralIdHash(text) | (static_cast<UInt>(text.size()) << 44);
}

/// A name of a record: text and its hash word. Trivially copyable; the owned-text bit marks a
/// text allocated by `SetOwned`, which `Clear` releases.
struct LiteralId {
    static constexpr UInt OWNED_BIT = UInt(1) << 43;

    const char* text = nullptr;
    UInt word = 0;

    constexpr LiteralId() = default;
    constexpr LiteralId(const char* t) : text(t), word(t ? LiteralIdWord(t) : 0) {}
    constexpr LiteralId(const char* t, UInt w) : text(t), word(w) {}

    /// Number of bytes of the text.
    constexpr Int Length() const { return static_cast<Int>(word >> 44); }
    constexpr bool IsEmpty() const { return (word & ~OWNED_BIT) == 0; }
    constexpr bool IsOwned() const { return (word & OWNED_BIT) != 0; }
    std::string_view View() const { return text ? std::string_view(text, Length()) : ""; }

    /// Equal words (owned-text bit aside) and matching texts: same pointer or equal bytes.
    bool operator==(const LiteralId& o) const {
        if ((word & ~OWNED_BIT) != (o.word & ~OWNED_BIT)) return false;
        if (text == o.text) return true;
        Int n = Length();
        if (n == 0) return true;
        if (!text || !o.text) return false;
        return std::memcmp(text, o.text, static_cast<size_t>(n)) == 0;
    }
    bool operator==(std::string_view s) const { return *this == LiteralId(s.data(), LiteralIdWord(s)); }
    bool operator==(const char* s) const { return *this == LiteralId(s); }

    /// Copies `t` into memory of the system allocator and sets the owned-text bit. Returns false
    /// when memory is short; the id is then empty.
    bool SetOwned(std::string_view t);
    /// Releases an owned text and empties the id.
    void Clear();
};

}  // namespace quorv
