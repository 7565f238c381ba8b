// Allocators, buffers, the pool, the vector and bitmaps.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "sal.h"
#include "sal_vector.hpp"
#include "vorx_buffer.h"
#include "vorx_pool.h"
#include "vorx_test_child.hpp"

namespace {

bool all_zero(const void *block, size_t size)
{
    auto *bytes = static_cast<const unsigned char *>(block);
    for (size_t i = 0; i < size; ++i)
        if (bytes[i] != 0)
            return false;
    return true;
}

} // namespace

// ---- allocators ---------------------------------------------------------------

class SalAllocatorKinds : public ::testing::TestWithParam<sal_allocator_type> {};

TEST_P(SalAllocatorKinds, OneZeroedBlockThatGrowsWithinTheLimit)
{
    alignas(16) unsigned char backing[256];
    memset(backing, 0x5A, sizeof(backing));
    sal_allocator alloc;
    if (GetParam() == sal_allocator_type_wrap)
        sal_allocator_init_wrap(&alloc, backing, 128);
    else
        sal_allocator_init(&alloc, GetParam(), 128);

    auto *block = static_cast<unsigned char *>(sal_allocator_alloc(&alloc, 32));
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(all_zero(block, 32));
    memcpy(block, "content", 8);

    EXPECT_EQ(sal_allocator_alloc(&alloc, 16), nullptr) << "an allocator holds one block";
    EXPECT_EQ(alloc.block, block);
    EXPECT_EQ(alloc.size, 32u);

    EXPECT_EQ(sal_allocator_realloc(&alloc, 129), nullptr) << "above max_size";
    EXPECT_EQ(alloc.block, block) << "the block stays";
    EXPECT_EQ(alloc.size, 32u);
    EXPECT_STREQ(reinterpret_cast<char *>(block), "content");

    auto *grown = static_cast<unsigned char *>(sal_allocator_realloc(&alloc, 128));
    ASSERT_NE(grown, nullptr);
    EXPECT_STREQ(reinterpret_cast<char *>(grown), "content");
    EXPECT_TRUE(all_zero(grown + 32, 96)) << "grown bytes are zero";
    EXPECT_EQ(alloc.size, 128u);

    sal_allocator_free(&alloc);
    EXPECT_EQ(alloc.size, 0u);
    if (GetParam() == sal_allocator_type_wrap) {
        EXPECT_TRUE(all_zero(backing, 128)) << "the caller's block is wiped";
        EXPECT_EQ(backing[128], 0x5A) << "and nothing past it";
    } else {
        EXPECT_EQ(alloc.block, nullptr);
    }
    ASSERT_NE(sal_allocator_alloc(&alloc, 8), nullptr) << "usable again after free";
    sal_allocator_destroy(&alloc);
}

INSTANTIATE_TEST_SUITE_P(AllKinds, SalAllocatorKinds,
                         ::testing::Values(sal_allocator_type_heap, sal_allocator_type_mmap,
                                           sal_allocator_type_wrap));

TEST(SalAllocator, StackInitializerAndHeapAllocatorObject)
{
    sal_allocator on_stack = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    char *copy = nullptr;
    EXPECT_EQ(sal_vorx_char_to_utf8("text", &copy, &on_stack), 4u);
    EXPECT_STREQ(copy, "text");
    EXPECT_EQ(copy, on_stack.block) << "the allocator owns the string";
    char *untouched = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(sal_utf8_to_vorx_char("", &untouched, &on_stack), 0u);
    EXPECT_EQ(untouched, reinterpret_cast<char *>(0x1));
    sal_allocator_destroy(&on_stack);
    EXPECT_EQ(on_stack.block, nullptr);

    sal_allocator *dynamic = sal_allocator_create_heap_allocator(64);
    ASSERT_NE(dynamic, nullptr);
    EXPECT_NE(sal_allocator_alloc(dynamic, 64), nullptr);
    EXPECT_EQ(sal_allocator_realloc(dynamic, 65), nullptr);
    sal_allocator_destroy(dynamic); // frees the block and the allocator
}

