// What a thread does in the tiers around the JVM, for people: texts of one line, "" for what isn't known.
#pragma once

#include "wire/decode.h"

#include <optional>
#include <string>

namespace qorctl {

// The name with a mark of what is virtual: "NAME (virtual)", "NAME (carries #42)".
std::string MarkedName(const Thread &thread);
// Of a virtual thread its carrier, of a carrier the virtual thread: "#42"; else "".
std::string CarrierText(const Thread &thread);
std::string CarriesText(const Thread &thread);

// "host:port", an IPv6 host in brackets; without the port if that is 0.
std::string AddressText(const std::optional<std::string> &host, int64_t port);

std::string RequestText(const Thread &thread);

// The database and the socket to it; its URL; the statement.
std::string DatabaseText(const Thread &thread);
std::string DatabaseUrlText(const Thread &thread);
std::string SqlText(const Thread &thread);

// The other end of a remote call or of a socket.
std::string RemoteText(const Thread &thread);
std::string FileText(const Thread &thread);

// The application server's work: application, module, work manager, session, and what it says of the thread.
std::string ServerText(const Thread &thread);

// Processor time and allocation since the thread started.
std::string CpuTimeText(const Thread &thread);
std::string AllocationText(const Thread &thread);
std::string FiguresText(const Thread &thread); // both

// What the application's own instrumentation says.
std::string OwnText(const Thread &thread);

} // namespace qorctl
