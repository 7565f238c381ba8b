// The object model: dispatch, inheritance, checked casts; and the key set.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "vorx_htable.h"
#include "vorx_log.h"
#include "vorx_object.h"
#include "../sal/vorx_test_child.hpp"

namespace {

// A small hierarchy: shape_t (counts constructions, takes a size argument) and
// circle_t, which overrides only the dump.
struct shape {
    struct vorx_object head;
    int size;
    int constructed;
};

std::atomic<int> g_shapes_destroyed{0};

void *shape_ctor(void *object, va_list *args)
{
    auto *s = static_cast<shape *>(object);
    s->size = va_arg(*args, int);
    s->constructed++;
    return s;
}

void *shape_dtor(void *object)
{
    g_shapes_destroyed++;
    return object;
}

void shape_dump(const void *object, int fd)
{
    vorx_object_printf(fd, "shape %d\n", static_cast<const shape *>(object)->size);
}

void circle_dump(const void *object, int fd)
{
    vorx_object_printf(fd, "circle %d\n", static_cast<const shape *>(object)->size);
}

const void *volatile g_shape_meta, *volatile g_shape_class, *volatile g_circle_class;

const void *shape_meta()
{
    if (g_shape_meta == nullptr)
        vorx_class_publish(&g_shape_meta,
                           vorx_alloc_object(vorx_meta_t(), "shape_meta_t", vorx_meta_t(),
                                             static_cast<vorx_size_t>(sizeof(struct vorx_class)),
                                             static_cast<const char *>(nullptr)));
    return g_shape_meta;
}

const void *shape_t()
{
    if (g_shape_class == nullptr)
        vorx_class_publish(
            &g_shape_class,
            vorx_alloc_object(shape_meta(), "shape_t", vorx_class_t(),
                              static_cast<vorx_size_t>(sizeof(shape)), "vorx_object_ctor",
                              vorx_object_ctor, shape_ctor, "vorx_object_dtor", vorx_object_dtor,
                              shape_dtor, "vorx_object_dump", vorx_object_dump, shape_dump,
                              static_cast<const char *>(nullptr)));
    return g_shape_class;
}

const void *circle_t()
{
    if (g_circle_class == nullptr)
        vorx_class_publish(&g_circle_class,
                           vorx_alloc_object(shape_meta(), "circle_t", shape_t(),
                                             static_cast<vorx_size_t>(sizeof(shape)),
                                             "vorx_object_dump", vorx_object_dump, circle_dump,
                                             static_cast<const char *>(nullptr)));
    return g_circle_class;
}

std::string dump_text(const void *object)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    vorx_object_dump_fd(object, fds[1]);
    close(fds[1]);
    std::string text;
    char chunk[4096];
    for (ssize_t got; (got = read(fds[0], chunk, sizeof(chunk))) > 0;)
        text.append(chunk, static_cast<size_t>(got));
    close(fds[0]);
    return text;
}

} // namespace

TEST(VorxObject, RootClassesDescribeThemselves)
{
    EXPECT_EQ(vorx_object_get_class(vorx_meta_t()), vorx_meta_t()) << "its own class";
    EXPECT_EQ(vorx_class_get_superclass(vorx_meta_t()), vorx_class_t());
    EXPECT_EQ(vorx_class_get_superclass(vorx_class_t()), vorx_class_t());
    EXPECT_EQ(vorx_object_get_method(vorx_class_t(), "vorx_class_ctor"),
              reinterpret_cast<void *>(vorx_object_ctor))
        << "a class's methods are its metaclass's";
}

