#include "jsonio.h"

#include <cmath>

namespace quorv::cli {

Json NumberToJson(Float64 v) {
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
    return v;
}

bool JsonToNumber(const Json& j, Float64* out) {
    if (j.is_number()) {
        *out = j.get<Float64>();
        return true;
    }
    if (j.is_string()) {
        const std::string& s = j.get_ref<const std::string&>();
        if (s == "nan") *out = std::nan("");
        else if (s == "inf") *out = INFINITY;
        else if (s == "-inf") *out = -INFINITY;
        else return false;
        return true;
    }
    return false;
}

Json ToJson(const Vector64& v) {
    return Json::array({NumberToJson(v.x), NumberToJson(v.y), NumberToJson(v.z)});
}

Json ToJson(const Vector2d64& v) { return Json::array({NumberToJson(v.x), NumberToJson(v.y)}); }

Json ToJson(const Matrix64& m) {
    return Json{{"offset", ToJson(m.offset)},
                {"axisX", ToJson(m.axisX)},
                {"axisY", ToJson(m.axisY)},
                {"axisZ", ToJson(m.axisZ)}};
}

bool FromJson(const Json& j, Vector64* out) {
    return j.is_array() && j.size() == 3 && JsonToNumber(j[0], &out->x) &&
           JsonToNumber(j[1], &out->y) && JsonToNumber(j[2], &out->z);
}

bool FromJson(const Json& j, Vector2d64* out) {
    return j.is_array() && j.size() == 2 && JsonToNumber(j[0], &out->x) &&
           JsonToNumber(j[1], &out->y);
}

bool FromJson(const Json& j, Matrix64* out) {
    if (!j.is_object()) return false;
    for (auto& [key, value] : j.items()) {
        Vector64* part = key == "offset"  ? &out->offset
                         : key == "axisX" ? &out->axisX
                         : key == "axisY" ? &out->axisY
                         : key == "axisZ" ? &out->axisZ
                                          : nullptr;
        if (!part || !FromJson(value, part)) return false;
    }
    return true;
}

Json DataToJson(const Data& value) {
    const DataType* t = value.GetType();
    if (!t) return nullptr;
    if (const auto* v = value.Get<Float64>()) return NumberToJson(*v);
    if (const auto* v = value.Get<Float32>()) return NumberToJson(*v);
    if (const auto* v = value.Get<Int>()) return *v;
    if (const auto* v = value.Get<Int32>()) return *v;
    if (const auto* v = value.Get<Bool>()) return *v;
    if (const auto* v = value.Get<std::string>()) return *v;
    if (const auto* v = value.Get<Vector2d64>()) return ToJson(*v);
    if (const auto* v = value.Get<Vector64>()) return ToJson(*v);
    if (const auto* v = value.Get<Matrix64>()) return ToJson(*v);
    return nullptr;
}

namespace {

template <typename T>
Result<Data> Wrap(const T& v) {
    Data d = Data::Of(v);
    if (d.IsEmpty()) return OutOfMemoryError();
    return d;
}

Error BadValue(const Json& j, const std::string& typeId) {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     FormatMessage("Value @ is not a @", {j.dump(), typeId}));
}

}  // namespace

Result<Data> JsonToData(const Json& j, const std::string& typeId) {
    if (typeId == DataTypeIdOf<Float64>::id) {
        Float64 v;
        if (!JsonToNumber(j, &v)) return BadValue(j, typeId);
        return Wrap(v);
    }
    if (typeId == DataTypeIdOf<Int>::id || typeId == DataTypeIdOf<Int32>::id) {
        if (!j.is_number_integer()) return BadValue(j, typeId);
        if (typeId == DataTypeIdOf<Int32>::id) return Wrap(j.get<Int32>());
        return Wrap(j.get<Int>());
    }
    if (typeId == DataTypeIdOf<Bool>::id) {
        if (!j.is_boolean()) return BadValue(j, typeId);
        return Wrap(j.get<Bool>());
    }
    if (typeId == DataTypeIdOf<std::string>::id) {
        if (!j.is_string()) return BadValue(j, typeId);
        return Wrap(j.get<std::string>());
    }
    if (typeId == DataTypeIdOf<Vector2d64>::id) {
        Vector2d64 v;
        if (!FromJson(j, &v)) return BadValue(j, typeId);
        return Wrap(v);
    }
    if (typeId == DataTypeIdOf<Vector64>::id) {
        Vector64 v;
        if (!FromJson(j, &v)) return BadValue(j, typeId);
        return Wrap(v);
    }
    if (typeId == DataTypeIdOf<Matrix64>::id) {
        Matrix64 m;
        if (!FromJson(j, &m)) return BadValue(j, typeId);
        return Wrap(m);
    }
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     FormatMessage("Values of type @ cannot be given as JSON", {typeId}));
}

std::string Line(const Json& j) { return j.dump(); }

Json ErrorJson(const std::string& message) { return Json{{"error", message}}; }

}  // namespace quorv::cli
