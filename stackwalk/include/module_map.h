/* The module map: which addresses hold executable code of a known module, and which module it is.
 *
 * The stack walker asks both questions at every frame, from signal handlers, while other threads dlopen and
 * dlclose. So the range table lives in two banks of one mapping: a change is written into the bank that is
 * not in use and published by one store of (bank, count). Each reader has its own cache, with a lock that
 * only the writer's switch ever contends for; a reader that holds it sees no switch, and a writer never
 * overwrites a bank that a reader may still be searching.
 *
 * Lock order: the table mutex, then the caches' locks in list order. Writers are never signal handlers.
 * Readers (vorx_find_address_range, vorx_find_module) take no blocking lock: their cache lock is a word
 * that they spin on only while a writer switches banks, which is a few stores. A reader nested in its own
 * thread's reader (a signal handler interrupting a lookup) searches without the lock and leaves the cache
 * untouched; a switch cannot happen under it, because the interrupted lookup holds the lock. */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vorx_range {
    uint64_t start;
    uint64_t end;  /* exclusive */
} vorx_range_t;

/* 24 bytes, sorted by address, never overlapping. link is the 1-based index of the next piece of the same
 * inserted range, 0 at the end of a chain. */
typedef struct vorx_range_entry {
    uint64_t start;
    uint64_t end;
    uint8_t flag;
    uint32_t link;
} vorx_range_entry_t;

typedef struct vorx_mod_info {
    char* name;          /* owned copy */
    uint64_t load_base;
    uint64_t end;
    uint8_t flag;
} vorx_mod_info_t;

/* One thread's (one stack descriptor's) view: the last hit and the largest hole seen since the last change. */
typedef struct vorx_module_map_cache {
    vorx_range_t miss;
    vorx_range_t hit;
    uint32_t generation;
    volatile uint32_t lock;        /* 0 free, 1 its reader, 2 a writer's switch */
    volatile uint32_t invalidated; /* set by a notifying change: walks in progress are void */
    struct vorx_module_map_cache* link;
} vorx_module_map_cache_t;

typedef struct vorx_module_map vorx_module_map_t;

/* What find_module hands to its caller's callback. */
typedef void (*vorx_module_found_t)(const char* name, uint64_t load_base, uint8_t flag, void* data,
                                    vorx_module_map_cache_t* cache);
/* A deferred module event: 1 done, 0 keep it for a later pass. */
typedef int (*vorx_module_callback_t)(void* argument, const char* name, uint64_t start, uint64_t end);

/* A module of the current layout, as load hands it to its writer (one record for all). */
typedef struct vorx_module_info_item {
    uint64_t start;
    uint64_t end;
    uint32_t name_length;
    const char* name;
} vorx_module_info_item_t;
typedef void (*vorx_module_map_writer_t)(void* context, const vorx_module_info_item_t* items, uint32_t count);

typedef struct vorx_module_map_ops {
    int (*load)(vorx_module_map_t* map, vorx_module_map_writer_t writer, void* context);
    int (*insert_executable)(vorx_module_map_t* map, const vorx_range_t* pieces, uint32_t count, uint8_t flag);
    int (*insert_range)(vorx_module_map_t* map, const vorx_range_t* range, uint8_t flag, int notify);
    int (*remove_range)(vorx_module_map_t* map, const vorx_range_t* range);
    int (*find_module)(vorx_module_map_t* map, uint64_t address, vorx_module_found_t callback, void* data,
                       vorx_module_map_cache_t* cache);
    void (*add_module)(vorx_module_map_t* map, const char* name, uint64_t start, uint64_t end, uint8_t flag);
    void (*schedule_module_processing)(vorx_module_map_t* map, const char* name, uint64_t start, uint64_t end,
                                       vorx_module_callback_t callback);
    void (*process_scheduled_modules)(vorx_module_map_t* map, void* argument);
    int (*find_address_range)(vorx_module_map_t* map, const vorx_range_t* range, vorx_module_map_cache_t* cache,
                              uint8_t* flag);
    void (*reallocate_storage)(vorx_module_map_t* map);
    vorx_module_map_cache_t* (*create_cache)(vorx_module_map_t* map);
    void (*destroy_cache)(vorx_module_map_t* map, vorx_module_map_cache_t* cache);
} vorx_module_map_ops_t;

/* Results of the operations that answer found / not found. */
enum { vorx_mm_found = 1, vorx_mm_not_found = 2 };

#define VORX_MODULE_MAP_INITIAL_CAPACITY 4096u
#define VORX_MODULE_NAME_MAX 4096u

/* The map's state is private to the map's code; callers go through the operations. */
struct vorx_module_map_state;
struct vorx_module_map {
    const vorx_module_map_ops_t* ops;
    struct vorx_module_map_state* state;
};

vorx_module_map_t* vorx_alloc_module_map(void);
void vorx_free_module_map(vorx_module_map_t* map);
/* The process's map, made once; it outlives detach and re-attach. */
extern vorx_module_map_t* g_vorx_module_map;
vorx_module_map_t* vorx_init_module_map(void);

/* Reader entries: usable from signal handlers. cache may be null for an uncached search (not from a handler
 * that may interrupt a writer on the same thread: the cache's lock is what keeps the bank in place). */
int vorx_find_module(vorx_module_map_t* map, uint64_t address, vorx_module_found_t callback, void* data,
                     vorx_module_map_cache_t* cache);
int vorx_find_address_range(vorx_module_map_t* map, const vorx_range_t* range, vorx_module_map_cache_t* cache);

/* Inspection, for the walkers' inlined checks and for tests: the published table and its change count. */
uint32_t vorx_module_map_generation(const vorx_module_map_t* map);
uint32_t vorx_module_map_range_count(const vorx_module_map_t* map);
uint32_t vorx_module_map_capacity(const vorx_module_map_t* map);
uint32_t vorx_module_map_module_count(const vorx_module_map_t* map);
/* Copies out entry i of the bank in use (false past the end). */
int vorx_module_map_range_at(const vorx_module_map_t* map, uint32_t i, vorx_range_entry_t* out);

/* The libc/libpthread code ranges that load found (their signal trampolines mark signal frames). */
uint32_t vorx_module_map_signal_ranges(const vorx_module_map_t* map, vorx_range_t out[2]);

/* Executable extents of the collector's file and of the engine's binary, set by load. */
extern vorx_range_t g_vorxtool_address_range;
extern vorx_range_t g_kelvm_address_range;

/* Runtime entry: a module loaded after start-up. Under the thread manager's global lock: the module goes
 * into the map and its record is written through vorx_put_registered_module (the runtime's hook). Nothing
 * happens once the collector has closed. */
void vorx_register_module(const char* name, uint64_t start, uint64_t end);
/* Runtime entry: a newly found executable section of a loaded image (flag 1). */
void vorx_register_executable_section(uint64_t section_start_addr, uint64_t section_end_addr);

#ifdef __cplusplus
}
#endif
