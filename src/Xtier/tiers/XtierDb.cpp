#include "XtierDb.h"

#include "SocketAddresses.h"
#include "TierReader.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "jvmti/ValueText.h"
#include "products.h"
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

// What the last tries of the fields that name the user gave: 0 found, -1 not.
struct UserFields {
    int32_t iRetValue;
    int32_t iRetValue1;
};

// Classes of connections that were found to have no field "statements", the latest ones, by their hash: a try
// costs the JVM an exception.
int32_t iStatementObjectStatus[DRIVER_CLASSES];
int32_t failedTries;

// A class that another thread is initialising says nothing about what its version has.
bool IsReadable(jobject object) {
    jclass klass = QorGetObjectClass(jvmtijni_env, object);
    const bool readable = klass && QorIsClassInitialized(klass);
    QorDeleteLocalRef(jvmtijni_env, klass);
    return readable;
}

// The first way that leads to a connection counts; null for none.
jobject FindConnection(const QorTableObject &row, jobject object) {
    for (const QorTableWay &way : row.ways)
        if (way.target == &products::CONNECTION)
            if (jobject connection = QorFollowPath(way.way, object, PATH_LOGGED).object)
                return connection;
    return nullptr;
}

// The form of the connections that an object leads to, FORM_OBJECT for none.
QorTierForm FormOf(const QorTableObject &row) {
    for (const QorTableWay &way : row.ways)
        if (way.target == &products::CONNECTION)
            return way.form;
    return FORM_OBJECT;
}

// A String of the object's own: -1 when there is no such field.
int32_t ReadString(jobject object, const char *path, char *dest, int32_t capacity) {
    const QorPathEnd found = QorFollowPath(path, object, PATH_LOGGED);
    QorReadText(found, dest, capacity);
    QorDeleteLocalRef(jvmtijni_env, found.object);
    return found.missingAt < 0 ? 0 : -1;
}

// A driver has one of the two fields; the one that it was seen to have is tried first.
void ReadUser(jobject connection, UserFields *seen, char *user) {
    const auto readUser = [=] {
        seen->iRetValue = ReadString(connection, products::CONNECTION_USER, user, DB_USER_SIZE);
        return seen->iRetValue;
    };
    const auto readUserName = [=] {
        seen->iRetValue1 = ReadString(connection, products::CONNECTION_USER_NAME, user, DB_USER_SIZE);
        return seen->iRetValue1;
    };
    if (seen->iRetValue == 0 && seen->iRetValue1 == -1) {
        if (readUser() < 0)
            readUserName();
    } else if (readUserName() < 0) {
        readUser();
    }
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
    QorReadString(jvmtijni_env, sql, record->sqlText, capacity, BLANK_NOTHING, &cut);
    QORLOG(threshold, "SQL Statement %s", record->sqlText);
    if (cut && capacity == gbSqlQueryLength)
        appendSqlIdToSqlText(record->sqlText, sql);
    QorBlank(record->sqlText, BLANK_SEPARATORS);
}

int64_t AsNumber(jobject reference) {
    return reinterpret_cast<intptr_t>(reference);
}

void ReadDirect(const QorTableObject &row, jobject object, QorReading reading, QorDBRequestData *record) {
    const QorPathEnd sql = QorFollowPath(products::STATEMENT_SQL, object, PATH_LOGGED);
    if (sql.missingAt < 0) {
        record->sqlRef = AsNumber(sql.object);
        if (reading == READ_ENTRY)
            ReadSqlText(static_cast<jstring>(sql.object), gbSqlQueryLength, LOG_TRACE, record);
    }
    jobject connection = FindConnection(row, object);
    if (!connection)
        return;
    ReadString(connection, products::CONNECTION_URL, record->url, sizeof record->url);
    ReadString(connection, products::CONNECTION_USER, record->user, sizeof record->user);
    QorReadConnectionHash(connection, record);
    ReadSocket(connection, 0, record);
}

// The SQL of the statement that the connection is at, or null.
jstring FindCurrentSql(jobject connection) {
    const int32_t classHash = HashOfClass(connection);
    if (HasNoStatements(classHash))
        return nullptr;
    const QorPathEnd sql = QorFollowPath(products::CURRENT_SQL, connection, PATH_LOGGED);
    if (sql.missingAt == 0)
        iStatementObjectStatus[failedTries++ % DRIVER_CLASSES] = classHash;
    return static_cast<jstring>(sql.object);
}

void ReadLayered(const QorTableObject &row, jobject object, QorReading reading, QorDBRequestData *record) {
    static UserFields seen[] = {{0, -1}, {0, -1}}; // by each of the readers
    jobject connection = FindConnection(row, object);
    if (!connection || !IsReadable(connection))
        return;
    const bool isEntry = reading == READ_ENTRY;
    ReadString(connection, products::CONNECTION_URL, record->url,
               isEntry ? int32_t{DB_URL_SIZE} : FRAME_URL_SIZE);
    ReadUser(connection, &seen[reading], record->user);
    QorReadConnectionHash(connection, record);
    ReadSocket(connection, 1, record);
    jstring sql = isEntry || row.atOnce == AT_ONCE_WITH_SQL ? FindCurrentSql(connection) : nullptr;
    if (sql && isEntry)
        ReadSqlText(sql, gbSqlQueryLength, LOG_TRACE, record);
    if (sql)
        record->sqlRef = AsNumber(sql);
}

} // namespace

void QorReadDatabaseObject(const QorTableObject &row, jobject object, QorReading reading,
                           QorDBRequestData *record) {
    if (FormOf(row) == FORM_DIRECT)
        ReadDirect(row, object, reading, record);
    else
        ReadLayered(row, object, reading, record);
}

int32_t QorGetDBRequestDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                             QorDBRequestData *record) {
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
    const QorTableObject *row = QorFindTableObject(entry->strSignature);
    if (!row || !(row->kinds & FRAME_DATABASE))
        return 0;
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    if (!frame.pushed)
        QORLOG(LOG_NOTE, "QorAgent : Out of Memory XtierDb");
    QorReadDatabaseObject(*row, entry->objLocalVarHandle, READ_ENTRY, record);
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
    const QorPathEnd sql = QorFollowPath("_sqlStr,Ljava/lang/String;", statement, PATH_LOGGED);
    if (sql.missingAt < 0)
        ReadSqlText(static_cast<jstring>(sql.object), gbSqlQueryLength - 1, LOG_NOTE, record);
    record->dbType = DB_TYPE_SYBASE;
    jobject connection = QorFollowObjectMap("_context,Lcom/sybase/jdbc3/jdbc/ProtocolContext;|"
                                            "_conn,Lcom/sybase/jdbc3/jdbc/SybConnection;",
                                            statement);
    if (!connection)
        return;
    QorReadConnectionHash(connection, record);
    ReadString(connection, "_url,Ljava/lang/String;", record->url, sizeof record->url);
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
    QorReadString(jvmtijni_env, static_cast<jstring>(found), id, SQL_ID_SIZE, BLANK_SEPARATORS);
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
