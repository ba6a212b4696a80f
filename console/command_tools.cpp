#include "command_tools.h"

#include "failure.h"
#include "request.h"
#include "session.h"

#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace qorctl {

void Print(std::string_view text) {
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
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
    if (settings.json)
        Print(JsonText(document, watch > 0) + "\n");
    else if (watch > 0 && TerminalStyle(settings).colour)
        Print("\x1b[H\x1b[2J" + text);
    else
        Print(watch > 0 ? text + "\n" : text);
}

std::string AskOnce(const Settings &settings, pid_t pid, const std::string &request) {
    Connection connection = RequireAgent(settings, RequireProcess(pid));
    return connection.Ask(request, Seconds(settings.timeout));
}

void NoteLeftOutWalk(const Settings &settings, pid_t pid) {
    try {
        if (AskOnce(settings, pid, WalkStateRequest()).find("leftout=1") != std::string::npos)
            fmt::print(stderr, "qorctl: without data of other tiers, as requests by hand have read local "
                               "variables for their share of the last ten seconds (option handquota); ask "
                               "again in a while\n");
    } catch (const Failure &) { // the view stands without it
    }
}

} // namespace qorctl
