// The operator agent's object zelmad.macfilter, and the calls to RTSta, the station daemon that keeps the names of
// client devices. The agent sees the list in force as one text of bare MACs and names ("AABBCCDDEEFF/phone,...")
// and a policy number (0 black list, 1 white list); a set replaces the whole list.
#include <string.h>

#include "gwconf.h"
#include "macbus.h"
#include "macfilter.h"
#include "routeutils/routeutils.h"
#include "routeutils/system.h"
#include "uciconfig.h"

using routeutils::copyCut;

char s_staListDevName[STA_NAME_LEN + 1];

namespace {

#define RTSTA_TIMEOUT_MS 1000

const struct blobmsg_policy zelmadSetPolicy[E_ZELMAD_FILTER_MAX] = {
    [E_ZELMAD_FILTER_ENABLE] = {.name = "macFilterEnable", .type = BLOBMSG_TYPE_INT32},
    [E_ZELMAD_FILTER_POLICY] = {.name = "macFilterPolicy", .type = BLOBMSG_TYPE_INT32},
    [E_ZELMAD_FILTER_ENTRIES] = {.name = "macFilterEntries", .type = BLOBMSG_TYPE_STRING},
};

const struct blobmsg_policy staReplyPolicy[E_GETSTALISTPARAM_MAX] = {
    [E_GETSTALISTPARAM_PARAMS] = {.name = "params", .type = BLOBMSG_TYPE_TABLE},
};

const struct blobmsg_policy staNamePolicy[E_GETSTALIST_MAX] = {
    [E_GETSTALIST_DEVNAME] = {.name = "DevName", .type = BLOBMSG_TYPE_STRING},
};

const struct ubus_method zelmadMacfilterMethods[] = {
    UBUS_METHOD_NOARG("getMacFilter", macIptvMethod<zelmad_handle_get_macfilter>),
    UBUS_METHOD("setMacFilter", macIptvMethod<zelmad_handle_set_macfilter>, zelmadSetPolicy),
};

struct ubus_object_type zelmadMacfilterType = UBUS_OBJECT_TYPE("macfilter", zelmadMacfilterMethods);

// A private bus connection for one RTSta call, on the default socket (under a test's system root when one is set);
// closed when the call is done.
struct StaConnection {
    struct ubus_context *ctx = ubus_connect(
        routeutils::systemRootIsDefault() ? nullptr : routeutils::systemPath(UBUS_UNIX_SOCKET).c_str());
    StaConnection() = default;
    StaConnection(const StaConnection &) = delete;
    StaConnection &operator=(const StaConnection &) = delete;
    ~StaConnection()
    {
        if (ctx)
            ubus_free(ctx);
    }
};

// The request buffer of RTSta calls, initialised for one call and freed after it.
struct StaRequest {
    StaRequest() { blob_buf_init(&s_bufRTSta, 0); }
    ~StaRequest() { blob_buf_free(&s_bufRTSta); }
    StaRequest(const StaRequest &) = delete;
    StaRequest &operator=(const StaRequest &) = delete;
};

// Appends one agent entry (bare MAC '/' name) to the entries text, with a ',' before every entry but the first. An
// entry keeps at most 63 characters, its ',' included, and the whole text at most 2047.
void appendAgentEntry(char (&text)[MACFILTER_LIST_LEN + 1], const char *bareMac, const char *name)
{
    char piece[MACFILTER_ENTRY_LEN + 1];
    routeutils::formatCut(piece, MACFILTER_ENTRY_LEN, "%s%s/%s", text[0] == '\0' ? "" : ",", bareMac, name);
    routeutils::appendCut(text, piece, MACFILTER_LIST_LEN);
}

} // namespace

struct ubus_object zelmadMacfilterObject = {
    .name = "zelmad.macfilter",
    .type = &zelmadMacfilterType,
    .methods = zelmadMacfilterMethods,
    .n_methods = ARRAY_SIZE(zelmadMacfilterMethods),
};

