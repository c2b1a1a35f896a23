// Port and group mappings in package firewall. Each mapping is two unnamed "redirect" sections, identical but for
// "src": the primary one with src "wan", then one with src "lan". Port mappings carry "PmapID" and single ports,
// group mappings carry "GmapID" and the range text "start-stop". Both kinds share the walk, the ID allocation, the
// add and the delete below; only their messages and the per-record options differ.
#include <stdlib.h>

#include <memory>

#include "gwconf.h"
#include "natforward.h"
#include "routeutils/routeutils.h"
#include "routeutils/text.h"
#include "routeutils/uci_session.h"
#include "uciconfig.h"

namespace {

using routeutils::UciSession;
using routeutils::UciWriteResult;

constexpr const char *kRedirect = "redirect";

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};
template <class Rec> using RecordPtr = std::unique_ptr<Rec, FreeDeleter>;

// The records of a list being loaded, chained through their next field; freed together.
template <class Rec> class RecordChain {
public:
    RecordChain() = default;
    RecordChain(const RecordChain &) = delete;
    RecordChain &operator=(const RecordChain &) = delete;
    ~RecordChain()
    {
        while (head_ != nullptr) {
            Rec *next = head_->next;
            free(head_);
            head_ = next;
        }
    }
    void append(Rec *rec)
    {
        rec->next = nullptr;
        if (tail_ == nullptr)
            head_ = rec;
        else
            tail_->next = rec;
        tail_ = rec;
    }

private:
    Rec *head_ = nullptr;
    Rec *tail_ = nullptr;
};

bool isRedirect(const uci_section *sec)
{
    return sec->type != nullptr && strcmp(sec->type, kRedirect) == 0;
}

bool srcIsWan(uci_context *ctx, uci_section *sec)
{
    char src[16] = {0};
    return uciGetString(ctx, sec, "src", src, sizeof src) == 0 && strcmp(src, "wan") == 0;
}

// What tells the two kinds apart.
template <class Rec> struct MapKind;

template <> struct MapKind<PortMapConfig> {
    static constexpr bool group = false;
    static constexpr const char *idOption = "PmapID";
    static uint32_t id(const PortMapConfig &r) { return r.PmapID; }
    static void setId(PortMapConfig &r, uint32_t id) { r.PmapID = id; }
    static PortMapConfig *load(uci_context *ctx, uci_package *pkg, uci_section *sec)
    {
        return NATFORWARD_loadPortMapConfig(ctx, pkg, sec);
    }
    static int writeList(uci_context *ctx, uci_package *pkg, const PortMapConfig *r, int n, const char *zone)
    {
        return NATFORWARD_addPortMapList(ctx, pkg, r, n, zone);
    }
};

template <> struct MapKind<GroupMapConfig> {
    static constexpr bool group = true;
    static constexpr const char *idOption = "GmapID";
    static uint32_t id(const GroupMapConfig &r) { return r.GmapID; }
    static void setId(GroupMapConfig &r, uint32_t id) { r.GmapID = id; }
    static GroupMapConfig *load(uci_context *ctx, uci_package *pkg, uci_section *sec)
    {
        return NATFORWARD_loadGroupMapConfig(ctx, pkg, sec);
    }
    static int writeList(uci_context *ctx, uci_package *pkg, const GroupMapConfig *r, int n, const char *zone)
    {
        return NATFORWARD_addGroupMapList(ctx, pkg, r, n, zone);
    }
};

// Reads list "proto" of a section into a protocol number. With trace, each of the first two values is logged.
uint32_t readProtocol(uci_context *ctx, uci_section *sec, const char *fn, bool trace)
{
    uci_element *e = nullptr;
    if (uci_lookup_next(ctx, &e, &sec->options, "proto") != UCI_OK || e == nullptr)
        return NATFORWARD_PROTO_BOTH;
    uci_option *opt = uci_to_option(e);
    if (opt->type != UCI_TYPE_LIST)
        return NATFORWARD_PROTO_BOTH;

    char first[8] = {0};
    int nValues = 0;
    uci_element *v;
    uci_foreach_element(&opt->v.list, v) {
        if (trace)
            log_error("[%s:%d][%s][%d] value: %s\n", fn, __LINE__, "NatForward", __LINE__, v->name);
        if (nValues == 0)
            routeutils::copyCut(first, v->name);
        if (++nValues == 2)
            break; // a second value is all it takes to mean both protocols
    }
    if (nValues == 1)
        log_error("[%s:%d]protocol[0] [%s]", fn, __LINE__, first);
    return natforwardProtocolFromList(nValues, first);
}

