// The hand-over between libozknotify.so and a collector, seen from outside
// the library as the collector sees it. This program defines __ozk_api_init
// itself, so the library's start-up call lands here first, as it would land in
// a collector's probe; the library's own function is then reached with
// dlsym(RTLD_NEXT), as a probe reaches it through its trampoline.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstring>
#include <string>
#include <vector>

#include "ozknotify.h"
#include "ozknotify_api_table.h"

namespace {

ozk_api_table *g_table;       // what the library handed over at its start
int g_start_init_type = -1;   // and with which argument
int g_start_calls;

using init_fn = void (*)(void *, int);

init_fn library_init()
{
    static init_fn fn = reinterpret_cast<init_fn>(dlsym(RTLD_NEXT, "__ozk_api_init"));
    return fn;
}

} // namespace

extern "C" void __ozk_api_init(void *api_table, int init_type)
{
    if (g_start_calls++ == 0) {
        g_table = static_cast<ozk_api_table *>(api_table);
        g_start_init_type = init_type;
    }
    // A collector replaces the argument by its mask before the original runs.
    library_init()(api_table, init_type);
}

namespace {

TEST(OzkHandover, LibraryAnnouncesItsTableAtLoad)
{
    ASSERT_EQ(g_start_calls, 1) << "the library calls __ozk_api_init once, from its start";
    ASSERT_NE(g_table, nullptr);
    EXPECT_EQ(g_start_init_type, (int)OZK_API_INIT_NONE);
    EXPECT_EQ(g_table->magic, OZK_API_TABLE_MAGIC);
    EXPECT_EQ(g_table->version, OZK_API_TABLE_VERSION);
    EXPECT_EQ(g_table->size, sizeof(ozk_api_table));
    EXPECT_EQ(g_table->library_version, (unsigned)OZKNOTIFY_VERSION);
    EXPECT_EQ(g_table->flags, 0) << "no collector: no mask";
}

TEST(OzkHandover, TableHoldsTheRowsReachedThroughIt)
{
    std::vector<std::string> expected = {
#define OZK_VIA_TABLE(ret, name, params, args) #name,
#define OZK_TABLE_ONLY(ret, name, params, args) #name,
#include "ozknotify_api.def"
    };
    ASSERT_NE(g_table, nullptr);
    ASSERT_EQ(g_table->count, expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], g_table->entries[i].name) << "slot " << i;
        EXPECT_NE(g_table->entries[i].fn, nullptr) << expected[i];
    }
    EXPECT_STREQ(g_table->entries[ozk_slot___ozk_counter_create_typed].name,
                 "__ozk_counter_create_typed");
    EXPECT_STREQ(g_table->entries[ozk_slot___internal_set_runs_count].name,
                 "__internal_set_runs_count");
}

TEST(OzkHandover, InitStoresTheCollectorsMaskOnlyInARealTable)
{
    ASSERT_NE(g_table, nullptr);
    const int mask = (int)(OZK_API_INIT_BASE | OZK_API_INIT_TASKS | OZK_API_INIT_FRAMES |
                           OZK_API_INIT_USER_SYNC);
    library_init()(g_table, mask);
    EXPECT_EQ(g_table->flags, mask);

    ozk_api_table forged;
    std::memset(&forged, 0, sizeof forged);
    forged.magic = 0x12345678;
    library_init()(&forged, mask);
    EXPECT_EQ(forged.flags, 0) << "a table of another form is left alone";
    library_init()(nullptr, mask);

    library_init()(g_table, (int)OZK_API_INIT_NONE);
    EXPECT_EQ(g_table->flags, 0);
}

// A collector's wrappers of three rows: they record the call and call the
// original they replaced, as a probe's trampoline would.
struct Seen {
    int calls;
    ozk_id taskid, parentid;
    unsigned long long begin, end;
    const void *object;
};
Seen g_seen;
void *g_original_dec, *g_original_overlapped, *g_original_submit;

void wrap_counter_dec(ozk_counter *counter)
{
    ++g_seen.calls;
    g_seen.object = counter;
    reinterpret_cast<void (*)(ozk_counter *)>(g_original_dec)(counter);
}

