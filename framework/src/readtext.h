#pragma once
// Reads a text out of a host call of the form (buffer, capacity) -> needed length.

#include <string>

#include "quorv/base.h"

namespace quorv {

template <typename F>
std::string ReadHostText(F read) {
    char local[256];
    Int n = read(local, static_cast<Int>(sizeof(local)));
    if (n < static_cast<Int>(sizeof(local))) {
        return std::string(local, static_cast<size_t>(n > 0 ? n : 0));
    }
    std::string s(static_cast<size_t>(n) + 1, '\0');
    n = read(s.data(), static_cast<Int>(s.size()));
    s.resize(static_cast<size_t>(n));
    return s;
}

}  // namespace quorv
