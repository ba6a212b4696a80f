#include "stage.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace simvm {

namespace {

union Address {
    sockaddr any;
    sockaddr_in four;
    sockaddr_in6 six;
};

Address Loopback(bool six) {
    Address at = {};
    at.any.sa_family = six ? AF_INET6 : AF_INET;
    if (six)
        at.six.sin6_addr = in6addr_loopback;
    else
        at.four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return at;
}

// The port is in the same place for both families.
std::string PortOf(int descriptor, decltype(getsockname) *ask) {
    Address at;
    socklen_t size = sizeof at;
    if (ask(descriptor, &at.any, &size))
        Fail("a socket has no address");
    return std::to_string(ntohs(at.four.sin_port));
}

// Its number isn't used for anything else.
int Closed() {
    int open = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 900);
    close(open);
    return open;
}

} // namespace

int ListeningSocket(int32_t *port) {
    Address at = Loopback(false);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, &at.any, sizeof at.four) || listen(listener, 8))
        Fail("no listening socket");
    *port = stoi(PortOf(listener, getsockname));
    return listener;
}

int32_t ListenOn(Scene *scene) {
    int32_t port;
    scene->descriptors.push_back(ListeningSocket(&port));
    return port;
}

Connected Connect(Scene *scene, SocketKind kind) {
    if (kind == SocketKind::CLOSED)
        return {Closed(), "", "", ""};
    if (kind == SocketKind::FILE) {
        scene->descriptors.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        return {scene->descriptors.back(), "", "", ""};
    }
    bool six = kind == SocketKind::IPV6;
    Address at = Loopback(six);
    socklen_t size = six ? sizeof at.six : sizeof at.four;
    int listener = socket(at.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0),
        client = socket(at.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, &at.any, size) || listen(listener, 1) || getsockname(listener, &at.any, &size) ||
        connect(client, &at.any, size))
        Fail("no connection over the loopback");
    scene->descriptors.insert(scene->descriptors.end(),
                              {client, accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)});
    close(listener);
    return {client, PortOf(client, getsockname), PortOf(client, getpeername), six ? "::1" : "127.0.0.1"};
}

} // namespace simvm
