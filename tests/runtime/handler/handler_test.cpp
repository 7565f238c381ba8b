// The event callbacks write the records that the reader decodes back: thread, times, function id and
// the values of the call; the directory keeps only the callbacks of the chosen collections; the user
// waits left open are closed as cancelled; the heap table decides which releases are reported.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/select.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "event_filtering.h"
#include "event_records.h"
#include "handles_db.h"
#include "runtime_entries.h"
#include "handler_fixture.hpp"
#include "vorx_config.h"
#include "vorx_htable.h"
#include "vorx_timesource.h"
#include "vorx_tmu.h"

// The generated callbacks under test (C linkage, declared by the generator's output only).
extern "C" {
void vorx_tp_pthread_mutex_lock_post_cbk(void*, vorx_probe_data_t*);
void vorx_tp_malloc_post_cbk(void*, vorx_probe_data_t*);
void vorx_tp_read_post_cbk(void*, vorx_probe_data_t*);
void vorx_tp_open_post_cbk(void*, vorx_probe_data_t*);
void vorx_tp_getchar_post_cbk(void*, vorx_probe_data_t*);
void vorx_tp_select_post_cbk(void*, vorx_probe_data_t*);
void vorx_tp_poll_post_cbk(void*, vorx_probe_data_t*);
void vorx_tp_calloc_post_cbk(void*, vorx_probe_data_t*);
void vorx_tp___ozk_task_begin_pre_cbk(void*, vorx_probe_data_t*);
void vorx_tp___ozk_domain_create_post_cbk(void*, vorx_probe_data_t*);
void vorx_tp___ozk_event_create_post_cbk(void*, vorx_probe_data_t*);
void vorx_run_directory_callbacks(uint32_t index, void* wsp, vorx_probe_data_t* data);
}

namespace {

TEST_F(HandlerTest, LockRecordCarriesThreadTimesObjectAndResult) {
  int mutex_stand_in = 0;
  data_.locals.last_probe_id = vorx_pi_pthread_mutex_lock;
  data_.params.u_pthread_mutex_lock.__mutex = &mutex_stand_in;
  data_.params.u_pthread_mutex_lock.__result = 0;
  vorx_tp_pthread_mutex_lock_post_cbk(&wsp_, &data_);

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 1u);
  const ApiRecord& r = aux.api[0];
  EXPECT_EQ(r.name, "apiwrap_v1");
  EXPECT_EQ(r.tid, 4242u);
  EXPECT_EQ(r.function_id, uint32_t(vorx_pi_pthread_mutex_lock));
  EXPECT_EQ(r.begin, 1000u);
  EXPECT_EQ(r.end, 251000u);
  EXPECT_EQ(r.version, 1);
  ASSERT_EQ(r.args.size(), 8u);
  EXPECT_EQ(word_at(r.args, 0), uint32_t(uintptr_t(&mutex_stand_in)));
  EXPECT_EQ(word_at(r.args, 1), 0u);
  EXPECT_TRUE(read("master").api.empty());
}

TEST_F(HandlerTest, RecordsGoToTheUnitTheCallNames) {
  data_.locals.to_aux_tmu = 0;
  data_.locals.last_probe_id = vorx_pi_malloc;
  data_.params.u_malloc.__size = 4096;
  data_.params.u_malloc.__result = reinterpret_cast<void*>(0x1000);
  vorx_tp_malloc_post_cbk(&wsp_, &data_);
  Collector master = read("master");
  ASSERT_EQ(master.api.size(), 1u);
  ASSERT_EQ(master.api[0].args.size(), 8u);
  EXPECT_EQ(word_at(master.api[0].args, 0), 4096u);
  EXPECT_EQ(word_at(master.api[0].args, 1), 0x1000u);
  EXPECT_TRUE(read("aux").api.empty());
}

