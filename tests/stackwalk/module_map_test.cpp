// The module map on plain ranges: search, the caches' hit and hole, merging, chains of pieces, bank
// switches and growth, modules, the deferred queue, and a load of this process's own layout.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "module_map.h"

namespace {

class ModuleMap : public ::testing::Test {
  protected:
    void SetUp() override {
        map = vorx_alloc_module_map();
        cache = map->ops->create_cache(map);
    }
    void TearDown() override {
        map->ops->destroy_cache(map, cache);
        vorx_free_module_map(map);
    }
    void insert(uint64_t start, uint64_t end, uint8_t flag = 1, int notify = 0) {
        vorx_range_t r{start, end};
        map->ops->insert_range(map, &r, flag, notify);
    }
    int remove(uint64_t start, uint64_t end) {
        vorx_range_t r{start, end};
        return map->ops->remove_range(map, &r);
    }
    bool executable(uint64_t address) {
        vorx_range_t r{address, address + 1};
        return vorx_find_address_range(map, &r, cache) == 1;
    }
    std::vector<std::pair<uint64_t, uint64_t>> table() {
        std::vector<std::pair<uint64_t, uint64_t>> out;
        vorx_range_entry_t e;
        for (uint32_t i = 0; vorx_module_map_range_at(map, i, &e); ++i) out.emplace_back(e.start, e.end);
        return out;
    }
    std::string module_of(uint64_t address) {
        std::string name;
        int r = vorx_find_module(
            map, address,
            [](const char* n, uint64_t, uint8_t, void* data, vorx_module_map_cache_t*) {
                *static_cast<std::string*>(data) = n;
            },
            &name, cache);
        return r == vorx_mm_found ? name : "";
    }

