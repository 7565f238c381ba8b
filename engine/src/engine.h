// The engine's internal tables and services, shared by its source files. Not for tools: tools use kel.h.
//
// Concurrency contract: tables grow (images appear, routines are created) only under the client lock, in
// StableVector storage that never moves an element, so readers on other threads need no lock to look at an
// element they hold a handle to. Per-image routine indexes are read under the client lock by
// RTN_FindByAddress and written under it by RTN_CreateAt.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "arch.h"
#include "kel.h"

namespace kel {

// Append-only storage whose elements never move: a fixed directory of chunks allocated on demand.
template <class T, unsigned kChunkBits = 10, unsigned kMaxChunks = 4096>
class StableVector {
 public:
  uint32_t size() const { return size_.load(std::memory_order_acquire); }
  T& operator[](uint32_t i) { return chunks_[i >> kChunkBits][i & kChunkMask]; }
  // Callers hold the client lock.
  uint32_t push(T&& value) {
    uint32_t i = size_.load(std::memory_order_relaxed);
    T*& chunk = chunks_[i >> kChunkBits];
    if (!chunk) chunk = new T[kChunkSize];
    chunk[i & kChunkMask] = std::move(value);
    size_.store(i + 1, std::memory_order_release);
    return i;
  }

 private:
  static constexpr uint32_t kChunkSize = 1u << kChunkBits;
  static constexpr uint32_t kChunkMask = kChunkSize - 1;
  T* chunks_[kMaxChunks] = {};
  std::atomic<uint32_t> size_{0};
};

struct Region {
  uintptr_t low;
  uintptr_t high;  // inclusive
};

struct Image {
  uint32_t id = 0;  // its handle value: index + 1
  bool valid = false;
  bool main_executable = false;
  bool vdso = false;
  bool in_load_event = false;   // its load callbacks are running: its code cannot run yet
  bool relocated = false;       // the loader has finished with it: IFUNC resolvers may be called
  bool code_open = false;       // its executable sections are writable (during its load event only)
  std::string name;
  uintptr_t load_offset = 0;
  uintptr_t entry = 0;
  std::vector<Region> regions;
  uintptr_t low = 0, high = 0;
  uint32_t first_section = 0, section_count = 0;  // global section indices
  uint32_t first_symbol = 0, symbol_count = 0;    // global symbol indices
  std::vector<uint32_t> routines;                 // global routine indices, by address
  // Full names and plain names. The keys view the names held by the symbol and routine tables (or constants):
  // those never move and never change, and an image of the C library has some 6000 keys, which as strings of
  // their own cost a copy each at start-up.
  std::unordered_map<std::string_view, uint32_t> routine_by_name;
  bool branch_index_built = false;
  std::vector<uintptr_t> branch_targets;          // sorted, unique
  void* link_map = nullptr;
};

struct Section {
  uint32_t image = 0;
  std::string name;
  uintptr_t address = 0;
  size_t size = 0;
  bool executable = false, readable = false, writable = false;
  LEVEL_KELCLIENT::SEC_TYPE type = LEVEL_KELCLIENT::SEC_TYPE_OTHER;
};

struct Symbol {
  uint32_t image = 0;
  std::string name;
  uintptr_t value = 0;
  uint32_t index = 0;
  bool dynamic = false;
  bool ifunc = false;
};

struct Routine {
  uint32_t image = 0;
  uint32_t section = 0;  // global section index + 1, 0 when unknown
  std::string name;      // plain name of the preferred symbol
  uintptr_t address = 0;
  size_t size = 0;
  bool ifunc = false;
  bool dynamic = false;
  bool opened = false;
  uint32_t first_ins = 0, ins_count = 0;
};

struct Instruction {
  uint32_t routine = 0;
  uintptr_t address = 0;
  uint8_t size = 0;
  uint32_t flags = 0;  // ins_flag_*
  uint32_t opcode = 0;
  uintptr_t target = 0;
  uint16_t mnemonic = 0;
};

struct Tables {
  StableVector<Image, 8, 256> images;  // index = image id - 1
  StableVector<Section> sections;
  StableVector<Symbol> symbols;
  StableVector<Routine> routines;
  StableVector<Instruction, 12> instructions;
};
// The tables, made at the first use (an audit callback may come before the engine's constructors have run)
// and never destroyed (callbacks may come during exit). Every query of the tool starts here: after the first
// use it is one load.
extern Tables* g_tables;
Tables& make_tables();
inline Tables& tables() {
  Tables* made = g_tables;
  return made ? *made : make_tables();
}

// Handle <-> index. Handles are index + 1 so that 0 is invalid.
inline Image* image_of(LEVEL_KELCLIENT::IMG img) {
  uint32_t i = static_cast<uint32_t>(img.q());
  return i && i <= tables().images.size() && tables().images[i - 1].valid ? &tables().images[i - 1] : nullptr;
}
inline Routine* routine_of(LEVEL_KELCLIENT::RTN rtn) {
  uint32_t i = static_cast<uint32_t>(rtn.q());
  if (!i || i > tables().routines.size()) return nullptr;
  Routine* r = &tables().routines[i - 1];
  return image_of(LEVEL_KELCLIENT::IMG(r->image)) ? r : nullptr;
}

// Builds an image from its file (or from memory for the vDSO) and publishes it. Returns the image id.
uint32_t create_image(const std::string& path, uintptr_t load_offset, bool main_executable, bool vdso,
                      void* link_map);
void invalidate_image(uint32_t id);
uint32_t routine_at(Image& image, uintptr_t address);  // exact start, else 0
Image* image_containing(uintptr_t address);
bool address_in_executable_section(const Image& image, uintptr_t address);

// Probes.
struct ProbeRequest;
arch::Refusal probe_refusal(uint32_t routine_index, LEVEL_KELCLIENT::PROBE_MODE mode, uintptr_t* address_out);
// Installs (or re-arms) a probe sending `address` to the code made by `make_hook(callable_original)`.
// `internal` probes belong to the engine and stay armed across detach. Returns the callable original or 0.
using HookMaker = uintptr_t (*)(uintptr_t callable_original, void* context);
uintptr_t install_probe(uint32_t routine_index, uintptr_t address, bool internal, HookMaker make_hook,
                        void* context, arch::Refusal* why);
void build_branch_index(Image& image);  // once per image, under the client lock
void disarm_all_probes();  // detach
void forget_probes(uint32_t image_id);  // the image goes: its addresses may serve another one
void close_image_code(Image& image);  // end of a load event: the code is read-only again
void* allocate_code(size_t size);

// Runs `visitor` on every thread of the process (on each thread itself, with its signal mask); returns
// how many threads it ran on. Threads that block the visit signal are skipped.
using ThreadVisitor = void (*)(void* signal_mask);
int visit_all_threads(ThreadVisitor visitor);
void run_thread_attach_callbacks(void* signal_mask);
void run_thread_detach_callbacks(void* signal_mask);

// Process services.
void install_process_hooks(uint32_t libc_image);
void on_image_loaded(uint32_t id);
void on_image_unloading(uint32_t id);
void on_loader_consistent();
void fixup_locks_after_fork(int parent_tid);
bool tool_started();
bool program_running();  // the loader has reached its first consistent state: threads may run code
extern bool g_tool_started;

// Logging: level 0 errors only, 1 refusals and probes, 2 images, 3 everything.
int log_level();
void log_line(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void engine_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Command line handed from the launcher (see the launcher for the encoding).
struct LaunchInfo {
  std::string tool_path;
  std::vector<std::string> arguments;  // the launcher's whole command line
  std::string runtime_path;            // this library
  std::string injected_audit;          // "LD_AUDIT=..." for followed children
  std::string injected_tool;           // "KEL_TOOL=..."
  std::string injected_args;           // "KEL_ARGS=" and the switches up to "--" (the program follows)
};
LaunchInfo& launch_info();

constexpr char kArgumentSeparator = '\x1f';
constexpr const char* kToolVariable = "KEL_TOOL";
constexpr const char* kArgsVariable = "KEL_ARGS";
constexpr const char* kSavedAuditVariable = "KEL_SAVED_LD_AUDIT";

}  // namespace kel
