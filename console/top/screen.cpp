#include "screen.h"

#include "base/failure.h"
#include "base/terminal.h"

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <unistd.h>

#define NCURSES_NOMACROS
#include <curses.h>

namespace qorctl {

namespace {

constexpr int ESCAPE_MILLISECONDS =
    50; // after which an escape is the key and not the start of another's code
constexpr int ESCAPE = 27;

enum Pair : short { PAIR_GOOD = 1, PAIR_WAITING, PAIR_BAD };

// Whether text of UTF-8 can be shown. Where nothing is said of the language, as over a bare ssh or in a
// container, it is tried.
bool UseUtf8() {
    const char *name = setlocale(LC_CTYPE, "");
    if (!name || strcmp(name, "C") == 0 || strcmp(name, "POSIX") == 0)
        setlocale(LC_CTYPE, "C.UTF-8");
    return strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

bool UseColours() {
    if (getenv("NO_COLOR") || !has_colors() || start_color() != OK || use_default_colors() != OK)
        return false;
    init_pair(PAIR_GOOD, COLOR_GREEN, -1);
    init_pair(PAIR_WAITING, COLOR_YELLOW, -1);
    init_pair(PAIR_BAD, COLOR_RED, -1);
    return true;
}

int Attributes(LineLook look, bool colours) {
    auto pair = [&](short number) { return colours ? static_cast<int>(COLOR_PAIR(number)) : 0; };
    switch (look) {
    case LineLook::TITLE:
        return A_BOLD;
    case LineLook::HEADER:
        return A_BOLD | A_UNDERLINE;
    case LineLook::CHOSEN:
        return A_REVERSE;
    case LineLook::GOOD:
        return pair(PAIR_GOOD);
    case LineLook::WAITING:
        return pair(PAIR_WAITING);
    case LineLook::BAD:
        return pair(PAIR_BAD) | A_BOLD;
    case LineLook::QUIET:
        return A_DIM;
    case LineLook::PLAIN:
        break;
    }
    return A_NORMAL;
}

} // namespace

void Screen::Require() {
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO) || !getenv("TERM"))
        throw Failure("top needs a terminal", "'qorctl threads PID --watch 2' writes lines", EXIT_USAGE);
}

Screen::Screen() : terminal_(nullptr), utf8_(false), colours_(false) {
    Require();
    const char *term = getenv("TERM");
    utf8_ = UseUtf8();
    SCREEN *terminal = newterm(nullptr, stdout, stdin);
    if (!terminal)
        throw Failure(std::string("the terminal ") + term + " isn't known here",
                      "set TERM to one that is, such as xterm", EXIT_USAGE);
    terminal_ = terminal;
    colours_ = UseColours();
    set_escdelay(ESCAPE_MILLISECONDS);
    cbreak();
    noecho();
    curs_set(0);
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
}

Screen::~Screen() {
    endwin();
    delscreen(static_cast<SCREEN *>(terminal_));
}

int Screen::Rows() const {
    return getmaxy(stdscr);
}

int Screen::Columns() const {
    return getmaxx(stdscr);
}

int Screen::Key() {
    struct Meaning {
        int code, key;
    };
    constexpr Meaning MEANINGS[] = {
        {ERR, KEY_OF_NONE},          {KEY_UP, KEY_OF_UP},           {KEY_DOWN, KEY_OF_DOWN},
        {KEY_PPAGE, KEY_OF_PAGE_UP}, {KEY_NPAGE, KEY_OF_PAGE_DOWN}, {KEY_HOME, KEY_OF_HOME},
        {KEY_END, KEY_OF_END},       {KEY_ENTER, KEY_OF_ENTER},     {'\n', KEY_OF_ENTER},
        {'\r', KEY_OF_ENTER},        {ESCAPE, KEY_OF_ESCAPE},       {KEY_BACKSPACE, KEY_OF_BACKSPACE},
        {0x7f, KEY_OF_BACKSPACE},    {'\b', KEY_OF_BACKSPACE},
    };
    int code = wgetch(stdscr);
    while (code > 0xff && code != KEY_RESIZE) { // keys of no use here are passed over
        for (const Meaning &meaning : MEANINGS)
            if (meaning.code == code)
                return meaning.key;
        code = wgetch(stdscr);
    }
    if (code == KEY_RESIZE)
        return 0;
    for (const Meaning &meaning : MEANINGS)
        if (meaning.code == code)
            return meaning.key;
    return code;
}

void Screen::Line(int row, const std::string &text, LineLook look) {
    if (row < 0 || row >= Rows())
        return;
    Style style;
    style.width = static_cast<size_t>(Columns());
    std::string line = FitLine(text, style);
    line.append(style.width - std::min(style.width, DisplayWidth(line)), ' ');
    if (!utf8_)
        for (char &c : line)
            c = static_cast<unsigned char>(c) < 0x80 ? c : '?';
    wattrset(stdscr, Attributes(look, colours_));
    mvwaddnstr(stdscr, row, 0, line.data(), static_cast<int>(line.size()));
    wattrset(stdscr, A_NORMAL);
}

void Screen::Show() {
    wrefresh(stdscr);
}

} // namespace qorctl
