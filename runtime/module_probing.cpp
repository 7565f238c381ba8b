// Module-load probing. At each image the engine reports, the collector decides
// what to do with it: which catalogue functions to look up, which to replace by
// their wrappers, which start-up gates to stand in the image's initialisation,
// and which address ranges to remember. Rows of the probe table are written
// here only, under the engine's client lock; wrappers read them without one.
#include <elf.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "api_handover.h"
#include "engine_callbacks.h"
#include "kel.h"
#include "module_map.h"
#include "module_map_kel.h"
#include "module_probing.h"
#include "runtime_entries.h"
#include "sal.h"
#include "thread_manager.h"
#include "vorx_config.h"
#include "vorx_deepbind.h"
#include "vorx_init.h"
#include "vorx_log.h"
#include "vorx_probe_table.h"
#include "workspace.h"
// The user-callback registry is told about the annotation collector's range
// once the collector links it; until then that range is only remembered here.
#if __has_include("vorx_user_cbk.h")
#include "vorx_user_cbk.h"
#define VORX_HAS_USER_CBK_REGISTRY 1
#else
#define VORX_HAS_USER_CBK_REGISTRY 0
#endif

using namespace LEVEL_KELCLIENT;

vorx_range_t g_vorx_ozknotify_range = {0, 0};
vorx_range_t g_vorx_ozknotify_collector_range = {0, 0};
vorx_range_t g_vorx_vumat_range = {0, 0};

