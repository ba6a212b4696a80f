#include "XtierDbSession.h"

#include "platforms/linux.h"
#include "platforms/own_address.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "reply/qortext.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <netdb.h>
#include <unistd.h>

int32_t proc_net_fd[PROC_NET_FILES] = {-1, -1, -1, -1, -1, -1};
QorNetRecord *NetData;
int32_t totalnet;
int32_t maxnetsize = 128;

namespace {

QorKeptFile procNetFiles[PROC_NET_FILES]; // those that were opened
constexpr const char *PROC_NET_PATHS[PROC_NET_FILES] = {
    "/proc/net/tcp", "/proc/net/udp", "/proc/net/raw", "/proc/net/tcp6", "/proc/net/udp6", "/proc/net/raw6",
};
constexpr int32_t FIRST_IPV6_FILE = 3;
constexpr char MAPPED_PREFIX[] =
    "0000000000000000FFFF0000"; // an IPv4 address in IPv6, as the tables write it

constexpr size_t PARAMETERS_SIZE = 20487; // no request is longer
constexpr int32_t CLIENT_HOST_SIZE = 40;
constexpr size_t LONGEST_PROCESS_LIST = 10239;
constexpr size_t GREP_BLOCK_SIZE = 4096;
constexpr size_t GREP_RESULT_SIZE = 256;
constexpr size_t LONGEST_PROCESS_ID = 10;  // digits
constexpr int32_t OPEN_FAILURES_TOLD = 16; // in one request: an agent without the right to look has thousands

void ReplyOutOfMemory() {
    snprintf(pagebuf, PAGEBUF_SIZE, "ERROR:DB Agent Out of Memory\n");
    QORLOG(LOG_ERROR, "Qor DB Agent: ERROR:DB Agent Out of Memory");
    qor_perror("Qor DB Agent : Out of Memory");
}

void ReplyInvalid(const char *parameters) {
    snprintf(pagebuf, PAGEBUF_SIZE, "ERROR Invalid parameters %s for %s", parameters, XTIER_WORD);
}

// ---- The lines of a table --------------------------------------------------------------------------------

struct GrepResult {
    char *text;
    size_t length, size;
};

// False when there is no memory: nothing is kept then.
bool KeepLine(GrepResult *result, const char *line, size_t length) {
    const size_t wanted = result->length + length + 2; // line end and terminator
    size_t size = result->text ? result->size : GREP_RESULT_SIZE;
    while (size < wanted)
        size *= 2;
    if (size != result->size) {
        char *grown = static_cast<char *>(realloc(result->text, size));
        if (!grown) {
            QORLOG(LOG_ERROR, "realloc failed 2008");
            qor_perror("QOR Agent : realloc failed 2008");
            free(result->text);
            *result = {};
            return false;
        }
        result->text = grown;
        result->size = size;
    }
    memcpy(result->text + result->length, line, length);
    result->length += length;
    memcpy(result->text + result->length, "\n", 2);
    result->length++;
    return true;
}

struct LineReader {
    int32_t fd;
    off_t at;          // in the file, of what comes after the block
    size_t begin, end; // what of the block is not yet given out
    bool skipping;     // in the middle of a line that is too long
    char block[GREP_BLOCK_SIZE];
};

// Reads on after what is left of the block. False at the end.
bool FillBlock(LineReader *reader) {
    memmove(reader->block, reader->block + reader->begin, reader->end - reader->begin);
    reader->end -= reader->begin;
    reader->begin = 0;
    if (reader->end == sizeof reader->block - 1) { // no line end in all of it
        reader->end = 0;
        reader->skipping = true;
    }
    ssize_t got;
    do
        got = pread(reader->fd, reader->block + reader->end, sizeof reader->block - 1 - reader->end,
                    reader->at);
    while (got < 0 && errno == EINTR);
    if (got <= 0)
        return false;
    reader->end += static_cast<size_t>(got);
    reader->at += got;
    return true;
}

// The next line, terminated in place; null at the end. A last line without an end counts as one.
char *NextLine(LineReader *reader) {
    for (;;) {
        char *from = reader->block + reader->begin;
        const size_t left = reader->end - reader->begin;
        char *end = static_cast<char *>(memchr(from, '\n', left));
        if (!end && FillBlock(reader))
            continue;
        from = reader->block + reader->begin;
        if (!end && reader->begin == reader->end)
            return nullptr;
        if (!end)
            end = reader->block + reader->end;
        reader->begin = std::min(reader->end, static_cast<size_t>(end + 1 - reader->block));
        *end = 0;
        if (!reader->skipping)
            return from;
        reader->skipping = false;
    }
}

// ---- The client's sockets --------------------------------------------------------------------------------

// Keeps a record; false, with the error as the reply and none kept, when there is no memory.
bool KeepRecord(const QorNetRecord &record) {
    NetData[totalnet++] = record;
    if (totalnet < maxnetsize)
        return true;
    void *grown = maxnetsize <= INT_MAX / 2
                      ? realloc(NetData, static_cast<size_t>(maxnetsize) * 2 * sizeof *NetData)
                      : nullptr;
    if (!grown) {
        ReplyOutOfMemory();
        totalnet = 0;
        return false;
    }
    NetData = static_cast<QorNetRecord *>(grown);
    maxnetsize *= 2;
    return true;
}

// Adds the sockets at `port` whose other end is at `address`. `threshold` is that of the log.
bool SearchTables(uint32_t port, uint32_t address, int32_t threshold) {
    for (int32_t file = 0; file < PROC_NET_FILES; file++) {
        const int32_t fd = QorProcNetFile(file);
        if (fd == -1)
            continue;
        const bool mapped = file >= FIRST_IPV6_FILE;
        char key[64];
        snprintf(key, sizeof key, ":%04X %s%08X", port, mapped ? MAPPED_PREFIX : "", address);
        char *rows = MY_GREP(fd, key, false);
        if (!rows)
            QORLOG(threshold, "No data found in file %d, continuing...", file);
        char *rest = nullptr;
        bool kept = true;
        for (char *row = rows ? strtok_r(rows, "\n", &rest) : nullptr; row && kept;
             row = strtok_r(nullptr, "\n", &rest)) {
            QorNetRecord record = {};
            if (QorParseNetRow(row, mapped, &record))
                kept = KeepRecord(record);
        }
        free(rows);
        if (!kept)
            return false;
    }
    return true;
}

// Fills NetData. False when the reply is an error.
bool FindSockets(uint32_t port, const char *clientHost) {
    uint32_t client = UINT32_MAX; // 0 would meet the listener's own row
    if (HostNametoClAddr(clientHost, &client) == -1) {
        snprintf(pagebuf, PAGEBUF_SIZE, "ERROR: DB Agent Invalid Client Host %s\n", clientHost);
        return false;
    }
    const bool fromHere = clientHost[0] && strcmp(OwnAddress(true), clientHost) == 0;
    uint32_t local = 0;
    if (fromHere && HostNametoClAddr("127.0.0.1", &local) == -1) {
        snprintf(pagebuf, PAGEBUF_SIZE, "ERROR: Could not resolve localhost\n");
        return false;
    }
    totalnet = 0;
    if (!NetData)
        NetData = static_cast<QorNetRecord *>(calloc(static_cast<size_t>(maxnetsize), sizeof *NetData));
    if (!NetData) {
        ReplyOutOfMemory();
        return false;
    }
    const bool alsoLocal = fromHere && local != client;
    if (!SearchTables(port, client, LOG_NOTE) || (alsoLocal && !SearchTables(port, local, LOG_TRACE)))
        return false;
    std::sort(NetData, NetData + totalnet,
              [](const QorNetRecord &a, const QorNetRecord &b) { return a.inode < b.inode; });
    return true;
}

// ---- The processes ---------------------------------------------------------------------------------------

// The port of the client whose socket this is, or 0.
uint32_t PortOf(uint64_t inode) {
    const QorNetRecord *end = NetData + totalnet;
    const QorNetRecord *found =
        std::lower_bound(NetData, NetData + totalnet, inode,
                         [](const QorNetRecord &record, uint64_t wanted) { return record.inode < wanted; });
    return found != end && found->inode == inode ? found->remotePort : 0;
}

bool IsProcessId(const char *text) {
    const size_t length = strlen(text);
    return length > 0 && length <= LONGEST_PROCESS_ID && strspn(text, "0123456789") == length;
}

// The port of the first client socket that the process holds, or 0. `told` counts the failures reported.
uint32_t ClientPortOf(const char *processId, int32_t *told) {
    char path[32];
    snprintf(path, sizeof path, "/proc/%s/fd/", processId);
    DIR *directory = opendir(path);
    if (!directory) {
        const bool gone = errno == ENOENT && qorloglevel <= LOG_DETAIL;
        if (!gone && (*told)++ < OPEN_FAILURES_TOLD)
            qor_perror("QOR DB Agent ERROR: Cannot open %s ", path);
        return 0;
    }
    uint32_t port = 0;
    while (const dirent *entry = readdir(directory)) {
        const uint64_t inode = QorSocketInode(dirfd(directory), entry->d_name);
        port = inode ? PortOf(inode) : 0;
        if (port)
            break;
    }
    closedir(directory);
    return port;
}

// Bounds the list, before an id: what is left of one that is cut is another process's.
void CutProcessList(char *processes) {
    if (strnlen(processes, LONGEST_PROCESS_LIST + 1) <= LONGEST_PROCESS_LIST)
        return;
    char *end = processes + LONGEST_PROCESS_LIST;
    while (end > processes && *end != ',' && *end != '|')
        end--;
    *end = 0;
}

void ReplyPorts(char *processes) {
    QorText reply;
    QorTextStart(&reply, pagebuf, PAGEBUF_SIZE - 1); // room for the bar
    int32_t told = 0;
    char *rest = nullptr;
    for (char *id = strtok_r(processes, ",", &rest); id; id = strtok_r(nullptr, ",", &rest)) {
        const uint32_t port = IsProcessId(id) ? ClientPortOf(id, &told) : 0;
        if (!port)
            continue;
        char pair[32];
        snprintf(pair, sizeof pair, "%s,%d,", id, static_cast<int32_t>(port));
        QorTextAppend(&reply, pair);
    }
    reply.size++;
    QorTextAppendChar(&reply, '|');
}

} // namespace

