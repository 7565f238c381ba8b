/* The process's configuration pointer, on its own so that a program that
 * only packs configurations does not carry it along. */
#include "vorx_config.h"

vorx_configuration *g_vorx_conf;

vorx_configuration *vorx_conf_publish(vorx_configuration *conf)
{
    return __atomic_exchange_n(&g_vorx_conf, conf, __ATOMIC_ACQ_REL);
}
