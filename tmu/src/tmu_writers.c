/* Writers: where a unit's spilled buffers go. */
#include "tmu_internal.h"

#include "vorx_comm.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

typedef struct file_writer {
  vorx_tmu_writer_t ops;
  char *path; /* null for a descriptor writer */
  int fd;
  /* A kept file: the device and inode it was opened as, to tell it from a descriptor of the program's
   * that took its number after the program closed it. */
  vorx_u64_t device, inode;
} file_writer_t;

typedef struct comm_writer {
  vorx_tmu_writer_t ops;
  char *stream_name; /* sent first, with its NUL, by writers of named streams */
  char *name;
  vorx_u32_t port;
  int tried;     /* the connection is attempted once */
  int connected;
  comm_client client;
} comm_writer_t;

/* ------------------------------------------------------------------ file */

static int file_open(vorx_tmu_writer_t *w)
{
  file_writer_t *f = (file_writer_t *)w;
  int fd = sal_open(f->path);
  if (fd >= 0) {
    sal_seek(fd, 0, 0, SEEK_END); /* appending: the file is reopened at every spill */
  } else {
    fd = sal_create_ex(f->path, 0644);
  }
  f->fd = fd;
  return fd >= 0;
}

static void file_close(vorx_tmu_writer_t *w)
{
  file_writer_t *f = (file_writer_t *)w;
  if (f->fd >= 0) sal_close(f->fd);
  f->fd = -1;
}

static void seek_to(int fd, vorx_s64_t offset)
{
  sal_seek(fd, (vorx_u32_t)offset, (vorx_s32_t)(offset >> 32), SEEK_SET);
}

/* All or nothing: a write cut short (a full disk, a file size limit) is taken back, so that the file
 * still ends on a whole record and the next spill appends where this one began. */
static int file_write(vorx_tmu_writer_t *w, const void *bytes, vorx_u32_t length)
{
  file_writer_t *f = (file_writer_t *)w;
  vorx_s64_t start = sal_seek(f->fd, 0, 0, SEEK_CUR);
  const vorx_u8_t *next = bytes;
  vorx_u32_t left = length;
  while (left) {
    vorx_ssize_t n = sal_write(f->fd, next, left);
    if (n <= 0) break;
    next += n;
    left -= (vorx_u32_t)n;
  }
  if (left == 0) return 1;
  if (start >= 0 && left != length) {
    sal_truncate(f->fd, start);
    seek_to(f->fd, start);
  }
  return 0;
}

static int file_is_open(vorx_tmu_writer_t *w) { return ((file_writer_t *)w)->fd >= 0; }
static int file_close_after_spill(vorx_tmu_writer_t *w) { return 1; }

static file_writer_t *file_writer_alloc(const char *path)
{
  if (!path) return NULL;
  file_writer_t *f = calloc(1, sizeof *f);
  if (!f) return NULL;
  f->path = sal_strdup(path);
  if (!f->path) {
    free(f);
    return NULL;
  }
  f->fd = -1;
  return f;
}

vorx_tmu_writer_t *vorx_tmu_file_writer_create(const char *path)
{
  file_writer_t *f = file_writer_alloc(path);
  if (!f) return NULL;
  f->ops = (vorx_tmu_writer_t){file_open, file_close, file_write, file_is_open, file_close_after_spill};
  return &f->ops;
}

/* ------------------------------------------------------------------ kept file */

static int kept_open(vorx_tmu_writer_t *w)
{
  file_writer_t *f = (file_writer_t *)w;
  if (!file_open(w)) return 0;
  f->fd = sal_move_descriptor_high(f->fd);
  if (!sal_file_identity(f->fd, &f->device, &f->inode)) f->device = f->inode = 0;
  return 1;
}

/* Still the file it opened: the program may have closed the descriptor, and may have opened one of its
 * own under the same number since (never written, never closed by the unit). */
