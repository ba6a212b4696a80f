// What JVMs that were killed have left behind.
#pragma once

namespace qorctl {

// Removes the endpoint files of JVMs that are gone: our own user's, as root those of all users. Files of a
// JVM in another pid namespace stay, as it may be alive where we don't see it.
void RemoveLeftovers();

} // namespace qorctl
