/*
 * A blocking pool of reusable items, shared between threads.
 *
 * get takes the most recently returned item and waits, with no time limit,
 * while the pool is empty; put gives an item back and wakes one waiter. The
 * pool is filled by put after init. Used for objects that are expensive to
 * make and few by nature (compressors: one per processor).
 *
 * An item begins with its two list links and a destructor at the third word;
 * the pool's owner embeds vorx_pool_item at the start of its own structure.
 */
#ifndef VORX_POOL_H
#define VORX_POOL_H

#include "sal.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vorx_pool_item vorx_pool_item;
struct vorx_pool_item {
    vorx_pool_item *prev;
    vorx_pool_item *next;
    void (*destructor)(vorx_pool_item *item);
};

typedef struct vorx_pool vorx_pool;
typedef struct vorx_pool_vtbl {
    vorx_er_t (*init)(vorx_pool *pool);
    /* Destroys every item in the pool (their destructors) and empties it. */
    void (*clear)(vorx_pool *pool);
    vorx_er_t (*get)(vorx_pool *pool, vorx_pool_item **item);
    vorx_er_t (*put)(vorx_pool *pool, vorx_pool_item *item);
} vorx_pool_vtbl;

struct vorx_pool {
    const vorx_pool_vtbl *vtbl;
    vorx_pool_item head; /* circular list; head.next is the first item */
    vorx_mutex_t mutex;
    vorx_semaphore_t available;
    vorx_size_t count;
};

/* A pool on the tool heap, already initialised; null on failure. */
vorx_pool *vorx_alloc_pool(void);
/* Clears the pool (calling each item's destructor) and frees it. */
void vorx_free_pool(vorx_pool *pool);

#ifdef __cplusplus
}
#endif

#endif /* VORX_POOL_H */
