// Catches the agent's log lines for the length of a test.
#pragma once

#include "Restore.h"
#include "qorlog.h"

#include <cstdio>
#include <cstdlib>
#include <string>

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
    Restore<FILE *> log_{fpLogFile};
    Restore<int32_t> threshold_{qorloglevel};
};
