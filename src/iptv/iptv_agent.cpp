// The bus object zelmad.vlan: the IPTV setting in the management agent's shape, a switch, a VLAN id and a list of
// entries binding IPTV to LAN ports and to the 2.4 GHz and 5 GHz radios.
#include "busmethod.h"
#include "gwconf.h"
#include "iptv.h"
#include "iptv_store.h"
#include "routeutils/routeutils.h"
#include "routeutils/text.h"
#include "uciconfig.h"

extern "C" {
#include <libubox/blobmsg.h>
}

#include <cstring>

// The methods' logic (busmethod.h): each builds its reply in s_bufMacIptv.
static int setIptvVlan(struct blob_attr *msg);
static int getIptvVlan(struct blob_attr *msg);

static const struct blobmsg_policy setIptvVlanPolicy[E_IPTV_VLAN_MAX] = {
    [E_IPTV_VLAN_ENABLE] = {.name = "vlanEnable", .type = BLOBMSG_TYPE_INT32},
    [E_IPTV_VLAN_ID] = {.name = "vlanId", .type = BLOBMSG_TYPE_INT32},
    [E_IPTV_VLAN_STATUS] = {.name = "iptvStatus", .type = BLOBMSG_TYPE_ARRAY},
};

// The first six table elements of iptvStatus take the six slots; elements of another type are skipped.
static const struct blobmsg_policy iptvStatusSlots[IPTV_STATUS_SLOTS] = {
    {.name = nullptr, .type = BLOBMSG_TYPE_TABLE}, {.name = nullptr, .type = BLOBMSG_TYPE_TABLE},
    {.name = nullptr, .type = BLOBMSG_TYPE_TABLE}, {.name = nullptr, .type = BLOBMSG_TYPE_TABLE},
    {.name = nullptr, .type = BLOBMSG_TYPE_TABLE}, {.name = nullptr, .type = BLOBMSG_TYPE_TABLE},
};

static const struct blobmsg_policy iptvStatusPolicy[E_IPTV_STATUS_MAX] = {
    [E_IPTV_STATUS_RADIO] = {.name = "radio", .type = BLOBMSG_TYPE_STRING},
    [E_IPTV_STATUS_INDEX] = {.name = "index", .type = BLOBMSG_TYPE_INT32},
};

static const struct ubus_method zelmadVlanMethods[] = {
    UBUS_METHOD("setIptvVlan", macIptvMethod<setIptvVlan>, setIptvVlanPolicy),
    UBUS_METHOD_NOARG("getIptvVlan", macIptvMethod<getIptvVlan>),
};

static struct ubus_object_type zelmadVlanType = UBUS_OBJECT_TYPE("vlan", zelmadVlanMethods);

struct ubus_object zelmadVlanObject = {
    .name = "zelmad.vlan",
    .type = &zelmadVlanType,
    .methods = zelmadVlanMethods,
    .n_methods = ARRAY_SIZE(zelmadVlanMethods),
};

