// The way from a driver's connection to its socket's descriptor.
#include "XtierDb.h"

#include "ObjectMap.h"
#include "TierReader.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "jvmti/threads/ThreadSystem.h"
#include "platforms/own_memory.h"
#include "products.h"
#include "qorlog.h"

#include <iterator>

namespace {

constexpr char REAL_STREAM[] = "realStream,Ljava/io/InputStream;";
// After a driver's own stream, on JVMs that are older than those of the table.
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

// What the tables read of an object, by its class; null for nothing.
const QorTableObject *FindRow(jobject object) {
    char own[NAME_SIZE] = "";
    QorGetObjectClassSignature(object, own);
    return QorFindTableObject(own);
}

// The FileDescriptor of a stream of the JVM, null for any other stream. The first way that leads there
// counts.
jobject FindInTable(jobject stream) {
    const QorTableObject *row = FindRow(stream);
    if (!row)
        return nullptr;
    for (const QorTableWay &way : row->ways)
        if (way.target == &products::SOCKET)
            if (jobject descriptor = QorFollowObjectMap(way.way, stream))
                return descriptor;
    return nullptr;
}

// The stream that the driver's session reads from, without the counting one before it.
jobject FindStream(jobject holder) {
    jobject stream = QorFollowObjectMap(products::SESSION_STREAM, holder);
    const QorTableObject *row = stream ? FindRow(stream) : nullptr;
    const char *const real = row ? QorWayTo(*row, products::STREAM) : nullptr;
    return real ? QorFollowObjectMap(real, stream) : stream;
}

jobject FindDescriptor(jobject stream) {
    jobject descriptor = FindInTable(stream);
    if (descriptor)
        return descriptor;
    QorGetObjField(stream, "fd", "Ljava/io/FileDescriptor;", &descriptor);
    if (descriptor)
        return descriptor;
    jobject real = QorFollowObjectMap(REAL_STREAM, stream);
    if (!real)
        return nullptr;
    descriptor = FindInTable(real);
    return descriptor ? descriptor : QorFollowObjectMap(ENCRYPTED_SOCKET, real);
}

} // namespace

int32_t QorGetFdFromConnection(jobject connection, int32_t directConnection, int64_t *fd) {
    jobject holder = directConnection ? connection : QorFollowObjectMap(products::DB_ACCESS_OF, connection);
    if (!holder)
        return -1;
    if (!directConnection && tessar_thick_driver) {
        if (QorGetFdFromThickDriver(fd, holder) == 0)
            return 0;
        *fd = 0;
        return -1;
    }
    jobject stream = FindStream(holder);
    jobject descriptor = stream ? FindDescriptor(stream) : nullptr;
    int32_t value = -1;
    if (!descriptor || QorGetIntObjectField(descriptor, "fd", "I", &value) < 0)
        return -1;
    *fd = value;
    return 0;
}

int32_t QorGetFdFromSocket(jobject socket, int64_t *fd) {
    const QorTableObject *row = FindRow(socket);
    if (!row)
        row = QorFindTableObject(products::ANY_SOCKET);
    for (const QorTableWay &way : row->ways) {
        if (way.target != &products::SOCKET)
            continue;
        jobject descriptor = QorFollowPath(way.way, socket, PATH_SILENT).object;
        int32_t value = -1;
        if (!descriptor || QorGetIntObjectField(descriptor, "fd", "I", &value) < 0)
            continue;
        *fd = value;
        return 0;
    }
    return -1;
}

int32_t QorGetFdFromThickDriver(int64_t *fd, jobject dbAccess) {
    const QorPathEnd state = QorFollowPath(products::NATIVE_STATE_OF, dbAccess, PATH_LOGGED);
    if (!state.isNumber || state.number == 0)
        return -1;
    return QorFollowThickDriver(static_cast<uint64_t>(state.number), 0, fd) ? 0 : -1;
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
