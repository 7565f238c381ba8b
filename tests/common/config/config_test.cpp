// The configuration object and its packet: defaults, setters, deep clone,
// the byte layout of the packet and the refusal of damaged packets.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "vorx_config.h"

namespace {

struct ConfDeleter {
  void operator()(vorx_configuration *c) const { vorx_free_configuration(c); }
};
struct PackagerDeleter {
  void operator()(vorx_configuration_packager *p) const { vorx_free_configuration_packager(p); }
};
using ConfPtr = std::unique_ptr<vorx_configuration, ConfDeleter>;
using PackagerPtr = std::unique_ptr<vorx_configuration_packager, PackagerDeleter>;

ConfPtr make_conf() { return ConfPtr(vorx_alloc_configuration()); }

std::vector<unsigned char> pack(const vorx_configuration *conf) {
  PackagerPtr packager(vorx_alloc_configuration_packager());
  size_t size = 0;
  auto *bytes = static_cast<const unsigned char *>(packager->ops->pack(packager.get(), conf, &size));
  if (!bytes) return {};
  return {bytes, bytes + size};
}

ConfPtr unpack(const std::vector<unsigned char> &packet) {
  PackagerPtr packager(vorx_alloc_configuration_packager());
  return ConfPtr(packager->ops->unpack(packager.get(), packet.data(), packet.size()));
}

uint32_t u32_at(const std::vector<unsigned char> &p, size_t off) {
  uint32_t v;
  std::memcpy(&v, &p[off], 4);
  return v;
}
uint64_t u64_at(const std::vector<unsigned char> &p, size_t off) {
  uint64_t v;
  std::memcpy(&v, &p[off], 8);
  return v;
}

std::vector<std::string> as_strings(char *const *list) {
  std::vector<std::string> out;
  for (size_t i = 0; list && list[i]; i++) out.emplace_back(list[i]);
  return out;
}

std::vector<uint32_t> as_words(const uint32_t *words) {
  std::vector<uint32_t> out;
  for (size_t i = 0; words && words[i]; i++) out.push_back(words[i]);
  return out;
}

// A configuration with every field away from its default.
ConfPtr make_full_conf() {
  ConfPtr c = make_conf();
  auto *ops = c->ops;
  c->state = vorx_st_paused;
  ops->set_sampling_interval(c.get(), 0x123456789ull);
  c->origin_process_id = -7;
  c->attach_requested = 1;
  c->parent_process_id = 4242;
  c->process_id = 4343;
  c->is_root_process = true;
  c->profile_process = false;
  c->follow_children = false;
  ops->set_sampling_signal(c.get(), 34);
  ops->set_aux_word_1(c.get(), 0xA1);
  ops->set_log_level(c.get(), -1);
  c->quiet_info = 0;
  c->offline_stack_walk = 1;
  c->per_thread_files = 2;
  ops->set_compression_level(c.get(), -3);
  c->time_source = 5;
  ops->or_module_map_flags(c.get(), 0x30);
  c->pytrace_enabled = 2;
  c->signal_flag_1 = c->signal_flag_2 = c->pytrace_started = c->no_libc_runtime = true;
  c->stack_stitching_mode = 1;
  c->stracing = true;
  c->use_signal_stack = false;
  c->aux_flag_1 = true;
  c->ring_buffer_duration = 9;
  c->memory_size_threshold = 4096;
  c->aux_pair[0] = 0x11111111;
  c->aux_pair[1] = 0x22222222;
  c->aux_word_2 = 0xB2;
  c->aux_word_3 = 0xB3;
  for (unsigned r = 0; r < VORX_CONF_SYNC_THRESHOLD_ROWS; r++)
    c->sync_thresholds[r] = {r + 100, 0x100000000ull * r + r};
  ops->set_unwind_text(c.get(), "unwind");
  ops->set_aux_text_1(c.get(), "a1");
  ops->set_aux_text_2(c.get(), "a2");
  ops->set_data_dir(c.get(), "/tmp/res/");
  ops->set_aux_text_3(c.get(), "a3");
  ops->set_aux_text_4(c.get(), "a4");
  ops->set_sysinfo_text(c.get(), "sys");
  ops->set_time_source_text(c.get(), "tsc");
  ops->set_aux_text_5(c.get(), "a5");
  const uint32_t w1[] = {1, 2, 3, 0}, w2[] = {0xFFFFFFFF, 0}, w3[] = {0};
  ops->set_word_list_1(c.get(), w1);
  ops->set_word_list_2(c.get(), w2);
  ops->set_word_list_3(c.get(), w3);
  const char *env[] = {"LD_LIBRARY_PATH", "/opt/lib", "FOO", "bar baz", nullptr};
  const char *ignored[] = {"bash", "sh", nullptr};
  const char *aux[] = {"x", nullptr};
  vorx_conf_set_string_list(&c->environment, const_cast<char **>(env));
  vorx_conf_set_string_list(&c->ignored_processes, const_cast<char **>(ignored));
  vorx_conf_set_string_list(&c->aux_list, const_cast<char **>(aux));
  vorx_conf_add_collection(c.get(), vorx_cl_threading);
  vorx_conf_add_collection(c.get(), vorx_cl_opengles);
  vorx_conf_add_collection(c.get(), 40);
  return c;
}

void expect_same(const vorx_configuration &a, const vorx_configuration &b) {
#define SAME(f) EXPECT_EQ(a.f, b.f) << #f
  SAME(state); SAME(sampling_interval); SAME(origin_process_id); SAME(attach_requested);
  SAME(parent_process_id); SAME(process_id); SAME(is_root_process); SAME(profile_process);
  SAME(follow_children); SAME(sampling_signal); SAME(aux_word_1); SAME(log_level);
  SAME(quiet_info); SAME(offline_stack_walk); SAME(per_thread_files); SAME(compression_level);
  SAME(time_source); SAME(module_map_flags); SAME(pytrace_enabled); SAME(signal_flag_1);
  SAME(signal_flag_2); SAME(pytrace_started); SAME(no_libc_runtime); SAME(stack_stitching_mode);
  SAME(stracing); SAME(use_signal_stack); SAME(aux_flag_1); SAME(ring_buffer_duration);
  SAME(memory_size_threshold); SAME(aux_pair[0]); SAME(aux_pair[1]); SAME(aux_word_2);
  SAME(aux_word_3); SAME(collection_types[0]); SAME(collection_types[1]);
#undef SAME
  for (unsigned r = 0; r < VORX_CONF_SYNC_THRESHOLD_ROWS; r++) {
    EXPECT_EQ(a.sync_thresholds[r].kind, b.sync_thresholds[r].kind);
    EXPECT_EQ(a.sync_thresholds[r].threshold, b.sync_thresholds[r].threshold);
  }
  auto text = [](const char *s) { return std::string(s ? s : ""); };
#define SAME_TEXT(f) EXPECT_EQ(text(a.f), text(b.f)) << #f
  SAME_TEXT(unwind_text); SAME_TEXT(aux_text_1); SAME_TEXT(aux_text_2); SAME_TEXT(data_dir);
  SAME_TEXT(aux_text_3); SAME_TEXT(aux_text_4); SAME_TEXT(sysinfo_text);
  SAME_TEXT(time_source_text); SAME_TEXT(aux_text_5);
#undef SAME_TEXT
  EXPECT_EQ(as_strings(a.environment), as_strings(b.environment));
  EXPECT_EQ(as_strings(a.ignored_processes), as_strings(b.ignored_processes));
  EXPECT_EQ(as_strings(a.aux_list), as_strings(b.aux_list));
  EXPECT_EQ(as_words(a.word_list_1), as_words(b.word_list_1));
  EXPECT_EQ(as_words(a.word_list_2), as_words(b.word_list_2));
  EXPECT_EQ(as_words(a.word_list_3), as_words(b.word_list_3));
}

TEST(Configuration, DefaultsBeforeAnyPacket) {
  ConfPtr c = make_conf();
  EXPECT_EQ(c->state, (uint32_t)vorx_st_resumed);
  EXPECT_EQ(c->origin_process_id, (int32_t)getpid());
  EXPECT_TRUE(c->profile_process);
  EXPECT_TRUE(c->follow_children);
  EXPECT_FALSE(c->is_root_process);
  EXPECT_EQ(c->log_level, 2);
  EXPECT_EQ(c->quiet_info, 1u);
  EXPECT_EQ(c->per_thread_files, 1u);
  EXPECT_EQ(c->stack_stitching_mode, 2u);
  EXPECT_TRUE(c->use_signal_stack);
  EXPECT_EQ(c->memory_size_threshold, 1u);
  EXPECT_EQ(c->data_dir, nullptr);
  EXPECT_EQ(c->environment, nullptr);
}

TEST(Configuration, SettersCopyAndRefuseNull) {
  ConfPtr c = make_conf();
  char text[] = "/data/";
  ASSERT_EQ(c->ops->set_data_dir(c.get(), text), vorx_er_success);
  text[1] = 'X';
  EXPECT_STREQ(c->ops->get_data_dir(c.get()), "/data/");
  EXPECT_EQ(c->ops->set_data_dir(c.get(), nullptr), vorx_er_general_failure);
  EXPECT_STREQ(c->ops->get_data_dir(c.get()), "/data/");
  EXPECT_EQ(c->ops->set_word_list_1(c.get(), nullptr), vorx_er_general_failure);
}

TEST(Configuration, CloneIsDeep) {
  ConfPtr original = make_full_conf();
  ConfPtr copy(original->ops->clone(original.get()));
  ASSERT_TRUE(copy);
  expect_same(*original, *copy);
  EXPECT_NE(copy->data_dir, original->data_dir);
  EXPECT_NE(copy->environment, original->environment);
  EXPECT_NE(copy->environment[0], original->environment[0]);
  EXPECT_NE(copy->word_list_1, original->word_list_1);
  // The copy survives the original.
  original.reset();
  EXPECT_STREQ(copy->data_dir, "/tmp/res/");
  EXPECT_STREQ(copy->environment[3], "bar baz");
  EXPECT_EQ(as_words(copy->word_list_1), (std::vector<uint32_t>{1, 2, 3}));
}

// The byte layout, checked against offsets written out here by hand.
TEST(Packet, FixedPartLayout) {
  ConfPtr c = make_full_conf();
  auto p = pack(c.get());
  ASSERT_GE(p.size(), 376u);
  EXPECT_EQ(u32_at(p, 0), p.size());
  EXPECT_EQ(u32_at(p, 4), 0u);
  EXPECT_EQ(u64_at(p, 8), (uint64_t)vorx_st_paused);
  EXPECT_EQ(u64_at(p, 16), 0x123456789ull);
  EXPECT_EQ(u64_at(p, 24), (uint64_t)(int64_t)-7);  // sign-extended
  EXPECT_EQ(u64_at(p, 32), 1u);
  EXPECT_EQ(u64_at(p, 40), 4242u);
  EXPECT_EQ(u64_at(p, 48), 4343u);
  EXPECT_EQ(u64_at(p, 56), 1u);
  EXPECT_EQ(u64_at(p, 64), 0u);
  EXPECT_EQ(u64_at(p, 72), 0u);
  EXPECT_EQ(u64_at(p, 80), 34u);
  EXPECT_EQ(u64_at(p, 88), 0xA1u);
  EXPECT_EQ(u64_at(p, 96), 0xFFFFFFFFull);  // log level: a 32-bit cell, not extended
  EXPECT_EQ(u64_at(p, 104), 0u);
  EXPECT_EQ(u64_at(p, 112), 1u);
  EXPECT_EQ(u64_at(p, 120), 2u);
  EXPECT_EQ(u64_at(p, 128), (uint64_t)(int64_t)-3);
  EXPECT_EQ(u64_at(p, 136), 5u);
  EXPECT_EQ(u64_at(p, 144), 0x30u);
  EXPECT_EQ(u64_at(p, 152), 2u);
  for (size_t off : {160, 168, 176, 184, 200, 216}) EXPECT_EQ(u64_at(p, off), 1u) << off;
  EXPECT_EQ(u64_at(p, 192), 1u);
  EXPECT_EQ(u64_at(p, 208), 0u);
  EXPECT_EQ(u64_at(p, 224), 9u);
  EXPECT_EQ(u64_at(p, 232), 4096u);
  EXPECT_EQ(u32_at(p, 240), 0x11111111u);
  EXPECT_EQ(u32_at(p, 244), 0x22222222u);
  EXPECT_EQ(u64_at(p, 248), 0xB2u);
  EXPECT_EQ(u64_at(p, 256), 0xB3u);
  for (unsigned r = 0; r < 7; r++) {
    EXPECT_EQ(u32_at(p, 264 + 16 * r), r + 100);
    EXPECT_EQ(u32_at(p, 268 + 16 * r), 0u);
    EXPECT_EQ(u64_at(p, 272 + 16 * r), 0x100000000ull * r + r);
  }
}

TEST(Packet, VariablePartLayout) {
  ConfPtr c = make_full_conf();
  auto p = pack(c.get());
  std::vector<unsigned char> expected;
  auto word = [&](uint32_t w) {
    for (int i = 0; i < 4; i++) expected.push_back((unsigned char)(w >> (8 * i)));
  };
  auto text = [&](const char *s) { expected.insert(expected.end(), s, s + std::strlen(s) + 1); };
  for (uint32_t w : {1u, 2u, 3u, 0u, 0xFFFFFFFFu, 0u, 0u}) word(w);
  for (const char *s : {"unwind", "a1", "a2", "/tmp/res/", "a3", "a4", "sys", "tsc"}) text(s);
  for (const char *s : {"LD_LIBRARY_PATH", "/opt/lib", "FOO", "bar baz", ""}) text(s);
  for (const char *s : {"bash", "sh", ""}) text(s);
  word((1u << vorx_cl_threading) | (1u << vorx_cl_opengles));
  word(1u << (40 - 32));
  text("a5");
  for (const char *s : {"x", ""}) text(s);
  ASSERT_EQ(p.size(), 376 + expected.size());
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), p.begin() + 376));
}

