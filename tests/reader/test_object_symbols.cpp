// Naming objects by the data symbols of the modules a process had mapped. The module here is this test
// program itself, as it is mapped right now: its code range plays the part of the trace's module record.
#include "object_symbols.hpp"

#include <gtest/gtest.h>
#include <link.h>

#include <cstdint>
#include <fstream>
#include <string>

using namespace vorx::report;

// Objects of the program's own data, with sizes the symbol table keeps.
extern "C" {
__attribute__((used)) int g_symbols_test_array[8];
__attribute__((used)) long long g_symbols_test_word = 5;
}

namespace {

struct CodeRange {
  std::uint64_t start = 0, end = 0;
};

// The executable's code segment as mapped, page-rounded like the collector's module records.
CodeRange own_code_range()
{
  CodeRange range;
  dl_iterate_phdr(
      [](dl_phdr_info *info, size_t, void *data) {
        if (info->dlpi_name && info->dlpi_name[0]) return 0; // the first entry without a name is the program
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const auto &ph = info->dlpi_phdr[i];
          if (ph.p_type != PT_LOAD || !(ph.p_flags & PF_X)) continue;
          auto *r = static_cast<CodeRange *>(data);
          r->start = (info->dlpi_addr + ph.p_vaddr) & ~std::uint64_t(0xFFF);
          r->end = (info->dlpi_addr + ph.p_vaddr + ph.p_memsz + 0xFFF) & ~std::uint64_t(0xFFF);
          return 1;
        }
        return 0;
      },
      &range);
  return range;
}

std::uint64_t address_of(const void *p) { return reinterpret_cast<std::uintptr_t>(p); }

TEST(ObjectSymbols, GlobalsOfAMappedModuleAreNamedWithTheirOffset)
{
  CodeRange code = own_code_range();
  ASSERT_NE(code.start, 0u);
  ModuleSymbols modules;
  modules.add_module(code.start, code.end, "/proc/self/exe");
  EXPECT_EQ(modules.name_of(address_of(&g_symbols_test_array[0])), "g_symbols_test_array");
  EXPECT_EQ(modules.name_of(address_of(&g_symbols_test_array[3])), "g_symbols_test_array+12");
  EXPECT_EQ(modules.name_of(address_of(&g_symbols_test_word) + 4), "g_symbols_test_word+4");
  int local = 0;
  EXPECT_EQ(modules.name_of(address_of(&local)), "") << "a stack address";
  EXPECT_EQ(modules.name_of(code.start - 1), "") << "below every module";
}

TEST(ObjectSymbols, AFileThatIsNotTheMappedOneNamesNothing)
{
  CodeRange code = own_code_range();
  ModuleSymbols modules;
  modules.add_module(code.start, code.end + 0x1000, "/proc/self/exe"); // another code size: another file
  EXPECT_EQ(modules.name_of(address_of(&g_symbols_test_array[0])), "");

  ModuleSymbols missing;
  missing.add_module(code.start, code.end, "/nonexistent/module.so");
  EXPECT_EQ(missing.name_of(address_of(&g_symbols_test_array[0])), "");

  ModuleSymbols not_elf;
  not_elf.add_module(code.start, code.end, "/dev/null");
  EXPECT_EQ(not_elf.name_of(address_of(&g_symbols_test_array[0])), "");
}

TEST(ObjectSymbols, ElfObjectsOfEitherClassAreRead)
{
  auto own = read_elf_objects("/proc/self/exe");
  ASSERT_NE(own, nullptr);
  EXPECT_GT(own->exec_memsz, 0u);
  EXPECT_LE(own->low, own->exec_vaddr);
  EXPECT_GE(own->high, own->exec_vaddr + own->exec_memsz);
  // The host's tools are of the other class when this program is 32-bit, and of this one otherwise.
  for (const char *path : {"/bin/sh", "/usr/lib/i386-linux-gnu/libc.so.6"}) {
    std::ifstream probe(path);
    if (!probe) continue;
    EXPECT_NE(read_elf_objects(path), nullptr) << path;
  }
}

} // namespace