TEST(SalAllocator, ConversionOutOfMemoryIs32)
{
    char tiny[4];
    sal_allocator wrap;
    sal_allocator_init_wrap(&wrap, tiny, sizeof(tiny));
    char *out = nullptr;
    EXPECT_EQ(sal_convert_to_native_file_system_utf8("too long", &out, &wrap),
              vorx_er_memory_exhausted);
    EXPECT_EQ(sal_convert_to_native_file_system_utf8("abc", &out, &wrap), vorx_er_success);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(sal_get_hostname(&wrap), nullptr) << "4096 bytes cannot come from 4";
}

TEST(SalAllocator, BrokenGuardsAndUnknownKindsEndTheProcess)
{
    ChildResult child = run_in_child([] {
        sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
        alloc.guard_end = nullptr; // a stray write over the allocator
        sal_allocator_alloc(&alloc, 8);
    });
    EXPECT_TRUE(child.killed_by(SIGABRT));
    EXPECT_NE(child.err.find("alloc->guard_begin == ((void*)0xFEDAFEDA) && alloc->guard_end == "
                             "((void*)0xFEDAFEDA)"),
              std::string::npos)
        << child.err;

    child = run_in_child([] { sal_allocator_internal_private_data_vtbl_value(4); });
    EXPECT_TRUE(child.killed_by(SIGABRT));
    EXPECT_NE(child.err.find("derived_type_id >= 0 && derived_type_id < "), std::string::npos);
}

// ---- buffers ------------------------------------------------------------------

// Heap and mapping buffers: whole pages, zeroed, grown with their content kept; nothing until asked.
TEST(VorxBuffer, GrowsInPagesAndKeepsItsContent)
{
    const struct {
        const char *what;
        vorx_er_t (*init)(vorx_buffer *, vorx_size_t);
        vorx_buffer_location where;
    } kinds[] = {{"heap", vorx_heap_buffer_init, vorx_buffer_location_heap},
                 {"mapping", vorx_mmap_buffer_init, vorx_buffer_location_mapping}};
    for (const auto &k : kinds) {
        SCOPED_TRACE(k.what);
        vorx_buffer buffer;
        ASSERT_EQ(k.init(&buffer, 100), vorx_er_success);
        EXPECT_EQ(vorx_buffer_where(&buffer), k.where);
        EXPECT_EQ(buffer.capacity, 4096u);
        EXPECT_TRUE(all_zero(buffer.block, 4096));
        static_cast<char *>(buffer.block)[4095] = 'z';
        EXPECT_EQ(vorx_buffer_get(&buffer, 4096), buffer.block);
        auto *grown = static_cast<char *>(vorx_buffer_get(&buffer, 3 * 4096 + 1));
        ASSERT_NE(grown, nullptr);
        EXPECT_EQ(buffer.capacity, 4u * 4096);
        EXPECT_EQ(grown[4095], 'z');
        EXPECT_TRUE(all_zero(grown + 4096, 3 * 4096));
        vorx_buffer_release(&buffer);
        EXPECT_EQ(buffer.capacity, 0u);
        EXPECT_EQ(buffer.block, nullptr);

        ASSERT_EQ(k.init(&buffer, 0), vorx_er_success);
        EXPECT_EQ(buffer.block, nullptr) << "size 0 allocates nothing";
        EXPECT_NE(vorx_buffer_get(&buffer, 1), nullptr);
        vorx_buffer_release(&buffer);
    }
}

TEST(VorxBuffer, StackNeverGrows)
{
    char memory[64];
    memset(memory, 0x77, sizeof(memory));
    vorx_buffer buffer;
    ASSERT_EQ(vorx_stack_buffer_init(&buffer, memory, sizeof(memory)), vorx_er_success);
    EXPECT_EQ(vorx_buffer_where(&buffer), vorx_buffer_location_stack);
    EXPECT_TRUE(all_zero(memory, sizeof(memory)));
    EXPECT_EQ(vorx_buffer_get(&buffer, 64), memory);
    EXPECT_EQ(vorx_buffer_get(&buffer, 65), nullptr);
    EXPECT_EQ(buffer.capacity, 64u);
    vorx_buffer_release(&buffer);
}

