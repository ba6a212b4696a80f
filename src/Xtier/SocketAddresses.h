// The two ends of a socket of this process. Any thread.
#pragma once

#include <cstdint>

// Ports in host order, 0 for an end that has none or when `fd` is no socket; the peer's address as text (""
// without a peer), of an IPv6 address the part behind its last colon.
void QorGetSocketAddresses(int64_t fd, uint32_t *localPort, uint32_t *remotePort, char *host,
                           int32_t hostSize);
