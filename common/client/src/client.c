/*
 * The client of the run-tool server: command texts, one connection per
 * exchange, and the failure reports of each operation.
 */
#include "vorx_client.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "sal.h"
#include "sal_assert.h"
#include "vorx_comm.h"
#include "vorx_log.h"

/* The client sits beside the communication layer, below the collector's
 * assertion machinery, and checks the same way. */
SAL_DECLARE_ASSERT_ROUTINE(client)
SAL_DEFINE_ASSERT_ROUTINE(client)
#define CLIENT_ASSERT(cond) SAL_ASSERT_WITH(client_assert_fail, cond)
#define CLIENT_ASSERT_MSG(cond, ...) SAL_ASSERT_MSG_WITH(client_assert_fail, cond, __VA_ARGS__)

#define SEPARATOR ":"

vorx_client *g_vorx_client;

/* The command of each report severity. */
static const uint32_t g_severity_command[vorx_severity_eof] = {
    vorx_command_error, vorx_command_error, vorx_command_warning, vorx_command_info};

/* snprintf that fails on truncation as well as on error. */
static bool format_text(char *out, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int written = vsnprintf(out, size, format, args);
    va_end(args);
    return written >= 0 && (size_t)written < size;
}

/* ----------------------------------------------------------------- exchanges */

/* Connect and send; on success the connection stays open for a reply. */
static vorx_er_t open_and_send(const vorx_client *client, comm_client *connection,
                               const char *text, unsigned report_flags)
{
    if (comm_client_connect(connection, client->domain, client->server_pid) != vorx_er_success)
        return vorx_er_connection_failure;
    if (comm_client_send(connection, text, (uint32_t)strlen(text)) != vorx_er_success) {
        vorx_report_at(vorx_msg_cannot_send_message, vorx_log_level_error, report_flags);
        comm_client_destroy(connection);
        return vorx_er_connection_failure;
    }
    return vorx_er_success;
}

/* Sends text and reads one reply into the allocator, NUL-terminated behind
 * its length. */
static vorx_er_t exchange_with_reply(const vorx_client *client, const char *text,
                                     void **out_reply, vorx_size_t *out_length,
                                     sal_allocator *allocator)
{
    comm_client connection;
    vorx_er_t result = open_and_send(client, &connection, text, vorx_report_default);
    if (result != vorx_er_success)
        return result;
    void *reply = NULL;
    uint32_t length = 0;
    result = comm_client_recv(&connection, &reply, &length, allocator);
    comm_client_destroy(&connection);
    if (result != vorx_er_success)
        return vorx_er_connection_failure;
    char *terminated = sal_allocator_realloc(allocator, (vorx_size_t)length + 1);
    if (!terminated) {
        *out_length = 0;
        return vorx_er_general_failure;
    }
    terminated[length] = '\0';
    *out_reply = terminated;
    *out_length = length;
    return vorx_er_success;
}

/* Reports travel without a reply. A failure to send one is only logged: the
 * report of that failure must not go the same broken way. */
static vorx_er_t exchange_without_reply(const vorx_client *client, const char *text)
{
    comm_client connection;
    vorx_er_t result = open_and_send(client, &connection, text, vorx_report_local_only);
    if (result == vorx_er_success)
        comm_client_destroy(&connection);
    return result;
}

/* An exchange whose reply is read and dropped. */
static vorx_er_t exchange_ignoring_reply(const vorx_client *client, const char *text)
{
    sal_allocator allocator;
    sal_allocator_init(&allocator, sal_allocator_type_heap, SAL_ALLOCATOR_NO_LIMIT);
    void *reply = NULL;
    vorx_size_t length = 0;
    vorx_er_t result = exchange_with_reply(client, text, &reply, &length, &allocator);
    sal_allocator_destroy(&allocator);
    return result;
}

/* ---------------------------------------------------------------- operations */

static vorx_er_t client_notify(vorx_client *client, uint32_t command)
{
    char text[VORX_CLIENT_TEXT_SIZE];
    memset(text, 0, sizeof(text));
    if (!format_text(text, sizeof(text), "%s%s%u", vorx_command_to_string(command), SEPARATOR,
                     sal_process_id())) {
        vorx_report(vorx_msg_cannot_create_command);
        text[0] = '\0';
    }
    return exchange_ignoring_reply(client, text);
}

