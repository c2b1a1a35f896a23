// The UPnP lease reader: how a line splits into protocol, ports, address and description, and how long, odd and
// binary lines are read. Files are in-memory streams.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "upnp.h"

namespace {

// Each entry of the file as "protocol number|external|address|internal|description", one a line.
std::string read(std::string bytes)
{
    FILE *f = fmemopen(bytes.data(), bytes.size(), "r");
    EXPECT_NE(f, nullptr);
    std::string out;
    upnpReadLeases(f, [](const UpnpLeaseEntry *e, void *arg) {
        *static_cast<std::string *>(arg) += std::string(e->protocol) + " " + std::to_string(upnpProtocolNumber(e->protocol)) +
            "|" + std::to_string(e->externalPort) + "|" + e->internalIP + "|" + std::to_string(e->internalPort) + "|" +
            e->description + "\n";
    }, &out);
    fclose(f);
    return out;
}

} // namespace

TEST(UpnpLease, LinesSplitIntoTheirFields)
{
    const struct {
        const char *line, *entry;
    } cases[] = {
        {"TCP:8080:192.168.1.20:80:1700000000:web: admin page:8080", "TCP 0|8080|192.168.1.20|80|web: admin page:8080"},
        {"Tcp:1:a:2:0:d", "Tcp 1|1|a|2|d"},  // only TCP and tcp are TCP
        {"TCPX:1:a:2:0:d", "TCP 0|1|a|2|d"},  // the protocol keeps 3 characters
        {"UDP:53:10.0.0.2:53:0:dns\r\r", "UDP 1|53|10.0.0.2|53|dns"},
        {"UDP:53:10.0.0.2:53:0:a\rb", "UDP 1|53|10.0.0.2|53|a\rb"},  // only line ends go
        {"TCP:1:10.1.1.1:2:12345", "TCP 0|1|10.1.1.1|2|"},
        {"TCP:1:10.1.1.1\r", "TCP 0|1|10.1.1.1|0|"},
        {"TCP:65536:a:1:0:d", "TCP 0|0|a|1|d"},
        {"TCP:80x:a:1:0:d", "TCP 0|80|a|1|d"},
        {"TCP:-80:a: 80:0:d", "TCP 0|0|a|0|d"},
        {"TCP:1:192.168.100.200.300:2:0:d", "TCP 0|1|192.168.100.200|2|d"},
        {"TCP:1:fe80::1:2:0:d", "TCP 0|1|fe80|0|2:0:d"},  // an IPv6 address splits at its colons
        {"UDP:3:b:4:0:\x01\xff\xfe\x7f", "UDP 1|3|b|4|\x01\xff\xfe\x7f"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(read(std::string(c.line) + "\n"), std::string(c.entry) + "\n") << c.line;
}

TEST(UpnpLease, LongLinesAreCutAndTheirRestSkipped)
{
    const std::string entries = read("TCP:1:a:2:0:" + std::string(5000, 'x') + "\nUDP:9:b:8:0:next");
    EXPECT_EQ(entries, "TCP 0|1|a|2|" + std::string(UPNP_LEASE_LINE_MAX - 12, 'x') + "\nUDP 1|9|b|8|next\n");
    EXPECT_EQ(read(std::string("TCP:1:a:2:0:be\0fore\n\0UDP:1:a:2:0:x\n", 34)), "TCP 0|1|a|2|be\n 1|0||0|\n");
}
