// The views of one object and of one frame's locals.
#include "RequestHandler.h"
#include "local_objects.h"
#include "object_fields.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "reply/records.h"

#include <cstdio>
#include <cstdlib>

// A record is built whole and appended in one piece, so that a reply that runs full ends with a whole record.
// It gets its section's end as long as there is room for that; nothing follows.

namespace {

constexpr char TITLE_NO_FIELDS[] = "Object Description - No Information available";
constexpr char TITLE_LOCALS[] = "Method Locals";

// A section of one record: title, text, end.
void AppendSection(QorText *reply, const char *title, const char *label, const char *text) {
    const int32_t length = snprintf(console_line_buf, sizeof console_line_buf, "%s%c%s%s%c", title,
                                    RECORD_END, label, text, SECTION_END);
    QorTextAppend(reply, console_line_buf, length);
}

int32_t AppendMarked(QorText *reply, const char *text, char mark) {
    const int32_t length = snprintf(console_line_buf, sizeof console_line_buf, "%s%c", text, mark);
    return QorTextAppend(reply, console_line_buf, length);
}

// The end of a section of rows.
void AppendRowsEnd(QorText *reply) {
    if (AppendMarked(reply, "Active", SECTION_END) < 0)
        QorTextAppendChar(reply, SECTION_END);
}

int32_t AppendFieldRow(QorText *reply, const QorFieldRecord &field) {
    const int32_t length =
        field.tag != 0 ? snprintf(console_line_buf, sizeof console_line_buf, "%u%c%u%c%s%c%s%c%s%c",
                                  static_cast<uint32_t>(field.tag), FIELD_SEP, 1U, FIELD_SEP, field.type,
                                  FIELD_SEP, field.name, FIELD_SEP, "view object", RECORD_END)
                       : snprintf(console_line_buf, sizeof console_line_buf, "%s%c%s%c%s%c%s%c%s%c", null_str,
                                  FIELD_SEP, null_str, FIELD_SEP, field.type, FIELD_SEP, field.name,
                                  FIELD_SEP, field.value, RECORD_END);
    return QorTextAppend(reply, console_line_buf, length);
}

int32_t AppendLocalRow(QorText *reply, const QorFieldRecord &local) {
    const int32_t length =
        local.tag != 0
            ? snprintf(console_line_buf, sizeof console_line_buf, "%u%c%u%c%s%c%s%c",
                       static_cast<uint32_t>(local.tag), FIELD_SEP, 0U, FIELD_SEP, local.type, FIELD_SEP,
                       local.value, RECORD_END)
            : snprintf(console_line_buf, sizeof console_line_buf, "%s%c%s%c%s%c%s%c", null_str, FIELD_SEP,
                       null_str, FIELD_SEP, local.type, FIELD_SEP, local.value, RECORD_END);
    return QorTextAppend(reply, console_line_buf, length);
}

void AppendFields(QorText *reply, const QorClassDetails &klass) {
    if (klass.fieldCount == 0) {
        AppendSection(reply, TITLE_NO_FIELDS, "", "No Information Available");
        return;
    }
    if (AppendMarked(reply, TITLE_OBJECT, RECORD_END) < 0)
        return;
    for (int32_t i = 0; i < klass.fieldCount && !reply->refused; i++) {
        QORLOG(LOG_DETAIL, "Print Field %d", i);
        AppendFieldRow(reply, klass.fields[i]);
        QORLOG(LOG_DETAIL, "console buf=%s", console_line_buf);
    }
    AppendRowsEnd(reply);
}

void AppendClass(QorText *reply, const QorClassDetails &klass) {
    AppendSection(reply, TITLE_MESSAGE, LABEL_OBJECT_NAME, OrPlaceholder(klass.name));
    if (reply->refused)
        return;
    AppendFields(reply, klass);
    if (!reply->refused)
        AppendSection(reply, TITLE_PARENT, "", OrPlaceholder(klass.name));
}

} // namespace

void QorShowObjectRequest(int32_t tag, int32_t, uint32_t, char *page, int32_t pageSize) {
    QORLOG(LOG_TRACE, "QorShowobjectRequest Start");
    QorText reply;
    QorTextContinue(&reply, page, pageSize);
    QorClassDetails *classes = nullptr;
    const int32_t count = QorJVMTIGetAllClassFields(tag, &classes);
    QORLOG(LOG_DETAIL, "RequestHandler: All ClassCount=%d", count);
    for (int32_t i = 0; i < count && !reply.refused; i++) {
        QORLOG(LOG_TRACE, "Field Count for i=%d class=%d", i, classes[i].fieldCount);
        AppendClass(&reply, classes[i]);
    }
    qorReplyIsCut = reply.refused;
    QorFreeClassDetails(classes, count);
}

void QorHandlePrintLocalRequest(int32_t tid, int64_t methodId, int64_t location, int32_t, int32_t, char *page,
                                int32_t pageSize) {
    QORLOG(LOG_TRACE, "QorHandlePrintLocalRequest Start");
    QorText reply;
    QorTextContinue(&reply, page, pageSize);
    QorFieldRecord *locals = nullptr;
    const int32_t count = QorJVMTIGetLocalObject(tid, methodId, location, &locals);
    if (count > 0)
        AppendMarked(&reply, TITLE_LOCALS, RECORD_END);
    int32_t written = 0;
    for (int32_t i = 0; i < count && !reply.refused; i++) {
        QORLOG(LOG_TRACE, "Sign %s Value %s Tag %d", locals[i].type, locals[i].value,
               static_cast<int32_t>(locals[i].tag));
        if (AppendLocalRow(&reply, locals[i]) > 0)
            written++;
    }
    qorReplyIsCut |= reply.refused;
    if (written > 0)
        AppendRowsEnd(&reply);
    else
        QorTextAppendChar(&reply, SECTION_END);
    free(locals);
}
