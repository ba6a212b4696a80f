#include "memory_headroom.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t PATH_SIZE = 4096, LINE_SIZE = 4096;

constexpr char MEMBERSHIP[] = "/proc/self/cgroup", GROUPS[] = "/sys/fs/cgroup";

// The files of a group.
struct GroupFiles {
    const char *folder; // below the root
    const char *limit, *usage;
    const char *reclaimable; // key in memory.stat, null for none
};
struct Resource {
    const char *controller; // as the membership of version 1 names it
    GroupFiles version1, version2;
};
constexpr Resource RESOURCES[] = {
    {"memory",
     {"/memory", "memory.limit_in_bytes", "memory.usage_in_bytes", "total_inactive_file "},
     {"", "memory.max", "memory.current", "inactive_file "}},
    {"pids", {"/pids", "pids.max", "pids.current", nullptr}, {"", "pids.max", "pids.current", nullptr}},
};

// The number after `key` in a file of lines; with an empty key, the number that the file begins with. False
// when there is none, as for a limit of "max".
bool ReadNumber(const char *path, const char *key, uint64_t *out) {
    FILE *file = fopen(path, "re");
    if (!file)
        return false;
    char line[LINE_SIZE];
    bool found = false;
    while (!found && fgets(line, sizeof line, file)) {
        const size_t length = strlen(key);
        if (strncmp(line, key, length) != 0)
            continue;
        char *end = nullptr;
        *out = strtoull(line + length, &end, 10);
        found = end != line + length;
        if (!*key)
            break;
    }
    fclose(file);
    return found;
}

uint64_t Least(uint64_t a, uint64_t b) {
    return a < b ? a : b;
}

bool GroupNumber(const char *group, const char *name, const char *key, uint64_t *out) {
    char path[PATH_SIZE];
    const int length = snprintf(path, sizeof path, "%s/%s", group, name);
    return length > 0 && length < static_cast<int>(sizeof path) && ReadNumber(path, key, out);
}

// What one group still allows. File pages that nobody has used of late count as free.
uint64_t HeadroomOf(const char *group, const GroupFiles &files) {
    uint64_t limit = 0, usage = 0, reclaimable = 0;
    if (!GroupNumber(group, files.limit, "", &limit) || !GroupNumber(group, files.usage, "", &usage))
        return UINT64_MAX;
    if (files.reclaimable)
        GroupNumber(group, "memory.stat", files.reclaimable, &reclaimable);
    usage = usage > reclaimable ? usage - reclaimable : 0;
    return limit > usage ? limit - usage : 0;
}

// The least of a group and all groups around it. In a container the path may name folders that are not to be
// seen in there; the limit then is in a folder above them.
uint64_t HeadroomUpwards(const char *root, const GroupFiles &files, const char *path) {
    char group[PATH_SIZE];
    const int length = snprintf(group, sizeof group, "%s%s%s", root, files.folder, path);
    if (length <= 0 || length >= static_cast<int>(sizeof group))
        return UINT64_MAX;
    const size_t top = strlen(root) + strlen(files.folder);
    uint64_t least = UINT64_MAX;
    for (;;) {
        least = Least(least, HeadroomOf(group, files));
        char *slash = strrchr(group + top, '/');
        if (!slash)
            return least;
        *slash = 0;
    }
}

} // namespace

uint64_t QorCgroupHeadroom(QorCgroupResource wanted, const char *membership, const char *root) {
    const Resource &resource = RESOURCES[wanted];
    FILE *file = fopen(membership, "re");
    if (!file)
        return UINT64_MAX;
    uint64_t least = UINT64_MAX;
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, file)) {
        line[strcspn(line, "\n")] = 0;
        char *controllers = strchr(line, ':');
        char *path = controllers ? strchr(controllers + 1, ':') : nullptr;
        if (!path)
            continue;
        *path++ = 0;
        if (strcmp(controllers + 1, resource.controller) == 0)
            least = Least(least, HeadroomUpwards(root, resource.version1, path));
        else if (!controllers[1])
            least = Least(least, HeadroomUpwards(root, resource.version2, path));
    }
    fclose(file);
    return least;
}

uint64_t QorMemoryHeadroom() {
    uint64_t available = 0;
    constexpr int KIB_SHIFT = 10;
    if (!ReadNumber("/proc/meminfo", "MemAvailable:", &available))
        return 0; // unknown: nothing is risked
    return Least(available << KIB_SHIFT, QorCgroupHeadroom(CGROUP_MEMORY, MEMBERSHIP, GROUPS));
}

uint64_t QorTaskHeadroom() {
    return QorCgroupHeadroom(CGROUP_TASKS, MEMBERSHIP, GROUPS);
}
