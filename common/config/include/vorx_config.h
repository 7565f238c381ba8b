/*
 * The configuration of one collection, and the words of its vocabulary.
 *
 * The collector has no settings file: the run-tool server answers "config"
 * with one binary packet, the packager turns it into a vorx_configuration,
 * and that object is published as g_vorx_conf. The run-tool server builds
 * the same object from its command line and packs it with the same code, so
 * both sides of the wire share one description of the packet
 * (vorx_config_wire.h).
 *
 * Everything here is plain C with no exceptions and no locks: it is linked
 * into the collector, which runs inside the studied process.
 */
#ifndef VORX_CONFIG_H
#define VORX_CONFIG_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- vocabulary */

/* Collection types: X(name, bit). The word of each is its name. */
#define VORX_COLLECTIONS(X) \
    X(cpu, 0)               \
    X(threading, 1)         \
    X(io, 2)                \
    X(waiting, 3)           \
    X(frame, 4)             \
    X(task, 5)              \
    X(projection, 6)        \
    X(opencl, 7)            \
    X(user_sync, 8)         \
    X(cm, 9)                \
    X(power, 10)            \
    X(opencl_ex, 11)        \
    X(memory, 12)           \
    X(utimer, 13)           \
    X(opengles, 14)

typedef enum vorx_collection {
#define VORX_COLLECTION_ENUM_(name, bit) vorx_cl_##name = bit,
    VORX_COLLECTIONS(VORX_COLLECTION_ENUM_)
#undef VORX_COLLECTION_ENUM_
    vorx_cl_eof /* 15: the count, and the answer for an unknown word */
} vorx_collection_t;

/* Words of the collection types in 8-bit text, for the run-tool's command
 * line; an unknown number gives "<unknown collection>", an unknown word
 * vorx_cl_eof. (The collector's wide-text forms, vorx_collection_to_wstring
 * and vorx_wstring_to_collection, come with the probe catalogue, which
 * describes the collections once for the whole collector.) */
const char *vorx_collection_to_string(uint32_t collection);
uint32_t vorx_string_to_collection(const char *text);

/* Profiling states. */
typedef enum vorx_state {
    vorx_st_paused = 0,
    vorx_st_resumed = 1,
    vorx_st_eof = 2
} vorx_state_t;

/* "Pause", "Resume", or "<Unknown state>". */
const char *vorx_state_to_string(uint32_t state);
/* vorx_st_paused, vorx_st_resumed, or vorx_st_eof for any other text. */
uint32_t vorx_string_to_state(const char *text);

/* Commands between the collector and the run-tool server: X(name). The
 * number of a command is its position; its word is its name. */
#define VORX_COMMANDS(X) \
    X(state)             \
    X(reattach)          \
    X(attach)            \
    X(stop)              \
    X(ready)             \
    X(config)            \
    X(new)               \
    X(end)               \
    X(error)             \
    X(warning)           \
    X(info)              \
    X(symfile)

typedef enum vorx_command {
#define VORX_COMMAND_ENUM_(name) vorx_command_##name,
    VORX_COMMANDS(VORX_COMMAND_ENUM_)
#undef VORX_COMMAND_ENUM_
    vorx_command_eof /* 12: not a command; the answer for an unknown word */
} vorx_command_t;

/* Whole, case-sensitive comparison: "statex" is vorx_command_eof. A text such as
 * "state:Pause" must be cut at its ':' by the caller first. */
uint32_t vorx_string_to_command(const char *text);
/* The word of a command; "eof" for vorx_command_eof and anything above. */
const char *vorx_command_to_string(uint32_t command);

/* ------------------------------------------------------------ configuration */

#define VORX_CONF_COLLECTION_BITS 64u
#define VORX_CONF_COLLECTION_WORDS VORX_BITMAP_WORDS(VORX_CONF_COLLECTION_BITS)
/* Probe ids run from 0 to 559; the bitmaps of the catalogue have 576 bits. */
#define VORX_CONF_PROBE_COUNT 560u
#define VORX_CONF_PROBE_WORDS 18u
#define VORX_CONF_SYNC_THRESHOLD_ROWS 7u

/* Rows of sync_thresholds with a meaning to this collector. */
enum vorx_sync_threshold_row {
    vorx_sth_contention_filter = 0, /* low byte of the value: non-zero is on */
    vorx_sth_short_wait = 1,
    vorx_sth_wait = 2,
    vorx_sth_stack = 3,
    vorx_sth_eof = VORX_CONF_SYNC_THRESHOLD_ROWS
};

typedef struct vorx_sync_threshold {
    uint32_t kind;
    uint64_t threshold;
} vorx_sync_threshold;

typedef struct vorx_configuration vorx_configuration;

/*
 * The operations of a configuration, in their fixed order. String setters
 * keep their own copy and give vorx_er_success, or vorx_er_general_failure
 * for a null text or when memory runs out (the old value is then kept).
 * Word-list setters copy up to and including the zero word. The two list
 * unpackers read "s1\0s2\0...\0\0" from at most `available` bytes and say
 * how many they used; a list that runs off the end is a failure.
 */
