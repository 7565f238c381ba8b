// The branch-target index of a module: every direct branch and call target inside the module, found by a
// linear sweep of its executable sections, used to refuse probes whose patch some branch lands inside.
//
// The sweep of libc costs tens of milliseconds, paid by every process that sets a probe there, so the index
// is kept in a per-user cache file, one per module path (so a rebuilt module replaces its old entry), that
// holds the file's identity (device, inode, size, mtime) and is used only when that still matches:
//   $KEL_CACHE_DIR, else $XDG_CACHE_HOME/kel, else $HOME/.cache/kel.
// The file holds link-time offsets (run-time address minus load offset), so one file serves every load
// address. A file that does not read back exactly is ignored and rebuilt.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine.h"

namespace kel {
namespace {

LEVEL_BASE::KNOB<BOOL> g_knob_cache(LEVEL_BASE::KNOB_MODE_WRITEONCE, "kel", "branch_index_cache", "1",
                                    "keep modules' branch-target indexes in a per-user cache directory");

constexpr uint32_t kMagic = 0x32494b42;  // "BKI2"

struct Header {
  uint32_t magic;
  uint32_t count;
  uint64_t device;
  uint64_t inode;
  uint64_t size;
  uint64_t mtime_ns;
};

uint32_t fnv1a(const std::string& text) {
  uint32_t hash = 2166136261u;
  for (unsigned char c : text) hash = (hash ^ c) * 16777619u;
  return hash;
}

std::string cache_directory() {
  if (const char* dir = getenv("KEL_CACHE_DIR"); dir && *dir) return dir;
  if (const char* xdg = getenv("XDG_CACHE_HOME"); xdg && *xdg) return std::string(xdg) + "/kel";
  if (const char* home = getenv("HOME"); home && *home) return std::string(home) + "/.cache/kel";
  return {};
}

// The cache file of `image`, and the identity that must match; empty when the module has no file.
std::string cache_file(const Image& image, Header* identity) {
  if (image.vdso || !g_knob_cache.Value()) return {};
  struct stat st {};
  if (stat(image.name.c_str(), &st) != 0) return {};
  std::string dir = cache_directory();
  if (dir.empty()) return {};
  identity->magic = kMagic;
  identity->device = static_cast<uint64_t>(st.st_dev);
  identity->inode = static_cast<uint64_t>(st.st_ino);
  identity->size = static_cast<uint64_t>(st.st_size);
  identity->mtime_ns = static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000ull + st.st_mtim.tv_nsec;
  std::string base = image.name.substr(image.name.rfind('/') + 1);
  char key[32];
  snprintf(key, sizeof key, "-%08x.bti", fnv1a(image.name));
  return dir + "/" + base + key;
}

bool read_all(int fd, void* data, size_t size) {
  auto* p = static_cast<char*>(data);
  while (size) {
    ssize_t n = read(fd, p, size);
    if (n <= 0) return false;
    p += n, size -= static_cast<size_t>(n);
  }
  return true;
}

bool load(const std::string& path, const Header& identity, uintptr_t offset, std::vector<uintptr_t>* targets) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  Header h{};
  bool ok = read_all(fd, &h, sizeof h) && h.magic == identity.magic && h.device == identity.device &&
            h.inode == identity.inode && h.size == identity.size && h.mtime_ns == identity.mtime_ns &&
            h.count < (1u << 24);
  std::vector<uint32_t> offsets;
  if (ok) {
    offsets.resize(h.count);
    ok = read_all(fd, offsets.data(), h.count * sizeof(uint32_t));
    char extra;
    ok = ok && read(fd, &extra, 1) == 0;
  }
  close(fd);
  if (!ok) return false;
  targets->reserve(offsets.size());
  for (uint32_t o : offsets) targets->push_back(offset + o);
  return true;
}

void save(const std::string& path, Header identity, uintptr_t offset, const std::vector<uintptr_t>& targets) {
  std::string dir = path.substr(0, path.rfind('/'));
  mkdir(dir.substr(0, dir.rfind('/')).c_str(), 0700);
  mkdir(dir.c_str(), 0700);
  std::string temporary = path + "." + std::to_string(getpid());
  int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return;
  std::vector<uint32_t> offsets;
  offsets.reserve(targets.size());
  for (uintptr_t t : targets) offsets.push_back(static_cast<uint32_t>(t - offset));
  identity.count = static_cast<uint32_t>(offsets.size());
  bool ok = write(fd, &identity, sizeof identity) == static_cast<ssize_t>(sizeof identity) &&
            write(fd, offsets.data(), offsets.size() * 4) == static_cast<ssize_t>(offsets.size() * 4);
  close(fd);
  if (!ok || rename(temporary.c_str(), path.c_str()) != 0) unlink(temporary.c_str());
}

void sweep(const Image& image, std::vector<uintptr_t>* targets) {
  for (uint32_t i = 0; i < image.section_count; ++i) {
    const Section& s = tables().sections[image.first_section + i];
    if (s.executable && s.address) arch::collect_branch_targets(s.address, s.size, targets);
  }
  // Only targets inside the module can land in one of its routines.
  targets->erase(std::remove_if(targets->begin(), targets->end(),
                                [&](uintptr_t t) { return t < image.low || t > image.high; }),
                 targets->end());
  std::sort(targets->begin(), targets->end());
  targets->erase(std::unique(targets->begin(), targets->end()), targets->end());
}

}  // namespace

void build_branch_index(Image& image) {
  Header identity{};
  std::string path = cache_file(image, &identity);
  if (path.empty() || !load(path, identity, image.load_offset, &image.branch_targets)) {
    sweep(image, &image.branch_targets);
    if (!path.empty()) save(path, identity, image.load_offset, image.branch_targets);
    log_line(3, "branch index of %s: %zu targets by sweep", image.name.c_str(), image.branch_targets.size());
  } else {
    log_line(3, "branch index of %s: %zu targets from %s", image.name.c_str(), image.branch_targets.size(),
             path.c_str());
  }
  image.branch_index_built = true;
}

}  // namespace kel
