#include "process_tasks.h"

#include "base/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fmt/format.h>
#include <poll.h>
#include <sstream>

namespace qorctl::outside {

namespace {

constexpr size_t MOST_TEXT = 65536;
constexpr size_t MOST_TASKS = 100000;
constexpr int TRACED_MS = 5; // a tracer that only looks on holds a task for less

std::string TaskPath(pid_t pid, pid_t tid, const char *file) {
    return fmt::format("/proc/{}/task/{}/{}", pid, tid, file);
}

std::vector<pid_t> Tasks(pid_t pid) {
    std::vector<pid_t> tids;
    DIR *dir = opendir(fmt::format("/proc/{}/task", pid).c_str());
    while (const dirent *entry = dir ? readdir(dir) : nullptr)
        if (const long tid = strtol(entry->d_name, nullptr, 10); tid > 0 && tids.size() < MOST_TASKS)
            tids.push_back(static_cast<pid_t>(tid));
    if (dir)
        closedir(dir);
    return tids;
}

// The last number of the "NSpid:" line: the id in the innermost namespace. 0 when there is no such line.
pid_t InnerId(const std::string &status) {
    const size_t at = status.find("\nNSpid:");
    if (at == status.npos)
        return 0;
    const size_t end = std::min(status.find('\n', at + 1), status.size());
    const size_t last = status.find_last_of("\t ", end - 1);
    return static_cast<pid_t>(strtol(status.c_str() + last + 1, nullptr, 10));
}

pid_t Tracer(pid_t pid, pid_t tid) {
    const std::string status = ReadFile(TaskPath(pid, tid, "status"), MOST_TEXT);
    const size_t at = status.find("\nTracerPid:");
    return at == status.npos ? 0 : static_cast<pid_t>(strtol(status.c_str() + at + 11, nullptr, 10));
}

// The octal escapes of mountinfo.
std::string Unescaped(const std::string &text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] == '\\' && i + 3 < text.size()) {
            plain += static_cast<char>(strtol(text.substr(i + 1, 3).c_str(), nullptr, 8));
            i += 3;
        } else {
            plain += text[i];
        }
    return plain;
}

bool HasWord(const std::string &list, const std::string &word) {
    return ("," + list + ",").find("," + word + ",") != std::string::npos;
}

struct CgroupMount {
    std::string point, root;
};

// Where the freezer of version 1, or the one hierarchy of version 2, is mounted.
std::optional<CgroupMount> FindCgroupMount(bool version2) {
    std::istringstream lines(ReadFile("/proc/self/mountinfo", 1 << 20));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string skip, root, point, word, type, source, options;
        words >> skip >> skip >> skip >> root >> point;
        while (words >> word && word != "-") {
        }
        words >> type >> source >> options;
        if (version2 ? type == "cgroup2" : type == "cgroup" && HasWord(options, "freezer"))
            return CgroupMount{Unescaped(point), Unescaped(root)};
    }
    return std::nullopt;
}

// The process's place in a hierarchy, from "N:CONTROLLERS:PATH" lines.
std::optional<std::string> CgroupPath(const std::string &text, bool version2) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t first = line.find(':'), second = line.find(':', first + 1);
        if (second == line.npos)
            continue;
        const std::string controllers = line.substr(first + 1, second - first - 1);
        if (version2 ? line.compare(0, 3, "0::") == 0 : HasWord(controllers, "freezer"))
            return line.substr(second + 1);
    }
    return std::nullopt;
}

std::string ReadCgroupFile(const std::string &groups, bool version2, const char *file) {
    const auto path = CgroupPath(groups, version2);
    const auto mount = path ? FindCgroupMount(version2) : std::nullopt;
    if (!mount || path->find("/..") != path->npos)
        return ""; // outside of what our namespace shows
    std::string below = *path;
    if (mount->root != "/") {
        const size_t length = mount->root.size();
        if (below.compare(0, length, mount->root) != 0 || (below.size() > length && below[length] != '/'))
            return ""; // in another part than is mounted
        below.erase(0, length);
    }
    return ReadFile(mount->point + below + "/" + file, MOST_TEXT);
}

// Whether one of the tasks, which were stopped by a debugger, still is, and by whom.
bool StayTraced(pid_t pid, const std::vector<std::pair<pid_t, TaskTimes>> &tasks, StopState *state) {
    if (!tasks.empty())
        poll(nullptr, 0, TRACED_MS);
    for (const auto &[tid, before] : tasks) {
        const TaskTimes now = ReadTask(pid, tid);
        if (now.state != 't' || now.slices != before.slices)
            continue;
        ++state->traced;
        state->tracer = Tracer(pid, tid);
    }
    if (state->tracer > 0)
        state->tracer_name = TaskText(state->tracer, state->tracer, "comm");
    return state->traced > 0;
}

// Where the cgroup can't be read: tasks that version 2 has frozen sleep in a place made for that.
bool SleepFrozen(pid_t pid, const std::vector<pid_t> &tids) {
    return std::all_of(tids.begin(), tids.end(),
                       [pid](pid_t tid) { return TaskText(pid, tid, "wchan") == "do_freezer_trap"; });
}

} // namespace

