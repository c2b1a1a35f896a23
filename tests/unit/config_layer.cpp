// The configuration layer (src/uci and the accessors of platform/routeutils) on a temporary system root: what each
// operation returns, reads and writes.
#include "routeutils/routeutils.h"
#include "routeutils/system.h"
#include "routeutils/uci_session.h"
#include "uciconfig.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/resource.h>

namespace fs = std::filesystem;

namespace {

const char kPackage[] = "config t 'main'\n\toption enabled '1'\n\toption name 'a-rather-long-name'\n"
                        "\toption port '4294967295'\n\tlist member 'AA:BB:CC:DD:EE:01/phone'\n"
                        "\tlist member 'AA:BB:CC:DD:EE:02/tv'\n\tlist member 'AA:BB:CC:DD:EE:03/pc'\n\n"
                        "config t\n\toption name 'second'\n";

class ConfigLayer : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/gwconf-config-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        fs::create_directories(root_ / "etc/config");
        fs::create_directories(root_ / "tmp");
        std::ofstream(root_ / "etc/config/t") << kPackage;
        routeutils::setSystemRoot(root_);
    }
    void TearDown() override { routeutils::setSystemRoot("/"), fs::remove_all(root_); }
    std::string read(const char *path) const { return (std::stringstream() << std::ifstream(root_ / path).rdbuf()).str(); }
    fs::path root_;
};

} // namespace

// Each read: uciGetConfig (C), uciGetStr (S) or uciGetOptionInt32 (I) of the path ("-" for a null part), with a
// limit; its result and the buffer afterwards (null: not written).
TEST_F(ConfigLayer, ReadsCutAtTheLimitAndNameWhatIsMissing)
{
    const struct {
        char fn;
        const char *pkg, *sec, *opt;
        int len, rc;
        const char *out;
    } cases[] = {
        {'C', "t", "main", "enabled", 7, 0, "1"}, {'C', "t", "main", "name", 7, 0, "a-rathe"},
        {'C', "t", "main", "member", 7, 3, nullptr},  // a list
        {'C', "nosuch", "main", "name", 7, 3, nullptr}, {'C', "t", "-", "name", 7, 2, nullptr},
        {'S', "t", "main", "member", 70, 0, "AA:BB:CC:DD:EE:01/phone AA:BB:CC:DD:EE:02/tv AA:BB:CC:DD:EE:03/pc"},
        {'S', "t", "main", "member", 50, 2, "AA:BB:CC:DD:EE:01/phone AA:BB:CC:DD:EE:02/tv "},
        {'S', "t", "main", "member", 23, 2, "AA:BB:CC:DD:EE:01/phone"}, {'S', "t", "@t[1]", "name", 7, 0, "second"},
        {'S', "t", "main", "", 7, 2, nullptr},  // a section
        {'S', "nosuch", "main", "name", 7, 3, nullptr}, {'S', "-", "", "", 7, 2, nullptr},
        {'I', "t", "main", "enabled", 0, 0, "1"}, {'I', "t", "main", "port", 0, -1, "7"},  // out of range
        {'I', "t", "main", "member", 0, -1, "7"},
    };
    for (const auto &c : cases) {
        auto arg = [](const char *p) { return std::strcmp(p, "-") ? p : nullptr; };
        const std::string path = std::string(c.pkg) + (*c.sec ? "." : "") + c.sec + (*c.opt ? "." : "") + c.opt;
        char buf[80];
        std::memset(buf, '#', sizeof buf);
        buf[sizeof buf - 1] = '\0';
        int rc = 0;
        int32_t v = 7;
        if (c.fn == 'I' && (rc = uciGetOptionInt32(c.pkg, c.pkg, c.sec, c.opt, &v), true))
            std::sprintf(buf, "%d", v);
        else
            rc = c.fn == 'C' ? uciGetConfig(arg(c.pkg), arg(c.sec), c.opt, buf, c.len)
                             : uciGetStr(arg(c.pkg) ? path.c_str() : nullptr, buf, c.len);
        EXPECT_EQ(rc, c.rc) << c.fn << " " << path;
        EXPECT_EQ(buf, std::string(c.out ? c.out : std::string(79, '#'))) << c.fn << " " << path;
    }
}

