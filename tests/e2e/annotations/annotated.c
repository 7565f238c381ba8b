/*
 * A program that describes its work with the annotation API, with times and values that a trace reader can
 * check: an outer task holding two inner tasks of known length, a loop of five frames, a counter set to known
 * values, a wait on a user synchronisation object, and the calls that the library makes through its hand-over
 * table (an overlapped task, a counter by domain and name, a typed counter). It prints what it did, so a run
 * under the collector can be compared with a run alone.
 */
#include <stdio.h>
#include <time.h>

#include "ozknotify.h"

#define FRAMES 5
#define INNER_A_MS 30
#define INNER_B_MS 60
#define FRAME_MS 10
#define GATE_WAIT_MS 20
#define OVERLAP_MS 40
#define TICKS 6

static const unsigned long long counter_values[] = {7, 42, 1000, 3};

static void sleep_ms(int ms)
{
    struct timespec left = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0)
        ;
}

/* A wait that no system call makes: the program spins on its own flag. */
static void spin_ms(int ms)
{
    struct timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    do
        clock_gettime(CLOCK_MONOTONIC, &now);
    while ((now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000 < ms);
}

static volatile int g_gate;

int main(void)
{
    ozk_domain *domain = __ozk_domain_create("e2e.annotations");
    ozk_string_handle *outer = __ozk_string_handle_create("outer");
    ozk_string_handle *inner_a = __ozk_string_handle_create("inner a");
    ozk_string_handle *inner_b = __ozk_string_handle_create("inner b");
    ozk_frame *loop = __ozk_frame_create("e2e loop");
    ozk_counter *level = __ozk_counter_create("e2e level", "e2e.annotations");
    __ozk_sync_create((void *)&g_gate, "flag", "e2e gate", 0);

    /* ids with words in every position, so that a word taken from the wrong place shows */
    const ozk_id outer_id = ozk_make_id(0x0102030405060708ull, 0x1112131415161718ull);
    __ozk_task_begin(domain, outer_id, ozk_null_id(), outer);
    __ozk_task_begin(domain, ozk_make_id(2, 0x2222), outer_id, inner_a);
    sleep_ms(INNER_A_MS);
    __ozk_task_end(domain);
    __ozk_task_begin(domain, ozk_make_id(3, 0x3333), outer_id, inner_b);
    sleep_ms(INNER_B_MS);
    __ozk_task_end(domain);
    __ozk_task_end(domain);

    for (int f = 0; f < FRAMES; ++f) {
        __ozk_frame_begin(loop);
        sleep_ms(FRAME_MS);
        __ozk_frame_end(loop);
    }

    for (unsigned k = 0; k < sizeof counter_values / sizeof counter_values[0]; ++k) {
        unsigned long long value = counter_values[k];
        __ozk_counter_set_value(level, &value);
    }

    /* reached through the library's hand-over table, not by symbol */
    ozk_string_handle *overlap = __ozk_string_handle_create("overlap");
    ozk_string_handle *ticks = __ozk_string_handle_create("e2e ticks");
    const ozk_id overlap_id = ozk_make_id(4, 0x4444);
    __ozk_task_begin_overlapped(domain, overlap_id, ozk_null_id(), overlap);
    for (int t = 0; t < TICKS; ++t)
        __ozk_counter_inc_v3(domain, ticks);
    __ozk_counter_dec_v3(domain, ticks);
    sleep_ms(OVERLAP_MS);
    __ozk_task_end_overlapped(domain, overlap_id);
    ozk_counter *depth = __ozk_counter_create_typed("e2e depth", "e2e.annotations", OZK_COUNTER_U32);
    unsigned depth_value = 12;
    __ozk_counter_set_value(depth, &depth_value);

    __ozk_sync_prepare((void *)&g_gate);
    spin_ms(GATE_WAIT_MS);
    g_gate = 1;
    __ozk_sync_acquired((void *)&g_gate);
    __ozk_sync_releasing((void *)&g_gate);
    g_gate = 0;
    __ozk_sync_destroy((void *)&g_gate);

    printf("annotated: 3 tasks, %d frames, counter at %llu\n", FRAMES, ozk_counter_value_u64(level));
    return 0;
}
