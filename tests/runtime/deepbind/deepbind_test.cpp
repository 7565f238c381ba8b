// The deepbind layer's start-up, thread-specific data across the arrival of
// the application's thread library, and the calls it passes on.
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "deepbind_fixture.h"

namespace dbtest {
namespace {

uint16_t gs_selector() {
  uint16_t gs;
  __asm__ volatile("movw %%gs, %0" : "=r"(gs));
  return gs;
}

TEST_F(DeepbindTest, InitKeepsAThreadPointerThatTheLoaderSetUp) {
  uint16_t before = gs_selector();
  void* tcb = nullptr;
  __asm__ volatile("movl %%gs:0, %0" : "=r"(tcb));
  vorx_deepbind_init(0);
  EXPECT_EQ(gs_selector(), before);
  void* after = nullptr;
  __asm__ volatile("movl %%gs:0, %0" : "=r"(after));
  EXPECT_EQ(after, tcb);
  EXPECT_EQ(g_process_id, (uint32_t)getpid());
  EXPECT_EQ(g_pthread_load_mode, (uint32_t)vorx_deepbind_pthread_mode_unavailable);
  EXPECT_TRUE(vorx_deepbind_is_active());
}

// Exits through the trap: the C library's stubs need the old thread block.
[[noreturn]] void trap_exit(int code) {
  __asm__ volatile("int $0x80" : : "a"(252 /* exit_group */), "b"(code));
  __builtin_unreachable();
}

TEST_F(DeepbindTest, InitGivesAThreadBlockToAMainThreadWithoutOne) {
  EXPECT_EXIT(
      {
        __asm__ volatile("movw %w0, %%gs" : : "r"(0));
        vorx_deepbind_init(0);
        void* block = nullptr;
        __asm__ volatile("movl %%gs:0, %0" : "=r"(block));
        int failures = gs_selector() == 0;
        failures += block == nullptr || *(void**)block != block;
        trap_exit(failures);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(DeepbindTest, KeysLiveInStaticSlotsUntilTheLibraryComes) {
  pthread_key_t keys[5];
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(vorx_db_key_create(&keys[i], nullptr), 0);
    EXPECT_EQ(keys[i], (pthread_key_t)i);
    EXPECT_EQ(g_tls_map.pthread_keys[i], VORX_DEEPBIND_NO_KEY);
  }
  pthread_key_t sixth;
  EXPECT_DEATH(vorx_db_key_create(&sixth, nullptr), "There is no available deepbind TLS keys anymore.");
  EXPECT_DEATH(vorx_db_getspecific(5), "deepbind_key < 5");

  int value;
  EXPECT_EQ(vorx_db_getspecific(keys[0]), nullptr);
  vorx_db_setspecific(keys[0], &value);
  EXPECT_EQ(vorx_db_getspecific(keys[0]), &value);
  EXPECT_EQ(vorx_db_self(), (pthread_t)0) << "no thread library yet";
  pthread_attr_t attr;
  EXPECT_EQ(vorx_db_getattr_np(pthread_self(), &attr), -1);
}

TEST_F(DeepbindTest, MainThreadSeesTheSameValueBeforeAndAfterTheLibraryLoads) {
  pthread_key_t key;
  ASSERT_EQ(vorx_db_key_create(&key, nullptr), 0);
  int before;
  vorx_db_setspecific(key, &before);

  load_library();
  EXPECT_EQ(g_pthread_load_mode, (uint32_t)vorx_deepbind_pthread_mode_dynamic);
  EXPECT_NE(g_tls_map.pthread_keys[key], VORX_DEEPBIND_NO_KEY) << "a real key was made";
  EXPECT_EQ(vorx_db_getspecific(key), &before);

  // Other threads have their own values, in the application's key.
  std::thread other([&] {
    EXPECT_EQ(vorx_db_getspecific(key), nullptr);
    int mine;
    vorx_db_setspecific(key, &mine);
    EXPECT_EQ(vorx_db_getspecific(key), &mine);
    EXPECT_EQ(vorx_db_self(), pthread_self());
  });
  other.join();
  EXPECT_EQ(vorx_db_getspecific(key), &before);

  // A value stored by the main thread after the load survives the unload.
  int after;
  vorx_db_setspecific(key, &after);
  EXPECT_EQ(vorx_db_getspecific(key), &after);
  vorx_deepbind_notify_on_pthread_unloaded();
  EXPECT_EQ(g_tls_map.pthread_keys[key], VORX_DEEPBIND_NO_KEY);
  EXPECT_EQ(vorx_db_getspecific(key), &after);
}

TEST_F(DeepbindTest, KeyMadeAfterTheLoadGetsARealKeyAtOnce) {
  load_library();
  pthread_key_t key;
  ASSERT_EQ(vorx_db_key_create(&key, nullptr), 0);
  EXPECT_NE(g_tls_map.pthread_keys[key], VORX_DEEPBIND_NO_KEY);
  std::thread other([&] {
    // A descriptor-like block whose first word is another thread's id is that thread's.
    uint32_t foreign_block[4] = {g_process_id + 1, 0, 0, 0};
    vorx_db_setspecific(key, foreign_block);
    EXPECT_EQ(vorx_db_getspecific(key), foreign_block);
    EXPECT_EQ(g_tls_map.main_values[key], nullptr);
    // One whose first word is the process id is the main thread's, wherever stored.
    static uint32_t main_block[4];
    main_block[0] = g_process_id;
    vorx_db_setspecific(key, main_block);
    EXPECT_EQ(g_tls_map.main_values[key], main_block);
    EXPECT_EQ(vorx_db_getspecific(key), main_block);
  });
  other.join();
  EXPECT_NE(vorx_db_getspecific(key), nullptr)
      << "the main thread sees a main-thread descriptor that another thread stored";
}

TEST_F(DeepbindTest, ServiceThreadUsesItsOwnValuesAndMayNotCallTheLibrary) {
  pthread_key_t key;
  ASSERT_EQ(vorx_db_key_create(&key, nullptr), 0);
  int main_value, service_value;
  vorx_db_setspecific(key, &main_value);
  std::thread service([&] {
    char here;
    uintptr_t sp = (uintptr_t)&here;
    vorx_deepbind_set_internal_thread_stack_boundaries(sp + 4096, sp - 65536);
    EXPECT_EQ(is_control_service_thread_current(), 1);
    EXPECT_EQ(vorx_db_getspecific(key), nullptr);
    vorx_db_setspecific(key, &service_value);
    EXPECT_EQ(vorx_db_getspecific(key), &service_value);
    vorx_deepbind_set_internal_thread_stack_boundaries(0, 0);
  });
  service.join();
  EXPECT_EQ(vorx_db_getspecific(key), &main_value);
  EXPECT_EQ(g_tls_map.service_values[key], &service_value);

  char here;
  uintptr_t sp = (uintptr_t)&here;
  vorx_deepbind_set_internal_thread_stack_boundaries(sp + 4096, sp - 65536);
  EXPECT_DEATH(vorx_db_self(), "is_control_service_thread_current\\(\\) == 0");
  EXPECT_DEATH(vorx_db_getenv("HOME"), "is_control_service_thread_current\\(\\) == 0");
  vorx_deepbind_set_internal_thread_stack_boundaries(0, 0);
}

TEST_F(DeepbindTest, LoadNotificationChecksItsPreconditions) {
  EXPECT_DEATH(vorx_deepbind_notify_on_pthread_loaded(2, vorx_deepbind_pthread_mode_dynamic),
               "vorx_pi_pthread_key_create.*trampoline");
  fill_application_rows();
  EXPECT_DEATH(vorx_deepbind_notify_on_pthread_loaded(2, 0), "mode == vorx_deepbind_pthread_mode_static");
  EXPECT_DEATH(vorx_deepbind_notify_on_pthread_loaded(2, vorx_deepbind_pthread_mode_go),
               "x86 mode is not implemented");
  std::thread other([] {
    EXPECT_DEATH(vorx_deepbind_notify_on_pthread_loaded(1, vorx_deepbind_pthread_mode_dynamic),
                 "Attempt to load libpthread.so by a thread different from the main one. Unsupported.");
  });
  other.join();
  vorx_deepbind_notify_on_pthread_loaded(1, vorx_deepbind_pthread_mode_static);
  EXPECT_DEATH(vorx_deepbind_notify_on_pthread_unloaded(),
               "Attempt to unload libpthread.so aliased by the main executable. Unsupported.");
  // A second load in static mode only tells the interpreter tracer.
  vorx_deepbind_notify_on_pthread_loaded(1, vorx_deepbind_pthread_mode_static);
  g_pthread_load_mode = vorx_deepbind_pthread_mode_unavailable;
}

TEST_F(DeepbindTest, ForkedChildStartsWithEmptyValues) {
  pthread_key_t key;
  ASSERT_EQ(vorx_db_key_create(&key, nullptr), 0);
  int value;
  vorx_db_setspecific(key, &value);
  pid_t child = fork();
  if (child == 0) {
    vorx_deepbind_reset();
    int failures = g_process_id != (uint32_t)getpid();
    failures += vorx_db_getspecific(key) != nullptr;
    _exit(failures);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(vorx_db_getspecific(key), &value);
}

// The thread keeps the values it read; the thread library's own clearing at thread end (the value is set to
// null before the destructor runs) must not leave a stale copy behind, nor may a fork.
pthread_key_t g_destroyed_key, g_plain_key;
void* g_seen_in_destructor = &g_destroyed_key;
void* g_plain_seen_in_destructor = &g_plain_key;
void read_in_destructor(void*) {
  g_seen_in_destructor = vorx_db_getspecific(g_destroyed_key);
  g_plain_seen_in_destructor = vorx_db_getspecific(g_plain_key);
}

TEST_F(DeepbindTest, KeptValuesFollowStoresDestructorsAndForks) {
  load_library();
  pthread_key_t plain;  // no destructor of its own: its value is cleared at the thread's end all the same
  ASSERT_EQ(vorx_db_key_create(&plain, nullptr), 0);
  ASSERT_EQ(vorx_db_key_create(&g_destroyed_key, read_in_destructor), 0);
  int first = 0, second = 0;
  std::thread([&] {
    EXPECT_EQ(vorx_db_getspecific(g_destroyed_key), nullptr);
    vorx_db_setspecific(g_destroyed_key, &first);
    EXPECT_EQ(vorx_db_getspecific(g_destroyed_key), &first);
    vorx_db_setspecific(g_destroyed_key, &second);
    EXPECT_EQ(vorx_db_getspecific(g_destroyed_key), &second);
    EXPECT_EQ(vorx_db_getspecific(g_destroyed_key), &second);
    vorx_db_setspecific(plain, &first);
    EXPECT_EQ(vorx_db_getspecific(plain), &first);
    g_plain_key = plain;
  }).join();
  EXPECT_EQ(g_seen_in_destructor, nullptr);
  EXPECT_EQ(g_plain_seen_in_destructor, nullptr);

  vorx_db_setspecific(g_destroyed_key, &first);
  EXPECT_EQ(vorx_db_getspecific(g_destroyed_key), &first);
  pid_t child = fork();
  if (child == 0) {
    vorx_deepbind_reset();
    _exit(vorx_db_getspecific(g_destroyed_key) == &first ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the forking thread's own value stays";
}

TEST_F(DeepbindTest, ApplicationFunctionsGoThroughTheProbeTable) {
  EXPECT_DEATH(applibc___errno_location(), "vorx_pi___errno_location.*trampoline");
  EXPECT_EQ(vorx_db_getenv("PATH"), nullptr) << "no getenv row: nothing to ask";
  fill_application_rows();
  EXPECT_EQ(applibc___errno_location(), &errno);
  setenv("VORX_DEEPBIND_TEST", "yes", 1);
  ASSERT_NE(vorx_db_getenv("VORX_DEEPBIND_TEST"), nullptr);
  EXPECT_STREQ(vorx_db_getenv("VORX_DEEPBIND_TEST"), "yes");

  load_library();
  pthread_attr_t attr;
  ASSERT_EQ(vorx_db_getattr_np(pthread_self(), &attr), 0);
  pthread_attr_destroy(&attr);
  EXPECT_EQ(vorx_db_self(), pthread_self());
  char block[20];
  memset(block, 0x55, sizeof block);
  EXPECT_EQ(vorx_go_internal_new_thread_allocate_tls_on_stack(block), block);
  EXPECT_EQ(block[19], 0);
  EXPECT_DEATH(vorx_go_internal_new_thread_init_tls(), "x86 mode is not implemented");
}

}  // namespace
}  // namespace dbtest
