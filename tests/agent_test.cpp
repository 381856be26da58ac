// The agent's decisions, which are tables without a server or a camera.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "agent/loop.h"
#include "agent/settings.h"
#include "agent/verdict.h"
#include "files.h"
#include "session.h"

namespace {

const std::map<std::string, std::string> RECORDS = {
    {"none", std::string(7, '\0')},
    {"success", std::string("\0\1\0\0\0\3\0", 7)},
    {"auto", std::string("\0\1\0\0\0\6\0", 7)},
    {"failed", std::string("\0\2\0\0\0\4\0", 7)},
    {"begun", std::string("\0\2\0\0\0\3\0", 7)},
    {"half", std::string("\0\1\0\0\0\4\0", 7)},
    {"empty", ""},
    {"short", std::string("\0\1\0\0\0", 5)},
};

TEST(Verdict, FollowsFromRecordSlotAndPackage) {
    expect_cases("agent_verdicts.txt", [](std::istream& row) {
        std::string before, record, slots, package;
        AfterRestart seen;
        row >> before >> record >> slots >> package >> seen.attempts >> std::ws;
        std::getline(row, seen.disagreement);
        seen.disagreement.erase(seen.disagreement.find_last_not_of(' ') + 1);
        seen.partitionsRead = package != "gone-unread";
        seen.recordBefore = RECORDS.at(before);
        seen.record = RECORDS.at(record);
        seen.slotBefore = slots[0];
        seen.slot = slots[1];
        seen.packageThere = package == "there";
        std::string words;
        switch (judge(seen, words)) {
            case Judgement::SUCCESS:
                return "success: " + words;
            case Judgement::FAILURE:
                return "failure: " + words;
            case Judgement::AGAIN:
                break;
        }
        return "again: " + words;
    });
}

TEST(Settings, WrongOnesAreOneLineThatNamesThem) {
    expect_session(
        "agent_settings.txt",
        "cd /run; [ -d pki ] || \"$TEXTS/../scripts/make_pki\" pki; echo secret > token; "
        "chmod 600 token; printf 'server = https://localhost:1\\ncontroller-id = cam\\n"
        "keyring = pki/root.pem\\nstate-folder = /run/state\\n' > conf; "
        "agent() { corvo_agent --config conf \"$@\"; }; ");
}

TEST(Delay, SpreadsOverTheFleetAndGrowsWithTrouble) {
    EXPECT_EQ(270000U, delay_ms(300, 0, 0, 0));
    EXPECT_EQ(330000U, delay_ms(300, 0, 0, 60000));
    EXPECT_EQ(2500U, delay_ms(300, 1, 0, 0));
    EXPECT_EQ(7500U, delay_ms(300, 1, 0, 5000));
    EXPECT_EQ(20000U, delay_ms(300, 4, 0, 0));
    EXPECT_EQ(1800000U, delay_ms(300, 4000000000U, 0, 0));
    EXPECT_EQ(86400000U, delay_ms(300, 1, 86400, 0)) << "the server's own wish";
}

TEST(Window, HoldsOverMidnight) {
    DayWindow window;
    ASSERT_TRUE(parse_window("22:30-02:00", window));
    EXPECT_TRUE(is_inside(window, 22 * 60 + 30) && is_inside(window, 0) && is_inside(window, 119));
    EXPECT_FALSE(is_inside(window, 120) || is_inside(window, 22 * 60 + 29));
    ASSERT_TRUE(parse_window("02:00-04:00", window));
    EXPECT_TRUE(is_inside(window, 120) && !is_inside(window, 240));
    for (const char* wrong : {"2-4", "24:00-01:00", "02:00-04:60", "02:00-04:00 ", "02:00"}) {
        EXPECT_FALSE(parse_window(wrong, window)) << wrong;
    }
}

}  // namespace
