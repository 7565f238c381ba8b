// Module-load probing seen from a 32-bit program running under the engine with
// the probing test tool: which rows of the probe table were filled, which
// functions really run through a wrapper, when the start-up gates ran, and what
// was reported. The program asks the tool through probing_tool_query, which the
// tool replaces; run without the tool, every test fails with "no tool".
#include <dlfcn.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>

#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ozknotify_api_table.h"

extern "C" {
__attribute__((noinline, used, visibility("default"))) int probing_tool_query(const char *question, char *answer,
                                                                             int size) {
  return snprintf(answer, size, "no tool: %s", question);
}
int getw(FILE *);  // the program's own, in probing_getw.S
int probing_lib_function(int x);
}

namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

__attribute__((constructor)) void exe_constructor() {
  char ignored[8];
  probing_tool_query("mark exe constructor", ignored, sizeof ignored);
}

__attribute__((format(printf, 1, 2))) std::string ask(const char *format, ...) {
  char question[256], answer[8192];
  va_list args;
  va_start(args, format);
  vsnprintf(question, sizeof question, format, args);
  va_end(args);
  probing_tool_query(question, answer, sizeof answer);
  return answer;
}

struct Row {
  uintptr_t trampoline = 0, original = 0;
  int is_dynamic = -1;
  std::string module;
  bool filled() const { return original != 0; }
  bool probed() const { return filled() && trampoline != original; }
};

Row row(const char *fn, const char *module, unsigned ver) {
  std::string text = ask("row %s %s %u", fn, module, ver);
  Row r;
  unsigned long t, o;
  EXPECT_EQ(sscanf(text.c_str(), "%lx %lx %d", &t, &o, &r.is_dynamic), 3) << fn << " in " << module << ": " << text;
  r.trampoline = t, r.original = o, r.module = module;
  return r;
}

Row head(const char *fn) {
  std::string text = ask("head %s", fn);
  Row r;
  unsigned long t, o;
  char module[96] = "";
  EXPECT_EQ(sscanf(text.c_str(), "%lx %lx %95s %d", &t, &o, module, &r.is_dynamic), 4) << fn << ": " << text;
  r.trampoline = t, r.original = o, r.module = module;
  return r;
}

long hits(const char *fn, const char *module, unsigned ver) {
  return strtol(ask("hits %s %s %u", fn, module, ver).c_str(), nullptr, 10);
}

uintptr_t symbol(const char *name) { return reinterpret_cast<uintptr_t>(dlsym(RTLD_DEFAULT, name)); }
uintptr_t symbol(const char *name, const char *version) {
  return reinterpret_cast<uintptr_t>(dlvsym(RTLD_DEFAULT, name, version));
}

// ------------------------------------------------------------------ probes in libc

TEST(LibcProbes, ActiveFunctionRunsThroughItsWrapperOnEveryCall) {
  Row lock = row("pthread_mutex_lock", "libc.so", 0);
  EXPECT_TRUE(lock.probed());
  EXPECT_EQ(lock.original, symbol("pthread_mutex_lock"));
  EXPECT_EQ(lock.is_dynamic, 1);

  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  long before = hits("pthread_mutex_lock", "libc.so", 0);
  for (int i = 0; i < 1000; ++i) {
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
  }
  EXPECT_EQ(hits("pthread_mutex_lock", "libc.so", 0) - before, 1000);

  Row lock_head = head("pthread_mutex_lock");
  EXPECT_EQ(lock_head.module, "libc.so");
  EXPECT_EQ(lock_head.trampoline, lock.trampoline);
  EXPECT_EQ(lock_head.original, lock.original);
}

TEST(LibcProbes, EmployedFunctionIsResolvedWithoutProbe) {
  // pthread_mutex_trylock is not active: its row and head row name the function
  // itself, and its code is left alone. Its second version is the same routine.
  Row trylock = row("pthread_mutex_trylock", "libc.so", 0);
  EXPECT_TRUE(trylock.filled());
  EXPECT_EQ(trylock.trampoline, trylock.original);
  EXPECT_EQ(trylock.original, symbol("pthread_mutex_trylock"));
  EXPECT_NE(*reinterpret_cast<const unsigned char *>(trylock.original), 0xE9) << "a jump was written";
  EXPECT_FALSE(row("pthread_mutex_trylock", "libc.so", 1).filled());

  Row trylock_head = head("pthread_mutex_trylock");
  EXPECT_EQ(trylock_head.module, "libc.so");
  EXPECT_EQ(trylock_head.trampoline, trylock.original);

  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  using trylock_fn = int (*)(pthread_mutex_t *);
  ASSERT_EQ(reinterpret_cast<trylock_fn>(trylock_head.trampoline)(&mutex), 0);
  EXPECT_NE(reinterpret_cast<trylock_fn>(trylock_head.trampoline)(&mutex), 0) << "the head row is not trylock";
  pthread_mutex_unlock(&mutex);
}

