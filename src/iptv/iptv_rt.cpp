// The bus object RTIptv: read the stored IPTV setting, change it, and a liveness test.
#include "busmethod.h"
#include "gwconf.h"
#include "iptv.h"
#include "iptv_store.h"
#include "routeutils/routeutils.h"
#include "uciconfig.h"

extern "C" {
#include <libubox/blobmsg.h>
}

// The methods' logic (busmethod.h): each builds its reply in s_bufMacIptv.
static int getIptvInfoHandler(struct blob_attr *msg);
static int setIptv(struct blob_attr *msg);
static int iptvTestHandler(struct blob_attr *msg);

static const struct blobmsg_policy setIptvPolicy[E_IPTV_MAX] = {
    [E_IPTV_ENABLE] = {.name = "enable", .type = BLOBMSG_TYPE_INT32},
    [E_IPTV_VLANID] = {.name = "vlanId", .type = BLOBMSG_TYPE_INT32},
    [E_IPTV_LAN1] = {.name = "vlan1", .type = BLOBMSG_TYPE_INT32},
    [E_IPTV_LAN2] = {.name = "vlan2", .type = BLOBMSG_TYPE_INT32},
    [E_IPTV_LAN3] = {.name = "vlan3", .type = BLOBMSG_TYPE_INT32},
    [E_IPTV_TYPE] = {.name = "type", .type = BLOBMSG_TYPE_INT32},
};

static const struct ubus_method rtIptvMethods[] = {
    UBUS_METHOD_NOARG("getIptvInfo", macIptvMethod<getIptvInfoHandler>),
    UBUS_METHOD("setIptv", macIptvMethod<setIptv>, setIptvPolicy),
    UBUS_METHOD_NOARG("test", macIptvMethod<iptvTestHandler>),
};

static struct ubus_object_type rtIptvType = UBUS_OBJECT_TYPE("RTIptv", rtIptvMethods);

struct ubus_object rtIptvObject = {
    .name = "RTIptv",
    .type = &rtIptvType,
    .methods = rtIptvMethods,
    .n_methods = ARRAY_SIZE(rtIptvMethods),
};

static void addResult(bool result)
{
    blobmsg_add_u8(&s_bufMacIptv, "result", result ? 1 : 0);
}

static int getIptvInfoHandler(struct blob_attr *)
{
    void *params = blobmsg_open_table(&s_bufMacIptv, "params");
    bool result = false;
    char text[IPTV_OPT_SIZE];
    int32_t type = 0;

    // A failed read ends the table early, with the fields read so far.
    do {
        if (!iptvReadOption("enabled", text)) {
            log_error("[%s:%d]uciGetConfig iptv main enabled ERROR", __func__, __LINE__);
            break;
        }
        blobmsg_add_u32(&s_bufMacIptv, "enable", (uint32_t)iptvFlagFromText(text));
        log_info("[%s:%d]iptv enable:%s", __func__, __LINE__, text);

        if (!iptvReadOption("vlanid", text)) {
            log_error("[%s:%d]uciGetConfig iptv main vlanid ERROR", __func__, __LINE__);
            break;
        }
        blobmsg_add_u32(&s_bufMacIptv, "vlanId", (uint32_t)iptvDecimal(text));
        log_info("[%s:%d]iptv enable:%s", __func__, __LINE__, text);

        if (!iptvReadOption("vlan1", text)) {
            log_error("[%s:%d]uciGetConfig iptv main lan1 ERROR", __func__, __LINE__);
            break;
        }
        blobmsg_add_u32(&s_bufMacIptv, "vlan1", (uint32_t)iptvFlagFromText(text));
        log_info("[%s:%d]iptv lan1:%s", __func__, __LINE__, text);

        if (!iptvReadOption("vlan2", text)) {
            log_error("[%s:%d]uciGetConfig iptv main lan2 ERROR", __func__, __LINE__);
            break;
        }
        blobmsg_add_u32(&s_bufMacIptv, "vlan2", (uint32_t)iptvFlagFromText(text));
        log_info("[%s:%d]iptv lan2:%s", __func__, __LINE__, text);

        if (!iptvReadOption("vlan3", text)) {
            log_error("[%s:%d]uciGetConfig iptv main lan3 ERROR", __func__, __LINE__);
            break;
        }
        blobmsg_add_u32(&s_bufMacIptv, "vlan3", (uint32_t)iptvFlagFromText(text));
        log_info("[%s:%d]iptv lan3:%s", __func__, __LINE__, text);

        if (!iptvReadType(&type)) {
            log_error("[%s:%d]uciGetConfig iptv main type ERROR", __func__, __LINE__);
            type = 0;
        }
        blobmsg_add_u32(&s_bufMacIptv, "type", (uint32_t)type);
        result = true;
    } while (false);

    blobmsg_close_table(&s_bufMacIptv, params);
    addResult(result);
    return UBUS_STATUS_OK;
}

