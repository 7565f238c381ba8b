// Images, sections, symbols and routines: the engine's model of what is mapped, read from the files on disk
// (and the vDSO from memory), and the tool's queries over it.
//
// Every program pays for the model of itself, the loader, the C library and the vDSO before its first
// instruction, so building it avoids per-symbol allocations: names move from the ELF model into the symbol
// table once, and the routines refer to those names instead of copying them.
#include <elf.h>
#include <sys/auxv.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "elf_model.h"
#include "engine.h"

namespace kel {

Tables* g_tables = nullptr;

Tables& make_tables() {
  static Tables* instance = new Tables;
  __atomic_store_n(&g_tables, instance, __ATOMIC_RELEASE);
  return *instance;
}

namespace {

bool read_vdso(uintptr_t base, ElfModel* model, std::string* error) {
  const auto* eh = reinterpret_cast<const Elf32_Ehdr*>(base);
  size_t size = eh->e_shoff + static_cast<size_t>(eh->e_shnum) * eh->e_shentsize;
  const auto* ph = reinterpret_cast<const Elf32_Phdr*>(base + eh->e_phoff);
  for (unsigned i = 0; i < eh->e_phnum; ++i) size = std::max<size_t>(size, ph[i].p_offset + ph[i].p_filesz);
  // The kernel maps the vDSO as its file: contents sit at their file offsets.
  return parse_elf({reinterpret_cast<const uint8_t*>(base), size}, ElfSource::file, model, error);
}

// Which symbol names a routine: a global before a weak before a local, the default version, then the name
// with fewer leading underscores.
int name_rank(const ElfSymbol& s) {
  int rank = 0;
  if (s.binding == STB_GLOBAL) rank += 1000;
  else if (s.binding == STB_WEAK) rank += 500;
  if (s.default_version) rank += 100;
  size_t underscores = s.name.find_first_not_of('_');
  rank -= static_cast<int>(std::min<size_t>(underscores, 9)) * 10;
  return rank;
}

// The executable sections of one image, in section order, for the per-symbol question "in which code
// section is this address". An image has a handful of them, so a scan of this small array beats anything
// cleverer, and scanning in section order keeps the first match when sections overlap.
struct CodeRange {
  uintptr_t low, end;  // end = low + size, wrapping as the section's own arithmetic does
  uint32_t section;    // global section index + 1
};
using CodeRanges = std::vector<CodeRange>;

uint32_t code_section_of(const CodeRanges& ranges, uintptr_t address) {
  for (const CodeRange& r : ranges)
    if (address >= r.low && address < r.end) return r.section;
  return 0;
}

void add_sections(Tables& t, ElfModel& model, uint32_t id, Image* image, CodeRanges* code) {
  image->first_section = t.sections.size();
  for (ElfSection& es : model.sections) {
    Section s;
    s.image = id;
    s.name = std::move(es.name);
    s.address = es.allocated ? static_cast<uintptr_t>(es.address) + image->load_offset : 0;
    s.size = es.size;
    s.executable = es.executable;
    s.readable = es.allocated;
    s.writable = es.writable;
    if (!es.allocated) s.type = LEVEL_KELCLIENT::SEC_TYPE_OTHER;
    else if (es.executable) s.type = LEVEL_KELCLIENT::SEC_TYPE_EXEC;
    else if (es.type == SHT_NOBITS) s.type = LEVEL_KELCLIENT::SEC_TYPE_BSS;
    else s.type = LEVEL_KELCLIENT::SEC_TYPE_DATA;
    if (s.executable) code->push_back({s.address, s.address + s.size, t.sections.size() + 1});
    t.sections.push(std::move(s));
  }
  image->section_count = t.sections.size() - image->first_section;
}

uint32_t section_of(const Image& image, uintptr_t address) {
  Tables& t = tables();
  for (uint32_t i = 0; i < image.section_count; ++i) {
    Section& s = t.sections[image.first_section + i];
    if (s.executable && address >= s.address && address < s.address + s.size) return image.first_section + i + 1;
  }
  return 0;
}

// A routine candidate: one function symbol (or _init/_fini). The name views the symbol's, already in the
// symbol table, whose elements never move (or a constant).
struct PendingRoutine {
  uintptr_t address;
  size_t size;
  std::string_view name;  // full name, with the version
  uint32_t order;         // among the candidates: at one address, the symbol table's order decides ties
  uint32_t section;
  int rank;
  bool ifunc, dynamic;
};

// Records `full` as a name of routine `index`: the first symbol of a name wins, and the plain name (without
// the version) goes to the first routine having it, unless a later one has it as its default version.
void add_routine_name(std::unordered_map<std::string_view, uint32_t>& by_name, std::string_view full,
                      uint32_t index) {
  by_name.try_emplace(full, index);
  size_t at = full.find('@');
  if (at == std::string_view::npos) return;  // the plain name is the full one
  bool is_default = full.find("@@", at) != std::string_view::npos;
  auto [found, added] = by_name.try_emplace(full.substr(0, at), index);
  if (!added && is_default) found->second = index;
}

void add_symbols_and_routines(Tables& t, ElfModel& model, uint32_t id, Image* image, const CodeRanges& code) {
  image->first_symbol = t.symbols.size();
  std::vector<PendingRoutine> pending;
  pending.reserve(model.symbols.size() + 2);
  for (ElfSymbol& es : model.symbols) {
    bool function = es.type == STT_FUNC || es.type == STT_GNU_IFUNC;
    int rank = function ? name_rank(es) : 0;
    Symbol s;
    s.image = id;
    s.name = std::move(es.name);
    s.value = static_cast<uintptr_t>(es.value);
    s.index = es.index;
    s.dynamic = es.dynamic;
    s.ifunc = es.type == STT_GNU_IFUNC;
    uint32_t symbol = t.symbols.push(std::move(s));
    if (!function) continue;
    uintptr_t address = static_cast<uintptr_t>(es.value) + image->load_offset;
    uint32_t section = code_section_of(code, address);
    if (!section) continue;
    pending.push_back({address, static_cast<size_t>(es.size), t.symbols[symbol].name,
                       static_cast<uint32_t>(pending.size()), section, rank, es.type == STT_GNU_IFUNC, es.dynamic});
  }
  image->symbol_count = t.symbols.size() - image->first_symbol;
  // _init and _fini are found through the dynamic section, so that a stripped object still has them.
  auto add_special = [&](uint64_t link_address, std::string_view name) {
    if (!link_address) return;
    uintptr_t address = static_cast<uintptr_t>(link_address) + image->load_offset;
    if (uint32_t section = code_section_of(code, address))
      pending.push_back({address, 0, name, static_cast<uint32_t>(pending.size()), section, -100000, false, false});
  };
  add_special(model.init, "_init");
  add_special(model.fini, "_fini");

  std::sort(pending.begin(), pending.end(), [](const PendingRoutine& a, const PendingRoutine& b) {
    return a.address != b.address ? a.address < b.address : a.order < b.order;
  });
  size_t routines = 0;
  for (size_t i = 0; i < pending.size(); ++i) routines += i == 0 || pending[i].address != pending[i - 1].address;
  image->routines.reserve(routines);
  image->routine_by_name.reserve(2 * pending.size());

  // One routine per address, named after its best-ranked symbol (the first of equals).
  for (size_t first = 0, next; first < pending.size(); first = next) {
    const PendingRoutine& head = pending[first];
    size_t size = head.size;
    bool ifunc = head.ifunc, dynamic = head.dynamic;
    const PendingRoutine* best = &head;
    for (next = first + 1; next < pending.size() && pending[next].address == head.address; ++next) {
      const PendingRoutine& p = pending[next];
      size = std::max(size, p.size);
      ifunc |= p.ifunc;
      dynamic |= p.dynamic;
      if (p.rank > best->rank) best = &p;
    }
    if (size == 0) {  // no size from the symbol: up to the next routine or the end of the section
      const Section& sec = t.sections[head.section - 1];
      uintptr_t end = sec.address + sec.size;
      if (next < pending.size() && pending[next].address < end) end = pending[next].address;
      size = end - head.address;
    }
    Routine r;
    r.image = id;
    r.section = head.section;
    r.name = best->name.substr(0, best->name.find('@'));
    r.address = head.address;
    r.size = size;
    r.ifunc = ifunc;
    r.dynamic = dynamic;
    uint32_t index = t.routines.push(std::move(r)) + 1;
    image->routines.push_back(index);
    for (size_t k = first; k < next; ++k) add_routine_name(image->routine_by_name, pending[k].name, index);
  }
}

}  // namespace

uint32_t create_image(const std::string& path, uintptr_t load_offset, bool main_executable, bool vdso,
                      void* link_map) {
  Tables& t = tables();
  ElfModel model;
  std::string error;
  bool ok = vdso ? read_vdso(getauxval(AT_SYSINFO_EHDR), &model, &error) : read_elf_file(path, &model, &error);
  if (!ok) log_line(1, "cannot read image '%s': %s; it will have no symbols", path.c_str(), error.c_str());

  Image image;
  uint32_t id = t.images.size() + 1;
  image.id = id;
  image.main_executable = main_executable;
  image.vdso = vdso;
  image.name = path;
  image.load_offset = load_offset;
  image.entry = model.entry ? static_cast<uintptr_t>(model.entry) + load_offset : 0;
  image.link_map = link_map;
  for (const ElfSegment& seg : model.loads) {
    if (seg.memory_size == 0) continue;
    uintptr_t low = static_cast<uintptr_t>(seg.address) + load_offset;
    image.regions.push_back({low, low + static_cast<uintptr_t>(seg.memory_size) - 1});
  }
  if (!image.regions.empty()) {
    image.low = image.regions.front().low;
    image.high = image.regions.front().high;
    for (const Region& r : image.regions) image.low = std::min(image.low, r.low), image.high = std::max(image.high, r.high);
  }
  CodeRanges code;
  add_sections(t, model, id, &image, &code);
  add_symbols_and_routines(t, model, id, &image, code);
  image.valid = true;
  t.images.push(std::move(image));
  return id;
}

void invalidate_image(uint32_t id) {
  if (id && id <= tables().images.size()) tables().images[id - 1].valid = false;
}

Image* image_containing(uintptr_t address) {
  for (uint32_t i = tables().images.size(); i-- > 0;) {  // newest first: a reused range belongs to the newest
    Image& image = tables().images[i];
    if (!image.valid || address < image.low || address > image.high) continue;
    for (const Region& r : image.regions)
      if (address >= r.low && address <= r.high) return &image;
  }
  return nullptr;
}

bool address_in_executable_section(const Image& image, uintptr_t address) { return section_of(image, address) != 0; }

uint32_t routine_at(Image& image, uintptr_t address) {
  auto it = std::lower_bound(image.routines.begin(), image.routines.end(), address,
                             [](uint32_t r, uintptr_t a) { return tables().routines[r - 1].address < a; });
  return it != image.routines.end() && tables().routines[*it - 1].address == address ? *it : 0;
}

}  // namespace kel

