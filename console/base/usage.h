// Help with a wrong command line, and help that fits a terminal.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

// The known word that is nearest to a misspelt one; empty when none is near.
std::string Nearest(std::string_view word, const std::vector<std::string> &known);

// The text with its longer lines broken at blanks to `width` columns. What is continued of a row of two
// columns begins at `column`.
std::string WrapHelp(std::string_view text, size_t width, size_t column);

} // namespace qorctl
