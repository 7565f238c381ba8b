// File helpers of the tool's entry: reading the tool's own ELF layout for the
// debugger's load command, and keeping .gdbinit in the pause mode.
#include <elf.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "tool_entry.h"
#include "vorx_init.h"
#include "vorx_log.h"

namespace {

// Reads exactly `size` bytes at `offset`; false on a short read.
bool read_at(int fd, off_t offset, void *buffer, size_t size) {
  return pread(fd, buffer, size, offset) == static_cast<ssize_t>(size);
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  FileDescriptor(const FileDescriptor &) = delete;
  FileDescriptor &operator=(const FileDescriptor &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

uintptr_t first_load_address(int fd, const Elf32_Ehdr &header) {
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf32_Phdr phdr;
    if (!read_at(fd, header.e_phoff + i * sizeof phdr, &phdr, sizeof phdr)) return 0;
    if (phdr.p_type == PT_LOAD) return phdr.p_vaddr;
  }
  return 0;
}

}  // namespace

bool vorx_read_elf_sections(const char *path, ElfSections *out) {
  *out = ElfSections{};
  FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) return false;
  Elf32_Ehdr header;
  if (!read_at(file.get(), 0, &header, sizeof header)) return false;
  if (memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS32) return false;
  if (header.e_shentsize != sizeof(Elf32_Shdr) || header.e_shstrndx >= header.e_shnum) return false;

  std::vector<Elf32_Shdr> sections(header.e_shnum);
  if (!read_at(file.get(), header.e_shoff, sections.data(), sections.size() * sizeof(Elf32_Shdr))) return false;
  const Elf32_Shdr &names_header = sections[header.e_shstrndx];
  std::vector<char> names(names_header.sh_size + 1, '\0');
  if (!read_at(file.get(), names_header.sh_offset, names.data(), names_header.sh_size)) return false;

  out->link_address = first_load_address(file.get(), header);
  for (const Elf32_Shdr &section : sections) {
    if (section.sh_name >= names_header.sh_size) continue;
    const char *name = names.data() + section.sh_name;
    if (strcmp(name, ".text") == 0) out->text = section.sh_addr;
    else if (strcmp(name, ".data") == 0) out->data = section.sh_addr;
    else if (strcmp(name, ".bss") == 0) out->bss = section.sh_addr;
  }
  return true;
}

GdbinitResult vorx_update_gdbinit(const char *path, pid_t pid, const char *load_command) {
  constexpr size_t header_length = sizeof kGdbinitHeader - 1;
  static_assert(header_length == 67);
  if (FILE *existing = fopen(path, "r")) {
    char head[header_length];
    size_t got = fread(head, 1, header_length, existing);
    fclose(existing);
    if (got != header_length || memcmp(head, kGdbinitHeader, header_length) != 0)
      return GdbinitResult::foreign_file_kept;
  }
  FILE *file = fopen(path, "w");
  if (!file) return GdbinitResult::cannot_write;
  fprintf(file, "%s# Actual for PID: %d\n\n%s\n", kGdbinitHeader, static_cast<int>(pid), load_command);
  fclose(file);
  return GdbinitResult::written;
}

void vorx_tool_assert_init_type_at_start(uint32_t init_type) {
  switch (init_type) {
    case vorx_init_run:
    case vorx_init_attach:
    case vorx_init_config_failed:
    case vorx_init_proc_ignored:
    case vorx_init_attach_failed:
      return;
    default:
      fprintf(stderr, "vorxtool: unexpected init type %u at start\n", init_type);
      __builtin_trap();
  }
}

void vorx_tool_trace(const char *format, ...) {
  va_list args;
  va_start(args, format);
  vorx_log_v(vorx_log_level_trace, format, args);
  va_end(args);
}
