// gwconfd killed with SIGKILL at random moments while it writes its configuration.
//
// Every round starts from the same stored state (built once through the daemon's own methods), starts gwconfd,
// sends one writing call and kills the daemon after a random delay within that call's usual duration. Then every
// package gwconfd writes must still load and hold, write by write, the state before or after the call (see
// checkOldOrNew), and the next write of each package (a `uci` commit) must go through: no lock, journal or temporary
// file of the interrupted commit may stand in its way, and none may stay behind after it. The commands the killed daemon had started (a `uci commit`,
// a service script) run to their end before anything is looked at, as they would on a router.
//
// GWCONF_FAULT_KILLS sets the number of rounds (default 200), GWCONF_FAULT_SEED the seed of the delays (default:
// from the clock; the seed is printed, so a failing run can be repeated).
#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/bus_client.h"
#include "support/fault.h"
#include "support/router.h"

namespace gw::e2e {
namespace {

using Clock = std::chrono::steady_clock;

struct Write {
    const char *object;
    const char *method;
    const char *json;
    bool rebuiltLists;   // the call empties a list and fills it again item by item
    std::map<std::string, std::string> passing = {};   // values stored on the way (see checkOldOrNew)
};

// The agent's set switches the filter off before it rebuilds the list and switches it on again.
const std::map<std::string, std::string> kFilterOff = {{"main.enabled", "0"}, {"main.curmode", "no"}};

// Calls that write, each from the stored state the test builds first.
const Write kWrites[] = {
    {"RTMacFilter", "addMacFilterList", R"({"enable":1,"model":1,"macList":{"name":"cam","mac":"AA:BB:CC:DD:EE:03"}})",
     false},
    {"RTMacFilter", "delMacFilterList", R"({"enable":1,"model":1,"macList":{"name":"tv","mac":"AA:BB:CC:DD:EE:01"}})",
     false},
    {"RTMacFilter", "setMacFilter", R"({"enable":1,"model":1})", false},
    {"zelmad.macfilter", "setMacFilter",
     R"({"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":"AABBCCDDEE10/a,AABBCCDDEE11/b,AABBCCDDEE12/c"})",
     true, kFilterOff},
    {"RTIptv", "setIptv", R"({"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":0})", false},
    {"zelmad.vlan", "setIptvVlan",
     R"({"vlanEnable":1,"vlanId":200,"iptvStatus":[{"radio":"LAN","index":2},{"radio":"2.4G","index":1}]})", false},
    {"RTPortMap", "modPortMapping",
     R"({"MapList":[{"Name":"ssh","Protocol":0,"InternalIP":"192.168.1.12","InternalPort":22,"ExternalPort":2222},)"
     R"({"Name":"voip","Protocol":1,"InternalIP":"192.168.1.13","InternalPort":5060,"ExternalPort":5060}],"Operation":1})",
     false},
    {"RTPortMap", "modPortMapping", R"({"MapList":[{"PmapID":1}],"Operation":0})", false},
    {"RTPortMap", "modGroupMapping",
     R"({"MapList":[{"Name":"rtp","Protocol":2,"InternalIP":"192.168.1.14","StartPort":7000,"StopPort":7010}],"Operation":1})",
     false},
    {"RTWanPortMap", "setWanPortMap", R"({"Enabled":1,"InPort":2222,"ExPort":22})", false},
    {"RTUpnp", "setUpnpStatus", R"({"Enable":1})", false},
    {"firewall", "setForbiddNet", R"({"enable":0,"mac":"AA:BB:CC:DD:EE:0F"})", false},
    {"firewall", "setForbiddNet", R"({"enable":1,"mac":"AA:BB:CC:DD:EE:0E"})", false},
};

const std::map<std::string, std::string> kNone;

using Images = std::map<std::string, UciPackage>;

Images images()
{
    Images out;
    for (const auto &p : kWrittenPackages)
        out[p] = loadPackage(p);
    return out;
}

int envInt(const char *name, int fallback)
{
    const char *v = std::getenv(name);
    return v && *v ? std::atoi(v) : fallback;
}

class DaemonKill : public RouterTest {
protected:
    // Starts gwconfd and waits until its last object is registered anew (a look-up, no program per try).
    void quickStart()
    {
        ASSERT_NO_FATAL_FAILURE(startDaemon(false));
        lastId_ = probe_.waitObject("RTWanPortMap", lastId_, 20000);
        ASSERT_NE(lastId_, 0u) << "gwconfd did not register its objects; log:\n" << daemonLog();
    }
    void quickKill()
    {
        killDaemon();
        ASSERT_TRUE(probe_.waitGone("RTWanPortMap", lastId_, 5000));
    }
    std::vector<pid_t> busPids() { return childrenNamed("ubusd"); }

