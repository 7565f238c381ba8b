// The generated probe table as this build lays it out (with the libc.so fallback for functions that moved
// into libc.so.6), checked against the numbers the catalogue fixes.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "vorx_probe_table.h"

namespace {

const vorx_module_descriptor_t* find_module(const char* name) {
    for (const vorx_module_descriptor_t* m = g_vorx_instrumented_modules; m->name; ++m)
        if (std::strcmp(m->name, name) == 0) return m;
    return nullptr;
}

const vorx_probe_entry_t* find_entry(const vorx_module_descriptor_t* m, unsigned id) {
    for (const vorx_probe_entry_t* e = m->probes; e->name; ++e)
        if (e->id == id) return e;
    return nullptr;
}

unsigned bitmap_count(const vorx_probe_bitmap_t& b) {
    unsigned n = 0;
    for (unsigned id = 0; id < VORX_PROBE_BITMAP_BITS; ++id) n += vorx_probe_bitmap_test(&b, id);
    return n;
}

// mod index of module `name` in the id's row group, or -1
int mod_index_of(unsigned id, const char* name) {
    const vorx_module_descriptor_t* m = find_module(name);
    for (const vorx_module_descriptor_t* d = g_vorx_instrumented_modules; d->name; ++d) {
        const vorx_probe_entry_t* e = find_entry(d, id);
        if (!e) continue;
        for (unsigned k = 0; k < e->modules; ++k)
            if (vorx_probe_row(id, e->versions, k, 0)->module == m) return int(k);
    }
    return -1;
}

}  // namespace

TEST(ProbeIds, DenseWithTheCatalogueAnchors) {
    EXPECT_EQ(vorx_pi_eof, 560);
    EXPECT_EQ(VORX_CALLBACK_ENTRIES, 2240);
    EXPECT_EQ(VORX_CALLBACK_INDEX(559, 1, vorx_or_post), 2239u);
    EXPECT_EQ(vorx_pi_epoll_pwait, 128);
    EXPECT_EQ(vorx_pi___ozk_sync_cancel, 110);
    EXPECT_EQ(vorx_pi___ozk_pause, 102);
    EXPECT_EQ(vorx_pi___ozk_model_duration_range, 194);
    EXPECT_EQ(vorx_pi___internal_mpi_rank, 367);
    EXPECT_EQ(vorx_pi___internal_parallel_fs_counters, 555);
    EXPECT_EQ(vorx_pi___internal_loop_to_memory_allocations, 559);
    EXPECT_STREQ(g_vorx_probe_names[vorx_pi_runtime_exit], "runtime.exit");
}

TEST(ProbeTable, RowGroupsAndFixedFields) {
    EXPECT_EQ(VORX_PT_ID_ENTRIES, 562);
    EXPECT_EQ(g_vorx_pt_id[0], 0u);
    EXPECT_EQ(g_vorx_pt_id[561], unsigned(VORX_PROBE_ROWS));
    EXPECT_EQ(vorx_group_rows(vorx_pi_eof), 1u);
    const std::set<unsigned> sizes{1, 2, 4, 7, 10, 13};
    std::vector<unsigned> head_only;
    for (unsigned id = 0; id < vorx_pi_eof; ++id) {
        unsigned n = vorx_group_rows(id);
        EXPECT_TRUE(sizes.count(n)) << "id " << id << " has " << n << " rows";
        if (n == 1) head_only.push_back(id);
        const vorx_probe_t* head = vorx_head_row(id);
        EXPECT_EQ(head->probe, nullptr) << id;
        EXPECT_EQ(head->module, nullptr) << id;
    }
    EXPECT_EQ(head_only, (std::vector<unsigned>{367, 555}));
    for (unsigned r = 0; r < unsigned(VORX_PROBE_ROWS); ++r) {
        const vorx_probe_t& row = g_vorx_probes_table[r];
        EXPECT_EQ(row.reserved, 0u);
        EXPECT_EQ(row.stack_adjust, 2u);
        EXPECT_EQ(row.original, nullptr);
        EXPECT_EQ(row.is_dynamic, 1);
        EXPECT_EQ(row.reserved_id, r + 1 == unsigned(VORX_PROBE_ROWS) ? 561u : 560u) << r;
    }
}

TEST(ProbeTable, ArgumentSizesAtEachParametersOwnSize) {
    EXPECT_EQ(vorx_head_row(vorx_pi_sleep)->args_size, 4u);
    EXPECT_EQ(vorx_head_row(vorx_pi_socket)->args_size, 12u);
    EXPECT_EQ(vorx_head_row(vorx_pi_open)->args_size, 10u);
    EXPECT_EQ(vorx_head_row(vorx_pi_pmap_set)->args_size, 14u);
    EXPECT_EQ(vorx_head_row(vorx_pi_getchar)->args_size, 0u);
    EXPECT_EQ(vorx_head_row(vorx_pi_syscall)->args_size, 32u);  // all eight words
    // every row of a group carries the id's size
    for (unsigned r = g_vorx_pt_id[vorx_pi_open]; r < g_vorx_pt_id[vorx_pi_open + 1]; ++r)
        EXPECT_EQ(g_vorx_probes_table[r].args_size, 10u);
}

