/* Processor identification through CPUID: raw leaves, frequency, caches,
 * features, and the topology parsing that does not depend on where the text
 * comes from. */
#include <stdio.h>
#include <string.h>

#include "sal.h"

void sal_read_cpuid(const vorx_u32_t in[4], vorx_u32_t out[4])
{
    vorx_u32_t eax = in[0], ebx = in[1], ecx = in[2], edx = in[3];
    __asm__ volatile("cpuid" : "+a"(eax), "+b"(ebx), "+c"(ecx), "+d"(edx));
    out[0] = eax;
    out[1] = ebx;
    out[2] = ecx;
    out[3] = edx;
}

static void cpuid(vorx_u32_t leaf, vorx_u32_t sub_leaf, vorx_u32_t out[4])
{
    const vorx_u32_t in[4] = {leaf, 0, sub_leaf, 0};
    sal_read_cpuid(in, out);
}

vorx_u64_t sal_read_xcr0(void)
{
    vorx_u32_t regs[4];
    cpuid(1, 0, regs);
    if (!(regs[2] & (1u << 27))) /* no OSXSAVE: XGETBV would fault */
        return 0;
    vorx_u32_t low, high;
    __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return ((vorx_u64_t)high << 32) | low;
}

vorx_u32_t sal_processor_id(void)
{
    vorx_u32_t regs[4];
    cpuid(1, 0, regs);
    return regs[1] >> 24;
}

int sal_get_bit_pos(vorx_u32_t value)
{
    return value == 0 ? -1 : __builtin_ctz(value);
}

/* ---- raw leaves ------------------------------------------------------------ */

typedef struct cpuid_list {
    sal_cpuid_item *items;
    vorx_size_t count;
    sal_allocator *alloc;
} cpuid_list;

/* Grows the list by one item through the allocator; null when refused. */
static sal_cpuid_item *append_leaf(cpuid_list *list, vorx_u32_t leaf, vorx_u32_t sub_leaf)
{
    vorx_size_t size = (list->count + 1) * sizeof(sal_cpuid_item);
    void *block = list->count == 0 ? sal_allocator_alloc(list->alloc, size)
                                   : sal_allocator_realloc(list->alloc, size);
    if (block == NULL)
        return NULL;
    list->items = block;
    sal_cpuid_item *item = &list->items[list->count++];
    vorx_u32_t out[4];
    cpuid(leaf, sub_leaf, out);
    *item = (sal_cpuid_item){leaf, 0, sub_leaf, 0, out[0], out[1], out[2], out[3]};
    return item;
}

/* Sub-leaf walks end at a closing item; the bound only guards against a
 * processor (or hypervisor) that never reports one. */
#define MAX_SUB_LEAVES 256u

static vorx_bool_t append_leaf_with_sub_leaves(cpuid_list *list, vorx_u32_t leaf)
{
    sal_cpuid_item *item = append_leaf(list, leaf, 0);
    if (item == NULL)
        return VORX_FALSE;
    if (leaf == 4) {
        /* Every cache, and the closing item whose type field is 0. */
        for (vorx_u32_t sub = 1; (item->eax & 0x1f) != 0 && sub < MAX_SUB_LEAVES; ++sub)
            if ((item = append_leaf(list, leaf, sub)) == NULL)
                return VORX_FALSE;
    } else if (leaf == 11 && item->eax == 0 && item->ebx != 0) {
        /* Exactly this test, not the usual level walk: the records reproduce it. */
        for (vorx_u32_t sub = 1; sub < MAX_SUB_LEAVES; ++sub) {
            if ((item = append_leaf(list, leaf, sub)) == NULL)
                return VORX_FALSE;
            if (item->eax != 0 || item->ebx == 0)
                break;
        }
    }
    return VORX_TRUE;
}

