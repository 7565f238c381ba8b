/*
 * Named objects: one per (kind, name, scope), forever.
 *
 * Each kind has a fixed hash table whose buckets are singly linked lists with
 * an atomic head. Objects are only ever added, at the head, and never removed,
 * so a reader walks a bucket without any lock. A creator builds its object
 * completely (id included) before it publishes it with a compare-and-swap; if
 * the head moved meanwhile, it looks at the objects added since its last look
 * and either finds its key there (and drops its own object) or tries again.
 * Ids come from one counter for all kinds, so an id names one object of the
 * process; ids lost by a creator that lost a race leave harmless gaps.
 */
#include <string.h>

#include "ozk_internal.h"

#define OZK_BUCKETS 512u

static ozk_object *g_buckets[ozk_kind_eof][OZK_BUCKETS]; /* atomic heads */
static unsigned int g_counts[ozk_kind_eof];             /* atomic */
static unsigned int g_last_id;                          /* atomic */

/* Objects for an exhausted system: creation still returns something usable. */
static struct {
    ozk_counter counter; /* the largest object kind */
} g_fallback[ozk_kind_eof];

static unsigned int hash_key(const char *name, size_t length, const void *scope)
{
    unsigned int h = 2166136261u; /* FNV-1a */
    for (size_t i = 0; i < length; ++i) {
        h ^= (unsigned char)name[i];
        h *= 16777619u;
    }
    h ^= (unsigned int)(size_t)scope;
    h *= 16777619u;
    return h;
}

/* The scope of a counter is its domain; other kinds have none. */
static const void *scope_of(const ozk_object *object, ozk_kind kind)
{
    return kind == ozk_kind_counter ? ((const ozk_counter *)object)->domain : NULL;
}

static int matches(const ozk_object *object, ozk_kind kind, unsigned int hash, const char *name,
                   size_t length, const void *scope)
{
    return object->hash == hash && scope_of(object, kind) == scope &&
           strncmp(object->name, name, length) == 0 && object->name[length] == '\0';
}

/* Walks from `from` up to (not including) `stop`. */
static ozk_object *find(ozk_object *from, const ozk_object *stop, ozk_kind kind,
                        unsigned int hash, const char *name, size_t length, const void *scope)
{
    for (ozk_object *o = from; o && o != stop; o = __atomic_load_n((ozk_object **)&o->link, __ATOMIC_ACQUIRE))
        if (matches(o, kind, hash, name, length, scope))
            return o;
    return NULL;
}

static ozk_object *make(ozk_kind kind, const char *name, size_t length, const void *scope,
                        size_t size, unsigned int hash, ozk_init_fn init, const void *init_arg)
{
    ozk_object *object = ozk_arena_alloc(size);
    char *copy = object ? ozk_arena_strndup(name, length) : NULL;
    if (!copy)
        return NULL;
    object->tag = OZK_TAG(kind);
    object->name = copy;
    object->hash = hash;
    if (kind == ozk_kind_counter)
        ((ozk_counter *)object)->domain = scope;
    if (init)
        init(object, init_arg);
    object->id = __atomic_add_fetch(&g_last_id, 1, __ATOMIC_RELAXED);
    return object;
}

ozk_object *ozk_registry_get(ozk_kind kind, const char *name, size_t length, const void *scope,
                             size_t size, ozk_init_fn init, const void *init_arg, int *created)
{
    if (created)
        *created = 0;
    if (!name) {
        name = "";
        length = 0;
    }
    unsigned int hash = hash_key(name, length, scope);
    ozk_object **bucket = &g_buckets[kind][hash % OZK_BUCKETS];

    ozk_object *head = __atomic_load_n(bucket, __ATOMIC_ACQUIRE);
    ozk_object *found = find(head, NULL, kind, hash, name, length, scope);
    if (found)
        return found;

    ozk_object *mine = make(kind, name, length, scope, size, hash, init, init_arg);
    if (!mine)
        return NULL;
    for (;;) {
        mine->link = head;
        ozk_object *seen = head;
        if (__atomic_compare_exchange_n(bucket, &head, mine, 0, __ATOMIC_RELEASE,
                                        __ATOMIC_ACQUIRE)) {
            __atomic_add_fetch(&g_counts[kind], 1, __ATOMIC_RELAXED);
            if (created)
                *created = 1;
            return mine;
        }
        /* `head` now holds the new head: look at what was added since `seen`. */
        found = find(head, seen, kind, hash, name, length, scope);
        if (found)
            return found; /* ours stays unpublished in the arena */
    }
}

unsigned int ozk_registry_last_id(void)
{
    return __atomic_load_n(&g_last_id, __ATOMIC_RELAXED);
}

unsigned int ozk_registry_count(ozk_kind kind)
{
    return __atomic_load_n(&g_counts[kind], __ATOMIC_RELAXED);
}

ozk_object *ozk_registry_fallback(ozk_kind kind)
{
    ozk_object *object = (ozk_object *)&g_fallback[kind].counter;
    object->tag = OZK_TAG(kind);
    object->name = "";
    return object;
}
