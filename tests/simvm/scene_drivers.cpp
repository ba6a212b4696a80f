// Threads in a database driver: both generations of its classes, its native part, and the one that a server
// wraps around it, each on a socket.
#include "stage.h"

namespace simvm {

namespace {

const char CLASSES[] = R"(
let DRIVER tessar/jdbc/driver
let WRAPPER ferrule/jdbc/tessar
class java/io/InputStream
class java/io/FileInputStream < java/io/InputStream fd,Ljava/io/FileDescriptor;
class java/net/SocketInputStream < java/io/FileInputStream eof,Z
class tessar/jdbc/dbaccess/DBAccess net,Ltessar/net/ns/Communication; c_state,J
class $DRIVER/TessarStatement sql_query,Ljava/lang/String; connection,L$DRIVER/TessarConnection;
class $DRIVER/Q5DConnection url,Ljava/lang/String; userName,Ljava/lang/String; net,Ltessar/net/ns/Communication;
  statements,L$DRIVER/TessarStatement;
class java/net/SocketImpl fd,Ljava/io/FileDescriptor; address,Ljava/net/InetAddress; port,I localport,I
class java/net/InetAddress hostName,Ljava/lang/String; address,I family,I
)";
// Of a connection, by its thread's name and socket.
const char CONNECTIONS[] = R"(
let STREAM java/net/SocketInputStream{fd=java/io/FileDescriptor{fd=$FD}}
let METRICS tessar/net/nt/MetricsEnabledInputStream<java/io/InputStream{
  realStream,Ljava/io/InputStream;=$STREAM}
let ATTS tessar/net/ns/SessionAtts{sdu=2048 ntInputStream,Ljava/io/InputStream;
let NET net=tessar/net/ns/Communication{sAtts=$ATTS=$STREAM}}
let METERED net=tessar/net/ns/Communication{sAtts=$ATTS=$METRICS}}
let NATIVE c_state=$STATE
let CALL url="jdbc:tessar:$T" user="user of $T"
let THIN connection=$DRIVER/TessarConnection{$CALL db_access=tessar/jdbc/dbaccess/DBAccess{$NET}}
let THIN_METERED connection=$DRIVER/TessarConnection{$CALL db_access=tessar/jdbc/dbaccess/DBAccess{$METERED}}
let THICK connection=$DRIVER/TessarConnection{$CALL db_access=tessar/jdbc/dbaccess/DBAccess{$NATIVE}}
let COMM comm=$WRAPPER/wire8/TessarWire8Communication{socket=java/net/Socket{created,Z=0
  impl,Ljava/net/SocketImpl;=java/net/PlainSocketImpl<java/net/SocketImpl{fd=java/io/FileDescriptor{fd=$FD}
  address=java/net/Inet4Address<java/net/InetAddress{hostName="$PEER" address=0x7f000001}
  port=$REMOTE localport=$LOCAL timeout=0}}}
let PROPERTIES java/util/Properties#3("SERVERNAME" "jdbc:tessar:$T" "USER" "user of $T" "PORTNUMBER" "1521"
  "SID" "sid")
let WRAPPED_BY $WRAPPER/TessarImplConnection{
  connectProps=ferrule/jdbc/base/BaseConnectionProperties{props=$PROPERTIES} $COMM}
)";
const char FRAMES[] = R"(
let READ c java/net/SocketInputStream.read:129 ; n java/net/SocketInputStream.socketRead0
let PACKET i tessar/net/ns/Packet.receive:31 ; $READ
let NET8 i ferrule/jdbc/tessar/net8/TessarNet8.receive:31 ; $READ
let ZDI n tessar/jdbc/zdi8/ZDIDBAccess.t_execute
let FACTS url=jdbc:tessar:$T; user=user of $T; local port=$LOCAL; remote port=$REMOTE; peer=$PEER
)";

