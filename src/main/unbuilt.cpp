// Fallbacks for what the feature modules provide, so the daemon links, starts and registers all eight objects
// with their names and type names even while a module is missing from the build. Each definition is weak: a
// module's own definition replaces it at link time. A fallback object has no methods, so every call to it is
// answered by the bus library with its "method not found" status.
#include "gwconf.h"

namespace {

struct ubus_object_type rtMacFilterType = {"RTMacFilter", 0, nullptr, 0};
struct ubus_object_type zelmadMacfilterType = {"macfilter", 0, nullptr, 0};
struct ubus_object_type rtIptvType = {"RTIptv", 0, nullptr, 0};
struct ubus_object_type firewallType = {"firewall", 0, nullptr, 0};
struct ubus_object_type zelmadVlanType = {"vlan", 0, nullptr, 0};
struct ubus_object_type rtPortMapType = {"RTPortMap", 0, nullptr, 0};
struct ubus_object_type rtUpnpType = {"RTUpnp", 0, nullptr, 0};
struct ubus_object_type rtWanPortMapType = {"RTWanPortMap", 0, nullptr, 0};

}  // namespace

#define GWCONF_FALLBACK_OBJECT(var, objName, typeVar)                                                             \
    __attribute__((weak)) struct ubus_object var = {.name = objName, .type = &typeVar, .methods = nullptr,       \
                                                    .n_methods = 0}

GWCONF_FALLBACK_OBJECT(rtMacFilterObject, "RTMacFilter", rtMacFilterType);
GWCONF_FALLBACK_OBJECT(zelmadMacfilterObject, "zelmad.macfilter", zelmadMacfilterType);
GWCONF_FALLBACK_OBJECT(rtIptvObject, "RTIptv", rtIptvType);
GWCONF_FALLBACK_OBJECT(firewallObject, "firewall", firewallType);
GWCONF_FALLBACK_OBJECT(zelmadVlanObject, "zelmad.vlan", zelmadVlanType);
GWCONF_FALLBACK_OBJECT(rtPortMapObject, "RTPortMap", rtPortMapType);
GWCONF_FALLBACK_OBJECT(rtUpnpObject, "RTUpnp", rtUpnpType);
GWCONF_FALLBACK_OBJECT(rtWanPortMapObject, "RTWanPortMap", rtWanPortMapType);

__attribute__((weak)) struct uloop_timeout reloadNetworkTimer = {};
__attribute__((weak)) struct uloop_timeout wanPortMapTimer = {};

__attribute__((weak)) void macFilterInit(void) {}

__attribute__((weak)) void iptvInit(void) {}

__attribute__((weak)) int NatForward_upnpRestore(struct ubus_context *ctx)
{
    ubus_add_object(ctx, &rtUpnpObject);
    return 0;
}

__attribute__((weak)) void applyConfig(struct uloop_timeout *) {}
