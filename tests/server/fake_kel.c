/*
 * Stands in for the engine in the run-tool's tests: takes the engine's
 * command line (kel -t <tool> -server_name <name> -- <program> args) and
 * starts the program with the server name in VORX_TEST_SERVER_NAME, in the
 * same process, as the engine does.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    const char *server_name = NULL;
    int i = 1;
    for (; i < argc && strcmp(argv[i], "--") != 0; i++)
        if (strcmp(argv[i], "-server_name") == 0 && i + 1 < argc)
            server_name = argv[++i];
    if (!server_name || i + 1 >= argc) {
        fprintf(stderr, "fake_kel: usage: fake_kel -t tool -server_name name -- program args\n");
        return 126;
    }
    setenv("VORX_TEST_SERVER_NAME", server_name, 1);
    execvp(argv[i + 1], argv + i + 1);
    perror("fake_kel: exec");
    return 127;
}