TEST(ProbeTable, OnlyErrnoAndSetenvWorkBeforeAnyModuleIsProbed) {
    for (unsigned r = 0; r < unsigned(VORX_PROBE_ROWS); ++r) {
        bool own_import = &g_vorx_probes_table[r] == vorx_head_row(vorx_pi___errno_location) ||
                          &g_vorx_probes_table[r] == vorx_head_row(vorx_pi_setenv);
        EXPECT_EQ(g_vorx_probes_table[r].trampoline != nullptr, own_import) << r;
    }
    using errno_fn = int* (*)();
    EXPECT_NE(reinterpret_cast<errno_fn>(vorx_head_row(vorx_pi___errno_location)->trampoline)(), nullptr);
}

TEST(ModuleDescriptors, OrderAndListsOfThisBuild) {
    const char* const order[] = {"exe", "libc.so", "libpthread.so", "libncurses.so", "libdl.so", "libozknotify.so",
        "libozknotify_collector.so", "unknown.unk", "ld-linux", "librt.so", "libaio.so", "libjemalloc.so",
        "libmeskixe_vorxgluf_javaprof_D_1.0.so", "libmeskixe_vorxgluf_javaprof_1.0.so", "unknown1.unk",
        "unknown2.unk", "libOpenCL.so", "libmemkind.so", "libGLESv2.so", "libGLESv1.so", "libGLESv1_CM.so",
        "libGLESv3.so", "libEGL.so", "libzedacl.so", "libpmemobj.so"};
    // libc.so: its 111 catalogued functions and the 63 wrapped ones of libpthread.so, libdl.so and librt.so
    const unsigned counts[] = {202, 174, 78, 3, 3, 50, 27, 19, 0, 11, 5, 12, 2, 2, 1, 1, 0, 11, 31, 23, 23, 31, 9, 0, 18};
    unsigned k = 0;
    for (const vorx_module_descriptor_t* m = g_vorx_instrumented_modules; m->name; ++m, ++k) {
        ASSERT_LT(k, 25u);
        EXPECT_STREQ(m->name, order[k]);
        EXPECT_EQ(m->reserved, 0u);
        unsigned n = 0;
        for (const vorx_probe_entry_t* e = m->probes; e->name; ++e) ++n;
        EXPECT_EQ(n, counts[k]) << m->name;
    }
    EXPECT_EQ(k, 25u);
}

TEST(ModuleDescriptors, MovedLibrariesAlsoSearchLibc) {
    // libc.so holds its 111 catalogued functions plus every wrapped function of libpthread.so, libdl.so and
    // librt.so that did not name libc.so already: on glibc 2.34+ that is where the code lives.
    const vorx_module_descriptor_t* libc = find_module("libc.so");
    ASSERT_NE(libc, nullptr);
    for (const char* moved : {"libpthread.so", "libdl.so", "librt.so"}) {
        const vorx_module_descriptor_t* m = find_module(moved);
        for (const vorx_probe_entry_t* e = m->probes; e->name; ++e) {
            const vorx_probe_entry_t* in_libc = find_entry(libc, e->id);
            ASSERT_NE(in_libc, nullptr) << e->name << " from " << moved;
            EXPECT_EQ(in_libc->modules, e->modules);
            int mod = mod_index_of(e->id, "libc.so");
            ASSERT_GE(mod, 0) << e->name;
        }
    }
    // the catalogued modules keep their indexes; an added libc.so comes last
    EXPECT_EQ(mod_index_of(vorx_pi_pthread_mutex_lock, "exe"), 0);
    EXPECT_EQ(mod_index_of(vorx_pi_pthread_mutex_lock, "libpthread.so"), 1);
    EXPECT_EQ(mod_index_of(vorx_pi_pthread_mutex_lock, "libc.so"), 2);
    EXPECT_EQ(mod_index_of(vorx_pi_nanosleep, "libc.so"), 0);  // the odd one: libc.so first
    EXPECT_EQ(mod_index_of(vorx_pi_dlopen, "libc.so"), 2);
    EXPECT_EQ(mod_index_of(vorx_pi_mq_open, "libc.so"), 2);
    EXPECT_EQ(vorx_group_rows(vorx_pi_pthread_mutex_lock), 10u);
    EXPECT_EQ(vorx_group_rows(vorx_pi_read), 10u);  // exe + libc.so + libpthread.so already
}

