/*
 * Guarded allocator objects.
 *
 * An allocator owns at most one block. Functions that hand back memory or a
 * string take an allocator from the caller and put the result in it, so that
 * the caller frees everything at once by releasing the allocator, and so that
 * the caller decides where the memory comes from (the tool's heap, a private
 * mapping, or a block of its own on the stack) -- the collector never touches
 * the application's allocator.
 *
 * Both guards hold 0xFEDAFEDA; every operation checks them by assertion, so a
 * stray write over an allocator is caught at its next use.
 *
 * A stack-resident allocator is set up by hand:
 *
 *     sal_allocator a = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
 *     char *name = sal_get_hostname(&a);
 *     ...
 *     sal_allocator_destroy(&a);        // frees name
 */
#ifndef SAL_ALLOCATOR_H
#define SAL_ALLOCATOR_H

#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SAL_ALLOCATOR_GUARD ((void *)0xFEDAFEDA)
#define SAL_ALLOCATOR_NO_LIMIT ((vorx_size_t)-1)

typedef struct sal_allocator sal_allocator;

/* Operation table, in this order. */
typedef struct sal_allocator_vtbl {
    void (*destroy)(sal_allocator *alloc);
    /* Null if the allocator already holds a block; the memory is zeroed. */
    void *(*mem_alloc)(sal_allocator *alloc, vorx_size_t size);
    /* Resizes the block (keeping its content); null above max_size, the block kept. */
    void *(*mem_realloc)(sal_allocator *alloc, vorx_size_t size);
    void (*mem_free)(sal_allocator *alloc);
} sal_allocator_vtbl;

struct sal_allocator {
    const sal_allocator_vtbl *vtbl;
    void *guard_begin;
    vorx_size_t max_size;
    vorx_size_t size;
    void *block;
    void *guard_end;
};

typedef enum sal_allocator_type {
    sal_allocator_type_heap = 0,         /* tool heap; destroy frees the block */
    sal_allocator_type_mmap = 1,         /* private anonymous mapping */
    sal_allocator_type_wrap = 2,         /* over a block given by the caller */
    sal_allocator_type_dynamic_heap = 3, /* as heap; destroy also frees the allocator */
    sal_allocator_type_eof
} sal_allocator_type;

/* The operation table of a type id (0..3; anything else is an assertion). */
const sal_allocator_vtbl *sal_allocator_internal_private_data_vtbl_value(int derived_type_id);

#define SAL_ALLOCATOR_INITIALIZER(type_id)                                                       \
    { sal_allocator_internal_private_data_vtbl_value(type_id), SAL_ALLOCATOR_GUARD,             \
      SAL_ALLOCATOR_NO_LIMIT, 0, (void *)0, SAL_ALLOCATOR_GUARD }

/* Set up an allocator in place. max_size SAL_ALLOCATOR_NO_LIMIT means no limit. */
void sal_allocator_init(sal_allocator *alloc, sal_allocator_type type, vorx_size_t max_size);
/* A wrap allocator serves from [block, block + block_size): it never grows past it. */
void sal_allocator_init_wrap(sal_allocator *alloc, void *block, vorx_size_t block_size);

/* A type 3 allocator on the tool heap, or null. Release it with sal_allocator_destroy. */
sal_allocator *sal_allocator_create_heap_allocator(vorx_size_t max_size);

/* Checks both guards (assertion on failure). */
void sal_allocator_check(const sal_allocator *alloc);

static inline void *sal_allocator_alloc(sal_allocator *alloc, vorx_size_t size)
{
    return alloc->vtbl->mem_alloc(alloc, size);
}
static inline void *sal_allocator_realloc(sal_allocator *alloc, vorx_size_t size)
{
    return alloc->vtbl->mem_realloc(alloc, size);
}
static inline void sal_allocator_free(sal_allocator *alloc)
{
    alloc->vtbl->mem_free(alloc);
}
static inline void sal_allocator_destroy(sal_allocator *alloc)
{
    alloc->vtbl->destroy(alloc);
}

#ifdef __cplusplus
}
#endif

#endif /* SAL_ALLOCATOR_H */
