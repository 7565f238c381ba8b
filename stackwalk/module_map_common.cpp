// The module map's core: the two-bank range table, the module array, the readers' caches and the queue of
// deferred module events. Nothing here knows where ranges come from (see linux/module_map_linux.cpp and
// module_map_kel.cpp), so the whole of it runs in unit tests on plain ranges.
#include <atomic>
#include <cstring>

#include "module_map.h"
#include "module_map_internal.h"
#include "sal.h"
#include "vorx_log.h"

vorx_module_map_t* g_vorx_module_map = nullptr;
vorx_range_t g_vorxtool_address_range = {0, 0};
vorx_range_t g_kelvm_address_range = {0, 0};

namespace vorx_mm {

namespace {

constexpr uint32_t kBankBit = 0x80000000u;
constexpr uint32_t kCountMask = 0x7FFFFFFFu;
constexpr uint32_t kLockFree = 0, kLockReader = 1, kLockWriter = 2;

void* map_block(size_t bytes) {
    void* p = sal_mmap(bytes);
    VORX_ASSERT(p != nullptr);
    return p;
}

inline void cpu_relax() { __builtin_ia32_pause(); }

// Waiting for a lock word that another thread holds for a few stores: spin briefly, then give the processor
// to that thread in case it was preempted in the middle (raw sched_yield: fine in a signal handler).
struct backoff {
    unsigned spins = 0;
    void wait() {
        if (++spins < 256)
            cpu_relax();
        else
            sal_yield();
    }
};

// ---------------------------------------------------------------- names

// Module names and queued names come from an arena of mappings: the map never touches the application's
// allocator, and names live as long as the map (a replaced module's name is simply no longer referenced).
char* arena_copy(state_t* s, const char* name) {
    size_t n = std::strlen(name) + 1;
    if (n > s->arena_left) {
        size_t block = n > kArenaBlock ? n : kArenaBlock;
        auto* head = static_cast<arena_block_t*>(map_block(block + sizeof(arena_block_t)));
        head->size = block + sizeof(arena_block_t);
        head->next = s->arena;
        s->arena = head;
        s->arena_next = reinterpret_cast<char*>(head + 1);
        s->arena_left = block;
    }
    char* out = s->arena_next;
    std::memcpy(out, name, n);
    s->arena_next += n;
    s->arena_left -= n;
    return out;
}

// ---------------------------------------------------------------- publication

struct view_t {
    const vorx_range_entry_t* entries;
    uint32_t count;
};

inline view_t current_view(const state_t* s) {
    uint32_t p = s->published.load(std::memory_order_acquire);
    return {s->storage + ((p & kBankBit) ? s->capacity : 0), p & kCountMask};
}

inline vorx_range_entry_t* spare_bank(state_t* s) {
    uint32_t p = s->published.load(std::memory_order_relaxed);
    return s->storage + ((p & kBankBit) ? 0 : s->capacity);
}

// The writer's side of the caches' locks: with all of them held no reader is inside the table or the
// module array, so both may be switched or moved.
void lock_caches(state_t* s) {
    s->switch_tid.store(sal_thread_id(), std::memory_order_relaxed);
    for (vorx_module_map_cache_t* c = s->caches; c; c = c->link) {
        uint32_t expected = kLockFree;
        backoff pause;
        while (!__atomic_compare_exchange_n(&c->lock, &expected, kLockWriter, false, __ATOMIC_ACQUIRE,
                                            __ATOMIC_RELAXED)) {
            expected = kLockFree;
            pause.wait();
        }
    }
}

void unlock_caches(state_t* s, bool notify) {
    for (vorx_module_map_cache_t* c = s->caches; c; c = c->link) {
        if (notify) c->invalidated = 1;
        __atomic_store_n(&c->lock, kLockFree, __ATOMIC_RELEASE);
    }
    s->switch_tid.store(0, std::memory_order_relaxed);
}

// ---------------------------------------------------------------- search

// Binary search for an entry holding the whole range. On a hit *pos is its index; on a miss the index
// where the range would go: 0 below the first entry, count above the last.
bool search(const view_t& v, const vorx_range_t& r, uint32_t* pos) {
    uint32_t lo = 0, hi = v.count;  // first entry with start > r.start
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2;
        if (v.entries[mid].start <= r.start)
            lo = mid + 1;
        else
            hi = mid;
    }
    if (lo > 0 && r.end <= v.entries[lo - 1].end) {
        *pos = lo - 1;
        return true;
    }
    *pos = lo;
    return false;
}

inline bool within(const vorx_range_t& outer, const vorx_range_t& r) {
    return outer.start <= r.start && r.end <= outer.end && outer.end > outer.start;
}

bool find_in_view(state_t* s, const view_t& v, const vorx_range_t& r, vorx_module_map_cache_t* cache,
                  uint8_t* flag) {
    uint32_t gen = s->generation.load(std::memory_order_relaxed);
    if (cache && cache->generation != gen) {
        cache->hit = cache->miss = vorx_range_t{0, 0};
        cache->generation = gen;
    }
    uint32_t pos;
    if (search(v, r, &pos)) {
        if (cache) cache->hit = {v.entries[pos].start, v.entries[pos].end};
        if (flag) *flag = v.entries[pos].flag;
        return true;
    }
    if (pos == 0 || pos >= v.count) return false;
    vorx_range_t gap{v.entries[pos - 1].end, v.entries[pos].start};
    // the largest hole since the last change answers most repeated questions at once
    if (cache && gap.end - gap.start > cache->miss.end - cache->miss.start) cache->miss = gap;
    return false;
}

// ---------------------------------------------------------------- the writers' table work

void reallocate_storage_locked(state_t* s) {
    uint32_t cap = s->capacity * 2;
    auto* fresh = static_cast<vorx_range_entry_t*>(map_block(sizeof(vorx_range_entry_t) * cap * 2));
    std::memcpy(fresh, s->storage, sizeof(vorx_range_entry_t) * s->capacity);
    std::memcpy(fresh + cap, s->storage + s->capacity, sizeof(vorx_range_entry_t) * s->capacity);
    vorx_range_entry_t* old = s->storage;
    uint32_t old_cap = s->capacity;
    lock_caches(s);
    s->storage = fresh;
    s->capacity = cap;
    unlock_caches(s, false);
    sal_munmap(old, sizeof(vorx_range_entry_t) * old_cap * 2);
}

void ensure_room(state_t* s, uint32_t adding) {
    uint32_t count = s->published.load(std::memory_order_relaxed) & kCountMask;
    while (count >= s->capacity - 1 || count + adding > s->capacity - 1) reallocate_storage_locked(s);
}

// Writes the next table into the spare bank and switches to it. removed[i] drops old entry i (links that
// passed through it are spliced); pieces are new entries, sorted and apart from everything kept, chained
// to each other when chain is set.
void commit(state_t* s, const uint8_t* removed, const vorx_range_t* pieces, uint32_t npieces, uint8_t flag,
            bool chain, bool notify) {
    view_t old = current_view(s);
    vorx_range_entry_t* out = spare_bank(s);
    uint32_t* new_index = s->scratch_index;  // old index -> new index (0-based), for kept entries
    uint32_t* piece_index = s->scratch_pieces;
    uint32_t n = 0, p = 0;
    for (uint32_t i = 0; i <= old.count; ++i) {
        while (p < npieces && (i == old.count || pieces[p].start < old.entries[i].start)) {
            piece_index[p] = n;
            out[n++] = vorx_range_entry_t{pieces[p].start, pieces[p].end, flag, 0};
            ++p;
        }
        if (i == old.count) break;
        if (removed && removed[i]) continue;
        new_index[i] = n;
        out[n++] = old.entries[i];
    }
    for (uint32_t i = 0; i < old.count; ++i) {
        if (removed && removed[i]) continue;
        uint32_t link = old.entries[i].link;
        while (link && removed && removed[link - 1]) link = old.entries[link - 1].link;
        out[new_index[i]].link = link ? new_index[link - 1] + 1 : 0;
    }
    if (chain)
        for (uint32_t k = 0; k + 1 < npieces; ++k) out[piece_index[k]].link = piece_index[k + 1] + 1;
    lock_caches(s);
    uint32_t bank = s->published.load(std::memory_order_relaxed) & kBankBit;
    s->published.store((bank ^ kBankBit) | n, std::memory_order_release);
    s->generation.fetch_add(1, std::memory_order_relaxed);
    unlock_caches(s, notify);
}

// Marks every entry overlapping r (touching only at a bound does not count), and returns how many.
uint32_t mark_overlaps(const view_t& v, const vorx_range_t& r, uint8_t* removed) {
    uint32_t hits = 0;
    for (uint32_t i = 0; i < v.count; ++i)
        if (v.entries[i].start < r.end && r.start < v.entries[i].end) {
            removed[i] = 1;
            ++hits;
        }
    return hits;
}

// Grows the marks to whole chains of pieces, forward through link and backward to the pieces that lead in.
void mark_chains(const view_t& v, uint8_t* removed) {
    for (bool changed = true; changed;) {
        changed = false;
        for (uint32_t i = 0; i < v.count; ++i) {
            uint32_t link = v.entries[i].link;
            if (!link) continue;
            if (removed[i] != removed[link - 1]) {
                removed[i] = removed[link - 1] = 1;
                changed = true;
            }
        }
    }
}

uint8_t* clear_marks(state_t* s, uint32_t count) {
    std::memset(s->scratch_removed, 0, count);
    return s->scratch_removed;
}

// Scratch arrays sized for the table, so that writers never allocate per change.
void ensure_scratch(state_t* s) {
    if (s->scratch_capacity >= s->capacity) return;
    if (s->scratch_index) {
        sal_munmap(s->scratch_index, s->scratch_bytes);
    }
    uint32_t cap = s->capacity;
    s->scratch_bytes = cap * (sizeof(uint32_t) * 2 + 1);
    s->scratch_index = static_cast<uint32_t*>(map_block(s->scratch_bytes));
    s->scratch_pieces = s->scratch_index + cap;
    s->scratch_removed = reinterpret_cast<uint8_t*>(s->scratch_pieces + cap);
    s->scratch_capacity = cap;
}

class TableLock {
  public:
    explicit TableLock(state_t* s) : s_(s) { vorx_mutex_lock(&s_->table_mutex); }
    ~TableLock() { vorx_mutex_unlock(&s_->table_mutex); }
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;

