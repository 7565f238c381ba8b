// The stack descriptor: one walk per sample, on the walked thread, and the records that carry the result.
#include <signal.h>
#include <string.h>
#include <ucontext.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include "sal.h"
#include "signal_manager.h"
#include "stack_walk.h"
#include "unwind_internal.h"
#include "vorx_log.h"
#include "vorx_traceformat.h"

namespace {

constexpr uint32_t kOnlineBuffer = 1024;  // 128 frames of at most 5 bytes, and the packer's slack
constexpr uint32_t kOfflineItems = VORX_STACK_OFFLINE_WINDOW / 4;
constexpr uint32_t kOfflineBuffer = kOfflineItems * 10 + 64;
constexpr uint32_t kScanWords = 512;     // how far a scan looks for the next return address
constexpr uint32_t kLongestCall = 7;     // bytes of the longest call instruction
constexpr uint32_t kPackSlack = 4;       // the packer stores whole words

// ---- where the thread's stack is

// The mapping that holds sp. Read from /proc/self/maps only when sp has left the last known one (a new
// thread, the main stack grown, an alternate signal stack).
void refresh_limits(vorx_stack_desc_t* d, uintptr_t sp) {
  if (sp >= d->region_top && sp < d->region_bottom) return;
  uintptr_t top = 0, bottom = 0;
  if (!vorx_unwind_stack_limits(sp, &top, &bottom)) top = bottom = 0;
  d->region_top = top;
  d->region_bottom = bottom;
}

bool on_stack(const vorx_stack_desc_t* d, uintptr_t address, uint32_t size) {
  return address >= d->region_top && address <= d->region_bottom - size && d->region_bottom >= size;
}

// How much a stack word looks like the return address of the frame above `callee_ip`: behind a call, in
// code that the unwinder knows (weak); and for a direct call, one that leads to code a little below
// `callee_ip` in the same module, as a call of the function that holds it would (strong). Stale words that
// earlier calls left in a frame's unused slots are mostly weak.
enum { kNotReturn = 0, kWeakReturn = 1, kStrongReturn = 2 };
constexpr uint32_t kLargestFunction = 0x10000;

int return_address_kind(uint32_t word, uint32_t callee_ip, uint32_t* call_target = nullptr) {
  // the cheap test first: most words are no code address, and reading at them could fault
  uintptr_t lo = 0, hi = 0;
  if (word < kLongestCall || !vorx_stack_code_range(word - 1, &lo, &hi)) return kNotReturn;
  if (!vorx_check_previous_call_instruction(word)) return kNotReturn;
  uint8_t call[5];
  if (!vorx_read_memory_protected(call, reinterpret_cast<const void*>(uintptr_t(word - 5)), 5)) return kNotReturn;
  if (call[0] != 0xE8) return kWeakReturn;
  int32_t offset;
  memcpy(&offset, call + 1, 4);
  uint32_t target = word + uint32_t(offset);
  bool calls_callee = target <= callee_ip && callee_ip - target < kLargestFunction && callee_ip < hi;
  if (call_target) *call_target = target;
  return calls_callee ? kStrongReturn : kWeakReturn;
}

bool looks_like_return_address(uint32_t word, uint32_t callee_ip) {
  return return_address_kind(word, callee_ip) != kNotReturn;
}

// ---- steps

struct walk_state {
  uint32_t ip, sp, fp;
};

// The registers a cursor starts from: a machine context of our own, since the library keeps a pointer to it.
void fake_context(ucontext_t* uc, const walk_state& s) {
  memset(uc, 0, sizeof *uc);
  uc->uc_mcontext.gregs[REG_EIP] = s.ip;
  uc->uc_mcontext.gregs[REG_ESP] = s.sp;
  uc->uc_mcontext.gregs[REG_EBP] = s.fp;
}

bool init_cursor(unw_cursor_t* cursor, const void* uc, bool exact_ip) {
  auto* context = const_cast<unw_context_t*>(static_cast<const unw_context_t*>(uc));
  return unw_init_local2(cursor, context, exact_ip ? UNW_INIT_SIGNAL_FRAME : 0) >= 0;
}

// The interrupted instruction is looked up as it is; a return address by the call in front of it.
bool has_table_entry(uint32_t ip, bool exact) { return vorx_unwind_has_entry(exact ? ip : ip - 1); }

// One step by the unwind tables. The result must rise on the stack and land in code.
int step_by_tables(vorx_stack_desc_t* d, unw_cursor_t* cursor, walk_state* s) {
  int stepped = unw_step(cursor);
  if (stepped == 0) return vorx_sw_end;
  if (stepped < 0) return vorx_sw_failed;
  unw_word_t ip = 0, sp = 0, fp = 0;
  unw_get_reg(cursor, UNW_REG_IP, &ip);
  unw_get_reg(cursor, UNW_REG_SP, &sp);
  unw_get_reg(cursor, UNW_X86_EBP, &fp);
  if (sp <= s->sp || !on_stack(d, sp, 0) || ip == 0) return vorx_sw_failed;
  if (!vorx_unwind_is_code(ip - 1)) return vorx_sw_failed;
  *s = {uint32_t(ip), uint32_t(sp), uint32_t(fp)};
  return vorx_sw_frame;
}

// One step by the frame-pointer chain: the return address above the saved frame pointer.
int step_by_frame_pointer(vorx_stack_desc_t* d, walk_state* s) {
  if (s->fp < s->sp || !on_stack(d, s->fp, 8)) return vorx_sw_failed;
  const uint32_t* frame = reinterpret_cast<const uint32_t*>(uintptr_t(s->fp));
  uint32_t saved_fp = frame[0], ra = frame[1];
  if (!looks_like_return_address(ra, s->ip)) return vorx_sw_failed;
  if (saved_fp != 0 && saved_fp <= s->fp) saved_fp = 0;  // a chain that does not rise ends here
  *s = {ra, s->fp + 8, saved_fp};
  return vorx_sw_frame;
}

// The next word above sp that is a return address. Of the direct calls that lead below `ip`, the true caller's
// leads to the start of the function that holds `ip`, the highest start there is below it: a stale word's
// call leads to some other function, lower down (or to the same one, from an older call further up). So the
// strong word with the highest target wins, the first of equals; without one, the first weak word. Registers
// other than sp and ip are unknown afterwards; the frame pointer is kept, as code without frames leaves it.
int step_by_scan(vorx_stack_desc_t* d, walk_state* s) {
  uint32_t weak = 0, strong = 0, best_target = 0;
  uint32_t slot = s->sp;
  for (uint32_t n = 0; n < kScanWords && on_stack(d, slot, 4); ++n, slot += 4) {
    uint32_t word = *reinterpret_cast<const uint32_t*>(uintptr_t(slot));
    uint32_t target = 0;
    int kind = return_address_kind(word, s->ip, &target);
    if (kind == kWeakReturn && !weak) weak = slot;
    if (kind == kStrongReturn && (!strong || target > best_target)) {
      strong = slot;
      best_target = target;
    }
  }
  slot = strong ? strong : weak;
  if (!slot) return vorx_sw_failed;
  uint32_t word = *reinterpret_cast<const uint32_t*>(uintptr_t(slot));
  *s = {word, slot + 4, s->fp > slot ? s->fp : 0};
  return vorx_sw_frame;
}

// ---- the online walk

struct online_walk {
  vorx_stack_desc_t* d;
  walk_state s;
  unw_cursor_t cursor;
  ucontext_t own_context;
  bool cursor_ok = false;
  bool first_exact = false;

