#include "qorutil.h"

#include <gtest/gtest.h>

namespace {

// Reads rules; what is after the text's end must stay unread.
void Load(const std::string &text) {
    std::string storage = text + '\0' + "abcd|threadname|ghost\nabcd|state|1\n";
    readconditions(storage.data());
}

struct IdleRules : testing::Test {
    ~IdleRules() override { readconditions(nullptr); }
};

} // namespace

TEST_F(IdleRules, StartWithSevenStates) {
    Load("abcd|threadname|x\nabcd|systemcall|java.\nabcd|state|9\n");
    readconditions(nullptr);
    EXPECT_EQ(gacondcnt + gasystemcondcnt, 0);
    std::string shown;
    for (int32_t i = 0; i < TEMP_STATE_COUNT; i++) {
        EXPECT_EQ(checkState(tempstates[i]), checkPreActive(i));
        if (checkPreActive(i))
            shown += std::string(tempstates[i]) + ",";
    }
    EXPECT_EQ(shown, "DB Wait,Runnable,Lock,Object Wait,Network Wait,IO Wait,RMI Wait,");
}

TEST_F(IdleRules, MatchByWhatIsBeforeTheStar) {
    const std::tuple<const char *, const char *, int32_t> rows[] = {
        {"Worker*", "Worker-7", 0}, {"Worker", "Worker-7", 0}, {"Worker", "Work", 1}, {"*", "", 0}};
    for (const auto &[rule, text, differs] : rows) {
        Load(std::string("abcd|threadname|") + rule + "\n");
        EXPECT_EQ(checkThreadName(text), differs) << rule << " on " << text;
        EXPECT_EQ(checkMonitor(text), 1) << "a rule of another kind";
    }
    Load("abcd|currcall|java.lang.Object->wait\nabcd|systemcall|java.*\n");
    EXPECT_EQ(checkCurrCall("java.lang.Object", "wait"), 0);
    EXPECT_EQ(checkCurrCall("java.lang.Object", "notify"), 1);
    EXPECT_EQ(checkSystemCall("demo.Main", "run"), 0);
}

TEST_F(IdleRules, AreStoredInTheirTablesBounds) {
    Load("abcd|state|9\nabcd|xyz|3\nabcd|state|15\nabcd|state|-1\nabcd|state|99999999999999999999\n");
    EXPECT_EQ(gbcondcnt, 12);
    EXPECT_EQ(checkState("Sleeping"), 1);
    EXPECT_EQ(checkPreActive(15), 1); // a number is compared as it is

    std::string text;
    for (int i = 0; i < 150; i++)
        text += "abcd|threadname|t" + std::to_string(i) + ".\nabcd|systemcall|s.\n";
    Load(text + "abcd|threadname|late\nabcd|systemcall|9\n");
    EXPECT_TRUE(gacondcnt == 150 && gasystemcondcnt == 150 && gbcondcnt == 9);
    EXPECT_EQ(checkThreadName("late"), 1); // in the default table, which names aren't compared with
    EXPECT_EQ(checkThreadName("t149."), 0);
    EXPECT_EQ(checkState("Sleeping"), 1); // a system call too many counts as a state
}
