// The annotation library's hand-over table: the slots through which the library calls the entry points that
// it does not export for probing (see api_handover.cpp).
#pragma once

#include "vorx_config.h"

#ifdef __cplusplus
extern "C" {
#endif

// The mask that __ozk_api_init passes to the library in place of its caller's flags: what the configuration
// collects of the annotation API.
int vorx_ozk_api_init_mask(const vorx_configuration *conf);
// Called by the __ozk_api_init wrapper, also before the runtime opens: takes the table's slots when it is of
// the library's form and answers the mask.
int vorx_ozk_api_handover(void *api_table);
// At attach: the slots of a table handed over earlier are taken again.
void vorx_ozk_api_retake(void);
// At detach: the library's own functions go back into the slots.
void vorx_ozk_api_give_back(void);
// The library is unloaded: its table is gone.
void vorx_ozk_api_forget(void);

#ifdef __cplusplus
}
#endif
