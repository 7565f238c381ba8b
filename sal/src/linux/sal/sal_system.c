/* Linux queries of substance: stack limits from the memory map, the kernel
 * and distribution, processor topology from /proc and /sys, executables. */
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "sal.h"
#include "sal_raw_syscall.h"

/* ---- hooks into the instrumentation engine ------------------------------ */

static vorx_bool_t copy_text(char *buffer, vorx_size_t size, const char *text)
{
    if (buffer == NULL || size == 0)
        return VORX_FALSE;
    snprintf(buffer, size, "%s", text);
    return VORX_TRUE;
}

static vorx_bool_t uname_release(char *buffer, vorx_size_t size)
{
    struct utsname names;
    return uname(&names) == 0 && copy_text(buffer, size, names.release);
}

static vorx_bool_t uname_machine(char *buffer, vorx_size_t size)
{
    struct utsname names;
    return uname(&names) == 0 && copy_text(buffer, size, names.machine);
}

static const sal_engine_hooks g_default_hooks = {uname_release, uname_machine};
static sal_engine_hooks g_hooks = {uname_release, uname_machine};

void sal_set_engine_hooks(const sal_engine_hooks *hooks)
{
    const sal_engine_hooks *chosen = hooks ? hooks : &g_default_hooks;
    g_hooks.get_kernel_release =
        chosen->get_kernel_release ? chosen->get_kernel_release : uname_release;
    g_hooks.get_host_cpu_arch = chosen->get_host_cpu_arch ? chosen->get_host_cpu_arch : uname_machine;
}

#define RELEASE_SIZE 4096

/* ---- stack limits --------------------------------------------------------- */

static void rewind_reader(sal_read_line_state *state)
{
    sal_seek(state->fd, 0, 0, SEEK_SET);
    state->read = 0;
    state->parsed = 0;
}

vorx_er_t sal_get_thread_stack_limits(vorx_address_t sp, vorx_address_t *top,
                                      vorx_address_t *bottom)
{
    /* Named as in the failure texts that users send in. */
    struct {
        vorx_address_t sp;
    } stk_limit_desc = {sp};
    int fd = sal_open_read("/proc/self/maps");
    SAL_ASSERT(fd != -1);

    char buffer[512];
    sal_read_line_state state;
    sal_init_read_line_state(&state, fd, buffer, sizeof(buffer));
    *top = 0;
    *bottom = (vorx_address_t)-1;
    vorx_address_t previous_high = 0;
    unsigned retries = 5;

    for (;;) {
        char *line;
        int line_read = sal_read_line(&state, &line);
        if (line_read != 1) {
            SAL_ASSERT(line_read == 0);
            if (--retries == 0)
                break;
            rewind_reader(&state);
            continue;
        }
        unsigned long low, high;
        if (sscanf(line, "%lx-%lx %*s %*x %*s %*s", &low, &high) != 2)
            continue;
        if (stk_limit_desc.sp < low) {
            /* Below a later mapping but in none before it: the map changed
             * while it was read (or sp is in no mapping). Read it again. */
            if (--retries == 0)
                break;
            rewind_reader(&state);
            previous_high = high;
            continue;
        }
        if (low >= previous_high && stk_limit_desc.sp < high) {
            *top = low;
            *bottom = high;
            sal_close(fd);
            SAL_ASSERT(*top < *bottom);
            return vorx_er_success;
        }
        SAL_ASSERT(stk_limit_desc.sp >= high && low <= high);
        previous_high = high;
    }
    sal_close(fd);
    SAL_ASSERT(*top == 0 && *bottom == (vorx_address_t)(-1));
    return vorx_er_success;
}

vorx_er_t sal_get_memory_region_address_range(vorx_address_t address, vorx_address_t *top,
                                              vorx_address_t *bottom)
{
    return sal_get_thread_stack_limits(address, top, bottom);
}

