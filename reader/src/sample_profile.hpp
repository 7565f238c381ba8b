// CPU samples and their call stacks. A sample record is followed on its thread's unit by the stack
// that was walked for it; the two are joined, and the stack is kept as a node of the process's tree
// of stacks, so that a thread sampled a million times in the same few places costs a few nodes and
// 16 bytes a sample. At the end every distinct address is named once, from the modules the process
// had mapped, and the tree of addresses becomes a tree of functions.
#pragma once

#include "object_symbols.hpp"
#include "record_decoder.hpp"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vorx::report {

class SourceLines;

struct ProfileFunction {
  std::string name;   // the symbol, else "module+0xoffset", else the bare address
  std::string module; // the module file's base name; "" when no module holds the code
  std::string file;   // source file of the first address named in it; "" without line information
  int line = 0;
};

struct ProfileSample {
  std::uint64_t time = 0;
  std::uint64_t period = 0; // CPU time the sample stands for, in 100 ns units
  std::uint32_t node = 0;   // after finish(): the innermost node of its function stack
};

struct ProcessProfile {
  struct Node {
    std::uint32_t parent = 0;
    std::uint32_t function = 0; // index into functions
  };
  std::vector<ProfileFunction> functions;
  std::vector<Node> nodes; // nodes[0] is the root above every outermost function
  // Functions from the node outward, innermost first.
  std::vector<std::uint32_t> stack_of(std::uint32_t node) const;
};

using ProfileThreadKey = std::pair<std::uint32_t, std::uint32_t>; // pid, tid

struct ProfileCounts {
  std::uint64_t samples = 0;
  std::uint64_t with_stack = 0;      // samples joined to a walked stack
  std::uint64_t offline_stacks = 0;  // raw stack copies: counted, their samples keep the sampled address only
  std::uint64_t other_stacks = 0;    // stack records that follow no sample (stacks of calls)
  std::uint64_t broken_stacks = 0;   // packed bytes that do not decode
};

class SampleProfile {
public:
  // pid: the process whose file the record came from. Sees every record: any other record of a
  // thread closes the thread's sample without a stack.
  void on_record(std::uint32_t pid, const Record &r);
  // End of input: names the addresses with the processes' modules and builds the function trees.
  void finish(std::map<std::uint32_t, ModuleSymbols> &modules);

  const std::map<std::uint32_t, ProcessProfile> &processes() const { return processes_; }
  const std::map<ProfileThreadKey, std::vector<ProfileSample>> &threads() const { return samples_; }
  const ProfileCounts &counts() const { return counts_; }

private:
  struct Pending {
    std::uint64_t time = 0, period = 0;
    std::uint32_t address = 0;
  };
  // The tree of addresses of one process, while records come: node 0 is the root; a node's address
  // is where the code was (a return address less one: the call, which lies in the caller).
  struct AddressTree {
    std::vector<std::pair<std::uint32_t, std::uint32_t>> nodes{{0, 0}}; // parent, address
    std::unordered_map<std::uint64_t, std::uint32_t> children;
    std::uint32_t child(std::uint32_t parent, std::uint32_t address);
  };
  void commit(std::uint32_t pid, std::uint32_t tid, const Pending &p, const std::vector<std::uint32_t> &returns);
  void commit_pending(std::uint32_t pid, std::uint32_t tid);
  void name_process(std::uint32_t pid, AddressTree &tree, ModuleSymbols *modules);

  std::map<ProfileThreadKey, Pending> pending_;
  std::map<std::uint32_t, AddressTree> trees_;
  std::map<std::uint32_t, ProcessProfile> processes_;
  std::map<ProfileThreadKey, std::vector<ProfileSample>> samples_;
  ProfileCounts counts_;
  std::vector<std::uint32_t> frames_; // scratch
};

} // namespace vorx::report
