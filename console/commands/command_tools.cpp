#include "command_tools.h"

#include "base/failure.h"
#include "jvm/session.h"
#include "wire/cost.h"
#include "wire/request.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <optional>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace qorctl {

namespace {

constexpr size_t MAX_TIERS = 131072; // bytes of the agent's rules

std::optional<Cost> cost_so_far; // of the requests since the last view

} // namespace

void Print(std::string_view text) {
    if (fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0)
        return;
    const int error = errno;
    throw Failure(fmt::format("the answer can't be written: {}", strerror(error)),
                  error == EPIPE ? "whoever reads it has gone" : "make room, or write it to another place");
}

Style TerminalStyle(const Settings &settings) {
    Style style;
    if (!isatty(STDOUT_FILENO))
        return style;
    const char *term = getenv("TERM");
    style.colour = !getenv("NO_COLOR") && term && std::string_view(term) != "dumb";
    winsize size = {};
    if (!settings.wide && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
        style.width = size.ws_col;
    return style;
}

void PrintAnswer(const Settings &settings, pid_t pid, const std::string &answer) {
    if (settings.json)
        Print(JsonText({{"pid", pid}, {"answer", answer}}, false) + "\n");
    else
        Print(Printable(answer) + "\n");
}

void PrintView(const Settings &settings, double watch, const Json &document, const std::string &text) {
    if (settings.json) {
        Json shown = document;
        AddCost(&shown);
        Print(JsonText(shown, watch > 0) + "\n");
        return;
    }
    const std::string whole = text + CostText(settings);
    if (watch > 0 && TerminalStyle(settings).colour)
        Print("\x1b[H\x1b[2J" + whole);
    else
        Print(watch > 0 ? whole + "\n" : whole);
}

std::string CostText(const Settings &settings) {
    const std::optional<Cost> cost = std::exchange(cost_so_far, std::nullopt);
    if (!settings.cost)
        return "";
    if (!cost)
        return "the agent doesn't report what the request cost the JVM\n";
    return fmt::format(
        "the JVM was stopped for {:.1f} ms at most at a time, {:.1f} ms in all, in {} call{}{}\n",
        cost->largest_ms, cost->sum_ms, cost->calls, cost->calls == 1 ? "" : "s",
        cost->walk_left_out ? "; the walk for local variables was left out" : "");
}

void AddCost(Json *document) {
    if (const std::optional<Cost> cost = std::exchange(cost_so_far, std::nullopt);
        cost && document->is_object())
        (*document)["stopped_at_most_ms"] = {{"largest", cost->largest_ms},
                                             {"sum", cost->sum_ms},
                                             {"calls", cost->calls},
                                             {"walk_left_out", cost->walk_left_out}};
}

std::string WithWantedCost(const Settings &settings, const std::string &request) {
    return settings.cost || settings.json ? WithCost(request) : request;
}

void KeepCost(const Settings &settings, std::string *reply) {
    if (!settings.cost && !settings.json)
        return;
    if (const std::optional<Cost> cost = TakeCost(reply)) {
        if (!cost_so_far)
            cost_so_far = Cost();
        cost_so_far->Add(*cost);
    }
}

std::string AskCosted(const Settings &settings, Connection *connection, const std::string &request) {
    std::string reply = connection->Ask(WithWantedCost(settings, request), settings.Due());
    KeepCost(settings, &reply);
    return reply;
}

std::string AskOnce(const Settings &settings, pid_t pid, const std::string &request) {
    Connection connection = RequireAgent(settings, RequireProcess(pid));
    return AskCosted(settings, &connection, request);
}

void NoteMissingTiers(const Settings &settings, pid_t pid) {
    try {
        std::string state = AskOnce(settings, pid, WalkStateRequest());
        if (state.find("leftout=1") != std::string::npos)
            fmt::print(stderr, "qorctl: without data of other tiers, as requests by hand have read local "
                               "variables for their share of the last ten seconds (option handquota); ask "
                               "again in a while\n");
        else if (state.find("cut=1") != std::string::npos)
            fmt::print(stderr,
                       "qorctl: data of other tiers may be missing, as the agent stopped reading local "
                       "variables at its time limit; ask again\n");
    } catch (const Failure &) { // the view is shown without it
    }
}

void NoteCut(const ThreadSample &sample) {
    if (sample.cut || CutStacks(sample) > 0)
        fmt::print(stderr,
                   "qorctl: stacks are missing or incomplete, as the agent's reply had no more room\n");
}

std::string ReadTiers(const Settings &settings, Connection *connection) {
    std::string text;
    for (size_t page = 0;; ++page) {
        std::string asked = connection->Ask(TierPageRequest(page), settings.Due());
        std::string reply = DecodeText(OpenReply(asked));
        size_t head = reply.find('\n');
        if (head == reply.npos || text.size() + reply.size() - head - 1 > MAX_TIERS)
            throw Failure(fmt::format("the agent answers \"{}\"", reply.substr(0, 200)),
                          "it may be older than this console");
        if (head + 1 == reply.size())
            return text;
        text += reply.substr(head + 1);
    }
}

std::vector<UnknownProduct> AskForUnknownProducts(const Settings &settings, pid_t pid,
                                                  const ThreadSample &sample) {
    if (!MayBeUnknown(sample) || !settings.budget.empty()) // the look is one more sample
        return {};
    try {
        Connection connection = RequireAgent(settings, RequireProcess(pid));
        bool has_stacks = std::any_of(sample.threads.begin(), sample.threads.end(),
                                      [](const Thread &thread) { return !thread.stack.empty(); });
        ThreadSample more;
        if (!has_stacks) {
            ThreadQuestion question;
            question.details = true;
            question.locals = false;
            more = DecodeThreads(OpenReply(AskCosted(settings, &connection, ThreadsRequest(question))));
        }
        const ThreadSample &stacks = has_stacks ? sample : more;
        if (FindUnknownProducts(stacks, "").empty())
            return {};
        return FindUnknownProducts(stacks, ReadTiers(settings, &connection));
    } catch (const Failure &) { // the view is shown without it
        return {};
    }
}

} // namespace qorctl