vorx_er_t sal_get_raw_cpuid(sal_cpuid_item **items, vorx_size_t *count, sal_allocator *alloc)
{
    vorx_u32_t regs[4];
    cpuid(0, 0, regs);
    vorx_u32_t highest_basic = regs[0];
    cpuid(0x80000000u, 0, regs);
    vorx_u32_t extended = regs[0] & 0x80000000u ? regs[0] - 0x80000000u : regs[0];
    if (extended > 4096)
        extended = 0;

    cpuid_list list = {NULL, 0, alloc};
    for (vorx_u32_t leaf = 0; leaf <= highest_basic; ++leaf)
        if (!append_leaf_with_sub_leaves(&list, leaf))
            return vorx_er_general_failure;
    for (vorx_u32_t leaf = 0x80000000u; leaf <= 0x80000000u + extended; ++leaf)
        if (!append_leaf_with_sub_leaves(&list, leaf))
            return vorx_er_general_failure;
    *items = list.items;
    *count = list.count;
    return vorx_er_success;
}

/* ---- brand and frequency ----------------------------------------------- */

vorx_er_t sal_get_brand_string(char *out, vorx_size_t size)
{
    vorx_u32_t regs[4];
    cpuid(0x80000000u, 0, regs);
    if (size < SAL_BRAND_STRING_SIZE || regs[0] < 0x80000004u)
        return vorx_er_general_failure;
    for (vorx_u32_t i = 0; i < 3; ++i) {
        cpuid(0x80000002u + i, 0, regs);
        memcpy(out + i * 16, regs, 16);
    }
    out[48] = '\0';
    return vorx_er_success;
}

vorx_u64_t sal_cpu_frequency_from_brand(const char *brand)
{
    const char *tail = brand ? strrchr(brand, ' ') : NULL;
    int whole = 0, hundredths = 0;
    char unit = 0;
    if (tail == NULL || sscanf(tail, " %d.%d%1cHz\n", &whole, &hundredths, &unit) != 3)
        return 0;
    vorx_u64_t value = (vorx_u64_t)whole * 100 + (vorx_u64_t)hundredths;
    if (unit == 'M')
        value *= 1000000ull;
    else if (unit == 'G')
        value *= 1000000000ull;
    return value / 100;
}

vorx_u64_t sal_cpu_frequency_from_cpuinfo(int fd)
{
    char buffer[4096];
    sal_read_line_state state;
    char *line;
    sal_init_read_line_state(&state, fd, buffer, sizeof(buffer));
    while (sal_read_line(&state, &line)) {
        float mhz;
        if (sscanf(line, "cpu MHz : %f", &mhz) == 1)
            return (vorx_u64_t)(mhz * 1000000.0f);
    }
    return 0;
}

vorx_u64_t sal_cpu_frequency_compute(const char *brand, int cpuinfo_fd)
{
    vorx_u64_t hz = sal_cpu_frequency_from_brand(brand);
    if (hz == 0 && cpuinfo_fd != -1)
        hz = sal_cpu_frequency_from_cpuinfo(cpuinfo_fd);
    /* A timestamp counter must never seem to tick at the nanosecond clock's
     * rate, or consumers would take one clock for the other. */
    if (hz == 1000000000ull)
        hz = 1000000001ull;
    return hz;
}

static vorx_u64_t g_cpu_frequency = 0;

vorx_bool_t sal_cpu_frequency(vorx_u64_t *hz)
{
    if (g_cpu_frequency == 0) {
        char brand[SAL_BRAND_STRING_SIZE];
        if (sal_get_brand_string(brand, sizeof(brand)) != vorx_er_success)
            return VORX_FALSE;
        int fd = sal_open_read("/proc/cpuinfo");
        g_cpu_frequency = sal_cpu_frequency_compute(brand, fd);
        if (fd != -1)
            sal_close(fd);
    }
    *hz = g_cpu_frequency;
    return g_cpu_frequency != 0;
}

/* ---- caches ------------------------------------------------------------- */

typedef struct cache_entry {
    vorx_u32_t eax, ebx, ecx;
} cache_entry;

static vorx_u32_t cache_level(const cache_entry *e)
{
    return (e->eax >> 5) & 0x7;
}

