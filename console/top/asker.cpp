#include "asker.h"

#include "base/failure.h"
#include "jvm/session.h"
#include "wire/request.h"

#include <set>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace qorctl {

namespace {

// Rows of all threads have no figures of theirs; so those of the active ones stay, and the others are added.
void AddIdle(ThreadSample all, ThreadSample *active) {
    std::set<int64_t> there;
    for (const Thread &thread : active->threads)
        there.insert(thread.key.thread);
    for (Thread &thread : all.threads)
        if (there.insert(thread.key.thread).second)
            active->threads.push_back(std::move(thread));
    active->cut |= all.cut;
}

} // namespace

Asker::Asker(const Settings &settings, pid_t pid)
    : settings_(settings), pid_(pid), ready_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    Connect();
}

void Asker::Connect() {
    connection_ = RequireAgent(settings_, RequireProcess(pid_));
}

void Asker::Start(const TopQuestion &question) {
    question_ = question;
    std::thread([this] { Run(); }).detach();
}

void Asker::Change(const TopQuestion &question) {
    const std::lock_guard<std::mutex> lock(mutex_);
    question_ = question;
    is_new_ = true;
    changed_.notify_one();
}

std::optional<TopAnswer> Asker::Take() {
    uint64_t count = 0;
    if (read(ready_.get(), &count, sizeof count) < 0)
        return std::nullopt; // nothing was written since
    const std::lock_guard<std::mutex> lock(mutex_);
    std::optional<TopAnswer> answer = std::move(answer_);
    answer_.reset();
    return answer;
}

std::chrono::seconds Asker::Silence() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::chrono::duration_cast<Seconds>(asked_ ? TopClock::now() - *asked_ : TopClock::duration());
}

void Asker::Run() {
    for (;;) {
        TopQuestion question;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            question = question_;
            is_new_ = false;
            if (!asked_)
                asked_ = TopClock::now();
        }
        const auto start = TopClock::now();
        settings_.BeginRound();
        TopAnswer answer;
        try {
            if (!connection_)
                Connect();
            answer = Look(question);
        } catch (const Failure &failure) {
            connection_.reset();
            answer.failure = FailureText(failure);
        } catch (const std::exception &error) { // ending here would leave the terminal as the screen has it
            connection_.reset();
            answer.failure = Printable(error.what());
        }
        std::unique_lock<std::mutex> lock(mutex_);
        if (answer.failure.empty())
            asked_.reset();
        answer_ = std::move(answer);
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(ready_.get(), &one, sizeof one);
        const auto period = std::chrono::duration<double>(question.seconds);
        changed_.wait_until(lock, start + std::chrono::duration_cast<TopClock::duration>(period),
                            [this] { return is_new_; });
    }
}

TopAnswer Asker::Look(const TopQuestion &question) {
    auto ask = [this](const std::string &request) { return connection_->Ask(request, settings_.Due()); };
    TopAnswer answer;
    ThreadQuestion threads;
    threads.details = question.details;
    threads.repeated = true;
    std::string reply = ask(ThreadsRequest(threads));
    answer.time = TopClock::now();
    answer.sample = DecodeThreads(OpenReply(reply));
    if (question.all) {
        threads.all = true;
        reply = ask(ThreadsRequest(threads));
        AddIdle(DecodeThreads(OpenReply(reply)), &answer.sample);
    }
    reply = ask(SummaryRequest(true));
    answer.summary = DecodeSummary(OpenReply(reply));
    answer.collectors = DecodeCollectors(ask(CollectorsRequest(true)));
    if (!question.stack.empty()) {
        answer.stack_of = question.stack;
        reply = ask(StackRequest(question.stack));
        answer.stack = DecodeStack(OpenReply(reply));
    }
    return answer;
}

} // namespace qorctl
