// The UPnP lease file, any bytes: one entry per line up to 128, every text ends inside its buffer without its line
// end, ports stay in range and the protocol number is 0 or 1.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "upnp.h"

static void check(const UpnpLeaseEntry *e, void *count)
{
    ++*static_cast<int *>(count);
    const size_t desc = strnlen(e->description, sizeof e->description);
    if (strnlen(e->protocol, sizeof e->protocol) == sizeof e->protocol ||
        strnlen(e->internalIP, sizeof e->internalIP) == sizeof e->internalIP || desc == sizeof e->description ||
        (desc > 0 && std::strchr("\r\n", e->description[desc - 1])) || e->externalPort > UPNP_MAX_PORT ||
        e->internalPort > UPNP_MAX_PORT || upnpProtocolNumber(e->protocol) > 1)
        abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    FILE *f = size > 0 ? fmemopen(bytes.data(), size, "r") : nullptr;
    if (f == nullptr)
        return 0;
    int visited = 0;
    const int n = upnpReadLeases(f, check, &visited);
    fclose(f);
    size_t lines = 1;  // every line end but a final one starts another line
    for (size_t i = 0; i + 1 < size; ++i)
        lines += data[i] == '\n';
    if (n != visited || size_t(n) != std::min<size_t>(lines, UPNP_MAX_LEASES))
        abort();
    return 0;
}
