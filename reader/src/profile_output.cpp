#include "profile_output.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <string>

namespace vorx::report {
namespace {

constexpr double kPeriodHz = 1e7; // a sample's period counts 100 ns units
constexpr double kTreeCut = 0.01; // branches below this share of the samples stay off the terminal

struct Weight {
  std::uint64_t samples = 0, period = 0;
  void add(const ProfileSample &s) { samples++, period += s.period; }
  void add(const Weight &w) { samples += w.samples, period += w.period; }
};

// Samples that end in each node of a process's tree, from the threads that filter lets through.
template <typename Keep>
std::vector<Weight> self_weights(const ActivityTracker &a, std::uint32_t pid, const ProcessProfile &p, Keep keep)
{
  std::vector<Weight> self(p.nodes.size());
  for (const auto &[key, samples] : a.profile().threads())
    if (key.first == pid && keep(key.second))
      for (const ProfileSample &s : samples)
        if (s.node < self.size()) self[s.node].add(s);
  return self;
}

// What passed through each node: its own samples and those of every node below it. A child always
// stands after its parent.
std::vector<Weight> total_weights(const ProcessProfile &p, const std::vector<Weight> &self)
{
  std::vector<Weight> total = self;
  for (std::size_t i = p.nodes.size(); i-- > 1;) total[p.nodes[i].parent].add(total[i]);
  return total;
}

std::string seconds(std::uint64_t period)
{
  char b[32];
  std::snprintf(b, sizeof b, "%.9f", double(period) / kPeriodHz);
  return b;
}

std::string percent(std::uint64_t part, std::uint64_t whole)
{
  char b[16];
  std::snprintf(b, sizeof b, "%.1f", whole ? double(part) * 100 / double(whole) : 0.0);
  return b;
}

std::string source_of(const ProfileFunction &f)
{
  if (f.file.empty()) return {};
  std::size_t slash = f.file.find_last_of('/');
  return (slash == std::string::npos ? f.file : f.file.substr(slash + 1)) + ":" + std::to_string(f.line);
}

// Self and total per function: total counts a sample once however often its stack holds the function.
void add_hot_spots(Table &t, const ProcessProfile &p, const std::vector<Weight> &self, const std::vector<std::string> &lead)
{
  std::vector<Weight> fself(p.functions.size()), ftotal(p.functions.size());
  std::set<std::uint32_t> seen;
  for (std::uint32_t n = 1; n < self.size(); n++) {
    if (!self[n].samples) continue;
    fself[p.nodes[n].function].add(self[n]);
    seen.clear();
    for (std::uint32_t up = n; up != 0; up = p.nodes[up].parent)
      if (seen.insert(p.nodes[up].function).second) ftotal[p.nodes[up].function].add(self[n]);
  }
  std::vector<std::uint32_t> order;
  for (std::uint32_t f = 0; f < p.functions.size(); f++)
    if (ftotal[f].samples) order.push_back(f);
  std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
    return std::tie(fself[a].samples, ftotal[a].samples) > std::tie(fself[b].samples, ftotal[b].samples);
  });
  for (std::uint32_t f : order) {
    std::vector<std::string> row = lead;
    const ProfileFunction &fn = p.functions[f];
    row.insert(row.end(), {fn.name, fn.module, source_of(fn), std::to_string(fself[f].samples), seconds(fself[f].period),
                           std::to_string(ftotal[f].samples), seconds(ftotal[f].period)});
    t.rows.push_back(std::move(row));
  }
}

std::string thread_cell(const ActivityTracker &a, std::uint32_t pid, std::uint32_t tid)
{
  auto it = a.threads().find({pid, tid});
  return it == a.threads().end() || it->second.name.empty() ? std::to_string(tid)
                                                              : std::to_string(tid) + " " + it->second.name;
}

// The children of every node, dearest first.
std::vector<std::vector<std::uint32_t>> children_by_cost(const ProcessProfile &p, const std::vector<Weight> &total)
{
  std::vector<std::vector<std::uint32_t>> children(p.nodes.size());
  for (std::uint32_t n = 1; n < p.nodes.size(); n++) children[p.nodes[n].parent].push_back(n);
  for (auto &c : children)
    std::stable_sort(c.begin(), c.end(), [&](std::uint32_t a, std::uint32_t b) { return total[a].samples > total[b].samples; });
  return children;
}

