// The module map's private state: shared by the core and the Linux loader, seen by nobody else.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "module_map.h"
#include "sal.h"

namespace vorx_mm {

constexpr size_t kArenaBlock = 64 * 1024;

struct arena_block_t {
    size_t size;
    arena_block_t* next;
};

struct queued_module_t {
    vorx_module_callback_t callback;
    char* name;
    uint64_t start;
    uint64_t end;
};

}  // namespace vorx_mm

struct vorx_module_map_state {
    vorx_mutex_t table_mutex;            // writers of the range table, the module array and the arena

    vorx_range_entry_t* storage = nullptr;  // two banks of `capacity` entries
    uint32_t capacity = 0;
    std::atomic<uint32_t> published{0};  // bit 31: the bank in use; bits 0-30: its count
    std::atomic<uint32_t> generation{0}; // raised by every change of the range table
    std::atomic<uint32_t> switch_tid{0}; // thread that holds the caches' locks, 0 when none does

    vorx_mod_info_t* mod_info = nullptr; // sorted by load_base; changed only with every cache locked
    uint32_t mod_capacity = 0;
    uint32_t mod_count = 0;

    vorx_range_t signal_ranges[2] = {};
    uint32_t signal_ranges_num = 0;
    uint64_t totals[2] = {0, 0};

    vorx_mutex_t queue_mutex;
    vorx_mm::queued_module_t* queue = nullptr;
    uint32_t queue_count = 0;
    uint32_t queue_capacity = 0;

    vorx_module_map_cache_t* caches = nullptr;  // changed under table_mutex

    vorx_mm::arena_block_t* arena = nullptr;
    char* arena_next = nullptr;
    size_t arena_left = 0;

    // writers' scratch, sized for the table: old->new index, piece indexes, removal marks
    uint32_t* scratch_index = nullptr;
    uint32_t* scratch_pieces = nullptr;
    uint8_t* scratch_removed = nullptr;
    uint32_t scratch_capacity = 0;
    size_t scratch_bytes = 0;
};

namespace vorx_mm {

using state_t = ::vorx_module_map_state;

extern const vorx_module_map_ops_t g_ops;

// Empties the range table and the signal ranges before a fresh load.
void reset_for_load(state_t* s);
void add_signal_range(state_t* s, uint64_t start, uint64_t end);

}  // namespace vorx_mm

extern "C" int load_module_map_impl(vorx_module_map_t* map, vorx_module_map_writer_t writer, void* context);