typedef struct vorx_configuration_ops {
    void (*destroy)(vorx_configuration *conf);
    vorx_configuration *(*clone)(const vorx_configuration *conf);
    vorx_er_t (*set_sampling_interval)(vorx_configuration *conf, uint64_t value);
    uint64_t (*get_sampling_interval)(const vorx_configuration *conf);
    vorx_er_t (*set_unwind_text)(vorx_configuration *conf, const char *text);
    const char *(*get_unwind_text)(const vorx_configuration *conf);
    vorx_er_t (*set_aux_text_1)(vorx_configuration *conf, const char *text);
    const char *(*get_aux_text_1)(const vorx_configuration *conf);
    vorx_er_t (*set_aux_text_2)(vorx_configuration *conf, const char *text);
    const char *(*get_aux_text_2)(const vorx_configuration *conf);
    vorx_er_t (*set_data_dir)(vorx_configuration *conf, const char *text);
    const char *(*get_data_dir)(const vorx_configuration *conf);
    vorx_er_t (*set_aux_text_3)(vorx_configuration *conf, const char *text);
    const char *(*get_aux_text_3)(const vorx_configuration *conf);
    vorx_er_t (*set_aux_text_4)(vorx_configuration *conf, const char *text);
    const char *(*get_aux_text_4)(const vorx_configuration *conf);
    vorx_er_t (*set_state)(vorx_configuration *conf, uint32_t state);
    uint32_t (*get_state)(const vorx_configuration *conf);
    vorx_er_t (*set_sampling_signal)(vorx_configuration *conf, uint64_t value);
    uint64_t (*get_sampling_signal)(const vorx_configuration *conf);
    vorx_er_t (*set_aux_word_1)(vorx_configuration *conf, uint32_t value);
    uint32_t (*get_aux_word_1)(const vorx_configuration *conf);
    vorx_er_t (*or_module_map_flags)(vorx_configuration *conf, uint32_t flags);
    uint32_t (*get_module_map_flags)(const vorx_configuration *conf);
    vorx_er_t (*set_log_level)(vorx_configuration *conf, int32_t level);
    int32_t (*get_log_level)(const vorx_configuration *conf);
    vorx_er_t (*set_compression_level)(vorx_configuration *conf, int32_t level);
    int32_t (*get_compression_level)(const vorx_configuration *conf);
    vorx_er_t (*set_sysinfo_text)(vorx_configuration *conf, const char *text);
    const char *(*get_sysinfo_text)(const vorx_configuration *conf);
    vorx_er_t (*set_time_source_text)(vorx_configuration *conf, const char *text);
    const char *(*get_time_source_text)(const vorx_configuration *conf);
    vorx_er_t (*set_aux_text_5)(vorx_configuration *conf, const char *text);
    const char *(*get_aux_text_5)(const vorx_configuration *conf);
    vorx_er_t (*set_word_list_1)(vorx_configuration *conf, const uint32_t *words);
    vorx_er_t (*set_word_list_2)(vorx_configuration *conf, const uint32_t *words);
    vorx_er_t (*set_word_list_3)(vorx_configuration *conf, const uint32_t *words);
    vorx_er_t (*unpack_environment)(vorx_configuration *conf, const char *block,
                                    size_t available, size_t *consumed);
    vorx_er_t (*unpack_ignored_processes)(vorx_configuration *conf, const char *block,
                                          size_t available, size_t *consumed);
} vorx_configuration_ops;

/*
 * The configuration object. Fields without an operation are read and written
 * directly. Owned memory: every string, every list and every string of a list
 * belongs to the object and is freed by its destroy operation.
 */
struct vorx_configuration {
    const vorx_configuration_ops *ops;

