#pragma once
/// Basic value types shared by the host and every module. Their layout is a contract
/// between modules: members stand in the order given, with the widths given.

#include <cstddef>
#include <cstdint>

namespace quorv {

using Int = std::int64_t;
using UInt = std::uint64_t;
using Int32 = std::int32_t;
using UInt32 = std::uint32_t;
using Int16 = std::int16_t;
using UInt16 = std::uint16_t;
using UInt8 = std::uint8_t;
using Float64 = double;
using Float32 = float;
using Bool = bool;
using Char = char;

/// Where an error or an allocation was made: file name and line.
struct SourceLocation {
    const char* file = nullptr;
    Int32 line = 0;
};

#define QUORV_SOURCE_LOCATION (::quorv::SourceLocation{__FILE__, __LINE__})

/// Three 64-bit floats.
struct Vector64 {
    Float64 x = 0.0, y = 0.0, z = 0.0;
    friend bool operator==(const Vector64&, const Vector64&) = default;
};

/// Three 32-bit floats.
struct Vector32 {
    Float32 x = 0.0f, y = 0.0f, z = 0.0f;
    friend bool operator==(const Vector32&, const Vector32&) = default;
};

/// Two 64-bit floats.
struct Vector2d64 {
    Float64 x = 0.0, y = 0.0;
    friend bool operator==(const Vector2d64&, const Vector2d64&) = default;
};

/// Affine transform: a point maps to offset + axisX*x + axisY*y + axisZ*z.
struct Matrix64 {
    Vector64 offset{0.0, 0.0, 0.0};
    Vector64 axisX{1.0, 0.0, 0.0};
    Vector64 axisY{0.0, 1.0, 0.0};
    Vector64 axisZ{0.0, 0.0, 1.0};
    friend bool operator==(const Matrix64&, const Matrix64&) = default;
};

/// Colour in three 64-bit floats.
struct Color64 {
    Float64 r = 0.0, g = 0.0, b = 0.0;
    friend bool operator==(const Color64&, const Color64&) = default;
};

/// Colour with alpha in 64 bits per channel.
struct ColorA64 {
    Float64 r = 0.0, g = 0.0, b = 0.0, a = 0.0;
    friend bool operator==(const ColorA64&, const ColorA64&) = default;
};

/// Colour with alpha in 32 bits per channel.
struct ColorA32 {
    Float32 r = 0.0f, g = 0.0f, b = 0.0f, a = 0.0f;
    friend bool operator==(const ColorA32&, const ColorA32&) = default;
};

}  // namespace quorv
