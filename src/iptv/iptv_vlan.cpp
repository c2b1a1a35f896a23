// IPTV VLAN plumbing: the br-iptv bridge in package network, the DNS pass-through rules of its members, the
// reset of the stored setting, the start-up restore and the delayed network reload.
#include "gwconf.h"
#include "iptv.h"
#include "iptv_store.h"
#include "uciconfig.h"
#include "routeutils/routeutils.h"
#include "routeutils/text.h"
#include "routeutils/uci_session.h"

extern "C" {
#include <libubox/uloop.h>
}

#include <cstring>

static void reloadNetworkExpired(struct uloop_timeout *timeout);

struct uloop_timeout reloadNetworkTimer = {.cb = reloadNetworkExpired};

static void reloadNetworkExpired(struct uloop_timeout *)
{
    // The callback carries the timer's name in its log line.
    log_info("[%s:%d]................................................./etc/init.d/network restart.................................", "reloadNetworkTimer", __LINE__);
    LC_SystemCall("/etc/init.d/network reload");
}

void iptvArmNetworkReload(void)
{
    uloop_timeout_set(&reloadNetworkTimer, 1000);
}

namespace {

// Commit, then save, of an apply or remove step's edits of package network; logs the failure under the caller's
// name.
int commitThenSave(routeutils::UciSession &edit, const char *caller)
{
    const routeutils::UciWriteResult w = edit.commitThenSave();
    if (w.failed == routeutils::UciWriteResult::Step::Commit)
        log_error("[%s:%d]error uci_commit", caller, __LINE__);
    else if (w.failed == routeutils::UciWriteResult::Step::Save)
        log_error("[%s:%d]error uci_save", caller, __LINE__);
    return w.ok() ? 0 : -1;
}

const int32_t *portFlag(const IptvInfo &info, int port)
{
    return port == 1 ? &info.vlan1 : port == 2 ? &info.vlan2 : &info.vlan3;
}

} // namespace

// Each command is one literal format, the member name its only argument.
void addDnsBrouteRules(int port, int type, int vlanId)
{
    char member[IPTV_IFNAME_SIZE];
    getLanIfname(port, type, vlanId, member);
    // clang-format off
    LC_SystemCall("ebtables --concurrent -t broute -I BROUTING -i %s -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT", member);
    LC_SystemCall("ebtables --concurrent -t broute -I BROUTING -i %s -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT", member);
    LC_SystemCall("ebtables --concurrent -t broute -I BROUTING -i %s -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT", member);
    LC_SystemCall("ebtables --concurrent -t broute -I BROUTING -i %s -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT", member);
    // clang-format on
}

void delDnsBrouteRules(int port, int type, int vlanId)
{
    char member[IPTV_IFNAME_SIZE];
    getLanIfname(port, type, vlanId, member);
    // clang-format off
    LC_SystemCall("ebtables --concurrent -t broute -D BROUTING -i %s -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT 2> /dev/null", member);
    LC_SystemCall("ebtables --concurrent -t broute -D BROUTING -i %s -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT 2> /dev/null", member);
    LC_SystemCall("ebtables --concurrent -t broute -D BROUTING -i %s -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT 2> /dev/null", member);
    LC_SystemCall("ebtables --concurrent -t broute -D BROUTING -i %s -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT 2> /dev/null", member);
    // clang-format on
}

void applyIptvDnsRules(const IptvInfo *info)
{
    if (info == nullptr)
        return;
    for (int port = 1; port <= 3; ++port)
        if (*portFlag(*info, port) == 1)
            addDnsBrouteRules(port, info->type, info->vlanId);
}

int addIptvVlan(IptvInfo info)
{
    if (iptvSelectionEmpty(info)) {
        log_info("[%s:%d]all param is 0", __func__, __LINE__);
        return 0;
    }
    IptvPlumbing plan;
    iptvComposePlumbing(info, &plan);

    LC_SystemCall("uci set network.iptv=interface");
    LC_SystemCall("uci commit network");
    if (uciSetConfig(UCI_NETWORK_FILE, "iptv", "device", "br-iptv") != 0) {
        log_error("[%s:%d]uciSetConfig UCI_NETWORK_FILE iptv device br-iptv error", __func__, __LINE__);
        return -1;
    }
    if (uciSetConfig(UCI_NETWORK_FILE, "iptv", "type", "bridge") != 0) {
        log_error("[%s:%d]uciSetConfig UCI_NETWORK_FILE iptv type bridge error", __func__, __LINE__);
        return -1;
    }
    if (plan.portMask == 0)
        return 0;

    routeutils::UciSession edit;
    if (!edit.ready(__func__))
        return -1;
    bool ok = edit.open(__func__, UCI_NETWORK_FILE) == 0;
    for (int i = 0; ok && i < plan.count; ++i) {
        char plain[IPTV_IFNAME_SIZE];
        getLanIfname(plan.ports[i], 0, 0, plain);
        if (publicUciAddList(edit.ctx(), UCI_NETWORK_FILE, "iptv", "ifname", plan.members[i]) != 0) {
            log_error("[%s:%d]publicUciAddList network.iptv.ifname=%s error", __func__, __LINE__, plan.members[i]);
            ok = false;
        } else if (publicUciDelList(edit.ctx(), UCI_NETWORK_FILE, "device", "ifname", plain) != 0) {
            log_error("[%s:%d]publicUciAddList network.device.ifname=%s error", __func__, __LINE__,
                      plan.members[i]);
            ok = false;
        }
    }
    if (ok && publicUciAddList(edit.ctx(), UCI_NETWORK_FILE, "iptv", "ifname", plan.vlanDev) != 0) {
        log_error("[%s:%d]publicUciAddList UCI_NETWORK_FILE lan ifname %s error", __func__, __LINE__, plan.vlanDev);
        ok = false;
    }
    if (ok && commitThenSave(edit, __func__) != 0)
        ok = false;
    if (!ok) {
        edit.revert();
        return 0;
    }

    log_error("[%s:%d]switchCmd [%s] lanCmd [%s] ", __func__, __LINE__, plan.switchCmd, plan.lanCmd);
    log_error("[%s:%d]switchCmd [%s]", __func__, __LINE__, plan.switchCmd);
    applyIptvDnsRules(&info);
    iptvArmNetworkReload();
    return 0;
}

