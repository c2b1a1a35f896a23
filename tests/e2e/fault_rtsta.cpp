// The station daemon RTSta hanging: it takes the MAC filter's name calls and never answers, or its process is
// stopped and reads nothing at all. gwconfd gives each call up after 1000 ms (the MAC filter's RTSta timeout), uses
// the stored names, answers its own caller, and serves the calls that queued up meanwhile; being single-threaded it
// serves nothing else while it waits, so those calls are only answered later, not refused.
#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>


#include "macfilter_support.h"

namespace gw::e2e {
namespace {

using Clock = std::chrono::steady_clock;
using ::testing::Contains;
using ::testing::HasSubstr;

const char *kTwoBlackEntries = "config macfilter 'main'\n\toption enabled '1'\n\toption curmode 'deny'\n\n"
                               "config filter 'blacklist'\n\tlist deny 'AA:BB:CC:DD:EE:01/tv'\n"
                               "\tlist deny 'AA:BB:CC:DD:EE:02/pc'\n\nconfig filter 'whitelist'\n";

class RtStaHang : public RouterTest {
protected:
    // Calls `object method` on another thread while the daemon is busy; join() gives its result and duration.
    struct Pending {
        std::thread thread;
        CallResult result;
        Clock::duration took{};
    };
    void callLater(Pending &p, const std::string &object, const std::string &method, int afterMs)
    {
        p.thread = std::thread([this, &p, object, method, afterMs] {
            std::this_thread::sleep_for(std::chrono::milliseconds(afterMs));
            auto begin = Clock::now();
            p.result = call(object, method, "{}", 30);
            p.took = Clock::now() - begin;
        });
    }
};

TEST_F(RtStaHang, CallsThatNeverAnswerTimeOutAndTheDaemonGoesOn)
{
    writeConfig("macFilter", kTwoBlackEntries);
    start();
    RtStaStandIn rtsta({}, 0, true);
    rtsta.start();

    // Two black list entries: two name reads, each given up after 1000 ms. A call sent meanwhile waits its turn.
    Pending other;
    callLater(other, "RTIptv", "getIptvInfo", 300);
    auto begin = Clock::now();
    CallResult r = call("zelmad.macfilter", "getMacFilter");
    auto took = Clock::now() - begin;
    other.thread.join();
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"zelmad.macfilter":{"macFilterEnable":1,"macFilterPolicy":0,)"
                       R"("macFilterEntries":"AABBCCDDEE01/tv,AABBCCDDEE02/pc"}})");
    EXPECT_GE(took, std::chrono::milliseconds(2000));
    EXPECT_EQ(logCountOf("info", "getStaNameFromStaList", "setStaNameToStaList ret: 7"), 2) << daemonLog();
    EXPECT_THAT(rtsta.calls(), ::testing::ElementsAre("getStaDevName AA:BB:CC:DD:EE:01",
                                                      "getStaDevName AA:BB:CC:DD:EE:02"));
    EXPECT_EQ(other.result.status, 0) << "a call that came in while RTSta hung was dropped";
    EXPECT_THAT(other.result.reply, HasSubstr(R"("result":true)"));

    // A push of a name that is never answered does not fail the add.
    r = call("RTMacFilter", "addMacFilterList",
             R"({"enable":1,"model":1,"macList":{"name":"cam","mac":"AA:BB:CC:DD:EE:03"}})");
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_TRUE(logHas("error", "addMacFilterListHandler", "setStaNameToStaList ERROR"));
    EXPECT_EQ(uciGet("macFilter.blacklist.deny"), "AA:BB:CC:DD:EE:01/tv AA:BB:CC:DD:EE:02/pc AA:BB:CC:DD:EE:03/cam");
    EXPECT_THAT(rtsta.calls(), Contains("setStaDevName AA:BB:CC:DD:EE:03 cam"));

    // Calls that do not involve RTSta are served as before, however many requests RTSta holds.
    for (const auto &object : {"RTIptv", "RTPortMap", "RTUpnp", "RTWanPortMap"}) {
        const char *method = std::string(object) == "RTIptv"      ? "getIptvInfo"
                             : std::string(object) == "RTPortMap" ? "getPortMapping"
                             : std::string(object) == "RTUpnp"    ? "getUpnpStatus"
                                                                  : "getWanPortMap";
        r = call(object, method, "{}", 5);
        EXPECT_EQ(r.status, 0) << object;
        EXPECT_THAT(r.reply, HasSubstr(R"("result":true)")) << object;
    }
    EXPECT_TRUE(daemonRunning());
}

TEST_F(RtStaHang, StoppedStationDaemonThenBackAgain)
{
    writeConfig("macFilter", kTwoBlackEntries);
    start();
    RtStaStandIn rtsta({{"AA:BB:CC:DD:EE:01", "sta-01"}, {"AA:BB:CC:DD:EE:02", "sta-02"}});
    rtsta.start();
    // Answering normally first.
    CallResult r = call("zelmad.macfilter", "getMacFilter");
    EXPECT_THAT(r.reply, HasSubstr(R"("macFilterEntries":"AABBCCDDEE01/sta-01,AABBCCDDEE02/sta-02")"));

    // Stopped: the bus still takes the requests for it, nobody reads them; every read gives up after 1000 ms.
    rtsta.pause();
    auto begin = Clock::now();
    r = call("RTMacFilter", "getMacFilterList");
    auto took = Clock::now() - begin;
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"params":{"enable":1,"model":1,"blackList":[{"mac":"AA:BB:CC:DD:EE:01","name":"tv"},)"
                       R"({"mac":"AA:BB:CC:DD:EE:02","name":"pc"}],"whiteList":[]},"result":true})");
    EXPECT_GE(took, std::chrono::milliseconds(2000));
    EXPECT_EQ(call("RTIptv", "getIptvInfo", "{}", 5).status, 0);

    // Going on again, it finds the two stale requests and answers them to connections that are gone; the daemon
    // is not confused by those late answers and gets fresh names on its next call.
    rtsta.resume();
    EXPECT_TRUE(rtsta.waitCalls(4, 5000)) << ::testing::PrintToString(rtsta.calls());
    r = call("zelmad.macfilter", "getMacFilter");
    EXPECT_THAT(r.reply, HasSubstr(R"("macFilterEntries":"AABBCCDDEE01/sta-01,AABBCCDDEE02/sta-02")"));
    EXPECT_EQ(rtsta.calls().size(), 6u);
    EXPECT_TRUE(daemonRunning());
}

}  // namespace
}  // namespace gw::e2e
