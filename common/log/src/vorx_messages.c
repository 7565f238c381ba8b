/* The message table, expanded from the catalogue's one description. */
#include "vorx_messages.h"

#define CRITICAL vorx_log_level_critical
#define ERROR vorx_log_level_error
#define WARNING vorx_log_level_warning
#define INFO vorx_log_level_info

static const vorx_message_info g_messages[] = {
#define VORX_MESSAGE(id, name, level, fatal, text, arguments)                                     \
    {vorx_msg_##name, #name, level, fatal, text, VORX_MESSAGE_XML(id, arguments)},
#include "vorx_messages.def"
#undef VORX_MESSAGE
};

#define MESSAGE_COUNT (sizeof(g_messages) / sizeof(g_messages[0]))

const vorx_message_info *vorx_message_lookup(vorx_u32_t id)
{
    for (vorx_size_t i = 0; i < MESSAGE_COUNT; ++i)
        if ((vorx_u32_t)g_messages[i].id == id)
            return &g_messages[i];
    return (const vorx_message_info *)0;
}

const vorx_message_info *vorx_message_catalogue(vorx_size_t *count)
{
    *count = MESSAGE_COUNT;
    return g_messages;
}