int delIptvVlan(IptvInfo oldInfo, int newEnabled, int newVlanId)
{
    if (iptvSelectionEmpty(oldInfo)) {
        log_info("[%s:%d]all param is 0", __func__, __LINE__);
        return 0;
    }
    for (int port = 1; port <= 3; ++port)
        if (*portFlag(oldInfo, port) == 1)
            delDnsBrouteRules(port, oldInfo.type, oldInfo.vlanId);

    routeutils::UciSession edit;
    if (!edit.ready(__func__))
        return -1;
    bool ok = edit.open(__func__, UCI_NETWORK_FILE) == 0;
    if (ok && publicUciDelSection(edit.ctx(), edit.pkg(), UCI_NETWORK_FILE, "iptv") != 0) {
        log_error("[%s:%d]publicUciDelSection network.iptv error", __func__, __LINE__);
        ok = false;
    }
    for (int port = 1; ok && port <= 3; ++port) {
        if (*portFlag(oldInfo, port) != 1)
            continue;
        char plain[IPTV_IFNAME_SIZE];
        getLanIfname(port, 0, 0, plain);
        if (publicUciAddList(edit.ctx(), UCI_NETWORK_FILE, "device", "ifname", plain) != 0) {
            if (port == 1)
                log_error("[%s:%d]publicUciAddList network.device.ifname=lan1 error", __func__, __LINE__);
            else if (port == 2)
                log_error("[%s:%d]publicUciAddList network.device.ifname=lan2 error", __func__, __LINE__);
            else
                log_error("[%s:%d]publicUciAddList network.device.ifname=lan3 error", __func__, __LINE__);
            ok = false;
        }
    }
    if (ok && commitThenSave(edit, __func__) != 0)
        ok = false;
    if (!ok) {
        edit.revert();
        return 0;
    }

    if (iptvRemoveDropsVlanDevice(oldInfo, newEnabled, newVlanId)) {
        char cmd[IPTV_CMD_SIZE];
        routeutils::formatCut(cmd, sizeof cmd - 1, "ip link delete dev eth1.%d", oldInfo.vlanId);
        log_info("[%s:%d]cmd [%s] ", __func__, __LINE__, cmd);
    }
    log_info("[%s:%d]setInfo.vlanId [%d]  oldInfo.vlanId [%d] ", __func__, __LINE__, newVlanId, oldInfo.vlanId);
    if (iptvRemoveArmsReload(oldInfo, newEnabled)) {
        log_info("[%s:%d]iptv delete  ", __func__, __LINE__);
        iptvArmNetworkReload();
    }
    return 0;
}

void resetIptvConfig(void)
{
    // Every option but type, in this order; a failed write is logged and the next option is still written.
    static const char *const options[] = {"enabled", "vlanid", "vlan1", "vlan2", "vlan3", "vlan24g", "vlan5g"};
    for (const char *option : options)
        if (uciSetConfig(UCI_IPTV_FILE, "main", option, "0") != 0)
            log_error("[%s:%d]uciSetConfig UCI_MACFILTER_FILE main %s ERROR", __func__, __LINE__, option);
}

void iptvInit(void)
{
    log_info("[%s:%d]in iptvInit", __func__, __LINE__);
    IptvInfo info{};
    char text[IPTV_OPT_SIZE];

    static const struct {
        const char *option;
        int32_t IptvInfo::*field;
    } flags[] = {
        {"enabled", &IptvInfo::enabled},
        {"vlan1", &IptvInfo::vlan1},
        {"vlan2", &IptvInfo::vlan2},
        {"vlan3", &IptvInfo::vlan3},
    };
    for (const auto &f : flags) {
        if (iptvReadOption(f.option, text) && iptvFlagFromText(text))
            info.*f.field = 1;
        else
            log_error("[%s:%d]uciGetConfig UCI_MACFILTER_FILE main %s ERROR", __func__, __LINE__, f.option);
    }

    if (info.enabled != 1)
        return;
    // The rules go on the interfaces that really carry the ports: with the stored type 1 the members are the
    // lanN.<vlanid> sub-interfaces the apply step put into the bridge, so the stored type and VLAN id are read too.
    iptvReadMemberShape(&info);
    applyIptvDnsRules(&info);
}
