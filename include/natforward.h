// NAT port forwarding: port mappings (one WAN port to one port of a LAN host) and group mappings (a range of WAN
// ports to the same ports of a LAN host), kept as pairs of "redirect" sections of package firewall, and the bus
// object RTPortMap that lists, adds and deletes them.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <libubus.h>
#include <uci.h>

// At most this many port mappings and, separately, this many group mappings are stored; it is also the size of
// every record array and the most entries one MapList may hold.
#define NATFORWARD_MAX_MAPS 32

// What an add check found against a record: nothing, or the failure code the reply's "error" table carries.
enum NatforwardCheck : int32_t {
    NATFORWARD_CHECK_OK = 0,
    NATFORWARD_ERR_PROTOCOL = 713465856,
    NATFORWARD_ERR_EXTERNAL_PORT = 713465857,
    NATFORWARD_ERR_INTERNAL_PORT = 713465858,
    NATFORWARD_ERR_START_PORT = 713465859,
    NATFORWARD_ERR_STOP_PORT = 713465860,
    NATFORWARD_ERR_PORT_RANGE = 713465861,
    NATFORWARD_ERR_PORTMAP_CONFLICT = 713465862,
    NATFORWARD_ERR_GROUPMAP_CONFLICT = 713465863,
};

// Protocol numbers of a record.
#define NATFORWARD_PROTO_TCP 0u
#define NATFORWARD_PROTO_UDP 1u
#define NATFORWARD_PROTO_BOTH 2u

// One port mapping. Zero-filled before use.
struct PortMapConfig {
    char InternalIP[16]; // LAN host address as text, at most 15 characters
    char Name[65];       // at most 64 characters
    uint32_t Protocol;   // 0 TCP, 1 UDP, 2 both
    uint32_t PmapID;
    uint32_t ExternalPort;
    uint32_t InternalPort;
    PortMapConfig *next; // chains the records of a list while it is loaded
};

// One group mapping: ports StartPort..StopPort (inclusive) forwarded unchanged. Zero-filled before use.
struct GroupMapConfig {
    char InternalIP[16];
    char Name[65];
    uint32_t Protocol;
    uint32_t GmapID;
    uint32_t StartPort;
    uint32_t StopPort;
    GroupMapConfig *next;
};

// Argument policies of RTPortMap.
enum {
    E_MODPORTMAPPING_MAPLIST,
    E_MODPORTMAPPING_OPERATION,
    __E_MODPORTMAPPING_MAX
};
enum {
    E_MODPORTMAPPING_NAME,
    E_MODPORTMAPPING_PROTOCOL,
    E_MODPORTMAPPING_INTERNALIP,
    E_MODPORTMAPPING_INTERNALPORT,
    E_MODPORTMAPPING_EXTERNALPORT,
    E_MODPORTMAPPING_PMAPID,
    __E_MODPORTMAPPING_ENTRY_MAX
};
enum {
    E_MODGROUPMAPPING_MAPLIST,
    E_MODGROUPMAPPING_OPERATION,
    __E_MODGROUPMAPPING_MAX
};
enum {
    E_MODGROUPMAPPING_NAME,
    E_MODGROUPMAPPING_PROTOCOL,
    E_MODGROUPMAPPING_INTERNALIP,
    E_MODGROUPMAPPING_STARTPORT,
    E_MODGROUPMAPPING_STOPPORT,
    E_MODGROUPMAPPING_GMAPID,
    __E_MODGROUPMAPPING_ENTRY_MAX
};

// ---- Pure rules (no configuration, no bus) ----

// Two protocols overlap when either covers both or they are equal.
bool natforwardProtocolsOverlap(uint32_t a, uint32_t b);
// The single "proto" list value that stores a protocol: "tcp", "udp", or null for both (no "proto" option).
const char *natforwardProtocolValue(uint32_t protocol);
// The protocol that a stored "proto" list of nValues values, the first being first, stands for.
uint32_t natforwardProtocolFromList(int nValues, const char *first);

// Stored port range text "%d-%d" (at most 11 characters for valid ports).
void natforwardFormatRange(uint32_t start, uint32_t stop, char (&text)[16]);
// A stored port range text split at its first '-'. startLen is the number of characters before it, -1 without one.
struct NatforwardRangeText {
    int startLen;
    char start[16];
    char stop[16];
};
// False when the '-' is the first character or follows more than 5 characters; otherwise the parts are filled
// (both empty without a '-').
bool natforwardSplitRange(const char *text, NatforwardRangeText *out);
// The port a range part stands for: its leading decimal digits, 0 without any.
uint32_t natforwardRangePort(const char *part);

// Checks of one record against the port ranges and against stored mappings.
NatforwardCheck natforwardPortMapRangeCheck(const PortMapConfig *rec);
NatforwardCheck natforwardPortMapClash(const PortMapConfig *rec, const PortMapConfig *ports, int nPorts,
                                       const GroupMapConfig *groups, int nGroups);
NatforwardCheck natforwardGroupMapRangeCheck(const GroupMapConfig *rec);
NatforwardCheck natforwardGroupMapClash(const GroupMapConfig *rec, const PortMapConfig *ports, int nPorts,
                                        const GroupMapConfig *groups, int nGroups);

// ---- Operations on package firewall ----

// Highest value of idOption ("PmapID" or "GmapID") over all redirect sections of a loaded package; *count gets the
// number of those sections whose src is "wan".
uint32_t NATFORWARD_getMaxIdAndCountBySection(struct uci_context *ctx, struct uci_package *pkg, const char *idOption,
                                              int *count);
// Deletes one named section of the loaded package firewall; nothing is committed.
int NATFORWARD_deleteSection(struct uci_context *ctx, struct uci_package *pkg, const char *sectionName);
// Runs "/etc/init.d/firewall reload" and waits for it.
void NATFORWARD_firewallReload(void);

int NATFORWARD_addPortMapList(struct uci_context *ctx, struct uci_package *pkg, const PortMapConfig *records, int n,
                              const char *srcZone);
int NATFORWARD_addPortMap(PortMapConfig *records, int n);
PortMapConfig *NATFORWARD_loadPortMapConfig(struct uci_context *ctx, struct uci_package *pkg,
                                            struct uci_section *sec);
void NATFORWARD_getPortMapConfigList(PortMapConfig *records, int *count);
int NATFORWARD_delPortMap(const PortMapConfig *records, int n);

int NATFORWARD_addGroupMapList(struct uci_context *ctx, struct uci_package *pkg, const GroupMapConfig *records, int n,
                               const char *srcZone);
int NATFORWARD_addGroupMap(GroupMapConfig *records, int n);
GroupMapConfig *NATFORWARD_loadGroupMapConfig(struct uci_context *ctx, struct uci_package *pkg,
                                              struct uci_section *sec);
void NATFORWARD_getGroupMapConfigList(GroupMapConfig *records, int *count);
int NATFORWARD_delGroupMap(const GroupMapConfig *records, int n);

// ---- RTPortMap ----

// Full add checks of one record: ranges, then the stored port mappings, then the stored group mappings.
NatforwardCheck NATFORWARD_portMapCheck(const PortMapConfig *rec);
NatforwardCheck NATFORWARD_groupMapCheck(const GroupMapConfig *rec);

int NATFORWARD_modPortMapping(struct blob_attr *msg);
int NATFORWARD_getPortMapping(struct blob_attr *msg);
int NATFORWARD_modGroupMapping(struct blob_attr *msg);
int NATFORWARD_getGroupMapping(struct blob_attr *msg);
