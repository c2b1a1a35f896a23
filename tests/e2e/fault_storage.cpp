// The configuration folder full (a small file system mounted over /etc/config and filled up) or read-only (bound
// read-only over itself), while gwconfd runs. Every writing method must answer with its own failure outcome, no
// package file may change or be cut, no temporary file of a failed commit may stay behind (it would keep the
// folder full), the daemon keeps serving reads, and once the folder takes writes again a set goes through.
//
// A write answered as failed must not stay behind as a pending change in /tmp/.uci either: the next commit of its
// package, by anyone, would make it permanent after all. So readers still see the old value.
//
// The outcome of each method when its commit fails, as the objects define it:
//   RTMacFilter set/add/del, RTIptv setIptv, RTWanPortMap     "result" false
//   zelmad.macfilter setMacFilter                              status 9 (a list write failed), no reply
//   firewall setForbiddNet                                     "result" true: its section write does not look at
//                                                              the commit
//   RTPortMap add and delete, RTUpnp setUpnpStatus             "result" true, the failed commit logged; RTPortMap
//                                                              then skips the firewall reload
//   zelmad.vlan setIptvVlan                                    "result" false: the bridge cannot be written
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

#include "support/fault.h"
#include "support/router.h"

namespace gw::e2e {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char *kFiller = "/etc/config/.fill";

struct Expected {
    const char *object;
    const char *method;
    const char *json;
    int status;
    const char *reply;
    const char *logFunction;   // a line of this function and message shows that the failure was seen ("" none)
    const char *logMessage;   // a message ending in '(' is matched up to there (a number follows)
    const char *keptPath = "";    // for a write answered as failed: a value readers must still see unchanged
    const char *keptValue = "";
};

// True when the log holds an error line of `function` whose message starts with `message`.
bool errorLogged(const std::string &log, const std::string &function, const std::string &message)
{
    for (const auto &line : splitLines(log)) {
        size_t at = line.find("]");
        if (line.rfind("error [" + function + ":", 0) == 0 && at != std::string::npos &&
            line.compare(at + 1, message.size(), message) == 0)
            return message.back() == '(' || line.size() == at + 1 + message.size();
    }
    return false;
}

const Expected kWrites[] = {
    {"RTMacFilter", "setMacFilter", R"({"enable":1,"model":1})", 0, R"({"result":false})", "setMacFilterHandler",
     "uciSetConfig UCI_MACFILTER_FILE main curmode ERROR", "macFilter.main.curmode", "no"},
    {"RTMacFilter", "addMacFilterList", R"({"enable":1,"model":1,"macList":{"name":"pc","mac":"AA:BB:CC:DD:EE:02"}})",
     0, R"({"result":false})", "addMacFilterListHandler", "uciAddList UCI_MACFILTER_FILE blackList deny ERROR",
     "macFilter.blacklist.deny", "AA:BB:CC:DD:EE:01/tv"},
    {"RTMacFilter", "delMacFilterList", R"({"enable":1,"model":1,"macList":{"name":"tv","mac":"AA:BB:CC:DD:EE:01"}})",
     0, R"({"result":false})", "delMacFilterListHandler", "uciAddList UCI_MACFILTER_FILE blackList deny ERROR",
     "macFilter.blacklist.deny", "AA:BB:CC:DD:EE:01/tv"},
    {"zelmad.macfilter", "setMacFilter",
     R"({"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":"AABBCCDDEE03/cam"})", 9, "",
     "zelmad_handle_set_macfilter", "uciAddList UCI_MACFILTER_FILE blacklist deny ERROR"},
    {"firewall", "setForbiddNet", R"({"enable":1,"mac":"AA:BB:CC:DD:EE:0F"})", 0, R"({"result":true})", "", ""},
    {"RTIptv", "setIptv", R"({"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":0})", 0,
     R"({"result":false})", "setIptvHandler", "uciSetConfig UCI_MACFILTER_FILE main enabled ERROR", "iptv.main.enabled",
     "0"},
    {"zelmad.vlan", "setIptvVlan", R"({"vlanEnable":1,"vlanId":200,"iptvStatus":[{"radio":"LAN","index":2}]})", 0,
     R"({"result":false})", "", "", "iptv.main.vlanid", "0"},
    {"RTPortMap", "modPortMapping",
     R"({"MapList":[{"Name":"ssh","Protocol":0,"InternalIP":"192.168.1.12","InternalPort":22,"ExternalPort":2222}],"Operation":1})",
     0, R"({"result":true})", "NATFORWARD_addPortMap", "error uci_commit"},
    {"RTPortMap", "modPortMapping", R"({"MapList":[{"PmapID":1}],"Operation":0})", 0, R"({"result":true})",
     "NATFORWARD_delPortMap", "error uci_commit("},
    {"RTUpnp", "setUpnpStatus", R"({"Enable":1})", 0, R"({"result":true})", "NatForward_setUpnpEnabled",
     "error uci_commit(enabled=1)"},
    {"RTWanPortMap", "setWanPortMap", R"({"Enabled":1,"InPort":2222,"ExPort":22})", 0, R"({"result":false})",
     "setConfig", "error uci_commit", "WanPortMap.wanPortMap.InPort", "8080"},
};

class ConfigStorage : public RouterTest {
protected:
    void TearDown() override
    {
        umount2(kConfigDir, MNT_DETACH);   // the sandbox's own folder again, for the fixture's last steps
        RouterTest::TearDown();
    }

