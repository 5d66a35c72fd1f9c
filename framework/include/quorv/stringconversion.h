#pragma once
/// Number formatting of the host.
///
/// `FloatToString(value, width, afterComma, exponent, fill, buffer, capacity)`:
/// * `afterComma` >= 0: exactly that many digits after the point ("1.500" for 3).
/// * `afterComma` < 0: at most -afterComma digits, rounded to nearest, then trailing zeros and
///   a bare point dropped: -3 gives "1.5" for 1.5, "2" for 2.0, "0.123" for 0.12345,
///   "1234.568" for 1234.5678, "0" for 0.0001 and for -0.0001 (a zero never has a sign).
/// * `exponent`: the mantissa is formatted as above, followed by "e+NN" ("1.5e+03").
/// * `width` > length: filled on the left with `fill`; -1 is no width.
/// * Non-finite values are "inf", "-inf" and "nan".
/// The answer is the length of the text; the buffer gets as much as fits and a NUL.

#include "quorv/services.h"

namespace quorv {

// clang-format off
#define QUORV_STRINGCONVERSION_METHODS(M) \
    M(Int, FloatToString, (Float64 value, Int32 width, Int32 afterComma, Bool exponent, Char fill, char* buffer, Int capacity), (value, width, afterComma, exponent, fill, buffer, capacity)) \
    M(Int, IntToString, (Int value, char* buffer, Int capacity), (value, buffer, capacity)) \
    M(Result<void>, AppendFloat, (StringObject* s, Float64 value, Int32 width, Int32 afterComma, Bool exponent, Char fill), (s, value, width, afterComma, exponent, fill)) \
    M(Result<void>, AppendInt, (StringObject* s, Int value), (s, value))
// clang-format on
QUORV_NONVIRTUAL_INTERFACE(StringConversionInterface, "net.quorv.interface.stringconversion",
                           QUORV_STRINGCONVERSION_METHODS);

/// Room for the fixed form of every double with up to 60 digits after the point, no width.
constexpr Int FLOATTOSTRING_BUFFER = 400;

}  // namespace quorv
