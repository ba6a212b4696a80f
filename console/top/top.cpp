#include "top.h"

#include "show/render.h"
#include "wire/records.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr int HEAD_ROWS = 4; // above the table: title, states, machine, tabs
constexpr std::chrono::seconds SILENCE_SHOWN(2);

constexpr const char *HELP[] = {
    "1 2 3 4      threads, locks waited for, statements, URLs",
    "up down      choose a row; page up, page down, home, end",
    "Enter        the row's stack: of a lock its holder's, of a statement or URL that of one thread",
    "Esc          back",
    "c m n t i    sort threads by CPU, allocation, name, state, id;  r  the other way round",
    "a            idle threads too, or not",
    "/            show only rows that hold a text; Enter keeps it, Esc drops it",
    "p            pause, or go on",
    "q            quit",
    "",
    "CPU% is of one processor. Rates appear with the second sample of a thread.",
};

constexpr const char *TAB_NAMES[] = {"1 Threads", "2 Locks", "3 SQL", "4 URLs"};

const char *OrderName(TopOrder order) {
    constexpr const char *NAMES[] = {"CPU", "allocation", "name", "state", "id"};
    return NAMES[static_cast<int>(order)];
}

LineLook LookOf(const std::string &state) {
    if (state == "Runnable")
        return LineLook::GOOD;
    if (state == "Lock")
        return LineLook::BAD;
    return state == "Object Wait" || state == "Sleeping" ? LineLook::QUIET : LineLook::WAITING;
}

std::string ClockText() {
    const time_t now = time(nullptr);
    tm parts = {};
    localtime_r(&now, &parts);
    return fmt::format("{:02}:{:02}:{:02}", parts.tm_hour, parts.tm_min, parts.tm_sec);
}

// Tabs as blanks.
std::string WithoutTabs(std::string_view line) {
    std::string text;
    for (char c : line)
        c == '\t' ? text += "    " : text += c;
    return text;
}

} // namespace

Top::Top(pid_t pid, std::string name, double seconds) : pid_(pid), name_(std::move(name)) {
    question_.seconds = seconds;
}

void Top::Take(TopAnswer answer) {
    if (paused_)
        return;
    if (!answer.failure.empty()) { // what was last seen stays
        answer_.failure = answer.failure;
        return;
    }
    collectors_before_ = std::move(answer_.collectors);
    answer_ = std::move(answer);
    answered_ = true;
    time_ = ClockText();
    rates_.Add(answer_.sample, answer_.time);
    Refresh();
}

void Top::Refresh() {
    const size_t before = Selected();
    table_ = MakeTopTable(answer_.sample, rates_, choice_);
    const bool there = std::any_of(table_.rows.begin(), table_.rows.end(),
                                   [this](const TopRow &row) { return row.id == selected_; });
    if (!there)
        selected_ = table_.rows.empty() ? "" : table_.rows[std::min(before, table_.rows.size() - 1)].id;
}

size_t Top::Selected() const {
    const auto found = std::find_if(table_.rows.begin(), table_.rows.end(),
                                    [this](const TopRow &row) { return row.id == selected_; });
    return found == table_.rows.end() ? 0 : static_cast<size_t>(found - table_.rows.begin());
}

bool Top::TakeChange() {
    const bool changed = changed_;
    changed_ = false;
    return changed;
}

void Top::ChooseView(TopView view) {
    choice_.view = view;
    page_ = Page::TABLE;
    offset_ = 0;
    selected_.clear();
    question_.details = view == TopView::LOCKS || view == TopView::SQL;
    question_.stack.clear();
    changed_ = true;
    Refresh();
}

void Top::OpenStack() {
    if (table_.rows.empty() || table_.rows[Selected()].thread_key.empty())
        return;
    question_.stack = table_.rows[Selected()].thread_key;
    page_ = Page::STACK;
    paused_ = false;
    offset_ = 0;
    changed_ = true;
}

