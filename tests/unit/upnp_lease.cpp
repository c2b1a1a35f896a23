// The UPnP lease reader: how a lease line splits into its fields, how short, long, odd and binary lines are
// read, and the limit of 128 lines. Files are in-memory streams.
#include <gtest/gtest.h>

#include <stdio.h>

#include <string>
#include <vector>

#include "upnp.h"

namespace {

UpnpLeaseEntry parse(const std::string &line)
{
    UpnpLeaseEntry e;
    memset(&e, 0xA5, sizeof e);  // every byte must be set by the parser, not by luck
    upnpParseLeaseLine(line.c_str(), &e);
    return e;
}

// The entries the reader makes of a whole file's bytes.
std::vector<UpnpLeaseEntry> readAll(const std::string &bytes)
{
    std::vector<UpnpLeaseEntry> out;
    std::string copy = bytes;
    if (copy.empty())
        copy = "x";  // a stream of one byte, read past it below: fmemopen refuses a size of 0
    FILE *f = fmemopen(copy.data(), copy.size(), "r");
    if (f != nullptr && bytes.empty())
        (void)getc(f);
    EXPECT_NE(f, nullptr);
    if (f == nullptr)
        return out;
    const int n = upnpReadLeases(
        f, [](const UpnpLeaseEntry *e, void *arg) { static_cast<std::vector<UpnpLeaseEntry> *>(arg)->push_back(*e); },
        &out);
    fclose(f);
    EXPECT_EQ(n, static_cast<int>(out.size()));
    return out;
}

} // namespace

TEST(UpnpLeaseLine, AllSixFieldsAndADescriptionWithColons)
{
    const UpnpLeaseEntry e = parse("TCP:8080:192.168.1.20:80:1700000000:web: admin page:8080");
    EXPECT_STREQ(e.protocol, "TCP");
    EXPECT_EQ(e.externalPort, 8080u);
    EXPECT_STREQ(e.internalIP, "192.168.1.20");
    EXPECT_EQ(e.internalPort, 80u);
    EXPECT_STREQ(e.description, "web: admin page:8080");
    EXPECT_EQ(upnpProtocolNumber(e.protocol), 0u);

    EXPECT_STREQ(parse("UDP:53:10.0.0.2:53:0:").description, ""); // ends right after the fifth colon
    EXPECT_STREQ(parse("UDP:53:10.0.0.2:53:0:dns\r\n").description, "dns");
    EXPECT_STREQ(parse("UDP:53:10.0.0.2:53:0:dns\r\r").description, "dns");
    EXPECT_STREQ(parse("UDP:53:10.0.0.2:53:0:a\rb").description, "a\rb"); // only trailing ones go
}

TEST(UpnpLeaseLine, ProtocolNumbers)
{
    EXPECT_EQ(upnpProtocolNumber("tcp"), 0u);
    EXPECT_EQ(upnpProtocolNumber("Tcp"), 1u);
    EXPECT_EQ(upnpProtocolNumber("TC"), 1u);
    // The protocol field keeps 3 characters: a longer text is cut first.
    const UpnpLeaseEntry e = parse("TCPX:1:a:2:3:d");
    EXPECT_STREQ(e.protocol, "TCP");
    EXPECT_STREQ(parse("udplite:1:a:2:3:d").protocol, "udp");
}

TEST(UpnpLeaseLine, ShortLinesLeaveTheMissingFieldsEmpty)
{
    UpnpLeaseEntry e = parse("");
    EXPECT_STREQ(e.protocol, "");
    EXPECT_EQ(e.externalPort, 0u);
    EXPECT_STREQ(e.internalIP, "");
    EXPECT_EQ(e.internalPort, 0u);
    EXPECT_STREQ(e.description, "");

    e = parse("UDP:5353");
    EXPECT_STREQ(e.protocol, "UDP");
    EXPECT_EQ(e.externalPort, 5353u);
    EXPECT_STREQ(e.internalIP, "");
    EXPECT_STREQ(e.description, "");

    e = parse("TCP:1:10.1.1.1:2:12345"); // five fields, no description
    EXPECT_EQ(e.internalPort, 2u);
    EXPECT_STREQ(e.description, "");

    e = parse("TCP:::::");
    EXPECT_EQ(e.externalPort, 0u);
    EXPECT_STREQ(e.internalIP, "");
    EXPECT_STREQ(e.description, "");

    e = parse("TCP:1:10.1.1.1\r\n"); // line ends are not part of a short line's last field either
    EXPECT_STREQ(e.internalIP, "10.1.1.1");
}