// Reads the stored setting the agent's way, logging each value.
static IptvInfo readStoredSetting(void)
{
    static const char *const func = "setIptvVlan";
    IptvInfo stored{};
    char text[IPTV_OPT_SIZE];

    if (iptvReadOption("enabled", text) && iptvFlagFromText(text)) {
        stored.enabled = 1;
        log_info("[%s:%d]iptv enable:%s", func, __LINE__, text);
    } else {
        log_info("[%s:%d]iptv enable:0", func, __LINE__);
    }
    if (iptvReadOption("vlanid", text)) {
        stored.vlanId = iptvDecimal(text);
        log_info("[%s:%d]iptv vlanid:%s", func, __LINE__, text);
    }
    if (iptvReadOption("vlan1", text) && iptvFlagFromText(text)) {
        stored.vlan1 = 1;
        log_info("[%s:%d]iptv lan1:1", func, __LINE__);
    } else {
        log_info("[%s:%d]iptv lan1:0", func, __LINE__);
    }
    if (iptvReadOption("vlan2", text) && iptvFlagFromText(text)) {
        stored.vlan2 = 1;
        log_info("[%s:%d]iptv lan2:1", func, __LINE__);
    } else {
        log_info("[%s:%d]iptv lan2:0", func, __LINE__);
    }
    if (iptvReadOption("vlan3", text) && iptvFlagFromText(text)) {
        stored.vlan3 = 1;
        log_info("[%s:%d]iptv lan3:1", func, __LINE__);
    } else {
        log_info("[%s:%d]iptv lan3:0", func, __LINE__);
    }
    if (iptvReadOption("vlan24g", text) && iptvRadioCounts(text)) {
        stored.vlan24g = iptvDecimal(text);
        log_info("[%s:%d]iptv vlan24g:%s", func, __LINE__, text);
    } else {
        log_info("[%s:%d]iptv vlan24g:0", func, __LINE__);
    }
    if (iptvReadOption("vlan5g", text) && iptvRadioCounts(text)) {
        stored.vlan5g = iptvDecimal(text);
        log_info("[%s:%d]iptv vlan5g:%s", func, __LINE__, text);
    } else {
        log_info("[%s:%d]iptv vlan5g:0", func, __LINE__);
    }
    return stored;
}

static int setIptvVlan(struct blob_attr *msg)
{
    struct blob_attr *tb[E_IPTV_VLAN_MAX];
    blobmsg_parse(setIptvVlanPolicy, E_IPTV_VLAN_MAX, tb, msg ? blob_data(msg) : nullptr, msg ? blob_len(msg) : 0);

    IptvInfo requested{};
    if (tb[E_IPTV_VLAN_ENABLE] != nullptr) {
        requested.enabled = (int32_t)blobmsg_get_u32(tb[E_IPTV_VLAN_ENABLE]);
        log_info("[%s:%d]vorn setIptvVlan enable : %d", __func__, __LINE__, requested.enabled);
    }
    if (tb[E_IPTV_VLAN_ID] != nullptr) {
        requested.vlanId = (int32_t)blobmsg_get_u32(tb[E_IPTV_VLAN_ID]);
        log_info("[%s:%d]vorn setIptvVlan vlanId : %d", __func__, __LINE__, requested.vlanId);
    }
    if (tb[E_IPTV_VLAN_STATUS] != nullptr) {
        struct blob_attr *slots[IPTV_STATUS_SLOTS];
        blobmsg_parse_array(iptvStatusSlots, IPTV_STATUS_SLOTS, slots, blobmsg_data(tb[E_IPTV_VLAN_STATUS]),
                            blobmsg_len(tb[E_IPTV_VLAN_STATUS]));
        for (int i = 0; i < IPTV_STATUS_SLOTS; ++i) {
            if (slots[i] == nullptr)
                continue;
            struct blob_attr *entry[E_IPTV_STATUS_MAX];
            blobmsg_parse(iptvStatusPolicy, E_IPTV_STATUS_MAX, entry, blobmsg_data(slots[i]), blobmsg_len(slots[i]));
            for (int field = 0; field < E_IPTV_STATUS_MAX; ++field) {
                if (entry[field] == nullptr) {
                    log_error("[%s:%d]tb[%d] not found", __func__, __LINE__, field);
                    return UBUS_STATUS_INVALID_ARGUMENT;
                }
            }
            char radio[IPTV_OPT_SIZE];
            routeutils::copyCut(radio, blobmsg_get_string(entry[E_IPTV_STATUS_RADIO]));
            int32_t index = (int32_t)blobmsg_get_u32(entry[E_IPTV_STATUS_INDEX]);
            log_info("[%s:%d]radio: %s, index: %d", __func__, __LINE__, radio, index);
            iptvApplyRadio(&requested, radio, index);
        }
    } else {
        log_error("[%s:%d]tb[E_IPTV_VLAN_STATUS] is NULL", __func__, __LINE__);
    }

    IptvInfo stored = readStoredSetting();
    // The stored type decides the member names of the ports (lanN.<vlanid> when 1). This object neither shows nor
    // changes it, so both the removal of the stored setting and the new setting use it: the DNS rules then always
    // sit on the interfaces that really carry the ports, whichever object set the type.
    int32_t type = 0;
    if (iptvReadType(&type)) {
        stored.type = type;
        requested.type = type;
    }

    int removed = 0;
    if (stored.enabled == 1) {
        resetIptvConfig();
        removed = delIptvVlan(stored, requested.enabled, requested.vlanId);
    }

    static const struct {
        const char *option;
        int32_t IptvInfo::*field;
    } writes[] = {
        {"enabled", &IptvInfo::enabled}, {"vlanid", &IptvInfo::vlanId}, {"vlan1", &IptvInfo::vlan1},
        {"vlan2", &IptvInfo::vlan2},     {"vlan3", &IptvInfo::vlan3},   {"vlan24g", &IptvInfo::vlan24g},
        {"vlan5g", &IptvInfo::vlan5g},
    };
    for (const auto &w : writes) {
        int32_t value = requested.*w.field;
        if (value != 0 && iptvWriteOption(w.option, value) != 0)
            log_error("[%s:%d]uciSetConfig UCI_MACFILTER_FILE main %s ERROR", __func__, __LINE__, w.option);
    }

    bool result;
    if (removed != 0)
        result = false;
    else if (requested.enabled == 1)
        result = addIptvVlan(requested) == 0;
    else
        result = true;

    blobmsg_add_u8(&s_bufMacIptv, "result", result ? 1 : 0);
    return UBUS_STATUS_OK;
}

