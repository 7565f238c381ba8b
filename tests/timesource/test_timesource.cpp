#include "vorx_timesource.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/time.h>

#include <cstdlib>
#include <string>

namespace {

// A scratch directory standing in for /sys/devices/system/node.
class NodeDir : public ::testing::Test {
protected:
  void SetUp() override
  {
    char tmpl[] = "/tmp/vorx_nodes_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }
  void add(const char *name) { ASSERT_EQ(mkdir((dir_ + "/" + name).c_str(), 0755), 0); }
  std::string dir_;
};

} // namespace

// Family 6 models named in the selector decide alone; others take the counter on one node only.
TEST_F(NodeDir, ModelsAndNodesSelectTheClock)
{
  add("node0");
  add("power");
  EXPECT_EQ(vorx_timesource_select(6, 0x3A, dir_.c_str()), vorx_timesource_tsc);
  add("node1");
  const struct {
    unsigned family, model;
    const char *nodes;
    vorx_u32_t expected;
  } cases[] = {
      {6, 0x3A, dir_.c_str(), vorx_timesource_system},
      {15, 0x57, dir_.c_str(), vorx_timesource_system}, // model counts in family 6 only
      {6, 0x57, dir_.c_str(), vorx_timesource_tsc},
      {6, 0x2D, "/nonexistent", vorx_timesource_system},
      {6, 0x3A, "/nonexistent/node", vorx_timesource_tsc},
  };
  for (const auto &c : cases)
    EXPECT_EQ(vorx_timesource_select(c.family, c.model, c.nodes), c.expected)
        << c.family << "/" << c.model << " " << c.nodes;
  vorx_u32_t t = vorx_timesource_auto_select();
  EXPECT_TRUE(t == vorx_timesource_tsc || t == vorx_timesource_system);
}

TEST(TimesourceTable, LifecycleAndSlots)
{
  EXPECT_EQ(vorx_timesource(), nullptr);
  EXPECT_EQ(vorx_timesource_init(0), 0);
  EXPECT_EQ(vorx_timesource_init(7), 0);
  EXPECT_EQ(vorx_timesource(), nullptr);

  for (vorx_u32_t type : {vorx_timesource_system, vorx_timesource_tsc}) {
    ASSERT_EQ(vorx_timesource_init(type), 1);
    const vorx_timesource_table_t *ts = vorx_timesource();
    ASSERT_NE(ts, nullptr);
    EXPECT_EQ(ts->type(), type);
    EXPECT_GT(ts->frequency(), 0u);
    vorx_u64_t a = ts->now(), b = ts->now();
    EXPECT_LE(a, b);
    vorx_u64_t count = 0, wall = 0;
    EXPECT_EQ(ts->reference(&count, &wall), 1);
    EXPECT_GE(count, b);
    EXPECT_EQ(ts->reference(nullptr, nullptr), 1);
    vorx_timesource_fini();
    EXPECT_EQ(vorx_timesource(), nullptr);
  }
}

TEST(TimesourceClock, WallClockIsIn100NanosecondUnits)
{
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  vorx_u64_t ours = vorx_get_timeofday();
  vorx_u64_t theirs = (vorx_u64_t(tv.tv_sec) * 1000000u + vorx_u64_t(tv.tv_usec)) * 10u;
  EXPECT_GE(ours, theirs);
  EXPECT_LT(ours - theirs, 10000000u); // well within a second
  EXPECT_EQ(ours % 10, 0u);
}

TEST(ReferencePoint, TiesTheClocksTogether)
{
  vorx_reference_point_t rp{};
  static_assert(sizeof(vorx_reference_source_t) == 17, "entries of a version 1 reference point record");
  vorx_u64_t before = vorx_get_timeofday();
  vorx_u64_t err_us = vorx_get_reference_point(&rp, 5);
  EXPECT_LT(err_us, 1000u);
  EXPECT_GE(rp.wall_clock, before);
  EXPECT_EQ(rp.sources[0].tag, 1);
  EXPECT_EQ(rp.sources[1].tag, 2);
  EXPECT_GT(rp.sources[0].frequency, 0u);
  EXPECT_EQ(rp.sources[1].frequency, 1000000000u);
  EXPECT_GT(rp.sources[0].count, 0u);
  EXPECT_EQ(vorx_get_reference_point(nullptr, 1), 0u) << "no output: no clock read";
}
