/*
 * The system abstraction layer: the only part of the collector that talks to
 * the kernel and to the processor directly.
 *
 * It runs inside the studied process, often before that process's C library
 * has run and often from a signal handler. So:
 *   - identity, time and machine-word queries go straight to a raw system call
 *     or a machine instruction (no libc cache can be stale after a fork);
 *   - operations that hand back memory take an allocator from the caller;
 *   - locks, semaphores and thread-local storage call the standard pthread and
 *     sem names. Inside libvorxtool.so those names are defined by the tool's
 *     own threading layer (futex locks that know nothing of the application's
 *     thread library); in a plain program they are the C library's.
 *
 * Results: operations that return vorx_er_t use 1 for success. File
 * operations return the descriptor or -1. Predicates return vorx_bool_t.
 */
#ifndef SAL_H
#define SAL_H

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include "sal_allocator.h"
#include "sal_assert.h"
#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Start-up --------------------------------------------------------- */

/* sal_init_os_specific, then (on success) sal_safe_init. */
vorx_er_t sal_init(void);
vorx_er_t sal_init_os_specific(void);
/* Caches the page size and the processor count, after which both queries are
 * safe in a signal handler. */
void sal_safe_init(void);
void sal_fastpath_init(void);

/* ---- Files ------------------------------------------------------------ */

int sal_open(const char *path);        /* read-write, large file, mode 0606 */
int sal_open_append(const char *path); /* as sal_open, appending */
int sal_open_read(const char *path);   /* read-only, large file */
int sal_create(const char *path);      /* read-write, create, truncate, mode 0666 */
int sal_create_ex(const char *path, vorx_u32_t mode); /* sal_create, then chmod */
/* lseek64 to (high << 32 | low); whence 0, 1, 2 pass through, others are 0.
 * Returns the new offset or -1. */
vorx_s64_t sal_seek(int fd, vorx_u32_t offset_low, vorx_s32_t offset_high, int whence);
vorx_ssize_t sal_read(int fd, void *buffer, vorx_size_t size);
vorx_ssize_t sal_write(int fd, const void *buffer, vorx_size_t size);
int sal_close(int fd);
int sal_sync(int fd);
int sal_truncate(int fd, vorx_s64_t length);
/* The device and inode a descriptor names: false when it names nothing. */
vorx_bool_t sal_file_identity(int fd, vorx_u64_t *device, vorx_u64_t *inode);
/* The descriptor moved to 512 or above, out of the way of a program's own numbers, and closed on exec;
 * the same descriptor (made close-on-exec) when the limit on descriptors leaves no room up there. */
int sal_move_descriptor_high(int fd);
int sal_delete(const char *path);
vorx_bool_t sal_directory_create(const char *path); /* mode 0775 */
vorx_bool_t sal_directory_remove(const char *path);
vorx_bool_t sal_file_exists(const char *path);

/* Prefix test: equal (0) when a is a prefix of b. Asymmetric on purpose. */
int sal_file_name_compare(const char *a, const char *b);

/* ---- Memory ----------------------------------------------------------- */

void *sal_mmap(vorx_size_t length); /* private anonymous read-write; null on failure */
void sal_munmap(void *address, vorx_size_t length); /* asserts success */
vorx_bool_t sal_mprotect(void *address, vorx_size_t length, int protection);
/* new_length 0: old returned unchanged. Otherwise a new zeroed mapping with the
 * smaller length copied and the old one unmapped; a null old is a fresh mapping.
 * Null when the new mapping cannot be made (the old one is then kept). */
void *sal_remap(void *old_address, vorx_size_t old_length, vorx_size_t new_length);
/* Overlap-safe byte copy that calls nothing. */
void *sal_memmove(void *destination, const void *source, vorx_size_t size);

/* ---- Locks (through the tool-domain pthread / sem names) -------------- */

typedef pthread_mutex_t vorx_mutex_t;
typedef sem_t vorx_semaphore_t;

vorx_er_t vorx_mutex_init(vorx_mutex_t *mutex);
vorx_er_t vorx_mutex_destroy(vorx_mutex_t *mutex);
vorx_er_t vorx_mutex_lock(vorx_mutex_t *mutex);
vorx_er_t vorx_mutex_unlock(vorx_mutex_t *mutex);
vorx_bool_t vorx_mutex_trylock(vorx_mutex_t *mutex); /* true when taken */

vorx_er_t vorx_semaphore_initialize(vorx_semaphore_t *semaphore, vorx_u32_t value);
vorx_er_t vorx_semaphore_destroy(vorx_semaphore_t *semaphore);
vorx_er_t vorx_semaphore_down(vorx_semaphore_t *semaphore);
vorx_er_t vorx_semaphore_up(vorx_semaphore_t *semaphore);

