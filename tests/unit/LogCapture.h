// Catches the agent's log lines for the length of a test.
#pragma once

#include "Restore.h"
#include "qorlog.h"

#include <cstdio>
#include <cstdlib>
#include <string>

inline int CountOf(const std::string &text, const std::string &part) {
    int count = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size()))
        count++;
    return count;
}

class LogCapture {
public:
    explicit LogCapture(int32_t level) {
        fpLogFile = open_memstream(&text_, &size_);
        qorloglevel = level;
    }
    ~LogCapture() {
        fclose(fpLogFile);
        free(text_);
    }

    std::string text() const { return std::string(text_, size_); }

    // How often a message, or a part of one, was logged.
    int count(const std::string &part) const { return CountOf(text(), part); }

private:
    char *text_ = nullptr;
    size_t size_ = 0;
    Restore<FILE *> log_{fpLogFile};
    Restore<int32_t> threshold_{qorloglevel};
};
