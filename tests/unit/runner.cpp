// The command runner. Its splitting: request data stays inside its word, the few redirections are understood, other
// shell syntax is refused, lines are cut as the daemon's buffer cuts them. Its real processes, in a private
// temporary folder: arguments arrive verbatim, exit statuses come back (a signal as 128 + its number), redirections
// land where the format says, programs start with default signals, background commands do not block and are
// reaped, iptables is found through PATH.
#include "routeutils/command_line.h"
#include "routeutils/routeutils.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using routeutils::Command;
using routeutils::CommandFormat;
using routeutils::kCommandLineMax;

namespace {

// Splits and formats as LC_SystemCall does, without starting anything.
Command build(const char *fmt, ...)
{
    CommandFormat format;
    std::string why;
    EXPECT_TRUE(routeutils::splitCommandFormat(fmt, format, &why)) << fmt << ": " << why;
    va_list ap;
    va_start(ap, fmt);
    routeutils::VaListSource args(ap);
    Command cmd = routeutils::formatCommand(format, args);
    va_end(ap);
    return cmd;
}

// The words joined by '|', then each redirection and the background mark.
std::string shown(const Command &c)
{
    std::string s;
    for (const std::string &a : c.argv)
        s += (s.empty() ? "" : "|") + a;
    for (const routeutils::Redirection &r : c.redirections)
        s += " " + std::to_string(r.fd) + (r.toStdout ? ">&1" : ">" + r.path);
    return s + (c.background ? " &" : "");
}

std::string read(const char *path) { return (std::stringstream() << std::ifstream(path).rdbuf()).str(); }

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
    fs::path old_;
};

} // namespace

TEST(RunnerSplit, RequestDataStaysOneArgument)
{
    for (const char *arg : {"00:11:22:33:44:55; reboot", "$(reboot)", "`reboot`", "a b  c", "'q'", "\"dq\"", "x|y", "&",
                            "> /etc/passwd", "2>&1", "*", "~root", "#c", "a\nb", "", "-j ACCEPT"})
        EXPECT_EQ(shown(build("ebtables -s %s -j DROP", arg)), std::string("ebtables|-s|") + arg + "|-j|DROP") << arg;
    EXPECT_EQ(shown(build("uci set %s.%s=%s", "net work", "x;y", "$(id)")), "uci|set|net work.x;y=$(id)");
    EXPECT_EQ(shown(build("p %d %u %ld %llu %x %c %5s %-4d, %05d %.2s %*d %% %hhu %zu %3.1f", -7, 4000000000u,
                          -123456789012L, 18446744073709551615ull, 255, 'q', "ab", 3, 42, "abcdef", 4, 9, 300,
                          static_cast<size_t>(77), 2.25)),
              "p|-7|4000000000|-123456789012|18446744073709551615|ff|q|   ab|3   ,|00042|ab|   9|%|44|77|2.2");
    // Redirections and "&" in their order, wherever they stand in the format.
    EXPECT_EQ(shown(build("ebtables -D B -i %s -j ACCEPT 2> /dev/null", "eth0.4")), "ebtables|-D|B|-i|eth0.4|-j|ACCEPT 2>/dev/null");
    EXPECT_EQ(shown(build("/etc/init.d/miniupnpd enable >/dev/null ")), "/etc/init.d/miniupnpd|enable 1>/dev/null");
    EXPECT_EQ(shown(build("cmd 2>&1 1>/tmp/out arg")), "cmd|arg 2>&1 1>/tmp/out");
    EXPECT_EQ(shown(build("iptables -t nat -N MINIUPNPD \n")), "iptables|-t|nat|-N|MINIUPNPD");
    const Command bg = build("%s > /tmp/wanPortMap.log 2>&1 &", "/tmp/w.sh");
    EXPECT_EQ(shown(bg) + "|" + bg.line, "/tmp/w.sh 1>/tmp/wanPortMap.log 2>&1 &|/tmp/w.sh > /tmp/wanPortMap.log 2>&1 &");
}

