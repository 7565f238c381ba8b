// The object table of the heap kind: which blocks the collector reported, so that only their release is
// reported too. Without a table (a size filter of 0 or 1) every allocation the filter lets through and
// every release is reported.
#include "event_filtering.h"
#include "vorx_htable.h"
#include "vorx_log.h"

namespace {

// Buckets of the table; the table grows its chains, so this only sets how long they get.
constexpr vorx_size_t kMemObjTableBuckets = 1u << 16;

vorx_u32_t address_key(const void* address) {
  return static_cast<vorx_u32_t>(reinterpret_cast<uintptr_t>(address));
}

}  // namespace

extern "C" {

void* g_vorx_mem_obj_htable = nullptr;

vorx_u32_t vorx_mem_obj_htable_init(const vorx_configuration* conf, void** out_table) {
  *out_table = nullptr;
  if (!conf || conf->memory_size_threshold < 2) return vorx_er_success;
  *out_table = vorx_alloc_object(vorx_htable_t(), kMemObjTableBuckets);
  return *out_table ? vorx_er_success : vorx_er_out_of_memory;
}

void vorx_mem_obj_htable_fini(void* table) {
  if (table) vorx_free_object(table);
}

// The wrappers of frees look into the table before they enter the runtime, so a thread may still be in it
// when the collection closes: the table stays until the next one is retired (at a later reattach), long
// after any such look has ended.
void vorx_mem_obj_htable_retire(void) {
  static void* retired = nullptr;
  void* table = __atomic_exchange_n(&g_vorx_mem_obj_htable, nullptr, __ATOMIC_ACQ_REL);
  vorx_mem_obj_htable_fini(retired);
  retired = table;
}

int vorx_mem_obj_htable_insert(void* table, const vorx_configuration* conf, uint64_t size, void* address) {
  if (size == 0 || address == nullptr) return 0;
  if (conf && size < conf->memory_size_threshold) return 0;
  if (!table) return 1;
  vorx_er_t inserted = vorx_htable_insert(static_cast<vorx_htable*>(table), address_key(address));
  VORX_ASSERT(inserted == vorx_er_success);
  return 1;
}

int vorx_mem_obj_htable_delete(void* table, void* address) {
  if (!table || !address) return 1;
  return vorx_htable_delete(static_cast<vorx_htable*>(table), address_key(address)) == vorx_er_success;
}

}  // extern "C"

// ------------------------------------------------------------------------------------------ handles

#include <stdlib.h>
#include <string.h>

#include "handles_db.h"

