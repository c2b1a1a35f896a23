// Helpers of the MAC filter's end-to-end tests: a stand-in for the station daemon RTSta, the package macFilter as
// text, and the fixture MacFilterTest with readers of the MAC filter's rule sections and FORWARD rules.
//
// RtStaStandIn stands in for RTSta, the station daemon that keeps the names of client devices. It is a child process of the test that offers the object "RTSta" on the emulated router's bus:
// "setStaDevName" {DevMac, DevName} stores a name; "getStaDevName" {DevMac} answers {"params":{"DevName":...}} for
// a known MAC and nothing for an unknown one. It can be made slow (every call answers after a delay), made to hang
// (it takes every call and never completes one), and stopped and resumed as a process. Each call it receives is
// recorded, before it answers, as one line "<method> <DevMac>[ <DevName>]" that the test reads back.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libubus.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/router.h"

namespace gw::e2e {

class RtStaStandIn {
public:
    // names: the stations known from the start; delayMs: how long every call takes before it answers; hang: take
    // every call and never complete one.
    explicit RtStaStandIn(std::map<std::string, std::string> names = {}, int delayMs = 0, bool hang = false)
    {
        state().names = std::move(names);
        state().delayMs = delayMs;
        state().hang = hang;
    }
    RtStaStandIn(const RtStaStandIn &) = delete;
    RtStaStandIn &operator=(const RtStaStandIn &) = delete;
    ~RtStaStandIn() { stop(); }

    // Forks the stand-in and waits until its object is on the bus (fails the test otherwise).
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
            state().recordFd = record[1];
            _exit(serve(ready[1]));
        }
        close(ready[1]);
        close(record[1]);
        recordFd_ = record[0];
        fcntl(recordFd_, F_SETFL, O_NONBLOCK);
        char byte = 0;
        ssize_t n = read(ready[0], &byte, 1);
        close(ready[0]);
        ASSERT_EQ(n, 1) << "the RTSta stand-in could not register on the bus";
    }

    // Stops and resumes the process: while stopped, the bus still queues its calls and nobody reads them.
    void pause() { kill(pid_, SIGSTOP); }
    void resume() { kill(pid_, SIGCONT); }

    void stop()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            kill(pid_, SIGCONT);
            int status = 0;
            waitpid(pid_, &status, 0);
            pid_ = -1;
        }
        if (recordFd_ >= 0) {
            drain();
            close(recordFd_);
            recordFd_ = -1;
        }
    }

    // Every call received so far, in order.
    std::vector<std::string> calls()
    {
        drain();
        return splitLines(recorded_);
    }

    // Waits until `count` calls were recorded; false when timeoutMs passed first.
    bool waitCalls(size_t count, int timeoutMs)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (calls().size() < count) {
            if (std::chrono::steady_clock::now() >= end)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

private:
    struct State {
        std::map<std::string, std::string> names;
        int delayMs = 0;
        bool hang = false;
        int recordFd = -1;
    };
    static State &state()
    {
        static State s;
        return s;
    }

    enum { DEV_MAC, DEV_NAME, DEV_MAX };

    static const struct blobmsg_policy *policy()
    {
        static const struct blobmsg_policy p[DEV_MAX] = {
            [DEV_MAC] = {.name = "DevMac", .type = BLOBMSG_TYPE_STRING},
            [DEV_NAME] = {.name = "DevName", .type = BLOBMSG_TYPE_STRING},
        };
        return p;
    }

    static void record(const std::string &line)
    {
        std::string l = line + "\n";
        if (write(state().recordFd, l.data(), l.size()) < 0)
            _exit(3);
    }

    static void delay()
    {
        if (state().delayMs > 0)
            usleep(static_cast<useconds_t>(state().delayMs) * 1000);
    }

    // In the hanging mode: takes the call over and never completes it. True when it did.
    static bool held(struct ubus_context *ctx, struct ubus_request_data *req)
    {
        if (!state().hang)
            return false;
        static struct ubus_request_data requests[256];
        static int count = 0;
        ubus_defer_request(ctx, req, &requests[count++ % 256]);
        return true;
    }

    static int setName(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
                       struct blob_attr *msg)
    {
        struct blob_attr *tb[DEV_MAX];
        blobmsg_parse(policy(), DEV_MAX, tb, blob_data(msg), blob_len(msg));
        if (!tb[DEV_MAC] || !tb[DEV_NAME])
            return UBUS_STATUS_INVALID_ARGUMENT;
        std::string mac = blobmsg_get_string(tb[DEV_MAC]);
        std::string name = blobmsg_get_string(tb[DEV_NAME]);
        record("setStaDevName " + mac + " " + name);
        if (held(ctx, req))
            return UBUS_STATUS_OK;
        delay();
        state().names[mac] = name;
        return UBUS_STATUS_OK;
    }

    static int getName(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
                       struct blob_attr *msg)
    {
        struct blob_attr *tb[DEV_MAX];
        blobmsg_parse(policy(), DEV_MAX, tb, blob_data(msg), blob_len(msg));
        if (!tb[DEV_MAC])
            return UBUS_STATUS_INVALID_ARGUMENT;
        std::string mac = blobmsg_get_string(tb[DEV_MAC]);
        record("getStaDevName " + mac);
        if (held(ctx, req))
            return UBUS_STATUS_OK;
        delay();
        auto it = state().names.find(mac);
        if (it == state().names.end())
            return UBUS_STATUS_OK;
        static struct blob_buf b;
        blob_buf_init(&b, 0);
        void *params = blobmsg_open_table(&b, "params");
        blobmsg_add_string(&b, "DevName", it->second.c_str());
        blobmsg_close_table(&b, params);
        ubus_send_reply(ctx, req, b.head);
        blob_buf_free(&b);
        return UBUS_STATUS_OK;
    }

    static int serve(int readyFd)
    {
        static const struct ubus_method methods[] = {
            {.name = "setStaDevName", .handler = setName},
            {.name = "getStaDevName", .handler = getName},
        };
        static struct ubus_object_type type = {"RTSta", 0, methods, 2};
        static struct ubus_object object = {.name = "RTSta", .type = &type, .methods = methods, .n_methods = 2};

        uloop_init();
        struct ubus_context *ctx = ubus_connect(nullptr);
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
        ubus_free(ctx);
        uloop_done();
        return 0;
    }

    void drain()
    {
        char buf[4096];
        ssize_t n;
        while (recordFd_ >= 0 && (n = read(recordFd_, buf, sizeof buf)) > 0)
            recorded_.append(buf, static_cast<size_t>(n));
    }

    pid_t pid_ = -1;
    int recordFd_ = -1;
    std::string recorded_;
};

