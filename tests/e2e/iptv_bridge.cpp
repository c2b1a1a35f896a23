// The IPTV bridge through the bus, inside the emulated router: RTIptv and zelmad.vlan replies, the iptv and
// network packages read back through uci, the command journal (DNS rule order, the delayed network reload) and
// the restore of the DNS rules at start.
#include "support/router.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace gw::e2e;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

const char *const kReload = "/etc/init.d/network reload";

// The four DNS rules of one member, as the journal shows them, in the order they are run.
std::vector<std::string> dnsRules(const std::string &verb, const std::string &member)
{
    const std::string head = "ebtables --concurrent -t broute " + verb + " BROUTING -i " + member;
    return {head + " -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT",
            head + " -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT",
            head + " -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT",
            head + " -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT"};
}

std::vector<std::string> concat(std::initializer_list<std::vector<std::string>> parts)
{
    std::vector<std::string> all;
    for (const auto &p : parts)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}

std::vector<std::string> only(const std::vector<std::string> &lines, const std::string &prefix)
{
    std::vector<std::string> out;
    for (const auto &l : lines)
        if (l.rfind(prefix, 0) == 0)
            out.push_back(l);
    return out;
}

// The journal without the delayed reload, which may or may not have come yet, depending on how long the checks
// before took.
std::vector<std::string> withoutReload(const std::vector<std::string> &lines)
{
    std::vector<std::string> out;
    for (const auto &l : lines)
        if (l != "/etc/init.d/network reload")
            out.push_back(l);
    return out;
}

long countOf(const std::vector<std::string> &lines, const std::string &line)
{
    return std::count(lines.begin(), lines.end(), line);
}

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

const char *const kIptvOnTagged13 = R"({"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":1})";

class IptvTest : public RouterTest {
protected:
    std::string opt(const std::string &path) { return uciGet(path).value_or("<missing>"); }

    // The stored setting as "enabled vlanid vlan1 vlan2 vlan3 type vlan24g vlan5g", from one `uci show`.
    std::string stored()
    {
        const std::vector<std::string> lines = splitLines(uciShow("iptv.main"));
        std::string s;
        for (const char *o : {"enabled", "vlanid", "vlan1", "vlan2", "vlan3", "type", "vlan24g", "vlan5g"}) {
            const std::string prefix = std::string("iptv.main.") + o + "='";
            std::string value = "<missing>";
            for (const auto &l : lines)
                if (l.rfind(prefix, 0) == 0 && l.back() == '\'')
                    value = l.substr(prefix.size(), l.size() - prefix.size() - 1);
            s += (s.empty() ? "" : " ") + value;
        }
        return s;
    }
};

} // namespace

