/* Guarded allocators: one block per allocator, four kinds (heap, mapping,
 * caller's block, heap allocator that frees itself). */
#include <stdlib.h>
#include <string.h>

#include "sal.h"

void sal_allocator_check(const sal_allocator *alloc)
{
    SAL_ASSERT(alloc->guard_begin == ((void*)0xFEDAFEDA) &&
               alloc->guard_end == ((void*)0xFEDAFEDA));
}

static void clear_fields(sal_allocator *alloc)
{
    alloc->size = 0;
    alloc->block = NULL;
}

/* Common to every kind: a fresh, zeroed block, never a second one. */
static void *common_mem_alloc(sal_allocator *alloc, vorx_size_t size)
{
    sal_allocator_check(alloc);
    if (alloc->block != NULL)
        return NULL;
    void *block = alloc->vtbl->mem_realloc(alloc, size);
    if (block != NULL)
        memset(block, 0, size);
    return block;
}

/* ---- heap (0) and dynamic heap (3) ---------------------------------------- */

static void heap_mem_free(sal_allocator *alloc)
{
    sal_allocator_check(alloc);
    if (alloc->block != NULL) {
        /* Blocks hold configuration text and server replies: leave nothing behind. */
        memset(alloc->block, 0, alloc->size);
        free(alloc->block);
    }
    clear_fields(alloc);
}

static void *heap_mem_realloc(sal_allocator *alloc, vorx_size_t size)
{
    sal_allocator_check(alloc);
    if (size > alloc->max_size)
        return NULL;
    if (size == 0) {
        heap_mem_free(alloc);
        return NULL;
    }
    unsigned char *block = realloc(alloc->block, size);
    if (block == NULL)
        return NULL;
    if (size > alloc->size)
        memset(block + alloc->size, 0, size - alloc->size);
    alloc->block = block;
    alloc->size = size;
    return block;
}

static void heap_destroy(sal_allocator *alloc)
{
    alloc->vtbl->mem_free(alloc);
}

static void dynamic_heap_destroy(sal_allocator *alloc)
{
    alloc->vtbl->mem_free(alloc);
    alloc->guard_begin = alloc->guard_end = NULL; /* a use after destroy is caught */
    free(alloc);
}

/* ---- mapping (1) ------------------------------------------------------------ */

static void *mmap_mem_realloc(sal_allocator *alloc, vorx_size_t size)
{
    sal_allocator_check(alloc);
    if (size > alloc->max_size)
        return NULL;
    void *block = sal_remap(alloc->block, alloc->size, size);
    if (block == NULL)
        return NULL;
    if (size != 0) {
        alloc->block = block;
        alloc->size = size;
    }
    return block;
}

static void mmap_mem_free(sal_allocator *alloc)
{
    sal_allocator_check(alloc);
    if (alloc->block != NULL)
        sal_munmap(alloc->block, alloc->size);
    clear_fields(alloc);
}

/* ---- caller's block (2) ---------------------------------------------------- */

static void *wrap_mem_realloc(sal_allocator *alloc, vorx_size_t size)
{
    sal_allocator_check(alloc);
    if (size > alloc->max_size || alloc->block == NULL)
        return NULL;
    /* The block never moves; growing hands out zeroed bytes behind the content. */
    if (size > alloc->size)
        memset((unsigned char *)alloc->block + alloc->size, 0, size - alloc->size);
    alloc->size = size;
    return alloc->block;
}

static void *wrap_mem_alloc(sal_allocator *alloc, vorx_size_t size)
{
    sal_allocator_check(alloc);
    if (alloc->size != 0)
        return NULL; /* the caller's block is in use */
    void *block = wrap_mem_realloc(alloc, size);
    if (block != NULL)
        memset(block, 0, size);
    return block;
}

static void wrap_mem_free(sal_allocator *alloc)
{
    sal_allocator_check(alloc);
    if (alloc->block != NULL)
        memset(alloc->block, 0, alloc->size);
    alloc->size = 0;
}

static const sal_allocator_vtbl g_allocator_vtbls[sal_allocator_type_eof] = {
    [sal_allocator_type_heap] = {heap_destroy, common_mem_alloc, heap_mem_realloc, heap_mem_free},
    [sal_allocator_type_mmap] = {heap_destroy, common_mem_alloc, mmap_mem_realloc, mmap_mem_free},
    [sal_allocator_type_wrap] = {heap_destroy, wrap_mem_alloc, wrap_mem_realloc, wrap_mem_free},
    [sal_allocator_type_dynamic_heap] = {dynamic_heap_destroy, common_mem_alloc, heap_mem_realloc,
                                         heap_mem_free},
};

const sal_allocator_vtbl *sal_allocator_internal_private_data_vtbl_value(int derived_type_id)
{
    SAL_ASSERT(derived_type_id >= 0 && derived_type_id < sal_allocator_type_eof);
    return &g_allocator_vtbls[derived_type_id];
}

void sal_allocator_init(sal_allocator *alloc, sal_allocator_type type, vorx_size_t max_size)
{
    alloc->vtbl = sal_allocator_internal_private_data_vtbl_value(type);
    alloc->guard_begin = SAL_ALLOCATOR_GUARD;
    alloc->max_size = max_size;
    alloc->size = 0;
    alloc->block = NULL;
    alloc->guard_end = SAL_ALLOCATOR_GUARD;
}

void sal_allocator_init_wrap(sal_allocator *alloc, void *block, vorx_size_t block_size)
{
    sal_allocator_init(alloc, sal_allocator_type_wrap, block_size);
    alloc->block = block;
}

sal_allocator *sal_allocator_create_heap_allocator(vorx_size_t max_size)
{
    sal_allocator *alloc = malloc(sizeof(*alloc));
    if (alloc != NULL)
        sal_allocator_init(alloc, sal_allocator_type_dynamic_heap, max_size);
    return alloc;
}