// Writes one section per record with the given source zone; IDs count up from the first record's.
template <class Rec>
int writeSections(uci_context *ctx, uci_package *pkg, const Rec *records, int n, const char *srcZone, const char *fn)
{
    using Kind = MapKind<Rec>;
    if (ctx == nullptr || pkg == nullptr || records == nullptr || srcZone == nullptr) {
        log_error("[%s:%d]ctx is null or pkg is null or sec is null or config is null", fn, __LINE__);
        return -1;
    }
    log_info("[%s:%d] size [%d] \n", fn, __LINE__, n);
    for (int i = 0; i < n; i++) {
        const Rec &rec = records[i];
        const uint32_t id = Kind::id(records[0]) + static_cast<uint32_t>(i);

        uci_section *sec = nullptr;
        if (uci_add_section(ctx, pkg, kRedirect, &sec) != UCI_OK || sec == nullptr) {
            log_error("[%s:%d]error uci_add_section(%s)", fn, __LINE__, kRedirect);
            return -1;
        }
        if (uciSetString(ctx, pkg, sec, "name", rec.Name) != 0) {
            log_error("[%s:%d]error Name(%d)", fn, __LINE__, static_cast<int>(id));
            return -1;
        }
        if (uciSetUint32(ctx, pkg, sec, Kind::idOption, id) != 0) {
            log_error("[%s:%d]error set PmapID(%d)", fn, __LINE__, static_cast<int>(id));
            return -1;
        }
        log_info("[%s:%d]sec->e.name [%s] \n", fn, __LINE__, sec->e.name);

        const char *proto = natforwardProtocolValue(rec.Protocol);
        if (proto != nullptr && publicUciAddList(ctx, UCI_FIREWALL_FILE, sec->e.name, "proto", proto) != 0) {
            log_error("[%s:%d]error set Protocol(%d)", fn, __LINE__, static_cast<int>(rec.Protocol));
            return -1;
        }

        if constexpr (Kind::group) {
            char range[16];
            natforwardFormatRange(rec.StartPort, rec.StopPort, range);
            log_error("[%s:%d]set Protocol(%s)", fn, __LINE__, range);
            if (uciSetString(ctx, pkg, sec, "src_dport", range) != 0) {
                log_error("[%s:%d]error set NAT_PORT_FORWARD_SRC_DPORT(%s)", fn, __LINE__, range);
                return -1;
            }
            if (uciSetString(ctx, pkg, sec, "dest_port", range) != 0) {
                log_error("[%s:%d]error set NAT_PORT_FORWARD_DEST_PORT(%s)", fn, __LINE__, range);
                return -1;
            }
        } else {
            if (uciSetUint32(ctx, pkg, sec, "src_dport", rec.ExternalPort) != 0) {
                log_error("[%s:%d]error set ExternalPort(%d)", fn, __LINE__, static_cast<int>(rec.ExternalPort));
                return -1;
            }
            if (uciSetUint32(ctx, pkg, sec, "dest_port", rec.InternalPort) != 0) {
                log_error("[%s:%d]error set InternalPort(%d)", fn, __LINE__, static_cast<int>(rec.InternalPort));
                return -1;
            }
        }

        if (uciSetString(ctx, pkg, sec, "dest_ip", rec.InternalIP) != 0) {
            log_error("[%s:%d]error set InternalIP(%s)", fn, __LINE__, rec.InternalIP);
            return -1;
        }
        const char *const fixed[][2] = {{"target", "DNAT"}, {"dest", "lan"}, {"src", srcZone}};
        for (const auto &opt : fixed) {
            if (uciSetString(ctx, pkg, sec, opt[0], opt[1]) != 0) {
                log_error("[%s:%d]error set (%s)", fn, __LINE__, opt[0]);
                return -1;
            }
        }
    }
    return 0;
}

