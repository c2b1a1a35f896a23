// Texts in the daemon's fixed buffers: longer input is cut, never overrun. A length is a number of characters; the
// buffer behind it holds at least one byte more, for the terminating NUL that every helper here writes.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace routeutils {

// Copies at most len characters of src into dst and terminates it; a null src gives the empty text. Returns the
// number of characters copied.
std::size_t copyCut(char *dst, const char *src, std::size_t len);
// The same into a fixed array: at most N - 1 characters.
template <std::size_t N> std::size_t copyCut(char (&dst)[N], const char *src)
{
    return copyCut(static_cast<char *>(dst), src, N - 1);
}
// Appends src to the text in dst, the whole kept within len characters. Returns the length of the text.
std::size_t appendCut(char *dst, const char *src, std::size_t len);
// printf into dst, at most len characters. Returns the number of characters written.
std::size_t formatCut(char *dst, std::size_t len, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
std::size_t vformatCut(char *dst, std::size_t len, const char *fmt, va_list ap);

}  // namespace routeutils
