// ELF reading for both classes. The layout types differ between ELFCLASS32 and ELFCLASS64, the logic does not,
// so the reader is one template instantiated twice.
#include "elf_model.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace kel {
namespace {

struct Elf32Layout {
  using Ehdr = Elf32_Ehdr;
  using Phdr = Elf32_Phdr;
  using Shdr = Elf32_Shdr;
  using Sym = Elf32_Sym;
  using Dyn = Elf32_Dyn;
  static constexpr int kClass = 32;
  static uint8_t sym_type(const Sym& s) { return ELF32_ST_TYPE(s.st_info); }
  static uint8_t sym_bind(const Sym& s) { return ELF32_ST_BIND(s.st_info); }
};

struct Elf64Layout {
  using Ehdr = Elf64_Ehdr;
  using Phdr = Elf64_Phdr;
  using Shdr = Elf64_Shdr;
  using Sym = Elf64_Sym;
  using Dyn = Elf64_Dyn;
  static constexpr int kClass = 64;
  static uint8_t sym_type(const Sym& s) { return ELF64_ST_TYPE(s.st_info); }
  static uint8_t sym_bind(const Sym& s) { return ELF64_ST_BIND(s.st_info); }
};

template <class L>
class ElfReader {
 public:
  ElfReader(std::span<const uint8_t> bytes, ElfSource source, ElfDetail detail)
      : bytes_(bytes), source_(source), detail_(detail) {}

  bool read(ElfModel* model, std::string* error) {
    if (!read_headers(model, error)) return false;
    read_dynamic(model);
    read_versions();
    // Entries of .symtab that .dynsym already gave are dropped; without a .symtab there is nothing to match.
    bool whole = detail_ == ElfDetail::all;
    remember_dynamic_ = whole && section_named(".symtab", *model) != nullptr;
    read_symbols(".dynsym", true, model);
    if (whole) read_symbols(".symtab", false, model);
    return true;
  }

  // The headers into `model` and whether .dynsym defines a function `name`; no symbol is copied.
  bool find_function_export(std::string_view name, ElfModel* model, bool* found, std::string* error) {
    if (!read_headers(model, error)) return false;
    *found = false;
    const auto* table = section_named(".dynsym", *model);
    if (!table || table->sh_link >= shnum_ || table->sh_entsize != sizeof(typename L::Sym)) return true;
    size_t count = table->sh_size / sizeof(typename L::Sym);
    const auto* syms = at<typename L::Sym>(contents_offset(*table), count);
    if (!syms) return true;
    for (size_t i = 1; i < count && !*found; ++i) {
      const auto& s = syms[i];
      *found = s.st_shndx != SHN_UNDEF && L::sym_type(s) == STT_FUNC &&
               string_at(&shdrs_[table->sh_link], s.st_name) == name;
    }
    return true;
  }

 private:
  // The file header, the program headers and the sections.
  bool read_headers(ElfModel* model, std::string* error) {
    if (bytes_.size() < sizeof(typename L::Ehdr)) return fail(error, "file too short for an ELF header");
    const auto* eh = at<typename L::Ehdr>(0);
    model->elf_class = L::kClass;
    model->machine = eh->e_machine;
    model->type = eh->e_type;
    model->entry = eh->e_entry;
    if (!read_program_headers(*eh, model)) return fail(error, "program headers out of bounds");
    if (!read_sections(*eh, model)) return fail(error, "section headers out of bounds");
    return true;
  }

  template <class T>
  const T* at(uint64_t offset, uint64_t count = 1) const {
    if (offset > bytes_.size() || count * sizeof(T) > bytes_.size() - offset) return nullptr;
    return reinterpret_cast<const T*>(bytes_.data() + offset);
  }
  static bool fail(std::string* error, const char* what) {
    if (error) *error = what;
    return false;
  }
  // Where a section's contents are in `bytes_`.
  uint64_t contents_offset(const typename L::Shdr& sh) const {
    return source_ == ElfSource::file ? sh.sh_offset : sh.sh_addr - link_base_;
  }
  // A string of a string table, empty when it is not terminated inside the table. The length comes from the
  // bounded search for its end, so callers need not measure it again.
  std::string_view string_at(const typename L::Shdr* table, uint64_t offset) const {
    if (!table || offset >= table->sh_size) return {};
    const char* base = at<char>(contents_offset(*table), table->sh_size);
    if (!base) return {};
    const char* s = base + offset;
    const auto* end = static_cast<const char*>(memchr(s, 0, table->sh_size - offset));
    return end ? std::string_view(s, end - s) : std::string_view();
  }