TEST(VorxBuffer, RefusedMemoryIs2)
{
    vorx_buffer buffer;
    // Larger than any multiple of 4096 that fits in a size: must not wrap to 0.
    EXPECT_EQ(vorx_mmap_buffer_init(&buffer, static_cast<vorx_size_t>(-100)),
              vorx_er_general_failure);
    EXPECT_EQ(buffer.capacity, 0u);
    EXPECT_EQ(vorx_heap_buffer_init(&buffer, static_cast<vorx_size_t>(-100)),
              vorx_er_general_failure);
    EXPECT_EQ(buffer.capacity, 0u);

    // A growth that the system refuses leaves the old block and its content.
    ASSERT_EQ(vorx_mmap_buffer_init(&buffer, 16), vorx_er_success);
    static_cast<char *>(buffer.block)[0] = 'k';
    void *old = buffer.block;
    EXPECT_EQ(vorx_buffer_get(&buffer, static_cast<vorx_size_t>(-8192)), nullptr);
    EXPECT_EQ(buffer.block, old);
    EXPECT_EQ(buffer.capacity, 4096u);
    EXPECT_EQ(static_cast<char *>(buffer.block)[0], 'k');
    vorx_buffer_release(&buffer);
}

// ---- pool ----------------------------------------------------------------------

namespace {

struct CountedItem {
    vorx_pool_item link;
    int id;
    static inline std::atomic<int> destroyed{0};
    static void destroy(vorx_pool_item *item)
    {
        destroyed++;
        delete reinterpret_cast<CountedItem *>(item);
    }
};

CountedItem *make_item(int id)
{
    auto *item = new CountedItem{};
    item->link.destructor = CountedItem::destroy;
    item->id = id;
    return item;
}

} // namespace

TEST(VorxPool, GetWaitsForAPutFromAnotherThread)
{
    vorx_pool *pool = vorx_alloc_pool();
    ASSERT_NE(pool, nullptr);
    std::atomic<bool> got{false};
    vorx_pool_item *received = nullptr;
    std::thread taker([&] {
        pool->vtbl->get(pool, &received);
        got = true;
    });
    usleep(50 * 1000);
    EXPECT_FALSE(got) << "get returned from an empty pool";
    CountedItem *item = make_item(1);
    ASSERT_EQ(pool->vtbl->put(pool, &item->link), vorx_er_success);
    taker.join();
    EXPECT_TRUE(got);
    EXPECT_EQ(received, &item->link);
    CountedItem::destroy(received);
    vorx_free_pool(pool);
}

TEST(VorxPool, LastPutIsFirstOutAndFreeDestroysTheRest)
{
    CountedItem::destroyed = 0;
    vorx_pool *pool = vorx_alloc_pool();
    ASSERT_NE(pool, nullptr);
    for (int id = 1; id <= 3; ++id)
        pool->vtbl->put(pool, &make_item(id)->link);
    vorx_pool_item *item = nullptr;
    pool->vtbl->get(pool, &item);
    EXPECT_EQ(reinterpret_cast<CountedItem *>(item)->id, 3);
    EXPECT_EQ(item->prev, nullptr) << "unlinked";
    CountedItem::destroy(item);
    pool->vtbl->clear(pool);
    EXPECT_EQ(pool->count, 0u) << "clear empties the count too";
    pool->vtbl->put(pool, &make_item(4)->link);
    vorx_free_pool(pool);
    EXPECT_EQ(CountedItem::destroyed, 4);
}

TEST(VorxPool, ManyThreadsShareFewItems)
{
    vorx_pool *pool = vorx_alloc_pool();
    for (int id = 0; id < 2; ++id)
        pool->vtbl->put(pool, &make_item(id)->link);
    std::atomic<int> in_use{0}, most{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < 6; ++t)
        workers.emplace_back([&] {
            for (int round = 0; round < 200; ++round) {
                vorx_pool_item *item = nullptr;
                pool->vtbl->get(pool, &item);
                int now = ++in_use;
                int seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                --in_use;
                pool->vtbl->put(pool, item);
            }
        });
    for (auto &w : workers)
        w.join();
    EXPECT_LE(most, 2) << "more holders than items";
    EXPECT_EQ(pool->count, 2u);
    vorx_free_pool(pool);
}

// ---- vector ---------------------------------------------------------------------

