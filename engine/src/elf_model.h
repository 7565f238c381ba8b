// The engine's view of one ELF file: what an image needs, in addresses of the link (add the load offset).
// Read from bytes (a file mapped by the caller, or an image already in memory such as the vDSO) by a reader
// written once for ELFCLASS32 and ELFCLASS64.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kel {

struct ElfSection {
  std::string name;
  uint64_t address = 0;  // sh_addr (link address); meaningful when `allocated`
  uint64_t size = 0;
  uint64_t offset = 0;
  uint32_t type = 0;
  bool allocated = false;
  bool executable = false;
  bool writable = false;
};

struct ElfSymbol {
  std::string name;      // with the version: "name@@VER" (default) or "name@VER"
  uint64_t value = 0;
  uint64_t size = 0;
  uint32_t index = 0;    // index in its symbol table
  uint16_t section = 0;  // st_shndx
  uint8_t type = 0;      // STT_*
  uint8_t binding = 0;   // STB_*
  bool dynamic = false;  // from .dynsym
  bool default_version = true;  // no version, or "@@"
};

struct ElfSegment {
  uint64_t address = 0;
  uint64_t memory_size = 0;
  uint32_t flags = 0;  // PF_*
};

struct ElfModel {
  int elf_class = 0;     // 32 or 64
  uint16_t machine = 0;  // EM_*
  uint16_t type = 0;     // ET_*
  uint64_t entry = 0;
  bool has_interpreter = false;
  bool has_dynamic = false;
  uint64_t init = 0;     // DT_INIT, 0 when absent
  uint64_t fini = 0;     // DT_FINI
  std::string soname;
  std::vector<ElfSegment> loads;
  std::vector<ElfSection> sections;
  std::vector<ElfSymbol> symbols;  // defined symbols: .dynsym first, then .symtab entries not already seen
};

enum class ElfSource {
  file,    // bytes laid out as in the file (section contents at their offsets)
  memory,  // an image mapped by the kernel at its link layout (the vDSO): contents at their addresses
};

enum class ElfDetail {
  all,              // every defined symbol: .dynsym, then .symtab
  dynamic_symbols,  // .dynsym only: what a check of exports needs, without the (large) .symtab of a debug build
};

// Parses `bytes`; false with `error` set when the bytes are not a usable ELF object.
bool parse_elf(std::span<const uint8_t> bytes, ElfSource source, ElfModel* model, std::string* error,
               ElfDetail detail = ElfDetail::all);

// Maps the file at `path` and parses it.
bool read_elf_file(const std::string& path, ElfModel* model, std::string* error, ElfDetail detail = ElfDetail::all);

// Reads the headers of the file at `path` into `model` (class, machine, type, entry, segments, sections; no
// symbols) and tells whether its dynamic symbol table defines a function `name`: what a launcher checks of a
// tool, without copying the thousands of symbols a tool exports.
bool find_function_export(const std::string& path, std::string_view name, ElfModel* model, bool* found,
                          std::string* error);

}  // namespace kel
