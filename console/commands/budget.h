// Keeping to a budget of milliseconds for which a request may stop the JVM (--budget).
//
// What a request will cost is taken from what the last one like it cost that JVM, by the agent's own figures;
// before the first one it is reckoned from the heap. What doesn't fit is left out, which standard error says
// with the figure, or the request isn't made.
#pragma once

#include "base/settings.h"
#include "wire/request.h"

#include <sys/types.h>

namespace qorctl {

// "50ms" or "50" as milliseconds. Throws a usage Failure for anything else.
double BudgetOf(const std::string &text);

// Takes out of the question what doesn't fit the settings' budget, if there is one: locks, then local
// variables. Throws a Failure when the stacks alone don't.
void FitThreads(const Settings &settings, pid_t pid, ThreadQuestion *question);

// Why a histogram has to be made by a copy to fit the budget; empty when it doesn't. Throws a Failure when
// neither way fits.
std::string WhyByCopy(const Settings &settings, pid_t pid);

} // namespace qorctl