// The package macFilter with the given state and lists.
inline std::string macFilterConfig(const std::string &enabled, const std::string &curmode,
                                   const std::vector<std::string> &black, const std::vector<std::string> &white)
{
    std::string text = "config macfilter 'main'\n\toption enabled '" + enabled + "'\n\toption curmode '" + curmode +
                       "'\n\nconfig filter 'blacklist'\n";
    for (const auto &e : black)
        text += "\tlist deny '" + e + "'\n";
    text += "\nconfig filter 'whitelist'\n";
    for (const auto &e : white)
        text += "\tlist allow '" + e + "'\n";
    return text;
}

// A macList request of RTMacFilter.
inline std::string macListRequest(int enable, int model, const std::string &name, const std::string &mac)
{
    return "{\"enable\":" + std::to_string(enable) + ",\"model\":" + std::to_string(model) +
           ",\"macList\":{\"name\":" + jsonString(name) + ",\"mac\":" + jsonString(mac) + "}}";
}

constexpr const char *kFirewallReload = "/etc/init.d/firewall reload";

class MacFilterTest : public RouterTest {
protected:
    // The rule sections from the LAN to the WAN (the MAC filter's and the device block's), in stored order, each
    // as "name src_mac target" with "-" for an option that is not stored.
    std::vector<std::string> lanRules()
    {
        // Lines "firewall.@rule[N].OPTION='VALUE'", a quote inside VALUE written '\''.
        const std::string prefix = "firewall.@rule[";
        std::map<int, std::map<std::string, std::string>> rules;
        for (const auto &l : splitLines(uciShow("firewall"))) {
            size_t close = l.find("].");
            size_t eq = l.find("='");
            if (l.rfind(prefix, 0) != 0 || close == std::string::npos || eq == std::string::npos || eq < close ||
                l.back() != '\'')
                continue;
            int index = std::stoi(l.substr(prefix.size(), close - prefix.size()));
            std::string option = l.substr(close + 2, eq - close - 2);
            std::string quoted = l.substr(eq + 2, l.size() - eq - 3), value;
            for (size_t i = 0; i < quoted.size(); ++i) {
                if (quoted.compare(i, 4, "'\\''") == 0) {
                    value += '\'';
                    i += 3;
                } else {
                    value += quoted[i];
                }
            }
            rules[index][option] = value;
        }
        std::vector<std::string> out;
        for (auto &[index, opts] : rules) {
            if (opts["src"] != "lan" || opts["dest"] != "wan")
                continue;
            auto get = [&](const char *k) { return opts.count(k) ? opts[k] : std::string("-"); };
            out.push_back(get("name") + " " + get("src_mac") + " " + get("target"));
        }
        return out;
    }

    // The bridge's FORWARD rules as ebtables lists them ("-s aa:bb:cc:dd:ee:01 -j DROP").
    std::vector<std::string> bridgeForward()
    {
        std::vector<std::string> out;
        bool forward = false;
        for (const auto &l : ebtablesRules()) {
            if (l.rfind("Bridge chain:", 0) == 0)
                forward = l.rfind("Bridge chain: FORWARD,", 0) == 0;
            else if (forward && !l.empty())
                out.push_back(l);
        }
        return out;
    }

    // The IPv6 FORWARD rules as ip6tables -S prints them, without the policy line.
    std::vector<std::string> ipv6Forward()
    {
        std::vector<std::string> out;
        for (const auto &l : ip6tablesRules())
            if (l.rfind("-A FORWARD ", 0) == 0)
                out.push_back(l.substr(11));
        return out;
    }

    // The journal lines of the FORWARD rules (other modules' start-up commands left out).
    std::vector<std::string> forwardJournal()
    {
        std::vector<std::string> out;
        for (const auto &l : journal())
            if ((l.rfind("ebtables ", 0) == 0 || l.rfind("ip6tables ", 0) == 0) && l.find(" FORWARD") != std::string::npos)
                out.push_back(l);
        return out;
    }
};

} // namespace gw::e2e