TEST(Packet, EveryFieldSurvivesARoundTrip) {
  ConfPtr c = make_full_conf();
  ConfPtr back = unpack(pack(c.get()));
  ASSERT_TRUE(back);
  expect_same(*c, *back);
}

TEST(Packet, NullAndEmptyStringsAndListsComeBackEmpty) {
  ConfPtr c = make_conf();
  c->ops->set_aux_text_1(c.get(), "");
  const char *none[] = {nullptr};
  vorx_conf_set_string_list(&c->environment, const_cast<char **>(none));
  const uint32_t empty_words[] = {0};
  c->ops->set_word_list_2(c.get(), empty_words);
  auto p = pack(c.get());
  // Fixed part, three zero words, eight NULs, two list ends, 8 bytes, a NUL, a list end.
  EXPECT_EQ(p.size(), 376u + 12 + 8 + 2 + 8 + 1 + 1);
  ConfPtr back = unpack(p);
  ASSERT_TRUE(back);
  EXPECT_STREQ(back->ops->get_unwind_text(back.get()), "");
  EXPECT_STREQ(back->ops->get_aux_text_1(back.get()), "");
  EXPECT_STREQ(back->ops->get_data_dir(back.get()), "");
  EXPECT_STREQ(back->ops->get_aux_text_5(back.get()), "");
  EXPECT_EQ(back->environment, nullptr);
  EXPECT_EQ(back->ignored_processes, nullptr);
  EXPECT_EQ(back->aux_list, nullptr);
  ASSERT_NE(back->word_list_1, nullptr);
  EXPECT_EQ(back->word_list_1[0], 0u);
  expect_same(*c, *back);
}

