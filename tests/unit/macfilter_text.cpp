// MAC filter texts: the colon form's check and upper-casing, the split of a stored or agent list into at most 32
// entries and of an entry into MAC and name, and which entries a list may use.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "macfilter.h"

TEST(MacText, ColonFormIsCheckedAndUpperCased)
{
    for (const std::string good : {"AA:BB:CC:DD:EE:FF", "aa:bb:cc:dd:ee:ff", "01:23:45:67:89:aB"})
        EXPECT_EQ(macValidCheck(good.c_str(), 17), 0) << good;
    std::vector<std::string> bad = {"AA:BB:CC:DD:EE:F", "AA:BB:CC:DD:EE:FF0", "", "AABBCCDDEEFF"};
    for (size_t i = 0; i < 17; ++i)  // a wrong character at every position
        for (char c : i % 3 == 2 ? std::string("0A-.") : std::string(":gG -"))
            bad.push_back(std::string("A0:B1:C2:D3:E4:F5").replace(i, 1, 1, c));
    for (const std::string &mac : bad)
        EXPECT_EQ(macValidCheck(mac.c_str(), static_cast<int>(mac.size())), -1) << mac;
    char mac[20] = "aa:bb:cc:dd:ee:0f", odd[20] = "zz:zz:zz:zz:zz:z-", longer[20] = "aa:bb:cc:dd:ee:ff0";
    EXPECT_EQ(macToUpper(mac) + macToUpper(odd), 0);  // any 17 characters
    EXPECT_EQ(macToUpper(longer), -1);
    EXPECT_EQ(std::string(mac) + " " + odd + " " + longer, "AA:BB:CC:DD:EE:0F ZZ:ZZ:ZZ:ZZ:ZZ:Z- aa:bb:cc:dd:ee:ff0");
}

TEST(MacText, ListsAndEntries)
{
    auto split = [](std::string text, const char *delims, int max) {
        std::vector<char *> pieces(static_cast<size_t>(max) + 2, nullptr);
        std::string out = std::to_string(macListSplit(text.data(), delims, pieces.data(), max));
        for (size_t i = 0; pieces[i]; ++i)
            out += std::string("|") + pieces[i];
        return out;  // the count, then the pieces: none past max
    };
    EXPECT_EQ(split("   a    b  ", " ", 32), "2|a|b");
    EXPECT_EQ(split(",,A/x,,B/y z,", ",", 32), "2|A/x|B/y z");  // a blank is no separator in the agent's text
    EXPECT_EQ(split("a b c d", " ", 2), "2|a|b");

    const struct {
        const char *piece;
        size_t macLen;
        const char *entry;  // MAC|name, then the upper-cased MAC when the entry is usable
    } cases[] = {
        {"aa:bb:cc:dd:ee:0f/tv", MAC_COLON_LEN, "aa:bb:cc:dd:ee:0f|tv AA:BB:CC:DD:EE:0F"},
        {"AA:BB:CC:DD:EE:01#tv", MAC_COLON_LEN, "AA:BB:CC:DD:EE:01|tv AA:BB:CC:DD:EE:01"},  // any separator
        {"zz-zz-zz-zz-zz-zz/tv", MAC_COLON_LEN, "zz-zz-zz-zz-zz-zz|tv ZZ-ZZ-ZZ-ZZ-ZZ-ZZ"},  // not validated
        {"AA:BB:CC:DD:EE:01/", MAC_COLON_LEN, "AA:BB:CC:DD:EE:01|"},                       // no name
        {"AA:BB:CC/tv", MAC_COLON_LEN, "AA:BB:CC/tv|"},
        {"AABBCCDDEEFF/phone", MAC_BARE_LEN, "AABBCCDDEEFF|phone"},
        {"AABBCCDDEEF/cam", MAC_BARE_LEN, "AABBCCDDEEF/|am"},  // one digit short: the name loses a letter
    };
    for (const auto &c : cases) {
        MacFilterEntry e;
        std::memset(&e, 0x55, sizeof e);  // the split must not rely on a zeroed record
        macEntrySplit(c.piece, c.macLen, &e);
        const std::string got = std::string(e.mac) + "|" + e.name;
        EXPECT_EQ(got + (macEntryUsable(&e) ? " " + std::string(e.mac) : ""), c.entry) << c.piece;
    }
    MacFilterEntry e;  // a piece is cut to 63 characters, the name to 44
    macEntrySplit(("AA:BB:CC:DD:EE:01/" + std::string(100, 'n')).c_str(), MAC_COLON_LEN, &e);
    EXPECT_EQ(std::string(e.name), std::string(44, 'n'));
}
