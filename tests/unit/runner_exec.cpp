// The command runner starting real programs: arguments arrive verbatim, redirections land where the format
// says, exit statuses come back, background commands do not block and are reaped, and iptables is found
// through PATH. Everything happens in a private temporary folder.
#include "routeutils/command_line.h"
#include "routeutils/routeutils.h"

#include "common/log_capture.h"

#include <gtest/gtest.h>

#include <csignal>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

std::string readFile(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string &path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

class RunnerExec : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/gwconf-runner-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        char cwd[4096];
        ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
        oldCwd_ = cwd;
        ASSERT_EQ(chdir(dir_.c_str()), 0);
    }
    void TearDown() override
    {
        if (!oldCwd_.empty())
            (void)chdir(oldCwd_.c_str());
        if (!dir_.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }
    }
    std::string dir_;
    std::string oldCwd_;
};

}  // namespace

TEST_F(RunnerExec, ShellSyntaxInArgumentsIsNeverExecuted)
{
    const char *names[] = {"a;touch pwned1", "$(touch pwned2)", "`touch pwned3`", "x && touch pwned4",
                           "y | touch pwned5", "z > pwned6", "with blank"};
    for (const char *n : names)
        EXPECT_EQ(LC_SystemCall("touch %s", n), 0) << n;
    for (const char *n : names)
        EXPECT_TRUE(exists(dir_ + "/" + n)) << "no file named \"" << n << "\"";
    for (int i = 1; i <= 6; ++i)
        EXPECT_FALSE(exists(dir_ + "/pwned" + std::to_string(i))) << i;
}

TEST_F(RunnerExec, ExitStatusIsReturned)
{
    EXPECT_EQ(LC_SystemCall("true"), 0);
    EXPECT_EQ(LC_SystemCall("false"), 1);
    EXPECT_EQ(LC_SystemCall("test %s = %s", "a", "a"), 0);
    EXPECT_EQ(LC_SystemCall("test %s = %s", "a", "a b"), 1);
    EXPECT_EQ(LC_SystemCall("gwconf-no-such-program-%d 2> /dev/null", 42), 127);
    // A refused format starts nothing.
    EXPECT_EQ(LC_SystemCall("touch refused; touch second"), -1);
    EXPECT_FALSE(exists(dir_ + "/refused;"));
    EXPECT_FALSE(exists(dir_ + "/second"));
}

TEST_F(RunnerExec, RedirectionsAreAppliedInOrder)
{
    routeutils::Command cmd;
    cmd.argv = {"sh", "-c", "echo out; echo err >&2"};  // a test program writing to both streams
    cmd.redirections = {{1, false, dir_ + "/both"}, {2, true, {}}};
    EXPECT_EQ(routeutils::runCommand(cmd), 0);
    EXPECT_EQ(readFile(dir_ + "/both"), "out\nerr\n");

    cmd.redirections = {{2, false, dir_ + "/err"}, {1, false, dir_ + "/out"}};
    EXPECT_EQ(routeutils::runCommand(cmd), 0);
    EXPECT_EQ(readFile(dir_ + "/out"), "out\n");
    EXPECT_EQ(readFile(dir_ + "/err"), "err\n");

    // A file is truncated, as ">" does.
    cmd.argv = {"echo", "x"};
    cmd.redirections = {{1, false, dir_ + "/out"}};
    EXPECT_EQ(routeutils::runCommand(cmd), 0);
    EXPECT_EQ(readFile(dir_ + "/out"), "x\n");

    // A redirection that cannot be made fails the command without running it.
    cmd.argv = {"touch", dir_ + "/ran"};
    cmd.redirections = {{1, false, dir_ + "/missing/dir/out"}};
    EXPECT_NE(routeutils::runCommand(cmd), 0);
    EXPECT_FALSE(exists(dir_ + "/ran"));
}