/* ---- Thread-local storage (no destructor) ----------------------------- */

typedef pthread_key_t sal_tls_key_t;

vorx_er_t sal_alloc_tls(sal_tls_key_t *key);
vorx_er_t sal_free_tls(sal_tls_key_t key);
void *sal_read_tls(sal_tls_key_t key);
vorx_er_t sal_write_tls(sal_tls_key_t key, void *value);

/* ---- Identity --------------------------------------------------------- */

vorx_u32_t sal_process_id(void);        /* raw getpid */
vorx_u32_t sal_parent_process_id(void); /* raw getppid */
vorx_u32_t sal_thread_id(void);         /* raw gettid */
void sal_yield(void);                   /* raw sched_yield */
vorx_address_t sal_get_thread_id(vorx_address_t thread_handle); /* the handle itself */
/* The word at %gs:0: the calling thread's thread-block pointer, no system call. */
void *sal_get_tsd(void);
/* Name of a process or thread from /proc/<pid>/status into buf (64 bytes);
 * returns its length, the output always terminated. */
#define SAL_THREAD_NAME_SIZE 64
vorx_size_t sal_thread_name(vorx_u32_t pid, char buf[SAL_THREAD_NAME_SIZE]);
/* No way to learn it on Linux: 1 with *start_address 0. */
vorx_er_t sal_get_thread_start_addr(vorx_address_t thread_handle, vorx_address_t *start_address);
vorx_er_t sal_error_code_to_string(vorx_u32_t code, char *out, vorx_size_t size);

/* ---- Time ------------------------------------------------------------- */

vorx_u64_t sal_timestamp(void);       /* rdtsc */
/* Picks CLOCK_MONOTONIC_RAW, or CLOCK_MONOTONIC when the kernel lacks it. */
void vorx_init_sys_counter_id(void);
vorx_u64_t sal_system_time(void);     /* nanoseconds of the system counter, raw clock_gettime */
vorx_u64_t sal_system_time_freq(void); /* 1,000,000,000 */
/* Local time as "%Y.%m.%d %X"; an empty string on failure. */
void sal_time_mark(char *buffer, vorx_size_t length);

/* ---- Environment and strings (tool domain) ---------------------------- */

char *sal_getenv(const char *name); /* a fresh copy the caller frees, or null */
/* Null value unsets, otherwise overwrites. False for a null name. */
vorx_bool_t sal_setenv(const char *name, const char *value);
char *sal_strdup(const char *text); /* belongs to whoever stores it; free() */

/* Text conversions: the collector's text is UTF-8 already, so these copy into
 * memory from the allocator. The first two return 0 (and leave *out alone)
 * for an empty input, else the length copied. */
vorx_size_t sal_vorx_char_to_utf8(const vorx_char_t *text, char **out, sal_allocator *alloc);
vorx_size_t sal_utf8_to_vorx_char(const char *text, vorx_char_t **out, sal_allocator *alloc);
vorx_size_t sal_char_to_vorx_char(const char *text, vorx_char_t **out, sal_allocator *alloc);
/* 1, or 32 when memory is exhausted. */
vorx_er_t sal_convert_to_native_file_system_utf8(const vorx_char_t *text, char **out,
                                                 sal_allocator *alloc);

/* ---- Machine words ---------------------------------------------------- */

void sal_read_cpuid(const vorx_u32_t in[4], vorx_u32_t out[4]); /* eax, ebx, ecx, edx */
vorx_u64_t sal_read_xcr0(void);
vorx_u32_t sal_processor_id(void); /* initial APIC id */
int sal_get_bit_pos(vorx_u32_t value); /* lowest raised bit, -1 for 0 */
void *sal_get_sp(void);                /* the caller's stack pointer */
/* Fills a ucontext_t with the caller's EBX, ECX, EDX, EBP, EDI, ESI, FS, its
 * return address as EIP and the stack pointer at return as ESP. EAX is left alone. */
void sal_get_context(void *ucontext);

/* ---- Bitmaps (length always in bits) ---------------------------------- */

void vorx_bitmap_and(vorx_bitmap_t *dst, const vorx_bitmap_t *a, const vorx_bitmap_t *b,
                     vorx_size_t bits);
void vorx_bitmap_or(vorx_bitmap_t *dst, const vorx_bitmap_t *a, const vorx_bitmap_t *b,
                    vorx_size_t bits);
void vorx_bitmap_xor(vorx_bitmap_t *dst, const vorx_bitmap_t *a, const vorx_bitmap_t *b,
                     vorx_size_t bits);
