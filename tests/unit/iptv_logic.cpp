// Pure logic of the IPTV bridge: member names and the bridge composition, the agent's radio mapping, the VLAN id
// bound, the option reading rules and the bounded texts.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "iptv.h"

namespace {

IptvInfo setting(int enabled, int vlanId, int v1, int v2, int v3, int type)
{
    IptvInfo info{};
    info.enabled = enabled;
    info.vlanId = vlanId;
    info.vlan1 = v1;
    info.vlan2 = v2;
    info.vlan3 = v3;
    info.type = type;
    return info;
}

std::string ifname(int port, int type, int vlanId)
{
    char out[IPTV_IFNAME_SIZE];
    memset(out, 'x', sizeof out);
    getLanIfname(port, type, vlanId, out);
    EXPECT_LT(strnlen(out, sizeof out), sizeof out) << "member name not terminated inside its buffer";
    return out;
}

} // namespace

TEST(IptvPlumbing, MemberNamesFollowTheType)
{
    EXPECT_EQ(ifname(1, 1, 100), "lan1.100");
    EXPECT_EQ(ifname(3, 1, 4094), "lan3.4094");
    EXPECT_EQ(ifname(2, 0, 100), "lan2");
    // Any type other than 1 joins the port itself.
    EXPECT_EQ(ifname(2, 2, 100), "lan2");
    EXPECT_EQ(ifname(2, -1, 100), "lan2");
    // The name is cut to 11 characters, never overrun.
    EXPECT_EQ(ifname(1, 1, INT_MIN), "lan1.-21474");
    EXPECT_EQ(ifname(1, 1, 1234567), "lan1.123456");
}

TEST(IptvPlumbing, AllPortsUntaggedGiveTheBareSwitchCommand)
{
    IptvPlumbing plan;
    iptvComposePlumbing(setting(1, 100, 1, 1, 1, 0), &plan);
    EXPECT_EQ(plan.portMask, 7);
    ASSERT_EQ(plan.count, 3);
    EXPECT_STREQ(plan.members[0], "lan1");
    EXPECT_STREQ(plan.members[1], "lan2");
    EXPECT_STREQ(plan.members[2], "lan3");
    EXPECT_STREQ(plan.lanCmd, "lan1 lan2 lan3 ");
    EXPECT_STREQ(plan.switchCmd, "/usr/bin/iptvswitch");
}

TEST(IptvPlumbing, PortValueOtherThanOneCountsInTheMaskOnly)
{
    IptvPlumbing plan;
    iptvComposePlumbing(setting(1, 100, 2, 0, 0, 0), &plan);
    EXPECT_EQ(plan.portMask, 2);
    EXPECT_EQ(plan.count, 0);
    EXPECT_STREQ(plan.lanCmd, "");
    EXPECT_STREQ(plan.switchCmd, "/usr/bin/iptvswitch  ");

    // The mask is plain arithmetic: vlan1 = 7 alone gives 7, hence the bare command, although no port is selected.
    iptvComposePlumbing(setting(1, 100, 7, 0, 0, 0), &plan);
    EXPECT_EQ(plan.portMask, 7);
    EXPECT_EQ(plan.count, 0);
    EXPECT_STREQ(plan.switchCmd, "/usr/bin/iptvswitch");

    // Huge values wrap instead of overflowing.
    iptvComposePlumbing(setting(1, 1, INT_MAX, INT_MAX, INT_MAX, 0), &plan);
    EXPECT_EQ(plan.count, 0);
}

TEST(IptvPlumbing, LongNamesAreCutToTheirLimits)
{
    IptvPlumbing plan;
    iptvComposePlumbing(setting(1, INT_MIN, 1, 1, 1, 1), &plan);
    EXPECT_STREQ(plan.vlanDev, "eth1.-21474836"); // 14 characters
    EXPECT_STREQ(plan.members[0], "lan1.-21474");
    // Three members of 11 characters and their blanks would be 36 characters: the text stops at 30.
    EXPECT_EQ(strlen(plan.lanCmd), 30u);
    EXPECT_EQ(std::string(plan.lanCmd), "lan1.-21474 lan2.-21474 lan3.-");
    EXPECT_LE(strlen(plan.switchCmd), 62u);
}

TEST(IptvPlumbing, EmptySelectionAndRemoveDecisions)
{
    // The switch and the type do not count; a radio alone or a stray port value does.
    EXPECT_TRUE(iptvSelectionEmpty(setting(1, 0, 0, 0, 0, 1)));
    EXPECT_FALSE(iptvSelectionEmpty(setting(0, 0, 0, 0, 2, 0)));
    IptvInfo radioOnly{};
    radioOnly.vlan5g = 2;
    EXPECT_FALSE(iptvSelectionEmpty(radioOnly));

    // Kept on with the same VLAN id: nothing to drop, no reload from the remove step. An "enable" other than 0
    // and 1 switches off (reload armed) without the delete text, which only 0 or a new id gives.
    IptvInfo on = setting(1, 100, 1, 0, 0, 0);
    EXPECT_FALSE(iptvRemoveDropsVlanDevice(on, 1, 100));
    EXPECT_FALSE(iptvRemoveArmsReload(on, 1));
    EXPECT_FALSE(iptvRemoveDropsVlanDevice(on, 5, 100));
    EXPECT_TRUE(iptvRemoveArmsReload(on, 5));
}

