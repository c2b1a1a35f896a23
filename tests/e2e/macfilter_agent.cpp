// The agent's object zelmad.macfilter and the station-name calls to RTSta, with a stand-in RTSta that knows names,
// records what it is told, is slow, or is not there at all.
#include <gmock/gmock.h>

#include <chrono>

#include "macfilter_support.h"

namespace gw::e2e {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string agentSet(int enable, int policy, const std::string &entries)
{
    return "{\"macFilterEnable\":" + std::to_string(enable) + ",\"macFilterPolicy\":" + std::to_string(policy) +
           ",\"macFilterEntries\":" + jsonString(entries) + "}";
}

TEST_F(MacFilterTest, AgentSetReplacesTheWhiteListAndPushesTheNames)
{
    writeConfig("macFilter", macFilterConfig("0", "no", {}, {"AA:BB:CC:DD:EE:09/old"}));
    start();
    RtStaStandIn rtsta;
    rtsta.start();

    CallResult r = call("zelmad.macfilter", "getMacFilter");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"zelmad.macfilter":{"macFilterEnable":0,"macFilterPolicy":0,"macFilterEntries":""}})");

    clearJournal();
    r = call("zelmad.macfilter", "setMacFilter", agentSet(1, 1, "AABBCCDDEEFF/cam,a1b2c3d4e5f6/tab"));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(uciGet("macFilter.main.enabled"), "1");
    EXPECT_EQ(uciGet("macFilter.main.curmode"), "allow");
    EXPECT_EQ(uciGet("macFilter.whitelist.allow"), "AA:BB:CC:DD:EE:FF/cam A1:B2:C3:D4:E5:F6/tab");
    EXPECT_THAT(rtsta.calls(), ElementsAre("setStaDevName AA:BB:CC:DD:EE:FF cam", "setStaDevName A1:B2:C3:D4:E5:F6 tab"));
    EXPECT_THAT(journal(), ElementsAre("uci delete macFilter.whitelist", "uci set macFilter.whitelist=filter",
                                       "uci commit macFilter", "ebtables -I FORWARD -s AA:BB:CC:DD:EE:FF -j ACCEPT",
                                       "ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:FF -j ACCEPT",
                                       "ebtables -I FORWARD -s A1:B2:C3:D4:E5:F6 -j ACCEPT",
                                       "ip6tables -I FORWARD -m mac --mac-source A1:B2:C3:D4:E5:F6 -j ACCEPT",
                                       "ip6tables -I FORWARD -i eth1 -j ACCEPT", "ip6tables -A FORWARD -j REJECT",
                                       "ebtables -I FORWARD -i eth1 -j ACCEPT", "ebtables -A FORWARD -j DROP",
                                       kFirewallReload));
    EXPECT_THAT(lanRules(),
                ElementsAre("cam AA:BB:CC:DD:EE:FF ACCEPT", "tab A1:B2:C3:D4:E5:F6 ACCEPT", "denyall - DROP"));
    EXPECT_THAT(bridgeForward(), ElementsAre("-i eth1 -j ACCEPT", "-s a1:b2:c3:d4:e5:f6 -j ACCEPT",
                                             "-s aa:bb:cc:dd:ee:ff -j ACCEPT", "-j DROP"));

    // The white list is reported with its stored names; RTSta is not asked.
    r = call("zelmad.macfilter", "getMacFilter");
    EXPECT_EQ(r.reply, R"({"zelmad.macfilter":{"macFilterEnable":1,"macFilterPolicy":1,)"
                       R"("macFilterEntries":"AABBCCDDEEFF/cam,A1B2C3D4E5F6/tab"}})");
    EXPECT_EQ(rtsta.calls().size(), 2u);

    // enable 0 only switches off: every rule goes, both lists stay, whatever the entries text holds.
    clearJournal();
    r = call("zelmad.macfilter", "setMacFilter", agentSet(0, 0, "garbage/"));
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(uciGet("macFilter.main.curmode"), "no");
    EXPECT_EQ(uciGet("macFilter.whitelist.allow"), "AA:BB:CC:DD:EE:FF/cam A1:B2:C3:D4:E5:F6/tab");
    EXPECT_THAT(lanRules(), IsEmpty());
    EXPECT_THAT(bridgeForward(), IsEmpty());
    EXPECT_THAT(ipv6Forward(), IsEmpty());
}

