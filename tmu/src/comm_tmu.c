/* Trace streams over the communication layer: the reading side. The writers are in
 * tmu_writers.c. */
#include "tmu_internal.h"

#include <stdlib.h>
#include <string.h>

void vorx_tmu_comm_reader_init(vorx_tmu_comm_reader_t *reader)
{
  memset(reader, 0, sizeof *reader);
  reader->server.socket = -1;
}

static int establish(vorx_tmu_comm_reader_t *r, const char *domain, vorx_u32_t port)
{
  int expected = 0;
  while (!__atomic_compare_exchange_n(&r->flag, &expected, 1, 0, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    expected = 0;
    sal_yield();
  }
  if (!r->established) {
    r->established = comm_server_establish(&r->server, domain, port) == vorx_er_success;
    if (r->established) {
      r->domain = sal_strdup(domain);
      r->port = port;
      __atomic_store_n(&r->running, 1, __ATOMIC_RELEASE);
    }
  }
  int ok = r->established;
  __atomic_store_n(&r->flag, 0, __ATOMIC_RELEASE);
  return ok;
}

int vorx_tmu_comm_reader_loop(vorx_tmu_comm_reader_t *reader, vorx_tmu_comm_reader_cb callback, void *context,
                              const char *domain, vorx_u32_t port)
{
  if (!establish(reader, domain, port)) return 0;
  while (__atomic_load_n(&reader->running, __ATOMIC_ACQUIRE)) {
    comm_client *client = calloc(1, sizeof *client);
    if (!client) break;
    if (comm_server_wait_client(&reader->server, client) != vorx_er_success) {
      free(client);
      continue;
    }
    if (!__atomic_load_n(&reader->running, __ATOMIC_ACQUIRE)) { /* the wake-up of loop_break */
      comm_client_destroy(client);
      free(client);
      break;
    }
    sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    void *name = NULL;
    vorx_u32_t length = 0;
    int kept = 0;
    /* The name arrives as UTF-8 with its NUL, which is the collector's own text form here. */
    if (comm_client_recv(client, &name, &length, &alloc) == vorx_er_success && length > 0 &&
        ((const char *)name)[length - 1] == 0)
      kept = callback(client, (const char *)name, context);
    sal_allocator_destroy(&alloc);
    if (!kept) {
      comm_client_destroy(client);
      free(client);
    }
  }
  comm_server_destroy(&reader->server);
  reader->established = 0;
  free(reader->domain);
  reader->domain = NULL;
  return 1;
}

int vorx_tmu_comm_reader_loop_break(vorx_tmu_comm_reader_t *reader)
{
  if (!__atomic_exchange_n(&reader->running, 0, __ATOMIC_ACQ_REL)) return 0;
  /* A connection wakes the loop out of its wait; it sees the cleared word and ends. */
  comm_client wake;
  if (comm_client_connect(&wake, reader->domain, reader->port) == vorx_er_success) comm_client_destroy(&wake);
  return 1;
}
