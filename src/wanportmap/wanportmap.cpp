// RTWanPortMap: the stored WAN port redirect (first "redirect" section of package WanPortMap, created as
// "wanPortMap" when there is none) and its delayed apply through the generated script.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
}

#include "busmethod.h"
#include "gwconf.h"
#include "routeutils/routeutils.h"
#include "routeutils/system.h"
#include "routeutils/uci_session.h"
#include "wanportmap.h"

struct uloop_timeout wanPortMapTimer;

namespace {

using routeutils::UciSession;
using routeutils::UciWriteResult;

constexpr const char *kRedirectType = "redirect";
constexpr const char *kSectionName = "wanPortMap";

const struct blobmsg_policy s_setWanPortMapPolicy[__E_SETWANPORTMAP_MAX] = {
    [E_SETWANPORTMAP_ENABLED] = {.name = "Enabled", .type = BLOBMSG_TYPE_INT32},
    [E_SETWANPORTMAP_INPORT] = {.name = "InPort", .type = BLOBMSG_TYPE_INT32},
    [E_SETWANPORTMAP_EXPORT] = {.name = "ExPort", .type = BLOBMSG_TYPE_INT32},
    [E_SETWANPORTMAP_REMOTEADDR] = {.name = "RemoteAddr", .type = BLOBMSG_TYPE_STRING},
};

const struct ubus_method s_rtWanPortMapMethods[] = {
    UBUS_METHOD("setWanPortMap", wanPortMapMethod<ubus_setConfig>, s_setWanPortMapPolicy),
    UBUS_METHOD_NOARG("getWanPortMap", wanPortMapMethod<ubus_getConfig>),
};

struct ubus_object_type s_rtWanPortMapType = UBUS_OBJECT_TYPE("RTWanPortMap", s_rtWanPortMapMethods);

// Dotted text of an address; "0.0.0.0" for any source.
void addressText(const in_addr &addr, char (&text)[INET_ADDRSTRLEN])
{
    if (inet_ntop(AF_INET, &addr, text, sizeof text) == nullptr)
        strcpy(text, "0.0.0.0");
}

// Writes the setting into the first redirect section (log name "setConfig"); 0 or -1.
int setConfig(const WanPortMapConfig &config)
{
    UciSession s;
    if (s)
        log_info("[%s:%d]addPortMap", __func__, __LINE__);
    int result = -1;
    if (s.open(__func__, UCI_WANPORTMAP_FILE) == 0) {
        uci_section *sec = s.firstSection(kRedirectType);
        if (sec == nullptr && uci_add_section(s.ctx(), s.pkg(), kRedirectType, &sec) == UCI_OK && sec != nullptr) {
            uci_ptr ptr{};
            ptr.p = s.pkg();
            ptr.s = sec;
            ptr.package = s.pkg()->e.name;
            ptr.section = sec->e.name;
            ptr.value = kSectionName;
            uci_rename(s.ctx(), &ptr);
        }
        if (sec == nullptr) {
            log_error("[%s:%d]error set Enable", __func__, __LINE__);
        } else {
            if (uciSetEnabled(s.ctx(), s.pkg(), sec, config.enabled) != 0)
                log_error("[%s:%d]error set Enable", __func__, __LINE__);
            if (uciSetUint32(s.ctx(), s.pkg(), sec, "InPort", config.inPort) != 0)
                log_error("[%s:%d]error set InPort", __func__, __LINE__);
            if (uciSetUint32(s.ctx(), s.pkg(), sec, "ExPort", config.exPort) != 0)
                log_error("[%s:%d]error set ExPort", __func__, __LINE__);
            char addr[INET_ADDRSTRLEN];
            addressText(config.remoteAddr, addr);
            uciSetString(s.ctx(), s.pkg(), sec, "RemoteAddr", addr);
        }
        const UciWriteResult w = s.commitThenSave();
        if (w.failed == UciWriteResult::Step::Commit)
            log_error("[%s:%d]error uci_commit", __func__, __LINE__);
        else if (w.failed == UciWriteResult::Step::Save)
            log_error("[%s:%d]error uci_save", __func__, __LINE__);
        else
            result = 0;
    }
    if (result != 0)
        s.revert();
    log_info("[%s:%d] ret [%d]  end ", __func__, __LINE__, result);
    return result;
}

// The three chains the script fills and the built-in chains that jump to them.
struct ChainLink {
    const char *table;
    const char *builtin;
    const char *chain;
};
constexpr ChainLink kChains[] = {
    {"mangle", "PREROUTING", "WanPortMapPREROUTING"},
    {"nat", "PREROUTING", "WanPortMapPREROUTING"},
    {"filter", "INPUT", "WanPortMapINPUT"},
};

}  // namespace

struct ubus_object rtWanPortMapObject = {
    .name = "RTWanPortMap",
    .type = &s_rtWanPortMapType,
    .methods = s_rtWanPortMapMethods,
    .n_methods = ARRAY_SIZE(s_rtWanPortMapMethods),
};

