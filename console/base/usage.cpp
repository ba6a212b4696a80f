#include "usage.h"

#include <algorithm>

namespace qorctl {

namespace {

// Letters to put in, leave out or change, where two neighbours that changed places count as one change.
size_t Distance(std::string_view a, std::string_view b) {
    std::vector<std::vector<size_t>> at(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                at[i][j] = i + j;
                continue;
            }
            const bool equal = a[i - 1] == b[j - 1];
            at[i][j] = std::min({at[i - 1][j] + 1, at[i][j - 1] + 1, at[i - 1][j - 1] + (equal ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                at[i][j] = std::min(at[i][j], at[i - 2][j - 2] + 1);
        }
    return at[a.size()][b.size()];
}

} // namespace

std::string Nearest(std::string_view word, const std::vector<std::string> &known) {
    std::string nearest;
    size_t least = word.size() / 3 + 1; // half of a short word may be wrong, of a long one less
    for (const std::string &each : known) {
        const bool begins = word.size() > 1 && each.compare(0, word.size(), word) == 0;
        const size_t distance = begins ? 0 : Distance(word, each);
        if (distance < least || (distance == least && nearest.empty())) {
            least = distance;
            nearest = each;
        }
    }
    return nearest;
}

std::string WrapHelp(std::string_view text, size_t width, size_t column) {
    std::string wrapped;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const size_t indent = line.substr(0, 2) == "  " ? column : 0;
        size_t room = width, first = indent + 1; // where a break may be
        while (line.size() > room) {
            const size_t blank = line.rfind(' ', room);
            if (blank == line.npos || blank < first)
                break;
            wrapped.append(line.substr(0, blank)).append("\n").append(indent, ' ');
            line.remove_prefix(blank + 1);
            room = width - indent;
            first = 1;
        }
        wrapped.append(line).append("\n");
    }
    return wrapped;
}

} // namespace qorctl
