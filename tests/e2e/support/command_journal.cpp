// The journal's quoting undone, and the command shapes of gwconfd (docs/*.md lists the same commands per object).
#include "support/command_journal.h"

#include <cstring>

namespace gw::e2e {

namespace {

bool plainChar(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           std::strchr("_@%+=:,./-", c) != nullptr;
}

int digitValue(char c, int base)
{
    int v = -1;
    if (c >= '0' && c <= '9')
        v = c - '0';
    else if (c >= 'a' && c <= 'f')
        v = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F')
        v = c - 'A' + 10;
    return v >= 0 && v < base ? v : -1;
}

// The body of a $'...' word from `at` (just past "$'") to its closing quote; at is left past that quote.
bool ansiQuoted(const std::string &line, size_t &at, std::string &out, std::string &error)
{
    while (at < line.size()) {
        char c = line[at++];
        if (c == '\'')
            return true;
        if (c != '\\') {
            out += c;
            continue;
        }
        if (at >= line.size())
            break;
        char e = line[at++];
        switch (e) {
        case 'a': out += '\a'; break;
        case 'b': out += '\b'; break;
        case 'e':
        case 'E': out += '\x1b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'v': out += '\v'; break;
        case '\\':
        case '\'':
        case '"':
        case '?': out += e; break;
        case 'x': {
            int v = 0, n = 0;
            for (int d; n < 2 && at < line.size() && (d = digitValue(line[at], 16)) >= 0; ++n, ++at)
                v = v * 16 + d;
            if (n == 0) {
                error = "\\x without hex digits";
                return false;
            }
            out += static_cast<char>(v);
            break;
        }
        default: {
            if (digitValue(e, 8) < 0) {
                error = std::string("unknown escape \\") + e;
                return false;
            }
            int v = digitValue(e, 8);
            for (int n = 1, d; n < 3 && at < line.size() && (d = digitValue(line[at], 8)) >= 0; ++n, ++at)
                v = v * 8 + d;
            out += static_cast<char>(v & 0xff);
        }
        }
    }
    error = "unclosed $'...'";
    return false;
}

}  // namespace

std::optional<std::vector<std::string>> journalWords(const std::string &line, std::string *errorOut)
{
    std::vector<std::string> words;
    std::string error;
    size_t at = 0;
    while (error.empty()) {
        if (at >= line.size()) {
            if (words.empty() || line.back() == ' ')
                error = "empty line or trailing blank";
            break;
        }
        std::string word;
        bool any = false;   // something of the word was read (an empty quoted argument counts)
        while (at < line.size() && line[at] != ' ' && error.empty()) {
            any = true;
            if (line.compare(at, 2, "$'") == 0) {
                at += 2;
                ansiQuoted(line, at, word, error);
            } else if (line[at] == '\'') {
                size_t end = line.find('\'', at + 1);
                if (end == std::string::npos) {
                    error = "unclosed '...'";
                    break;
                }
                word.append(line, at + 1, end - at - 1);
                at = end + 1;
            } else if (line.compare(at, 2, "\\'") == 0) {
                word += '\'';
                at += 2;
            } else if (plainChar(line[at])) {
                word += line[at++];
            } else {
                error = std::string("unquoted '") + line[at] + "' at column " + std::to_string(at);
            }
        }
        if (!error.empty())
            break;
        if (!any) {
            error = "two blanks in a row at column " + std::to_string(at);
            break;
        }
        words.push_back(word);
        if (at < line.size())
            ++at;   // the blank between two words
    }
    if (!error.empty()) {
        if (errorOut)
            *errorOut = error;
        return std::nullopt;
    }
    return words;
}

std::vector<std::string> shapeWords(const std::string &shape)
{
    std::vector<std::string> words;
    size_t at = 0;
    while (at <= shape.size()) {
        size_t end = shape.find(' ', at);
        if (end == std::string::npos)
            end = shape.size();
        words.push_back(shape.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

bool matchesShape(const std::vector<std::string> &words, const std::vector<std::string> &shape,
                  std::vector<std::string> *slots)
{
    if (words.size() != shape.size())
        return false;
    std::vector<std::string> found;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &s = shape[i];
        if (s == "*") {
            found.push_back(words[i]);
            continue;
        }
        bool ok = false;
        for (size_t at = 0; at <= s.size() && !ok;) {
            size_t end = s.find('|', at);
            if (end == std::string::npos)
                end = s.size();
            ok = s.compare(at, end - at, words[i]) == 0 && end - at == words[i].size();
            at = end + 1;
        }
        if (!ok)
            return false;
    }
    if (slots)
        *slots = found;
    return true;
}

const std::vector<std::string> &daemonCommandShapes()
{
    static const std::vector<std::string> shapes = {
        // MAC filter and device block: per-device rules, the white list's frame, the list reset of the agent.
        "ebtables -I FORWARD 1 -s * -j DROP",
        "ebtables -I FORWARD -s * -j ACCEPT",
        "ebtables -D FORWARD -s * -j DROP|ACCEPT",
        "ip6tables -I|-D FORWARD -m mac --mac-source * -j DROP|ACCEPT",
        "ip6tables -I|-D FORWARD -i eth1 -j ACCEPT",
        "ip6tables -A|-D FORWARD -j REJECT",
        "ebtables -I|-D FORWARD -i eth1 -j ACCEPT",
        "ebtables -A|-D FORWARD -j DROP",
        "uci delete macFilter.blacklist|macFilter.whitelist",
        "uci set macFilter.blacklist=filter|macFilter.whitelist=filter",
        "uci commit macFilter|network|firewall",
        "/etc/init.d/firewall reload",
        // IPTV: the DNS rules per bridge member, the interface section, the delayed network reload.
        "ebtables --concurrent -t broute -I|-D BROUTING -i * -p ipv4 --ip-proto tcp|udp --ip-dport 53 -j ACCEPT",
        "ebtables --concurrent -t broute -I|-D BROUTING -i * -p ipv6 --ip6-proto tcp|udp --ip6-dport 53 -j ACCEPT",
        "uci set network.iptv=interface",
        "/etc/init.d/network reload",
        // UPnP switch and DMZ restore.
        "uci set firewall.dmzupnpdomain=include",
        "uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh",
        "uci set firewall.dmzupnpdomain.reload=1",
        "uci set firewall.dmzupnpdomain.type=script",
        "/etc/init.d/miniupnpd enable|start|stop|disable",
        "iptables -N NatForward_DMZ|MINIUPNPD",
        "iptables -t nat -N NatForward_DMZ|MINIUPNPD",
        "iptables -t nat -I NatForward_DMZ -p all -j DNAT --to *",
        "iptables -I NatForward_DMZ -p all -j ACCEPT",
        // WAN port redirect: the chain checks before each apply, then the lines of /tmp/wanPortMap.sh.
        "iptables -w -t mangle|nat -C|-I PREROUTING -j WanPortMapPREROUTING",
        "iptables -w -t filter -C|-I INPUT -j WanPortMapINPUT",
        "iptables -w -t mangle|nat -N|-F WanPortMapPREROUTING",
        "iptables -w -t filter -N|-F WanPortMapINPUT",
        "iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport * -j MARK --set-mark 0x8888",
        "iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport * -s * -j MARK --set-mark 0x8888",
        "iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport * -j REDIRECT --to-ports *",
        "iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport * -s * -j REDIRECT --to-ports *",
        "iptables -w -t filter -A WanPortMapINPUT -p tcp --dport * -m mark --mark 0x8888 -j ACCEPT",
        "iptables -w -t filter -A WanPortMapINPUT -p tcp --dport * -s * -m mark --mark 0x8888 -j ACCEPT",
    };
    return shapes;
}

int daemonCommandShape(const std::vector<std::string> &words, std::vector<std::string> *slots)
{
    static std::vector<std::vector<std::string>> split;
    if (split.empty())
        for (const auto &s : daemonCommandShapes())
            split.push_back(shapeWords(s));
    for (size_t i = 0; i < split.size(); ++i)
        if (matchesShape(words, split[i], slots))
            return static_cast<int>(i);
    return -1;
}

}  // namespace gw::e2e
