// A terminal as a screen of lines. It is put back as it was when the screen goes.
#pragma once

#include <string>

namespace qorctl {

enum class LineLook { PLAIN, TITLE, HEADER, CHOSEN, GOOD, WAITING, BAD, QUIET };

// Keys that aren't characters.
enum TopKey {
    KEY_OF_NONE = -1,
    KEY_OF_UP = 0x10000,
    KEY_OF_DOWN,
    KEY_OF_PAGE_UP,
    KEY_OF_PAGE_DOWN,
    KEY_OF_HOME,
    KEY_OF_END,
    KEY_OF_ENTER,
    KEY_OF_ESCAPE,
    KEY_OF_BACKSPACE,
};

class Screen {
public:
    // Throws a Failure when standard input and output aren't a terminal.
    static void Require();

    // Takes that terminal. Throws a Failure when there is none, or it isn't known.
    Screen();
    ~Screen();
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    int Rows() const;
    int Columns() const;

    // The next key that was pressed, a character's code or a TopKey; doesn't wait. A byte of a character
    // beyond ASCII comes as it is.
    int Key();

    // Replaces a row, 0 at the top, by printable text that is cut or filled up to the screen's width.
    void Line(int row, const std::string &text, LineLook look = LineLook::PLAIN);
    void Show();

private:
    void *terminal_;
    bool utf8_, colours_;
};

} // namespace qorctl
