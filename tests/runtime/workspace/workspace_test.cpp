// Workspaces through the thread manager's callbacks, their trace units, and
// the enter/leave protocol, which must hand the application back its errno on
// every path.
#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "trace_names.h"
#include "vorx_config.h"
#include "vorx_deepbind.h"
#include "vorx_probe_table.h"
#include "signal_manager.h"
#include "workspace.h"

namespace {

vorx_u32_t gettid_now() { return (vorx_u32_t)syscall(SYS_gettid); }

class WorkspaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vorx_wsp_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = std::string(pattern) + "/";
    conf_ = vorx_alloc_configuration();
    ASSERT_NE(conf_, nullptr);
    conf_->ops->set_data_dir(conf_, dir_.c_str());
    vorx_conf_publish(conf_);
    vorx_reset_process_trace_counter();
    vorx_head_row(vorx_pi___errno_location)->trampoline = (void*)&__errno_location;
    g_vorx_tmu_creator = vorx_tmu_creator_alloc(0);
    ASSERT_EQ(pthread_key_create(&key_, nullptr), 0);
  }
  void TearDown() override {
    if (g_vorx_thread_manager) {
      vorx_thread_manager_complete_threads(g_vorx_thread_manager);
      vorx_thread_manager_destroy(g_vorx_thread_manager);
      g_vorx_thread_manager = nullptr;
    }
    vorx_tmu_free_all_tmus();
    pthread_key_delete(key_);
    std::string cmd = "rm -rf " + dir_;
    (void)!system(cmd.c_str());
  }
  // The collector's order: create, create global, enable threads.
  void start_manager() {
    ASSERT_EQ(vorx_thread_manager_create(&g_vorx_thread_manager, 128, vorx_alloc_global, vorx_free_global, nullptr,
                                         nullptr),
              vorx_thread_manager_op_err_ok);
    ASSERT_EQ(vorx_thread_manager_create_global(g_vorx_thread_manager), vorx_thread_manager_op_err_ok);
    ASSERT_EQ(vorx_enable_workspace_threads(key_, 128, 500), vorx_thread_manager_op_err_ok);
  }
  vorx_workspace* global() { return static_cast<vorx_workspace*>(g_vorx_thread_manager->global); }
  vorx_workspace* register_self() {
    vorx_registration_data reg = {gettid_now(), vorx_th_reg_self, nullptr};
    EXPECT_EQ(vorx_thread_manager_register(g_vorx_thread_manager, reg.handle, &reg), vorx_thread_manager_op_err_ok);
    vorx_ts_desc_t* key = nullptr;
    void* data = nullptr;
    EXPECT_EQ(vorx_thread_manager_enter(g_vorx_thread_manager, &key, &data), vorx_thread_manager_op_err_ok);
    vorx_thread_manager_release(g_vorx_thread_manager, key);
    return static_cast<vorx_workspace*>(data);
  }
  bool file_with_suffix(const char* suffix) {
    DIR* d = opendir(dir_.c_str());
    bool found = false;
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.size() > strlen(suffix) && name.compare(name.size() - strlen(suffix), strlen(suffix), suffix) == 0)
        found = true;
    }
    closedir(d);
    return found;
  }

  std::string dir_;
  vorx_configuration* conf_ = nullptr;
  pthread_key_t key_{};
};

TEST_F(WorkspaceTest, GlobalWorkspaceOwnsTheProcessUnits) {
  conf_->ring_buffer_duration = 0;
  start_manager();
  vorx_workspace* g = global();
  EXPECT_EQ(g->thread, 0u);
  ASSERT_NE(g->master_tmu, nullptr);
  ASSERT_NE(g->aux_tmu, nullptr);
  EXPECT_EQ(g->aux_tmu->mode, (vorx_u32_t)vorx_tmu_mode_normal) << "no ring duration: normal mode";
  EXPECT_EQ(vorx_global_process_tmu(g), g->master_tmu);
  EXPECT_EQ(g->runtime_level, (vorx_u32_t)vorx_le_in_runtime);
  EXPECT_EQ(g->xstack.limit, 0xFFFFFFFFu);
  EXPECT_EQ(g->fd_vector.entries, nullptr) << "the global workspace has no descriptors table";
}

