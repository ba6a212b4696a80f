#include "bring.h"

#include "base/failure.h"
#include "base/inside.h"
#include "base/transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <poll.h>
#include <random>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr size_t LARGEST_JAR = 64 << 20, MAX_MOUNTINFO = 4 << 20, MAX_REPORT = 65536;
constexpr std::chrono::seconds SEARCH_LIMIT(10); // a file system of the JVM's may hang
constexpr std::chrono::milliseconds END_LIMIT(500);
constexpr size_t PLACES_SAID = 12, LONGEST_SAID = 200;
constexpr unsigned SPACE = 2; // times the jar: the unpacked library too
constexpr const char *VOLUME = "--tmpfs /qoragent:rw,exec,mode=1777";
constexpr char FOUND_AT = '+', FOUND_NONE = '-';
constexpr std::string_view LATER = "later";

// A file there would be something else than a file, or opening alone has effects.
constexpr std::string_view WITHOUT_FILES[] = {
    "autofs", "binfmt_misc", "bpf",        "cgroup",    "cgroup2", "configfs", "debugfs",
    "devpts", "efivarfs",    "fusectl",    "hugetlbfs", "mqueue",  "nsfs",     "proc",
    "pstore", "rpc_pipefs",  "securityfs", "selinuxfs", "sysfs",   "tracefs"};

// "\040" and the like, as the kernel writes spaces in paths.
std::string Unescape(std::string_view text) {
    std::string plain;
    auto digit = [&](size_t at) { return at < text.size() && text[at] >= '0' && text[at] <= '7'; };
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && digit(at + 1) && digit(at + 2) && digit(at + 3)) {
            plain +=
                static_cast<char>((text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + text[at + 3] - '0');
            at += 3;
        } else {
            plain += text[at];
        }
    }
    return plain;
}

