/*
 * The library's own bodies of the hand-over table's slots: what runs when no
 * collector has taken a slot over (and what a collector calls as the
 * original after it has).
 */
#include "ozk_internal.h"

void ozk_default___ozk_task_begin_overlapped(const ozk_domain *domain, ozk_id taskid,
                                             ozk_id parentid, ozk_string_handle *name)
{
}

void ozk_default___ozk_task_end_overlapped(const ozk_domain *domain, ozk_id taskid)
{
}

void ozk_default___ozk_metadata_add(const ozk_domain *domain, ozk_id id, ozk_string_handle *key,
                                    int type, size_t count, void *data)
{
}

void ozk_default___ozk_frame_submit_v3(const ozk_domain *domain, ozk_id id,
                                       unsigned long long begin, unsigned long long end)
{
}

ozk_counter *ozk_default___ozk_counter_create_typed(const char *name, const char *domain, int type)
{
    return ozk_counter_get(name, domain, type);
}

void ozk_default___ozk_counter_inc_v3(const ozk_domain *domain, const ozk_string_handle *name)
{
    ozk_counter_add(ozk_counter_get_v3(domain, name), 1);
}

void ozk_default___ozk_counter_inc_delta_v3(const ozk_domain *domain,
                                            const ozk_string_handle *name,
                                            unsigned long long delta)
{
    ozk_counter_add(ozk_counter_get_v3(domain, name), (long long)delta);
}

void ozk_default___ozk_counter_set_value(ozk_counter *counter, void *value_ptr)
{
    ozk_counter_set(counter, value_ptr);
}

void ozk_default___ozk_counter_dec(ozk_counter *counter)
{
    ozk_counter_add(counter, -1);
}

void ozk_default___ozk_counter_dec_delta(ozk_counter *counter, unsigned long long value)
{
    ozk_counter_add(counter, -(long long)value);
}

void ozk_default___ozk_counter_dec_v3(const ozk_domain *domain, const ozk_string_handle *name)
{
    ozk_counter_add(ozk_counter_get_v3(domain, name), -1);
}

void ozk_default___ozk_counter_dec_delta_v3(const ozk_domain *domain,
                                            const ozk_string_handle *name,
                                            unsigned long long delta)
{
    ozk_counter_add(ozk_counter_get_v3(domain, name), -(long long)delta);
}

/* Hand-over points: the collector gives them meaning; alone they do nothing. */
void ozk_default___internal_set_ring_buffer(unsigned long long buffer)
{
}

void ozk_default___internal_on_collection_started(void)
{
}

void ozk_default___internal_on_collection_stopped(void)
{
}

void ozk_default___internal_pytrace_function_range(unsigned short kind, unsigned long long start,
                                                   unsigned long long end)
{
}

void ozk_default___internal_set_runs_count(unsigned int count)
{
}
