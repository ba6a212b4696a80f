#include "serve.h"

#include "base/failure.h"
#include "base/process.h"
#include "wire/records.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr int BACKLOG = 16;
constexpr int CALLER_SECONDS = 10;          // an idle caller is cut off
constexpr size_t MOST_REQUEST_BYTES = 8192; // of headers; there is no body

template <class T, void (*Free)(T *)>
using Owned = std::unique_ptr<T, std::integral_constant<decltype(Free), Free>>;

struct Serving {
    const MetricsPlace &place;
    const char *type;
    const std::function<std::string()> &text;
};

Failure CantListen(const std::string &where, int error) {
    return Failure("can't listen at " + where + ": " + strerror(error), "choose another place", EXIT_USAGE);
}

// As long whatever the caller sends.
bool SameToken(std::string_view sent, std::string_view token) {
    unsigned differs = sent.size() != token.size();
    for (size_t i = 0; i < token.size(); ++i)
        differs |=
            static_cast<unsigned char>(token[i]) ^ static_cast<unsigned char>(i < sent.size() ? sent[i] : 0);
    return differs == 0;
}

bool MayAsk(evhttp_request *request, const std::string &token) {
    constexpr std::string_view BEARER = "Bearer ";
    if (token.empty())
        return true;
    const char *sent = evhttp_find_header(evhttp_request_get_input_headers(request), "Authorization");
    const std::string_view text = sent ? sent : "";
    return text.substr(0, BEARER.size()) == BEARER && SameToken(text.substr(BEARER.size()), token);
}

void Answer(evhttp_request *request, void *context) {
    const auto &serving = *static_cast<const Serving *>(context);
    if (!MayAsk(request, serving.place.token)) {
        evhttp_add_header(evhttp_request_get_output_headers(request), "WWW-Authenticate", "Bearer");
        evhttp_send_reply(request, 401, "Unauthorized", nullptr);
        return;
    }
    std::string text;
    try {
        text = serving.text();
    } catch (const std::exception &) { // nothing may be thrown through the library
        evhttp_send_error(request, HTTP_INTERNAL, nullptr);
        return;
    }
    const Owned<evbuffer, evbuffer_free> body(evbuffer_new());
    evbuffer_add(body.get(), text.data(), text.size());
    evhttp_add_header(evhttp_request_get_output_headers(request), "Content-Type", serving.type);
    evhttp_send_reply(request, HTTP_OK, "OK", body.get());
}

// A socket file that was left over is replaced, one that somebody serves isn't.
FileDescriptor ListenAtPath(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw CantListen(path, ENAMETOOLONG);
    memcpy(address.sun_path, path.data(), path.size());
    const auto *const name = reinterpret_cast<const sockaddr *>(&address);
    const FileDescriptor caller(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(caller.get(), name, sizeof address) == 0)
        throw CantListen(path, EADDRINUSE);
    struct stat status = {};
    if (errno == ECONNREFUSED && lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
        unlink(path.c_str());
    FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const mode_t mask = umask(0177);
    const int failed = bind(listener.get(), name, sizeof address);
    const int error = errno;
    umask(mask);
    if (failed || listen(listener.get(), BACKLOG) != 0)
        throw CantListen(path, failed ? error : errno);
    return listener;
}

union SocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

// "ADDRESS:PORT" or "[ADDRESS]:PORT". Throws a usage Failure for another text.
SocketAddress ReadAddress(const std::string &text, std::string *host) {
    SocketAddress address = {};
    const size_t colon = text.rfind(':');
    int port = -1;
    *host = text.substr(0, colon);
    const bool number = colon != text.npos && ReadNumber(std::string_view(text).substr(colon + 1), &port) &&
                        port >= 0 && port <= UINT16_MAX;
    const bool is_v6 = host->size() > 2 && host->front() == '[' && host->back() == ']';
    const std::string plain = is_v6 ? host->substr(1, host->size() - 2) : *host;
    address.any.sa_family = is_v6 ? AF_INET6 : AF_INET;
    void *const bytes = is_v6 ? static_cast<void *>(&address.v6.sin6_addr) : &address.v4.sin_addr;
    if (!number || inet_pton(address.any.sa_family, plain.c_str(), bytes) != 1)
        throw Failure("\"" + text + "\" is no address and port", "write 127.0.0.1:9464 or [::1]:9464",
                      EXIT_USAGE);
    (is_v6 ? address.v6.sin6_port : address.v4.sin_port) = htons(static_cast<uint16_t>(port));
    return address;
}

FileDescriptor ListenAtPort(const std::string &where, std::string *bound) {
    std::string host;
    SocketAddress address = ReadAddress(where, &host);
    const bool is_v6 = address.any.sa_family == AF_INET6;
    FileDescriptor listener(socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (is_v6) // [::] isn't every address of IPv4 too
        setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    socklen_t size = is_v6 ? sizeof address.v6 : sizeof address.v4;
    if (bind(listener.get(), &address.any, size) != 0 || listen(listener.get(), BACKLOG) != 0 ||
        getsockname(listener.get(), &address.any, &size) != 0)
        throw CantListen(where, errno);
    *bound = host + ":" + std::to_string(ntohs(is_v6 ? address.v6.sin6_port : address.v4.sin_port));
    return listener;
}

void Stop(evutil_socket_t /*signal*/, short /*what*/, void *base) {
    event_base_loopbreak(static_cast<event_base *>(base));
}

} // namespace

void ServeMetrics(const MetricsPlace &place, const char *type, const std::function<std::string()> &text,
                  const std::function<void(const std::string &)> &ready) {
    std::string where = place.socket;
    const FileDescriptor listener = where.empty() ? ListenAtPort(place.address, &where) : ListenAtPath(where);
    Serving serving{place, type, text};
    const Owned<event_base, event_base_free> base(event_base_new());
    const Owned<evhttp, evhttp_free> http(evhttp_new(base.get()));
    evhttp_set_timeout(http.get(), CALLER_SECONDS);
    evhttp_set_max_headers_size(http.get(), MOST_REQUEST_BYTES);
    evhttp_set_max_body_size(http.get(), MOST_REQUEST_BYTES);
    evhttp_set_allowed_methods(http.get(), EVHTTP_REQ_GET);
    evhttp_set_cb(http.get(), "/metrics", Answer, &serving);
    evhttp_accept_socket(http.get(), fcntl(listener.get(), F_DUPFD_CLOEXEC, 0)); // which closes it
    const Owned<event, event_free> interrupt(evsignal_new(base.get(), SIGINT, Stop, base.get()));
    const Owned<event, event_free> end(evsignal_new(base.get(), SIGTERM, Stop, base.get()));
    evsignal_add(interrupt.get(), nullptr);
    evsignal_add(end.get(), nullptr);
    ready(where);
    event_base_dispatch(base.get());
    if (!place.socket.empty())
        unlink(place.socket.c_str());
}

} // namespace qorctl
