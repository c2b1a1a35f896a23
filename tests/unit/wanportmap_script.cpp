// The apply script of the WAN port redirect: the flush lines, the two rule forms, when no rule is written, and the
// closing echo of the daemon's process id.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>

#include "wanportmap.h"

namespace {

const std::string kFlush = "#!/bin/sh\n"
                           "iptables -w -t mangle -F WanPortMapPREROUTING\n"
                           "iptables -w -t nat -F WanPortMapPREROUTING\n"
                           "iptables -w -t filter -F WanPortMapINPUT\n";

WanPortMapConfig setting(unsigned enabled, uint32_t inPort, uint32_t exPort, const char *remote = nullptr)
{
    WanPortMapConfig c;
    memset(&c, 0, sizeof c);
    c.enabled = static_cast<uint8_t>(enabled);
    c.inPort = inPort;
    c.exPort = exPort;
    if (remote != nullptr) {
        EXPECT_EQ(inet_pton(AF_INET, remote, &c.remoteAddr), 1);
    }
    return c;
}

} // namespace

TEST(WanPortMapScript, AnySourceRedirect)
{
    EXPECT_EQ(wanPortMapScript(setting(1, 8080, 80), 4242),
              kFlush +
                  "iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport 80 -j MARK --set-mark 0x8888\n"
                  "iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport 80 -j REDIRECT --to-ports 8080\n"
                  "iptables -w -t filter -A WanPortMapINPUT -p tcp --dport 8080 -m mark --mark 0x8888 -j ACCEPT\n"
                  "echo 4242");
    // 0.0.0.0 given explicitly is the same as no address.
    EXPECT_EQ(wanPortMapScript(setting(1, 8080, 80, "0.0.0.0"), 4242), wanPortMapScript(setting(1, 8080, 80), 4242));
}

TEST(WanPortMapScript, OneRemoteSource)
{
    EXPECT_EQ(wanPortMapScript(setting(1, 22, 2222, "192.168.5.7"), 7),
              kFlush +
                  "iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport 2222 -s 192.168.5.7 -j MARK "
                  "--set-mark 0x8888\n"
                  "iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport 2222 -s 192.168.5.7 -j REDIRECT "
                  "--to-ports 22\n"
                  "iptables -w -t filter -A WanPortMapINPUT -p tcp --dport 22 -s 192.168.5.7 -m mark --mark 0x8888 "
                  "-j ACCEPT\n"
                  "echo 7");
    const std::string broadcast = wanPortMapScript(setting(1, 1, 2, "255.255.255.255"), 1);
    EXPECT_NE(broadcast.find("--dport 2 -s 255.255.255.255 -j MARK"), std::string::npos) << broadcast;
}

TEST(WanPortMapScript, OnlyTheFlushWhenOffOrAPortIsZero)
{
    const std::string flushOnly = kFlush + "echo 99";
    EXPECT_EQ(wanPortMapScript(setting(0, 8080, 80, "10.0.0.1"), 99), flushOnly);
    EXPECT_EQ(wanPortMapScript(setting(1, 0, 80), 99), flushOnly);
    EXPECT_EQ(wanPortMapScript(setting(1, 8080, 0), 99), flushOnly);
    // Any non-zero flag counts as on.
    EXPECT_NE(wanPortMapScript(setting(2, 8080, 80), 99), flushOnly);
}

TEST(WanPortMapScript, PortsAreUnsignedNumbers)
{
    // A negative request value arrives as a large unsigned one; the script carries the number, never a sign or
    // other text, and iptables itself refuses it.
    const std::string s = wanPortMapScript(setting(1, 0xFFFFFFFFu, 70000), 1);
    EXPECT_NE(s.find("--dport 70000 -j REDIRECT --to-ports 4294967295\n"), std::string::npos) << s;
    EXPECT_NE(s.find("--dport 4294967295 -m mark"), std::string::npos) << s;
}
