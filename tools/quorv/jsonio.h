#pragma once
// JSON forms of the values the command line reads and writes. Numbers are written so that they
// read back to the same bits; the non-finite ones, which JSON lacks, as the strings "inf",
// "-inf" and "nan".

#include <cstdio>
#include <functional>
#include <istream>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorv/datadictionary.h"

namespace quorv::cli {

using Json = nlohmann::json;

Json NumberToJson(Float64 v);
/// Reads a number or one of the non-finite strings; false on anything else.
bool JsonToNumber(const Json& j, Float64* out);

Json ToJson(const Vector64& v);
Json ToJson(const Vector2d64& v);
Json ToJson(const Matrix64& m);
bool FromJson(const Json& j, Vector64* out);
bool FromJson(const Json& j, Vector2d64* out);
/// A matrix is an object of "offset", "axisX", "axisY", "axisZ"; missing parts keep identity.
bool FromJson(const Json& j, Matrix64* out);

/// A dictionary value of a known type as JSON; null for types without a JSON form.
Json DataToJson(const Data& value);
/// A value of the data type `typeId` from JSON; an error names the type.
Result<Data> JsonToData(const Json& j, const std::string& typeId);

/// Longest input line read; a longer one is answered with an error without being parsed.
constexpr size_t MAX_LINE_BYTES = size_t{1} << 20;
/// Deepest nesting of arrays and objects accepted; deeper input is refused while parsing, before
/// a value is built, so copying or destroying a value can never exhaust the stack.
constexpr int MAX_JSON_DEPTH = 64;
/// Characters of the input an error message quotes at most.
constexpr size_t MAX_QUOTED_CHARS = 200;

/// A bad field inside a line; `RunJsonLines` answers it as the line's error object.
struct LineError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// `text` cut to MAX_QUOTED_CHARS characters, with "..." when cut.
std::string Quote(std::string_view text);
/// The compact JSON of `j`, cut like `Quote`.
std::string QuoteJson(const Json& j);

/// Parses one JSON value. Refuses, with a message in `error`: a NUL byte, nesting deeper than
/// MAX_JSON_DEPTH, numbers out of the Float64 range ("number out of range") and anything that is
/// not JSON. Never throws.
bool ParseJson(std::string_view text, Json* out, std::string* error);

/// Reads an integer of type `T`: a JSON integer within T's range; false for fractions, other
/// types and out-of-range values.
template <typename T>
bool JsonToInteger(const Json& j, T* out) {
    static_assert(std::is_integral_v<T>);
    if (j.is_number_unsigned()) {
        const auto v = j.get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(std::numeric_limits<T>::max())) return false;
        *out = static_cast<T>(v);
        return true;
    }
    if (j.is_number_integer()) {
        const auto v = j.get<std::int64_t>();
        if constexpr (std::is_unsigned_v<T>) {
            if (v < 0 || static_cast<std::uint64_t>(v) > std::numeric_limits<T>::max()) return false;
        } else {
            if (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max()) return false;
        }
        *out = static_cast<T>(v);
        return true;
    }
    return false;
}

/// Field readers for line handlers. A missing field gives `fallback` (or, for the `Need`
/// forms, a LineError); a present field of the wrong type or range throws a LineError naming it.
const Json* FindField(const Json& line, const char* name);
bool GetBoolField(const Json& line, const char* name, bool fallback);
Float64 GetNumberField(const Json& line, const char* name, Float64 fallback);
Float64 NeedNumberField(const Json& line, const char* name);
Vector64 GetVectorField(const Json& line, const char* name, const Vector64& fallback);
Vector64 NeedVectorField(const Json& line, const char* name);
template <typename T>
T GetIntegerField(const Json& line, const char* name, T fallback) {
    const Json* j = FindField(line, name);
    if (!j) return fallback;
    T v;
    if (!JsonToInteger(*j, &v)) {
        throw LineError("\"" + std::string(name) + "\" must be an integer from " +
                        std::to_string(std::numeric_limits<T>::min()) + " to " +
                        std::to_string(std::numeric_limits<T>::max()));
    }
    return v;
}

/// Splits each "KEY=JSON" of a repeated --param option and parses its value with ParseJson;
/// prints "quorv: --param ...: reason" and returns false on the first bad one.
bool ParseParamOptions(const std::vector<std::string>& options,
                       std::vector<std::pair<std::string, Json>>* out);

/// Parses `X,Y,Z`: three numbers and nothing else.
bool ParseVectorText(std::string_view text, Vector64* out);

/// Runs a JSON-lines session: reads lines from `in` (blank lines skipped), answers each with one
/// compact JSON line on stdout, flushed. A line that is too long, holds a NUL, is too deep or is
/// not JSON, a handler's LineError, a JSON type error and out of memory are all answered with an
/// error object and the run goes on. Returns 0, or 1 (with a message on stderr) when stdout
/// cannot be written.
int RunJsonLines(std::istream& in, const std::function<Json(const Json&)>& handle);

/// Writes `text` and a line feed to stdout, flushed; false (with a message on stderr) on failure.
bool WriteOutputLine(const std::string& text);

/// One line of output: compact JSON.
std::string Line(const Json& j);
/// The error object of a failed line.
Json ErrorJson(const std::string& message);

}  // namespace quorv::cli
