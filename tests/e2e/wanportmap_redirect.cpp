// RTWanPortMap in the emulated router: the stored setting, the generated script and that it ran, the rules it
// leaves in the mangle, nat and filter tables, the apply delays, the chains made where the platform lacks them,
// and refused input.
#include "support/router.h"

#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace gw::e2e;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *kScript = "/tmp/wanPortMap.sh";
constexpr const char *kLog = "/tmp/wanPortMap.log";
constexpr const char *kFlushJournal = "iptables -w -t mangle -F WanPortMapPREROUTING";

const std::string kFlush = "#!/bin/sh\n"
                           "iptables -w -t mangle -F WanPortMapPREROUTING\n"
                           "iptables -w -t nat -F WanPortMapPREROUTING\n"
                           "iptables -w -t filter -F WanPortMapINPUT\n";

long msSince(Clock::time_point t)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

class WanPortMap : public RouterTest {
protected:
    CallResult set(const std::string &json) { return call("RTWanPortMap", "setWanPortMap", json); }
    CallResult get() { return call("RTWanPortMap", "getWanPortMap", ""); }

    // Waits until the script has run: its log holds the daemon's process id, which it echoes last.
    bool waitApplied(int timeoutMs = 5000)
    {
        const std::string pid = std::to_string(daemonPid()) + "\n";
        const auto t0 = Clock::now();
        while (msSince(t0) < timeoutMs) {
            if (readFile(kLog) == pid)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    // Polls for the script file and gives the time it appeared, counted from t0; -1 when it did not.
    long scriptAppearsAfter(Clock::time_point t0, int timeoutMs)
    {
        while (msSince(t0) < timeoutMs) {
            if (fileExists(kScript))
                return msSince(t0);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }
    // The rules of one of the redirect chains as `iptables -S` prints them.
    std::vector<std::string> chain(const std::string &table, const std::string &name)
    {
        std::vector<std::string> out;
        for (const auto &rule : iptablesRules(table))
            if (rule.rfind("-A " + name + " ", 0) == 0)
                out.push_back(rule);
        return out;
    }
    std::string anySourceScript(unsigned exPort, unsigned inPort)
    {
        const std::string ex = std::to_string(exPort), in = std::to_string(inPort);
        return kFlush + "iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport " + ex +
               " -j MARK --set-mark 0x8888\n" + "iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport " + ex +
               " -j REDIRECT --to-ports " + in + "\n" + "iptables -w -t filter -A WanPortMapINPUT -p tcp --dport " +
               in + " -m mark --mark 0x8888 -j ACCEPT\n" + "echo " + std::to_string(daemonPid());
    }
};

} // namespace

TEST_F(WanPortMap, AnySourceRedirectIsStoredAndAppliedOneSecondLater)
{
    start();
    EXPECT_EQ(get().reply, R"({"params":{"Enabled":0,"InPort":0,"ExPort":0,"RemoteAddr":"0.0.0.0"},"result":true})");
    clearJournal();

    const auto t0 = Clock::now();
    const CallResult r = set(R"({"Enabled":1,"InPort":8080,"ExPort":80})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_EQ(uciShow("WanPortMap"), "WanPortMap.wanPortMap=redirect\n"
                                     "WanPortMap.wanPortMap.enabled='1'\n"
                                     "WanPortMap.wanPortMap.InPort='8080'\n"
                                     "WanPortMap.wanPortMap.ExPort='80'\n"
                                     "WanPortMap.wanPortMap.RemoteAddr='0.0.0.0'\n");
    EXPECT_EQ(get().reply,
              R"({"params":{"Enabled":1,"InPort":8080,"ExPort":80,"RemoteAddr":"0.0.0.0"},"result":true})");
    EXPECT_TRUE(logHas("info", "ubus_setConfig", "ret=0"));

    const long appeared = scriptAppearsAfter(t0, 5000);
    EXPECT_GE(appeared, 1000) << "applied before its delay";
    ASSERT_TRUE(waitApplied());
    EXPECT_EQ(readFile(kScript), anySourceScript(80, 8080));
    const auto mode = run({"stat", "-c", "%a", kScript});
    EXPECT_EQ(mode.out, "755\n");

    EXPECT_THAT(chain("mangle", "WanPortMapPREROUTING"),
                ElementsAre("-A WanPortMapPREROUTING -i eth1 -p tcp -m tcp --dport 80 -j MARK --set-xmark "
                            "0x8888/0xffffffff"));
    EXPECT_THAT(chain("nat", "WanPortMapPREROUTING"),
                ElementsAre("-A WanPortMapPREROUTING -p tcp -m tcp --dport 80 -j REDIRECT --to-ports 8080"));
    EXPECT_THAT(chain("filter", "WanPortMapINPUT"),
                ElementsAre("-A WanPortMapINPUT -p tcp -m tcp --dport 8080 -m mark --mark 0x8888 -j ACCEPT"));
    // The platform's chains were there already: the daemon only checked their links.
    for (const auto &line : journal())
        EXPECT_EQ(line.find(" -I "), std::string::npos) << line;
}

TEST_F(WanPortMap, RemoteSourceUpdatesTheFirstRedirectSection)
{
    // Another program's redirect section comes first, whatever its name: it is the one used.
    writeConfig("WanPortMap", "config redirect 'fromweb'\n\toption enabled '1'\n\toption InPort '1'\n"
                              "\toption ExPort '2'\n\toption RemoteAddr '0.0.0.0'\n\n"
                              "config redirect 'second'\n\toption InPort '3'\n");
    start();
    EXPECT_EQ(get().reply, R"({"params":{"Enabled":1,"InPort":1,"ExPort":2,"RemoteAddr":"0.0.0.0"},"result":true})");

    EXPECT_EQ(set(R"({"Enabled":1,"InPort":22,"ExPort":2222,"RemoteAddr":"192.168.5.7"})").reply,
              R"({"result":true})");
    EXPECT_EQ(uciShow("WanPortMap"), "WanPortMap.fromweb=redirect\n"
                                     "WanPortMap.fromweb.enabled='1'\n"
                                     "WanPortMap.fromweb.InPort='22'\n"
                                     "WanPortMap.fromweb.ExPort='2222'\n"
                                     "WanPortMap.fromweb.RemoteAddr='192.168.5.7'\n"
                                     "WanPortMap.second=redirect\n"
                                     "WanPortMap.second.InPort='3'\n");
    ASSERT_TRUE(waitApplied());
    EXPECT_NE(readFile(kScript).find("iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport 2222 -s 192.168.5.7 "
                                     "-j REDIRECT --to-ports 22\n"),
              std::string::npos);
    EXPECT_THAT(chain("mangle", "WanPortMapPREROUTING"),
                ElementsAre("-A WanPortMapPREROUTING -s 192.168.5.7/32 -i eth1 -p tcp -m tcp --dport 2222 -j MARK "
                            "--set-xmark 0x8888/0xffffffff"));
    EXPECT_THAT(chain("nat", "WanPortMapPREROUTING"),
                ElementsAre("-A WanPortMapPREROUTING -s 192.168.5.7/32 -p tcp -m tcp --dport 2222 -j REDIRECT "
                            "--to-ports 22"));
    EXPECT_THAT(chain("filter", "WanPortMapINPUT"),
                ElementsAre("-A WanPortMapINPUT -s 192.168.5.7/32 -p tcp -m tcp --dport 22 -m mark --mark 0x8888 "
                            "-j ACCEPT"));

    // Switched off: the next apply only empties the chains. Enabled counts by its low 8 bits, so 256 is off.
    ASSERT_EQ(run({"rm", kLog}).status, 0);
    EXPECT_EQ(set(R"({"Enabled":256,"InPort":22,"ExPort":2222})").reply, R"({"result":true})");
    EXPECT_EQ(uciGet("WanPortMap.fromweb.enabled"), "0");
    EXPECT_EQ(uciGet("WanPortMap.fromweb.RemoteAddr"), "0.0.0.0");
    ASSERT_TRUE(waitApplied());
    EXPECT_EQ(readFile(kScript), kFlush + "echo " + std::to_string(daemonPid()));
    EXPECT_THAT(chain("mangle", "WanPortMapPREROUTING"), IsEmpty());
    EXPECT_THAT(chain("nat", "WanPortMapPREROUTING"), IsEmpty());
    EXPECT_THAT(chain("filter", "WanPortMapINPUT"), IsEmpty());
}

TEST_F(WanPortMap, RefusedRequestsStoreNothingAndApplyNothing)
{
    start();
    clearJournal();
    const std::string refused = R"({"result":false})";
    EXPECT_EQ(set(R"({"Enabled":1,"InPort":8080,"ExPort":80,"RemoteAddr":"1.2.3"})").reply, refused);
    EXPECT_TRUE(logHas("error", "ubus_setConfig", "RemoteAddr(1.2.3) is invaild"));
    const std::string hostile = "1.2.3.4; reboot $(touch /tmp/x) `touch /tmp/y` 'q\"";
    EXPECT_EQ(set(R"({"Enabled":1,"InPort":8080,"ExPort":80,"RemoteAddr":"1.2.3.4; reboot $(touch /tmp/x) `touch /tmp/y` 'q\""})")
                  .reply,
              refused);
    EXPECT_TRUE(logHas("error", "ubus_setConfig", "RemoteAddr(" + hostile + ") is invaild"));
    for (const char *addr : {"::1", "1.2.3.4.5", "256.1.1.1", " 1.2.3.4", "1.2.3.4/24", ""})
        EXPECT_EQ(set(std::string(R"({"Enabled":1,"InPort":8080,"ExPort":80,"RemoteAddr":")") + addr + "\"}").reply,
                  refused)
            << addr;

    // Enabled sent as a text counts as missing; every missing argument is named.
    EXPECT_EQ(set(R"({"Enabled":"1","InPort":8080,"ExPort":80})").reply, refused);
    EXPECT_EQ(logCountOf("error", "ubus_setConfig", "enabled is invaild"), 1);
    EXPECT_EQ(set(R"({"Enabled":1})").reply, refused);
    EXPECT_TRUE(logHas("error", "ubus_setConfig", "InPort is invaild"));
    EXPECT_TRUE(logHas("error", "ubus_setConfig", "ExPort is invaild"));
    EXPECT_EQ(set("").reply, refused);
    EXPECT_EQ(logCountOf("error", "ubus_setConfig", "enabled is invaild"), 2);
    EXPECT_EQ(logCountOf("info", "ubus_setConfig", "ret=-1"), 11);

    // Nothing stored, nothing armed: well past the apply delay there is still no script.
    EXPECT_EQ(readConfig("WanPortMap"), "");
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_FALSE(fileExists(kScript));
    EXPECT_FALSE(fileExists("/tmp/x"));
    EXPECT_FALSE(fileExists("/tmp/y"));
    EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(WanPortMap, PortsAreTakenAsTheyCome)
{
    start();
    // A zero port is stored; the script then only empties the chains.
    EXPECT_EQ(set(R"({"Enabled":1,"InPort":0,"ExPort":80})").reply, R"({"result":true})");
    ASSERT_TRUE(waitApplied());
    EXPECT_EQ(readFile(kScript), kFlush + "echo " + std::to_string(daemonPid()));

    // No range test: a negative or too large port is stored as sent; iptables refuses it in the script's log.
    ASSERT_EQ(run({"rm", kLog}).status, 0);
    EXPECT_EQ(set(R"({"Enabled":1,"InPort":-1,"ExPort":70000})").reply, R"({"result":true})");
    EXPECT_EQ(uciGet("WanPortMap.wanPortMap.InPort"), "4294967295");
    EXPECT_EQ(uciGet("WanPortMap.wanPortMap.ExPort"), "70000");
    EXPECT_EQ(get().reply,
              R"({"params":{"Enabled":1,"InPort":-1,"ExPort":70000,"RemoteAddr":"0.0.0.0"},"result":true})");
    ASSERT_TRUE(waitLog("debug", "LC_SystemCall", "/tmp/wanPortMap.sh > /tmp/wanPortMap.log 2>&1 &"));
    const auto t0 = Clock::now();
    while (readFile(kLog).find(std::to_string(daemonPid())) == std::string::npos && msSince(t0) < 5000)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(readFile(kScript), anySourceScript(70000, 4294967295u));
    EXPECT_NE(readFile(kLog).find("70000"), std::string::npos) << readFile(kLog);
    EXPECT_THAT(chain("nat", "WanPortMapPREROUTING"), IsEmpty());
    EXPECT_THAT(chain("filter", "WanPortMapINPUT"), IsEmpty());
}

TEST_F(WanPortMap, TwoChangesCloseTogetherGiveOneApply)
{
    start();
    clearJournal();
    EXPECT_EQ(set(R"({"Enabled":1,"InPort":8080,"ExPort":80})").reply, R"({"result":true})");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto second = Clock::now();
    EXPECT_EQ(set(R"({"Enabled":1,"InPort":9090,"ExPort":90})").reply, R"({"result":true})");
    const long appeared = scriptAppearsAfter(second, 5000);
    EXPECT_GE(appeared, 1000) << "the second change did not restart the delay";
    ASSERT_TRUE(waitApplied());
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // room for a wrong second apply
    int applies = 0;
    for (const auto &line : journal())
        applies += line == kFlushJournal;
    EXPECT_EQ(applies, 1);
    EXPECT_EQ(readFile(kScript), anySourceScript(90, 9090));
}

TEST_F(WanPortMap, MissingChainsAreMadeAndLinked)
{
    // A platform without the chains: remove the links and the chains before the daemon starts.
    struct Link {
        const char *table, *builtin, *chain;
    };
    const Link links[] = {{"mangle", "PREROUTING", "WanPortMapPREROUTING"},
                          {"nat", "PREROUTING", "WanPortMapPREROUTING"},
                          {"filter", "INPUT", "WanPortMapINPUT"}};
    for (const Link &l : links) {
        ASSERT_EQ(run({"/run/sandbox/real/iptables", "-t", l.table, "-D", l.builtin, "-j", l.chain}).status, 0);
        ASSERT_EQ(run({"/run/sandbox/real/iptables", "-t", l.table, "-X", l.chain}).status, 0);
    }
    start();
    EXPECT_EQ(set(R"({"Enabled":1,"InPort":8080,"ExPort":80})").reply, R"({"result":true})");
    ASSERT_TRUE(waitApplied());
    for (const Link &l : links) {
        const auto rules = iptablesRules(l.table);
        EXPECT_THAT(rules, Contains(std::string("-N ") + l.chain)) << l.table;
        EXPECT_THAT(rules, Contains(std::string("-A ") + l.builtin + " -j " + l.chain)) << l.table;
    }
    EXPECT_THAT(chain("nat", "WanPortMapPREROUTING"),
                ElementsAre("-A WanPortMapPREROUTING -p tcp -m tcp --dport 80 -j REDIRECT --to-ports 8080"));
    EXPECT_THAT(journal(), Contains("iptables -w -t filter -I INPUT -j WanPortMapINPUT"));

    // The next apply finds them and only checks.
    clearJournal();
    ASSERT_EQ(run({"rm", kLog}).status, 0);
    EXPECT_EQ(set(R"({"Enabled":1,"InPort":8081,"ExPort":81})").reply, R"({"result":true})");
    ASSERT_TRUE(waitApplied());
    for (const auto &line : journal())
        EXPECT_EQ(line.find(" -I "), std::string::npos) << line;
    int jumps = 0;
    for (const auto &rule : iptablesRules("filter"))
        jumps += rule == "-A INPUT -j WanPortMapINPUT";
    EXPECT_EQ(jumps, 1);
}

TEST_F(WanPortMap, WithoutThePackage)
{
    removeConfig("WanPortMap");
    start();
    EXPECT_EQ(set(R"({"Enabled":1,"InPort":8080,"ExPort":80})").reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "setConfig", "can't load WanPortMap"));
    EXPECT_EQ(get().reply, R"({"params":{"Enabled":0,"InPort":0,"ExPort":0,"RemoteAddr":"0.0.0.0"},"result":true})");
    EXPECT_EQ(logCountOf("error", "getConfig", "can't load WanPortMap"), 1);
    // The apply was armed all the same: it reads the package (a second message), finds nothing and writes no
    // script.
    const auto t0 = Clock::now();
    while (logCountOf("error", "getConfig", "can't load WanPortMap") < 2 && msSince(t0) < 3000)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(logCountOf("error", "getConfig", "can't load WanPortMap"), 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_FALSE(fileExists(kScript));
    EXPECT_FALSE(fileExists("/etc/config/WanPortMap"));
}

TEST_F(WanPortMap, StoredSettingIsAppliedThirtySecondsAfterStart)
{
    writeConfig("WanPortMap", "config redirect 'wanPortMap'\n\toption enabled '1'\n\toption InPort '8443'\n"
                              "\toption ExPort '443'\n\toption RemoteAddr '10.9.8.7'\n");
    const auto t0 = Clock::now();
    start();
    // Nothing before the delay; the check stops well short of it.
    std::this_thread::sleep_for(std::chrono::milliseconds(27000 - msSince(t0) > 0 ? 27000 - msSince(t0) : 0));
    EXPECT_FALSE(fileExists(kScript));
    const long appeared = scriptAppearsAfter(t0, 40000);
    EXPECT_GE(appeared, 30000);
    ASSERT_TRUE(waitApplied());
    EXPECT_THAT(chain("filter", "WanPortMapINPUT"),
                ElementsAre("-A WanPortMapINPUT -s 10.9.8.7/32 -p tcp -m tcp --dport 8443 -m mark --mark 0x8888 "
                            "-j ACCEPT"));
}