TEST_F(WorkspaceTest, PerThreadFilesGiveEachThreadItsUnits) {
  conf_->per_thread_files = 1;
  conf_->ring_buffer_duration = 5;
  start_manager();
  vorx_workspace* wsp = register_self();
  ASSERT_NE(wsp, nullptr);
  EXPECT_EQ(wsp->thread, gettid_now());
  EXPECT_EQ(wsp->registration_kind, (vorx_u32_t)vorx_th_reg_self);
  EXPECT_EQ(wsp->runtime_level, (vorx_u32_t)vorx_le_in_application);
  ASSERT_NE(wsp->master_tmu, nullptr);
  EXPECT_NE(wsp->master_tmu, global()->master_tmu);
  EXPECT_EQ(wsp->aux_tmu->mode, (vorx_u32_t)vorx_tmu_mode_ring);
  EXPECT_EQ(wsp->fd_vector.capacity, 64u);
  EXPECT_EQ(g_vorx_attach_pend_requests, 0u) << "resume and attach balance";
  const vorx_u32_t record[2] = {0, 8};
  ASSERT_EQ(wsp->master_tmu->put_record(wsp->master_tmu, record, sizeof record, nullptr, 0), 1);
  EXPECT_FALSE(file_with_suffix(".th"));
  vorx_thread_manager_complete_threads(g_vorx_thread_manager);
  EXPECT_TRUE(file_with_suffix(".th")) << "detach spilled the thread's unit";
}

TEST_F(WorkspaceTest, SharedUnitsAreTheGlobalOnesAndAreNotGivenBack) {
  conf_->per_thread_files = 0;
  start_manager();
  vorx_workspace* wsp = register_self();
  EXPECT_EQ(wsp->master_tmu, global()->master_tmu);
  EXPECT_EQ(wsp->aux_tmu, global()->aux_tmu);
  vorx_tmu_t* shared = wsp->master_tmu;
  vorx_discard_per_thread_tmu(&wsp->master_tmu);
  EXPECT_EQ(wsp->master_tmu, nullptr);
  EXPECT_EQ(global()->master_tmu, shared);
  EXPECT_NE(shared->put_record, nullptr) << "still a live unit";
  EXPECT_FALSE(file_with_suffix(".th"));
}

TEST_F(WorkspaceTest, RecycledBlockKeepsWhatItOwnsAndTakesTheNewThread) {
  conf_->per_thread_files = 0;
  start_manager();
  vorx_thread_manager_reserve(g_vorx_thread_manager);
  vorx_registration_data reg = {4242, vorx_th_reg_running, nullptr};
  ASSERT_EQ(vorx_thread_manager_register(g_vorx_thread_manager, 4242, &reg), vorx_thread_manager_op_err_ok);
  ASSERT_EQ(vorx_thread_manager_unregister(g_vorx_thread_manager, 4242, nullptr), vorx_thread_manager_op_err_ok);
  ASSERT_EQ(g_vorx_thread_manager->free_list.cached_tsd_count, 1u);
  vorx_registration_data again = {4343, vorx_th_reg_running, nullptr};
  ASSERT_EQ(vorx_thread_manager_register(g_vorx_thread_manager, 4343, &again), vorx_thread_manager_op_err_ok);
  bool seen = false;
  vorx_thread_manager_enumerate(g_vorx_thread_manager, [](vorx_ts_desc_t* d, void* tsd, void* arg) -> vorx_u32_t {
    auto* w = static_cast<vorx_workspace*>(tsd);
    if (d->l1.data.tid == 4343) {
      *static_cast<bool*>(arg) = true;
      EXPECT_EQ(w->thread, 4343u);
      EXPECT_EQ(w->xstack.pointer, nullptr);
      EXPECT_EQ(w->xstack.limit, 0xFFFFFFFFu) << "only the first word is cleared on reuse";
      EXPECT_EQ(w->fd_vector.capacity, 64u) << "the table stays allocated";
      EXPECT_NE(w->fd_vector.entries, nullptr);
      EXPECT_EQ(w->stracing_state, 0u);
    }
    return vorx_thread_manager_op_err_cont;
  }, &seen);
  EXPECT_TRUE(seen);
}

