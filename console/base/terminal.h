// Text for a terminal: what may be printed, how wide it is, colours, and tables of columns.
#pragma once

#include "failure.h"

#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

struct Style {
    bool colour = false;
    size_t width = 0; // columns of a line; 0: as long as it needs
};

constexpr const char *BOLD = "\x1b[1m";
constexpr const char *DIM = "\x1b[2m";

// The text in a colour (BOLD, ... or null for none), if the style has colours.
std::string Coloured(const std::string &text, const char *code, const Style &style);

// Text that is safe to print: control characters become "\xNN", bytes that aren't UTF-8 as well.
std::string Printable(std::string_view text);

// A failure as the user sees it; what it quotes of the other side is made printable.
std::string FailureText(const Failure &failure);

// Columns that printable text takes on a terminal.
size_t DisplayWidth(std::string_view text);

// Printable text cut to the style's width.
std::string FitLine(const std::string &text, const Style &style);

// Text of a table, made printable.
struct Cell {
    Cell(const std::string &cell_text = "", const char *cell_colour = nullptr)
        : text(Printable(cell_text)), colour(cell_colour) {}
    std::string text;
    const char *colour;
};

struct Column {
    const char *title;
    bool to_the_right = false;
};

// Rows under titles, each column as wide as its widest cell; cut to the style's width, widest columns first.
class Table {
public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void Add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
    std::string Text(const Style &style) const;

private:
    std::vector<size_t> Widths(const Style &style) const;
    std::string Line(const std::vector<Cell> &row, const std::vector<size_t> &widths,
                     const Style &style) const;

    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

} // namespace qorctl
