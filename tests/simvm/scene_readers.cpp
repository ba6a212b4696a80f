// Objects and frames for those who read fields, elements, arguments and locals.
#include "scenes.h"

namespace simvm {

namespace {

// A class with fields of all kinds, a static in it and one above, and a field that hides another; texts and
// arrays.
const char OBJECTS[] = R"(
class readers/Base *shared,I *label,Ljava/lang/String; id,J top,Ljava/lang/Object;
class readers/All < readers/Base *count,J *last,Lreaders/All; z,Z b,B c,C s,S i,I j,J f,F d,D text,Ljava/lang/String;
  buffer,Ljava/lang/StringBuffer; chars,[C ints,[I names,[Ljava/lang/String; grid,[[I any,Ljava/lang/Object;
  nothing,Ljava/lang/Object; id,J
any = readers/Plain
all := readers/All{z=true b=-128 c=0x20ac s=-32768 i=-2147483648 j=-9223372036854775801 f=2.5 d=-0.001 text="all"
  buffer=java/lang/StringBuffer{value='in a bufferunused' count=11} chars='letters' ints=[I(1 -2 3)
  names=[Ljava/lang/String;("a" null "c") grid=[[I([I(1) [I()) any=any id=77 top=any}
static readers/Base.shared = -3
static readers/Base.label = "static text"
static readers/All.count = 0x10000000000
static readers/All.last = all
plain := readers/Plain

let STRING java/lang/String
odd-text := $STRING{value=[C(111 100 100 32 0x80 0xe9 0xff 0 29 30 31 124) count=12}
part := $STRING{value='a part of it' offset=2 count=4}
wide-text := $STRING{value=[C(97 0xd83d 0xde00 0xd83d 98 0xde00 0x20ac) count=7}

C := [C(1 0 65)
text = "in an array"
row = [J(0x7fffffffffffffff -1)
texts := [Ljava/lang/String;(text null "last")
objects := [Ljava/lang/Object;(text row readers/Plain null)

# One of each kind of argument, then locals. Two methods share one entry of the cache: the second isn't in it.
let SIG (ILjava/lang/String;JD[Ljava/lang/String;)V
let FEW %-5 %part %0x200000000 %0.5 %texts %all %113 %null
let SIX %20 %all %21 %all %22 %all
let MORE $SIX $SIX
thread interpreted: SLEEP run readers/Thread ; i readers/All.plain$SIG:31 @all $FEW ;
  i readers/Far.withMany$SIG:32 @all $FEW $MORE $MORE ; i readers/Twice.first:34 @all %-5 %part ;
  i readers/Twice.second:35 @all %-5 %part ;
  n readers/Native.call(ILjava/lang/String;J)V @all %-5 %part %0x200000000
let MIXED %-5 ~part !0x200000000 =0.5 %texts ~all !113 =null %20 ~all !21 =all %22 ~all !20 =all %21 ~all !22 =all
thread compiled: SLEEP run readers/Thread ; c readers/All.outer$SIG:41 @all ^plain $FEW >
  readers/Plain.inlined$SIG:42 @plain $MIXED > readers/Statics.inner$SIG:43 ^all $FEW ;
  c readers/Native.wrapped(I)V @all %3
)";

} // namespace

void StageReaders(Scene *scene) {
    SceneText text(scene);
    scene->named["long-text"] = NewString(std::string(3000, 'x'));
    text.Read(OBJECTS);
}

// Threads in a database driver: both generations of its classes, its native part, and the one that a server
// wraps around it, each on a socket.

namespace {

const char DRIVERS[] = R"(
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

# Of a connection, by its thread's name and socket.
let STREAM java/net/SocketInputStream{fd=java/io/FileDescriptor{fd=$FD}}
let NET net=tessar/net/ns/Communication{sAtts=tessar/net/ns/SessionAtts{sdu=2048 ntInputStream,Ljava/io/InputStream;=$STREAM}}
let NATIVE c_state=$STATE
let CALL url="jdbc:tessar:$T" user="user of $T"
let THIN connection=$DRIVER/TessarConnection{$CALL db_access=tessar/jdbc/dbaccess/DBAccess{$NET}}
let THICK connection=$DRIVER/TessarConnection{$CALL db_access=tessar/jdbc/dbaccess/DBAccess{$NATIVE}}
let COMM comm=$WRAPPER/wire8/TessarWire8Communication{socket=java/net/Socket{created,Z=0
  impl,Ljava/net/SocketImpl;=java/net/PlainSocketImpl<java/net/SocketImpl{fd=java/io/FileDescriptor{fd=$FD}
  address=java/net/Inet4Address<java/net/InetAddress{hostName="127.0.0.1" address=0x7f000001}
  port=$REMOTE localport=$LOCAL timeout=0}}}
let PROPERTIES java/util/Properties#3("SERVERNAME" "jdbc:tessar:$T" "USER"@2 "user of $T" "PORTNUMBER"@2 "1521"
  "SID" "sid")
let WRAPPED_BY $WRAPPER/TessarImplConnection{
  connectProps=ferrule/jdbc/base/BaseConnectionProperties{props=$PROPERTIES} $COMM}

let READ c java/net/SocketInputStream.read:129 ; n java/net/SocketInputStream.socketRead0
let PACKET i tessar/net/ns/Packet.receive:31 ; $READ
let NET8 i ferrule/jdbc/tessar/net8/TessarNet8.receive:31 ; $READ
let ZDI n tessar/jdbc/zdi8/ZDIDBAccess.t_execute
let FACTS url=jdbc:tessar:$T; user=user of $T; local port=$LOCAL; remote port=$REMOTE
)";

// What a thread's innermost driver object is, in which class's method it runs, and what that has called.
struct Row {
    const char *thread, *holder, *object, *frames;
    bool isQuery = true; // it knows its SQL
    bool isClosed = false;
};
const char STATEMENT[] = "$DRIVER/TessarStatement", THIN[] = R"({sql_query="$SQL" $THIN})";
const Row ROWS[] = {
    {"thin", STATEMENT, THIN, "$PACKET"},
    {"thin-prepared", STATEMENT,
     R"($DRIVER/TessarPreparedStatement<$DRIVER/TessarStatement{sql_query="$SQL" $THIN})", "$PACKET"},
    {"thin-results", "$DRIVER/TessarResultSetImpl", "{$THIN}", "$PACKET", false},
    {"thin-closed", STATEMENT, THIN, "$PACKET", true, true},
    {"thick", STATEMENT, R"({sql_query="$SQL" $THICK})", "$ZDI"},
    {"new", "$DRIVER/Q5DPreparedStatement", "statement", "$PACKET"},
    {"new-connection", "$DRIVER/Q5DConnection", "connection", "$PACKET"},
    {"wrapped", "$WRAPPER/TessarImplStatement", "{implConn=$WRAPPED_BY $COMM}", "$NET8", false},
    {"wrapped-connection", "$WRAPPER/TessarImplConnection", "$WRAPPED_BY", "$NET8", false},
};

// The native driver's memory: each structure points to the next from a place of its own, the last one holds
// the descriptor.
Word NewNativeState(int descriptor) {
    constexpr int LAST = 0x530;
    constexpr size_t ROOM = 0x1a40;
    const Word first = Allocate(ROOM);
    Word structure = first;
    for (const int place : {0x0c, 0x44, 0x120, 0x1a20, 0xd4, 0x8c, 0, 0x9c, 0x104, 0x18}) {
        const Word next = Allocate(ROOM) + place % 8; // at odd places, too
        memcpy(&As<char>(structure + place), &next, sizeof next);
        structure = next;
    }
    memcpy(&As<char>(structure + LAST), &descriptor, sizeof descriptor);
    return first;
}

void AddRow(Scene *scene, SceneText *text, const Row &row) {
    constexpr int CLOSED = 900; // nobody has so many
    const Connected socket = row.isClosed ? Connected{CLOSED, "", ""} : Connect(scene);
    const std::string name = row.thread;
    text->Let("T", name);
    text->Let("SQL", "select '" + name + "' from dual");
    text->Let("FD", std::to_string(socket.descriptor));
    text->Let("LOCAL", socket.localPort);
    text->Let("REMOTE", socket.remotePort);
    text->Let("STATE", std::to_string(NewNativeState(socket.descriptor)));
    const std::string holder = row.holder, object = row.object;
    if (name.rfind("new", 0) == 0)
        text->Read(R"(
connection = $DRIVER/Q5DConnection{url="jdbc:tessar:$T" userName="user of $T" $NET}
statement = $DRIVER/Q5DPreparedStatement{q5Connection=connection m_sql=$DRIVER/TessarSql{originalSql="$SQL"}}
set connection.statements = statement
)");
    text->Read("object = " + (object[0] == '{' ? holder + object : object));
    text->Read(name + " := object");
    text->Read("thread $T: PIPE \"DB Wait\" run shop/Worker ; c shop/Dao.find:12 @ > " + holder +
               ".execute:99 @object ; " + row.frames + (row.isClosed ? "" : " | $FACTS") +
               (row.isClosed || !row.isQuery ? "" : "; sql=$SQL"));
}

} // namespace

void StageDrivers(Scene *scene) {
    SceneText text(scene);
    text.Read(DRIVERS);
    for (const Row &row : ROWS)
        AddRow(scene, &text, row);
}

} // namespace simvm
