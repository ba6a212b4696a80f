#include "proof.h"

#include "failure.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <memory>
#include <netinet/in.h>
#include <sstream>
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

} // namespace

// A line: number, local address, remote address, state, queues, timer, retransmits, uid, time-out, inode, ...
std::vector<std::string> ListeningInodes(std::string_view table, const Endpoint &endpoint) {
    std::vector<std::string> inodes, places = PlacesOf(endpoint);
    std::istringstream lines{std::string(table)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        std::string number, local, remote, state, skipped, inode;
        in >> number >> local >> remote >> state >> skipped >> skipped >> skipped >> skipped >> skipped >>
            inode;
        if (state == LISTENING && std::find(places.begin(), places.end(), local) != places.end())
            inodes.push_back(inode);
    }
    return inodes;
}

Proof ProveListener(const std::string &proc_dir, const Endpoint &endpoint) {
    std::string tables =
        ReadFile(proc_dir + "/net/tcp", MAX_TABLE) + ReadFile(proc_dir + "/net/tcp6", MAX_TABLE);
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir((proc_dir + "/fd").c_str()), closedir);
    if (!dir || tables.empty())
        return Proof::UNKNOWN;
    std::vector<std::string> wanted;
    for (const std::string &inode : ListeningInodes(tables, endpoint))
        wanted.push_back(fmt::format("socket:[{}]", inode));
    bool closed = false;
    while (const dirent *entry = readdir(dir.get())) {
        char held[64] = "";
        if (readlinkat(dirfd(dir.get()), entry->d_name, held, sizeof held - 1) < 0)
            closed = closed || errno == EACCES || errno == EPERM;
        else if (std::find(wanted.begin(), wanted.end(), held) != wanted.end())
            return Proof::PROVEN;
    }
    return closed ? Proof::UNKNOWN : Proof::OTHER;
}

Proof CheckListener(const Process &process, const Endpoint &endpoint) {
    if (!IsOwnAddress(endpoint.address))
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
