#include "jsonio.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <new>

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
    if (const auto* v = value.Get<UInt32>()) return *v;
    if (const auto* v = value.Get<Id>()) return std::string(v->View());
    if (const auto* v = value.Get<Color64>()) return Json::array({NumberToJson(v->r), NumberToJson(v->g), NumberToJson(v->b)});
    if (const auto* v = value.Get<Vector2i64>()) return Json::array({v->x, v->y});
    if (const auto* v = value.Get<TimeValue>()) return NumberToJson(v->seconds);
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
                     FormatMessage("Value @ is not a @", {QuoteJson(j), typeId}));
}

}  // namespace

Result<Data> JsonToData(const Json& j, const std::string& typeId) {
    if (typeId == DataTypeIdOf<Float64>::id) {
        Float64 v;
        if (!JsonToNumber(j, &v)) return BadValue(j, typeId);
        return Wrap(v);
    }
    if (typeId == DataTypeIdOf<Int32>::id) {
        Int32 v;
        if (!JsonToInteger(j, &v)) return BadValue(j, typeId);
        return Wrap(v);
    }
    if (typeId == DataTypeIdOf<Int>::id) {
        Int v;
        if (!JsonToInteger(j, &v)) return BadValue(j, typeId);
        return Wrap(v);
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
    if (typeId == DataTypeIdOf<UInt32>::id) {
        UInt32 v;
        if (!JsonToInteger(j, &v)) return BadValue(j, typeId);
        return Wrap(v);
    }
    if (typeId == DataTypeIdOf<Id>::id) {
        if (!j.is_string()) return BadValue(j, typeId);
        const std::string text = j.get<std::string>();
        const Id id = Id::Intern(text);
        if (id.IsEmpty() && !text.empty()) return OutOfMemoryError();
        return Wrap(id);
    }
    if (typeId == DataTypeIdOf<Color64>::id) {
        Vector64 v;
        if (!FromJson(j, &v)) return BadValue(j, typeId);
        return Wrap(Color64{v.x, v.y, v.z});
    }
    if (typeId == DataTypeIdOf<Vector2i64>::id) {
        Vector2i64 v;
        if (!j.is_array() || j.size() != 2 || !JsonToInteger(j[0], &v.x) || !JsonToInteger(j[1], &v.y)) {
            return BadValue(j, typeId);
        }
        return Wrap(v);
    }
    if (typeId == DataTypeIdOf<TimeValue>::id) {
        Float64 v;
        if (!JsonToNumber(j, &v) || std::isnan(v)) return BadValue(j, typeId);
        return Wrap(TimeValue{v});
    }
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     FormatMessage("Values of type @ cannot be given as JSON", {typeId}));
}

