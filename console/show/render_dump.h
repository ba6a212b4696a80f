// The summary of a text dump to text and JSON.
#pragma once

#include "base/terminal.h"
#include "dumps/text_dump.h"
#include "json.h"

namespace qorctl {

// `top`: rows of classes.
std::string DumpText(const DumpSummary &dump, size_t top, const Style &style);
Json DumpJson(const DumpSummary &dump, size_t top);

} // namespace qorctl