TEST_F(MacFilterTest, BlackListReportsTakeNamesFromRTSta)
{
    writeConfig("macFilter", macFilterConfig("1", "deny", {"AA:BB:CC:DD:EE:01/tv", "AA:BB:CC:DD:EE:02/pc"}, {}));
    start();
    RtStaStandIn rtsta(std::map<std::string, std::string>{{"AA:BB:CC:DD:EE:01", "livingroom"}});
    rtsta.start();

    // Only the first device has a station name; the second keeps its stored one (the name buffer was cleared).
    CallResult r = call("zelmad.macfilter", "getMacFilter");
    EXPECT_EQ(r.reply, R"({"zelmad.macfilter":{"macFilterEnable":1,"macFilterPolicy":0,)"
                       R"("macFilterEntries":"AABBCCDDEE01/livingroom,AABBCCDDEE02/pc"}})");
    EXPECT_THAT(rtsta.calls(), ElementsAre("getStaDevName AA:BB:CC:DD:EE:01", "getStaDevName AA:BB:CC:DD:EE:02"));

    r = call("RTMacFilter", "getMacFilterList");
    EXPECT_EQ(r.reply, R"({"params":{"enable":1,"model":1,"blackList":[{"mac":"AA:BB:CC:DD:EE:01","name":"livingroom"},)"
                       R"({"mac":"AA:BB:CC:DD:EE:02","name":"pc"}],"whiteList":[]},"result":true})");
}

TEST_F(MacFilterTest, AbsentOrSlowRTStaNeverFailsACall)
{
    writeConfig("macFilter", macFilterConfig("1", "deny", {"AA:BB:CC:DD:EE:01/tv"}, {}));
    start();

    // Absent: the lookup fails, the stored name counts, the set still succeeds.
    CallResult r = call("zelmad.macfilter", "getMacFilter");
    EXPECT_EQ(r.reply, R"({"zelmad.macfilter":{"macFilterEnable":1,"macFilterPolicy":0,)"
                       R"("macFilterEntries":"AABBCCDDEE01/tv"}})");
    EXPECT_TRUE(logHas("error", "getStaNameFromStaList", "lookup RTSta failed"));

    // Slow: each call gives up after 1000 ms with the timeout status and the daemon goes on.
    RtStaStandIn rtsta(std::map<std::string, std::string>{{"AA:BB:CC:DD:EE:01", "livingroom"}}, 1500);
    rtsta.start();
    auto begin = std::chrono::steady_clock::now();
    r = call("zelmad.macfilter", "getMacFilter");
    auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(r.reply, R"({"zelmad.macfilter":{"macFilterEnable":1,"macFilterPolicy":0,)"
                       R"("macFilterEntries":"AABBCCDDEE01/tv"}})");
    EXPECT_GE(took, std::chrono::milliseconds(1000));
    EXPECT_TRUE(logHas("info", "getStaNameFromStaList", "setStaNameToStaList ret: 7"));

    r = call("RTMacFilter", "addMacFilterList", macListRequest(1, 1, "pc", "AA:BB:CC:DD:EE:02"));
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_TRUE(logHas("info", "setStaNameToStaList", "setStaNameToStaList ret: 7"));
    EXPECT_TRUE(logHas("error", "addMacFilterListHandler", "setStaNameToStaList ERROR"));
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), "AA:BB:CC:DD:EE:01/tv AA:BB:CC:DD:EE:02/pc");
}