vorx_er_t sal_get_thread_stack_limits_by_pthread(vorx_address_t sp, vorx_address_t *top,
                                                 vorx_address_t *bottom)
{
    *top = 0;
    *bottom = (vorx_address_t)-1;
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return vorx_er_general_failure;
    void *base = NULL;
    size_t size = 0;
    vorx_er_t status = vorx_er_general_failure;
    if (pthread_attr_getstack(&attributes, &base, &size) == 0 && (vorx_address_t)base <= sp &&
        sp < (vorx_address_t)base + size) {
        *top = (vorx_address_t)base;
        *bottom = (vorx_address_t)base + size;
        status = vorx_er_success;
    }
    pthread_attr_destroy(&attributes);
    return status;
}

/* ---- kernel and distribution ------------------------------------------- */

vorx_er_t sal_get_os_version(sal_os_version *version)
{
    char release[RELEASE_SIZE];
    *version = (sal_os_version){0, 0, 0, 0};
    if (!g_hooks.get_kernel_release(release, sizeof(release)))
        return vorx_er_general_failure;
    return sscanf(release, "%hu.%hu.%hu-%hu", &version->major, &version->minor, &version->patch,
                  &version->build) >= 1
               ? vorx_er_success
               : vorx_er_general_failure;
}

vorx_er_t sal_per_thread_posix_timer_available(vorx_bool_t *available)
{
    sal_os_version v;
    sal_get_os_version(&v);
    *available = v.major >= 3 || (v.major == 2 && v.minor >= 7) ||
                 (v.major == 2 && v.minor == 6 && v.patch > 11);
    return vorx_er_success;
}

vorx_arch_t sal_get_os_arch(void)
{
    char machine[64];
    if (!g_hooks.get_host_cpu_arch(machine, sizeof(machine)))
        return vorx_arch_unknown;
    /* The engine's codes: 1 for 32-bit x86, 2 for its 64-bit extension. */
    if (strcmp(machine, "x86_64") == 0 || strcmp(machine, "amd64") == 0)
        return vorx_arch_kex64;
    if (machine[0] == 'i' && machine[1] >= '3' && machine[1] <= '6' && strcmp(machine + 2, "86") == 0)
        return vorx_arch_ia32;
    return vorx_arch_unknown;
}

static const char *const g_distribution_files[] = {
    "/etc/os-release",        "/etc/mandrake-release",   "/etc/SuSE-release",
    "/etc/yellowdog-release", "/etc/turbolinux-release", "/etc/redhat-release",
    "/etc/slackware-version", "/etc/gentoo-release",     "/etc/moblin-release",
    "/etc/meego-release",     "/etc/wrs-release",        "/etc/lsb-release",
    "/etc/debian_version",    "/etc/system-release",     "/etc/issue",
};

/* Reads up to size bytes of the file into out; its length without one
 * trailing newline, 0 when it cannot be read. */
static vorx_size_t read_small_file(const char *path, char *out, vorx_size_t size)
{
    int fd = sal_open_read(path);
    if (fd == -1)
        return 0;
    vorx_ssize_t got = sal_read(fd, out, size);
    sal_close(fd);
    if (got <= 0)
        return 0;
    vorx_size_t length = (vorx_size_t)got;
    if (out[length - 1] == '\n')
        out[--length] = '\0';
    return length;
}

char *sal_get_os_name(sal_allocator *alloc)
{
    char release[RELEASE_SIZE] = "";
    g_hooks.get_kernel_release(release, sizeof(release));
    vorx_size_t release_length = strlen(release);
    char *name = sal_allocator_alloc(alloc, release_length + 4097);
    if (name == NULL)
        return NULL;
    memcpy(name, release, release_length);
    name[release_length] = ' ';
    char *distribution = name + release_length + 1;
    for (vorx_size_t i = 0; i < sizeof(g_distribution_files) / sizeof(g_distribution_files[0]); ++i)
        if (read_small_file(g_distribution_files[i], distribution, 4096) != 0)
            return name;
    memset(distribution, 0, 4096);
    strcpy(distribution, "Unix/Linux");
    return name;
}

