/*
 * ozknotify_api_table.h: what libozknotify.so hands to a collector.
 *
 * Not for applications. This is the contract between the annotation library
 * and the collector that intercepts it:
 *
 * 1. When the library is loaded it calls __ozk_api_init(&table, 0) through its
 *    exported entry. A collector that probes __ozk_api_init replaces the
 *    second argument by the mask of what it collects (OZK_API_INIT_* below)
 *    before the library's own function runs; the library stores the mask in
 *    `table.flags`. A mask of 0 means that no collector is there.
 *
 * 2. Some entry points (the typed counters, overlapped tasks, metadata, frame
 *    submission, and the collector's hand-over points `__internal_*`) are not
 *    reached by symbol: the exported function calls the function pointer of
 *    its slot. A collector finds each slot by `name` (or by the slot numbers
 *    below), keeps the pointer it found as the original of that row, and
 *    stores its own wrapper with an atomic store. Slots are read with an
 *    atomic load on every call, so a swap takes effect at once and may happen
 *    at any time, also while other threads call.
 *
 * The layout of the objects that creation functions return (the
 * OZK_OBJECT_HEADER of ozknotify.h) is part of the same contract: a collector
 * reads `id` and `name`, and may use `collector_word` as its own.
 */
#ifndef OZKNOTIFY_API_TABLE_H
#define OZKNOTIFY_API_TABLE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Bits of the mask that __ozk_api_init stores. */
#define OZK_API_INIT_NONE 0x0u              /* no collector: the library's own call */
#define OZK_API_INIT_BASE 0xEu              /* always set by a collector */
#define OZK_API_INIT_USER_SYNC 0x10u        /* user sync objects are collected */
#define OZK_API_INIT_FRAMES 0x200u          /* frames are collected */
#define OZK_API_INIT_STACK_STITCHING 0x400u /* stack stitching is on */
#define OZK_API_INIT_TASKS 0x1000u          /* tasks (or frames) are collected */

#define OZK_API_TABLE_MAGIC 0x544B5A4Fu /* "OZKT" in memory */
#define OZK_API_TABLE_VERSION 1u

/* Slot numbers, in the order of the table. */
enum ozk_api_slot {
#define OZK_VIA_TABLE(ret, name, params, args) ozk_slot_##name,
#define OZK_TABLE_ONLY(ret, name, params, args) ozk_slot_##name,
#include "ozknotify_api.def"
    ozk_slot_eof
};

typedef struct ozk_api_table_entry {
    const char *name; /* the row's function name, e.g. "__ozk_counter_inc_v3" */
    void *fn;         /* called by the library; swapped by a collector */
} ozk_api_table_entry;

typedef struct ozk_api_table {
    unsigned int magic;   /* OZK_API_TABLE_MAGIC */
    unsigned int version; /* OZK_API_TABLE_VERSION */
    unsigned int size;    /* sizeof(ozk_api_table) */
    volatile int flags;   /* the mask of the last __ozk_api_init */
    unsigned int count;   /* ozk_slot_eof */
    ozk_api_table_entry *entries;
    /* The library's version (OZKNOTIFY_VERSION) */
    unsigned int library_version;
} ozk_api_table;

#ifdef __cplusplus
}
#endif

#endif /* OZKNOTIFY_API_TABLE_H */
