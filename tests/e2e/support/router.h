// The end-to-end test fixture: drives the emulated router (sandbox/router) the way its users do.
//
// Every e2e test case runs in a fresh sandbox. The support code provides main(): outside a sandbox it runs each
// selected test case in its own `sandbox/router --no-daemon --build <this build> -- <this program> ...`, so every
// case starts from the default configuration (sandbox/defaults), an empty journal, empty kernel tables, and with
// neither the bus daemon nor gwconfd running. Listing the tests (--gtest_list_tests) needs no sandbox.
//
// A typical test:
//
//   #include "support/router.h"
//   using namespace gw::e2e;
//
//   TEST_F(RouterTest, BlackListEntryBlocksTheDevice) {
//     writeConfig("macFilter", "config macfilter 'main'\n\toption enabled '1'\n...");   // before start()
//     start();                                  // bus, then gwconfd; waits until its eight objects are there
//     clearJournal();                           // forget the start-up commands
//     auto r = call("RTMacFilter", "getMacFilterList", R"({"model":1})");
//     EXPECT_EQ(r.status, 0);
//     EXPECT_EQ(r.reply, R"({"params":...,"result":true})");
//     EXPECT_THAT(journal(), Contains("ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:FF -j DROP"));
//     EXPECT_TRUE(logHas("info", "uciGetConfig", "uciConfig value:deny"));
//   }
//
// Bus calls go through the `ubus` tool of the build with -S: the reply is the compact JSON the tool prints (no
// blanks, keys in the order the daemon added them) and the status is the tool's exit code, which with -S is the
// bus status itself (0 ok, 2 invalid argument, 3 method not found, 4 object not found, 7 timeout, ...; 255 when
// the tool could not connect).
//
// The journal (/run/sandbox/journal) holds one line per command run through the shims and recorders: the
// command's name and its arguments separated by single blanks, an argument that a shell would not leave alone
// written in single quotes ('a b', '' for the empty argument). Tools found on PATH are named bare (iptables,
// ip6tables, ebtables, uci); service scripts and platform programs by their full path (/etc/init.d/firewall,
// /etc/init.d/network, /etc/init.d/miniupnpd, /usr/bin/iptvswitch, /usr/bin/dmzupnp.sh). The fixture's own
// uci and rule reads use the real tools and are not journaled. docs/sandbox.md has the details.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace gw::e2e {

// ---- plain helpers (usable without the fixture) -------------------------------------------------------------

struct RunResult {
    int status = -1;   // exit code, or 128 + signal number when the program was killed
    std::string out;   // everything it wrote to stdout
    std::string err;   // everything it wrote to stderr
};

// Runs a program (looked up on PATH) with these arguments, no shell involved, feeding it `input` on stdin, and
// waits for it. After timeoutMs it is killed (status 137) and err ends with "[run: <program> killed after ...]",
// so a hung tool fails the test with a message instead of running into ctest's time limit.
RunResult run(const std::vector<std::string> &argv, const std::string &input = {}, int timeoutMs = 60000);

std::string readFile(const std::string &path);   // the whole file; "" when it cannot be read
bool fileExists(const std::string &path);
void writeFile(const std::string &path, const std::string &text, unsigned mode = 0644);
std::vector<std::string> splitLines(const std::string &text);   // without the line ends; no empty last line
std::string jsonString(const std::string &s);   // s as a JSON string literal (quotes and backslashes escaped)

// True when `log` holds the entry "<level> [<function>:<line number>]<message>" ending right after the message
// (at a line end or the end of the log), as gwconfd writes it with GWCONF_LOG_STDERR=1. `count` gives the number
// of such entries.
bool logContains(const std::string &log, const std::string &level, const std::string &function,
                 const std::string &message);
int logCount(const std::string &log, const std::string &level, const std::string &function,
             const std::string &message);

// The eight objects gwconfd registers, in its registration order.
extern const std::vector<std::string> kDaemonObjects;