    void restoreStored()
    {
        restoreFolder(kConfigDir, storedConfig_);
        restoreFolder("/tmp/.uci", storedDeltas_);
    }

    BusClient probe_;
    uint32_t lastId_ = 0;
    std::map<std::string, std::string> storedConfig_, storedDeltas_;
};

TEST_F(DaemonKill, EveryPackageHoldsTheStateBeforeOrAfterTheInterruptedWrite)
{
    const int rounds = envInt("GWCONF_FAULT_KILLS", 200);
    const unsigned seed = static_cast<unsigned>(
        envInt("GWCONF_FAULT_SEED", static_cast<int>(Clock::now().time_since_epoch().count() & 0x7fffffff)));
    std::printf("[fault] %d rounds, seed %u (GWCONF_FAULT_SEED=%u repeats them)\n", rounds, seed, seed);
    std::mt19937 rng(seed);
    adoptOrphans();

    // The stored state every round starts from: a black list (the filter off, so a start restores no rules and
    // stays quick), a blocked device, port and range mappings, a WAN redirect.
    ASSERT_NO_FATAL_FAILURE(startBus());
    ASSERT_TRUE(probe_.connect());
    ASSERT_NO_FATAL_FAILURE(quickStart());
    const std::pair<const char *, std::vector<std::string>> setup[] = {
        {"RTMacFilter",
         {"addMacFilterList", R"({"enable":1,"model":1,"macList":{"name":"tv","mac":"AA:BB:CC:DD:EE:01"}})"}},
        {"RTMacFilter",
         {"addMacFilterList", R"({"enable":1,"model":1,"macList":{"name":"pc","mac":"AA:BB:CC:DD:EE:02"}})"}},
        {"firewall", {"setForbiddNet", R"({"enable":1,"mac":"AA:BB:CC:DD:EE:0F"})"}},
        {"RTPortMap",
         {"modPortMapping",
          R"({"MapList":[{"Name":"web","Protocol":0,"InternalIP":"192.168.1.10","InternalPort":80,"ExternalPort":8080},)"
          R"({"Name":"dns","Protocol":1,"InternalIP":"192.168.1.11","InternalPort":53,"ExternalPort":5353}],"Operation":1})"}},
        {"RTPortMap",
         {"modGroupMapping",
          R"({"MapList":[{"Name":"games","Protocol":1,"InternalIP":"192.168.1.20","StartPort":600,"StopPort":610}],"Operation":1})"}},
        {"RTWanPortMap", {"setWanPortMap", R"({"Enabled":1,"InPort":8080,"ExPort":80,"RemoteAddr":"203.0.113.7"})"}},
    };
    for (const auto &[object, args] : setup) {
        CallResult r = call(object, args[0], args[1]);
        ASSERT_EQ(r.status, 0) << object << " " << args[0];
        ASSERT_EQ(r.reply, R"({"result":true})") << object << " " << args[0];
    }
    ASSERT_EQ(stopDaemon(), 0);
    ASSERT_TRUE(reapChildren(busPids(), 5000));
    storedConfig_ = snapshotFolder(kConfigDir);
    storedDeltas_ = snapshotFolder("/tmp/.uci");
    const Images before = images();
    for (const auto &[name, pkg] : before)
        ASSERT_TRUE(pkg.ok) << name << ": " << pkg.error;

    // Each write once without a kill: its state after, and how long it takes.
    const std::string ubus = std::getenv("GWCONF_UBUS") ? std::getenv("GWCONF_UBUS") : "ubus";
    std::vector<Images> after;
    std::vector<int> durationUs;
    for (const auto &w : kWrites) {
        restoreStored();
        ASSERT_NO_FATAL_FAILURE(quickStart());
        auto begin = Clock::now();
        CallResult r = call(w.object, w.method, w.json);
        durationUs.push_back(static_cast<int>(
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count()));
        ASSERT_EQ(r.status, 0) << w.object << " " << w.method;
        ASSERT_EQ(r.reply, R"({"result":true})") << w.object << " " << w.method;
        ASSERT_NO_FATAL_FAILURE(quickKill());
        ASSERT_TRUE(reapChildren(busPids(), 5000));
        after.push_back(images());
        bool changed = false;
        for (const auto &p : kWrittenPackages) {
            ASSERT_TRUE(after.back()[p].ok) << p;
            changed = changed || after.back()[p].sections != before.at(p).sections;
        }
        EXPECT_TRUE(changed) << w.object << " " << w.method << " wrote nothing";
    }

    // The rounds.
    int sawBefore = 0, sawAfter = 0, sawBetween = 0, leftTemporary = 0;
    auto started = Clock::now();
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        const size_t k = rng() % std::size(kWrites);
        const Write &w = kWrites[k];
        const int delayUs = static_cast<int>(rng() % static_cast<unsigned>(durationUs[k] + 1));
        SCOPED_TRACE("round " + std::to_string(round) + ": " + w.object + " " + w.method + " killed after " +
                     std::to_string(delayUs) + " us");
        restoreStored();
        ASSERT_NO_FATAL_FAILURE(quickStart());
        pid_t client = spawnQuiet({ubus, "-S", "-t", "5", "call", w.object, w.method, w.json});
        ASSERT_GT(client, 0);
        std::this_thread::sleep_for(std::chrono::microseconds(delayUs));
        ASSERT_NO_FATAL_FAILURE(quickKill());
        kill(client, SIGKILL);
        waitQuiet(client, 5000);
        ASSERT_TRUE(reapChildren(busPids(), 10000)) << "a command of the killed daemon did not end";

        bool allBefore = true, allAfter = true;
        for (const auto &p : kWrittenPackages) {
            UciPackage file = loadConfigFile(p);
            ASSERT_TRUE(file.ok) << "/etc/config/" << p << " does not parse: " << file.error;
            UciPackage now = loadPackage(p);
            std::string wrong = checkOldOrNew(before.at(p), after[k].at(p), now, w.rebuiltLists, p == "macFilter" ? w.passing : kNone);
            ASSERT_EQ(wrong, "") << "package " << p << ":\n" << now.text;
            allBefore = allBefore && now.sections == before.at(p).sections;
            allAfter = allAfter && now.sections == after[k].at(p).sections;
        }
        sawBefore += allBefore;
        sawAfter += allAfter && !allBefore;
        sawBetween += !allBefore && !allAfter;
        leftTemporary += static_cast<int>(hiddenConfigFiles().size());

        // The next write of every package goes through and folds in whatever the interrupted one left pending.
        std::string batch;
        for (const auto &p : kWrittenPackages)
            batch += "set " + p + ".faultprobe=probe\nset " + p + ".faultprobe.round=" + std::to_string(round) + "\n";
        batch += "commit\n";
        RunResult probe = run({std::getenv("GWCONF_UCI") ? std::getenv("GWCONF_UCI") : "uci", "batch"}, batch, 10000);
        ASSERT_EQ(probe.status, 0) << probe.err;
        for (const auto &p : kWrittenPackages) {
            UciPackage file = loadConfigFile(p);
            ASSERT_TRUE(file.ok) << p << ": " << file.error;
            auto it = std::find_if(file.sections.begin(), file.sections.end(),
                                   [](const UciSection &s) { return s.name == "faultprobe"; });
            ASSERT_NE(it, file.sections.end()) << "the commit after the kill did not reach /etc/config/" << p;
            EXPECT_EQ(it->options["round"], std::to_string(round));
            file.sections.erase(it);
            std::string wrong = checkOldOrNew(before.at(p), after[k].at(p), file, w.rebuiltLists, p == "macFilter" ? w.passing : kNone);
            ASSERT_EQ(wrong, "") << "package " << p << " after the next commit:\n" << file.text;
        }
        ASSERT_THAT(hiddenConfigFiles(), ::testing::IsEmpty())
            << "the next commit leaves the temporary file of the cut one in /etc/config";
    }
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
    std::printf("[fault] %d rounds in %lld ms: all packages as before %d, as after %d, in between %d; "
                "temporary files of cut commits seen %d\n",
                rounds, static_cast<long long>(took), sawBefore, sawAfter, sawBetween, leftTemporary);

