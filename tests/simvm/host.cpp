// A simulated VM as a process: it opens libqoragent.so, starts it as Java would, and relays requests from
// qorctl, so that qorctl works on it as on a JVM.
//
// usage: simvm_host [--scene NAME] [--version 1.5.0_22] [--client] [--collector serial|parallel|cms] [--log
// LEVEL]
//                   [--server WORD] [--agent LIBQORAGENT] [--libjvm LIBJVM] [--moved] [--truth] [--ask
//                   TEXT]...
// With --truth it prints what there is to show of each thread (and of the scene's heap), with --ask it prints
// the replies and ends, else it relays until SHUTDOWN. Its status is that of the start.
#include "heap.h"
#include "objects.h"
#include "scenes.h"
#include "truth.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <random>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace simvm;

namespace {

constexpr size_t MAX_REQUEST = 20480;
const char END_MARK[] = "|\t|\t\t||";

using InitVar = jint (*)(JNIEnv *, jobject, jint, jint, jint, jint, jint, jstring, jstring, jstring, jobject,
                         jobject, jobject, jobject, jstring, jobject, jstring, jstring, jint, jint, jint,
                         jint, jint, jint);
using DataFromNative = jstring (*)(JNIEnv *, jobject, jstring);

struct HostOptions {
    Options vm;
    std::string scene = "shop", server, agent = SIMVM_AGENT;
    bool client = false, truth = false;
    int log = 1;
    std::vector<std::string> asks;
};

HostOptions ReadOptions(int count, char **words) {
    HostOptions options;
    auto usage = [&] {
        fprintf(stderr, "simvm_host: see the head of host.cpp\n");
        exit(2);
    };
    for (int i = 1; i < count; i++) {
        std::string word = words[i];
        if (word == "--client") {
            options.client = true;
            continue;
        }
        if (word == "--truth") {
            options.truth = true;
            continue;
        }
        if (word == "--moved") {
            options.vm.moved = 16;
            continue;
        }
        if (++i == count)
            usage();
        std::string value = words[i];
        if (word == "--scene")
            options.scene = value;
        else if (word == "--server")
            options.server = value;
        else if (word == "--version")
            options.vm.version = value;
        else if (word == "--agent")
            options.agent = value;
        else if (word == "--libjvm")
            options.vm.library = value;
        else if (word == "--log")
            options.log = atoi(value.c_str());
        else if (word == "--ask")
            options.asks.push_back(value);
        else if (word == "--collector")
            options.vm.collector = value == "cms"        ? Collector::CONCURRENT
                                   : value == "parallel" ? Collector::PARALLEL
                                                         : Collector::SERIAL;
        else
            usage();
    }
    return options;
}

// The agent as the main thread's native method has it.
struct Agent {
    JNIEnv *env;
    InitVar initvar;
    DataFromNative dataFromNative;

    std::string Ask(const std::string &request) {
        jstring text = NewText(request), reply = dataFromNative(env, nullptr, text);
        std::string out = reply ? TextOf(reply) : "";
        FreeText(text);
        if (reply)
            FreeText(reply);
        if (env->ExceptionCheck())
            Fail("a native method left an exception pending");
        return out;
    }
};

Agent OpenAgent(const std::string &path, JNIEnv *env) {
    void *library = dlopen(path.c_str(), RTLD_NOW);
    if (!library)
        Fail(dlerror());
    auto find = [&](const char *name) {
        void *symbol = dlsym(library, (std::string("Java_qoragent_Agent_") + name).c_str());
        return symbol ? symbol : (Fail(name), nullptr);
    };
    return {env, reinterpret_cast<InitVar>(find("initvar")),
            reinterpret_cast<DataFromNative>(find("dataFromNative"))};
}

int StartAgent(const Agent &agent, ThreadInfo *thread, const HostOptions &options) {
    constexpr int LEVEL = 2, BACKOFF = 2, TIMEOUT = 30, NO_CHAINING = 0, LOCK_INFO = 1, QUERIES = 1,
                  SQL = 4096, QUOTA = 50, QUERIED = 1000, RECORDED = 300;
    SampleObjects samples = NewSampleObjects(thread);
    return agent.initvar(agent.env, nullptr, options.log, LEVEL, BACKOFF, TIMEOUT, NO_CHAINING,
                         NewText("Sun Microsystems Inc."), NewText(options.vm.version), NewText("Linux"),
                         samples.instance, samples.reference, samples.objects, samples.ints,
                         options.server.empty() ? nullptr : NewText(options.server), nullptr,
                         NewText("stderr"), NewText("simvm"), LOCK_INFO, QUERIES, SQL, QUOTA, QUERIED,
                         RECORDED);
}

// ---- the relay
// ---------------------------------------------------------------------------------------------

struct EndpointFile {
    std::string path, token;
    int listener;
};

EndpointFile OpenRelay() {
    sockaddr_in at = {};
    socklen_t size = sizeof at;
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&at), size) || listen(listener, 8) ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&at), &size))
        Fail("no relay");
    char token[33];
    std::random_device random;
    snprintf(token, sizeof token, "%08x%08x%08x%08x", random(), random(), random(), random());
    std::string directory = "/tmp/qoragent-" + std::to_string(geteuid()), pid = std::to_string(getpid());
    std::string path = directory + "/" + pid + ".endpoint", fresh = path + ".new";
    mkdir(directory.c_str(), 0700);
    int file = open(fresh.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (file < 0 ||
        dprintf(file, "port=%d\ntoken=%s\npid=%s\nversion=1\n", ntohs(at.sin_port), token, pid.c_str()) < 0)
        Fail("no endpoint file");
    close(file);
    rename(fresh.c_str(), path.c_str());
    return {path, token, listener};
}

