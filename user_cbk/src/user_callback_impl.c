/*
 * User-callback registry: pairs of the application's callback and the
 * collector's wrapper, and the ranges of code that are called unwrapped.
 */
#include <stdlib.h>

#include "vorx_log.h"
#include "vorx_user_cbk.h"

vorx_usr_cbk_range_t g_internal_domain_code_address_range;
vorx_usr_cbk_ignored_t g_ignored_addrs_dir = {0, 0, &g_ignored_addrs_dir};
vorx_mutex_t g_ignored_addrs_dir_lock;
vorx_bool_t g_ignored_addrs_dir_closed;

static vorx_bool_t g_initialized;

static vorx_bool_t in_range(vorx_address_t start, vorx_address_t end, vorx_address_t addr)
{
    return addr >= start && addr < end;
}

static vorx_bool_t is_internal(vorx_address_t addr)
{
    return in_range(g_internal_domain_code_address_range.start,
                    g_internal_domain_code_address_range.end, addr);
}

/* The listed range that holds all of [start, end), or null. Under the lock. */
static vorx_usr_cbk_ignored_t *find_holder(vorx_address_t start, vorx_address_t end)
{
    for (vorx_usr_cbk_ignored_t *r = g_ignored_addrs_dir.next; r != &g_ignored_addrs_dir;
         r = r->next)
        if (r->start <= start && end <= r->end)
            return r;
    return NULL;
}

static void empty_list(void)
{
    vorx_usr_cbk_ignored_t *r = g_ignored_addrs_dir.next;
    while (r != &g_ignored_addrs_dir) {
        vorx_usr_cbk_ignored_t *next = r->next;
        free(r);
        r = next;
    }
    g_ignored_addrs_dir.next = &g_ignored_addrs_dir;
}

void vorx_usr_cbk_init(vorx_address_t start, vorx_address_t end)
{
    if (g_initialized)
        return;
    g_internal_domain_code_address_range.start = start;
    g_internal_domain_code_address_range.end = end;
    g_ignored_addrs_dir.start = g_ignored_addrs_dir.end = 0;
    g_ignored_addrs_dir.next = &g_ignored_addrs_dir;
    g_ignored_addrs_dir_closed = VORX_FALSE;
    vorx_mutex_init(&g_ignored_addrs_dir_lock);
    g_initialized = VORX_TRUE;
}

void vorx_usr_cbk_fini(void)
{
    if (!g_initialized)
        return;
    vorx_mutex_lock(&g_ignored_addrs_dir_lock);
    empty_list();
    g_ignored_addrs_dir_closed = VORX_FALSE;
    vorx_mutex_unlock(&g_ignored_addrs_dir_lock);
    vorx_mutex_destroy(&g_ignored_addrs_dir_lock);
    g_internal_domain_code_address_range.start = g_internal_domain_code_address_range.end = 0;
    g_initialized = VORX_FALSE;
}

void vorx_usr_cbk_ignore_range(vorx_address_t start, vorx_address_t end)
{
    VORX_ASSERT(start < end);
    /* A helper library's code may never overlap the collector's; a single
     * address may (an entry point of ours that must be called unwrapped). */
    VORX_ASSERT(end - start == 1 ||
                end <= g_internal_domain_code_address_range.start ||
                start >= g_internal_domain_code_address_range.end);

    vorx_mutex_lock(&g_ignored_addrs_dir_lock);
    if (!find_holder(start, end)) {
        vorx_usr_cbk_ignored_t *r = malloc(sizeof *r);
        VORX_ASSERT_MSG(r != NULL, "no memory for an ignored range");
        r->start = start;
        r->end = end;
        r->next = g_ignored_addrs_dir.next;
        g_ignored_addrs_dir.next = r;
    }
    vorx_mutex_unlock(&g_ignored_addrs_dir_lock);
}

