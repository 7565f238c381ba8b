/*
 * The configuration packet, described once.
 *
 * Little-endian, built for a 32-bit machine but laid out in fixed cells so
 * that a 64-bit run-tool server writes the very same bytes. The fixed part is
 * 376 bytes: the size word at 0, then one 8-byte cell per field; a 32-bit
 * field fills the low word of its cell and leaves the high word 0, unless it
 * is sign-extended.
 *
 * The variable part follows at 376, each item right after the one before:
 *   word_list_1, word_list_2, word_list_3   32-bit words ended by a 0 word
 *   8 strings in VORX_CONF_WIRE_STRINGS order, each with its NUL
 *   environment, ignored_processes          strings with their NULs, then a NUL
 *   collection_types                        8 bytes, unaligned
 *   aux_text_5                              a string with its NUL
 *   aux_list                                as environment
 */
#ifndef VORX_CONFIG_WIRE_H
#define VORX_CONFIG_WIRE_H

/* X(offset, member, codec). Codecs:
 *   u32   low word, high word 0
 *   s32   sign-extended to 64 bits
 *   u64   the whole cell
 *   flag  0 or 1 in the cell; any non-zero cell reads as true
 *   pair  two 32-bit words, member[0] first */
#define VORX_CONF_WIRE_FIXED(X)            \
    X(8, state, u32)                       \
    X(16, sampling_interval, u64)          \
    X(24, origin_process_id, s32)          \
    X(32, attach_requested, s32)           \
    X(40, parent_process_id, s32)          \
    X(48, process_id, s32)                 \
    X(56, is_root_process, flag)           \
    X(64, profile_process, flag)           \
    X(72, follow_children, flag)           \
    X(80, sampling_signal, u64)            \
    X(88, aux_word_1, u32)                 \
    X(96, log_level, u32)                  \
    X(104, quiet_info, u32)                \
    X(112, offline_stack_walk, u32)        \
    X(120, per_thread_files, u32)          \
    X(128, compression_level, s32)         \
    X(136, time_source, u32)               \
    X(144, module_map_flags, u32)          \
    X(152, pytrace_enabled, u32)           \
    X(160, signal_flag_1, flag)            \
    X(168, signal_flag_2, flag)            \
    X(176, pytrace_started, flag)          \
    X(184, no_libc_runtime, flag)          \
    X(192, stack_stitching_mode, u32)      \
    X(200, stracing, flag)                 \
    X(208, use_signal_stack, flag)         \
    X(216, aux_flag_1, flag)               \
    X(224, ring_buffer_duration, u32)      \
    X(232, memory_size_threshold, u32)     \
    X(240, aux_pair, pair)                 \
    X(248, aux_word_2, u32)                \
    X(256, aux_word_3, u32)

#define VORX_CONF_WIRE_SIZE_OFFSET 0u
#define VORX_CONF_WIRE_THRESHOLDS_OFFSET 264u
#define VORX_CONF_WIRE_THRESHOLD_ROW_SIZE 16u /* kind (4), 0 (4), threshold (8) */
#define VORX_CONF_WIRE_FIXED_SIZE 376u

/* The word lists, in wire order: X(member). */
#define VORX_CONF_WIRE_WORD_LISTS(X) X(word_list_1) X(word_list_2) X(word_list_3)

/* The eight strings after the word lists, in wire order: X(member). */
#define VORX_CONF_WIRE_STRINGS(X) \
    X(unwind_text)                \
    X(aux_text_1)                 \
    X(aux_text_2)                 \
    X(data_dir)                   \
    X(aux_text_3)                 \
    X(aux_text_4)                 \
    X(sysinfo_text)               \
    X(time_source_text)

#endif /* VORX_CONFIG_WIRE_H */
