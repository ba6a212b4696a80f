// The way from a driver's connection to its socket's descriptor.
#include "XtierDb.h"

#include "ObjectMap.h"
#include "RulePath.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "jvmti/threads/ThreadSystem.h"
#include "platforms/own_memory.h"
#include "qorlog.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr char SESSION_HOLDER[] = "db_access,Ltessar/jdbc/dbaccess/DBAccess;";
constexpr char NETWORK_STREAM[] = "net,Ltessar/net/ns/Communication;|sAtts,Ltessar/net/ns/SessionAtts;|"
                                  "ntInputStream,Ljava/io/InputStream;";

constexpr char METERED_STREAM[] = "Ltessar/net/nt/MetricsEnabledInputStream;";
constexpr char REAL_STREAM[] = "realStream,Ljava/io/InputStream;";

// Streams of the JVM that have no descriptor of their own, with the ways to it; the first that leads there
// counts.
struct StreamRow {
    const char *signature;
    const char *path;
};

constexpr char SOCKET_STREAM[] = "Ljava/net/Socket$SocketInputStream;";
constexpr char ENCRYPTED_STREAM[] = "Lsun/security/ssl/SSLSocketImpl$AppInputStream;";

constexpr StreamRow STREAM_ROWS[] = {
    {SOCKET_STREAM, "in,Ljava/io/InputStream;|this$0,Lsun/nio/ch/NioSocketImpl;|fd,Ljava/io/FileDescriptor;"},
    {SOCKET_STREAM, "in,Ljava/io/InputStream;|fd,Ljava/io/FileDescriptor;"}, // jdk.net.usePlainSocketImpl
    // An encrypted socket reads from the one that it is laid on, or from itself as a plain one.
    {ENCRYPTED_STREAM, "this$0,Lsun/security/ssl/SSLSocketImpl;|self,Ljava/net/Socket;|"
                       "impl,Ljava/net/SocketImpl;|fd,Ljava/io/FileDescriptor;"},
    {ENCRYPTED_STREAM, "this$0,Lsun/security/ssl/SSLSocketImpl;|self,Ljava/net/Socket;|"
                       "impl,Ljava/net/SocketImpl;|delegate,Ljava/net/SocketImpl;|"
                       "fd,Ljava/io/FileDescriptor;"},
};

constexpr char SOCKET[] = "Ljava/net/Socket;";
constexpr char ENCRYPTED[] = "Lsun/security/ssl/SSLSocketImpl;";
constexpr char CHANNEL_SOCKET[] = "Lsun/nio/ch/SocketAdaptor;";

// From a socket; any class that isn't in the table is taken for the first one's heir.
constexpr StreamRow SOCKET_ROWS[] = {
    {SOCKET, "impl,Ljava/net/SocketImpl;|delegate,Ljava/net/SocketImpl;|fd,Ljava/io/FileDescriptor;"},
    {SOCKET, "impl,Ljava/net/SocketImpl;|fd,Ljava/io/FileDescriptor;"},
    {ENCRYPTED, "self,Ljava/net/Socket;|impl,Ljava/net/SocketImpl;|delegate,Ljava/net/SocketImpl;|"
                "fd,Ljava/io/FileDescriptor;"},
    {ENCRYPTED, "self,Ljava/net/Socket;|impl,Ljava/net/SocketImpl;|fd,Ljava/io/FileDescriptor;"},
    {CHANNEL_SOCKET, "sc,Lsun/nio/ch/SocketChannelImpl;|fd,Ljava/io/FileDescriptor;"},
};

// The same behind a driver's own stream, on JVMs that are older than those of the table.
constexpr char ENCRYPTED_SOCKET[] =
    "c,Lsun/security/ssl/SSLSocketImpl;|sockInput,Ljava/io/InputStream;|fd,Ljava/io/FileDescriptor;";

// Where the native driver keeps the descriptor: pointers, each at an offset from the one before, the first of
// them from c_state. The layout is that of one build of that driver.
struct ThickStep {
    uint64_t offset;
    const char *missing; // logged where it isn't there
};
constexpr ThickStep THICK_STEPS[] = {
    {0, " C Connection structure in db_access is NULL\n"},
    {0x0c, " C structure c_svchp is NULL\n"},
    {0x44, " C structure c_var_9 is NULL\n"},
    {0x120, " C structure c_var_8 is NULL\n"},
    {0x1a20, " C structure c_var_7 is NULL\n"},
    {0xd4, " C structure c_var_6 is NULL\n"},
    {0x8c, " C structure c_var_5 is NULL\n"},
    {0, " C structure c_var_4 is NULL\n"},
    {0x9c, " C structure c_var_3 is NULL\n"},
    {0x104, " C structure c_var_2 is NULL\n"},
    {0x18, " C structure c_var_1 is NULL\n"},
};
constexpr uint64_t THICK_DESCRIPTOR = 0x530; // 32 bits, from the last of them

