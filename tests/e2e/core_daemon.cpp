// gwconfd as a process: the start-up order, the bus daemon going away and coming back, a bus that is not there
// yet at start, unknown methods, and the exit on SIGTERM.
#include "support/router.h"

#include <gmock/gmock.h>

#include <chrono>
#include <libubus.h>
#include <string>
#include <thread>
#include <vector>

using namespace gw::e2e;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

// Watches the bus daemon's "ubus.object.add" events from this process, so the order in which gwconfd registers
// its objects can be seen.
class RegistrationWatch {
public:
    bool open()
    {
        uloop_handle_sigchld = false;  // the fixture waits for its own children
        ctx_ = ubus_connect(nullptr);
        if (!ctx_)
            return false;
        ubus_add_uloop(ctx_);
        handler_.cb = onEvent;
        return ubus_register_event_handler(ctx_, &handler_, "ubus.object.add") == 0;
    }
    // Runs the event loop until n objects were announced or timeoutMs passed.
    std::vector<std::string> collect(std::size_t n, int timeoutMs)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (paths().size() < n && std::chrono::steady_clock::now() < end)
            uloop_run_timeout(100);
        return paths();
    }
    ~RegistrationWatch()
    {
        if (ctx_)
            ubus_free(ctx_);
        uloop_done();
    }

private:
    static std::vector<std::string> &paths()
    {
        static std::vector<std::string> seen;
        return seen;
    }
    static void onEvent(ubus_context *, ubus_event_handler *, const char *, blob_attr *msg)
    {
        blob_attr *attr;
        size_t rem;
        blobmsg_for_each_attr(attr, msg, rem)
        {
            if (blobmsg_type(attr) == BLOBMSG_TYPE_STRING && std::string(blobmsg_name(attr)) == "path")
                paths().push_back(blobmsg_get_string(attr));
        }
    }
    ubus_context *ctx_ = nullptr;
    ubus_event_handler handler_{};
};

std::size_t indexOf(const std::vector<std::string> &lines, const std::string &prefix)
{
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (lines[i].rfind(prefix, 0) == 0)
            return i;
    return lines.size();
}

void pauseMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

class Daemon : public RouterTest {};

}  // namespace

TEST_F(Daemon, RegistersTheEightObjectsInTheirFixedOrder)
{
    startBus();
    RegistrationWatch watch;
    ASSERT_TRUE(watch.open());
    startDaemon();
    EXPECT_EQ(watch.collect(kDaemonObjects.size(), 5000), kDaemonObjects);
    for (const auto &object : kDaemonObjects)
        EXPECT_THAT(objects(), Contains(object));
}

TEST_F(Daemon, StartUpRestoresRulesInOrderBeforeServing)
{
    writeConfig("macFilter", "config macfilter 'main'\n\toption enabled '1'\n\toption curmode 'deny'\n\n"
                             "config filter 'blacklist'\n\tlist deny 'AA:BB:CC:DD:EE:01/phone'\n\n"
                             "config filter 'whitelist'\n");
    writeConfig("iptv", "config iptv 'main'\n\toption enabled '1'\n\toption vlanid '100'\n\toption vlan1 '1'\n"
                        "\toption vlan2 '0'\n\toption vlan3 '0'\n\toption type '0'\n\toption vlan24g '0'\n"
                        "\toption vlan5g '0'\n");
    start();
    const auto lines = journal();
    const std::size_t macBridge = indexOf(lines, "ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:01 -j DROP");
    const std::size_t macIpv6 = indexOf(lines, "ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP");
    const std::size_t iptvDns = indexOf(lines, "ebtables --concurrent -t broute -I BROUTING -i ");
    const std::size_t upnpChain = indexOf(lines, "iptables -N NatForward_DMZ");
    ASSERT_LT(macBridge, lines.size()) << "MAC filter rules were not restored";
    ASSERT_LT(macIpv6, lines.size());
    ASSERT_LT(iptvDns, lines.size()) << "IPTV DNS rules were not restored";
    ASSERT_LT(upnpChain, lines.size()) << "the DMZ and UPnP chains were not made";
    EXPECT_LT(macBridge, macIpv6);
    EXPECT_LT(macIpv6, iptvDns) << "the MAC filter restore runs before the IPTV restore";
    EXPECT_LT(iptvDns, upnpChain) << "the IPTV restore runs before the UPnP and DMZ restore";
    // Start-up neither reloads the firewall nor rewrites the MAC filter's configuration.
    EXPECT_THAT(lines, Not(Contains("/etc/init.d/firewall reload")));
    EXPECT_THAT(readConfig("macFilter"), HasSubstr("AA:BB:CC:DD:EE:01/phone"));
}

