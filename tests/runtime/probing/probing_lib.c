/* A library of the test program: its constructor tells the tool when it runs,
 * which must be after the libc gate and before the executable's gate. */
extern int probing_tool_query(const char *question, char *answer, int size);

__attribute__((constructor)) static void library_constructor(void) {
    char ignored[8];
    probing_tool_query("mark library constructor", ignored, sizeof ignored);
}

int probing_lib_function(int x) { return x * 3 + 1; }
