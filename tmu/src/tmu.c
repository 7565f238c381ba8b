/* Units: reservation and confirmation, spills, the memory limit shared by all units, ring mode,
 * and the creator. */
#include "tmu_internal.h"

#include "vorx_compressor.h"
#include "vorx_traceformat.h"

#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <sched.h>

/* The lock of a unit's active buffer. Its holder does a few stores, or at worst writes one buffer out;
 * units of one thread are almost never contended (the end of the process spills them from another thread),
 * so a waiter just yields until the word is free. */
static void unit_lock(volatile vorx_u32_t *word)
{
  while (__atomic_exchange_n(word, 1u, __ATOMIC_ACQUIRE) != 0)
    while (__atomic_load_n(word, __ATOMIC_RELAXED) != 0) sched_yield();
}

static void unit_unlock(volatile vorx_u32_t *word) { __atomic_store_n(word, 0u, __ATOMIC_RELEASE); }

SAL_DEFINE_ASSERT_ROUTINE(vorx_tmu)

/* ------------------------------------------------------------------ process-wide data */

/* Circular list of all units; g_tmu_list_mutex guards it and the limit decisions. */
static vorx_tmu_t g_tmu_list = {.prev = &g_tmu_list, .next = &g_tmu_list};
static vorx_mutex_t g_tmu_list_mutex = PTHREAD_MUTEX_INITIALIZER;
/* Bytes of buffers of units outside ring mode; changed atomically. */
static vorx_u64_t g_tmu_memory_consumption;
/* Records dropped by all units, and the VORX_TMU_LOST_* causes seen; changed atomically. */
static vorx_u64_t g_tmu_records_lost;
static vorx_u32_t g_tmu_loss_causes;
/* The process trace that takes the buffers of units that cannot open their own files; its mutex is held
 * while such a buffer is written, so that the unit is not freed meanwhile. Taken after any unit's locks,
 * never while the process trace's own spill_lock is held. */
static vorx_tmu_t *g_process_trace;
static vorx_mutex_t g_process_trace_mutex = PTHREAD_MUTEX_INITIALIZER;
/* Decided by the first vorx_tmu_creator_alloc. */
static vorx_u64_t g_tmu_memory_limit = VORX_TMU_DEFAULT_LIMIT;
/* The compressor pool, replaced only by vorx_tmu_creator_set_compression_level. */
static vorx_pool *g_compressor_pool;
static vorx_tmu_length_cb g_calculate_length_cb = tf_record_size_cb;
static vorx_tmu_encode_cb g_encode_data_cb = tf_record_encode_cb;

vorx_tmu_creator_t *g_vorx_tmu_creator;

static const vorx_u8_t k_magic[8] = {0x00, 0x00, 0x00, 0x08, 0xFA, 0xDE, 0xDE, 0xAD};

void vorx_tmu_sleep_poll(void)
{
  struct timespec ts = {0, VORX_TMU_POLL_NS};
  syscall(SYS_nanosleep, &ts, NULL); /* the library's nanosleep is a cancellation point */
}

static void consumption_add(vorx_u64_t n) { __atomic_add_fetch(&g_tmu_memory_consumption, n, __ATOMIC_SEQ_CST); }
static void consumption_sub(vorx_u64_t n) { __atomic_sub_fetch(&g_tmu_memory_consumption, n, __ATOMIC_SEQ_CST); }
vorx_u64_t vorx_tmu_memory_consumption(void) { return __atomic_load_n(&g_tmu_memory_consumption, __ATOMIC_SEQ_CST); }
vorx_u64_t vorx_tmu_memory_limit(void) { return g_tmu_memory_limit; }

int vorx_tmu_compression_enabled(void) { return g_compressor_pool != NULL; }

vorx_u64_t vorx_tmu_records_lost(void) { return __atomic_load_n(&g_tmu_records_lost, __ATOMIC_SEQ_CST); }
vorx_u32_t vorx_tmu_loss_causes(void) { return __atomic_load_n(&g_tmu_loss_causes, __ATOMIC_SEQ_CST); }

static void count_lost(vorx_tmu_t *tmu, vorx_u64_t records, vorx_u32_t cause)
{
  if (!records) return;
  __atomic_add_fetch(&tmu->records_lost, records, __ATOMIC_SEQ_CST);
  __atomic_add_fetch(&g_tmu_records_lost, records, __ATOMIC_SEQ_CST);
  __atomic_or_fetch(&g_tmu_loss_causes, cause, __ATOMIC_SEQ_CST);
}

static vorx_u64_t system_now(void) { return sal_system_time(); }

static vorx_u64_t system_freq(void)
{
  vorx_u64_t res = sal_system_time_freq();
  TMU_ASSERT(res != 0);
  return res;
}

/* ------------------------------------------------------------------ buffers */

/* A buffer with its share and no memory yet: the first record takes it. */
static void buffer_init(vorx_tmu_buffer_t *buf, vorx_u32_t share)
{
  memset(buf, 0, sizeof *buf);
  buf->share = share;
}

static void buffer_free(vorx_tmu_buffer_t *buf)
{
  free(buf->head);
  buf->head = buf->write_ptr = NULL;
  buf->size = 0;
  buf->records = 0;
}

static int buffer_empty(const vorx_tmu_buffer_t *buf) { return buf->write_ptr == buf->head; }