char *sal_get_hypervisor_name(sal_allocator *alloc)
{
    const vorx_size_t size = 13;
    char *name = sal_allocator_alloc(alloc, size);
    if (name == NULL)
        return NULL;
    vorx_u32_t regs[4];
    const vorx_u32_t leaf1[4] = {1, 0, 0, 0};
    sal_read_cpuid(leaf1, regs);
    if (regs[2] & 0x80000000u) {
        const vorx_u32_t vendor_leaf[4] = {0x40000000u, 0, 0, 0};
        sal_read_cpuid(vendor_leaf, regs);
        memcpy(name, &regs[1], 4);
        memcpy(name + 4, &regs[2], 4);
        memcpy(name + 8, &regs[3], 4);
        name[12] = '\0';
        return name;
    }
    int fd = sal_open_read("/sys/hypervisor/type");
    if (fd != -1) {
        sal_read_line_state state;
        char *line = NULL;
        sal_init_read_line_state(&state, fd, name, size);
        int have_line = sal_read_line(&state, &line);
        sal_close(fd);
        if (have_line && line[0] != '\0')
            return name;
    }
    strcpy(name, "None");
    return name;
}

/* ---- executables ---------------------------------------------------------- */

enum { ELF_CLASS_32 = 1, ELF_CLASS_64 = 2, EM_EPIC64 = 50, EM_KEX64 = 62 };
#define MAX_INTERPRETER_DEPTH 8

static vorx_arch_t arch_of_machine(vorx_u16_t machine)
{
    if (machine == EM_EPIC64)
        return vorx_arch_epic64;
    if (machine == EM_KEX64)
        return vorx_arch_kex64;
    return vorx_arch_ia32;
}

static vorx_arch_t binary_arch(const char *path, unsigned depth);

/* The interpreter named by a "#!" first line, followed to its architecture. */
static vorx_arch_t script_arch(int fd, unsigned depth)
{
    char buffer[4096];
    sal_read_line_state state;
    char *line;
    sal_seek(fd, 0, 0, SEEK_SET);
    sal_init_read_line_state(&state, fd, buffer, sizeof(buffer));
    if (!sal_read_line(&state, &line) || strncmp(line, "#!", 2) != 0)
        return vorx_arch_ia32;
    char *interpreter = line + 2;
    while (*interpreter == ' ' || *interpreter == '\t')
        ++interpreter;
    interpreter[strcspn(interpreter, " \t")] = '\0';
    if (*interpreter == '\0' || depth >= MAX_INTERPRETER_DEPTH)
        return vorx_arch_ia32;
    return binary_arch(interpreter, depth + 1);
}

static vorx_arch_t binary_arch(const char *path, unsigned depth)
{
    int fd = sal_open_read(path);
    if (fd == -1)
        return vorx_arch_ia32;
    unsigned char header[64] = {0};
    vorx_arch_t arch = vorx_arch_ia32;
    if (sal_read(fd, header, 16) != 16) {
        arch = script_arch(fd, depth);
    } else if (header[4] == ELF_CLASS_32 || header[4] == ELF_CLASS_64) {
        vorx_size_t rest = header[4] == ELF_CLASS_32 ? 52 - 16 : 64 - 16;
        if (sal_read(fd, header + 16, rest) == (vorx_ssize_t)rest)
            arch = arch_of_machine((vorx_u16_t)(header[18] | header[19] << 8));
    } else {
        arch = script_arch(fd, depth);
    }
    sal_close(fd);
    return arch;
}

vorx_arch_t sal_get_binary_arch(const char *path)
{
    return path ? binary_arch(path, 0) : vorx_arch_ia32;
}