// Paths inside the sandbox.
inline constexpr const char *kJournal = "/run/sandbox/journal";
inline constexpr const char *kDaemonLog = "/run/sandbox/gwconfd.log";
inline constexpr const char *kBusLog = "/run/sandbox/ubusd.log";
inline constexpr const char *kBusSocket = "/var/run/ubus/ubus.sock";
inline constexpr const char *kConfigDir = "/etc/config";

struct CallResult {
    int status = -1;     // bus status (the exit code of `ubus -S call`)
    std::string reply;   // compact JSON of the reply; several replies are separated by '\n'; "" when none
};

// ---- the fixture --------------------------------------------------------------------------------------------

class RouterTest : public ::testing::Test {
protected:
    void SetUp() override;      // fails the test when it does not run inside the emulated router
    void TearDown() override;   // stops gwconfd (expecting exit status 0) and the bus; on a failed test prints
                                // the journal and the daemon's log; fails the test when gwconfd died by itself
                                // or a sanitizer reported in its log

    // Configuration files, normally before start(). A file written here replaces the default one.
    static void writeConfig(const std::string &package, const std::string &text);
    static void removeConfig(const std::string &package);
    static std::string readConfig(const std::string &package);

    // Bus daemon and gwconfd. Both are children of the test; their output goes to kBusLog and kDaemonLog.
    void start();                          // startBus(), then startDaemon()
    void startBus();                       // waits until the bus socket accepts connections (asserts)
    void stopBus();                        // SIGTERM, waits
    void killBus();                        // SIGKILL, waits
    void startDaemon(bool wait = true);    // with wait: until all of kDaemonObjects are on the bus (asserts)
    int stopDaemon();                      // SIGTERM, waits (10 s, then SIGKILL); returns its exit status
    void killDaemon();                     // SIGKILL, waits
    void restartDaemon();                  // stopDaemon() expecting 0, then startDaemon()
    bool daemonRunning();
    pid_t daemonPid() const { return daemon_; }

    std::vector<std::string> objects();    // `ubus -S list`
    bool waitObjects(const std::vector<std::string> &names, int timeoutMs = 20000);

    // Calls a method through `ubus -S -t <timeoutSeconds> call`. An empty json sends no message.
    CallResult call(const std::string &object, const std::string &method, const std::string &json = "{}",
                    int timeoutSeconds = 20);

    // The uci tool of the build (not journaled). uciGet gives nothing when `uci get` fails.
    RunResult uci(const std::vector<std::string> &args);
    std::optional<std::string> uciGet(const std::string &path);
    std::string uciShow(const std::string &what);
    std::string uciExport(const std::string &package);

    // The journal of commands.
    std::vector<std::string> journal();
    void clearJournal();
    bool waitJournal(const std::string &line, int timeoutMs = 5000);   // until that exact line is there

    // Kernel rules, read with the real tools: `iptables -t T -S`, `ip6tables -t T -S`, `ebtables -t T -L`
    // (both of the latter print MAC addresses in lower case: "-s aa:bb:cc:dd:ee:01 -j DROP").
    std::vector<std::string> iptablesRules(const std::string &table = "filter");
    std::vector<std::string> ip6tablesRules(const std::string &table = "filter");
    std::vector<std::string> ebtablesRules(const std::string &table = "filter");

    // gwconfd's output since its latest start, and entries in it (see logContains).
    std::string daemonLog();
    bool logHas(const std::string &level, const std::string &function, const std::string &message);
    int logCountOf(const std::string &level, const std::string &function, const std::string &message);
    bool waitLog(const std::string &level, const std::string &function, const std::string &message,
                 int timeoutMs = 5000);

private:
    pid_t bus_ = -1;
    pid_t daemon_ = -1;
    long daemonLogStart_ = 0;
    int daemonExit_ = -1;   // status of a daemon that ended without stopDaemon/killDaemon, seen by daemonRunning
};

}  // namespace gw::e2e