TEST_F(HandlerTest, ReadRecordsDescriptorAndByteCountAndPathsTheirText) {
  data_.params.u_read.__fd = 7;
  data_.params.u_read.__result = 512;
  vorx_tp_read_post_cbk(&wsp_, &data_);
  std::string long_path(9000, 'p');
  data_.params.u_open.__file = const_cast<char*>(long_path.c_str());
  data_.params.u_open.__result = 3;
  vorx_tp_open_post_cbk(&wsp_, &data_);
  data_.params.u_open.__file = nullptr;
  vorx_tp_open_post_cbk(&wsp_, &data_);
  data_.params.u_getchar.__result = 'x';
  vorx_tp_getchar_post_cbk(&wsp_, &data_);

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 4u);
  EXPECT_EQ(word_at(aux.api[0].args, 0), 7u);
  EXPECT_EQ(word_at(aux.api[0].args, 1), 512u);
  // u16 length, 8191 characters and the NUL, then the descriptor
  const auto& open_args = aux.api[1].args;
  ASSERT_EQ(open_args.size(), 2u + 8192u + 4u);
  EXPECT_EQ(open_args[0] | open_args[1] << 8, 8192);
  EXPECT_EQ(open_args[2 + 8191], 0);
  EXPECT_EQ(aux.api[2].args.size(), 2u + 1u + 4u);  // a null path is one NUL
  EXPECT_EQ(aux.api[3].version, -1);                // no values: no version byte
  EXPECT_TRUE(aux.api[3].args.empty());
}

// An event kind is named by the first namelen bytes of its text, which need not end there; 0 takes it all.
TEST_F(HandlerTest, EventNameIsTheCountedPartOfItsText) {
  char text[] = {'f', 'r', 'a', 'm', 'e', 'X', 'Y'};  // no NUL within the count
  data_.params.u___ozk_event_create.__name = text;
  data_.params.u___ozk_event_create.__namelen = 5;
  data_.params.u___ozk_event_create.__result = 4;
  vorx_tp___ozk_event_create_post_cbk(&wsp_, &data_);
  char whole[] = "whole name";
  data_.params.u___ozk_event_create.__name = whole;
  data_.params.u___ozk_event_create.__namelen = 0;
  vorx_tp___ozk_event_create_post_cbk(&wsp_, &data_);

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 2u);
  ASSERT_EQ(aux.api[0].texts.size(), 1u);
  EXPECT_EQ(aux.api[0].texts[0], "frame");
  ASSERT_EQ(aux.api[1].texts.size(), 1u);
  EXPECT_EQ(aux.api[1].texts[0], "whole name");
  EXPECT_TRUE(aux.problems.empty());
}

// Ready descriptors: select walks the three sets in order (a descriptor in two sets counts twice),
// poll takes those with events; a failed or empty wait has no list.
TEST_F(HandlerTest, SelectAndPollListTheReadyDescriptors) {
  fd_set readable, writable;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  FD_SET(3, &readable);
  FD_SET(9, &readable);
  FD_SET(3, &writable);
  data_.params.u_select.__nfds = 10;
  data_.params.u_select.__readfds = &readable;
  data_.params.u_select.__writefds = &writable;
  data_.params.u_select.__exceptfds = nullptr;
  data_.params.u_select.__result = 3;
  vorx_tp_select_post_cbk(&wsp_, &data_);
  data_.params.u_select.__readfds = data_.params.u_select.__writefds = nullptr;
  data_.params.u_select.__result = 0;
  vorx_tp_select_post_cbk(&wsp_, &data_);
  struct pollfd fds[3] = {{4, POLLIN, 0}, {5, POLLIN, POLLIN}, {6, POLLOUT, POLLHUP}};
  data_.params.u_poll.__fds = fds;
  data_.params.u_poll.__nfds = 3;
  data_.params.u_poll.__result = 2;
  vorx_tp_poll_post_cbk(&wsp_, &data_);

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 3u);
  std::vector<uint32_t> select_words, poll_words;
  for (size_t i = 0; i < aux.api[0].args.size() / 4; ++i) select_words.push_back(word_at(aux.api[0].args, i));
  for (size_t i = 0; i < aux.api[2].args.size() / 4; ++i) poll_words.push_back(word_at(aux.api[2].args, i));
  EXPECT_EQ(select_words, (std::vector<uint32_t>{3, 3, 3, 9, 3}));  // count, result, then 3 9 | 3
  EXPECT_EQ(aux.api[1].args.size(), 8u);                             // count 0, result 0, no list
  EXPECT_EQ(poll_words, (std::vector<uint32_t>{2, 2, 5, 6}));
  free(wsp_.fd_vector.entries);
}