// The whole add: IDs after the highest stored one, the limit, the "wan" pass then the "lan" pass, commit, save and
// firewall reload. Nothing is written when the limit would be passed or a section cannot be written.
template <class Rec> int addMaps(Rec *records, int n, const char *fn)
{
    using Kind = MapKind<Rec>;
    UciSession s;
    if constexpr (Kind::group)
        log_info("[%s:%d]\n addGroupMap  size [%d]\n", fn, __LINE__, n);
    else
        log_info("[%s:%d] addPortMap  size [%d] ", fn, __LINE__, n);
    if (!s.ready(fn))
        return -1;

    int ret = -1;
    if (s.open(fn, UCI_FIREWALL_FILE) == 0) {
        int count = 0;
        const uint32_t maxId = NATFORWARD_getMaxIdAndCountBySection(s.ctx(), s.pkg(), Kind::idOption, &count);
        if (n < 0 || count + n > NATFORWARD_MAX_MAPS) {
            if constexpr (Kind::group)
                log_error("[%s:%d]addGroupMap  more  than  max", fn, __LINE__);
            else
                log_error("[%s:%d]addPortMap  more  than  max", fn, __LINE__);
        } else {
            if constexpr (Kind::group)
                log_info("[%s:%d]\n maxId [%d]  count[%d] \n", fn, __LINE__, static_cast<int>(maxId), count);
            else
                log_info("[%s:%d] maxId [%d]  count[%d] ", fn, __LINE__, static_cast<int>(maxId), count);
            if (n > 0)
                Kind::setId(records[0], maxId + 1);
            if (Kind::writeList(s.ctx(), s.pkg(), records, n, "wan") != 0 ||
                Kind::writeList(s.ctx(), s.pkg(), records, n, "lan") != 0) {
                if constexpr (Kind::group)
                    log_error("[%s:%d]error addGroupMapList", fn, __LINE__);
                else
                    log_error("[%s:%d]error addPortMapList", fn, __LINE__);
            } else {
                // Once the sections are written the add counts as done; a failed commit or save only skips the
                // reload.
                ret = 0;
                const UciWriteResult w = s.commitThenSave();
                if (w.failed == UciWriteResult::Step::Commit) {
                    log_error("[%s:%d]error uci_commit", fn, __LINE__);
                    s.forgetPackage();
                } else if (w.failed == UciWriteResult::Step::Save) {
                    log_error("[%s:%d]error uci_save", fn, __LINE__);
                } else {
                    NATFORWARD_firewallReload();
                }
            }
        }
    }
    if (ret != 0)
        s.revert();
    if constexpr (!Kind::group)
        log_info("[%s:%d] ret [%d]  NATFORWARD_addPortMap end ", fn, __LINE__, ret);
    return ret;
}

// Copies the stored mappings (primary sections only, in package order) into a 32-record array. A section that
// does not load ends the list there; sections past the 32nd are not listed.
template <class Rec> void collectList(Rec *records, int *count, const char *fn)
{
    using Kind = MapKind<Rec>;
    UciSession s;
    if (!s.ready(fn))
        return;
    if (s.load(UCI_FIREWALL_FILE) != UCI_OK || s.pkg() == nullptr) {
        log_error("[%s:%d]can't load(%s)", fn, __LINE__, UCI_FIREWALL_FILE);
        return;
    }

    RecordChain<Rec> chain;
    int n = 0;
    uci_element *e;
    uci_foreach_element(&s.pkg()->sections, e) {
        uci_section *sec = uci_to_section(e);
        uint32_t id = 0;
        if (!isRedirect(sec) || uciGetUint32(s.ctx(), sec, Kind::idOption, &id) != 0 || !srcIsWan(s.ctx(), sec))
            continue;
        if (n == NATFORWARD_MAX_MAPS) {
            log_error("[%s:%d]more than %d mappings stored, the rest is not listed", fn, __LINE__,
                      NATFORWARD_MAX_MAPS);
            break;
        }
        Rec *rec = Kind::load(s.ctx(), s.pkg(), sec);
        if (rec == nullptr)
            break;
        chain.append(rec);
        if (records != nullptr) {
            records[n] = *rec;
            records[n].next = nullptr;
        }
        n++;
    }
    if (count != nullptr)
        *count = n;
}

