// The bus object RTMacFilter: the router's management back-end lists both lists, switches the filter, and adds or
// removes one device at a time. Every handler answers status 0 and reports the outcome in "result".
#include <stdio.h>
#include <string.h>

#include "gwconf.h"
#include "macbus.h"
#include "macfilter.h"
#include "routeutils/routeutils.h"
#include "uciconfig.h"

using routeutils::copyCut;

namespace {

const struct blobmsg_policy setMacFilterPolicy[E_SETMACFILTER_MAX] = {
    [E_SETMACFILTER_ENABLE] = {.name = "enable", .type = BLOBMSG_TYPE_INT32},
    [E_SETMACFILTER_MODEL] = {.name = "model", .type = BLOBMSG_TYPE_INT32},
};

const struct blobmsg_policy addMacFilterListPolicy[E_ADDMACFILTERLIST_MAX] = {
    [E_ADDMACFILTERLIST_ENABLE] = {.name = "enable", .type = BLOBMSG_TYPE_INT32},
    [E_ADDMACFILTERLIST_MODEL] = {.name = "model", .type = BLOBMSG_TYPE_INT32},
    [E_ADDMACFILTERLIST_MACLIST] = {.name = "macList", .type = BLOBMSG_TYPE_TABLE},
};

const struct blobmsg_policy delMacFilterListPolicy[E_DELMACFILTERLIST_MAX] = {
    [E_DELMACFILTERLIST_ENABLE] = {.name = "enable", .type = BLOBMSG_TYPE_INT32},
    [E_DELMACFILTERLIST_MODEL] = {.name = "model", .type = BLOBMSG_TYPE_INT32},
    [E_DELMACFILTERLIST_MACLIST] = {.name = "macList", .type = BLOBMSG_TYPE_TABLE},
};

const struct blobmsg_policy macFilterListPolicy[E_MACFILTERLIST_MAX] = {
    [E_MACFILTERLIST_NAME] = {.name = "name", .type = BLOBMSG_TYPE_STRING},
    [E_MACFILTERLIST_MAC] = {.name = "mac", .type = BLOBMSG_TYPE_STRING},
};

const struct ubus_method rtMacFilterMethods[] = {
    UBUS_METHOD_NOARG("getMacFilterList", macIptvMethod<getMacFilterList>),
    UBUS_METHOD("setMacFilter", macIptvMethod<setMacFilter>, setMacFilterPolicy),
    UBUS_METHOD("addMacFilterList", macIptvMethod<addMacFilterList>, addMacFilterListPolicy),
    UBUS_METHOD("delMacFilterList", macIptvMethod<delMacFilterList>, delMacFilterListPolicy),
};

struct ubus_object_type rtMacFilterType = UBUS_OBJECT_TYPE("RTMacFilter", rtMacFilterMethods);

// Adds "name" to the open list table: the name RTSta knows for the device, else the stored one.
void addEntryName(struct blob_buf *b, const MacFilterEntry &entry)
{
    if (getStaNameFromStaList(entry.mac) >= 0 && s_staListDevName[0] != '\0') {
        blobmsg_add_string(b, "name", s_staListDevName);
        memset(s_staListDevName, 0, sizeof s_staListDevName);
    } else {
        blobmsg_add_string(b, "name", entry.name);
    }
}

} // namespace

struct ubus_object rtMacFilterObject = {
    .name = "RTMacFilter",
    .type = &rtMacFilterType,
    .methods = rtMacFilterMethods,
    .n_methods = ARRAY_SIZE(rtMacFilterMethods),
};

