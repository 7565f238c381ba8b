/*
 * Fuzz target of the configuration unpacker.
 *
 * An input is read two ways, so that an empty corpus still reaches deep into
 * the variable part:
 *   - first byte odd: the rest is a packet as it stands, then the same bytes
 *     with the size word set to their length;
 *   - first byte even: edits of a valid packet: two bytes of length (modulo
 *     the packet's size + 1) followed by (offset low, offset high, value)
 *     triples.
 * Every packet is unpacked from an exactly sized heap copy, so that a read
 * past its end is caught by the sanitizer. A packet that unpacks must pack
 * again, and the second round must give the same bytes.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "vorx_config.h"

static const unsigned char *g_template;
static size_t g_template_size;

static void build_template(void)
{
    vorx_configuration *conf = vorx_alloc_configuration();
    vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
    conf->ops->set_data_dir(conf, "/tmp/fuzz/");
    conf->ops->set_unwind_text(conf, "unwind");
    conf->ops->set_aux_text_5(conf, "five");
    static const uint32_t words[] = {7, 8, 0};
    conf->ops->set_word_list_2(conf, words);
    static const char *env[] = {"A", "1", "B", "2", NULL};
    static const char *aux[] = {"x", "y", NULL};
    vorx_conf_set_string_list(&conf->environment, (char **)env);
    vorx_conf_set_string_list(&conf->aux_list, (char **)aux);
    vorx_conf_add_collection(conf, vorx_cl_cpu);
    size_t size = 0;
    const void *packet = packager->ops->pack(packager, conf, &size);
    unsigned char *copy = malloc(size);
    memcpy(copy, packet, size);
    g_template = copy;
    g_template_size = size;
    vorx_free_configuration_packager(packager);
    vorx_free_configuration(conf);
}

static void check_round_trip(vorx_configuration_packager *packager, vorx_configuration *conf)
{
    size_t size1 = 0, size2 = 0;
    const void *first = packager->ops->pack(packager, conf, &size1);
    if (!first)
        abort();
    unsigned char *copy = malloc(size1);
    memcpy(copy, first, size1);
    vorx_configuration *again = packager->ops->unpack(packager, copy, size1);
    if (!again)
        abort();
    const void *second = packager->ops->pack(packager, again, &size2);
    if (!second || size1 != size2 || memcmp(copy, second, size1) != 0)
        abort();
    vorx_free_configuration(again);
    free(copy);
}

static void unpack_exact(const unsigned char *bytes, size_t size)
{
    unsigned char *copy = malloc(size ? size : 1);
    if (size)
        memcpy(copy, bytes, size);
    vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
    vorx_configuration *conf = packager->ops->unpack(packager, copy, size);
    if (conf) {
        check_round_trip(packager, conf);
        vorx_free_configuration(conf);
    }
    vorx_free_configuration_packager(packager);
    free(copy);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (!g_template)
        build_template();
    if (size == 0)
        return 0;
    if (data[0] & 1) {
        unpack_exact(data + 1, size - 1);
        if (size - 1 >= 4) {
            unsigned char *sized = malloc(size - 1);
            memcpy(sized, data + 1, size - 1);
            uint32_t count = (uint32_t)(size - 1);
            memcpy(sized, &count, 4);
            unpack_exact(sized, size - 1);
            free(sized);
        }
        return 0;
    }
    unsigned char *edited = malloc(g_template_size);
    memcpy(edited, g_template, g_template_size);
    size_t length = g_template_size;
    if (size >= 3)
        length = (size_t)(data[1] | data[2] << 8) % (g_template_size + 1);
    for (size_t i = 3; i + 2 < size; i += 3) {
        size_t offset = (size_t)(data[i] | data[i + 1] << 8) % g_template_size;
        edited[offset] = data[i + 2];
    }
    unpack_exact(edited, length);
    free(edited);
    return 0;
}
