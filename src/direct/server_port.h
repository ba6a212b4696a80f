// The port of the application server, found in its objects.
#pragma once

#include <atomic>
#include <cstdint>

// Finds the port in the objects of the server that `webserver` names, and makes it the JVM's identifier. A
// server that is still starting is waited for, up to a minute in all and `qormaxbackoff` seconds at a time; a
// SHUTDOWN ends that. Nothing found changes nothing; what was missing is logged. Initialisation thread, once
// the readers are ready; the references of the caller's frame must be alive.
void QorIdentifyServer();

// 1 while QorIdentifyServer waits: callers are kept out then, but for a SHUTDOWN.
extern std::atomic<int32_t> serverAwaited;
