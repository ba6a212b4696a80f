#include "request.h"

#include "base/failure.h"
#include "base/starts_with.h"
#include "protocol.h"

#include <algorithm>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr size_t RULES_PER_TABLE = 150;
constexpr size_t TIER_PIECE = 16000; // bytes of a request's text

struct RuleTable {
    std::string_view types[3]; // compared by their beginning, as the agent does
    size_t count = 0;
};

// The rules' lines, without their ends; a carriage return with a line feed is one end.
std::vector<std::string_view> Lines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        size_t end = text.find_first_of("\r\n");
        lines.push_back(text.substr(0, end));
        if (end == text.npos)
            break;
        end += text.substr(end, 2) == "\r\n" ? 2 : 1;
        text.remove_prefix(end);
    }
    return lines;
}

const char *Fault(std::string_view line, RuleTable (&tables)[2]) {
    size_t first = line.find('|');
    size_t second = first == line.npos ? first : line.find('|', first + 1);
    if (second == line.npos)
        return "a rule needs three fields, SERVERTYPE|KIND|VALUE";
    std::string_view kind = line.substr(first + 1, second - first - 1);
    std::string_view value = line.substr(second + 1);
    value = value.substr(0, value.find('|'));
    if (first < 4)
        return "the server type needs four characters";
    if (kind.empty() || value.empty())
        return "kind or value is empty";
    for (RuleTable &table : tables)
        for (std::string_view type : table.types)
            if (!type.empty() && StartsWith(kind, type))
                return ++table.count > RULES_PER_TABLE ? "the agent's table of 150 such rules is full"
                                                       : nullptr;
    return nullptr;
}

// That of zip.
uint32_t Crc32(std::string_view text) {
    uint32_t crc = ~0u;
    for (unsigned char c : text) {
        crc ^= c;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc & 1 ? crc >> 1 ^ 0xedb88320u : crc >> 1;
    }
    return ~crc;
}

uint32_t BaseFlags(bool repeated) {
    return FLAG_WAIT_FOR_GC | FLAG_HOLD_THREADS | (repeated ? 0u : FLAG_NOT_A_POLL);
}

} // namespace

std::string ThreadsRequest(const ThreadQuestion &question) {
    uint32_t flags = BaseFlags(question.repeated) | (question.locals ? 0u : FLAG_NO_LOCALS);
    if (!question.thread_key.empty())
        return fmt::format("{}|showstack|{}|ARG=x,1={}", flags | FLAG_SINGLE_THREAD,
                           uint32_t(REQ_POLL_DETAILS), question.thread_key);
    if (question.details)
        flags |= FLAG_DETAILS;
    else if (question.all && question.figures)
        flags |= FLAG_FIGURES; // rows of active threads have them anyway
    if (question.all)
        flags |= FLAG_ALL_THREADS;
    bool plain = !question.details && !question.all;
    return fmt::format("{}|showstack|{}", flags, uint32_t(plain ? REQ_ACTIVE_THREADS : REQ_POLL_DETAILS));
}

std::string StackRequest(std::string_view thread_key) {
    return fmt::format("{}|showstack|{}|ARG=x,1={}", BaseFlags(false), uint32_t(REQ_THREAD_STACK),
                       thread_key);
}

std::string LockHolderRequest(const LockWait &wait, std::string_view thread_key) {
    std::string lock = wait.by_address ? fmt::format("{:x}", wait.lock) : fmt::format("{}", wait.lock);
    return fmt::format("{}|showstack|{}|ARG=x,0={},1={}", BaseFlags(false), uint32_t(REQ_LOCK_HOLDER), lock,
                       thread_key);
}

// The last two arguments are the two fields that are after the method in each frame's row.
std::string LocalsRequest(int64_t thread, const Frame &frame) {
    if (frame.place)
        return fmt::format("{}|showstack|{}|ARG=x,0={},1={:x},2={:x},3={:x},4={:x}", BaseFlags(false),
                           uint32_t(REQ_SHOW_LOCALS), frame.place->kind, frame.place->fp, frame.place->pc,
                           frame.place->sp, frame.place->method);
    return fmt::format("{}|showstack|{}|ARG=x,0={},1={},2=2,3=3", BaseFlags(false), uint32_t(REQ_SHOW_LOCALS),
                       thread, frame.method_id);
}

std::string ObjectRequest(int64_t tag, bool as_class) {
    if (IsAddress(tag))
        return fmt::format("{}|showstack|{}|ARG=x,0={:x},1={}", BaseFlags(false), uint32_t(REQ_SHOW_OBJECT),
                           tag, int(as_class));
    return fmt::format("{}|showstack|{}|ARG=x,0={},1=0", BaseFlags(false), uint32_t(REQ_SHOW_OBJECT), tag);
}

std::string SummaryRequest(bool repeated) {
    return fmt::format("{}|showqor|{}", BaseFlags(repeated),
                       REQ_THREAD_SUMMARY | uint32_t(REQ_THREAD_COUNTS));
}

std::string HeapRequest(bool repeated) {
    return fmt::format("{}|showstack|{}", BaseFlags(repeated), uint32_t(REQ_MEMORY_ACTIVITY));
}

std::string WalkStateRequest() {
    return fmt::format("{}|NoProcessing|walkstate", BaseFlags(false));
}

