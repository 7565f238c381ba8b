/* Shared parts of the record encoders: the string rule, API arguments, dispatch through a
 * record object's operations, the pre-encoded buffer record and the stack packers. The
 * per-record encoders are generated (tf_records_gen.c). */
#include "vorx_traceformat.h"

#include <stdio.h>
#include <stdlib.h>

void tf_assert_fail(const char *file, unsigned line, const char *func, const char *expr, const char *note)
{
  fprintf(stderr, "%s:%u %s: Assertion '%s' failed.\n%s\n", file, line, func, expr, note);
  abort();
}

uint32_t tf_str_stored_len(const char *s)
{
  if (!s) return 1;
  uint32_t n = 0;
  while (n < TF_STRING_MAX_CHARS && s[n]) n++;
  return n + 1;
}

uint32_t tf_put_str_bytes(uint8_t *d, const char *s)
{
  uint32_t n = tf_str_stored_len(s) - 1;
  for (uint32_t i = 0; i < n; i++) d[i] = (uint8_t)s[i];
  d[n] = 0;
  return n + 1;
}

uint32_t tf_put_str16(uint8_t *d, const char *s)
{
  tf_st16(d, (uint16_t)tf_str_stored_len(s));
  return 2 + tf_put_str_bytes(d + 2, s);
}

uint32_t tf_put_str8(uint8_t *d, const char *s)
{
  /* The length byte is truncated; the size operation counts the truncated length, so a name
   * of 255 characters or more fails the encoder's closing assertion. */
  tf_st8(d, (uint8_t)tf_str_stored_len(s));
  return 1 + tf_put_str_bytes(d + 1, s);
}

uint32_t tf_put_bytes(uint8_t *d, const void *src, uint32_t n)
{
  const uint8_t *s = (const uint8_t *)src;
  if (!s) return 0;
  for (uint32_t i = 0; i < n; i++) d[i] = s[i];
  return n;
}

uint32_t tf_map_fail(uint32_t key)
{
  tf_assert_fail(__FILE__, __LINE__, __func__, "kind is one of the record's kinds", "");
}

/* ------------------------------------------------------------------ API arguments */

static uint32_t tf_args_count(const tf_arg_t *args)
{
  uint32_t n = 0;
  while (n < TF_MAX_ARGS && args[n].vrbl_type != 0) n++;
  return n;
}

static uint32_t tf_arg_size(const tf_arg_t *a)
{
  switch (a->kind) {
  case TF_ARG_SCALAR:
    TF_ASSERT(a->vrbl_type <= 8); /* the value itself stands in the argument */
    return a->vrbl_type;
  case TF_ARG_ARRAY:
    if (a->count == -1) {
      TF_ASSERT(a->vrbl_type == 1);
      return 2 + tf_str_stored_len((const char *)(uintptr_t)a->value);
    }
    return 4 + (a->value ? (uint32_t)a->count * a->vrbl_type : 0);
  case TF_ARG_OPTIONAL:
    return 1 + (a->value ? a->vrbl_type : 0);
  default:
    TF_ASSERT(!"argument kind is 0, 1 or 2");
    return 0;
  }
}

uint32_t tf_args_size(uint8_t version, const tf_arg_t *args)
{
  uint32_t n = tf_args_count(args);
  if (n == 0) return 0; /* no version byte without arguments */
  uint32_t size = 1;
  for (uint32_t i = 0; i < n; i++) size += tf_arg_size(&args[i]);
  return size;
}

static uint32_t tf_put_scalar(uint8_t *d, uint32_t width, uint64_t v)
{
  switch (width) {
  case 1: tf_st8(d, (uint8_t)v); break;
  case 2: tf_st16(d, (uint16_t)v); break;
  case 4: tf_st32(d, (uint32_t)v); break;
  case 8: tf_st64(d, v); break;
  default: tf_put_bytes(d, &v, width); break; /* odd widths: the low bytes, little-endian */
  }
  return width;
}

