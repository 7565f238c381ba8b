/* Growing buffers on the stack, the tool heap or a private mapping. */
#include <stdlib.h>
#include <string.h>

#include "sal.h"
#include "vorx_buffer.h"

static void *stack_get(vorx_buffer *buffer, vorx_size_t size)
{
    return size <= buffer->capacity ? buffer->block : NULL;
}

static void stack_release(vorx_buffer *buffer)
{
    (void)buffer;
}

static void *heap_get(vorx_buffer *buffer, vorx_size_t size)
{
    if (size <= buffer->capacity)
        return buffer->block;
    vorx_size_t capacity = vorx_buffer_round_size(size);
    if (capacity < size)
        return NULL; /* no multiple of the granule is that large */
    void *block = calloc(1, capacity);
    if (block == NULL)
        return NULL;
    if (buffer->block != NULL) {
        memcpy(block, buffer->block, buffer->capacity);
        free(buffer->block);
    }
    buffer->block = block;
    buffer->capacity = capacity;
    return block;
}

static void heap_release(vorx_buffer *buffer)
{
    free(buffer->block);
    buffer->block = NULL;
    buffer->capacity = 0;
}

static void *mmap_get(vorx_buffer *buffer, vorx_size_t size)
{
    if (size <= buffer->capacity)
        return buffer->block;
    vorx_size_t capacity = vorx_buffer_round_size(size);
    if (capacity < size)
        return NULL;
    void *block = sal_remap(buffer->block, buffer->capacity, capacity);
    if (block == NULL)
        return NULL;
    buffer->block = block;
    buffer->capacity = capacity;
    return block;
}

static void mmap_release(vorx_buffer *buffer)
{
    if (buffer->block != NULL)
        sal_munmap(buffer->block, buffer->capacity);
    buffer->block = NULL;
    buffer->capacity = 0;
}

static void set_up(vorx_buffer *buffer, void *(*get)(vorx_buffer *, vorx_size_t),
                   void (*release)(vorx_buffer *))
{
    buffer->get = get;
    buffer->block = NULL;
    buffer->capacity = 0;
    buffer->release = release;
}

vorx_er_t vorx_stack_buffer_init(vorx_buffer *buffer, void *memory, vorx_size_t size)
{
    set_up(buffer, stack_get, stack_release);
    if (memory != NULL && size != 0)
        memset(memory, 0, size);
    buffer->block = memory;
    buffer->capacity = memory ? size : 0;
    return vorx_er_success;
}

vorx_er_t vorx_heap_buffer_init(vorx_buffer *buffer, vorx_size_t size)
{
    set_up(buffer, heap_get, heap_release);
    if (size == 0)
        return vorx_er_success;
    return heap_get(buffer, size) ? vorx_er_success : vorx_er_general_failure;
}

vorx_er_t vorx_mmap_buffer_init(vorx_buffer *buffer, vorx_size_t size)
{
    set_up(buffer, mmap_get, mmap_release);
    if (size == 0)
        return vorx_er_success;
    /* sal_remap of a null block is a fresh, zeroed mapping. */
    return mmap_get(buffer, size) ? vorx_er_success : vorx_er_general_failure;
}

vorx_buffer_location vorx_buffer_where(const vorx_buffer *buffer)
{
    if (buffer->get == stack_get)
        return vorx_buffer_location_stack;
    if (buffer->get == heap_get)
        return vorx_buffer_location_heap;
    if (buffer->get == mmap_get)
        return vorx_buffer_location_mapping;
    return vorx_buffer_location_unknown;
}
