// The pure rules of NAT port forwarding: protocol encoding, the stored port range text, and the add checks against
// the port ranges and against stored mappings.
#include <gtest/gtest.h>

#include "natforward.h"

namespace {

PortMapConfig portMap(uint32_t protocol, uint32_t external, uint32_t internal = 80)
{
    PortMapConfig r{};
    r.Protocol = protocol;
    r.ExternalPort = external;
    r.InternalPort = internal;
    return r;
}

GroupMapConfig groupMap(uint32_t protocol, uint32_t start, uint32_t stop)
{
    GroupMapConfig r{};
    r.Protocol = protocol;
    r.StartPort = start;
    r.StopPort = stop;
    return r;
}

constexpr uint32_t TCP = NATFORWARD_PROTO_TCP, UDP = NATFORWARD_PROTO_UDP, BOTH = NATFORWARD_PROTO_BOTH;

} // namespace

TEST(NatforwardProtocol, StoredListValuesBothWays)
{
    EXPECT_STREQ(natforwardProtocolValue(TCP), "tcp");
    EXPECT_STREQ(natforwardProtocolValue(UDP), "udp");
    EXPECT_EQ(natforwardProtocolValue(BOTH), nullptr); // no "proto" option at all
    EXPECT_EQ(natforwardProtocolValue(7), nullptr);    // anything larger is written like both

    EXPECT_EQ(natforwardProtocolFromList(1, "tcp"), TCP);
    EXPECT_EQ(natforwardProtocolFromList(1, "udp"), UDP);
    EXPECT_EQ(natforwardProtocolFromList(1, "icmp"), TCP); // a single foreign value reads as TCP
    EXPECT_EQ(natforwardProtocolFromList(1, "UDP"), TCP);  // the comparison is exact
    EXPECT_EQ(natforwardProtocolFromList(2, "udp"), BOTH); // two values
    EXPECT_EQ(natforwardProtocolFromList(0, nullptr), BOTH);
}

TEST(NatforwardRange, FormatsStartDashStop)
{
    char text[16];
    natforwardFormatRange(600, 610, text);
    EXPECT_STREQ(text, "600-610");
    natforwardFormatRange(80, 80, text);
    EXPECT_STREQ(text, "80-80");
    natforwardFormatRange(65535, 65535, text);
    EXPECT_STREQ(text, "65535-65535");
    EXPECT_EQ(strlen(text), 11u);
    // Out-of-range numbers never overrun the buffer.
    natforwardFormatRange(0xFFFFFFFFu, 0x80000000u, text);
    EXPECT_LT(strlen(text), sizeof text);
}

TEST(NatforwardRange, SplitsStoredTextBackIntoPorts)
{
    struct Case {
        const char *text;
        bool ok;
        uint32_t start, stop;
    } cases[] = {
        {"600-610", true, 600, 610},  {"80-80", true, 80, 80},      {"65535-65535", true, 65535, 65535},
        {"21-", true, 21, 0},          {"8080", true, 0, 0},         {"", true, 0, 0},
        {"12345-1", true, 12345, 1},   {"123456-7", false, 0, 0},    {"-5", false, 0, 0},
        {"-", false, 0, 0},            {"abc-def", true, 0, 0},      {"1-2-3", true, 1, 2},
        {"7x-9y", true, 7, 9},
    };
    for (const Case &c : cases) {
        NatforwardRangeText rt;
        ASSERT_EQ(natforwardSplitRange(c.text, &rt), c.ok) << c.text;
        if (!c.ok)
            continue;
        EXPECT_EQ(natforwardRangePort(rt.start), c.start) << c.text;
        EXPECT_EQ(natforwardRangePort(rt.stop), c.stop) << c.text;
    }

    NatforwardRangeText rt;
    ASSERT_TRUE(natforwardSplitRange("600-610", &rt));
    EXPECT_EQ(rt.startLen, 3);
    EXPECT_STREQ(rt.start, "600");
    EXPECT_STREQ(rt.stop, "610");
    ASSERT_TRUE(natforwardSplitRange("8080", &rt));
    EXPECT_EQ(rt.startLen, -1);
    EXPECT_STREQ(rt.start, "");
}

