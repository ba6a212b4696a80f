#include "LogCapture.h"

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <thread>
#include <unistd.h>
#include <vector>

TEST(Log, WritesOneLineInItsForm) {
    LogCapture log(1);
    errno = ENOTTY;
    QORLOG(LOG_ERROR, "%s %d", "value", 7);
    EXPECT_EQ(errno, ENOTTY);
    const std::regex form("<([0-9]{1,2})-[0-9]{1,2}-[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}> "
                          "<QordAgent\\|log_test\\.cpp:[0-9]+> <value 7>\n");
    std::smatch parts;
    const std::string text = log.text();
    ASSERT_TRUE(std::regex_match(text, parts, form)) << text;
    time_t now = time(nullptr);
    EXPECT_EQ(std::stoi(parts[1]), localtime(&now)->tm_mon + 1);
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
    const std::regex whole("<[^<>]*> <[^<>]*> <(a+|b+|c+|d+)>");
    std::string line;
    int count = 0;
    for (; std::getline(lines, line); count++)
        ASSERT_TRUE(std::regex_match(line, whole)) << line;
    EXPECT_EQ(count, 800);
}
