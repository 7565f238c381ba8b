/*
 * Growing buffers that know where their memory lives.
 *
 * All three kinds share one shape -- get, block, capacity, release -- so code
 * that fills a buffer does not care which kind it was given:
 *
 *   kind     get(size) when the size does not fit      release
 *   stack    null (a stack block cannot grow)          nothing
 *   heap     a new zeroed block, rounded up to 4096,   free, capacity 0
 *            the old content copied, the old freed
 *   mmap     sal_remap, rounded up to 4096             sal_munmap, capacity 0
 *
 * A failed growth returns null and leaves the old block and its content in place.
 */
#ifndef VORX_BUFFER_H
#define VORX_BUFFER_H

#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_BUFFER_GRANULE 4096u

typedef struct vorx_buffer vorx_buffer;

struct vorx_buffer {
    void *(*get)(vorx_buffer *buffer, vorx_size_t size);
    void *block;
    vorx_size_t capacity;
    void (*release)(vorx_buffer *buffer);
};

typedef vorx_buffer vorx_stack_buffer;
typedef vorx_buffer vorx_heap_buffer;
typedef vorx_buffer vorx_mmap_buffer;

typedef enum vorx_buffer_location {
    vorx_buffer_location_unknown = 0,
    vorx_buffer_location_stack,
    vorx_buffer_location_heap,
    vorx_buffer_location_mapping,
    vorx_buffer_location_eof
} vorx_buffer_location;

/* The memory is zeroed and used as it is; always 1. */
vorx_er_t vorx_stack_buffer_init(vorx_buffer *buffer, void *memory, vorx_size_t size);
/* Size rounded up to 4096; 0 allocates nothing. 1, or 2 when memory is refused. */
vorx_er_t vorx_heap_buffer_init(vorx_buffer *buffer, vorx_size_t size);
/* As the heap form, in a private mapping; the first block is zeroed. */
vorx_er_t vorx_mmap_buffer_init(vorx_buffer *buffer, vorx_size_t size);

/* Where the buffer's memory lives (decided by its operations). */
vorx_buffer_location vorx_buffer_where(const vorx_buffer *buffer);

static inline void *vorx_buffer_get(vorx_buffer *buffer, vorx_size_t size)
{
    return buffer->get(buffer, size);
}
static inline void vorx_buffer_release(vorx_buffer *buffer)
{
    buffer->release(buffer);
}

/* Rounds up to a multiple of VORX_BUFFER_GRANULE. */
static inline vorx_size_t vorx_buffer_round_size(vorx_size_t size)
{
    return (size + VORX_BUFFER_GRANULE - 1) & ~(vorx_size_t)(VORX_BUFFER_GRANULE - 1);
}

#ifdef __cplusplus
}
#endif

#endif /* VORX_BUFFER_H */
