#include "ReadAtOnce.h"

#include "LocalWalk.h"
#include "Xtier/tiers/TierReader.h"
#include "Xtier/tiers/XtierDb.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorlog.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr jint FRAME_REFERENCES = 1024;

// Frames on which QorGetDBRequestData acts.
struct FrameRow {
    const char *className;
    bool whole; // the name must be this one, not merely begin so
};
constexpr FrameRow DATABASE_FRAMES[] = {
    {"tessar.jdbc.driver.TessarStatement", false},     {"tessar.jdbc.driver.TessarResultSetImpl", true},
    {"tessar.jdbc.driver.Q5DPreparedStatement", true}, {"tessar.jdbc.driver.Q5DConnection", false},
    {"tessar/jdbc/driver/Q5DConnection", false},
};

// And classes whose frames QorGetJSPRequest reads.
constexpr const char *REQUEST_CLASSES[] = {
    "org.apache.jserv.JServConnection",
    "ferrule.servlet.internal.ServletRequestImpl",
};

bool IsDriverFrame(const char *className) {
    return std::any_of(std::begin(DATABASE_FRAMES), std::end(DATABASE_FRAMES), [=](const FrameRow &row) {
        return row.whole ? strcmp(className, row.className) == 0
                         : strncmp(className, row.className, strlen(row.className)) == 0;
    });
}

// The object of the frame, within a local frame of the caller's. False when there is none.
bool FindObject(const QorLocalFrame &references, const QorThreadRecord &thread, const QorFrameRecord &frame,
                QorLocalObjectRecord *local) {
    return references.pushed && QorGetLocalObject(thread.tid, frame.methodId, local) == 0 && local->object;
}

// The row of an object that is read at once, null for any other.
const QorTableObject *FindRow(const QorLocalObjectRecord &local, uint32_t kind) {
    const QorTableObject *row = QorFindTableObject(local.signature);
    return row && (row->kinds & kind) && row->atOnce != AT_ONCE_NOTHING ? row : nullptr;
}

} // namespace

int32_t QorGetDBRequestData(const QorThreadRecord *thread, const QorFrameRecord *frame,
                            QorDBRequestData *record) {
    if (!thread || !frame || !record)
        return -1;
    if (!IsDriverFrame(frame->className))
        return 0;
    if (record->url[0] && record->user[0]) {
        QORLOG(LOG_TRACE, " Url Not Null");
        return 0;
    }
    QORLOG(LOG_TRACE, " DB_URL or DB_User is Empty");
    record->dbType = DB_TYPE_TESSAR;
    const QorLocalFrame references(jvmtijni_env, FRAME_REFERENCES);
    QorLocalObjectRecord local;
    if (!FindObject(references, *thread, *frame, &local))
        return 0;
    if (const QorTableObject *row = FindRow(local, FRAME_DATABASE))
        QorReadDatabaseObject(*row, local.object, READ_AT_ONCE, record);
    return 0;
}

int32_t QorGetJSPRequest(const QorThreadRecord *thread, const QorFrameRecord *frame,
                         QorJSPRequestData *record) {
    if (!thread) {
        QORLOG(LOG_ERROR, "QorGetJSPRequest : ptrThrInfo NULL");
        return -1;
    }
    if (!frame) {
        QORLOG(LOG_ERROR, "QorGetJSPRequest : QorFrameExtractedInfoObj NULL");
        return -1;
    }
    if (!record) {
        QORLOG(LOG_ERROR, "QorGetJSPRequest : ptrQorJSPRequestData NULL");
        return -1;
    }
    const bool isRequest =
        std::any_of(std::begin(REQUEST_CLASSES), std::end(REQUEST_CLASSES),
                    [frame](const char *name) { return strcmp(frame->className, name) == 0; });
    if (!isRequest || record->requestUrl[0])
        return 0;
    const QorLocalFrame references(jvmtijni_env, FRAME_REFERENCES);
    QorLocalObjectRecord local;
    if (FindObject(references, *thread, *frame, &local) && FindRow(local, FRAME_WEB) &&
        QorReadByTables(local.object, local.signature, frame->method, RECORD_WEB, record) != 0)
        record->requestDetail[0] = 0;
    return 0;
}

int32_t QorGetRmiCallData(const QorThreadRecord *thread, const QorFrameRecord *frame,
                          QorRmiCallData *record) {
    if (!thread || !frame || !record)
        return -1;
    const QorLocalFrame references(jvmtijni_env, FRAME_REFERENCES);
    QorLocalObjectRecord local;
    if (IsRmiCallDataPresent(frame) && FindObject(references, *thread, *frame, &local)) {
        char host[RMI_HOST_SIZE];
        memcpy(host, record->host, sizeof host);
        QorReadByTables(local.object, local.signature, frame->method, RECORD_RMI, record);
        memcpy(record->host, host, sizeof host);
    }
    return 0;
}

int32_t getQRFData(const QorThreadRecord *thread, const QorFrameRecord *frame, const char *map, char *dest) {
    if (!thread || !frame || !map || !dest) {
        QORLOG(LOG_TRACE,
               "QorGetDBReuestDataFromLOcalVariable : ptrThrInfo or QorFrameExtractedInfoObj is NULL");
        return -1;
    }
    const QorLocalFrame references(jvmtijni_env, FRAME_REFERENCES);
    QorLocalObjectRecord local;
    if (!FindObject(references, *thread, *frame, &local))
        QORLOG_RATIONED(LOG_ERROR, "Qor Agent Error: Not able to get Local Object for map %s", map);
    else if (QorReadStringByMap(map, local.object, dest, REQUEST_TEXT_SIZE) < 0)
        QORLOG_RATIONED(LOG_ERROR, "Qor Agent : Error Not able to get String Object for map %s", map);
    return 0;
}
