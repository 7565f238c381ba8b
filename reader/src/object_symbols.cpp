#include "object_symbols.hpp"

#include <elf.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>

namespace vorx::report {
namespace {

constexpr std::uint64_t kPage = 0x1000;
// Module files larger than this are not read for names (a debug build of a large library).
constexpr std::uint64_t kLargestFile = std::uint64_t(1) << 28;
// Where debug packages put the debug files of stripped files, by build-id.
const std::string kDebugFiles = "/usr/lib/debug/.build-id/";

std::vector<unsigned char> read_file(const std::string &path)
{
  // Only plain files: a trace's path may name a pipe or a device now.
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return {};
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return {};
  std::streamoff size = in.tellg();
  if (size <= 0 || std::uint64_t(size) > kLargestFile) return {};
  std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
  in.seekg(0);
  if (!in.read(reinterpret_cast<char *>(bytes.data()), size)) return {};
  return bytes;
}

// A table of count entries of T at offset, when it lies inside the file.
template <class T>
std::span<const T> table_at(std::span<const unsigned char> file, std::uint64_t offset, std::uint64_t count)
{
  if (offset > file.size() || count > (file.size() - offset) / sizeof(T)) return {};
  return {reinterpret_cast<const T *>(file.data() + offset), static_cast<std::size_t>(count)};
}

// The GNU build-id in a note area, as hex; "" when the area holds none.
template <class Nhdr>
std::string build_id_in(std::span<const unsigned char> notes)
{
  auto align4 = [](std::uint64_t n) { return (n + 3) & ~std::uint64_t(3); };
  std::uint64_t pos = 0;
  while (notes.size() - pos >= sizeof(Nhdr)) {
    Nhdr nh;
    std::memcpy(&nh, notes.data() + pos, sizeof nh);
    std::uint64_t name_at = pos + sizeof nh, desc_at = name_at + align4(nh.n_namesz);
    if (desc_at > notes.size() || nh.n_descsz > notes.size() - desc_at) break;
    if (nh.n_type == NT_GNU_BUILD_ID && nh.n_namesz == 4 && std::memcmp(notes.data() + name_at, "GNU", 4) == 0) {
      static const char hex[] = "0123456789abcdef";
      std::string id;
      for (std::uint64_t i = 0; i < nh.n_descsz; i++) {
        id += hex[notes[desc_at + i] >> 4];
        id += hex[notes[desc_at + i] & 15];
      }
      return id;
    }
    pos = desc_at + align4(nh.n_descsz);
  }
  return {};
}

bool is_function(unsigned type) { return type == STT_FUNC || type == STT_GNU_IFUNC; }
bool is_object(unsigned type) { return type == STT_OBJECT || type == STT_COMMON; }

void sort_by_value(std::vector<ElfObjects::Symbol> &symbols)
{
  std::sort(symbols.begin(), symbols.end(),
            [](const auto &a, const auto &b) { return a.value < b.value || (a.value == b.value && a.name < b.name); });
}

// The nearest symbols at or below the address; the first of them that holds it.
const ElfObjects::Symbol *holder(const std::vector<ElfObjects::Symbol> &symbols, std::uint64_t address)
{
  auto after = std::upper_bound(symbols.begin(), symbols.end(), address,
                                [](std::uint64_t a, const ElfObjects::Symbol &s) { return a < s.value; });
  for (auto it = after; it != symbols.begin();) {
    --it;
    if (address - it->value < it->size) return &*it;
    if (address - it->value > (std::uint64_t(1) << 24)) break; // nothing that large lies further down
  }
  return nullptr;
}

template <class Ehdr, class Phdr, class Shdr, class Sym, class Nhdr, unsigned char (*Type)(unsigned char)>
std::unique_ptr<ElfObjects> read_class(std::span<const unsigned char> file)
{
  if (file.size() < sizeof(Ehdr)) return nullptr;
  Ehdr eh;
  std::memcpy(&eh, file.data(), sizeof eh);
  auto out = std::make_unique<ElfObjects>();
  bool any_load = false;
  for (const Phdr &ph : table_at<Phdr>(file, eh.e_phoff, eh.e_phnum)) {
    if (ph.p_type != PT_LOAD) continue;
    out->low = any_load ? std::min<std::uint64_t>(out->low, ph.p_vaddr) : ph.p_vaddr;
    out->high = std::max<std::uint64_t>(out->high, std::uint64_t(ph.p_vaddr) + ph.p_memsz);
    any_load = true;
    if ((ph.p_flags & PF_X) && out->exec_memsz == 0) out->exec_vaddr = ph.p_vaddr, out->exec_memsz = ph.p_memsz;
  }
  if (!any_load || out->exec_memsz == 0) return nullptr;
  for (const Phdr &ph : table_at<Phdr>(file, eh.e_phoff, eh.e_phnum))
    if (ph.p_type == PT_NOTE && out->build_id.empty())
      out->build_id = build_id_in<Nhdr>(table_at<unsigned char>(file, ph.p_offset, ph.p_filesz));
  auto sections = table_at<Shdr>(file, eh.e_shoff, eh.e_shnum);
  // The full symbol table where the file kept it, else the dynamic one.
  const Shdr *symtab = nullptr;
  for (const Shdr &sh : sections)
    if (sh.sh_type == SHT_SYMTAB || (sh.sh_type == SHT_DYNSYM && !symtab)) symtab = &sh;
  if (!symtab || symtab->sh_link >= sections.size()) return out;
  out->full_symbols = symtab->sh_type == SHT_SYMTAB;
  const Shdr &strtab = sections[symtab->sh_link];
  auto strings = table_at<char>(file, strtab.sh_offset, strtab.sh_size);
  for (const Sym &s : table_at<Sym>(file, symtab->sh_offset, symtab->sh_size / sizeof(Sym))) {
    unsigned type = Type(s.st_info);
    if ((!is_object(type) && !is_function(type)) || s.st_shndx == SHN_UNDEF || s.st_size == 0) continue;
    if (s.st_name >= strings.size()) continue;
    const char *name = strings.data() + s.st_name;
    std::size_t length = strnlen(name, strings.size() - s.st_name);
    if (length == 0) continue;
    (is_function(type) ? out->functions : out->symbols).push_back({s.st_value, s.st_size, std::string(name, length)});
  }
  sort_by_value(out->symbols);
  sort_by_value(out->functions);
  return out;
}

unsigned char type32(unsigned char info) { return ELF32_ST_TYPE(info); }
unsigned char type64(unsigned char info) { return ELF64_ST_TYPE(info); }

// A file changed after the collection began is another build than the one that ran.
bool modified_since(const std::string &path, double seconds)
{
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return true;
  return double(st.st_mtim.tv_sec) + double(st.st_mtim.tv_nsec) * 1e-9 > seconds;
}

} // namespace

std::string ElfObjects::name_at(std::uint64_t address) const
{
  const Symbol *s = holder(symbols, address);
  if (!s) return {};
  return address == s->value ? s->name : s->name + "+" + std::to_string(address - s->value);
}

const ElfObjects::Symbol *ElfObjects::function_at(std::uint64_t address) const { return holder(functions, address); }

std::unique_ptr<ElfObjects> read_elf_objects(const std::string &path)
{
  std::vector<unsigned char> bytes = read_file(path);
  if (bytes.size() < EI_NIDENT || std::memcmp(bytes.data(), ELFMAG, SELFMAG) != 0) return nullptr;
  if (bytes[EI_DATA] != ELFDATA2LSB) return nullptr;
  if (bytes[EI_CLASS] == ELFCLASS32) return read_class<Elf32_Ehdr, Elf32_Phdr, Elf32_Shdr, Elf32_Sym, Elf32_Nhdr, type32>(bytes);
  if (bytes[EI_CLASS] == ELFCLASS64) return read_class<Elf64_Ehdr, Elf64_Phdr, Elf64_Shdr, Elf64_Sym, Elf64_Nhdr, type64>(bytes);
  return nullptr;
}

std::unique_ptr<ElfObjects> read_module_symbols(const std::string &path)
{
  std::unique_ptr<ElfObjects> elf = read_elf_objects(path);
  if (!elf || elf->full_symbols || elf->build_id.size() < 3) return elf;
  const std::string &id = elf->build_id;
  std::unique_ptr<ElfObjects> debug = read_elf_objects(kDebugFiles + id.substr(0, 2) + "/" + id.substr(2) + ".debug");
  // The debug file of this very build has the same segments: its symbols are at the same addresses.
  if (debug && debug->full_symbols && debug->exec_vaddr == elf->exec_vaddr && debug->exec_memsz == elf->exec_memsz) {
    elf->functions = std::move(debug->functions);
    elf->symbols = std::move(debug->symbols);
    elf->full_symbols = true;
  }
  return elf;
}

void ModuleSymbols::add_module(std::uint64_t start, std::uint64_t end, std::string path)
{
  if (path.empty() || end <= start) return;
  Module &m = modules_[start];
  if (m.path == path && m.end == end) return;
  m = Module{start, end, std::move(path)};
}

const ModuleSymbols::Module *ModuleSymbols::load(Module &m)
{
  if (m.read) return m.objects ? &m : nullptr;
  m.read = true;
  auto cached = files_.find(m.path);
  if (cached == files_.end()) cached = files_.emplace(m.path, read_module_symbols(m.path)).first;
  const ElfObjects *elf = cached->second.get();
  if (!elf) return nullptr;
  // The code range the trace saw must be the file's executable segment, page by page; another
  // file now at that path would give wrong names.
  std::uint64_t first = elf->exec_vaddr & ~(kPage - 1);
  std::uint64_t last = (elf->exec_vaddr + elf->exec_memsz + kPage - 1) & ~(kPage - 1);
  if (last - first != m.end - m.start) return nullptr;
  if (recorded_at_ && modified_since(m.path, recorded_at_)) return nullptr;
  m.bias = m.start - first;
  m.objects = cached->second;
  return &m;
}

CodePlace ModuleSymbols::code_at(std::uint64_t address)
{
  auto above = modules_.upper_bound(address);
  if (above == modules_.begin()) return {};
  Module &m = std::prev(above)->second;
  if (address >= m.end) return {};
  CodePlace place{m.path, address - m.start};
  if (const Module *trusted = load(m)) {
    place.linked = address - trusted->bias;
    place.elf = trusted->objects.get();
  }
  return place;
}

std::string ModuleSymbols::name_of(std::uint64_t address)
{
  // A module's data lies above its code and below the next module's code.
  auto above = modules_.upper_bound(address);
  if (above == modules_.begin()) return {};
  const Module *m = load(std::prev(above)->second);
  if (!m) return {};
  std::uint64_t linked = address - m->bias;
  if (linked < m->objects->low || linked >= m->objects->high) return {};
  return m->objects->name_at(linked);
}

} // namespace vorx::report