    // A stored state with something to delete: a black list entry (filter off), a port mapping, a WAN redirect.
    void startWithState()
    {
        ASSERT_NO_FATAL_FAILURE(start());
        const std::pair<std::string, std::string> calls[][1] = {
            {{"RTMacFilter addMacFilterList",
              R"({"enable":1,"model":1,"macList":{"name":"tv","mac":"AA:BB:CC:DD:EE:01"}})"}},
            {{"RTPortMap modPortMapping",
              R"({"MapList":[{"Name":"web","Protocol":0,"InternalIP":"192.168.1.10","InternalPort":80,"ExternalPort":8080}],"Operation":1})"}},
            {{"RTWanPortMap setWanPortMap", R"({"Enabled":1,"InPort":8080,"ExPort":80})"}},
        };
        for (const auto &c : calls) {
            std::string object = c[0].first.substr(0, c[0].first.find(' '));
            std::string method = c[0].first.substr(c[0].first.find(' ') + 1);
            ASSERT_EQ(call(object, method, c[0].second).reply, R"({"result":true})") << c[0].first;
        }
    }

    // Every writing method against the broken folder, then the checks that nothing was damaged and reads work.
    void writesFailCleanly()
    {
        auto files = snapshotFolder(kConfigDir);
        files.erase(".fill");
        for (const auto &w : kWrites) {
            SCOPED_TRACE(std::string(w.object) + " " + w.method);
            clearJournal();
            CallResult r = call(w.object, w.method, w.json);
            EXPECT_EQ(r.status, w.status);
            EXPECT_EQ(r.reply, w.reply);
            if (*w.logFunction) {
                EXPECT_TRUE(errorLogged(daemonLog(), w.logFunction, w.logMessage));
            }
            if (*w.keptPath) {
                EXPECT_EQ(uciGet(w.keptPath), w.keptValue)
                    << "a write answered as failed stays pending; the next commit would make it permanent";
            }
            if (std::string(w.object) == "RTPortMap") {
                EXPECT_THAT(journal(), Not(Contains("/etc/init.d/firewall reload")))
                    << "the firewall reloads after a commit that failed";
            }
        }
        // No package file changed, each still loads, and no commit left a temporary file behind.
        auto now = snapshotFolder(kConfigDir);
        now.erase(".fill");
        for (const auto &[name, text] : files)
            EXPECT_EQ(now[name], text) << "/etc/config/" << name << " changed";
        EXPECT_EQ(now.size(), files.size());
        for (const auto &p : kWrittenPackages) {
            UciPackage pkg = loadConfigFile(p);
            EXPECT_TRUE(pkg.ok) << p << ": " << pkg.error;
        }
        std::vector<std::string> hidden = hiddenConfigFiles();
        hidden.erase(std::remove(hidden.begin(), hidden.end(), ".fill"), hidden.end());
        EXPECT_THAT(hidden, ::testing::IsEmpty());

        for (const char *option : {"enabled", "vlanid", "vlan1", "vlan2", "vlan3"})
            EXPECT_EQ(uciGet(std::string("iptv.main.") + option), "0") << option;

        // Reads are served, and the failed WAN redirect write was taken back.
        CallResult r = call("RTMacFilter", "getMacFilterList");
        EXPECT_EQ(r.status, 0);
        EXPECT_THAT(r.reply, HasSubstr(R"("result":true)"));
        EXPECT_EQ(call("RTIptv", "getIptvInfo").status, 0);
        EXPECT_THAT(call("RTPortMap", "getPortMapping").reply, HasSubstr(R"("result":true)"));
        EXPECT_THAT(call("RTWanPortMap", "getWanPortMap").reply, HasSubstr(R"("InPort":8080,)"));
        EXPECT_TRUE(daemonRunning());
    }