vorx_size_t sal_thread_name(vorx_u32_t pid, char buf[SAL_THREAD_NAME_SIZE])
{
    char path[64];
    char line_buffer[SAL_THREAD_NAME_SIZE];
    char format[32];
    buf[0] = '\0';
    snprintf(path, sizeof(path), "/proc/%u/status", pid);
    int fd = sal_open_read(path);
    if (fd == -1)
        return 0;
    sal_read_line_state state;
    char *line;
    sal_init_read_line_state(&state, fd, line_buffer, sizeof(line_buffer));
    if (sal_read_line(&state, &line)) {
        /* The line buffer bounds the name well below the output's size. */
        snprintf(format, sizeof(format), "Name:\t%%%u[^\n]s", SAL_THREAD_NAME_SIZE - 1);
        if (sscanf(line, format, buf) != 1)
            buf[0] = '\0';
    }
    sal_close(fd);
    buf[SAL_THREAD_NAME_SIZE - 1] = '\0';
    return strlen(buf);
}

/* Reads the whole of a /proc file into memory from alloc, doubling from
 * initial; its length, or -1. */
static vorx_ssize_t read_whole_file(const char *path, vorx_size_t initial, sal_allocator *alloc,
                                    char **out)
{
    int fd = sal_open_read(path);
    if (fd == -1)
        return -1;
    vorx_size_t capacity = initial, length = 0;
    char *data = sal_allocator_alloc(alloc, capacity);
    while (data != NULL) {
        vorx_ssize_t got = sal_read(fd, data + length, capacity - length);
        if (got <= 0)
            break;
        length += (vorx_size_t)got;
        if (length == capacity) {
            capacity *= 2;
            data = sal_allocator_realloc(alloc, capacity);
        }
    }
    sal_close(fd);
    *out = data;
    return data ? (vorx_ssize_t)length : -1;
}

/* Finds needle in the bytes (zeros included); its offset or -1. */
static vorx_ssize_t find_bytes(const char *bytes, vorx_size_t length, const char *needle)
{
    vorx_size_t needle_length = strlen(needle);
    for (vorx_size_t i = 0; needle_length && i + needle_length <= length; ++i)
        if (memcmp(bytes + i, needle, needle_length) == 0)
            return (vorx_ssize_t)i;
    return -1;
}

/* Puts text at the start of the allocator's block (growing it as needed). */
static char *store_name(sal_allocator *alloc, char *block, const char *text, vorx_size_t length)
{
    if (alloc->size < length + 1) {
        block = sal_allocator_realloc(alloc, length + 1);
        if (block == NULL)
            return NULL;
    }
    sal_memmove(block, text, length);
    block[length] = '\0';
    return block;
}

vorx_size_t sal_executable_name(char **name, sal_allocator *alloc)
{
    char path[64];
    vorx_u32_t pid = sal_process_id();
    snprintf(path, sizeof(path), "/proc/%u/exe", pid);

    /* 1. The file that runs, grown until the link fits. */
    vorx_size_t capacity = 4096;
    char *link = sal_allocator_alloc(alloc, capacity);
    vorx_ssize_t length = -1;
    while (link != NULL) {
        length = readlink(path, link, capacity);
        if (length < (vorx_ssize_t)capacity)
            break;
        capacity *= 2;
        link = sal_allocator_realloc(alloc, capacity);
    }
    *name = NULL;
    if (link == NULL)
        return 0;
    if (length < 0)
        length = 0;
    link[length] = '\0';
    const char *slash = strrchr(link, '/');
    const char *base = slash ? slash + 1 : link;
    vorx_size_t base_length = strlen(base);

    /* 2. An ordinary binary: its short name begins its file name. */
    char short_name[SAL_THREAD_NAME_SIZE];
    vorx_size_t short_length = sal_thread_name(pid, short_name);
    if (strncmp(base, short_name, short_length) != 0) {
        /* 3. An interpreter or loader: the script is named on the command line. */
        sal_allocator scratch = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
        char *cmdline = NULL;
        snprintf(path, sizeof(path), "/proc/%u/cmdline", pid);
        vorx_ssize_t cmdline_length = read_whole_file(path, 256, &scratch, &cmdline);
        vorx_ssize_t at = cmdline_length > 0
                              ? find_bytes(cmdline, (vorx_size_t)cmdline_length, short_name)
                              : -1;
        if (at >= 0) {
            const char *found = cmdline + at;
            vorx_size_t found_length = strnlen(found, (vorx_size_t)(cmdline_length - at));
            if (found_length != 0) {
                *name = store_name(alloc, link, found, found_length);
                sal_allocator_destroy(&scratch);
                return *name ? found_length : 0;
            }
        }
        sal_allocator_destroy(&scratch);
    }
    *name = store_name(alloc, link, base, base_length);
    return *name ? base_length : 0;
}

