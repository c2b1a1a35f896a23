// MAC address texts: validation of the colon form, upper-casing, and the conversions between colon and bare form,
// with the log lines that explain a refusal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "macfilter.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// Collects what the daemon's logging writes to stderr (GWCONF_LOG_STDERR=1) while it lives.
class LogCapture {
public:
    LogCapture()
    {
        setenv("GWCONF_LOG_STDERR", "1", 1);
        fd_ = memfd_create("log", 0);
        saved_ = dup(STDERR_FILENO);
        dup2(fd_, STDERR_FILENO);
    }
    ~LogCapture()
    {
        restore();
        close(fd_);
    }
    std::string text()
    {
        restore();
        std::string out;
        char buf[4096];
        ssize_t n;
        lseek(fd_, 0, SEEK_SET);
        while ((n = read(fd_, buf, sizeof buf)) > 0)
            out.append(buf, static_cast<size_t>(n));
        return out;
    }

private:
    void restore()
    {
        if (saved_ >= 0) {
            dup2(saved_, STDERR_FILENO);
            close(saved_);
            saved_ = -1;
        }
    }
    int fd_ = -1;
    int saved_ = -1;
};

int check(const std::string &mac)
{
    return macValidCheck(mac.c_str(), static_cast<int>(mac.size()));
}

TEST(MacValidCheck, AcceptsColonFormInAnyCase)
{
    EXPECT_EQ(check("AA:BB:CC:DD:EE:FF"), 0);
    EXPECT_EQ(check("aa:bb:cc:dd:ee:ff"), 0);
    EXPECT_EQ(check("01:23:45:67:89:aB"), 0);
    EXPECT_EQ(check("00:00:00:00:00:00"), 0);
}

TEST(MacValidCheck, RefusesEveryWrongCharacterAtEveryPosition)
{
    const std::string good = "A0:B1:C2:D3:E4:F5";
    for (size_t i = 0; i < good.size(); ++i) {
        const bool colonSlot = i % 3 == 2;
        // A hexadecimal digit where the colon belongs, a colon or a non-hex letter where a digit belongs.
        for (char bad : colonSlot ? std::string("0A-.") : std::string(":gG -")) {
            std::string mac = good;
            mac[i] = bad;
            LogCapture log;
            EXPECT_EQ(check(mac), -1) << mac;
            EXPECT_THAT(log.text(), HasSubstr("error [macValidCheck:"));
        }
    }
}

TEST(MacValidCheck, LogsTheTextOrTheLengthOfARefusal)
{
    {
        LogCapture log;
        EXPECT_EQ(check("AA-BB-CC-DD-EE-FF"), -1);
        EXPECT_THAT(log.text(), HasSubstr("]macData(AA-BB-CC-DD-EE-FF) check fail!\n"));
    }
    {
        LogCapture log;
        EXPECT_EQ(check("AA:BB:CC:DD:EE:FG"), -1);
        EXPECT_THAT(log.text(), HasSubstr("]macData(AA:BB:CC:DD:EE:FG) check fail!\n"));
    }
    for (const std::string mac : {"AA:BB:CC:DD:EE:F", "AA:BB:CC:DD:EE:FF0", "", "AABBCCDDEEFF"}) {
        LogCapture log;
        EXPECT_EQ(check(mac), -1);
        EXPECT_THAT(log.text(), HasSubstr("]macData len(" + std::to_string(mac.size()) + ") fail!\n"));
    }
    LogCapture log;
    EXPECT_EQ(macValidCheck(nullptr, 17), -1);
    EXPECT_THAT(log.text(), HasSubstr("]macData len(17) fail!\n"));
}

TEST(MacToUpper, UpperCasesAny17CharacterTextOnly)
{
    char mac[18] = "aa:bb:cc:dd:ee:0f";
    EXPECT_EQ(macToUpper(mac), 0);
    EXPECT_STREQ(mac, "AA:BB:CC:DD:EE:0F");

    char odd[18] = "zz:zz:zz:zz:zz:z-";   // the format is not examined
    EXPECT_EQ(macToUpper(odd), 0);
    EXPECT_STREQ(odd, "ZZ:ZZ:ZZ:ZZ:ZZ:Z-");

    LogCapture log;
    char shortMac[18] = "aa:bb:cc:dd:ee:f";
    char longMac[20] = "aa:bb:cc:dd:ee:ff0";
    EXPECT_EQ(macToUpper(shortMac), -1);
    EXPECT_EQ(macToUpper(longMac), -1);
    EXPECT_EQ(macToUpper(nullptr), -1);
    EXPECT_STREQ(shortMac, "aa:bb:cc:dd:ee:f");
    EXPECT_STREQ(longMac, "aa:bb:cc:dd:ee:ff0");
    EXPECT_THAT(log.text(), Not(HasSubstr("error")));   // a wrong length is refused silently
}

TEST(MacColons, ConvertBetweenColonAndBareForm)
{
    char mac[18] = "AA:BB:CC:DD:EE:FF";
    EXPECT_EQ(macDelColon(mac), 0);
    EXPECT_STREQ(mac, "AABBCCDDEEFF");
    macAddColon(mac);
    EXPECT_STREQ(mac, "AA:BB:CC:DD:EE:FF");

    char lower[18] = "aabbccddeeff";   // case is left alone
    macAddColon(lower);
    EXPECT_STREQ(lower, "aa:bb:cc:dd:ee:ff");

    char anything[18] = "AABBCCDDEEF/";   // the characters are not examined
    macAddColon(anything);
    EXPECT_STREQ(anything, "AA:BB:CC:DD:EE:F/");
}

TEST(MacColons, RefuseOtherLengthsAndLeaveTheTextAlone)
{
    {
        LogCapture log;
        char mac[18] = "AA:BB:CC:DD:EE:F";
        EXPECT_EQ(macDelColon(mac), -1);
        EXPECT_STREQ(mac, "AA:BB:CC:DD:EE:F");
        EXPECT_THAT(log.text(), HasSubstr("error [macDelColon:"));
    }
    for (const char *text : {"AABBCCDDEEF", "AABBCCDDEEFF0", ""}) {
        LogCapture log;
        char mac[18] = {};
        strcpy(mac, text);
        macAddColon(mac);
        EXPECT_STREQ(mac, text);
        EXPECT_THAT(log.text(), HasSubstr("]macData len(" + std::to_string(strlen(text)) + ") fail!\n"));
    }
}

} // namespace