TEST(IptvSetting, VlanIdBoundAndUnchangedTest)
{
    // 0..4094 are accepted; the unsigned comparison also refuses every negative id.
    EXPECT_TRUE(iptvVlanIdAccepted(4094));
    EXPECT_FALSE(iptvVlanIdAccepted(4095));
    EXPECT_FALSE(iptvVlanIdAccepted(INT_MIN));

    IptvInfo a = setting(1, 100, 1, 0, 1, 1);
    IptvInfo b = a;
    b.vlan24g = 3;
    b.vlan5g = 2;
    EXPECT_TRUE(iptvSameSetting(a, b)) << "radios play no part in the comparison";
    b = a;
    b.type = 0;
    EXPECT_FALSE(iptvSameSetting(a, b));
    b = a;
    b.vlan2 = 1;
    EXPECT_FALSE(iptvSameSetting(a, b));
    b = a;
    b.vlanId = 101;
    EXPECT_FALSE(iptvSameSetting(a, b));
}

TEST(IptvSetting, OptionReadingRules)
{
    EXPECT_EQ(iptvFlagFromText("1"), 1);
    EXPECT_EQ(iptvFlagFromText("01"), 0);
    EXPECT_EQ(iptvFlagFromText("1 "), 0);
    EXPECT_EQ(iptvFlagFromText("true"), 0);
    EXPECT_EQ(iptvFlagFromText(""), 0);
    EXPECT_EQ(iptvFlagFromText(nullptr), 0);

    EXPECT_EQ(iptvDecimal("100"), 100);
    EXPECT_EQ(iptvDecimal("12ab"), 12);
    EXPECT_EQ(iptvDecimal("abc"), 0);
    EXPECT_EQ(iptvDecimal(""), 0);
    EXPECT_EQ(iptvDecimal("-7"), -7);
    EXPECT_EQ(iptvDecimal("99999999999"), INT32_MAX);
    EXPECT_EQ(iptvDecimal("-99999999999"), INT32_MIN);
    EXPECT_EQ(iptvDecimal(nullptr), 0);

    EXPECT_FALSE(iptvRadioCounts("0"));
    EXPECT_TRUE(iptvRadioCounts("3"));
    EXPECT_TRUE(iptvRadioCounts("00")); // only the exact text "0" means none
    EXPECT_FALSE(iptvRadioCounts(nullptr));
}

TEST(IptvAgent, RadioMapping)
{
    IptvInfo info{};
    iptvApplyRadio(&info, "LAN", 2);
    iptvApplyRadio(&info, "5G", 6);
    EXPECT_EQ(info.vlan2, 1);
    EXPECT_EQ(info.vlan5g, 2);
    EXPECT_EQ(info.vlan1 + info.vlan3 + info.vlan24g, 0);

    // LAN entries add up; index 4 and unknown radios change nothing.
    iptvApplyRadio(&info, "LAN", 1);
    iptvApplyRadio(&info, "LAN", 4);
    iptvApplyRadio(&info, "LAN", 0);
    iptvApplyRadio(&info, "lan", 3);
    iptvApplyRadio(&info, "5g", 9);
    iptvApplyRadio(&info, "2.4", 9);
    EXPECT_EQ(info.vlan1, 1);
    EXPECT_EQ(info.vlan2, 1);
    EXPECT_EQ(info.vlan3, 0);
    EXPECT_EQ(info.vlan5g, 2);
    EXPECT_EQ(info.vlan24g, 0);

    // For each band the last entry wins; the 2.4G index is kept as given.
    iptvApplyRadio(&info, "2.4G", 3);
    iptvApplyRadio(&info, "2.4G", 1);
    iptvApplyRadio(&info, "5G", 5);
    EXPECT_EQ(info.vlan24g, 1);
    EXPECT_EQ(info.vlan5g, 1);
    // The 5G shift wraps instead of overflowing.
    iptvApplyRadio(&info, "5G", INT_MIN);
    EXPECT_EQ(info.vlan5g, INT_MAX - 3);
    EXPECT_EQ(info.enabled + info.vlanId + info.type, 0) << "radio entries never touch the other fields";
}

TEST(IptvText, BoundedFormatAndAppendNeverOverrun)
{
    char buf[8 + 4];
    memset(buf, '#', sizeof buf);
    // A 7-byte limit in an 8-byte buffer keeps at most 6 characters and leaves the bytes past the buffer alone.
    EXPECT_EQ(iptvFormat(buf, 8, IPTV_OPT_WRITE_LIMIT, "%d", -2147483647 - 1), 6u);
    EXPECT_STREQ(buf, "-21474");
    EXPECT_EQ(buf[7], '\0');
    EXPECT_EQ(std::string(buf + 8, 4), "####");
    // A limit beyond the buffer is held to the buffer.
    EXPECT_EQ(iptvFormat(buf, 8, 100, "%s", "abcdefghijk"), 7u);
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_EQ(std::string(buf + 8, 4), "####");

    char text[8];
    iptvFormat(text, sizeof text, sizeof text, "ab");
    iptvAppend(text, sizeof text, 6, "cdef"); // limit 6: at most 5 characters
    EXPECT_STREQ(text, "abcde");
    iptvAppend(text, sizeof text, 6, "x"); // full: unchanged
    EXPECT_STREQ(text, "abcde");
    iptvAppend(text, sizeof text, sizeof text, "xyz");
    EXPECT_STREQ(text, "abcdexy");
}
