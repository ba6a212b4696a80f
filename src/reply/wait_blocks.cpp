#include "wait_blocks.h"

#include "qorformat.h"
#include "qorlog.h"

#include <initializer_list>

namespace {

constexpr int32_t DATABASE_FIELDS = 10;
constexpr char NO_JNDI_NAME[] = "NA";

char sDummyDBString[64];
char sDummyRMIString[32];

void AppendConnection(QorText *out, const QorDatabaseBlock &block) {
    for (const char *text : {block.url, block.user}) {
        QorTextAppend(out, OrPlaceholder(text));
        QorTextAppendChar(out, FIELD_SEP);
    }
    for (uint32_t port : {block.localPort, block.remotePort}) {
        QorTextAppendNumber(out, port);
        QorTextAppendChar(out, FIELD_SEP);
    }
    QorTextAppend(out, OrPlaceholder(block.remoteHost));
    for (int64_t number : {int64_t(block.sampleTime), block.sqlRef}) {
        QorTextAppendChar(out, FIELD_SEP);
        QorTextAppendNumber(out, number);
    }
}

} // namespace

void QorAppendDatabaseBlock(QorText *out, const QorDatabaseBlock &block) {
    QorTextAppendChar(out, WAIT_DETAIL);
    QorTextAppendNumber(out, DATABASE_FIELDS);
    QorTextAppendChar(out, FIELD_COUNT_MARK);
    AppendConnection(out, block);
    for (const char *text : {block.sqlText, block.typeName, ""}) { // the last field is reserved
        QorTextAppendChar(out, FIELD_SEP);
        QorTextAppend(out, OrPlaceholder(text));
    }
}

void QorAppendShortDatabaseBlock(QorText *out, const QorDatabaseBlock &block) {
    QorTextAppendChar(out, WAIT_DETAIL);
    AppendConnection(out, block);
}

void QorAppendRmiBlock(QorText *out, const QorRmiBlock &block) {
    const bool known = block.host[0];
    const char *name = known && block.jndiName[0] ? block.jndiName : NO_JNDI_NAME;
    QorTextAppendChar(out, WAIT_DETAIL);
    QorTextAppendChar(out, RMI_MARK);
    QorTextAppendNumber(out, known ? block.callId : 0);
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppendNumber(out, known ? block.port : 0);
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppend(out, known ? block.host : null_str);
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppend(out, known ? name : null_str);
}

const char *QorEmptyDatabaseBlock() {
    if (!sDummyDBString[0]) {
        QORLOG(LOG_NOTE, "Creating sDummyDBString");
        QorText text;
        QorTextStart(&text, sDummyDBString, sizeof sDummyDBString);
        QorAppendDatabaseBlock(&text, {});
    }
    return sDummyDBString;
}

const char *QorEmptyRmiBlock() {
    if (!sDummyRMIString[0]) {
        QORLOG(LOG_NOTE, "Creating sDummyRMIString");
        QorText text;
        QorTextStart(&text, sDummyRMIString, sizeof sDummyRMIString);
        QorAppendRmiBlock(&text, {});
    }
    return sDummyRMIString;
}
