// Records encoded by the collector's encoders and read back by the reader's decoder: both are
// generated from records.tbl by different paths, so a drift in either shows here.
#include "vorx_traceformat.h"

#include "record_decoder.hpp"
#include "tf_records_test_gen.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace vorx::report;

namespace {

std::vector<std::uint8_t> encode(const void *record)
{
  std::uint32_t size = tf_record_size(record);
  std::vector<std::uint8_t> buf(size + 8, 0xCC);
  tf_record_encode(record, buf.data(), size);
  for (std::size_t i = size; i < buf.size(); i++) EXPECT_EQ(buf[i], 0xCC) << "encoder wrote past its size";
  buf.resize(size);
  return buf;
}

Record decode(const std::vector<std::uint8_t> &bytes)
{
  Frame f = frame_record(Bytes(bytes.data(), bytes.size()));
  EXPECT_EQ(f.status, FrameStatus::Ok) << f.error;
  EXPECT_EQ(f.length, bytes.size());
  Record r;
  std::string error;
  EXPECT_TRUE(decode_record(Bytes(bytes.data(), bytes.size()), r, error)) << error;
  return r;
}

void expect_fields(const Record &r, const tf_expect_t &e)
{
  std::vector<const Field *> got;
  for (const Field &f : r.fields)
    if (f.name != "size") got.push_back(&f);
  ASSERT_EQ(got.size(), e.fields.size()) << r.name();
  for (std::size_t i = 0; i < got.size(); i++) {
    const tf_expected_field &x = e.fields[i];
    SCOPED_TRACE(std::string(r.name()) + "." + x.name);
    EXPECT_EQ(got[i]->name, x.name);
    if (x.is_num) {
      EXPECT_EQ(got[i]->num, x.num);
    } else {
      EXPECT_EQ(std::vector<std::uint8_t>(got[i]->bytes.begin(), got[i]->bytes.end()), x.bytes);
    }
  }
}

template <typename T, typename Fill, typename Expect>
void round_trip(Fill fill, Expect expect)
{
  for (int alt : {0, 1})
    for (std::uint32_t seed : {1u, 2u, 3u, 1000u}) {
      SCOPED_TRACE("seed " + std::to_string(seed) + " alt " + std::to_string(alt));
      T rec;
      fill(&rec, seed, alt);
      std::vector<std::uint8_t> bytes = encode(&rec);
      Record r = decode(bytes);
      ASSERT_NE(r.schema, nullptr);
      tf_expect_t e;
      expect(&rec, &e);
      expect_fields(r, e);
      EXPECT_EQ(rec.guard_begin, TF_GUARD);
      EXPECT_EQ(rec.guard_end, TF_GUARD);
    }
}

} // namespace

