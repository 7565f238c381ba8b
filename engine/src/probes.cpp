// Probe insertion: the entry jump, the trampoline, the dispatch cell, and their removal at detach.
//
// Every probed entry jumps to a dispatch cell of its own, `jmp *slot`, and the slot holds where the call goes:
//
//     routine entry:  jmp cell            cell:  jmp *slot          slot: replacement | internal hook | trampoline
//
// A detach only changes the slot (an aligned 4-byte store) to the trampoline, or to the engine's own hook for
// routines the engine itself watches (fork, execve), so it is safe while other threads run through the entry;
// it also puts the original bytes back when they fit one aligned 8-byte window. A later attach re-arms the
// slot. Trampolines are never freed: a thread may still be inside one long after the detach.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <map>

#include "engine.h"

namespace kel {
namespace {

struct Probe {
  uint32_t routine = 0;
  uint32_t image = 0;
  uintptr_t address = 0;
  uint8_t original[arch::kPatchSize] = {};
  uintptr_t trampoline = 0;
  uintptr_t* slot = nullptr;
  uintptr_t internal_hook = 0;  // the engine's own replacement, 0 when none
  uintptr_t tool_hook = 0;      // the tool's replacement while armed, 0 when none
  bool entry_restored = false;  // the original bytes are back at the entry
};

// Probes by entry address. Written under the client lock.
std::map<uintptr_t, Probe>& probes() {
  static auto* instance = new std::map<uintptr_t, Probe>;
  return *instance;
}

// Executable memory for trampolines, cells, slots and stubs. Bump allocation under the client lock.
struct CodeArena {
  uint8_t* next = nullptr;
  size_t left = 0;
};
CodeArena g_arena;

void make_writable(uintptr_t address, size_t size, bool writable) {
  long page = sysconf(_SC_PAGESIZE);
  uintptr_t start = address & ~static_cast<uintptr_t>(page - 1);
  uintptr_t end = (address + size + page - 1) & ~static_cast<uintptr_t>(page - 1);
  // Execution stays allowed throughout: other threads may be running code on the same page.
  int prot = PROT_READ | PROT_EXEC | (writable ? PROT_WRITE : 0);
  if (mprotect(reinterpret_cast<void*>(start), end - start, prot) != 0)
    engine_error("cannot change the protection of %#lx: %s", static_cast<unsigned long>(address), strerror(errno));
}

// True when nobody can be executing the image's code: its load callbacks are still running, or the
// program has not started (only the loader runs, on one thread, until the first consistent state).
bool image_is_fresh(uint32_t image_id) {
  return !program_running() || (image_id && tables().images[image_id - 1].in_load_event);
}

// The executable sections of an image, writable for the rest of its load event: one pair of protection
// changes per image instead of one per probe (libc may take thousands).
void open_image_code(Image& image) {
  if (image.code_open) return;
  for (uint32_t i = 0; i < image.section_count; ++i) {
    const Section& s = tables().sections[image.first_section + i];
    if (s.executable && s.address) make_writable(s.address, s.size, true);
  }
  image.code_open = true;
}

bool write_entry(uintptr_t address, const uint8_t* bytes, bool fresh) {
  Image* image = fresh ? image_containing(address) : nullptr;
  if (image && image->in_load_event) {
    open_image_code(*image);
    memcpy(reinterpret_cast<void*>(address), bytes, arch::kPatchSize);
    return true;
  }
  make_writable(address, arch::kPatchSize, true);
  bool done = true;
  if (fresh) memcpy(reinterpret_cast<void*>(address), bytes, arch::kPatchSize);
  else done = arch::write_code_atomically(address, bytes, arch::kPatchSize);
  make_writable(address, arch::kPatchSize, false);
  __builtin___clear_cache(reinterpret_cast<char*>(address), reinterpret_cast<char*>(address + arch::kPatchSize));
  return done;
}

bool fits_atomic_window(uintptr_t address) { return (address & 7) + arch::kPatchSize <= 8; }

const std::vector<uintptr_t>& branch_targets(Image& image) {
  if (!image.branch_index_built) build_branch_index(image);
  return image.branch_targets;
}

bool branch_lands_inside_patch(Image& image, uintptr_t address) {
  const auto& targets = branch_targets(image);
  auto it = std::upper_bound(targets.begin(), targets.end(), address);
  return it != targets.end() && *it < address + arch::kPatchSize;
}

bool resolver_may_run(const Routine& r) {
  const Image& image = tables().images[r.image - 1];
  return image.relocated && !image.in_load_event;
}

// Where a call of the routine really goes: the implementation an IFUNC resolver picks, once it may be asked.
uintptr_t effective_address(const Routine& r, arch::Refusal* why) {
  if (!r.ifunc) return r.address;
  if (!resolver_may_run(r)) {
    if (why) *why = arch::refusal_ifunc_unresolved;
    return 0;
  }
  using Resolver = uintptr_t (*)();
  return reinterpret_cast<Resolver>(r.address)();
}

// The refusal for an entry at `address` inside routine `r`, ignoring whether it is already probed.
arch::Refusal entry_refusal(Image& image, uintptr_t address, uintptr_t limit) {
  if (!address_in_executable_section(image, address)) return arch::refusal_outside_code;
  arch::RelocatedPrologue scratch;
  if (arch::Refusal r = arch::relocate_prologue(address, limit, 0, &scratch); r != arch::refusal_none) return r;
  if (branch_lands_inside_patch(image, address)) return arch::refusal_branch_into_patch;
  if (!image_is_fresh(image.id) && !fits_atomic_window(address))
    return arch::refusal_live_unaligned;
  return arch::refusal_none;
}

uintptr_t routine_limit(const Routine& r, uintptr_t address) {
  if (address != r.address) {  // an IFUNC's implementation: its own routine, when it has a symbol
    Image* image = image_containing(address);
    if (image)
      if (uint32_t impl = routine_at(*image, address)) return address + tables().routines[impl - 1].size;
    return address + arch::kPatchSize + 16;
  }
  return r.address + r.size;
}

}  // namespace

// An IFUNC met before its resolver may run (its module is not relocated yet). Its probe is deferred: the
// resolver gets an engine hook, and when the loader calls it the implementation it picks is probed. The tool
// is handed a lazy stub that goes to the implementation's trampoline (resolving first if need be).
struct DeferredIfunc {
  uint32_t routine = 0;
  uintptr_t resolver_callable = 0;  // the resolver, or its trampoline once hooked
  uintptr_t replacement = 0;        // the tool's, 0 when only a callable was asked for
  uintptr_t implementation = 0;
  uintptr_t callable = 0;           // runs the implementation unchanged
  uintptr_t lazy_stub = 0;
};

namespace {
std::map<uint32_t, DeferredIfunc*>& deferred_ifuncs() {
  static auto* instance = new std::map<uint32_t, DeferredIfunc*>;
  return *instance;
}
}  // namespace

}  // namespace kel