static void wait_confirmations(vorx_tmu_buffer_t *buf)
{
  while (__atomic_load_n(&buf->pend_writes_cntr, __ATOMIC_ACQUIRE) != 0) vorx_tmu_sleep_poll();
}

static int fits(const vorx_tmu_buffer_t *b, vorx_u32_t size)
{
  return (vorx_u32_t)(b->head + b->size - b->write_ptr) >= size;
}

/* Room for `needed` more bytes by growing the buffer toward its share, doubling from the first size with
 * the records kept. The caller holds buffer_lock. 0 when the share is reached or no memory could be had:
 * the buffer is then as it was. */
static int buffer_grow(vorx_tmu_buffer_t *buf, vorx_u32_t needed)
{
  vorx_u32_t used = (vorx_u32_t)(buf->write_ptr - buf->head);
  if (buf->share < used || buf->share - used < needed) return 0;
  vorx_u32_t grown = buf->size ? buf->size : VORX_TMU_FIRST_BUFFER_SIZE;
  while (grown - used < needed && grown < buf->share) grown *= 2;
  if (grown > buf->share) grown = buf->share;
  wait_confirmations(buf); /* records reserved outside the lock point into the old block */
  vorx_u8_t *head = realloc(buf->head, grown);
  if (!head) return 0;
  buf->head = head;
  buf->write_ptr = head + used;
  buf->size = grown;
  return 1;
}

/* Room for size bytes, growing the buffer when it must. */
static int room_for(vorx_tmu_buffer_t *buf, vorx_u32_t size) { return fits(buf, size) || buffer_grow(buf, size); }

static vorx_u32_t pool_bytes(const vorx_tmu_t *tmu) { return tmu->pool.buffs[0].share * tmu->pool.buf_num; }

/* Replaces the pool by count empty buffers with a share of size bytes. Without memory for more buffer
 * descriptors the unit keeps the ones it has: fewer buffers, but a working unit. */
static void pool_rebuild(vorx_tmu_t *tmu, vorx_u32_t count, vorx_u32_t size)
{
  for (vorx_u32_t i = 0; i < tmu->pool.buf_num; i++) buffer_free(&tmu->pool.buffs[i]);
  if (count > tmu->pool.buf_num) {
    vorx_tmu_buffer_t *buffs = realloc(tmu->pool.buffs, count * sizeof *buffs);
    if (buffs) tmu->pool.buffs = buffs;
    else count = tmu->pool.buf_num;
  }
  for (vorx_u32_t i = 0; i < count; i++) buffer_init(&tmu->pool.buffs[i], size);
  tmu->pool.buf_num = count;
  tmu->pool.active = 0;
}

/* ------------------------------------------------------------------ spilling */

enum { k_written = 1, k_refused = 0, k_not_open = -1 };

/* Bytes to the unit's writer, behind the magic record when the stream is new. The caller holds spill_lock. */
static int write_out(vorx_tmu_t *tmu, const void *bytes, vorx_u32_t length)
{
  vorx_tmu_writer_t *w = tmu->writer;
  if (!w || (!w->is_open(w) && !w->open(w))) return k_not_open;
  int res = k_written;
  if (!tmu->magic_written) {
    res = w->write(w, k_magic, sizeof k_magic) ? k_written : k_refused;
    tmu->magic_written = res == k_written;
  }
  if (res == k_written) {
    int compress = g_compressor_pool && !tmu->no_compression;
    res = (compress ? vorx_tmu_write_compressed(tmu, bytes, length) : w->write(w, bytes, length)) ? k_written : k_refused;
  }
  if (w->close_after_spill(w)) w->close(w);
  return res;
}

/* A buffer of a unit that cannot open its own file (the program dropped the rights it had when the unit
 * was made): into the process trace, whose file is open. Records are whole in both, so the stream stays
 * one of whole records. */
static int write_to_process_trace(const void *bytes, vorx_u32_t length)
{
  vorx_mutex_lock(&g_process_trace_mutex);
  vorx_tmu_t *trace = g_process_trace;
  int res = k_not_open;
  if (trace) {
    vorx_mutex_lock(&trace->spill_lock);
    res = write_out(trace, bytes, length);
    vorx_mutex_unlock(&trace->spill_lock);
  }
  vorx_mutex_unlock(&g_process_trace_mutex);
  return res;
}

/* Writes one buffer out and empties it; the caller holds spill_lock and has waited for confirmations.
 * Records that reach no file are counted lost. */
static int write_buffer(vorx_tmu_t *tmu, vorx_tmu_buffer_t *buf)
{
  if (buffer_empty(buf)) return 1;
  vorx_u32_t used = (vorx_u32_t)(buf->write_ptr - buf->head);
  int res = write_out(tmu, buf->head, used);
  if (res == k_not_open && !tmu->is_process_trace) res = write_to_process_trace(buf->head, used);
  if (res != k_written) count_lost(tmu, buf->records, VORX_TMU_LOST_WRITE);
  buf->write_ptr = buf->head;
  buf->records = 0;
  buf->spills++;
  return res == k_written;
}

static int spill_locked(vorx_tmu_t *tmu)
{
  if (tmu->mode != vorx_tmu_mode_ring) {
    vorx_tmu_buffer_t *buf = &tmu->pool.buffs[tmu->pool.active];
    wait_confirmations(buf);
    return write_buffer(tmu, buf);
  }
  /* Ring order: the buffer after the active one holds the oldest records. */
  int res = 1;
  for (vorx_u32_t i = 1; i <= tmu->pool.buf_num; i++) {
    vorx_tmu_buffer_t *buf = &tmu->pool.buffs[(tmu->pool.active + i) % tmu->pool.buf_num];
    wait_confirmations(buf);
    res &= write_buffer(tmu, buf);
  }
  return res;
}

