// The log lines on stderr: the level word, one blank and the formatted message, one line per call, and only
// when GWCONF_LOG_STDERR=1 asks for them.
#include "routeutils/routeutils.h"

#include "common/log_capture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using gw::testutil::captureLog;

TEST(CoreLog, EachLevelWritesItsWordAndTheFormattedMessage)
{
    const std::string out = captureLog("1", [] {
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
    const std::string out = captureLog("1", [&] {
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
    EXPECT_EQ(captureLog(nullptr, [] { log_error("[%s:%d]quiet", "f", 1); }), "");
    EXPECT_EQ(captureLog("0", [] { log_error("[%s:%d]quiet", "f", 1); }), "");
    EXPECT_EQ(captureLog("yes", [] { log_error("[%s:%d]quiet", "f", 1); }), "");
}