TEST(SalVector, GrowsMovesAndDestroysItsElements)
{
    SalVector<std::string> names;
    for (int i = 0; i < 100; ++i)
        names.push_back("name-" + std::to_string(i));
    ASSERT_EQ(names.size(), 100u);
    EXPECT_EQ(names[0], "name-0");
    EXPECT_EQ(names.back(), "name-99");
    names.pop_back();
    EXPECT_EQ(names.size(), 99u);

    SalVector<std::string> moved(std::move(names));
    EXPECT_EQ(names.size(), 0u);
    EXPECT_EQ(moved[98], "name-98");
    moved.resize(3);
    EXPECT_EQ(moved.size(), 3u);
    moved.resize(5);
    EXPECT_EQ(moved[4], "");
    size_t total = 0;
    for (const std::string &name : moved)
        total += name.size();
    EXPECT_EQ(total, 18u);
}

TEST(SalVector, ImpossibleCountIsAnAssertion)
{
    ChildResult child = run_in_child([] {
        SalAllocator<double> allocator;
        allocator.allocate(SalAllocator<double>::max_size() + 1);
    });
    EXPECT_TRUE(child.killed_by(SIGABRT));
    EXPECT_NE(child.err.find("(count <= max_size())"), std::string::npos) << child.err;
}

// ---- bitmaps ---------------------------------------------------------------------

TEST(VorxBitmap, BitsPastTheLengthAreNeverLookedAt)
{
    vorx_bitmap_t map[2] = {0, 0xFFFFFF00u}; // bits 40.. raised, outside a 40-bit map
    EXPECT_TRUE(vorx_bitmap_is_empty(map, 40));
    EXPECT_FALSE(vorx_bitmap_is_empty(map, 41));
    EXPECT_EQ(vorx_bitmap_get_raised_bits_count(map, 40), 0u);
    EXPECT_EQ(vorx_bitmap_find_first_raised_bit(map, 40), 40u);
    EXPECT_EQ(vorx_bitmap_find_first_raised_bit(map, 64), 40u);

    vorx_bitmap_t full[2] = {0xFFFFFFFFu, 0x000000FFu};
    EXPECT_TRUE(vorx_bitmap_is_full(full, 40));
    EXPECT_FALSE(vorx_bitmap_is_full(full, 41));
    EXPECT_TRUE(vorx_bitmap_is_full(full, 32));
    EXPECT_EQ(vorx_bitmap_get_raised_bits_count(full, 40), 40u);
}

TEST(VorxBitmap, WalkAndCombine)
{
    const vorx_size_t bits = 560;
    vorx_bitmap_t a[VORX_BITMAP_WORDS(560)] = {}, b[VORX_BITMAP_WORDS(560)] = {},
                  out[VORX_BITMAP_WORDS(560)] = {};
    for (vorx_size_t bit : {0u, 31u, 32u, 300u, 559u})
        vorx_bitmap_raise(a, bit);
    std::vector<vorx_size_t> seen;
    for (vorx_size_t bit = vorx_bitmap_find_first_raised_bit(a, bits); bit < bits;
         bit = vorx_bitmap_find_next_raised_bit(a, bits, bit))
        seen.push_back(bit);
    EXPECT_EQ(seen, (std::vector<vorx_size_t>{0, 31, 32, 300, 559}));

    vorx_bitmap_raise(b, 300);
    vorx_bitmap_raise(b, 301);
    vorx_bitmap_and(out, a, b, bits);
    EXPECT_EQ(vorx_bitmap_get_raised_bits_count(out, bits), 1u);
    EXPECT_TRUE(vorx_bitmap_is_raised(out, 300));
    vorx_bitmap_or(out, a, b, bits);
    EXPECT_EQ(vorx_bitmap_get_raised_bits_count(out, bits), 6u);
    vorx_bitmap_xor(out, a, b, bits);
    EXPECT_EQ(vorx_bitmap_get_raised_bits_count(out, bits), 5u);
    EXPECT_FALSE(vorx_bitmap_is_raised(out, 300));
    vorx_bitmap_clear(out, 301);
    EXPECT_EQ(vorx_bitmap_find_next_raised_bit(out, bits, 32), 559u);
}
