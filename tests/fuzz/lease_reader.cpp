// Fuzzes the UPnP lease reader with arbitrary file contents. Whatever the bytes, it makes at most 128 entries,
// one per line read, every text of an entry ends inside its buffer, ports stay in range, and the protocol number
// is 0 or 1.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "upnp.h"

namespace {

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "lease_reader: %s\n", what);
    std::abort();
}

void check(const UpnpLeaseEntry *e, void *arg)
{
    ++*static_cast<int *>(arg);
    if (strnlen(e->protocol, sizeof e->protocol) >= sizeof e->protocol)
        fail("protocol not terminated");
    if (strnlen(e->internalIP, sizeof e->internalIP) >= sizeof e->internalIP)
        fail("address not terminated");
    const size_t descLen = strnlen(e->description, sizeof e->description);
    if (descLen >= sizeof e->description)
        fail("description not terminated");
    if (descLen > 0 && (e->description[descLen - 1] == '\n' || e->description[descLen - 1] == '\r'))
        fail("line end left in the description");
    if (e->externalPort > UPNP_MAX_PORT || e->internalPort > UPNP_MAX_PORT)
        fail("port out of range");
    if (upnpProtocolNumber(e->protocol) > 1)
        fail("protocol number");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    std::string bytes(reinterpret_cast<const char *>(data), size);
    FILE *f = fmemopen(bytes.data(), bytes.size(), "r");
    if (f == nullptr)
        return 0;
    int visited = 0;
    const int n = upnpReadLeases(f, check, &visited);
    fclose(f);
    if (n != visited || n > UPNP_MAX_LEASES)
        fail("entry count");
    // Every line end but a final one starts another line: the reader makes one entry per line up to the limit.
    size_t lines = 0;
    for (size_t i = 0; i < size; ++i)
        if (data[i] == '\n' && i + 1 < size)
            ++lines;
    lines += 1;
    const size_t expected = lines < UPNP_MAX_LEASES ? lines : UPNP_MAX_LEASES;
    if (static_cast<size_t>(n) != expected)
        fail("one entry per line");
    return 0;
}
