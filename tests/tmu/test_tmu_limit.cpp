// The process-wide memory limit: a program of its own, since the first creator call decides
// the limit for the whole process.
#include "tmu_test_util.hpp"

TEST(MemoryLimit, NewUnitsHalveTheBiggestUnit)
{
  vorx_tmu_creator_t *c = vorx_tmu_creator_alloc(4u << 20);
  ASSERT_EQ(vorx_tmu_memory_limit(), 4u << 20);
  ScratchDir dir;
  vorx_tmu_t *a = c->alloc(c, vorx_tmu_per_process, dir.file("a").c_str());
  vorx_tmu_t *b = c->alloc(c, vorx_tmu_per_process, dir.file("b").c_str());
  EXPECT_EQ(vorx_tmu_memory_consumption(), 4u << 20);
  EXPECT_EQ(a->pool.buffs[0].size, 0u) << "memory is taken at the first record, not with the share";
  for (int i = 0; i < 30000; i++) put_sample(a, 1, i); // a switched buffers, b never did
  ASSERT_GT(a->switches, 0u);

  // Full: the victim is the biggest unit, among equals the one with fewer switches.
  vorx_tmu_t *t = c->alloc(c, vorx_tmu_per_thread, dir.file("t").c_str());
  EXPECT_EQ(b->pool.buffs[0].share, 512u << 10);
  EXPECT_EQ(a->pool.buffs[0].share, 1u << 20);
  EXPECT_EQ(t->pool.buffs[0].share, 512u << 10); // one buffer: half the victim's old size
  EXPECT_EQ(vorx_tmu_memory_consumption(), 4u << 20);

  // Still full: now a is the biggest; a unit of two buffers takes a quarter of its old size.
  vorx_tmu_t *p = c->alloc(c, vorx_tmu_per_process, dir.file("p").c_str());
  EXPECT_EQ(a->pool.buffs[0].share, 512u << 10);
  EXPECT_EQ(p->pool.buffs[0].share, 256u << 10);
  EXPECT_EQ(p->pool.buf_num, 2u);
  EXPECT_EQ(vorx_tmu_memory_consumption(), 4u << 20); // halving moves memory, it doesn't add any

  // The halved units still take records and keep them in order.
  for (int i = 0; i < 30000; i++) put_sample(b, 2, i);
  c->free_unit(c, b);
  expect_sequence(read_trace(dir.file("b")), 2, 0, 30000);
  // Ring units are outside the limit and never halved, however big: x would be the victim.
  vorx_tmu_t *x = c->alloc(c, vorx_tmu_per_thread, dir.file("x").c_str());
  vorx_tmu_set_mode(x, vorx_tmu_mode_ring);
  ASSERT_EQ(x->pool.buffs[0].share, 1u << 20);
  vorx_tmu_t *y = c->alloc(c, vorx_tmu_per_process, dir.file("y").c_str());
  EXPECT_EQ(x->pool.buffs[0].share, 1u << 20);
  EXPECT_EQ(t->pool.buffs[0].share, 256u << 10); // equal to a's buffers, fewer switches
  EXPECT_EQ(y->pool.buffs[0].share, 128u << 10);

  for (vorx_tmu_t *u : {a, t, p, x, y}) c->free_unit(c, u);
}

// The end of tracing: every unit spilled and detached, then released. Runs last in this
// program, as it reaches every unit of the process.
TEST(ProcessEnd, AdjustAllSpillsAndDetachesEveryUnit)
{
  vorx_tmu_creator_t *c = vorx_tmu_creator_alloc(0);
  ScratchDir dir;
  vorx_tmu_t *a = c->alloc(c, vorx_tmu_per_process, dir.file("a").c_str());
  vorx_tmu_t *t = c->alloc(c, vorx_tmu_per_thread, dir.file("t").c_str());
  put_sample(a, 1, 0);
  put_sample(t, 2, 0);
  vorx_tmu_adjust_all_tmus();
  EXPECT_EQ(put_sample(a, 1, 1), 1); // detached: accepted and dropped
  EXPECT_EQ(a->spill(a), 1);
  expect_sequence(read_trace(dir.file("a")), 1, 0, 1);
  expect_sequence(read_trace(dir.file("t")), 2, 0, 1);
  vorx_tmu_free_all_tmus();
  EXPECT_EQ(a->pool.buffs, nullptr);
  EXPECT_EQ(t->pool.buffs, nullptr);
}
