/* A blocking pool: a circular list under a mutex, counted by a semaphore. */
#include <stdlib.h>

#include "vorx_pool.h"

static void list_reset(vorx_pool *pool)
{
    pool->head.prev = pool->head.next = &pool->head;
    pool->head.destructor = NULL;
    pool->count = 0;
}

static vorx_er_t pool_init(vorx_pool *pool)
{
    list_reset(pool);
    if (vorx_mutex_init(&pool->mutex) != vorx_er_success)
        return vorx_er_general_failure;
    if (vorx_semaphore_initialize(&pool->available, 0) != vorx_er_success) {
        vorx_mutex_destroy(&pool->mutex);
        return vorx_er_general_failure;
    }
    return vorx_er_success;
}

static void pool_clear(vorx_pool *pool)
{
    vorx_mutex_lock(&pool->mutex);
    vorx_pool_item *item = pool->head.next;
    list_reset(pool);
    vorx_mutex_unlock(&pool->mutex);

    while (item != &pool->head) {
        vorx_pool_item *next = item->next;
        if (item->destructor)
            item->destructor(item);
        item = next;
    }
    /* The items are gone: so are the semaphore's counts for them. Clearing is
     * done by the owner when nobody waits in get. */
    vorx_semaphore_destroy(&pool->available);
    vorx_semaphore_initialize(&pool->available, 0);
}

static vorx_er_t pool_get(vorx_pool *pool, vorx_pool_item **out)
{
    /* No time limit: a signal that interrupts the wait just waits again. */
    while (vorx_semaphore_down(&pool->available) != vorx_er_success) {
    }
    vorx_mutex_lock(&pool->mutex);
    vorx_pool_item *item = pool->head.prev;
    SAL_ASSERT(item != &pool->head);
    item->prev->next = &pool->head;
    pool->head.prev = item->prev;
    item->prev = item->next = NULL;
    pool->count--;
    vorx_mutex_unlock(&pool->mutex);
    *out = item;
    return vorx_er_success;
}

static vorx_er_t pool_put(vorx_pool *pool, vorx_pool_item *item)
{
    if (item == NULL)
        return vorx_er_general_failure;
    vorx_mutex_lock(&pool->mutex);
    item->prev = pool->head.prev;
    item->next = &pool->head;
    pool->head.prev->next = item;
    pool->head.prev = item;
    pool->count++;
    vorx_mutex_unlock(&pool->mutex);
    return vorx_semaphore_up(&pool->available);
}

static const vorx_pool_vtbl g_pool_vtbl = {pool_init, pool_clear, pool_get, pool_put};

vorx_pool *vorx_alloc_pool(void)
{
    vorx_pool *pool = malloc(sizeof(*pool));
    if (pool == NULL)
        return NULL;
    pool->vtbl = &g_pool_vtbl;
    if (pool->vtbl->init(pool) != vorx_er_success) {
        free(pool);
        return NULL;
    }
    return pool;
}

void vorx_free_pool(vorx_pool *pool)
{
    if (pool == NULL)
        return;
    pool->vtbl->clear(pool);
    vorx_semaphore_destroy(&pool->available);
    vorx_mutex_destroy(&pool->mutex);
    free(pool);
}
