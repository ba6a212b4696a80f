// A server's socket at a free port of this machine.
#pragma once

#include <arpa/inet.h>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

struct Loopback {
    Loopback(int family, const char *address) : fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        at_.sin6_family = static_cast<sa_family_t>(family);
        inet_pton(family, address, family == AF_INET ? static_cast<void *>(&V4()->sin_addr) : &at_.sin6_addr);
        const int no = 0;
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
        bound = bind(fd, Any(), sizeof at_) == 0; // or a host without this family
        at_.sin6_port = htons(port = PortOf(fd));
    }
    ~Loopback() { close(fd); }
    Loopback(const Loopback &) = delete;
    Loopback &operator=(const Loopback &) = delete;

    bool Listen() const { return listen(fd, 16) == 0; }

    // A client's end.
    int Connect() {
        const int client = socket(at_.sin6_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return connect(client, Any(), sizeof at_) == 0 ? client : -1;
    }

    static uint16_t PortOf(int socket) {
        sockaddr_in6 name = {};
        socklen_t size = sizeof name;
        getsockname(socket, reinterpret_cast<sockaddr *>(&name), &size);
        return ntohs(name.sin6_port); // at the same place in both families
    }

    const int fd;
    uint16_t port;
    bool bound;

private:
    sockaddr_in *V4() { return reinterpret_cast<sockaddr_in *>(&at_); }
    sockaddr *Any() { return reinterpret_cast<sockaddr *>(&at_); }

    sockaddr_in6 at_ = {};
};
