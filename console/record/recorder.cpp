#include "recorder.h"

#include "base/failure.h"
#include "base/terminal.h"
#include "jvm/hung.h"
#include "jvm/session.h"
#include "jvm_life.h"
#include "pace.h"
#include "part_file.h"
#include "record_lines.h"
#include "sampler.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <ctime>
#include <deque>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <sys/ioctl.h>
#include <unistd.h>

namespace qorctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr Seconds LONGEST_WAIT(10);       // for one answer; a JVM that is silent for longer is said to be
constexpr milliseconds CHECK_PERIOD(100); // whether a signal has come, while an answer is waited for
constexpr milliseconds HUNG_LIMIT(1000);  // for a look at a silent JVM
constexpr Seconds FLUSH_PERIOD(10);       // what is lost at most when this process is killed
constexpr Seconds RESTART_LIMIT(60);      // for a JVM that begins anew to take the agent
constexpr size_t MOST_STACK_BYTES = 128 << 20; // of a part's stacks, in memory

// What ends a sample without one.
struct Interrupted {};
struct NoAnswer {
    std::string why;
};

int64_t NowMs() {
    return std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string HostName() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

// Signals that end a recording in good order. They are blocked and taken when it suits.
class EndSignals {
public:
    EndSignals() {
        sigemptyset(&set_);
        for (int number : {SIGINT, SIGTERM, SIGHUP})
            sigaddset(&set_, number);
        sigprocmask(SIG_BLOCK, &set_, &before_);
    }
    ~EndSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    EndSignals(const EndSignals &) = delete;
    EndSignals &operator=(const EndSignals &) = delete;

    // Whether one has come; waits for it for so long at most.
    bool Wait(milliseconds limit) {
        timespec time = {limit.count() / 1000, limit.count() % 1000 * 1000000};
        came_ = came_ || sigtimedwait(&set_, nullptr, &time) > 0;
        return came_;
    }

private:
    sigset_t set_, before_;
    bool came_ = false;
};

std::string DefaultName(pid_t pid) {
    char text[32];
    time_t now = time(nullptr);
    tm local;
    strftime(text, sizeof text, "%Y%m%d-%H%M%S", localtime_r(&now, &local));
    return fmt::format("record-{}-{}.ndjson.gz", pid, text);
}

class Recorder {
public:
    Recorder(const Settings &settings, pid_t pid, const RecordOptions &options)
        : settings_(settings), options_(options), pid_(pid),
          out_(options.out.empty() ? DefaultName(pid) : options.out),
          pace_(milliseconds(std::llround(options.every * 1000)), options.share / 100) {
        facts_.part = 0;
    }

    RecordSummary Run();

private:
    void Begin();
    void OpenPart();
    void EndPart(EndReason reason, const std::string &note);
    void EndTorn(const WriteFailure &failure);
    RecordSummary RunParts();
    std::optional<EndReason> Loop();
    std::optional<EndReason> TakeOne();
    EndReason AfterLoss(const std::string &why);
    bool BeginAnew();
    std::string Ask(const std::string &request);
    void ReconnectIfNeeded();
    void WriteSample(const TakenSample &sample);
    void WriteUnanswered(const std::string &why, milliseconds waited);
    void SayInterval();
    void ShowProgress(bool last);
    LineHead Head() const;

    Settings settings_;
    RecordOptions options_;
    pid_t pid_;
    std::string out_, note_;
    Pace pace_;
    Process process_;
    JvmLife life_;
    LineHead head_;
    PartFacts facts_;
    std::optional<Connection> connection_;
    std::optional<Sampler> sampler_;
    std::unique_ptr<PartFile> file_;
    std::unique_ptr<PartLines> lines_;
    std::optional<EndSignals> signals_;
    steady_clock::time_point began_, flushed_;
    std::deque<int> kept_; // numbers of the parts that are there
    int64_t agent_us_ = 0, walk_ms_ = 0, longest_us_ = 0, samples_of_part_ = 0;
    std::optional<Cost> stops_; // of all samples
    std::optional<int64_t> quota_;
    bool silent_ = false, told_interval_ = false;
    RecordSummary summary_;
};

LineHead Recorder::Head() const {
    LineHead head = head_;
    head.time = NowMs();
    return head;
}

// Finds the JVM and its agent, which is loaded if it isn't there.
void Recorder::Begin() {
    settings_.BeginRound();
    process_ = RequireProcess(pid_);
    connection_ = RequireAgent(settings_, process_);
    sampler_.emplace(process_.inner_pid);
    life_ = ReadLife(pid_).value_or(JvmLife());
    head_ = {HostName(), pid_, LifeName(pid_, life_), 0};
    facts_.every_ms = std::llround(options_.every * 1000);
    facts_.java_version = ReadPerfData(process_).java_version;
    facts_.main_class = MainClass(process_.arguments);
    facts_.console_version = options_.console_version;
}

// Files of an earlier recording are kept, and the parts numbered past them; not so the first part, whose
// name was asked for.
void Recorder::OpenPart() {
    ++summary_.parts;
    do
        ++facts_.part;
    while (facts_.part > 1 && out_ != "-" && access(PartName(out_, facts_.part).c_str(), F_OK) == 0);
    file_ = std::make_unique<PartFile>(PartName(out_, facts_.part));
    lines_ = std::make_unique<PartLines>();
    samples_of_part_ = 0;
    flushed_ = steady_clock::now();
    file_->Write(MetaLine(Head(), facts_));
    kept_.push_back(facts_.part);
    if (kept_.size() > static_cast<size_t>(options_.parts) && out_ != "-") {
        unlink(PartName(out_, kept_.front()).c_str());
        kept_.pop_front();
    }
}

void Recorder::EndPart(EndReason reason, const std::string &note) {
    file_->Write(EndLine(Head(), reason, note, samples_of_part_));
    file_->Close();
    summary_.bytes += file_->bytes();
    summary_.file = file_->path();
}

// A full disk mostly has room for the reason, in place of the line that it had none for.
void Recorder::EndTorn(const WriteFailure &failure) {
    if (!file_->TakeBack())
        return;
    try {
        EndPart(EndReason::FAILED, failure.what());
    } catch (const WriteFailure &) {
        file_->TakeBack();
    }
}

std::string Recorder::Ask(const std::string &request) {
    auto deadline = steady_clock::now() + std::min(LONGEST_WAIT, Seconds(settings_.timeout));
    auto go_on = [&] { return !signals_->Wait(milliseconds(0)) && steady_clock::now() < deadline; };
    std::optional<std::string> reply = connection_->AskWhile(request, CHECK_PERIOD, go_on);
    if (reply && !IsTimedOut(*reply))
        return std::move(*reply);
    connection_.reset(); // the answer may still come, and be taken for that to the next question
    if (!reply && signals_->Wait(milliseconds(0)))
        throw Interrupted();
    throw NoAnswer();
}

// A JVM that doesn't answer isn't connected to: that would wait as well.
void Recorder::ReconnectIfNeeded() {
    if (connection_)
        return;
    HungOptions look;
    look.limit = HUNG_LIMIT;
    if (HungReport report = LookAtHung(pid_, look); report.is_read && report.is_hung)
        throw NoAnswer{report.sentence};
    settings_.BeginRound();
    connection_ = ConnectToRunning(settings_, process_, false);
    if (!connection_)
        throw Failure("the agent has ended", "attach again and record anew");
}

void Recorder::WriteSample(const TakenSample &sample) {
    for (const std::string &line : lines_->Sample(Head(), sample))
        file_->Write(line);
    ++samples_of_part_;
    summary_.missing += sample.missing;
    agent_us_ += sample.agent_us;
    longest_us_ = std::max(longest_us_, sample.agent_us);
    walk_ms_ += sample.walk_ms.value_or(0);
    quota_ = sample.quota;
    if (sample.stops) {
        stops_ = stops_.value_or(Cost());
        stops_->Add(*sample.stops);
    }
}

void Recorder::WriteUnanswered(const std::string &why, milliseconds waited) {
    std::string reason = why;
    if (reason.empty()) {
        HungOptions look;
        look.unanswered = true;
        look.limit = HUNG_LIMIT;
        HungReport report = LookAtHung(pid_, look);
        reason = report.is_read && report.is_hung ? report.sentence : "no answer";
    }
    ++summary_.unanswered;
    ++samples_of_part_;
    file_->Write(UnansweredLine(Head(), summary_.samples, waited.count(), reason));
    if (!silent_)
        fmt::print(stderr, "{}qorctl: no answer: {}\n", isatty(STDERR_FILENO) ? "\r\x1b[K" : "",
                   Printable(reason));
    silent_ = true;
}

void Recorder::SayInterval() {
    if (!told_interval_ && !isatty(STDERR_FILENO))
        fmt::print(stderr,
                   "qorctl: samples take more than {} % of the time at {} s; now one every {:.1f} s\n",
                   options_.share, options_.every, std::chrono::duration<double>(pace_.interval()).count());
    told_interval_ = true;
}

void Recorder::ShowProgress(bool last) {
    if (!isatty(STDERR_FILENO))
        return;
    double seconds = std::chrono::duration<double>(steady_clock::now() - began_).count();
    std::string line = fmt::format("{} samples, {:.1f} MB, ", summary_.samples,
                                   static_cast<double>(summary_.bytes + file_->bytes()) / 1e6);
    if (stops_)
        line += fmt::format("paused {:.0f} ms at most (longest {:.1f})", stops_->sum_ms, stops_->largest_ms);
    else
        line += fmt::format("{:.0f} ms in the agent (longest {:.0f})", static_cast<double>(agent_us_) / 1000,
                            static_cast<double>(longest_us_) / 1000);
    line += fmt::format(", locals {:.2f}{} %", static_cast<double>(walk_ms_) / 10 / std::max(seconds, 0.1),
                        quota_ ? fmt::format(" of {}", *quota_) : "");
    if (told_interval_)
        line += fmt::format(", every {:.1f} s", std::chrono::duration<double>(pace_.interval()).count());
    winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        line = FitLine(line, {false, size.ws_col});
    fmt::print(stderr, "\r\x1b[K{}{}", line, last ? "\n" : "");
    fflush(stderr);
}

// The connection was lost: is it the JVM, its successor under the same number, or the agent alone?
EndReason Recorder::AfterLoss(const std::string &why) {
    note_ = why;
    std::optional<JvmLife> now = ReadLife(pid_);
    if (!now)
        return EndReason::JVM_ENDED;
    return now->IsSame(life_) ? EndReason::AGENT_ENDED : EndReason::JVM_RESTARTED;
}

std::optional<EndReason> Recorder::TakeOne() {
    ++summary_.samples;
    auto start = steady_clock::now();
    try {
        if (std::optional<JvmLife> now = ReadLife(pid_); !now || !now->IsSame(life_))
            return AfterLoss("");
        ReconnectIfNeeded();
        TakenSample sample =
            sampler_->Take([this](const std::string &request) { return Ask(request); }, pace_.Budget());
        if (pace_.Add(std::chrono::microseconds(sample.agent_us)))
            SayInterval();
        if (std::optional<JvmLife> now = ReadLife(pid_))
            sample.process_cpu_ms = now->cpu_ms;
        sample.number = summary_.samples;
        sample.interval_ms = pace_.interval().count();
        WriteSample(sample);
        silent_ = false;
    } catch (const Interrupted &) {
        --summary_.samples;
        return EndReason::INTERRUPTED;
    } catch (const NoAnswer &silence) {
        WriteUnanswered(silence.why, std::chrono::duration_cast<milliseconds>(steady_clock::now() - start));
    }
    return std::nullopt;
}

std::optional<EndReason> Recorder::Loop() {
    for (auto next = steady_clock::now();;) {
        try {
            if (std::optional<EndReason> end = TakeOne())
                return end;
        } catch (const WriteFailure &) {
            throw;
        } catch (const Failure &failure) {
            --summary_.samples;
            EndReason reason = AfterLoss(failure.what());
            // An agent that went silent in the middle of its JVM's end is seen to be gone a moment later.
            if (reason == EndReason::AGENT_ENDED && !signals_->Wait(milliseconds(500)))
                reason = AfterLoss(failure.what());
            return reason;
        }
        ShowProgress(false);
        if (steady_clock::now() - flushed_ >= FLUSH_PERIOD) {
            file_->Flush();
            flushed_ = steady_clock::now();
        }
        next = std::max(next + pace_.interval(), steady_clock::now());
        auto end = began_ + std::chrono::duration_cast<steady_clock::duration>(
                                std::chrono::duration<double>(options_.lasts));
        if (options_.lasts > 0 && next >= end)
            return EndReason::FINISHED;
        auto left = std::chrono::duration_cast<milliseconds>(next - steady_clock::now());
        if (signals_->Wait(std::max(left, milliseconds(0))))
            return EndReason::INTERRUPTED;
        if (file_->bytes() >= options_.part_size || lines_->memory() >= MOST_STACK_BYTES)
            return EndReason::ROTATED; // after the wait: the next part begins with a sample
    }
}

// The JVM that has taken the place of the one recorded, as soon as it takes the agent.
bool Recorder::BeginAnew() {
    auto deadline = steady_clock::now() + RESTART_LIMIT;
    for (;;) {
        try {
            connection_.reset();
            Begin();
            return true;
        } catch (const Failure &failure) {
            note_ = failure.what();
            if (steady_clock::now() > deadline || signals_->Wait(milliseconds(500)) || !ReadLife(pid_))
                return false;
        }
    }
}

RecordSummary Recorder::Run() {
    Begin();
    OpenPart();
    signals_.emplace();
    began_ = steady_clock::now();
    try {
        return RunParts();
    } catch (const WriteFailure &failure) {
        ShowProgress(true);
        EndTorn(failure);
        throw;
    }
}

RecordSummary Recorder::RunParts() {
    for (;;) {
        note_.clear();
        EndReason reason = Loop().value_or(EndReason::FAILED);
        bool again = reason == EndReason::ROTATED || reason == EndReason::JVM_RESTARTED;
        EndPart(reason, note_);
        summary_.end = EndText(reason);
        if (!again || (reason == EndReason::JVM_RESTARTED && !BeginAnew()))
            break;
        OpenPart();
    }
    ShowProgress(true);
    return summary_;
}

} // namespace

RecordSummary Record(const Settings &settings, pid_t pid, const RecordOptions &options) {
    return Recorder(settings, pid, options).Run();
}

} // namespace qorctl
