// The UPnP lease file, any bytes: one entry per line up to 128, every text ends inside its buffer without its line
// end, ports stay in range and the protocol number is 0 or 1.
#include "fuzz.h"
#include "upnp.h"

static void check(const UpnpLeaseEntry *e, void *count)
{
    ++*static_cast<int *>(count);
    const size_t desc = strnlen(e->description, sizeof e->description);
    FUZZ_CHECK(strnlen(e->protocol, sizeof e->protocol) < sizeof e->protocol && desc < sizeof e->description &&
                   strnlen(e->internalIP, sizeof e->internalIP) < sizeof e->internalIP &&
                   (desc == 0 || !std::strchr("\r\n", e->description[desc - 1])) && e->externalPort <= UPNP_MAX_PORT &&
                   e->internalPort <= UPNP_MAX_PORT && upnpProtocolNumber(e->protocol) <= 1, "an entry out of bounds");
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
    const size_t lines = 1 + size_t(std::count(data, data + size - 1, '\n'));  // a final line end starts none
    FUZZ_CHECK(n == visited && size_t(n) == std::min<size_t>(lines, UPNP_MAX_LEASES), "not one entry per line");
    return 0;
}