  bool read_program_headers(const typename L::Ehdr& eh, ElfModel* model) {
    const auto* ph = at<typename L::Phdr>(eh.e_phoff, eh.e_phnum);
    if (eh.e_phnum && !ph) return false;
    bool have_base = false;
    for (unsigned i = 0; i < eh.e_phnum; ++i) {
      if (ph[i].p_type == PT_LOAD) {
        model->loads.push_back({ph[i].p_vaddr, ph[i].p_memsz, ph[i].p_flags});
        if (!have_base) link_base_ = ph[i].p_vaddr - ph[i].p_offset, have_base = true;
      } else if (ph[i].p_type == PT_INTERP) {
        model->has_interpreter = true;
      } else if (ph[i].p_type == PT_DYNAMIC) {
        model->has_dynamic = true;
        dynamic_phdr_ = &ph[i];
      }
    }
    return true;
  }

  bool read_sections(const typename L::Ehdr& eh, ElfModel* model) {
    if (eh.e_shnum == 0) return true;
    if (source_ == ElfSource::memory && eh.e_shoff + eh.e_shnum * sizeof(typename L::Shdr) > bytes_.size())
      return true;  // an image in memory need not carry its section headers
    shdrs_ = at<typename L::Shdr>(eh.e_shoff, eh.e_shnum);
    if (!shdrs_) return false;
    shnum_ = eh.e_shnum;
    const typename L::Shdr* names = eh.e_shstrndx < shnum_ ? &shdrs_[eh.e_shstrndx] : nullptr;
    model->sections.reserve(model->sections.size() + shnum_);
    for (unsigned i = 0; i < shnum_; ++i) {
      const auto& sh = shdrs_[i];
      ElfSection& s = model->sections.emplace_back();
      s.name = string_at(names, sh.sh_name);
      s.address = sh.sh_addr;
      s.size = sh.sh_size;
      s.offset = sh.sh_offset;
      s.type = sh.sh_type;
      s.allocated = sh.sh_flags & SHF_ALLOC;
      s.executable = sh.sh_flags & SHF_EXECINSTR;
      s.writable = sh.sh_flags & SHF_WRITE;
    }
    return true;
  }

  const typename L::Shdr* section_named(const char* name, const ElfModel& model) const {
    for (unsigned i = 0; i < shnum_; ++i)
      if (model.sections[i].name == name) return &shdrs_[i];
    return nullptr;
  }
  const typename L::Shdr* section_of_type(uint32_t type) const {
    for (unsigned i = 0; i < shnum_; ++i)
      if (shdrs_[i].sh_type == type) return &shdrs_[i];
    return nullptr;
  }

  void read_dynamic(ElfModel* model) {
    if (!dynamic_phdr_) return;
    uint64_t offset = source_ == ElfSource::file ? dynamic_phdr_->p_offset : dynamic_phdr_->p_vaddr - link_base_;
    size_t count = dynamic_phdr_->p_filesz / sizeof(typename L::Dyn);
    const auto* dyn = at<typename L::Dyn>(offset, count);
    if (!dyn) return;
    uint64_t soname = 0;
    bool have_soname = false;
    for (size_t i = 0; i < count && dyn[i].d_tag != DT_NULL; ++i) {
      switch (dyn[i].d_tag) {
        case DT_INIT: model->init = dyn[i].d_un.d_ptr; break;
        case DT_FINI: model->fini = dyn[i].d_un.d_ptr; break;
        case DT_SONAME: soname = dyn[i].d_un.d_val, have_soname = true; break;
        default: break;
      }
    }
    if (have_soname) model->soname = string_at(dynstr(), soname);
  }
  const typename L::Shdr* dynstr() const {
    const auto* dynsym = section_of_type(SHT_DYNSYM);
    if (!dynsym || dynsym->sh_link >= shnum_) return nullptr;
    return &shdrs_[dynsym->sh_link];
  }