bool QorOpenProcNet() {
    bool all = true;
    for (int i = 0; i < PROC_NET_FILES; i++) {
        if (QorProcNetFile(i) == -1) {
            proc_net_fd[i] = qor_open_read(PROC_NET_PATHS[i]);
            QorNoteFile(proc_net_fd[i], &procNetFiles[i]);
        }
        if (proc_net_fd[i] == -1)
            all = false;
    }
    return all;
}

int32_t QorProcNetFile(int32_t file) {
    return QorIsFile(proc_net_fd[file], procNetFiles[file]) ? proc_net_fd[file] : -1;
}

char *MY_GREP(int32_t fd, const char *pattern, bool firstOnly) {
    GrepResult result = {};
    LineReader reader;
    reader.fd = fd;
    reader.at = 0;
    reader.begin = reader.end = 0;
    reader.skipping = false;
    while (const char *line = NextLine(&reader)) {
        if (!strstr(line, pattern))
            continue;
        if (!KeepLine(&result, line, strlen(line)) || firstOnly)
            break;
    }
    return result.text;
}

bool QorParseNetRow(char *row, bool mapped, QorNetRecord *record) {
    enum : int32_t { FIELD_LOCAL = 1, FIELD_REMOTE = 2, FIELD_INODE = 9 };
    const size_t prefix = mapped ? sizeof MAPPED_PREFIX - 1 : 0;
    char *rest = nullptr;
    char *field = strtok_r(row, " ", &rest);
    for (int32_t i = 0; field && i < FIELD_INODE; i++, field = strtok_r(nullptr, " ", &rest)) {
        if (i != FIELD_LOCAL && i != FIELD_REMOTE)
            continue;
        const char *colon = strchr(field, ':');
        if (!colon || strncmp(field, MAPPED_PREFIX, prefix) != 0)
            return false;
        char *end = nullptr;
        uint32_t *port = i == FIELD_LOCAL ? &record->localPort : &record->remotePort;
        *port = static_cast<uint32_t>(strtoul(colon + 1, &end, 16));
        if (end == colon + 1)
            return false;
    }
    if (!field)
        return false;
    char *end = nullptr;
    record->inode = strtoull(field, &end, 10);
    return end != field;
}

