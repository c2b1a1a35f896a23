// The bus object RTPortMap: list, add and delete port mappings and group mappings. Every method builds its reply
// in s_bufPortMap and returns status 0; the outcome is in "result", with "error" { "code" } after a failed add check.
#include <stdio.h>

#include <type_traits>

extern "C" {
#include <libubox/blobmsg.h>
}

#include "busmethod.h"
#include "gwconf.h"
#include "natforward.h"
#include "routeutils/routeutils.h"
#include "routeutils/text.h"

namespace {

const struct blobmsg_policy s_modPortMappingPolicy[__E_MODPORTMAPPING_MAX] = {
    [E_MODPORTMAPPING_MAPLIST] = {.name = "MapList", .type = BLOBMSG_TYPE_ARRAY},
    [E_MODPORTMAPPING_OPERATION] = {.name = "Operation", .type = BLOBMSG_TYPE_INT32},
};
const struct blobmsg_policy s_portMapEntryPolicy[__E_MODPORTMAPPING_ENTRY_MAX] = {
    [E_MODPORTMAPPING_NAME] = {.name = "Name", .type = BLOBMSG_TYPE_STRING},
    [E_MODPORTMAPPING_PROTOCOL] = {.name = "Protocol", .type = BLOBMSG_TYPE_INT32},
    [E_MODPORTMAPPING_INTERNALIP] = {.name = "InternalIP", .type = BLOBMSG_TYPE_STRING},
    [E_MODPORTMAPPING_INTERNALPORT] = {.name = "InternalPort", .type = BLOBMSG_TYPE_INT32},
    [E_MODPORTMAPPING_EXTERNALPORT] = {.name = "ExternalPort", .type = BLOBMSG_TYPE_INT32},
    [E_MODPORTMAPPING_PMAPID] = {.name = "PmapID", .type = BLOBMSG_TYPE_INT32},
};
const struct blobmsg_policy s_modGroupMappingPolicy[__E_MODGROUPMAPPING_MAX] = {
    [E_MODGROUPMAPPING_MAPLIST] = {.name = "MapList", .type = BLOBMSG_TYPE_ARRAY},
    [E_MODGROUPMAPPING_OPERATION] = {.name = "Operation", .type = BLOBMSG_TYPE_INT32},
};
const struct blobmsg_policy s_groupMapEntryPolicy[__E_MODGROUPMAPPING_ENTRY_MAX] = {
    [E_MODGROUPMAPPING_NAME] = {.name = "Name", .type = BLOBMSG_TYPE_STRING},
    [E_MODGROUPMAPPING_PROTOCOL] = {.name = "Protocol", .type = BLOBMSG_TYPE_INT32},
    [E_MODGROUPMAPPING_INTERNALIP] = {.name = "InternalIP", .type = BLOBMSG_TYPE_STRING},
    [E_MODGROUPMAPPING_STARTPORT] = {.name = "StartPort", .type = BLOBMSG_TYPE_INT32},
    [E_MODGROUPMAPPING_STOPPORT] = {.name = "StopPort", .type = BLOBMSG_TYPE_INT32},
    [E_MODGROUPMAPPING_GMAPID] = {.name = "GmapID", .type = BLOBMSG_TYPE_INT32},
};

const struct ubus_method s_rtPortMapMethods[] = {
    UBUS_METHOD("modPortMapping", portMapMethod<NATFORWARD_modPortMapping>, s_modPortMappingPolicy),
    UBUS_METHOD_NOARG("getPortMapping", portMapMethod<NATFORWARD_getPortMapping>),
    UBUS_METHOD("modGroupMapping", portMapMethod<NATFORWARD_modGroupMapping>, s_modGroupMappingPolicy),
    UBUS_METHOD_NOARG("getGroupMapping", portMapMethod<NATFORWARD_getGroupMapping>),
};

struct ubus_object_type s_rtPortMapType = UBUS_OBJECT_TYPE("RTPortMap", s_rtPortMapMethods);

// Integer argument of an entry: absent (or of another type) reads as 0, and shows as -1 in the trace.
uint32_t entryU32(blob_attr *attr)
{
    return attr != nullptr ? blobmsg_get_u32(attr) : 0u;
}
int traceInt(blob_attr *attr)
{
    return attr != nullptr ? static_cast<int>(blobmsg_get_u32(attr)) : -1;
}
const char *traceText(blob_attr *attr)
{
    return attr != nullptr ? blobmsg_get_string(attr) : "";
}

// Parses one MapList entry into a zero-filled record. An entry that is not a table leaves the record zero.
void parseEntry(blob_attr *entry, PortMapConfig *rec, const char *fn)
{
    blob_attr *tb[__E_MODPORTMAPPING_ENTRY_MAX] = {};
    if (blobmsg_type(entry) == BLOBMSG_TYPE_TABLE)
        blobmsg_parse(s_portMapEntryPolicy, __E_MODPORTMAPPING_ENTRY_MAX, tb, blobmsg_data(entry),
                      static_cast<unsigned>(blobmsg_data_len(entry)));
    if (tb[E_MODPORTMAPPING_NAME] != nullptr)
        routeutils::copyCut(rec->Name, blobmsg_get_string(tb[E_MODPORTMAPPING_NAME]));
    if (tb[E_MODPORTMAPPING_INTERNALIP] != nullptr)
        routeutils::copyCut(rec->InternalIP, blobmsg_get_string(tb[E_MODPORTMAPPING_INTERNALIP]));
    rec->Protocol = entryU32(tb[E_MODPORTMAPPING_PROTOCOL]);
    rec->InternalPort = entryU32(tb[E_MODPORTMAPPING_INTERNALPORT]);
    rec->ExternalPort = entryU32(tb[E_MODPORTMAPPING_EXTERNALPORT]);
    rec->PmapID = entryU32(tb[E_MODPORTMAPPING_PMAPID]);
    log_info("[%s:%d]\n  portMapName[%s]  portMapIp[%s]  protocol[%d]  internalport[%d]  externalport[%d]  "
             "pmapID[%d] \n",
             fn, __LINE__, traceText(tb[E_MODPORTMAPPING_NAME]), traceText(tb[E_MODPORTMAPPING_INTERNALIP]),
             traceInt(tb[E_MODPORTMAPPING_PROTOCOL]), traceInt(tb[E_MODPORTMAPPING_INTERNALPORT]),
             traceInt(tb[E_MODPORTMAPPING_EXTERNALPORT]), static_cast<int>(rec->PmapID));
}

void parseEntry(blob_attr *entry, GroupMapConfig *rec, const char *fn)
{
    blob_attr *tb[__E_MODGROUPMAPPING_ENTRY_MAX] = {};
    if (blobmsg_type(entry) == BLOBMSG_TYPE_TABLE)
        blobmsg_parse(s_groupMapEntryPolicy, __E_MODGROUPMAPPING_ENTRY_MAX, tb, blobmsg_data(entry),
                      static_cast<unsigned>(blobmsg_data_len(entry)));
    if (tb[E_MODGROUPMAPPING_NAME] != nullptr)
        routeutils::copyCut(rec->Name, blobmsg_get_string(tb[E_MODGROUPMAPPING_NAME]));
    if (tb[E_MODGROUPMAPPING_INTERNALIP] != nullptr)
        routeutils::copyCut(rec->InternalIP, blobmsg_get_string(tb[E_MODGROUPMAPPING_INTERNALIP]));
    rec->Protocol = entryU32(tb[E_MODGROUPMAPPING_PROTOCOL]);
    rec->StartPort = entryU32(tb[E_MODGROUPMAPPING_STARTPORT]);
    rec->StopPort = entryU32(tb[E_MODGROUPMAPPING_STOPPORT]);
    rec->GmapID = entryU32(tb[E_MODGROUPMAPPING_GMAPID]);
    log_info("[%s:%d]\n  portMapName[%s]  portMapIp[%s]  protocol[%d]  startport[%d]  stopport[%d]  pmapID[%d] \n",
             fn, __LINE__, traceText(tb[E_MODGROUPMAPPING_NAME]), traceText(tb[E_MODGROUPMAPPING_INTERNALIP]),
             traceInt(tb[E_MODGROUPMAPPING_PROTOCOL]), traceInt(tb[E_MODGROUPMAPPING_STARTPORT]),
             traceInt(tb[E_MODGROUPMAPPING_STOPPORT]), static_cast<int>(rec->GmapID));
}

// The per-kind pieces of the two change methods and the two list methods.
template <class Rec> struct MethodKind;

template <> struct MethodKind<PortMapConfig> {
    static constexpr bool group = false;
    static constexpr const blobmsg_policy *policy = s_modPortMappingPolicy;
    static constexpr int nPolicy = __E_MODPORTMAPPING_MAX;
    static constexpr int mapList = E_MODPORTMAPPING_MAPLIST;
    static constexpr int operation = E_MODPORTMAPPING_OPERATION;
    static NatforwardCheck check(const PortMapConfig *r) { return NATFORWARD_portMapCheck(r); }
    static int add(PortMapConfig *r, int n) { return NATFORWARD_addPortMap(r, n); }
    static int del(const PortMapConfig *r, int n) { return NATFORWARD_delPortMap(r, n); }
    static void collect(PortMapConfig *r, int *n) { NATFORWARD_getPortMapConfigList(r, n); }
    static void addFields(blob_buf *b, const PortMapConfig &r)
    {
        blobmsg_add_string(b, "Name", r.Name);
        blobmsg_add_u32(b, "ExternalPort", r.ExternalPort);
        blobmsg_add_string(b, "InternalIP", r.InternalIP);
        blobmsg_add_u32(b, "InternalPort", r.InternalPort);
        blobmsg_add_u32(b, "Protocol", r.Protocol);
        blobmsg_add_u32(b, "PmapID", r.PmapID);
    }
};

template <> struct MethodKind<GroupMapConfig> {
    static constexpr bool group = true;
    static constexpr const blobmsg_policy *policy = s_modGroupMappingPolicy;
    static constexpr int nPolicy = __E_MODGROUPMAPPING_MAX;
    static constexpr int mapList = E_MODGROUPMAPPING_MAPLIST;
    static constexpr int operation = E_MODGROUPMAPPING_OPERATION;
    static NatforwardCheck check(const GroupMapConfig *r) { return NATFORWARD_groupMapCheck(r); }
    static int add(GroupMapConfig *r, int n) { return NATFORWARD_addGroupMap(r, n); }
    static int del(const GroupMapConfig *r, int n) { return NATFORWARD_delGroupMap(r, n); }
    static void collect(GroupMapConfig *r, int *n) { NATFORWARD_getGroupMapConfigList(r, n); }
    static void addFields(blob_buf *b, const GroupMapConfig &r)
    {
        blobmsg_add_string(b, "Name", r.Name);
        blobmsg_add_u32(b, "StartPort", r.StartPort);
        blobmsg_add_string(b, "InternalIP", r.InternalIP);
        blobmsg_add_u32(b, "StopPort", r.StopPort);
        blobmsg_add_u32(b, "Protocol", r.Protocol);
        blobmsg_add_u32(b, "GmapID", r.GmapID);
    }
};

// The reply: "result", with "error" { "code" } when a check refused an entry.
void addResult(bool done, NatforwardCheck refused)
{
    blobmsg_add_u8(&s_bufPortMap, "result", done ? 1 : 0);
    if (refused != NATFORWARD_CHECK_OK) {
        void *error = blobmsg_open_table(&s_bufPortMap, "error");
        blobmsg_add_u32(&s_bufPortMap, "code", static_cast<uint32_t>(refused));
        blobmsg_close_table(&s_bufPortMap, error);
    }
}

// Operation 1 adds the MapList entries when every one of them passes its check against the stored mappings;
// operation 0 deletes by ID; any other operation changes nothing. A MapList of more than 32 entries is refused.
template <class Rec> int modMappings(blob_attr *msg, const char *fn)
{
    using Kind = MethodKind<Rec>;
    blob_attr *tb[Kind::nPolicy] = {};
    if (msg != nullptr)
        blobmsg_parse(Kind::policy, Kind::nPolicy, tb, blob_data(msg), static_cast<unsigned>(blob_len(msg)));

    bool failed = false;                            // no operation, too many entries, or the write failed
    NatforwardCheck refused = NATFORWARD_CHECK_OK;  // a check refused an entry: nothing is written
    auto ret = [&failed] { return failed ? -1 : 0; };
    int operation = 0;
    if (tb[Kind::operation] == nullptr) {
        log_error("[%s:%d]\n operation is invaild \n", fn, __LINE__);
        failed = true;
    } else {
        operation = static_cast<int>(blobmsg_get_u32(tb[Kind::operation]));
    }
    if constexpr (Kind::group)
        log_info("[%s:%d] operation [%d]  ret[%d] ", fn, __LINE__, operation, ret());
    else
        log_info("[%s:%d]\n  operation [%d]  ret[%d] \n", fn, __LINE__, operation, ret());

    if (!failed) {
        if constexpr (Kind::group)
            log_info("[%s:%d] ret[%d] ", fn, __LINE__, ret());
        else
            log_info("[%s:%d]\n ret[%d] \n", fn, __LINE__, ret());
    }
    if (!failed && tb[Kind::mapList] != nullptr) {
        Rec records[NATFORWARD_MAX_MAPS] = {};
        int counted = 0;
        blob_attr *entry;
        size_t rem;
        blobmsg_for_each_attr(entry, tb[Kind::mapList], rem) {
            if (counted == NATFORWARD_MAX_MAPS) {
                log_error("[%s:%d]\n MapList holds more than %d entries \n", fn, __LINE__, NATFORWARD_MAX_MAPS);
                failed = true;
                break;
            }
            parseEntry(entry, &records[counted], fn);
            if (operation == 1) {
                refused = Kind::check(&records[counted]);
                const int code = refused;
                if constexpr (Kind::group)
                    log_info("[%s:%d]\n NATFORWARD_groupMapCheck [%d] \n", fn, __LINE__, code);
                else
                    log_info("[%s:%d]\n NATFORWARD_portMapCheck [%d] \n", fn, __LINE__, code);
                if (refused != NATFORWARD_CHECK_OK)
                    break;
            }
            counted++;
        }
        if constexpr (Kind::group)
            log_info("[%s:%d]\n i[%d] \n", fn, __LINE__, counted);
        else
            log_error("[%s:%d]\n i[%d] \n", fn, __LINE__, counted);

        if (!failed && refused == NATFORWARD_CHECK_OK) {
            if (operation == 0)
                failed = Kind::del(records, counted) != 0;
            else if (operation == 1)
                failed = Kind::add(records, counted) != 0;
        }
    }

    if constexpr (Kind::group)
        log_info("[%s:%d]\n modGroupMapping  end \n", fn, __LINE__);
    else
        log_info("[%s:%d]\n modPortMapping  end \n", fn, __LINE__);
    addResult(!failed && refused == NATFORWARD_CHECK_OK, refused);
    return UBUS_STATUS_OK;
}

// "params" { "List": [ newest first ] } when anything is stored, then "result" true.
template <class Rec> int getMappings(const char *fn)
{
    using Kind = MethodKind<Rec>;
    if constexpr (Kind::group)
        log_info("[%s:%d]getGroupMapping", fn, __LINE__);
    else
        puts("\n getPortMapping ");

    Rec records[NATFORWARD_MAX_MAPS] = {};
    int count = 0;
    Kind::collect(records, &count);
    if constexpr (Kind::group)
        log_info("[%s:%d]getGroupMapping cfgCount[%d] ", fn, __LINE__, count);

    if (count > 0) {
        void *params = blobmsg_open_table(&s_bufPortMap, "params");
        void *list = blobmsg_open_array(&s_bufPortMap, "List");
        for (int i = count - 1; i >= 0; i--) {
            void *item = blobmsg_open_table(&s_bufPortMap, nullptr);
            Kind::addFields(&s_bufPortMap, records[i]);
            blobmsg_close_table(&s_bufPortMap, item);
        }
        blobmsg_close_array(&s_bufPortMap, list);
        blobmsg_close_table(&s_bufPortMap, params);
    }
    blobmsg_add_u8(&s_bufPortMap, "result", 1);
    return UBUS_STATUS_OK;
}

} // namespace