static int tmu_spill(vorx_tmu_t *tmu)
{
  unit_lock(&tmu->buffer_lock);
  vorx_mutex_lock(&tmu->spill_lock);
  int res = spill_locked(tmu);
  vorx_mutex_unlock(&tmu->spill_lock);
  unit_unlock(&tmu->buffer_lock);
  return res;
}

/* ------------------------------------------------------------------ resize */

/* A new share for every buffer. Normal mode spills and starts the buffers anew (their memory follows the
 * records again). Ring mode only grows, with the content kept: the memory follows when a buffer fills. */
static void resize(vorx_tmu_t *tmu, vorx_u32_t size)
{
  unit_lock(&tmu->buffer_lock);
  vorx_mutex_lock(&tmu->spill_lock);
  if (tmu->mode == vorx_tmu_mode_ring) {
    for (vorx_u32_t i = 0; i < tmu->pool.buf_num; i++)
      if (size > tmu->pool.buffs[i].share) tmu->pool.buffs[i].share = size;
  } else {
    spill_locked(tmu);
    pool_rebuild(tmu, tmu->pool.buf_num, size);
  }
  vorx_mutex_unlock(&tmu->spill_lock);
  unit_unlock(&tmu->buffer_lock);
}

/* ------------------------------------------------------------------ ring mode */

/* Soft RLIMIT_DATA less the process's size: is there room for one more ring buffer? */
static int ring_may_grow(void)
{
  struct rlimit rl;
  if (getrlimit(RLIMIT_DATA, &rl) != 0) return 1;
  int fd = sal_open_read("/proc/self/stat");
  if (fd < 0) return 1;
  char text[1025];
  vorx_ssize_t n = sal_read(fd, text, 1024);
  sal_close(fd);
  if (n <= 0) return 1;
  text[n] = 0;
  /* Field 23 is vsize; the command name (field 2) may hold spaces, so count from its ')'. */
  char *p = strrchr(text, ')');
  if (!p) return 1;
  unsigned field = 2;
  while (*p && field < 23) {
    if (*p++ == ' ') field++;
  }
  if (field != 23) return 1;
  char *end;
  unsigned long long vsize = strtoull(p, &end, 10);
  if (end == p) return 1;
  unsigned long long limit = rl.rlim_cur;
  return !(limit < vsize || limit - vsize < 0x8000000ull);
}

/* A new buffer directly behind the active one; without memory for it, the next one, whose old records
 * give way as they do when the ring may not grow. */
static vorx_u32_t ring_grow(vorx_tmu_t *tmu, vorx_u32_t next)
{
  vorx_u32_t n = tmu->pool.buf_num, at = tmu->pool.active + 1;
  vorx_tmu_buffer_t *buffs = realloc(tmu->pool.buffs, (n + 1) * sizeof *buffs);
  if (!buffs) return next;
  memmove(&buffs[at + 1], &buffs[at], (n - at) * sizeof *buffs);
  buffer_init(&buffs[at], buffs[0].share);
  tmu->pool.buffs = buffs;
  tmu->pool.buf_num = n + 1;
  return at;
}

/* The ring is full: take the next buffer if it is empty or old enough to lose, else grow if
 * memory allows. Caller holds buffer_lock. */
static void alloc_or_switch_buffers(vorx_tmu_t *tmu)
{
  vorx_u32_t n = tmu->pool.buf_num;
  vorx_u32_t next = (tmu->pool.active + 1) % n;
  vorx_u32_t chosen = next;
  if (!buffer_empty(&tmu->pool.buffs[next])) {
    const vorx_tmu_buffer_t *after = &tmu->pool.buffs[(tmu->pool.active + 2) % n];
    vorx_u64_t age = (system_now() - after->start_time) / system_freq();
    if (!(age > tmu->ring_duration) && ring_may_grow()) chosen = ring_grow(tmu, next);
  }
  vorx_tmu_buffer_t *b = &tmu->pool.buffs[chosen];
  wait_confirmations(b);
  b->write_ptr = b->head;
  b->records = 0; /* a ring forgets its oldest records by design: they are not lost ones */
  b->start_time = system_now();
  tmu->pool.active = chosen;
  tmu->switches++;
}

/* ------------------------------------------------------------------ reservation */

static void take_room(vorx_tmu_t *tmu, vorx_tmu_buffer_t *active, vorx_u32_t size, void **record,
                      vorx_tmu_buffer_t **buffer)
{
  TMU_ASSERT((active)->head <= (active)->write_ptr && (active)->write_ptr + size <= (active)->head + (active)->size);
  *record = active->write_ptr;
  active->write_ptr += size;
  active->records++;
  if (tmu->locked) __atomic_add_fetch(&active->pend_writes_cntr, 1, __ATOMIC_ACQ_REL);
  *buffer = active;
}

/* A record beyond the buffers' share: double the share until it fits; 0 beyond VORX_TMU_MAX_BUFFER_SIZE. */
static int grow_for_record(vorx_tmu_t *tmu, vorx_u32_t size)
{
  vorx_u32_t old = tmu->pool.buffs[0].share, grown = old ? old : VORX_TMU_FIRST_BUFFER_SIZE;
  while (grown <= size && grown <= VORX_TMU_MAX_BUFFER_SIZE) grown *= 2;
  if (grown > VORX_TMU_MAX_BUFFER_SIZE) return 0;
  resize(tmu, grown);
  if (tmu->mode != vorx_tmu_mode_ring) consumption_add((vorx_u64_t)(grown - old) * tmu->pool.buf_num);
  return 1;
}

