/*
 * User-callback registry.
 *
 * When the application hands a function pointer to an intercepted call (a
 * thread's start routine, a signal handler), the collector passes one of its
 * own instead and must later find the application's. An entry holds such a
 * pair. The registry also decides whether a pointer needs a wrapper at all: a
 * pointer into the collector's own code is one of ours already, unless its
 * address was declared ignored (code of a helper library that must run
 * unwrapped, called directly).
 *
 * Concurrency: the ignored-range list is guarded by its lock; entries belong
 * to the caller that registered them.
 */
#ifndef VORX_USER_CBK_H
#define VORX_USER_CBK_H

#include "vorx_types.h"
#include "sal.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_USR_CBK_PROPERTIES 3

/* One registration; every word 32 bits wide and 0 when made. */
typedef struct vorx_usr_cbk_entry {
    vorx_address_t user_addr;
    vorx_address_t user_param;
    vorx_address_t wrapper_addr;
    vorx_address_t wrapper_param;
    vorx_u32_t properties[VORX_USR_CBK_PROPERTIES];
    vorx_u32_t spare;
} vorx_usr_cbk_entry_t;

/* What vorx_usr_cbk_register found. */
typedef enum vorx_usr_cbk_reg {
    vorx_usr_cbk_reg_wrap = 1,     /* a new entry: the caller fills in a wrapper */
    vorx_usr_cbk_reg_internal = 2, /* the pointer is the collector's and its parameter is an
                                      entry made earlier: use that entry as it stands */
    vorx_usr_cbk_reg_direct = 3,   /* ignored address: call it directly (wrapper = user) */
    vorx_usr_cbk_reg_eof
} vorx_usr_cbk_reg_t;

/* A range [start, end) of code addresses. */
typedef struct vorx_usr_cbk_range {
    vorx_address_t start;
    vorx_address_t end;
} vorx_usr_cbk_range_t;

/* An ignored range in the circular list headed by g_ignored_addrs_dir. */
typedef struct vorx_usr_cbk_ignored {
    vorx_address_t start;
    vorx_address_t end;
    struct vorx_usr_cbk_ignored *next;
} vorx_usr_cbk_ignored_t;

/* The collector's own code. Written once by vorx_usr_cbk_init. */
extern vorx_usr_cbk_range_t g_internal_domain_code_address_range;
/* Head (sentinel) of the circular list of ignored ranges; under the lock. */
extern vorx_usr_cbk_ignored_t g_ignored_addrs_dir;
extern vorx_mutex_t g_ignored_addrs_dir_lock;
/* Raised by the first registration, under the lock. Ranges handed in later
 * still enter the list; the flag only marks that moment. */
extern vorx_bool_t g_ignored_addrs_dir_closed;

/* First call only: stores the collector's code range, empties the list,
 * initialises the lock. Later calls change nothing. */
void vorx_usr_cbk_init(vorx_address_t start, vorx_address_t end);
/* Releases the list and forgets the range, so that a new init takes effect
 * (collector unload, tests). Entries stay the callers'. */
void vorx_usr_cbk_fini(void);

/* Declares [start, end) ignored. start < end, and the range lies wholly
 * outside the collector's code unless it is one byte long (assertions). A
 * range that a listed one holds already is not added twice. */
void vorx_usr_cbk_ignore_range(vorx_address_t start, vorx_address_t end);
/* The one-byte range [addr, addr + 1). */
void vorx_usr_cbk_ignore_addr(vorx_address_t addr);

/* Registers the application's pointer and parameter; see vorx_usr_cbk_reg_t.
 * *out receives the entry (a new one, or the collector's own for
 * vorx_usr_cbk_reg_internal). */
vorx_usr_cbk_reg_t vorx_usr_cbk_register(vorx_address_t user_addr, vorx_address_t user_param,
                                         vorx_usr_cbk_entry_t **out);
/* Frees an entry of vorx_usr_cbk_register. */
void vorx_usr_cbk_unregister(vorx_usr_cbk_entry_t *entry);

/* Accessors; a null entry or a property index above 2 is an assertion. */
void vorx_usr_cbk_set_wrapper_addr(vorx_usr_cbk_entry_t *entry, vorx_address_t wrapper_addr,
                                   vorx_address_t wrapper_param);
vorx_address_t vorx_usr_cbk_get_wrapper_addr(const vorx_usr_cbk_entry_t *entry);
vorx_address_t vorx_usr_cbk_get_wrapper_param(const vorx_usr_cbk_entry_t *entry);
void vorx_usr_cbk_set_user_addr(vorx_usr_cbk_entry_t *entry, vorx_address_t user_addr,
                                vorx_address_t user_param);
vorx_address_t vorx_usr_cbk_get_user_addr(const vorx_usr_cbk_entry_t *entry);
vorx_address_t vorx_usr_cbk_get_user_param(const vorx_usr_cbk_entry_t *entry);
void vorx_usr_cbk_set_property(vorx_usr_cbk_entry_t *entry, vorx_u32_t index, vorx_u32_t value);
vorx_u32_t vorx_usr_cbk_get_property(const vorx_usr_cbk_entry_t *entry, vorx_u32_t index);

/* Hooks kept for callers that announce proxies and helpers; they do
 * nothing. */
void vorx_usr_cbk_enable_proxy(void);
void vorx_usr_cbk_reg_helper(void);

#ifdef __cplusplus
}
#endif

#endif /* VORX_USER_CBK_H */
