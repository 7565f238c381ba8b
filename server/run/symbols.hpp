// Where the symbols of a binary are: its separate debug file when one is
// installed (by build id, then by path), else the binary itself. This is the
// server's answer to "symfile".
#pragma once

#include <optional>
#include <string>

namespace vorx::server {

// The GNU build id of an ELF file (32 or 64 bits) as lowercase hex.
std::optional<std::string> elf_build_id(const std::string &path);

// debug_root is where debug files are installed ("/usr/lib/debug").
std::string symbol_file_for(const std::string &path, const std::string &debug_root = "/usr/lib/debug");

}  // namespace vorx::server