vorx_bool_t vorx_bitmap_is_empty(const vorx_bitmap_t *map, vorx_size_t bits);
vorx_bool_t vorx_bitmap_is_full(const vorx_bitmap_t *map, vorx_size_t bits);
vorx_size_t vorx_bitmap_get_raised_bits_count(const vorx_bitmap_t *map, vorx_size_t bits);
/* The bit's index, or bits when none is raised. find_next looks above from. */
vorx_size_t vorx_bitmap_find_first_raised_bit(const vorx_bitmap_t *map, vorx_size_t bits);
vorx_size_t vorx_bitmap_find_next_raised_bit(const vorx_bitmap_t *map, vorx_size_t bits,
                                             vorx_size_t from);

static inline vorx_bool_t vorx_bitmap_is_raised(const vorx_bitmap_t *map, vorx_size_t bit)
{
    return (map[bit / VORX_BITMAP_WORD_BITS] >> (bit % VORX_BITMAP_WORD_BITS)) & 1u;
}
static inline void vorx_bitmap_raise(vorx_bitmap_t *map, vorx_size_t bit)
{
    map[bit / VORX_BITMAP_WORD_BITS] |= 1u << (bit % VORX_BITMAP_WORD_BITS);
}
static inline void vorx_bitmap_clear(vorx_bitmap_t *map, vorx_size_t bit)
{
    map[bit / VORX_BITMAP_WORD_BITS] &= ~(1u << (bit % VORX_BITMAP_WORD_BITS));
}

/* ---- Small queries ---------------------------------------------------- */

vorx_u32_t sal_get_os_type(void); /* VORX_OS_TYPE_LINUX */
vorx_size_t sal_get_page_size(void);
vorx_u32_t sal_get_cpu_number(void);
char *sal_get_hostname(sal_allocator *alloc); /* 4096 bytes from alloc, or null */
/* Raw signalfd4 with an 8-byte mask. */
int sal_signalfd(int fd, const sigset_t *mask, int flags);
/* 0, 1, 2 to the standard streams of the tool's runtime; anything else to 3. */
int vorx_convert_to_std_handle_value(int std_handle);

/* ---- Line reader ------------------------------------------------------ */

typedef struct sal_read_line_state {
    int fd;
    char *buffer;
    vorx_size_t len;    /* the buffer's length */
    vorx_size_t read;   /* bytes held, always < len */
    vorx_size_t parsed; /* bytes already handed out, always <= read */
} sal_read_line_state;

void sal_init_read_line_state(sal_read_line_state *state, int fd, char *buffer, vorx_size_t len);
/* 1 with the next line, terminated, at state->buffer (also stored in *line when
 * line is not null); 0 at the end. Carriage returns become terminators; a line
 * longer than the buffer comes out in pieces; a last line needs no line feed. */
int sal_read_line(sal_read_line_state *state, char **line);

/* ---- Processor identification ----------------------------------------- */

/* One CPUID leaf / sub-leaf as read: inputs then outputs (32 bytes). */
typedef struct sal_cpuid_item {
    vorx_u32_t in_eax, in_ebx, in_ecx, in_edx; /* in_ebx, in_edx always 0 */
    vorx_u32_t eax, ebx, ecx, edx;
} sal_cpuid_item;

/* All basic and extended leaves of this processor in one array from alloc. */
vorx_er_t sal_get_raw_cpuid(sal_cpuid_item **list, vorx_size_t *count, sal_allocator *alloc);

/* The 48-character brand string, terminated (out holds at least 49 bytes). */
#define SAL_BRAND_STRING_SIZE 49
vorx_er_t sal_get_brand_string(char *out, vorx_size_t size);

/* Ticks of the timestamp counter per second, cached; false if unknown. */
vorx_bool_t sal_cpu_frequency(vorx_u64_t *hz);
/* The steps of sal_cpu_frequency, for callers that have the inputs already:
 * the frequency a brand string names (0 if none), the "cpu MHz" of a cpuinfo
 * text read from fd (0 if none), and the whole computation with its rule that
 * exactly 1 GHz becomes 1,000,000,001 Hz (a timestamp counter must never seem
 * to run at the rate of the nanosecond clock). A null brand or fd -1 skips
 * that source. */
vorx_u64_t sal_cpu_frequency_from_brand(const char *brand);
vorx_u64_t sal_cpu_frequency_from_cpuinfo(int fd);
vorx_u64_t sal_cpu_frequency_compute(const char *brand, int cpuinfo_fd);

/* One logical processor's place: byte 0 unused, package, core, hardware thread. */
typedef struct sal_cpu_topology {
    vorx_u8_t unused;
    vorx_u8_t package_id;
    vorx_u8_t core_id;
    vorx_u8_t thread_id;
} sal_cpu_topology;

