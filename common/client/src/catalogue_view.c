#include "catalogue_view.h"

#include <stddef.h>

#include "vorx_probe_table.h"

const uint32_t *vorx_catalogue_collection_probes(uint32_t collection)
{
    const vorx_probe_bitmap_t *map = vorx_collection_to_probe_bitmap(collection);
    return map ? map->words : NULL;
}

const uint32_t *vorx_catalogue_online_stack_walk_probes(void)
{
    return online_sw_active_probe.words;
}

const uint32_t *vorx_catalogue_stack_stitching_probes(void)
{
    return stack_stitching_active_probe.words;
}

uint32_t vorx_catalogue_probe_words(void)
{
    return (uint32_t)(sizeof(vorx_probe_bitmap_t) / sizeof(uint32_t));
}
