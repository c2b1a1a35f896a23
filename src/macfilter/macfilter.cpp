// The MAC filter's state and its rules. Package macFilter holds the state (main/enabled, main/curmode) and the two
// lists (blacklist/deny, whitelist/allow); the list in force is applied as one firewall "rule" section per device
// plus an ebtables and an ip6tables FORWARD rule per device. While the white list is in force a catch-all rule
// section "denyall" stands after the device sections, and the chains hold an eth1 accept rule on top and a final
// DROP (bridge) / REJECT (IPv6) rule.
#include "macfilter.h"

#include <stdio.h>
#include <string.h>

#include "gwconf.h"
#include "routeutils/routeutils.h"
#include "routeutils/uci_session.h"
#include "uciconfig.h"

using routeutils::copyCut;

namespace {

struct ListOfModel {
    const char *section;
    const char *option;
    const char *path;
    const char *target;
};

const ListOfModel kBlackList = {"blacklist", "deny", "macFilter.blacklist.deny", "DROP"};
const ListOfModel kWhiteList = {"whitelist", "allow", "macFilter.whitelist.allow", "ACCEPT"};

const char *curmodeOf(int model)
{
    return model == MACFILTER_MODEL_BLACK ? "deny" : model == MACFILTER_MODEL_WHITE ? "allow" : "no";
}

} // namespace

void macFilterInsertRules(int model, const char *mac)
{
    if (model == MACFILTER_MODEL_BLACK) {
        LC_SystemCall("ebtables -I FORWARD 1 -s %s -j DROP", mac);
        LC_SystemCall("ip6tables -I FORWARD -m mac --mac-source %s -j DROP", mac);
    } else {
        LC_SystemCall("ebtables -I FORWARD -s %s -j ACCEPT", mac);
        LC_SystemCall("ip6tables -I FORWARD -m mac --mac-source %s -j ACCEPT", mac);
    }
}

void macFilterDeleteRules(int model, const char *mac)
{
    if (model == MACFILTER_MODEL_BLACK) {
        LC_SystemCall("ebtables -D FORWARD -s %s -j DROP", mac);
        LC_SystemCall("ip6tables -D FORWARD -m mac --mac-source %s -j DROP", mac);
    } else {
        LC_SystemCall("ebtables -D FORWARD -s %s -j ACCEPT", mac);
        LC_SystemCall("ip6tables -D FORWARD -m mac --mac-source %s -j ACCEPT", mac);
    }
}

int addMacFilterRuleSection(const char *name, const char *mac, const char *target)
{
    static const char options[6][16] = {"name", "src", "proto", "src_mac", "dest", "target"};
    char values[6][64] = {};
    copyCut(values[0], name);
    copyCut(values[1], "lan");
    copyCut(values[2], "all");
    copyCut(values[3], mac);
    copyCut(values[4], "wan");
    copyCut(values[5], target);
    return uciAddNewSection(UCI_FIREWALL_FILE, "rule", options, values, 6);
}

int addDenyAllRuleSection(void)
{
    // An empty src_mac is not stored, so the catch-all matches every device of the LAN.
    return addMacFilterRuleSection("denyall", "", "DROP");
}

void addWhitelistDefaultRules(void)
{
    LC_SystemCall("ip6tables -I FORWARD -i eth1 -j ACCEPT");
    LC_SystemCall("ip6tables -A FORWARD -j REJECT");
    LC_SystemCall("ebtables -I FORWARD -i eth1 -j ACCEPT");
    LC_SystemCall("ebtables -A FORWARD -j DROP");
}

void delWhitelistDefaultRules(void)
{
    LC_SystemCall("ip6tables -D FORWARD -i eth1 -j ACCEPT");
    LC_SystemCall("ip6tables -D FORWARD -j REJECT");
    LC_SystemCall("ebtables -D FORWARD -i eth1 -j ACCEPT");
    LC_SystemCall("ebtables -D FORWARD -j DROP");
}

void addFirewallRuleByMacFilterConfig(int model)
{
    const ListOfModel *list;
    if (model == MACFILTER_MODEL_BLACK) {
        log_info("[%s:%d]add all rules of blacklist", __func__, __LINE__);
        list = &kBlackList;
    } else if (model == MACFILTER_MODEL_WHITE) {
        log_info("[%s:%d]add all rules of whitelist", __func__, __LINE__);
        list = &kWhiteList;
    } else {
        log_error("[%s:%d]deleteFirewallRuleByMacFilterConfig mode is ERROR", __func__, __LINE__);
        return;
    }

    MacFilterEntry entries[MACFILTER_MAX_ENTRIES] = {};
    int count = macFilterListRead(__func__, list->path, entries);
    for (int i = 0; i < count; ++i) {
        if (!macEntryUsable(&entries[i])) {
            log_error("[%s:%d]macList is error", __func__, __LINE__);
            continue;
        }
        if (addMacFilterRuleSection(entries[i].name, entries[i].mac, list->target) != 0) {
            log_error("[%s:%d]uciAddNewSection UCI_FIREWALL_FILE rule ERROR", __func__, __LINE__);
            return;
        }
        macFilterInsertRules(model, entries[i].mac);
    }

    if (model == MACFILTER_MODEL_WHITE) {
        if (addDenyAllRuleSection() != 0) {
            log_error("[%s:%d]uciAddNewSection UCI_FIREWALL_FILE rule ERROR", __func__, __LINE__);
            return;
        }
        addWhitelistDefaultRules();
    }
}