TEST_F(WorkspaceTest, EnterAndLeaveKeepTheApplicationsErrnoAndLevel) {
  conf_->per_thread_files = 0;
  start_manager();
  vorx_workspace* mine = register_self();

  errno = 1234;
  vorx_runtime_state state{};
  vorx_ts_desc_t* key = nullptr;
  vorx_workspace* wsp = nullptr;
  int saved = 0;
  ASSERT_EQ(vorx_enter_runtime_and_store_errno(&state, &key, &wsp, &saved), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(wsp, mine);
  EXPECT_EQ(saved, 1234);
  EXPECT_EQ(state.level, (vorx_u32_t)vorx_le_in_application);
  EXPECT_EQ(wsp->runtime_level, (vorx_u32_t)vorx_le_in_runtime);
  errno = 5;  // the collector's own work clobbers it

  // Nested: acquired, nothing saved to restore, errno untouched.
  vorx_runtime_state inner{};
  vorx_ts_desc_t* inner_key = nullptr;
  vorx_workspace* inner_wsp = nullptr;
  int inner_saved = 0;
  EXPECT_EQ(vorx_enter_runtime_and_store_errno(&inner, &inner_key, &inner_wsp, &inner_saved),
            vorx_thread_manager_op_err_acquired);
  EXPECT_EQ(inner_wsp, mine);
  EXPECT_EQ(errno, 5);
  EXPECT_EQ(wsp->runtime_level, (vorx_u32_t)vorx_le_in_runtime);

  vorx_leave_runtime_and_restore_errno(key, wsp, &state, saved);
  EXPECT_EQ(errno, 1234);
  EXPECT_EQ(wsp->runtime_level, (vorx_u32_t)vorx_le_in_application);
  EXPECT_EQ(key->l1.data.owner, 0) << "released";

  // The conditional forms leave errno alone when told so.
  errno = 77;
  ASSERT_EQ(vorx_enter_runtime_and_store_errno_cond(&state, &key, &wsp, &saved, false), vorx_thread_manager_op_err_ok);
  errno = 78;
  vorx_leave_runtime_and_restore_errno_cond(key, wsp, &state, 0, false);
  EXPECT_EQ(errno, 78);
}

TEST_F(WorkspaceTest, UnknownThreadPassesThroughWithErrnoIntact) {
  start_manager();
  std::thread([&] {
    errno = 4321;
    vorx_runtime_state state{};
    vorx_ts_desc_t* key = nullptr;
    vorx_workspace* wsp = nullptr;
    int saved = 0;
    EXPECT_EQ(vorx_enter_runtime_and_store_errno(&state, &key, &wsp, &saved),
              vorx_thread_manager_op_err_thread_not_found);
    EXPECT_EQ(wsp, nullptr);
    EXPECT_EQ(errno, 4321);
  }).join();
  // Before the manager exists at all.
  vorx_thr_mgr_t* m = g_vorx_thread_manager;
  g_vorx_thread_manager = nullptr;
  errno = 99;
  vorx_runtime_state state{};
  vorx_ts_desc_t* key = nullptr;
  vorx_workspace* wsp = nullptr;
  int saved = 0;
  EXPECT_EQ(vorx_enter_runtime_and_store_errno(&state, &key, &wsp, &saved),
            vorx_thread_manager_op_err_thread_not_found);
  EXPECT_EQ(errno, 99);
  g_vorx_thread_manager = m;
}

TEST_F(WorkspaceTest, FdVectorGrowsOnlyUpward) {
  vorx_fd_vector v = {64, static_cast<vorx_u32_t*>(calloc(64, 4))};
  v.entries[63] = 7;
  vorx_fd_vector_realloc(&v, 32);
  EXPECT_EQ(v.capacity, 64u);
  vorx_fd_vector_realloc(&v, 1000);
  EXPECT_EQ(v.capacity, 1000u);
  EXPECT_EQ(v.entries[63], 7u);
  v.entries[999] = 1;
  free(v.entries);
  EXPECT_EQ(vorx_get_alternative_probe_stack(), 0u) << "with a libc runtime there is no alternative stack";
}

}  // namespace

