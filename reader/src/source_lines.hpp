// Source file and line of code addresses, from a module file's DWARF line tables (or those of its
// separate debug file, found by build-id), read through elfutils' libdw.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct Dwfl;
struct Dwfl_Module;

namespace vorx::report {

struct SourceLine {
  std::string file;
  int line = 0;
};

class SourceLines {
public:
  // Opens nothing yet: a file is read at its first question.
  explicit SourceLines(std::string path) : path_(std::move(path)) {}
  ~SourceLines();
  SourceLines(const SourceLines &) = delete;
  SourceLines &operator=(const SourceLines &) = delete;

  // The line of the link-time address; nullopt without line information for it.
  std::optional<SourceLine> at(std::uint64_t linked);

private:
  bool open();

  struct DwflEnd {
    void operator()(Dwfl *d) const;
  };
  std::string path_;
  bool opened_ = false;
  std::unique_ptr<Dwfl, DwflEnd> dwfl_;
  Dwfl_Module *module_ = nullptr;
  std::int64_t shift_ = 0; // libdw's address of the module's code less the link-time address
};

} // namespace vorx::report
