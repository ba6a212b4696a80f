#include "proof.h"

#include "base/failure.h"
#include "base/network.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <functional>
#include <ifaddrs.h>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr size_t MAX_TABLE = 64 << 20; // some hundred thousand sockets
constexpr std::string_view LISTENING = "0A";
constexpr unsigned LOOPBACK_NET = 127;

// The local addresses of a socket that a caller of the endpoint reaches, as the tables write them: words of
// the address in the machine's order. An IPv6 socket may listen at an IPv4 address.
std::vector<std::string> PlacesOf(const Endpoint &endpoint) {
    std::vector<std::string> places;
    for (uint32_t address : {endpoint.address, htonl(INADDR_ANY)}) {
        std::string place = fmt::format("{:08X}:{:04X}", address, endpoint.port);
        places.push_back(place);
        places.push_back("0000000000000000FFFF0000" + place);
    }
    places.push_back(fmt::format("{:032X}:{:04X}", 0, endpoint.port));
    return places;
}

// A listening socket: its address and port as the table writes them, and its inode.
struct ListeningSocket {
    std::string place, inode;
};

// A line: number, local address, remote address, state, queues, timer, retransmits, uid, time-out, inode, ...
std::vector<ListeningSocket> ReadListeners(std::string_view table) {
    std::vector<ListeningSocket> listeners;
    std::istringstream lines{std::string(table)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        std::string number, local, remote, state, skipped, inode;
        in >> number >> local >> remote >> state >> skipped >> skipped >> skipped >> skipped >> skipped >>
            inode;
        if (state == LISTENING)
            listeners.push_back({local, inode});
    }
    return listeners;
}

std::string ReadTables(const std::string &proc_dir) {
    return ReadFile(proc_dir + "/net/tcp", MAX_TABLE) + ReadFile(proc_dir + "/net/tcp6", MAX_TABLE);
}

std::string SocketName(const std::string &inode) {
    return fmt::format("socket:[{}]", inode);
}

// Hands on what each descriptor of a process refers to, until `look` says false. `*closed`: some couldn't be
// read. False when none could.
bool ForEachDescriptor(const std::string &proc_dir, bool *closed,
                       const std::function<bool(const char *)> &look) {
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir((proc_dir + "/fd").c_str()), closedir);
    if (!dir)
        return false;
    while (const dirent *entry = readdir(dir.get())) {
        char held[64] = "";
        if (readlinkat(dirfd(dir.get()), entry->d_name, held, sizeof held - 1) < 0)
            *closed = *closed || errno == EACCES || errno == EPERM;
        else if (!look(held))
            break;
    }
    return true;
}

} // namespace

std::vector<std::string> ListeningInodes(std::string_view table, const Endpoint &endpoint) {
    std::vector<std::string> inodes, places = PlacesOf(endpoint);
    for (const ListeningSocket &each : ReadListeners(table))
        if (std::find(places.begin(), places.end(), each.place) != places.end())
            inodes.push_back(each.inode);
    return inodes;
}

Proof ProveListener(const std::string &proc_dir, const Endpoint &endpoint) {
    std::string tables = ReadTables(proc_dir);
    std::vector<std::string> wanted;
    for (const std::string &inode : ListeningInodes(tables, endpoint))
        wanted.push_back(SocketName(inode));
    bool closed = false, found = false;
    bool read = ForEachDescriptor(proc_dir, &closed, [&](const char *held) {
        found = std::find(wanted.begin(), wanted.end(), held) != wanted.end();
        return !found;
    });
    if (!read || tables.empty())
        return Proof::UNKNOWN;
    return found ? Proof::PROVEN : closed ? Proof::UNKNOWN : Proof::OTHER;
}

std::optional<std::vector<uint16_t>> ListeningPorts(const std::string &proc_dir) {
    std::string tables = ReadTables(proc_dir);
    std::map<std::string, uint16_t> listeners;
    for (const ListeningSocket &each : ReadListeners(tables))
        listeners[SocketName(each.inode)] =
            static_cast<uint16_t>(strtoul(each.place.c_str() + each.place.find(':') + 1, nullptr, 16));
    bool closed = false;
    std::set<uint16_t> ports;
    bool read = ForEachDescriptor(proc_dir, &closed, [&](const char *held) {
        if (auto found = listeners.find(held); found != listeners.end())
            ports.insert(found->second);
        return true;
    });
    if (!read || closed || tables.empty())
        return std::nullopt;
    return std::vector<uint16_t>(ports.begin(), ports.end());
}

Proof CheckListener(const Process &process, const Endpoint &endpoint) {
    // Other addresses than loopback's are those of its network, which need not be ours.
    const auto look = [&] { return IsOwnAddress(endpoint.address) ? open("/", O_PATH | O_CLOEXEC) : -1; };
    const bool own = ntohl(endpoint.address) >> 24 == LOOPBACK_NET || MakeInNetwork(process.pid, look).ok();
    if (!own)
        throw Failure(fmt::format("the endpoint of JVM {} names an address of another machine", process.pid),
                      "its user may be leading you astray: no agent listens there");
    return ProveListener(fmt::format("/proc/{}", process.pid), endpoint);
}

bool IsOwnAddress(uint32_t address) {
    if (ntohl(address) >> 24 == LOOPBACK_NET)
        return true;
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0)
        return false;
    bool found = false;
    for (const ifaddrs *each = all; each; each = each->ifa_next)
        if (each->ifa_addr && each->ifa_addr->sa_family == AF_INET) {
            sockaddr_in own;
            memcpy(&own, each->ifa_addr, sizeof own);
            found = found || own.sin_addr.s_addr == address;
        }
    freeifaddrs(all);
    return found;
}

} // namespace qorctl