TaskTimes ReadTask(pid_t pid, pid_t tid) {
    TaskTimes times;
    const std::string stat = ReadFile(TaskPath(pid, tid, "stat"), MOST_TEXT);
    const size_t name_end = stat.rfind(')'); // the name may hold anything
    unsigned long faults = 0, ran = 0, waited = 0, slices = 0;
    if (name_end == stat.npos || sscanf(stat.c_str() + name_end + 1,
                                        " %c %*d %*d %*d %*d %*d %*u %*u %*u %lu", &times.state, &faults) < 2)
        return TaskTimes();
    sscanf(ReadFile(TaskPath(pid, tid, "schedstat"), MOST_TEXT).c_str(), "%lu %lu %lu", &ran, &waited,
           &slices);
    times.at = std::chrono::steady_clock::now();
    times.ran_ns = ran;
    times.slices = slices;
    times.major_faults = faults;
    return times;
}

bool StayedStill(const TaskTimes &before, const TaskTimes &after) {
    return before.state != 0 && before.state != 'R' && after.state != 'R' && before.slices != 0 &&
           before.slices == after.slices && before.ran_ns == after.ran_ns;
}

std::string TaskText(pid_t pid, pid_t tid, const char *file) {
    std::string text = ReadFile(TaskPath(pid, tid, file), 256);
    while (!text.empty() && (text.back() == '\n' || text.back() == 0))
        text.pop_back();
    return text;
}

std::optional<UserPlace> ParseSyscall(const std::string &text) {
    unsigned long sp = 0, pc = 0;
    const bool outside_call = text.compare(0, 3, "-1 ") == 0;
    const char *format = outside_call ? "-1 %lx %lx" : "%*d %*x %*x %*x %*x %*x %*x %lx %lx";
    if (sscanf(text.c_str(), format, &sp, &pc) != 2)
        return std::nullopt;
    return UserPlace{sp, pc};
}

std::optional<UserPlace> ReadUserPlace(pid_t pid, pid_t tid) {
    return ParseSyscall(TaskText(pid, tid, "syscall"));
}

std::map<pid_t, pid_t> TasksByInnerId(pid_t pid) {
    std::map<pid_t, pid_t> tasks;
    const bool nested = InnerId(ReadFile(fmt::format("/proc/{}/status", pid), MOST_TEXT)) != pid;
    for (const pid_t tid : Tasks(pid)) {
        const pid_t inner = nested ? InnerId(ReadFile(TaskPath(pid, tid, "status"), MOST_TEXT)) : tid;
        tasks[inner != 0 ? inner : tid] = tid;
    }
    return tasks;
}

std::optional<bool> ReadFrozen(pid_t pid) {
    const std::string groups = ReadFile(fmt::format("/proc/{}/cgroup", pid), MOST_TEXT);
    const std::string events = ReadCgroupFile(groups, true, "cgroup.events");
    const std::string state = ReadCgroupFile(groups, false, "freezer.state");
    if (events.find("frozen 1") != events.npos || state.compare(0, 6, "FROZEN") == 0)
        return true;
    // The root of a hierarchy has no such file, and can't be frozen.
    const auto at_root = [&](bool version2) { return CgroupPath(groups, version2) == "/"; };
    const bool known1 = !state.empty() || at_root(false) || !CgroupPath(groups, false);
    const bool known2 = !events.empty() || at_root(true) || !CgroupPath(groups, true);
    return !groups.empty() && known1 && known2 ? std::optional(false) : std::nullopt;
}

StopState ReadStopState(pid_t pid) {
    StopState state;
    std::map<std::string, int> channels;
    std::vector<std::pair<pid_t, TaskTimes>> traced;
    size_t stopped = 0, blocked = 0;
    const std::vector<pid_t> tids = Tasks(pid);
    for (const pid_t tid : tids) {
        const TaskTimes task = ReadTask(pid, tid);
        if (task.state == 0 || task.state == 'Z' || task.state == 'X')
            continue; // it has ended; the first one stays as long as others live
        ++state.tasks;
        stopped += task.state == 'T';
        if (task.state == 't')
            traced.emplace_back(tid, task);
        if (task.state == 'D') {
            ++blocked;
            ++channels[TaskText(pid, tid, "wchan")];
        }
    }
    const std::optional<bool> frozen = ReadFrozen(pid);
    state.freezer_read = frozen.has_value();
    if (state.tasks == 0) {
        if (!tids.empty() || (kill(pid, 0) != 0 && errno == ESRCH))
            state.stop = Stop::GONE;
    } else if (stopped == state.tasks) {
        state.stop = Stop::STOPPED;
    } else if (StayTraced(pid, traced, &state)) {
        state.stop = Stop::TRACED;
    } else if (frozen.value_or(false) || (!frozen && SleepFrozen(pid, tids))) {
        state.stop = Stop::FROZEN;
    } else if (blocked == state.tasks) {
        state.stop = Stop::BLOCKED;
        state.channels.assign(channels.begin(), channels.end());
        std::stable_sort(state.channels.begin(), state.channels.end(),
                         [](const auto &a, const auto &b) { return a.second > b.second; });
    }
    return state;
}

} // namespace qorctl::outside