TEST(Packet, AListWithAnEmptyItemCannotBePacked) {
  ConfPtr c = make_conf();
  const char *env[] = {"EMPTY", "", nullptr};
  vorx_conf_set_string_list(&c->environment, const_cast<char **>(env));
  EXPECT_TRUE(pack(c.get()).empty());
}

// Damaged packets: each must be refused without reading past the bytes given.
// The copies are exactly sized, so AddressSanitizer or valgrind would see a
// stray read.
std::vector<unsigned char> with_size(std::vector<unsigned char> p, size_t size) {
  p.resize(size);
  uint32_t count = (uint32_t)size;
  std::memcpy(p.data(), &count, 4);
  return p;
}

TEST(Packet, DamagedPacketsAreRefused) {
  const std::vector<unsigned char> good = pack(make_full_conf().get());
  std::vector<unsigned char> size_too_large = good, size_too_small = good;
  size_too_large.pop_back();
  uint32_t hundred = 100;
  std::memcpy(size_too_small.data(), &hundred, 4);
  const struct {
    const char *what;
    std::vector<unsigned char> packet;
  } cases[] = {
      {"empty", {}},
      {"shorter than the fixed part", {good.begin(), good.begin() + 375}},
      {"size word beyond the bytes received", size_too_large},
      {"size word below the fixed part", size_too_small},
  };
  for (const auto &c : cases) EXPECT_FALSE(unpack(c.packet)) << c.what;
  // Every cut of the variable part: word lists, strings without their NUL,
  // string lists without their end.
  for (size_t size = 376; size < good.size(); size++)
    EXPECT_FALSE(unpack(with_size(good, size))) << "size " << size;

  auto trailing = good;
  trailing.insert(trailing.end(), 16, 0xEE);
  ConfPtr back = unpack(trailing);
  ASSERT_TRUE(back) << "bytes after the block are ignored";
  EXPECT_STREQ(back->data_dir, "/tmp/res/");
}

