// A test tool around the collector's module-load prober. It hands every image
// event to vorx_on_module_loading/vorx_on_module_unloading with a configuration
// made here, puts counting pass-through wrappers in the rows of a few
// functions, stands in for the start-up gates (recording when they run and
// what the application's getenv answers inside them), and answers the test
// program's questions through its function probing_tool_query, which this
// tool replaces in the executable.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <utility>

#include "api_handover.h"
#include "engine_callbacks.h"
#include "kel.h"
#include "module_map.h"
#include "module_probing.h"
#include "sal.h"
#include "thread_manager.h"
#include "vorx_config.h"
#include "vorx_init.h"
#include "vorx_log.h"
#include "vorx_probe_table.h"

// ------------------------------------------------------------------ stand-ins of the runtime

vorx_instr_global g_instr_global = {false, false, false, false, false, 0xFFFFFFFFu, false, 0};
volatile int g_vorx_is_rtl_initialized = 0;
uintptr_t g_vorx_entry_point_orig = 0;

namespace {

KNOB<UINT32> knob_init_type(KNOB_MODE_WRITEONCE, "keltool", "init_type", "1",
                            "how the process came under the collector (1 run, 2 attach, 3 reattach)");
KNOB<BOOL> knob_replay(KNOB_MODE_WRITEONCE, "keltool", "replay", "0",
                       "hand each image event to the prober twice and count the rows the second one changed");

vorx_start_data g_start = {vorx_init_run, nullptr, false};
char g_events[4096];
std::atomic<int> g_append_lock{0};
char g_reports[8192];

void append(char *buffer, size_t size, const char *format, ...) {
  while (g_append_lock.exchange(1)) {
  }
  size_t used = strlen(buffer);
  va_list args;
  va_start(args, format);
  if (used < size) vsnprintf(buffer + used, size - used, format, args);
  va_end(args);
  g_append_lock.store(0);
}

// What the application's own getenv answers now, through the head row.
const char *application_getenv(const char *name) {
  auto getenv_fn = reinterpret_cast<char *(*)(const char *)>(vorx_head_row(vorx_pi_getenv)->trampoline);
  if (getenv_fn == nullptr) return "<no getenv row>";
  const char *value = getenv_fn(name);
  return value ? value : "<unset>";
}

}  // namespace

extern "C" {

void vorx_libc_init(int argc, char **argv, char **envp, vorx_init_routine original, vorx_start_data *data) {
  original(argc, argv, envp);
  append(g_events, sizeof g_events, "libc gate(loaded=%d,getenv=%s);", g_instr_global.is_libc_so_loaded ? 1 : 0,
         application_getenv("PROBING_TEST_MARK"));
  g_instr_global.is_libc_so_initialized = true;
  g_vorx_is_rtl_initialized = 1;  // the runtime opens here in this program
}
void vorx_libpthread_init(int argc, char **argv, char **envp, vorx_init_routine original, vorx_start_data *data) {
  original(argc, argv, envp);
  append(g_events, sizeof g_events, "libpthread gate;");
  g_instr_global.is_libpthread_so_initialized = true;
}
void vorx_libpthread_fini(vorx_init_routine original) {
  original(0, nullptr, nullptr);
  append(g_events, sizeof g_events, "libpthread fini gate;");
  g_instr_global.is_libpthread_so_initialized = false;
}
void vorx_exe_init(int argc, char **argv, char **envp, vorx_init_routine original, vorx_start_data *data) {
  append(g_events, sizeof g_events, "exe gate(argc=%d,start=%d);", argc, data == &g_start ? 1 : 0);
  original(argc, argv, envp);
}
void vorx_abort_on_improperly_linked_exe(vorx_start_data *) {
  append(g_events, sizeof g_events, "improperly linked;");
}
// The runtime's record of a module registered once the runtime is open.
void vorx_put_registered_module(void *, const char *name, uint64_t start, uint64_t end) {
  append(g_events, sizeof g_events, "registered %s %llx %llx;", name, (unsigned long long)start,
         (unsigned long long)end);
}
void vorx_deepbind_notify_on_pthread_loaded(uint32_t, uint32_t) {}
void vorx_init_cancel_signal_handler(void) {}
int vorx_app_errno(void) { return 0; }
void vorx_set_app_errno(int) {}

}  // extern "C"

