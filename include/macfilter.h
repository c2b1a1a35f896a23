// The MAC filter (black list / white list of client devices), its bus objects RTMacFilter and zelmad.macfilter,
// the station-name calls to RTSta, and the per-device Internet block of the object "firewall".
//
// MAC texts come in two forms: the colon form of 17 characters (AA:BB:CC:DD:EE:FF) used by RTMacFilter, firewall
// and the configuration, and the bare form of 12 characters (AABBCCDDEEFF) used by the agent object.
#pragma once

#include <stddef.h>
#include <string.h>

#include <libubus.h>

#include "routeutils/text.h"

// Argument policy indexes.
enum { E_SETMACFILTER_ENABLE, E_SETMACFILTER_MODEL, E_SETMACFILTER_MAX };
enum { E_ADDMACFILTERLIST_ENABLE, E_ADDMACFILTERLIST_MODEL, E_ADDMACFILTERLIST_MACLIST, E_ADDMACFILTERLIST_MAX };
enum { E_DELMACFILTERLIST_ENABLE, E_DELMACFILTERLIST_MODEL, E_DELMACFILTERLIST_MACLIST, E_DELMACFILTERLIST_MAX };
enum { E_MACFILTERLIST_NAME, E_MACFILTERLIST_MAC, E_MACFILTERLIST_MAX };                 // one macList table
enum { E_ZELMAD_FILTER_ENABLE, E_ZELMAD_FILTER_POLICY, E_ZELMAD_FILTER_ENTRIES, E_ZELMAD_FILTER_MAX };
enum { E_FORBIDNET_ENABLE, E_FORBIDNET_MAC, E_FORBIDNET_MAX };
enum { E_GETSTALISTPARAM_PARAMS, E_GETSTALISTPARAM_MAX };                               // RTSta reply
enum { E_GETSTALIST_DEVNAME, E_GETSTALIST_MAX };                                        // its "params" table

// Sizes and limits.
#define MAC_COLON_LEN 17           // AA:BB:CC:DD:EE:FF
#define MAC_BARE_LEN 12            // AABBCCDDEEFF
#define MACFILTER_NAME_LEN 44      // longest device name kept
#define MACFILTER_MAX_ENTRIES 32   // entries per list
#define MACFILTER_ENTRY_LEN 63     // one list entry "MAC/name", one token of a list
#define MACFILTER_OPTION_LEN 7     // single option texts (enabled, curmode)
#define MACFILTER_LIST_LEN 2047    // a whole list, joined by blanks
#define STA_NAME_LEN 63            // a name from RTSta
#define MACFILTER_DUPLICATE_CODE 713469952 // 0x2A86B000: the device is already in the list

// Filter models: 0 off, 1 black list ("deny"), 2 white list ("allow").
enum { MACFILTER_MODEL_OFF = 0, MACFILTER_MODEL_BLACK = 1, MACFILTER_MODEL_WHITE = 2 };

// One parsed list entry; also the argument record of addMacFilterList and delMacFilterList.
struct MacFilterEntry {
    char mac[MAC_COLON_LEN + 1];
    char name[MACFILTER_NAME_LEN + 1];
};

// --- MAC text ---------------------------------------------------------------------------------------------------
// 0 when text is a 17-character colon form (any case), else -1 with the reason logged.
int macValidCheck(const char *text, int length);
// Upper-cases a 17-character text in place; -1 (silently) for a null text or any other length.
int macToUpper(char *text);
// Colon form to bare form in place; -1 when the text is not 17 characters long.
int macDelColon(char *text);
// Bare form (12 characters) to colon form in place; the field must hold at least 18 bytes. Other lengths are
// logged and left unchanged.
void macAddColon(char *text);

// --- Lists ------------------------------------------------------------------------------------------------------
// Splits text in place at any of the characters of delims, like strtok (runs of delimiters count as one, empty
// pieces vanish), storing at most max pieces. Returns the number stored.
int macListSplit(char *text, const char *delims, char *pieces[], int max);
// Splits one list piece into entry: the first macLen characters are the MAC, the character after them (the '/')
// is skipped unexamined, the rest (at most 44 characters) is the name. The piece is first cut to 63 characters.
void macEntrySplit(const char *piece, size_t macLen, MacFilterEntry *entry);
// True when the entry has a MAC and a name and its MAC has 17 characters (it is upper-cased on the way).
bool macEntryUsable(MacFilterEntry *entry);
// Reads a stored list ("macFilter.blacklist.deny" or "macFilter.whitelist.allow") into list, logging under the
// caller's function name; returns the number of pieces (at most 32), 0 when the list is empty or unreadable.
int macFilterListRead(const char *func, const char *path, MacFilterEntry list[MACFILTER_MAX_ENTRIES]);
// The list value of an entry: "MAC/name", cut to 63 characters.
void macEntryLine(char (&line)[MACFILTER_ENTRY_LEN + 1], const MacFilterEntry &entry);
// The model a curmode text stands for: "deny" 1, "allow" 2, anything else 0.
int macFilterModelOf(const char *curmode);

// --- Rules and state --------------------------------------------------------------------------------------------
void addFirewallRuleByMacFilterConfig(int model);
void deleteFirewallRuleByMacFilterConfig(int model);
int deleteFirewallRuleByMacAndName(const char *mac, const char *name);
// The rule section of one list entry (target "DROP" or "ACCEPT"), and the white list's catch-all "denyall".
int addMacFilterRuleSection(const char *name, const char *mac, const char *target);
int addDenyAllRuleSection(void);
// The ebtables and ip6tables FORWARD rules of one entry: DROP for model 1, ACCEPT for model 2.
void macFilterInsertRules(int model, const char *mac);
void macFilterDeleteRules(int model, const char *mac);
void addWhitelistDefaultRules(void);
void delWhitelistDefaultRules(void);
int setMacFilterHandler(int enable, int model);
// macFilterInit is declared in gwconf.h.

// --- RTMacFilter ------------------------------------------------------------------------------------------------
int getMacFilterListHandler(void);
// What adding one device to a list came to (the numbers are those the handler has always given).
enum class MacListAdd { Added = 0, Duplicate = 1, Failed = -1 };
MacListAdd addMacFilterListHandler(int model, MacFilterEntry *entry);
int delMacFilterListHandler(int model, MacFilterEntry *entry);
// The methods' logic (busmethod.h): each builds its reply in s_bufMacIptv.
int getMacFilterList(struct blob_attr *msg);
int setMacFilter(struct blob_attr *msg);
int addMacFilterList(struct blob_attr *msg);
int delMacFilterList(struct blob_attr *msg);

// --- zelmad.macfilter and RTSta ---------------------------------------------------------------------------------
extern char s_staListDevName[STA_NAME_LEN + 1]; // the name RTSta gave; empty between uses
void zelmadGetMacFilterListHandler(void);
int zelmad_handle_get_macfilter(struct blob_attr *msg);
int zelmad_handle_set_macfilter(struct blob_attr *msg);
int setStaNameToStaList(const char *mac, const char *name);
int getStaNameFromStaList(const char *mac);
void ubusGetStaNameFromStaListHandler(struct ubus_request *req, int type, struct blob_attr *msg);

// --- firewall (device block) ------------------------------------------------------------------------------------
int setForbiddNetHandler(int enable, const char *mac);
int setForbiddNet(struct blob_attr *msg);
