/*
 * The local unix socket layer: addresses in the abstract namespace, one
 * frame per send, frames read whole into the caller's allocator.
 *
 * Nothing here allocates: the control thread that serves commands is a raw
 * clone that shares its creator's thread-local storage, so it must keep away
 * from the C library's per-thread heap caches.
 */

/* These calls run in the collector, whose errno is not to be read (it is the
 * application's business, and the tool's own is unreachable from here). An
 * interrupted send or receive is therefore simply tried again a few times; a
 * real failure fails again. connect and accept run with all signals blocked. */
#define COMM_SYSCALL_TRIES 4
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "comm_assert.h"
#include "vorx_comm.h"

static int g_comm_init_count;

vorx_er_t comm_init(void)
{
    __atomic_add_fetch(&g_comm_init_count, 1, __ATOMIC_SEQ_CST);
    return vorx_er_success;
}

void comm_fini(void)
{
    int left = __atomic_sub_fetch(&g_comm_init_count, 1, __ATOMIC_SEQ_CST);
    COMM_ASSERT_MSG(left >= 0, "comm_fini without comm_init");
}

vorx_er_t comm_format_address(char *out, uint32_t size, const char *domain, uint32_t id)
{
    if (!out || !domain || size == 0)
        return vorx_er_general_failure;
    int written = snprintf(out, size, "%s/%s%s%u", COMM_ADDRESS_ROOT, COMM_ADDRESS_PREFIX,
                           domain, id);
    if (written < 0 || (uint32_t)written >= size || (uint32_t)written >= COMM_ADDRESS_SIZE)
        return vorx_er_general_failure;
    return vorx_er_success;
}

/* ------------------------------------------------------------ signal masks */

/* connect and accept may sleep; no signal handler of the process may run in
 * the middle of them on this thread. */
static void block_all_signals(sigset_t *saved)
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, saved);
}

static void restore_signals(const sigset_t *saved)
{
    pthread_sigmask(SIG_SETMASK, saved, NULL);
}

/* ------------------------------------------------------------------ client */

static int unix_create_socket(void)
{
    return socket(AF_UNIX, SOCK_STREAM, 0);
}

static vorx_er_t unix_build_address(const char *domain, uint32_t id, comm_address *out)
{
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    char text[COMM_ADDRESS_SIZE];
    if (comm_format_address(text, sizeof(text), domain, id) != vorx_er_success)
        return vorx_er_general_failure;
    memcpy(addr.sun_path, text, strlen(text));
    addr.sun_path[0] = '\0'; /* abstract namespace: nothing in /tmp */
    memset(out, 0, sizeof(*out));
    memcpy(out->u.bytes, &addr, sizeof(addr));
    out->length = sizeof(addr); /* the whole structure, the tail zero */
    return vorx_er_success;
}

/* The socket calls go to the kernel directly: the C library's send, recv and connect are cancellation
 * points, and the collector talks to the server from the program's threads. */
static vorx_er_t send_all(int fd, const void *bytes, size_t length)
{
    ssize_t sent;
    int tries = COMM_SYSCALL_TRIES;
    do {
        sent = syscall(SYS_sendto, fd, bytes, length, MSG_NOSIGNAL, NULL, 0);
    } while (sent < 0 && --tries > 0);
    return sent == (ssize_t)length ? vorx_er_success : vorx_er_connection_failure;
}

static vorx_er_t unix_send(comm_client *client, const void *bytes, uint32_t length)
{
    if (!client || !bytes || length == 0)
        return vorx_er_general_failure;
    if (client->socket < 0)
        return vorx_er_connection_failure;
    if (send_all(client->socket, &length, sizeof(length)) != vorx_er_success)
        return vorx_er_connection_failure;
    return send_all(client->socket, bytes, length);
}

/* Reads exactly `length` bytes; a closed peer, a timeout or any error but an
 * interruption ends it. */
static vorx_er_t recv_all(int fd, void *buffer, size_t length)
{
    size_t done = 0;
    int tries = COMM_SYSCALL_TRIES;
    while (done < length) {
        ssize_t got = syscall(SYS_recvfrom, fd, (char *)buffer + done, length - done, 0, NULL, NULL);
        if (got > 0)
            done += (size_t)got;
        else if (got == 0 || --tries == 0)
            return vorx_er_connection_failure;
    }
    return vorx_er_success;
}

static vorx_er_t unix_recv(comm_client *client, void **out_buffer, uint32_t *out_length,
                           sal_allocator *allocator)
{
    if (!client || !out_buffer || !out_length || !allocator)
        return vorx_er_general_failure;
    if (client->socket < 0)
        return vorx_er_connection_failure;
    uint32_t length = client->pending_length;
    if (length == 0) {
        if (recv_all(client->socket, &length, sizeof(length)) != vorx_er_success)
            return vorx_er_connection_failure;
    }
    void *buffer = sal_allocator_alloc(allocator, length ? length : 1);
    if (!buffer) {
        client->pending_length = length;
        return vorx_er_general_failure;
    }
    client->pending_length = 0;
    if (length && recv_all(client->socket, buffer, length) != vorx_er_success) {
        sal_allocator_free(allocator);
        return vorx_er_connection_failure;
    }
    *out_buffer = buffer;
    *out_length = length;
    return vorx_er_success;
}