namespace {

// ------------------------------------------------------------------ counting wrappers

std::atomic<long> g_hits[VORX_PROBE_ROWS];

// One wrapper per row of a function's group (slot = mod * versions + ver); it
// counts and calls through its own row, as the generated wrappers do.
template <unsigned Id, class Signature>
struct Counted;
template <unsigned Id, class R, class... A>
struct Counted<Id, R(A...)> {
  template <unsigned Slot>
  static R call(A... args) {
    unsigned row = g_vorx_pt_id[Id] + 1 + Slot;
    g_hits[row].fetch_add(1, std::memory_order_relaxed);
    return reinterpret_cast<R (*)(A...)>(g_vorx_probes_table[row].trampoline)(args...);
  }
  template <size_t... Slot>
  static void install(std::index_sequence<Slot...>) {
    void *wrappers[] = {reinterpret_cast<void *>(&call<Slot>)...};
    unsigned rows = vorx_group_rows(Id) - 1;
    for (unsigned slot = 0; slot < rows && slot < sizeof...(Slot); ++slot)
      g_vorx_probes_table[g_vorx_pt_id[Id] + 1 + slot].probe = wrappers[slot];
  }
  static void install() { install(std::make_index_sequence<12>()); }
};

void activate(unsigned id) { vorx_bitmap_raise(g_vorx_conf->active_probes, id); }

// Active with wrappers: the lock, the two versions of the condition wait, free
// and its alias cfree, getenv, getw (which the test program defines itself
// in three bytes, too short for a probe), and one function of the annotation
// library's hand-over table. Everything else is off, so employed
// functions such as pthread_mutex_trylock are only looked up.
void set_up_configuration() {
  vorx_configuration *conf = vorx_alloc_configuration();
  conf->quiet_info = 0;
  vorx_conf_publish(conf);
  Counted<vorx_pi_pthread_mutex_lock, int(void *)>::install();
  Counted<vorx_pi_pthread_cond_wait, int(void *, void *)>::install();
  Counted<vorx_pi_free, void(void *)>::install();
  Counted<vorx_pi_cfree, void(void *)>::install();
  Counted<vorx_pi_getenv, char *(const char *)>::install();
  Counted<vorx_pi_getw, int(void *)>::install();
  Counted<vorx_pi___ozk_counter_inc_v3, void(const void *, const void *)>::install();
  for (unsigned id : {vorx_pi_pthread_mutex_lock, vorx_pi_pthread_cond_wait, vorx_pi_free, vorx_pi_cfree,
                      vorx_pi_getenv, vorx_pi_getw, vorx_pi___ozk_counter_inc_v3})
    activate(id);
}

vorx_er_t keep_report(void *, const char *message, vorx_size_t length, vorx_u32_t severity) {
  append(g_reports, sizeof g_reports, "%u %.*s\n", severity, static_cast<int>(length), message);
  return vorx_er_success;
}

// ------------------------------------------------------------------ repeated events

vorx_probe_t g_rows_before[VORX_PROBE_ROWS];
int g_replayed = 0, g_changed_rows = 0;

bool same_resolution(const vorx_probe_t &a, const vorx_probe_t &b) {
  return a.trampoline == b.trampoline && a.original == b.original && a.module == b.module &&
         a.is_dynamic == b.is_dynamic;
}

// The thread library and libdl may come only once between unloads; every other
// image can be reported again, and the second report must change no row.
bool replayable(IMG img) {
  const std::string &name = IMG_Name(img);
  return name.find("libpthread.so") == std::string::npos && name.find("libdl.so") == std::string::npos;
}

void replay(IMG img, void *arg) {
  memcpy(g_rows_before, g_vorx_probes_table, sizeof g_rows_before);
  vorx_on_module_loading(img, arg);
  ++g_replayed;
  for (unsigned i = 0; i < VORX_PROBE_ROWS; ++i)
    if (!same_resolution(g_rows_before[i], g_vorx_probes_table[i])) ++g_changed_rows;
}

// ------------------------------------------------------------------ questions

int id_of(const char *name) {
  for (unsigned id = 0; id < vorx_pi_eof; ++id)
    if (g_vorx_probe_names[id] && strcmp(g_vorx_probe_names[id], name) == 0) return static_cast<int>(id);
  return -1;
}

// The row of function `fn` for module `module`, version `ver`; null if none.
vorx_probe_t *row_of(const char *fn, const char *module, unsigned ver, unsigned *index) {
  int id = id_of(fn);
  if (id < 0) return nullptr;
  unsigned first = g_vorx_pt_id[id] + 1, end = g_vorx_pt_id[id + 1];
  unsigned versions = end - first >= 3 ? 3 : 1;
  for (unsigned row = first; row + versions <= end; row += versions) {
    const vorx_module_descriptor_t *m = g_vorx_probes_table[row].module;
    if (m && strcmp(m->name, module) == 0 && ver < versions) {
      *index = row + ver;
      return &g_vorx_probes_table[row + ver];
    }
  }
  return nullptr;
}

void found_module(const char *name, uint64_t, uint8_t, void *data, vorx_module_map_cache_t *) {
  snprintf(static_cast<char *>(data), 256, "%s", name);
}

// The hand-over mask of a configuration with the named collections (blank-separated); the word "stitching"
// turns stack stitching on.
unsigned mask_for(const char *words) {
  vorx_configuration *conf = vorx_alloc_configuration();
  char copy[128];
  snprintf(copy, sizeof copy, "%s", words);
  char *rest = nullptr;
  for (char *word = strtok_r(copy, " ", &rest); word != nullptr; word = strtok_r(nullptr, " ", &rest)) {
    if (strcmp(word, "stitching") == 0) conf->stack_stitching_mode = 0;
    else vorx_conf_add_collection(conf, vorx_string_to_collection(word));
  }
  unsigned mask = static_cast<unsigned>(vorx_ozk_api_init_mask(conf));
  vorx_free_configuration(conf);
  return mask;
}

int answer(const char *question, char *out, int size) {
  char fn[96] = "", module[96] = "";
  unsigned ver = 0, index = 0;
  unsigned long address = 0;
  if (sscanf(question, "row %95s %95s %u", fn, module, &ver) == 3) {
    vorx_probe_t *row = row_of(fn, module, ver, &index);
    if (!row) return snprintf(out, size, "no such row");
    return snprintf(out, size, "%lx %lx %d", (unsigned long)row->trampoline, (unsigned long)row->original,
                    row->is_dynamic);
  }
  if (sscanf(question, "hits %95s %95s %u", fn, module, &ver) == 3) {
    if (!row_of(fn, module, ver, &index)) return snprintf(out, size, "no such row");
    return snprintf(out, size, "%ld", g_hits[index].load());
  }
  if (sscanf(question, "head %95s", fn) == 1) {
    int id = id_of(fn);
    if (id < 0) return snprintf(out, size, "no such function");
    vorx_probe_t *head = vorx_head_row(id);
    return snprintf(out, size, "%lx %lx %s %d", (unsigned long)head->trampoline, (unsigned long)head->original,
                    head->module ? head->module->name : "-", head->is_dynamic);
  }
  if (sscanf(question, "module %lx", &address) == 1) {
    char name[256] = "-";
    vorx_find_module(g_vorx_module_map, address, found_module, name, nullptr);
    return snprintf(out, size, "%s", name);
  }
  if (sscanf(question, "executable %lx", &address) == 1) {
    vorx_range_t range{address, address + 1};
    return snprintf(out, size, "%d", vorx_find_address_range(g_vorx_module_map, &range, nullptr) ? 1 : 0);
  }
  if (strncmp(question, "mark ", 5) == 0) {
    append(g_events, sizeof g_events, "%s;", question + 5);
    return 0;
  }
  if (sscanf(question, "handover %lx", &address) == 1)
    return snprintf(out, size, "%x", vorx_ozk_api_handover(reinterpret_cast<void *>(address)));
  if (strcmp(question, "give back") == 0) {
    vorx_ozk_api_give_back();
    return 0;
  }
  if (strcmp(question, "retake") == 0) {
    vorx_ozk_api_retake();
    return 0;
  }
  if (strcmp(question, "forget") == 0) {
    vorx_ozk_api_forget();
    return 0;
  }
  if (strncmp(question, "mask", 4) == 0) return snprintf(out, size, "%x", mask_for(question + 4));
  if (strcmp(question, "replays") == 0)
    return snprintf(out, size, "replayed=%d changed=%d", g_replayed, g_changed_rows);
  if (strcmp(question, "events") == 0) return snprintf(out, size, "%s", g_events);
  if (strcmp(question, "reports") == 0) return snprintf(out, size, "%s", g_reports);
  if (strcmp(question, "flags") == 0)
    return snprintf(out, size, "libc=%d libpthread=%d exe_id=%u entry=%lx", g_instr_global.is_libc_so_loaded,
                    g_instr_global.is_libpthread_so_loaded, g_instr_global.exe_id,
                    (unsigned long)g_vorx_entry_point_orig);
  if (strcmp(question, "ozknotify range") == 0)
    return snprintf(out, size, "%llx %llx", (unsigned long long)g_vorx_ozknotify_range.start,
                    (unsigned long long)g_vorx_ozknotify_range.end);
  return snprintf(out, size, "unknown question");
}

int probing_tool_query(const char *question, char *out, int size) {
  int length = answer(question, out, size);
  return length < 0 ? 0 : length;
}

void on_load(IMG img, void *arg) {
  vorx_on_module_loading(img, arg);
  if (knob_replay.Value() && IMG_Valid(img) && replayable(img)) replay(img, arg);
  if (!IMG_IsMainExecutable(img)) return;
  RTN query = RTN_FindByName(img, "probing_tool_query");
  if (!RTN_Valid(query) || !RTN_ReplaceProbed(query, reinterpret_cast<AFUNPTR>(probing_tool_query)))
    append(g_events, sizeof g_events, "no query;");
}

}  // namespace

int main(int argc, char **argv) {
  if (KEL_Init(argc, argv)) return 1;
  g_start.init_type = knob_init_type.Value();
  g_vorx_log_level = vorx_log_level_info;
  vorx_log_set_client_hook(keep_report, nullptr);
  set_up_configuration();
  vorx_init_module_map();
  vorx_thread_manager_create(&g_vorx_thread_manager, 64, nullptr, nullptr, nullptr, nullptr);
  vorx_thread_manager_create_global(g_vorx_thread_manager);
  vorx_reset_instrumented_modules();
  IMG_AddInstrumentFunction(on_load, &g_start);
  IMG_AddUnloadFunction(vorx_on_module_unloading, &g_start);
  KEL_StartProgramProbed();
}
