// A unit of its own as the static qorctl has another one: there getpwuid would load libraries that may be of
// another glibc, or absent.
#include "process.h"

#ifndef QOR_STATIC
#include <pwd.h>
#else
#include <algorithm>
#include <charconv>
#endif

namespace qorctl {

#ifndef QOR_STATIC

std::string UserName(uid_t uid) {
    const passwd *entry = getpwuid(uid);
    return entry ? entry->pw_name : std::to_string(uid);
}

#else

// Lines "name:password:number:...".
std::string UserName(uid_t uid) {
    constexpr size_t LARGEST_PASSWD = 16 << 20;
    const std::string file = ReadFile("/etc/passwd", LARGEST_PASSWD);
    for (std::string_view text = file; !text.empty();) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const size_t name_end = line.find(':'), start = line.find(':', name_end + 1) + 1;
        uid_t number = 0;
        if (name_end == 0 || name_end == line.npos || start == 0)
            continue;
        const char *end = line.data() + line.size();
        const auto [stop, error] = std::from_chars(line.data() + start, end, number);
        if (error == std::errc() && stop != end && *stop == ':' && number == uid)
            return std::string(line.substr(0, name_end));
    }
    return std::to_string(uid);
}

#endif

} // namespace qorctl
