#include "signature.h"

#include "qorStrUtils.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr struct {
    char code;
    const char *name;
} PRIMITIVES[] = {
    {'I', "Integer"}, {'J', "Long"},   {'C', "Char"}, {'Z', "Boolean"},
    {'F', "Float"},   {'D', "Double"}, {'B', "Byte"}, {'S', "Short"},
};

constexpr char ARRAY_WORD[] = "Array ";
constexpr int32_t LONGEST_NUMBER = 40;

void AppendReal(QorText *out, double value) {
    char text[512];
    const int32_t length = snprintf(text, sizeof text, "%f", value);
    if (length <= LONGEST_NUMBER)
        QorTextAppend(out, text, length);
    else
        QorTextAppend(out, text, snprintf(text, sizeof text, "%g", value));
}

// Letters and digits as they are, other characters as their number.
void AppendChar(QorText *out, uint16_t c) {
    const bool shown = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (shown)
        QorTextAppendChar(out, static_cast<char>(c));
    else
        QorTextAppendNumber(out, c);
}

template <typename T>
T FromBits(uint64_t bits) {
    T value;
    memcpy(&value, &bits, sizeof value);
    return value;
}

} // namespace

const char *QorTypeName(const char *signature, char *out, int32_t size) {
    QorText text;
    QorTextStart(&text, out, size);
    while (*signature == '[') {
        if (text.length + static_cast<int32_t>(sizeof ARRAY_WORD) < size)
            QorTextAppend(&text, ARRAY_WORD);
        signature++;
    }
    for (const auto &row : PRIMITIVES)
        if (row.code == *signature) {
            if (text.length + static_cast<int32_t>(strlen(row.name)) < size)
                QorTextAppend(&text, row.name);
            return signature + 1;
        }
    const char *end = *signature == 'L' ? strchr(signature, ';') : nullptr;
    if (!end) {
        QorTextCut(&text, 0);
        return nullptr;
    }
    const auto length = static_cast<int32_t>(end - signature - 1);
    char *const name = out + text.length;
    QorTextAppend(&text, signature + 1, std::min(length, size - 1 - text.length));
    std::replace(name, out + text.length, '/', '.');
    return end + 1;
}

bool meth_sig_parser(const char *signature, const char **at, QorArgument *out) {
    if (!*at) {
        if (*signature != '(')
            return false;
        *at = signature + 1;
    }
    out->code = **at;
    const char *next = QorTypeName(*at, out->type, sizeof out->type); // ")" isn't a type
    if (!next)
        return false;
    *at = next;
    return true;
}

void QorAppendValue(QorText *out, char code, uint64_t bits) {
    switch (code) {
    case 'Z':
        QorTextAppend(out, bits & 0xff ? "True" : "False");
        break;
    case 'C':
        AppendChar(out, static_cast<uint16_t>(bits));
        break;
    case 'F':
        AppendReal(out, static_cast<double>(FromBits<float>(bits)));
        break;
    case 'D':
        AppendReal(out, FromBits<double>(bits));
        break;
    case 'B':
        QorTextAppendNumber(out, static_cast<int8_t>(bits));
        break;
    case 'S':
        QorTextAppendNumber(out, static_cast<int16_t>(bits));
        break;
    case 'I':
        QorTextAppendNumber(out, static_cast<int32_t>(bits));
        break;
    case 'J':
        QorTextAppendNumber(out, static_cast<int64_t>(bits));
        break;
    default:
        break;
    }
}
