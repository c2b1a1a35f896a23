// RTUpnp and the start-up restore in the emulated router: the stored switch, the firewall include and service
// commands in their order, the lease list, the chains made at start, and the DMZ rules in the kernel tables.
#include "support/router.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

using namespace gw::e2e;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

const std::vector<std::string> kInclude = {
    "uci set firewall.dmzupnpdomain=include",
    "uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh",
    "uci set firewall.dmzupnpdomain.reload=1",
    "uci set firewall.dmzupnpdomain.type=script",
    "uci commit firewall",
    "/etc/init.d/firewall reload",
};
const std::vector<std::string> kChains = {
    "iptables -N NatForward_DMZ",
    "iptables -t nat -N NatForward_DMZ",
    "iptables -N MINIUPNPD",
    "iptables -t nat -N MINIUPNPD",
};
constexpr const char *kLeases = "/var/run/miniupnpd.leases";

std::vector<std::string> concat(std::vector<std::string> a, const std::vector<std::string> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos)
        text.replace(at, from.size(), to);
    return text;
}

class Upnp : public RouterTest {
protected:
    CallResult set(const std::string &json) { return call("RTUpnp", "setUpnpStatus", json); }
    CallResult get() { return call("RTUpnp", "getUpnpStatus", ""); }
    void storeInit(const std::string &value)
    {
        writeConfig("upnpd", replaced(readConfig("upnpd"), "option _init '0'", "option _init '" + value + "'"));
    }
    void storeDmz(const std::string &enabled, const std::string &destIp)
    {
        writeConfig("dmz", "config dmz 'dmz'\n\toption enabled '" + enabled + "'\n\toption dest_ip '" + destIp + "'\n");
    }
};

} // namespace