// A connection's lines: its token, then requests. False: SHUTDOWN was one.
bool Serve(Agent *agent, const EndpointFile &endpoint, int connection) {
    FILE *in = fdopen(connection, "r");
    static char line[MAX_REQUEST + 2];
    bool trusted = false, goesOn = true;
    while (goesOn && fgets(line, sizeof line, in)) {
        std::string request(line, strcspn(line, "\n")), reply = "OK\n";
        if (!trusted && request != endpoint.token)
            break;
        goesOn = request.rfind("SHUTDOWN", 0) != 0;
        if (trusted) {
            reply = agent->Ask(request);
            size_t tab = reply.find(END_MARK);
            if (tab != std::string::npos)
                reply[tab + 1] = ' ';
            reply += END_MARK;
        }
        trusted = true;
        if (goesOn && send(connection, reply.data(), reply.size(), MSG_NOSIGNAL) < 0)
            break;
    }
    fclose(in);
    return goesOn;
}

void Relay(Agent *agent) {
    EndpointFile endpoint = OpenRelay();
    printf("simvm_host: %d\n", getpid());
    fflush(stdout);
    for (bool goesOn = true; goesOn;) {
        int connection = accept4(endpoint.listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0)
            goesOn = Serve(agent, endpoint, connection);
    }
    unlink(endpoint.path.c_str());
    close(endpoint.listener);
}

int RunAgent(const HostOptions &options) {
    ThreadInfo *self = nullptr;
    for (ThreadInfo *thread : vm.threads)
        if (thread->kernelId == getpid())
            self = thread;
    Agent agent = OpenAgent(options.agent, EnvOf(self));
    int status = StartAgent(agent, self, options);
    if (options.truth && options.scene == "heap")
        puts(HeapLine().c_str());
    printf("initvar: %d\n", status);
    fflush(stdout);
    for (const std::string &ask : options.asks)
        printf("%s\n", agent.Ask(ask).c_str());
    if (options.asks.empty() && !status)
        Relay(&agent);
    else
        agent.Ask("SHUTDOWN");
    return status;
}

} // namespace

int main(int count, char **words) {
    HostOptions options = ReadOptions(count, words);
    if (options.vm.library.empty())
        options.vm.library =
            std::string(SIMVM_FOLDER) + (options.client ? "/client/libjvm.so" : "/server/libjvm.so");
    Boot(options.vm);
    Scene scene;
    StageScene(options.scene, &scene);
    for (const Runner *runner : scene.runners)
        if (options.truth)
            puts(TruthLine(*runner).c_str());
    for (auto &[name, object] : scene.named)
        if (options.truth)
            printf("{\"name\": \"%s\", \"object\": %s}\n", name.c_str(), ObjectText(object).c_str());
    for (auto &[server, port] : scene.ports)
        if (options.truth)
            printf("{\"name\": \"%s\", \"port\": %d}\n", server.c_str(), port);
    Script main = MainScript();
    EmitScript(&main);
    int status = 0;
    RunHere("main", &main, [&] { status = RunAgent(options); });
    EndScene(&scene);
    return status;
}
