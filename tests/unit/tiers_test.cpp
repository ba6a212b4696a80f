#include "TierText.h"
#include "qortiers.h"

#include <gtest/gtest.h>
#include <random>
#include <string>

namespace {

std::string Times(int count, const std::string &text) {
    std::string all;
    for (int i = 0; i < count; i++)
        all += text;
    return all;
}

constexpr char GOOD[] =
    "# drivers\n"
    "state db org.driver.\nstate db org.driver.net.\nstate db a.\nstate rmi a.A\n"
    "frame db org.driver.Call run\nframe\tweb org.driver.Call *\nframe db b.C m\nframe rmi b.C mm\n"
    "object db Lorg/Call;\n  sql  q,Lq/Q;|text,Ljava/lang/String;\n"
    "  socket list,[[La;@at|s,Ljava/net/Socket;\n"
    "object web Lorg/Call; read\n url b,La/B;|buff,[B:from:to last\nobject db La;\nobject db Lorg/Call;\n"
    "user u,Ljava/lang/Object;\nobject rmi Lorg/Remote;\nport p,I";

} // namespace

TEST(TierRules, FindMethodsAndObjects) {
    EXPECT_FALSE(QorTiersKnowRemoteCalls());
    ASSERT_EQ("", SetTiers(GOOD, 7));
    EXPECT_EQ(GOOD, QorTierText());
    EXPECT_EQ(CrcOf(GOOD), QorTierCrc());
    EXPECT_EQ(19, QorTierLineCount());
    EXPECT_TRUE(QorTiersKnowRemoteCalls());
    const std::tuple<const char *, const char *, uint32_t> METHODS[] = {
        {"org.driver.Call", "run", TIER_DB_STATE | TIER_DB | TIER_WEB},
        {"org.driver.Call", "other", TIER_DB_STATE | TIER_WEB},
        {"org.driver.zoo.A", "run", TIER_DB_STATE},
        {"a.A", "m", TIER_DB_STATE | TIER_RMI_STATE},
        {"b.C", "mm", TIER_RMI},
    };
    for (const auto &[className, method, kinds] : METHODS)
        EXPECT_EQ(kinds, QorTierKindsOf(className, method)) << className << method;
    EXPECT_TRUE(QorIsTierObject("La;", TIER_DB | TIER_WEB));
    EXPECT_FALSE(QorIsTierObject("La;", TIER_WEB));
    QorFindTierObjects("La;").first->fit = TIER_OFF;
    EXPECT_FALSE(QorIsTierObject("La;", TIER_DB));
}

TEST(TierRules, ABadTextChangesNothing) {
    ASSERT_EQ("", SetTiers(GOOD));
    const std::string object = "object db La/B;\n";
    const std::pair<std::string, std::string> BAD[] = {
        {"\n#\nstate web x.\n", "3: a state needs the form: state db|rmi PREFIX"},
        {object + "sql ,La/B;", "2: a step needs the form FIELD,SIGNATURE"},
        {object + "sql f,[B:a:b|f,La/B;", "2: :FROM:TO ends a way to a text"},
        {object + "sql " + Times(50, "f,La/B;|") + "f,La/B;", "2: a way has more than 50 steps"},
        {object + "sql " + std::string(4000, 'f') + ",La;", "2: a way is longer than 4000 bytes"},
        {"# \xc2\x9b\n", "1: there is a control character"},
        {Times(TIER_LINES + 1, "\n"), "2049: there are more than 2048 lines"},
        {std::string(TIER_TEXT_SIZE + 1, '#'), "0: the text is longer than 131072 bytes"},
    };
    for (const auto &[text, fault] : BAD) {
        EXPECT_EQ(fault, SetTiers(text));
        EXPECT_EQ(GOOD, QorTierText());
        EXPECT_EQ(TIER_DB, QorTierKindsOf("b.C", "m"));
    }
    std::mt19937 numbers(1);
    for (int round = 0; round < 40; round++) {
        std::string noise = GOOD;
        for (int i = 0; i < 8; i++)
            noise[numbers() % noise.size()] = "dbr |,:@;L[I/.\n\xf0\xed\xa0\xb0\xff"[numbers() % 19];
        SetTiers(noise); // it may be right
        QorFindTierObjects("Lorg/Call;"), QorTierKindsOf("org.driver.Call", "run");
    }
    ASSERT_EQ("", SetTiers(GOOD));
    EXPECT_FALSE(QorAddTiers("state db a.")) << "nothing was begun";
    QorBeginTiers();
    EXPECT_STREQ("the text isn't whole, or isn't UTF-8: its CRC-32 differs", QorEndTiers(1).reason);
    EXPECT_EQ(GOOD, QorTierText());
    EXPECT_EQ("", SetTiers(""));
    EXPECT_EQ(0u, QorTierKindsOf("b.C", "m"));
}
