// The unwinder's view of the process: which modules are mapped, where their code lies and where their unwind
// tables are, read from the process's own memory (the ELF header and program headers of every file mapped
// from its start, and the vDSO's).
//
// libunwind would find tables by dl_iterate_phdr, but the collector lives in a link namespace of its own,
// where that call sees the collector's libraries and not the program's; it also takes the loader's lock,
// which a handler must not wait for. So the table lookup is the collector's: a sorted table of modules,
// rebuilt from /proc/self/maps when the module map changes, in two banks so that a walk in progress keeps
// a complete one.
#include <elf.h>
#include <string.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include "sal.h"
#include "signal_manager.h"
#include "stack_walk.h"
#include "unwind_internal.h"
#include "vorx_log.h"

extern "C" int _ULx86_dwarf_search_unwind_table(unw_addr_space_t as, unw_word_t ip, unw_dyn_info_t* di,
                                                unw_proc_info_t* pi, int need_unwind_info, void* arg);

namespace {

constexpr uint32_t kMaxModules = 1024;
constexpr uint8_t kDatarelSdata4 = 0x3b;  // DW_EH_PE_datarel | DW_EH_PE_sdata4
constexpr uint8_t kPcrelSdata4 = 0x1b;
constexpr uint8_t kUdata4 = 0x03;

struct module_bank {
  uint32_t count;
  vorx_unwind_module entries[kMaxModules];
};

module_bank g_banks[2];
volatile uint32_t g_current = 0;
volatile uint32_t g_building = 0;  // a try-lock: a thread that finds it taken walks with the old bank
volatile uint32_t g_stale = 1;
uint32_t g_map_generation = 0xFFFFFFFFu;
bool g_unwind_ready = false;

bool read_protected(void* to, uintptr_t from, uint32_t size) {
  return vorx_read_memory_protected(to, reinterpret_cast<const void*>(from), size);
}

// ---- /proc/self/maps, read with plain system calls into a fixed buffer

uintptr_t parse_hex(const char*& p) {
  uintptr_t v = 0;
  for (;; ++p) {
    char c = *p;
    if (c >= '0' && c <= '9') v = v * 16 + uintptr_t(c - '0');
    else if (c >= 'a' && c <= 'f') v = v * 16 + uintptr_t(c - 'a' + 10);
    else return v;
  }
}

// "low-high perms offset dev inode name": true for a mapping of a file's first page or of the vDSO.
bool parse_start_of_image(const char* line, uintptr_t* low) {
  const char* p = line;
  *low = parse_hex(p);
  if (*p != '-') return false;
  ++p;
  parse_hex(p);
  if (*p != ' ' || p[1] != 'r') return false;
  p += 5;  // the space and the four permission letters
  if (*p != ' ') return false;
  ++p;
  if (parse_hex(p) != 0) return false;
  const char* name = strchr(p, '/');
  return name != nullptr || strstr(p, "[vdso]") != nullptr;
}

struct elf_view {
  uintptr_t text_lo = ~uintptr_t(0), text_hi = 0;
  uintptr_t eh_frame_hdr = 0;
};

bool read_image(uintptr_t base, elf_view* out) {
  Elf32_Ehdr eh;
  if (!read_protected(&eh, base, sizeof eh)) return false;
  if (memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0 || eh.e_ident[EI_CLASS] != ELFCLASS32) return false;
  if (eh.e_phentsize != sizeof(Elf32_Phdr) || eh.e_phnum == 0 || eh.e_phnum > 64) return false;
  Elf32_Phdr ph[64];
  if (!read_protected(ph, base + eh.e_phoff, eh.e_phnum * sizeof(Elf32_Phdr))) return false;
  uintptr_t first_load = ~uintptr_t(0);
  for (unsigned i = 0; i < eh.e_phnum; ++i)
    if (ph[i].p_type == PT_LOAD && ph[i].p_vaddr < first_load) first_load = ph[i].p_vaddr & ~uintptr_t(0xFFF);
  if (first_load == ~uintptr_t(0)) return false;
  uintptr_t bias = base - first_load;
  for (unsigned i = 0; i < eh.e_phnum; ++i) {
    if (ph[i].p_type == PT_LOAD && (ph[i].p_flags & PF_X)) {
      uintptr_t lo = bias + ph[i].p_vaddr, hi = lo + ph[i].p_memsz;
      if (lo < out->text_lo) out->text_lo = lo;
      if (hi > out->text_hi) out->text_hi = hi;
    } else if (ph[i].p_type == PT_GNU_EH_FRAME) {
      out->eh_frame_hdr = bias + ph[i].p_vaddr;
    }
  }
  return out->text_hi > out->text_lo;
}

// The binary-search table of .eh_frame_hdr in the one encoding that linkers write.
void read_search_table(uintptr_t hdr, vorx_unwind_module* m) {
  uint8_t head[12];
  if (!hdr || !read_protected(head, hdr, sizeof head)) return;
  if (head[0] != 1 || head[1] != kPcrelSdata4 || head[2] != kUdata4 || head[3] != kDatarelSdata4) return;
  uint32_t count;
  memcpy(&count, head + 8, 4);
  m->eh_frame_hdr = hdr;
  m->fde_count = count;
  m->table = hdr + 12;
}

void add_image(module_bank* bank, uintptr_t base) {
  if (bank->count == kMaxModules) return;
  elf_view view;
  if (!read_image(base, &view)) return;
  vorx_unwind_module m = {};
  m.text_lo = view.text_lo;
  m.text_hi = view.text_hi;
  read_search_table(view.eh_frame_hdr, &m);
  // sorted insertion: maps come in address order, so this is nearly always an append
  uint32_t at = bank->count;
  while (at > 0 && bank->entries[at - 1].text_lo > m.text_lo) {
    bank->entries[at] = bank->entries[at - 1];
    --at;
  }
  bank->entries[at] = m;
  ++bank->count;
}

// Calls `take(line)` for each line of /proc/self/maps until it answers false.
template <class F>
void for_each_mapping(F take) {
  int fd = sal_open_read("/proc/self/maps");
  if (fd < 0) return;
  char buffer[4096];
  uint32_t held = 0;
  bool more = true;
  while (more) {
    vorx_ssize_t got = sal_read(fd, buffer + held, sizeof buffer - 1 - held);
    if (got <= 0) break;
    held += uint32_t(got);
    buffer[held] = 0;
    char* line = buffer;
    for (char* nl; more && (nl = strchr(line, '\n')) != nullptr; line = nl + 1) {
      *nl = 0;
      more = take(line);
    }
    held = uint32_t(buffer + held - line);
    memmove(buffer, line, held);
    if (held == sizeof buffer - 1) held = 0;  // a line longer than the buffer: no mapping of interest
  }
  sal_close(fd);
}

void rebuild() {
  uint32_t next = g_current ^ 1u;
  module_bank* bank = &g_banks[next];
  bank->count = 0;
  for_each_mapping([bank](const char* line) {
    uintptr_t low;
    if (parse_start_of_image(line, &low)) add_image(bank, low);
    return true;
  });
  __atomic_store_n(&g_current, next, __ATOMIC_RELEASE);
}

uint32_t map_generation() { return g_vorx_module_map ? vorx_module_map_generation(g_vorx_module_map) : 0; }

// The table is rebuilt by whichever walk first finds it stale; the others use the last one meanwhile.
void refresh_if_stale() {
  uint32_t generation = map_generation();
  if (!__atomic_load_n(&g_stale, __ATOMIC_ACQUIRE) && generation == g_map_generation) return;
  if (__atomic_exchange_n(&g_building, 1u, __ATOMIC_ACQUIRE)) return;
  __atomic_store_n(&g_stale, 0u, __ATOMIC_RELEASE);
  g_map_generation = generation;
  rebuild();
  __atomic_store_n(&g_building, 0u, __ATOMIC_RELEASE);
}

int find_proc_info(unw_addr_space_t as, unw_word_t ip, unw_proc_info_t* pi, int need_unwind_info, void* arg) {
  vorx_unwind_module m;
  if (!vorx_unwind_find_module(ip, &m) || !m.fde_count) return -UNW_ENOINFO;
  unw_dyn_info_t di;
  memset(&di, 0, sizeof di);
  di.start_ip = m.text_lo;
  di.end_ip = m.text_hi;
  di.format = UNW_INFO_FORMAT_REMOTE_TABLE;
  di.u.rti.segbase = m.eh_frame_hdr;
  di.u.rti.table_len = m.fde_count * 2;  // two words an entry
  di.u.rti.table_data = m.table;
  return _ULx86_dwarf_search_unwind_table(as, ip, &di, pi, need_unwind_info, arg);
}

}  // namespace

