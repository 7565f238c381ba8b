// The annotation library's hand-over table. A few of the library's entry points (typed counters, overlapped
// tasks, metadata, frame submission, the collector's own hand-over points) are not probed by symbol: the
// library calls each through a slot of a table that it announces with __ozk_api_init from its constructor,
// which runs before the runtime opens. The collector makes each slot's function the original of its row in
// "unknown.unk" and stores the row's wrapper in the slot; at detach the library's own functions go back, and
// a re-attach takes the slots again while the library stays loaded.
#include <atomic>
#include <string.h>

#include "api_handover.h"
#include "module_probing.h"
#include "ozknotify_api_table.h"
#include "vorx_config.h"
#include "vorx_log.h"
#include "vorx_probe_table.h"

namespace {

constexpr const char *kHandOverModule = "unknown.unk";
// More slots than any library version has: a larger count is a table of another form.
constexpr unsigned kMostSlots = 1024;

// The library's table while it is loaded: the collector lets go of it at detach and takes it again at attach.
std::atomic<ozk_api_table *> g_table{nullptr};

ozk_api_table *as_table(void *pointer) {
  auto *table = static_cast<ozk_api_table *>(pointer);
  if (table == nullptr || table->magic != OZK_API_TABLE_MAGIC || table->size < sizeof(ozk_api_table) ||
      table->entries == nullptr || table->count > kMostSlots)
    return nullptr;
  return table;
}

unsigned probe_id_named(const char *name) {
  if (name == nullptr) return vorx_pi_eof;
  for (unsigned id = 0; id < vorx_pi_eof; ++id)
    if (g_vorx_probe_names[id] != nullptr && strcmp(g_vorx_probe_names[id], name) == 0) return id;
  return vorx_pi_eof;
}

// Each slot gets what `choose(id, module, current)` answers; a null answer leaves the slot as it is.
template <class Choose>
void rewrite_slots(ozk_api_table *table, Choose choose) {
  for (unsigned slot = 0; slot < table->count; ++slot) {
    ozk_api_table_entry &entry = table->entries[slot];
    unsigned id = probe_id_named(entry.name);
    if (id == vorx_pi_eof) {
      VORX_LOG(vorx_log_level_trace, "hand-over slot %u (%s) has no row", slot, entry.name ? entry.name : "?");
      continue;
    }
    void *current = __atomic_load_n(&entry.fn, __ATOMIC_ACQUIRE);
    void *next = choose(id, kHandOverModule, current);
    if (next != nullptr && next != current) __atomic_store_n(&entry.fn, next, __ATOMIC_RELEASE);
  }
}

void take_slots(ozk_api_table *table) { rewrite_slots(table, vorx_take_over_handed_function); }

}  // namespace

extern "C" int vorx_ozk_api_init_mask(const vorx_configuration *conf) {
  unsigned mask = OZK_API_INIT_BASE;
  if (conf == nullptr) return static_cast<int>(mask);
  auto has = [conf](vorx_collection_t c) { return vorx_conf_has_collection(conf, c); };
  if ((has(vorx_cl_threading) || has(vorx_cl_waiting)) && has(vorx_cl_user_sync)) mask |= OZK_API_INIT_USER_SYNC;
  if (has(vorx_cl_frame)) mask |= OZK_API_INIT_FRAMES;
  if (conf->stack_stitching_mode == 0) mask |= OZK_API_INIT_STACK_STITCHING;
  if (has(vorx_cl_task) || has(vorx_cl_frame)) mask |= OZK_API_INIT_TASKS;
  return static_cast<int>(mask);
}

extern "C" int vorx_ozk_api_handover(void *api_table) {
  ozk_api_table *table = as_table(api_table);
  if (table == nullptr) {
    VORX_LOG(vorx_log_level_info, "__ozk_api_init was given no table of the annotation library's form (%p)",
             api_table);
  } else {
    g_table.store(table, std::memory_order_release);
    take_slots(table);
  }
  return vorx_ozk_api_init_mask(g_vorx_conf);
}

extern "C" void vorx_ozk_api_retake(void) {
  if (ozk_api_table *table = g_table.load(std::memory_order_acquire)) take_slots(table);
}

extern "C" void vorx_ozk_api_give_back(void) {
  if (ozk_api_table *table = g_table.load(std::memory_order_acquire))
    rewrite_slots(table, vorx_give_back_handed_function);
}

extern "C" void vorx_ozk_api_forget(void) { g_table.store(nullptr, std::memory_order_release); }