  private:
    state_t* s_;
};

// ---------------------------------------------------------------- the reader's lock

enum class entered { locked, nested, refused };

// A cache belongs to one thread. Its lock is taken by that thread's reader and by a writer's switch.
// Seeing it held by a reader means that this reader interrupted its own thread's lookup; seeing it held by
// a writer that runs on this very thread means that the switch is half done under us: answer nothing.
entered reader_enter(state_t* s, vorx_module_map_cache_t* c) {
    backoff pause;
    for (;;) {
        uint32_t expected = kLockFree;
        if (__atomic_compare_exchange_n(&c->lock, &expected, kLockReader, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED))
            return entered::locked;
        if (expected == kLockReader) return entered::nested;
        if (s->switch_tid.load(std::memory_order_relaxed) == sal_thread_id()) return entered::refused;
        pause.wait();
    }
}

inline void reader_leave(vorx_module_map_cache_t* c, entered how) {
    if (how == entered::locked) __atomic_store_n(&c->lock, kLockFree, __ATOMIC_RELEASE);
}

int find_module_unsafe(state_t* s, uint64_t address, vorx_module_found_t callback, void* data,
                       vorx_module_map_cache_t* cache) {
    uint32_t n = s->mod_count;
    const vorx_mod_info_t* mods = s->mod_info;
    if (n == 0 || address < mods[0].load_base) return vorx_mm_not_found;
    uint32_t low = 0, high = n - 1;
    while (low < high) {  // last module with load_base <= address
        uint32_t mid = low + (high - low + 1) / 2;
        if (mods[mid].load_base <= address)
            low = mid;
        else
            high = mid - 1;
    }
    VORX_ASSERT(address >= mods[low].load_base);
    if (address >= mods[low].end) return vorx_mm_not_found;
    if (callback) callback(mods[low].name, mods[low].load_base, mods[low].flag, data, cache);
    return vorx_mm_found;
}

// ---------------------------------------------------------------- operations

int op_insert_range(vorx_module_map_t* map, const vorx_range_t* range, uint8_t flag, int notify) {
    state_t* s = map->state;
    VORX_ASSERT(range->end >= range->start);
    TableLock lock(s);
    ensure_room(s, 1);
    ensure_scratch(s);
    view_t v = current_view(s);
    uint8_t* removed = clear_marks(s, v.count);
    vorx_range_t merged = *range;
    if (mark_overlaps(v, *range, removed))
        for (uint32_t i = 0; i < v.count; ++i)
            if (removed[i]) {
                if (v.entries[i].start < merged.start) merged.start = v.entries[i].start;
                if (v.entries[i].end > merged.end) merged.end = v.entries[i].end;
            }
    commit(s, removed, &merged, 1, flag, false, notify == 1);
    return vorx_mm_found;
}

int op_insert_executable(vorx_module_map_t* map, const vorx_range_t* pieces, uint32_t count, uint8_t flag) {
    state_t* s = map->state;
    if (count == 0) return vorx_mm_not_found;
    for (uint32_t k = 0; k < count; ++k) {
        VORX_ASSERT(pieces[k].end > pieces[k].start);
        VORX_ASSERT(k == 0 || pieces[k].start >= pieces[k - 1].end);
    }
    TableLock lock(s);
    ensure_room(s, count);
    ensure_scratch(s);
    view_t v = current_view(s);
    uint8_t* removed = clear_marks(s, v.count);
    // a module registered again replaces what it overlaps, with the whole chains of those entries
    for (uint32_t k = 0; k < count; ++k) mark_overlaps(v, pieces[k], removed);
    mark_chains(v, removed);
    commit(s, removed, pieces, count, flag, true, false);
    return vorx_mm_found;
}

int op_remove_range(vorx_module_map_t* map, const vorx_range_t* range) {
    state_t* s = map->state;
    VORX_ASSERT(range->end >= range->start);
    TableLock lock(s);
    ensure_scratch(s);
    view_t v = current_view(s);
    uint8_t* removed = clear_marks(s, v.count);
    if (!mark_overlaps(v, *range, removed)) return vorx_mm_not_found;
    mark_chains(v, removed);
    commit(s, removed, nullptr, 0, 0, false, true);
    return vorx_mm_found;
}

int op_find_address_range(vorx_module_map_t* map, const vorx_range_t* range, vorx_module_map_cache_t* cache,
                          uint8_t* flag) {
    state_t* s = map->state;
    return find_in_view(s, current_view(s), *range, cache, flag) ? 1 : 0;
}

int op_find_module(vorx_module_map_t* map, uint64_t address, vorx_module_found_t callback, void* data,
                   vorx_module_map_cache_t* cache) {
    return vorx_find_module(map, address, callback, data, cache);
}

void grow_modules(state_t* s) {
    uint32_t cap = s->mod_capacity * 2;
    auto* fresh = static_cast<vorx_mod_info_t*>(map_block(sizeof(vorx_mod_info_t) * cap));
    std::memcpy(fresh, s->mod_info, sizeof(vorx_mod_info_t) * s->mod_count);
    sal_munmap(s->mod_info, sizeof(vorx_mod_info_t) * s->mod_capacity);
    s->mod_info = fresh;
    s->mod_capacity = cap;
}

// First module index at or after from whose load_base is >= value.
uint32_t log_search(const state_t* s, uint32_t from, uint64_t value) {
    uint32_t lo = from, hi = s->mod_count;
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2;
        if (s->mod_info[mid].load_base < value)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

void op_add_module(vorx_module_map_t* map, const char* name, uint64_t start, uint64_t end, uint8_t flag) {
    state_t* s = map->state;
    VORX_ASSERT(name != nullptr && name[0] != 0);
    TableLock lock(s);
    char* copy = arena_copy(s, name);
    lock_caches(s);
    if (s->mod_count == s->mod_capacity) grow_modules(s);
    uint32_t first = log_search(s, 0, start);
    uint32_t last = log_search(s, first, end);
    vorx_mod_info_t fresh{copy, start, end, flag};
    if (first < last) {
        // a file that reuses freed addresses pushes out the names that were there
        s->mod_info[first] = fresh;
        std::memmove(s->mod_info + first + 1, s->mod_info + last, sizeof(vorx_mod_info_t) * (s->mod_count - last));
        s->mod_count -= last - first - 1;
    } else {
        std::memmove(s->mod_info + first + 1, s->mod_info + first, sizeof(vorx_mod_info_t) * (s->mod_count - first));
        s->mod_info[first] = fresh;
        ++s->mod_count;
    }
    unlock_caches(s, false);
}

void op_schedule_module_processing(vorx_module_map_t* map, const char* name, uint64_t start, uint64_t end,
                                   vorx_module_callback_t callback) {
    state_t* s = map->state;
    VORX_ASSERT(name != nullptr && std::strlen(name) != 0);
    VORX_ASSERT(start < end);
    vorx_mutex_lock(&s->queue_mutex);
    if (s->queue_count == s->queue_capacity) {
        uint32_t cap = s->queue_capacity ? s->queue_capacity * 2 : 64;
        auto* fresh = static_cast<queued_module_t*>(map_block(sizeof(queued_module_t) * cap));
        if (s->queue) {
            std::memcpy(fresh, s->queue, sizeof(queued_module_t) * s->queue_count);
            sal_munmap(s->queue, sizeof(queued_module_t) * s->queue_capacity);
        }
        s->queue = fresh;
        s->queue_capacity = cap;
    }
    vorx_mutex_lock(&s->table_mutex);  // the arena belongs to the table's writers
    char* copy = arena_copy(s, name);
    vorx_mutex_unlock(&s->table_mutex);
    s->queue[s->queue_count++] = queued_module_t{callback, copy, start, end};
    vorx_mutex_unlock(&s->queue_mutex);
}

void op_process_scheduled_modules(vorx_module_map_t* map, void* argument) {
    state_t* s = map->state;
    uint32_t kept = 0;  // put-aside objects collect at the front of the queue, in their order
    vorx_mutex_lock(&s->queue_mutex);
    while (s->queue_count > kept) {
        queued_module_t object = s->queue[kept];
        std::memmove(s->queue + kept, s->queue + kept + 1, sizeof(queued_module_t) * (s->queue_count - kept - 1));
        --s->queue_count;
        vorx_mutex_unlock(&s->queue_mutex);
        int callback_result = object.callback(argument, object.name, object.start, object.end);
        vorx_mutex_lock(&s->queue_mutex);
        if (callback_result == 0) {
            std::memmove(s->queue + kept + 1, s->queue + kept, sizeof(queued_module_t) * (s->queue_count - kept));
            s->queue[kept++] = object;
            ++s->queue_count;
        } else {
            VORX_ASSERT(callback_result == 1);
        }
    }
    vorx_mutex_unlock(&s->queue_mutex);
}

void op_reallocate_storage(vorx_module_map_t* map) {
    TableLock lock(map->state);
    reallocate_storage_locked(map->state);
}

vorx_module_map_cache_t* op_create_cache(vorx_module_map_t* map) {
    state_t* s = map->state;
    auto* c = static_cast<vorx_module_map_cache_t*>(map_block(sizeof(vorx_module_map_cache_t)));
    std::memset(c, 0, sizeof(*c));
    c->generation = s->generation.load(std::memory_order_relaxed) - 1;  // stale: the first lookup resets it
    TableLock lock(s);
    c->link = s->caches;
    s->caches = c;
    return c;
}

void op_destroy_cache(vorx_module_map_t* map, vorx_module_map_cache_t* cache) {
    state_t* s = map->state;
    if (!cache) return;
    {
        TableLock lock(s);
        for (vorx_module_map_cache_t** p = &s->caches; *p; p = &(*p)->link)
            if (*p == cache) {
                *p = cache->link;
                break;
            }
    }
    sal_munmap(cache, sizeof(*cache));
}

}  // namespace

const vorx_module_map_ops_t g_ops = {
    load_module_map_impl,  op_insert_executable,          op_insert_range,       op_remove_range,
    op_find_module,        op_add_module,                 op_schedule_module_processing,
    op_process_scheduled_modules, op_find_address_range,  op_reallocate_storage, op_create_cache,
    op_destroy_cache,
};

void reset_for_load(state_t* s) {
    TableLock lock(s);
    lock_caches(s);
    s->published.store(s->published.load(std::memory_order_relaxed) & kBankBit, std::memory_order_release);
    s->generation.fetch_add(1, std::memory_order_relaxed);
    s->signal_ranges_num = 0;
    s->totals[0] = s->totals[1] = 0;
    unlock_caches(s, true);
}

void add_signal_range(state_t* s, uint64_t start, uint64_t end) {
    VORX_ASSERT(s->signal_ranges_num < 2);
    s->signal_ranges[s->signal_ranges_num++] = {start, end};
    VORX_ASSERT(s->signal_ranges_num <= 2);
}

}  // namespace vorx_mm