TEST(RunnerSplit, OtherShellSyntaxIsRefused)
{
    for (const char *fmt : {"a; b", "a | b", "a && b", "a || b", "a & b", "a & &", "x $(y)", "x $HOME", "a `b`", "a 'b c'",
                            "a \"b\"", "a < /etc/passwd", "a >> f", "a 2>> f", "a >&2", "a &> f", "a > %s", "a 2> f%d",
                            "a >", "a 2>", "a > $f", "a*", "a?", "a[1]", "{a,b}", "~/x", "a #c", "(a)", "a\\ b", "a\nb",
                            "a\rb", "a\x01", "FOO=1 cmd", "", "   ", "&", "x %n", "x %1$s", "x %ls", "x %q", "x %",
                            "x %Lf%Ld", "!a"}) {
        CommandFormat format;
        std::string why;
        EXPECT_FALSE(routeutils::splitCommandFormat(fmt, format, &why)) << "accepted: \"" << fmt << "\"";
        EXPECT_NE(why, "") << fmt;
    }
    CommandFormat format;
    for (const char *fmt : {"uci set firewall.x.path=/usr/bin/dmzupnp.sh ", "x-y_z:1,2+3@4^5", "%s=x", "-m mark --mark 0x8888"})
        EXPECT_TRUE(routeutils::splitCommandFormat(fmt, format, nullptr)) << fmt;
}

TEST(RunnerSplit, LinesAreCutLikeTheDaemonBuffer)
{
    // "touch " takes 6 characters; the words after the cut go, the redirection and "&" of the format stay.
    Command cmd = build("touch %s second 2> /dev/null &", std::string(200, 'n').c_str());
    EXPECT_TRUE(cmd.cut);
    EXPECT_EQ(shown(cmd), "touch|" + std::string(kCommandLineMax - 6, 'n') + " 2>/dev/null &");
    const std::string fits(kCommandLineMax - 6, 'f');
    cmd = build("touch %s", fits.c_str());
    EXPECT_FALSE(cmd.cut);
    EXPECT_EQ(cmd.line.size(), kCommandLineMax);
    for (const std::string &word : {fits, fits.substr(1)})  // a word starting at or past the cut is no empty argument
        EXPECT_EQ(shown(build("touch %s tail", word.c_str())), "touch|" + word);

    // The program word of the iptables entry point counts towards the limit.
    CommandFormat format;
    ASSERT_TRUE(routeutils::splitCommandFormat("-t nat -I D -j DNAT --to %s ", format, nullptr));
    struct Fixed : routeutils::ArgumentSource {
        std::string text;
        std::string next(const routeutils::Conversion &) override { return text; }
    } args;
    args.text = "1.2.3.5;reboot";
    EXPECT_EQ(shown(routeutils::formatCommand(format, args, "iptables")), "iptables|-t|nat|-I|D|-j|DNAT|--to|1.2.3.5;reboot");
    args.text = std::string(300, '1');
    EXPECT_EQ(routeutils::formatCommand(format, args, "iptables").line.size(), kCommandLineMax);
}

// Nothing in src/ starts a program but through LC_SystemCall and iptables (the transcripts run every command
// format of the daemon and show what it became).
TEST(RunnerSplit, NothingElseStartsAProgram)
{
    const std::regex comment(R"(//[^\n]*|/\*[\s\S]*?\*/)"), text(R"("(?:[^"\\]|\\.)*")"),
        forbidden(R"(\b(system|popen|exec[lv]p?e?|execvpe|v?fork|clone|posix_spawnp?|wordexp)\s*\()");
    for (const auto &e : fs::recursive_directory_iterator(GWCONF_SOURCE_DIR "/src")) {
        std::stringstream ss;
        ss << std::ifstream(e.path()).rdbuf();
        const std::string code = std::regex_replace(std::regex_replace(ss.str(), comment, ""), text, "\"\"");
        EXPECT_FALSE(std::regex_search(code, forbidden)) << e.path();
    }
}

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
    EXPECT_EQ(LC_SystemCall("gwconf-no-such-program 2> /dev/null"), 127);  // a program that cannot start
}

TEST_F(RunnerExec, RedirectionsAreAppliedInOrderAndTruncate)
{
    Command cmd;
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
    const std::string sig = read("signals");  // "SigBlk:\t<16 hex digits>\nSigIgn:\t<16 hex digits>\n"
    ASSERT_EQ(sig.size(), 50u);
    EXPECT_EQ(std::stoull(sig.substr(8, 16), nullptr, 16), 0u);
    EXPECT_EQ(std::stoull(sig.substr(33, 16), nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0u);

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