void ubusGetStaNameFromStaListHandler(struct ubus_request *, int, struct blob_attr *msg)
{
    struct blob_attr *tb[E_GETSTALISTPARAM_MAX];
    macParseArgs(staReplyPolicy, E_GETSTALISTPARAM_MAX, tb, msg);
    if (!tb[E_GETSTALISTPARAM_PARAMS]) {
        log_error("[%s:%d]blobmsg_parse E_GETSTALISTPARAM_PARAMS error", __func__, __LINE__);
        return;
    }
    struct blob_attr *ptb[E_GETSTALIST_MAX];
    macParseTable(staNamePolicy, E_GETSTALIST_MAX, ptb, tb[E_GETSTALISTPARAM_PARAMS]);
    if (!ptb[E_GETSTALIST_DEVNAME]) {
        log_error("[%s:%d]blobmsg_parse E_GETSTALIST_DEVNAME error", __func__, __LINE__);
        return;
    }
    copyCut(s_staListDevName, blobmsg_get_string(ptb[E_GETSTALIST_DEVNAME]));
    log_info("[%s:%d]---------------get s_staListDevName:%s", __func__, __LINE__, s_staListDevName);
}

namespace {

// One call of RTSta on a private connection: DevMac, and DevName when a name is given (the set call); replies go
// to cb. Logged under the caller's name; the result is the bus status, or -1 without a connection.
int callRTSta(const char *fn, const char *method, const char *mac, const char *name, ubus_data_handler_t cb)
{
    uloop_init();
    StaConnection bus;
    if (!bus.ctx) {
        log_error("[%s:%d]ubus connect failed", fn, __LINE__);
        return -1;
    }
    StaRequest request;
    uint32_t id = 0;
    int ret = ubus_lookup_id(bus.ctx, "RTSta", &id);
    if (ret != UBUS_STATUS_OK) {
        log_error("[%s:%d]lookup RTSta failed", fn, __LINE__);
        return ret;
    }
    log_info("[%s:%d]lookup RTSta successs", fn, __LINE__);
    blobmsg_add_string(&s_bufRTSta, "DevMac", mac);
    if (name) {
        blobmsg_add_string(&s_bufRTSta, "DevName", name);
        log_info("[%s:%d]setStaNameToStaList : %s   %s", fn, __LINE__, mac, name);
    } else {
        log_info("[%s:%d]getStaNameToStaList : %s", fn, __LINE__, mac);
    }
    ret = ubus_invoke(bus.ctx, id, method, s_bufRTSta.head, cb, nullptr, RTSTA_TIMEOUT_MS);
    log_info("[%s:%d]setStaNameToStaList ret: %d", fn, __LINE__, ret);
    return ret;
}

} // namespace

int setStaNameToStaList(const char *mac, const char *name)
{
    if (!mac || !name) {
        log_error("[%s:%d]mac or name is NULL", __func__, __LINE__);
        return -1;
    }
    return callRTSta(__func__, "setStaDevName", mac, name, nullptr);
}

int getStaNameFromStaList(const char *mac)
{
    if (!mac) {
        log_error("[%s:%d]mac is NULL", __func__, __LINE__);
        return -1;
    }
    return callRTSta(__func__, "getStaDevName", mac, nullptr, ubusGetStaNameFromStaListHandler);
}

