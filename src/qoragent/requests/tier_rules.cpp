#include "tier_rules.h"

#include "dispatch.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qortiers.h"
#include "reply/qortext.h"
#include "request_text.h"

#include "Xtier/LocalWalk.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

namespace {

constexpr int32_t PAGE_SIZE = 65536;
constexpr int HEXADECIMAL = 16;

void AddPiece(const char *text) {
    if (QorAddTiers(text))
        QOR_REPLY("Added to tier rules");
    else
        QOR_REPLY("Tier rules refused: no text was begun");
}

void EndText(const char *crc) {
    const QorTierFault fault = QorEndTiers(static_cast<uint32_t>(strtoul(crc, nullptr, HEXADECIMAL)));
    if (!fault.reason) {
        QorForgetBoringClasses(); // the objects of other classes are of interest now
        QOR_REPLY("Tier rules in force: %d lines", QorTierLineCount());
    } else if (fault.line > 0) {
        QOR_REPLY("Tier rules refused: line %d: %s", fault.line, fault.reason);
    } else {
        QOR_REPLY("Tier rules refused: %s", fault.reason);
    }
    QORLOG(fault.reason ? LOG_ERROR : LOG_NOTE, "%s", pagebuf);
}

// Pages end between two characters; put together they are the text.
int32_t EndOfPage(std::string_view text, int32_t start) {
    const int32_t length = std::min<int32_t>(PAGE_SIZE, static_cast<int32_t>(text.size()) - start);
    const bool isLast = start + length == static_cast<int32_t>(text.size());
    return start + (isLast ? length : QorWholeCharacters(text.data() + start, length));
}

// A reply is modified UTF-8, in which a character of four bytes is two surrogates of three each.
void AppendModified(QorText *reply, std::string_view text) {
    constexpr unsigned char FOUR_BYTES = 0xf0;
    for (size_t at = 0; at < text.size();) {
        const auto *bytes = reinterpret_cast<const unsigned char *>(text.data() + at);
        if (bytes[0] < FOUR_BYTES || text.size() - at < 4) {
            QorTextAppendChar(reply, text[at++]);
            continue;
        }
        const uint32_t above = ((bytes[0] & 7U) << 18 | (bytes[1] & 0x3fU) << 12 | (bytes[2] & 0x3fU) << 6 |
                                (bytes[3] & 0x3fU)) -
                               0x10000;
        for (const uint32_t half : {0xd800U | (above >> 10 & 0x3ffU), 0xdc00U | (above & 0x3ffU)}) {
            QorTextAppendChar(reply, static_cast<char>(0xed));
            QorTextAppendChar(reply, static_cast<char>(0x80U | (half >> 6 & 0x3fU)));
            QorTextAppendChar(reply, static_cast<char>(0x80U | (half & 0x3fU)));
        }
        at += 4;
    }
}

void ShowPage(uint32_t wanted) {
    const std::string_view text = QorTierText();
    const auto size = static_cast<int32_t>(text.size());
    int32_t start = 0, end = EndOfPage(text, 0);
    uint32_t page = 0;
    for (; page < wanted && end < size; page++) {
        start = end;
        end = EndOfPage(text, start);
    }
    QorText reply;
    QorTextStart(&reply, pagebuf, PAGEBUF_SIZE);
    char head[80];
    snprintf(head, sizeof head, "Tier rules: %d lines, %d bytes, CRC %08x\n", QorTierLineCount(), size,
             QorTierCrc());
    QorTextAppend(&reply, head);
    if (page == wanted)
        AppendModified(&reply, {text.data() + start, static_cast<size_t>(end - start)});
}

} // namespace

void QorAnswerTierRules(char *value) {
    const char *rest = QorNextField(value);
    switch (rest ? value[0] : 0) {
    case '=':
        QorBeginTiers();
        AddPiece(rest);
        break;
    case '+':
        AddPiece(rest);
        break;
    case '!':
        EndText(rest);
        break;
    case '?':
        ShowPage(QorParseNumber(rest));
        break;
    default:
        QOR_REPLY("tierrules needs =|TEXT, +|TEXT, !|CRC or ?|PAGE");
        break;
    }
}