static vorx_u64_t cache_size(const cache_entry *e)
{
    vorx_u64_t ways = (e->ebx >> 22) & 0x3ff;
    vorx_u64_t partitions = (e->ebx >> 12) & 0x3ff;
    vorx_u64_t line = e->ebx & 0xfff;
    vorx_u64_t sets = e->ecx;
    return (ways + 1) * (partitions + 1) * (line + 1) * (sets + 1);
}

/* Calls visit for each cache of leaf 4 until it returns true; true if it did. */
static vorx_bool_t walk_caches(vorx_bool_t (*visit)(const cache_entry *, void *), void *data)
{
    vorx_u32_t regs[4];
    cpuid(0, 0, regs);
    if (regs[0] < 4)
        return VORX_FALSE;
    for (vorx_u32_t sub = 0; sub < MAX_SUB_LEAVES; ++sub) {
        cpuid(4, sub, regs);
        if ((regs[0] & 0x1f) == 0)
            break;
        cache_entry entry = {regs[0], regs[1], regs[2]};
        if (visit(&entry, data))
            return VORX_TRUE;
    }
    return VORX_FALSE;
}

typedef struct cache_query {
    vorx_u32_t level;
    cache_entry found;
    vorx_bool_t have;
} cache_query;

static vorx_bool_t keep_highest_level(const cache_entry *e, void *data)
{
    cache_query *q = data;
    if (!q->have || cache_level(e) >= q->level) { /* a later one wins ties */
        q->level = cache_level(e);
        q->found = *e;
        q->have = VORX_TRUE;
    }
    return VORX_FALSE;
}

static vorx_bool_t first_data_cache_of_level(const cache_entry *e, void *data)
{
    cache_query *q = data;
    if (cache_level(e) == q->level && (e->eax & 1)) {
        q->found = *e;
        q->have = VORX_TRUE;
        return VORX_TRUE;
    }
    return VORX_FALSE;
}

vorx_er_t sal_get_llc_size(vorx_u32_t *level, vorx_u64_t *size)
{
    cache_query q = {0, {0, 0, 0}, VORX_FALSE};
    walk_caches(keep_highest_level, &q);
    *level = q.have ? q.level : 0;
    *size = q.have ? cache_size(&q.found) : 0;
    return vorx_er_success;
}

vorx_er_t sal_get_data_cache_size(vorx_u32_t level, vorx_u64_t *size)
{
    cache_query q = {level, {0, 0, 0}, VORX_FALSE};
    walk_caches(first_data_cache_of_level, &q);
    *size = q.have ? cache_size(&q.found) : 0;
    return vorx_er_success;
}

vorx_er_t sal_get_data_cache_associativity(vorx_u32_t level, vorx_u32_t *ways)
{
    cache_query q = {level, {0, 0, 0}, VORX_FALSE};
    walk_caches(first_data_cache_of_level, &q);
    *ways = q.have ? ((q.found.ebx >> 22) & 0x3ff) + 1 : 0;
    return vorx_er_success;
}

vorx_u32_t sal_get_perfmon_version(void)
{
    vorx_u32_t regs[4];
    cpuid(10, 0, regs);
    return regs[0];
}

/* ---- features ------------------------------------------------------------ */

static vorx_bool_t leaf1_ecx_has(vorx_u32_t mask)
{
    vorx_u32_t regs[4];
    cpuid(1, 0, regs);
    return (regs[2] & mask) == mask;
}

static vorx_u32_t leaf7_ebx(void)
{
    vorx_u32_t regs[4];
    cpuid(0, 0, regs);
    if (regs[0] < 7)
        return 0;
    cpuid(7, 0, regs);
    return regs[1];
}

vorx_bool_t sal_is_avx_context_switch_enabled(void)
{
    return (sal_read_xcr0() & 0x6) == 0x6;
}

vorx_bool_t sal_is_avx_supported(void)
{
    return leaf1_ecx_has(0x18000000u) && sal_is_avx_context_switch_enabled();
}

vorx_bool_t sal_is_fma_supported(void)
{
    return leaf1_ecx_has(0x18001000u) && sal_is_avx_context_switch_enabled();
}

