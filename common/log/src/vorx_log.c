/* The per-process log file, log lines and the report pattern. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "sal.h"
#include "vorx_log.h"

volatile vorx_s32_t g_vorx_log_level = vorx_log_level_warning;

/* Owned by the log; replaced only by vorx_log_init, which runs at start-up
 * and in a forked child before any other thread writes. */
static char *g_log_file_name = NULL;

#define LOG_LEVEL_LIMIT 5u

void vorx_log_init(const char *file_name, vorx_s32_t level)
{
    if ((vorx_u32_t)level >= LOG_LEVEL_LIMIT)
        return;
    char *old = g_log_file_name;
    g_log_file_name = sal_strdup(file_name);
    free(old);
    g_vorx_log_level = level;
}

const char *vorx_log_file_name(void)
{
    return g_log_file_name;
}

int vorx_log_format_file_name(char *out, vorx_size_t size, const char *data_dir,
                              vorx_u32_t parent_pid, vorx_u32_t pid, vorx_size_t index)
{
    return snprintf(out, size, "%s%u-%u.%lu.log", data_dir ? data_dir : "", parent_pid, pid,
                    index);
}

void vorx_log_write(const char *text, vorx_size_t length)
{
    const char *name = g_log_file_name;
    if (name == NULL || (vorx_u32_t)g_vorx_log_level >= LOG_LEVEL_LIMIT)
        return;
    /* One descriptor per line: nothing buffered, nothing locked, and the
     * line is on disk before whatever crash may follow. Appending mode keeps
     * lines of concurrent writers whole. */
    int fd = sal_open_append(name);
    if (fd == -1)
        fd = sal_create(name);
    if (fd == -1)
        return;
    sal_seek(fd, 0, 0, 2);
    vorx_ssize_t ignored = sal_write(fd, text, length);
    (void)ignored;
    sal_close(fd);
}

static const char *const g_level_words[vorx_log_level_eof] = {
    [vorx_log_level_critical] = "CRITICAL", [vorx_log_level_error] = "ERROR",
    [vorx_log_level_warning] = "WARNING",   [vorx_log_level_info] = "INFO",
    [vorx_log_level_trace] = "TRACE",
};

const char *vorx_log_level_word(vorx_log_level_t level)
{
    return (unsigned)level < vorx_log_level_eof ? g_level_words[level] : "UNKNOWN";
}

static vorx_size_t clamp_length(int length, vorx_size_t size)
{
    if (length < 0)
        return 0;
    return (vorx_size_t)length < size ? (vorx_size_t)length : size - 1;
}

vorx_size_t vorx_log_format_line(char *out, vorx_size_t size, vorx_log_level_t level,
                                 const char *text)
{
    int length = snprintf(out, size, "%d : %s : %s \n", (int)sal_thread_id(),
                          vorx_log_level_word(level), text);
    return clamp_length(length, size);
}

static void write_log_line(vorx_log_level_t level, const char *text)
{
    char line[VORX_LOG_TEXT_SIZE] __attribute__((aligned(16)));
    vorx_size_t length = vorx_log_format_line(line, sizeof(line), level, text);
    vorx_log_write(line, length);
}

void vorx_log_v(vorx_log_level_t level, const char *format, va_list args)
{
    if (!vorx_log_enabled(level))
        return;
    char text[VORX_LOG_TEXT_SIZE] __attribute__((aligned(16)));
    vsnprintf(text, sizeof(text), format, args);
    write_log_line(level, text);
}

void vorx_log(vorx_log_level_t level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vorx_log_v(level, format, args);
    va_end(args);
}

/* ---- the server client's hook ----------------------------------------- */

static vorx_log_client_hook_t g_client_hook = NULL;
static void *g_client_context = NULL;

void vorx_log_set_client_hook(vorx_log_client_hook_t hook, void *context)
{
    __atomic_store_n(&g_client_hook, (vorx_log_client_hook_t)NULL, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_client_context, context, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_client_hook, hook, __ATOMIC_SEQ_CST);
}

