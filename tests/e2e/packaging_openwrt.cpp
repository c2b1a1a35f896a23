// The OpenWrt package's files in the emulated router: the web UI's ACL against the methods the running daemon
// registers, the default packages, the firewall include and its registration, and the procd init script run
// under a recording stand-in for /etc/rc.common.
#include "support/router.h"

#include <gmock/gmock.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

using namespace gw::e2e;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

using Methods = std::map<std::string, std::set<std::string>>;

const std::string kFiles = std::string(GWCONF_SOURCE_DIR) + "/packaging/openwrt/files";
const std::string kAcl = kFiles + "/usr/share/rpcd/acl.d/gwconf.json";
const std::string kInclude = kFiles + "/usr/share/gwconf/firewall.include";
const std::string kUciDefaults = kFiles + "/etc/uci-defaults/90-gwconf-firewall";
const std::string kInit = kFiles + "/etc/init.d/gwconfd";

std::string blobString(const blob_attr *a) { return static_cast<const char *>(blobmsg_data(a)); }

// Adds every method name of an ACL's "ubus" table ({object: [method, ...]}) to `out`.
void collectGrants(const blob_attr *ubus, Methods &out)
{
    const blob_attr *object;
    size_t rem;
    blobmsg_for_each_attr(object, ubus, rem)
    {
        ASSERT_EQ(blobmsg_type(object), BLOBMSG_TYPE_ARRAY) << blobmsg_name(object);
        auto &methods = out[blobmsg_name(object)];
        const blob_attr *m;
        size_t mrem;
        blobmsg_for_each_attr(m, object, mrem)
        {
            ASSERT_EQ(blobmsg_type(m), BLOBMSG_TYPE_STRING) << blobmsg_name(object);
            EXPECT_TRUE(methods.insert(blobString(m)).second) << "granted twice: " << blobString(m);
        }
    }
}

// The ubus methods the ACL file grants, read and write together; fails the test when the file is no JSON object
// of the rpcd shape {"gwconf": {"read": {"ubus": ...}, "write": {"ubus": ...}}}.
Methods aclGrants()
{
    const std::string text = readFile(kAcl);
    blob_buf b{};
    blob_buf_init(&b, 0);
    Methods grants;
    if (!blobmsg_add_json_from_string(&b, text.c_str())) {
        ADD_FAILURE() << kAcl << " is not a JSON object";
        blob_buf_free(&b);
        return grants;
    }
    const blob_attr *role;
    size_t rem;
    int roles = 0;
    blob_for_each_attr(role, b.head, rem)
    {
        ++roles;
        EXPECT_STREQ(blobmsg_name(role), "gwconf");
        const blob_attr *kind;
        size_t krem;
        blobmsg_for_each_attr(kind, role, krem)
        {
            const std::string name = blobmsg_name(kind);
            if (name != "read" && name != "write")
                continue;
            const blob_attr *part;
            size_t prem;
            blobmsg_for_each_attr(part, kind, prem)
            if (std::string(blobmsg_name(part)) == "ubus")
                collectGrants(part, grants);
        }
    }
    EXPECT_EQ(roles, 1);
    blob_buf_free(&b);
    return grants;
}

// The methods of every object on the bus, from `ubus -v list`: a line "'NAME' @id" per object, then one line
// "\t\"METHOD\":{...}" per method.
Methods registry()
{
    const char *ubus = std::getenv("GWCONF_UBUS");
    RunResult r = run({ubus ? ubus : "ubus", "-v", "list"});
    EXPECT_EQ(r.status, 0) << r.err;
    Methods out;
    std::string object;
    for (const auto &line : splitLines(r.out)) {
        if (line.size() > 2 && line[0] == '\'') {
            object = line.substr(1, line.find('\'', 1) - 1);
            out[object];
        } else if (line.size() > 2 && line[0] == '\t' && line[1] == '"' && !object.empty()) {
            out[object].insert(line.substr(2, line.find('"', 2) - 2));
        }
    }
    return out;
}

int count(const std::vector<std::string> &lines, const std::string &line)
{
    int n = 0;
    for (const auto &l : lines)
        n += l == line;
    return n;
}

class Packaging : public RouterTest {};

}  // namespace