TEST_F(RunnerExec, StartedProgramsGetDefaultSignalsAndStartFailuresAreReported)
{
    // The event loop ignores SIGPIPE and a daemon may block signals; what it starts must not inherit either, or a
    // program writing into a closed pipe would spin on EPIPE instead of ending.
    struct sigaction ign {}, oldPipe {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, &oldPipe);
    sigset_t block, oldMask;
    sigemptyset(&block);
    sigaddset(&block, SIGUSR1);
    sigprocmask(SIG_BLOCK, &block, &oldMask);
    const int rc = LC_SystemCall("grep -E %s /proc/self/status > signals", "^Sig(Ign|Blk):");
    sigprocmask(SIG_SETMASK, &oldMask, nullptr);
    sigaction(SIGPIPE, &oldPipe, nullptr);
    ASSERT_EQ(rc, 0);
    unsigned long long ignored = ~0ULL, blocked = ~0ULL;
    std::istringstream in(readFile(dir_ + "/signals"));
    for (std::string key, hex; in >> key >> hex;)
        (key == "SigIgn:" ? ignored : blocked) = std::stoull(hex, nullptr, 16);
    EXPECT_EQ(ignored & (1ULL << (SIGPIPE - 1)), 0u);
    EXPECT_EQ(blocked, 0u);

    // A program that cannot start: 127 and a message on the daemon's stderr, unless the command sends its stderr
    // elsewhere, as a shell would.
    int status = 0;
    std::string err = gw::testutil::captureLog(nullptr, [&] { status = LC_SystemCall("gwconf-no-such-program"); });
    EXPECT_EQ(status, 127);
    EXPECT_EQ(err, "gwconfd: cannot run gwconf-no-such-program: No such file or directory\n");
    err = gw::testutil::captureLog(nullptr, [&] { status = LC_SystemCall("gwconf-no-such-program 2> /dev/null"); });
    EXPECT_EQ(status, 127);
    EXPECT_EQ(err, "");
    // In the background it counts as started, as "&" does in a shell.
    EXPECT_EQ(LC_SystemCall("gwconf-no-such-program > /dev/null 2>&1 &"), 0);
}

TEST_F(RunnerExec, BackgroundCommandsDoNotBlockAndAreReaped)
{
    routeutils::reapBackgroundCommands();
    const int before = routeutils::reapBackgroundCommands();
    // A five-second sleep started in the background returns at once and is still running afterwards.
    EXPECT_EQ(LC_SystemCall("sleep %d &", 5), 0);
    EXPECT_EQ(routeutils::reapBackgroundCommands(), before + 1);

    // A short one is reaped once it ended: the count drops back.
    EXPECT_EQ(LC_SystemCall("touch %s > /dev/null 2>&1 &", "bg-done"), 0);
    int running = before + 2;
    for (int i = 0; i < 100 && running > before + 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        running = routeutils::reapBackgroundCommands();
    }
    EXPECT_EQ(running, before + 1);
    EXPECT_TRUE(exists(dir_ + "/bg-done"));
}

TEST_F(RunnerExec, IptablesRunsTheProgramFoundThroughPath)
{
    // A stand-in "iptables" that records its arguments, one per line, found first in PATH.
    const std::string shim = dir_ + "/iptables";
    {
        std::ofstream out(shim);
        out << "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done > " << dir_ << "/args\n";
    }
    ASSERT_EQ(chmod(shim.c_str(), 0755), 0);
    const char *oldPath = std::getenv("PATH");
    const std::string saved = oldPath ? oldPath : "";
    setenv("PATH", (dir_ + ":" + saved).c_str(), 1);
    // Harmless even if another iptables were found: it only asks for the version.
    const int rc = iptables("--version -t nat -N %s ", "MINI UPNPD;x");
    setenv("PATH", saved.c_str(), 1);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(readFile(dir_ + "/args"), "--version\n-t\nnat\n-N\nMINI UPNPD;x\n");
}
