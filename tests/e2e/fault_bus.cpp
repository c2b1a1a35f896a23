// The bus daemon killed with SIGKILL and started again while a client keeps calling gwconfd.
//
// A writer thread sends a steady mix of writing and reading calls (`ubus call` processes, as the back-end does):
// port mappings and black list entries that each leave their own trace, a WAN redirect that each set overwrites,
// and reads of three objects. In the middle the bus daemon is killed and, after a short outage, started again.
// gwconfd must come back by itself (it tries again every 3000 ms) and answer; every write that was answered with
// success is stored (through uci and through the object's get method); a call that never reached the daemon (no bus,
// or its object not there yet) changed nothing; no call hangs.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/router.h"

namespace gw::e2e {
namespace {

using Clock = std::chrono::steady_clock;
using ::testing::HasSubstr;

enum class Kind { PortMap, MacEntry, WanRedirect, Read };

struct Outcome {
    Kind kind;
    int index;
    int status;
    std::string reply;
    Clock::time_point begin, end;
};

std::string mac(int i)
{
    char text[18];
    std::snprintf(text, sizeof text, "AA:BB:CC:DD:%02X:%02X", (i >> 8) & 0xff, i & 0xff);
    return text;
}

class BusFault : public RouterTest {};

TEST_F(BusFault, DaemonReconnectsAndKeepsEveryAnsweredWrite)
{
    start();
    ASSERT_EQ(call("RTMacFilter", "setMacFilter", R"({"enable":1,"model":1})").reply, R"({"result":true})");

    std::atomic<bool> stop{false};
    std::mutex lock;
    std::vector<Outcome> outcomes;
    std::thread writer([&] {
        int port = 0, entry = 0, redirect = 0;
        for (int step = 0; !stop; ++step) {
            Outcome o{};
            o.begin = Clock::now();
            CallResult r;
            switch (step % 5) {
            case 0:   // at most 32 mappings are stored; the test ends long before
                o.kind = Kind::PortMap;
                o.index = ++port;
                r = call("RTPortMap", "modPortMapping",
                         R"({"MapList":[{"Name":"m)" + std::to_string(o.index) +
                             R"(","Protocol":0,"InternalIP":"192.168.1.10","InternalPort":80,"ExternalPort":)" +
                             std::to_string(20000 + o.index) + R"(}],"Operation":1})",
                         5);
                break;
            case 1:
                o.kind = Kind::Read;
                r = call("RTIptv", "getIptvInfo", "{}", 5);
                break;
            case 2:
                o.kind = Kind::MacEntry;
                o.index = ++entry;
                r = call("RTMacFilter", "addMacFilterList",
                         R"({"enable":1,"model":1,"macList":{"name":"d)" + std::to_string(o.index) + R"(","mac":")" +
                             mac(o.index) + R"("}})",
                         5);
                break;
            case 3:
                o.kind = Kind::WanRedirect;
                o.index = ++redirect;
                r = call("RTWanPortMap", "setWanPortMap",
                         R"({"Enabled":1,"InPort":)" + std::to_string(30000 + o.index) + R"(,"ExPort":80})", 5);
                break;
            default:
                o.kind = Kind::Read;
                r = call("RTPortMap", "getPortMapping", "{}", 5);
                break;
            }
            o.end = Clock::now();
            o.status = r.status;
            o.reply = r.reply;
            std::lock_guard<std::mutex> g(lock);
            outcomes.push_back(o);
        }
    });
    auto answered = [&](Clock::time_point after) {
        std::lock_guard<std::mutex> g(lock);
        return std::count_if(outcomes.begin(), outcomes.end(), [&](const Outcome &o) {
            return o.begin >= after && o.status == 0 && o.kind != Kind::Read;
        });
    };

    // Some writes go through, then the bus daemon dies in the middle of the burst.
    const auto begin = Clock::now();
    while (answered(begin) < 4 && Clock::now() - begin < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    killBus();
    const auto killed = Clock::now();
    // At least 500 ms without a bus, and until at least one call was made and failed meanwhile.
    auto triedMeanwhile = [&] {
        std::lock_guard<std::mutex> g(lock);
        return std::any_of(outcomes.begin(), outcomes.end(), [&](const Outcome &o) { return o.begin >= killed; });
    };
    while ((Clock::now() - killed < std::chrono::milliseconds(500) || !triedMeanwhile()) &&
           Clock::now() - killed < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto busBack = Clock::now();   // from here a call may reach the new bus daemon
    startBus();
    const auto restarted = Clock::now();
    // The daemon's next attempt comes at most 3000 ms after the loss; then the writer's calls answer again.
    bool back = waitObjects(kDaemonObjects, 15000);
    while (back && answered(restarted) < 3 && Clock::now() - restarted < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    stop = true;
    writer.join();
    ASSERT_TRUE(back) << "gwconfd did not register again after the bus daemon came back\n" << daemonLog();
    ASSERT_GE(answered(restarted), 3) << "gwconfd does not answer writes after the reconnect";
    EXPECT_TRUE(daemonRunning());
    EXPECT_EQ(logCountOf("debug", "ubus_connection_lost", "ubus_connection_lost"), 1);

    // What each call did. A call that never reached gwconfd (status 255: no bus; 4: its object not registered yet)
    // must have changed nothing; one answered with success must be stored.
    std::set<int> storedPorts, absentPorts, storedMacs, absentMacs;
    int lastRedirect = 0, duringOutage = 0;
    for (const auto &o : outcomes) {
        SCOPED_TRACE("call " + std::to_string(static_cast<int>(o.kind)) + "/" + std::to_string(o.index) + " status " +
                     std::to_string(o.status) + " reply " + o.reply);
        EXPECT_NE(o.status, 7) << "a call waited for its time-out instead of failing";
        EXPECT_LT(o.end - o.begin, std::chrono::seconds(10)) << "a call hung";
        if (o.begin >= killed && o.end <= busBack) {
            ++duringOutage;
            EXPECT_EQ(o.status, 255) << "a call during the outage must fail to connect";
            EXPECT_EQ(o.reply, "");
        }
        bool reached = o.status != 255 && o.status != 4;
        bool ok = o.status == 0 && (o.kind == Kind::Read || o.reply == R"({"result":true})");
        if (o.status == 0) {
            EXPECT_THAT(o.reply, HasSubstr(R"("result":true)"));
        }
        if (o.kind == Kind::PortMap && (ok || !reached))
            (ok ? storedPorts : absentPorts).insert(o.index);
        if (o.kind == Kind::MacEntry && (ok || !reached))
            (ok ? storedMacs : absentMacs).insert(o.index);
        if (o.kind == Kind::WanRedirect && ok)
            lastRedirect = o.index;
    }
    EXPECT_GT(duringOutage, 0) << "no call was made while the bus was away";
    ASSERT_GT(storedPorts.size(), 0u);
    ASSERT_GT(storedMacs.size(), 0u);
    ASSERT_GT(lastRedirect, 0);

    // Through the get methods...
    std::string portMaps = call("RTPortMap", "getPortMapping").reply;
    std::string macs = call("RTMacFilter", "getMacFilterList").reply;
    for (int i : storedPorts)
        EXPECT_THAT(portMaps, HasSubstr(R"("ExternalPort":)" + std::to_string(20000 + i) + ","));
    for (int i : absentPorts)
        EXPECT_THAT(portMaps, ::testing::Not(HasSubstr(R"("ExternalPort":)" + std::to_string(20000 + i) + ",")));
    for (int i : storedMacs)
        EXPECT_THAT(macs, HasSubstr(mac(i)));
    for (int i : absentMacs)
        EXPECT_THAT(macs, ::testing::Not(HasSubstr(mac(i))));
    EXPECT_THAT(call("RTWanPortMap", "getWanPortMap").reply,
                HasSubstr(R"("InPort":)" + std::to_string(30000 + lastRedirect) + ","));

    // ...and in the configuration itself.
    std::string firewall = uciShow("firewall");
    std::string blackList = uciGet("macFilter.blacklist.deny").value_or("");
    for (int i : storedPorts)
        EXPECT_THAT(firewall, HasSubstr(".src_dport='" + std::to_string(20000 + i) + "'"));
    for (int i : storedMacs)
        EXPECT_THAT(blackList, HasSubstr(mac(i) + "/d" + std::to_string(i)));
    EXPECT_EQ(uciGet("WanPortMap.wanPortMap.InPort"), std::to_string(30000 + lastRedirect));
    std::printf("[fault] %zu calls: %zu port mappings and %zu list entries stored, %zu and %zu not sent, "
                "%d calls during the outage\n",
                outcomes.size(), storedPorts.size(), storedMacs.size(), absentPorts.size(), absentMacs.size(),
                duringOutage);
}

}  // namespace
}  // namespace gw::e2e
