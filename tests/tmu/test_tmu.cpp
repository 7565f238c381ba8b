#include "tmu_test_util.hpp"

#include "vorx_compressor.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <thread>

using vorx::report::ld16;
using vorx::report::ld32;

namespace {

constexpr std::uint64_t kThreeMiBOfRecords = (3u << 20) / TF_CPU_SAMPLE_SIZE;

class Units : public ::testing::Test {
protected:
  void SetUp() override { creator_ = vorx_tmu_creator_alloc(0); }
  void TearDown() override { vorx_tmu_creator_set_compression_level(creator_, 0); }
  vorx_tmu_creator_t *creator_ = nullptr;
  ScratchDir dir_;
};

} // namespace

TEST_F(Units, AStreamWithoutRecordsMakesNoBytes)
{
  std::string path = dir_.file("empty.trace");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_process, path.c_str());
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->spill(u), 1);
  creator_->free_unit(creator_, u);
  struct stat st;
  EXPECT_TRUE(stat(path.c_str(), &st) != 0 || st.st_size == 0);
}

TEST_F(Units, OneBufferSpillsInOrderPastItsBuffer)
{
  std::string path = dir_.file("one.th");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_thread, path.c_str());
  ASSERT_NE(u, nullptr);
  ASSERT_EQ(u->pool.buf_num, 1u);
  for (std::uint64_t i = 0; i < kThreeMiBOfRecords; i++) ASSERT_EQ(put_sample(u, 1, i), 1);
  EXPECT_GE(u->pool.buffs[0].spills, 2u);
  creator_->free_unit(creator_, u);
  std::vector<std::uint8_t> bytes = read_bytes(path);
  ASSERT_GE(bytes.size(), 8u);
  EXPECT_EQ(ld32(bytes.data()), TF_MAGIC_DESC);
  Collected c = read_trace(path);
  EXPECT_TRUE(c.problems.empty());
  EXPECT_EQ(c.magics, 1u);
  expect_sequence(c, 1, 0, kThreeMiBOfRecords);
}

TEST_F(Units, TwoBuffersSwitchAndKeepEachWritersOrder)
{
  std::string path = dir_.file("two.trace");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_process, path.c_str());
  ASSERT_NE(u, nullptr);
  ASSERT_EQ(u->pool.buf_num, 2u);
  auto writer = [u](std::uint32_t tid) {
    for (std::uint64_t i = 0; i < kThreeMiBOfRecords; i++) put_sample(u, tid, i);
  };
  std::thread a(writer, 1), b(writer, 2);
  a.join();
  b.join();
  EXPECT_GE(u->switches, 5u);
  creator_->free_unit(creator_, u);
  Collected c = read_trace(path);
  EXPECT_TRUE(c.problems.empty());
  expect_sequence(c, 1, 0, kThreeMiBOfRecords);
  expect_sequence(c, 2, 0, kThreeMiBOfRecords);
}

