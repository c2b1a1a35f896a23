// The pure rules of NAT port forwarding: the stored range text, and the add checks against the stored mappings
// (the range checks and their codes are in the transcript natforward.t).
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "natforward.h"

namespace {

constexpr uint32_t TCP = NATFORWARD_PROTO_TCP, UDP = NATFORWARD_PROTO_UDP, BOTH = NATFORWARD_PROTO_BOTH;

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

struct Case {
    uint32_t protocol, a, b;  // external and internal port, or start and stop
    int code;
};

} // namespace

TEST(NatforwardRules, StoredRangeTexts)
{
    std::string read;  // each stored range text as start-stop, or "no" when it does not load
    for (const char *text : {"600-610", "65535-65535", "21-", "8080", "12345-1", "123456-7", "-5", "abc-def", "1-2-3"}) {
        NatforwardRangeText rt;
        read += natforwardSplitRange(text, &rt) ? std::to_string(natforwardRangePort(rt.start)) + "-" +
                                                      std::to_string(natforwardRangePort(rt.stop)) + " "
                                                : "no ";
    }
    EXPECT_EQ(read, "600-610 65535-65535 21-0 0-0 12345-1 no no 0-0 1-2 ");
    NatforwardRangeText rt;  // the stop part keeps to the 16-byte read buffer
    ASSERT_TRUE(natforwardSplitRange("12345-99999999999999999999", &rt));
    EXPECT_EQ(std::strlen(rt.stop), 10u);
}

TEST(NatforwardRules, ConflictsWithStoredMappings)
{
    const PortMapConfig ports[] = {portMap(TCP, 8080), portMap(UDP, 500), portMap(BOTH, 22)};
    const GroupMapConfig groups[] = {groupMap(TCP, 600, 610), groupMap(UDP, 700, 800)};
    const Case portCases[] = {
        {UDP, 8080, 0, 0}, {TCP, 8080, 0, NATFORWARD_ERR_PORTMAP_CONFLICT},
        {BOTH, 8080, 0, NATFORWARD_ERR_PORTMAP_CONFLICT}, {UDP, 22, 0, NATFORWARD_ERR_PORTMAP_CONFLICT},
        {TCP, 600, 0, NATFORWARD_ERR_GROUPMAP_CONFLICT}, {TCP, 610, 0, NATFORWARD_ERR_GROUPMAP_CONFLICT},
        {UDP, 605, 0, 0}, {TCP, 599, 0, 0}, {TCP, 611, 0, 0}, {BOTH, 750, 0, NATFORWARD_ERR_GROUPMAP_CONFLICT},
    };
    for (const Case &c : portCases) {
        const PortMapConfig r = portMap(c.protocol, c.a);
        EXPECT_EQ(natforwardPortMapClash(&r, ports, 3, groups, 2), c.code) << c.protocol << " " << c.a;
    }
    const Case groupCases[] = {
        {TCP, 8000, 8100, NATFORWARD_ERR_PORTMAP_CONFLICT}, {UDP, 8000, 8100, 0}, {TCP, 8081, 8100, 0},
        {TCP, 500, 599, 0},  // port 500 is UDP
        {BOTH, 500, 500, NATFORWARD_ERR_PORTMAP_CONFLICT}, {TCP, 590, 600, NATFORWARD_ERR_GROUPMAP_CONFLICT},
        {TCP, 610, 699, NATFORWARD_ERR_GROUPMAP_CONFLICT}, {TCP, 611, 699, 0}, {TCP, 650, 750, 0},
        {UDP, 650, 750, NATFORWARD_ERR_GROUPMAP_CONFLICT}, {UDP, 710, 720, NATFORWARD_ERR_GROUPMAP_CONFLICT},
        {TCP, 1, 65535, NATFORWARD_ERR_PORTMAP_CONFLICT},
    };
    for (const Case &c : groupCases) {
        const GroupMapConfig r = groupMap(c.protocol, c.a, c.b);
        EXPECT_EQ(natforwardGroupMapClash(&r, ports, 3, groups, 2), c.code) << c.protocol << " " << c.a << "-" << c.b;
    }
    // A port in both a port and a group mapping reports the port mapping; nothing stored clashes with nothing.
    const PortMapConfig r = portMap(TCP, 605), inBoth[] = {portMap(TCP, 605)};
    EXPECT_EQ(natforwardPortMapClash(&r, inBoth, 1, groups, 2), NATFORWARD_ERR_PORTMAP_CONFLICT);
    EXPECT_EQ(natforwardPortMapClash(&r, nullptr, 0, nullptr, 0), 0);
}
