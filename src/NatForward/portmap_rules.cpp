// Pure rules of port and group mappings: protocol encoding, the stored range text, and the add checks.
#include <stdio.h>
#include <stdlib.h>

#include "natforward.h"
#include "routeutils/text.h"

bool natforwardProtocolsOverlap(uint32_t a, uint32_t b)
{
    return a == NATFORWARD_PROTO_BOTH || b == NATFORWARD_PROTO_BOTH || a == b;
}

const char *natforwardProtocolValue(uint32_t protocol)
{
    if (protocol == NATFORWARD_PROTO_TCP)
        return "tcp";
    if (protocol == NATFORWARD_PROTO_UDP)
        return "udp";
    return nullptr; // both, and anything larger: no "proto" option
}

uint32_t natforwardProtocolFromList(int nValues, const char *first)
{
    if (nValues != 1 || first == nullptr)
        return NATFORWARD_PROTO_BOTH;
    // A single value other than "udp" (including "tcp" and anything foreign such as "icmp") reads as TCP.
    return strcmp(first, "udp") == 0 ? NATFORWARD_PROTO_UDP : NATFORWARD_PROTO_TCP;
}

void natforwardFormatRange(uint32_t start, uint32_t stop, char (&text)[16])
{
    routeutils::formatCut(text, sizeof text - 1, "%d-%d", static_cast<int>(start), static_cast<int>(stop));
}

bool natforwardSplitRange(const char *text, NatforwardRangeText *out)
{
    memset(out, 0, sizeof *out);
    out->startLen = -1;
    if (text == nullptr)
        return true;
    const char *dash = strchr(text, '-');
    if (dash == nullptr)
        return true;
    long k = dash - text;
    if (k < 1 || k > 5)
        return false;
    out->startLen = static_cast<int>(k);
    memcpy(out->start, text, static_cast<size_t>(k));
    // What follows the '-' fits the 16-byte buffer the text was read into: at most 15 - k characters.
    size_t stopLen = strnlen(dash + 1, static_cast<size_t>(15 - k));
    memcpy(out->stop, dash + 1, stopLen);
    return true;
}

uint32_t natforwardRangePort(const char *part)
{
    // Like atoi (leading blanks, a sign, then digits), without its undefined result on overflow.
    return part == nullptr ? 0u : static_cast<uint32_t>(strtol(part, nullptr, 10));
}

// Ports are compared unsigned, so a negative number sent by a client is out of range too.
static bool portInRange(uint32_t port)
{
    return port - 1u < 65535u;
}

NatforwardCheck natforwardPortMapRangeCheck(const PortMapConfig *rec)
{
    if (rec->Protocol > NATFORWARD_PROTO_BOTH)
        return NATFORWARD_ERR_PROTOCOL;
    if (!portInRange(rec->ExternalPort))
        return NATFORWARD_ERR_EXTERNAL_PORT;
    if (!portInRange(rec->InternalPort))
        return NATFORWARD_ERR_INTERNAL_PORT;
    return NATFORWARD_CHECK_OK;
}

NatforwardCheck natforwardGroupMapRangeCheck(const GroupMapConfig *rec)
{
    if (rec->Protocol > NATFORWARD_PROTO_BOTH)
        return NATFORWARD_ERR_PROTOCOL;
    if (!portInRange(rec->StartPort))
        return NATFORWARD_ERR_START_PORT;
    if (!portInRange(rec->StopPort))
        return NATFORWARD_ERR_STOP_PORT;
    if (rec->StopPort < rec->StartPort)
        return NATFORWARD_ERR_PORT_RANGE;
    return NATFORWARD_CHECK_OK;
}

// The stored mappings whose WAN ports meet [first, last] with an overlapping protocol decide the conflict code;
// port mappings are looked at before group mappings.
static NatforwardCheck clashWithStored(uint32_t protocol, uint32_t first, uint32_t last, const PortMapConfig *ports,
                                       int nPorts, const GroupMapConfig *groups, int nGroups)
{
    for (int i = 0; i < nPorts; i++) {
        const PortMapConfig &p = ports[i];
        if (p.ExternalPort >= first && p.ExternalPort <= last && natforwardProtocolsOverlap(p.Protocol, protocol))
            return NATFORWARD_ERR_PORTMAP_CONFLICT;
    }
    for (int i = 0; i < nGroups; i++) {
        const GroupMapConfig &g = groups[i];
        if (last >= g.StartPort && g.StopPort >= first && natforwardProtocolsOverlap(g.Protocol, protocol))
            return NATFORWARD_ERR_GROUPMAP_CONFLICT;
    }
    return NATFORWARD_CHECK_OK;
}

NatforwardCheck natforwardPortMapClash(const PortMapConfig *rec, const PortMapConfig *ports, int nPorts,
                                       const GroupMapConfig *groups, int nGroups)
{
    return clashWithStored(rec->Protocol, rec->ExternalPort, rec->ExternalPort, ports, nPorts, groups, nGroups);
}

NatforwardCheck natforwardGroupMapClash(const GroupMapConfig *rec, const PortMapConfig *ports, int nPorts,
                                        const GroupMapConfig *groups, int nGroups)
{
    return clashWithStored(rec->Protocol, rec->StartPort, rec->StopPort, ports, nPorts, groups, nGroups);
}