static void addStatusEntry(const char *radio, int32_t index)
{
    void *entry = blobmsg_open_table(&s_bufMacIptv, nullptr);
    blobmsg_add_string(&s_bufMacIptv, "radio", radio);
    blobmsg_add_u32(&s_bufMacIptv, "index", (uint32_t)index);
    blobmsg_close_table(&s_bufMacIptv, entry);
}

static int getIptvVlan(struct blob_attr *)
{
    void *table = blobmsg_open_table(&s_bufMacIptv, "zelmad.vlan");
    char text[IPTV_OPT_SIZE];

    if (iptvReadOption("enabled", text) && iptvFlagFromText(text)) {
        blobmsg_add_u32(&s_bufMacIptv, "vlanEnable", 1);
        log_info("[%s:%d]iptv enable:%s", __func__, __LINE__, text);
    } else {
        blobmsg_add_u32(&s_bufMacIptv, "vlanEnable", 0);
        log_info("[%s:%d]iptv enable:0", __func__, __LINE__);
    }
    bool haveVlanId = iptvReadOption("vlanid", text);
    blobmsg_add_u32(&s_bufMacIptv, "vlanId", haveVlanId ? (uint32_t)iptvDecimal(text) : 0u);
    log_info("[%s:%d]iptv enable:%s", __func__, __LINE__, text);

    void *status = blobmsg_open_array(&s_bufMacIptv, "iptvStatus");
    static const char *const ports[3] = {"vlan1", "vlan2", "vlan3"};
    for (int port = 1; port <= 3; ++port)
        if (iptvReadOption(ports[port - 1], text) && iptvFlagFromText(text))
            addStatusEntry("LAN", port);
    if (iptvReadOption("vlan24g", text) && iptvRadioCounts(text))
        addStatusEntry("2.4G", iptvDecimal(text));
    if (iptvReadOption("vlan5g", text) && iptvRadioCounts(text))
        addStatusEntry("5G", iptvDecimal(text));
    blobmsg_close_array(&s_bufMacIptv, status);

    blobmsg_close_table(&s_bufMacIptv, table);
    return UBUS_STATUS_OK;
}