// RTIptv on, unchanged, off, off again. Switching IPTV on for tagged LAN ports 1 and 3 builds the bridge, takes
// the ports out of the LAN, inserts the DNS rules member by member and reloads the network once, a second later.
TEST_F(IptvTest, RtIptvOnUnchangedOffAndOffAgain)
{
    start();
    clearJournal();

    CallResult r = call("RTIptv", "setIptv", kIptvOnTagged13);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");

    EXPECT_EQ(stored(), "1 100 1 0 1 1 0 0");
    EXPECT_EQ(opt("network.iptv"), "interface");
    EXPECT_EQ(opt("network.iptv.device"), "br-iptv");
    EXPECT_EQ(opt("network.iptv.type"), "bridge");
    EXPECT_EQ(opt("network.iptv.ifname"), "lan1.100 lan3.100 eth1.100");
    EXPECT_EQ(opt("network.device.ifname"), "lan2");

    // The section is created through the uci tool, then the DNS rules follow port by port; nothing else ran.
    std::vector<std::string> expected = concat({{"uci set network.iptv=interface", "uci commit network"},
                                                dnsRules("-I", "lan1.100"), dnsRules("-I", "lan3.100")});
    EXPECT_THAT(withoutReload(journal()), ElementsAreArray(expected));
    ASSERT_TRUE(waitJournal(kReload, 5000));
    EXPECT_EQ(countOf(journal(), kReload), 1);
    EXPECT_EQ(journal().back(), kReload);

    EXPECT_TRUE(logHas("error", "addIptvVlan",
                       "switchCmd [/usr/bin/iptvswitch lan1.100 lan3.100  ] lanCmd [lan1.100 lan3.100 ] "));
    EXPECT_TRUE(logHas("error", "addIptvVlan", "switchCmd [/usr/bin/iptvswitch lan1.100 lan3.100  ]"));
    EXPECT_TRUE(logHas("info", "reloadNetworkTimer",
                       "................................................./etc/init.d/network "
                       "restart................................."));

    r = call("RTIptv", "getIptvInfo");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"params":{"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":1},"result":true})");

    clearJournal();
    r = call("RTIptv", "setIptv", kIptvOnTagged13);
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_TRUE(logHas("error", "setIptvHandler", "this config is same"));
    sleepMs(1300); // longer than the reload delay: an armed reload would show up
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(opt("network.iptv.ifname"), "lan1.100 lan3.100 eth1.100");

    // Switching off removes the DNS rules of the members that really carry the ports, deletes the bridge, puts
    // the ports back into the LAN list and has the remove step arm the reload.
    r = call("RTIptv", "setIptv", R"({"enable":0,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":1})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");

    EXPECT_EQ(stored(), "0 100 1 0 1 1 0 0");
    EXPECT_EQ(opt("network.iptv"), "<missing>");
    EXPECT_EQ(opt("network.device.ifname"), "lan2 lan1 lan3");
    EXPECT_THAT(withoutReload(journal()),
                ElementsAreArray(concat({dnsRules("-D", "lan1.100"), dnsRules("-D", "lan3.100")})));
    EXPECT_TRUE(logHas("info", "delIptvVlan", "cmd [ip link delete dev eth1.100] "));
    EXPECT_TRUE(logHas("info", "delIptvVlan", "iptv delete  "));
    ASSERT_TRUE(waitJournal(kReload, 5000));
    EXPECT_EQ(countOf(journal(), kReload), 1);

    // Off to off with other ports: only the package is written, no command runs.
    clearJournal();
    r = call("RTIptv", "setIptv", R"({"enable":0,"vlanId":7,"vlan1":0,"vlan2":1,"vlan3":0,"type":0})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(stored(), "0 7 0 1 0 0 0 0");
    sleepMs(1300);
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(opt("network.device.ifname"), "lan2 lan1 lan3");
}

// Two changes 400 ms apart: the second arming restarts the delay, so the network is reloaded once, a second
// after the second change. Counted from the first change, the reload would come while or right after the second
// change runs; so it must not be there when the second call returns, and must come most of a second later.
TEST_F(IptvTest, TwoChangesWithinASecondGiveOneReloadAfterTheLater)
{
    start();
    clearJournal();
    ASSERT_EQ(call("RTIptv", "setIptv", R"({"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":0,"type":0})").reply,
              R"({"result":true})");
    sleepMs(400);
    CallResult r = call("RTIptv", "setIptv", R"({"enable":1,"vlanId":200,"vlan1":0,"vlan2":1,"vlan3":0,"type":0})");
    auto returned = std::chrono::steady_clock::now();
    ASSERT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(countOf(journal(), kReload), 0);
    ASSERT_TRUE(waitJournal(kReload, 5000));
    auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - returned);
    EXPECT_GE(waited.count(), 700);
    sleepMs(1200);
    EXPECT_EQ(countOf(journal(), kReload), 1);
    EXPECT_EQ(journal().back(), kReload);

    // The change kept IPTV on with another VLAN: the old member's rules went, the new member's came, the bridge
    // now holds lan2 and eth1.200, and lan1 is back in the LAN list.
    EXPECT_THAT(only(journal(), "ebtables"),
                ElementsAreArray(concat({dnsRules("-I", "lan1"), dnsRules("-D", "lan1"), dnsRules("-I", "lan2")})));
    EXPECT_EQ(opt("network.iptv.ifname"), "lan2 eth1.200");
    EXPECT_EQ(opt("network.device.ifname"), "lan3 lan1");
    EXPECT_TRUE(logHas("info", "delIptvVlan", "cmd [ip link delete dev eth1.100] "));
    EXPECT_FALSE(logHas("info", "delIptvVlan", "iptv delete  "));
}

