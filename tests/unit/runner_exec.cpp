// The command runner starting real programs in a private temporary folder: arguments arrive verbatim, exit
// statuses come back (a signal as 128 + its number), redirections land where the format says, background commands
// do not block and are reaped, iptables is found through PATH; and the log line format on stderr.
#include "common/log_capture.h"
#include "routeutils/command_line.h"
#include "routeutils/routeutils.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using gw::testutil::captureLog;

namespace {

class RunnerExec : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/gwconf-runner-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        old_ = fs::current_path();
        fs::current_path(tmpl);
    }
    void TearDown() override
    {
        const fs::path dir = fs::current_path();
        fs::current_path(old_);
        fs::remove_all(dir);
    }
    static std::string read(const char *path) { return (std::stringstream() << std::ifstream(path).rdbuf()).str(); }
    fs::path old_;
};

} // namespace

TEST_F(RunnerExec, ArgumentsAreNeverExecutedAndStatusesComeBack)
{
    for (const char *n : {"a;touch pwned", "$(touch pwned)", "`touch pwned`", "x && touch pwned", "z > pwned", "a b"}) {
        EXPECT_EQ(LC_SystemCall("touch %s", n), 0) << n;
        EXPECT_TRUE(fs::exists(n)) << n;
    }
    EXPECT_FALSE(fs::exists("pwned"));
    EXPECT_EQ(LC_SystemCall("test %s = %s", "a", "a b"), 1);
    EXPECT_EQ(LC_SystemCall("sh -c %s", "kill -9 $$"), 128 + SIGKILL);
    EXPECT_EQ(LC_SystemCall("touch refused; touch second"), -1);
    EXPECT_FALSE(fs::exists("refused;"));
    // A program that cannot start: 127 and a message, unless the command sends its stderr elsewhere.
    int status = 0;
    EXPECT_EQ(captureLog(nullptr, [&] { status = LC_SystemCall("gwconf-no-such-program"); }),
              "gwconfd: cannot run gwconf-no-such-program: No such file or directory\n");
    EXPECT_EQ(status, 127);
    EXPECT_EQ(captureLog(nullptr, [&] { status = LC_SystemCall("gwconf-no-such-program 2> /dev/null"); }), "");
    EXPECT_EQ(status, 127);
}

TEST_F(RunnerExec, RedirectionsAreAppliedInOrderAndTruncate)
{
    routeutils::Command cmd;
    cmd.argv = {"sh", "-c", "echo out; echo err >&2"};
    cmd.redirections = {{1, false, "both"}, {2, true, {}}};
    EXPECT_EQ(routeutils::runCommand(cmd), 0);
    EXPECT_EQ(read("both"), "out\nerr\n");
    cmd.redirections = {{2, false, "err"}, {1, false, "out"}};
    EXPECT_EQ(routeutils::runCommand(cmd), 0);
    EXPECT_EQ(read("out") + read("err"), "out\nerr\n");
    cmd.argv = {"echo", "x"};
    cmd.redirections = {{1, false, "both"}};
    EXPECT_EQ(routeutils::runCommand(cmd), 0);
    EXPECT_EQ(read("both"), "x\n");
    cmd.argv = {"touch", "ran"};
    cmd.redirections = {{1, false, "missing/out"}};  // a redirection that cannot be made runs nothing
    EXPECT_NE(routeutils::runCommand(cmd), 0);
    EXPECT_FALSE(fs::exists("ran"));
}

TEST_F(RunnerExec, ProgramsGetDefaultSignalsAndBackgroundOnesAreReaped)
{
    // SIGPIPE ignored and a signal blocked in the daemon must not reach what it starts.
    struct sigaction ign {}, oldPipe {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, &oldPipe);
    sigset_t block, oldMask;
    sigemptyset(&block);
    sigaddset(&block, SIGUSR1);
    sigprocmask(SIG_BLOCK, &block, &oldMask);
    EXPECT_EQ(LC_SystemCall("grep -E %s /proc/self/status > signals", "^Sig(Ign|Blk):"), 0);
    sigprocmask(SIG_SETMASK, &oldMask, nullptr);
    sigaction(SIGPIPE, &oldPipe, nullptr);
    std::istringstream in(read("signals"));
    unsigned long long ignored = ~0ULL, blocked = ~0ULL;
    for (std::string key, hex; in >> key >> hex;)
        (key == "SigIgn:" ? ignored : blocked) = std::stoull(hex, nullptr, 16);
    EXPECT_EQ(ignored & (1ULL << (SIGPIPE - 1)), 0u);
    EXPECT_EQ(blocked, 0u);

    const int before = routeutils::reapBackgroundCommands();
    EXPECT_EQ(LC_SystemCall("sleep %d > /dev/null 2>&1 &", 5), 0);  // returns at once, still running
    EXPECT_EQ(LC_SystemCall("touch %s > /dev/null 2>&1 &", "done"), 0);
    int running = before + 2;
    for (int i = 0; i < 100 && running > before + 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        running = routeutils::reapBackgroundCommands();
    }
    EXPECT_EQ(running, before + 1);
    EXPECT_TRUE(fs::exists("done"));
}

TEST_F(RunnerExec, IptablesRunsTheProgramFoundThroughPath)
{
    std::ofstream("iptables") << "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\"; done > args\n";
    ASSERT_EQ(chmod("iptables", 0755), 0);
    const std::string path = getenv("PATH");
    setenv("PATH", (fs::current_path().string() + ":" + path).c_str(), 1);
    const int rc = iptables("--version -t nat -N %s ", "MINI UPNPD;x");
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(read("args"), "--version\n-t\nnat\n-N\nMINI UPNPD;x\n");
}

TEST(CoreLog, OneLinePerCallOnlyWhenAskedFor)
{
    const std::string longText(3000, 'x');
    EXPECT_EQ(captureLog("1", [&] {
                  log_error("[%s:%d]upnpRestore no \n", "f", 7);
                  log_info("[%s:%d]%s %% kept", "g", 1, longText.c_str());
                  log_debug("[%s:%d]lost", "h", 9);
              }),
              "error [f:7]upnpRestore no \ninfo [g:1]" + longText + " % kept\ndebug [h:9]lost\n");
    for (const char *off : {static_cast<const char *>(nullptr), "0", "yes"})
        EXPECT_EQ(captureLog(off, [] { log_error("[%s:%d]quiet", "f", 1); }), "") << (off ? off : "unset");
}