// Depth-first from the root: visit(node, depth) says whether to go below the node.
template <typename Visit>
void walk_tree(const std::vector<std::vector<std::uint32_t>> &children, Visit visit)
{
  std::vector<std::pair<std::uint32_t, int>> todo;
  for (auto it = children[0].rbegin(); it != children[0].rend(); ++it) todo.push_back({*it, 0});
  while (!todo.empty()) {
    auto [n, depth] = todo.back();
    todo.pop_back();
    if (!visit(n, depth)) continue;
    for (auto it = children[n].rbegin(); it != children[n].rend(); ++it) todo.push_back({*it, depth + 1});
  }
}

} // namespace

std::string function_label(const ProfileFunction &f) { return f.module.empty() ? f.name : f.name + " (" + f.module + ")"; }

std::vector<Table> build_profile_tables(const ActivityTracker &a)
{
  Table spots{"hot_spots", "hot spots (CPU samples by function, all threads)",
              {"pid", "function", "module", "source", "self_samples", "self_s", "total_samples", "total_s"}, {}};
  Table by_thread{"hot_spots_by_thread", "hot spots by thread",
                  {"pid", "thread", "function", "module", "source", "self_samples", "self_s", "total_samples", "total_s"}, {}};
  Table tree{"call_tree", "call tree",
             {"pid", "depth", "function", "module", "total_samples", "total_pct", "self_samples", "self_pct"}, {}};
  for (const auto &process : a.profile().processes()) {
    // Named references, not a structured binding: the lambdas below capture them.
    const std::uint32_t pid = process.first;
    const ProcessProfile &p = process.second;
    std::vector<Weight> self = self_weights(a, pid, p, [](std::uint32_t) { return true; });
    add_hot_spots(spots, p, self, {std::to_string(pid)});
    std::set<std::uint32_t> tids;
    for (const auto &[key, samples] : a.profile().threads())
      if (key.first == pid) tids.insert(key.second);
    for (std::uint32_t tid : tids)
      add_hot_spots(by_thread, p, self_weights(a, pid, p, [tid](std::uint32_t t) { return t == tid; }),
                    {std::to_string(pid), thread_cell(a, pid, tid)});
    std::vector<Weight> total = total_weights(p, self);
    walk_tree(children_by_cost(p, total), [&](std::uint32_t n, int depth) {
      const ProfileFunction &f = p.functions[p.nodes[n].function];
      tree.rows.push_back({std::to_string(pid), std::to_string(depth), f.name, f.module, std::to_string(total[n].samples),
                           percent(total[n].samples, total[0].samples), std::to_string(self[n].samples),
                           percent(self[n].samples, total[0].samples)});
      return true;
    });
  }
  return {spots, by_thread, tree};
}

void print_call_tree(std::FILE *out, const ActivityTracker &a, std::size_t max_rows, bool all)
{
  for (const auto &process : a.profile().processes()) {
    const std::uint32_t pid = process.first;
    const ProcessProfile &p = process.second;
    std::vector<Weight> self = self_weights(a, pid, p, [](std::uint32_t) { return true; });
    std::vector<Weight> total = total_weights(p, self);
    if (!total[0].samples) continue;
    std::fprintf(out, "call tree of %s, top down (%llu samples, %s s of CPU):\n   total    self  function\n",
                 process_label(pid, a).c_str(), static_cast<unsigned long long>(total[0].samples),
                 seconds(total[0].period).c_str());
    std::size_t lines = 0, cut = 0;
    walk_tree(children_by_cost(p, total), [&](std::uint32_t n, int depth) {
      if (!all && double(total[n].samples) < kTreeCut * double(total[0].samples)) return cut++, false;
      if (max_rows && lines >= max_rows) return cut++, false;
      lines++;
      std::fprintf(out, "  %5s%%  %5s%%  %*s%s\n", percent(total[n].samples, total[0].samples).c_str(),
                   percent(self[n].samples, total[0].samples).c_str(), depth * 2, "",
                   function_label(p.functions[p.nodes[n].function]).c_str());
      return true;
    });
    if (cut) std::fprintf(out, "  ... smaller branches left out (--all shows them, --csv lists every node)\n");
  }
}

