#include "sample_profile.hpp"

#include "source_lines.hpp"

#include <algorithm>
#include <cstdio>

namespace vorx::report {
namespace {

std::uint64_t num(const Record &r, std::string_view name)
{
  const Field *f = r.find(name);
  return f && f->kind == Field::Kind::Num ? f->num : 0;
}

std::string hex(std::uint64_t v)
{
  char b[24];
  std::snprintf(b, sizeof b, "0x%llx", static_cast<unsigned long long>(v));
  return b;
}

std::string base_name(std::string_view path)
{
  std::size_t slash = path.find_last_of('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// Names the addresses of one process: each function once, with the line of its entry.
class FunctionNamer {
public:
  FunctionNamer(ModuleSymbols *modules, ProcessProfile &out) : modules_(modules), out_(out) {}

  std::uint32_t function_of(std::uint32_t address)
  {
    CodePlace place = modules_ ? modules_->code_at(address) : CodePlace{};
    if (place.path.empty()) return intern({}, hex(address), nullptr, 0);
    std::string module = base_name(place.path);
    const ElfObjects::Symbol *symbol = place.elf ? place.elf->function_at(place.linked) : nullptr;
    if (!symbol) return intern(module, module + "+" + hex(place.module_offset), nullptr, 0);
    return intern(module, symbol->name, &place, symbol->value);
  }

private:
  std::uint32_t intern(const std::string &module, std::string name, const CodePlace *place, std::uint64_t entry)
  {
    auto [it, fresh] = ids_.try_emplace({module, name}, std::uint32_t(out_.functions.size()));
    if (!fresh) return it->second;
    ProfileFunction f{std::move(name), module, {}, 0};
    if (place)
      if (auto line = lines_of(place->path).at(entry)) f.file = std::move(line->file), f.line = line->line;
    out_.functions.push_back(std::move(f));
    return it->second;
  }

  SourceLines &lines_of(std::string_view path)
  {
    auto it = lines_.find(path);
    if (it == lines_.end()) it = lines_.emplace(std::string(path), std::make_unique<SourceLines>(std::string(path))).first;
    return *it->second;
  }

  ModuleSymbols *modules_;
  ProcessProfile &out_;
  std::map<std::pair<std::string, std::string>, std::uint32_t> ids_;
  std::map<std::string, std::unique_ptr<SourceLines>, std::less<>> lines_;
};

} // namespace

std::vector<std::uint32_t> ProcessProfile::stack_of(std::uint32_t node) const
{
  std::vector<std::uint32_t> out;
  for (; node != 0 && node < nodes.size(); node = nodes[node].parent) out.push_back(nodes[node].function);
  return out;
}

std::uint32_t SampleProfile::AddressTree::child(std::uint32_t parent, std::uint32_t address)
{
  std::uint64_t key = std::uint64_t(parent) << 32 | address;
  auto [it, fresh] = children.try_emplace(key, std::uint32_t(nodes.size()));
  if (fresh) nodes.emplace_back(parent, address);
  return it->second;
}

void SampleProfile::commit(std::uint32_t pid, std::uint32_t tid, const Pending &p, const std::vector<std::uint32_t> &returns)
{
  AddressTree &tree = trees_[pid];
  // From the outermost caller inward; a return address stands for the call just before it.
  std::uint32_t node = 0;
  for (std::size_t i = returns.size(); i-- > 0;)
    if (returns[i] != 0) node = tree.child(node, returns[i] - 1);
  node = tree.child(node, p.address);
  samples_[{pid, tid}].push_back({p.time, p.period, node});
  counts_.samples++;
}

void SampleProfile::commit_pending(std::uint32_t pid, std::uint32_t tid)
{
  auto it = pending_.find({pid, tid});
  if (it == pending_.end()) return;
  frames_.clear();
  commit(pid, tid, it->second, frames_);
  pending_.erase(it);
}

void SampleProfile::on_record(std::uint32_t pid, const Record &r)
{
  std::string_view name = r.name();
  if (name == "cpu_sample") {
    std::uint32_t tid = std::uint32_t(num(r, "tid"));
    commit_pending(pid, tid);
    pending_[{pid, tid}] = {num(r, "timestamp"), num(r, "period"), std::uint32_t(num(r, "last"))};
    return;
  }
  bool online = name == "online_stack", offline = name == "offline_stack";
  if (!online && !offline) {
    if (pending_.empty()) return;
    if (const Field *tid = r.find("tid"); tid && tid->kind == Field::Kind::Num) commit_pending(pid, std::uint32_t(tid->num));
    return;
  }
  std::uint32_t tid = std::uint32_t(num(r, "tid"));
  auto it = pending_.find({pid, tid});
  if (it == pending_.end()) {
    counts_.other_stacks++;
    return;
  }
  frames_.clear();
  if (offline) {
    counts_.offline_stacks++;
  } else if (const Field *packed = r.find("packed"); !packed || !unpack_online_stack(packed->bytes, frames_)) {
    counts_.broken_stacks++;
    frames_.clear();
  } else {
    // A walk that begins at the interrupted instruction repeats it.
    if (!frames_.empty() && frames_.front() == it->second.address) frames_.erase(frames_.begin());
    counts_.with_stack++;
  }
  commit(pid, tid, it->second, frames_);
  pending_.erase(it);
}

void SampleProfile::name_process(std::uint32_t pid, AddressTree &tree, ModuleSymbols *modules)
{
  ProcessProfile &out = processes_[pid];
  out.nodes.assign(1, {});
  FunctionNamer namer(modules, out);
  std::map<std::uint32_t, std::uint32_t> functions; // address -> function
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint32_t> children;
  // A node always comes after its parent: one pass maps every address node to its function node.
  std::vector<std::uint32_t> function_node(tree.nodes.size(), 0);
  for (std::size_t i = 1; i < tree.nodes.size(); i++) {
    auto [parent, address] = tree.nodes[i];
    auto f = functions.find(address);
    if (f == functions.end()) f = functions.emplace(address, namer.function_of(address)).first;
    std::uint32_t up = function_node[parent];
    auto [c, fresh] = children.try_emplace({up, f->second}, std::uint32_t(out.nodes.size()));
    if (fresh) out.nodes.push_back({up, f->second});
    function_node[i] = c->second;
  }
  for (auto &[key, samples] : samples_)
    if (key.first == pid)
      for (ProfileSample &s : samples) s.node = function_node[s.node];
}

void SampleProfile::finish(std::map<std::uint32_t, ModuleSymbols> &modules)
{
  while (!pending_.empty()) commit_pending(pending_.begin()->first.first, pending_.begin()->first.second);
  for (auto &[pid, tree] : trees_) {
    auto m = modules.find(pid);
    name_process(pid, tree, m != modules.end() ? &m->second : nullptr);
  }
  trees_.clear();
}

} // namespace vorx::report
