// Number formatting.
#include <cmath>
#include <cstdio>
#include <string>

#include "host_internal.h"
#include "quorv/string.h"
#include "quorv/stringconversion.h"
#include "services_impl.h"

namespace quorv::host {

namespace {

// Drops trailing zeros of a fraction, and the point when nothing stays behind it.
void TrimZeros(std::string& s) {
    if (s.find('.') == std::string::npos) return;
    while (!s.empty() && s.back() == '0') s.pop_back();
    if (!s.empty() && s.back() == '.') s.pop_back();
}

std::string Format(Float64 value, Int32 width, Int32 afterComma, Bool exponent, Char fill) {
    std::string s;
    if (std::isnan(value)) {
        s = "nan";
    } else if (std::isinf(value)) {
        s = value < 0 ? "-inf" : "inf";
    } else {
        int digits = afterComma < 0 ? -afterComma : afterComma;
        if (digits > 60) digits = 60;
        char buffer[FLOATTOSTRING_BUFFER];
        std::snprintf(buffer, sizeof(buffer), exponent ? "%.*e" : "%.*f", digits, value);
        s = buffer;
        std::string tail;
        if (exponent) {
            size_t e = s.find('e');
            tail = s.substr(e);
            s.resize(e);
        }
        if (afterComma < 0) TrimZeros(s);
        // A zero never keeps the sign of a tiny negative value or of -0.0.
        if (s.find_first_not_of("-0.") == std::string::npos && s[0] == '-') s.erase(0, 1);
        s += tail;
    }
    if (width > 0 && static_cast<Int32>(s.size()) < width) {
        s.insert(0, static_cast<size_t>(width) - s.size(), fill);
    }
    return s;
}

Int FloatToString(Float64 value, Int32 width, Int32 afterComma, Bool exponent, Char fill,
                  char* buffer, Int capacity) {
    try {
        return WriteTextToBuffer(Format(value, width, afterComma, exponent, fill), buffer, capacity);
    } catch (...) {
        return WriteTextToBuffer({}, buffer, capacity);
    }
}

Int IntToString(Int value, char* buffer, Int capacity) {
    char text[32];
    int n = std::snprintf(text, sizeof(text), "%lld", static_cast<long long>(value));
    return WriteTextToBuffer(std::string_view(text, static_cast<size_t>(n)), buffer, capacity);
}

Result<void> AppendText(StringObject* s, std::string_view text) {
    if (!s) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "String missing");
    Result<String> part = String::FromText(text);
    if (part.IsError()) return part.GetError();
    return StringInterface::Append(s, part.GetValue().GetObject());
}

Result<void> AppendFloat(StringObject* s, Float64 value, Int32 width, Int32 afterComma,
                         Bool exponent, Char fill) {
    return GuardAllocation(
        [&] { return AppendText(s, Format(value, width, afterComma, exponent, fill)); });
}

Result<void> AppendInt(StringObject* s, Int value) {
    char text[32];
    int n = std::snprintf(text, sizeof(text), "%lld", static_cast<long long>(value));
    return AppendText(s, std::string_view(text, static_cast<size_t>(n)));
}

const StringConversionInterface::Slots g_slots{
    .FloatToString = &FloatToString,
    .IntToString = &IntToString,
    .AppendFloat = &AppendFloat,
    .AppendInt = &AppendInt,
};

}  // namespace

void RegisterStringConversionService(Host& host) {
    host.RegisterService<StringConversionInterface>(g_slots);
}

}  // namespace quorv::host
