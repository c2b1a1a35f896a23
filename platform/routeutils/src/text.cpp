// Texts in fixed buffers (see text.h).
#include "routeutils/text.h"

#include <cstdio>
#include <cstring>

namespace routeutils {

std::size_t copyCut(char *dst, const char *src, std::size_t len)
{
    const std::size_t n = src ? strnlen(src, len) : 0;
    if (n)
        std::memcpy(dst, src, n);
    dst[n] = '\0';
    return n;
}

std::size_t appendCut(char *dst, const char *src, std::size_t len)
{
    const std::size_t used = strnlen(dst, len);
    return used == len ? used : used + copyCut(dst + used, src, len - used);
}

std::size_t formatCut(char *dst, std::size_t len, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const std::size_t n = vformatCut(dst, len, fmt, ap);
    va_end(ap);
    return n;
}

std::size_t vformatCut(char *dst, std::size_t len, const char *fmt, va_list ap)
{
    const int n = std::vsnprintf(dst, len + 1, fmt, ap);
    if (n < 0) {
        dst[0] = '\0';
        return 0;
    }
    return static_cast<std::size_t>(n) < len ? static_cast<std::size_t>(n) : len;
}

}  // namespace routeutils