TEST(NatforwardRange, StopPartIsBoundedByTheReadBuffer)
{
    // The text comes from a 16-byte read buffer; whatever follows the '-' keeps to the 15 - k characters left.
    NatforwardRangeText rt;
    ASSERT_TRUE(natforwardSplitRange("1-99999999999999999999", &rt));
    EXPECT_EQ(strlen(rt.stop), 14u);
    ASSERT_TRUE(natforwardSplitRange("12345-99999999999999999999", &rt));
    EXPECT_EQ(strlen(rt.stop), 10u);
}

TEST(NatforwardCheck, PortMapRangesInOrder)
{
    const PortMapConfig ok[] = {portMap(TCP, 8080, 80), portMap(BOTH, 1, 65535), portMap(UDP, 65535, 1)};
    for (const PortMapConfig &r : ok)
        EXPECT_EQ(natforwardPortMapRangeCheck(&r), 0) << r.ExternalPort;

    struct Case {
        uint32_t protocol, external, internal;
        int code;
    } cases[] = {
        {3, 8080, 80, NATFORWARD_ERR_PROTOCOL},
        {0xFFFFFFFFu, 0, 0, NATFORWARD_ERR_PROTOCOL}, // the protocol is checked first
        {TCP, 0, 80, NATFORWARD_ERR_EXTERNAL_PORT},
        {TCP, 65536, 80, NATFORWARD_ERR_EXTERNAL_PORT},
        {TCP, static_cast<uint32_t>(-1), 80, NATFORWARD_ERR_EXTERNAL_PORT}, // a negative INT32
        {TCP, 0, 0, NATFORWARD_ERR_EXTERNAL_PORT},                           // before the internal port
        {UDP, 8080, 0, NATFORWARD_ERR_INTERNAL_PORT},
        {UDP, 8080, 65536, NATFORWARD_ERR_INTERNAL_PORT},
        {UDP, 8080, static_cast<uint32_t>(-80), NATFORWARD_ERR_INTERNAL_PORT},
    };
    for (const Case &c : cases) {
        const PortMapConfig r = portMap(c.protocol, c.external, c.internal);
        EXPECT_EQ(natforwardPortMapRangeCheck(&r), c.code) << c.protocol << " " << c.external << " " << c.internal;
    }
}

TEST(NatforwardCheck, GroupMapRangesInOrder)
{
    struct Case {
        uint32_t protocol, start, stop;
        int code;
    } cases[] = {
        {UDP, 600, 610, 0},
        {TCP, 80, 80, 0}, // a range of one port
        {BOTH, 1, 65535, 0},
        {5, 600, 610, NATFORWARD_ERR_PROTOCOL},
        {TCP, 0, 610, NATFORWARD_ERR_START_PORT},
        {TCP, static_cast<uint32_t>(-600), 610, NATFORWARD_ERR_START_PORT},
        {TCP, 600, 0, NATFORWARD_ERR_STOP_PORT},
        {TCP, 600, 70000, NATFORWARD_ERR_STOP_PORT},
        {TCP, 610, 600, NATFORWARD_ERR_PORT_RANGE},
        {TCP, 0, 0, NATFORWARD_ERR_START_PORT},
    };
    for (const Case &c : cases) {
        const GroupMapConfig r = groupMap(c.protocol, c.start, c.stop);
        EXPECT_EQ(natforwardGroupMapRangeCheck(&r), c.code) << c.protocol << " " << c.start << "-" << c.stop;
    }
}