// Records built in place (through the inline open, whose common case writes into the active buffer and
// which hands the rest to the unit) take their turn with copied ones, through spills; a record too big to be
// written under the buffer lock is reserved and confirmed instead; a detached unit gives no room and drops
// nothing that was written before.
TEST_F(Units, RecordsBuiltInPlaceKeepTheirPlaceAcrossSpills)
{
  std::string path = dir_.file("inplace.th");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_thread, path.c_str());
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->direct_open, 1) << "a working unit writes small records inline";
  std::uint64_t reserved = 0; // records that found the buffer full: written outside the lock
  for (std::uint64_t i = 0; i < kThreeMiBOfRecords; i++) {
    if (i % 2) {
      ASSERT_EQ(put_sample(u, 1, i), 1);
      continue;
    }
    vorx_tmu_lease_t lease;
    void *dest = vorx_tmu_open_record(u, TF_CPU_SAMPLE_SIZE, &lease);
    ASSERT_NE(dest, nullptr);
    reserved += lease.held_lock == nullptr;
    tf_cpu_sample_put(static_cast<std::uint8_t *>(dest), 1, 0, i, 1000, 7);
    ASSERT_EQ(vorx_tmu_close_record(u, &lease), 1);
  }
  EXPECT_GE(u->pool.buffs[0].spills, 2u);
  // The buffer doubles from its first size to its share, each time for a record that met it full.
  unsigned growths = 0;
  for (std::uint32_t size = VORX_TMU_FIRST_BUFFER_SIZE; size < VORX_TMU_BUFFER_SIZE; size *= 2) growths++;
  EXPECT_LE(reserved, u->pool.buffs[0].spills + growths) << "small records are written under the lock";

  std::vector<std::uint8_t> body(4000, 0xCD);
  std::uint8_t head[32];
  std::uint32_t n = tf_cpuinfo_put_head(head, 1, 0, std::uint32_t(body.size()));
  vorx_tmu_lease_t lease;
  auto *dest = static_cast<std::uint8_t *>(vorx_tmu_open_record(u, n + std::uint32_t(body.size()), &lease));
  ASSERT_NE(dest, nullptr);
  EXPECT_EQ(lease.held_lock, nullptr);
  std::memcpy(dest, head, n);
  std::memcpy(dest + n, body.data(), body.size());
  EXPECT_EQ(vorx_tmu_close_record(u, &lease), 1);
  EXPECT_EQ(u->pool.buffs[0].pend_writes_cntr, 0);
  EXPECT_EQ(put_sample(u, 1, kThreeMiBOfRecords), 1);
  EXPECT_EQ(u->spill(u), 1);

  creator_->detach(creator_, u);
  EXPECT_EQ(u->direct_open, 0) << "a detached unit's records go through its operations";
  EXPECT_EQ(vorx_tmu_open_record(u, TF_CPU_SAMPLE_SIZE, &lease), nullptr);
  EXPECT_EQ(vorx_tmu_close_record(u, &lease), 1);
  creator_->discard_unit(creator_, u);
  Collected c = read_trace(path);
  EXPECT_TRUE(c.problems.empty());
  expect_sequence(c, 1, 0, kThreeMiBOfRecords + 1);
}

TEST_F(Units, FileWriterAppendsToWhatIsThere)
{
  std::string path = dir_.file("append.trace");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_process, path.c_str());
  put_sample(u, 1, 0);
  u->spill(u);
  put_sample(u, 1, 1);
  u->spill(u);
  creator_->free_unit(creator_, u);
  Collected c = read_trace(path);
  EXPECT_EQ(c.magics, 1u);
  expect_sequence(c, 1, 0, 2);
}

TEST_F(Units, TooLargeRecordDoublesTheBuffers)
{
  std::string path = dir_.file("large.th");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_thread, path.c_str());
  std::uint64_t before = vorx_tmu_memory_consumption();
  std::vector<std::uint8_t> body((3u << 19) - 16, 0xAB); // 1.5 MiB
  std::uint8_t head[32];
  std::uint32_t n = tf_cpuinfo_put_head(head, 1, 0, std::uint32_t(body.size()));
  ASSERT_EQ(n, 18u);
  EXPECT_EQ(u->put_record(u, head, n, body.data(), std::uint32_t(body.size())), 1);
  EXPECT_EQ(u->pool.buffs[0].share, 2u << 20);
  EXPECT_GE(u->pool.buffs[0].size, n + body.size());
  EXPECT_EQ(vorx_tmu_memory_consumption(), before + (1u << 20));
  creator_->free_unit(creator_, u);
  EXPECT_EQ(vorx_tmu_memory_consumption(), before - (1u << 20));
}

TEST_F(Units, DetachedUnitsSwallowWrites)
{
  std::string path = dir_.file("detached.trace");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_process, path.c_str());
  put_sample(u, 1, 0);
  creator_->detach(creator_, u);
  EXPECT_EQ(put_sample(u, 1, 1), 1);
  EXPECT_EQ(u->spill(u), 1);
  creator_->discard_unit(creator_, u);
  EXPECT_TRUE(read_bytes(path).empty());
}

TEST_F(Units, StateOneMakesUnitsWithoutAFileUntilSetFile)
{
  vorx_tmu_creator_set_state(creator_, 1);
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_process, "/nonexistent/x.trace");
  vorx_tmu_creator_set_state(creator_, 0);
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->writer, nullptr);
  EXPECT_EQ(put_sample(u, 1, 0), 1);
  std::string path = dir_.file("later.trace");
  ASSERT_EQ(u->set_file(u, path.c_str()), 1);
  put_sample(u, 1, 5);
  creator_->free_unit(creator_, u);
  expect_sequence(read_trace(path), 1, 5, 1);
}