// What a thread's innermost driver object is, in which class's method it runs, and what that has called.
struct Row {
    const char *thread, *holder, *object, *frames;
    bool isQuery = true; // it knows its SQL
    SocketKind socket = SocketKind::IPV4;
};
const char STATEMENT[] = "$DRIVER/TessarStatement", THIN[] = R"({sql_query="$SQL" $THIN})";
const Row ROWS[] = {
    {"thin", STATEMENT, THIN, "$PACKET"},
    {"thin-prepared", STATEMENT,
     R"($DRIVER/TessarPreparedStatement<$DRIVER/TessarStatement{sql_query="$SQL" $THIN})", "$PACKET"},
    {"thin-metrics", STATEMENT, R"({sql_query="$SQL" $THIN_METERED})", "$PACKET"},
    {"thin-results", "$DRIVER/TessarResultSetImpl", "{$THIN}", "$PACKET", false},
    {"thin-six", STATEMENT, THIN, "$PACKET", true, SocketKind::IPV6},
    {"thin-closed", STATEMENT, THIN, "$PACKET", true, SocketKind::CLOSED},
    {"thin-file", STATEMENT, THIN, "$PACKET", true, SocketKind::FILE},
    {"thick", STATEMENT, R"({sql_query="$SQL" $THICK})", "$ZDI"},
    {"new", "$DRIVER/Q5DPreparedStatement", "statement", "$PACKET"},
    {"new-connection", "$DRIVER/Q5DConnection", "connection", "$PACKET"},
    {"wrapped", "$WRAPPER/TessarImplStatement", "{implConn=$WRAPPED_BY $COMM}", "$NET8", false},
    {"wrapped-connection", "$WRAPPER/TessarImplConnection", "$WRAPPED_BY", "$NET8", false},
};

constexpr int NATIVE_STEPS = 11;

// The native driver's memory: each structure points to the next from a place of its own, the last one holds
// the descriptor. At the hole there is nothing.
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

void AddRow(Scene *scene, SceneText *text, const Row &row, const std::string &name, int hole) {
    const Connected socket = Connect(scene, row.socket);
    text->Let("T", name);
    text->Let("SQL", "select '" + name + "' from dual");
    text->Let("FD", std::to_string(socket.descriptor));
    text->Let("LOCAL", socket.localPort);
    text->Let("REMOTE", socket.remotePort);
    text->Let("PEER", socket.peer);
    text->Let("STATE", std::to_string(NewNativeState(socket.descriptor, hole)));
    const std::string holder = row.holder, object = row.object;
    if (name.rfind("new", 0) == 0)
        text->Read(R"(
connection = $DRIVER/Q5DConnection{url="jdbc:tessar:$T" userName="user of $T" $NET}
statement = $DRIVER/Q5DPreparedStatement{q5Connection=connection m_sql=$DRIVER/TessarSql{originalSql="$SQL"}}
set connection.statements = statement
)");
    text->Read("object = " + (object[0] == '{' ? holder + object : object));
    scene->named[name] = text->Make("object").object;
    const bool known = !socket.localPort.empty() && hole == NATIVE_STEPS;
    text->Read("thread $T: PIPE \"DB Wait\" run shop/Worker ; c shop/Dao.find:12 @ > " + holder +
               ".execute:99 @object ; " + row.frames + (known ? " | $FACTS" : "") +
               (known && row.isQuery ? "; sql=$SQL" : ""));
}

} // namespace

void StageDrivers(Scene *scene) {
    SceneText text(scene);
    for (const char *lines : {CLASSES, CONNECTIONS, FRAMES})
        text.Read(lines);
    for (const Row &row : ROWS)
        AddRow(scene, &text, row, row.thread, NATIVE_STEPS);
    for (int hole = 0; hole < NATIVE_STEPS; hole++)
        AddRow(scene, &text, {"", STATEMENT, R"({sql_query="$SQL" $THICK})", "$ZDI"},
               "hole " + std::to_string(hole), hole);
}

} // namespace simvm
