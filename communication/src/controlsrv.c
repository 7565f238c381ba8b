/*
 * The command loop of a control server, and the sending side of control
 * commands. One connection may carry any number of commands; each gets one
 * response text, sent with its NUL.
 */
#include <stdio.h>
#include <string.h>

#include "comm_assert.h"
#include "vorx_comm.h"

const char comm_control_positive_response[] = "done";
const char comm_control_negative_response[] = "fail";

static void spin_lock(volatile int *lock)
{
    int expected;
    do {
        expected = 0;
    } while (!__atomic_compare_exchange_n(lock, &expected, 1, false, __ATOMIC_ACQUIRE,
                                          __ATOMIC_RELAXED));
}

static void spin_unlock(volatile int *lock)
{
    __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
}

void comm_control_server_init(comm_control_state *state)
{
    state->running = 1;
    state->lock = 0;
    state->established = 0;
}

bool comm_control_response_is_positive(const char *text)
{
    return text && strcmp(text, comm_control_positive_response) == 0;
}

const char *comm_control_handler_respond_with_message(const char *text, sal_allocator *allocator,
                                                      void *user)
{
    (void)user;
    size_t size = strlen(text) + 1;
    char *copy = sal_allocator_alloc(allocator, size);
    if (copy)
        memcpy(copy, text, size);
    return copy;
}

const char *comm_control_handler_respond_with_status(bool status, sal_allocator *allocator,
                                                     void *user)
{
    return comm_control_handler_respond_with_message(
        status ? comm_control_positive_response : comm_control_negative_response, allocator, user);
}

static bool is_stop_frame(const void *frame, uint32_t length)
{
    return length == sizeof(COMM_CONTROL_STOP_COMMAND) &&
           memcmp(frame, COMM_CONTROL_STOP_COMMAND, sizeof(COMM_CONTROL_STOP_COMMAND)) == 0;
}

/* Serves the commands of one connection until the peer closes it. */
static void serve_connection(comm_control_state *state, comm_client *client,
                             comm_control_process_fn process, void *user,
                             sal_allocator *requests, sal_allocator *responses)
{
    for (;;) {
        void *frame = NULL;
        uint32_t length = 0;
        if (comm_client_recv(client, &frame, &length, requests) != vorx_er_success)
            break;
        if (length == 0) {
            sal_allocator_free(requests);
            break;
        }
        const char *response;
        if (is_stop_frame(frame, length)) {
            state->running = 0;
            response = comm_control_handler_respond_with_status(true, responses, user);
        } else {
            /* A command travels with its NUL, but a peer may have left it out. */
            char *text = sal_allocator_realloc(requests, (vorx_size_t)length + 1);
            COMM_ASSERT(text != 0);
            text[length] = '\0';
            response = process(text, responses, user);
            COMM_ASSERT_MSG(response != 0, "response_cur != 0");
        }
        vorx_er_t sent = response ? comm_client_send(client, response, (uint32_t)strlen(response) + 1)
                                  : vorx_er_general_failure;
        sal_allocator_free(requests);
        sal_allocator_free(responses);
        if (sent != vorx_er_success)
            break;
    }
    comm_client_destroy(client);
}

bool comm_control_server_loop(comm_control_state *state, comm_control_process_fn process,
                              const char *domain, uint32_t id, const char *start_command,
                              void *user)
{
    /* Mapped memory: the loop runs on a raw clone that must not use the
     * heap's per-thread caches (see socket_unix.c). */
    sal_allocator requests, responses;
    sal_allocator_init(&requests, sal_allocator_type_mmap, SAL_ALLOCATOR_NO_LIMIT);
    sal_allocator_init(&responses, sal_allocator_type_mmap, SAL_ALLOCATOR_NO_LIMIT);
    comm_server server;
    bool result = false;

    spin_lock(&state->lock);
    if (comm_server_establish(&server, domain, id) != vorx_er_success) {
        spin_unlock(&state->lock);
        goto out;
    }
    state->established = 1;
    state->running = 1;
    spin_unlock(&state->lock);

    if (start_command && start_command[0]) {
        const char *response = process(start_command, &responses, user);
        bool accepted = comm_control_response_is_positive(response);
        sal_allocator_free(&responses);
        if (!accepted) {
            state->established = 0;
            comm_server_destroy(&server);
            goto out;
        }
    }
    snprintf(state->ipc_name, sizeof(state->ipc_name), "%s", domain);
    state->id = id;

    while (state->running) {
        comm_client client;
        if (comm_server_wait_client(&server, &client) != vorx_er_success) {
            state->established = 0;
            comm_server_destroy(&server);
            goto out;
        }
        serve_connection(state, &client, process, user, &requests, &responses);
    }
    state->established = 0;
    comm_server_destroy(&server);
    result = true;
out:
    sal_allocator_destroy(&requests);
    sal_allocator_destroy(&responses);
    return result;
}

bool comm_control_server_loop_break(comm_control_state *state)
{
    spin_lock(&state->lock);
    if (!state->established) {
        spin_unlock(&state->lock);
        return true;
    }
    state->running = 0;
    bool result = comm_control_command_send_simple(state->id, state->ipc_name,
                                                   COMM_CONTROL_STOP_COMMAND);
    if (!result && !state->established)
        result = true;
    spin_unlock(&state->lock);
    return result;
}

bool comm_control_command_send(uint32_t id, const char *domain, const char *command,
                               char **out_response, sal_allocator *allocator)
{
    comm_client client;
    if (comm_client_connect(&client, domain, id) != vorx_er_success)
        return false;
    void *response = NULL;
    uint32_t length = 0;
    bool ok = comm_client_send(&client, command, (uint32_t)strlen(command) + 1) == vorx_er_success &&
              comm_client_recv(&client, &response, &length, allocator) == vorx_er_success;
    comm_client_destroy(&client);
    /* A response that is not a text is a broken peer, not a broken caller. */
    if (!ok || length == 0 || ((const char *)response)[length - 1] != '\0')
        return false;
    if (out_response)
        *out_response = response;
    return true;
}

bool comm_control_command_send_simple(uint32_t id, const char *domain, const char *command)
{
    sal_allocator allocator;
    sal_allocator_init(&allocator, sal_allocator_type_mmap, SAL_ALLOCATOR_NO_LIMIT);
    char *response = NULL;
    bool ok = comm_control_command_send(id, domain, command, &response, &allocator) &&
              comm_control_response_is_positive(response);
    sal_allocator_destroy(&allocator);
    return ok;
}
