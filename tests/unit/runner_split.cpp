// The command runner's splitting: request data stays inside its word, the few redirections are understood, other
// shell syntax is refused, lines are cut as the daemon's buffer cuts them.
#include "routeutils/command_line.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

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

bool splits(const char *fmt, std::string *why)
{
    CommandFormat format;
    return routeutils::splitCommandFormat(fmt, format, why);
}

} // namespace

TEST(RunnerSplit, RequestDataStaysOneArgument)
{
    for (const char *arg : {"00:11:22:33:44:55; reboot", "$(reboot)", "`reboot`", "a b  c", "'q'", "\"dq\"", "x|y", "&",
                            "> /etc/passwd", "2>&1", "*", "~root", "#c", "a\nb", "", "-j ACCEPT"})
        EXPECT_EQ(shown(build("ebtables -s %s -j DROP", arg)), std::string("ebtables|-s|") + arg + "|-j|DROP") << arg;
    EXPECT_EQ(shown(build("uci set %s.%s=%s", "net work", "x;y", "$(id)")), "uci|set|net work.x;y=$(id)");
    EXPECT_EQ(shown(build("p %d %u %ld %llu %x %X %o %c %5s %-4d, %05d %.2s %*d %.*s %% %i %hhu %zu %3.1f", -7,
                          4000000000u, -123456789012L, 18446744073709551615ull, 255, 255, 8, 'q', "ab", 3, 42,
                          "abcdef", 4, 9, 3, "xyzw", 12, 300, static_cast<size_t>(77), 2.25)),
              "p|-7|4000000000|-123456789012|18446744073709551615|ff|FF|10|q|   ab|3   ,|00042|ab|   9|xyz|%|12|44|77|2.2");
}

TEST(RunnerSplit, RedirectionsAndBackgroundInTheirOrder)
{
    EXPECT_EQ(shown(build("ebtables -D B -i %s -j ACCEPT 2> /dev/null", "eth0.4")), "ebtables|-D|B|-i|eth0.4|-j|ACCEPT 2>/dev/null");
    EXPECT_EQ(shown(build("/etc/init.d/miniupnpd enable >/dev/null ")), "/etc/init.d/miniupnpd|enable 1>/dev/null");
    EXPECT_EQ(shown(build("%s > /tmp/wanPortMap.log 2>&1 &", "/tmp/w.sh")), "/tmp/w.sh 1>/tmp/wanPortMap.log 2>&1 &");
    EXPECT_EQ(shown(build("cmd 2>&1 1>/tmp/out arg")), "cmd|arg 2>&1 1>/tmp/out");
    EXPECT_EQ(shown(build("iptables -t nat -N MINIUPNPD \n")), "iptables|-t|nat|-N|MINIUPNPD");
    EXPECT_EQ(build("%s > /tmp/wanPortMap.log 2>&1 &", "/tmp/w.sh").line, "/tmp/w.sh > /tmp/wanPortMap.log 2>&1 &");
}

TEST(RunnerSplit, OtherShellSyntaxIsRefused)
{
    for (const char *fmt : {"a; b", "a | b", "a && b", "a || b", "a & b", "a & &", "x $(y)", "x $HOME", "a `b`", "a 'b c'",
                            "a \"b\"", "a < /etc/passwd", "a >> f", "a 2>> f", "a >&2", "a &> f", "a > %s", "a 2> f%d",
                            "a >", "a 2>", "a > $f", "a*", "a?", "a[1]", "{a,b}", "~/x", "a #c", "(a)", "a\\ b", "a\nb",
                            "a\rb", "a\x01", "FOO=1 cmd", "", "   ", "&", "x %n", "x %1$s", "x %ls", "x %q", "x %",
                            "x %Lf%Ld", "!a"})
    {
        std::string why;
        EXPECT_FALSE(splits(fmt, &why)) << "accepted: \"" << fmt << "\"";
        EXPECT_NE(why, "") << fmt;
    }
    for (const char *fmt : {"uci set firewall.x.path=/usr/bin/dmzupnp.sh ", "x-y_z:1,2+3@4^5", "%s=x", "-m mark --mark 0x8888"})
        EXPECT_TRUE(splits(fmt, nullptr)) << fmt;
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
    for (const auto &e : std::filesystem::recursive_directory_iterator(GWCONF_SOURCE_DIR "/src")) {
        std::stringstream ss;
        ss << std::ifstream(e.path()).rdbuf();
        const std::string code = std::regex_replace(std::regex_replace(ss.str(), comment, ""), text, "\"\"");
        EXPECT_FALSE(std::regex_search(code, forbidden)) << e.path();
    }
}
