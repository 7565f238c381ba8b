/*
 * vorx_init_configuration: the first words of a process with the run-tool
 * server. Kept apart from the client proper because it is the one piece
 * that needs the probe catalogue.
 */
#include "vorx_client.h"

#include "catalogue_view.h"
#include "sal.h"
#include "vorx_log.h"

vorx_er_t vorx_init_configuration(const char *server_name)
{
    /* A reattach makes a new client. The old one is left in place: another
     * thread may be in the middle of a report through it. */
    g_vorx_client = vorx_alloc_client(server_name);
    vorx_client_install_report_hook(g_vorx_client);

    sal_allocator allocator;
    sal_allocator_init(&allocator, sal_allocator_type_heap, SAL_ALLOCATOR_NO_LIMIT);
    void *packet = NULL;
    vorx_size_t length = 0;
    vorx_er_t result =
        g_vorx_client->ops->get_configuration(g_vorx_client, &packet, &length, &allocator);
    if (result != vorx_er_success) {
        sal_allocator_destroy(&allocator);
        return result;
    }

    vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
    if (!packager)
        vorx_report(vorx_msg_cannot_allocate_packager);
    vorx_configuration *conf = packager->ops->unpack(packager, packet, length);
    vorx_free_configuration(vorx_conf_publish(conf));
    if (!conf)
        vorx_report(vorx_msg_cannot_parse_configuration);
    vorx_free_configuration_packager(packager);

    VORX_ASSERT(vorx_catalogue_probe_words() == VORX_CONF_PROBE_WORDS);
    const vorx_probe_sets sets = {
        .collection_probes = vorx_catalogue_collection_probes,
        .online_stack_walk_probes = vorx_catalogue_online_stack_walk_probes(),
        .stack_stitching_probes = vorx_catalogue_stack_stitching_probes(),
    };
    vorx_conf_derive_active_probes(conf, &sets);
    conf->process_id = (int32_t)sal_process_id();
    conf->parent_process_id = (int32_t)sal_parent_process_id();

    sal_allocator_destroy(&allocator);
    return vorx_er_success;
}