/* One buffer: write it out, then reserve at its start. Holds both locks throughout. */
static int reserve_after_spill(vorx_tmu_t *tmu, vorx_tmu_buffer_t *active, vorx_u32_t size, void **record,
                               vorx_tmu_buffer_t **buffer)
{
  wait_confirmations(active);
  write_buffer(tmu, active);
  int placed = room_for(active, size);
  if (placed) take_room(tmu, active, size, record, buffer);
  vorx_mutex_unlock(&tmu->spill_lock);
  unit_unlock(&tmu->buffer_lock);
  if (!placed) count_lost(tmu, 1, VORX_TMU_LOST_MEMORY);
  return placed;
}

/* Several buffers: switch at once, so that other threads go on writing into the next buffer
 * while this one writes the old one out under spill_lock alone. */
static int reserve_after_switch(vorx_tmu_t *tmu, vorx_tmu_buffer_t *active, vorx_u32_t size, void **record,
                                vorx_tmu_buffer_t **buffer)
{
  tmu->switches++;
  tmu->pool.active = (vorx_u32_t)(tmu->switches % tmu->pool.buf_num);
  vorx_tmu_buffer_t *next = &tmu->pool.buffs[tmu->pool.active];
  TMU_ASSERT(buffer_empty(next));
  int placed = room_for(next, size);
  if (placed) take_room(tmu, next, size, record, buffer);
  unit_unlock(&tmu->buffer_lock);
  wait_confirmations(active);
  write_buffer(tmu, active);
  vorx_mutex_unlock(&tmu->spill_lock);
  if (!placed) count_lost(tmu, 1, VORX_TMU_LOST_MEMORY);
  return placed;
}

/* 1 with room for the record; 0 when it is dropped (and counted): no memory for it, or too big. */
int vorx_tmu_alloc_record(vorx_tmu_t *tmu, vorx_u32_t size, void **record, vorx_tmu_buffer_t **buffer)
{
  TMU_ASSERT((size) != 0);
  *record = NULL;
  *buffer = NULL;
  if (size >= tmu->pool.buffs[0].share && !grow_for_record(tmu, size)) {
    count_lost(tmu, 1, VORX_TMU_LOST_SIZE);
    return 0;
  }
  unit_lock(&tmu->buffer_lock);
  vorx_tmu_buffer_t *active = &tmu->pool.buffs[tmu->pool.active];
  if (tmu->mode == vorx_tmu_mode_ring && buffer_empty(active)) active->start_time = system_now();
  if (!room_for(active, size)) {
    if (tmu->mode != vorx_tmu_mode_ring) {
      vorx_mutex_lock(&tmu->spill_lock);
      if (tmu->pool.buf_num == 1) return reserve_after_spill(tmu, active, size, record, buffer);
      return reserve_after_switch(tmu, active, size, record, buffer);
    }
    alloc_or_switch_buffers(tmu);
    active = &tmu->pool.buffs[tmu->pool.active];
    if (!room_for(active, size)) {
      unit_unlock(&tmu->buffer_lock);
      count_lost(tmu, 1, VORX_TMU_LOST_MEMORY);
      return 0;
    }
  }
  take_room(tmu, active, size, record, buffer);
  unit_unlock(&tmu->buffer_lock);
  return 1;
}

static void tmu_confirm(vorx_tmu_t *tmu, vorx_tmu_buffer_t *buff)
{
  if (!tmu->locked) return;
  TMU_ASSERT((buff)->pend_writes_cntr > 0);
  __atomic_sub_fetch(&buff->pend_writes_cntr, 1, __ATOMIC_ACQ_REL);
}

/* Small records (VORX_TMU_SMALL_RECORD) are written while the buffer lock is held: a few dozen bytes cost
 * less than the two atomic operations on pend_writes_cntr that let a writer work outside the lock. A spill
 * takes the same lock, so it never sees such a record half written. */
static void *tmu_open_record(vorx_tmu_t *tmu, vorx_u32_t size, vorx_tmu_lease_t *lease)
{
  if (size <= VORX_TMU_SMALL_RECORD) {
    unit_lock(&tmu->buffer_lock);
    vorx_tmu_buffer_t *active = &tmu->pool.buffs[tmu->pool.active];
    void *dest = tmu->mode == vorx_tmu_mode_ring && buffer_empty(active) ? NULL
                                                                         : vorx_tmu_take_in_place(tmu, size, lease);
    if (dest) return dest;
    unit_unlock(&tmu->buffer_lock); /* a spill, a switch, a buffer to grow or a ring's first record */
  }
  void *dest;
  lease->held_lock = NULL;
  lease->ok = vorx_tmu_alloc_record(tmu, size, &dest, &lease->buffer);
  return dest;
}

/* A few dozen bytes: copied in place, where a call of the library's memcpy (through its table, then to the
 * variant for this processor) costs more than the copy itself. */
