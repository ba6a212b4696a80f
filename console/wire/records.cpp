#include "records.h"

#include "protocol.h"

#include <algorithm>

namespace qorctl {

namespace {

struct PrimitiveName {
    char sign;
    std::string_view name;
};
constexpr PrimitiveName PRIMITIVES[] = {
    {'Z', "boolean"}, {'B', "byte"}, {'C', "char"},  {'S', "short"},
    {'I', "int"},     {'J', "long"}, {'F', "float"}, {'D', "double"},
};

} // namespace

Fields Split(std::string_view text, char separator) {
    Fields pieces;
    size_t start = 0;
    for (size_t end; (end = text.find(separator, start)) != text.npos; start = end + 1)
        pieces.push_back(text.substr(start, end - start));
    pieces.push_back(text.substr(start));
    return pieces;
}

std::optional<std::string> ReadOptional(std::string_view field) {
    return field == NO_VALUE ? std::nullopt : std::optional<std::string>(field);
}

// The thread number may be negative, so the first bar after a digit is the separator.
bool ReadKey(std::string_view text, ThreadKey *key, bool bare) {
    if (bare && ReadNumber(text, &key->thread))
        return true;
    size_t bar = text.find('-', 1);
    return bar != text.npos && ReadNumber(text.substr(0, bar), &key->process) &&
           ReadNumber(text.substr(bar + 1), &key->thread);
}

std::string JavaName(std::string_view signature) {
    size_t dimensions = std::min(signature.find_first_not_of('['), signature.size());
    std::string_view element = signature.substr(dimensions);
    std::string name;
    if (element.size() > 2 && element.front() == 'L' && element.back() == ';') {
        name = element.substr(1, element.size() - 2);
        std::replace(name.begin(), name.end(), '/', '.');
    }
    for (const PrimitiveName &row : PRIMITIVES)
        if (element.size() == 1 && element[0] == row.sign)
            name = row.name;
    if (name.empty())
        return std::string(signature);
    for (size_t i = 0; i < dimensions; ++i)
        name += "[]";
    return name;
}

Failure UnknownForm(const std::string &what) {
    return Failure(what, "see the reply itself with 'raw'; agent and qorctl may be of different versions");
}

} // namespace qorctl
