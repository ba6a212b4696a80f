#include "qorStrUtils.h"

#include "QorOS.h"
#include "qorlog.h"

#include <ctime>

int32_t bufferOverflowCount;
int32_t bufferOverflowDumpCount;
struct timeval prevBufferOverFlowDumpTime;

namespace {

constexpr int64_t USEC_PER_SEC = 1000000;
constexpr int64_t REPORT_INTERVAL_SEC = 3600;
constexpr int32_t SURROGATE_LENGTH = 3;
constexpr int32_t FULL_REPORT_MASK = 3; // every fourth report shows the texts too

struct CopyWords {
    const char *noDestination, *noSource, *cut;
};

constexpr CopyWords PLAIN_WORDS = {"Destination String Null or Length less than 2",
                                   "Source String NULL or Source Length 0",
                                   "Source greater than destination"};
constexpr CopyWords AGENT_WORDS = {"Qor Agent: Destination String Null or Length less than 2\n",
                                   "Qor Agent: Source String NULL or Source Length 0\n",
                                   "Qor Agent: Source greater than destination\n"};

// Bytes that the first byte of a character announces; 1 for what begins no longer character.
int32_t CharacterLength(unsigned char first) {
    if (first >= 0xf0)
        return 4;
    if (first >= 0xe0)
        return 3;
    return first >= 0xc0 ? 2 : 1;
}

// Whether the text ends in the first half of a surrogate pair, which Java encodes by itself.
bool EndsInHighSurrogate(const char *text, int32_t length) {
    return length >= SURROGATE_LENGTH && text[length - 3] == '\xed' &&
           (static_cast<unsigned char>(text[length - 2]) & 0xf0) == 0xa0;
}

constexpr char REPLACEMENT = '?';

// Bytes that the first byte of a sequence announces, 0 for one that begins none.
int32_t AnnouncedLength(unsigned char first) {
    if (first < 0x80)
        return 1;
    if (first < 0xc0 || first > 0xf7)
        return 0;
    if (first < 0xe0)
        return 2;
    return first < 0xf0 ? 3 : 4;
}

// Whether a complete sequence is the modified UTF-8 of a char: none is longer than it has to be, but for the
// two bytes of NUL, and none has four bytes.
bool IsCharacter(const unsigned char *bytes, int32_t length) {
    switch (length) {
    case 1:
        return true;
    case 2:
        return bytes[0] >= 0xc2 || (bytes[0] == 0xc0 && bytes[1] == 0x80);
    case 3:
        return bytes[0] > 0xe0 || bytes[1] >= 0xa0;
    default:
        return false;
    }
}

// The copy behind the three routines: the bytes copied, or -1.
int32_t CopyText(char *dst, const char *src, int32_t size, int32_t len, const CopyWords &words) {
    if (!dst || size < 2) {
        QORLOG(LOG_TRACE, "%s", words.noDestination);
        return -1;
    }
    if (!src || len < 1) {
        QORLOG(LOG_TRACE, "%s", words.noSource);
        return -1;
    }
    auto length = static_cast<int32_t>(strnlen(src, static_cast<size_t>(len)));
    if (length >= size) {
        QORLOG(LOG_TRACE, "%s", words.cut);
        length = size - 1;
    }
    // A text that just fills its storage was cut here, or by a caller that gave the room as the length.
    if (length == size - 1)
        length = QorWholeCharacters(src, length);
    memmove(dst, src, static_cast<size_t>(length));
    dst[length] = 0;
    return length;
}

int64_t SecondsSinceLastReport(const timespec &now) {
    return deltaTimeUsec(prevBufferOverFlowDumpTime.tv_sec, prevBufferOverFlowDumpTime.tv_usec, now.tv_sec,
                         now.tv_nsec / 1000) /
           USEC_PER_SEC;
}

// Only a level that shows the stack is worth walking it: these refusals are not rationed.
void BacktraceIfShown() {
    if (qorloglevel > LOG_NOTE)
        QorBacktrace();
}

int32_t RefuseAgentAppend(const char *text) {
    QORLOG(LOG_NOTE, "Qoragent: Buffer overflow detected in string %s\n", text);
    BacktraceIfShown();
    return -1;
}

} // namespace

int32_t QorWholeCharacters(const char *text, int32_t length) {
    for (int32_t back = 1; back <= 3 && back <= length; back++) {
        const auto byte = static_cast<unsigned char>(text[length - back]);
        if ((byte & 0xc0) == 0x80)
            continue;
        if (CharacterLength(byte) > back)
            length -= back;
        break;
    }
    return EndsInHighSurrogate(text, length) ? length - SURROGATE_LENGTH : length;
}

int32_t QorBlank(char *text, uint32_t blanked) {
    char *p = text;
    for (; *p; p++) {
        const auto byte = static_cast<unsigned char>(*p);
        if (byte < ' ' && (blanked >> byte & 1))
            *p = ' ';
    }
    return static_cast<int32_t>(p - text);
}

int32_t QorCopyText(char *dest, const char *src, int32_t capacity, uint32_t blanked) {
    dest[0] = 0;
    QorStrncpy(dest, src, capacity, capacity);
    return QorBlank(dest, blanked);
}

void QorMakeFit(char *text) {
    QorReplaceForeignBytes(text);
    QorBlank(text, BLANK_SEPARATORS);
}

