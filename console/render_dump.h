// The summary of a text dump to text and JSON.
#pragma once

#include "json.h"
#include "terminal.h"
#include "text_dump.h"

namespace qorctl {

// `top`: rows of classes.
std::string DumpText(const DumpSummary &dump, size_t top, const Style &style);
Json DumpJson(const DumpSummary &dump, size_t top);

} // namespace qorctl
