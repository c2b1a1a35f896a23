// The platform library's typed accessors and list/section helpers on packages loaded from a private temporary
// configuration folder: strict number reading, cut texts, and edits that reach the file once committed.
#include "routeutils/routeutils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace fs = std::filesystem;

namespace {

class Accessors : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/gwconf-accessors-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        fs::create_directory(dir_ / "config");
        std::ofstream(dir_ / "config" / "demo") << "config demo 'main'\n"
                                                   "\toption enabled '1'\n"
                                                   "\toption port '8080'\n"
                                                   "\toption name 'a-rather-long-device-name'\n"
                                                   "\tlist member 'lan1'\n"
                                                   "\tlist member 'lan2'\n\n"
                                                   "config demo 'other'\n"
                                                   "\toption enabled 'off'\n";
        ctx_ = uci_alloc_context();
        ASSERT_NE(ctx_, nullptr);
        ASSERT_EQ(uci_set_confdir(ctx_, (dir_ / "config").c_str()), 0);
        ASSERT_EQ(uci_set_savedir(ctx_, (dir_ / "save").c_str()), 0);
        ASSERT_EQ(uci_load(ctx_, "demo", &pkg_), 0);
        main_ = uci_lookup_section(ctx_, pkg_, "main");
        other_ = uci_lookup_section(ctx_, pkg_, "other");
        ASSERT_NE(main_, nullptr);
        ASSERT_NE(other_, nullptr);
    }
    void TearDown() override
    {
        if (ctx_)
            uci_free_context(ctx_);
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    std::string file() const
    {
        std::ifstream in(dir_ / "config" / "demo");
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    // Commits and looks the sections up again in the reloaded package.
    void commit()
    {
        ASSERT_EQ(uci_commit(ctx_, &pkg_, false), 0);
        main_ = uci_lookup_section(ctx_, pkg_, "main");
        other_ = uci_lookup_section(ctx_, pkg_, "other");
    }

    fs::path dir_;
    uci_context *ctx_ = nullptr;
    uci_package *pkg_ = nullptr;
    uci_section *main_ = nullptr;
    uci_section *other_ = nullptr;
};

}  // namespace

TEST_F(Accessors, StringsAreCutToTheBufferAndListsAreNoStrings)
{
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(uciGetString(ctx_, main_, "name", buf, 8), 0);
    EXPECT_STREQ(buf, "a-rathe");
    EXPECT_EQ(buf[8], '#') << "written past the given size";

    std::memset(buf, '#', sizeof buf);
    EXPECT_NE(uciGetString(ctx_, main_, "member", buf, 16), 0);
    EXPECT_NE(uciGetString(ctx_, main_, "nosuch", buf, 16), 0);
    EXPECT_NE(uciGetString(ctx_, main_, "name", buf, 0), 0);
    EXPECT_EQ(buf[0], '#') << "a failed read wrote into the buffer";
}

TEST_F(Accessors, NumbersAreReadStrictly)
{
    uint32_t v = 7;
    EXPECT_EQ(uciGetUint32(ctx_, main_, "port", &v), 0);
    EXPECT_EQ(v, 8080u);

    const char *bad[] = {"4294967296", "-1", "+1", " 1", "1 ", "1a", "", "0x10", "99999999999999999999999"};
    for (const char *text : bad) {
        ASSERT_EQ(uciSetString(ctx_, pkg_, main_, "port", text), 0) << text;
        v = 7;
        EXPECT_NE(uciGetUint32(ctx_, main_, "port", &v), 0) << "accepted \"" << text << "\"";
        EXPECT_EQ(v, 7u) << "a failed read changed the output for \"" << text << "\"";
    }
    ASSERT_EQ(uciSetUint32(ctx_, pkg_, main_, "port", 4294967295u), 0);
    EXPECT_EQ(uciGetUint32(ctx_, main_, "port", &v), 0);
    EXPECT_EQ(v, 4294967295u);
    EXPECT_NE(uciGetUint32(ctx_, main_, "member", &v), 0);
}

TEST_F(Accessors, EnableFlagRoundTripsThroughTheFile)
{
    uint8_t on = 9;
    EXPECT_EQ(uciGetEnabled(ctx_, main_, &on), 0);
    EXPECT_EQ(on, 1);
    EXPECT_EQ(uciGetEnabled(ctx_, other_, &on), 0);
    EXPECT_EQ(on, 0);

    ASSERT_EQ(uciSetEnabled(ctx_, pkg_, main_, 0), 0);
    ASSERT_EQ(uciSetEnabled(ctx_, pkg_, other_, 1), 0);
    ASSERT_EQ(uciSetUint32(ctx_, pkg_, other_, "port", 53), 0);
    commit();
    EXPECT_NE(file().find("config demo 'other'\n\toption enabled '1'\n\toption port '53'\n"), std::string::npos)
        << file();
    EXPECT_EQ(uciGetEnabled(ctx_, main_, &on), 0);
    EXPECT_EQ(on, 0);

    ASSERT_EQ(uciSetString(ctx_, pkg_, main_, "enabled", "maybe"), 0);
    on = 9;
    EXPECT_NE(uciGetEnabled(ctx_, main_, &on), 0);
    EXPECT_EQ(on, 9);
}

TEST_F(Accessors, ListAndSectionEditsLandWithTheCallersCommit)
{
    EXPECT_EQ(publicUciAddList(ctx_, "demo", "main", "member", "lan3"), 0);
    EXPECT_EQ(publicUciDelList(ctx_, "demo", "main", "member", "lan1"), 0);
    EXPECT_EQ(publicUciDelSection(ctx_, pkg_, "demo", "other"), 0);
    EXPECT_EQ(file().find("lan3"), std::string::npos) << "written before the commit";
    commit();
    const std::string text = file();
    EXPECT_NE(text.find("\tlist member 'lan2'\n\tlist member 'lan3'\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("lan1"), std::string::npos) << text;
    EXPECT_EQ(text.find("'other'"), std::string::npos) << text;

    EXPECT_NE(publicUciAddList(ctx_, "demo", "nosuch", "member", "x"), 0);
    EXPECT_NE(publicUciDelSection(ctx_, pkg_, "demo", "nosuch"), 0);
    EXPECT_NE(publicUciAddList(ctx_, "demo", "main", "member", nullptr), 0);
}
