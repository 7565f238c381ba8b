// The deepbind layer's state between tests, and the application's functions
// the probe table would hold (here: this program's own C library).
#pragma once

#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "vorx_deepbind.h"
#include "vorx_probe_table.h"

namespace dbtest {

inline void set_trampoline(unsigned id, void* fn) { vorx_head_row(id)->trampoline = fn; }

// Fills the head rows that the layer passes calls through.
inline void fill_application_rows() {
  set_trampoline(vorx_pi_pthread_key_create, (void*)&pthread_key_create);
  set_trampoline(vorx_pi_pthread_getspecific, (void*)&pthread_getspecific);
  set_trampoline(vorx_pi_pthread_setspecific, (void*)&pthread_setspecific);
  set_trampoline(vorx_pi_pthread_self, (void*)&pthread_self);
  set_trampoline(vorx_pi_pthread_getattr_np, (void*)&pthread_getattr_np);
  set_trampoline(vorx_pi_pthread_attr_getstacksize, (void*)&pthread_attr_getstacksize);
  set_trampoline(vorx_pi_pthread_attr_setstacksize, (void*)&pthread_attr_setstacksize);
  set_trampoline(vorx_pi_pthread_attr_getstack, (void*)&pthread_attr_getstack);
  set_trampoline(vorx_pi_pthread_attr_setstack, (void*)&pthread_attr_setstack);
  set_trampoline(vorx_pi_pthread_attr_destroy, (void*)&pthread_attr_destroy);
  set_trampoline(vorx_pi_pthread_setcanceltype, (void*)&pthread_setcanceltype);
  set_trampoline(vorx_pi__pthread_cleanup_push, dlsym(RTLD_DEFAULT, "_pthread_cleanup_push"));
  set_trampoline(vorx_pi__pthread_cleanup_pop, dlsym(RTLD_DEFAULT, "_pthread_cleanup_pop"));
  set_trampoline(vorx_pi___errno_location, (void*)&__errno_location);
  set_trampoline(vorx_pi_getenv, (void*)&getenv);
  set_trampoline(vorx_pi_setenv, (void*)&setenv);
}

inline void clear_application_rows() {
  for (unsigned id = 0; id < vorx_pi_eof; ++id) vorx_head_row(id)->trampoline = nullptr;
}

class DeepbindTest : public ::testing::Test {
 protected:
  void SetUp() override {
    memset(&g_tls_map, 0, sizeof g_tls_map);
    g_pthread_load_mode = vorx_deepbind_pthread_mode_unavailable;
    vorx_deepbind_set_internal_thread_stack_boundaries(0, 0);
    clear_application_rows();
    vorx_deepbind_init(/*is_attaching=*/0);
  }
  void TearDown() override {
    // Real keys made by a test are the program's own; give them back.
    for (int i = 0; i < VORX_DEEPBIND_TLS_KEYS; ++i)
      if (g_tls_map.pthread_keys[i] != VORX_DEEPBIND_NO_KEY && g_tls_map.is_key_used[i])
        pthread_key_delete(g_tls_map.pthread_keys[i]);
    g_pthread_load_mode = vorx_deepbind_pthread_mode_unavailable;
    clear_application_rows();
  }
  void load_library() {
    fill_application_rows();
    vorx_deepbind_notify_on_pthread_loaded(/*attach*/ 2, vorx_deepbind_pthread_mode_dynamic);
  }
};

}  // namespace dbtest
