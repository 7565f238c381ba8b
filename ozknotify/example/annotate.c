/*
 * annotate: a small program that describes itself with the annotation API.
 *
 * A "renderer" runs a frame loop. Each frame is a task ("frame work") with
 * two nested tasks ("simulate", "draw"), a counter of objects drawn, and a
 * hand-over to a worker thread through a queue guarded by the program's own
 * spin lock, which is announced as a user synchronisation object.
 *
 * Build: part of the tree (target ozknotify_annotate_example), or by hand:
 *     cc -m32 annotate.c -I<tree>/ozknotify/include -L<build>/lib -lozknotify -lpthread
 * Run alone it prints a summary; under vorxtool
 *     vorx run -- ./ozknotify_annotate_example
 * the trace shows the tasks, frames, counter and the lock's waits.
 */
#include <pthread.h>
#include <stdio.h>

#include "ozknotify.h"

#define FRAMES 20
#define JOBS_PER_FRAME 8

/* The program's own lock: a spin lock the collector knows nothing about
 * unless the program says so. */
static volatile int g_queue_lock;
static int g_queue[JOBS_PER_FRAME * FRAMES];
static int g_queue_head, g_queue_tail;
static int g_done;

static void queue_lock(void)
{
    __ozk_sync_prepare((void *)&g_queue_lock); /* about to wait */
    while (__atomic_exchange_n(&g_queue_lock, 1, __ATOMIC_ACQUIRE))
        ;
    __ozk_sync_acquired((void *)&g_queue_lock); /* got it */
}

static void queue_unlock(void)
{
    __ozk_sync_releasing((void *)&g_queue_lock); /* others may go on */
    __atomic_store_n(&g_queue_lock, 0, __ATOMIC_RELEASE);
}

static void *worker(void *arg)
{
    ozk_counter *jobs_done = arg;
    __ozk_thread_set_name("worker");
    for (;;) {
        int job = -1, finished;
        queue_lock();
        if (g_queue_head != g_queue_tail)
            job = g_queue[g_queue_head++];
        finished = g_done && g_queue_head == g_queue_tail;
        queue_unlock();
        if (job >= 0)
            __ozk_counter_inc(jobs_done);
        if (finished)
            return NULL;
    }
}

static unsigned long long simulate(int frame)
{
    unsigned long long x = (unsigned long long)frame;
    for (int i = 0; i < 20000; ++i)
        x = x * 6364136223846793005ull + 1442695040888963407ull;
    return x;
}

int main(void)
{
    /* Objects are created once, by name; a second call with the same name
     * would return the same pointer. */
    ozk_domain *domain = __ozk_domain_create("renderer");
    ozk_string_handle *frame_work = __ozk_string_handle_create("frame work");
    ozk_string_handle *simulate_name = __ozk_string_handle_create("simulate");
    ozk_string_handle *draw_name = __ozk_string_handle_create("draw");
    ozk_frame *frame = __ozk_frame_create("main loop");
    ozk_counter *drawn = __ozk_counter_create("objects drawn", "renderer");
    ozk_counter *jobs_done = __ozk_counter_create("jobs done", "renderer");

    __ozk_thread_set_name("render thread");
    __ozk_sync_create((void *)&g_queue_lock, "spin lock", "job queue", 0);

    pthread_t thread;
    if (pthread_create(&thread, NULL, worker, jobs_done) != 0) {
        fprintf(stderr, "annotate: cannot start the worker thread\n");
        return 1;
    }

    unsigned long long checksum = 0;
    for (int f = 0; f < FRAMES; ++f) {
        __ozk_frame_begin(frame);
        __ozk_task_begin(domain, ozk_make_id((unsigned long long)f, 0), ozk_null_id(), frame_work);

        __ozk_task_begin(domain, ozk_null_id(), ozk_null_id(), simulate_name);
        checksum ^= simulate(f);
        __ozk_task_end(domain);

        __ozk_task_begin(domain, ozk_null_id(), ozk_null_id(), draw_name);
        queue_lock();
        for (int j = 0; j < JOBS_PER_FRAME; ++j)
            g_queue[g_queue_tail++] = f * JOBS_PER_FRAME + j;
        queue_unlock();
        __ozk_counter_inc_delta(drawn, JOBS_PER_FRAME);
        __ozk_task_end(domain);

        __ozk_task_end(domain); /* frame work */
        __ozk_frame_end(frame);
    }

    queue_lock();
    g_done = 1;
    queue_unlock();
    pthread_join(thread, NULL);
    __ozk_sync_destroy((void *)&g_queue_lock);

    printf("annotate: %d frames, %llu objects drawn, %llu jobs done, checksum %llx\n", FRAMES,
           ozk_counter_value_u64(drawn), ozk_counter_value_u64(jobs_done), checksum);
    return 0;
}