extern "C" {

int vorx_unwind_find_module(uintptr_t address, vorx_unwind_module* out) {
  const module_bank* bank = &g_banks[__atomic_load_n(&g_current, __ATOMIC_ACQUIRE)];
  uint32_t lo = 0, hi = bank->count;
  while (lo < hi) {
    uint32_t mid = (lo + hi) / 2;
    if (bank->entries[mid].text_hi <= address) lo = mid + 1;
    else hi = mid;
  }
  if (lo == bank->count || address < bank->entries[lo].text_lo) return 0;
  *out = bank->entries[lo];
  return 1;
}

int vorx_stack_code_range(uintptr_t address, uintptr_t* lo, uintptr_t* hi) {
  vorx_unwind_module m;
  if (!vorx_unwind_find_module(address, &m)) return 0;
  *lo = m.text_lo;
  *hi = m.text_hi;
  return 1;
}

int vorx_unwind_has_entry(uintptr_t address) {
  vorx_unwind_module m;
  if (!vorx_unwind_find_module(address, &m) || !m.fde_count) return 0;
  // the table: pairs of (start, entry) offsets from the header, sorted by start
  const int32_t* table = reinterpret_cast<const int32_t*>(m.table);
  int32_t key = int32_t(address - m.eh_frame_hdr);
  uint32_t lo = 0, hi = m.fde_count;
  while (lo < hi) {
    uint32_t mid = (lo + hi) / 2;
    if (table[2 * mid] <= key) lo = mid + 1;
    else hi = mid;
  }
  if (lo == 0) return 0;
  // the entry's own range, in the pc-relative form that linkers write (anything else: taken as covering)
  uintptr_t entry = m.eh_frame_hdr + uintptr_t(table[2 * (lo - 1) + 1]);
  uint32_t words[4];
  if (!read_protected(words, entry, sizeof words)) return 0;
  uintptr_t begin = entry + 8 + words[2], range = words[3];
  if (uintptr_t(table[2 * (lo - 1)]) + m.eh_frame_hdr != begin) return 1;
  return address >= begin && address < begin + range;
}

int vorx_unwind_is_code(uintptr_t address) {
  vorx_unwind_module m;
  return vorx_unwind_find_module(address, &m);
}

void vorx_unwind_before_walk(void) { refresh_if_stale(); }

int vorx_unwind_ready(void) { return g_unwind_ready; }

int vorx_init_unwind(void) {
  if (g_unwind_ready) return 1;
  // No cache: its locks and its thread-local storage are nothing a signal handler may touch. Each step reads
  // its frame's entry afresh, which costs a binary search and the entry's instructions.
  unw_set_caching_policy(unw_local_addr_space, UNW_CACHE_NONE);
  unw_accessors_t* accessors = unw_get_accessors(unw_local_addr_space);
  if (!accessors) return 2;
  accessors->find_proc_info = find_proc_info;
  // The library's first cursor sets up its own state once: that happens here, outside any handler.
  unw_context_t context;
  unw_cursor_t cursor;
  unw_getcontext(&context);
  unw_init_local(&cursor, &context);
  __atomic_store_n(&g_stale, 1u, __ATOMIC_RELEASE);
  refresh_if_stale();
  g_unwind_ready = true;
  VORX_LOG(vorx_log_level_trace, "unwinder ready: %u modules", g_banks[g_current].count);
  return 1;
}

int vorx_unwind_stack_limits(uintptr_t sp, uintptr_t* top, uintptr_t* bottom) {
  int found = 0;
  for_each_mapping([&](const char* line) {
    const char* p = line;
    uintptr_t low = parse_hex(p);
    if (*p != '-') return true;
    ++p;
    uintptr_t high = parse_hex(p);
    if (sp < low || sp >= high) return true;
    *top = low;
    *bottom = high;
    found = 1;
    return false;
  });
  return found;
}

void vorx_unwind_modules_changed(void) { __atomic_store_n(&g_stale, 1u, __ATOMIC_RELEASE); }

}  // extern "C"
