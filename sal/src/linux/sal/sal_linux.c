/* Linux forms of the system layer's one-line wrappers: files, memory, locks,
 * thread-local storage, identity, time, environment and small queries. */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "sal.h"
#include "sal_raw_syscall.h"

#ifndef O_LARGEFILE
#define O_LARGEFILE 0
#endif

/* ---- start-up ---------------------------------------------------------- */

/* Written once with the same value by whoever gets there first. */
static vorx_u32_t g_cpu_count = 0;
static vorx_size_t g_page_size = (vorx_size_t)-1;

vorx_er_t sal_init_os_specific(void)
{
    return vorx_er_success;
}

void sal_safe_init(void)
{
    g_page_size = (vorx_size_t)sysconf(_SC_PAGESIZE);
    g_cpu_count = (vorx_u32_t)sysconf(_SC_NPROCESSORS_ONLN);
#if defined(__i386__)
    /* Threads made later with a raw clone must not need the C library. */
    sal_find_kernel_entry();
#endif
}

vorx_er_t sal_init(void)
{
    vorx_er_t status = sal_init_os_specific();
    if (status == vorx_er_success)
        sal_safe_init();
    return status;
}

void sal_fastpath_init(void)
{
}

vorx_er_t sal_error_code_to_string(vorx_u32_t code, char *out, vorx_size_t size)
{
    (void)code;
    (void)out;
    (void)size;
    return vorx_er_success;
}

vorx_er_t sal_get_thread_start_addr(vorx_address_t thread_handle, vorx_address_t *start_address)
{
    (void)thread_handle;
    if (start_address)
        *start_address = 0;
    return vorx_er_success;
}

/* ---- files -------------------------------------------------------------- */

/* File calls go to the kernel directly: the C library's open, read, write, close and fsync are
 * cancellation points, and a thread of the program that has a cancel pending must never be cancelled inside
 * the collector (it would unwind through the collector's frames with its locks held). */
static int open_mode(const char *path, int flags, int mode)
{
    return (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
}

int sal_open(const char *path)
{
    return open_mode(path, O_RDWR | O_LARGEFILE, 0606);
}

int sal_open_append(const char *path)
{
    return open_mode(path, O_RDWR | O_LARGEFILE | O_APPEND, 0606);
}

int sal_open_read(const char *path)
{
    return open_mode(path, O_RDONLY | O_LARGEFILE, 0);
}

int sal_create(const char *path)
{
    return open_mode(path, O_RDWR | O_CREAT | O_TRUNC | O_LARGEFILE, 0666);
}

int sal_create_ex(const char *path, vorx_u32_t mode)
{
    int fd = sal_create(path);
    if (fd != -1)
        chmod(path, (mode_t)mode);
    return fd;
}

vorx_s64_t sal_seek(int fd, vorx_u32_t offset_low, vorx_s32_t offset_high, int whence)
{
    if (whence != SEEK_SET && whence != SEEK_CUR && whence != SEEK_END)
        whence = SEEK_SET;
    vorx_s64_t offset = (vorx_s64_t)(((vorx_u64_t)(vorx_u32_t)offset_high << 32) | offset_low);
    return lseek64(fd, offset, whence);
}

vorx_ssize_t sal_read(int fd, void *buffer, vorx_size_t size)
{
    return (vorx_ssize_t)syscall(SYS_read, fd, buffer, size);
}

vorx_ssize_t sal_write(int fd, const void *buffer, vorx_size_t size)
{
    return (vorx_ssize_t)syscall(SYS_write, fd, buffer, size);
}

int sal_close(int fd)
{
    return (int)syscall(SYS_close, fd);
}

int sal_sync(int fd)
{
    return (int)syscall(SYS_fsync, fd);
}

int sal_truncate(int fd, vorx_s64_t length)
{
    return ftruncate64(fd, length);
}

/* fstat through the kernel: the tool domain's fstat answers the size alone. */
vorx_bool_t sal_file_identity(int fd, vorx_u64_t *device, vorx_u64_t *inode)
{
    struct stat64 st;
#ifdef SYS_fstat64
    long result = sal_raw_syscall2(SYS_fstat64, fd, (long)&st);
#else
    long result = sal_raw_syscall2(SYS_fstat, fd, (long)&st);
#endif
    if (result != 0)
        return 0;
    *device = (vorx_u64_t)st.st_dev;
    *inode = (vorx_u64_t)st.st_ino;
    return 1;
}

int sal_move_descriptor_high(int fd)
{
    enum { floor = 512 };
    if (fd < 0 || fd >= floor)
        return fd;
    int high = fcntl(fd, F_DUPFD_CLOEXEC, floor);
    if (high < 0) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
        return fd;
    }
    sal_close(fd);
    return high;
}

int sal_delete(const char *path)
{
    return unlink(path);
}

