// The VM catches its faults itself, the copies of a dump end by theirs, and what the VM keeps is never freed.
#include "scenes.h"

#include <arpa/inet.h>
#include <sys/socket.h>

extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:use_sigaltstack=0:detect_leaks=0";
}

namespace simvm {

int StartAgent(const AgentStart &with) {
    constexpr int LOG = 0, LEVEL = 2, TIMEOUT = 60, NO_CHAINING = 0, QUERIED = 1000, RECORDED = 300;
    const int status = Java_qoragent_Agent_initvar(
        EnvOf(Self()), nullptr, LOG, LEVEL, with.backoff, TIMEOUT, NO_CHAINING,
        NewText("Sun Microsystems Inc."), NewText(vm.options.version), NewText("Linux"),
        HandleOf(New("java/lang/Object")), HandleOf(New("java/lang/ref/WeakReference")),
        HandleOf(NewArray("[Ljava/lang/Object;", {nullptr, nullptr})), HandleOf(NewArray("[I", {1, 2, 3})),
        NewText(with.server), nullptr, NewText("stderr"), NewText(with.id), with.lockInformation, 0, 0, 0,
        QUERIED, RECORDED);
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

std::vector<std::vector<std::string>> Records(const std::string &reply) {
    std::vector<std::vector<std::string>> records;
    for (const std::string &section : Split(reply, 31))
        for (const std::string &record : Split(section, 30))
            records.push_back(Split(record, 29));
    return records;
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

// The native driver's memory: each structure points to the next from a place of its own, the last one holds
// the descriptor.
static Word NewNativeState(int descriptor) {
    constexpr int LAST = 0x530;
    constexpr size_t ROOM = 0x1a40;
    const Word first = Allocate(ROOM);
    Word structure = first;
    for (const int place : {0x0c, 0x44, 0x120, 0x1a20, 0xd4, 0x8c, 0, 0x9c, 0x104, 0x18}) {
        const Word next = Allocate(ROOM) + place % 8; // at odd places, too
        memcpy(&As<char>(structure + place), &next, sizeof next);
        structure = next;
    }
    memcpy(&As<char>(structure + LAST), &descriptor, sizeof descriptor);
    return first;
}

Texts Connect(Scene *scene) {
    sockaddr_in local = {}, remote = {};
    remote.sin_family = AF_INET;
    remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *const to = reinterpret_cast<sockaddr *>(&remote);
    socklen_t size = sizeof remote;
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0),
              client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, to, size) || listen(listener, 1) || getsockname(listener, to, &size) ||
        connect(client, to, size) || getsockname(client, reinterpret_cast<sockaddr *>(&local), &size))
        Fail("no connection over the loopback");
    scene->descriptors.insert(scene->descriptors.end(), {listener, client});
    return {{"FD", std::to_string(client)},
            {"LOCAL", std::to_string(ntohs(local.sin_port))},
            {"REMOTE", std::to_string(ntohs(remote.sin_port))},
            {"STATE", std::to_string(NewNativeState(client))}};
}

} // namespace simvm
