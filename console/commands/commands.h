// What qorctl does for each of its commands. Results go to standard output; a Failure ends the command.
#pragma once

#include "base/settings.h"
#include "record/recorder.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qorctl {

struct ThreadsCommand {
    bool details = false;
    bool all = false;
    bool virtual_ones = false; // in groups
    std::string thread;
    std::string match;
    std::string format; // "jstack" or "folded": for other tools
    double watch = 0;   // seconds; 0: once
};

struct ReportCommand {
    std::string file, out; // out: "-" is standard output; empty: that, or report.html for a page
    bool folded = false;
    int64_t jstack = 0; // number of a sample; 0: none
};

struct SessionsCommand {
    int port = 0; // the database's
    std::string host;
    std::vector<int64_t> processes;
};

struct MetricsCommand {
    std::vector<pid_t> pids;
    bool all = false;       // every JVM of this machine that has the agent, in place of `pids`
    bool once = false;      // print them
    std::string listen;     // "ADDRESS:PORT"
    std::string token_file; // with `listen`
    std::string socket;     // a Unix socket's path; empty: the usual one
    std::string text_file;  // written again and again, in place of serving
    double every = 15;      // seconds, of `text_file`
};

void RunList(const Settings &settings);
// A look from outside, without the agent.
void RunHung(const Settings &settings, pid_t pid, bool all, bool stop_thread);

void RunAttach(const Settings &settings, pid_t pid);
void RunThreads(Settings settings, pid_t pid, const ThreadsCommand &command);
// Threads, locks, statements and URLs on a screen that refreshes, until a key or a signal ends the process.
void RunTop(const Settings &settings, pid_t pid, double seconds);
// `thread` is an id, a key or a name.
void RunStack(Settings settings, pid_t pid, const std::string &thread, double watch);
// All connections, or with `port` the thread that has this client port.
void RunConnections(Settings settings, pid_t pid, int port, double watch);
void RunSessions(const Settings &settings, pid_t pid, const SessionsCommand &command);
// The rules of drivers and containers that are in force; with `file` those of the file take their place.
void RunTiers(Settings settings, pid_t pid, const std::string &file);
// Whether dumps are written by a copy of the JVM.
void RunForkDump(const Settings &settings, pid_t pid, bool on);
void RunLocks(Settings settings, pid_t pid, const std::string &thread, double watch);
void RunLocals(const Settings &settings, pid_t pid, const std::string &thread, int frame);
// Each tag's object, or the one that the fields of `follow`, joined by points, lead to from there.
void RunObject(const Settings &settings, pid_t pid, const std::vector<int64_t> &tags,
               const std::string &follow);
void RunHeap(Settings settings, pid_t pid, double watch);
void RunHeapKinds(Settings settings, pid_t pid, double watch);
void RunGc(Settings settings, pid_t pid, double watch);
// With `stop` the JVM itself does the work, paused; else a copy of it where one can be made.
void RunHistogram(Settings settings, pid_t pid, int top, bool stop, double watch);
void RunDump(const Settings &settings, pid_t pid, const std::string &name, bool hprof, bool stop);
void RunReadDump(const Settings &settings, const std::string &file, int top);
void RunSummary(Settings settings, pid_t pid, double watch);
// Over an interval in seconds; with `watch` again and again, over that.
void RunCpu(Settings settings, pid_t pid, double interval, double watch);
void RunRecord(const Settings &settings, pid_t pid, const RecordOptions &options);
// What a recording holds, as a page for a browser or in a form for other tools.
void RunReport(const ReportCommand &command);
void RunRules(Settings settings, pid_t pid, const std::string &file);
void RunLog(const Settings &settings, pid_t pid, int level);
void RunRaw(const Settings &settings, pid_t pid, const std::string &text, bool bytes);
// Figures for a monitoring system: served, written to a file, or printed.
void RunMetrics(Settings settings, const MetricsCommand &command);
void RunShutdown(const Settings &settings, pid_t pid);

} // namespace qorctl