static int kept_is_open(vorx_tmu_writer_t *w)
{
  file_writer_t *f = (file_writer_t *)w;
  if (f->fd < 0) return 0;
  vorx_u64_t device, inode;
  if (sal_file_identity(f->fd, &device, &inode) && device == f->device && inode == f->inode) return 1;
  f->fd = -1;
  return 0;
}

static int kept_close_after_spill(vorx_tmu_writer_t *w) { return 0; }

int vorx_tmu_writer_keep_open(vorx_tmu_writer_t *w)
{
  if (w->open == kept_open) return 1;
  if (w->open != file_open) return 0;
  file_writer_t *f = (file_writer_t *)w;
  if (f->fd >= 0) file_close(w);
  f->ops = (vorx_tmu_writer_t){kept_open, file_close, file_write, kept_is_open, kept_close_after_spill};
  kept_open(w); /* now, while the program has its rights; a failure is tried again at each spill */
  return 1;
}

/* ------------------------------------------------------------------ file descriptor */

static int fd_open(vorx_tmu_writer_t *w) { return ((file_writer_t *)w)->fd >= 0; }
static void fd_close(vorx_tmu_writer_t *w) {}
static int fd_close_after_spill(vorx_tmu_writer_t *w) { return 0; }

vorx_tmu_writer_t *vorx_tmu_file_desc_writer_create(int fd)
{
  file_writer_t *f = calloc(1, sizeof *f);
  if (!f) return NULL;
  f->fd = fd;
  f->ops = (vorx_tmu_writer_t){fd_open, fd_close, file_write, file_is_open, fd_close_after_spill};
  return &f->ops;
}

/* ------------------------------------------------------------------ comm */

static int comm_open(vorx_tmu_writer_t *w)
{
  comm_writer_t *c = (comm_writer_t *)w;
  if (!c->tried) {
    c->tried = 1;
    c->connected = comm_client_connect(&c->client, c->name, c->port) == vorx_er_success;
    if (c->connected && c->stream_name &&
        comm_client_send(&c->client, c->stream_name, (vorx_u32_t)strlen(c->stream_name) + 1) != vorx_er_success) {
      comm_client_destroy(&c->client);
      c->connected = 0;
    }
  }
  return c->connected;
}

static void comm_close(vorx_tmu_writer_t *w)
{
  comm_writer_t *c = (comm_writer_t *)w;
  if (c->connected) comm_client_destroy(&c->client);
  c->connected = 0;
}

static int comm_write(vorx_tmu_writer_t *w, const void *bytes, vorx_u32_t length)
{
  comm_writer_t *c = (comm_writer_t *)w;
  return c->connected && comm_client_send(&c->client, bytes, length) == vorx_er_success;
}

static int comm_is_open(vorx_tmu_writer_t *w) { return ((comm_writer_t *)w)->connected; }
static int comm_close_after_spill(vorx_tmu_writer_t *w) { return 0; }

vorx_tmu_writer_t *vorx_tmu_comm_writer_create(const char *name, vorx_u32_t port)
{
  comm_writer_t *c = calloc(1, sizeof *c);
  if (!c) return NULL;
  c->name = sal_strdup(name ? name : "");
  c->port = port;
  c->client.socket = -1;
  c->ops = (vorx_tmu_writer_t){comm_open, comm_close, comm_write, comm_is_open, comm_close_after_spill};
  return &c->ops;
}

void vorx_tmu_writer_destroy(vorx_tmu_writer_t *w)
{
  if (!w) return;
  if (w->open == comm_open) {
    comm_writer_t *c = (comm_writer_t *)w;
    free(c->name);
    free(c->stream_name);
  } else {
    free(((file_writer_t *)w)->path);
  }
  free(w);
}

vorx_tmu_writer_t *vorx_tmu_comm_writer_create_named(const char *stream_name, const char *domain, vorx_u32_t port)
{
  vorx_tmu_writer_t *w = vorx_tmu_comm_writer_create(domain, port);
  if (!w) return NULL;
  comm_writer_t *c = (comm_writer_t *)w;
  c->stream_name = sal_strdup(stream_name ? stream_name : "");
  return w;
}
