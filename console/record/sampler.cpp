#include "sampler.h"

#include "base/failure.h"
#include "wire/request.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <set>

namespace qorctl {

namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::steady_clock;

constexpr std::string_view OWN_THREADS = "qoragent-relay"; // they serve the recording itself

bool IsOwn(const Thread &thread) {
    return thread.name.compare(0, OWN_THREADS.size(), OWN_THREADS) == 0;
}

bool HasTiers(const Thread &thread) {
    return thread.request_url || thread.db || thread.rmi || thread.end_to_end.file || thread.end_to_end.peer;
}

int64_t NumberAfter(std::string_view text, std::string_view key) {
    size_t at = text.find(key);
    return at == text.npos ? -1 : strtoll(text.data() + at + key.size(), nullptr, 10);
}

} // namespace

std::string Sampler::AskTimed(const AskFunction &ask, const std::string &request, TakenSample *sample) {
    auto start = steady_clock::now();
    std::string reply = ask(WithCost(request));
    auto took = duration_cast<microseconds>(steady_clock::now() - start).count();
    sample->took_us += took;
    ++sample->requests;
    if (const std::optional<Cost> stops = TakeCost(&reply)) {
        sample->stops = sample->stops.value_or(Cost());
        sample->stops->Add(*stops);
    }
    return reply;
}

// The agent's own figure of its time; where a full reply has none, the time that the answer took.
ThreadSample Sampler::AskThreads(const AskFunction &ask, bool details, TakenSample *sample) {
    ThreadQuestion question;
    question.all = question.repeated = true;
    question.details = details;
    question.locals = question.figures = details;
    int64_t before = sample->took_us;
    std::string reply = AskTimed(ask, ThreadsRequest(question), sample);
    ThreadSample threads = DecodeThreads(OpenReply(reply));
    sample->agent_us +=
        threads.jvm_microseconds ? static_cast<int64_t>(*threads.jvm_microseconds) : sample->took_us - before;
    return threads;
}

void Sampler::AskStack(const AskFunction &ask, Thread *thread, TakenSample *sample) {
    ThreadQuestion question;
    question.repeated = true;
    question.thread_key =
        thread->key.process ? thread->key.Text() : fmt::format("{}-{}", inner_pid_, thread->key.thread);
    int64_t before = sample->took_us;
    std::string reply = AskTimed(ask, ThreadsRequest(question), sample);
    ThreadSample one = DecodeThreads(OpenReply(reply));
    sample->agent_us +=
        one.jvm_microseconds ? static_cast<int64_t>(*one.jvm_microseconds) : sample->took_us - before;
    if (!one.threads.empty() && one.threads[0].key.thread == thread->key.thread)
        *thread = std::move(one.threads[0]);
}

void Sampler::Complete(const AskFunction &ask, microseconds budget, TakenSample *sample) {
    std::vector<Thread> &threads = sample->threads.threads;
    std::set<int64_t> seen;
    for (const Thread &thread : threads)
        seen.insert(thread.key.thread);
    std::vector<Thread> missing;
    for (Thread &thread : AskThreads(ask, false, sample).threads)
        if (seen.count(thread.key.thread) == 0)
            missing.push_back(std::move(thread));
    auto first = std::find_if(missing.begin(), missing.end(),
                              [&](const Thread &thread) { return thread.key.thread > next_asked_; });
    std::rotate(missing.begin(), first, missing.end());
    for (Thread &thread : missing) {
        if (sample->agent_us < budget.count()) {
            next_asked_ = thread.key.thread;
            AskStack(ask, &thread, sample);
        }
        sample->missing += thread.stack.empty() && thread.call;
        threads.push_back(std::move(thread));
    }
}

void Sampler::AddFigures(const AskFunction &ask, TakenSample *sample) {
    std::string walk = AskTimed(ask, WalkStateRequest(), sample);
    const auto &threads = sample->threads.threads;
    sample->left_out = NumberAfter(walk, "leftout=") == 1;
    if (int64_t quota = NumberAfter(walk, "localquota="); quota >= 0)
        sample->quota = quota;
    if (!sample->left_out && std::any_of(threads.begin(), threads.end(), HasTiers))
        sample->walk_ms = std::max<int64_t>(NumberAfter(walk, "walk="), 0);
    const std::string memory = AskTimed(ask, MemoryRequest(true), sample);
    sample->collectors = DecodeCollectors(AskTimed(ask, CollectorsRequest(true), sample));
    try {
        MemoryView heap = DecodeMemory(OpenReply(memory));
        sample->agent_us += static_cast<int64_t>(heap.jvm_microseconds.value_or(0));
        sample->heap = std::move(heap);
    } catch (const Failure
                 &) { // a JVM that is read by address may refuse it; the threads are worth a sample alone
    }
}

TakenSample Sampler::Take(const AskFunction &ask, microseconds budget) {
    TakenSample sample;
    sample.threads = AskThreads(ask, true, &sample);
    if (sample.threads.cut)
        Complete(ask, budget, &sample);
    AddFigures(ask, &sample);
    auto &threads = sample.threads.threads;
    threads.erase(std::remove_if(threads.begin(), threads.end(), IsOwn), threads.end());
    std::sort(threads.begin(), threads.end(),
              [](const Thread &a, const Thread &b) { return a.key.thread < b.key.thread; });
    return sample;
}

} // namespace qorctl