TEST(LibcProbes, FunctionNeitherActiveNorEmployedIsLeftAlone) {
  for (unsigned ver = 0; ver < 3; ++ver) EXPECT_FALSE(row("pthread_spin_lock", "libc.so", ver).filled());
  EXPECT_FALSE(head("pthread_spin_lock").filled());
}

TEST(LibcProbes, EachSymbolVersionGetsItsOwnRowAndTrampoline) {
  Row first = row("pthread_cond_wait", "libc.so", 0);
  Row second = row("pthread_cond_wait", "libc.so", 1);
  ASSERT_TRUE(first.probed());
  ASSERT_TRUE(second.probed());
  EXPECT_NE(first.original, second.original);
  EXPECT_NE(first.trampoline, second.trampoline);
  uintptr_t current = symbol("pthread_cond_wait", "GLIBC_2.3.2");
  uintptr_t old = symbol("pthread_cond_wait", "GLIBC_2.0");
  EXPECT_TRUE((first.original == current && second.original == old) ||
              (first.original == old && second.original == current));
  EXPECT_FALSE(row("pthread_cond_wait", "libc.so", 2).filled());
  // The default version ("@@") is the one the collector calls.
  Row cond_head = head("pthread_cond_wait");
  EXPECT_EQ(cond_head.original, current);
  EXPECT_EQ(cond_head.trampoline, current == first.original ? first.trampoline : second.trampoline);
}

TEST(LibcProbes, AliasesShareOneProbe) {
  // cfree@GLIBC_2.0 is free under another name: one wrapper, one trampoline.
  Row free_row = row("free", "libc.so", 0);
  Row cfree_row = row("cfree", "libc.so", 0);
  ASSERT_TRUE(free_row.probed());
  EXPECT_EQ(cfree_row.original, free_row.original);
  EXPECT_EQ(cfree_row.trampoline, free_row.trampoline);
  // Two versions of _pthread_cleanup_push at one address fill one row.
  EXPECT_TRUE(row("_pthread_cleanup_push", "libc.so", 0).filled());
  EXPECT_FALSE(row("_pthread_cleanup_push", "libc.so", 1).filled());

  long before = hits("free", "libc.so", 0) + hits("cfree", "libc.so", 0);
  void *volatile block = malloc(64);  // volatile: the pair must not be optimised away
  free(block);
  EXPECT_EQ(hits("free", "libc.so", 0) + hits("cfree", "libc.so", 0) - before, 1);
}

// ------------------------------------------------------------------ the executable

TEST(ExecutableProbes, RoutineTooShortIsReportedAndStaysCallable) {
  Row exe_getw = row("getw", "exe", 0);
  EXPECT_EQ(exe_getw.original, reinterpret_cast<uintptr_t>(&getw));
  EXPECT_EQ(exe_getw.trampoline, exe_getw.original);
  EXPECT_THAT(ask("reports"), HasSubstr("<arg name='func_name' value='getw' />"));
  // What the executable exports wins over libc's copy, probed as it is.
  EXPECT_TRUE(row("getw", "libc.so", 0).probed());
  Row getw_head = head("getw");
  EXPECT_EQ(getw_head.module, "exe");
  EXPECT_EQ(getw_head.is_dynamic, 1);
  EXPECT_EQ(getw_head.original, exe_getw.original);
  EXPECT_EQ(getw(stdin), 0);
}

TEST(ExecutableProbes, LoadStateIsKept) {
  unsigned long entry = 0;
  unsigned exe_id = 0;
  int libc = 0, libpthread = 0;
  ASSERT_EQ(sscanf(ask("flags").c_str(), "libc=%d libpthread=%d exe_id=%u entry=%lx", &libc, &libpthread, &exe_id,
                   &entry),
            4);
  EXPECT_EQ(libc, 1);
  EXPECT_NE(exe_id, 0xFFFFFFFFu);
  EXPECT_EQ(entry, getauxval(AT_ENTRY));
}

// ------------------------------------------------------------------ gates

