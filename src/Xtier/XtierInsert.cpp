#include "XtierInsert.h"

#include "Xtier/tiers/LocalList.h"
#include "Xtier/tiers/XtierQRF.h"
#include "qorlog.h"
#include "reply/qorformat.h"
#include "thread_e2e_info.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

constexpr int32_t GROOVY_INDEX_LIMIT = 1000;
constexpr int32_t PIECE_SIZE = SQL_TEXT_SIZE + DB_URL_SIZE + 1024; // the longest: a database block

char pieceText[PIECE_SIZE];

// What a framework frame is shown as; a row for each QorFramework.
struct FrameworkRow {
    const char *className;
    const char *file;         // in the current call
    const char *stackRowFile; // in the stack row
};

constexpr FrameworkRow FRAMEWORKS[] = {
    {"View_Object", "ViewObjectImpl.java", "ViewObjectImpl.java"},
    {"Entity_Object", "EntityObjImpl.java", "EntityObjImpl.java"},
    {"Groovy_Script", "Groovy_Script", "Groovy_Script"},
    {"EL_Exp", "EL_Exp", "El_Exp"},
};

// The log lines of a piece that would lie before the one before it, and of one without text.
struct PieceNames {
    const char *position, *text;
};
constexpr char NO_CALL_TEXT[] =
    "Qor Agent : InsertXtierDataToConsoleBuf strLenToCopy less than equal to 0. dburl";
constexpr PieceNames REQUEST_PIECE = {
    "qoragent : strLenToCopy less than equal to 0. jspstart",
    "Qor Agent : InsertXtierDataToConsoleBuf strLenToCopy less than equal to 0. requestaddr"};
constexpr PieceNames CALL_PIECE = {NO_CALL_TEXT, NO_CALL_TEXT};
constexpr PieceNames RMI_PIECE = {"qoragent : strLenToCopy less than equal to 0. rmi ip",
                                  "qoragent : strLenToCopy less than equal to 0. jndiname"};
constexpr PieceNames DATABASE_PIECE = {"Qor Agent : strLenToCopy less than equal to 0. dburl",
                                       "Qor Agent : strLenToCopy less than equal to 0. dbuser"};

int32_t LengthOf(const char *text) {
    return static_cast<int32_t>(strlen(text));
}

// Replaces the bytes from `start` to `end` of the old reply. 0, or -1 when the new text has no room.
int32_t ReplacePiece(QorInsertion *insertion, int32_t start, int32_t end, const char *text,
                     const PieceNames &names) {
    const int32_t before = start - insertion->oldPosition;
    if (before < 1)
        QORLOG(LOG_ERROR, "%s", names.position);
    if (before < 0)
        return 0; // it is overtaken: its text is written already
    const int32_t length = LengthOf(text);
    if (length < 1)
        QORLOG(LOG_ERROR, "%s", names.text);
    const int32_t growth = length - (end - start);
    if (growth > insertion->spare)
        return -1;

    QorText *out = &insertion->newReply;
    if (!out->text) {
        const int32_t size = insertion->oldReply->size;
        auto *storage = static_cast<char *>(malloc(static_cast<size_t>(size)));
        if (!storage) {
            QORLOG(LOG_ERROR, "Calloc Failed to allocate memory for console buffer");
            return -1;
        }
        QorTextStart(out, storage, size);
    }
    QorTextAppend(out, insertion->oldReply->text + insertion->oldPosition, before);
    QorTextAppend(out, text, length);
    insertion->oldPosition = end;
    insertion->spare -= growth;
    return 0;
}

// What the framework frame works on; empty when it was not found. A call site without its script's text, as
// in compiled Groovy, says less than the call that is there.
const char *FrameworkText(QorFramework framework, const QorJSPRequestData &web) {
    switch (framework) {
    case FRAMEWORK_VIEW:
    case FRAMEWORK_ENTITY:
        return web.qrfObjectName;
    case FRAMEWORK_GROOVY:
        return web.groovyScript[0] ? web.groovyCurrentLine : "";
    case FRAMEWORK_EL:
        return web.elExpression;
    case FRAMEWORK_NONE:
        break;
    }
    return "";
}

