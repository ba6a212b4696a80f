#include "own_address.h"

#include <climits>
#include <ctime>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t ADDRESS_TEXT_SIZE = 46;
constexpr time_t KEEP_FAILURE_SECONDS = 60;

} // namespace

const char *OwnAddress(bool mayAsk) {
    static char address[ADDRESS_TEXT_SIZE];
    static time_t askAgain; // monotonic
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    char name[HOST_NAME_MAX + 1] = "";
    if (address[0] || !mayAsk || now.tv_sec < askAgain || gethostname(name, sizeof name - 1) != 0)
        return address;
    askAgain = now.tv_sec + KEEP_FAILURE_SECONDS;
    addrinfo wanted = {};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(name, nullptr, &wanted, &found) != 0 || !found)
        return address;
    getnameinfo(found->ai_addr, found->ai_addrlen, address, sizeof address, nullptr, 0, NI_NUMERICHOST);
    freeaddrinfo(found);
    return address;
}
