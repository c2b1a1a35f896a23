// The configuration access layer against the router's own /etc/config: results, buffer limits, what reaches
// the files, and the exact log lines. The layer runs in this test process, inside the emulated router.
#include "support/router.h"

#include "common/log_capture.h"

#include "routeutils/routeutils.h"
#include "uciconfig.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>

using namespace gw::e2e;
using gw::testutil::captureLog;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

int errorLines(const std::string &log)
{
    int n = 0;
    for (const auto &line : splitLines(log))
        n += line.rfind("error ", 0) == 0;
    return n;
}

const char *const kIptv = "config iptv 'main'\n\toption enabled '1'\n\toption vlan1 '1'\n\tlist ports 'lan1'\n";
const char *const kMacFilter = "config macfilter 'main'\n\toption enabled '1'\n\toption curmode 'deny'\n\n"
                               "config filter 'blacklist'\n"
                               "\tlist deny 'AA:BB:CC:DD:EE:01/phone'\n"
                               "\tlist deny 'AA:BB:CC:DD:EE:02/tv'\n"
                               "\tlist deny 'AA:BB:CC:DD:EE:03/laptop'\n\n"
                               "config filter 'whitelist'\n";

class ConfigLayer : public RouterTest {};

}  // namespace

TEST_F(ConfigLayer, GetConfigReadsOneTextWithItsMessages)
{
    writeConfig("iptv", kIptv);
    char buf[8] = {};
    int rc = -1;
    std::string log = captureLog("1", [&] { rc = uciGetConfig("iptv", "main", "enabled", buf, 7); });
    EXPECT_EQ(rc, 0);
    EXPECT_STREQ(buf, "1");
    EXPECT_TRUE(logContains(log, "info", "uciGetConfig", "uciConfig value:1")) << log;
    EXPECT_EQ(errorLines(log), 0) << log;

    std::memset(buf, 0, sizeof buf);
    log = captureLog("1", [&] { rc = uciGetConfig("iptv", "main", "vlan2", buf, 7); });
    EXPECT_EQ(rc, 3);
    EXPECT_TRUE(logContains(log, "error", "uciGetConfig", "uciGetConfig UCI_ERR_NOTFOUND1")) << log;
    EXPECT_THAT(log, Not(HasSubstr("uciConfig value")));

    // A list is no single text.
    log = captureLog("1", [&] { rc = uciGetConfig("iptv", "main", "ports", buf, 7); });
    EXPECT_EQ(rc, 3);
    EXPECT_TRUE(logContains(log, "error", "uciGetConfig", "uciGetConfig UCI_ERR_NOTFOUND1")) << log;

    log = captureLog("1", [&] { rc = uciGetConfig("iptv", "nosuch", "enabled", buf, 7); });
    EXPECT_EQ(rc, 3);
    EXPECT_TRUE(logContains(log, "error", "uciGetConfig", "uciGetConfig UCI_ERR_NOTFOUND2")) << log;

    removeConfig("iptv");
    log = captureLog("1", [&] { rc = uciGetConfig("iptv", "main", "enabled", buf, 7); });
    EXPECT_EQ(rc, UCI_ERR_NOTFOUND) << "a missing file is libuci's not-found load error";
    EXPECT_TRUE(logContains(log, "error", "uciGetConfig", "uciGetConfig uci_load:3")) << log;

    log = captureLog("1", [&] { rc = uciGetConfig("iptv", nullptr, "enabled", buf, 7); });
    EXPECT_EQ(rc, 2);
    EXPECT_TRUE(logContains(log, "error", "uciGetConfig", "UCI_ERR_INVAL")) << log;
    EXPECT_STREQ(buf, "") << "nothing is written into the buffer on failure";
}

TEST_F(ConfigLayer, GetConfigCutsAtTheLimitAndNeverWritesPastIt)
{
    writeConfig("iptv", "config iptv 'main'\n\toption enabled 'enabled-and-much-longer'\n");
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    std::memset(buf, 0, 8);
    EXPECT_EQ(uciGetConfig("iptv", "main", "enabled", buf, 7), 0);
    EXPECT_STREQ(buf, "enabled");
    for (std::size_t i = 8; i < sizeof buf; ++i)
        EXPECT_EQ(buf[i], '#') << "byte " << i << " was written";
}

