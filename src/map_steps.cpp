#include "map_steps.h"

#include "qorlog.h"

#include <cstring>

int32_t QorSplitObjectMap(char *map, char *(&steps)[OBJECT_MAP_STEPS]) {
    int32_t count = 0;
    for (char *next = map; next;) {
        if (count == OBJECT_MAP_STEPS) {
            QORLOG(LOG_NOTE, "Qor Agent : ParseJVMTIObjectMap exceeds the max count");
            return -1;
        }
        steps[count++] = next;
        next = strchr(next, '|');
        if (next)
            *next++ = 0;
    }
    return count;
}
