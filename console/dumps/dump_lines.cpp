#include "dump_lines.h"

#include "base/failure.h"
#include "wire/records.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr size_t READ_SIZE = 1 << 20;
constexpr size_t LONGEST_LINE = 1 << 18;

bool Larger(const DumpArray &a, const DumpArray &b) {
    return a.bytes != b.bytes ? a.bytes > b.bytes : a.object < b.object;
}

} // namespace

bool LineReader::Next(std::string_view *line) {
    for (;;) {
        size_t end = buffer_.find('\n', searched_);
        if (end != buffer_.npos || (at_end_ && start_ < buffer_.size())) {
            end = std::min(end, buffer_.size());
            *line = std::string_view(buffer_).substr(start_, end - start_);
            start_ = searched_ = std::min(end + 1, buffer_.size());
            ++number_;
            return true;
        }
        if (at_end_)
            return false;
        Fill();
    }
}

void LineReader::Wrong() const {
    throw Failure(fmt::format("line {} of the dump has an unknown form", number_),
                  "the file was changed or is of another kind; make a new dump");
}

int64_t LineReader::Number(std::string_view text) const {
    int64_t value = 0;
    if (!ReadNumber(text, &value))
        Wrong();
    return value;
}

int64_t LineReader::Hex(std::string_view text) const {
    int64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc() || end != text.data() + text.size() || value < 0)
        Wrong();
    return value;
}

void LineReader::Fill() {
    buffer_.erase(0, start_);
    start_ = 0;
    searched_ = buffer_.size();
    if (buffer_.size() > LONGEST_LINE)
        throw Failure(fmt::format("line {} has no end", number_ + 1), "this isn't a text dump");
    size_t had = buffer_.size();
    buffer_.resize(had + READ_SIZE);
    size_t got = fread(&buffer_[had], 1, READ_SIZE, file_);
    buffer_.resize(had + got);
    if (ferror(file_))
        throw Failure(fmt::format("the dump can't be read: {}", strerror(errno)), "check the disk");
    at_end_ = got == 0;
}

std::string_view Piece(std::string_view *text) {
    size_t bar = text->find('|');
    std::string_view piece = text->substr(0, bar);
    text->remove_prefix(bar == text->npos ? text->size() : bar + 1);
    return piece;
}

void ArrayRanking::Add(const DumpArray &array) {
    if (limit_ == 0 || (arrays_.size() == limit_ && !Larger(array, arrays_.front())))
        return;
    if (arrays_.size() == limit_) {
        std::pop_heap(arrays_.begin(), arrays_.end(), Larger);
        arrays_.pop_back();
    }
    arrays_.push_back(array);
    std::push_heap(arrays_.begin(), arrays_.end(), Larger);
}

std::vector<DumpArray> ArrayRanking::Take() {
    std::sort_heap(arrays_.begin(), arrays_.end(), Larger);
    return std::move(arrays_);
}

} // namespace qorctl
