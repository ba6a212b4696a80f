#include "LogCapture.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <mutex>
#include <regex.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// A form of a whole text, told as an extended regular expression.
class Form {
public:
    explicit Form(const char *form) { EXPECT_EQ(regcomp(&form_, form, REG_EXTENDED | REG_NOSUB), 0) << form; }
    ~Form() { regfree(&form_); }
    bool fits(const std::string &text) const { return regexec(&form_, text.c_str(), 0, nullptr, 0) == 0; }

private:
    regex_t form_;
};

} // namespace

TEST(Log, WritesOneLineInItsForm) {
    LogCapture log(1);
    QORLOG(LOG_ERROR, "%s %d", "value", 7);
    const Form form("^<[0-9]{1,2}-[0-9]{1,2}-[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}> "
                    "<QordAgent\\|log_test\\.cpp:[0-9]+> <value 7>\n$");
    EXPECT_TRUE(form.fits(log.text())) << log.text();
    const time_t now = time(nullptr);
    EXPECT_EQ(atoi(log.text().c_str() + 1), localtime(&now)->tm_mon + 1) << "the month comes first";
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

TEST(Log, IsSilentUpToTheThreshold) {
    LogCapture log(LOG_NOTE);
    QORLOG(LOG_NOTE, "at the threshold");
    EXPECT_EQ(log.text(), "");
    QORLOG(LOG_WARNING, "below it");
    EXPECT_EQ(log.count("below it"), 1);
}

TEST(Log, RationsLinesByCallSite) {
    LogCapture log(LOG_ERROR + 1);
    for (int i = 0; i < 3; i++) {
        QORLOG_RATIONED(LOG_WARNING, "below the threshold");
        QORLOG_RATIONED(LOG_ERROR, "one cause");
        QORLOG_RATIONED(LOG_ERROR, "another");
    }
    EXPECT_EQ(log.count("below the threshold"), 0);
    EXPECT_EQ(log.count("one cause"), 1);
    EXPECT_EQ(log.count("another"), 1);
    int64_t next = 0;
    EXPECT_TRUE(QorLogIsDue(&next));
    EXPECT_FALSE(QorLogIsDue(&next));
    next -= 60; // a minute later
    EXPECT_TRUE(QorLogIsDue(&next));
}

TEST(Log, WritesAMessageOfAnyLengthWhole) {
    LogCapture log(1);
    for (size_t length : {4095u, 4096u, 100000u}) {
        const std::string message(length, 'a');
        QORLOG(LOG_ERROR, "%s %d", message.c_str(), 7);
        EXPECT_EQ(log.count("> <QordAgent|log_test.cpp:" + std::to_string(__LINE__ - 1) + "> <" + message +
                            " 7>\n"),
                  1)
            << length;
    }
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

    const Form whole("^<[^<>]*> <[^<>]*> <(a+|b+|c+|d+)>\n$");
    for (const std::string &piece : pieces)
        ASSERT_TRUE(whole.fits(piece)) << piece;
    EXPECT_EQ(pieces.size(), 800u);
}
