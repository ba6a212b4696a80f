// The screen of `qorctl top`: what it shows, and what keys do.
#pragma once

#include "asker.h"
#include "screen.h"

#include <string>
#include <vector>

namespace qorctl {

class Top {
public:
    // `name` is the JVM's, for the title.
    Top(pid_t pid, std::string name, double seconds);

    const TopQuestion &question() const { return question_; }
    void Take(TopAnswer answer);
    // For how long the JVM hasn't answered; the figures shown are older than that.
    void Wait(std::chrono::seconds silence) { silence_ = silence; }
    // What a key does. False when it ends the program.
    bool Press(int key);
    // Whether the question has changed since it was last asked for.
    bool TakeChange();
    void Draw(Screen *screen);

private:
    enum class Page { TABLE, STACK, HELP };
    struct Row {
        std::string text;
        LineLook look = LineLook::PLAIN;
    };

    bool PressInFilter(int key);
    bool PressOnTable(int key);
    void Move(int key);
    void OpenStack();
    void Close();
    void ChooseView(TopView view);
    void Refresh();
    std::vector<Row> TableRows(size_t width);
    std::vector<Row> StackRows() const;
    void DrawHead(Screen *screen) const;
    void DrawRows(Screen *screen, const std::vector<Row> &rows, size_t first_row);
    std::string Title(size_t width) const;
    std::string Tabs() const;
    std::string Foot() const;
    size_t Selected() const;

    pid_t pid_;
    std::string name_;
    TopQuestion question_;
    bool changed_ = false;
    TopChoice choice_;
    TopAnswer answer_;
    bool answered_ = false;
    std::chrono::seconds silence_{0};
    std::vector<CollectorBean> collectors_before_;
    RateMeter rates_;
    TopTable table_;
    Page page_ = Page::TABLE;
    bool paused_ = false, typing_ = false;
    std::string selected_;  // id of a row
    size_t offset_ = 0;     // first row shown
    size_t page_rows_ = 10; // that fit
    std::string time_;      // of the answer
};

} // namespace qorctl
