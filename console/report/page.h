// A recording as a page for a browser: one file that loads nothing else.
#pragma once

#include "recording.h"

#include <string>

namespace qorctl {

// The page. Its data can't end the element that they are in, and only the page's own scripts run.
std::string PageOf(const Recording &recording);

} // namespace qorctl
