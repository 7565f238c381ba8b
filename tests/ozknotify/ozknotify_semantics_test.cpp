// What an application relies on when no collector is there: creation by name
// gives one stable object from every thread, counters count exactly in their
// type, begin/end pairs balance per thread, nothing changes errno.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "ozk_internal.h"

namespace {

// Runs fn(thread_index) on n threads released together.
template <typename Fn> void race(int n, Fn fn)
{
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back([&, i] {
            ready.fetch_add(1);
            while (ready.load() < n) {
            }
            fn(i);
        });
    for (auto &t : threads)
        t.join();
}

TEST(OzkObjects, SameNameGivesOnePointerFromAllThreads)
{
    constexpr int kThreads = 8, kNames = 200;
    std::vector<std::vector<ozk_domain *>> seen(kThreads, std::vector<ozk_domain *>(kNames));
    race(kThreads, [&](int t) {
        for (int i = 0; i < kNames; ++i) {
            char name[32];
            snprintf(name, sizeof name, "race domain %d", i);
            seen[t][i] = __ozk_domain_create(name);
        }
    });
    std::set<unsigned> ids;
    for (int i = 0; i < kNames; ++i) {
        for (int t = 1; t < kThreads; ++t)
            ASSERT_EQ(seen[t][i], seen[0][i]) << "name " << i << " thread " << t;
        EXPECT_NE(seen[0][i]->id, 0u);
        ids.insert(seen[0][i]->id);
    }
    EXPECT_EQ(ids.size(), (size_t)kNames) << "ids are unique";
}

TEST(OzkObjects, NamesAreCopiedKindsAreSeparateAndNullIsEmpty)
{
    char buffer[] = "copied name";
    ozk_domain *domain = __ozk_domain_create(buffer);
    ozk_string_handle *handle = __ozk_string_handle_create(buffer);
    ozk_frame *frame = __ozk_frame_create(buffer);
    std::memset(buffer, 'x', sizeof buffer - 1);

    EXPECT_STREQ(domain->name, "copied name");
    EXPECT_EQ(__ozk_domain_create("copied name"), domain);
    EXPECT_EQ(__ozk_string_handle_create("copied name"), handle);
    EXPECT_EQ(__ozk_frame_create("copied name"), frame);
    EXPECT_NE(domain->id, handle->id);
    EXPECT_NE(handle->id, frame->id);
    EXPECT_EQ(domain->collector_word, 0u);

    ozk_string_handle *null_handle = __ozk_string_handle_create(nullptr);
    ASSERT_NE(null_handle, nullptr);
    EXPECT_STREQ(null_handle->name, "") << "a null name is the empty name";
    EXPECT_EQ(__ozk_string_handle_create(""), null_handle);
    EXPECT_NE(__ozk_domain_create(nullptr), nullptr);
}

TEST(OzkEvents, NumbersAreInternedByTheGivenLength)
{
    int abc = __ozk_event_create("abc", 0);
    EXPECT_GT(abc, 0);
    EXPECT_EQ(__ozk_event_create("abcdef", 3), abc);
    EXPECT_EQ(__ozk_event_create("abc", 100), abc) << "a length past the text stops at its end";
    EXPECT_NE(__ozk_event_create("abcd", -1), abc);

    EXPECT_EQ(__ozk_event_start(abc), 0);
    EXPECT_EQ(__ozk_event_end(abc), 0);
    EXPECT_EQ(__ozk_event_start(0), -1);
    EXPECT_EQ(__ozk_event_end(0x7fffffff), -1);
}

TEST(OzkCounters, ConcurrentChangesAddUpExactly)
{
    ozk_counter *counter = __ozk_counter_create("hits", "counter test");
    constexpr int kThreads = 4, kRounds = 20000;
    race(kThreads, [&](int t) {
        for (int i = 0; i < kRounds; ++i) {
            __ozk_counter_inc(counter);
            __ozk_counter_inc_delta(counter, 3);
            __ozk_counter_dec(counter);
        }
    });
    EXPECT_EQ(ozk_counter_value_u64(counter), (unsigned long long)kThreads * kRounds * 3);
}

TEST(OzkCounters, NameAndDomainTogetherAreTheKey)
{
    ozk_counter *a = __ozk_counter_create("bytes", "disk");
    EXPECT_EQ(__ozk_counter_create("bytes", "disk"), a);
    EXPECT_NE(__ozk_counter_create("bytes", "net"), a);
    EXPECT_NE(__ozk_counter_create("bytes", nullptr), a);
    EXPECT_EQ(a->domain, __ozk_domain_create("disk")) << "the domain is the domain object";
    EXPECT_EQ(__ozk_counter_create_typed("bytes", "disk", OZK_COUNTER_DOUBLE), a);
    EXPECT_EQ(a->type, OZK_COUNTER_U64) << "an existing counter keeps its first type";
}

TEST(OzkCounters, ValuesFollowTheCounterType)
{
    ozk_counter *u32 = __ozk_counter_create_typed("u32", "types", OZK_COUNTER_U32);
    __ozk_counter_dec(u32);
    EXPECT_EQ(ozk_counter_value_u64(u32), 0xFFFFFFFFull) << "wraps at 32 bits";

    ozk_counter *s32 = __ozk_counter_create_typed("s32", "types", OZK_COUNTER_S32);
    __ozk_counter_dec_delta(s32, 5);
    EXPECT_EQ(ozk_counter_value_double(s32), -5.0);

    ozk_counter *dbl = __ozk_counter_create_typed("double", "types", OZK_COUNTER_DOUBLE);
    double start = 2.5;
    __ozk_counter_set_value(dbl, &start);
    __ozk_counter_inc(dbl);
    EXPECT_EQ(ozk_counter_value_double(dbl), 3.5);

    ozk_counter *flt = __ozk_counter_create_typed("float", "types", OZK_COUNTER_FLOAT);
    float f = 0.25f;
    __ozk_counter_set_value(flt, &f);
    EXPECT_EQ(ozk_counter_value_double(flt), 0.25);

    ozk_counter *odd = __ozk_counter_create_typed("odd type", "types", 99);
    EXPECT_EQ(odd->type, OZK_COUNTER_U64);
    unsigned long long big = 1ull << 40;
    __ozk_counter_set_value(odd, &big);
    __ozk_counter_set_value(odd, nullptr);
    EXPECT_EQ(ozk_counter_value_u64(odd), big);
}

TEST(OzkCounters, DestroyStopsChangesAndCreateRestartsAtZero)
{
    ozk_counter *c = __ozk_counter_create("restart", "lifecycle");
    __ozk_counter_inc_delta(c, 10);
    __ozk_counter_destroy(c);
    __ozk_counter_inc(c);
    EXPECT_EQ(ozk_counter_value_u64(c), 10u) << "changes to a destroyed counter are ignored";
    EXPECT_EQ(__ozk_counter_create("restart", "lifecycle"), c);
    EXPECT_EQ(ozk_counter_value_u64(c), 0u);
    __ozk_counter_inc(c);
    EXPECT_EQ(ozk_counter_value_u64(c), 1u);
}

TEST(OzkCounters, HandleFormsShareTheNamedCounter)
{
    ozk_domain *domain = __ozk_domain_create("v3 domain");
    ozk_string_handle *name = __ozk_string_handle_create("v3 counter");
    __ozk_counter_inc_v3(domain, name);
    __ozk_counter_inc_delta_v3(domain, name, 10);
    __ozk_counter_dec_v3(domain, name);
    __ozk_counter_dec_delta_v3(domain, name, 2);
    ozk_counter *named = __ozk_counter_create("v3 counter", "v3 domain");
    EXPECT_EQ(ozk_counter_value_u64(named), 8u);

    // The handle's cache must not mix up domains.
    ozk_domain *other = __ozk_domain_create("v3 other");
    __ozk_counter_inc_v3(other, name);
    EXPECT_EQ(ozk_counter_value_u64(named), 8u);
    EXPECT_EQ(ozk_counter_value_u64(__ozk_counter_create("v3 counter", "v3 other")), 1u);

    // Objects of the wrong kind are ignored, not used.
    __ozk_counter_inc_v3(domain, reinterpret_cast<ozk_string_handle *>(domain));
    __ozk_counter_inc(reinterpret_cast<ozk_counter *>(domain));
    __ozk_counter_inc(nullptr);
    EXPECT_EQ(ozk_counter_value_u64(named), 8u);
}

TEST(OzkThreads, TaskAndFrameDepthsBalancePerThread)
{
    ozk_domain *d = __ozk_domain_create("depth");
    ozk_string_handle *n = __ozk_string_handle_create("work");
    ozk_frame *frame = __ozk_frame_create("loop");
    race(3, [&](int t) {
        const ozk_id id = ozk_make_id((unsigned long long)t, 1);
        for (int i = 0; i < 1000; ++i) {
            __ozk_frame_begin(frame);
            __ozk_task_begin(d, id, ozk_null_id(), n);
            __ozk_task_begin_fn(d, ozk_null_id(), id, reinterpret_cast<void *>(&__ozk_get_timestamp));
            EXPECT_EQ(ozk_thread()->task_depth, 2u);
            __ozk_task_end(d);
            __ozk_task_end(d);
            __ozk_frame_end(frame);
        }
        __ozk_task_end(d); // unbalanced end: ignored
        __ozk_frame_end(frame);
        EXPECT_EQ(ozk_thread()->task_depth, 0u);
        EXPECT_EQ(ozk_thread()->frame_depth, 0u);
        __ozk_task_begin(d, ozk_null_id(), ozk_null_id(), n);
        EXPECT_EQ(ozk_thread()->task_depth, 1u) << "an extra end earlier does not eat a begin";
    });
}

TEST(OzkThreads, ModelDisableStackNestsPerThread)
{
    EXPECT_EQ(__ozk_model_is_collection_disabled(), 0);
    __ozk_model_disable_push(1);
    __ozk_model_disable_push(0);
    EXPECT_EQ(__ozk_model_is_collection_disabled(), 0);
    std::thread([] { EXPECT_EQ(__ozk_model_is_collection_disabled(), 0); }).join();
    __ozk_model_disable_pop();
    EXPECT_EQ(__ozk_model_is_collection_disabled(), 1);
    __ozk_model_disable_pop();
    __ozk_model_disable_pop(); // without push: ignored
    EXPECT_EQ(__ozk_model_is_collection_disabled(), 0);

    // Beyond the remembered levels the deepest remembered mode answers.
    for (int i = 0; i < OZK_MODEL_DISABLE_LEVELS + 6; ++i)
        __ozk_model_disable_push(i == OZK_MODEL_DISABLE_LEVELS - 1);
    EXPECT_EQ(__ozk_model_is_collection_disabled(), 1);
    for (int i = 0; i < 7; ++i)
        __ozk_model_disable_pop();
    EXPECT_EQ(__ozk_model_is_collection_disabled(), 0);
    for (int i = 0; i < OZK_MODEL_DISABLE_LEVELS; ++i)
        __ozk_model_disable_pop();
    EXPECT_EQ(ozk_thread()->model_depth, 0u);
}

TEST(OzkStack, ContextsAreRecycledAndDestroyedOnce)
{
    ozk_stack_ctx *a = __ozk_stack_caller_create();
    ozk_stack_ctx *b = __ozk_stack_caller_create();
    ASSERT_NE(a, nullptr);
    ASSERT_NE(a, b);
    __ozk_stack_callee_enter(a);
    __ozk_stack_callee_leave(a);
    __ozk_stack_caller_destroy(a);
    EXPECT_FALSE(ozk_stack_ctx_is_live(a));
    __ozk_stack_caller_destroy(a); // twice: ignored, the free list stays sound
    __ozk_stack_caller_destroy(nullptr);
    ozk_stack_ctx *c = __ozk_stack_caller_create();
    ozk_stack_ctx *d = __ozk_stack_caller_create();
    EXPECT_NE(c, d) << "a double destroy must not hand one context out twice";
    EXPECT_TRUE(ozk_stack_ctx_is_live(b));
    for (auto *ctx : {b, c, d})
        __ozk_stack_caller_destroy(ctx);
}

TEST(OzkStack, ConcurrentCreateDestroyNeverSharesAContext)
{
    race(4, [](int) {
        for (int i = 0; i < 20000; ++i) {
            ozk_stack_ctx *ctx = __ozk_stack_caller_create();
            ASSERT_TRUE(ozk_stack_ctx_is_live(ctx));
            __ozk_stack_caller_destroy(ctx);
        }
    });
}

TEST(OzkControl, ErrnoAndStateAreKept)
{
    errno = 1234;
    __ozk_domain_create("errno domain");
    __ozk_counter_create("errno counter", "errno domain");
    __ozk_stack_caller_destroy(__ozk_stack_caller_create());
    (void)__ozk_get_timestamp();
    EXPECT_EQ(errno, 1234);

    EXPECT_EQ(ozkcolext_report_state(-1), 0);
    EXPECT_EQ(ozkcolext_report_state(3), 0);
    EXPECT_EQ(ozkcolext_report_state(-1), 3);
    EXPECT_EQ(ozkcolext_report_state(0), 3);

    __ozk_pause();
    EXPECT_EQ(g_ozk_collection_state, OZK_STATE_PAUSED);
    __ozk_resume();
    EXPECT_EQ(g_ozk_collection_state, OZK_STATE_RESUMED);
    __ozk_detach();
    __ozk_resume();
    EXPECT_EQ(g_ozk_collection_state, OZK_STATE_DETACHED) << "a detach is final";
}

TEST(OzkControl, TimestampsNeverGoBack)
{
    unsigned long long last = __ozk_get_timestamp();
    EXPECT_GT(last, 0u);
    for (int i = 0; i < 1000; ++i) {
        unsigned long long now = __ozk_get_timestamp();
        ASSERT_GE(now, last);
        last = now;
    }
}

TEST(OzkControl, CallsWithoutObjectsAreHarmless)
{
    int object = 0;
    __ozk_sync_create(&object, "lock", "mine", 0);
    __ozk_sync_prepare(&object);
    __ozk_sync_acquired(&object);
    __ozk_sync_releasing(&object);
    __ozk_sync_destroy(nullptr);
    __ozk_heap_allocate_begin(nullptr, 8, 0);
    __ozk_heap_allocate_end(nullptr, nullptr, 8, 0);
    __ozk_heap_free_end(nullptr, nullptr); // unbalanced
    EXPECT_EQ(ozk_thread()->heap_depth, 0u);
    __ozk_metadata_add(nullptr, ozk_null_id(), nullptr, OZK_METADATA_U64, 0, nullptr);
    __ozk_frame_submit_v3(nullptr, ozk_null_id(), 1, 2);
    __ozk_task_begin_overlapped(nullptr, ozk_null_id(), ozk_null_id(), nullptr);
    __ozk_task_end_overlapped(nullptr, ozk_null_id());
    __ozk_model_site_begin(nullptr, nullptr, nullptr);
    __ozk_model_site_end(nullptr, nullptr);
    EXPECT_EQ(get_vorx_prof_extension_api(1), nullptr);
    release_vorx_prof_extension_api(nullptr);
    ozkcolext_enter_runtime();
    ozkcolext_leave_runtime();
    ozkcolext_leave_runtime();
    EXPECT_EQ(ozk_thread()->runtime_depth, 0u);
}

TEST(OzkMetadata, TypesOutsideTheTableHaveNoSize)
{
    EXPECT_EQ(ozk_metadata_type_size(OZK_METADATA_TEXT), 1u);
    EXPECT_EQ(ozk_metadata_type_size(-1), 0u);
    EXPECT_EQ(ozk_metadata_type_size(OZK_METADATA_TEXT + 1), 0u);
}

TEST(OzkArena, LargeAndManyAllocationsStayZeroedAndDistinct)
{
    std::vector<char *> blocks;
    race(4, [&](int) {
        for (int i = 0; i < 5000; ++i) {
            char *p = static_cast<char *>(ozk_arena_alloc(24));
            ASSERT_NE(p, nullptr);
            for (int k = 0; k < 24; ++k)
                ASSERT_EQ(p[k], 0);
            std::memset(p, 0x5a, 24); // a shared block would fail another thread's check
        }
    });
    char *large = static_cast<char *>(ozk_arena_alloc(1 << 20));
    ASSERT_NE(large, nullptr);
    EXPECT_EQ(large[(1 << 20) - 1], 0);
}

} // namespace
