/* Trace management units: the sinks of trace streams.
 *
 * A writer asks a unit for room, writes and confirms (put_record and put_encoded do all three).
 * The unit keeps records in buffers, spills a full buffer to its writer (a file, a file
 * descriptor or a communication channel), deflating it when the process has a compressor pool,
 * and keeps the buffer memory of all units of the process under one limit by halving the
 * biggest unit when a new one doesn't fit. In ring mode nothing is written until a spill is
 * asked for, and only the last seconds of records are kept.
 *
 * The limit grants each buffer a share; the memory itself is taken at the first record, small,
 * and doubles up to the share as records come, so a thread that records little costs little.
 * A unit never stops its process for want of a resource: a record that finds no memory, and the
 * records of a buffer that its writer refused (a full or read-only disk), are dropped and
 * counted, per unit and for the process. A unit that cannot open its own file hands its buffers
 * to the process trace, which keeps its file open from the start (see vorx_tmu_keep_as_process_trace).
 *
 * Any thread may write into a unit, also from a signal handler: waits poll with 10 ms sleeps.
 * Lock order: the list mutex is never held while taking a unit's buffer_lock for a write;
 * buffer_lock before spill_lock. */
#ifndef VORX_TMU_H
#define VORX_TMU_H

#include "sal.h"
#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_TMU_BUFFER_SIZE (1u << 20)        /* each buffer's share while the limit allows */
#define VORX_TMU_FIRST_BUFFER_SIZE 0x1000u     /* memory a buffer takes at its first record */
#define VORX_TMU_MAX_BUFFER_SIZE 0x1000000u    /* records needing more are dropped */
#define VORX_TMU_DEFAULT_LIMIT 0x8000000u      /* 128 MiB, or 2 MiB a CPU + 2 MiB if more */
#define VORX_TMU_POLL_NS 10000000L

typedef int vorx_file_desc_t;

typedef enum vorx_tmu_type {
  vorx_tmu_per_process = 0,
  vorx_tmu_per_thread = 1,
  vorx_tmu_per_thread_no_blocking = 2,
  vorx_tmu_type_eof
} vorx_tmu_type_t;

typedef enum vorx_tmu_mode { vorx_tmu_mode_normal = 0, vorx_tmu_mode_ring = 1 } vorx_tmu_mode_t;

/* ------------------------------------------------------------------ writers */

typedef struct vorx_tmu_writer vorx_tmu_writer_t;
/* Five operations, in this order, then the writer's own data. */
struct vorx_tmu_writer {
  int (*open)(vorx_tmu_writer_t *w);
  void (*close)(vorx_tmu_writer_t *w);
  int (*write)(vorx_tmu_writer_t *w, const void *bytes, vorx_u32_t length);
  int (*is_open)(vorx_tmu_writer_t *w);
  int (*close_after_spill)(vorx_tmu_writer_t *w);
};

/* File writers write all or nothing: a write cut short is taken back (the file truncated to where it was),
 * so that a file always ends on a whole record. */
/* Opened for every spill and closed after it, so the file grows by appending. */
vorx_tmu_writer_t *vorx_tmu_file_writer_create(const char *path);
/* A file writer opens its file at once and keeps it open from then on (above the program's usual
 * descriptor numbers), for a file that the process may lose the right to open later. Before each spill
 * it checks that its descriptor still names the file it opened, and opens the file again when not.
 * 0 for writers of other kinds. */
int vorx_tmu_writer_keep_open(vorx_tmu_writer_t *w);
/* A descriptor open from the start; close leaves it open. */
vorx_tmu_writer_t *vorx_tmu_file_desc_writer_create(int fd);
/* A local channel of the communication layer: connects once, at the first open. */
vorx_tmu_writer_t *vorx_tmu_comm_writer_create(const char *name, vorx_u32_t port);
void vorx_tmu_writer_destroy(vorx_tmu_writer_t *w);

/* ------------------------------------------------------------------ units */

