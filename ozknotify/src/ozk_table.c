/*
 * The hand-over table (see ozknotify_api_table.h) and the exported entries
 * that call through it. Slots, names and entries are all expanded from
 * ozknotify_api.def.
 */
#include "ozk_internal.h"

static ozk_api_table_entry g_entries[ozk_slot_eof] = {
#define OZK_VIA_TABLE(ret, name, params, args) [ozk_slot_##name] = {#name, (void *)ozk_default_##name},
#define OZK_TABLE_ONLY(ret, name, params, args) [ozk_slot_##name] = {#name, (void *)ozk_default_##name},
#include "ozknotify_api.def"
};

ozk_api_table g_ozk_api_table = {
    .magic = OZK_API_TABLE_MAGIC,
    .version = OZK_API_TABLE_VERSION,
    .size = sizeof(ozk_api_table),
    .flags = OZK_API_INIT_NONE,
    .count = ozk_slot_eof,
    .entries = g_entries,
    .library_version = OZKNOTIFY_VERSION,
};

/* The slot's current function, read once per call: a collector may swap it
 * at any time. */
#define OZK_SLOT(name, ret, params)                                                               \
    ((ret(*) params)__atomic_load_n(&g_entries[ozk_slot_##name].fn, __ATOMIC_ACQUIRE))

/* Exported entries of the table's rows. Their bodies only dispatch; they are
 * probe-safe like every entry but the collector does not probe them (it owns
 * the slot instead), so a call is never seen twice. */
#define OZK_VIA_TABLE(ret, name, params, args)                                                    \
    OZK_ENTRY ret name params                                                                     \
    {                                                                                             \
        return OZK_SLOT(name, ret, params) args;                                                  \
    }
#include "ozknotify_api.def"

void ozk_table_set_flags(ozk_api_table *table, int flags)
{
    __atomic_store_n(&table->flags, flags, __ATOMIC_RELEASE);
}

static volatile int g_reported_state;

int ozk_state_exchange(int state)
{
    if (state < 0)
        return __atomic_load_n(&g_reported_state, __ATOMIC_ACQUIRE);
    return __atomic_exchange_n(&g_reported_state, state, __ATOMIC_ACQ_REL);
}

/* The library announces its table as soon as it is loaded, through the
 * exported entry, where a collector's probe catches it. */
__attribute__((constructor)) static void ozk_library_start(void)
{
    __ozk_api_init(&g_ozk_api_table, (int)OZK_API_INIT_NONE);
}