static inline vorx_u8_t *copy_small(vorx_u8_t *dest, const void *source, vorx_u32_t size)
{
  const vorx_u8_t *from = (const vorx_u8_t *)source;
  for (; size >= 4; size -= 4, dest += 4, from += 4) {
    vorx_u32_t word;
    memcpy(&word, from, 4);
    memcpy(dest, &word, 4);
  }
  for (; size; --size) *dest++ = *from++;
  return dest;
}

static int tmu_put_record(vorx_tmu_t *tmu, const void *head, vorx_u32_t head_size, const void *tail, vorx_u32_t tail_size)
{
  vorx_u32_t size = head_size + tail_size;
  vorx_tmu_lease_t lease;
  vorx_u8_t *dest = tmu_open_record(tmu, size, &lease);
  if (!dest) return 0;
  if (size <= VORX_TMU_SMALL_RECORD) {
    copy_small(copy_small(dest, head, head_size), tail, tail_size);
  } else {
    memcpy(dest, head, head_size);
    if (tail_size) memcpy(dest + head_size, tail, tail_size);
  }
  return vorx_tmu_close_record(tmu, &lease);
}

static int tmu_put_encoded(vorx_tmu_t *tmu, const void *record)
{
  vorx_u32_t size = tmu->calculate_length(record);
  void *dest;
  vorx_tmu_buffer_t *buf;
  if (!vorx_tmu_alloc_record(tmu, size, &dest, &buf)) return 0;
  tmu->encode_data(dest, record, size);
  tmu->confirm_record(tmu, buf);
  return 1;
}

/* ------------------------------------------------------------------ states */

static int idle_put_record(vorx_tmu_t *t, const void *h, vorx_u32_t hs, const void *tl, vorx_u32_t ts) { return 1; }
static int idle_spill(vorx_tmu_t *t) { return 1; }
static int idle_put_encoded(vorx_tmu_t *t, const void *r) { return 1; }
static void *idle_open_record(vorx_tmu_t *t, vorx_u32_t size, vorx_tmu_lease_t *lease)
{
  lease->held_lock = NULL;
  lease->buffer = NULL;
  lease->ok = 1;
  return NULL;
}

static int tmu_set_file(vorx_tmu_t *tmu, const char *path);
static int tmu_set_fd(vorx_tmu_t *tmu, int fd);

static void install_idle(vorx_tmu_t *tmu)
{
  tmu->put_record = idle_put_record;
  tmu->spill = idle_spill;
  tmu->put_encoded = idle_put_encoded;
  tmu->open_record = idle_open_record;
  tmu->direct_open = 0;
}

static void install_working(vorx_tmu_t *tmu)
{
  tmu->put_record = tmu_put_record;
  tmu->spill = tmu_spill;
  tmu->put_encoded = tmu_put_encoded;
  tmu->open_record = tmu_open_record;
  tmu->direct_open = tmu->mode != vorx_tmu_mode_ring;
}

static void writer_close_destroy(vorx_tmu_t *tmu)
{
  vorx_tmu_writer_t *w = tmu->writer;
  if (!w) return;
  if (w->is_open(w)) w->close(w);
  if (tmu->writer_destroy) tmu->writer_destroy(w);
  tmu->writer = NULL;
  tmu->writer_ready = 0;
}

/* Drops the current writer and its pool state before another writer is attached. */
static void reset_for_new_writer(vorx_tmu_t *tmu, int rebuild_pool)
{
  if (!tmu->writer) return;
  if (rebuild_pool) {
    if (tmu->mode == vorx_tmu_mode_ring) consumption_add((vorx_u64_t)tmu->pool.buffs[0].share * tmu->buffer_num);
    pool_rebuild(tmu, tmu->buffer_num, tmu->pool.buffs[0].share);
    tmu->mode = vorx_tmu_mode_normal;
  }
  writer_close_destroy(tmu);
}

static void attach_writer(vorx_tmu_t *tmu, vorx_tmu_writer_t *w)
{
  tmu->writer = w;
  tmu->writer_destroy = vorx_tmu_writer_destroy;
  tmu->pool.active = 0;
  tmu->switches = 0;
  tmu->magic_written = 0;
  tmu->no_compression = 0;
  tmu->calculate_length = g_calculate_length_cb;
  tmu->encode_data = g_encode_data_cb;
  install_working(tmu);
  __atomic_store_n(&tmu->writer_ready, 1, __ATOMIC_RELEASE);
}

static int tmu_set_file(vorx_tmu_t *tmu, const char *path)
{
  reset_for_new_writer(tmu, 1);
  vorx_tmu_writer_t *w = vorx_tmu_file_writer_create(path);
  if (!w) return 0;
  attach_writer(tmu, w);
  return 1;
}

static int tmu_set_fd(vorx_tmu_t *tmu, int fd)
{
  reset_for_new_writer(tmu, 0);
  vorx_tmu_writer_t *w = vorx_tmu_file_desc_writer_create(fd);
  if (!w) return 0;
  attach_writer(tmu, w);
  return 1;
}

void vorx_tmu_set_write_record_callbacks(vorx_tmu_t *tmu, vorx_tmu_length_cb length, vorx_tmu_encode_cb encode)
{
  tmu->calculate_length = length;
  tmu->encode_data = encode;
}

void vorx_tmu_disable_compression(vorx_tmu_t *tmu) { tmu->no_compression = 1; }
void vorx_tmu_disable_magic_record(vorx_tmu_t *tmu) { tmu->magic_written = 1; }
void vorx_tmu_set_ring_buffer_duration(vorx_tmu_t *tmu, vorx_u32_t seconds) { tmu->ring_duration = seconds; }

