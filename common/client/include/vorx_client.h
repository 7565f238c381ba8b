/*
 * The collector's side of the conversation with the run-tool server.
 *
 * Every exchange opens its own connection, sends one command text in one
 * frame, reads at most one reply frame and closes. The client record never
 * changes after vorx_alloc_client, so every operation may run on any thread
 * and in signal handlers (each takes some 7 to 15 KB of stack).
 *
 * Command texts (the frame carries no NUL):
 *   config:<pid>:<ppid>:1      reply: the configuration packet
 *   ready:<pid>, end:<pid>     reply: one frame, content ignored
 *   end:<pid>:<lost>:<causes>  the same, with the trace records the process
 *                              dropped and the causes (bits of VORX_TMU_LOST_*)
 *   new:<child>:<parent>       reply: one frame, content ignored
 *   state:<Pause|Resume|Detach>  reply: one frame, content ignored
 *   symfile:<text>             reply: the text of a symbol file path
 *   error:<msg>, warning:<msg>, info:<msg>   no reply
 *
 * Results: vorx_er_success; vorx_er_general_failure for a formatting or
 * allocation failure or an empty reply; vorx_er_connection_failure when the
 * server cannot be reached or the command not sent.
 */
#ifndef VORX_CLIENT_H
#define VORX_CLIENT_H

#include <stdarg.h>
#include <stdint.h>

#include "sal_allocator.h"
#include "vorx_config.h"
#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_CLIENT_TEXT_SIZE 4096u
#define VORX_CLIENT_MESSAGE_SIZE 1024u

/* Severities of reports; each travels as the command of its level. */
typedef enum vorx_severity {
    vorx_severity_critical = 0, /* "error" */
    vorx_severity_error = 1,    /* "error" */
    vorx_severity_warning = 2,  /* "warning" */
    vorx_severity_info = 3,     /* "info" */
    vorx_severity_eof
} vorx_severity_t;

typedef struct vorx_client vorx_client;

typedef struct vorx_client_ops {
    /* "ready" or "end" (command 4 or 7) for this process. */
    vorx_er_t (*notify)(vorx_client *client, uint32_t command);
    /* A report at severity 0..3; sent without waiting for a reply. */
    vorx_er_t (*log_message)(vorx_client *client, const char *text, vorx_size_t length,
                             uint32_t severity);
    vorx_er_t (*notify_new_process)(vorx_client *client, uint32_t parent_pid, uint32_t child_pid);
    /* The packet into a buffer of the allocator, NUL-terminated behind its
     * length; an empty reply is a failure. */
    vorx_er_t (*get_configuration)(vorx_client *client, void **out_packet,
                                   vorx_size_t *out_length, sal_allocator *allocator);
    /* word starts with "Pause", "Resume" or "Detach"; anything else is a
     * broken caller (assertion). */
    vorx_er_t (*change_profiling_state)(vorx_client *client, const char *word);
    /* The server's answer, a NUL-terminated text from the allocator. */
    vorx_er_t (*load_symbol_file)(vorx_client *client, const char *text, char **out_text,
                                  sal_allocator *allocator);
} vorx_client_ops;

struct vorx_client {
    const vorx_client_ops *ops;
    char *domain;        /* "vorx_server." of "vorx_server.1234" */
    uint32_t server_pid; /* 1234 of the same */
};

/* The client of this process, or null before the first configuration. */
extern vorx_client *g_vorx_client;

/* server_name is "<domain>.<id>": the domain keeps its last '.', the id
 * follows it. A null name, a name without a dot or an id of 0 is an
 * assertion failure. */
vorx_client *vorx_alloc_client(const char *server_name);
void vorx_free_client(vorx_client *client);

/* Makes g_vorx_client the destination of the collector's reports. */
void vorx_client_install_report_hook(vorx_client *client);

/* Fetches the configuration from server_name, publishes it as g_vorx_conf
 * and derives its active probes. vorx_er_success, or the client's failure;
 * a packet that cannot be parsed is fatal (reports 20 and 37). */
vorx_er_t vorx_init_configuration(const char *server_name);

/* Shorthands over the operations. */
static inline vorx_er_t vorx_client_notify(vorx_client *client, uint32_t command)
{
    return client->ops->notify(client, command);
}
/* "end" for this process, with the trace records it dropped and why. */
vorx_er_t vorx_client_notify_end(vorx_client *client, uint64_t records_lost, uint32_t loss_causes);
/* Formats a message (at most VORX_CLIENT_MESSAGE_SIZE - 1 bytes) and sends it
 * at a severity; 2 without a client. */
__attribute__((format(printf, 3, 4))) vorx_er_t vorx_client_report(vorx_client *client,
                                                                    uint32_t severity,
                                                                    const char *format, ...);
vorx_er_t vorx_client_report_v(vorx_client *client, uint32_t severity, const char *format,
                               va_list args);
/* The same to g_vorx_client, when there is one. */
__attribute__((format(printf, 2, 3))) vorx_er_t vorx_client_report_message(uint32_t severity,
                                                                            const char *format,
                                                                            ...);

#ifdef __cplusplus
}
#endif

#endif /* VORX_CLIENT_H */
