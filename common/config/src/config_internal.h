/*
 * Between the configuration object and its packager: what the object offers
 * the packager beyond its operation table.
 */
#ifndef VORX_CONFIG_INTERNAL_H
#define VORX_CONFIG_INTERNAL_H

#include "vorx_config.h"

/* aux_list has no operation of its own; unpacks it as the two list
 * operations do. */
vorx_er_t vorx_conf_unpack_aux_list(vorx_configuration *conf, const char *block,
                                    size_t available, size_t *consumed);

#endif /* VORX_CONFIG_INTERNAL_H */
