/*
 * utils.h - small helpers shared by the libubox stand-in: byte order,
 * array sizes, attribute shorthands, one-allocation structs and base64.
 *
 * Like the platform header it replaces, it has no extern "C" guard: C++
 * users wrap the include themselves.
 */
#ifndef LIBUBOX_UTILS_H
#define LIBUBOX_UTILS_H

#include <sys/types.h>
#include <stdint.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(arr) (sizeof(arr) / sizeof((arr)[0]))
#endif

#define __BUILD_BUG_ON(condition) ((void)sizeof(char[1 - 2*!!(condition)]))
#define BUILD_BUG_ON(condition) __BUILD_BUG_ON(condition)

#ifndef __has_attribute
#define __has_attribute(x) 0
#endif

#ifdef __GNUC__
#define _GNUC_MIN_VER(maj, min) \
	(((__GNUC__ << 8) + __GNUC_MINOR__) >= (((maj) << 8) + (min)))
#else
#define _GNUC_MIN_VER(maj, min) 0
#endif

#ifndef __packed
#define __packed __attribute__((packed))
#endif
#ifndef __constructor
#define __constructor __attribute__((constructor))
#endif
#ifndef __destructor
#define __destructor __attribute__((destructor))
#endif
#ifndef __hidden
#define __hidden __attribute__((visibility("hidden")))
#endif

/*
 * An object-like macro, as on the router: after this, [[fallthrough]] is
 * mangled by the preprocessor, so code must write "fallthrough;".
 */
#if __has_attribute(__fallthrough__)
#define fallthrough __attribute__((__fallthrough__))
#else
#define fallthrough do {} while (0) /* fallthrough */
#endif

/*
 * calloc_a(len, &p1, len1, &p2, len2, ...): one zeroed allocation holding a
 * struct of len bytes followed by the extra buffers, whose addresses are
 * stored through the given pointers. Free the whole block with free().
 */
void *__calloc_a(size_t len, ...);
#define calloc_a(len, ...) __calloc_a(len, ##__VA_ARGS__, NULL)

/* Byte order. */
#define __constant_swap16(x) ((uint16_t)(				\
	(((uint16_t)(x) & (uint16_t)0x00ffU) << 8) |			\
	(((uint16_t)(x) & (uint16_t)0xff00U) >> 8)))

#define __constant_swap32(x) ((uint32_t)(				\
	(((uint32_t)(x) & (uint32_t)0x000000ffUL) << 24) |		\
	(((uint32_t)(x) & (uint32_t)0x0000ff00UL) <<  8) |		\
	(((uint32_t)(x) & (uint32_t)0x00ff0000UL) >>  8) |		\
	(((uint32_t)(x) & (uint32_t)0xff000000UL) >> 24)))

#define __constant_swap64(x) ((uint64_t)(				\
	((uint64_t)__constant_swap32((uint64_t)(x) & 0xffffffffULL) << 32) | \
	(uint64_t)__constant_swap32((uint64_t)(x) >> 32)))

#define __is_constant(x) __builtin_constant_p(x)

/* Evaluate the argument once, then apply func (a GNU statement expression). */
#define __eval_once(func, x) \
	({ __typeof__(x) __x = x; func(__x); })

/* In C a constant stays a constant; in C++ it is always the statement form. */
#ifdef __cplusplus
#define __eval_safe(func, x) __eval_once(func, x)
#else
#define __eval_safe(func, x) \
	__builtin_choose_expr(__is_constant(x), func(x), __eval_once(func, x))
#endif

#define __lr_same16(x) ((uint16_t)(x))
#define __lr_same32(x) ((uint32_t)(x))
#define __lr_same64(x) ((uint64_t)(x))
#define __lr_swap16(x) ((uint16_t)__builtin_bswap16(x))
#define __lr_swap32(x) ((uint32_t)__builtin_bswap32(x))
#define __lr_swap64(x) ((uint64_t)__builtin_bswap64(x))

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define const_cpu_to_be16(x) __constant_swap16(x)
#define const_cpu_to_be32(x) __constant_swap32(x)
#define const_cpu_to_be64(x) __constant_swap64(x)
#define const_cpu_to_le16(x) ((uint16_t)(x))
#define const_cpu_to_le32(x) ((uint32_t)(x))
#define const_cpu_to_le64(x) ((uint64_t)(x))
#define __lr_to_be16 __lr_swap16
#define __lr_to_be32 __lr_swap32
#define __lr_to_be64 __lr_swap64
#define __lr_to_le16 __lr_same16
#define __lr_to_le32 __lr_same32
#define __lr_to_le64 __lr_same64
#else
#define const_cpu_to_be16(x) ((uint16_t)(x))
#define const_cpu_to_be32(x) ((uint32_t)(x))
#define const_cpu_to_be64(x) ((uint64_t)(x))
#define const_cpu_to_le16(x) __constant_swap16(x)
#define const_cpu_to_le32(x) __constant_swap32(x)
#define const_cpu_to_le64(x) __constant_swap64(x)
#define __lr_to_be16 __lr_same16
#define __lr_to_be32 __lr_same32
#define __lr_to_be64 __lr_same64
#define __lr_to_le16 __lr_swap16
#define __lr_to_le32 __lr_swap32
#define __lr_to_le64 __lr_swap64
#endif

#define const_be16_to_cpu(x) const_cpu_to_be16(x)
#define const_be32_to_cpu(x) const_cpu_to_be32(x)
#define const_be64_to_cpu(x) const_cpu_to_be64(x)
#define const_le16_to_cpu(x) const_cpu_to_le16(x)
#define const_le32_to_cpu(x) const_cpu_to_le32(x)
#define const_le64_to_cpu(x) const_cpu_to_le64(x)

#define cpu_to_be16(x) __eval_safe(__lr_to_be16, x)
#define cpu_to_be32(x) __eval_safe(__lr_to_be32, x)
#define cpu_to_be64(x) __eval_safe(__lr_to_be64, x)
#define cpu_to_le16(x) __eval_safe(__lr_to_le16, x)
#define cpu_to_le32(x) __eval_safe(__lr_to_le32, x)
#define cpu_to_le64(x) __eval_safe(__lr_to_le64, x)
#define be16_to_cpu(x) cpu_to_be16(x)
#define be32_to_cpu(x) cpu_to_be32(x)
#define be64_to_cpu(x) cpu_to_be64(x)
#define le16_to_cpu(x) cpu_to_le16(x)
#define le32_to_cpu(x) cpu_to_le32(x)
#define le64_to_cpu(x) cpu_to_le64(x)

/* Base64 (RFC 4648, with padding). Lengths include the terminating NUL. */
#define B64_ENCODE_LEN(_len) ((((_len) + 2) / 3) * 4 + 1)
#define B64_DECODE_LEN(_len) (((_len) / 4) * 3 + 1)

/*
 * b64_encode writes a NUL-terminated text and returns its length, or -1 if
 * dest_len is too small. b64_decode reads a NUL-terminated text and returns
 * the number of bytes written (a NUL follows them), or -1 on bad input or a
 * short buffer.
 */
int b64_encode(const void *src, size_t src_len, void *dest, size_t dest_len);
int b64_decode(const void *src, void *dest, size_t dest_len);

#endif
