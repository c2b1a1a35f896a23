// Group (port range) mappings through RTPortMap in the emulated router: the range text in the stored sections,
// reading it back, IDs apart from port mappings, range checks and conflicts.
#include "natforward_support.h"

#include <gmock/gmock.h>

using namespace natforward_e2e;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class NatGroupMap : public RouterTest {
protected:
    void storeExtra(const std::string &extra) { writeConfig("firewall", readConfig("firewall") + extra); }
    CallResult mod(const std::string &json) { return call("RTPortMap", "modGroupMapping", json); }
    CallResult get() { return call("RTPortMap", "getGroupMapping", ""); }
    std::string firewall() { return readConfig("firewall"); }
};

} // namespace

TEST_F(NatGroupMap, AddWritesTheRangeTextWithItsOwnIds)
{
    // Port mappings 1 to 3 are stored; group IDs start at 1 all the same.
    storeExtra(storedMapping("PmapID", 1, "1001") + storedMapping("PmapID", 2, "1002") +
               storedMapping("PmapID", 3, "1003"));
    start();
    clearJournal();

    CallResult r = mod(modRequest({groupEntry("games", 1, "192.168.1.20", 600, 610)}, 1));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");
    const auto red = redirects(firewall());
    ASSERT_EQ(red.size(), 8u);
    const std::vector<std::string> common = {"option name 'games'",        "option GmapID '1'",
                                             "list proto 'udp'",           "option src_dport '600-610'",
                                             "option dest_port '600-610'", "option dest_ip '192.168.1.20'",
                                             "option target 'DNAT'",       "option dest 'lan'"};
    auto withSrc = [&](const char *src) {
        auto l = common;
        l.push_back(std::string("option src '") + src + "'");
        return Section{"config redirect", l};
    };
    EXPECT_EQ(red[6], withSrc("wan"));
    EXPECT_EQ(red[7], withSrc("lan"));
    EXPECT_THAT(journal(), ElementsAre(kReload));

    EXPECT_EQ(get().reply, R"({"params":{"List":[{"Name":"games","StartPort":600,"InternalIP":"192.168.1.20",)"
                           R"("StopPort":610,"Protocol":1,"GmapID":1}]},"result":true})");

    // A one-port range, stored as 80-80 and read back as 80 and 80.
    ASSERT_EQ(mod(modRequest({groupEntry("one", 2, "192.168.1.21", 80, 80)}, 1)).reply, R"({"result":true})");
    EXPECT_EQ(optionOf(redirects(firewall())[8], "src_dport"), "80-80");
    r = get();
    EXPECT_THAT(numbersOf(r.reply, "StartPort"), ElementsAre(80, 600));
    EXPECT_THAT(numbersOf(r.reply, "StopPort"), ElementsAre(80, 610));
    EXPECT_THAT(numbersOf(r.reply, "GmapID"), ElementsAre(2, 1));

    // Deleting group 1 removes both of its sections and none of the port mappings (which carry PmapID 1 too).
    clearJournal();
    EXPECT_EQ(mod(deleteRequest("GmapID", {1})).reply, R"({"result":true})");
    EXPECT_THAT(idAndSrc(firewall(), "GmapID"),
                ElementsAre("-/wan", "-/lan", "-/wan", "-/lan", "-/wan", "-/lan", "2/wan", "2/lan"));
    EXPECT_THAT(idAndSrc(firewall(), "PmapID"),
                ElementsAre("1/wan", "1/lan", "2/wan", "2/lan", "3/wan", "3/lan", "-/wan", "-/lan"));
    EXPECT_THAT(journal(), ElementsAre(kReload));
    EXPECT_THAT(numbersOf(get().reply, "GmapID"), ElementsAre(2));
}

TEST_F(NatGroupMap, StoredRangeTextsAreReadBackOrEndTheList)
{
    storeExtra(storedSection("GmapID", 1, "wan", "80-80") + storedSection("GmapID", 2, "wan", "21-") +
               storedSection("GmapID", 3, "wan", "8080") + storedSection("GmapID", 4, "wan", "12345-12350") +
               storedSection("GmapID", 5, "wan", "123456-7") + storedSection("GmapID", 6, "wan", "90-95"));
    start();
    // "21-" loads as 21 and 0, "8080" as 0 and 0; six digits before the '-' do not load and end the list.
    const std::string listed = get().reply;
    EXPECT_THAT(numbersOf(listed, "GmapID"), ElementsAre(4, 3, 2, 1));
    EXPECT_THAT(numbersOf(listed, "StartPort"), ElementsAre(12345, 0, 21, 80));
    EXPECT_THAT(numbersOf(listed, "StopPort"), ElementsAre(12350, 0, 0, 80));
    EXPECT_TRUE(logHas("error", "NATFORWARD_loadGroupMapConfig", " start port invalid "));
    // The highest ID counts even for a section that does not load.
    EXPECT_EQ(mod(modRequest({groupEntry("new", 0, "10.0.0.1", 30000, 30010)}, 1)).reply, R"({"result":true})");
    EXPECT_THAT(idAndSrc(firewall(), "GmapID"),
                ElementsAre("1/wan", "2/wan", "3/wan", "4/wan", "5/wan", "6/wan", "7/wan", "7/lan"));
}

