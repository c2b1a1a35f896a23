// Helpers of the NAT port forwarding scenarios: request JSON, stored redirect sections, and reading them back from
// the committed firewall file.
#pragma once

#include "support/router.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace natforward_e2e {

using namespace gw::e2e;

constexpr const char *kReload = "/etc/init.d/firewall reload";

// The failure codes of the add checks, as clients see them.
constexpr long kErrProtocol = 713465856;
constexpr long kErrExternalPort = 713465857;
constexpr long kErrInternalPort = 713465858;
constexpr long kErrStartPort = 713465859;
constexpr long kErrStopPort = 713465860;
constexpr long kErrPortRange = 713465861;
constexpr long kErrPortMapConflict = 713465862;
constexpr long kErrGroupMapConflict = 713465863;

inline std::string portEntry(const std::string &name, long protocol, const std::string &ip, long internalPort,
                             long externalPort)
{
    return "{\"Name\":" + jsonString(name) + ",\"Protocol\":" + std::to_string(protocol) +
           ",\"InternalIP\":" + jsonString(ip) + ",\"InternalPort\":" + std::to_string(internalPort) +
           ",\"ExternalPort\":" + std::to_string(externalPort) + "}";
}

inline std::string groupEntry(const std::string &name, long protocol, const std::string &ip, long start, long stop)
{
    return "{\"Name\":" + jsonString(name) + ",\"Protocol\":" + std::to_string(protocol) +
           ",\"InternalIP\":" + jsonString(ip) + ",\"StartPort\":" + std::to_string(start) +
           ",\"StopPort\":" + std::to_string(stop) + "}";
}

inline std::string modRequest(const std::vector<std::string> &entries, int operation)
{
    std::string list;
    for (const auto &e : entries)
        list += (list.empty() ? "" : ",") + e;
    return "{\"MapList\":[" + list + "],\"Operation\":" + std::to_string(operation) + "}";
}

inline std::string deleteRequest(const char *idKey, const std::vector<long> &ids)
{
    std::vector<std::string> entries;
    for (long id : ids)
        entries.push_back(std::string("{\"") + idKey + "\":" + std::to_string(id) + "}");
    return modRequest(entries, 0);
}

inline std::string codeReply(long code)
{
    return "{\"result\":false,\"error\":{\"code\":" + std::to_string(code) + "}}";
}

// One stored redirect section in configuration syntax. protoLines are complete lines such as "list proto 'tcp'".
inline std::string storedSection(const std::string &idOption, long id, const std::string &src, const std::string &ports,
                                 const std::vector<std::string> &protoLines = {"list proto 'tcp'"},
                                 const std::string &name = "stored", const std::string &ip = "192.168.1.50")
{
    std::string s = "\nconfig redirect\n\toption name '" + name + "'\n";
    if (!idOption.empty())
        s += "\toption " + idOption + " '" + std::to_string(id) + "'\n";
    for (const auto &l : protoLines)
        s += "\t" + l + "\n";
    s += "\toption src_dport '" + ports + "'\n\toption dest_port '" + ports + "'\n\toption dest_ip '" + ip +
         "'\n\toption target 'DNAT'\n\toption dest 'lan'\n\toption src '" + src + "'\n";
    return s;
}

// Both sections of a stored mapping.
inline std::string storedMapping(const std::string &idOption, long id, const std::string &ports,
                                 const std::vector<std::string> &protoLines = {"list proto 'tcp'"})
{
    return storedSection(idOption, id, "wan", ports, protoLines) + storedSection(idOption, id, "lan", ports, protoLines);
}

struct Section {
    std::string header;             // "config redirect", "config zone 'x'", ...
    std::vector<std::string> lines; // the option and list lines, without their leading TAB
};

inline std::vector<Section> sections(const std::string &file)
{
    std::vector<Section> out;
    for (const auto &line : splitLines(file)) {
        if (line.rfind("config ", 0) == 0)
            out.push_back({line, {}});
        else if (!out.empty() && !line.empty() && line[0] == '\t')
            out.back().lines.push_back(line.substr(1));
    }
    return out;
}

inline std::vector<Section> redirects(const std::string &file)
{
    std::vector<Section> out;
    for (auto &s : sections(file))
        if (s.header == "config redirect")
            out.push_back(s);
    return out;
}

inline std::vector<Section> nonRedirects(const std::string &file)
{
    std::vector<Section> out;
    for (auto &s : sections(file))
        if (s.header.rfind("config redirect", 0) != 0)
            out.push_back(s);
    return out;
}

inline bool operator==(const Section &a, const Section &b)
{
    return a.header == b.header && a.lines == b.lines;
}

// The value of one option line of a section, "" when it has none.
inline std::string optionOf(const Section &s, const std::string &option)
{
    const std::string prefix = "option " + option + " '";
    for (const auto &l : s.lines)
        if (l.rfind(prefix, 0) == 0 && l.size() > prefix.size())
            return l.substr(prefix.size(), l.size() - prefix.size() - 1);
    return "";
}

// "<id>/<src>" of every redirect section in file order, for ID option idOption ("-" when it has none).
inline std::vector<std::string> idAndSrc(const std::string &file, const std::string &idOption)
{
    std::vector<std::string> out;
    for (const auto &s : redirects(file)) {
        std::string id = optionOf(s, idOption);
        out.push_back((id.empty() ? "-" : id) + "/" + optionOf(s, "src"));
    }
    return out;
}

// The numbers that follow "key": in a reply, in order.
inline std::vector<long> numbersOf(const std::string &reply, const std::string &key)
{
    std::vector<long> out;
    const std::string needle = "\"" + key + "\":";
    for (size_t at = reply.find(needle); at != std::string::npos; at = reply.find(needle, at + 1)) {
        const char *start = reply.c_str() + at + needle.size();
        char *end = nullptr;
        const long v = std::strtol(start, &end, 10);
        if (end != start)
            out.push_back(v);
    }
    return out;
}

} // namespace natforward_e2e