int setIptvHandler(IptvInfo setInfo)
{
    if (!iptvVlanIdAccepted(setInfo.vlanId))
        return -1;

    IptvInfo oldInfo{};
    char text[IPTV_OPT_SIZE];
    if (!iptvReadOption("enabled", text)) {
        log_error("[%s:%d]uciGetConfig iptv main oldEnabled ERROR", __func__, __LINE__);
        return -1;
    }
    oldInfo.enabled = iptvDecimal(text);
    log_info("[%s:%d]iptv oldVlanId:%s", __func__, __LINE__, text);
    if (!iptvReadOption("vlanid", text)) {
        log_error("[%s:%d]uciGetConfig iptv main vlanid ERROR", __func__, __LINE__);
        return -1;
    }
    oldInfo.vlanId = iptvDecimal(text);
    log_info("[%s:%d]iptv oldVlanId:%s", __func__, __LINE__, text);
    if (!iptvReadOption("vlan1", text)) {
        log_error("[%s:%d]uciGetConfig iptv main oldVlan1 ERROR", __func__, __LINE__);
        return -1;
    }
    oldInfo.vlan1 = iptvDecimal(text);
    log_info("[%s:%d]iptv oldVlan1:%s", __func__, __LINE__, text);
    if (!iptvReadOption("vlan2", text)) {
        log_error("[%s:%d]uciGetConfig iptv main oldVlan2 ERROR", __func__, __LINE__);
        return -1;
    }
    oldInfo.vlan2 = iptvDecimal(text);
    log_info("[%s:%d]iptv oldVlan2:%s", __func__, __LINE__, text);
    if (!iptvReadOption("vlan3", text)) {
        log_error("[%s:%d]uciGetConfig iptv main oldVlan3 ERROR", __func__, __LINE__);
        return -1;
    }
    oldInfo.vlan3 = iptvDecimal(text);
    log_info("[%s:%d]iptv oldVlan3:%s", __func__, __LINE__, text);
    if (!iptvReadType(&oldInfo.type)) {
        log_error("[%s:%d]uciGetConfig iptv main oldType ERROR", __func__, __LINE__);
        return -1;
    }
    log_info("[%s:%d]iptv oldType:%d", __func__, __LINE__, oldInfo.type);

    if (iptvSameSetting(setInfo, oldInfo)) {
        log_error("[%s:%d]this config is same", __func__, __LINE__);
        return 0;
    }

    if (oldInfo.enabled == 1 && delIptvVlan(oldInfo, setInfo.enabled, setInfo.vlanId) == -1) {
        log_error("[%s:%d]delIptvVlan error", __func__, __LINE__);
        return -1;
    }

    log_info("[%s:%d]enabled(%d=>%d) type(%d=>%d) vlanId(%d=>%d) vlan1(%d=>%d) vlan2(%d=>%d) vlan3(%d=>%d)",
             __func__, __LINE__, oldInfo.enabled, setInfo.enabled, oldInfo.type, setInfo.type, oldInfo.vlanId,
             setInfo.vlanId, oldInfo.vlan1, setInfo.vlan1, oldInfo.vlan2, setInfo.vlan2, oldInfo.vlan3,
             setInfo.vlan3);

    // Written in this order; the first failure stops the writes and those before it stay.
    const struct {
        const char *option;
        int32_t value;
    } writes[] = {
        {"enabled", setInfo.enabled}, {"vlanid", setInfo.vlanId}, {"vlan1", setInfo.vlan1},
        {"vlan2", setInfo.vlan2},     {"vlan3", setInfo.vlan3},
    };
    for (const auto &w : writes) {
        if (iptvWriteOption(w.option, w.value) != 0) {
            log_error("[%s:%d]uciSetConfig UCI_MACFILTER_FILE main %s ERROR", __func__, __LINE__, w.option);
            return -1;
        }
    }
    if (uciSetOptionInt32(UCI_IPTV_FILE, UCI_IPTV_FILE, "main", "type", setInfo.type) != 0) {
        log_error("[%s:%d]uciSetConfig UCI_MACFILTER_FILE main type ERROR", __func__, __LINE__);
        return -1;
    }

    if (setInfo.enabled == 1 && addIptvVlan(setInfo) == -1) {
        log_info("[%s:%d]addIptvVlan error", __func__, __LINE__);
        return -1;
    }
    return 0;
}