void wrap_task_begin_overlapped(const ozk_domain *domain, ozk_id taskid, ozk_id parentid,
                                ozk_string_handle *name)
{
    ++g_seen.calls;
    g_seen.object = name;
    g_seen.taskid = taskid;
    g_seen.parentid = parentid;
    reinterpret_cast<void (*)(const ozk_domain *, ozk_id, ozk_id, ozk_string_handle *)>(
        g_original_overlapped)(domain, taskid, parentid, name);
}

void wrap_frame_submit(const ozk_domain *domain, ozk_id id, unsigned long long begin,
                       unsigned long long end)
{
    ++g_seen.calls;
    g_seen.object = domain;
    g_seen.taskid = id;
    g_seen.begin = begin;
    g_seen.end = end;
    reinterpret_cast<void (*)(const ozk_domain *, ozk_id, unsigned long long, unsigned long long)>(
        g_original_submit)(domain, id, begin, end);
}

void *swap_slot(int slot, void *wrapper)
{
    return __atomic_exchange_n(&g_table->entries[slot].fn, wrapper, __ATOMIC_ACQ_REL);
}

bool same_id(const ozk_id &a, const ozk_id &b)
{
    return a.words[0] == b.words[0] && a.words[1] == b.words[1] && a.words[2] == b.words[2];
}

TEST(OzkHandover, SwappedSlotsSeeEveryCallWithItsArgumentsByValue)
{
    ASSERT_NE(g_table, nullptr);
    g_original_dec = swap_slot(ozk_slot___ozk_counter_dec, (void *)&wrap_counter_dec);
    g_original_overlapped =
        swap_slot(ozk_slot___ozk_task_begin_overlapped, (void *)&wrap_task_begin_overlapped);
    g_original_submit = swap_slot(ozk_slot___ozk_frame_submit_v3, (void *)&wrap_frame_submit);

    ozk_counter *counter = __ozk_counter_create("swapped", "handover");
    __ozk_counter_inc_delta(counter, 5);
    __ozk_counter_dec(counter);
    EXPECT_EQ(g_seen.calls, 1);
    EXPECT_EQ(g_seen.object, counter);
    EXPECT_EQ(ozk_counter_value_u64(counter), 4u) << "the original still ran";

    ozk_id task = {{0x1111222233334444ull, 0x5555666677778888ull, 0x99990000aaaabbbbull}};
    ozk_id parent = {{1, 2, 3}};
    ozk_string_handle *name = __ozk_string_handle_create("overlapped");
    __ozk_task_begin_overlapped(__ozk_domain_create("handover"), task, parent, name);
    EXPECT_EQ(g_seen.calls, 2);
    EXPECT_TRUE(same_id(g_seen.taskid, task));
    EXPECT_TRUE(same_id(g_seen.parentid, parent));
    EXPECT_EQ(g_seen.object, name);

    ozk_domain *domain = __ozk_domain_create("frames");
    __ozk_frame_submit_v3(domain, task, 0x0102030405060708ull, 0x1112131415161718ull);
    EXPECT_EQ(g_seen.calls, 3);
    EXPECT_EQ(g_seen.object, domain);
    EXPECT_EQ(g_seen.begin, 0x0102030405060708ull);
    EXPECT_EQ(g_seen.end, 0x1112131415161718ull);

    // Put the library's own bodies back: the rows work as before.
    swap_slot(ozk_slot___ozk_counter_dec, g_original_dec);
    swap_slot(ozk_slot___ozk_task_begin_overlapped, g_original_overlapped);
    swap_slot(ozk_slot___ozk_frame_submit_v3, g_original_submit);
    __ozk_counter_dec(counter);
    EXPECT_EQ(g_seen.calls, 3);
    EXPECT_EQ(ozk_counter_value_u64(counter), 3u);
}

TEST(OzkHandover, CppHelpersPairTheirCalls)
{
    ozk_domain *domain = __ozk_domain_create("raii");
    ozk_string_handle *name = __ozk_string_handle_create("scope");
    ozk_frame *frame = __ozk_frame_create("raii frame");
    int object = 0;
    {
        ozk::ScopedFrame f(frame);
        ozk::ScopedTask outer(domain, name);
        ozk::ScopedTask inner(domain, name, ozk_make_id(1, 2));
        ozk::ScopedSyncWait wait(&object);
    }
    SUCCEED();
}

} // namespace
