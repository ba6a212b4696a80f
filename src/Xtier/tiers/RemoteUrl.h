// URLs: host and port of a remote call, and what is secret in any. Any thread.
#pragma once

#include <cstdint>

// Takes "scheme://[user@]host[:port][/...]", the same without a scheme when it has a port, and
// "scheme:///host:port" as name resolvers write it. An address of IPv6 comes without its brackets; without a
// port that of http or https is taken, else 0. False, with `host` empty, when there is no host of letters,
// digits, dots, hyphens, underscores or an address, when it doesn't fit, or when the port is none.
bool QorReadRemoteUrl(const char *url, char *host, int32_t capacity, int32_t *port);

// Replaces what is secret in a URL by "***": the value of each property whose name ends in "password",
// "passwd", "pwd", "secret" or "token", and what follows the user before an "@". The text doesn't grow.
void QorHidePasswords(char *url);
