// i386: what kind of program the engine can live in.
#pragma once

#include <elf.h>

namespace kel::arch {
constexpr int kElfClass = 32;            // as ElfModel::elf_class
constexpr unsigned char kElfClassIdent = ELFCLASS32;
constexpr unsigned short kElfMachine = EM_386;
constexpr const char* kArchitectureName = "32-bit x86";
}  // namespace kel::arch