namespace {

constexpr size_t kBaseNameMax = 256;
constexpr size_t kTimeMarkSize = 64;

// ------------------------------------------------------------------ names

// An image's base name up to its second dot ("libc.so.6" -> "libc.so"),
// copied so that it can be compared as a whole string.
struct BaseName {
  char text[kBaseNameMax];
  size_t length;
};

bool base_name_of(IMG img, BaseName *out) {
  const char *path = IMG_Name(img).c_str();
  vorx_size_t length = strlen(path);
  const char *base = sal_find_mod_name_with_ext(path, &length);
  if (base == nullptr) return false;
  if (length >= kBaseNameMax) length = kBaseNameMax - 1;
  memcpy(out->text, base, length);
  out->text[length] = '\0';
  out->length = length;
  return true;
}

// Equal on at most the literal's own length plus its terminator.
template <size_t N>
bool is_named(const BaseName &name, const char (&literal)[N]) {
  return strncmp(name.text, literal, N) == 0;
}

bool starts_with(const char *text, const char *prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

bool ends_with(const char *text, const char *suffix) {
  size_t length = strlen(text), suffix_length = strlen(suffix);
  return length >= suffix_length && strcmp(text + length - suffix_length, suffix) == 0;
}

// ------------------------------------------------------------------ reports

unsigned report_flags() {
  const vorx_configuration *conf = g_vorx_conf;
  return conf != nullptr && conf->quiet_info == 0 ? vorx_report_default : vorx_report_local_only;
}

// Message 67: the function runs without its probe; profiling data may be missing.
void report_instrumentation_failed(vorx_log_level_t level, const char *module, const char *function) {
  char mark[kTimeMarkSize];
  sal_time_mark(mark, sizeof mark);
  vorx_report_at(vorx_msg_instrumentation_failed, level, report_flags(), mark, module, function);
}

// ------------------------------------------------------------------ rows

bool active_probe(unsigned id) {
  const vorx_configuration *conf = g_vorx_conf;
  return conf != nullptr && vorx_bitmap_is_raised(conf->active_probes, id);
}

bool wanted_probe(unsigned id) { return active_probe(id) || vorx_probe_bitmap_test(&employed_probe, id); }

bool same_module_name(const vorx_module_descriptor_t *module, const char *name) {
  return module != nullptr && module->name != nullptr && strcmp(module->name, name) == 0;
}

void copy_resolution(vorx_probe_t *to, const vorx_probe_t *from) {
  to->trampoline = from->trampoline;
  to->original = from->original;
}

// Whether a newly resolved row becomes the function's default version.
bool becomes_default(const vorx_probe_t *head, const vorx_probe_t *row, const vorx_module_descriptor_t *first_module,
                     const std::string &symbol) {
  if (head->original == nullptr) return true;
  if (head->module == row->module && symbol.find("@@") != std::string::npos) return true;
  // What the executable defines for the dynamic linker wins over everything.
  if (same_module_name(head->module, "exe") && head->is_dynamic == 1) return false;
  return row->module != head->module && row->module == first_module;
}

// The head row says through which copy the collector itself calls the function.
void set_default_row(const vorx_probe_entry_t &entry, vorx_probe_t *row, const std::string &symbol) {
  vorx_probe_t *head = vorx_head_row(entry.id);
  const vorx_module_descriptor_t *first_module = vorx_probe_row(entry.id, entry.versions, 0, 0)->module;
  if (!becomes_default(head, row, first_module, symbol)) return;
  copy_resolution(head, row);
  head->module = row->module;
  head->is_dynamic = row->is_dynamic;
  VORX_LOG(vorx_log_level_trace, "*** default version was set to: *** original addr: 0x%lx trampoline addr: 0x%lx\n",
           (unsigned long)head->original, (unsigned long)head->trampoline);
}

// Places the row's wrapper on the routine. Whatever happens, the row stays
// callable: without a wrapper, or when the engine refuses, its trampoline is
// the routine itself.
bool apply_replacement(RTN rtn, vorx_probe_t *row) {
  row->original = reinterpret_cast<void *>(RTN_Funptr(rtn));
  row->trampoline = row->original;
  if (row->probe == nullptr) return false;
  AFUNPTR wrapper = reinterpret_cast<AFUNPTR>(row->probe);
  AFUNPTR trampoline = nullptr;
  if (RTN_IsSafeForProbedReplacementEx(rtn, PROBE_MODE_DEFAULT))
    trampoline = RTN_ReplaceProbedEx(rtn, PROBE_MODE_DEFAULT, wrapper);
  else if (RTN_IsSafeForProbedReplacementEx(rtn, PROBE_MODE_ALLOW_RELOCATION))
    trampoline = RTN_ReplaceProbedEx(rtn, PROBE_MODE_ALLOW_RELOCATION, wrapper);
  if (trampoline == nullptr) return false;
  row->trampoline = reinterpret_cast<void *>(trampoline);
  VORX_LOG(vorx_log_level_trace, "probe addr: 0x%lx", (unsigned long)row->probe);
  VORX_LOG(vorx_log_level_trace, "original addr: 0x%lx", (unsigned long)row->original);
  VORX_LOG(vorx_log_level_trace, "trampoline addr: 0x%lx", (unsigned long)row->trampoline);
  return true;
}

// A routine already resolved for this module under an earlier version index:
// a symbol and its alias, or a second load event of the same image.
bool resolved_in_module(const vorx_probe_entry_t &entry, unsigned mod, void *routine) {
  for (unsigned v = 0; v < entry.versions; ++v) {
    if (vorx_probe_row(entry.id, entry.versions, mod, v)->original == routine) {
      VORX_LOG(vorx_log_level_trace, "found! version = %u", v);
      return true;
    }
  }
  return false;
}

// Routines probed already for another function or module (aliases such as the __libc_ names): two wrappers
// cannot stand on one routine, so a later row shares the first one's trampoline. The rows are indexed by
// their routine once per module, in table order, so that the first row of a routine is the one found; a
// search of the whole table for every symbol made this the bulk of a module's probing.
class ResolvedRoutines {
 public:
  ResolvedRoutines() {
    unsigned rows = g_vorx_pt_id[vorx_pi_eof];
    KEL_LockClient();
    for (unsigned index = 0; index < rows; ++index) add(&g_vorx_probes_table[index]);
    KEL_UnlockClient();
  }
  void add(const vorx_probe_t *row) {
    if (row->original != nullptr) rows_.emplace(row->original, row);
  }
  const vorx_probe_t *find(void *routine) const {
    auto found = rows_.find(routine);
    return found == rows_.end() ? nullptr : found->second;
  }

 private:
  std::unordered_map<const void *, const vorx_probe_t *> rows_;
};

// The routine a symbol names, when it starts exactly there.
RTN routine_of_symbol(IMG img, SYM sym) {
  ADDRINT address = SYM_Value(sym) + IMG_LoadOffset(img);
  KEL_LockClient();
  RTN rtn = RTN_FindByAddress(address);
  KEL_UnlockClient();
  if (!RTN_Valid(rtn) || RTN_Address(rtn) != address) return RTN_Invalid();
  return rtn;
}

// Resolves one row: probed when the function is active, else only looked up.
void resolve_row(IMG img, const vorx_probe_entry_t &entry, vorx_probe_t *row, RTN rtn, SYM sym) {
  const std::string &symbol = SYM_Name(sym);
  if (!active_probe(entry.id)) {
    row->original = reinterpret_cast<void *>(RTN_Funptr(rtn));
    row->trampoline = row->original;
    VORX_LOG(vorx_log_level_trace, "%s() instrumentation not required ... <- skipped!", symbol.c_str());
  } else if (apply_replacement(rtn, row)) {
    VORX_LOG(vorx_log_level_trace, "%s() ... instrumented - t: 0x%lx, o: 0x%lx", symbol.c_str(),
             (unsigned long)row->trampoline, (unsigned long)row->original);
  } else {
    report_instrumentation_failed(vorx_log_level_info, IMG_Name(img).c_str(), symbol.c_str());
    VORX_LOG(vorx_log_level_trace, "%s() ... instrumentation failed - t: 0x%lx, o: 0x%lx <- skipped!",
             symbol.c_str(), (unsigned long)row->trampoline, (unsigned long)row->original);
  }
  row->is_dynamic = SYM_Dynamic(sym) ? 1 : 0;
  VORX_LOG(vorx_log_level_trace, SYM_Dynamic(sym) ? "symbol type: dynamic\n" : "symbol type: static\n");
  set_default_row(entry, row, symbol);
}

// The symbols of an image that name functions of a module's list, by the list's entry, each in the order of
// the symbol table (a plain name is the text before any '@'). One pass over the table serves the whole list:
// libc alone has thousands of symbols and a hundred wanted functions, so each symbol is looked up among the
// wanted names, not the other way round, and nothing else of the table is kept.
class WantedSymbols {
 public:
  WantedSymbols(IMG img, const vorx_module_descriptor_t *descriptor) {
    std::unordered_map<std::string_view, unsigned> wanted;
    unsigned count = 0;
    for (const vorx_probe_entry_t *entry = descriptor->probes; entry && entry->name; ++entry, ++count)
      wanted.emplace(entry->name, count);
    symbols_.resize(count);
    for (SYM sym = IMG_RegsymHead(img); SYM_Valid(sym); sym = SYM_Next(sym)) {
      if (SYM_Index(sym) == 0) continue;
      std::string_view name(SYM_Name(sym));
      auto found = wanted.find(name.substr(0, name.find('@')));
      if (found != wanted.end()) symbols_[found->second].push_back(sym);
    }
  }

  // The symbols of the list's entry at `index`, in table order.
  const std::vector<SYM> &of(unsigned index) const { return symbols_[index]; }

 private:
  std::vector<std::vector<SYM>> symbols_;
};

// Every version of the function in the image, in the order of its symbol
// table: each is a routine of its own with its own row and wrapper. A version
// beyond the rows of the module is ignored.
void probe_function(IMG img, const std::vector<SYM> &symbols, ResolvedRoutines &resolved,
                    const vorx_probe_entry_t &entry, unsigned mod) {
  VORX_LOG(vorx_log_level_trace, "\n Function requested to be probed: %s", entry.name);
  unsigned ver = 0;
  for (SYM sym : symbols) {
    if (ver >= entry.versions) break;
    const std::string &symbol = SYM_Name(sym);
    VORX_LOG(vorx_log_level_trace, "Symbol found: %s", symbol.c_str());
    RTN rtn = routine_of_symbol(img, sym);
    if (!RTN_Valid(rtn)) continue;
    void *routine = reinterpret_cast<void *>(RTN_Funptr(rtn));
    if (resolved_in_module(entry, mod, routine)) continue;
    vorx_probe_t *row = vorx_probe_row(entry.id, entry.versions, mod, ver);
    KEL_LockClient();
    if (const vorx_probe_t *shared = resolved.find(routine)) {
      copy_resolution(row, shared);
      VORX_LOG(vorx_log_level_trace, "%s() ... t: 0x%lx, o: 0x%lx\n", symbol.c_str(), (unsigned long)row->trampoline,
               (unsigned long)row->original);
      set_default_row(entry, row, symbol);
    } else {
      resolve_row(img, entry, row, rtn, sym);
      resolved.add(row);
      ++ver;
    }
    KEL_UnlockClient();
  }
}

// The module index of this descriptor among the function's modules, or -1.
int module_index(const vorx_probe_entry_t &entry, const vorx_module_descriptor_t *descriptor) {
  for (unsigned k = 0; k < entry.modules; ++k)
    if (vorx_probe_row(entry.id, entry.versions, k, 0)->module == descriptor) return static_cast<int>(k);
  return -1;
}

void probe_module(IMG img, const vorx_module_descriptor_t *descriptor) {
  const WantedSymbols symbols(img, descriptor);
  ResolvedRoutines resolved;
  unsigned index = 0;
  for (const vorx_probe_entry_t *entry = descriptor->probes; entry != nullptr && entry->name != nullptr;
       ++entry, ++index) {
    if (entry->modules == 0 || !wanted_probe(entry->id)) continue;
    int mod = module_index(*entry, descriptor);
    if (mod < 0) continue;
    probe_function(img, symbols.of(index), resolved, *entry, static_cast<unsigned>(mod));
  }
}

// ------------------------------------------------------------------ handed-over functions

// The row through which `module` hands the function `id` over, with its entry; null when the module's
// descriptor does not list the function.
vorx_probe_t *handed_row(unsigned id, const char *module, const vorx_probe_entry_t **found) {
  for (const vorx_module_descriptor_t *d = g_vorx_instrumented_modules; d->name != nullptr; ++d) {
    if (strcmp(d->name, module) != 0) continue;
    for (const vorx_probe_entry_t *entry = d->probes; entry != nullptr && entry->name != nullptr; ++entry) {
      if (entry->id != id || entry->modules == 0) continue;
      int mod = module_index(*entry, d);
      if (mod < 0) return nullptr;
      *found = entry;
      return vorx_probe_row(id, entry->versions, static_cast<unsigned>(mod), 0);
    }
    return nullptr;
  }
  return nullptr;
}

bool is_row_wrapper(const vorx_probe_t *row, const void *routine) {
  return row->probe != nullptr && routine == row->probe;
}

// ------------------------------------------------------------------ gates

// The dynamic section of a mapped image, found through its program headers.
std::span<const Elf32_Dyn> dynamic_section(IMG img) {
  ADDRINT low = IMG_LowAddress(img);
  const auto *header = reinterpret_cast<const Elf32_Ehdr *>(low);
  if (memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 || header->e_ident[EI_CLASS] != ELFCLASS32) return {};
  const auto *program = reinterpret_cast<const Elf32_Phdr *>(low + header->e_phoff);
  for (unsigned i = 0; i < header->e_phnum; ++i) {
    if (program[i].p_type != PT_DYNAMIC) continue;
    const auto *dynamic = reinterpret_cast<const Elf32_Dyn *>(program[i].p_vaddr + IMG_LoadOffset(img));
    return {dynamic, program[i].p_memsz / sizeof(Elf32_Dyn)};
  }
  return {};
}

// d_val/d_ptr of a tag as the file states it (link-time for addresses); 0 if absent.
Elf32_Word dynamic_value(std::span<const Elf32_Dyn> dynamic, Elf32_Sword tag) {
  for (const Elf32_Dyn &entry : dynamic) {
    if (entry.d_tag == DT_NULL) break;
    if (entry.d_tag == tag) return entry.d_un.d_val;
  }
  return 0;
}

bool inside_image(IMG img, ADDRINT address) {
  return address >= IMG_LowAddress(img) && address <= IMG_HighAddress(img);
}

RTN routine_at(ADDRINT address, const char *name) {
  KEL_LockClient();
  RTN rtn = RTN_FindByAddress(address);
  if (!RTN_Valid(rtn) || RTN_Address(rtn) != address) rtn = RTN_CreateAt(address, name);
  KEL_UnlockClient();
  return rtn;
}

using init_gate_t = void (*)(int, char **, char **, vorx_init_routine, vorx_start_data *);
using fini_gate_t = void (*)(vorx_init_routine);

// The gate gets the routine's three arguments, the original, then the start record.
bool replace_init(RTN rtn, init_gate_t gate, vorx_start_data *data) {
  if (!RTN_Valid(rtn) || !RTN_IsSafeForProbedReplacement(rtn)) return false;
  KEL_LockClient();
  PROTO proto = PROTO_Allocate(KEL_PARG(void), CALLINGSTD_DEFAULT, "_init", KEL_PARG(int), KEL_PARG(char **),
                               KEL_PARG(char **), KEL_PARG_END());
  AFUNPTR done = RTN_ReplaceSignatureProbed(rtn, reinterpret_cast<AFUNPTR>(gate), IARG_PROTOTYPE, proto,
                                            IARG_FUNCARG_ENTRYPOINT_VALUE, 0, IARG_FUNCARG_ENTRYPOINT_VALUE, 1,
                                            IARG_FUNCARG_ENTRYPOINT_VALUE, 2, IARG_ORIG_FUNCPTR, IARG_PTR, data,
                                            IARG_END);
  PROTO_Free(proto);
  KEL_UnlockClient();
  return done != nullptr;
}

bool replace_fini(RTN rtn, fini_gate_t gate) {
  if (!RTN_Valid(rtn) || !RTN_IsSafeForProbedReplacement(rtn)) return false;
  KEL_LockClient();
  PROTO proto = PROTO_Allocate(KEL_PARG(void), CALLINGSTD_DEFAULT, "_fini", KEL_PARG_END());
  AFUNPTR done =
      RTN_ReplaceSignatureProbed(rtn, reinterpret_cast<AFUNPTR>(gate), IARG_PROTOTYPE, proto, IARG_ORIG_FUNCPTR, IARG_END);
  PROTO_Free(proto);
  KEL_UnlockClient();
  return done != nullptr;
}

void report_gate(bool placed, IMG img, const char *module, const char *routine) {
  if (placed) {
    VORX_LOG(vorx_log_level_trace, "%s %s probe was set ...", module, routine);
    return;
  }
  report_instrumentation_failed(vorx_log_level_warning, IMG_Name(img).c_str(), routine);
}

// In run mode the runtime opens inside the executable's _init unless an
// earlier gate did. An executable without a usable _init cannot be profiled,
// unless the loader itself was started as the program.
void set_exe_gate(IMG img, vorx_start_data *data) {
  if (replace_init(RTN_FindByName(img, "_init"), vorx_exe_init, data)) {
    VORX_LOG(vorx_log_level_trace, "exe _init probe was set ...");
    return;
  }
  report_instrumentation_failed(vorx_log_level_warning, IMG_Name(img).c_str(), "_init");
  BaseName name;
  bool loader = base_name_of(img, &name) && starts_with(name.text, "ld-") && ends_with(name.text, ".so");
  if (!loader) vorx_abort_on_improperly_linked_exe(data);
}

void on_executable(IMG img, vorx_start_data *data) {
  g_vorx_entry_point_orig = IMG_EntryAddress(img);
  g_instr_global.exe_id = IMG_Id(img);
  g_instr_global.exe_img = static_cast<uint32_t>(img.q());
  if (data->init_type == vorx_init_run) set_exe_gate(img, data);
  else VORX_ASSERT(data->init_type == vorx_init_attach || data->init_type == vorx_init_reattach);
  vorx_probe_module_by_name("exe", 3, img);
}

// ------------------------------------------------------------------ name hooks

void remember_range(IMG img, vorx_range_t *record, const char *found_format, const char *again_text) {
  vorx_range_t range{0, 0};
  vorx_get_module_full_range(img, &range);
  if (record->start == 0 && record->end == 0) {
    *record = range;
    VORX_LOG(vorx_log_level_trace, found_format, (unsigned long long)range.start, (unsigned long long)range.end);
  } else {
    VORX_LOG(vorx_log_level_trace, "%s", again_text);
  }
}

void on_libc(IMG img, vorx_start_data *data) {
  if (data->init_type == vorx_init_run) report_gate(replace_init(vorx_image_init_routine(img), vorx_libc_init, data),
                                                    img, "libc.so", "_init");
  g_instr_global.is_libc_so_loaded = true;
}

void on_libpthread(IMG img, vorx_start_data *data) {
  VORX_ASSERT(g_instr_global.is_libpthread_so_loaded == 0);
  VORX_ASSERT(g_instr_global.is_libpthread_so_initialized == 0);
  report_gate(replace_init(vorx_image_init_routine(img), vorx_libpthread_init, data), img, "libpthread.so", "_init");
  report_gate(replace_fini(RTN_FindByName(img, "_fini"), vorx_libpthread_fini), img, "libpthread.so", "_fini");
  g_instr_global.is_libpthread_so_loaded = true;
}

// The hooks that hang on a library's name, in their fixed order.
void on_library_name(IMG img, const BaseName &name, vorx_start_data *data) {
  if (is_named(name, "libc.so")) {
    on_libc(img, data);
  } else if (is_named(name, "libpthread.so")) {
    on_libpthread(img, data);
  } else if (is_named(name, "libdl.so")) {
    VORX_ASSERT(g_instr_global.is_libdl_so_loaded == 0);
    g_instr_global.is_libdl_so_loaded = true;
  } else if (is_named(name, "libozknotify.so")) {
    remember_range(img, &g_vorx_ozknotify_range, "libozknotify start %llx, end %llx",
                   "More than one discontinuous executable ranges in libozknotify.so!");
    vorx_ozk_api_retake();  // at attach: the table it handed over before a detach
  } else if (is_named(name, "libozknotify_collector.so")) {
    remember_range(img, &g_vorx_ozknotify_collector_range, "ozknotify_collector start %llx, end %llx",
                   "More than one discontinuous executable ranges in libozknotify_collector.so!");
#if VORX_HAS_USER_CBK_REGISTRY
    vorx_usr_cbk_ignore_range(static_cast<vorx_address_t>(g_vorx_ozknotify_collector_range.start),
                              static_cast<vorx_address_t>(g_vorx_ozknotify_collector_range.end));
#endif
  } else if (is_named(name, "libvumat5.so")) {
    remember_range(img, &g_vorx_vumat_range, "libvumat5 start %llx, end %llx",
                   "More than one discontiguous executable range in libvumat5.so is detected.");
  }
}

// Of the two OpenCL runtimes only the first one seen is probed.
void probe_library(IMG img, const BaseName &name) {
  vorx_configuration *conf = g_vorx_conf;
  bool zedacl = is_named(name, "libzedacl.so");
  if (conf != nullptr && conf->opencl_selector == 0) {
    if (is_named(name, "libOpenCL.so")) {
      conf->opencl_selector = 1;
    } else if (zedacl) {
      conf->opencl_selector = 2;
      vorx_probe_module_by_name(name.text, name.length, img);
    }
  }
  if (zedacl && (conf == nullptr || conf->opencl_selector != 2)) return;
  vorx_probe_module_by_name(name.text, name.length, img);
}

// ------------------------------------------------------------------ module map

// At attach the thread library found already loaded is initialised already.
void note_pthread_on_attach(vorx_start_data *data) {
  bool attaching = data->init_type == vorx_init_attach || data->init_type == vorx_init_reattach;
  if (!attaching || !g_instr_global.is_libpthread_so_loaded || !data->initial_pthread_load_event_on_attach) return;
  VORX_ASSERT(g_instr_global.is_libpthread_so_initialized == 0);
  g_instr_global.is_libpthread_so_initialized = true;
  vorx_deepbind_notify_on_pthread_loaded(data->init_type, vorx_deepbind_pthread_mode_dynamic);
  vorx_init_cancel_signal_handler();
  data->initial_pthread_load_event_on_attach = false;
}

void register_module(IMG img, const vorx_range_t &range) {
  if (g_vorx_is_rtl_initialized != 1) {
    VORX_ASSERT(g_vorx_module_map != nullptr);
    if (vorx_module_map_add_image(g_vorx_module_map, img) != vorx_mm_found)
      vorx_log(vorx_log_level_error, "%s: the module map did not take the module", IMG_Name(img).c_str());
    return;
  }
  for (SEC sec = IMG_SecHead(img); SEC_Valid(sec); sec = SEC_Next(sec)) {
    if (!SEC_IsExecutable(sec) || !SEC_IsReadable(sec) || SEC_Address(sec) == 0 || SEC_Size(sec) == 0) continue;
    vorx_register_executable_section(SEC_Address(sec), uint64_t(SEC_Address(sec)) + SEC_Size(sec));
  }
  const char *name = IMG_Name(img).c_str();
  vorx_register_module(name, range.start, range.end);
  char mark[kTimeMarkSize];
  sal_time_mark(mark, sizeof mark);
  vorx_report_at(vorx_msg_module_processing_scheduled, vorx_log_level_info, report_flags(), mark, name);
}

// The event runs outside of the runtime: a thread that the collector knows is
// let go at once, and its errno is the application's again when the event ends.
class EventScope {
 public:
  EventScope() {
    vorx_ts_desc_t *key = nullptr;
    void *workspace = nullptr;
    if (vorx_thread_manager_enter(g_vorx_thread_manager, &key, &workspace) != vorx_thread_manager_op_err_ok) return;
    vorx_thread_manager_release(g_vorx_thread_manager, key);
    saved_errno_ = vorx_app_errno();
    known_thread_ = true;
  }
  ~EventScope() {
    if (known_thread_) vorx_set_app_errno(saved_errno_);
  }
  EventScope(const EventScope &) = delete;
  EventScope &operator=(const EventScope &) = delete;

 private:
  bool known_thread_ = false;
  int saved_errno_ = 0;
};

}  // namespace

// ------------------------------------------------------------------ entries

ADDRINT vorx_image_last_init_array_entry(IMG img) {
  std::span<const Elf32_Dyn> dynamic = dynamic_section(img);
  Elf32_Word array = dynamic_value(dynamic, DT_INIT_ARRAY);
  Elf32_Word size = dynamic_value(dynamic, DT_INIT_ARRAYSZ);
  if (array == 0 || size < sizeof(Elf32_Addr)) return 0;
  const auto *entries = reinterpret_cast<const Elf32_Addr *>(array + IMG_LoadOffset(img));
  ADDRINT last = entries[size / sizeof(Elf32_Addr) - 1];
  // Before relocation the entry holds its link-time address; after, the run-time one.
  if (IMG_LoadOffset(img) != 0 && !inside_image(img, last)) last += IMG_LoadOffset(img);
  return inside_image(img, last) ? last : 0;
}

RTN vorx_image_init_routine(IMG img) {
  RTN init = RTN_FindByName(img, "_init");
  if (RTN_Valid(init)) return init;
  ADDRINT last = vorx_image_last_init_array_entry(img);
  return last != 0 ? routine_at(last, "_init_array_last") : RTN_Invalid();
}

extern "C" void vorx_probe_module_by_name(const char *name, size_t length, IMG img) {
  if (name == nullptr) {
    VORX_LOG(vorx_log_level_trace, "failed to extract module name! *** BUG! ***");
    return;
  }
  const vorx_module_descriptor_t *match = nullptr;
  for (const vorx_module_descriptor_t *d = g_vorx_instrumented_modules; d->name != nullptr; ++d) {
    bool matches = starts_with(name, "ld-linux") ? strcmp(d->name, "ld-linux") == 0 : strncmp(name, d->name, length) == 0;
    if (matches) match = d;
  }
  if (match == nullptr) return;
  VORX_LOG(vorx_log_level_trace, "module %s is requested to be probed ...", match->name);
  probe_module(img, match);
  VORX_LOG(vorx_log_level_trace, "%s : instrumentation finished\n", match->name);
}

extern "C" void vorx_on_module_loading(IMG img, void *arg) {
  auto *data = static_cast<vorx_start_data *>(arg);
  EventScope scope;
  if (!IMG_Valid(img) || IMG_IsVDSO(img)) return;
  vorx_range_t range{0, 0};
  vorx_get_module_full_range(img, &range);
  VORX_LOG(vorx_log_level_trace, "Module name: %s (%p..%p)", IMG_Name(img).c_str(),
           reinterpret_cast<void *>(static_cast<uintptr_t>(range.start)),
           reinterpret_cast<void *>(static_cast<uintptr_t>(range.end)));
  if (IMG_IsMainExecutable(img)) {
    on_executable(img, data);
  } else {
    BaseName name;
    if (base_name_of(img, &name)) {
      on_library_name(img, name, data);
      probe_library(img, name);
    } else {
      vorx_probe_module_by_name(nullptr, 0, img);
    }
  }
  note_pthread_on_attach(data);
  register_module(img, range);
}

extern "C" void vorx_on_module_unloading(IMG img, void *) {
  EventScope scope;
  if (!IMG_Valid(img) || IMG_IsMainExecutable(img)) return;
  if (g_vorx_module_map != nullptr) vorx_module_map_remove_image(g_vorx_module_map, img);
  BaseName name;
  if (!base_name_of(img, &name)) return;
  if (is_named(name, "libozknotify.so")) {
    g_vorx_ozknotify_range = {0, 0};
    vorx_ozk_api_forget();
  } else if (is_named(name, "libozknotify_collector.so")) {
    g_vorx_ozknotify_collector_range = {0, 0};
  } else if (is_named(name, "libvumat5.so")) {
    g_vorx_vumat_range = {0, 0};
  } else if (is_named(name, "libdl.so")) {
    VORX_ASSERT(g_instr_global.is_libdl_so_loaded == 1);
    g_instr_global.is_libdl_so_loaded = false;
  } else if (is_named(name, "libpthread.so")) {
    VORX_ASSERT(g_instr_global.is_libpthread_so_loaded == 1);
    VORX_ASSERT(g_instr_global.is_libpthread_so_initialized == 0);
    g_instr_global.is_libpthread_so_loaded = false;
  }
}

// Every row unresolved again, all but the end row. Trampolines stay: the
// tool's own imports in the head rows of __errno_location and setenv must keep
// working, and a wrapper still running returns through its trampoline.
extern "C" void vorx_forget_resolved_rows(void) {
  unsigned rows = g_vorx_pt_id[vorx_pi_eof];
  for (unsigned index = 0; index < rows; ++index) g_vorx_probes_table[index].original = nullptr;
}

// A fresh start: no row is resolved and no helper library is known.
extern "C" void vorx_reset_instrumented_modules(void) {
  vorx_forget_resolved_rows();
  g_vorx_ozknotify_range = {0, 0};
  g_vorx_ozknotify_collector_range = {0, 0};
  g_vorx_vumat_range = {0, 0};
  if (g_vorx_conf != nullptr) g_vorx_conf->opencl_selector = 0;
}

// A function that a library hands over as a pointer instead of exporting it (the annotation library's
// table): the row of `module` takes the pointer as its original, as if probing had found it. A pointer that
// is the row's wrapper already (the table handed over again, or taken again after a re-attach) leaves the
// original the row has.
extern "C" void *vorx_take_over_handed_function(unsigned id, const char *module, void *routine) {
  const vorx_probe_entry_t *entry = nullptr;
  vorx_probe_t *row = handed_row(id, module, &entry);
  if (row == nullptr || routine == nullptr) return nullptr;
  void *answer = nullptr;
  KEL_LockClient();
  if (!is_row_wrapper(row, routine)) {
    row->original = row->trampoline = routine;
    row->is_dynamic = 0;
  } else if (row->original == nullptr) {
    row->original = row->trampoline;  // rows are forgotten at detach; the trampoline still is the library's
  }
  if (row->trampoline != nullptr) {
    set_default_row(*entry, row, entry->name);
    answer = active_probe(id) && row->probe != nullptr ? row->probe : row->trampoline;
  }
  KEL_UnlockClient();
  VORX_LOG(vorx_log_level_trace, "%s() handed over by %s: o: 0x%lx, called: 0x%lx", entry->name, module,
           (unsigned long)row->trampoline, (unsigned long)answer);
  return answer;
}

// What the library should call again once the collector lets go: its own function, kept in the row.
extern "C" void *vorx_give_back_handed_function(unsigned id, const char *module, void *routine) {
  const vorx_probe_entry_t *entry = nullptr;
  const vorx_probe_t *row = handed_row(id, module, &entry);
  if (row == nullptr || !is_row_wrapper(row, routine) || row->trampoline == nullptr) return routine;
  return row->trampoline;
}
