#include "heap_dump.h"

#include "base/failure.h"
#include "base/inside.h"
#include "base/starts_with.h"
#include "text_dump.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr std::string_view DEFAULT_DIR = "/tmp/";
constexpr std::string_view HPROF_ENDING = ".hprof", PHD_ENDING = ".phd";
constexpr std::string_view HPROF_MAGIC("JAVA PROFILE 1.0.");
constexpr std::string_view HPROF_END_RECORD("\x2c\0\0\0\0\0\0\0\0", 9); // tag, time, length
constexpr size_t LONGEST_DIR = 253, LONGEST_PATH = 510;                 // what the agent's buffers hold
constexpr size_t PIECE = 64;                                            // of a file's start or end

// A look into the files of the JVM, which may have ended.
std::string LookInJvm(pid_t pid, const std::function<std::string(int root)> &look) {
    Process process;
    return ReadProcess(pid, &process) ? LookInside(process, look).value_or("") : "";
}

std::string ReadPiece(int fd, int64_t offset) {
    std::string text(PIECE, '\0');
    ssize_t got = pread(fd, text.data(), text.size(), offset);
    text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool Holds(std::string_view text, std::string_view part) {
    return text.find(part) != text.npos;
}

DumpProgress LookAtFile(int root, const DumpTarget &target, uint32_t heap_id) {
    DumpProgress progress;
    std::string path = BelowRoot(target.Path());
    struct stat facts;
    if (fstatat(root, path.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0)
        return progress;
    progress.kind = S_ISREG(facts.st_mode) ? DumpFileKind::PLAIN : DumpFileKind::OTHER;
    if (progress.kind == DumpFileKind::OTHER)
        return progress;
    FileDescriptor file(openat(root, path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.ok() || fstat(file.get(), &facts) != 0)
        return progress;
    progress.bytes = facts.st_size;
    std::string head = ReadPiece(file.get(), 0);
    std::string tail =
        ReadPiece(file.get(), std::max<int64_t>(0, progress.bytes - static_cast<int64_t>(PIECE)));
    if (target.hprof) {
        progress.begun = StartsWith(head, HPROF_MAGIC);
        progress.whole = progress.begun && EndsWith(tail, HPROF_END_RECORD);
    } else {
        progress.begun = DumpHeadId(head) == heap_id;
        progress.whole = progress.begun && DumpTrailer(tail);
    }
    return progress;
}

} // namespace

DumpTarget ChooseDumpTarget(std::string_view name, bool hprof) {
    auto refuse = [&](const char *fault, const char *hint) {
        return Failure(fmt::format("\"{}\" {}", name, fault), hint, EXIT_USAGE);
    };
    DumpTarget target;
    target.hprof = hprof;
    size_t slash = name.rfind('/');
    if (slash != name.npos && name[0] != '/')
        throw refuse("isn't an absolute path",
                     "give a path from / as the JVM sees it, or a bare name for /tmp");
    target.dir = slash == name.npos ? DEFAULT_DIR : name.substr(0, slash + 1);
    target.name = name.substr(slash == name.npos ? 0 : slash + 1);
    if (target.name.empty())
        throw refuse("names no file", "add a file name");
    if (name.find_first_of("|\n\r") != name.npos)
        throw refuse("holds a bar or a line end", "choose another name");
    if (!hprof && (Holds(target.name, HPROF_ENDING) || Holds(target.name, PHD_ENDING)))
        throw refuse("would make a dump in the JVM's own form", "add --hprof, or choose another name");
    if (hprof && !EndsWith(target.name, HPROF_ENDING))
        target.name += HPROF_ENDING;
    if (target.dir.size() > LONGEST_DIR || target.Path().size() > LONGEST_PATH)
        throw refuse("is longer than the agent's 253 bytes for a directory or 510 for a path",
                     "choose a shorter name");
    return target;
}

DumpProgress LookAtDump(pid_t pid, const DumpTarget &target, uint32_t heap_id) {
    std::string found = LookInJvm(pid, [&](int root) {
        DumpProgress progress = LookAtFile(root, target, heap_id);
        return std::string(reinterpret_cast<const char *>(&progress), sizeof progress);
    });
    DumpProgress progress;
    if (found.size() == sizeof progress)
        memcpy(&progress, found.data(), sizeof progress);
    return progress;
}

bool HasDumpDirectory(pid_t pid, const DumpTarget &target) {
    return LookInJvm(pid, [&](int root) {
               struct stat facts;
               std::string dir = BelowRoot(target.dir);
               bool there =
                   dir.empty() || (fstatat(root, dir.c_str(), &facts, 0) == 0 && S_ISDIR(facts.st_mode));
               return std::string(there ? "there" : "");
           }) == "there";
}

DumpFault ExplainMissingDump(pid_t pid, const DumpTarget &target, uint32_t heap_id) {
    constexpr const char *LOG_TELLS = "; the agent's log, on the JVM's standard error, says why";
    DumpProgress progress = LookAtDump(pid, target, heap_id);
    std::string path = target.Path();
    if (progress.kind == DumpFileKind::ABSENT)
        return {fmt::format("the JVM could not write {}", path),
                fmt::format("give a directory that the JVM's user may write to{}", LOG_TELLS)};
    if (progress.kind == DumpFileKind::OTHER)
        return {fmt::format("{} is a link or no plain file; no dump is written to such", path),
                "choose another name, or remove it"};
    if (progress.begun)
        return {fmt::format("the dump {} lacks its end", path),
                fmt::format("the JVM's disk may be full{}", LOG_TELLS)};
    if (progress.bytes == 0)
        return {fmt::format("{} is empty, the dump could not be written whole", path),
                fmt::format("the JVM's disk is probably full; remove the file{}", LOG_TELLS)};
    return {
        fmt::format("{} was there before and is unchanged", path),
        fmt::format("it may belong to somebody else, or memory for a dump is short: choose another name{}",
                    LOG_TELLS)};
}

} // namespace qorctl
