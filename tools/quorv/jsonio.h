#pragma once
// JSON forms of the values the command line reads and writes. Numbers are written so that they
// read back to the same bits; the non-finite ones, which JSON lacks, as the strings "inf",
// "-inf" and "nan".

#include <nlohmann/json.hpp>
#include <string>

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

/// One line of output: compact JSON.
std::string Line(const Json& j);
/// The error object of a failed line.
Json ErrorJson(const std::string& message);

}  // namespace quorv::cli