// ---- the signal layer on a registered thread ----------------------------------------------------------------

extern "C" void vorx_detach_runtime(void) {}
volatile uint32_t g_vorx_is_rtl_initialized = 0;

namespace {

int handled_signals = 0;
bool handled_inside = false;
void count_usr1(int) {
  ++handled_signals;
  vorx_ts_desc_t* key = nullptr;
  void* data = nullptr;
  vorx_u32_t entered = vorx_thread_manager_enter(g_vorx_thread_manager, &key, &data);
  if (entered == vorx_thread_manager_op_err_acquired) handled_inside = true;
  if (entered == vorx_thread_manager_op_err_ok) vorx_thread_manager_release(g_vorx_thread_manager, key);
}

}  // namespace

// A signal that comes while the thread runs the collector waits until the thread has let go of its descriptor;
// the application's handler, its mask and its view of the mask are as it set them.
TEST_F(WorkspaceTest, SignalsInsideTheCollectorWaitForTheLeave) {
  conf_->per_thread_files = 0;
  vorx_init_signal_manager();
  vorx_init_crash_signal_handler();
  start_manager();
  register_self();
  handled_signals = 0;
  handled_inside = false;

  struct sigaction app = {}, seen = {};
  app.sa_handler = count_usr1;
  sigemptyset(&app.sa_mask);
  int err = 0;
  ASSERT_EQ(g_signal_manager->set_second_class_handler(g_signal_manager, SIGUSR1, &app, nullptr, &err, nullptr),
            (vorx_u32_t)vorx_sig_ok);
  ASSERT_EQ(g_signal_manager->set_second_class_handler(g_signal_manager, SIGUSR1, nullptr, &seen, &err, nullptr),
            (vorx_u32_t)vorx_sig_ok);
  EXPECT_EQ(seen.sa_handler, count_usr1) << "the application reads its own action back";

  vorx_runtime_state state{};
  vorx_ts_desc_t* key = nullptr;
  vorx_workspace* wsp = nullptr;
  int saved = 0;
  ASSERT_EQ(vorx_enter_runtime_and_store_errno(&state, &key, &wsp, &saved), vorx_thread_manager_op_err_ok);
  raise(SIGUSR1);
  raise(SIGUSR1);
  EXPECT_EQ(handled_signals, 0) << "no application handler inside the collector";
  EXPECT_EQ(wsp->signal_descr->deferred_count, 2u);
  vorx_leave_runtime_and_restore_errno(key, wsp, &state, saved);
  EXPECT_EQ(handled_signals, 2);
  EXPECT_FALSE(handled_inside);

  raise(SIGUSR1);  // outside: at once
  EXPECT_EQ(handled_signals, 3);

  // SA_RESETHAND fires once; the default action of SIGUSR1 would end the process, so ignore it then.
  app.sa_flags = SA_RESETHAND;
  g_signal_manager->set_second_class_handler(g_signal_manager, SIGUSR1, &app, nullptr, &err, nullptr);
  raise(SIGUSR1);
  g_signal_manager->set_second_class_handler(g_signal_manager, SIGUSR1, nullptr, &seen, &err, nullptr);
  EXPECT_EQ(seen.sa_handler, SIG_DFL);
  EXPECT_EQ(handled_signals, 4);
  vorx_fini_crash_signal_handler();
  struct sigaction kernel = {};
  sigaction(SIGUSR1, nullptr, &kernel);
  EXPECT_EQ(kernel.sa_handler, SIG_DFL) << "the kernel gets the application's world back";
}

TEST(ProtectedFrames, AFaultingReadComesBackAsFalse) {
  vorx_init_signal_manager();
  vorx_init_crash_signal_handler();
  int value = 42, copy = 0;
  EXPECT_TRUE(vorx_read_memory_protected(&copy, &value, sizeof value));
  EXPECT_EQ(copy, 42);
  for (int i = 0; i < 3; ++i)  // again and again: the fault's signal must not stay blocked
    EXPECT_FALSE(vorx_read_memory_protected(&copy, reinterpret_cast<void*>(16), sizeof copy));
  vorx_fini_crash_signal_handler();
}