TEST_F(Daemon, UnknownMethodsAndObjectsAreRefusedByTheBus)
{
    start();
    for (const auto &object : kDaemonObjects)
        EXPECT_EQ(call(object, "noSuchMethod").status, 3) << object;
    EXPECT_EQ(call("RTNoSuchObject", "getIptvInfo").status, 4);
    EXPECT_TRUE(daemonRunning());
}

TEST_F(Daemon, ObjectsAnswerAgainAfterTheBusDaemonRestarts)
{
    start();
    clearJournal();
    stopBus();
    startBus();
    // Usually the first attempt, at once, meets no bus and the next one, 3000 ms later, finds the new bus daemon;
    // when gwconfd notices the loss only after the new bus daemon is up, the first attempt already succeeds.
    ASSERT_TRUE(waitObjects(kDaemonObjects, 15000)) << daemonLog();
    for (const auto &object : kDaemonObjects)
        EXPECT_EQ(call(object, "noSuchMethod").status, 3) << object << " is not served after the reconnect";
    EXPECT_EQ(logCountOf("debug", "ubus_connection_lost", "ubus_connection_lost"), 1) << daemonLog();
    // A reconnect is no new start: nothing of the start-up runs again.
    EXPECT_THAT(journal(), Not(Contains(StartsWith("iptables -N"))));

    // A second loss, with the bus daemon killed this time, is handled the same way.
    killBus();
    startBus();
    ASSERT_TRUE(waitObjects(kDaemonObjects, 15000)) << daemonLog();
    EXPECT_EQ(logCountOf("debug", "ubus_connection_lost", "ubus_connection_lost"), 2);
    EXPECT_TRUE(daemonRunning());
}

TEST_F(Daemon, WaitsForABusThatIsNotThereYet)
{
    startDaemon(false);
    ASSERT_TRUE(waitLog("error", "ubusConnectAtStart", "ubus_connect failed, retrying every 3000 ms", 5000))
        << daemonLog();
    pauseMs(3500);  // at least one more failed attempt
    EXPECT_EQ(logCountOf("error", "ubusConnectAtStart", "ubus_connect failed, retrying every 3000 ms"), 1)
        << "one line for the whole failure streak:\n"
        << daemonLog();
    EXPECT_TRUE(daemonRunning());
    startBus();
    ASSERT_TRUE(waitObjects(kDaemonObjects, 10000)) << daemonLog();
    EXPECT_TRUE(logHas("info", "connectAttempt", "connected to ubus")) << daemonLog();
    EXPECT_EQ(call("RTIptv", "noSuchMethod").status, 3);
}

TEST_F(Daemon, SigtermEndsTheDaemonWithStatusZero)
{
    start();
    EXPECT_EQ(stopDaemon(), 0);
    EXPECT_THAT(objects(), Not(Contains("RTMacFilter")));

    // Also while it is still waiting for the bus.
    stopBus();
    startDaemon(false);
    ASSERT_TRUE(waitLog("error", "ubusConnectAtStart", "ubus_connect failed, retrying every 3000 ms", 5000));
    EXPECT_EQ(stopDaemon(), 0);
}