TEST_F(NatGroupMap, RangeChecksAndConflicts)
{
    storeExtra(storedMapping("GmapID", 1, "600-610", {"list proto 'udp'"}) + storedMapping("GmapID", 2, "700-800") +
               storedMapping("PmapID", 1, "8080"));
    start();
    const std::string before = firewall();
    clearJournal();

    struct Case {
        std::string entry;
        long code;
    } cases[] = {
        {groupEntry("g", 3, "10.0.0.1", 1000, 1010), kErrProtocol},
        {groupEntry("g", 0, "10.0.0.1", 0, 1010), kErrStartPort},
        {groupEntry("g", 0, "10.0.0.1", 1000, 65536), kErrStopPort},
        {groupEntry("g", 0, "10.0.0.1", 610, 600), kErrPortRange},
        {groupEntry("g", 0, "10.0.0.1", 8000, 8100), kErrPortMapConflict},
        {groupEntry("g", 0, "10.0.0.1", 500, 700), kErrGroupMapConflict}, // shares port 700
        {groupEntry("g", 1, "10.0.0.1", 610, 620), kErrGroupMapConflict}, // shares port 610, both UDP
    };
    for (const Case &c : cases)
        EXPECT_EQ(mod(modRequest({c.entry}, 1)).reply, codeReply(c.code)) << c.entry;
    EXPECT_EQ(firewall(), before);
    EXPECT_THAT(journal(), IsEmpty());

    // Against the UDP group only: accepted. Then port mappings meet the new TCP group.
    EXPECT_EQ(mod(modRequest({groupEntry("ok", 0, "10.0.0.1", 500, 699)}, 1)).reply, R"({"result":true})");
    EXPECT_EQ(mod(modRequest({groupEntry("ok2", 1, "10.0.0.1", 8000, 8100)}, 1)).reply, R"({"result":true})");
    EXPECT_THAT(numbersOf(get().reply, "GmapID"), ElementsAre(4, 3, 2, 1));
    EXPECT_EQ(call("RTPortMap", "modPortMapping", modRequest({portEntry("p", 0, "10.0.0.2", 80, 650)}, 1)).reply,
              codeReply(kErrGroupMapConflict));
    EXPECT_EQ(call("RTPortMap", "modPortMapping", modRequest({portEntry("p", 1, "10.0.0.2", 80, 650)}, 1)).reply,
              R"({"result":true})");
}

TEST_F(NatGroupMap, AtMost32AndHostileText)
{
    std::string extra;
    for (int id = 1; id <= 31; id++)
        extra += storedMapping("GmapID", id, std::to_string(20000 + 10 * id) + "-" + std::to_string(20005 + 10 * id));
    storeExtra(extra);
    start();
    clearJournal();

    EXPECT_EQ(mod(modRequest({groupEntry("a", 0, "10.0.0.1", 1, 2), groupEntry("b", 0, "10.0.0.1", 3, 4)}, 1)).reply,
              R"({"result":false})");
    EXPECT_TRUE(logHas("error", "NATFORWARD_addGroupMap", "addGroupMap  more  than  max"));
    EXPECT_THAT(journal(), IsEmpty());

    const std::string nasty = "$(reboot);`halt` | rm -rf / && echo 'x'";
    ASSERT_EQ(mod(modRequest({groupEntry(nasty, 0, "$(id)", 1, 2)}, 1)).reply, R"({"result":true})");
    const auto red = redirects(firewall());
    EXPECT_EQ(optionOf(red[62], "name"), "$(reboot);`halt` | rm -rf / && echo '\\''x'\\''");
    EXPECT_EQ(optionOf(red[62], "dest_ip"), "$(id)");
    EXPECT_THAT(journal(), ElementsAre(kReload));
    EXPECT_EQ(numbersOf(get().reply, "GmapID").size(), 32u);
    EXPECT_EQ(mod(modRequest({groupEntry("c", 0, "10.0.0.1", 5, 6)}, 1)).reply, R"({"result":false})");
}