extern "C" __attribute__((visibility("hidden"))) uintptr_t kel_ifunc_resolved(kel::DeferredIfunc* d) {
  using namespace kel;
  uintptr_t implementation = reinterpret_cast<uintptr_t (*)()>(d->resolver_callable)();
  if (d->callable) return implementation;
  LEVEL_KELCLIENT::KEL_LockClient();
  if (!d->callable) {
    d->implementation = implementation;
    uintptr_t callable = implementation;
    if (d->replacement) {
      arch::Refusal why = arch::refusal_outside_code;
      Image* image = image_containing(implementation);
      Routine& r = tables().routines[d->routine - 1];
      if (image) why = entry_refusal(*image, implementation, routine_limit(r, implementation));
      uintptr_t trampoline = 0;
      if (why == arch::refusal_none) {
        auto as_is = [](uintptr_t, void* replacement) { return reinterpret_cast<uintptr_t>(replacement); };
        trampoline = install_probe(d->routine, implementation, false, as_is, reinterpret_cast<void*>(d->replacement),
                                   &why);
      }
      if (trampoline) callable = trampoline;
      else log_line(1, "probe of %s's implementation refused: %s", r.name.c_str(), arch::refusal_name(why));
    }
    __atomic_store_n(&d->callable, callable, __ATOMIC_RELEASE);
  }
  LEVEL_KELCLIENT::KEL_UnlockClient();
  return implementation;
}