void vorx_usr_cbk_ignore_addr(vorx_address_t addr)
{
    vorx_usr_cbk_ignore_range(addr, addr + 1);
}

vorx_usr_cbk_reg_t vorx_usr_cbk_register(vorx_address_t user_addr, vorx_address_t user_param,
                                         vorx_usr_cbk_entry_t **out)
{
    VORX_ASSERT(out != NULL);

    vorx_mutex_lock(&g_ignored_addrs_dir_lock);
    g_ignored_addrs_dir_closed = VORX_TRUE;
    vorx_bool_t ignored = find_holder(user_addr, user_addr + 1) != NULL;
    vorx_mutex_unlock(&g_ignored_addrs_dir_lock);

    vorx_bool_t ours = is_internal(user_addr) && !ignored;
    if (ours && user_param != 0) {
        /* Our own wrapper is being registered again (a thread started by a
         * wrapped start routine starts another): its parameter is the entry
         * made the first time. */
        *out = (vorx_usr_cbk_entry_t *)user_param;
        return vorx_usr_cbk_reg_internal;
    }

    vorx_usr_cbk_entry_t *entry = calloc(1, sizeof *entry);
    VORX_ASSERT_MSG(entry != NULL, "no memory for a user callback entry");
    *out = entry;
    if (ours)
        return vorx_usr_cbk_reg_wrap;

    entry->user_addr = user_addr;
    entry->user_param = user_param;
    if (ignored) {
        entry->wrapper_addr = user_addr;
        return vorx_usr_cbk_reg_direct;
    }
    return vorx_usr_cbk_reg_wrap;
}

void vorx_usr_cbk_unregister(vorx_usr_cbk_entry_t *entry)
{
    free(entry);
}

void vorx_usr_cbk_set_wrapper_addr(vorx_usr_cbk_entry_t *entry, vorx_address_t wrapper_addr,
                                   vorx_address_t wrapper_param)
{
    VORX_ASSERT(entry != NULL);
    entry->wrapper_addr = wrapper_addr;
    entry->wrapper_param = wrapper_param;
}

vorx_address_t vorx_usr_cbk_get_wrapper_addr(const vorx_usr_cbk_entry_t *entry)
{
    VORX_ASSERT(entry != NULL);
    return entry->wrapper_addr;
}

vorx_address_t vorx_usr_cbk_get_wrapper_param(const vorx_usr_cbk_entry_t *entry)
{
    VORX_ASSERT(entry != NULL);
    return entry->wrapper_param;
}

void vorx_usr_cbk_set_user_addr(vorx_usr_cbk_entry_t *entry, vorx_address_t user_addr,
                                vorx_address_t user_param)
{
    VORX_ASSERT(entry != NULL);
    entry->user_addr = user_addr;
    entry->user_param = user_param;
}

vorx_address_t vorx_usr_cbk_get_user_addr(const vorx_usr_cbk_entry_t *entry)
{
    VORX_ASSERT(entry != NULL);
    return entry->user_addr;
}

vorx_address_t vorx_usr_cbk_get_user_param(const vorx_usr_cbk_entry_t *entry)
{
    VORX_ASSERT(entry != NULL);
    return entry->user_param;
}

void vorx_usr_cbk_set_property(vorx_usr_cbk_entry_t *entry, vorx_u32_t index, vorx_u32_t value)
{
    VORX_ASSERT(entry != NULL);
    VORX_ASSERT(index < VORX_USR_CBK_PROPERTIES);
    entry->properties[index] = value;
}

vorx_u32_t vorx_usr_cbk_get_property(const vorx_usr_cbk_entry_t *entry, vorx_u32_t index)
{
    VORX_ASSERT(entry != NULL);
    VORX_ASSERT(index < VORX_USR_CBK_PROPERTIES);
    return entry->properties[index];
}

void vorx_usr_cbk_enable_proxy(void)
{
}

void vorx_usr_cbk_reg_helper(void)
{
}
