/*
 * Counter values. A counter keeps its value in one 64-bit word (an integer or
 * the bits of a double, by type), changed with a compare-and-swap loop, so
 * that concurrent changes from many threads add up exactly. The word is
 * 64-bit even on 32-bit x86, where the exchange is cmpxchg8b.
 */
#include <string.h>

#include "ozk_internal.h"

static int valid_type(int type)
{
    return type >= OZK_COUNTER_U64 && type <= OZK_COUNTER_FLOAT;
}

static void init_counter(ozk_object *object, const void *arg)
{
    ozk_counter *counter = (ozk_counter *)object;
    int type = *(const int *)arg;
    counter->type = valid_type(type) ? type : OZK_COUNTER_U64;
    counter->alive = 1;
}

ozk_counter *ozk_counter_get(const char *name, const char *domain, int type)
{
    const ozk_domain *scope = NULL;
    if (domain) {
        scope = (const ozk_domain *)ozk_registry_get(ozk_kind_domain, domain, strlen(domain), NULL,
                                                     sizeof(ozk_domain), NULL, NULL, NULL);
        if (!scope)
            return (ozk_counter *)ozk_registry_fallback(ozk_kind_counter);
    }
    ozk_counter *counter =
        (ozk_counter *)ozk_registry_get(ozk_kind_counter, name, name ? strlen(name) : 0, scope,
                                        sizeof(ozk_counter), init_counter, &type, NULL);
    if (!counter)
        return (ozk_counter *)ozk_registry_fallback(ozk_kind_counter);
    /* Created again after a destroy: it starts over at 0. The value is reset
     * while `alive` holds 2, so no change of a racing thread lands between
     * the reset and the revival. */
    int dead = 0;
    if (__atomic_load_n(&counter->alive, __ATOMIC_ACQUIRE) == 0 &&
        __atomic_compare_exchange_n(&counter->alive, &dead, 2, 0, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
        __atomic_store_n(&counter->value, 0ull, __ATOMIC_RELAXED);
        __atomic_store_n(&counter->alive, 1, __ATOMIC_RELEASE);
    }
    return counter;
}

ozk_counter *ozk_counter_get_v3(const ozk_domain *domain, const ozk_string_handle *name)
{
    if (!ozk_is_kind(name, ozk_kind_string_handle))
        return NULL;
    if (domain && !ozk_is_kind(domain, ozk_kind_domain))
        return NULL;
    /* The handle remembers the last counter found through it: the common case
     * of one counter per name costs no lookup. */
    ozk_counter *cached = __atomic_load_n((ozk_counter **)&name->counter_cache, __ATOMIC_ACQUIRE);
    if (cached && cached->domain == domain)
        return cached;
    ozk_counter *counter = ozk_counter_get(name->name, domain ? domain->name : NULL,
                                           OZK_COUNTER_U64);
    __atomic_store_n((ozk_counter **)&((ozk_string_handle *)name)->counter_cache, counter,
                     __ATOMIC_RELEASE);
    return counter;
}

static unsigned long long add_in_type(int type, unsigned long long bits, long long delta)
{
    union {
        unsigned long long bits;
        double d;
    } u = {bits};
    switch (type) {
    case OZK_COUNTER_U32:
        return (unsigned int)(bits + (unsigned long long)delta);
    case OZK_COUNTER_S32:
        return (unsigned long long)(long long)(int)(unsigned int)(bits + (unsigned long long)delta);
    case OZK_COUNTER_DOUBLE:
        u.d += (double)delta;
        return u.bits;
    case OZK_COUNTER_FLOAT:
        u.d = (double)(float)(u.d + (double)delta);
        return u.bits;
    default: /* 64-bit integers wrap like the machine's */
        return bits + (unsigned long long)delta;
    }
}

static unsigned long long read_in_type(int type, const void *value)
{
    union {
        unsigned long long bits;
        double d;
    } u = {0};
    switch (type) {
    case OZK_COUNTER_U32:
        return *(const unsigned int *)value;
    case OZK_COUNTER_S32:
        return (unsigned long long)(long long)*(const int *)value;
    case OZK_COUNTER_DOUBLE:
        u.d = *(const double *)value;
        return u.bits;
    case OZK_COUNTER_FLOAT:
        u.d = *(const float *)value;
        return u.bits;
    default:
        return *(const unsigned long long *)value;
    }
}

static int usable(const ozk_counter *counter)
{
    return ozk_is_kind(counter, ozk_kind_counter) && counter->id != 0 &&
           __atomic_load_n(&counter->alive, __ATOMIC_ACQUIRE) == 1;
}

void ozk_counter_add(ozk_counter *counter, long long delta)
{
    if (!usable(counter))
        return;
    unsigned long long old = __atomic_load_n(&counter->value, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&counter->value, &old,
                                        add_in_type(counter->type, old, delta), 1,
                                        __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
}

void ozk_counter_set(ozk_counter *counter, const void *value)
{
    if (!usable(counter) || !value)
        return;
    __atomic_store_n(&counter->value, read_in_type(counter->type, value), __ATOMIC_RELAXED);
}

void ozk_counter_kill(ozk_counter *counter)
{
    if (!usable(counter))
        return;
    __atomic_store_n(&counter->alive, 0, __ATOMIC_RELEASE);
}
