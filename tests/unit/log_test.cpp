#include "LogCapture.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <mutex>
#include <regex>
#include <thread>
#include <vector>

TEST(Log, WritesOneLineInItsFormWhateverItsLength) {
    for (size_t length : {1u, 4095u, 4096u, 100000u}) {
        LogCapture log(1);
        const std::string message(length, 'a');
        QORLOG(LOG_ERROR, "%s %d", message.c_str(), 7);
        const size_t end = log.text().find(message);
        EXPECT_TRUE(std::regex_match(log.text().substr(0, end),
                                     std::regex("<\\d{1,2}-\\d{1,2}-\\d{4} \\d\\d:\\d\\d:\\d\\d\\.\\d{3}> "
                                                "<QordAgent\\|log_test\\.cpp:\\d+> <")));
        EXPECT_EQ(log.text().substr(end), message + " 7>\n");
    }
}

TEST(Log, LeavesErrnoEvenWhenTheDiskIsFull) {
    FILE *const earlier = fpLogFile;
    fpLogFile = fopen("/dev/full", "we");
    ASSERT_NE(fpLogFile, nullptr);
    errno = ENOTTY;
    QorWriteLogLine(__FILE__, __LINE__, "no room");
    EXPECT_EQ(errno, ENOTTY);
    fclose(fpLogFile);
    fpLogFile = earlier;
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

TEST(Log, WritesEachLineInOnePiece) {
    static std::vector<std::string> pieces;
    static std::mutex piecesLock; // the stream's lock isn't one that ThreadSanitizer knows
    cookie_io_functions_t functions = {};
    functions.write = [](void *, const char *text, size_t size) {
        const std::lock_guard<std::mutex> lock(piecesLock);
        pieces.emplace_back(text, size);
        return static_cast<ssize_t>(size);
    };
    FILE *const earlier = fpLogFile;
    fpLogFile = fopencookie(nullptr, "w", functions);
    setvbuf(fpLogFile, nullptr, _IONBF, 0); // as stderr is
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; i++)
                QorWriteLogLine(__FILE__, __LINE__, "%s", std::string(i * 20 + 1, char('a' + t)).c_str());
        });
    for (std::thread &thread : threads)
        thread.join();
    fclose(fpLogFile);
    fpLogFile = earlier;
    EXPECT_EQ(pieces.size(), 800u);
    for (const std::string &piece : pieces) {
        const size_t at = piece.rfind('<') + 1;
        EXPECT_EQ(piece.substr(at), std::string(piece.size() - at - 2, piece[at]) + ">\n");
    }
}