TEST_F(Upnp, SwitchOnAndOffStoresAndDrivesTheService)
{
    start();
    clearJournal();

    CallResult r = set(R"({"Enable":1})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(uciGet("upnpd.@upnpd[0]._init"), "1");
    EXPECT_THAT(journal(),
                ElementsAreArray(concat(kInclude, {"/etc/init.d/miniupnpd enable", "/etc/init.d/miniupnpd start"})));
    EXPECT_EQ(uciShow("firewall.dmzupnpdomain"), "firewall.dmzupnpdomain=include\n"
                                                 "firewall.dmzupnpdomain.path='/usr/bin/dmzupnp.sh'\n"
                                                 "firewall.dmzupnpdomain.reload='1'\n"
                                                 "firewall.dmzupnpdomain.type='script'\n");
    EXPECT_TRUE(logHas("info", "NatForward_setUpnpStatus", "\n  enable [1]  ret[0] \n"));
    EXPECT_EQ(get().reply, R"({"params":{"Enable":1,"List":[]},"result":true})");

    clearJournal();
    r = set(R"({"Enable":0})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(uciGet("upnpd.@upnpd[0]._init"), "0");
    // The include is written again, not removed.
    EXPECT_THAT(journal(),
                ElementsAreArray(concat(kInclude, {"/etc/init.d/miniupnpd stop", "/etc/init.d/miniupnpd disable"})));
    EXPECT_EQ(uciGet("firewall.dmzupnpdomain.path"), "/usr/bin/dmzupnp.sh");
    EXPECT_EQ(get().reply, R"({"params":{"Enable":0,"List":[]},"result":true})");
    // The rest of the upnpd section is untouched.
    EXPECT_EQ(uciGet("upnpd.config.port"), "5000");
}

TEST_F(Upnp, RefusedSwitchValuesChangeNothing)
{
    start();
    clearJournal();
    for (const char *json : {R"({"Enable":2})", R"({"Enable":-1})"}) {
        const CallResult r = set(json);
        EXPECT_EQ(r.status, 0) << json;
        EXPECT_EQ(r.reply, R"({"result":false})") << json;
    }
    EXPECT_EQ(logCountOf("error", "NatForward_setUpnpEnabled", "enabled is invalid"), 2);

    // Sent as a text, or not at all: the argument is missing.
    for (const char *json : {R"({"Enable":"1"})", "{}", R"({"enable":1})"}) {
        const CallResult r = set(json);
        EXPECT_EQ(r.status, 0) << json;
        EXPECT_EQ(r.reply, R"({"result":false})") << json;
    }
    EXPECT_EQ(logCountOf("error", "NatForward_setUpnpStatus", "\n  enable value is invaild \n"), 3);
    EXPECT_EQ(set("").reply, R"({"result":false})"); // no message at all

    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(uciGet("upnpd.@upnpd[0]._init"), "0");
    EXPECT_EQ(uciGet("firewall.dmzupnpdomain"), std::nullopt);
}

TEST_F(Upnp, WithoutAnUpnpdSectionOrPackage)
{
    // Only the perm_rule sections are left.
    std::string upnpd = readConfig("upnpd");
    upnpd = upnpd.substr(upnpd.find("config perm_rule"));
    writeConfig("upnpd", upnpd);
    start();
    clearJournal();
    EXPECT_EQ(set(R"({"Enable":1})").reply, R"({"result":false})");
    EXPECT_EQ(get().reply, R"({"params":{"Enable":0,"List":[]},"result":true})");
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(readConfig("upnpd"), upnpd);

    removeConfig("upnpd");
    EXPECT_EQ(set(R"({"Enable":1})").reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "NatForward_setUpnpEnabled", "can't load upnpd"));
    EXPECT_EQ(get().reply, R"({"params":{"Enable":0,"List":[]},"result":true})");
    EXPECT_TRUE(logHas("error", "NatForward_getUpnpEnable", "can't load upnpd"));
    EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(Upnp, LeaseListFromTheLeaseFile)
{
    writeFile(kLeases, "TCP:8080:192.168.1.20:80:1700000000:web: admin:page\n"
                       "udp:5353:192.168.1.21:53:0:\n"
                       "tcp:1:192.168.1.22:2:0:windows line\r\n"
                       "UDP:70000:a-very-long-address-text:http\n"
                       "\n");
    storeInit("12");
    start();
    EXPECT_EQ(get().reply, R"({"params":{"Enable":12,"List":[)"
                           R"({"Description":"web: admin:page","ExternalPort":8080,"InternalIP":"192.168.1.20","InternalPort":80,"Protocol":0},)"
                           R"({"Description":"","ExternalPort":5353,"InternalIP":"192.168.1.21","InternalPort":53,"Protocol":1},)"
                           R"({"Description":"windows line","ExternalPort":1,"InternalIP":"192.168.1.22","InternalPort":2,"Protocol":0},)"
                           R"({"Description":"","ExternalPort":0,"InternalIP":"a-very-long-add","InternalPort":0,"Protocol":1},)"
                           R"({"Description":"","ExternalPort":0,"InternalIP":"","InternalPort":0,"Protocol":1}]},"result":true})");
    EXPECT_TRUE(logHas("info", "NatForward_getUpnpStatus", "\n enable [12] filename [/var/run/miniupnpd.leases] \n"));

    // 200 lines: the first 128 are listed.
    std::string many;
    for (int i = 1; i <= 200; ++i)
        many += "TCP:" + std::to_string(i) + ":10.0.0.1:" + std::to_string(i) + ":0:n" + std::to_string(i) + "\n";
    writeFile(kLeases, many);
    const std::string reply = get().reply;
    std::size_t entries = 0;
    for (std::size_t at = reply.find("\"Description\""); at != std::string::npos;
         at = reply.find("\"Description\"", at + 1))
        ++entries;
    EXPECT_EQ(entries, 128u);
    EXPECT_NE(reply.find(R"({"Description":"n128","ExternalPort":128,)"), std::string::npos);
    EXPECT_EQ(reply.find("\"n129\""), std::string::npos);
}

TEST_F(Upnp, LeaseFilesThatAreNotPlainFiles)
{
    // A long and binary line, then a FIFO with no writer (must not hang the daemon), a folder, a missing file.
    std::string bytes = "TCP:1:10.0.0.1:2:0:" + std::string(3000, 'x') + "\nUDP:3:10.0.0.2:4:0:be";
    bytes += '\0';
    bytes += "fore\n";
    writeFile(kLeases, bytes);
    start();
    const std::string reply = get().reply;
    EXPECT_NE(reply.find("\"Description\":\"" + std::string(1023 - 19, 'x') + "\",\"ExternalPort\":1,"),
              std::string::npos);
    EXPECT_NE(reply.find(R"({"Description":"be","ExternalPort":3,"InternalIP":"10.0.0.2")"), std::string::npos);

    const std::string empty = R"({"params":{"Enable":0,"List":[]},"result":true})";
    ASSERT_EQ(run({"rm", kLeases}).status, 0);
    EXPECT_EQ(get().reply, empty);
    ASSERT_EQ(run({"mkfifo", kLeases}).status, 0);
    EXPECT_EQ(call("RTUpnp", "getUpnpStatus", "", 5).reply, empty);
    ASSERT_EQ(run({"rm", kLeases}).status, 0);
    ASSERT_EQ(run({"mkdir", kLeases}).status, 0);
    EXPECT_EQ(get().reply, empty);
}

TEST_F(Upnp, StartMakesTheChainsAndRestoresTheService)
{
    storeInit("1");
    storeDmz("1", "192.168.1.50");
    start();
    EXPECT_THAT(journal(),
                ElementsAreArray(concat(concat(kChains, kInclude),
                                        {"/etc/init.d/miniupnpd enable", "/etc/init.d/miniupnpd start",
                                         "iptables -t nat -I NatForward_DMZ -p all -j DNAT --to 192.168.1.50",
                                         "iptables -I NatForward_DMZ -p all -j ACCEPT"})));
    for (const char *table : {"filter", "nat"}) {
        EXPECT_THAT(iptablesRules(table), Contains("-N NatForward_DMZ")) << table;
        EXPECT_THAT(iptablesRules(table), Contains("-N MINIUPNPD")) << table;
    }
    EXPECT_THAT(iptablesRules("nat"), Contains("-A NatForward_DMZ -j DNAT --to-destination 192.168.1.50"));
    EXPECT_THAT(iptablesRules("filter"), Contains("-A NatForward_DMZ -j ACCEPT"));
    // Not linked by the daemon: that is the firewall include's job.
    EXPECT_THAT(iptablesRules("nat"), Not(Contains("-A PREROUTING -j NatForward_DMZ")));

    // Every start inserts the rules again at the head; the chains are not flushed.
    clearJournal();
    restartDaemon();
    std::vector<std::string> dnat;
    for (const auto &rule : iptablesRules("nat"))
        if (rule.rfind("-A NatForward_DMZ", 0) == 0)
            dnat.push_back(rule);
    EXPECT_THAT(dnat, ElementsAre("-A NatForward_DMZ -j DNAT --to-destination 192.168.1.50",
                                  "-A NatForward_DMZ -j DNAT --to-destination 192.168.1.50"));
}

TEST_F(Upnp, StartLeavesServiceAndDmzAloneWhenOffOrUnusable)
{
    // Switch off, DMZ on with an address that ends in a dot.
    storeDmz("1", "192.168.1.");
    start();
    EXPECT_THAT(journal(), ElementsAreArray(kChains));
    EXPECT_TRUE(logHas("error", "NatForward_upnpRestore", " NatForward_upnpRestore no \n"));

    // DMZ off.
    storeDmz("0", "192.168.1.50");
    clearJournal();
    restartDaemon();
    EXPECT_THAT(journal(), ElementsAreArray(kChains));

    // A switch that is no number and no dmz package: both reads fail with their messages, nothing is done.
    storeInit("on");
    removeConfig("dmz");
    clearJournal();
    restartDaemon();
    EXPECT_THAT(journal(), ElementsAreArray(kChains));
    EXPECT_TRUE(logHas("error", "NatForward_getUpnpEnabled", "error setEnabled( enabled=0)"));
    EXPECT_FALSE(logHas("error", "NatForward_upnpRestore", " NatForward_upnpRestore no \n"));
    EXPECT_TRUE(logHas("error", "NatForward_getDmzEnabled", "can't load dmz"));
    for (const auto &rule : iptablesRules("nat"))
        EXPECT_EQ(rule.rfind("-A NatForward_DMZ", 0), std::string::npos) << rule;
}

TEST_F(Upnp, HostileDmzAddressIsOneArgument)
{
    storeDmz("1", "1.2;$(reboot)`id` x");
    start();
    // Cut to 15 characters, handed to iptables as one argument, refused by it; nothing else ran.
    EXPECT_THAT(journal(), ElementsAreArray(concat(kChains, {"iptables -t nat -I NatForward_DMZ -p all -j DNAT --to "
                                                             "'1.2;$(reboot)`i'",
                                                             "iptables -I NatForward_DMZ -p all -j ACCEPT"})));
    for (const auto &rule : iptablesRules("nat"))
        EXPECT_EQ(rule.find("DNAT"), std::string::npos) << rule;
}
