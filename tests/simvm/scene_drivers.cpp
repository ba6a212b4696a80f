// Threads in a database driver: both generations of its classes, its native part, and the one that a server
// wraps around it, each on a socket.
#include "stage.h"

namespace simvm {

namespace {

const char *const CLASSES[] = {
    "java/io/FileDescriptor fd,I",
    "java/io/InputStream",
    "java/io/FileInputStream < java/io/InputStream fd,Ljava/io/FileDescriptor;",
    "java/net/SocketInputStream < java/io/FileInputStream eof,Z",
    "java/net/InetAddress hostName,Ljava/lang/String; address,I family,I",
    "java/net/Inet4Address < java/net/InetAddress",
    "java/net/SocketImpl fd,Ljava/io/FileDescriptor; address,Ljava/net/InetAddress; port,I localport,I",
    "java/net/PlainSocketImpl < java/net/SocketImpl timeout,I",
    "java/net/Socket created,Z impl,Ljava/net/SocketImpl;",
    "tessar/net/nt/MetricsEnabledInputStream < java/io/InputStream realStream,Ljava/io/InputStream;",
    "tessar/net/ns/SessionAtts sdu,I ntInputStream,Ljava/io/InputStream;",
    "tessar/net/ns/Communication sAtts,Ltessar/net/ns/SessionAtts;",
    "tessar/jdbc/dbaccess/DBAccess net,Ltessar/net/ns/Communication; c_state,J",
    "tessar/jdbc/driver/TessarConnection url,Ljava/lang/String; user,Ljava/lang/String; "
    "db_access,Ltessar/jdbc/dbaccess/DBAccess;",
    "tessar/jdbc/driver/TessarStatement sql_query,Ljava/lang/String; "
    "connection,Ltessar/jdbc/driver/TessarConnection;",
    "tessar/jdbc/driver/TessarPreparedStatement < tessar/jdbc/driver/TessarStatement",
    "tessar/jdbc/driver/TessarResultSetImpl connection,Ltessar/jdbc/driver/TessarConnection;",
    "tessar/jdbc/driver/TessarSql originalSql,Ljava/lang/String;",
    "tessar/jdbc/driver/Q5DConnection url,Ljava/lang/String; userName,Ljava/lang/String; "
    "net,Ltessar/net/ns/Communication; statements,Ltessar/jdbc/driver/TessarStatement;",
    "tessar/jdbc/driver/Q5DPreparedStatement q5Connection,Ltessar/jdbc/driver/Q5DConnection; "
    "m_sql,Ltessar/jdbc/driver/TessarSql;",
    "ferrule/jdbc/base/BaseConnectionProperties props,Ljava/util/Properties;",
    "ferrule/jdbc/tessar/wire8/TessarWire8Communication socket,Ljava/net/Socket;",
    "ferrule/jdbc/tessar/TessarImplConnection connectProps,Lferrule/jdbc/base/BaseConnectionProperties; "
    "comm,Lferrule/jdbc/tessar/wire8/TessarWire8Communication;",
    "ferrule/jdbc/tessar/TessarImplStatement implConn,Lferrule/jdbc/tessar/TessarImplConnection; "
    "comm,Lferrule/jdbc/tessar/wire8/TessarWire8Communication;",
};

// What a thread's innermost driver object is.
enum class Form {
    STATEMENT,
    PREPARED,
    METRICS,
    RESULTS,
    NATIVE,
    NEW_STATEMENT,
    NEW_CONNECTION,
    WRAPPED_STATEMENT,
    WRAPPED_CONNECTION
};
struct Row {
    const char *thread;
    Form form;
    SocketKind socket;
};
const Row ROWS[] = {
    {"thin", Form::STATEMENT, SocketKind::IPV4},
    {"thin-prepared", Form::PREPARED, SocketKind::IPV4},
    {"thin-metrics", Form::METRICS, SocketKind::IPV4},
    {"thin-results", Form::RESULTS, SocketKind::IPV4},
    {"thin-six", Form::STATEMENT, SocketKind::IPV6},
    {"thin-closed", Form::STATEMENT, SocketKind::CLOSED},
    {"thin-file", Form::STATEMENT, SocketKind::FILE},
    {"thick", Form::NATIVE, SocketKind::IPV4},
    {"new", Form::NEW_STATEMENT, SocketKind::IPV4},
    {"new-connection", Form::NEW_CONNECTION, SocketKind::IPV4},
    {"wrapped", Form::WRAPPED_STATEMENT, SocketKind::IPV4},
    {"wrapped-connection", Form::WRAPPED_CONNECTION, SocketKind::IPV4},
};

Object *NewCommunication(int descriptor, bool metrics) {
    Object *file = New("java/io/FileDescriptor", {{"fd", descriptor}}),
           *stream = New("java/net/SocketInputStream", {{"fd", file}});
    if (metrics)
        stream = New("tessar/net/nt/MetricsEnabledInputStream", {{"realStream", stream}});
    return New("tessar/net/ns/Communication",
               {{"sAtts", New("tessar/net/ns/SessionAtts", {{"sdu", 2048}, {"ntInputStream", stream}})}});
}

// The native driver's memory: each structure points to the next from a place of its own, the last one holds
// the descriptor.
Word NewNativeState(int descriptor, int hole) {
    const int PLACES[NATIVE_STEPS] = {0x0c, 0x44, 0x120, 0x1a20, 0xd4, 0x8c, 0, 0x9c, 0x104, 0x18, 0x530};
    constexpr size_t ROOM = 0x1a40;
    Word first = Allocate(ROOM), structure = first;
    for (int step = 0, last = NATIVE_STEPS - 1; step < NATIVE_STEPS; step++) {
        Word next = step == hole ? 0 : step == last ? Word(descriptor) : Allocate(ROOM) + 4 * (step % 2);
        memcpy(&As<char>(structure + PLACES[step]), &next, step == last ? 4 : 8);
        if (step == hole)
            break;
        structure = next;
    }
    return first;
}

Object *NewThin(const Row &row, int descriptor, const std::string &sql, int hole = NATIVE_STEPS) {
    Object *access = New("tessar/jdbc/dbaccess/DBAccess", {});
    if (row.form == Form::NATIVE)
        Set(access, "c_state", NewNativeState(descriptor, hole));
    else
        Set(access, "net", NewCommunication(descriptor, row.form == Form::METRICS));
    Object *connection = New("tessar/jdbc/driver/TessarConnection",
                             {{"url", NewString(std::string("jdbc:tessar:") + row.thread)},
                              {"user", NewString(std::string("user of ") + row.thread)},
                              {"db_access", access}});
    if (row.form == Form::RESULTS)
        return New("tessar/jdbc/driver/TessarResultSetImpl", {{"connection", connection}});
    const char *type = row.form == Form::PREPARED ? "tessar/jdbc/driver/TessarPreparedStatement"
                                                  : "tessar/jdbc/driver/TessarStatement";
    return New(type, {{"connection", connection}, {"sql_query", NewString(sql)}});
}

Object *NewLater(const Row &row, int descriptor, const std::string &sql) {
    Object *text = New("tessar/jdbc/driver/TessarSql", {{"originalSql", NewString(sql)}}),
           *connection = New("tessar/jdbc/driver/Q5DConnection",
                             {{"url", NewString(std::string("jdbc:tessar:") + row.thread)},
                              {"userName", NewString(std::string("user of ") + row.thread)},
                              {"net", NewCommunication(descriptor, false)}}),
           *statement = New("tessar/jdbc/driver/Q5DPreparedStatement",
                            {{"q5Connection", connection}, {"m_sql", text}});
    Set(connection, "statements", statement);
    return row.form == Form::NEW_STATEMENT ? statement : connection;
}

Object *NewWrapped(const Row &row, const Connected &socket) {
    Object *address =
               New("java/net/Inet4Address", {{"hostName", NewString(socket.peer)}, {"address", 0x7f000001}}),
           *file = New("java/io/FileDescriptor", {{"fd", socket.descriptor}}),
           *impl = New("java/net/PlainSocketImpl", {{"fd", file},
                                                    {"address", address},
                                                    {"port", stoi(socket.remotePort)},
                                                    {"localport", stoi(socket.localPort)}}),
           *communication = New("ferrule/jdbc/tessar/wire8/TessarWire8Communication",
                                {{"socket", New("java/net/Socket", {{"impl", impl}})}});
    Object *table = NewTable("java/util/Properties", 3,
                             {{NewString("SERVERNAME"), NewString(std::string("jdbc:tessar:") + row.thread)},
                              {NewString("USER"), NewString(std::string("user of ") + row.thread)},
                              {NewString("PORTNUMBER"), NewString("1521")},
                              {NewString("SID"), NewString("sid")}}),
           *properties = New("ferrule/jdbc/base/BaseConnectionProperties", {{"props", table}}),
           *connection = New("ferrule/jdbc/tessar/TessarImplConnection",
                             {{"connectProps", properties}, {"comm", communication}});
    if (row.form == Form::WRAPPED_CONNECTION)
        return connection;
    return New("ferrule/jdbc/tessar/TessarImplStatement",
               {{"implConn", connection}, {"comm", communication}});
}

// Innermost a socket is read from the driver's network classes, or its native part runs.
std::vector<Frame> FramesOf(const Row &row, Object *object) {
    std::string holder =
        row.form == Form::PREPARED ? "tessar/jdbc/driver/TessarStatement" : object->type->name;
    std::vector<Frame> frames = {
        Run("shop/Worker"),
        {F::COMPILED,
         {In("shop/Dao", "find", 12, NewObject("shop/Dao")), In(holder, "execute", 99, object)}}};
    if (row.form == Form::NATIVE) {
        frames.push_back({F::NATIVE, {Native("tessar/jdbc/zdi8/ZDIDBAccess", "t_execute")}});
        return frames;
    }
    bool wrapped = row.form == Form::WRAPPED_STATEMENT || row.form == Form::WRAPPED_CONNECTION;
    frames.push_back(
        {F::INTERPRETED,
         {In(wrapped ? "ferrule/jdbc/tessar/net8/TessarNet8" : "tessar/net/ns/Packet", "receive", 31)}});
    frames.push_back({F::COMPILED, {In("java/net/SocketInputStream", "read", 129)}});
    frames.push_back({F::NATIVE, {Native("java/net/SocketInputStream", "socketRead0")}});
    return frames;
}

void AddRow(Scene *scene, const Row &row) {
    const std::string name = row.thread, sql = "select '" + name + "' from dual";
    Connected socket = Connect(scene, row.socket);
    bool wrapped = row.form >= Form::WRAPPED_STATEMENT,
         later = row.form == Form::NEW_STATEMENT || row.form == Form::NEW_CONNECTION;
    Object *object = wrapped ? NewWrapped(row, socket)
                     : later ? NewLater(row, socket.descriptor, sql)
                             : NewThin(row, socket.descriptor, sql);
    std::map<std::string, std::string> facts;
    if (!socket.localPort.empty())
        facts = {{"url", "jdbc:tessar:" + name},
                 {"user", "user of " + name},
                 {"local port", socket.localPort},
                 {"remote port", socket.remotePort},
                 {"peer", socket.peer}};
    if (!facts.empty() && !wrapped && row.form != Form::RESULTS)
        facts["sql"] = sql;
    scene->named[name] = object;
    Add(scene, name, FramesOf(row, object), Rest::PIPE, "DB Wait", facts);
}

} // namespace

void StageDrivers(Scene *scene) {
    for (const char *line : CLASSES)
        DefineClass(line);
    for (const Row &row : ROWS)
        AddRow(scene, row);
    int descriptor = Connect(scene, SocketKind::IPV4).descriptor;
    for (int hole = 0; hole < NATIVE_STEPS; hole++)
        scene->named["hole " + std::to_string(hole)] =
            NewThin({"hole", Form::NATIVE, SocketKind::IPV4}, descriptor, "select 1", hole);
}

} // namespace simvm
