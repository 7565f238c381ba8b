/*
 * The configuration packager: one object in, one packet out, and back.
 *
 * Both directions are driven by config_wire.h. Unpacking never trusts the
 * packet: every item of the variable part must end inside the block, so a
 * truncated or forged packet is refused instead of being read past its end.
 */
#include "vorx_config.h"

#include <stdlib.h>
#include <string.h>

#include "config_internal.h"
#include "config_wire.h"

/* ------------------------------------------------------------ little endian */

static void put_u32(unsigned char *at, uint32_t value)
{
    for (unsigned i = 0; i < 4; i++)
        at[i] = (unsigned char)(value >> (8 * i));
}

static void put_u64(unsigned char *at, uint64_t value)
{
    put_u32(at, (uint32_t)value);
    put_u32(at + 4, (uint32_t)(value >> 32));
}

static uint32_t get_u32(const unsigned char *at)
{
    return (uint32_t)at[0] | (uint32_t)at[1] << 8 | (uint32_t)at[2] << 16 | (uint32_t)at[3] << 24;
}

static uint64_t get_u64(const unsigned char *at)
{
    return (uint64_t)get_u32(at) | (uint64_t)get_u32(at + 4) << 32;
}

/* Cell codecs named by config_wire.h. */
#define ENCODE_u32(at, v) put_u64(at, (uint32_t)(v))
#define ENCODE_s32(at, v) put_u64(at, (uint64_t)(int64_t)(int32_t)(v))
#define ENCODE_u64(at, v) put_u64(at, (uint64_t)(v))
#define ENCODE_flag(at, v) put_u64(at, (v) ? 1u : 0u)
#define ENCODE_pair(at, v) (put_u32(at, (v)[0]), put_u32((at) + 4, (v)[1]))

#define DECODE_u32(at, v) ((v) = get_u32(at))
#define DECODE_s32(at, v) ((v) = (int32_t)get_u32(at))
#define DECODE_u64(at, v) ((v) = get_u64(at))
#define DECODE_flag(at, v) ((v) = get_u64(at) != 0)
#define DECODE_pair(at, v) ((v)[0] = get_u32(at), (v)[1] = get_u32((at) + 4))

/* ------------------------------------------------------------------ sizing */

static size_t word_list_size(const uint32_t *words)
{
    size_t count = 0;
    while (words && words[count])
        count++;
    return (count + 1) * 4;
}

static size_t text_size(const char *text)
{
    return (text ? strlen(text) : 0) + 1;
}

/* A list on the wire ends at its first empty string, so an empty item cannot
 * travel; such a list is refused (size 0). */
static size_t string_list_size(char *const *list)
{
    size_t size = 1;
    for (size_t i = 0; list && list[i]; i++) {
        if (list[i][0] == '\0')
            return 0;
        size += strlen(list[i]) + 1;
    }
    return size;
}

static size_t packet_size(const vorx_configuration *conf)
{
    size_t size = VORX_CONF_WIRE_FIXED_SIZE;
#define ADD_WORDS_(member) size += word_list_size(conf->member);
    VORX_CONF_WIRE_WORD_LISTS(ADD_WORDS_)
#undef ADD_WORDS_
#define ADD_TEXT_(member) size += text_size(conf->member);
    VORX_CONF_WIRE_STRINGS(ADD_TEXT_)
#undef ADD_TEXT_
    size_t env = string_list_size(conf->environment);
    size_t ignored = string_list_size(conf->ignored_processes);
    size_t aux = string_list_size(conf->aux_list);
    if (env == 0 || ignored == 0 || aux == 0)
        return 0;
    size += env + ignored + 8 + text_size(conf->aux_text_5) + aux;
    return size;
}

/* ------------------------------------------------------------------ writing */

static unsigned char *write_words(unsigned char *at, const uint32_t *words)
{
    for (size_t i = 0; words && words[i]; i++, at += 4)
        put_u32(at, words[i]);
    put_u32(at, 0);
    return at + 4;
}