TEST_F(HandlerTest, CallocWhoseSizeOverflowsIsABrokenContract) {
  data_.params.u_calloc.__count = 0x10000;
  data_.params.u_calloc.__size = 0x10001;
  data_.params.u_calloc.__result = reinterpret_cast<void*>(0x1000);
  EXPECT_DEATH(vorx_tp_calloc_post_cbk(&wsp_, &data_), "object_size >= ");
}

TEST_F(HandlerTest, AnnotationPointsAndCreationsAreTypedByTheReader) {
  struct {
    uint32_t tag, id;
  } domain{0, 17}, name{0, 23};
  data_.locals.last_probe_id = vorx_pi___ozk_task_begin;
  data_.params.u___ozk_task_begin.__domain = &domain;
  data_.params.u___ozk_task_begin.__taskid = vorx_ozk_id_t{{0x1111, 0x2222, 0}};
  data_.params.u___ozk_task_begin.__name = &name;
  vorx_tp___ozk_task_begin_pre_cbk(&wsp_, &data_);
  data_.params.u___ozk_domain_create.__name = const_cast<char*>("render");
  data_.params.u___ozk_domain_create.__result = &domain;
  vorx_tp___ozk_domain_create_post_cbk(&wsp_, &data_);

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 2u);
  EXPECT_EQ(aux.api[0].name, "apiwrap_v2");
  EXPECT_EQ(aux.api[0].time, 1000u);
  EXPECT_EQ(aux.api[0].function_id, uint32_t(vorx_pi___ozk_task_begin) | 0x80000000u);
  EXPECT_EQ(aux.api[0].version, 3);
  ASSERT_FALSE(aux.api[0].typed.empty());
  EXPECT_EQ(aux.api[0].typed[0].second, 17u);
  EXPECT_EQ(aux.api[1].name, "apiwrap_v1");
  EXPECT_EQ(aux.api[1].version, 1);
}

TEST_F(HandlerTest, DirectoryKeepsOnlyTheCallbacksOfTheChosenCollections) {
  vorx_u32_t io_only[VORX_CONF_COLLECTION_WORDS] = {};
  unsigned io = vorx_wstring_to_collection(L"io");
  ASSERT_LT(io, unsigned(VORX_COLLECTION_EOF));
  io_only[io / 32] |= 1u << (io % 32);
  ASSERT_EQ(vorx_register_callbacks(&g_vorx_tp_cbks, io_only), 1u);
  EXPECT_TRUE(vorx_directory_has_callbacks(VORX_CALLBACK_INDEX(vorx_pi_read, 1, vorx_or_post)));
  EXPECT_FALSE(vorx_directory_has_callbacks(VORX_CALLBACK_INDEX(vorx_pi_pthread_mutex_lock, 1, vorx_or_post)));

  data_.params.u_pthread_mutex_lock.__mutex = &data_;
  vorx_run_directory_callbacks(VORX_CALLBACK_INDEX(vorx_pi_pthread_mutex_lock, 1, vorx_or_post), &wsp_, &data_);
  vorx_run_directory_callbacks(VORX_CALLBACK_INDEX(vorx_pi_read, 1, vorx_or_post), &wsp_, &data_);
  // paused: a read makes no record, a sync object's name does (with threading)
  vorx_run_directory_callbacks(VORX_CALLBACK_INDEX(vorx_pi_read, 0, vorx_or_post), &wsp_, &data_);
  unsigned threading = vorx_wstring_to_collection(L"threading");
  vorx_u32_t with_threading[VORX_CONF_COLLECTION_WORDS] = {};
  with_threading[threading / 32] |= 1u << (threading % 32);
  vorx_unlink_callback_tables();
  EXPECT_FALSE(vorx_directory_has_callbacks(VORX_CALLBACK_INDEX(vorx_pi_read, 1, vorx_or_post)));
  ASSERT_EQ(vorx_register_callbacks(&g_vorx_tp_cbks, with_threading), 1u);
  EXPECT_TRUE(vorx_directory_has_callbacks(VORX_CALLBACK_INDEX(vorx_pi_pthread_mutex_lock, 1, vorx_or_post)));
  data_.params.u___ozk_sync_create.__objtype = const_cast<char*>("lock");
  data_.params.u___ozk_sync_create.__objname = const_cast<char*>("queue");
  vorx_run_directory_callbacks(VORX_CALLBACK_INDEX(vorx_pi___ozk_sync_create, 0, vorx_or_post), &wsp_, &data_);

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 2u);
  EXPECT_EQ(aux.api[0].function_id, uint32_t(vorx_pi_read));
  EXPECT_EQ(aux.api[1].function_id, uint32_t(vorx_pi___ozk_sync_create));
}