void zelmadGetMacFilterListHandler(void)
{
    struct blob_buf *b = &s_bufMacIptv;
    void *table = blobmsg_open_table(b, "zelmad.macfilter");

    char enabled[MACFILTER_OPTION_LEN + 1] = {};
    if (uciGetConfig(UCI_MACFILTER_FILE, "main", "enabled", enabled, MACFILTER_OPTION_LEN) != 0) {
        log_error("[%s:%d]uciGetConfig macFilter main enabled ERROR", __func__, __LINE__);
        blobmsg_close_table(b, table);
        return;
    }
    if (strncmp(enabled, "1", MACFILTER_OPTION_LEN) != 0) {
        blobmsg_add_u32(b, "macFilterEnable", 0);
        log_info("[%s:%d]macFilter enable:0", __func__, __LINE__);
        blobmsg_add_u32(b, "macFilterPolicy", 0);
        blobmsg_add_string(b, "macFilterEntries", "");
        blobmsg_close_table(b, table);
        return;
    }
    blobmsg_add_u32(b, "macFilterEnable", 1);
    log_info("[%s:%d]macFilter enable:%s", __func__, __LINE__, enabled);

    char curmode[MACFILTER_OPTION_LEN + 1] = {};
    if (uciGetConfig(UCI_MACFILTER_FILE, "main", "curmode", curmode, MACFILTER_OPTION_LEN) != 0) {
        log_error("[%s:%d]uciGetConfig macFilter main model ERROR", __func__, __LINE__);
        blobmsg_close_table(b, table);
        return;
    }

    char entries[MACFILTER_LIST_LEN + 1] = {};
    char all[MACFILTER_LIST_LEN + 1] = {};
    char *pieces[MACFILTER_MAX_ENTRIES];
    if (macFilterModelOf(curmode) == MACFILTER_MODEL_WHITE) {
        blobmsg_add_u32(b, "macFilterPolicy", 1);
        log_info("[%s:%d]macFilter curmodel:%s", __func__, __LINE__, curmode);
        if (uciGetStr("macFilter.whitelist.allow", all, MACFILTER_LIST_LEN) != 0) {
            log_error("[%s:%d]uciGetStr macFilter.whitelist.allow error or null", __func__, __LINE__);
        } else {
            log_info("[%s:%d]whiteListAll:%s", __func__, __LINE__, all);
            int count = macListSplit(all, " ", pieces, MACFILTER_MAX_ENTRIES);
            for (int i = 0; i < count; ++i) {
                log_info("[%s:%d]whiteListPart:%s", __func__, __LINE__, pieces[i]);
                MacFilterEntry entry;
                macEntrySplit(pieces[i], MAC_COLON_LEN, &entry);
                if (!macEntryUsable(&entry))
                    continue;
                macDelColon(entry.mac);
                appendAgentEntry(entries, entry.mac, entry.name);
            }
        }
    } else {
        blobmsg_add_u32(b, "macFilterPolicy", 0);
        log_info("[%s:%d]macFilter curmodel:%s", __func__, __LINE__, curmode);
        if (uciGetStr("macFilter.blacklist.deny", all, MACFILTER_LIST_LEN) != 0) {
            log_error("[%s:%d]uciGetStr macFilter.blacklist.allow error or null", __func__, __LINE__);
        } else {
            log_info("[%s:%d]blackListAll:%s", __func__, __LINE__, all);
            int count = macListSplit(all, " ", pieces, MACFILTER_MAX_ENTRIES);
            for (int i = 0; i < count; ++i) {
                log_info("[%s:%d]blackListPart:%s", __func__, __LINE__, pieces[i]);
                MacFilterEntry entry;
                macEntrySplit(pieces[i], MAC_COLON_LEN, &entry);
                log_info("[%s:%d]deny.mac:%s, deny.name:%s", __func__, __LINE__, entry.mac, entry.name);
                if (!macEntryUsable(&entry)) {
                    log_error("[%s:%d]macList is error", __func__, __LINE__);
                    continue;
                }
                int ret = getStaNameFromStaList(entry.mac);
                macDelColon(entry.mac);
                if (ret >= 0 && s_staListDevName[0] != '\0') {
                    appendAgentEntry(entries, entry.mac, s_staListDevName);
                    memset(s_staListDevName, 0, sizeof s_staListDevName);
                } else {
                    appendAgentEntry(entries, entry.mac, entry.name);
                }
            }
        }
    }
    blobmsg_add_string(b, "macFilterEntries", entries);
    blobmsg_close_table(b, table);
}

int zelmad_handle_get_macfilter(struct blob_attr *)
{
    zelmadGetMacFilterListHandler();
    return UBUS_STATUS_OK;
}

