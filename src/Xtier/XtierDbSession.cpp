#include "XtierDbSession.h"

#include "platforms/linux.h"
#include "qorrequest.h"

int32_t proc_net_fd[PROC_NET_FILES] = {-1, -1, -1, -1, -1, -1};

namespace {

constexpr const char *PROC_NET_PATHS[PROC_NET_FILES] = {
    "/proc/net/tcp", "/proc/net/udp", "/proc/net/raw", "/proc/net/tcp6", "/proc/net/udp6", "/proc/net/raw6",
};

} // namespace

bool QorOpenProcNet() {
    bool all = true;
    for (int i = 0; i < PROC_NET_FILES; i++) {
        if (proc_net_fd[i] == -1)
            proc_net_fd[i] = qor_open_read(PROC_NET_PATHS[i]);
        if (proc_net_fd[i] == -1)
            all = false;
    }
    return all;
}

void a_xtierfn01(char *) {
    pagebuf[0] = 0;
}
