/*
 * The configuration object: defaults, owned strings and lists, deep clone.
 */
#include "vorx_config.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "config_internal.h"
#include "config_wire.h"

/* Every owned string of the object: the eight of the wire's string block and
 * the one that travels after the collection types. */
#define VORX_CONF_STRINGS(X) VORX_CONF_WIRE_STRINGS(X) X(aux_text_5)

static char *copy_text(const char *text)
{
    size_t size = strlen(text) + 1;
    char *copy = malloc(size);
    if (copy)
        memcpy(copy, text, size);
    return copy;
}

static vorx_er_t replace_text(char **field, const char *text)
{
    if (!text)
        return vorx_er_general_failure;
    char *copy = copy_text(text);
    if (!copy)
        return vorx_er_general_failure;
    free(*field);
    *field = copy;
    return vorx_er_success;
}

static vorx_er_t replace_words(uint32_t **field, const uint32_t *words)
{
    if (!words)
        return vorx_er_general_failure;
    size_t count = 0;
    while (words[count] != 0)
        count++;
    uint32_t *copy = malloc((count + 1) * sizeof(*copy));
    if (!copy)
        return vorx_er_general_failure;
    memcpy(copy, words, (count + 1) * sizeof(*copy));
    free(*field);
    *field = copy;
    return vorx_er_success;
}

size_t vorx_conf_string_list_length(char *const *list)
{
    size_t count = 0;
    while (list && list[count])
        count++;
    return count;
}

void vorx_conf_free_string_list(char **list)
{
    for (size_t i = 0; list && list[i]; i++)
        free(list[i]);
    free(list);
}

vorx_er_t vorx_conf_set_string_list(char ***dst, char *const *list)
{
    char **copy = NULL;
    if (list) {
        size_t count = vorx_conf_string_list_length(list);
        copy = calloc(count + 1, sizeof(*copy));
        if (!copy)
            return vorx_er_general_failure;
        for (size_t i = 0; i < count; i++) {
            copy[i] = copy_text(list[i]);
            if (!copy[i]) {
                vorx_conf_free_string_list(copy);
                return vorx_er_general_failure;
            }
        }
    }
    vorx_conf_free_string_list(*dst);
    *dst = copy;
    return vorx_er_success;
}

/* Reads "s1\0s2\0...\0\0" from at most `available` bytes into a fresh list.
 * The list's closing NUL must lie inside the block. An empty list gives a
 * null field. */
static vorx_er_t unpack_string_list(char ***field, const char *block, size_t available,
                                    size_t *consumed)
{
    size_t count = 0, pos = 0;
    for (;;) {
        if (pos >= available)
            return vorx_er_general_failure;
        const char *end = memchr(block + pos, '\0', available - pos);
        if (!end)
            return vorx_er_general_failure;
        size_t len = (size_t)(end - (block + pos));
        pos += len + 1;
        if (len == 0)
            break;
        count++;
    }
    char **list = NULL;
    if (count > 0) {
        list = calloc(count + 1, sizeof(*list));
        if (!list)
            return vorx_er_general_failure;
        const char *item = block;
        for (size_t i = 0; i < count; i++) {
            list[i] = copy_text(item);
            if (!list[i]) {
                vorx_conf_free_string_list(list);
                return vorx_er_general_failure;
            }
            item += strlen(item) + 1;
        }
    }
    vorx_conf_free_string_list(*field);
    *field = list;
    *consumed = pos;
    return vorx_er_success;
}

/* ---------------------------------------------------------------- operations */

static void conf_destroy(vorx_configuration *conf)
{
#define FREE_STRING_(member) free(conf->member), conf->member = NULL;
    VORX_CONF_STRINGS(FREE_STRING_)
#undef FREE_STRING_
#define FREE_WORDS_(member) free(conf->member), conf->member = NULL;
    VORX_CONF_WIRE_WORD_LISTS(FREE_WORDS_)
#undef FREE_WORDS_
    vorx_conf_free_string_list(conf->environment);
    vorx_conf_free_string_list(conf->ignored_processes);
    vorx_conf_free_string_list(conf->aux_list);
    conf->environment = conf->ignored_processes = conf->aux_list = NULL;
}

