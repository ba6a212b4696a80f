// A server that listens at a free port of this machine.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

struct Loopback {
    explicit Loopback(const char *address) {
        addrinfo wanted = {};
        wanted.ai_flags = AI_NUMERICHOST;
        wanted.ai_socktype = SOCK_STREAM;
        getaddrinfo(address, "0", &wanted, &at);
        fd = socket(at->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        listens =
            bind(fd, at->ai_addr, at->ai_addrlen) == 0 && listen(fd, 16) == 0; // else without this family
        port = PortOf(fd);
    }
    ~Loopback() {
        close(fd);
        freeaddrinfo(at);
    }
    Loopback(const Loopback &) = delete;
    Loopback &operator=(const Loopback &) = delete;

    // A client's end.
    int Connect() const {
        const int client = socket(at->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        getsockname(fd, at->ai_addr, &at->ai_addrlen);
        return connect(client, at->ai_addr, at->ai_addrlen) == 0 ? client : -1;
    }

    static uint16_t PortOf(int socket) {
        sockaddr_in6 name = {};
        socklen_t size = sizeof name;
        getsockname(socket, reinterpret_cast<sockaddr *>(&name), &size);
        return ntohs(name.sin6_port); // at the same place in both families
    }

    int fd;
    bool listens;
    uint16_t port;

private:
    addrinfo *at = nullptr;
};
