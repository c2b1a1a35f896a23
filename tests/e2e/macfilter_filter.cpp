// The MAC filter through RTMacFilter and the device block through the object "firewall", driven over the bus of
// the emulated router: replies, the packages macFilter and firewall, the commands in their order, and the FORWARD
// rules that really land in the bridge and IPv6 tables. RTSta is not on the bus here, so stored names are reported.
#include <gmock/gmock.h>

#include "macfilter_support.h"

namespace gw::e2e {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char *const kTv = "AA:BB:CC:DD:EE:01";
const char *const kPc = "AA:BB:CC:DD:EE:02";

TEST_F(MacFilterTest, BlackListEntryIsAddedReportedRefusedTwiceAndRemoved)
{
    start();
    CallResult r = call("RTMacFilter", "getMacFilterList");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"params":{"enable":0},"result":true})");

    // Off to black list with an empty list: nothing to apply but the reload.
    clearJournal();
    r = call("RTMacFilter", "setMacFilter", R"({"enable":1,"model":1})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(journal(), ElementsAre(kFirewallReload));
    EXPECT_EQ(uciGet("macFilter.main.enabled"), "1");
    EXPECT_EQ(uciGet("macFilter.main.curmode"), "deny");
    EXPECT_TRUE(
        logHas("error", "addFirewallRuleByMacFilterConfig", "uciGetStr macFilter.blacklist.deny error or null"));

    // A lower-case MAC is stored, ruled and blocked in upper case; text past 17 characters never reaches a command.
    clearJournal();
    r = call("RTMacFilter", "addMacFilterList", macListRequest(1, 1, "tv", "aa:bb:cc:dd:ee:01;reboot $(id) `id`'\""));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), "AA:BB:CC:DD:EE:01/tv");
    EXPECT_THAT(lanRules(), ElementsAre("tv AA:BB:CC:DD:EE:01 DROP"));
    EXPECT_THAT(journal(), ElementsAre("ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:01 -j DROP",
                                       "ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP",
                                       kFirewallReload));
    EXPECT_THAT(bridgeForward(), ElementsAre("-s aa:bb:cc:dd:ee:01 -j DROP"));
    EXPECT_THAT(ipv6Forward(), ElementsAre("-m mac --mac-source aa:bb:cc:dd:ee:01 -j DROP"));
    EXPECT_TRUE(logHas("error", "setStaNameToStaList", "lookup RTSta failed"));
    EXPECT_TRUE(logHas("error", "addMacFilterListHandler", "setStaNameToStaList ERROR"));

    // The same device under another name is a duplicate; the white list cannot be edited while the black is on.
    clearJournal();
    r = call("RTMacFilter", "addMacFilterList", macListRequest(1, 1, "telly", kTv));
    EXPECT_EQ(r.reply, R"({"error":{"code":713469952},"result":false})");
    EXPECT_TRUE(logHas("error", "addMacFilterListHandler", "this macList is exist"));
    r = call("RTMacFilter", "addMacFilterList", macListRequest(1, 2, "pc", kPc));
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "addMacFilterListHandler", "the setmodel is not same as curmodel"));
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), "AA:BB:CC:DD:EE:01/tv");

    r = call("RTMacFilter", "getMacFilterList");
    EXPECT_EQ(r.reply, R"({"params":{"enable":1,"model":1,"blackList":[{"mac":"AA:BB:CC:DD:EE:01","name":"tv"}],)"
                       R"("whiteList":[]},"result":true})");

    // Removal takes MAC and name; the list value, the section and both kernel rules go.
    clearJournal();
    r = call("RTMacFilter", "delMacFilterList", macListRequest(1, 1, "tv", "aa:bb:cc:dd:ee:01"));
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), std::nullopt);
    EXPECT_THAT(lanRules(), IsEmpty());
    EXPECT_THAT(journal(), ElementsAre("ebtables -D FORWARD -s AA:BB:CC:DD:EE:01 -j DROP",
                                       "ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP",
                                       kFirewallReload));
    EXPECT_THAT(bridgeForward(), IsEmpty());
    EXPECT_THAT(ipv6Forward(), IsEmpty());
}