void AppendFrameworkCall(QorText *out, QorFramework framework, const QorJSPRequestData &web,
                         const char *file) {
    QorTextAppend(out, FRAMEWORKS[framework].className);
    QorTextAppend(out, "->");
    QorTextAppend(out, FrameworkText(framework, web));
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppend(out, file);
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppendNumber(out, framework == FRAMEWORK_GROOVY
                                 ? getGroovyCurrentLineNo(web.groovyScript, web.groovyCallSites,
                                                          web.groovyCallSiteCount, web.groovyCurrentIndex,
                                                          GROOVY_INDEX_LIMIT)
                                 : 0);
    QorTextAppendChar(out, FIELD_SEP);
}

int32_t InsertRequest(QorInsertion *insertion, const QorXtierPositions &at, const QorJSPRequestData &web) {
    if (at.requestStart < 0 || !web.requestUrl[0])
        return 0;
    QorText piece;
    QorTextStart(&piece, pieceText, PIECE_SIZE);
    QorTextAppend(&piece, web.requestUrl);
    QorTextAppendChar(&piece, FIELD_SEP);
    QorTextAppend(&piece, OrPlaceholder(web.requestDetail));
    QorTextAppendChar(&piece, FIELD_SEP);
    return ReplacePiece(insertion, at.requestStart, at.requestEnd, piece.text, REQUEST_PIECE);
}

int32_t InsertCurrentCall(QorInsertion *insertion, const QorXtierLocationInfo &location,
                          const QorJSPRequestData &web) {
    const QorXtierPositions &at = location.at;
    if (at.currentCallStart < 0 || !FrameworkText(location.framework, web)[0])
        return 0;
    QorText piece;
    QorTextStart(&piece, pieceText, PIECE_SIZE);
    AppendFrameworkCall(&piece, location.framework, web, FRAMEWORKS[location.framework].file);
    return ReplacePiece(insertion, at.currentCallStart, at.currentCallEnd, piece.text, CALL_PIECE);
}

int32_t InsertRmi(QorInsertion *insertion, const QorXtierPositions &at, const QorRmiCallData &rmi) {
    if (at.rmiStart < 0 || !rmi.host[0])
        return 0; // the row has the empty block
    QorText piece;
    QorTextStart(&piece, pieceText, PIECE_SIZE);
    QorAppendRmiBlock(&piece, QorRmiBlockOf(rmi));
    return ReplacePiece(insertion, at.rmiStart, at.rmiEnd, piece.text, RMI_PIECE);
}

int32_t InsertDatabase(QorInsertion *insertion, const QorXtierPositions &at,
                       const QorDBRequestData &database) {
    if (at.dbStart < 0 || !QorIsKnownDatabase(database))
        return 0;
    QorText piece;
    QorTextStart(&piece, pieceText, PIECE_SIZE);
    QorAppendDatabaseBlock(&piece, QorDatabaseBlockOf(database));
    return ReplacePiece(insertion, at.dbStart, at.dbEnd, piece.text, DATABASE_PIECE);
}

int32_t InsertStackRow(QorInsertion *insertion, const QorXtierLocationInfo &location,
                       const QorJSPRequestData &web) {
    const QorXtierPositions &at = location.at;
    if (at.stackCallStart < 0 || !FrameworkText(location.framework, web)[0])
        return 0;
    QorText piece;
    QorTextStart(&piece, pieceText, PIECE_SIZE);
    QorTextAppendChar(&piece, RECORD_END);
    AppendFrameworkCall(&piece, location.framework, web, FRAMEWORKS[location.framework].stackRowFile);
    return ReplacePiece(insertion, at.stackCallStart, at.stackCallEnd, piece.text, CALL_PIECE);
}

QorE2EBlock *FindE2EBlock(int64_t threadId) {
    QorE2EBlock *block = thread_e2e_info;
    while (block && block->threadId != static_cast<int32_t>(threadId))
        block = block->next;
    return block;
}

template <size_t N>
void CopyIfKnown(char (&to)[N], const char *text) {
    if (text[0])
        QorStrncpy(to, text, N, N);
}

