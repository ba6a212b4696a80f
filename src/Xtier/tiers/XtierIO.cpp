#include "XtierIO.h"

#include "ObjectMap.h"
#include "ValueText.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "platforms/linux.h"
#include "qorlog.h"

#include <cstring>

static_assert(FILE_NAME_SIZE == sizeof QorIOCallData::fileName, "the name is written there");

namespace {

struct FileRow {
    const char *signature;
    const char *path; // object map to the FileDescriptor; null for the object itself
};

constexpr FileRow ROWS[] = {
    {"Ljava/io/FileReader;", "sd,Lsun/nio/cs/StreamDecoder;|in,Ljava/io/"
                             "InputStream;|fd,Ljava/io/FileDescriptor;"},
    {"Ljava/io/RandomAccessFile;", "fd,Ljava/io/FileDescriptor;"},
    {"Ljava/io/BufferedInputStream;", "in,Ljava/io/InputStream;|fd,Ljava/io/FileDescriptor;"},
    {"Ljava/io/FileDescriptor;", nullptr},
};

constexpr jint FRAME_REFERENCES = 1024;

const FileRow *FindRow(const char *signature) {
    for (const FileRow &row : ROWS)
        if (strcmp(signature, row.signature) == 0)
            return &row;
    return nullptr;
}

} // namespace

int32_t QorGetIOCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorIOCallData *record) {
    if (!entry || !record)
        return -1;
    record->fd = -1;
    if (!entry->objLocalVarHandle) {
        QORLOG(LOG_TRACE, "QorGetIOCallDataFromLocalVariable : Obj Null");
        return 0;
    }
    const FileRow *row = FindRow(entry->strSignature);
    if (!row)
        return 0;
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    jobject descriptor =
        row->path ? QorFollowObjectMap(row->path, entry->objLocalVarHandle) : entry->objLocalVarHandle;
    int32_t fd = -1;
    if (!descriptor || QorGetIntObjectField(descriptor, "fd", "I", &fd) < 0)
        return 0;
    record->fd = fd;
    if (fd > 0 && QorGetFileNameFromFD(fd, record->fileName) == 0) {
        // A name is any bytes.
        QorReplaceForeignBytes(record->fileName);
        QorBlankSeparators(record->fileName);
    }
    return 0;
}
