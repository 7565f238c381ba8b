/*
 * The probe catalogue's bitmaps as plain word arrays, for the derivation of
 * the active probe set. The catalogue's header names the profiling states
 * itself, so it is read in a unit of its own (catalogue_view.c).
 */
#ifndef VORX_CATALOGUE_VIEW_H
#define VORX_CATALOGUE_VIEW_H

#include <stdint.h>

const uint32_t *vorx_catalogue_collection_probes(uint32_t collection);
const uint32_t *vorx_catalogue_online_stack_walk_probes(void);
const uint32_t *vorx_catalogue_stack_stitching_probes(void);
uint32_t vorx_catalogue_probe_words(void);

#endif /* VORX_CATALOGUE_VIEW_H */
