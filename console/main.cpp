// qorctl: the console. Command line to commands, failures to exit codes.
#include "base/terminal.h"
#include "base/usage.h"
#include "commands/command_tools.h"
#include "commands/commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <fmt/format.h>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>

using namespace qorctl;

namespace {

constexpr size_t HELP_WIDTH = 80, HELP_COLUMN = 30;
constexpr std::string_view NO_COMMAND = "A subcommand is required"; // CLI11's words

struct CommandLine {
    Settings settings;
    pid_t pid = 0;
    ThreadsCommand threads;
    double watch = 0, interval = 1, period = 2;
    std::string thread, rules_file, raw_text;
    bool raw_bytes = false;
    int log_level = 0, top = 20;
    std::string dump_name, dump_file;
    bool stop = false, hprof = false, live = false, kinds = false;
    int frame = 0, client_port = 0;
    SessionsCommand sessions;
    MetricsCommand metrics;
    std::string fork_dump;
    std::vector<int64_t> tags;
    std::string follow;
    RecordOptions record;
    ReportCommand report;
};

CLI::App *AddCommand(CLI::App *app, const char *name, const char *text, Settings *settings) {
    CLI::App *command = app->add_subcommand(name, text);
    command->add_flag("--json", settings->json, "Write JSON");
    return command;
}

// How an agent is found, loaded and waited for.
void AddAgentOptions(CLI::App *command, CommandLine *line) {
    command->add_option("--jar", line->settings.jar,
                        "The agent's jar (else $QORAGENT_JAR, else beside qorctl)");
    command->add_option("--options", line->settings.options,
                        "Options for the agent if it is loaded now: key=value,...");
    command->add_flag("--strict", line->settings.strict,
                      "Ask only if it is proven that the JVM itself answers");
    command->add_option("--timeout", line->settings.timeout, "Seconds to wait for the whole answer")
        ->capture_default_str()
        ->check(CLI::Range(1, 86400));
}

// A command about one JVM, which loads the agent when it isn't there.
CLI::App *AddJvmCommand(CLI::App *app, const char *name, const char *text, CommandLine *line) {
    CLI::App *command = AddCommand(app, name, text, &line->settings);
    command->add_option("pid", line->pid, "Process id of the JVM")
        ->option_text("PID")
        ->required()
        ->check(CLI::Range(1, INT_MAX).description(""));
    AddAgentOptions(command, line);
    return command;
}

// Such a command that stops the JVM for its answer.
CLI::App *AddQuestion(CLI::App *app, const char *name, const char *text, CommandLine *line) {
    CLI::App *command = AddJvmCommand(app, name, text, line);
    command->add_flag("--cost", line->settings.cost, "Say last for how long the JVM was stopped");
    return command;
}

void AddWatch(CLI::App *command, double *seconds) {
    command->add_option("--watch", *seconds, "Ask again every SECONDS")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.1, 86400.0));
}

CLI::Option *AddBudget(CLI::App *command, Settings *settings) {
    return command
        ->add_option(
            "--budget", settings->budget,
            "Milliseconds for which the JVM may be stopped, judged by what the last request cost it: what "
            "doesn't fit is left out, or nothing asked")
        ->option_text("50ms");
}

void AddWide(CLI::App *command, Settings *settings) {
    command->add_flag("--wide", settings->wide, "Don't cut lines to the terminal's width");
}