// Text quoted from the input may hold bytes that are not UTF-8; they print as U+FFFD.
std::string Line(const Json& j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string Quote(std::string_view text) {
    if (text.size() <= MAX_QUOTED_CHARS) return std::string(text);
    return std::string(text.substr(0, MAX_QUOTED_CHARS)) + "...";
}

std::string QuoteJson(const Json& j) {
    // A value from a parsed line is at most MAX_LINE_BYTES long; dumping it is cheap.
    return Quote(Line(j));
}

namespace {

// The deepest nesting of `text`, counted outside strings; stops counting past the limit.
bool NestingWithinLimit(std::string_view text) {
    int depth = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') ++i;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > MAX_JSON_DEPTH) return false;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return true;
}

}  // namespace

bool ParseJson(std::string_view text, Json* out, std::string* error) {
    // The parser takes a NUL for the end of its input: "[1,2]<NUL>junk" would read as [1,2].
    if (text.find('\0') != std::string_view::npos) {
        *error = "line holds a NUL byte";
        return false;
    }
    if (!NestingWithinLimit(text)) {
        *error = "JSON nested deeper than " + std::to_string(MAX_JSON_DEPTH) + " levels";
        return false;
    }
    try {
        *out = Json::parse(text.begin(), text.end());
        return true;
    } catch (const Json::out_of_range&) {
        *error = "number out of range in " + Quote(text);
    } catch (const Json::exception&) {
        *error = "line is not JSON: " + Quote(text);
    } catch (const std::bad_alloc&) {
        *error = "out of memory";
    }
    return false;
}

const Json* FindField(const Json& line, const char* name) {
    if (!line.is_object()) return nullptr;
    auto it = line.find(name);
    return it == line.end() ? nullptr : &*it;
}

bool GetBoolField(const Json& line, const char* name, bool fallback) {
    const Json* j = FindField(line, name);
    if (!j) return fallback;
    if (!j->is_boolean()) throw LineError("\"" + std::string(name) + "\" must be true or false");
    return j->get<bool>();
}

Float64 GetNumberField(const Json& line, const char* name, Float64 fallback) {
    const Json* j = FindField(line, name);
    if (!j) return fallback;
    Float64 v;
    if (!JsonToNumber(*j, &v)) throw LineError("\"" + std::string(name) + "\" must be a number");
    return v;
}

Float64 NeedNumberField(const Json& line, const char* name) {
    if (!FindField(line, name)) throw LineError("\"" + std::string(name) + "\" is missing");
    return GetNumberField(line, name, 0.0);
}

Vector64 GetVectorField(const Json& line, const char* name, const Vector64& fallback) {
    const Json* j = FindField(line, name);
    if (!j) return fallback;
    Vector64 v;
    if (!FromJson(*j, &v)) throw LineError("\"" + std::string(name) + "\" must be [x,y,z]");
    return v;
}

Vector64 NeedVectorField(const Json& line, const char* name) {
    if (!FindField(line, name)) throw LineError("\"" + std::string(name) + "\" is missing");
    return GetVectorField(line, name, Vector64{});
}

bool ParseParamOptions(const std::vector<std::string>& options,
                       std::vector<std::pair<std::string, Json>>* out) {
    for (const std::string& p : options) {
        const auto eq = p.find('=');
        if (eq == std::string::npos) {
            std::fprintf(stderr, "quorv: --param %s is not KEY=VALUE\n", Quote(p).c_str());
            return false;
        }
        Json value;
        std::string error;
        if (!ParseJson(std::string_view(p).substr(eq + 1), &value, &error)) {
            std::fprintf(stderr, "quorv: --param %s: %s\n", Quote(p.substr(0, eq)).c_str(),
                         error.c_str());
            return false;
        }
        out->emplace_back(p.substr(0, eq), std::move(value));
    }
    return true;
}

bool ParseVectorText(std::string_view text, Vector64* out) {
    Float64 v[3];
    size_t start = 0;
    for (int i = 0; i < 3; ++i) {
        const size_t end = i < 2 ? text.find(',', start) : text.size();
        if (end == std::string_view::npos) return false;
        std::string_view part = text.substr(start, end - start);
        // from_chars takes no leading '+' or blanks; a number is the whole part or nothing.
        auto [ptr, ec] = std::from_chars(part.data(), part.data() + part.size(), v[i]);
        if (part.empty() || ec != std::errc() || ptr != part.data() + part.size()) return false;
        start = end + 1;
    }
    *out = {v[0], v[1], v[2]};
    return true;
}

bool WriteOutputLine(const std::string& text) {
    // One lock over the line and its line feed: a thread printing events beside a JSON-lines
    // session never splits a line.
    flockfile(stdout);
    const bool ok = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
                    std::fputc('\n', stdout) != EOF && std::fflush(stdout) == 0;
    funlockfile(stdout);
    if (!ok) {
        std::fprintf(stderr, "quorv: cannot write standard output: %s\n", std::strerror(errno));
        return false;
    }
    return true;
}

namespace {

enum class LINESTATUS { LINE, TOOLONG, END };

// One line without its line feed; past MAX_LINE_BYTES the rest of the line is skipped unread.
LINESTATUS ReadLine(std::istream& in, std::string& line) {
    line.clear();
    std::streambuf* buffer = in.rdbuf();
    bool any = false;
    bool tooLong = false;
    for (;;) {
        const int c = buffer->sbumpc();
        if (c == std::char_traits<char>::eof()) {
            if (!any) return LINESTATUS::END;
            break;
        }
        any = true;
        if (c == '\n') break;
        if (line.size() < MAX_LINE_BYTES) line.push_back(static_cast<char>(c));
        else tooLong = true;
    }
    return tooLong ? LINESTATUS::TOOLONG : LINESTATUS::LINE;
}

Json AnswerLine(const std::string& text, const std::function<Json(const Json&)>& handle) {
    Json line;
    std::string error;
    if (!ParseJson(text, &line, &error)) return ErrorJson(error);
    try {
        return handle(line);
    } catch (const LineError& e) {
        return ErrorJson(e.what());
    } catch (const Json::exception& e) {
        return ErrorJson(std::string("bad value: ") + e.what());
    } catch (const std::bad_alloc&) {
        return ErrorJson("out of memory");
    }
}

}  // namespace

int RunJsonLines(std::istream& in, const std::function<Json(const Json&)>& handle) {
    std::string text;
    for (;;) {
        const LINESTATUS status = ReadLine(in, text);
        if (status == LINESTATUS::END) break;
        Json answer;
        if (status == LINESTATUS::TOOLONG) {
            answer = ErrorJson("line longer than " + std::to_string(MAX_LINE_BYTES) + " bytes");
        } else {
            if (text.find_first_not_of(" \t\r") == std::string::npos) continue;
            answer = AnswerLine(text, handle);
        }
        if (!WriteOutputLine(Line(answer))) return 1;
    }
    return 0;
}

Json ErrorJson(const std::string& message) { return Json{{"error", message}}; }

}  // namespace quorv::cli