void deleteFirewallRuleByMacFilterConfig(int model)
{
    const ListOfModel *list;
    if (model == MACFILTER_MODEL_BLACK) {
        log_info("[%s:%d]delete all rules of blacklist", __func__, __LINE__);
        list = &kBlackList;
    } else if (model == MACFILTER_MODEL_WHITE) {
        log_info("[%s:%d]delete all rules of whitelist", __func__, __LINE__);
        list = &kWhiteList;
        if (deleteFirewallRuleByMacAndName("", "denyall") != 0) {
            log_error("[%s:%d]deleteFirewallRuleByMacAndName * denyall ERROR", __func__, __LINE__);
            return;
        }
        delWhitelistDefaultRules();
    } else {
        log_error("[%s:%d]deleteFirewallRuleByMacFilterConfig mode is ERROR", __func__, __LINE__);
        return;
    }

    MacFilterEntry entries[MACFILTER_MAX_ENTRIES] = {};
    int count = macFilterListRead(__func__, list->path, entries);
    for (int i = 0; i < count; ++i) {
        if (!macEntryUsable(&entries[i])) {
            log_error("[%s:%d]macList is error", __func__, __LINE__);
            continue;
        }
        if (deleteFirewallRuleByMacAndName(entries[i].mac, entries[i].name) != 0) {
            log_error("[%s:%d]deleteFirewallRuleByMacAndName %s %s ERROR", __func__, __LINE__, entries[i].mac,
                      entries[i].name);
            return;
        }
        macFilterDeleteRules(model, entries[i].mac);
    }
}

int deleteFirewallRuleByMacAndName(const char *mac, const char *name)
{
    if (!mac || !name) {
        log_error("[%s:%d]name is null", __func__, __LINE__);
        return -1;
    }
    routeutils::UciSession session;
    if (session.open(__func__, UCI_FIREWALL_FILE) != 0)
        return -1;
    struct uci_context *ctx = session.ctx();
    struct uci_package *pkg = session.pkg();

    // Copies of the matching section's name and values: deleting the section frees the originals.
    char secName[64] = {};
    char secMac[64] = {};
    char secRuleName[64] = {};
    bool found = false;
    struct uci_element *e;
    uci_foreach_element(&pkg->sections, e)
    {
        struct uci_section *s = uci_to_section(e);
        if (!s->type || strcmp(s->type, "rule") != 0)
            continue;
        const char *sMac = "";
        const char *sName = "";
        if (mac[0] != '\0') {
            sMac = uci_lookup_option_string(ctx, s, "src_mac");
            if (!sMac)
                continue;
        }
        if (name[0] != '\0') {
            sName = uci_lookup_option_string(ctx, s, "name");
            if (!sName)
                continue;
        }
        log_info("[%s:%d]mac1:%s, mac2:%s-----name1:%s, name2:%s", __func__, __LINE__, mac, sMac, name, sName);
        if (strcmp(mac, sMac) == 0 && strcmp(name, sName) == 0) {
            copyCut(secName, e->name);
            copyCut(secMac, sMac);
            copyCut(secRuleName, sName);
            found = true;
            break;
        }
    }

    int result = 0;
    if (found) {
        if (uciDeleteSection(ctx, pkg, UCI_FIREWALL_FILE, secName) != 0) {
            log_error("[%s:%d]can't delete(%s, %s)", __func__, __LINE__, secMac, secRuleName);
            result = -1;
        } else {
            const routeutils::UciWriteResult w = session.saveThenCommit();
            if (w.failed == routeutils::UciWriteResult::Step::Save) {
                log_error("[%s:%d]error uci_save(%s)", __func__, __LINE__, mac);
                result = -1;
            } else if (w.failed == routeutils::UciWriteResult::Step::Commit) {
                log_error("[%s:%d]error uci_commit(%s)", __func__, __LINE__, mac);
                result = -1;
            }
        }
    }
    // Nothing uncommitted may survive in the save directory; the session unloads what is left.
    session.revert();
    return result;
}