#define STRING_ACCESSORS_(member)                                                   \
    static vorx_er_t conf_set_##member(vorx_configuration *conf, const char *text) \
    {                                                                               \
        return replace_text(&conf->member, text);                                   \
    }                                                                               \
    static const char *conf_get_##member(const vorx_configuration *conf)           \
    {                                                                               \
        return conf->member;                                                        \
    }
VORX_CONF_STRINGS(STRING_ACCESSORS_)
#undef STRING_ACCESSORS_

#define WORD_LIST_SETTER_(member)                                                        \
    static vorx_er_t conf_set_##member(vorx_configuration *conf, const uint32_t *words) \
    {                                                                                    \
        return replace_words(&conf->member, words);                                      \
    }
VORX_CONF_WIRE_WORD_LISTS(WORD_LIST_SETTER_)
#undef WORD_LIST_SETTER_

#define VALUE_ACCESSORS_(member, type)                                            \
    static vorx_er_t conf_set_##member(vorx_configuration *conf, type value)     \
    {                                                                             \
        conf->member = value;                                                     \
        return vorx_er_success;                                                   \
    }                                                                             \
    static type conf_get_##member(const vorx_configuration *conf)                \
    {                                                                             \
        return conf->member;                                                      \
    }
VALUE_ACCESSORS_(sampling_interval, uint64_t)
VALUE_ACCESSORS_(state, uint32_t)
VALUE_ACCESSORS_(sampling_signal, uint64_t)
VALUE_ACCESSORS_(aux_word_1, uint32_t)
VALUE_ACCESSORS_(log_level, int32_t)
VALUE_ACCESSORS_(compression_level, int32_t)
#undef VALUE_ACCESSORS_

static vorx_er_t conf_or_module_map_flags(vorx_configuration *conf, uint32_t flags)
{
    conf->module_map_flags |= flags;
    return vorx_er_success;
}

static uint32_t conf_get_module_map_flags(const vorx_configuration *conf)
{
    return conf->module_map_flags;
}

static vorx_er_t conf_unpack_environment(vorx_configuration *conf, const char *block,
                                         size_t available, size_t *consumed)
{
    return unpack_string_list(&conf->environment, block, available, consumed);
}

static vorx_er_t conf_unpack_ignored_processes(vorx_configuration *conf, const char *block,
                                               size_t available, size_t *consumed)
{
    return unpack_string_list(&conf->ignored_processes, block, available, consumed);
}

vorx_er_t vorx_conf_unpack_aux_list(vorx_configuration *conf, const char *block,
                                    size_t available, size_t *consumed)
{
    return unpack_string_list(&conf->aux_list, block, available, consumed);
}

static vorx_configuration *conf_clone(const vorx_configuration *conf);

