/* Trace records: byte form, record objects and hand-built writers.
 *
 * The one public header of the trace-format library. The per-record code is generated from
 * traceformat/records.tbl into tf_records_gen.h (included at the end); this header holds what
 * every record shares: the store helpers, the string rule, API arguments, the operations of
 * record objects and the stack packers.
 *
 * Nothing here allocates, locks or touches errno: records are encoded on application threads,
 * also inside signal handlers. */
#ifndef VORX_TRACEFORMAT_H
#define VORX_TRACEFORMAT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TF_GUARD 0xFEDAFEDAu
/* A record object marks an absent tid or aux_id of an API record with this value. */
#define TF_ID_ABSENT 0xFFFFFFFFu
/* The encoders copy at most this many characters of a string, then the NUL. */
#define TF_STRING_MAX_CHARS 8191u
#define TF_MAX_ARGS 16

/* Descriptor bits (the descriptor is a mask of the fields that follow it). */
enum {
  TF_DB_SECOND_WORD = 0x20000000u,
  TF_DB_EVENT_CLASS = 0x00000001u,
  TF_DB_TID = 0x00000002u,
  TF_DB_AUX_ID = 0x00000004u,
  TF_DB_VALUE3 = 0x00000008u,
  TF_DB_TIMESTAMP = 0x00000010u,
  TF_DB_VALUE5 = 0x00000020u,
  TF_DB_VALUE9 = 0x00000200u,
  TF_DB_VALUE10 = 0x00000400u,
  TF_DB_SIZE16 = 0x00400000u,
  TF_DB_SIZE32 = 0x00800000u,
  TF_DB_API_SIZE = 0x01000000u,
  TF_DB_RECORD = 0x02000000u,
  TF_DB_MAGIC = 0x08000000u,
};

/* event_class bits */
enum {
  TF_EC_SWITCH_TO = 1u,
  TF_EC_SAMPLE = 4u,
  TF_EC_API = 64u,
  TF_EC_BEGIN = 4096u,
  TF_EC_END = 8192u,
  TF_EC_SWITCH_FROM = 16384u,
};

/* The assertion routine of this library: prints
 * "%s:%u %s: Assertion '%s' failed.\n%s\n" on stderr and aborts. */
void tf_assert_fail(const char *file, unsigned line, const char *func, const char *expr, const char *note)
    __attribute__((noreturn));
#define TF_ASSERT(e) ((e) ? (void)0 : tf_assert_fail(__FILE__, __LINE__, __func__, #e, ""))

/* Little-endian stores at any alignment (the target is little-endian x86). */
static inline void tf_st8(uint8_t *d, uint8_t v) { *d = v; }
static inline void tf_st16(uint8_t *d, uint16_t v) { memcpy(d, &v, 2); }
static inline void tf_st32(uint8_t *d, uint32_t v) { memcpy(d, &v, 4); }
static inline void tf_st64(uint8_t *d, uint64_t v) { memcpy(d, &v, 8); }

static inline void tf_zero(void *p, size_t n)
{
  /* A plain loop: no library call, the collector may run before libc is usable. */
  uint8_t *b = (uint8_t *)p;
  while (n--) *b++ = 0;
}

/* Length a string takes in a record: characters (at most 8191) plus the NUL; 1 for null. */
uint32_t tf_str_stored_len(const char *s);
/* Stores the string's bytes and NUL under that rule; returns the bytes written. */
uint32_t tf_put_str_bytes(uint8_t *d, const char *s);
/* u16 length then the string. */
uint32_t tf_put_str16(uint8_t *d, const char *s);
/* u8 length (truncated to 8 bits) then the string. */
uint32_t tf_put_str8(uint8_t *d, const char *s);
uint32_t tf_put_bytes(uint8_t *d, const void *src, uint32_t n);
/* Mapped constant with a key outside its table: a programmer's error. */
uint32_t tf_map_fail(uint32_t key);

/* ------------------------------------------------------------------ API arguments */

enum { TF_ARG_SCALAR = 0, TF_ARG_ARRAY = 1, TF_ARG_OPTIONAL = 2 };

/* Five words: element width in bytes (0 ends the list), element count (-1 with kind 1 is a
 * string), kind, and the value itself or a pointer to it. */
typedef struct __attribute__((packed)) tf_arg {
  uint32_t vrbl_type;
  int32_t count;
  uint32_t kind;
  uint64_t value;
} tf_arg_t;

static inline void tf_arg_set(tf_arg_t *a, uint32_t vrbl_type, int32_t count, uint32_t kind, uint64_t value)
{
  a->vrbl_type = vrbl_type;
  a->count = count;
  a->kind = kind;
  a->value = value;
}
uint32_t tf_args_size(uint8_t version, const tf_arg_t *args);
uint32_t tf_args_encode(uint8_t *d, uint8_t version, const tf_arg_t *args);
/* Descriptor of an API record object: tid and aux_id present unless TF_ID_ABSENT. */
uint32_t tf_api_descriptor(uint32_t tid, uint32_t aux_id);

/* ------------------------------------------------------------------ record objects */

typedef struct tf_record tf_record_t;
typedef struct tf_record_ops {
  uint32_t (*size)(const tf_record_t *record);
  void (*encode)(const tf_record_t *record, void *dest, uint32_t dest_buf_size);
} tf_record_ops_t;

/* The head every record object starts with. */
struct __attribute__((packed)) tf_record {
  const tf_record_ops_t *ops;
  uint32_t guard_begin;
};

uint32_t tf_record_size(const void *record);
void tf_record_encode(const void *record, void *dest, uint32_t dest_size);
/* The same with the argument order of a unit's write-record callbacks. */
uint32_t tf_record_size_cb(const void *record);
void tf_record_encode_cb(void *dest, const void *record, uint32_t size);

#include "tf_records_gen.h"

/* A record that is already encoded: encode copies its bytes. */
typedef struct __attribute__((packed)) tf_record_buffer {
  const tf_record_ops_t *ops;
  uint32_t guard_begin;
  struct __attribute__((packed)) {
    const void *buf;
    uint32_t buf_size;
  } data;
  uint32_t guard_end;
} tf_record_buffer_t;
void tf_record_buffer_init(tf_record_buffer_t *r);

/* ------------------------------------------------------------------ stack packers */

enum { TF_PACK_OK = 1, TF_PACK_NO_ROOM = 2 };

/* bt_size: capacity in, used length out. The destination must always have room for a whole
 * 32-bit word behind the position, as the writer stores four bytes and advances by fewer. */
int tf_record_online_stack_pack(const uint32_t *frames, uint32_t count, uint8_t *bt_package, uint32_t *bt_size);
int tf_record_offline_stack_pack(const uint32_t *sp, const uint32_t *ip, uint32_t count, uint32_t first_sp,
                                 uint32_t last_ip, uint32_t last_stack_ip, uint32_t stack_end,
                                 uint8_t *bt_package, uint32_t *bt_size);

#ifdef __cplusplus
}
#endif
#endif