void Top::Close() {
    page_ = Page::TABLE;
    question_.stack.clear();
    offset_ = 0;
}

bool Top::PressInFilter(int key) {
    if (key == KEY_OF_ENTER || key == KEY_OF_ESCAPE)
        typing_ = false;
    if (key == KEY_OF_ESCAPE)
        choice_.filter.clear();
    if (key == KEY_OF_BACKSPACE && !choice_.filter.empty())
        choice_.filter.pop_back();
    if (key >= ' ' && key <= 0xff)
        choice_.filter += static_cast<char>(key);
    Refresh();
    return true;
}

void Top::Move(int key) {
    const int page = static_cast<int>(page_rows_);
    const int step = key == KEY_OF_UP          ? -1
                     : key == KEY_OF_DOWN      ? 1
                     : key == KEY_OF_PAGE_UP   ? -page
                     : key == KEY_OF_PAGE_DOWN ? page
                     : key == KEY_OF_HOME      ? INT32_MIN / 2
                                               : INT32_MAX / 2;
    if (page_ != Page::TABLE) {
        offset_ = static_cast<size_t>(std::max<int64_t>(0, static_cast<int64_t>(offset_) + step));
    } else if (!table_.rows.empty()) {
        const auto last = static_cast<int64_t>(table_.rows.size()) - 1;
        const auto row = std::clamp<int64_t>(static_cast<int64_t>(Selected()) + step, 0, last);
        selected_ = table_.rows[static_cast<size_t>(row)].id;
    }
}

bool Top::PressOnTable(int key) {
    constexpr std::string_view ORDERS = "cmnti";
    const size_t order = key > 0 && key < 0x80 ? ORDERS.find(static_cast<char>(key)) : ORDERS.npos;
    if (order != ORDERS.npos)
        choice_.order = static_cast<TopOrder>(order);
    else if (key == 'r')
        choice_.backwards = !choice_.backwards;
    else if (key == 'a')
        question_.all = !question_.all, changed_ = true;
    else if (key == '/')
        typing_ = true;
    else if (key == KEY_OF_ENTER)
        OpenStack();
    else if (key == KEY_OF_ESCAPE)
        choice_.filter.clear();
    Refresh();
    return true;
}

bool Top::Press(int key) {
    if (typing_)
        return PressInFilter(key);
    if (key == 'q' || key == 3)
        return page_ != Page::TABLE ? (Close(), true) : false;
    if (key >= KEY_OF_UP && key <= KEY_OF_END)
        Move(key);
    else if (key >= '1' && key <= '4')
        ChooseView(static_cast<TopView>(key - '1'));
    else if (key == 'p')
        paused_ = !paused_;
    else if (key == '?' || key == 'h')
        page_ = Page::HELP, offset_ = 0;
    else if (page_ == Page::TABLE)
        return PressOnTable(key);
    else if (key == KEY_OF_ESCAPE || key == KEY_OF_ENTER)
        Close();
    return true;
}

std::string Top::Title(size_t width) const {
    std::string right = paused_ ? "PAUSED  " : "";
    if (silence_ >= SILENCE_SHOWN)
        right += fmt::format("no answer for {} s  ", silence_.count());
    right += fmt::format("{}  every {:g} s", time_, question_.seconds);
    Style style;
    style.width = width > right.size() + 2 ? width - right.size() - 2 : 1;
    std::string left = FitLine(fmt::format("qorctl top {}  {}", pid_, Printable(name_)), style);
    left.append(style.width + 2 - std::min(style.width, DisplayWidth(left)), ' ');
    return left + right;
}

std::string Top::Tabs() const {
    std::string text;
    for (int i = 0; i < static_cast<int>(std::size(TAB_NAMES)); ++i)
        text += fmt::format(i == static_cast<int>(choice_.view) ? "[{}]  " : " {}   ", TAB_NAMES[i]);
    if (choice_.view == TopView::THREADS)
        text += fmt::format("by {}", OrderName(choice_.order));
    if (choice_.backwards)
        text += ", backwards";
    if (question_.all)
        text += "  idle ones too";
    if (!choice_.filter.empty())
        text += "  with \"" + Printable(choice_.filter) + "\"";
    return text;
}

