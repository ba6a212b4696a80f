// A simulated VM as a process: it opens libqoragent.so, starts it as Java would, and relays requests from
// qorctl, so that qorctl works on it as on a JVM.
//
// usage: simvm_host [--scene NAME] [--vm WORDS] [--truth] [--agent PATH] [--libjvm PATH]
// With --truth it prints what there is to show of each thread (and of the scene's heap). WORDS are as On has
// them, "17 client cms" say. It relays until SHUTDOWN. Its status is that of the start.
#include "scenes.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

using namespace simvm;

namespace {

constexpr size_t MAX_REQUEST = 20480;
const char END_MARK[] = "|\t|\t\t||";

std::map<std::string, std::string> options = {
    {"--scene", "shop"}, {"--vm", "22"}, {"--truth", ""}, {"--agent", SIMVM_AGENT}, {"--libjvm", ""}};

void ReadOptions(int count, char **words) {
    for (int i = 1; i < count; i++) {
        const std::string name = words[i];
        if (!options.count(name) || (name != "--truth" && ++i == count))
            Fail("see the head of host.cpp");
        options[name] = words[i];
    }
}

template <class T>
void Find(void *library, const char *name, T *out) {
    *out = reinterpret_cast<T>(library ? dlsym(library, name) : nullptr);
    if (!*out)
        Fail(dlerror());
}

// ---- the relay
// ---------------------------------------------------------------------------------------------

// A connection's lines: its token, then requests. False: SHUTDOWN was one.
bool Serve(const std::string &token, int connection) {
    FILE *in = fdopen(connection, "r");
    static char line[MAX_REQUEST + 2];
    bool trusted = false, goesOn = true;
    while (goesOn && fgets(line, sizeof line, in)) {
        std::string request(line, strcspn(line, "\n")), reply = "OK\n";
        if (!trusted && request != token)
            break;
        goesOn = request.rfind("SHUTDOWN", 0) != 0;
        if (trusted) {
            reply = Ask(request);
            if (const size_t tab = reply.find(END_MARK); tab != std::string::npos)
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
    int32_t port;
    const int listener = ListeningSocket(&port);
    char token[33];
    std::random_device random;
    snprintf(token, sizeof token, "%08x%08x%08x%08x", random(), random(), random(), random());
    const std::string pid = std::to_string(getpid()), folder = "/tmp/qoragent-" + std::to_string(geteuid()),
                      path = folder + "/" + pid + ".endpoint", fresh = path + ".new";
    mkdir(folder.c_str(), 0700);
    const int file = open(fresh.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (dprintf(file, "port=%d\ntoken=%s\npid=%s\nversion=1\n", port, token, pid.c_str()) < 0)
        Fail("no endpoint file");
    close(file);
    rename(fresh.c_str(), path.c_str());
    printf("simvm_host: %d\n", getpid());
    fflush(stdout);
    for (bool goesOn = true; goesOn;)
        if (const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); connection >= 0)
            goesOn = Serve(token, connection);
    unlink(path.c_str());
}

int RunAgent() {
    void *library = dlopen(options["--agent"].c_str(), RTLD_NOW);
    Find(library, "Java_qoragent_Agent_initvar", &natives.initvar);
    Find(library, "Java_qoragent_Agent_dataFromNative", &natives.dataFromNative);
    const int status = StartAgent({"", "simvm", 2, 1, {1, 1, 4096, 50}});
    if (!options["--truth"].empty() && options["--scene"] == "heap")
        puts(HeapLine().c_str());
    printf("initvar: %d\n", status);
    fflush(stdout);
    if (status)
        Ask("SHUTDOWN");
    else
        Relay();
    return status;
}

} // namespace

int main(int count, char **words) {
    ReadOptions(count, words);
    Options of = On(options["--vm"]);
    of.library = options["--libjvm"];
    Boot(of);
    Scene scene;
    StageScene(options["--scene"], &scene);
    for (const Runner *runner : scene.runners)
        if (!options["--truth"].empty())
            puts(TruthLine(*runner).c_str());
    int status = 0;
    RunAsMain([&] { status = RunAgent(); });
    EndScene(&scene);
    return status;
}
