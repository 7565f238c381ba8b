/*
 * Basic types and the status codes shared by the whole collector.
 *
 * Every status is an unsigned enumeration in which 1 means success, so that a
 * zeroed (never written) result is never mistaken for success.
 */
#ifndef VORX_TYPES_H
#define VORX_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t vorx_u8_t;
typedef uint16_t vorx_u16_t;
typedef uint32_t vorx_u32_t;
typedef uint64_t vorx_u64_t;
typedef int8_t vorx_s8_t;
typedef int16_t vorx_s16_t;
typedef int32_t vorx_s32_t;
typedef int64_t vorx_s64_t;

/* Sizes and addresses are printed with %lu / %lx throughout the collector. */
typedef unsigned long vorx_size_t;
typedef long vorx_ssize_t;
typedef unsigned long vorx_address_t;

typedef int vorx_bool_t;
#define VORX_TRUE 1
#define VORX_FALSE 0

/* The collector's text is 8-bit UTF-8 on Linux. */
typedef char vorx_char_t;

/* One word of a bitmap; bit n lies in word n / 32 at bit n % 32. */
typedef vorx_u32_t vorx_bitmap_t;
#define VORX_BITMAP_WORD_BITS 32u
#define VORX_BITMAP_WORDS(bits) (((bits) + VORX_BITMAP_WORD_BITS - 1) / VORX_BITMAP_WORD_BITS)

/* Common status codes. 2 and 32 are the general-purpose failures. */
typedef enum vorx_er {
    vorx_er_success = 1,
    vorx_er_general_failure = 2,
    vorx_er_out_of_memory = 3,         /* a container could not grow */
    vorx_er_connection_failure = 14,   /* the run-tool server could not be reached */
    vorx_er_memory_exhausted = 32,     /* text conversions out of memory */
    vorx_er_eof
} vorx_er_t;

/* Processor architecture codes. */
typedef enum vorx_arch {
    vorx_arch_unknown = 0,
    vorx_arch_ia32 = 1,
    vorx_arch_epic64 = 2,
    vorx_arch_kex64 = 3,
    vorx_arch_eof
} vorx_arch_t;

/* The only operating-system type this collector runs on. */
#define VORX_OS_TYPE_LINUX 3u

#ifdef __cplusplus
}
#endif

#endif /* VORX_TYPES_H */