namespace {

char* value_construct() { return nullptr; }
void value_free(char* value) { free(value); }
int value_equals(const char* value, const char* name) { return value && name && strcmp(value, name) == 0; }
char* value_from_text(const char* name) {
  if (!name) return nullptr;
  char* copy = strdup(name);
  VORX_ASSERT(copy != nullptr);
  return copy;
}

const vorx_handle_value_ops kNameValues = {value_construct, value_free, value_free, value_equals, value_from_text};

uint32_t load(const volatile uint32_t* word) { return __atomic_load_n(word, __ATOMIC_ACQUIRE); }
void store(volatile uint32_t* word, uint32_t value) { __atomic_exchange_n(word, value, __ATOMIC_ACQ_REL); }

vorx_handle_item* db_find(vorx_handles_db* db, uint32_t handle) {
  if (handle == 0) return nullptr;
  vorx_handle_item* item = __atomic_load_n(&db->buckets[vorx_handles_db_bucket(handle)], __ATOMIC_ACQUIRE);
  for (; item; item = __atomic_load_n(&item->bucket_next, __ATOMIC_ACQUIRE))
    if (load(&item->handle) == handle) return item;
  return nullptr;
}

// A free item of the bucket, taken locked; or a new one, linked and locked.
vorx_handle_item* take_item(vorx_handles_db* db, uint32_t bucket) {
  for (vorx_handle_item* item = __atomic_load_n(&db->buckets[bucket], __ATOMIC_ACQUIRE); item;
       item = __atomic_load_n(&item->bucket_next, __ATOMIC_ACQUIRE)) {
    if (load(&item->handle) != 0 || pthread_mutex_trylock(&item->mutex) != 0) continue;
    if (load(&item->handle) == 0) {
      store(&item->id, 0);
      db->value_ops->destroy(item->value);
      item->value = nullptr;
      return item;
    }
    pthread_mutex_unlock(&item->mutex);
  }
  auto* item = static_cast<vorx_handle_item*>(calloc(1, sizeof(vorx_handle_item)));
  VORX_ASSERT(item != nullptr);
  pthread_mutex_init(&item->mutex, nullptr);
  pthread_mutex_lock(&item->mutex);
  pthread_mutex_lock(&db->list_mutex);
  item->all_next = db->all_items;
  __atomic_store_n(&db->all_items, item, __ATOMIC_RELEASE);
  item->bucket_next = db->buckets[bucket];
  __atomic_store_n(&db->buckets[bucket], item, __ATOMIC_RELEASE);
  pthread_mutex_unlock(&db->list_mutex);
  return item;
}

// The id of a named handle that another item already carries, or 0.
uint32_t id_of_value(vorx_handles_db* db, const char* name) {
  if (!name) return 0;
  uint32_t id = 0;
  pthread_mutex_lock(&db->search_mutex);
  for (vorx_handle_item* item = __atomic_load_n(&db->all_items, __ATOMIC_ACQUIRE); item && !id; item = item->all_next) {
    pthread_mutex_lock(&item->mutex);
    if (load(&item->handle) != 0 && db->value_ops->equals(item->value, name)) id = load(&item->id);
    pthread_mutex_unlock(&item->mutex);
  }
  pthread_mutex_unlock(&db->search_mutex);
  return id;
}

uint32_t db_add(vorx_handles_db* db, uint32_t handle, const char* name) {
  if (handle == 0) return 0;
  pthread_mutex_lock(&db->add_mutex);
  if (db_find(db, handle)) {
    pthread_mutex_unlock(&db->add_mutex);
    return 0;
  }
  uint32_t shared = id_of_value(db, name);
  vorx_handle_item* item = take_item(db, vorx_handles_db_bucket(handle));
  item->value = name ? db->value_ops->from_text(name) : db->value_ops->construct();
  uint32_t id = shared;
  if (!id) {
    id = __atomic_add_fetch(&db->next_id, 1u, __ATOMIC_ACQ_REL);
    VORX_ASSERT(id < 0xffffffffU);
  }
  store(&item->id, id);
  store(&item->handle, handle);
  pthread_mutex_unlock(&item->mutex);
  pthread_mutex_unlock(&db->add_mutex);
  return 1;
}

uint32_t db_duplicate(vorx_handles_db* db, uint32_t old_handle, uint32_t new_handle) {
  char* copy = nullptr;
  if (vorx_handle_item* old = db_find(db, old_handle)) {
    pthread_mutex_lock(&old->mutex);
    if (load(&old->handle) == old_handle && old->value) copy = db->value_ops->from_text(old->value);
    pthread_mutex_unlock(&old->mutex);
  }
  uint32_t added = db_add(db, new_handle, copy);
  db->value_ops->free_value(copy);
  return added;
}

void db_remove(vorx_handles_db* db, uint32_t handle) {
  vorx_handle_item* item = db_find(db, handle);
  if (!item) return;
  pthread_mutex_lock(&item->mutex);
  if (load(&item->handle) == handle) {
    store(&item->id, 0);
    db->value_ops->destroy(item->value);
    item->value = nullptr;
    store(&item->handle, 0);
  }
  pthread_mutex_unlock(&item->mutex);
}

void db_translate(vorx_handles_db* db, const uint32_t* handles, uint32_t count, uint32_t* ids, uint32_t capacity) {
  uint32_t n = count < capacity ? count : capacity;
  for (uint32_t i = 0; i < n; ++i) {
    vorx_handle_item* item = db_find(db, handles[i]);
    if (!item && db_add(db, handles[i], nullptr)) item = db_find(db, handles[i]);
    uint32_t id = item ? load(&item->id) : 0;
    ids[i] = id ? id : handles[i];
  }
}

void db_reinit(vorx_handles_db* db) {
  for (vorx_handle_item* item = db->all_items; item; item = item->all_next) db_remove(db, load(&item->handle));
  store(&db->next_id, 0);
}

void db_nothing(vorx_handles_db*) {}

void db_destroy_mutexes(vorx_handles_db* db) {
  for (vorx_handle_item* item = db->all_items; item; item = item->all_next) pthread_mutex_destroy(&item->mutex);
  pthread_mutex_destroy(&db->list_mutex);
  pthread_mutex_destroy(&db->add_mutex);
  pthread_mutex_destroy(&db->search_mutex);
}

const vorx_handles_db_ops kHandlesDbOps = {db_find, db_reinit, db_nothing, db_destroy_mutexes, db_add,
                                           db_add,  db_duplicate, db_remove, db_translate};

}  // namespace

extern "C" {

uint32_t vorx_handles_db_bucket(uint32_t h) {
  uint32_t a = h * (uint32_t)-32767 - 1;
  uint32_t b = (a ^ (a >> 10)) * 9;
  uint32_t c = (b ^ (b >> 6)) * (uint32_t)-2047 - 1;
  return (c ^ (c >> 16)) & (VORX_HANDLES_DB_BUCKETS - 1);
}

vorx_handles_db* vorx_alloc_handles_db(void* argument) {
  auto* db = static_cast<vorx_handles_db*>(calloc(1, sizeof(vorx_handles_db)));
  VORX_ASSERT(db != nullptr);
  db->ops = &kHandlesDbOps;
  db->value_ops = &kNameValues;
  db->argument = argument;
  pthread_mutex_init(&db->list_mutex, nullptr);
  pthread_mutex_init(&db->add_mutex, nullptr);
  pthread_mutex_init(&db->search_mutex, nullptr);
  return db;
}

void vorx_free_handles_db(vorx_handles_db* db) {
  if (!db) return;
  db->ops->destroy_mutexes(db);
  for (vorx_handle_item* item = db->all_items; item;) {
    vorx_handle_item* next = item->all_next;
    db->value_ops->destroy(item->value);
    free(item);
    item = next;
  }
  free(db);
}

}  // extern "C"
