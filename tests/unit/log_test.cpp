#include "LogCapture.h"
#include "Restore.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <regex>

TEST(Log, WritesOneLineInItsFormWhateverItsLength) {
    for (size_t length : {1u, 4095u, 4096u, 100000u}) {
        LogCapture log(1);
        const std::string message(length, 'a');
        QORLOG(LOG_ERROR, "%s %d", message.c_str(), 7);
        const size_t end = log.text().find(message);
        EXPECT_TRUE(std::regex_match(
            log.text().substr(0, end),
            std::regex(R"(<\d+-\d+-\d{4} \d\d:\d\d:\d\d\.\d{3}> <QordAgent\|log_test\.cpp:\d+> <)")));
        EXPECT_EQ(log.text().substr(end), message + " 7>\n");
    }
}

TEST(Log, LeavesErrnoEvenWhenTheDiskIsFull) {
    const Restore<FILE *> log(fpLogFile, fopen("/dev/full", "we"));
    errno = ENOTTY;
    QorWriteLogLine(__FILE__, __LINE__, "no room");
    EXPECT_EQ(errno, ENOTTY);
    fclose(fpLogFile);
}

TEST(Log, IsSilentUpToTheThresholdAndRationedByCallSite) {
    LogCapture log(LOG_ERROR + 1);
    for (int i = 0; i < 3; i++) {
        QORLOG_RATIONED(LOG_ERROR + 1, "at the threshold");
        QORLOG_RATIONED(LOG_ERROR, "one cause");
        QORLOG_RATIONED(LOG_ERROR, "another");
    }
    EXPECT_EQ(log.count("threshold") * 100 + log.count("one cause") * 10 + log.count("another"), 11);
}