#define TF_ROUND_TRIP_TEST(name) \
  TEST(RecordRoundTrip, name) { round_trip<tf_record_##name##_t>(tf_gen_fill_##name, tf_gen_expect_##name); }
TF_FOR_EACH_FILLED_RECORD(TF_ROUND_TRIP_TEST)

// ---------------------------------------------------------------- byte layouts

TEST(RecordLayout, MagicIsTheEightBytes)
{
  tf_record_magic_t m;
  tf_record_magic_init(&m);
  EXPECT_EQ(encode(&m), (std::vector<std::uint8_t>{0x00, 0x00, 0x00, 0x08, 0xFA, 0xDE, 0xDE, 0xAD}));
}

TEST(RecordLayout, FixedRecordsHaveTheirSizes)
{
  EXPECT_EQ(TF_MARKER_SIZE, 25u);
  EXPECT_EQ(TF_THREAD_SIZE, 24u);
  EXPECT_EQ(TF_THREAD_WRITER_SIZE, 32u);
  EXPECT_EQ(TF_SWITCHTO_SIZE, 40u);
  EXPECT_EQ(TF_SWITCHFROM_SIZE, 28u);
  EXPECT_EQ(TF_CPU_SAMPLE_SIZE, 40u);
}

TEST(RecordLayout, StringsKeepAtMost8191CharactersAndANul)
{
  std::string long_name(9000, 'x');
  tf_record_process_t p;
  tf_record_process_init(&p);
  p.name = long_name.c_str();
  std::vector<std::uint8_t> b = encode(&p);
  ASSERT_EQ(b.size(), 28u + 8192u);
  EXPECT_EQ(ld16(&b[24]), 8192u + 4u);
  EXPECT_EQ(b.back(), 0);

  p.name = nullptr; // a null string is one NUL with length 1
  b = encode(&p);
  ASSERT_EQ(b.size(), 29u);
  EXPECT_EQ(ld16(&b[24]), 5u);
  EXPECT_EQ(b[28], 0);

  tf_record_module_map_t m;
  tf_record_module_map_init(&m);
  m.name = long_name.c_str();
  b = encode(&m);
  EXPECT_EQ(ld16(&b[33]), 8192u);
}

TEST(RecordLayout, OnlineStackSwitchesToTheLongSizeAt128Bytes)
{
  std::vector<std::uint8_t> packed(128, 0x11);
  tf_record_online_stack_t s;
  tf_record_online_stack_init(&s);
  s.tid = 7;
  s.stack_word = 0xABCD;
  s.packed_data = packed.data();
  s.packed_size = 127;
  std::vector<std::uint8_t> b = encode(&s);
  EXPECT_EQ(ld32(&b[0]), 0x02400002u);
  EXPECT_EQ(ld16(&b[8]), 127u + 8u);
  EXPECT_EQ(ld16(&b[10]), 27u);
  EXPECT_EQ(ld32(&b[12]), 0xABCDu);

  s.packed_size = 128;
  s.trace_type = 1;
  b = encode(&s);
  EXPECT_EQ(ld32(&b[0]), 0x02800002u);
  EXPECT_EQ(ld32(&b[8]), 128u + 10u);
  EXPECT_EQ(ld16(&b[12]), 76u);
  EXPECT_EQ(ld32(&b[14]), 0xABCDu); // everything behind the size two bytes later
}

TEST(RecordLayout, OfflineStackTypeFollowsItsKind)
{
  std::uint8_t packed[4] = {1, 2, 3, 4};
  tf_record_offline_stack_t s;
  tf_record_offline_stack_init(&s);
  s.kind = 2;
  s.packed_data = packed;
  s.packed_size = 4;
  std::vector<std::uint8_t> b = encode(&s);
  EXPECT_EQ(ld16(&b[28]), 4u + 12u);
  EXPECT_EQ(ld16(&b[30]), 15u);
}

TEST(RecordLayout, SwitchFromClassFollowsItsKind)
{
  tf_record_switchfrom_t s;
  tf_record_switchfrom_init(&s);
  s.kind = 1;
  EXPECT_EQ(ld32(&encode(&s)[4]), 16384u);
  s.kind = 2;
  EXPECT_EQ(ld32(&encode(&s)[4]), 0u);
}

TEST(RecordLayoutDeathTest, WrongKindsAndSizesAbort)
{
  tf_record_switchfrom_t s;
  tf_record_switchfrom_init(&s);
  s.kind = 3;
  std::uint8_t buf[64];
  EXPECT_DEATH(tf_record_encode(&s, buf, TF_SWITCHFROM_SIZE), "Assertion");
  s.kind = 1;
  EXPECT_DEATH(tf_record_encode(&s, buf, TF_SWITCHFROM_SIZE + 1), "pos == dest_buf_size");
  tf_record_colcfg_t c; // the length byte of a name of 255 characters no longer holds it
  tf_record_colcfg_init(&c);
  std::string name(255, 'n');
  c.name = name.c_str();
  std::vector<std::uint8_t> big(1024);
  EXPECT_DEATH(tf_record_encode(&c, big.data(), tf_record_size(&c)), "pos == dest_buf_size");
}

// ------------------------------------------------- hand-built and object forms

TEST(HandBuilt, FixedRecordsMatchTheObjects)
{
  std::uint8_t hand[64];
  tf_record_thread_t t;
  tf_record_thread_init(&t);
  t.event_class = TF_EC_BEGIN;
  t.tid = 1234;
  t.timestamp = 0x1122334455667788ull;
  ASSERT_EQ(tf_thread_put(hand, TF_EC_BEGIN, 1234, 0, 0x1122334455667788ull), TF_THREAD_SIZE);
  EXPECT_EQ(encode(&t), std::vector<std::uint8_t>(hand, hand + TF_THREAD_SIZE));

  tf_record_cpu_sample_t c;
  tf_record_cpu_sample_init(&c);
  c.tid = 5;
  c.timestamp = 99;
  c.period = 1000000;
  c.last = 0xDEAD;
  ASSERT_EQ(tf_cpu_sample_put(hand, 5, 0, 99, 1000000, 0xDEAD), TF_CPU_SAMPLE_SIZE);
  EXPECT_EQ(encode(&c), std::vector<std::uint8_t>(hand, hand + TF_CPU_SAMPLE_SIZE));
}

TEST(HandBuilt, ProcessHeadAndNameMatchTheObject)
{
  const char name[] = "app";
  std::uint8_t hand[64];
  std::uint32_t pos = tf_process_put_head(hand, TF_EC_END, 42, 0, 777, sizeof name);
  std::memcpy(hand + pos, name, sizeof name);
  tf_record_process_t p;
  tf_record_process_init(&p);
  p.event_class = TF_EC_END;
  p.tid = 42;
  p.timestamp = 777;
  p.name = name;
  EXPECT_EQ(encode(&p), std::vector<std::uint8_t>(hand, hand + pos + sizeof name));
}

TEST(HandBuilt, ModuleMapFromASizedHeadAndAPayload)
{
  // The writer builds the payload itself and puts the head in front of it.
  const char name[] = "libc.so.6";
  std::uint8_t payload[64];
  std::uint32_t n = 0;
  tf_st32(payload + n, 0x1000);
  tf_st32(payload + n + 4, 0x2000);
  tf_st32(payload + n + 8, 0);
  payload[n + 12] = 0;
  tf_st16(payload + n + 13, sizeof name);
  n += 15;
  std::memcpy(payload + n, name, sizeof name);
  n += sizeof name;
  std::uint8_t head[TF_MODULE_MAP_SIZED_HEAD_SIZE];
  ASSERT_EQ(tf_module_map_put_sized_head(head, 555, n), 20u);
  std::vector<std::uint8_t> hand(head, head + 20);
  hand.insert(hand.end(), payload, payload + n);

  tf_record_module_map_t m;
  tf_record_module_map_init(&m);
  m.timestamp = 555;
  m.start = 0x1000;
  m.end = 0x2000;
  m.name = name;
  EXPECT_EQ(encode(&m), hand);
  std::uint8_t untimed[TF_MODULE_MAP_UNTIMED_SIZED_HEAD_SIZE];
  EXPECT_EQ(tf_module_map_untimed_put_sized_head(untimed, n), 8u);
  EXPECT_EQ(ld16(untimed + 4), n + 4);
}

TEST(HandBuilt, CollectorNameWithoutNul)
{
  // The writer stores "vorx" with length 4 and no NUL: 33 bytes, size 29.
  std::uint8_t hand[64];
  std::uint32_t pos = tf_colcfg_put_head(hand, 2, 9, 11, 0x2000, 5);
  hand[pos++] = 4;
  std::memcpy(hand + pos, "vorx", 4);
  pos += 4;
  ASSERT_EQ(pos, 33u);
  EXPECT_EQ(ld16(hand + 4), 29u);
  std::vector<std::uint8_t> bytes(hand, hand + pos); // the decoded fields point into it
  Record r = decode(bytes);
  ASSERT_NE(r.find("name"), nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(r.find("name")->bytes.data()), r.find("name")->bytes.size()), "vorx");
}