    vorx_module_map_t* map = nullptr;
    vorx_module_map_cache_t* cache = nullptr;
};

using Table = std::vector<std::pair<uint64_t, uint64_t>>;

TEST_F(ModuleMap, FindsAddressesInsideRangesOnly) {
    insert(0x1000, 0x2000);
    insert(0x5000, 0x6000);
    insert(0x9000, 0xA000);
    EXPECT_TRUE(executable(0x1000));
    EXPECT_TRUE(executable(0x1FFF));
    EXPECT_FALSE(executable(0x2000));  // ends are exclusive
    EXPECT_FALSE(executable(0x0FFF));  // below the table
    EXPECT_TRUE(executable(0x5800));
    EXPECT_FALSE(executable(0xA000));  // at or above the last end
    EXPECT_FALSE(executable(0x7000));
    uint8_t flag = 0;
    vorx_range_t r{0x5000, 0x5010};
    EXPECT_EQ(map->ops->find_address_range(map, &r, nullptr, &flag), 1);
    EXPECT_EQ(flag, 1);
    vorx_range_t straddling{0x1F00, 0x2100};
    EXPECT_EQ(vorx_find_address_range(map, &straddling, cache), 0);
}

TEST_F(ModuleMap, CacheKeepsLastHitAndLargestHoleUntilTheNextChange) {
    insert(0x1000, 0x2000);
    insert(0x3000, 0x4000);    // hole 0x2000..0x3000
    insert(0x10000, 0x11000);  // hole 0x4000..0x10000
    EXPECT_FALSE(executable(0x2800));
    EXPECT_EQ(cache->miss.start, 0x2000u);
    EXPECT_EQ(cache->miss.end, 0x3000u);
    EXPECT_FALSE(executable(0x8000));
    EXPECT_EQ(cache->miss.start, 0x4000u);  // the larger hole replaces it
    EXPECT_FALSE(executable(0x2800));
    EXPECT_EQ(cache->miss.start, 0x4000u);  // a smaller one does not
    EXPECT_TRUE(executable(0x3800));
    EXPECT_EQ(cache->hit.start, 0x3000u);
    uint32_t gen = cache->generation;
    insert(0x8000, 0x9000);  // fills part of the cached hole
    EXPECT_NE(vorx_module_map_generation(map), gen);
    EXPECT_TRUE(executable(0x8800)) << "a stale hole must not answer after a change";
    EXPECT_EQ(cache->generation, vorx_module_map_generation(map));
}

TEST_F(ModuleMap, OverlappingInsertMergesIntoOneEntry) {
    insert(0x1000, 0x2000);
    insert(0x3000, 0x4000);
    insert(0x6000, 0x7000);
    insert(0x1800, 0x3800, 5);
    EXPECT_EQ(table(), (Table{{0x1000, 0x4000}, {0x6000, 0x7000}}));
    EXPECT_TRUE(executable(0x2800));
    insert(0x4000, 0x5000);  // touching is not overlapping
    EXPECT_EQ(table().size(), 3u);
}

TEST_F(ModuleMap, RemovalTakesWholeChainsAndLeavesOthersLinked) {
    insert(0x100, 0x200);
    vorx_range_t module_a[] = {{0x1000, 0x1100}, {0x2000, 0x2100}, {0x3000, 0x3100}};
    vorx_range_t module_b[] = {{0x1800, 0x1900}, {0x4000, 0x4100}};
    map->ops->insert_executable(map, module_a, 3, 1);
    map->ops->insert_executable(map, module_b, 2, 1);
    EXPECT_EQ(remove(0x9000, 0x9100), vorx_mm_not_found);
    EXPECT_EQ(table().size(), 6u);
    EXPECT_EQ(remove(0x2050, 0x2060), vorx_mm_found);  // touches the middle piece of module_a
    EXPECT_EQ(table(), (Table{{0x100, 0x200}, {0x1800, 0x1900}, {0x4000, 0x4100}}));
    // module_b's pieces still form a chain after the indexes shifted
    vorx_range_entry_t e;
    ASSERT_TRUE(vorx_module_map_range_at(map, 1, &e));
    EXPECT_EQ(e.link, 3u);
    ASSERT_TRUE(vorx_module_map_range_at(map, 2, &e));
    EXPECT_EQ(e.link, 0u);
    EXPECT_EQ(remove(0x4000, 0x4001), vorx_mm_found);  // the last piece takes its head with it
    EXPECT_EQ(table(), (Table{{0x100, 0x200}}));
}

TEST_F(ModuleMap, NotifyingChangesInvalidateWalksInProgress) {
    insert(0x1000, 0x2000);
    EXPECT_EQ(cache->invalidated, 0u);
    insert(0x3000, 0x4000, 1, 1);
    EXPECT_EQ(cache->invalidated, 1u);
    cache->invalidated = 0;
    remove(0x3000, 0x4000);  // unloads always notify
    EXPECT_EQ(cache->invalidated, 1u);
}

TEST_F(ModuleMap, TableDoublesAt4095EntriesWithTheBankInUseKept) {
    ASSERT_EQ(vorx_module_map_capacity(map), 4096u);
    for (uint64_t i = 0; i < 4095; ++i) insert(0x100000 + i * 0x100, 0x100000 + i * 0x100 + 0x80);
    EXPECT_EQ(vorx_module_map_range_count(map), 4095u);
    EXPECT_EQ(vorx_module_map_capacity(map), 4096u);
    insert(0x10, 0x20);
    EXPECT_EQ(vorx_module_map_capacity(map), 8192u);
    EXPECT_EQ(vorx_module_map_range_count(map), 4096u);
    for (uint64_t i = 0; i < 4095; i += 97) EXPECT_TRUE(executable(0x100000 + i * 0x100 + 0x40)) << i;
    EXPECT_TRUE(executable(0x18));
    EXPECT_FALSE(executable(0x100000 + 0x90));
}

TEST_F(ModuleMap, ModulesByLoadBaseAndReplacementOfReusedAddresses) {
    map->ops->add_module(map, "/lib/b.so", 0x20000, 0x30000, 0);
    map->ops->add_module(map, "/lib/a.so", 0x10000, 0x18000, 0);
    map->ops->add_module(map, "/lib/c.so", 0x40000, 0x48000, 0);
    EXPECT_EQ(module_of(0x10000), "/lib/a.so");
    EXPECT_EQ(module_of(0x2FFFF), "/lib/b.so");
    EXPECT_EQ(module_of(0x0FFFF), "");
    EXPECT_EQ(module_of(0x19000), "");  // past a.so's end
    EXPECT_EQ(module_of(0x50000), "");
    // a new file over the freed addresses of b.so and c.so pushes both names out
    map->ops->add_module(map, "/lib/d.so", 0x1C000, 0x44000, 0);
    EXPECT_EQ(vorx_module_map_module_count(map), 2u);
    EXPECT_EQ(module_of(0x20000), "/lib/d.so");
    EXPECT_EQ(module_of(0x40000), "/lib/d.so");
    EXPECT_EQ(module_of(0x10000), "/lib/a.so");
}

TEST_F(ModuleMap, ModuleArrayGrowsPastItsFirstBlock) {
    for (uint64_t i = 0; i < 5000; ++i) {
        std::string name = "/m/" + std::to_string(i);
        map->ops->add_module(map, name.c_str(), 0x100000 + i * 0x1000, 0x100000 + i * 0x1000 + 0x800, 0);
    }
    EXPECT_EQ(vorx_module_map_module_count(map), 5000u);
    EXPECT_EQ(module_of(0x100000 + 4321 * 0x1000 + 0x10), "/m/4321");
}

struct queue_log {
    std::vector<std::string> seen;
    int keep_first_rounds = 0;
};

int queued(void* argument, const char* name, uint64_t start, uint64_t end) {
    auto* log = static_cast<queue_log*>(argument);
    log->seen.push_back(std::string(name) + ":" + std::to_string(end - start));
    if (std::strcmp(name, "late") == 0 && log->keep_first_rounds > 0) {
        --log->keep_first_rounds;
        return 0;  // not yet: keep it
    }
    return 1;
}

TEST_F(ModuleMap, DeferredModulesRunInOrderAndPutAsideOnesComeBack) {
    queue_log log;
    log.keep_first_rounds = 1;
    map->ops->schedule_module_processing(map, "first", 0x1000, 0x1100, queued);
    map->ops->schedule_module_processing(map, "late", 0x2000, 0x2200, queued);
    map->ops->schedule_module_processing(map, "third", 0x3000, 0x3300, queued);
    map->ops->process_scheduled_modules(map, &log);
    EXPECT_EQ(log.seen, (std::vector<std::string>{"first:256", "late:512", "third:768"}));
    log.seen.clear();
    map->ops->process_scheduled_modules(map, &log);
    EXPECT_EQ(log.seen, (std::vector<std::string>{"late:512"}));
    log.seen.clear();
    map->ops->process_scheduled_modules(map, &log);
    EXPECT_TRUE(log.seen.empty());
}

struct load_record {
    uint32_t calls = 0;
    std::vector<std::string> names;
};

TEST_F(ModuleMap, LoadReadsThisProcessLayout) {
    load_record rec;
    ASSERT_EQ(map->ops->load(
                  map,
                  [](void* ctx, const vorx_module_info_item_t* items, uint32_t count) {
                      auto* r = static_cast<load_record*>(ctx);
                      ++r->calls;
                      for (uint32_t i = 0; i < count; ++i) r->names.emplace_back(items[i].name, items[i].name_length);
                  },
                  &rec),
              vorx_mm_found);
    EXPECT_EQ(rec.calls, 1u);  // one record for the whole layout
    uint64_t here = reinterpret_cast<uintptr_t>(&queued);
    EXPECT_TRUE(executable(here));
    EXPECT_NE(module_of(here).find("vorx_module_map_test"), std::string::npos);
    uint64_t libc_code = reinterpret_cast<uintptr_t>(&strlen);
    EXPECT_TRUE(executable(libc_code));
    vorx_range_t signal_ranges[2];
    uint32_t n = vorx_module_map_signal_ranges(map, signal_ranges);
    ASSERT_GE(n, 1u);
    EXPECT_LE(n, 2u);
    bool libc_in_signal_ranges = false;
    for (uint32_t i = 0; i < n; ++i)
        libc_in_signal_ranges |= signal_ranges[i].start <= libc_code && libc_code < signal_ranges[i].end;
    EXPECT_TRUE(libc_in_signal_ranges);
    EXPECT_FALSE(executable(reinterpret_cast<uintptr_t>(&rec)));  // a stack address
    bool vdso = false;
    for (auto& name : rec.names) vdso |= name == "[vdso]";
    EXPECT_TRUE(vdso);
}

}  // namespace