TEST_F(MacFilterTest, BadArgumentsAreAllLoggedAndChangeNothing)
{
    start();
    clearJournal();
    // Missing enable, a model out of range and a dash-form MAC: every problem is logged, nothing is written.
    CallResult r = call("RTMacFilter", "addMacFilterList",
                        R"({"enable":"1","model":3,"macList":{"name":"tv","mac":"AA-BB-CC-DD-EE-01"}})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "addMacFilterList", "addMacFilterList tb[E_ADDMACFILTERLIST_ENABLE] is NULL"));
    EXPECT_TRUE(logHas("error", "addMacFilterList", "addMacFilterList model is unvalued"));
    EXPECT_TRUE(logHas("error", "macValidCheck", "macData(AA-BB-CC-DD-EE-01) check fail!"));
    EXPECT_TRUE(logHas("error", "addMacFilterList", "addMacFilterList mac is unValid"));

    r = call("RTMacFilter", "addMacFilterList", macListRequest(0, 1, "tv", kTv));
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "addMacFilterList", "addMacFilterList enable is 0"));

    r = call("RTMacFilter", "delMacFilterList", R"({"enable":1,"model":1,"macList":{"name":"tv"}})");
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "delMacFilterList", "delMacFilterList ptb[E_MACFILTERLIST_MAC] is NULL"));

    r = call("RTMacFilter", "setMacFilter", R"({"enable":0,"model":3})");
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "setMacFilterHandler", "setMacFilterHandler param not in area"));
    r = call("RTMacFilter", "setMacFilter", R"({"enable":0,"model":1})");
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "setMacFilterHandler", "this config is unchanged"));
    r = call("RTMacFilter", "setMacFilter", R"({"model":1})");
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "setMacFilter", "tb[E_SETMACFILTER_ENABLE] is NULL"));

    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), std::nullopt);
    EXPECT_EQ(uciGet("macFilter.main.curmode"), "no");
}

TEST_F(MacFilterTest, ThirtyThirdEntryIsRefused)
{
    std::vector<std::string> black;
    for (int i = 0; i < 31; ++i) {
        char entry[48];
        snprintf(entry, sizeof entry, "AA:BB:CC:DD:EE:%02X/dev%d", i, i);
        black.push_back(entry);
    }
    writeConfig("macFilter", macFilterConfig("0", "no", black, {}));
    start();

    // The filter is off, yet an added entry gets its rules at once.
    CallResult r = call("RTMacFilter", "addMacFilterList", macListRequest(1, 1, "dev31", "AA:BB:CC:DD:EE:1F"));
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(bridgeForward(), ElementsAre("-s aa:bb:cc:dd:ee:1f -j DROP"));

    clearJournal();
    r = call("RTMacFilter", "addMacFilterList", macListRequest(1, 1, "dev32", "AA:BB:CC:DD:EE:20"));
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "addMacFilterListHandler", "blackList Has been reached max num"));
    EXPECT_THAT(journal(), IsEmpty());
    std::optional<std::string> list = uciGet("macFilter.blacklist.deny");
    ASSERT_TRUE(list);
    EXPECT_EQ(list->find("dev32"), std::string::npos);
    EXPECT_NE(list->find("AA:BB:CC:DD:EE:1F/dev31"), std::string::npos);
}