// Argument checks and bounds of RTIptv, and its readers on incomplete packages.
TEST_F(IptvTest, RtIptvRefusesMissingArgumentsAndOutOfRangeVlanIds)
{
    start();
    clearJournal();
    const std::string before = uciExport("iptv");

    // A required argument missing, or of the wrong type: no reply, a failure status, nothing read or changed.
    CallResult r = call("RTIptv", "setIptv", R"({"enable":1,"vlanId":100,"vlan1":1,"vlan3":1,"type":0})");
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(r.reply, "");
    EXPECT_TRUE(logHas("error", "setIptv", "tb[E_IPTV_LAN2] is NULL"));
    EXPECT_TRUE(logHas("info", "setIptv", "setIptv vlan1:1"));
    r = call("RTIptv", "setIptv", R"({"enable":"1","vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":0})");
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(r.reply, "");
    EXPECT_TRUE(logHas("error", "setIptv", "tb[E_IPTV_ENABLE] is NULL"));

    // VLAN ids 4095 and above (compared unsigned, so -1 too) are refused with result false.
    for (const char *id : {"4095", "65535", "-1"}) {
        r = call("RTIptv", "setIptv",
                 std::string(R"({"enable":1,"vlan1":1,"vlan2":0,"vlan3":0,"type":0,"vlanId":)") + id + "}");
        EXPECT_EQ(r.status, 0) << id;
        EXPECT_EQ(r.reply, R"({"result":false})") << id;
    }
    EXPECT_EQ(uciExport("iptv"), before);
    EXPECT_THAT(journal(), IsEmpty());

    // 4094 is accepted; a missing vlanId is 0.
    r = call("RTIptv", "setIptv", R"({"enable":1,"vlanId":4094,"vlan1":0,"vlan2":0,"vlan3":1,"type":1})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(opt("network.iptv.ifname"), "lan3.4094 eth1.4094");
    r = call("RTIptv", "setIptv", R"({"enable":1,"vlan1":1,"vlan2":0,"vlan3":0,"type":0})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(opt("network.iptv.ifname"), "lan1 eth1.0");
    EXPECT_EQ(opt("network.device.ifname"), "lan2 lan3");

    EXPECT_EQ(call("RTIptv", "test").reply, R"({"result":true})");

    // getIptvInfo stops at the first option it cannot read; a missing type reads as 0 and still succeeds.
    uci({"delete", "iptv.main.type"});
    uci({"commit", "iptv"});
    r = call("RTIptv", "getIptvInfo");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"params":{"enable":1,"vlanId":0,"vlan1":1,"vlan2":0,"vlan3":0,"type":0},"result":true})");
    uci({"delete", "iptv.main.vlan2"});
    uci({"commit", "iptv"});
    r = call("RTIptv", "getIptvInfo");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"params":{"enable":1,"vlanId":0,"vlan1":1},"result":false})");
    EXPECT_TRUE(logHas("error", "getIptvInfoHandler", "uciGetConfig iptv main lan2 ERROR"));
}