bool WriteWhole(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t sent = write(fd, text.data(), text.size());
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        text.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

bool MapsToExecute(int fd) {
    void *page = mmap(nullptr, 1, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
    return page != MAP_FAILED && munmap(page, 1) == 0;
}

// Whether others could put another file in the place of ours.
bool IsOpenToOthers(int dir) {
    struct stat facts;
    return fstat(dir, &facts) != 0 ||
           ((facts.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !(facts.st_mode & S_ISVTX));
}

// A file in a directory of the process's, there as long as this object. All of it runs in the child.
class PlacedFile {
public:
    PlacedFile(std::string name, std::string_view content, size_t longest_path)
        : name_(std::move(name)), content_(content), longest_path_(longest_path) {}
    PlacedFile(const PlacedFile &) = delete;
    ~PlacedFile() { Remove(); }

    std::string PathIn(const std::string &place) const { return (place == "/" ? "" : place) + "/" + name_; }

    // The reason against this directory; empty when the file is there. LATER when others could replace it
    // there, unless that is all the same by now.
    std::string Put(int root, const std::string &place, bool open_too) {
        if (place.empty() || place[0] != '/')
            return "not an absolute path";
        if (place.find('=') != place.npos)
            return "the path holds '=', where the JVM expects options";
        if (PathIn(place).size() > longest_path_)
            return "the path is longer than the JVM takes it";
        const std::string below = BelowRoot(place);
        dir_ = OpenBelow(root, below.empty() ? "." : below.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        struct statvfs facts;
        if (!dir_.ok() || fstatvfs(dir_.get(), &facts) != 0)
            return strerror(errno);
        if ((facts.f_flag & ST_RDONLY) != 0)
            return "read-only";
        if ((facts.f_flag & ST_NOEXEC) != 0)
            return "noexec";
        if (facts.f_bavail < SPACE * content_.size() / std::max(facts.f_frsize, 1ul) + 1)
            return fmt::format("{} K free", facts.f_bavail * facts.f_frsize / 1024);
        return open_too || !IsOpenToOthers(dir_.get()) ? Make() : std::string(LATER);
    }

private:
    std::string Make() {
        constexpr int FLAGS = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        FileDescriptor file(openat(dir_.get(), name_.c_str(), FLAGS, 0600));
        if (!file.ok())
            return strerror(errno);
        made_ = true;
        if (WriteWhole(file.get(), content_) && MapsToExecute(file.get()))
            return "";
        std::string why = strerror(errno);
        Remove();
        return why;
    }
    void Remove() {
        if (made_)
            unlinkat(dir_.get(), name_.c_str(), 0);
        made_ = false;
    }
    std::string name_;
    std::string_view content_;
    size_t longest_path_;
    FileDescriptor dir_;
    bool made_ = false;
};

// A path of any length as part of a message.
std::string Shortened(const std::string &path) {
    return path.size() > LONGEST_SAID ? path.substr(0, LONGEST_SAID) + "..." : path;
}

// Tries one place after the other and reports the path, or the reasons.
std::string Find(int root, const std::vector<std::string> &places, PlacedFile *file) {
    std::vector<std::string> open;
    std::string reasons;
    size_t tried = 0;
    for (const bool last : {false, true})
        for (const std::string &place : last ? open : places) {
            const std::string why = file->Put(root, place, last);
            if (why.empty())
                return FOUND_AT + file->PathIn(place);
            if (why == LATER)
                open.push_back(place);
            else if (why != strerror(ENOTDIR) && // a file is mounted there, as a container's /etc/hosts
                     tried++ < PLACES_SAID)
                reasons += fmt::format("{}{} ({})", reasons.empty() ? "" : ", ", Shortened(place), why);
        }
    if (tried > PLACES_SAID)
        reasons += fmt::format(" and {} more", tried - PLACES_SAID);
    return FOUND_NONE + reasons;
}

// Waits for the other end to close, which the kernel sees to when we are gone.
void WaitForClose(int fd) {
    char byte;
    while (read(fd, &byte, 1) < 0 && errno == EINTR) {
    }
}

struct Task {
    const Process &process;
    int root, report, leave;
    const std::vector<std::string> &places;
    std::string_view content;
    size_t longest_path;
};

// Signals typed at us reach the child too, which has a file to remove.
[[noreturn]] void RunChild(const Task &task) {
    for (int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE})
        signal(number, SIG_IGN);
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fd != task.root && fd != task.report && fd != task.leave)
            close(fd); // whoever reads ours doesn't wait for a child that hangs
    try {
        if (EnterAs(task.root, task.process)) {
            std::random_device random;
            const std::string name = fmt::format("qoragent-{:08x}{:08x}.jar", random(), random());
            PlacedFile file(name, task.content, task.longest_path);
            WriteWhole(task.report, Find(task.root, task.places, &file));
            close(task.report);
            WaitForClose(task.leave);
        }
    } catch (...) {
        // whatever it is, nothing of the parent's may run in here
    }
    _exit(0);
}

// What the child reports; empty when it can't enter, nothing when it hasn't ended its report in time.
std::optional<std::string> ReadReport(int fd, Clock::time_point deadline) {
    std::string text;
    char part[4096];
    while (text.size() < MAX_REPORT && WaitFor(fd, POLLIN, deadline)) {
        ssize_t got = read(fd, part, sizeof part);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return text;
        text.append(part, static_cast<size_t>(got));
    }
    return std::nullopt;
}

Failure NoPlace(pid_t pid, const std::optional<std::string> &found) {
    if (!found)
        return Failure(fmt::format("the file systems of process {} don't answer", pid),
                       "see which one hangs, and unmount it");
    if (found->empty())
        return Failure(fmt::format("can't look for a place in the files of process {}", pid),
                       "run qorctl as root");
    return Failure(fmt::format("JVM {} has no directory for the agent: {}", pid, found->substr(1)),
                   fmt::format("start its container with {}", VOLUME));
}

std::vector<std::string> AllPlaces(const Process &process, std::vector<std::string> places) {
    const std::string mounts = ReadFile(fmt::format("/proc/{}/mountinfo", process.pid), MAX_MOUNTINFO);
    for (std::string &place : MountedDirectories(mounts))
        places.push_back(std::move(place));
    std::vector<std::string> unique;
    for (std::string &place : places)
        if (!place.empty() && std::find(unique.begin(), unique.end(), place) == unique.end())
            unique.push_back(std::move(place));
    return unique;
}

} // namespace

std::vector<std::string> MountedDirectories(std::string_view mountinfo) {
    std::vector<std::string> places;
    for (size_t end = 0; !mountinfo.empty();
         mountinfo.remove_prefix(std::min(end, mountinfo.size() - 1) + 1)) {
        end = mountinfo.find('\n');
        std::vector<std::string_view> words;
        std::string_view line = mountinfo.substr(0, end);
        for (size_t space = 0; space != line.npos; line.remove_prefix(space == line.npos ? 0 : space + 1))
            words.push_back(line.substr(0, space = line.find(' ')));
        // Number, parent, device, root, mount point, options, optional fields, a dash, type, ...
        auto dash = std::find(words.begin(), words.end(), "-");
        if (words.size() < 6 || dash == words.end() || ++dash == words.end() ||
            std::find(std::begin(WITHOUT_FILES), std::end(WITHOUT_FILES), *dash) != std::end(WITHOUT_FILES))
            continue;
        places.push_back(Unescape(words[4]));
    }
    return places;
}

BroughtJar::BroughtJar(const Process &process, const std::string &jar, std::vector<std::string> places,
                       size_t longest_path, Clock::time_point deadline) {
    const std::string content = ReadFile(jar, LARGEST_JAR);
    if (content.empty())
        throw Failure(fmt::format("can't read {}: {}", jar, strerror(errno)), "check --jar");
    places = AllPlaces(process, std::move(places));
    FileDescriptor root(
        open(fmt::format("/proc/{}/root/", process.pid).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    int report[2], leave[2];
    if (!root.ok() || pipe2(report, O_CLOEXEC) != 0)
        throw Failure(fmt::format("can't enter the files of process {}: {}", process.pid, strerror(errno)),
                      "run qorctl as root");
    FileDescriptor reader(report[0]), writer(report[1]);
    if (pipe2(leave, O_CLOEXEC) != 0)
        throw Failure(fmt::format("no pipe: {}", strerror(errno)), "raise the limit of open files");
    FileDescriptor childs(leave[0]);
    leave_ = FileDescriptor(leave[1]);
    child_ = fork();
    if (child_ == 0) {
        leave_ = FileDescriptor();
        RunChild({process, root.get(), writer.get(), childs.get(), places, content, longest_path});
    }
    if (child_ < 0)
        throw Failure(fmt::format("no child: {}", strerror(errno)), "raise the limit of processes");
    writer = FileDescriptor();
    const std::optional<std::string> found =
        ReadReport(reader.get(), std::min(deadline, Clock::now() + SEARCH_LIMIT));
    if (!found || found->empty() || found->front() != FOUND_AT) {
        End();
        throw NoPlace(process.pid, found);
    }
    path_ = found->substr(1);
}

BroughtJar::~BroughtJar() {
    End();
}

void BroughtJar::End() {
    leave_ = FileDescriptor();
    const auto patience = Clock::now() + END_LIMIT;
    while (child_ > 0 && waitpid(child_, nullptr, WNOHANG) == 0 && Clock::now() < patience)
        poll(nullptr, 0, 1);
    child_ = -1;
}

} // namespace qorctl
