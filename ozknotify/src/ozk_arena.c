/*
 * The library's memory: objects and their names live until the process ends,
 * so they come from a bump arena of anonymous mappings. The application's
 * heap is never touched (a collector would count our blocks as the
 * application's, and a program may call us from inside its own allocator).
 *
 * Allocation is lock-free: a thread reserves bytes in the current chunk with
 * one atomic add; the thread that overruns a chunk maps a new one and
 * publishes it with a compare-and-swap. A loser of that race keeps its chunk
 * for the next overrun instead of unmapping it.
 */
#define _GNU_SOURCE
#include <string.h>
#include <sys/mman.h>

#include "ozk_internal.h"

#define OZK_ARENA_CHUNK (64u * 1024u)
#define OZK_ARENA_ALIGN 8u

typedef struct ozk_chunk {
    struct ozk_chunk *previous; /* chain of full chunks, never walked; kept for debuggers */
    size_t capacity;            /* bytes usable after the header */
    size_t used;                /* atomic: bytes reserved, may run past capacity */
} ozk_chunk;

#define OZK_CHUNK_HEADER ((sizeof(ozk_chunk) + OZK_ARENA_ALIGN - 1) & ~(size_t)(OZK_ARENA_ALIGN - 1))

static ozk_chunk *g_current; /* atomic */
static ozk_chunk *g_spare;   /* atomic: a mapped chunk that lost a publishing race */

static ozk_chunk *map_chunk(size_t capacity)
{
    size_t length = OZK_CHUNK_HEADER + capacity;
    void *block = mmap(NULL, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED)
        return NULL;
    ozk_chunk *chunk = block;
    chunk->capacity = capacity;
    return chunk;
}

static void *reserve(ozk_chunk *chunk, size_t size)
{
    size_t offset = __atomic_fetch_add(&chunk->used, size, __ATOMIC_RELAXED);
    if (offset + size > chunk->capacity || offset + size < offset)
        return NULL;
    return (char *)chunk + OZK_CHUNK_HEADER + offset;
}

/* A request larger than a chunk gets a mapping of its own. */
static void *alloc_large(size_t size)
{
    ozk_chunk *chunk = map_chunk(size);
    return chunk ? reserve(chunk, size) : NULL;
}

static ozk_chunk *take_spare_or_map(void)
{
    ozk_chunk *spare = __atomic_exchange_n(&g_spare, NULL, __ATOMIC_ACQUIRE);
    return spare ? spare : map_chunk(OZK_ARENA_CHUNK - OZK_CHUNK_HEADER);
}

void *ozk_arena_alloc(size_t size)
{
    size = (size + OZK_ARENA_ALIGN - 1) & ~(size_t)(OZK_ARENA_ALIGN - 1);
    if (size == 0)
        size = OZK_ARENA_ALIGN;
    if (size > (OZK_ARENA_CHUNK - OZK_CHUNK_HEADER) / 4)
        return alloc_large(size);

    for (;;) {
        ozk_chunk *current = __atomic_load_n(&g_current, __ATOMIC_ACQUIRE);
        if (current) {
            void *block = reserve(current, size);
            if (block)
                return block;
        }
        ozk_chunk *fresh = take_spare_or_map();
        if (!fresh)
            return NULL;
        fresh->previous = current;
        if (!__atomic_compare_exchange_n(&g_current, &current, fresh, 0, __ATOMIC_ACQ_REL,
                                         __ATOMIC_ACQUIRE)) {
            /* Someone else published a chunk first: keep ours for later. If a
             * spare is parked already, ours is simply leaked (64 KiB, once per
             * such race). */
            ozk_chunk *none = NULL;
            fresh->previous = NULL;
            __atomic_compare_exchange_n(&g_spare, &none, fresh, 0, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED);
        }
    }
}

char *ozk_arena_strndup(const char *text, size_t length)
{
    char *copy = ozk_arena_alloc(length + 1);
    if (copy && length)
        memcpy(copy, text, length);
    return copy; /* the arena is zeroed: the NUL is there */
}
