/* Compressor and decompressor objects, and the pool that shares compressors between units.
 * Each trace buffer is deflated as one complete zlib stream, so a reader can start at any
 * compressed block. */
#ifndef VORX_COMPRESSOR_H
#define VORX_COMPRESSOR_H

#include "vorx_pool.h"
#include "vorx_types.h"

#include <zlib.h>

#ifdef __cplusplus
extern "C" {
#endif

#define XL_COMPRESSOR_ZLIB 1

typedef struct xl_compressor xl_compressor_t;
/* Four operations, in this order, then data. */
struct xl_compressor {
  int (*type)(xl_compressor_t *c);
  /* Stores the input; returns 0. */
  int (*set_buffer)(xl_compressor_t *c, const void *input, vorx_u32_t length);
  /* Runs the whole input through. *output null: the object's own buffer, set on return.
   * 0 done; -2 the output was too small (partial length out); -1 failure. */
  int (*process)(xl_compressor_t *c, void **output, vorx_u32_t *length);
  void (*destroy)(xl_compressor_t *c);
  int kind;  /* 1; 0 after a failed initialisation */
  int level; /* the requested level; -1 is kept as 2 */
  const void *input;
  vorx_u32_t input_length;
  vorx_u8_t *output;
  vorx_u32_t output_size;
  vorx_u32_t input_capacity;
  z_stream stream;
};

/* 0; -1 for bad arguments or a failed deflateInit; -3 when memory fails. */
int xl_alloc_compressor(xl_compressor_t **out, int type, vorx_u32_t input_capacity, int level);
int xl_alloc_decompressor(xl_compressor_t **out, int type, vorx_u32_t output_size);

typedef struct vorx_compressor_item {
  vorx_pool_item item;
  xl_compressor_t *compressor; /* null when it could not be made */
} vorx_compressor_item_t;

/* Level 0 gives null. count compressors, each for buffers of buffer_size. */
vorx_pool *vorx_alloc_compressor_pool(int level, vorx_u32_t buffer_size, vorx_u32_t count);
void vorx_free_compressor_pool(vorx_pool *pool);

#ifdef __cplusplus
}
#endif
#endif