void vorx_tmu_set_mode(vorx_tmu_t *tmu, vorx_u32_t mode)
{
  if (tmu->mode == mode) return;
  tmu->spill(tmu);
  while (tmu->writer && !__atomic_load_n(&tmu->writer_ready, __ATOMIC_ACQUIRE)) vorx_tmu_sleep_poll();
  unit_lock(&tmu->buffer_lock);
  vorx_mutex_lock(&tmu->spill_lock);
  vorx_u32_t size = tmu->pool.buffs[0].share;
  if (mode == vorx_tmu_mode_ring) {
    /* Ring memory is outside the limit: the ring decides its own growth. */
    vorx_tmu_t *itmu = tmu;
    TMU_ASSERT(g_tmu_memory_consumption >= (vorx_u64_t)itmu->pool.buffs[0].share * itmu->pool.buf_num);
    consumption_sub((vorx_u64_t)pool_bytes(tmu));
    pool_rebuild(tmu, 2, size);
  } else {
    pool_rebuild(tmu, tmu->buffer_num, size);
    consumption_add((vorx_u64_t)pool_bytes(tmu));
  }
  tmu->mode = mode;
  tmu->direct_open = tmu->open_record == tmu_open_record && mode != vorx_tmu_mode_ring;
  vorx_mutex_unlock(&tmu->spill_lock);
  unit_unlock(&tmu->buffer_lock);
}

/* ------------------------------------------------------------------ the list and the limit */

static void list_append(vorx_tmu_t *tmu)
{
  tmu->prev = g_tmu_list.prev;
  tmu->next = &g_tmu_list;
  g_tmu_list.prev->next = tmu;
  g_tmu_list.prev = tmu;
}

static void list_remove(vorx_tmu_t *tmu)
{
  if (!tmu->next) return;
  tmu->prev->next = tmu->next;
  tmu->next->prev = tmu->prev;
  tmu->prev = tmu->next = NULL;
}

/* The unit that gives up half its buffers: the biggest, and among equals the one that
 * switched buffers least often. The first unit is the starting candidate whatever its mode;
 * ring units never replace it. */
static vorx_tmu_t *choose_victim(void)
{
  vorx_tmu_t *victim = g_tmu_list.next;
  if (victim == &g_tmu_list) return NULL;
  for (vorx_tmu_t *t = victim->next; t != &g_tmu_list; t = t->next) {
    if (t->mode == vorx_tmu_mode_ring) continue;
    vorx_u32_t ts = t->pool.buffs[0].share, vs = victim->pool.buffs[0].share;
    if (ts > vs || (ts == vs && t->switches < victim->switches)) victim = t;
  }
  return victim;
}

/* The buffer size of a new unit of buf_num buffers. Caller holds the list mutex. */
static vorx_u32_t buffer_size_for_new_unit(vorx_u32_t buf_num)
{
  vorx_u64_t share = (vorx_u64_t)VORX_TMU_BUFFER_SIZE * buf_num;
  if (vorx_tmu_memory_consumption() + share <= g_tmu_memory_limit) {
    consumption_add(share);
    return VORX_TMU_BUFFER_SIZE;
  }
  vorx_tmu_t *victim = choose_victim();
  if (!victim) {
    consumption_add(share);
    return VORX_TMU_BUFFER_SIZE;
  }
  vorx_u32_t old = victim->pool.buffs[0].share;
  resize(victim, old / 2);
  return buf_num == 1 ? old / 2 : old / 4;
}

static vorx_tmu_t *unit_create(vorx_u32_t type)
{
  vorx_u32_t buf_num;
  switch (type) {
  case vorx_tmu_per_process: buf_num = 2; break;
  case vorx_tmu_per_thread: buf_num = 1; break;
  case vorx_tmu_per_thread_no_blocking:
    fprintf(stderr, "per thread no blocking tmu is used on Windows only\n");
    return NULL;
  default:
    fprintf(stderr, "unknown type of tmu\n");
    return NULL;
  }
  vorx_tmu_t *obj = calloc(1, sizeof *obj);
  if (obj) obj->pool.buffs = calloc(buf_num, sizeof *obj->pool.buffs);
  if (!obj || !obj->pool.buffs) {
    free(obj);
    return NULL;
  }
  vorx_mutex_lock(&g_tmu_list_mutex);
  vorx_u32_t size = buffer_size_for_new_unit(buf_num);
  for (vorx_u32_t i = 0; i < buf_num; i++) buffer_init(&obj->pool.buffs[i], size);
  obj->pool.buf_num = buf_num;
  obj->buffer_num = buf_num;
  obj->type = type;
  obj->locked = 1;
  obj->set_file = tmu_set_file;
  obj->set_fd = tmu_set_fd;
  obj->confirm_record = tmu_confirm;
  obj->calculate_length = g_calculate_length_cb;
  obj->encode_data = g_encode_data_cb;
  install_idle(obj);
  vorx_mutex_init(&obj->mutex);
  obj->buffer_lock = 0;
  vorx_mutex_init(&obj->spill_lock);
  list_append(obj);
  vorx_mutex_unlock(&g_tmu_list_mutex);
  return obj;
}

/* Other units' buffers no longer come to it; a write of one in flight ends first. */
static void stop_being_process_trace(vorx_tmu_t *tmu)
{
  if (!tmu->is_process_trace) return;
  vorx_mutex_lock(&g_process_trace_mutex);
  if (g_process_trace == tmu) g_process_trace = NULL;
  vorx_mutex_unlock(&g_process_trace_mutex);
  tmu->is_process_trace = 0;
}