TEST_F(Packaging, AclGrantsExactlyTheMethodsTheDaemonRegisters)
{
    start();
    Methods onBus = registry();
    Methods daemon;
    for (const auto &object : kDaemonObjects) {
        ASSERT_TRUE(onBus.count(object)) << object << " is not on the bus";
        EXPECT_THAT(onBus[object], Not(IsEmpty())) << object << " has no methods";
        daemon[object] = onBus[object];
    }
    const Methods grants = aclGrants();
    for (const auto &[object, methods] : daemon)
        for (const auto &m : methods)
            EXPECT_TRUE(grants.count(object) && grants.at(object).count(m)) << "not granted: " << object << " " << m;
    for (const auto &[object, methods] : grants)
        for (const auto &m : methods)
            EXPECT_TRUE(daemon.count(object) && daemon.at(object).count(m)) << "no such method: " << object << " " << m;
}

TEST_F(Packaging, DefaultPackagesAreTheRouterDefaultsAndStartEverythingSwitchedOff)
{
    for (const char *package : {"macFilter", "iptv", "WanPortMap"}) {
        const std::string shipped = kFiles + "/etc/config/" + package;
        ASSERT_TRUE(fileExists(shipped)) << shipped;
        EXPECT_EQ(readFile(shipped), readFile(std::string(GWCONF_SOURCE_DIR) + "/sandbox/defaults/" + package))
            << package;
        writeConfig(package, readFile(shipped));
        RunResult r = uci({"export", package});
        EXPECT_EQ(r.status, 0) << package << ": " << r.err;
    }
    EXPECT_EQ(uciGet("macFilter.main.enabled"), "0");
    EXPECT_EQ(uciGet("iptv.main.enabled"), "0");

    start();
    // Nothing to restore: no MAC filter or IPTV rule goes into the kernel at start.
    for (const auto &line : journal()) {
        EXPECT_NE(line.rfind("ebtables", 0), 0u) << line;
        EXPECT_NE(line.rfind("ip6tables", 0), 0u) << line;
    }
    EXPECT_EQ(call("RTIptv", "getIptvInfo").reply,
              R"({"params":{"enable":0,"vlanId":0,"vlan1":0,"vlan2":0,"vlan3":0,"type":0},"result":true})");
    EXPECT_EQ(call("RTWanPortMap", "getWanPortMap").reply,
              R"({"params":{"Enabled":0,"InPort":0,"ExPort":0,"RemoteAddr":"0.0.0.0"},"result":true})");
    EXPECT_EQ(call("RTMacFilter", "getMacFilterList").reply, R"({"params":{"enable":0},"result":true})");
    EXPECT_EQ(call("zelmad.macfilter", "getMacFilter").reply,
              R"({"zelmad.macfilter":{"macFilterEnable":0,"macFilterPolicy":0,"macFilterEntries":""}})");
}

TEST_F(Packaging, FirewallIncludeLinksTheRedirectChainsOnceAndRestoresTheLastApply)
{
    // A firewall without the chains: remove what the router's own set-up made.
    const std::string real = "/run/sandbox/real/iptables";
    struct Link {
        const char *table, *builtin, *chain;
    };
    const Link links[] = {{"mangle", "PREROUTING", "WanPortMapPREROUTING"},
                          {"nat", "PREROUTING", "WanPortMapPREROUTING"},
                          {"filter", "INPUT", "WanPortMapINPUT"}};
    for (const Link &l : links) {
        ASSERT_EQ(run({real, "-w", "-t", l.table, "-D", l.builtin, "-j", l.chain}).status, 0) << l.table;
        ASSERT_EQ(run({real, "-w", "-t", l.table, "-X", l.chain}).status, 0) << l.table;
    }
    for (int i = 0; i < 2; ++i) {
        RunResult r = run({"sh", kInclude});
        ASSERT_EQ(r.status, 0) << r.err;
    }
    EXPECT_EQ(count(iptablesRules("mangle"), "-A PREROUTING -j WanPortMapPREROUTING"), 1);
    EXPECT_EQ(count(iptablesRules("nat"), "-A PREROUTING -j WanPortMapPREROUTING"), 1);
    EXPECT_EQ(count(iptablesRules("filter"), "-A INPUT -j WanPortMapINPUT"), 1);

    // After an apply, a firewall restart empties the chains; the include puts the rules back.
    start();
    ASSERT_EQ(call("RTWanPortMap", "setWanPortMap", R"({"Enabled":1,"InPort":8080,"ExPort":80})").reply,
              R"({"result":true})");
    const std::string redirect = "-A WanPortMapPREROUTING -p tcp -m tcp --dport 80 -j REDIRECT --to-ports 8080";
    bool applied = false;
    for (int i = 0; i < 100 && !applied; ++i, usleep(50000))
        applied = count(iptablesRules("nat"), redirect) == 1;
    ASSERT_TRUE(applied) << "the daemon's apply did not fill the chain";
    ASSERT_EQ(run({real, "-w", "-t", "nat", "-F", "WanPortMapPREROUTING"}).status, 0);
    ASSERT_EQ(count(iptablesRules("nat"), redirect), 0);
    ASSERT_EQ(run({"sh", kInclude}).status, 0);
    EXPECT_EQ(count(iptablesRules("nat"), redirect), 1);
    EXPECT_EQ(count(iptablesRules("filter"),
                    "-A WanPortMapINPUT -p tcp -m tcp --dport 8080 -m mark --mark 0x8888 -j ACCEPT"),
              1);
}