static const vorx_configuration_ops g_conf_ops = {
    .destroy = conf_destroy,
    .clone = conf_clone,
    .set_sampling_interval = conf_set_sampling_interval,
    .get_sampling_interval = conf_get_sampling_interval,
    .set_unwind_text = conf_set_unwind_text,
    .get_unwind_text = conf_get_unwind_text,
    .set_aux_text_1 = conf_set_aux_text_1,
    .get_aux_text_1 = conf_get_aux_text_1,
    .set_aux_text_2 = conf_set_aux_text_2,
    .get_aux_text_2 = conf_get_aux_text_2,
    .set_data_dir = conf_set_data_dir,
    .get_data_dir = conf_get_data_dir,
    .set_aux_text_3 = conf_set_aux_text_3,
    .get_aux_text_3 = conf_get_aux_text_3,
    .set_aux_text_4 = conf_set_aux_text_4,
    .get_aux_text_4 = conf_get_aux_text_4,
    .set_state = conf_set_state,
    .get_state = conf_get_state,
    .set_sampling_signal = conf_set_sampling_signal,
    .get_sampling_signal = conf_get_sampling_signal,
    .set_aux_word_1 = conf_set_aux_word_1,
    .get_aux_word_1 = conf_get_aux_word_1,
    .or_module_map_flags = conf_or_module_map_flags,
    .get_module_map_flags = conf_get_module_map_flags,
    .set_log_level = conf_set_log_level,
    .get_log_level = conf_get_log_level,
    .set_compression_level = conf_set_compression_level,
    .get_compression_level = conf_get_compression_level,
    .set_sysinfo_text = conf_set_sysinfo_text,
    .get_sysinfo_text = conf_get_sysinfo_text,
    .set_time_source_text = conf_set_time_source_text,
    .get_time_source_text = conf_get_time_source_text,
    .set_aux_text_5 = conf_set_aux_text_5,
    .get_aux_text_5 = conf_get_aux_text_5,
    .set_word_list_1 = conf_set_word_list_1,
    .set_word_list_2 = conf_set_word_list_2,
    .set_word_list_3 = conf_set_word_list_3,
    .unpack_environment = conf_unpack_environment,
    .unpack_ignored_processes = conf_unpack_ignored_processes,
};

vorx_configuration *vorx_alloc_configuration(void)
{
    vorx_configuration *conf = calloc(1, sizeof(*conf));
    if (!conf)
        return NULL;
    conf->ops = &g_conf_ops;
    conf->state = vorx_st_resumed;
    conf->origin_process_id = (int32_t)getpid();
    conf->profile_process = true;
    conf->follow_children = true;
    conf->log_level = 2;
    conf->quiet_info = 1;
    conf->per_thread_files = 1;
    conf->stack_stitching_mode = 2;
    conf->use_signal_stack = true;
    conf->memory_size_threshold = 1;
    return conf;
}

void vorx_free_configuration(vorx_configuration *conf)
{
    if (!conf)
        return;
    conf->ops->destroy(conf);
    free(conf);
}

/* Every field by value, then every owned string and list by the object's
 * own setters, so that the copy shares nothing with the original. */
static vorx_configuration *conf_clone(const vorx_configuration *conf)
{
    vorx_configuration *copy = vorx_alloc_configuration();
    if (!copy)
        return NULL;
    const vorx_configuration_ops *ops = copy->ops;
    *copy = *conf;
    copy->ops = ops;
#define CLEAR_OWNED_(member) copy->member = NULL;
    VORX_CONF_STRINGS(CLEAR_OWNED_)
    VORX_CONF_WIRE_WORD_LISTS(CLEAR_OWNED_)
#undef CLEAR_OWNED_
    copy->environment = copy->ignored_processes = copy->aux_list = NULL;
    copy->module_map_flags = 0;
    ops->or_module_map_flags(copy, conf->module_map_flags);

    bool ok = true;
#define COPY_STRING_(member) \
    if (conf->member)        \
        ok = ok && ops->set_##member(copy, conf->member) == vorx_er_success;
    VORX_CONF_STRINGS(COPY_STRING_)
#undef COPY_STRING_
#define COPY_WORDS_(member) \
    if (conf->member)       \
        ok = ok && ops->set_##member(copy, conf->member) == vorx_er_success;
    VORX_CONF_WIRE_WORD_LISTS(COPY_WORDS_)
#undef COPY_WORDS_
    ok = ok && vorx_conf_set_string_list(&copy->environment, conf->environment) == vorx_er_success;
    ok = ok && vorx_conf_set_string_list(&copy->ignored_processes, conf->ignored_processes) ==
                   vorx_er_success;
    ok = ok && vorx_conf_set_string_list(&copy->aux_list, conf->aux_list) == vorx_er_success;
    if (!ok) {
        vorx_free_configuration(copy);
        return NULL;
    }
    return copy;
}
