// The object table of the heap kind: which blocks the collector reported, so that only their release is
// reported too. Without a table (a size filter of 0 or 1) every allocation the filter lets through and
// every release is reported.
#include "event_filtering.h"
#include "vorx_htable.h"
#include "vorx_log.h"

namespace {

// Buckets of the table; the table grows its chains, so this only sets how long they get.
constexpr vorx_size_t kMemObjTableBuckets = 1u << 16;

vorx_u32_t address_key(const void* address) {
  return static_cast<vorx_u32_t>(reinterpret_cast<uintptr_t>(address));
}

}  // namespace

extern "C" {

void* g_vorx_mem_obj_htable = nullptr;

vorx_u32_t vorx_mem_obj_htable_init(const vorx_configuration* conf, void** out_table) {
  *out_table = nullptr;
  if (!conf || conf->memory_size_threshold < 2) return vorx_er_success;
  *out_table = vorx_alloc_object(vorx_htable_t(), kMemObjTableBuckets);
  return *out_table ? vorx_er_success : vorx_er_out_of_memory;
}

void vorx_mem_obj_htable_fini(void* table) {
  if (table) vorx_free_object(table);
}

int vorx_mem_obj_htable_insert(void* table, const vorx_configuration* conf, uint64_t size, void* address) {
  if (size == 0 || address == nullptr) return 0;
  if (conf && size < conf->memory_size_threshold) return 0;
  if (!table) return 1;
  vorx_er_t inserted = vorx_htable_insert(static_cast<vorx_htable*>(table), address_key(address));
  VORX_ASSERT(inserted == vorx_er_success);
  return 1;
}

int vorx_mem_obj_htable_delete(void* table, void* address) {
  if (!table || !address) return 1;
  return vorx_htable_delete(static_cast<vorx_htable*>(table), address_key(address)) == vorx_er_success;
}

}  // extern "C"
