/*
 * The collector's log, its reports to the user, and its assertion.
 *
 * Three ways out: a line in the per-process log file
 * ("<data_dir><ppid>-<pid>.<idx>.log", one open/write/close per line so that
 * a line survives any crash after it), a structured message to the run-tool
 * server (through a hook that the server client installs), and, for what is
 * fatal, standard error and syslog as well.
 *
 * Everything here may run on any thread, in signal handlers and on the control
 * thread: texts are built in 1024-byte stack buffers, nothing is allocated,
 * nothing is locked, and errno is never consulted.
 *
 * Levels: a report is built only when g_vorx_log_level admits it, so an
 * inactive report costs one comparison.
 */
#ifndef VORX_LOG_H
#define VORX_LOG_H

#include <stdarg.h>

#include "vorx_messages.h"
#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_LOG_TEXT_SIZE 1024

/* 2 at load time: WARNING and above before the configuration arrives.
 * Negative turns assertions into syslog lines only. */
extern volatile vorx_s32_t g_vorx_log_level;

/* For a level below 5 (compared unsigned, so negative levels are refused
 * too): keeps a copy of file_name and the level. 5 or more changes nothing. */
void vorx_log_init(const char *file_name, vorx_s32_t level);
/* The file name in use, or null before vorx_log_init. */
const char *vorx_log_file_name(void);
/* Appends text to the log file (no-op without a file name); a file that can
 * be neither opened nor created loses the line and nothing else. */
void vorx_log_write(const char *text, vorx_size_t length);
/* "<data_dir><ppid>-<pid>.<idx>.log" into out; the length snprintf gives. */
int vorx_log_format_file_name(char *out, vorx_size_t size, const char *data_dir,
                              vorx_u32_t parent_pid, vorx_u32_t pid, vorx_size_t index);

/* "CRITICAL", "ERROR", "WARNING", "INFO", "TRACE"; "UNKNOWN" otherwise. */
const char *vorx_log_level_word(vorx_log_level_t level);
static inline vorx_bool_t vorx_log_enabled(vorx_log_level_t level)
{
    return g_vorx_log_level >= (vorx_s32_t)level;
}

/* A log line "%d : %s : %s \n" (thread id, level word, text) into out; its length. */
vorx_size_t vorx_log_format_line(char *out, vorx_size_t size, vorx_log_level_t level,
                                 const char *text);

/* A line in the log file only (no server, no standard error), when the level
 * admits it. */
__attribute__((format(printf, 2, 3))) void vorx_log(vorx_log_level_t level, const char *format,
                                                    ...);
void vorx_log_v(vorx_log_level_t level, const char *format, va_list args);

/* ---- reports to the user ------------------------------------------------ */

/* The server client's log-message operation: message, its length, severity
 * 0..3. Installed by the client when it exists; without it a report goes to
 * the log (and standard error when critical) only. */
typedef vorx_er_t (*vorx_log_client_hook_t)(void *context, const char *message,
                                            vorx_size_t length, vorx_u32_t severity);
void vorx_log_set_client_hook(vorx_log_client_hook_t hook, void *context);

enum vorx_report_flags {
    vorx_report_default = 0,
    vorx_report_fatal = 1,      /* end with the deliberate crash */
    vorx_report_local_only = 2, /* log (and stderr), not the server: quiet settings */
};

/* Catalogue message at its catalogue level (and fatal when the catalogue says
 * so); the arguments serve both the text and the XML form. */
void vorx_report(vorx_msg_id_t id, ...);
/* The same at a level and with flags chosen by the site (ids 24 and 67). */
void vorx_report_at(vorx_msg_id_t id, vorx_log_level_t level, unsigned flags, ...);
void vorx_report_v(vorx_msg_id_t id, vorx_log_level_t level, unsigned flags, va_list args);
/* The report pattern for texts formatted already: log line, standard error
 * when critical, the message to the server, the crash when fatal. */
void vorx_report_formatted(vorx_log_level_t level, unsigned flags, const char *text,
                           char *message, vorx_size_t message_length);

/* ---- assertions ---------------------------------------------------------- */

/* The collector's single check: syslog ("TOLVEX_VORXCOLLECTOR"), and unless
 * g_vorx_log_level is negative, the CRITICAL report 2 (log, standard error,
 * server) and the deliberate crash. Returns only at a negative level. */
void vorx_assert_raise_assert(const char *file, unsigned line, const char *function,
                              const char *expression, const char *format, ...);
/* Writes to address 0 and traps: the deliberate crash. */
__attribute__((noreturn)) void vorx_crash(void);
/* Always false: names unconditional failure sites in their expression text,
 * as in VORX_ASSERT(!vorx_bool_for_assert("can't generate file name")). */
vorx_bool_t vorx_bool_for_assert(const void *text);

#define VORX_ASSERT_STR_(x) #x
#define VORX_ASSERT_XSTR_(x) VORX_ASSERT_STR_(x)

/* Always compiled in. The expression text is taken after macro expansion and
 * in parentheses: "(g_vorx_conf != ((void *)0))". */
#define VORX_ASSERT(cond)                                                                        \
    do {                                                                                         \
        if (__builtin_expect(!(cond), 0))                                                        \
            vorx_assert_raise_assert(__FILE__, __LINE__, __func__, VORX_ASSERT_XSTR_((cond)),    \
                                     (const char *)0);                                           \
    } while (0)

#define VORX_ASSERT_MSG(cond, ...)                                                               \
    do {                                                                                         \
        if (__builtin_expect(!(cond), 0))                                                        \
            vorx_assert_raise_assert(__FILE__, __LINE__, __func__, VORX_ASSERT_XSTR_((cond)),    \
                                     __VA_ARGS__);                                               \
    } while (0)

/* A line at a level, with the level test inline. */
#define VORX_LOG(level, ...)                                                                     \
    do {                                                                                         \
        if (vorx_log_enabled(level))                                                             \
            vorx_log(level, __VA_ARGS__);                                                        \
    } while (0)

#ifdef __cplusplus
}
#endif

#endif /* VORX_LOG_H */
