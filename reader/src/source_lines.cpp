#include "source_lines.hpp"

#include <elfutils/libdwfl.h>

namespace vorx::report {
namespace {

// Debug files are looked for by build-id and next to the file, as debuggers do.
char *g_debuginfo_path = nullptr;
const Dwfl_Callbacks kOffline = {dwfl_build_id_find_elf, dwfl_standard_find_debuginfo, dwfl_offline_section_address,
                                 &g_debuginfo_path};

} // namespace

void SourceLines::DwflEnd::operator()(Dwfl *d) const { dwfl_end(d); }

SourceLines::~SourceLines() = default;

bool SourceLines::open()
{
  if (opened_) return module_ != nullptr;
  opened_ = true;
  dwfl_.reset(dwfl_begin(&kOffline));
  if (!dwfl_) return false;
  // Reported at address 0 plus its own link-time addresses: libdw's addresses are then the
  // file's, whatever kind of file it is.
  module_ = dwfl_report_elf(dwfl_.get(), path_.c_str(), path_.c_str(), -1, 0, false);
  dwfl_report_end(dwfl_.get(), nullptr, nullptr);
  if (!module_) return false;
  Dwarf_Addr bias = 0;
  if (!dwfl_module_getdwarf(module_, &bias)) {
    module_ = nullptr;
    return false;
  }
  shift_ = std::int64_t(bias);
  return true;
}

std::optional<SourceLine> SourceLines::at(std::uint64_t linked)
{
  if (!open()) return std::nullopt;
  Dwfl_Line *line = dwfl_module_getsrc(module_, Dwarf_Addr(std::int64_t(linked) + shift_));
  if (!line) return std::nullopt;
  int number = 0;
  const char *file = dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr);
  if (!file || number <= 0) return std::nullopt;
  return SourceLine{file, number};
}

} // namespace vorx::report
