#include "DumpHeader.h"

#include "MemorySystem.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <cstdio>
#include <ctime>
#include <initializer_list>

namespace {

enum : int32_t { WORDS = 10, WORD_SIZE = 11, CTIME_SIZE = 26, YEAR_DIGITS = 4, MOST_WORDS = 6 };
constexpr char DEFAULT_DATE[] = "01-Jan-2010 12:00:00";
constexpr int KIB_SHIFT = 10;

// Words of a date text, cut at every single blank; two blanks make an empty word. The number of words, or -1
// beyond MOST_WORDS.
int32_t CutWords(const char *text, char (*words)[WORD_SIZE]) {
    int32_t word = 0, length = 0;
    for (; *text; text++) {
        if (*text != ' ') {
            if (length < WORD_SIZE - 1)
                words[word][length++] = *text;
            continue;
        }
        if (word == MOST_WORDS)
            return -1;
        word++;
        length = 0;
    }
    return word + 1;
}

int32_t UseDefaultDate(char *out) {
    QorStrncpy(out, DEFAULT_DATE, HEADER_DATE_SIZE, HEADER_DATE_SIZE);
    return 0;
}

// The line's second field. Under a Nimb JVM it's a date, elsewhere seconds since 1970.
void FormatTime(char *out) {
    if (gbNimbJvm)
        QorWriteHeapDumpHeaderDate(out);
    else
        snprintf(out, HEADER_DATE_SIZE, "T%d", static_cast<int>(time(nullptr)));
}

} // namespace

int32_t QorFormatHeaderDate(const char *text, char *out) {
    if (!text) {
        QORLOG(LOG_NOTE, "Not Current Time Stamp in Heap Dump Header ");
        return UseDefaultDate(out);
    }
    char words[WORDS][WORD_SIZE] = {};
    const int32_t count = CutWords(text, words);
    if (count < 0 || count > MOST_WORDS) {
        QORLOG(count < 0 ? LOG_NOTE : LOG_ERROR, "Wrong format of date-Dumping Default Time Value ");
        return UseDefaultDate(out);
    }
    // The words are taken by their places, never looked at: with the usual five the sixth is now the year
    // without its line end; a day below 10 makes the text one word longer, and the date is then what it is.
    memcpy(words[count], words[count - 1], YEAR_DIGITS);
    if (count < WORDS)
        words[count][YEAR_DIGITS] = 0;
    else
        QORLOG(LOG_ERROR, "Array Out Of bound Access");
    snprintf(out, HEADER_DATE_SIZE, "%s-%s-%s %s", words[2], words[1], words[5], words[3]);
    return 1;
}

int32_t QorWriteHeapDumpHeaderDate(char *out) {
    const time_t now = time(nullptr);
    char text[CTIME_SIZE];
    return QorFormatHeaderDate(ctime_r(&now, text), out);
}

int32_t QorWriteHeapDumpHeader(QorDumpFile *file) {
    if (!file)
        return -1;
    char when[HEADER_DATE_SIZE];
    FormatTime(when);
    char text[128];
    const auto write = [file, &text] { QorDumpText(file, text, static_cast<int64_t>(strlen(text))); };
    snprintf(text, sizeof text, "heap_id=%u|%s|", heap_id, when);
    write();
    for (const char *field : {hostname, ext_jvm_id_str, vend, vers}) {
        QorDumpField(file, field);
        QorDumpText(file, "|", 1);
    }
    snprintf(text, sizeof text, "1|%s|%u|%u\n", "System",
             static_cast<uint32_t>(QorGetMaxMemory() >> KIB_SHIFT),
             static_cast<uint32_t>(QorGetUsedMemory() >> KIB_SHIFT));
    write();
    return 0;
}