int32_t QorDropPartialCharacter(char *text, int32_t length) {
    length = QorWholeCharacters(text, length);
    text[length] = 0;
    return length;
}

void QorReplaceForeignBytes(char *text) {
    char *to = text;
    for (const char *from = text; *from;) {
        const auto *bytes = reinterpret_cast<const unsigned char *>(from);
        const int32_t announced = AnnouncedLength(bytes[0]);
        int32_t length = 1;
        while (length < announced && (bytes[length] & 0xc0) == 0x80)
            length++;
        if (length == announced && IsCharacter(bytes, length)) {
            memmove(to, from, static_cast<size_t>(length));
            to += length;
        } else {
            *to++ = REPLACEMENT;
        }
        from += length;
    }
    *to = 0;
}

int32_t QorStrncpy(char *dst, const char *src, int32_t size, int32_t len) {
    return CopyText(dst, src, size, len, PLAIN_WORDS) < 0 ? -1 : 0;
}

int32_t QorAgentStrncpy(char *dst, const char *src, int32_t size, int32_t len) {
    return CopyText(dst, src, size, len, AGENT_WORDS) < 0 ? -1 : 0;
}

int32_t QorStrncpy2(char *dst, const char *src, int32_t size, int32_t *count) {
    const int32_t copied = CopyText(dst, src, size, *count, PLAIN_WORDS);
    *count = copied < 0 ? 0 : copied;
    return copied < 0 ? -1 : 0;
}

void QorReportRefusedAppend(const char *dst, int32_t dstLen, const char *src, int32_t srcLen, int32_t size) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now); // a step of the wall clock must not silence the reports
    const bool due = bufferOverflowDumpCount == 0 || SecondsSinceLastReport(now) > REPORT_INTERVAL_SEC;
    bufferOverflowCount++;
    if (!due)
        return;
    prevBufferOverFlowDumpTime = {now.tv_sec, now.tv_nsec / 1000};
    QORLOG(LOG_NOTE,
           "Abort QorStrncat (possibly due to too many active threads): iDestLen=%d, iSourceLen=%d, "
           "iMaxDestLen=%d. (total count=%d)",
           dstLen, srcLen, size, bufferOverflowCount);
    if ((bufferOverflowDumpCount & FULL_REPORT_MASK) == 0) {
        QORLOG(LOG_NOTE, "Dumping data buffers details upon buffer Overflow:");
        QORLOG(LOG_NOTE, "   strSource (len=%d) = %.*s", srcLen, srcLen, src);
        QORLOG(LOG_NOTE, "   strDestination (len=%d) = %.*s", dstLen, dstLen, dst);
    }
    bufferOverflowDumpCount++;
}

int32_t QorStrncat2(char *dst, const char *src, int32_t size) {
    if (!dst || !src || size < 1)
        return -1;
    const auto dstLen = static_cast<int32_t>(strnlen(dst, static_cast<size_t>(size)));
    const size_t srcLen = strlen(src);
    if (static_cast<size_t>(size - dstLen) > srcLen) {
        memcpy(dst + dstLen, src, srcLen + 1);
        return 1;
    }
    const auto shown = static_cast<int32_t>(srcLen < INT32_MAX ? srcLen : INT32_MAX);
    QorReportRefusedAppend(dst, dstLen, src, shown, size);
    return -1;
}

void QorStrncat(char *dst, const char *src, int32_t size) {
    QorStrncat2(dst, src, size);
}

int32_t QorAgentStrncat(char *dst, char *src, int32_t dst_size, int32_t src_size) {
    if (!dst || !src || dst_size < 1 || src_size < 1)
        return -1;
    const char lastOfDst = dst[dst_size - 1], lastOfSrc = src[src_size - 1];
    dst[dst_size - 1] = 0;
    src[src_size - 1] = 0;
    const size_t dstLen = strlen(dst), srcLen = strlen(src);

    // With the terminators just forced a length cannot reach its size; these two tests watch over that.
    if (dstLen == static_cast<size_t>(dst_size)) {
        if (lastOfDst == 0) {
            QORLOG(LOG_TRACE, "qoragent: Destination Buffer full");
            return -1;
        }
        return RefuseAgentAppend(dst);
    }
    if (srcLen == static_cast<size_t>(src_size) && lastOfSrc != 0)
        return RefuseAgentAppend(src);

    if (dstLen + srcLen < static_cast<size_t>(dst_size)) {
        memcpy(dst + dstLen, src, srcLen + 1);
        return 0;
    }
    QORLOG(LOG_NOTE, "Qoragent: Buffer Destination string size is not sufficient\n");
    BacktraceIfShown();
    return -1;
}

int32_t QorDumpTime(int64_t startSec, int64_t startUsec, int64_t endSec, int64_t endUsec, const char *label) {
    if (!label)
        return qorloglevel > LOG_DETAIL ? -1 : 0;
    int64_t usec = deltaTimeUsec(startSec, startUsec, endSec, endUsec);
    if (usec < 0) // the clock was set back in between
        usec = 0;
    QORLOG(LOG_TRACE, "%s - process time : %u sec,%u usec", label, static_cast<uint32_t>(usec / USEC_PER_SEC),
           static_cast<uint32_t>(usec % USEC_PER_SEC));
    return 0;
}

int64_t deltaTimeUsec(int64_t startSec, int64_t startUsec, int64_t endSec, int64_t endUsec) {
    return (endSec - startSec) * USEC_PER_SEC + (endUsec - startUsec);
}
