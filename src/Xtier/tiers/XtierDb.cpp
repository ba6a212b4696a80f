#include "XtierDb.h"

#include "ObjectMap.h"
#include "SocketAddresses.h"
#include "ValueText.h"
#include "Xtier/walk/LocalWalk.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/time.h>

namespace {

constexpr jint FRAME_REFERENCES = 1024;
constexpr int32_t FRAME_URL_SIZE = 64; // what the frame's reader takes of a URL
constexpr int32_t SQL_ID_SIZE = 16;    // an id between two marks and a terminator
constexpr size_t SQL_ID_LENGTH = 13;
constexpr int32_t DRIVER_CLASSES = 32;

// How a kind of object leads to the connection, and the connection to all else.
enum DriverForm {
    FORM_DIRECT,    // the connection names the user and holds the session by "db_access"; SQL is the object's
    FORM_LAYERED,   // user and SQL are the connection's affair, which holds the session itself
    FORM_CONNECTION // the same, and the object is the connection
};

struct ObjectRow {
    const char *signature;
    DriverForm form;
    const char *paths[2]; // object maps to the connection, the first that leads there counts
    bool fromFrame;       // known to QorGetDBRequestData
    bool sqlFromFrame;    // and asked for its SQL there
};

constexpr char DIRECT_CONNECTION[] = "connection,Ltessar/jdbc/driver/TessarConnection;";
constexpr char PHYSICAL_CONNECTION[] = "connection,Ltessar/jdbc/driver/PhysicalConnection;";
constexpr char Q5_CONNECTION[] = "q5Connection,Ltessar/jdbc/driver/Q5DConnection;";

constexpr ObjectRow ROWS[] = {
    {"tessar/jdbc/driver/TessarPreparedStatement", FORM_DIRECT, {DIRECT_CONNECTION}, true, true},
    {"Ltessar/jdbc/driver/TessarPreparedStatement;", FORM_DIRECT, {DIRECT_CONNECTION}, true, true},
    {"tessar/jdbc/driver/TessarStatement", FORM_DIRECT, {DIRECT_CONNECTION}, false, false},
    {"Ltessar/jdbc/driver/TessarStatement;", FORM_DIRECT, {DIRECT_CONNECTION}, false, false},
    {"Ltessar/jdbc/driver/Q5DPreparedStatement;",
     FORM_LAYERED,
     {PHYSICAL_CONNECTION, Q5_CONNECTION},
     true,
     true},
    {"tessar/jdbc/driver/Q5DPreparedStatement",
     FORM_LAYERED,
     {PHYSICAL_CONNECTION, Q5_CONNECTION},
     true,
     true},
    {"tessar/jdbc/driver/Q5DCallableStatement", FORM_LAYERED, {Q5_CONNECTION}, true, false},
    {"Ltessar/jdbc/driver/Q5DCallableStatement;", FORM_LAYERED, {Q5_CONNECTION}, true, false},
    {"Ltessar/jdbc/driver/Q5DConnection;", FORM_CONNECTION, {}, true, false},
    {"tessar/jdbc/driver/Q5DConnection", FORM_CONNECTION, {}, true, false},
};

constexpr char STATEMENT_TEXT[] = "sqlObject,Ltessar/jdbc/driver/TessarSql;|originalSql,Ljava/lang/String;";

// Frames on which QorGetDBRequestData acts.
struct FrameRow {
    const char *className;
    bool whole; // the name must be this one, not merely begin so
};

constexpr FrameRow FRAME_ROWS[] = {
    {"tessar.jdbc.driver.TessarStatement", false},     {"tessar.jdbc.driver.TessarResultSetImpl", true},
    {"tessar.jdbc.driver.Q5DPreparedStatement", true}, {"tessar.jdbc.driver.Q5DConnection", false},
    {"tessar/jdbc/driver/Q5DConnection", false},
};

// What the last tries of the fields that name the user gave: 0 found, -1 not.
struct UserFields {
    int32_t iRetValue;
    int32_t iRetValue1;
};

// Classes of connections that were found to have no field "statements", the latest ones, by their hash: a try
// costs the JVM an exception.
int32_t iStatementObjectStatus[DRIVER_CLASSES];
int32_t failedTries;

const ObjectRow *FindRow(const char *signature) {
    for (const ObjectRow &row : ROWS)
        if (strcmp(signature, row.signature) == 0)
            return &row;
    return nullptr;
}

bool IsDriverFrame(const char *className) {
    for (const FrameRow &row : FRAME_ROWS)
        if (row.whole ? strcmp(className, row.className) == 0
                      : strncmp(className, row.className, strlen(row.className)) == 0)
            return true;
    return false;
}

// A class that another thread is initialising tells nothing of what its version has.
bool IsReadable(jobject object) {
    jclass klass = QorGetObjectClass(jvmtijni_env, object);
    const bool readable = klass && QorIsClassInitialized(klass);
    QorDeleteLocalRef(jvmtijni_env, klass);
    return readable;
}

jobject FindConnection(const ObjectRow &row, jobject object) {
    if (row.form == FORM_CONNECTION)
        return object;
    for (const char *path : row.paths)
        if (jobject connection = path ? QorFollowObjectMap(path, object) : nullptr)
            return connection;
    return nullptr;
}

// A driver has one of the two fields; the one that it was seen to have is tried first.
void ReadUser(jobject connection, UserFields *seen, char *user) {
    if (seen->iRetValue == 0 && seen->iRetValue1 == -1) {
        seen->iRetValue = QorReadStringField(connection, "user", user, DB_USER_SIZE);
        if (seen->iRetValue < 0)
            seen->iRetValue1 = QorReadStringField(connection, "userName", user, DB_USER_SIZE);
        return;
    }
    seen->iRetValue1 = QorReadStringField(connection, "userName", user, DB_USER_SIZE);
    if (seen->iRetValue1 < 0)
        seen->iRetValue = QorReadStringField(connection, "user", user, DB_USER_SIZE);
}

int32_t HashOfClass(jobject object) {
    jclass klass = QorGetObjectClass(jvmtijni_env, object);
    jint hash = 0;
    if (klass && jvmti->GetObjectHashCode(klass, &hash) != JVMTI_ERROR_NONE)
        hash = 0;
    QorDeleteLocalRef(jvmtijni_env, klass);
    return hash;
}

bool HasNoStatements(int32_t classHash) {
    const int32_t known = std::min<int32_t>(failedTries, DRIVER_CLASSES);
    for (int32_t i = 0; i < known; i++)
        if (iStatementObjectStatus[i] == classHash)
            return true;
    return false;
}

// A socket that was closed has no descriptor any more.
void ReadSocket(jobject connection, int32_t direct, QorDBRequestData *record) {
    int64_t fd = -1;
    if (QorGetFdFromConnection(connection, direct, &fd) == 0 && fd != -1) {
        QORLOG(LOG_TRACE, "File Descriptor %d", static_cast<int>(fd));
        record->fd = fd;
        QorExtractDBSocketData(fd, record);
    }
    timeval now;
    gettimeofday(&now, nullptr);
    record->sampleTime = now.tv_sec;
}

void ReadSqlText(jstring sql, int32_t capacity, QorLogThreshold threshold, QorDBRequestData *record) {
    bool cut = false;
    record->sqlText[0] = 0;
    if (qorDBQuery != 1 || capacity < 2 || capacity > SQL_TEXT_SIZE || !sql)
        return;
    QorCopyStringText(sql, record->sqlText, capacity, &cut);
    QORLOG(threshold, "SQL Statement %s", record->sqlText);
    if (cut && capacity == gbSqlQueryLength)
        appendSqlIdToSqlText(record->sqlText, sql);
    QorBlankSeparators(record->sqlText);
}

int64_t AsNumber(jobject reference) {
    return reinterpret_cast<intptr_t>(reference);
}

// `isFrame`: the frame's reader, which reads less.
void ReadDirect(const ObjectRow &row, jobject object, bool isFrame, QorDBRequestData *record) {
    jobject sql = nullptr;
    if (QorGetObjField(object, "sql_query", "Ljava/lang/String;", &sql) == 0) {
        record->sqlRef = AsNumber(sql);
        if (!isFrame)
            ReadSqlText(static_cast<jstring>(sql), gbSqlQueryLength, LOG_TRACE, record);
    }
    jobject connection = FindConnection(row, object);
    if (!connection)
        return;
    QorReadStringField(connection, "url", record->url, sizeof record->url);
    QorReadStringField(connection, "user", record->user, sizeof record->user);
    QorReadConnectionHash(connection, record);
    ReadSocket(connection, 0, record);
}

// What both readers take from a connection of the layered form.
void ReadConnection(jobject connection, int32_t urlSize, UserFields *seen, QorDBRequestData *record) {
    QorReadStringField(connection, "url", record->url, urlSize);
    ReadUser(connection, seen, record->user);
    QorReadConnectionHash(connection, record);
    ReadSocket(connection, 1, record);
}

// The SQL of the statement that the connection is at, or null.
jstring FindCurrentSql(jobject connection) {
    const int32_t classHash = HashOfClass(connection);
    if (HasNoStatements(classHash))
        return nullptr;
    jobject statement = nullptr;
    if (QorGetObjField(connection, "statements", "Ltessar/jdbc/driver/TessarStatement;", &statement) < 0)
        iStatementObjectStatus[failedTries++ % DRIVER_CLASSES] = classHash;
    return statement ? static_cast<jstring>(QorFollowObjectMap(STATEMENT_TEXT, statement)) : nullptr;
}

} // namespace

