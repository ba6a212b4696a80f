// The VM catches its faults itself, the copies of a dump end by theirs, and what the VM keeps is never freed.
#include "scenes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:use_sigaltstack=0:detect_leaks=0";
}

namespace simvm {

ThreadInfo *Self() {
    const Locked held(vm.lock);
    for (ThreadInfo *thread : vm.threads)
        if (thread->kernelId == getpid())
            return thread;
    return nullptr;
}

int StartAgent(const AgentStart &with) {
    constexpr int LEVEL = 2, TIMEOUT = 60, NO_CHAINING = 0, QUERIED = 1000, RECORDED = 300;
    const int status = Java_qoragent_Agent_initvar(
        EnvOf(Self()), nullptr, with.log, LEVEL, with.backoff, TIMEOUT, NO_CHAINING,
        NewText("Sun Microsystems Inc."), NewText(vm.options.version), NewText("Linux"),
        HandleOf(New("java/lang/Object")), HandleOf(New("java/lang/ref/WeakReference")),
        HandleOf(NewArray("[Ljava/lang/Object;", {nullptr, nullptr})), HandleOf(NewArray("[I", {1, 2, 3})),
        NewText(with.server), nullptr, NewText("stderr"), NewText(with.id), with.settings[0],
        with.settings[1], with.settings[2], with.settings[3], QUERIED, RECORDED);
    EndLocals();
    return status;
}

std::string Ask(const std::string &request) {
    JNIEnv *env = EnvOf(Self());
    const jstring reply = Java_qoragent_Agent_dataFromNative(env, nullptr, NewText(request));
    const std::string out = reply ? ObjectOf(reply)->text : "";
    EndLocals();
    if (env->ExceptionCheck())
        Fail("a native method left an exception pending");
    return out;
}

Options On(const std::string &words) {
    Options options;
    for (const std::string &word : Split(words, ' '))
        if (word == "stripped")
            options.library = SIMVM_FOLDER "/stripped/server/libjvm.so";
        else if (word == "client")
            options.isClient = true;
        else if (word == "parallel" || word == "cms")
            options.collector = word == "cms" ? Collector::CONCURRENT : Collector::PARALLEL;
        else
            options.version = "1.5.0_" + word;
    return options;
}

std::vector<std::string> Split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    std::stringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        parts.push_back(part);
    return parts;
}

std::string Hex(Word value) {
    std::stringstream out;
    out << std::hex << value;
    return out.str();
}

std::string Dotted(std::string name) {
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

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
int32_t PortOf(int descriptor, decltype(getsockname) *ask) {
    Address at;
    socklen_t size = sizeof at;
    if (ask(descriptor, &at.any, &size))
        Fail("a socket has no address");
    return ntohs(at.four.sin_port);
}

int Listener(bool six) {
    const Address at = Loopback(six);
    const int listener = socket(at.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, &at.any, six ? sizeof at.six : sizeof at.four) || listen(listener, 8))
        Fail("no listening socket");
    return listener;
}

// Its number isn't used for anything else.
int Closed() {
    const int open = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 900);
    close(open);
    return open;
}

} // namespace

int ListeningSocket(int32_t *port) {
    const int listener = Listener(false);
    *port = PortOf(listener, getsockname);
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
    const bool six = kind == SocketKind::IPV6;
    Address at = Loopback(six);
    const int listener = Listener(six), client = socket(at.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    at.four.sin_port = htons(uint16_t(PortOf(listener, getsockname)));
    if (connect(client, &at.any, six ? sizeof at.six : sizeof at.four))
        Fail("no connection over the loopback");
    scene->descriptors.insert(scene->descriptors.end(),
                              {client, accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)});
    close(listener);
    return {client, std::to_string(PortOf(client, getsockname)), std::to_string(PortOf(client, getpeername)),
            six ? "::1" : "127.0.0.1"};
}

} // namespace simvm
