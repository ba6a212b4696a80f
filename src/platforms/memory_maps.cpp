#include "memory_maps.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int LINE_SIZE = 4096 + 256; // a path and what is before it

// One line of the list: "start-end rwxp offset device inode    name". False for any other text.
bool ReadLine(char *line, QorMapping *mapping) {
    char rights[5] = "";
    int used = 0;
    line[strcspn(line, "\n")] = 0;
    if (sscanf(line, "%lx-%lx %4s %*s %*s %*s %n", &mapping->start, &mapping->end, rights, &used) < 3)
        return false;
    mapping->readable = rights[0] == 'r';
    mapping->writable = rights[1] == 'w';
    mapping->executable = rights[2] == 'x';
    mapping->shared = rights[3] == 's';
    snprintf(mapping->name, sizeof mapping->name, "%s", used > 0 ? line + used : "");
    return true;
}

struct Search {
    uint64_t address;
    QorMapping *found;
    bool done;
};

bool HoldsAddress(const QorMapping &mapping, void *data) {
    auto *search = static_cast<Search *>(data);
    if (search->address < mapping.start || search->address >= mapping.end)
        return true;
    *search->found = mapping;
    search->done = true;
    return false;
}

} // namespace

bool QorVisitMappings(bool (*visit)(const QorMapping &mapping, void *data), void *data) {
    FILE *file = fopen("/proc/self/maps", "re");
    if (!file)
        return false;
    char line[LINE_SIZE];
    QorMapping mapping;
    bool starts = true; // what is left of a line too long must not pass for one
    while (fgets(line, sizeof line, file)) {
        const bool isStart = starts;
        starts = strchr(line, '\n') != nullptr;
        if (isStart && ReadLine(line, &mapping) && !visit(mapping, data))
            break;
    }
    fclose(file);
    return true;
}

bool QorFindMapping(uint64_t address, QorMapping *found) {
    Search search = {address, found, false};
    return QorVisitMappings(HoldsAddress, &search) && search.done;
}