  void restart_cursor() {
    fake_context(&own_context, s);
    cursor_ok = init_cursor(&cursor, &own_context, false);
  }

  // The next frame by tables where the module has them, else by the frame-pointer chain or a scan.
  int next() {
    walk_state before = s;
    bool exact = first_exact;
    first_exact = false;
    if (cursor_ok && has_table_entry(s.ip, exact)) {
      int r = step_by_tables(d, &cursor, &s);
      if (r == vorx_sw_frame) {
        ++d->stats.table_frames;
        return r;
      }
      if (r == vorx_sw_end) return r;
      s = before;
    }
    int r = step_by_scan(d, &s);
    if (r == vorx_sw_frame) {
      ++d->stats.scanned_frames;
    } else {
      s = before;
      r = step_by_frame_pointer(d, &s);
      if (r != vorx_sw_frame) return vorx_sw_end;
      ++d->stats.pointer_frames;
    }
    restart_cursor();
    return vorx_sw_frame;
  }
};

// Frames are stored as they are found: a fault in a later step keeps them (the count is volatile for that).
void walk_online(vorx_stack_desc_t* d, const vorx_stack_start_t* start, volatile uint32_t* count) {
  online_walk w;
  w.d = d;
  w.s = {start->ip, start->sp, start->fp};
  w.first_exact = start->exact_ip != 0;
  if (start->ucontext) w.cursor_ok = init_cursor(&w.cursor, start->ucontext, start->exact_ip != 0);
  else w.restart_cursor();
  d->frames[0] = start->ip;
  *count = 1;
  while (*count < VORX_STACK_MAX_FRAMES) {
    if (w.next() != vorx_sw_frame) break;
    d->frames[*count] = w.s.ip;
    *count = *count + 1;
  }
}

// ---- the offline copy: the words above sp that a reader's unwinder needs (code and stack addresses)

void walk_offline(vorx_stack_desc_t* d, const vorx_stack_start_t* start, volatile uint32_t* count) {
  uintptr_t end = d->region_bottom;
  if (end - start->sp > VORX_STACK_OFFLINE_WINDOW) end = start->sp + VORX_STACK_OFFLINE_WINDOW;
  *count = 0;
  for (uintptr_t slot = start->sp; slot + 4 <= end && *count < d->item_capacity; slot += 4) {
    uint32_t word = *reinterpret_cast<const uint32_t*>(slot);
    bool stack_pointer = word >= slot && word < d->region_bottom;
    if (!stack_pointer && !(word >= kLongestCall && vorx_unwind_is_code(word - 1))) continue;
    d->item_sp[*count] = uint32_t(slot);
    d->item_value[*count] = word;
    *count = *count + 1;
  }
}

// ---- descriptor operations

void op_reset(vorx_stack_desc_t* d) {
  d->frame_count = 0;
  d->item_count = 0;
}

void op_init(vorx_stack_desc_t* d, uint32_t thread) {
  d->thread = thread;
  op_reset(d);
  d->region_top = d->region_bottom = 0;
}

int op_walk(vorx_stack_desc_t* d, const vorx_stack_start_t* start) {
  static const vorx_u32_t kFaults[] = {vorx_xtype_segv, vorx_xtype_bus};
  op_reset(d);
  if (!vorx_unwind_ready() || start->ip == 0) return vorx_sw_end;
  ++d->stats.walks;
  vorx_unwind_before_walk();
  refresh_limits(d, start->sp);
  if (!on_stack(d, start->sp, 4)) return vorx_sw_end;
  d->start_sp = start->sp;
  d->start_fp = start->fp;
  volatile uint32_t count = 0;
  vorx_xframe frame;
  if (vorx_xframe_save_context(&frame) == vorx_xframe_op_err_init) {
    vorx_xframe_push(&frame, 2, kFaults);
    if (d->offline) walk_offline(d, start, &count);
    else walk_online(d, start, &count);
    vorx_xframe_pop(&frame);
  } else {
    ++d->stats.faults;  // the walk ends with what it had
  }
  if (d->offline) d->item_count = count;
  else d->frame_count = count;
  return count ? vorx_sw_frame : vorx_sw_end;
}

int put_online(vorx_stack_desc_t* d, vorx_tmu_t* unit, uint32_t tid) {
  if (d->frame_count == 0) return vorx_sw_end;
  uint32_t body = 0;
  if (vorx_pack_online_frames(d->frames, d->frame_count, d->record_buffer, d->record_capacity - kPackSlack,
                              &body) != 1)
    return vorx_sw_failed;
  uint8_t head[16];
  uint32_t head_size = tf_online_stack_put_head(head, body >= 128, tid, 0, 0, body);
  return unit->put_record(unit, head, head_size, d->record_buffer, body) != 0 ? vorx_sw_frame : vorx_sw_failed;
}

// Items go to the packer outermost first, so that it writes them from sp upward.
int put_offline(vorx_stack_desc_t* d, vorx_tmu_t* unit, uint32_t tid, uint64_t timestamp) {
  uint32_t n = d->item_count;
  for (uint32_t i = 0; i < n / 2; ++i) {
    uint32_t j = n - 1 - i, sp = d->item_sp[i], value = d->item_value[i];
    d->item_sp[i] = d->item_sp[j];
    d->item_value[i] = d->item_value[j];
    d->item_sp[j] = sp;
    d->item_value[j] = value;
  }
  uint32_t body = d->record_capacity - kPackSlack;
  if (tf_record_offline_stack_pack(d->item_sp, d->item_value, n, d->start_sp, 0, d->start_sp, d->region_bottom,
                                   d->record_buffer, &body) != 1)
    return vorx_sw_failed;
  uint8_t head[48];
  uint64_t registers = uint64_t(d->start_sp) | (uint64_t(d->start_fp) << 32);
  uint32_t head_size = tf_offline_stack_put_head(head, body >= 128, tid, timestamp, 1, registers, body);
  return unit->put_record(unit, head, head_size, d->record_buffer, body) != 0 ? vorx_sw_frame : vorx_sw_failed;
}

int op_put(vorx_stack_desc_t* d, vorx_tmu_t* unit, uint32_t tid, uint64_t timestamp) {
  if (!unit) return vorx_sw_failed;
  return d->offline ? put_offline(d, unit, tid, timestamp) : put_online(d, unit, tid);
}

void op_destroy(vorx_stack_desc_t* d) { vorx_free_stack_desc(d); }

uint32_t mapped_size(int offline) {
  uint32_t size = sizeof(vorx_stack_desc_t) + (offline ? kOfflineBuffer + 2 * 4 * kOfflineItems : kOnlineBuffer);
  return (size + 4095u) & ~4095u;
}

}  // namespace