// ---------------------------------------------------------------------------------------------------------
// The tool's queries.
// ---------------------------------------------------------------------------------------------------------
namespace LEVEL_KELCLIENT {
using kel::image_of;
using kel::routine_of;
using kel::tables;

namespace {
const std::string kEmpty;
kel::Section* section_of(SEC sec) {
  uint32_t i = static_cast<uint32_t>(sec.q());
  if (!i || i > tables().sections.size()) return nullptr;
  kel::Section* s = &tables().sections[i - 1];
  return image_of(IMG(s->image)) ? s : nullptr;
}
kel::Symbol* symbol_of(SYM sym) {
  uint32_t i = static_cast<uint32_t>(sym.q());
  if (!i || i > tables().symbols.size()) return nullptr;
  kel::Symbol* s = &tables().symbols[i - 1];
  return image_of(IMG(s->image)) ? s : nullptr;
}
}  // namespace

BOOL IMG_Valid(IMG img) { return image_of(img) != nullptr; }
UINT32 IMG_Id(IMG img) { return image_of(img) ? static_cast<UINT32>(img.q()) : 0; }
IMG IMG_FindImgById(UINT32 id) { return image_of(IMG(static_cast<INT32>(id))) ? IMG(static_cast<INT32>(id)) : IMG(); }
IMG IMG_FindByAddress(ADDRINT address) {
  kel::Image* image = kel::image_containing(address);
  return image ? IMG(static_cast<INT32>(image->id)) : IMG();
}
IMG IMG_Invalid() { return IMG(); }
IMG IMG_Next(IMG img) {
  for (uint32_t id = static_cast<uint32_t>(img.q()) + 1; id <= tables().images.size(); ++id)
    if (image_of(IMG(static_cast<INT32>(id)))) return IMG(static_cast<INT32>(id));
  return IMG();
}
IMG APP_ImgHead() { return IMG_Next(IMG()); }
const string& IMG_Name(IMG img) { return image_of(img) ? image_of(img)->name : kEmpty; }
BOOL IMG_IsMainExecutable(IMG img) { return image_of(img) && image_of(img)->main_executable; }
BOOL IMG_IsVDSO(IMG img) { return image_of(img) && image_of(img)->vdso; }
ADDRINT IMG_LowAddress(IMG img) { return image_of(img) ? image_of(img)->low : 0; }
ADDRINT IMG_HighAddress(IMG img) { return image_of(img) ? image_of(img)->high : 0; }
UINT32 IMG_NumRegions(IMG img) { return image_of(img) ? static_cast<UINT32>(image_of(img)->regions.size()) : 0; }
ADDRINT IMG_RegionLowAddress(IMG img, UINT32 n) {
  kel::Image* i = image_of(img);
  return i && n < i->regions.size() ? i->regions[n].low : 0;
}
ADDRINT IMG_RegionHighAddress(IMG img, UINT32 n) {
  kel::Image* i = image_of(img);
  return i && n < i->regions.size() ? i->regions[n].high : 0;
}
ADDRDELTA IMG_LoadOffset(IMG img) { return image_of(img) ? static_cast<ADDRDELTA>(image_of(img)->load_offset) : 0; }
ADDRINT IMG_EntryAddress(IMG img) { return image_of(img) ? image_of(img)->entry : 0; }
SYM IMG_RegsymHead(IMG img) {
  kel::Image* i = image_of(img);
  return i && i->symbol_count ? SYM(static_cast<INT32>(i->first_symbol + 1)) : SYM();
}
SEC IMG_SecHead(IMG img) {
  kel::Image* i = image_of(img);
  return i && i->section_count ? SEC(static_cast<INT32>(i->first_section + 1)) : SEC();
}

BOOL SEC_Valid(SEC sec) { return section_of(sec) != nullptr; }
SEC SEC_Next(SEC sec) {
  kel::Section* s = section_of(sec);
  if (!s) return SEC();
  kel::Image* i = image_of(IMG(s->image));
  uint32_t next = static_cast<uint32_t>(sec.q());  // index + 1 of the next one
  return next < i->first_section + i->section_count ? SEC(static_cast<INT32>(next + 1)) : SEC();
}
SEC SEC_Invalid() { return SEC(); }
IMG SEC_Img(SEC sec) { return section_of(sec) ? IMG(section_of(sec)->image) : IMG(); }
const string& SEC_Name(SEC sec) { return section_of(sec) ? section_of(sec)->name : kEmpty; }
ADDRINT SEC_Address(SEC sec) { return section_of(sec) ? section_of(sec)->address : 0; }
USIZE SEC_Size(SEC sec) { return section_of(sec) ? section_of(sec)->size : 0; }
BOOL SEC_IsExecutable(SEC sec) { return section_of(sec) && section_of(sec)->executable; }
BOOL SEC_IsReadable(SEC sec) { return section_of(sec) && section_of(sec)->readable; }
BOOL SEC_IsWriteable(SEC sec) { return section_of(sec) && section_of(sec)->writable; }
SEC_TYPE SEC_Type(SEC sec) { return section_of(sec) ? section_of(sec)->type : SEC_TYPE_INVALID; }
RTN SEC_RtnHead(SEC sec) {
  kel::Section* s = section_of(sec);
  if (!s) return RTN();
  KEL_LockClient();
  RTN result;
  for (uint32_t r : image_of(IMG(s->image))->routines)
    if (tables().routines[r - 1].section == static_cast<uint32_t>(sec.q())) {
      result = RTN(static_cast<INT32>(r));
      break;
    }
  KEL_UnlockClient();
  return result;
}

BOOL SYM_Valid(SYM sym) { return symbol_of(sym) != nullptr; }
SYM SYM_Next(SYM sym) {
  kel::Symbol* s = symbol_of(sym);
  if (!s) return SYM();
  kel::Image* i = image_of(IMG(s->image));
  uint32_t next = static_cast<uint32_t>(sym.q());
  return next < i->first_symbol + i->symbol_count ? SYM(static_cast<INT32>(next + 1)) : SYM();
}
SYM SYM_Invalid() { return SYM(); }
UINT32 SYM_Index(SYM sym) { return symbol_of(sym) ? symbol_of(sym)->index : 0; }
const string& SYM_Name(SYM sym) { return symbol_of(sym) ? symbol_of(sym)->name : kEmpty; }
ADDRINT SYM_Value(SYM sym) { return symbol_of(sym) ? symbol_of(sym)->value : 0; }
BOOL SYM_Dynamic(SYM sym) { return symbol_of(sym) && symbol_of(sym)->dynamic; }
BOOL SYM_IFuncResolver(SYM sym) { return symbol_of(sym) && symbol_of(sym)->ifunc; }

BOOL RTN_Valid(RTN rtn) { return routine_of(rtn) != nullptr; }
RTN RTN_Invalid() { return RTN(); }
// The per-image indexes change when RTN_CreateAt adds a routine: lookups hold the client lock.
RTN RTN_FindByName(IMG img, const CHAR* name) {
  kel::Image* i = image_of(img);
  if (!i || !name) return RTN();
  KEL_LockClient();
  auto found = i->routine_by_name.find(std::string_view(name));
  RTN result = found == i->routine_by_name.end() ? RTN() : RTN(static_cast<INT32>(found->second));
  KEL_UnlockClient();
  return result;
}
RTN RTN_FindByAddress(ADDRINT address) {
  KEL_LockClient();
  RTN result;
  if (kel::Image* image = kel::image_containing(address)) {
    auto it = std::upper_bound(image->routines.begin(), image->routines.end(), address,
                               [](uintptr_t a, uint32_t r) { return a < tables().routines[r - 1].address; });
    if (it != image->routines.begin()) {
      kel::Routine& r = tables().routines[*(it - 1) - 1];
      if (address < r.address + std::max<size_t>(r.size, 1)) result = RTN(static_cast<INT32>(*(it - 1)));
    }
  }
  KEL_UnlockClient();
  return result;
}
const string& RTN_Name(RTN rtn) { return routine_of(rtn) ? routine_of(rtn)->name : kEmpty; }
ADDRINT RTN_Address(RTN rtn) { return routine_of(rtn) ? routine_of(rtn)->address : 0; }
USIZE RTN_Size(RTN rtn) { return routine_of(rtn) ? routine_of(rtn)->size : 0; }
USIZE RTN_Range(RTN rtn) { return RTN_Size(rtn); }
SEC RTN_Sec(RTN rtn) { return routine_of(rtn) ? SEC(static_cast<INT32>(routine_of(rtn)->section)) : SEC(); }
BOOL RTN_IsDynamic(RTN rtn) { return routine_of(rtn) && routine_of(rtn)->dynamic; }
RTN RTN_Next(RTN rtn) {
  kel::Routine* r = routine_of(rtn);
  if (!r) return RTN();
  KEL_LockClient();
  const auto& list = image_of(IMG(r->image))->routines;
  auto it = std::lower_bound(list.begin(), list.end(), r->address,
                             [](uint32_t x, uintptr_t a) { return tables().routines[x - 1].address < a; });
  RTN result = it != list.end() && it + 1 != list.end() ? RTN(static_cast<INT32>(*(it + 1))) : RTN();
  KEL_UnlockClient();
  return result;
}

RTN RTN_CreateAt(ADDRINT address, string name) {
  KEL_LockClient();
  RTN result;
  kel::Image* image = kel::image_containing(address);
  if (image) {
    if (uint32_t existing = kel::routine_at(*image, address)) {
      result = RTN(static_cast<INT32>(existing));
    } else {
      uint32_t id = image->id;
      kel::Routine r;
      r.image = id;
      r.name = name;
      r.address = address;
      r.section = 0;
      for (uint32_t s = 0; s < image->section_count; ++s) {
        kel::Section& sec = tables().sections[image->first_section + s];
        if (address >= sec.address && address < sec.address + sec.size) r.section = image->first_section + s + 1;
      }
      // Up to the next routine, as a routine without a symbol has no size of its own.
      auto next = std::upper_bound(image->routines.begin(), image->routines.end(), address,
                                   [](uintptr_t a, uint32_t x) { return a < tables().routines[x - 1].address; });
      uintptr_t end = image->high + 1;
      if (next != image->routines.end()) end = tables().routines[*next - 1].address;
      if (r.section) {
        kel::Section& sec = tables().sections[r.section - 1];
        end = std::min<uintptr_t>(end, sec.address + sec.size);
      }
      r.size = end - address;
      uint32_t index = tables().routines.push(std::move(r)) + 1;
      image->routines.insert(next, index);
      image->routine_by_name.emplace(tables().routines[index - 1].name, index);  // the table's copy stays
      result = RTN(static_cast<INT32>(index));
    }
  }
  KEL_UnlockClient();
  return result;
}

}  // namespace LEVEL_KELCLIENT
