// What the daemon's modules share with its start-up code (src/main): the configuration package names, the bus
// objects each module defines, the start-up steps and the timers. The reply buffers are in busmethod.h.
#pragma once

#include <libubus.h>

// Configuration packages.
#define UCI_MACFILTER_FILE "macFilter"
#define UCI_NETWORK_FILE "network"
#define UCI_FIREWALL_FILE "firewall"
#define UCI_IPTV_FILE "iptv"
#define UCI_UPNPD_FILE "upnpd"
#define UCI_DMZ_FILE "dmz"
#define UCI_WANPORTMAP_FILE "WanPortMap"

// The eight objects, in registration order. Each module defines its own objects with their types and methods.
extern struct ubus_object rtMacFilterObject;     // "RTMacFilter"       src/macfilter
extern struct ubus_object zelmadMacfilterObject; // "zelmad.macfilter"  src/macfilter
extern struct ubus_object rtIptvObject;          // "RTIptv"            src/iptv
extern struct ubus_object firewallObject;        // "firewall"          src/macfilter
extern struct ubus_object zelmadVlanObject;      // "zelmad.vlan"       src/iptv
extern struct ubus_object rtPortMapObject;       // "RTPortMap"         src/NatForward
extern struct ubus_object rtUpnpObject;          // "RTUpnp"            src/NatForward
extern struct ubus_object rtWanPortMapObject;    // "RTWanPortMap"      src/wanportmap

// Start-up steps, called by main in this order.
void macFilterInit(void);                                   // src/macfilter: kernel rules of the list in force
void iptvInit(void);                                        // src/iptv: IPTV DNS rules
int NatForward_upnpRestore(struct ubus_context *ctx);       // src/NatForward: registers RTUpnp, then restores
void applyConfig(struct uloop_timeout *timeout);            // src/wanportmap: callback of wanPortMapTimer

// Timers run by the main loop.
extern struct uloop_timeout reloadNetworkTimer;             // src/iptv
extern struct uloop_timeout wanPortMapTimer;                // src/wanportmap
