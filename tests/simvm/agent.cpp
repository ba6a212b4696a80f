// The VM catches its faults itself, the copies of a dump end by theirs, and what the VM keeps is never freed.
#include "scenes.h"

#include <arpa/inet.h>
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
        if (word == "client")
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

Connected Connect(Scene *scene) {
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *const any = reinterpret_cast<sockaddr *>(&at);
    socklen_t size = sizeof at;
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0),
              client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, any, size) || listen(listener, 1) || getsockname(listener, any, &size) ||
        connect(client, any, size))
        Fail("no connection over the loopback");
    scene->descriptors.insert(scene->descriptors.end(), {listener, client});
    const int remotePort = ntohs(at.sin_port);
    getsockname(client, any, &size);
    return {client, std::to_string(ntohs(at.sin_port)), std::to_string(remotePort)};
}

} // namespace simvm