uint32_t tf_args_encode(uint8_t *d, uint8_t version, const tf_arg_t *args)
{
  uint32_t n = tf_args_count(args);
  if (n == 0) return 0;
  uint32_t pos = 0;
  tf_st8(d + pos++, version);
  for (uint32_t i = 0; i < n; i++) {
    const tf_arg_t *a = &args[i];
    const void *p = (const void *)(uintptr_t)a->value;
    if (a->kind == TF_ARG_SCALAR) {
      pos += tf_put_scalar(d + pos, a->vrbl_type, a->value);
    } else if (a->kind == TF_ARG_ARRAY && a->count == -1) {
      pos += tf_put_str16(d + pos, (const char *)p);
    } else if (a->kind == TF_ARG_ARRAY) {
      uint32_t count = p ? (uint32_t)a->count : 0;
      tf_st32(d + pos, count);
      pos += 4;
      pos += tf_put_bytes(d + pos, p, a->vrbl_type * count);
    } else {
      tf_st8(d + pos++, p ? 1 : 0);
      if (p) pos += tf_put_bytes(d + pos, p, a->vrbl_type);
    }
  }
  return pos;
}

uint32_t tf_api_descriptor(uint32_t tid, uint32_t aux_id)
{
  return TF_APIWRAP_V1_DESC | (tid != TF_ID_ABSENT ? TF_DB_TID : 0) | (aux_id != TF_ID_ABSENT ? TF_DB_AUX_ID : 0);
}

/* ------------------------------------------------------------------ dispatch */

static const tf_record_t *tf_checked(const void *record)
{
  const tf_record_t *r = (const tf_record_t *)record;
  TF_ASSERT(r != NULL && r->guard_begin == TF_GUARD);
  return r;
}

uint32_t tf_record_size(const void *record)
{
  const tf_record_t *r = tf_checked(record);
  return r->ops->size(r);
}

void tf_record_encode(const void *record, void *dest, uint32_t dest_size)
{
  const tf_record_t *r = tf_checked(record);
  r->ops->encode(r, dest, dest_size);
}

uint32_t tf_record_size_cb(const void *record) { return tf_record_size(record); }
void tf_record_encode_cb(void *dest, const void *record, uint32_t size) { tf_record_encode(record, dest, size); }

static uint32_t tf_buffer_size(const tf_record_t *base)
{
  return ((const tf_record_buffer_t *)base)->data.buf_size;
}

static void tf_buffer_encode(const tf_record_t *base, void *dest, uint32_t dest_buf_size)
{
  const tf_record_buffer_t *derived_type = (const tf_record_buffer_t *)base;
  TF_ASSERT(derived_type->data.buf_size == dest_buf_size);
  tf_put_bytes((uint8_t *)dest, derived_type->data.buf, dest_buf_size);
}

static const tf_record_ops_t tf_buffer_ops = {tf_buffer_size, tf_buffer_encode};

void tf_record_buffer_init(tf_record_buffer_t *r)
{
  tf_zero(r, sizeof *r);
  r->ops = &tf_buffer_ops;
  r->guard_begin = TF_GUARD;
  r->guard_end = TF_GUARD;
}

/* ------------------------------------------------------------------ stack packers */

/* Significant bytes of a signed value: drop the high bytes equal to the sign fill. */
static uint32_t tf_significant_bytes(int32_t v)
{
  uint32_t u = (uint32_t)v, fill = v < 0 ? 0xFFu : 0u, k = 4;
  while (k > 0 && ((u >> ((k - 1) * 8)) & 0xFFu) == fill) k--;
  return k;
}

/* Item: k (+0x40 when negative, + flags), then k bytes. Four value bytes are stored and the
 * position advances by k + 1 only: cheaper than a byte loop, and the caller keeps a word of
 * slack behind the capacity. Returns 0 when the item does not fit. */