/* signature: family, model, stepping. The topology array (sal_get_cpu_number()
 * entries, zeroed) comes from alloc. 1 on success, 0 on failure. */
int sal_get_cpu_info(vorx_u32_t signature[3], vorx_address_t *max_address,
                     vorx_u32_t *address_bits, vorx_u32_t *cpu_count,
                     sal_cpu_topology **topology, sal_allocator *alloc);
/* As sal_get_cpu_info's parsing step, over a cpuinfo text read from fd. */
int sal_parse_cpu_info(int fd, vorx_u32_t signature[3], vorx_u32_t cpu_count,
                       sal_cpu_topology *topology);
/* Renumbers package ids densely, keeping their order. */
void sal_adjust_pack_id(vorx_u32_t count, sal_cpu_topology *topology);
vorx_u32_t sal_get_socket_count(void);
/* Runs callback(processor id, step, data) on each processor in turn by moving
 * the calling thread; returns the number of calls, 0 on failure. */
typedef void (*sal_traverse_cpus_callback)(vorx_u32_t processor_id, vorx_u32_t step, void *data);
vorx_u32_t sal_traverse_cpus(sal_traverse_cpus_callback callback, void *data);

vorx_er_t sal_get_llc_size(vorx_u32_t *level, vorx_u64_t *size);
vorx_er_t sal_get_data_cache_size(vorx_u32_t level, vorx_u64_t *size);
vorx_er_t sal_get_data_cache_associativity(vorx_u32_t level, vorx_u32_t *ways);
vorx_u32_t sal_get_perfmon_version(void);
vorx_bool_t sal_is_avx_context_switch_enabled(void);
vorx_bool_t sal_is_avx_supported(void);
vorx_bool_t sal_is_fma_supported(void);
vorx_bool_t sal_is_avx2_supported(void);
vorx_bool_t sal_is_avx512_supported(void);

/* ---- Stacks ----------------------------------------------------------- */

/* The mapping that holds sp, from /proc/self/maps: top is its lower and bottom
 * its higher address. Always 1; with no mapping found top is 0 and bottom all
 * ones, and callers test for those values. */
vorx_er_t sal_get_thread_stack_limits(vorx_address_t sp, vorx_address_t *top,
                                      vorx_address_t *bottom);
vorx_er_t sal_get_memory_region_address_range(vorx_address_t address, vorx_address_t *top,
                                              vorx_address_t *bottom);
/* The same from the thread library's stack attributes: 1, or 2 when sp is not
 * on the calling thread's stack. */
vorx_er_t sal_get_thread_stack_limits_by_pthread(vorx_address_t sp, vorx_address_t *top,
                                                 vorx_address_t *bottom);

/* ---- System ----------------------------------------------------------- */

typedef struct sal_os_version {
    vorx_u16_t major, minor, patch, build;
} sal_os_version;

/* Always 1; *available when the kernel is at least 2.6.12. */
vorx_er_t sal_per_thread_posix_timer_available(vorx_bool_t *available);
vorx_er_t sal_get_os_version(sal_os_version *version);
vorx_arch_t sal_get_os_arch(void);
char *sal_get_hypervisor_name(sal_allocator *alloc); /* "None" when there is none */
char *sal_get_os_name(sal_allocator *alloc);         /* "<release> <distribution>" */
/* Architecture of an executable, following "#!" interpreters; 1 when unknown. */
vorx_arch_t sal_get_binary_arch(const char *path);
/* The program name as a user knows it (the script, not its interpreter); its length. */
vorx_size_t sal_executable_name(char **name, sal_allocator *alloc);
/* Base name up to the second dot ("libfoo.so.1.2" -> "libfoo.so", *length 9). */
const char *sal_find_mod_name_with_ext(const char *path, vorx_size_t *length);

/* Where the system layer asks the instrumentation engine. The tool points
 * these at thin wrappers of OS_GetKernelRelease / OS_GetHostCPUArch; by
 * default they use uname(2), so the layer also works in plain programs.
 *   get_kernel_release: the release text ("6.1.0-18-amd64") into buffer.
 *   get_host_cpu_arch: the host's machine name ("i686", "x86_64") into buffer.
 * Both return VORX_TRUE on success. */
typedef struct sal_engine_hooks {
    vorx_bool_t (*get_kernel_release)(char *buffer, vorx_size_t size);
    vorx_bool_t (*get_host_cpu_arch)(char *buffer, vorx_size_t size);
} sal_engine_hooks;

/* Null restores the defaults. The table is copied. */
void sal_set_engine_hooks(const sal_engine_hooks *hooks);

#ifdef __cplusplus
}
#endif

#endif /* SAL_H */