extern "C" __attribute__((visibility("hidden"))) uintptr_t kel_ifunc_callable(kel::DeferredIfunc* d) {
  if (!__atomic_load_n(&d->callable, __ATOMIC_ACQUIRE)) kel_ifunc_resolved(d);
  return d->callable;
}

namespace kel {

DeferredIfunc* deferred_ifunc(uint32_t routine_index) {
  auto found = deferred_ifuncs().find(routine_index);
  if (found != deferred_ifuncs().end()) return found->second;
  auto* d = new DeferredIfunc;
  d->routine = routine_index;
  d->resolver_callable = tables().routines[routine_index - 1].address;
  auto* stub = static_cast<uint8_t*>(allocate_code(arch::kLazyJumpSize));
  arch::build_lazy_jump_stub(reinterpret_cast<uintptr_t>(&kel_ifunc_callable), reinterpret_cast<uint32_t>(d), stub);
  d->lazy_stub = reinterpret_cast<uintptr_t>(stub);
  deferred_ifuncs().emplace(routine_index, d);
  return d;
}

namespace {
uintptr_t resolver_hook(uintptr_t resolver_callable, void* context) {
  auto* d = static_cast<DeferredIfunc*>(context);
  d->resolver_callable = resolver_callable;
  std::vector<arch::StubSlot> plan = {{arch::StubSlot::constant, reinterpret_cast<uint32_t>(d)}};
  auto* stub = static_cast<uint8_t*>(allocate_code(arch::kMaxStubSize));
  if (!stub || !arch::build_signature_stub(plan, reinterpret_cast<uintptr_t>(&kel_ifunc_resolved), stub)) return 0;
  return reinterpret_cast<uintptr_t>(stub);
}
}  // namespace

// Defers the probe of an IFUNC routine to its resolution; returns the lazy callable or 0.
uintptr_t defer_ifunc_probe(uint32_t routine_index, uintptr_t replacement, arch::Refusal* why) {
  Routine& r = tables().routines[routine_index - 1];
  DeferredIfunc* d = deferred_ifunc(routine_index);
  if (d->replacement || d->callable) {
    *why = d->replacement ? arch::refusal_already_probed : arch::refusal_ifunc_unresolved;
    return 0;
  }
  d->replacement = replacement;
  if (!install_probe(routine_index, r.address, true, resolver_hook, d, why)) {
    d->replacement = 0;
    return 0;
  }
  return d->lazy_stub;
}

void close_image_code(Image& image) {
  if (!image.code_open) return;
  for (uint32_t i = 0; i < image.section_count; ++i) {
    const Section& s = tables().sections[image.first_section + i];
    if (s.executable && s.address) make_writable(s.address, s.size, false);
  }
  image.code_open = false;
}

void* allocate_code(size_t size) {
  size = (size + 15) & ~static_cast<size_t>(15);
  if (g_arena.left < size) {
    size_t chunk = std::max<size_t>(size, 64 * 1024);
    void* block = mmap(nullptr, chunk, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) return nullptr;
    g_arena.next = static_cast<uint8_t*>(block);
    g_arena.left = chunk;
  }
  void* result = g_arena.next;
  g_arena.next += size;
  g_arena.left -= size;
  return result;
}

arch::Refusal probe_refusal(uint32_t routine_index, LEVEL_KELCLIENT::PROBE_MODE, uintptr_t* address_out) {
  Routine& r = tables().routines[routine_index - 1];
  Image& image = tables().images[r.image - 1];
  arch::Refusal why = arch::refusal_none;
  uintptr_t address = effective_address(r, &why);
  if (!address && why == arch::refusal_ifunc_unresolved) {
    // Deferred to the resolver: its own entry takes the engine's hook.
    auto found = deferred_ifuncs().find(routine_index);
    if (found != deferred_ifuncs().end() && (found->second->replacement || found->second->callable))
      return found->second->replacement ? arch::refusal_already_probed : arch::refusal_ifunc_unresolved;
    if (probes().count(r.address)) return arch::refusal_ifunc_unresolved;
    if (address_out) *address_out = 0;
    arch::Refusal resolver = entry_refusal(image, r.address, r.address + r.size);
    return resolver == arch::refusal_none ? arch::refusal_none : arch::refusal_ifunc_unresolved;
  }
  if (!address) return why;
  if (address_out) *address_out = address;
  auto found = probes().find(address);
  if (found != probes().end()) {
    const Probe& p = found->second;
    if (p.tool_hook) return arch::refusal_already_probed;
    // Re-arming a parked probe only swaps its slot; putting back a restored jump needs the atomic window.
    if (p.entry_restored && !image_is_fresh(p.image) && !fits_atomic_window(address))
      return arch::refusal_live_unaligned;
    return arch::refusal_none;
  }
  Image* target_image = address == r.address ? &image : image_containing(address);
  if (!target_image) return arch::refusal_outside_code;
  return entry_refusal(*target_image, address, routine_limit(r, address));
}

uintptr_t install_probe(uint32_t routine_index, uintptr_t address, bool internal, HookMaker make_hook,
                        void* context, arch::Refusal* why) {
  auto found = probes().find(address);
  if (found != probes().end()) {
    Probe& p = found->second;
    uintptr_t callable = p.internal_hook ? p.internal_hook : p.trampoline;
    uintptr_t hook = make_hook(callable, context);
    if (!hook) return 0;
    if (internal) p.internal_hook = hook;
    else p.tool_hook = hook;
    __atomic_store_n(p.slot, hook, __ATOMIC_RELEASE);
    if (p.entry_restored) {
      uint8_t jump[arch::kPatchSize];
      arch::encode_jump(address, reinterpret_cast<uintptr_t>(p.slot) + sizeof(uintptr_t), jump);
      write_entry(address, jump, image_is_fresh(p.image));
      p.entry_restored = false;
    }
    return callable;
  }

  Routine& r = tables().routines[routine_index - 1];
  Image* image = address == r.address ? &tables().images[r.image - 1] : image_containing(address);
  uint32_t image_id = image->id;
  // One block: [slot][cell: jmp *slot][trampoline]
  auto* block = static_cast<uint8_t*>(allocate_code(sizeof(uintptr_t) + arch::kDispatchSize + 2 +
                                                    arch::kMaxTrampolineSize));
  if (!block) {
    *why = arch::refusal_outside_code;
    return 0;
  }
  auto* slot = reinterpret_cast<uintptr_t*>(block);
  uint8_t* cell = block + sizeof(uintptr_t);
  uint8_t* trampoline = cell + arch::kDispatchSize + 2;
  arch::RelocatedPrologue prologue;
  *why = arch::relocate_prologue(address, routine_limit(r, address), reinterpret_cast<uintptr_t>(trampoline),
                                 &prologue);
  if (*why != arch::refusal_none) return 0;
  memcpy(trampoline, prologue.code, prologue.code_size);
  arch::encode_dispatch(reinterpret_cast<uintptr_t>(slot), cell);

  uintptr_t hook = make_hook(reinterpret_cast<uintptr_t>(trampoline), context);
  if (!hook) return 0;
  *slot = hook;

  Probe p;
  p.routine = routine_index;
  p.image = image_id;
  p.address = address;
  memcpy(p.original, reinterpret_cast<void*>(address), arch::kPatchSize);
  p.trampoline = reinterpret_cast<uintptr_t>(trampoline);
  p.slot = slot;
  (internal ? p.internal_hook : p.tool_hook) = hook;
  uint8_t jump[arch::kPatchSize];
  arch::encode_jump(address, reinterpret_cast<uintptr_t>(cell), jump);
  if (!write_entry(address, jump, image_is_fresh(image_id))) {
    *why = arch::refusal_live_unaligned;
    return 0;
  }
  probes().emplace(address, p);
  log_line(2, "probe %s at %#lx -> %#lx (trampoline %#lx)", r.name.c_str(), static_cast<unsigned long>(address),
           static_cast<unsigned long>(hook), static_cast<unsigned long>(p.trampoline));
  return p.trampoline;
}

void forget_probes(uint32_t image_id) {
  for (auto it = probes().begin(); it != probes().end();)
    it = it->second.image == image_id ? probes().erase(it) : std::next(it);
}

void disarm_all_probes() {
  for (auto& [address, p] : probes()) {
    if (!tables().images[p.image - 1].valid) continue;
    p.tool_hook = 0;
    uintptr_t target = p.internal_hook ? p.internal_hook : p.trampoline;
    __atomic_store_n(p.slot, target, __ATOMIC_RELEASE);
    if (!p.internal_hook && !p.entry_restored && fits_atomic_window(address)) {
      write_entry(address, p.original, false);
      p.entry_restored = true;
    }
  }
}

}  // namespace kel