// Plain records read the call and nothing of the machine: the wrappers skip the context, and leaf calls
// their frame, only where every callback is one. Stacks at the same place make it not plain.
TEST_F(HandlerTest, DirectoryTellsWherePlainRecordsAreAlone) {
  vorx_u32_t all[VORX_CONF_COLLECTION_WORDS];
  memset(all, 0xff, sizeof all);
  ASSERT_EQ(vorx_register_callbacks(&g_vorx_tp_cbks, all), 1u);
  const uint32_t read_post = VORX_CALLBACK_INDEX(vorx_pi_read, 1, vorx_or_post);
  const uint32_t task_pre = VORX_CALLBACK_INDEX(vorx_pi___ozk_task_begin, 1, vorx_or_pre);
  EXPECT_TRUE(vorx_directory_plain_records(read_post));
  EXPECT_TRUE(vorx_directory_plain_records(task_pre));
  EXPECT_FALSE(vorx_directory_has_callbacks(VORX_CALLBACK_INDEX(vorx_pi___ozk_task_begin, 1, vorx_or_post)));
  EXPECT_FALSE(vorx_directory_plain_records(VORX_CALLBACK_INDEX(vorx_pi___ozk_task_begin, 1, vorx_or_post)))
      << "nothing there is not plain records";

  ASSERT_EQ(vorx_register_callbacks(&g_vorx_ss_cbks, all), 1u);
  EXPECT_FALSE(vorx_directory_plain_records(read_post));
  EXPECT_TRUE(vorx_directory_plain_records(task_pre));

  vorx_unlink_callback_tables();
  EXPECT_FALSE(vorx_directory_plain_records(task_pre));
}

TEST_F(HandlerTest, OpenUserWaitsAreClosedAsCancelled) {
  vorx_u32_t all[VORX_CONF_COLLECTION_WORDS];
  memset(all, 0xff, sizeof all);
  vorx_register_callbacks(&g_vorx_tp_cbks, all);
  vorx_filtering_data* fd = filtering();
  fd->user_sync.objects[5] = 0xabc0;
  fd->user_sync.waits[5].locals.enter_time = 77;
  fd->user_sync.nested_calls_count = 1;
  EXPECT_EQ(vorx_flush_incomplete_user_waits(&wsp_), 1u);
  EXPECT_EQ(fd->user_sync.nested_calls_count, 0);
  EXPECT_EQ(fd->user_sync.objects[5], 0u);
  EXPECT_EQ(vorx_flush_incomplete_user_waits(&wsp_), 2u);

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 1u);
  EXPECT_EQ(aux.api[0].function_id, uint32_t(vorx_pi___ozk_sync_cancel));
  EXPECT_EQ(aux.api[0].begin, 77u);
  ASSERT_EQ(aux.api[0].args.size(), 4u);
  EXPECT_EQ(word_at(aux.api[0].args, 0), 0xabc0u);
}

