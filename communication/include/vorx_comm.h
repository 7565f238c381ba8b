/*
 * Local sockets with length-prefixed frames, used in both directions: by the
 * collector's client to reach the run-tool server, by the run-tool server to
 * listen, and by the control server of each profiled process.
 *
 * A frame is a 32-bit length in host byte order followed by that many bytes.
 * An address is the text "/tmp/_server_<domain><id>" placed in the abstract
 * unix namespace (its leading '/' replaced by NUL): no file is ever made.
 *
 * Results: vorx_er_success (1); vorx_er_general_failure (2) for bad
 * arguments, a name too long or a buffer that could not be had;
 * vorx_er_connection_failure (14) for a failure of the socket itself
 * (refused, reset, closed by the peer, short transfer).
 *
 * No operation raises SIGPIPE, allocates from the application's heap on the
 * way of a frame (buffers come from the caller's allocator), or retries
 * anything but an interrupted call.
 */
#ifndef VORX_COMM_H
#define VORX_COMM_H

#include <stdbool.h>
#include <stdint.h>

#include "sal_allocator.h"
#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define COMM_IPC_NAME_SIZE 512u
#define COMM_ADDRESS_SIZE 108u /* sun_path of an AF_UNIX address */
#define COMM_ADDRESS_ROOT "/tmp"
#define COMM_ADDRESS_PREFIX "_server_"

typedef struct comm_client comm_client;
typedef struct comm_server comm_server;

/* An address as the socket calls take it; large enough for either family. */
typedef struct comm_address {
    uint32_t length;
    union {
        uint16_t family;
        unsigned char bytes[128];
    } u;
} comm_address;

typedef struct comm_client_ops {
    vorx_er_t (*send)(comm_client *client, const void *bytes, uint32_t length);
    vorx_er_t (*recv)(comm_client *client, void **out_buffer, uint32_t *out_length,
                      sal_allocator *allocator);
    void (*destroy)(comm_client *client);
    int (*create_socket)(void);
    vorx_er_t (*build_address)(const char *domain, uint32_t id, comm_address *out);
} comm_client_ops;

typedef struct comm_server_ops {
    vorx_er_t (*wait_client)(comm_server *server, comm_client *out_client);
    void (*destroy)(comm_server *server);
    vorx_er_t (*build_address)(const char *domain, uint32_t id, comm_address *out);
    vorx_er_t (*publish)(comm_server *server);
} comm_server_ops;

struct comm_client {
    const comm_client_ops *ops;
    int socket;              /* -1 when closed */
    uint32_t pending_length; /* a frame whose header was read, its buffer refused */
    char *name;              /* not used by the unix operations: always null */
};

struct comm_server {
    const comm_client_ops *ops;
    char ipc_name[COMM_IPC_NAME_SIZE]; /* "<domain><id>" */
    int socket;                        /* the listening socket, -1 when closed */
    char *name;                        /* ipc_name while listening, else null */
    const comm_server_ops *server_ops;
};

extern const comm_client_ops sock_client_local_unix_ops;
extern const comm_server_ops sock_server_local_unix_ops;

/* Counted: every comm_init must be paired with comm_fini. */
vorx_er_t comm_init(void);
void comm_fini(void);

/* The address text of a domain and id, "/tmp/_server_<domain><id>"; 2 when
 * it would not fit in COMM_ADDRESS_SIZE bytes with its NUL. */
vorx_er_t comm_format_address(char *out, uint32_t size, const char *domain, uint32_t id);

/* Connects a fresh client record (its previous content is ignored). */
vorx_er_t comm_client_connect(comm_client *client, const char *domain, uint32_t id);
/* One frame; null data or length 0 is refused with 2. */
vorx_er_t comm_client_send(comm_client *client, const void *bytes, uint32_t length);
/* One frame into a buffer of exactly its length from the allocator. The out
 * values are set only on success. A buffer the allocator refuses keeps the
 * length in pending_length, so that the next call reads the body. */
vorx_er_t comm_client_recv(comm_client *client, void **out_buffer, uint32_t *out_length,
                           sal_allocator *allocator);
void comm_client_destroy(comm_client *client);

vorx_er_t comm_server_establish(comm_server *server, const char *domain, uint32_t id);
const char *comm_server_get_ipc_name(const comm_server *server);
vorx_er_t comm_server_wait_client(comm_server *server, comm_client *out_client);
void comm_server_destroy(comm_server *server);

/* ---------------------------------------------------------- control loop */

#define COMM_CONTROL_STOP_COMMAND "__internal_service_stop_command__"

extern const char comm_control_positive_response[]; /* "done" */
extern const char comm_control_negative_response[]; /* "fail" */

typedef struct comm_control_state {
    uint32_t id;
    volatile int lock;        /* spin lock: 0 free, 1 held */
    volatile int running;     /* 1 while commands are served */
    volatile int established; /* 1 from a successful listen until the close */
    char ipc_name[COMM_IPC_NAME_SIZE];
} comm_control_state;

/* Serves one command: returns the response text, allocated from `allocator`. */
typedef const char *(*comm_control_process_fn)(const char *command, sal_allocator *allocator,
                                               void *user);

void comm_control_server_init(comm_control_state *state);
/* Listens as <domain><id> and serves commands until the stop command; true
 * when it ended by the stop command. */
bool comm_control_server_loop(comm_control_state *state, comm_control_process_fn process,
                              const char *domain, uint32_t id, const char *start_command,
                              void *user);
bool comm_control_server_loop_break(comm_control_state *state);

const char *comm_control_handler_respond_with_status(bool status, sal_allocator *allocator,
                                                     void *user);
const char *comm_control_handler_respond_with_message(const char *text, sal_allocator *allocator,
                                                      void *user);
bool comm_control_response_is_positive(const char *text);

/* Sends command with its NUL and reads one response, which must end in NUL. */
bool comm_control_command_send(uint32_t id, const char *domain, const char *command,
                               char **out_response, sal_allocator *allocator);
/* The same, true when the response is "done". */
bool comm_control_command_send_simple(uint32_t id, const char *domain, const char *command);

#ifdef __cplusplus
}
#endif

#endif /* VORX_COMM_H */
