// Parsing of MAC filter lists: the blank-joined stored list, the agent's comma-separated entries text, the split of
// one entry into MAC and name, the usability test, and the bounded copy every buffer goes through.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "macfilter.h"

namespace {

std::vector<std::string> split(std::string text, const char *delims, int max = MACFILTER_MAX_ENTRIES)
{
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    std::vector<char *> pieces(static_cast<size_t>(max) + 1, nullptr);
    int n = macListSplit(buf.data(), delims, pieces.data(), max);
    std::vector<std::string> out;
    for (int i = 0; i < n; ++i)
        out.emplace_back(pieces[static_cast<size_t>(i)]);
    EXPECT_EQ(pieces[static_cast<size_t>(max)], nullptr) << "wrote past the pieces it may use";
    return out;
}

using Pieces = std::vector<std::string>;

TEST(MacListSplit, RunsOfDelimitersCountAsOneAndEmptyPiecesVanish)
{
    EXPECT_EQ(split("a b c", " "), (Pieces{"a", "b", "c"}));
    EXPECT_EQ(split("   a    b  ", " "), (Pieces{"a", "b"}));
    EXPECT_EQ(split(",,A/x,,B/y,", ","), (Pieces{"A/x", "B/y"}));
    EXPECT_EQ(split("A/x y", ","), (Pieces{"A/x y"}));   // a blank is no separator for the agent's text
    EXPECT_EQ(split("", " "), Pieces{});
    EXPECT_EQ(split("   ", " "), Pieces{});
}

TEST(MacListSplit, StopsAtTheLimit)
{
    std::string text;
    for (int i = 0; i < 40; ++i)
        text += "t" + std::to_string(i) + " ";
    Pieces got = split(text, " ");
    ASSERT_EQ(got.size(), 32u);
    EXPECT_EQ(got.front(), "t0");
    EXPECT_EQ(got.back(), "t31");
    EXPECT_EQ(split("a b c d", " ", 2), (Pieces{"a", "b"}));
}

MacFilterEntry entryOf(const std::string &piece, size_t macLen = MAC_COLON_LEN)
{
    MacFilterEntry e;
    memset(&e, 0x55, sizeof e);   // the split must not rely on a zeroed record
    macEntrySplit(piece.c_str(), macLen, &e);
    return e;
}

TEST(MacEntrySplit, StoredEntryIsMacSlashName)
{
    MacFilterEntry e = entryOf("AA:BB:CC:DD:EE:01/tv");
    EXPECT_STREQ(e.mac, "AA:BB:CC:DD:EE:01");
    EXPECT_STREQ(e.name, "tv");

    // The separator is skipped without being looked at.
    e = entryOf("AA:BB:CC:DD:EE:01#tv");
    EXPECT_STREQ(e.mac, "AA:BB:CC:DD:EE:01");
    EXPECT_STREQ(e.name, "tv");

    e = entryOf("AA:BB:CC:DD:EE:01/");
    EXPECT_STREQ(e.mac, "AA:BB:CC:DD:EE:01");
    EXPECT_STREQ(e.name, "");

    e = entryOf("AA:BB:CC/tv");   // a short token is all MAC
    EXPECT_STREQ(e.mac, "AA:BB:CC/tv");
    EXPECT_STREQ(e.name, "");

    e = entryOf("");
    EXPECT_STREQ(e.mac, "");
    EXPECT_STREQ(e.name, "");
}

TEST(MacEntrySplit, LongNamesAndTokensAreCut)
{
    const std::string mac = "AA:BB:CC:DD:EE:01";
    // A token is cut to 63 characters first, so the name keeps 63 - 18 = 45 at most; the record keeps 44.
    MacFilterEntry e = entryOf(mac + "/" + std::string(100, 'n'));
    EXPECT_EQ(std::string(e.name), std::string(44, 'n'));

    e = entryOf(mac + "/" + std::string(44, 'x'));
    EXPECT_EQ(std::string(e.name), std::string(44, 'x'));

    e = entryOf(mac + "/" + std::string(30, 'y'));
    EXPECT_EQ(std::string(e.name), std::string(30, 'y'));
}

TEST(MacEntrySplit, AgentEntryUsesTheBareForm)
{
    MacFilterEntry e = entryOf("AABBCCDDEEFF/phone", MAC_BARE_LEN);
    EXPECT_STREQ(e.mac, "AABBCCDDEEFF");
    EXPECT_STREQ(e.name, "phone");

    // One digit short: the '/' becomes part of the MAC and the name loses its first letter.
    e = entryOf("AABBCCDDEEF/cam", MAC_BARE_LEN);
    EXPECT_STREQ(e.mac, "AABBCCDDEEF/");
    EXPECT_STREQ(e.name, "am");
    macAddColon(e.mac);
    EXPECT_STREQ(e.mac, "AA:BB:CC:DD:EE:F/");

    e = entryOf("AABBCCDDEEFF/", MAC_BARE_LEN);
    EXPECT_STREQ(e.name, "");
}

TEST(MacEntryUsable, NeedsMacOfSeventeenAndAName)
{
    MacFilterEntry e = entryOf("aa:bb:cc:dd:ee:0f/tv");
    EXPECT_TRUE(macEntryUsable(&e));
    EXPECT_STREQ(e.mac, "AA:BB:CC:DD:EE:0F");   // upper-cased on the way

    e = entryOf("AA:BB:CC:DD:EE:0F/");
    EXPECT_FALSE(macEntryUsable(&e));
    e = entryOf("AA:BB:CC:DD:EE/tv");
    EXPECT_FALSE(macEntryUsable(&e));
    e = entryOf("");
    EXPECT_FALSE(macEntryUsable(&e));

    // The digits are not validated: any 17 characters pass.
    e = entryOf("zz-zz-zz-zz-zz-zz/tv");
    EXPECT_TRUE(macEntryUsable(&e));
    EXPECT_STREQ(e.mac, "ZZ-ZZ-ZZ-ZZ-ZZ-ZZ");
}

TEST(MacFilterModelOf, OnlyDenyAndAllowNameAList)
{
    EXPECT_EQ(macFilterModelOf("deny"), MACFILTER_MODEL_BLACK);
    EXPECT_EQ(macFilterModelOf("allow"), MACFILTER_MODEL_WHITE);
    EXPECT_EQ(macFilterModelOf("no"), MACFILTER_MODEL_OFF);
    EXPECT_EQ(macFilterModelOf(""), MACFILTER_MODEL_OFF);
    EXPECT_EQ(macFilterModelOf("Deny"), MACFILTER_MODEL_OFF);
    EXPECT_EQ(macFilterModelOf("denyx"), MACFILTER_MODEL_OFF);
    EXPECT_EQ(macFilterModelOf("allo"), MACFILTER_MODEL_OFF);
}

TEST(MfCopy, CutsAtTheLimitAndTheBufferAndAlwaysTerminates)
{
    char small[8];
    memset(small, 'x', sizeof small);
    mfCopy(small, "0123456789");
    EXPECT_STREQ(small, "0123456");

    char buf[18];
    memset(buf, 'x', sizeof buf);
    mfCopy(buf, "AA:BB:CC:DD:EE:FF:00:11", 17);
    EXPECT_STREQ(buf, "AA:BB:CC:DD:EE:FF");

    mfCopy(buf, "abc", 100);   // a limit beyond the buffer is the buffer
    EXPECT_STREQ(buf, "abc");
    mfCopy(buf, "abcdef", 2);
    EXPECT_STREQ(buf, "ab");
    mfCopy(buf, nullptr);
    EXPECT_STREQ(buf, "");
}

} // namespace
