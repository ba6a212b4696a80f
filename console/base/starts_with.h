// What std::string_view learns in C++20.
#pragma once

#include <string_view>

namespace qorctl {

inline bool StartsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

} // namespace qorctl