int32_t QorGetDBRequestDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                             QorDBRequestData *record) {
    static UserFields seen = {0, -1};
    if (!entry || !record) {
        QORLOG(LOG_TRACE, "QorGetDBReuestDataFromLOcalVariable : ptrQorAllThreadLocalInfoList or "
                          "ptrQorDBRequestData is NULL");
        return -1;
    }
    if (!entry->objLocalVarHandle) {
        QORLOG(LOG_TRACE, "QorGetDBRequestDataFromLocalVariable : Obj Null");
        return 0;
    }
    record->dbType = DB_TYPE_TESSAR;
    const ObjectRow *row = FindRow(entry->strSignature);
    if (!row)
        return 0;
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    if (!frame.pushed)
        QORLOG(LOG_NOTE, "QorAgent : Out of Memory XtierDb");
    if (row->form == FORM_DIRECT) {
        ReadDirect(*row, entry->objLocalVarHandle, false, record);
        return 0;
    }
    jobject connection = FindConnection(*row, entry->objLocalVarHandle);
    if (!connection || !IsReadable(connection))
        return 0;
    ReadConnection(connection, sizeof record->url, &seen, record);
    if (jstring sql = FindCurrentSql(connection)) {
        ReadSqlText(sql, gbSqlQueryLength, LOG_TRACE, record);
        record->sqlRef = AsNumber(sql);
    }
    return 0;
}

