// The log lines on stderr: the level word, one blank and the formatted message, one line per call, and only
// when GWCONF_LOG_STDERR=1 asks for them.
#include "routeutils/routeutils.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

// Runs body with fd 2 sent to a fresh temporary file and returns what was written there.
template <typename Body>
std::string captureStderr(const char *envValue, Body body)
{
    char path[] = "/tmp/gwconf-log-XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    unlink(path);
    const int saved = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    if (envValue)
        setenv("GWCONF_LOG_STDERR", envValue, 1);
    else
        unsetenv("GWCONF_LOG_STDERR");
    body();
    unsetenv("GWCONF_LOG_STDERR");
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string out;
    char buf[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        out.append(buf, static_cast<std::size_t>(n));
    close(fd);
    return out;
}

}  // namespace

TEST(CoreLog, EachLevelWritesItsWordAndTheFormattedMessage)
{
    const std::string out = captureStderr("1", [] {
        log_error("[%s:%d]uciGetConfig uci_load:%d", "uciGetConfig", 42, 3);
        log_info("[%s:%d]uciConfig value:%s", "uciGetConfig", 57, "1");
        log_debug("[%s:%d]ubus_connection_lost", "ubus_connection_lost", 9);
    });
    EXPECT_EQ(out, "error [uciGetConfig:42]uciGetConfig uci_load:3\n"
                   "info [uciGetConfig:57]uciConfig value:1\n"
                   "debug [ubus_connection_lost:9]ubus_connection_lost\n");
}

TEST(CoreLog, MessagesEndingTheirLineAndLongMessagesStayOneLine)
{
    const std::string longText(3000, 'x');
    const std::string out = captureStderr("1", [&] {
        log_error("[%s:%d] NatForward_upnpRestore no \n", "NatForward_upnpRestore", 7);
        log_info("[%s:%d]%s", "f", 1, longText.c_str());
        log_info("[%s:%d]percent %% kept", "g", 2);
    });
    EXPECT_EQ(out, "error [NatForward_upnpRestore:7] NatForward_upnpRestore no \n"
                   "info [f:1]" + longText + "\n"
                   "info [g:2]percent % kept\n");
}

TEST(CoreLog, StderrOnlyWhenAskedFor)
{
    EXPECT_EQ(captureStderr(nullptr, [] { log_error("[%s:%d]quiet", "f", 1); }), "");
    EXPECT_EQ(captureStderr("0", [] { log_error("[%s:%d]quiet", "f", 1); }), "");
    EXPECT_EQ(captureStderr("yes", [] { log_error("[%s:%d]quiet", "f", 1); }), "");
}
