#include "local_rows.h"

#include "fields.h"
#include "frame_names.h"
#include "object_print.h"

#include "qorrequest.h"
#include "reply/qorformat.h"

#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace {

constexpr char TITLE_ARGUMENTS[] = "Method Arguments", TITLE_LOCALS[] = "Method Locals";
constexpr char OBJECT_LABEL[] = "View Object", ARRAY_LABEL[] = "View Array Contents";
constexpr char STRING_NAME[] = "java.lang.String", BUFFER_NAME[] = "java.lang.StringBuffer";

// What opens the object.
void AppendStart(QorText *out, uint64_t object, QorViewFlag shownAs) {
    char text[40];
    snprintf(text, sizeof text, "%" PRIx64 "%c%d%c", object, FIELD_SEP, shownAs, FIELD_SEP);
    QorTextAppend(out, text);
}

// The text of an argument that is one by its declared type, null otherwise.
const char *TextOf(uint64_t object, const QorArgument *argument) {
    static char text[VM_TEXT_SIZE];
    const bool isText =
        argument && (strcmp(argument->type, STRING_NAME) == 0 || strcmp(argument->type, BUFFER_NAME) == 0);
    return isText ? QorObjectText(text, sizeof text, object) : nullptr;
}

void AppendObject(QorText *out, uint64_t object, const QorArgument *argument) {
    static char name[VM_SYMBOL_SIZE], type[TYPE_NAME_SIZE];
    *name = 0;
    sym2str(name, sizeof name, QorWordAt(QorKlassOf(object) + KLASS_PART + offsets[KLASS_NAME]));
    if (*name == '[') {
        QorTypeName(name, type, sizeof type);
        AppendStart(out, object, QorViewFlagOf(object));
        QorAppendField(out, type);
        QorTextAppend(out, ARRAY_LABEL);
        return;
    }
    strip_slash(name);
    const char *const text = TextOf(object, argument);
    AppendStart(out, object, VIEW_OBJECT);
    QorAppendField(out, argument ? argument->type : name);
    QorTextAppend(out, text ? text : OBJECT_LABEL);
}

void AppendValue(QorText *out, const QorLocal &local, const QorArgument *argument) {
    const char *const fields[] = {null_str, null_str, argument ? argument->type : null_str};
    for (const char *field : fields)
        QorAppendField(out, field);
    const bool isPrimitive = argument && strchr("ZBCSIJFD", argument->code);
    if (local.kind == LOCAL_UNKNOWN)
        QorTextAppend(out, null_str);
    else
        QorAppendValue(out, isPrimitive ? argument->code : 'I', local.bits);
}

void StartList(QorLocalRows *rows, const char *title) {
    if (rows->title && strcmp(rows->title, title) == 0)
        return;
    QorEndLocals(rows);
    rows->title = title;
    QorTextAppend(rows->reply, title);
    QorTextAppendChar(rows->reply, RECORD_END);
}

} // namespace

bool QorAppendLocal(QorLocalRows *rows, const QorLocal &local, const QorArgument *argument) {
    QorText *out = rows->reply;
    const QorLocalRows before = *rows;
    const int32_t start = out->length;
    StartList(rows, argument ? TITLE_ARGUMENTS : TITLE_LOCALS);
    if (local.kind == LOCAL_OBJECT)
        AppendObject(out, local.bits, argument);
    else
        AppendValue(out, local, argument);
    QorTextAppendChar(out, RECORD_END);
    rows->any = true;
    if (!out->refused)
        return true;
    *rows = before;
    QorTextCut(out, start);
    qorReplyIsCut = true;
    return false;
}

void QorEndLocals(QorLocalRows *rows) {
    QorText *out = rows->reply;
    if (!rows->title || out->length == 0)
        return;
    QorTextCut(out, out->length - 1); // the last row's mark
    QorTextAppendChar(out, SECTION_END);
}
