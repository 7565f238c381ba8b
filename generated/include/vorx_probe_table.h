/* The probe table: one row per (function, module, version) that the collector may intercept.
 *
 * Everything here is static data made by the build from generated/functions.desc; only trampoline,
 * original, module (of head rows) and is_dynamic change at run time. Writers: the module-load prober,
 * under the engine's client lock, in load events only. Readers: wrappers and the collector, without locks;
 * a row is complete before its probe can run, because the engine writes the jump after the trampoline
 * exists. */
#pragma once
#include <stdint.h>
#include <wchar.h>
#include "vorx_probe_ids.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vorx_probe_entry {
    const char* name;   /* symbol name without version */
    uint32_t id;        /* vorx_pi_* */
    uint32_t versions;  /* rows per module: 3, or 1 for the collector's own entry points */
    uint32_t modules;   /* modules that the id has rows for */
} vorx_probe_entry_t;

typedef struct vorx_module_descriptor {
    const char* name;                  /* base name as matched at load ("libc.so") */
    const vorx_probe_entry_t* probes;  /* ends with a null name */
    uint32_t reserved;
} vorx_module_descriptor_t;

typedef struct vorx_probe {
    uint32_t reserved;
    void* probe;        /* the wrapper vorx_<fn>_mod<M>_ver<V>; null in head rows and without wrapper */
    void* trampoline;   /* how to call the function past the probe */
    void* original;     /* the routine's address in its module */
    uint32_t args_size; /* bytes of declared parameters, for the stack walker */
    uint32_t stack_adjust;
    uint32_t reserved_id;
    const vorx_module_descriptor_t* module;
    uint8_t is_dynamic; /* 1: the symbol came from the dynamic symbol table */
} vorx_probe_t;

/* 576 bits indexed by probe id. */
typedef struct vorx_probe_bitmap {
    uint32_t words[VORX_PROBE_BITMAP_BITS / 32];
} vorx_probe_bitmap_t;

extern vorx_probe_t g_vorx_probes_table[VORX_PROBE_ROWS];
extern const unsigned g_vorx_pt_id[VORX_PT_ID_ENTRIES];
extern const vorx_module_descriptor_t* const g_vorx_instrumented_modules;
extern const char* const g_vorx_probe_names[vorx_pi_eof];

#define VORX_DECLARE_BITMAPS(c) \
    extern const vorx_probe_bitmap_t c##_active_probe; extern const vorx_probe_bitmap_t c##_active_callback;
VORX_DECLARE_BITMAPS(cpu) VORX_DECLARE_BITMAPS(threading) VORX_DECLARE_BITMAPS(io) VORX_DECLARE_BITMAPS(waiting)
VORX_DECLARE_BITMAPS(frames) VORX_DECLARE_BITMAPS(tasks) VORX_DECLARE_BITMAPS(projection) VORX_DECLARE_BITMAPS(opencl)
VORX_DECLARE_BITMAPS(user_sync) VORX_DECLARE_BITMAPS(cm) VORX_DECLARE_BITMAPS(power) VORX_DECLARE_BITMAPS(opencl_ex)
VORX_DECLARE_BITMAPS(memory) VORX_DECLARE_BITMAPS(utimer) VORX_DECLARE_BITMAPS(opengles) VORX_DECLARE_BITMAPS(go)
#undef VORX_DECLARE_BITMAPS
extern const vorx_probe_bitmap_t employed_probe;
extern const vorx_probe_bitmap_t stack_stitching_active_probe;
extern const vorx_probe_bitmap_t online_sw_active_probe;   /* all zero on purpose: removing it is a no-op */
extern const vorx_probe_bitmap_t* const g_vorx_collection_probe_bitmaps[VORX_COLLECTION_EOF];
extern const vorx_probe_bitmap_t* const g_vorx_collection_callback_bitmaps[VORX_COLLECTION_EOF];
extern const char* const g_vorx_collection_names[VORX_COLLECTION_EOF];

/* The head row of an id: the default version through which the collector itself calls the function. */
static inline vorx_probe_t* vorx_head_row(unsigned id) {
    return g_vorx_probes_table + g_vorx_pt_id[id];
}
/* Row of module index mod and version index ver; versions is the entry's (3 or 1), never a constant. */
static inline vorx_probe_t* vorx_probe_row(unsigned id, unsigned versions, unsigned mod, unsigned ver) {
    return g_vorx_probes_table + g_vorx_pt_id[id] + 1 + versions * mod + ver;
}
static inline unsigned vorx_group_rows(unsigned id) {
    return g_vorx_pt_id[id + 1] - g_vorx_pt_id[id];
}
static inline int vorx_probe_bitmap_test(const vorx_probe_bitmap_t* map, unsigned id) {
    return (map->words[id / 32] >> (id % 32)) & 1u;
}

/* Index in a callback table of 2240 entries: state is vorx_st_paused 0 or vorx_st_resumed 1, order 0 before
 * the original, 1 after. */
#define VORX_CALLBACK_INDEX(id, state, order) ((((id) * 2u) + (state)) * 2u + (order))

/* Collection index (0 to 14) to its bitmaps; null out of range. */
const vorx_probe_bitmap_t* vorx_collection_to_probe_bitmap(unsigned index);
const vorx_probe_bitmap_t* vorx_collection_to_callback_bitmap(unsigned index);
/* Name of a collection as a wide text; "<unknown collection>" for an unknown index. */
const wchar_t* vorx_collection_to_wstring(unsigned index);
/* Index of a collection by name; 15 (VORX_COLLECTION_EOF) for an unknown name. */
unsigned vorx_wstring_to_collection(const wchar_t* text);

#ifdef __cplusplus
}
#endif