namespace LEVEL_KELCLIENT {
using kel::routine_of;
using kel::tables;

namespace {
uint32_t routine_index(RTN rtn) { return routine_of(rtn) ? static_cast<uint32_t>(rtn.q()) : 0; }

uintptr_t use_replacement_as_is(uintptr_t, void* replacement) { return reinterpret_cast<uintptr_t>(replacement); }

AFUNPTR replace(RTN rtn, PROBE_MODE mode, kel::HookMaker make_hook, void* context) {
  uint32_t index = routine_index(rtn);
  if (!index) return nullptr;
  KEL_LockClient();
  uintptr_t address = 0;
  kel::arch::Refusal why = kel::probe_refusal(index, mode, &address);
  uintptr_t callable = 0;
  if (why == kel::arch::refusal_none && address == 0)  // an IFUNC not resolvable yet
    callable = make_hook == use_replacement_as_is
                   ? kel::defer_ifunc_probe(index, reinterpret_cast<uintptr_t>(context), &why)
                   : 0;
  else if (why == kel::arch::refusal_none)
    callable = kel::install_probe(index, address, false, make_hook, context, &why);
  KEL_UnlockClient();
  if (!callable)
    kel::log_line(1, "probe of %s refused: %s", RTN_Name(rtn).c_str(), kel::arch::refusal_name(why));
  return reinterpret_cast<AFUNPTR>(callable);
}
}  // namespace

AFUNPTR RTN_Funptr(RTN rtn) {
  kel::Routine* r = routine_of(rtn);
  if (!r) return nullptr;
  if (r->ifunc) {
    KEL_LockClient();
    auto found = kel::deferred_ifuncs().find(static_cast<uint32_t>(rtn.q()));
    uintptr_t address = 0;
    if (found != kel::deferred_ifuncs().end()) address = found->second->lazy_stub;
    else if (!kel::resolver_may_run(*r)) address = kel::deferred_ifunc(static_cast<uint32_t>(rtn.q()))->lazy_stub;
    else address = kel::effective_address(*r, nullptr);
    KEL_UnlockClient();
    return reinterpret_cast<AFUNPTR>(address);
  }
  return reinterpret_cast<AFUNPTR>(r->address);
}

BOOL RTN_IsSafeForProbedReplacement(RTN rtn) { return RTN_IsSafeForProbedReplacementEx(rtn, PROBE_MODE_DEFAULT); }

BOOL RTN_IsSafeForProbedReplacementEx(RTN rtn, PROBE_MODE mode) {
  uint32_t index = routine_index(rtn);
  if (!index) return false;
  KEL_LockClient();
  kel::arch::Refusal why = kel::probe_refusal(index, mode, nullptr);
  KEL_UnlockClient();
  if (why != kel::arch::refusal_none)
    kel::log_line(1, "%s is not safe for a probe: %s", RTN_Name(rtn).c_str(), kel::arch::refusal_name(why));
  return why == kel::arch::refusal_none;
}

const CHAR* RTN_ProbeRefusalReason(RTN rtn, PROBE_MODE mode) {
  uint32_t index = routine_index(rtn);
  if (!index) return "invalid_routine";
  KEL_LockClient();
  kel::arch::Refusal why = kel::probe_refusal(index, mode, nullptr);
  KEL_UnlockClient();
  return kel::arch::refusal_name(why);
}

AFUNPTR RTN_ReplaceProbed(RTN rtn, AFUNPTR replacement) {
  return RTN_ReplaceProbedEx(rtn, PROBE_MODE_DEFAULT, replacement);
}

AFUNPTR RTN_ReplaceProbedEx(RTN rtn, PROBE_MODE mode, AFUNPTR replacement) {
  return replace(rtn, mode, use_replacement_as_is, reinterpret_cast<void*>(replacement));
}

// ---------------------------------------------------------------------------------------------------------
// Signatures.
// ---------------------------------------------------------------------------------------------------------
}  // namespace LEVEL_KELCLIENT

