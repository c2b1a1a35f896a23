// The bus object "firewall": blocks one device from the Internet, or lets it through again. A block is one firewall
// rule section (no name, src_mac as the caller sent it) plus the black list's two kernel DROP rules; it works beside
// the MAC filter and does not look at its state. The rule sections are the only record of blocked devices.
#include <string.h>

#include "gwconf.h"
#include "macbus.h"
#include "macfilter.h"
#include "routeutils/routeutils.h"
#include "uciconfig.h"

using routeutils::copyCut;

namespace {

const struct blobmsg_policy forbidNetPolicy[E_FORBIDNET_MAX] = {
    [E_FORBIDNET_ENABLE] = {.name = "enable", .type = BLOBMSG_TYPE_INT32},
    [E_FORBIDNET_MAC] = {.name = "mac", .type = BLOBMSG_TYPE_STRING},
};

const struct ubus_method firewallMethods[] = {
    UBUS_METHOD("setForbiddNet", macIptvMethod<setForbiddNet>, forbidNetPolicy),
};

struct ubus_object_type firewallType = UBUS_OBJECT_TYPE("firewall", firewallMethods);

} // namespace

struct ubus_object firewallObject = {
    .name = "firewall",
    .type = &firewallType,
    .methods = firewallMethods,
    .n_methods = ARRAY_SIZE(firewallMethods),
};

int setForbiddNetHandler(int enable, const char *mac)
{
    if (!mac) {
        log_error("[%s:%d]mac is NULL", __func__, __LINE__);
        return -1;
    }
    if (macValidCheck(mac, static_cast<int>(strlen(mac))) != 0) {
        log_error("[%s:%d]mac is unvalid", __func__, __LINE__);
        return -1;
    }
    if (enable == 1) {
        static const char options[5][16] = {"src", "proto", "src_mac", "dest", "target"};
        char values[5][64] = {};
        copyCut(values[0], "lan");
        copyCut(values[1], "all");
        copyCut(values[2], mac);
        copyCut(values[3], "wan");
        copyCut(values[4], "DROP");
        if (uciAddNewSection(UCI_FIREWALL_FILE, "rule", options, values, 5) != 0) {
            log_error("[%s:%d]uciAddNewSection UCI_FIREWALL_FILE rule ERROR", __func__, __LINE__);
            return -1;
        }
        macFilterInsertRules(MACFILTER_MODEL_BLACK, mac);
    } else {
        // Exact match on src_mac, whatever the section's name: another case of the same MAC is another device.
        if (deleteFirewallRuleByMacAndName(mac, "") != 0) {
            log_error("[%s:%d]deleteFirewallRuleByMacAndName %s ERROR", __func__, __LINE__, mac);
            return -1;
        }
        macFilterDeleteRules(MACFILTER_MODEL_BLACK, mac);
    }
    LC_SystemCall("/etc/init.d/firewall reload");
    return 0;
}

int setForbiddNet(struct blob_attr *msg)
{
    struct blob_attr *tb[E_FORBIDNET_MAX];
    macParseArgs(forbidNetPolicy, E_FORBIDNET_MAX, tb, msg);

    if (!tb[E_FORBIDNET_ENABLE]) {
        log_error("[%s:%d]tb[E_FORBIDNET_ENABLE] is NULL", __func__, __LINE__);
        return -1;
    }
    int enable = macArgInt(tb[E_FORBIDNET_ENABLE]);
    log_info("[%s:%d]setForbiddNet enable:%d", __func__, __LINE__, enable);
    if (!tb[E_FORBIDNET_MAC]) {
        // The message names the IPTV index; management tools match this exact text.
        log_error("[%s:%d]tb[E_IPTV_VLANID] is NULL", __func__, __LINE__);
        return -1;
    }
    char mac[MAC_COLON_LEN + 1] = {};
    copyCut(mac, blobmsg_get_string(tb[E_FORBIDNET_MAC]));
    log_info("[%s:%d]setForbiddNet mac:%s", __func__, __LINE__, mac);

    int ret = setForbiddNetHandler(enable, mac);
    macAddBool(&s_bufMacIptv, "result", ret == 0);
    return UBUS_STATUS_OK;
}