struct ubus_object rtPortMapObject = {
    .name = "RTPortMap",
    .type = &s_rtPortMapType,
    .methods = s_rtPortMapMethods,
    .n_methods = ARRAY_SIZE(s_rtPortMapMethods),
};

NatforwardCheck NATFORWARD_portMapCheck(const PortMapConfig *rec)
{
    NatforwardCheck code = natforwardPortMapRangeCheck(rec);
    if (code != NATFORWARD_CHECK_OK)
        return code;
    PortMapConfig ports[NATFORWARD_MAX_MAPS] = {};
    int nPorts = 0;
    NATFORWARD_getPortMapConfigList(ports, &nPorts);
    code = natforwardPortMapClash(rec, ports, nPorts, nullptr, 0);
    if (code != NATFORWARD_CHECK_OK)
        return code;
    GroupMapConfig groups[NATFORWARD_MAX_MAPS] = {};
    int nGroups = 0;
    NATFORWARD_getGroupMapConfigList(groups, &nGroups);
    return natforwardPortMapClash(rec, nullptr, 0, groups, nGroups);
}

NatforwardCheck NATFORWARD_groupMapCheck(const GroupMapConfig *rec)
{
    NatforwardCheck code = natforwardGroupMapRangeCheck(rec);
    if (code != NATFORWARD_CHECK_OK)
        return code;
    PortMapConfig ports[NATFORWARD_MAX_MAPS] = {};
    int nPorts = 0;
    NATFORWARD_getPortMapConfigList(ports, &nPorts);
    code = natforwardGroupMapClash(rec, ports, nPorts, nullptr, 0);
    if (code != NATFORWARD_CHECK_OK)
        return code;
    GroupMapConfig groups[NATFORWARD_MAX_MAPS] = {};
    int nGroups = 0;
    NATFORWARD_getGroupMapConfigList(groups, &nGroups);
    return natforwardGroupMapClash(rec, nullptr, 0, groups, nGroups);
}

int NATFORWARD_modPortMapping(struct blob_attr *msg)
{
    return modMappings<PortMapConfig>(msg, __func__);
}

int NATFORWARD_getPortMapping(struct blob_attr *)
{
    return getMappings<PortMapConfig>(__func__);
}

int NATFORWARD_modGroupMapping(struct blob_attr *msg)
{
    return modMappings<GroupMapConfig>(msg, __func__);
}

int NATFORWARD_getGroupMapping(struct blob_attr *)
{
    return getMappings<GroupMapConfig>(__func__);
}