    // Once the folder takes writes again, sets go through and reach the files.
    void writesWorkAgain()
    {
        EXPECT_EQ(call("RTWanPortMap", "setWanPortMap", R"({"Enabled":1,"InPort":4444,"ExPort":44})").reply,
                  R"({"result":true})");
        EXPECT_THAT(readConfig("WanPortMap"), HasSubstr("option InPort '4444'"));
        EXPECT_EQ(call("RTMacFilter", "addMacFilterList",
                       R"({"enable":1,"model":1,"macList":{"name":"tab","mac":"AA:BB:CC:DD:EE:05"}})")
                      .reply,
                  R"({"result":true})");
        EXPECT_THAT(readConfig("macFilter"), HasSubstr("AA:BB:CC:DD:EE:05/tab"));
        for (const auto &p : kWrittenPackages) {
            UciPackage pkg = loadConfigFile(p);
            EXPECT_TRUE(pkg.ok) << p << ": " << pkg.error;
        }
    }
};

TEST_F(ConfigStorage, FullFolderFailsWritesWithoutDamage)
{
    ASSERT_NO_FATAL_FAILURE(startWithState());
    // A small file system of its own over the folder, holding the same files.
    const auto files = snapshotFolder(kConfigDir);
    ASSERT_EQ(mount("tmpfs", kConfigDir, "tmpfs", MS_NOSUID | MS_NODEV, "size=256k,mode=0755"), 0)
        << std::strerror(errno);
    restoreFolder(kConfigDir, files);
    ASSERT_EQ(snapshotFolder(kConfigDir), files);
    // Writes work there before it is full.
    ASSERT_EQ(call("RTWanPortMap", "setWanPortMap", R"({"Enabled":1,"InPort":8080,"ExPort":80})").reply,
              R"({"result":true})");

    // Fill it up to the last byte.
    int fd = open(kFiller, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    static const char block[4096] = {};
    for (size_t size = sizeof block; size > 0; size /= 2)
        while (write(fd, block, size) == static_cast<ssize_t>(size)) {
        }
    close(fd);
    errno = 0;
    int probe = open("/etc/config/.probe", O_WRONLY | O_CREAT, 0600);
    ASSERT_FALSE(probe >= 0 && write(probe, "x", 1) == 1) << "the folder is not full";
    if (probe >= 0) {
        close(probe);
        unlink("/etc/config/.probe");
    }

    ASSERT_NO_FATAL_FAILURE(writesFailCleanly());
    ASSERT_EQ(unlink(kFiller), 0);
    writesWorkAgain();
}

TEST_F(ConfigStorage, ReadOnlyFolderFailsWritesWithoutDamage)
{
    ASSERT_NO_FATAL_FAILURE(startWithState());
    ASSERT_EQ(mount(kConfigDir, kConfigDir, nullptr, MS_BIND, nullptr), 0) << std::strerror(errno);
    ASSERT_EQ(mount(nullptr, kConfigDir, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0)
        << std::strerror(errno);
    ASSERT_NE(access(kConfigDir, W_OK), 0);

    ASSERT_NO_FATAL_FAILURE(writesFailCleanly());
    ASSERT_EQ(umount(kConfigDir), 0) << std::strerror(errno);
    writesWorkAgain();
}

}  // namespace
}  // namespace gw::e2e
