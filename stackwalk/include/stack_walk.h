/* Stack walking for samples: the thread's call stack at a tick, as return addresses (online) or as the
 * stack's own words (offline, for the trace's reader to unwind).
 *
 * A walk runs on the thread that it walks, inside its sampling handler or at a wrapper's exit, with the
 * thread's descriptor held. It never allocates: the descriptor's buffers are mapped when it is made. Every
 * read of the program's memory is protected: a fault ends the walk with the frames found so far.
 *
 * Online, each step goes by the unwind tables of the module that holds the address (libunwind's local
 * unwinder, fed with the tables that the module has in memory); where a module has none, by the frame-pointer
 * chain; where that is broken too, by scanning the stack for the next word that is a return address. Two
 * bounds hold every step: a frame's stack pointer rises and stays within the thread's stack, and a walk has at
 * most VORX_STACK_MAX_FRAMES frames. */
#pragma once
#include <stdint.h>

#include "module_map.h"
#include "vorx_tmu.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_STACK_MAX_FRAMES 128u
/* Offline: the most stack bytes looked at above the stack pointer. */
#define VORX_STACK_OFFLINE_WINDOW 0x4000u

/* Results of walks and steps. */
enum { vorx_sw_frame = 1, vorx_sw_failed = 2, vorx_sw_end = 3 };

/* Where a walk starts: the registers of the interrupted (or calling) code. */
typedef struct vorx_stack_start {
    uint32_t ip;
    uint32_t sp;
    uint32_t fp;
    const void *ucontext; /* the machine context that holds them, or null */
    int exact_ip;         /* 1: ip is the interrupted instruction, not a return address */
} vorx_stack_start_t;

/* How the frames of the last walk were found. */
typedef struct vorx_stack_walk_stats {
    uint32_t walks;
    uint32_t table_frames;
    uint32_t pointer_frames;
    uint32_t scanned_frames;
    uint32_t faults;
} vorx_stack_walk_stats_t;

typedef struct vorx_stack_desc vorx_stack_desc_t;
struct vorx_stack_desc {
    /* operations */
    void (*init)(vorx_stack_desc_t *d, uint32_t thread);
    void (*reset)(vorx_stack_desc_t *d);
    void (*destroy)(vorx_stack_desc_t *d);
    /* vorx_sw_frame when frames were found */
    int (*walk)(vorx_stack_desc_t *d, const vorx_stack_start_t *start);
    /* writes what the last walk found; vorx_sw_frame when a record was written */
    int (*put)(vorx_stack_desc_t *d, vorx_tmu_t *unit, uint32_t tid, uint64_t timestamp);
    /* state */
    uint32_t thread;
    uint32_t offline;
    uintptr_t region_top;    /* lowest address of the thread's stack */
    uintptr_t region_bottom; /* one past its highest */
    vorx_module_map_cache_t *cache;
    uint32_t frame_count;
    uint32_t frames[VORX_STACK_MAX_FRAMES]; /* innermost first: frames[0] is where the thread is */
    /* offline: the stack words above sp that look like code or stack addresses */
    uint32_t item_count;
    uint32_t item_capacity;
    uint32_t *item_sp;
    uint32_t *item_value;
    uint32_t start_sp, start_fp;
    uint8_t *record_buffer;
    uint32_t record_capacity;
    vorx_stack_walk_stats_t stats;
};

/* Once per process, outside any handler: the unwinder's table lookup, and the process's module tables. */
int vorx_init_unwind(void);
/* The modules' tables are looked for again at the next walk (a module came or went). */
void vorx_unwind_modules_changed(void);

vorx_stack_desc_t *vorx_alloc_stack_desc(uint32_t thread, int offline);
void vorx_free_stack_desc(vorx_stack_desc_t *d);

/* The online body: the frames' addresses from frames[0] outward, each as its difference from the one before
 * (the first absolute) in the significant-bytes form. 1, or 2 when `capacity` (which must leave 4 bytes of
 * slack) is too small: then nothing usable was written. */
int vorx_pack_online_frames(const uint32_t *frames, uint32_t count, uint8_t *out, uint32_t capacity,
                            uint32_t *out_size);
/* The reverse, for tests and tools: the count of frames decoded, or -1 for a malformed body. */
int vorx_unpack_online_frames(const uint8_t *body, uint32_t size, uint32_t *frames, uint32_t capacity);

/* The code range of the module that holds `address`: 1, or 0 when no module of the unwinder's does. */
int vorx_stack_code_range(uintptr_t address, uintptr_t *lo, uintptr_t *hi);

/* True when the bytes before `address` end with a call instruction (read under protection). */
int vorx_check_previous_call_instruction(uint32_t address);

/* For tests: one walk of the calling thread from here. */
uint32_t vorx_walk_own_stack(vorx_stack_desc_t *d);

#ifdef __cplusplus
}
#endif
