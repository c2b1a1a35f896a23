// The UPnP daemon's lease file: lines of "protocol:external port:internal address:internal port:time:description".
// Every line read gives one entry, however short or odd it is; fixed fields are cut to their sizes.
#include <string.h>

#include "routeutils/text.h"
#include "upnp.h"

using routeutils::copyCut;

bool upnpReadLeaseLine(FILE *f, char (&line)[UPNP_LEASE_LINE_MAX + 1])
{
    memset(line, 0, sizeof line);
    size_t kept = 0;
    bool any = false;
    int c;
    while ((c = getc(f)) != EOF) {
        any = true;
        if (c == '\n')
            break;
        if (kept < UPNP_LEASE_LINE_MAX)
            line[kept++] = static_cast<char>(c);
    }
    return any;
}

uint32_t upnpLeadingNumber(const char *text, uint32_t max)
{
    uint64_t v = 0;
    for (const char *p = text; p != nullptr && *p >= '0' && *p <= '9'; ++p) {
        v = v * 10 + static_cast<uint64_t>(*p - '0');
        if (v > max)
            return max;
    }
    return static_cast<uint32_t>(v);
}

uint32_t upnpProtocolNumber(const char *protocol)
{
    return strcmp(protocol, "TCP") == 0 || strcmp(protocol, "tcp") == 0 ? 0u : 1u;
}

namespace {

// A port field: its leading digits; none, or a number above the highest port, gives 0.
uint32_t portField(const char *text)
{
    const uint32_t v = upnpLeadingNumber(text, UPNP_MAX_PORT + 1);
    return v > UPNP_MAX_PORT ? 0u : v;
}

}  // namespace

void upnpParseLeaseLine(const char *line, UpnpLeaseEntry *out)
{
    memset(out, 0, sizeof *out);
    char text[UPNP_LEASE_LINE_MAX + 1];
    size_t len = copyCut(text, line, UPNP_LEASE_LINE_MAX);
    while (len > 0 && (text[len - 1] == '\r' || text[len - 1] == '\n'))
        text[--len] = '\0';

    // Fields 1 to 5 end at a colon; field 6 is the rest of the line. Fields a short line lacks stay empty.
    const char *fields[6] = {"", "", "", "", "", ""};
    char *p = text;
    for (int i = 0; i < 5; ++i) {
        char *colon = strchr(p, ':');
        fields[i] = p;
        if (colon == nullptr) {
            p = nullptr;
            break;
        }
        *colon = '\0';
        p = colon + 1;
    }
    if (p != nullptr)
        fields[5] = p;

    copyCut(out->protocol, fields[0]);
    out->externalPort = portField(fields[1]);
    copyCut(out->internalIP, fields[2]);
    out->internalPort = portField(fields[3]);
    copyCut(out->description, fields[5]);
}

int upnpReadLeases(FILE *f, void (*visit)(const UpnpLeaseEntry *entry, void *arg), void *arg)
{
    char line[UPNP_LEASE_LINE_MAX + 1];
    UpnpLeaseEntry entry;
    int n = 0;
    while (n < UPNP_MAX_LEASES && upnpReadLeaseLine(f, line)) {
        upnpParseLeaseLine(line, &entry);
        visit(&entry, arg);
        ++n;
    }
    return n;
}
