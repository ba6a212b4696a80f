// The two ends of a socket of this process. Any thread.
#pragma once

#include <cstdint>

// Ports in host order, 0 for an unknown end or when `fd` isn't a socket; the peer's address as text (""
// without a peer), that of IPv4 in an IPv6 socket as IPv4.
void QorGetSocketAddresses(int64_t fd, uint32_t *localPort, uint32_t *remotePort, char *host,
                           int32_t hostSize);
