#pragma once
/// Value types that travel in dictionaries beside numbers and vectors: interned ids and arrays
/// of them, integer pairs, unsigned words and time spans.

#include <cmath>
#include <functional>
#include <limits>
#include <string_view>
#include <vector>

#include "quorv/base.h"

namespace quorv {

/// An interned id: text the host keeps for the life of the process (its constant string
/// cache), so an id copies as a pointer and two ids are equal exactly when their pointers are.
class Id {
public:
    Id() = default;
    /// The id of `text`; the empty text gives the empty id. When memory is short the id is
    /// empty too (`Intern` of a non-empty text answering `IsEmpty` tells).
    static Id Intern(std::string_view text);
    std::string_view View() const { return _text ? std::string_view(_text, _length) : ""; }
    bool IsEmpty() const { return _text == nullptr; }
    bool operator==(const Id& o) const { return _text == o._text; }
    /// Ordered by text, so sorted lists read alphabetically.
    bool operator<(const Id& o) const { return View() < o.View(); }
    std::size_t Hash() const { return std::hash<const void*>()(_text); }

private:
    const char* _text = nullptr;
    Int _length = 0;
};

/// An array of ids.
using IdArray = std::vector<Id>;

/// Two Int64, as a size in pixels: x is the width, y the height.
struct Vector2i64 {
    Int x = 0;
    Int y = 0;
    friend bool operator==(const Vector2i64&, const Vector2i64&) = default;
};

/// A span of time in seconds. Waits read a negative span as "do not wait" and an infinite one
/// as "wait until it happens".
struct TimeValue {
    Float64 seconds = 0.0;
    static constexpr TimeValue Infinite() { return {std::numeric_limits<Float64>::infinity()}; }
    bool IsInfinite() const { return std::isinf(seconds) && seconds > 0; }
    friend bool operator==(const TimeValue&, const TimeValue&) = default;
    friend bool operator<(const TimeValue& a, const TimeValue& b) { return a.seconds < b.seconds; }
};

}  // namespace quorv

template <>
struct std::hash<quorv::Id> {
    std::size_t operator()(const quorv::Id& id) const { return id.Hash(); }
};
template <>
struct std::hash<quorv::Vector2i64> {
    std::size_t operator()(const quorv::Vector2i64& v) const {
        return std::hash<quorv::Int>()(v.x) * 31 + std::hash<quorv::Int>()(v.y);
    }
};
template <>
struct std::hash<quorv::TimeValue> {
    std::size_t operator()(const quorv::TimeValue& t) const { return std::hash<double>()(t.seconds); }
};
template <>
struct std::hash<quorv::IdArray> {
    std::size_t operator()(const quorv::IdArray& a) const {
        std::size_t h = a.size();
        for (const quorv::Id& id : a) h = h * 31 + id.Hash();
        return h;
    }
};