// Deletes every redirect section whose ID option equals the ID of one of the records, "wan" and "lan" alike.
// Writes and reloads only when something was deleted; fails only when no context can be had.
template <class Rec> int deleteMaps(const Rec *records, int n, const char *fn)
{
    using Kind = MapKind<Rec>;
    UciSession s;
    if (!s.ready(fn))
        return -1;
    if (s.open(fn, UCI_FIREWALL_FILE) != 0)
        return 0;
    if (records == nullptr)
        n = 0;

    int deleted = 0;
    uint32_t lastId = 0;
    uci_element *e, *tmp;
    uci_foreach_element_safe(&s.pkg()->sections, tmp, e) {
        uci_section *sec = uci_to_section(e);
        if (!isRedirect(sec))
            continue;
        if constexpr (!Kind::group)
            log_error("[%s:%d]NAT_PORT_FORWARD_UCITYPE [%s] ", fn, __LINE__, kRedirect);
        uint32_t oid = 0;
        if (uciGetUint32(s.ctx(), sec, Kind::idOption, &oid) != 0)
            continue;
        lastId = oid;
        if constexpr (!Kind::group)
            log_info("[%s:%d]oid [%d] size [%d] ", fn, __LINE__, static_cast<int>(oid), n);

        bool match = false;
        for (int i = 0; i < n && !match; i++) {
            if constexpr (!Kind::group)
                log_error("[%s:%d]oid [%d] pmapcfg[i].PmapID [%d] ", fn, __LINE__, static_cast<int>(oid),
                          static_cast<int>(Kind::id(records[i])));
            match = Kind::id(records[i]) == oid;
        }
        if (!match)
            continue;
        if (NATFORWARD_deleteSection(s.ctx(), s.pkg(), sec->e.name) != 0) {
            if constexpr (Kind::group)
                log_error("[%s:%d]error deleteGroupMapSection", fn, __LINE__);
            else
                log_error("[%s:%d]error deletePortMapSection", fn, __LINE__);
            if (deleted == 0)
                s.revert();
            return 0;
        }
        deleted++;
    }

    if (deleted == 0) {
        s.revert();
        return 0;
    }
    const UciWriteResult w = s.commitThenSave();
    if (w.failed == UciWriteResult::Step::Commit) {
        log_error("[%s:%d]error uci_commit(%u)", fn, __LINE__, lastId);
        s.forgetPackage();
    } else if (w.failed == UciWriteResult::Step::Save) {
        log_error("[%s:%d]error uci_save(%u)", fn, __LINE__, lastId);
    } else {
        NATFORWARD_firewallReload();
    }
    return 0;
}

} // namespace

// ---- Shared by both kinds ----

uint32_t NATFORWARD_getMaxIdAndCountBySection(uci_context *ctx, uci_package *pkg, const char *idOption, int *count)
{
    if (ctx == nullptr || pkg == nullptr || idOption == nullptr)
        return 0;
    uint32_t maxId = 0;
    int primaries = 0;
    uci_element *e;
    uci_foreach_element(&pkg->sections, e) {
        uci_section *sec = uci_to_section(e);
        uint32_t id = 0;
        if (!isRedirect(sec) || uciGetUint32(ctx, sec, idOption, &id) != 0)
            continue;
        log_info("[%s:%d]maxId [%d]  id[%d] ", __func__, __LINE__, static_cast<int>(maxId), static_cast<int>(id));
        if (id > maxId)
            maxId = id;
        if (srcIsWan(ctx, sec))
            primaries++;
    }
    if (count != nullptr)
        *count = primaries;
    return maxId;
}

int NATFORWARD_deleteSection(uci_context *ctx, uci_package *pkg, const char *sectionName)
{
    if (ctx == nullptr || pkg == nullptr || sectionName == nullptr) {
        log_error("[%s:%d]ctx is null or pkg is null or sectionName or package is null", __func__, __LINE__);
        return -1;
    }
    return publicUciDelSection(ctx, pkg, UCI_FIREWALL_FILE, sectionName);
}

void NATFORWARD_firewallReload(void)
{
    LC_SystemCall("/etc/init.d/firewall reload");
}

// ---- Port mappings ----

int NATFORWARD_addPortMapList(uci_context *ctx, uci_package *pkg, const PortMapConfig *records, int n,
                              const char *srcZone)
{
    return writeSections(ctx, pkg, records, n, srcZone, __func__);
}

int NATFORWARD_addPortMap(PortMapConfig *records, int n)
{
    return addMaps(records, n, __func__);
}