static unsigned char *write_text(unsigned char *at, const char *text)
{
    size_t size = text_size(text);
    if (text)
        memcpy(at, text, size);
    else
        *at = '\0';
    return at + size;
}

static unsigned char *write_string_list(unsigned char *at, char *const *list)
{
    for (size_t i = 0; list && list[i]; i++)
        at = write_text(at, list[i]);
    *at = '\0';
    return at + 1;
}

static void write_fixed(unsigned char *packet, size_t size, const vorx_configuration *conf)
{
    put_u64(packet + VORX_CONF_WIRE_SIZE_OFFSET, (uint32_t)size);
#define WRITE_CELL_(offset, member, codec) ENCODE_##codec(packet + (offset), conf->member);
    VORX_CONF_WIRE_FIXED(WRITE_CELL_)
#undef WRITE_CELL_
    for (unsigned row = 0; row < VORX_CONF_SYNC_THRESHOLD_ROWS; row++) {
        unsigned char *at = packet + VORX_CONF_WIRE_THRESHOLDS_OFFSET +
                            row * VORX_CONF_WIRE_THRESHOLD_ROW_SIZE;
        put_u64(at, conf->sync_thresholds[row].kind);
        put_u64(at + 8, conf->sync_thresholds[row].threshold);
    }
}

static const void *packager_pack(vorx_configuration_packager *packager,
                                 const vorx_configuration *conf, size_t *out_size)
{
    free(packager->packet);
    packager->packet = NULL;
    packager->packet_size = 0;

    size_t size = packet_size(conf);
    if (size == 0 || size > UINT32_MAX)
        return NULL;
    unsigned char *packet = calloc(1, size);
    if (!packet)
        return NULL;

    write_fixed(packet, size, conf);
    unsigned char *at = packet + VORX_CONF_WIRE_FIXED_SIZE;
#define WRITE_WORDS_(member) at = write_words(at, conf->member);
    VORX_CONF_WIRE_WORD_LISTS(WRITE_WORDS_)
#undef WRITE_WORDS_
#define WRITE_TEXT_(member) at = write_text(at, conf->member);
    VORX_CONF_WIRE_STRINGS(WRITE_TEXT_)
#undef WRITE_TEXT_
    at = write_string_list(at, conf->environment);
    at = write_string_list(at, conf->ignored_processes);
    put_u32(at, conf->collection_types[0]);
    put_u32(at + 4, conf->collection_types[1]);
    at += 8;
    at = write_text(at, conf->aux_text_5);
    at = write_string_list(at, conf->aux_list);

    packager->packet = packet;
    packager->packet_size = size;
    if (out_size)
        *out_size = size;
    return packet;
}

/* ------------------------------------------------------------------ reading */

/* A read position inside the block [base, base + size). Every step checks
 * that what it reads ends inside the block; a failed step poisons the cursor,
 * so later steps do nothing and the caller tests once. */
typedef struct wire_cursor {
    const unsigned char *base;
    size_t size;
    size_t pos;
    bool failed;
} wire_cursor;

static size_t cursor_left(const wire_cursor *cur)
{
    return cur->failed ? 0 : cur->size - cur->pos;
}

/* A zero-terminated word list, copied into a temporary array for its setter. */
static void read_words(wire_cursor *cur, vorx_configuration *conf,
                       vorx_er_t (*set)(vorx_configuration *, const uint32_t *))
{
    size_t count = 0;
    for (;; count++) {
        if (cursor_left(cur) < (count + 1) * 4) {
            cur->failed = true;
            return;
        }
        if (get_u32(cur->base + cur->pos + count * 4) == 0)
            break;
    }
    uint32_t *words = malloc((count + 1) * sizeof(*words));
    if (!words) {
        cur->failed = true;
        return;
    }
    for (size_t i = 0; i <= count; i++)
        words[i] = get_u32(cur->base + cur->pos + i * 4);
    cur->failed = set(conf, words) != vorx_er_success;
    free(words);
    cur->pos += (count + 1) * 4;
}

