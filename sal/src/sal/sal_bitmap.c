/* Bitmaps of 32-bit words. Bits past the given length are never looked at. */
#include "sal.h"

#define WORD_BITS VORX_BITMAP_WORD_BITS

static inline vorx_size_t full_words(vorx_size_t bits)
{
    return bits / WORD_BITS;
}

/* Mask of the meaningful bits of the last, partial word (0 when there is none). */
static inline vorx_bitmap_t tail_mask(vorx_size_t bits)
{
    return ((vorx_bitmap_t)1 << (bits % WORD_BITS)) - 1;
}

#define VORX_BITMAP_BINARY(name, op)                                                             \
    void vorx_bitmap_##name(vorx_bitmap_t *dst, const vorx_bitmap_t *a, const vorx_bitmap_t *b,  \
                            vorx_size_t bits)                                                    \
    {                                                                                            \
        for (vorx_size_t i = 0; i < VORX_BITMAP_WORDS(bits); ++i)                                \
            dst[i] = a[i] op b[i];                                                               \
    }
VORX_BITMAP_BINARY(and, &)
VORX_BITMAP_BINARY(or, |)
VORX_BITMAP_BINARY(xor, ^)
#undef VORX_BITMAP_BINARY

vorx_bool_t vorx_bitmap_is_empty(const vorx_bitmap_t *map, vorx_size_t bits)
{
    vorx_size_t words = full_words(bits);
    for (vorx_size_t i = 0; i < words; ++i)
        if (map[i] != 0)
            return VORX_FALSE;
    if (bits % WORD_BITS && (map[words] & tail_mask(bits)) != 0)
        return VORX_FALSE;
    return VORX_TRUE;
}

vorx_bool_t vorx_bitmap_is_full(const vorx_bitmap_t *map, vorx_size_t bits)
{
    vorx_size_t words = full_words(bits);
    for (vorx_size_t i = 0; i < words; ++i)
        if (map[i] != ~(vorx_bitmap_t)0)
            return VORX_FALSE;
    if (bits % WORD_BITS && (map[words] & tail_mask(bits)) != tail_mask(bits))
        return VORX_FALSE;
    return VORX_TRUE;
}

vorx_size_t vorx_bitmap_get_raised_bits_count(const vorx_bitmap_t *map, vorx_size_t bits)
{
    vorx_size_t words = full_words(bits);
    vorx_size_t count = 0;
    for (vorx_size_t i = 0; i < words; ++i)
        count += (vorx_size_t)__builtin_popcount(map[i]);
    if (bits % WORD_BITS)
        count += (vorx_size_t)__builtin_popcount(map[words] & tail_mask(bits));
    return count;
}

vorx_size_t vorx_bitmap_find_next_raised_bit(const vorx_bitmap_t *map, vorx_size_t bits,
                                             vorx_size_t from)
{
    vorx_size_t bit = from + 1;
    if (from == (vorx_size_t)-1)
        bit = 0;
    while (bit < bits) {
        vorx_bitmap_t word = map[bit / WORD_BITS] >> (bit % WORD_BITS);
        if (word != 0) {
            bit += (vorx_size_t)__builtin_ctz(word);
            return bit < bits ? bit : bits;
        }
        bit = (bit / WORD_BITS + 1) * WORD_BITS;
    }
    return bits;
}

vorx_size_t vorx_bitmap_find_first_raised_bit(const vorx_bitmap_t *map, vorx_size_t bits)
{
    return vorx_bitmap_find_next_raised_bit(map, bits, (vorx_size_t)-1);
}