// ---------------------------------------------------------------- API records

TEST(ApiRecords, WithoutArgumentsEndAfterTheFunctionId)
{
  tf_record_apiwrap_v1_t a;
  tf_record_apiwrap_v1_init___ozk_pause(&a);
  a.tid = 10;
  a.aux_id = 0;
  std::vector<std::uint8_t> b = encode(&a);
  ASSERT_EQ(b.size(), 44u);
  EXPECT_EQ(ld32(&b[0]), 0x03000017u);
  EXPECT_EQ(ld32(&b[b.size() - 4]), 102u);
  Record r = decode(b);
  ASSERT_NE(r.api, nullptr);
  EXPECT_STREQ(r.api->name, "__ozk_pause");
  EXPECT_EQ(r.find("version"), nullptr);
}

TEST(ApiRecords, AbsentIdsDropTheirFields)
{
  tf_record_apiwrap_v2_t a;
  std::uint64_t ids[2] = {0x1111, 0x2222};
  tf_record_apiwrap_v2_init___ozk_task_begin(&a, 5, ids, 6);
  a.time = 1234;
  std::vector<std::uint8_t> b = encode(&a);
  EXPECT_EQ(ld32(&b[0]), 0x03000011u);
  Record r = decode(b);
  EXPECT_EQ(r.find("tid"), nullptr);
  EXPECT_EQ(r.find("function_id")->num, 262u | 0x80000000u);
  EXPECT_EQ(r.find("version")->num, 3u);
  EXPECT_EQ(r.find("arg0")->num, 5u);
  EXPECT_EQ(r.find("arg1")->bytes.size(), 16u);
  EXPECT_EQ(r.find("arg2")->num, 6u);
}

