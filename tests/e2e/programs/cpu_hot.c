/* CPU sampling's test program: known hot functions in several threads.
 *
 *   cpu_hot SECONDS THREADS
 *
 * Each thread (and main, as the last one) spins for SECONDS of its own CPU time, about 70% of it in
 * hot_heavy and 30% in hot_light, both through the callbacks of cpu_hot_nofp.c (built without frame pointers
 * and without unwind tables), and hot_light's share in qsort's comparator, so that its stacks go through
 * libc back to the thread's start. Prints a checksum and each thread's CPU time in microseconds, one line a
 * thread, and exits with 0. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/* cpu_hot_nofp.c */
unsigned nofp_spin(unsigned (*work)(unsigned), unsigned n);

static double g_seconds;
static volatile unsigned g_sink;

static double thread_cpu(void) {
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

__attribute__((noinline)) unsigned hot_heavy(unsigned n) {
    unsigned x = n;
    for (unsigned i = 0; i < 20000; ++i) x = x * 1103515245u + 12345u + (x >> 7);
    return x;
}

static int compare_words(const void* a, const void* b) {
    unsigned x = *(const unsigned*)a, y = *(const unsigned*)b;
    for (int i = 0; i < 8; ++i) x = x * 2654435761u ^ (x >> 3);  /* a comparator with some weight */
    (void)x;
    return (*(const unsigned*)a > y) - (*(const unsigned*)a < y);
}

__attribute__((noinline)) unsigned hot_light(unsigned n) {
    unsigned words[512];
    for (unsigned i = 0; i < 512; ++i) words[i] = (n + i) * 2246822519u;
    qsort(words, 512, sizeof words[0], compare_words);
    return words[n % 512];
}

/* Rounds of 7 heavy and 3 light units, timed once at the start so that the shares hold. */
static unsigned calibrate(unsigned (*work)(unsigned)) {
    double start = thread_cpu();
    unsigned rounds = 0;
    while (thread_cpu() - start < 0.02) {
        g_sink += work(rounds);
        ++rounds;
    }
    return rounds ? rounds : 1;
}

static void* spin(void* arg) {
    double start = thread_cpu();
    unsigned heavy = calibrate(hot_heavy), light = calibrate(hot_light);
    /* per 100 ms of CPU: 70 ms heavy, 30 ms light (each calibrated for 20 ms) */
    unsigned heavy_n = heavy * 70 / 20, light_n = light * 30 / 20;
    unsigned sum = 0;
    while (thread_cpu() - start < g_seconds) {
        sum += nofp_spin(hot_heavy, heavy_n);
        sum += nofp_spin(hot_light, light_n);
    }
    g_sink += sum;
    *(double*)arg = thread_cpu() - start;
    return NULL;
}

int main(int argc, char** argv) {
    g_seconds = argc > 1 ? atof(argv[1]) : 1.0;
    int threads = argc > 2 ? atoi(argv[2]) : 3;
    if (threads < 1 || threads > 64) return 2;
    pthread_t ids[64];
    double cpu[64];
    for (int i = 0; i < threads - 1; ++i) pthread_create(&ids[i], NULL, spin, &cpu[i]);
    spin(&cpu[threads - 1]);
    for (int i = 0; i < threads - 1; ++i) pthread_join(ids[i], NULL);
    printf("threads %d\n", threads);
    for (int i = 0; i < threads; ++i) fprintf(stderr, "cpu_us %d %.0f\n", i, cpu[i] * 1e6);
    return 0;
}