TEST(NatforwardCheck, PortMapAgainstStoredMappings)
{
    const PortMapConfig ports[] = {portMap(TCP, 8080), portMap(UDP, 5000), portMap(BOTH, 22)};
    const GroupMapConfig groups[] = {groupMap(TCP, 600, 610), groupMap(BOTH, 7000, 7000)};

    struct Case {
        uint32_t protocol, external;
        int code;
    } cases[] = {
        {UDP, 8080, 0},                                  // same port, other protocol
        {TCP, 8080, NATFORWARD_ERR_PORTMAP_CONFLICT},
        {BOTH, 8080, NATFORWARD_ERR_PORTMAP_CONFLICT},   // both protocols meet the stored TCP
        {TCP, 5000, 0},
        {UDP, 22, NATFORWARD_ERR_PORTMAP_CONFLICT},      // the stored one covers both
        {TCP, 8081, 0},
        {TCP, 600, NATFORWARD_ERR_GROUPMAP_CONFLICT},    // range bounds are inclusive
        {TCP, 605, NATFORWARD_ERR_GROUPMAP_CONFLICT},
        {TCP, 610, NATFORWARD_ERR_GROUPMAP_CONFLICT},
        {UDP, 605, 0},
        {TCP, 599, 0},
        {TCP, 611, 0},
        {UDP, 7000, NATFORWARD_ERR_GROUPMAP_CONFLICT},
    };
    for (const Case &c : cases) {
        const PortMapConfig r = portMap(c.protocol, c.external);
        EXPECT_EQ(natforwardPortMapClash(&r, ports, 3, groups, 2), c.code) << c.protocol << " " << c.external;
    }

    // A port that both a port mapping and a group mapping use reports the port mapping.
    const PortMapConfig inBoth[] = {portMap(TCP, 605)};
    const PortMapConfig r = portMap(TCP, 605);
    EXPECT_EQ(natforwardPortMapClash(&r, inBoth, 1, groups, 2), NATFORWARD_ERR_PORTMAP_CONFLICT);
    // Nothing stored, nothing to clash with.
    EXPECT_EQ(natforwardPortMapClash(&r, nullptr, 0, nullptr, 0), 0);
}

TEST(NatforwardCheck, GroupMapAgainstStoredMappings)
{
    const PortMapConfig ports[] = {portMap(TCP, 8080), portMap(UDP, 500)};
    const GroupMapConfig groups[] = {groupMap(UDP, 600, 610), groupMap(TCP, 700, 800)};

    struct Case {
        uint32_t protocol, start, stop;
        int code;
    } cases[] = {
        {TCP, 8000, 8100, NATFORWARD_ERR_PORTMAP_CONFLICT},
        {TCP, 8080, 8080, NATFORWARD_ERR_PORTMAP_CONFLICT},
        {UDP, 8000, 8100, 0},
        {TCP, 8081, 8100, 0},
        {TCP, 8000, 8079, 0},
        {TCP, 501, 699, 0},                              // meets the UDP group only
        {TCP, 500, 699, 0},                              // port 500 is UDP
        {BOTH, 500, 500, NATFORWARD_ERR_PORTMAP_CONFLICT},
        {TCP, 500, 700, NATFORWARD_ERR_GROUPMAP_CONFLICT}, // shares port 700
        {TCP, 800, 900, NATFORWARD_ERR_GROUPMAP_CONFLICT}, // shares port 800
        {TCP, 801, 900, 0},
        {TCP, 650, 750, NATFORWARD_ERR_GROUPMAP_CONFLICT},
        {TCP, 710, 720, NATFORWARD_ERR_GROUPMAP_CONFLICT}, // inside a stored range
        {TCP, 1, 65535, NATFORWARD_ERR_PORTMAP_CONFLICT},  // around everything
        {UDP, 605, 605, NATFORWARD_ERR_GROUPMAP_CONFLICT},
        {BOTH, 609, 700, NATFORWARD_ERR_GROUPMAP_CONFLICT},
    };
    for (const Case &c : cases) {
        const GroupMapConfig r = groupMap(c.protocol, c.start, c.stop);
        EXPECT_EQ(natforwardGroupMapClash(&r, ports, 2, groups, 2), c.code)
            << c.protocol << " " << c.start << "-" << c.stop;
    }
}