PortMapConfig *NATFORWARD_loadPortMapConfig(uci_context *ctx, uci_package *pkg, uci_section *sec)
{
    if (ctx == nullptr || pkg == nullptr || sec == nullptr) {
        log_error("[%s:%d]ctx is null or pkg is null", __func__, __LINE__);
        return nullptr;
    }
    RecordPtr<PortMapConfig> item(static_cast<PortMapConfig *>(calloc(1, sizeof(PortMapConfig))));
    if (!item) {
        log_error("[%s:%d]error calloc", __func__, __LINE__);
        return nullptr;
    }
    if (uciGetUint32(ctx, sec, "PmapID", &item->PmapID) != 0) {
        log_error("[%s:%d]error get PmapID", __func__, __LINE__);
        return nullptr;
    }
    const int id = static_cast<int>(item->PmapID);
    log_info("[%s:%d]item->PmapID [%d]", __func__, __LINE__, id);
    if (uciGetString(ctx, sec, "name", item->Name, sizeof item->Name) != 0) {
        log_info("[%s:%d]error getName(%s)", __func__, __LINE__, "name");
        return nullptr;
    }
    item->Protocol = readProtocol(ctx, sec, __func__, false);
    if (uciGetUint32(ctx, sec, "src_dport", &item->ExternalPort) != 0) {
        log_error("[%s:%d]error get ExternalPort(ID[%d])", __func__, __LINE__, id);
        return nullptr;
    }
    if (uciGetUint32(ctx, sec, "dest_port", &item->InternalPort) != 0) {
        log_error("[%s:%d]error get InternalPort(ID[%d])", __func__, __LINE__, id);
        return nullptr;
    }
    if (uciGetString(ctx, sec, "dest_ip", item->InternalIP, sizeof item->InternalIP) != 0) {
        log_info("[%s:%d]error get Ip(ID[%d])", __func__, __LINE__, id);
        return nullptr;
    }
    return item.release();
}

void NATFORWARD_getPortMapConfigList(PortMapConfig *records, int *count)
{
    collectList(records, count, __func__);
}

int NATFORWARD_delPortMap(const PortMapConfig *records, int n)
{
    return deleteMaps(records, n, __func__);
}

// ---- Group mappings ----

int NATFORWARD_addGroupMapList(uci_context *ctx, uci_package *pkg, const GroupMapConfig *records, int n,
                               const char *srcZone)
{
    return writeSections(ctx, pkg, records, n, srcZone, __func__);
}

int NATFORWARD_addGroupMap(GroupMapConfig *records, int n)
{
    return addMaps(records, n, __func__);
}

GroupMapConfig *NATFORWARD_loadGroupMapConfig(uci_context *ctx, uci_package *pkg, uci_section *sec)
{
    if (ctx == nullptr || pkg == nullptr || sec == nullptr) {
        log_error("[%s:%d]ctx is null or pkg is null", __func__, __LINE__);
        return nullptr;
    }
    RecordPtr<GroupMapConfig> item(static_cast<GroupMapConfig *>(calloc(1, sizeof(GroupMapConfig))));
    if (!item) {
        log_error("[%s:%d]error calloc", __func__, __LINE__);
        return nullptr;
    }
    if (uciGetUint32(ctx, sec, "GmapID", &item->GmapID) != 0) {
        log_error("[%s:%d]error get GmapID", __func__, __LINE__);
        return nullptr;
    }
    const int id = static_cast<int>(item->GmapID);
    log_info("[%s:%d]item->GmapID [%d]", __func__, __LINE__, id);
    if (uciGetString(ctx, sec, "name", item->Name, sizeof item->Name) != 0) {
        log_info("[%s:%d]error getName(%s)", __func__, __LINE__, "name");
        return nullptr;
    }
    item->Protocol = readProtocol(ctx, sec, __func__, true);

    char ports[16] = {0};
    if (uciGetString(ctx, sec, "src_dport", ports, sizeof ports) != 0) {
        log_error("[%s:%d]error get NAT_PORT_FORWARD_SRC_DPORT(ID[%d])", __func__, __LINE__, id);
        return nullptr;
    }
    log_info("[%s:%d]tmpPorts [%s] ", __func__, __LINE__, ports);
    NatforwardRangeText range;
    if (!natforwardSplitRange(ports, &range)) {
        log_error("[%s:%d] start port invalid ", __func__, __LINE__);
        return nullptr;
    }
    if (range.startLen >= 0) {
        log_info("[%s:%d]start[%s] stop [%s] ", __func__, __LINE__, range.start, range.stop);
        log_info("[%s:%d]tmpPorts [%s] startLen[%d] ", __func__, __LINE__, ports, range.startLen);
    }
    item->StartPort = natforwardRangePort(range.start);
    item->StopPort = natforwardRangePort(range.stop);

    if (uciGetString(ctx, sec, "dest_ip", item->InternalIP, sizeof item->InternalIP) != 0) {
        log_info("[%s:%d]error get Ip(ID[%d])", __func__, __LINE__, id);
        return nullptr;
    }
    return item.release();
}

void NATFORWARD_getGroupMapConfigList(GroupMapConfig *records, int *count)
{
    collectList(records, count, __func__);
}

int NATFORWARD_delGroupMap(const GroupMapConfig *records, int n)
{
    return deleteMaps(records, n, __func__);
}
