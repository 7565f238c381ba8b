// Stand-ins for the system layer's identity calls, used only while this test
// tree is configured without the system layer.
#include <sched.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
uint32_t sal_thread_id(void) { return (uint32_t)syscall(SYS_gettid); }
void sal_yield(void) { sched_yield(); }
uint32_t sal_get_cpu_number(void) { return (uint32_t)sysconf(_SC_NPROCESSORS_ONLN); }
}
