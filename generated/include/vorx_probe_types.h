/* Types that the generated parameter records and wrapper signatures use. They are spelled by the
 * collector itself so that the wrappers compile without the headers of the libraries they intercept
 * (memkind, pmemobj, libaio, the RPC headers, several GL flavours at once). Sizes match 32-bit x86. */
#pragma once
#include <stddef.h>
#include <time.h>
#include <sys/time.h>
#include <wchar.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*vorx_sighandler_t)(int);
typedef void* (*vorx_start_routine_t)(void*);
typedef int (*vorx_phdr_callback_t)(void* info, size_t size, void* data);
typedef void (*vorx_cleanup_routine_t)(void*);
typedef struct timeval vorx_timeval_t;

/* A persistent-memory object id, passed and returned by value (16 bytes). */
typedef struct vorx_pmemoid {
    unsigned long long pool_uuid_lo;
    unsigned long long off;
} vorx_pmemoid_t;

/* An annotation task or frame id, passed by value (24 bytes): the same layout as the annotation library's
 * ozk_id, so that a wrapper takes the caller's copy and hands it on unchanged. */
typedef struct vorx_ozk_id {
    unsigned long long words[3];
} vorx_ozk_id_t;

#ifdef __cplusplus
static_assert(sizeof(vorx_ozk_id_t) == 24, "ozk_id is three 64-bit words");
#else
_Static_assert(sizeof(vorx_ozk_id_t) == 24, "ozk_id is three 64-bit words");
#endif

#ifdef __cplusplus
}
#endif