TEST(ModuleDescriptors, EntriesDescribeTheirRows) {
    for (const vorx_module_descriptor_t* m = g_vorx_instrumented_modules; m->name; ++m)
        for (const vorx_probe_entry_t* e = m->probes; e->name; ++e) {
            ASSERT_LT(e->id, unsigned(vorx_pi_eof));
            EXPECT_STREQ(e->name, g_vorx_probe_names[e->id]);
            EXPECT_EQ(vorx_group_rows(e->id), 1 + e->versions * e->modules) << e->name;
        }
    const vorx_module_descriptor_t* unk = find_module("unknown.unk");
    const vorx_probe_entry_t* start = find_entry(unk, vorx_pi_thread_start_routine_wrapper);
    ASSERT_NE(start, nullptr);
    EXPECT_EQ(start->versions, 1u);
    EXPECT_EQ(vorx_group_rows(vorx_pi_thread_start_routine_wrapper), 2u);
    EXPECT_EQ(vorx_probe_row(vorx_pi_thread_start_routine_wrapper, 1, 0, 0)->probe, nullptr);
    // foreign stubs are listed under "exe" but their rows name no module, so nothing probes them
    const vorx_probe_entry_t* rt = find_entry(find_module("exe"), vorx_pi_runtime_exit);
    ASSERT_NE(rt, nullptr);
    for (unsigned v = 0; v < rt->versions; ++v) EXPECT_EQ(vorx_probe_row(vorx_pi_runtime_exit, 3, 0, v)->module, nullptr);
    EXPECT_EQ(mod_index_of(vorx_pi_futex, "unknown1.unk"), 0);
    EXPECT_EQ(mod_index_of(vorx_pi_futex, "unknown2.unk"), 1);
}

TEST(Bitmaps, CollectionSizes) {
    // frames and tasks: their own calls and the twelve counter calls
    const unsigned sizes[VORX_COLLECTION_EOF] = {76, 118, 122, 154, 88, 91, 75, 201, 68, 68, 68, 68, 122, 72, 108};
    for (unsigned i = 0; i < VORX_COLLECTION_EOF; ++i)
        EXPECT_EQ(bitmap_count(*vorx_collection_to_probe_bitmap(i)), sizes[i]) << i;
    EXPECT_EQ(bitmap_count(go_active_probe), 68u);
    EXPECT_EQ(bitmap_count(employed_probe), 21u);
    EXPECT_EQ(bitmap_count(stack_stitching_active_probe), 4u);
    EXPECT_EQ(bitmap_count(online_sw_active_probe), 0u);
    EXPECT_EQ(vorx_collection_to_probe_bitmap(15), nullptr);
    EXPECT_EQ(vorx_collection_to_callback_bitmap(15), nullptr);
    // every collection carries the common set
    for (unsigned i = 0; i < VORX_COLLECTION_EOF; ++i)
        for (unsigned id : {vorx_pi_sleep, vorx_pi_exit, vorx_pi_runtime_sigaltstack, vorx_pi_user_mark_global})
            EXPECT_TRUE(vorx_probe_bitmap_test(vorx_collection_to_probe_bitmap(i), id));
    // the 133 OpenCL entry points have rows but no wrapper
    unsigned opencl_only = 0;
    for (unsigned id = 0; id < vorx_pi_eof; ++id)
        if (vorx_probe_bitmap_test(&opencl_active_probe, id) && !vorx_probe_bitmap_test(&cpu_active_probe, id)) {
            ++opencl_only;
            EXPECT_EQ(vorx_probe_row(id, 3, 0, 0)->probe, nullptr);
        }
    EXPECT_EQ(opencl_only, 133u);
}

TEST(Bitmaps, WaitingCallbacksLeaveOutNonBlockingReleases) {
    EXPECT_TRUE(vorx_probe_bitmap_test(&waiting_active_probe, vorx_pi_pthread_mutex_unlock));
    EXPECT_FALSE(vorx_probe_bitmap_test(&waiting_active_callback, vorx_pi_pthread_mutex_unlock));
    EXPECT_FALSE(vorx_probe_bitmap_test(&waiting_active_callback, vorx_pi_sem_post));
    EXPECT_TRUE(vorx_probe_bitmap_test(&threading_active_callback, vorx_pi_pthread_mutex_unlock));
    EXPECT_TRUE(vorx_probe_bitmap_test(&waiting_active_callback, vorx_pi_pthread_mutex_lock));
    EXPECT_FALSE(vorx_probe_bitmap_test(&io_active_callback, vorx_pi_pthread_mutex_lock));
}

TEST(Collections, NamesAndNumbers) {
    EXPECT_EQ(std::wstring(vorx_collection_to_wstring(3)), L"waiting");
    EXPECT_EQ(std::wstring(vorx_collection_to_wstring(15)), L"<unknown collection>");
    EXPECT_EQ(vorx_wstring_to_collection(L"opengles"), 14u);
    EXPECT_EQ(vorx_wstring_to_collection(L"frame"), 4u);
    EXPECT_EQ(vorx_wstring_to_collection(L"openg"), 15u);
    EXPECT_EQ(vorx_wstring_to_collection(L"cpux"), 15u);
    EXPECT_EQ(vorx_wstring_to_collection(nullptr), 15u);
}