std::string Top::Foot() const {
    if (typing_)
        return "/" + Printable(choice_.filter) + "_";
    if (!answer_.failure.empty())
        return answer_.failure;
    if (answer_.sample.cut)
        return "The agent had no room for all threads.  ? help  q quit";
    return page_ == Page::TABLE ? "? help  q quit  / filter  Enter stack  p pause" : "Esc back";
}

std::vector<Top::Row> Top::TableRows(size_t width) {
    Table table(table_.columns);
    for (const TopRow &row : table_.rows)
        table.Add(row.cells);
    Style style;
    style.width = width;
    const std::string text = table.Text(style);
    std::vector<Row> rows;
    for (std::string_view line : Split(text, '\n'))
        if (rows.size() <= table_.rows.size())
            rows.push_back({std::string(line), LineLook::HEADER});
    for (size_t i = 0; i < table_.rows.size(); ++i)
        rows[i + 1].look = table_.rows[i].id == selected_ ? LineLook::CHOSEN : LookOf(table_.rows[i].state);
    return rows;
}

std::vector<Top::Row> Top::StackRows() const {
    if (answer_.stack_of != question_.stack)
        return {{"..."}};
    if (answer_.stack.threads.empty())
        return {{"The thread has ended, or it has no Java frames."}};
    const std::string text = ThreadDump(answer_.stack, Style()) + StackNotes(answer_.stack);
    std::vector<Row> rows;
    for (std::string_view line : Split(text, '\n'))
        rows.push_back({WithoutTabs(line)});
    rows[0].look = LineLook::TITLE;
    return rows;
}

void Top::DrawHead(Screen *screen) const {
    screen->Line(0, Title(static_cast<size_t>(screen->Columns())),
                 silence_ >= SILENCE_SHOWN ? LineLook::BAD : LineLook::TITLE);
    screen->Line(1, answered_ ? StateCounts(answer_.summary) : "...");
    screen->Line(2, answered_ ? MachineLine(answer_.summary, answer_.collectors, collectors_before_) : "");
    screen->Line(3, Tabs(), LineLook::QUIET);
}

void Top::DrawRows(Screen *screen, const std::vector<Row> &rows, size_t first_row) {
    for (size_t i = 0; i < page_rows_; ++i) {
        const size_t at = offset_ + i;
        const Row row = at < rows.size() ? rows[at] : Row();
        screen->Line(static_cast<int>(first_row + i), row.text, row.look);
    }
}

void Top::Draw(Screen *screen) {
    const auto height = static_cast<size_t>(screen->Rows());
    const bool table = page_ == Page::TABLE;
    const size_t first = HEAD_ROWS + (table ? 1 : 0);
    page_rows_ = height > first + 1 ? height - first - 1 : 1;
    DrawHead(screen);
    std::vector<Row> rows;
    if (table) {
        rows = TableRows(static_cast<size_t>(screen->Columns()));
        screen->Line(HEAD_ROWS, rows[0].text, LineLook::HEADER);
        rows.erase(rows.begin());
        const size_t selected = Selected();
        offset_ = selected < offset_
                      ? selected
                      : std::max(offset_, selected + 1 > page_rows_ ? selected + 1 - page_rows_ : 0);
    } else if (page_ == Page::STACK) {
        rows = StackRows();
    } else {
        for (const char *line : HELP)
            rows.push_back({line});
    }
    offset_ = std::min(offset_, rows.size() > page_rows_ ? rows.size() - page_rows_ : 0);
    DrawRows(screen, rows, first);
    screen->Line(static_cast<int>(height) - 1, Foot(),
                 answer_.failure.empty() ? LineLook::QUIET : LineLook::BAD);
    screen->Show();
}

} // namespace qorctl
