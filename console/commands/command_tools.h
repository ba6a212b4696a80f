// What the commands share: asking, and writing the answer.
#pragma once

#include "base/terminal.h"
#include "commands.h"
#include "jvm/session.h"
#include "show/json.h"
#include "show/unknown_products.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace qorctl {

constexpr int HEADER_EVERY = 20; // lines of a series

// Writes to standard output, at once. Throws a Failure that says why it can't.
void Print(std::string_view text);

// Colours and width, when standard output is a terminal.
Style TerminalStyle(const Settings &settings);

// A text of the agent, as a line or as JSON.
void PrintAnswer(const Settings &settings, pid_t pid, const std::string &answer);

// One view: `document` with --json, else `text`. In a series each starts on a clear screen, or after a blank
// line where nothing can be cleared.
void PrintView(const Settings &settings, double watch, const Json &document, const std::string &text);

// What the requests since the last view cost the JVM, where that was asked for: a last line of text with
// --cost, a member of the document with --json. Forgets it.
std::string CostText(const Settings &settings);
void AddCost(Json *document);

// The request, which asks for its cost too if that is wanted; and the reply's cost, kept for the view.
std::string WithWantedCost(const Settings &settings, const std::string &request);
void KeepCost(const Settings &settings, std::string *reply);

// Sends a request over a connection: the reply, whose cost is kept for the view.
std::string AskCosted(const Settings &settings, Connection *connection, const std::string &request);

// Sends one request to the agent of a JVM, which is loaded if it isn't there: the reply.
std::string AskOnce(const Settings &settings, pid_t pid, const std::string &request);

// Says on standard error when the sample just taken by hand has no data of other tiers because such samples
// had their share of time.
void NoteMissingTiers(const Settings &settings, pid_t pid);

// Says on standard error that not all of the sample is there, where the form it is written in can't.
void NoteCut(const ThreadSample &sample);

// The rules in force by which drivers and containers are read. Throws a Failure when the agent knows none.
std::string ReadTiers(const Settings &settings, Connection *connection);

// Drivers and containers that threads of the sample are in and that no rule describes. Takes the stacks by
// one more sample where this one has none and something in it asks for a look; empty when that fails.
std::vector<UnknownProduct> AskForUnknownProducts(const Settings &settings, pid_t pid,
                                                  const ThreadSample &sample);

// Does `once` now, and again every `period` seconds until it throws, if a period is given. The settings' time
// is that of each round.
template <class Once>
void Repeat(Settings *settings, double period, Once once) {
    auto next = std::chrono::steady_clock::now();
    for (;;) {
        settings->BeginRound();
        once();
        if (period <= 0)
            return;
        next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(period));
        next = std::max(next, std::chrono::steady_clock::now());
        std::this_thread::sleep_until(next);
    }
}

} // namespace qorctl