    uint32_t state;               /* vorx_st_paused or vorx_st_resumed; default resumed */
    uint64_t sampling_interval;   /* must be above 0 when vorx_cl_cpu is on */
    int32_t origin_process_id;    /* given by the server, carried */
    int32_t parent_process_id;    /* replaced by the real one after parsing */
    int32_t attach_requested;     /* non-zero: the engine attached to a running process */
    int32_t process_id;           /* replaced by the real one after parsing */
    bool is_root_process;         /* the first process of the collection */
    bool profile_process;         /* default true */
    bool follow_children;         /* default true: fork and exec are followed */
    char **ignored_processes;     /* base names of programs not followed into; null-terminated */
    char *unwind_text;
    char *aux_text_1;
    char *aux_text_2;
    char *data_dir;               /* prefix of every file name, ends with its separator */
    char *aux_text_3;
    char *aux_text_4;
    char *sysinfo_text;
    vorx_bitmap_t collection_types[VORX_CONF_COLLECTION_WORDS];
    vorx_bitmap_t active_probes[VORX_CONF_PROBE_WORDS]; /* derived, never on the wire */
    uint64_t sampling_signal;     /* real-time signal used for sampling */
    uint32_t aux_word_1;
    int32_t compression_level;
    char **environment;           /* name, value, name, value, ..., null */
    uint32_t module_map_flags;
    int32_t log_level;            /* default 2 */
    uint32_t quiet_info;          /* default 1: informational reports stay local */
    uint32_t offline_stack_walk;
    uint32_t pytrace_enabled;
    bool signal_flag_1;
    bool signal_flag_2;
    bool pytrace_started;
    bool no_libc_runtime;
    vorx_sync_threshold sync_thresholds[VORX_CONF_SYNC_THRESHOLD_ROWS];
    uint32_t time_source;
    char *time_source_text;
    uint32_t per_thread_files;    /* default 1 */
    uint32_t stack_stitching_mode;/* default 2; 1 removes the stitching probes */
    bool stracing;
    bool use_signal_stack;        /* default true */
    bool aux_flag_1;
    uint32_t ring_buffer_duration;
    uint32_t memory_size_threshold; /* default 1 */
    uint32_t aux_pair[2];
    char **aux_list;
    uint32_t *word_list_1;        /* zero-terminated */
    uint32_t *word_list_2;
    uint32_t *word_list_3;
    uint32_t aux_word_2;
    uint32_t aux_word_3;
    char *aux_text_5;
    uint32_t opencl_selector;     /* set at module load, never on the wire */
};

/* The configuration of this process: null until the first "config" answer,
 * replaced as a whole (by atomic exchange) on a reattach. */
extern vorx_configuration *g_vorx_conf;

/* Publishes conf as g_vorx_conf by atomic exchange; returns the previous one. */
vorx_configuration *vorx_conf_publish(vorx_configuration *conf);

/* A configuration with every default in place; null when memory runs out. */
vorx_configuration *vorx_alloc_configuration(void);
/* Destroys and frees; a null pointer is ignored. */
void vorx_free_configuration(vorx_configuration *conf);

static inline bool vorx_conf_has_collection(const vorx_configuration *conf, uint32_t collection)
{
    return collection < VORX_CONF_COLLECTION_BITS &&
           (conf->collection_types[collection / 32u] >> (collection % 32u)) & 1u;
}

static inline void vorx_conf_add_collection(vorx_configuration *conf, uint32_t collection)
{
    if (collection < VORX_CONF_COLLECTION_BITS)
        conf->collection_types[collection / 32u] |= 1u << (collection % 32u);
}

/* Number of strings in a null-terminated list (0 for a null list). */
size_t vorx_conf_string_list_length(char *const *list);
/* Replaces *dst by a deep copy of list (null stays null). */
vorx_er_t vorx_conf_set_string_list(char ***dst, char *const *list);
void vorx_conf_free_string_list(char **list);

/* -------------------------------------------------------------- the packager */

typedef struct vorx_configuration_packager vorx_configuration_packager;

typedef struct vorx_configuration_packager_ops {
    /* Packs conf; the packet belongs to the packager and lives until its next
     * pack or its release. Null when memory runs out or when a list holds an
     * empty string (an empty string would end the list on the wire). */
    const void *(*pack)(vorx_configuration_packager *packager, const vorx_configuration *conf,
                        size_t *out_size);
    /* Makes a new configuration from `length` bytes. Null for a packet that
     * is shorter than its fixed part, whose size word exceeds the bytes
     * given, or whose variable part runs off the end of its block. */
    vorx_configuration *(*unpack)(vorx_configuration_packager *packager, const void *packet,
                                  size_t length);
} vorx_configuration_packager_ops;

struct vorx_configuration_packager {
    const vorx_configuration_packager_ops *ops;
    void *packet;       /* owned; calloc'ed */
    size_t packet_size;
};

vorx_configuration_packager *vorx_alloc_configuration_packager(void);
void vorx_free_configuration_packager(vorx_configuration_packager *packager);

/* ---------------------------------------------------------- the active set */

/*
 * What the probe catalogue knows, handed in so that this library does not
 * depend on the catalogue: the probe bitmap of each collection
 * (VORX_CONF_PROBE_WORDS words each, null for none), and the probes that only
 * serve the online stack walker or stack stitching.
 */
typedef struct vorx_probe_sets {
    const vorx_bitmap_t *(*collection_probes)(uint32_t collection);
    const vorx_bitmap_t *online_stack_walk_probes;
    const vorx_bitmap_t *stack_stitching_probes;
} vorx_probe_sets;

/*
 * Fills conf->active_probes: the union of the probe bitmaps of every
 * collection in collection_types, collection 0 always included; then, with
 * offline stack walking, without the online walker's probes; then, with
 * stack stitching mode 1, without the stitching probes.
 */
void vorx_conf_derive_active_probes(vorx_configuration *conf, const vorx_probe_sets *sets);

#ifdef __cplusplus
}
#endif

#endif /* VORX_CONFIG_H */
