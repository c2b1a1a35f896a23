// The WAN port redirect: object RTWanPortMap stores one redirect of a WAN-side TCP port to a local port of the
// router (optionally from one remote IPv4 address only) in package WanPortMap; a delayed apply writes the shell
// script /tmp/wanPortMap.sh that rewrites the chains WanPortMapPREROUTING (mangle, nat) and WanPortMapINPUT
// (filter), and runs it in the background with its output in /tmp/wanPortMap.log.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

#include <string>

#include <libubus.h>

// Argument policy of setWanPortMap.
enum {
    E_SETWANPORTMAP_ENABLED,
    E_SETWANPORTMAP_INPORT,
    E_SETWANPORTMAP_EXPORT,
    E_SETWANPORTMAP_REMOTEADDR,
    __E_SETWANPORTMAP_MAX
};

#define WANPORTMAP_SCRIPT "/tmp/wanPortMap.sh"
#define WANPORTMAP_LOG "/tmp/wanPortMap.log"
#define WANPORTMAP_START_DELAY_MS 30000  // the stored redirect is applied this long after start
#define WANPORTMAP_CHANGE_DELAY_MS 1000  // and this long after every accepted change

// The setting in memory; always zeroed before it is filled.
struct WanPortMapConfig {
    uint8_t enabled;         // non-zero: redirect on
    uint32_t inPort;         // local TCP port that receives the traffic
    uint32_t exPort;         // TCP port on the WAN side
    struct in_addr remoteAddr; // allowed source, network order; 0.0.0.0 for any source
};

// Reads the first "redirect" section of package WanPortMap into out; 0 when the section was found, -1 otherwise.
int getConfig(WanPortMapConfig *out);
// The text of the apply script for a setting; pid is the daemon's own process id, echoed at the end.
std::string wanPortMapScript(const WanPortMapConfig &config, int pid);
// Makes sure each of the three chains exists and is jumped to from its built-in chain (PREROUTING of mangle and
// nat, INPUT of filter); where the platform has set them up already this only checks.
void wanPortMapEnsureChains(void);

int ubus_setConfig(struct blob_attr *msg);
int ubus_getConfig(struct blob_attr *msg);