TEST_F(Packaging, UciDefaultsRegisterTheIncludeOnce)
{
    for (int i = 0; i < 2; ++i) {
        RunResult r = run({"sh", kUciDefaults});
        ASSERT_EQ(r.status, 0) << r.err;
    }
    EXPECT_EQ(uciShow("firewall.gwconf"), "firewall.gwconf=include\n"
                                          "firewall.gwconf.path='/usr/share/gwconf/firewall.include'\n"
                                          "firewall.gwconf.type='script'\n"
                                          "firewall.gwconf.reload='1'\n");
    EXPECT_EQ(count(splitLines(uciExport("firewall")), "config include 'gwconf'"), 1);
    // The path it registers is where the package installs the include.
    EXPECT_THAT(readFile(std::string(GWCONF_SOURCE_DIR) + "/packaging/openwrt/Makefile"),
                ::testing::HasSubstr("$(GWCONF_FILES)/usr/share/gwconf/firewall.include $(1)/usr/share/gwconf/"));
}

TEST_F(Packaging, InitScriptRunsTheDaemonUnderProcdWithRespawnLogsAndReloadTriggers)
{
    for (const auto &script : {kInit, kInclude, kUciDefaults}) {
        RunResult r = run({"sh", "-n", script});
        EXPECT_EQ(r.status, 0) << script << ": " << r.err;
    }
    // A stand-in for /etc/rc.common that records the procd calls of one action.
    writeFile("/run/sandbox/rc.common",
              "initscript=$1; action=$2\n"
              "record() { echo \"$*\" >> /run/sandbox/procd.calls; }\n"
              "procd_open_instance() { record open_instance \"$@\"; }\n"
              "procd_set_param() { record set_param \"$@\"; }\n"
              "procd_close_instance() { record close_instance; }\n"
              "procd_add_reload_trigger() { record reload_trigger \"$@\"; }\n"
              "stop() { record stop; }\n"
              "start() { start_service; }\n"
              ". \"$initscript\"\n"
              "[ \"$USE_PROCD\" = 1 ] || record no_procd\n"
              "case $action in\n"
              "  start) start_service ;;\n"
              "  triggers) service_triggers ;;\n"
              "  reload) reload_service ;;\n"
              "esac\n");
    auto calls = [&](const std::string &action) {
        run({"rm", "-f", "/run/sandbox/procd.calls"});
        RunResult r = run({"sh", "/run/sandbox/rc.common", kInit, action});
        EXPECT_EQ(r.status, 0) << action << ": " << r.err;
        return splitLines(readFile("/run/sandbox/procd.calls"));
    };
    const std::vector<std::string> start = calls("start");
    EXPECT_THAT(start, ElementsAre("open_instance", "set_param command /usr/sbin/gwconfd",
                                   "set_param respawn 3600 5 5", "set_param stdout 1", "set_param stderr 1",
                                   "close_instance"));
    EXPECT_THAT(calls("triggers"), ElementsAre("reload_trigger macFilter iptv WanPortMap upnpd"));
    std::vector<std::string> reload = {"stop"};
    reload.insert(reload.end(), start.begin(), start.end());
    EXPECT_EQ(calls("reload"), reload);
}
