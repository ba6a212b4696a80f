#include "SocketAddresses.h"

#include "qorStrUtils.h"

#include <arpa/inet.h>
#include <climits>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// Java's sockets are of family 10 whenever the host has IPv6. Zeroed, so that what a failed call leaves is no
// address.
union Address {
    sockaddr_storage any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

constexpr int IPV4_IN_IPV6 = 12; // where an IPv4 address is in an IPv6 one

using AddressCall = int (*)(int, sockaddr *, socklen_t *);

Address Ask(AddressCall call, int fd) {
    Address address = {};
    socklen_t length = sizeof address;
    if (call(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        address = {};
    return address;
}

uint32_t PortOf(const Address &address) {
    switch (address.any.ss_family) {
    case AF_INET:
        return ntohs(address.v4.sin_port);
    case AF_INET6:
        return ntohs(address.v6.sin6_port);
    default:
        return 0;
    }
}

void QorGetRemoteHost(const Address &peer, char *host, int32_t size) {
    char text[INET6_ADDRSTRLEN] = "";
    host[0] = 0;
    if (peer.any.ss_family == AF_INET)
        inet_ntop(AF_INET, &peer.v4.sin_addr, text, sizeof text);
    else if (peer.any.ss_family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(&peer.v6.sin6_addr))
        inet_ntop(AF_INET, &peer.v6.sin6_addr.s6_addr[IPV4_IN_IPV6], text, sizeof text);
    else if (peer.any.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &peer.v6.sin6_addr, text, sizeof text);
    if (*text)
        QorStrncpy(host, text, size, size);
}

} // namespace

void QorGetSocketAddresses(int64_t fd, uint32_t *localPort, uint32_t *remotePort, char *host,
                           int32_t hostSize) {
    const int descriptor = fd >= 0 && fd <= INT_MAX ? static_cast<int>(fd) : -1;
    const Address peer = Ask(getpeername, descriptor);
    *localPort = PortOf(Ask(getsockname, descriptor));
    *remotePort = PortOf(peer);
    QorGetRemoteHost(peer, host, hostSize);
}