void write_folded_samples(std::ostream &out, const ActivityTracker &a)
{
  for (const auto &[key, samples] : a.profile().threads()) {
    auto p = a.profile().processes().find(key.first);
    if (p == a.profile().processes().end()) continue;
    std::map<std::uint32_t, std::uint64_t> counts; // node -> samples
    for (const ProfileSample &s : samples) counts[s.node]++;
    std::map<std::string, std::uint64_t> lines;
    std::string root = folded_frame(process_label(key.first, a)) + ";" + folded_frame(thread_label(a, key.first, key.second));
    for (const auto &[node, n] : counts) {
      std::string line = root;
      std::vector<std::uint32_t> stack = p->second.stack_of(node);
      for (auto f = stack.rbegin(); f != stack.rend(); ++f) line += ";" + folded_frame(function_label(p->second.functions[*f]));
      lines[line] += n;
    }
    for (const auto &[line, n] : lines) out << line << ' ' << n << '\n';
  }
}

void write_speedscope(std::ostream &out, const ActivityTracker &a)
{
  // Frames are shared by every profile: a function's index is its process's base plus its own.
  std::map<std::uint32_t, std::size_t> base;
  std::string text = "{\"$schema\":\"https://www.speedscope.app/file-format-schema.json\",\"exporter\":\"vorx report\","
                     "\"name\":\"CPU samples\",\"activeProfileIndex\":0,\"shared\":{\"frames\":[";
  std::size_t frames = 0;
  for (const auto &[pid, p] : a.profile().processes()) {
    base[pid] = frames;
    for (const ProfileFunction &f : p.functions) {
      text += frames++ ? ",{\"name\":" : "{\"name\":";
      json_string(text, function_label(f));
      if (!f.file.empty()) {
        text += ",\"file\":";
        json_string(text, f.file);
        text += ",\"line\":" + std::to_string(f.line);
      }
      text += "}";
    }
  }
  text += "]},\"profiles\":[";
  out << text;
  bool first = true;
  for (const auto &[key, samples] : a.profile().threads()) {
    auto p = a.profile().processes().find(key.first);
    if (p == a.profile().processes().end() || samples.empty()) continue;
    // Without periods every sample weighs one.
    bool timed = std::any_of(samples.begin(), samples.end(), [](const ProfileSample &s) { return s.period != 0; });
    auto weight = [timed](const ProfileSample &s) { return timed ? double(s.period) / (kPeriodHz / 1000) : 1.0; };
    double sum = 0;
    for (const ProfileSample &s : samples) sum += weight(s);
    std::string head;
    json_string(head, process_label(key.first, a) + " " + thread_label(a, key.first, key.second));
    char end[32];
    std::snprintf(end, sizeof end, "%.4f", sum);
    out << (first ? "" : ",") << "\n{\"type\":\"sampled\",\"name\":" << head << ",\"unit\":\""
        << (timed ? "milliseconds" : "none") << "\",\"startValue\":0,\"endValue\":" << end << ",\"samples\":[";
    first = false;
    std::string item;
    for (std::size_t i = 0; i < samples.size(); i++) {
      std::vector<std::uint32_t> stack = p->second.stack_of(samples[i].node);
      item = i ? ",[" : "[";
      for (auto f = stack.rbegin(); f != stack.rend(); ++f)
        item += (f == stack.rbegin() ? "" : ",") + std::to_string(base[key.first] + *f);
      out << item << ']';
    }
    out << "],\"weights\":[";
    for (std::size_t i = 0; i < samples.size(); i++) {
      char w[32];
      std::snprintf(w, sizeof w, "%s%.4f", i ? "," : "", weight(samples[i]));
      out << w;
    }
    out << "]}";
  }
  out << "\n]}\n";
}

} // namespace vorx::report
