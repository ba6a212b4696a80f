// What the decoders share: cutting a record into fields, and going through the records of a reply.
#pragma once

#include "base/failure.h"
#include "decode.h"

#include <charconv>
#include <fmt/format.h>

namespace qorctl {

using Fields = std::vector<std::string_view>;
Fields Split(std::string_view text, char separator);

// The whole of `text` as a number; false when it isn't one, or too large.
template <class Number>
bool ReadNumber(std::string_view text, Number *value) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// The same of a hexadecimal number without a prefix.
template <class Number>
bool ReadHex(std::string_view text, Number *value) {
    uint64_t whole = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), whole, 16);
    *value = static_cast<Number>(whole);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// Nothing for the placeholder.
std::optional<std::string> ReadOptional(std::string_view field);

// A thread's key, "process-thread"; `bare`: the thread's id may be given alone.
bool ReadKey(std::string_view text, ThreadKey *key, bool bare = false);

// The JVM's name of a type ("Ljava/lang/String;", "[I") as Java has it ("java.lang.String", "int[]"); another
// text as it is.
std::string JavaName(std::string_view signature);

// What a reply of another form than its view's is answered with.
Failure UnknownForm(const std::string &what);

// Goes through the records of a reply and knows where it may have been cut.
class RecordReader {
public:
    explicit RecordReader(const Reply &reply) : reply_(reply), cut_(reply.reached_limit) {}

    bool cut() const { return cut_; }

    // Reads every record of a section by `read` into a T and hands it to `keep`.
    template <class T, class Read, class Keep>
    void Each(const Section &section, Read read, Keep keep) {
        bool last_section = &section == &reply_.sections.back();
        for (size_t i = 0; i < section.records.size(); ++i) {
            bool last = last_section && i + 1 == section.records.size();
            bool open = last && !section.closed && !section.last_record_ended;
            T value;
            if (!open && read(section.records[i], &value)) {
                keep(std::move(value));
                continue;
            }
            if (!open && !(last && !reply_.jvm_microseconds))
                throw UnknownForm(
                    fmt::format("record {} of section \"{}\" has an unknown form", i + 1, section.title));
            cut_ = true;
        }
        if (!section.closed)
            cut_ = true;
    }

    // A section of this view's that holds nothing that is needed.
    void Skip(const Section &section) { cut_ |= !section.closed; }

    // A section that isn't one of this view's. A title that was cut looks like that as well.
    void Unknown(const Section &section) {
        bool last = &section == &reply_.sections.back();
        if (last && !section.closed && section.records.empty()) {
            cut_ = true;
            return;
        }
        if (!section.title.empty() || !section.records.empty())
            throw UnknownForm(fmt::format("the reply holds an unexpected section \"{}\"", section.title));
    }

private:
    const Reply &reply_;
    bool cut_;
};

} // namespace qorctl
