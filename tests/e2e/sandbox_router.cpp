// The emulated router itself: isolation from the host, fresh state per test case, the journal's quoting, the
// shims reaching the kernel tables, the service recorders, and the fixture's own helpers.
#include "support/router.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <dirent.h>
#include <unistd.h>
#include <string>
#include <vector>

using namespace gw::e2e;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

namespace {

const std::vector<std::string> kPackages = {"WanPortMap", "dmz", "firewall", "iptv", "macFilter", "network",
                                            "upnpd"};

std::string defaultsPath(const std::string &package)
{
    return std::string(GWCONF_SOURCE_DIR) + "/sandbox/defaults/" + package;
}

std::string buildDir()
{
    std::string bin = GWCONF_BIN_DIR;
    return bin.substr(0, bin.find_last_of('/'));
}

std::vector<std::string> dirEntries(const std::string &path)
{
    std::vector<std::string> names;
    if (DIR *d = opendir(path.c_str())) {
        while (dirent *e = readdir(d))
            if (std::string n = e->d_name; n != "." && n != "..")
                names.push_back(n);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Command lines of every process in this process tree.
std::vector<std::string> commandLines()
{
    std::vector<std::string> lines;
    for (const auto &pid : dirEntries("/proc")) {
        if (pid.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::string cmd = readFile("/proc/" + pid + "/cmdline");
        std::replace(cmd.begin(), cmd.end(), '\0', ' ');
        lines.push_back(cmd);
    }
    return lines;
}

// Splits a journal line back into words the way a shell reads it.
std::vector<std::string> shellWords(const std::string &line)
{
    RunResult r = run({"bash", "-c", "eval \"set -- $1\"; printf '%s\\0' \"$@\"", "bash", line});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> words;
    size_t start = 0;
    for (size_t end; (end = r.out.find('\0', start)) != std::string::npos; start = end + 1)
        words.push_back(r.out.substr(start, end - start));
    return words;
}

class SandboxTest : public RouterTest {};

// Both cases check that nothing is left over, then leave something: whichever runs second sees a leak.
class FreshState : public RouterTest {
protected:
    void checkThenPollute()
    {
        EXPECT_FALSE(fileExists("/etc/config/probe"));
        EXPECT_FALSE(fileExists("/tmp/probe"));
        EXPECT_TRUE(journal().empty());
        EXPECT_THAT(iptablesRules("nat"), Not(Contains("-N PROBE")));
        EXPECT_THAT(commandLines(), Not(Contains("sleep 7777 ")));

        writeConfig("probe", "config probe 'x'\n");
        writeFile("/tmp/probe", "x");
        EXPECT_EQ(run({"iptables", "-t", "nat", "-N", "PROBE"}).status, 0);
        EXPECT_EQ(run({"bash", "-c", "exec sleep 7777 >/dev/null 2>&1 &"}).status, 0);
        for (int i = 0; i < 200 && !::testing::Value(commandLines(), Contains("sleep 7777 ")); ++i)
            usleep(10000);   // until the background shell has become the sleep
        EXPECT_THAT(commandLines(), Contains("sleep 7777 "));
    }
};

}  // namespace

TEST_F(SandboxTest, StartsFromTheDefaultConfigurationWithEmptyTablesAndJournal)
{
    EXPECT_EQ(dirEntries("/etc/config"), kPackages);
    for (const auto &package : kPackages)
        EXPECT_EQ(readConfig(package), readFile(defaultsPath(package))) << package;
    EXPECT_TRUE(journal().empty());
    EXPECT_FALSE(fileExists(kBusSocket)) << "--no-daemon starts no bus";

    EXPECT_THAT(ebtablesRules(), Contains("Bridge chain: FORWARD, entries: 0, policy: ACCEPT"));
    EXPECT_THAT(ip6tablesRules(), ElementsAre("-P INPUT ACCEPT", "-P FORWARD ACCEPT", "-P OUTPUT ACCEPT"));
    // The platform's firewall set-up: the WAN port redirect chains exist and are linked.
    EXPECT_THAT(iptablesRules("mangle"), Contains("-A PREROUTING -j WanPortMapPREROUTING"));
    EXPECT_THAT(iptablesRules("nat"), Contains("-A PREROUTING -j WanPortMapPREROUTING"));
    EXPECT_THAT(iptablesRules("filter"), Contains("-A INPUT -j WanPortMapINPUT"));

    // The LAN ports sit in br-lan, the WAN port is eth1.
    RunResult links = run({"ip", "-o", "link", "show", "master", "br-lan"});
    for (const char *port : {"lan1@", "lan2@", "lan3@"})
        EXPECT_NE(links.out.find(port), std::string::npos) << port << " is not in br-lan:\n" << links.out;
    EXPECT_EQ(run({"ip", "link", "show", "eth1"}).status, 0);
}

TEST_F(FreshState, FirstCaseSeesNothingOfTheOther) { checkThenPollute(); }
TEST_F(FreshState, SecondCaseSeesNothingOfTheOther) { checkThenPollute(); }

TEST_F(SandboxTest, NestedSandboxLeavesItsParentUntouched)
{
    // What holds for this sandbox and the host holds for a sandbox started inside it and this one.
    const std::string network = readConfig("network");
    const std::string script = R"sh(
        set -e
        cmp -s /etc/config/macFilter "$1"
        echo "config probe 'x'" > /etc/config/probe
        echo "# changed" >> /etc/config/network
        echo x > /tmp/probe
        echo x > /usr/bin/probe
        echo x > /etc/init.d/probe
        iptables -N PROBE
        sleep 7777 >/dev/null 2>&1 &
        until grep -q 7777 /proc/$!/cmdline; do sleep 0.01; done
        exit 42
    )sh";
    RunResult r = run({std::string(GWCONF_SOURCE_DIR) + "/sandbox/router", "--no-daemon", "--build", buildDir(),
                       "--", "bash", "-c", script, "nested", defaultsPath("macFilter")});
    EXPECT_EQ(r.status, 42) << "the command's exit status is the sandbox's; stderr:\n" << r.err;

    EXPECT_FALSE(fileExists("/etc/config/probe"));
    EXPECT_EQ(readConfig("network"), network);
    EXPECT_FALSE(fileExists("/tmp/probe"));
    EXPECT_FALSE(fileExists("/usr/bin/probe"));
    EXPECT_FALSE(fileExists("/etc/init.d/probe"));
    EXPECT_THAT(iptablesRules(), Not(Contains("-N PROBE")));
    EXPECT_THAT(commandLines(), Not(Contains("sleep 7777 "))) << "a process outlived its sandbox";
    EXPECT_TRUE(journal().empty()) << "the nested sandbox has a journal of its own";
}

TEST_F(SandboxTest, LauncherStartsWhatItsOptionsSayAndKeepsLogsOnRequest)
{
    const std::string router = std::string(GWCONF_SOURCE_DIR) + "/sandbox/router";
    const bool haveBus = fileExists(std::getenv("GWCONF_UBUSD") ? std::getenv("GWCONF_UBUSD") : "");
    const bool haveDaemon = fileExists(std::getenv("GWCONF_GWCONFD") ? std::getenv("GWCONF_GWCONFD") : "");

    RunResult bad = run({router, "--no-such-option"});
    EXPECT_EQ(bad.status, 125);
    EXPECT_NE(bad.err.find("unknown option '--no-such-option'"), std::string::npos) << bad.err;

    // The logs folder is on this sandbox's /tmp, which plays the host for the inner one.
    RunResult none = run({router, "--no-daemon", "--build", buildDir(), "--logs", "/tmp/logs", "--", "bash", "-c",
                          "test ! -e /var/run/ubus/ubus.sock && /etc/init.d/network reload"});
    EXPECT_EQ(none.status, 0) << none.err;
    EXPECT_EQ(readFile("/tmp/logs/journal"), "/etc/init.d/network reload\n");
    EXPECT_TRUE(fileExists("/tmp/logs/gwconfd.log"));

    if (haveBus) {
        RunResult bus = run({router, "--bus-only", "--build", buildDir(), "--", "bash", "-c",
                             "test -S /var/run/ubus/ubus.sock && ! pgrep -x gwconfd"});
        EXPECT_EQ(bus.status, 0) << "the bus runs, gwconfd does not\n" << bus.err;
    }
    if (haveBus && haveDaemon) {
        RunResult full = run({router, "--build", buildDir(), "--", "ubus", "-S", "list"});
        EXPECT_EQ(full.status, 0) << full.err;
        for (const auto &object : kDaemonObjects)
            EXPECT_THAT(splitLines(full.out), Contains(object)) << "registered before the command starts";
    }
}

TEST_F(SandboxTest, JournalKeepsEveryArgumentOneWord)
{
    // Metacharacters reach the journal as plain text of one argument and are never run.
    const std::string mac = "AA;touch /tmp/pwned $(touch /tmp/pwned2) `touch /tmp/pwned3`";
    run({"ebtables", "-I", "FORWARD", "-s", mac, "-j", "DROP"});
    EXPECT_FALSE(fileExists("/tmp/pwned"));
    EXPECT_FALSE(fileExists("/tmp/pwned2"));
    EXPECT_FALSE(fileExists("/tmp/pwned3"));

    // Plain words stay as they are; blanks, quotes and the empty argument are quoted; control characters too.
    run({"/usr/bin/iptvswitch", "lan1.100 lan3.100  ", "", "it's", "x\ny\tz"});
    run({"iptables", "-w", "-t", "nat", "-N", "MINIUPNPD"});
    EXPECT_THAT(journal(),
                ElementsAre("ebtables -I FORWARD -s 'AA;touch /tmp/pwned $(touch /tmp/pwned2) `touch /tmp/pwned3`' "
                            "-j DROP",
                            "/usr/bin/iptvswitch 'lan1.100 lan3.100  ' '' 'it'\\''s' $'x\\ny\\tz'",
                            "iptables -w -t nat -N MINIUPNPD"));

    // Every line reads back, word for word, as the arguments given.
    const std::vector<std::string> awkward = {"a'b",  "\"q\"", "back\\slash", "$HOME", "*",    "~",    "#c",
                                              "-x=1", "a\tb",  "l1\nl2",      "é",     "''",   "a b c", "!",
                                              "{a,b}", "x>y", "&", "|"};
    for (const auto &arg : awkward) {
        clearJournal();
        ASSERT_EQ(run({"/usr/bin/dmzupnp.sh", arg, "end"}).status, 0);
        auto lines = journal();
        ASSERT_EQ(lines.size(), 1u) << "argument [" << arg << "] broke the line";
        EXPECT_THAT(shellWords(lines[0]), ElementsAre("/usr/bin/dmzupnp.sh", arg, "end")) << lines[0];
    }
}

TEST_F(SandboxTest, ShimsJournalAndReachTheKernelTables)
{
    RunResult where = run({"bash", "-c", "command -v iptables ip6tables ebtables"});
    EXPECT_EQ(where.out, "/run/sandbox/shims/iptables\n/run/sandbox/shims/ip6tables\n/run/sandbox/shims/ebtables\n");

    EXPECT_EQ(run({"iptables", "-t", "nat", "-N", "MINIUPNPD"}).status, 0);
    EXPECT_NE(run({"iptables", "-t", "nat", "-N", "MINIUPNPD"}).status, 0) << "the real tool's status is passed on";
    EXPECT_EQ(run({"iptables", "-t", "nat", "-I", "MINIUPNPD", "-p", "all", "-j", "DNAT", "--to", "192.168.1.50"})
                  .status,
              0);
    EXPECT_EQ(run({"ip6tables", "-I", "FORWARD", "-m", "mac", "--mac-source", "AA:BB:CC:DD:EE:01", "-j", "DROP"})
                  .status,
              0);
    EXPECT_EQ(run({"ebtables", "-I", "FORWARD", "1", "-s", "AA:BB:CC:DD:EE:01", "-j", "DROP"}).status, 0);
    // The broute table is missing from this kernel: the command fails and only the journal records it.
    run({"ebtables", "--concurrent", "-t", "broute", "-I", "BROUTING", "-i", "lan1", "-p", "ipv4", "--ip-proto",
         "udp", "--ip-dport", "53", "-j", "ACCEPT"});

    EXPECT_THAT(iptablesRules("nat"), Contains("-A MINIUPNPD -j DNAT --to-destination 192.168.1.50"));
    EXPECT_THAT(ip6tablesRules(), Contains("-A FORWARD -m mac --mac-source aa:bb:cc:dd:ee:01 -j DROP"));
    EXPECT_THAT(ebtablesRules(), Contains("-s aa:bb:cc:dd:ee:01 -j DROP"));
    EXPECT_THAT(journal(),
                ElementsAre("iptables -t nat -N MINIUPNPD", "iptables -t nat -N MINIUPNPD",
                            "iptables -t nat -I MINIUPNPD -p all -j DNAT --to 192.168.1.50",
                            "ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP",
                            "ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:01 -j DROP",
                            "ebtables --concurrent -t broute -I BROUTING -i lan1 -p ipv4 --ip-proto udp "
                            "--ip-dport 53 -j ACCEPT"));
    // The fixture's own reads went through the real tools and are not in the journal.
}

TEST_F(SandboxTest, ServiceScriptsAndPlatformProgramsOnlyRecord)
{
    EXPECT_EQ(dirEntries("/etc/init.d"), (std::vector<std::string>{"firewall", "miniupnpd", "network"}));
    EXPECT_EQ(run({"/etc/init.d/firewall", "reload"}).status, 0);
    EXPECT_EQ(run({"/etc/init.d/network", "reload"}).status, 0);
    EXPECT_EQ(run({"/etc/init.d/miniupnpd", "enable"}).status, 0);
    EXPECT_EQ(run({"/etc/init.d/miniupnpd", "start"}).status, 0);
    EXPECT_EQ(run({"/usr/bin/iptvswitch"}).status, 0);
    EXPECT_EQ(run({"/usr/bin/dmzupnp.sh"}).status, 0);
    EXPECT_THAT(journal(), ElementsAre("/etc/init.d/firewall reload", "/etc/init.d/network reload",
                                       "/etc/init.d/miniupnpd enable", "/etc/init.d/miniupnpd start",
                                       "/usr/bin/iptvswitch", "/usr/bin/dmzupnp.sh"));
}

TEST_F(SandboxTest, DefaultsReadAsTheDaemonReadsThem)
{
    if (!fileExists(std::getenv("GWCONF_UCI") ? std::getenv("GWCONF_UCI") : ""))
        GTEST_SKIP() << "this build has no uci tool";
    for (const auto &package : kPackages)
        EXPECT_EQ(uci({"export", package}).status, 0) << package;
    EXPECT_EQ(uciGet("macFilter.main.enabled"), "0");
    EXPECT_EQ(uciGet("macFilter.main.curmode"), "no");
    EXPECT_EQ(uciGet("macFilter.blacklist"), "filter");
    EXPECT_EQ(uciGet("macFilter.whitelist"), "filter");
    EXPECT_EQ(uciGet("iptv.main.enabled"), "0");
    EXPECT_EQ(uciGet("network.device.ifname"), "lan1 lan2 lan3");
    EXPECT_EQ(uciGet("network.iptv"), std::nullopt) << "IPTV is off";
    EXPECT_EQ(uciGet("upnpd.@upnpd[0]._init"), "0");
    EXPECT_EQ(uciGet("upnpd.@upnpd[0].upnp_lease_file"), "/var/run/miniupnpd.leases");
    EXPECT_EQ(uciGet("dmz.@dmz[0].enabled"), "0");
    EXPECT_EQ(uciGet("firewall.dmzupnpdomain"), std::nullopt);
    EXPECT_EQ(uciShow("WanPortMap"), "") << "no WAN redirect stored";
    // Reading through the fixture journals nothing; the uci shim on PATH does.
    EXPECT_TRUE(journal().empty());
    run({"uci", "get", "iptv.main.enabled"});
    EXPECT_THAT(journal(), ElementsAre("uci get iptv.main.enabled"));
}

TEST_F(SandboxTest, BusCanBeStoppedAndStartedAgain)
{
    if (!fileExists(std::getenv("GWCONF_UBUSD") ? std::getenv("GWCONF_UBUSD") : ""))
        GTEST_SKIP() << "this build has no bus daemon";
    startBus();
    EXPECT_TRUE(fileExists(kBusSocket));
    killBus();
    startBus();   // asserts that the new bus daemon accepts connections
    stopBus();
}

TEST_F(SandboxTest, DaemonComesUpStopsAndRestarts)
{
    if (!fileExists(std::getenv("GWCONF_GWCONFD") ? std::getenv("GWCONF_GWCONFD") : ""))
        GTEST_SKIP() << "this build has no gwconfd";
    start();
    EXPECT_TRUE(daemonRunning());
    pid_t first = daemonPid();
    restartDaemon();   // expects exit status 0 on SIGTERM, then waits for the eight objects again
    EXPECT_NE(daemonPid(), first);
    killDaemon();
    EXPECT_FALSE(daemonRunning());
    startDaemon();
    EXPECT_TRUE(daemonRunning());
}

// The command helper the feature tests rely on.
TEST(FixtureRun, SeparatesOutputsFeedsInputAndEndsHungPrograms)
{
    RunResult r = run({"bash", "-c", "cat; echo to-err >&2; exit 3", "ignored"}, "to-out\n");
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "to-out\n");
    EXPECT_EQ(r.err, "to-err\n");

    EXPECT_EQ(run({"bash", "-c", "kill -TERM $$"}).status, 128 + SIGTERM);
    EXPECT_EQ(run({"/no/such/program"}).status, 127);

    auto begin = std::chrono::steady_clock::now();
    RunResult hung = run({"sleep", "30"}, {}, 300);
    EXPECT_EQ(hung.status, 128 + SIGKILL);
    EXPECT_NE(hung.err.find("[run: sleep killed after 300 ms]"), std::string::npos) << hung.err;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

// The log matcher the feature tests rely on.
TEST(LogMatch, MatchesLevelFunctionAnyLineNumberAndTheWholeMessage)
{
    const std::string log = "info [iptvInit:101]in iptvInit\n"
                            "error [iptvInit:118]uciGetConfig UCI_MACFILTER_FILE main enabled ERROR\n"
                            "error [iptvInit:118]uciGetConfig UCI_MACFILTER_FILE main enabled ERROR\n"
                            "info [NatForward_setUpnpStatus:77]\n  enable [1]  ret[0] \n\n"
                            "debug [x:1]tail without line end";
    EXPECT_TRUE(logContains(log, "info", "iptvInit", "in iptvInit"));
    EXPECT_EQ(logCount(log, "error", "iptvInit", "uciGetConfig UCI_MACFILTER_FILE main enabled ERROR"), 2);
    EXPECT_TRUE(logContains(log, "info", "NatForward_setUpnpStatus", "\n  enable [1]  ret[0] \n"));
    EXPECT_TRUE(logContains(log, "debug", "x", "tail without line end"));

    EXPECT_FALSE(logContains(log, "info", "iptvInit", "in iptv")) << "a prefix of the message is not the message";
    EXPECT_FALSE(logContains(log, "error", "iptvInit", "in iptvInit")) << "wrong level";
    EXPECT_FALSE(logContains(log, "info", "iptv", "in iptvInit")) << "wrong function";
    EXPECT_FALSE(logContains("info [f:]m\n", "info", "f", "m")) << "no line number";
    EXPECT_FALSE(logContains("xinfo [f:1]m\n", "info", "f", "m")) << "the level starts the entry";
}
