// Pure logic of the IPTV setting: bounded texts, option reading rules, member names and the composition of the
// bridge. Nothing here touches a file, the bus or a command.
#include "iptv.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

static size_t effectiveLimit(size_t size, size_t limit)
{
    return limit < size ? limit : size;
}

size_t iptvFormat(char *buf, size_t size, size_t limit, const char *fmt, ...)
{
    if (buf == nullptr || size == 0)
        return 0;
    memset(buf, 0, size);
    size_t room = effectiveLimit(size, limit);
    if (room == 0 || fmt == nullptr)
        return 0;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, room, fmt, ap);
    va_end(ap);
    return strlen(buf);
}

void iptvAppend(char *buf, size_t size, size_t limit, const char *text)
{
    if (buf == nullptr || size == 0 || text == nullptr)
        return;
    size_t room = effectiveLimit(size, limit);
    if (room == 0)
        return;
    size_t used = strnlen(buf, size);
    if (used + 1 >= room) // already full (or longer than this limit allows)
        return;
    size_t take = strnlen(text, room - 1 - used);
    memcpy(buf + used, text, take);
    buf[used + take] = '\0';
}

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
        iptvFormat(out, IPTV_IFNAME_SIZE, IPTV_IFNAME_SIZE, "lan%d.%d", port, vlanId);
    else
        iptvFormat(out, IPTV_IFNAME_SIZE, IPTV_IFNAME_SIZE, "lan%d", port);
}

void iptvComposePlumbing(const IptvInfo &info, IptvPlumbing *out)
{
    memset(out, 0, sizeof *out);
    out->portMask = iptvPortMask(info);
    iptvFormat(out->vlanDev, sizeof out->vlanDev, IPTV_VLANDEV_LIMIT, "eth1.%d", info.vlanId);
    const int32_t flags[3] = {info.vlan1, info.vlan2, info.vlan3};
    for (int port = 1; port <= 3; ++port) {
        if (flags[port - 1] != 1)
            continue;
        int i = out->count++;
        out->ports[i] = port;
        getLanIfname(port, info.type, info.vlanId, out->members[i]);
        iptvAppend(out->lanCmd, sizeof out->lanCmd, IPTV_LANCMD_LIMIT, out->members[i]);
        iptvAppend(out->lanCmd, sizeof out->lanCmd, IPTV_LANCMD_LIMIT, " ");
    }
    if (out->portMask == 7)
        iptvFormat(out->switchCmd, sizeof out->switchCmd, IPTV_SWITCHCMD_LIMIT, "/usr/bin/iptvswitch");
    else
        iptvFormat(out->switchCmd, sizeof out->switchCmd, IPTV_SWITCHCMD_LIMIT, "/usr/bin/iptvswitch %s ",
                   out->lanCmd);
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