TEST(VorxObject, SubclassOverridingOnlyDumpKeepsTheOtherSlots)
{
    auto *c = static_cast<shape *>(vorx_alloc_object(circle_t(), 7));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->head.magic, VORX_OBJECT_MAGIC);
    EXPECT_EQ(c->size, 7) << "the parent's constructor ran with the arguments";
    EXPECT_EQ(c->constructed, 1);
    EXPECT_EQ(vorx_object_get_size(c), sizeof(shape));

    auto *circle_class = static_cast<const struct vorx_class *>(circle_t());
    auto *shape_class = static_cast<const struct vorx_class *>(shape_t());
    for (int slot : {vorx_method_alloc, vorx_method_free, vorx_method_ctor, vorx_method_dtor})
        EXPECT_EQ(circle_class->methods[slot].impl, shape_class->methods[slot].impl) << slot;
    EXPECT_NE(circle_class->methods[vorx_method_dump].impl,
              shape_class->methods[vorx_method_dump].impl);
    EXPECT_EQ(dump_text(c), "circle 7\n");

    vorx_object_set_dump_fd(-1);
    vorx_object_dump(c); // to a closed descriptor: no effect, no crash
    vorx_object_set_dump_fd(1);

    int destroyed = g_shapes_destroyed;
    vorx_free_object(c);
    EXPECT_EQ(g_shapes_destroyed, destroyed + 1) << "the inherited destructor ran";
}

TEST(VorxObject, MethodLookupByName)
{
    auto *s = vorx_alloc_object(shape_t(), 1);
    EXPECT_EQ(vorx_object_get_method(s, "vorx_object_dump"),
              reinterpret_cast<void *>(vorx_object_dump));
    EXPECT_EQ(vorx_object_get_method(s, "no_such_method"), nullptr);
    EXPECT_EQ(vorx_object_get_method(s, "vorx_object_dump_extended"),
              reinterpret_cast<void *>(vorx_object_dump))
        << "compared over the slot name's length";
    vorx_free_object(s);
}

TEST(VorxObject, CastsFollowTheSuperChain)
{
    auto *c = vorx_alloc_object(circle_t(), 2);
    auto *s = vorx_alloc_object(shape_t(), 3);
    EXPECT_EQ(vorx_object_cast(shape_t(), c), c);
    EXPECT_EQ(vorx_object_cast(vorx_class_t(), s), s) << "the root class always passes";
    EXPECT_EQ(vorx_object_cast(vorx_class_t(), vorx_meta_t()), vorx_meta_t());
    EXPECT_TRUE(vorx_object_belongs_to_class(c, circle_t()));
    EXPECT_TRUE(vorx_object_belongs_to_class(c, shape_t()));
    EXPECT_FALSE(vorx_object_belongs_to_class(s, circle_t()));
    EXPECT_FALSE(vorx_object_belongs_to_class(s, vorx_htable_t()));
    EXPECT_TRUE(vorx_object_belongs_to_class(shape_t(), vorx_meta_t())) << "classes are objects";

    ChildResult child = run_in_child([&] { vorx_object_cast(circle_t(), s); });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.err;
    EXPECT_NE(child.err.find("is not a circle_t"), std::string::npos) << child.err;
    vorx_free_object(c);
    vorx_free_object(s);
}

TEST(VorxObject, StrayPointersAreCaughtByTheMagicWord)
{
    struct vorx_object fake = {0x12345678u, nullptr};
    ChildResult child = run_in_child([&] { vorx_object_dtor(&fake); });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    EXPECT_NE(child.err.find("(((const struct vorx_object*)obj)->magic == 0xFACEECAF)"),
              std::string::npos)
        << child.err;

    child = run_in_child([] { vorx_check_object(nullptr); });
    EXPECT_NE(child.err.find("(obj != ((void *)0))"), std::string::npos) << child.err;
}

TEST(VorxObject, ClassCreationRaceHasOneWinner)
{
    std::vector<std::thread> threads;
    std::vector<const void *> seen(8);
    std::atomic<bool> go{false};
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&, i] {
            while (!go) {
            }
            seen[i] = vorx_htable_t();
        });
    go = true;
    for (auto &t : threads)
        t.join();
    for (const void *klass : seen)
        EXPECT_EQ(klass, seen[0]);
}

// ---- the key set --------------------------------------------------------------

namespace {

struct HtableTest : ::testing::Test {
    vorx_htable *table = nullptr;
    void SetUp() override
    {
        table = static_cast<vorx_htable *>(vorx_alloc_object(vorx_htable_t(), vorx_size_t{16}));
        ASSERT_NE(table, nullptr);
    }
    void TearDown() override { vorx_free_object(table); }

    // Two different keys that land in one bucket.
    std::pair<vorx_u32_t, vorx_u32_t> same_bucket_keys() const
    {
        vorx_u32_t first = 0x1000;
        for (vorx_u32_t other = first + 1;; ++other)
            if (vorx_htable_bucket_of(table, other) == vorx_htable_bucket_of(table, first))
                return {first, other};
    }
};

} // namespace

