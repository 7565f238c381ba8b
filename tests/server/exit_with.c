/* A plain program for the engine to start: exits with its first argument. */
#include <stdlib.h>

int main(int argc, char **argv)
{
    return argc > 1 ? atoi(argv[1]) : 0;
}
