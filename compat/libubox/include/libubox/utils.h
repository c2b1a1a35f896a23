/*
 * Small helpers the rest of the library builds on: array size, byte order,
 * attribute shorthands and a multi-part zeroed allocation.
 */
#ifndef LIBUBOX_UTILS_H
#define LIBUBOX_UTILS_H

#include <sys/types.h>
#include <stdint.h>
#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(arr) (sizeof(arr) / sizeof((arr)[0]))
#endif

#define __BUILD_BUG_ON(cond) ((void)sizeof(char[1 - 2 * !!(cond)]))
#ifndef BUILD_BUG_ON
#define BUILD_BUG_ON(condition) __BUILD_BUG_ON(condition)
#endif

#ifndef __packed
#define __packed __attribute__((packed))
#endif
#ifndef __hidden
#define __hidden __attribute__((visibility("hidden")))
#endif
#ifndef __constructor
#define __constructor __attribute__((constructor))
#endif
#ifndef __destructor
#define __destructor __attribute__((destructor))
#endif
#ifndef fallthrough
#define fallthrough __attribute__((__fallthrough__))
#endif

#ifndef __unused
#define __unused __attribute__((unused))
#endif

/*
 * One zeroed allocation holding a first part of len bytes followed by further
 * parts: calloc_a(len, &p2, len2, &p3, len3). The extra lengths are read as
 * size_t; every part starts on pointer alignment.
 */
void *__calloc_a(size_t len, ...);
#define calloc_a(len, ...) __calloc_a(len, ##__VA_ARGS__, NULL)

/* Byte order. The builtins evaluate their argument once and fold constants. */
#define __gw_bswap16(x) ((uint16_t)__builtin_bswap16((uint16_t)(x)))
#define __gw_bswap32(x) ((uint32_t)__builtin_bswap32((uint32_t)(x)))
#define __gw_bswap64(x) ((uint64_t)__builtin_bswap64((uint64_t)(x)))

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define cpu_to_be64(x) __gw_bswap64(x)
#define cpu_to_be32(x) __gw_bswap32(x)
#define cpu_to_be16(x) __gw_bswap16(x)
#define cpu_to_le64(x) ((uint64_t)(x))
#define cpu_to_le32(x) ((uint32_t)(x))
#define cpu_to_le16(x) ((uint16_t)(x))
#else
#define cpu_to_be64(x) ((uint64_t)(x))
#define cpu_to_be32(x) ((uint32_t)(x))
#define cpu_to_be16(x) ((uint16_t)(x))
#define cpu_to_le64(x) __gw_bswap64(x)
#define cpu_to_le32(x) __gw_bswap32(x)
#define cpu_to_le16(x) __gw_bswap16(x)
#endif

#define be64_to_cpu(x) cpu_to_be64(x)
#define be32_to_cpu(x) cpu_to_be32(x)
#define be16_to_cpu(x) cpu_to_be16(x)
#define le64_to_cpu(x) cpu_to_le64(x)
#define le32_to_cpu(x) cpu_to_le32(x)
#define le16_to_cpu(x) cpu_to_le16(x)

#define const_cpu_to_be64(x) cpu_to_be64(x)
#define const_cpu_to_be32(x) cpu_to_be32(x)
#define const_cpu_to_be16(x) cpu_to_be16(x)
#define const_cpu_to_le64(x) cpu_to_le64(x)
#define const_cpu_to_le32(x) cpu_to_le32(x)
#define const_cpu_to_le16(x) cpu_to_le16(x)
#define const_be64_to_cpu(x) be64_to_cpu(x)
#define const_be32_to_cpu(x) be32_to_cpu(x)
#define const_be16_to_cpu(x) be16_to_cpu(x)
#define const_le64_to_cpu(x) le64_to_cpu(x)
#define const_le32_to_cpu(x) le32_to_cpu(x)
#define const_le16_to_cpu(x) le16_to_cpu(x)

#ifdef __cplusplus
}
#endif

#endif
