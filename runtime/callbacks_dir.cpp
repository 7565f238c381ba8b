// The directory of callback tables: each collection that records events links its table of pre and post
// callbacks here, indexed by (id * 2 + state) * 2 + order. Wrappers and the thread start walk it.
#include <stdint.h>
#include <string.h>

#include "event_records.h"
#include "runtime_entries.h"
#include "vorx_config.h"
#include "vorx_log.h"

namespace {

// Linked at init (before the runtime opens) and unlinked at detach or abort; walked without locks by
// application threads in between.
vorx_callback_table* g_vorx_callbacks_dir = nullptr;
// Whether any linked table has a callback at an index, and whether all of them there are plain records:
// asked by every measured call, kept with the links.
uint8_t g_any_callback[VORX_CALLBACK_ENTRIES];
uint8_t g_plain_records[VORX_CALLBACK_ENTRIES];

void note_linked_callbacks() {
  for (unsigned index = 0; index < VORX_CALLBACK_ENTRIES; ++index) {
    uint8_t any = 0, plain = 1;
    unsigned tables = 0;
    vorx_callback_t only = nullptr;
    for (const vorx_callback_table* table = g_vorx_callbacks_dir; table; table = table->next) {
      bool here = table->entries[index] != nullptr;
      any |= here;
      if (here && table != &g_vorx_tp_cbks) plain = 0;
      if (here) ++tables, only = table->entries[index];
    }
    g_any_callback[index] = any;
    g_plain_records[index] = any & plain;
    g_vorx_only_callback[index] = tables == 1 ? only : nullptr;
  }
}

// Collection 0 is always on; the others by their bit in collection_types.
vorx_probe_bitmap_t active_callbacks(const vorx_u32_t* collection_types) {
  vorx_probe_bitmap_t active{};
  for (unsigned c = 0; c < VORX_COLLECTION_EOF; ++c) {
    bool on = c == 0 || (collection_types[c / 32] >> (c % 32)) & 1u;
    const vorx_probe_bitmap_t* map = vorx_collection_to_callback_bitmap(c);
    if (!on || !map) continue;
    for (unsigned w = 0; w < VORX_PROBE_BITMAP_BITS / 32; ++w) active.words[w] |= map->words[w];
  }
  return active;
}

bool link_table(vorx_callback_table* table) {
  for (vorx_callback_table* t = g_vorx_callbacks_dir; t; t = t->next)
    if (t == table) return false;
  table->next = nullptr;
  vorx_callback_table** tail = &g_vorx_callbacks_dir;
  while (*tail) tail = &(*tail)->next;
  *tail = table;
  return true;
}

const char* short_name(const vorx_callback_table* table) {
  return table == &g_vorx_ss_cbks ? "ss" : "tp";
}

const vorx_u32_t* conf_collections() {
  static const vorx_u32_t none[VORX_CONF_COLLECTION_WORDS] = {};
  return g_vorx_conf ? g_vorx_conf->collection_types : none;
}

}  // namespace

extern "C" {

vorx_u32_t vorx_register_callbacks(vorx_callback_table* table, const vorx_u32_t* collection_types) {
  vorx_probe_bitmap_t active = active_callbacks(collection_types);
  bool any = false;
  for (unsigned id = 0; id < vorx_pi_eof; ++id) {
    bool on = vorx_probe_bitmap_test(&active, id);
    for (unsigned k = 0; k < 4; ++k) {
      unsigned idx = id * 4 + k;
      table->entries[idx] = on ? table->generated[idx] : nullptr;
      any = any || table->entries[idx] != nullptr;
    }
  }
  if (!any) {
    note_linked_callbacks();  // the table may be linked already, with the entries it just lost
    VORX_LOG(vorx_log_level_info, "%s callbacks were disabled (no active callback for the collection)",
             short_name(table));
    return 0;
  }
  link_table(table);
  note_linked_callbacks();
  VORX_LOG(vorx_log_level_info, "%s callbacks were activated (%s)", short_name(table), table->name);
  return 1;
}

vorx_callback_t g_vorx_only_callback[VORX_CALLBACK_ENTRIES];

void vorx_run_directory_callbacks(uint32_t index, void* wsp, vorx_probe_data_t* data) {
  for (vorx_callback_table* table = g_vorx_callbacks_dir; table; table = table->next)
    if (vorx_callback_t callback = table->entries[index]) callback(wsp, data);
}

int vorx_directory_has_callbacks(uint32_t index) { return g_any_callback[index]; }

int vorx_directory_plain_records(uint32_t index) { return g_plain_records[index]; }

void vorx_unlink_callback_tables(void) {
  vorx_callback_table* table = g_vorx_callbacks_dir;
  g_vorx_callbacks_dir = nullptr;
  memset(g_any_callback, 0, sizeof g_any_callback);
  memset(g_plain_records, 0, sizeof g_plain_records);
  memset(g_vorx_only_callback, 0, sizeof g_vorx_only_callback);
  while (table) {
    vorx_callback_table* next = table->next;
    table->next = nullptr;
    table = next;
  }
}

// Stacks at call points come from the stack walker. A collector without one links no stack table: its
// entries would do nothing, yet make every call take the machine context and enter a second time.
void vorx_stack_sampling_callback(void* wsp, vorx_probe_data_t* data) __attribute__((weak));

void vorx_init_stacks_collection(void) {
  if (!vorx_stack_sampling_callback) {
    VORX_LOG(vorx_log_level_info, "ss callbacks were left out (this collector has no stack walker)");
    return;
  }
  vorx_register_callbacks(&g_vorx_ss_cbks, conf_collections());
}

void vorx_init_threads_profiling(void) { vorx_register_callbacks(&g_vorx_tp_cbks, conf_collections()); }

}  // extern "C"
