/* Prints the order of its start-up: the constructor, then main. Under the gate tool the gates' lines come
 * before. */
#include <string.h>
#include <unistd.h>

static void say(const char* text) {
  ssize_t ignored = write(1, text, strlen(text));
  (void)ignored;
}

__attribute__((constructor)) static void constructor(void) { say("constructor\n"); }

int main(int argc, char** argv) {
  (void)argv;
  say(argc > 1 ? "main with arguments\n" : "main\n");
  return 0;
}
