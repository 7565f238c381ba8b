// Pass-through probes on the benchmark program's hot function and on pthread_mutex_lock.
#include <pthread.h>

#include <string>

#include "kel.h"

namespace {
int (*g_hot_original)(int);
int hot_pass_through(int x) { return g_hot_original(x); }
int (*g_lock_original)(pthread_mutex_t*);
int lock_pass_through(pthread_mutex_t* m) { return g_lock_original(m); }

void on_image(IMG img, void*) {
  if (IMG_IsMainExecutable(img)) {
    RTN hot = RTN_FindByName(img, "bench_hot");
    if (RTN_Valid(hot))
      g_hot_original = reinterpret_cast<int (*)(int)>(RTN_ReplaceProbed(hot, reinterpret_cast<AFUNPTR>(hot_pass_through)));
  } else if (IMG_Name(img).find("/libc.so") != std::string::npos) {
    RTN lock = RTN_FindByName(img, "pthread_mutex_lock");
    if (RTN_Valid(lock))
      g_lock_original = reinterpret_cast<int (*)(pthread_mutex_t*)>(
          RTN_ReplaceProbed(lock, reinterpret_cast<AFUNPTR>(lock_pass_through)));
  }
}
}  // namespace

int main(int argc, char** argv) {
  if (KEL_Init(argc, argv)) return 1;
  IMG_AddInstrumentFunction(on_image, nullptr);
  KEL_StartProgramProbed();
}
