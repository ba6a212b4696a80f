// The network of a process that isn't ours: a container's, say.
#pragma once

#include "process.h"

#include <functional>

namespace qorctl {

// The descriptor that `make` opens in the network of a process, where a socket then stays: a child enters it
// and hands the descriptor back. In our own network, and for pid 0, `make` runs here. Not ok with errno set
// when the network can't be entered, or make returns -1.
FileDescriptor MakeInNetwork(pid_t pid, const std::function<int()> &make);

} // namespace qorctl