TEST_F(ConfigLayer, GetStrJoinsListsAndCutsThemAtTheLimit)
{
    writeConfig("macFilter", kMacFilter);
    char path[] = "macFilter.blacklist.deny";
    char buf[2048] = {};
    int rc = -1;
    std::string log = captureLog("1", [&] { rc = uciGetStr(path, buf, 2047); });
    EXPECT_EQ(rc, 0);
    EXPECT_STREQ(buf, "AA:BB:CC:DD:EE:01/phone AA:BB:CC:DD:EE:02/tv AA:BB:CC:DD:EE:03/laptop");
    EXPECT_STREQ(path, "macFilter.blacklist.deny") << "the caller's path text was changed";
    EXPECT_TRUE(logContains(log, "info", "uciGetStr", std::string("uciGetStr val:") + buf)) << log;

    // 23 + 1 + 20 characters fit in 50; the blank before the third value still fits, the value does not.
    char small[51] = {};
    log = captureLog("1", [&] { rc = uciGetStr("macFilter.blacklist.deny", small, 50); });
    EXPECT_EQ(rc, 2);
    EXPECT_STREQ(small, "AA:BB:CC:DD:EE:01/phone AA:BB:CC:DD:EE:02/tv ");
    EXPECT_EQ(errorLines(log), 0) << "a list cut at the limit is no error:\n" << log;
    EXPECT_TRUE(logContains(log, "info", "uciGetStr", "uciGetStr val:AA:BB:CC:DD:EE:01/phone AA:BB:CC:DD:EE:02/tv "))
        << log;

    // Exactly the first value: the blank after it no longer fits.
    char exact[24] = {};
    EXPECT_EQ(uciGetStr("macFilter.blacklist.deny", exact, 23), 2);
    EXPECT_STREQ(exact, "AA:BB:CC:DD:EE:01/phone");

    char single[8] = {};
    EXPECT_EQ(uciGetStr("macFilter.main.curmode", single, 7), 0);
    EXPECT_STREQ(single, "deny");
    EXPECT_EQ(uciGetStr("firewall.@zone[1].name", single, 7), 0) << "extended section syntax is understood";
    EXPECT_STREQ(single, "wan");
}

TEST_F(ConfigLayer, GetStrOnSectionsAndMissingPaths)
{
    writeConfig("macFilter", kMacFilter);
    char buf[64] = {};
    int rc = -1;
    std::string log = captureLog("1", [&] { rc = uciGetStr("macFilter.blacklist", buf, 63); });
    EXPECT_EQ(rc, 2);
    EXPECT_TRUE(logContains(log, "error", "uciGetStr", "UCI_ERR_INVAL")) << log;
    EXPECT_TRUE(logContains(log, "info", "uciGetStr", "uciGetStr val:")) << log;

    log = captureLog("1", [&] { rc = uciGetStr("macFilter.nosuch", buf, 63); });
    EXPECT_EQ(rc, 3);
    EXPECT_TRUE(logContains(log, "error", "uciGetStr", "UCI_ERR_NOTFOUND")) << log;

    log = captureLog("1", [&] { rc = uciGetStr("macFilter.main.nosuch", buf, 63); });
    EXPECT_EQ(rc, 3);
    log = captureLog("1", [&] { rc = uciGetStr("macFilter", buf, 63); });
    EXPECT_EQ(rc, 3) << "a package is not an option";

    // A package that cannot be loaded fails the lookup itself: no value line follows.
    log = captureLog("1", [&] { rc = uciGetStr("nosuchpackage.a.b", buf, 63); });
    EXPECT_EQ(rc, 3);
    EXPECT_TRUE(logContains(log, "error", "uciGetStr", "UCI_ERR_NOTFOUND")) << log;
    EXPECT_THAT(log, Not(HasSubstr("uciGetStr val:")));

    log = captureLog("1", [&] { rc = uciGetStr(nullptr, buf, 63); });
    EXPECT_EQ(rc, 2);
    EXPECT_TRUE(logContains(log, "error", "uciGetStr", "UCI_ERR_INVAL")) << log;
}

