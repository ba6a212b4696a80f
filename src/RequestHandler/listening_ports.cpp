#include "listening_ports.h"

#include "XtierDbSession.h"

#include "qorsettings.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <dirent.h>

std::atomic<int32_t> relayPort;

namespace {

constexpr int32_t TCP_FILES[] = {0, 3}; // of proc_net_fd: tcp and tcp6
constexpr char LISTENING[] = " 0A ";    // the state, between blanks

struct Listeners {
    QorNetRecord *rows; // sorted by inode
    int32_t count, room;
};

// Adds the listening sockets of one table, those of other processes among them.
void AddRows(char *table, Listeners *all) {
    char *rest = nullptr;
    for (char *row = strtok_r(table, "\n", &rest); row; row = strtok_r(nullptr, "\n", &rest)) {
        QorNetRecord record = {};
        if (!QorParseNetRow(row, false, &record))
            continue;
        if (all->count == all->room) {
            const int32_t room = all->room ? all->room * 2 : 64;
            void *grown = realloc(all->rows, static_cast<size_t>(room) * sizeof *all->rows);
            if (!grown)
                return;
            all->rows = static_cast<QorNetRecord *>(grown);
            all->room = room;
        }
        all->rows[all->count++] = record;
    }
}

Listeners ReadTables() {
    Listeners all = {};
    for (const int32_t file : TCP_FILES) {
        const int32_t fd = QorProcNetFile(file);
        char *table = fd == -1 ? nullptr : MY_GREP(fd, LISTENING, false);
        if (table)
            AddRows(table, &all);
        free(table);
    }
    std::sort(all.rows, all.rows + all.count,
              [](const QorNetRecord &a, const QorNetRecord &b) { return a.inode < b.inode; });
    return all;
}

// The port of the socket, 0 for one that isn't among them.
uint16_t PortOf(const Listeners &all, uint64_t inode) {
    const QorNetRecord *end = all.rows + all.count;
    const QorNetRecord *found =
        std::lower_bound(all.rows, const_cast<QorNetRecord *>(end), inode,
                         [](const QorNetRecord &record, uint64_t wanted) { return record.inode < wanted; });
    return found != end && found->inode == inode ? static_cast<uint16_t>(found->localPort) : 0;
}

// Writes the ports to `ports`, `size` of them at most, each once; `except` is left out. Returns how many
// there are.
int32_t ListeningPorts(uint16_t *ports, int32_t size, uint16_t except) {
    const Listeners all = ReadTables();
    int32_t count = 0;
    DIR *own = all.count ? opendir("/proc/self/fd") : nullptr;
    while (const dirent *entry = own ? readdir(own) : nullptr) {
        const uint64_t inode = QorSocketInode(dirfd(own), entry->d_name);
        const uint16_t port = inode ? PortOf(all, inode) : 0;
        if (port && port != except && count < size && std::find(ports, ports + count, port) == ports + count)
            ports[count++] = port;
    }
    if (own)
        closedir(own);
    free(all.rows);
    return count;
}

} // namespace

void QorNameJvmByPort() {
    uint16_t ports[2];
    if (!ext_jvm_id_str[0] && QorOnJvmtiRoad() &&
        ListeningPorts(ports, 2, static_cast<uint16_t>(relayPort)) == 1)
        QorSetJvmPort(ports[0]);
}