TEST(UpnpLeaseLine, PortsAndAddressesOutOfShape)
{
    EXPECT_EQ(parse("TCP:65535:a:1:0:d").externalPort, 65535u);
    EXPECT_EQ(parse("TCP:65536:a:1:0:d").externalPort, 0u);
    EXPECT_EQ(parse("TCP:99999999999999999999999:a:1:0:d").externalPort, 0u);
    EXPECT_EQ(parse("TCP:80x:a:1:0:d").externalPort, 80u);
    EXPECT_EQ(parse("TCP:-80:a:1:0:d").externalPort, 0u);
    EXPECT_EQ(parse("TCP: 80:a:1:0:d").externalPort, 0u);
    EXPECT_EQ(parse("TCP:1:a:http:0:d").internalPort, 0u);

    // The address keeps 15 characters; an IPv6 text is split at its colons like any other.
    EXPECT_STREQ(parse("TCP:1:192.168.100.200.300:2:0:d").internalIP, "192.168.100.200");
    EXPECT_STREQ(parse("TCP:1:fe80::1:2:0:d").internalIP, "fe80");

    EXPECT_EQ(upnpLeadingNumber("4294967296", UINT32_MAX), UINT32_MAX);
    EXPECT_EQ(upnpLeadingNumber("12abc", 100), 12u);
    EXPECT_EQ(upnpLeadingNumber("", 100), 0u);
    EXPECT_EQ(upnpLeadingNumber(nullptr, 100), 0u);
}

TEST(UpnpLeaseFile, OneEntryPerLineAtMost128)
{
    std::string file;
    for (int i = 1; i <= 200; ++i)
        file += "TCP:" + std::to_string(i) + ":192.168.1.2:80:0:lease " + std::to_string(i) + "\n";
    const auto entries = readAll(file);
    ASSERT_EQ(entries.size(), 128u);
    EXPECT_EQ(entries.front().externalPort, 1u);
    EXPECT_STREQ(entries.back().description, "lease 128");

    EXPECT_TRUE(readAll("").empty());
    EXPECT_EQ(readAll("\n").size(), 1u);            // one empty line is one (empty) entry
    EXPECT_EQ(readAll("\n\n\n").size(), 3u);
    const auto last = readAll("UDP:1:a:2:0:x\nTCP:3:b:4:0:no line end");
    ASSERT_EQ(last.size(), 2u);
    EXPECT_STREQ(last[1].description, "no line end");
}

TEST(UpnpLeaseFile, LongLinesAreCutAndTheirRestSkipped)
{
    const std::string longDesc(5000, 'x');
    const auto entries = readAll("TCP:1:a:2:0:" + longDesc + "\nUDP:9:b:8:0:next\n");
    ASSERT_EQ(entries.size(), 2u); // the rest of the long line is not a line of its own
    EXPECT_EQ(strlen(entries[0].description), static_cast<size_t>(UPNP_LEASE_LINE_MAX) - strlen("TCP:1:a:2:0:"));
    EXPECT_STREQ(entries[1].protocol, "UDP");
    EXPECT_STREQ(entries[1].description, "next");
}

TEST(UpnpLeaseFile, BinaryBytes)
{
    // A NUL ends the line's text; the line after it is read as usual. Other bytes are kept as they are.
    std::string file = "TCP:1:a:2:0:be";
    file += '\0';
    file += "fore\nUDP:3:b:4:0:\x01\xff\xfe\x7f\n";
    const auto entries = readAll(file);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_STREQ(entries[0].description, "be");
    EXPECT_STREQ(entries[1].description, "\x01\xff\xfe\x7f");

    std::string nulFirst(1, '\0');
    nulFirst += "TCP:1:a:2:0:x\n";
    const auto blank = readAll(nulFirst);
    ASSERT_EQ(blank.size(), 1u);
    EXPECT_STREQ(blank[0].protocol, "");
}