int32_t QorGetDBRequestData(const QorThreadRecord *thread, const QorFrameRecord *frame,
                            QorDBRequestData *record) {
    static UserFields seen = {0, -1};
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
    QorLocalFrame references(jvmtijni_env, FRAME_REFERENCES);
    QorLocalObjectRecord local;
    if (!references.pushed || QorGetLocalObject(thread->tid, frame->methodId, &local) < 0 || !local.object)
        return 0;
    const ObjectRow *row = FindRow(local.signature);
    if (!row || !row->fromFrame)
        return 0;
    if (row->form == FORM_DIRECT) {
        ReadDirect(*row, local.object, true, record);
        return 0;
    }
    jobject connection = FindConnection(*row, local.object);
    if (!connection || !IsReadable(connection))
        return 0;
    ReadConnection(connection, FRAME_URL_SIZE, &seen, record);
    if (jstring sql = row->sqlFromFrame ? FindCurrentSql(connection) : nullptr)
        record->sqlRef = AsNumber(sql);
    return 0;
}

void QorForgetDriverClasses() {
    failedTries = 0;
}

void QorReadConnectionHash(jobject object, QorDBRequestData *record) {
    jint hash = 0;
    const jvmtiError error = jvmti->GetObjectHashCode(object, &hash);
    if (error == JVMTI_ERROR_NONE)
        record->connectionHash = hash;
    else
        QORLOG(LOG_NOTE, "  (GetObjectHashCodGetObjectHashCode) Error expected: %d, got: %d",
               JVMTI_ERROR_NONE, error);
}

