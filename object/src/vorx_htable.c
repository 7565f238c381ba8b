/* A set of 32-bit keys: lock-free insert into free slots, lock-free
 * test-and-remove, a mutex only for growing a chain. */
#include <stdio.h>
#include <stdlib.h>

#include "vorx_htable.h"
#include "vorx_log.h"

vorx_u32_t vorx_htable_hash(vorx_u32_t k)
{
    /* Thomas Wang's 32-bit integer mix. */
    k += ~(k << 15);
    k ^= k >> 10;
    k += k << 3;
    k ^= k >> 6;
    k += ~(k << 11);
    k ^= k >> 16;
    return k;
}

static vorx_size_t power_of_two_at_least(vorx_size_t n)
{
    vorx_size_t size = 1;
    while (size < n && size << 1 != 0)
        size <<= 1;
    return size;
}

static void *htable_ctor(void *object, va_list *args)
{
    vorx_htable *table = object;
    table->size = power_of_two_at_least(va_arg(*args, vorx_size_t));
    table->buckets = calloc(table->size, sizeof(vorx_htable_bucket));
    if (table->buckets == NULL)
        return NULL;
    table->all_nodes = NULL;
    table->node_count = 0;
    if (vorx_mutex_init(&table->mutex) != vorx_er_success) {
        free(table->buckets);
        return NULL;
    }
    return table;
}

static void *htable_dtor(void *object)
{
    vorx_htable *table = object;
    for (vorx_htable_node *node = table->all_nodes, *next; node != NULL; node = next) {
        next = node->all_next;
        free(node);
    }
    free(table->buckets);
    table->buckets = NULL;
    table->all_nodes = NULL;
    vorx_mutex_destroy(&table->mutex);
    return table;
}

static void htable_dump(const void *object, int fd)
{
    vorx_htable *table = (vorx_htable *)object;
    vorx_mutex_lock(&table->mutex);
    for (vorx_size_t i = 0; i < table->size; ++i) {
        const vorx_htable_bucket *b = &table->buckets[i];
        double ratio = b->node_count ? (double)b->live_count / b->node_count : 0.0;
        vorx_object_printf(fd, "%zu,%zu,%zu,%.2f\n", (size_t)i, (size_t)b->live_count,
                (size_t)b->node_count, ratio);
    }
    vorx_mutex_unlock(&table->mutex);
}

static const void *volatile g_htable_meta = NULL;
static const void *volatile g_htable_class = NULL;

const void *vorx_htable_t(void)
{
    const void *klass = __atomic_load_n(&g_htable_class, __ATOMIC_ACQUIRE);
    if (klass != NULL)
        return klass;
    if (__atomic_load_n(&g_htable_meta, __ATOMIC_ACQUIRE) == NULL)
        vorx_class_publish(&g_htable_meta,
                           vorx_alloc_object(vorx_meta_t(), "vorx_htable_meta_t", vorx_meta_t(),
                                             (vorx_size_t)sizeof(struct vorx_class),
                                             (const char *)NULL));
    return vorx_class_publish(
        &g_htable_class,
        vorx_alloc_object(g_htable_meta, "vorx_htable_t", vorx_class_t(),
                          (vorx_size_t)sizeof(vorx_htable),
                          "vorx_object_ctor", vorx_object_ctor, htable_ctor,
                          "vorx_object_dtor", vorx_object_dtor, htable_dtor,
                          "vorx_object_dump", vorx_object_dump, htable_dump,
                          (const char *)NULL));
}

vorx_er_t vorx_htable_insert(vorx_htable *table, vorx_u32_t key)
{
    if (key == 0)
        return vorx_er_general_failure; /* 0 marks a free slot */
    vorx_htable_bucket *bucket = &table->buckets[vorx_htable_bucket_of(table, key)];

    /* A free slot of the chain, taken without the lock. */
    for (vorx_htable_node *node = __atomic_load_n(&bucket->chain, __ATOMIC_ACQUIRE); node;
         node = node->bucket_next) {
        vorx_u32_t free_key = 0;
        if (__atomic_compare_exchange_n(&node->key, &free_key, key, 0, __ATOMIC_ACQ_REL,
                                        __ATOMIC_RELAXED)) {
            __atomic_add_fetch(&bucket->live_count, 1, __ATOMIC_RELAXED);
            return vorx_er_success;
        }
    }

    /* None: grow the chain. The node is complete before it is published, so
     * walkers without the lock never see a half-made node. */
    vorx_htable_node *node = calloc(1, sizeof(*node));
    if (node == NULL)
        return vorx_er_out_of_memory;
    vorx_mutex_lock(&table->mutex);
    __atomic_add_fetch(&bucket->live_count, 1, __ATOMIC_RELAXED);
    node->key = key;
    node->bucket_next = bucket->chain;
    (void)__atomic_exchange_n(&bucket->chain, node, __ATOMIC_ACQ_REL);
    node->all_next = table->all_nodes;
    (void)__atomic_exchange_n(&table->all_nodes, node, __ATOMIC_ACQ_REL);
    bucket->node_count++;
    table->node_count++;
    vorx_mutex_unlock(&table->mutex);
    return vorx_er_success;
}

vorx_er_t vorx_htable_delete(vorx_htable *table, vorx_u32_t key)
{
    if (key == 0)
        return vorx_er_general_failure;
    vorx_htable_bucket *bucket = &table->buckets[vorx_htable_bucket_of(table, key)];
    for (vorx_htable_node *node = __atomic_load_n(&bucket->chain, __ATOMIC_ACQUIRE); node;
         node = node->bucket_next) {
        vorx_u32_t expected = key;
        /* Only the deleter that clears the key counts it: two threads racing
         * to remove one key cannot both succeed. The node stays for reuse. */
        if (__atomic_compare_exchange_n(&node->key, &expected, 0, 0, __ATOMIC_ACQ_REL,
                                        __ATOMIC_RELAXED)) {
            __atomic_sub_fetch(&bucket->live_count, 1, __ATOMIC_RELAXED);
            return vorx_er_success;
        }
    }
    return vorx_er_general_failure;
}

vorx_bool_t vorx_htable_contains(const vorx_htable *table, vorx_u32_t key)
{
    if (key == 0)
        return VORX_FALSE;
    const vorx_htable_bucket *bucket = &table->buckets[vorx_htable_bucket_of(table, key)];
    for (const vorx_htable_node *node = __atomic_load_n(&bucket->chain, __ATOMIC_ACQUIRE); node;
         node = node->bucket_next)
        if (__atomic_load_n(&node->key, __ATOMIC_RELAXED) == key)
            return VORX_TRUE;
    return VORX_FALSE;
}