vorx_er_t vorx_client_notify_end(vorx_client *client, uint64_t records_lost, uint32_t loss_causes)
{
    char text[VORX_CLIENT_TEXT_SIZE];
    if (!format_text(text, sizeof(text), "%s%s%u%s%llu%s%u", vorx_command_to_string(vorx_command_end), SEPARATOR,
                     sal_process_id(), SEPARATOR, (unsigned long long)records_lost, SEPARATOR, loss_causes)) {
        vorx_report(vorx_msg_cannot_create_command);
        text[0] = '\0';
    }
    return exchange_ignoring_reply(client, text);
}

static vorx_er_t client_log_message(vorx_client *client, const char *message, vorx_size_t length,
                                    uint32_t severity)
{
    if (severity >= vorx_severity_eof || g_severity_command[severity] == vorx_command_eof) {
        vorx_report(vorx_msg_incorrect_log_level);
        return vorx_er_general_failure;
    }
    static const char empty_message[] = VORX_MESSAGE_XML(55, VORX_MESSAGE_NO_ARGS);
    if (length == 0 || !message) {
        message = empty_message;
        length = sizeof(empty_message) - 1;
    }
    char text[VORX_CLIENT_TEXT_SIZE];
    if (!format_text(text, sizeof(text), "%s%s%.*s",
                     vorx_command_to_string(g_severity_command[severity]), SEPARATOR,
                     (int)length, message)) {
        vorx_report_at(vorx_msg_wrong_formatting, vorx_log_level_error, vorx_report_local_only);
        return vorx_er_general_failure;
    }
    return exchange_without_reply(client, text);
}

static vorx_er_t client_notify_new_process(vorx_client *client, uint32_t parent_pid,
                                           uint32_t child_pid)
{
    char text[VORX_CLIENT_TEXT_SIZE];
    if (!format_text(text, sizeof(text), "%s%s%u%s%u", vorx_command_to_string(vorx_command_new),
                     SEPARATOR, child_pid, SEPARATOR, parent_pid)) {
        vorx_report(vorx_msg_cannot_notify_spawning);
        text[0] = '\0';
    }
    return exchange_ignoring_reply(client, text);
}

static vorx_er_t client_get_configuration(vorx_client *client, void **out_packet,
                                          vorx_size_t *out_length, sal_allocator *allocator)
{
    char text[VORX_CLIENT_TEXT_SIZE];
    /* No run can go on without a configuration. */
    if (!format_text(text, sizeof(text), "%s%s%u%s%u%s%u",
                     vorx_command_to_string(vorx_command_config), SEPARATOR, sal_process_id(),
                     SEPARATOR, sal_parent_process_id(), SEPARATOR, 1u))
        vorx_report_at(vorx_msg_cannot_create_command, vorx_log_level_critical, vorx_report_fatal);
    vorx_size_t length = 0;
    vorx_er_t result = exchange_with_reply(client, text, out_packet, &length, allocator);
    if (result != vorx_er_success)
        return result;
    *out_length = length;
    return length == 0 ? vorx_er_general_failure : vorx_er_success;
}

static bool is_state_word(const char *word)
{
    return strncmp(word, "Pause", 5) == 0 || strncmp(word, "Resume", 6) == 0 ||
           strncmp(word, "Detach", 6) == 0;
}

static vorx_er_t client_change_profiling_state(vorx_client *client, const char *word)
{
    CLIENT_ASSERT(word != NULL && is_state_word(word));
    char text[VORX_CLIENT_TEXT_SIZE];
    if (!format_text(text, sizeof(text), "%s%s%s", vorx_command_to_string(vorx_command_state),
                     SEPARATOR, word))
        vorx_report(vorx_msg_wrong_formatting);
    /* The reply is read into the stack: this runs in annotation wrappers. */
    char reply_block[VORX_CLIENT_TEXT_SIZE];
    sal_allocator allocator;
    sal_allocator_init_wrap(&allocator, reply_block, sizeof(reply_block));
    void *reply = NULL;
    vorx_size_t length = 0;
    vorx_er_t result = exchange_with_reply(client, text, &reply, &length, &allocator);
    sal_allocator_destroy(&allocator);
    if (result != vorx_er_success)
        vorx_report(vorx_msg_cannot_change_profiling_state);
    return result;
}