int getMacFilterListHandler(void)
{
    struct blob_buf *b = &s_bufMacIptv;
    void *params = blobmsg_open_table(b, "params");

    char enabled[MACFILTER_OPTION_LEN + 1] = {};
    if (uciGetConfig(UCI_MACFILTER_FILE, "main", "enabled", enabled, MACFILTER_OPTION_LEN) != 0) {
        log_error("[%s:%d]uciGetConfig macFilter main enabled ERROR", __func__, __LINE__);
        blobmsg_close_table(b, params);
        return -1;
    }
    if (strncmp(enabled, "1", MACFILTER_OPTION_LEN) != 0) {
        blobmsg_add_u32(b, "enable", 0);
        log_info("[%s:%d]macFilter enable:0", __func__, __LINE__);
        blobmsg_close_table(b, params);
        return 0;
    }
    blobmsg_add_u32(b, "enable", 1);
    log_info("[%s:%d]macFilter enable:%s", __func__, __LINE__, enabled);

    char curmode[MACFILTER_OPTION_LEN + 1] = {};
    if (uciGetConfig(UCI_MACFILTER_FILE, "main", "curmode", curmode, MACFILTER_OPTION_LEN) != 0) {
        log_error("[%s:%d]uciGetConfig macFilter main model ERROR", __func__, __LINE__);
        blobmsg_close_table(b, params);
        return -1;
    }
    blobmsg_add_u32(b, "model", static_cast<uint32_t>(macFilterModelOf(curmode)));
    log_info("[%s:%d]macFilter curmodel:%s", __func__, __LINE__, curmode);

    void *black = blobmsg_open_array(b, "blackList");
    char all[MACFILTER_LIST_LEN + 1] = {};
    if (uciGetStr("macFilter.blacklist.deny", all, MACFILTER_LIST_LEN) != 0) {
        log_error("[%s:%d]uciGetStr macFilter.blacklist.allow error or null", __func__, __LINE__);
    } else {
        log_info("[%s:%d]blackListAll:%s", __func__, __LINE__, all);
        char *pieces[MACFILTER_MAX_ENTRIES];
        int count = macListSplit(all, " ", pieces, MACFILTER_MAX_ENTRIES);
        for (int i = 0; i < count; ++i) {
            log_info("[%s:%d]blackListPart:%s", __func__, __LINE__, pieces[i]);
            void *table = blobmsg_open_table(b, "");
            MacFilterEntry entry;
            macEntrySplit(pieces[i], MAC_COLON_LEN, &entry);
            log_info("[%s:%d]deny.mac:%s, deny.name:%s", __func__, __LINE__, entry.mac, entry.name);
            if (entry.mac[0] != '\0' && macToUpper(entry.mac) == 0) {
                log_info("[%s:%d]deny.mac:%s, deny.name:%s", __func__, __LINE__, entry.mac, entry.name);
                blobmsg_add_string(b, "mac", entry.mac);
            } else {
                log_error("[%s:%d]macList is error", __func__, __LINE__);
            }
            addEntryName(b, entry);
            blobmsg_close_table(b, table);
        }
    }
    blobmsg_close_array(b, black);

    void *white = blobmsg_open_array(b, "whiteList");
    memset(all, 0, sizeof all);
    if (uciGetStr("macFilter.whitelist.allow", all, MACFILTER_LIST_LEN) != 0) {
        log_error("[%s:%d]uciGetStr macFilter.whitelist.allow error or null", __func__, __LINE__);
    } else {
        log_info("[%s:%d]whiteListAll:%s", __func__, __LINE__, all);
        char *pieces[MACFILTER_MAX_ENTRIES];
        int count = macListSplit(all, " ", pieces, MACFILTER_MAX_ENTRIES);
        for (int i = 0; i < count; ++i) {
            log_info("[%s:%d]whiteListPart:%s", __func__, __LINE__, pieces[i]);
            void *table = blobmsg_open_table(b, "");
            MacFilterEntry entry;
            macEntrySplit(pieces[i], MAC_COLON_LEN, &entry);
            if (macEntryUsable(&entry)) {
                log_info("[%s:%d]allow.mac:%s, allow.name:%s", __func__, __LINE__, entry.mac, entry.name);
                blobmsg_add_string(b, "mac", entry.mac);
            }
            addEntryName(b, entry);
            blobmsg_close_table(b, table);
        }
    }
    blobmsg_close_array(b, white);
    blobmsg_close_table(b, params);
    return 0;
}

int getMacFilterList(struct blob_attr *)
{
    int ret = getMacFilterListHandler();
    macAddBool(&s_bufMacIptv, "result", ret == 0);
    return UBUS_STATUS_OK;
}