  // Version definitions: index -> the suffixes it gives names, from .gnu.version_d. Indices 0 and 1 (local, global) have no name,
  // nor does the definition flagged as the file's own base.
  void read_versions() {
    const auto* verdef_sh = section_of_type(SHT_GNU_verdef);
    versym_sh_ = section_of_type(SHT_GNU_versym);
    if (!verdef_sh || verdef_sh->sh_link >= shnum_) return;
    const auto* strings = &shdrs_[verdef_sh->sh_link];
    uint64_t offset = contents_offset(*verdef_sh);
    uint64_t end = offset + verdef_sh->sh_size;
    for (unsigned n = 0; n < verdef_sh->sh_info && offset < end; ++n) {
      const auto* vd = at<Elf32_Verdef>(offset);  // same layout in both classes
      if (!vd) return;
      if (!(vd->vd_flags & VER_FLG_BASE) && vd->vd_cnt > 0) {
        const auto* aux = at<Elf32_Verdaux>(offset + vd->vd_aux);
        if (aux) {
          // Kept as the two suffixes a symbol name takes, so that a name is built in one allocation.
          unsigned index = vd->vd_ndx & 0x7fff;
          if (index >= versions_.size()) versions_.resize(index + 1);
          versions_[index].known = true;
          versions_[index].hidden_suffix = std::string("@").append(string_at(strings, aux->vda_name));
          versions_[index].default_suffix = "@" + versions_[index].hidden_suffix;
        }
      }
      if (vd->vd_next == 0) break;
      offset += vd->vd_next;
    }
  }

  void read_symbols(const char* table_name, bool dynamic, ElfModel* model) {
    const auto* table = section_named(table_name, *model);
    if (!table || table->sh_link >= shnum_ || table->sh_entsize != sizeof(typename L::Sym)) return;
    if (source_ == ElfSource::memory && !(table->sh_flags & SHF_ALLOC)) return;
    const auto* strings = &shdrs_[table->sh_link];
    size_t count = table->sh_size / sizeof(typename L::Sym);
    const auto* syms = at<typename L::Sym>(contents_offset(*table), count);
    if (!syms) return;
    const uint16_t* versyms = nullptr;
    if (dynamic && versym_sh_) versyms = at<uint16_t>(contents_offset(*versym_sh_), count);
    model->symbols.reserve(model->symbols.size() + count);
    if (dynamic && remember_dynamic_) seen_.reserve(count);
    for (size_t i = 1; i < count; ++i) {
      const auto& s = syms[i];
      uint8_t type = L::sym_type(s);
      if (s.st_shndx == SHN_UNDEF || type == STT_SECTION || type == STT_FILE) continue;
      std::string_view name = string_at(strings, s.st_name);
      if (name.empty()) continue;
      if (dynamic) {
        // The plain name is the string table's up to any '@': the version comes from .gnu.version.
        if (remember_dynamic_) seen_.insert({name.substr(0, name.find('@')), static_cast<uint64_t>(s.st_value)});
      } else if (!seen_.empty() && seen_.count({name, static_cast<uint64_t>(s.st_value)})) {
        continue;  // the .dynsym entry already says it, with its version
      }
      ElfSymbol& sym = model->symbols.emplace_back();
      const Version* version = versyms ? version_of(versyms[i]) : nullptr;
      if (version) {
        bool hidden = versyms[i] & 0x8000;
        const std::string& suffix = hidden ? version->hidden_suffix : version->default_suffix;
        sym.name.reserve(name.size() + suffix.size());
        sym.name.append(name).append(suffix);
        sym.default_version = !hidden;
      } else {
        sym.name = std::string(name);
      }
      sym.value = s.st_value;
      sym.size = s.st_size;
      sym.index = static_cast<uint32_t>(i);
      sym.section = s.st_shndx;
      sym.type = type;
      sym.binding = L::sym_bind(s);
      sym.dynamic = dynamic;
    }
  }

