// A simulated VM as a process: it opens libqoragent.so, starts it as Java would, and relays requests from
// qorctl, so that qorctl works on it as on a JVM.
//
// usage: simvm_host [--scene NAME] [--version 1.5.0_22] [--client] [--collector serial|parallel|cms]
//                   [--server WORD] [--log LEVEL] [--truth] [--ask TEXT]...
// With --truth it prints what there is to show of each thread (and of the scene's heap), with --ask it prints
// the replies and ends, else it relays until SHUTDOWN. Its status is that of the start.
#include "agent.h"
#include "heap.h"
#include "truth.h"

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

std::map<std::string, std::string> options = {{"--scene", "shop"}, {"--version", "1.5.0_22"},
                                              {"--client", ""},    {"--collector", "serial"},
                                              {"--server", ""},    {"--log", "1"},
                                              {"--truth", ""}};
std::vector<std::string> asks;

void ReadOptions(int count, char **words) {
    for (int i = 1; i < count; i++) {
        const std::string name = words[i];
        if (name == "--client" || name == "--truth") {
            options[name] = "yes";
            continue;
        }
        if (++i == count || (name != "--ask" && !options.count(name))) {
            fprintf(stderr, "simvm_host: see the head of host.cpp\n");
            exit(2);
        }
        if (name == "--ask")
            asks.emplace_back(words[i]);
        else
            options[name] = words[i];
    }
}

void OpenAgent() {
    void *library = dlopen(SIMVM_AGENT, RTLD_NOW);
    if (!library)
        Fail(dlerror());
    auto find = [&](const char *name) {
        void *symbol = dlsym(library, name);
        return symbol ? symbol : (Fail(name), nullptr);
    };
    natives = {
        reinterpret_cast<decltype(natives.initvar)>(find("Java_qoragent_Agent_initvar")),
        reinterpret_cast<decltype(natives.dataFromNative)>(find("Java_qoragent_Agent_dataFromNative"))};
}

// ---- the relay
// ---------------------------------------------------------------------------------------------

struct EndpointFile {
    std::string path, token;
    int listener;
};

EndpointFile OpenRelay() {
    int32_t port;
    const int listener = ListeningSocket(&port);
    char token[33];
    std::random_device random;
    snprintf(token, sizeof token, "%08x%08x%08x%08x", random(), random(), random(), random());
    const std::string directory = "/tmp/qoragent-" + std::to_string(geteuid()),
                      pid = std::to_string(getpid()), path = directory + "/" + pid + ".endpoint",
                      fresh = path + ".new";
    mkdir(directory.c_str(), 0700);
    const int file = open(fresh.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (file < 0 || dprintf(file, "port=%d\ntoken=%s\npid=%s\nversion=1\n", port, token, pid.c_str()) < 0)
        Fail("no endpoint file");
    close(file);
    rename(fresh.c_str(), path.c_str());
    return {path, token, listener};
}

// A connection's lines: its token, then requests. False: SHUTDOWN was one.
bool Serve(const EndpointFile &endpoint, int connection) {
    FILE *in = fdopen(connection, "r");
    static char line[MAX_REQUEST + 2];
    bool trusted = false, goesOn = true;
    while (goesOn && fgets(line, sizeof line, in)) {
        std::string request(line, strcspn(line, "\n")), reply = "OK\n";
        if (!trusted && request != endpoint.token)
            break;
        goesOn = request.rfind("SHUTDOWN", 0) != 0;
        if (trusted) {
            reply = Ask(request);
            const size_t tab = reply.find(END_MARK);
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

void Relay() {
    const EndpointFile endpoint = OpenRelay();
    printf("simvm_host: %d\n", getpid());
    fflush(stdout);
    for (bool goesOn = true; goesOn;) {
        const int connection = accept4(endpoint.listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0)
            goesOn = Serve(endpoint, connection);
    }
    unlink(endpoint.path.c_str());
    close(endpoint.listener);
}

int RunAgent() {
    OpenAgent();
    const int status =
        StartAgent({options["--server"], "simvm", 2, stoi(options["--log"]), {1, 1, 4096, 50}});
    if (!options["--truth"].empty() && options["--scene"] == "heap")
        puts(HeapLine().c_str());
    printf("initvar: %d\n", status);
    fflush(stdout);
    for (const std::string &ask : asks)
        printf("%s\n", Ask(ask).c_str());
    if (asks.empty() && !status)
        Relay();
    else
        Ask("SHUTDOWN");
    return status;
}

} // namespace

int main(int count, char **words) {
    ReadOptions(count, words);
    Options of;
    of.version = options["--version"];
    of.isClient = !options["--client"].empty();
    const std::string &collector = options["--collector"];
    of.collector = collector == "cms"        ? Collector::CONCURRENT
                   : collector == "parallel" ? Collector::PARALLEL
                                             : Collector::SERIAL;
    Boot(of);
    Scene scene;
    StageScene(options["--scene"], &scene);
    for (const Runner *runner : scene.runners)
        if (!options["--truth"].empty())
            puts(TruthLine(*runner).c_str());
    Script main = MainScript();
    EmitScript(&main);
    int status = 0;
    RunHere("main", &main, [&] { status = RunAgent(); });
    EndScene(&scene);
    return status;
}
