// Catches the agent's log lines for the length of a test.
#pragma once

#include "qorlog.h"

#include <cstdio>
#include <cstdlib>
#include <string>

class LogCapture {
public:
    explicit LogCapture(int32_t level) : earlierLog_(fpLogFile), earlierLevel_(qorloglevel) {
        fpLogFile = open_memstream(&text_, &size_);
        qorloglevel = level;
    }
    ~LogCapture() {
        fclose(fpLogFile);
        free(text_);
        fpLogFile = earlierLog_;
        qorloglevel = earlierLevel_;
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::string text() const { return std::string(text_, size_); }

    // How often a message, or a part of one, was logged.
    int count(const std::string &part) const {
        const std::string all = text();
        int found = 0;
        for (size_t at = all.find(part); at != std::string::npos; at = all.find(part, at + part.size()))
            found++;
        return found;
    }

private:
    char *text_ = nullptr;
    size_t size_ = 0;
    FILE *earlierLog_;
    int32_t earlierLevel_;
};
