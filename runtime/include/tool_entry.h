// Helpers of the tool's entry that need nothing of the engine, kept apart so
// that they can be tested in a plain program.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// Link-time addresses of the sections a debugger needs to place the tool's
// symbols; `link_address` is the address of the first PT_LOAD segment.
struct ElfSections {
  uintptr_t link_address;
  uintptr_t text;
  uintptr_t data;
  uintptr_t bss;
};

// Reads the 32-bit ELF file at `path`: header, program headers, section headers
// and the section-name table. False when the file is not a readable ELF32 file.
bool vorx_read_elf_sections(const char *path, ElfSections *out);

// The header line that marks a .gdbinit as ours; anything else is the user's.
inline constexpr char kGdbinitHeader[] = "# Automatically generated file by vorxtool for debugging purposes.\n";

enum class GdbinitResult { written, foreign_file_kept, cannot_write };

// Writes (or rewrites) `path` with the header, the process id and the debugger
// command, unless the file exists and starts with something other than our header.
GdbinitResult vorx_update_gdbinit(const char *path, pid_t pid, const char *load_command);

// A TRACE-level line of the tool's start-up; goes to the log once it is open.
void vorx_tool_trace(const char *format, ...) __attribute__((format(printf, 1, 2)));

// main() admits run, attach, config_failed, proc_ignored and attach_failed.
void vorx_tool_assert_init_type_at_start(uint32_t init_type);

extern "C" {
void vorx_deepbind_init(int is_attaching);
void vorx_start_notification_service(uint32_t init_type, int pause_seconds);
}
