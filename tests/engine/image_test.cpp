// The image model: symbol versions as the loader sees them, _init/_fini from the dynamic section of a
// stripped library, both ELF classes, and routine lookup by versioned and plain names.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "elf_model.h"
#include "engine.h"

namespace kel {
namespace {

const ElfSymbol* find(const ElfModel& m, const std::string& name) {
  auto it = std::find_if(m.symbols.begin(), m.symbols.end(), [&](const ElfSymbol& s) { return s.name == name; });
  return it == m.symbols.end() ? nullptr : &*it;
}

TEST(ElfModel, Libc32HasVersionedSymbolsAndNoInit) {
  ElfModel m;
  std::string error;
  ASSERT_TRUE(read_elf_file("/lib/i386-linux-gnu/libc.so.6", &m, &error)) << error;
  EXPECT_EQ(m.elf_class, 32);
  EXPECT_EQ(m.machine, EM_386);
  EXPECT_EQ(m.soname, "libc.so.6");
  // One routine exported under two versions: the default one with "@@", the other with "@".
  const ElfSymbol* current = find(m, "pthread_cond_wait@@GLIBC_2.3.2");
  const ElfSymbol* old = find(m, "pthread_cond_wait@GLIBC_2.0");
  ASSERT_TRUE(current && old);
  EXPECT_TRUE(current->default_version);
  EXPECT_FALSE(old->default_version);
  EXPECT_NE(current->value, old->value);
  ASSERT_TRUE(find(m, "__libc_early_init@@GLIBC_PRIVATE"));
  EXPECT_EQ(find(m, "__libc_early_init@@GLIBC_PRIVATE")->type, STT_FUNC);
  EXPECT_EQ(find(m, "memcpy@@GLIBC_2.0")->type, STT_GNU_IFUNC);
  // glibc 2.36: no DT_INIT in the C library, and no .symtab to fall back on.
  EXPECT_EQ(m.init, 0u);
  EXPECT_TRUE(std::all_of(m.symbols.begin(), m.symbols.end(), [](const ElfSymbol& s) { return s.dynamic; }));
}

// The launcher's checks read the exports only: the same headers, none of .symtab.
TEST(ElfModel, DynamicSymbolsOnlyLeaveTheSymbolTableOut) {
  ElfModel whole, exports;
  std::string error;
  ASSERT_TRUE(read_elf_file("/proc/self/exe", &whole, &error)) << error;
  ASSERT_TRUE(read_elf_file("/proc/self/exe", &exports, &error, ElfDetail::dynamic_symbols)) << error;
  EXPECT_TRUE(std::any_of(whole.symbols.begin(), whole.symbols.end(), [](const ElfSymbol& s) { return !s.dynamic; }));
  EXPECT_TRUE(std::all_of(exports.symbols.begin(), exports.symbols.end(), [](const ElfSymbol& s) { return s.dynamic; }));
  EXPECT_EQ(exports.machine, whole.machine);
  EXPECT_EQ(exports.has_interpreter, whole.has_interpreter);
  EXPECT_EQ(exports.sections.size(), whole.sections.size());
}

// What the launcher asks of a tool: the headers, and whether a function of that name is exported. Data,
// resolvers and undefined names are no answer.
TEST(ElfModel, FunctionExportsAreFoundWithoutAModel) {
  ElfModel whole, headers;
  std::string error;
  const std::string libc = "/lib/i386-linux-gnu/libc.so.6";
  ASSERT_TRUE(read_elf_file(libc, &whole, &error)) << error;
  bool found = false;
  ASSERT_TRUE(find_function_export(libc, "malloc", &headers, &found, &error)) << error;
  EXPECT_TRUE(found);
  EXPECT_TRUE(headers.symbols.empty());
  EXPECT_EQ(headers.machine, whole.machine);
  EXPECT_EQ(headers.elf_class, whole.elf_class);
  EXPECT_EQ(headers.sections.size(), whole.sections.size());
  for (const char* absent : {"environ", "memcpy", "no_such_function", "mallo"}) {
    ElfModel m;
    ASSERT_TRUE(find_function_export(libc, absent, &m, &found, &error)) << error;
    EXPECT_FALSE(found) << absent;
  }
  ElfModel m;
  EXPECT_FALSE(find_function_export("/etc/os-release", "main", &m, &found, &error));
  EXPECT_EQ(error, "not an ELF file");
}

TEST(ElfModel, SixtyFourBitObjectsReadToo) {
  ElfModel m;
  std::string error;
  if (!read_elf_file("/lib/x86_64-linux-gnu/libc.so.6", &m, &error)) GTEST_SKIP() << "no x86-64 libc: " << error;
  EXPECT_EQ(m.elf_class, 64);
  EXPECT_EQ(m.machine, EM_X86_64);
  EXPECT_TRUE(find(m, "memcpy@@GLIBC_2.14"));
  EXPECT_TRUE(find(m, "memcpy@GLIBC_2.2.5"));
}

TEST(ElfModel, RejectsWhatIsNotElf) {
  ElfModel m;
  std::string error;
  const uint8_t junk[64] = {'#', '!'};
  EXPECT_FALSE(parse_elf(junk, ElfSource::file, &m, &error));
  EXPECT_EQ(error, "not an ELF file");
  uint8_t short_header[20] = {0x7f, 'E', 'L', 'F', ELFCLASS32};
  EXPECT_FALSE(parse_elf(short_header, ElfSource::file, &m, &error));
}

// Routines of a stripped library: _init and _fini still come from DT_INIT and DT_FINI.
TEST(ImageModel, StrippedLibraryKeepsInitAndFini) {
  ElfModel m;
  std::string error;
  ASSERT_TRUE(read_elf_file(KEL_STRIPPED_LIBRARY, &m, &error)) << error;
  ASSERT_NE(m.init, 0u);
  ASSERT_FALSE(find(m, "_init"));  // really stripped
  const uintptr_t base = 0x40000000;
  LEVEL_KELCLIENT::KEL_LockClient();
  uint32_t id = create_image(KEL_STRIPPED_LIBRARY, base, false, false, nullptr);
  LEVEL_KELCLIENT::KEL_UnlockClient();
  IMG img(static_cast<INT32>(id));
  ASSERT_TRUE(IMG_Valid(img));
  RTN init = RTN_FindByName(img, "_init");
  RTN fini = RTN_FindByName(img, "_fini");
  ASSERT_TRUE(RTN_Valid(init));
  ASSERT_TRUE(RTN_Valid(fini));
  EXPECT_EQ(RTN_Address(init), base + m.init);
  EXPECT_EQ(RTN_Address(fini), base + m.fini);
  EXPECT_EQ(IMG_LoadOffset(img), static_cast<ADDRDELTA>(base));
  RTN exported = RTN_FindByName(img, "plugin_sum");
  ASSERT_TRUE(RTN_Valid(exported));
  EXPECT_TRUE(RTN_Valid(RTN_FindByAddress(RTN_Address(exported) + 3)));
  EXPECT_EQ(RTN_FindByAddress(RTN_Address(exported) + 3), exported);
  invalidate_image(id);
  EXPECT_FALSE(IMG_Valid(img));
  EXPECT_FALSE(RTN_Valid(init));
}

// Image handles stay right past the first block of the image table (a process that loads and unloads
// libraries for a long time makes many).
TEST(ImageModel, ManyImagesKeepTheirIdentity) {
  std::vector<uint32_t> ids;
  for (int i = 0; i < 300; ++i) {
    LEVEL_KELCLIENT::KEL_LockClient();
    ids.push_back(create_image(KEL_STRIPPED_LIBRARY, 0x10000000u + i * 0x100000u, false, false, nullptr));
    LEVEL_KELCLIENT::KEL_UnlockClient();
  }
  for (int i = 0; i < 300; i += 37) {
    IMG img = IMG_FindByAddress(0x10000000u + i * 0x100000u + 0x1000);
    ASSERT_TRUE(IMG_Valid(img));
    EXPECT_EQ(IMG_Id(img), ids[i]);
    EXPECT_EQ(IMG_FindImgById(ids[i]), img);
    RTN init = RTN_FindByName(img, "_init");  // (the code is not mapped there: look, do not touch)
    EXPECT_EQ(RTN_FindByAddress(RTN_Address(init)), init);
    EXPECT_EQ(IMG_FindByAddress(RTN_Address(init)), img);
  }
  for (uint32_t id : ids) invalidate_image(id);
  EXPECT_FALSE(IMG_Valid(IMG_FindByAddress(0x10000000u + 0x1000)));
}

// Symbols and sections of the C library as a tool walks them.
TEST(ImageModel, SymbolsAndSectionsOfLibc) {
  LEVEL_KELCLIENT::KEL_LockClient();
  uint32_t id = create_image("/lib/i386-linux-gnu/libc.so.6", 0, false, false, nullptr);
  LEVEL_KELCLIENT::KEL_UnlockClient();
  IMG img(static_cast<INT32>(id));
  // (Names to routines, rule by rule, are in LibcRoutinesFollowTheirSymbols.)
  EXPECT_FALSE(RTN_Valid(RTN_FindByName(img, "_init")));
  // Walking the symbols finds both versions, with the dynamic flag.
  int versions = 0;
  for (SYM sym = IMG_RegsymHead(img); SYM_Valid(sym); sym = SYM_Next(sym)) {
    if (SYM_Name(sym).rfind("pthread_cond_wait@", 0) == 0) {
      ++versions;
      EXPECT_TRUE(SYM_Dynamic(sym));
      EXPECT_NE(SYM_Index(sym), 0u);
    }
  }
  EXPECT_EQ(versions, 2);
  int executable_sections = 0;
  for (SEC sec = IMG_SecHead(img); SEC_Valid(sec); sec = SEC_Next(sec))
    executable_sections += SEC_IsExecutable(sec) && SEC_Name(sec) == ".text";
  EXPECT_EQ(executable_sections, 1);
  invalidate_image(id);
}

// The routines of the C library against its symbols, rule by rule: one routine per function address in code,
// as long as its longest symbol, named after its preferred symbol (global before weak, the default version,
// fewer leading underscores, else the first); a full name finds its own symbol's routine, a plain name the
// default version's, else the first routine having it.
TEST(ImageModel, LibcRoutinesFollowTheirSymbols) {
  const char* libc = "/lib/i386-linux-gnu/libc.so.6";
  ElfModel m;
  std::string error;
  ASSERT_TRUE(read_elf_file(libc, &m, &error)) << error;
  ASSERT_EQ(m.init, 0u);  // no _init/_fini of its own: every routine comes from a symbol
  ASSERT_EQ(m.fini, 0u);
  LEVEL_KELCLIENT::KEL_LockClient();
  uint32_t id = create_image(libc, 0, false, false, nullptr);
  LEVEL_KELCLIENT::KEL_UnlockClient();
  IMG img(static_cast<INT32>(id));
  const Image& image = tables().images[id - 1];

  auto code_section = [&](uint64_t address) -> const ElfSection* {
    for (const ElfSection& s : m.sections)
      if (s.executable && s.allocated && address >= s.address && address < s.address + s.size) return &s;
    return nullptr;
  };
  auto plain = [](const std::string& name) { return name.substr(0, name.find('@')); };
  auto outranks = [](const ElfSymbol& a, const ElfSymbol& b) {
    auto binding = [](const ElfSymbol& s) { return s.binding == STB_GLOBAL ? 2 : s.binding == STB_WEAK ? 1 : 0; };
    auto underscores = [](const ElfSymbol& s) { return std::min<size_t>(s.name.find_first_not_of('_'), 9); };
    if (binding(a) != binding(b)) return binding(a) > binding(b);
    if (a.default_version != b.default_version) return a.default_version;
    return underscores(a) < underscores(b);
  };
  std::map<uint64_t, std::vector<const ElfSymbol*>> at;
  for (const ElfSymbol& s : m.symbols)
    if ((s.type == STT_FUNC || s.type == STT_GNU_IFUNC) && code_section(s.value)) at[s.value].push_back(&s);
  ASSERT_GT(at.size(), 1000u);
  ASSERT_EQ(image.routines.size(), at.size());

  size_t n = 0;
  for (auto it = at.begin(); it != at.end(); ++it, ++n) {
    const Routine& r = tables().routines[image.routines[n] - 1];
    ASSERT_EQ(r.address, it->first);
    const ElfSymbol* best = it->second.front();
    size_t longest = 0;
    bool ifunc = false, dynamic = false;
    for (const ElfSymbol* s : it->second) {
      if (outranks(*s, *best)) best = s;
      longest = std::max<size_t>(longest, s->size);
      ifunc |= s->type == STT_GNU_IFUNC;
      dynamic |= s->dynamic;
    }
    EXPECT_EQ(r.name, plain(best->name)) << "at " << std::hex << r.address;
    if (longest == 0) {  // up to the next routine or the end of the section
      const ElfSection* sec = code_section(r.address);
      uint64_t end = sec->address + sec->size;
      if (std::next(it) != at.end()) end = std::min(end, std::next(it)->first);
      longest = end - r.address;
    }
    EXPECT_EQ(r.size, longest) << r.name;
    EXPECT_EQ(r.ifunc, ifunc) << r.name;
    EXPECT_EQ(r.dynamic, dynamic) << r.name;
    EXPECT_EQ(tables().sections[r.section - 1].name, code_section(r.address)->name) << r.name;
  }

  // Names: full ones to their own symbol, plain ones to the default version or the first routine.
  std::map<std::string, uint64_t> full_first, plain_default, plain_first;
  std::map<std::string, int> defaults;
  for (const auto& [address, symbols] : at)
    for (const ElfSymbol* s : symbols) {
      full_first.emplace(s->name, address);
      plain_first.emplace(plain(s->name), address);
      if (s->default_version && s->name.find('@') != std::string::npos) {
        plain_default[plain(s->name)] = address;
        ++defaults[plain(s->name)];
      }
    }
  for (const auto& [name, address] : full_first)
    EXPECT_EQ(RTN_Address(RTN_FindByName(img, name.c_str())), address) << name;
  for (const auto& [name, address] : plain_first) {
    uint64_t expected = defaults[name] == 1 ? plain_default[name] : address;
    if (defaults[name] <= 1) {
      EXPECT_EQ(RTN_Address(RTN_FindByName(img, name.c_str())), expected) << name;
    }
  }

  // A few well-known ones by hand.
  EXPECT_EQ(RTN_Name(RTN_FindByName(img, "_IO_printf")), "printf");
  EXPECT_EQ(RTN_Name(RTN_FindByName(img, "__libc_malloc")), "malloc");
  EXPECT_EQ(RTN_Name(RTN_FindByName(img, "__pthread_mutex_lock")), "pthread_mutex_lock");
  EXPECT_EQ(RTN_Name(RTN_FindByName(img, "pthread_cond_wait@GLIBC_2.0")), "pthread_cond_wait");
  EXPECT_EQ(RTN_Size(RTN_FindByName(img, "pthread_cond_wait@@GLIBC_2.3.2")),
            find(m, "pthread_cond_wait@@GLIBC_2.3.2")->size);
  EXPECT_TRUE(tables().routines[RTN_FindByName(img, "memcpy").q() - 1].ifunc);
  EXPECT_FALSE(RTN_Valid(RTN_FindByName(img, "pthread_cond_wait@GLIBC_9.9")));
  invalidate_image(id);
}

// The branch index read back from its cache equals the sweep's; a damaged cache file is rebuilt.
TEST(BranchIndex, CacheGivesTheSweepsAnswer) {
  char dir[] = "/tmp/kel-bti-XXXXXX";
  ASSERT_TRUE(mkdtemp(dir));
  setenv("KEL_CACHE_DIR", dir, 1);
  auto build = [&](uintptr_t base) {
    LEVEL_KELCLIENT::KEL_LockClient();
    uint32_t id = create_image(KEL_STRIPPED_LIBRARY, base, false, false, nullptr);
    Image& image = tables().images[id - 1];
    build_branch_index(image);
    std::vector<uintptr_t> offsets;
    for (uintptr_t t : image.branch_targets) offsets.push_back(t - base);
    invalidate_image(id);
    LEVEL_KELCLIENT::KEL_UnlockClient();
    return offsets;
  };
  // The library's code is read at its link addresses plus the base: map it where the model says.
  ElfModel m;
  std::string error;
  ASSERT_TRUE(read_elf_file(KEL_STRIPPED_LIBRARY, &m, &error));
  void* handle = dlopen(KEL_STRIPPED_LIBRARY, RTLD_NOW);
  ASSERT_TRUE(handle);
  Dl_info info{};
  ASSERT_TRUE(dladdr(dlsym(handle, "plugin_sum"), &info));
  uintptr_t base = reinterpret_cast<uintptr_t>(info.dli_fbase);
  std::vector<uintptr_t> swept = build(base);
  ASSERT_FALSE(swept.empty());
  std::string command = std::string("ls ") + dir + "/*.bti > /dev/null";
  ASSERT_EQ(system(command.c_str()), 0) << "no cache file written";
  EXPECT_EQ(build(base), swept);  // from the cache
  command = std::string("for f in ") + dir + "/*.bti; do printf garbage > $f; done";
  ASSERT_EQ(system(command.c_str()), 0);
  EXPECT_EQ(build(base), swept);  // rebuilt
  unsetenv("KEL_CACHE_DIR");
  command = std::string("rm -rf ") + dir;
  ASSERT_EQ(system(command.c_str()), 0);
}

}  // namespace
}  // namespace kel