void vorx_tmu_keep_as_process_trace(vorx_tmu_t *tmu)
{
  if (!tmu) return;
  vorx_mutex_lock(&tmu->spill_lock);
  if (tmu->writer) vorx_tmu_writer_keep_open(tmu->writer);
  tmu->is_process_trace = 1;
  vorx_mutex_unlock(&tmu->spill_lock);
  vorx_mutex_lock(&g_process_trace_mutex);
  g_process_trace = tmu;
  vorx_mutex_unlock(&g_process_trace_mutex);
}

/* Returns the unit's buffers to the process; the unit's block itself stays. */
static void unit_release(vorx_tmu_t *tmu, int spill)
{
  if (spill) tmu->spill(tmu);
  stop_being_process_trace(tmu);
  install_idle(tmu);
  unit_lock(&tmu->buffer_lock);
  vorx_mutex_lock(&tmu->spill_lock);
  writer_close_destroy(tmu);
  if (tmu->mode != vorx_tmu_mode_ring) consumption_sub((vorx_u64_t)pool_bytes(tmu));
  for (vorx_u32_t i = 0; i < tmu->pool.buf_num; i++) buffer_free(&tmu->pool.buffs[i]);
  free(tmu->pool.buffs);
  tmu->pool.buffs = NULL;
  tmu->pool.buf_num = 0;
  vorx_mutex_unlock(&tmu->spill_lock);
  unit_unlock(&tmu->buffer_lock);
  vorx_mutex_destroy(&tmu->mutex);
  vorx_mutex_destroy(&tmu->spill_lock);
}

static void detach_unit(vorx_tmu_t *tmu)
{
  install_idle(tmu);
  vorx_tmu_writer_t *w = tmu->writer;
  if (w && w->close_after_spill(w) && w->is_open(w)) w->close(w);
}

/* The process trace goes last: the other units may still need it for their last buffers. */
void vorx_tmu_adjust_all_tmus(void)
{
  vorx_mutex_lock(&g_tmu_list_mutex);
  for (int trace_pass = 0; trace_pass < 2; trace_pass++)
    for (vorx_tmu_t *t = g_tmu_list.next; t != &g_tmu_list; t = t->next) {
      if (t->is_process_trace != trace_pass) continue;
      t->spill(t);
      detach_unit(t);
    }
  vorx_mutex_unlock(&g_tmu_list_mutex);
}

/* In a forked child every unit belongs to the parent: its buffers may hold
 * reservations of threads that do not exist here and its locks may have been
 * held at the fork. The child forgets them all without touching them (the
 * parent writes them), and starts an empty list. */
void vorx_tmu_forget_all_after_fork(void)
{
  g_tmu_list.prev = g_tmu_list.next = &g_tmu_list;
  pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  g_tmu_list_mutex = fresh;
  g_process_trace_mutex = fresh;
  /* The parent's process trace is the parent's: only the child's copy of its descriptor goes. */
  vorx_tmu_t *trace = g_process_trace;
  if (trace && trace->writer && trace->writer->is_open(trace->writer)) trace->writer->close(trace->writer);
  g_process_trace = NULL;
  __atomic_store_n(&g_tmu_memory_consumption, 0, __ATOMIC_SEQ_CST);
  __atomic_store_n(&g_tmu_records_lost, 0, __ATOMIC_SEQ_CST);
  __atomic_store_n(&g_tmu_loss_causes, 0, __ATOMIC_SEQ_CST);
}

void vorx_tmu_free_all_tmus(void)
{
  vorx_mutex_lock(&g_tmu_list_mutex);
  while (g_tmu_list.next != &g_tmu_list) {
    vorx_tmu_t *t = g_tmu_list.next;
    while (t->is_process_trace && t->next != &g_tmu_list) t = t->next; /* the process trace last */
    list_remove(t);
    unit_release(t, 1);
  }
  vorx_mutex_unlock(&g_tmu_list_mutex);
}

/* ------------------------------------------------------------------ creator */

static vorx_tmu_t *creator_alloc(vorx_tmu_creator_t *c, vorx_u32_t type, const char *file_name)
{
  vorx_tmu_t *tmu = unit_create(type);
  if (!tmu || c->state == 1) return tmu;
  if (!tmu->set_file(tmu, file_name)) {
    c->discard_unit(c, tmu);
    return NULL;
  }
  return tmu;
}

static vorx_tmu_t *creator_alloc_fd(vorx_tmu_creator_t *c, vorx_u32_t type, int fd)
{
  TMU_ASSERT((((vorx_file_desc_t)fd) >= 0));
  if (type != vorx_tmu_per_process) {
    fprintf(stderr, "per_process is the only type of fd tmu\n");
    return NULL;
  }
  vorx_tmu_t *tmu = unit_create(type);
  if (tmu && !tmu->set_fd(tmu, fd)) {
    c->discard_unit(c, tmu);
    return NULL;
  }
  return tmu;
}

static vorx_tmu_t *attach_comm_writer(vorx_tmu_creator_t *c, vorx_u32_t type, vorx_tmu_writer_t *w)
{
  if (type != vorx_tmu_per_process) {
    fprintf(stderr, "per_process is the only type of comm tmu\n");
    if (w) vorx_tmu_writer_destroy(w);
    return NULL;
  }
  if (!w) return NULL;
  vorx_tmu_t *tmu = unit_create(type);
  if (!tmu) {
    vorx_tmu_writer_destroy(w);
    return NULL;
  }
  attach_writer(tmu, w);
  return tmu;
}

