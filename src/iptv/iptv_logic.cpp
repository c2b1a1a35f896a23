// Pure logic of the IPTV setting: option reading rules, member names and the composition of the bridge. Nothing
// here touches a file, the bus or a command.
#include "iptv.h"

#include "routeutils/text.h"

#include <climits>
#include <cstdio>
#include <cstring>

using routeutils::appendCut;
using routeutils::copyCut;
using routeutils::formatCut;

int iptvFlagFromText(const char *text)
{
    return text != nullptr && strcmp(text, "1") == 0 ? 1 : 0;
}

int32_t iptvDecimal(const char *text)
{
    if (text == nullptr)
        return 0;
    const char *p = text;
    while (*p == ' ' || *p == '\t')
        ++p;
    bool negative = false;
    if (*p == '-' || *p == '+') {
        negative = *p == '-';
        ++p;
    }
    long long value = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        value = value * 10 + (*p - '0');
        if (value > (long long)INT32_MAX + 1)
            value = (long long)INT32_MAX + 1; // saturate; clamped below
    }
    if (negative)
        value = -value;
    if (value > INT32_MAX)
        return INT32_MAX;
    if (value < INT32_MIN)
        return INT32_MIN;
    return (int32_t)value;
}

int iptvRadioCounts(const char *text)
{
    return text != nullptr && strcmp(text, "0") != 0;
}

bool iptvSelectionEmpty(const IptvInfo &info)
{
    return info.vlan1 == 0 && info.vlan2 == 0 && info.vlan3 == 0 && info.vlan24g == 0 && info.vlan5g == 0 &&
           info.vlanId == 0;
}

int32_t iptvPortMask(const IptvInfo &info)
{
    uint32_t mask = 4u * (uint32_t)info.vlan3 + 2u * (uint32_t)info.vlan2 + (uint32_t)info.vlan1;
    return (int32_t)mask;
}

bool iptvVlanIdAccepted(int32_t vlanId)
{
    return (uint32_t)vlanId < IPTV_VLANID_BOUND;
}

bool iptvSameSetting(const IptvInfo &a, const IptvInfo &b)
{
    return a.enabled == b.enabled && a.vlanId == b.vlanId && a.vlan1 == b.vlan1 && a.vlan2 == b.vlan2 &&
           a.vlan3 == b.vlan3 && a.type == b.type;
}

bool iptvRemoveDropsVlanDevice(const IptvInfo &oldInfo, int32_t newEnabled, int32_t newVlanId)
{
    return newEnabled == 0 || (oldInfo.enabled == 1 && newEnabled == 1 && newVlanId != oldInfo.vlanId);
}

bool iptvRemoveArmsReload(const IptvInfo &oldInfo, int32_t newEnabled)
{
    return oldInfo.enabled == 1 && newEnabled != 1;
}

void getLanIfname(int port, int type, int vlanId, char out[IPTV_IFNAME_SIZE])
{
    if (type == 1)
        formatCut(out, IPTV_IFNAME_SIZE - 1, "lan%d.%d", port, vlanId);
    else
        formatCut(out, IPTV_IFNAME_SIZE - 1, "lan%d", port);
}

void iptvComposePlumbing(const IptvInfo &info, IptvPlumbing *out)
{
    memset(out, 0, sizeof *out);
    out->portMask = iptvPortMask(info);
    formatCut(out->vlanDev, IPTV_VLANDEV_LEN, "eth1.%d", info.vlanId);
    const int32_t flags[3] = {info.vlan1, info.vlan2, info.vlan3};
    for (int port = 1; port <= 3; ++port) {
        if (flags[port - 1] != 1)
            continue;
        int i = out->count++;
        out->ports[i] = port;
        getLanIfname(port, info.type, info.vlanId, out->members[i]);
        appendCut(out->lanCmd, out->members[i], IPTV_LANCMD_LEN);
        appendCut(out->lanCmd, " ", IPTV_LANCMD_LEN);
    }
    if (out->portMask == 7)
        copyCut(out->switchCmd, "/usr/bin/iptvswitch", IPTV_SWITCHCMD_LEN);
    else
        formatCut(out->switchCmd, IPTV_SWITCHCMD_LEN, "/usr/bin/iptvswitch %s ", out->lanCmd);
}

void iptvApplyRadio(IptvInfo *info, const char *radio, int32_t index)
{
    if (info == nullptr || radio == nullptr)
        return;
    if (strcmp(radio, "LAN") == 0) {
        if (index == 1)
            info->vlan1 = 1;
        else if (index == 2)
            info->vlan2 = 1;
        else if (index == 3)
            info->vlan3 = 1;
    } else if (strcmp(radio, "2.4G") == 0) {
        info->vlan24g = index;
    } else if (strcmp(radio, "5G") == 0) {
        info->vlan5g = (int32_t)((uint32_t)index - 4u);
    }
}
