#include "process.h"

#include "inside.h"
#include "locked_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace qorctl {

namespace {

constexpr size_t MAX_PROC_FILE = 4 << 20;

constexpr std::string_view DISABLE_ATTACH = "-XX:+DisableAttachMechanism";

std::string ProcPath(pid_t pid, const char *name) {
    return fmt::format("/proc/{}/{}", pid, name);
}

template <class Number>
bool ReadNumber(std::string_view text, Number *value, int base = 10) {
    size_t start = text.find_first_not_of(" \t");
    if (start == text.npos)
        return false;
    text.remove_prefix(start);
    return std::from_chars(text.data(), text.data() + text.size(), *value, base).ec == std::errc();
}

std::vector<std::string_view> Words(std::string_view line) {
    std::vector<std::string_view> words;
    for (size_t start; (start = line.find_first_not_of(" \t")) != line.npos;) {
        line.remove_prefix(start);
        size_t end = std::min(line.find_first_of(" \t"), line.size());
        words.push_back(line.substr(0, end));
        line.remove_prefix(end);
    }
    return words;
}

template <class Use>
void EachLine(std::string_view text, Use use) {
    while (!text.empty()) {
        size_t end = text.find('\n');
        use(text.substr(0, end));
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
}

bool SameNamespace(pid_t pid, const char *name) {
    char ours[64] = "", theirs[64] = "";
    if (readlink(fmt::format("/proc/self/ns/{}", name).c_str(), ours, sizeof ours - 1) < 0 ||
        readlink(fmt::format("/proc/{}/ns/{}", pid, name).c_str(), theirs, sizeof theirs - 1) < 0)
        return true; // not known: nothing speaks against it
    return strcmp(ours, theirs) == 0;
}

std::string_view BaseName(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

} // namespace

FileDescriptor &FileDescriptor::operator=(FileDescriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0)
        close(fd_);
}

bool FileDescriptor::Close() {
    return close(std::exchange(fd_, -1)) == 0;
}

std::string ReadFile(const std::string &path, size_t limit) {
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::string text;
    char part[16384];
    while (file.ok() && text.size() < limit) {
        ssize_t got = read(file.get(), part, std::min(sizeof part, limit - text.size()));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        text.append(part, static_cast<size_t>(got));
    }
    return text;
}

bool ParseStatus(std::string_view status, Process *process) {
    bool ids = false, zombie = false;
    EachLine(status, [&](std::string_view line) {
        size_t colon = line.find(':');
        if (colon == line.npos)
            return;
        std::string_view key = line.substr(0, colon);
        std::vector<std::string_view> words = Words(line.substr(colon + 1));
        if (words.empty())
            return;
        if (key == "State") {
            zombie = words[0] == "Z" || words[0] == "X";
            process->stopped = words[0] == "T" || words[0] == "t";
        } else if (key == "Uid" && words.size() > 1) {
            ids = ReadNumber(words[1], &process->euid);
        } else if (key == "Gid" && words.size() > 1) {
            ReadNumber(words[1], &process->egid);
        } else if (key == "NSpid") {
            ReadNumber(words.back(), &process->inner_pid);
        } else if (key == "Threads") {
            ReadNumber(words[0], &process->threads);
        } else if (key == "CapEff") {
            ReadNumber(words[0], &process->capabilities, 16);
        } else if (key == "SigCgt") {
            uint64_t caught = 0;
            process->catches_sigquit = ReadNumber(words[0], &caught, 16) && (caught >> (SIGQUIT - 1) & 1);
        }
    });
    process->inner_euid = process->euid;
    return ids && !zombie;
}

uid_t MapUid(std::string_view uid_map, uid_t outside) {
    uid_t mapped = outside;
    EachLine(uid_map, [&](std::string_view line) {
        std::vector<std::string_view> words = Words(line);
        uint32_t in = 0, out = 0, count = 0;
        if (words.size() == 3 && ReadNumber(words[0], &in) && ReadNumber(words[1], &out) &&
            ReadNumber(words[2], &count) && outside >= out && outside - out < count)
            mapped = in + (outside - out);
    });
    return mapped;
}

bool ReadProcess(pid_t pid, Process *process) {
    *process = Process();
    process->pid = process->inner_pid = pid;
    if (!ParseStatus(ReadFile(ProcPath(pid, "status"), MAX_PROC_FILE), process))
        return false;
    if (!SameNamespace(pid, "user")) {
        process->inner_euid = MapUid(ReadFile(ProcPath(pid, "uid_map"), MAX_PROC_FILE), process->euid);
        process->capabilities = 0;
    }
    const std::optional<std::string> known = ReadLocked(ProcPath(pid, "cmdline"), MAX_PROC_FILE);
    std::string line = known ? *known : ReadFile(ProcPath(pid, "comm"), MAX_PROC_FILE);
    if (!known && !line.empty())
        line.pop_back(); // its end of line
    for (size_t start = 0; start < line.size();) {
        size_t end = std::min(line.find('\0', start), line.size());
        process->arguments.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    return !process->arguments.empty();
}

JvmKind ParseMaps(std::string_view maps, std::string *library) {
    JvmKind kind = JvmKind::NONE;
    EachLine(maps, [&](std::string_view line) {
        size_t slash = line.find('/');
        if (slash == line.npos)
            return;
        std::string_view path = line.substr(slash);
        constexpr std::string_view DELETED = " (deleted)"; // a JVM goes on after its package was upgraded
        if (path.size() > DELETED.size() && path.substr(path.size() - DELETED.size()) == DELETED)
            path.remove_suffix(DELETED.size());
        std::string_view file = BaseName(path);
        if (file.substr(0, 6) == "libj9v") {
            kind = JvmKind::OTHER;
        } else if (file == "libjvm.so" && kind == JvmKind::NONE) {
            kind = JvmKind::HOTSPOT;
            *library = path;
        }
    });
    return kind;
}

JvmKind FindJvm(pid_t pid, std::string *library) {
    std::string path = ProcPath(pid, "maps");
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.ok())
        return JvmKind::UNREADABLE;
    const std::optional<std::string> maps = ReadLocked(path, MAX_PROC_FILE);
    return maps ? ParseMaps(*maps, library) : JvmKind::LOCKED;
}

std::string MainClass(const std::vector<std::string> &arguments) {
    if (arguments.empty())
        return "";
    if (BaseName(arguments[0]) != "java")
        return std::string(BaseName(arguments[0]));
    static constexpr std::string_view WITH_VALUE[] = {"-cp",
                                                      "-classpath",
                                                      "--class-path",
                                                      "-p",
                                                      "--module-path",
                                                      "--upgrade-module-path",
                                                      "--add-opens",
                                                      "--add-modules",
                                                      "--add-exports",
                                                      "--add-reads",
                                                      "--patch-module",
                                                      "--limit-modules",
                                                      "--source",
                                                      "--describe-module",
                                                      "-d",
                                                      "--enable-native-access"};
    for (size_t i = 1; i < arguments.size(); ++i) {
        std::string_view argument = arguments[i];
        bool names_next = argument == "-jar" || argument == "-m" || argument == "--module";
        if (names_next)
            return i + 1 < arguments.size() ? std::string(BaseName(arguments[i + 1])) : "";
        if (argument.substr(0, 9) == "--module=")
            return std::string(argument.substr(9));
        if (std::find(std::begin(WITH_VALUE), std::end(WITH_VALUE), argument) != std::end(WITH_VALUE))
            ++i;
        else if (!argument.empty() && argument[0] != '-' && argument[0] != '@')
            return std::string(argument);
    }
    return "";
}

// Header: magic ca fe c0 c0, byte order, version, ready; used, overflow, time, offset of the first entry,
// number of entries. An entry: length, offset of its name, vector length, type, ..., offset of its data. All
// numbers are in the machine's order, and the JVM may be writing while we read: every offset is checked.
PerfData ParsePerfData(std::string_view file) {
    constexpr size_t ENTRY_HEADER = 20;
    PerfData perf;
    auto number = [&](size_t at) {
        uint32_t value = 0;
        if (at + sizeof value <= file.size())
            memcpy(&value, file.data() + at, sizeof value);
        return static_cast<size_t>(value);
    };
    constexpr std::string_view MAGIC = "\xca\xfe\xc0\xc0";
    constexpr char LITTLE_ENDIAN_ORDER = 1;
    if (file.size() < 32 || file.substr(0, 4) != MAGIC || file[4] != LITTLE_ENDIAN_ORDER)
        return perf;
    struct Wanted {
        std::string_view name;
        std::string PerfData::*text;
    };
    static constexpr Wanted WANTED[] = {{"java.property.java.version", &PerfData::java_version},
                                        {"java.rt.vmFlags", &PerfData::vm_flags},
                                        {"java.rt.vmArgs", &PerfData::vm_flags},
                                        {"sun.rt.jvmCapabilities", &PerfData::capabilities}};
    size_t at = number(24);
    for (size_t left = number(28); left > 0 && at + ENTRY_HEADER <= file.size(); --left) {
        size_t length = number(at), name_at = number(at + 4), vector = number(at + 8),
               data_at = number(at + 16);
        if (length < ENTRY_HEADER || length > file.size() - at || name_at >= length || data_at > length)
            break;
        char type = file[at + 12];
        std::string_view name = file.substr(at + name_at, length - name_at);
        name = name.substr(0, name.find('\0'));
        std::string_view data = file.substr(at + data_at, std::min(vector, length - data_at));
        data = data.substr(0, data.find('\0'));
        for (const Wanted &wanted : WANTED)
            if (type == 'B' && name == wanted.name)
                (perf.*wanted.text += std::string((perf.*wanted.text).empty() ? "" : " ")) += data;
        at += length;
    }
    return perf;
}

PerfData ReadPerfData(const Process &process) {
    std::optional<std::string> file = LookInside(process, [&](int root) -> std::string {
        DIR *tmp = fdopendir(openat(root, "tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        std::string found;
        while (const dirent *entry = tmp && found.empty() ? readdir(tmp) : nullptr)
            // A file of another owner is a leftover of an earlier process of that number.
            if (strncmp(entry->d_name, "hsperfdata_", 11) == 0)
                found = ReadRegular(dirfd(tmp), fmt::format("{}/{}", entry->d_name, process.inner_pid),
                                    process.euid);
        return found;
    });
    return ParsePerfData(file.value_or(""));
}

std::string VersionBesideLibrary(const Process &process, const std::string &library) {
    auto look = [&](int root) -> std::string {
        std::string dir = BelowRoot(library);
        // lib/server/libjvm.so, or jre/lib/amd64/server/libjvm.so in a JDK 8.
        for (int up = 0; up < 5; ++up) {
            size_t slash = dir.rfind('/');
            if (slash == dir.npos)
                break;
            dir.resize(slash);
            std::string release = ReadRegular(root, dir + "/release");
            size_t start = release.find("JAVA_VERSION=\"");
            if (start != release.npos) {
                start += strlen("JAVA_VERSION=\"");
                return release.substr(start, release.find('"', start) - start);
            }
        }
        return "";
    };
    return LookInside(process, look).value_or("");
}

bool AttachDisabled(const Process &process, const PerfData &perf) {
    if (!perf.capabilities.empty())
        return perf.capabilities[0] == '0';
    if (perf.vm_flags.find(DISABLE_ATTACH) != perf.vm_flags.npos)
        return true;
    for (const std::string &argument : process.arguments)
        if (argument == DISABLE_ATTACH)
            return true;
    return ReadLocked(ProcPath(process.pid, "environ"), MAX_PROC_FILE).value_or("").find(DISABLE_ATTACH) !=
           std::string::npos;
}

bool SameNetwork(pid_t pid) {
    return SameNamespace(pid, "net");
}

bool SameFiles(pid_t pid) {
    struct stat ours, theirs;
    if (stat("/proc/self/root/.", &ours) != 0 || stat(ProcPath(pid, "root/.").c_str(), &theirs) != 0)
        return true;
    return ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino;
}

} // namespace qorctl