void CopyServerData(QorE2EBlock *block, const QorAppServerCallData &server) {
    block->stuckAndHogger[0] = server.stuck;
    block->stuckAndHogger[1] = server.hogger;
    block->ioFile[0] = 0;
    CopyIfKnown(block->applicationName, server.applicationName);
    CopyIfKnown(block->moduleName, server.moduleName);
    CopyIfKnown(block->wmName, server.wmName);
    CopyIfKnown(block->sessionId, server.sessionId);
}

} // namespace

const char *QorFrameworkClass(QorFramework framework) {
    return FRAMEWORKS[framework].className;
}

QorDatabaseBlock QorDatabaseBlockOf(const QorDBRequestData &record) {
    const bool known = QorIsKnownDatabase(record);
    const bool typed = known && record.dbType >= 0 && record.dbType < DB_TYPE_COUNT;
    QorDatabaseBlock block;
    if (known) {
        block.url = record.url;
        block.user = record.user;
        block.remoteHost = record.remoteHost;
    }
    block.localPort = record.localPort;
    block.remotePort = record.remotePort;
    block.sampleTime = static_cast<int32_t>(record.sampleTime); // the wire's numbers have 32 bits
    block.sqlRef = static_cast<int32_t>(record.sqlRef);
    block.sqlText = record.sqlText;
    if (typed)
        block.typeName = g_strDbTypeNames[record.dbType];
    return block;
}

QorRmiBlock QorRmiBlockOf(const QorRmiCallData &call) {
    return {call.jndiName, call.callId, call.port, call.host};
}

void QorStartInsertion(QorInsertion *insertion, const QorText *reply) {
    const int32_t spare = reply->size - 1 - reply->length - QorRoomForAnswer();
    *insertion = {reply, {}, 0, std::max(spare, 0)};
}

int32_t InsertXtierDataToConsoleBuf(QorInsertion *insertion, const QorXtierLocationInfo &location,
                                    const QorJSPRequestData &web, const QorDBRequestData &database,
                                    const QorRmiCallData &rmi) {
    const QorXtierPositions &at = location.at;
    if (InsertRequest(insertion, at, web) != 0 || InsertCurrentCall(insertion, location, web) != 0 ||
        InsertRmi(insertion, at, rmi) != 0 || InsertDatabase(insertion, at, database) != 0)
        return -1;
    return InsertStackRow(insertion, location, web);
}

void QorEndInsertion(QorInsertion *insertion, QorText *reply) {
    QorText *made = &insertion->newReply;
    if (!made->text)
        return;
    const int32_t tail = insertion->oldPosition;
    QorTextAppend(made, reply->text + tail, reply->length - tail);
    if (made->refused) { // can't be: the room was kept
        QORLOG(LOG_WARNING,
               "Qoragent : new string buf size is exceeding the allocated size. Assigning string "
               "terminator at the end.");
    }
    QorTextCut(reply, 0);
    QorTextAppend(reply, made->text, made->length);
    free(made->text);
    made->text = nullptr;
}

int32_t QorInsertDataToE2EBuf(int64_t threadId, int32_t kind, const QorAppServerCallData &server,
                              const QorIOCallData &file, const QorNetworkCallData &network) {
    QORLOG(LOG_TRACE, "Reached InsertDataToE2EBuf with thread ID %d\n", static_cast<int32_t>(threadId));
    QorE2EBlock *block = FindE2EBlock(threadId);
    if (!block)
        return 0;
    block->textsWritten = 1;
    if (kind == LOCAL_FILE_CALL) {
        CopyIfKnown(block->ioFile, file.fileName);
    } else if (kind == LOCAL_NETWORK_CALL) {
        if (network.fd != 0) {
            block->networkPort = network.port;
            CopyIfKnown(block->networkHost, network.host);
        }
    } else {
        CopyServerData(block, server);
    }
    return 0;
}

void QorMarkE2EByReadRule(int64_t threadId) {
    if (QorE2EBlock *block = FindE2EBlock(threadId))
        block->byReadRule = true;
}