int getConfig(WanPortMapConfig *out)
{
    memset(out, 0, sizeof *out);
    UciSession s;
    uci_section *sec = s.open(__func__, UCI_WANPORTMAP_FILE) == 0 ? s.firstSection(kRedirectType) : nullptr;
    if (sec == nullptr)
        return -1;
    if (uciGetEnabled(s.ctx(), sec, &out->enabled) != 0) {
        out->enabled = 0;
        log_error("[%s:%d]read Enabled error", __func__, __LINE__);
    }
    if (uciGetUint32(s.ctx(), sec, "InPort", &out->inPort) != 0) {
        out->inPort = 0;
        log_error("[%s:%d]read InPort error", __func__, __LINE__);
    }
    if (uciGetUint32(s.ctx(), sec, "ExPort", &out->exPort) != 0) {
        out->exPort = 0;
        log_error("[%s:%d]read ExPort error", __func__, __LINE__);
    }
    char addr[32] = {0};
    if (uciGetString(s.ctx(), sec, "RemoteAddr", addr, sizeof addr) == 0 &&
        inet_pton(AF_INET, addr, &out->remoteAddr) != 1) {
        out->remoteAddr.s_addr = 0;
        log_error("[%s:%d]read RemoteAddr error", __func__, __LINE__);
    }
    return 0;
}

void wanPortMapEnsureChains(void)
{
    for (const ChainLink &c : kChains) {
        // -C fails both when the jump is missing and when the chain itself is; creating an existing chain is
        // harmless.
        if (LC_SystemCall("iptables -w -t %s -C %s -j %s 2> /dev/null", c.table, c.builtin, c.chain) == 0)
            continue;
        LC_SystemCall("iptables -w -t %s -N %s 2> /dev/null", c.table, c.chain);
        LC_SystemCall("iptables -w -t %s -I %s -j %s", c.table, c.builtin, c.chain);
    }
}

void applyConfig(struct uloop_timeout *)
{
    WanPortMapConfig config;
    if (getConfig(&config) != 0)
        return;

    const std::string path = routeutils::systemPath(WANPORTMAP_SCRIPT);
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
    if (fd < 0) {
        log_error("[%s:%d]open %s fail, errno : %s\n", __func__, __LINE__, WANPORTMAP_SCRIPT, strerror(errno));
        return;
    }
    fchmod(fd, 0755);  // also when the file was there with another mode, or the umask took bits away
    const std::string script = wanPortMapScript(config, static_cast<int>(getpid()));
    dprintf(fd, "%s", script.c_str());
    close(fd);

    wanPortMapEnsureChains();
    LC_SystemCall("%s > /tmp/wanPortMap.log 2>&1 &", WANPORTMAP_SCRIPT);
}

int ubus_setConfig(struct blob_attr *msg)
{
    blob_attr *tb[__E_SETWANPORTMAP_MAX] = {};
    if (msg != nullptr)
        blobmsg_parse(s_setWanPortMapPolicy, __E_SETWANPORTMAP_MAX, tb, blob_data(msg),
                      static_cast<unsigned>(blob_len(msg)));

    int result = 0;
    WanPortMapConfig config;
    memset(&config, 0, sizeof config);
    if (tb[E_SETWANPORTMAP_ENABLED] == nullptr) {
        log_error("[%s:%d]enabled is invaild", __func__, __LINE__);
        result = -1;
    } else {
        config.enabled = static_cast<uint8_t>(blobmsg_get_u32(tb[E_SETWANPORTMAP_ENABLED]) & 0xffu);
    }
    if (tb[E_SETWANPORTMAP_INPORT] == nullptr) {
        log_error("[%s:%d]InPort is invaild", __func__, __LINE__);
        result = -1;
    } else {
        config.inPort = blobmsg_get_u32(tb[E_SETWANPORTMAP_INPORT]);
    }
    if (tb[E_SETWANPORTMAP_EXPORT] == nullptr) {
        log_error("[%s:%d]ExPort is invaild", __func__, __LINE__);
        result = -1;
    } else {
        config.exPort = blobmsg_get_u32(tb[E_SETWANPORTMAP_EXPORT]);
    }
    if (tb[E_SETWANPORTMAP_REMOTEADDR] != nullptr) {
        const char *text = blobmsg_get_string(tb[E_SETWANPORTMAP_REMOTEADDR]);
        if (inet_pton(AF_INET, text, &config.remoteAddr) != 1) {
            log_error("[%s:%d]RemoteAddr(%s) is invaild", __func__, __LINE__, text);
            config.remoteAddr.s_addr = 0;
            result = -1;
        }
    }

    if (result == 0) {
        result = setConfig(config);
        // The stored setting is applied shortly, also after a failed write: then whatever is stored is applied.
        uloop_timeout_set(&wanPortMapTimer, WANPORTMAP_CHANGE_DELAY_MS);
    }
    log_info("[%s:%d]ret=%d", __func__, __LINE__, result);
    blobmsg_add_u8(&s_bufWanPortMap, "result", result == 0 ? 1 : 0);
    return UBUS_STATUS_OK;
}

int ubus_getConfig(struct blob_attr *)
{
    WanPortMapConfig config;
    getConfig(&config);
    char addr[INET_ADDRSTRLEN];
    addressText(config.remoteAddr, addr);

    void *params = blobmsg_open_table(&s_bufWanPortMap, "params");
    blobmsg_add_u32(&s_bufWanPortMap, "Enabled", config.enabled);
    blobmsg_add_u32(&s_bufWanPortMap, "InPort", config.inPort);
    blobmsg_add_u32(&s_bufWanPortMap, "ExPort", config.exPort);
    blobmsg_add_string(&s_bufWanPortMap, "RemoteAddr", addr);
    blobmsg_close_table(&s_bufWanPortMap, params);
    blobmsg_add_u8(&s_bufWanPortMap, "result", 1);
    return UBUS_STATUS_OK;
}