  struct Version {
    bool known = false;
    std::string hidden_suffix;   // "@VER"
    std::string default_suffix;  // "@@VER"
  };
  const Version* version_of(uint16_t versym) const {
    unsigned index = versym & 0x7fff;
    return index < versions_.size() && versions_[index].known ? &versions_[index] : nullptr;
  }

  // (plain name, value) of the .dynsym entries; the names point into the mapped string table.
  struct SeenHash {
    size_t operator()(const std::pair<std::string_view, uint64_t>& k) const {
      return std::hash<std::string_view>()(k.first) ^ (std::hash<uint64_t>()(k.second) * 0x9e3779b9u);
    }
  };

  std::span<const uint8_t> bytes_;
  ElfSource source_;
  ElfDetail detail_;
  uint64_t link_base_ = 0;
  const typename L::Phdr* dynamic_phdr_ = nullptr;
  const typename L::Shdr* shdrs_ = nullptr;
  unsigned shnum_ = 0;
  const typename L::Shdr* versym_sh_ = nullptr;
  std::vector<Version> versions_;  // by version index
  bool remember_dynamic_ = false;
  std::unordered_set<std::pair<std::string_view, uint64_t>, SeenHash> seen_;
};

}  // namespace

bool parse_elf(std::span<const uint8_t> bytes, ElfSource source, ElfModel* model, std::string* error,
               ElfDetail detail) {
  if (bytes.size() < EI_NIDENT || memcmp(bytes.data(), ELFMAG, SELFMAG) != 0) {
    if (error) *error = "not an ELF file";
    return false;
  }
  switch (bytes[EI_CLASS]) {
    case ELFCLASS32: return ElfReader<Elf32Layout>(bytes, source, detail).read(model, error);
    case ELFCLASS64: return ElfReader<Elf64Layout>(bytes, source, detail).read(model, error);
    default:
      if (error) *error = "unknown ELF class";
      return false;
  }
}

namespace {

// Maps the file at `path` for reading and hands its bytes to `use`; false with `error` set when it cannot.
template <class Use>
bool with_mapped_file(const std::string& path, std::string* error, Use use) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (error) *error = std::string("cannot open: ") + strerror(errno);
    return false;
  }
  struct stat st {};
  if (fstat(fd, &st) != 0 || st.st_size == 0) {
    close(fd);
    if (error) *error = "empty or unreadable file";
    return false;
  }
  void* map = mmap(nullptr, st.st_size, PROT_READ, MAP_PRIVATE, fd, 0);
  close(fd);
  if (map == MAP_FAILED) {
    if (error) *error = std::string("cannot map: ") + strerror(errno);
    return false;
  }
  bool ok = use(std::span<const uint8_t>(static_cast<const uint8_t*>(map), static_cast<size_t>(st.st_size)));
  munmap(map, st.st_size);
  return ok;
}

}  // namespace

bool read_elf_file(const std::string& path, ElfModel* model, std::string* error, ElfDetail detail) {
  return with_mapped_file(path, error, [&](std::span<const uint8_t> bytes) {
    return parse_elf(bytes, ElfSource::file, model, error, detail);
  });
}

bool find_function_export(const std::string& path, std::string_view name, ElfModel* model, bool* found,
                          std::string* error) {
  return with_mapped_file(path, error, [&](std::span<const uint8_t> bytes) {
    if (bytes.size() < EI_NIDENT || memcmp(bytes.data(), ELFMAG, SELFMAG) != 0) {
      if (error) *error = "not an ELF file";
      return false;
    }
    switch (bytes[EI_CLASS]) {
      case ELFCLASS32: return ElfReader<Elf32Layout>(bytes, ElfSource::file, ElfDetail::dynamic_symbols)
                                  .find_function_export(name, model, found, error);
      case ELFCLASS64: return ElfReader<Elf64Layout>(bytes, ElfSource::file, ElfDetail::dynamic_symbols)
                                  .find_function_export(name, model, found, error);
      default:
        if (error) *error = "unknown ELF class";
        return false;
    }
  });
}

}  // namespace kel
