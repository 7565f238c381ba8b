// Stack packers: decoded back by a reader written from the byte form alone.
#include "vorx_traceformat.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::int32_t read_significant(const std::uint8_t *&p)
{
  std::uint32_t k = *p & 0x0F, neg = *p & 0x40;
  p++;
  std::uint32_t v = neg ? 0xFFFFFFFFu : 0;
  for (std::uint32_t i = 0; i < k; i++) {
    v &= ~(0xFFu << (8 * i));
    v |= std::uint32_t(p[i]) << (8 * i);
  }
  p += k;
  return std::int32_t(v);
}

// Frames outermost first, as they were packed.
std::vector<std::uint32_t> unpack_online(const std::uint8_t *p, std::uint32_t n)
{
  std::vector<std::uint32_t> out;
  const std::uint8_t *end = p + n;
  bool absolute = true;
  std::uint32_t prev = 0;
  while (p < end) {
    std::uint32_t v = std::uint32_t(read_significant(p));
    std::uint32_t frame = absolute ? v : prev + v;
    out.push_back(frame);
    absolute = frame == 0;
    prev = frame;
  }
  return out;
}

std::vector<std::uint32_t> pack_online(const std::vector<std::uint32_t> &frames, std::uint32_t cap, int *rc)
{
  std::vector<std::uint8_t> buf(cap + 8);
  std::uint32_t size = cap;
  *rc = tf_record_online_stack_pack(frames.data(), std::uint32_t(frames.size()), buf.data(), &size);
  return unpack_online(buf.data(), size);
}

} // namespace

TEST(OnlineStackPack, RoundTripsWithDeltasAndRestartsAfterZero)
{
  std::vector<std::uint32_t> frames = {0x08048010, 0x08048000, 0, 0xB7F01234, 0xB7F00000, 0xFFFFFFFF, 0x10};
  int rc = 0;
  std::vector<std::uint32_t> out = pack_online(frames, 256, &rc);
  EXPECT_EQ(rc, TF_PACK_OK);
  EXPECT_EQ(out, std::vector<std::uint32_t>(frames.rbegin(), frames.rend()));
}

TEST(OnlineStackPack, SmallValuesTakeOneByte)
{
  std::uint32_t frames[3] = {0xFFFFFFFFu, 0, 0};
  std::uint8_t buf[32];
  std::uint32_t size = 20;
  ASSERT_EQ(tf_record_online_stack_pack(frames, 3, buf, &size), TF_PACK_OK);
  // 0, then 0 absolute again after a zero frame, then -1 absolute after a zero frame
  ASSERT_EQ(size, 3u);
  EXPECT_EQ(buf[0], 0x00);
  EXPECT_EQ(buf[1], 0x00);
  EXPECT_EQ(buf[2], 0x40);
}

TEST(OnlineStackPack, ExactCapacityLeavesNoRoomForTheLastItem)
{
  std::uint32_t frames[2] = {0x2000, 0x1000}; // 1000 absolute (3 bytes), +0x1000 (3 bytes)
  std::uint8_t buf[32];
  std::uint32_t size = 6;
  EXPECT_EQ(tf_record_online_stack_pack(frames, 2, buf, &size), TF_PACK_NO_ROOM);
  EXPECT_EQ(size, 3u);
  size = 7;
  EXPECT_EQ(tf_record_online_stack_pack(frames, 2, buf, &size), TF_PACK_OK);
  EXPECT_EQ(size, 6u);
  size = 7;
  EXPECT_EQ(tf_record_online_stack_pack(nullptr, 2, buf, &size), TF_PACK_OK);
  EXPECT_EQ(size, 0u);
}

TEST(OfflineStackPack, CodesStackPointersAndBothKindsOfAddress)
{
  // Innermost first: frame 0 has a return address inside the stack, frame 1 one in code.
  std::uint32_t sp[3] = {0xBFFF0100, 0xBFFF0080, 0xBFFF0000};
  std::uint32_t ip[3] = {0xBFFF0110, 0x08049000, 0x08048000};
  std::uint8_t buf[64];
  std::uint32_t size = 60;
  ASSERT_EQ(tf_record_offline_stack_pack(sp, ip, 3, 0xBFFEFF00, 0x08040000, 0xBFFF0100, 0xC0000000, buf, &size),
            TF_PACK_OK);
  const std::uint8_t *p = buf;
  // frame 2: sp delta 0x100/4 = 64 -> 0xC0; ip 0x08048000 is code: delta 0x8000 from last_ip
  EXPECT_EQ(*p++, 0x80 | 64);
  EXPECT_EQ(read_significant(p), 0x8000);
  // frame 1: sp delta 0x80/4 = 32; ip delta 0x1000 in code
  EXPECT_EQ(*p++, 0x80 | 32);
  EXPECT_EQ(read_significant(p), 0x1000);
  // frame 0: sp delta 32; ip in the stack, (0xBFFF0110 - 0xBFFF0100) / 4 = 4 -> 0xA4
  EXPECT_EQ(*p++, 0x80 | 32);
  EXPECT_EQ(*p++, 0xA4);
  EXPECT_EQ(std::uint32_t(p - buf), size);
}

TEST(OfflineStackPack, LargeDeltasAndNegativeStackAddresses)
{
  std::uint32_t sp[2] = {0xBFFF0000, 0xBFFFFF00};
  std::uint32_t ip[2] = {0xBFFF0004, 0xBFFFFF00}; // second: below the previous stack address
  std::uint8_t buf[64];
  std::uint32_t size = 60;
  ASSERT_EQ(tf_record_offline_stack_pack(sp, ip, 2, 0xBFFE0000, 0, 0xBFFFFF80, 0xC0000000, buf, &size), TF_PACK_OK);
  const std::uint8_t *p = buf;
  EXPECT_EQ(*p, 2); // (0xBFFFFF00 - 0xBFFE0000) / 4 = 0x7FC0: a count byte 2 and two bytes
}

TEST(StackPackDeathTest, NullDestinationsAbort)
{
  std::uint32_t f = 1, size = 4;
  EXPECT_DEATH(tf_record_online_stack_pack(&f, 1, nullptr, &size), "bt_package != \\(\\(void\\*\\)0\\)");
}