TEST_F(HtableTest, FreedSlotsAreReusedInTheirBucket)
{
    auto [a, b] = same_bucket_keys();
    const vorx_htable_bucket &bucket = table->buckets[vorx_htable_bucket_of(table, a)];
    ASSERT_EQ(vorx_htable_insert(table, a), vorx_er_success);
    ASSERT_EQ(vorx_htable_delete(table, a), vorx_er_success);
    ASSERT_EQ(vorx_htable_insert(table, b), vorx_er_success);
    EXPECT_EQ(bucket.node_count, 1u);
    EXPECT_EQ(table->node_count, 1u);
    EXPECT_EQ(bucket.live_count, 1u);
    EXPECT_TRUE(vorx_htable_contains(table, b));
    EXPECT_FALSE(vorx_htable_contains(table, a));
}

TEST_F(HtableTest, SizeAbsentKeysAndTheFreeMarker)
{
    auto *odd = static_cast<vorx_htable *>(vorx_alloc_object(vorx_htable_t(), vorx_size_t{100}));
    EXPECT_EQ(odd->size, 128u) << "a power of two";
    vorx_free_object(odd);
    EXPECT_EQ(vorx_htable_delete(table, 42), vorx_er_general_failure);
    EXPECT_EQ(vorx_htable_insert(table, 0), vorx_er_general_failure) << "0 marks a free slot";
    EXPECT_EQ(vorx_htable_delete(table, 0), vorx_er_general_failure);
}

TEST_F(HtableTest, AKeyPutTwiceNeedsTwoDeletes)
{
    EXPECT_EQ(vorx_htable_insert(table, 9), vorx_er_success);
    EXPECT_EQ(vorx_htable_insert(table, 9), vorx_er_success);
    EXPECT_EQ(vorx_htable_delete(table, 9), vorx_er_success);
    EXPECT_TRUE(vorx_htable_contains(table, 9));
    EXPECT_EQ(vorx_htable_delete(table, 9), vorx_er_success);
    EXPECT_EQ(vorx_htable_delete(table, 9), vorx_er_general_failure);
}

TEST_F(HtableTest, DumpHasOneLinePerBucket)
{
    auto [a, b] = same_bucket_keys();
    vorx_htable_insert(table, a);
    vorx_htable_insert(table, b);
    vorx_htable_delete(table, a);
    std::string text = dump_text(table);
    size_t index = vorx_htable_bucket_of(table, a);
    EXPECT_NE(text.find("\n" + std::to_string(index) + ",1,2,0.50\n"), std::string::npos) << text;
    EXPECT_EQ(text.rfind("15,", std::string::npos) != std::string::npos, true);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 16);
}

TEST_F(HtableTest, ConcurrentInsertAndDeleteKeepEveryKeyExactlyOnce)
{
    constexpr int kThreads = 4, kKeys = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 3; ++round) {
                for (int k = 1; k <= kKeys; ++k)
                    EXPECT_EQ(vorx_htable_insert(table, static_cast<vorx_u32_t>(t * kKeys + k)),
                              vorx_er_success);
                for (int k = 1; k <= kKeys; k += 2)
                    EXPECT_EQ(vorx_htable_delete(table, static_cast<vorx_u32_t>(t * kKeys + k)),
                              vorx_er_success);
                if (round < 2)
                    for (int k = 2; k <= kKeys; k += 2)
                        vorx_htable_delete(table, static_cast<vorx_u32_t>(t * kKeys + k));
            }
        });
    for (auto &t : threads)
        t.join();
    vorx_u32_t live = 0;
    for (vorx_size_t i = 0; i < table->size; ++i)
        live += table->buckets[i].live_count;
    EXPECT_EQ(live, static_cast<vorx_u32_t>(kThreads * kKeys / 2));
    for (int k = 1; k <= kThreads * kKeys; ++k)
        EXPECT_EQ(vorx_htable_contains(table, static_cast<vorx_u32_t>(k)), k % 2 == 0) << k;
    EXPECT_LE(table->node_count, static_cast<vorx_size_t>(kThreads * kKeys))
        << "freed slots were reused, not leaked into new nodes";
}