static int setIptv(struct blob_attr *msg)
{
    struct blob_attr *tb[E_IPTV_MAX];
    blobmsg_parse(setIptvPolicy, E_IPTV_MAX, tb, msg ? blob_data(msg) : nullptr, msg ? blob_len(msg) : 0);

    IptvInfo setInfo{};
    if (tb[E_IPTV_ENABLE] == nullptr) {
        log_error("[%s:%d]tb[E_IPTV_ENABLE] is NULL", __func__, __LINE__);
        return -1;
    }
    setInfo.enabled = (int32_t)blobmsg_get_u32(tb[E_IPTV_ENABLE]);
    log_info("[%s:%d]setIptv enable:%d", __func__, __LINE__, setInfo.enabled);

    if (tb[E_IPTV_VLANID] != nullptr) {
        setInfo.vlanId = (int32_t)blobmsg_get_u32(tb[E_IPTV_VLANID]);
        log_info("[%s:%d]setIptv vlanId:%d", __func__, __LINE__, setInfo.vlanId);
    }

    if (tb[E_IPTV_LAN1] == nullptr) {
        log_error("[%s:%d]tb[E_IPTV_LAN1] is NULL", __func__, __LINE__);
        return -1;
    }
    setInfo.vlan1 = (int32_t)blobmsg_get_u32(tb[E_IPTV_LAN1]);
    log_info("[%s:%d]setIptv vlan1:%d", __func__, __LINE__, setInfo.vlan1);

    if (tb[E_IPTV_LAN2] == nullptr) {
        log_error("[%s:%d]tb[E_IPTV_LAN2] is NULL", __func__, __LINE__);
        return -1;
    }
    setInfo.vlan2 = (int32_t)blobmsg_get_u32(tb[E_IPTV_LAN2]);
    log_info("[%s:%d]setIptv vlan2:%d", __func__, __LINE__, setInfo.vlan2);

    if (tb[E_IPTV_LAN3] == nullptr) {
        log_error("[%s:%d]tb[E_IPTV_LAN3] is NULL", __func__, __LINE__);
        return -1;
    }
    setInfo.vlan3 = (int32_t)blobmsg_get_u32(tb[E_IPTV_LAN3]);
    log_info("[%s:%d]setIptv vlan3:%d", __func__, __LINE__, setInfo.vlan3);

    if (tb[E_IPTV_TYPE] == nullptr) {
        log_error("[%s:%d]tb[E_IPTV_TYPE] is NULL", __func__, __LINE__);
        return -1;
    }
    setInfo.type = (int32_t)blobmsg_get_u32(tb[E_IPTV_TYPE]);
    log_info("[%s:%d]setIptv type:%d", __func__, __LINE__, setInfo.type);

    bool ok = setIptvHandler(setInfo) == 0;
    addResult(ok);
    return UBUS_STATUS_OK;
}

static int iptvTestHandler(struct blob_attr *)
{
    addResult(true);
    return UBUS_STATUS_OK;
}
