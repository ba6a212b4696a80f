// The host's own network addresses, for a console that must say which hosts are one.

#include "natives.h"

#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorsettings.h"

#include "platforms/linux.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

constexpr int FIRST_ENTRIES = 16;
constexpr int MAX_ENTRIES = 1023;

// Lists the interfaces into `conf`; its buffer is the caller's to free. False when they are unavailable.
bool ListInterfaces(int socket, ifconf *conf) {
    for (int entries = FIRST_ENTRIES;; entries *= 2) {
        if (entries > MAX_ENTRIES) {
            qor_perror("Reacehd max limit for retrying reading IP Config Structures. Returning");
            return false;
        }
        const int size = entries * static_cast<int>(sizeof(ifreq));
        free(conf->ifc_buf);
        conf->ifc_buf = static_cast<char *>(calloc(1, static_cast<size_t>(size)));
        if (!conf->ifc_buf) {
            qor_perror("Unable to allocate %d IP Config Structures having total size %d", entries, size);
            return false;
        }
        conf->ifc_len = size;
        if (ioctl(socket, SIOCGIFCONF, conf) != 0)
            qor_perror("Error reading IP Config Structures for buffer with %d elements having total size %d",
                       entries, size);
        else if (conf->ifc_len < size)
            break; // not filled: there are no more
    }
    QORLOG(LOG_TRACE, "Succesfully read IP Config Structures\n");
    return true;
}

bool IsUpAndOutside(int socket, const ifreq &interface) {
    ifreq request = interface;
    if (ioctl(socket, SIOCGIFFLAGS, &request) != 0)
        return false;
    return (request.ifr_flags & IFF_UP) && !(request.ifr_flags & IFF_LOOPBACK);
}

// Appends "address,name," as a whole, or nothing when the address has no name or there is no room.
void AppendAddress(const ifreq &interface, char *text, int32_t size) {
    char address[INET_ADDRSTRLEN], name[NI_MAXHOST], pair[INET_ADDRSTRLEN + NI_MAXHOST + 2];
    const auto *inet = reinterpret_cast<const sockaddr_in *>(&interface.ifr_addr);
    if (inet->sin_family != AF_INET || !inet_ntop(AF_INET, &inet->sin_addr, address, sizeof address))
        return;
    if (getnameinfo(&interface.ifr_addr, sizeof(sockaddr_in), name, sizeof name, nullptr, 0, NI_NAMEREQD) !=
        0)
        return;
    if (!name[0])
        return;
    snprintf(pair, sizeof pair, "%s,%s,", address, name);
    QorStrncat(text, pair, size);
}

} // namespace

void addvips(char *text, int32_t size) {
    if (!text) {
        QORLOG(LOG_NOTE, "QorAgent Error: Buffer NULL. Returning\n");
        return;
    }
    text[0] = 0;
    if (gbNimbJvm)
        return;
    int32_t fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        qor_perror("Cannot open socket to get IP information");
        return;
    }
    ifconf conf = {};
    if (ListInterfaces(fd, &conf)) {
        const int count = conf.ifc_len / static_cast<int>(sizeof(ifreq));
        for (int i = 0; i < count; i++)
            if (IsUpAndOutside(fd, conf.ifc_req[i]))
                AppendAddress(conf.ifc_req[i], text, size);
    }
    free(conf.ifc_buf);
    qor_close_handle(&fd);
}

char *addvipsnew(char *text, int32_t size) {
    QorStrncat(text, "|", size);
    return text;
}