typedef struct vorx_tmu vorx_tmu_t;
typedef vorx_u32_t (*vorx_tmu_length_cb)(const void *record);
typedef void (*vorx_tmu_encode_cb)(void *dest, const void *record, vorx_u32_t size);

typedef struct vorx_tmu_buffer {
  vorx_u8_t *head;                /* null until the first record */
  vorx_u32_t size;                /* bytes at head */
  vorx_u32_t share;               /* bytes the buffer may grow to, granted by the limit */
  vorx_u32_t records;             /* records in the buffer: what a refused write loses */
  vorx_u8_t *write_ptr;
  vorx_u64_t start_time;          /* system time of the first record, in ring mode */
  volatile vorx_s32_t pend_writes_cntr; /* reservations not yet confirmed (atomic) */
  vorx_u64_t spills;
} vorx_tmu_buffer_t;

/* A record being written in place. A small one is written under the buffer lock, which close lets go;
 * a bigger one was reserved outside it and is confirmed. */
typedef struct vorx_tmu_lease {
  volatile vorx_u32_t *held_lock;
  vorx_tmu_buffer_t *buffer;
  int ok; /* 0: no room could be had, the record is dropped (and counted) */
} vorx_tmu_lease_t;

struct vorx_tmu {
  /* Operations, replaced as the unit changes state (no writer, working, detached). */
  int (*set_file)(vorx_tmu_t *tmu, const char *path);
  int (*set_fd)(vorx_tmu_t *tmu, int fd);
  int (*put_record)(vorx_tmu_t *tmu, const void *head, vorx_u32_t head_size, const void *tail, vorx_u32_t tail_size);
  int (*spill)(vorx_tmu_t *tmu);
  int (*put_encoded)(vorx_tmu_t *tmu, const void *record);
  void (*confirm_record)(vorx_tmu_t *tmu, vorx_tmu_buffer_t *buffer);
  /* Room for size bytes, written by the caller and then given back with vorx_tmu_close_record; NULL when
   * the unit drops records (no writer, detached). Nothing else may be written into the unit meanwhile by
   * the same thread. */
  void *(*open_record)(vorx_tmu_t *tmu, vorx_u32_t size, vorx_tmu_lease_t *lease);

  struct {
    vorx_tmu_buffer_t *buffs;
    vorx_u32_t buf_num;
    vorx_u32_t active;
  } pool;
  vorx_u64_t switches;
  vorx_tmu_writer_t *writer;
  void (*writer_destroy)(vorx_tmu_writer_t *w);
  vorx_mutex_t mutex; /* set up and torn down with the others; free for future use */
  /* taken for every record: a word of the unit's own rather than a C library mutex, which the collector
   * reaches only through its namespace layer (see unit_lock in tmu.c) */
  volatile vorx_u32_t buffer_lock;
  vorx_mutex_t spill_lock;
  vorx_u8_t locked;
  /* 1 while open_record is the working one and the unit is not a ring: a small record may then be written
   * by vorx_tmu_open_record in place, without the call (checked under buffer_lock) */
  volatile vorx_u8_t direct_open;
  volatile vorx_u8_t writer_ready;
  vorx_u8_t magic_written;
  vorx_tmu_length_cb calculate_length;
  vorx_tmu_encode_cb encode_data;
  vorx_u8_t no_compression;
  vorx_u32_t mode;
  vorx_u32_t ring_duration;
  vorx_u32_t type;
  vorx_tmu_t *prev, *next; /* place in the process's list of units */
  vorx_u32_t buffer_num;   /* buffers of this type in normal mode */
  vorx_u8_t is_process_trace; /* takes the buffers of units that cannot open their own files */
  volatile vorx_u64_t records_lost; /* dropped records of this unit (atomic) */
};

/* Two-phase write: room for size bytes in the active buffer; confirm_record when written. */
int vorx_tmu_alloc_record(vorx_tmu_t *tmu, vorx_u32_t size, void **record, vorx_tmu_buffer_t **buffer);