TEST(ApiRecords, EveryArgumentKindRoundTrips)
{
  tf_record_apiwrap_v1_t a;
  std::uint32_t cpus[3] = {1, 2, 3};
  std::string id(9000, 'i');
  tf_record_apiwrap_v1_init___internal_docker_mapping(&a, 7, cpus, 3, id.c_str(), 8, nullptr, "dir");
  a.tid = 1;
  a.aux_id = 0;
  a.begin_time = 5;
  a.end_time = 6;
  a.stack_word = 0x77;
  std::vector<std::uint8_t> b = encode(&a);
  Record r = decode(b);
  ASSERT_NE(r.api, nullptr);
  EXPECT_EQ(r.find("version")->num, 2u);
  EXPECT_EQ(r.find("arg0")->num, 7u);
  EXPECT_EQ(r.find("arg1")->bytes.size(), 12u);
  EXPECT_EQ(r.find("arg2")->bytes.size(), 8191u);
  EXPECT_EQ(r.find("arg3")->num, 8u);
  EXPECT_EQ(r.find("arg4")->bytes.size(), 0u);
  EXPECT_EQ(r.find("arg5")->bytes.size(), 3u);
  EXPECT_EQ(r.find("stack_word")->num, 0x77u);
}

TEST(ApiRecords, HandBuiltWrapperRecordMatchesTheExample)
{
  // epoll_pwait: 0x03000017, 64, tid, 0, end, size 29, type 7, begin, 0, 128, version 1, two u32.
  std::uint8_t hand[64];
  std::uint32_t pos = tf_apiwrap_v1_put_head(hand, 0x03000017u, 99, 0, 200, 100, 0, 128, 9);
  hand[pos++] = 1;
  tf_st32(hand + pos, 3);
  tf_st32(hand + pos + 4, 0);
  pos += 8;
  ASSERT_EQ(pos, 53u);
  EXPECT_EQ(ld16(hand + 24), 29u);
  EXPECT_EQ(ld16(hand + 26), 7u);
  std::vector<std::uint8_t> bytes(hand, hand + pos);
  Record r = decode(bytes);
  EXPECT_EQ(r.find("args")->bytes.size(), 8u); // function 128 is not an API member: raw arguments
}

TEST(BufferRecord, CopiesItsBytes)
{
  std::uint8_t src[8] = {0, 0, 0, 8, 0xFA, 0xDE, 0xDE, 0xAD};
  tf_record_buffer_t b;
  tf_record_buffer_init(&b);
  b.data.buf = src;
  b.data.buf_size = 8;
  EXPECT_EQ(encode(&b), std::vector<std::uint8_t>(src, src + 8));
}

TEST(RecordLayoutDeathTest, SixteenBitSizesMustHoldTheRecord)
{
  std::vector<std::uint8_t> entries(2000 * 52);
  tf_record_softcfg_t s;
  tf_record_softcfg_init(&s);
  s.a_count = 2000;
  s.a_data = entries.data();
  std::uint32_t size = tf_record_size(&s);
  std::vector<std::uint8_t> out(size);
  EXPECT_DEATH(tf_record_encode(&s, out.data(), size), "size <= 0xFFFF");
}
