#include "symbols.hpp"

#include <elf.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <vector>

namespace vorx::server {
namespace {

bool readable(const std::string &path) { return access(path.c_str(), R_OK) == 0; }

// Note entries: namesz, descsz, type, then name and desc, each padded to 4.
std::optional<std::string> build_id_in_notes(const std::vector<unsigned char> &notes) {
  size_t pos = 0;
  auto word = [&](size_t at) {
    uint32_t v;
    std::memcpy(&v, &notes[at], 4);
    return v;
  };
  while (pos + 12 <= notes.size()) {
    uint32_t namesz = word(pos), descsz = word(pos + 4), type = word(pos + 8);
    size_t name_at = pos + 12;
    size_t desc_at = name_at + ((namesz + 3u) & ~3u);
    size_t next = desc_at + ((descsz + 3u) & ~3u);
    if (next > notes.size() || desc_at + descsz > notes.size()) return std::nullopt;
    if (type == NT_GNU_BUILD_ID && namesz == 4 && std::memcmp(&notes[name_at], "GNU", 4) == 0) {
      static const char kHex[] = "0123456789abcdef";
      std::string hex;
      for (size_t i = 0; i < descsz; i++) {
        hex += kHex[notes[desc_at + i] >> 4];
        hex += kHex[notes[desc_at + i] & 15];
      }
      return hex;
    }
    pos = next;
  }
  return std::nullopt;
}

template <class Ehdr, class Phdr>
std::optional<std::string> build_id_of(std::ifstream &file) {
  Ehdr header;
  file.seekg(0);
  if (!file.read(reinterpret_cast<char *>(&header), sizeof(header))) return std::nullopt;
  if (header.e_phentsize != sizeof(Phdr) || header.e_phnum > 256) return std::nullopt;
  for (unsigned i = 0; i < header.e_phnum; i++) {
    Phdr ph;
    file.seekg((std::streamoff)(header.e_phoff + (uint64_t)i * sizeof(Phdr)));
    if (!file.read(reinterpret_cast<char *>(&ph), sizeof(ph))) return std::nullopt;
    if (ph.p_type != PT_NOTE || ph.p_filesz == 0 || ph.p_filesz > (1u << 20)) continue;
    std::vector<unsigned char> notes(ph.p_filesz);
    file.seekg((std::streamoff)ph.p_offset);
    if (!file.read(reinterpret_cast<char *>(notes.data()), (std::streamsize)notes.size())) continue;
    if (auto id = build_id_in_notes(notes)) return id;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> elf_build_id(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  unsigned char ident[EI_NIDENT];
  if (!file.read(reinterpret_cast<char *>(ident), sizeof(ident))) return std::nullopt;
  if (std::memcmp(ident, ELFMAG, SELFMAG) != 0 || ident[EI_DATA] != ELFDATA2LSB) return std::nullopt;
  if (ident[EI_CLASS] == ELFCLASS32) return build_id_of<Elf32_Ehdr, Elf32_Phdr>(file);
  if (ident[EI_CLASS] == ELFCLASS64) return build_id_of<Elf64_Ehdr, Elf64_Phdr>(file);
  return std::nullopt;
}

std::string symbol_file_for(const std::string &path, const std::string &debug_root) {
  if (path.empty() || path[0] != '/') return path;
  if (auto id = elf_build_id(path); id && id->size() > 2) {
    std::string by_id = debug_root + "/.build-id/" + id->substr(0, 2) + "/" + id->substr(2) + ".debug";
    if (readable(by_id)) return by_id;
  }
  for (const std::string &candidate : {debug_root + path + ".debug", debug_root + path})
    if (readable(candidate)) return candidate;
  return path;
}

}  // namespace vorx::server
