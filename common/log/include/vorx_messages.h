/*
 * Ids and the table of the user messages, made from vorx_messages.def.
 */
#ifndef VORX_MESSAGES_H
#define VORX_MESSAGES_H

#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Levels of reports, in the order of the severity ladder. */
typedef enum vorx_log_level {
    vorx_log_level_critical = 0,
    vorx_log_level_error = 1,
    vorx_log_level_warning = 2,
    vorx_log_level_info = 3,
    vorx_log_level_trace = 4,
    vorx_log_level_eof
} vorx_log_level_t;

typedef enum vorx_msg_id {
#define VORX_MESSAGE(id, name, level, fatal, text, arguments) vorx_msg_##name = id,
#include "vorx_messages.def"
#undef VORX_MESSAGE
    vorx_msg_eof
} vorx_msg_id_t;

typedef struct vorx_message_info {
    vorx_msg_id_t id;
    const char *name;
    vorx_log_level_t level;
    vorx_bool_t fatal;
    const char *text; /* printf format of the log line's text */
    const char *xml;  /* printf format of the message, same arguments */
} vorx_message_info;

/* The catalogue entry of an id, or null for an id this collector never raises. */
const vorx_message_info *vorx_message_lookup(vorx_u32_t id);
/* Every entry, in id order, and their number. */
const vorx_message_info *vorx_message_catalogue(vorx_size_t *count);

/* Literal building blocks, used by the table and usable at report sites. */
#define VORX_MESSAGE_ARG(name, conversion) "<arg name='" name "' value='" conversion "' />"
#define VORX_MESSAGE_NO_ARGS ""
#define VORX_MESSAGE_XML(id, arguments) "<?xml ?><msg name='" #id "'>" arguments "</msg>"

#ifdef __cplusplus
}
#endif

#endif /* VORX_MESSAGES_H */
