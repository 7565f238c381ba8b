/*
 * Stack-stitching contexts. Programs create and destroy them at a high rate
 * (one per handed-over work item), so they are recycled through a lock-free
 * free list instead of the arena's keep-forever memory. The list head is a
 * pointer and a generation count in one 64-bit word, exchanged with
 * cmpxchg8b, so a context that was popped and pushed back between a reader's
 * look and its exchange cannot corrupt the list.
 */
#include "ozk_internal.h"

#define OZK_STACK_CTX_TAG 0x4F5A5343u /* "CSZO" */

struct ozk_stack_ctx {
    unsigned int tag;
    volatile unsigned int collector_words[3]; /* a collector's, 0 when handed out */
    struct ozk_stack_ctx *next_free;
};

typedef union free_head {
    unsigned long long word;
    struct {
        ozk_stack_ctx *top;
        unsigned int generation;
    } parts;
} free_head;

static unsigned long long g_free; /* atomic free_head word */

static ozk_stack_ctx *pop_free(void)
{
    free_head old = {.word = __atomic_load_n(&g_free, __ATOMIC_ACQUIRE)};
    for (;;) {
        if (!old.parts.top)
            return NULL;
        free_head next;
        next.parts.top = old.parts.top->next_free;
        next.parts.generation = old.parts.generation + 1;
        if (__atomic_compare_exchange_n(&g_free, &old.word, next.word, 1, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE))
            return old.parts.top;
    }
}

static void push_free(ozk_stack_ctx *ctx)
{
    free_head old = {.word = __atomic_load_n(&g_free, __ATOMIC_ACQUIRE)};
    free_head next;
    do {
        ctx->next_free = old.parts.top;
        next.parts.top = ctx;
        next.parts.generation = old.parts.generation + 1;
    } while (!__atomic_compare_exchange_n(&g_free, &old.word, next.word, 1, __ATOMIC_ACQ_REL,
                                          __ATOMIC_ACQUIRE));
}

static ozk_stack_ctx g_stack_fallback = {OZK_STACK_CTX_TAG, {0, 0, 0}, 0};

ozk_stack_ctx *ozk_stack_ctx_create(void)
{
    ozk_stack_ctx *ctx = pop_free();
    if (!ctx)
        ctx = ozk_arena_alloc(sizeof *ctx);
    if (!ctx)
        return &g_stack_fallback; /* shared, never recycled */
    ctx->collector_words[0] = ctx->collector_words[1] = ctx->collector_words[2] = 0;
    ctx->next_free = NULL;
    __atomic_store_n(&ctx->tag, OZK_STACK_CTX_TAG, __ATOMIC_RELEASE);
    return ctx;
}

void ozk_stack_ctx_destroy(ozk_stack_ctx *ctx)
{
    if (!ctx || ctx == &g_stack_fallback)
        return;
    /* Only a live context of ours goes back, and only once: a second destroy
     * or a foreign pointer finds no tag. */
    unsigned int tag = OZK_STACK_CTX_TAG;
    if (!__atomic_compare_exchange_n(&ctx->tag, &tag, 0, 0, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
        return;
    push_free(ctx);
}

unsigned int ozk_stack_ctx_is_live(const ozk_stack_ctx *ctx)
{
    return ctx && __atomic_load_n(&ctx->tag, __ATOMIC_ACQUIRE) == OZK_STACK_CTX_TAG;
}