bool HasNone(const char *missing) {
    QORLOG(LOG_TRACE, "%s", missing);
    return false;
}

bool IsMetered(jobject stream) {
    char own[NAME_SIZE] = "";
    return stream && QorGetObjectClassSignature(stream, own) == 0 && strcmp(own, METERED_STREAM) == 0;
}

// The FileDescriptor of a stream of the JVM, null for any other stream.
jobject FindInTable(jobject stream) {
    char own[NAME_SIZE] = "";
    QorGetObjectClassSignature(stream, own);
    for (const StreamRow &row : STREAM_ROWS)
        if (strcmp(own, row.signature) == 0)
            if (jobject descriptor = QorFollowObjectMap(row.path, stream))
                return descriptor;
    return nullptr;
}

jobject FindDescriptor(jobject stream) {
    jobject descriptor = FindInTable(stream);
    if (descriptor)
        return descriptor;
    QorGetObjField(stream, "fd", "Ljava/io/FileDescriptor;", &descriptor);
    if (descriptor)
        return descriptor;
    jobject behind = QorFollowObjectMap(REAL_STREAM, stream);
    if (!behind)
        return nullptr;
    descriptor = FindInTable(behind);
    return descriptor ? descriptor : QorFollowObjectMap(ENCRYPTED_SOCKET, behind);
}

} // namespace

int32_t QorGetFdFromConnection(jobject connection, int32_t directConnection, int64_t *fd) {
    jobject holder = directConnection ? connection : QorFollowObjectMap(SESSION_HOLDER, connection);
    if (!holder)
        return -1;
    if (!directConnection && tessar_thick_driver) {
        if (QorGetFdFromThickDriver(fd, holder) == 0)
            return 0;
        *fd = 0;
        return -1;
    }
    jobject stream = QorFollowObjectMap(NETWORK_STREAM, holder);
    if (IsMetered(stream))
        stream = QorFollowObjectMap(REAL_STREAM, stream);
    jobject descriptor = stream ? FindDescriptor(stream) : nullptr;
    int32_t value = -1;
    if (!descriptor || QorGetIntObjectField(descriptor, "fd", "I", &value) < 0)
        return -1;
    *fd = value;
    return 0;
}

int32_t QorGetFdFromSocket(jobject socket, int64_t *fd) {
    char own[NAME_SIZE] = "";
    QorGetObjectClassSignature(socket, own);
    const auto isOwn = [&own](const StreamRow &row) { return strcmp(own, row.signature) == 0; };
    const bool isInTable = std::any_of(std::begin(SOCKET_ROWS), std::end(SOCKET_ROWS), isOwn);
    for (const StreamRow &row : SOCKET_ROWS) {
        if (isInTable ? !isOwn(row) : row.signature != SOCKET)
            continue;
        jobject descriptor = QorFollowPath(row.path, socket).object;
        int32_t value = -1;
        if (!descriptor || QorGetIntObjectField(descriptor, "fd", "I", &value) < 0)
            continue;
        *fd = value;
        return 0;
    }
    return -1;
}

int32_t QorGetFdFromThickDriver(int64_t *fd, jobject dbAccess) {
    int64_t state = 0;
    if (QorGetLongObjectField(dbAccess, "c_state", "J", &state) < 0 || state == 0)
        return -1;
    return QorFollowThickDriver(static_cast<uint64_t>(state), 0, fd) ? 0 : -1;
}

bool QorFollowThickDriver(uint64_t start, size_t firstStep, int64_t *fd) {
    uint64_t pointer = start;
    if (pointer == 0)
        return HasNone(THICK_STEPS[0].missing);
    for (size_t i = firstStep; i < std::size(THICK_STEPS); i++)
        if (!QorReadOwnMemory(pointer + THICK_STEPS[i].offset, &pointer, sizeof pointer) || pointer == 0)
            return HasNone(THICK_STEPS[i].missing);
    int32_t value = 0;
    if (!QorReadOwnMemory(pointer + THICK_DESCRIPTOR, &value, sizeof value) || value == 0)
        return HasNone(" C structure fd is NULL\n");
    *fd = value;
    return true;
}