TEST_F(MacFilterTest, BlackToWhiteSwitchReplacesEveryRuleInOrder)
{
    writeConfig("macFilter", macFilterConfig("0", "no", {"AA:BB:CC:DD:EE:01/tv", "aa:bb:cc:dd:ee:02/pc"},
                                             {"AA:BB:CC:DD:EE:03/cam", "AA:BB:CC:DD:EE:04/tab"}));
    start();
    CallResult r = call("RTMacFilter", "setMacFilter", R"({"enable":1,"model":1})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    // A stored lower-case MAC is applied in upper case; the stored entry stays as it was.
    EXPECT_THAT(lanRules(), ElementsAre("tv AA:BB:CC:DD:EE:01 DROP", "pc AA:BB:CC:DD:EE:02 DROP"));
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), "AA:BB:CC:DD:EE:01/tv aa:bb:cc:dd:ee:02/pc");

    clearJournal();
    r = call("RTMacFilter", "setMacFilter", R"({"enable":1,"model":2})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(journal(), ElementsAre("ebtables -D FORWARD -s AA:BB:CC:DD:EE:01 -j DROP",
                                       "ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP",
                                       "ebtables -D FORWARD -s AA:BB:CC:DD:EE:02 -j DROP",
                                       "ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:02 -j DROP",
                                       "ebtables -I FORWARD -s AA:BB:CC:DD:EE:03 -j ACCEPT",
                                       "ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:03 -j ACCEPT",
                                       "ebtables -I FORWARD -s AA:BB:CC:DD:EE:04 -j ACCEPT",
                                       "ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:04 -j ACCEPT",
                                       "ip6tables -I FORWARD -i eth1 -j ACCEPT", "ip6tables -A FORWARD -j REJECT",
                                       "ebtables -I FORWARD -i eth1 -j ACCEPT", "ebtables -A FORWARD -j DROP",
                                       kFirewallReload));
    EXPECT_EQ(uciGet("macFilter.main.curmode"), "allow");
    EXPECT_THAT(lanRules(), ElementsAre("cam AA:BB:CC:DD:EE:03 ACCEPT", "tab AA:BB:CC:DD:EE:04 ACCEPT",
                                        "denyall - DROP"));
    EXPECT_THAT(bridgeForward(), ElementsAre("-i eth1 -j ACCEPT", "-s aa:bb:cc:dd:ee:04 -j ACCEPT",
                                             "-s aa:bb:cc:dd:ee:03 -j ACCEPT", "-j DROP"));
    EXPECT_THAT(ipv6Forward(),
                ElementsAre("-i eth1 -j ACCEPT", "-m mac --mac-source aa:bb:cc:dd:ee:04 -j ACCEPT",
                            "-m mac --mac-source aa:bb:cc:dd:ee:03 -j ACCEPT",
                            "-j REJECT --reject-with icmp6-port-unreachable"));

    // A device added to the white list in force goes before the catch-all, and the defaults are made again around it.
    clearJournal();
    r = call("RTMacFilter", "addMacFilterList", macListRequest(1, 2, "tv", kTv));
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(lanRules(), ElementsAre("cam AA:BB:CC:DD:EE:03 ACCEPT", "tab AA:BB:CC:DD:EE:04 ACCEPT",
                                        "tv AA:BB:CC:DD:EE:01 ACCEPT", "denyall - DROP"));
    EXPECT_THAT(bridgeForward(), ElementsAre("-i eth1 -j ACCEPT", "-s aa:bb:cc:dd:ee:01 -j ACCEPT",
                                             "-s aa:bb:cc:dd:ee:04 -j ACCEPT", "-s aa:bb:cc:dd:ee:03 -j ACCEPT",
                                             "-j DROP"));

    // White list to off: the catch-all and the defaults go first, then every entry's section and rules.
    clearJournal();
    r = call("RTMacFilter", "setMacFilter", R"({"enable":0,"model":2})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(journal(), ElementsAre("ip6tables -D FORWARD -i eth1 -j ACCEPT", "ip6tables -D FORWARD -j REJECT",
                                       "ebtables -D FORWARD -i eth1 -j ACCEPT", "ebtables -D FORWARD -j DROP",
                                       "ebtables -D FORWARD -s AA:BB:CC:DD:EE:03 -j ACCEPT",
                                       "ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:03 -j ACCEPT",
                                       "ebtables -D FORWARD -s AA:BB:CC:DD:EE:04 -j ACCEPT",
                                       "ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:04 -j ACCEPT",
                                       "ebtables -D FORWARD -s AA:BB:CC:DD:EE:01 -j ACCEPT",
                                       "ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j ACCEPT",
                                       kFirewallReload));
    EXPECT_EQ(uciGet("macFilter.main.enabled"), "0");
    EXPECT_EQ(uciGet("macFilter.main.curmode"), "no");
    EXPECT_THAT(lanRules(), IsEmpty());
    EXPECT_THAT(bridgeForward(), IsEmpty());
    EXPECT_THAT(ipv6Forward(), IsEmpty());
}

