/* zlib compressors and decompressors, and the pool of compressors shared by all units. */
#include "vorx_compressor.h"

#include "sal.h"

#include <stdlib.h>
#include <string.h>

static int zlib_type(xl_compressor_t *c) { return c->kind; }

static int zlib_set_buffer(xl_compressor_t *c, const void *input, vorx_u32_t length)
{
  c->input = input;
  c->input_length = length;
  return 0;
}

/* One pass of zlib over the compressor's input: deflate with Z_FINISH makes the
 * whole buffer one complete stream, inflate with Z_SYNC_FLUSH takes one such
 * stream back. The output goes to the caller's buffer, or to the compressor's own
 * when *output is null. 0 on a complete stream, -2 when the output was too
 * small, -1 on an error; the stream is reset in every case. */
static int zlib_pass(xl_compressor_t *c, void **output, vorx_u32_t *length, int (*step)(z_streamp, int), int flush,
                     int (*reset)(z_streamp))
{
  int own = *output == NULL;
  z_stream *z = &c->stream;
  z->next_in = (Bytef *)c->input;
  z->avail_in = c->input_length;
  z->next_out = own ? c->output : (Bytef *)*output;
  z->avail_out = own ? c->output_size : *length;
  vorx_u32_t room = z->avail_out;
  int rc = step(z, flush);
  *length = room - z->avail_out;
  if (rc == Z_STREAM_END) {
    if (reset(z) != Z_OK) return -1;
    if (own) *output = c->output;
    return 0;
  }
  reset(z);
  return rc == Z_OK ? -2 : -1;
}

static int zlib_deflate(xl_compressor_t *c, void **output, vorx_u32_t *length)
{
  return zlib_pass(c, output, length, deflate, Z_FINISH, deflateReset);
}

static int zlib_inflate(xl_compressor_t *c, void **output, vorx_u32_t *length)
{
  return zlib_pass(c, output, length, inflate, Z_SYNC_FLUSH, inflateReset);
}

static void zlib_destroy_deflate(xl_compressor_t *c)
{
  if (c->kind) deflateEnd(&c->stream);
  free(c->output);
  free(c);
}

static void zlib_destroy_inflate(xl_compressor_t *c)
{
  if (c->kind) inflateEnd(&c->stream);
  free(c->output);
  free(c);
}

static xl_compressor_t *new_object(vorx_u32_t output_size)
{
  xl_compressor_t *c = calloc(1, sizeof *c);
  if (!c) return NULL;
  c->output = malloc(output_size);
  if (!c->output) {
    free(c);
    return NULL;
  }
  c->output_size = output_size;
  c->type = zlib_type;
  c->set_buffer = zlib_set_buffer;
  return c;
}

int xl_alloc_compressor(xl_compressor_t **out, int type, vorx_u32_t input_capacity, int level)
{
  if (!out || type != XL_COMPRESSOR_ZLIB || level < -1 || level > 9) return -1;
  xl_compressor_t *c = new_object(input_capacity + (input_capacity + 9) / 10 + 1024);
  if (!c) return -3;
  c->process = zlib_deflate;
  c->destroy = zlib_destroy_deflate;
  c->level = level == -1 ? 2 : level;
  c->input_capacity = input_capacity;
  if (deflateInit(&c->stream, level) != Z_OK) {
    c->destroy(c); /* kind 0: no stream to end */
    return -1;
  }
  c->kind = XL_COMPRESSOR_ZLIB;
  *out = c;
  return 0;
}

int xl_alloc_decompressor(xl_compressor_t **out, int type, vorx_u32_t output_size)
{
  if (!out || type != XL_COMPRESSOR_ZLIB) return -1;
  xl_compressor_t *c = new_object(output_size);
  if (!c) return -3;
  c->process = zlib_inflate;
  c->destroy = zlib_destroy_inflate;
  if (inflateInit(&c->stream) != Z_OK) {
    c->destroy(c);
    return -1;
  }
  c->kind = XL_COMPRESSOR_ZLIB;
  *out = c;
  return 0;
}

/* ------------------------------------------------------------------ pool */

static void compressor_item_destroy(vorx_pool_item *item)
{
  vorx_compressor_item_t *ci = (vorx_compressor_item_t *)item;
  if (ci->compressor) ci->compressor->destroy(ci->compressor);
  free(ci);
}

vorx_pool *vorx_alloc_compressor_pool(int level, vorx_u32_t buffer_size, vorx_u32_t count)
{
  if (level == 0) return NULL;
  vorx_pool *pool = vorx_alloc_pool();
  if (!pool) return NULL;
  if (count == 0) count = sal_get_cpu_number();
  if (count == 0) count = 1;
  /* Room for a buffer that grew a little beyond its size, and deflate's worst case. */
  vorx_u32_t capacity = buffer_size + (buffer_size + 9) / 10 + 4096;
  for (vorx_u32_t i = 0; i < count; i++) {
    vorx_compressor_item_t *ci = calloc(1, sizeof *ci);
    if (!ci) break;
    ci->item.destructor = compressor_item_destroy;
    if (xl_alloc_compressor(&ci->compressor, XL_COMPRESSOR_ZLIB, capacity, level) != 0) ci->compressor = NULL;
    pool->vtbl->put(pool, &ci->item);
  }
  return pool;
}

void vorx_free_compressor_pool(vorx_pool *pool)
{
  if (pool) vorx_free_pool(pool);
}
