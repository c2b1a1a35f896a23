// IPTV VLAN bridge: the IPTV VLAN of the WAN interface eth1 joined with chosen LAN ports into the bridge br-iptv
// (package network, section iptv), DNS pass-through rules in the ebtables broute table, the delayed network
// reload, and the bus objects RTIptv and zelmad.vlan. The stored setting lives in package iptv, section main.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Argument indexes of RTIptv setIptv.
enum {
    E_IPTV_ENABLE,
    E_IPTV_VLANID,
    E_IPTV_LAN1,
    E_IPTV_LAN2,
    E_IPTV_LAN3,
    E_IPTV_TYPE,
    E_IPTV_MAX,
};

// Argument indexes of zelmad.vlan setIptvVlan, and of one element of its iptvStatus array.
enum {
    E_IPTV_VLAN_ENABLE,
    E_IPTV_VLAN_ID,
    E_IPTV_VLAN_STATUS,
    E_IPTV_VLAN_MAX,
};
enum {
    E_IPTV_STATUS_RADIO,
    E_IPTV_STATUS_INDEX,
    E_IPTV_STATUS_MAX,
};
// At most this many iptvStatus elements are looked at.
#define IPTV_STATUS_SLOTS 6

// One IPTV setting, carried between the bus handlers and the apply and remove steps.
struct IptvInfo {
    int32_t enabled; // 1 = on, anything else = off
    int32_t vlanId;  // VLAN id of the IPTV VLAN on eth1
    int32_t vlan1;   // 1 = LAN port 1 belongs to IPTV
    int32_t vlan2;
    int32_t vlan3;
    int32_t type;    // 1 = ports join through their own VLAN sub-interface (lanN.<vlanId>), else the port itself
    int32_t vlan24g; // index of the 2.4 GHz radio entry, 0 = none (stored and reported only)
    int32_t vlan5g;  // index of the 5 GHz radio entry, 0 = none (stored and reported only)
};

// Fixed buffers (SIZE, in bytes) and the texts composed into them (LEN, in characters).
#define IPTV_OPT_SIZE 8        // one option text, at most 7 characters
#define IPTV_OPT_WRITE_LEN 6   // "%d" of a value to store
#define IPTV_IFNAME_SIZE 12    // member name of a port, at most 11 characters
#define IPTV_VLANDEV_SIZE 16   // eth1.<vlanId>
#define IPTV_VLANDEV_LEN 14
#define IPTV_LANCMD_LEN 30     // members joined for the switch tool
#define IPTV_SWITCHCMD_LEN 62
#define IPTV_CMD_SIZE 128
#define IPTV_VLANID_BOUND 4095 // accepted VLAN ids (RTIptv): 0 to 4094

// ---- Pure logic of the setting (no files, no bus). ----

// Option reading rules: a flag is set only by the exact text "1"; numbers are the decimal value of the leading
// digits (an optional sign first; 0 when there are none; clamped to the int32 range).
int iptvFlagFromText(const char *text);
int32_t iptvDecimal(const char *text);
// A radio index option counts only when it is not exactly "0".
int iptvRadioCounts(const char *text);

// True when vlanId, the three ports and both radios are all 0: the apply and remove steps then do nothing.
bool iptvSelectionEmpty(const IptvInfo &info);
// 4 * vlan3 + 2 * vlan2 + vlan1 (wrapping, never undefined).
int32_t iptvPortMask(const IptvInfo &info);
// RTIptv accepts VLAN ids 0 to 4094; the id is compared as an unsigned number.
bool iptvVlanIdAccepted(int32_t vlanId);
// The fields RTIptv compares to detect an unchanged request (radios play no part).
bool iptvSameSetting(const IptvInfo &a, const IptvInfo &b);
// Remove step: whether the old VLAN device goes away, and whether the remove step arms the network reload.
bool iptvRemoveDropsVlanDevice(const IptvInfo &oldInfo, int32_t newEnabled, int32_t newVlanId);
bool iptvRemoveArmsReload(const IptvInfo &oldInfo, int32_t newEnabled);

// Member name of LAN port `port`: "lan<port>.<vlanId>" when type is 1, else "lan<port>".
void getLanIfname(int port, int type, int vlanId, char out[IPTV_IFNAME_SIZE]);

// What the apply step puts into the network configuration for one setting.
struct IptvPlumbing {
    int32_t portMask;
    int count;                          // selected ports (flag exactly 1), in port order
    int ports[3];
    char members[3][IPTV_IFNAME_SIZE];  // their member names
    char vlanDev[IPTV_VLANDEV_SIZE];    // eth1.<vlanId>, the last member of the bridge
    char lanCmd[IPTV_LANCMD_LEN + 1];   // each member followed by one blank
    char switchCmd[IPTV_SWITCHCMD_LEN + 1];
};
void iptvComposePlumbing(const IptvInfo &info, IptvPlumbing *out);

// zelmad.vlan mapping of one iptvStatus element onto the requested setting: "LAN" with index 1..3 selects that
// port, "2.4G" sets vlan24g to the index, "5G" sets vlan5g to the index minus 4; anything else is ignored.
void iptvApplyRadio(IptvInfo *info, const char *radio, int32_t index);

// ---- Steps (src/iptv). ----

// Builds the bridge for `info`: network section iptv, members, ports out of the LAN list, DNS rules, reload.
int addIptvVlan(IptvInfo info);
// Undoes the bridge of `oldInfo` before a new setting (newEnabled, newVlanId) is written.
int delIptvVlan(IptvInfo oldInfo, int newEnabled, int newVlanId);
// Writes "0" to every stored option but type.
void resetIptvConfig(void);
void addDnsBrouteRules(int port, int type, int vlanId);
void delDnsBrouteRules(int port, int type, int vlanId);
void applyIptvDnsRules(const IptvInfo *info);
// Arms the delayed network reload (1000 ms; arming again restarts the delay).
void iptvArmNetworkReload(void);
// RTIptv setIptv after its argument checks: 0 on success, -1 on failure.
int setIptvHandler(IptvInfo setInfo);
