/* Types of the reader's decoding tables (tf_schema_gen.h, generated from records.tbl).
 * Plain data without pointers into the collector: a reader built for another architecture
 * uses the same tables. */
#ifndef TF_SCHEMA_H
#define TF_SCHEMA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum tf_field_kind {
  TF_FK_U8, TF_FK_U16, TF_FK_U32, TF_FK_U64,
  TF_FK_SIZE16, TF_FK_SIZE32, TF_FK_SIZEVAR,
  TF_FK_STR16, TF_FK_STR8, TF_FK_STRREST,
  TF_FK_ARR8, TF_FK_ARR16, TF_FK_ARR32,
  TF_FK_ENTS16, TF_FK_ENTS32,
  TF_FK_REST, TF_FK_ARGS,
  TF_FK_TAG4 /* four characters stored as a u32 */
} tf_field_kind_t;

typedef struct tf_field_desc {
  tf_field_kind_t kind;
  const char *name;
  uint8_t has_const;    /* value (or size's type) is a constant of the record */
  uint32_t const_value; /* in the main form */
  uint32_t alt_value;   /* in the alternate form */
  uint32_t optbit;      /* present only when the descriptor has this bit */
  uint8_t altonly;      /* present only in the alternate form */
  uint32_t elem;        /* arrays: element size; entries: fixed part */
  uint8_t nlens;        /* entries: number of strings */
  uint8_t lens[4];      /* entries: offsets of the u32 string lengths */
} tf_field_desc_t;

typedef struct tf_schema {
  const char *name;
  uint32_t desc;
  uint32_t alt_desc; /* equal to desc for records with one form */
  int type;          /* -1 for records without a size field */
  int version;       /* -1 when the record has no constant version */
  uint8_t api;
  uint8_t sized;
  const tf_field_desc_t *fields;
  uint16_t nfields;
} tf_schema_t;

typedef struct tf_api_desc {
  uint32_t id;
  uint8_t form; /* 1: type 7, 2: type 9 */
  uint8_t version;
  const char *name;
  const char *args; /* comma-separated: u8 u16 u32 u64 str t[N] t[n] */
} tf_api_desc_t;

#ifdef __cplusplus
}
#endif
#endif
