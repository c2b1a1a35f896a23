// Small C++ helpers shared by the platform library and the daemon: the place where texts are copied into the
// daemon's fixed buffers ("longer input is cut, never overrun"). The owner of libuci contexts is uci_session.h.
#pragma once

#include <cstddef>
#include <cstring>

namespace routeutils {

// Copies at most len characters of src into dst and terminates it; dst holds at least len + 1 bytes.
// Returns the number of characters copied.
inline std::size_t copyCut(char *dst, const char *src, std::size_t len)
{
    std::size_t n = 0;
    if (src)
        while (n < len && src[n])
            ++n;
    if (n)
        std::memcpy(dst, src, n);
    dst[n] = '\0';
    return n;
}

}  // namespace routeutils
