#include "qorformat.h"

#include "platforms/qorsysinfo.h"
#include "qorrequest.h"

#include <cstdio>
#include <initializer_list>

char null_str[2] = "^";

namespace {

// What a poll's flags must be for a title to apply.
enum PollForm { ANY_FORM, PLAIN_POLL, PLAIN_TRACE, WITH_DETAILS };

struct TitleRow {
    uint32_t bit;
    PollForm form;
    const char *title;
};

// The first row that applies decides.
constexpr TitleRow titleRows[] = {
    {QORREQ_MEMORY_ACTIVITY, ANY_FORM, TITLE_MEMORY_ACTIVITY},
    {QORREQ_THREAD_SUMMARY, ANY_FORM, "Thread Info Summary"},
    {QORREQ_ACTIVE_THREADS, ANY_FORM, TITLE_ACTIVE_THREADS},
    {QORREQ_THREAD_DETAILS, ANY_FORM, TITLE_THREAD_DETAILS},
    {QORREQ_LOCK_HOLDER, ANY_FORM, "Thread Holding Lock"},
    {QORREQ_POLL_DETAILS, PLAIN_POLL, TITLE_ACTIVE_THREADS},
    {QORREQ_POLL_DETAILS, PLAIN_TRACE, TITLE_THREAD_DETAILS},
    {QORREQ_POLL_DETAILS, WITH_DETAILS, TITLE_THREAD_DETAILS},
};

PollForm CurrentPollForm() {
    if (poll_details)
        return WITH_DETAILS;
    return trace_single_thread_details ? PLAIN_TRACE : PLAIN_POLL;
}

// The value of a hexadecimal digit, upper or lower case; any other character gives some number.
uint64_t HexDigit(unsigned char c) {
    if (c > 96) // from 'a' on
        return c - 87u;
    if (c > 64) // from 'A' on
        return c - 55u;
    return static_cast<uint64_t>(c) - 48u;
}

} // namespace

void InitResponseHeader(uint32_t reqid, char *header) {
    header[0] = 0;
    const PollForm form = CurrentPollForm();
    for (const TitleRow &row : titleRows) {
        if (!(reqid & row.bit) || (row.form != ANY_FORM && row.form != form))
            continue;
        snprintf(header, TITLE_SIZE, "%s%c", row.title, RECORD_END);
        if (row.form == PLAIN_TRACE)
            poll_details = FLAG_POLL_DETAILS;
        return;
    }
}

int32_t QorFormatThreadKey(char *key, int32_t processId, int64_t threadId) {
    QorText text;
    QorTextStart(&text, key, THREAD_KEY_SIZE);
    QorTextAppendNumber(&text, processId);
    QorTextAppendChar(&text, '-');
    QorTextAppendNumber(&text, static_cast<int32_t>(threadId));
    return text.length;
}

void QorAppendField(QorText *out, const char *text) {
    QorTextAppend(out, text);
    QorTextAppendChar(out, FIELD_SEP);
}

void QorAppendNumberField(QorText *out, int64_t number) {
    QorTextAppendNumber(out, number);
    QorTextAppendChar(out, FIELD_SEP);
}

void QorAppendTitle(QorText *out, const char *title) {
    QorTextAppend(out, title);
    QorTextAppendChar(out, RECORD_END);
}

void QorAppendSystemData(QorText *out, const QorSystemFigures &figures) {
    QorAppendTitle(out, "System Data");
    QorAppendNumberField(out, static_cast<uint32_t>(figures.machine));
    QorAppendNumberField(out, static_cast<uint32_t>(figures.process));
    for (const uint32_t figure : {figures.minorCount, figures.majorCount, figures.heapPercent})
        QorAppendNumberField(out, figure);
    char times[96]; // unsigned, also where a collector reports no time by -1
    snprintf(times, sizeof times, "%lu%c%lu%c%lu%02lu", static_cast<unsigned long>(figures.minorTime),
             FIELD_SEP, static_cast<unsigned long>(figures.majorTime), FIELD_SEP,
             static_cast<unsigned long>(last_snap_time_hi), static_cast<unsigned long>(last_snap_time_lo));
    QorTextAppend(out, times);
    QorTextAppendChar(out, SECTION_END);
}

uint64_t atoqoraddr(const char *text) {
    uint64_t value = 0;
    for (; *text; text++)
        value = value * 16 + HexDigit(static_cast<unsigned char>(*text));
    return value;
}