TEST_F(Units, RefusedTypesAndDescriptors)
{
  EXPECT_EQ(creator_->alloc(creator_, vorx_tmu_per_thread_no_blocking, "x"), nullptr);
  EXPECT_EQ(creator_->alloc(creator_, 9, "x"), nullptr);
  EXPECT_EQ(creator_->alloc_fd(creator_, vorx_tmu_per_thread, 1), nullptr);
  EXPECT_EQ(creator_->alloc_comm(creator_, vorx_tmu_per_thread, "x", 1), nullptr);
  EXPECT_DEATH(creator_->alloc_fd(creator_, vorx_tmu_per_process, -1), "vorx_file_desc_t");
}

// ---------------------------------------------------------------- compression

TEST_F(Units, CompressedBlocksInflateToTheSameRecords)
{
  vorx_tmu_creator_set_expected_compressors(creator_, 2);
  vorx_tmu_creator_set_compression_level(creator_, 1);
  std::string zpath = dir_.file("z.trace"), ppath = dir_.file("plain.trace");
  vorx_tmu_t *z = creator_->alloc(creator_, vorx_tmu_per_process, zpath.c_str());
  vorx_tmu_t *p = creator_->alloc(creator_, vorx_tmu_per_process, ppath.c_str());
  vorx_tmu_disable_compression(p);
  for (std::uint64_t i = 0; i < kThreeMiBOfRecords; i++) {
    put_sample(z, 3, i);
    put_sample(p, 3, i);
  }
  creator_->free_unit(creator_, z);
  creator_->free_unit(creator_, p);

  std::vector<std::uint8_t> zb = read_bytes(zpath), pb = read_bytes(ppath);
  ASSERT_GT(zb.size(), 18u);
  EXPECT_EQ(ld32(&zb[0]), TF_MAGIC_DESC); // the magic record is never compressed
  EXPECT_EQ(ld32(&zb[8]), TF_COMPRESSED_DESC);
  EXPECT_EQ(ld16(&zb[16]), 50u);
  EXPECT_LT(zb.size(), pb.size() / 4);
  EXPECT_EQ(ld32(&pb[8]), TF_CPU_SAMPLE_DESC);
  Collected zc = read_trace(zpath), pc = read_trace(ppath);
  EXPECT_TRUE(zc.problems.empty());
  EXPECT_EQ(zc.samples, pc.samples);
  EXPECT_EQ(zc.blocks_seen, zc.samples.size());
  expect_sequence(zc, 3, 0, kThreeMiBOfRecords);
}

TEST(Compressor, ABufferDeflatedAndInflatedIsTheSame)
{
  std::vector<std::uint8_t> in(1u << 20);
  for (std::size_t i = 0; i < in.size(); i++) in[i] = std::uint8_t((i * 31) ^ (i >> 9));
  xl_compressor_t *c = nullptr, *d = nullptr;
  ASSERT_EQ(xl_alloc_compressor(&c, XL_COMPRESSOR_ZLIB, std::uint32_t(in.size()), 6), 0);
  EXPECT_EQ(c->output_size, in.size() + (in.size() + 9) / 10 + 1024);
  ASSERT_EQ(xl_alloc_decompressor(&d, XL_COMPRESSOR_ZLIB, std::uint32_t(in.size())), 0);
  for (int round = 0; round < 2; round++) { // each buffer is a stream of its own
    ASSERT_EQ(c->set_buffer(c, in.data(), std::uint32_t(in.size())), 0);
    void *out = nullptr;
    std::uint32_t len = 0;
    ASSERT_EQ(c->process(c, &out, &len), 0);
    EXPECT_EQ(out, c->output);
    ASSERT_EQ(d->set_buffer(d, out, len), 0);
    void *back = nullptr;
    std::uint32_t back_len = 0;
    ASSERT_EQ(d->process(d, &back, &back_len), 0);
    ASSERT_EQ(back_len, in.size());
    EXPECT_EQ(std::memcmp(back, in.data(), in.size()), 0);
  }
  // An output area given by the caller that is too small: -2 and the partial length.
  std::uint8_t tiny[16];
  void *out = tiny;
  std::uint32_t len = sizeof tiny;
  c->set_buffer(c, in.data(), std::uint32_t(in.size()));
  EXPECT_EQ(c->process(c, &out, &len), -2);
  EXPECT_EQ(len, sizeof tiny);
  c->destroy(c);
  d->destroy(d);
}

