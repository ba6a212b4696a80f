#include "followRefHackHelper.h"

#include "qorlog.h"

// Both guards need addresses inside the JVM library that this agent doesn't look up: nothing is changed, the
// JVM keeps its own capabilities, and walks end in the JVM's own way.

void init_LockCapabilitiesHack() {
    QORLOG(LOG_DETAIL, "Lock capabilities stay as the JVM offers them: no address to change them at");
}

void init_FollowRefHack() {
    QORLOG(LOG_DETAIL, "Reference walks end in the JVM's own way: no address to change that at");
}
