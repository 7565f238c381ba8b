// Loading the module map from the process's present layout, "/proc/self/maps".
#include <cstdio>
#include <cstring>

#include "module_map.h"
#include "../module_map_internal.h"
#include "sal.h"
#include "vorx_log.h"

extern "C" {
const char* g_kel_tool_name = nullptr;
char* g_vorxgluf_prefix = nullptr;
}

namespace {

using vorx_mm::state_t;

// One open range: adjacent executable mappings of one file make one module.
struct open_range_t {
    uint64_t start = 0, end = 0, offset = 0;
    char name[VORX_MODULE_NAME_MAX] = {};
    bool open = false;
};

struct item_buffer_t {
    vorx_module_info_item_t* items = nullptr;
    uint32_t count = 0, capacity = 0;

    void push(const vorx_module_info_item_t& item) {
        if (count == capacity) {
            uint32_t cap = capacity ? capacity * 2 : 256;
            auto* fresh = static_cast<vorx_module_info_item_t*>(sal_mmap(sizeof(vorx_module_info_item_t) * cap));
            VORX_ASSERT(fresh != nullptr);
            if (items) {
                std::memcpy(fresh, items, sizeof(vorx_module_info_item_t) * count);
                sal_munmap(items, sizeof(vorx_module_info_item_t) * capacity);
            }
            items = fresh;
            capacity = cap;
        }
        items[count++] = item;
    }
    ~item_buffer_t() {
        if (items) sal_munmap(items, sizeof(vorx_module_info_item_t) * capacity);
    }
};

bool is_libc(const char* name) { return std::strstr(name, "/libc-") || std::strstr(name, "/libc."); }
bool is_libpthread(const char* name) {
    return std::strstr(name, "/libpthread-") || std::strstr(name, "/libpthread.");
}

void close_range(vorx_module_map_t* map, open_range_t& r, bool& libc_found, bool& pthread_found,
                 item_buffer_t& items) {
    state_t* s = map->state;
    r.open = false;
    // the signal trampolines of these two make signal frames recognisable; one of each at most
    if (!libc_found && is_libc(r.name)) {
        libc_found = true;
        vorx_mm::add_signal_range(s, r.start, r.end);
    } else if (!pthread_found && is_libpthread(r.name)) {
        pthread_found = true;
        vorx_mm::add_signal_range(s, r.start, r.end);
    }
    const char* tool = g_kel_tool_name ? g_kel_tool_name : "libvorxtool.so";
    if (std::strchr(r.name, '/') && std::strstr(r.name, tool)) g_vorxtool_address_range = {r.start, r.end};
    if (std::strstr(r.name, "/kelbin")) g_kelvm_address_range = {r.start, r.end};
    map->ops->add_module(map, r.name, r.start, r.end, 0);
    vorx_range_t piece{r.start, r.end};
    map->ops->insert_executable(map, &piece, 1, 1);
    vorx_module_info_item_t item{r.start, r.end, uint32_t(std::strlen(r.name)), nullptr};
    // the name that the record carries must outlive this routine: take the module array's copy
    vorx_find_module(map, r.start,
                     [](const char* name, uint64_t, uint8_t, void* data, vorx_module_map_cache_t*) {
                         static_cast<vorx_module_info_item_t*>(data)->name = name;
                     },
                     &item, nullptr);
    items.push(item);
}

// Parses "low-high mask offset dev inode name". Returns false for a line that is no mapping of a file or
// of a named region, or that is not readable and executable.
bool parse_line(const char* line, uint64_t& low, uint64_t& high, uint64_t& offset, const char*& name) {
    if (!std::strchr(line, '/') && !std::strchr(line, '[')) return false;
    unsigned long lo = 0, hi = 0, off = 0;
    char mask[8] = {};
    int consumed = 0;
    if (std::sscanf(line, "%lx-%lx %7s %lx %*s %*s%n", &lo, &hi, mask, &off, &consumed) < 4) return false;
    const char* p = line + consumed;
    while (*p == ' ' || *p == '\t') ++p;
    if (!*p) return false;
    if (mask[0] != 'r' || mask[2] != 'x') return false;
    low = lo;
    high = hi;
    offset = off;
    name = p;
    return true;
}

}  // namespace

extern "C" {

void vorx_init_module_names(void) {
    if (g_kel_tool_name) return;
    g_kel_tool_name = "libvorxtool.so";
    static char prefix[19];
    std::snprintf(prefix, sizeof prefix, "%s%s", "meskixe_", "vorxgluf_");
    g_vorxgluf_prefix = prefix;
}

int load_module_map_impl(vorx_module_map_t* map, vorx_module_map_writer_t writer, void* context) {
    vorx_mm::reset_for_load(map->state);
    int fd = sal_open_read("/proc/self/maps");
    if (fd < 0) return vorx_mm_not_found;
    static constexpr vorx_size_t kLineBuffer = VORX_MODULE_NAME_MAX + 256;
    char* buffer = static_cast<char*>(sal_mmap(kLineBuffer));
    VORX_ASSERT(buffer != nullptr);
    auto* open = new (sal_mmap(sizeof(open_range_t))) open_range_t();
    item_buffer_t items;
    bool libc_found = false, pthread_found = false;
    sal_read_line_state st;
    sal_init_read_line_state(&st, fd, buffer, kLineBuffer);
    char* line = nullptr;
    while (sal_read_line(&st, &line)) {
        uint64_t low, high, offset;
        const char* name;
        if (!parse_line(line, low, high, offset, name)) continue;
        VORX_ASSERT_MSG(std::strlen(name) < VORX_MODULE_NAME_MAX, "Module name is too long.");
        if (open->open && std::strcmp(open->name, name) == 0 && low == open->end) {
            open->end = high;  // the next executable mapping of the same file
            continue;
        }
        if (open->open) close_range(map, *open, libc_found, pthread_found, items);
        open->start = low;
        open->end = high;
        open->offset = offset;
        std::strncpy(open->name, name, sizeof open->name - 1);
        open->open = true;
    }
    if (open->open) close_range(map, *open, libc_found, pthread_found, items);
    sal_close(fd);
    if (items.count && writer) writer(context, items.items, items.count);
    sal_munmap(open, sizeof(open_range_t));
    sal_munmap(buffer, kLineBuffer);
    return vorx_mm_found;
}

}  // extern "C"
