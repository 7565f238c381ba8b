/* Text helpers of the system layer: line reading, module names, string copies. */
#include <stdlib.h>
#include <string.h>

#include "sal.h"

void *sal_memmove(void *destination, const void *source, vorx_size_t size)
{
    /* A loop of its own: this runs where no system library may be called yet. */
    volatile unsigned char *to = destination;
    const unsigned char *from = source;
    if (to > from) {
        while (size-- != 0)
            to[size] = from[size];
    } else {
        for (vorx_size_t i = 0; i < size; ++i)
            to[i] = from[i];
    }
    return destination;
}

void sal_init_read_line_state(sal_read_line_state *state, int fd, char *buffer, vorx_size_t len)
{
    SAL_ASSERT(buffer != NULL && len >= 2);
    state->fd = fd;
    state->buffer = buffer;
    state->len = len;
    state->read = 0;
    state->parsed = 0;
}

static int holds_line_feed(const char *text, vorx_size_t length)
{
    for (vorx_size_t i = 0; i < length; ++i)
        if (text[i] == '\n')
            return 1;
    return 0;
}

int sal_read_line(sal_read_line_state *state, char **line)
{
    SAL_ASSERT(state->parsed <= state->read);
    SAL_ASSERT(state->read < state->len);

    /* 1. Keep the unparsed tail at the start of the buffer. */
    if (state->parsed < state->read) {
        sal_memmove(state->buffer, state->buffer + state->parsed, state->read - state->parsed);
        state->read -= state->parsed;
    } else {
        state->read = 0;
    }
    state->parsed = 0;

    /* 2. Top it up when no whole line is held (a read per line would cost a system call per line of a
     *    /proc file, which answers every read); a failed read adds nothing. */
    if (!holds_line_feed(state->buffer, state->read)) {
        vorx_ssize_t got = sal_read(state->fd, state->buffer + state->read,
                                    state->len - state->read - 1);
        if (got > 0)
            state->read += (vorx_size_t)got;
    }
    if (state->read == 0)
        return 0;

    /* 3. Cut at the first line feed; carriage returns become terminators. */
    char *text = state->buffer;
    for (vorx_size_t i = 0; i < state->read; ++i) {
        if (text[i] == '\r') {
            text[i] = '\0';
        } else if (text[i] == '\n') {
            text[i] = '\0';
            state->parsed = i + 1;
            if (line)
                *line = text;
            return 1;
        }
    }

    /* 4. No line feed: hand out what is there (a long line comes in pieces). */
    text[state->read] = '\0';
    state->parsed = state->read;
    if (line)
        *line = text;
    return 1;
}

int sal_file_name_compare(const char *a, const char *b)
{
    return strncmp(a, b, strlen(a));
}

const char *sal_find_mod_name_with_ext(const char *path, vorx_size_t *length)
{
    if (path == NULL)
        return NULL;
    const char *slash = strrchr(path, '/');
    if (slash == NULL)
        return strchr(path, '[') ? NULL : path;
    const char *base = slash + 1;
    if (*base == '\0')
        return NULL;
    const char *first_dot = strchr(base, '.');
    const char *second_dot = first_dot ? strchr(first_dot + 1, '.') : NULL;
    if (length)
        *length = second_dot ? (vorx_size_t)(second_dot - base) : strlen(base);
    return base;
}

char *sal_strdup(const char *text)
{
    if (text == NULL)
        return NULL;
    vorx_size_t size = strlen(text) + 1;
    char *copy = malloc(size);
    if (copy != NULL)
        memcpy(copy, text, size);
    return copy;
}

/* Copy of text into memory from alloc; 0 (and *out untouched) for empty text. */
static vorx_size_t copy_through_allocator(const char *text, char **out, sal_allocator *alloc)
{
    if (text == NULL || *text == '\0')
        return 0;
    vorx_size_t length = strlen(text);
    char *copy = sal_allocator_alloc(alloc, length + 1);
    if (copy == NULL)
        return 0;
    memcpy(copy, text, length + 1);
    *out = copy;
    return length;
}

vorx_size_t sal_vorx_char_to_utf8(const vorx_char_t *text, char **out, sal_allocator *alloc)
{
    return copy_through_allocator(text, out, alloc);
}

vorx_size_t sal_utf8_to_vorx_char(const char *text, vorx_char_t **out, sal_allocator *alloc)
{
    return copy_through_allocator(text, out, alloc);
}

vorx_size_t sal_char_to_vorx_char(const char *text, vorx_char_t **out, sal_allocator *alloc)
{
    return copy_through_allocator(text, out, alloc);
}

vorx_er_t sal_convert_to_native_file_system_utf8(const vorx_char_t *text, char **out,
                                                 sal_allocator *alloc)
{
    vorx_size_t length = text ? strlen(text) : 0;
    char *copy = sal_allocator_alloc(alloc, length + 1);
    if (copy == NULL)
        return vorx_er_memory_exhausted;
    if (length)
        memcpy(copy, text, length);
    copy[length] = '\0';
    *out = copy;
    return vorx_er_success;
}