/* Threads that are inside the hook right now. The client reports its own
 * failures through the same pattern; a report made while this thread is
 * already sending one is logged but not sent, so a dead server costs one
 * failed attempt per report and never a recursion. No thread-local storage:
 * this also runs before the thread library has set the thread up. */
#define MAX_SENDING_THREADS 32
static vorx_u32_t g_sending_threads[MAX_SENDING_THREADS];

static int claim_sending_slot(vorx_u32_t tid)
{
    for (int i = 0; i < MAX_SENDING_THREADS; ++i)
        if (__atomic_load_n(&g_sending_threads[i], __ATOMIC_ACQUIRE) == tid)
            return -1; /* a nested report of this thread */
    for (int i = 0; i < MAX_SENDING_THREADS; ++i) {
        vorx_u32_t expected = 0;
        if (__atomic_compare_exchange_n(&g_sending_threads[i], &expected, tid, 0,
                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            return i;
    }
    return -1;
}

static void send_to_client(vorx_log_level_t level, char *message, vorx_size_t message_size)
{
    vorx_log_client_hook_t hook = __atomic_load_n(&g_client_hook, __ATOMIC_ACQUIRE);
    if (hook == NULL || level > vorx_log_level_info || message_size == 0)
        return;
    vorx_u32_t tid = sal_thread_id();
    int slot = claim_sending_slot(tid);
    if (slot < 0)
        return;
    if (message_size >= VORX_LOG_TEXT_SIZE)
        message[VORX_LOG_TEXT_SIZE - 1] = '\0';
    else
        message[message_size - 1] = '\0';
    hook(__atomic_load_n(&g_client_context, __ATOMIC_ACQUIRE), message, strlen(message),
         (vorx_u32_t)level);
    __atomic_store_n(&g_sending_threads[slot], 0u, __ATOMIC_RELEASE);
}

/* ---- reports -------------------------------------------------------------- */

void vorx_crash(void)
{
    *(volatile int *)0 = 0;
    __builtin_trap();
}

void vorx_report_formatted(vorx_log_level_t level, unsigned flags, const char *text,
                           char *message, vorx_size_t message_size)
{
    write_log_line(level, text);
    if (level == vorx_log_level_critical)
        sal_write(vorx_convert_to_std_handle_value(2), text, strlen(text));
    if (!(flags & vorx_report_local_only) && message != NULL)
        send_to_client(level, message, message_size);
    if (flags & vorx_report_fatal)
        vorx_crash();
}

void vorx_report_v(vorx_msg_id_t id, vorx_log_level_t level, unsigned flags, va_list args)
{
    if (!vorx_log_enabled(level))
        return;
    const vorx_message_info *info = vorx_message_lookup((vorx_u32_t)id);
    VORX_ASSERT(info != NULL);
    char text[VORX_LOG_TEXT_SIZE] __attribute__((aligned(16)));
    char message[VORX_LOG_TEXT_SIZE] __attribute__((aligned(16)));
    va_list again;
    va_copy(again, args);
    vsnprintf(text, sizeof(text), info->text, args);
    vsnprintf(message, sizeof(message), info->xml, again);
    va_end(again);
    vorx_report_formatted(level, flags, text, message, sizeof(message));
}

void vorx_report_at(vorx_msg_id_t id, vorx_log_level_t level, unsigned flags, ...)
{
    va_list args;
    va_start(args, flags);
    vorx_report_v(id, level, flags, args);
    va_end(args);
}

void vorx_report(vorx_msg_id_t id, ...)
{
    const vorx_message_info *info = vorx_message_lookup((vorx_u32_t)id);
    VORX_ASSERT(info != NULL);
    va_list args;
    va_start(args, id);
    vorx_report_v(id, info->level, info->fatal ? vorx_report_fatal : vorx_report_default, args);
    va_end(args);
}
