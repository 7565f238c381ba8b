/*
 * A driver for the fuzz target where libFuzzer is not at hand: feeds it
 * random inputs from a fixed seed for a number of rounds (argument 1,
 * default 200000), so that a run is repeatable.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static uint32_t g_state = 0x9E3779B9u;

static uint32_t next_random(void)
{
    g_state ^= g_state << 13;
    g_state ^= g_state >> 17;
    g_state ^= g_state << 5;
    return g_state;
}

int main(int argc, char **argv)
{
    unsigned long rounds = argc > 1 ? strtoul(argv[1], NULL, 10) : 200000ul;
    static uint8_t input[1024];
    for (unsigned long round = 0; round < rounds; round++) {
        size_t size = next_random() % sizeof(input);
        if (next_random() % 4 != 0)
            size = 3 + 3 * (next_random() % 8); /* a few edits of the valid packet */
        for (size_t i = 0; i < size; i++)
            input[i] = (uint8_t)next_random();
        LLVMFuzzerTestOneInput(input, size);
    }
    printf("%lu inputs, no failure\n", rounds);
    return 0;
}
