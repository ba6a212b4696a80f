#include "LogCapture.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <regex.h>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Whether a text as a whole has a form, told as an extended regular expression.
bool HasForm(const std::string &text, const char *form) {
    regex_t expression;
    EXPECT_EQ(regcomp(&expression, form, REG_EXTENDED | REG_NOSUB), 0) << form;
    const bool found = regexec(&expression, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&expression);
    return found;
}

} // namespace

TEST(Log, WritesOneLineInItsForm) {
    LogCapture log(1);
    errno = ENOTTY;
    QORLOG(LOG_ERROR, "%s %d", "value", 7);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_TRUE(HasForm(log.text(), "^<[0-9]{1,2}-[0-9]{1,2}-[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}> "
                                    "<QordAgent\\|log_test\\.cpp:[0-9]+> <value 7>\n$"))
        << log.text();
    const time_t now = time(nullptr);
    EXPECT_EQ(atoi(log.text().c_str() + 1), localtime(&now)->tm_mon + 1) << "the month comes first";
}

TEST(Log, IsSilentUpToTheThreshold) {
    LogCapture log(LOG_NOTE);
    QORLOG(LOG_NOTE, "at the threshold");
    EXPECT_EQ(log.text(), "");
    QORLOG(LOG_WARNING, "below it");
    EXPECT_EQ(log.count("below it"), 1);
}

TEST(Log, CutsAMessageAt4095Bytes) {
    LogCapture log(1);
    QORLOG(LOG_ERROR, "%s", std::string(4095, 'a').c_str());
    QORLOG(LOG_ERROR, "%s", std::string(4096, 'b').c_str());
    EXPECT_EQ(log.count("<" + std::string(4095, 'a') + ">\n"), 1);
    EXPECT_EQ(log.count("<" + std::string(4095, 'b') + ">\n"), 1);
}

TEST(Log, GoesToStderrWhenNothingIsOpen) {
    testing::FLAGS_gtest_death_test_style = "fast";
    EXPECT_EXIT(
        {
            fpLogFile = nullptr;
            qorloglevel = 1;
            QORLOG(LOG_ERROR, "to stderr");
            _exit(fpLogFile == stderr ? 0 : 1);
        },
        testing::ExitedWithCode(0), "<to stderr>");
}

TEST(Log, LinesOfManyThreadsNeverMix) {
    LogCapture log(1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; i++)
                QORLOG(LOG_ERROR, "%s",
                       std::string(static_cast<size_t>(i + 1), static_cast<char>('a' + t)).c_str());
        });
    for (std::thread &thread : threads)
        thread.join();

    std::istringstream lines(log.text());
    std::string line;
    int count = 0;
    for (; std::getline(lines, line); count++)
        ASSERT_TRUE(HasForm(line, "^<[^<>]*> <[^<>]*> <(a+|b+|c+|d+)>$")) << line;
    EXPECT_EQ(count, 800);
}