void QorReadSqlText(jstring sql, QorDBRequestData *record) {
    record->sqlRef = AsNumber(sql);
    ReadSqlText(sql, gbSqlQueryLength, LOG_TRACE, record);
}

void QorExtractDBSocketData(int64_t fd, QorDBRequestData *record) {
    QorGetSocketAddresses(fd, &record->localPort, &record->remotePort, record->remoteHost,
                          sizeof record->remoteHost);
    QORLOG(LOG_TRACE, "Local Port: %d", static_cast<int>(record->localPort));
    QORLOG(LOG_TRACE, "remote Port %d", static_cast<int>(record->remotePort));
    QORLOG(LOG_TRACE, "remote Host %s", record->remoteHost);
}

void QorExtractDbInfoFromSybaseDriver(jobject statement, QorDBRequestData *record) {
    if (!statement || !record)
        return;
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    jobject sql = nullptr;
    if (QorGetObjField(statement, "_sqlStr", "Ljava/lang/String;", &sql) == 0)
        ReadSqlText(static_cast<jstring>(sql), gbSqlQueryLength - 1, LOG_NOTE, record);
    record->dbType = DB_TYPE_SYBASE;
    jobject connection = QorFollowObjectMap("_context,Lcom/sybase/jdbc3/jdbc/ProtocolContext;|"
                                            "_conn,Lcom/sybase/jdbc3/jdbc/SybConnection;",
                                            statement);
    if (!connection)
        return;
    QorReadConnectionHash(connection, record);
    QorReadStringField(connection, "_url", record->url, sizeof record->url);
    QORLOG(LOG_NOTE, "DB URL %s", record->url);
    QorStrncpy(record->user, "sa", sizeof record->user, sizeof record->user);
}

void getSqlIdFromSqlText(jstring sql, char *id) {
    if (!gbDbUtilClass)
        return;
    // Not kept: the next start's class may be another one, and a hit costs nothing.
    jmethodID sqlText2sqlIdMethod = QorGetStaticMethodID(jvmtijni_env, gbDbUtilClass, "sqlText2sqlId",
                                                         "(Ljava/lang/String;)Ljava/lang/String;");
    if (!sqlText2sqlIdMethod)
        return;
    jobject found = jvmtijni_env->CallStaticObjectMethod(gbDbUtilClass, sqlText2sqlIdMethod, sql);
    QorClearException(jvmtijni_env);
    if (!found)
        return;
    QorReadValueText(static_cast<jstring>(found), id, SQL_ID_SIZE);
    QorDeleteLocalRef(jvmtijni_env, found);
}

void appendSqlIdToSqlText(char *text, jstring sql) {
    char id[SQL_ID_SIZE] = "";
    if (gbSqlQueryLength < SQL_ID_SIZE)
        return;
    getSqlIdFromSqlText(sql, id);
    if (strlen(id) != SQL_ID_LENGTH)
        return;
    const auto room = static_cast<size_t>(gbSqlQueryLength) - SQL_ID_SIZE;
    const auto length = static_cast<int32_t>(strnlen(text, room));
    const int32_t cut = QorDropPartialCharacter(text, length);
    snprintf(text + cut, SQL_ID_SIZE, "!%.13s!", id);
}
