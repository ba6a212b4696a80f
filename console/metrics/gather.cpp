#include "gather.h"

#include "base/failure.h"
#include "jvm/discover.h"
#include "jvm/session.h"
#include "wire/records.h"
#include "wire/request.h"

#include <algorithm>
#include <fmt/format.h>
#include <future>

namespace qorctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr Seconds LIMIT(5);                            // of all questions to a JVM: a scraper waits for ten
constexpr std::chrono::milliseconds CHECK_PERIOD(100); // whether the time for an answer is over
constexpr Seconds YOUNG(1);
constexpr Seconds SLOW(1), LEFT_ALONE(30); // a JVM that took so long to refuse isn't tried again for so long
constexpr Seconds FIND_EVERY(30);
constexpr size_t STAT_SIZE = 4096;
constexpr size_t START_FIELD = 20; // of those after the name in /proc/PID/stat

struct Silent {}; // a JVM that doesn't answer in time

// Process id and start in clock ticks since the machine's.
std::string JvmId(pid_t pid) {
    const std::string stat = ReadFile(fmt::format("/proc/{}/stat", pid), STAT_SIZE);
    const size_t name_end = stat.rfind(')');
    const std::string_view rest = name_end == stat.npos ? "" : std::string_view(stat).substr(name_end + 1);
    const Fields fields = Split(rest, ' ');
    return fields.size() > START_FIELD ? fmt::format("{}-{}", pid, fields[START_FIELD]) : std::to_string(pid);
}

JvmLabels LabelsOf(const Process &process) {
    return {UserName(process.euid), MainClass(process.arguments), JvmId(process.pid)};
}

// Whether an agent hasn't ended there, although it may not answer.
bool HasAgent(pid_t pid) {
    try {
        return LocateEndpoint(RequireProcess(pid), false).has_value();
    } catch (const Failure &) {
        return false;
    }
}

// Pairs KEY=NUMBER with blanks between them.
std::map<std::string, int64_t> Numbers(std::string_view text) {
    std::map<std::string, int64_t> numbers;
    for (std::string_view pair : Split(text, ' ')) {
        const size_t equals = pair.find('=');
        int64_t value = 0;
        if (equals != pair.npos && ReadNumber(pair.substr(equals + 1), &value))
            numbers[std::string(pair.substr(0, equals))] = value;
    }
    return numbers;
}

} // namespace

Gatherer::Gatherer(const Settings &settings, const std::vector<pid_t> &pids)
    : settings_(settings), all_(false) {
    for (pid_t pid : pids) {
        const Process process = RequireProcess(pid);
        jvms_.push_back({pid, LabelsOf(process), RequireAgent(settings, process), {}});
    }
}

Gatherer::Gatherer(const Settings &settings) : settings_(settings), all_(true) {}

void Gatherer::Find() {
    found_ = Clock::now();
    std::vector<Jvm> jvms;
    for (const JvmEntry &entry : ListJvms()) {
        const std::string id = JvmId(entry.pid);
        const auto known =
            std::find_if(jvms_.begin(), jvms_.end(), [&](const Jvm &jvm) { return jvm.labels.id == id; });
        if (known != jvms_.end() && (entry.agent == AgentState::RUNNING || HasAgent(entry.pid)))
            jvms.push_back(std::move(*known));
        else if (entry.agent == AgentState::RUNNING)
            jvms.push_back({entry.pid, {entry.user, entry.main_class, id}, std::nullopt, {}});
    }
    jvms_ = std::move(jvms);
}

// One JVM after the other, as this may take another identity; so one that hangs isn't waited for each time.
void Gatherer::Connect(Jvm *jvm) {
    const auto start = Clock::now();
    if (jvm->connection || start < jvm->not_before ||
        JvmId(jvm->pid) != jvm->labels.id) // or another process by now
        return;
    Settings settings = settings_;
    settings.timeout = std::min(settings.timeout, static_cast<int>(LIMIT.count()));
    settings.BeginRound();
    try {
        jvm->connection = ConnectToRunning(settings, RequireProcess(jvm->pid), false);
    } catch (const Failure &) { // it counts as one that doesn't answer
        if (Clock::now() - start > SLOW)
            jvm->not_before = Clock::now() + LEFT_ALONE;
    }
}

JvmReading Gatherer::Ask(Jvm *jvm) const {
    JvmReading reading;
    reading.labels = jvm->labels;
    if (!jvm->connection)
        return reading;
    const auto end = Clock::now() + std::min(LIMIT, Seconds(settings_.timeout));
    // Not by Ask, which looks into a JVM that is silent: that isn't for several threads at once.
    auto ask = [&](const std::string &request) {
        std::optional<std::string> reply =
            jvm->connection->AskWhile(request, CHECK_PERIOD, [&] { return Clock::now() < end; });
        if (!reply)
            throw Silent();
        return std::move(*reply);
    };
    try {
        ThreadQuestion threads;
        threads.details = threads.repeated = true;
        std::string reply = ask(ThreadsRequest(threads));
        reading.sample = DecodeThreads(OpenReply(reply));
        reply = ask(SummaryRequest(true));
        reading.summary = DecodeSummary(OpenReply(reply));
        reply = ask(MemoryRequest(true));
        reading.memory = DecodeMemory(OpenReply(reply));
        reading.collectors = DecodeCollectors(ask(CollectorsRequest(true)));
        reply = ask(WalkStateRequest());
        reading.walk = Numbers(DecodeText(OpenReply(reply)));
        reading.stops = ReadLastCost(ask(LastCostRequest())).value_or(LastCost());
        reading.up = true;
    } catch (const Failure &) {
        jvm->connection.reset();
    } catch (const Silent &) {
        jvm->connection.reset();
    }
    return reading;
}

const std::vector<JvmReading> &Gatherer::Read() {
    const auto now = Clock::now();
    if (read_ != Clock::time_point() && now - read_ < YOUNG)
        return readings_;
    if (all_ && (found_ == Clock::time_point() || now - found_ > FIND_EVERY))
        Find();
    for (Jvm &jvm : jvms_)
        Connect(&jvm);
    std::vector<std::future<JvmReading>> asked;
    for (Jvm &jvm : jvms_)
        asked.push_back(std::async(std::launch::async, [this, &jvm] { return Ask(&jvm); }));
    readings_.clear();
    for (std::future<JvmReading> &reading : asked)
        readings_.push_back(reading.get());
    read_ = Clock::now();
    return readings_;
}

} // namespace qorctl
