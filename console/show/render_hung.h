// A verdict as text and as JSON.
#pragma once

#include "base/terminal.h"
#include "json.h"
#include "outside/verdict.h"

namespace qorctl::outside {

// One sentence: what the JVM does.
std::string VerdictSentence(const Observation &seen, const Finding &finding);

// The sentence, what it rests on, the threads concerned with their stacks; with `all` every thread.
std::string VerdictText(const Observation &seen, const Finding &finding, bool all);

Json VerdictJson(const Observation &seen, const Finding &finding, bool all);

} // namespace qorctl::outside