TEST_F(MacFilterTest, StartRestoresTheWhiteListKernelRulesInOrder)
{
    writeConfig("macFilter", macFilterConfig("0", "no", {}, {"AA:BB:CC:DD:EE:03/cam", "aa:bb:cc:dd:ee:04/tab",
                                                             "AA:BB:CC/short"}));
    start();
    ASSERT_EQ(call("RTMacFilter", "setMacFilter", R"({"enable":1,"model":2})").reply, R"({"result":true})");
    std::vector<std::string> bridge = bridgeForward();
    std::vector<std::string> ipv6 = ipv6Forward();
    ASSERT_EQ(bridge.size(), 4u);
    std::vector<std::string> sections = lanRules();

    // As after a reboot: empty kernel tables, the configuration kept. The start makes only the kernel rules again.
    stopDaemon();
    run({"/run/sandbox/real/ebtables", "-F", "FORWARD"});
    run({"/run/sandbox/real/ip6tables", "-w", "-F", "FORWARD"});
    clearJournal();
    startDaemon();
    EXPECT_THAT(forwardJournal(), ElementsAre("ebtables -I FORWARD -s AA:BB:CC:DD:EE:03 -j ACCEPT",
                                              "ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:03 -j ACCEPT",
                                              "ebtables -I FORWARD -s AA:BB:CC:DD:EE:04 -j ACCEPT",
                                              "ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:04 -j ACCEPT",
                                              "ip6tables -I FORWARD -i eth1 -j ACCEPT",
                                              "ip6tables -A FORWARD -j REJECT", "ebtables -I FORWARD -i eth1 -j ACCEPT",
                                              "ebtables -A FORWARD -j DROP"));
    EXPECT_TRUE(logHas("error", "macFilterInit", "macList is error"));   // the short entry
    EXPECT_EQ(bridgeForward(), bridge);
    EXPECT_EQ(ipv6Forward(), ipv6);
    EXPECT_EQ(lanRules(), sections);
}

TEST_F(MacFilterTest, DeviceBlockKeepsTheCallersTextAndUnblocksOnlyAnExactMatch)
{
    start();
    clearJournal();
    CallResult r = call("firewall", "setForbiddNet", R"({"enable":1,"mac":"aa:bb:cc:dd:ee:ff"})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(lanRules(), ElementsAre("- aa:bb:cc:dd:ee:ff DROP"));
    EXPECT_THAT(journal(), ElementsAre("ebtables -I FORWARD 1 -s aa:bb:cc:dd:ee:ff -j DROP",
                                       "ip6tables -I FORWARD -m mac --mac-source aa:bb:cc:dd:ee:ff -j DROP",
                                       kFirewallReload));
    EXPECT_THAT(bridgeForward(), ElementsAre("-s aa:bb:cc:dd:ee:ff -j DROP"));

    // Another case is another text: the section stays, though the kernel rule (case-blind) goes.
    clearJournal();
    r = call("firewall", "setForbiddNet", R"({"enable":0,"mac":"AA:BB:CC:DD:EE:FF"})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(lanRules(), ElementsAre("- aa:bb:cc:dd:ee:ff DROP"));
    EXPECT_THAT(journal(), ElementsAre("ebtables -D FORWARD -s AA:BB:CC:DD:EE:FF -j DROP",
                                       "ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:FF -j DROP",
                                       kFirewallReload));

    // enable 7 unblocks too, and the exact text finds the section.
    r = call("firewall", "setForbiddNet", R"({"enable":7,"mac":"aa:bb:cc:dd:ee:ff"})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(lanRules(), IsEmpty());

    // Text past 17 characters is cut before anything looks at it: hostile text never reaches a command.
    clearJournal();
    r = call("firewall", "setForbiddNet", R"({"enable":1,"mac":"AA:BB:CC:DD:EE:FF; reboot $(id) `id` 'x'"})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(journal(), ElementsAre("ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:FF -j DROP",
                                       "ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:FF -j DROP",
                                       kFirewallReload));

    clearJournal();
    r = call("firewall", "setForbiddNet", R"({"enable":1,"mac":"AA-BB-CC-DD-EE-FF"})");
    EXPECT_EQ(r.reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "setForbiddNetHandler", "mac is unvalid"));

    // Without a MAC there is no reply at all.
    r = call("firewall", "setForbiddNet", R"({"enable":1})");
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(r.reply, "");
    EXPECT_TRUE(logHas("error", "setForbiddNet", "tb[E_IPTV_VLANID] is NULL"));
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_THAT(lanRules(), ElementsAre("- AA:BB:CC:DD:EE:FF DROP"));
}

} // namespace
} // namespace gw::e2e