// The words are the server's protocol: collections by name on its command
// line, states and commands in the texts exchanged.
TEST(Vocabulary, WordsAndTheirNumbers) {
  for (uint32_t i = 0; i < vorx_cl_eof; i++)
    EXPECT_EQ(vorx_string_to_collection(vorx_collection_to_string(i)), i);
  EXPECT_EQ(vorx_string_to_collection("opengles"), 14u);
  EXPECT_EQ(vorx_string_to_collection("CPU"), (uint32_t)vorx_cl_eof) << "case matters";
  EXPECT_STREQ(vorx_collection_to_string(vorx_cl_eof), "<unknown collection>");
  EXPECT_STREQ(vorx_state_to_string(0), "Pause");
  EXPECT_EQ(vorx_string_to_state("Resume"), 1u);
  EXPECT_EQ(vorx_string_to_state("Detach"), (uint32_t)vorx_st_eof);
  const char *words[] = {"state", "reattach", "attach", "stop", "ready", "config",
                         "new", "end", "error", "warning", "info", "symfile"};
  for (uint32_t i = 0; i < 12; i++) {
    EXPECT_EQ(vorx_string_to_command(words[i]), i);
    EXPECT_STREQ(vorx_command_to_string(i), words[i]);
  }
  for (const char *other : {"statex", "State", "state:Pause"})
    EXPECT_EQ(vorx_string_to_command(other), 12u) << other;
  EXPECT_STREQ(vorx_command_to_string(12), "eof");
}