void AddThreads(CLI::App *app, CommandLine *line) {
    CLI::App *command = AddQuestion(app, "threads", "Show what the threads do", line);
    command->add_flag("--details", line->threads.details, "With stacks and locks");
    command->add_flag("--all", line->threads.all, "Idle threads too");
    CLI::Option *thread = command
                              ->add_option("--thread", line->threads.thread,
                                           "Stack and locks of this thread alone, by its id or key")
                              ->option_text("ID");
    CLI::Option *groups =
        command
            ->add_flag("--virtual", line->threads.virtual_ones,
                       "Virtual threads that no thread runs at the moment, in groups of the same stack")
            ->excludes(thread);
    command
        ->add_option("--format", line->threads.format,
                     "With stacks, for other tools: jstack (all threads), folded; or json")
        ->option_text("jstack|folded|json")
        ->check(CLI::IsMember({"jstack", "folded", "json"}).description(""))
        ->excludes("--json", "--virtual");
    command
        ->add_option("--match", line->threads.match, "Only threads with TEXT in name, state, call or stack")
        ->option_text("TEXT");
    AddBudget(command, &line->settings)->excludes(groups);
    AddWatch(command, &line->threads.watch);
    AddWide(command, &line->settings);
    command->final_callback([line] {
        if (line->threads.format == "json") {
            line->settings.json = true;
            line->threads.format.clear();
        }
        RunThreads(line->settings, line->pid, line->threads);
    });
}

