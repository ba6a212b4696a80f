#include "Replies.h"

#include "RequestHandler/RequestHandler.h"

#include <algorithm>

std::string Ask(uint32_t request, const std::string &slot0, const std::string &slot1, int32_t size) {
    std::string first = slot0, second = slot1;
    char *args[CONSOLE_ARG_COUNT] = {first.empty() ? nullptr : first.data(),
                                     second.empty() ? nullptr : second.data()};
    std::vector<char> page(PAGEBUF_SIZE);
    QorHandleShowJVMRequest(request, page.data(), size, args);
    return page.data();
}

qorctl::ThreadSample AllThreads(bool stacks) {
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    poll_details = stacks ? FLAG_POLL_DETAILS : 0;
    const qorctl::ThreadSample sample = Threads(Ask(QORREQ_POLL_DETAILS));
    trace_all_threads = poll_details = 0;
    return sample;
}

qorctl::ThreadSample ActiveThreads() {
    return Threads(Ask(QORREQ_ACTIVE_THREADS));
}

qorctl::ThreadSample Threads(const std::string &text) {
    const qorctl::Reply reply = qorctl::OpenReply(text);
    qorctl::ThreadSample sample = qorctl::DecodeThreads(reply);
    EXPECT_TRUE(!sample.cut || reply.reached_limit) << text.substr(text.size() - 500);
    return sample;
}

qorctl::Thread StackOf(const std::string &key) {
    const qorctl::ThreadSample sample =
        qorctl::DecodeStack(qorctl::OpenReply(Ask(QORREQ_THREAD_DETAILS, "", key)));
    return sample.threads.empty() ? qorctl::Thread() : sample.threads[0];
}

const qorctl::Thread *Find(const qorctl::ThreadSample &sample, const std::string &name) {
    for (const qorctl::Thread &thread : sample.threads)
        if (thread.name == name)
            return &thread;
    return nullptr;
}

std::string CallOf(const qorctl::Frame &frame) {
    return frame.class_name + "->" + frame.method;
}

namespace {

template <class Lock>
std::string TextOfLock(const Lock &lock) {
    return lock.class_name + "@" + std::to_string(lock.lock);
}

std::vector<std::string> Describe(const qorctl::Thread &thread) {
    std::vector<std::string> lines;
    int index = 0;
    for (const qorctl::Frame &frame : thread.stack) {
        EXPECT_EQ(frame.index, index++) << thread.name;
        if (!IsMadeByJvm(CallOf(frame)))
            lines.push_back(CallOf(frame) +
                            (frame.line > 0 ? " " + frame.file + ":" + std::to_string(frame.line) : ""));
    }
    const auto frames = static_cast<std::ptrdiff_t>(lines.size());
    for (const qorctl::OwnedLock &lock : thread.owns)
        lines.push_back("owns " + TextOfLock(lock) + " by " + std::to_string(lock.depth));
    if (thread.waits_for)
        lines.push_back("wants " + TextOfLock(*thread.waits_for) + " of " +
                        std::to_string(thread.waits_for->owner.thread));
    if (thread.parked_on)
        lines.push_back("parked on " + TextOfLock(*thread.parked_on));
    std::sort(lines.begin() + frames, lines.end()); // locks in no order
    return lines;
}

} // namespace

int ExpectTruth(const qorctl::ThreadSample &sample) {
    int compared = 0;
    for (const auto &[id, truth] : ThreadTruth()) {
        if (truth.name.rfind("zoo-", 0) != 0)
            continue;
        const qorctl::Thread *shown = Find(sample, truth.name);
        EXPECT_TRUE(shown) << truth.name;
        if (!shown)
            continue;
        EXPECT_EQ(shown->key.thread, id) << truth.name;
        EXPECT_EQ(Describe(*shown), truth.lines) << truth.name;
        compared++;
    }
    return compared;
}

std::string Legible(std::string reply) {
    for (size_t at; (at = reply.find('\x1f')) != reply.npos;)
        reply.replace(at, 1, "$\n");
    for (char &c : reply)
        c = c == '\x1d' ? '|' : c == '\x1e' ? '\n' : c;
    return reply;
}