vorx_bool_t sal_directory_create(const char *path)
{
    return mkdir(path, 0775) == 0;
}

vorx_bool_t sal_directory_remove(const char *path)
{
    return rmdir(path) == 0;
}

vorx_bool_t sal_file_exists(const char *path)
{
    return access(path, F_OK) == 0;
}

/* ---- memory ------------------------------------------------------------- */

void *sal_mmap(vorx_size_t length)
{
    void *address = mmap(NULL, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return address == MAP_FAILED ? NULL : address;
}

void sal_munmap(void *address, vorx_size_t length)
{
    int result = munmap(address, length);
    SAL_ASSERT(result == 0);
}

vorx_bool_t sal_mprotect(void *address, vorx_size_t length, int protection)
{
    return mprotect(address, length, protection) == 0;
}

void *sal_remap(void *old_address, vorx_size_t old_length, vorx_size_t new_length)
{
    if (new_length == 0)
        return old_address;
    void *fresh = sal_mmap(new_length);
    if (fresh == NULL || old_address == NULL)
        return fresh;
    memcpy(fresh, old_address, old_length < new_length ? old_length : new_length);
    sal_munmap(old_address, old_length);
    return fresh;
}

/* ---- locks and thread-local storage ----------------------------------- */

static vorx_er_t status_of(int result)
{
    return result == 0 ? vorx_er_success : vorx_er_general_failure;
}

vorx_er_t vorx_mutex_init(vorx_mutex_t *mutex)
{
    return status_of(pthread_mutex_init(mutex, NULL));
}

vorx_er_t vorx_mutex_destroy(vorx_mutex_t *mutex)
{
    return status_of(pthread_mutex_destroy(mutex));
}

vorx_er_t vorx_mutex_lock(vorx_mutex_t *mutex)
{
    return status_of(pthread_mutex_lock(mutex));
}

vorx_er_t vorx_mutex_unlock(vorx_mutex_t *mutex)
{
    return status_of(pthread_mutex_unlock(mutex));
}

vorx_bool_t vorx_mutex_trylock(vorx_mutex_t *mutex)
{
    return pthread_mutex_trylock(mutex) == 0;
}

vorx_er_t vorx_semaphore_initialize(vorx_semaphore_t *semaphore, vorx_u32_t value)
{
    return status_of(sem_init(semaphore, 0, value));
}

vorx_er_t vorx_semaphore_destroy(vorx_semaphore_t *semaphore)
{
    return status_of(sem_destroy(semaphore));
}

vorx_er_t vorx_semaphore_down(vorx_semaphore_t *semaphore)
{
    return status_of(sem_wait(semaphore));
}

vorx_er_t vorx_semaphore_up(vorx_semaphore_t *semaphore)
{
    return status_of(sem_post(semaphore));
}

vorx_er_t sal_alloc_tls(sal_tls_key_t *key)
{
    return status_of(pthread_key_create(key, NULL));
}

vorx_er_t sal_free_tls(sal_tls_key_t key)
{
    return status_of(pthread_key_delete(key));
}

void *sal_read_tls(sal_tls_key_t key)
{
    return pthread_getspecific(key);
}

vorx_er_t sal_write_tls(sal_tls_key_t key, void *value)
{
    return status_of(pthread_setspecific(key, value));
}

/* ---- identity ------------------------------------------------------------ */

#if defined(__i386__)
/* Null: not looked for yet; 1: the kernel offers none (use the trap). */
void *g_sal_kernel_entry = NULL;

void *sal_find_kernel_entry(void)
{
    void *entry = (void *)getauxval(AT_SYSINFO);
    if (entry == NULL)
        entry = (void *)1;
    g_sal_kernel_entry = entry;
    return entry;
}
#endif

vorx_u32_t sal_process_id(void)
{
    return (vorx_u32_t)sal_raw_syscall0(SYS_getpid);
}

vorx_u32_t sal_parent_process_id(void)
{
    return (vorx_u32_t)sal_raw_syscall0(SYS_getppid);
}

vorx_u32_t sal_thread_id(void)
{
    return (vorx_u32_t)sal_raw_syscall0(SYS_gettid);
}

void sal_yield(void)
{
    sal_raw_syscall0(SYS_sched_yield);
}

vorx_address_t sal_get_thread_id(vorx_address_t thread_handle)
{
    return thread_handle;
}

void *sal_get_tsd(void)
{
    void *tsd;
#if defined(__i386__)
    __asm__ volatile("movl %%gs:0, %0" : "=r"(tsd));
#else
    __asm__ volatile("movq %%fs:0, %0" : "=r"(tsd));
#endif
    return tsd;
}

/* ---- time --------------------------------------------------------------- */

static clockid_t g_sys_counter_id = (clockid_t)-1;

/* The kernel's own timespec of this build's word size. */
struct sal_kernel_timespec {
    long seconds;
    long nanoseconds;
};

static long raw_clock_gettime(clockid_t clock, struct sal_kernel_timespec *now)
{
    return sal_raw_syscall2(SYS_clock_gettime, (long)clock, (long)now);
}

/* The reading itself goes through the vDSO when the C library offers it:
 * the same kernel counter, without entering the kernel (tens of nanoseconds
 * instead of hundreds, and this is read on every timed event). The system
 * call remains the fallback. Neither path reads or writes errno on success. */
static vorx_bool_t read_clock(clockid_t clock, vorx_u64_t *nanoseconds)
{
    struct timespec fast;
    if (clock_gettime(clock, &fast) == 0) {
        *nanoseconds = (vorx_u64_t)fast.tv_sec * 1000000000ull + (vorx_u64_t)fast.tv_nsec;
        return VORX_TRUE;
    }
    struct sal_kernel_timespec now;
    if (sal_raw_failed(raw_clock_gettime(clock, &now)))
        return VORX_FALSE;
    *nanoseconds = (vorx_u64_t)now.seconds * 1000000000ull + (vorx_u64_t)now.nanoseconds;
    return VORX_TRUE;
}

void vorx_init_sys_counter_id(void)
{
    struct sal_kernel_timespec now;
    if (!sal_raw_failed(raw_clock_gettime(CLOCK_MONOTONIC_RAW, &now)))
        g_sys_counter_id = CLOCK_MONOTONIC_RAW;
    else if (!sal_raw_failed(raw_clock_gettime(CLOCK_MONOTONIC, &now)))
        g_sys_counter_id = CLOCK_MONOTONIC;
}

vorx_u64_t sal_system_time(void)
{
    if (g_sys_counter_id == (clockid_t)-1)
        vorx_init_sys_counter_id();
    if (g_sys_counter_id == (clockid_t)-1)
        sal_assert_fail(__FILE__, __LINE__, __func__, "SYS_COUNTER_ID != ((clockid_t)-1)", "%s",
                        "neither CLOCK_MONOTONIC_RAW nor CLOCK_MONOTONIC is available");
    vorx_u64_t nanoseconds = 0;
    vorx_bool_t read = read_clock(g_sys_counter_id, &nanoseconds);
    SAL_ASSERT(read);
    return nanoseconds;
}

vorx_u64_t sal_system_time_freq(void)
{
    return 1000000000ull;
}

vorx_u64_t sal_timestamp(void)
{
    vorx_u32_t low, high;
    __asm__ volatile("rdtsc" : "=a"(low), "=d"(high));
    return ((vorx_u64_t)high << 32) | low;
}

void sal_time_mark(char *buffer, vorx_size_t length)
{
    if (buffer == NULL || length == 0)
        return;
    time_t now = time(NULL);
    struct tm local;
    if (localtime_r(&now, &local) == NULL || strftime(buffer, length, "%Y.%m.%d %X", &local) == 0)
        buffer[0] = '\0';
}

/* ---- environment ------------------------------------------------------- */

char *sal_getenv(const char *name)
{
    if (name == NULL)
        return NULL;
    return sal_strdup(getenv(name));
}

vorx_bool_t sal_setenv(const char *name, const char *value)
{
    if (name == NULL)
        return VORX_FALSE;
    if (value == NULL)
        return unsetenv(name) == 0;
    return setenv(name, value, 1) == 0;
}

/* ---- small queries ------------------------------------------------------ */

vorx_u32_t sal_get_os_type(void)
{
    return VORX_OS_TYPE_LINUX;
}

vorx_size_t sal_get_page_size(void)
{
    if (g_page_size != (vorx_size_t)-1)
        return g_page_size;
    return (vorx_size_t)sysconf(_SC_PAGESIZE);
}

vorx_u32_t sal_get_cpu_number(void)
{
    if (g_cpu_count != 0)
        return g_cpu_count;
    return (vorx_u32_t)sysconf(_SC_NPROCESSORS_ONLN);
}

char *sal_get_hostname(sal_allocator *alloc)
{
    const vorx_size_t size = 4096;
    char *name = sal_allocator_alloc(alloc, size);
    if (name == NULL)
        return NULL;
    if (gethostname(name, size - 1) != 0)
        name[0] = '\0';
    return name;
}

int sal_signalfd(int fd, const sigset_t *mask, int flags)
{
    long result = sal_raw_syscall4(SYS_signalfd4, fd, (long)mask, 8, flags);
    return sal_raw_failed(result) ? -1 : (int)result;
}

int vorx_convert_to_std_handle_value(int std_handle)
{
    switch (std_handle) {
    case 0:
        return STDIN_FILENO;
    case 1:
        return STDOUT_FILENO;
    case 2:
        return STDERR_FILENO;
    default:
        return 3;
    }
}
