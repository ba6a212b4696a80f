// Objects and frames for those who read fields, elements, arguments and locals.
#include "scenes.h"

namespace simvm {

// A class with fields of all kinds, a static in it and one above, and a field that hides another; texts and
// arrays.
const char READERS[] = R"(
class readers/Base *shared,I *label,Ljava/lang/String; id,J top,Ljava/lang/Object;
class readers/All < readers/Base *count,J *last,Lreaders/All; z,Z b,B c,C s,S i,I j,J f,F d,D text,Ljava/lang/String;
  buffer,Ljava/lang/StringBuffer; chars,[C ints,[I names,[Ljava/lang/String; grid,[[I any,Ljava/lang/Object;
  nothing,Ljava/lang/Object; id,J
any = readers/Plain
all := readers/All{z=1 b=-128 c=0x20ac s=-32768 i=-2147483648 j=-9223372036854775801 f=2.5 d=-0.001 text="all"
  buffer=java/lang/StringBuffer{value='in a bufferunused' count=11} chars='letters' ints=[I(1 -2 3)
  names=[Ljava/lang/String;("a" null "c") grid=[[I([I(1) [I()) any=any id=77 top=any}
static readers/Base.shared = -3
static readers/Base.label = "static text"
static readers/All.count = 0x10000000000
static readers/All.last = all
plain := readers/Plain

let STRING java/lang/String
odd-text := $STRING{value=[C(111 100 100 32 0x80 0xe9 0xff 0 29 30 31 124) count=12}
let X xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx
let XS $X$X$X$X$X$X
long-text := "$XS$XS$XS$XS$XS$XS"
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
thread interpreted: SLEEP i readers/Thread.run:21 @ ; i readers/All.plain$SIG:31 @all $FEW ;
  i readers/Far.withMany$SIG:32 @all $FEW $MORE $MORE ; i readers/Twice.first:34 @all %-5 %part ;
  i readers/Twice.second:35 @all %-5 %part ;
  n readers/Native.call(ILjava/lang/String;J)V @all %-5 %part %0x200000000
let MIXED %-5 ~part !0x200000000 =0.5 %texts ~all !113 =null %20 ~all !21 =all %22 ~all !20 =all %21 ~all !22 =all
thread compiled: SLEEP i readers/Thread.run:21 @ ; c readers/All.outer$SIG:41 @all ^plain $FEW >
  readers/Plain.inlined$SIG:42 @plain $MIXED > readers/Statics.inner$SIG:43 ^all $FEW ;
  c readers/Native.wrapped(I)V @all %3
)";

// Threads in a database driver: both generations of its classes, its native part, and the one that a server
// wraps around it, each on a socket.
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

# Of a connection.
let SQL select '$T' from dual
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
let ENTRY java/util/Hashtable$Entry
let PROPERTIES java/util/Properties{table=[L$ENTRY;(
  $ENTRY{key="SID" value="sid" next=$ENTRY{key="SERVERNAME" value="jdbc:tessar:$T"}} null
  $ENTRY{key="PORTNUMBER" value="1521" next=$ENTRY{key="USER" value="user of $T"}})}
let WRAPPED_BY $WRAPPER/TessarImplConnection{
  connectProps=ferrule/jdbc/base/BaseConnectionProperties{props=$PROPERTIES} $COMM}

let Q5D url="jdbc:tessar:$T" userName="user of $T" $NET
let Q5D_SQL m_sql=$DRIVER/TessarSql{originalSql="$SQL"}

let RUNS PIPE "DB Wait" i shop/Worker.run:21 @ ; c shop/Dao.find:12 @ >
let READ c java/net/SocketInputStream.read:129 ; n java/net/SocketInputStream.socketRead0
let PACKET i tessar/net/ns/Packet.receive:31 ; $READ
let NET8 i ferrule/jdbc/tessar/net8/TessarNet8.receive:31 ; $READ
let ZDI n tessar/jdbc/zdi8/ZDIDBAccess.t_execute
let FACTS url=jdbc:tessar:$T; user=user of $T; local port=$LOCAL; remote port=$REMOTE

socket thin
thin := $DRIVER/TessarStatement{sql_query="$SQL" $THIN}
thread $T: $RUNS $DRIVER/TessarStatement.execute:99 @thin ; $PACKET | $FACTS; sql=$SQL
socket thin-prepared
prepared := $DRIVER/TessarPreparedStatement<$DRIVER/TessarStatement{sql_query="$SQL" $THIN}
thread $T: $RUNS $DRIVER/TessarStatement.execute:99 @prepared ; $PACKET | $FACTS; sql=$SQL
socket thick
thread $T: $RUNS $DRIVER/TessarStatement.execute:99 @{sql_query="$SQL" $THICK} ; $ZDI | $FACTS; sql=$SQL
socket new
thread $T: $RUNS $DRIVER/Q5DPreparedStatement.execute:99 @{q5Connection=$DRIVER/Q5DConnection{$Q5D} $Q5D_SQL} ;
  $PACKET | $FACTS; sql=$SQL
socket new-connection
thread $T: $RUNS $DRIVER/Q5DConnection.execute:99 @{$Q5D statements=$DRIVER/Q5DPreparedStatement{$Q5D_SQL}} ;
  $PACKET | $FACTS; sql=$SQL
socket wrapped
thread $T: $RUNS $WRAPPER/TessarImplStatement.execute:99 @{implConn=$WRAPPED_BY $COMM} ; $NET8 | $FACTS
socket wrapped-connection
thread $T: $RUNS $WRAPPER/TessarImplConnection.execute:99 @$WRAPPED_BY ; $NET8 | $FACTS
# Nobody has so many descriptors.
let T thin-closed
let FD 900
thread $T: $RUNS $DRIVER/TessarStatement.execute:99 @{sql_query="$SQL" $THIN} ; $PACKET
)";

} // namespace simvm