/* ---- processors ----------------------------------------------------------- */

int sal_get_cpu_info(vorx_u32_t signature[3], vorx_address_t *max_address,
                     vorx_u32_t *address_bits, vorx_u32_t *cpu_count,
                     sal_cpu_topology **topology, sal_allocator *alloc)
{
    vorx_u32_t count = sal_get_cpu_number();
    *cpu_count = count;
    *topology = sal_allocator_alloc(alloc, count * sizeof(sal_cpu_topology));
    SAL_ASSERT(*topology);
    memset(*topology, 0, count * sizeof(sal_cpu_topology));

    vorx_arch_t cpu_arch = sal_get_os_arch();
    if (cpu_arch == vorx_arch_ia32) {
        *address_bits = 32;
        *max_address = 0xBFFFFFFFul;
    } else {
        SAL_ASSERT(cpu_arch == vorx_arch_kex64);
        *address_bits = 64;
        *max_address = (vorx_address_t)-1;
    }

    int fd = sal_open_read("/proc/cpuinfo");
    if (fd == -1)
        return 0;
    signature[0] = signature[1] = signature[2] = 0;
    int result = sal_parse_cpu_info(fd, signature, count, *topology);
    sal_close(fd);
    return result;
}

vorx_u32_t sal_get_socket_count(void)
{
    vorx_u32_t mask = 0;
    int highest = -1;
    for (unsigned cpu = 0;; ++cpu) {
        char path[96];
        snprintf(path, sizeof(path), "/sys/devices/system/cpu/cpu%u/topology/physical_package_id",
                 cpu);
        int fd = sal_open_read(path);
        if (fd == -1)
            break;
        char text[32] = {0};
        int id = -1;
        if (sal_read(fd, text, sizeof(text) - 1) > 0 && sscanf(text, "%d", &id) == 1 && id >= 0) {
            if (id < 32)
                mask |= 1u << id;
            if (id > highest)
                highest = id;
        }
        sal_close(fd);
    }
    if (highest < 0)
        return 0;
    vorx_u32_t upto = highest >= 31 ? ~0u : (2u << highest) - 1;
    return (vorx_u32_t)__builtin_popcount(mask & upto);
}

vorx_u32_t sal_traverse_cpus(sal_traverse_cpus_callback callback, void *data)
{
    vorx_u32_t cpu_no = sal_get_cpu_number();
    SAL_ASSERT(cpu_no < 32);
    vorx_u32_t saved = 0;
    if (sal_raw_failed(sal_raw_syscall3(SYS_sched_getaffinity, 0, sizeof(saved), (long)&saved)))
        return 0;

    vorx_u32_t steps = 0, previous_id = (vorx_u32_t)-1;
    for (vorx_u32_t cpu = 0; cpu < cpu_no; ++cpu) {
        vorx_u32_t only = 1u << cpu;
        if (sal_raw_failed(sal_raw_syscall3(SYS_sched_setaffinity, 0, sizeof(only), (long)&only)))
            continue;
        /* Wait out the migration: the id changes once the thread has moved. */
        vorx_u32_t id = sal_processor_id();
        while (id == previous_id) {
            sal_yield();
            id = sal_processor_id();
        }
        previous_id = id;
        callback(id, steps++, data);
    }
    if (sal_raw_failed(sal_raw_syscall3(SYS_sched_setaffinity, 0, sizeof(saved), (long)&saved)))
        return 0;
    return steps;
}
