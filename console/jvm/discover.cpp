#include "discover.h"

#include "attachable.h"
#include "base/failure.h"
#include "base/transfer.h"
#include "hung.h"
#include "proof.h"
#include "session.h"

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <fmt/format.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr Seconds PROBE_LIMIT(2);

std::vector<pid_t> ProcessIds() {
    std::vector<pid_t> pids;
    DIR *dir = opendir("/proc");
    if (!dir)
        return pids;
    while (const dirent *entry = readdir(dir)) {
        char *end = nullptr;
        long pid = strtol(entry->d_name, &end, 10);
        if (*end == 0 && pid > 0)
            pids.push_back(static_cast<pid_t>(pid));
    }
    closedir(dir);
    std::sort(pids.begin(), pids.end());
    return pids;
}

bool LooksLikeJava(const Process &process) {
    const std::string &program = process.arguments[0];
    return program.substr(program.rfind('/') + 1) == "java";
}

// Running means that it answers: an endpoint file alone may be a leftover.
AgentState FindAgent(const Process &process, JvmEntry *entry) {
    try {
        std::optional<Endpoint> endpoint = LocateEndpoint(process, false);
        if (!endpoint)
            return AgentState::ABSENT;
        Proof proof = CheckListener(process, *endpoint);
        if (proof == Proof::UNKNOWN)
            entry->note = NOT_PROVEN;
        bool answers = proof != Proof::OTHER && Connection::Open(*endpoint, Clock::now() + PROBE_LIMIT);
        if (answers && entry->ports)
            entry->ports->erase(std::remove(entry->ports->begin(), entry->ports->end(), endpoint->port),
                                entry->ports->end());
        return answers ? AgentState::RUNNING : AgentState::ABSENT;
    } catch (const Failure &) {
        return AgentState::UNKNOWN;
    }
}

void Describe(const Process &process, const std::string &library, JvmEntry *entry) {
    PerfData perf = ReadPerfData(process);
    entry->java_version = perf.java_version;
    if (entry->java_version.empty())
        entry->java_version = VersionBesideLibrary(process, library);
    entry->ports = ListeningPorts(fmt::format("/proc/{}", process.pid));
    entry->agent = FindAgent(process, entry);
    if (entry->agent == AgentState::RUNNING)
        return;
    if (AttachDisabled(process, perf))
        entry->note = "attaching is disabled";
    else if (!ListensForAttach(process))
        entry->note = "doesn't listen for attaching";
}

using Milliseconds = std::chrono::milliseconds;
constexpr Milliseconds LOOK_LIMIT(50), ALL_LOOKS_LIMIT(500);

// What keeps it from answering comes first; a JVM that we may not read is looked at by /proc alone.
void NoteIfHung(JvmEntry *entry, bool may_read, Milliseconds *left) {
    const Clock::time_point start = Clock::now();
    const std::string note = HungNote(entry->pid, may_read, std::min(LOOK_LIMIT, *left));
    if (!note.empty())
        entry->note = entry->note.empty() ? note : note + "; " + entry->note;
    *left -= std::min(*left, std::chrono::duration_cast<Milliseconds>(Clock::now() - start));
}

} // namespace

std::vector<JvmEntry> ListJvms() {
    std::vector<JvmEntry> jvms;
    Milliseconds left = ALL_LOOKS_LIMIT;
    for (pid_t pid : ProcessIds()) {
        Process process;
        if (!ReadProcess(pid, &process))
            continue;
        std::string library;
        JvmKind kind = FindJvm(pid, &library);
        const bool unread = kind == JvmKind::UNREADABLE || kind == JvmKind::LOCKED;
        if (kind == JvmKind::NONE || (unread && !LooksLikeJava(process)))
            continue;
        JvmEntry entry;
        entry.pid = pid;
        entry.user = UserName(process.euid);
        entry.main_class = MainClass(process.arguments);
        if (kind == JvmKind::HOTSPOT)
            Describe(process, library, &entry);
        else
            entry.note = kind == JvmKind::OTHER    ? "not HotSpot"
                         : kind == JvmKind::LOCKED ? "its memory is locked in the kernel"
                                                   : "of another user";
        NoteIfHung(&entry, kind == JvmKind::HOTSPOT, &left);
        jvms.push_back(std::move(entry));
    }
    return jvms;
}

} // namespace qorctl