/* Records up to this size are written in place under buffer_lock; bigger ones are reserved. */
#define VORX_TMU_SMALL_RECORD 256u

/* With buffer_lock held: room for a small record in the active buffer, the lease keeping the lock until
 * vorx_tmu_close_record; NULL (the lock still held) when it does not fit. */
static inline void *vorx_tmu_take_in_place(vorx_tmu_t *tmu, vorx_u32_t size, vorx_tmu_lease_t *lease)
{
  vorx_tmu_buffer_t *active = &tmu->pool.buffs[tmu->pool.active];
  if ((vorx_u32_t)(active->head + active->size - active->write_ptr) < size) return 0;
  void *dest = active->write_ptr;
  active->write_ptr += size;
  active->records++;
  lease->held_lock = &tmu->buffer_lock;
  lease->buffer = 0;
  lease->ok = 1;
  return dest;
}

/* open_record, with the common case inline: a small record that fits the active buffer of a working
 * unit. Everything else (a switch, a spill, a ring, a unit that drops records) goes through the unit. */
static inline void *vorx_tmu_open_record(vorx_tmu_t *tmu, vorx_u32_t size, vorx_tmu_lease_t *lease)
{
  if (size <= VORX_TMU_SMALL_RECORD && __atomic_exchange_n(&tmu->buffer_lock, 1u, __ATOMIC_ACQUIRE) == 0) {
    void *dest = tmu->direct_open ? vorx_tmu_take_in_place(tmu, size, lease) : 0;
    if (dest) return dest;
    __atomic_store_n(&tmu->buffer_lock, 0u, __ATOMIC_RELEASE);
  }
  return tmu->open_record(tmu, size, lease);
}

/* Ends a write begun with open_record: 1 when the record is in the unit. */
static inline int vorx_tmu_close_record(vorx_tmu_t *tmu, vorx_tmu_lease_t *lease)
{
  if (lease->held_lock) {
    __atomic_store_n(lease->held_lock, 0u, __ATOMIC_RELEASE);
    return 1;
  }
  if (lease->buffer) tmu->confirm_record(tmu, lease->buffer);
  return lease->ok;
}

void vorx_tmu_set_write_record_callbacks(vorx_tmu_t *tmu, vorx_tmu_length_cb length, vorx_tmu_encode_cb encode);
void vorx_tmu_disable_compression(vorx_tmu_t *tmu);
void vorx_tmu_disable_magic_record(vorx_tmu_t *tmu);
void vorx_tmu_set_ring_buffer_duration(vorx_tmu_t *tmu, vorx_u32_t seconds);
void vorx_tmu_set_mode(vorx_tmu_t *tmu, vorx_u32_t mode);

/* The unit becomes the process trace: its file is opened now, while the program still has the rights
 * it started with, and stays open (on a high descriptor, checked to be still the same file before each
 * spill), and it takes the buffers of every unit that cannot open its own file. Until the unit is freed. */
void vorx_tmu_keep_as_process_trace(vorx_tmu_t *tmu);

/* Why records were dropped, as bits of vorx_tmu_loss_causes. */
#define VORX_TMU_LOST_WRITE 1u  /* the writer refused a buffer: a full or read-only disk, no rights */
#define VORX_TMU_LOST_MEMORY 2u /* no memory for a buffer */
#define VORX_TMU_LOST_SIZE 4u   /* a record beyond VORX_TMU_MAX_BUFFER_SIZE */
/* Records dropped by all units of the process, and the causes seen. */
vorx_u64_t vorx_tmu_records_lost(void);
vorx_u32_t vorx_tmu_loss_causes(void);

/* Spills and detaches every unit (writes vanish afterwards without error). */
void vorx_tmu_adjust_all_tmus(void);
/* Spills every unit, closes its writer and frees its buffers. */
void vorx_tmu_free_all_tmus(void);
/* In a forked child: forget the parent's units without writing or locking them. */
void vorx_tmu_forget_all_after_fork(void);