    // Served normally afterwards.
    restoreStored();
    ASSERT_NO_FATAL_FAILURE(quickStart());
    CallResult r = call("RTMacFilter", "getMacFilterList");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(r.reply, ::testing::HasSubstr(R"("result":true)"));
}

}  // namespace
}  // namespace gw::e2e

namespace gw::e2e {
namespace {

// The comparison the rounds rely on must see the damage an interrupted commit could do.
UciPackage package(std::vector<UciSection> sections)
{
    UciPackage p;
    p.ok = true;
    p.sections = std::move(sections);
    return p;
}

TEST(OldOrNewCheck, TellsStatesOnTheWayFromDamagedOnes)
{
    const UciSection main{"main", "macfilter", {{"enabled", "0"}, {"curmode", "no"}}};
    const UciSection mainOn{"main", "macfilter", {{"enabled", "1"}, {"curmode", "deny"}}};
    const UciSection list{"blacklist", "filter", {{"deny", "\nA/tv\nB/pc"}}};
    const UciSection listAdded{"blacklist", "filter", {{"deny", "\nA/tv\nB/pc\nC/cam"}}};
    const UciSection rule{"", "rule", {{"name", "tv"}}};
    const UciSection ruleCam{"", "rule", {{"name", "cam"}}};
    const UciPackage before = package({main, list, rule});
    const UciPackage after = package({mainOn, listAdded, rule, ruleCam});

    // States on the way: old, new, and any mix of options written one by one.
    EXPECT_EQ(checkOldOrNew(before, after, before), "");
    EXPECT_EQ(checkOldOrNew(before, after, after), "");
    EXPECT_EQ(checkOldOrNew(before, after, package({UciSection{"main", "macfilter", {{"enabled", "0"}, {"curmode", "deny"}}},
                                                    listAdded, rule})),
              "");

    // Damage: a list item applied twice, a value cut, an untouched section lost, a section written twice, a file
    // that does not load.
    EXPECT_NE(checkOldOrNew(before, after,
                            package({mainOn, UciSection{"blacklist", "filter", {{"deny", "\nA/tv\nB/pc\nC/cam\nC/cam"}}},
                                     rule, ruleCam})),
              "");
    EXPECT_NE(checkOldOrNew(before, after, package({UciSection{"main", "macfilter", {{"enabled", "1"}, {"curmode", "de"}}},
                                                    listAdded, rule, ruleCam})),
              "");
    EXPECT_NE(checkOldOrNew(before, after, package({mainOn, listAdded, ruleCam})), "");
    EXPECT_NE(checkOldOrNew(before, after, package({mainOn, listAdded, rule, ruleCam, ruleCam})), "");
    UciPackage broken;
    broken.error = "parse error";
    EXPECT_NE(checkOldOrNew(before, after, broken), "");

    // A list that is emptied and refilled item by item may show the first items of its new value only when the
    // write is known to do that.
    const UciPackage partly = package({mainOn, UciSection{"blacklist", "filter", {{"deny", "\nA/tv"}}}, rule, ruleCam});
    EXPECT_NE(checkOldOrNew(before, after, partly), "");
    EXPECT_EQ(checkOldOrNew(before, after, partly, true), "");
    EXPECT_NE(checkOldOrNew(before, after, package({mainOn, UciSection{"blacklist", "filter", {{"deny", "\nB/pc"}}},
                                                    rule, ruleCam}),
                            true),
              "");
}

}  // namespace
}  // namespace gw::e2e

namespace gw::e2e {
namespace {

// A commit killed after it made its temporary file but before it wrote its journal leaves that file in
// /etc/config; the next commit of the package removes it, and only that package's.
TEST(CutCommit, TheNextCommitRemovesItsTemporaryFile)
{
    ASSERT_NE(std::getenv("GWCONF_SANDBOX"), nullptr);
    const std::string stale = std::string(kConfigDir) + "/.firewall.uci-Ab12Cd";
    const std::string other = std::string(kConfigDir) + "/.network.uci-Ab12Cd";
    writeFile(stale, "config rule\n\toption name 'half'\n");
    writeFile(other, "config interface 'half'\n");
    const std::string uciTool = std::getenv("GWCONF_UCI") ? std::getenv("GWCONF_UCI") : "uci";
    RunResult r = run({uciTool, "batch"}, "set firewall.probe=probe\ncommit firewall\n");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_FALSE(fileExists(stale));
    EXPECT_TRUE(fileExists(other)) << "a commit of firewall removed a file of network";
    EXPECT_EQ(loadConfigFile("firewall").ok, true);
}

}  // namespace
}  // namespace gw::e2e
