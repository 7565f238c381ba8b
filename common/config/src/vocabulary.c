/*
 * Words of the collection types, profiling states and commands. Each table
 * is expanded from the list in vorx_config.h, so a word cannot drift from
 * its number.
 */
#include "vorx_config.h"

#include <string.h>

static const char *const g_collection_words[] = {
#define WORD_(name, bit) [bit] = #name,
    VORX_COLLECTIONS(WORD_)
#undef WORD_
};

static const char *const g_command_words[] = {
#define WORD_(name) #name,
    VORX_COMMANDS(WORD_)
#undef WORD_
};

static const char *const g_state_words[] = {"Pause", "Resume"};

const char *vorx_collection_to_string(uint32_t collection)
{
    return collection < vorx_cl_eof ? g_collection_words[collection] : "<unknown collection>";
}

uint32_t vorx_string_to_collection(const char *text)
{
    for (uint32_t i = 0; text && i < vorx_cl_eof; i++)
        if (strcmp(text, g_collection_words[i]) == 0)
            return i;
    return vorx_cl_eof;
}

const char *vorx_state_to_string(uint32_t state)
{
    return state < vorx_st_eof ? g_state_words[state] : "<Unknown state>";
}

uint32_t vorx_string_to_state(const char *text)
{
    for (uint32_t i = 0; text && i < vorx_st_eof; i++)
        if (strcmp(text, g_state_words[i]) == 0)
            return i;
    return vorx_st_eof;
}

uint32_t vorx_string_to_command(const char *text)
{
    for (uint32_t i = 0; text && i < vorx_command_eof; i++)
        if (strcmp(text, g_command_words[i]) == 0)
            return i;
    return vorx_command_eof;
}

const char *vorx_command_to_string(uint32_t command)
{
    return command < vorx_command_eof ? g_command_words[command] : "eof";
}
