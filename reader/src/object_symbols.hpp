// Names of addresses in the modules a process had mapped, from the modules' own symbol tables: a
// global lock or condition variable reads as "g_queue+24" instead of 0x566540d8, a sampled
// instruction as the function that holds it. The trace tells where each module's code was (its
// module map records); the module file is opened only when an address near it needs a name, and a
// file that no longer matches that code range, or was written after the collection began, names
// nothing.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vorx::report {

// The data and function symbols of one ELF file, at their link-time addresses.
struct ElfObjects {
  struct Symbol {
    std::uint64_t value = 0, size = 0;
    std::string name;
  };
  std::uint64_t exec_vaddr = 0, exec_memsz = 0; // the executable load segment
  std::uint64_t low = 0, high = 0;              // what the load segments span
  std::vector<Symbol> symbols;                  // data objects, sorted by value, each with a size
  std::vector<Symbol> functions;                // code, sorted by value, each with a size
  std::string build_id;                         // hex of the GNU build-id note, "" without one
  bool full_symbols = false;                    // from .symtab (else .dynsym: exported names only)

  // "name" or "name+offset" for a link-time address inside a data symbol; "" otherwise.
  std::string name_at(std::uint64_t address) const;
  // The function whose code holds the link-time address; null when none does (an address between
  // sized symbols gets no guessed name).
  const Symbol *function_at(std::uint64_t address) const;
};

// Where a run-time address of code lies: its module and, when the module file could be trusted, its
// link-time address there.
struct CodePlace {
  std::string_view path;                  // the module's file; empty: no known module holds it
  std::uint64_t module_offset = 0;        // from the start of the module's mapped code
  std::uint64_t linked = 0;               // link-time address in the file (valid with elf)
  const ElfObjects *elf = nullptr;        // null: the file is missing, unreadable or not the mapped one
};

// Reads an ELF file of either class (the modules of a 32-bit process, read by a reader of any
// width); null when it is no ELF file or cannot be read.
std::unique_ptr<ElfObjects> read_elf_objects(const std::string &path);
// The same, with the full symbol table of the separate debug file that the build-id names, for a
// file that kept only its exported names (a stripped libc with its debug package installed).
std::unique_ptr<ElfObjects> read_module_symbols(const std::string &path);

class ModuleSymbols {
public:
  // A module's code as the trace saw it mapped: [start, end).
  void add_module(std::uint64_t start, std::uint64_t end, std::string path);
  // The data symbol that holds the address, "" when none does.
  std::string name_of(std::uint64_t address);
  // The module whose code holds the address, and the address in its file.
  CodePlace code_at(std::uint64_t address);
  // Files written after this time (seconds since the epoch) are not the files that were mapped.
  void set_recorded_at(double seconds) { recorded_at_ = seconds; }

private:
  struct Module {
    std::uint64_t start = 0, end = 0;
    std::string path;
    bool read = false;
    std::shared_ptr<const ElfObjects> objects; // null: unreadable, or not the file that was mapped
    std::uint64_t bias = 0;                     // run-time address less link-time address
  };
  const Module *load(Module &m);

  std::map<std::uint64_t, Module> modules_; // by start of code
  std::map<std::string, std::shared_ptr<const ElfObjects>> files_;
  double recorded_at_ = 0; // when the collection began; 0: unknown
};

} // namespace vorx::report