// The program's argument count as the kernel gave it.
int own_argc() {
  FILE *file = fopen("/proc/self/cmdline", "r");
  int count = 0;
  for (int c; file && (c = fgetc(file)) != EOF;) count += c == '\0';
  if (file) fclose(file);
  return count;
}

TEST(StartGates, LibcGateRunsWithEnvironmentBeforeAnyOtherConstructor) {
  EXPECT_EQ(probing_lib_function(2), 7);
  std::string expected = "libc gate(loaded=1,getenv=seen-by-the-gate);"
                         "library constructor;"
                         "exe gate(argc=" + std::to_string(own_argc()) + ",start=1);"
                         "exe constructor;";
  EXPECT_THAT(ask("events"), StartsWith(expected));
}

TEST(StartGates, OrdinaryRunReportsNoFailureForLibc) {
  std::string reports = ask("reports");
  EXPECT_THAT(reports, Not(ContainsRegex("name='67'>[^\n]*libc\\.so")));
  EXPECT_THAT(reports, Not(HasSubstr("value='_init'")));
  EXPECT_THAT(ask("events"), Not(HasSubstr("improperly linked")));
}

TEST(StartGates, ThreadLibraryLoadedLaterGetsItsGates) {
  // libpthread.so.0 has only placeholder symbols: its gates stand on DT_INIT and DT_FINI.
  void *handle = dlopen("libpthread.so.0", RTLD_NOW);
  ASSERT_NE(handle, nullptr) << dlerror();
  EXPECT_THAT(ask("events"), HasSubstr("libpthread gate;"));
  EXPECT_THAT(ask("flags"), HasSubstr("libpthread=1"));
  EXPECT_THAT(ask("reports"), Not(ContainsRegex("name='67'>[^\n]*libpthread")));
  ASSERT_EQ(dlclose(handle), 0);
  EXPECT_THAT(ask("events"), HasSubstr("libpthread gate;libpthread fini gate;"));
  EXPECT_THAT(ask("flags"), HasSubstr("libpthread=0"));
}

// ------------------------------------------------------------------ module map and helper libraries

TEST(ModuleEvents, LibraryWithoutDescriptorIsStillMapped) {
  // Loaded before the runtime opened: handed to the module map directly.
  auto function = reinterpret_cast<uintptr_t>(&probing_lib_function);
  EXPECT_EQ(ask("executable %lx", static_cast<unsigned long>(function)), "1");
  EXPECT_THAT(ask("module %lx", static_cast<unsigned long>(function)), HasSubstr("libprobing_test_lib.so"));
  EXPECT_THAT(ask("events"), Not(HasSubstr("libprobing_test_lib.so")));
}

TEST(ModuleEvents, HelperLibraryRangeAndModuleFollowLoadAndUnload) {
  void *handle = dlopen(PROBING_HELPER_PATH, RTLD_NOW);
  ASSERT_NE(handle, nullptr) << dlerror();
  auto function = reinterpret_cast<uintptr_t>(dlsym(handle, "probing_helper_function"));
  ASSERT_NE(function, 0u);

  unsigned long long start = 0, end = 0;
  ASSERT_EQ(sscanf(ask("ozknotify range").c_str(), "%llx %llx", &start, &end), 2);
  EXPECT_LE(start, function);
  EXPECT_GT(end, function);
  EXPECT_THAT(ask("module %lx", static_cast<unsigned long>(function)), HasSubstr("libozknotify.so"));
  EXPECT_EQ(ask("executable %lx", static_cast<unsigned long>(function)), "1");
  // Loaded after the runtime opened: registered, and announced (message 14).
  char registered[256];
  snprintf(registered, sizeof registered, "registered %s %llx %llx;", PROBING_HELPER_PATH, start, end);
  EXPECT_THAT(ask("events"), HasSubstr(registered));
  EXPECT_THAT(ask("reports"), HasSubstr("<msg name='14'><arg name='time_mark' value='"));
  EXPECT_THAT(ask("reports"), HasSubstr("<arg name='img_name' value='" PROBING_HELPER_PATH "' />"));

  ASSERT_EQ(dlclose(handle), 0);
  EXPECT_EQ(ask("ozknotify range"), "0 0");
  EXPECT_EQ(ask("executable %lx", static_cast<unsigned long>(function)), "0");
}

// ------------------------------------------------------------------ attach mode

// Run with the tool's -init_type 2 -replay 1: no start-up gate, and every image
// event handed over twice (the second must change nothing).
// ---- the annotation library's hand-over table

