// Between the walker and the unwinder's module tables (stackwalk/linux/unwind_linux.cpp).
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A mapped module as the unwinder sees it: its code, and the search table of its .eh_frame_hdr. */
typedef struct vorx_unwind_module {
    uintptr_t text_lo, text_hi;
    uintptr_t eh_frame_hdr; /* 0: no table that the unwinder can search */
    uintptr_t table;
    uint32_t fde_count;
} vorx_unwind_module;

/* 1 and the module that holds `address` in its code, or 0. */
int vorx_unwind_find_module(uintptr_t address, vorx_unwind_module* out);
/* 1 when the unwind tables have an entry for `address`. */
int vorx_unwind_has_entry(uintptr_t address);
/* 1 when `address` lies in the code of a mapped module. */
int vorx_unwind_is_code(uintptr_t address);
/* Re-reads the modules if they changed since the last walk (one thread at a time; the others go on). */
void vorx_unwind_before_walk(void);
int vorx_unwind_ready(void);
/* The mapping that holds sp, read with plain system calls (safe in a handler); 0 when none does. */
int vorx_unwind_stack_limits(uintptr_t sp, uintptr_t* top, uintptr_t* bottom);

#ifdef __cplusplus
}
#endif