TEST_F(MacFilterTest, AgentSetRefusesEmptyPiecesAfterSwitchingOff)
{
    writeConfig("macFilter", macFilterConfig("1", "deny", {"AA:BB:CC:DD:EE:01/tv"}, {}));
    start();
    ASSERT_EQ(call("RTMacFilter", "setMacFilter", R"({"enable":0,"model":1})").reply, R"({"result":true})");
    ASSERT_EQ(call("RTMacFilter", "setMacFilter", R"({"enable":1,"model":1})").reply, R"({"result":true})");
    ASSERT_THAT(bridgeForward(), ElementsAre("-s aa:bb:cc:dd:ee:01 -j DROP"));

    // A piece without a name: status 2, no reply; the filter is off and the lists are as they were.
    CallResult r = call("zelmad.macfilter", "setMacFilter", agentSet(1, 0, "AABBCCDDEE02/pc,AABBCCDDEEFF/"));
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.reply, "");
    EXPECT_TRUE(logHas("error", "zelmad_handle_set_macfilter",
                       "zelmad_handle_set_macfilter E_UBUS_STATUS_INVALID_ARGUMENT"));
    EXPECT_EQ(uciGet("macFilter.main.enabled"), "0");
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), "AA:BB:CC:DD:EE:01/tv");
    EXPECT_THAT(bridgeForward(), IsEmpty());

    // A missing argument: "result" false, status 0, nothing changes.
    clearJournal();
    r = call("zelmad.macfilter", "setMacFilter", R"({"macFilterEnable":1,"macFilterPolicy":0})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "zelmad_handle_set_macfilter", "tb[E_ZELMAD_FILTER_ENTRIES] is NULL"));
    EXPECT_THAT(journal(), IsEmpty());

    // An empty text with enable 1 empties the list of the policy and switches the filter on with it.
    r = call("zelmad.macfilter", "setMacFilter", agentSet(1, 0, ""));
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(uciGet("macFilter.main.curmode"), "deny");
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), std::nullopt);
}

TEST_F(MacFilterTest, HostileAgentTextReachesCommandsAsSingleArguments)
{
    start();
    RtStaStandIn rtsta;
    rtsta.start();
    // The agent's MAC digits are not validated, so this text reaches the kernel commands; the name holds blanks
    // and quotes and goes only to the configuration and to RTSta.
    const std::string mac = ";$(id)`x`'\"|";   // 12 characters
    const std::string name = "my \"tv\"; $(reboot) `rm -rf /` 'x'";
    clearJournal();
    CallResult r = call("zelmad.macfilter", "setMacFilter", agentSet(1, 0, mac + "/" + name));
    EXPECT_EQ(r.reply, R"({"result":true})");

    const std::string colon = ";$:(I:D):`X:`':\"|";   // with colons, upper-cased
    const std::string quoted = "';$:(I:D):`X:`'\\'':\"|'";
    EXPECT_THAT(journal(), ElementsAre("uci delete macFilter.blacklist", "uci set macFilter.blacklist=filter",
                                       "uci commit macFilter", "ebtables -I FORWARD 1 -s " + quoted + " -j DROP",
                                       "ip6tables -I FORWARD -m mac --mac-source " + quoted + " -j DROP",
                                       kFirewallReload));
    EXPECT_THAT(rtsta.calls(), ElementsAre("setStaDevName " + colon + " " + name));
    // `uci get` quotes a list value holding blanks, with '\'' for each quote inside.
    std::string stored = colon + "/" + name, shown = "'";
    for (char c : stored)
        shown += c == '\'' ? std::string("'\\''") : std::string(1, c);
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), shown + "'");
    // The stored name splits at its first blank when the list is read back, as every stored list does.
    EXPECT_THAT(lanRules(), ElementsAre("my " + colon + " DROP"));
    EXPECT_THAT(bridgeForward(), IsEmpty());   // the kernel refused the text; nothing else happened
    EXPECT_TRUE(daemonRunning());
}

} // namespace
} // namespace gw::e2e