TEST_F(ConfigLayer, SetConfigCommitsAndRefusesMissingSections)
{
    writeConfig("iptv", kIptv);
    EXPECT_EQ(uciSetConfig("iptv", "main", "vlan2", "7"), 0);
    EXPECT_EQ(uciGet("iptv.main.vlan2"), "7");
    EXPECT_THAT(readConfig("iptv"), HasSubstr("option vlan2 '7'"));

    const std::string before = readConfig("iptv");
    const int rc = uciSetConfig("iptv", "nosuch", "vlan2", "7");
    EXPECT_NE(rc, 0);
    EXPECT_EQ(rc, UCI_ERR_INVAL) << "libuci refuses an option of a missing section";
    EXPECT_EQ(readConfig("iptv"), before);
    EXPECT_EQ(readFile("/tmp/.uci/iptv"), "") << "nothing was saved for a refused set";

    EXPECT_EQ(uciSetConfig("nosuchpackage", "main", "x", "1"), UCI_ERR_NOTFOUND);
    EXPECT_EQ(uciSetConfig("iptv", "main", nullptr, "1"), 2);
}

TEST_F(ConfigLayer, AddNewSectionAddsAnUnnamedSectionAndCommits)
{
    int rc = -1;
    std::string log = captureLog("1", [&] { rc = uciAddNewSection("firewall", "gwprobe", nullptr, nullptr, 0); });
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(logContains(log, "info", "uciAddNewSection", "in uciAddNewSection")) << log;
    EXPECT_EQ(uciGet("firewall.@gwprobe[0]"), "gwprobe");
    EXPECT_THAT(readConfig("firewall"), HasSubstr("config gwprobe"));

    const char options[3][16] = {"name", "src", "target"};
    const char values[3][64] = {"phone", "lan", "DROP"};
    log = captureLog("1", [&] { rc = uciAddNewSection("firewall", "rule", options, values, 3); });
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(logContains(log, "info", "uciAddNewSection", "option:name, value:phone")) << log;
    EXPECT_TRUE(logContains(log, "info", "uciAddNewSection", "option:target, value:DROP")) << log;
    EXPECT_EQ(uciGet("firewall.@rule[-1].name"), "phone");
    EXPECT_EQ(uciGet("firewall.@rule[-1].src"), "lan");
    EXPECT_EQ(uciGet("firewall.@rule[-1].target"), "DROP");

    log = captureLog("1", [&] { rc = uciAddNewSection("nosuchpackage", "rule", nullptr, nullptr, 0); });
    EXPECT_EQ(rc, UCI_ERR_NOTFOUND);
    EXPECT_TRUE(logContains(log, "error", "uciAddNewSection", "uciAddNewSection uci_load:3")) << log;
    EXPECT_FALSE(fileExists("/etc/config/nosuchpackage"));

    log = captureLog("1", [&] { rc = uciAddNewSection("firewall", nullptr, nullptr, nullptr, 0); });
    EXPECT_EQ(rc, 2);
    EXPECT_TRUE(logContains(log, "error", "uciAddNewSection", "UCI_ERR_INVAL")) << log;
}

TEST_F(ConfigLayer, ListsGrowAndShrinkPermanently)
{
    writeConfig("macFilter", kMacFilter);
    EXPECT_EQ(uciAddList("macFilter", "whitelist", "allow", "AA:BB:CC:DD:EE:10/a b"), 0);
    EXPECT_EQ(uciAddList("macFilter", "whitelist", "allow", "AA:BB:CC:DD:EE:11/c"), 0);
    char buf[2048] = {};
    EXPECT_EQ(uciGetStr("macFilter.whitelist.allow", buf, 2047), 0);
    EXPECT_STREQ(buf, "AA:BB:CC:DD:EE:10/a b AA:BB:CC:DD:EE:11/c");
    EXPECT_THAT(readConfig("macFilter"), HasSubstr("list allow 'AA:BB:CC:DD:EE:10/a b'"));

    EXPECT_EQ(uciDelList("macFilter", "blacklist", "deny", "AA:BB:CC:DD:EE:02/tv"), 0);
    std::memset(buf, 0, sizeof buf);
    EXPECT_EQ(uciGetStr("macFilter.blacklist.deny", buf, 2047), 0);
    EXPECT_STREQ(buf, "AA:BB:CC:DD:EE:01/phone AA:BB:CC:DD:EE:03/laptop");
    EXPECT_THAT(readConfig("macFilter"), Not(HasSubstr("EE:02")));

    EXPECT_EQ(uciAddList("macFilter", "nosuch", "deny", "x"), UCI_ERR_INVAL);
    int rc = -1;
    std::string log = captureLog("1", [&] { rc = uciAddList("macFilter", "blacklist", "deny", nullptr); });
    EXPECT_EQ(rc, 2);
    EXPECT_TRUE(logContains(log, "error", "uciAddList", "param is null")) << log;
    log = captureLog("1", [&] { rc = uciDelList(nullptr, "blacklist", "deny", "x"); });
    EXPECT_EQ(rc, 2);
    EXPECT_TRUE(logContains(log, "error", "uciDelList", "param is null")) << log;
    log = captureLog("1", [&] { rc = uciAddList("macFilter", "nosuch", "deny", "x"); });
    EXPECT_TRUE(logContains(log, "error", "uciAddList", "uci_add_list error")) << log;
}