std::string CollectorsRequest(bool repeated) {
    return fmt::format("{}|NoProcessing|collectors", BaseFlags(repeated));
}

std::string MemoryRequest(bool repeated) {
    return fmt::format("{}|showmem|{}", BaseFlags(repeated), uint32_t(MEM_SUMMARY));
}

std::string KindsRequest(bool repeated) {
    return fmt::format("{}|showmem|{}", BaseFlags(repeated), uint32_t(MEM_DETAILS));
}

std::string HistogramRequest(uint32_t copy_flags) {
    return fmt::format("{}|showmem|{}|{}", BaseFlags(false) | copy_flags, uint32_t(MEM_DETAILS),
                       HISTOGRAM_WORD);
}

std::string DumpDirRequest(std::string_view dir) {
    return SettingRequest("qorheapdir", dir);
}

std::string DumpRequest(std::string_view name, uint32_t heap_id, uint32_t copy_flags) {
    return fmt::format("{}|showmem|{}|{}|{}", BaseFlags(false) | copy_flags, uint32_t(MEM_DUMP), name,
                       heap_id);
}

std::string PortHolderRequest(int port) {
    return fmt::format("{}|showstack|{}|ARG=x,0={}", BaseFlags(false), uint32_t(REQ_PORT_HOLDER), port);
}

std::string SessionsRequest(int port, std::string_view client_host, std::string_view processes) {
    return fmt::format("{}|xtier01|{}|{}|{}", BaseFlags(false), port, client_host, processes);
}

std::string VersionRequest() {
    return fmt::format("{}|NoProcessing|version", BaseFlags(false));
}

std::string SettingRequest(std::string_view key, std::string_view value) {
    return fmt::format("{}|NoProcessing|{}|{}", BaseFlags(false), key, value);
}

std::string RulesRequest(std::string_view rules) {
    std::string text;
    for (std::string_view line : Lines(rules))
        if (!line.empty()) {
            text += line;
            text += '\r';
        }
    if (text.empty())
        text = "#"; // a comment alone: no rules, and still a value, which the setting wants
    std::string request = SettingRequest("activethreads", text);
    if (request.size() > MAX_REQUEST_BYTES)
        throw Failure(
            fmt::format("the rules take {} bytes, a request holds {}", request.size(), MAX_REQUEST_BYTES),
            "drop comments, or replace rules by shorter ones that end in '*'");
    CheckRequest(request);
    return request;
}

std::vector<std::string> CheckRules(std::string_view rules) {
    RuleTable tables[2] = {{{"monitor", "currcall", "threadname"}}, {{"systemcall", "", ""}}};
    std::vector<std::string> faults;
    size_t number = 0;
    for (std::string_view line : Lines(rules)) {
        ++number;
        if (line.empty() || line[0] == '#')
            continue;
        if (const char *fault = Fault(line, tables))
            faults.push_back(fmt::format("line {} has no effect: {}", number, fault));
    }
    return faults;
}

std::vector<std::string> TierRequests(std::string_view rules) {
    std::string text, sent;
    for (std::string_view line : Lines(rules))
        text += fmt::format("{}\n", line);
    sent = text;
    std::replace(sent.begin(), sent.end(), '\n', '\r');
    std::vector<std::string> requests;
    for (size_t at = 0, end = 0; at < sent.size() || at == 0; at = end) {
        end = at + std::min(TIER_PIECE, sent.size() - at);
        for (int back = 0; back < 3 && end < sent.size() && (sent[end] & 0xC0) == 0x80; ++back)
            --end; // the relay reads each request by itself, so a character isn't cut
        requests.push_back(SettingRequest("tierrules", (at == 0 ? "=|" : "+|") + sent.substr(at, end - at)));
        if (end == at)
            break;
    }
    requests.push_back(SettingRequest("tierrules", fmt::format("!|{:08x}", Crc32(text))));
    for (const std::string &request : requests)
        CheckRequest(request);
    return requests;
}

std::string TierPageRequest(size_t page) {
    return SettingRequest("tierrules", fmt::format("?|{}", page));
}

bool IsThreadNumber(std::string_view text) {
    size_t bar = text.find('-');
    std::string_view parts[2] = {text.substr(0, bar), bar == text.npos ? text : text.substr(bar + 1)};
    for (std::string_view part : parts)
        if (part.empty() || part.size() > 18 || part.find_first_not_of("0123456789") != part.npos)
            return false;
    return true;
}

std::string ThreadKeyText(std::string_view text, int64_t process) {
    if (!IsThreadNumber(text))
        throw Failure(fmt::format("\"{}\" isn't a thread", text),
                      "give the number shown in the column ID, or PROCESS-THREAD", EXIT_USAGE);
    bool whole = text.find('-') != text.npos;
    return whole ? std::string(text) : fmt::format("{}-{}", process, text);
}

void CheckRequest(std::string_view request) {
    if (request.size() > MAX_REQUEST_BYTES)
        throw Failure(fmt::format("the request takes {} bytes, at most {} can be sent", request.size(),
                                  MAX_REQUEST_BYTES),
                      "shorten it");
    if (request.find('\n') != request.npos)
        throw Failure("a request can't hold a line feed", "use a carriage return between lines");
    if (request.find(END_OF_TRANSMISSION) != request.npos)
        throw Failure("the text holds the end-of-transmission marker",
                      "remove it, everything after it would be lost");
}

} // namespace qorctl
