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
static inline long sal_raw_syscall0(long nr)
{
    long result;
    __asm__ volatile("int $0x80" : "=a"(result) : "0"(nr) : "memory");
    return result;
}
static inline long sal_raw_syscall2(long nr, long a, long b)
{
    long result;
    __asm__ volatile("int $0x80" : "=a"(result) : "0"(nr), "b"(a), "c"(b) : "memory");
    return result;
}
static inline long sal_raw_syscall3(long nr, long a, long b, long c)
{
    long result;
    __asm__ volatile("int $0x80" : "=a"(result) : "0"(nr), "b"(a), "c"(b), "d"(c) : "memory");
    return result;
}
static inline long sal_raw_syscall4(long nr, long a, long b, long c, long d)
{
    long result;
    __asm__ volatile("int $0x80"
                     : "=a"(result)
                     : "0"(nr), "b"(a), "c"(b), "d"(c), "S"(d)
                     : "memory");
    return result;
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