int setMacFilter(struct blob_attr *msg)
{
    struct blob_attr *tb[E_SETMACFILTER_MAX];
    macParseArgs(setMacFilterPolicy, E_SETMACFILTER_MAX, tb, msg);

    int outcome = -1;
    if (!tb[E_SETMACFILTER_ENABLE]) {
        log_error("[%s:%d]tb[E_SETMACFILTER_ENABLE] is NULL", __func__, __LINE__);
    } else {
        int enable = macArgInt(tb[E_SETMACFILTER_ENABLE]);
        log_info("[%s:%d]setMacFilter enable:%d", __func__, __LINE__, enable);
        if (!tb[E_SETMACFILTER_MODEL]) {
            log_error("[%s:%d]tb[E_SETMACFILTER_MODEL] is NULL", __func__, __LINE__);
        } else {
            int model = macArgInt(tb[E_SETMACFILTER_MODEL]);
            log_info("[%s:%d]setMacFilter model:%d", __func__, __LINE__, model);
            outcome = setMacFilterHandler(enable, model);
        }
    }
    macAddBool(&s_bufMacIptv, "result", outcome == 0);
    return UBUS_STATUS_OK;
}

MacListAdd addMacFilterListHandler(int model, MacFilterEntry *entry)
{
    char curmode[MACFILTER_OPTION_LEN + 1] = {};
    if (uciGetConfig(UCI_MACFILTER_FILE, "main", "curmode", curmode, MACFILTER_OPTION_LEN) != 0) {
        log_error("[%s:%d]uciGetConfig macFilter main model ERROR", __func__, __LINE__);
        return MacListAdd::Failed;
    }
    int curModel = macFilterModelOf(curmode);
    if ((curModel == MACFILTER_MODEL_BLACK && model == MACFILTER_MODEL_WHITE) ||
        (curModel == MACFILTER_MODEL_WHITE && model == MACFILTER_MODEL_BLACK)) {
        log_error("[%s:%d]the setmodel is not same as curmodel", __func__, __LINE__);
        return MacListAdd::Failed;
    }

    // Look for the same device and for room. Every token counts towards the 32, usable or not.
    bool black = model == MACFILTER_MODEL_BLACK;
    char all[MACFILTER_LIST_LEN + 1] = {};
    if (uciGetStr(black ? "macFilter.blacklist.deny" : "macFilter.whitelist.allow", all, MACFILTER_LIST_LEN) != 0) {
        if (black)
            log_error("[%s:%d]uciGetStr macFilter.blacklist.allow error or null", __func__, __LINE__);
        else
            log_error("[%s:%d]uciGetStr macFilter.whitelist.allow error or null", __func__, __LINE__);
    } else {
        if (black)
            log_info("[%s:%d]blackListAll:%s", __func__, __LINE__, all);
        else
            log_info("[%s:%d]whiteListAll:%s", __func__, __LINE__, all);
        char *pieces[MACFILTER_MAX_ENTRIES];
        int count = macListSplit(all, " ", pieces, MACFILTER_MAX_ENTRIES);
        for (int i = 0; i < count; ++i) {
            MacFilterEntry stored;
            if (black) {
                log_info("[%s:%d]blackListPart:%s", __func__, __LINE__, pieces[i]);
                macEntrySplit(pieces[i], MAC_COLON_LEN, &stored);
                log_info("[%s:%d]deny.mac:%s, deny.name:%s", __func__, __LINE__, stored.mac, stored.name);
            } else {
                log_info("[%s:%d]whiteListPart:%s", __func__, __LINE__, pieces[i]);
                macEntrySplit(pieces[i], MAC_COLON_LEN, &stored);
            }
            if (!macEntryUsable(&stored)) {
                if (black)
                    log_error("[%s:%d]macList is error", __func__, __LINE__);
            } else {
                if (!black)
                    log_info("[%s:%d]allow.mac:%s, allow.name:%s", __func__, __LINE__, stored.mac, stored.name);
                if (strncmp(stored.mac, entry->mac, MAC_COLON_LEN) == 0) {
                    log_error("[%s:%d]this macList is exist", __func__, __LINE__);
                    return MacListAdd::Duplicate;
                }
            }
            if (i + 1 == MACFILTER_MAX_ENTRIES) {
                log_error("[%s:%d]blackList Has been reached max num", __func__, __LINE__);
                return MacListAdd::Failed;
            }
        }
    }

    char line[MACFILTER_ENTRY_LEN + 1] = {};
    macEntryLine(line, *entry);

    if (setStaNameToStaList(entry->mac, entry->name) > 0)
        log_error("[%s:%d]setStaNameToStaList ERROR", __func__, __LINE__);

    log_info("[%s:%d]ready to write config listLine:%s", __func__, __LINE__, line);
    if (black) {
        if (uciAddList(UCI_MACFILTER_FILE, "blacklist", "deny", line) != 0) {
            log_error("[%s:%d]uciAddList UCI_MACFILTER_FILE blackList deny ERROR", __func__, __LINE__);
            return MacListAdd::Failed;
        }
    } else if (uciAddList(UCI_MACFILTER_FILE, "whitelist", "allow", line) != 0) {
        log_error("[%s:%d]uciAddList UCI_MACFILTER_FILE whiteList allow ERROR", __func__, __LINE__);
        return MacListAdd::Failed;
    }

    log_info("[%s:%d]ready to set firewall rule", __func__, __LINE__);
    if (!black) {
        // The catch-all and the default kernel rules move behind the new device's rules.
        if (deleteFirewallRuleByMacAndName("", "denyall") != 0) {
            log_error("[%s:%d]deleteFirewallRuleByMacAndName * denyall ERROR", __func__, __LINE__);
            return MacListAdd::Failed;
        }
        delWhitelistDefaultRules();
    }
    macFilterInsertRules(model, entry->mac);

    log_info("[%s:%d]add newsection of firewall rule", __func__, __LINE__);
    if (addMacFilterRuleSection(entry->name, entry->mac, black ? "DROP" : "ACCEPT") != 0) {
        log_error("[%s:%d]uciAddNewSection UCI_FIREWALL_FILE rule ERROR", __func__, __LINE__);
        return MacListAdd::Failed;
    }
    if (!black) {
        if (addDenyAllRuleSection() != 0) {
            log_error("[%s:%d]uciAddNewSection UCI_FIREWALL_FILE rule ERROR", __func__, __LINE__);
            return MacListAdd::Failed;
        }
        addWhitelistDefaultRules();
    }
    LC_SystemCall("/etc/init.d/firewall reload");
    return MacListAdd::Added;
}