// At start the DNS rules of a stored, switched-on setting come back on the interfaces that carry the ports: with
// type 1 that is the port's VLAN sub-interface. The network package and the reload are left alone.
TEST_F(IptvTest, StartRestoresTheDnsRulesOfTheStoredSetting)
{
    writeConfig("iptv", "config iptv 'main'\n\toption enabled '1'\n\toption vlanid '100'\n\toption vlan1 '0'\n"
                        "\toption vlan2 '1'\n\toption vlan3 '0'\n\toption type '1'\n\toption vlan24g '0'\n"
                        "\toption vlan5g '0'\n");
    const std::string network = readConfig("network");
    start();
    EXPECT_EQ(only(journal(), "ebtables --concurrent -t broute"), dnsRules("-I", "lan2.100"));
    EXPECT_TRUE(logHas("info", "iptvInit", "in iptvInit"));
    EXPECT_TRUE(logHas("error", "iptvInit", "uciGetConfig UCI_MACFILTER_FILE main vlan1 ERROR"));
    EXPECT_FALSE(logHas("error", "iptvInit", "uciGetConfig UCI_MACFILTER_FILE main enabled ERROR"));

    // Untagged ports: the rules go on the plain port names.
    uci({"set", "iptv.main.type=0"});
    uci({"set", "iptv.main.vlan3=1"});
    uci({"commit", "iptv"});
    clearJournal();
    restartDaemon();
    EXPECT_EQ(only(journal(), "ebtables --concurrent -t broute"),
              concat({dnsRules("-I", "lan2"), dnsRules("-I", "lan3")}));

    // Switched off: every read still happens, the enabled line is logged and no rule is inserted.
    uci({"set", "iptv.main.enabled=0"});
    uci({"commit", "iptv"});
    clearJournal();
    restartDaemon();
    EXPECT_THAT(only(journal(), "ebtables --concurrent -t broute"), IsEmpty());
    EXPECT_TRUE(logHas("error", "iptvInit", "uciGetConfig UCI_MACFILTER_FILE main enabled ERROR"));
    EXPECT_TRUE(logHas("error", "iptvInit", "uciGetConfig UCI_MACFILTER_FILE main vlan1 ERROR"));
    sleepMs(1200);
    EXPECT_EQ(countOf(journal(), kReload), 0);
    EXPECT_EQ(readConfig("network"), network);
}

