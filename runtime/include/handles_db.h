/* The handles database: operating-system handles (descriptors, streams) mapped to stable small ids that
 * the trace can use after the handle's number has been reused. Safe for all threads: each item has its own
 * mutex, and find reads the atomically written handle and id without a lock. Items are never freed while
 * the database lives; a removed one is reused for the next new handle of its bucket. */
#ifndef VORX_HANDLES_DB_H
#define VORX_HANDLES_DB_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_HANDLES_DB_BUCKETS 2048u

typedef struct vorx_handles_db vorx_handles_db;

typedef struct vorx_handle_item {
  volatile uint32_t handle; /* 0: free for reuse */
  volatile uint32_t id;
  char* value;              /* the handle's name, owned; null when unnamed */
  struct vorx_handle_item* all_next;
  struct vorx_handle_item* bucket_next;
  pthread_mutex_t mutex;
} vorx_handle_item;

/* What a value is: construct an empty one, free it, destroy it, compare it with a name, make it from a name. */
typedef struct vorx_handle_value_ops {
  char* (*construct)(void);
  void (*free_value)(char* value);
  void (*destroy)(char* value);
  int (*equals)(const char* value, const char* name);
  char* (*from_text)(const char* name);
} vorx_handle_value_ops;

typedef struct vorx_handles_db_ops {
  vorx_handle_item* (*find)(vorx_handles_db* db, uint32_t handle);
  void (*reinit)(vorx_handles_db* db);
  void (*nothing)(vorx_handles_db* db);
  void (*destroy_mutexes)(vorx_handles_db* db);
  /* 1 added, 0 the handle is known already */
  uint32_t (*add_with_name)(vorx_handles_db* db, uint32_t handle, const char* name);
  uint32_t (*add)(vorx_handles_db* db, uint32_t handle, const char* name);
  uint32_t (*duplicate)(vorx_handles_db* db, uint32_t old_handle, uint32_t new_handle);
  void (*remove)(vorx_handles_db* db, uint32_t handle);
  /* ids of the first min(count, capacity) handles; unknown ones are added on the spot */
  void (*translate)(vorx_handles_db* db, const uint32_t* handles, uint32_t count, uint32_t* ids,
                    uint32_t capacity);
} vorx_handles_db_ops;

struct vorx_handles_db {
  const vorx_handles_db_ops* ops;
  const vorx_handle_value_ops* value_ops;
  vorx_handle_item* all_items; /* newest first */
  vorx_handle_item* buckets[VORX_HANDLES_DB_BUCKETS];
  pthread_mutex_t list_mutex;   /* the links of all_items and of the buckets */
  pthread_mutex_t add_mutex;    /* one new handle at a time */
  pthread_mutex_t search_mutex; /* search by value */
  volatile uint32_t next_id;
  void* argument;
};

vorx_handles_db* vorx_alloc_handles_db(void* argument);
void vorx_free_handles_db(vorx_handles_db* db);
/* The bucket of a handle. */
uint32_t vorx_handles_db_bucket(uint32_t handle);

#ifdef __cplusplus
}
#endif

#endif
