// Where the agent's jar is, and whether a JVM sees it.
#pragma once

#include "base/failure.h"
#include "base/process.h"

#include <string>

namespace qorctl {

// The path given, $QORAGENT_JAR, or beside this program. Throws a Failure.
std::string FindJar(const std::string &given);

// Whether the JVM, whose files may be others than ours, has the jar there and its user may read it.
enum class Sight { READABLE, CLOSED, ABSENT };

// Throws a Failure when the JVM's files can't be looked into.
Sight LookForJar(const Process &process, const std::string &jar);

// Of a jar that is neither there nor here.
Failure Unseen(const Process &process, const std::string &jar, Sight sight);

} // namespace qorctl