struct LEVEL_KELCLIENT::KEL_PROTO {
  PARG_T result;
  CALLINGSTD_TYPE standard;
  std::string name;
  std::vector<PARG_T> arguments;
};

namespace LEVEL_KELCLIENT {

PROTO PROTO_Allocate(PARG_T result, CALLINGSTD_TYPE cstype, const CHAR* name, ...) {
  auto* proto = new KEL_PROTO{result, cstype, name ? name : "", {}};
  va_list ap;
  va_start(ap, name);
  for (;;) {
    PARG_T arg = va_arg(ap, PARG_T);
    if (arg.kind == PARG_KIND_END) break;
    proto->arguments.push_back(arg);
  }
  va_end(ap);
  return proto;
}

void PROTO_Free(PROTO proto) { delete proto; }

namespace {
// What the stub pushes, with the callable original filled in once it is known.
struct SignaturePlan {
  std::vector<kel::arch::StubSlot> slots;
  std::vector<size_t> original_slots;  // positions that take the callable original
  uintptr_t replacement = 0;
};

uintptr_t build_stub(uintptr_t callable_original, void* context) {
  auto* plan = static_cast<SignaturePlan*>(context);
  for (size_t i : plan->original_slots) plan->slots[i].value = static_cast<uint32_t>(callable_original);
  auto* stub = static_cast<uint8_t*>(kel::allocate_code(kel::arch::kMaxStubSize));
  if (!stub) return 0;
  return kel::arch::build_signature_stub(plan->slots, plan->replacement, stub) ? reinterpret_cast<uintptr_t>(stub)
                                                                               : 0;
}
}  // namespace

AFUNPTR RTN_ReplaceSignatureProbed(RTN rtn, AFUNPTR replacement, ...) {
  SignaturePlan plan;
  plan.replacement = reinterpret_cast<uintptr_t>(replacement);
  PROTO proto = nullptr;
  va_list ap;
  va_start(ap, replacement);
  bool well_formed = true;
  for (int kind = va_arg(ap, int); kind != IARG_END && well_formed; kind = va_arg(ap, int)) {
    switch (kind) {
      case IARG_PROTOTYPE: proto = va_arg(ap, PROTO); break;
      case IARG_FUNCARG_ENTRYPOINT_VALUE: {
        UINT32 n = va_arg(ap, UINT32);
        if (!proto || n >= proto->arguments.size()) {
          well_formed = false;
          break;
        }
        UINT32 word = 0;  // arguments are laid out in 4-byte words; wider ones take several
        for (UINT32 i = 0; i < n; ++i) word += (proto->arguments[i].size + 3) / 4;
        UINT32 words = std::max<UINT32>(1, (proto->arguments[n].size + 3) / 4);
        for (UINT32 w = 0; w < words; ++w)
          plan.slots.push_back({kel::arch::StubSlot::caller_word, word + w});
        break;
      }
      case IARG_ORIG_FUNCPTR:
        plan.original_slots.push_back(plan.slots.size());
        plan.slots.push_back({kel::arch::StubSlot::constant, 0});
        break;
      case IARG_PTR: plan.slots.push_back({kel::arch::StubSlot::constant, reinterpret_cast<uint32_t>(va_arg(ap, void*))}); break;
      case IARG_UINT32: plan.slots.push_back({kel::arch::StubSlot::constant, va_arg(ap, UINT32)}); break;
      case IARG_ADDRINT: plan.slots.push_back({kel::arch::StubSlot::constant, static_cast<uint32_t>(va_arg(ap, ADDRINT))}); break;
      case IARG_RETURN_IP: plan.slots.push_back({kel::arch::StubSlot::return_address, 0}); break;
      default: well_formed = false; break;
    }
  }
  va_end(ap);
  if (!well_formed || !proto) {
    kel::engine_error("RTN_ReplaceSignatureProbed(%s): the argument list needs IARG_PROTOTYPE first and "
                      "argument numbers within the prototype", RTN_Name(rtn).c_str());
    return nullptr;
  }
  return replace(rtn, PROBE_MODE_ALLOW_RELOCATION, build_stub, &plan);
}

}  // namespace LEVEL_KELCLIENT
