// The public names of the deepbind layer: until the layer is active they are
// the ordinary C library; afterwards they run the layer or refuse.
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>
#include <stdio.h>
#include <stdlib.h>

#include "vorx_deepbind.h"

namespace {

TEST(DeepbindPublicNames, ForwardToTheCLibraryUntilActive) {
  ASSERT_FALSE(vorx_deepbind_is_active());
  pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EQ(pthread_mutex_lock(&m), 0);
  EXPECT_EQ(pthread_mutex_unlock(&m), 0);
  pthread_cond_t c = PTHREAD_COND_INITIALIZER;
  EXPECT_EQ(pthread_cond_signal(&c), 0) << "a refused name still forwards while inactive";
  errno = 7;
  EXPECT_EQ(errno, 7);
  setenv("VORX_PUBLIC_TEST", "1", 1);
  EXPECT_STREQ(getenv("VORX_PUBLIC_TEST"), "1");
}

TEST(DeepbindPublicNamesDeathTest, RefuseOnceActive) {
  pthread_cond_t c = PTHREAD_COND_INITIALIZER;
  EXPECT_DEATH((vorx_deepbind_init(0), pthread_cond_signal(&c)),
               "pthread_cond_signal: Assertion 'this pthread function is not supported by deepbind' failed");
  pthread_attr_t attr;
  EXPECT_DEATH((vorx_deepbind_init(0), pthread_attr_init(&attr)), "not supported by deepbind");
  EXPECT_DEATH((vorx_deepbind_init(0), pthread_key_delete(0)), "not supported by deepbind");
  EXPECT_DEATH((vorx_deepbind_init(0), printf("%d", errno)), "Request of __errno_location in KEL's loader domain.");
  struct rlimit64 lim;
  EXPECT_DEATH((vorx_deepbind_init(0), getrlimit64(RLIMIT_STACK, &lim)), "not implemented");
}

TEST(DeepbindPublicNamesDeathTest, LocksAndKeysWorkOnceActive) {
  EXPECT_EXIT(
      {
        vorx_deepbind_init(0);
        pthread_mutex_t m;
        memset(&m, 0, sizeof m);
        pthread_mutex_lock(&m);
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
        pthread_mutex_unlock(&m);
        pthread_key_t key;
        pthread_key_create(&key, nullptr);
        int v;
        pthread_setspecific(key, &v);
        _exit(pthread_getspecific(key) == &v && key == 0 && pthread_self() == 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
