// The module map while a library is loaded and unloaded on one thread and addresses are looked up on
// another, from ordinary code and from a signal handler that interrupts those lookups.
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "module_map.h"

namespace {

struct shared_state {
    vorx_module_map_t* map = nullptr;
    vorx_module_map_cache_t* reader_cache = nullptr;
    uint64_t stable_address = 0;             // inside a range that never goes away
    std::atomic<uint64_t> plugin_address{0};  // inside the library while it is loaded, 0 otherwise
    std::atomic<bool> stop{false};
    std::atomic<unsigned long> stable_misses{0};
    std::atomic<unsigned long> lookups{0};
    std::atomic<unsigned long> handler_lookups{0};
    std::atomic<unsigned long> handler_misses{0};
    std::atomic<unsigned long> plugin_hits{0};
};

shared_state* g_state = nullptr;

bool stable_found(vorx_module_map_cache_t* cache) {
    vorx_range_t r{g_state->stable_address, g_state->stable_address + 1};
    return vorx_find_address_range(g_state->map, &r, cache) == 1;
}

void on_signal(int) {
    // a lookup on the reader's own cache, possibly in the middle of the reader's own lookup
    g_state->handler_lookups.fetch_add(1, std::memory_order_relaxed);
    if (!stable_found(g_state->reader_cache)) g_state->handler_misses.fetch_add(1, std::memory_order_relaxed);
    int found = vorx_find_module(g_state->map, g_state->stable_address, nullptr, nullptr, g_state->reader_cache);
    if (found != vorx_mm_found) g_state->handler_misses.fetch_add(1, std::memory_order_relaxed);
}

struct phdr_query {
    const char* suffix;
    vorx_range_t pieces[8];
    uint32_t count;
    uint64_t base;
};

// The executable segments of the loaded library, as the loader maps them.
int find_segments(struct dl_phdr_info* info, size_t, void* data) {
    auto* q = static_cast<phdr_query*>(data);
    if (!info->dlpi_name || !std::strstr(info->dlpi_name, q->suffix)) return 0;
    q->base = info->dlpi_addr;
    for (int i = 0; i < info->dlpi_phnum && q->count < 8; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type == PT_LOAD && (ph.p_flags & PF_X))
            q->pieces[q->count++] = {info->dlpi_addr + ph.p_vaddr, info->dlpi_addr + ph.p_vaddr + ph.p_memsz};
    }
    return 1;
}

void loader_loop(int rounds) {
    vorx_module_map_t* map = g_state->map;
    for (int i = 0; i < rounds; ++i) {
        void* handle = dlopen(VORX_MM_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle, nullptr) << dlerror();
        phdr_query q{"libvorx_mm_test_plugin", {}, 0, 0};
        dl_iterate_phdr(find_segments, &q);
        ASSERT_GT(q.count, 0u);
        map->ops->add_module(map, "libvorx_mm_test_plugin.so", q.pieces[0].start, q.pieces[q.count - 1].end, 0);
        map->ops->insert_executable(map, q.pieces, q.count, 1);
        auto fn = reinterpret_cast<uintptr_t>(dlsym(handle, "vorx_mm_plugin_value"));
        g_state->plugin_address.store(fn);
        std::this_thread::yield();
        g_state->plugin_address.store(0);
        vorx_range_t all{q.pieces[0].start, q.pieces[q.count - 1].end};
        EXPECT_EQ(map->ops->remove_range(map, &all), vorx_mm_found);
        dlclose(handle);
    }
}

void reader_loop() {
    vorx_module_map_cache_t* cache = g_state->reader_cache;
    while (!g_state->stop.load(std::memory_order_relaxed)) {
        g_state->lookups.fetch_add(1, std::memory_order_relaxed);
        if (!stable_found(cache)) g_state->stable_misses.fetch_add(1, std::memory_order_relaxed);
        uint64_t plugin = g_state->plugin_address.load();
        if (plugin) {
            vorx_range_t r{plugin, plugin + 1};
            // either answer is right while the library comes and goes; neither may crash or hang
            if (vorx_find_address_range(g_state->map, &r, cache) == 1)
                g_state->plugin_hits.fetch_add(1, std::memory_order_relaxed);
        }
        // an address in the hole between the stable range and the guard range
        vorx_range_t hole{g_state->stable_address + 0x100000, g_state->stable_address + 0x100001};
        if (vorx_find_address_range(g_state->map, &hole, cache) == 1)
            g_state->stable_misses.fetch_add(1, std::memory_order_relaxed);
    }
}