using namespace vorx_mm;

extern "C" {

vorx_module_map_t* vorx_alloc_module_map(void) {
    auto* map = static_cast<vorx_module_map_t*>(sal_mmap(sizeof(vorx_module_map_t) + sizeof(state_t)));
    VORX_ASSERT(map != nullptr);
    auto* s = new (map + 1) state_t();
    map->ops = &g_ops;
    map->state = s;
    vorx_mutex_init(&s->table_mutex);
    vorx_mutex_init(&s->queue_mutex);
    s->capacity = VORX_MODULE_MAP_INITIAL_CAPACITY;
    s->storage = static_cast<vorx_range_entry_t*>(sal_mmap(sizeof(vorx_range_entry_t) * s->capacity * 2));
    s->mod_capacity = VORX_MODULE_MAP_INITIAL_CAPACITY;
    s->mod_info = static_cast<vorx_mod_info_t*>(sal_mmap(sizeof(vorx_mod_info_t) * s->mod_capacity));
    VORX_ASSERT(s->storage != nullptr && s->mod_info != nullptr);
    return map;
}

void vorx_free_module_map(vorx_module_map_t* map) {
    if (!map) return;
    state_t* s = map->state;
    VORX_ASSERT(s->caches == nullptr);
    sal_munmap(s->storage, sizeof(vorx_range_entry_t) * s->capacity * 2);
    sal_munmap(s->mod_info, sizeof(vorx_mod_info_t) * s->mod_capacity);
    if (s->queue) sal_munmap(s->queue, sizeof(queued_module_t) * s->queue_capacity);
    if (s->scratch_index) sal_munmap(s->scratch_index, s->scratch_bytes);
    for (arena_block_t* b = s->arena; b;) {
        arena_block_t* next = b->next;
        sal_munmap(b, b->size);
        b = next;
    }
    vorx_mutex_destroy(&s->table_mutex);
    vorx_mutex_destroy(&s->queue_mutex);
    s->~state_t();
    sal_munmap(map, sizeof(vorx_module_map_t) + sizeof(state_t));
}

vorx_module_map_t* vorx_init_module_map(void) {
    if (!g_vorx_module_map) g_vorx_module_map = vorx_alloc_module_map();
    return g_vorx_module_map;
}

int vorx_find_address_range(vorx_module_map_t* map, const vorx_range_t* range, vorx_module_map_cache_t* cache) {
    state_t* s = map->state;
    if (!cache) {
        TableLock lock(s);
        return find_in_view(s, current_view(s), *range, nullptr, nullptr) ? 1 : 0;
    }
    entered how = reader_enter(s, cache);
    if (how == entered::refused) return 0;
    view_t v = current_view(s);
    int found = 0;
    if (v.count != 0 && range->start >= v.entries[0].start && range->end < v.entries[v.count - 1].end) {
        if (how == entered::nested) {
            // the interrupted lookup owns the cache's ranges: search without touching them
            found = find_in_view(s, v, *range, nullptr, nullptr);
        } else if (cache->generation == s->generation.load(std::memory_order_relaxed) &&
                   within(cache->miss, *range)) {
            found = 0;
        } else if (cache->generation == s->generation.load(std::memory_order_relaxed) &&
                   within(cache->hit, *range)) {
            found = 1;
        } else {
            found = find_in_view(s, v, *range, cache, nullptr);
        }
    }
    reader_leave(cache, how);
    return found;
}

int vorx_find_module(vorx_module_map_t* map, uint64_t address, vorx_module_found_t callback, void* data,
                     vorx_module_map_cache_t* cache) {
    state_t* s = map->state;
    if (!cache) {
        TableLock lock(s);
        return find_module_unsafe(s, address, callback, data, nullptr);
    }
    entered how = reader_enter(s, cache);
    if (how == entered::refused) return vorx_mm_not_found;
    int r = find_module_unsafe(s, address, callback, data, cache);
    reader_leave(cache, how);
    return r;
}

uint32_t vorx_module_map_generation(const vorx_module_map_t* map) {
    return map->state->generation.load(std::memory_order_relaxed);
}

uint32_t vorx_module_map_range_count(const vorx_module_map_t* map) { return current_view(map->state).count; }

uint32_t vorx_module_map_capacity(const vorx_module_map_t* map) { return map->state->capacity; }

uint32_t vorx_module_map_module_count(const vorx_module_map_t* map) { return map->state->mod_count; }

int vorx_module_map_range_at(const vorx_module_map_t* map, uint32_t i, vorx_range_entry_t* out) {
    TableLock lock(map->state);
    view_t v = current_view(map->state);
    if (i >= v.count) return 0;
    *out = v.entries[i];
    return 1;
}

uint32_t vorx_module_map_signal_ranges(const vorx_module_map_t* map, vorx_range_t out[2]) {
    const state_t* s = map->state;
    for (uint32_t i = 0; i < s->signal_ranges_num; ++i) out[i] = s->signal_ranges[i];
    return s->signal_ranges_num;
}

void vorx_register_executable_section(uint64_t section_start_addr, uint64_t section_end_addr) {
    VORX_ASSERT(section_start_addr != 0);
    VORX_ASSERT(section_end_addr != 0);
    VORX_ASSERT(g_vorx_module_map != nullptr);
    vorx_range_t r{section_start_addr, section_end_addr};
    g_vorx_module_map->ops->insert_range(g_vorx_module_map, &r, 1, 0);
}

}  // extern "C"

// ---------------------------------------------------------------- the runtime's entry for a loaded module

#include "thread_manager.h"

extern "C" {

// The record of a newly registered module goes to the global unit, which only the runtime knows: it
// provides this hook (it is called with the global block locked).
void vorx_put_registered_module(void* global, const char* name, uint64_t start, uint64_t end) __attribute__((weak));

void vorx_register_module(const char* name, uint64_t start, uint64_t end) {
    VORX_ASSERT(name != nullptr && name[0] != 0);
    VORX_ASSERT(start != 0 && end != 0);
    VORX_ASSERT(g_vorx_module_map != nullptr);
    void* global = nullptr;
    uint32_t locked = vorx_thread_manager_lock_global(g_vorx_thread_manager, &global);
    if (locked == vorx_thread_manager_op_err_closed || locked == vorx_thread_manager_op_err_empty) return;
    VORX_ASSERT(locked == vorx_thread_manager_op_err_ok);
    g_vorx_module_map->ops->add_module(g_vorx_module_map, name, start, end, 0);
    if (vorx_put_registered_module) vorx_put_registered_module(global, name, start, end);
    vorx_thread_manager_unlock_global(g_vorx_thread_manager);
}

}  // extern "C"
