// Virtual threads in groups, for people and as JSON.
#pragma once

#include "base/terminal.h"
#include "json.h"
#include "wire/virtual_threads.h"

#include <string>

namespace qorctl {

// One line of counts, the groups as a table, with `details` each group with the stack of one member.
std::string VirtualThreadsText(const VirtualThreads &view, bool details, const Style &style);
Json ToJson(const VirtualThreads &view);

} // namespace qorctl