static int tf_put_significant(uint8_t *d, uint32_t *pos, uint32_t cap, int32_t v, uint8_t flags)
{
  uint32_t k = tf_significant_bytes(v);
  if (!(*pos + k + 1 < cap)) return 0;
  d[*pos] = (uint8_t)(k | (v < 0 ? 0x40u : 0u) | flags);
  tf_st32(d + *pos + 1, (uint32_t)v);
  *pos += k + 1;
  return 1;
}

int tf_record_online_stack_pack(const uint32_t *frames, uint32_t count, uint8_t *bt_package, uint32_t *bt_size)
{
  TF_ASSERT(bt_package != ((void*)0) && bt_size != ((void*)0));
  uint32_t cap = *bt_size, pos = 0, prev = 0;
  int absolute = 1;
  *bt_size = 0;
  if (!frames || count == 0) return TF_PACK_OK;
  for (uint32_t i = count; i-- > 0;) {
    int32_t v = absolute ? (int32_t)frames[i] : (int32_t)(frames[i] - prev);
    if (!tf_put_significant(bt_package, &pos, cap, v, 0)) {
      *bt_size = pos;
      return TF_PACK_NO_ROOM;
    }
    absolute = frames[i] == 0;
    prev = frames[i];
  }
  *bt_size = pos;
  return TF_PACK_OK;
}

static int tf_put_sp_item(uint8_t *d, uint32_t *pos, uint32_t cap, uint32_t delta)
{
  if (delta < 128) {
    if (!(*pos + 1 < cap)) return 0;
    d[(*pos)++] = (uint8_t)(delta | 0x80u);
    return 1;
  }
  uint32_t k = delta > 0xFFFFFFu ? 4 : delta > 0xFFFFu ? 3 : delta > 0xFFu ? 2 : 1;
  if (!(*pos + k + 1 < cap)) return 0;
  d[*pos] = (uint8_t)k;
  tf_st32(d + *pos + 1, delta);
  *pos += k + 1;
  return 1;
}

static int tf_put_stack_ip_item(uint8_t *d, uint32_t *pos, uint32_t cap, int32_t q)
{
  if (q >= 0 && q <= 31) {
    if (!(*pos + 1 < cap)) return 0;
    d[(*pos)++] = (uint8_t)(0xA0u | (uint32_t)q);
    return 1;
  }
  if (q >= -31 && q <= -1) {
    if (!(*pos + 1 < cap)) return 0;
    d[(*pos)++] = (uint8_t)(0xE0u | ((uint32_t)q & 0x1Fu));
    return 1;
  }
  return tf_put_significant(d, pos, cap, q, 0x80u);
}

int tf_record_offline_stack_pack(const uint32_t *sp, const uint32_t *ip, uint32_t count, uint32_t first_sp,
                                 uint32_t last_ip, uint32_t last_stack_ip, uint32_t stack_end,
                                 uint8_t *bt_package, uint32_t *bt_size)
{
  TF_ASSERT(bt_package != ((void*)0) && bt_size != ((void*)0));
  uint32_t cap = *bt_size, pos = 0, prev_sp = first_sp;
  *bt_size = 0;
  if (!sp || !ip || count == 0) return TF_PACK_OK;
  for (uint32_t i = count; i-- > 0;) {
    int ok = tf_put_sp_item(bt_package, &pos, cap, (sp[i] - prev_sp) / 4);
    prev_sp = sp[i];
    if (ok && ip[i] >= sp[i] && ip[i] < stack_end) {
      ok = tf_put_stack_ip_item(bt_package, &pos, cap, (int32_t)(ip[i] - last_stack_ip) / 4);
      last_stack_ip = ip[i];
    } else if (ok) {
      ok = tf_put_significant(bt_package, &pos, cap, (int32_t)(ip[i] - last_ip), 0);
      last_ip = ip[i];
    }
    if (!ok) {
      *bt_size = pos;
      return TF_PACK_NO_ROOM;
    }
  }
  *bt_size = pos;
  return TF_PACK_OK;
}