TEST(Compressor, LevelsAndArguments)
{
  xl_compressor_t *c = nullptr;
  ASSERT_EQ(xl_alloc_compressor(&c, XL_COMPRESSOR_ZLIB, 1024, -1), 0);
  EXPECT_EQ(c->level, 2);
  EXPECT_EQ(c->type(c), 1);
  c->destroy(c);
  EXPECT_EQ(xl_alloc_compressor(&c, XL_COMPRESSOR_ZLIB, 1024, 10), -1);
  EXPECT_EQ(xl_alloc_compressor(&c, 2, 1024, 1), -1);
  EXPECT_EQ(xl_alloc_compressor(nullptr, XL_COMPRESSOR_ZLIB, 1024, 1), -1);
  EXPECT_EQ(vorx_alloc_compressor_pool(0, 1u << 20, 2), nullptr);

  vorx_pool *pool = vorx_alloc_compressor_pool(10, 1u << 20, 2); // items hold null compressors
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(pool->count, 2u);
  vorx_pool_item *item = nullptr;
  pool->vtbl->get(pool, &item);
  EXPECT_EQ(reinterpret_cast<vorx_compressor_item_t *>(item)->compressor, nullptr);
  pool->vtbl->put(pool, item);
  vorx_free_compressor_pool(pool);

  pool = vorx_alloc_compressor_pool(1, 1u << 20, 1);
  pool->vtbl->get(pool, &item);
  xl_compressor_t *pc = reinterpret_cast<vorx_compressor_item_t *>(item)->compressor;
  EXPECT_EQ(pc->input_capacity, 1157530u);
  EXPECT_EQ(pc->output_size, 1274307u);
  pool->vtbl->put(pool, item);
  vorx_free_compressor_pool(pool);
}

// ---------------------------------------------------------------- ring mode

TEST_F(Units, RingKeepsTheLastSecondsAndSpillsOldestFirst)
{
  std::string path = dir_.file("ring.trace");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_process, path.c_str());
  std::uint64_t before = vorx_tmu_memory_consumption();
  vorx_tmu_set_ring_buffer_duration(u, 1);
  vorx_tmu_set_mode(u, vorx_tmu_mode_ring);
  EXPECT_EQ(u->direct_open, 0) << "a ring stamps its buffers' first records: no inline writes";
  EXPECT_EQ(vorx_tmu_memory_consumption(), before - (2u << 20)); // ring memory is outside the limit
  ASSERT_EQ(u->pool.buf_num, 2u);

  // Within the duration the ring grows: one buffer per fill.
  std::uint64_t seq = 0;
  const std::uint64_t per_buffer = (1u << 20) / TF_CPU_SAMPLE_SIZE;
  for (; seq < 3 * per_buffer + 10; seq++) put_sample(u, 4, seq);
  EXPECT_EQ(u->pool.buf_num, 4u);
  EXPECT_TRUE(read_bytes(path).empty()); // nothing is written until a spill

  // Two seconds later the buffers before the last are beyond the duration: they are reused
  // rather than kept, and the ring only grows again once what it holds is all recent.
  sleep(2);
  for (std::uint64_t end = seq + 4 * per_buffer; seq < end; seq++) put_sample(u, 4, seq);
  EXPECT_EQ(u->pool.buf_num, 5u);
  EXPECT_EQ(u->spill(u), 1);
  creator_->free_unit(creator_, u);

  Collected c = read_trace(path);
  ASSERT_FALSE(c.samples.empty());
  // Oldest first and contiguous up to the last record; the three buffers filled before the
  // pause are gone, the one that was still filling stays whole.
  for (std::size_t i = 1; i < c.samples.size(); i++) ASSERT_EQ(c.samples[i].second, c.samples[i - 1].second + 1);
  EXPECT_EQ(c.samples.front().second, 3 * per_buffer);
  EXPECT_EQ(c.samples.back().second, seq - 1);
}