extern "C" {

vorx_stack_desc_t* vorx_alloc_stack_desc(uint32_t thread, int offline) {
  auto* block = static_cast<uint8_t*>(sal_mmap(mapped_size(offline)));
  if (!block) return nullptr;
  auto* d = reinterpret_cast<vorx_stack_desc_t*>(block);
  d->init = op_init;
  d->reset = op_reset;
  d->destroy = op_destroy;
  d->walk = op_walk;
  d->put = op_put;
  d->offline = offline ? 1 : 0;
  uint8_t* rest = block + sizeof(vorx_stack_desc_t);
  if (offline) {
    d->item_capacity = kOfflineItems;
    d->item_sp = reinterpret_cast<uint32_t*>(rest);
    d->item_value = d->item_sp + kOfflineItems;
    rest += 2 * 4 * kOfflineItems;
    d->record_capacity = kOfflineBuffer;
  } else {
    d->record_capacity = kOnlineBuffer;
  }
  d->record_buffer = rest;
  op_init(d, thread);
  return d;
}

void vorx_free_stack_desc(vorx_stack_desc_t* d) {
  if (d) sal_munmap(d, mapped_size(d->offline));
}

// Whether the bytes in front of `address` end with one of the forms of call: direct (E8 rel32, 9A far),
// and indirect (FF /2, FF /3) with each ModRM, SIB and displacement length.
int vorx_check_previous_call_instruction(uint32_t address) {
  uint8_t b[8];
  if (address < 8 || !vorx_read_memory_protected(b, reinterpret_cast<const void*>(uintptr_t(address - 8)), 8))
    return 0;
  auto at = [&](int n) { return b[8 - n]; };  // the byte at address - n
  auto indirect = [](uint8_t m) { uint8_t reg = (m >> 3) & 7; return reg == 2 || reg == 3; };
  auto has_sib = [](uint8_t m) { return (m >> 6) != 3 && (m & 7) == 4; };
  auto displacement = [](uint8_t m) {
    uint8_t mod = m >> 6;
    if (mod == 2) return 4;
    if (mod == 1) return 1;
    if (mod == 3) return 0;
    return (m & 7) == 5 ? 4 : 0;
  };
  if (at(3) == 0xE8 || at(5) == 0xE8 || at(4) == 0x9A || at(6) == 0x9A) return 1;
  if (at(2) == 0xFF && indirect(at(1)) && !has_sib(at(1)) && displacement(at(1)) == 0) return 1;
  if (at(3) == 0xFF && indirect(at(2))) {
    if (has_sib(at(2)) ? displacement(at(2)) == 0 : displacement(at(2)) == 1) return 1;
  }
  if (at(4) == 0xFF && indirect(at(3)) && has_sib(at(3)) && displacement(at(3)) == 1) return 1;
  if (at(6) == 0xFF && indirect(at(5)) && !has_sib(at(5)) && displacement(at(5)) == 4) return 1;
  if (at(7) == 0xFF && indirect(at(6)) && has_sib(at(6)) && displacement(at(6)) == 4) return 1;
  return 0;
}

uint32_t vorx_walk_own_stack(vorx_stack_desc_t* d) {
  ucontext_t uc;
  getcontext(&uc);
  vorx_stack_start_t start;
  start.ip = uint32_t(uc.uc_mcontext.gregs[REG_EIP]);
  start.sp = uint32_t(uc.uc_mcontext.gregs[REG_ESP]);
  start.fp = uint32_t(uc.uc_mcontext.gregs[REG_EBP]);
  start.ucontext = &uc;
  start.exact_ip = 0;
  d->walk(d, &start);
  return d->offline ? d->item_count : d->frame_count;
}

}  // extern "C"
