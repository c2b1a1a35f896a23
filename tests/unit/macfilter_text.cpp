// MAC filter texts: the colon form's check and upper-casing, the bare form of the agent, the split of a stored or
// agent list into entries and of an entry into MAC and name, and which entries a list may use.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "macfilter.h"

namespace {

int check(const std::string &mac) { return macValidCheck(mac.c_str(), static_cast<int>(mac.size())); }

std::string split(std::string text, const char *delims, int max = MACFILTER_MAX_ENTRIES)
{
    std::vector<char *> pieces(static_cast<size_t>(max) + 1, nullptr);
    const int n = macListSplit(text.data(), delims, pieces.data(), max);
    EXPECT_EQ(pieces[static_cast<size_t>(max)], nullptr) << "wrote past the pieces it may use";
    std::string out;
    for (int i = 0; i < n; ++i)
        out += std::string(i ? "|" : "") + pieces[static_cast<size_t>(i)];
    return out;
}

// "MAC|name|usable", the record filled from a piece in the stored (17) or the agent's (12) form.
std::string entry(const std::string &piece, size_t macLen = MAC_COLON_LEN)
{
    MacFilterEntry e;
    std::memset(&e, 0x55, sizeof e);  // the split must not rely on a zeroed record
    macEntrySplit(piece.c_str(), macLen, &e);
    const std::string split = std::string(e.mac) + "|" + e.name;
    return split + (macEntryUsable(&e) ? "|usable " + std::string(e.mac) : "");
}

} // namespace

TEST(MacText, ColonFormIsCheckedAndUpperCased)
{
    for (const char *good : {"AA:BB:CC:DD:EE:FF", "aa:bb:cc:dd:ee:ff", "01:23:45:67:89:aB"})
        EXPECT_EQ(check(good), 0) << good;
    const std::string base = "A0:B1:C2:D3:E4:F5";
    for (size_t i = 0; i < base.size(); ++i)
        for (char bad : i % 3 == 2 ? std::string("0A-.") : std::string(":gG -")) {
            std::string mac = base;
            mac[i] = bad;
            EXPECT_EQ(check(mac), -1) << mac;
        }
    for (const char *bad : {"AA:BB:CC:DD:EE:F", "AA:BB:CC:DD:EE:FF0", "", "AABBCCDDEEFF"})
        EXPECT_EQ(check(bad), -1) << bad;
    EXPECT_EQ(macValidCheck(nullptr, 17), -1);

    char mac[20] = "aa:bb:cc:dd:ee:0f", odd[20] = "zz:zz:zz:zz:zz:z-", longer[20] = "aa:bb:cc:dd:ee:ff0";
    EXPECT_EQ(macToUpper(mac), 0);
    EXPECT_EQ(macToUpper(odd), 0);  // any 17 characters
    EXPECT_EQ(macToUpper(longer), -1);
    EXPECT_EQ(std::string(mac) + " " + odd + " " + longer, "AA:BB:CC:DD:EE:0F ZZ:ZZ:ZZ:ZZ:ZZ:Z- aa:bb:cc:dd:ee:ff0");
    EXPECT_EQ(macDelColon(mac), 0);
    EXPECT_STREQ(mac, "AABBCCDDEE0F");
    macAddColon(mac);
    EXPECT_STREQ(mac, "AA:BB:CC:DD:EE:0F");
    char shortMac[20] = "AABBCCDDEEF";
    macAddColon(shortMac);
    EXPECT_STREQ(shortMac, "AABBCCDDEEF");
}

TEST(MacText, ListsSplitIntoAtMost32Entries)
{
    EXPECT_EQ(split("   a    b  ", " "), "a|b");
    EXPECT_EQ(split(",,A/x,,B/y z,", ","), "A/x|B/y z");  // a blank is no separator in the agent's text
    EXPECT_EQ(split("   ", " "), "");
    std::string many;
    for (int i = 0; i < 40; ++i)
        many += "t" + std::to_string(i) + " ";
    EXPECT_EQ(split(many, " ").substr(split(many, " ").rfind('|')), "|t31");
    EXPECT_EQ(split("a b c d", " ", 2), "a|b");
}

TEST(MacText, EntriesSplitIntoMacAndName)
{
    struct {
        const char *piece;
        size_t macLen;
        const char *expected;
    } cases[] = {
        {"aa:bb:cc:dd:ee:0f/tv", MAC_COLON_LEN, "aa:bb:cc:dd:ee:0f|tv|usable AA:BB:CC:DD:EE:0F"},
        {"AA:BB:CC:DD:EE:01#tv", MAC_COLON_LEN, "AA:BB:CC:DD:EE:01|tv|usable AA:BB:CC:DD:EE:01"},  // any separator
        {"zz-zz-zz-zz-zz-zz/tv", MAC_COLON_LEN, "zz-zz-zz-zz-zz-zz|tv|usable ZZ-ZZ-ZZ-ZZ-ZZ-ZZ"},  // not validated
        {"AA:BB:CC:DD:EE:01/", MAC_COLON_LEN, "AA:BB:CC:DD:EE:01|"},                              // no name
        {"AA:BB:CC/tv", MAC_COLON_LEN, "AA:BB:CC/tv|"},                                           // all MAC
        {"", MAC_COLON_LEN, "|"},
        {"AABBCCDDEEFF/phone", MAC_BARE_LEN, "AABBCCDDEEFF|phone"},
        {"AABBCCDDEEF/cam", MAC_BARE_LEN, "AABBCCDDEEF/|am"},  // one digit short: the name loses a letter
    };
    for (const auto &c : cases)
        EXPECT_EQ(entry(c.piece, c.macLen), c.expected) << c.piece;
    // A piece is cut to 63 characters first, the name to 44.
    EXPECT_EQ(entry("AA:BB:CC:DD:EE:01/" + std::string(100, 'n')),
              "AA:BB:CC:DD:EE:01|" + std::string(44, 'n') + "|usable AA:BB:CC:DD:EE:01");
    std::string models;
    for (const char *mode : {"deny", "allow", "no", "", "Deny", "denyx", "allo"})
        models += std::to_string(macFilterModelOf(mode));
    EXPECT_EQ(models, std::to_string(MACFILTER_MODEL_BLACK) + std::to_string(MACFILTER_MODEL_WHITE) + "00000");
}