TEST_F(Units, RingOfTwoWithDurationZeroReusesAfterASecond)
{
  std::string path = dir_.file("ring0.trace");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_process, path.c_str());
  vorx_tmu_set_ring_buffer_duration(u, 0);
  vorx_tmu_set_mode(u, vorx_tmu_mode_ring);
  const std::uint64_t per_buffer = (1u << 20) / TF_CPU_SAMPLE_SIZE;
  std::uint64_t seq = 0;
  for (; seq < per_buffer + 10; seq++) put_sample(u, 5, seq); // fills the first, starts the second
  usleep(1100000);
  // The buffer after next (with two: the active one) is a second old: the first is reused.
  for (; seq < 2 * per_buffer + 10; seq++) put_sample(u, 5, seq);
  EXPECT_EQ(u->pool.buf_num, 2u);
  vorx_tmu_set_mode(u, vorx_tmu_mode_normal); // spills the ring, back to counted buffers
  EXPECT_EQ(u->pool.buf_num, 2u);
  creator_->free_unit(creator_, u);
  Collected c = read_trace(path);
  ASSERT_FALSE(c.samples.empty());
  EXPECT_EQ(c.samples.front().second, per_buffer);
  EXPECT_EQ(c.samples.back().second, seq - 1);
  EXPECT_EQ(c.samples.size(), seq - per_buffer);
}

// ---------------------------------------------------------------- channels

namespace {

struct Received {
  std::mutex lock;
  std::string stream_name;
  std::vector<std::uint8_t> bytes;
  bool done = false;
};

// Reads the whole stream on the loop's thread; the writer closing the channel ends it.
int receive_stream(comm_client *client, const char *name, void *context)
{
  auto *r = static_cast<Received *>(context);
  std::vector<std::uint8_t> all;
  for (;;) {
    sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    void *frame = nullptr;
    vorx_u32_t len = 0;
    if (comm_client_recv(client, &frame, &len, &alloc) != vorx_er_success) break;
    const auto *b = static_cast<const std::uint8_t *>(frame);
    all.insert(all.end(), b, b + len);
    sal_allocator_destroy(&alloc);
  }
  std::lock_guard<std::mutex> g(r->lock);
  r->stream_name = name;
  r->bytes = std::move(all);
  r->done = true;
  return 0;
}

} // namespace

TEST_F(Units, NamedStreamsTravelOverAChannel)
{
  vorx_tmu_comm_reader_t reader;
  vorx_tmu_comm_reader_init(&reader);
  Received got;
  std::string domain = "vorx_tmu_test_" + std::to_string(getpid()) + "_";
  std::thread loop([&] { EXPECT_EQ(vorx_tmu_comm_reader_loop(&reader, receive_stream, &got, domain.c_str(), 7), 1); });
  while (!__atomic_load_n(&reader.running, __ATOMIC_ACQUIRE)) usleep(1000);

  vorx_tmu_t *u = creator_->alloc_remote(creator_, vorx_tmu_per_process, "host-1/1-2.0.trace", domain.c_str(), 7);
  ASSERT_NE(u, nullptr);
  for (std::uint64_t i = 0; i < kThreeMiBOfRecords; i++) put_sample(u, 9, i);
  creator_->free_unit(creator_, u);
  for (int i = 0; i < 500; i++) {
    std::lock_guard<std::mutex> g(got.lock);
    if (got.done) break;
    usleep(10000);
  }
  EXPECT_EQ(vorx_tmu_comm_reader_loop_break(&reader), 1);
  loop.join();
  EXPECT_EQ(vorx_tmu_comm_reader_loop_break(&reader), 0);

  ASSERT_TRUE(got.done);
  EXPECT_EQ(got.stream_name, "host-1/1-2.0.trace");
  // Stored as the reader expects a remote stream: the name and its NUL, then the stream.
  std::string path = dir_.file("remote.trace");
  std::vector<std::uint8_t> file(got.stream_name.begin(), got.stream_name.end());
  file.push_back(0);
  file.insert(file.end(), got.bytes.begin(), got.bytes.end());
  std::FILE *f = std::fopen(path.c_str(), "wb");
  std::fwrite(file.data(), 1, file.size(), f);
  std::fclose(f);
  Collected c = read_trace(path);
  EXPECT_TRUE(c.problems.empty());
  expect_sequence(c, 9, 0, kThreeMiBOfRecords);
}