int setMacFilterHandler(int enable, int model)
{
    if ((enable != 0 && enable != 1) || (model != MACFILTER_MODEL_BLACK && model != MACFILTER_MODEL_WHITE)) {
        log_error("[%s:%d]setMacFilterHandler param not in area", __func__, __LINE__);
        return -1;
    }
    if (enable == 0)
        model = MACFILTER_MODEL_OFF;

    char enabled[MACFILTER_OPTION_LEN + 1] = {};
    if (uciGetConfig(UCI_MACFILTER_FILE, "main", "enabled", enabled, MACFILTER_OPTION_LEN) != 0) {
        log_error("[%s:%d]uciGetConfig macFilter main enable ERROR", __func__, __LINE__);
        return -1;
    }
    int oldEnable = strncmp(enabled, "1", MACFILTER_OPTION_LEN) == 0 ? 1 : 0;
    log_info("[%s:%d]macFilter oldEnable:%s", __func__, __LINE__, enabled);

    char curmode[MACFILTER_OPTION_LEN + 1] = {};
    if (uciGetConfig(UCI_MACFILTER_FILE, "main", "curmode", curmode, MACFILTER_OPTION_LEN) != 0) {
        log_error("[%s:%d]uciGetConfig macFilter main curmodel ERROR", __func__, __LINE__);
        return -1;
    }
    int oldModel = macFilterModelOf(curmode);
    log_info("[%s:%d]macFilter oldmodel:%s", __func__, __LINE__, curmode);

    if (model == oldModel && enable == oldEnable) {
        log_error("[%s:%d]this config is unchanged", __func__, __LINE__);
        return -1;
    }
    if (model != oldModel && uciSetConfig(UCI_MACFILTER_FILE, "main", "curmode", curmodeOf(model)) != 0) {
        log_error("[%s:%d]uciSetConfig UCI_MACFILTER_FILE main curmode ERROR", __func__, __LINE__);
        return -1;
    }
    if (enable != oldEnable) {
        if (enable == 0 && uciSetConfig(UCI_MACFILTER_FILE, "main", "curmode", "no") != 0) {
            log_error("[%s:%d]uciSetConfig UCI_MACFILTER_FILE main curmode ERROR", __func__, __LINE__);
            return -1;
        }
        if (uciSetConfig(UCI_MACFILTER_FILE, "main", "enabled", enable ? "1" : "0") != 0) {
            log_error("[%s:%d]uciSetConfig UCI_MACFILTER_FILE main enabled ERROR", __func__, __LINE__);
            return -1;
        }
    }

    if (oldEnable && !enable) {
        deleteFirewallRuleByMacFilterConfig(oldModel);
    } else if (oldEnable && enable) {
        deleteFirewallRuleByMacFilterConfig(oldModel);
        addFirewallRuleByMacFilterConfig(model);
    } else if (!oldEnable && enable) {
        addFirewallRuleByMacFilterConfig(model);
    } else {
        // Off to off: curmode still named a list while the filter was off.
        deleteFirewallRuleByMacFilterConfig(oldModel);
        addFirewallRuleByMacFilterConfig(MACFILTER_MODEL_OFF);
    }
    LC_SystemCall("/etc/init.d/firewall reload");
    return 0;
}

void macFilterInit(void)
{
    char enabled[MACFILTER_OPTION_LEN + 1] = {};
    if (uciGetConfig(UCI_MACFILTER_FILE, "main", "enabled", enabled, MACFILTER_OPTION_LEN) != 0) {
        log_error("[%s:%d]uciGetConfig UCI_MACFILTER_FILE main enabled ERROR", __func__, __LINE__);
        enabled[0] = '\0';
    }
    log_info("[%s:%d]macFilter enable:%s", __func__, __LINE__, enabled);
    if (strncmp(enabled, "1", MACFILTER_OPTION_LEN) != 0)
        return;

    char curmode[MACFILTER_OPTION_LEN + 1] = {};
    const char *path = "";
    int model = MACFILTER_MODEL_OFF;
    if (uciGetConfig(UCI_MACFILTER_FILE, "main", "curmode", curmode, MACFILTER_OPTION_LEN) == 0) {
        log_info("[%s:%d]macFilter curmodel:%s", __func__, __LINE__, curmode);
        model = macFilterModelOf(curmode);
        if (model == MACFILTER_MODEL_OFF)
            return;
        path = model == MACFILTER_MODEL_BLACK ? kBlackList.path : kWhiteList.path;
    }

    MacFilterEntry entries[MACFILTER_MAX_ENTRIES] = {};
    int count = macFilterListRead(__func__, path, entries);
    for (int i = 0; i < count; ++i) {
        if (!macEntryUsable(&entries[i])) {
            log_error("[%s:%d]macList is error", __func__, __LINE__);
            continue;
        }
        macFilterInsertRules(model, entries[i].mac);
    }
    if (model == MACFILTER_MODEL_WHITE)
        addWhitelistDefaultRules();
}
