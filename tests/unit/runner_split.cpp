// The command runner's splitting and formatting: request data stays inside the word it was formatted into,
// the few redirections are understood, and everything else a shell would interpret is refused.
#include "routeutils/command_line.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>
#include <vector>

using routeutils::Command;
using routeutils::CommandFormat;
using routeutils::formatCommand;
using routeutils::kCommandLineMax;
using routeutils::splitCommandFormat;
using routeutils::VaListSource;

namespace {

// Splits and formats like LC_SystemCall does, without starting anything.
Command build(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
Command build(const char *fmt, ...)
{
    CommandFormat format;
    std::string why;
    EXPECT_TRUE(splitCommandFormat(fmt, format, &why)) << fmt << ": " << why;
    va_list ap;
    va_start(ap, fmt);
    VaListSource args(ap);
    Command cmd = formatCommand(format, args);
    va_end(ap);
    return cmd;
}

std::string refusal(const char *fmt)
{
    CommandFormat format;
    std::string why;
    if (splitCommandFormat(fmt, format, &why))
        return {};
    EXPECT_FALSE(why.empty()) << fmt;
    return why.empty() ? "?" : why;
}

using Argv = std::vector<std::string>;

}  // namespace

TEST(RunnerSplit, RequestDataWithShellSyntaxStaysOneArgument)
{
    const char *hostile[] = {
        "00:11:22:33:44:55; reboot", "$(reboot)", "`reboot`", "a b  c", "'quoted'", "\"dq\"", "x|y", "&",
        "> /etc/passwd", "2>&1", "*", "~root", "#comment", "a\nb", "", "-j ACCEPT",
    };
    for (const char *arg : hostile) {
        const Command cmd = build("ebtables -I FORWARD 1 -s %s -j DROP", arg);
        EXPECT_EQ(cmd.argv, (Argv{"ebtables", "-I", "FORWARD", "1", "-s", arg, "-j", "DROP"})) << arg;
        EXPECT_TRUE(cmd.redirections.empty()) << arg;
        EXPECT_FALSE(cmd.background) << arg;
        EXPECT_EQ(cmd.line, std::string("ebtables -I FORWARD 1 -s ") + arg + " -j DROP");
    }
    // Conversions glued to literal text form one word with it.
    const Command joined = build("uci set %s.%s=%s", "net work", "x;y", "$(id)");
    EXPECT_EQ(joined.argv, (Argv{"uci", "set", "net work.x;y=$(id)"}));
}

TEST(RunnerSplit, NumbersAndFlagsFormatLikePrintf)
{
    const Command cmd = build("p %d %u %ld %llu %x %X %o %c %5s %-4d, %05d %.2s %*d %.*s %% %i %hhu %zu %3.1f",
                              -7, 4000000000u, -123456789012L, 18446744073709551615ull, 255, 255, 8, 'q', "ab",
                              3, 42, "abcdef", 4, 9, 3, "xyzw", 12, 300, static_cast<size_t>(77), 2.25);
    EXPECT_EQ(cmd.argv, (Argv{"p", "-7", "4000000000", "-123456789012", "18446744073709551615", "ff", "FF", "10",
                              "q", "   ab", "3   ,", "00042", "ab", "   9", "xyz", "%", "12", "44", "77", "2.2"}));
}

TEST(RunnerSplit, RedirectionsAndBackground)
{
    Command cmd = build("ebtables --concurrent -t broute -D BROUTING -i %s -j ACCEPT 2> /dev/null", "eth0.4");
    EXPECT_EQ(cmd.argv, (Argv{"ebtables", "--concurrent", "-t", "broute", "-D", "BROUTING", "-i", "eth0.4", "-j",
                              "ACCEPT"}));
    ASSERT_EQ(cmd.redirections.size(), 1u);
    EXPECT_EQ(cmd.redirections[0].fd, 2);
    EXPECT_EQ(cmd.redirections[0].path, "/dev/null");
    EXPECT_FALSE(cmd.redirections[0].toStdout);
    EXPECT_FALSE(cmd.background);

    cmd = build("/etc/init.d/miniupnpd enable >/dev/null ");
    EXPECT_EQ(cmd.argv, (Argv{"/etc/init.d/miniupnpd", "enable"}));
    ASSERT_EQ(cmd.redirections.size(), 1u);
    EXPECT_EQ(cmd.redirections[0].fd, 1);
    EXPECT_EQ(cmd.redirections[0].path, "/dev/null");

    cmd = build("%s > /tmp/wanPortMap.log 2>&1 &", "/tmp/wanPortMap.sh");
    EXPECT_EQ(cmd.argv, (Argv{"/tmp/wanPortMap.sh"}));
    ASSERT_EQ(cmd.redirections.size(), 2u);
    EXPECT_EQ(cmd.redirections[0].fd, 1);
    EXPECT_EQ(cmd.redirections[0].path, "/tmp/wanPortMap.log");
    EXPECT_EQ(cmd.redirections[1].fd, 2);
    EXPECT_TRUE(cmd.redirections[1].toStdout);
    EXPECT_TRUE(cmd.background);
    EXPECT_EQ(cmd.line, "/tmp/wanPortMap.sh > /tmp/wanPortMap.log 2>&1 &");

    // The order of redirections is kept: "2>&1 > FILE" sends stderr where stdout was before.
    cmd = build("cmd 2>&1 1>/tmp/out arg");
    EXPECT_EQ(cmd.argv, (Argv{"cmd", "arg"}));
    ASSERT_EQ(cmd.redirections.size(), 2u);
    EXPECT_TRUE(cmd.redirections[0].toStdout);
    EXPECT_EQ(cmd.redirections[1].path, "/tmp/out");

    // Trailing blanks and a final line end are no part of the command.
    cmd = build("iptables -t nat -N MINIUPNPD \n");
    EXPECT_EQ(cmd.argv, (Argv{"iptables", "-t", "nat", "-N", "MINIUPNPD"}));
}

TEST(RunnerSplit, FormatsUsingOtherShellSyntaxAreRefused)
{
    const char *refused[] = {
        "a; b", "a | b", "a && b", "a || b", "a & b", "a & &", "x $(y)", "x $HOME", "a `b`", "a 'b c'", "a \"b\"",
        "a < /etc/passwd", "a >> f", "a 2>> f", "a >&2", "a &> f", "a > %s", "a 2> f%d", "a >", "a 2>",
        "a > $f", "a*", "a?", "a[1]", "{a,b}", "~/x", "a #c", "(a)", "a\\ b", "a\nb", "a\rb", "a\x01",
        "FOO=1 cmd", "", "   ", "&", "x %n", "x %1$s", "x %ls", "x %q", "x %", "x %Lf%Ld", "!a",
    };
    for (const char *fmt : refused)
        EXPECT_NE(refusal(fmt), "") << "accepted: \"" << fmt << "\"";
    // Almost-metacharacters that are plain text for a shell as well.
    const char *accepted[] = {"uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh ", "uci set a=b", "x-y_z:1,2+3@4^5",
                              "%s=x", "iptables -m mark --mark 0x8888"};
    for (const char *fmt : accepted)
        EXPECT_EQ(refusal(fmt), "") << fmt;
}

TEST(RunnerSplit, LongLinesAreCutLikeTheDaemonBuffer)
{
    const std::string longName(200, 'n');
    Command cmd = build("touch %s second third 2> /dev/null &", longName.c_str());
    // "touch " takes 6 characters, so 121 of the name fit; the words after the cut are dropped, while the
    // redirection and the background mark of the constant format still apply.
    EXPECT_TRUE(cmd.cut);
    EXPECT_EQ(cmd.argv, (Argv{"touch", std::string(kCommandLineMax - 6, 'n')}));
    EXPECT_EQ(cmd.redirections.size(), 1u);
    EXPECT_TRUE(cmd.background);

    // A line of exactly the limit is not cut.
    const std::string fits(kCommandLineMax - 6, 'f');
    cmd = build("touch %s", fits.c_str());
    EXPECT_FALSE(cmd.cut);
    EXPECT_EQ(cmd.line.size(), kCommandLineMax);

    // A word that starts past the limit disappears instead of becoming an empty argument.
    cmd = build("touch %s tail", fits.c_str());
    EXPECT_TRUE(cmd.cut);
    EXPECT_EQ(cmd.argv.size(), 2u);
}

TEST(RunnerSplit, ProgramWordCountsTowardsTheLimit)
{
    CommandFormat format;
    ASSERT_TRUE(splitCommandFormat("-t nat -I NatForward_DMZ -p all -j DNAT --to %s ", format, nullptr));
    struct Fixed : routeutils::ArgumentSource {
        std::string text;
        std::string next(const routeutils::Conversion &) override { return text; }
    } args;
    args.text = "192.168.1.5;reboot";
    Command cmd = formatCommand(format, args, "iptables");
    EXPECT_EQ(cmd.argv, (Argv{"iptables", "-t", "nat", "-I", "NatForward_DMZ", "-p", "all", "-j", "DNAT", "--to",
                              "192.168.1.5;reboot"}));
    EXPECT_EQ(cmd.line, "iptables -t nat -I NatForward_DMZ -p all -j DNAT --to 192.168.1.5;reboot");

    args.text = std::string(300, '1');
    cmd = formatCommand(format, args, "iptables");
    EXPECT_TRUE(cmd.cut);
    EXPECT_EQ(cmd.line.size(), kCommandLineMax);
}
