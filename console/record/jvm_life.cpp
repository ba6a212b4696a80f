#include "jvm_life.h"

#include "base/process.h"

#include <fmt/format.h>
#include <sstream>
#include <unistd.h>
#include <vector>

namespace qorctl {

namespace {

// Fields of /proc/PID/stat after the name in parentheses.
enum : size_t { STATE = 0, USER_TICKS = 11, SYSTEM_TICKS = 12, START = 19, CODE = 23, FIELDS = 24 };
constexpr size_t LONGEST_STAT = 4096;

} // namespace

std::optional<JvmLife> ParseLife(const std::string &stat, int64_t ticks_per_second) {
    size_t name_end = stat.rfind(')');
    if (name_end == stat.npos)
        return std::nullopt;
    std::istringstream words(stat.substr(name_end + 1));
    std::vector<std::string> field;
    for (std::string word; words >> word;)
        field.push_back(word);
    // One that is ending has lost its memory before it is a zombie: the code is at 0 then.
    if (field.size() < FIELDS || field[STATE] == "Z" || field[STATE] == "X" || field[CODE] == "0")
        return std::nullopt;
    auto number = [&](size_t i) { return strtoull(field[i].c_str(), nullptr, 10); };
    JvmLife life;
    life.start_ticks = number(START);
    life.code = number(CODE);
    life.cpu_ms = static_cast<int64_t>(number(USER_TICKS) + number(SYSTEM_TICKS)) * 1000 / ticks_per_second;
    return life;
}

std::optional<JvmLife> ReadLife(pid_t pid) {
    return ParseLife(ReadFile(fmt::format("/proc/{}/stat", pid), LONGEST_STAT), sysconf(_SC_CLK_TCK));
}

std::string LifeName(pid_t pid, const JvmLife &life) {
    return fmt::format("{}-{}-{:x}", pid, life.start_ticks, life.code >> 12 & 0xffffff);
}

} // namespace qorctl
