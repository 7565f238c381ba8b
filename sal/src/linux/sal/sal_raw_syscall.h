/* Raw system calls for the system layer.
 *
 * They go straight to the kernel: no C-library cache (getpid after a fork),
 * no errno (the application's errno must not change under it), no need for
 * the C library to be set up at all. The result is the kernel's: negative
 * error numbers for failures. */
#ifndef SAL_RAW_SYSCALL_H
#define SAL_RAW_SYSCALL_H

#include <sys/syscall.h>

#if defined(__i386__)
/* The kernel's fast entry (__kernel_vsyscall of the vDSO). "int $0x80" works
 * everywhere but costs from a few hundred nanoseconds to many microseconds
 * on virtualised hosts; the entry uses sysenter. It is found once from the
 * auxiliary vector, not through %gs:0x10, which is not set up while the tool
 * starts ahead of the application's thread library. */
extern void *g_sal_kernel_entry;
void *sal_find_kernel_entry(void);

static inline void *sal_kernel_entry(void)
{
    void *entry = g_sal_kernel_entry;
    return entry != (void *)0 ? entry : sal_find_kernel_entry();
}

/* Without an entry (kernel_entry == 1) the trap is used. */
#define SAL_RAW_SYSCALL_BODY(inputs...)                                                          \
    long result;                                                                                 \
    void *entry = sal_kernel_entry();                                                            \
    if (entry != (void *)1)                                                                      \
        __asm__ volatile("call *%%edi" : "=a"(result) : "0"(nr), "D"(entry), ##inputs : "memory"); \
    else                                                                                         \
        __asm__ volatile("int $0x80" : "=a"(result) : "0"(nr), ##inputs : "memory");             \
    return result

static inline long sal_raw_syscall0(long nr)
{
    SAL_RAW_SYSCALL_BODY();
}
static inline long sal_raw_syscall2(long nr, long a, long b)
{
    SAL_RAW_SYSCALL_BODY("b"(a), "c"(b));
}
static inline long sal_raw_syscall3(long nr, long a, long b, long c)
{
    SAL_RAW_SYSCALL_BODY("b"(a), "c"(b), "d"(c));
}
static inline long sal_raw_syscall4(long nr, long a, long b, long c, long d)
{
    SAL_RAW_SYSCALL_BODY("b"(a), "c"(b), "d"(c), "S"(d));
}
#else
/* Hosts other than i386 (a native build of the host tools) go through libc. */
#include <errno.h>
#include <unistd.h>
static inline long sal_raw_result(long r)
{
    return r == -1 ? -errno : r;
}
static inline long sal_raw_syscall0(long nr)
{
    return sal_raw_result(syscall(nr));
}
static inline long sal_raw_syscall2(long nr, long a, long b)
{
    return sal_raw_result(syscall(nr, a, b));
}
static inline long sal_raw_syscall3(long nr, long a, long b, long c)
{
    return sal_raw_result(syscall(nr, a, b, c));
}
static inline long sal_raw_syscall4(long nr, long a, long b, long c, long d)
{
    return sal_raw_result(syscall(nr, a, b, c, d));
}
#endif

static inline int sal_raw_failed(long result)
{
    return (unsigned long)result >= (unsigned long)-4095;
}

#endif /* SAL_RAW_SYSCALL_H */