uint64_t QorSocketInode(int directory, const char *entry) {
    constexpr char word[] = "socket:[";
    char name[64];
    const ssize_t length = readlinkat(directory, entry, name, sizeof name - 1);
    if (length <= 0)
        return 0;
    name[length] = 0;
    return strncmp(name, word, sizeof word - 1) == 0 ? strtoull(name + sizeof word - 1, nullptr, 10) : 0;
}

int32_t HostNametoClAddr(const char *text, uint32_t *address) {
    in_addr read = {*address};
    const int32_t result = inet_aton(text, &read);
    *address = read.s_addr;
    return result;
}

void a_xtierfn01(char *parameters) {
    static char rest[PARAMETERS_SIZE];
    uint32_t port = 0;
    if (sscanf(parameters, "%u|%20486s", &port, rest) < 2) {
        ReplyInvalid(parameters);
        return;
    }
    char *bar = strchr(rest, '|');
    if (!bar) {
        ReplyInvalid(rest);
        return;
    }
    *bar = 0;
    char clientHost[CLIENT_HOST_SIZE] = "";
    QorStrncpy(clientHost, rest, sizeof clientHost, sizeof clientHost - 1);
    char *processes = bar + 1;
    CutProcessList(processes);
    if (char *end = strchr(processes, '|'))
        *end = 0;
    else
        QORLOG(LOG_DETAIL, "Qor DB Agent:  Client Host: %s DB Port: %d  Input Data: %s", clientHost,
               static_cast<int32_t>(port), processes);
    if (FindSockets(port, clientHost))
        ReplyPorts(processes);
}
