// What the readers of text dumps share: lines of a large file, their fields, the largest arrays met.
#pragma once

#include "text_dump.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

// Lines of a file, whatever its size, with a buffer of one block and the longest line.
class LineReader {
public:
    explicit LineReader(FILE *file) : file_(file) {}

    // The next line without its end. False at the file's end; what is there without an end is a line too.
    bool Next(std::string_view *line);
    int64_t number() const { return number_; }

    // A Failure that names the line; and the fields of one, which may be that.
    [[noreturn]] void Wrong() const;
    int64_t Number(std::string_view text) const;
    int64_t Hex(std::string_view text) const;

private:
    void Fill();

    FILE *file_;
    std::string buffer_;
    size_t start_ = 0, searched_ = 0;
    int64_t number_ = 0;
    bool at_end_ = false;
};

// Cuts the piece before the next bar, or all that is left, off `text`.
std::string_view Piece(std::string_view *text);

// Keeps the largest arrays.
class ArrayRanking {
public:
    explicit ArrayRanking(size_t limit) : limit_(limit) {}
    void Add(const DumpArray &array);
    std::vector<DumpArray> Take(); // largest first

private:
    size_t limit_;
    std::vector<DumpArray> arrays_; // the smallest in front
};

} // namespace qorctl