// zelmad.vlan: ports and radios from iptvStatus, reported back in the same shape; switching off resets the
// stored options (type untouched), removes the bridge and reloads; a type stored through RTIptv is kept.
TEST_F(IptvTest, AgentSetsPortAndRadioSwitchesOffAndKeepsTheStoredType)
{
    start();
    clearJournal();
    CallResult r = call("zelmad.vlan", "setIptvVlan",
                        R"({"vlanEnable":1,"vlanId":100,"iptvStatus":[{"radio":"LAN","index":2},{"radio":"5G","index":6},)"
                        R"({"radio":"2.4G","index":1},{"radio":"2.4G","index":3},{"radio":"LAN","index":4},)"
                        R"({"radio":"$(touch /tmp/pwned);`id` x","index":1}]})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(stored(), "1 100 0 1 0 0 3 2");
    EXPECT_EQ(opt("network.iptv.ifname"), "lan2 eth1.100");
    EXPECT_EQ(opt("network.device.ifname"), "lan1 lan3");
    // The radio texts never reach a command: the journal holds the bridge and the DNS rules of lan2, nothing else.
    EXPECT_THAT(withoutReload(journal()),
                ElementsAreArray(concat({{"uci set network.iptv=interface", "uci commit network"},
                                         dnsRules("-I", "lan2")})));
    EXPECT_FALSE(fileExists("/tmp/pwned"));
    ASSERT_TRUE(waitJournal(kReload, 5000));

    r = call("zelmad.vlan", "getIptvVlan");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"zelmad.vlan":{"vlanEnable":1,"vlanId":100,"iptvStatus":[{"radio":"LAN","index":2},)"
                       R"({"radio":"2.4G","index":3},{"radio":"5G","index":2}]}})");

    clearJournal();
    r = call("zelmad.vlan", "setIptvVlan", R"({"vlanEnable":0})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(stored(), "0 0 0 0 0 0 0 0");
    EXPECT_TRUE(logHas("error", "setIptvVlan", "tb[E_IPTV_VLAN_STATUS] is NULL"));
    EXPECT_EQ(opt("network.iptv"), "<missing>");
    EXPECT_EQ(opt("network.device.ifname"), "lan1 lan3 lan2");
    EXPECT_THAT(only(journal(), "ebtables"), ElementsAreArray(dnsRules("-D", "lan2")));
    ASSERT_TRUE(waitJournal(kReload, 5000));
    EXPECT_EQ(countOf(journal(), kReload), 1);

    r = call("zelmad.vlan", "getIptvVlan");
    EXPECT_EQ(r.reply, R"({"zelmad.vlan":{"vlanEnable":0,"vlanId":0,"iptvStatus":[]}})");

    // The agent keeps the type that RTIptv stored: removing the old setting deletes the DNS rules of the tagged
    // member that really carries the port, and the new setting joins the port tagged again.
    clearJournal();
    ASSERT_EQ(call("RTIptv", "setIptv", R"({"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":0,"type":1})").reply,
              R"({"result":true})");
    ASSERT_TRUE(waitJournal(kReload, 5000));
    clearJournal();

    r = call("zelmad.vlan", "setIptvVlan", R"({"vlanEnable":1,"vlanId":200,"iptvStatus":[{"radio":"LAN","index":1}]})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(only(journal(), "ebtables"),
                ElementsAreArray(concat({dnsRules("-D", "lan1.100"), dnsRules("-I", "lan1.200")})));
    EXPECT_EQ(stored(), "1 200 1 0 0 1 0 0");
    EXPECT_EQ(opt("network.iptv.ifname"), "lan1.200 eth1.200");
    ASSERT_TRUE(waitJournal(kReload, 5000));
    EXPECT_EQ(countOf(journal(), kReload), 1);
}

// zelmad.vlan array handling: six table slots (strings skipped without taking one, the seventh table ignored), an
// incomplete element refuses the whole request with status 2, and an off setting keeps left-over options.
TEST_F(IptvTest, AgentArraySlotsAndIncompleteElements)
{
    start();
    clearJournal();
    const std::string before = uciExport("iptv");

    CallResult r = call("zelmad.vlan", "setIptvVlan",
                        R"({"vlanEnable":1,"vlanId":100,"iptvStatus":[{"radio":"LAN","index":1},{"radio":"LAN"}]})");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.reply, "");
    EXPECT_TRUE(logHas("error", "setIptvVlan", "tb[1] not found"));
    r = call("zelmad.vlan", "setIptvVlan", R"({"vlanEnable":1,"iptvStatus":[{"index":1}]})");
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(logHas("error", "setIptvVlan", "tb[0] not found"));
    EXPECT_EQ(uciExport("iptv"), before);
    EXPECT_THAT(journal(), IsEmpty());

    // "x" and 5 are not tables and take no slot; the six tables after them do, and the seventh table (LAN 3) is
    // never looked at, even though it lacks "index".
    r = call("zelmad.vlan", "setIptvVlan",
             R"({"vlanEnable":0,"vlanId":9,"iptvStatus":["x",5,{"radio":"2.4G","index":2},{"radio":"x","index":1},)"
             R"({"radio":"x","index":1},{"radio":"x","index":1},{"radio":"x","index":1},)"
             R"({"radio":"LAN","index":1},{"radio":"LAN"}]})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(stored(), "0 9 1 0 0 0 2 0");

    // Stored off with vlan1 left over; on with only LAN 2: vlan1 stays "1" in the package, only lan2 joins.
    r = call("zelmad.vlan", "setIptvVlan",
             R"({"vlanEnable":1,"vlanId":100,"iptvStatus":[{"radio":"LAN","index":2}]})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(stored(), "1 100 1 1 0 0 2 0");
    EXPECT_EQ(opt("network.iptv.ifname"), "lan2 eth1.100");
}
