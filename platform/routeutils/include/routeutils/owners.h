// Small C++ helpers shared by the platform library and the daemon: an owner for a libuci context, and the one
// place where texts are copied into the daemon's fixed buffers ("longer input is cut, never overrun").
#pragma once

#include <cstddef>
#include <cstring>
#include <uci.h>

namespace routeutils {

// Owns a libuci context; freeing it also unloads every package loaded in it.
class UciContext {
public:
    UciContext() : ctx_(uci_alloc_context()) {}
    ~UciContext()
    {
        if (ctx_)
            uci_free_context(ctx_);
    }
    UciContext(const UciContext &) = delete;
    UciContext &operator=(const UciContext &) = delete;

    explicit operator bool() const { return ctx_ != nullptr; }
    uci_context *get() const { return ctx_; }

private:
    uci_context *ctx_;
};

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