TEST(ModuleMapConcurrency, LookupsStayRightUnderDlopenDlcloseAndSignals) {
    shared_state state;
    g_state = &state;
    state.map = vorx_alloc_module_map();
    state.reader_cache = state.map->ops->create_cache(state.map);
    vorx_module_map_cache_t* loader_cache = state.map->ops->create_cache(state.map);
    // a stable range around this test's code, and a guard range far above everything, so that lookups of
    // the stable address never fall outside the table's bounds
    state.stable_address = reinterpret_cast<uintptr_t>(&reader_loop);
    vorx_range_t stable{state.stable_address - 0x1000, state.stable_address + 0x1000};
    state.map->ops->insert_range(state.map, &stable, 1, 0);
    state.map->ops->add_module(state.map, "stable", stable.start, stable.end, 0);
    vorx_range_t guard{0xFFFF0000ull, 0xFFFF1000ull};
    state.map->ops->insert_range(state.map, &guard, 1, 0);

    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);

    std::thread reader(reader_loop);
    std::atomic<bool> signalling{true};
    pthread_t reader_handle = reader.native_handle();
    std::thread signaller([&] {
        while (signalling.load()) {
            pthread_kill(reader_handle, SIGUSR1);
            std::this_thread::yield();
        }
    });
    loader_loop(300);
    // the loader's own cache sees the final state
    vorx_range_t r{state.stable_address, state.stable_address + 1};
    EXPECT_EQ(vorx_find_address_range(state.map, &r, loader_cache), 1);
    signalling = false;
    signaller.join();
    state.stop = true;
    reader.join();
    sigaction(SIGUSR1, &old, nullptr);

    EXPECT_EQ(state.stable_misses.load(), 0u) << "of " << state.lookups.load() << " lookups";
    EXPECT_EQ(state.handler_misses.load(), 0u) << "of " << state.handler_lookups.load() << " handler lookups";
    EXPECT_GT(state.handler_lookups.load(), 0u);
    EXPECT_EQ(vorx_module_map_range_count(state.map), 2u);  // every piece of the library went with it
    EXPECT_EQ(vorx_module_map_module_count(state.map), 2u);  // the stable one and the last plugin name
    state.map->ops->destroy_cache(state.map, loader_cache);
    state.map->ops->destroy_cache(state.map, state.reader_cache);
    vorx_free_module_map(state.map);
    g_state = nullptr;
}

TEST(ModuleMapConcurrency, BankSwitchesNeverShowAHalfWrittenTable) {
    // The writer moves the stable entry's index up and down with every change, so a reader that searched a
    // bank while it was being rewritten would miss it.
    shared_state state;
    g_state = &state;
    state.map = vorx_alloc_module_map();
    state.reader_cache = state.map->ops->create_cache(state.map);
    state.stable_address = 0x80000000ull;
    vorx_range_t stable{0x7FFFF000ull, 0x80001000ull};
    state.map->ops->insert_range(state.map, &stable, 1, 0);
    state.map->ops->add_module(state.map, "stable", stable.start, stable.end, 0);
    vorx_range_t guard{0xFFFF0000ull, 0xFFFF1000ull};
    state.map->ops->insert_range(state.map, &guard, 1, 0);
    vorx_range_t first{0x1000, 0x1800};
    state.map->ops->insert_range(state.map, &first, 1, 0);

    std::thread reader(reader_loop);
    for (int round = 0; round < 400; ++round) {
        for (uint64_t i = 1; i <= 40; ++i) {
            vorx_range_t r{0x1000 + i * 0x1000, 0x1000 + i * 0x1000 + 0x800};
            state.map->ops->insert_range(state.map, &r, 1, 0);
        }
        for (uint64_t i = 1; i <= 40; ++i) {
            vorx_range_t r{0x1000 + i * 0x1000, 0x1000 + i * 0x1000 + 0x800};
            state.map->ops->remove_range(state.map, &r);
        }
    }
    state.stop = true;
    reader.join();
    EXPECT_EQ(state.stable_misses.load(), 0u) << "of " << state.lookups.load() << " lookups";
    EXPECT_GT(state.lookups.load(), 1000u);
    state.map->ops->destroy_cache(state.map, state.reader_cache);
    vorx_free_module_map(state.map);
    g_state = nullptr;
}

}  // namespace
