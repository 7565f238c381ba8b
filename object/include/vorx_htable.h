/*
 * A set of 32-bit keys with a lock-free test-and-remove path.
 *
 * Made as an object of the class vorx_htable_t:
 *
 *     vorx_htable *set = vorx_alloc_object(vorx_htable_t(), (vorx_size_t)1024);
 *     vorx_htable_insert(set, key);     // 1 stored, 3 out of memory
 *     vorx_htable_delete(set, key);     // 1 removed, 2 not found
 *     vorx_free_object(set);
 *
 * The bucket count is the power of two at or above the constructor's argument.
 * Readers and deleters take no lock; only a chain's growth does. Nodes are
 * reused (key 0 marks a free slot, so 0 cannot be stored) and freed only with
 * the table, so a walker never meets freed memory. A key inserted twice takes
 * two slots and needs two deletes.
 */
#ifndef VORX_HTABLE_H
#define VORX_HTABLE_H

#include "sal.h"
#include "vorx_object.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vorx_htable_node vorx_htable_node;
struct vorx_htable_node {
    vorx_htable_node *all_next;    /* list of every node of the table */
    vorx_htable_node *bucket_next; /* chain of its bucket */
    vorx_u32_t key;                /* 0: free slot */
};

typedef struct vorx_htable_bucket {
    vorx_htable_node *chain;
    vorx_u32_t node_count;
    vorx_u32_t live_count;
} vorx_htable_bucket;

typedef struct vorx_htable {
    struct vorx_object head;
    vorx_htable_node *all_nodes;
    vorx_htable_bucket *buckets;
    vorx_size_t size; /* bucket count, a power of two */
    vorx_size_t node_count;
    vorx_mutex_t mutex;
} vorx_htable;

const void *vorx_htable_t(void);

vorx_er_t vorx_htable_insert(vorx_htable *table, vorx_u32_t key);
vorx_er_t vorx_htable_delete(vorx_htable *table, vorx_u32_t key);
/* True when the key is stored (no lock). */
vorx_bool_t vorx_htable_contains(const vorx_htable *table, vorx_u32_t key);

/* Thomas Wang's 32-bit mix, and the bucket it picks. */
vorx_u32_t vorx_htable_hash(vorx_u32_t key);
static inline vorx_size_t vorx_htable_bucket_of(const vorx_htable *table, vorx_u32_t key)
{
    return vorx_htable_hash(key) & (table->size - 1);
}

#ifdef __cplusplus
}
#endif

#endif /* VORX_HTABLE_H */