void AddTop(CLI::App *app, CommandLine *line) {
    CLI::App *top =
        AddJvmCommand(app, "top", "Show the busiest threads, locks, SQL and URLs on a screen", line);
    top->add_option("--every", line->period, "Seconds between two looks")
        ->option_text("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(0.5, 3600.0));
    top->final_callback([line] { RunTop(line->settings, line->pid, line->period); });
}

void AddThreadName(CLI::App *command, CommandLine *line, bool required) {
    command->add_option("thread", line->thread, "The thread's id, key or name")
        ->option_text("THREAD")
        ->required(required);
}

void AddOneThread(CLI::App *app, CommandLine *line) {
    CLI::App *stack = AddQuestion(app, "stack", "Show one thread's whole stack and its locks", line);
    AddThreadName(stack, line, true);
    AddWatch(stack, &line->watch);
    AddWide(stack, &line->settings);
    stack->final_callback([line] { RunStack(line->settings, line->pid, line->thread, line->watch); });

    CLI::App *locks = AddQuestion(app, "locks", "Show who waits for what, and who holds it", line);
    AddThreadName(locks, line, false);
    AddWatch(locks, &line->watch);
    AddWide(locks, &line->settings);
    locks->final_callback([line] { RunLocks(line->settings, line->pid, line->thread, line->watch); });
}

void AddDatabases(CLI::App *app, CommandLine *line) {
    const CLI::Range port(1, 65535);
    CLI::App *connections =
        AddQuestion(app, "connections", "Show the database connections that threads are in a call on", line);
    connections->add_option("--port", line->client_port, "Which thread has this client port")
        ->option_text("N")
        ->check(port);
    AddWatch(connections, &line->watch);
    AddWide(connections, &line->settings);
    connections->final_callback(
        [line] { RunConnections(line->settings, line->pid, line->client_port, line->watch); });

    CLI::App *sessions = AddJvmCommand(
        app, "sessions",
        "Show which processes of a database server serve which client ports; the JVM is one on its machine",
        line);
    sessions->add_option("--port", line->sessions.port, "The port that the database listens on")
        ->option_text("P")
        ->required()
        ->check(port);
    sessions->add_option("--host", line->sessions.host, "The IPv4 address that the clients come from")
        ->option_text("H")
        ->required();
    sessions->add_option("process", line->sessions.processes, "Process ids of the database server")
        ->option_text("PROCESS...")
        ->required()
        ->check(CLI::Range(1, INT_MAX).description(""));
    sessions->final_callback([line] { RunSessions(line->settings, line->pid, line->sessions); });
}

void AddTiers(CLI::App *app, CommandLine *line) {
    CLI::App *tiers = AddJvmCommand(
        app, "tiers", "Show or replace the rules by which drivers and containers are read", line);
    tiers->add_option("file", line->rules_file, "The new rules; '-' is standard input")->option_text("FILE");
    tiers->final_callback([line] { RunTiers(line->settings, line->pid, line->rules_file); });
}

void AddObjects(CLI::App *app, CommandLine *line) {
    CLI::App *locals = AddQuestion(app, "locals", "Show the objects in the locals of a frame", line);
    AddThreadName(locals, line, true);
    locals->add_option("frame", line->frame, "Index of the frame, 0 at the top")
        ->option_text("FRAME")
        ->required()
        ->check(CLI::Range(0, INT_MAX).description(""));
    AddWide(locals, &line->settings);
    locals->final_callback([line] { RunLocals(line->settings, line->pid, line->thread, line->frame); });

    CLI::App *object = AddQuestion(
        app, "object", "Show the fields of objects; on a terminal, go on from one to the next", line);
    object->add_option("tag", line->tags, "Tags, as 'locals' and 'object' show them")
        ->option_text("TAG...")
        ->required()
        ->check(CLI::Range(int64_t{1}, INT64_MAX).description(""));
    object->add_option("--follow", line->follow, "Go on through these fields: FIELD or FIELD.FIELD...")
        ->option_text("FIELDS");
    AddWide(object, &line->settings);
    object->final_callback([line] { RunObject(line->settings, line->pid, line->tags, line->follow); });
}

void AddStop(CLI::App *command, CommandLine *line) {
    command->add_flag("--stop", line->stop,
                      "Without a copy of the JVM, which is paused until it is done: as it is anyway where no "
                      "copy can be made, or the heap in use is 64 MiB or less");
}

void AddMemory(CLI::App *app, CommandLine *line) {
    Settings *settings = &line->settings;
    CLI::App *heap = AddQuestion(app, "heap", "Show how full the heap is", line);
    AddWatch(heap, &line->watch);
    heap->add_flag(
        "--kinds", line->kinds,
        "What the spaces hold by kinds of objects, counted by a copy: of a JVM that is read by address");
    heap->final_callback([=] { (line->kinds ? RunHeapKinds : RunHeap)(*settings, line->pid, line->watch); });

    CLI::App *gc = AddQuestion(app, "gc", "Show how often the collectors have run", line);
    AddWatch(gc, &line->watch);
    gc->final_callback([=] { RunGc(*settings, line->pid, line->watch); });

    CLI::App *cpu = AddQuestion(app, "cpu", "Show the load of the processors over an interval", line);
    cpu->add_option("--interval", line->interval, "Seconds between the two readings")
        ->option_text("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 3600.0));
    AddWatch(cpu, &line->watch);
    cpu->final_callback([=] { RunCpu(*settings, line->pid, line->interval, line->watch); });

    CLI::App *histogram = AddQuestion(
        app, "histogram", "Show the classes that hold the most heap, counted by a copy of the JVM", line);
    AddStop(histogram, line);
    AddBudget(histogram, settings);
    histogram->add_option("--top", line->top, "Rows, at most 302")
        ->option_text("N")
        ->capture_default_str()
        ->check(CLI::Range(1, 302));
    AddWatch(histogram, &line->watch);
    AddWide(histogram, settings);
    histogram->final_callback(
        [=] { RunHistogram(*settings, line->pid, line->top, line->stop, line->watch); });
}

void RunDumpCommand(const CommandLine &line) {
    if (!line.dump_file.empty() && line.pid != 0)
        throw Failure("--read takes a file and no process", "see qorctl dump --help", EXIT_USAGE);
    if (!line.dump_file.empty()) {
        RunReadDump(line.settings, line.dump_file, line.top);
        return;
    }
    if (line.pid == 0 || line.dump_name.empty())
        throw Failure("a dump needs a process and a name", "see qorctl dump --help", EXIT_USAGE);
    RunDump(line.settings, line.pid, line.dump_name, line.hprof, line.stop);
}

void AddDump(CLI::App *app, CommandLine *line) {
    CLI::App *dump = AddQuestion(
        app, "dump", "Write the heap to a file by a copy of the JVM, or show what such a file holds", line);
    AddStop(dump, line);
    dump->get_option("pid")->required(false);
    dump->add_option("name", line->dump_name,
                     "The file: an absolute path as the JVM sees it, or a name in /tmp")
        ->option_text("NAME");
    dump->add_flag("--hprof", line->hprof, "In the JVM's own form, for heap analysers");
    dump->add_flag("--live", line->live,
                   "Reachable objects only: what either form holds in any case, said explicitly");
    dump->add_option("--read", line->dump_file, "Summarise a text dump, whose path is as seen from here")
        ->option_text("FILE");
    dump->add_option("--top", line->top, "Rows of classes, with --read")
        ->option_text("N")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    AddWide(dump, &line->settings);
    dump->final_callback([line] { RunDumpCommand(*line); });
}

void AddForkDump(CLI::App *app, CommandLine *line) {
    CLI::App *fork_dump = AddJvmCommand(
        app, "forkdump",
        "Let a copy of the JVM write dumps and count histograms, so that the JVM itself doesn't stand still",
        line);
    fork_dump->add_option("switch", line->fork_dump, "on or off")
        ->option_text("on|off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}).description(""));
    fork_dump->final_callback([line] { RunForkDump(line->settings, line->pid, line->fork_dump == "on"); });
}

// "500ms", "10s", "5m", "2h", "7d"; a number alone is seconds.
CLI::AsNumberWithUnit Duration() {
    return CLI::AsNumberWithUnit(
        std::map<std::string, double>{{"ms", 0.001}, {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}},
        CLI::AsNumberWithUnit::DEFAULT, "");
}

void AddRecord(CLI::App *app, CommandLine *line) {
    CLI::App *record = AddJvmCommand(
        app, "record", "Sample the threads for a while and write what they did to a file", line);
    RecordOptions *options = &line->record;
    options->console_version = QOR_VERSION;
    record->add_option("--every", options->every, "Time between two samples, such as 500ms or 5s; default 1s")
        ->option_text("TIME")
        ->transform(Duration())
        ->check(CLI::Range(0.1, 86400.0).description(""));
    record->add_option("--for", options->lasts, "How long, such as 60s or 2h; 0: until Ctrl-C; default 60s")
        ->option_text("TIME")
        ->transform(Duration())
        ->check(CLI::Range(0.0, 1e9).description(""));
    record
        ->add_option("--out", options->out,
                     "The file, packed if it ends in .gz; '-' is standard output; else "
                     "record-PID-TIME.ndjson.gz")
        ->option_text("FILE");
    record
        ->add_option("--share", options->share,
                     "Percent of the time that the agent may spend on it; else it samples less often")
        ->option_text("PERCENT")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 100.0).description(""));
    record
        ->add_option("--part-size", options->part_size, "Bytes of a part, such as 64M, which is the default")
        ->option_text("SIZE")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(CLI::Range(uint64_t{4096}, UINT64_MAX).description(""));
    record->add_option("--parts", options->parts, "Parts to keep; the oldest are removed")
        ->option_text("N")
        ->capture_default_str()
        ->check(CLI::Range(1, INT_MAX).description(""));
    record->final_callback([line] { RunRecord(line->settings, line->pid, line->record); });
}

void AddReport(CLI::App *app, CommandLine *line) {
    ReportCommand *command = &line->report;
    CLI::App *report = app->add_subcommand("report", "Show what a recording holds, in a browser");
    report->add_option("file", command->file, "What 'qorctl record' wrote")->option_text("FILE")->required();
    CLI::Option *folded = report->add_flag("--folded", command->folded,
                                           "Stacks folded to lines, with how many samples have each");
    report->add_option("--jstack", command->jstack, "A thread dump, as jstack writes it, of sample N")
        ->option_text("N")
        ->check(CLI::Range(int64_t{1}, INT64_MAX).description(""))
        ->excludes(folded);
    report
        ->add_option("--out", command->out,
                     "The file; else report.html, or standard output for --folded and --jstack")
        ->option_text("FILE");
    report->final_callback([line] { RunReport(line->report); });
}

// Needs no agent, and asks the JVM nothing.
void AddHung(CLI::App *app, CommandLine *line) {
    CLI::App *hung = AddCommand(
        app, "hung", "Show from outside, without stopping it, why a JVM doesn't answer", &line->settings);
    hung->add_option("pid", line->pid, "Process id of the JVM")
        ->option_text("PID")
        ->required()
        ->check(CLI::Range(1, INT_MAX).description(""));
    hung->add_flag("--all", line->threads.all, "All threads, not only those concerned");
    hung->add_flag(
        "--stop-thread", line->stop,
        "Stop a thread in Java, for 20 ms at most, if its stack can't be read otherwise; a native call "
        "that it is in by then may see EINTR");
    hung->final_callback([line] { RunHung(line->settings, line->pid, line->threads.all, line->stop); });
}

void AddMetrics(CLI::App *app, CommandLine *line) {
    MetricsCommand *metrics = &line->metrics;
    CLI::App *command =
        app->add_subcommand("metrics", "Serve figures of JVMs for a monitoring system, as OpenMetrics");
    command->add_option("pid", metrics->pids, "Process ids of JVMs")
        ->option_text("PID...")
        ->check(CLI::Range(1, INT_MAX).description(""));
    command->add_flag("--all", metrics->all, "Every JVM of this machine that has the agent");
    CLI::Option *places[] = {
        command->add_flag("--once", metrics->once, "Print them and end"),
        command->add_option("--socket", metrics->socket, "Serve at this Unix socket, for its owner alone")
            ->option_text("PATH"),
        command->add_option("--listen", metrics->listen, "Serve at a port, to whoever reaches it")
            ->option_text("ADDRESS:PORT"),
        command->add_option("--textfile", metrics->text_file, "Write to PATH instead, again and again")
            ->option_text("PATH"),
    };
    for (CLI::Option *place : places)
        for (CLI::Option *other : places)
            if (place != other)
                place->excludes(other);
    command->add_option("--token-file", metrics->token_file, "Serve those alone who send the token in FILE")
        ->option_text("FILE");
    command->add_option("--every", metrics->every, "Seconds between two writes")
        ->option_text("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(1.0, 86400.0));
    AddAgentOptions(command, line);
    command->final_callback([line] { RunMetrics(line->settings, line->metrics); });
}

void AddOthers(CLI::App *app, CommandLine *line) {
    Settings *settings = &line->settings;
    CLI::App *list = AddCommand(app, "list", "Show the JVMs of this machine", settings);
    AddWide(list, settings);
    list->final_callback([=] { RunList(*settings); });

    CLI::App *attach = AddJvmCommand(app, "attach", "Load the agent into a JVM", line);
    attach->final_callback([=] { RunAttach(*settings, line->pid); });

    CLI::App *summary =
        AddQuestion(app, "summary", "Show thirteen figures: processor, heap, threads by state", line);
    AddWatch(summary, &line->watch);
    summary->final_callback([=] { RunSummary(*settings, line->pid, line->watch); });

    CLI::App *rules = AddJvmCommand(app, "rules", "Tell the agent which threads and calls are idle", line);
    rules->add_option("file", line->rules_file, "Lines SERVERTYPE|KIND|VALUE; '-' is standard input")
        ->option_text("FILE")
        ->required();
    rules->final_callback([=] { RunRules(*settings, line->pid, line->rules_file); });

    CLI::App *log = AddJvmCommand(app, "log", "Set the agent's log level", line);
    log->add_option("level", line->log_level, "0 silent, 1 errors, 2 warnings, 3 notes, 4 and up detail")
        ->option_text("LEVEL")
        ->required()
        ->check(CLI::Range(0, 99));
    log->final_callback([=] { RunLog(*settings, line->pid, line->log_level); });

    CLI::App *raw = AddJvmCommand(app, "raw", "Send a request as it is and show the reply", line);
    raw->add_option("text", line->raw_text, "The request")->option_text("TEXT")->required();
    raw->add_flag("--bytes", line->raw_bytes, "Write the reply's bytes, control characters included");
    raw->final_callback([=] { RunRaw(*settings, line->pid, line->raw_text, line->raw_bytes); });

    CLI::App *shutdown = AddJvmCommand(app, "shutdown", "End the agent in a JVM", line);
    shutdown->final_callback([=] { RunShutdown(*settings, line->pid); });
}

class NarrowHelp : public CLI::Formatter {
public:
    NarrowHelp() { column_width(HELP_COLUMN); }
    std::string make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const override {
        return WrapHelp(CLI::Formatter::make_help(app, name, mode), HELP_WIDTH, HELP_COLUMN);
    }
};

// The first word that isn't an option; empty when there is none.
std::string FirstWord(int argc, char **argv) {
    for (int i = 1; i < argc; ++i)
        if (argv[i][0] != '-')
            return argv[i];
    return "";
}

// What is wrong with the command line, and where its help is. `first` is its first argument, `word` the first
// one that isn't an option.
std::string UsageFailure(const CLI::App &app, const std::string &first, const std::string &word,
                         const std::string &error) {
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands({}))
        names.push_back(command->get_name());
    if (std::find(names.begin(), names.end(), word) != names.end())
        return fmt::format("{}; see qorctl {} --help", error, word);
    if (word.empty() && error != NO_COMMAND)
        return fmt::format("{}; see qorctl --help", error);
    if (word.empty())
        return fmt::format("{}; see qorctl --help",
                           first.empty() ? "a command is missing"
                                         : fmt::format("there is no option '{}' before a command", first));
    const std::string nearest = Nearest(word, names);
    return fmt::format("there is no command '{}'{}; see qorctl --help", word,
                       nearest.empty() ? "" : fmt::format(", did you mean '{}'?", nearest));
}

int Run(int argc, char **argv) {
    CLI::App app("What the threads of a running JVM do, and what they wait for");
    app.name("qorctl");
    app.formatter(std::make_shared<NarrowHelp>());
    app.require_subcommand(1);
    app.set_version_flag("--version", "qorctl " QOR_VERSION);
    app.footer("Exit codes: 0 answer, 1 no answer, 2 wrong use. 'qorctl COMMAND --help' says more.");
    app.failure_message([&](const CLI::App *, const CLI::Error &error) {
        return fmt::format("qorctl: {}\n", Printable(UsageFailure(app, argc > 1 ? argv[1] : "",
                                                                  FirstWord(argc, argv), error.what())));
    });
    CommandLine line;
    AddThreads(&app, &line);
    AddTop(&app, &line);
    AddOneThread(&app, &line);
    AddDatabases(&app, &line);
    AddTiers(&app, &line);
    AddObjects(&app, &line);
    AddMemory(&app, &line);
    AddDump(&app, &line);
    AddForkDump(&app, &line);
    AddRecord(&app, &line);
    AddReport(&app, &line);
    AddHung(&app, &line);
    AddMetrics(&app, &line);
    AddOthers(&app, &line);
    try {
        app.parse(argc, argv);
        return EXIT_ANSWER;
    } catch (const CLI::ParseError &error) {
        const bool help = error.get_exit_code() == 0;
        std::ostringstream text;
        app.exit(error, text, std::cerr);
        if (help)
            Print(text.str());
        return help ? EXIT_ANSWER : EXIT_USAGE;
    }
}

} // namespace

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN); // what can't be written is said
    signal(SIGXFSZ, SIG_IGN);
    try {
        return Run(argc, argv);
    } catch (const Failure &failure) {
        fprintf(stderr, "qorctl: %s\n", FailureText(failure).c_str());
        return failure.code;
    } catch (const std::exception &error) {
        fprintf(stderr, "qorctl: %s\n", Printable(error.what()).c_str());
        return EXIT_NO_ANSWER;
    }
}