static void read_text(wire_cursor *cur, vorx_configuration *conf,
                      vorx_er_t (*set)(vorx_configuration *, const char *))
{
    size_t left = cursor_left(cur);
    const char *text = (const char *)cur->base + cur->pos;
    const char *end = left ? memchr(text, '\0', left) : NULL;
    if (!end) {
        cur->failed = true;
        return;
    }
    cur->failed = set(conf, text) != vorx_er_success;
    cur->pos += (size_t)(end - text) + 1;
}

static void read_string_list(wire_cursor *cur, vorx_configuration *conf,
                             vorx_er_t (*unpack)(vorx_configuration *, const char *, size_t,
                                                 size_t *))
{
    size_t consumed = 0;
    size_t left = cursor_left(cur);
    if (left == 0 ||
        unpack(conf, (const char *)cur->base + cur->pos, left, &consumed) != vorx_er_success) {
        cur->failed = true;
        return;
    }
    cur->pos += consumed;
}

static void read_fixed(const unsigned char *packet, vorx_configuration *conf)
{
#define READ_CELL_(offset, member, codec) DECODE_##codec(packet + (offset), conf->member);
    VORX_CONF_WIRE_FIXED(READ_CELL_)
#undef READ_CELL_
    for (unsigned row = 0; row < VORX_CONF_SYNC_THRESHOLD_ROWS; row++) {
        const unsigned char *at = packet + VORX_CONF_WIRE_THRESHOLDS_OFFSET +
                                  row * VORX_CONF_WIRE_THRESHOLD_ROW_SIZE;
        conf->sync_thresholds[row].kind = get_u32(at);
        conf->sync_thresholds[row].threshold = get_u64(at + 8);
    }
}

static vorx_configuration *packager_unpack(vorx_configuration_packager *packager,
                                           const void *packet, size_t length)
{
    (void)packager;
    if (!packet || length < VORX_CONF_WIRE_FIXED_SIZE)
        return NULL;
    const unsigned char *bytes = packet;
    uint32_t count = get_u32(bytes + VORX_CONF_WIRE_SIZE_OFFSET);
    if (count < VORX_CONF_WIRE_FIXED_SIZE || count > length)
        return NULL;

    vorx_configuration *conf = vorx_alloc_configuration();
    if (!conf)
        return NULL;
    read_fixed(bytes, conf);

    wire_cursor cur = {bytes, count, VORX_CONF_WIRE_FIXED_SIZE, false};
    const vorx_configuration_ops *ops = conf->ops;
#define READ_WORDS_(member) read_words(&cur, conf, ops->set_##member);
    VORX_CONF_WIRE_WORD_LISTS(READ_WORDS_)
#undef READ_WORDS_
#define READ_TEXT_(member) read_text(&cur, conf, ops->set_##member);
    VORX_CONF_WIRE_STRINGS(READ_TEXT_)
#undef READ_TEXT_
    read_string_list(&cur, conf, ops->unpack_environment);
    read_string_list(&cur, conf, ops->unpack_ignored_processes);
    if (cursor_left(&cur) < 8) {
        cur.failed = true;
    } else {
        conf->collection_types[0] = get_u32(bytes + cur.pos);
        conf->collection_types[1] = get_u32(bytes + cur.pos + 4);
        cur.pos += 8;
    }
    read_text(&cur, conf, ops->set_aux_text_5);
    read_string_list(&cur, conf, vorx_conf_unpack_aux_list);

    if (cur.failed) {
        vorx_free_configuration(conf);
        return NULL;
    }
    return conf;
}

static const vorx_configuration_packager_ops g_packager_ops = {
    .pack = packager_pack,
    .unpack = packager_unpack,
};

vorx_configuration_packager *vorx_alloc_configuration_packager(void)
{
    vorx_configuration_packager *packager = calloc(1, sizeof(*packager));
    if (packager)
        packager->ops = &g_packager_ops;
    return packager;
}

void vorx_free_configuration_packager(vorx_configuration_packager *packager)
{
    if (!packager)
        return;
    free(packager->packet);
    free(packager);
}
