#include "direct_connections.h"

#include "Xtier/tiers/RemoteUrl.h"
#include "Xtier/tiers/SocketAddresses.h"
#include "Xtier/tiers/XtierDb.h"
#include "connection_list.h"
#include "jdbc_versions.h"
#include "platforms/own_address.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_text.h"
#include "reply/qorformat.h"
#include "sunprint/fields.h"
#include "sunprint/object_map.h"

#include <cstring>
#include <ctime>

namespace {

constexpr int64_t NO_DESCRIPTOR = -1;
constexpr char LOOPBACK[] = "127.0.0.1", LOOPBACK_NAME[] = "localhost";

QorDirectConnection found;  // what is being read; 4 KB
uint32_t collectionsBefore; // the count when the first of it was read

template <size_t SIZE>
void CopyText(char (&dest)[SIZE], const char *text) {
    QorStrncpy(dest, text[0] ? text : null_str, SIZE, SIZE);
}

// A String of the driver's, the placeholder for none.
template <size_t SIZE>
void CopyString(char (&dest)[SIZE], uint64_t string) {
    char text[VM_TEXT_SIZE];
    QorVmText(text, sizeof text, string);
    CopyText(dest, text);
}

// ---- the way to the socket

int64_t NoSocket(const char *why) {
    QORLOG(LOG_NOTE, "%s", why);
    return NO_DESCRIPTOR;
}

int64_t NativeDescriptor(QorJdbcVersion *record, uint64_t access) {
    int64_t fd = NO_DESCRIPTOR;
    const uint64_t place = QorJdbcPlace(record, access, JDBC_NATIVE_STATE);
    if (place == 0)
        QORLOG(LOG_TRACE, " Unable to get field c_state in db_access is NULL\n");
    else
        QorFollowThickDriver(QorWordAt(place), 1, &fd); // without a look at the value itself
    return fd;
}

int64_t StreamDescriptor(QorJdbcVersion *record, uint64_t net) {
    if (net == 0)
        return NoSocket("QOR Agent: Object net not found\n");
    const uint64_t session = QorJdbcObject(record, net, JDBC_SESSION);
    if (session == 0)
        return NoSocket("QOR Agent: Object sAtts not found\n");
    const uint64_t input = QorJdbcObject(record, session, JDBC_INPUT);
    if (input == 0)
        return NoSocket("QOR Agent: Object ntInputStream not found\n");
    uint64_t descriptor = QorJdbcObject(record, input, JDBC_INPUT_DESCRIPTOR);
    if (descriptor == 0)
        descriptor =
            QorJdbcObject(record, QorJdbcObject(record, input, JDBC_REAL_INPUT), JDBC_REAL_DESCRIPTOR);
    const uint64_t place = QorJdbcPlace(record, descriptor, JDBC_DESCRIPTOR);
    if (place == 0)
        return NoSocket("QOR Agent: Object java_net_resource not found\n");
    return QorInt32At(place);
}

// The connection's descriptor, -1 for none.
int64_t connection2fd(uint64_t connection, QorJdbcVersion *record) {
    if (record->version != JDBC_DIRECT)
        return StreamDescriptor(
            record, record->version == JDBC_LAYERED ? QorJdbcObject(record, connection, JDBC_NET) : 0);
    const uint64_t access = QorJdbcObject(record, connection, JDBC_ACCESS);
    if (access == 0)
        return NoSocket("QOR Agent: db_access not found\n");
    if (tessar_thick_driver)
        return NativeDescriptor(record, access);
    return StreamDescriptor(record, QorJdbcObject(record, access, JDBC_NET));
}

// Ports and peer of the descriptor. False for anything but a connected socket.
bool ReadSocket() {
    QorGetSocketAddresses(found.fd, &found.localPort, &found.remotePort, found.remoteHost,
                          sizeof found.remoteHost);
    if (found.localPort == 0 || found.remotePort == 0)
        return false;
    const char *const own = OwnAddress(false);
    const bool fromHere =
        strcmp(found.remoteHost, LOOPBACK) == 0 || strcmp(found.remoteHost, LOOPBACK_NAME) == 0;
    if (fromHere && own[0])
        CopyText(found.remoteHost, own);
    return true;
}

// ---- statements and connections

void StartReading(uint64_t connection, uint64_t sql) {
    found = {};
    found.connection = connection;
    found.sqlRef = sql;
    found.fd = NO_DESCRIPTOR;
    found.collections = collectionsBefore;
    found.sampleTime = time(nullptr);
}

// Null when a collection has moved what was read.
QorDirectConnection *Keep(const char *threadName, const char *threadKey) {
    if (QorIsCollecting() || QorCollectionCount() != found.collections)
        return nullptr;
    QorSetConnectionOwner(&found, threadName, threadKey);
    return insert_db_info(found);
}

// Where the SQL text of a statement is, 0 for none.
uint64_t FindSql(QorJdbcVersion *record, uint64_t statement) {
    if (record->version == JDBC_DIRECT)
        return QorJdbcPlace(record, statement, JDBC_SQL_QUERY);
    return QorJdbcPlace(record, QorJdbcObject(record, statement, JDBC_SQL_OBJECT), JDBC_ORIGINAL_SQL);
}

// The connection of a statement, 0 for none.
uint64_t get_connection_from_statement(uint64_t statement, QorJdbcVersion *record) {
    switch (record->version) {
    case JDBC_DIRECT:
        return QorJdbcObject(record, statement, JDBC_CONNECTION);
    case JDBC_LAYERED:
        return QorJdbcObject(record, statement, JDBC_Q5_CONNECTION);
    default:
        QORLOG(LOG_NOTE, "QOR Agent : Unknown JDBC Driver");
        return 0;
    }
}

bool ReadConnection(uint64_t connection, QorJdbcVersion *record) {
    const uint64_t url = QorJdbcPlace(record, connection, JDBC_URL);
    if (url == 0)
        return false;
    CopyString(found.url, QorWordAt(url));
    QorHidePasswords(found.url);
    uint64_t user = QorJdbcPlace(record, connection, JDBC_USER);
    if (user == 0)
        user = QorJdbcPlace(record, connection, JDBC_USER_NAME);
    if (user == 0)
        QORLOG(LOG_NOTE, "QOR Agent: no field user in conn_obj %lx", connection);
    CopyString(found.user, user ? QorWordAt(user) : 0);
    found.fd = connection2fd(connection, record);
    if (found.fd >= 0 && ReadSocket())
        return true;
    QORLOG(LOG_NOTE, "QOR Agent: Conn obj net resource not found");
    return false;
}

QorDirectConnection *update_conn_table(const char *threadName, const char *threadKey, uint64_t connection,
                                       uint64_t sql, QorJdbcVersion *record) {
    if (QorDirectConnection *known = QorFindConnection(connection)) {
        QorSetConnectionOwner(known, threadName, threadKey);
        known->sqlRef = sql;
        return known;
    }
    if (connection == 0) {
        QORLOG(LOG_DETAIL, "QOR Agent: Null Conn Obj");
        return nullptr;
    }
    StartReading(connection, sql);
    return ReadConnection(connection, record) ? Keep(threadName, threadKey) : nullptr;
}

QorDirectConnection *OfStatement(uint64_t statement, const char *threadName, const char *threadKey) {
    QorJdbcVersion *record = get_jdbc_version(statement);
    if (!record)
        return nullptr;
    const uint64_t connection = get_connection_from_statement(statement, record);
    return update_conn_table(threadName, threadKey, connection, FindSql(record, statement), record);
}

// A connection shows the SQL of the first of its statements.
QorDirectConnection *OfConnection(uint64_t connection, const char *threadName, const char *threadKey) {
    QorJdbcVersion *record = set_jdbc_version(connection, JDBC_LAYERED);
    if (!record)
        return nullptr;
    const uint64_t place = QorJdbcPlace(record, connection, JDBC_STATEMENTS);
    record->version = place ? JDBC_LAYERED : JDBC_WITHOUT_SESSION;
    const uint64_t sql = place ? FindSql(record, QorWordAt(place)) : 0;
    return update_conn_table(threadName, threadKey, connection, sql, record);
}

// ---- the Ferrule driver

QorDirectConnection *NoFerrule(const char *what) {
    QORLOG(LOG_NOTE, "%s", what);
    return nullptr;
}

QorDirectConnection *ReadFerruleSocket(uint64_t object) {
    const uint64_t comm = ParseObject("comm,Lferrule/jdbc/tessar/wire8/TessarWire8Communication;", object);
    if (comm == 0)
        return NoFerrule("QOR Agent: DOV JDBC: comm not found");
    const uint64_t socket = ParseObject("socket,Ljava/net/Socket;", comm);
    if (socket == 0)
        return NoFerrule("QOR Agent: DOV JDBC: socket not found");
    const uint64_t impl = ParseObject("impl,Ljava/net/SocketImpl;", socket);
    if (impl == 0)
        return NoFerrule("QOR Agent: DOV JDBC: impl not found");
    found.localPort = static_cast<uint32_t>(ParseObject("localport,I", impl));
    if (found.localPort == 0)
        return NoFerrule("QOR Agent: DOV JDBC: client_port not found");
    found.remotePort = static_cast<uint32_t>(ParseObject("port,I", impl));
    if (found.remotePort == 0)
        return NoFerrule("QOR Agent: DOV JDBC: dbport not found");
    CopyString(found.remoteHost,
               ParseObjectMap("address,Ljava/net/InetAddress;|hostName,Ljava/lang/String;", impl));
    return &found;
}

// The connection is the statement's, or the object itself; its socket is the object's.
QorDirectConnection *update_conn_stmt_table(uint64_t object, bool isConnection, const char *threadName,
                                            const char *threadKey) {
    if (object == 0)
        return NoFerrule("QOR Agent: DOV JDBC : Null Stmt object");
    const uint64_t connection =
        isConnection ? object : ParseObject("implConn,Lferrule/jdbc/tessar/TessarImplConnection;", object);
    if (connection == 0)
        return NoFerrule("QOR Agent: DOV JDBC : implConn not found");
    if (QorDirectConnection *known = QorFindConnection(connection)) {
        QorSetConnectionOwner(known, threadName, threadKey);
        return known;
    }
    StartReading(connection, 0);
    const uint64_t properties =
        ParseObject("connectProps,Lferrule/jdbc/base/BaseConnectionProperties;", connection);
    const uint64_t table = properties ? ParseObject("props,Ljava/util/Properties;", properties) : 0;
    if (table == 0)
        return NoFerrule("QOR Agent: DOV JDBC: connectProps not found");
    const uint64_t server = search_hash_table(table, "SERVERNAME");
    if (server == 0)
        return NoFerrule("QOR Agent: DOV JDBC: Field SERVERNAME/SID not found in Hash Table");
    const uint64_t user = search_hash_table(table, "USER");
    if (user == 0)
        return NoFerrule("QOR Agent: DOV JDBC: Field USER not found in Hash Table");
    CopyString(found.url, server);
    CopyString(found.user, user);
    return ReadFerruleSocket(object) ? Keep(threadName, threadKey) : nullptr;
}

} // namespace