/* Bytes granted to buffers of units outside ring mode (their shares), and the limit on them. */
vorx_u64_t vorx_tmu_memory_consumption(void);
vorx_u64_t vorx_tmu_memory_limit(void);

/* ------------------------------------------------------------------ creator */

typedef struct vorx_tmu_creator vorx_tmu_creator_t;
struct vorx_tmu_creator {
  vorx_tmu_t *(*alloc)(vorx_tmu_creator_t *c, vorx_u32_t type, const char *file_name);
  vorx_tmu_t *(*alloc_fd)(vorx_tmu_creator_t *c, vorx_u32_t type, int fd);
  vorx_tmu_t *(*alloc_comm)(vorx_tmu_creator_t *c, vorx_u32_t type, const char *name, vorx_u32_t port);
  vorx_tmu_t *(*alloc_remote)(vorx_tmu_creator_t *c, vorx_u32_t type, const char *stream_name, const char *host,
                              vorx_u32_t port);
  void (*detach)(vorx_tmu_creator_t *c, vorx_tmu_t *tmu);
  void (*free_unit)(vorx_tmu_creator_t *c, vorx_tmu_t *tmu);
  void (*discard_unit)(vorx_tmu_creator_t *c, vorx_tmu_t *tmu);
  vorx_u32_t state;                /* 1: units are made without a file */
  vorx_u32_t expected_compressors; /* pool size; 0: one per CPU */
};

extern vorx_tmu_creator_t *g_vorx_tmu_creator;

/* The process's creator, made at the first call; that call decides the memory limit
 * (0: the default). Safe to call concurrently. */
vorx_tmu_creator_t *vorx_tmu_creator_alloc(vorx_u64_t limit);
void vorx_tmu_creator_set_state(vorx_tmu_creator_t *c, vorx_u32_t state);
/* Frees any compressor pool; a level other than 0 makes a new one. */
void vorx_tmu_creator_set_compression_level(vorx_tmu_creator_t *c, int level);
void vorx_tmu_creator_set_expected_compressors(vorx_tmu_creator_t *c, vorx_u32_t count);
void vorx_tmu_creator_set_write_record_callbacks(vorx_tmu_creator_t *c, vorx_tmu_length_cb length,
                                                 vorx_tmu_encode_cb encode);

/* ------------------------------------------------------------------ reading channels */

#include "vorx_comm.h"

/* The receiving side of comm units: accepts writers on a channel and hands each, with its
 * stream name, to a callback that reads the stream. */
typedef struct vorx_tmu_comm_reader {
  volatile int flag;    /* spin flag around setting up the server */
  volatile int running; /* the loop goes on while set */
  int established;
  char *domain;
  vorx_u32_t port;
  comm_server server;
} vorx_tmu_comm_reader_t;

/* Returns non-zero when it keeps the client (and destroys it later itself). */
typedef int (*vorx_tmu_comm_reader_cb)(comm_client *client, const char *stream_name, void *context);

void vorx_tmu_comm_reader_init(vorx_tmu_comm_reader_t *reader);
/* Serves the channel (domain and port, as the writers name it) until
 * vorx_tmu_comm_reader_loop_break; 0 when the channel can't be set up. */
int vorx_tmu_comm_reader_loop(vorx_tmu_comm_reader_t *reader, vorx_tmu_comm_reader_cb callback, void *context,
                              const char *domain, vorx_u32_t port);
/* 1 if it stopped a running loop. */
int vorx_tmu_comm_reader_loop_break(vorx_tmu_comm_reader_t *reader);

/* A channel writer that sends the stream name, with its NUL, as its first message. */
vorx_tmu_writer_t *vorx_tmu_comm_writer_create_named(const char *stream_name, const char *domain, vorx_u32_t port);

#ifdef __cplusplus
}
#endif
#endif