static void unix_destroy(comm_client *client)
{
    if (!client)
        return;
    if (client->socket >= 0)
        close(client->socket);
    client->socket = -1;
    client->pending_length = 0;
    client->name = NULL;
}

const comm_client_ops sock_client_local_unix_ops = {
    .send = unix_send,
    .recv = unix_recv,
    .destroy = unix_destroy,
    .create_socket = unix_create_socket,
    .build_address = unix_build_address,
};

static void client_reset(comm_client *client, const comm_client_ops *ops)
{
    client->ops = ops;
    client->socket = -1;
    client->pending_length = 0;
    client->name = NULL;
}

vorx_er_t comm_client_connect(comm_client *client, const char *domain, uint32_t id)
{
    if (!client || !domain)
        return vorx_er_general_failure;
    const comm_client_ops *ops = &sock_client_local_unix_ops;
    client_reset(client, ops);
    comm_address address;
    if (ops->build_address(domain, id, &address) != vorx_er_success)
        return vorx_er_general_failure;
    int fd = ops->create_socket();
    if (fd < 0)
        return vorx_er_connection_failure;
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
        close(fd);
        return vorx_er_connection_failure;
    }
    sigset_t saved;
    block_all_signals(&saved);
    int result;
    result = (int)syscall(SYS_connect, fd, (const struct sockaddr *)address.u.bytes, address.length);
    restore_signals(&saved);
    if (result != 0) {
        close(fd);
        return vorx_er_connection_failure;
    }
    client->socket = fd;
    return vorx_er_success;
}

vorx_er_t comm_client_send(comm_client *client, const void *bytes, uint32_t length)
{
    if (!client || !client->ops)
        return vorx_er_general_failure;
    return client->ops->send(client, bytes, length);
}

vorx_er_t comm_client_recv(comm_client *client, void **out_buffer, uint32_t *out_length,
                           sal_allocator *allocator)
{
    if (!client || !client->ops)
        return vorx_er_general_failure;
    return client->ops->recv(client, out_buffer, out_length, allocator);
}

void comm_client_destroy(comm_client *client)
{
    if (client && client->ops)
        client->ops->destroy(client);
}

/* ------------------------------------------------------------------ server */

static vorx_er_t unix_publish(comm_server *server)
{
    (void)server; /* the abstract name is visible the moment it is bound */
    return vorx_er_success;
}

static vorx_er_t unix_wait_client(comm_server *server, comm_client *out_client)
{
    if (!server || !out_client || server->socket < 0)
        return vorx_er_general_failure;
    sigset_t saved;
    block_all_signals(&saved);
    int fd;
    fd = accept(server->socket, NULL, NULL);
    restore_signals(&saved);
    if (fd < 0)
        return vorx_er_connection_failure;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    client_reset(out_client, server->ops);
    out_client->socket = fd;
    return vorx_er_success;
}

static void unix_server_destroy(comm_server *server)
{
    if (!server)
        return;
    if (server->socket >= 0) {
        shutdown(server->socket, SHUT_RD);
        close(server->socket);
    }
    server->socket = -1;
    server->name = NULL;
}

const comm_server_ops sock_server_local_unix_ops = {
    .wait_client = unix_wait_client,
    .destroy = unix_server_destroy,
    .build_address = unix_build_address,
    .publish = unix_publish,
};

vorx_er_t comm_server_establish(comm_server *server, const char *domain, uint32_t id)
{
    if (!server || !domain)
        return vorx_er_general_failure;
    memset(server, 0, sizeof(*server));
    server->ops = &sock_client_local_unix_ops;
    server->server_ops = &sock_server_local_unix_ops;
    server->socket = -1;

    int written = snprintf(server->ipc_name, sizeof(server->ipc_name), "%s%u", domain, id);
    if (written < 0 || (uint32_t)written >= COMM_IPC_NAME_SIZE - 8)
        return vorx_er_general_failure;
    comm_address address;
    if (server->server_ops->build_address(domain, id, &address) != vorx_er_success)
        return vorx_er_general_failure;

    int fd = server->ops->create_socket();
    if (fd < 0)
        return vorx_er_connection_failure;
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) != 0 ||
        bind(fd, (const struct sockaddr *)address.u.bytes, address.length) != 0 ||
        listen(fd, 1000) != 0) {
        close(fd);
        return vorx_er_connection_failure;
    }
    server->socket = fd;
    server->name = server->ipc_name;
    if (server->server_ops->publish(server) != vorx_er_success) {
        unix_server_destroy(server);
        return vorx_er_connection_failure;
    }
    return vorx_er_success;
}

const char *comm_server_get_ipc_name(const comm_server *server)
{
    return server ? server->ipc_name : NULL;
}

vorx_er_t comm_server_wait_client(comm_server *server, comm_client *out_client)
{
    if (!server || !server->server_ops)
        return vorx_er_general_failure;
    return server->server_ops->wait_client(server, out_client);
}

void comm_server_destroy(comm_server *server)
{
    if (server && server->server_ops)
        server->server_ops->destroy(server);
}
