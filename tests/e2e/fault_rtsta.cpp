// The station daemon RTSta hanging: it takes the MAC filter's name calls and never answers, or its process is
// stopped and reads nothing at all. gwconfd gives each call up after 1000 ms (the MAC filter's RTSta timeout), uses
// the stored names, answers its own caller, and serves the calls that queued up meanwhile; being single-threaded it
// serves nothing else while it waits, so those calls are only answered later, not refused.
#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <libubus.h>

#include "support/router.h"

namespace gw::e2e {
namespace {

using Clock = std::chrono::steady_clock;
using ::testing::Contains;
using ::testing::HasSubstr;

// A stand-in RTSta in a child process. With `answer` false it defers every request and never completes it; with
// `answer` true it answers getStaDevName with the name "sta-<last two MAC digits>". Each request is recorded as
// "<method> <DevMac>" before anything else happens.
class StandIn {
public:
    explicit StandIn(bool answer) : answer_(answer) {}
    ~StandIn() { stop(); }

    void start()
    {
        int ready[2], record[2];
        ASSERT_EQ(pipe(ready), 0);
        ASSERT_EQ(pipe(record), 0);
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            close(ready[0]);
            close(record[0]);
            recordFd() = record[1];
            answers() = answer_;
            _exit(serve(ready[1]));
        }
        close(ready[1]);
        close(record[1]);
        recordFd_ = record[0];
        fcntl(recordFd_, F_SETFL, O_NONBLOCK);
        char byte = 0;
        ssize_t n = read(ready[0], &byte, 1);
        close(ready[0]);
        ASSERT_EQ(n, 1) << "the RTSta stand-in could not register";
    }
    void pause() { kill(pid_, SIGSTOP); }
    void resume() { kill(pid_, SIGCONT); }
    void stop()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            kill(pid_, SIGCONT);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    std::vector<std::string> calls()
    {
        char buf[4096];
        ssize_t n;
        while (recordFd_ >= 0 && (n = read(recordFd_, buf, sizeof buf)) > 0)
            recorded_.append(buf, static_cast<size_t>(n));
        return splitLines(recorded_);
    }
    // Waits until `count` calls were recorded.
    bool waitCalls(size_t count, int timeoutMs)
    {
        auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (calls().size() < count) {
            if (Clock::now() >= end)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

private:
    static int &recordFd()
    {
        static int fd = -1;
        return fd;
    }
    static bool &answers()
    {
        static bool a = false;
        return a;
    }
    static int handle(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg)
    {
        static const blobmsg_policy policy[] = {{"DevMac", BLOBMSG_TYPE_STRING}};
        blob_attr *tb[1];
        blobmsg_parse(policy, 1, tb, blob_data(msg), blob_len(msg));
        std::string mac = tb[0] ? blobmsg_get_string(tb[0]) : "";
        std::string line = std::string(method) + " " + mac + "\n";
        if (write(recordFd(), line.data(), line.size()) < 0)
            _exit(3);
        if (!answers()) {
            static ubus_request_data held[256];   // never completed
            static int count = 0;
            ubus_defer_request(ctx, req, &held[count++ % 256]);
            return UBUS_STATUS_OK;
        }
        if (std::string(method) == "getStaDevName" && mac.size() >= 2) {
            static blob_buf b;
            blob_buf_init(&b, 0);
            void *params = blobmsg_open_table(&b, "params");
            blobmsg_add_string(&b, "DevName", ("sta-" + mac.substr(mac.size() - 2)).c_str());
            blobmsg_close_table(&b, params);
            ubus_send_reply(ctx, req, b.head);
            blob_buf_free(&b);
        }
        return UBUS_STATUS_OK;
    }
    static int serve(int readyFd)
    {
        static const ubus_method methods[] = {
            {.name = "setStaDevName", .handler = handle},
            {.name = "getStaDevName", .handler = handle},
        };
        static ubus_object_type type = {"RTSta", 0, methods, 2};
        static ubus_object object = {.name = "RTSta", .type = &type, .methods = methods, .n_methods = 2};
        uloop_init();
        ubus_context *ctx = ubus_connect(nullptr);
        if (!ctx)
            return 1;
        ubus_add_uloop(ctx);
        if (ubus_add_object(ctx, &object) != UBUS_STATUS_OK)
            return 2;
        char byte = 1;
        if (write(readyFd, &byte, 1) != 1)
            return 3;
        close(readyFd);
        uloop_run();
        return 0;
    }

    bool answer_;
    pid_t pid_ = -1;
    int recordFd_ = -1;
    std::string recorded_;
};

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
    StandIn rtsta(false);
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
    EXPECT_THAT(rtsta.calls(), Contains("setStaDevName AA:BB:CC:DD:EE:03"));

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
    StandIn rtsta(true);
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