static vorx_er_t client_load_symbol_file(vorx_client *client, const char *path, char **out_text,
                                         sal_allocator *allocator)
{
    sal_allocator *command_allocator = sal_allocator_create_heap_allocator(SAL_ALLOCATOR_NO_LIMIT);
    char *utf8_cmd = command_allocator ? sal_allocator_alloc(command_allocator, VORX_CLIENT_TEXT_SIZE)
                                       : NULL;
    CLIENT_ASSERT(utf8_cmd != NULL);
    if (!format_text(utf8_cmd, VORX_CLIENT_TEXT_SIZE, "%s%s%s",
                     vorx_command_to_string(vorx_command_symfile), SEPARATOR, path ? path : ""))
        vorx_report(vorx_msg_wrong_formatting);
    void *reply = NULL;
    vorx_size_t length = 0;
    vorx_er_t result = exchange_with_reply(client, utf8_cmd, &reply, &length, allocator);
    sal_allocator_destroy(command_allocator);
    if (result != vorx_er_success)
        return result;
    if (length == 0)
        return vorx_er_general_failure;
    *out_text = reply;
    return vorx_er_success;
}

static const vorx_client_ops g_client_ops = {
    .notify = client_notify,
    .log_message = client_log_message,
    .notify_new_process = client_notify_new_process,
    .get_configuration = client_get_configuration,
    .change_profiling_state = client_change_profiling_state,
    .load_symbol_file = client_load_symbol_file,
};

/* ------------------------------------------------------------------ lifetime */

vorx_client *vorx_alloc_client(const char *server_name)
{
    CLIENT_ASSERT((server_name != NULL));
    vorx_client *obj = calloc(1, sizeof(*obj));
    CLIENT_ASSERT((obj != NULL));
    obj->ops = &g_client_ops;
    obj->domain = sal_strdup(server_name);
    CLIENT_ASSERT((obj->domain != NULL));
    char *dot = strrchr(obj->domain, '.');
    CLIENT_ASSERT((dot != NULL));
    obj->server_pid = (uint32_t)atoi(dot + 1);
    CLIENT_ASSERT((obj->server_pid != 0));
    dot[1] = '\0';
    int comm_inited = comm_init() == vorx_er_success;
    CLIENT_ASSERT_MSG(comm_inited != 0, "Comm API failed to init.");
    return obj;
}

void vorx_free_client(vorx_client *client)
{
    if (!client)
        return;
    free(client->domain);
    free(client);
    comm_fini();
}

/* -------------------------------------------------------------- report hook */

static vorx_er_t report_hook(void *context, const char *message, vorx_size_t length,
                             vorx_u32_t severity)
{
    vorx_client *client = context;
    return client->ops->log_message(client, message, length, severity);
}

void vorx_client_install_report_hook(vorx_client *client)
{
    vorx_log_set_client_hook(client ? report_hook : NULL, client);
}

vorx_er_t vorx_client_report_v(vorx_client *client, uint32_t severity, const char *format,
                               va_list args)
{
    if (!client)
        return vorx_er_general_failure;
    char message[VORX_CLIENT_MESSAGE_SIZE] __attribute__((aligned(16)));
    int written = vsnprintf(message, sizeof(message), format, args);
    if (written < 0)
        return vorx_er_general_failure;
    message[sizeof(message) - 1] = '\0';
    return client->ops->log_message(client, message, strlen(message), severity);
}

vorx_er_t vorx_client_report(vorx_client *client, uint32_t severity, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vorx_er_t result = vorx_client_report_v(client, severity, format, args);
    va_end(args);
    return result;
}

vorx_er_t vorx_client_report_message(uint32_t severity, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vorx_er_t result = vorx_client_report_v(g_vorx_client, severity, format, args);
    va_end(args);
    return result;
}
