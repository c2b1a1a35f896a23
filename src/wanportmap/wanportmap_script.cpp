// The apply script of the WAN port redirect: it empties the three chains, then, when the redirect is on and both
// ports are set, marks the WAN packets for the external port in mangle, redirects them to the local port in nat
// and accepts the marked packets for the local port in filter. Ports are written as numbers and the address as
// the dotted text of a binary IPv4 address, so nothing of a request can reach the script as shell text.
#include <arpa/inet.h>
#include <stdio.h>

#include "wanportmap.h"

namespace {

// Appends one formatted line; every line of the script is far below the buffer.
template <class... Args> void appendf(std::string &out, const char *fmt, Args... args)
{
    char line[256];
    const int n = snprintf(line, sizeof line, fmt, args...);
    if (n > 0)
        out.append(line, static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1);
}

}  // namespace

std::string wanPortMapScript(const WanPortMapConfig &config, int pid)
{
    std::string out;
    out += "#!/bin/sh\n";
    out += "iptables -w -t mangle -F WanPortMapPREROUTING\n";
    out += "iptables -w -t nat -F WanPortMapPREROUTING\n";
    out += "iptables -w -t filter -F WanPortMapINPUT\n";

    if (config.enabled != 0 && config.inPort != 0 && config.exPort != 0) {
        char addr[INET_ADDRSTRLEN] = "0.0.0.0";
        inet_ntop(AF_INET, &config.remoteAddr, addr, sizeof addr);
        const unsigned ex = config.exPort;
        const unsigned in = config.inPort;
        if (std::string(addr) != "0.0.0.0") {
            appendf(out,
                    "iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport %u -s %s -j MARK "
                    "--set-mark 0x8888\n",
                    ex, addr);
            appendf(out, "iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport %u -s %s -j REDIRECT --to-ports %u\n",
                    ex, addr, in);
            appendf(out,
                    "iptables -w -t filter -A WanPortMapINPUT -p tcp --dport %u -s %s -m mark --mark 0x8888 -j ACCEPT\n",
                    in, addr);
        } else {
            appendf(out,
                    "iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport %u -j MARK --set-mark "
                    "0x8888\n",
                    ex);
            appendf(out, "iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport %u -j REDIRECT --to-ports %u\n", ex,
                    in);
            appendf(out, "iptables -w -t filter -A WanPortMapINPUT -p tcp --dport %u -m mark --mark 0x8888 -j ACCEPT\n",
                    in);
        }
    }
    appendf(out, "echo %d", pid);
    return out;
}
