#include "frame_rows.h"

#include "qorrequest.h"
#include "reply/qorformat.h"

#include "Xtier/XtierInsert.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace {

constexpr int32_t FIRST_SHOWN_LINE = 4; // lower ones are the compiler's, not the source's
constexpr char MARKER_USER[] = "user", MARKER_SYSTEM[] = "sys";
constexpr char OBJECT_FILE[] = "EntityImpl.java"; // of both kinds of framework objects
constexpr int32_t FRAMEWORK_DEPTH = 7;

void AppendHex(QorText *out, uint64_t value) {
    char text[24];
    const int32_t length = snprintf(text, sizeof text, "%" PRIx64 "%c", value, FIELD_SEP);
    QorTextAppend(out, text, length);
}

void AppendPlace(QorText *out, const QorFrameInfo &frame) {
    QorTextAppendNumber(out, frame.kind);
    QorTextAppendChar(out, FIELD_SEP);
    for (const uint64_t value : {frame.fp, frame.pc, frame.sp})
        AppendHex(out, value);
}

// A row of a poll: RECORD_END call file line kind fp pc sp method.
void AppendPollRow(QorText *out, const QorFrameInfo &frame, const QorFrameNames &names) {
    char method[24];
    snprintf(method, sizeof method, "%" PRIx64, frame.method);
    QorTextAppendChar(out, RECORD_END);
    QorAppendCall(out, names);
    QorTextAppendChar(out, FIELD_SEP);
    AppendPlace(out, frame);
    QorTextAppend(out, method);
}

// A row of one thread's view: marker kind fp pc sp method call file line RECORD_END.
void AppendStackRow(QorText *out, const QorFrameInfo &frame, const QorFrameNames &names, bool system) {
    QorAppendField(out, system ? MARKER_SYSTEM : MARKER_USER);
    AppendPlace(out, frame);
    AppendHex(out, frame.method);
    QorAppendCall(out, names);
    QorTextAppendChar(out, RECORD_END);
}

bool HasRows(const QorSampleRequest &request, const QorText &out) {
    return (request.reqid & (QORREQ_POLL_DETAILS | QORREQ_THREAD_DETAILS)) && !out.refused;
}

// Takes back a row that didn't fit. False then.
bool KeepRow(QorText *out, int32_t start) {
    if (!out->refused)
        return true;
    QorTextCut(out, start);
    out->refused = qorReplyIsCut = true;
    return false;
}

int32_t AppendFrameworkName(QorText *out, const QorThreadTiers &tiers) {
    const bool isObject = tiers.framework == FRAMEWORK_VIEW || tiers.framework == FRAMEWORK_ENTITY;
    QorTextAppend(out, QorFrameworkClass(tiers.framework));
    QorTextAppend(out, "->", 2);
    QorTextAppend(out, tiers.frameworkName);
    const int32_t end = out->length;
    QorTextAppendChar(out, FIELD_SEP);
    QorAppendField(out, isObject ? OBJECT_FILE : null_str);
    return end;
}

} // namespace

int32_t QorAppendCall(QorText *out, const QorFrameNames &names) {
    QorTextAppend(out, names.className);
    QorTextAppend(out, "->", 2);
    QorTextAppend(out, names.method);
    const int32_t end = out->length;
    QorTextAppendChar(out, FIELD_SEP);
    QorAppendField(out, names.native ? NO_LINE_FILE : names.file[0] ? names.file : null_str);
    if (names.line < FIRST_SHOWN_LINE)
        QorTextAppend(out, null_str);
    else
        QorTextAppendNumber(out, names.line);
    return end;
}

int32_t QorAppendFrameworkCall(QorText *out, const QorThreadTiers &tiers) {
    const int32_t end = AppendFrameworkName(out, tiers);
    QorTextAppend(out, null_str);
    return end;
}

void QorAppendFrameRow(const QorSampleRequest &request, QorText *out, const QorFrameInfo &frame,
                       const QorFrameNames &names, bool system) {
    const int32_t start = out->length;
    if (!HasRows(request, *out))
        return;
    if (request.reqid & QORREQ_POLL_DETAILS)
        AppendPollRow(out, frame, names);
    else
        AppendStackRow(out, frame, names, system);
    KeepRow(out, start);
}

int32_t QorAppendFrameworkRow(const QorSampleRequest &request, QorText *out, const QorThreadTiers &tiers) {
    const int32_t start = out->length;
    int32_t line = -1;
    if (!HasRows(request, *out))
        return line;
    if (request.reqid & QORREQ_POLL_DETAILS) {
        QorTextAppendChar(out, RECORD_END);
        AppendFrameworkName(out, tiers);
        line = out->length;
        QorTextAppend(out, null_str);
    } else {
        QorAppendField(out, MARKER_USER);
        for (const int32_t number : {FRAMEWORK_DEPTH, 0, 0, 0, 0}) {
            QorTextAppendNumber(out, number);
            QorTextAppendChar(out, FIELD_SEP);
        }
        AppendFrameworkName(out, tiers);
        line = out->length;
        QorTextAppendChar(out, '0');
        QorTextAppendChar(out, RECORD_END);
    }
    return KeepRow(out, start) ? line : -1;
}

void QorPutLine(QorText *out, int32_t at, int32_t line) {
    char digits[16];
    const int32_t length = snprintf(digits, sizeof digits, "%d", line), rest = out->length - at - 1;
    if (at < 0 || rest < 0 || out->length + length > out->size - 1)
        return;
    memmove(out->text + at + length, out->text + at + 1, static_cast<size_t>(rest) + 1);
    memcpy(out->text + at, digits, static_cast<size_t>(length));
    out->length += length - 1;
}