bool QorFindDirectConnection(QorDirectDriver driver, uint64_t object, const char *threadName,
                             const char *threadKey, QorDatabaseBlock *out) {
    const QorDirectConnection *entry = nullptr;
    collectionsBefore = QorCollectionCount();
    switch (driver) {
    case DRIVER_STATEMENT:
        entry = OfStatement(object, threadName, threadKey);
        break;
    case DRIVER_CONNECTION:
        entry = OfConnection(object, threadName, threadKey);
        break;
    default:
        entry = update_conn_stmt_table(object, driver == DRIVER_FERRULE_CONNECTION, threadName, threadKey);
        break;
    }
    if (entry)
        *out = QorBlockOfConnection(*entry);
    return entry != nullptr;
}

bool QorKnownConnectionOf(const char *threadName, const char *threadKey, QorDatabaseBlock *out) {
    const QorDirectConnection *entry = QorConnectionOfThread(threadName, threadKey);
    if (entry)
        *out = QorBlockOfConnection(*entry);
    else
        QORLOG(LOG_DETAIL, "insert_db_data: DB_Info cache[%d] missing thread [%s]", db_info_index,
               threadName);
    return entry != nullptr;
}

bool QorThreadOfClientPort(int32_t port, QorText *out) {
    const QorDirectConnection *entry = QorConnectionAtPort(static_cast<uint32_t>(port));
    if (!entry)
        return false;
    QorTextAppend(out, entry->threadName);
    QorTextAppendChar(out, '|');
    QorTextAppend(out, entry->threadKey);
    return true;
}
