#include "terminal.h"

#include <algorithm>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr size_t LEAST_COLUMN = 8; // what a column keeps when a table is cut to the terminal
constexpr size_t GAP = 2;

constexpr const char *RESET = "\x1b[0m";

// One code point of UTF-8 at the start of `text`: its length in bytes, 0 when the bytes aren't UTF-8.
size_t CodePoint(std::string_view text, char32_t *value) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    size_t length = byte(0) < 0x80 ? 1 : byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : byte(0) >= 0xc2 ? 2 : 0;
    if (length == 0 || length > text.size() || byte(0) > 0xf4)
        return 0;
    *value = length == 1 ? byte(0) : byte(0) & (0xff >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
        *value = *value << 6 | (byte(i) & 0x3f);
    }
    constexpr char32_t SHORTEST[] = {0, 0, 0x80, 0x800, 0x10000};
    bool surrogate = *value >= 0xd800 && *value <= 0xdfff;
    return *value < SHORTEST[length] || *value > 0x10ffff || surrogate ? 0 : length;
}

bool SteersTerminal(char32_t c) {
    return c < 32 || (c >= 0x7f && c < 0xa0) || (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
}

struct Range {
    char32_t first, last;
    size_t width;
};
constexpr Range WIDTHS[] = {
    {0x300, 0x36f, 0},     {0x200b, 0x200f, 0}, {0xfe00, 0xfe0f, 0},   {0x1100, 0x115f, 2},
    {0x2e80, 0xa4cf, 2},   {0xac00, 0xd7a3, 2}, {0xf900, 0xfaff, 2},   {0xfe30, 0xfe6f, 2},
    {0xff00, 0xff60, 2},   {0xffe0, 0xffe6, 2}, {0x1f300, 0x1f64f, 2}, {0x1f900, 0x1f9ff, 2},
    {0x20000, 0x3fffd, 2},
};

size_t Width(char32_t c) {
    for (const Range &range : WIDTHS)
        if (c >= range.first && c <= range.last)
            return range.width;
    return 1;
}

// Cuts printable text to `width` columns; the last one says that something is missing.
std::string Fit(const std::string &text, size_t width) {
    if (DisplayWidth(text) <= width)
        return text;
    size_t used = 0, at = 0;
    char32_t c = 0;
    while (at < text.size()) {
        size_t length = std::max<size_t>(CodePoint(std::string_view(text).substr(at), &c), 1);
        if (used + Width(c) + 1 > width)
            break;
        used += Width(c);
        at += length;
    }
    return text.substr(0, at) + "\xe2\x80\xa6"; // an ellipsis
}

} // namespace

std::string Coloured(const std::string &text, const char *code, const Style &style) {
    return style.colour && code ? fmt::format("{}{}{}", code, text, RESET) : text;
}

size_t DisplayWidth(std::string_view text) {
    size_t width = 0;
    char32_t c = 0;
    for (size_t at = 0; at < text.size();) {
        size_t length = CodePoint(text.substr(at), &c);
        width += length ? Width(c) : 1;
        at += std::max<size_t>(length, 1);
    }
    return width;
}

std::string Printable(std::string_view text) {
    std::string out;
    char32_t c = 0;
    for (size_t at = 0; at < text.size();) {
        size_t length = CodePoint(text.substr(at), &c);
        bool plain = length > 0 && !SteersTerminal(c);
        length = std::max<size_t>(length, 1);
        for (size_t i = at; i < at + length; ++i)
            plain ? out += text[i] : out += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[i]));
        at += length;
    }
    return out;
}

std::string FailureText(const Failure &failure) {
    return Printable(fmt::format("{}; {}", failure.what(), failure.hint));
}

std::string FitLine(const std::string &text, const Style &style) {
    return style.width == 0 ? text : Fit(text, style.width);
}

std::string Table::Text(const Style &style) const {
    std::vector<size_t> widths = Widths(style);
    std::vector<Cell> titles;
    for (const Column &column : columns_)
        titles.emplace_back(column.title, BOLD);
    std::string text = Line(titles, widths, style);
    for (const std::vector<Cell> &row : rows_)
        text += Line(row, widths, style);
    return text;
}

std::vector<size_t> Table::Widths(const Style &style) const {
    std::vector<size_t> widths;
    size_t total = 0;
    for (size_t i = 0; i < columns_.size(); ++i) {
        size_t width = DisplayWidth(columns_[i].title);
        for (const std::vector<Cell> &row : rows_)
            width = std::max(width, DisplayWidth(row[i].text));
        widths.push_back(width);
        total += width + (i ? GAP : 0);
    }
    while (style.width > 0 && total > style.width) {
        size_t &widest = *std::max_element(widths.begin(), widths.end());
        if (widest <= LEAST_COLUMN)
            break;
        --widest;
        --total;
    }
    return widths;
}

std::string Table::Line(const std::vector<Cell> &row, const std::vector<size_t> &widths,
                        const Style &style) const {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
        std::string text = Fit(row[i].text, widths[i]);
        std::string blanks(widths[i] - std::min(widths[i], DisplayWidth(text)), ' ');
        bool last = i + 1 == row.size();
        text = Coloured(text, row[i].colour, style);
        line += columns_[i].to_the_right ? blanks + text : last ? text : text + blanks;
        line += last ? "" : std::string(GAP, ' ');
    }
    line.resize(line.find_last_not_of(' ') + 1);
    return line + '\n';
}

} // namespace qorctl