// A catalogue made up for the test: collection c owns probe 10 * c, and probe
// 150 serves both "cpu" and stitching, probe 3 the online walker.
const vorx_bitmap_t *fake_collection_probes(uint32_t collection) {
  static vorx_bitmap_t maps[vorx_cl_eof][VORX_CONF_PROBE_WORDS];
  static bool built = false;
  if (!built) {
    for (uint32_t c = 0; c < vorx_cl_eof; c++) {
      uint32_t bit = 10 * c + 1;
      maps[c][bit / 32] |= 1u << (bit % 32);
    }
    maps[0][150 / 32] |= 1u << (150 % 32);
    maps[0][3 / 32] |= 1u << 3;
    maps[0][559 / 32] |= 1u << (559 % 32);
    built = true;
  }
  return collection < vorx_cl_eof ? maps[collection] : nullptr;
}

bool probe_on(const vorx_configuration &c, unsigned bit) {
  return (c.active_probes[bit / 32] >> (bit % 32)) & 1u;
}

TEST(ActiveProbes, CollectionsAndModesSelectTheProbes) {
  vorx_bitmap_t online[VORX_CONF_PROBE_WORDS] = {};
  vorx_bitmap_t stitching[VORX_CONF_PROBE_WORDS] = {};
  online[0] = 1u << 3;
  stitching[150 / 32] = 1u << (150 % 32);
  vorx_probe_sets sets{fake_collection_probes, online, stitching};
  const struct {
    const char *what;
    std::vector<uint32_t> collections;
    uint32_t offline_stack_walk, stitching_mode;
    std::vector<unsigned> on, off;
  } cases[] = {
      {"collection 0 is always on", {}, 0, 2, {1, 559, 150, 3}, {11}},
      {"selected collections are added", {vorx_cl_io, vorx_cl_opengles}, 0, 2, {1, 21, 141}, {31}},
      {"offline walk drops the online walker", {}, 1, 2, {150, 1}, {3}},
      {"stitching mode 1 drops the stitching probes", {}, 0, 1, {3, 1}, {150}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    ConfPtr conf = make_conf();
    for (uint32_t collection : c.collections) vorx_conf_add_collection(conf.get(), collection);
    conf->offline_stack_walk = c.offline_stack_walk;
    conf->stack_stitching_mode = c.stitching_mode;
    vorx_conf_derive_active_probes(conf.get(), &sets);
    for (unsigned bit : c.on) EXPECT_TRUE(probe_on(*conf, bit)) << bit;
    for (unsigned bit : c.off) EXPECT_FALSE(probe_on(*conf, bit)) << bit;
  }
}

}  // namespace
