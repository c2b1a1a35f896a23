// The UPnP switch (RTUpnp) and the start-up restore of the UPnP service and the DMZ rule. The switch lives in
// option _init of the first "upnpd" section of package upnpd; the DMZ setting in the first "dmz" section of
// package dmz, which other programs write and this daemon only reads.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libubox/blobmsg.h>
}

#include "busmethod.h"
#include "gwconf.h"
#include "routeutils/routeutils.h"
#include "routeutils/system.h"
#include "routeutils/uci_session.h"
#include "uciconfig.h"
#include "upnp.h"

namespace {

using routeutils::UciSession;

constexpr const char *kUpnpdType = "upnpd";
constexpr const char *kDmzType = "dmz";

const struct blobmsg_policy s_setUpnpStatusPolicy[__E_SETUPNPSTATUS_MAX] = {
    [E_SETUPNPSTATUS_ENABLE] = {.name = "Enable", .type = BLOBMSG_TYPE_INT32},
};

const struct ubus_method s_rtUpnpMethods[] = {
    UBUS_METHOD("setUpnpStatus", upnpMethod<NatForward_setUpnpStatus>, s_setUpnpStatusPolicy),
    UBUS_METHOD_NOARG("getUpnpStatus", upnpMethod<NatForward_getUpnpStatus>),
};

struct ubus_object_type s_rtUpnpType = UBUS_OBJECT_TYPE("RTUpnp", s_rtUpnpMethods);

// The stored UPnP switch as the restore reads it (log name "NatForward_getUpnpEnabled"); 0 or -1.
int NatForward_getUpnpEnabled(uint32_t *value)
{
    *value = 0;
    UciSession s;
    uci_section *sec = s.open(__func__, UCI_UPNPD_FILE) == 0 ? s.firstSection(kUpnpdType) : nullptr;
    if (sec == nullptr)
        return -1;
    if (uciGetUint32(s.ctx(), sec, "_init", value) != 0) {
        log_error("[%s:%d]error setEnabled( enabled=%d)", __func__, __LINE__, static_cast<int>(*value));
        return -1;
    }
    return 0;
}

// The stored DMZ setting (log name "NatForward_getDmzEnabled"); 0 or -1. destIp gets at most 15 characters.
int NatForward_getDmzEnabled(uint32_t *enabled, char (&destIp)[16])
{
    *enabled = 0;
    memset(destIp, 0, sizeof destIp);
    UciSession s;
    uci_section *sec = s.open(__func__, UCI_DMZ_FILE) == 0 ? s.firstSection(kDmzType) : nullptr;
    if (sec == nullptr)
        return -1;
    int result = 0;
    if (uciGetUint32(s.ctx(), sec, "enabled", enabled) != 0) {
        log_error("[%s:%d]error setEnabled( enabled=%d)", __func__, __LINE__, static_cast<int>(*enabled));
        result = -1;
    }
    if (uciGetString(s.ctx(), sec, "dest_ip", destIp, sizeof destIp) != 0) {
        log_error("[%s:%d]error dmzip  ", __func__, __LINE__);
        result = -1;
    }
    return result;
}

// What getUpnpStatus reports of the configuration (log name "NatForward_getUpnpEnable"): the switch as the value
// of the leading digits of _init, and the lease file's name. Nothing found leaves 0 and "".
void NatForward_getUpnpEnable(int *enable, char (&leaseFile)[32])
{
    *enable = 0;
    memset(leaseFile, 0, sizeof leaseFile);
    UciSession s;
    uci_section *sec = s.open(__func__, UCI_UPNPD_FILE) == 0 ? s.firstSection(kUpnpdType) : nullptr;
    if (sec == nullptr)
        return;
    uci_option *init = uci_lookup_option(s.ctx(), sec, "_init");
    if (init != nullptr && init->type == UCI_TYPE_STRING)
        *enable = static_cast<int>(upnpLeadingNumber(init->v.string, INT32_MAX));
    if (uciGetString(s.ctx(), sec, "upnp_lease_file", leaseFile, sizeof leaseFile) != 0)
        log_info("[%s:%d]error getName(%s)", __func__, __LINE__, "upnp_lease_file");
}

// Opens the lease file for reading. Only a regular file is read: a FIFO or a device named there must not block
// or flood the daemon. Null when it cannot be opened.
FILE *openLeaseFile(const char *path)
{
    if (path[0] == '\0')
        return nullptr;
    const int fd = open(routeutils::systemPath(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return nullptr;
    }
    FILE *f = fdopen(fd, "r");
    if (f == nullptr)
        close(fd);
    return f;
}

void addLease(const UpnpLeaseEntry *e, void *arg)
{
    blob_buf *b = static_cast<blob_buf *>(arg);
    void *entry = blobmsg_open_table(b, nullptr);
    blobmsg_add_string(b, "Description", e->description);
    blobmsg_add_u32(b, "ExternalPort", e->externalPort);
    blobmsg_add_string(b, "InternalIP", e->internalIP);
    blobmsg_add_u32(b, "InternalPort", e->internalPort);
    blobmsg_add_u32(b, "Protocol", upnpProtocolNumber(e->protocol));
    blobmsg_close_table(b, entry);
}

}  // namespace

struct ubus_object rtUpnpObject = {
    .name = "RTUpnp",
    .type = &s_rtUpnpType,
    .methods = s_rtUpnpMethods,
    .n_methods = sizeof s_rtUpnpMethods / sizeof s_rtUpnpMethods[0],
};

// ---- the switch ----

void NatForward_setFirewallInclude(void)
{
    LC_SystemCall("uci set firewall.dmzupnpdomain=include ");
    LC_SystemCall("uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh ");
    LC_SystemCall("uci set firewall.dmzupnpdomain.reload=1 ");
    LC_SystemCall("uci set firewall.dmzupnpdomain.type=script ");
    LC_SystemCall("uci commit firewall ");
    LC_SystemCall("/etc/init.d/firewall reload");
}

void NatForward_applyUpnp(int value)
{
    if (value == 1) {
        NatForward_setFirewallInclude();
        LC_SystemCall("/etc/init.d/miniupnpd enable >/dev/null ");
        LC_SystemCall("/etc/init.d/miniupnpd start >/dev/null ");
    } else if (value == 0) {
        NatForward_setFirewallInclude();
        LC_SystemCall("/etc/init.d/miniupnpd stop >/dev/null ");
        LC_SystemCall("/etc/init.d/miniupnpd disable >/dev/null ");
    }
}

int NatForward_setUpnpEnabled(int value)
{
    if (static_cast<unsigned>(value) > 1u) {
        log_error("[%s:%d]enabled is invalid", __func__, __LINE__);
        return -1;
    }
    UciSession s;
    int result = -1;
    uci_section *sec = s.open(__func__, UCI_UPNPD_FILE) == 0 ? s.firstSection(kUpnpdType) : nullptr;
    if (sec != nullptr) {
        if (uciSetUint32(s.ctx(), s.pkg(), sec, "_init", static_cast<uint32_t>(value)) != 0) {
            log_error("[%s:%d]error setEnabled( enabled=%d)", __func__, __LINE__, value);
        } else {
            // The switch is stored once it is set: a failed commit or save is only logged, and the save is made
            // after a failed commit too.
            if (s.commit() != UCI_OK)
                log_error("[%s:%d]error uci_commit(enabled=%d)", __func__, __LINE__, value);
            if (s.save() != UCI_OK)
                log_error("[%s:%d]error uci_save(enabled=%d )", __func__, __LINE__, value);
            result = 0;
        }
    }
    if (result != 0)
        s.revert();
    return result;
}

int NatForward_setUpnpStatus(struct blob_attr *msg)
{
    blob_attr *tb[__E_SETUPNPSTATUS_MAX] = {};
    if (msg != nullptr)
        blobmsg_parse(s_setUpnpStatusPolicy, __E_SETUPNPSTATUS_MAX, tb, blob_data(msg),
                      static_cast<unsigned>(blob_len(msg)));

    int result = 0;
    int value = 0;
    if (tb[E_SETUPNPSTATUS_ENABLE] == nullptr) {
        log_error("[%s:%d]\n  enable value is invaild \n", __func__, __LINE__);
        result = -1;
    } else {
        value = static_cast<int>(blobmsg_get_u32(tb[E_SETUPNPSTATUS_ENABLE]));
    }
    log_info("[%s:%d]\n  enable [%d]  ret[%d] \n", __func__, __LINE__, value, result);

    if (result == 0)
        result = NatForward_setUpnpEnabled(value);
    if (result == 0) {
        log_info("[%s:%d]\n ret[%d] \n", __func__, __LINE__, result);
        NatForward_applyUpnp(value);
    }
    blobmsg_add_u8(&s_bufUpnp, "result", result == 0 ? 1 : 0);
    return UBUS_STATUS_OK;
}

int NatForward_getUpnpStatus(struct blob_attr *)
{
    int enable = 0;
    char leaseFile[32];
    NatForward_getUpnpEnable(&enable, leaseFile);
    log_info("[%s:%d]\n enable [%d] filename [%s] \n", __func__, __LINE__, enable, leaseFile);

    void *params = blobmsg_open_table(&s_bufUpnp, "params");
    blobmsg_add_u32(&s_bufUpnp, "Enable", static_cast<uint32_t>(enable));
    void *list = blobmsg_open_array(&s_bufUpnp, "List");
    if (FILE *f = openLeaseFile(leaseFile)) {
        upnpReadLeases(f, addLease, &s_bufUpnp);
        fclose(f);
    }
    blobmsg_close_array(&s_bufUpnp, list);
    blobmsg_close_table(&s_bufUpnp, params);
    blobmsg_add_u8(&s_bufUpnp, "result", 1);
    return UBUS_STATUS_OK;
}

// ---- start-up ----

int NatForward_upnpRestore(struct ubus_context *ctx)
{
    if (ctx != nullptr)  // a test runs the restore without a bus
        ubus_add_object(ctx, &rtUpnpObject);

    // Both chains in the filter and the nat table; the platform's firewall include links them.
    iptables("-N NatForward_DMZ ");
    iptables("-t nat -N NatForward_DMZ ");
    iptables("-N MINIUPNPD ");
    iptables("-t nat -N MINIUPNPD ");

    uint32_t upnp = 0;
    if (NatForward_getUpnpEnabled(&upnp) == 0) {
        if (upnp == 1)
            NatForward_applyUpnp(1);
        else
            log_error("[%s:%d] NatForward_upnpRestore no \n", __func__, __LINE__);
    }

    uint32_t dmz = 0;
    char destIp[16];
    if (NatForward_getDmzEnabled(&dmz, destIp) == 0 && destIp[0] != '\0' && dmz == 1 &&
        destIp[strlen(destIp) - 1] != '.') {
        iptables("-t nat -I NatForward_DMZ -p all -j DNAT --to %s ", destIp);
        iptables("-I NatForward_DMZ -p all -j ACCEPT ");
    }
    return 0;
}