// ---------------------------------------------------------------- the runtime's entry

#include "thread_manager.h"

namespace {
std::vector<std::string> registered;
vorx_u32_t global_ok(void*, void*) { return vorx_thread_manager_op_err_ok; }
vorx_u32_t global_done(void*) { return vorx_thread_manager_op_err_ok; }
}  // namespace

extern "C" void vorx_put_registered_module(void* global, const char* name, uint64_t, uint64_t) {
    EXPECT_NE(global, nullptr);
    registered.emplace_back(name);
}

TEST(ModuleMapRegistration, ModulesGoInUnderTheGlobalLockOnlyWhileTheCollectorRuns) {
    vorx_module_map_t* saved_map = g_vorx_module_map;
    vorx_thr_mgr_t* saved_mgr = g_vorx_thread_manager;
    g_vorx_module_map = vorx_alloc_module_map();
    vorx_thr_mgr_t* mgr = nullptr;
    ASSERT_EQ(vorx_thread_manager_create(&mgr, 128, global_ok, global_ok, global_done, nullptr),
              vorx_u32_t(vorx_thread_manager_op_err_ok));
    g_vorx_thread_manager = mgr;
    vorx_register_module("/lib/before.so", 0x1000, 0x2000);  // no global block yet: nothing happens
    EXPECT_EQ(vorx_module_map_module_count(g_vorx_module_map), 0u);
    ASSERT_EQ(vorx_thread_manager_create_global(mgr), vorx_u32_t(vorx_thread_manager_op_err_ok));
    vorx_register_module("/lib/late.so", 0x3000, 0x4000);
    EXPECT_EQ(vorx_module_map_module_count(g_vorx_module_map), 1u);
    EXPECT_EQ(registered, std::vector<std::string>{"/lib/late.so"});
    void* global = nullptr;
    EXPECT_EQ(vorx_thread_manager_lock_global(mgr, &global), vorx_u32_t(vorx_thread_manager_op_err_ok));
    vorx_thread_manager_unlock_global(mgr);  // and the lock was given back
    g_vorx_thread_manager = saved_mgr;
    vorx_free_module_map(g_vorx_module_map);
    g_vorx_module_map = saved_map;
}