int zelmad_handle_set_macfilter(struct blob_attr *msg)
{
    struct blob_attr *tb[E_ZELMAD_FILTER_MAX];
    macParseArgs(zelmadSetPolicy, E_ZELMAD_FILTER_MAX, tb, msg);

    int status = UBUS_STATUS_OK;
    int enable = 0;
    int model = 0;
    char text[MACFILTER_LIST_LEN + 1] = {};
    if (!tb[E_ZELMAD_FILTER_ENABLE]) {
        log_error("[%s:%d]tb[E_ZELMAD_FILTER_ENABLE] is NULL", __func__, __LINE__);
        status = UBUS_STATUS_INVALID_ARGUMENT;
    } else {
        enable = macArgInt(tb[E_ZELMAD_FILTER_ENABLE]);
        log_info("[%s:%d]zelmad_handle_set_macfilter enable:%d", __func__, __LINE__, enable);
    }
    if (!tb[E_ZELMAD_FILTER_POLICY]) {
        log_error("[%s:%d]tb[E_ZELMAD_FILTER_POLICY] is NULL", __func__, __LINE__);
        status = UBUS_STATUS_INVALID_ARGUMENT;
    } else {
        int policy = macArgInt(tb[E_ZELMAD_FILTER_POLICY]);
        log_info("[%s:%d]zelmad_handle_set_macfilter policy:%d", __func__, __LINE__, policy);
        // Unsigned arithmetic: an absurd policy must not overflow; setMacFilterHandler refuses it anyway.
        model = static_cast<int>(static_cast<unsigned>(policy) + 1u);
    }
    if (!tb[E_ZELMAD_FILTER_ENTRIES]) {
        log_error("[%s:%d]tb[E_ZELMAD_FILTER_ENTRIES] is NULL", __func__, __LINE__);
        status = UBUS_STATUS_INVALID_ARGUMENT;
    } else {
        copyCut(text, blobmsg_get_string(tb[E_ZELMAD_FILTER_ENTRIES]));
        log_info("[%s:%d]zelmad_handle_set_macfilter policy:%s", __func__, __LINE__, text);
    }

    if (status == UBUS_STATUS_OK) {
        // Off first: this removes every rule of the list in force, if any.
        setMacFilterHandler(0, MACFILTER_MODEL_BLACK);
    }
    if (status == UBUS_STATUS_OK && enable != 0) {
        MacFilterEntry entries[MACFILTER_MAX_ENTRIES] = {};
        char *pieces[MACFILTER_MAX_ENTRIES];
        int count = macListSplit(text, ",", pieces, MACFILTER_MAX_ENTRIES);
        for (int i = 0; i < count; ++i) {
            char token[MACFILTER_ENTRY_LEN + 1] = {};
            copyCut(token, pieces[i]);
            log_info("[%s:%d]ListPart:%s", __func__, __LINE__, token);
            macEntrySplit(token, MAC_BARE_LEN, &entries[i]);
            log_info("[%s:%d]MFList.mac:%s, MFList.name:%s", __func__, __LINE__, entries[i].mac, entries[i].name);
            if (entries[i].mac[0] == '\0' || entries[i].name[0] == '\0') {
                log_error("[%s:%d]zelmad_handle_set_macfilter E_UBUS_STATUS_INVALID_ARGUMENT", __func__, __LINE__);
                return UBUS_STATUS_INVALID_ARGUMENT;
            }
            macAddColon(entries[i].mac);
            macToUpper(entries[i].mac);
        }

        bool black = model == MACFILTER_MODEL_BLACK;
        if (black) {
            LC_SystemCall("uci delete macFilter.blacklist");
            LC_SystemCall("uci set macFilter.blacklist=filter");
            LC_SystemCall("uci commit macFilter");
        } else {
            LC_SystemCall("uci delete macFilter.whitelist");
            LC_SystemCall("uci set macFilter.whitelist=filter");
            LC_SystemCall("uci commit macFilter");
        }
        for (int i = 0; i < count; ++i) {
            char line[MACFILTER_ENTRY_LEN + 1] = {};
            macEntryLine(line, entries[i]);
            if (black) {
                if (uciAddList(UCI_MACFILTER_FILE, "blacklist", "deny", line) != 0) {
                    log_error("[%s:%d]uciAddList UCI_MACFILTER_FILE blacklist deny ERROR", __func__, __LINE__);
                    return UBUS_STATUS_UNKNOWN_ERROR;
                }
            } else if (uciAddList(UCI_MACFILTER_FILE, "whitelist", "allow", line) != 0) {
                log_error("[%s:%d]uciAddList UCI_MACFILTER_FILE whitelist allow ERROR", __func__, __LINE__);
                return UBUS_STATUS_UNKNOWN_ERROR;
            }
            if (setStaNameToStaList(entries[i].mac, entries[i].name) > 0)
                log_error("[%s:%d]setStaNameToStaList ERROR", __func__, __LINE__);
        }
        setMacFilterHandler(enable, model);
    }
    macAddBool(&s_bufMacIptv, "result", status == UBUS_STATUS_OK);
    return UBUS_STATUS_OK;
}
