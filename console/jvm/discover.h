// Which JVMs run here.
#pragma once

#include "base/jvm_entry.h"

#include <vector>

namespace qorctl {

// The JVMs of this machine in order of process id. Those of other users are listed as far as they can be
// seen.
std::vector<JvmEntry> ListJvms();

} // namespace qorctl