int delMacFilterListHandler(int model, MacFilterEntry *entry)
{
    char line[MACFILTER_ENTRY_LEN + 1] = {};
    macEntryLine(line, *entry);
    log_info("[%s:%d]ready to delete config listLine:%s", __func__, __LINE__, line);

    if (model == MACFILTER_MODEL_BLACK) {
        if (uciDelList(UCI_MACFILTER_FILE, "blacklist", "deny", line) != 0) {
            log_error("[%s:%d]uciAddList UCI_MACFILTER_FILE blackList deny ERROR", __func__, __LINE__);
            return -1;
        }
    } else if (uciDelList(UCI_MACFILTER_FILE, "whitelist", "allow", line) != 0) {
        log_error("[%s:%d]uciAddList UCI_MACFILTER_FILE whiteList allow ERROR", __func__, __LINE__);
        return -1;
    }
    macFilterDeleteRules(model, entry->mac);

    log_info("[%s:%d]ready to set firewall rule", __func__, __LINE__);
    if (deleteFirewallRuleByMacAndName(entry->mac, entry->name) != 0) {
        log_error("[%s:%d]deleteFirewallRuleByMacAndName %s %s ERROR", __func__, __LINE__, entry->mac, entry->name);
        return -1;
    }
    LC_SystemCall("/etc/init.d/firewall reload");
    return 0;
}