TEST_F(ConfigLayer, WritesReachTheFileOrNothingIsLeft)
{
    EXPECT_EQ(uciSetConfig("t", "main", "name", "x y"), 0);
    EXPECT_EQ(uciSetConfig("t", "nosuch", "name", "x"), UCI_ERR_INVAL);
    EXPECT_EQ(uciSetConfig("nosuch", "main", "name", "x"), UCI_ERR_NOTFOUND);
    EXPECT_EQ(uciSetConfig("t", "main", nullptr, "x"), UCI_ERR_INVAL);
    EXPECT_EQ(uciSetOptionInt32("t", "t", "main", "port", -42), 0);
    EXPECT_NE(uciSetOptionInt32("t", "t", "nosuch", "port", 1), 0);
    EXPECT_EQ(uciAddList("t", "main", "member", "AA:BB:CC:DD:EE:04/a b"), 0);
    EXPECT_EQ(uciDelList("t", "main", "member", "AA:BB:CC:DD:EE:02/tv"), 0);
    EXPECT_EQ(uciAddList("t", "nosuch", "m", "x"), UCI_ERR_INVAL);
    EXPECT_EQ(uciAddList("t", "main", "member", nullptr), UCI_ERR_INVAL);
    EXPECT_EQ(uciDelList(nullptr, "main", "member", "x"), UCI_ERR_INVAL);
    static const char opt[2][16] = {"name", "target"};
    static const char val[2][64] = {"phone", "DROP"};
    EXPECT_EQ(uciAddNewSection("t", "rule", nullptr, nullptr, 0), 0);
    EXPECT_EQ(uciAddNewSection("t", "rule", opt, val, 2), 0);
    EXPECT_EQ(uciAddNewSection("nosuch", "rule", opt, val, 2), UCI_ERR_NOTFOUND);
    EXPECT_EQ(uciAddNewSection("t", nullptr, opt, val, 2), UCI_ERR_INVAL);
    EXPECT_FALSE(fs::exists(root_ / "etc/config/nosuch"));
    EXPECT_EQ(read("etc/config/t"),
              "\nconfig t 'main'\n\toption enabled '1'\n\toption name 'x y'\n\toption port '-42'\n"
              "\tlist member 'AA:BB:CC:DD:EE:01/phone'\n\tlist member 'AA:BB:CC:DD:EE:03/pc'\n"
              "\tlist member 'AA:BB:CC:DD:EE:04/a b'\n\nconfig t\n\toption name 'second'\n\nconfig rule\n\n"
              "config rule\n\toption name 'phone'\n\toption target 'DROP'\n\n");
    EXPECT_EQ(read("tmp/.uci/t"), "");
}

TEST_F(ConfigLayer, AFailedCommitLeavesNoSavedChange)
{
    // The new file does not fit under the size limit, the saved change (a short line) does.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{}, small{100, 100};
    getrlimit(RLIMIT_FSIZE, &old);
    small.rlim_max = old.rlim_max;
    setrlimit(RLIMIT_FSIZE, &small);
    const int rc = uciSetConfig("t", "main", "name", "x");
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_NE(rc, 0);
    EXPECT_EQ(read("etc/config/t"), kPackage);
    EXPECT_EQ(read("tmp/.uci/t"), "");
}

TEST_F(ConfigLayer, CallersContextAndAccessors)
{
    routeutils::UciSession s;
    ASSERT_EQ(s.load("t"), 0);
    uci_section *main = uci_lookup_section(s.ctx(), s.pkg(), "main");
    uint32_t v = 7;
    EXPECT_EQ(uciGetUint32(s.ctx(), main, "port", &v), 0);
    EXPECT_EQ(v, 4294967295u);
    for (const char *bad : {"4294967296", "-1", " 1", "1a", ""}) {
        ASSERT_EQ(uciSetString(s.ctx(), s.pkg(), main, "port", bad), 0);
        EXPECT_NE(uciGetUint32(s.ctx(), main, "port", &v), 0) << bad;
        EXPECT_EQ(v, 4294967295u) << bad;
    }
    EXPECT_EQ(uciDeleteSection(s.ctx(), s.pkg(), "t", "nosuch"), -1);
    EXPECT_EQ(uciDeleteSection(s.ctx(), s.pkg(), "t", nullptr), -1);
    EXPECT_EQ(s.save(), 0);
    EXPECT_NE(read("tmp/.uci/t"), "");
    uci_package *pkg = s.pkg();
    EXPECT_EQ(uciRevertPackage(s.ctx(), &pkg, nullptr), 0);
    s.adopt(pkg);
    EXPECT_EQ(read("tmp/.uci/t"), "");
    EXPECT_EQ(uciGetUint32(s.ctx(), uci_lookup_section(s.ctx(), s.pkg(), "main"), "port", &v), 0);
    EXPECT_EQ(uciRevertPackage(s.ctx(), nullptr, nullptr), -1);
    EXPECT_EQ(uciDeleteSection(s.ctx(), s.pkg(), "t", "main"), 0);
    EXPECT_EQ(s.commit(), 0);
    EXPECT_EQ(read("etc/config/t"), "\nconfig t\n\toption name 'second'\n\n");
}