// A spin lock has no blocking call to time: the first nested call inside it starts the wait and
// publishes the lock, so that a releasing thread can find it; naming calls are no such sign.
TEST_F(HandlerTest, NestedCallInsideSpinLockStartsItsWait) {
  int lock = 0;
  vorx_probe_data_t wait;
  memset(&wait, 0, sizeof wait);
  wait.locals.last_probe_id = vorx_pi_pthread_spin_lock;
  wait.params.u_pthread_spin_lock.__lock = &lock;
  wait.locals.enter_time = 5;
  EXPECT_EQ(vorx_is_runtime_in_nested_original(&wait, vorx_pi___ozk_sync_create, filtering()), 0);
  EXPECT_EQ(wait.locals.wait_started, 0);
  EXPECT_EQ(vorx_is_runtime_in_nested_original(&wait, vorx_pi_futex, filtering()), 0);
  EXPECT_EQ(wait.locals.wait_started, 1);
  EXPECT_EQ(wait.locals.contention_started, 1);
  EXPECT_EQ(filtering()->sys_sync.count, 1u);
  EXPECT_EQ(filtering()->sys_sync.objects[0], uint32_t(uintptr_t(&lock)));
  EXPECT_EQ(filtering()->last_wait_start, wait.locals.enter_time);
  uint64_t started = wait.locals.enter_time;
  vorx_is_runtime_in_nested_original(&wait, vorx_pi_futex, filtering());
  EXPECT_EQ(wait.locals.enter_time, started);  // the first sign counts, later ones change nothing

  // a read inside fread: nothing is measured for the read itself
  vorx_probe_data_t fread_wait;
  memset(&fread_wait, 0, sizeof fread_wait);
  fread_wait.locals.last_probe_id = vorx_pi_fread;
  EXPECT_EQ(vorx_is_runtime_in_nested_original(&fread_wait, vorx_pi_read, filtering()), 0);
  EXPECT_EQ(fread_wait.locals.wait_started, 0);
  EXPECT_EQ(vorx_update_parent_probe_params(), 0);
}

// A wait that began paused and ends after the resume is reported in the resumed entry.
TEST_F(HandlerTest, ResumeMovesWaitsInFlightToTheResumedEntry) {
  vorx_probe_data_t wait;
  memset(&wait, 0, sizeof wait);
  wait.locals.state = 0;
  wsp_.incomplete_wait = &wait;
  filtering()->user_sync.objects[3] = 0x77;
  vorx_mark_paused_waits_to_be_stored(&wsp_);
  EXPECT_EQ(wait.locals.state, 1u);
  EXPECT_EQ(filtering()->user_sync.paused[3], 1u);
  EXPECT_EQ(filtering()->user_sync.paused[2], 0u);
  wsp_.incomplete_wait = nullptr;
}

TEST_F(HandlerTest, ContentionCallbackMarksTheWaiterAndSkipsTheReleaser) {
  vorx_ts_desc_t waiter{}, releaser{};
  waiter.l1.data.tid = 10;
  releaser.l1.data.tid = 11;
  vorx_filtering_push_sync(filtering(), reinterpret_cast<void*>(0x5000));
  filtering()->last_wait_start = 99;
  vorx_contention_request req{0x5000, 11, 0, 0};
  vorx_sys_sync_contention_callback(&releaser, &wsp_, &req);
  EXPECT_EQ(req.found, 0u);
  EXPECT_EQ(vorx_sys_sync_contention_callback(&waiter, &wsp_, &req), uint32_t(vorx_thread_manager_op_err_cont));
  EXPECT_EQ(req.found, 1u);
  EXPECT_EQ(req.found_wait_start, 99u);
  EXPECT_TRUE(vorx_filtering_contended(filtering()));
  vorx_filtering_clear_sync(filtering());
  EXPECT_FALSE(vorx_filtering_contended(filtering()));
  vorx_contention_request other{0x6000, 11, 0, 0};
  vorx_sys_sync_contention_callback(&waiter, &wsp_, &other);
  EXPECT_EQ(other.found, 0u);
}