// The argument checks that addMacFilterList and delMacFilterList share; `method` names the handler in the log lines
// and `idx` its policy index prefix. Failures of enable, model and name are remembered and the checks go on, so
// that one call logs every problem it has; a missing table or MAC, or a MAC that cannot be upper-cased, ends them.
// Returns 0 when the record may be used.
static int macListArgsCheck(const char *method, const char *idx, struct blob_attr **tb, int *model,
                            MacFilterEntry *entry)
{
    bool failed = false;
    if (!tb[0]) {
        log_error("[%s:%d]%s tb[%s_ENABLE] is NULL", method, __LINE__, method, idx);
        failed = true;
    } else {
        int enable = macArgInt(tb[0]);
        log_info("[%s:%d]%s enable:%d", method, __LINE__, method, enable);
        if (enable != 1) {
            log_error("[%s:%d]%s enable is 0", method, __LINE__, method);
            failed = true;
        }
    }
    if (!tb[1]) {
        log_error("[%s:%d]%s tb[%s_MODEL] is NULL", method, __LINE__, method, idx);
        failed = true;
    } else {
        *model = macArgInt(tb[1]);
        log_info("[%s:%d]%s model:%d", method, __LINE__, method, *model);
        if (*model != MACFILTER_MODEL_BLACK && *model != MACFILTER_MODEL_WHITE) {
            log_error("[%s:%d]%s model is unvalued", method, __LINE__, method);
            failed = true;
        }
    }
    if (!tb[2]) {
        log_error("[%s:%d]%s tb[%s_MACLIST] is NULL", method, __LINE__, method, idx);
        return -1;
    }

    struct blob_attr *ptb[E_MACFILTERLIST_MAX];
    macParseTable(macFilterListPolicy, E_MACFILTERLIST_MAX, ptb, tb[2]);
    if (ptb[E_MACFILTERLIST_NAME]) {
        copyCut(entry->name, blobmsg_get_string(ptb[E_MACFILTERLIST_NAME]));
        log_info("[%s:%d]%s name:%s", method, __LINE__, method, entry->name);
    } else {
        log_error("[%s:%d]%s ptb[E_MACFILTERLIST_NAME] is NULL", method, __LINE__, method);
        failed = true;
    }
    if (!ptb[E_MACFILTERLIST_MAC]) {
        log_error("[%s:%d]%s ptb[E_MACFILTERLIST_MAC] is NULL", method, __LINE__, method);
        return -1;
    }
    // The MAC is cut to 17 characters before any test: a longer text is judged by its first 17.
    copyCut(entry->mac, blobmsg_get_string(ptb[E_MACFILTERLIST_MAC]));
    log_info("[%s:%d]%s mac:%s", method, __LINE__, method, entry->mac);
    if (macValidCheck(entry->mac, static_cast<int>(strlen(entry->mac))) != 0) {
        log_error("[%s:%d]%s mac is unValid", method, __LINE__, method);
        failed = true;
    }
    if (macToUpper(entry->mac) != 0) {
        log_error("[%s:%d]%s macToUpper error", method, __LINE__, method);
        return -1;
    }
    return failed ? -1 : 0;
}

int addMacFilterList(struct blob_attr *msg)
{
    MacFilterEntry entry{};
    struct blob_attr *tb[E_ADDMACFILTERLIST_MAX];
    macParseArgs(addMacFilterListPolicy, E_ADDMACFILTERLIST_MAX, tb, msg);

    static_assert(E_ADDMACFILTERLIST_ENABLE == 0 && E_ADDMACFILTERLIST_MODEL == 1 && E_ADDMACFILTERLIST_MACLIST == 2);
    int model = 0;
    MacListAdd outcome = MacListAdd::Failed;
    if (macListArgsCheck(__func__, "E_ADDMACFILTERLIST", tb, &model, &entry) == 0)
        outcome = addMacFilterListHandler(model, &entry);

    if (outcome == MacListAdd::Duplicate) {
        void *error = blobmsg_open_table(&s_bufMacIptv, "error");
        blobmsg_add_u32(&s_bufMacIptv, "code", MACFILTER_DUPLICATE_CODE);
        blobmsg_close_table(&s_bufMacIptv, error);
    }
    macAddBool(&s_bufMacIptv, "result", outcome == MacListAdd::Added);
    return UBUS_STATUS_OK;
}

int delMacFilterList(struct blob_attr *msg)
{
    MacFilterEntry entry{};
    struct blob_attr *tb[E_DELMACFILTERLIST_MAX];
    macParseArgs(delMacFilterListPolicy, E_DELMACFILTERLIST_MAX, tb, msg);

    static_assert(E_DELMACFILTERLIST_ENABLE == 0 && E_DELMACFILTERLIST_MODEL == 1 && E_DELMACFILTERLIST_MACLIST == 2);
    int model = 0;
    int outcome = macListArgsCheck(__func__, "E_DELMACFILTERLIST", tb, &model, &entry);
    if (outcome == 0)
        outcome = delMacFilterListHandler(model, &entry);
    macAddBool(&s_bufMacIptv, "result", outcome == 0);
    return UBUS_STATUS_OK;
}