TEST_F(ConfigLayer, DeleteAndRevertWorkInTheCallersContext)
{
    writeConfig("macFilter", kMacFilter);
    uci_context *ctx = uci_alloc_context();
    ASSERT_NE(ctx, nullptr);
    uci_package *pkg = nullptr;
    ASSERT_EQ(uci_load(ctx, "macFilter", &pkg), 0);

    // An edit saved but not committed is discarded by the revert; the caller gets the reloaded package.
    EXPECT_EQ(uciSetString(ctx, pkg, uci_lookup_section(ctx, pkg, "main"), "curmode", "allow"), 0);
    ASSERT_EQ(uci_save(ctx, pkg), 0);
    EXPECT_EQ(uciRevertPackage(ctx, &pkg, nullptr), 0);
    ASSERT_NE(pkg, nullptr);
    EXPECT_STREQ(uci_lookup_option_string(ctx, uci_lookup_section(ctx, pkg, "main"), "curmode"), "deny");
    EXPECT_EQ(readFile("/tmp/.uci/macFilter"), "");

    EXPECT_EQ(uciDeleteSection(ctx, pkg, "macFilter", "whitelist"), 0);
    EXPECT_EQ(uciDeleteSection(ctx, pkg, "macFilter", "nosuch"), -1);
    ASSERT_EQ(uci_commit(ctx, &pkg, false), 0);
    EXPECT_THAT(readConfig("macFilter"), Not(HasSubstr("whitelist")));
    EXPECT_THAT(readConfig("macFilter"), HasSubstr("blacklist"));

    std::string log = captureLog("1", [&] { EXPECT_EQ(uciDeleteSection(ctx, pkg, "macFilter", nullptr), -1); });
    EXPECT_TRUE(logContains(log, "error", "uciDeleteSection",
                            "ctx is null or pkg is null or configFile or sectionName is null"))
        << log;
    EXPECT_EQ(uciRevertPackage(ctx, nullptr, nullptr), -1);
    uci_package *none = nullptr;
    EXPECT_EQ(uciRevertPackage(ctx, &none, nullptr), -1);
    uci_free_context(ctx);
}

TEST_F(ConfigLayer, PlatformHelpersWithTheirOwnContext)
{
    writeConfig("iptv", kIptv);
    int32_t v = 0;
    EXPECT_EQ(uciGetOptionInt32("iptv", "iptv", "main", "vlan1", &v), 0);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(uciSetOptionInt32("iptv", "iptv", "main", "vlanid", -42), 0);
    EXPECT_EQ(uciGet("iptv.main.vlanid"), "-42");
    EXPECT_EQ(uciGetOptionInt32("iptv", "iptv", "main", "vlanid", &v), 0);
    EXPECT_EQ(v, -42);
    EXPECT_NE(uciGetOptionInt32("iptv", "iptv", "main", "ports", &v), 0) << "a list is not a number";
    EXPECT_NE(uciGetOptionInt32("iptv", "iptv", "nosuch", "vlan1", &v), 0);
    EXPECT_NE(uciSetOptionInt32("iptv", "iptv", "nosuch", "vlan1", 1), 0);
    EXPECT_EQ(v, -42) << "a failed read leaves the output alone";
}
