/* The collector's assertion: syslog, then (unless logging is below zero) the
 * CRITICAL report 2 to the log, standard error and the server, then the
 * deliberate crash. */
#include <stdio.h>
#include <string.h>
#include <syslog.h>

#include "sal.h"
#include "vorx_log.h"

#define ASSERT_PATH_SIZE 512
#define ASSERT_TEXT_SIZE 512
#define SYSLOG_IDENTITY "TOLVEX_VORXCOLLECTOR"
/* pid in every line, the console when syslog is down, a copy on stderr. */
#define SYSLOG_OPTIONS 35
#define SYSLOG_FACILITY 8

vorx_bool_t vorx_bool_for_assert(const void *text)
{
    (void)text;
    return VORX_FALSE;
}

/* "<base name>:<line>: <expression> : " with the extension cut, or
 * "<expression> : " when the path has no separator at all. */
static vorx_size_t format_head(char *out, vorx_size_t size, const char *file, unsigned line,
                               const char *expression)
{
    char path[ASSERT_PATH_SIZE + 1];
    memset(path, 0, sizeof(path));
    if (file != NULL) {
        vorx_size_t length = strlen(file);
        const char *tail = length > ASSERT_PATH_SIZE ? file + length - ASSERT_PATH_SIZE : file;
        memcpy(path, tail, strlen(tail));
    }
    char *separator = strrchr(path, '/');
    if (separator == NULL)
        separator = strrchr(path, '\\');
    char *dot = strrchr(path, '.');
    if (dot != NULL && (separator == NULL || dot > separator))
        *dot = '\0';

    int length = separator
                     ? snprintf(out, size, "%s:%d: %s : ", separator + 1, (int)line,
                                expression ? expression : "")
                     : snprintf(out, size, "%s : ", expression ? expression : "");
    if (length < 0)
        return 0;
    return (vorx_size_t)length < size ? (vorx_size_t)length : size - 1;
}

void vorx_assert_raise_assert(const char *file, unsigned line, const char *function,
                              const char *expression, const char *format, ...)
{
    (void)function;
    char text[ASSERT_TEXT_SIZE];
    memset(text, 0, sizeof(text));
    vorx_size_t head = format_head(text, sizeof(text), file, line, expression);
    if (format != NULL) {
        va_list args;
        va_start(args, format);
        vsnprintf(text + head, sizeof(text) - head, format, args);
        va_end(args);
    }

    openlog(SYSLOG_IDENTITY, SYSLOG_OPTIONS, SYSLOG_FACILITY);
    syslog(LOG_ERR, "%s", text);
    closelog();

    if (g_vorx_log_level < 0)
        return;

    const vorx_message_info *info = vorx_message_lookup(vorx_msg_assertion_failed);
    char report[VORX_LOG_TEXT_SIZE] __attribute__((aligned(16)));
    char message[VORX_LOG_TEXT_SIZE] __attribute__((aligned(16)));
    snprintf(report, sizeof(report), info->text, text);
    snprintf(message, sizeof(message), info->xml, text);
    vorx_report_formatted(vorx_log_level_critical, vorx_report_fatal, report, message,
                          sizeof(message));
}