static vorx_tmu_t *creator_alloc_comm(vorx_tmu_creator_t *c, vorx_u32_t type, const char *name, vorx_u32_t port)
{
  return attach_comm_writer(c, type, type == vorx_tmu_per_process ? vorx_tmu_comm_writer_create(name, port) : NULL);
}

static vorx_tmu_t *creator_alloc_remote(vorx_tmu_creator_t *c, vorx_u32_t type, const char *stream_name,
                                        const char *host, vorx_u32_t port)
{
  /* The communication layer offers local channels: the host names the channel's domain.
   * The stream name goes first, so one receiving loop can serve many streams. */
  return attach_comm_writer(c, type, type == vorx_tmu_per_process ? vorx_tmu_comm_writer_create_named(stream_name, host, port) : NULL);
}

static void creator_detach(vorx_tmu_creator_t *c, vorx_tmu_t *tmu) { detach_unit(tmu); }

static void creator_free_unit(vorx_tmu_creator_t *c, vorx_tmu_t *tmu)
{
  vorx_mutex_lock(&g_tmu_list_mutex);
  list_remove(tmu);
  vorx_mutex_unlock(&g_tmu_list_mutex);
  unit_release(tmu, 1);
}

static void creator_discard_unit(vorx_tmu_creator_t *c, vorx_tmu_t *tmu)
{
  vorx_mutex_lock(&g_tmu_list_mutex);
  list_remove(tmu);
  vorx_mutex_unlock(&g_tmu_list_mutex);
  unit_release(tmu, 0);
  free(tmu);
}

static vorx_tmu_creator_t g_creator_object = {
    creator_alloc, creator_alloc_fd, creator_alloc_comm, creator_alloc_remote,
    creator_detach, creator_free_unit, creator_discard_unit, 0, 0};
static volatile int g_creator_flag; /* 0 none, 1 being made, 2 made */

vorx_tmu_creator_t *vorx_tmu_creator_alloc(vorx_u64_t limit)
{
  int expected = 0;
  if (__atomic_compare_exchange_n(&g_creator_flag, &expected, 1, 0, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    if (limit == 0) {
      vorx_u64_t per_cpu = (vorx_u64_t)sal_get_cpu_number() * 0x200000u + 0x200000u;
      limit = per_cpu > VORX_TMU_DEFAULT_LIMIT ? per_cpu : VORX_TMU_DEFAULT_LIMIT;
    }
    g_tmu_memory_limit = limit;
    g_vorx_tmu_creator = &g_creator_object;
    __atomic_store_n(&g_creator_flag, 2, __ATOMIC_RELEASE);
  }
  while (__atomic_load_n(&g_creator_flag, __ATOMIC_ACQUIRE) != 2) sal_yield();
  return g_vorx_tmu_creator;
}

void vorx_tmu_creator_set_state(vorx_tmu_creator_t *c, vorx_u32_t state) { c->state = state; }

void vorx_tmu_creator_set_compression_level(vorx_tmu_creator_t *c, int level)
{
  vorx_pool *old = g_compressor_pool;
  g_compressor_pool = NULL;
  vorx_free_compressor_pool(old);
  if (level != 0) g_compressor_pool = vorx_alloc_compressor_pool(level, VORX_TMU_BUFFER_SIZE, c->expected_compressors);
}

void vorx_tmu_creator_set_expected_compressors(vorx_tmu_creator_t *c, vorx_u32_t count) { c->expected_compressors = count; }

void vorx_tmu_creator_set_write_record_callbacks(vorx_tmu_creator_t *c, vorx_tmu_length_cb length, vorx_tmu_encode_cb encode)
{
  g_calculate_length_cb = length;
  g_encode_data_cb = encode;
}

/* ------------------------------------------------------------------ compression */

/* The block is deflated behind room for its header in the compressor's own output, so that header and
 * block go out in one write, which the writer makes whole or takes back. A buffer the compressor cannot
 * take (a record grew it beyond the compressors' capacity) goes out as it is: plain records may stand
 * between compressed blocks. */
int vorx_tmu_write_compressed(vorx_tmu_t *tmu, const void *data, vorx_u32_t length)
{
  vorx_pool *pool = g_compressor_pool;
  vorx_pool_item *item = NULL;
  pool->vtbl->get(pool, &item); /* blocks until a compressor is free */
  xl_compressor_t *c = ((vorx_compressor_item_t *)item)->compressor;
  vorx_tmu_writer_t *w = tmu->writer;
  vorx_u8_t frame[16];
  vorx_u32_t frame_size = tf_compressed_put_head(frame, 0);
  int res;
  void *out = NULL;
  vorx_u32_t out_len = 0;
  if (c && c->type(c) == XL_COMPRESSOR_ZLIB && c->output_size > frame_size && c->set_buffer(c, data, length) == 0) {
    out = c->output + frame_size;
    out_len = c->output_size - frame_size;
  }
  if (out && c->process(c, &out, &out_len) == 0) {
    tf_compressed_put_head(c->output, out_len);
    res = w->write(w, c->output, frame_size + out_len);
  } else {
    res = w->write(w, data, length);
  }
  pool->vtbl->put(pool, item);
  return res;
}