TEST(MemObjTable, ReportsOnlyReleasesOfKnownBlocks) {
  vorx_configuration* conf = vorx_alloc_configuration();
  conf->memory_size_threshold = 1;
  void* table = nullptr;
  ASSERT_EQ(vorx_mem_obj_htable_init(conf, &table), 1u);
  EXPECT_EQ(table, nullptr);  // no table: everything at the size is reported, every free too
  EXPECT_EQ(vorx_mem_obj_htable_insert(nullptr, conf, 16, reinterpret_cast<void*>(0x10)), 1);
  EXPECT_EQ(vorx_mem_obj_htable_delete(nullptr, reinterpret_cast<void*>(0x10)), 1);

  conf->memory_size_threshold = 1024;
  ASSERT_EQ(vorx_mem_obj_htable_init(conf, &table), 1u);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(vorx_mem_obj_htable_insert(table, conf, 512, reinterpret_cast<void*>(0x20)), 0);
  EXPECT_EQ(vorx_mem_obj_htable_insert(table, conf, 0, reinterpret_cast<void*>(0x20)), 0);
  EXPECT_EQ(vorx_mem_obj_htable_insert(table, conf, 2048, nullptr), 0);
  EXPECT_EQ(vorx_mem_obj_htable_insert(table, conf, 2048, reinterpret_cast<void*>(0x30)), 1);
  EXPECT_EQ(vorx_mem_obj_htable_insert(table, conf, 2048, reinterpret_cast<void*>(0x30)), 1);
  EXPECT_EQ(vorx_mem_obj_htable_delete(table, reinterpret_cast<void*>(0x30)), 1);
  EXPECT_EQ(vorx_mem_obj_htable_delete(table, reinterpret_cast<void*>(0x40)), 0);
  EXPECT_EQ(vorx_mem_obj_htable_delete(table, nullptr), 1);
  vorx_mem_obj_htable_fini(table);
  vorx_free_configuration(conf);
}

// Handles map to stable ids: a removed handle's item comes back for a new handle with a new id, an
// unknown handle gets an id when first translated, and handles of one name share its id.
TEST(HandlesDb, StableIdsAcrossReuseTranslationAndNames) {
  vorx_handles_db* db = vorx_alloc_handles_db(nullptr);
  EXPECT_EQ(db->ops->add(db, 5, "/tmp/a"), 1u);
  EXPECT_EQ(db->ops->add(db, 5, "/tmp/b"), 0u);  // known already
  vorx_handle_item* five = db->ops->find(db, 5);
  ASSERT_NE(five, nullptr);
  uint32_t first_id = five->id;
  EXPECT_NE(first_id, 0u);

  EXPECT_EQ(db->ops->add(db, 6, "/tmp/a"), 1u);
  EXPECT_EQ(db->ops->find(db, 6)->id, first_id);
  db->ops->duplicate(db, 5, 9);
  EXPECT_STREQ(db->ops->find(db, 9)->value, "/tmp/a");

  db->ops->remove(db, 5);
  EXPECT_EQ(db->ops->find(db, 5), nullptr);
  EXPECT_EQ(five->handle, 0u);
  // a handle of the same bucket takes the freed item, with a fresh id
  uint32_t same_bucket = 6;
  while (vorx_handles_db_bucket(same_bucket) != vorx_handles_db_bucket(5) || same_bucket == 5) ++same_bucket;
  EXPECT_EQ(db->ops->add(db, same_bucket, nullptr), 1u);
  EXPECT_EQ(db->ops->find(db, same_bucket), five);
  EXPECT_NE(five->id, first_id);

  uint32_t handles[3] = {6, 77, 0}, ids[3] = {};
  db->ops->translate(db, handles, 3, ids, 2);
  EXPECT_EQ(ids[0], first_id);
  ASSERT_NE(db->ops->find(db, 77), nullptr);
  EXPECT_EQ(ids[1], db->ops->find(db, 77)->id);
  EXPECT_EQ(ids[2], 0u);  // beyond the capacity: untouched
  vorx_free_handles_db(db);
}

}  // namespace

