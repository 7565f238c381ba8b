/*
 * The active probe set of a configuration.
 *
 * Collection 0 is always in: its probes are what every run needs, whatever
 * the user chose. The two removals drop probes whose only purpose is served
 * otherwise: the online walker's helpers when stacks are walked offline, and
 * the stitching probes when stitching is off (mode 1).
 */
#include "vorx_config.h"

#include <string.h>

static void or_words(vorx_bitmap_t *dst, const vorx_bitmap_t *src)
{
    for (unsigned i = 0; i < VORX_CONF_PROBE_WORDS; i++)
        dst[i] |= src[i];
}

/* dst &= ~src, written as the and with (all ones xor src). */
static void remove_words(vorx_bitmap_t *dst, const vorx_bitmap_t *src)
{
    for (unsigned i = 0; i < VORX_CONF_PROBE_WORDS; i++)
        dst[i] &= ~(vorx_bitmap_t)0 ^ src[i];
}

void vorx_conf_derive_active_probes(vorx_configuration *conf, const vorx_probe_sets *sets)
{
    memset(conf->active_probes, 0, sizeof(conf->active_probes));
    for (uint32_t collection = 0; collection < vorx_cl_eof; collection++) {
        if (collection != 0 && !vorx_conf_has_collection(conf, collection))
            continue;
        const vorx_bitmap_t *probes = sets->collection_probes(collection);
        if (probes)
            or_words(conf->active_probes, probes);
    }
    if (conf->offline_stack_walk != 0 && sets->online_stack_walk_probes)
        remove_words(conf->active_probes, sets->online_stack_walk_probes);
    if (conf->stack_stitching_mode == 1 && sets->stack_stitching_probes)
        remove_words(conf->active_probes, sets->stack_stitching_probes);
}
