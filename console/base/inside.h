// Looking at the files of a process below /proc/PID/root.
//
// They belong to the process's user, who may put a link, a device or a FIFO anywhere. So nothing there is
// opened by ourselves: a child enters that root directory, where links can't lead out, takes the user's
// identity, and sends text back.
#pragma once

#include "process.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qorctl {

constexpr size_t LONGEST_INSIDE = 65536; // bytes of a file that is read, and of a look's text

// What `look` returned in the child; `root` is the process's root directory, for paths without a leading
// slash. Nothing when the process's files can't be entered, or `look` takes longer than 2 s or returns too
// much.
std::optional<std::string> LookInside(const Process &process,
                                      const std::function<std::string(int root)> &look);

// The text of a regular file of at most LONGEST_INSIDE bytes; empty for anything else, links and files of
// another owner than `owner`, if that is given, included. For use in a look.
std::string ReadRegular(int dir, const std::string &path, std::optional<uid_t> owner = std::nullopt);

// For a child of ours, which gives up what it is: enters the process's root directory, when we are root, and
// takes its user's identity without further groups, and of a root's capabilities those alone that the process
// has. False when that isn't allowed.
bool EnterAs(int root, const Process &process);

// Opens what is below a directory, taken for the root of the way there: a link can't lead out of a process's
// files.
FileDescriptor OpenBelow(int root, const char *path, int flags);

// A path as a process has it, without its leading slashes: relative to the process's root directory.
std::string BelowRoot(std::string_view path);

} // namespace qorctl