int g_inc_calls = 0;
void library_inc(const void *, const void *) { ++g_inc_calls; }
void library_dec(const void *, const void *) {}
void library_other(void) {}

// A table as the annotation library lays it out; static, because the tool remembers it for a re-attach.
ozk_api_table_entry g_slots[3];
ozk_api_table g_table;

void lay_out_table() {
  g_slots[0] = {"__ozk_counter_inc_v3", reinterpret_cast<void *>(&library_inc)};  // active, with a wrapper
  g_slots[1] = {"__ozk_counter_dec_v3", reinterpret_cast<void *>(&library_dec)};  // not active
  g_slots[2] = {"no_such_function", reinterpret_cast<void *>(&library_other)};   // no row at all
  g_table = {OZK_API_TABLE_MAGIC, OZK_API_TABLE_VERSION, sizeof g_table, 0, 3, g_slots, 0};
}

void call_inc_slot() { reinterpret_cast<void (*)(const void *, const void *)>(g_slots[0].fn)(nullptr, nullptr); }

TEST(HandOver, ActiveSlotsCallTheWrapperWhichCallsTheLibrary) {
  lay_out_table();
  EXPECT_EQ(ask("handover %lx", (unsigned long)&g_table), "e");
  EXPECT_NE(g_slots[0].fn, reinterpret_cast<void *>(&library_inc));
  EXPECT_EQ(g_slots[1].fn, reinterpret_cast<void *>(&library_dec));
  EXPECT_EQ(g_slots[2].fn, reinterpret_cast<void *>(&library_other));
  EXPECT_EQ(row("__ozk_counter_dec_v3", "unknown.unk", 0).original, (uintptr_t)&library_dec);
  EXPECT_EQ(head("__ozk_counter_inc_v3").original, (uintptr_t)&library_inc);

  call_inc_slot();
  EXPECT_EQ(g_inc_calls, 1);
  EXPECT_EQ(hits("__ozk_counter_inc_v3", "unknown.unk", 0), 1);

  // handed over again, the slot holds the wrapper already: the library's function stays the original
  ask("handover %lx", (unsigned long)&g_table);
  call_inc_slot();
  EXPECT_EQ(g_inc_calls, 2);
  EXPECT_EQ(hits("__ozk_counter_inc_v3", "unknown.unk", 0), 2);

  // detach gives the library's functions back, attach takes them again
  ask("give back");
  EXPECT_EQ(g_slots[0].fn, reinterpret_cast<void *>(&library_inc));
  EXPECT_EQ(g_slots[1].fn, reinterpret_cast<void *>(&library_dec));
  ask("retake");
  call_inc_slot();
  EXPECT_EQ(g_inc_calls, 3);
  EXPECT_EQ(hits("__ozk_counter_inc_v3", "unknown.unk", 0), 3);
  ask("give back");
  ask("forget");
}

TEST(HandOver, TableOfAnotherFormIsLeftAlone) {
  lay_out_table();
  g_table.magic = 0;
  EXPECT_EQ(ask("handover %lx", (unsigned long)&g_table), "e");
  EXPECT_EQ(ask("handover 0"), "e");
  EXPECT_EQ(g_slots[0].fn, reinterpret_cast<void *>(&library_inc));
}

// What the library is told of the collection: 0xE always, and one bit for each kind of annotation collected.
TEST(HandOver, MaskFollowsTheCollections) {
  EXPECT_EQ(ask("mask"), "e");
  EXPECT_EQ(ask("mask threading"), "e");  // user sync objects need user_sync as well
  EXPECT_EQ(ask("mask threading user_sync"), "1e");
  EXPECT_EQ(ask("mask waiting user_sync"), "1e");
  EXPECT_EQ(ask("mask task"), "100e");
  EXPECT_EQ(ask("mask frame"), "120e");
  EXPECT_EQ(ask("mask stitching"), "40e");
}

TEST(AttachMode, NoGateIsSetAndRepeatedEventsChangeNoRow) {
  EXPECT_THAT(ask("events"), Not(HasSubstr("gate")));
  EXPECT_THAT(ask("reports"), Not(HasSubstr("value='_init'")));
  int replayed = 0, changed = -1;
  ASSERT_EQ(sscanf(ask("replays").c_str(), "replayed=%d changed=%d", &replayed, &changed), 2);
  EXPECT_GE(replayed, 3);  // at least the executable, the loader and libc
  EXPECT_EQ(changed, 0);
  EXPECT_TRUE(row("pthread_mutex_lock", "libc.so", 0).probed());
}

}  // namespace