vorx_bool_t sal_is_avx2_supported(void)
{
    return sal_is_avx_supported() && (leaf7_ebx() & (1u << 5));
}

vorx_bool_t sal_is_avx512_supported(void)
{
    return (leaf7_ebx() & (1u << 16)) && leaf1_ecx_has(1u << 27) &&
           (sal_read_xcr0() & 0xe6) == 0xe6;
}

/* ---- topology ----------------------------------------------------------- */

static vorx_bool_t package_in_use(vorx_u32_t count, const sal_cpu_topology *t, vorx_u32_t id)
{
    for (vorx_u32_t i = 0; i < count; ++i)
        if (t[i].package_id == id)
            return VORX_TRUE;
    return VORX_FALSE;
}

void sal_adjust_pack_id(vorx_u32_t count, sal_cpu_topology *topology)
{
    vorx_u32_t distinct = 0;
    for (vorx_u32_t id = 0; id < 256; ++id)
        distinct += package_in_use(count, topology, id);
    if (distinct < 2)
        return;
    for (vorx_u32_t id = 0; id < distinct; ++id) {
        if (package_in_use(count, topology, id))
            continue;
        vorx_u32_t next = id + 1;
        while (next < 255 && !package_in_use(count, topology, next))
            ++next;
        for (vorx_u32_t i = 0; i < count; ++i)
            if (topology[i].package_id == next)
                topology[i].package_id = (vorx_u8_t)id;
    }
}

static vorx_bool_t same_place(const sal_cpu_topology *a, const sal_cpu_topology *b)
{
    return a->package_id == b->package_id && a->core_id == b->core_id &&
           a->thread_id == b->thread_id;
}

static vorx_bool_t matches_earlier(const sal_cpu_topology *topology, vorx_u32_t index)
{
    for (vorx_u32_t j = 0; j < index; ++j)
        if (same_place(&topology[j], &topology[index]))
            return VORX_TRUE;
    return VORX_FALSE;
}

/* Processors that share package and core are hardware threads of one core:
 * number them 0, 1, ... in the order they appear. */
static void number_hardware_threads(vorx_u32_t count, sal_cpu_topology *topology)
{
    for (vorx_u32_t i = 0; i < count; ++i)
        for (vorx_u32_t tries = 0; tries < 256 && matches_earlier(topology, i); ++tries)
            topology[i].thread_id++;
}

int sal_parse_cpu_info(int fd, vorx_u32_t signature[3], vorx_u32_t cpu_count,
                       sal_cpu_topology *topology)
{
    char buffer[4096];
    sal_read_line_state state;
    char *line;
    int index = -1, value = 0;
    vorx_bool_t have_siblings = VORX_FALSE;
    sal_init_read_line_state(&state, fd, buffer, sizeof(buffer));

    while (sal_read_line(&state, &line)) {
        if (sscanf(line, "processor : %d\n", &value) == 1) {
            ++index;
            continue;
        }
        if (index >= (int)cpu_count)
            return 0;
        if (index < 0)
            continue;
        sal_cpu_topology *entry = &topology[index];
        if (sscanf(line, "physical id : %d", &value) == 1)
            entry->package_id = (vorx_u8_t)value;
        else if (sscanf(line, "core id : %d", &value) == 1)
            entry->core_id = (vorx_u8_t)value;
        else if (sscanf(line, "cpu cores : %d", &value) == 1)
            ; /* remembered by the format, not needed for numbering */
        else if (sscanf(line, "cpu family : %d", &value) == 1)
            signature[0] = (vorx_u32_t)value;
        else if (sscanf(line, "model : %d", &value) == 1)
            signature[1] = (vorx_u32_t)value;
        else if (sscanf(line, "stepping : %d", &value) == 1)
            signature[2] = (vorx_u32_t)value;
        else if (sscanf(line, "siblings : %d", &value) == 1)
            have_siblings = VORX_TRUE;
    }
    if (have_siblings)
        number_hardware_threads(cpu_count, topology);
    if (cpu_count >= 2)
        sal_adjust_pack_id(cpu_count, topology);
    return 1;
}
